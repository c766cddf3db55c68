// Benchmarks of the hot paths: per-sample writing (no back-end, file, interleaved, header at
// start, fragments, size limit), the writer's cost per sample at minute k of a recording,
// finishing a one-hour movie, and reading it back (load, play forwards and backwards, seeks,
// both remuxers).
//
// Every suite reports items_per_second (samples, or seeks for the seek suite), per_sample (its
// inverse: seconds per sample, printed with an SI prefix) and, where bytes move, bytes_per_second.
// Rates are taken over CPU time, so that other processes on the machine disturb them less.
#include <mp4kit/mp4.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr uint32_t kVideoTicks = 3000; // 30 fps at 90 kHz
constexpr uint32_t kAudioTicks = 1024; // AAC frame at 48 kHz
constexpr uint32_t kVideoPerHour = 108000;
constexpr uint32_t kAudioPerHour = 168750;
constexpr uint64_t kSamplesPerHour = kVideoPerHour + kAudioPerHour;

// A 4-byte start code and an H.264 slice NAL; every 30th is an IDR.
std::vector<uint8_t> h264_sample(uint32_t size, bool idr) {
    std::vector<uint8_t> s(size, 0x5A);
    s[0] = s[1] = s[2] = 0;
    s[3] = 1;
    s[4] = idr ? 0x65 : 0x41;
    return s;
}

// A raw AAC frame behind a 7-byte ADTS header (protection absent).
std::vector<uint8_t> adts_sample(uint32_t payload) {
    uint32_t len = payload + 7;
    std::vector<uint8_t> s(len, 0x21);
    s[0] = 0xFF;
    s[1] = 0xF1;
    s[2] = 0x4C; // AAC LC, 48 kHz
    s[3] = uint8_t(0x80 | (len >> 11));
    s[4] = uint8_t(len >> 3);
    s[5] = uint8_t((len << 5) | 0x1F);
    s[6] = 0xFC;
    return s;
}

const std::vector<uint8_t> kIdr = h264_sample(4000, true);
const std::vector<uint8_t> kSlice = h264_sample(1500, false);
const std::vector<uint8_t> kAac = adts_sample(300);
const uint8_t kParams[] = {0,    0, 0, 1, 0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x02,
                           0x80, 0, 0, 0, 1,    0x68, 0xCE, 0x3C, 0x80};

std::string temp_path(const char *name) {
    const char *dir = getenv("TMPDIR");
    return std::string(dir ? dir : "/tmp") + "/mp4kit_bench_" + std::to_string(getpid()) + "_" +
           name;
}

// Standard output sent to /dev/null while alive: the header-at-start estimate prints its
// figures, which would land in the middle of the benchmark table.
class Quiet {
  public:
    Quiet() {
        fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        int null = open("/dev/null", O_WRONLY);
        if (null >= 0) {
            dup2(null, STDOUT_FILENO);
            close(null);
        }
    }
    ~Quiet() {
        fflush(stdout);
        if (saved_ >= 0) {
            dup2(saved_, STDOUT_FILENO);
            close(saved_);
        }
    }

  private:
    int saved_;
};

// A 30 fps H.264 + 48 kHz AAC recording, delivered in time order as an encoder would.
struct Recorder {
    mp4_muxer *m;
    uint32_t video, audio;
    uint64_t vtime = 0, atime = 0, n = 0, samples = 0;
    // Fragment mode: a fragment header after every `frag_every` video samples, the caller's
    // buffer handed back and given again each time.
    uint32_t frag_every = 0;
    std::vector<uint8_t> frag_buffer;

    explicit Recorder(mp4_muxer *mux) : m(mux) {
        video = mp4_video_track_create(m, MP4_FOURCC('a', 'v', 'c', '1'), 90000, kVideoTicks, 0,
                                       320, 240, 66, 30);
        audio = mp4_audio_track_create(m, MP4_FOURCC('m', 'p', '4', 'a'), 48000, kAudioTicks, 0,
                                       48000, 2);
        mp4_set_parameter_data(m, kParams, sizeof kParams);
    }
    Recorder(const Recorder &) = delete;
    Recorder &operator=(const Recorder &) = delete;

