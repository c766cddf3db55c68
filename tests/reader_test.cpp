// Reader: loading, playback in both directions, seeking, fragment-stream timestamps and track
// queries. Movies are built in memory from a sample layout; the expected deliveries are derived
// from that same layout by a plain model, independently of the reader's table walking.
#include "internal.h"
#include "test_util.h"
#include "tree_compare.h"

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

template <class T> T *add(Box *parent, T *child) {
    addBox(child, parent);
    return child;
}

// A table box whose entries are a copy of v.
template <class T, class V> T *table(const char (&type)[5], const std::vector<V> &v) {
    T *b = make<T>(type);
    using E = std::remove_pointer_t<decltype(b->entries)>;
    b->entry_count = uint32_t(v.size());
    b->entries = entries<E>(v.size());
    for (size_t i = 0; i < v.size(); i++)
        b->entries[i] = E(v[i]);
    return b;
}

struct TrackLayout {
    uint32_t handler = fourcc("vide");
    uint32_t track_ID = 0; // 0: position in the movie
    uint32_t timescale = 1000;
    std::vector<uint32_t> sizes;         // per sample
    std::vector<SttsEntry> stts;         // (sample_count, sample_delta)
    std::vector<uint32_t> chunk_samples; // samples per chunk
    std::vector<uint64_t> chunk_offsets; // one per chunk
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
TrackLayout regular(uint32_t handler, uint32_t n, uint32_t delta, std::vector<uint32_t> chunks,
                    uint64_t base, uint32_t size_seed) {
    TrackLayout t;
    t.handler = handler;
    for (uint32_t i = 0; i < n; i++)
        t.sizes.push_back(size_seed + (i * 37) % 101);
    t.stts = {{n, delta}};
    uint64_t off = base;
    for (uint32_t s = 0, ci = 0; s < n; ci++) {
        uint32_t k = std::min(chunks[std::min<size_t>(ci, chunks.size() - 1)], n - s);
        t.chunk_samples.push_back(k);
        t.chunk_offsets.push_back(off);
        for (uint32_t end = s + k; s < end; s++)
            off += t.sizes[s];
        off += 1000; // the other track's chunks would lie here
    }
    return t;
}

Box *buildTrak(const TrackLayout &t, uint32_t id) {
    Box *trak = make<Box>("trak");
    add(trak, make<Tkhd>("tkhd"))->track_ID = id;
    Box *mdia = add(trak, make<Box>("mdia"));
    add(mdia, make<Mdhd>("mdhd"))->timescale = t.timescale;
    add(mdia, make<Hdlr>("hdlr"))->handler_type = t.handler;
    Box *stbl = add(add(mdia, make<Box>("minf")), make<Box>("stbl"));
    auto *stsd = add(stbl, make<Stsd>("stsd"));
    if (t.fourcc_entry) {
        stsd->entry_count = 1;
        add(stsd, static_cast<SampleEntry *>(newBox(t.fourcc_entry, 8)))->samplerate = t.samplerate
                                                                                       << 16;
    }
    add(stbl, table<Stts>("stts", t.stts));
    if (t.has_stss)
        add(stbl, table<Stss>("stss", t.sync));
    std::vector<StscEntry> runs;
    for (size_t c = 0; c < t.chunk_samples.size(); c++)
        if (runs.empty() || runs.back().samples_per_chunk != t.chunk_samples[c])
            runs.push_back({uint32_t(c + 1), t.chunk_samples[c], 1});
    add(stbl, table<Stsc>("stsc", runs));
    auto *stsz = add(stbl, make<Stsz>("stsz"));
    stsz->sample_size = t.constant_size;
    stsz->sample_count = t.constant_size ? t.stsz_count : uint32_t(t.sizes.size());
    if (!t.constant_size) {
        stsz->entries = entries<uint32_t>(t.sizes.size());
        std::copy(t.sizes.begin(), t.sizes.end(), stsz->entries);
    }
    if (t.co64)
        add(stbl, table<Co64>("co64", t.chunk_offsets));
    else
        add(stbl, table<Stco>("stco", t.chunk_offsets));
    return trak;
}

Box *buildMoov(const std::vector<TrackLayout> &tracks, uint32_t next_track_ID = 0) {
    Box *moov = make<Box>("moov");
    auto *mvhd = add(moov, make<Mvhd>("mvhd"));
    mvhd->timescale = 1000;
    mvhd->next_track_ID = next_track_ID ? next_track_ID : uint32_t(tracks.size() + 1);
    for (size_t i = 0; i < tracks.size(); i++)
        add(moov, buildTrak(tracks[i], tracks[i].track_ID ? tracks[i].track_ID : uint32_t(i + 1)));
    return moov;
}

// The table `type` of the index-th trak.
template <class T = Box> T *inStbl(Box *moov, int index, const char (&type)[5]) {
    Box *trak = getChild(moov, fourcc("trak"));
    for (int i = 0; i < index; i++)
        trak = trak->next;
    Box *mdia = getChild(trak, fourcc("mdia"));
    return static_cast<T *>(
        getChild(getChild(getChild(mdia, fourcc("minf")), fourcc("stbl")), fourcc(type)));
}

// ---- the model -------------------------------------------------------------------------------

using test_util::Delivery;

// Every sample of a track as the layout places it.
std::vector<Delivery> expectedSamples(const TrackLayout &t, uint32_t number) {
    std::vector<Delivery> out;
    std::vector<uint64_t> dts;
    uint64_t time = 0;
    for (auto &e : t.stts)
        for (uint32_t i = 0; i < e.sample_count; i++, time += e.sample_delta)
            dts.push_back(time);
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

uint64_t endTime(const TrackLayout &t) {
    uint64_t time = 0;
    for (auto &e : t.stts)
        time += uint64_t(e.sample_count) * e.sample_delta;
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
    std::copy_if(all.begin(), all.end(), std::back_inserter(out),
                 [&](const Delivery &d) { return d.track == track; });
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
    int playAll(int limit = 100000, int (*step)(mp4_muxer *) = mp4_play) {
        int calls = 0;
        while (step(m) == 0 && ++calls < limit) {
        }
        return calls;
    }
    int reverseAll(int limit = 100000) { return playAll(limit, mp4_play_reverse); }
    std::vector<Delivery> take() { return std::exchange(got, {}); }
};

// What fn prints on stdout (or on stderr).
std::string capture(const std::function<void()> &fn, bool err = false) {
    fflush(stdout);
    err ? testing::internal::CaptureStderr() : testing::internal::CaptureStdout();
    fn();
    fflush(stdout);
    return err ? testing::internal::GetCapturedStderr() : testing::internal::GetCapturedStdout();
}

// A video track with irregular chunks, two stsc runs and a change of delta, and an audio track
// in the same timescale whose samples tie with every other video sample.
TrackLayout mixedVideo() {
    TrackLayout v = regular(fourcc("vide"), 20, 100, {3, 3, 5, 1, 4, 4}, 5000, 200);
    v.stts = {{10, 100}, {10, 200}};
    v.has_stss = true;
    v.sync = {1, 11};
    return v;
}

TrackLayout mixedAudio() {
    return regular(fourcc("soun"), 70, 50, {10, 10, 7}, 100000, 20);
}

// ---- playback --------------------------------------------------------------------------------

// Ties go to the audio, flags follow stss (audio without stss: 2), and the plain callback gets
// the same arguments as the per-sample one.
TEST(ReaderPlay, ForwardDeliversAudioDueThenEachVideoSample) {
    TrackLayout audio = mixedAudio(), video = mixedVideo();
    Reader r(buildMoov({audio, video})); // audio is track 1, video track 2
    plain_calls.clear();
    mp4_set_callback(r.m, plainCallback);
    EXPECT_EQ(r.playAll(), 20) << "one 0 result per video sample";
    auto v = expectedSamples(video, 2), a = expectedSamples(audio, 1);
    EXPECT_EQ(r.got, expectedForward(v, endTime(video), 1000, a, 1000));
    // Audio at 0, 50, ..., 3000: the samples after 3000, the video's end, are never delivered.
    EXPECT_EQ(onlyTrack(r.got, 1).size(), 61u);
    EXPECT_EQ(mp4_play(r.m), -1) << "stays at the end";
    for (auto &d : r.got)
        d.track = 0;
    EXPECT_EQ(plain_calls, r.got);
    mp4_set_callback(r.m, nullptr);
}

// Chunk offsets from co64 (past 4 GiB), one constant sample size, video without stss (flags 0).
TEST(ReaderPlay, EveryTableLayoutPlaysAsTheModelPlacesIt) {
    TrackLayout co64 = regular(fourcc("vide"), 9, 10, {4}, 0x100000000ull + 16, 50);
    co64.co64 = true;
    TrackLayout constant = regular(fourcc("vide"), 8, 10, {3}, 100, 50);
    constant.constant_size = 7;
    constant.stsz_count = 8;
    constant.sizes.assign(8, 7);
    constant.chunk_offsets = {100, 300, 500};
    for (const TrackLayout &video :
         {co64, constant, regular(fourcc("vide"), 6, 10, {2}, 100, 50)}) {
        Reader r(buildMoov({video}));
        r.playAll();
        EXPECT_EQ(r.got, expectedSamples(video, 1));
        EXPECT_EQ(r.got.size(), video.sizes.size());
    }
}

TEST(ReaderPlay, NothingToPlayWithoutAVideoTrackOrBeforeTheStart) {
    Reader audio_only(buildMoov({mixedAudio()}));
    EXPECT_EQ(mp4_play(audio_only.m), -1);
    EXPECT_EQ(mp4_play_reverse(audio_only.m), -1);
    EXPECT_EQ(mp4_seek(audio_only.m, 0), -1);
    EXPECT_TRUE(audio_only.got.empty());
    Reader r(buildMoov({mixedVideo()}));
    EXPECT_EQ(mp4_play_reverse(r.m), -1) << "right after loading, at the start";
    EXPECT_TRUE(r.got.empty());
}

TEST(ReaderPlay, WithoutCallbackTheCursorStillMoves) {
    TrackLayout audio = mixedAudio(), video = mixedVideo();
    Reader r(buildMoov({video, audio}));
    mp4_set_sample_callback(r.m, nullptr, nullptr);
    for (int i = 0; i < 3; i++)
        ASSERT_EQ(mp4_play(r.m), 0);
    EXPECT_TRUE(r.got.empty());
    mp4_set_sample_callback(r.m, collect, &r.got);
    ASSERT_EQ(mp4_play(r.m), 0);
    // Video sample 4 (time 300) and the audio due before it that was not yet delivered: the
    // audio at 250 and 300.
    auto a = expectedSamples(audio, 2);
    EXPECT_EQ(r.got, (std::vector<Delivery>{a[5], a[6], expectedSamples(video, 1)[3]}));
}

TEST(ReaderPlay, ReverseRetracesTheVideoSamplesInReverseOrder) {
    TrackLayout audio = mixedAudio(), video = mixedVideo();
    Reader r(buildMoov({video, audio}));
    r.playAll();
    auto fv = onlyTrack(r.take(), 1);
    EXPECT_EQ(r.reverseAll(), 20);
    auto backward = r.take();
    std::reverse(fv.begin(), fv.end());
    EXPECT_EQ(onlyTrack(backward, 1), fv);
    // The audio comes back in reverse order too, each sample where the layout puts it.
    auto model = expectedSamples(audio, 2);
    auto ba = onlyTrack(backward, 2);
    ASSERT_FALSE(ba.empty());
    for (size_t i = 0; i < ba.size(); i++) {
        EXPECT_TRUE(std::count(model.begin(), model.end(), ba[i])) << ba[i];
        EXPECT_TRUE(i == 0 || ba[i].timestamp < ba[i - 1].timestamp) << i;
    }
    EXPECT_EQ(ba.back().timestamp, 0u) << "reverse playback reaches the first audio sample";
    EXPECT_EQ(mp4_play_reverse(r.m), -1) << "at the start";
}

TEST(ReaderPlay, ChangingDirectionDeliversTheSameSampleAgain) {
    TrackLayout video = mixedVideo();
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
    TrackLayout video = regular(fourcc("vide"), 6, 10, {3}, 100, 50);
    auto model = expectedSamples(video, 1);
    Reader r(buildMoov({video}));
    // An mdat read before the movie header: payload at 92, 8 + payload bytes; sample 5 ends
    // right at its limit, which is already outside.
    auto *mdat = make<DataBox>("mdat");
    mdat->data_pos = 92;
    mdat->size = model[4].offset + model[4].size - 92;
    r.m->mdat = mdat;
    EXPECT_EQ(capture([&] { r.playAll(); }), "") << "forwards the skip is silent";
    ASSERT_EQ(r.got.size(), 4u) << "samples 5 and 6 lie past the mdat";
    EXPECT_EQ(r.got[3], model[3]);
    r.take();
    std::string out = capture([&] { r.reverseAll(); });
    char line[200];
    snprintf(line, sizeof line, "mp4 ignoring sample offset %lu,%u outside of mdat %lu\n",
             (unsigned long)model[5].offset, model[5].size, (unsigned long)(92 + mdat->size));
    EXPECT_EQ(out.substr(0, strlen(line)), line);
    EXPECT_EQ(r.got.size(), 4u);
}

TEST(ReaderPlay, DifferentTimescalesNeedTheMixedSwitch) {
    TrackLayout video = regular(fourcc("vide"), 30, 1, {5}, 1000, 300);
    video.timescale = 30;
    TrackLayout audio = regular(fourcc("soun"), 50, 1600, {8}, 50000, 10);
    audio.timescale = 48000;
    Reader r(buildMoov({video, audio}));
    mp4_play_mixed_timescales(r.m, 1);
    EXPECT_EQ(capture([&] { EXPECT_EQ(r.playAll(), 30); }), "");
    // 1600 / 48000 s per audio sample and 1 / 30 s per video frame: every video frame ties with
    // an audio sample, which goes first.
    EXPECT_EQ(r.got, expectedForward(expectedSamples(video, 1), endTime(video), 30,
                                     expectedSamples(audio, 2), 48000));
    EXPECT_EQ(onlyTrack(r.got, 2).size(), 31u);
    mp4_play_mixed_timescales(r.m, 0);
    r.take();
    capture([&] { EXPECT_EQ(mp4_play_reverse(r.m), -1); });
    EXPECT_TRUE(r.got.empty());
}

TEST(ReaderPlay, AudioThatStopsAdvancingCannotHoldACall) {
    TrackLayout video = regular(fourcc("vide"), 2, 100, {1}, 100, 50);
    TrackLayout audio;
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
    capture([&] {
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
    TrackLayout base = regular(fourcc("vide"), 12, 100, {4}, 100, 50);
    base.has_stss = true;
    base.sync = {1, 5, 9};
    TrackLayout audio = regular(fourcc("soun"), 20, 60, {5}, 9000, 10);

    { // samples per chunk 0: every sample ends its chunk; the chunk index runs off the table
        Box *moov = buildMoov({base, audio});
        inStbl<Stsc>(moov, 0, "stsc")->entries[0].samples_per_chunk = 0;
        Reader r(moov);
        EXPECT_LE(r.playAll(), 3) << "only the three chunks that exist can be played";
        EXPECT_EQ(mp4_play(r.m), -1);
        EXPECT_EQ(mp4_play_reverse(r.m), -1) << "a chunk of 0 samples cannot be stepped back into";
    }
    { // stts shorter than stsz
        Box *moov = buildMoov({base});
        inStbl<Stts>(moov, 0, "stts")->entries[0].sample_count = 5;
        Reader r(moov);
        EXPECT_EQ(r.playAll(), 5);
        EXPECT_EQ(mp4_play(r.m), -1);
    }
    { // no stsz at all
        Box *moov = buildMoov({base});
        deleteBox(inStbl(moov, 0, "stsz"));
        Reader r(moov);
        EXPECT_EQ(mp4_play(r.m), -1);
        EXPECT_EQ(mp4_seek(r.m, 100), -1);
    }
    { // counts without arrays (as a damaged tree might hold)
        Box *moov = buildMoov({base, audio});
        mp4_free(std::exchange(inStbl<Stts>(moov, 0, "stts")->entries, nullptr));
        mp4_free(std::exchange(inStbl<Stsc>(moov, 0, "stsc")->entries, nullptr));
        mp4_free(std::exchange(inStbl<Stco>(moov, 0, "stco")->entries, nullptr));
        mp4_free(std::exchange(inStbl<Stss>(moov, 0, "stss")->entries, nullptr));
        mp4_free(std::exchange(inStbl<Stsz>(moov, 0, "stsz")->entries, nullptr));
        exerciseEverything(moov);
    }
    { // sync sample numbers out of order and out of range, stsc runs pointing backwards
        Box *moov = buildMoov({base, audio});
        auto *stss = inStbl<Stss>(moov, 0, "stss");
        stss->entries[0] = 9;
        stss->entries[1] = 0xFFFFFFFF;
        stss->entries[2] = 1;
        auto *stsc = inStbl<Stsc>(moov, 0, "stsc");
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
        inStbl<Stts>(moov, 1, "stts")->entries[0].sample_count = 0;
        auto *stsz = inStbl<Stsz>(moov, 1, "stsz");
        mp4_free(std::exchange(stsz->entries, nullptr));
        stsz->sample_size = 3;
        stsz->sample_count = 0xFFFFFFFF;
        exerciseEverything(moov);
    }
    { // a chunk that claims more samples than there are before the cursor
        Box *moov = buildMoov({base});
        auto *stsc = inStbl<Stsc>(moov, 0, "stsc");
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
TrackLayout syncVideo() {
    TrackLayout v = regular(fourcc("vide"), 90, 100, {7, 7, 3, 11}, 4096, 300);
    v.has_stss = true;
    v.sync = {1, 31, 61};
    return v;
}

// With stss: the last sync sample starting before the time. Without: the first sample starting
// at or after it. Each case seeks from where the one before left the cursor.
TEST(ReaderSeek, LandsOnTheLastSyncSampleStartingBeforeTheTime) {
    using Cases = std::vector<std::pair<uint64_t, size_t>>; // time, 0-based sample delivered next
    for (bool with_stss : {true, false}) {
        TrackLayout video =
            with_stss ? syncVideo() : regular(fourcc("vide"), 40, 100, {3, 5}, 512, 40);
        auto model = expectedSamples(video, 1);
        Reader r(buildMoov({video}));
        for (auto c : with_stss ? Cases{{4500, 30},
                                        {3000, 0},
                                        {3001, 30},
                                        {0, 0},
                                        {1, 0},
                                        {6000, 30},
                                        {6001, 60},
                                        {8999, 60},
                                        {UINT64_MAX, 60}}
                                : Cases{{250, 3}, {300, 3}, {301, 4}, {0, 0}, {3900, 39}}) {
            SCOPED_TRACE(c.first);
            r.take();
            ASSERT_EQ(mp4_seek(r.m, c.first), 0);
            ASSERT_EQ(mp4_play(r.m), 0);
            EXPECT_EQ(r.got.at(0), model[c.second]);
            if (c.second + 1 < model.size()) {
                ASSERT_EQ(mp4_play(r.m), 0);
                EXPECT_EQ(r.got.at(1), model[c.second + 1]) << "the cursor is consistent";
            }
        }
    }
}

// (With stss, a seek beyond the end lands on the last sync sample: see the test above.)
TEST(ReaderSeek, BeyondTheEnd) {
    // Without stss: after the last sample (full or partial last chunk); reverse playback then
    // starts from the last one.
    for (uint32_t n : {12u, 10u}) {
        SCOPED_TRACE(n);
        TrackLayout video = regular(fourcc("vide"), n, 100, {4}, 512, 40);
        auto model = expectedSamples(video, 1);
        Reader r(buildMoov({video}));
        ASSERT_EQ(mp4_seek(r.m, 1000000), 0);
        EXPECT_EQ(mp4_play(r.m), -1);
        r.reverseAll();
        std::reverse(model.begin(), model.end());
        EXPECT_EQ(r.got, model);
    }
}

TEST(ReaderSeek, AudioFollowsTheVideoPosition) {
    TrackLayout video = syncVideo();
    TrackLayout audio = regular(fourcc("soun"), 200, 50, {9}, 200000, 10);
    Reader r(buildMoov({video, audio}));
    ASSERT_EQ(mp4_seek(r.m, 4500), 0);
    ASSERT_EQ(mp4_play(r.m), 0);
    ASSERT_EQ(r.got.size(), 2u);
    EXPECT_EQ(r.got[0], expectedSamples(audio, 2)[60])
        << "the audio sample at 3000 ties with the video and goes first";
    EXPECT_EQ(r.got[1], expectedSamples(video, 1)[30]);

    // A failed audio seek still reports the video result.
    Box *moov = buildMoov({video, audio});
    deleteBox(inStbl(moov, 1, "stsc"));
    Reader broken(moov);
    EXPECT_EQ(mp4_seek(broken.m, 4500), 0);
    EXPECT_EQ(broken.m->tracks[0].play_sample, 30u);
    EXPECT_EQ(broken.m->tracks[1].play_sample, 0u) << "the audio cursor is left as it was";

    // Mixed timescales: the video time (1000, sync samples at 0, 3 s, 6 s) is converted.
    audio = regular(fourcc("soun"), 400, 1024, {9}, 200000, 10);
    audio.timescale = 48000;
    Reader mixed(buildMoov({video, audio}));
    mp4_play_mixed_timescales(mixed.m, 1);
    ASSERT_EQ(mp4_seek(mixed.m, 4500), 0);
    ASSERT_EQ(mp4_play(mixed.m), 0);
    // 3 s is 144000 audio ticks: the first audio sample starting there or later is index 141
    // (140 * 1024 = 143360 < 144000 <= 141 * 1024 = 144384), which starts after the video
    // sample, so the video comes first.
    ASSERT_EQ(mixed.got.size(), 1u);
    EXPECT_EQ(mixed.got[0].track, 1u);
    EXPECT_EQ(mixed.got[0].timestamp, 3000u);
    ASSERT_EQ(mp4_play(mixed.m), 0);
    EXPECT_EQ(mixed.got.at(1), expectedSamples(audio, 2)[141]);

    Reader as_is(buildMoov({video, audio})); // without the switch, the video time as it is
    ASSERT_EQ(mp4_seek(as_is.m, 4500), 0);
    EXPECT_EQ(as_is.m->tracks[1].play_sample, 3u) << "audio placed at tick 3000 (2 * 1024 < 3000)";
}

TEST(ReaderSeek, DecodeTimesOf32BitsAndMoreAreKept) {
    TrackLayout video = regular(fourcc("vide"), 6, 0x80000000u, {2}, 512, 40);
    video.has_stss = true;
    video.sync = {1, 3, 5};
    auto model = expectedSamples(video, 1);
    Reader r(buildMoov({video}));
    for (uint64_t k : {1u, 2u}) {
        ASSERT_EQ(mp4_seek(r.m, (k << 32) + 1), 0);
        ASSERT_EQ(mp4_play(r.m), 0);
        EXPECT_EQ(r.take().at(0), model[2 * k]);
        EXPECT_EQ(model[2 * k].timestamp, k << 32);
    }
}

TEST(ReaderSeek, HugeSampleCountsAreSeekedWithoutVisitingEverySample) {
    // Four billion samples of 2 bytes and 1 tick in one chunk, described in a few bytes.
    TrackLayout video;
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
    inStbl<Stsc>(moov, 0, "stsc")->entries[0].samples_per_chunk = 1;
    Reader r2(moov);
    EXPECT_EQ(mp4_seek(r2.m, 4000000000ull), -1) << "chunk 3000000000 is not in the table";
}

TEST(ReaderSeek, BrokenChunkTablesFailAndKeepTheCursor) {
    TrackLayout video = syncVideo();
    auto model = expectedSamples(video, 1);
    for (int damage = 0; damage < 4; damage++) {
        SCOPED_TRACE(damage);
        Box *moov = buildMoov({video});
        auto *stsc = inStbl<Stsc>(moov, 0, "stsc");
        auto *stco = inStbl<Stco>(moov, 0, "stco");
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

// Every playback, seek and query call on a handle that is not a reader says so and fails; on a
// reader without a movie the queries answer 0.
TEST(ReaderCalls, NeedAReaderWithAMovie) {
    mp4_muxer *w = mp4_writer_create(), *r = mp4_reader_create();
    auto check = [&](const char *name, int64_t want, int64_t (*call)(mp4_muxer *)) {
        int64_t got = 1;
        EXPECT_EQ(capture([&] { got = call(w); }), std::string(name) + ": not a reader muxer\n");
        EXPECT_EQ(got, want) << name;
        EXPECT_TRUE(want != 0 || call(r) == 0) << name << " on a reader without a movie";
    };
    check("mp4_seek", -1, [](mp4_muxer *m) { return int64_t(mp4_seek(m, 0)); });
    check("mp4_play", -1, [](mp4_muxer *m) { return int64_t(mp4_play(m)); });
    check("mp4_play_reverse", -1, [](mp4_muxer *m) { return int64_t(mp4_play_reverse(m)); });
    check("mp4_get_fourcc", 0, [](mp4_muxer *m) { return int64_t(mp4_get_fourcc(m, 1)); });
    check("mp4_get_timescale", 0, [](mp4_muxer *m) { return int64_t(mp4_get_timescale(m, 1)); });
    check("mp4_get_samplerate", 0, [](mp4_muxer *m) { return int64_t(mp4_get_samplerate(m, 1)); });
    mp4_delete(w);
    mp4_delete(r);
}

// ---- loading from an in-memory movie ---------------------------------------------------------

TEST(ReaderLoad, TracksAreNumberedByPositionFromTheFirstTrak) {
    Box *moov = buildMoov({mixedVideo(), mixedAudio()}, 4);
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
    // A track array that exists is kept by a later load.
    mp4_track *tracks = r.m->tracks;
    tracks[0].default_duration = 99;
    ASSERT_EQ(load_moov_and_track(r.m), 0);
    EXPECT_EQ(r.m->tracks, tracks);
    EXPECT_EQ(r.m->tracks[0].default_duration, 99u);
}

TEST(ReaderLoad, MvhdNextTrackIdBoundsTheTrackRecords) {
    { // traks beyond it have no record
        Reader r(buildMoov({mixedVideo(), mixedVideo()}, 2));
        ASSERT_EQ(load_moov_and_track(r.m), 0);
        EXPECT_EQ(r.m->next_track_id, 2u);
        r.playAll();
        EXPECT_EQ(onlyTrack(r.got, 1).size(), 20u) << "the first video track is the only one";
        EXPECT_TRUE(onlyTrack(r.got, 2).empty());
    }
    { // a hostile value is capped
        Reader r(buildMoov({mixedVideo()}, 0xFFFFFFFFu));
        ASSERT_EQ(load_moov_and_track(r.m), 0);
        EXPECT_GT(r.m->next_track_id, 1000u);
        EXPECT_LE(r.m->next_track_id, 1025u);
        uint32_t last = r.m->next_track_id - 1;
        r.m->tracks[last - 1].default_duration = 7;
        EXPECT_EQ(mp4_get_default_duration(r.m, int(last)), 7u);
        EXPECT_EQ(mp4_get_default_duration(r.m, int(last + 1)), 0u);
        EXPECT_EQ(r.playAll(), 20);
    }
    { // 0 gives no tracks, loaded once and not again on every call
        Reader r(buildMoov({mixedVideo()}));
        static_cast<Mvhd *>(getChild(r.m->moov, fourcc("mvhd")))->next_track_ID = 0;
        EXPECT_EQ(mp4_play(r.m), -1);
        EXPECT_NE(r.m->tracks, nullptr);
        EXPECT_EQ(r.m->next_track_id, 1u);
        EXPECT_EQ(mp4_get_timestamp(r.m, 1), 0u);
    }
    { // a movie without mvhd fails to load
        Box *moov = buildMoov({mixedVideo()});
        deleteBox(getChild(moov, fourcc("mvhd")));
        Reader r(moov);
        EXPECT_EQ(mp4_play(r.m), -1);
        EXPECT_EQ(r.m->tracks, nullptr);
        EXPECT_EQ(mp4_seek(r.m, 0), -1);
    }
}

// ---- fragment-stream timestamps --------------------------------------------------------------

Box *fragmentMoov(uint32_t next_track_ID) {
    Box *moov = make<Box>("moov");
    add(moov, make<Mvhd>("mvhd"))->next_track_ID = next_track_ID;
    return moov;
}

void addEditedTrak(Box *moov, uint32_t id, int64_t media_time, uint64_t segment,
                   bool with_tkhd = true, bool with_entries = true) {
    Box *trak = add(moov, make<Box>("trak"));
    if (with_tkhd)
        add(trak, make<Tkhd>("tkhd"))->track_ID = id;
    add(add(trak, make<Box>("edts")),
        with_entries ? table<Elst>("elst", std::vector<ElstEntry>{{segment, media_time, 1, 0}})
                     : make<Elst>("elst"));
}

Trex *addTrex(Box *moov, uint32_t id, uint32_t duration) {
    Box *mvex = getChild(moov, fourcc("mvex"));
    auto *trex = add(mvex ? mvex : add(moov, make<Box>("mvex")), make<Trex>("trex"));
    trex->track_ID = id;
    trex->default_sample_duration = duration;
    return trex;
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
}

// init_timestamps says what it lacks: a movie, its mvhd, or memory for the track array.
TEST(ReaderFragments, InitTimestampsReportsWhatIsMissing) {
    Reader f(nullptr);
    EXPECT_EQ(capture([&] { init_timestamps(f.m); }), "init_timestamps: failed to find moov\n");
    f.m->moov = make<Box>("moov");
    EXPECT_EQ(capture([&] { init_timestamps(f.m); }), "init_timestamps: failed to find mvhd\n");
    add(f.m->moov, make<Mvhd>("mvhd"))->next_track_ID = 3;
    mp4_alloc_fail_after(0);
    std::string out = capture([&] { init_timestamps(f.m); });
    mp4_alloc_fail_after(-1);
    EXPECT_EQ(out, "init_timestamps: failed to alloc mux->track for 2 tracks\n");
    EXPECT_EQ(f.m->tracks, nullptr);
}

TEST(ReaderFragments, InitTimestampsTakesEmptyEditsAndTrexDefaults) {
    Reader r(fragmentMoov(6));
    mp4_muxer *m = r.m;
    addEditedTrak(m->moov, 1, -1, 1500);             // empty edit: start delay
    addEditedTrak(m->moov, 2, 0, 1500);              // an ordinary edit
    addEditedTrak(m->moov, 3, -1, 700, false);       // no tkhd: skipped
    addEditedTrak(m->moov, 4, -1, 700, true, false); // empty edit list: skipped
    addEditedTrak(m->moov, 9, -1, 700);              // beyond the track array
    addEditedTrak(m->moov, 0, -1, 700);              // track_ID 0
    addTrex(m->moov, 1, 3000);
    add(getChild(m->moov, fourcc("mvex")), make<Box>("mehd")); // other types in mvex are skipped
    addTrex(m->moov, 2, 1024);
    addTrex(m->moov, 0, 5);
    addTrex(m->moov, 6, 5);
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
}

// trafs: track_ID -> truns -> sample durations
Box *makeMoof(std::vector<std::pair<uint32_t, std::vector<std::vector<uint32_t>>>> trafs,
              bool per_sample_durations) {
    Box *moof = make<Box>("moof");
    add(moof, make<Mfhd>("mfhd"));
    for (auto &traf_def : trafs) {
        Box *traf = add(moof, make<Box>("traf"));
        auto *tfhd = add(traf, make<Tfhd>("tfhd"));
        tfhd->track_ID = traf_def.first;
        tfhd->flags = 0x08;
        tfhd->default_sample_duration = 77777; // never consulted
        for (auto &durations : traf_def.second) {
            auto *trun = add(traf, make<Trun>("trun"));
            trun->flags = per_sample_durations ? 0x300 : 0x200;
            trun->sample_count = uint32_t(durations.size());
            trun->samples = entries<TrunSample>(durations.size());
            for (size_t i = 0; i < durations.size(); i++)
                trun->samples[i].sample_duration = durations[i];
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
    auto process = [](mp4_muxer *h, Box *moof) {
        process_moof(h, moof);
        deleteBox(moof);
    };
    process(m, makeMoof({{1, {{3000, 1500}, {3000}}}, {2, {{1024, 1024, 512}}}}, true));
    EXPECT_EQ(m->tracks[0].frag_time, 7500u);
    EXPECT_EQ(m->tracks[0].timestamp, 7500u);
    EXPECT_EQ(m->tracks[1].timestamp, 2560u);

    // Without per-sample durations every sample counts the trex default.
    Box *moof = makeMoof({{1, {{1, 1}}}, {0, {{5}}}, {3, {{5}}}}, false);
    add(moof, make<Box>("traf")); // a traf without tfhd is skipped
    process(m, moof);
    EXPECT_EQ(m->tracks[0].timestamp, 7500u + 6000u);
    EXPECT_EQ(m->tracks[1].timestamp, 2560u);
    mp4_delete(m);

    m = mp4_reader_create(); // no track array: nothing to update, nothing touched
    process(m, makeMoof({{1, {{3000}}}}, true));
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
    mp4_muxer *r = mp4_reader_create(); // no buffer attached
    for (mp4_muxer *m : {w, r})
        EXPECT_EQ(capture([&] { mp4_get_mdat(m, &data, &length); }, true),
                  "mp4_get_mdat: src is not a buffered reader muxer\n");
    mp4_buf_get(w);
    mp4_delete(w);
    mp4_delete(r);
    EXPECT_EQ(data, reinterpret_cast<uint8_t *>(0x1234));
    EXPECT_EQ(length, 77u);
}

// ---- queries ---------------------------------------------------------------------------------

// Answers come by tkhd track_ID from the box tree (no tracks loaded); a track with that ID but
// without the wanted box does not end the search; an entry kept as a bare header has no rate.
TEST(ReaderQueries, AnswerByTrackIdFromTheBoxTree) {
    TrackLayout empty = mixedVideo(); // its mdhd is removed below, its stsd has no entry
    empty.track_ID = 5;
    TrackLayout audio = mixedAudio();
    audio.track_ID = 5;
    audio.fourcc_entry = fourcc("mp4a");
    audio.samplerate = audio.timescale = 32000;
    TrackLayout bare = mixedAudio();
    bare.track_ID = 9;
    Box *moov = buildMoov({empty, audio, bare}, 10);
    deleteBox(getChild(getChild(getChild(moov, fourcc("trak")), fourcc("mdia")), fourcc("mdhd")));
    // What the codec keeps for an entry under an unknown handler: the header only.
    auto *entry = static_cast<Box *>(mp4_calloc(1, sizeof(Box)));
    entry->type = fourcc("mp4a");
    entry->size = 8;
    entry->node_flags = BOX_HEAP;
    entry->alloc_size = sizeof(Box);
    add(inStbl(moov, 2, "stsd"), entry);
    Reader r(moov);
    EXPECT_EQ(mp4_get_fourcc(r.m, 5), fourcc("mp4a")) << "the first track's stsd is empty";
    EXPECT_EQ(mp4_get_timescale(r.m, 5), 32000u);
    EXPECT_EQ(mp4_get_samplerate(r.m, 5), 32000u);
    EXPECT_EQ(mp4_get_fourcc(r.m, 1), 0u) << "no tkhd carries track_ID 1";
    EXPECT_EQ(mp4_get_timescale(r.m, 2), 0u);
    EXPECT_EQ(mp4_get_fourcc(r.m, 9), fourcc("mp4a"));
    EXPECT_EQ(mp4_get_samplerate(r.m, 9), 0u) << "the entry is a bare header";
    EXPECT_EQ(r.m->tracks, nullptr) << "the queries do not load tracks";
}

// ---- a fragment stream as the fragment writer lays it out ------------------------------------

struct FragSample {
    uint32_t track;
    uint32_t duration;
};

struct BuiltStream {
    test_util::Bytes bytes;
    std::vector<uint64_t> payloads;     // payload position of every sample's mdat
    std::vector<uint32_t> sample_track; // its track
};

// ftyp, a movie header with two tracks (track 1 starts after an empty edit of `delay`), then
// for each group: one mdat per sample, followed by the moof describing them: per track one traf
// whose tfhd carries base_data_offset, and one trun per sample. Each box is written by the codec.
BuiltStream buildFragmentStream(const std::vector<std::vector<FragSample>> &groups, uint64_t delay,
                                const uint32_t defaults[2]) {
    BuiltStream out;
    auto emit = [&](Box *box) {
        test_util::append(out.bytes, boxtest::writeToMemory(box));
        deleteBox(box);
    };
    auto *ftyp = make<Ftyp>("ftyp");
    ftyp->size = 16;
    ftyp->major_brand = fourcc("isom");
    emit(ftyp);

    Box *moov = fragmentMoov(3);
    static_cast<Mvhd *>(getChild(moov, fourcc("mvhd")))->timescale = 1000;
    for (uint32_t id = 1; id <= 2; id++) {
        Box *trak = add(moov, make<Box>("trak"));
        add(trak, make<Tkhd>("tkhd"))->track_ID = id;
        if (id == 1)
            add(add(trak, make<Box>("edts")),
                table<Elst>("elst", std::vector<ElstEntry>{{delay, -1, 1, 0}, {0, 0, 1, 0}}));
    }
    for (uint32_t id = 1; id <= 2; id++)
        addTrex(moov, id, defaults[id - 1])->default_sample_description_index = 1;
    emit(moov);

    uint32_t sequence = 0;
    static uint8_t payload[64];
    for (auto &group : groups) {
        size_t first = out.payloads.size();
        auto size = [](size_t index) { return 5 + uint32_t(index % 7); };
        for (const FragSample &s : group) {
            auto *mdat = make<DataBox>("mdat");
            mdat->size = 8 + size(out.payloads.size());
            mdat->data = payload;
            mdat->node_flags &= uint8_t(~BOX_OWNS_ARRAYS); // the payload is not the box's
            out.payloads.push_back(out.bytes.size() + 8);
            out.sample_track.push_back(s.track);
            emit(mdat);
        }
        Box *moof = make<Box>("moof");
        add(moof, make<Mfhd>("mfhd"))->sequence_number = ++sequence;
        for (uint32_t id = 1; id <= 2; id++) {
            Box *traf = nullptr;
            uint64_t base = 0;
            for (size_t i = 0; i < group.size(); i++) {
                if (group[i].track != id)
                    continue;
                if (!traf) {
                    traf = add(moof, make<Box>("traf"));
                    auto *tfhd = add(traf, make<Tfhd>("tfhd"));
                    tfhd->flags = 0x01;
                    tfhd->track_ID = id;
                    tfhd->base_data_offset = base = out.payloads[first + i];
                }
                auto *trun = add(traf, make<Trun>("trun"));
                trun->sample_count = 1;
                trun->samples = entries<TrunSample>(1);
                trun->samples[0].sample_size = size(first + i);
                trun->samples[0].sample_duration = group[i].duration;
                trun->data_offset = int32_t(out.payloads[first + i] - base);
                trun->flags = 0x200 | (trun->data_offset ? 0x01 : 0) |
                              (group[i].duration != defaults[id - 1] ? 0x100 : 0);
            }
        }
        emit(moof);
    }
    return out;
}

struct Received {
    uint64_t payload;
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
        uint8_t *data = nullptr;
        uint32_t length = 0;
        for (mp4_get_mdat(m, &data, &length); data;
             data = nullptr, mp4_get_mdat(m, &data, &length)) {
            uint64_t at = uint64_t(data - s.bytes.data());
            auto index =
                size_t(std::find(s.payloads.begin(), s.payloads.end(), at) - s.payloads.begin());
            Received r{at, 0, {m->tracks[0].timestamp, m->tracks[1].timestamp}};
            r.timestamp = mp4_get_timestamp(m, int(s.sample_track.at(index))); // throws if unknown
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
    const uint32_t defaults[2] = {3000, 1024};
    BuiltStream s = buildFragmentStream(groups, 2000, defaults);
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
    for (size_t g = 0, at = 0; g < groups.size(); at += groups[g++].size()) {
        EXPECT_EQ(got[at].exact[0], exact_at_group_start[g].first) << "group " << g;
        EXPECT_EQ(got[at].exact[1], exact_at_group_start[g].second) << "group " << g;
    }
    for (size_t i = 0; i < got.size(); i++) {
        EXPECT_EQ(got[i].payload, s.payloads[i]) << i;
        EXPECT_EQ(got[i].timestamp, want[i]) << "sample " << i;
    }
    EXPECT_EQ(end_times[0], 20000u + 3000u) << "the last moof sets the exact end";
    EXPECT_EQ(end_times[1], 6656u + 1024u);

    // The same stream received in pieces of every size gives the same answers.
    for (size_t piece = 1; piece < s.bytes.size(); piece++) {
        SCOPED_TRACE(piece);
        uint64_t ends[2];
        auto again = receiveStream(s, piece, ends);
        ASSERT_EQ(again.size(), got.size());
        for (size_t i = 0; i < got.size(); i++) {
            ASSERT_EQ(again[i].payload, got[i].payload);
            ASSERT_EQ(again[i].timestamp, got[i].timestamp);
        }
        ASSERT_EQ(ends[0], end_times[0]);
        ASSERT_EQ(ends[1], end_times[1]);
    }
}

} // namespace
