// Movie, track and media boxes: byte layouts, version choice, language packing, handler names,
// strings bounded by their fields, edit lists, padding and media data.
#include "box/layouts.h"
#include "tree_compare.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

using namespace boxtest;

namespace {

// Reads one box from `in`, which must be consumed whole.
Box *readAll(const Bytes &in, mp4_muxer **keep = nullptr) {
    auto *r = new MemReader(in);
    Box *b = r->read();
    EXPECT_EQ(muxer_pos(r->m), in.size());
    if (keep) {
        mp4_buf_get(r->m); // detached: the bytes go with the reader helper
        *keep = r->m;
        r->m = mp4_reader_create(); // the caller owns the used handle now
    }
    delete r;
    return b;
}

// Reading then writing gives back the same bytes.
void expectRoundTrip(const Bytes &in) {
    Box *b = readAll(in);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(hex(writeToMemory(b)), hex(in)) << fcc(b->type);
    deleteBox(b);
}

Bytes matrixBytes() {
    Bytes p;
    for (uint32_t v : {0x10000u, 0u, 0u, 0u, 0x10000u, 0u, 0u, 0u, 0x40000000u})
        put32(p, v);
    return p;
}

Bytes hdlrPayload(const char (&type)[5], const char *name, bool zero = true) {
    Bytes p;
    put32(p, 0);
    putStr(p, type, false);
    append(p, Bytes(12, 0));
    putStr(p, name, zero);
    return p;
}

} // namespace

// ---- ftyp ------------------------------------------------------------------------------------

TEST(MovieFtyp, BrandsRunToTheEndOfTheBox) {
    Bytes p;
    putStr(p, "isom", false);
    put32(p, 0x200);
    Box *b = readAll(box("ftyp", p));
    ASSERT_NE(b, nullptr);
    auto *f = static_cast<Ftyp *>(b);
    EXPECT_EQ(f->major_brand, fourcc("isom"));
    EXPECT_EQ(f->minor_version, 0x200u);
    EXPECT_EQ(f->compatible_brands[0], 0u);
    deleteBox(b);

    putStr(p, "mp42", false);
    putStr(p, "mp41", false);
    Bytes in = box("ftyp", p);
    ASSERT_EQ(in.size(), 24u);
    b = readAll(in);
    ASSERT_NE(b, nullptr);
    f = static_cast<Ftyp *>(b);
    EXPECT_EQ(f->compatible_brands[0], fourcc("mp42"));
    EXPECT_EQ(f->compatible_brands[1], fourcc("mp41"));
    EXPECT_EQ(f->compatible_brands[2], 0u);
    EXPECT_EQ(hex(writeToMemory(b)), hex(in));
    deleteBox(b);
}

TEST(MovieFtyp, MoreBrandsThanTheRecordHoldsAreSkipped) {
    Bytes p;
    putStr(p, "isom", false);
    put32(p, 1);
    const char *brands[] = {"b001", "b002", "b003", "b004", "b005", "b006", "b007", "b008"};
    for (const char *br : brands)
        p.insert(p.end(), br, br + 4);
    Bytes in = box("ftyp", p);
    append(in, box("free", {}));
    MemReader r(in);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    auto *f = static_cast<Ftyp *>(b);
    EXPECT_EQ(f->compatible_brands[5], fourcc("b006"));
    EXPECT_EQ(muxer_pos(r.m), 48u) << "the extra brands are passed over";
    Box *next = r.read();
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(next->type, fourcc("free"));
    // Written back: the six brands held; the declared size leaves an 8-byte gap.
    Bytes out = writeToMemory(b);
    ASSERT_EQ(out.size(), 48u);
    EXPECT_EQ(Bytes(out.begin() + 8, out.begin() + 40), Bytes(p.begin(), p.begin() + 32));
    EXPECT_EQ(Bytes(out.begin() + 40, out.end()), Bytes(8, 0));
    deleteBox(b);
    deleteBox(next);
}

// ---- headers with versions -------------------------------------------------------------------

