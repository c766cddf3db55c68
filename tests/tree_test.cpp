// The box tree: linking with size bookkeeping, deletion with ownership, extension of nodes, and
// the size patch in the stream. The suite runs under the address sanitizer, so a leaked or
// doubly freed array fails it.
#include "box/box.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

namespace {

using Bytes = std::vector<uint8_t>;

std::vector<Box *> children(Box *parent) {
    std::vector<Box *> v;
    for (Box *c = parent->first_child; c; c = c->next)
        v.push_back(c);
    return v;
}

template <typename T> T *arrayOf(size_t n) {
    return static_cast<T *>(mp4_calloc(n, sizeof(T)));
}

void put32(uint8_t *p, uint32_t v) {
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}

// A writer whose stream is `buf`, with its position at `pos` and everything before it written.
mp4_muxer *writerOver(uint8_t *buf, uint32_t size, uint64_t pos, bool mov = false) {
    mp4_muxer *m = mov ? mov_writer_create() : mp4_writer_create();
    mp4_buf_put(m, buf, size);
    m->pos = m->max_pos = pos;
    return m;
}

void finish(mp4_muxer *m) {
    mp4_buf_get(m);
    mp4_delete(m);
}

} // namespace

// ---- linking and sizes ---------------------------------------------------------------------

TEST(BoxTree, AddAndDeleteKeepAncestorSizes) {
    Box *moov = newBox(fourcc("moov"), 8);
    Box *trak = newBox(fourcc("trak"), 8);
    addBox(trak, moov);
    EXPECT_EQ(moov->size, 16u);
    EXPECT_EQ(getParent(trak), moov);

    Box *first = newBox(fourcc("tkhd"), 20);
    Box *second = newBox(fourcc("edts"), 20);
    Box *third = newBox(fourcc("mdia"), 20);
    addBox(first, trak);
    addBox(second, trak);
    addBox(third, trak);
    EXPECT_EQ(trak->size, 68u);
    EXPECT_EQ(moov->size, 76u);
    EXPECT_EQ(children(trak), (std::vector<Box *>{first, second, third}));

    deleteBox(second); // a later child: its predecessor is relinked
    EXPECT_EQ(trak->size, 48u);
    EXPECT_EQ(moov->size, 56u);
    EXPECT_EQ(children(trak), (std::vector<Box *>{first, third}));

    deleteBox(first); // the first child: the parent's first_child moves on
    EXPECT_EQ(trak->size, 28u);
    EXPECT_EQ(moov->size, 36u);
    EXPECT_EQ(children(trak), (std::vector<Box *>{third}));

    deleteBox(trak); // a subtree: the ancestor loses exactly its size
    EXPECT_EQ(moov->size, 8u);
    EXPECT_EQ(moov->first_child, nullptr);
    deleteBox(moov);
    deleteBox(nullptr);
}

TEST(BoxTree, InsertAfterPlacesBetweenSiblingsAndGrowsAncestors) {
    Box *moov = newBox(fourcc("moov"), 8);
    Box *parent = newBox(fourcc("trak"), 8);
    addBox(parent, moov);
    Box *a = newBox(fourcc("tkhd"), 46);
    Box *b = newBox(fourcc("mdia"), 46);
    addBox(a, parent);
    addBox(b, parent);
    ASSERT_EQ(parent->size, 100u);
    Box *n = newBox(fourcc("edts"), 33);
    insertBoxAfter(n, a);
    EXPECT_EQ(parent->size, 133u);
    EXPECT_EQ(moov->size, 141u);
    EXPECT_EQ(a->size, 46u); // the sibling it follows does not grow
    EXPECT_EQ(getParent(n), parent);
    EXPECT_EQ(children(parent), (std::vector<Box *>{a, n, b}));

    Box *last = newBox(fourcc("udta"), 8);
    insertBoxAfter(last, b);
    EXPECT_EQ(children(parent), (std::vector<Box *>{a, n, b, last}));
    EXPECT_EQ(last->next, nullptr);
    EXPECT_EQ(moov->size, 149u);
    deleteBox(moov);
}

