// The movie header kept at the start of the file: the size estimate and its messages, the
// setters, the update schedule and what each update leaves on disk, the finish in place or at
// the end, and reservations too small to use.
#include "internal.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <set>
#include <stdio_ext.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
using test_util::be32;
using test_util::be64;

// ---- the sample streams -------------------------------------------------------------------------

struct Streams {
    Bytes h264 = test_util::readFile(test_util::dataPath("sample.h264"));
    Bytes aac = test_util::readFile(test_util::dataPath("sample.aac"));
    std::vector<std::pair<size_t, size_t>> units = test_util::splitAtDelimiters(h264);
    std::vector<std::pair<size_t, size_t>> frames = test_util::splitAdtsFrames(aac);
    size_t audio = 0; // frames delivered

    // Video unit i (25 fps, 3600 ticks) and then the audio due by the end of that frame; the
    // streams repeat for recordings longer than they are.
    void step(mp4_muxer *m, size_t i) {
        video(m, i);
        audioDue(m, i);
    }
    void video(mp4_muxer *m, size_t i) {
        const auto &u = units[i % units.size()];
        mp4_write_track(m, 1, h264.data() + u.first, uint32_t(u.second), 3600);
    }
    void audioDue(mp4_muxer *m, size_t i) {
        while (uint64_t(audio) * 1024 * 90000 < uint64_t(i + 1) * 3600 * 48000) {
            const auto &f = frames[audio % frames.size()];
            mp4_write_track(m, 2, aac.data() + f.first, uint32_t(f.second), 1024);
            audio++;
        }
    }
};

mp4_muxer *newRecording(const std::string &path, bool mov = false) {
    mp4_muxer *m = mov ? mov_writer_create() : mp4_writer_create();
    mp4_file_name_ascii(m, path.c_str());
    return m;
}

void addTracks(mp4_muxer *m) {
    mp4_video_track_create(m, fourcc("avc1"), 90000, 3600, 0, 128, 96, 66, 11);
    mp4_audio_track_create(m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
}

// ---- the file's bytes ---------------------------------------------------------------------------

// Samples of track n as the movie in the file lists them (0 when it lists none).
uint32_t samplesListed(const Bytes &f, int n) {
    test_util::BoxRef stsz =
        test_util::findBox(f, "moov/trak#" + std::to_string(n) + "/mdia/minf/stbl/stsz");
    return stsz.found ? be32(&f[stsz.payload() + 8]) : 0;
}

uint64_t mdatSize(const Bytes &f) {
    test_util::BoxRef mdat = test_util::findBox(f, "mdat");
    return mdat.found ? mdat.size : 0;
}

// Types of the movie box's children.
std::vector<std::string> movieChildren(const Bytes &f, const test_util::BoxRef &moov) {
    std::vector<std::string> out;
    for (auto &kv : test_util::boxesIn(f, moov.payload(), moov.end()))
        out.push_back(kv.first);
    return out;
}

void expectPlays(const std::string &path, const std::string &video_frames,
                 const std::string &audio_frames) {
    std::vector<test_util::Fields> streams;
    std::string errors;
    ASSERT_TRUE(test_util::probeStreams(path, &streams, &errors)) << errors;
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_EQ(streams[0]["codec_name"], "h264");
    EXPECT_EQ(streams[0]["nb_frames"], video_frames);
    EXPECT_EQ(streams[1]["codec_name"], "aac");
    EXPECT_EQ(streams[1]["nb_frames"], audio_frames);
    EXPECT_EQ(test_util::decodeErrors(path), "");
}

// Bytes of the movie written at the first sample with a reservation large enough for it: the
// content before its padding.
uint64_t emptyMovieSize(bool mov = false) {
    test_util::TempDir dir;
    mp4_muxer *m = newRecording(dir.file("probe.mp4"), mov);
    mp4_set_moov_mode(m, 65536, 0);
    addTracks(m);
    Streams s;
    s.step(m, 0);
    mp4_delete(m);
    Bytes f = test_util::readFile(dir.file("probe.mp4"));
    test_util::BoxRef pad = test_util::findBox(f, mov ? "moov/wide" : "moov/free");
    test_util::BoxRef moov = test_util::findBox(f, "moov");
    return pad.offset - moov.offset;
}

// ---- the estimate -------------------------------------------------------------------------------

TEST(MoovEstimate, SixtyMinutesOfVideoAndAudioReserve3047424Bytes) {
    test_util::TempDir dir;
    const std::string path = dir.file("est.mp4");
    mp4_muxer *m = newRecording(path);
    testing::internal::CaptureStdout();
    mp4_set_moov_max_duration(m, 60, 10);
    mp4_video_track_create(m, fourcc("avc1"), 90000, 3000, 0, 128, 96, 66, 11);
    mp4_audio_track_create(m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    Streams s;
    s.step(m, 0);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "mp4_set_moov_max_duration: max_minutes=60 interval_seconds=10\n"
                   "video_dur=3000 timescale=90000 track=0\n"
                   "audio_dur=1024 timescale=48000 track=1\n"
                   "setup_moov_at_start: max_minutes=60 video_dur=3000 audio_dur=1024 "
                   "next_track_id=3\n"
                   "setup_moov_at_start: video_frames=108000 audio_frames=168750 "
                   "est_size=3047424\n");
    EXPECT_EQ(m->max_moov_size, 3047424u);
    EXPECT_EQ(m->moov_interval, 900000u);
    EXPECT_EQ(mp4_get_error_code(m), 0u);
    mp4_delete(m);
    // The reservation follows the file type box: the empty movie, padded to its size.
    Bytes f = test_util::readFile(path);
    std::vector<std::string> top = test_util::topLevel(f);
    ASSERT_GE(top.size(), 4u);
    EXPECT_EQ(std::vector<std::string>(top.begin(), top.begin() + 4),
              (std::vector<std::string>{"ftyp", "moov", "free", "mdat"}));
    test_util::BoxRef moov = test_util::findBox(f, "moov");
    EXPECT_EQ(moov.offset, test_util::findBox(f, "ftyp").end());
    EXPECT_EQ(moov.size, 3047424u);
    EXPECT_EQ(movieChildren(f, moov),
              (std::vector<std::string>{"mvhd", "iods", "trak", "trak", "free"}));
    EXPECT_EQ(samplesListed(f, 1), 0u);
}

TEST(MoovEstimate, WithoutVideoOrAudioTracksTheDefaultsReserve4325376Bytes) {
    test_util::TempDir dir;
    const std::string path = dir.file("est.mp4");
    mp4_muxer *m = newRecording(path);
    testing::internal::CaptureStdout();
    mp4_set_moov_max_duration(m, 60, 10);
    uint32_t sub = mp4_subtitle_track_create(m, fourcc("mp4s"), "Subtitles", 90000, 3600, 0, 720,
                                             576, nullptr);
    const uint8_t packet[] = {0, 8, 'h', 'e', 'l', 'l', 'o', 0};
    mp4_write_track(m, sub, packet, sizeof packet, 3600);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "mp4_set_moov_max_duration: max_minutes=60 interval_seconds=10\n"
                   "setup_moov_at_start: max_minutes=60 video_dur=1501 audio_dur=1920 "
                   "next_track_id=2\n"
                   "setup_moov_at_start: video_frames=215856 audio_frames=168750 "
                   "est_size=4325376\n");
    EXPECT_EQ(m->max_moov_size, 4325376u);
    mp4_delete(m);
    Bytes f = test_util::readFile(path);
    EXPECT_EQ(test_util::findBox(f, "moov").size, 4325376u);
    EXPECT_TRUE(test_util::findBox(f, "moov/trak/mdia/minf/stbl/stsd/mp4s").found);
}

