// The box codec driver: headers, failures and their positions, memory-buffer shortage,
// nesting limit, children, size reconciliation and padding, size prediction, and bounded
// allocation for hostile counts.
#include "box/layouts.h"
#include "tree_compare.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>
#include <unistd.h>

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

Bytes nested(int levels, const Bytes &innermost) {
    Bytes b = innermost;
    for (int i = 0; i < levels; i++)
        b = box("moov", b);
    return b;
}

} // namespace

// ---- headers ---------------------------------------------------------------------------------

TEST(CodecHeader, EightByteFreeBoxReadsAsLeaf) {
    MemReader r({0, 0, 0, 8, 'f', 'r', 'e', 'e'});
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->type, fourcc("free"));
    EXPECT_EQ(b->size, 8u);
    EXPECT_EQ(b->first_child, nullptr);
    EXPECT_EQ(b->data_pos, 8u);
    EXPECT_EQ(muxer_pos(r.m), 8u);
    EXPECT_EQ(b->node_flags & (BOX_HEADER_ONLY | BOX_ON_STACK), 0);
    EXPECT_TRUE(b->node_flags & BOX_HEAP);
    deleteBox(b);
}

TEST(CodecHeader, UnknownBoxKeepsHeaderAndSkipsContent) {
    Bytes in = box("abcd", Bytes(8, 0xAA));
    append(in, box("free", {}));
    MemReader r(in);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->type, fourcc("abcd"));
    EXPECT_EQ(b->size, 16u);
    EXPECT_EQ(b->alloc_size, sizeof(Box)); // header only
    EXPECT_EQ(b->first_child, nullptr);
    EXPECT_EQ(muxer_pos(r.m), 16u);
    deleteBox(b);
    Box *next = r.read();
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(next->type, fourcc("free"));
    deleteBox(next);
}

