// Faults from outside: writes that fail on a descriptor and on a stdio stream, a caller's memory
// buffer too small for what is written into it, and allocations that fail one at a time through
// the allocator's test seam. Every run must end with the documented error code, or complete
// when the library absorbs that failure by design, and the handle must delete cleanly (the
// sanitizer build checks for leaks when each child process exits).
#include "internal.h"

#include "test_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
using test_util::TempDir;

constexpr uint32_t AVC1 = MP4_FOURCC('a', 'v', 'c', '1');
constexpr uint32_t MP4A = MP4_FOURCC('m', 'p', '4', 'a');

// The bundled encoder output, split into access units and ADTS frames.
struct Streams {
    Bytes h264 = test_util::readFile(test_util::dataPath("sample.h264"));
    Bytes aac = test_util::readFile(test_util::dataPath("sample.aac"));
    std::vector<std::pair<size_t, size_t>> units = test_util::splitAtDelimiters(h264);
    std::vector<std::pair<size_t, size_t>> frames = test_util::splitAdtsFrames(aac);

    // Writes `pictures` video samples with the audio due by each; 25 fps, 48 kHz.
    void record(mp4_muxer *m, size_t pictures) const {
        size_t a = 0;
        for (size_t i = 0; i < pictures; i++) {
            const auto &u = units[i % units.size()];
            mp4_write_track(m, 1, h264.data() + u.first, uint32_t(u.second), 3600);
            while (a < frames.size() && uint64_t(a) * 1024 * 90000 <= i * 3600 * 48000) {
                const auto &f = frames[a++];
                mp4_write_track(m, 2, aac.data() + f.first, uint32_t(f.second), 1024);
            }
        }
    }
};

const Streams &streams() {
    static const Streams s;
    return s;
}

void createTracks(mp4_muxer *m) {
    mp4_video_track_create(m, AVC1, 90000, 3600, 0, 128, 96, 66, 11);
    mp4_audio_track_create(m, MP4A, 48000, 1024, 0, 48000, 2);
}

// Whether the leak checker of a sanitizer build runs when a process exits. Child processes
// turn it off: each scenario is checked for leaks through the allocator's own count of live
// blocks instead, which costs nothing, while the checker would scan the whole heap at every
// exit.
bool child_process = false;

} // namespace

extern "C" int __lsan_is_turned_off() {
    return child_process;
}

namespace {

// A file of its own for a child's standard error or its reports, read back whole.
struct Capture {
    FILE *f = tmpfile();
    ~Capture() {
        if (f)
            fclose(f);
    }
    std::string text() const {
        std::string s;
        if (!f)
            return s;
        fflush(f);
        rewind(f);
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, f)) > 0)
            s.append(buf, n);
        return s;
    }
};

// How one child process ended.
struct Outcome {
    bool exited = false;
    int status = -1;    // exit status, or the signal number when !exited
    std::string err;    // what it wrote on standard error
    std::string report; // what it wrote on its report file
};

// Runs `body` in a child process with its standard output dropped and its standard error
// captured; `body` writes what it has to say on the report file it is given and returns the
// child's exit status.
Outcome inChild(const std::function<int(FILE *)> &body) {
    Capture err, report;
    Outcome o;
    if (!err.f || !report.f)
        return o;
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        child_process = true;
        dup2(fileno(err.f), 2);
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        int status = body(report.f);
        fflush(nullptr);
        _exit(status);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    o.exited = WIFEXITED(status);
    o.status = o.exited ? WEXITSTATUS(status) : WTERMSIG(status);
    o.err = err.text();
    o.report = report.text();
    return o;
}

// ---- writes that fail ------------------------------------------------------------------------