TEST(MovieMvhd, VersionZeroLayoutByteExact) {
    auto *b = static_cast<Mvhd *>(newBox(fourcc("mvhd"), 108));
    b->version = 1; // overwritten: every time fits in 32 bits
    b->creation_time = 0x11223344;
    b->modification_time = 0x55667788;
    b->timescale = 90000;
    b->duration = 0x0A0B0C0D;
    b->rate = 0x10000;
    b->volume = 0x100;
    const uint32_t matrix[9] = {0x10000, 0, 0, 0, 0x10000, 0, 0, 0, 0x40000000};
    memcpy(b->matrix, matrix, sizeof matrix);
    b->next_track_ID = 3;
    Bytes p;
    put32(p, 0x11223344);
    put32(p, 0x55667788);
    put32(p, 90000);
    put32(p, 0x0A0B0C0D);
    put32(p, 0x10000);
    put16(p, 0x100);
    append(p, Bytes(10, 0));
    append(p, matrixBytes());
    append(p, Bytes(24, 0));
    put32(p, 3);
    Bytes expect = fullBox("mvhd", 0, 0, p);
    ASSERT_EQ(expect.size(), 108u);
    EXPECT_EQ(hex(writeToMemory(b)), hex(expect));
    EXPECT_EQ(b->version, 0);

    Box *back = readAll(expect);
    ASSERT_NE(back, nullptr);
    EXPECT_TRUE(compareTrees(b, back).empty());
    deleteBox(back);
    deleteBox(b);
}

TEST(MovieMvhd, DurationPast32BitsSelectsVersionOne) {
    auto *b = static_cast<Mvhd *>(newBox(fourcc("mvhd"), 108));
    b->timescale = 1000;
    b->duration = 0x100000000ull;
    Bytes out = writeToMemory(b);
    ASSERT_EQ(out.size(), 120u);
    EXPECT_EQ(b->version, 1);
    EXPECT_EQ(out[8], 1);
    // 8 header, 4 version/flags, 8 + 8 times, 4 timescale, then the 8-byte duration.
    EXPECT_EQ(hex(Bytes(out.begin() + 28, out.begin() + 40)),
              "00 00 03 E8 00 00 00 01 00 00 00 00");
    Box *back = readAll(out);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(static_cast<Mvhd *>(back)->duration, 0x100000000ull);
    EXPECT_EQ(static_cast<Mvhd *>(back)->timescale, 1000u);
    EXPECT_EQ(back->size, 120u);
    deleteBox(back);
    deleteBox(b);
}

TEST(MovieTkhd, LayoutsAndCurrentTrack) {
    Bytes p;
    put32(p, 1);      // creation
    put32(p, 2);      // modification
    put32(p, 7);      // track_ID
    put32(p, 0);      // reserved
    put32(p, 0xFFFF); // duration
    append(p, Bytes(8, 0));
    put16(p, 0xFFFF); // layer -1
    put16(p, 2);      // alternate_group
    put16(p, 0x100);  // volume
    put16(p, 0);
    append(p, matrixBytes());
    put32(p, 640 << 16);
    put32(p, 480 << 16);
    Bytes in = fullBox("tkhd", 0, 3, p);
    ASSERT_EQ(in.size(), 92u);
    mp4_muxer *m = nullptr;
    Box *b = readAll(in, &m);
    ASSERT_NE(b, nullptr);
    auto *t = static_cast<Tkhd *>(b);
    EXPECT_EQ(t->flags, 3u);
    EXPECT_EQ(t->track_ID, 7u);
    EXPECT_EQ(t->duration, 0xFFFFu);
    EXPECT_EQ(t->layer, 0xFFFF);
    EXPECT_EQ(t->alternate_group, 2);
    EXPECT_EQ(t->volume, 0x100);
    EXPECT_EQ(t->matrix[8], 0x40000000u);
    EXPECT_EQ(t->width, 640u << 16);
    EXPECT_EQ(t->height, 480u << 16);
    EXPECT_EQ(m->current_track_id, 7u);
    mp4_delete(m);
    EXPECT_EQ(hex(writeToMemory(b)), hex(in));

    t->modification_time = 0x123456789ull;
    t->node_flags |= BOX_AUTO_SIZE; // measured, as the writer's own boxes are
    mp4_muxer *w = nullptr;
    Bytes v1 = writeToMemory(b, false, 1 << 16, &w);
    EXPECT_EQ(v1.size(), 104u);
    EXPECT_EQ(w->current_track_id, 7u) << "writing sets it too";
    mp4_delete(w);
    Box *back = readAll(v1);
    ASSERT_NE(back, nullptr);
    EXPECT_TRUE(compareTrees(b, back, false).empty());
    deleteBox(back);
    deleteBox(b);
}

