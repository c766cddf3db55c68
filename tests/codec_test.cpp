// The box codec driver: headers, failures and their positions, memory-buffer shortage,
// nesting limit, children, size reconciliation and padding, size prediction, and bounded
// allocation for hostile counts. Byte layouts of the single boxes are in movie_boxes_test,
// tables_test, entries_test and descriptors_test; the fixtures' round trips and cuts at every
// position are in fixtures_test.
#include "box/layouts.h"
#include "tree_compare.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>

using namespace boxtest;

namespace {

struct AllocGuard {
    ~AllocGuard() { mp4_alloc_fail_after(-1); }
};

// A writer with no back-end: writes only move the position.
struct NullWriter {
    mp4_muxer *m = mp4_writer_create();
    ~NullWriter() { mp4_delete(m); }
};

// A temporary file holding `in`, positioned at its start.
FILE *fileWith(const Bytes &in) {
    FILE *f = tmpfile();
    if (f) {
        fwrite(in.data(), 1, in.size(), f);
        fflush(f);
        rewind(f);
    }
    return f;
}

// Writes `b` to a (sparse) temporary file and returns the first `n` bytes of it.
Bytes writeToFileHead(Box *b, size_t n, uint64_t *end_pos, Box *placeholder = nullptr) {
    FILE *f = tmpfile();
    mp4_muxer *m = mp4_writer_create();
    mp4_file_pointer(m, f);
    if (placeholder)
        rwBox(m, placeholder);
    rwBox(m, b);
    *end_pos = muxer_pos(m);
    mp4_delete(m);
    fflush(f);
    Bytes head(n);
    fseeko64(f, 0, SEEK_SET);
    head.resize(fread(head.data(), 1, n, f));
    fclose(f);
    return head;
}

// Reads one box from `r` while a linked handle exists, as in remuxing; `out` gets what was
// printed.
Box *readLinked(MemReader &r, std::string *out) {
    mp4_muxer *other = mp4_writer_create();
    r.m->linked = other;
    testing::internal::CaptureStdout();
    Box *b = r.read();
    *out = testing::internal::GetCapturedStdout();
    r.m->linked = nullptr;
    mp4_delete(other);
    return b;
}

} // namespace

// ---- headers ---------------------------------------------------------------------------------

TEST(CodecHeader, UnknownBoxKeepsHeaderAndSkipsContentThenFreeBoxReadsAsLeaf) {
    Bytes in = box("abcd", Bytes(8, 0xAA));
    append(in, {0, 0, 0, 8, 'f', 'r', 'e', 'e'});
    MemReader r(in);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->type, fourcc("abcd"));
    EXPECT_EQ(b->size, 16u);
    EXPECT_EQ(b->alloc_size, sizeof(Box)); // header only
    EXPECT_EQ(b->first_child, nullptr);
    EXPECT_EQ(muxer_pos(r.m), 16u);
    deleteBox(b);
    b = r.read(); // the eight-byte free box, 16 bytes in
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->type, fourcc("free"));
    EXPECT_EQ(b->size, 8u);
    EXPECT_EQ(b->first_child, nullptr);
    EXPECT_EQ(b->data_pos, 16u + 8);
    EXPECT_EQ(muxer_pos(r.m), 16u + 8);
    EXPECT_EQ(b->node_flags & (BOX_HEADER_ONLY | BOX_ON_STACK), 0);
    EXPECT_TRUE(b->node_flags & BOX_HEAP);
    deleteBox(b);
}

TEST(CodecHeader, LargeSizeHeaderReadAndWrittenBackCompact) {
    // An smhd of 24 bytes behind a 64-bit header: 8 bytes of fields.
    Bytes in = {0, 0, 0, 1, 's', 'm', 'h', 'd', 0, 0, 0, 0, 0, 0, 0, 24};
    append(in, {0, 0, 0, 0, 0x01, 0x00, 0, 0}); // version, flags, balance, reserved
    MemReader r(in);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->size, 24u);
    EXPECT_EQ(b->data_pos, 16u);
    EXPECT_EQ(muxer_pos(r.m), 24u);
    EXPECT_EQ(static_cast<Smhd *>(b)->balance, 0x0100);

    // Written back: a compact header still declaring 24 bytes; the 8 bytes the shorter header
    // saved stay an unwritten gap (too few for a padding box).
    Bytes out = writeToMemory(b);
    EXPECT_EQ(hex(out), "00 00 00 18 73 6D 68 64 00 00 00 00 01 00 00 00 "
                        "00 00 00 00 00 00 00 00");
    EXPECT_EQ(b->size, 24u);
    deleteBox(b);
}

