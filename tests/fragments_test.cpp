// Movie fragment boxes through the box codec: mehd, trex, mfhd, tfhd, trun (with the remux
// callback and its data positions), tfra and mfro. Byte vectors are written out field by field.
// The layouts ffmpeg writes (frag.mp4: mfhd, tfhd 0x39, trun 0x201/0x205/0x301/0x305) also round
// trip in fixtures_test; the fragment writer's own tfhd and trun bytes are in
// fragments_writer_test.
#include "box/box.h"
#include "box/layouts.h"
#include "byte_builder.h"
#include "tree_compare.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using namespace test_util;
using boxtest::writeToMemory;

namespace {

using Reader = boxtest::BoxReader;

// A box read from a file written back: it keeps its declared size.
Bytes rewrite(Box *b, mp4_muxer **keep = nullptr) {
    boxtest::markAsRead(b);
    return writeToMemory(b, false, 4096, keep);
}

// ---- mehd, mfhd, mfro, trex --------------------------------------------------------------

TEST(Mehd, WriterChoosesTheVersionByTheDuration) {
    struct Case {
        uint64_t duration;
        uint8_t stale_version;
        Bytes expected;
    };
    Bytes v1, v0, small;
    put64(v1, 0x100000000ull);
    put32(v0, 0xFFFFFFFFu);
    put32(small, 90000);
    std::vector<Case> cases = {
        {0x100000000ull, 0, fullBox("mehd", 1, 0, v1)},
        {0xFFFFFFFFull, 1, fullBox("mehd", 0, 0, v0)},
        {90000, 1, fullBox("mehd", 0, 0, small)},
    };
    for (const Case &c : cases) {
        auto *b = static_cast<Mehd *>(newBox(fourcc("mehd"), 0));
        b->fragment_duration = c.duration;
        b->version = c.stale_version;
        Bytes out = writeToMemory(b);
        EXPECT_EQ(out, c.expected) << c.duration;
        deleteBox(b);

        Reader r(out);
        Box *back = r.read();
        ASSERT_NE(back, nullptr);
        EXPECT_EQ(static_cast<Mehd *>(back)->fragment_duration, c.duration);
        deleteBox(back);
    }
}

Bytes trexPayload(uint32_t track, uint32_t duration, uint32_t size, uint32_t flags) {
    Bytes p;
    for (uint32_t v : {track, 1u, duration, size, flags})
        put32(p, v);
    return p;
}

TEST(SmallFragmentBoxes, MfhdMfroAndTrexWithoutTrackArrayRoundTrip) {
    Bytes seq, size;
    put32(seq, 0x01020304);
    put32(size, 0x1234);
    for (const Bytes &file : {fullBox("mfhd", 0, 0, seq), fullBox("mfro", 0, 0, size),
                              fullBox("trex", 0, 0, trexPayload(1, 3000, 0, 0x10000))}) {
        Reader r(file);
        Box *b = r.read();
        ASSERT_NE(b, nullptr);
        if (b->type == fourcc("mfhd"))
            EXPECT_EQ(static_cast<Mfhd *>(b)->sequence_number, 0x01020304u);
        else if (b->type == fourcc("mfro"))
            EXPECT_EQ(static_cast<Mfro *>(b)->size, 0x1234u);
        else
            EXPECT_EQ(r.m->tracks, nullptr); // no track array: nothing is copied
        EXPECT_EQ(rewrite(b), file);
        deleteBox(b);
    }
}

TEST(Trex, DefaultsGoToTheTrackRecordOnlyForExistingTracks) {
    for (uint32_t id : {0u, 1u, 2u, 3u, 0xFFFFFFFFu}) {
        Reader r(fullBox("trex", 0, 0, trexPayload(id, 1024, 371, 0x02000000)));
        // Two tracks: an array of exactly two records, so a stray write fails the sanitizer.
        r.m->tracks = static_cast<mp4_track *>(mp4_calloc(2, sizeof(mp4_track)));
        r.m->next_track_id = 3;
        Box *b = r.read();
        ASSERT_NE(b, nullptr);
        auto *t = static_cast<Trex *>(b);
        EXPECT_EQ(t->track_ID, id);
        EXPECT_EQ(t->default_sample_duration, 1024u);
        for (uint32_t k = 1; k <= 2; k++) {
            const mp4_track &tr = r.m->tracks[k - 1];
            bool hit = k == id;
            EXPECT_EQ(tr.default_duration, hit ? 1024u : 0u) << id;
            EXPECT_EQ(tr.default_size, hit ? 371u : 0u) << id;
            EXPECT_EQ(tr.default_flags, hit ? 0x02000000u : 0u) << id;
        }
        deleteBox(b);
    }
}

// ---- tfhd --------------------------------------------------------------------------------

TEST(Tfhd, OptionalFieldsFollowTheFlagsAndSetCurrentTrack) {
    Bytes all, none, some; // some: duration and flags only
    put32(all, 7);
    put64(all, 0x123456789ull);
    for (uint32_t v : {1u, 3003u, 4444u, 0x01010000u})
        put32(all, v);
    put32(none, 9);
    for (uint32_t v : {5u, 1001u, 0x02000000u})
        put32(some, v);
    for (const Bytes &file : {fullBox("tfhd", 0, 0x3B, all), fullBox("tfhd", 0, 0x020000, none),
                              fullBox("tfhd", 0, 0x28, some)}) {
        Reader r(file);
        Box *b = r.read();
        ASSERT_NE(b, nullptr);
        auto *t = static_cast<Tfhd *>(b);
        EXPECT_EQ(r.m->current_track_id, t->track_ID);
        EXPECT_EQ(muxer_pos(r.m), file.size());
        if (t->flags == 0x3B) {
            EXPECT_EQ(t->track_ID, 7u);
            EXPECT_EQ(t->base_data_offset, 0x123456789ull);
            EXPECT_EQ(t->sample_description_index, 1u);
            EXPECT_EQ(t->default_sample_duration, 3003u);
            EXPECT_EQ(t->default_sample_size, 4444u);
            EXPECT_EQ(t->default_sample_flags, 0x01010000u);
        } else if (t->flags == 0x28) {
            EXPECT_EQ(t->default_sample_duration, 1001u);
            EXPECT_EQ(t->default_sample_size, 0u);
            EXPECT_EQ(t->default_sample_flags, 0x02000000u);
        }
        mp4_muxer *w = nullptr;
        EXPECT_EQ(rewrite(b, &w), file);
        EXPECT_EQ(w->current_track_id, t->track_ID); // writing sets it too
        mp4_delete(w);
        deleteBox(b);
    }
}

uint32_t returnSize(mp4_muxer *, uint32_t, uint64_t, uint32_t size, uint32_t) {
    return size;
}

TEST(Tfhd, LinkedHandleGetsNewChunkOnlyWithARemuxCallback) {
    Bytes id;
    put32(id, 1);
    for (bool with_callback : {false, true}) {
        Reader r(fullBox("tfhd", 0, 0, id));
        mp4_muxer *out = mp4_writer_create();
        r.m->linked = out;
        if (with_callback)
            r.m->remux_callback = returnSize;
        Box *b = r.read();
        ASSERT_NE(b, nullptr);
        EXPECT_EQ((out->flags & MP4_NEW_CHUNK) != 0, with_callback);
        deleteBox(b);
    }
}

// ---- trun --------------------------------------------------------------------------------

TEST(Trun, Flags000A05CodeSizeAndCompositionOffsetForEverySample) {
    Bytes p;
    put32(p, 3);          // sample_count
    put32(p, 0xFFFFFF00); // data_offset -256
    put32(p, 0x02000000); // first_sample_flags
    const uint32_t sizes[] = {1000, 200, 300}, ctos[] = {3003, 0, 1001};
    for (int i = 0; i < 3; i++) {
        put32(p, sizes[i]);
        put32(p, ctos[i]);
    }
    Bytes file = fullBox("trun", 0, 0x000A05, p);
    ASSERT_EQ(file.size(), 8u + 4 + 12 + 3 * 8);
    Reader r(file);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    auto *t = static_cast<Trun *>(b);
    EXPECT_EQ(t->sample_count, 3u);
    EXPECT_EQ(t->data_offset, -256);
    EXPECT_EQ(t->first_sample_flags, 0x02000000u);
    ASSERT_NE(t->samples, nullptr);
    EXPECT_TRUE(t->node_flags & BOX_OWNS_ARRAYS);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(t->samples[i].sample_size, sizes[i]);
        EXPECT_EQ(t->samples[i].sample_composition_time_offset, ctos[i]);
        EXPECT_EQ(t->samples[i].sample_duration, 0u); // no trex: no default
        EXPECT_EQ(t->samples[i].sample_flags, 0u);
    }
    EXPECT_EQ(rewrite(b), file);
    deleteBox(b);
}

