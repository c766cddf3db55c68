// Handle lifecycle and the three stream back-ends behind one logical position.
#include "box/box.h"
#include "io.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

using test_util::TempDir;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

namespace {

struct HandleDeleter {
    void operator()(mp4_muxer *m) const { mp4_delete(m); }
};
using Handle = std::unique_ptr<mp4_muxer, HandleDeleter>;

// A file `name` in `dir` holding `content`; its path.
std::string makeFile(const TempDir &dir, const char *name, const std::string &content = "") {
    test_util::writeFile(dir.file(name), std::vector<uint8_t>(content.begin(), content.end()));
    return dir.file(name);
}

std::string contents(const std::string &path) {
    std::vector<uint8_t> b = test_util::readFile(path);
    return std::string(b.begin(), b.end());
}

bool fd_is_open(int fd) {
    return fcntl(fd, F_GETFD) != -1 || errno != EBADF;
}

std::string bytes(const uint8_t *p, size_t n) {
    return std::string(reinterpret_cast<const char *>(p), n);
}

// read_tmp's block as a string, "?" for none.
std::string readTmp(mp4_muxer *m, uint64_t at, uint32_t n) {
    uint32_t got = 0;
    uint8_t *block = read_tmp(m, at, n, &got);
    std::string s = block ? bytes(block, got) : "?";
    mp4_free(block);
    return s;
}

} // namespace

// ---- creation ------------------------------------------------------------------------------

TEST(HandleCreate, EveryFieldZeroExceptDescriptorTrackIdAndDirectionOrNullSilently) {
    mp4_muxer expected;
    memset(&expected, 0, sizeof expected);
    expected.fd = -1;
    expected.next_track_id = 1;
    const struct {
        mp4_muxer *(*create)();
        uint8_t flags;
    } kinds[] = {{mp4_writer_create, 0}, {mp4_reader_create, MP4_READER}, {mov_writer_create, MP4_MOV}};
    for (const auto &k : kinds) {
        SCOPED_TRACE(int(k.flags));
        Handle m(k.create());
        ASSERT_TRUE(m);
        EXPECT_EQ(m->flags, k.flags);
        m->flags = 0;
        EXPECT_EQ(memcmp(m.get(), &expected, sizeof expected), 0);

        mp4_alloc_fail_after(0);
        CaptureStdout();
        CaptureStderr();
        mp4_muxer *none = k.create();
        std::string out = GetCapturedStdout(), err = GetCapturedStderr();
        mp4_alloc_fail_after(-1);
        EXPECT_EQ(none, nullptr);
        EXPECT_EQ(out, "");
        EXPECT_EQ(err, "");
    }
}

// ---- attach calls, debug switch ------------------------------------------------------------

TEST(HandleAttach, LinkedHandleReceivesStreamsAndDebugBitZero) {
    Handle a(mp4_writer_create());
    mp4_muxer *b = mp4_reader_create();
    a->linked = b; // owned by a from here on

    mp4_file_descriptor(a.get(), 9);
    mp4_file_pointer(a.get(), stdout);
    mp4_file2_pointer(a.get(), stderr);
    EXPECT_EQ(b->fd, 9);
    EXPECT_EQ(b->fp, stdout);
    EXPECT_EQ(b->fp2, stderr);
    EXPECT_EQ(b->own_file, 0u);
    EXPECT_EQ(a->fd, -1);
    EXPECT_EQ(a->fp, nullptr);
    EXPECT_EQ(a->fp2, nullptr);
    const struct {
        int on;
        uint8_t flags;
    } debug[] = {{1, MP4_READER | MP4_DEBUG}, {0, MP4_READER}, {3, MP4_READER | MP4_DEBUG},
                 {2, MP4_READER}, {-1, MP4_READER | MP4_DEBUG}};
    for (const auto &d : debug) {
        mp4_debug(a.get(), d.on);
        EXPECT_EQ(b->flags, d.flags) << d.on;
        EXPECT_FALSE(a->flags & MP4_DEBUG);
    }
    // The process's own streams: keep them out of the deletion path entirely.
    b->fd = -1;
    b->fp = b->fp2 = nullptr;
}

TEST(HandleAttach, NullHandleIsIgnored) {
    mp4_debug(nullptr, 1);
    mp4_file_descriptor(nullptr, 3);
    mp4_file_pointer(nullptr, stdout);
    mp4_file2_pointer(nullptr, stdout);
    mp4_file_name_ascii(nullptr, "/tmp");
    mp4_delete(nullptr);
    SUCCEED();
}

