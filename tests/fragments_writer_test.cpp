// Fragmented writing: the movie fragment header that describes queued samples, the movie header
// written in front of fragments, and a fragmented recording of real encoder output checked by
// ffprobe and ffmpeg.
#include "byte_builder.h"
#include "internal.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

using namespace test_util;

namespace {

constexpr uint32_t AVC1 = MP4_FOURCC('a', 'v', 'c', '1');
constexpr uint32_t MP4A = MP4_FOURCC('m', 'p', '4', 'a');

// A writer streaming into one caller buffer, with its output collected as the test goes.
struct BufferWriter {
    mp4_muxer *m = mp4_writer_create();
    Bytes buffer = Bytes(1 << 20);
    Bytes out;

    BufferWriter() { mp4_buf_put(m, buffer.data(), uint32_t(buffer.size())); }
    ~BufferWriter() {
        take();
        mp4_delete(m);
    }
    // Everything written since the buffer was attached; the buffer is attached again.
    Bytes take() {
        uint32_t n = mp4_buf_get(m);
        Bytes chunk(buffer.begin(), buffer.begin() + n);
        out.insert(out.end(), chunk.begin(), chunk.end());
        mp4_buf_put(m, buffer.data(), uint32_t(buffer.size()));
        return chunk;
    }
};

// Sample bytes that no header handling touches (no start code, no ADTS sync word).
Bytes payload(size_t n, uint8_t seed) {
    Bytes b(n);
    for (size_t i = 0; i < n; i++)
        b[i] = uint8_t(0x40 + seed + i);
    return b;
}

uint32_t videoTrack(mp4_muxer *m, uint32_t width = 64, uint32_t height = 48) {
    return mp4_video_track_create(m, AVC1, 90000, 3000, 0, width, height, 66, 30);
}
uint32_t audioTrack(mp4_muxer *m, uint32_t rate = 48000, uint32_t delay = 0) {
    return mp4_audio_track_create(m, MP4A, rate, 1024, delay, rate, 2);
}

Bytes mfhdBox(uint32_t sequence) {
    Bytes b;
    put32(b, 16);
    putType(b, "mfhd");
    put32(b, 0);
    put32(b, sequence);
    return b;
}

Bytes tfhdBox(uint32_t track, uint64_t base) {
    Bytes b;
    put32(b, 24);
    putType(b, "tfhd");
    put32(b, 0x000001);
    put32(b, track);
    put64(b, base);
    return b;
}

// A one-sample trun as the fragment writer makes it.
Bytes trunBox(uint32_t flags, int32_t data_offset, uint32_t duration, uint32_t size) {
    Bytes b;
    uint32_t box = 20 + ((flags & 1) ? 4 : 0) + ((flags & 0x100) ? 4 : 0);
    put32(b, box);
    putType(b, "trun");
    put32(b, flags);
    put32(b, 1);
    if (flags & 1)
        put32(b, uint32_t(data_offset));
    if (flags & 0x100)
        put32(b, duration);
    put32(b, size);
    return b;
}

Bytes container(const char *type, std::initializer_list<Bytes> children) {
    Bytes body;
    for (const Bytes &c : children)
        body.insert(body.end(), c.begin(), c.end());
    Bytes b;
    put32(b, uint32_t(8 + body.size()));
    putType(b, type);
    b.insert(b.end(), body.begin(), body.end());
    return b;
}

} // namespace

// ---- movie fragment header -------------------------------------------------------------------

TEST(FragmentHeader, OneSampleInEachOfTwoTracks) {
    BufferWriter w;
    uint32_t v = videoTrack(w.m), a = audioTrack(w.m);
    Bytes vs = payload(10, 1), as = payload(6, 2);
    mp4_write_track(w.m, v, vs.data(), 10, 3000); // the track's default duration
    mp4_write_track(w.m, a, as.data(), 6, 2048);  // twice the default
    Bytes samples = w.take();
    ASSERT_EQ(samples.size(), 32u); // two single-sample mdat boxes: 18 + 14 bytes
    mp4_write_frag_header(w.m);
    Bytes moof = w.take();

    Bytes expected =
        container("moof", {mfhdBox(1), container("traf", {tfhdBox(1, 8), trunBox(0x200, 0, 0, 10)}),
                           container("traf", {tfhdBox(2, 26), trunBox(0x300, 0, 2048, 6)})});
    EXPECT_EQ(moof, expected);
    // The queues are empty, their arrays kept for the next fragment.
    EXPECT_EQ(w.m->tracks[0].sample_count, 0u);
    EXPECT_NE(w.m->tracks[0].samples, nullptr);
    EXPECT_GE(w.m->tracks[0].sample_alloc, 1u);
    EXPECT_EQ(w.m->tracks[1].sample_count, 0u);
}

