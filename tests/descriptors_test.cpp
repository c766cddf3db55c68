// MPEG-4 descriptors in esds and iods boxes: the tag dispatch, expandable lengths, the body
// layouts, the final move to the end a length declares, and the bounded records (128 bytes of
// decoder specific info, one descriptor of each kind). Byte vectors are written out by hand.
#include "box/box.h"
#include "box/layouts.h"
#include "byte_builder.h"
#include "tree_compare.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using namespace test_util;

namespace {

Bytes fullBox0(const char (&type)[5], const Bytes &payload) {
    Bytes p = {0, 0, 0, 0};
    append(p, payload);
    return box(type, p);
}

// tag, one-byte length, body
Bytes desc(uint8_t tag, const Bytes &body) {
    Bytes d = {tag, uint8_t(body.size())};
    append(d, body);
    return d;
}

using Reader = boxtest::BoxReader;

struct Writer {
    Bytes buf;
    mp4_muxer *m;
    explicit Writer(size_t capacity = 70000, uint8_t fill = 0) : buf(capacity, fill) {
        m = mp4_writer_create();
        mp4_buf_put(m, buf.data(), uint32_t(capacity));
    }
    Bytes written(uint64_t from = 0) {
        return Bytes(buf.begin() + long(from), buf.begin() + long(muxer_pos(m)));
    }
    // Makes the first n bytes of the stream already written (with the fill byte), so that a
    // jump over them leaves them as they are instead of extending the stream with zeros.
    void dirty(uint32_t n) {
        m->pos = m->max_pos = n;
        muxer_seek(m, 0);
    }
    Bytes write(Box *b) {
        uint64_t from = muxer_pos(m);
        EXPECT_NE(rwBox(m, b), nullptr);
        return written(from);
    }
    ~Writer() {
        mp4_buf_get(m);
        mp4_delete(m);
    }
};

void markAsRead(Box *b) {
    b->node_flags &= uint8_t(~BOX_AUTO_SIZE);
}

// The mp4a esds as track creation builds it: 44.1 kHz stereo AAC LC.
Esds *newMp4aEsds() {
    auto *e = static_cast<Esds *>(newBox(fourcc("esds"), 40));
    ES_Descriptor &es = e->es;
    es.tag = 3;
    es.length = 26;
    es.ES_ID = 1;
    es.present = 3;
    DecoderConfigDescriptor &d = es.decConfigDescr;
    d.tag = 4;
    d.length = 17;
    d.objectTypeIndication = 0x40;
    d.streamType = 5;
    d.bufferSizeDB = 15000;
    d.maxBitrate = 1500000;
    d.present = 1;
    d.decSpecificInfo.tag = 5;
    d.decSpecificInfo.length = 2;
    d.decSpecificInfo.data[0] = 0x12;
    d.decSpecificInfo.data[1] = 0x10;
    es.slConfigDescr.tag = 6;
    es.slConfigDescr.length = 2;
    es.slConfigDescr.predefined = 2;
    return e;
}

const Bytes kMp4aEsds = {0x00, 0x00, 0x00, 0x28, 'e',  's',  'd',  's',  0x00, 0x00,
                         0x00, 0x00, 0x03, 0x1A, 0x00, 0x01, 0x00, 0x04, 0x11, 0x40,
                         0x15, 0x00, 0x3A, 0x98, 0x00, 0x16, 0xE3, 0x60, 0x00, 0x00,
                         0x00, 0x00, 0x05, 0x02, 0x12, 0x10, 0x06, 0x02, 0x02, 0x00};

// ---- esds ------------------------------------------------------------------------------------

TEST(Esds, Mp4aAsTrackCreationBuildsIt) {
    Esds *e = newMp4aEsds();
    Writer w;
    Bytes out = w.write(e);
    EXPECT_EQ(out, kMp4aEsds);
    deleteBox(e);

    Reader r(out);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(muxer_pos(r.m), 40u); // the second SL byte was jumped over
    const ES_Descriptor &es = static_cast<Esds *>(b)->es;
    EXPECT_EQ(es.tag, 3);
    EXPECT_EQ(es.length, 26u);
    EXPECT_EQ(es.ES_ID, 1);
    EXPECT_EQ(es.streamPriority, 0);
    EXPECT_EQ(es.present, 3);
    const DecoderConfigDescriptor &d = es.decConfigDescr;
    EXPECT_EQ(d.tag, 4);
    EXPECT_EQ(d.length, 17u);
    EXPECT_EQ(d.objectTypeIndication, 0x40);
    EXPECT_EQ(d.streamType, 5);
    EXPECT_EQ(d.upStream, 0);
    EXPECT_EQ(d.bufferSizeDB, 15000u);
    EXPECT_EQ(d.maxBitrate, 1500000u);
    EXPECT_EQ(d.avgBitrate, 0u);
    EXPECT_EQ(d.present, 1);
    EXPECT_EQ(d.decSpecificInfo.tag, 5);
    EXPECT_EQ(d.decSpecificInfo.length, 2u);
    EXPECT_EQ(d.decSpecificInfo.data[0], 0x12);
    EXPECT_EQ(d.decSpecificInfo.data[1], 0x10);
    const SLConfigDescriptor &sl = es.slConfigDescr;
    EXPECT_EQ(sl.tag, 6);
    EXPECT_EQ(sl.length, 2u);
    EXPECT_EQ(sl.predefined, 2);
    EXPECT_EQ(sl.useTimeStampsFlag, 1); // implied by a predefined set
    EXPECT_EQ(sl.durationFlag, 0);

    markAsRead(b);
    Writer again;
    EXPECT_EQ(again.write(b), kMp4aEsds);
    deleteBox(b);
}

TEST(Esds, PredefinedSlIsThePredefinedByteThenAJump) {
    // A stream that already holds bytes there: the jump leaves them as they are.
    Writer w(64, 0xEE);
    w.dirty(8);
    SLConfigDescriptor sl{};
    sl.tag = 6;
    sl.length = 4;
    sl.predefined = 2;
    rwDescriptor(w.m, 6, &sl);
    EXPECT_EQ(muxer_pos(w.m), 6u);
    EXPECT_EQ(Bytes(w.buf.begin(), w.buf.begin() + 8),
              (Bytes{0x06, 0x04, 0x02, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));
}

TEST(Esds, DecoderSpecificInfoOf200BytesIsTruncatedTo128) {
    Bytes dsi(200);
    for (size_t i = 0; i < dsi.size(); i++)
        dsi[i] = uint8_t(i + 1);
    Bytes dcd_body = {0x40, 0x15, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    Bytes dsi_desc = {0x05, 0x81, 0x48}; // 200 in two bytes
    append(dsi_desc, dsi);
    append(dcd_body, dsi_desc);
    Bytes dcd = {0x04, 0x81, uint8_t(dcd_body.size() - 128)};
    append(dcd, dcd_body);
    Bytes es_body = {0x00, 0x01, 0x00};
    append(es_body, dcd);
    append(es_body, desc(6, {2}));
    Bytes es = {0x03, 0x81, uint8_t(es_body.size() - 128)};
    append(es, es_body);
    Bytes file = fullBox0("esds", es);
    append(file, box("free", {}));

    Reader r(file);
    CaptureStdout();
    Box *b = r.read();
    std::string out = GetCapturedStdout();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(out, "rwDescriptor: decSpecificInfo size 200 truncated\n");
    const ES_Descriptor &e = static_cast<Esds *>(b)->es;
    const DecoderSpecificInfo &d = e.decConfigDescr.decSpecificInfo;
    EXPECT_EQ(d.length, 200u);
    EXPECT_EQ(Bytes(d.data, d.data + 128), Bytes(dsi.begin(), dsi.begin() + 128));
    // The SL descriptor after the DCD was found: the stream was at the DCD's end.
    EXPECT_EQ(e.present, 3);
    EXPECT_EQ(e.slConfigDescr.predefined, 2);
    EXPECT_EQ(muxer_pos(r.m), file.size() - 8);

    // Written back, the descriptor keeps its declared 200 bytes: the 128 held, then zeros in
    // place of the rest, so every enclosing length and the box size stay true.
    markAsRead(b);
    Writer w(4096, 0xAA);
    w.dirty(4096);
    CaptureStdout();
    Bytes again = w.write(b);
    GetCapturedStdout();
    Bytes expected(file.begin(), file.end() - 8);
    size_t tail = 12 + 3 + 3 + 3 + 13 + 3 + 128; // where the unheld bytes start
    std::fill(expected.begin() + long(tail), expected.begin() + long(tail + 72), 0);
    EXPECT_EQ(again, expected);
    deleteBox(b);
}

TEST(Esds, SubDescriptorScanUsesStrictAndNonStrictEnds) {
    // ES body: ES_ID, flags, then exactly 2 bytes: a DCD header that is not looked at.
    Bytes es_file = fullBox0("esds", desc(3, {0x00, 0x01, 0x00, 0x04, 0x00}));
    Reader r(es_file);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(static_cast<Esds *>(b)->es.present, 0);
    deleteBox(b);

    // DCD body: 13 bytes of fields, then exactly 2 bytes: an empty DSI that is read.
    Bytes dcd = desc(4, {0x20, 0x11, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x05, 0x00});
    Bytes es_body = {0x00, 0x01, 0x00};
    append(es_body, dcd);
    Reader r2(fullBox0("esds", desc(3, es_body)));
    b = r2.read();
    ASSERT_NE(b, nullptr);
    const DecoderConfigDescriptor &d = static_cast<Esds *>(b)->es.decConfigDescr;
    EXPECT_EQ(d.present, 1);
    EXPECT_EQ(d.decSpecificInfo.tag, 5);
    EXPECT_EQ(d.decSpecificInfo.length, 0u);
    EXPECT_EQ(d.streamType, 4);
    EXPECT_EQ(d.upStream, 0);
    deleteBox(b);
}

TEST(Esds, OtherDescriptorsAreSkippedAndLaterOnesReplaceEarlier) {
    Bytes dsi_dcd = desc(4, {0x40, 0x15, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3, 0x05, 0x01, 0x77});
    Bytes plain_dcd = desc(4, {0x21, 0x12, 0, 0, 4, 0, 0, 0, 5, 0, 0, 0, 6});
    Bytes es_body = {0x00, 0x02, 0x1F};
    append(es_body, desc(9, {1, 2, 3})); // IPI_DescrPointer: skipped
    append(es_body, dsi_dcd);            // replaced below
    append(es_body, desc(0x40, {}));     // unknown tag, empty
    append(es_body, plain_dcd);          // a DCD without DSI
    append(es_body, desc(6, {2}));
    Reader r(fullBox0("esds", desc(3, es_body)));
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    const ES_Descriptor &es = static_cast<Esds *>(b)->es;
    EXPECT_EQ(es.streamPriority, 31);
    EXPECT_EQ(es.present, 3);
    EXPECT_EQ(es.decConfigDescr.objectTypeIndication, 0x21);
    EXPECT_EQ(es.decConfigDescr.streamType, 4);
    EXPECT_EQ(es.decConfigDescr.upStream, 1);
    EXPECT_EQ(es.decConfigDescr.bufferSizeDB, 4u);
    EXPECT_EQ(es.decConfigDescr.present, 0); // the earlier DCD's DSI went with it
    deleteBox(b);
}

TEST(Esds, DcdWithAnotherTagWhereTheDsiGoesLeavesItAbsent) {
    Bytes es_body = {0x00, 0x01, 0x00};
    append(es_body, desc(4, {0x40, 0x15, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x06, 0x01, 0x02}));
    Reader r(fullBox0("esds", desc(3, es_body)));
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    const ES_Descriptor &es = static_cast<Esds *>(b)->es;
    EXPECT_EQ(es.present, 1);
    EXPECT_EQ(es.decConfigDescr.present, 0);
    EXPECT_EQ(es.decConfigDescr.decSpecificInfo.tag, 0);
    EXPECT_EQ(es.slConfigDescr.tag, 0); // not taken for the ES's SL either
    deleteBox(b);
}

TEST(Esds, OptionalEsFieldsAndUrlRoundTrip) {
    Bytes es_body = {0x12, 0x34, 0xE5, 0x00, 0x07, 0x05, 'a', 'b', 'c', 'd', 'e', 0x00, 0x09};
    append(es_body, desc(6, {2}));
    Bytes file = fullBox0("esds", desc(3, es_body));
    Reader r(file);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    const ES_Descriptor &es = static_cast<Esds *>(b)->es;
    EXPECT_EQ(es.ES_ID, 0x1234);
    EXPECT_EQ(es.streamDependenceFlag, 1);
    EXPECT_EQ(es.URL_Flag, 1);
    EXPECT_EQ(es.OCRstreamFlag, 1);
    EXPECT_EQ(es.streamPriority, 5);
    EXPECT_EQ(es.dependsOn_ES_ID, 7);
    EXPECT_EQ(es.URLlength, 5);
    EXPECT_STREQ(es.URLstring, "abcde");
    EXPECT_EQ(es.OCR_ES_Id, 9);
    EXPECT_EQ(es.present, 2);
    markAsRead(b);
    Writer w;
    EXPECT_EQ(w.write(b), file);
    deleteBox(b);
}

TEST(Esds, FirstDescriptorOfAnotherKindLeavesTheBoxWithout) {
    Bytes file = fullBox0("esds", desc(4, {0x40, 0x15, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    Reader r(file);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(static_cast<Esds *>(b)->es.tag, 0);
    EXPECT_EQ(static_cast<Esds *>(b)->es.present, 0);
    EXPECT_EQ(muxer_pos(r.m), file.size());
    // Written back, it has nothing to write: only version and flags.
    Box *fresh = b;
    fresh->node_flags |= BOX_AUTO_SIZE;
    Writer w;
    EXPECT_EQ(w.write(fresh), fullBox0("esds", {}));
    deleteBox(b);
}

TEST(Esds, LengthsBeyondTheBoxStayInsideIt) {
    // An ES claiming 0x0FFFFFFF bytes, a DCD claiming 200, inside a 30-byte box.
    Bytes es = {0x03, 0xFF, 0xFF, 0xFF, 0x7F, 0x00, 0x01, 0x00};
    append(es, {0x04, 0x81, 0x48, 0x40, 0x15, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    Bytes file = fullBox0("esds", es);
    Bytes next = box("free", {1, 2, 3});
    append(file, next);
    Reader r(file);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(r.m->error, 0);
    EXPECT_EQ(muxer_pos(r.m), file.size() - next.size());
    EXPECT_EQ(static_cast<Esds *>(b)->es.length, 0x0FFFFFFFu);
    deleteBox(b);
    Box *f = r.read();
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->type, fourcc("free"));
    deleteBox(f);
}

TEST(Esds, BytesClaimedBeyondTheBoxAreNotTaken) {
    // A DSI claiming 50 bytes where the box holds 20; the next box's bytes are not its data.
    Bytes dsi = {0x05, 50};
    for (int i = 0; i < 20; i++)
        dsi.push_back(uint8_t(0x80 + i));
    Bytes dcd = {0x04, 13 + 50 + 2, 0x40, 0x15, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    append(dcd, dsi);
    Bytes es = {0x03, uint8_t(3 + 2 + dcd[1]), 0x00, 0x01, 0x00};
    append(es, dcd);
    Bytes file = fullBox0("esds", es);
    const size_t box_size = file.size();
    append(file, box("free", Bytes(40, 0xEE)));
    Reader r(file);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    const DecoderSpecificInfo &d = static_cast<Esds *>(b)->es.decConfigDescr.decSpecificInfo;
    EXPECT_EQ(d.length, 50u);
    for (int i = 0; i < 20; i++)
        EXPECT_EQ(d.data[i], 0x80 + i);
    for (int i = 20; i < 50; i++)
        EXPECT_EQ(d.data[i], 0) << i;
    EXPECT_EQ(muxer_pos(r.m), box_size);
    deleteBox(b);
}

TEST(Esds, InputEndingInsideADescriptorDiscardsTheBox) {
    // A file reader (no memory-buffer check ahead of the fields): every cut up to the last
    // field byte runs out inside the descriptors, which must stop and let the driver rewind.
    // The box's last byte (the second SL byte) is jumped over, never read, so it may be absent.
    for (size_t cut = 12; cut < kMp4aEsds.size(); cut++) {
        FILE *f = tmpfile();
        ASSERT_NE(f, nullptr);
        ASSERT_EQ(fwrite(kMp4aEsds.data(), 1, cut, f), cut);
        rewind(f);
        mp4_muxer *m = mp4_reader_create();
        mp4_file_pointer(m, f);
        Box *b = rwBox(m, nullptr);
        if (cut < kMp4aEsds.size() - 1) {
            EXPECT_EQ(b, nullptr) << cut;
            EXPECT_TRUE(at_end_of_input(m)) << cut;
            EXPECT_EQ(muxer_pos(m), 0u) << cut;
        } else {
            ASSERT_NE(b, nullptr);
            EXPECT_EQ(static_cast<Esds *>(b)->es.slConfigDescr.predefined, 2);
        }
        deleteBox(b);
        mp4_delete(m);
        fclose(f);
    }
}

// ---- descriptor lengths and SL layouts through rwDescriptor ----------------------------------

TEST(Descriptor, ExpandableLengthUsesTheFewestBytes) {
    struct Case {
        uint32_t length;
        Bytes header;
    };
    std::vector<Case> cases = {
        {0, {0x05, 0x00}},
        {127, {0x05, 0x7F}},
        {128, {0x05, 0x81, 0x00}},
        {16383, {0x05, 0xFF, 0x7F}},
        {16384, {0x05, 0x81, 0x80, 0x00}},
    };
    for (const Case &c : cases) {
        DecoderSpecificInfo d{};
        d.tag = 5;
        d.length = c.length;
        for (int i = 0; i < DSI_DATA_MAX; i++)
            d.data[i] = uint8_t(0xC0 + i % 16);
        Writer w;
        CaptureStdout();
        rwDescriptor(w.m, 5, &d);
        std::string msg = GetCapturedStdout();
        Bytes out = w.written();
        ASSERT_EQ(out.size(), c.header.size() + c.length) << c.length;
        EXPECT_EQ(Bytes(out.begin(), out.begin() + long(c.header.size())), c.header);
        size_t held = c.length < 128 ? c.length : 128;
        EXPECT_EQ(
            Bytes(out.begin() + long(c.header.size()), out.begin() + long(c.header.size() + held)),
            Bytes(d.data, d.data + held));
        EXPECT_EQ(msg.empty(), c.length <= 128) << c.length;

        Reader r(out);
        DecoderSpecificInfo back{};
        CaptureStdout();
        rwDescriptor(r.m, 5, &back);
        GetCapturedStdout();
        EXPECT_EQ(back.tag, 5);
        EXPECT_EQ(back.length, c.length);
        EXPECT_EQ(memcmp(back.data, d.data, held), 0);
    }
}

TEST(Descriptor, FullSlConfigWithDurationsAndTimestamps) {
    for (uint8_t ts_length : {32, 64, 16}) {
        SLConfigDescriptor s{};
        s.tag = 6;
        s.predefined = 0;
        s.useAccessUnitStartFlag = 1;
        s.useRandomAccessPointFlag = 1;
        s.useTimeStampsFlag = 0;
        s.durationFlag = 1;
        s.timeStampResolution = 90000;
        s.OCRResolution = 0x01020304;
        s.timeStampLength = ts_length;
        s.OCRLength = 8;
        s.AU_Length = 9;
        s.instantBitrateLength = 10;
        s.degradationPriorityLength = 0xF;
        s.AU_seqNumLength = 0x1F;
        s.packetSeqNumLength = 1;
        s.timeScale = 1000;
        s.accessUnitDuration = 40;
        s.compositionUnitDuration = 41;
        s.startDecodingTimeStamp = 0x1122334455667788ull;
        s.startCompositionTimeStamp = 0x99AABBCCDDEEFF00ull;
        Bytes body = {0x00, 0xA1};
        put32(body, 90000);
        put32(body, 0x01020304);
        append(body, {ts_length, 8, 9, 10});
        put16(body, 0xF << 12 | 0x1F << 7 | 1 << 2 | 3);
        put32(body, 1000);
        put16(body, 40);
        put16(body, 41);
        if (ts_length == 32) {
            put32(body, 0x55667788);
            put32(body, 0xDDEEFF00);
        } else if (ts_length == 64) {
            append(body, {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88});
            append(body, {0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, 0x00});
        }
        s.length = uint32_t(body.size());
        Writer w;
        rwDescriptor(w.m, 6, &s);
        EXPECT_EQ(w.written(), desc(6, body)) << int(ts_length);

        Reader r(desc(6, body));
        SLConfigDescriptor back{};
        rwDescriptor(r.m, 6, &back);
        EXPECT_EQ(muxer_pos(r.m), body.size() + 2);
        EXPECT_EQ(back.useAccessUnitStartFlag, 1);
        EXPECT_EQ(back.useAccessUnitEndFlag, 0);
        EXPECT_EQ(back.useRandomAccessPointFlag, 1);
        EXPECT_EQ(back.durationFlag, 1);
        EXPECT_EQ(back.degradationPriorityLength, 0xF);
        EXPECT_EQ(back.AU_seqNumLength, 0x1F);
        EXPECT_EQ(back.packetSeqNumLength, 1);
        EXPECT_EQ(back.accessUnitDuration, 40);
        EXPECT_EQ(back.compositionUnitDuration, 41);
        uint64_t mask = ts_length == 32 ? 0xFFFFFFFFull : ts_length == 64 ? ~0ull : 0;
        EXPECT_EQ(back.startDecodingTimeStamp, s.startDecodingTimeStamp & mask);
        EXPECT_EQ(back.startCompositionTimeStamp, s.startCompositionTimeStamp & mask);
    }
}

TEST(Descriptor, ReadingAnotherKindLeavesTheRecordAlone) {
    Bytes stream = desc(4, {0x40, 0x15, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    Reader r(stream);
    SLConfigDescriptor s{};
    s.predefined = 7;
    rwDescriptor(r.m, 6, &s);
    EXPECT_EQ(s.tag, 0);
    EXPECT_EQ(s.predefined, 7);
    EXPECT_EQ(muxer_pos(r.m), stream.size());
}

// ---- iods ------------------------------------------------------------------------------------

const Bytes kAvcIods = {0x00, 0x00, 0x00, 0x21, 'i',  'o',  'd',  's',  0x00, 0x00, 0x00,
                        0x00, 0x10, 0x13, 0x00, 0x4F, 0xFF, 0xFF, 0x0F, 0x03, 0xFF, 0x03,
                        0x04, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};

TEST(Iods, AsTrackCreationBuildsItFor33Bytes) {
    auto *b = static_cast<Iods *>(newBox(fourcc("iods"), 33));
    InitialObjectDescriptor &d = b->iod;
    d.tag = 0x10;
    d.length = 19;
    d.ObjectDescriptorID = 1;
    d.ODProfileLevelIndication = 0xFF;
    d.sceneProfileLevelIndication = 0xFF;
    d.audioProfileLevelIndication = 0x0F;
    d.visualProfileLevelIndication = 0x03;
    d.graphicsProfileLevelIndication = 0xFF;
    d.esDescr.tag = 3;
    d.esDescr.length = 4;
    Writer w;
    EXPECT_EQ(w.write(b), kAvcIods);
    deleteBox(b);

    Reader r(kAvcIods);
    Box *back = r.read();
    ASSERT_NE(back, nullptr);
    const InitialObjectDescriptor &i = static_cast<Iods *>(back)->iod;
    EXPECT_EQ(i.tag, 0x10);
    EXPECT_EQ(i.length, 19u);
    EXPECT_EQ(i.ObjectDescriptorID, 1);
    EXPECT_EQ(i.URL_Flag, 0);
    EXPECT_EQ(i.includeInlineProfileLevelFlag, 0);
    EXPECT_EQ(i.audioProfileLevelIndication, 0x0F);
    EXPECT_EQ(i.visualProfileLevelIndication, 0x03);
    EXPECT_EQ(i.esDescr.tag, 3);
    EXPECT_EQ(i.esDescr.length, 4u);
    EXPECT_EQ(i.end, 33u);
    EXPECT_EQ(muxer_pos(r.m), 33u);
    deleteBox(back);
}

// An iods whose object descriptor holds only the 7 bytes of fields, followed in the box by
// `rest`; a free box follows so that reads past the iods stay inside the buffer.
Bytes iodsWith(const Bytes &rest) {
    Bytes p = desc(0x10, {0x00, 0x5F, 1, 2, 3, 4, 5});
    append(p, rest);
    Bytes b = fullBox0("iods", p);
    append(b, box("free", Bytes(8, 0)));
    return b;
}

TEST(Iods, NestedDescriptorOnlyBeforeTheBoxEnd) {
    // Three bytes left in the box: a tag-14 ES_ID_Inc is coded with the ES layout.
    Reader r(iodsWith({0x0E, 0x01, 0x12}));
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    const InitialObjectDescriptor &i = static_cast<Iods *>(b)->iod;
    EXPECT_EQ(i.includeInlineProfileLevelFlag, 1);
    EXPECT_EQ(i.graphicsProfileLevelIndication, 5);
    EXPECT_EQ(i.esDescr.tag, 14);
    EXPECT_EQ(muxer_pos(r.m), b->size);
    deleteBox(b);
    Box *f = r.read();
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->type, fourcc("free"));
    deleteBox(f);

    // Nothing left: no nested descriptor, and nothing read past the box.
    Reader r2(iodsWith({}));
    b = r2.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(static_cast<Iods *>(b)->iod.esDescr.tag, 0);
    EXPECT_EQ(muxer_pos(r2.m), b->size);
    deleteBox(b);
}

TEST(Iods, Tag14IsDecodedAsAnEsDescriptorAndTheStreamStaysAligned) {
    // ES_ID_Inc: a 32-bit Track_ID. Its third byte sets OCRstreamFlag, so the ES layout reads
    // two bytes more than the body has; the final move puts the stream back at its end.
    Bytes es_id_inc = desc(0x0E, {0x12, 0x34, 0x25, 0x99});
    Reader r(iodsWith(es_id_inc));
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    const ES_Descriptor &es = static_cast<Iods *>(b)->iod.esDescr;
    EXPECT_EQ(es.tag, 14);
    EXPECT_EQ(es.length, 4u);
    EXPECT_EQ(es.ES_ID, 0x1234);
    EXPECT_EQ(es.OCRstreamFlag, 1);
    EXPECT_EQ(es.streamPriority, 5);
    EXPECT_EQ(muxer_pos(r.m), b->size);
    deleteBox(b);
    Box *f = r.read();
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->type, fourcc("free"));
    deleteBox(f);
}

TEST(Iods, OtherNestedTagsAreJumpedOver) {
    Reader r(iodsWith(desc(0x04, {1, 2, 3})));
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(static_cast<Iods *>(b)->iod.esDescr.tag, 0);
    EXPECT_EQ(muxer_pos(r.m), b->size);
    deleteBox(b);
}

TEST(Iods, Tag1WritesTheInlineBitSetAndIgnoresItOnRead) {
    auto *b = static_cast<Iods *>(newBox(fourcc("iods"), 8));
    b->iod.tag = 1;
    b->iod.length = 7;
    b->iod.ObjectDescriptorID = 0x3FF;
    b->iod.includeInlineProfileLevelFlag = 0;
    Writer w;
    Bytes out = w.write(b);
    EXPECT_EQ(out, fullBox0("iods", desc(1, {0xFF, 0xDF, 0, 0, 0, 0, 0})));
    deleteBox(b);

    Reader r(out);
    Box *back = r.read();
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(static_cast<Iods *>(back)->iod.ObjectDescriptorID, 0x3FF);
    EXPECT_EQ(static_cast<Iods *>(back)->iod.includeInlineProfileLevelFlag, 0);
    deleteBox(back);
}

TEST(Iods, UrlIsJumpedOnReadAndWrittenAsZeros) {
    Bytes body = {0x00, 0x7F, 0x04, 'a', 'b', 'c', 'd'}; // ID 1, URL_Flag, inline flag
    Bytes file = fullBox0("iods", desc(0x10, body));
    Reader r(file);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    const InitialObjectDescriptor &i = static_cast<Iods *>(b)->iod;
    EXPECT_EQ(i.URL_Flag, 1);
    EXPECT_EQ(i.URLlength, 4);
    EXPECT_EQ(i.ODProfileLevelIndication, 0); // no profile levels with a URL
    EXPECT_EQ(muxer_pos(r.m), file.size());

    markAsRead(b);
    Writer w(256, 0xAA);
    w.dirty(256);
    Bytes expected = file;
    std::fill(expected.end() - 4, expected.end(), 0);
    EXPECT_EQ(w.write(b), expected);
    deleteBox(b);
}

} // namespace