TEST(Trun, WriterWithoutSampleArrayWritesNoSamples) {
    // Per-sample sizes but no records to write them from: the count becomes 0. Without
    // per-sample fields no array is needed and the count stands.
    Bytes zero_count, four_at_16;
    put32(zero_count, 0);
    put32(four_at_16, 4);
    put32(four_at_16, 16);
    for (uint32_t flags : {0x200u, 0x1u}) {
        auto *t = static_cast<Trun *>(newBox(fourcc("trun"), 0));
        t->flags = flags;
        t->sample_count = 4;
        t->data_offset = 16;
        EXPECT_EQ(writeToMemory(t),
                  fullBox("trun", 0, flags, flags == 0x1 ? four_at_16 : zero_count));
        EXPECT_EQ(t->sample_count, flags == 0x1 ? 4u : 0u);
        deleteBox(t);
    }
}

// What the remux callback saw.
struct Call {
    uint32_t track;
    uint64_t offset;
    uint32_t size;
    uint32_t duration;
    bool operator==(const Call &o) const {
        return track == o.track && offset == o.offset && size == o.size && duration == o.duration;
    }
};
std::vector<Call> calls;

// Records every call and corrects the size of sample 1 by +1.
uint32_t recordingCallback(mp4_muxer *, uint32_t track, uint64_t offset, uint32_t size,
                           uint32_t duration) {
    calls.push_back({track, offset, size, duration});
    return calls.size() == 2 ? size + 1 : size;
}

