// Sample table boxes: entry layouts byte for byte, array ownership, the handle's sample count,
// packed sizes, short input inside the entries, and counts larger than the input.
#include "box/layouts.h"
#include "tree_compare.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <unistd.h>

using namespace boxtest;

namespace {

Box *readOne(const Bytes &in, mp4_muxer **keep = nullptr) {
    MemReader r(in);
    Box *b = r.read();
    EXPECT_EQ(muxer_pos(r.m), b ? in.size() : 0u);
    if (keep) {
        mp4_buf_get(r.m);
        *keep = r.m;
        r.m = mp4_reader_create();
    }
    return b;
}

Bytes words(std::initializer_list<uint32_t> v) {
    Bytes b;
    for (uint32_t x : v)
        put32(b, x);
    return b;
}

} // namespace

TEST(TablesLayout, SttsEntriesByteExact) {
    Bytes in = fullBox("stts", 0, 0, words({2, 10, 3000, 1, 1500}));
    Box *b = readOne(in);
    ASSERT_NE(b, nullptr);
    auto *t = static_cast<Stts *>(b);
    ASSERT_EQ(t->entry_count, 2u);
    EXPECT_TRUE(t->node_flags & BOX_OWNS_ARRAYS);
    EXPECT_EQ(t->entries[0].sample_count, 10u);
    EXPECT_EQ(t->entries[0].sample_delta, 3000u);
    EXPECT_EQ(t->entries[1].sample_count, 1u);
    EXPECT_EQ(t->entries[1].sample_delta, 1500u);
    EXPECT_EQ(hex(writeToMemory(b)), hex(in));
    EXPECT_EQ(checkBoxSize(b), in.size());
    deleteBox(b);
}

TEST(TablesLayout, EmptySttsHasNoArray) {
    Bytes in = fullBox("stts", 0, 0, words({0}));
    Box *b = readOne(in);
    ASSERT_NE(b, nullptr);
    auto *t = static_cast<Stts *>(b);
    EXPECT_EQ(t->entries, nullptr);
    EXPECT_FALSE(t->node_flags & BOX_OWNS_ARRAYS);
    Bytes out = writeToMemory(b);
    EXPECT_EQ(out.size(), 16u);
    EXPECT_EQ(hex(out), hex(in));
    deleteBox(b);
}

TEST(TablesLayout, CttsSignedOffsetsKeepTheirBits) {
    Bytes in = fullBox("ctts", 1, 0, words({2, 1, 0xFFFFFFFE, 3, 2}));
    Box *b = readOne(in);
    ASSERT_NE(b, nullptr);
    auto *c = static_cast<Ctts *>(b);
    EXPECT_EQ(c->version, 1);
    EXPECT_EQ(int32_t(c->entries[0].sample_offset), -2);
    EXPECT_EQ(c->entries[1].sample_count, 3u);
    EXPECT_EQ(hex(writeToMemory(b)), hex(in));
    deleteBox(b);
}

TEST(TablesLayout, StssStscStcoRoundTrip) {
    Bytes stss = fullBox("stss", 0, 0, words({3, 1, 31, 61}));
    Bytes stsc = fullBox("stsc", 0, 0, words({2, 1, 5, 1, 4, 2, 1}));
    Bytes stco = fullBox("stco", 0, 0, words({2, 0x30, 0xFFFFFFF0}));
    Box *a = readOne(stss);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(static_cast<Stss *>(a)->entries[2], 61u);
    EXPECT_EQ(hex(writeToMemory(a)), hex(stss));
    EXPECT_EQ(checkBoxSize(a), stss.size());
    Box *b = readOne(stsc);
    ASSERT_NE(b, nullptr);
    auto *sc = static_cast<Stsc *>(b);
    EXPECT_EQ(sc->entries[1].first_chunk, 4u);
    EXPECT_EQ(sc->entries[1].samples_per_chunk, 2u);
    EXPECT_EQ(sc->entries[1].sample_description_index, 1u);
    EXPECT_EQ(hex(writeToMemory(b)), hex(stsc));
    EXPECT_EQ(checkBoxSize(b), stsc.size());
    Box *c = readOne(stco);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(static_cast<Stco *>(c)->entries[1], 0xFFFFFFF0u);
    EXPECT_EQ(hex(writeToMemory(c)), hex(stco));
    EXPECT_EQ(checkBoxSize(c), stco.size());
    deleteBox(a);
    deleteBox(b);
    deleteBox(c);
}

