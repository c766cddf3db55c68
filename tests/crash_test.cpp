// Recordings that survive a crash: a process recording with the movie header kept at the start
// is killed at a random moment, and the file it leaves must play, holding exactly the samples of
// the last update of the header.
#include "internal.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <new>
#include <random>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

// What the recording process tells the test, in memory shared across the fork.
struct Shared {
    std::atomic<uint32_t> written[2];  // samples reported by the writer's callback, per track
    std::atomic<uint32_t> listed[2];   // samples covered by the last update found on disk
    std::atomic<uint32_t> updates;     // updates found on disk
    std::atomic<uint32_t> in_call;     // 1 while a sample is being delivered
    std::atomic<uint32_t> call_track;  // the track of that sample
    std::atomic<uint32_t> all_written; // every sample delivered; the process only waits now
};
static_assert(std::atomic<uint32_t>::is_always_lock_free, "shared counters need atomics");

int countSample(void *opaque, uint32_t track, uint64_t, uint64_t, uint32_t, uint32_t) {
    auto *shared = static_cast<Shared *>(opaque);
    if (track == 1 || track == 2)
        shared->written[track - 1]++;
    return 0;
}

struct Trial {
    bool stdio;      // a stdio stream, else a file descriptor
    bool interleave; // audio held back in half-second bursts
    bool paced;      // a pause after every sample, else samples as fast as they go, so that
                     // kills often land inside the writer and its updates
};

// The recording process: the sample streams delivered over and over, with the header updated
// every 0.1 s of video. It never finishes the movie: it waits to be killed.
[[noreturn]] void record(const std::string &path, const Trial &trial, Shared *shared) {
    Bytes h264 = test_util::readFile(test_util::dataPath("sample.h264"));
    Bytes aac = test_util::readFile(test_util::dataPath("sample.aac"));
    auto units = test_util::splitAtDelimiters(h264);
    auto frames = test_util::splitAdtsFrames(aac);
    if (units.empty() || frames.empty())
        _exit(3);
    int fd = -1;
    FILE *fp = nullptr;
    mp4_muxer *m = mp4_writer_create();
    if (trial.stdio) {
        fp = fopen(path.c_str(), "w+b");
        if (!fp)
            _exit(4);
        mp4_file_pointer(m, fp);
        fd = fileno(fp);
    } else {
        fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        if (fd < 0)
            _exit(4);
        mp4_file_descriptor(m, fd);
    }
    mp4_set_moov_mode(m, 131072, 9000);
    if (trial.interleave)
        mp4_interleave_duration(m, 24000);
    mp4_set_sample_callback(m, countSample, shared);
    mp4_video_track_create(m, fourcc("avc1"), 90000, 3600, 0, 128, 96, 66, 11);
    mp4_audio_track_create(m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);

    uint64_t mdat_header = 0;
    uint32_t mdat_on_disk = 0;
    const struct timespec pace = {0, 1000000}; // 1 ms
    auto deliver = [&](uint32_t track, const uint8_t *data, size_t size, uint32_t duration) {
        shared->call_track = track;
        shared->in_call = 1;
        mp4_write_track(m, track, data, uint32_t(size), duration);
        if (mp4_get_error_code(m))
            _exit(5);
        if (!mdat_header)
            mdat_header = m->mdat->data_pos - 8;
        // An update shows on disk as a new media data size; it lists what was written by then.
        uint8_t size_field[4] = {};
        if (pread(fd, size_field, 4, off_t(mdat_header)) == 4) {
            uint32_t on_disk = test_util::be32(size_field);
            if (on_disk != mdat_on_disk) {
                mdat_on_disk = on_disk;
                shared->listed[0] = shared->written[0].load();
                shared->listed[1] = shared->written[1].load();
                shared->updates++;
            }
        }
        shared->in_call = 0;
        if (trial.paced)
            nanosleep(&pace, nullptr);
    };
    size_t audio = 0;
    const size_t video_frames = units.size() * (trial.paced ? 2 : 16);
    for (size_t i = 0; i < video_frames; i++) {
        const auto &u = units[i % units.size()];
        deliver(1, h264.data() + u.first, u.second, 3600);
        while (uint64_t(audio) * 1024 * 90000 < uint64_t(i + 1) * 3600 * 48000) {
            const auto &f = frames[audio % frames.size()];
            deliver(2, aac.data() + f.first, f.second, 1024);
            audio++;
        }
    }
    shared->all_written = 1;
    for (;;)
        pause();
}

