// The recording API driven by the input: the bytes decode to a sequence of calls on one MP4 or
// QuickTime writer (tracks of any sample-entry code with hostile timescales and durations,
// parameter data, interleaving, the movie at the start, size limits, samples to good and bad
// track numbers, skip data, fragment headers, the finish, callbacks), writing to no back-end, to
// memory buffers of input-chosen sizes or to an in-memory file descriptor. A finished plain file
// that the writer made without any error is then loaded by the library's reader, played to the
// end and seeked, and must read without an error; other outputs are read back for memory safety
// only.
//
// Input layout: byte 0 picks the writer (bit 0: MOV) and the output (bits 1-2: none, memory
// buffers, descriptor); then ops, one selector byte each followed by the op's arguments, up to
// MAX_OPS. Missing argument bytes read as zero.
#include "fuzz_common.h"

#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

// The writer stalls one second on every write past the end of a caller buffer (a deliberate
// brake on a caller that does not drain its buffers). Here buffers of a few bytes are the point,
// so the stall is skipped on the thread that runs the inputs; libFuzzer's own threads (its
// memory watcher sleeps between checks) still sleep.
static thread_local bool skip_sleep = false;
extern "C" unsigned int sleep(unsigned int seconds) {
    if (skip_sleep)
        return 0;
    struct timespec t = {time_t(seconds), 0};
    while (nanosleep(&t, &t) != 0) {
    }
    return 0;
}

