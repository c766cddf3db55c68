// MPEG-4 descriptors in esds and iods boxes: the tag dispatch, expandable lengths, the body
// layouts, the final move to the end a length declares, and the bounded records (128 bytes of
// decoder specific info, one descriptor of each kind). Byte vectors are written out by hand.
#include "box/box.h"
#include "box/layouts.h"
#include "byte_builder.h"
#include "tree_compare.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using namespace test_util;

namespace {

// tag, one-byte length, body
Bytes desc(uint8_t tag, const Bytes &body) {
    Bytes d = {tag, uint8_t(body.size())};
    append(d, body);
    return d;
}

using boxtest::markAsRead;
using Reader = boxtest::BoxReader;

// Values compared as one list, so that a failure shows every field at once.
template <class... T> std::vector<uint64_t> vals(T... v) {
    return {uint64_t(v)...};
}

struct Writer {
    Bytes buf;
    mp4_muxer *m;
    explicit Writer(size_t capacity = 70000, uint8_t fill = 0) : buf(capacity, fill) {
        m = mp4_writer_create();
        mp4_buf_put(m, buf.data(), uint32_t(capacity));
    }
    Bytes written() { return Bytes(buf.begin(), buf.begin() + long(muxer_pos(m))); }
    // Makes the first n bytes of the stream already written (with the fill byte), so that a
    // jump over them leaves them as they are instead of extending the stream with zeros.
    void dirty(uint32_t n) {
        m->pos = m->max_pos = n;
        muxer_seek(m, 0);
    }
    Bytes write(Box *b) {
        EXPECT_NE(rwBox(m, b), nullptr);
        return written();
    }
    ~Writer() {
        mp4_buf_get(m);
        mp4_delete(m);
    }
};

const Bytes kMp4aEsds = {0x00, 0x00, 0x00, 0x28, 'e',  's',  'd',  's',  0x00, 0x00,
                         0x00, 0x00, 0x03, 0x1A, 0x00, 0x01, 0x00, 0x04, 0x11, 0x40,
                         0x15, 0x00, 0x3A, 0x98, 0x00, 0x16, 0xE3, 0x60, 0x00, 0x00,
                         0x00, 0x00, 0x05, 0x02, 0x12, 0x10, 0x06, 0x02, 0x02, 0x00};

// ---- esds ------------------------------------------------------------------------------------

// The mp4a esds as track creation builds it: 44.1 kHz stereo AAC LC (the writer's own output
// is compared byte for byte in MovieLayout.MovieBoxByteForByteInBothFlavours). Read and
// written back, it gives the same bytes.
TEST(Esds, Mp4aAsTrackCreationBuildsIt) {
    Reader r(kMp4aEsds);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(muxer_pos(r.m), 40u); // the second SL byte was jumped over
    const ES_Descriptor &es = static_cast<Esds *>(b)->es;
    const DecoderConfigDescriptor &d = es.decConfigDescr;
    const SLConfigDescriptor &sl = es.slConfigDescr;
    EXPECT_EQ(vals(es.tag, es.length, es.ES_ID, es.streamPriority, es.present, d.tag, d.length,
                   d.objectTypeIndication, d.streamType, d.upStream, d.bufferSizeDB, d.maxBitrate,
                   d.avgBitrate, d.present, d.decSpecificInfo.tag, d.decSpecificInfo.length,
                   d.decSpecificInfo.data[0], d.decSpecificInfo.data[1], sl.tag, sl.length,
                   sl.predefined, sl.useTimeStampsFlag, sl.durationFlag),
              vals(3, 26, 1, 0, 3, 4, 17, 0x40, 5, 0, 15000, 1500000, 0, 1, 5, 2, 0x12, 0x10, 6, 2,
                   2, 1, 0)); // timestamps implied by predefined
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
    // Lengths over 127 take two bytes: DSI 200, DCD 13 + 3 + 200, ES 3 + 3 + 216 + 3.
    Bytes es = {0x03, 0x81, 225 - 128, 0x00, 0x01, 0x00, 0x04, 0x81, 216 - 128, 0x40, 0x15};
    append(es, Bytes(11, 0));
    append(es, cat({Bytes{0x05, 0x81, 200 - 128}, dsi, desc(6, {2})}));
    Bytes file = cat({fullBox("esds", 0, 0, es), box("free", {})});

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

// How the ES body's descriptors are found: the scan's strict (ES) and non-strict (DCD) ends,
// tags of no known kind skipped, a later DCD replacing an earlier one whole (its DSI with it),
// a DCD whose DSI slot holds another tag, and an ES box whose first descriptor is not an ES.
TEST(Esds, DescriptorScan) {
    const Bytes rates = Bytes(11, 0); // bufferSizeDB, maxBitrate, avgBitrate
    struct Case {
        const char *what;
        Bytes payload;
        // es tag, present, priority; dcd present, oti, streamType, upStream, bufferSizeDB;
        // dsi tag, length; sl tag
        std::vector<uint64_t> expected;
    };
    const Case cases[] = {
        {"2 bytes left in the ES: a DCD header not looked at",
         desc(3, {0x00, 0x01, 0x00, 0x04, 0x00}),
         {3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"2 bytes left in the DCD: an empty DSI that is read",
         desc(3, cat({{0x00, 0x01, 0x00}, desc(4, cat({{0x20, 0x11}, rates, {0x05, 0x00}}))})),
         {3, 1, 0, 1, 0x20, 4, 0, 0, 5, 0, 0}},
        {"other tags skipped, the later DCD replaces the earlier",
         desc(3, cat({{0x00, 0x02, 0x1F},
                      desc(9, {1, 2, 3}), // IPI_DescrPointer: skipped
                      desc(4, {0x40, 0x15, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3, 0x05, 0x01, 0x77}),
                      desc(0x40, {}),                                         // unknown tag, empty
                      desc(4, {0x21, 0x12, 0, 0, 4, 0, 0, 0, 5, 0, 0, 0, 6}), // no DSI
                      desc(6, {2})})),
         {3, 3, 31, 0, 0x21, 4, 1, 4, 0, 0, 6}},
        {"a DCD with an SL where the DSI goes",
         desc(3,
              cat({{0x00, 0x01, 0x00}, desc(4, cat({{0x40, 0x15}, rates, {0x06, 0x01, 0x02}}))})),
         {3, 1, 0, 0, 0x40, 5, 0, 0, 0, 0, 0}},
        {"first descriptor of another kind",
         desc(4, cat({{0x40, 0x15}, rates})),
         {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Bytes file = fullBox("esds", 0, 0, c.payload);
        Reader r(file);
        Box *b = r.read();
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(muxer_pos(r.m), file.size());
        const ES_Descriptor &es = static_cast<Esds *>(b)->es;
        const DecoderConfigDescriptor &d = es.decConfigDescr;
        EXPECT_EQ(vals(es.tag, es.present, es.streamPriority, d.present, d.objectTypeIndication,
                       d.streamType, d.upStream, d.bufferSizeDB, d.decSpecificInfo.tag,
                       d.decSpecificInfo.length, es.slConfigDescr.tag),
                  c.expected);
        if (es.tag == 0) { // written back, it has nothing to write: only version and flags
            b->node_flags |= BOX_AUTO_SIZE;
            Writer w;
            EXPECT_EQ(w.write(b), fullBox("esds", 0, 0, {}));
        }
        deleteBox(b);
    }
}

TEST(Esds, OptionalEsFieldsAndUrlRoundTrip) {
    Bytes es_body = {0x12, 0x34, 0xE5, 0x00, 0x07, 0x05, 'a', 'b', 'c', 'd', 'e', 0x00, 0x09};
    append(es_body, desc(6, {2}));
    Bytes file = fullBox("esds", 0, 0, desc(3, es_body));
    Reader r(file);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    const ES_Descriptor &es = static_cast<Esds *>(b)->es;
    EXPECT_EQ(vals(es.ES_ID, es.streamDependenceFlag, es.URL_Flag, es.OCRstreamFlag,
                   es.streamPriority, es.dependsOn_ES_ID, es.URLlength, es.OCR_ES_Id, es.present),
              vals(0x1234, 1, 1, 1, 5, 7, 5, 9, 2));
    EXPECT_STREQ(es.URLstring, "abcde");
    markAsRead(b);
    Writer w;
    EXPECT_EQ(w.write(b), file);
    deleteBox(b);
}

TEST(Esds, LengthsBeyondTheBoxStayInsideIt) {
    // An ES claiming 0x0FFFFFFF bytes, a DCD claiming 200, inside a 30-byte box.
    Bytes es = {0x03, 0xFF, 0xFF, 0xFF, 0x7F, 0x00, 0x01, 0x00};
    append(es, {0x04, 0x81, 0x48, 0x40, 0x15, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    Bytes file = fullBox("esds", 0, 0, es);
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
    Bytes held;
    for (int i = 0; i < 20; i++)
        held.push_back(uint8_t(0x80 + i));
    Bytes file = fullBox("esds", 0, 0,
                         cat({{0x03, 3 + 2 + 65, 0x00, 0x01, 0x00, 0x04, 13 + 50 + 2, 0x40, 0x15},
                              Bytes(11, 0),
                              {0x05, 50},
                              held}));
    const size_t box_size = file.size();
    append(file, box("free", Bytes(40, 0xEE)));
    Reader r(file);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    const DecoderSpecificInfo &d = static_cast<Esds *>(b)->es.decConfigDescr.decSpecificInfo;
    EXPECT_EQ(d.length, 50u);
    EXPECT_EQ(Bytes(d.data, d.data + 50), cat({held, Bytes(30, 0)}));
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
        {16384, {0x05, 0x81, 0x80, 0x00}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.length);
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
        size_t held = c.length < 128 ? c.length : 128; // then zeros up to the length
        EXPECT_EQ(out, cat({c.header, Bytes(d.data, d.data + held), Bytes(c.length - held, 0)}));
        EXPECT_EQ(msg.empty(), c.length <= 128);
    }
}

// Read with every field pinned, then written back byte for byte: both directions of the layout.
TEST(Descriptor, FullSlConfigWithDurationsAndTimestamps) {
    for (uint8_t ts_length : {32, 64, 16}) {
        SCOPED_TRACE(int(ts_length));
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
            put64(body, 0x1122334455667788ull);
            put64(body, 0x99AABBCCDDEEFF00ull);
        }
        Reader r(desc(6, body));
        SLConfigDescriptor s{};
        rwDescriptor(r.m, 6, &s);
        EXPECT_EQ(muxer_pos(r.m), body.size() + 2);
        EXPECT_EQ(vals(s.tag, s.length, s.predefined, s.useAccessUnitStartFlag,
                       s.useAccessUnitEndFlag, s.useRandomAccessPointFlag,
                       s.hasRandomAccessUnitOnlyFlag, s.usePaddingFlag, s.useTimeStampsFlag,
                       s.useIdleFlag, s.durationFlag, s.timeStampResolution, s.OCRResolution,
                       s.timeStampLength, s.OCRLength, s.AU_Length, s.instantBitrateLength,
                       s.degradationPriorityLength, s.AU_seqNumLength, s.packetSeqNumLength,
                       s.timeScale, s.accessUnitDuration, s.compositionUnitDuration),
                  vals(6, uint32_t(body.size()), 0, 1, 0, 1, 0, 0, 0, 0, 1, 90000, 0x01020304,
                       ts_length, 8, 9, 10, 0xF, 0x1F, 1, 1000, 40, 41));
        uint64_t mask = ts_length == 32 ? 0xFFFFFFFFull : ts_length == 64 ? ~0ull : 0;
        EXPECT_EQ(s.startDecodingTimeStamp, 0x1122334455667788ull & mask);
        EXPECT_EQ(s.startCompositionTimeStamp, 0x99AABBCCDDEEFF00ull & mask);
        Writer w;
        rwDescriptor(w.m, 6, &s);
        EXPECT_EQ(w.written(), desc(6, body));
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

// As track creation builds it (compared byte for byte in
// MovieLayout.MovieBoxByteForByteInBothFlavours): read and written back, the same bytes.
TEST(Iods, AsTrackCreationBuildsItFor33Bytes) {
    Reader r(kAvcIods);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    const InitialObjectDescriptor &i = static_cast<Iods *>(b)->iod;
    EXPECT_EQ(vals(i.tag, i.length, i.ObjectDescriptorID, i.URL_Flag,
                   i.includeInlineProfileLevelFlag, i.audioProfileLevelIndication,
                   i.visualProfileLevelIndication, i.esDescr.tag, i.esDescr.length,
                   uint32_t(i.end)),
              vals(0x10, 19, 1, 0, 0, 0x0F, 0x03, 3, 4, 33));
    EXPECT_EQ(muxer_pos(r.m), 33u);
    markAsRead(b);
    Writer again;
    EXPECT_EQ(again.write(b), kAvcIods);
    deleteBox(b);
}

// An iods whose object descriptor holds only the 7 bytes of fields, followed in the box by
// `rest`; a free box follows so that reads past the iods stay inside the buffer.
Bytes iodsWith(const Bytes &rest) {
    Bytes od = cat({desc(0x10, {0x00, 0x5F, 1, 2, 3, 4, 5}), rest});
    return cat({fullBox("iods", 0, 0, od), box("free", Bytes(8, 0))});
}

// What follows the object descriptor's fields in the box: a descriptor only when it starts
// before the box end; tag 14 (ES_ID_Inc) coded with the ES layout; other tags jumped over. The
// stream ends at the iods end whatever was read, and the next box is found.
TEST(Iods, NestedDescriptor) {
    struct Case {
        const char *what;
        Bytes rest;
        uint8_t es_tag;
    };
    const Case cases[] = {
        {"three bytes left: a tag-14 ES_ID_Inc", {0x0E, 0x01, 0x12}, 14},
        {"nothing left: nothing read past the box", {}, 0},
        // ES_ID_Inc: a 32-bit Track_ID. Its third byte sets OCRstreamFlag, so the ES layout
        // reads two bytes more than the body has; the final move puts the stream back.
        {"tag 14 read past its body", desc(0x0E, {0x12, 0x34, 0x25, 0x99}), 14},
        {"another tag", desc(0x04, {1, 2, 3}), 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Reader r(iodsWith(c.rest));
        Box *b = r.read();
        ASSERT_NE(b, nullptr);
        const InitialObjectDescriptor &i = static_cast<Iods *>(b)->iod;
        EXPECT_EQ(
            vals(i.includeInlineProfileLevelFlag, i.graphicsProfileLevelIndication, i.esDescr.tag),
            vals(1, 5, c.es_tag));
        if (c.rest.size() == 6) {
            EXPECT_EQ(vals(i.esDescr.length, i.esDescr.ES_ID, i.esDescr.OCRstreamFlag,
                           i.esDescr.streamPriority),
                      vals(4, 0x1234, 1, 5));
        }
        EXPECT_EQ(muxer_pos(r.m), b->size);
        deleteBox(b);
        Box *f = r.read();
        ASSERT_NE(f, nullptr);
        EXPECT_EQ(f->type, fourcc("free"));
        deleteBox(f);
    }
}

TEST(Iods, Tag1WritesTheInlineBitSetAndIgnoresItOnRead) {
    auto *b = static_cast<Iods *>(newBox(fourcc("iods"), 8));
    b->iod.tag = 1;
    b->iod.length = 7;
    b->iod.ObjectDescriptorID = 0x3FF;
    b->iod.includeInlineProfileLevelFlag = 0;
    Writer w;
    Bytes out = w.write(b);
    EXPECT_EQ(out, fullBox("iods", 0, 0, desc(1, {0xFF, 0xDF, 0, 0, 0, 0, 0})));
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
    Bytes file = fullBox("iods", 0, 0, desc(0x10, body));
    Reader r(file);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    const InitialObjectDescriptor &i = static_cast<Iods *>(b)->iod;
    // No profile levels with a URL.
    EXPECT_EQ(vals(i.URL_Flag, i.URLlength, i.ODProfileLevelIndication), vals(1, 4, 0));
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
