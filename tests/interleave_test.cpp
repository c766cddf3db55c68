// Interleaving: audio held back and written in one burst, one chunk, per period; the buffer's
// growth; the last burst written by the finish; several audio tracks sharing the buffer; real
// streams checked by ffprobe and ffmpeg.
#include "internal.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
using test_util::be32;
using test_util::be64;

// ---- input --------------------------------------------------------------------------------------

// An ADTS frame (no CRC) around `payload`.
Bytes adts(const Bytes &payload) {
    size_t len = payload.size() + 7;
    Bytes f = {0xFF,
               0xF1,
               0x4C,
               uint8_t(0x80 | ((len >> 11) & 3)),
               uint8_t(len >> 3),
               uint8_t(((len & 7) << 5) | 0x1F),
               0xFC};
    f.insert(f.end(), payload.begin(), payload.end());
    return f;
}

// Bytes that tell samples apart: `n` bytes derived from the track and the sample number.
Bytes pattern(uint32_t track, uint32_t index, size_t n) {
    Bytes b(n);
    for (size_t i = 0; i < n; i++)
        b[i] = uint8_t(track * 71 + index * 13 + i * 7 + (index >> 8));
    return b;
}

// Audio payload sizes that vary, as an encoder's do.
size_t audioSize(uint32_t index) {
    return 40 + (index * 37) % 200;
}

const Bytes SPS = {0x67, 0x42, 0xC0, 0x1E, 0xD9, 0x01, 0x41, 0xFB, 0x01, 0x10};
const Bytes PPS = {0x68, 0xCB, 0x83, 0xCB};

// Video access unit `index` behind 4-byte start codes (parameter sets before the first) and
// the sample the writer stores for it: the slice with its start code replaced by its length.
void videoUnit(uint32_t index, Bytes *unit, Bytes *stored) {
    Bytes slice = {uint8_t(index % 25 == 0 ? 0x65 : 0x41)};
    Bytes body = pattern(9, index, 30 + index % 50);
    slice.insert(slice.end(), body.begin(), body.end());
    unit->clear();
    if (index == 0) {
        for (const Bytes *ps : {&SPS, &PPS}) {
            unit->insert(unit->end(), {0, 0, 0, 1});
            unit->insert(unit->end(), ps->begin(), ps->end());
        }
    }
    unit->insert(unit->end(), {0, 0, 0, 1});
    unit->insert(unit->end(), slice.begin(), slice.end());
    uint32_t n = uint32_t(slice.size());
    *stored = {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)};
    stored->insert(stored->end(), slice.begin(), slice.end());
}

// ---- what the writer reports --------------------------------------------------------------------

struct Written {
    uint32_t track;
    uint64_t offset;
    uint32_t size;
    long call; // index of the delivering call that wrote it; -1 for the finish
};

struct Log {
    long call = -1;
    std::vector<Written> written;
};

int onSample(void *opaque, uint32_t track, uint64_t offset, uint64_t, uint32_t size, uint32_t) {
    auto *log = static_cast<Log *>(opaque);
    log->written.push_back({track, offset, size, log->call});
    return 0;
}

// ---- sample tables read from the file's bytes ---------------------------------------------------

struct FileTrack {
    std::vector<uint32_t> sizes;
    std::vector<std::array<uint32_t, 2>> stsc; // first_chunk, samples_per_chunk
    std::vector<uint64_t> chunks;
    bool found = false;

    // Samples of every chunk, expanded from the run-length stsc.
    std::vector<uint32_t> perChunk() const {
        std::vector<uint32_t> out;
        for (size_t c = 1; c <= chunks.size(); c++) {
            uint32_t n = 0;
            for (const auto &e : stsc)
                if (e[0] <= c)
                    n = e[1];
            out.push_back(n);
        }
        return out;
    }
    std::vector<uint64_t> offsets() const {
        std::vector<uint64_t> out;
        std::vector<uint32_t> per = perChunk();
        size_t s = 0;
        for (size_t c = 0; c < chunks.size(); c++) {
            uint64_t at = chunks[c];
            for (uint32_t k = 0; k < per[c] && s < sizes.size(); k++) {
                out.push_back(at);
                at += sizes[s++];
            }
        }
        return out;
    }
};

