// Soak run: thousands of recordings, readings and remuxes in one process, with the resident
// memory and the library's count of live blocks reported at intervals. Neither may grow: each
// cycle releases everything it took. Exits 1 when either grew after the warm-up.
//
// Usage: mp4kit_soak [CYCLES] [DATA_DIR]   (defaults: 10000 and the repository's tests/data)
#include "io.h"

#include <mp4kit/mp4.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

Bytes readFile(const std::string &path) {
    Bytes out;
    FILE *f = fopen(path.c_str(), "rb");
    if (!f)
        return out;
    uint8_t buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0)
        out.insert(out.end(), buf, buf + n);
    fclose(f);
    return out;
}

// Access units of an Annex B stream, each starting with a 4-byte start code and an access unit
// delimiter (as the bundled sample does).
std::vector<std::pair<size_t, size_t>> accessUnits(const Bytes &s) {
    std::vector<size_t> starts;
    for (size_t i = 0; i + 4 < s.size(); i++)
        if (s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 0 && s[i + 3] == 1 && (s[i + 4] & 0x1F) == 9)
            starts.push_back(i);
    std::vector<std::pair<size_t, size_t>> out;
    for (size_t k = 0; k < starts.size(); k++)
        out.push_back({starts[k], (k + 1 < starts.size() ? starts[k + 1] : s.size()) - starts[k]});
    return out;
}

// ADTS frames by their frame_length field.
std::vector<std::pair<size_t, size_t>> adtsFrames(const Bytes &s) {
    std::vector<std::pair<size_t, size_t>> out;
    for (size_t i = 0; i + 7 <= s.size();) {
        size_t len = (size_t(s[i + 3] & 3) << 11) | (size_t(s[i + 4]) << 3) | (s[i + 5] >> 5);
        if (s[i] != 0xFF || (s[i + 1] & 0xF0) != 0xF0 || len < 7 || i + len > s.size())
            break;
        out.push_back({i, len});
        i += len;
    }
    return out;
}

long residentKiB() {
    long pages = 0, resident = 0;
    FILE *f = fopen("/proc/self/statm", "r");
    if (!f)
        return -1;
    if (fscanf(f, "%ld %ld", &pages, &resident) != 2)
        resident = -1;
    fclose(f);
    return resident < 0 ? -1 : resident * (sysconf(_SC_PAGESIZE) / 1024);
}

int count(uint64_t, uint64_t, uint32_t, uint32_t) {
    return 0;
}

struct Soak {
    Bytes h264, aac;
    std::vector<std::pair<size_t, size_t>> units, frames;
    int recorded_fd = memfd_create("soak-recorded", 0);
    int plain_fd = memfd_create("soak-plain", 0);
    Bytes fragmented, buffer = Bytes(1 << 20);
    long samples_played = 0;
    int failures = 0;

    void check(mp4_muxer *m, const char *what) {
        if (mp4_get_error_code(m) && failures++ < 10)
            fprintf(stderr, "%s: error %u\n", what, mp4_get_error_code(m));
    }

    // A recording of 3 seconds through a descriptor; every other one in QuickTime form with
    // interleaved audio and the movie kept at the start.
    void record(int cycle) {
        ftruncate(recorded_fd, 0);
        lseek(recorded_fd, 0, SEEK_SET);
        const bool mov = cycle & 1;
        mp4_muxer *m = mov ? mov_writer_create() : mp4_writer_create();
        mp4_file_descriptor(m, recorded_fd);
        if (mov) {
            mp4_interleave_duration(m, 45000);
            mp4_set_moov_mode(m, 65536, 90000);
        }
        mp4_video_track_create(m, MP4_FOURCC('a', 'v', 'c', '1'), 90000, 3600, 0, 128, 96, 66, 11);
        mp4_audio_track_create(m, MP4_FOURCC('m', 'p', '4', 'a'), 48000, 1024, 0, 48000, 2);
        size_t a = 0;
        for (size_t i = 0; i < units.size(); i++) {
            mp4_write_track(m, 1, h264.data() + units[i].first, uint32_t(units[i].second), 3600);
            while (a < frames.size() && uint64_t(a) * 1024 * 90000 <= i * 3600 * 48000) {
                mp4_write_track(m, 2, aac.data() + frames[a].first, uint32_t(frames[a].second),
                                1024);
                a++;
            }
        }
        mp4_write_movie(m);
        check(m, "record");
        mp4_delete(m);
    }

