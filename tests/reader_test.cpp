// Reader: loading, playback in both directions, seeking, fragment-stream timestamps and track
// queries. Movies are built in memory from a sample layout; the expected deliveries are derived
// from that same layout by a plain model, independently of the reader's table walking.
#include "internal.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace {

// ---- building movies in memory ---------------------------------------------------------------

template <class T> T *make(const char (&type)[5]) {
    return static_cast<T *>(newBox(fourcc(type), 8));
}

template <class E> E *entries(size_t n) {
    return static_cast<E *>(mp4_calloc(n ? n : 1, sizeof(E)));
}

Box *add(Box *parent, Box *child) {
    addBox(child, parent);
    return child;
}

struct TrackSpec {
    uint32_t handler = fourcc("vide");
    uint32_t track_ID = 0; // 0: position in the movie
    uint32_t timescale = 1000;
    std::vector<uint32_t> sizes;                     // per sample
    std::vector<std::pair<uint32_t, uint32_t>> stts; // (sample_count, sample_delta)
    std::vector<uint32_t> chunk_samples;             // samples per chunk
    std::vector<uint64_t> chunk_offsets;             // one per chunk
    bool has_stss = false;
    std::vector<uint32_t> sync; // 1-based sample numbers
    bool co64 = false;
    uint32_t constant_size = 0; // non-zero: stsz without a per-sample table
    uint32_t stsz_count = 0;    // with constant_size: the claimed sample count
    uint32_t fourcc_entry = 0;  // sample entry code in stsd, 0 = none
    uint32_t samplerate = 0;    // of an audio entry, Hz
};

// A regular layout: n samples of distinct sizes, delta `delta`, chunks of the given pattern
// placed at increasing offsets with gaps between chunks.
TrackSpec regular(uint32_t handler, uint32_t n, uint32_t delta, std::vector<uint32_t> chunks,
                  uint64_t base, uint32_t size_seed) {
    TrackSpec t;
    t.handler = handler;
    for (uint32_t i = 0; i < n; i++)
        t.sizes.push_back(size_seed + (i * 37) % 101);
    t.stts = {{n, delta}};
    uint32_t covered = 0;
    size_t ci = 0;
    while (covered < n) {
        uint32_t k = std::min(chunks[std::min(ci, chunks.size() - 1)], n - covered);
        t.chunk_samples.push_back(k);
        ci++;
        covered += k;
    }
    uint64_t off = base;
    size_t s = 0;
    for (uint32_t k : t.chunk_samples) {
        t.chunk_offsets.push_back(off);
        for (uint32_t j = 0; j < k; j++)
            off += t.sizes[s++];
        off += 1000; // the other track's chunks would lie here
    }
    return t;
}

Box *buildTrak(const TrackSpec &t, uint32_t id) {
    Box *trak = make<Box>("trak");
    auto *tkhd = make<Tkhd>("tkhd");
    tkhd->track_ID = id;
    add(trak, tkhd);
    Box *mdia = add(trak, make<Box>("mdia"));
    auto *mdhd = make<Mdhd>("mdhd");
    mdhd->timescale = t.timescale;
    add(mdia, mdhd);
    auto *hdlr = make<Hdlr>("hdlr");
    hdlr->handler_type = t.handler;
    add(mdia, hdlr);
    Box *minf = add(mdia, make<Box>("minf"));
    Box *stbl = add(minf, make<Box>("stbl"));

    auto *stsd = make<Stsd>("stsd");
    add(stbl, stsd);
    if (t.fourcc_entry) {
        auto *entry = static_cast<SampleEntry *>(newBox(t.fourcc_entry, 8));
        entry->samplerate = t.samplerate << 16;
        stsd->entry_count = 1;
        add(stsd, entry);
    }

    auto *stts = make<Stts>("stts");
    stts->entry_count = uint32_t(t.stts.size());
    stts->entries = entries<SttsEntry>(t.stts.size());
    for (size_t i = 0; i < t.stts.size(); i++)
        stts->entries[i] = {t.stts[i].first, t.stts[i].second};
    add(stbl, stts);

    if (t.has_stss) {
        auto *stss = make<Stss>("stss");
        stss->entry_count = uint32_t(t.sync.size());
        stss->entries = entries<uint32_t>(t.sync.size());
        std::copy(t.sync.begin(), t.sync.end(), stss->entries);
        add(stbl, stss);
    }

    auto *stsc = make<Stsc>("stsc");
    std::vector<StscEntry> runs;
    for (size_t c = 0; c < t.chunk_samples.size(); c++)
        if (runs.empty() || runs.back().samples_per_chunk != t.chunk_samples[c])
            runs.push_back({uint32_t(c + 1), t.chunk_samples[c], 1});
    stsc->entry_count = uint32_t(runs.size());
    stsc->entries = entries<StscEntry>(runs.size());
    std::copy(runs.begin(), runs.end(), stsc->entries);
    add(stbl, stsc);

    auto *stsz = make<Stsz>("stsz");
    if (t.constant_size) {
        stsz->sample_size = t.constant_size;
        stsz->sample_count = t.stsz_count;
    } else {
        stsz->sample_count = uint32_t(t.sizes.size());
        stsz->entries = entries<uint32_t>(t.sizes.size());
        std::copy(t.sizes.begin(), t.sizes.end(), stsz->entries);
    }
    add(stbl, stsz);

    if (t.co64) {
        auto *co64 = make<Co64>("co64");
        co64->entry_count = uint32_t(t.chunk_offsets.size());
        co64->entries = entries<uint64_t>(t.chunk_offsets.size());
        std::copy(t.chunk_offsets.begin(), t.chunk_offsets.end(), co64->entries);
        add(stbl, co64);
    } else {
        auto *stco = make<Stco>("stco");
        stco->entry_count = uint32_t(t.chunk_offsets.size());
        stco->entries = entries<uint32_t>(t.chunk_offsets.size());
        for (size_t i = 0; i < t.chunk_offsets.size(); i++)
            stco->entries[i] = uint32_t(t.chunk_offsets[i]);
        add(stbl, stco);
    }
    return trak;
}

Box *buildMoov(const std::vector<TrackSpec> &tracks, uint32_t next_track_ID = 0) {
    Box *moov = make<Box>("moov");
    auto *mvhd = make<Mvhd>("mvhd");
    mvhd->timescale = 1000;
    mvhd->next_track_ID = next_track_ID ? next_track_ID : uint32_t(tracks.size() + 1);
    add(moov, mvhd);
    for (size_t i = 0; i < tracks.size(); i++)
        add(moov, buildTrak(tracks[i], tracks[i].track_ID ? tracks[i].track_ID : uint32_t(i + 1)));
    return moov;
}

Box *stblOf(Box *moov, int index) {
    Box *trak = getChild(moov, fourcc("trak"));
    for (int i = 0; i < index; i++)
        trak = trak->next;
    return getChild(getChild(getChild(trak, fourcc("mdia")), fourcc("minf")), fourcc("stbl"));
}

// ---- the model -------------------------------------------------------------------------------

using test_util::Delivery;

// Every sample of a track as the layout places it.
std::vector<Delivery> expectedSamples(const TrackSpec &t, uint32_t number) {
    std::vector<Delivery> out;
    std::vector<uint64_t> dts;
    uint64_t time = 0;
    for (auto &e : t.stts)
        for (uint32_t i = 0; i < e.first; i++) {
            dts.push_back(time);
            time += e.second;
        }
    size_t s = 0;
    for (size_t c = 0; c < t.chunk_samples.size(); c++) {
        uint64_t off = t.chunk_offsets[c];
        for (uint32_t j = 0; j < t.chunk_samples[c] && s < t.sizes.size(); j++, s++) {
            uint32_t flags = 0;
            if (t.has_stss && std::count(t.sync.begin(), t.sync.end(), uint32_t(s + 1)))
                flags = 1;
            else if (t.handler == fourcc("soun"))
                flags = 2;
            out.push_back({number, off, dts[s], t.sizes[s], flags});
            off += t.sizes[s];
        }
    }
    return out;
}

uint64_t endTime(const TrackSpec &t) {
    uint64_t time = 0;
    for (auto &e : t.stts)
        time += uint64_t(e.first) * e.second;
    return time;
}