TEST(BoxTree, GetChildAndGetParent) {
    EXPECT_EQ(getChild(nullptr, fourcc("trak")), nullptr);
    EXPECT_EQ(getParent(nullptr), nullptr);
    Box *moov = newBox(fourcc("moov"), 8);
    EXPECT_EQ(getChild(moov, fourcc("trak")), nullptr);
    EXPECT_EQ(getParent(moov), nullptr);
    Box *mvhd = newBox(fourcc("mvhd"), 108);
    Box *t1 = newBox(fourcc("trak"), 8);
    Box *t2 = newBox(fourcc("trak"), 8);
    addBox(mvhd, moov);
    addBox(t1, moov);
    addBox(t2, moov);
    EXPECT_EQ(getChild(moov, fourcc("trak")), t1);
    EXPECT_EQ(getChild(moov, fourcc("mvhd")), mvhd);
    EXPECT_EQ(getChild(moov, fourcc("udta")), nullptr);
    EXPECT_EQ(getParent(t2), moov);
    deleteBox(moov);
}

TEST(BoxTree, NewBoxIsZeroFilledFullRecordOnTheHeap) {
    Box *b = newBox(fourcc("stts"), 16);
    EXPECT_EQ(b->type, fourcc("stts"));
    EXPECT_EQ(b->size, 16u);
    EXPECT_EQ(b->node_flags, BOX_HEAP | BOX_OWNS_ARRAYS | BOX_AUTO_SIZE);
    EXPECT_EQ(b->first_child, nullptr);
    EXPECT_EQ(b->next, nullptr);
    EXPECT_EQ(b->parent, nullptr);
    EXPECT_EQ(b->data_pos, 0u);
    Stts *s = static_cast<Stts *>(b);
    EXPECT_EQ(s->entry_count, 0u);
    EXPECT_EQ(s->entries, nullptr);
    EXPECT_GE(b->alloc_size, sizeof(Stts));
    deleteBox(b);
}

// ---- deletion and ownership ----------------------------------------------------------------

TEST(BoxTree, DeletingATreeFreesEveryOwnedArray) {
    Box *moov = newBox(fourcc("moov"), 8);
    Box *trak = newBox(fourcc("trak"), 8);
    addBox(trak, moov);

    auto *stts = static_cast<Stts *>(newBox(fourcc("stts"), 16));
    stts->entries = arrayOf<SttsEntry>(4);
    auto *ctts = static_cast<Ctts *>(newBox(fourcc("ctts"), 16));
    ctts->entries = arrayOf<CttsEntry>(4);
    auto *stss = static_cast<Stss *>(newBox(fourcc("stss"), 16));
    stss->entries = arrayOf<uint32_t>(4);
    auto *stsz = static_cast<Stsz *>(newBox(fourcc("stsz"), 20));
    stsz->entries = arrayOf<uint32_t>(4);
    auto *stz2 = static_cast<Stz2 *>(newBox(fourcc("stz2"), 20));
    stz2->entries = arrayOf<uint8_t>(4);
    auto *stsc = static_cast<Stsc *>(newBox(fourcc("stsc"), 16));
    stsc->entries = arrayOf<StscEntry>(4);
    auto *stco = static_cast<Stco *>(newBox(fourcc("stco"), 16));
    stco->entries = arrayOf<uint32_t>(4);
    auto *co64 = static_cast<Co64 *>(newBox(fourcc("co64"), 16));
    co64->entries = arrayOf<uint64_t>(4);
    auto *elst = static_cast<Elst *>(newBox(fourcc("elst"), 16));
    elst->entries = arrayOf<ElstEntry>(1);
    auto *stsh = static_cast<Stsh *>(newBox(fourcc("stsh"), 16));
    stsh->entries = arrayOf<StshEntry>(1);
    auto *stdp = static_cast<Stdp *>(newBox(fourcc("stdp"), 12));
    stdp->entries = arrayOf<uint16_t>(4);
    auto *padb = static_cast<Padb *>(newBox(fourcc("padb"), 16));
    padb->entries = arrayOf<uint8_t>(2);
    auto *hdlr = static_cast<Hdlr *>(newBox(fourcc("hdlr"), 33));
    hdlr->name = arrayOf<char>(8);
    auto *chan = static_cast<Chan *>(newBox(fourcc("chan"), 24));
    chan->descriptions = arrayOf<ChannelDescription>(2);
    auto *trun = static_cast<Trun *>(newBox(fourcc("trun"), 16));
    trun->samples = arrayOf<TrunSample>(3);
    auto *tfra = static_cast<Tfra *>(newBox(fourcc("tfra"), 24));
    tfra->entries = arrayOf<TfraEntry>(2);
    Box *withArrays[] = {stts, ctts, stss, stsz, stz2, stsc, stco, co64,
                         elst, stsh, stdp, padb, hdlr, chan, trun, tfra};
    for (Box *b : withArrays)
        addBox(b, trak);
    for (uint32_t type : {fourcc("mdat"), fourcc("free"), fourcc("skip"), fourcc("wide")}) {
        auto *d = static_cast<DataBox *>(newBox(type, 8));
        d->data = arrayOf<uint8_t>(16);
        addBox(d, moov);
    }
    deleteBox(moov);
}