TEST(MovieMdhd, LanguagePacking) {
    auto *b = static_cast<Mdhd *>(newBox(fourcc("mdhd"), 32));
    b->timescale = 48000;
    b->duration = 96000;
    b->language[2] = 21; // 'u'
    b->language[1] = 14; // 'n'
    b->language[0] = 4;  // 'd'
    Bytes out = writeToMemory(b);
    ASSERT_EQ(out.size(), 32u);
    EXPECT_EQ(hex(Bytes(out.begin() + 28, out.end())), "55 C4 00 00");
    Box *back = readAll(out);
    ASSERT_NE(back, nullptr);
    auto *m = static_cast<Mdhd *>(back);
    EXPECT_EQ(m->language[0], 4);
    EXPECT_EQ(m->language[1], 14);
    EXPECT_EQ(m->language[2], 21);
    EXPECT_EQ(m->timescale, 48000u);
    EXPECT_EQ(m->duration, 96000u);
    deleteBox(back);

    memset(b->language, 0, 3);
    out = writeToMemory(b);
    EXPECT_EQ(hex(Bytes(out.begin() + 28, out.begin() + 30)), "00 00");
    b->creation_time = 0x100000000ull;
    out = writeToMemory(b);
    EXPECT_EQ(out.size(), 44u);
    EXPECT_EQ(b->version, 1);
    deleteBox(b);
}

// ---- hdlr ------------------------------------------------------------------------------------

TEST(MovieHdlr, NameWithAndWithoutTerminator) {
    Bytes with = fullBox("hdlr", 0, 0, hdlrPayload("vide", "VideoHandler"));
    ASSERT_EQ(with.size(), 45u);
    Bytes without = fullBox("hdlr", 0, 0, hdlrPayload("vide", "VideoHandler", false));
    ASSERT_EQ(without.size(), 44u);
    for (const Bytes *in : {&with, &without}) {
        mp4_muxer *m = nullptr;
        Box *b = readAll(*in, &m);
        ASSERT_NE(b, nullptr);
        auto *h = static_cast<Hdlr *>(b);
        EXPECT_EQ(h->handler_type, fourcc("vide"));
        ASSERT_NE(h->name, nullptr);
        EXPECT_STREQ(h->name, "VideoHandler");
        EXPECT_FALSE(h->node_flags & BOX_OWNS_ARRAYS) << "the name lives inside the node";
        EXPECT_EQ(m->handler_type, fourcc("vide"));
        mp4_delete(m);
        // Written back within the declared size.
        EXPECT_EQ(hex(writeToMemory(b)), hex(*in));
        deleteBox(b);
    }
}

TEST(MovieHdlr, EmptyAndMissingName) {
    Bytes in = fullBox("hdlr", 0, 0, hdlrPayload("soun", ""));
    ASSERT_EQ(in.size(), 33u);
    Box *b = readAll(in);
    ASSERT_NE(b, nullptr);
    EXPECT_STREQ(static_cast<Hdlr *>(b)->name, "");
    deleteBox(b);

    Bytes fixed = hdlrPayload("soun", "");
    fixed.pop_back();
    Bytes bare = fullBox("hdlr", 0, 0, fixed);
    ASSERT_EQ(bare.size(), 32u);
    b = readAll(bare);
    ASSERT_NE(b, nullptr);
    EXPECT_STREQ(static_cast<Hdlr *>(b)->name, "");
    EXPECT_EQ(hex(writeToMemory(b)), hex(bare)) << "no room for even the zero byte";
    deleteBox(b);
}