// ---- opening a file by name ----------------------------------------------------------------

TEST(HandleFileName, WriterOpensTruncatingReadWriteAndDeletionFlushesAndClosesIt) {
    TempDir dir;
    std::string f = makeFile(dir, "out", "old contents");
    mp4_muxer *m = mp4_writer_create();
    mp4_file_name_ascii(m, f.c_str());
    ASSERT_NE(m->fp, nullptr);
    EXPECT_EQ(m->own_file, 1u);
    EXPECT_EQ(contents(f), ""); // "w+b" truncates
    write_n(m, "abc", 3);
    // "+": the stream can be read back, which the 64-bit size patch relies on.
    muxer_seek(m, 0);
    char c = 0;
    EXPECT_EQ(fread(&c, 1, 1, m->fp), 1u);
    EXPECT_EQ(c, 'a');
    muxer_seek(m, 3);
    write_n(m, "def", 3); // left in the stream's buffer: only the close writes it out
    EXPECT_EQ(contents(f), "abc");
    int fd = fileno(m->fp);
    mp4_delete(m);
    EXPECT_FALSE(fd_is_open(fd));
    EXPECT_EQ(contents(f), "abcdef");
}

TEST(HandleFileName, ReaderOpensReadOnlyASecondOpenReplacesTheFirstAndDeletionClosesIt) {
    TempDir dir;
    std::string f = makeFile(dir, "2", "two");
    mp4_muxer *m = mp4_reader_create();
    mp4_file_name_ascii(m, makeFile(dir, "1", "one").c_str());
    ASSERT_NE(m->fp, nullptr);
    int first = fileno(m->fp);
    mp4_file_name_ascii(m, f.c_str());
    ASSERT_NE(m->fp, nullptr);
    EXPECT_EQ(m->own_file, 1u);
    EXPECT_EQ(m->error, 0);
    EXPECT_EQ(contents(f), "two");     // "rb" does not truncate
    EXPECT_EQ(fputc('x', m->fp), EOF); // and does not write
    char buf[3] = {};
    EXPECT_EQ(fread(buf, 1, 3, m->fp), 3u);
    EXPECT_EQ(std::string(buf, 3), "two");
    // The first stream belongs to the library too, so it must not be left open (nor leak).
    if (fileno(m->fp) != first) {
        EXPECT_FALSE(fd_is_open(first));
    }
    int fd = fileno(m->fp);
    mp4_delete(m);
    EXPECT_FALSE(fd_is_open(fd));
}

TEST(HandleFileName, RemuxerOpensForItsLinkedHandle) {
    // Defragmenting shape: the returned reader's linked writer is the output, truncated.
    // Refragmenting shape: the returned writer's linked reader is the input, kept.
    for (bool defrag : {true, false}) {
        SCOPED_TRACE(defrag ? "defragmenting" : "refragmenting");
        TempDir dir;
        std::string f = makeFile(dir, "f", defrag ? "to be replaced" : "input");
        mp4_muxer *a = defrag ? mp4_reader_create() : mp4_writer_create();
        a->linked = defrag ? mp4_writer_create() : mp4_reader_create();
        mp4_file_name_ascii(a, f.c_str());
        EXPECT_EQ(a->fp, nullptr);
        EXPECT_EQ(a->own_file, 0u);
        ASSERT_NE(a->linked->fp, nullptr);
        EXPECT_EQ(a->linked->own_file, 1u);
        EXPECT_EQ(contents(f), defrag ? "" : "input");
        int fd = fileno(a->linked->fp);
        mp4_delete(a);
        EXPECT_FALSE(fd_is_open(fd));
    }
}

TEST(HandleFileName, OpenFailureSetsTenOnTheGivenHandleAndKeepsStreams) {
    TempDir dir;
    FILE *mine = fopen(makeFile(dir, "k", "k").c_str(), "rb");
    ASSERT_NE(mine, nullptr);

    Handle m(mp4_reader_create());
    mp4_file_pointer(m.get(), mine);
    mp4_file_name_ascii(m.get(), "/nonexistent-mp4kit-dir/file.mp4");
    EXPECT_EQ(m->error, MP4_ERR_OPEN);
    EXPECT_EQ(m->fp, mine);
    EXPECT_EQ(m->own_file, 0u);

    Handle a(mp4_writer_create());
    a->linked = mp4_reader_create();
    mp4_file_name_ascii(a.get(), "/nonexistent-mp4kit-dir/file.mp4");
    EXPECT_EQ(a->error, MP4_ERR_OPEN);
    EXPECT_EQ(a->linked->error, 0);
    EXPECT_EQ(a->linked->fp, nullptr);
    // A stream attached by the caller survives deletion.
    int fd = fileno(mine);
    m.reset();
    EXPECT_TRUE(fd_is_open(fd));
    fclose(mine);
}

