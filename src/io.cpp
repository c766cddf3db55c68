// Handle lifecycle, the three stream back-ends behind one logical position, and error codes.
#include "io.h"

#include "box/box.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

char compressor_name[32] = "Talvorin 4417";

const uint32_t AACfrequencyTable[16] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050,
                                        16000, 12000, 11025, 8000,  7350,  0,     0,     0};

// ---- allocation ------------------------------------------------------------------------------

static long alloc_fail_after = -1;
static long alloc_fail_only = -1;
static unsigned long alloc_count = 0;
static size_t alloc_largest = 0;
static long alloc_live = 0;

static void note_size(size_t n) {
    if (n > alloc_largest)
        alloc_largest = n;
}

static bool alloc_allowed() {
    if (alloc_fail_only >= 0 && alloc_fail_only-- == 0)
        return false;
    if (alloc_fail_after < 0)
        return true;
    if (alloc_fail_after == 0)
        return false;
    alloc_fail_after--;
    return true;
}

void *mp4_malloc(size_t n) {
    note_size(n);
    if (!alloc_allowed())
        return nullptr;
    alloc_count++;
    void *p = std::malloc(n ? n : 1);
    alloc_live += p != nullptr;
    return p;
}

void *mp4_calloc(size_t count, size_t size) {
    note_size(size && count > SIZE_MAX / size ? SIZE_MAX : count * size);
    if (!alloc_allowed())
        return nullptr;
    alloc_count++;
    void *p = count == 0 || size == 0 ? std::calloc(1, 1) : std::calloc(count, size);
    alloc_live += p != nullptr;
    return p;
}

void *mp4_realloc(void *p, size_t n) {
    note_size(n);
    if (!alloc_allowed())
        return nullptr;
    alloc_count++;
    void *q = std::realloc(p, n ? n : 1);
    alloc_live += q != nullptr && p == nullptr;
    return q;
}

void mp4_free(void *p) {
    alloc_live -= p != nullptr;
    std::free(p);
}

void mp4_alloc_fail_after(long n) {
    alloc_fail_after = n;
}
void mp4_alloc_fail_only(long n) {
    alloc_fail_only = n;
}
unsigned long mp4_alloc_count(void) {
    return alloc_count;
}
size_t mp4_alloc_largest(void) {
    return alloc_largest;
}
long mp4_alloc_live(void) {
    return alloc_live;
}
void mp4_alloc_reset_largest(void) {
    alloc_largest = 0;
}

// ---- handle ----------------------------------------------------------------------------------

static mp4_muxer *new_handle(uint8_t flags) {
    auto *m = static_cast<mp4_muxer *>(mp4_calloc(1, sizeof(mp4_muxer)));
    if (!m)
        return nullptr;
    m->fd = -1;
    m->next_track_id = 1;
    m->flags = flags;
    return m;
}

extern "C" mp4_muxer *mp4_writer_create(void) {
    return new_handle(0);
}
extern "C" mp4_muxer *mov_writer_create(void) {
    return new_handle(MP4_MOV);
}
extern "C" mp4_muxer *mp4_reader_create(void) {
    return new_handle(MP4_READER);
}

extern "C" void mp4_delete(mp4_muxer *m) {
    if (!m)
        return;
    if (m->buffer && m->buffer_start != m->pos)
        fprintf(stderr, "%s: warning: buffer is still queued with data in it\n", "mp4_delete");
    if (mp4_muxer *l = m->linked) {
        if (l->moov == m->moov)
            m->moov = nullptr; // shared tree: the linked handle frees it
        m->linked = nullptr;
        if (l->linked == m)
            l->linked = nullptr; // a back link must not delete this handle a second time
        mp4_delete(l);
    }
    if (m->own_file && m->fp)
        fclose(m->fp);
    std::free(m->file_buffer);
    deleteBox(m->moov);
    deleteBox(m->mdat);
    if (m->tracks) {
        for (uint32_t i = 0; i + 1 < m->next_track_id; i++)
            mp4_free(m->tracks[i].samples);
        mp4_free(m->tracks);
    }
    mp4_free(m->interleave_buffer);
    mp4_free(m->overflow_buffer);
    mp4_free(m->read_window);
    mp4_free(m->pending);
    mp4_free(m);
}

enum { FILE_BUFFER_SIZE = 256 << 10 };