TEST(CodecHeader, WriterUsesLargeSizeOnlyBeyond32Bits) {
    DataBox big{};
    big.type = fourcc("abcd"); // unknown: the content is passed over, not written
    big.size = 0xFFFFFFFF;
    uint64_t end = 0;
    EXPECT_EQ(hex(writeToFileHead(&big, 8, &end)), "FF FF FF FF 61 62 63 64");
    EXPECT_EQ(end, 0xFFFFFFFFu);
    EXPECT_EQ(big.data_pos, 8u);
    big.size = 0x100000010ull;
    EXPECT_EQ(hex(writeToFileHead(&big, 16, &end)),
              "00 00 00 01 61 62 63 64 00 00 00 01 00 00 00 10");
    EXPECT_EQ(end, 0x100000010ull);
    EXPECT_EQ(big.data_pos, 16u);
}

// ---- failure table ---------------------------------------------------------------------------

TEST(CodecFailures, WriterGivenNullBox) {
    Bytes out(16);
    mp4_muxer *m = mp4_writer_create();
    mp4_buf_put(m, out.data(), 16);
    testing::internal::CaptureStdout();
    EXPECT_EQ(rwBox(m, nullptr), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "rwBox: attempting to write NULL box\n");
    EXPECT_EQ(m->error, MP4_ERR_NULL_BOX);
    EXPECT_EQ(m->depth, 0);
    EXPECT_EQ(mp4_buf_get(m), 0u);
    mp4_delete(m);
}

TEST(CodecFailures, SizesBelowEightAreCorrupt) {
    // Compact sizes 0 to 7 (size 1 announces a 64-bit size, here the zeros that follow), then
    // (size 8 below) a 64-bit size of 7.
    for (uint32_t size = 0; size <= 8; size++) {
        SCOPED_TRACE(size);
        const bool large = size == 1 || size == 8;
        Bytes in;
        put32(in, large ? 1 : size);
        putStr(in, "moov", false);
        if (size == 8)
            put64(in, 7);
        append(in, Bytes(16, 0));
        MemReader r(in);
        testing::internal::CaptureStdout();
        Box *b = r.read();
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(b, nullptr);
        uint32_t declared = size == 1 ? 0 : size == 8 ? 7 : size;
        EXPECT_EQ(out, "rwBox: corrupt input type=moov size=" + std::to_string(declared) + "\n");
        EXPECT_EQ(r.m->error, MP4_ERR_BAD_INPUT);
        EXPECT_STREQ(mp4_get_error(r.m), "bad input");
        EXPECT_EQ(muxer_pos(r.m), large ? 16u : 8u) << "position stays after the header";
        EXPECT_EQ(r.m->depth, 0);
    }
}

TEST(CodecFailures, TwentyLevelsAcceptedTwentyFirstFails) {
    {
        // 20 containers around a 16-byte leaf: 21 levels, of which exactly 20 are read.
        Bytes in = box("abcd", Bytes(8, 0));
        for (int i = 0; i < 20; i++)
            in = box("moov", in);
        MemReader r(in);
        testing::internal::CaptureStdout();
        Box *b = r.read();
        std::string out = testing::internal::GetCapturedStdout();
        ASSERT_NE(b, nullptr) << "the outer boxes are still returned";
        EXPECT_EQ(out, "rwBox: recursion limit reached\n");
        EXPECT_EQ(r.m->error, MP4_ERR_RECURSION);
        EXPECT_STREQ(mp4_get_error(r.m), "recursion limit reached");
        EXPECT_EQ(r.m->depth, 0);
        int levels = 0;
        for (Box *c = b; c; c = c->first_child)
            levels++;
        EXPECT_EQ(levels, 20) << "the 21st level is missing";
        EXPECT_EQ(muxer_pos(r.m), in.size());
        deleteBox(b);
    }
    {
        // At the limit already: nothing is consumed.
        MemReader r(box("free", {}));
        r.m->depth = 20;
        testing::internal::CaptureStdout();
        EXPECT_EQ(r.read(), nullptr);
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(muxer_pos(r.m), 0u);
        EXPECT_EQ(r.m->depth, 20);
        EXPECT_EQ(r.m->error, MP4_ERR_RECURSION);
    }
}