// h264_aac.mp4 as the library's refragmenter streams it: media data first, then the fragment
// header that describes it, the order the defragmenter follows.
const Bytes &fragmentedStream() {
    static const Bytes stream = [] {
        Bytes all, buffer(1 << 20);
        FILE *in = fopen(test_util::dataPath("h264_aac.mp4").c_str(), "rb");
        mp4_muxer *m = mp4_refrag_create();
        mp4_file_pointer(m, in);
        for (int i = 0; i < 1000; i++) {
            mp4_buf_put(m, buffer.data(), uint32_t(buffer.size()));
            mp4_remux(m);
            uint32_t n = mp4_buf_get(m);
            all.insert(all.end(), buffer.begin(), buffer.begin() + n);
            if (n == 0 && i > 0)
                break;
        }
        mp4_buf_put(m, buffer.data(), uint32_t(buffer.size()));
        mp4_write_frag_header(m);
        uint32_t n = mp4_buf_get(m);
        all.insert(all.end(), buffer.begin(), buffer.begin() + n);
        mp4_delete(m);
        fclose(in);
        return all;
    }();
    return stream;
}

// Defragments that stream, fed whole, into whatever output `m` has.
void defragmentFixture(mp4_muxer *m) {
    Bytes copy = fragmentedStream();
    mp4_buf_put(m, copy.data(), uint32_t(copy.size()));
    mp4_remux(m);
    mp4_buf_get(m);
    mp4_write_movie(m);
}

// A descriptor on which every write fails (ENOSPC): error 8 while recording. The descriptor
// tells where the output really ends, so the finish finds the media data inconsistent with it
// and, as documented, leaves error 3 without writing a movie. The handles still finish and
// delete without leaving a block behind.
TEST(WriteFailure, EveryWriteFailsOnADescriptor) {
    int fd = open("/dev/full", O_WRONLY);
    if (fd < 0)
        GTEST_SKIP() << "/dev/full is not available";
    ASSERT_FALSE(fragmentedStream().empty()); // made before the output is captured
    long live = mp4_alloc_live();
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    mp4_muxer *w = mp4_writer_create();
    mp4_file_descriptor(w, fd);
    createTracks(w);
    streams().record(w, 12);
    const uint32_t recording = mp4_get_error_code(w);
    mp4_write_movie(w);
    const uint32_t finished = mp4_get_error_code(w);
    const int write_error = mp4_was_write_error(w);
    mp4_delete(w);

    mp4_muxer *d = mp4_remuxer_create();
    mp4_file_descriptor(d, fd); // the linked writer's output
    defragmentFixture(d);
    const uint32_t defragmented = mp4_get_error_code(d);
    const std::string text = mp4_get_error(d) ? mp4_get_error(d) : "";
    mp4_delete(d);
    std::string err = testing::internal::GetCapturedStderr();
    std::string out = testing::internal::GetCapturedStdout();

    EXPECT_EQ(recording, uint32_t(MP4_ERR_WRITE));
    EXPECT_EQ(finished, uint32_t(MP4_ERR_BAD_INPUT));
    EXPECT_NE(out.find("inconsistent mdat size\n"), std::string::npos) << out;
    EXPECT_EQ(write_error, 1);
    EXPECT_EQ(defragmented, uint32_t(MP4_ERR_WRITE)) << "the writer's failure shows";
    EXPECT_EQ(text, "write failed");
    EXPECT_NE(err.find("write: No space left on device"), std::string::npos);
    EXPECT_EQ(mp4_alloc_live(), live);
    close(fd);
}