// The attach calls and the debug switch act on the linked handle of a remuxer.
static mp4_muxer *receiver(mp4_muxer *m) {
    return m->linked ? m->linked : m;
}

extern "C" void mp4_debug(mp4_muxer *m, int on) {
    if (!m)
        return;
    mp4_muxer *r = receiver(m);
    if (on & 1)
        r->flags |= MP4_DEBUG;
    else
        r->flags &= uint8_t(~MP4_DEBUG);
}

// Bytes read ahead belong to the input they came from, and so does the decision to read ahead
// at all (a regular file, and how large): the next input is judged afresh.
static void forget_read_ahead(mp4_muxer *m) {
    mp4_free(m->read_window);
    m->read_window = nullptr;
    m->read_window_capacity = 0;
    m->read_window_len = 0;
}

extern "C" void mp4_file_descriptor(mp4_muxer *m, int fd) {
    if (!m)
        return;
    receiver(m)->fd = fd;
    forget_read_ahead(receiver(m));
}

extern "C" void mp4_file_pointer(mp4_muxer *m, FILE *stream) {
    if (!m)
        return;
    mp4_muxer *r = receiver(m);
    if (r->own_file && r->fp && r->fp != stream) {
        // A stream the library opened by name, replaced: it is closed here, and the caller's
        // stream, never closed by the library, takes its place.
        fclose(r->fp);
        std::free(r->file_buffer);
        r->file_buffer = nullptr;
    }
    if (r->fp != stream)
        r->own_file = 0;
    r->fp = stream;
    forget_read_ahead(r);
}

extern "C" void mp4_file2_pointer(mp4_muxer *m, FILE *stream) {
    if (m)
        receiver(m)->fp2 = stream;
}

extern "C" void mp4_file_name_ascii(mp4_muxer *m, const char *path) {
    if (!m)
        return;
    mp4_muxer *r = receiver(m);
    FILE *f = path ? fopen64(path, is_reader(r) ? "rb" : "w+b") : nullptr;
    if (!f) {
        m->error = MP4_ERR_OPEN;
        return;
    }
    if (r->own_file && r->fp)
        fclose(r->fp); // a second open replaces the first; the library owns both
    forget_read_ahead(r);
    std::free(r->file_buffer);
    r->file_buffer = nullptr;
    if (!is_reader(r)) {
        // A writer puts every sample through two stdio writes: with the default buffer of a
        // few kilobytes that is a system call every few samples. A larger one, outside the
        // library's accounted allocations (it only speeds things up), makes them rare. The
        // stream is the handle's alone and a handle is used by one thread at a time, so stdio
        // need not lock it.
        r->file_buffer = static_cast<uint8_t *>(std::malloc(FILE_BUFFER_SIZE));
        if (r->file_buffer &&
            setvbuf(f, reinterpret_cast<char *>(r->file_buffer), _IOFBF, FILE_BUFFER_SIZE) != 0) {
            std::free(r->file_buffer);
            r->file_buffer = nullptr;
        }
        __fsetlocking(f, FSETLOCKING_BYCALLER);
    }
    r->fp = f;
    r->own_file = 1;
}

extern "C" void mp4_compressor_name(const char *name) {
    if (!name)
        return;
    // strncpy semantics: zero padding, and no terminator for a name of 32 bytes or more.
    size_t n = strnlen(name, sizeof compressor_name);
    memset(compressor_name, 0, sizeof compressor_name);
    memcpy(compressor_name, name, n);
}

extern "C" void mp4_set_callback(mp4_muxer *m, mp4_callback callback) {
    if (m)
        m->callback = callback;
}

extern "C" void mp4_set_sample_callback(mp4_muxer *m, mp4_sample_fn fn, void *opaque) {
    if (!m)
        return;
    m->sample_fn = fn;
    m->sample_opaque = opaque;
}

void report_sample(mp4_muxer *m, uint32_t track_id, uint64_t offset, uint64_t timestamp,
                   uint32_t size, uint32_t flags) {
    if (m->callback)
        m->callback(offset, timestamp, size, flags);
    if (m->sample_fn)
        m->sample_fn(m->sample_opaque, track_id, offset, timestamp, size, flags);
}

// ---- errors ----------------------------------------------------------------------------------

static const char *const error_texts[] = {
    nullptr,
    "seek out of range",
    "failed to allocate memory",
    "bad input",
    "cannot write null box",
    "recursion limit reached",
    "buffer overflow",
    "remux failed to find mdat",
    "write failed",
    "maximum size limit reached",
    "file open failed",
};