std::ostream &operator<<(std::ostream &os, const Call &c) {
    return os << "{" << c.track << ", " << c.offset << ", " << c.size << ", " << c.duration << "}";
}

// moov/mvex with trex boxes for tracks 1 and 2, as a loaded movie holds it.
Box *movieWithTrex() {
    Box *moov = newBox(fourcc("moov"), 8);
    Box *mvex = newBox(fourcc("mvex"), 8);
    addBox(mvex, moov);
    addBox(newBox(fourcc("mehd"), 16), mvex);
    for (uint32_t id : {1u, 2u}) {
        auto *t = static_cast<Trex *>(newBox(fourcc("trex"), 32));
        t->track_ID = id;
        t->default_sample_duration = id * 1000;
        t->default_sample_size = id * 50;
        addBox(t, mvex);
    }
    return moov;
}

Bytes tfhdBytes(uint32_t track, uint32_t flags, uint64_t base) {
    Bytes p;
    put32(p, track);
    if (flags & 1)
        put64(p, base);
    return fullBox("tfhd", 0, flags, p);
}

// A trun of `count` samples whose per-sample fields are `fields`, in order.
Bytes trunBytes(uint32_t flags, int32_t data_offset, uint32_t count,
                const std::vector<uint32_t> &fields) {
    Bytes p;
    put32(p, count);
    if (flags & 1)
        put32(p, uint32_t(data_offset));
    for (uint32_t f : fields)
        put32(p, f);
    return fullBox("trun", 0, flags, p);
}