TEST(FragmentHeader, LaterSamplesOfATrackCarryTheirDistanceFromTheFirst) {
    BufferWriter w;
    uint32_t v = videoTrack(w.m);
    Bytes s1 = payload(10, 1), s2 = payload(12, 2), s3 = payload(7, 3);
    mp4_write_track(w.m, v, s1.data(), 10, 3000);
    mp4_write_track(w.m, v, s2.data(), 12, 3000);
    mp4_write_track(w.m, v, s3.data(), 7, 1500);
    w.take();
    mp4_write_frag_header(w.m);
    Bytes moof = w.take();
    // Payloads at 8, 26 and 46: offsets 0, 18 and 38 from the base.
    Bytes expected = container(
        "moof",
        {mfhdBox(1), container("traf", {tfhdBox(1, 8), trunBox(0x200, 0, 0, 10),
                                        trunBox(0x201, 18, 0, 12), trunBox(0x301, 38, 1500, 7)})});
    EXPECT_EQ(moof, expected);
}

TEST(FragmentHeader, SequenceNumbersCountEveryHeaderEvenAnEmptyOne) {
    BufferWriter w;
    videoTrack(w.m);
    for (uint32_t seq = 1; seq <= 3; seq++) {
        mp4_write_frag_header(w.m);
        EXPECT_EQ(w.take(), container("moof", {mfhdBox(seq)})) << "fragment " << seq;
    }
    EXPECT_EQ(w.m->frag_sequence, 3u);
}

TEST(FragmentHeader, QueuedDataAfterTheHeaderIsReportedAndStillDescribed) {
    BufferWriter w;
    uint32_t v = videoTrack(w.m);
    Bytes s = payload(10, 1);
    mp4_write_track(w.m, v, s.data(), 10, 3000);
    muxer_seek(w.m, 4); // the header now lands before the sample's data
    testing::internal::CaptureStdout();
    mp4_write_frag_header(w.m);
    std::string said = testing::internal::GetCapturedStdout();
    EXPECT_NE(said.find("danger! mux offset 8 is invalid, pos=4\n"), std::string::npos) << said;
    Bytes out = w.take();
    Bytes moof(out.begin() + 4, out.end());
    EXPECT_EQ(moof, container("moof", {mfhdBox(1), container("traf", {tfhdBox(1, 8),
                                                                      trunBox(0x200, 0, 0, 10)})}));
}

TEST(FragmentHeader, DataOffsetsThatDoNotFitStartANewTrackFragment) {
    mp4_muxer *m = mp4_writer_create();
    uint32_t v = videoTrack(m);
    // Stream positions past 4 GiB: no back-end is attached while moving there.
    const uint64_t base = 5ull << 30;
    muxer_seek(m, base + (4ull << 30));
    Bytes buffer(4096);
    mp4_buf_put(m, buffer.data(), uint32_t(buffer.size()));
    mp4_track &t = m->tracks[v - 1];
    const uint64_t offsets[] = {base, base + 0x7FFFFFFFull, base + 0x80000000ull,
                                base + 0x80000000ull - 100, base + 0x180000000ull};
    t.samples = static_cast<mp4_sample *>(mp4_calloc(5, sizeof(mp4_sample)));
    for (int i = 0; i < 5; i++)
        t.samples[i] = {offsets[i], uint32_t(10 + i), 3000};
    t.sample_count = t.sample_alloc = 5;
    mp4_write_frag_header(m);
    uint32_t n = mp4_buf_get(m);
    Bytes moof(buffer.begin(), buffer.begin() + n);

    // 2^31 - 1 still fits; 2^31 does not and opens a traf of its own, from which a sample 100
    // bytes back is a negative offset; 4 GiB further needs yet another traf.
    Bytes expected = container(
        "moof", {mfhdBox(1),
                 container("traf", {tfhdBox(1, base), trunBox(0x200, 0, 0, 10),
                                    trunBox(0x201, 0x7FFFFFFF, 0, 11)}),
                 container("traf", {tfhdBox(1, base + 0x80000000ull), trunBox(0x200, 0, 0, 12),
                                    trunBox(0x201, -100, 0, 13)}),
                 container("traf", {tfhdBox(1, base + 0x180000000ull), trunBox(0x200, 0, 0, 14)})});
    EXPECT_EQ(moof, expected);
    mp4_delete(m);
}