TEST(Crash, AKilledRecordingPlaysUpToItsLastUpdate) {
    SKIP_WITHOUT_FFPROBE();
    auto *shared = static_cast<Shared *>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(shared, MAP_FAILED);
    std::mt19937 random(20240611);
    const int trials = 24;
    int mid_recording = 0, during_a_call = 0;
    for (int n = 0; n < trials; n++) {
        const Trial trial{n % 2 == 1, n % 4 >= 2, n % 8 < 4};
        SCOPED_TRACE("trial " + std::to_string(n) + (trial.stdio ? ", stdio" : ", descriptor") +
                     (trial.interleave ? ", interleaved" : "") + (trial.paced ? ", paced" : ""));
        test_util::TempDir dir;
        const std::string path = dir.file("crash.mp4");
        new (shared) Shared{};
        fflush(nullptr);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0)
            record(path, trial, shared);
        // A trial given up early must not leave its recording process behind.
        struct Reaper {
            pid_t pid;
            ~Reaper() {
                if (pid > 0) {
                    kill(pid, SIGKILL);
                    waitpid(pid, nullptr, 0);
                }
            }
        } reaper{pid};

        // Wait for the first update, then let the recording go on for a random while.
        const struct timespec poll = {0, 200000};
        for (int waited = 0; shared->updates == 0 && waited < 50000; waited++) {
            int status = 0;
            if (waitpid(pid, &status, WNOHANG) == pid) {
                reaper.pid = 0;
                FAIL() << "the recording ended early, exit status " << WEXITSTATUS(status);
            }
            nanosleep(&poll, nullptr);
        }
        ASSERT_GT(shared->updates.load(), 0u) << "no update within 10 s";
        // Paced, the samples take at least 430 ms of pauses, so a kill within 400 ms of the
        // first update always lands before the end; unpaced, the end comes when the machine
        // gets there, and some kills may find everything written.
        std::uniform_int_distribution<long> delay_us(0, trial.paced ? 400000 : 150000);
        const long delay = delay_us(random);
        const struct timespec wait = {delay / 1000000, (delay % 1000000) * 1000};
        nanosleep(&wait, nullptr);
        // Killed wherever it is, inside a system call too: a write into the region that the
        // kill cuts at a page boundary must leave the old movie or the new one.
        kill(pid, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        reaper.pid = 0;
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
            << "the recording failed before the kill, exit status " << WEXITSTATUS(status);

        // The file lists what the last update covered. Killed while a video sample was being
        // delivered, the update that sample may have made counts too: it covers everything
        // written up to then.
        const uint32_t listed[2] = {shared->listed[0], shared->listed[1]};
        const uint32_t written[2] = {shared->written[0], shared->written[1]};
        const bool in_video_call = shared->in_call && shared->call_track == 1;
        mid_recording += shared->all_written ? 0 : 1;
        during_a_call += shared->in_call ? 1 : 0;
        SCOPED_TRACE("killed " + std::to_string(delay) + " us after the first update, " +
                     (shared->all_written ? "all written"
                      : shared->in_call   ? "inside the writer"
                                          : "between samples"));

        std::vector<test_util::Fields> streams;
        std::string errors;
        ASSERT_TRUE(test_util::probeStreams(path, &streams, &errors)) << errors;
        ASSERT_EQ(streams.size(), 2u) << errors;
        const uint32_t video = uint32_t(std::stoul(streams[0]["nb_read_packets"]));
        const uint32_t audio = uint32_t(std::stoul(streams[1]["nb_read_packets"]));
        EXPECT_EQ(streams[0]["nb_frames"], std::to_string(video));
        EXPECT_EQ(streams[1]["nb_frames"], std::to_string(audio));
        const bool at_last_update = video == listed[0] && audio == listed[1];
        const bool at_update_in_call = in_video_call && video == written[0] && audio == written[1];
        EXPECT_TRUE(at_last_update || at_update_in_call)
            << "file lists " << video << " video and " << audio << " audio samples; the last "
            << "update covered " << listed[0] << " and " << listed[1] << ", written " << written[0]
            << " and " << written[1];
        EXPECT_GT(video, 0u);
        EXPECT_EQ(test_util::decodeErrors(path), "");
    }
    // At least the paced half of the kills landed while samples were still being written.
    EXPECT_GE(mid_recording, trials / 2);
    printf("%d of %d kills during the recording, %d while a sample was being delivered\n",
           mid_recording, trials, during_a_call);
    munmap(shared, sizeof(Shared));
}

} // namespace
