// Field descriptions of the movie skeleton: file type, movie/track/media headers, handler,
// media information headers, data references, edit list, padding and media data. Each one
// serves both directions through the field primitives.
#include "box/layouts.h"

#include <cstring>

namespace {

template <class T> T *enlarge(Box **box) {
    return static_cast<T *>(extendBox(box, sizeof(T)));
}

// Bytes from the current position to the declared end of the box (0 when already past it).
uint64_t leftInBox(mp4_muxer *m, uint64_t start, const Box *b) {
    uint64_t end = start + b->size;
    uint64_t pos = muxer_pos(m);
    return end > pos ? end - pos : 0;
}

bool reading(const mp4_muxer *m) {
    return is_reader(m);
}

// Times and durations: 8 bytes in version 1, 4 bytes (zero-extended on reading) otherwise.
void rwTime(mp4_muxer *m, uint64_t *v, uint8_t version) {
    if (version == 1)
        rw64(m, v);
    else
        rw32as64(m, v);
}

// Writers pick the smallest version that holds every time; whatever was stored is replaced.
void chooseTimeVersion(mp4_muxer *m, FullBox *b, uint64_t a, uint64_t c, uint64_t d) {
    if (!reading(m))
        b->version = (req64(a) || req64(c) || req64(d)) ? 1 : 0;
}

// A zero-terminated string that runs to the end of the box, held in a field of `cap` bytes.
// Reading stores at most cap - 1 characters and drops the rest of an over-long string (still
// consuming it up to its zero or the box's end); the field is always terminated. Writing emits
// the field up to and including its zero byte, or up to the box's end.
void rwString(mp4_muxer *m, char *field, size_t cap, uint64_t end) {
    size_t i = 0;
    if (reading(m)) {
        while (muxer_pos(m) < end) {
            uint8_t c = 0;
            rw8(m, &c);
            if (at_end_of_input(m) || c == 0)
                break;
            if (i + 1 < cap)
                field[i++] = char(c);
        }
        field[i] = 0;
        return;
    }
    while (muxer_pos(m) < end) {
        uint8_t c = i < cap ? uint8_t(field[i]) : 0;
        rw8(m, &c);
        if (c == 0)
            break;
        i++;
    }
}

void rwMatrix(mp4_muxer *m, uint32_t *matrix) {
    for (int i = 0; i < 9; i++)
        rw32(m, &matrix[i]);
}

} // namespace

bool codeFtyp(mp4_muxer *m, Box **box, uint64_t start) {
    Ftyp *b = enlarge<Ftyp>(box);
    if (!b)
        return false;
    rw32(m, &b->major_brand);
    rw32(m, &b->minor_version);
    const uint64_t end = start + b->size;
    const int cap = int(sizeof b->compatible_brands / sizeof b->compatible_brands[0]);
    for (int i = 0; muxer_pos(m) < end; i++) {
        if (i < cap) {
            rw32(m, &b->compatible_brands[i]);
        } else if (reading(m)) {
            uint32_t skipped;
            rw32(m, &skipped); // more brands than the record holds: dropped
        } else {
            break; // nothing more to write
        }
        if (reading(m) && at_end_of_input(m))
            break;
    }
    return true;
}

bool codeMvhd(mp4_muxer *m, Box **box, uint64_t) {
    Mvhd *b = enlarge<Mvhd>(box);
    if (!b)
        return false;
    chooseTimeVersion(m, b, b->creation_time, b->modification_time, b->duration);
    rwFullBox(m, b);
    rwTime(m, &b->creation_time, b->version);
    rwTime(m, &b->modification_time, b->version);
    rw32(m, &b->timescale);
    rwTime(m, &b->duration, b->version);
    rw32(m, &b->rate);
    rw16(m, &b->volume);
    reserved(m, 16);
    reserved(m, 32);
    reserved(m, 32);
    rwMatrix(m, b->matrix);
    for (int i = 0; i < 6; i++)
        pre_defined(m, 32, 0);
    rw32(m, &b->next_track_ID);
    return true;
}

bool codeTkhd(mp4_muxer *m, Box **box, uint64_t) {
    Tkhd *b = enlarge<Tkhd>(box);
    if (!b)
        return false;
    chooseTimeVersion(m, b, b->creation_time, b->modification_time, b->duration);
    rwFullBox(m, b);
    rwTime(m, &b->creation_time, b->version);
    rwTime(m, &b->modification_time, b->version);
    rw32(m, &b->track_ID);
    reserved(m, 32);
    rwTime(m, &b->duration, b->version);
    m->current_track_id = b->track_ID;
    reserved(m, 32);
    reserved(m, 32);
    rw16(m, &b->layer);
    rw16(m, &b->alternate_group);
    rw16(m, &b->volume);
    reserved(m, 16);
    rwMatrix(m, b->matrix);
    rw32(m, &b->width);
    rw32(m, &b->height);
    return true;
}

