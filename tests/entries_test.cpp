// Sample descriptions through the box codec: the stsd box, visual / audio / plain sample entries
// chosen by the handler type, and the codec boxes under an entry (avcC, btrt, chan, fiel).
// Byte vectors are written out field by field; the suite runs under the sanitizers, so reading
// or writing outside a record or array fails it.
#include "box/box.h"
#include "box/layouts.h"
#include "byte_builder.h"
#include "tree_compare.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
using namespace test_util;
using boxtest::markAsRead;

namespace {

void zeros(Bytes &b, size_t n) {
    b.insert(b.end(), n, 0);
}
Bytes range(uint8_t first, size_t n) {
    Bytes b;
    for (size_t i = 0; i < n; i++)
        b.push_back(uint8_t(first + i));
    return b;
}

// A memory reader over a copy of `bytes`, with the handler type in effect.
struct Reader {
    Bytes bytes;
    mp4_muxer *m;
    explicit Reader(Bytes b, uint32_t handler = 0) : bytes(std::move(b)) {
        m = mp4_reader_create();
        mp4_buf_put(m, bytes.data(), uint32_t(bytes.size()));
        m->handler_type = handler;
    }
    Box *read(Box *parent = nullptr) {
        m->parent = parent;
        Box *b = rwBox(m, nullptr);
        m->parent = nullptr;
        return b;
    }
    ~Reader() {
        mp4_buf_get(m);
        mp4_delete(m);
    }
};

// A memory writer into a buffer of `capacity` bytes.
struct Writer {
    Bytes buf;
    mp4_muxer *m;
    explicit Writer(uint32_t handler = 0, size_t capacity = 4096) : buf(capacity) {
        m = mp4_writer_create();
        mp4_buf_put(m, buf.data(), uint32_t(capacity));
        m->handler_type = handler;
    }
    Bytes write(Box *b) {
        uint64_t from = muxer_pos(m);
        EXPECT_NE(rwBox(m, b), nullptr);
        return Bytes(buf.begin() + long(from), buf.begin() + long(muxer_pos(m)));
    }
    ~Writer() {
        mp4_buf_get(m);
        mp4_delete(m);
    }
};

// Sample entries are laid out only under an stsd: the writer's entries are linked under one.
template <typename T> T *underStsd(T *entry) {
    addBox(entry, newBox(fourcc("stsd"), 16));
    return entry;
}
void deleteWithStsd(Box *entry) {
    deleteBox(entry->parent);
}

Bytes stsdOf(const Bytes &entries, uint32_t count) {
    Bytes p = {0, 0, 0, 0};
    put32(p, count);
    append(p, entries);
    return box("stsd", p);
}

constexpr uint32_t VIDE = fourcc("vide");
constexpr uint32_t SOUN = fourcc("soun");

// ---- visual entry ----------------------------------------------------------------------------

Bytes visualPayload(const Bytes &name32) {
    Bytes p;
    zeros(p, 6);
    put16(p, 1);   // data_reference_index
    put16(p, 0);   // pre_defined
    put16(p, 0);   // reserved
    zeros(p, 12);  // pre_defined
    put16(p, 320); // width
    put16(p, 240); // height
    put32(p, 0x480000);
    put32(p, 0x480000);
    put32(p, 0); // reserved
    put16(p, 1); // frame_count
    append(p, name32);
    put16(p, 0x18);   // depth
    put16(p, 0xFFFF); // pre_defined -1
    return p;
}

Bytes isoName(const char *s) {
    Bytes n(32, 0);
    n[0] = uint8_t(strlen(s));
    memcpy(n.data() + 1, s, strlen(s));
    return n;
}

SampleEntry *newVisualEntry(uint32_t type, const uint8_t name[32]) {
    auto *e = underStsd(static_cast<SampleEntry *>(newBox(type, 8)));
    e->data_reference_index = 1;
    e->width = 320;
    e->height = 240;
    e->horizresolution = e->vertresolution = 0x480000;
    e->frame_count = 1;
    memcpy(e->compressorname, name, 32);
    e->depth = 0x18;
    return e;
}

TEST(VisualEntry, WrittenAs86BytesEndingFFFFWithLengthPrefixedName) {
    uint8_t name[32] = "Talvorin 4417"; // as track creation fills it: NUL padded
    SampleEntry *e = newVisualEntry(fourcc("avc1"), name);
    Writer w(VIDE);
    Bytes out = w.write(e);
    EXPECT_EQ(out, box("avc1", visualPayload(isoName("Talvorin 4417"))));
    ASSERT_EQ(out.size(), 86u);
    EXPECT_EQ(out[84], 0xFF);
    EXPECT_EQ(out[85], 0xFF);
    // The writer's own record is left as it was: a second write gives the same bytes.
    EXPECT_EQ(std::string(reinterpret_cast<char *>(e->compressorname)), "Talvorin 4417");
    EXPECT_EQ(w.write(e), out);
    deleteWithStsd(e);
}

TEST(VisualEntry, CompressorNameConversion) {
    struct Case {
        const char *what;
        Bytes in;
        Bytes expected;
    };
    Bytes full(32, 'A'); // 32 characters, no terminator
    Bytes full_expected(32, 'A');
    full_expected[0] = 31;
    Bytes stored = isoName("AVC Coding"); // read from a file: already length-prefixed
    Bytes odd_stored(32, 0);              // a length byte followed by non-zero junk
    odd_stored[0] = 3;
    for (size_t i = 1; i < 32; i++)
        odd_stored[i] = uint8_t('a' + i % 26);
    Bytes with_junk(32, 0); // a NUL-padded name: only the part before the NUL counts
    memcpy(with_junk.data(), "x264\0junk", 9);
    std::vector<Case> cases = {
        {"32-byte name keeps its first 31 characters", full, full_expected},
        {"all zeros stay all zeros", Bytes(32, 0), Bytes(32, 0)},
        {"a stored name round-trips", stored, stored},
        {"a stored first byte below 32 means unchanged", odd_stored, odd_stored},
        {"bytes after the terminator are dropped", with_junk, isoName("x264")},
    };
    for (const Case &c : cases) {
        SampleEntry *e = newVisualEntry(fourcc("mp4v"), c.in.data());
        Writer w(VIDE);
        Bytes out = w.write(e);
        ASSERT_EQ(out.size(), 86u) << c.what;
        EXPECT_EQ(Bytes(out.begin() + 50, out.begin() + 82), c.expected) << c.what;
        deleteWithStsd(e);
    }
}

TEST(VisualEntry, ReadKeepsStoredBytesAndRoundTrips) {
    Bytes name = isoName("Lavc60.31.102 libx264");
    Bytes avcc = box("avcC", {1, 0x64, 0, 0x1F, 0xFF, 0xE0, 0});
    Bytes payload = visualPayload(name);
    append(payload, avcc);
    Bytes file = stsdOf(box("avc1", payload), 1);
    Reader r(file, VIDE);
    Box *stsd = r.read();
    ASSERT_NE(stsd, nullptr);
    Box *b = stsd->first_child;
    ASSERT_NE(b, nullptr);
    auto *e = static_cast<SampleEntry *>(b);
    EXPECT_EQ(e->data_reference_index, 1);
    EXPECT_EQ(e->width, 320);
    EXPECT_EQ(e->height, 240);
    EXPECT_EQ(e->horizresolution, 0x480000u);
    EXPECT_EQ(e->vertresolution, 0x480000u);
    EXPECT_EQ(e->frame_count, 1);
    EXPECT_EQ(Bytes(e->compressorname, e->compressorname + 32), name);
    EXPECT_EQ(e->depth, 0x18);
    // The codec box after the 86 bytes is the entry's child.
    ASSERT_NE(b->first_child, nullptr);
    EXPECT_EQ(b->first_child->type, fourcc("avcC"));
    EXPECT_EQ(muxer_pos(r.m), file.size());

    markAsRead(stsd);
    Writer w(VIDE);
    EXPECT_EQ(w.write(stsd), file);
    deleteBox(stsd);
}

// ---- audio entry -----------------------------------------------------------------------------

Bytes audioPayload(uint16_t version) {
    Bytes p;
    zeros(p, 6);
    put16(p, 1); // data_reference_index
    put16(p, version);
    put16(p, 0); // revision
    put32(p, 0); // vendor
    put16(p, 2); // channelcount
    put16(p, 16);
    put16(p, version == 1 ? 0xFFFE : 0);
    put16(p, 0); // packet size
    put32(p, 44100u << 16);
    if (version == 1) {
        put32(p, 1);
        put32(p, 2);
        put32(p, 4);
        put32(p, 2);
    }
    return p;
}

SampleEntry *newAudioEntry(uint16_t version) {
    auto *e = underStsd(static_cast<SampleEntry *>(newBox(fourcc("sowt"), 8)));
    e->data_reference_index = 1;
    e->version = version;
    e->channelcount = 2;
    e->samplesize = 16;
    e->compressionID = version == 1 ? 0xFFFE : 0;
    e->samplerate = 44100u << 16;
    e->samplesPerPacket = 1;
    e->bytesPerPacket = 2;
    e->bytesPerFrame = 4;
    e->bytesPerSample = 2;
    return e;
}

TEST(AudioEntry, Version1Is52BytesOthers36) {
    for (uint16_t version : {0, 1, 2}) {
        SampleEntry *e = newAudioEntry(version);
        Writer w(SOUN);
        Bytes out = w.write(e);
        EXPECT_EQ(out.size(), version == 1 ? 52u : 36u) << "version " << version;
        EXPECT_EQ(out, box("sowt", audioPayload(version))) << "version " << version;
        deleteWithStsd(e);
    }
}

TEST(AudioEntry, ReadTakesTheLayoutOfItsVersionSoTheChildIsFound) {
    for (uint16_t version : {0, 1, 2}) {
        Bytes payload = audioPayload(version);
        Bytes btrt;
        put32(btrt, 1000);
        put32(btrt, 2000);
        put32(btrt, 3000);
        append(payload, box("btrt", btrt));
        Reader r(stsdOf(box("mp4a", payload), 1), SOUN);
        Box *stsd = r.read();
        ASSERT_NE(stsd, nullptr) << "version " << version;
        Box *b = stsd->first_child;
        ASSERT_NE(b, nullptr) << "version " << version;
        auto *e = static_cast<SampleEntry *>(b);
        EXPECT_EQ(e->version, version);
        EXPECT_EQ(e->channelcount, 2);
        EXPECT_EQ(e->samplesize, 16);
        EXPECT_EQ(e->samplerate, 44100u << 16);
        if (version == 1) {
            EXPECT_EQ(e->samplesPerPacket, 1u);
            EXPECT_EQ(e->bytesPerPacket, 2u);
            EXPECT_EQ(e->bytesPerFrame, 4u);
            EXPECT_EQ(e->bytesPerSample, 2u);
        } else {
            EXPECT_EQ(e->samplesPerPacket, 0u);
        }
        ASSERT_NE(b->first_child, nullptr) << "version " << version;
        ASSERT_EQ(b->first_child->type, fourcc("btrt"));
        auto *rate = static_cast<Btrt *>(b->first_child);
        EXPECT_EQ(rate->bufferSizeDB, 1000u);
        EXPECT_EQ(rate->maxBitrate, 2000u);
        EXPECT_EQ(rate->avgBitrate, 3000u);
        deleteBox(stsd);
    }
}

// ---- stsd and the handler dispatch -----------------------------------------------------------

TEST(Stsd, PlainEntriesForHintSubpMetaAndMettMetx) {
    Bytes plain;
    zeros(plain, 6);
    put16(plain, 7);
    Bytes rate(12, 0); // whatever follows the plain header is read as children
    rate[3] = 1;
    Bytes child_box = box("btrt", rate);
    for (uint32_t handler : {fourcc("hint"), fourcc("subp"), fourcc("meta"), 0u}) {
        Bytes entries;
        Bytes mp4s = plain;
        append(mp4s, child_box);
        if (handler)
            append(entries, box("mp4s", mp4s));
        append(entries, box("mett", plain)); // its own case, under any handler
        Bytes payload = {0, 0, 0, 0};
        put32(payload, handler ? 2 : 1);
        append(payload, entries);
        Bytes file = box("stsd", payload);
        Reader r(file, handler);
        Box *b = r.read();
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(static_cast<Stsd *>(b)->entry_count, handler ? 2u : 1u);
        Box *e = b->first_child;
        if (handler) {
            ASSERT_NE(e, nullptr);
            EXPECT_EQ(e->type, fourcc("mp4s"));
            EXPECT_EQ(static_cast<SampleEntry *>(e)->data_reference_index, 7);
            ASSERT_NE(e->first_child, nullptr);
            EXPECT_EQ(e->first_child->type, fourcc("btrt"));
            EXPECT_EQ(static_cast<Btrt *>(e->first_child)->bufferSizeDB, 1u);
            e = e->next;
        }
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(e->type, fourcc("mett"));
        EXPECT_EQ(static_cast<SampleEntry *>(e)->data_reference_index, 7);

        markAsRead(b);
        Writer w(handler);
        EXPECT_EQ(w.write(b), file);
        deleteBox(b);
    }
}

TEST(Stsd, UnknownHandlerKeepsEntriesAsHeadersWithOneMessageEach) {
    Bytes entry = visualPayload(isoName("x"));
    Bytes payload = {0, 0, 0, 0, 0, 0, 0, 2};
    append(payload, box("avc1", entry));
    append(payload, box("mp4a", audioPayload(0)));
    Bytes file = box("stsd", payload);
    for (uint32_t handler : {0u, fourcc("text"), fourcc("alis")}) {
        Reader r(file, handler);
        CaptureStderr();
        Box *b = r.read();
        std::string err = GetCapturedStderr();
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(err, "rwBox: handler type not set\nrwBox: handler type not set\n");
        Box *first = b->first_child;
        ASSERT_NE(first, nullptr);
        ASSERT_NE(first->next, nullptr);
        EXPECT_EQ(first->type, fourcc("avc1"));
        EXPECT_EQ(first->next->type, fourcc("mp4a"));
        // Header-only nodes: nothing decoded, no children, the whole box passed over.
        EXPECT_EQ(first->alloc_size, sizeof(Box));
        EXPECT_EQ(first->next->alloc_size, sizeof(Box));
        EXPECT_EQ(first->first_child, nullptr);
        EXPECT_EQ(muxer_pos(r.m), file.size());
        deleteBox(b);
    }
}

TEST(Stsd, SampleEntryLayoutDirectlyWithoutHandlerReportsUndecoded) {
    Box hdr{};
    hdr.type = fourcc("avc1");
    hdr.size = 86;
    hdr.node_flags = BOX_HEADER_ONLY | BOX_ON_STACK;
    Box *b = &hdr;
    Reader r(Bytes(78, 0), fourcc("sbtl"));
    bool decoded = true;
    CaptureStderr();
    EXPECT_TRUE(codeSampleEntry(r.m, &b, 0, &decoded));
    EXPECT_EQ(GetCapturedStderr(), "rwBox: handler type not set\n");
    EXPECT_FALSE(decoded);
    EXPECT_EQ(b, &hdr); // not extended, nothing consumed
    EXPECT_EQ(muxer_pos(r.m), 0u);
}

// ---- avcC ------------------------------------------------------------------------------------

Bytes avccPayload(const std::vector<Bytes> &sps, const std::vector<Bytes> &pps, uint8_t lsm_byte,
                  uint8_t count_byte_high) {
    Bytes p = {1, 0x42, 0xC0, 0x1E, lsm_byte, uint8_t(count_byte_high | sps.size())};
    for (const Bytes &s : sps) {
        put16(p, uint32_t(s.size()));
        append(p, s);
    }
    put8(p, uint32_t(pps.size()));
    for (const Bytes &s : pps) {
        put16(p, uint32_t(s.size()));
        append(p, s);
    }
    return p;
}

TEST(AvcC, OneSpsOnePpsReadIntoSlotsAndWrittenAs43BytesWithReservedBitsSet) {
    Bytes sps = range(0x67, 20), pps = range(0x68, 4);
    // Reserved bits clear on input; written back they are set: 0xFF and 0xE1.
    Bytes file = box("avcC", avccPayload({sps}, {pps}, 0x03, 0x00));
    Reader r(file);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    auto *c = static_cast<AvcC *>(b);
    EXPECT_EQ(c->configurationVersion, 1);
    EXPECT_EQ(c->AVCProfileIndication, 0x42);
    EXPECT_EQ(c->profile_compatibility, 0xC0);
    EXPECT_EQ(c->AVCLevelIndication, 0x1E);
    EXPECT_EQ(c->lengthSizeMinusOne, 3);
    EXPECT_EQ(c->numOfSequenceParameterSets, 1);
    EXPECT_EQ(c->numOfPictureParameterSets, 1);
    EXPECT_EQ(c->length[0], 20);
    EXPECT_EQ(c->length[1], 4);
    EXPECT_EQ(Bytes(c->data, c->data + 20), sps);
    EXPECT_EQ(Bytes(c->data + 20, c->data + 24), pps);

    markAsRead(b);
    Writer w;
    Bytes out = w.write(b);
    EXPECT_EQ(out, box("avcC", avccPayload({sps}, {pps}, 0xFF, 0xE0)));
    EXPECT_EQ(out.size(), 43u);
    deleteBox(b);
}

TEST(AvcC, TrailingBytesAreSkippedOnReadAndNotWrittenBack) {
    Bytes sps = range(0x67, 10), pps = range(0x68, 3);
    Bytes payload = avccPayload({sps}, {pps}, 0xFF, 0xE0);
    Bytes high_ext = {0xFC, 0xF8, 0xF8, 0x00}; // chroma/bit depth fields of the High profiles
    append(payload, high_ext);
    Bytes file = box("avcC", payload);
    append(file, box("free", {}));
    Reader r(file);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->size, 8 + payload.size());
    EXPECT_EQ(muxer_pos(r.m), 8 + payload.size());
    Box *next = r.read();
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(next->type, fourcc("free"));
    deleteBox(next);

