// Field primitives: byte-exact encodings in both directions.
#include "box/box.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <string>
#include <unistd.h>
#include <vector>

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

using Bytes = std::vector<uint8_t>;

// Runs `code` on a writer whose stream is a memory buffer and returns the bytes it wrote.
Bytes written(const std::function<void(mp4_muxer *)> &code) {
    mp4_muxer *m = mp4_writer_create();
    uint8_t buf[64] = {};
    mp4_buf_put(m, buf, sizeof buf);
    code(m);
    EXPECT_EQ(m->error, 0);
    uint32_t n = mp4_buf_get(m);
    mp4_delete(m);
    return Bytes(buf, buf + n);
}

// A reader over a copy of `input`; the caller deletes it (after mp4_buf_get).
struct Reader {
    Bytes data;
    mp4_muxer *m;
    explicit Reader(Bytes input) : data(std::move(input)), m(mp4_reader_create()) {
        mp4_buf_put(m, data.data(), uint32_t(data.size()));
    }
    ~Reader() {
        mp4_buf_get(m);
        mp4_delete(m);
    }
};

} // namespace

TEST(Fields, Rw8AndRw16) {
    uint8_t b = 0xA5;
    EXPECT_EQ(written([&](mp4_muxer *m) { rw8(m, &b); }), Bytes({0xA5}));
    uint16_t v = 0x1234;
    EXPECT_EQ(written([&](mp4_muxer *m) { rw16(m, &v); }), Bytes({0x12, 0x34}));
    EXPECT_EQ(v, 0x1234); // the field itself is not swapped by a write

    Reader r({0x12, 0x34, 0x5A});
    uint16_t got = 0;
    rw16(r.m, &got);
    EXPECT_EQ(got, 0x1234);
    uint8_t got8 = 0;
    rw8(r.m, &got8);
    EXPECT_EQ(got8, 0x5A);
    EXPECT_EQ(r.m->pos, 3u);
}

TEST(Fields, Rw24UsesTheLowThreeBytesAndSetsTheWholeField) {
    uint32_t v = 0x00ABCDEF;
    EXPECT_EQ(written([&](mp4_muxer *m) { rw24(m, &v); }), Bytes({0xAB, 0xCD, 0xEF}));
    uint32_t high = 0xFF123456;
    EXPECT_EQ(written([&](mp4_muxer *m) { rw24(m, &high); }), Bytes({0x12, 0x34, 0x56}));

    Reader r({0xAB, 0xCD, 0xEF});
    uint32_t got = 0xFFFFFFFF;
    rw24(r.m, &got);
    EXPECT_EQ(got, 0x00ABCDEFu);
}

TEST(Fields, Rw32AndRw64) {
    uint32_t v32 = 0x11223344;
    EXPECT_EQ(written([&](mp4_muxer *m) { rw32(m, &v32); }), Bytes({0x11, 0x22, 0x33, 0x44}));
    uint64_t v64 = 0x0102030405060708ull;
    EXPECT_EQ(written([&](mp4_muxer *m) { rw64(m, &v64); }),
              Bytes({0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08}));

    Reader r({0x11, 0x22, 0x33, 0x44, 0xF1, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6, 0xF7, 0xF8});
    uint32_t g32 = 0;
    uint64_t g64 = 0;
    rw32(r.m, &g32);
    rw64(r.m, &g64);
    EXPECT_EQ(g32, 0x11223344u);
    EXPECT_EQ(g64, 0xF1F2F3F4F5F6F7F8ull);
}

TEST(Fields, Rw32As64WritesLowHalfAndReadsZeroExtended) {
    uint64_t v = 0x100000005ull;
    EXPECT_EQ(written([&](mp4_muxer *m) { rw32as64(m, &v); }), Bytes({0x00, 0x00, 0x00, 0x05}));
    EXPECT_EQ(v, 0x100000005ull);

    Reader r({0xFF, 0xFF, 0xFF, 0xFE});
    uint64_t got = 0xAAAAAAAAAAAAAAAAull;
    rw32as64(r.m, &got);
    EXPECT_EQ(got, 0xFFFFFFFEull);
}

TEST(Fields, RwFullBoxIsVersionThenTwentyFourBitFlags) {
    FullBox box{};
    box.version = 1;
    box.flags = 0x000102;
    EXPECT_EQ(written([&](mp4_muxer *m) { rwFullBox(m, &box); }), Bytes({0x01, 0x00, 0x01, 0x02}));

    Reader r({0x00, 0x0F, 0x00, 0x01});
    FullBox got{};
    got.version = 9;
    got.flags = 0xFFFFFFFF;
    rwFullBox(r.m, &got);
    EXPECT_EQ(got.version, 0);
    EXPECT_EQ(got.flags, 0x0F0001u);
}

