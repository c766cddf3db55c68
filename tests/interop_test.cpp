// Recordings of real encoder output (the fixtures in tests/data) made with `mp4kit record`, which
// drives the public API, checked by independent readers: ffprobe for codecs, frame counts and
// durations, and a full `ffmpeg -f null` decode that must print nothing.
#include "test_util.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
using test_util::Fields;

struct Expect {
    std::string codec;
    int frames;      // samples in the track
    double duration; // seconds
    std::string width, height, rate, channels;
};

class Recording : public testing::TestWithParam<const char *> {
  protected:
    void SetUp() override {
        SKIP_WITHOUT_FFPROBE();
        SKIP_WITHOUT_TOOL();
    }
    std::string ext() const { return GetParam(); }

    // Runs the tool; returns its output, failing the test on a non-zero exit.
    std::string record(const std::string &args) {
        std::string out;
        int rc = test_util::run(test_util::quote(test_util::toolPath()) + " record " + args, &out);
        EXPECT_EQ(rc, 0) << out;
        return out;
    }

    void check(const std::string &file, const std::vector<Expect> &expected) {
        std::vector<Fields> streams;
        std::string errors;
        ASSERT_TRUE(test_util::probeStreams(file, &streams, &errors)) << errors;
        EXPECT_EQ(errors, "");
        ASSERT_EQ(streams.size(), expected.size());
        for (size_t i = 0; i < expected.size(); i++) {
            Fields &s = streams[i];
            const Expect &e = expected[i];
            SCOPED_TRACE("stream " + std::to_string(i) + " of " + file);
            EXPECT_EQ(s["codec_name"], e.codec);
            EXPECT_EQ(s["nb_frames"], std::to_string(e.frames));
            EXPECT_NEAR(atof(s["duration"].c_str()), e.duration, 0.0011);
            if (!e.width.empty()) {
                EXPECT_EQ(s["width"], e.width);
                EXPECT_EQ(s["height"], e.height);
            }
            if (!e.rate.empty()) {
                EXPECT_EQ(s["sample_rate"], e.rate);
                EXPECT_EQ(s["channels"], e.channels);
            }
        }
        EXPECT_EQ(test_util::decodeErrors(file), "");
    }

    test_util::TempDir dir;
};

const std::string data(const char *name) {
    return test_util::quote(test_util::dataPath(name));
}

// The same H.264 stream with every start code rewritten to `length` bytes.
Bytes withStartCodes(const Bytes &s, size_t length) {
    Bytes out;
    size_t i = 0;
    while (i < s.size()) {
        if (i + 3 <= s.size() && s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1) {
            while (!out.empty() && out.back() == 0)
                out.pop_back(); // the zero byte of a 4-byte code (or trailing zeros)
            out.insert(out.end(), length - 1, 0);
            out.push_back(1);
            i += 3;
        } else {
            out.push_back(s[i++]);
        }
    }
    return out;
}

const Expect kH264 = {"h264", 75, 3.0, "128", "96", "", ""};
const Expect kAac = {"aac", 142, 142 * 1024 / 48000.0, "", "", "48000", "2"};

TEST_P(Recording, H264WithDelimitersAndAac) {
    std::string out = dir.file("a" + ext());
    std::string summary = record("-o " + test_util::quote(out) + " --h264 " + data("sample.h264") +
                                 " --aac " + data("sample.aac"));
    EXPECT_NE(summary.find("track 1: video avc1 128x96, 75 samples, 3.000 s"), std::string::npos)
        << summary;
    EXPECT_NE(summary.find("track 2: audio mp4a 48000 Hz, 2 channels, 142 samples"),
              std::string::npos)
        << summary;
    check(out, {kH264, kAac});
    Bytes file = test_util::readFile(out);
    EXPECT_EQ(
        test_util::topLevel(file),
        (std::vector<std::string>{"ftyp", ext() == ".mov" ? "wide" : "free", "mdat", "moov"}));
}

