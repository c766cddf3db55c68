// Movie fragment boxes: the mvex defaults, the moof/traf headers and sample runs, and the
// random-access index. Reading a trun hands every sample to the remuxer's callback, which is
// how the defragmenting remuxer copies sample data while the fragment is parsed.
#include "box/layouts.h"

#include <cstdio>

namespace {

// tfhd flags
enum : uint32_t {
    TFHD_BASE_DATA_OFFSET = 0x000001,
    TFHD_SAMPLE_DESCRIPTION_INDEX = 0x000002,
    TFHD_DEFAULT_DURATION = 0x000008,
    TFHD_DEFAULT_SIZE = 0x000010,
    TFHD_DEFAULT_FLAGS = 0x000020,
};

// trun flags
enum : uint32_t {
    TRUN_DATA_OFFSET = 0x000001,
    TRUN_FIRST_SAMPLE_FLAGS = 0x000004,
    TRUN_DURATION = 0x000100,
    TRUN_SIZE = 0x000200,
    TRUN_FLAGS = 0x000400,
    TRUN_COMPOSITION_OFFSET = 0x000800,
};

// A trun whose samples carry no fields of their own takes no input per sample, so its count is
// not bounded by the input; this bounds it instead (16 MiB of sample records, which is 20
// seconds of 48 kHz PCM in one run).
constexpr uint32_t MAX_FIELDLESS_SAMPLES = 1u << 20;

// The record of a node of the expected type, or null when the node is missing or was never
// extended to its record.
template <typename T> T *record(Box *box, uint32_t type) {
    if (!box || box->type != type || box->alloc_size < sizeof(T))
        return nullptr;
    return static_cast<T *>(box);
}

// The sample records of a trun being read. Samples with fields of their own are bounded by the
// input (allocEntries); samples without any take no input, so a fixed bound stands in for it.
// A count beyond either is input that ran out.
TrunSample *allocSamples(mp4_muxer *m, uint32_t count, uint32_t wire_size) {
    if (wire_size)
        return static_cast<TrunSample *>(allocEntries(m, count, sizeof(TrunSample), wire_size));
    if (count > MAX_FIELDLESS_SAMPLES) {
        m->flags |= MP4_END_OF_INPUT;
        return nullptr;
    }
    return static_cast<TrunSample *>(mp4_calloc(count, sizeof(TrunSample)));
}

// An unsigned field of 1 to 4 bytes.
void rwSized(mp4_muxer *m, uint32_t *p, unsigned bytes) {
    switch (bytes) {
    case 1: {
        uint8_t v = uint8_t(*p);
        rw8(m, &v);
        *p = v;
        break;
    }
    case 2: {
        uint16_t v = uint16_t(*p);
        rw16(m, &v);
        *p = v;
        break;
    }
    case 3:
        rw24(m, p);
        break;
    default:
        rw32(m, p);
        break;
    }
}

// Where a trun's samples lie and which defaults they start from.
struct RunContext {
    uint64_t data_pos = 0;
    const Trex *defaults = nullptr;
};

RunContext runContext(mp4_muxer *m, Box *trun) {
    RunContext ctx;
    Box *traf = trun->parent;
    if (!traf || traf->type != fourcc("traf"))
        return ctx;
    Box *tfhd_node = getChild(traf, fourcc("tfhd"));
    Box *first_trex = getChild(getChild(m->moov, fourcc("mvex")), fourcc("trex"));
    const Tfhd *tfhd = record<Tfhd>(tfhd_node, fourcc("tfhd"));
    if (!tfhd) {
        ctx.defaults = record<Trex>(first_trex, fourcc("trex"));
        return ctx;
    }
    if (tfhd->flags & TFHD_BASE_DATA_OFFSET)
        ctx.data_pos = tfhd->base_data_offset;
    for (Box *b = first_trex; b; b = b->next) {
        const Trex *trex = record<Trex>(b, fourcc("trex"));
        if (trex && trex->track_ID == tfhd->track_ID) {
            ctx.defaults = trex;
            break;
        }
    }
    return ctx;
}

unsigned popcount(uint32_t v) {
    return unsigned(__builtin_popcount(v));
}

} // namespace

