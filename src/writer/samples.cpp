// Sample writing: each encoded sample goes straight to the output, stripped of the stream headers
// that have no place in a stored sample, and is entered into its track's sample tables (plain
// mode) or queued for the next movie fragment (memory-buffer mode).
#include "internal.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>

namespace {

inline bool nalIsSlice(uint8_t header) {
    uint8_t type = header & 0x1F;
    return type == 1 || type == 5;
}

inline bool startsWith3(const uint8_t *d, uint32_t size) {
    return size >= 3 && d[0] == 0 && d[1] == 0 && d[2] == 1;
}

inline bool startsWith4(const uint8_t *d, uint32_t size) {
    return size >= 4 && d[0] == 0 && d[1] == 0 && d[2] == 0 && d[3] == 1;
}

// Offset of the start code of the first coded slice, or size when there is none.
uint32_t firstSlice(const uint8_t *data, uint32_t size) {
    for (uint32_t i = 0; i + 4 < size; i++) {
        if (data[i] != 0 || data[i + 1] != 0)
            continue;
        if (data[i + 2] == 1 && nalIsSlice(data[i + 3]))
            return i;
        if (data[i + 2] == 0 && data[i + 3] == 1 && nalIsSlice(data[i + 4]))
            return i;
    }
    return size;
}

// Writes n bytes in pieces that the stream layer's signed 32-bit length can carry.
void writeBytes(mp4_muxer *m, const uint8_t *p, uint32_t n) {
    while (n > 0) {
        uint32_t k = n > 0x40000000u ? 0x40000000u : n;
        write_n(m, p, int32_t(k));
        p += k;
        n -= k;
    }
}

void writeBE32(mp4_muxer *m, uint32_t v) {
    uint8_t b[4] = {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
    write_n(m, b, 4);
}

// How a sample's bytes are put on the output.
struct Layout {
    const uint8_t *data; // bytes to write after the length, if any
    uint32_t size;       // that many
    bool length_prefix;  // a 4-byte big-endian length (of `size`) goes first
    uint32_t stored;     // bytes the sample occupies once written
};

// A leading start code of an H.264 sample becomes a 4-byte length of the rest.
Layout layoutFor(const uint8_t *data, uint32_t size, bool convert_start_code, bool three_too) {
    if (convert_start_code && startsWith4(data, size))
        return Layout{data + 4, size - 4, true, size};
    if (convert_start_code && three_too && startsWith3(data, size) && size < UINT32_MAX)
        return Layout{data + 3, size - 3, true, size + 1};
    return Layout{data, size, false, size};
}

void writeLayout(mp4_muxer *m, const Layout &l) {
    if (l.length_prefix)
        writeBE32(m, l.size);
    writeBytes(m, l.data, l.size);
}

// A sample already in stored form is a run of 4-byte-length-prefixed NAL units, and files made
// by other muxers often open an IDR access unit with a delimiter or SEI: the first unit that
// decides (a slice, or a parameter set) is the one whose type counts.
bool storedAvcSync(const uint8_t *data, uint32_t size) {
    uint64_t at = 0;
    while (at + 5 <= size) {
        uint32_t len = uint32_t(data[at]) << 24 | uint32_t(data[at + 1]) << 16 |
                       uint32_t(data[at + 2]) << 8 | data[at + 3];
        if (len == 0)
            return false; // no NAL header behind this length: not a unit at all
        uint8_t type = data[at + 4] & 0x1F;
        if (type == 1 || type == 5 || type == 7)
            return type != 1;
        at += 4 + uint64_t(len);
    }
    return false;
}

// The NAL header byte of the first NAL unit of an H.264 sample as it will be stored.
bool avcSync(const uint8_t *data, uint32_t size, bool leading_three) {
    uint32_t at = leading_three ? 3 : 4;
    if (size <= at)
        return false;
    const uint8_t head[5] = {0, 0, 0, 1, data[at]};
    return isIframe(head, 5) == 1;
}

// Tables of one track inside its stbl.
struct Tables {
    Stts *stts;
    Stss *stss;
    Stsc *stsc;
    Stsz *stsz;
    Stco *stco;
    Co64 *co64;
};

// The sample tables of an stbl, each the first child of its type as getChild finds it, in one
// walk over the children instead of one walk per table: this runs for every sample written.
Tables findTables(Box *stbl) {
    Tables t{};
    for (Box *c = stbl->first_child; c; c = c->next) {
        switch (c->type) {
        case fourcc("stts"):
            t.stts = t.stts ? t.stts : static_cast<Stts *>(c);
            break;
        case fourcc("stss"):
            t.stss = t.stss ? t.stss : static_cast<Stss *>(c);
            break;
        case fourcc("stsc"):
            t.stsc = t.stsc ? t.stsc : static_cast<Stsc *>(c);
            break;
        case fourcc("stsz"):
            t.stsz = t.stsz ? t.stsz : static_cast<Stsz *>(c);
            break;
        case fourcc("stco"):
            t.stco = t.stco ? t.stco : static_cast<Stco *>(c);
            break;
        case fourcc("co64"):
            t.co64 = t.co64 ? t.co64 : static_cast<Co64 *>(c);
            break;
        default:
            break;
        }
    }
    return t;
}

Box *findTrak(Box *moov, uint32_t track_id) {
    for (Box *b = getChild(moov, fourcc("trak")); b; b = b->next) {
        if (b->type != fourcc("trak"))
            continue;
        Tkhd *tkhd = static_cast<Tkhd *>(getChild(b, fourcc("tkhd")));
        if (tkhd && tkhd->alloc_size >= sizeof(Tkhd) && tkhd->track_ID == track_id)
            return b;
    }
    return nullptr;
}

// The boxes a sample of one track is written into. Found by a walk over the track's trak, then
// kept in the track record while the tree keeps its shape: this runs for every sample written.
TrackBoxes writerBoxes(mp4_muxer *m, mp4_track *t, uint32_t track_id) {
    const uint64_t generation = box_tree_generation.load(std::memory_order_relaxed);
    if (t->cache_generation == generation && t->cache_moov == m->moov)
        return t->cache;
    TrackBoxes w{};
    w.trak = findTrak(m->moov, track_id);
    if (w.trak) {
        w.mdia = getChild(w.trak, fourcc("mdia"));
        for (Box *b = w.mdia ? w.mdia->first_child : nullptr; b && !(w.mdhd && w.minf);
             b = b->next) {
            if (b->type == fourcc("mdhd") && !w.mdhd)
                w.mdhd = static_cast<Mdhd *>(b);
            else if (b->type == fourcc("minf") && !w.minf)
                w.minf = b;
        }
        w.stbl = getChild(w.minf, fourcc("stbl"));
        if (w.mdhd && w.mdhd->alloc_size < sizeof(Mdhd))
            w.mdhd = nullptr;
    }
    if (w.stbl) {
        // Nodes the codec passed over hold no record.
        auto full = [](auto *b) { return b && b->alloc_size >= sizeof(*b) ? b : nullptr; };
        const Tables tb = findTables(w.stbl);
        w.stts = full(tb.stts), w.stss = full(tb.stss), w.stsc = full(tb.stsc);
        w.stsz = full(tb.stsz), w.stco = full(tb.stco), w.co64 = full(tb.co64);
    }
    t->cache = w;
    t->cache_generation = generation;
    t->cache_moov = m->moov;
    return w;
}

// Brings an entry array taken over from a file to the capacity realloc_p2 assumes for its count,
// so that appending never writes past an exactly sized block.
bool adoptArray(void **entries, uint32_t count, uint32_t entry_size) {
    if (!*entries)
        return true;
    void *copy = nullptr;
    if (realloc_p2(&copy, 0, count, entry_size))
        return false;
    memcpy(copy, *entries, size_t(count) * entry_size);
    mp4_free(*entries);
    *entries = copy;
    return true;
}

// A tree taken over from a reader (the remuxers) is marked for measuring when written, and its
// tables become the writer's own.
bool adoptTrak(mp4_muxer *m, Box *trak, Box *mdia, Box *mdhd, Box *minf, Box *stbl,
               const Tables &t) {
    for (Box *b : {getChild(m->moov, fourcc("mvhd")), trak, getChild(trak, fourcc("tkhd")), mdia,
                   mdhd, minf, stbl})
        if (b)
            b->node_flags |= BOX_AUTO_SIZE;
    if (!m->max_moov_size)
        m->moov->node_flags |= BOX_AUTO_SIZE;
    bool ok = true;
    auto own = [&](Box *b, void **entries, uint32_t count, uint32_t entry_size) {
        if (!b)
            return;
        b->node_flags |= BOX_AUTO_SIZE;
        if (!(b->node_flags & BOX_OWNS_ARRAYS) && *entries) {
            // Not ours to free or grow: start a copy of our own.
            void *copy = nullptr;
            if (realloc_p2(&copy, 0, count, entry_size)) {
                ok = false;
                return;
            }
            memcpy(copy, *entries, size_t(count) * entry_size);
            *entries = copy;
        } else if (!adoptArray(entries, count, entry_size)) {
            ok = false;
            return;
        }
        b->node_flags |= BOX_OWNS_ARRAYS;
    };
    own(t.stts, reinterpret_cast<void **>(&t.stts->entries), t.stts->entry_count,
        sizeof(SttsEntry));
    if (t.stss)
        own(t.stss, reinterpret_cast<void **>(&t.stss->entries), t.stss->entry_count, 4);
    own(t.stsc, reinterpret_cast<void **>(&t.stsc->entries), t.stsc->entry_count,
        sizeof(StscEntry));
    own(t.stsz, reinterpret_cast<void **>(&t.stsz->entries),
        t.stsz->sample_size ? 0 : t.stsz->sample_count, 4);
    if (t.stco)
        own(t.stco, reinterpret_cast<void **>(&t.stco->entries), t.stco->entry_count, 4);
    if (t.co64)
        own(t.co64, reinterpret_cast<void **>(&t.co64->entries), t.co64->entry_count, 8);
    return ok;
}

// Appends one entry to a table; false (error 2 recorded) when it cannot grow.
template <class E> bool append(mp4_muxer *m, E **entries, uint32_t *count, const E &value) {
    if (*count == UINT32_MAX ||
        realloc_p2(reinterpret_cast<void **>(entries), *count, *count + 1, sizeof(E))) {
        m->error = MP4_ERR_NOMEM;
        return false;
    }
    (*entries)[(*count)++] = value;
    return true;
}

// Opens a new chunk at pos: stco, or co64 once the offset needs 64 bits.
bool openChunk(mp4_muxer *m, Box *stbl, Tables &t, uint64_t pos) {
    if (t.stco && pos > 0xFFFFFFFFull) {
        uint32_t n = t.stco->entry_count;
        uint64_t *wide = nullptr;
        if (n == UINT32_MAX || realloc_p2(reinterpret_cast<void **>(&wide), 0, n + 1, 8)) {
            m->error = MP4_ERR_NOMEM;
            return false;
        }
        for (uint32_t i = 0; i < n; i++)
            wide[i] = t.stco->entries[i];
        wide[n] = pos;
        Co64 *co64 = static_cast<Co64 *>(newBox(fourcc("co64"), 16 + 8 * (n + 1)));
        co64->entries = wide;
        co64->entry_count = n + 1;
        // A movie written into a reserved region keeps the region's size, whatever its
        // boxes do.
        const uint64_t fixed = (m->moov->node_flags & BOX_AUTO_SIZE) ? 0 : m->moov->size;
        deleteBox(t.stco);
        addBox(co64, stbl);
        if (fixed)
            m->moov->size = fixed;
        t.stco = nullptr;
        t.co64 = co64;
        return true;
    }
    if (t.stco)
        return append<uint32_t>(m, &t.stco->entries, &t.stco->entry_count, uint32_t(pos));
    return append<uint64_t>(m, &t.co64->entries, &t.co64->entry_count, pos);
}

void writeFragmentSample(mp4_muxer *m, uint32_t track_id, const uint8_t *data, uint32_t size,
                         uint32_t duration, bool stored) {
    mp4_track *t = &m->tracks[track_id - 1];
    bool avc = t->fourcc == fourcc("avc1");
    if (!stored) {
        uint32_t skip = skip_video_header(data, size);
        if (t->fourcc == fourcc("mp4a"))
            skip = skip_aac_header(data, size);
        else if (avc && skip == 0 && startsWith3(data, size) && !nalIsSlice(size > 3 ? data[3] : 0))
            skip = firstSlice(data, size);
        if (skip >= size && skip)
            return; // headers only: nothing to store
        data += skip;
        size -= skip;
    }
    // A leading 4-byte start code becomes the length (for any codec); a 3-byte one for H.264.
    Layout l = layoutFor(data, size, !stored && size > 3, avc);
    uint32_t n = t->sample_count + 1;
    if (n > t->sample_alloc) {
        // Doubling: a fragment may queue many thousands of samples (a PCM track, a long run of
        // audio before the next video sample), and growing one by one would copy the queue
        // for every sample.
        uint32_t room = t->sample_alloc > (UINT32_MAX >> 1) ? n : t->sample_alloc * 2;
        if (room < 16)
            room = 16;
        void *p = n ? mp4_realloc(t->samples, size_t(room) * sizeof(mp4_sample)) : nullptr;
        if (!p) {
            fprintf(stderr, "%s: failed to reallocate fragment buffer\n", "mp4_write_track");
            m->error = MP4_ERR_NOMEM;
            return;
        }
        t->samples = static_cast<mp4_sample *>(p);
        t->sample_alloc = room;
    }
    t->sample_count = n;
    uint64_t box_size = uint64_t(l.stored) + 8;
    if (box_size > 0xFFFFFFFFull) {
        uint32_t one = 1, type = fourcc("mdat");
        box_size += 8;
        rw32(m, &one);
        rw32(m, &type);
        rw64(m, &box_size);
    } else {
        uint32_t s32 = uint32_t(box_size), type = fourcc("mdat");
        rw32(m, &s32);
        rw32(m, &type);
    }
    uint64_t data_pos = muxer_pos(m);
    writeLayout(m, l);
    t->samples[n - 1] = mp4_sample{data_pos, l.stored, duration};
}

// The one path of every sample into a plain movie. `stored` samples are already in their stored
// form (length-prefixed H.264, raw AAC): nothing of the encoder-output handling applies.
void writeSample(mp4_muxer *m, uint32_t track_id, const uint8_t *data, uint32_t size,
                 uint32_t duration, bool stored) {
    if (is_reader(m)) {
        m = m->linked;
        if (!m || is_reader(m))
            return;
    }
    if (track_id == 0 || track_id >= m->next_track_id || !data || !m->tracks)
        return;
    mp4_track *t = &m->tracks[track_id - 1];
    uint64_t pos = muxer_pos(m);
    if (m->buffer) {
        writeFragmentSample(m, track_id, data, size, duration, stored);
        return;
    }
    if (!m->moov) {
        const bool at_start = pos == 0;
        if (at_start)
            write_ftyp(m);
        create_moov(m);
        if (!m->moov) {
            m->error = MP4_ERR_NOMEM;
            return;
        }
        if (at_start)
            setup_moov_at_start(m);
        pos = muxer_pos(m);
    }
    if (!m->mdat) {
        // Room in front of the mdat header to widen it to 64 bits when it is patched.
        DataBox pad{};
        pad.type = (m->flags & MP4_MOV) ? fourcc("wide") : fourcc("free");
        pad.size = 8;
        rwBox(m, &pad);
        Box *mdat = newBox(fourcc("mdat"), 8);
        if (!rwBox(m, mdat)) {
            deleteBox(mdat);
            return;
        }
        m->mdat = mdat;
        m->flags |= MP4_NEW_CHUNK;
        pos = mdat->data_pos;
        // With the movie kept at the start, the file on disk is a complete movie from here on,
        // as after every update: empty so far. (A stream with a large buffer would otherwise
        // still hold it.)
        if (m->max_moov_size && !m->moov_full)
            flush_output(m);
    }

    const bool avc = t->fourcc == fourcc("avc1");
    bool leading_three = false;
    uint32_t skip = 0;
    if (!stored) {
        if (avc || t->fourcc == fourcc("mp4v")) {
            skip = skip_video_header(data, size);
            const uint8_t *header = data;
            uint8_t widened[1024];
            if (avc && skip == 0 && startsWith3(data, size) && size > 3 && !nalIsSlice(data[3])) {
                // An access unit that opens with a 3-byte start code: its headers are found the
                // same way, and handed on behind a 4-byte start code.
                skip = firstSlice(data, size);
                uint32_t n = skip < sizeof widened - 1 ? skip : uint32_t(sizeof widened - 1);
                widened[0] = 0;
                memcpy(widened + 1, data, n);
                header = widened;
                if (skip && (m->sps_size == 0 || m->pps_size == 0))
                    mp4_set_parameter_data(m, header, n + 1);
            } else if (skip && (m->sps_size == 0 || m->pps_size == 0)) {
                mp4_set_parameter_data(m, header, skip);
            }
        } else if (t->fourcc == fourcc("mp4a")) {
            skip = skip_aac_header(data, size);
        }
    }

    if (m->interleave_duration && t->handler_type == fourcc("soun")) {
        uintptr_t from = reinterpret_cast<uintptr_t>(data);
        uintptr_t lo = reinterpret_cast<uintptr_t>(m->interleave_buffer);
        uintptr_t hi = lo + m->interleave_size;
        if (!m->interleave_buffer || from < lo || from > hi || size > hi - from) {
            track_interleave(m, track_id, data, size, duration);
            return;
        }
    }

    if (skip) {
        if (skip >= size)
            return;
        data += skip;
        size -= skip;
    }
    leading_three = avc && !stored && !startsWith4(data, size) && startsWith3(data, size);
    Layout l = layoutFor(data, size, avc && !stored, true);

    if (m->max_file_size && pos + l.stored + checkBoxSize(m->moov) + 1024 > m->max_file_size) {
        m->error = MP4_ERR_SIZE_LIMIT;
        return;
    }
    writeLayout(m, l);
    m->mdat->size += l.stored;

    const TrackBoxes wb = writerBoxes(m, t, track_id);
    Box *trak = wb.trak;
    if (!trak)
        return;
    Mdhd *mdhd = wb.mdhd;
    const uint64_t start_time = mdhd ? mdhd->duration : 0;
    if (mdhd)
        mdhd->duration += duration;
    if (!wb.stbl || size == 0)
        return;
    Box *mdia = wb.mdia, *minf = wb.minf, *stbl = wb.stbl;
    Tables tb{wb.stts, wb.stss, wb.stsc, wb.stsz, wb.stco, wb.co64};
    if (!tb.stts || !tb.stsc || !tb.stsz || !(tb.stco || tb.co64))
        return;
    if (!(trak->node_flags & BOX_AUTO_SIZE)) {
        if (!adoptTrak(m, trak, mdia, mdhd, minf, stbl, tb)) {
            m->error = MP4_ERR_NOMEM;
            return;
        }
        trak->node_flags |= BOX_AUTO_SIZE;
    }

    uint32_t count = 1;
    if (t->fourcc == fourcc("sowt")) {
        // Every PCM frame is one sample of duration 1.
        count = duration;
        duration = 1;
    }

    Stts *stts = tb.stts;
    if (!(stts->entry_count && stts->entries[stts->entry_count - 1].sample_delta == duration)) {
        if (!append(m, &stts->entries, &stts->entry_count, SttsEntry{0, duration}))
            return;
    }
    stts->entries[stts->entry_count - 1].sample_count += count;

    uint32_t chunks = tb.stco ? tb.stco->entry_count : tb.co64->entry_count;
    if (chunks == 0 || pos != tb.stsc->chunk_end)
        m->flags |= MP4_NEW_CHUNK;
    const bool new_chunk = (m->flags & MP4_NEW_CHUNK) != 0;

    Stsz *stsz = tb.stsz;
    if (stsz->sample_size) {
        stsz->sample_count += count;
    } else {
        if (!append(m, &stsz->entries, &stsz->sample_count, l.stored))
            return;
    }

    bool sync = false;
    if (tb.stss) {
        sync = avc ? (stored ? storedAvcSync(data, size) : avcSync(data, size, leading_three))
                   : isIframe(data, size) == 1;
        if (sync && !append(m, &tb.stss->entries, &tb.stss->entry_count, stsz->sample_count))
            return;
    }

    if (mdhd && (m->callback || m->sample_fn)) {
        // The bytes reported must be on file when the caller looks.
        flush_output(m);
        uint32_t flags = tb.stss ? (sync ? 1 : 0) : 2;
        report_sample(m, track_id, pos, start_time, l.stored, flags);
    }

    if (new_chunk) {
        if (!openChunk(m, stbl, tb, pos))
            return;
        chunks++;
    }

    Stsc *stsc = tb.stsc;
    if (!(stsc->entry_count && stsc->entries[stsc->entry_count - 1].first_chunk == chunks)) {
        uint32_t carried = 0;
        if (!new_chunk && stsc->entry_count)
            carried = stsc->entries[stsc->entry_count - 1].samples_per_chunk;
        // Runs of equal chunks share one entry: an entry that would equal the last one is not
        // added (appending it only to drop it again would grow the array at a boundary of
        // realloc_p2 on every sample of such a run).
        const uint32_t per_chunk = carried + count;
        if (!(stsc->entry_count &&
              stsc->entries[stsc->entry_count - 1].samples_per_chunk == per_chunk) &&
            !append(m, &stsc->entries, &stsc->entry_count, StscEntry{chunks, per_chunk, 1}))
            return;
    } else {
        stsc->entries[stsc->entry_count - 1].samples_per_chunk += count;
        if (stsc->entry_count >= 2 && stsc->entries[stsc->entry_count - 1].samples_per_chunk ==
                                          stsc->entries[stsc->entry_count - 2].samples_per_chunk)
            stsc->entry_count--;
    }
    stsc->chunk_end = pos + l.stored;
    m->flags &= uint8_t(~MP4_NEW_CHUNK);

    if (tb.stss && m->moov_interval)
        update_moov_atom(m, duration);
}

} // namespace

extern "C" void mp4_write_track(mp4_muxer *m, uint32_t track_id, const uint8_t *data, uint32_t size,
                                uint32_t duration) {
    if (!m)
        return;
    mp4_muxer *w = is_reader(m) ? m->linked : m;
    if (!w)
        return;
    writeSample(w, track_id, data, size, duration, w->stored_form != 0);
}

void write_stored_sample(mp4_muxer *m, uint32_t track_id, const uint8_t *data, uint32_t size,
                         uint32_t duration) {
    if (m)
        writeSample(m, track_id, data, size, duration, true);
}

extern "C" void mp4_write_skip_data(mp4_muxer *m, const uint8_t *data, uint32_t size) {
    if (!m || size == 0)
        return;
    if (is_reader(m)) {
        m = m->linked;
        if (!m || is_reader(m))
            return;
    }
    DataBox skip{};
    skip.type = fourcc("skip");
    skip.size = uint64_t(size) + 8;
    skip.data = const_cast<uint8_t *>(data); // only read: the box is being written
    rwBox(m, &skip);
    // Inside an open mdat the box is part of its payload, so the size patched at the finish
    // still matches the position.
    if (m->mdat && !m->buffer)
        m->mdat->size += uint64_t(size) + 8;
}

uint32_t skip_video_header(const uint8_t *data, uint32_t size) {
    if (!data || size < 5 || data[0] != 0 || data[1] != 0)
        return 0;
    if (data[2] == 0 && data[3] == 1 && (data[4] & 0x9F) == 1)
        return 0; // a non-IDR slice right away
    if (data[2] == 1) {
        if (data[3] != 0xB0)
            return 0;
        // MPEG-4 Visual: the configuration runs up to the first video object plane.
        for (uint32_t i = 0; i <= 128 && i + 4 <= size; i++)
            if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1 && data[i + 3] == 0xB6)
                return i;
        return 0;
    }
    if (data[2] != 0 || data[3] != 1)
        return 0;
    return firstSlice(data, size);
}