TEST(CodecFailures, EveryAllocationOfAMovieCanFailWithoutLeaks) {
    // A skeleton whose read makes nine allocations (six records, the hdlr's growth for its
    // name, the stts record and its entries). Failing each in turn gives error 2 with the
    // boxes read so far and the position past the box, never a crash or a leak (ASan checks
    // the latter); the box after it reads.
    Bytes stts = {0, 0, 0, 1, 0, 0, 0, 10, 0, 0, 2, 0}; // one entry: 10 samples of 512
    Bytes hdlr = {0, 0, 0, 0, 'v', 'i', 'd', 'e'};
    append(hdlr, Bytes(12, 0));
    putStr(hdlr, "Video");
    Bytes mdia = fullBox("hdlr", 0, 0, hdlr);
    append(mdia, box("minf", box("stbl", fullBox("stts", 0, 0, stts))));
    Bytes in = box("moov", box("trak", box("mdia", mdia)));
    const uint64_t moov_size = in.size();
    append(in, box("free", {}));
    AllocGuard guard;
    for (long n = 0; n <= 9; n++) {
        SCOPED_TRACE(n);
        MemReader r(in);
        mp4_alloc_fail_after(n);
        testing::internal::CaptureStderr();
        Box *b = r.read();
        std::string err = testing::internal::GetCapturedStderr();
        mp4_alloc_fail_after(-1);
        if (n < 9) {
            EXPECT_EQ(r.m->error, MP4_ERR_NOMEM);
            EXPECT_NE(err.find("rwBox: failed to allocate memory for box "), std::string::npos);
            EXPECT_EQ(err == "rwBox: failed to allocate memory for box moov\n", n == 0) << err;
            EXPECT_EQ(b == nullptr, n == 0);
        } else {
            ASSERT_NE(b, nullptr);
            EXPECT_EQ(r.m->error, 0);
            EXPECT_EQ(err, "");
        }
        EXPECT_EQ(muxer_pos(r.m), moov_size) << "position past the box";
        EXPECT_EQ(r.m->depth, 0);
        EXPECT_EQ(indent, 0);
        deleteBox(b);
        Box *next = r.read();
        ASSERT_NE(next, nullptr);
        EXPECT_EQ(next->type, fourcc("free"));
        deleteBox(next);
    }
}

// ---- memory-buffer shortage ------------------------------------------------------------------

TEST(CodecShortInput, TopLevelMdatBlocksUntilWholeAndDebugReportsSeekingBack) {
    Bytes in = box("mdat", Bytes(100, 7));
    MemReader r(in, 60);
    r.m->flags |= MP4_DEBUG;
    testing::internal::CaptureStderr();
    for (int attempt = 0; attempt < 3; attempt++) {
        EXPECT_EQ(r.read(), nullptr);
        EXPECT_EQ(muxer_pos(r.m), 0u);
        EXPECT_EQ(r.m->depth, 0);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "rwBox: seeking back to 0\n"
                                                      "rwBox: seeking back to 0\n"
                                                      "rwBox: seeking back to 0\n");
    r.m->flags &= ~MP4_DEBUG;
    mp4_buf_get(r.m);
    mp4_buf_put(r.m, r.bytes.data(), uint32_t(r.bytes.size()));
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->type, fourcc("mdat"));
    EXPECT_EQ(static_cast<DataBox *>(b)->data, nullptr);
    EXPECT_EQ(muxer_pos(r.m), 108u);
    deleteBox(b);
}