TEST(Fields, ExpandableSizeUsesTheShortestForm) {
    struct Case {
        uint32_t value;
        Bytes encoding;
    } cases[] = {
        {0, {0x00}},
        {127, {0x7F}},
        {128, {0x81, 0x00}},
        {16383, {0xFF, 0x7F}},
        {16384, {0x81, 0x80, 0x00}},
        {2097151, {0xFF, 0xFF, 0x7F}},
        {2097152, {0x81, 0x80, 0x80, 0x00}},
        {268435455, {0xFF, 0xFF, 0xFF, 0x7F}},
        {0x10000000, {0x81, 0x80, 0x80, 0x80, 0x00}},
        {0xFFFFFFFF, {0x8F, 0xFF, 0xFF, 0xFF, 0x7F}},
    };
    for (const Case &c : cases) {
        uint32_t v = c.value;
        EXPECT_EQ(written([&](mp4_muxer *m) { rwExpandableSize(m, &v); }), c.encoding) << c.value;
        Reader r(c.encoding);
        uint32_t got = 12345;
        rwExpandableSize(r.m, &got);
        EXPECT_EQ(got, c.value);
        EXPECT_EQ(r.m->pos, c.encoding.size());
        EXPECT_FALSE(at_end_of_input(r.m));
    }
}

TEST(Fields, ExpandableSizeReadAcceptsPaddedAndLongForms) {
    {
        Reader r({0x80, 0x80, 0x80, 0x80, 0x05});
        uint32_t got = 0;
        rwExpandableSize(r.m, &got);
        EXPECT_EQ(got, 5u);
    }
    {
        // No limit on the byte count; bits shifted past 32 are lost.
        Reader r({0x81, 0x80, 0x80, 0x80, 0x80, 0x03, 0xEE});
        uint32_t got = 0;
        rwExpandableSize(r.m, &got);
        EXPECT_EQ(got, 3u);
        EXPECT_EQ(r.m->pos, 6u);
    }
}

TEST(Fields, ExpandableSizeOnExhaustedInputEndsWithTheValueGathered) {
    {
        Reader r({0x81, 0x82}); // both bytes say "more follows"
        uint32_t got = 0;
        rwExpandableSize(r.m, &got);
        EXPECT_EQ(got, (1u << 7) | 2u);
        EXPECT_TRUE(at_end_of_input(r.m));
        EXPECT_EQ(r.m->pos, 2u);
    }
    {
        // A flag left over from an earlier short read does not cut a good value short.
        Reader r({0x81, 0x05});
        uint8_t big[8];
        read_n(r.m, big, sizeof big);
        ASSERT_TRUE(at_end_of_input(r.m));
        uint32_t got = 0;
        rwExpandableSize(r.m, &got);
        EXPECT_EQ(got, 133u);
        EXPECT_EQ(r.m->pos, 2u);
    }
    {
        // On a file the position moves even past the end; the loop must still stop.
        char name[] = "/tmp/mp4kit_fields_XXXXXX";
        int fd = mkstemp(name);
        ASSERT_GE(fd, 0);
        unlink(name);
        uint8_t b = 0xFF;
        ASSERT_EQ(write(fd, &b, 1), 1);
        lseek(fd, 0, SEEK_SET);
        mp4_muxer *m = mp4_reader_create();
        mp4_file_descriptor(m, fd);
        uint32_t got = 0;
        rwExpandableSize(m, &got);
        EXPECT_EQ(got, 0x7Fu);
        EXPECT_TRUE(at_end_of_input(m));
        mp4_delete(m);
        close(fd);
    }
}

TEST(Fields, PreDefinedAndReserved) {
    EXPECT_EQ(written([](mp4_muxer *m) { pre_defined(m, 16, 0xFFFFFFFF); }), Bytes({0xFF, 0xFF}));
    EXPECT_EQ(written([](mp4_muxer *m) { pre_defined(m, 8, 0x1AB); }), Bytes({0xAB}));
    EXPECT_EQ(written([](mp4_muxer *m) { pre_defined(m, 24, 0x11223344); }),
              Bytes({0x22, 0x33, 0x44}));
    EXPECT_EQ(written([](mp4_muxer *m) { pre_defined(m, 32, 0xCAFEBABE); }),
              Bytes({0xCA, 0xFE, 0xBA, 0xBE}));
    EXPECT_EQ(written([](mp4_muxer *m) { reserved(m, 32); }), Bytes({0, 0, 0, 0}));
    EXPECT_EQ(written([](mp4_muxer *m) { reserved(m, 8); }), Bytes({0}));

    CaptureStderr();
    Bytes none = written([](mp4_muxer *m) { pre_defined(m, 12, 0); });
    EXPECT_EQ(GetCapturedStderr(), "unhandled pre_defined size 12\n");
    EXPECT_TRUE(none.empty());

    // Reading skips the field's bytes.
    Reader r({1, 2, 3, 4, 5, 6, 7});
    pre_defined(r.m, 16, 0);
    EXPECT_EQ(r.m->pos, 2u);
    reserved(r.m, 24);
    EXPECT_EQ(r.m->pos, 5u);
    CaptureStderr();
    reserved(r.m, 64);
    EXPECT_EQ(GetCapturedStderr(), "unhandled pre_defined size 64\n");
    EXPECT_EQ(r.m->pos, 5u);
    uint8_t next = 0;
    rw8(r.m, &next);
    EXPECT_EQ(next, 6);
}

TEST(Fields, Req64Boundary) {
    EXPECT_EQ(req64(0), 0);
    EXPECT_EQ(req64(0xFFFFFFFFull), 0);
    EXPECT_EQ(req64(0x100000000ull), 1);
    EXPECT_EQ(req64(~0ull), 1);
}