TEST(BoxTree, NodesWithoutOwnershipKeepTheirArraysAndMemory) {
    static char constant_name[] = "VideoHandler";
    Box *trak = newBox(fourcc("trak"), 8);
    auto *hdlr = static_cast<Hdlr *>(newBox(fourcc("hdlr"), 45));
    hdlr->name = constant_name;
    hdlr->node_flags &= uint8_t(~BOX_OWNS_ARRAYS);
    addBox(hdlr, trak);

    // A node that is not heap memory is unlinked but not freed.
    Stco local{};
    local.type = fourcc("stco");
    local.size = 16;
    uint32_t entries[2] = {1, 2};
    local.entries = entries;
    local.node_flags = 0;
    addBox(&local, trak);
    EXPECT_EQ(trak->size, 8u + 45u + 16u);

    deleteBox(&local);
    EXPECT_EQ(trak->size, 53u);
    EXPECT_EQ(children(trak), (std::vector<Box *>{hdlr}));
    EXPECT_EQ(entries[1], 2u);

    deleteBox(trak);
    EXPECT_STREQ(constant_name, "VideoHandler");
}

// ---- extendBox -----------------------------------------------------------------------------

TEST(ExtendBox, FullNodeIsReturnedUnchanged) {
    Box *b = newBox(fourcc("stts"), 16);
    Box *p = b;
    EXPECT_EQ(extendBox(&p, sizeof(Stts)), b);
    EXPECT_EQ(p, b);
    deleteBox(b);
}

TEST(ExtendBox, StackNodeIsCopiedToAZeroFilledHeapRecord) {
    Box onStack{};
    onStack.type = fourcc("stts");
    onStack.size = 24;
    onStack.data_pos = 100;
    onStack.node_flags = BOX_HEADER_ONLY | BOX_ON_STACK | BOX_OWNS_ARRAYS;
    Box *p = &onStack;
    Box *r = extendBox(&p, sizeof(Stts));
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r, p);
    EXPECT_NE(p, &onStack);
    EXPECT_EQ(p->type, fourcc("stts"));
    EXPECT_EQ(p->size, 24u);
    EXPECT_EQ(p->data_pos, 100u);
    EXPECT_EQ(p->node_flags, BOX_HEAP | BOX_HEADER_ONLY | BOX_OWNS_ARRAYS);
    auto *s = static_cast<Stts *>(p);
    EXPECT_EQ(s->version, 0);
    EXPECT_EQ(s->entry_count, 0u);
    EXPECT_EQ(s->entries, nullptr);
    EXPECT_EQ(onStack.node_flags, BOX_HEADER_ONLY | BOX_ON_STACK | BOX_OWNS_ARRAYS);

    // Still header-only: a second extension in the same codec call grows it in place on the
    // heap, and the grown part is zero.
    s->entry_count = 7;
    Box *q = extendBox(&p, sizeof(Stts) + 64);
    ASSERT_NE(q, nullptr);
    EXPECT_EQ(static_cast<Stts *>(q)->entry_count, 7u);
    const uint8_t *tail = reinterpret_cast<const uint8_t *>(q) + sizeof(Stts);
    for (int i = 0; i < 64; i++)
        EXPECT_EQ(tail[i], 0) << i;
    q->node_flags &= uint8_t(~BOX_HEADER_ONLY);
    deleteBox(q);
}