// A stdio stream whose file cannot grow past a limit, as on a full disk: the writes that pass
// it fail (SIGXFSZ ignored, so write reports EFBIG), with error 8; the file stays within the
// limit. In a child process, which alone has the limit.
TEST(WriteFailure, WritesPastAFileSizeLimitFailOnAStdioStream) {
    TempDir dir;
    const rlim_t limit = 16 * 1024;
    ASSERT_GT(fragmentedStream().size(), 2 * limit);
    for (int remuxer = 0; remuxer < 2; remuxer++) {
        SCOPED_TRACE(remuxer ? "defragmenting" : "recording");
        const std::string path = dir.file(remuxer ? "defrag.mp4" : "rec.mp4");
        Outcome o = inChild([&](FILE *report) {
            struct rlimit rl = {limit, limit};
            setrlimit(RLIMIT_FSIZE, &rl);
            signal(SIGXFSZ, SIG_IGN);
            long live = mp4_alloc_live();
            uint32_t code;
            if (remuxer) {
                mp4_muxer *d = mp4_remuxer_create();
                mp4_file_name_ascii(d, path.c_str()); // a stdio stream the library owns
                defragmentFixture(d);
                code = mp4_get_error_code(d);
                mp4_delete(d);
            } else {
                FILE *f = fopen(path.c_str(), "w+b");
                mp4_muxer *w = mp4_writer_create();
                mp4_file_pointer(w, f);
                createTracks(w);
                streams().record(w, 75);
                mp4_write_movie(w);
                code = mp4_get_error_code(w);
                mp4_delete(w);
                fclose(f);
            }
            fprintf(report, "%u %ld", code, mp4_alloc_live() - live);
            return 0;
        });
        ASSERT_TRUE(o.exited) << "signal " << o.status;
        unsigned code = 0;
        long left = -1;
        ASSERT_EQ(sscanf(o.report.c_str(), "%u %ld", &code, &left), 2) << o.err;
        EXPECT_EQ(code, unsigned(MP4_ERR_WRITE));
        EXPECT_EQ(left, 0) << "blocks left after delete";
        // Reported by the write, or by the seek that flushes a stream's buffer.
        EXPECT_NE(o.err.find(": File too large"), std::string::npos) << o.err;
        EXPECT_LE(test_util::fileSize(path), limit);
        EXPECT_GT(test_util::fileSize(path), 0u);
    }
}

// ---- the memory writer's overflow area -------------------------------------------------------

// A fragmented recording whose second buffer is too small for the sample written into it: the
// buffer receives the leading bytes of what a large buffer receives, the rest goes to the
// overflow area and is lost from the output, with error 6; the next buffer carries on from the
// stream position after the lost bytes. (One overflowing write only: each stalls a second by
// design.)
TEST(MemoryOverflow, ABufferTooSmallForASampleKeepsItsHeadWithErrorSix) {
    Bytes sample(600);
    for (size_t i = 0; i < sample.size(); i++)
        sample[i] = uint8_t(i * 7);
    // Buffers for the movie header, the sample, and the fragment header.
    auto record = [&](uint32_t second_buffer, std::vector<Bytes> *pieces) {
        mp4_muxer *m = mp4_writer_create();
        uint32_t t =
            mp4_audio_track_create(m, MP4_FOURCC('s', 'o', 'w', 't'), 48000, 150, 0, 48000, 2);
        for (int step = 0; step < 3; step++) {
            Bytes buffer(step == 1 ? second_buffer : 1u << 16);
            mp4_buf_put(m, buffer.data(), uint32_t(buffer.size()));
            if (step == 0)
                mp4_write_movie(m);
            else if (step == 1)
                mp4_write_track(m, t, sample.data(), uint32_t(sample.size()), 150);
            else
                mp4_write_frag_header(m);
            uint32_t n = mp4_buf_get(m);
            pieces->push_back(Bytes(buffer.begin(), buffer.begin() + n));
        }
        uint32_t code = mp4_get_error_code(m);
        mp4_delete(m);
        return code;
    };
    long live = mp4_alloc_live();
    std::vector<Bytes> whole, cut;
    testing::internal::CaptureStdout();
    uint32_t whole_code = record(1u << 16, &whole);
    uint32_t cut_code = record(100, &cut);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(mp4_alloc_live(), live);

    EXPECT_EQ(whole_code, 0u);
    ASSERT_EQ(whole[1].size(), 8 + sample.size()); // the sample's own mdat box
    EXPECT_EQ(cut_code, uint32_t(MP4_ERR_OVERFLOW));
    EXPECT_EQ(out, "warning: buffer overflowed pos=8 space=92 n=600\n");
    ASSERT_EQ(cut.size(), 3u);
    EXPECT_EQ(cut[0], whole[0]);
    EXPECT_EQ(cut[1], Bytes(whole[1].begin(), whole[1].begin() + 100));
    EXPECT_EQ(cut[2], whole[2]) << "the fragment header follows at the same position";
}

