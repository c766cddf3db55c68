// Byte builders shared by the test suites: big-endian fields, four-character codes, boxes with a
// compact header and full boxes, written out field by field without the library.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <vector>

namespace test_util {

using Bytes = std::vector<uint8_t>;

inline void put8(Bytes &b, uint32_t v) {
    b.push_back(uint8_t(v));
}
inline void put16(Bytes &b, uint32_t v) {
    put8(b, v >> 8);
    put8(b, v);
}
inline void put24(Bytes &b, uint32_t v) {
    put8(b, v >> 16);
    put16(b, v);
}
inline void put32(Bytes &b, uint32_t v) {
    put16(b, v >> 16);
    put16(b, v);
}
inline void put64(Bytes &b, uint64_t v) {
    put32(b, uint32_t(v >> 32));
    put32(b, uint32_t(v));
}
// The four characters of a box type or code.
inline void putType(Bytes &b, const char *t) {
    b.insert(b.end(), t, t + 4);
}
inline void append(Bytes &b, const Bytes &more) {
    b.insert(b.end(), more.begin(), more.end());
}
inline Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// A box with a compact header around `payload`.
inline Bytes box(const char (&type)[5], const Bytes &payload) {
    Bytes b;
    put32(b, uint32_t(8 + payload.size()));
    b.insert(b.end(), type, type + 4);
    append(b, payload);
    return b;
}

// A full box: version and flags in front of `payload`.
inline Bytes fullBox(const char (&type)[5], uint8_t version, uint32_t flags, const Bytes &payload) {
    Bytes p;
    put8(p, version);
    put24(p, flags);
    append(p, payload);
    return box(type, p);
}

// Annex B start codes.
inline const Bytes SC4 = {0, 0, 0, 1};
inline const Bytes SC3 = {0, 0, 1};

} // namespace test_util