// ---- compressor name -----------------------------------------------------------------------

TEST(CompressorName, DefaultIsTalvorinAndSettingHasStrncpySemantics) {
    char saved[32] = "Talvorin 4417"; // zero-padded
    EXPECT_EQ(memcmp(compressor_name, saved, 32), 0);

    mp4_compressor_name("0123456789012345678901234567890123456789"); // 40 bytes
    EXPECT_EQ(memcmp(compressor_name, "01234567890123456789012345678901", 32), 0);

    mp4_compressor_name("cam"); // shorter: the rest is zero-padded
    char expect[32] = {'c', 'a', 'm'};
    EXPECT_EQ(memcmp(compressor_name, expect, 32), 0);

    mp4_compressor_name(nullptr);
    EXPECT_EQ(memcmp(compressor_name, expect, 32), 0);

    memcpy(compressor_name, saved, sizeof saved);
}

// ---- deletion ------------------------------------------------------------------------------

TEST(HandleDelete, WarnsOnlyWhenAQueuedBufferHoldsData) {
    const struct {
        int32_t written;
        bool taken_back;
        const char *warning;
    } cases[] = {{4, false, "mp4_delete: warning: buffer is still queued with data in it\n"},
                 {0, false, ""}, // attached, nothing written
                 {4, true, ""}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.warning);
        uint8_t buf[16];
        mp4_muxer *m = mp4_writer_create();
        mp4_buf_put(m, buf, sizeof buf);
        write_n(m, "data", c.written);
        if (c.taken_back) {
            EXPECT_EQ(mp4_buf_get(m), 4u);
        }
        CaptureStderr();
        mp4_delete(m);
        EXPECT_EQ(GetCapturedStderr(), c.warning);
    }
}

// A double free fails under the address sanitizer; a block left behind fails the live count.
TEST(HandleDelete, SharedTreeFreedOnceAndSeparateTreesAndOwnedBuffersAllFreed) {
    long live = mp4_alloc_live();
    mp4_muxer *a = mp4_reader_create();
    mp4_muxer *b = mp4_writer_create();
    a->linked = b;
    Box *moov = newBox(fourcc("moov"), 8);
    addBox(newBox(fourcc("trak"), 8), moov);
    a->moov = b->moov = moov;
    mp4_delete(a);
    EXPECT_EQ(mp4_alloc_live(), live);

    a = mp4_writer_create();
    b = mp4_reader_create();
    a->linked = b;
    a->moov = newBox(fourcc("moov"), 8);
    b->moov = newBox(fourcc("moov"), 8);
    a->mdat = newBox(fourcc("mdat"), 8);
    static_cast<DataBox *>(a->mdat)->data = static_cast<uint8_t *>(mp4_malloc(32));
    a->next_track_id = 3; // two track records
    a->tracks = static_cast<mp4_track *>(mp4_calloc(2, sizeof(mp4_track)));
    a->tracks[0].samples = static_cast<mp4_sample *>(mp4_calloc(4, sizeof(mp4_sample)));
    a->tracks[1].samples = static_cast<mp4_sample *>(mp4_calloc(4, sizeof(mp4_sample)));
    a->interleave_buffer = static_cast<uint8_t *>(mp4_malloc(64));
    b->overflow_buffer = static_cast<uint8_t *>(mp4_malloc(1024));
    b->overflow_size = 1024;
    mp4_delete(a);
    EXPECT_EQ(mp4_alloc_live(), live);
}

TEST(HandleDelete, NeverClosesCallerDescriptorOrStreams) {
    TempDir dir;
    std::string f1 = makeFile(dir, "1"), f2 = makeFile(dir, "2");
    int fd = open(f1.c_str(), O_RDWR);
    FILE *s1 = fopen(f1.c_str(), "rb");
    FILE *s2 = fopen(f2.c_str(), "rb");
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(s1 && s2);
    for (bool named_first : {false, true}) {
        SCOPED_TRACE(named_first ? "stream attached over a file opened by name" : "plain");
        mp4_muxer *m = mp4_reader_create();
        if (named_first) // the library's own stream, replaced by the caller's
            mp4_file_name_ascii(m, f2.c_str());
        mp4_file_descriptor(m, fd);
        mp4_file_pointer(m, s1);
        mp4_file2_pointer(m, s2);
        int fd1 = fileno(s1), fd2 = fileno(s2);
        mp4_delete(m);
        EXPECT_TRUE(fd_is_open(fd));
        EXPECT_TRUE(fd_is_open(fd1));
        EXPECT_TRUE(fd_is_open(fd2));
    }
    close(fd);
    EXPECT_EQ(fclose(s1), 0);
    EXPECT_EQ(fclose(s2), 0);
}