TEST(MoovEstimate, TracksWithoutADefaultDurationKeepTheDefaults) {
    test_util::TempDir dir;
    mp4_muxer *m = newRecording(dir.file("est.mp4"));
    mp4_set_moov_max_duration(m, 1, 1);
    mp4_video_track_create(m, fourcc("avc1"), 90000, 0, 0, 128, 96, 66, 11);
    mp4_audio_track_create(m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    testing::internal::CaptureStdout();
    Streams s;
    s.step(m, 0);
    std::string out = testing::internal::GetCapturedStdout();
    // One minute: 5400000 / 1501 = 3597 video frames, 2812 audio frames.
    EXPECT_NE(out.find("video_frames=3597 audio_frames=2812 est_size=131072"), std::string::npos)
        << out;
    EXPECT_EQ(out.find("video_dur=0"), std::string::npos);
    mp4_delete(m);
}

// A huge timescale over a short duration: 357913942 frames a minute, whose 12 bytes each come to
// just over 2^32. Summed in 32 bits the estimate wrapped to 64 KiB, a reservation that the first
// update outgrows; it is capped at the largest region the movie can be written into instead.
// Found by fuzz/fuzz_write_api.cpp. No output: the writer only counts positions.
TEST(MoovEstimate, AnEstimateBeyond32BitsIsCappedNotWrapped) {
    mp4_muxer *m = mp4_writer_create();
    mp4_set_moov_max_duration(m, 1, 1);
    uint32_t v = mp4_video_track_create(m, fourcc("avc1"), 357913942, 60, 0, 128, 96, 66, 11);
    testing::internal::CaptureStdout();
    Streams s;
    s.video(m, 0);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("video_frames=357913942 audio_frames=2812 est_size=2147450880"),
              std::string::npos)
        << out;
    EXPECT_EQ(m->max_moov_size, 0x7FFF8000u);
    EXPECT_NE(v, 0u);
    mp4_delete(m);
}

TEST(MoovEstimate, FrameCountsBeyond32BitsSaturate) {
    mp4_muxer *m = mp4_writer_create();
    mp4_set_moov_max_duration(m, 2, 1);
    mp4_video_track_create(m, fourcc("avc1"), 0xFFFFFFBFu, 66, 0, 128, 96, 66, 11);
    testing::internal::CaptureStdout();
    Streams s;
    s.video(m, 0);
    std::string out = testing::internal::GetCapturedStdout();
    // 2 * 60 * 4294967231 / 66 frames do not fit 32 bits (truncated, they made 3514064033).
    EXPECT_NE(out.find("video_frames=4294967295 "), std::string::npos) << out;
    EXPECT_EQ(m->max_moov_size, 0x7FFF8000u);
    mp4_delete(m);
}

// ---- the setters --------------------------------------------------------------------------------

TEST(MoovSetters, SizeZeroTurnsTheModeOffAtTheFirstSample) {
    test_util::TempDir dir;
    const std::string path = dir.file("off.mp4");
    mp4_muxer *m = newRecording(path);
    mp4_set_moov_mode(m, 0, 90000);
    EXPECT_EQ(m->moov_interval, 90000u);
    addTracks(m);
    Streams s;
    for (size_t i = 0; i < 30; i++)
        s.step(m, i);
    EXPECT_EQ(m->moov_interval, 0u);
    EXPECT_EQ(m->max_moov_size, 0u);
    mp4_write_movie(m);
    mp4_delete(m);
    Bytes f = test_util::readFile(path);
    EXPECT_EQ(test_util::topLevel(f), (std::vector<std::string>{"ftyp", "free", "mdat", "moov"}));
}