// Forward interleaving: before each video sample, the audio samples whose decode time is not
// later (compared as seconds); after the last, the audio up to the video's end.
std::vector<Delivery> expectedForward(const std::vector<Delivery> &video, uint64_t video_end,
                                      uint32_t vts, const std::vector<Delivery> &audio,
                                      uint32_t ats) {
    std::vector<Delivery> out;
    size_t a = 0;
    auto due = [&](uint64_t atime, uint64_t vtime) {
        return (unsigned __int128)atime * vts <= (unsigned __int128)vtime * ats;
    };
    for (auto &v : video) {
        while (a < audio.size() && due(audio[a].timestamp, v.timestamp))
            out.push_back(audio[a++]);
        out.push_back(v);
    }
    while (a < audio.size() && due(audio[a].timestamp, video_end))
        out.push_back(audio[a++]);
    return out;
}

std::vector<Delivery> onlyTrack(const std::vector<Delivery> &all, uint32_t track) {
    std::vector<Delivery> out;
    for (auto &d : all)
        if (d.track == track)
            out.push_back(d);
    return out;
}

// ---- a reader over an in-memory movie -----------------------------------------------------------

int collect(void *opaque, uint32_t track, uint64_t offset, uint64_t timestamp, uint32_t size,
            uint32_t flags) {
    static_cast<std::vector<Delivery> *>(opaque)->push_back(
        {track, offset, timestamp, size, flags});
    return 0;
}

std::vector<Delivery> plain_calls;
int plainCallback(uint64_t offset, uint64_t timestamp, uint32_t size, uint32_t flags) {
    plain_calls.push_back({0, offset, timestamp, size, flags});
    return 0;
}

struct Reader {
    mp4_muxer *m;
    std::vector<Delivery> got;
    explicit Reader(Box *moov) : m(mp4_reader_create()) {
        m->moov = moov;
        mp4_set_sample_callback(m, collect, &got);
    }
    ~Reader() { mp4_delete(m); }
    int playAll(int limit = 100000) {
        int calls = 0;
        while (mp4_play(m) == 0 && ++calls < limit) {
        }
        return calls;
    }
    int reverseAll(int limit = 100000) {
        int calls = 0;
        while (mp4_play_reverse(m) == 0 && ++calls < limit) {
        }
        return calls;
    }
    std::vector<Delivery> take() {
        std::vector<Delivery> out;
        out.swap(got);
        return out;
    }
};