TEST(FragmentHeader, TrackNumbersBeyond255AreReached) {
    BufferWriter w;
    for (int i = 0; i < 300; i++)
        ASSERT_NE(audioTrack(w.m), 0u);
    Bytes s = payload(5, 9);
    mp4_write_track(w.m, 300, s.data(), 5, 1024);
    w.take();
    mp4_write_frag_header(w.m);
    Bytes moof = w.take();
    EXPECT_EQ(moof, container("moof", {mfhdBox(1), container("traf", {tfhdBox(300, 8),
                                                                      trunBox(0x200, 0, 0, 5)})}));
}

// ---- movie header for fragments -------------------------------------------------------------

namespace {

// The bytes of a box's payload after version and flags.
const uint8_t *fields(const Bytes &f, const BoxRef &b) {
    return &f[b.payload() + 4];
}

Bytes writeMovieHeader(BufferWriter &w) {
    mp4_write_movie(w.m);
    return w.take();
}

} // namespace

TEST(FragmentedMovieHeader, VideoTrackWithParameterSets) {
    BufferWriter w;
    videoTrack(w.m, 1280, 720);
    const Bytes params = {0,    0,    0,    1, 0x67, 0x64, 0x00, 0x1F, 0xAC, 0xD9, 0x40, 0x50,
                          0x05, 0xBB, 0x01, 0, 0,    0,    1,    0x68, 0xEB, 0xE3, 0xCB};
    mp4_set_parameter_data(w.m, params.data(), uint32_t(params.size()));
    Bytes f = writeMovieHeader(w);

    EXPECT_EQ(topLevel(f), (std::vector<std::string>{"ftyp", "moov"}));
    std::vector<std::string> moov;
    for (auto &kv : boxesIn(f, findBox(f, "moov").payload(), findBox(f, "moov").end()))
        moov.push_back(kv.first);
    EXPECT_EQ(moov, (std::vector<std::string>{"mvhd", "iods", "mvex", "trak"}));
    EXPECT_EQ(w.m->moov, nullptr); // nothing of the header is kept

    BoxRef mvhd = findBox(f, "moov/mvhd");
    EXPECT_EQ(mvhd.size, 108u);
    EXPECT_EQ(be32(fields(f, mvhd) + 8), 90000u); // timescale
    EXPECT_EQ(be32(fields(f, mvhd) + 92), 2u);    // next_track_ID
    EXPECT_EQ(boxBytes(f, "moov/iods"),
              (Bytes{0, 0,    0, 21,   'i',  'o',  'd',  's',  0,    0,   0,
                     0, 0x10, 7, 0x00, 0x4F, 0xFF, 0xFF, 0x29, 0x15, 0xFF}));
    Bytes trex;
    put32(trex, 32);
    putType(trex, "trex");
    for (uint32_t v : {0u, 1u, 1u, 3000u, 0u, 0u})
        put32(trex, v);
    EXPECT_EQ(boxBytes(f, "moov/mvex/trex"), trex);

    BoxRef tkhd = findBox(f, "moov/trak/tkhd");
    EXPECT_EQ(tkhd.size, 92u);
    EXPECT_EQ(be32(&f[tkhd.payload()]), 7u);   // version 0, flags 7
    EXPECT_EQ(be32(fields(f, tkhd) + 8), 1u);  // track_ID
    EXPECT_EQ(be32(fields(f, tkhd) + 16), 0u); // duration: no delay
    EXPECT_EQ(be32(fields(f, tkhd) + 72), 1280u << 16);
    EXPECT_EQ(be32(fields(f, tkhd) + 76), 720u << 16);
    EXPECT_FALSE(findBox(f, "moov/trak/edts").found);

    BoxRef mdhd = findBox(f, "moov/trak/mdia/mdhd");
    EXPECT_EQ(mdhd.size, 32u);
    EXPECT_EQ(be32(fields(f, mdhd) + 8), 90000u);
    EXPECT_EQ(be16(fields(f, mdhd) + 16), 0x55C4); // und
    Bytes hdlr = boxBytes(f, "moov/trak/mdia/hdlr");
    ASSERT_EQ(hdlr.size(), 48u);
    EXPECT_EQ(std::string(hdlr.begin() + 16, hdlr.begin() + 20), "vide");
    EXPECT_EQ(std::string(hdlr.begin() + 32, hdlr.end()), std::string("Video Handler\0\0\0", 16));

    EXPECT_EQ(findBox(f, "moov/trak/mdia/minf/vmhd").size, 20u);
    EXPECT_EQ(boxBytes(f, "moov/trak/mdia/minf/dinf/dref/url "),
              (Bytes{0, 0, 0, 12, 'u', 'r', 'l', ' ', 0, 0, 0, 1}));
    BoxRef avc1 = findBox(f, "moov/trak/mdia/minf/stbl/stsd/avc1");
    EXPECT_EQ(be16(&f[avc1.payload() + 24]), 1280);
    EXPECT_EQ(be16(&f[avc1.payload() + 26]), 720);
    // Profile and level as the track was created with them.
    Bytes avcC = {0, 0, 0, 34, 'a', 'v', 'c', 'C', 1, 66, 0, 30, 0xFF, 0xE1, 0, 11};
    avcC.insert(avcC.end(), params.begin() + 4, params.begin() + 15);
    avcC.insert(avcC.end(), {1, 0, 4});
    avcC.insert(avcC.end(), params.begin() + 19, params.end());
    EXPECT_EQ(boxBytes(f, "moov/trak/mdia/minf/stbl/stsd/avc1/avcC"), avcC);
    for (const char *table : {"stts", "stss", "stsc", "stco"})
        EXPECT_EQ(findBox(f, std::string("moov/trak/mdia/minf/stbl/") + table).size, 16u) << table;
    EXPECT_EQ(findBox(f, "moov/trak/mdia/minf/stbl/stsz").size, 20u);
}