FileTrack readTrack(const Bytes &f, int n) {
    FileTrack t;
    const std::string stbl = "moov/trak#" + std::to_string(n) + "/mdia/minf/stbl/";
    test_util::BoxRef stsz = test_util::findBox(f, stbl + "stsz");
    test_util::BoxRef stsc = test_util::findBox(f, stbl + "stsc");
    test_util::BoxRef stco = test_util::findBox(f, stbl + "stco");
    test_util::BoxRef co64 = test_util::findBox(f, stbl + "co64");
    if (!stsz.found || !stsc.found || !(stco.found || co64.found))
        return t;
    t.found = true;
    const uint8_t *p = &f[stsz.payload()];
    uint32_t fixed = be32(p + 4), count = be32(p + 8);
    for (uint32_t i = 0; i < count; i++)
        t.sizes.push_back(fixed ? fixed : be32(p + 12 + 4 * i));
    p = &f[stsc.payload()];
    for (uint32_t i = 0, k = be32(p + 4); i < k; i++)
        t.stsc.push_back({be32(p + 8 + 12 * i), be32(p + 12 + 12 * i)});
    if (stco.found) {
        p = &f[stco.payload()];
        for (uint32_t i = 0, k = be32(p + 4); i < k; i++)
            t.chunks.push_back(be32(p + 8 + 4 * i));
    } else {
        p = &f[co64.payload()];
        for (uint32_t i = 0, k = be32(p + 4); i < k; i++)
            t.chunks.push_back(be64(p + 8 + 8 * i));
    }
    return t;
}

// Every sample of the track as the file holds it equals what was given.
void expectSamples(const Bytes &f, int track, const std::vector<Bytes> &given) {
    FileTrack t = readTrack(f, track);
    ASSERT_TRUE(t.found) << "track " << track;
    std::vector<uint64_t> at = t.offsets();
    ASSERT_EQ(at.size(), given.size()) << "track " << track;
    for (size_t i = 0; i < given.size(); i++) {
        ASSERT_EQ(t.sizes[i], given[i].size()) << "track " << track << " sample " << i;
        ASSERT_LE(at[i] + given[i].size(), f.size());
        ASSERT_TRUE(std::equal(given[i].begin(), given[i].end(), f.begin() + long(at[i])))
            << "track " << track << " sample " << i << " at " << at[i];
    }
}

struct Recording {
    test_util::TempDir dir;
    std::string path = dir.file("out.mp4");
    mp4_muxer *m = mp4_writer_create();
    Log log;
    Recording(uint32_t period) {
        mp4_file_name_ascii(m, path.c_str());
        mp4_interleave_duration(m, period);
        mp4_set_sample_callback(m, onSample, &log);
    }
    ~Recording() { mp4_delete(m); }
    void write(uint32_t track, const Bytes &b, uint32_t duration) {
        log.call++;
        mp4_write_track(m, track, b.data(), uint32_t(b.size()), duration);
    }
    Bytes finish() {
        log.call = -1;
        mp4_write_movie(m);
        mp4_delete(m);
        m = nullptr;
        return test_util::readFile(path);
    }
};

// The frame during whose delivery frame f of `duration` ticks is written with a period of
// `period` ticks: the first frame that starts at or after the end of the period f starts in.
long deliveredIn(uint64_t f, uint64_t duration, uint64_t period) {
    uint64_t period_end = (f * duration / period + 1) * period;
    return long((period_end + duration - 1) / duration);
}

// ---- one audio track ----------------------------------------------------------------------------

