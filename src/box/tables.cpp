// Field descriptions of the sample tables. Each holds its entries in one counted heap array,
// allocated on reading from the count before the entries are read; writing emits exactly the
// stored count.
#include "box/layouts.h"

namespace {

template <class T> T *enlarge(Box **box) {
    return static_cast<T *>(extendBox(box, sizeof(T)));
}

// Allocates the entry array of a table being read. Returns false only when the allocator failed
// (the driver then takes its allocation exit); input too short for the count leaves entries null
// with end_of_input set, which the driver turns into its rewind exit.
template <class E>
bool allocTable(mp4_muxer *m, Box *b, E **entries, uint32_t count, size_t disk_entry_size) {
    *entries = nullptr;
    if (!is_reader(m) || count == 0)
        return true;
    *entries = static_cast<E *>(allocEntries(m, count, sizeof(E), disk_entry_size));
    if (!*entries)
        return at_end_of_input(m);
    b->node_flags |= BOX_OWNS_ARRAYS;
    return true;
}

// Codes `count` entries with `fn`. Stops once reading runs out of input (the box is discarded
// then anyway). A writer whose array is missing writes zero entries of the stored count.
template <class E, class F> void codeEntries(mp4_muxer *m, E *entries, uint32_t count, F fn) {
    for (uint32_t i = 0; i < count; i++) {
        E zero{};
        fn(entries ? entries[i] : zero);
        if (is_reader(m) && at_end_of_input(m))
            break;
    }
}

// Whether `bytes` more can be put to the output without reaching it: there is no output (only
// the position moves), or a memory buffer with room for them, or stdio buffers with room for
// them (glibc keeps no room there for line-buffered and unbuffered streams). No write can fail
// then, and none is made, just as for the same bytes put field by field.
bool absorbs(const mp4_muxer *m, uint64_t bytes) {
    if (m->fd != -1)
        return false;
    if (m->fp) {
#if defined(__GLIBC__)
        auto room = [bytes](const FILE *f) {
            return f->_IO_write_ptr && f->_IO_write_end > f->_IO_write_ptr &&
                   uint64_t(f->_IO_write_end - f->_IO_write_ptr) >= bytes;
        };
        return room(m->fp) && (!m->fp2 || room(m->fp2));
#else
        return false;
#endif
    }
    if (!m->buffer)
        return true;
    return m->pos >= m->buffer_start && m->pos - m->buffer_start < 0x80000000u &&
           m->pos - m->buffer_start + bytes <= m->buffer_size;
}

// Writes the entries as big-endian words, the same bytes as codeEntries, in runs of up to 4 KiB
// per write where the output absorbs them, field by field elsewhere, so that a write that fails
// does so at the same field as ever. A movie kept at the start of a file is coded twice for
// every update and the final movie once more; field by field its tables were most of a
// recording's cost. Returns how many entries were written (all of them, or none for a reader, a
// missing array or a descriptor, which the caller codes field by field).
template <class W, class E> uint32_t writeRuns(mp4_muxer *m, const E *entries, uint32_t count) {
    static_assert(sizeof(E) % sizeof(W) == 0, "entries are whole words");
    if (is_reader(m) || !entries || m->fd != -1)
        return 0;
    constexpr uint32_t per_run = 4096 / sizeof(E);
    constexpr size_t words = sizeof(E) / sizeof(W);
    uint32_t done = 0;
    if (!m->fp && !m->buffer) {
        // Without an output only the position moves (the movie is being measured).
        while (done < count) {
            const uint32_t k = count - done < (1u << 24) ? count - done : (1u << 24);
            write_n(m, nullptr, int32_t(uint64_t(k) * sizeof(E)));
            done += k;
        }
        return done;
    }
    W run[per_run * words];
    while (done < count) {
        const uint32_t k = count - done < per_run ? count - done : per_run;
        const uint64_t bytes = uint64_t(k) * sizeof(E);
        const W *from = reinterpret_cast<const W *>(entries + done);
        const bool whole = absorbs(m, bytes);
        for (size_t i = 0; i < k * words; i++) {
            W w = from[i];
            if constexpr (sizeof(W) == 8) {
                if (!whole)
                    rw64(m, &w);
                run[i] = __builtin_bswap64(w);
            } else {
                if (!whole)
                    rw32(m, &w);
                run[i] = __builtin_bswap32(w);
            }
        }
        if (whole)
            write_n(m, run, int32_t(bytes));
        done += k;
    }
    return done;
}

} // namespace

bool codeStts(mp4_muxer *m, Box **box, uint64_t) {
    Stts *b = enlarge<Stts>(box);
    if (!b)
        return false;
    rwFullBox(m, b);
    rw32(m, &b->entry_count);
    if (is_reader(m) && !allocTable(m, b, &b->entries, b->entry_count, 8))
        return false;
    const uint32_t fast = writeRuns<uint32_t>(m, b->entries, b->entry_count);
    codeEntries(m, b->entries ? b->entries + fast : nullptr, b->entry_count - fast,
                [m](SttsEntry &e) {
                    rw32(m, &e.sample_count);
                    rw32(m, &e.sample_delta);
                });
    return true;
}