TEST(TablesLayout, Co64EntryOfFourGiB) {
    auto *c = static_cast<Co64 *>(newBox(fourcc("co64"), 24));
    c->entry_count = 1;
    c->entries = static_cast<uint64_t *>(mp4_calloc(1, sizeof(uint64_t)));
    c->entries[0] = 0x100000000ull;
    Bytes out = writeToMemory(c);
    EXPECT_EQ(hex(out), "00 00 00 18 63 6F 36 34 00 00 00 00 00 00 00 01 00 00 00 01 00 00 00 00");
    Box *back = readOne(out);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(static_cast<Co64 *>(back)->entries[0], 0x100000000ull);
    deleteBox(back);
    deleteBox(c); // the writer-built array is freed with the node (ASan would report a leak)
}

TEST(TablesLayout, WriterEmitsExactlyTheStoredCount) {
    auto *s = static_cast<Stss *>(newBox(fourcc("stss"), 16));
    s->entries = static_cast<uint32_t *>(mp4_calloc(8, sizeof(uint32_t)));
    for (uint32_t i = 0; i < 8; i++)
        s->entries[i] = i + 1;
    s->entry_count = 3; // the array has room for more
    EXPECT_EQ(
        hex(writeToMemory(s)),
        "00 00 00 1C 73 74 73 73 00 00 00 00 00 00 00 03 00 00 00 01 00 00 00 02 00 00 00 03");
    deleteBox(s);
}

// ---- stsz / stz2 -----------------------------------------------------------------------------

TEST(TablesSizes, ConstantSizeHasNoEntries) {
    Bytes in = fullBox("stsz", 0, 0, words({1024, 500}));
    ASSERT_EQ(in.size(), 20u);
    mp4_muxer *m = nullptr;
    Box *b = readOne(in, &m);
    ASSERT_NE(b, nullptr);
    auto *z = static_cast<Stsz *>(b);
    EXPECT_EQ(z->entries, nullptr);
    EXPECT_FALSE(z->node_flags & BOX_OWNS_ARRAYS);
    EXPECT_EQ(m->sample_count, 500u);
    mp4_delete(m);
    EXPECT_EQ(hex(writeToMemory(b)), hex(in));
    EXPECT_EQ(checkBoxSize(b), 20u + 4 * 500) << "predicted as if sizes were listed";
    deleteBox(b);
}

TEST(TablesSizes, ListedSizes) {
    Bytes in = fullBox("stsz", 0, 0, words({0, 3, 100, 200, 300}));
    ASSERT_EQ(in.size(), 32u);
    Box *b = readOne(in);
    ASSERT_NE(b, nullptr);
    auto *z = static_cast<Stsz *>(b);
    ASSERT_NE(z->entries, nullptr);
    EXPECT_EQ(z->entries[2], 300u);
    EXPECT_EQ(hex(writeToMemory(b)), hex(in));
    EXPECT_EQ(checkBoxSize(b), 32u);
    // Writing sets the handle's sample count as well.
    mp4_muxer *w = nullptr;
    writeToMemory(b, false, 1 << 12, &w);
    EXPECT_EQ(w->sample_count, 3u);
    mp4_delete(w);
    deleteBox(b);
}