TEST(MovieHdlr, WriterCutsNameAtDeclaredSize) {
    auto *h = static_cast<Hdlr *>(newBox(fourcc("hdlr"), 32 + 5));
    h->node_flags = BOX_HEAP; // fixed size, constant name
    h->handler_type = fourcc("soun");
    h->name = const_cast<char *>("SoundHandler");
    Bytes out = writeToMemory(h);
    EXPECT_EQ(hex(out), hex(fullBox("hdlr", 0, 0, hdlrPayload("soun", "Sound", false))));
    h->size = 33 + 12;
    out = writeToMemory(h);
    EXPECT_EQ(hex(out), hex(fullBox("hdlr", 0, 0, hdlrPayload("soun", "SoundHandler"))));
    EXPECT_EQ(checkBoxSize(h), 45u);
    deleteBox(h);
}

TEST(MovieHdlr, DataHandlerTypesKeepTheMediaHandler) {
    for (const char *t : {"alis", "url "}) {
        Bytes p;
        put32(p, 0);
        p.insert(p.end(), t, t + 4);
        append(p, Bytes(12, 0));
        putStr(p, "Data");
        MemReader r(fullBox("hdlr", 0, 0, p));
        r.m->handler_type = fourcc("soun");
        Box *b = r.read();
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(r.m->handler_type, fourcc("soun")) << t;
        // Writing has the same effect, or lack of it.
        mp4_muxer *w = mp4_writer_create();
        w->handler_type = fourcc("vide");
        rwBox(w, b);
        EXPECT_EQ(w->handler_type, fourcc("vide")) << t;
        mp4_delete(w);
        deleteBox(b);
    }
    auto *h = static_cast<Hdlr *>(newBox(fourcc("hdlr"), 33));
    h->handler_type = fourcc("meta");
    mp4_muxer *w = mp4_writer_create();
    rwBox(w, h);
    EXPECT_EQ(w->handler_type, fourcc("meta"));
    mp4_delete(w);
    deleteBox(h);
}

TEST(MovieHdlr, DeclaredSizeBeyondFileFailsWithoutHugeAllocation) {
    Bytes p = hdlrPayload("vide", "X");
    Bytes in = fullBox("hdlr", 0, 0, p);
    in[0] = 0x7F; // declares ~2 GiB
    FILE *f = tmpfile();
    ASSERT_NE(f, nullptr);
    fwrite(in.data(), 1, in.size(), f);
    rewind(f);
    mp4_muxer *m = mp4_reader_create();
    mp4_file_pointer(m, f);
    mp4_alloc_fail_after(1); // the record only: a name allocation would fail with error 2
    Box *b = rwBox(m, nullptr);
    mp4_alloc_fail_after(-1);
    EXPECT_EQ(b, nullptr);
    EXPECT_EQ(m->error, 0);
    EXPECT_TRUE(at_end_of_input(m));
    EXPECT_EQ(muxer_pos(m), 0u);
    mp4_delete(m);
    fclose(f);
}

// ---- media headers and data references -------------------------------------------------------

TEST(MovieMediaHeaders, SmhdWithAndWithoutReserved) {
    Bytes p14;
    put16(p14, 0xFF00);
    Bytes in14 = fullBox("smhd", 0, 0, p14);
    ASSERT_EQ(in14.size(), 14u);
    Bytes p16 = p14;
    put16(p16, 0);
    Bytes in16 = fullBox("smhd", 0, 0, p16);
    for (const Bytes *in : {&in14, &in16}) {
        Box *b = readAll(*in);
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(static_cast<Smhd *>(b)->balance, 0xFF00);
        EXPECT_EQ(hex(writeToMemory(b)), hex(*in));
        deleteBox(b);
    }
}