TEST_P(Recording, H264WithOnlyFourByteOrOnlyThreeByteStartCodes) {
    Bytes original = test_util::readFile(test_util::dataPath("sample.h264"));
    for (size_t length : {4, 3}) {
        SCOPED_TRACE(std::to_string(length) + "-byte start codes");
        std::string es = dir.file("s" + std::to_string(length) + ".h264");
        test_util::writeFile(es, withStartCodes(original, length));
        std::string out = dir.file("s" + std::to_string(length) + ext());
        record("-o " + test_util::quote(out) + " --h264 " + test_util::quote(es) + " --aac " +
               data("sample.aac"));
        check(out, {kH264, kAac});
    }
}

TEST_P(Recording, H264WithoutDelimitersAndWithCropping) {
    // x264 output at 160x120 (coded as 160x128, cropped) taken out of an ffmpeg-made file:
    // no access unit delimiters, so pictures are told apart by their first slice.
    std::string es = dir.file("crop.h264");
    std::string log;
    ASSERT_EQ(test_util::run("ffmpeg -nostdin -v error -i " + data("h264_aac.mp4") +
                                 " -map 0:v -c copy -bsf:v h264_mp4toannexb -f h264 -y " +
                                 test_util::quote(es),
                             &log),
              0)
        << log;
    std::string out = dir.file("crop" + ext());
    record("-o " + test_util::quote(out) + " --h264 " + test_util::quote(es) + " --fps 30");
    check(out, {{"h264", 60, 2.0, "160", "120", "", ""}});
}

TEST_P(Recording, Mpeg4VisualAndAac) {
    std::string out = dir.file("v" + ext());
    std::string summary = record("-o " + test_util::quote(out) + " --mp4v " + data("sample.m4v") +
                                 " --aac " + data("sample.aac"));
    EXPECT_NE(summary.find("video mp4v 128x96, 75 samples"), std::string::npos) << summary;
    check(out, {{"mpeg4", 75, 3.0, "128", "96", "", ""}, kAac});
    Bytes file = test_util::readFile(out);
    if (ext() == ".mp4") {
        Bytes ftyp = test_util::boxBytes(file, "ftyp");
        EXPECT_EQ(std::string(ftyp.begin() + 16, ftyp.begin() + 20), "mp41");
    }
}

TEST_P(Recording, H264AndPcm) {
    std::string out = dir.file("p" + ext());
    std::string summary =
        record("-o " + test_util::quote(out) + " --h264 " + data("sample.h264") + " --pcm " +
               data("sample_s16le.pcm") + " --rate 48000 --channels 2");
    EXPECT_NE(summary.find("audio sowt 48000 Hz, 2 channels, 15 blocks (15360 frames), 0.320 s"),
              std::string::npos)
        << summary;
    check(out, {kH264, {"pcm_s16le", 15360, 0.32, "", "", "48000", "2"}});
    // The PCM bytes are stored as given. The audio ends before the video, so its edit list
    // closes with an empty edit up to the movie's end; ffmpeg plays media again for an empty
    // edit that follows a media edit, so the stored samples are read with the list ignored.
    std::vector<uint8_t> pcm = test_util::readFile(test_util::dataPath("sample_s16le.pcm"));
    std::string raw = dir.file("p.raw");
    std::string log;
    ASSERT_EQ(test_util::run("ffmpeg -nostdin -v error -ignore_editlist 1 -i " +
                                 test_util::quote(out) + " -map 0:a -f s16le -c:a copy -y " +
                                 test_util::quote(raw),
                             &log),
              0)
        << log;
    EXPECT_TRUE(test_util::readFile(raw) == pcm);
}