TEST(CodecShortInput, LinkedHandleSkipsWholeBoxAndCountsItConsumed) {
    MemReader r(box("moov", Bytes(40, 0)), 20);
    std::string out;
    EXPECT_EQ(readLinked(r, &out), nullptr);
    EXPECT_EQ(out, "rwBox: short input type=moov size=48 @0\n");
    EXPECT_TRUE(at_end_of_input(r.m));
    EXPECT_EQ(muxer_pos(r.m), 48u) << "position past the box";
    EXPECT_EQ(r.m->error, 0) << "no dangerous seek";
    EXPECT_EQ(mp4_buf_get(r.m), 48u);
}

TEST(CodecShortInput, LinkedRemuxerKeepsPresentPartOfMdat) {
    Bytes payload(100);
    for (size_t i = 0; i < payload.size(); i++)
        payload[i] = uint8_t(i);
    MemReader r(box("mdat", payload), 50);
    r.m->flags |= MP4_REMUXER;
    std::string out;
    Box *b = readLinked(r, &out);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(out, "rwBox: short input type=mdat size=108 @0\n");
    auto *d = static_cast<DataBox *>(b);
    ASSERT_NE(d->data, nullptr);
    EXPECT_EQ(d->alloc_size, sizeof(DataBox) + 42) << "only the present bytes are held";
    EXPECT_EQ(Bytes(d->data, d->data + 42), Bytes(payload.begin(), payload.begin() + 42));
    EXPECT_EQ(muxer_pos(r.m), 108u);
    EXPECT_EQ(r.m->error, 0);
    EXPECT_EQ(mp4_buf_get(r.m), 108u);
    deleteBox(b);
}

TEST(CodecShortInput, ChildRunningOutLeavesParentWithoutIt) {
    // A file whose last 20 bytes are missing: the tkhd inside the trak runs out.
    Bytes in = fullBox("mvhd", 0, 0, Bytes(96, 0));
    append(in, box("trak", fullBox("tkhd", 0, 0, Bytes(80, 0))));
    in = box("moov", in);
    const uint64_t moov_size = in.size();
    in.resize(in.size() - 20);
    FILE *f = fileWith(in);
    ASSERT_NE(f, nullptr);
    mp4_muxer *m = mp4_reader_create();
    mp4_file_pointer(m, f);
    Box *b = rwBox(m, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->size, moov_size) << "size unchanged";
    ASSERT_NE(b->first_child, nullptr);
    EXPECT_EQ(b->first_child->type, fourcc("mvhd"));
    Box *trak = b->first_child->next;
    ASSERT_NE(trak, nullptr);
    EXPECT_EQ(trak->type, fourcc("trak"));
    EXPECT_EQ(trak->first_child, nullptr) << "the tkhd that ran out is not kept";
    EXPECT_TRUE(at_end_of_input(m));
    EXPECT_EQ(m->error, 0);
    deleteBox(b);
    mp4_delete(m);
    fclose(f);
}

// ---- children --------------------------------------------------------------------------------

TEST(CodecChildren, ChildrenLinkedInOrderAndWrittenBackByteExact) {
    auto kids = [](uint8_t fill) {
        Bytes k = box("abcd", Bytes(1, fill));
        append(k, box("efgh", Bytes(2, fill)));
        append(k, box("ijkl", Bytes(3, fill)));
        return box("moov", box("trak", box("edts", k)));
    };
    Bytes in = kids(9);
    MemReader r(in);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    Box *edts = b->first_child->first_child;
    ASSERT_NE(edts, nullptr);
    std::string order;
    for (Box *c = edts->first_child; c; c = c->next) {
        order += fcc(c->type) + " ";
        EXPECT_EQ(c->parent, edts);
    }
    EXPECT_EQ(order, "abcd efgh ijkl ");
    EXPECT_EQ(r.m->parent, nullptr);
    EXPECT_EQ(b->size, in.size());
    // The unknown leaves' content is not written: the writer passes over it (zeros in memory).
    EXPECT_EQ(hex(writeToMemory(b)), hex(kids(0)));
    deleteBox(b);
}