TEST(MovieMediaHeaders, VmhdHmhdNmhdRoundTrip) {
    Bytes v;
    put16(v, 0x40);
    put16(v, 1);
    put16(v, 2);
    put16(v, 3);
    Bytes vin = fullBox("vmhd", 0, 1, v);
    expectRoundTrip(vin);
    Box *b = readAll(vin);
    auto *vm = static_cast<Vmhd *>(b);
    EXPECT_EQ(vm->graphicsmode, 0x40);
    EXPECT_EQ(vm->opcolor[2], 3);
    deleteBox(b);

    Bytes h;
    put16(h, 1500);
    put16(h, 1000);
    put32(h, 800000);
    put32(h, 400000);
    put32(h, 0);
    Bytes hin = fullBox("hmhd", 0, 0, h);
    expectRoundTrip(hin);
    b = readAll(hin);
    auto *hm = static_cast<Hmhd *>(b);
    EXPECT_EQ(hm->maxPDUsize, 1500);
    EXPECT_EQ(hm->avgPDUsize, 1000);
    EXPECT_EQ(hm->maxbitrate, 800000u);
    EXPECT_EQ(hm->avgbitrate, 400000u);
    deleteBox(b);

    expectRoundTrip(fullBox("nmhd", 0, 0, {}));
}

TEST(MovieDataReferences, DrefWithSelfContainedUrl) {
    Bytes url = fullBox("url ", 0, 1, {});
    ASSERT_EQ(url.size(), 12u);
    Bytes p;
    put32(p, 1);
    append(p, url);
    Bytes in = fullBox("dref", 0, 0, p);
    Box *b = readAll(in);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(static_cast<Dref *>(b)->entry_count, 1u);
    ASSERT_NE(b->first_child, nullptr);
    auto *u = static_cast<Url *>(b->first_child);
    EXPECT_EQ(u->flags, 1u);
    EXPECT_STREQ(u->location, "");
    EXPECT_EQ(u->size, 12u);
    EXPECT_EQ(hex(writeToMemory(b)), hex(in)) << "the url is written back as 12 bytes";
    EXPECT_EQ(checkBoxSize(b), 16u + 13) << "prediction counts the zero byte";
    deleteBox(b);
}

TEST(MovieDataReferences, LocationsAndCapacity) {
    Bytes p;
    putStr(p, "http://example/x");
    Bytes in = fullBox("alis", 0, 0, p);
    Box *b = readAll(in);
    ASSERT_NE(b, nullptr);
    EXPECT_STREQ(static_cast<Url *>(b)->location, "http://example/x");
    EXPECT_EQ(hex(writeToMemory(b)), hex(in));
    deleteBox(b);

    // 300 characters: 255 kept and terminated, the rest passed over up to the box's end.
    std::string longloc(300, 'a');
    Bytes lp;
    putStr(lp, longloc.c_str());
    Bytes lin = fullBox("url ", 0, 0, lp);
    append(lin, box("free", {}));
    MemReader r(lin);
    b = r.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(std::string(static_cast<Url *>(b)->location), std::string(255, 'a'));
    EXPECT_EQ(muxer_pos(r.m), 8u + 4 + 301);
    deleteBox(b);
    b = r.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->type, fourcc("free"));
    deleteBox(b);
}

TEST(MovieDataReferences, UrnNameAndLocation) {
    Bytes p;
    putStr(p, "urn:x");
    putStr(p, "here");
    Bytes in = fullBox("urn ", 0, 0, p);
    Box *b = readAll(in);
    ASSERT_NE(b, nullptr);
    auto *u = static_cast<Urn *>(b);
    EXPECT_STREQ(u->name, "urn:x");
    EXPECT_STREQ(u->location, "here");
    EXPECT_EQ(hex(writeToMemory(b)), hex(in));
    deleteBox(b);

    Bytes q;
    putStr(q, "only-name");
    Bytes in2 = fullBox("urn ", 0, 0, q);
    b = readAll(in2);
    ASSERT_NE(b, nullptr);
    EXPECT_STREQ(static_cast<Urn *>(b)->name, "only-name");
    EXPECT_STREQ(static_cast<Urn *>(b)->location, "");
    EXPECT_EQ(hex(writeToMemory(b)), hex(in2));
    deleteBox(b);

    // Unterminated at the box's end: the string stops there and is terminated in memory.
    Bytes r;
    putStr(r, "abc", false);
    b = readAll(fullBox("urn ", 0, 0, r));
    ASSERT_NE(b, nullptr);
    EXPECT_STREQ(static_cast<Urn *>(b)->name, "abc");
    deleteBox(b);
}