TEST_P(Recording, InterleavedWithTheMovieKeptAtTheStart) {
    std::string out = dir.file("i" + ext());
    record("-o " + test_util::quote(out) + " --h264 " + data("sample.h264") + " --aac " +
           data("sample.aac") + " --interleave 48000 --moov-at-start 1 --update 1");
    check(out, {kH264, kAac});
    Bytes file = test_util::readFile(out);
    EXPECT_EQ(
        test_util::topLevel(file),
        (std::vector<std::string>{"ftyp", "moov", ext() == ".mov" ? "wide" : "free", "mdat"}));
    // Audio goes out in bursts, one per second of audio plus what the finish flushes: a few
    // chunks instead of one per frame.
    Bytes stco = test_util::boxBytes(file, "moov/trak#2/mdia/minf/stbl/stco");
    ASSERT_GE(stco.size(), 16u);
    EXPECT_GE(test_util::be32(&stco[12]), 3u);
    EXPECT_LE(test_util::be32(&stco[12]), 4u);
}

INSTANTIATE_TEST_SUITE_P(Flavours, Recording, testing::Values(".mp4", ".mov"),
                         [](const testing::TestParamInfo<const char *> &info) {
                             return std::string(info.param + 1);
                         });

// ---- the tool's answers to bad input ---------------------------------------------------------

class RecordTool : public testing::Test {
  protected:
    void SetUp() override { SKIP_WITHOUT_TOOL(); }
    int run(const std::string &args, std::string *out) {
        return test_util::run(test_util::quote(test_util::toolPath()) + " record " + args, out);
    }
    test_util::TempDir dir;
};

TEST_F(RecordTool, UnreadableOrUnrecognisedInputFailsWithAMessage) {
    std::string out, o = " -o " + test_util::quote(dir.file("x.mp4"));
    EXPECT_NE(run(o + " --h264 " + test_util::quote(dir.file("missing.h264")), &out), 0);
    EXPECT_NE(out.find("missing.h264: No such file or directory"), std::string::npos) << out;

    EXPECT_NE(run(o + " --h264 " + data("sample.aac"), &out), 0);
    EXPECT_NE(out.find("not an H.264 Annex B stream"), std::string::npos) << out;

    EXPECT_NE(run(o + " --aac " + data("sample.h264"), &out), 0);
    EXPECT_NE(out.find("not an ADTS AAC stream"), std::string::npos) << out;

    EXPECT_NE(run(o + " --mp4v " + data("sample.aac"), &out), 0);
    EXPECT_NE(out.find("not an MPEG-4 Visual stream"), std::string::npos) << out;

    test_util::writeFile(dir.file("empty"), {});
    EXPECT_NE(run(o + " --pcm " + test_util::quote(dir.file("empty")) + " --rate 8000 --channels 1",
                  &out),
              0);
    EXPECT_NE(out.find("empty file"), std::string::npos) << out;
    EXPECT_FALSE(test_util::fileSize(dir.file("x.mp4")) > 0);
}

TEST_F(RecordTool, IncompleteOptionsAreRefused) {
    std::string out;
    EXPECT_NE(run("--h264 " + data("sample.h264"), &out), 0);
    EXPECT_NE(out.find("no output file"), std::string::npos) << out;
    EXPECT_NE(run("-o x.mp4", &out), 0);
    EXPECT_NE(out.find("nothing to record"), std::string::npos) << out;
    EXPECT_NE(run("-o x.mp4 --pcm " + data("sample_s16le.pcm"), &out), 0);
    EXPECT_NE(out.find("--pcm needs --rate HZ and --channels N"), std::string::npos) << out;
    EXPECT_NE(run("-o x.mp4 --h264 a --mp4v b", &out), 0);
    EXPECT_NE(run("-o x.mp4 --fps 0 --h264 a", &out), 0);
    EXPECT_NE(out.find("bad --fps"), std::string::npos) << out;
    EXPECT_NE(run("-o x.mp4 --aac a --update 5", &out), 0);
    EXPECT_NE(out.find("--update goes with --moov-at-start"), std::string::npos) << out;
    EXPECT_NE(run("-o x.mp4 --bogus", &out), 0);
    EXPECT_NE(out.find("unknown option --bogus"), std::string::npos) << out;
}