TEST(CodecChildren, TopLevelReadHasNoParentAndAttachesToGivenParent) {
    MemReader r(box("free", {}));
    Box *moov = newBox(fourcc("moov"), 8);
    Box *b = rwSubBox(r.m, nullptr, moov);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->parent, moov);
    EXPECT_EQ(moov->first_child, b);
    EXPECT_EQ(moov->size, 16u);
    deleteBox(moov);
}

TEST(CodecChildren, DebugDumpIndentsChildrenByFour) {
    Bytes in = box("moov", box("trak", box("abcd", Bytes(4, 0))));
    MemReader r(in);
    r.m->flags |= MP4_DEBUG;
    testing::internal::CaptureStdout();
    Box *b = r.read();
    std::string out = testing::internal::GetCapturedStdout();
    ASSERT_NE(b, nullptr);
    const size_t trak = out.find("\n    trak  size: 20\n");
    const size_t abcd = out.find("\n        abcd  size: 12\n");
    EXPECT_EQ(out.find("moov  size: 28\n"), 0u) << out;
    EXPECT_NE(trak, std::string::npos) << out;
    EXPECT_NE(abcd, std::string::npos) << out;
    EXPECT_LT(trak, abcd) << "each box is printed before its children";
    EXPECT_EQ(indent, 0);
    deleteBox(b);
}

// ---- size reconciliation ---------------------------------------------------------------------

TEST(CodecResize, StaleAutoSizeIsPatchedAndReportedBySwitches) {
    // A writer-built moov holding a trak, declared 100 (it shrinks) or 12 (it grows), comes out
    // as 16 bytes with its header patched. With the debug dump on, show_resizing reports every
    // change; without it only a box that came out smaller, and only while show_actual_size is
    // on. Without the dump nothing is printed.
    struct Restore {
        ~Restore() { show_resizing = show_actual_size = 1; }
    } restore;
    struct Case {
        uint64_t declared;
        bool debug;
        int resizing, actual_size;
        bool reported;
    };
    const Case cases[] = {{100, true, 1, 1, true},  {100, false, 1, 1, false},
                          {100, true, 0, 1, true},  {12, true, 0, 1, false},
                          {100, true, 0, 0, false}, {12, true, 1, 0, true}};
    for (const Case &c : cases) {
        SCOPED_TRACE(&c - cases);
        show_resizing = c.resizing;
        show_actual_size = c.actual_size;
        Box *moov = newBox(fourcc("moov"), 8);
        addBox(newBox(fourcc("trak"), 8), moov);
        moov->size = c.declared;
        Bytes out(64);
        mp4_muxer *m = mp4_writer_create();
        if (c.debug)
            m->flags |= MP4_DEBUG;
        mp4_buf_put(m, out.data(), 64);
        testing::internal::CaptureStdout();
        rwBox(m, moov);
        std::string printed = testing::internal::GetCapturedStdout();
        out.resize(mp4_buf_get(m));
        mp4_delete(m);
        EXPECT_EQ(hex(out), hex(box("moov", box("trak", {}))));
        EXPECT_EQ(moov->size, 16u);
        EXPECT_EQ(printed.find("(actual moov box size 16)\n") != std::string::npos, c.reported)
            << printed;
        EXPECT_EQ(printed.empty(), !c.debug) << printed;
        deleteBox(moov);
    }
}

TEST(CodecResize, ReadNodeShortfallLeftAsGapOrFilledWithPaddingBox) {
    // A read trak declared `gap` bytes larger than its content keeps its size when written
    // back. A gap of more than eight bytes holds a padding box, free for MP4 and wide for
    // QuickTime; a smaller one stays unwritten.
    const Bytes in = box("trak", box("abcd", Bytes(4, 0)));
    for (uint32_t gap : {1, 2, 3, 4, 5, 6, 7, 8, 9, 20}) {
        for (bool mov : {false, true}) {
            SCOPED_TRACE(testing::Message() << "gap " << gap << " mov " << mov);
            MemReader r(in);
            Box *b = r.read();
            ASSERT_NE(b, nullptr);
            b->size += gap;
            Bytes expect = in;
            expect[3] = uint8_t(expect[3] + gap);
            if (gap <= 8)
                append(expect, Bytes(gap, 0));
            else if (mov)
                append(expect, box("wide", Bytes(gap - 8, 0)));
            else
                append(expect, box("free", Bytes(gap - 8, 0)));
            EXPECT_EQ(hex(writeToMemory(b, mov)), hex(expect));
            EXPECT_EQ(b->size, in.size() + gap) << "a read node keeps its size";
            deleteBox(b);
        }
    }
}

