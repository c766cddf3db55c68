// Movie, track and media boxes: version choice, language packing, handler names, strings bounded
// by their fields, edit lists, padding and media data. The writer's own movie box is compared
// byte for byte in writer_test (MovieLayout); the fixtures' trees round trip in fixtures_test and
// read as the reviewed listings in dump_test (DumpGolden).
#include "box/layouts.h"
#include "tree_compare.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <type_traits>

using namespace boxtest;
using test_util::cat;

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

// Reads `in` whole and checks that the box writes back byte for byte.
Box *readBack(const Bytes &in, mp4_muxer **keep = nullptr) {
    Box *b = readAll(in, keep);
    if (b) {
        EXPECT_EQ(hex(writeToMemory(b)), hex(in)) << fcc(b->type);
    }
    return b;
}

Bytes hdlrPayload(const char (&type)[5], const char *name, bool zero = true) {
    Bytes p;
    put32(p, 0);
    putStr(p, type, false);
    append(p, Bytes(12, 0));
    putStr(p, name, zero);
    return p;
}

FILE *fileWith(const Bytes &in) {
    FILE *f = tmpfile();
    if (f) {
        fwrite(in.data(), 1, in.size(), f);
        rewind(f);
    }
    return f;
}

} // namespace

// ---- ftyp ------------------------------------------------------------------------------------

// Brands run to the end of the box: none, some, or more than the six the record holds (passed
// over; written back, the declared size leaves a gap of zeros after the six).
TEST(MovieFtyp, BrandsRunToTheEndOfTheBox) {
    const char brands[][5] = {"mp42", "mp41", "b003", "b004", "b005", "b006", "b007", "b008"};
    for (size_t n : {0, 2, 8}) {
        SCOPED_TRACE(n);
        Bytes p;
        putStr(p, "isom", false);
        put32(p, 0x200);
        for (size_t i = 0; i < n; i++)
            putStr(p, brands[i], false);
        MemReader r(cat({box("ftyp", p), box("free", {})}));
        Box *b = r.read();
        ASSERT_NE(b, nullptr);
        auto *f = static_cast<Ftyp *>(b);
        EXPECT_EQ(f->major_brand, fourcc("isom"));
        EXPECT_EQ(f->minor_version, 0x200u);
        for (size_t i = 0; i < 6; i++)
            EXPECT_EQ(f->compatible_brands[i], i < n ? fourcc(brands[i]) : 0u) << i;
        EXPECT_EQ(muxer_pos(r.m), 16 + 4 * n) << "the extra brands are passed over";
        Box *next = r.read();
        ASSERT_NE(next, nullptr);
        EXPECT_EQ(next->type, fourcc("free"));
        deleteBox(next);
        Bytes expect = box("ftyp", p);
        if (n > 6)
            std::fill(expect.begin() + 40, expect.end(), 0);
        EXPECT_EQ(hex(writeToMemory(b)), hex(expect));
        deleteBox(b);
    }
}

// ---- headers with versions -------------------------------------------------------------------

// mvhd, tkhd and mdhd: version 0 with 4-byte times when every time fits in 32 bits (whatever
// version was stored), version 1 with 8-byte times as soon as one does not; both read back.
template <class T> void expectTimesChooseTheVersion(const char (&type)[5], size_t v0, size_t v1) {
    SCOPED_TRACE(type);
    for (int big = -1; big < 3; big++) { // none past 32 bits, then creation, modification, duration
        SCOPED_TRACE(big);
        auto *b = static_cast<T *>(newBox(fourcc(type), v0));
        b->version = 1;
        uint64_t *times[] = {&b->creation_time, &b->modification_time, &b->duration};
        const uint64_t small[] = {0x11223344, 0x55667788, 0x0A0B0C0D};
        for (int i = 0; i < 3; i++)
            *times[i] = i == big ? 0x100000000ull : small[i];
        constexpr bool tkhd = std::is_same_v<T, Tkhd>;
        if constexpr (tkhd)
            b->track_ID = 1000;
        else
            b->timescale = 1000;
        Bytes out = writeToMemory(b);
        ASSERT_EQ(out.size(), big < 0 ? v0 : v1);
        EXPECT_EQ(b->version, big < 0 ? 0 : 1);
        EXPECT_EQ(out[8], b->version);
        // After version and flags: creation, modification, the timescale or track_ID (and
        // tkhd's 4 reserved bytes), duration.
        Bytes t;
        for (int i = 0; i < 3; i++) {
            if (i == 2)
                append(t, tkhd ? Bytes{0, 0, 3, 0xE8, 0, 0, 0, 0} : Bytes{0, 0, 3, 0xE8});
            if (big < 0)
                put32(t, uint32_t(*times[i]));
            else
                put64(t, *times[i]);
        }
        EXPECT_EQ(hex(Bytes(out.begin() + 12, out.begin() + 12 + long(t.size()))), hex(t));
        Box *back = readAll(out);
        ASSERT_NE(back, nullptr);
        EXPECT_EQ(back->size, out.size());
        EXPECT_TRUE(compareTrees(b, back, false).empty());
        deleteBox(back);
        deleteBox(b);
    }
}