// ---- allocation failures ---------------------------------------------------------------------

// A scenario runs from creating its handles to deleting them and returns the error code they
// ended with. It calls `arm` where the allocations under test begin (at its start, or just
// before the call under test). A create call that cannot allocate its handle returns null,
// which is how out of memory reaches the caller there: the scenario returns 2 for it.
using Arm = std::function<void()>;
using Scenario = std::function<uint32_t(const Arm &arm)>;

// What a scenario leaves behind (the bytes of its output file), compared between runs.
using Output = std::function<std::string()>;

std::string fileDigest(const std::string &path) {
    Bytes f = test_util::readFile(path);
    uint64_t h = 1469598103934665603ull;
    for (uint8_t c : f)
        h = (h ^ c) * 1099511628211ull;
    return std::to_string(f.size()) + ":" + std::to_string(h);
}

struct Tally {
    long allocations = 0;
    int nomem = 0, absorbed = 0, fatal = 0;
    std::vector<std::string> failures;
};

// Runs `scenario` once to count its allocations after `arm`, then once for each of them with
// that one failing. Each run must end with error 2, or with the code of the run without
// failures (`clean_code`) when the library absorbs the failure, and then with the same output;
// and it must leave no block allocated. A node that newBox cannot allocate ends the process with
// "Fatal: out of memory" by design; the runs go on in a fresh child after it.
Tally failEachAllocation(const Scenario &scenario, const Output &output = nullptr,
                         uint32_t clean_code = 0) {
    auto digest = [&] { return output ? output() : std::string("-"); };
    Tally t;
    Outcome clean = inChild([&](FILE *report) {
        unsigned long armed = 0;
        long live = mp4_alloc_live();
        uint32_t code = scenario([&] { armed = mp4_alloc_count(); });
        fprintf(report, "%lu %u %ld %s\n", mp4_alloc_count() - armed, code, mp4_alloc_live() - live,
                digest().c_str());
        return 0;
    });
    unsigned code = 0;
    long leaked = 0;
    char expected[128] = "";
    if (!clean.exited || clean.status != 0 ||
        sscanf(clean.report.c_str(), "%ld %u %ld %127s", &t.allocations, &code, &leaked,
               expected) != 4) {
        t.failures.push_back("clean run did not complete:\n" + clean.err);
        return t;
    }
    if (code != clean_code || leaked != 0) {
        t.failures.push_back("clean run: error " + std::to_string(code) + ", " +
                             std::to_string(leaked) + " blocks left");
        return t;
    }
    for (long start = 0; start < t.allocations;) {
        Outcome o = inChild([&](FILE *report) {
            for (long n = start; n < t.allocations; n++) {
                fprintf(report, "%ld", n);
                fflush(report);
                long live = mp4_alloc_live();
                uint32_t c = scenario([n] { mp4_alloc_fail_only(n); });
                mp4_alloc_fail_only(-1);
                fprintf(report, " %u %ld %s\n", c, mp4_alloc_live() - live,
                        c == clean_code ? digest().c_str() : "-");
                fflush(report);
            }
            return 0;
        });
        // One line per run; a run that ended the process leaves only its number.
        long last = start - 1;
        std::istringstream lines(o.report);
        std::string line;
        while (std::getline(lines, line)) {
            long n = -1, left = 0;
            unsigned c = 0;
            char got[128] = "";
            int fields = sscanf(line.c_str(), "%ld %u %ld %127s", &n, &c, &left, got);
            last = n;
            if (fields != 4)
                break;
            const std::string at = "allocation " + std::to_string(n) + ": ";
            if (left != 0)
                t.failures.push_back(at + std::to_string(left) + " blocks left after delete");
            if (c == MP4_ERR_NOMEM) {
                t.nomem++;
            } else if (c == clean_code) {
                t.absorbed++;
                if (strcmp(got, expected) != 0)
                    t.failures.push_back(at + "absorbed, but the output differs");
            } else {
                t.failures.push_back(at + "error " + std::to_string(c));
            }
        }
        if (o.exited && o.status == 0)
            break;
        const std::string fatal = "Fatal: out of memory\n";
        if (o.exited && o.status == 1 && o.err.size() >= fatal.size() &&
            o.err.compare(o.err.size() - fatal.size(), fatal.size(), fatal) == 0) {
            t.fatal++;
        } else {
            size_t tail = o.err.size() > 3000 ? o.err.size() - 3000 : 0;
            t.failures.push_back("allocation " + std::to_string(last) + ": " +
                                 (o.exited ? "exit " : "signal ") + std::to_string(o.status) +
                                 "\n" + o.err.substr(tail));
        }
        start = last + 1;
    }
    return t;
}