// ---- memory back-end: writer ---------------------------------------------------------------

TEST(MemoryWriter, NoBackEndMovesPositionOnly) {
    Handle m(mp4_writer_create());
    uint8_t data[100] = {};
    write_n(m.get(), data, 100);
    EXPECT_EQ(m->pos, 100u);
    EXPECT_EQ(m->max_pos, 0u);
    write_n(m.get(), nullptr, 28);
    EXPECT_EQ(m->pos, 128u);
    EXPECT_EQ(m->max_pos, 0u);
    muxer_seek(m.get(), 50); // at or above max_pos: silent
    EXPECT_EQ(m->pos, 50u);
    EXPECT_EQ(m->error, 0);
}

TEST(MemoryWriter, SeeksZeroExtendRevisitAndRefuseOutsideBothAreas) {
    Handle m(mp4_writer_create());
    uint8_t buf[32];
    memset(buf, 0xEE, sizeof buf);
    mp4_buf_put(m.get(), buf, sizeof buf);
    write_n(m.get(), "ABCD", 4);

    CaptureStdout();
    muxer_seek(m.get(), 10); // beyond max_pos: the gap is written as zeros
    EXPECT_EQ(m->pos, 10u);
    EXPECT_EQ(m->max_pos, 10u);
    EXPECT_EQ(bytes(buf, 11), std::string("ABCD\0\0\0\0\0\0\xEE", 11));

    muxer_seek(m.get(), 2); // back into the buffer: silent
    write_n(m.get(), "xy", 2);
    EXPECT_EQ(bytes(buf, 4), "ABxy");
    EXPECT_EQ(m->max_pos, 10u);
    muxer_seek(m.get(), 0);  // the buffer's first byte
    muxer_seek(m.get(), 32); // one past its last: beyond max_pos, zero-fills up to it exactly
    EXPECT_EQ(buf[31], 0);
    muxer_seek(m.get(), 28);
    write_n(m.get(), "wxyz", 4); // data that fills the buffer exactly
    write_n(m.get(), "", 0);     // and nothing at its very end: no overflow either
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(m->error, 0);
    EXPECT_EQ(bytes(buf + 28, 4), "wxyz");
    EXPECT_EQ(m->max_pos, 32u);
    EXPECT_EQ(m->overflow_buffer, nullptr);

    // The next buffer starts at 32; a seek back before it lands in no area.
    EXPECT_EQ(mp4_buf_get(m.get()), 32u);
    uint8_t buf2[16];
    mp4_buf_put(m.get(), buf2, sizeof buf2);
    CaptureStdout();
    muxer_seek(m.get(), 4);
    EXPECT_EQ(GetCapturedStdout(), "muxer_seek: dangerous seek 4 outside of any buffer!\n");
    EXPECT_EQ(m->error, MP4_ERR_SEEK);
    EXPECT_EQ(m->pos, 4u);
}
TEST(MemoryWriter, NegativeLengthIsABadSeek) {
    Handle m(mp4_writer_create());
    uint8_t buf[8] = {};
    mp4_buf_put(m.get(), buf, sizeof buf);
    CaptureStdout();
    write_n(m.get(), "abcdefgh", -5);
    EXPECT_EQ(GetCapturedStdout(), "write_n: n=-5 (bad seek?)\n");
    EXPECT_EQ(m->error, MP4_ERR_SEEK);
    EXPECT_EQ(m->pos, 0u);
    EXPECT_EQ(buf[0], 0);
}