TEST(MovieHeaders, TimesChooseTheVersion) {
    expectTimesChooseTheVersion<Mvhd>("mvhd", 108, 120);
    expectTimesChooseTheVersion<Tkhd>("tkhd", 92, 104);
    expectTimesChooseTheVersion<Mdhd>("mdhd", 32, 44);
}

TEST(MovieTkhd, LayoutAndCurrentTrack) {
    Bytes p;
    for (uint32_t v : {1u, 2u, 7u, 0u, 0xFFFFu}) // creation, modification, track_ID, -, duration
        put32(p, v);
    append(p, Bytes(8, 0));
    for (uint32_t v : {0xFFFFu, 2u, 0x100u, 0u}) // layer -1, alternate_group, volume, -
        put16(p, v);
    for (uint32_t v :
         {0x10000u, 0u, 0u, 0u, 0x10000u, 0u, 0u, 0u, 0x40000000u, 640u << 16, 480u << 16})
        put32(p, v);
    Bytes in = fullBox("tkhd", 0, 3, p);
    ASSERT_EQ(in.size(), 92u);
    mp4_muxer *m = nullptr;
    Box *b = readBack(in, &m);
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
    mp4_muxer *w = nullptr;
    writeToMemory(b, false, 1 << 16, &w);
    EXPECT_EQ(w->current_track_id, 7u) << "writing sets it too";
    mp4_delete(w);
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
    EXPECT_TRUE(compareTrees(b, back).empty());
    auto *m = static_cast<Mdhd *>(back);
    EXPECT_EQ(m->language[0], 4);
    EXPECT_EQ(m->language[1], 14);
    EXPECT_EQ(m->language[2], 21);
    deleteBox(back);
    memset(b->language, 0, 3);
    out = writeToMemory(b);
    EXPECT_EQ(hex(Bytes(out.begin() + 28, out.begin() + 30)), "00 00");
    deleteBox(b);
}

// ---- hdlr ------------------------------------------------------------------------------------

// The name runs to the box's end with or without its zero byte, or is empty or absent, and
// lives inside the node. Data-handler types (alis, url) leave the media handler that picks
// sample entries alone, on reading and on writing.
TEST(MovieHdlr, NameAndHandlerType) {
    Bytes bare = hdlrPayload("soun", "");
    bare.pop_back(); // no room for even the zero byte
    struct Case {
        Bytes payload;
        size_t size;
        const char *name;
        uint32_t handler; // the handle's after reading with "soun" set, 0 when left alone
    };
    const Case cases[] = {
        {hdlrPayload("vide", "VideoHandler"), 45, "VideoHandler", fourcc("vide")},
        {hdlrPayload("vide", "VideoHandler", false), 44, "VideoHandler", fourcc("vide")},
        {hdlrPayload("soun", ""), 33, "", fourcc("soun")},
        {bare, 32, "", fourcc("soun")},
        {hdlrPayload("alis", "Data"), 37, "Data", 0},
        {hdlrPayload("url ", "Data"), 37, "Data", 0},
    };
    for (const Case &c : cases) {
        Bytes in = fullBox("hdlr", 0, 0, c.payload);
        SCOPED_TRACE(hex(in));
        ASSERT_EQ(in.size(), c.size);
        MemReader r(in);
        r.m->handler_type = fourcc("soun");
        Box *b = r.read();
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(muxer_pos(r.m), in.size());
        auto *h = static_cast<Hdlr *>(b);
        ASSERT_NE(h->name, nullptr);
        EXPECT_STREQ(h->name, c.name);
        EXPECT_FALSE(h->node_flags & BOX_OWNS_ARRAYS) << "the name lives inside the node";
        EXPECT_EQ(r.m->handler_type, c.handler ? c.handler : fourcc("soun"));
        // Written back within the declared size, with the same effect on a fresh writer.
        mp4_muxer *w = nullptr;
        EXPECT_EQ(hex(writeToMemory(b, false, 1 << 16, &w)), hex(in));
        EXPECT_EQ(w->handler_type, c.handler);
        mp4_delete(w);
        deleteBox(b);
    }
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
    h->name = nullptr; // no name: written as an empty one
    h->size = 33;
    mp4_muxer *w = nullptr;
    EXPECT_EQ(hex(writeToMemory(h, false, 1 << 16, &w)),
              hex(fullBox("hdlr", 0, 0, hdlrPayload("soun", ""))));
    EXPECT_EQ(w->handler_type, fourcc("soun"));
    mp4_delete(w);
    deleteBox(h);
}

