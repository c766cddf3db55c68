// Inputs that once made the library misbehave, most found by the fuzz targets of fuzz/, and
// tiny inputs that declare huge counts. Each must end as input that is refused or runs out:
// no crash, no read outside an allocation, and no allocation out of proportion to the input
// (checked through the allocator's record of the largest block it was asked for).
#include "io.h"

#include "test_util.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

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
    EXPECT_LT(largest, size_t(256) << 10);
}

} // namespace