// The overflow path stalls for a second by design, so its cases share one test.
TEST(MemoryWriter, OverflowKeepsTheTailInTheOverflowArea) {
    Handle m(mp4_writer_create());
    uint8_t buf[16];
    memset(buf, 0xEE, sizeof buf);
    uint8_t data[20];
    for (int i = 0; i < 20; i++)
        data[i] = uint8_t(i);
    mp4_buf_put(m.get(), buf, sizeof buf);

    CaptureStdout();
    write_n(m.get(), data, 20);
    EXPECT_EQ(GetCapturedStdout(), "warning: buffer overflowed pos=0 space=16 n=20\n");
    EXPECT_EQ(m->error, MP4_ERR_OVERFLOW);
    EXPECT_EQ(memcmp(buf, data, 16), 0);
    ASSERT_NE(m->overflow_buffer, nullptr);
    EXPECT_EQ(m->overflow_start, 16u);
    EXPECT_EQ(m->overflow_size, 1024u);
    EXPECT_EQ(memcmp(m->overflow_buffer, data + 16, 4), 0);
    EXPECT_EQ(m->pos, 20u);
    EXPECT_EQ(m->max_pos, 20u);

    // A seek back into the overflow area (below max_pos, outside the buffer) is silent.
    m->error = 0;
    CaptureStdout();
    muxer_seek(m.get(), 18);
    muxer_seek(m.get(), 20);
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(m->error, 0);

    // The count handed back never exceeds the buffer.
    EXPECT_EQ(mp4_buf_get(m.get()), 16u);
    EXPECT_EQ(m->buffer, nullptr);
    EXPECT_EQ(m->buffer_size, 0u);

    // Attaching a buffer to a writer with an overflow area raises max_pos to the position.
    write_n(m.get(), nullptr, 5); // no buffer: pos moves, max_pos does not
    EXPECT_EQ(m->pos, 25u);
    EXPECT_EQ(m->max_pos, 20u);
    uint8_t buf2[16];
    memset(buf2, 0xEE, sizeof buf2);
    mp4_buf_put(m.get(), buf2, sizeof buf2);
    EXPECT_EQ(m->max_pos, 25u);
    EXPECT_EQ(m->buffer_start, 25u);

    // A stray seek before both areas, then a write: the bytes are lost, never stored before
    // the caller's buffer nor before the overflow area.
    CaptureStdout();
    muxer_seek(m.get(), 5);
    write_n(m.get(), "xyz", 3);
    EXPECT_EQ(GetCapturedStdout(), "muxer_seek: dangerous seek 5 outside of any buffer!\n"
                                   "warning: buffer overflowed pos=-20 space=36 n=3\n");
    EXPECT_EQ(m->error, MP4_ERR_OVERFLOW);
    EXPECT_EQ(m->pos, 8u);
    EXPECT_EQ(m->overflow_start, 16u);
    EXPECT_EQ(m->overflow_size, 1024u);
    EXPECT_EQ(memcmp(m->overflow_buffer, data + 16, 4), 0);
    for (uint8_t b : buf2)
        EXPECT_EQ(b, 0xEE);
    m->pos = 25; // nothing queued in buf2, so deletion stays quiet
}

TEST(MemoryWriterDeathTest, OverflowAreaThatCannotGrowAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            mp4_muxer *m = mp4_writer_create();
            uint8_t buf[4];
            mp4_buf_put(m, buf, sizeof buf);
            mp4_alloc_fail_after(0);
            write_n(m, "0123456789", 10);
        },
        "m->overflow_buffer != NULL");
}

TEST(MemoryWriter, BufGetHandsBackTheCountAndAppliesTheAdjustment) {
    Handle w(mp4_writer_create());
    uint8_t buf[32];
    mp4_buf_put(w.get(), buf, sizeof buf);
    write_n(w.get(), "abc", 3);
    EXPECT_EQ(mp4_buf_get(w.get()), 3u);
    mp4_buf_put(w.get(), buf, sizeof buf);
    write_n(w.get(), "0123456789", 10);
    w->buffer_adjust = -8;
    EXPECT_EQ(mp4_buf_get(w.get()), 10u);
    EXPECT_EQ(w->pos, 5u);
    EXPECT_EQ(w->buffer_adjust, 0);
}

TEST(MemoryBuffers, SecondPutWarnsAndReplaces) {
    Handle m(mp4_reader_create());
    uint8_t a[4] = {1, 2, 3, 4}, b[4] = {5, 6, 7, 8};
    mp4_buf_put(m.get(), a, 4);
    CaptureStderr();
    mp4_buf_put(m.get(), b, 4);
    EXPECT_EQ(GetCapturedStderr(), "mp4_buf_put: warning: buffer already exists\n");
    uint8_t x = 0;
    read_n(m.get(), &x, 1);
    EXPECT_EQ(x, 5);
}


// ---- memory back-end: reader ---------------------------------------------------------------