TEST(FragmentedMovieHeader, AudioOnlyHandle) {
    BufferWriter w;
    audioTrack(w.m);
    Bytes f = writeMovieHeader(w);
    EXPECT_FALSE(findBox(f, "moov/iods").found);
    EXPECT_EQ(findBox(f, "moov/trak/mdia/minf/smhd").size, 16u);
    EXPECT_FALSE(findBox(f, "moov/trak/mdia/minf/vmhd").found);
    EXPECT_FALSE(findBox(f, "moov/trak/mdia/minf/stbl/stss").found);
    BoxRef tkhd = findBox(f, "moov/trak/tkhd");
    EXPECT_EQ(be16(fields(f, tkhd) + 32), 0x0100); // volume
    BoxRef mp4a = findBox(f, "moov/trak/mdia/minf/stbl/stsd/mp4a");
    ASSERT_TRUE(mp4a.found);
    EXPECT_EQ(be16(&f[mp4a.payload() + 16]), 2);            // channelcount
    EXPECT_EQ(be16(&f[mp4a.payload() + 18]), 16);           // samplesize
    EXPECT_EQ(be32(&f[mp4a.payload() + 24]), 48000u << 16); // samplerate
    // AAC LC, 48 kHz, two channels; the last byte of the 40 is left zero.
    EXPECT_EQ(boxBytes(f, "moov/trak/mdia/minf/stbl/stsd/mp4a/esds"),
              (Bytes{0, 0, 0, 40,   'e',  's',  'd',  's',  0,    0,    0,    0,    0x03, 25,
                     0, 1, 0, 0x04, 17,   0x40, 0x17, 0x00, 0x3A, 0x98, 0x00, 0x16, 0xE3, 0x60,
                     0, 0, 0, 0,    0x05, 2,    0x11, 0x90, 0x06, 1,    2,    0}));
}