TEST(MoovSetters, MaxDurationZeroKeepsTheSizeSetBeforeAndNeverUpdates) {
    SKIP_WITHOUT_FFPROBE();
    test_util::TempDir dir;
    const std::string path = dir.file("fixed.mp4");
    FILE *fp = fopen(path.c_str(), "w+b");
    mp4_muxer *m = mp4_writer_create();
    mp4_file_pointer(m, fp);
    mp4_set_moov_mode(m, 65536, 9000);
    testing::internal::CaptureStdout();
    mp4_set_moov_max_duration(m, 0, 10);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "mp4_set_moov_max_duration: max_minutes=0 interval_seconds=10\n");
    EXPECT_EQ(m->moov_interval, 0u);
    EXPECT_EQ(m->max_moov_size, 65536u);
    addTracks(m);
    Streams s;
    for (size_t i = 0; i < 75; i++)
        s.step(m, i);
    // Reserved, but the movie on disk is still the empty one and the media data size unset.
    fflush(fp);
    Bytes before = test_util::readFile(path);
    EXPECT_EQ(test_util::findBox(before, "moov").size, 65536u);
    EXPECT_EQ(samplesListed(before, 1), 0u);
    EXPECT_EQ(samplesListed(before, 2), 0u);
    EXPECT_EQ(mdatSize(before), 8u);
    mp4_write_movie(m);
    EXPECT_EQ(mp4_get_error_code(m), 0u);
    mp4_delete(m);
    fclose(fp);
    Bytes f = test_util::readFile(path);
    EXPECT_EQ(test_util::topLevel(f), (std::vector<std::string>{"ftyp", "moov", "free", "mdat"}));
    EXPECT_EQ(test_util::findBox(f, "moov").size, 65536u);
    EXPECT_EQ(samplesListed(f, 1), 75u);
    expectPlays(path, "75", std::to_string(s.audio));
}

TEST(MoovSetters, IntervalsBeyondTheFieldSaturate) {
    mp4_muxer *m = mp4_writer_create();
    testing::internal::CaptureStdout();
    mp4_set_moov_max_duration(m, 60, 10);
    EXPECT_EQ(m->moov_interval, 900000u);
    mp4_set_moov_max_duration(m, 60, 50000); // 4.5e9 ticks
    EXPECT_EQ(m->moov_interval, 0xFFFFFFFFu);
    testing::internal::GetCapturedStdout();
    mp4_set_moov_mode(nullptr, 1, 1);
    mp4_set_moov_max_duration(nullptr, 1, 1);
    mp4_delete(m);
}

// ---- updates ------------------------------------------------------------------------------------

TEST(MoovUpdates, AfterTheVideoSampleThatReachesEachIntervalTheFileHoldsEverythingWritten) {
    SKIP_WITHOUT_FFPROBE();
    test_util::TempDir dir;
    const std::string path = dir.file("updated.mp4");
    mp4_muxer *m = newRecording(path);
    mp4_set_moov_mode(m, 65536, 9000); // every 0.1 s of video: 2.5 frames
    addTracks(m);
    Streams s;
    // What the last update put on disk: samples listed and the media data size.
    uint32_t video_listed = 0, audio_listed = 0;
    uint64_t mdat_size = 8;
    const size_t frames = 150; // the streams twice
    for (size_t i = 0; i < frames; i++) {
        const uint64_t k = i + 1; // frames written after this one
        s.video(m, i);
        // An update follows the frame with which the video time reaches a multiple of 9000,
        // and covers everything written so far.
        if (k * 3600 / 9000 > (k - 1) * 3600 / 9000) {
            video_listed = uint32_t(k);
            audio_listed = uint32_t(s.audio);
            mdat_size = m->mdat->size;
        }
        s.audioDue(m, i);
        Bytes f = test_util::readFile(path);
        ASSERT_EQ(samplesListed(f, 1), video_listed) << "after frame " << k;
        ASSERT_EQ(samplesListed(f, 2), audio_listed) << "after frame " << k;
        ASSERT_EQ(mdatSize(f), mdat_size) << "after frame " << k;
        EXPECT_EQ(test_util::findBox(f, "moov").size, 65536u);
        if (k == 103) {
            // A copy taken now is a recording cut off after the update at frame 103, with the
            // audio written since behind its media data.
            ASSERT_EQ(video_listed, 103u);
            const std::string cut = dir.file("cut.mp4");
            test_util::writeFile(cut, f);
            expectPlays(cut, "103", std::to_string(audio_listed));
        }
    }
    mp4_write_movie(m);
    EXPECT_EQ(mp4_get_error_code(m), 0u);
    mp4_delete(m);
    Bytes f = test_util::readFile(path);
    EXPECT_EQ(test_util::topLevel(f), (std::vector<std::string>{"ftyp", "moov", "free", "mdat"}));
    EXPECT_EQ(samplesListed(f, 1), frames);
    expectPlays(path, std::to_string(frames), std::to_string(s.audio));
}

TEST(MoovUpdates, TheCountdownAdvancesInWholeIntervalsPastALongSample) {
    test_util::TempDir dir;
    mp4_muxer *m = newRecording(dir.file("countdown.mp4"));
    mp4_set_moov_mode(m, 65536, 1000);
    addTracks(m);
    Streams s;
    const auto &u = s.units[0];
    auto video = [&](uint32_t duration) {
        mp4_write_track(m, 1, s.h264.data() + u.first, uint32_t(u.second), duration);
    };
    video(2500); // reaches the countdown of 1000: update, then 500 left of the next intervals
    EXPECT_EQ(m->moov_countdown, 500u);
    video(400);
    EXPECT_EQ(m->moov_countdown, 100u);
    video(100); // reaching it exactly is enough
    EXPECT_EQ(m->moov_countdown, 1000u);
    m->moov_interval = 1;
    video(0xFFFFFFFFu); // one step, however many intervals the sample spans
    EXPECT_EQ(m->moov_countdown, 1u);
    mp4_delete(m);
}