// The fallback walks the linked chain; a bound keeps a (never built) cycle from looping.
enum { MAX_LINK_HOPS = 8 };

extern "C" const char *mp4_get_error(mp4_muxer *m) {
    for (int hop = 0; m && hop < MAX_LINK_HOPS; hop++, m = m->linked) {
        if (m->error >= 1 && m->error <= 10)
            return error_texts[m->error];
    }
    return nullptr;
}

extern "C" uint32_t mp4_get_error_code(mp4_muxer *m) {
    for (int hop = 0; m && hop < MAX_LINK_HOPS; hop++, m = m->linked) {
        if (m->error)
            return m->error;
    }
    return 0;
}

extern "C" int mp4_was_write_error(mp4_muxer *m) {
    if (!m)
        return 0;
    return (m->error || (m->linked && m->linked->error)) ? 1 : 0;
}

extern "C" void mp4_set_error(mp4_muxer *m, int code) {
    if (m)
        m->error = uint8_t(code);
}

// ---- stream back-ends ------------------------------------------------------------------------

// Source of zero bytes for null-source writes, so that padding never needs an allocation.
static const uint8_t zero_block[65536] = {};

uint32_t read_n(mp4_muxer *m, void *dst, uint32_t n) {
    if (m->fd != -1) {
        uint32_t got = 0;
        while (got < n) {
            ssize_t r = read(m->fd, static_cast<uint8_t *>(dst) + got, n - got);
            if (r < 0 && errno == EINTR)
                continue;
            if (r <= 0)
                break;
            got += uint32_t(r);
        }
        if (got < n)
            m->flags |= MP4_END_OF_INPUT;
        else
            m->flags &= uint8_t(~MP4_END_OF_INPUT);
        m->pos += n;
        return got;
    }
    if (m->fp) {
        size_t got = n ? fread(dst, 1, n, m->fp) : 0;
        if (got < n)
            m->flags |= MP4_END_OF_INPUT;
        else
            m->flags &= uint8_t(~MP4_END_OF_INPUT);
        if (m->fp2)
            fseeko64(m->fp2, off64_t(n), SEEK_CUR);
        m->pos += n;
        return uint32_t(got);
    }
    if (m->buffer) {
        // A position below the buffer counts as beyond its end.
        if (m->pos < m->buffer_start || m->pos - m->buffer_start + n > buffer_readable(m)) {
            m->flags |= MP4_END_OF_INPUT;
            return 0;
        }
        if (n)
            memcpy(dst, m->buffer + (m->pos - m->buffer_start), n);
        m->pos += n;
        return n;
    }
    m->pos += n;
    return 0;
}

static bool write_fd_all(int fd, const uint8_t *p, size_t n) {
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR)
            continue;
        if (w < 0)
            return false;
        if (w == 0)
            break; // no progress: a short count is not an error here, and looping would hang
        p += w;
        n -= size_t(w);
    }
    return true;
}

// Writes n bytes of src (or zeros) to a descriptor; false on failure.
static bool write_fd(int fd, const void *src, int32_t n) {
    if (src)
        return write_fd_all(fd, static_cast<const uint8_t *>(src), size_t(n));
    for (int32_t left = n; left > 0;) {
        int32_t k = left < int32_t(sizeof zero_block) ? left : int32_t(sizeof zero_block);
        if (!write_fd_all(fd, zero_block, size_t(k)))
            return false;
        left -= k;
    }
    return true;
}

// fwrite of n bytes of src (or zeros); returns the count written.
static size_t fwrite_n(FILE *f, const void *src, int32_t n) {
    if (src)
        return fwrite(src, 1, size_t(n), f);
    size_t done = 0;
    for (int32_t left = n; left > 0;) {
        int32_t k = left < int32_t(sizeof zero_block) ? left : int32_t(sizeof zero_block);
        size_t w = fwrite(zero_block, 1, size_t(k), f);
        done += w;
        if (w < size_t(k))
            break;
        left -= k;
    }
    return done;
}

static void copy_or_zero(uint8_t *dst, const void *src, uint32_t n) {
    if (src)
        memcpy(dst, src, n);
    else
        memset(dst, 0, n);
}

static void overflow_area_exhausted() {
    fprintf(stderr, "mp4kit: Assertion `m->overflow_buffer != NULL' failed.\n");
    abort();
}