TEST(TablesSizes, CompactSizesKeptPacked) {
    Bytes p4;
    put24(p4, 0);
    put8(p4, 4);
    put32(p4, 5);
    Bytes packed4{0x12, 0x34, 0x50};
    append(p4, packed4);
    Bytes in4 = fullBox("stz2", 0, 0, p4);
    ASSERT_EQ(in4.size(), 23u);
    Box *b = readOne(in4);
    ASSERT_NE(b, nullptr);
    auto *z = static_cast<Stz2 *>(b);
    EXPECT_EQ(z->field_size, 4);
    EXPECT_EQ(z->sample_count, 5u);
    EXPECT_EQ(Bytes(z->entries, z->entries + 3), packed4);
    EXPECT_EQ(hex(writeToMemory(b)), hex(in4));
    deleteBox(b);

    Bytes p16;
    put24(p16, 0);
    put8(p16, 16);
    put32(p16, 5);
    for (uint32_t i = 0; i < 5; i++)
        put16(p16, 1000 + i);
    Bytes in16 = fullBox("stz2", 0, 0, p16);
    b = readOne(in16);
    ASSERT_NE(b, nullptr);
    z = static_cast<Stz2 *>(b);
    EXPECT_EQ(z->entries[8], 0x03);
    EXPECT_EQ(z->entries[9], 0xEC);
    EXPECT_EQ(hex(writeToMemory(b)), hex(in16));
    deleteBox(b);

    // A zero field size or count allocates nothing.
    Bytes p0;
    put24(p0, 0);
    put8(p0, 0);
    put32(p0, 5);
    b = readOne(fullBox("stz2", 0, 0, p0));
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(static_cast<Stz2 *>(b)->entries, nullptr);
    deleteBox(b);
}

TEST(TablesSizes, CompactSizeBitCountIsA32BitProduct) {
    // 0x20000000 samples of 8 bits: 2^32 bits wrap to 0, so no bytes are expected.
    Bytes p;
    put24(p, 0);
    put8(p, 8);
    put32(p, 0x20000000);
    Bytes in = fullBox("stz2", 0, 0, p);
    Box *b = readOne(in);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(static_cast<Stz2 *>(b)->entries, nullptr);
    deleteBox(b);
}

// ---- failures --------------------------------------------------------------------------------

TEST(TablesFailures, InputEndingInsideEntriesDiscardsTheBox) {
    Bytes in = fullBox("stsc", 0, 0, words({2, 1, 5, 1, 4, 2, 1}));
    FILE *f = tmpfile();
    fwrite(in.data(), 1, in.size() - 6, f); // the last entry is cut
    rewind(f);
    mp4_muxer *m = mp4_reader_create();
    mp4_file_pointer(m, f);
    EXPECT_EQ(rwBox(m, nullptr), nullptr);
    EXPECT_EQ(muxer_pos(m), 0u);
    EXPECT_TRUE(at_end_of_input(m));
    EXPECT_EQ(m->error, 0);
    mp4_delete(m);
    fclose(f);
}

TEST(TablesFailures, PipeEndingInsideEntriesDiscardsTheBox) {
    // A pipe's size cannot be learned, so the block is allocated from the count; the entries
    // then run out, and the box is dropped with end_of_input set.
    Bytes in = fullBox("stts", 0, 0, words({0x00100000, 1, 2, 3, 4}));
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(write(fds[1], in.data(), in.size()), ssize_t(in.size()));
    close(fds[1]);
    mp4_muxer *m = mp4_reader_create();
    mp4_file_descriptor(m, fds[0]);
    EXPECT_EQ(rwBox(m, nullptr), nullptr);
    EXPECT_TRUE(at_end_of_input(m));
    EXPECT_EQ(m->error, 0);
    EXPECT_EQ(muxer_pos(m), 0u);
    mp4_delete(m);
    close(fds[0]);
}

TEST(TablesFailures, CountBeyondBoxReadsFollowingBytes) {
    // Declares 3 chunk offsets, holds 1; the next box supplies the other two.
    Bytes in = fullBox("stco", 0, 0, words({3, 0x1000}));
    const size_t stco_size = in.size();
    append(in, box("free", {}));
    MemReader r(in);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    auto *c = static_cast<Stco *>(b);
    EXPECT_EQ(c->entry_count, 3u);
    EXPECT_EQ(c->entries[1], 8u);
    EXPECT_EQ(c->entries[2], fourcc("free"));
    EXPECT_EQ(muxer_pos(r.m), stco_size) << "back at the box's end";
    deleteBox(b);
    Box *next = r.read();
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(next->type, fourcc("free"));
    deleteBox(next);
}

