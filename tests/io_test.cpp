// Handle lifecycle and the three stream back-ends behind one logical position.
#include "box/box.h"
#include "io.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

namespace {

struct HandleDeleter {
    void operator()(mp4_muxer *m) const { mp4_delete(m); }
};
using Handle = std::unique_ptr<mp4_muxer, HandleDeleter>;

// A file in /tmp, removed when the test ends.
struct TempFile {
    std::string path;
    explicit TempFile(const std::string &content = "") {
        char name[] = "/tmp/mp4kit_io_XXXXXX";
        int fd = mkstemp(name);
        EXPECT_GE(fd, 0);
        path = name;
        if (!content.empty()) {
            EXPECT_EQ(write(fd, content.data(), content.size()), ssize_t(content.size()));
        }
        close(fd);
    }
    ~TempFile() { unlink(path.c_str()); }
    std::string contents() const {
        std::string s;
        FILE *f = fopen(path.c_str(), "rb");
        if (!f)
            return s;
        char buf[256];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, f)) > 0)
            s.append(buf, n);
        fclose(f);
        return s;
    }
};

bool fd_is_open(int fd) {
    return fcntl(fd, F_GETFD) != -1 || errno != EBADF;
}

std::string bytes(const uint8_t *p, size_t n) {
    return std::string(reinterpret_cast<const char *>(p), n);
}

} // namespace

// ---- creation ------------------------------------------------------------------------------

TEST(HandleCreate, EveryFieldZeroExceptDescriptorTrackIdAndDirection) {
    mp4_muxer expected;
    memset(&expected, 0, sizeof expected);
    expected.fd = -1;
    expected.next_track_id = 1;

    Handle w(mp4_writer_create());
    ASSERT_TRUE(w);
    EXPECT_EQ(memcmp(w.get(), &expected, sizeof expected), 0);

    Handle r(mp4_reader_create());
    ASSERT_TRUE(r);
    EXPECT_EQ(r->flags, MP4_READER);
    r->flags = 0;
    EXPECT_EQ(memcmp(r.get(), &expected, sizeof expected), 0);

    Handle q(mov_writer_create());
    ASSERT_TRUE(q);
    EXPECT_EQ(q->flags, MP4_MOV);
    q->flags = 0;
    EXPECT_EQ(memcmp(q.get(), &expected, sizeof expected), 0);
}

TEST(HandleCreate, AllocationFailureGivesNullSilently) {
    mp4_alloc_fail_after(0);
    CaptureStdout();
    CaptureStderr();
    mp4_muxer *w = mp4_writer_create();
    mp4_muxer *q = mov_writer_create();
    mp4_muxer *r = mp4_reader_create();
    std::string out = GetCapturedStdout(), err = GetCapturedStderr();
    mp4_alloc_fail_after(-1);
    EXPECT_EQ(w, nullptr);
    EXPECT_EQ(q, nullptr);
    EXPECT_EQ(r, nullptr);
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "");
}

// ---- attach calls, debug switch ------------------------------------------------------------

TEST(HandleAttach, PlainHandleReceivesItsOwnStreams) {
    Handle m(mp4_writer_create());
    mp4_file_descriptor(m.get(), 7);
    mp4_file_pointer(m.get(), stdout);
    mp4_file2_pointer(m.get(), stderr);
    EXPECT_EQ(m->fd, 7);
    EXPECT_EQ(m->fp, stdout);
    EXPECT_EQ(m->fp2, stderr);
    EXPECT_EQ(m->own_file, 0u);
    // Detach again: the library must never close what the caller attached, but these are the
    // process's own streams, so keep them out of the deletion path entirely.
    m->fd = -1;
    m->fp = m->fp2 = nullptr;
}