TEST(MemoryReader, ReadsAndTemporaryReadsInsideTheBufferStopAtItsEnd) {
    Handle m(mp4_reader_create());
    uint8_t buf[10] = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'};
    mp4_buf_put(m.get(), buf, sizeof buf);
    uint8_t dst[8];
    read_n(m.get(), dst, 2);
    EXPECT_EQ(readTmp(m.get(), 5, 3), "567"); // elsewhere, and the position is restored
    EXPECT_EQ(m->pos, 2u);
    mp4_alloc_fail_after(0);
    EXPECT_EQ(readTmp(m.get(), 5, 3), "?");
    mp4_alloc_fail_after(-1);
    EXPECT_EQ(m->error, MP4_ERR_NOMEM);
    EXPECT_EQ(m->pos, 2u);
    read_n(m.get(), dst, 4);
    EXPECT_EQ(bytes(dst, 4), "2345");
    EXPECT_EQ(m->pos, 6u);
    EXPECT_FALSE(at_end_of_input(m.get()));

    memset(dst, 0xAA, sizeof dst);
    read_n(m.get(), dst, 6); // crosses the end
    EXPECT_TRUE(at_end_of_input(m.get()));
    EXPECT_EQ(m->pos, 6u);
    for (uint8_t b : dst)
        EXPECT_EQ(b, 0xAA);

    read_n(m.get(), dst, 4); // exactly to the end: copied, but the flag stays
    EXPECT_EQ(bytes(dst, 4), "6789");
    EXPECT_EQ(m->pos, 10u);
    EXPECT_TRUE(at_end_of_input(m.get()));
    EXPECT_EQ(mp4_buf_get(m.get()), 10u);

    uint8_t more[2] = {'a', 'b'};
    mp4_buf_put(m.get(), more, 2); // a new piece clears the flag
    EXPECT_FALSE(at_end_of_input(m.get()));
    read_n(m.get(), dst, 1);
    EXPECT_EQ(dst[0], 'a');
    EXPECT_EQ(mp4_buf_get(m.get()), 1u);
}

TEST(MemoryReader, WithoutBufferSkipsThenOutsideTheBufferIsBeyondEndAndDangerous) {
    Handle m(mp4_reader_create());
    uint8_t dst[4] = {9, 9, 9, 9};
    read_n(m.get(), dst, 100); // nothing attached: pos moves, nothing copied
    EXPECT_EQ(m->pos, 100u);
    EXPECT_EQ(dst[0], 9);
    EXPECT_FALSE(at_end_of_input(m.get()));

    uint8_t buf[10] = {};
    mp4_buf_put(m.get(), buf, sizeof buf);
    EXPECT_EQ(m->buffer_start, 100u);
    m->pos = 99;
    read_n(m.get(), dst, 1); // below the buffer: beyond its end
    EXPECT_TRUE(at_end_of_input(m.get()));
    EXPECT_EQ(m->pos, 99u);
    EXPECT_EQ(dst[0], 9);
    m->pos = 100;

    // A seek one past the end is accepted; one more is dangerous, as is one below.
    CaptureStdout();
    muxer_seek(m.get(), 110);
    muxer_seek(m.get(), 100);
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(m->error, 0);

    CaptureStdout();
    muxer_seek(m.get(), 111);
    EXPECT_EQ(GetCapturedStdout(), "muxer_seek: dangerous seek outside of buffer\n"
                                   "muxer_seek: seek pos 111 buffer: 100..109\n");
    EXPECT_EQ(m->error, MP4_ERR_SEEK);
    EXPECT_EQ(m->pos, 111u);
    read_n(m.get(), dst, 1);
    EXPECT_TRUE(at_end_of_input(m.get()));

    m->error = 0;
    CaptureStdout();
    muxer_seek(m.get(), 99);
    EXPECT_EQ(GetCapturedStdout(), "muxer_seek: dangerous seek outside of buffer\n"
                                   "muxer_seek: seek pos 99 buffer: 100..109\n");
    EXPECT_EQ(m->error, MP4_ERR_SEEK);
    m->pos = 100;
}