// ---- elst ------------------------------------------------------------------------------------

namespace {
uint32_t g_calls, g_track, g_size, g_duration;
uint64_t g_offset;
uint32_t recordCall(mp4_muxer *, uint32_t track, uint64_t offset, uint32_t size,
                    uint32_t duration) {
    g_calls++;
    g_track = track;
    g_offset = offset;
    g_size = size;
    g_duration = duration;
    return size;
}
} // namespace

TEST(MovieElst, VersionZeroEmptyEditAndRemuxCallback) {
    Bytes p;
    put32(p, 2);
    put32(p, 3000); // empty edit of 3000
    put32(p, 0xFFFFFFFF);
    put16(p, 1);
    put16(p, 0);
    put32(p, 90000);
    put32(p, 1024);
    put16(p, 1);
    put16(p, 0);
    Bytes in = fullBox("elst", 0, 0, p);
    MemReader r(in);
    r.m->remux_callback = recordCall;
    r.m->current_track_id = 2;
    g_calls = 0;
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    auto *e = static_cast<Elst *>(b);
    ASSERT_EQ(e->entry_count, 2u);
    EXPECT_TRUE(e->node_flags & BOX_OWNS_ARRAYS);
    EXPECT_EQ(e->entries[0].media_time, -1);
    EXPECT_EQ(e->entries[0].segment_duration, 3000u);
    EXPECT_EQ(e->entries[0].media_rate_integer, 1);
    EXPECT_EQ(e->entries[1].media_time, 1024);
    EXPECT_EQ(g_calls, 1u) << "only the empty edit is reported";
    EXPECT_EQ(g_track, 2u);
    EXPECT_EQ(g_offset, 0u);
    EXPECT_EQ(g_size, 0u);
    EXPECT_EQ(g_duration, 3000u);
    EXPECT_EQ(hex(writeToMemory(b)), hex(in));
    EXPECT_EQ(checkBoxSize(b), in.size());
    deleteBox(b);
}

TEST(MovieElst, VersionOneKeptAndChosenWhenNeeded) {
    Bytes p;
    put32(p, 1);
    put64(p, 500);
    put64(p, 0);
    put16(p, 1);
    put16(p, 0);
    Bytes in = fullBox("elst", 1, 0, p);
    Box *b = readAll(in);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(hex(writeToMemory(b)), hex(in)) << "read as version 1, written as version 1";
    deleteBox(b);

    auto *e = static_cast<Elst *>(newBox(fourcc("elst"), 16 + 12));
    e->entry_count = 1;
    e->entries = static_cast<ElstEntry *>(mp4_calloc(1, sizeof(ElstEntry)));
    e->entries[0].media_time = 0x80000000ll; // 2^31 needs 8 bytes
    e->entries[0].media_rate_integer = 1;
    Bytes out = writeToMemory(e);
    EXPECT_EQ(e->version, 1);
    EXPECT_EQ(out.size(), 16u + 20);
    e->version = 0;
    e->entries[0].media_time = 0x7FFFFFFF;
    e->entries[0].segment_duration = 0x100000000ull;
    out = writeToMemory(e);
    EXPECT_EQ(e->version, 1);
    e->version = 0;
    e->entries[0].segment_duration = 10;
    e->entries[0].media_time = -1;
    out = writeToMemory(e);
    EXPECT_EQ(e->version, 0);
    EXPECT_EQ(hex(out), "00 00 00 1C 65 6C 73 74 00 00 00 00 00 00 00 01 00 00 00 0A FF FF FF "
                        "FF 00 01 00 00");
    deleteBox(e);
}