TEST(Interleave, AudioAloneIsWrittenInOneChunkPerPeriod) {
    Recording r(48000);
    uint32_t audio = mp4_audio_track_create(r.m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    const uint32_t frames = 400;
    std::vector<Bytes> given;
    for (uint32_t i = 0; i < frames; i++) {
        given.push_back(pattern(audio, i, audioSize(i)));
        r.write(audio, adts(given.back()), 1024);
    }
    // Held back until the period's end: the first second (timestamps 0 .. 47104, 47 frames)
    // goes out when the frame at 48128 arrives.
    ASSERT_GE(r.log.written.size(), 47u);
    for (size_t i = 0; i < 47; i++)
        EXPECT_EQ(r.log.written[i].call, 47) << i;
    const uint32_t tail_start = uint32_t(r.log.written.size());
    Bytes f = r.finish();
    ASSERT_EQ(r.log.written.size(), frames);
    std::vector<uint32_t> bursts(1, 0);
    for (uint32_t i = 0; i < frames; i++) {
        long expected = deliveredIn(i, 1024, 48000);
        // Frames whose period had not ended when the input stopped are written by the finish.
        EXPECT_EQ(r.log.written[i].call, expected < long(frames) ? expected : -1) << i;
        if (i && r.log.written[i].call != r.log.written[i - 1].call)
            bursts.push_back(0);
        bursts.back()++;
    }
    EXPECT_EQ(tail_start, frames - bursts.back());
    EXPECT_EQ(bursts[0], 47u);
    for (size_t b = 1; b + 1 < bursts.size(); b++)
        EXPECT_TRUE(bursts[b] == 46 || bursts[b] == 47) << "burst " << b << ": " << bursts[b];

    // One chunk per burst, as stsc and stco say.
    FileTrack t = readTrack(f, 1);
    EXPECT_EQ(t.perChunk(), bursts);
    ASSERT_EQ(t.chunks.size(), bursts.size());
    size_t first = 0;
    for (size_t c = 0; c < bursts.size(); c++) {
        EXPECT_EQ(t.chunks[c], r.log.written[first].offset) << "chunk " << c;
        first += bursts[c];
    }
    EXPECT_EQ(t.stsc[0], (std::array<uint32_t, 2>{1, 47}));
    expectSamples(f, 1, given);
}

TEST(Interleave, WithVideoEachAudioBurstIsOneChunkBetweenRunsOfVideo) {
    Recording r(48000);
    uint32_t video = mp4_video_track_create(r.m, fourcc("avc1"), 90000, 3600, 0, 128, 96, 66, 30);
    uint32_t audio = mp4_audio_track_create(r.m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    std::vector<Bytes> vgiven, agiven;
    uint32_t v = 0, a = 0;
    std::vector<long> audio_calls; // the call index at which each audio frame was delivered
    while (v < 250) {              // 10 s of 25 fps video with the audio due by each frame
        Bytes unit, stored;
        videoUnit(v, &unit, &stored);
        vgiven.push_back(stored);
        r.write(video, unit, 3600);
        v++;
        while (uint64_t(a) * 1024 * 90000 < uint64_t(v) * 3600 * 48000) {
            agiven.push_back(pattern(audio, a, audioSize(a)));
            r.write(audio, adts(agiven.back()), 1024);
            audio_calls.push_back(r.log.call);
            a++;
        }
    }
    Bytes f = r.finish();
    std::vector<long> acalls;
    for (const Written &w : r.log.written)
        if (w.track == audio)
            acalls.push_back(w.call);
    ASSERT_EQ(acalls.size(), a);
    std::vector<uint32_t> bursts(1, 0);
    for (uint32_t i = 0; i < a; i++) {
        long frame = deliveredIn(i, 1024, 48000);
        EXPECT_EQ(acalls[i], frame < long(a) ? audio_calls[size_t(frame)] : -1) << i;
        if (i && acalls[i] != acalls[i - 1])
            bursts.push_back(0);
        bursts.back()++;
    }
    FileTrack at = readTrack(f, 2), vt = readTrack(f, 1);
    EXPECT_EQ(at.perChunk(), bursts);
    EXPECT_EQ(at.stsc[0], (std::array<uint32_t, 2>{1, 47}));
    // Video runs between the bursts: as many video chunks as there are gaps between bursts,
    // plus the run before the first burst.
    EXPECT_EQ(vt.chunks.size(), bursts.size());
    std::vector<uint64_t> all(at.chunks);
    all.insert(all.end(), vt.chunks.begin(), vt.chunks.end());
    std::sort(all.begin(), all.end());
    for (size_t i = 0; i < all.size(); i++) // video chunk, audio chunk, video chunk, ...
        EXPECT_EQ(std::count(vt.chunks.begin(), vt.chunks.end(), all[i]), i % 2 == 0 ? 1 : 0);
    expectSamples(f, 1, vgiven);
    expectSamples(f, 2, agiven);
}

TEST(Interleave, PcmBlocksFormOneChunkOfFramesPerPeriod) {
    Recording r(48000);
    uint32_t audio = mp4_audio_track_create(r.m, fourcc("sowt"), 48000, 1, 0, 48000, 2);
    std::vector<Bytes> blocks;
    for (uint32_t i = 0; i < 100; i++) {
        blocks.push_back(pattern(audio, i, 4096)); // 1024 stereo 16-bit frames
        r.write(audio, blocks.back(), 1024);
    }
    Bytes f = r.finish();
    FileTrack t = readTrack(f, 1);
    // Every frame is a sample of the chunk: bursts of 47, 47 and the last 6 blocks.
    EXPECT_EQ(t.perChunk(), (std::vector<uint32_t>{47 * 1024, 47 * 1024, 6 * 1024}));
    ASSERT_EQ(t.chunks.size(), 3u);
    Bytes all;
    for (const Bytes &b : blocks)
        all.insert(all.end(), b.begin(), b.end());
    test_util::BoxRef mdat = test_util::findBox(f, "mdat");
    ASSERT_TRUE(mdat.found);
    EXPECT_EQ(t.chunks[0], mdat.payload());
    ASSERT_EQ(mdat.size - mdat.header, all.size());
    EXPECT_TRUE(std::equal(all.begin(), all.end(), f.begin() + long(mdat.payload())));
}

TEST(Interleave, FinishWritesTheLastPartialBurstBeforeTheMediaDataIsClosed) {
    Recording r(48000);
    uint32_t audio = mp4_audio_track_create(r.m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    std::vector<Bytes> given;
    for (uint32_t i = 0; i < 60; i++) {
        given.push_back(pattern(audio, i, audioSize(i)));
        r.write(audio, adts(given.back()), 1024);
    }
    ASSERT_EQ(r.log.written.size(), 47u);
    EXPECT_EQ(r.m->tracks[audio - 1].sample_count, 13u); // held
    Bytes f = r.finish();
    ASSERT_EQ(r.log.written.size(), 60u);
    FileTrack t = readTrack(f, 1);
    EXPECT_EQ(t.perChunk(), (std::vector<uint32_t>{47, 13}));
    // The media data box closes behind the last burst, and the movie follows it.
    test_util::BoxRef mdat = test_util::findBox(f, "mdat");
    const Written &last = r.log.written.back();
    EXPECT_EQ(mdat.end(), last.offset + last.size);
    EXPECT_EQ(test_util::topLevel(f), (std::vector<std::string>{"ftyp", "free", "mdat", "moov"}));
    expectSamples(f, 1, given);
}

// ---- the buffer ---------------------------------------------------------------------------------

TEST(InterleaveBuffer, GrowsInWhole64KiBStepsAndIsReusedAfterABurst) {
    Recording r(48000);
    uint32_t audio = mp4_audio_track_create(r.m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    std::vector<Bytes> given;
    auto put = [&](size_t n) {
        given.push_back(pattern(audio, uint32_t(given.size()), n));
        r.write(audio, adts(given.back()), 1024);
    };
    put(10); // the buffer is made at the first sample
    EXPECT_EQ(r.m->interleave_size, 0x10000u);
    put(200000); // 200010 bytes held: four steps
    EXPECT_EQ(r.m->interleave_size, 4u * 0x10000);
    put(100); // fits behind
    EXPECT_EQ(r.m->interleave_size, 4u * 0x10000);
    put(62000); // 262138 bytes held: still within the four steps
    EXPECT_EQ(r.m->interleave_size, 4u * 0x10000);
    put(40); // 262185 bytes: one step more
    EXPECT_EQ(r.m->interleave_size, 5u * 0x10000);
    // ADTS headers are held with the sample and stripped when it is written.
    EXPECT_EQ(r.m->tracks[audio - 1].samples[1].size, 200007u);
    while (given.size() < 47)
        put(50);
    EXPECT_TRUE(r.log.written.empty());
    put(300000); // the burst went out first: the buffer starts over and needs no growth
    EXPECT_EQ(r.log.written.size(), 47u);
    EXPECT_EQ(r.m->tracks[audio - 1].samples[0].offset, 0u);
    EXPECT_EQ(r.m->interleave_size, 5u * 0x10000);
    put(65536 * 3); // 496622 bytes: three more steps
    EXPECT_EQ(r.m->interleave_size, 8u * 0x10000);
    Bytes f = r.finish();
    expectSamples(f, 1, given);
}

TEST(InterleaveBuffer, AnEmptySampleHeldAloneKeepsItsDuration) {
    Recording r(48000);
    uint32_t audio = mp4_audio_track_create(r.m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    static const uint8_t none = 0;
    r.log.call++;
    mp4_write_track(r.m, audio, &none, 0, 1024); // nothing to hold, but its time counts
    Bytes f = r.finish();
    test_util::BoxRef mdhd = test_util::findBox(f, "moov/trak/mdia/mdhd");
    ASSERT_TRUE(mdhd.found);
    EXPECT_EQ(be32(&f[mdhd.payload() + 16]), 1024u);
    EXPECT_TRUE(readTrack(f, 1).sizes.empty());
}

TEST(InterleaveBuffer, AllocationFailuresDropTheSampleAndKeepWhatIsHeld) {
    Recording r(48000);
    uint32_t audio = mp4_audio_track_create(r.m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    std::vector<Bytes> given;
    for (uint32_t i = 0; i < 3; i++) {
        given.push_back(pattern(audio, i, 100));
        r.write(audio, adts(given.back()), 1024);
    }
    // The buffer cannot grow for a sample larger than its room.
    testing::internal::CaptureStderr();
    mp4_alloc_fail_after(0);
    r.write(audio, adts(pattern(audio, 3, 70000)), 1024);
    mp4_alloc_fail_after(-1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "track_interleave: failed to reallocate interleave buffer\n");
    EXPECT_EQ(mp4_get_error_code(r.m), 2u);
    EXPECT_EQ(r.m->tracks[audio - 1].sample_count, 3u);
    // The record array grows one record at a time: its growth fails on the next sample.
    mp4_set_error(r.m, 0);
    testing::internal::CaptureStderr();
    mp4_alloc_fail_after(0);
    r.write(audio, adts(pattern(audio, 4, 100)), 1024);
    mp4_alloc_fail_after(-1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "track_interleave: failed to reallocate fragment buffer\n");
    EXPECT_EQ(mp4_get_error_code(r.m), 2u);
    EXPECT_EQ(r.m->tracks[audio - 1].sample_count, 3u);
    mp4_set_error(r.m, 0);
    given.push_back(pattern(audio, 5, 100));
    r.write(audio, adts(given.back()), 1024);
    Bytes f = r.finish();
    expectSamples(f, 1, given);
    // The lost samples are not in the track, nor is their time.
    test_util::BoxRef mdhd = test_util::findBox(f, "moov/trak/mdia/mdhd");
    EXPECT_EQ(be32(&f[mdhd.payload() + 16]), 4u * 1024);
}

TEST(InterleaveBuffer, ALongSampleOverAShortPeriodMovesTheDeadlineAtOnce) {
    Recording r(1);
    uint32_t audio = mp4_audio_track_create(r.m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    Bytes a = adts(pattern(audio, 0, 10)), b = adts(pattern(audio, 1, 10));
    r.write(audio, a, 0xFFFFFFFFu);
    r.write(audio, b, 0xFFFFFFFFu); // writes the first; the deadline passes the second's start
    EXPECT_EQ(r.m->interleave_time, 0xFFFFFFFFull + 1);
    EXPECT_EQ(r.log.written.size(), 1u);
    r.finish();
    EXPECT_EQ(r.log.written.size(), 2u);
}

// ---- several audio tracks -----------------------------------------------------------------------

// Held samples of all tracks lie one after the other from the start of the buffer.
void expectPackedBuffer(mp4_muxer *m) {
    std::vector<std::pair<uint64_t, uint32_t>> held;
    for (uint32_t t = 0; t + 1 < m->next_track_id; t++)
        for (uint32_t i = 0; i < m->tracks[t].sample_count; i++)
            held.emplace_back(m->tracks[t].samples[i].offset, m->tracks[t].samples[i].size);
    std::sort(held.begin(), held.end());
    uint64_t end = 0;
    for (const auto &h : held) {
        ASSERT_EQ(h.first, end) << "held samples overlap or leave a gap";
        end += h.second;
    }
    EXPECT_LE(end, m->interleave_size);
}

TEST(InterleaveTracks, TwoAudioTracksShareTheBufferWithoutOverlap) {
    Recording r(48000);
    uint32_t video = mp4_video_track_create(r.m, fourcc("avc1"), 90000, 3600, 0, 128, 96, 66, 30);
    uint32_t a1 = mp4_audio_track_create(r.m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    uint32_t a2 = mp4_audio_track_create(r.m, fourcc("mp4a"), 32000, 1024, 0, 32000, 1);
    std::vector<Bytes> vgiven, g1, g2;
    uint32_t n1 = 0, n2 = 0;
    int bursts_beside_held = 0; // bursts written while the other track held samples
    auto deliver = [&](uint32_t track, uint32_t other, const Bytes &frame) {
        const uint32_t held_before = r.m->tracks[track - 1].sample_count;
        const uint32_t other_held = r.m->tracks[other - 1].sample_count;
        r.write(track, frame, 1024);
        if (r.m->tracks[track - 1].sample_count <= held_before && other_held)
            bursts_beside_held++;
    };
    for (uint32_t v = 0; v < 200;) {
        Bytes unit, stored;
        videoUnit(v, &unit, &stored);
        vgiven.push_back(stored);
        r.write(video, unit, 3600);
        v++;
        // Both audio tracks deliver what is due, one frame of each in turn.
        for (;;) {
            bool due1 = uint64_t(n1) * 1024 * 90000 < uint64_t(v) * 3600 * 48000;
            bool due2 = uint64_t(n2) * 1024 * 90000 < uint64_t(v) * 3600 * 32000;
            if (!due1 && !due2)
                break;
            if (due1) {
                g1.push_back(pattern(a1, n1, audioSize(n1)));
                deliver(a1, a2, adts(g1.back()));
                n1++;
                ASSERT_NO_FATAL_FAILURE(expectPackedBuffer(r.m));
            }
            if (due2) {
                g2.push_back(pattern(a2, n2, 300 + audioSize(n2 * 3)));
                deliver(a2, a1, adts(g2.back()));
                n2++;
                ASSERT_NO_FATAL_FAILURE(expectPackedBuffer(r.m));
            }
        }
    }
    // Bursts went out while the other track held samples, which then moved to the front.
    EXPECT_GT(bursts_beside_held, 4);
    EXPECT_LE(r.m->interleave_size, 3u * 0x10000);
    Bytes f = r.finish();
    expectSamples(f, 1, vgiven);
    expectSamples(f, 2, g1);
    expectSamples(f, 3, g2);
    // Each burst is one chunk of its track, and each track has one per period of its own
    // timescale (8 s: 8 periods at 48 kHz, 5 and a part at 32 kHz): a track one frame behind
    // another is not left holding until the finish.
    FileTrack t1 = readTrack(f, 2), t2 = readTrack(f, 3);
    EXPECT_EQ(t1.chunks.size(), 8u);
    EXPECT_EQ(t2.chunks.size(), 6u);
}

TEST(InterleaveTracks, TwoAudioTracksAtOneRateEachGetABurstPerPeriod) {
    // Frames of both tracks in turn: the first to reach a deadline must not move the second's.
    Recording r(48000);
    uint32_t a1 = mp4_audio_track_create(r.m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    uint32_t a2 = mp4_audio_track_create(r.m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    std::vector<Bytes> g1, g2;
    for (uint32_t n = 0; n < 47 * 10; n++) {
        g1.push_back(pattern(a1, n, audioSize(n)));
        r.write(a1, adts(g1.back()), 1024);
        g2.push_back(pattern(a2, n, audioSize(n + 1)));
        r.write(a2, adts(g2.back()), 1024);
        ASSERT_LT(r.m->tracks[a2 - 1].sample_count, 48u) << "frame " << n;
    }
    Bytes f = r.finish();
    expectSamples(f, 1, g1);
    expectSamples(f, 2, g2);
    EXPECT_EQ(readTrack(f, 1).chunks.size(), readTrack(f, 2).chunks.size());
}

TEST(InterleaveTracks, SamplesHeldWhenInterleavingIsTurnedOffAreWritten) {
    Recording r(48000);
    uint32_t audio = mp4_audio_track_create(r.m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    std::vector<Bytes> given;
    for (uint32_t n = 0; n < 11; n++) {
        if (n == 10)
            mp4_interleave_duration(r.m, 0); // ten frames held so far
        given.push_back(pattern(audio, n, 100 + n));
        r.write(audio, adts(given.back()), 1024);
    }
    Bytes f = r.finish();
    expectSamples(f, 1, given);
}

// ---- real streams -------------------------------------------------------------------------------

TEST(InterleaveInterop, RecordingOfTheSampleStreamsPlays) {
    SKIP_WITHOUT_FFPROBE();
    Bytes h264 = test_util::readFile(test_util::dataPath("sample.h264"));
    Bytes aac = test_util::readFile(test_util::dataPath("sample.aac"));
    auto units = test_util::splitAtDelimiters(h264);
    auto frames = test_util::splitAdtsFrames(aac);
    ASSERT_EQ(units.size(), 75u);
    ASSERT_EQ(frames.size(), 142u);
    for (const char *name : {"out.mp4", "out.mov"}) {
        SCOPED_TRACE(name);
        test_util::TempDir dir;
        const std::string path = dir.file(name);
        const bool mov = std::string(name).find(".mov") != std::string::npos;
        mp4_muxer *m = mov ? mov_writer_create() : mp4_writer_create();
        mp4_file_name_ascii(m, path.c_str());
        mp4_interleave_duration(m, 24000); // half a second of audio
        mp4_video_track_create(m, fourcc("avc1"), 90000, 3600, 0, 128, 96, 66, 11);
        mp4_audio_track_create(m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
        size_t a = 0;
        for (size_t v = 0; v < units.size(); v++) {
            mp4_write_track(m, 1, h264.data() + units[v].first, uint32_t(units[v].second), 3600);
            while (a < frames.size() && uint64_t(a) * 1024 * 90000 <= (v + 1) * 3600 * 48000) {
                mp4_write_track(m, 2, aac.data() + frames[a].first, uint32_t(frames[a].second),
                                1024);
                a++;
            }
        }
        while (a < frames.size()) {
            mp4_write_track(m, 2, aac.data() + frames[a].first, uint32_t(frames[a].second), 1024);
            a++;
        }
        mp4_write_movie(m);
        EXPECT_EQ(mp4_get_error_code(m), 0u);
        mp4_delete(m);

        Bytes f = test_util::readFile(path);
        FileTrack t = readTrack(f, 2);
        // 142 frames in half-second bursts of 23 or 24 frames.
        std::vector<uint32_t> per = t.perChunk();
        // The first burst holds timestamps 0 .. 23552; the last frame goes out at the finish,
        // right behind the burst before it but in a chunk of its own.
        EXPECT_EQ(per, (std::vector<uint32_t>{24, 23, 24, 23, 24, 23, 1}));
        std::vector<test_util::Fields> streams;
        std::string errors;
        ASSERT_TRUE(test_util::probeStreams(path, &streams, &errors)) << errors;
        ASSERT_EQ(streams.size(), 2u);
        EXPECT_EQ(streams[0]["codec_name"], "h264");
        EXPECT_EQ(streams[0]["nb_frames"], "75");
        EXPECT_EQ(streams[1]["codec_name"], "aac");
        EXPECT_EQ(streams[1]["nb_read_packets"], "142");
        EXPECT_EQ(test_util::decodeErrors(path), "");
    }
}

} // namespace