TEST(CodecResize, OvergrownFixedNodeKeepsDeclaredEnd) {
    Bytes in = box("trak", box("abcd", Bytes(4, 0)));
    MemReader r(in);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    b->first_child->size = 30; // the child grew past its parent's declared end
    NullWriter w;
    rwBox(w.m, b);
    EXPECT_EQ(muxer_pos(w.m), in.size()) << "back at the parent's declared end";
    EXPECT_EQ(b->size, in.size());
    deleteBox(b);
}

TEST(CodecResize, AutoSizePlaceholderBecomesLargeHeader) {
    // A writer-built box that grows past 4 GiB behind an 8-byte free placeholder: the
    // placeholder and the compact header become the 64-bit header and the end lines up.
    DataBox pad{};
    pad.type = fourcc("free");
    pad.size = 8;
    Box *moov = newBox(fourcc("moov"), 8);
    Box *big = newBox(fourcc("abcd"), 0);
    big->size = 0x100000000ull;
    big->node_flags = BOX_HEAP; // fixed size, content passed over
    addBox(big, moov);
    moov->size = 8;
    uint64_t end = 0;
    Bytes head = writeToFileHead(moov, 16, &end, &pad);
    EXPECT_EQ(moov->size, 16 + 0x100000000ull) << "8 header + big box + absorbed placeholder";
    EXPECT_EQ(moov->data_pos, 16u);
    EXPECT_EQ(hex(head), "00 00 00 01 6D 6F 6F 76 00 00 00 01 00 00 00 10");
    EXPECT_EQ(end, moov->size) << "the box ends where it says, counted from the placeholder";
    deleteBox(moov);
}

// ---- size prediction -------------------------------------------------------------------------

TEST(CodecPredict, TableOfPredictions) {
    // The tables, the hdlr, the dref and an empty url are predicted next to their layouts
    // (tables_test, movie_boxes_test, writer_test).
    EXPECT_EQ(checkBoxSize(nullptr), 0u);
    struct Case {
        uint32_t type;
        uint64_t size;
        uint8_t version;
        uint64_t predicted;
    };
    const Case cases[] = {
        {fourcc("trak"), 8, 0, 8},       {fourcc("tkhd"), 92, 0, 92},
        {fourcc("tkhd"), 92, 1, 104},    {fourcc("mdhd"), 32, 0, 32},
        {fourcc("mdhd"), 32, 1, 44},     {fourcc("mvhd"), 0, 0, 108},
        {fourcc("vmhd"), 0, 0, 20},      {fourcc("smhd"), 0, 0, 16},
        {fourcc("iods"), 0, 0, 33},      {fourcc("esds"), 0, 0, 40},
        {fourcc("free"), 1234, 0, 1234}, {fourcc("skip"), 1234, 0, 1234},
        {fourcc("wide"), 1234, 0, 1234}, {fourcc("mdat"), 1234, 0, 1234},
        {fourcc("ftyp"), 1234, 0, 1234}, {fourcc("avc1"), 1234, 0, 1234},
        {fourcc("mp4a"), 1234, 0, 1234}, {fourcc("mp4v"), 1234, 0, 1234},
    };
    for (const Case &c : cases) {
        Box *b = newBox(c.type, c.size);
        if (c.version)
            static_cast<FullBox *>(b)->version = c.version;
        EXPECT_EQ(checkBoxSize(b), c.predicted) << fcc(c.type) << " version " << int(c.version);
        deleteBox(b);
    }
    auto *url = static_cast<Url *>(newBox(fourcc("url "), 12));
    strcpy(url->location, "abc");
    EXPECT_EQ(checkBoxSize(url), 16u);
    auto *elst = static_cast<Elst *>(newBox(fourcc("elst"), 16));
    elst->entry_count = 2;
    EXPECT_EQ(checkBoxSize(elst), 40u);
    elst->version = 1;
    EXPECT_EQ(checkBoxSize(elst), 56u);
    auto *avcc = static_cast<AvcC *>(newBox(fourcc("avcC"), 0));
    avcc->length[0] = 20;
    avcc->length[1] = 4;
    EXPECT_EQ(checkBoxSize(avcc), 43u);
    Box *odd = newBox(fourcc("abcd"), 77);
    testing::internal::CaptureStderr();
    EXPECT_EQ(checkBoxSize(odd), 77u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "checkBoxSize: unhandled type=abcd size=77\n");
    for (Box *x : {(Box *)url, (Box *)elst, (Box *)avcc, odd})
        deleteBox(x);
}