// Bytes written past the end of the caller's buffer: kept in the handle's overflow area.
static void write_overflow(mp4_muxer *m, const uint8_t *src, int32_t n) {
    if (!m->overflow_buffer) {
        m->overflow_start = m->pos;
    } else if (m->pos < m->overflow_start) {
        // Before the area (a stray seek): no room was ever made for these bytes; they are lost,
        // as error 6 already says.
        m->pos += uint32_t(n);
        return;
    }
    uint64_t ov = m->pos - m->overflow_start;
    if (ov + uint64_t(n) >= m->overflow_size) {
        // Whole 1024-byte steps until the area reaches past ov + n; the area must stay
        // addressable with 32-bit offsets.
        if (ov >= 0xFFFFFFFFull)
            overflow_area_exhausted();
        uint64_t need = ov + uint64_t(n) + 1 - m->overflow_size;
        uint64_t want = m->overflow_size + (need + 1023) / 1024 * 1024;
        if (want > 0xFFFFFFFFull)
            overflow_area_exhausted();
        void *p = mp4_realloc(m->overflow_buffer, size_t(want));
        if (!p)
            overflow_area_exhausted();
        m->overflow_buffer = static_cast<uint8_t *>(p);
        // Keep the never-written tail deterministic.
        memset(m->overflow_buffer + m->overflow_size, 0, size_t(want - m->overflow_size));
        m->overflow_size = uint32_t(want);
    }
    if (n > 0)
        copy_or_zero(m->overflow_buffer + ov, src, uint32_t(n));
    m->pos += uint32_t(n);
}

void write_n(mp4_muxer *m, const void *src, int32_t n) {
    if (n < 0) {
        printf("%s: n=%d (bad seek?)\n", "write_n", n);
        m->error = MP4_ERR_SEEK;
        return;
    }
    if (m->fd != -1) {
        if (!write_fd(m->fd, src, n)) {
            perror("write");
            m->error = MP4_ERR_WRITE;
            m->write_failures++;
            off64_t here = lseek64(m->fd, 0, SEEK_CUR);
            if (here >= 0)
                m->pos = uint64_t(here);
            return;
        }
        m->pos += uint32_t(n);
        return;
    }
    if (m->fp) {
        size_t count = fwrite_n(m->fp, src, n);
        if (count == size_t(n) && m->fp2)
            count = fwrite_n(m->fp2, src, n);
        if (count < size_t(n)) {
            perror("fwrite");
            printf("%s: n=%d pos=%lu %ld\n", "write_n", n, (unsigned long)m->pos, ftell(m->fp));
            m->error = MP4_ERR_WRITE;
            m->write_failures++;
            off64_t here = ftello64(m->fp);
            if (here >= 0)
                m->pos = uint64_t(here);
            return;
        }
        m->pos += uint32_t(n);
        return;
    }
    if (!m->buffer) {
        m->pos += uint32_t(n);
        return;
    }
    const uint8_t *s = static_cast<const uint8_t *>(src);
    int32_t off = int32_t(uint32_t(m->pos - m->buffer_start));
    int64_t space = int64_t(buffer_readable(m)) - off;
    if (off >= 0 && int64_t(n) <= space) {
        if (n > 0)
            copy_or_zero(m->buffer + off, s, uint32_t(n));
        m->pos += uint32_t(n);
    } else {
        printf("warning: buffer overflowed pos=%d space=%d n=%d\n", off, int32_t(space), n);
        m->error = MP4_ERR_OVERFLOW;
        if (off >= 0 && space > 0) {
            copy_or_zero(m->buffer + off, s, uint32_t(space));
            m->pos += uint64_t(space);
            if (s)
                s += space;
            n -= int32_t(space);
        }
        sleep(1);
        write_overflow(m, s, n);
    }
    if (m->pos > m->max_pos)
        m->max_pos = m->pos;
}

bool flush_output(mp4_muxer *m) {
    bool ok = !m->fp || fflush(m->fp) == 0;
    if (m->fp2 && fflush(m->fp2) != 0)
        ok = false;
    if (!ok) {
        // Bytes the stream held never reached the file: as much a failed write as fwrite's.
        perror("fflush");
        m->error = MP4_ERR_WRITE;
        m->write_failures++;
    }
    return ok;
}

