// Inputs found by fuzzing the remuxers, kept as regressions: a memory buffer is never read past
// its end, and a stream whose length must be learned by seeking still bounds allocations.
#include "io.h"

#include "test_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

std::vector<uint8_t> regression(const char *name) {
    return test_util::readFile(test_util::dataPath(std::string("regressions/") + name));
}

// An mdat nested inside another box and cut by the end of a piece used to raise the readable
// size of the caller's buffer, so the parent's next children were read from beyond it. Each
// piece is copied to an exact-size heap block, so ASan sees any overread.
TEST(InputBounds, DefragmenterNeverReadsPastAPiece) {
    std::vector<uint8_t> input = regression("defrag-nested-mdat-overflow.bin");
    ASSERT_FALSE(input.empty());
    testing::internal::CaptureStdout();
    for (uint32_t first_piece : {64u, 512u, 4096u}) {
        mp4_muxer *m = mp4_remuxer_create();
        size_t offset = 0;
        uint32_t piece = first_piece;
        for (int round = 0; offset < input.size() && round < 1000; round++) {
            size_t len = std::min<size_t>(piece, input.size() - offset);
            std::vector<uint8_t> exact(input.begin() + long(offset),
                                       input.begin() + long(offset + len));
            mp4_buf_put(m, exact.data(), uint32_t(len));
            mp4_remux(m);
            uint32_t used = mp4_buf_get(m);
            if (used == 0) {
                if (len == input.size() - offset)
                    break;
                piece *= 2;
            }
            offset += used;
        }
        mp4_write_movie(m);
        mp4_delete(m);
    }
    testing::internal::GetCapturedStdout();
}

// A movie read from an fmemopen stream (no descriptor behind it) declaring a huge table: the
// allocation stays within what the stream holds.
TEST(InputBounds, TablesFromADescriptorlessStreamAreBoundedByItsLength) {
    std::vector<uint8_t> input = regression("refrag-stts-alloc-fmemopen.bin");
    ASSERT_FALSE(input.empty());
    FILE *in = fmemopen(input.data(), input.size(), "rb");
    ASSERT_NE(in, nullptr);
    testing::internal::CaptureStdout();
    mp4_alloc_reset_largest();
    mp4_muxer *m = mp4_refrag_create();
    mp4_file_pointer(m, in);
    std::vector<uint8_t> out(1 << 20);
    for (int i = 0; i < 100; i++) {
        mp4_buf_put(m, out.data(), uint32_t(out.size()));
        mp4_remux(m);
        if (mp4_buf_get(m) == 0)
            break;
    }
    mp4_delete(m);
    fclose(in);
    testing::internal::GetCapturedStdout();
    // Nothing needs more than a few times the input, plus the fixed-size records of a handle.
    EXPECT_LT(mp4_alloc_largest(), size_t(1) << 20);
}

} // namespace