// Write system calls of this process so far, or -1 when the kernel does not tell.
long writeCalls() {
    std::ifstream io("/proc/self/io");
    std::string key;
    long value;
    while (io >> key >> value)
        if (key == "syscw:")
            return value;
    return -1;
}

TEST(MoovUpdates, AnUpdateReachesTheFileInThreeWritesTheMediaSizeTheMovieAndItsSwitch) {
    if (writeCalls() < 0)
        GTEST_SKIP() << "/proc/self/io is not readable here";
    for (int stdio = 0; stdio < 2; stdio++) {
        SCOPED_TRACE(stdio ? "unbuffered stdio stream" : "file descriptor");
        test_util::TempDir dir;
        const std::string path = dir.file("writes.mp4");
        mp4_muxer *m = mp4_writer_create();
        int fd = -1;
        FILE *fp = nullptr;
        if (stdio) {
            fp = fopen(path.c_str(), "w+b");
            setvbuf(fp, nullptr, _IONBF, 0); // every stream write becomes a system call
            mp4_file_pointer(m, fp);
        } else {
            fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
            mp4_file_descriptor(m, fd);
        }
        mp4_set_moov_mode(m, 65536, 10800); // an update after every third frame
        addTracks(m);
        Streams s;
        const auto &p = s.units[1]; // a frame of one slice, stored alike every time
        auto frame = [&] {
            long before = writeCalls();
            mp4_write_track(m, 1, s.h264.data() + p.first, uint32_t(p.second), 3600);
            return writeCalls() - before;
        };
        s.step(m, 0);            // 7200 ticks left
        long plain = frame();    // 3600 left
        long updating = frame(); // reaches the countdown
        EXPECT_EQ(m->moov_countdown, 10800u);
        // The media data size, the new movie beside the old one, the 8 bytes that make it the
        // movie.
        EXPECT_EQ(updating - plain, 3);
        Bytes f = test_util::readFile(path);
        EXPECT_EQ(samplesListed(f, 1), 3u);
        mp4_delete(m);
        if (fp)
            fclose(fp);
        if (fd >= 0)
            close(fd);
    }
}

// ---- a kill inside a write ----------------------------------------------------------------------

// Samples per track that a file's movie lists, played by the library's own reader from memory,
// each of them inside the file; empty when the file does not load or a sample lies outside it
// (a movie of no samples yet is two zeros).
std::vector<uint32_t> playable(const Bytes &f) {
    struct Seen {
        std::vector<uint32_t> count = std::vector<uint32_t>(3, 0);
        bool outside = false;
        uint64_t length = 0;
    } seen;
    seen.length = f.size();
    mp4_muxer *r = mp4_reader_create();
    Bytes copy = f;
    mp4_buf_put(r, copy.data(), uint32_t(copy.size()));
    mp4_play_mixed_timescales(r, 1); // 90 kHz video, 48 kHz audio
    mp4_set_sample_callback(
        r,
        [](void *opaque, uint32_t track, uint64_t offset, uint64_t, uint32_t size, uint32_t) {
            auto *s = static_cast<Seen *>(opaque);
            if (track < 3)
                s->count[track]++;
            if (offset + size > s->length)
                s->outside = true;
            return 0;
        },
        &seen);
    for (int calls = 0; mp4_play(r) == 0 && calls < 1000000; calls++) {
    }
    const bool loaded = r->moov != nullptr && mp4_get_error_code(r) == 0;
    mp4_buf_get(r);
    mp4_delete(r);
    if (!loaded || seen.outside)
        return {};
    return {seen.count[1], seen.count[2]};
}

// Every write into the region, cut at each page boundary it crosses, as the kernel leaves a
// write that a kill interrupts.
struct TornWrites {
    std::string path;
    size_t writes = 0, cuts = 0, bad = 0;
    std::string first_bad;
    static TornWrites *current;

    static void hook(const mp4_muxer *, uint64_t at, const uint8_t *bytes, uint32_t n) {
        TornWrites &t = *current;
        t.writes++;
        const Bytes before = test_util::readFile(t.path);
        const std::vector<uint32_t> old_listed = playable(before);
        Bytes after = before;
        if (after.size() < at + n)
            after.resize(at + n);
        std::copy(bytes, bytes + n, after.begin() + long(at));
        const std::vector<uint32_t> new_listed = playable(after);
        for (uint64_t cut = (at / 4096 + 1) * 4096; cut < at + n; cut += 4096) {
            Bytes torn = before;
            if (torn.size() < cut)
                torn.resize(cut);
            std::copy(bytes, bytes + (cut - at), torn.begin() + long(at));
            const std::vector<uint32_t> listed = playable(torn);
            t.cuts++;
            if (listed.empty() || (listed != old_listed && listed != new_listed)) {
                if (t.bad++ == 0)
                    t.first_bad = "write " + std::to_string(t.writes) + " of " + std::to_string(n) +
                                  " bytes at " + std::to_string(at) + " cut at " +
                                  std::to_string(cut);
            }
        }
    }
};
TornWrites *TornWrites::current = nullptr;