std::string captureStdout(const std::function<void()> &fn) {
    fflush(stdout);
    testing::internal::CaptureStdout();
    fn();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

std::string captureStderr(const std::function<void()> &fn) {
    testing::internal::CaptureStderr();
    fn();
    return testing::internal::GetCapturedStderr();
}

// A video track with irregular chunks, two stsc runs and a change of delta, and an audio track
// in the same timescale whose samples tie with every other video sample.
TrackSpec mixedVideo() {
    TrackSpec v = regular(fourcc("vide"), 20, 100, {3, 3, 5, 1, 4, 4}, 5000, 200);
    v.stts = {{10, 100}, {10, 200}};
    v.has_stss = true;
    v.sync = {1, 11};
    return v;
}

TrackSpec mixedAudio() {
    TrackSpec a = regular(fourcc("soun"), 70, 50, {10, 10, 7}, 100000, 20);
    return a;
}

// ---- playback --------------------------------------------------------------------------------

TEST(ReaderPlay, ForwardDeliversAudioDueThenEachVideoSample) {
    TrackSpec audio = mixedAudio(), video = mixedVideo();
    Reader r(buildMoov({audio, video})); // audio is track 1, video track 2
    int played = r.playAll();
    EXPECT_EQ(played, 20) << "one 0 result per video sample";
    auto v = expectedSamples(video, 2), a = expectedSamples(audio, 1);
    EXPECT_EQ(r.got, expectedForward(v, endTime(video), 1000, a, 1000));
    // Audio at 0, 50, ..., 3000: the samples after 3000, the video's end, are never delivered.
    EXPECT_EQ(onlyTrack(r.got, 1).size(), 61u);
    EXPECT_EQ(mp4_play(r.m), -1) << "stays at the end";
}

TEST(ReaderPlay, TieGoesToAudioAndFlagsFollowStss) {
    TrackSpec audio = mixedAudio(), video = mixedVideo();
    Reader r(buildMoov({video, audio}));
    ASSERT_EQ(mp4_play(r.m), 0);
    ASSERT_EQ(r.got.size(), 2u);
    EXPECT_EQ(r.got[0].track, 2u) << "audio at time 0 goes before video at time 0";
    EXPECT_EQ(r.got[0].flags, 2u) << "audio sample without stss";
    EXPECT_EQ(r.got[1].track, 1u);
    EXPECT_EQ(r.got[1].flags, 1u) << "video sample 1 is listed in stss";
    ASSERT_EQ(mp4_play(r.m), 0);
    EXPECT_EQ(r.got.back().flags, 0u) << "video sample 2 is not a sync sample";
}

TEST(ReaderPlay, PlainCallbackGetsTheSameArguments) {
    TrackSpec video = mixedVideo();
    Reader r(buildMoov({video}));
    plain_calls.clear();
    mp4_set_callback(r.m, plainCallback);
    r.playAll();
    auto expected = expectedSamples(video, 0);
    EXPECT_EQ(plain_calls, expected);
    mp4_set_callback(r.m, nullptr);
}

TEST(ReaderPlay, VideoWithoutStssHasFlagsZero) {
    TrackSpec video = regular(fourcc("vide"), 6, 10, {2}, 100, 50);
    Reader r(buildMoov({video}));
    r.playAll();
    ASSERT_EQ(r.got.size(), 6u);
    for (auto &d : r.got)
        EXPECT_EQ(d.flags, 0u);
}

TEST(ReaderPlay, ChunkOffsetsFromCo64Only) {
    TrackSpec video = regular(fourcc("vide"), 9, 10, {4}, 0x100000000ull + 16, 50);
    video.co64 = true;
    Reader r(buildMoov({video}));
    r.playAll();
    EXPECT_EQ(r.got, expectedSamples(video, 1));
    EXPECT_GT(r.got.back().offset, 0xFFFFFFFFull);
}

TEST(ReaderPlay, ConstantSampleSizeIsUsedForEverySample) {
    TrackSpec video = regular(fourcc("vide"), 8, 10, {3}, 100, 50);
    video.constant_size = 7;
    video.stsz_count = 8;
    video.sizes.assign(8, 7);
    video.chunk_offsets = {100, 300, 500};
    Reader r(buildMoov({video}));
    r.playAll();
    EXPECT_EQ(r.got, expectedSamples(video, 1));
    ASSERT_EQ(r.got.size(), 8u);
    EXPECT_EQ(r.got[2].offset, 114u);
    EXPECT_EQ(r.got[3].offset, 300u);
}

TEST(ReaderPlay, MovieWithOnlyAudioPlaysNothing) {
    Reader r(buildMoov({mixedAudio()}));
    EXPECT_EQ(mp4_play(r.m), -1);
    EXPECT_EQ(mp4_play_reverse(r.m), -1);
    EXPECT_TRUE(r.got.empty());
}

TEST(ReaderPlay, WithoutCallbackTheCursorStillMoves) {
    TrackSpec audio = mixedAudio(), video = mixedVideo();
    Reader r(buildMoov({video, audio}));
    mp4_set_sample_callback(r.m, nullptr, nullptr);
    for (int i = 0; i < 3; i++)
        ASSERT_EQ(mp4_play(r.m), 0);
    EXPECT_TRUE(r.got.empty());
    mp4_set_sample_callback(r.m, collect, &r.got);
    ASSERT_EQ(mp4_play(r.m), 0);
    auto all = expectedForward(expectedSamples(video, 1), endTime(video), 1000,
                               expectedSamples(audio, 2), 1000);
    // Video sample 4 (time 300) and the audio due before it that was not yet delivered: the
    // audio at 250 and 300.
    std::vector<Delivery> want;
    for (auto &d : all)
        if ((d.track == 2 && d.timestamp > 200 && d.timestamp <= 300) ||
            (d.track == 1 && d.timestamp == 300))
            want.push_back(d);
    EXPECT_EQ(r.got, want);
}

TEST(ReaderPlay, ReverseRetracesTheVideoSamplesInReverseOrder) {
    TrackSpec audio = mixedAudio(), video = mixedVideo();
    Reader r(buildMoov({video, audio}));
    r.playAll();
    auto forward = r.take();
    EXPECT_EQ(r.reverseAll(), 20);
    auto backward = r.take();
    auto fv = onlyTrack(forward, 1), bv = onlyTrack(backward, 1);
    std::reverse(fv.begin(), fv.end());
    EXPECT_EQ(bv, fv);
    // The audio comes back in reverse order too, each sample where the layout puts it.
    auto model = expectedSamples(audio, 2);
    auto ba = onlyTrack(backward, 2);
    ASSERT_FALSE(ba.empty());
    for (size_t i = 0; i < ba.size(); i++) {
        EXPECT_TRUE(std::count(model.begin(), model.end(), ba[i])) << ba[i];
        if (i) {
            EXPECT_LT(ba[i].timestamp, ba[i - 1].timestamp);
        }
    }
    EXPECT_EQ(ba.back().timestamp, 0u) << "reverse playback reaches the first audio sample";
    EXPECT_EQ(mp4_play_reverse(r.m), -1) << "at the start";
}

TEST(ReaderPlay, ReverseRightAfterLoadingIsAtTheStart) {
    Reader r(buildMoov({mixedVideo()}));
    EXPECT_EQ(mp4_play_reverse(r.m), -1);
    EXPECT_TRUE(r.got.empty());
}

TEST(ReaderPlay, ChangingDirectionDeliversTheSameSampleAgain) {
    TrackSpec video = mixedVideo();
    auto model = expectedSamples(video, 1);
    Reader r(buildMoov({video}));
    // Sample 4 is the first of a chunk, so stepping back over it reloads the previous chunk.
    for (int stop : {3, 4, 5}) {
        r.take();
        mp4_seek(r.m, 0);
        for (int i = 0; i < stop; i++)
            ASSERT_EQ(mp4_play(r.m), 0);
        ASSERT_EQ(mp4_play_reverse(r.m), 0);
        ASSERT_EQ(mp4_play_reverse(r.m), 0);
        ASSERT_EQ(mp4_play(r.m), 0);
        auto got = r.take();
        ASSERT_EQ(got.size(), size_t(stop + 3));
        EXPECT_EQ(got[stop], model[stop - 1]);
        EXPECT_EQ(got[stop + 1], model[stop - 2]);
        EXPECT_EQ(got[stop + 2], model[stop - 2]);
    }
}

TEST(ReaderPlay, SamplesOutsideTheMdatAreSkipped) {
    TrackSpec video = regular(fourcc("vide"), 6, 10, {3}, 100, 50);
    auto model = expectedSamples(video, 1);
    Reader r(buildMoov({video}));
    // An mdat read before the movie header: payload at 92, 8 + payload bytes; sample 5 ends
    // beyond it.
    auto *mdat = make<DataBox>("mdat");
    mdat->data_pos = 92;
    mdat->size = model[4].offset + model[4].size - 92 - 1;
    r.m->mdat = mdat;
    std::string out = captureStdout([&] { r.playAll(); });
    EXPECT_EQ(out, "") << "forwards the skip is silent";
    ASSERT_EQ(r.got.size(), 4u) << "samples 5 and 6 lie past the mdat";
    EXPECT_EQ(r.got[3], model[3]);
    r.take();
    out = captureStdout([&] { r.reverseAll(); });
    char line[200];
    snprintf(line, sizeof line, "mp4 ignoring sample offset %lu,%u outside of mdat %lu\n",
             (unsigned long)model[5].offset, model[5].size, (unsigned long)(92 + mdat->size));
    EXPECT_EQ(out.substr(0, strlen(line)), line);
    EXPECT_EQ(r.got.size(), 4u);
}

TEST(ReaderPlay, SampleEndingRightAtTheMdatLimitIsSkipped) {
    TrackSpec video = regular(fourcc("vide"), 2, 10, {2}, 100, 50);
    auto model = expectedSamples(video, 1);
    Reader r(buildMoov({video}));
    auto *mdat = make<DataBox>("mdat");
    mdat->data_pos = 100;
    mdat->size = model[1].offset + model[1].size - 100; // offset + size == limit
    r.m->mdat = mdat;
    r.playAll();
    ASSERT_EQ(r.got.size(), 1u);
    EXPECT_EQ(r.got[0], model[0]);
}

TEST(ReaderPlay, DifferentTimescalesNeedTheMixedSwitch) {
    TrackSpec video = regular(fourcc("vide"), 30, 1, {5}, 1000, 300);
    video.timescale = 30;
    TrackSpec audio = regular(fourcc("soun"), 50, 1600, {8}, 50000, 10);
    audio.timescale = 48000;
    {
        Reader r(buildMoov({video, audio}));
        std::string out = captureStdout([&] { EXPECT_EQ(mp4_play(r.m), -1); });
        EXPECT_EQ(out, "can't handle different track timescales\n");
        EXPECT_TRUE(r.got.empty()) << "no video sample either";
    }
    {
        Reader r(buildMoov({video, audio}));
        mp4_play_mixed_timescales(r.m, 1);
        std::string out = captureStdout([&] { EXPECT_EQ(r.playAll(), 30); });
        EXPECT_EQ(out, "");
        // 1600 / 48000 s per audio sample and 1 / 30 s per video frame: every video frame
        // ties with an audio sample, which goes first.
        EXPECT_EQ(r.got, expectedForward(expectedSamples(video, 1), endTime(video), 30,
                                         expectedSamples(audio, 2), 48000));
        EXPECT_EQ(onlyTrack(r.got, 2).size(), 31u);
        mp4_play_mixed_timescales(r.m, 0);
        r.take();
        captureStdout([&] { EXPECT_EQ(mp4_play_reverse(r.m), -1); });
        EXPECT_TRUE(r.got.empty());
    }
}

TEST(ReaderPlay, AudioThatStopsAdvancingCannotHoldACall) {
    TrackSpec video = regular(fourcc("vide"), 2, 100, {1}, 100, 50);
    TrackSpec audio;
    audio.handler = fourcc("soun");
    audio.stts = {{100000, 0}};
    audio.constant_size = 4;
    audio.stsz_count = 100000;
    audio.chunk_samples = {100000};
    audio.chunk_offsets = {10000};
    Reader r(buildMoov({video, audio}));
    ASSERT_EQ(mp4_play(r.m), 0);
    ASSERT_FALSE(r.got.empty());
    EXPECT_EQ(r.got.back().track, 1u) << "the call still ends with its video sample";
    EXPECT_LT(r.got.size(), 100000u);
    // Later calls carry on with the audio where it stopped.
    uint64_t last_audio = r.got[r.got.size() - 2].offset;
    r.take();
    ASSERT_EQ(mp4_play(r.m), 0);
    ASSERT_GE(r.got.size(), 2u);
    EXPECT_EQ(r.got[0].offset, last_audio + 4);
}

// Broken tables must end playback with -1 in a bounded number of calls, never read outside a
// table (the sanitizers watch), and never loop forever.
void exerciseEverything(Box *moov, int limit = 1000) {
    Reader r(moov);
    captureStdout([&] {
        r.playAll(limit);
        r.reverseAll(limit);
        mp4_seek(r.m, 150);
        r.playAll(limit);
        mp4_seek(r.m, UINT64_MAX);
        r.reverseAll(limit);
        mp4_play_mixed_timescales(r.m, 1);
        mp4_seek(r.m, 12345);
        r.playAll(limit);
        r.reverseAll(limit);
    });
}

TEST(ReaderPlay, BrokenTablesEndTheTrack) {
    TrackSpec base = regular(fourcc("vide"), 12, 100, {4}, 100, 50);
    base.has_stss = true;
    base.sync = {1, 5, 9};
    TrackSpec audio = regular(fourcc("soun"), 20, 60, {5}, 9000, 10);

    { // samples per chunk 0: every sample ends its chunk; the chunk index runs off the table
        Box *moov = buildMoov({base, audio});
        static_cast<Stsc *>(getChild(stblOf(moov, 0), fourcc("stsc")))
            ->entries[0]
            .samples_per_chunk = 0;
        Reader r(moov);
        EXPECT_LE(r.playAll(), 3) << "only the three chunks that exist can be played";
        EXPECT_EQ(mp4_play(r.m), -1);
        EXPECT_EQ(mp4_play_reverse(r.m), -1) << "a chunk of 0 samples cannot be stepped back into";
    }
    { // stts shorter than stsz
        Box *moov = buildMoov({base});
        static_cast<Stts *>(getChild(stblOf(moov, 0), fourcc("stts")))->entries[0].sample_count = 5;
        Reader r(moov);
        EXPECT_EQ(r.playAll(), 5);
        EXPECT_EQ(mp4_play(r.m), -1);
    }
    { // no stsz at all
        Box *moov = buildMoov({base});
        deleteBox(getChild(stblOf(moov, 0), fourcc("stsz")));
        Reader r(moov);
        EXPECT_EQ(mp4_play(r.m), -1);
        EXPECT_EQ(mp4_seek(r.m, 100), -1);
    }
    { // counts without arrays (as a damaged tree might hold)
        Box *moov = buildMoov({base, audio});
        Box *stbl = stblOf(moov, 0);
        mp4_free(
            std::exchange(static_cast<Stts *>(getChild(stbl, fourcc("stts")))->entries, nullptr));
        mp4_free(
            std::exchange(static_cast<Stsc *>(getChild(stbl, fourcc("stsc")))->entries, nullptr));
        mp4_free(
            std::exchange(static_cast<Stco *>(getChild(stbl, fourcc("stco")))->entries, nullptr));
        mp4_free(
            std::exchange(static_cast<Stss *>(getChild(stbl, fourcc("stss")))->entries, nullptr));
        mp4_free(
            std::exchange(static_cast<Stsz *>(getChild(stbl, fourcc("stsz")))->entries, nullptr));
        exerciseEverything(moov);
    }
    { // sync sample numbers out of order and out of range, stsc runs pointing backwards
        Box *moov = buildMoov({base, audio});
        Box *stbl = stblOf(moov, 0);
        auto *stss = static_cast<Stss *>(getChild(stbl, fourcc("stss")));
        stss->entries[0] = 9;
        stss->entries[1] = 0xFFFFFFFF;
        stss->entries[2] = 1;
        auto *stsc = static_cast<Stsc *>(getChild(stbl, fourcc("stsc")));
        mp4_free(stsc->entries);
        stsc->entries = entries<StscEntry>(3);
        stsc->entry_count = 3;
        stsc->entries[0] = {5, 2, 1};
        stsc->entries[1] = {2, 40, 1};
        stsc->entries[2] = {0, 3, 1};
        exerciseEverything(moov);
    }
    { // an stts entry of 0 samples and a sample count in stsz far above the chunk table's
        Box *moov = buildMoov({base, audio});
        Box *stbl = stblOf(moov, 1);
        auto *stts = static_cast<Stts *>(getChild(stbl, fourcc("stts")));
        stts->entries[0].sample_count = 0;
        auto *stsz = static_cast<Stsz *>(getChild(stbl, fourcc("stsz")));
        mp4_free(std::exchange(stsz->entries, nullptr));
        stsz->sample_size = 3;
        stsz->sample_count = 0xFFFFFFFF;
        exerciseEverything(moov);
    }
    { // a chunk that claims more samples than there are before the cursor
        TrackSpec v = base;
        Box *moov = buildMoov({v});
        auto *stsc = static_cast<Stsc *>(getChild(stblOf(moov, 0), fourcc("stsc")));
        stsc->entries[0].samples_per_chunk = 4;
        Reader r(moov);
        for (int i = 0; i < 5; i++)
            ASSERT_EQ(mp4_play(r.m), 0);
        stsc->entries[0].samples_per_chunk = 1000; // the table changes under the cursor
        EXPECT_EQ(mp4_play_reverse(r.m), 0) << "sample 5 is still inside the cursor's chunk";
        EXPECT_EQ(mp4_play_reverse(r.m), -1) << "chunk 1 cannot hold 1000 samples before sample 5";
    }
}

// ---- seeking ---------------------------------------------------------------------------------

// 90 samples of 100 ticks; sync samples 1, 31 and 61 start at 0, 3000 and 6000.
TrackSpec syncVideo() {
    TrackSpec v = regular(fourcc("vide"), 90, 100, {7, 7, 3, 11}, 4096, 300);
    v.has_stss = true;
    v.sync = {1, 31, 61};
    return v;
}

TEST(ReaderSeek, LandsOnTheLastSyncSampleStartingBeforeTheTime) {
    TrackSpec video = syncVideo();
    auto model = expectedSamples(video, 1);
    Reader r(buildMoov({video}));
    struct Case {
        uint64_t time;
        size_t next; // 0-based sample delivered next
    };
    for (Case c : {Case{4500, 30}, Case{3000, 0}, Case{3001, 30}, Case{0, 0}, Case{1, 0},
                   Case{6000, 30}, Case{6001, 60}, Case{8999, 60}}) {
        SCOPED_TRACE(c.time);
        r.take();
        ASSERT_EQ(mp4_seek(r.m, c.time), 0);
        ASSERT_EQ(mp4_play(r.m), 0);
        ASSERT_EQ(r.got.size(), 1u);
        EXPECT_EQ(r.got[0], model[c.next]);
        ASSERT_EQ(mp4_play(r.m), 0);
        EXPECT_EQ(r.got[1], model[c.next + 1]) << "the cursor is consistent after the seek";
    }
}

TEST(ReaderSeek, WithoutStssStopsAtTheFirstSampleAtOrAfterTheTime) {
    TrackSpec video = regular(fourcc("vide"), 40, 100, {3, 5}, 512, 40);
    auto model = expectedSamples(video, 1);
    Reader r(buildMoov({video}));
    for (auto c : std::vector<std::pair<uint64_t, size_t>>{
             {250, 3}, {300, 3}, {301, 4}, {0, 0}, {3900, 39}}) {
        SCOPED_TRACE(c.first);
        r.take();
        ASSERT_EQ(mp4_seek(r.m, c.first), 0);
        ASSERT_EQ(mp4_play(r.m), 0);
        EXPECT_EQ(r.got.at(0), model[c.second]);
    }
}

TEST(ReaderSeek, BeyondTheEnd) {
    { // without stss: after the last sample; reverse playback starts from the last one
        TrackSpec video = regular(fourcc("vide"), 12, 100, {4}, 512, 40); // full last chunk
        auto model = expectedSamples(video, 1);
        Reader r(buildMoov({video}));
        ASSERT_EQ(mp4_seek(r.m, 1000000), 0);
        EXPECT_EQ(mp4_play(r.m), -1);
        ASSERT_EQ(mp4_play_reverse(r.m), 0);
        ASSERT_EQ(mp4_play_reverse(r.m), 0);
        EXPECT_EQ(r.got, (std::vector<Delivery>{model[11], model[10]}));
    }
    { // a partial last chunk
        TrackSpec video = regular(fourcc("vide"), 10, 100, {4}, 512, 40);
        auto model = expectedSamples(video, 1);
        Reader r(buildMoov({video}));
        ASSERT_EQ(mp4_seek(r.m, 1000000), 0);
        EXPECT_EQ(mp4_play(r.m), -1);
        r.reverseAll();
        std::reverse(model.begin(), model.end());
        EXPECT_EQ(r.got, model);
    }
    { // with stss: before the last sync sample
        TrackSpec video = syncVideo();
        auto model = expectedSamples(video, 1);
        Reader r(buildMoov({video}));
        ASSERT_EQ(mp4_seek(r.m, UINT64_MAX), 0);
        ASSERT_EQ(mp4_play(r.m), 0);
        EXPECT_EQ(r.got.at(0), model[60]);
    }
}

TEST(ReaderSeek, AudioFollowsTheVideoPosition) {
    TrackSpec video = syncVideo();
    TrackSpec audio = regular(fourcc("soun"), 200, 50, {9}, 200000, 10);
    auto a = expectedSamples(audio, 2), v = expectedSamples(video, 1);
    Reader r(buildMoov({video, audio}));
    ASSERT_EQ(mp4_seek(r.m, 4500), 0);
    ASSERT_EQ(mp4_play(r.m), 0);
    ASSERT_EQ(r.got.size(), 2u);
    EXPECT_EQ(r.got[0], a[60]) << "the audio sample at 3000 ties with the video and goes first";
    EXPECT_EQ(r.got[1], v[30]);
}

TEST(ReaderSeek, MixedTimescalesConvertTheVideoTimeForAudio) {
    TrackSpec video = syncVideo(); // timescale 1000: sync samples at 0, 3 s and 6 s
    TrackSpec audio = regular(fourcc("soun"), 400, 1024, {9}, 200000, 10);
    audio.timescale = 48000;
    auto a = expectedSamples(audio, 2);
    Reader r(buildMoov({video, audio}));
    mp4_play_mixed_timescales(r.m, 1);
    ASSERT_EQ(mp4_seek(r.m, 4500), 0);
    ASSERT_EQ(mp4_play(r.m), 0);
    // 3 s is 144000 audio ticks: the first audio sample starting there or later is index 141
    // (140 * 1024 = 143360 < 144000 <= 141 * 1024 = 144384), which starts after the video
    // sample, so the video comes first.
    ASSERT_EQ(r.got.size(), 1u);
    EXPECT_EQ(r.got[0].track, 1u);
    EXPECT_EQ(r.got[0].timestamp, 3000u);
    ASSERT_EQ(mp4_play(r.m), 0);
    EXPECT_EQ(r.got.at(1), a[141]);
}

TEST(ReaderSeek, WithoutMixedTimescalesTheVideoTimeIsUsedAsIs) {
    TrackSpec video = syncVideo();
    TrackSpec audio = regular(fourcc("soun"), 400, 1024, {9}, 200000, 10);
    audio.timescale = 48000;
    Reader r(buildMoov({video, audio}));
    ASSERT_EQ(mp4_seek(r.m, 4500), 0);
    EXPECT_EQ(r.m->tracks[1].play_sample, 3u) << "audio placed at tick 3000 (2 * 1024 < 3000)";
}

TEST(ReaderSeek, DecodeTimesOf32BitsAndMoreAreKept) {
    TrackSpec video = regular(fourcc("vide"), 6, 0x80000000u, {2}, 512, 40);
    video.has_stss = true;
    video.sync = {1, 3, 5};
    auto model = expectedSamples(video, 1);
    Reader r(buildMoov({video}));
    ASSERT_EQ(mp4_seek(r.m, 0x100000001ull), 0);
    ASSERT_EQ(mp4_play(r.m), 0);
    EXPECT_EQ(r.got.at(0).timestamp, 0x100000000ull);
    EXPECT_EQ(r.got.at(0), model[2]);
    ASSERT_EQ(mp4_seek(r.m, 0x200000001ull), 0);
    ASSERT_EQ(mp4_play(r.m), 0);
    EXPECT_EQ(r.got.at(1), model[4]);
    EXPECT_EQ(r.got.at(1).timestamp, 0x200000000ull);
}

TEST(ReaderSeek, HugeSampleCountsAreSeekedWithoutVisitingEverySample) {
    // Four billion samples of 2 bytes and 1 tick in one chunk, described in a few bytes.
    TrackSpec video;
    video.stts = {{0xFFFFFFFFu, 1}};
    video.constant_size = 2;
    video.stsz_count = 0xFFFFFFFFu;
    video.chunk_samples = {0xFFFFFFFFu};
    video.chunk_offsets = {1000};
    video.has_stss = true;
    video.sync = {1, 3000000001u};
    Reader r(buildMoov({video}));
    ASSERT_EQ(mp4_seek(r.m, 4000000000ull), 0);
    ASSERT_EQ(mp4_play(r.m), 0);
    EXPECT_EQ(r.got.at(0), (Delivery{1, 1000 + 3000000000ull * 2, 3000000000ull, 2, 1}));
    // The same with one sample per chunk: the chunk index is found by division as well.
    Box *moov = buildMoov({video});
    auto *stsc = static_cast<Stsc *>(getChild(stblOf(moov, 0), fourcc("stsc")));
    stsc->entries[0].samples_per_chunk = 1;
    auto *stco = static_cast<Stco *>(getChild(stblOf(moov, 0), fourcc("stco")));
    EXPECT_EQ(stco->entry_count, 1u);
    Reader r2(moov);
    EXPECT_EQ(mp4_seek(r2.m, 4000000000ull), -1) << "chunk 3000000000 is not in the table";
}

TEST(ReaderSeek, BrokenChunkTablesFailAndKeepTheCursor) {
    TrackSpec video = syncVideo();
    auto model = expectedSamples(video, 1);
    for (int damage = 0; damage < 4; damage++) {
        SCOPED_TRACE(damage);
        Box *moov = buildMoov({video});
        Box *stbl = stblOf(moov, 0);
        auto *stsc = static_cast<Stsc *>(getChild(stbl, fourcc("stsc")));
        auto *stco = static_cast<Stco *>(getChild(stbl, fourcc("stco")));
        Reader r(moov);
        ASSERT_EQ(mp4_play(r.m), 0);
        ASSERT_EQ(mp4_play(r.m), 0);
        if (damage == 0)
            stsc->entries[0].samples_per_chunk = 0;
        else if (damage == 1)
            stco->entry_count = 2; // sample 31 lies in chunk 4
        else if (damage == 2)
            stsc->entry_count = 0;
        else
            deleteBox(stco);
        EXPECT_EQ(mp4_seek(r.m, 4500), -1);
        if (damage == 2) {
            EXPECT_EQ(mp4_play(r.m), -1) << "no stsc entry to play by";
            continue;
        }
        ASSERT_EQ(mp4_play(r.m), 0);
        EXPECT_EQ(r.got.at(2), model[2]) << "playback continues where it was";
    }
}

TEST(ReaderSeek, NeedsAReaderAndAVideoTrack) {
    mp4_muxer *w = mp4_writer_create();
    std::string out = captureStdout([&] { EXPECT_EQ(mp4_seek(w, 0), -1); });
    EXPECT_EQ(out, "mp4_seek: not a reader muxer\n");
    out = captureStdout([&] { EXPECT_EQ(mp4_play(w), -1); });
    EXPECT_EQ(out, "mp4_play: not a reader muxer\n");
    out = captureStdout([&] { EXPECT_EQ(mp4_play_reverse(w), -1); });
    EXPECT_EQ(out, "mp4_play_reverse: not a reader muxer\n");
    mp4_delete(w);
    Reader r(buildMoov({mixedAudio()}));
    EXPECT_EQ(mp4_seek(r.m, 0), -1);
}

TEST(ReaderSeek, AFailedAudioSeekStillReportsTheVideoResult) {
    TrackSpec video = syncVideo();
    TrackSpec audio = regular(fourcc("soun"), 200, 50, {9}, 200000, 10);
    Box *moov = buildMoov({video, audio});
    deleteBox(getChild(stblOf(moov, 1), fourcc("stsc")));
    Reader r(moov);
    EXPECT_EQ(mp4_seek(r.m, 4500), 0);
    EXPECT_EQ(r.m->tracks[0].play_sample, 30u);
    EXPECT_EQ(r.m->tracks[1].play_sample, 0u) << "the audio cursor is left as it was";
}

// ---- loading from an in-memory movie ---------------------------------------------------------

TEST(ReaderLoad, TracksAreNumberedByPositionFromTheFirstTrak) {
    TrackSpec video = mixedVideo(), audio = mixedAudio();
    Box *moov = buildMoov({video, audio}, 4);
    // A non-trak sibling between the two tracks uses up number 2.
    insertBoxAfter(make<Box>("udta"), getChild(moov, fourcc("trak")));
    Reader r(moov);
    ASSERT_EQ(load_moov_and_track(r.m), 0);
    ASSERT_EQ(r.m->next_track_id, 4u);
    EXPECT_EQ(r.m->tracks[0].handler_type, fourcc("vide"));
    EXPECT_EQ(r.m->tracks[0].timescale, 1000u);
    EXPECT_EQ(r.m->tracks[1].handler_type, 0u);
    EXPECT_EQ(r.m->tracks[2].handler_type, fourcc("soun"));
    r.playAll();
    EXPECT_EQ(onlyTrack(r.got, 3).size(), 61u) << "audio reported as track 3";
    EXPECT_EQ(onlyTrack(r.got, 1).size(), 20u);
}

TEST(ReaderLoad, TraksBeyondNextTrackIdHaveNoRecord) {
    Reader r(buildMoov({mixedVideo(), mixedVideo()}, 2));
    ASSERT_EQ(load_moov_and_track(r.m), 0);
    EXPECT_EQ(r.m->next_track_id, 2u);
    r.playAll();
    EXPECT_EQ(onlyTrack(r.got, 1).size(), 20u) << "the first video track is the only one";
    EXPECT_TRUE(onlyTrack(r.got, 2).empty());
}

TEST(ReaderLoad, AHostileNextTrackIdIsCapped) {
    TrackSpec video = mixedVideo();
    Reader r(buildMoov({video}, 0xFFFFFFFFu));
    ASSERT_EQ(load_moov_and_track(r.m), 0);
    EXPECT_GT(r.m->next_track_id, 1000u);
    EXPECT_LE(r.m->next_track_id, 1025u);
    uint32_t last = r.m->next_track_id - 1;
    r.m->tracks[last - 1].default_duration = 7;
    EXPECT_EQ(mp4_get_default_duration(r.m, int(last)), 7u);
    EXPECT_EQ(mp4_get_default_duration(r.m, int(last + 1)), 0u);
    EXPECT_EQ(r.playAll(), 20);
}

TEST(ReaderLoad, NextTrackIdZeroGivesNoTracks) {
    Reader r(buildMoov({mixedVideo()}, 0));
    static_cast<Mvhd *>(getChild(r.m->moov, fourcc("mvhd")))->next_track_ID = 0;
    EXPECT_EQ(mp4_play(r.m), -1);
    EXPECT_NE(r.m->tracks, nullptr) << "loaded once, not again on every call";
    EXPECT_EQ(r.m->next_track_id, 1u);
    EXPECT_EQ(mp4_get_timestamp(r.m, 1), 0u);
}

TEST(ReaderLoad, AMovieWithoutMvhdFails) {
    Box *moov = buildMoov({mixedVideo()});
    deleteBox(getChild(moov, fourcc("mvhd")));
    Reader r(moov);
    EXPECT_EQ(mp4_play(r.m), -1);
    EXPECT_EQ(r.m->tracks, nullptr);
    EXPECT_EQ(mp4_seek(r.m, 0), -1);
}

TEST(ReaderLoad, ATrackArrayThatExistsIsKept) {
    Reader r(buildMoov({mixedVideo()}));
    ASSERT_EQ(load_moov_and_track(r.m), 0);
    mp4_track *tracks = r.m->tracks;
    tracks[0].default_duration = 99;
    ASSERT_EQ(load_moov_and_track(r.m), 0);
    EXPECT_EQ(r.m->tracks, tracks);
    EXPECT_EQ(r.m->tracks[0].default_duration, 99u);
}

// ---- fragment-stream timestamps --------------------------------------------------------------

Box *fragmentMoov(uint32_t next_track_ID) {
    Box *moov = make<Box>("moov");
    auto *mvhd = make<Mvhd>("mvhd");
    mvhd->next_track_ID = next_track_ID;
    add(moov, mvhd);
    return moov;
}

Box *addEditedTrak(Box *moov, uint32_t id, int64_t media_time, uint64_t segment,
                   bool with_tkhd = true, bool with_entries = true) {
    Box *trak = add(moov, make<Box>("trak"));
    if (with_tkhd) {
        auto *tkhd = make<Tkhd>("tkhd");
        tkhd->track_ID = id;
        add(trak, tkhd);
    }
    Box *edts = add(trak, make<Box>("edts"));
    auto *elst = make<Elst>("elst");
    if (with_entries) {
        elst->entry_count = 1;
        elst->entries = entries<ElstEntry>(1);
        elst->entries[0] = {segment, media_time, 1, 0};
    }
    add(edts, elst);
    return trak;
}

void addTrex(Box *moov, uint32_t id, uint32_t duration) {
    Box *mvex = getChild(moov, fourcc("mvex"));
    if (!mvex)
        mvex = add(moov, make<Box>("mvex"));
    auto *trex = make<Trex>("trex");
    trex->track_ID = id;
    trex->default_sample_duration = duration;
    add(mvex, trex);
}

TEST(ReaderLoad, ATrackArrayThatCannotBeAllocatedFailsWithError2) {
    Reader r(buildMoov({mixedVideo()}));
    mp4_alloc_fail_after(0);
    int result = mp4_play(r.m);
    mp4_alloc_fail_after(-1);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(r.m->tracks, nullptr);
    EXPECT_EQ(mp4_get_error_code(r.m), 2u);
    mp4_set_error(r.m, 0);
    EXPECT_EQ(mp4_play(r.m), 0) << "a later call loads the tracks";

    mp4_muxer *m = mp4_reader_create();
    m->moov = fragmentMoov(3);
    mp4_alloc_fail_after(0);
    std::string out = captureStdout([&] { init_timestamps(m); });
    mp4_alloc_fail_after(-1);
    EXPECT_EQ(out, "init_timestamps: failed to alloc mux->track for 2 tracks\n");
    EXPECT_EQ(m->tracks, nullptr);
    mp4_delete(m);
}

TEST(ReaderFragments, InitTimestampsTakesEmptyEditsAndTrexDefaults) {
    Box *moov = fragmentMoov(6);
    addEditedTrak(moov, 1, -1, 1500);             // empty edit: start delay
    addEditedTrak(moov, 2, 0, 1500);              // an ordinary edit
    addEditedTrak(moov, 3, -1, 700, false);       // no tkhd: skipped
    addEditedTrak(moov, 4, -1, 700, true, false); // empty edit list: skipped
    addEditedTrak(moov, 9, -1, 700);              // beyond the track array
    addEditedTrak(moov, 0, -1, 700);              // track_ID 0
    addTrex(moov, 1, 3000);
    add(getChild(moov, fourcc("mvex")), make<Box>("mehd")); // other types in mvex are skipped
    addTrex(moov, 2, 1024);
    addTrex(moov, 0, 5);
    addTrex(moov, 6, 5);
    mp4_muxer *m = mp4_reader_create();
    m->moov = moov;
    init_timestamps(m);
    ASSERT_NE(m->tracks, nullptr);
    ASSERT_EQ(m->next_track_id, 6u);
    EXPECT_EQ(m->tracks[0].timestamp, 1500u);
    EXPECT_EQ(m->tracks[0].frag_time, 1500u);
    EXPECT_EQ(m->tracks[0].default_duration, 3000u);
    EXPECT_EQ(m->tracks[1].timestamp, 0u);
    EXPECT_EQ(m->tracks[1].default_duration, 1024u);
    for (int i = 2; i < 5; i++) {
        EXPECT_EQ(m->tracks[i].timestamp, 0u) << i;
        EXPECT_EQ(m->tracks[i].default_duration, 0u) << i;
    }
    mp4_delete(m);
}

TEST(ReaderFragments, InitTimestampsReportsWhatIsMissing) {
    mp4_muxer *m = mp4_reader_create();
    EXPECT_EQ(captureStdout([&] { init_timestamps(m); }), "init_timestamps: failed to find moov\n");
    m->moov = make<Box>("moov");
    EXPECT_EQ(captureStdout([&] { init_timestamps(m); }), "init_timestamps: failed to find mvhd\n");
    EXPECT_EQ(m->tracks, nullptr);
    mp4_delete(m);
}

Box *makeMoof(std::vector<std::pair<uint32_t, std::vector<std::vector<uint32_t>>>> trafs,
              bool per_sample_durations) {
    // trafs: track_ID -> truns -> sample durations
    Box *moof = make<Box>("moof");
    add(moof, make<Mfhd>("mfhd"));
    for (auto &traf_spec : trafs) {
        Box *traf = add(moof, make<Box>("traf"));
        auto *tfhd = make<Tfhd>("tfhd");
        tfhd->track_ID = traf_spec.first;
        tfhd->flags = 0x08;
        tfhd->default_sample_duration = 77777; // never consulted
        add(traf, tfhd);
        for (auto &durations : traf_spec.second) {
            auto *trun = make<Trun>("trun");
            trun->flags = per_sample_durations ? 0x300 : 0x200;
            trun->sample_count = uint32_t(durations.size());
            trun->samples = entries<TrunSample>(durations.size());
            for (size_t i = 0; i < durations.size(); i++)
                trun->samples[i].sample_duration = durations[i];
            add(traf, trun);
        }
    }
    return moof;
}

TEST(ReaderFragments, ProcessMoofAddsSampleDurations) {
    mp4_muxer *m = mp4_reader_create();
    m->moov = fragmentMoov(3);
    addTrex(m->moov, 1, 3000);
    addTrex(m->moov, 2, 1024);
    init_timestamps(m);

    Box *moof = makeMoof({{1, {{3000, 1500}, {3000}}}, {2, {{1024, 1024, 512}}}}, true);
    process_moof(m, moof);
    deleteBox(moof);
    EXPECT_EQ(m->tracks[0].frag_time, 7500u);
    EXPECT_EQ(m->tracks[0].timestamp, 7500u);
    EXPECT_EQ(m->tracks[1].timestamp, 2560u);

    // Without per-sample durations every sample counts the trex default.
    moof = makeMoof({{1, {{1, 1}}}, {0, {{5}}}, {3, {{5}}}}, false);
    add(moof, make<Box>("traf")); // a traf without tfhd is skipped
    process_moof(m, moof);
    deleteBox(moof);
    EXPECT_EQ(m->tracks[0].timestamp, 7500u + 6000u);
    EXPECT_EQ(m->tracks[1].timestamp, 2560u);
    mp4_delete(m);

    m = mp4_reader_create(); // no track array: nothing to update, nothing touched
    moof = makeMoof({{1, {{3000}}}}, true);
    process_moof(m, moof);
    deleteBox(moof);
    EXPECT_EQ(m->tracks, nullptr);
    mp4_delete(m);
}

TEST(ReaderFragments, GetTimestampAdvancesByTheDefaultDuration) {
    mp4_muxer *m = mp4_reader_create();
    EXPECT_EQ(mp4_get_timestamp(m, 1), 0u) << "no track array";
    m->moov = fragmentMoov(3);
    addEditedTrak(m->moov, 1, -1, 1000);
    addTrex(m->moov, 1, 3000);
    init_timestamps(m);
    EXPECT_EQ(mp4_get_default_duration(m, 1), 3000u);
    EXPECT_EQ(mp4_get_timestamp(m, 1), 1000u);
    EXPECT_EQ(mp4_get_timestamp(m, 1), 4000u);
    EXPECT_EQ(m->tracks[0].timestamp, 7000u);
    for (int bad : {0, -1, 3, 1 << 30}) {
        EXPECT_EQ(mp4_get_timestamp(m, bad), 0u) << bad;
        EXPECT_EQ(mp4_get_default_duration(m, bad), 0u) << bad;
    }
    EXPECT_EQ(m->tracks[0].timestamp, 7000u);
    EXPECT_EQ(m->tracks[1].timestamp, 0u);
    m->tracks[0].timestamp = 0x100000005ull;
    EXPECT_EQ(mp4_get_timestamp(m, 1), 5u) << "the low 32 bits";
    EXPECT_EQ(m->tracks[0].timestamp, 0x100000005ull + 3000);
    mp4_delete(m);
}

TEST(ReaderFragments, GetMdatNeedsABufferedReader) {
    uint8_t *data = reinterpret_cast<uint8_t *>(0x1234);
    uint32_t length = 77;
    mp4_muxer *w = mp4_writer_create();
    uint8_t buf[16] = {};
    mp4_buf_put(w, buf, sizeof buf);
    EXPECT_EQ(captureStderr([&] { mp4_get_mdat(w, &data, &length); }),
              "mp4_get_mdat: src is not a buffered reader muxer\n");
    mp4_buf_get(w);
    mp4_delete(w);
    mp4_muxer *r = mp4_reader_create();
    EXPECT_EQ(captureStderr([&] { mp4_get_mdat(r, &data, &length); }),
              "mp4_get_mdat: src is not a buffered reader muxer\n");
    mp4_delete(r);
    EXPECT_EQ(data, reinterpret_cast<uint8_t *>(0x1234));
    EXPECT_EQ(length, 77u);
}

// ---- queries ---------------------------------------------------------------------------------

TEST(ReaderQueries, AnswerByTrackIdFromTheBoxTree) {
    TrackSpec video = mixedVideo();
    video.track_ID = 7;
    video.fourcc_entry = fourcc("avc1");
    video.timescale = 15360;
    TrackSpec audio = mixedAudio();
    audio.track_ID = 3;
    audio.fourcc_entry = fourcc("mp4a");
    audio.samplerate = 44100;
    audio.timescale = 44100;
    Reader r(buildMoov({video, audio}, 8));
    EXPECT_EQ(mp4_get_fourcc(r.m, 7), fourcc("avc1"));
    EXPECT_EQ(mp4_get_fourcc(r.m, 3), fourcc("mp4a"));
    EXPECT_EQ(mp4_get_fourcc(r.m, 1), 0u) << "no tkhd carries track_ID 1";
    EXPECT_EQ(mp4_get_timescale(r.m, 7), 15360u);
    EXPECT_EQ(mp4_get_timescale(r.m, 3), 44100u);
    EXPECT_EQ(mp4_get_timescale(r.m, 2), 0u);
    EXPECT_EQ(mp4_get_samplerate(r.m, 3), 44100u);
    EXPECT_EQ(mp4_get_samplerate(r.m, 7), 0u) << "a video track has no mp4a entry";
    EXPECT_EQ(r.m->tracks, nullptr) << "the queries do not load tracks";
}

TEST(ReaderQueries, AMatchWithoutTheWantedBoxDoesNotEndTheSearch) {
    TrackSpec first = mixedVideo();
    first.track_ID = 5;
    TrackSpec second = mixedAudio();
    second.track_ID = 5;
    second.fourcc_entry = fourcc("mp4a");
    second.samplerate = 32000;
    second.timescale = 32000;
    Box *moov = buildMoov({first, second}, 6);
    Box *trak1 = getChild(moov, fourcc("trak"));
    deleteBox(getChild(getChild(trak1, fourcc("mdia")), fourcc("mdhd")));
    Reader r(moov);
    EXPECT_EQ(mp4_get_fourcc(r.m, 5), fourcc("mp4a")) << "the first track's stsd is empty";
    EXPECT_EQ(mp4_get_timescale(r.m, 5), 32000u);
    EXPECT_EQ(mp4_get_samplerate(r.m, 5), 32000u);
}

TEST(ReaderQueries, AnEntryHeldAsABareHeaderIsNotReadAsARecord) {
    TrackSpec audio = mixedAudio();
    Box *moov = buildMoov({audio});
    auto *stsd = static_cast<Stsd *>(getChild(stblOf(moov, 0), fourcc("stsd")));
    // What the codec keeps for an entry under an unknown handler: the header only.
    auto *bare = static_cast<Box *>(mp4_calloc(1, sizeof(Box)));
    bare->type = fourcc("mp4a");
    bare->size = 8;
    bare->node_flags = BOX_HEAP;
    bare->alloc_size = sizeof(Box);
    add(stsd, bare);
    Reader r(moov);
    EXPECT_EQ(mp4_get_fourcc(r.m, 1), fourcc("mp4a"));
    EXPECT_EQ(mp4_get_samplerate(r.m, 1), 0u);
}

TEST(ReaderQueries, NeedAReaderWithAMovie) {
    mp4_muxer *w = mp4_writer_create();
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(mp4_get_fourcc(w, 1), 0u); }),
              "mp4_get_fourcc: not a reader muxer\n");
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(mp4_get_timescale(w, 1), 0u); }),
              "mp4_get_timescale: not a reader muxer\n");
    EXPECT_EQ(captureStdout([&] { EXPECT_EQ(mp4_get_samplerate(w, 1), 0u); }),
              "mp4_get_samplerate: not a reader muxer\n");
    mp4_delete(w);
    mp4_muxer *r = mp4_reader_create();
    EXPECT_EQ(mp4_get_fourcc(r, 1), 0u);
    EXPECT_EQ(mp4_get_timescale(r, 1), 0u);
    EXPECT_EQ(mp4_get_samplerate(r, 1), 0u);
    mp4_delete(r);
}