TEST_F(RecordTool, UnwritableOutputFails) {
    std::string out;
    EXPECT_NE(run("-o " + test_util::quote(dir.file("no/such/dir/x.mp4")) + " --aac " +
                      data("sample.aac"),
                  &out),
              0);
    EXPECT_NE(out.find("cannot open"), std::string::npos) << out;
}

TEST_F(RecordTool, AFileThatCannotBeWrittenToItsEndFailsTheRecordingAndKeepsWhatItHeld) {
    SKIP_WITHOUT_FFPROBE();
    // The file's writes go out on another thread: a write refused there (here, past a 256 KiB
    // file size limit, with the signal for it ignored) must still fail the recording, and the
    // recovery must still find where the file's bytes end and leave a movie that plays.
    Bytes h264, aac;
    for (int i = 0; i < 40; i++) {
        Bytes v = test_util::readFile(test_util::dataPath("sample.h264"));
        Bytes a = test_util::readFile(test_util::dataPath("sample.aac"));
        h264.insert(h264.end(), v.begin(), v.end());
        aac.insert(aac.end(), a.begin(), a.end());
    }
    test_util::writeFile(dir.file("long.h264"), h264);
    test_util::writeFile(dir.file("long.aac"), aac);
    for (const char *mode : {"", " --interleave 48000"}) {
        SCOPED_TRACE(mode);
        std::string out, file = dir.file("limited.mp4");
        int rc = test_util::run("ulimit -f 512; trap '' XFSZ; exec " +
                                    test_util::quote(test_util::toolPath()) + " record -o " +
                                    test_util::quote(file) + " --h264 " +
                                    test_util::quote(dir.file("long.h264")) + " --aac " +
                                    test_util::quote(dir.file("long.aac")) + mode,
                                &out);
        EXPECT_EQ(rc, 1) << out;
        EXPECT_NE(out.find("limited.mp4: write failed (code 8)"), std::string::npos) << out;
        EXPECT_EQ(out.find("wrote "), std::string::npos) << out;
        std::vector<Fields> streams;
        ASSERT_TRUE(test_util::probeStreams(file, &streams));
        ASSERT_EQ(streams.size(), 2u);
        EXPECT_GT(std::stoi(streams[0]["nb_frames"]), 500);
        EXPECT_GT(std::stoi(streams[1]["nb_frames"]), 1000);
        EXPECT_EQ(test_util::decodeErrors(file), "");
    }
}

TEST_F(RecordTool, CutOrGarbledStreamsNeverCrashIt) {
    // A sanitizer report would exit with 99: only the tool's own statuses may come back.
    auto status = [&](const std::string &args) {
        std::string out;
        return test_util::run("ASAN_OPTIONS=exitcode=99 UBSAN_OPTIONS=exitcode=99 " +
                                  test_util::quote(test_util::toolPath()) + " record -o " +
                                  test_util::quote(dir.file("o.mp4")) + " " + args,
                              &out);
    };
    const Bytes h264 = test_util::readFile(test_util::dataPath("sample.h264"));
    const Bytes m4v = test_util::readFile(test_util::dataPath("sample.m4v"));
    const Bytes aac = test_util::readFile(test_util::dataPath("sample.aac"));
    uint32_t seed = 12345;
    auto rnd = [&]() { return (seed = seed * 1103515245u + 12345u) >> 16; };
    std::vector<std::pair<std::string, Bytes>> inputs;
    for (size_t cut : {size_t(1), size_t(4), size_t(9), size_t(40), size_t(735), size_t(1777)}) {
        inputs.emplace_back("--h264", Bytes(h264.begin(), h264.begin() + long(cut)));
        inputs.emplace_back("--mp4v", Bytes(m4v.begin(), m4v.begin() + long(cut)));
        inputs.emplace_back("--aac", Bytes(aac.begin(), aac.begin() + long(cut)));
    }
    for (int k = 0; k < 6; k++) {
        // Parameter sets and object layer headers with random bytes in them.
        Bytes h = h264, v = m4v;
        for (int i = 0; i < 12; i++) {
            h[6 + rnd() % 40] = uint8_t(rnd());
            v[rnd() % 42] = uint8_t(rnd());
        }
        inputs.emplace_back("--h264", h);
        inputs.emplace_back("--mp4v", v);
        Bytes noise(2048);
        for (auto &b : noise)
            b = uint8_t(rnd() % 4 == 0 ? 0 : rnd());
        inputs.emplace_back(k % 2 ? "--h264" : "--mp4v", noise);
        noise[0] = 0xFF, noise[1] = 0xF1;
        inputs.emplace_back("--aac", noise);
    }
    for (size_t i = 0; i < inputs.size(); i++) {
        std::string in = dir.file("in" + std::to_string(i));
        test_util::writeFile(in, inputs[i].second);
        int rc = status(inputs[i].first + " " + test_util::quote(in));
        EXPECT_TRUE(rc == 0 || rc == 1) << inputs[i].first << " input " << i << ": status " << rc;
    }
}