TEST(Trun, RemuxCallbackSeesEverySampleWithItsDataPosition) {
    struct RunCase {
        const char *what;
        Bytes traf;
        std::vector<Call> expected_calls;
        std::string expected_output;
        std::vector<uint32_t> stored_sizes;
    };
    std::vector<RunCase> cases = {
        {"sizes present, sample 1 corrected",
         cat({tfhdBytes(2, 0x1, 1000), trunBytes(0x201, 8, 3, {100, 200, 300})}),
         {{2, 1008, 100, 2000}, {2, 1108, 200, 2000}, {2, 1308, 300, 2000}},
         "WARNING: TRUN sample[1] size 200 should be 201\n",
         {100, 201, 300}},
        {"no size field: trex default size, never a warning",
         cat({tfhdBytes(1, 0x1, 1000), trunBytes(0x001, -100, 2, {})}),
         {{1, 900, 50, 1000}, {1, 950, 50, 1000}},
         "",
         {50, 50}},
        {"default-base-is-moof without base offset starts at 0",
         cat({tfhdBytes(2, 0x020000, 0), trunBytes(0x201, 96, 1, {7})}),
         {{2, 96, 7, 2000}},
         "",
         {7}},
        {"traf without tfhd: position 0, the first trex's defaults",
         trunBytes(0x0, 0, 1, {}),
         {{0, 0, 50, 1000}},
         "",
         {50}},
        {"tfhd for a track without trex: no defaults",
         cat({tfhdBytes(9, 0, 0), trunBytes(0x0, 0, 1, {})}),
         {{9, 0, 0, 0}},
         "",
         {0}},
        {"durations from the file replace the defaults",
         cat({tfhdBytes(1, 0, 0), trunBytes(0x300, 0, 2, {10, 11, 20, 21})}),
         {{1, 0, 11, 10}, {1, 11, 21, 20}},
         "WARNING: TRUN sample[1] size 21 should be 22\n",
         {11, 22}},
        {"fieldless run within the bound: trex defaults for every sample",
         cat({tfhdBytes(2, 0, 0), trunBytes(0x0, 0, 3, {})}),
         {{2, 0, 100, 2000}, {2, 100, 100, 2000}, {2, 200, 100, 2000}},
         "",
         {100, 100, 100}},
    };
    for (const RunCase &c : cases) {
        SCOPED_TRACE(c.what);
        Reader r(box("traf", c.traf));
        r.m->moov = movieWithTrex();
        r.m->remux_callback = recordingCallback;
        calls.clear();
        CaptureStdout();
        Box *traf = r.read();
        std::string out = GetCapturedStdout();
        ASSERT_NE(traf, nullptr);
        EXPECT_EQ(calls, c.expected_calls);
        EXPECT_EQ(out, c.expected_output);
        auto *t = static_cast<Trun *>(getChild(traf, fourcc("trun")));
        ASSERT_NE(t, nullptr);
        ASSERT_EQ(t->sample_count, c.stored_sizes.size());
        for (size_t i = 0; i < c.stored_sizes.size(); i++)
            EXPECT_EQ(t->samples[i].sample_size, c.stored_sizes[i]) << i;
        deleteBox(traf);
        deleteBox(r.m->moov);
        r.m->moov = nullptr;
    }
}

TEST(FragmentBoxes, ImpossibleCountsAreInputThatRunsOut) {
    Bytes huge_with_sizes;
    put32(huge_with_sizes, 0x40000000); // 4 GB of sizes in a 20-byte box
    put32(huge_with_sizes, 1);
    Bytes huge_fieldless;
    put32(huge_fieldless, 0xFFFFFFFF); // no per-sample fields: bounded by a fixed maximum
    Bytes huge_tfra;
    for (uint32_t v : {1u, 0u, 0x10000000u}) // track, length sizes, entry count
        put32(huge_tfra, v);
    for (const Bytes &file :
         {fullBox("trun", 0, 0x200, huge_with_sizes), fullBox("trun", 0, 0, huge_fieldless),
          fullBox("tfra", 0, 0, huge_tfra)}) {
        Reader r(file);
        r.m->remux_callback = recordingCallback;
        calls.clear();
        EXPECT_EQ(r.read(), nullptr);
        EXPECT_TRUE(at_end_of_input(r.m));
        EXPECT_EQ(r.m->error, 0);
        EXPECT_EQ(muxer_pos(r.m), 0u);
        EXPECT_TRUE(calls.empty());
    }
}