// ---- a fragment stream as the fragment writer lays it out ------------------------------------

// Writes boxes with the codec in writing mode into one memory buffer.
struct StreamWriter {
    std::vector<uint8_t> buf = std::vector<uint8_t>(1 << 16);
    mp4_muxer *w = mp4_writer_create();
    StreamWriter() { mp4_buf_put(w, buf.data(), uint32_t(buf.size())); }
    uint64_t pos() { return muxer_pos(w); }
    void write(Box *box) {
        ASSERT_NE(rwBox(w, box), nullptr);
        deleteBox(box);
    }
    std::vector<uint8_t> finish() {
        uint32_t n = mp4_buf_get(w);
        EXPECT_EQ(mp4_get_error_code(w), 0u);
        mp4_delete(w);
        buf.resize(n);
        return buf;
    }
};

struct FragSample {
    uint32_t track;
    uint32_t duration;
};

struct BuiltStream {
    std::vector<uint8_t> bytes;
    std::vector<uint64_t> payloads;     // payload position of every sample's mdat
    std::vector<uint32_t> sample_track; // its track
};

// ftyp, a movie header with two tracks (track 1 starts after an empty edit of `delay`), then
// for each group: one mdat per sample, followed by the moof describing them: per track one traf
// whose tfhd carries base_data_offset, and one trun per sample.
BuiltStream buildFragmentStream(const std::vector<std::vector<FragSample>> &groups, uint64_t delay,
                                uint32_t default1, uint32_t default2) {
    StreamWriter sw;
    BuiltStream out;
    auto *ftyp = make<Ftyp>("ftyp");
    ftyp->size = 16;
    ftyp->major_brand = fourcc("isom");
    sw.write(ftyp);

    Box *moov = make<Box>("moov");
    auto *mvhd = make<Mvhd>("mvhd");
    mvhd->timescale = 1000;
    mvhd->next_track_ID = 3;
    add(moov, mvhd);
    for (uint32_t id = 1; id <= 2; id++) {
        Box *trak = add(moov, make<Box>("trak"));
        auto *tkhd = make<Tkhd>("tkhd");
        tkhd->track_ID = id;
        add(trak, tkhd);
        if (id == 1) {
            Box *edts = add(trak, make<Box>("edts"));
            auto *elst = make<Elst>("elst");
            elst->entry_count = 2;
            elst->entries = entries<ElstEntry>(2);
            elst->entries[0] = {delay, -1, 1, 0};
            elst->entries[1] = {0, 0, 1, 0};
            add(edts, elst);
        }
    }
    Box *mvex = add(moov, make<Box>("mvex"));
    for (uint32_t id = 1; id <= 2; id++) {
        auto *trex = make<Trex>("trex");
        trex->track_ID = id;
        trex->default_sample_description_index = 1;
        trex->default_sample_duration = id == 1 ? default1 : default2;
        add(mvex, trex);
    }
    sw.write(moov);

    uint32_t sequence = 0;
    static uint8_t payload[64];
    for (auto &group : groups) {
        std::vector<uint64_t> where;
        std::vector<uint32_t> sizes;
        for (size_t i = 0; i < group.size(); i++) {
            auto *mdat = make<DataBox>("mdat");
            uint32_t n = 5 + uint32_t(out.payloads.size() % 7);
            sizes.push_back(n);
            mdat->size = 8 + n;
            mdat->data = payload;
            mdat->node_flags &= uint8_t(~BOX_OWNS_ARRAYS); // the payload is not the box's
            where.push_back(sw.pos() + 8);
            out.payloads.push_back(sw.pos() + 8);
            out.sample_track.push_back(group[i].track);
            sw.write(mdat);
        }
        Box *moof = make<Box>("moof");
        auto *mfhd = make<Mfhd>("mfhd");
        mfhd->sequence_number = ++sequence;
        add(moof, mfhd);
        for (uint32_t id = 1; id <= 2; id++) {
            Box *traf = nullptr;
            uint64_t base = 0;
            for (size_t i = 0; i < group.size(); i++) {
                if (group[i].track != id)
                    continue;
                if (!traf) {
                    traf = add(moof, make<Box>("traf"));
                    auto *tfhd = make<Tfhd>("tfhd");
                    tfhd->flags = 0x01;
                    tfhd->track_ID = id;
                    tfhd->base_data_offset = base = where[i];
                    add(traf, tfhd);
                }
                auto *trun = make<Trun>("trun");
                trun->sample_count = 1;
                trun->samples = entries<TrunSample>(1);
                trun->samples[0].sample_size = sizes[i];
                trun->samples[0].sample_duration = group[i].duration;
                trun->flags = 0x200;
                trun->data_offset = int32_t(where[i] - base);
                if (trun->data_offset)
                    trun->flags |= 0x01;
                if (group[i].duration != (id == 1 ? default1 : default2))
                    trun->flags |= 0x100;
                add(traf, trun);
            }
        }
        sw.write(moof);
    }
    out.bytes = sw.finish();
    return out;
}