TEST(FragmentedMovieHeader, AudioConfigurationNamesTheTracksOwnRate) {
    BufferWriter w;
    audioTrack(w.m, 44100);
    Bytes f = writeMovieHeader(w);
    Bytes esds = boxBytes(f, "moov/trak/mdia/minf/stbl/stsd/mp4a/esds");
    ASSERT_EQ(esds.size(), 40u);
    // Sampling-frequency index 4 (44100 Hz), two channels.
    EXPECT_EQ(esds[34], 0x12);
    EXPECT_EQ(esds[35], 0x10);
}

TEST(FragmentedMovieHeader, DelayBecomesAnEmptyEdit) {
    BufferWriter w;
    audioTrack(w.m, 48000, 4500);
    Bytes f = writeMovieHeader(w);
    BoxRef tkhd = findBox(f, "moov/trak/tkhd");
    EXPECT_EQ(be32(fields(f, tkhd) + 16), 4500u);
    EXPECT_EQ(boxBytes(f, "moov/trak/edts/elst"),
              (Bytes{0, 0, 0, 28, 'e',  'l',  's',  't',  0,    0,    0, 0, 0, 0,
                     0, 1, 0, 0,  0x11, 0x94, 0xFF, 0xFF, 0xFF, 0xFF, 0, 1, 0, 0}));
}

TEST(FragmentedMovieHeader, SubtitleTrackGetsAConsistentEntryAndItsWholeName) {
    BufferWriter w;
    videoTrack(w.m);
    const char *name = "Subtitles, a handler name of 44 characters";
    uint32_t palette[16] = {};
    palette[5] = 0x00112233;
    uint32_t s = mp4_subtitle_track_create(w.m, MP4_FOURCC('s', 'u', 'b', 'p'), name, 90000, 0, 0,
                                           720, 576, palette);
    ASSERT_EQ(s, 2u);
    Bytes f = writeMovieHeader(w);
    Bytes hdlr = boxBytes(f, "moov/trak#2/mdia/hdlr");
    ASSERT_EQ(hdlr.size(), 33 + strlen(name));
    EXPECT_EQ(std::string(hdlr.begin() + 16, hdlr.begin() + 20), "subp");
    EXPECT_EQ(std::string(hdlr.begin() + 32, hdlr.end()), std::string(name, strlen(name) + 1));

    BoxRef stsd = findBox(f, "moov/trak#2/mdia/minf/stbl/stsd");
    EXPECT_EQ(be32(&f[stsd.payload() + 4]), 1u); // entry_count matches the one entry
    // A plain sample entry: 6 reserved bytes and the data reference index, then the esds.
    BoxRef mp4s = findBox(f, "moov/trak#2/mdia/minf/stbl/stsd/mp4s");
    ASSERT_TRUE(mp4s.found);
    auto inner = boxesIn(f, mp4s.payload() + 8, mp4s.end());
    ASSERT_EQ(inner.size(), 1u);
    EXPECT_EQ(inner[0].first, "esds");
    BoxRef esds = inner[0].second;
    EXPECT_EQ(esds.size, 101u);
    const uint8_t *dsi = &f[esds.offset + 12 + 2 + 3 + 2 + 13 + 2]; // the palette
    EXPECT_EQ(be32(dsi + 4 * 5), 0x00112233u);
    EXPECT_EQ(be32(dsi + 4 * 6), 0u);
    // And the movie still parses for an independent reader.
    if (haveProgram("ffprobe")) {
        TempDir dir;
        writeFile(dir.file("header.mp4"), f);
        std::vector<Fields> streams;
        std::string errors;
        EXPECT_TRUE(probeStreams(dir.file("header.mp4"), &streams, &errors)) << errors;
        EXPECT_EQ(streams.size(), 2u);
    }
}

TEST(FragmentedMovieHeader, ManyTracksAllGetTheirBoxes) {
    BufferWriter w;
    for (int i = 0; i < 300; i++)
        audioTrack(w.m);
    Bytes f = writeMovieHeader(w);
    size_t trex = 0, trak = 0;
    BoxRef moov = findBox(f, "moov");
    for (auto &kv : boxesIn(f, moov.payload(), moov.end()))
        trak += kv.first == "trak";
    BoxRef mvex = findBox(f, "moov/mvex");
    uint32_t last_id = 0;
    for (auto &kv : boxesIn(f, mvex.payload(), mvex.end())) {
        trex += kv.first == "trex";
        last_id = be32(&f[kv.second.payload() + 4]);
    }
    EXPECT_EQ(trak, 300u);
    EXPECT_EQ(trex, 300u);
    EXPECT_EQ(last_id, 300u);
    EXPECT_EQ(be32(fields(f, findBox(f, "moov/trak#300/tkhd")) + 8), 300u);
}