void expectOnlyDocumentedOutcomes(const Tally &t) {
    for (const std::string &f : t.failures)
        ADD_FAILURE() << f;
    EXPECT_GT(t.allocations, 0);
    EXPECT_GT(t.nomem, 0) << "no failure became error 2";
    EXPECT_EQ(t.nomem + t.absorbed + t.fatal, t.allocations);
    std::printf("%ld allocations: %d error 2, %d absorbed, %d fatal by design\n", t.allocations,
                t.nomem, t.absorbed, t.fatal);
}

// A box node the tree cannot allocate ends the process, by design: the writer builds its movie
// from nodes that cannot be missing.
TEST(AllocationFailureDeathTest, ANodeThatCannotBeAllocatedEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            mp4_alloc_fail_only(0);
            newBox(fourcc("moov"), 8);
        },
        testing::ExitedWithCode(1), "^Fatal: out of memory\n$");
}

TEST(AllocationFailure, TheLiveCountSeesABlockLeftBehind) {
    long live = mp4_alloc_live();
    void *p = mp4_malloc(8);
    void *q = mp4_realloc(nullptr, 8);
    q = mp4_realloc(q, 64);
    EXPECT_EQ(mp4_alloc_live(), live + 2);
    mp4_free(p);
    mp4_free(q);
    mp4_free(nullptr);
    EXPECT_EQ(mp4_alloc_live(), live);
}

uint32_t recordInto(mp4_muxer *m, const Arm &arm, size_t pictures, bool arm_at_finish) {
    createTracks(m);
    streams().record(m, pictures);
    if (arm_at_finish)
        arm();
    mp4_write_movie(m);
    uint32_t code = mp4_get_error_code(m);
    mp4_delete(m);
    return code;
}

TEST(AllocationFailure, RecordingThroughADescriptor) {
    TempDir dir;
    const std::string path = dir.file("rec.mp4");
    Scenario sc = [&](const Arm &arm) -> uint32_t {
        int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        arm();
        mp4_muxer *m = mp4_writer_create();
        if (!m) {
            close(fd);
            return MP4_ERR_NOMEM;
        }
        mp4_file_descriptor(m, fd);
        uint32_t code = recordInto(m, arm, 12, false);
        close(fd);
        return code;
    };
    Tally t = failEachAllocation(sc, [&] { return fileDigest(path); });
    expectOnlyDocumentedOutcomes(t);
}

// Interleaving and the movie kept at the start bring their own buffers and rewrites; the
// subtitle track has a sample entry that only coding the movie measures.
TEST(AllocationFailure, RecordingThroughAStreamInterleavedWithTheMovieAtTheStart) {
    TempDir dir;
    const std::string path = dir.file("rec.mov");
    Scenario sc = [&](const Arm &arm) -> uint32_t {
        FILE *f = fopen(path.c_str(), "w+b");
        arm();
        mp4_muxer *m = mov_writer_create();
        if (!m) {
            fclose(f);
            return MP4_ERR_NOMEM;
        }
        mp4_file_pointer(m, f);
        mp4_interleave_duration(m, 45000);
        mp4_set_moov_mode(m, 32768, 90000 / 5);
        mp4_subtitle_track_create(m, MP4_FOURCC('m', 'p', '4', 's'), "Subtitles", 90000, 3600, 0,
                                  128, 96, nullptr);
        uint32_t code = recordInto(m, arm, 12, false);
        fclose(f);
        return code;
    };
    Tally t = failEachAllocation(sc, [&] { return fileDigest(path); });
    expectOnlyDocumentedOutcomes(t);
}