namespace {

constexpr int MAX_OPS = 64;
constexpr uint32_t MAX_SAMPLE_BYTES = 64 << 10; // over all samples, skip data and parameters
constexpr uint32_t MAX_SAMPLES = 4096;
constexpr uint32_t MAX_BUFFER = 256 << 10; // one caller buffer
constexpr size_t MAX_OUTPUT = 16 << 20;    // what is kept of the output for reading back

struct Input {
    const uint8_t *p;
    size_t n;
    bool empty() const { return n == 0; }
    uint8_t u8() {
        if (!n)
            return 0;
        n--;
        return *p++;
    }
    uint16_t u16() { return uint16_t(u8() << 8 | u8()); }
    uint32_t u32() { return uint32_t(u16()) << 16 | u16(); }
    uint64_t u64() { return uint64_t(u32()) << 32 | u32(); }
    // A value of the kind that breaks arithmetic: 0, 1, small, typical, huge, or raw.
    uint32_t value() {
        switch (u8() & 7) {
        case 0:
            return 0;
        case 1:
            return 1;
        case 2:
            return u8();
        case 3:
            return u16();
        case 4:
            return 0xFFFFFFFFu - u8();
        case 5:
            return 0x80000000u + u8();
        case 6:
            return 90000;
        default:
            return u32();
        }
    }
    // Up to max bytes taken from the input (a copy of exactly that size).
    std::vector<uint8_t> bytes(size_t max) {
        size_t k = std::min<size_t>({size_t(u16()), max, n});
        std::vector<uint8_t> out(p, p + k);
        p += k;
        n -= k;
        return out;
    }
};

struct Counter {
    uint64_t samples = 0, bytes = 0;
};
uint64_t plain_calls = 0;
int count_plain(uint64_t, uint64_t, uint32_t size, uint32_t) {
    plain_calls += size ? 1 : 0;
    return 0;
}
int count_sample(void *opaque, uint32_t, uint64_t, uint64_t, uint32_t size, uint32_t) {
    auto *c = static_cast<Counter *>(opaque);
    c->samples++;
    c->bytes += size;
    return 1;
}

const char *const SUBTITLE_NAMES[] = {"", "Subtitles", "a name that is rather longer than most"};
const uint32_t PALETTE[16] = {0, 0xFFFFFFFFu, 0x00FF0000u, 0x0000FF00u, 0x000000FFu, 0x80808080u,
                              1, 2,           3,           4,           5,           6,
                              7, 8,           9,           0xDEADBEEFu};

uint32_t pick_fourcc(Input &in) {
    switch (in.u8() % 8) {
    case 0:
        return MP4_FOURCC('a', 'v', 'c', '1');
    case 1:
        return MP4_FOURCC('m', 'p', '4', 'v');
    case 2:
        return MP4_FOURCC('m', 'p', '4', 'a');
    case 3:
        return MP4_FOURCC('s', 'o', 'w', 't');
    case 4:
        return MP4_FOURCC('t', 'x', '3', 'g');
    case 5:
        return MP4_FOURCC('m', 'p', '4', 's');
    case 6:
        return MP4_FOURCC('x', 'y', 'z', 'w'); // no codec knows it
    default:
        return in.u32();
    }
}

// Sample bytes of one of several shapes; `out` may stay empty.
void make_sample(Input &in, std::vector<uint8_t> &out, uint32_t budget) {
    uint8_t shape = in.u8();
    std::vector<uint8_t> body = in.bytes(budget);
    out.clear();
    // Bits 0-2 the shape, bit 3 the ADTS length choice, bits 4-7 the NAL unit type.
    switch (shape & 7) {
    case 0:
    case 5:
    case 6: // raw input bytes
        out = body;
        break;
    case 1: { // Annex B: NAL units behind 4- or 3-byte start codes
        static const uint8_t nal_types[] = {0x67, 0x68, 0x65, 0x41, 0x06, 0x09};
        for (size_t i = 0; i < body.size() || i == 0; i += 16) {
            if (i & 16)
                out.insert(out.end(), {0, 0, 1});
            else
                out.insert(out.end(), {0, 0, 0, 1});
            out.push_back(nal_types[(shape >> 4) % 6]);
            out.insert(out.end(), body.begin() + long(std::min(i, body.size())),
                       body.begin() + long(std::min(i + 16, body.size())));
        }
        break;
    }
    case 2: { // ADTS header whose length field is taken from the input or is the frame's
        uint32_t len = (shape & 8) ? uint32_t(body.size() + 7) : in.u16();
        uint8_t h[7] = {0xFF,
                        uint8_t(0xF1 | (shape & 8)),
                        uint8_t(in.u8()),
                        uint8_t(((in.u8() & 3) << 6) | ((len >> 11) & 3)),
                        uint8_t(len >> 3),
                        uint8_t((len & 7) << 5 | 0x1F),
                        0xFC};
        out.assign(h, h + 7);
        out.insert(out.end(), body.begin(), body.end());
        break;
    }
    case 3: // MPEG-4 Visual start codes
        out = {0, 0, 1, 0xB0, 1, 0, 0, 1, 0xB5, 0, 0, 1, 0, 0, 0, 1, 0x20};
        out.insert(out.end(), body.begin(), body.end());
        break;
    case 4: // zeros of an input-chosen size
        out.assign(std::min<uint32_t>(budget, in.u16()), 0);
        break;
    default: // empty
        break;
    }
    if (out.size() > budget)
        out.resize(budget);
}

struct Harness {
    Input in;
    mp4_muxer *m = nullptr;
    int mode = 0; // 0 no back-end, 1 memory buffers, 2 descriptor
    int fd = -1;
    std::vector<uint8_t> buffer; // the caller buffer attached now (memory mode)
    bool attached = false;
    std::vector<uint8_t> stream; // what the memory buffers received, in order
    bool stream_complete = true;
    uint32_t budget = MAX_SAMPLE_BYTES, samples = 0, tracks = 0;
    bool failed = false;   // any error code seen on the writer at any point
    bool finished = false; // mp4_write_movie returned without an error
    Counter counter;
    std::vector<std::pair<uint32_t, uint32_t>> created; // timescale and default duration
    bool estimated = false;                             // mp4_set_moov_max_duration was called

    void note() {
        if (mp4_get_error_code(m))
            failed = true;
        (void)mp4_get_error(m);
        (void)mp4_was_write_error(m);
    }

    void attach(uint32_t size) {
        buffer.assign(size, 0);
        // A buffer of size 0 is given as a valid pointer to nothing.
        static uint8_t none;
        mp4_buf_put(m, size ? buffer.data() : &none, size);
        attached = true;
    }
    void detach() {
        if (!attached)
            return;
        uint32_t got = mp4_buf_get(m);
        attached = false;
        if (got > buffer.size())
            __builtin_trap(); // more than the buffer holds
        if (stream.size() + got > MAX_OUTPUT)
            stream_complete = false;
        else
            stream.insert(stream.end(), buffer.begin(), buffer.begin() + got);
    }

    void write_sample(uint32_t id, const std::vector<uint8_t> &s, uint32_t duration, bool null) {
        if (samples >= MAX_SAMPLES)
            return;
        samples++;
        budget -= uint32_t(s.size());
        if (null || s.empty())
            mp4_write_track(m, id, null ? nullptr : reinterpret_cast<const uint8_t *>(""), 0,
                            duration);
        else
            mp4_write_track(m, id, s.data(), uint32_t(s.size()), duration);
    }

