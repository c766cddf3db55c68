// Benchmarks of the hot paths: per-sample writing (no back-end, file, interleaved, header at
// start, fragments), finishing a one-hour movie, and reading it back (load, play, seek, remux).
#include <mp4kit/mp4.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr uint32_t kVideoTicks = 3000;   // 30 fps at 90 kHz
constexpr uint32_t kAudioTicks = 1024;   // AAC frame at 48 kHz
constexpr uint32_t kVideoPerHour = 108000;
constexpr uint32_t kAudioPerHour = 168750;

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
const uint8_t kParams[] = {0, 0, 0, 1, 0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x02, 0x80,
                           0, 0, 0, 1, 0x68, 0xCE, 0x3C, 0x80};

struct Recorder {
    mp4_muxer *m;
    uint32_t video, audio;
    uint64_t vtime = 0, atime = 0, n = 0;
    explicit Recorder(mp4_muxer *mux) : m(mux) {
        video = mp4_video_track_create(m, MP4_FOURCC('a', 'v', 'c', '1'), 90000, kVideoTicks, 0,
                                       320, 240, 66, 30);
        audio = mp4_audio_track_create(m, MP4_FOURCC('m', 'p', '4', 'a'), 48000, kAudioTicks, 0,
                                       48000, 2);
        mp4_set_parameter_data(m, kParams, sizeof kParams);
    }
    // One sample, audio or video, whichever is due (audio time converted to 90 kHz).
    // Returns its size.
    uint32_t step() {
        if (atime * 90000 / 48000 <= vtime) {
            mp4_write_track(m, audio, kAac.data(), uint32_t(kAac.size()), kAudioTicks);
            atime += kAudioTicks;
            return uint32_t(kAac.size());
        }
        const auto &s = (n++ % 30 == 0) ? kIdr : kSlice;
        mp4_write_track(m, video, s.data(), uint32_t(s.size()), kVideoTicks);
        vtime += kVideoTicks;
        return uint32_t(s.size());
    }
};

std::string temp_path(const char *name) {
    const char *dir = getenv("TMPDIR");
    return std::string(dir ? dir : "/tmp") + "/mp4kit_bench_" + std::to_string(getpid()) + "_" + name;
}

void report(benchmark::State &state, uint64_t bytes) {
    state.SetItemsProcessed(int64_t(state.iterations()));
    state.SetBytesProcessed(int64_t(bytes));
}

// The library's own per-sample cost: no back-end, the writer only advances its position.
void BM_WriteTrack_NoBackend(benchmark::State &state) {
    mp4_muxer *m = mp4_writer_create();
    Recorder r(m);
    uint64_t bytes = 0;
    for (auto _ : state)
        bytes += r.step();
    report(state, bytes);
    mp4_delete(m);
}
BENCHMARK(BM_WriteTrack_NoBackend);

void BM_WriteTrack_File(benchmark::State &state) {
    std::string path = temp_path("file.mp4");
    mp4_muxer *m = mp4_writer_create();
    mp4_file_name_ascii(m, path.c_str());
    Recorder r(m);
    uint64_t bytes = 0;
    for (auto _ : state)
        bytes += r.step();
    report(state, bytes);
    mp4_write_movie(m);
    mp4_delete(m);
    unlink(path.c_str());
}
BENCHMARK(BM_WriteTrack_File);

void BM_WriteTrack_Interleaved(benchmark::State &state) {
    mp4_muxer *m = mp4_writer_create();
    mp4_interleave_duration(m, 48000);
    Recorder r(m);
    uint64_t bytes = 0;
    for (auto _ : state)
        bytes += r.step();
    report(state, bytes);
    mp4_delete(m);
}
BENCHMARK(BM_WriteTrack_Interleaved);

void BM_WriteTrack_MoovAtStart10s(benchmark::State &state) {
    std::string path = temp_path("start.mp4");
    mp4_muxer *m = mp4_writer_create();
    mp4_file_name_ascii(m, path.c_str());
    (void)!freopen("/dev/null", "w", stdout); // the estimate prints its figures
    mp4_set_moov_max_duration(m, 60, 10);
    Recorder r(m);
    uint64_t bytes = 0;
    for (auto _ : state)
        bytes += r.step();
    report(state, bytes);
    mp4_delete(m);
    unlink(path.c_str());
}
BENCHMARK(BM_WriteTrack_MoovAtStart10s);