TEST(ReadTmp, BytesReadAheadFromAFileFollowItsChangesAndTheNextInput) {
    // Reads from a file go through a window read ahead; it must not outlive its input.
    TempDir dir;
    std::string a = makeFile(dir, "a", "AAAAAAAAAAAAAAAA");
    for (const char *how : {"name", "descriptor", "stream"}) {
        SCOPED_TRACE(how);
        std::string b = makeFile(dir, "b", "bbbbbbbbbbbbbbbbbbbb");
        Handle r(mp4_reader_create());
        auto read = [&](uint64_t at, uint32_t n) { return readTmp(r.get(), at, n); };
        FILE *fp_a = fopen(a.c_str(), "rb"), *fp_b = fopen(b.c_str(), "rb");
        auto attach = [&](const std::string &path, FILE *fp) {
            if (how[0] == 'n')
                mp4_file_name_ascii(r.get(), path.c_str());
            else if (how[0] == 'd')
                mp4_file_descriptor(r.get(), fileno(fp));
            else
                mp4_file_pointer(r.get(), fp);
        };
        attach(a, fp_a);
        EXPECT_EQ(read(2, 4), "AAAA");
        EXPECT_EQ(read(14, 4), "AA"); // what the file holds
        attach(b, fp_b);
        EXPECT_EQ(read(14, 2), "bb"); // where the window over the first file stood
        EXPECT_EQ(read(2, 4), "bbbb");
        EXPECT_EQ(read(14, 4), "bbbb");
        EXPECT_EQ(read(18, 4), "bb");
        // A file that grew since the window was read.
        FILE *grow = fopen(b.c_str(), "ab");
        fputs("CCCC", grow);
        fclose(grow);
        EXPECT_EQ(read(18, 4), "bbCC");
        EXPECT_EQ(r->error, 0);
        r.reset();
        fclose(fp_a);
        fclose(fp_b);
    }
}

TEST(ReadTmp, AnInputAttachedAfterAFileIsReadAsOnAFreshHandle) {
    // Whether to read ahead is decided per input: a pipe attached after a file cannot be read at
    // an offset, and must then get the ordinary path's result, not an empty block.
    TempDir dir;
    std::string a = makeFile(dir, "a", "AAAAAAAAAAAAAAAA");
    for (bool stream : {false, true}) {
        SCOPED_TRACE(stream ? "stream" : "descriptor");
        auto readPipe = [&](mp4_muxer *m) {
            int p[2];
            EXPECT_EQ(pipe(p), 0);
            EXPECT_EQ(write(p[1], "PPPPPPPPPPPPPPPP", 16), 16);
            close(p[1]);
            FILE *fp = stream ? fdopen(p[0], "rb") : nullptr;
            if (stream)
                mp4_file_pointer(m, fp);
            else
                mp4_file_descriptor(m, p[0]);
            std::string seen = readTmp(m, 0, 8) + " error " + std::to_string(m->error);
            stream ? fclose(fp) : close(p[0]);
            return seen;
        };
        Handle fresh(mp4_reader_create());
        std::string expected = readPipe(fresh.get());

        Handle r(mp4_reader_create());
        mp4_file_name_ascii(r.get(), a.c_str());
        EXPECT_EQ(readTmp(r.get(), 0, 4), "AAAA");
        EXPECT_EQ(readPipe(r.get()), expected);
    }
}

// ---- file back-ends: descriptor, stdio stream with and without a mirror --------------------

TEST(FileBackEnds, WritesReadsAndSeeksReachTheFileAndMoveTheMirrorAlong) {
    for (int kind = 0; kind < 3; kind++) {
        SCOPED_TRACE(kind == 0 ? "descriptor" : kind == 1 ? "stream" : "stream and mirror");
        TempDir dir;
        std::string f1 = makeFile(dir, "1"), f2 = makeFile(dir, "2");
        int fd = open(f1.c_str(), O_RDWR);
        FILE *a = fopen(f1.c_str(), "r+b"), *b = fopen(f2.c_str(), "r+b");
        ASSERT_TRUE(fd >= 0 && a && b);
        auto attach = [&](mp4_muxer *m) {
            kind == 0 ? mp4_file_descriptor(m, fd) : mp4_file_pointer(m, a);
            if (kind == 2)
                mp4_file2_pointer(m, b);
        };
        {
            Handle w(mp4_writer_create());
            attach(w.get());
            write_n(w.get(), "hello", 5);
            write_n(w.get(), nullptr, 3);
            EXPECT_EQ(w->pos, 8u);
            muxer_seek(w.get(), 1);
            write_n(w.get(), "E", 1);
            EXPECT_EQ(w->pos, 2u);
            EXPECT_EQ(muxer_pos(w.get()), 2u);
            EXPECT_EQ(w->error, 0);
            EXPECT_EQ(w->max_pos, 0u); // only the memory back-end tracks it
            EXPECT_TRUE(flush_output(w.get()));
        }
        EXPECT_EQ(contents(f1), std::string("hEllo\0\0\0", 8));
        EXPECT_EQ(contents(f2), kind == 2 ? std::string("hEllo\0\0\0", 8) : "");

        lseek(fd, 0, SEEK_SET);
        rewind(a);
        rewind(b);
        Handle r(mp4_reader_create());
        attach(r.get());
        const int mirror = kind == 2; // the mirror's offset follows, times this
        char dst[8] = {};
        read_n(r.get(), dst, 5);
        EXPECT_EQ(std::string(dst, 5), "hEllo");
        EXPECT_FALSE(at_end_of_input(r.get()));
        EXPECT_EQ(ftello64(b), 5 * mirror);
        read_n(r.get(), dst, 5); // only 3 left
        EXPECT_TRUE(at_end_of_input(r.get()));
        EXPECT_EQ(r->pos, 10u); // the position counts the request
        EXPECT_EQ(ftello64(b), 10 * mirror);
        muxer_seek(r.get(), 1);
        EXPECT_EQ(ftello64(b), 1 * mirror);
        read_n(r.get(), dst, 2); // a full read clears the flag
        EXPECT_EQ(std::string(dst, 2), "El");
        EXPECT_FALSE(at_end_of_input(r.get()));
        EXPECT_EQ(readTmp(r.get(), 4, 1), "o");
        EXPECT_EQ(r->pos, 3u);
        read_n(r.get(), dst, 1); // the input is back where it was
        EXPECT_EQ(dst[0], 'l');
        r.reset();
        close(fd);
        fclose(a);
        fclose(b);
    }
}