bool codeMdhd(mp4_muxer *m, Box **box, uint64_t) {
    Mdhd *b = enlarge<Mdhd>(box);
    if (!b)
        return false;
    chooseTimeVersion(m, b, b->creation_time, b->modification_time, b->duration);
    rwFullBox(m, b);
    rwTime(m, &b->creation_time, b->version);
    rwTime(m, &b->modification_time, b->version);
    rw32(m, &b->timescale);
    rwTime(m, &b->duration, b->version);
    // Three 5-bit codes under a zero pad bit; language[2] is the first character.
    uint16_t packed = uint16_t(((b->language[2] & 31) << 10) | ((b->language[1] & 31) << 5) |
                               (b->language[0] & 31));
    rw16(m, &packed);
    if (reading(m)) {
        b->language[0] = uint8_t(packed & 31);
        b->language[1] = uint8_t((packed >> 5) & 31);
        b->language[2] = uint8_t((packed >> 10) & 31);
    }
    pre_defined(m, 16, 0);
    return true;
}

bool codeHdlr(mp4_muxer *m, Box **box, uint64_t start) {
    Hdlr *b = enlarge<Hdlr>(box);
    if (!b)
        return false;
    rwFullBox(m, b);
    pre_defined(m, 32, 0);
    rw32(m, &b->handler_type);
    reserved(m, 32);
    reserved(m, 32);
    reserved(m, 32);
    const uint64_t end = start + b->size;
    if (reading(m)) {
        if (at_end_of_input(m))
            return true;
        // The name lives behind the record, in room for the rest of the box and a terminator.
        uint64_t rest = leftInBox(m, start, b);
        if (!inputHolds(m, rest))
            return true; // more than the input holds: as if it ran out
        if (rest > 0xFFFFFFFFu - sizeof(Hdlr) - 1)
            return false; // no node can be that large
        b = static_cast<Hdlr *>(extendBox(box, sizeof(Hdlr) + size_t(rest) + 1));
        if (!b)
            return false;
        b->name = reinterpret_cast<char *>(b) + sizeof(Hdlr);
        rwString(m, b->name, size_t(rest) + 1, end);
    } else {
        char empty[1] = {0};
        char *name = b->name ? b->name : empty;
        rwString(m, name, strlen(name) + 1, end);
    }
    // Data-handler references must not replace the media handler that picks sample entries.
    if (b->handler_type != fourcc("alis") && b->handler_type != fourcc("url "))
        m->handler_type = b->handler_type;
    return true;
}

bool codeVmhd(mp4_muxer *m, Box **box, uint64_t) {
    Vmhd *b = enlarge<Vmhd>(box);
    if (!b)
        return false;
    rwFullBox(m, b);
    rw16(m, &b->graphicsmode);
    for (int i = 0; i < 3; i++)
        rw16(m, &b->opcolor[i]);
    return true;
}

bool codeSmhd(mp4_muxer *m, Box **box, uint64_t) {
    Smhd *b = enlarge<Smhd>(box);
    if (!b)
        return false;
    rwFullBox(m, b);
    rw16(m, &b->balance);
    if (b->size != 14) // some writers end the box right after balance
        reserved(m, 16);
    return true;
}

bool codeHmhd(mp4_muxer *m, Box **box, uint64_t) {
    Hmhd *b = enlarge<Hmhd>(box);
    if (!b)
        return false;
    rwFullBox(m, b);
    rw16(m, &b->maxPDUsize);
    rw16(m, &b->avgPDUsize);
    rw32(m, &b->maxbitrate);
    rw32(m, &b->avgbitrate);
    reserved(m, 32);
    return true;
}

bool codeNmhd(mp4_muxer *m, Box **box, uint64_t) {
    FullBox *b = enlarge<FullBox>(box);
    if (!b)
        return false;
    rwFullBox(m, b);
    return true;
}

bool codeDref(mp4_muxer *m, Box **box, uint64_t) {
    Dref *b = enlarge<Dref>(box);
    if (!b)
        return false;
    rwFullBox(m, b);
    rw32(m, &b->entry_count);
    return true; // the entries follow as child boxes
}

bool codeUrl(mp4_muxer *m, Box **box, uint64_t start) {
    Url *b = enlarge<Url>(box);
    if (!b)
        return false;
    rwFullBox(m, b);
    rwString(m, b->location, sizeof b->location, start + b->size);
    return true;
}

bool codeUrn(mp4_muxer *m, Box **box, uint64_t start) {
    Urn *b = enlarge<Urn>(box);
    if (!b)
        return false;
    rwFullBox(m, b);
    rwString(m, b->name, sizeof b->name, start + b->size);
    rwString(m, b->location, sizeof b->location, start + b->size);
    return true;
}