TEST(CodecPredict, ContainersSumChildrenAndLargeSizesAddHeader) {
    Box *moov = newBox(fourcc("moov"), 8);
    Box *trak = newBox(fourcc("trak"), 8);
    addBox(trak, moov);
    addBox(newBox(fourcc("mvhd"), 108), moov);
    auto *stsz = static_cast<Stsz *>(newBox(fourcc("stsz"), 20));
    addBox(stsz, trak);
    stsz->sample_count = 3;
    EXPECT_EQ(checkBoxSize(moov), 8u + 8 + 32 + 108);
    stsz->sample_count = 0x40000000; // 20 + 4 GiB: needs the 64-bit header
    EXPECT_EQ(checkBoxSize(stsz), 20 + 0x100000000ull + 8);
    const uint64_t trak_size = 8 + (20 + 0x100000000ull + 8) + 8; // its own 64-bit header too
    EXPECT_EQ(checkBoxSize(trak), trak_size);
    EXPECT_EQ(checkBoxSize(moov), 8u + 108 + trak_size + 8);
    deleteBox(moov);
}

TEST(CodecPredict, SampleDescriptionByHandler) {
    // An stsd under mdia/minf/stbl next to an hdlr, with one entry holding a 29-byte avcC.
    struct Case {
        uint32_t handler, entry;
        uint16_t version;
        uint64_t predicted;
        const char *printed;
    };
    const Case cases[] = {
        {fourcc("vide"), fourcc("avc1"), 0, 16 + 86 + 29, ""},
        {fourcc("soun"), fourcc("mp4a"), 0, 16 + 36 + 29, ""},
        {fourcc("soun"), fourcc("mp4a"), 1, 16 + 52 + 29, ""},
        {fourcc("text"), fourcc("tx3g"), 0, 16, "checkBoxSize: unhandled handler_type=text\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(fcc(c.handler));
        Box *mdia = newBox(fourcc("mdia"), 8);
        auto *hdlr = static_cast<Hdlr *>(newBox(fourcc("hdlr"), 33));
        hdlr->handler_type = c.handler;
        addBox(hdlr, mdia);
        Box *minf = newBox(fourcc("minf"), 8);
        addBox(minf, mdia);
        Box *stbl = newBox(fourcc("stbl"), 8);
        addBox(stbl, minf);
        Box *stsd = newBox(fourcc("stsd"), 16);
        addBox(stsd, stbl);
        auto *e = static_cast<SampleEntry *>(newBox(c.entry, 0));
        e->version = c.version;
        addBox(e, stsd);
        auto *avcc = static_cast<AvcC *>(newBox(fourcc("avcC"), 0));
        avcc->length[0] = 10;
        addBox(avcc, e);
        testing::internal::CaptureStdout();
        EXPECT_EQ(checkBoxSize(stsd), c.predicted);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.printed);
        deleteBox(mdia);
    }
    Box *lone = newBox(fourcc("stsd"), 16);
    EXPECT_EQ(checkBoxSize(lone), 16u) << "no hdlr: nothing added";
    deleteBox(lone);
}

// ---- bounded allocation ----------------------------------------------------------------------