    // Written back, the box keeps its declared size; the unheld trailing bytes are a gap.
    markAsRead(b);
    Writer w;
    Bytes out = w.write(b);
    Bytes expected = box("avcC", avccPayload({sps}, {pps}, 0xFF, 0xE0));
    zeros(expected, 4);
    expected[3] = uint8_t(expected.size());
    EXPECT_EQ(out, expected);
    deleteBox(b);
}

TEST(AvcC, RecordKeepsTheFirstSetsThatFitAndStaysConsistent) {
    struct Case {
        const char *what;
        std::vector<Bytes> sps, pps;
        Bytes kept_sps, kept_pps;
    };
    Bytes a100 = range(0, 100), b10 = range(0x80, 10), p40 = range(0x40, 40), p30 = range(0x30, 30),
          big = range(1, 140), p32 = range(0x20, 32), p33 = range(7, 33);
    std::vector<Case> cases = {
        {"two SPS: the first is kept", {a100, b10}, {p30}, a100, p30},
        {"a PPS that does not fit behind the SPS is passed over", {a100}, {p40, p30}, a100, p30},
        {"an SPS larger than the record is passed over", {big, b10}, {p40}, b10, p40},
        {"exactly 132 bytes fit", {a100}, {p32}, a100, p32},
        {"133 bytes do not", {a100}, {p33}, a100, {}},
        {"no SPS at all", {}, {p30}, {}, p30},
    };
    for (const Case &c : cases) {
        Bytes file = box("avcC", avccPayload(c.sps, c.pps, 0xFF, 0xE0));
        Reader r(file);
        Box *b = r.read();
        ASSERT_NE(b, nullptr) << c.what;
        auto *rec = static_cast<AvcC *>(b);
        EXPECT_EQ(rec->numOfSequenceParameterSets, c.kept_sps.empty() ? 0 : 1) << c.what;
        EXPECT_EQ(rec->numOfPictureParameterSets, c.kept_pps.empty() ? 0 : 1) << c.what;
        EXPECT_EQ(rec->length[0], c.kept_sps.size()) << c.what;
        EXPECT_EQ(rec->length[1], c.kept_pps.size()) << c.what;
        Bytes held(rec->data, rec->data + rec->length[0] + rec->length[1]);
        Bytes both = c.kept_sps;
        append(both, c.kept_pps);
        EXPECT_EQ(held, both) << c.what;
        EXPECT_EQ(muxer_pos(r.m), file.size()) << c.what;

        // Rebuilt in memory (measured when written), it is a valid avcC of what it holds.
        b->node_flags |= BOX_AUTO_SIZE;
        Writer w;
        std::vector<Bytes> ks, kp;
        if (!c.kept_sps.empty())
            ks.push_back(c.kept_sps);
        if (!c.kept_pps.empty())
            kp.push_back(c.kept_pps);
        EXPECT_EQ(w.write(b), box("avcC", avccPayload(ks, kp, 0xFF, 0xE0))) << c.what;
        deleteBox(b);
    }
}