TEST(CodecHeader, LargeSizeHeaderReadAndWrittenBackCompact) {
    // An smhd of 24 bytes behind a 64-bit header: 8 bytes of fields.
    Bytes in;
    put32(in, 1);
    putStr(in, "smhd", false);
    put64(in, 24);
    put32(in, 0);      // version, flags
    put16(in, 0x0100); // balance
    put16(in, 0);      // reserved
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

TEST(CodecHeader, UnknownBoxWrittenAsHeaderAndPassedOver) {
    Bytes in;
    put32(in, 1);
    putStr(in, "abcd", false);
    put64(in, 24);
    append(in, Bytes(8, 0x55));
    MemReader r(in);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    Bytes out = writeToMemory(b);
    EXPECT_EQ(hex(out), "00 00 00 18 61 62 63 64 00 00 00 00 00 00 00 00 "
                        "00 00 00 00 00 00 00 00");
    deleteBox(b);
}

// Writes `b` to a (sparse) temporary file and returns the first `n` bytes of it.
static Bytes writeToFileHead(Box *b, size_t n, uint64_t *end_pos, Box *placeholder = nullptr) {
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

TEST(CodecFailures, SizesZeroToSevenAreCorrupt) {
    for (uint32_t size = 0; size < 8; size++) {
        Bytes in;
        put32(in, size);
        putStr(in, "moov", false);
        append(in, Bytes(16, 0));
        MemReader r(in);
        testing::internal::CaptureStdout();
        Box *b = r.read();
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(b, nullptr) << size;
        // Size 1 announces a 64-bit size, here the zeros that follow.
        uint32_t declared = size == 1 ? 0 : size;
        EXPECT_EQ(out, "rwBox: corrupt input type=moov size=" + std::to_string(declared) + "\n");
        EXPECT_EQ(r.m->error, MP4_ERR_BAD_INPUT);
        EXPECT_STREQ(mp4_get_error(r.m), "bad input");
        EXPECT_EQ(muxer_pos(r.m), size == 1 ? 16u : 8u) << "position stays after the header";
        EXPECT_EQ(r.m->depth, 0);
    }
}

TEST(CodecFailures, LargeSizeBelowEightIsCorruptToo) {
    Bytes in;
    put32(in, 1);
    putStr(in, "free", false);
    put64(in, 7);
    MemReader r(in);
    testing::internal::CaptureStdout();
    EXPECT_EQ(r.read(), nullptr);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(r.m->error, MP4_ERR_BAD_INPUT);
    EXPECT_EQ(muxer_pos(r.m), 16u);
}

static int chainDepth(Box *b) {
    int depth = 0;
    for (; b; b = b->first_child)
        depth++;
    return depth;
}

TEST(CodecFailures, TwentyLevelsAcceptedTwentyFirstFails) {
    {
        // 19 containers around a 16-byte leaf: 20 levels.
        Bytes in = nested(19, box("abcd", Bytes(8, 0)));
        MemReader r(in);
        Box *b = r.read();
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(chainDepth(b), 20);
        EXPECT_EQ(r.m->error, 0);
        EXPECT_EQ(r.m->depth, 0);
        EXPECT_EQ(muxer_pos(r.m), in.size());
        deleteBox(b);
    }
    {
        Bytes in = nested(20, box("abcd", Bytes(8, 0)));
        MemReader r(in);
        testing::internal::CaptureStdout();
        Box *b = r.read();
        std::string out = testing::internal::GetCapturedStdout();
        ASSERT_NE(b, nullptr) << "the outer boxes are still returned";
        EXPECT_EQ(out, "rwBox: recursion limit reached\n");
        EXPECT_EQ(r.m->error, MP4_ERR_RECURSION);
        EXPECT_STREQ(mp4_get_error(r.m), "recursion limit reached");
        EXPECT_EQ(r.m->depth, 0);
        EXPECT_EQ(chainDepth(b), 20) << "the 21st level is missing";
        EXPECT_EQ(muxer_pos(r.m), in.size());
        deleteBox(b);
    }
}

TEST(CodecFailures, RecursionLimitConsumesNothing) {
    MemReader r(box("free", {}));
    r.m->depth = 20;
    testing::internal::CaptureStdout();
    EXPECT_EQ(r.read(), nullptr);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(muxer_pos(r.m), 0u);
    EXPECT_EQ(r.m->depth, 20);
    EXPECT_EQ(r.m->error, MP4_ERR_RECURSION);
}

TEST(CodecFailures, AllocationFailureSkipsBoxWithErrorTwo) {
    AllocGuard guard;
    Bytes in = fullBox("mvhd", 0, 0, Bytes(96, 0));
    append(in, box("free", {}));
    MemReader r(in);
    mp4_alloc_fail_after(0);
    testing::internal::CaptureStderr();
    Box *b = r.read();
    std::string err = testing::internal::GetCapturedStderr();
    mp4_alloc_fail_after(-1);
    EXPECT_EQ(b, nullptr);
    EXPECT_EQ(err, "rwBox: failed to allocate memory for box mvhd\n");
    EXPECT_EQ(r.m->error, MP4_ERR_NOMEM);
    EXPECT_EQ(muxer_pos(r.m), 108u) << "position past the box";
    EXPECT_EQ(r.m->depth, 0);
    Box *next = r.read();
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(next->type, fourcc("free"));
    deleteBox(next);
}

TEST(CodecFailures, EveryAllocationOfAMovieCanFailWithoutLeaks) {
    // A skeleton whose read makes nine allocations (six records, the hdlr's growth for its
    // name, the stts record and its entries). Failing each in turn gives error 2 with the
    // boxes read so far, never a crash or a leak (ASan checks the latter).
    Bytes stts;
    put32(stts, 1);
    put32(stts, 10);
    put32(stts, 512);
    Bytes hdlr;
    put32(hdlr, 0);
    putStr(hdlr, "vide", false);
    append(hdlr, Bytes(12, 0));
    putStr(hdlr, "Video");
    Bytes mdia = fullBox("hdlr", 0, 0, hdlr);
    append(mdia, box("minf", box("stbl", fullBox("stts", 0, 0, stts))));
    Bytes in = box("moov", box("trak", box("mdia", mdia)));
    AllocGuard guard;
    for (long n = 0; n <= 9; n++) {
        MemReader r(in);
        mp4_alloc_fail_after(n);
        testing::internal::CaptureStderr();
        Box *b = r.read();
        std::string err = testing::internal::GetCapturedStderr();
        mp4_alloc_fail_after(-1);
        if (n < 9) {
            EXPECT_EQ(r.m->error, MP4_ERR_NOMEM) << n;
            EXPECT_NE(err.find("rwBox: failed to allocate memory for box "), std::string::npos);
            EXPECT_EQ(b == nullptr, n == 0) << n;
        } else {
            ASSERT_NE(b, nullptr);
            EXPECT_EQ(r.m->error, 0);
            EXPECT_EQ(err, "");
        }
        EXPECT_EQ(muxer_pos(r.m), in.size()) << n;
        EXPECT_EQ(r.m->depth, 0);
        EXPECT_EQ(indent, 0);
        deleteBox(b);
    }
}

// ---- memory-buffer shortage ------------------------------------------------------------------

TEST(CodecShortInput, BufferEndingAtEveryBytePositionRewindsThenReads) {
    Bytes in = box("moov", fullBox("mvhd", 0, 0, Bytes(96, 1)));
    append(in, box("trak", box("abcd", Bytes(5, 2))));
    in = box("moov", in);
    Bytes whole = in;
    for (uint32_t cut = 0; cut < whole.size(); cut++) {
        MemReader r(whole, cut);
        Box *b = r.read();
        EXPECT_EQ(b, nullptr) << cut;
        EXPECT_EQ(muxer_pos(r.m), 0u) << cut;
        EXPECT_EQ(r.m->error, 0) << cut;
        EXPECT_EQ(r.m->depth, 0);
        EXPECT_EQ(mp4_buf_get(r.m), 0u) << "nothing consumed";
        mp4_buf_put(r.m, r.bytes.data(), uint32_t(r.bytes.size()));
        b = r.read();
        ASSERT_NE(b, nullptr) << cut;
        EXPECT_EQ(b->size, whole.size());
        EXPECT_EQ(muxer_pos(r.m), whole.size());
        ASSERT_NE(b->first_child, nullptr);
        EXPECT_EQ(b->first_child->first_child->type, fourcc("mvhd"));
        deleteBox(b);
    }
}

TEST(CodecShortInput, TopLevelMdatBlocksUntilWhole) {
    Bytes in = box("mdat", Bytes(100, 7));
    MemReader r(in, 60);
    for (int attempt = 0; attempt < 3; attempt++) {
        EXPECT_EQ(r.read(), nullptr);
        EXPECT_EQ(muxer_pos(r.m), 0u);
    }
    mp4_buf_get(r.m);
    mp4_buf_put(r.m, r.bytes.data(), uint32_t(r.bytes.size()));
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->type, fourcc("mdat"));
    EXPECT_EQ(static_cast<DataBox *>(b)->data, nullptr);
    EXPECT_EQ(muxer_pos(r.m), 108u);
    deleteBox(b);
}

TEST(CodecShortInput, DebugReportsSeekingBack) {
    MemReader r(box("free", Bytes(4, 0)), 6);
    r.m->flags |= MP4_DEBUG;
    testing::internal::CaptureStderr();
    EXPECT_EQ(r.read(), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "rwBox: seeking back to 0\n");
}

TEST(CodecShortInput, LinkedHandleSkipsWholeBoxAndCountsItConsumed) {
    Bytes in = box("moov", Bytes(40, 0));
    MemReader r(in, 20);
    mp4_muxer *other = mp4_writer_create();
    r.m->linked = other;
    testing::internal::CaptureStdout();
    Box *b = r.read();
    std::string out = testing::internal::GetCapturedStdout();
    r.m->linked = nullptr;
    mp4_delete(other);
    EXPECT_EQ(b, nullptr);
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
    Bytes in = box("mdat", payload);
    MemReader r(in, 50);
    r.m->flags |= MP4_REMUXER;
    mp4_muxer *other = mp4_writer_create();
    r.m->linked = other;
    testing::internal::CaptureStdout();
    Box *b = r.read();
    std::string out = testing::internal::GetCapturedStdout();
    r.m->linked = nullptr;
    mp4_delete(other);
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
    FILE *f = tmpfile();
    ASSERT_NE(f, nullptr);
    fwrite(in.data(), 1, in.size(), f);
    rewind(f);
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

TEST(CodecChildren, ChildrenLinkedInOrderWithParent) {
    Bytes kids = box("abcd", Bytes(1, 0));
    append(kids, box("efgh", Bytes(2, 0)));
    append(kids, box("ijkl", Bytes(3, 0)));
    Bytes in = box("trak", kids);
    MemReader r(in);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    std::string order;
    for (Box *c = b->first_child; c; c = c->next) {
        order += fcc(c->type) + " ";
        EXPECT_EQ(c->parent, b);
    }
    EXPECT_EQ(order, "abcd efgh ijkl ");
    EXPECT_EQ(r.m->parent, nullptr);
    EXPECT_EQ(b->size, in.size());
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

TEST(CodecChildren, ContainerRoundTripsByteExact) {
    Bytes in = box("moov", box("trak", box("edts", box("abcd", Bytes(4, 9)))));
    MemReader r(in);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    Bytes out = writeToMemory(b);
    // The unknown leaf's content is not written: the writer passes over it (zeros in memory).
    Bytes expect = box("moov", box("trak", box("edts", box("abcd", Bytes(4, 0)))));
    EXPECT_EQ(hex(out), hex(expect));
    deleteBox(b);
}

TEST(CodecChildren, DebugDumpIndentsChildrenByFour) {
    Bytes in = box("moov", box("trak", box("abcd", Bytes(4, 0))));
    MemReader r(in);
    r.m->flags |= MP4_DEBUG;
    testing::internal::CaptureStdout();
    Box *b = r.read();
    std::string out = testing::internal::GetCapturedStdout();
    ASSERT_NE(b, nullptr);
    const size_t moov = out.find("moov  size: 28\n");
    const size_t trak = out.find("\n    trak  size: 20\n");
    const size_t abcd = out.find("\n        abcd  size: 12\n");
    EXPECT_EQ(moov, 0u) << out;
    EXPECT_NE(trak, std::string::npos) << out;
    EXPECT_NE(abcd, std::string::npos) << out;
    EXPECT_LT(trak, abcd) << "each box is printed before its children";
    EXPECT_EQ(indent, 0);
    deleteBox(b);
}

TEST(CodecChildren, IndentRestoredAfterEveryExit) {
    indent = 0;
    {
        MemReader r(nested(3, box("free", {})));
        deleteBox(r.read());
    }
    EXPECT_EQ(indent, 0);
    {
        MemReader r(nested(3, box("free", {})), 10);
        EXPECT_EQ(r.read(), nullptr);
    }
    EXPECT_EQ(indent, 0);
}

TEST(CodecChildren, SampleEntryWithoutLayoutIsPassedOverOnce) {
    // Entries of an stsd read while no media handler is known: header-only nodes, one message
    // each, and their contents (which would hold child boxes) are not parsed.
    Bytes entry = box("avc1", box("avcC", Bytes(12, 1)));
    Bytes p;
    put32(p, 2);
    append(p, entry);
    append(p, entry);
    Bytes in = fullBox("stsd", 0, 0, p);
    MemReader r(in);
    testing::internal::CaptureStderr();
    Box *b = r.read();
    std::string err = testing::internal::GetCapturedStderr();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(err, "rwBox: handler type not set\nrwBox: handler type not set\n");
    int entries = 0;
    for (Box *c = b->first_child; c; c = c->next) {
        entries++;
        EXPECT_EQ(c->type, fourcc("avc1"));
        EXPECT_EQ(c->alloc_size, sizeof(Box)) << "header only";
        EXPECT_EQ(c->first_child, nullptr);
        EXPECT_EQ(c->size, entry.size());
    }
    EXPECT_EQ(entries, 2);
    EXPECT_EQ(r.m->error, 0);
    EXPECT_EQ(muxer_pos(r.m), in.size());
    deleteBox(b);
}

// ---- size reconciliation ---------------------------------------------------------------------

TEST(CodecResize, StaleAutoSizeIsPatchedAndReported) {
    Box *moov = newBox(fourcc("moov"), 8);
    Box *trak = newBox(fourcc("trak"), 8);
    addBox(trak, moov);
    moov->size = 100; // stale
    mp4_muxer *m = nullptr;
    testing::internal::CaptureStdout();
    Bytes out(64);
    m = mp4_writer_create();
    m->flags |= MP4_DEBUG;
    mp4_buf_put(m, out.data(), 64);
    rwBox(m, moov);
    std::string printed = testing::internal::GetCapturedStdout();
    uint32_t n = mp4_buf_get(m);
    EXPECT_EQ(n, 16u);
    out.resize(n);
    EXPECT_EQ(hex(out), hex(box("moov", box("trak", {}))));
    EXPECT_EQ(moov->size, 16u);
    EXPECT_NE(printed.find("(actual moov box size 16)\n"), std::string::npos) << printed;
    mp4_delete(m);
    deleteBox(moov);
}

TEST(CodecResize, ReportSwitches) {
    // With show_resizing off, only a box that came out smaller than declared is reported,
    // and only while show_actual_size is on.
    struct Restore {
        ~Restore() { show_resizing = show_actual_size = 1; }
    } restore;
    auto run = [](uint64_t declared) {
        Box *moov = newBox(fourcc("moov"), 8);
        addBox(newBox(fourcc("trak"), 8), moov);
        moov->size = declared;
        Bytes out(64);
        mp4_muxer *m = mp4_writer_create();
        m->flags |= MP4_DEBUG;
        mp4_buf_put(m, out.data(), 64);
        testing::internal::CaptureStdout();
        rwBox(m, moov);
        std::string printed = testing::internal::GetCapturedStdout();
        mp4_buf_get(m);
        mp4_delete(m);
        EXPECT_EQ(moov->size, 16u);
        deleteBox(moov);
        return printed.find("(actual moov box size 16)") != std::string::npos;
    };
    show_resizing = 0;
    EXPECT_TRUE(run(100)) << "shrunk";
    EXPECT_FALSE(run(12)) << "grown";
    show_actual_size = 0;
    EXPECT_FALSE(run(100));
    show_resizing = 1;
    EXPECT_TRUE(run(12));
}

TEST(CodecResize, NoResizeReportWithoutDebug) {
    Box *moov = newBox(fourcc("moov"), 100);
    testing::internal::CaptureStdout();
    Bytes out = writeToMemory(moov);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(out.size(), 8u);
    EXPECT_EQ(moov->size, 8u);
    deleteBox(moov);
}

TEST(CodecResize, ReadNodeShortByMoreThanEightGetsPaddingBox) {
    // A read trak declared 20 bytes larger than its content: writing it back adds a 20-byte
    // padding box in the gap, free for MP4 and wide for QuickTime.
    Bytes in = box("trak", box("abcd", Bytes(4, 0)));
    MemReader r(in);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    b->size += 20;
    Bytes mp4 = writeToMemory(b);
    Bytes expect = in;
    expect[3] += 20;
    append(expect, box("free", Bytes(12, 0)));
    EXPECT_EQ(hex(mp4), hex(expect));
    Bytes mov = writeToMemory(b, true);
    Bytes expect_mov = in;
    expect_mov[3] += 20;
    append(expect_mov, box("wide", Bytes(12, 0)));
    EXPECT_EQ(hex(mov), hex(expect_mov));
    EXPECT_EQ(b->size, in.size() + 20) << "a read node keeps its size";
    deleteBox(b);
}

TEST(CodecResize, ShortfallOfEightOrLessLeftAsGap) {
    for (uint32_t gap = 1; gap <= 8; gap++) {
        Bytes in = box("trak", box("abcd", Bytes(4, 0)));
        MemReader r(in);
        Box *b = r.read();
        ASSERT_NE(b, nullptr);
        b->size += gap;
        Bytes out = writeToMemory(b);
        Bytes expect = in;
        expect[3] = uint8_t(expect[3] + gap);
        append(expect, Bytes(gap, 0));
        EXPECT_EQ(hex(out), hex(expect)) << gap;
        deleteBox(b);
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
    EXPECT_EQ(checkBoxSize(nullptr), 0u);
    Box *trak = newBox(fourcc("trak"), 8);
    EXPECT_EQ(checkBoxSize(trak), 8u);
    auto *stts = static_cast<Stts *>(newBox(fourcc("stts"), 16));
    stts->entry_count = 3;
    EXPECT_EQ(checkBoxSize(stts), 40u);
    auto *tkhd = static_cast<Tkhd *>(newBox(fourcc("tkhd"), 92));
    EXPECT_EQ(checkBoxSize(tkhd), 92u);
    tkhd->version = 1;
    EXPECT_EQ(checkBoxSize(tkhd), 104u);
    auto *mdhd = static_cast<Mdhd *>(newBox(fourcc("mdhd"), 32));
    EXPECT_EQ(checkBoxSize(mdhd), 32u);
    mdhd->version = 1;
    EXPECT_EQ(checkBoxSize(mdhd), 44u);
    auto *hdlr = static_cast<Hdlr *>(newBox(fourcc("hdlr"), 0));
    hdlr->node_flags &= uint8_t(~BOX_OWNS_ARRAYS);
    hdlr->name = const_cast<char *>("VideoHandler");
    EXPECT_EQ(checkBoxSize(hdlr), 45u);
    auto *url = static_cast<Url *>(newBox(fourcc("url "), 12));
    EXPECT_EQ(checkBoxSize(url), 13u);
    strcpy(url->location, "abc");
    EXPECT_EQ(checkBoxSize(url), 16u);
    auto *dref = static_cast<Dref *>(newBox(fourcc("dref"), 16));
    addBox(url, dref);
    EXPECT_EQ(checkBoxSize(dref), 32u);
    auto *co64 = static_cast<Co64 *>(newBox(fourcc("co64"), 16));
    co64->entry_count = 2;
    EXPECT_EQ(checkBoxSize(co64), 32u);
    auto *stco = static_cast<Stco *>(newBox(fourcc("stco"), 16));
    stco->entry_count = 5;
    EXPECT_EQ(checkBoxSize(stco), 36u);
    auto *stss = static_cast<Stss *>(newBox(fourcc("stss"), 16));
    stss->entry_count = 1;
    EXPECT_EQ(checkBoxSize(stss), 20u);
    auto *stsc = static_cast<Stsc *>(newBox(fourcc("stsc"), 16));
    stsc->entry_count = 2;
    EXPECT_EQ(checkBoxSize(stsc), 40u);
    auto *stsz = static_cast<Stsz *>(newBox(fourcc("stsz"), 20));
    stsz->sample_count = 10;
    stsz->sample_size = 7; // predicted with entries anyway
    EXPECT_EQ(checkBoxSize(stsz), 60u);
    auto *elst = static_cast<Elst *>(newBox(fourcc("elst"), 16));
    elst->entry_count = 2;
    EXPECT_EQ(checkBoxSize(elst), 40u);
    elst->version = 1;
    EXPECT_EQ(checkBoxSize(elst), 56u);
    Box *mvhd = newBox(fourcc("mvhd"), 0);
    EXPECT_EQ(checkBoxSize(mvhd), 108u);
    Box *vmhd = newBox(fourcc("vmhd"), 0), *smhd = newBox(fourcc("smhd"), 0);
    EXPECT_EQ(checkBoxSize(vmhd), 20u);
    EXPECT_EQ(checkBoxSize(smhd), 16u);
    Box *iods = newBox(fourcc("iods"), 0), *esds = newBox(fourcc("esds"), 0);
    EXPECT_EQ(checkBoxSize(iods), 33u);
    EXPECT_EQ(checkBoxSize(esds), 40u);
    auto *avcc = static_cast<AvcC *>(newBox(fourcc("avcC"), 0));
    avcc->length[0] = 20;
    avcc->length[1] = 4;
    EXPECT_EQ(checkBoxSize(avcc), 43u);
    for (const char *t : {"free", "skip", "wide", "mdat", "ftyp", "avc1", "mp4a", "mp4v"}) {
        Box *x = newBox(fourcc(*reinterpret_cast<const char(*)[5]>(t)), 1234);
        EXPECT_EQ(checkBoxSize(x), 1234u) << t;
        deleteBox(x);
    }
    Box *odd = newBox(fourcc("abcd"), 77);
    testing::internal::CaptureStderr();
    EXPECT_EQ(checkBoxSize(odd), 77u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "checkBoxSize: unhandled type=abcd size=77\n");
    for (Box *x : {trak, (Box *)stts, (Box *)tkhd, (Box *)mdhd, (Box *)hdlr, (Box *)dref,
                   (Box *)co64, (Box *)stco, (Box *)stss, (Box *)stsc, (Box *)stsz, (Box *)elst,
                   mvhd, vmhd, smhd, iods, esds, (Box *)avcc, odd})
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
    auto build = [](const char(&handler)[5], const char(&entry)[5], uint16_t version) {
        Box *mdia = newBox(fourcc("mdia"), 8);
        auto *hdlr = static_cast<Hdlr *>(newBox(fourcc("hdlr"), 33));
        hdlr->handler_type = fourcc(handler);
        addBox(hdlr, mdia);
        Box *minf = newBox(fourcc("minf"), 8);
        addBox(minf, mdia);
        Box *stbl = newBox(fourcc("stbl"), 8);
        addBox(stbl, minf);
        Box *stsd = newBox(fourcc("stsd"), 16);
        addBox(stsd, stbl);
        auto *e = static_cast<SampleEntry *>(newBox(fourcc(entry), 0));
        e->version = version;
        addBox(e, stsd);
        auto *avcc = static_cast<AvcC *>(newBox(fourcc("avcC"), 0));
        avcc->length[0] = 10;
        addBox(avcc, e);
        return std::make_pair(mdia, stsd);
    };
    auto v = build("vide", "avc1", 0);
    EXPECT_EQ(checkBoxSize(v.second), 16u + 86 + 29);
    deleteBox(v.first);
    auto s0 = build("soun", "mp4a", 0);
    EXPECT_EQ(checkBoxSize(s0.second), 16u + 36 + 29);
    deleteBox(s0.first);
    auto s1 = build("soun", "mp4a", 1);
    EXPECT_EQ(checkBoxSize(s1.second), 16u + 52 + 29);
    deleteBox(s1.first);
    auto t = build("text", "tx3g", 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(checkBoxSize(t.second), 16u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "checkBoxSize: unhandled handler_type=text\n");
    deleteBox(t.first);
    Box *lone = newBox(fourcc("stsd"), 16);
    EXPECT_EQ(checkBoxSize(lone), 16u) << "no hdlr: nothing added";
    deleteBox(lone);
}

// ---- bounded allocation ----------------------------------------------------------------------

TEST(CodecBounded, HugeCountInSmallMemoryInputFailsWithoutAllocating) {
    Bytes p;
    put32(p, 0xFFFFFFFF);
    append(p, Bytes(16, 0));
    Bytes in = fullBox("stts", 0, 0, p); // 40 bytes in all
    ASSERT_EQ(in.size(), 32u);
    append(in, Bytes(8, 0));
    MemReader r(in);
    unsigned long before = mp4_alloc_count();
    Box *b = r.read();
    unsigned long allocations = mp4_alloc_count() - before;
    EXPECT_EQ(b, nullptr);
    EXPECT_TRUE(at_end_of_input(r.m)) << "treated as input that runs out";
    EXPECT_EQ(r.m->error, 0);
    EXPECT_EQ(muxer_pos(r.m), 0u) << "rewound to the box's start";
    EXPECT_LE(allocations, 1u) << "only the record itself";
}

TEST(CodecBounded, HugeCountInSmallFileFailsWithoutAllocating) {
    Bytes p;
    put32(p, 0x10000000);
    append(p, Bytes(8, 0));
    Bytes in = box("moov", box("trak", fullBox("stco", 0, 0, p)));
    for (int use_fd = 0; use_fd < 2; use_fd++) {
        FILE *f = tmpfile();
        ASSERT_NE(f, nullptr);
        fwrite(in.data(), 1, in.size(), f);
        fflush(f);
        rewind(f);
        mp4_muxer *m = mp4_reader_create();
        if (use_fd) {
            lseek(fileno(f), 0, SEEK_SET);
            mp4_file_descriptor(m, fileno(f));
        } else {
            mp4_file_pointer(m, f);
        }
        // The allocator refuses anything after the two container records and the stco
        // record: a table allocation would show up as error 2.
        AllocGuard guard;
        mp4_alloc_fail_after(3);
        Box *b = rwBox(m, nullptr);
        mp4_alloc_fail_after(-1);
        ASSERT_NE(b, nullptr) << use_fd;
        EXPECT_EQ(m->error, 0) << use_fd;
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