// Fragment mode: a fragment header every 30 video samples, the buffer recycled each time.
void BM_WriteTrack_Fragments(benchmark::State &state) {
    mp4_muxer *m = mp4_writer_create();
    Recorder r(m);
    std::vector<uint8_t> buffer(4 << 20);
    mp4_buf_put(m, buffer.data(), uint32_t(buffer.size()));
    mp4_write_movie(m);
    uint64_t bytes = 0, last_video = 0;
    for (auto _ : state) {
        bytes += r.step();
        if (r.n != last_video && r.n % 30 == 0) {
            last_video = r.n;
            mp4_write_frag_header(m);
            mp4_buf_get(m);
            mp4_buf_put(m, buffer.data(), uint32_t(buffer.size()));
        }
    }
    report(state, bytes);
    mp4_buf_get(m);
    mp4_delete(m);
}
BENCHMARK(BM_WriteTrack_Fragments);

// Cost per sample in minute k of a recording: flat if nothing grows with the recording's length
// beyond amortised table doubling.
void BM_WriteTrack_Minute(benchmark::State &state) {
    const uint64_t minute = uint64_t(state.range(0));
    const uint64_t per_minute = (kVideoPerHour + kAudioPerHour) / 60;
    uint64_t samples = 0;
    for (auto _ : state) {
        state.PauseTiming();
        mp4_muxer *m = mp4_writer_create();
        Recorder r(m);
        for (uint64_t i = 0; i < (minute - 1) * per_minute; i++)
            r.step();
        state.ResumeTiming();
        for (uint64_t i = 0; i < per_minute; i++)
            r.step();
        state.PauseTiming();
        mp4_delete(m);
        state.ResumeTiming();
        samples += per_minute;
    }
    // Seconds per sample of the timed minute (printed with an SI prefix, e.g. 40n).
    state.counters["per_sample"] =
        benchmark::Counter(double(samples), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_WriteTrack_Minute)->Arg(1)->Arg(60)->Unit(benchmark::kMillisecond);

// One hour at 30 fps with AAC, recorded into `path` (or nowhere).
void record_hour(mp4_muxer *m) {
    Recorder r(m);
    while (r.n < kVideoPerHour || r.atime < uint64_t(kAudioPerHour) * kAudioTicks)
        r.step();
}

void BM_WriteMovie_OneHour(benchmark::State &state) {
    for (auto _ : state) {
        state.PauseTiming();
        mp4_muxer *m = mp4_writer_create();
        record_hour(m);
        state.ResumeTiming();
        mp4_write_movie(m);
        state.PauseTiming();
        mp4_delete(m);
        state.ResumeTiming();
    }
}
BENCHMARK(BM_WriteMovie_OneHour)->Unit(benchmark::kMillisecond);

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

int count_sample(uint64_t, uint64_t, uint32_t, uint32_t) { return 0; }

void BM_Read_Load(benchmark::State &state) {
    const std::string &path = hour_file();
    for (auto _ : state) {
        mp4_muxer *m = mp4_reader_create();
        mp4_file_name_ascii(m, path.c_str());
        mp4_set_callback(m, count_sample);
        benchmark::DoNotOptimize(mp4_seek(m, 0)); // loads the movie
        mp4_delete(m);
    }
}
BENCHMARK(BM_Read_Load)->Unit(benchmark::kMillisecond);

void BM_Read_PlayForward(benchmark::State &state) {
    const std::string &path = hour_file();
    uint64_t calls = 0;
    for (auto _ : state) {
        mp4_muxer *m = mp4_reader_create();
        mp4_file_name_ascii(m, path.c_str());
        mp4_set_callback(m, count_sample);
        while (mp4_play(m) == 0)
            calls++;
        mp4_delete(m);
    }
    state.SetItemsProcessed(int64_t(calls));
}
BENCHMARK(BM_Read_PlayForward)->Unit(benchmark::kMillisecond);

void BM_Read_PlayReverse(benchmark::State &state) {
    const std::string &path = hour_file();
    uint64_t calls = 0;
    for (auto _ : state) {
        state.PauseTiming();
        mp4_muxer *m = mp4_reader_create();
        mp4_file_name_ascii(m, path.c_str());
        mp4_set_callback(m, count_sample);
        mp4_seek(m, ~uint64_t(0) >> 1); // to the end
        while (mp4_play(m) == 0) {
        }
        state.ResumeTiming();
        while (mp4_play_reverse(m) == 0)
            calls++;
        state.PauseTiming();
        mp4_delete(m);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(int64_t(calls));
}
BENCHMARK(BM_Read_PlayReverse)->Unit(benchmark::kMillisecond);

void BM_Read_Seek1000(benchmark::State &state) {
    const std::string &path = hour_file();
    mp4_muxer *m = mp4_reader_create();
    mp4_file_name_ascii(m, path.c_str());
    mp4_set_callback(m, count_sample);
    mp4_seek(m, 0);
    const uint64_t hour = uint64_t(kVideoPerHour) * kVideoTicks;
    for (auto _ : state) {
        for (uint64_t i = 0; i < 1000; i++)
            benchmark::DoNotOptimize(mp4_seek(m, (i * 7919 * kVideoTicks) % hour));
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * 1000);
    mp4_delete(m);
}
BENCHMARK(BM_Read_Seek1000)->Unit(benchmark::kMillisecond);

// Plain to fragmented through the refragmenting remuxer, into a recycled memory buffer.
uint64_t refragment(const std::string &in, FILE *out) {
    mp4_muxer *m = mp4_refrag_create();
    mp4_file_name_ascii(m, in.c_str());
    std::vector<uint8_t> buffer(1 << 20);
    uint64_t total = 0;
    for (;;) {
        mp4_buf_put(m, buffer.data(), uint32_t(buffer.size()));
        mp4_remux(m);
        uint32_t n = mp4_buf_get(m);
        if (n == 0)
            break;
        if (out)
            fwrite(buffer.data(), 1, n, out);
        total += n;
    }
    mp4_buf_put(m, buffer.data(), uint32_t(buffer.size()));
    mp4_write_frag_header(m);
    uint32_t n = mp4_buf_get(m);
    if (out)
        fwrite(buffer.data(), 1, n, out);
    mp4_delete(m);
    return total + n;
}

void BM_Refragment_OneHour(benchmark::State &state) {
    const std::string &path = hour_file();
    uint64_t bytes = 0;
    for (auto _ : state)
        bytes += refragment(path, nullptr);
    state.SetBytesProcessed(int64_t(bytes));
}
BENCHMARK(BM_Refragment_OneHour)->Unit(benchmark::kMillisecond);

void BM_Defragment_OneHour(benchmark::State &state) {
    static std::string frag = [] {
        std::string p = temp_path("hour_frag.mp4");
        FILE *f = fopen(p.c_str(), "wb");
        refragment(hour_file(), f);
        fclose(f);
        return p;
    }();
    std::vector<uint8_t> input;
    {
        FILE *f = fopen(frag.c_str(), "rb");
        fseek(f, 0, SEEK_END);
        input.resize(size_t(ftell(f)));
        fseek(f, 0, SEEK_SET);
        if (fread(input.data(), 1, input.size(), f) != input.size())
            state.SkipWithError("cannot read the fragmented file");
        fclose(f);
    }
    std::string out = temp_path("hour_defrag.mp4");
    for (auto _ : state) {
        mp4_muxer *m = mp4_remuxer_create();
        mp4_file_name_ascii(m, out.c_str());
        size_t offset = 0;
        uint32_t piece = 1 << 20;
        while (offset < input.size()) {
            uint32_t len = uint32_t(std::min<size_t>(piece, input.size() - offset));
            mp4_buf_put(m, input.data() + offset, len);
            mp4_remux(m);
            uint32_t used = mp4_buf_get(m);
            if (used == 0) {
                if (len == input.size() - offset)
                    break;
                piece *= 2;
            }
            offset += used;
        }
        mp4_write_movie(m);
        mp4_delete(m);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(input.size()));
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