TEST(AvcC, SetReachingBeyondTheBoxEndsTheListAtTheBoxEnd) {
    Bytes payload = {1, 0x42, 0, 0x1E, 0xFF, 0xE2};
    put16(payload, 4);
    append(payload, {0x67, 1, 2, 3});
    put16(payload, 60); // second SPS claims 60 bytes; the box holds 2
    append(payload, {9, 9});
    Bytes file = box("avcC", payload);
    append(file, box("free", {}));
    Reader r(file);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    auto *c = static_cast<AvcC *>(b);
    EXPECT_EQ(c->numOfSequenceParameterSets, 1);
    EXPECT_EQ(c->length[0], 4);
    EXPECT_EQ(c->numOfPictureParameterSets, 0);
    EXPECT_EQ(muxer_pos(r.m), 8 + payload.size());
    Box *next = r.read();
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(next->type, fourcc("free"));
    deleteBox(next);
    deleteBox(b);
}

TEST(AvcC, WriterRecordIsClampedToWhatTheDataAreaHolds) {
    auto *c = static_cast<AvcC *>(newBox(fourcc("avcC"), 0));
    c->configurationVersion = 1;
    c->AVCProfileIndication = 0x42;
    c->profile_compatibility = 0xC0;
    c->AVCLevelIndication = 0x1E;
    c->lengthSizeMinusOne = 3;
    c->numOfSequenceParameterSets = 3; // more than the two slots can describe
    c->numOfPictureParameterSets = 1;
    c->length[0] = 100;
    c->length[1] = 60; // 160 > 132: the PPS cannot be in the record
    for (int i = 0; i < AVCC_DATA_MAX; i++)
        c->data[i] = uint8_t(i);
    Writer w;
    Bytes out = w.write(c);
    EXPECT_EQ(out, box("avcC", avccPayload({range(0, 100)}, {}, 0xFF, 0xE0)));
    EXPECT_EQ(c->numOfSequenceParameterSets, 1);
    EXPECT_EQ(c->numOfPictureParameterSets, 0);
    deleteBox(c);
}