// A declared size far beyond the file's end: no box, nothing consumed, no error, and no
// allocation of that size (for the hdlr name, or for the remuxer's mdat payload).
TEST(MovieHostile, DeclaredSizeBeyondFileFailsWithoutHugeAllocation) {
    Bytes hdlr = fullBox("hdlr", 0, 0, hdlrPayload("vide", "X"));
    hdlr[0] = 0x7F; // declares ~2 GiB
    Bytes mdat = box("mdat", Bytes(16, 1));
    mdat[0] = 0x40; // declares 1 GiB
    for (const Bytes *in : {&hdlr, &mdat}) {
        SCOPED_TRACE(hex(*in));
        FILE *f = fileWith(*in);
        ASSERT_NE(f, nullptr);
        mp4_muxer *m = mp4_reader_create();
        if (in == &mdat)
            m->flags |= MP4_REMUXER;
        mp4_file_pointer(m, f);
        unsigned long before = mp4_alloc_count();
        mp4_alloc_fail_after(1); // the record only: a payload allocation would fail with error 2
        Box *b = rwBox(m, nullptr);
        mp4_alloc_fail_after(-1);
        EXPECT_EQ(b, nullptr);
        EXPECT_LE(mp4_alloc_count() - before, 1u);
        EXPECT_EQ(m->error, 0);
        EXPECT_TRUE(at_end_of_input(m));
        EXPECT_EQ(muxer_pos(m), 0u);
        mp4_delete(m);
        fclose(f);
    }
}

// ---- media headers and data references -------------------------------------------------------

TEST(MovieMediaHeaders, FieldsAndShortSmhd) {
    Bytes balance;
    put16(balance, 0xFF00);
    Bytes in14 = fullBox("smhd", 0, 0, balance); // some writers end the box after balance
    ASSERT_EQ(in14.size(), 14u);
    for (const Bytes &in : {in14, fullBox("smhd", 0, 0, cat({balance, Bytes(2, 0)}))}) {
        Box *b = readBack(in);
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(static_cast<Smhd *>(b)->balance, 0xFF00);
        deleteBox(b);
    }
    Bytes v, h;
    for (uint32_t x : {0x40u, 1u, 2u, 3u})
        put16(v, x);
    put16(h, 1500);
    put16(h, 1000);
    for (uint32_t x : {800000u, 400000u, 0u})
        put32(h, x);
    auto *vm = static_cast<Vmhd *>(readBack(fullBox("vmhd", 0, 1, v)));
    ASSERT_NE(vm, nullptr);
    EXPECT_EQ(vm->graphicsmode, 0x40);
    EXPECT_EQ(vm->opcolor[2], 3);
    auto *hm = static_cast<Hmhd *>(readBack(fullBox("hmhd", 0, 0, h)));
    ASSERT_NE(hm, nullptr);
    EXPECT_EQ(hm->maxPDUsize, 1500);
    EXPECT_EQ(hm->avgPDUsize, 1000);
    EXPECT_EQ(hm->maxbitrate, 800000u);
    EXPECT_EQ(hm->avgbitrate, 400000u);
    Box *nm = readBack(fullBox("nmhd", 0, 0, {}));
    EXPECT_NE(nm, nullptr);
    for (Box *b : {(Box *)vm, (Box *)hm, nm})
        deleteBox(b);
}

TEST(MovieDataReferences, DrefWithSelfContainedUrl) {
    Bytes p;
    put32(p, 1);
    append(p, fullBox("url ", 0, 1, {}));
    Box *b = readBack(fullBox("dref", 0, 0, p)); // the url written back as 12 bytes
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(static_cast<Dref *>(b)->entry_count, 1u);
    ASSERT_NE(b->first_child, nullptr);
    EXPECT_EQ(static_cast<Url *>(b->first_child)->flags, 1u);
    EXPECT_EQ(b->first_child->size, 12u);
    EXPECT_EQ(checkBoxSize(b), 16u + 13) << "prediction counts the zero byte";
    deleteBox(b);
}