uint64_t muxer_pos(mp4_muxer *m) {
    if (m->fp && m->error == MP4_ERR_WRITE) {
        off64_t here = ftello64(m->fp);
        if (here != -1)
            return uint64_t(here);
    }
    return m->pos;
}

// Extends a memory stream with zeros, in pieces that a signed 32-bit write length can carry.
static void zero_extend(mp4_muxer *m, uint64_t gap) {
    if (!m->buffer) {
        m->pos += gap; // nothing to fill: one step instead of a loop over a gap of any size
        return;
    }
    while (gap > 0) {
        uint32_t k = gap > 0x40000000u ? 0x40000000u : uint32_t(gap);
        write_n(m, nullptr, int32_t(k));
        gap -= k;
    }
}

void muxer_seek(mp4_muxer *m, uint64_t target) {
    if (target == m->pos)
        return;
    if (m->fd != -1) {
        m->pos = target;
        lseek64(m->fd, off64_t(target), SEEK_SET);
        return;
    }
    if (m->fp) {
        m->pos = target;
        // A writer's stream flushes what it holds before it moves: that may be what failed.
        const uint32_t failed = is_reader(m) ? 0 : 1;
        if (fseeko64(m->fp, off64_t(target), SEEK_SET) < 0) {
            perror("fseeko");
            printf("off=%lu\n", (unsigned long)target);
            m->error = MP4_ERR_SEEK;
            m->write_failures += failed;
        }
        if (m->fp2 && fseeko64(m->fp2, off64_t(target), SEEK_SET) < 0) {
            perror("fseeko 2");
            printf("off=%lu\n", (unsigned long)target);
            m->error = MP4_ERR_SEEK;
            m->write_failures += failed;
        }
        return;
    }
    if (is_reader(m)) {
        m->pos = target;
        if (target >= m->buffer_start && target <= m->buffer_start + m->buffer_size)
            return;
        printf("%s: dangerous seek outside of buffer\n", "muxer_seek");
        printf("%s: seek pos %lu buffer: %lu..%lu\n", "muxer_seek", (unsigned long)target,
               (unsigned long)m->buffer_start,
               (unsigned long)(m->buffer_start + m->buffer_size - 1));
        m->error = MP4_ERR_SEEK;
        return;
    }
    if (target >= m->max_pos) {
        m->pos = m->max_pos;
        zero_extend(m, target - m->max_pos);
        m->pos = target; // also when nothing could be written (no back-end)
        return;
    }
    m->pos = target;
    if (m->buffer && target >= m->buffer_start && target <= m->buffer_start + m->buffer_size)
        return;
    if (m->overflow_buffer && target >= m->overflow_start &&
        target <= m->overflow_start + m->overflow_size)
        return;
    printf("%s: dangerous seek %lu outside of any buffer!\n", "muxer_seek", (unsigned long)target);
    m->error = MP4_ERR_SEEK;
}

// The descriptor behind a file input, or -1 (a memory buffer, or a stream without one).
static int input_descriptor(const mp4_muxer *m) {
    if (m->fd != -1)
        return m->fd;
    return m->fp ? fileno(m->fp) : -1;
}

// Reads up to n bytes at `at` without moving the descriptor or the stream, the count in *got;
// false when the descriptor fails before the first byte (end of file is not a failure).
static bool pread_some(int fd, uint8_t *dst, uint32_t n, uint64_t at, uint32_t *got) {
    *got = 0;
    while (*got < n) {
        ssize_t r = pread64(fd, dst + *got, n - *got, off64_t(at + *got));
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0 && *got == 0)
            return false;
        if (r <= 0)
            break;
        *got += uint32_t(r);
    }
    return true;
}

enum : uint32_t { READ_WINDOW = 256 << 10, WINDOWED_READ = 64 << 10 };