TEST(MoovUpdates, AKillInsideAnyWriteOfAnUpdateLeavesTheOldMovieOrTheNewOne) {
    // Movies of several pages, each update's movie and the one before it fitting the region
    // side by side (under 32 KiB each, a kind of reservation a recording plans for).
    for (bool mov : {false, true}) {
        SCOPED_TRACE(mov ? "QuickTime" : "MP4");
        test_util::TempDir dir;
        TornWrites torn;
        torn.path = dir.file(mov ? "torn.mov" : "torn.mp4");
        TornWrites::current = &torn;
        moov_region_write_hook = TornWrites::hook;
        mp4_muxer *m = mov ? mov_writer_create() : mp4_writer_create();
        int fd = open(torn.path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd, 0);
        mp4_file_descriptor(m, fd);
        mp4_set_moov_mode(m, 65536, 90000); // every 25 frames
        addTracks(m);
        Streams s;
        for (size_t i = 0; i < 1000; i++)
            s.step(m, i);
        const size_t during = torn.writes;
        mp4_write_movie(m);
        moov_region_write_hook = nullptr;
        EXPECT_EQ(mp4_get_error_code(m), 0u);
        mp4_delete(m);
        close(fd);
        EXPECT_GE(during, 80u);         // two writes per update, 40 updates
        EXPECT_GT(torn.writes, during); // the finish is watched too
        EXPECT_GT(torn.cuts, 40u);
        EXPECT_EQ(torn.bad, 0u) << "first: " << torn.first_bad;
        printf("%zu writes into the region, %zu cut states checked\n", torn.writes, torn.cuts);
        Bytes f = test_util::readFile(torn.path);
        EXPECT_EQ(test_util::findBox(f, "moov").size, 65536u);
        EXPECT_EQ(playable(f), (std::vector<uint32_t>{1000, uint32_t(s.audio)}));
    }
}