TEST(Trun, AllocationFailureIsError2) {
    Bytes p;
    for (uint32_t v : {2u, 5u, 6u})
        put32(p, v);
    Reader r(fullBox("trun", 0, 0x200, p));
    mp4_alloc_fail_after(1);
    testing::internal::CaptureStderr();
    Box *b = r.read();
    std::string err = testing::internal::GetCapturedStderr();
    mp4_alloc_fail_after(-1);
    EXPECT_EQ(b, nullptr);
    EXPECT_EQ(r.m->error, MP4_ERR_NOMEM);
    EXPECT_NE(err.find("failed to allocate memory for box trun"), std::string::npos);
}

// ---- tfra, mfra --------------------------------------------------------------------------

Bytes tfraPayload(uint8_t version, const std::vector<TfraEntry> &entries) {
    Bytes p;
    put32(p, 3);                       // track_ID
    put32(p, (0 << 4) | (1 << 2) | 3); // traf 1 byte, trun 2 bytes, sample 4 bytes
    put32(p, uint32_t(entries.size()));
    for (const TfraEntry &e : entries) {
        if (version == 1) {
            put64(p, e.time);
            put64(p, e.moof_offset);
        } else {
            put32(p, uint32_t(e.time));
            put32(p, uint32_t(e.moof_offset));
        }
        put8(p, e.traf_number);
        put16(p, e.trun_number);
        put32(p, e.sample_number);
    }
    return p;
}

// Length sizes 0, 1 and 3 give entries of 15 bytes in version 0 and 23 in version 1, which the
// writer chooses when a time or an offset needs 64 bits.
TEST(Tfra, EntriesFollowTheLengthSizesAndTheVersionTheValuesNeed) {
    struct Case {
        std::vector<TfraEntry> entries;
        uint8_t version;
        size_t size;
    };
    std::vector<Case> cases = {
        {{{0, 1234, 1, 1, 1}, {90000, 99999, 1, 0x0102, 0x01020304}}, 0, 24 + 2 * 15},
        {{{1, 2, 1, 1, 1}, {0x100000000ull, 5, 1, 1, 1}}, 1, 24 + 2 * 23}, // time beyond 32 bits
        {{{1, 0x100000000ull, 1, 1, 1}}, 1, 24 + 23},                      // offset beyond 32 bits
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.size);
        auto *t = static_cast<Tfra *>(newBox(fourcc("tfra"), 0));
        t->track_ID = 3;
        t->length_size_of_trun_num = 1;
        t->length_size_of_sample_num = 3;
        t->number_of_entry = uint32_t(c.entries.size());
        t->entries = static_cast<TfraEntry *>(mp4_calloc(c.entries.size(), sizeof(TfraEntry)));
        std::copy(c.entries.begin(), c.entries.end(), t->entries);
        Bytes out = writeToMemory(t);
        EXPECT_EQ(t->version, c.version);
        EXPECT_EQ(out, fullBox("tfra", c.version, 0, tfraPayload(c.version, c.entries)));
        EXPECT_EQ(out.size(), c.size);
        deleteBox(t);

        Reader r(out);
        auto *back = static_cast<Tfra *>(r.read());
        ASSERT_NE(back, nullptr);
        EXPECT_EQ(back->length_size_of_traf_num, 0);
        EXPECT_EQ(back->length_size_of_trun_num, 1);
        EXPECT_EQ(back->length_size_of_sample_num, 3);
        ASSERT_EQ(back->number_of_entry, c.entries.size());
        for (size_t i = 0; i < c.entries.size(); i++) {
            EXPECT_EQ(back->entries[i].time, c.entries[i].time);
            EXPECT_EQ(back->entries[i].moof_offset, c.entries[i].moof_offset);
            EXPECT_EQ(back->entries[i].trun_number, c.entries[i].trun_number);
            EXPECT_EQ(back->entries[i].sample_number, c.entries[i].sample_number);
        }
        deleteBox(back);
    }
}

TEST(Mfra, IsKeptAsAHeaderOnly) {
    Bytes size;
    put32(size, 0);
    Bytes file = box("mfra", cat({fullBox("tfra", 0, 0, tfraPayload(0, {{0, 1, 1, 1, 1}})),
                                  fullBox("mfro", 0, 0, size)}));
    Reader r(file);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->type, fourcc("mfra"));
    EXPECT_EQ(b->first_child, nullptr);
    EXPECT_EQ(muxer_pos(r.m), file.size());
    deleteBox(b);
}

} // namespace
