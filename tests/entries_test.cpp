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
using namespace boxtest;

namespace {

Bytes range(uint8_t first, size_t n) {
    Bytes b;
    for (size_t i = 0; i < n; i++)
        b.push_back(uint8_t(first + i));
    return b;
}

// Writes `b` with a fresh memory writer, `handler` in effect; returns the bytes written.
Bytes writeAs(Box *b, uint32_t handler = 0) {
    Bytes buf(4096);
    mp4_muxer *m = mp4_writer_create();
    mp4_buf_put(m, buf.data(), uint32_t(buf.size()));
    m->handler_type = handler;
    EXPECT_NE(rwBox(m, b), nullptr);
    buf.resize(size_t(muxer_pos(m)));
    mp4_buf_get(m);
    mp4_delete(m);
    return buf;
}

// Sample entries are laid out only under an stsd: the writer's entries are linked under one.
SampleEntry *newEntryUnderStsd(uint32_t type) {
    auto *e = static_cast<SampleEntry *>(newBox(type, 8));
    addBox(e, newBox(fourcc("stsd"), 16));
    e->data_reference_index = 1;
    return e;
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

// ---- visual and audio entries ----------------------------------------------------------------

Bytes visualPayload(const Bytes &name32) {
    Bytes p(6, 0);
    put16(p, 1);             // data_reference_index
    put16(p, 0);             // pre_defined
    put16(p, 0);             // reserved
    append(p, Bytes(12, 0)); // pre_defined
    put16(p, 320);           // width
    put16(p, 240);           // height
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
    SampleEntry *e = newEntryUnderStsd(type);
    e->width = 320;
    e->height = 240;
    e->horizresolution = e->vertresolution = 0x480000;
    e->frame_count = 1;
    memcpy(e->compressorname, name, 32);
    e->depth = 0x18;
    return e;
}

Bytes audioPayload(uint16_t version) {
    Bytes p(6, 0);
    put16(p, 1); // data_reference_index
    put16(p, version);
    put16(p, 0); // revision
    put32(p, 0); // vendor
    put16(p, 2); // channelcount
    put16(p, 16);
    put16(p, version == 1 ? 0xFFFE : 0);
    put16(p, 0); // packet size
    put32(p, 44100u << 16);
    if (version == 1)
        for (uint32_t v : {1, 2, 4, 2}) // samples and bytes per packet, bytes per frame and sample
            put32(p, v);
    return p;
}

SampleEntry *newAudioEntry(uint16_t version) {
    SampleEntry *e = newEntryUnderStsd(fourcc("sowt"));
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

// Each layout is written field by field (86 bytes for video ending 0xFFFF, 52 for audio version 1,
// 36 for versions 0 and 2) and read back from those bytes into the same record, the codec box
// after the fixed fields found as the entry's child.
TEST(SampleEntry, VisualAndEachAudioVersionWrittenExactlyAndReadBack) {
    struct Case {
        uint32_t handler;
        SampleEntry *entry;
        Bytes expected;
    };
    Bytes rate;
    for (uint32_t v : {1000, 2000, 3000})
        put32(rate, v);
    Bytes btrt = box("btrt", rate);
    Bytes name = isoName("Lavc60.31.102 libx264");
    std::vector<Case> cases = {{VIDE, newVisualEntry(fourcc("avc1"), name.data()),
                                box("avc1", cat({visualPayload(name), btrt}))}};
    for (uint16_t version : {0, 1, 2})
        cases.push_back(
            {SOUN, newAudioEntry(version), box("sowt", cat({audioPayload(version), btrt}))});
    for (const Case &c : cases) {
        SampleEntry *e = c.entry;
        SCOPED_TRACE(fcc(e->type) + " version " + std::to_string(e->version));
        auto *child = static_cast<Btrt *>(newBox(fourcc("btrt"), 20));
        child->bufferSizeDB = 1000;
        child->maxBitrate = 2000;
        child->avgBitrate = 3000;
        addBox(child, e);
        Bytes out = writeAs(e, c.handler);
        EXPECT_EQ(out.size(), 20 + (c.handler == VIDE ? 86u : e->version == 1 ? 52u : 36u));
        EXPECT_EQ(out, c.expected);

        MemReader r(stsdOf(out, 1));
        r.m->handler_type = c.handler;
        Box *stsd = r.read();
        ASSERT_NE(stsd, nullptr);
        ASSERT_NE(stsd->first_child, nullptr);
        TreeCompare tc;
        tc.tree("", e, stsd->first_child, c.handler);
        EXPECT_EQ(tc.diffs, std::vector<std::string>{});
        if (c.handler == SOUN && e->version != 1) {
            EXPECT_EQ(static_cast<SampleEntry *>(stsd->first_child)->samplesPerPacket, 0u);
        }
        EXPECT_EQ(muxer_pos(r.m), r.bytes.size());
        deleteBox(stsd);
        deleteWithStsd(e);
    }
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
    Bytes odd_stored(32, 0); // a length byte followed by non-zero junk
    odd_stored[0] = 3;
    for (size_t i = 1; i < 32; i++)
        odd_stored[i] = uint8_t('a' + i % 26);
    Bytes with_junk(32, 0); // a NUL-padded name: only the part before the NUL counts
    memcpy(with_junk.data(), "x264\0junk", 9);
    std::vector<Case> cases = {
        {"32-byte name keeps its first 31 characters", full, full_expected},
        {"all zeros stay all zeros", Bytes(32, 0), Bytes(32, 0)},
        {"a stored first byte below 32 means unchanged", odd_stored, odd_stored},
        {"bytes after the terminator are dropped", with_junk, isoName("x264")},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        SampleEntry *e = newVisualEntry(fourcc("mp4v"), c.in.data());
        Bytes out = writeAs(e, VIDE);
        ASSERT_EQ(out.size(), 86u);
        EXPECT_EQ(Bytes(out.begin() + 50, out.begin() + 82), c.expected);
        // The writer's own record is left as it was: a second write gives the same bytes.
        EXPECT_EQ(Bytes(e->compressorname, e->compressorname + 32), c.in);
        EXPECT_EQ(writeAs(e, VIDE), out);
        deleteWithStsd(e);
    }
}

// ---- stsd and the handler dispatch -----------------------------------------------------------

TEST(Stsd, PlainEntriesForHintSubpMetaAndMettMetx) {
    Bytes plain(6, 0);
    put16(plain, 7);
    Bytes rate(12, 0); // whatever follows the plain header is read as children
    rate[3] = 1;
    Bytes child_box = box("btrt", rate);
    for (uint32_t handler : {fourcc("hint"), fourcc("subp"), fourcc("meta"), 0u}) {
        SCOPED_TRACE(fcc(handler));
        Bytes entries;
        if (handler)
            append(entries, box("mp4s", cat({plain, child_box})));
        append(entries, box("mett", plain)); // its own case, under any handler
        Bytes file = stsdOf(entries, handler ? 2 : 1);
        MemReader r(file);
        r.m->handler_type = handler;
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
        EXPECT_EQ(writeAs(b, handler), file);
        deleteBox(b);
    }
}

// Read through the driver or by calling the layout directly, an entry under a handler without a
// layout is left a header-only node with one message, nothing decoded.
TEST(Stsd, UnknownHandlerKeepsEntriesAsHeadersWithOneMessageEach) {
    Bytes file =
        stsdOf(cat({box("avc1", visualPayload(isoName("x"))), box("mp4a", audioPayload(0))}), 2);
    for (uint32_t handler : {0u, fourcc("text"), fourcc("alis"), fourcc("sbtl")}) {
        SCOPED_TRACE(fcc(handler));
        MemReader r(file);
        r.m->handler_type = handler;
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

        Box hdr{};
        hdr.type = fourcc("avc1");
        hdr.size = 86;
        hdr.node_flags = BOX_HEADER_ONLY | BOX_ON_STACK;
        Box *h = &hdr;
        MemReader direct(Bytes(78, 0));
        direct.m->handler_type = handler;
        bool decoded = true;
        CaptureStderr();
        EXPECT_TRUE(codeSampleEntry(direct.m, &h, 0, &decoded));
        EXPECT_EQ(GetCapturedStderr(), "rwBox: handler type not set\n");
        EXPECT_FALSE(decoded);
        EXPECT_EQ(h, &hdr); // not extended, nothing consumed
        EXPECT_EQ(muxer_pos(direct.m), 0u);
    }
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

// A list of at most one set: none for an empty one.
std::vector<Bytes> kept(const Bytes &set) {
    return set.empty() ? std::vector<Bytes>{} : std::vector<Bytes>{set};
}

// The record holds the first SPS and the first PPS that fit its 132 data bytes, read up to the box
// end and no further. Written back it keeps its declared size (the unheld bytes left as a gap);
// rebuilt in memory (measured when written) it is a valid avcC of what it holds, reserved bits set.
TEST(AvcC, RecordKeepsTheFirstSetsThatFitWithinTheBox) {
    struct Case {
        const char *what;
        Bytes payload, kept_sps, kept_pps;
    };
    Bytes a100 = range(0, 100), b10 = range(0x80, 10), p40 = range(0x40, 40), p30 = range(0x30, 30),
          big = range(1, 140), p32 = range(0x20, 32), p33 = range(7, 33), s20 = range(0x67, 20),
          p4 = range(0x68, 4), s10 = range(0x67, 10), p3 = range(0x68, 3), s4 = {0x67, 1, 2, 3};
    auto avcc = [](const std::vector<Bytes> &sps, const std::vector<Bytes> &pps) {
        return avccPayload(sps, pps, 0xFF, 0xE0);
    };
    // After the sets: the chroma/bit depth fields of the High profiles.
    Bytes high = cat({avcc({s10}, {p3}), {0xFC, 0xF8, 0xF8, 0x00}});
    // Two SPS, the second claiming 60 bytes of which the box holds 2.
    Bytes beyond = {1, 0x42, 0xC0, 0x1E, 0xFF, 0xE2, 0, 4, 0x67, 1, 2, 3, 0, 60, 9, 9};
    std::vector<Case> cases = {
        {"one SPS and one PPS, reserved bits clear on input", avccPayload({s20}, {p4}, 0x03, 0x00),
         s20, p4},
        {"two SPS: the first is kept", avcc({a100, b10}, {p30}), a100, p30},
        {"a PPS that does not fit behind the SPS is passed over", avcc({a100}, {p40, p30}), a100,
         p30},
        {"an SPS larger than the record is passed over", avcc({big, b10}, {p40}), b10, p40},
        {"exactly 132 bytes fit", avcc({a100}, {p32}), a100, p32},
        {"133 bytes do not", avcc({a100}, {p33}), a100, {}},
        {"no SPS at all", avcc({}, {p30}), {}, p30},
        {"trailing bytes are skipped", high, s10, p3},
        {"a set reaching beyond the box ends the list at the box end", beyond, s4, {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        MemReader r(cat({box("avcC", c.payload), box("free", {})}));
        Box *b = r.read();
        ASSERT_NE(b, nullptr);
        auto *rec = static_cast<AvcC *>(b);
        EXPECT_EQ(rec->configurationVersion, 1);
        EXPECT_EQ(rec->AVCProfileIndication, 0x42);
        EXPECT_EQ(rec->profile_compatibility, 0xC0);
        EXPECT_EQ(rec->AVCLevelIndication, 0x1E);
        EXPECT_EQ(rec->lengthSizeMinusOne, 3);
        EXPECT_EQ(rec->numOfSequenceParameterSets, c.kept_sps.empty() ? 0 : 1);
        EXPECT_EQ(rec->numOfPictureParameterSets, c.kept_pps.empty() ? 0 : 1);
        EXPECT_EQ(rec->length[0], c.kept_sps.size());
        EXPECT_EQ(rec->length[1], c.kept_pps.size());
        Bytes held(rec->data, rec->data + rec->length[0] + rec->length[1]);
        EXPECT_EQ(held, cat({c.kept_sps, c.kept_pps}));
        EXPECT_EQ(b->size, 8 + c.payload.size());
        EXPECT_EQ(muxer_pos(r.m), 8 + c.payload.size());
        Box *next = r.read();
        ASSERT_NE(next, nullptr);
        EXPECT_EQ(next->type, fourcc("free"));
        deleteBox(next);

        Bytes rebuilt = box("avcC", avccPayload(kept(c.kept_sps), kept(c.kept_pps), 0xFF, 0xE0));
        Bytes declared = rebuilt;
        declared.resize(8 + c.payload.size());
        declared[3] = uint8_t(declared.size());
        markAsRead(b);
        EXPECT_EQ(writeAs(b), declared);
        b->node_flags |= BOX_AUTO_SIZE;
        EXPECT_EQ(writeAs(b), rebuilt);
        deleteBox(b);
    }
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
    EXPECT_EQ(writeAs(c), box("avcC", avccPayload({range(0, 100)}, {}, 0xFF, 0xE0)));
    EXPECT_EQ(c->numOfSequenceParameterSets, 1);
    EXPECT_EQ(c->numOfPictureParameterSets, 0);
    deleteBox(c);
}

// ---- fiel, chan ------------------------------------------------------------------------------

TEST(Fiel, RoundTrip) {
    Bytes file = box("fiel", {2, 9});
    MemReader r(file);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(static_cast<Fiel *>(b)->fieldCount, 2);
    EXPECT_EQ(static_cast<Fiel *>(b)->fieldOrder, 9);
    markAsRead(b);
    EXPECT_EQ(writeAs(b), file);
    deleteBox(b);
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
    MemReader r(file);
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
    EXPECT_EQ(writeAs(b), file);
    deleteBox(b); // frees the array: a leak would fail the sanitizer run
}

TEST(Chan, ZeroDescriptionsAllocateNothing) {
    MemReader r(box("chan", chanPayload(0, 0)));
    unsigned long before = mp4_alloc_count();
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(mp4_alloc_count() - before, 1u); // the record only
    EXPECT_EQ(static_cast<Chan *>(b)->descriptions, nullptr);
    deleteBox(b);
}

// The writer writes exactly the counted descriptions; a count without an array to write them
// from becomes zero, so the box stays consistent.
TEST(Chan, WriterWritesTheCountedDescriptionsOrNoneWithoutAnArray) {
    for (bool with_array : {true, false}) {
        SCOPED_TRACE(with_array ? "with array" : "without array");
        auto *c = static_cast<Chan *>(newBox(fourcc("chan"), 0));
        c->ChannelLayoutTag = 0x650002;
        c->ChannelBitmap = 3;
        c->NumberChannelDescriptions = with_array ? 1 : 2;
        if (with_array) {
            c->descriptions =
                static_cast<ChannelDescription *>(mp4_calloc(1, sizeof(ChannelDescription)));
            c->descriptions[0] = {1, 0x10, {0x3F800000, 0xBF800000, 0x7FC00000}};
        }
        EXPECT_EQ(writeAs(c), box("chan", chanPayload(with_array, with_array)));
        EXPECT_EQ(c->NumberChannelDescriptions, with_array ? 1u : 0u);
        deleteBox(c);
    }
}

TEST(Chan, ImpossibleCountIsInputThatRunsOut) {
    Bytes file = box("chan", chanPayload(0x10000000, 1)); // 5 GB of descriptions claimed
    MemReader r(file);
    unsigned long before = mp4_alloc_count();
    EXPECT_EQ(r.read(), nullptr);
    EXPECT_TRUE(at_end_of_input(r.m));
    EXPECT_EQ(r.m->error, 0);
    EXPECT_EQ(muxer_pos(r.m), 0u);             // rewound to the box start
    EXPECT_LE(mp4_alloc_count() - before, 1u); // at most the record, since freed
}

TEST(Chan, AllocationFailureIsError2) {
    Bytes file = box("chan", chanPayload(2, 2));
    MemReader r(file);
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