TEST(MoovFinish, AKillWhileAnOutgrownRegionIsBlankedLeavesAMovie) {
    // The movie outgrows a small reservation; at the finish it goes to the end, and
    // only then is the region blanked: every cut of those writes leaves a movie to play.
    test_util::TempDir dir;
    TornWrites torn;
    torn.path = dir.file("outgrown.mp4");
    TornWrites::current = &torn;
    mp4_muxer *m = mp4_writer_create();
    int fd = open(torn.path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    mp4_file_descriptor(m, fd);
    mp4_set_moov_mode(m, 8192, 9000);
    addTracks(m);
    Streams s;
    for (size_t i = 0; i < 400; i++)
        s.step(m, i);
    ASSERT_EQ(m->moov_full, 1u); // the updates stopped with too little room left
    moov_region_write_hook = TornWrites::hook;
    mp4_write_movie(m);
    moov_region_write_hook = nullptr;
    mp4_delete(m);
    close(fd);
    EXPECT_GE(torn.writes, 2u); // the padding header, then its payload
    EXPECT_GT(torn.cuts, 0u);
    EXPECT_EQ(torn.bad, 0u) << "first: " << torn.first_bad;
    Bytes f = test_util::readFile(torn.path);
    EXPECT_EQ(test_util::topLevel(f),
              (std::vector<std::string>{"ftyp", "free", "free", "mdat", "moov"}));
    EXPECT_EQ(playable(f), (std::vector<uint32_t>{400, uint32_t(s.audio)}));
}

TEST(MoovSetters, AReservationAskedForAfterTheFirstSampleChangesNothingOnFile) {
    // The region was made at the first sample; a new size would no longer match it.
    test_util::TempDir dir;
    const std::string path = dir.file("resized.mp4");
    mp4_muxer *m = newRecording(path);
    mp4_set_moov_mode(m, 65536, 9000);
    addTracks(m);
    Streams s;
    for (size_t i = 0; i < 50; i++)
        s.step(m, i);
    mp4_set_moov_mode(m, 20000, 9000);
    for (size_t i = 50; i < 100; i++)
        s.step(m, i);
    mp4_write_movie(m);
    EXPECT_EQ(mp4_get_error_code(m), 0u);
    mp4_delete(m);
    Bytes f = test_util::readFile(path);
    EXPECT_EQ(test_util::findBox(f, "moov").size, 65536u);
    EXPECT_EQ(playable(f), (std::vector<uint32_t>{100, uint32_t(s.audio)}));
}

// ---- a disk that fills up -----------------------------------------------------------------------

// Records into a file in a child process whose file size limit stands for a full disk: `before`
// runs first (no limit yet), then the limit of `limit(m)` bytes is set and `after` runs. The
// child exits with the handle's error code.
template <typename Before, typename Limit, typename After>
int recordUntilTheDiskIsFull(const std::string &path, bool stdio, Before before, Limit limit,
                             After after) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        signal(SIGXFSZ, SIG_IGN); // a write past the limit fails with EFBIG instead
        int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        FILE *fp = stdio ? fdopen(fd, "w+b") : nullptr;
        mp4_muxer *m = mp4_writer_create();
        if (fp)
            mp4_file_pointer(m, fp);
        else
            mp4_file_descriptor(m, fd);
        before(m);
        const rlim_t bytes = limit(m);
        struct rlimit rl = {bytes, bytes};
        setrlimit(RLIMIT_FSIZE, &rl);
        after(m);
        const int code = int(mp4_get_error_code(m));
        // Gone as a killed recorder goes: whatever the stream still buffers is dropped.
        mp4_delete(m);
        if (fp) {
            __fpurge(fp);
            fclose(fp);
        } else {
            close(fd);
        }
        _exit(code);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(MoovFailures, AfterAFailedWriteNoUpdateListsBytesTheFileLacks) {
    // The disk fills up mid-recording and the recorder carries on for a while (a live source
    // does not stop), then dies, or finishes. The movie at the start must still describe only
    // bytes on file: updates stop at the first failed write.
    for (bool stdio : {false, true}) {
        for (bool finish : {false, true}) {
            SCOPED_TRACE(std::string(stdio ? "stdio" : "descriptor") +
                         (finish ? ", finished" : ", killed"));
            test_util::TempDir dir;
            const std::string path = dir.file("full.mp4");
            Streams s;
            int code = recordUntilTheDiskIsFull(
                path, stdio,
                [](mp4_muxer *m) {
                    mp4_set_moov_mode(m, 65536, 9000); // an update every third frame
                    addTracks(m);
                },
                [](mp4_muxer *) { return rlim_t(65536 + 60000); },
                [&](mp4_muxer *m) {
                    int failed_at = -1;
                    for (int i = 0; i < 2000; i++) {
                        s.step(m, size_t(i));
                        if (failed_at < 0 && mp4_get_error_code(m))
                            failed_at = i;
                        if (failed_at >= 0 && i >= failed_at + 30)
                            break;
                    }
                    if (finish)
                        mp4_write_movie(m);
                });
            EXPECT_NE(code, 0); // the failure was reported
            Bytes f = test_util::readFile(path);
            ASSERT_LE(f.size(), 65536u + 60000u);
            const std::vector<uint32_t> listed = playable(f);
            ASSERT_EQ(listed.size(), 2u) << "the file's movie lists bytes it does not hold";
            EXPECT_GT(listed[0], 20u);
            test_util::BoxRef mdat = test_util::findBox(f, "mdat");
            ASSERT_TRUE(mdat.found);
            EXPECT_LE(mdat.end(), f.size());
            if (test_util::haveProgram("ffmpeg")) {
                EXPECT_EQ(test_util::decodeErrors(path), "");
            }
        }
    }
}

TEST(MoovFailures, AFinishThatCannotAppendTheMovieKeepsTheRegionsMovie) {
    // The movie outgrew its region, so the finish puts it at the end, but the disk is full:
    // the region must not be blanked, and no broken box may be left after the media.
    for (bool stdio : {false, true}) {
        SCOPED_TRACE(stdio ? "stdio" : "descriptor");
        test_util::TempDir dir;
        const std::string path = dir.file("outgrown.mp4");
        Streams s;
        size_t frames = 0; // in the child
        int code = recordUntilTheDiskIsFull(
            path, stdio,
            [&](mp4_muxer *m) {
                mp4_set_moov_mode(m, 8192, 9000);
                addTracks(m);
                while (!m->moov_full && frames < 2000)
                    s.step(m, frames++);
                for (size_t i = 0; i < 10; i++) // some more after the last update
                    s.step(m, frames++);
                flush_output(m);
            },
            [](mp4_muxer *m) { return rlim_t(m->pos + 100); },
            [](mp4_muxer *m) { mp4_write_movie(m); });
        // A stream meets the full disk as it flushes, which may be inside a seek (code 1).
        EXPECT_TRUE(code == int(MP4_ERR_WRITE) || (stdio && code == int(MP4_ERR_SEEK))) << code;
        Bytes f = test_util::readFile(path);
        EXPECT_EQ(test_util::topLevel(f),
                  (std::vector<std::string>{"ftyp", "moov", "free", "mdat"}));
        const std::vector<uint32_t> listed = playable(f);
        ASSERT_EQ(listed.size(), 2u);
        EXPECT_GT(listed[0], 0u);
    }
}

TEST(MoovUpdates, AStreamWithoutADescriptorIsUpdatedThroughItsOwnWrites) {
    std::vector<char> buf(1 << 20);
    FILE *fp = fmemopen(buf.data(), buf.size(), "w+b");
    ASSERT_NE(fp, nullptr);
    ASSERT_LT(fileno(fp), 0);
    mp4_muxer *m = mp4_writer_create();
    mp4_file_pointer(m, fp);
    mp4_set_moov_mode(m, 65536, 9000);
    addTracks(m);
    Streams s;
    for (size_t i = 0; i < 10; i++)
        s.step(m, i);
    fflush(fp);
    Bytes f(buf.begin(), buf.begin() + long(ftell(fp)));
    EXPECT_EQ(samplesListed(f, 1), 10u); // the update after frame 10
    EXPECT_EQ(test_util::findBox(f, "moov").size, 65536u);
    EXPECT_EQ(movieChildren(f, test_util::findBox(f, "moov")).back(), "free");
    mp4_delete(m);
    fclose(fp);
}

// ---- the finish ---------------------------------------------------------------------------------

TEST(MoovFinish, WithinTheReservationTheMovieStaysAtTheStartPadded) {
    SKIP_WITHOUT_FFPROBE();
    for (bool mov : {false, true}) {
        SCOPED_TRACE(mov ? "QuickTime" : "MP4");
        test_util::TempDir dir;
        const std::string path = dir.file(mov ? "in.mov" : "in.mp4");
        mp4_muxer *m = newRecording(path, mov);
        testing::internal::CaptureStdout();
        mp4_set_moov_max_duration(m, 1, 1);
        addTracks(m);
        Streams s;
        for (size_t i = 0; i < 75; i++)
            s.step(m, i);
        mp4_write_movie(m);
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_NE(out.find("est_size=98304"), std::string::npos) << out;
        EXPECT_NE(out.find("max_moov_size=98304 moov_interval=90000 moov->size=98304\n"),
                  std::string::npos)
            << out;
        EXPECT_EQ(mp4_get_error_code(m), 0u);
        mp4_delete(m);
        Bytes f = test_util::readFile(path);
        const std::string pad = mov ? "wide" : "free";
        EXPECT_EQ(test_util::topLevel(f), (std::vector<std::string>{"ftyp", "moov", pad, "mdat"}));
        test_util::BoxRef moov = test_util::findBox(f, "moov");
        EXPECT_EQ(moov.size, 98304u);
        std::vector<std::string> children = movieChildren(f, moov);
        EXPECT_EQ(children.back(), pad);
        EXPECT_EQ(test_util::boxesIn(f, moov.payload(), moov.end()).back().second.end(),
                  moov.end());
        EXPECT_EQ(test_util::findBox(f, "mdat").end(), f.size());
        expectPlays(path, "75", std::to_string(s.audio));
    }
}

// The layout and the playback of a recording whose movie went to the end.
void expectMovieAtTheEnd(const std::string &path, uint32_t reserved, bool mov, size_t frames,
                         size_t audio) {
    Bytes f = test_util::readFile(path);
    const std::string pad = mov ? "wide" : "free";
    EXPECT_EQ(test_util::topLevel(f), (std::vector<std::string>{"ftyp", pad, pad, "mdat", "moov"}));
    std::vector<std::pair<std::string, test_util::BoxRef>> top = test_util::boxesIn(f, 0, f.size());
    ASSERT_EQ(top.size(), 5u);
    EXPECT_EQ(top[1].second.size, reserved);
    // The region is blank: nothing of the movie written there stays.
    EXPECT_TRUE(std::all_of(f.begin() + long(top[1].second.payload()),
                            f.begin() + long(top[1].second.end()), [](uint8_t b) { return !b; }));
    EXPECT_EQ(top[4].second.end(), f.size());
    expectPlays(path, std::to_string(frames), std::to_string(audio));
}

TEST(MoovFinish, AMovieOutgrowingTheReservationAtAnUpdateGoesToTheEnd) {
    SKIP_WITHOUT_FFPROBE();
    for (bool mov : {false, true}) {
        SCOPED_TRACE(mov ? "QuickTime" : "MP4");
        const uint64_t empty = emptyMovieSize(mov);
        test_util::TempDir dir;
        const std::string path = dir.file(mov ? "out.mov" : "out.mp4");
        FILE *fp = fopen(path.c_str(), "w+b");
        mp4_muxer *m = mov ? mov_writer_create() : mp4_writer_create();
        mp4_file_pointer(m, fp);
        const uint32_t reserved = uint32_t(empty + 16); // the first update does not fit
        mp4_set_moov_mode(m, reserved, 9000);
        addTracks(m);
        Streams s;
        for (size_t i = 0; i < 3; i++)
            s.step(m, i);
        // Given up before writing: the region still holds the empty movie.
        EXPECT_EQ(mp4_get_error_code(m), 6u);
        EXPECT_STREQ(mp4_get_error(m), "buffer overflow");
        EXPECT_EQ(m->moov_full, 1u);
        EXPECT_EQ(m->moov_interval, 0u);
        fflush(fp);
        Bytes before = test_util::readFile(path);
        EXPECT_EQ(test_util::findBox(before, "moov").size, reserved);
        EXPECT_EQ(samplesListed(before, 1), 0u);
        EXPECT_EQ(mdatSize(before), 8u);
        for (size_t i = 3; i < 75; i++)
            s.step(m, i);
        mp4_write_movie(m);
        mp4_delete(m);
        fclose(fp);
        expectMovieAtTheEnd(path, reserved, mov, 75, s.audio);
    }
}

TEST(MoovFinish, TooLittleRoomForTheNextUpdatesEndsThemWithoutAnError) {
    SKIP_WITHOUT_FFPROBE();
    const uint64_t empty = emptyMovieSize();
    test_util::TempDir dir;
    const std::string path = dir.file("out.mp4");
    mp4_muxer *m = newRecording(path);
    // Updates every second of video stop once fewer than 9000 bytes are left.
    const uint32_t reserved = uint32_t(empty + 9500);
    mp4_set_moov_mode(m, reserved, 90000);
    addTracks(m);
    Streams s;
    for (size_t i = 0; i < 25; i++)
        s.step(m, i);
    EXPECT_EQ(mp4_get_error_code(m), 0u);
    EXPECT_EQ(m->moov_full, 1u);
    EXPECT_EQ(m->moov_interval, 0u);
    // The update that ended them was written: the region holds the movie of 25 frames.
    Bytes before = test_util::readFile(path);
    EXPECT_EQ(samplesListed(before, 1), 25u);
    for (size_t i = 25; i < 75; i++)
        s.step(m, i);
    mp4_write_movie(m);
    EXPECT_EQ(mp4_get_error_code(m), 0u);
    mp4_delete(m);
    expectMovieAtTheEnd(path, reserved, false, 75, s.audio);
}

TEST(MoovFinish, AReservationNeverUpdatedThatTheMovieOutgrewIsBlanked) {
    SKIP_WITHOUT_FFPROBE();
    const uint64_t empty = emptyMovieSize();
    test_util::TempDir dir;
    const std::string path = dir.file("out.mp4");
    mp4_muxer *m = newRecording(path);
    const uint32_t reserved = uint32_t(empty + 100);
    mp4_set_moov_mode(m, reserved, 0);
    addTracks(m);
    Streams s;
    for (size_t i = 0; i < 75; i++)
        s.step(m, i);
    mp4_write_movie(m);
    EXPECT_EQ(mp4_get_error_code(m), 0u);
    mp4_delete(m);
    expectMovieAtTheEnd(path, reserved, false, 75, s.audio);
}

TEST(MoovFinish, AMovieThatWouldLeaveAGapTooSmallForPaddingGoesToTheEnd) {
    SKIP_WITHOUT_FFPROBE();
    const uint64_t empty = emptyMovieSize();
    // The finished movie of one frame: measured once with room to spare.
    uint64_t one_frame = 0;
    {
        test_util::TempDir dir;
        mp4_muxer *m = newRecording(dir.file("probe.mp4"));
        mp4_set_moov_mode(m, 65536, 0);
        addTracks(m);
        Streams s;
        s.step(m, 0);
        mp4_write_movie(m);
        mp4_delete(m);
        Bytes f = test_util::readFile(dir.file("probe.mp4"));
        // The movie box spans the region; its padding child is what the movie left free.
        one_frame = test_util::findBox(f, "moov").size - test_util::findBox(f, "moov/free").size;
    }
    ASSERT_GT(one_frame, empty + 8);
    for (uint64_t slack : {0, 1, 8, 9}) {
        SCOPED_TRACE("slack " + std::to_string(slack));
        test_util::TempDir dir;
        const std::string path = dir.file("out.mp4");
        mp4_muxer *m = newRecording(path);
        const uint32_t reserved = uint32_t(one_frame + slack);
        mp4_set_moov_mode(m, reserved, 0);
        addTracks(m);
        Streams s;
        s.step(m, 0);
        mp4_write_movie(m);
        mp4_delete(m);
        Bytes f = test_util::readFile(path);
        if (slack == 0 || slack == 9) { // filled exactly, or with a padding box of 9 bytes
            EXPECT_EQ(test_util::topLevel(f),
                      (std::vector<std::string>{"ftyp", "moov", "free", "mdat"}));
            EXPECT_EQ(test_util::findBox(f, "moov").size, reserved);
        } else { // 1 to 8 bytes could not be padded
            EXPECT_EQ(test_util::topLevel(f),
                      (std::vector<std::string>{"ftyp", "free", "free", "mdat", "moov"}));
        }
        expectPlays(path, "1", std::to_string(s.audio));
    }
}

// ---- reservations that cannot be used -----------------------------------------------------------

TEST(MoovSetup, AReservationTooSmallForTheEmptyMovieIsGivenUpAtOnce) {
    SKIP_WITHOUT_FFPROBE();
    test_util::TempDir dir;
    const std::string path = dir.file("small.mp4");
    mp4_muxer *m = newRecording(path);
    mp4_set_moov_mode(m, 200, 9000);
    addTracks(m);
    Streams s;
    testing::internal::CaptureStdout();
    s.step(m, 0);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("setup_moov_at_start: movie of "), std::string::npos) << out;
    EXPECT_NE(out.find(" bytes does not fit the 200 bytes reserved\n"), std::string::npos) << out;
    EXPECT_EQ(mp4_get_error_code(m), 6u);
    EXPECT_EQ(m->moov_interval, 0u);
    for (size_t i = 1; i < 75; i++)
        s.step(m, i);
    mp4_write_movie(m);
    mp4_delete(m);
    expectMovieAtTheEnd(path, 200, false, 75, s.audio);
}

