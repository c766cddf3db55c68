// mp4kit C++17 layer: RAII ownership of handles, samples delivered to any callable, errors as
// values. Every member is a thin inline wrapper over the C call of <mp4kit/mp4.h>; the
// per-sample paths add no allocation and no indirection beyond the C callback itself.
#ifndef MP4KIT_MP4_HPP
#define MP4KIT_MP4_HPP

#include <mp4kit/mp4.h>

#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

namespace mp4kit {

struct HandleDeleter {
    void operator()(mp4_muxer *m) const noexcept { mp4_delete(m); }
};

// Owns a handle (and, for a remuxer, its linked handle).
using Handle = std::unique_ptr<mp4_muxer, HandleDeleter>;

// The error state of a handle: code 0 means none; text is null then.
struct Error {
    uint32_t code = 0;
    const char *text = nullptr;
    explicit operator bool() const noexcept { return code != 0; }
    std::string message() const { return text ? text : (code ? "error " + std::to_string(code) : ""); }
};

// One sample as reported by the writer or the reader.
struct Sample {
    uint32_t track;
    uint64_t offset;
    uint64_t timestamp;
    uint32_t size;
    uint32_t flags;
};

class Muxer {
  public:
    Muxer() = default;
    explicit Muxer(mp4_muxer *raw) noexcept : handle_(raw) {}

    static Muxer writer() { return Muxer(mp4_writer_create()); }
    static Muxer mov_writer() { return Muxer(mov_writer_create()); }
    static Muxer reader() { return Muxer(mp4_reader_create()); }
    static Muxer defragmenter() { return Muxer(mp4_remuxer_create()); }
    static Muxer refragmenter() { return Muxer(mp4_refrag_create()); }

    mp4_muxer *get() const noexcept { return handle_.get(); }
    explicit operator bool() const noexcept { return handle_ != nullptr; }

    Error error() const noexcept {
        return Error{mp4_get_error_code(get()), mp4_get_error(get())};
    }
    void clear_error() noexcept { mp4_set_error(get(), 0); }

    // Attaching input or output. open() reports error 10 through error().
    void open(const char *path) noexcept { mp4_file_name_ascii(get(), path); }
    void attach(int fd) noexcept { mp4_file_descriptor(get(), fd); }
    void attach(FILE *stream) noexcept { mp4_file_pointer(get(), stream); }
    void mirror(FILE *stream) noexcept { mp4_file2_pointer(get(), stream); }
    void debug(bool on) noexcept { mp4_debug(get(), on ? 1 : 0); }

    // Memory-buffer streaming.
    void put_buffer(uint8_t *data, uint32_t size) noexcept { mp4_buf_put(get(), data, size); }
    uint32_t take_buffer() noexcept { return mp4_buf_get(get()); }

    // Writer.
    uint32_t video_track(uint32_t fourcc, uint32_t timescale, uint32_t default_duration,
                         uint32_t width, uint32_t height, uint32_t delay = 0,
                         uint32_t avc_profile = 0, uint32_t avc_level = 0) noexcept {
        return mp4_video_track_create(get(), fourcc, timescale, default_duration, delay, width,
                                      height, avc_profile, avc_level);
    }
    uint32_t audio_track(uint32_t fourcc, uint32_t timescale, uint32_t default_duration,
                         uint32_t samplerate, uint32_t channels, uint32_t delay = 0) noexcept {
        return mp4_audio_track_create(get(), fourcc, timescale, default_duration, delay,
                                      samplerate, channels);
    }
    void parameter_data(const uint8_t *data, uint32_t size) noexcept {
        mp4_set_parameter_data(get(), data, size);
    }
    void write(uint32_t track, const uint8_t *data, uint32_t size, uint32_t duration) noexcept {
        mp4_write_track(get(), track, data, size, duration);
    }
    void interleave(uint32_t period) noexcept { mp4_interleave_duration(get(), period); }
    void moov_at_start(uint32_t max_minutes, uint32_t interval_seconds) noexcept {
        mp4_set_moov_max_duration(get(), max_minutes, interval_seconds);
    }
    void max_file_size(uint64_t limit) noexcept { mp4_max_file_size(get(), limit); }
    void fragment() noexcept { mp4_write_frag_header(get()); }
    void finish() noexcept { mp4_write_movie(get()); }

    // Reader.
    bool play() noexcept { return mp4_play(get()) == 0; }
    bool play_reverse() noexcept { return mp4_play_reverse(get()) == 0; }
    bool seek(uint64_t time) noexcept { return mp4_seek(get(), time) == 0; }
    int fragmented() noexcept { return mp4_is_fragmented(get()); }
    void mixed_timescales(bool on) noexcept { mp4_play_mixed_timescales(get(), on ? 1 : 0); }
    uint32_t fourcc(uint32_t track) noexcept { return mp4_get_fourcc(get(), track); }
    uint32_t timescale(uint32_t track) noexcept { return mp4_get_timescale(get(), track); }
    uint32_t samplerate(uint32_t track) noexcept { return mp4_get_samplerate(get(), track); }

    // Remuxer pass.
    void remux() noexcept { mp4_remux(get()); }

    // Delivers every sample written or played to fn(const Sample &). The callable is owned by
    // this object and must not throw; it is called directly through a typed trampoline.
    template <class F> void on_sample(F &&fn) {
        using Fn = std::decay_t<F>;
        auto *owned = new Fn(std::forward<F>(fn));
        callable_ = Callable(owned, [](void *p) { delete static_cast<Fn *>(p); });
        mp4_set_sample_callback(get(), &trampoline<Fn>, owned);
    }
    void clear_on_sample() noexcept {
        mp4_set_sample_callback(get(), nullptr, nullptr);
        callable_.reset();
    }

  private:
    template <class Fn>
    static int trampoline(void *opaque, uint32_t track, uint64_t offset, uint64_t timestamp,
                          uint32_t size, uint32_t flags) {
        (*static_cast<Fn *>(opaque))(Sample{track, offset, timestamp, size, flags});
        return 0;
    }

    using Callable = std::unique_ptr<void, void (*)(void *)>;
    // Declared before the handle so that the handle (which may still hold the callback) is
    // deleted first.
    Callable callable_{nullptr, [](void *) {}};
    Handle handle_;
};

} // namespace mp4kit

#endif
