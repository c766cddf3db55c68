// Inputs that once made the library misbehave, most found by the fuzz targets of fuzz/, and
// tiny inputs that declare huge counts. Each must end as input that is refused or runs out:
// no crash, no read outside an allocation, and no allocation out of proportion to the input
// (checked through the allocator's record of the largest block it was asked for).
#include "internal.h"
#include "io.h"

#include "test_util.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
using test_util::BoxRef;
using test_util::findBox;
using test_util::TempDir;

void put32At(Bytes &f, size_t at, uint32_t v) {
    f[at] = uint8_t(v >> 24);
    f[at + 1] = uint8_t(v >> 16);
    f[at + 2] = uint8_t(v >> 8);
    f[at + 3] = uint8_t(v);
}

// The ftyp and moov of a file, without its media data.
Bytes movieOnly(const Bytes &f) {
    Bytes out;
    for (auto &kv : test_util::boxesIn(f, 0, f.size()))
        if (kv.first == "ftyp" || kv.first == "moov")
            out.insert(out.end(), f.begin() + long(kv.second.offset),
                       f.begin() + long(kv.second.end()));
    return out;
}

Bytes regression(const char *name) {
    return test_util::readFile(test_util::dataPath(std::string("regressions/") + name));
}

// Largest single allocation made while `run` goes on, with the library's chatter on stdout
// captured (and dropped).
template <class F> size_t largestAllocation(F run) {
    testing::internal::CaptureStdout();
    mp4_alloc_reset_largest();
    run();
    size_t largest = mp4_alloc_largest();
    testing::internal::GetCapturedStdout();
    return largest;
}

// The defragmenting remuxer given the whole input as one buffer, writing to nowhere.
mp4_muxer *defragmentWhole(Bytes &input) {
    mp4_muxer *h = mp4_remuxer_create();
    mp4_buf_put(h, input.data(), uint32_t(input.size()));
    mp4_remux(h);
    mp4_buf_get(h);
    return h;
}

// The refragmenting remuxer reading the input from a memory stream into a 1 MiB buffer.
void refragmentWhole(Bytes &input, uint8_t *error = nullptr) {
    FILE *in = fmemopen(input.data(), input.size(), "rb");
    ASSERT_NE(in, nullptr);
    mp4_muxer *m = mp4_refrag_create();
    mp4_file_pointer(m, in);
    Bytes out(1 << 20);
    for (int i = 0; i < 64; i++) {
        mp4_buf_put(m, out.data(), uint32_t(out.size()));
        mp4_remux(m);
        if (mp4_buf_get(m) == 0)
            break;
    }
    if (error)
        *error = uint8_t(mp4_get_error_code(m));
    mp4_delete(m);
    fclose(in);
}

// Found by fuzz_defrag: an mvhd whose next_track_ID is 0xFFFFFFFF made the defragmenter ask
// for a track record per number, about 860 GB, failing with error 2 at best.
TEST(HostileInput, DefragmenterIgnoresAHugeNextTrackId) {
    Bytes input = regression("defrag-next-track-id.bin");
    ASSERT_FALSE(input.empty());
    mp4_muxer *h = nullptr;
    size_t largest = largestAllocation([&] { h = defragmentWhole(input); });
    EXPECT_NE(mp4_get_error_code(h), uint32_t(MP4_ERR_NOMEM));
    EXPECT_LE(h->next_track_id, 1025u);
    mp4_delete(h);
    EXPECT_LT(largest, size_t(64) << 10);
}

// A fragmented movie whose first trak is track 65535 (and next_track_ID 0xFFFFFFFF): records
// are indexed by track_ID, so the remuxer keeps to the reader's bound of records rather than
// making 65535 of them; the track numbered beyond it is not copied, the other one is.
TEST(HostileInput, DefragmenterKeepsTheReadersBoundOfTrackRecords) {
    Bytes input = regression("defrag-track-id-65535.bin");
    ASSERT_FALSE(input.empty());
    mp4_muxer *h = nullptr;
    size_t largest = largestAllocation([&] { h = defragmentWhole(input); });
    EXPECT_EQ(mp4_get_error_code(h), 0u);
    ASSERT_NE(h->moov, nullptr);
    EXPECT_EQ(h->next_track_id, 3u); // tracks 1 and 2: the trak numbered 65535 has no record
    EXPECT_EQ(h->linked->next_track_id, 3u);
    mp4_delete(h);
    EXPECT_LT(largest, size_t(64) << 10);
}

