// Test helpers for the box codec: byte builders, memory readers and writers, and a comparison
// of two box trees record by record (arrays by content).
#pragma once

#include "box/box.h"
#include "byte_builder.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace boxtest {

using test_util::append;
using test_util::box;
using test_util::Bytes;
using test_util::fullBox;
using test_util::put16;
using test_util::put24;
using test_util::put32;
using test_util::put64;
using test_util::put8;

inline void putStr(Bytes &b, const char *s, bool with_zero = true) {
    b.insert(b.end(), s, s + strlen(s));
    if (with_zero)
        b.push_back(0);
}

// A node read from a file: written back, it keeps its declared size (no auto_size), and so do
// the nodes after it and below it.
inline void markAsRead(Box *b) {
    for (; b; b = b->next) {
        b->node_flags &= uint8_t(~BOX_AUTO_SIZE);
        markAsRead(b->first_child);
    }
}

inline std::string hex(const Bytes &b) {
    std::string s;
    char tmp[4];
    for (uint8_t c : b) {
        snprintf(tmp, sizeof tmp, "%02X ", c);
        s += tmp;
    }
    if (!s.empty())
        s.pop_back();
    return s;
}

// A reader handle fed from a copy of `bytes` through a memory buffer.
struct MemReader {
    Bytes bytes;
    mp4_muxer *m;
    explicit MemReader(Bytes b, uint32_t attach = UINT32_MAX) : bytes(std::move(b)) {
        m = mp4_reader_create();
        if (attach > bytes.size())
            attach = uint32_t(bytes.size());
        mp4_buf_put(m, bytes.data(), attach);
    }
    ~MemReader() {
        mp4_buf_get(m);
        mp4_delete(m);
    }
    Box *read(Box *parent = nullptr) {
        m->parent = parent;
        Box *b = rwBox(m, nullptr);
        m->parent = nullptr;
        return b;
    }
    MemReader(const MemReader &) = delete;
    MemReader &operator=(const MemReader &) = delete;
};

// A reader handle fed from a copy of `bytes` through one memory buffer; read() takes the next box
// as it comes (unlike MemReader, it leaves the handle's parent alone).
struct BoxReader {
    Bytes bytes;
    mp4_muxer *m;
    explicit BoxReader(Bytes b) : bytes(std::move(b)) {
        m = mp4_reader_create();
        mp4_buf_put(m, bytes.data(), uint32_t(bytes.size()));
    }
    Box *read() { return rwBox(m, nullptr); }
    ~BoxReader() {
        mp4_buf_get(m);
        mp4_delete(m);
    }
};

// Writes `box` with a fresh writer into a memory buffer and returns the bytes written.
inline Bytes writeToMemory(Box *b, bool mov = false, uint32_t capacity = 1 << 20,
                           mp4_muxer **keep = nullptr) {
    Bytes out(capacity);
    mp4_muxer *m = mov ? mov_writer_create() : mp4_writer_create();
    mp4_buf_put(m, out.data(), capacity);
    rwBox(m, b);
    uint32_t n = mp4_buf_get(m);
    if (keep)
        *keep = m;
    else
        mp4_delete(m);
    out.resize(n);
    return out;
}

inline std::string fcc(uint32_t t) {
    std::string s(4, ' ');
    for (int i = 0; i < 4; i++)
        s[size_t(i)] = char(t >> (24 - 8 * i));
    return s;
}

// ---- tree comparison -------------------------------------------------------------------------

struct TreeCompare {
    std::vector<std::string> diffs;
    bool ignore_padding = true; // padding boxes added when writing are not part of the tree