TEST(ExtendBox, HeapHeaderOnlyNodeGrowsAndKeepsItsHeader) {
    auto *b = static_cast<Box *>(mp4_malloc(sizeof(Box)));
    memset(b, 0, sizeof(Box));
    b->type = fourcc("mvhd");
    b->size = 108;
    b->data_pos = 8;
    b->node_flags = BOX_HEAP | BOX_HEADER_ONLY;
    b->alloc_size = sizeof(Box);
    Box *p = b;
    ASSERT_NE(extendBox(&p, sizeof(Mvhd)), nullptr);
    EXPECT_EQ(p->type, fourcc("mvhd"));
    EXPECT_EQ(p->size, 108u);
    EXPECT_EQ(p->data_pos, 8u);
    EXPECT_EQ(p->node_flags, BOX_HEAP | BOX_HEADER_ONLY);
    auto *mvhd = static_cast<Mvhd *>(p);
    EXPECT_EQ(mvhd->timescale, 0u);
    EXPECT_EQ(mvhd->next_track_ID, 0u);
    deleteBox(p);

    // A node whose allocated size was never recorded still keeps its header.
    b = static_cast<Box *>(mp4_calloc(1, sizeof(Box)));
    b->type = fourcc("tkhd");
    b->size = 92;
    b->node_flags = BOX_HEAP | BOX_HEADER_ONLY;
    p = b;
    ASSERT_NE(extendBox(&p, sizeof(Tkhd)), nullptr);
    EXPECT_EQ(p->type, fourcc("tkhd"));
    EXPECT_EQ(p->size, 92u);
    EXPECT_EQ(p->node_flags, BOX_HEAP | BOX_HEADER_ONLY);
    EXPECT_EQ(static_cast<Tkhd *>(p)->track_ID, 0u);
    deleteBox(p);
}

TEST(ExtendBox, NullNodeGetsAFreshRecord) {
    Box *p = nullptr;
    ASSERT_NE(extendBox(&p, sizeof(Stsz)), nullptr);
    EXPECT_EQ(p->node_flags, BOX_HEAP);
    EXPECT_EQ(p->type, 0u);
    EXPECT_EQ(static_cast<Stsz *>(p)->entries, nullptr);
    deleteBox(p);
}

TEST(ExtendBox, FailuresReturnNullAndKeepTheOldNode) {
    auto *b = static_cast<Box *>(mp4_calloc(1, sizeof(Box)));
    b->type = fourcc("stts");
    b->node_flags = BOX_HEAP | BOX_HEADER_ONLY;
    b->alloc_size = sizeof(Box);
    Box *p = b;
    mp4_alloc_fail_after(0);
    CaptureStderr();
    Box *r = extendBox(&p, sizeof(Stts));
    std::string err = GetCapturedStderr();
    mp4_alloc_fail_after(-1);
    EXPECT_EQ(r, nullptr);
    EXPECT_EQ(p, b);
    EXPECT_EQ(err, "extendBox: failed to realloc size=" + std::to_string(sizeof(Stts)) + "\n");
    mp4_free(b);

    Box onStack{};
    onStack.node_flags = BOX_HEADER_ONLY | BOX_ON_STACK;
    Box *s = &onStack;
    mp4_alloc_fail_after(0);
    CaptureStderr();
    r = extendBox(&s, sizeof(Stts));
    err = GetCapturedStderr();
    mp4_alloc_fail_after(-1);
    EXPECT_EQ(r, nullptr);
    EXPECT_EQ(s, &onStack);
    EXPECT_EQ(err, "");
}

// ---- updateBoxSize -------------------------------------------------------------------------

TEST(UpdateBoxSize, CompactSizeIsPatchedInPlace) {
    uint8_t buf[32];
    memset(buf, 0xEE, sizeof buf);
    put32(buf + 4, 0);
    memcpy(buf + 8, "trak", 4);
    mp4_muxer *m = writerOver(buf, sizeof buf, 24);
    Box *b = newBox(fourcc("trak"), 0x1234);
    b->data_pos = 12;
    updateBoxSize(m, b);
    EXPECT_EQ(Bytes(buf + 4, buf + 12), Bytes({0, 0, 0x12, 0x34, 't', 'r', 'a', 'k'}));
    EXPECT_EQ(buf[3], 0xEE);
    EXPECT_EQ(buf[12], 0xEE);
    EXPECT_EQ(m->pos, 24u);

    b->size = 0xFFFFFFFF; // the largest compact size, not a 64-bit one
    updateBoxSize(m, b);
    EXPECT_EQ(Bytes(buf + 4, buf + 12), Bytes({0xFF, 0xFF, 0xFF, 0xFF, 't', 'r', 'a', 'k'}));
    EXPECT_EQ(buf[3], 0xEE);
    EXPECT_EQ(b->size, 0xFFFFFFFFu);
    EXPECT_EQ(m->pos, 24u);
    EXPECT_EQ(m->error, 0);
    deleteBox(b);
    finish(m);
}

