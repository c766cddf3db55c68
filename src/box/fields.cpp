// Field primitives: each moves one field between memory and the stream, in the direction the
// handle says, so that one description of a box serves reading and writing.
#include "box/box.h"

#include <cstdio>

void rw8(mp4_muxer *m, uint8_t *p) {
    if (is_reader(m))
        read_n(m, p, 1);
    else
        write_n(m, p, 1);
}

void rw16(mp4_muxer *m, uint16_t *p) {
    if (is_reader(m)) {
        read_n(m, p, 2);
        *p = __builtin_bswap16(*p);
    } else {
        uint16_t v = __builtin_bswap16(*p);
        write_n(m, &v, 2);
    }
}

void rw24(mp4_muxer *m, uint32_t *p) {
    uint8_t b[3];
    if (is_reader(m)) {
        b[0] = b[1] = b[2] = 0;
        read_n(m, b, 3);
        *p = uint32_t(b[0]) << 16 | uint32_t(b[1]) << 8 | b[2];
    } else {
        b[0] = uint8_t(*p >> 16);
        b[1] = uint8_t(*p >> 8);
        b[2] = uint8_t(*p);
        write_n(m, b, 3);
    }
}

void rw32(mp4_muxer *m, uint32_t *p) {
    if (is_reader(m)) {
        read_n(m, p, 4);
        *p = __builtin_bswap32(*p);
    } else {
        uint32_t v = __builtin_bswap32(*p);
        write_n(m, &v, 4);
    }
}

void rw64(mp4_muxer *m, uint64_t *p) {
    if (is_reader(m)) {
        read_n(m, p, 8);
        *p = __builtin_bswap64(*p);
    } else {
        uint64_t v = __builtin_bswap64(*p);
        write_n(m, &v, 8);
    }
}

void rw32as64(mp4_muxer *m, uint64_t *p) {
    uint32_t v = uint32_t(*p);
    rw32(m, &v);
    if (is_reader(m))
        *p = v;
}

void rwExpandableSize(mp4_muxer *m, uint32_t *p) {
    if (is_reader(m)) {
        uint32_t value = 0;
        for (;;) {
            uint8_t b = 0;
            bool was_at_end = at_end_of_input(m);
            uint64_t before = m->pos;
            rw8(m, &b);
            // Exhausted input leaves the byte as it was; stop rather than loop on it. The flag
            // may be left over from an earlier read on a memory buffer (which never clears it);
            // such a read that did deliver its byte moved the position.
            if (at_end_of_input(m) && (!was_at_end || m->pos == before))
                break;
            value = (value << 7) | (b & 0x7F);
            if (!(b & 0x80))
                break;
        }
        *p = value;
        return;
    }
    uint32_t v = *p;
    uint8_t bytes[5] = {uint8_t((v >> 28) | 0x80), uint8_t((v >> 21) | 0x80),
                        uint8_t((v >> 14) | 0x80), uint8_t((v >> 7) | 0x80), uint8_t(v & 0x7F)};
    int first = 0;
    while (first < 4 && bytes[first] == 0x80)
        first++;
    write_n(m, bytes + first, 5 - first);
}

void rwFullBox(mp4_muxer *m, FullBox *box) {
    rw8(m, &box->version);
    rw24(m, &box->flags);
}

void pre_defined(mp4_muxer *m, int bits, uint32_t value) {
    switch (bits) {
    case 8: {
        uint8_t v = uint8_t(value);
        rw8(m, &v);
        break;
    }
    case 16: {
        uint16_t v = uint16_t(value);
        rw16(m, &v);
        break;
    }
    case 24: {
        uint32_t v = value & 0xFFFFFF;
        rw24(m, &v);
        break;
    }
    case 32: {
        uint32_t v = value;
        rw32(m, &v);
        break;
    }
    default:
        fprintf(stderr, "unhandled pre_defined size %d\n", bits);
        break;
    }
}

void reserved(mp4_muxer *m, int bits) { pre_defined(m, bits, 0); }