bool codeCtts(mp4_muxer *m, Box **box, uint64_t) {
    Ctts *b = enlarge<Ctts>(box);
    if (!b)
        return false;
    rwFullBox(m, b);
    rw32(m, &b->entry_count);
    if (is_reader(m) && !allocTable(m, b, &b->entries, b->entry_count, 8))
        return false;
    // Version 1 offsets are signed; the bits are the same either way.
    codeEntries(m, b->entries, b->entry_count, [m](CttsEntry &e) {
        rw32(m, &e.sample_count);
        rw32(m, &e.sample_offset);
    });
    return true;
}

bool codeStss(mp4_muxer *m, Box **box, uint64_t) {
    Stss *b = enlarge<Stss>(box);
    if (!b)
        return false;
    rwFullBox(m, b);
    rw32(m, &b->entry_count);
    if (is_reader(m) && !allocTable(m, b, &b->entries, b->entry_count, 4))
        return false;
    const uint32_t fast = writeRuns<uint32_t>(m, b->entries, b->entry_count);
    codeEntries(m, b->entries ? b->entries + fast : nullptr, b->entry_count - fast,
                [m](uint32_t &e) { rw32(m, &e); });
    return true;
}

bool codeStsz(mp4_muxer *m, Box **box, uint64_t) {
    Stsz *b = enlarge<Stsz>(box);
    if (!b)
        return false;
    rwFullBox(m, b);
    rw32(m, &b->sample_size);
    rw32(m, &b->sample_count);
    // Sizes are listed only when they are not all the same.
    uint32_t listed = b->sample_size == 0 ? b->sample_count : 0;
    if (is_reader(m) && !allocTable(m, b, &b->entries, listed, 4))
        return false;
    const uint32_t fast = writeRuns<uint32_t>(m, b->entries, listed);
    codeEntries(m, b->entries ? b->entries + fast : nullptr, listed - fast,
                [m](uint32_t &e) { rw32(m, &e); });
    m->sample_count = b->sample_count;
    return true;
}

bool codeStz2(mp4_muxer *m, Box **box, uint64_t) {
    Stz2 *b = enlarge<Stz2>(box);
    if (!b)
        return false;
    rwFullBox(m, b);
    reserved(m, 24);
    rw8(m, &b->field_size);
    rw32(m, &b->sample_count);
    // The packed sizes are kept as they are on disk. The bit count is a 32-bit product.
    uint32_t bits = b->sample_count * b->field_size;
    uint32_t bytes = uint32_t((uint64_t(bits) + 7) / 8);
    if (is_reader(m) && !allocTable(m, b, &b->entries, bytes, 1))
        return false;
    codeEntries(m, b->entries, bytes, [m](uint8_t &e) { rw8(m, &e); });
    return true;
}

bool codeStsc(mp4_muxer *m, Box **box, uint64_t) {
    Stsc *b = enlarge<Stsc>(box);
    if (!b)
        return false;
    rwFullBox(m, b);
    rw32(m, &b->entry_count);
    if (is_reader(m) && !allocTable(m, b, &b->entries, b->entry_count, 12))
        return false;
    const uint32_t fast = writeRuns<uint32_t>(m, b->entries, b->entry_count);
    codeEntries(m, b->entries ? b->entries + fast : nullptr, b->entry_count - fast,
                [m](StscEntry &e) {
                    rw32(m, &e.first_chunk);
                    rw32(m, &e.samples_per_chunk);
                    rw32(m, &e.sample_description_index);
                });
    return true;
}

bool codeStco(mp4_muxer *m, Box **box, uint64_t) {
    Stco *b = enlarge<Stco>(box);
    if (!b)
        return false;
    rwFullBox(m, b);
    rw32(m, &b->entry_count);
    if (is_reader(m) && !allocTable(m, b, &b->entries, b->entry_count, 4))
        return false;
    const uint32_t fast = writeRuns<uint32_t>(m, b->entries, b->entry_count);
    codeEntries(m, b->entries ? b->entries + fast : nullptr, b->entry_count - fast,
                [m](uint32_t &e) { rw32(m, &e); });
    return true;
}

bool codeCo64(mp4_muxer *m, Box **box, uint64_t) {
    Co64 *b = enlarge<Co64>(box);
    if (!b)
        return false;
    rwFullBox(m, b);
    rw32(m, &b->entry_count);
    if (is_reader(m) && !allocTable(m, b, &b->entries, b->entry_count, 8))
        return false;
    const uint32_t fast = writeRuns<uint64_t>(m, b->entries, b->entry_count);
    codeEntries(m, b->entries ? b->entries + fast : nullptr, b->entry_count - fast,
                [m](uint64_t &e) { rw64(m, &e); });
    return true;
}