TEST(TablesFailures, EntryAllocationFailureIsErrorTwo) {
    Bytes in = fullBox("stts", 0, 0, words({1, 10, 3000}));
    MemReader r(in);
    mp4_alloc_fail_after(1); // the record succeeds, the entry block fails
    testing::internal::CaptureStderr();
    Box *b = r.read();
    std::string err = testing::internal::GetCapturedStderr();
    mp4_alloc_fail_after(-1);
    EXPECT_EQ(b, nullptr);
    EXPECT_EQ(err, "rwBox: failed to allocate memory for box stts\n");
    EXPECT_EQ(r.m->error, MP4_ERR_NOMEM);
    EXPECT_EQ(muxer_pos(r.m), in.size()) << "position past the box";
}

TEST(TablesFailures, AbsurdCountsNeverAllocateBeyondTheInput) {
    struct Case {
        const char *type;
        Bytes payload;
        int version;
    };
    const Case cases[] = {
        {"stts", words({0xFFFFFFFF, 1, 2}), 0},    {"ctts", words({0x80000000, 1, 2}), 0},
        {"stss", words({0xFFFFFFFF, 1}), 0},       {"stsz", words({0, 0xFFFFFFFF, 1}), 0},
        {"stsc", words({0x40000000, 1, 2, 3}), 0}, {"stco", words({0xFFFFFFFF, 1}), 0},
        {"co64", words({0xFFFFFFFF, 1, 2}), 0},    {"elst", words({0xFFFFFFFF, 1, 2, 3}), 0},
        {"elst", words({0x10000000, 1, 2, 3}), 1},
    };
    for (const Case &c : cases) {
        Bytes in;
        Bytes full;
        put8(full, uint8_t(c.version));
        put24(full, 0);
        append(full, c.payload);
        put32(in, uint32_t(8 + full.size()));
        in.insert(in.end(), c.type, c.type + 4);
        append(in, full);
        append(in, Bytes(24, 0));
        MemReader r(in);
        unsigned long before = mp4_alloc_count();
        Box *b = r.read();
        EXPECT_EQ(b, nullptr) << c.type;
        EXPECT_LE(mp4_alloc_count() - before, 1u) << c.type << ": only the record";
        EXPECT_TRUE(at_end_of_input(r.m)) << c.type;
        EXPECT_EQ(r.m->error, 0) << c.type;
        EXPECT_EQ(muxer_pos(r.m), 0u) << c.type;
    }
    // stz2: the packed byte count is bounded the same way.
    Bytes p;
    put24(p, 0);
    put8(p, 16);
    put32(p, 0x7FFFFFFF);
    Bytes in = fullBox("stz2", 0, 0, p);
    append(in, Bytes(40, 0));
    MemReader r(in);
    EXPECT_EQ(r.read(), nullptr);
    EXPECT_TRUE(at_end_of_input(r.m));
}

TEST(TablesFailures, BufferEndingAtEveryBytePosition) {
    Bytes in = fullBox("stsc", 0, 0, words({2, 1, 5, 1, 4, 2, 1}));
    append(in, fullBox("stsz", 0, 0, words({0, 2, 7, 9})));
    in = box("stbl", in);
    for (uint32_t cut = 0; cut < in.size(); cut++) {
        MemReader r(in, cut);
        EXPECT_EQ(r.read(), nullptr) << cut;
        EXPECT_EQ(muxer_pos(r.m), 0u) << cut;
        mp4_buf_get(r.m);
        mp4_buf_put(r.m, r.bytes.data(), uint32_t(r.bytes.size()));
        Box *b = r.read();
        ASSERT_NE(b, nullptr) << cut;
        Box *stsz = getChild(b, fourcc("stsz"));
        ASSERT_NE(stsz, nullptr);
        EXPECT_EQ(static_cast<Stsz *>(stsz)->entries[1], 9u);
        EXPECT_EQ(r.m->sample_count, 2u);
        deleteBox(b);
    }
}