uint32_t skip_aac_header(const uint8_t *data, uint32_t size) {
    if (!data || size <= 1 || data[0] != 0xFF || (data[1] & 0xF0) != 0xF0)
        return 0;
    return (data[1] & 1) ? 7 : 9; // without / with the CRC
}

int isIframe(const uint8_t *data, uint32_t size) {
    if (!data)
        return 0;
    if (startsWith3(data, size)) {
        // MPEG-4 Visual: step over the headers that may precede the plane.
        uint32_t p = 0;
        auto at = [&](uint32_t k) -> int { return p + k < size ? data[p + k] : -1; };
        if (at(3) == 0xB0)
            p += 5;
        if (at(3) == 0xB5)
            p += 6;
        if (at(3) == 0x00)
            p += 3;
        if (at(3) == 0x20)
            p += 25;
        int code = at(3), type = at(4);
        if (code != 0xB6) {
            // Headers of other lengths (a group of planes, a longer object layer): the plane
            // is the first one within the sample's opening bytes.
            for (uint32_t i = 0; i + 4 < size && i < 1024; i++) {
                if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1 && data[i + 3] == 0xB6) {
                    code = 0xB6;
                    type = data[i + 4];
                    break;
                }
            }
        }
        return code == 0xB6 && type >= 0 && (type & 0xC0) == 0 ? 1 : 0;
    }
    if (size < 5)
        return 0;
    uint8_t type = data[4] & 0x1F;
    return type == 5 || type == 7 ? 1 : 0;
}

int realloc_p2(void **array, uint32_t old_count, uint32_t new_count, uint32_t entry_size) {
    uint64_t old_bytes = uint64_t(old_count) * entry_size;
    uint64_t new_bytes = uint64_t(new_count) * entry_size;
    // Called for every table entry appended, so the power of two comes from a bit count rather
    // than a loop.
    auto round = [&](uint64_t n) -> uint64_t {
        if (new_bytes > 0xFFFFF)
            return (n + 0xFFFFF) & ~uint64_t(0xFFFFF);
        if (n <= 1)
            return n;
        return uint64_t(1) << (64 - __builtin_clzll(n - 1));
    };
    uint64_t old_round = round(old_bytes), new_round = round(new_bytes);
    if (*array && old_round == new_round)
        return 0;
    void *p = new_round <= 0xFFFFFFFFull ? mp4_realloc(*array, size_t(new_round)) : nullptr;
    if (!p) {
        fprintf(stderr, "failed to allocate %u bytes\n", unsigned(new_round));
        return 1;
    }
    *array = p;
    return 0;
}