// ---- btrt, fiel, chan ------------------------------------------------------------------------

TEST(SmallBoxes, BtrtAndFielRoundTrip) {
    Bytes btrt;
    put32(btrt, 0x00012345);
    put32(btrt, 2000000);
    put32(btrt, 1500000);
    Bytes fiel = {2, 9};
    for (const Bytes &file : {box("btrt", btrt), box("fiel", fiel)}) {
        Reader r(file);
        Box *b = r.read();
        ASSERT_NE(b, nullptr);
        if (b->type == fourcc("btrt")) {
            auto *x = static_cast<Btrt *>(b);
            EXPECT_EQ(x->bufferSizeDB, 0x12345u);
            EXPECT_EQ(x->maxBitrate, 2000000u);
            EXPECT_EQ(x->avgBitrate, 1500000u);
        } else {
            auto *x = static_cast<Fiel *>(b);
            EXPECT_EQ(x->fieldCount, 2);
            EXPECT_EQ(x->fieldOrder, 9);
        }
        markAsRead(b);
        Writer w;
        EXPECT_EQ(w.write(b), file);
        deleteBox(b);
    }
}

Bytes chanPayload(uint32_t count, uint32_t described) {
    Bytes p = {0, 0, 0, 0};
    put32(p, 0x650002);
    put32(p, 3);
    put32(p, count);
    for (uint32_t i = 0; i < described; i++) {
        put32(p, i + 1);      // label
        put32(p, 0x10 + i);   // flags
        put32(p, 0x3F800000); // 1.0f
        put32(p, 0xBF800000); // -1.0f
        put32(p, 0x7FC00000); // a NaN pattern moves unchanged
    }
    return p;
}