TEST(UpdateBoxSize, PlaceholderBecomesA64BitHeader) {
    for (bool mov : {false, true}) {
        SCOPED_TRACE(mov ? "mov writer, wide" : "mp4 writer, free");
        uint8_t buf[40];
        memset(buf, 0xEE, sizeof buf);
        put32(buf, 8);
        memcpy(buf + 4, mov ? "wide" : "free", 4);
        put32(buf + 8, 0);
        memcpy(buf + 12, "mdat", 4);
        mp4_muxer *m = writerOver(buf, sizeof buf, 40, mov);
        Box *b = newBox(fourcc("mdat"), 0);
        b->data_pos = 16;
        b->size = 0x100000010ull;
        updateBoxSize(m, b);
        EXPECT_EQ(b->size, 0x100000018ull);
        EXPECT_EQ(Bytes(buf, buf + 16), Bytes({0, 0, 0, 1, 'm', 'd', 'a', 't', //
                                               0, 0, 0, 1, 0, 0, 0, 0x18}));
        EXPECT_EQ(buf[16], 0xEE);
        EXPECT_EQ(m->pos, 40u);
        EXPECT_EQ(m->flags & (MP4_READER | MP4_END_OF_INPUT), 0);
        EXPECT_EQ(m->error, 0);

        // Once the header is 64-bit, a further patch rewrites the 8-byte size only.
        b->size = 0x200000000ull;
        updateBoxSize(m, b);
        EXPECT_EQ(b->size, 0x200000000ull);
        EXPECT_EQ(Bytes(buf, buf + 16), Bytes({0, 0, 0, 1, 'm', 'd', 'a', 't', //
                                               0, 0, 0, 2, 0, 0, 0, 0}));
        deleteBox(b);
        finish(m);
    }
}

TEST(UpdateBoxSize, PlaceholderOnAFileStream) {
    FILE *f = tmpfile();
    ASSERT_NE(f, nullptr);
    mp4_muxer *m = mp4_writer_create();
    mp4_file_pointer(m, f);
    const uint8_t head[] = {0, 0, 0, 8, 'f', 'r', 'e', 'e', 0, 0, 0, 0, 'm', 'd', 'a', 't'};
    write_n(m, head, sizeof head);
    write_n(m, "payload", 7);
    Box *b = newBox(fourcc("mdat"), 0);
    b->data_pos = 16;
    b->size = 0x123456789ull;
    updateBoxSize(m, b);
    EXPECT_EQ(m->pos, 23u);
    EXPECT_EQ(b->size, 0x123456791ull);
    fflush(f);
    rewind(f);
    uint8_t got[23];
    ASSERT_EQ(fread(got, 1, sizeof got, f), sizeof got);
    EXPECT_EQ(Bytes(got, got + 16), Bytes({0, 0, 0, 1, 'm', 'd', 'a', 't', //
                                           0, 0, 0, 1, 0x23, 0x45, 0x67, 0x91}));
    EXPECT_EQ(std::string(reinterpret_cast<char *>(got) + 16, 7), "payload");
    deleteBox(b);
    mp4_delete(m);
    fclose(f);
}

TEST(UpdateBoxSize, NoPlaceholderLeavesTheStreamAndReports) {
    struct Case {
        bool mov;
        uint32_t size;
        const char *pad;
    } cases[] = {{false, 8, "abcd"}, {false, 8, "wide"}, {true, 8, "free"}, {false, 16, "free"}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.pad);
        uint8_t buf[24];
        put32(buf, c.size);
        memcpy(buf + 4, c.pad, 4);
        put32(buf + 8, 0x0000ABCD);
        memcpy(buf + 12, "mdat", 4);
        Bytes before(buf, buf + sizeof buf);
        mp4_muxer *m = writerOver(buf, sizeof buf, 24, c.mov);
        Box *b = newBox(fourcc("mdat"), 0);
        b->data_pos = 16;
        b->size = 0x100000000ull;
        CaptureStderr();
        updateBoxSize(m, b);
        EXPECT_EQ(GetCapturedStderr(), "updateBoxSize: 64-bit failed  (size=" +
                                           std::to_string(c.size) + " type=" + c.pad + ")\n");
        EXPECT_EQ(Bytes(buf, buf + sizeof buf), before);
        EXPECT_EQ(b->size, 0x100000000ull);
        EXPECT_EQ(m->pos, 24u);
        deleteBox(b);
        finish(m);
    }
}

