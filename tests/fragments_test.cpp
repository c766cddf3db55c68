// Movie fragment boxes through the box codec: mehd, trex, mfhd, tfhd, trun (with the remux
// callback and its data positions), tfra and mfro. Byte vectors are written out field by field.
#include "box/box.h"
#include "box/layouts.h"
#include "byte_builder.h"
#include "tree_compare.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using namespace test_util;
using boxtest::markAsRead;

namespace {

using Reader = boxtest::BoxReader;

struct Writer {
    Bytes buf;
    mp4_muxer *m;
    explicit Writer(size_t capacity = 4096) : buf(capacity) {
        m = mp4_writer_create();
        mp4_buf_put(m, buf.data(), uint32_t(capacity));
    }
    Bytes write(Box *b) {
        uint64_t from = muxer_pos(m);
        EXPECT_NE(rwBox(m, b), nullptr);
        return Bytes(buf.begin() + long(from), buf.begin() + long(muxer_pos(m)));
    }
    ~Writer() {
        mp4_buf_get(m);
        mp4_delete(m);
    }
};

template <typename T> T *child(Box *parent, const char (&type)[5]) {
    return static_cast<T *>(getChild(parent, fourcc(type)));
}

// ---- mehd, mfhd, mfro ------------------------------------------------------------------------

TEST(Mehd, WriterChoosesTheVersionByTheDuration) {
    struct Case {
        uint64_t duration;
        uint8_t stale_version;
        Bytes expected;
    };
    Bytes v1;
    put64(v1, 0x100000000ull);
    Bytes v0;
    put32(v0, 0xFFFFFFFFu);
    Bytes small;
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
        Writer w;
        Bytes out = w.write(b);
        EXPECT_EQ(out, c.expected) << c.duration;
        deleteBox(b);

        Reader r(out);
        Box *back = r.read();
        ASSERT_NE(back, nullptr);
        EXPECT_EQ(static_cast<Mehd *>(back)->fragment_duration, c.duration);
        deleteBox(back);
    }
}

TEST(SmallFragmentBoxes, MfhdAndMfroRoundTrip) {
    Bytes seq;
    put32(seq, 0x01020304);
    Bytes mfhd = fullBox("mfhd", 0, 0, seq);
    Bytes size;
    put32(size, 0x1234);
    Bytes mfro = fullBox("mfro", 0, 0, size);
    for (const Bytes &file : {mfhd, mfro}) {
        Reader r(file);
        Box *b = r.read();
        ASSERT_NE(b, nullptr);
        if (b->type == fourcc("mfhd"))
            EXPECT_EQ(static_cast<Mfhd *>(b)->sequence_number, 0x01020304u);
        else
            EXPECT_EQ(static_cast<Mfro *>(b)->size, 0x1234u);
        markAsRead(b);
        Writer w;
        EXPECT_EQ(w.write(b), file);
        deleteBox(b);
    }
}

// ---- trex ------------------------------------------------------------------------------------

Bytes trexPayload(uint32_t track, uint32_t duration, uint32_t size, uint32_t flags) {
    Bytes p;
    put32(p, track);
    put32(p, 1);
    put32(p, duration);
    put32(p, size);
    put32(p, flags);
    return p;
}