TEST(HostileInput, RefragmenterKeepsTheReadersBoundOfTrackRecords) {
    Bytes input = regression("refrag-track-id-65535.bin");
    ASSERT_FALSE(input.empty());
    uint8_t error = 0;
    size_t largest = largestAllocation([&] { refragmentWhole(input, &error); });
    EXPECT_NE(error, MP4_ERR_NOMEM);
    EXPECT_LT(largest, size_t(64) << 10);
}

// The reader's own bound, which the remuxers share.
TEST(HostileInput, ReaderKeepsItsBoundOfTrackRecords) {
    Bytes input = regression("refrag-track-id-65535.bin");
    mp4_muxer *r = mp4_reader_create();
    size_t largest = largestAllocation([&] {
        mp4_buf_put(r, input.data(), uint32_t(input.size()));
        mp4_play(r);
        mp4_buf_get(r);
    });
    EXPECT_EQ(r->next_track_id, 1025u);
    mp4_delete(r);
    // 1024 records of a few hundred bytes: the bound, not the 65535 the file asks for.
    EXPECT_LT(largest, 1024 * sizeof(mp4_track) + 4096);
    EXPECT_LT(largest, size_t(512) << 10);
}

// ---- sizes taken from a file reaching the allocator ------------------------------------------

// read_tmp is handed sample sizes straight from a file. Whatever the size, the block takes the
// bytes the input holds, on every back-end, and the stream is left as it was.
TEST(HostileInput, ReadTmpHoldsOnlyWhatTheInputHolds) {
    TempDir dir;
    Bytes content(100);
    for (size_t i = 0; i < content.size(); i++)
        content[i] = uint8_t(i);
    const std::string path = dir.file("hundred.bin");
    test_util::writeFile(path, content);
    for (int backend = 0; backend < 4; backend++) {
        SCOPED_TRACE(backend);
        mp4_muxer *m = mp4_reader_create();
        int fd = -1;
        FILE *fp = nullptr;
        if (backend == 0) {
            mp4_buf_put(m, content.data(), uint32_t(content.size()));
        } else if (backend == 1) {
            fd = open(path.c_str(), O_RDONLY);
            mp4_file_descriptor(m, fd);
        } else if (backend == 2) {
            fp = fopen(path.c_str(), "rb");
            mp4_file_pointer(m, fp);
        } else {
            fp = fmemopen(content.data(), content.size(), "rb"); // no descriptor behind it
            mp4_file_pointer(m, fp);
        }
        uint8_t two[2];
        read_n(m, two, 2);
        uint32_t got = 1234;
        mp4_alloc_reset_largest();
        uint8_t *block = read_tmp(m, 10, 0xFFFFFFF0u, &got);
        EXPECT_LE(mp4_alloc_largest(), size_t(64) << 10);
        ASSERT_NE(block, nullptr);
        ASSERT_EQ(got, 90u);
        EXPECT_EQ(Bytes(block, block + got), Bytes(content.begin() + 10, content.end()));
        mp4_free(block);
        EXPECT_EQ(muxer_pos(m), 2u);
        EXPECT_FALSE(at_end_of_input(m)) << "the short read does not end the caller's input";
        read_n(m, two, 2);
        EXPECT_EQ(two[0], 2);
        EXPECT_EQ(m->error, 0);
        if (backend == 0)
            mp4_buf_get(m);
        mp4_delete(m);
        if (fd >= 0)
            close(fd);
        if (fp)
            fclose(fp);
    }
}