TEST(CodecBounded, HugeCountInSmallFileFailsWithoutAllocating) {
    // A file (through a FILE pointer and through a descriptor) too short for the stco's table.
    Bytes p;
    put32(p, 0x10000000);
    append(p, Bytes(8, 0));
    Bytes in = box("moov", box("trak", fullBox("stco", 0, 0, p)));
    for (int use_fd = 0; use_fd < 2; use_fd++) {
        SCOPED_TRACE(use_fd);
        FILE *f = fileWith(in);
        ASSERT_NE(f, nullptr);
        mp4_muxer *m = mp4_reader_create();
        if (use_fd)
            mp4_file_descriptor(m, fileno(f)); // at offset 0: fileWith rewound the stream
        else
            mp4_file_pointer(m, f);
        // The allocator refuses anything after the two container records and the stco
        // record: a table allocation would show up as error 2.
        AllocGuard guard;
        mp4_alloc_fail_after(3);
        Box *b = rwBox(m, nullptr);
        mp4_alloc_fail_after(-1);
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(m->error, 0);
        EXPECT_TRUE(at_end_of_input(m));
        EXPECT_EQ(b->first_child->first_child, nullptr) << "the stco was discarded";
        deleteBox(b);
        mp4_delete(m);
        fclose(f);
    }
}

TEST(CodecBounded, AllocEntriesContract) {
    Bytes in(100);
    MemReader r(in);
    EXPECT_EQ(allocEntries(r.m, 0, 8, 8), nullptr);
    EXPECT_FALSE(at_end_of_input(r.m));
    void *p = allocEntries(r.m, 12, 8, 8); // 96 bytes fit in 100
    ASSERT_NE(p, nullptr);
    mp4_free(p);
    EXPECT_FALSE(at_end_of_input(r.m));
    EXPECT_EQ(allocEntries(r.m, 13, 8, 8), nullptr); // 104 do not
    EXPECT_TRUE(at_end_of_input(r.m));
    EXPECT_EQ(allocEntries(r.m, 1, 8, 8), nullptr) << "input already short";
    {
        MemReader r2(in);
        AllocGuard guard;
        mp4_alloc_fail_after(0);
        EXPECT_EQ(allocEntries(r2.m, 4, 8, 8), nullptr);
        mp4_alloc_fail_after(-1);
        EXPECT_FALSE(at_end_of_input(r2.m)) << "allocator failure is not end of input";
    }
}

// Also the check that every exit restores the nesting depth and the dump's indent: random
// input meets short buffers, corrupt sizes and the nesting limit.
TEST(CodecBounded, RandomBytesNeverCrash) {
    std::mt19937 rng(4417);
    const char *types[] = {"moov", "trak", "mdia", "minf", "stbl", "stts", "stsz", "stz2",
                           "stsc", "stco", "co64", "ctts", "stss", "elst", "hdlr", "mvhd",
                           "tkhd", "mdhd", "ftyp", "dref", "url ", "urn ", "free", "mdat",
                           "smhd", "vmhd", "hmhd", "nmhd", "edts", "alis"};
    for (int round = 0; round < 1500; round++) {
        Bytes in(rng() % 200);
        for (auto &c : in)
            c = uint8_t(rng());
        // Plant plausible headers so that the layouts are reached.
        for (size_t at = 0; at + 8 <= in.size(); at += 8 + rng() % 24) {
            if (rng() % 2) {
                uint32_t sz = uint32_t(rng() % 3 == 0 ? rng() : rng() % (in.size() - at + 16));
                in[at] = uint8_t(sz >> 24);
                in[at + 1] = uint8_t(sz >> 16);
                in[at + 2] = uint8_t(sz >> 8);
                in[at + 3] = uint8_t(sz);
                memcpy(&in[at + 4], types[rng() % 30], 4);
            }
        }
        MemReader r(in);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        for (int i = 0; i < 8; i++) {
            Box *b = r.read();
            if (!b)
                break;
            if (b->type == fourcc("moov") || b->type == fourcc("trak")) {
                NullWriter w;
                rwBox(w.m, b); // written back as well
            }
            deleteBox(b);
        }
        testing::internal::GetCapturedStdout();
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(r.m->depth, 0);
        EXPECT_EQ(indent, 0);
    }
}