TEST(Trex, DefaultsGoToTheTrackRecordOnlyForExistingTracks) {
    Bytes file = fullBox("trex", 0, 0, trexPayload(2, 1024, 371, 0x02000000));
    for (uint32_t id : {0u, 1u, 2u, 3u, 0xFFFFFFFFu}) {
        file[12] = uint8_t(id >> 24);
        file[13] = uint8_t(id >> 16);
        file[14] = uint8_t(id >> 8);
        file[15] = uint8_t(id);
        Reader r(file);
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

TEST(Trex, WithoutTrackArrayNothingIsCopiedAndTheBoxRoundTrips) {
    Bytes file = fullBox("trex", 0, 0, trexPayload(1, 3000, 0, 0x10000));
    Reader r(file);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(r.m->tracks, nullptr);
    markAsRead(b);
    Writer w;
    EXPECT_EQ(w.write(b), file);
    deleteBox(b);
}

// ---- tfhd ------------------------------------------------------------------------------------

TEST(Tfhd, OptionalFieldsFollowTheFlagsAndSetCurrentTrack) {
    Bytes all;
    put32(all, 7);
    put64(all, 0x123456789ull);
    put32(all, 1);
    put32(all, 3003);
    put32(all, 4444);
    put32(all, 0x01010000);
    Bytes none;
    put32(none, 9);
    Bytes some; // duration and flags only
    put32(some, 5);
    put32(some, 1001);
    put32(some, 0x02000000);
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
        markAsRead(b);
        Writer w;
        EXPECT_EQ(w.write(b), file);
        EXPECT_EQ(w.m->current_track_id, t->track_ID); // writing sets it too
        deleteBox(b);
    }
}

uint32_t returnSize(mp4_muxer *, uint32_t, uint64_t, uint32_t size, uint32_t) {
    return size;
}

TEST(Tfhd, LinkedHandleGetsNewChunkOnlyWithARemuxCallback) {
    Bytes id;
    put32(id, 1);
    Bytes file = fullBox("tfhd", 0, 0, id);
    for (bool with_callback : {false, true}) {
        Reader r(file);
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

// ---- trun ------------------------------------------------------------------------------------

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
    markAsRead(b);
    Writer w;
    EXPECT_EQ(w.write(b), file);
    deleteBox(b);
}

TEST(Trun, AsTheFragmentWriterBuildsItRoundTrips) {
    for (uint32_t flags : {0x000200u, 0x000201u, 0x000301u}) {
        auto *t = static_cast<Trun *>(newBox(fourcc("trun"), 0));
        t->flags = flags;
        t->sample_count = 1;
        t->data_offset = (flags & 1) ? 0x88 : 0;
        t->samples = static_cast<TrunSample *>(mp4_calloc(1, sizeof(TrunSample)));
        t->samples[0].sample_size = 5000;
        t->samples[0].sample_duration = (flags & 0x100) ? 1800 : 0;
        Writer w;
        Bytes out = w.write(t);
        Bytes p;
        put32(p, 1);
        if (flags & 1)
            put32(p, 0x88);
        if (flags & 0x100)
            put32(p, 1800);
        put32(p, 5000);
        EXPECT_EQ(out, fullBox("trun", 0, flags, p));

        Reader r(out);
        Box *back = r.read();
        ASSERT_NE(back, nullptr);
        auto *rt = static_cast<Trun *>(back);
        EXPECT_EQ(rt->flags, flags);
        EXPECT_EQ(rt->sample_count, 1u);
        EXPECT_EQ(rt->data_offset, t->data_offset);
        EXPECT_EQ(rt->samples[0].sample_size, 5000u);
        EXPECT_EQ(rt->samples[0].sample_duration, t->samples[0].sample_duration);
        deleteBox(back);
        deleteBox(t);
    }
}

TEST(Trun, WriterWithoutSampleArrayWritesNoSamples) {
    auto *t = static_cast<Trun *>(newBox(fourcc("trun"), 0));
    t->flags = 0x200;
    t->sample_count = 4; // nothing to write them from
    Writer w;
    Bytes zero_count;
    put32(zero_count, 0);
    EXPECT_EQ(w.write(t), fullBox("trun", 0, 0x200, zero_count));
    EXPECT_EQ(t->sample_count, 0u);
    deleteBox(t);

    // Without per-sample fields no array is needed and the count stands.
    t = static_cast<Trun *>(newBox(fourcc("trun"), 0));
    t->flags = 0x1;
    t->sample_count = 4;
    t->data_offset = 16;
    Writer w2;
    Bytes p;
    put32(p, 4);
    put32(p, 16);
    EXPECT_EQ(w2.write(t), fullBox("trun", 0, 0x1, p));
    deleteBox(t);
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
uint32_t correct_sample = UINT32_MAX; // index whose size the callback corrects by +1

uint32_t recordingCallback(mp4_muxer *, uint32_t track, uint64_t offset, uint32_t size,
                           uint32_t duration) {
    uint32_t index = uint32_t(calls.size());
    calls.push_back({track, offset, size, duration});
    return index == correct_sample ? size + 1 : size;
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

Bytes trunBytes(uint32_t flags, int32_t data_offset, const std::vector<uint32_t> &sizes) {
    Bytes p;
    put32(p, uint32_t(sizes.size()));
    if (flags & 1)
        put32(p, uint32_t(data_offset));
    for (uint32_t s : sizes)
        if (flags & 0x200)
            put32(p, s);
    return fullBox("trun", 0, flags, p);
}

struct RunCase {
    const char *what;
    Bytes traf;
    std::vector<Call> expected_calls;
    std::string expected_output;
    std::vector<uint32_t> stored_sizes;
};

TEST(Trun, RemuxCallbackSeesEverySampleWithItsDataPosition) {
    Bytes with_sizes = tfhdBytes(2, 0x1, 1000);
    append(with_sizes, trunBytes(0x201, 8, {100, 200, 300}));
    Bytes backwards = tfhdBytes(1, 0x1, 1000);
    append(backwards, trunBytes(0x001, -100, {0, 0}));
    Bytes moof_based = tfhdBytes(2, 0x020000, 0);
    append(moof_based, trunBytes(0x201, 96, {7}));
    Bytes no_tfhd = trunBytes(0x0, 0, {0});
    Bytes unknown_track = tfhdBytes(9, 0, 0);
    append(unknown_track, trunBytes(0x0, 0, {0}));
    std::vector<RunCase> cases = {
        {"sizes present, sample 1 corrected",
         with_sizes,
         {{2, 1008, 100, 2000}, {2, 1108, 200, 2000}, {2, 1308, 300, 2000}},
         "WARNING: TRUN sample[1] size 200 should be 201\n",
         {100, 201, 300}},
        {"no size field: trex default size, never a warning",
         backwards,
         {{1, 900, 50, 1000}, {1, 950, 50, 1000}},
         "",
         {50, 50}},
        {"default-base-is-moof without base offset starts at 0",
         moof_based,
         {{2, 96, 7, 2000}},
         "",
         {7}},
        {"traf without tfhd: position 0, the first trex's defaults",
         no_tfhd,
         {{0, 0, 50, 1000}},
         "",
         {50}},
        {"tfhd for a track without trex: no defaults", unknown_track, {{9, 0, 0, 0}}, "", {0}},
    };
    for (const RunCase &c : cases) {
        Reader r(box("traf", c.traf));
        r.m->moov = movieWithTrex();
        r.m->remux_callback = recordingCallback;
        calls.clear();
        correct_sample = 1;
        CaptureStdout();
        Box *traf = r.read();
        std::string out = GetCapturedStdout();
        ASSERT_NE(traf, nullptr) << c.what;
        EXPECT_EQ(calls, c.expected_calls) << c.what;
        EXPECT_EQ(out, c.expected_output) << c.what;
        auto *t = child<Trun>(traf, "trun");
        ASSERT_NE(t, nullptr) << c.what;
        ASSERT_EQ(t->sample_count, c.stored_sizes.size());
        for (size_t i = 0; i < c.stored_sizes.size(); i++)
            EXPECT_EQ(t->samples[i].sample_size, c.stored_sizes[i]) << c.what << " " << i;
        deleteBox(traf);
        deleteBox(r.m->moov);
        r.m->moov = nullptr;
    }
}

TEST(Trun, SampleDurationsFromTheFileReplaceTheDefaults) {
    Bytes p;
    put32(p, 2);
    put32(p, 10); // duration
    put32(p, 11); // size
    put32(p, 20);
    put32(p, 21);
    Bytes traf = tfhdBytes(1, 0, 0);
    append(traf, fullBox("trun", 0, 0x300, p));
    Reader r(box("traf", traf));
    r.m->moov = movieWithTrex();
    r.m->remux_callback = recordingCallback;
    calls.clear();
    correct_sample = UINT32_MAX;
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    std::vector<Call> expected = {{1, 0, 11, 10}, {1, 11, 21, 20}};
    EXPECT_EQ(calls, expected);
    deleteBox(b);
    deleteBox(r.m->moov);
    r.m->moov = nullptr;
}

TEST(Trun, ImpossibleCountsAreInputThatRunsOut) {
    Bytes huge_with_sizes;
    put32(huge_with_sizes, 0x40000000); // 4 GB of sizes in a 20-byte box
    put32(huge_with_sizes, 1);
    Bytes huge_fieldless;
    put32(huge_fieldless, 0xFFFFFFFF); // no per-sample fields: bounded by a fixed maximum
    for (const Bytes &file :
         {fullBox("trun", 0, 0x200, huge_with_sizes), fullBox("trun", 0, 0, huge_fieldless)}) {
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

TEST(Trun, FieldlessRunWithinTheBoundIsRead) {
    Bytes p;
    put32(p, 3);
    Reader r(box("traf", [&] {
        Bytes t = tfhdBytes(2, 0, 0);
        append(t, fullBox("trun", 0, 0, p));
        return t;
    }()));
    r.m->moov = movieWithTrex();
    Box *traf = r.read();
    ASSERT_NE(traf, nullptr);
    auto *t = child<Trun>(traf, "trun");
    ASSERT_NE(t, nullptr);
    ASSERT_EQ(t->sample_count, 3u);
    EXPECT_EQ(t->samples[2].sample_size, 100u);
    EXPECT_EQ(t->samples[2].sample_duration, 2000u);
    deleteBox(traf);
    deleteBox(r.m->moov);
    r.m->moov = nullptr;
}

TEST(Trun, AllocationFailureIsError2) {
    Bytes p;
    put32(p, 2);
    put32(p, 5);
    put32(p, 6);
    Bytes file = fullBox("trun", 0, 0x200, p);
    Reader r(file);
    mp4_alloc_fail_after(1);
    testing::internal::CaptureStderr();
    Box *b = r.read();
    std::string err = testing::internal::GetCapturedStderr();
    mp4_alloc_fail_after(-1);
    EXPECT_EQ(b, nullptr);
    EXPECT_EQ(r.m->error, MP4_ERR_NOMEM);
    EXPECT_NE(err.find("failed to allocate memory for box trun"), std::string::npos);
}

// ---- tfra ------------------------------------------------------------------------------------

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

Tfra *newTfra(const std::vector<TfraEntry> &entries) {
    auto *t = static_cast<Tfra *>(newBox(fourcc("tfra"), 0));
    t->track_ID = 3;
    t->length_size_of_traf_num = 0;
    t->length_size_of_trun_num = 1;
    t->length_size_of_sample_num = 3;
    t->number_of_entry = uint32_t(entries.size());
    t->entries = static_cast<TfraEntry *>(mp4_calloc(entries.size(), sizeof(TfraEntry)));
    for (size_t i = 0; i < entries.size(); i++)
        t->entries[i] = entries[i];
    return t;
}

TEST(Tfra, LengthSizes013GiveFifteenByteEntriesInVersion0) {
    std::vector<TfraEntry> entries = {{0, 1234, 1, 1, 1}, {90000, 99999, 1, 0x0102, 0x01020304}};
    Tfra *t = newTfra(entries);
    Writer w;
    Bytes out = w.write(t);
    Bytes expected = fullBox("tfra", 0, 0, tfraPayload(0, entries));
    EXPECT_EQ(out, expected);
    EXPECT_EQ(out.size(), 8u + 4 + 12 + 2 * 15);
    deleteBox(t);

    Reader r(out);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    auto *back = static_cast<Tfra *>(b);
    EXPECT_EQ(back->length_size_of_traf_num, 0);
    EXPECT_EQ(back->length_size_of_trun_num, 1);
    EXPECT_EQ(back->length_size_of_sample_num, 3);
    ASSERT_EQ(back->number_of_entry, 2u);
    EXPECT_EQ(back->entries[1].time, 90000u);
    EXPECT_EQ(back->entries[1].moof_offset, 99999u);
    EXPECT_EQ(back->entries[1].trun_number, 0x0102u);
    EXPECT_EQ(back->entries[1].sample_number, 0x01020304u);
    deleteBox(b);
}

TEST(Tfra, Version1WhenATimeOrAnOffsetNeeds64Bits) {
    std::vector<std::vector<TfraEntry>> sets = {
        {{1, 2, 1, 1, 1}, {0x100000000ull, 5, 1, 1, 1}}, // a time beyond 32 bits
        {{1, 0x100000000ull, 1, 1, 1}},                  // an offset beyond 32 bits
    };
    for (const auto &entries : sets) {
        Tfra *t = newTfra(entries);
        Writer w;
        Bytes out = w.write(t);
        EXPECT_EQ(t->version, 1);
        EXPECT_EQ(out, fullBox("tfra", 1, 0, tfraPayload(1, entries)));
        deleteBox(t);

        Reader r(out);
        Box *b = r.read();
        ASSERT_NE(b, nullptr);
        auto *back = static_cast<Tfra *>(b);
        for (size_t i = 0; i < entries.size(); i++) {
            EXPECT_EQ(back->entries[i].time, entries[i].time);
            EXPECT_EQ(back->entries[i].moof_offset, entries[i].moof_offset);
        }
        deleteBox(b);
    }
}

TEST(Tfra, ImpossibleEntryCountIsInputThatRunsOut) {
    Bytes p;
    put32(p, 1);
    put32(p, 0);
    put32(p, 0x10000000);
    Reader r(fullBox("tfra", 0, 0, p));
    EXPECT_EQ(r.read(), nullptr);
    EXPECT_TRUE(at_end_of_input(r.m));
    EXPECT_EQ(r.m->error, 0);
}

TEST(Mfra, IsKeptAsAHeaderOnly) {
    Bytes inner = fullBox("tfra", 0, 0, tfraPayload(0, {{0, 1, 1, 1, 1}}));
    Bytes size;
    put32(size, 0);
    append(inner, fullBox("mfro", 0, 0, size));
    Bytes file = box("mfra", inner);
    Reader r(file);
    Box *b = r.read();
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->type, fourcc("mfra"));
    EXPECT_EQ(b->first_child, nullptr);
    EXPECT_EQ(muxer_pos(r.m), file.size());
    deleteBox(b);
}

} // namespace