    void play(int fd) {
        lseek(fd, 0, SEEK_SET);
        mp4_muxer *r = mp4_reader_create();
        mp4_file_descriptor(r, fd);
        mp4_set_callback(r, count);
        mp4_play_mixed_timescales(r, 1);
        while (mp4_play(r) == 0)
            samples_played++;
        while (mp4_play_reverse(r) == 0)
            samples_played++;
        if (mp4_seek(r, 90000) == 0)
            mp4_play(r);
        check(r, "play");
        mp4_delete(r);
    }

    void refragment() {
        lseek(recorded_fd, 0, SEEK_SET);
        FILE *in = fdopen(dup(recorded_fd), "rb");
        mp4_muxer *m = mp4_refrag_create();
        mp4_file_pointer(m, in);
        fragmented.clear();
        for (int i = 0; i < 10000; i++) {
            mp4_buf_put(m, buffer.data(), uint32_t(buffer.size()));
            mp4_remux(m);
            uint32_t n = mp4_buf_get(m);
            fragmented.insert(fragmented.end(), buffer.begin(), buffer.begin() + n);
            if (n == 0 && i > 0)
                break;
        }
        mp4_buf_put(m, buffer.data(), uint32_t(buffer.size()));
        mp4_write_frag_header(m);
        uint32_t n = mp4_buf_get(m);
        fragmented.insert(fragmented.end(), buffer.begin(), buffer.begin() + n);
        check(m, "refragment");
        mp4_delete(m);
        fclose(in);
    }

    // Fed one box at a time, as a receiver of the stream hands them on.
    void defragment() {
        ftruncate(plain_fd, 0);
        lseek(plain_fd, 0, SEEK_SET);
        mp4_muxer *m = mp4_remuxer_create();
        mp4_file_descriptor(m, plain_fd);
        size_t offset = 0;
        while (offset + 8 <= fragmented.size()) {
            const uint8_t *p = fragmented.data() + offset;
            size_t size = size_t(p[0]) << 24 | size_t(p[1]) << 16 | size_t(p[2]) << 8 | p[3];
            if (size < 8 || size > fragmented.size() - offset)
                break;
            mp4_buf_put(m, fragmented.data() + offset, uint32_t(size));
            mp4_remux(m);
            mp4_buf_get(m);
            offset += size;
        }
        mp4_write_movie(m);
        check(m, "defragment");
        mp4_delete(m);
    }

    void cycle(int i) {
        record(i);
        play(recorded_fd);
        refragment();
        defragment();
        play(plain_fd);
    }
};

} // namespace

int main(int argc, char **argv) {
    const int cycles = argc > 1 ? atoi(argv[1]) : 10000;
    const std::string data = argc > 2 ? argv[2] : MP4KIT_SOAK_DATA;
    Soak s;
    s.h264 = readFile(data + "/sample.h264");
    s.aac = readFile(data + "/sample.aac");
    s.units = accessUnits(s.h264);
    s.frames = adtsFrames(s.aac);
    if (s.units.empty() || s.frames.empty() || s.recorded_fd < 0 || s.plain_fd < 0) {
        fprintf(stderr, "soak: cannot read the sample streams in %s\n", data.c_str());
        return 2;
    }
    // The library's diagnostics would only slow the run down.
    if (!getenv("SOAK_VERBOSE") && !freopen("/dev/null", "w", stdout))
        return 2;
    fprintf(stderr, "%8s %12s %12s\n", "cycle", "rss_kib", "live_blocks");
    const int warmup = cycles < 1000 ? cycles / 10 : 100;
    long rss_after_warmup = 0, live_after_warmup = 0, rss = 0, live = 0;
    for (int i = 1; i <= cycles; i++) {
        s.cycle(i);
        if (i == warmup) {
            rss_after_warmup = residentKiB();
            live_after_warmup = mp4_alloc_live();
        }
        if (i == 1 || i == warmup || i % 1000 == 0 || i == cycles) {
            rss = residentKiB();
            live = mp4_alloc_live();
            fprintf(stderr, "%8d %12ld %12ld\n", i, rss, live);
        }
    }
    fprintf(stderr,
            "%d cycles (record, play, refragment, defragment, play): %ld samples played, "
            "%d errors; resident %+ld KiB and live blocks %+ld since cycle %d\n",
            cycles, s.samples_played, s.failures, rss - rss_after_warmup, live - live_after_warmup,
            warmup);
    return s.failures || live != live_after_warmup || rss - rss_after_warmup > 1024 ? 1 : 0;
}