struct Received {
    uint64_t payload;
    uint32_t track;
    uint32_t timestamp;
    uint64_t exact[2]; // the tracks' decode times when the mdat arrived
};

// Receives the stream in pieces and asks for each sample's decode time as a caller would.
std::vector<Received> receiveStream(const BuiltStream &s, size_t piece, uint64_t end_times[2]) {
    std::vector<Received> got;
    mp4_muxer *m = mp4_reader_create();
    size_t consumed = 0, received = 0;
    while (consumed < s.bytes.size()) {
        size_t before = consumed;
        received = std::min(s.bytes.size(), received + piece);
        mp4_buf_put(m, const_cast<uint8_t *>(s.bytes.data()) + consumed,
                    uint32_t(received - consumed));
        for (;;) {
            uint8_t *data = nullptr;
            uint32_t length = 0;
            mp4_get_mdat(m, &data, &length);
            if (!data)
                break;
            uint64_t at = uint64_t(data - s.bytes.data());
            size_t index =
                size_t(std::find(s.payloads.begin(), s.payloads.end(), at) - s.payloads.begin());
            EXPECT_LT(index, s.payloads.size()) << "payload at " << at;
            if (index >= s.payloads.size())
                break;
            uint32_t track = s.sample_track[index];
            Received r{at, track, 0, {m->tracks[0].timestamp, m->tracks[1].timestamp}};
            r.timestamp = mp4_get_timestamp(m, int(track));
            got.push_back(r);
        }
        consumed += mp4_buf_get(m);
        if (received == s.bytes.size() && consumed == before)
            break;
    }
    EXPECT_EQ(consumed, s.bytes.size());
    end_times[0] = m->tracks ? m->tracks[0].timestamp : 0;
    end_times[1] = m->tracks ? m->tracks[1].timestamp : 0;
    mp4_delete(m);
    return got;
}