TEST(AllocationFailure, FinishingARecording) {
    TempDir dir;
    const std::string path = dir.file("fin.mp4");
    for (bool at_start : {false, true}) {
        SCOPED_TRACE(at_start ? "movie at the start" : "movie at the end");
        Scenario sc = [&](const Arm &arm) -> uint32_t {
            int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
            mp4_muxer *m = mp4_writer_create();
            mp4_file_descriptor(m, fd);
            if (at_start)
                mp4_set_moov_mode(m, 32768, 90000);
            uint32_t code = recordInto(m, arm, 30, true);
            close(fd);
            return code;
        };
        Tally t = failEachAllocation(sc, [&] { return fileDigest(path); });
        expectOnlyDocumentedOutcomes(t);
    }
}

TEST(AllocationFailure, LoadingAndPlaying) {
    const std::string path = test_util::dataPath("h264_aac.mp4");
    Scenario sc = [&](const Arm &arm) -> uint32_t {
        int fd = open(path.c_str(), O_RDONLY);
        arm();
        mp4_muxer *m = mp4_reader_create();
        if (!m) {
            close(fd);
            return MP4_ERR_NOMEM;
        }
        mp4_file_descriptor(m, fd);
        for (int i = 0; i < 1000 && mp4_play(m) == 0; i++) {
        }
        for (int i = 0; i < 1000 && mp4_play_reverse(m) == 0; i++) {
        }
        if (mp4_seek(m, 90000) == 0)
            mp4_play(m);
        mp4_get_fourcc(m, 1);
        mp4_get_timescale(m, 2);
        mp4_get_samplerate(m, 2);
        uint32_t code = mp4_get_error_code(m);
        mp4_delete(m);
        close(fd);
        return code;
    };
    Tally t = failEachAllocation(sc);
    expectOnlyDocumentedOutcomes(t);
}

TEST(AllocationFailure, ReadingAFragmentedStream) {
    Bytes frag = test_util::readFile(test_util::dataPath("frag.mp4"));
    Scenario sc = [&](const Arm &arm) -> uint32_t {
        arm();
        mp4_muxer *m = mp4_reader_create();
        if (!m)
            return MP4_ERR_NOMEM;
        mp4_buf_put(m, frag.data(), uint32_t(frag.size()));
        for (int i = 0; i < 1000; i++) {
            uint8_t *payload = nullptr;
            uint32_t length = 0;
            mp4_get_mdat(m, &payload, &length);
            if (!payload)
                break;
            mp4_get_timestamp(m, 1);
        }
        mp4_buf_get(m);
        uint32_t code = mp4_get_error_code(m);
        mp4_delete(m);
        return code;
    };
    Tally t = failEachAllocation(sc);
    expectOnlyDocumentedOutcomes(t);
}

TEST(AllocationFailure, Defragmenting) {
    TempDir dir;
    const std::string out = dir.file("plain.mp4");
    Bytes frag = fragmentedStream();
    ASSERT_GT(frag.size(), 20000u);
    Scenario sc = [&](const Arm &arm) -> uint32_t {
        arm();
        mp4_muxer *m = mp4_remuxer_create();
        if (!m)
            return MP4_ERR_NOMEM;
        mp4_file_name_ascii(m, out.c_str());
        size_t offset = 0;
        uint32_t piece = 4096;
        for (int round = 0; offset < frag.size() && round < 100; round++) {
            uint32_t len = uint32_t(std::min<size_t>(piece, frag.size() - offset));
            mp4_buf_put(m, frag.data() + offset, len);
            mp4_remux(m);
            uint32_t used = mp4_buf_get(m);
            if (used == 0) {
                if (len == frag.size() - offset)
                    break;
                piece *= 2;
            }
            offset += used;
        }
        mp4_write_movie(m);
        uint32_t code = mp4_get_error_code(m);
        mp4_delete(m);
        return code;
    };
    Tally t = failEachAllocation(sc, [&] { return fileDigest(out); });
    expectOnlyDocumentedOutcomes(t);
}