bool codeMehd(mp4_muxer *m, Box **box, uint64_t) {
    auto *b = static_cast<Mehd *>(extendBox(box, sizeof(Mehd)));
    if (!b)
        return false;
    if (!is_reader(m))
        b->version = uint8_t(req64(b->fragment_duration));
    rwFullBox(m, b);
    if (b->version == 1)
        rw64(m, &b->fragment_duration);
    else
        rw32as64(m, &b->fragment_duration);
    return true;
}

bool codeTrex(mp4_muxer *m, Box **box, uint64_t) {
    auto *b = static_cast<Trex *>(extendBox(box, sizeof(Trex)));
    if (!b)
        return false;
    rwFullBox(m, b);
    rw32(m, &b->track_ID);
    rw32(m, &b->default_sample_description_index);
    rw32(m, &b->default_sample_duration);
    rw32(m, &b->default_sample_size);
    rw32(m, &b->default_sample_flags);
    // Defaults for a track the handle does not have (0, or past the array) have nowhere to go.
    if (is_reader(m) && !at_end_of_input(m) && m->tracks && b->track_ID >= 1 &&
        b->track_ID < m->next_track_id) {
        mp4_track *t = &m->tracks[b->track_ID - 1];
        t->default_duration = b->default_sample_duration;
        t->default_size = b->default_sample_size;
        t->default_flags = b->default_sample_flags;
    }
    return true;
}

bool codeMfhd(mp4_muxer *m, Box **box, uint64_t) {
    auto *b = static_cast<Mfhd *>(extendBox(box, sizeof(Mfhd)));
    if (!b)
        return false;
    rwFullBox(m, b);
    rw32(m, &b->sequence_number);
    return true;
}

bool codeTfhd(mp4_muxer *m, Box **box, uint64_t) {
    auto *b = static_cast<Tfhd *>(extendBox(box, sizeof(Tfhd)));
    if (!b)
        return false;
    rwFullBox(m, b);
    rw32(m, &b->track_ID);
    m->current_track_id = b->track_ID;
    if (b->flags & TFHD_BASE_DATA_OFFSET)
        rw64(m, &b->base_data_offset);
    if (b->flags & TFHD_SAMPLE_DESCRIPTION_INDEX)
        rw32(m, &b->sample_description_index);
    if (b->flags & TFHD_DEFAULT_DURATION)
        rw32(m, &b->default_sample_duration);
    if (b->flags & TFHD_DEFAULT_SIZE)
        rw32(m, &b->default_sample_size);
    if (b->flags & TFHD_DEFAULT_FLAGS)
        rw32(m, &b->default_sample_flags);
    // Each track fragment starts a new chunk in the remuxer's output.
    if (m->remux_callback && m->linked)
        m->linked->flags |= MP4_NEW_CHUNK;
    if (is_reader(m))
        m->tfhd_duration = (b->flags & TFHD_DEFAULT_DURATION) ? b->default_sample_duration : 0;
    return true;
}

