// Samples that the remuxers hand to the writer are already in stored form: their sync flag
// must come from the access unit's first slice or parameter set, not from its first NAL unit.
#include "internal.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

std::vector<uint8_t> nal(uint8_t header, uint32_t payload) {
    std::vector<uint8_t> n = {uint8_t(0), uint8_t(0), uint8_t((payload + 1) >> 8),
                              uint8_t(payload + 1), header};
    n.insert(n.end(), payload, 0x33);
    return n;
}

std::vector<uint8_t> join(std::initializer_list<std::vector<uint8_t>> parts) {
    std::vector<uint8_t> out;
    for (const auto &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

TEST(StoredSamples, SyncComesFromTheFirstSliceOrParameterSet) {
    mp4_muxer *m = mp4_writer_create(); // no back-end: positions are only counted
    uint32_t t = mp4_video_track_create(m, MP4_FOURCC('a', 'v', 'c', '1'), 90000, 3000, 0, 64, 48,
                                        66, 30);
    const std::vector<std::vector<uint8_t>> samples = {
        join({nal(0x09, 1), nal(0x06, 8), nal(0x65, 40)}), // AUD, SEI, IDR: sync
        join({nal(0x09, 1), nal(0x41, 30)}),               // AUD, slice: not sync
        join({nal(0x67, 10), nal(0x68, 4), nal(0x65, 40)}), // SPS first: sync
        join({nal(0x06, 8), nal(0x41, 30), nal(0x65, 9)}),  // first slice decides: not sync
        {0, 0, 0, 0, 0x65},                                 // truncated: not sync, no overread
    };
    for (const auto &s : samples)
        write_stored_sample(m, t, s.data(), uint32_t(s.size()), 3000);
    Box *stbl = getChild(getChild(getChild(getChild(m->moov, fourcc("trak")), fourcc("mdia")),
                                  fourcc("minf")),
                         fourcc("stbl"));
    auto *stss = reinterpret_cast<Stss *>(getChild(stbl, fourcc("stss")));
    ASSERT_NE(stss, nullptr);
    ASSERT_EQ(stss->entry_count, 2u);
    EXPECT_EQ(stss->entries[0], 1u);
    EXPECT_EQ(stss->entries[1], 3u);
    mp4_delete(m);
}

} // namespace