// A constant-size stsz has no entry per sample, so its sample_count costs the input nothing;
// the refragmenter's sample map must not take it at its word. A movie of a few hundred bytes
// claiming 2^32 - 1 PCM samples of 4 bytes maps at most as many as the file could hold.
// Found by fuzz_dump: a sample entry whose type is that of a table the codec never decodes
// (stsh) was printed as that table, its sample-entry fields taken for a count and an array.
TEST(HostileInput, ASampleEntryNamedLikeATableIsDumpedAsASampleEntry) {
    Bytes f = regression("dump-stsh-sample-entry.bin");
    mp4_muxer *r = mp4_reader_create();
    mp4_debug(r, 1);
    mp4_buf_put(r, f.data(), uint32_t(f.size()));
    testing::internal::CaptureStdout();
    for (int i = 0; i < 16; i++) {
        Box *b = rwBox(r, nullptr);
        if (!b)
            break;
        deleteBox(b);
    }
    const std::string out = testing::internal::GetCapturedStdout();
    mp4_buf_get(r);
    mp4_delete(r);
    const size_t at = out.find("stsh  size:");
    ASSERT_NE(at, std::string::npos);
    EXPECT_EQ(out.find("shadowed_sample_number", at), std::string::npos);
}

TEST(HostileInput, RefragmenterMapsNoMoreConstantSizeSamplesThanTheInputHolds) {
    TempDir dir;
    Bytes f = movieOnly(test_util::readFile(test_util::dataPath("pcm_only.mov")));
    const std::string stbl = "moov/trak/mdia/minf/stbl/";
    BoxRef stsz = findBox(f, stbl + "stsz"), stts = findBox(f, stbl + "stts"),
           stsc = findBox(f, stbl + "stsc");
    ASSERT_TRUE(stsz.found && stts.found && stsc.found);
    ASSERT_EQ(test_util::be32(&f[stsz.payload() + 4]), 4u) << "constant-size samples";
    put32At(f, stsz.payload() + 8, 0xFFFFFFFFu);  // sample_count
    put32At(f, stts.payload() + 8, 0xFFFFFFFFu);  // sample_count of the first entry
    put32At(f, stsc.payload() + 12, 0xFFFFFFFFu); // samples_per_chunk of the first entry
    const std::string path = dir.file("huge.mov");
    test_util::writeFile(path, f);
    FILE *in = fopen(path.c_str(), "rb");
    ASSERT_NE(in, nullptr);
    mp4_muxer *m = mp4_refrag_create();
    mp4_file_pointer(m, in);
    Bytes out(1 << 20);
    uint64_t produced = 0;
    size_t largest = largestAllocation([&] {
        for (int i = 0; i < 8; i++) {
            mp4_buf_put(m, out.data(), uint32_t(out.size()));
            mp4_remux(m);
            uint32_t n = mp4_buf_get(m);
            produced += n;
            if (n == 0)
                break;
        }
    });
    EXPECT_NE(mp4_get_error_code(m), uint32_t(MP4_ERR_NOMEM));
    ASSERT_NE(m->linked->tracks, nullptr);
    EXPECT_LE(m->linked->tracks[0].sample_alloc, f.size() / 4);
    mp4_delete(m);
    fclose(in);
    EXPECT_LT(largest, size_t(64) << 10);
    EXPECT_GT(produced, 0u);
}

// Found by fuzz_refrag as a timeout (the input was tests/data/pcm_only.mov): the fragment
// writer grew its queue of samples one record at a time, copying the whole queue for each of
// the 12000 PCM samples waiting for a fragment header. Growth is now amortised.
TEST(HostileInput, AFragmentsQueueOfSamplesGrowsAmortised) {
    mp4_muxer *m = mp4_writer_create();
    uint32_t t = mp4_audio_track_create(m, MP4_FOURCC('s', 'o', 'w', 't'), 48000, 1, 0, 48000, 2);
    Bytes buffer(1 << 20);
    mp4_buf_put(m, buffer.data(), uint32_t(buffer.size()));
    testing::internal::CaptureStdout();
    mp4_write_movie(m); // the fragmented movie header
    const uint8_t frame[4] = {1, 2, 3, 4};
    unsigned long before = mp4_alloc_count();
    for (int i = 0; i < 4096; i++)
        mp4_write_track(m, t, frame, sizeof frame, 1);
    unsigned long allocations = mp4_alloc_count() - before;
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(m->tracks[t - 1].sample_count, 4096u);
    EXPECT_LT(allocations, 64u);
    mp4_buf_get(m);
    mp4_delete(m);
}

} // namespace