    static bool isPadding(const Box *b) {
        return b && (b->type == fourcc("free") || b->type == fourcc("wide"));
    }
    void diff(const std::string &path, const std::string &what) {
        if (diffs.size() < 50)
            diffs.push_back(path + ": " + what);
    }
    template <class T> void field(const std::string &path, const char *name, T a, T b) {
        if (a != b)
            diff(path, std::string(name) + " " + std::to_string(uint64_t(a)) +
                           " != " + std::to_string(uint64_t(b)));
    }
    void bytes(const std::string &path, const char *name, const void *a, const void *b, size_t n) {
        if (n && (!a || !b)) {
            if (a != b)
                diff(path, std::string(name) + " missing on one side");
            return;
        }
        if (n && memcmp(a, b, n) != 0)
            diff(path, std::string(name) + " differ");
    }
    // Every decoded field of the record, by type.
    void record(const std::string &p, const Box *a, const Box *b, uint32_t handler);
    void tree(const std::string &path, const Box *a, const Box *b, uint32_t handler,
              bool compare_size = true);
};

#define TC_F(name) field(p, #name, x->name, y->name)

inline void TreeCompare::record(const std::string &p, const Box *a, const Box *b,
                                uint32_t handler) {
    // Only a node that holds its type's whole record is compared field by field; nodes kept
    // as bare headers (undecoded types) compare by type and size alone.
    const size_t need = recordSize(a->type);
    bool fa = a->alloc_size >= need, fb = b->alloc_size >= need;
    if (fa != fb) {
        diff(p, "decoded on one side only");
        return;
    }
    if (!fa)
        return;
    auto full = [&](const Box *u, const Box *v) {
        auto x = static_cast<const FullBox *>(u);
        auto y = static_cast<const FullBox *>(v);
        TC_F(version);
        TC_F(flags);
    };
    switch (a->type) {
    case fourcc("ftyp"): {
        auto x = static_cast<const Ftyp *>(a), y = static_cast<const Ftyp *>(b);
        TC_F(major_brand);
        TC_F(minor_version);
        bytes(p, "compatible_brands", x->compatible_brands, y->compatible_brands,
              sizeof x->compatible_brands);
        break;
    }
    case fourcc("mvhd"): {
        auto x = static_cast<const Mvhd *>(a), y = static_cast<const Mvhd *>(b);
        full(a, b);
        TC_F(creation_time);
        TC_F(modification_time);
        TC_F(timescale);
        TC_F(duration);
        TC_F(rate);
        TC_F(volume);
        bytes(p, "matrix", x->matrix, y->matrix, sizeof x->matrix);
        TC_F(next_track_ID);
        break;
    }
    case fourcc("tkhd"): {
        auto x = static_cast<const Tkhd *>(a), y = static_cast<const Tkhd *>(b);
        full(a, b);
        TC_F(creation_time);
        TC_F(modification_time);
        TC_F(track_ID);
        TC_F(duration);
        TC_F(layer);
        TC_F(alternate_group);
        TC_F(volume);
        bytes(p, "matrix", x->matrix, y->matrix, sizeof x->matrix);
        TC_F(width);
        TC_F(height);
        break;
    }
    case fourcc("mdhd"): {
        auto x = static_cast<const Mdhd *>(a), y = static_cast<const Mdhd *>(b);
        full(a, b);
        TC_F(creation_time);
        TC_F(modification_time);
        TC_F(timescale);
        TC_F(duration);
        bytes(p, "language", x->language, y->language, 3);
        break;
    }
    case fourcc("hdlr"): {
        auto x = static_cast<const Hdlr *>(a), y = static_cast<const Hdlr *>(b);
        full(a, b);
        TC_F(handler_type);
        std::string na = x->name ? x->name : "", nb = y->name ? y->name : "";
        if (na != nb)
            diff(p, "name '" + na + "' != '" + nb + "'");
        break;
    }
    case fourcc("vmhd"): {
        auto x = static_cast<const Vmhd *>(a), y = static_cast<const Vmhd *>(b);
        full(a, b);
        TC_F(graphicsmode);
        bytes(p, "opcolor", x->opcolor, y->opcolor, sizeof x->opcolor);
        break;
    }
    case fourcc("smhd"): {
        auto x = static_cast<const Smhd *>(a), y = static_cast<const Smhd *>(b);
        full(a, b);
        TC_F(balance);
        break;
    }
    case fourcc("hmhd"): {
        auto x = static_cast<const Hmhd *>(a), y = static_cast<const Hmhd *>(b);
        full(a, b);
        TC_F(maxPDUsize);
        TC_F(avgPDUsize);
        TC_F(maxbitrate);
        TC_F(avgbitrate);
        break;
    }
    case fourcc("nmhd"):
        full(a, b);
        break;
    case fourcc("dref"): {
        auto x = static_cast<const Dref *>(a), y = static_cast<const Dref *>(b);
        full(a, b);
        TC_F(entry_count);
        break;
    }
    case fourcc("url "):
    case fourcc("alis"): {
        auto x = static_cast<const Url *>(a), y = static_cast<const Url *>(b);
        full(a, b);
        if (strcmp(x->location, y->location) != 0)
            diff(p, "location");
        break;
    }
    case fourcc("urn "): {
        auto x = static_cast<const Urn *>(a), y = static_cast<const Urn *>(b);
        full(a, b);
        if (strcmp(x->name, y->name) != 0 || strcmp(x->location, y->location) != 0)
            diff(p, "name/location");
        break;
    }
    case fourcc("elst"): {
        auto x = static_cast<const Elst *>(a), y = static_cast<const Elst *>(b);
        full(a, b);
        TC_F(entry_count);
        if (x->entry_count == y->entry_count)
            for (uint32_t i = 0; i < x->entry_count; i++) {
                const ElstEntry &u = x->entries[i], &v = y->entries[i];
                if (u.segment_duration != v.segment_duration || u.media_time != v.media_time ||
                    u.media_rate_integer != v.media_rate_integer ||
                    u.media_rate_fraction != v.media_rate_fraction)
                    diff(p, "entry " + std::to_string(i));
            }
        break;
    }
    case fourcc("stts"):
    case fourcc("ctts"): {
        auto x = static_cast<const Stts *>(a), y = static_cast<const Stts *>(b);
        full(a, b);
        TC_F(entry_count);
        if (x->entry_count == y->entry_count)
            bytes(p, "entries", x->entries, y->entries, size_t(x->entry_count) * 8);
        break;
    }
    case fourcc("stss"):
    case fourcc("stco"): {
        auto x = static_cast<const Stss *>(a), y = static_cast<const Stss *>(b);
        full(a, b);
        TC_F(entry_count);
        if (x->entry_count == y->entry_count)
            bytes(p, "entries", x->entries, y->entries, size_t(x->entry_count) * 4);
        break;
    }
    case fourcc("co64"): {
        auto x = static_cast<const Co64 *>(a), y = static_cast<const Co64 *>(b);
        full(a, b);
        TC_F(entry_count);
        if (x->entry_count == y->entry_count)
            bytes(p, "entries", x->entries, y->entries, size_t(x->entry_count) * 8);
        break;
    }
    case fourcc("stsc"): {
        auto x = static_cast<const Stsc *>(a), y = static_cast<const Stsc *>(b);
        full(a, b);
        TC_F(entry_count);
        if (x->entry_count == y->entry_count)
            bytes(p, "entries", x->entries, y->entries, size_t(x->entry_count) * 12);
        break;
    }
    case fourcc("stsz"): {
        auto x = static_cast<const Stsz *>(a), y = static_cast<const Stsz *>(b);
        full(a, b);
        TC_F(sample_size);
        TC_F(sample_count);
        if (x->sample_count == y->sample_count && x->sample_size == 0)
            bytes(p, "entries", x->entries, y->entries, size_t(x->sample_count) * 4);
        break;
    }
    case fourcc("stz2"): {
        auto x = static_cast<const Stz2 *>(a), y = static_cast<const Stz2 *>(b);
        full(a, b);
        TC_F(field_size);
        TC_F(sample_count);
        uint32_t n = uint32_t((uint64_t(uint32_t(x->sample_count * x->field_size)) + 7) / 8);
        if (x->sample_count == y->sample_count && x->field_size == y->field_size)
            bytes(p, "entries", x->entries, y->entries, n);
        break;
    }
    case fourcc("stsd"): {
        auto x = static_cast<const Stsd *>(a), y = static_cast<const Stsd *>(b);
        full(a, b);
        TC_F(entry_count);
        break;
    }
    case fourcc("avcC"): {
        auto x = static_cast<const AvcC *>(a), y = static_cast<const AvcC *>(b);
        TC_F(configurationVersion);
        TC_F(AVCProfileIndication);
        TC_F(profile_compatibility);
        TC_F(AVCLevelIndication);
        TC_F(lengthSizeMinusOne);
        TC_F(numOfSequenceParameterSets);
        TC_F(numOfPictureParameterSets);
        TC_F(length[0]);
        TC_F(length[1]);
        bytes(p, "data", x->data, y->data, sizeof x->data);
        break;
    }
    case fourcc("btrt"): {
        auto x = static_cast<const Btrt *>(a), y = static_cast<const Btrt *>(b);
        TC_F(bufferSizeDB);
        TC_F(maxBitrate);
        TC_F(avgBitrate);
        break;
    }
    case fourcc("fiel"): {
        auto x = static_cast<const Fiel *>(a), y = static_cast<const Fiel *>(b);
        TC_F(fieldCount);
        TC_F(fieldOrder);
        break;
    }
    case fourcc("chan"): {
        auto x = static_cast<const Chan *>(a), y = static_cast<const Chan *>(b);
        full(a, b);
        TC_F(ChannelLayoutTag);
        TC_F(ChannelBitmap);
        TC_F(NumberChannelDescriptions);
        if (x->NumberChannelDescriptions == y->NumberChannelDescriptions)
            bytes(p, "descriptions", x->descriptions, y->descriptions,
                  size_t(x->NumberChannelDescriptions) * sizeof(ChannelDescription));
        break;
    }
    case fourcc("mehd"): {
        auto x = static_cast<const Mehd *>(a), y = static_cast<const Mehd *>(b);
        full(a, b);
        TC_F(fragment_duration);
        break;
    }
    case fourcc("trex"): {
        auto x = static_cast<const Trex *>(a), y = static_cast<const Trex *>(b);
        full(a, b);
        TC_F(track_ID);
        TC_F(default_sample_description_index);
        TC_F(default_sample_duration);
        TC_F(default_sample_size);
        TC_F(default_sample_flags);
        break;
    }
    case fourcc("mfhd"): {
        auto x = static_cast<const Mfhd *>(a), y = static_cast<const Mfhd *>(b);
        full(a, b);
        TC_F(sequence_number);
        break;
    }
    case fourcc("tfhd"): {
        auto x = static_cast<const Tfhd *>(a), y = static_cast<const Tfhd *>(b);
        full(a, b);
        TC_F(track_ID);
        TC_F(base_data_offset);
        TC_F(sample_description_index);
        TC_F(default_sample_duration);
        TC_F(default_sample_size);
        TC_F(default_sample_flags);
        break;
    }
    case fourcc("trun"): {
        auto x = static_cast<const Trun *>(a), y = static_cast<const Trun *>(b);
        full(a, b);
        TC_F(sample_count);
        TC_F(data_offset);
        TC_F(first_sample_flags);
        if (x->sample_count == y->sample_count && x->samples && y->samples)
            for (uint32_t i = 0; i < x->sample_count; i++) {
                const TrunSample &u = x->samples[i], &v = y->samples[i];
                if ((x->flags & 0x100) && u.sample_duration != v.sample_duration)
                    diff(p, "sample_duration " + std::to_string(i));
                if ((x->flags & 0x200) && u.sample_size != v.sample_size)
                    diff(p, "sample_size " + std::to_string(i));
                if ((x->flags & 0x400) && u.sample_flags != v.sample_flags)
                    diff(p, "sample_flags " + std::to_string(i));
                if ((x->flags & 0x800) &&
                    u.sample_composition_time_offset != v.sample_composition_time_offset)
                    diff(p, "sample_composition_time_offset " + std::to_string(i));
            }
        break;
    }
    case fourcc("esds"): {
        // Compared through the decoder configuration that matters to players.
        auto x = static_cast<const Esds *>(a), y = static_cast<const Esds *>(b);
        full(a, b);
        TC_F(es.ES_ID);
        TC_F(es.present);
        TC_F(es.decConfigDescr.objectTypeIndication);
        TC_F(es.decConfigDescr.streamType);
        TC_F(es.decConfigDescr.bufferSizeDB);
        TC_F(es.decConfigDescr.maxBitrate);
        TC_F(es.decConfigDescr.avgBitrate);
        TC_F(es.decConfigDescr.decSpecificInfo.length);
        bytes(p, "decSpecificInfo", x->es.decConfigDescr.decSpecificInfo.data,
              y->es.decConfigDescr.decSpecificInfo.data, DSI_DATA_MAX);
        break;
    }
    default:
        if (a->parent && a->parent->type == fourcc("stsd")) {
            auto x = static_cast<const SampleEntry *>(a), y = static_cast<const SampleEntry *>(b);
            TC_F(data_reference_index);
            if (handler == fourcc("vide")) {
                TC_F(width);
                TC_F(height);
                TC_F(horizresolution);
                TC_F(vertresolution);
                TC_F(frame_count);
                bytes(p, "compressorname", x->compressorname, y->compressorname, 32);
                TC_F(depth);
            } else if (handler == fourcc("soun")) {
                TC_F(version);
                TC_F(channelcount);
                TC_F(samplesize);
                TC_F(compressionID);
                TC_F(samplerate);
                if (x->version == 1) {
                    TC_F(samplesPerPacket);
                    TC_F(bytesPerPacket);
                    TC_F(bytesPerFrame);
                    TC_F(bytesPerSample);
                }
            }
        }
        break;
    }
}