TEST(AllocationFailure, Refragmenting) {
    const std::string path = test_util::dataPath("h264_aac.mp4");
    Bytes out(1 << 20), produced;
    auto digestProduced = [&] {
        return std::to_string(produced.size()) + ":" +
               std::to_string(
                   std::hash<std::string>()(std::string(produced.begin(), produced.end())));
    };
    Scenario sc = [&](const Arm &arm) -> uint32_t {
        FILE *in = fopen(path.c_str(), "rb");
        arm();
        mp4_muxer *m = mp4_refrag_create();
        if (!m) {
            fclose(in);
            return MP4_ERR_NOMEM;
        }
        mp4_file_pointer(m, in);
        produced.clear();
        // The movie, the first samples and their fragment: every kind of allocation, few times.
        for (int i = 0; i < 12; i++) {
            mp4_buf_put(m, out.data(), uint32_t(out.size()));
            mp4_remux(m);
            uint32_t n = mp4_buf_get(m);
            produced.insert(produced.end(), out.begin(), out.begin() + n);
            if (n == 0 && i > 0)
                break;
        }
        mp4_buf_put(m, out.data(), uint32_t(out.size()));
        mp4_write_frag_header(m);
        uint32_t n = mp4_buf_get(m);
        produced.insert(produced.end(), out.begin(), out.begin() + n);
        uint32_t code = mp4_get_error_code(m);
        mp4_delete(m);
        fclose(in);
        return code;
    };
    Tally t = failEachAllocation(sc, digestProduced);
    expectOnlyDocumentedOutcomes(t);
}

// The movie kept at the start is measured by coding it; checkBoxSize's prediction leaves the
// subtitle entry out. When the handle used for measuring cannot be allocated, no reservation
// may be made (nor an update written) on the prediction: with a region one byte too small for
// the real movie, a guess would fit, and the movie written there would overrun the region.
TEST(AllocationFailure, AMovieThatCannotBeMeasuredIsNotWrittenOnAGuess) {
    auto tracks = [](mp4_muxer *m) {
        createTracks(m);
        mp4_subtitle_track_create(m, MP4_FOURCC('m', 'p', '4', 's'), "Subtitles", 90000, 3600, 0,
                                  128, 96, nullptr);
    };
    uint64_t coded = 0, predicted = 0;
    {
        mp4_muxer *m = mp4_writer_create();
        tracks(m);
        create_moov(m);
        mp4_muxer *probe = mp4_writer_create(); // no output: coding only moves the position
        rwBox(probe, m->moov);
        coded = probe->pos;
        predicted = checkBoxSize(m->moov);
        mp4_delete(probe);
        mp4_delete(m);
    }
    ASSERT_GT(coded, predicted + 9) << "the prediction must fit where the movie does not";
    TempDir dir;
    const std::string path = dir.file("tight.mp4");
    Tally t = failEachAllocation(
        [&](const Arm &arm) -> uint32_t {
            int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
            mp4_muxer *m = mp4_writer_create();
            mp4_file_descriptor(m, fd);
            mp4_set_moov_mode(m, uint32_t(coded - 1), 90000);
            tracks(m);
            arm();
            streams().record(m, 4);
            mp4_write_movie(m);
            uint32_t code = mp4_get_error_code(m);
            mp4_delete(m);
            close(fd);
            return code;
        },
        [&] { return fileDigest(path); }, MP4_ERR_OVERFLOW);
    expectOnlyDocumentedOutcomes(t);
}

} // namespace