    void fragmented(uint32_t every) {
        frag_every = every;
        frag_buffer.resize(4 << 20);
        mp4_buf_put(m, frag_buffer.data(), uint32_t(frag_buffer.size()));
        mp4_write_movie(m); // the fragmented movie header
        recycle();
    }
    void recycle() {
        mp4_buf_get(m);
        mp4_buf_put(m, frag_buffer.data(), uint32_t(frag_buffer.size()));
    }

    // One sample, audio or video, whichever is due (audio time converted to 90 kHz).
    // Returns the bytes handed to the writer.
    uint32_t step() {
        samples++;
        if (atime * 90000 / 48000 <= vtime) {
            mp4_write_track(m, audio, kAac.data(), uint32_t(kAac.size()), kAudioTicks);
            atime += kAudioTicks;
            return uint32_t(kAac.size());
        }
        const auto &s = (n++ % 30 == 0) ? kIdr : kSlice;
        mp4_write_track(m, video, s.data(), uint32_t(s.size()), kVideoTicks);
        vtime += kVideoTicks;
        if (frag_every && n % frag_every == 0) {
            mp4_write_frag_header(m);
            recycle();
        }
        return uint32_t(s.size());
    }

    bool hour_done() const {
        return n >= kVideoPerHour && atime >= uint64_t(kAudioPerHour) * kAudioTicks;
    }
};