TEST(MovieElst, CountBeyondTheBox) {
    // Three entries declared, two in the box: the third is read from the bytes that follow,
    // and the position returns to the box's end.
    Bytes p;
    put32(p, 3);
    for (uint32_t i = 1; i <= 2; i++) {
        put32(p, i * 100);
        put32(p, i);
        put32(p, 0x10000);
    }
    Bytes in = fullBox("elst", 0, 0, p);
    const size_t elst_size = in.size();
    Bytes follow = box("free", Bytes(4, 0));
    append(in, follow);
    {
        MemReader r(in);
        Box *b = r.read();
        ASSERT_NE(b, nullptr);
        auto *e = static_cast<Elst *>(b);
        EXPECT_EQ(e->entry_count, 3u);
        EXPECT_EQ(e->entries[1].segment_duration, 200u);
        EXPECT_EQ(e->entries[2].segment_duration, 12u) << "the free box's size field";
        EXPECT_EQ(muxer_pos(r.m), elst_size);
        deleteBox(b);
    }
    {
        // Nothing follows: the input runs out and the box is discarded, rewound.
        MemReader r(Bytes(in.begin(), in.begin() + long(elst_size)));
        EXPECT_EQ(r.read(), nullptr);
        EXPECT_EQ(muxer_pos(r.m), 0u);
        EXPECT_TRUE(at_end_of_input(r.m));
        EXPECT_EQ(r.m->error, 0);
    }
}

// ---- padding and media data ------------------------------------------------------------------

TEST(MovieFreeMdat, FreeContentSkippedOnReadWrittenOnWrite) {
    Bytes in = box("free", Bytes{1, 2, 3, 4});
    Box *b = readAll(in);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(static_cast<DataBox *>(b)->data, nullptr);
    EXPECT_EQ(hex(writeToMemory(b)), "00 00 00 0C 66 72 65 65 00 00 00 00") << "zeros for no data";
    deleteBox(b);

    auto *w = static_cast<DataBox *>(newBox(fourcc("skip"), 12));
    w->node_flags = BOX_HEAP;
    uint8_t data[4] = {9, 8, 7, 6};
    w->data = data;
    EXPECT_EQ(hex(writeToMemory(w)), "00 00 00 0C 73 6B 69 70 09 08 07 06");
    deleteBox(w);
}

TEST(MovieFreeMdat, PlainReaderSkipsMdat) {
    Bytes in = box("mdat", Bytes(992, 0x33));
    ASSERT_EQ(in.size(), 1000u);
    append(in, box("free", {}));
    MemReader r(in);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(static_cast<DataBox *>(b)->data, nullptr);
    EXPECT_EQ(b->data_pos, 8u);
    EXPECT_EQ(muxer_pos(r.m), 1000u);
    EXPECT_EQ(b->first_child, nullptr) << "the payload is not parsed as boxes";
    deleteBox(b);
}

TEST(MovieFreeMdat, RemuxerLoadsPayloadBehindRecord) {
    Bytes payload{0, 0, 0, 8, 'f', 'r', 'e', 'e', 1, 2};
    Bytes in = box("mdat", payload);
    MemReader r(in);
    r.m->flags |= MP4_REMUXER;
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    auto *d = static_cast<DataBox *>(b);
    ASSERT_NE(d->data, nullptr);
    EXPECT_EQ(d->data, reinterpret_cast<uint8_t *>(d) + sizeof(DataBox));
    EXPECT_EQ(Bytes(d->data, d->data + payload.size()), payload);
    EXPECT_EQ(b->first_child, nullptr);
    EXPECT_EQ(muxer_pos(r.m), in.size());
    // Written back with its data.
    EXPECT_EQ(hex(writeToMemory(b)), hex(in));
    deleteBox(b);
}

TEST(MovieFreeMdat, RemuxerFileMdatBeyondFileIsNotAllocated) {
    Bytes in = box("mdat", Bytes(16, 1));
    in[0] = 0x40; // declares 1 GiB
    FILE *f = tmpfile();
    fwrite(in.data(), 1, in.size(), f);
    rewind(f);
    mp4_muxer *m = mp4_reader_create();
    m->flags |= MP4_REMUXER;
    mp4_file_pointer(m, f);
    unsigned long before = mp4_alloc_count();
    EXPECT_EQ(rwBox(m, nullptr), nullptr);
    EXPECT_LE(mp4_alloc_count() - before, 1u);
    EXPECT_TRUE(at_end_of_input(m));
    EXPECT_EQ(m->error, 0);
    mp4_delete(m);
    fclose(f);
}