    void op() {
        uint8_t sel = in.u8();
        if (getenv("MP4KIT_FUZZ_VERBOSE"))
            fprintf(stderr, "op %u, error before %u\n", sel % 20, mp4_get_error_code(m));
        switch (sel % 20) {
        case 0: { // video track
            uint32_t fourcc = pick_fourcc(in);
            uint32_t ts = in.value(), dur = in.value(), delay = in.value();
            uint32_t w = in.value(), h = in.value(), profile = in.u8(), level = in.u8();
            if (estimated)
                break;
            created.emplace_back(ts, dur);
            if (mp4_video_track_create(m, fourcc, ts, dur, delay, w, h, profile, level))
                tracks++;
            break;
        }
        case 1: { // audio track
            uint32_t fourcc = pick_fourcc(in);
            uint32_t ts = in.value(), dur = in.value(), delay = in.value();
            uint32_t rate = in.value(), channels = in.value();
            if (estimated)
                break;
            created.emplace_back(ts, dur);
            if (mp4_audio_track_create(m, fourcc, ts, dur, delay, rate, channels))
                tracks++;
            break;
        }
        case 2: { // subtitle track
            uint32_t fourcc = pick_fourcc(in);
            const char *name = SUBTITLE_NAMES[in.u8() % 3];
            uint32_t ts = in.value(), dur = in.value(), delay = in.value();
            uint32_t w = in.value(), h = in.value();
            const uint32_t *palette = (in.u8() & 1) ? PALETTE : nullptr;
            if (estimated)
                break;
            created.emplace_back(ts, dur);
            if (mp4_subtitle_track_create(m, fourcc, name, ts, dur, delay, w, h, palette))
                tracks++;
            break;
        }
        case 3: { // parameter data: input bytes, possibly behind start codes
            std::vector<uint8_t> s;
            make_sample(in, s, budget);
            budget -= uint32_t(s.size());
            mp4_set_parameter_data(m, s.empty() ? nullptr : s.data(), uint32_t(s.size()));
            break;
        }
        case 4:
            mp4_interleave_duration(m, in.value());
            break;
        case 5: {
            // Reservations up to 1 MiB: the movie at the start is coded in memory at the
            // reservation's size, so larger ones only measure the allocator.
            uint32_t size = in.value();
            mp4_set_moov_mode(m, size % (1u << 20), in.value());
            break;
        }
        case 6: {
            // The reservation is estimated from the tracks' timescales and default durations
            // when the first sample comes, and the movie at the start is coded in memory at its
            // size: the call is made only while the estimate stays within 1 MiB, and no track
            // is added afterwards.
            uint32_t minutes = in.u8() % 4;
            uint32_t interval = in.value();
            uint64_t frames = 0;
            for (auto &t : created)
                if (t.second)
                    frames += uint64_t(minutes) * t.first * 60 / t.second;
            if (frames * 12 + uint64_t(minutes) * 5400000 / 1501 * 22 < (1u << 20)) {
                mp4_set_moov_max_duration(m, minutes, interval);
                estimated = true;
            }
            break;
        }
        case 7: {
            uint8_t kind = in.u8();
            uint64_t limit = (kind & 1) ? in.u64() : in.u16();
            mp4_max_file_size(m, limit);
            break;
        }
        case 8:
        case 9:
        case 10: { // one sample to a good or a bad track number
            uint8_t t = in.u8();
            uint32_t id = (t & 0x80) ? in.u32() : uint32_t(t % (tracks + 2));
            std::vector<uint8_t> s;
            make_sample(in, s, budget);
            write_sample(id, s, in.value(), (t & 0x40) && s.empty());
            break;
        }
        case 11: { // a run of samples of one shape and duration
            uint32_t id = in.u8() % (tracks + 2);
            uint32_t count = in.u8() + 1;
            std::vector<uint8_t> s;
            make_sample(in, s, budget / count);
            uint32_t duration = in.value();
            for (uint32_t i = 0; i < count; i++)
                write_sample(id, s, duration, false);
            break;
        }
        case 12: {
            std::vector<uint8_t> s = in.bytes(budget);
            budget -= uint32_t(s.size());
            mp4_write_skip_data(m, s.empty() ? nullptr : s.data(), uint32_t(s.size()));
            break;
        }
        case 13:
            mp4_write_frag_header(m);
            break;
        case 14: {
            bool before = failed || mp4_get_error_code(m);
            mp4_write_movie(m);
            if (!before && !mp4_get_error_code(m))
                finished = true;
            break;
        }
        case 15: // the caller drains its buffer and gives a fresh one
            if (mode == 1) {
                uint32_t size = in.u8() & 1 ? in.u8() : in.u32() % MAX_BUFFER;
                detach();
                attach(size);
            }
            break;
        case 16:
            mp4_set_callback(m, (in.u8() & 1) ? count_plain : nullptr);
            break;
        case 17:
            mp4_set_sample_callback(m, (in.u8() & 1) ? count_sample : nullptr, &counter);
            break;
        case 18:
            // A caller clearing or setting the error code is within the contract; the output is
            // no longer claimed to be sound once any code was seen.
            mp4_set_error(m, in.u8() % 12);
            failed = true;
            break;
        default: // a second finish, which must change nothing
            mp4_write_movie(m);
            break;
        }
        note();
    }
};

// Reads a finished output back: plain files are played to the end and seeked, fragmented ones
// are walked mdat by mdat. `strict`: the writer saw no error, so the reader must not either.
void read_back(std::vector<uint8_t> &file, bool strict) {
    if (file.empty())
        return;
    mp4_muxer *r = mp4_reader_create();
    mp4_buf_put(r, file.data(), uint32_t(file.size()));
    mp4_play_mixed_timescales(r, 1);
    int frag = mp4_is_fragmented(r);
    if (frag == 1) {
        for (int i = 0; i < 10000; i++) {
            uint8_t *payload = nullptr;
            uint32_t length = 0;
            mp4_get_mdat(r, &payload, &length);
            if (!payload)
                break;
            mp4_get_timestamp(r, 1);
        }
        strict = false;
    } else {
        mp4_set_callback(r, count_plain);
        Counter c;
        mp4_set_sample_callback(r, count_sample, &c);
        int i = 0;
        while (i < 20000 && mp4_play(r) == 0)
            i++;
        for (uint64_t t : {uint64_t(0), uint64_t(1), uint64_t(90000), uint64_t(1) << 40}) {
            mp4_seek(r, t);
            mp4_play(r);
        }
        for (i = 0; i < 50 && mp4_play_reverse(r) == 0; i++) {
        }
        for (uint32_t id = 0; id < 4; id++) {
            mp4_get_fourcc(r, id);
            mp4_get_timescale(r, id);
            mp4_get_samplerate(r, id);
            mp4_get_default_duration(r, int(id));
        }
        uint32_t n = mp4_get_parameter_size(r);
        if (n && n < (1u << 20)) {
            std::vector<uint8_t> p(n);
            mp4_get_parameter_data(r, p.data());
        }
    }
    uint32_t err = mp4_get_error_code(r);
    if (getenv("MP4KIT_FUZZ_VERBOSE"))
        fprintf(stderr, "read back %zu bytes: fragmented %d, strict %d, reader error %u\n",
                file.size(), frag, int(strict), err);
    if (strict && err) {
        fprintf(stderr, "reader error %u (%s) on a file written without error\n", err,
                mp4_get_error(r));
        __builtin_trap();
    }
    mp4_buf_get(r);
    mp4_delete(r);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    silence_library_output();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    skip_sleep = true;
    std::vector<uint8_t> copy(data, data + size); // exact size: overreads are caught
    Harness h;
    h.in = Input{copy.data(), copy.size()};
    uint8_t head = h.in.u8();
    h.m = (head & 1) ? mov_writer_create() : mp4_writer_create();
    if (!h.m)
        return 0;
    h.mode = (head >> 1) % 3;
    if (h.mode == 1) {
        h.attach((head & 8) ? MAX_BUFFER : uint32_t(h.in.u16()));
    } else if (h.mode == 2) {
        h.fd = memfd_create("fuzz_write_api", 0);
        if (h.fd < 0) {
            mp4_delete(h.m);
            return 0;
        }
        mp4_file_descriptor(h.m, h.fd);
    }
    for (int i = 0; i < MAX_OPS && !h.in.empty(); i++)
        h.op();

    std::vector<uint8_t> file;
    if (h.mode == 1) {
        // One more buffer takes what is left in the overflow area.
        h.detach();
        h.attach(MAX_BUFFER * 16);
        h.detach();
        if (h.stream_complete)
            file.swap(h.stream);
    }
    mp4_delete(h.m);
    if (h.mode == 2) {
        off_t end = lseek(h.fd, 0, SEEK_END);
        if (end > 0 && size_t(end) <= MAX_OUTPUT) {
            file.resize(size_t(end));
            if (pread(h.fd, file.data(), file.size(), 0) != ssize_t(end))
                file.clear();
        }
        close(h.fd);
    }
    read_back(file, h.finished && !h.failed && h.mode != 0);
    return 0;
}