// items_per_second and bytes_per_second, and per_sample: seconds per item.
void report(benchmark::State &state, uint64_t items, uint64_t bytes) {
    state.SetItemsProcessed(int64_t(items));
    if (bytes)
        state.SetBytesProcessed(int64_t(bytes));
    state.counters["per_sample"] = benchmark::Counter(
        double(items), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// One iteration is one sample. The recording starts anew (outside the timing) after every hour
// of samples, so that every suite measures the first hour of a recording however many
// iterations the library decides to run, and a reservation sized for an hour holds.
template <class Open, class Close>
void write_samples(benchmark::State &state, Open open, Close close) {
    std::unique_ptr<Recorder> r = open();
    uint64_t samples = 0, bytes = 0;
    for (auto _ : state) {
        if (r->samples == kSamplesPerHour) {
            state.PauseTiming();
            close(*r);
            r = open();
            state.ResumeTiming();
        }
        bytes += r->step();
        samples++;
    }
    close(*r);
    report(state, samples, bytes);
}

void delete_recording(Recorder &r) {
    mp4_delete(r.m);
}

// The library's own per-sample cost: no back-end, the writer only advances its position.
void BM_WriteTrack_NoBackend(benchmark::State &state) {
    write_samples(
        state, [] { return std::make_unique<Recorder>(mp4_writer_create()); }, delete_recording);
}
BENCHMARK(BM_WriteTrack_NoBackend);

// Into a file the library opens by name (its own stdio stream); the finish is not timed.
void BM_WriteTrack_File(benchmark::State &state) {
    const std::string path = temp_path("file.mp4");
    write_samples(
        state,
        [&] {
            mp4_muxer *m = mp4_writer_create();
            mp4_file_name_ascii(m, path.c_str());
            return std::make_unique<Recorder>(m);
        },
        [](Recorder &r) {
            mp4_write_movie(r.m);
            mp4_delete(r.m);
        });
    unlink(path.c_str());
}
BENCHMARK(BM_WriteTrack_File);

// Audio held back and written once per second of audio; no back-end.
void BM_WriteTrack_Interleaved(benchmark::State &state) {
    write_samples(
        state,
        [] {
            mp4_muxer *m = mp4_writer_create();
            mp4_interleave_duration(m, 48000);
            return std::make_unique<Recorder>(m);
        },
        delete_recording);
}
BENCHMARK(BM_WriteTrack_Interleaved);

// Movie header reserved for 60 minutes at the start of a file and rewritten every 10 s of
// video: the updates' cost is spread over the samples, and grows with the movie.
void BM_WriteTrack_MoovAtStart10s(benchmark::State &state) {
    const std::string path = temp_path("start.mp4");
    write_samples(
        state,
        [&] {
            Quiet quiet;
            mp4_muxer *m = mp4_writer_create();
            mp4_file_name_ascii(m, path.c_str());
            mp4_set_moov_max_duration(m, 60, 10);
            auto r = std::make_unique<Recorder>(m);
            r->step(); // the reservation is made (and its estimate printed) at the first sample
            return r;
        },
        [](Recorder &r) {
            if (mp4_get_error_code(r.m))
                fprintf(stderr, "MoovAtStart10s: error %u\n", mp4_get_error_code(r.m));
            mp4_delete(r.m);
        });
    unlink(path.c_str());
}
BENCHMARK(BM_WriteTrack_MoovAtStart10s);

// Fragment mode: a fragment header every 30 video samples, the buffer recycled each time.
void BM_WriteTrack_Fragments(benchmark::State &state) {
    write_samples(
        state,
        [] {
            auto r = std::make_unique<Recorder>(mp4_writer_create());
            r->fragmented(30);
            return r;
        },
        [](Recorder &r) {
            mp4_buf_get(r.m);
            mp4_delete(r.m);
        });
}
BENCHMARK(BM_WriteTrack_Fragments);

// A file size limit far away: every sample is checked against it; no back-end.
void BM_WriteTrack_SizeLimit(benchmark::State &state) {
    write_samples(
        state,
        [] {
            mp4_muxer *m = mp4_writer_create();
            mp4_max_file_size(m, uint64_t(1) << 40);
            return std::make_unique<Recorder>(m);
        },
        delete_recording);
}
BENCHMARK(BM_WriteTrack_SizeLimit);

// Cost per sample in minute k of a recording (no back-end): flat if nothing grows with the
// recording's length beyond amortised table doubling. Each iteration records k - 1 minutes
// untimed and times the k-th.
void BM_WriteTrack_Minute(benchmark::State &state) {
    const uint64_t minute = uint64_t(state.range(0));
    const uint64_t per_minute = kSamplesPerHour / 60;
    uint64_t samples = 0, bytes = 0;
    for (auto _ : state) {
        state.PauseTiming();
        mp4_muxer *m = mp4_writer_create();
        Recorder r(m);
        for (uint64_t i = 0; i < (minute - 1) * per_minute; i++)
            r.step();
        state.ResumeTiming();
        for (uint64_t i = 0; i < per_minute; i++)
            bytes += r.step();
        state.PauseTiming();
        mp4_delete(m);
        state.ResumeTiming();
        samples += per_minute;
    }
    report(state, samples, bytes);
}
BENCHMARK(BM_WriteTrack_Minute)
    ->Arg(1)
    ->Arg(15)
    ->Arg(30)
    ->Arg(45)
    ->Arg(47) // the audio tables pass 2^17 entries and double here
    ->Arg(60)
    ->Iterations(40)
    ->Unit(benchmark::kMillisecond);

// One hour at 30 fps with AAC into `m`.
void record_hour(mp4_muxer *m) {
    Recorder r(m);
    while (!r.hour_done())
        r.step();
}

// mp4_write_movie after one hour into a file: per_sample is the finish's cost per sample of the
// movie, bytes_per_second counts the movie box written. (With no back-end the finish would only
// move the position past the tables, which measures nothing.) The hour is recorded untimed.
void BM_WriteMovie_OneHour(benchmark::State &state) {
    const std::string path = temp_path("finish.mp4");
    for (auto _ : state) {
        state.PauseTiming();
        mp4_muxer *m = mp4_writer_create();
        mp4_file_name_ascii(m, path.c_str());
        record_hour(m);
        state.ResumeTiming();
        mp4_write_movie(m);
        state.PauseTiming();
        mp4_delete(m);
        state.ResumeTiming();
    }
    // The movie's size, from the last file written.
    uint64_t moov = 0;
    FILE *f = fopen(path.c_str(), "rb");
    for (uint64_t at = 0; f && !moov;) {
        uint8_t h[16];
        if (fseeko(f, off_t(at), SEEK_SET) != 0 || fread(h, 1, 16, f) < 8)
            break;
        uint64_t size = uint64_t(h[0]) << 24 | uint64_t(h[1]) << 16 | uint64_t(h[2]) << 8 | h[3];
        if (size == 1)
            for (int i = 8; i < 16; i++)
                size = (i == 8 ? 0 : size << 8) | h[i];
        if (memcmp(h + 4, "moov", 4) == 0)
            moov = size;
        if (size < 8)
            break;
        at += size;
    }
    if (f)
        fclose(f);
    unlink(path.c_str());
    report(state, kSamplesPerHour * state.iterations(), moov * state.iterations());
}
BENCHMARK(BM_WriteMovie_OneHour)->Iterations(10)->Unit(benchmark::kMillisecond);

// ---- reading ---------------------------------------------------------------------------------

bool hour_file_made = false;

const std::string &hour_file() {
    static std::string path = [] {
        hour_file_made = true;
        std::string p = temp_path("hour.mp4");
        mp4_muxer *m = mp4_writer_create();
        mp4_file_name_ascii(m, p.c_str());
        record_hour(m);
        mp4_write_movie(m);
        mp4_delete(m);
        return p;
    }();
    return path;
}

uint64_t file_size(const std::string &path) {
    FILE *f = fopen(path.c_str(), "rb");
    if (!f)
        return 0;
    fseeko(f, 0, SEEK_END);
    uint64_t n = uint64_t(ftello(f));
    fclose(f);
    return n;
}

struct Played {
    uint64_t samples = 0, bytes = 0;
};

int count_sample(void *opaque, uint32_t, uint64_t, uint64_t, uint32_t size, uint32_t) {
    auto *p = static_cast<Played *>(opaque);
    p->samples++;
    p->bytes += size;
    return 0;
}

mp4_muxer *open_hour(Played *played) {
    mp4_muxer *m = mp4_reader_create();
    mp4_file_name_ascii(m, hour_file().c_str());
    mp4_play_mixed_timescales(m, 1); // 90 kHz video, 48 kHz audio
    mp4_set_sample_callback(m, count_sample, played);
    return m;
}

// Opening the file and loading its movie (the tables of an hour); per_sample over the samples
// the movie describes, bytes_per_second over the file.
void BM_Read_Load(benchmark::State &state) {
    hour_file(); // made before the timing starts
    Played played;
    for (auto _ : state) {
        mp4_muxer *m = open_hour(&played);
        benchmark::DoNotOptimize(mp4_seek(m, 0)); // loads the movie
        mp4_delete(m);
    }
    report(state, kSamplesPerHour * state.iterations(),
           file_size(hour_file()) * state.iterations());
}
BENCHMARK(BM_Read_Load)->Unit(benchmark::kMillisecond);

// Every sample of the hour reported in order (the load included); bytes are the samples' sizes.
void BM_Read_PlayForward(benchmark::State &state) {
    hour_file();
    Played played;
    for (auto _ : state) {
        mp4_muxer *m = open_hour(&played);
        while (mp4_play(m) == 0) {
        }
        mp4_delete(m);
    }
    if (played.samples != kSamplesPerHour * state.iterations())
        state.SkipWithError("not every sample was played");
    report(state, played.samples, played.bytes);
}
BENCHMARK(BM_Read_PlayForward)->Unit(benchmark::kMillisecond);

// Every sample from the end back to the start; the load and the way to the end are not timed.
void BM_Read_PlayReverse(benchmark::State &state) {
    hour_file();
    Played skipped, played;
    for (auto _ : state) {
        state.PauseTiming();
        mp4_muxer *m = open_hour(&skipped);
        while (mp4_play(m) == 0) {
        }
        mp4_set_sample_callback(m, count_sample, &played);
        state.ResumeTiming();
        while (mp4_play_reverse(m) == 0) {
        }
        state.PauseTiming();
        mp4_delete(m);
        state.ResumeTiming();
    }
    if (played.samples != kSamplesPerHour * state.iterations())
        state.SkipWithError("not every sample was played");
    report(state, played.samples, played.bytes);
}
BENCHMARK(BM_Read_PlayReverse)->Unit(benchmark::kMillisecond);

// 1000 seeks spread over the hour on a loaded movie; items (and per_sample) count seeks.
void BM_Read_Seek1000(benchmark::State &state) {
    Played played;
    mp4_muxer *m = open_hour(&played);
    mp4_seek(m, 0);
    const uint64_t hour = uint64_t(kVideoPerHour) * kVideoTicks;
    for (auto _ : state) {
        for (uint64_t i = 0; i < 1000; i++)
            benchmark::DoNotOptimize(mp4_seek(m, (i * 7919 * kVideoTicks) % hour));
    }
    report(state, state.iterations() * 1000, 0);
    mp4_delete(m);
}
BENCHMARK(BM_Read_Seek1000)->Unit(benchmark::kMillisecond);

// ---- remuxing --------------------------------------------------------------------------------

uint32_t be32(const uint8_t *p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

// Plain to fragmented through the refragmenting remuxer, into a recycled memory buffer; as
// `mp4kit fragment` does it. Returns the bytes produced.
uint64_t refragment(const std::string &in, FILE *out) {
    mp4_muxer *m = mp4_refrag_create();
    mp4_file_name_ascii(m, in.c_str());
    std::vector<uint8_t> buffer(1 << 20);
    uint64_t total = 0;
    bool open = false; // samples written since the last fragment header
    auto emit = [&](uint32_t n) {
        for (uint32_t at = 0; at + 8 <= n;) {
            uint32_t size = be32(buffer.data() + at), type = be32(buffer.data() + at + 4);
            if (type == MP4_FOURCC('m', 'd', 'a', 't'))
                open = true;
            else if (type == MP4_FOURCC('m', 'o', 'o', 'f'))
                open = false;
            if (size < 8)
                break;
            at += size;
        }
        if (out)
            fwrite(buffer.data(), 1, n, out);
        total += n;
    };
    for (;;) {
        mp4_buf_put(m, buffer.data(), uint32_t(buffer.size()));
        mp4_remux(m);
        uint32_t n = mp4_buf_get(m);
        if (n == 0 || mp4_get_error_code(m))
            break;
        emit(n);
    }
    if (open) {
        mp4_buf_put(m, buffer.data(), uint32_t(buffer.size()));
        mp4_write_frag_header(m);
        emit(mp4_buf_get(m));
    }
    mp4_delete(m);
    return total;
}

void BM_Refragment_OneHour(benchmark::State &state) {
    const std::string &path = hour_file();
    uint64_t bytes = 0;
    for (auto _ : state)
        bytes += refragment(path, nullptr);
    report(state, kSamplesPerHour * state.iterations(), bytes);
}
BENCHMARK(BM_Refragment_OneHour)->Unit(benchmark::kMillisecond);

const std::string &fragmented_hour_file() {
    static std::string path = [] {
        std::string p = temp_path("hour_frag.mp4");
        FILE *f = fopen(p.c_str(), "wb");
        refragment(hour_file(), f);
        fclose(f);
        return p;
    }();
    return path;
}

// Fragmented to plain into a file, the input handed over in runs of whole top-level boxes of
// about 1 MiB, as a stream would arrive (as `mp4kit defragment` does it).
void BM_Defragment_OneHour(benchmark::State &state) {
    std::vector<uint8_t> input(file_size(fragmented_hour_file()));
    {
        FILE *f = fopen(fragmented_hour_file().c_str(), "rb");
        if (!f || fread(input.data(), 1, input.size(), f) != input.size())
            state.SkipWithError("cannot read the fragmented file");
        if (f)
            fclose(f);
    }
    const std::string out = temp_path("hour_defrag.mp4");
    for (auto _ : state) {
        mp4_muxer *m = mp4_remuxer_create();
        mp4_file_name_ascii(m, out.c_str());
        size_t offset = 0;
        while (offset < input.size()) {
            // Whole boxes up to 1 MiB, or the one box that is larger.
            size_t end = offset;
            while (end + 8 <= input.size()) {
                uint64_t size = be32(input.data() + end);
                if (size == 1 && end + 16 <= input.size())
                    size = uint64_t(be32(input.data() + end + 8)) << 32 |
                           be32(input.data() + end + 12);
                if (size < 8 || size > input.size() - end)
                    break;
                if (end > offset && end + size - offset > (1u << 20))
                    break;
                end += size;
            }
            if (end == offset)
                break; // a broken box: not expected from our own output
            mp4_buf_put(m, input.data() + offset, uint32_t(end - offset));
            mp4_remux(m);
            uint32_t used = mp4_buf_get(m);
            if (used == 0 || mp4_get_error_code(m)) {
                state.SkipWithError("the remuxer stopped consuming its input");
                break;
            }
            offset += used;
        }
        mp4_write_movie(m);
        mp4_delete(m);
    }
    report(state, kSamplesPerHour * state.iterations(), input.size() * state.iterations());
    unlink(out.c_str());
}
BENCHMARK(BM_Defragment_OneHour)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (hour_file_made)
        unlink(hour_file().c_str());
    unlink(temp_path("hour_frag.mp4").c_str());
    return 0;
}