TEST(MoovSetup, ARegionTooSmallForAnyBoxIsNotReserved) {
    test_util::TempDir dir;
    const std::string path = dir.file("tiny.mp4");
    mp4_muxer *m = newRecording(path);
    mp4_set_moov_mode(m, 4, 9000);
    addTracks(m);
    Streams s;
    testing::internal::CaptureStdout();
    for (size_t i = 0; i < 10; i++)
        s.step(m, i);
    mp4_write_movie(m);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(mp4_get_error_code(m), 6u);
    EXPECT_EQ(m->max_moov_size, 0u);
    mp4_delete(m);
    Bytes f = test_util::readFile(path);
    EXPECT_EQ(test_util::topLevel(f), (std::vector<std::string>{"ftyp", "free", "mdat", "moov"}));
}

TEST(MoovSetup, AnOutputThatAlreadyHoldsBytesGetsNoReservation) {
    test_util::TempDir dir;
    const std::string path = dir.file("late.mp4");
    mp4_muxer *m = newRecording(path);
    mp4_set_moov_mode(m, 65536, 9000);
    const uint8_t note[] = {'n', 'o', 't', 'e'};
    mp4_write_skip_data(m, note, sizeof note);
    addTracks(m);
    Streams s;
    testing::internal::CaptureStdout();
    for (size_t i = 0; i < 20; i++)
        s.step(m, i);
    EXPECT_EQ(m->moov_interval, 0u); // the first update found no region and stopped them
    mp4_write_movie(m);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(mp4_get_error_code(m), 0u);
    mp4_delete(m);
    Bytes f = test_util::readFile(path);
    EXPECT_EQ(test_util::topLevel(f), (std::vector<std::string>{"skip", "free", "mdat", "moov"}));
    EXPECT_EQ(samplesListed(f, 1), 20u);
}