bool codeTrun(mp4_muxer *m, Box **box, uint64_t) {
    auto *t = static_cast<Trun *>(extendBox(box, sizeof(Trun)));
    if (!t)
        return false;
    RunContext ctx = runContext(m, t);
    const uint32_t per_sample = t->flags & 0xF00;
    const bool reading = is_reader(m);
    // Samples with fields need their records; a count without them would be a corrupt box.
    if (!reading && per_sample && !t->samples)
        t->sample_count = 0;

    rwFullBox(m, t);
    const uint32_t flags = t->flags;
    rw32(m, &t->sample_count);
    if (flags & TRUN_DATA_OFFSET) {
        uint32_t v = uint32_t(t->data_offset);
        rw32(m, &v);
        t->data_offset = int32_t(v);
        ctx.data_pos += uint64_t(int64_t(t->data_offset)); // sign-extended, may step back
    }
    if (flags & TRUN_FIRST_SAMPLE_FLAGS)
        rw32(m, &t->first_sample_flags);

    if (reading) {
        if (at_end_of_input(m) || !t->sample_count)
            return true;
        t->samples = allocSamples(m, t->sample_count, 4 * popcount(flags & 0xF00));
        if (!t->samples)
            return at_end_of_input(m); // true: the input ran out; false: no memory
        t->node_flags |= BOX_OWNS_ARRAYS;
    } else if (!(flags & 0xF00)) {
        return true; // nothing per sample to write
    }

    for (uint32_t i = 0; i < t->sample_count; i++) {
        TrunSample *s = &t->samples[i];
        if (reading) {
            // The track's trex defaults; the tfhd defaults are not consulted here.
            s->sample_duration = ctx.defaults ? ctx.defaults->default_sample_duration : 0;
            s->sample_size = ctx.defaults ? ctx.defaults->default_sample_size : 0;
        }
        if (flags & TRUN_DURATION)
            rw32(m, &s->sample_duration);
        if (flags & TRUN_SIZE)
            rw32(m, &s->sample_size);
        if (flags & TRUN_FLAGS)
            rw32(m, &s->sample_flags);
        if (flags & TRUN_COMPOSITION_OFFSET)
            rw32(m, &s->sample_composition_time_offset);
        if (!reading)
            continue;
        if (at_end_of_input(m))
            break; // the box is discarded; samples past the input are not handed on
        uint32_t size = s->sample_size;
        if (m->remux_callback) {
            uint32_t used =
                m->remux_callback(m, m->current_track_id, ctx.data_pos, size, s->sample_duration);
            if ((flags & TRUN_SIZE) && used != size) {
                printf("WARNING: TRUN sample[%d] size %u should be %u\n", int(i), size, used);
                s->sample_size = used;
            }
        }
        ctx.data_pos += size;
    }
    return true;
}

bool codeTfra(mp4_muxer *m, Box **box, uint64_t) {
    auto *t = static_cast<Tfra *>(extendBox(box, sizeof(Tfra)));
    if (!t)
        return false;
    const bool reading = is_reader(m);
    if (!reading) {
        if (!t->entries)
            t->number_of_entry = 0;
        // Version 0 holds neither a time nor an offset beyond 32 bits.
        for (uint32_t i = 0; i < t->number_of_entry && t->version != 1; i++)
            if (req64(t->entries[i].time) || req64(t->entries[i].moof_offset))
                t->version = 1;
    }
    rwFullBox(m, t);
    rw32(m, &t->track_ID);
    uint32_t sizes =
        uint32_t((t->length_size_of_traf_num & 3) << 4 | (t->length_size_of_trun_num & 3) << 2 |
                 (t->length_size_of_sample_num & 3));
    rw32(m, &sizes);
    t->length_size_of_traf_num = (sizes >> 4) & 3;
    t->length_size_of_trun_num = (sizes >> 2) & 3;
    t->length_size_of_sample_num = sizes & 3;
    rw32(m, &t->number_of_entry);
    const bool wide = t->version == 1;
    const unsigned traf_bytes = t->length_size_of_traf_num + 1u;
    const unsigned trun_bytes = t->length_size_of_trun_num + 1u;
    const unsigned sample_bytes = t->length_size_of_sample_num + 1u;

    if (reading) {
        if (at_end_of_input(m) || !t->number_of_entry)
            return true;
        uint32_t wire = (wide ? 16 : 8) + traf_bytes + trun_bytes + sample_bytes;
        t->entries =
            static_cast<TfraEntry *>(allocEntries(m, t->number_of_entry, sizeof(TfraEntry), wire));
        if (!t->entries)
            return at_end_of_input(m);
        t->node_flags |= BOX_OWNS_ARRAYS;
    }
    for (uint32_t i = 0; i < t->number_of_entry; i++) {
        TfraEntry *e = &t->entries[i];
        if (wide) {
            rw64(m, &e->time);
            rw64(m, &e->moof_offset);
        } else {
            rw32as64(m, &e->time);
            rw32as64(m, &e->moof_offset);
        }
        rwSized(m, &e->traf_number, traf_bytes);
        rwSized(m, &e->trun_number, trun_bytes);
        rwSized(m, &e->sample_number, sample_bytes);
        if (reading && at_end_of_input(m))
            break;
    }
    return true;
}

bool codeMfro(mp4_muxer *m, Box **box, uint64_t) {
    auto *b = static_cast<Mfro *>(extendBox(box, sizeof(Mfro)));
    if (!b)
        return false;
    rwFullBox(m, b);
    rw32(m, &b->size);
    return true;
}