TEST(HandleAttach, LinkedHandleReceivesStreamsAndDebug) {
    Handle a(mp4_writer_create());
    mp4_muxer *b = mp4_reader_create();
    a->linked = b; // owned by a from here on

    mp4_file_descriptor(a.get(), 9);
    mp4_file_pointer(a.get(), stdout);
    mp4_file2_pointer(a.get(), stderr);
    mp4_debug(a.get(), 1);
    EXPECT_EQ(b->fd, 9);
    EXPECT_EQ(b->fp, stdout);
    EXPECT_EQ(b->fp2, stderr);
    EXPECT_TRUE(b->flags & MP4_DEBUG);
    EXPECT_EQ(a->fd, -1);
    EXPECT_EQ(a->fp, nullptr);
    EXPECT_EQ(a->fp2, nullptr);
    EXPECT_FALSE(a->flags & MP4_DEBUG);

    mp4_debug(a.get(), 0);
    EXPECT_FALSE(b->flags & MP4_DEBUG);
    b->fd = -1;
    b->fp = b->fp2 = nullptr;
}

TEST(HandleAttach, DebugTakesOnlyBitZero) {
    Handle m(mp4_reader_create());
    mp4_debug(m.get(), 3);
    EXPECT_EQ(m->flags, MP4_READER | MP4_DEBUG);
    mp4_debug(m.get(), 2);
    EXPECT_EQ(m->flags, MP4_READER);
    mp4_debug(m.get(), -1);
    EXPECT_EQ(m->flags, MP4_READER | MP4_DEBUG);
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

TEST(HandleFileName, ReaderOpensReadOnlyAndDeletionClosesIt) {
    TempFile f("hello");
    mp4_muxer *m = mp4_reader_create();
    mp4_file_name_ascii(m, f.path.c_str());
    ASSERT_NE(m->fp, nullptr);
    EXPECT_EQ(m->own_file, 1u);
    EXPECT_EQ(m->error, 0);
    EXPECT_EQ(f.contents(), "hello");  // "rb" does not truncate
    EXPECT_EQ(fputc('x', m->fp), EOF); // and does not write
    char buf[5] = {};
    EXPECT_EQ(fread(buf, 1, 5, m->fp), 5u);
    EXPECT_EQ(std::string(buf, 5), "hello");
    int fd = fileno(m->fp);
    mp4_delete(m);
    EXPECT_FALSE(fd_is_open(fd));
}

TEST(HandleFileName, WriterOpensTruncatingReadWriteAndDeletionFlushesAndClosesIt) {
    TempFile f("old contents");
    mp4_muxer *m = mp4_writer_create();
    mp4_file_name_ascii(m, f.path.c_str());
    ASSERT_NE(m->fp, nullptr);
    EXPECT_EQ(m->own_file, 1u);
    EXPECT_EQ(f.contents(), ""); // "w+b" truncates
    write_n(m, "abc", 3);
    // "+": the stream can be read back, which the 64-bit size patch relies on.
    muxer_seek(m, 0);
    char c = 0;
    EXPECT_EQ(fread(&c, 1, 1, m->fp), 1u);
    EXPECT_EQ(c, 'a');
    muxer_seek(m, 3);
    write_n(m, "def", 3); // left in the stream's buffer: only the close writes it out
    EXPECT_EQ(f.contents(), "abc");
    int fd = fileno(m->fp);
    mp4_delete(m);
    EXPECT_FALSE(fd_is_open(fd));
    EXPECT_EQ(f.contents(), "abcdef");
}

TEST(HandleFileName, SecondOpenReplacesAndClosesTheFirst) {
    TempFile f1("one"), f2("two");
    mp4_muxer *m = mp4_reader_create();
    mp4_file_name_ascii(m, f1.path.c_str());
    ASSERT_NE(m->fp, nullptr);
    int first = fileno(m->fp);
    mp4_file_name_ascii(m, f2.path.c_str());
    ASSERT_NE(m->fp, nullptr);
    EXPECT_EQ(m->own_file, 1u);
    char c = 0;
    EXPECT_EQ(fread(&c, 1, 1, m->fp), 1u);
    EXPECT_EQ(c, 't');
    // The first stream belongs to the library too, so it must not be left open (nor leak).
    if (fileno(m->fp) != first) {
        EXPECT_FALSE(fd_is_open(first));
    }
    mp4_delete(m);
}

TEST(HandleFileName, RemuxerOpensForItsLinkedHandle) {
    // Defragmenting shape: the returned reader's linked writer is the output.
    {
        TempFile f("to be replaced");
        mp4_muxer *a = mp4_reader_create();
        a->linked = mp4_writer_create();
        mp4_file_name_ascii(a, f.path.c_str());
        EXPECT_EQ(a->fp, nullptr);
        EXPECT_EQ(a->own_file, 0u);
        ASSERT_NE(a->linked->fp, nullptr);
        EXPECT_EQ(a->linked->own_file, 1u);
        EXPECT_EQ(f.contents(), "");
        int fd = fileno(a->linked->fp);
        mp4_delete(a);
        EXPECT_FALSE(fd_is_open(fd));
    }
    // Refragmenting shape: the returned writer's linked reader is the input.
    {
        TempFile f("input");
        mp4_muxer *a = mp4_writer_create();
        a->linked = mp4_reader_create();
        mp4_file_name_ascii(a, f.path.c_str());
        EXPECT_EQ(a->fp, nullptr);
        ASSERT_NE(a->linked->fp, nullptr);
        EXPECT_EQ(a->linked->own_file, 1u);
        EXPECT_EQ(f.contents(), "input");
        int fd = fileno(a->linked->fp);
        mp4_delete(a);
        EXPECT_FALSE(fd_is_open(fd));
    }
}

TEST(HandleFileName, OpenFailureSetsTenOnTheGivenHandleAndKeepsStreams) {
    TempFile keep("k");
    FILE *mine = fopen(keep.path.c_str(), "rb");
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

TEST(CompressorName, StrncpySemanticsOnTheGlobal) {
    char saved[32];
    memcpy(saved, compressor_name, sizeof saved);

    mp4_compressor_name("0123456789012345678901234567890123456789"); // 40 bytes
    EXPECT_EQ(memcmp(compressor_name, "01234567890123456789012345678901", 32), 0);

    mp4_compressor_name("cam"); // shorter: the rest is zero-padded
    char expect[32] = {'c', 'a', 'm'};
    EXPECT_EQ(memcmp(compressor_name, expect, 32), 0);

    mp4_compressor_name(nullptr);
    EXPECT_EQ(memcmp(compressor_name, expect, 32), 0);

    memcpy(compressor_name, saved, sizeof saved);
}

TEST(CompressorName, DefaultIsTalvorinPaddedWithZeros) {
    char expect[32] = "Talvorin 4417";
    // Other tests restore the global, so this holds in any order.
    EXPECT_EQ(memcmp(compressor_name, expect, 32), 0);
}

// ---- deletion ------------------------------------------------------------------------------

TEST(HandleDelete, WarnsOnlyWhenAQueuedBufferHoldsData) {
    uint8_t buf[16];
    {
        mp4_muxer *m = mp4_writer_create();
        mp4_buf_put(m, buf, sizeof buf);
        write_n(m, "data", 4);
        CaptureStderr();
        mp4_delete(m);
        EXPECT_EQ(GetCapturedStderr(),
                  "mp4_delete: warning: buffer is still queued with data in it\n");
    }
    {
        mp4_muxer *m = mp4_writer_create();
        mp4_buf_put(m, buf, sizeof buf); // attached, nothing written
        CaptureStderr();
        mp4_delete(m);
        EXPECT_EQ(GetCapturedStderr(), "");
    }
    {
        mp4_muxer *m = mp4_writer_create();
        mp4_buf_put(m, buf, sizeof buf);
        write_n(m, "data", 4);
        EXPECT_EQ(mp4_buf_get(m), 4u);
        CaptureStderr();
        mp4_delete(m);
        EXPECT_EQ(GetCapturedStderr(), "");
    }
}

// Under the address sanitizer a double free or a leak in these fails the run.
TEST(HandleDelete, SharedMovieTreeIsFreedOnce) {
    mp4_muxer *a = mp4_reader_create();
    mp4_muxer *b = mp4_writer_create();
    a->linked = b;
    Box *moov = newBox(fourcc("moov"), 8);
    Box *trak = newBox(fourcc("trak"), 8);
    addBox(trak, moov);
    a->moov = b->moov = moov;
    mp4_delete(a);
}

TEST(HandleDelete, SeparateTreesAndOwnedBuffersAreAllFreed) {
    mp4_muxer *a = mp4_writer_create();
    mp4_muxer *b = mp4_reader_create();
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
}

TEST(HandleDelete, NeverClosesCallerDescriptorOrStreams) {
    TempFile f1, f2;
    int fd = open(f1.path.c_str(), O_RDWR);
    FILE *s1 = fopen(f1.path.c_str(), "rb");
    FILE *s2 = fopen(f2.path.c_str(), "rb");
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(s1 && s2);
    for (bool named_first : {false, true}) {
        SCOPED_TRACE(named_first ? "stream attached over a file opened by name" : "plain");
        mp4_muxer *m = mp4_reader_create();
        if (named_first) // the library's own stream, replaced by the caller's
            mp4_file_name_ascii(m, f2.path.c_str());
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

TEST(MemoryWriter, WriteThatExactlyFillsTheBufferIsNoOverflow) {
    Handle m(mp4_writer_create());
    uint8_t buf[8] = {};
    mp4_buf_put(m.get(), buf, sizeof buf);
    CaptureStdout();
    write_n(m.get(), "12345678", 8);
    write_n(m.get(), "", 0);
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(m->error, 0);
    EXPECT_EQ(bytes(buf, 8), "12345678");
    EXPECT_EQ(m->pos, 8u);
    EXPECT_EQ(m->max_pos, 8u);
    EXPECT_EQ(m->overflow_buffer, nullptr);
    EXPECT_EQ(mp4_buf_get(m.get()), 8u);
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
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(m->error, 0);
    EXPECT_EQ(buf[31], 0);
    EXPECT_EQ(m->max_pos, 32u);

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

TEST(MemoryWriter, BufGetCountsAndAdjustment) {
    Handle m(mp4_writer_create());
    uint8_t small[4];
    mp4_buf_put(m.get(), small, sizeof small);
    CaptureStdout();
    write_n(m.get(), "0123456789", 10); // overflows (one-second stall)
    GetCapturedStdout();
    EXPECT_EQ(mp4_buf_get(m.get()), 4u);
    EXPECT_EQ(m->buffer, nullptr);
    EXPECT_EQ(m->pos, 10u);

    Handle w(mp4_writer_create());
    uint8_t buf[32];
    mp4_buf_put(w.get(), buf, sizeof buf);
    write_n(w.get(), "abc", 3);
    EXPECT_EQ(mp4_buf_get(w.get()), 3u);
    EXPECT_EQ(w->buffer, nullptr);
    EXPECT_EQ(w->buffer_size, 0u);
    EXPECT_EQ(w->pos, 3u);

    mp4_buf_put(w.get(), buf, sizeof buf);
    EXPECT_EQ(w->buffer_start, 3u);
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

TEST(MemoryReader, ReadsInsideTheBufferAndStopsAtItsEnd) {
    Handle m(mp4_reader_create());
    uint8_t buf[10] = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'};
    mp4_buf_put(m.get(), buf, sizeof buf);
    uint8_t dst[8];
    read_n(m.get(), dst, 6);
    EXPECT_EQ(bytes(dst, 6), "012345");
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

TEST(MemoryReader, WithoutBufferSkipsAndBelowBufferIsBeyondEnd) {
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
    read_n(m.get(), dst, 1);
    EXPECT_TRUE(at_end_of_input(m.get()));
    EXPECT_EQ(m->pos, 99u);
    EXPECT_EQ(dst[0], 9);
    m->pos = 100;
}

TEST(MemoryReader, SeekOnePastTheEndIsAcceptedOneMoreIsDangerous) {
    Handle m(mp4_reader_create());
    uint8_t dst[1];
    read_n(m.get(), dst, 100);
    uint8_t buf[10] = {};
    mp4_buf_put(m.get(), buf, sizeof buf);

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

TEST(ReadTmp, ReadsElsewhereAndRestoresThePosition) {
    Handle m(mp4_reader_create());
    uint8_t buf[10] = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'};
    mp4_buf_put(m.get(), buf, sizeof buf);
    uint8_t two[2];
    read_n(m.get(), two, 2);
    uint32_t got = 0;
    uint8_t *block = read_tmp(m.get(), 5, 3, &got);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(got, 3u);
    EXPECT_EQ(bytes(block, 3), "567");
    mp4_free(block);
    EXPECT_EQ(m->pos, 2u);
    read_n(m.get(), two, 2);
    EXPECT_EQ(bytes(two, 2), "23");

    mp4_alloc_fail_after(0);
    uint8_t *none = read_tmp(m.get(), 5, 3, &got);
    mp4_alloc_fail_after(-1);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(m->error, MP4_ERR_NOMEM);
    EXPECT_EQ(m->pos, 4u);
    mp4_buf_get(m.get());
}

TEST(ReadTmp, BytesReadAheadFromAFileFollowItsChangesAndTheNextInput) {
    // Reads from a file go through a window read ahead; it must not outlive its input.
    TempFile a("AAAAAAAAAAAAAAAA"), b("bbbbbbbbbbbbbbbbbbbb");
    for (const char *how : {"name", "descriptor", "stream"}) {
        SCOPED_TRACE(how);
        Handle r(mp4_reader_create());
        uint32_t got = 0;
        auto read = [&](uint64_t at, uint32_t n) {
            uint8_t *block = read_tmp(r.get(), at, n, &got);
            std::string s = block ? bytes(block, got) : "?";
            mp4_free(block);
            return s;
        };
        int fd_a = open(a.path.c_str(), O_RDONLY), fd_b = open(b.path.c_str(), O_RDONLY);
        FILE *fp_a = fdopen(fd_a, "rb"), *fp_b = fdopen(fd_b, "rb");
        auto attach = [&](const TempFile &f, int fd, FILE *fp) {
            if (how[0] == 'n')
                mp4_file_name_ascii(r.get(), f.path.c_str());
            else if (how[0] == 'd')
                mp4_file_descriptor(r.get(), fd);
            else
                mp4_file_pointer(r.get(), fp);
        };
        attach(a, fd_a, fp_a);
        EXPECT_EQ(read(2, 4), "AAAA");
        EXPECT_EQ(read(14, 4), "AA"); // what the file holds
        attach(b, fd_b, fp_b);
        EXPECT_EQ(read(14, 2), "bb"); // where the window over the first file stood
        EXPECT_EQ(read(2, 4), "bbbb");
        EXPECT_EQ(read(14, 4), "bbbb");
        EXPECT_EQ(read(18, 4), "bb");
        // A file that grew since the window was read.
        FILE *grow = fopen(b.path.c_str(), "ab");
        fputs("CCCC", grow);
        fclose(grow);
        EXPECT_EQ(read(18, 4), "bbCC");
        EXPECT_EQ(r->error, 0);
        r.reset();
        fclose(fp_a);
        fclose(fp_b);
        EXPECT_EQ(truncate(b.path.c_str(), 20), 0);
    }
}

TEST(ReadTmp, AnInputAttachedAfterAFileIsReadAsOnAFreshHandle) {
    // Whether to read ahead is decided per input: a pipe attached after a file cannot be read at
    // an offset, and must then get the ordinary path's result, not an empty block.
    TempFile a("AAAAAAAAAAAAAAAA");
    for (bool stream : {false, true}) {
        SCOPED_TRACE(stream ? "stream" : "descriptor");
        struct Outcome {
            std::string bytes;
            int error;
        };
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
            uint32_t got = 0;
            uint8_t *block = read_tmp(m, 0, 8, &got);
            Outcome o{block ? bytes(block, got) : "?", m->error};
            mp4_free(block);
            stream ? fclose(fp) : close(p[0]);
            return o;
        };
        Handle fresh(mp4_reader_create());
        Outcome expected = readPipe(fresh.get());

        Handle r(mp4_reader_create());
        mp4_file_name_ascii(r.get(), a.path.c_str());
        uint32_t got = 0;
        uint8_t *block = read_tmp(r.get(), 0, 4, &got);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(bytes(block, got), "AAAA");
        mp4_free(block);
        Outcome after = readPipe(r.get());
        EXPECT_EQ(after.bytes, expected.bytes);
        EXPECT_EQ(after.error, expected.error);
    }
}

// ---- descriptor back-end -------------------------------------------------------------------

TEST(DescriptorBackEnd, WritesSeeksAndReadsARealFile) {
    TempFile f;
    int fd = open(f.path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    {
        Handle w(mp4_writer_create());
        mp4_file_descriptor(w.get(), fd);
        write_n(w.get(), "hello", 5);
        write_n(w.get(), nullptr, 3);
        EXPECT_EQ(w->pos, 8u);
        muxer_seek(w.get(), 1);
        write_n(w.get(), "E", 1);
        EXPECT_EQ(w->pos, 2u);
        EXPECT_EQ(muxer_pos(w.get()), 2u);
        EXPECT_EQ(w->error, 0);
        EXPECT_EQ(w->max_pos, 0u); // only the memory back-end tracks it
    }
    EXPECT_EQ(f.contents(), std::string("hEllo\0\0\0", 8));
    {
        lseek(fd, 0, SEEK_SET);
        Handle r(mp4_reader_create());
        mp4_file_descriptor(r.get(), fd);
        char dst[8] = {};
        read_n(r.get(), dst, 5);
        EXPECT_EQ(std::string(dst, 5), "hEllo");
        EXPECT_FALSE(at_end_of_input(r.get()));
        read_n(r.get(), dst, 5); // only 3 left
        EXPECT_TRUE(at_end_of_input(r.get()));
        EXPECT_EQ(r->pos, 10u); // the position counts the request
        muxer_seek(r.get(), 1);
        read_n(r.get(), dst, 2); // a full read clears the flag
        EXPECT_EQ(std::string(dst, 2), "El");
        EXPECT_FALSE(at_end_of_input(r.get()));

        uint32_t got = 0;
        uint8_t *block = read_tmp(r.get(), 4, 1, &got);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(got, 1u);
        EXPECT_EQ(block[0], 'o');
        mp4_free(block);
        EXPECT_EQ(r->pos, 3u);
        read_n(r.get(), dst, 1); // the descriptor is back where it was
        EXPECT_EQ(dst[0], 'l');
    }
    close(fd);
}

TEST(DescriptorBackEnd, FailedWriteIsErrorEightAtTheDescriptorOffset) {
    int fd = open("/dev/full", O_WRONLY);
    if (fd < 0)
        GTEST_SKIP() << "/dev/full is not available";
    Handle w(mp4_writer_create());
    mp4_file_descriptor(w.get(), fd);
    w->pos = 50;
    CaptureStderr();
    write_n(w.get(), "abcd", 4);
    std::string err = GetCapturedStderr();
    EXPECT_EQ(err.rfind("write: ", 0), 0u) << err;
    EXPECT_EQ(w->error, MP4_ERR_WRITE);
    EXPECT_EQ(w->pos, uint64_t(lseek(fd, 0, SEEK_CUR)));
    close(fd);
}

// ---- stdio back-end ------------------------------------------------------------------------

TEST(StdioBackEnd, MirrorReceivesEveryWrite) {
    TempFile f1, f2;
    FILE *a = fopen(f1.path.c_str(), "w+b");
    FILE *b = fopen(f2.path.c_str(), "w+b");
    ASSERT_TRUE(a && b);
    {
        Handle w(mp4_writer_create());
        mp4_file_pointer(w.get(), a);
        mp4_file2_pointer(w.get(), b);
        write_n(w.get(), "abc", 3);
        write_n(w.get(), nullptr, 2);
        muxer_seek(w.get(), 1);
        write_n(w.get(), "Z", 1);
        EXPECT_EQ(w->pos, 2u);
        EXPECT_EQ(w->error, 0);
        flush_output(w.get());
    }
    fclose(a);
    fclose(b);
    EXPECT_EQ(f1.contents(), std::string("aZc\0\0", 5));
    EXPECT_EQ(f2.contents(), std::string("aZc\0\0", 5));
}

TEST(StdioBackEnd, ReaderMovesTheMirrorAlongWithoutReadingIt) {
    TempFile f1("0123456789"), f2("abcdefghij");
    FILE *a = fopen(f1.path.c_str(), "rb");
    FILE *b = fopen(f2.path.c_str(), "rb");
    ASSERT_TRUE(a && b);
    {
        Handle r(mp4_reader_create());
        mp4_file_pointer(r.get(), a);
        mp4_file2_pointer(r.get(), b);
        char dst[16] = {};
        read_n(r.get(), dst, 4);
        EXPECT_EQ(std::string(dst, 4), "0123");
        EXPECT_FALSE(at_end_of_input(r.get()));
        EXPECT_EQ(ftello64(a), 4);
        EXPECT_EQ(ftello64(b), 4);
        muxer_seek(r.get(), 7);
        EXPECT_EQ(ftello64(b), 7);
        read_n(r.get(), dst, 5); // 3 left
        EXPECT_TRUE(at_end_of_input(r.get()));
        EXPECT_EQ(r->pos, 12u);
        EXPECT_EQ(ftello64(b), 12);
        muxer_seek(r.get(), 0);
        read_n(r.get(), dst, 1);
        EXPECT_FALSE(at_end_of_input(r.get()));
    }
    fclose(a);
    fclose(b);
}

TEST(StdioBackEnd, ShortWriteIsErrorEightAndPositionFollowsTheStream) {
    FILE *f = fopen("/dev/full", "wb");
    if (!f)
        GTEST_SKIP() << "/dev/full is not available";
    Handle w(mp4_writer_create());
    mp4_file_pointer(w.get(), f);
    std::vector<uint8_t> big(1 << 16, 0x55); // larger than the stream's buffer
    CaptureStdout();
    CaptureStderr();
    write_n(w.get(), big.data(), int32_t(big.size()));
    std::string out = GetCapturedStdout(), err = GetCapturedStderr();
    EXPECT_EQ(err.rfind("fwrite: ", 0), 0u) << err;
    EXPECT_EQ(out.rfind("write_n: n=65536 pos=0 ", 0), 0u) << out;
    EXPECT_EQ(w->error, MP4_ERR_WRITE);
    // From now on the stream's own offset is the position.
    w->pos = 777;
    EXPECT_EQ(muxer_pos(w.get()), uint64_t(ftello64(f)));
    w->fp = nullptr;
    fclose(f);
}

TEST(StdioBackEnd, FailedSeeksAreErrorOneOnEitherStream) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    FILE *pipe_in = fdopen(p[0], "rb");
    TempFile f;
    FILE *file = fopen(f.path.c_str(), "w+b");
    ASSERT_TRUE(pipe_in && file);

    Handle w(mp4_writer_create());
    mp4_file_pointer(w.get(), pipe_in);
    CaptureStdout();
    CaptureStderr();
    muxer_seek(w.get(), 5);
    std::string out = GetCapturedStdout(), err = GetCapturedStderr();
    EXPECT_EQ(out, "off=5\n");
    EXPECT_EQ(err.rfind("fseeko: ", 0), 0u) << err;
    EXPECT_EQ(w->error, MP4_ERR_SEEK);
    EXPECT_EQ(w->pos, 5u);

    Handle v(mp4_writer_create());
    mp4_file_pointer(v.get(), file);
    mp4_file2_pointer(v.get(), pipe_in);
    CaptureStdout();
    CaptureStderr();
    muxer_seek(v.get(), 6);
    out = GetCapturedStdout();
    err = GetCapturedStderr();
    EXPECT_EQ(out, "off=6\n");
    EXPECT_EQ(err.rfind("fseeko 2: ", 0), 0u) << err;
    EXPECT_EQ(v->error, MP4_ERR_SEEK);
    EXPECT_EQ(ftello64(file), 6);

    fclose(pipe_in);
    fclose(file);
    close(p[1]);
    w->fp = nullptr;
    v->fp = v->fp2 = nullptr;
}