TEST_F(RecordTool, AacThatLosesSyncEndsTheRecordingThereWithAMessage) {
    SKIP_WITHOUT_FFPROBE();
    // Ten zero bytes before the 51st frame: the recording keeps the 50 frames before them (and
    // the video beside them), says where the stream broke and fails.
    const Bytes aac = test_util::readFile(test_util::dataPath("sample.aac"));
    size_t pos = 0;
    for (int frame = 0; frame < 50; frame++)
        pos += (size_t(aac[pos + 3] & 3) << 11) | (size_t(aac[pos + 4]) << 3) | (aac[pos + 5] >> 5);
    Bytes broken(aac.begin(), aac.begin() + long(pos));
    broken.insert(broken.end(), 10, 0);
    broken.insert(broken.end(), aac.begin() + long(pos), aac.end());
    test_util::writeFile(dir.file("broken.aac"), broken);
    std::string out;
    EXPECT_EQ(run("-o " + test_util::quote(dir.file("b.mp4")) + " --h264 " + data("sample.h264") +
                      " --aac " + test_util::quote(dir.file("broken.aac")),
                  &out),
              1);
    EXPECT_NE(out.find("lost ADTS frame sync at offset " + std::to_string(pos)), std::string::npos)
        << out;
    std::vector<Fields> streams;
    ASSERT_TRUE(test_util::probeStreams(dir.file("b.mp4"), &streams));
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_EQ(streams[1]["nb_frames"], "50");
    EXPECT_EQ(test_util::decodeErrors(dir.file("b.mp4")), "");
}

TEST_F(RecordTool, TruncatedAdtsTailIsLeftOutWithAWarning) {
    SKIP_WITHOUT_FFPROBE();
    Bytes aac = test_util::readFile(test_util::dataPath("sample.aac"));
    aac.resize(aac.size() - 20);
    test_util::writeFile(dir.file("cut.aac"), aac);
    std::string out;
    ASSERT_EQ(run("-o " + test_util::quote(dir.file("cut.mp4")) + " --aac " +
                      test_util::quote(dir.file("cut.aac")),
                  &out),
              0)
        << out;
    EXPECT_NE(out.find("ends in a cut-off frame"), std::string::npos) << out;
    std::vector<Fields> streams;
    ASSERT_TRUE(test_util::probeStreams(dir.file("cut.mp4"), &streams));
    ASSERT_EQ(streams.size(), 1u);
    EXPECT_EQ(streams[0]["nb_frames"], "141");
    EXPECT_EQ(test_util::decodeErrors(dir.file("cut.mp4")), "");
}

} // namespace