TEST(UpdateBoxSize, RefusedOnAReaderAndForAnUnwrittenBox) {
    uint8_t buf[16] = {0, 0, 0, 16, 'f', 'r', 'e', 'e'};
    Bytes before(buf, buf + sizeof buf);
    mp4_muxer *r = mp4_reader_create();
    mp4_buf_put(r, buf, sizeof buf);
    r->pos = 12;
    Box *b = newBox(fourcc("free"), 99);
    b->data_pos = 8;
    CaptureStderr();
    updateBoxSize(r, b);
    EXPECT_EQ(GetCapturedStderr(), "updateBoxSize: Can't update box size when reading!\n");
    EXPECT_EQ(Bytes(buf, buf + sizeof buf), before);
    EXPECT_EQ(r->pos, 12u);
    finish(r);

    // A box that never went out has no header in the stream: nothing is touched.
    mp4_muxer *w = writerOver(buf, sizeof buf, 16);
    b->data_pos = 0;
    CaptureStderr();
    CaptureStdout();
    updateBoxSize(w, b);
    std::string out = GetCapturedStdout();
    EXPECT_EQ(GetCapturedStderr(), "updateBoxSize: free was never written\n");
    EXPECT_EQ(out, "");
    EXPECT_EQ(Bytes(buf, buf + sizeof buf), before);
    EXPECT_EQ(w->pos, 16u);
    EXPECT_EQ(w->error, 0);
    deleteBox(b);
    finish(w);
}

// ---- rwSubBox ------------------------------------------------------------------------------

TEST(RwSubBox, WithoutAHandleItOnlyLinks) {
    Box *moov = newBox(fourcc("moov"), 8);
    Box *trak = newBox(fourcc("trak"), 8);
    addBox(trak, moov);
    Box *tkhd = newBox(fourcc("tkhd"), 92);
    EXPECT_EQ(rwSubBox(nullptr, tkhd, trak), tkhd);
    EXPECT_EQ(getParent(tkhd), trak);
    EXPECT_EQ(getChild(trak, fourcc("tkhd")), tkhd);
    EXPECT_EQ(trak->size, 100u);
    EXPECT_EQ(moov->size, 108u);
    EXPECT_EQ(tkhd->data_pos, 0u); // nothing was written
    deleteBox(moov);
}

TEST(RwSubBox, WriterWritesTheBoxAndPatchesEveryAncestorHeader) {
    uint8_t buf[64];
    memset(buf, 0xEE, sizeof buf);
    mp4_muxer *m = mp4_writer_create();
    mp4_buf_put(m, buf, sizeof buf);
    Box *moov = newBox(fourcc("moov"), 8);
    Box *trak = newBox(fourcc("trak"), 8);
    ASSERT_EQ(rwSubBox(m, moov, nullptr), moov); // no parent: written, nothing linked
    ASSERT_EQ(rwSubBox(m, trak, moov), trak);
    EXPECT_EQ(Bytes(buf, buf + 16), Bytes({0, 0, 0, 16, 'm', 'o', 'o', 'v', //
                                           0, 0, 0, 8, 't', 'r', 'a', 'k'}));

    Box *pad = newBox(fourcc("free"), 12);
    ASSERT_EQ(rwSubBox(m, pad, trak), pad);
    EXPECT_EQ(trak->size, 20u);
    EXPECT_EQ(moov->size, 28u);
    EXPECT_EQ(m->parent, nullptr);
    EXPECT_EQ(m->pos, 28u);
    EXPECT_EQ(Bytes(buf, buf + 29), Bytes({0, 0, 0, 28, 'm', 'o', 'o', 'v', //
                                           0, 0, 0, 20, 't', 'r', 'a', 'k', //
                                           0, 0, 0, 12, 'f', 'r', 'e', 'e', //
                                           0, 0, 0, 0,  0xEE}));
    EXPECT_EQ(m->error, 0);
    EXPECT_EQ(mp4_buf_get(m), 28u);
    deleteBox(moov);
    mp4_delete(m);
}