// Samples are read from a file mostly in order and a few KiB at a time: they come from a window
// read ahead with pread, which leaves the stream's position and buffer alone, instead of a seek
// there, a read and a seek back for each. False when the window cannot serve (no descriptor, a
// large read, no memory for the window, or a descriptor that cannot be read at an offset);
// nothing was read then. The input is taken to stay as it is while it is read (bytes held in
// the window are not read again), as for any buffered reader.
static bool read_from_window(mp4_muxer *m, uint64_t position, uint32_t n, uint8_t **block,
                             uint32_t *got) {
    const int fd = input_descriptor(m);
    if (fd < 0 || n > WINDOWED_READ)
        return false;
    if (!m->read_window) {
        // Regular files only (pread needs an offset), and no larger than the file: memory in
        // proportion to the input.
        struct stat st;
        if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size <= 0)
            return false;
        const uint64_t size = (uint64_t(st.st_size) + 4095) & ~uint64_t(4095);
        const uint32_t capacity = size < READ_WINDOW ? uint32_t(size) : READ_WINDOW;
        m->read_window = static_cast<uint8_t *>(mp4_malloc(capacity));
        if (!m->read_window)
            return false;
        m->read_window_capacity = capacity;
        m->read_window_len = 0;
    }
    if (n > m->read_window_capacity)
        return false;
    // Offsets come from the file: compared by differences, which cannot wrap.
    auto held = [&] {
        const uint64_t into = position - m->read_window_start;
        return position < m->read_window_start || into > m->read_window_len
                   ? 0
                   : m->read_window_len - uint32_t(into);
    };
    if (held() < n) {
        // Also when the window ended short of the range: the file may have grown since.
        m->read_window_start = position;
        if (!pread_some(fd, m->read_window, m->read_window_capacity, position,
                        &m->read_window_len)) {
            m->read_window_len = 0;
            return false; // the ordinary path reads it, and reports what goes wrong
        }
    }
    const uint32_t available = held();
    const uint32_t have = available < n ? available : n;
    auto *bytes = static_cast<uint8_t *>(mp4_malloc(have ? have : 1));
    if (!bytes) {
        m->error = MP4_ERR_NOMEM;
        *block = nullptr;
        return true;
    }
    memcpy(bytes, m->read_window + (position - m->read_window_start), have);
    *block = bytes;
    *got = have;
    return true;
}

uint8_t *read_tmp(mp4_muxer *m, uint64_t position, uint32_t n, uint32_t *got) {
    // n is usually a size taken from a file. The block grows as bytes arrive (64 KiB, then
    // doubling), so it never takes much more memory than the input actually holds.
    uint8_t *windowed = nullptr;
    if (read_from_window(m, position, n, &windowed, got))
        return windowed;
    if (m->fd == -1 && !m->fp) {
        // A memory buffer delivers whole reads only: ask for no more than it holds.
        uint64_t end = m->buffer ? m->buffer_start + buffer_readable(m) : 0;
        uint64_t held = position >= m->buffer_start && position < end ? end - position : 0;
        if (n > held)
            n = uint32_t(held);
    }
    const uint8_t ran_out = m->flags & MP4_END_OF_INPUT;
    uint64_t here = muxer_pos(m);
    muxer_seek(m, position);
    uint8_t *block = nullptr;
    uint32_t have = 0, room = 0;
    bool failed = false;
    do {
        uint32_t want = room ? (room > n / 2 ? n : room * 2) : (n < 65536 ? n : 65536);
        void *p = mp4_realloc(block, want);
        if (!p) {
            failed = true;
            break;
        }
        block = static_cast<uint8_t *>(p);
        room = want;
        have += read_n(m, block + have, room - have);
    } while (have == room && have < n);
    muxer_seek(m, here);
    m->flags = uint8_t((m->flags & ~MP4_END_OF_INPUT) | ran_out);
    if (failed) {
        mp4_free(block);
        m->error = MP4_ERR_NOMEM;
        return nullptr;
    }
    *got = have;
    return block;
}

extern "C" void mp4_buf_put(mp4_muxer *m, uint8_t *data, uint32_t size) {
    if (!m)
        return;
    if (m->buffer)
        fprintf(stderr, "%s: warning: buffer already exists\n", "mp4_buf_put");
    m->buffer = data;
    m->buffer_size = size;
    m->buffer_limit = size;
    m->buffer_start = m->pos;
    if (m->overflow_size && !is_reader(m))
        write_n(m, nullptr, 0);
    m->flags &= uint8_t(~MP4_END_OF_INPUT);
}

extern "C" uint32_t mp4_buf_get(mp4_muxer *m) {
    if (!m)
        return 0;
    uint64_t used = m->pos - m->buffer_start;
    uint32_t count = uint32_t(used);
    if (count > m->buffer_size)
        count = m->buffer_size;
    m->buffer = nullptr;
    m->buffer_size = 0;
    m->buffer_limit = 0;
    m->pos += int64_t(m->buffer_adjust);
    m->buffer_adjust = 0;
    return count;
}