TEST(Chan, DescriptionsReadIntoAnOwnedArrayAndWrittenBack) {
    Bytes file = box("chan", chanPayload(2, 2));
    Reader r(file);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    auto *c = static_cast<Chan *>(b);
    EXPECT_EQ(c->ChannelLayoutTag, 0x650002u);
    EXPECT_EQ(c->ChannelBitmap, 3u);
    ASSERT_EQ(c->NumberChannelDescriptions, 2u);
    ASSERT_NE(c->descriptions, nullptr);
    EXPECT_TRUE(c->node_flags & BOX_OWNS_ARRAYS);
    EXPECT_EQ(c->descriptions[1].ChannelLabel, 2u);
    EXPECT_EQ(c->descriptions[1].ChannelFlags, 0x11u);
    EXPECT_EQ(c->descriptions[1].Coordinates[0], 0x3F800000u);
    EXPECT_EQ(c->descriptions[1].Coordinates[2], 0x7FC00000u);
    markAsRead(b);
    Writer w;
    EXPECT_EQ(w.write(b), file);
    deleteBox(b); // frees the array: a leak would fail the sanitizer run
}

TEST(Chan, ZeroDescriptionsAllocateNothing) {
    Bytes file = box("chan", chanPayload(0, 0));
    Reader r(file);
    unsigned long before = mp4_alloc_count();
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(mp4_alloc_count() - before, 1u); // the record only
    EXPECT_EQ(static_cast<Chan *>(b)->descriptions, nullptr);
    deleteBox(b);
}

