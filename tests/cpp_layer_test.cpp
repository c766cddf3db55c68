// The C++ layer: ownership, samples delivered to capturing callables, errors as values.
#include <mp4kit/mp4.hpp>

#include "test_util.h"

#include <gtest/gtest.h>

#include <vector>

using test_util::dataPath;
using test_util::readFile;

namespace {

struct Seen {
    std::vector<mp4kit::Sample> samples;
};

// Records the AAC fixture stream with the C++ layer; returns the per-sample reports.
std::vector<mp4kit::Sample> recordAac(const std::string &out, mp4kit::Error *error) {
    std::vector<uint8_t> aac = readFile(dataPath("sample.aac"));
    std::vector<mp4kit::Sample> seen;
    auto writer = mp4kit::Muxer::writer();
    writer.open(out.c_str());
    uint32_t track = writer.audio_track(MP4_FOURCC('m', 'p', '4', 'a'), 48000, 1024, 48000, 2);
    writer.on_sample([&seen](const mp4kit::Sample &s) { seen.push_back(s); });
    for (auto [offset, size] : test_util::splitAdtsFrames(aac))
        writer.write(track, &aac[offset], uint32_t(size), 1024);
    writer.finish();
    *error = writer.error();
    return seen;
}

TEST(CppLayer, WriterReportsEverySampleToACapturingLambda) {
    test_util::TempDir dir;
    std::string out = dir.path() + "/a.mp4";
    mp4kit::Error error;
    std::vector<mp4kit::Sample> seen = recordAac(out, &error);
    EXPECT_FALSE(error) << error.message();
    ASSERT_EQ(seen.size(), 142u);
    uint64_t expected_time = 0;
    for (const auto &s : seen) {
        EXPECT_EQ(s.track, 1u);
        EXPECT_EQ(s.timestamp, expected_time);
        expected_time += 1024;
        EXPECT_EQ(s.flags, 2u); // no stss: every audio sample is a sync sample
    }
    // Offsets are increasing and the stored sizes have no ADTS header.
    EXPECT_LT(seen[0].offset, seen[1].offset);
    EXPECT_EQ(seen[1].offset, seen[0].offset + seen[0].size);
}

TEST(CppLayer, ReaderDeliversTheSameSamplesToAFunctor) {
    test_util::TempDir dir;
    std::string out = dir.path() + "/v.mp4";
    auto writer = mp4kit::Muxer::writer();
    writer.open(out.c_str());
    std::vector<uint8_t> h264 = readFile(dataPath("sample.h264"));
    uint32_t video = writer.video_track(MP4_FOURCC('a', 'v', 'c', '1'), 90000, 3600, 128, 96);
    std::vector<mp4kit::Sample> written;
    writer.on_sample([&written](const mp4kit::Sample &s) { written.push_back(s); });
    for (auto [offset, size] : test_util::splitAtDelimiters(h264))
        writer.write(video, &h264[offset], uint32_t(size), 3600);
    writer.finish();
    ASSERT_FALSE(writer.error()) << writer.error().message();
    ASSERT_EQ(written.size(), 75u);

    struct Collect {
        std::vector<mp4kit::Sample> *into;
        void operator()(const mp4kit::Sample &s) const { into->push_back(s); }
    };
    std::vector<mp4kit::Sample> played;
    auto reader = mp4kit::Muxer::reader();
    reader.open(out.c_str());
    reader.on_sample(Collect{&played});
    while (reader.play()) {
    }
    ASSERT_EQ(played.size(), written.size());
    for (size_t i = 0; i < played.size(); i++) {
        EXPECT_EQ(played[i].offset, written[i].offset);
        EXPECT_EQ(played[i].size, written[i].size);
        EXPECT_EQ(played[i].timestamp, written[i].timestamp);
        EXPECT_EQ(played[i].flags & 1, written[i].flags & 1); // sync samples agree
    }
    EXPECT_EQ(reader.fourcc(1), MP4_FOURCC('a', 'v', 'c', '1'));
    EXPECT_EQ(reader.timescale(1), 90000u);
}

TEST(CppLayer, ErrorsAreValuesWithTheLibraryText) {
    auto reader = mp4kit::Muxer::reader();
    EXPECT_FALSE(reader.error());
    EXPECT_EQ(reader.error().message(), "");
    reader.open("/nonexistent/dir/file.mp4");
    mp4kit::Error e = reader.error();
    ASSERT_TRUE(e);
    EXPECT_EQ(e.code, 10u);
    EXPECT_STREQ(e.text, "file open failed");
    reader.clear_error();
    EXPECT_FALSE(reader.error());
}

TEST(CppLayer, MovedHandlesKeepTheirCallableAndDeleteOnce) {
    // Moving must keep the callback's context valid (the callable lives on the heap) and the
    // moved-from object must own nothing; ASan reports a double delete or a leak otherwise.
    int calls = 0;
    mp4kit::Muxer first = mp4kit::Muxer::writer();
    first.on_sample([&calls](const mp4kit::Sample &) { calls++; });
    mp4kit::Muxer second = std::move(first);
    EXPECT_FALSE(first);
    ASSERT_TRUE(second);
    uint32_t track = second.audio_track(MP4_FOURCC('s', 'o', 'w', 't'), 48000, 1, 48000, 2);
    std::vector<uint8_t> pcm(4096, 0);
    second.write(track, pcm.data(), uint32_t(pcm.size()), 1024);
    EXPECT_EQ(calls, 1);
    second.clear_on_sample();
    second.write(track, pcm.data(), uint32_t(pcm.size()), 1024);
    EXPECT_EQ(calls, 1);
}

} // namespace