// ---- the recording tool -------------------------------------------------------------------------

TEST(MoovTool, RecordWithTheHeaderAtTheStartAndInterleavedAudio) {
    SKIP_WITHOUT_TOOL();
    SKIP_WITHOUT_FFPROBE();
    test_util::TempDir dir;
    const std::string out = dir.file("tool.mp4");
    std::string printed;
    ASSERT_EQ(test_util::run(test_util::quote(test_util::toolPath()) + " record -o " +
                                 test_util::quote(out) + " --h264 " +
                                 test_util::quote(test_util::dataPath("sample.h264")) + " --aac " +
                                 test_util::quote(test_util::dataPath("sample.aac")) +
                                 " --interleave 24000 --moov-at-start 1 --update 1",
                             &printed),
              0)
        << printed;
    // One minute of 25 fps video and 48 kHz audio: 1500 and 2812 frames.
    EXPECT_NE(printed.find("mp4_set_moov_max_duration: max_minutes=1 interval_seconds=1\n"),
              std::string::npos)
        << printed;
    EXPECT_NE(printed.find("video_frames=1500 audio_frames=2812 est_size=98304\n"),
              std::string::npos)
        << printed;
    Bytes f = test_util::readFile(out);
    EXPECT_EQ(test_util::topLevel(f), (std::vector<std::string>{"ftyp", "moov", "free", "mdat"}));
    EXPECT_EQ(test_util::findBox(f, "moov").size, 98304u);
    // Half-second bursts of audio, each a chunk.
    test_util::BoxRef stco = test_util::findBox(f, "moov/trak#2/mdia/minf/stbl/stco");
    ASSERT_TRUE(stco.found);
    EXPECT_EQ(be32(&f[stco.payload() + 4]), 7u);
    expectPlays(out, "75", "142");
}

} // namespace