TEST(Chan, WriterWithoutArrayWritesAConsistentBoxWithNoDescriptions) {
    auto *c = static_cast<Chan *>(newBox(fourcc("chan"), 0));
    c->ChannelLayoutTag = 0x650002;
    c->ChannelBitmap = 3;
    c->NumberChannelDescriptions = 2; // but no array to write them from
    Writer w;
    EXPECT_EQ(w.write(c), box("chan", chanPayload(0, 0)));
    EXPECT_EQ(c->NumberChannelDescriptions, 0u);
    deleteBox(c);
}

TEST(Chan, WriterWritesExactlyTheCountedDescriptions) {
    auto *c = static_cast<Chan *>(newBox(fourcc("chan"), 0));
    c->ChannelLayoutTag = 0x650002;
    c->ChannelBitmap = 3;
    c->NumberChannelDescriptions = 1;
    c->descriptions = static_cast<ChannelDescription *>(mp4_calloc(1, sizeof(ChannelDescription)));
    c->descriptions[0] = {1, 0x10, {0x3F800000, 0xBF800000, 0x7FC00000}};
    Writer w;
    EXPECT_EQ(w.write(c), box("chan", chanPayload(1, 1)));
    deleteBox(c);
}

TEST(Chan, ImpossibleCountIsInputThatRunsOut) {
    Bytes file = box("chan", chanPayload(0x10000000, 1)); // 5 GB of descriptions claimed
    Reader r(file);
    unsigned long before = mp4_alloc_count();
    EXPECT_EQ(r.read(), nullptr);
    EXPECT_TRUE(at_end_of_input(r.m));
    EXPECT_EQ(r.m->error, 0);
    EXPECT_EQ(muxer_pos(r.m), 0u);             // rewound to the box start
    EXPECT_LE(mp4_alloc_count() - before, 1u); // at most the record, since freed
}

TEST(Chan, AllocationFailureIsError2) {
    Bytes file = box("chan", chanPayload(2, 2));
    Reader r(file);
    mp4_alloc_fail_after(1); // the record succeeds, the description array fails
    CaptureStderr();
    Box *b = r.read();
    std::string err = GetCapturedStderr();
    mp4_alloc_fail_after(-1);
    EXPECT_EQ(b, nullptr);
    EXPECT_EQ(r.m->error, MP4_ERR_NOMEM);
    EXPECT_NE(err.find("rwBox: failed to allocate memory for box chan"), std::string::npos);
    EXPECT_EQ(muxer_pos(r.m), file.size());
}

} // namespace