// Each string runs to its zero byte or to the box's end, and is always terminated in memory.
TEST(MovieDataReferences, StringsEndAtTheirZeroOrTheBoxEnd) {
    auto strings = [](std::initializer_list<const char *> ss, bool zero = true) {
        Bytes p;
        for (const char *s : ss)
            putStr(p, s, zero);
        return p;
    };
    struct Case {
        Bytes in;
        const char *name; // urn only
        const char *location;
    };
    const Case cases[] = {
        {fullBox("url ", 0, 1, {}), nullptr, ""},
        {fullBox("alis", 0, 0, strings({"http://example/x"})), nullptr, "http://example/x"},
        {fullBox("urn ", 0, 0, strings({"urn:x", "here"})), "urn:x", "here"},
        {fullBox("urn ", 0, 0, strings({"only-name"})), "only-name", ""},
        {fullBox("urn ", 0, 0, strings({"abc"}, false)), "abc", ""}, // unterminated
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(hex(c.in));
        Box *b = readBack(c.in);
        ASSERT_NE(b, nullptr);
        if (c.name) {
            EXPECT_STREQ(static_cast<Urn *>(b)->name, c.name);
        }
        EXPECT_STREQ(c.name ? static_cast<Urn *>(b)->location : static_cast<Url *>(b)->location,
                     c.location);
        deleteBox(b);
    }
}

TEST(MovieDataReferences, LocationBeyondCapacity) {
    // 300 characters: 255 kept and terminated, the rest passed over up to the box's end.
    Bytes lp;
    putStr(lp, std::string(300, 'a').c_str());
    MemReader r(cat({fullBox("url ", 0, 0, lp), box("free", {})}));
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(std::string(static_cast<Url *>(b)->location), std::string(255, 'a'));
    EXPECT_EQ(muxer_pos(r.m), 8u + 4 + 301);
    deleteBox(b);
    b = r.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->type, fourcc("free"));
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
    for (uint32_t v : {2u, 3000u, 0xFFFFFFFFu, 0x10000u, 90000u, 1024u, 0x10000u})
        put32(p, v); // an empty edit of 3000, then 90000 from 1024; rates 1.0
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
    put32(p, 0x10000);
    Box *b = readBack(fullBox("elst", 1, 0, p)); // read as version 1, written as version 1
    ASSERT_NE(b, nullptr);
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
    append(in, box("free", Bytes(4, 0)));
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

// Padding content is skipped on reading and written as zeros without data; an mdat without data
// is only its header (the sample writer streams the payload itself).
TEST(MovieFreeMdat, PaddingAndMediaDataWritten) {
    Box *read = readAll(box("free", Bytes{1, 2, 3, 4}));
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(static_cast<DataBox *>(read)->data, nullptr);
    uint8_t skip[4] = {9, 8, 7, 6}, mdat[3] = {0xA, 0xB, 0xC};
    struct Case {
        Box *b;
        uint8_t *data;
        const char *hex;
    };
    const Case cases[] = {
        {read, nullptr, "00 00 00 0C 66 72 65 65 00 00 00 00"},
        {newBox(fourcc("skip"), 12), skip, "00 00 00 0C 73 6B 69 70 09 08 07 06"},
        {newBox(fourcc("mdat"), 8), nullptr, "00 00 00 08 6D 64 61 74"},
        {newBox(fourcc("mdat"), 11), mdat, "00 00 00 0B 6D 64 61 74 0A 0B 0C"},
    };
    for (const Case &c : cases) {
        auto *d = static_cast<DataBox *>(c.b);
        if (c.data) {
            d->data = c.data;
            d->node_flags = BOX_HEAP; // fixed size, data not owned
        }
        EXPECT_EQ(hex(writeToMemory(d)), c.hex);
        deleteBox(d);
    }
}

// The plain reader passes the payload over; the remuxer keeps it behind the record. Neither
// parses it as boxes, though it looks like one.
TEST(MovieFreeMdat, PayloadSkippedOrLoadedByTheRemuxer) {
    const Bytes payload{0, 0, 0, 8, 'f', 'r', 'e', 'e', 1, 2};
    const Bytes in = box("mdat", payload);
    for (bool remux : {false, true}) {
        SCOPED_TRACE(remux);
        MemReader r(cat({in, box("free", {})}));
        if (remux)
            r.m->flags |= MP4_REMUXER;
        Box *b = r.read();
        ASSERT_NE(b, nullptr);
        auto *d = static_cast<DataBox *>(b);
        EXPECT_EQ(b->data_pos, 8u);
        EXPECT_EQ(muxer_pos(r.m), in.size());
        EXPECT_EQ(b->first_child, nullptr) << "the payload is not parsed as boxes";
        if (remux) {
            ASSERT_NE(d->data, nullptr);
            EXPECT_EQ(d->data, reinterpret_cast<uint8_t *>(d) + sizeof(DataBox));
            EXPECT_EQ(Bytes(d->data, d->data + payload.size()), payload);
            EXPECT_EQ(hex(writeToMemory(b)), hex(in)) << "written back with its data";
        } else {
            EXPECT_EQ(d->data, nullptr);
        }
        deleteBox(b);
    }
}