TEST(MovieFreeMdat, WriterMdatHeaderOnlyOrWithData) {
    auto *d = static_cast<DataBox *>(newBox(fourcc("mdat"), 8));
    EXPECT_EQ(hex(writeToMemory(d)), "00 00 00 08 6D 64 61 74");
    uint8_t data[3] = {0xA, 0xB, 0xC};
    d->data = data;
    d->size = 11;
    d->node_flags = BOX_HEAP;
    EXPECT_EQ(hex(writeToMemory(d)), "00 00 00 0B 6D 64 61 74 0A 0B 0C");
    deleteBox(d);
}

// ---- a whole skeleton ------------------------------------------------------------------------

TEST(MovieSkeleton, MoovTreeRoundTripsFieldByField) {
    Bytes mvhd;
    put32(mvhd, 0);
    put32(mvhd, 0);
    put32(mvhd, 600);
    put32(mvhd, 6000);
    put32(mvhd, 0x10000);
    put16(mvhd, 0x100);
    append(mvhd, Bytes(10, 0));
    append(mvhd, matrixBytes());
    append(mvhd, Bytes(24, 0));
    put32(mvhd, 2);
    Bytes tkhd;
    put32(tkhd, 0);
    put32(tkhd, 0);
    put32(tkhd, 1);
    put32(tkhd, 0);
    put32(tkhd, 6000);
    append(tkhd, Bytes(16, 0));
    append(tkhd, matrixBytes());
    put32(tkhd, 320 << 16);
    put32(tkhd, 240 << 16);
    Bytes elst;
    put32(elst, 1);
    put32(elst, 6000);
    put32(elst, 0);
    put32(elst, 0x10000);
    Bytes mdhd;
    put32(mdhd, 0);
    put32(mdhd, 0);
    put32(mdhd, 90000);
    put32(mdhd, 900000);
    put16(mdhd, 0x55C4);
    put16(mdhd, 0);
    Bytes vmhd(8, 0);
    Bytes dref;
    put32(dref, 1);
    append(dref, fullBox("url ", 0, 1, {}));
    Bytes minf = fullBox("vmhd", 0, 1, vmhd);
    append(minf, box("dinf", fullBox("dref", 0, 0, dref)));
    Bytes stts;
    put32(stts, 1);
    put32(stts, 10);
    put32(stts, 9000);
    append(minf, box("stbl", fullBox("stts", 0, 0, stts)));
    Bytes mdia = fullBox("mdhd", 0, 0, mdhd);
    append(mdia, fullBox("hdlr", 0, 0, hdlrPayload("vide", "VideoHandler")));
    append(mdia, box("minf", minf));
    Bytes trak = fullBox("tkhd", 0, 3, tkhd);
    append(trak, box("edts", fullBox("elst", 0, 0, elst)));
    append(trak, box("mdia", mdia));
    Bytes moov = fullBox("mvhd", 0, 0, mvhd);
    append(moov, box("trak", trak));
    Bytes in = box("moov", moov);

    Box *a = readAll(in);
    ASSERT_NE(a, nullptr);
    Bytes out = writeToMemory(a);
    EXPECT_EQ(hex(out), hex(in));
    Box *b = readAll(out);
    ASSERT_NE(b, nullptr);
    auto diffs = compareTrees(a, b);
    EXPECT_TRUE(diffs.empty()) << diffs[0];
    Box *stbl =
        getChild(getChild(getChild(getChild(b, fourcc("trak")), fourcc("mdia")), fourcc("minf")),
                 fourcc("stbl"));
    ASSERT_NE(stbl, nullptr);
    EXPECT_EQ(static_cast<Stts *>(getChild(stbl, fourcc("stts")))->entries[0].sample_delta, 9000u);
    deleteBox(a);
    deleteBox(b);
}