#undef TC_F

inline void TreeCompare::tree(const std::string &path, const Box *a, const Box *b, uint32_t handler,
                              bool compare_size) {
    std::string p = path + "/" + fcc(a->type);
    if (a->type != b->type) {
        diff(p, "type " + fcc(a->type) + " != " + fcc(b->type));
        return;
    }
    if (compare_size && a->size != b->size)
        diff(p, "size " + std::to_string(a->size) + " != " + std::to_string(b->size));
    // Sample entries are laid out by the handler of their track's media.
    if (a->type == fourcc("mdia"))
        if (const Box *hd = getChild(const_cast<Box *>(a), fourcc("hdlr")))
            if (hd->alloc_size >= sizeof(Hdlr))
                handler = static_cast<const Hdlr *>(hd)->handler_type;
    record(p, a, b, handler);
    const Box *ca = a->first_child, *cb = b->first_child;
    for (;;) {
        if (ignore_padding) {
            while (isPadding(cb) && !isPadding(ca))
                cb = cb->next;
        }
        if (!ca || !cb)
            break;
        tree(p, ca, cb, handler, compare_size);
        ca = ca->next;
        cb = cb->next;
    }
    if (ca || cb)
        diff(p, std::string("child count differs at ") + (ca ? fcc(ca->type) : fcc(cb->type)));
}

// Compares two trees; the result lists the differences (empty when equal).
inline std::vector<std::string> compareTrees(const Box *a, const Box *b, bool compare_size = true) {
    TreeCompare tc;
    if (!a || !b) {
        if (a != b)
            tc.diffs.push_back("one tree is missing");
        return tc.diffs;
    }
    tc.tree("", a, b, 0, compare_size);
    return tc.diffs;
}

} // namespace boxtest