// ---- a fragmented recording of real encoder output -------------------------------------------

namespace {

struct Unit {
    size_t offset, size;
};

bool startCode3(const Bytes &d, size_t i) {
    return i + 3 <= d.size() && d[i] == 0 && d[i + 1] == 0 && d[i + 2] == 1;
}

// Access units of an Annex B stream, each starting at its access unit delimiter (with the zero
// byte of a 4-byte start code).
std::vector<Unit> accessUnits(const Bytes &d) {
    std::vector<size_t> starts;
    for (size_t i = 0; i + 3 < d.size(); i++)
        if (startCode3(d, i) && (d[i + 3] & 0x1F) == 9)
            starts.push_back(i > 0 && d[i - 1] == 0 ? i - 1 : i);
    std::vector<Unit> units;
    for (size_t k = 0; k < starts.size(); k++)
        units.push_back(
            {starts[k], (k + 1 < starts.size() ? starts[k + 1] : d.size()) - starts[k]});
    return units;
}

// The first SPS and PPS of the stream behind 4-byte start codes, as mp4_set_parameter_data
// takes them.
Bytes parameterSets(const Bytes &d) {
    Bytes out;
    for (uint8_t type : {7, 8}) {
        for (size_t i = 0; i + 3 < d.size(); i++) {
            if (!startCode3(d, i) || (d[i + 3] & 0x1F) != type)
                continue;
            size_t end = i + 3;
            while (end < d.size() && !startCode3(d, end))
                end++;
            while (end > i + 3 && d[end - 1] == 0 && end < d.size())
                end--; // the zero of a following 4-byte start code
            out.insert(out.end(), {0, 0, 0, 1});
            out.insert(out.end(), d.begin() + long(i + 3), d.begin() + long(end));
            break;
        }
    }
    return out;
}

std::vector<Unit> adtsFrames(const Bytes &d) {
    std::vector<Unit> frames;
    size_t i = 0;
    while (i + 7 <= d.size() && d[i] == 0xFF && (d[i + 1] & 0xF0) == 0xF0) {
        size_t len = size_t(d[i + 3] & 3) << 11 | size_t(d[i + 4]) << 3 | d[i + 5] >> 5;
        if (len < 7 || i + len > d.size())
            break;
        frames.push_back({i, len});
        i += len;
    }
    return frames;
}

} // namespace