TEST(FileBackEnds, FailedWriteIsErrorEightAndThePositionFollowsTheFile) {
    for (bool stream : {false, true}) {
        SCOPED_TRACE(stream ? "stream" : "descriptor");
        int fd = open("/dev/full", O_WRONLY);
        FILE *f = stream ? fdopen(fd, "wb") : nullptr;
        if (fd < 0)
            GTEST_SKIP() << "/dev/full is not available";
        Handle w(mp4_writer_create());
        stream ? mp4_file_pointer(w.get(), f) : mp4_file_descriptor(w.get(), fd);
        w->pos = stream ? 0 : 50;
        std::vector<uint8_t> big(stream ? 1 << 16 : 4, 0x55); // larger than the stream's buffer
        CaptureStdout();
        CaptureStderr();
        write_n(w.get(), big.data(), int32_t(big.size()));
        std::string out = GetCapturedStdout(), err = GetCapturedStderr();
        EXPECT_EQ(err.rfind(stream ? "fwrite: " : "write: ", 0), 0u) << err;
        EXPECT_EQ(stream ? out.substr(0, 23) : out, stream ? "write_n: n=65536 pos=0 " : "") << out;
        EXPECT_EQ(w->error, MP4_ERR_WRITE);
        if (stream) { // from now on the stream's own offset is the position
            w->pos = 777;
            EXPECT_EQ(muxer_pos(w.get()), uint64_t(ftello64(f)));
        } else {
            EXPECT_EQ(w->pos, uint64_t(lseek(fd, 0, SEEK_CUR)));
        }
        w->fp = nullptr;
        stream ? fclose(f) : close(fd);
    }
}

TEST(FileBackEnds, FailedSeeksAreErrorOneOnEitherStream) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    FILE *pipe_in = fdopen(p[0], "rb");
    TempDir dir;
    FILE *file = fopen(makeFile(dir, "f").c_str(), "w+b");
    ASSERT_TRUE(pipe_in && file);
    for (bool mirror : {false, true}) {
        SCOPED_TRACE(mirror ? "mirror is a pipe" : "stream is a pipe");
        Handle w(mp4_writer_create());
        mp4_file_pointer(w.get(), mirror ? file : pipe_in);
        if (mirror)
            mp4_file2_pointer(w.get(), pipe_in);
        CaptureStdout();
        CaptureStderr();
        muxer_seek(w.get(), mirror ? 6 : 5);
        std::string out = GetCapturedStdout(), err = GetCapturedStderr();
        EXPECT_EQ(out, mirror ? "off=6\n" : "off=5\n");
        EXPECT_EQ(err.rfind(mirror ? "fseeko 2: " : "fseeko: ", 0), 0u) << err;
        EXPECT_EQ(w->error, MP4_ERR_SEEK);
        EXPECT_EQ(w->pos, mirror ? 6u : 5u);
        if (mirror) {
            EXPECT_EQ(ftello64(file), 6);
        }
        w->fp = w->fp2 = nullptr;
    }
    fclose(pipe_in);
    fclose(file);
    close(p[1]);
}