TEST(ReaderFragmentLayout, DecodeTimesPerSampleAndAtEachMoof) {
    // Video: default 3000, a short last frame in group 1, a long frame inside group 2.
    // Audio: default 1024, a short last packet in group 2.
    std::vector<std::vector<FragSample>> groups = {
        {{1, 3000}, {2, 1024}, {2, 1024}, {1, 3000}, {2, 1024}, {2, 1024}, {1, 1500}},
        {{1, 3000}, {2, 1024}, {1, 4500}, {2, 1024}, {1, 3000}, {2, 512}},
        {{1, 3000}, {2, 1024}},
    };
    BuiltStream s = buildFragmentStream(groups, 2000, 3000, 1024);
    ASSERT_EQ(s.payloads.size(), 15u);

    // Within a group the times count default durations from the group's start; each moof then
    // sets the exact time, which the next group starts from.
    std::vector<uint32_t> want = {2000,  0,    1024,  5000, 2048,  3072, 8000, // group 1
                                  9500,  4096, 12500, 5120, 15500, 6144,       // group 2
                                  20000, 6656};                                // group 3
    std::vector<std::pair<uint64_t, uint64_t>> exact_at_group_start = {
        {2000, 0}, {2000 + 7500, 4096}, {9500 + 10500, 4096 + 2560}};

    uint64_t end_times[2];
    auto got = receiveStream(s, s.bytes.size(), end_times);
    ASSERT_EQ(got.size(), want.size());
    size_t at = 0;
    for (size_t g = 0; g < groups.size(); g++) {
        EXPECT_EQ(got[at].exact[0], exact_at_group_start[g].first) << "group " << g;
        EXPECT_EQ(got[at].exact[1], exact_at_group_start[g].second) << "group " << g;
        at += groups[g].size();
    }
    for (size_t i = 0; i < got.size(); i++) {
        EXPECT_EQ(got[i].payload, s.payloads[i]) << i;
        EXPECT_EQ(got[i].timestamp, want[i]) << "sample " << i;
    }
    EXPECT_EQ(end_times[0], 20000u + 3000u) << "the last moof sets the exact end";
    EXPECT_EQ(end_times[1], 6656u + 1024u);

    // The same stream received in pieces of every size gives the same answers.
    for (size_t piece = 1; piece < s.bytes.size(); piece++) {
        uint64_t ends[2];
        auto again = receiveStream(s, piece, ends);
        ASSERT_EQ(again.size(), got.size()) << "piece " << piece;
        for (size_t i = 0; i < got.size(); i++) {
            ASSERT_EQ(again[i].payload, got[i].payload) << "piece " << piece;
            ASSERT_EQ(again[i].timestamp, got[i].timestamp) << "piece " << piece;
        }
        ASSERT_EQ(ends[0], end_times[0]);
        ASSERT_EQ(ends[1], end_times[1]);
    }
}

} // namespace