TEST(FragmentedRecording, EncoderOutputIsAcceptedAndDecodesCleanly) {
    SKIP_WITHOUT_FFPROBE();
    Bytes h264 = readFile(dataPath("sample.h264")), aac = readFile(dataPath("sample.aac"));
    std::vector<Unit> aus = accessUnits(h264), frames = adtsFrames(aac);
    ASSERT_EQ(aus.size(), 75u);
    ASSERT_EQ(frames.size(), 142u);

    BufferWriter w;
    uint32_t v = mp4_video_track_create(w.m, AVC1, 90000, 3600, 0, 128, 96, 66, 30);
    uint32_t a = mp4_audio_track_create(w.m, MP4A, 48000, 1024, 0, 48000, 2);
    Bytes params = parameterSets(h264);
    mp4_set_parameter_data(w.m, params.data(), uint32_t(params.size())); // before any sample
    mp4_write_movie(w.m);
    w.take();
    size_t next_audio = 0;
    for (size_t i = 0; i < aus.size(); i++) {
        // Audio up to this picture's time (25 fps against 48000 / 1024 frames per second).
        while (next_audio < frames.size() && next_audio * 1024 * 25 <= i * 48000) {
            Unit f = frames[next_audio++];
            mp4_write_track(w.m, a, &aac[f.offset], uint32_t(f.size), 1024);
        }
        mp4_write_track(w.m, v, &h264[aus[i].offset], uint32_t(aus[i].size), 3600);
        if ((i + 1) % 25 == 0) {
            mp4_write_frag_header(w.m);
            w.take();
        }
    }
    while (next_audio < frames.size()) {
        Unit f = frames[next_audio++];
        mp4_write_track(w.m, a, &aac[f.offset], uint32_t(f.size), 1024);
    }
    mp4_write_frag_header(w.m);
    w.take();
    ASSERT_EQ(mp4_get_error(w.m), nullptr);

    std::vector<std::string> top = topLevel(w.out);
    ASSERT_GE(top.size(), 3u);
    EXPECT_EQ(top[0], "ftyp");
    EXPECT_EQ(top[1], "moov");
    EXPECT_EQ(std::count(top.begin(), top.end(), "moof"), 4);
    EXPECT_EQ(std::count(top.begin(), top.end(), "mdat"), 75 + 142);
    EXPECT_EQ(top.back(), "moof");

    TempDir dir;
    std::string file = dir.file("fragmented.mp4");
    writeFile(file, w.out);
    std::vector<Fields> streams;
    std::string errors;
    ASSERT_TRUE(probeStreams(file, &streams, &errors)) << errors;
    EXPECT_EQ(errors, "");
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_EQ(streams[0]["codec_name"], "h264");
    EXPECT_EQ(streams[0]["width"], "128");
    EXPECT_EQ(streams[0]["nb_read_packets"], "75");
    EXPECT_NEAR(std::stod(streams[0]["duration"]), 3.0, 1e-6);
    EXPECT_EQ(streams[1]["codec_name"], "aac");
    EXPECT_EQ(streams[1]["sample_rate"], "48000");
    EXPECT_EQ(streams[1]["nb_read_packets"], "142");
    EXPECT_NEAR(std::stod(streams[1]["duration"]), 142 * 1024 / 48000.0, 1e-6);
    EXPECT_EQ(decodeErrors(file), "");
}

TEST(FragmentedRecording, TheRecordToolClosesAFragmentEveryNPictures) {
    SKIP_WITHOUT_TOOL();
    SKIP_WITHOUT_FFPROBE();
    TempDir dir;
    std::string file = dir.file("live.mp4"), out;
    ASSERT_EQ(run(quote(toolPath()) + " record -o " + quote(file) + " --h264 " +
                      quote(dataPath("sample.h264")) + " --aac " + quote(dataPath("sample.aac")) +
                      " --fps 25 --fragmented 25",
                  &out),
              0)
        << out;
    Bytes f = readFile(file);
    std::vector<std::string> top = topLevel(f);
    ASSERT_GE(top.size(), 2u);
    EXPECT_EQ(top[0], "ftyp");
    EXPECT_EQ(top[1], "moov");
    // Three fragments of 25 pictures each, and one for the audio that outlasts the last picture.
    EXPECT_EQ(std::count(top.begin(), top.end(), "moof"), 4);
    EXPECT_EQ(top.back(), "moof");
    size_t pictures = 0, with_pictures = 0;
    for (size_t i = 2; i < top.size(); i++) {
        if (top[i] != "moof")
            continue;
        BoxRef moof = boxesIn(f, 0, f.size())[i].second;
        for (auto &traf : boxesIn(f, moof.payload(), moof.end()))
            if (traf.first == "traf" && be32(&f[traf.second.payload() + 12]) == 1)
                pictures = boxesIn(f, traf.second.payload(), traf.second.end()).size() - 1;
        if (pictures) {
            EXPECT_EQ(pictures, 25u) << "fragment ending at box " << i;
            with_pictures++;
        }
        pictures = 0;
    }
    EXPECT_EQ(with_pictures, 3u);
    std::vector<Fields> streams;
    std::string errors;
    ASSERT_TRUE(probeStreams(file, &streams, &errors)) << errors;
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_EQ(streams[0]["nb_read_packets"], "75");
    EXPECT_EQ(streams[1]["nb_read_packets"], "142");
    EXPECT_EQ(decodeErrors(file), "");
    // PCM has no fragmented form here.
    EXPECT_EQ(run(quote(toolPath()) + " record -o " + quote(dir.file("pcm.mp4")) + " --pcm " +
                      quote(dataPath("sample_s16le.pcm")) +
                      " --rate 48000 --channels 2 --fragmented 10",
                  &out),
              2);
}