bool codeElst(mp4_muxer *m, Box **box, uint64_t) {
    Elst *b = enlarge<Elst>(box);
    if (!b)
        return false;
    if (!reading(m)) {
        // Version 1 only when an entry needs it; a box read as version 1 stays version 1.
        for (uint32_t i = 0; b->entries && i < b->entry_count; i++) {
            const ElstEntry &e = b->entries[i];
            if (req64(e.segment_duration) || e.media_time >= (int64_t(1) << 31) ||
                e.media_time < -(int64_t(1) << 31))
                b->version = 1;
        }
    }
    rwFullBox(m, b);
    rw32(m, &b->entry_count);
    if (reading(m)) {
        b->entries = static_cast<ElstEntry *>(
            allocEntries(m, b->entry_count, sizeof(ElstEntry), b->version == 1 ? 20 : 12));
        if (!b->entries && b->entry_count)
            return at_end_of_input(m);
        if (b->entries)
            b->node_flags |= BOX_OWNS_ARRAYS;
    }
    for (uint32_t i = 0; i < b->entry_count; i++) {
        ElstEntry zero = {};
        ElstEntry &e = b->entries ? b->entries[i] : zero; // a writer without entries: zeros
        if (b->version == 1) {
            rw64(m, &e.segment_duration);
            uint64_t t = uint64_t(e.media_time);
            rw64(m, &t);
            e.media_time = int64_t(t);
        } else {
            rw32as64(m, &e.segment_duration);
            uint32_t t = uint32_t(e.media_time);
            rw32(m, &t);
            e.media_time = int32_t(t); // sign-extended: FFFFFFFF is an empty edit
        }
        if (reading(m) && at_end_of_input(m))
            break;
        if (m->remux_callback && e.media_time == -1)
            m->remux_callback(m, m->current_track_id, 0, 0, uint32_t(e.segment_duration));
        uint16_t ri = uint16_t(e.media_rate_integer), rf = uint16_t(e.media_rate_fraction);
        rw16(m, &ri);
        rw16(m, &rf);
        e.media_rate_integer = int16_t(ri);
        e.media_rate_fraction = int16_t(rf);
    }
    return true;
}

bool codeFree(mp4_muxer *m, Box **box, uint64_t start) {
    DataBox *b = enlarge<DataBox>(box);
    if (!b)
        return false;
    const uint64_t end = start + b->size;
    if (reading(m)) {
        b->data = nullptr;
        muxer_seek(m, end);
        return true;
    }
    // Whatever the header took, the content fills the rest of the declared size.
    uint64_t left = leftInBox(m, start, b);
    const uint8_t *src = b->data;
    while (left > 0) {
        int32_t n = left > 0x40000000u ? 0x40000000 : int32_t(left);
        write_n(m, src, n);
        if (src)
            src += n;
        left -= uint64_t(n);
    }
    return true;
}

bool codeMdat(mp4_muxer *m, Box **box, uint64_t start) {
    DataBox *b = enlarge<DataBox>(box);
    if (!b)
        return false;
    const uint64_t end = start + b->size;
    if (!reading(m)) {
        // Without data only the header goes out: the sample writer streams the payload itself.
        if (b->data && b->size > 8)
            write_n(m, b->data, int32_t(uint32_t(b->size - 8)));
        return true;
    }
    b->data = nullptr;
    if (!(m->flags & MP4_REMUXER) || at_end_of_input(m)) {
        muxer_seek(m, end);
        return true;
    }
    // The defragmenting remuxer keeps the payload behind the record. The compact header is
    // assumed, as the payload length is size - 8 in 32 bits.
    uint32_t length = uint32_t(b->size - 8);
    bool cut = false;
    if (m->fd == -1 && !m->fp && m->buffer) {
        uint64_t buffer_end = m->buffer_start + buffer_readable(m);
        uint64_t pos = muxer_pos(m);
        uint64_t present = buffer_end > pos ? buffer_end - pos : 0;
        if (present < length) {
            length = uint32_t(present); // keep what is there; the rest counts as consumed
            cut = true;
        }
    } else if (!inputHolds(m, length)) {
        return true; // more than the input holds: as if it ran out
    }
    if (length > 0xFFFFFFFFu - sizeof(DataBox))
        return false;
    b = static_cast<DataBox *>(extendBox(box, sizeof(DataBox) + length));
    if (!b)
        return false;
    b->data = reinterpret_cast<uint8_t *>(b) + sizeof(DataBox);
    read_n(m, b->data, length);
    if (cut) {
        m->buffer_size = uint32_t(end - m->buffer_start);
        muxer_seek(m, end);
    }
    return true;
}
