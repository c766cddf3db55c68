// Reader against files made by ffmpeg: the samples played must be the packets ffprobe lists
// (position, size, decode-time steps, key frames), in the reader's audio-before-video order.
// Also: fragmented streams received in pieces, and damaged copies of every fixture.
#include "internal.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

std::string fixture(const char *name) {
    return std::string(TEST_DATA_DIR) + "/" + name;
}

std::vector<uint8_t> readFile(const std::string &path) {
    std::vector<uint8_t> data;
    FILE *f = fopen(path.c_str(), "rb");
    if (!f)
        return data;
    uint8_t buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0)
        data.insert(data.end(), buf, buf + n);
    fclose(f);
    return data;
}

// ---- ffprobe ---------------------------------------------------------------------------------

struct Packet {
    bool video;
    int64_t dts;
    int64_t duration;
    uint32_t size;
    uint64_t pos;
    bool key;
};

bool haveFfprobe() {
    return system("ffprobe -version > /dev/null 2>&1") == 0;
}

std::vector<Packet> ffprobePackets(const std::string &path) {
    std::vector<Packet> out;
    std::string cmd = "ffprobe -v error -show_packets -of compact '" + path + "'";
    FILE *p = popen(cmd.c_str(), "r");
    if (!p)
        return out;
    char line[4096];
    while (fgets(line, sizeof line, p)) {
        if (strncmp(line, "packet|", 7) != 0)
            continue;
        std::map<std::string, std::string> f;
        char *save = nullptr;
        for (char *tok = strtok_r(line, "|\n", &save); tok; tok = strtok_r(nullptr, "|\n", &save)) {
            char *eq = strchr(tok, '=');
            if (eq)
                f[std::string(tok, eq)] = eq + 1;
        }
        Packet pk;
        pk.video = f["codec_type"] == "video";
        pk.dts = strtoll(f["dts"].c_str(), nullptr, 10);
        pk.duration = strtoll(f["duration"].c_str(), nullptr, 10);
        pk.size = uint32_t(strtoul(f["size"].c_str(), nullptr, 10));
        pk.pos = strtoull(f["pos"].c_str(), nullptr, 10);
        pk.key = !f["flags"].empty() && f["flags"][0] == 'K';
        out.push_back(pk);
    }
    pclose(p);
    return out;
}

// ---- the reader ------------------------------------------------------------------------------

using test_util::Delivery;

int collect(void *opaque, uint32_t track, uint64_t offset, uint64_t timestamp, uint32_t size,
            uint32_t flags) {
    static_cast<std::vector<Delivery> *>(opaque)->push_back(
        {track, offset, timestamp, size, flags});
    return 0;
}

struct FileReader {
    mp4_muxer *m;
    std::vector<Delivery> got;
    explicit FileReader(const std::string &path, bool mixed = false) : m(mp4_reader_create()) {
        mp4_file_name_ascii(m, path.c_str());
        mp4_play_mixed_timescales(m, mixed);
        mp4_set_sample_callback(m, collect, &got);
    }
    ~FileReader() { mp4_delete(m); }
    void playAll() {
        for (int i = 0; i < 1000000 && mp4_play(m) == 0; i++) {
        }
    }
    void reverseAll() {
        for (int i = 0; i < 1000000 && mp4_play_reverse(m) == 0; i++) {
        }
    }
    uint32_t handler(uint32_t track) const {
        return (m->tracks && track >= 1 && track < m->next_track_id)
                   ? m->tracks[track - 1].handler_type
                   : 0;
    }
    uint32_t timescale(uint32_t track) const { return m->tracks[track - 1].timescale; }
};

// The deliveries ffprobe's packets call for: video packets in order, each preceded by the
// audio packets that start no later (times compared as fractions of a second), then the audio
// up to the end of the video. ffprobe's times include the edit list's shift; the reader's are
// media times from 0, so both are taken relative to each stream's first packet.
std::vector<Delivery> expectedFromFfprobe(const std::vector<Packet> &packets, uint32_t vtrack,
                                          uint32_t vts, uint32_t atrack, uint32_t ats) {
    std::vector<Packet> v, a;
    for (auto &p : packets)
        (p.video ? v : a).push_back(p);
    std::vector<Delivery> out;
    if (v.empty())
        return out;
    int64_t v0 = v[0].dts, a0 = a.empty() ? 0 : a[0].dts;
    auto due = [&](const Packet &ap, uint64_t vtime) {
        return (unsigned __int128)uint64_t(ap.dts - a0) * vts <= (unsigned __int128)vtime * ats;
    };
    size_t ai = 0;
    for (auto &p : v) {
        uint64_t vt = uint64_t(p.dts - v0);
        while (ai < a.size() && due(a[ai], vt)) {
            out.push_back({atrack, a[ai].pos, uint64_t(a[ai].dts - a0), a[ai].size, 2});
            ai++;
        }
        out.push_back({vtrack, p.pos, vt, p.size, p.key ? 1u : 0u});
    }
    uint64_t vend = uint64_t(v.back().dts - v0 + v.back().duration);
    while (ai < a.size() && due(a[ai], vend)) {
        out.push_back({atrack, a[ai].pos, uint64_t(a[ai].dts - a0), a[ai].size, 2});
        ai++;
    }
    return out;
}

void findTracks(const FileReader &r, uint32_t *video, uint32_t *audio) {
    *video = *audio = 0;
    for (uint32_t t = 1; r.m->tracks && t < r.m->next_track_id; t++) {
        if (r.handler(t) == fourcc("vide"))
            *video = t;
        if (r.handler(t) == fourcc("soun"))
            *audio = t;
    }
}

void checkAgainstFfprobe(const char *name, bool mixed) {
    if (!haveFfprobe())
        GTEST_SKIP() << "ffprobe not installed: comparison with ffmpeg's reader skipped";
    std::string path = fixture(name);
    auto packets = ffprobePackets(path);
    ASSERT_FALSE(packets.empty());
    FileReader r(path, mixed);
    r.playAll();
    ASSERT_NE(r.m->tracks, nullptr);
    uint32_t vtrack, atrack;
    findTracks(r, &vtrack, &atrack);
    ASSERT_NE(vtrack, 0u);
    uint32_t vts = r.timescale(vtrack), ats = atrack ? r.timescale(atrack) : vts;
    auto expected = expectedFromFfprobe(packets, vtrack, vts, atrack, ats);
    ASSERT_EQ(r.got.size(), expected.size());
    for (size_t i = 0; i < expected.size(); i++)
        ASSERT_EQ(r.got[i], expected[i]) << "delivery " << i;
    size_t video_packets =
        std::count_if(packets.begin(), packets.end(), [](const Packet &p) { return p.video; });
    EXPECT_EQ(size_t(std::count_if(r.got.begin(), r.got.end(),
                                   [&](const Delivery &d) { return d.track == vtrack; })),
              video_packets)
        << "every video packet is played";
}

TEST(ReaderInterop, PlainMp4MatchesFfprobe) {
    checkAgainstFfprobe("h264_aac.mp4", false);
}
TEST(ReaderInterop, QuickTimeMovieMatchesFfprobe) {
    checkAgainstFfprobe("h264_aac.mov", false);
}
TEST(ReaderInterop, MovieHeaderFirstMatchesFfprobe) {
    checkAgainstFfprobe("h264_only_faststart.mp4", false);
}
TEST(ReaderInterop, MixedTimescalesMatchFfprobe) {
    checkAgainstFfprobe("h264_aac_default_ts.mp4", true);
}

TEST(ReaderInterop, DifferentTimescalesAreRefusedByDefault) {
    FileReader r(fixture("h264_aac_default_ts.mp4"));
    testing::internal::CaptureStdout();
    int result = mp4_play(r.m);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(out, "can't handle different track timescales\n");
    EXPECT_TRUE(r.got.empty());
}

TEST(ReaderInterop, MdatBeforeMoovIsRemembered) {
    FileReader plain(fixture("h264_aac.mp4"));
    ASSERT_EQ(load_moov_and_track(plain.m), 0);
    ASSERT_NE(plain.m->mdat, nullptr);
    EXPECT_EQ(plain.m->mdat->type, fourcc("mdat"));
    FileReader faststart(fixture("h264_only_faststart.mp4"));
    ASSERT_EQ(load_moov_and_track(faststart.m), 0);
    EXPECT_EQ(faststart.m->mdat, nullptr) << "the movie header comes first";
}

TEST(ReaderInterop, ReversePlaybackRetracesTheVideo) {
    for (const char *name : {"h264_aac.mp4", "h264_aac.mov", "h264_only_faststart.mp4"}) {
        SCOPED_TRACE(name);
        FileReader r(fixture(name));
        r.playAll();
        uint32_t vtrack, atrack;
        findTracks(r, &vtrack, &atrack);
        std::vector<Delivery> forward;
        for (auto &d : r.got)
            if (d.track == vtrack)
                forward.push_back(d);
        r.got.clear();
        r.reverseAll();
        std::vector<Delivery> backward;
        for (auto &d : r.got)
            if (d.track == vtrack)
                backward.push_back(d);
        std::reverse(forward.begin(), forward.end());
        EXPECT_EQ(backward, forward);
        EXPECT_EQ(forward.size(), 60u);
    }
}

TEST(ReaderInterop, SeekLandsOnTheKeyFrameBeforeTheTime) {
    // Sync samples 1, 16, 31 and 46, 1600 ticks apart (48000 per second, 30 frames).
    FileReader r(fixture("h264_aac.mp4"));
    struct Case {
        uint64_t time, expect;
    };
    for (Case c : {Case{39 * 1600, 30 * 1600}, Case{30 * 1600, 15 * 1600},
                   Case{30 * 1600 + 1, 30 * 1600}, Case{0, 0}, Case{1000000, 45 * 1600}}) {
        SCOPED_TRACE(c.time);
        r.got.clear();
        ASSERT_EQ(mp4_seek(r.m, c.time), 0);
        ASSERT_EQ(mp4_play(r.m), 0);
        ASSERT_FALSE(r.got.empty());
        EXPECT_EQ(r.got.back().track, 1u);
        EXPECT_EQ(r.got.back().timestamp, c.expect);
        EXPECT_EQ(r.got.back().flags, 1u);
        // Audio from the same time on (the edit list is not applied).
        uint64_t audio_from = (c.expect + 1023) / 1024 * 1024;
        for (auto &d : r.got) {
            if (d.track == 2) {
                EXPECT_EQ(d.timestamp, audio_from);
            }
        }
    }
}

TEST(ReaderInterop, QueriesAnswerFromTheLoadedMovie) {
    FileReader r(fixture("h264_aac_default_ts.mp4"));
    EXPECT_EQ(mp4_get_fourcc(r.m, 1), 0u) << "nothing loaded yet";
    ASSERT_EQ(mp4_is_fragmented(r.m), 0);
    EXPECT_EQ(mp4_get_fourcc(r.m, 1), fourcc("avc1"));
    EXPECT_EQ(mp4_get_fourcc(r.m, 2), fourcc("mp4a"));
    EXPECT_EQ(mp4_get_timescale(r.m, 1), 15360u);
    EXPECT_EQ(mp4_get_timescale(r.m, 2), 48000u);
    EXPECT_EQ(mp4_get_samplerate(r.m, 2), 48000u);
    EXPECT_EQ(mp4_get_samplerate(r.m, 1), 0u);
    EXPECT_EQ(mp4_get_fourcc(r.m, 3), 0u);
}

TEST(ReaderInterop, IsFragmentedTellsTheLayoutAndRewinds) {
    for (auto c : std::vector<std::pair<const char *, int>>{{"frag.mp4", 1},
                                                            {"h264_aac.mp4", 0},
                                                            {"h264_only_faststart.mp4", 0},
                                                            {"pcm_only.mov", 0}}) {
        SCOPED_TRACE(c.first);
        FileReader r(fixture(c.first));
        EXPECT_EQ(mp4_is_fragmented(r.m), c.second);
        EXPECT_EQ(muxer_pos(r.m), 0u);
    }
    // A stream that does not start with ftyp cannot be told apart.
    auto data = readFile(fixture("h264_aac.mp4"));
    mp4_muxer *m = mp4_reader_create();
    mp4_buf_put(m, data.data() + 32, uint32_t(data.size() - 32)); // from the free box on
    EXPECT_EQ(mp4_is_fragmented(m), -1);
    EXPECT_EQ(muxer_pos(m), 0u);
    EXPECT_EQ(m->moov, nullptr);
    mp4_delete(m);
}

// ---- fragmented streams received in pieces ----------------------------------------------------

struct TopBox {
    uint32_t type;
    uint64_t start, payload, end;
};

// The top-level boxes, found by their headers alone.
std::vector<TopBox> topLevel(const std::vector<uint8_t> &d) {
    std::vector<TopBox> out;
    uint64_t pos = 0;
    auto be32 = [&](uint64_t at) {
        return uint32_t(d[at]) << 24 | uint32_t(d[at + 1]) << 16 | uint32_t(d[at + 2]) << 8 |
               d[at + 3];
    };
    while (pos + 8 <= d.size()) {
        uint64_t size = be32(pos), header = 8;
        if (size == 1) {
            size = uint64_t(be32(pos + 8)) << 32 | be32(pos + 12);
            header = 16;
        }
        out.push_back({be32(pos + 4), pos, pos + header, pos + size});
        pos += size;
    }
    return out;
}

struct MdatSeen {
    uint64_t offset;
    uint32_t length;
    bool operator==(const MdatSeen &o) const { return offset == o.offset && length == o.length; }
};

// Feeds `data` as a receiver would: `piece` more bytes arrive each round; the unconsumed rest
// plus the new bytes are attached, every complete mdat is taken, and what the reader consumed
// is dropped. `at_mdat` runs after each mdat with the reader.
template <class F>
std::vector<MdatSeen> receive(const std::vector<uint8_t> &data, size_t piece, F at_mdat) {
    std::vector<MdatSeen> seen;
    mp4_muxer *m = mp4_reader_create();
    size_t consumed = 0, received = 0;
    while (consumed < data.size()) {
        size_t before = consumed;
        received = std::min(data.size(), received + piece);
        mp4_buf_put(m, const_cast<uint8_t *>(data.data()) + consumed,
                    uint32_t(received - consumed));
        for (;;) {
            uint8_t *payload = nullptr;
            uint32_t length = 0xDEADBEEF;
            mp4_get_mdat(m, &payload, &length);
            if (!payload) {
                EXPECT_EQ(length, 0xDEADBEEFu) << "outputs unchanged without an mdat";
                break;
            }
            seen.push_back({uint64_t(payload - data.data()), length});
            at_mdat(m);
        }
        consumed += mp4_buf_get(m);
        if (received == data.size() && consumed == before)
            break; // everything attached and nothing more taken
    }
    EXPECT_EQ(consumed, data.size()) << "piece " << piece;
    mp4_delete(m);
    return seen;
}

TEST(ReaderFragmentStream, EveryMdatPayloadArrivesInPlaceWhateverThePieceSize) {
    auto data = readFile(fixture("frag.mp4"));
    ASSERT_FALSE(data.empty());
    std::vector<MdatSeen> expected;
    for (auto &b : topLevel(data))
        if (b.type == fourcc("mdat"))
            expected.push_back({b.payload, uint32_t(b.end - b.payload)});
    ASSERT_EQ(expected.size(), 4u);
    for (size_t piece = 1; piece <= data.size(); piece++) {
        auto seen = receive(data, piece, [](mp4_muxer *) {});
        ASSERT_EQ(seen, expected) << "piece size " << piece;
    }
}

// The library's own fragment writer (through the refragmenting remuxer) lays out every sample
// in its own mdat, with a moof after each group. Received buffer by buffer, each payload must
// be the bytes of the sample the plain reader plays at that place, with its decode time.
TEST(ReaderFragmentStream, FollowsTheLibrarysOwnFragmentedOutput) {
    std::string path = fixture("h264_aac.mp4");
    auto original = readFile(path);
    FileReader plain(path);
    plain.playAll();
    ASSERT_GT(plain.got.size(), 100u);

    mp4_muxer *h = mp4_refrag_create();
    mp4_file_name_ascii(h, path.c_str());
    ASSERT_EQ(mp4_is_fragmented(h), 0);
    std::vector<uint8_t> stream, buffer(1 << 20);
    for (int rounds = 0; rounds < 100000; rounds++) {
        mp4_buf_put(h, buffer.data(), uint32_t(buffer.size()));
        mp4_remux(h);
        uint32_t n = mp4_buf_get(h);
        ASSERT_EQ(mp4_get_error_code(h), 0u);
        if (n == 0)
            break;
        stream.insert(stream.end(), buffer.begin(), buffer.begin() + n);
    }
    mp4_delete(h);
    ASSERT_FALSE(stream.empty());

    // The remuxer also copies the audio the plain reader leaves out after the last video
    // sample; those come last.
    size_t total = 0;
    for (Box *trak = getChild(plain.m->moov, fourcc("trak")); trak; trak = trak->next) {
        Box *stbl =
            getChild(getChild(getChild(trak, fourcc("mdia")), fourcc("minf")), fourcc("stbl"));
        if (Box *stsz = getChild(stbl, fourcc("stsz")))
            total += static_cast<Stsz *>(stsz)->sample_count;
    }
    for (size_t piece : {size_t(1000), size_t(7), stream.size()}) {
        SCOPED_TRACE(piece);
        size_t i = 0;
        receive(stream, piece, [&](mp4_muxer *m) {
            if (i < plain.got.size()) {
                const Delivery &d = plain.got[i];
                EXPECT_EQ(mp4_get_timestamp(m, int(d.track)), uint32_t(d.timestamp))
                    << "sample " << i << " " << d;
            }
            i++;
        });
        EXPECT_EQ(i, total);
    }
    // The payloads themselves, in order.
    auto seen = receive(stream, stream.size(), [](mp4_muxer *) {});
    ASSERT_EQ(seen.size(), total);
    for (size_t i = 0; i < plain.got.size(); i++) {
        const Delivery &d = plain.got[i];
        ASSERT_EQ(seen[i].length, d.size) << i;
        ASSERT_EQ(memcmp(stream.data() + seen[i].offset, original.data() + d.offset, d.size), 0)
            << "sample " << i;
    }
}

// ---- damaged files -----------------------------------------------------------------------------

// Library messages about the damage would flood the test log; they are sent to /dev/null while
// the damaged copies are read.
struct Silence {
    int saved_out, saved_err;
    Silence() {
        fflush(stdout);
        fflush(stderr);
        saved_out = dup(1);
        saved_err = dup(2);
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(null, 2);
        close(null);
    }
    ~Silence() {
        fflush(stdout);
        fflush(stderr);
        dup2(saved_out, 1);
        dup2(saved_err, 2);
        close(saved_out);
        close(saved_err);
    }
};

int ignoreSample(void *, uint32_t, uint64_t, uint64_t, uint32_t, uint32_t) {
    return 0;
}

// Every reader operation on one damaged copy. The copy is its own allocation of exactly its
// length, so a read past its end is caught by the address sanitizer. Loops are bounded far
// above what any fixture needs, so a hang shows up as a failure, not as a stuck test.
void exercise(const std::vector<uint8_t> &bytes, bool mixed) {
    std::vector<uint8_t> copy(bytes);
    uint8_t *data = copy.empty() ? nullptr : copy.data();
    mp4_muxer *m = mp4_reader_create();
    mp4_buf_put(m, data, uint32_t(copy.size()));
    mp4_play_mixed_timescales(m, mixed);
    mp4_set_sample_callback(m, ignoreSample, nullptr);
    mp4_is_fragmented(m);
    int calls = 0;
    while (mp4_play(m) == 0 && ++calls < 200000) {
    }
    EXPECT_LT(calls, 200000);
    calls = 0;
    while (mp4_play_reverse(m) == 0 && ++calls < 200000) {
    }
    EXPECT_LT(calls, 200000);
    for (uint64_t t : {uint64_t(0), uint64_t(30000), uint64_t(1) << 40, UINT64_MAX}) {
        mp4_seek(m, t);
        for (int i = 0; i < 3; i++)
            mp4_play(m);
        mp4_play_reverse(m);
    }
    for (uint32_t id = 0; id < 4; id++) {
        mp4_get_fourcc(m, id);
        mp4_get_timescale(m, id);
        mp4_get_samplerate(m, id);
        mp4_get_timestamp(m, int(id));
        mp4_get_default_duration(m, int(id));
    }
    mp4_buf_get(m);
    mp4_delete(m);

    // The same bytes as a fragment stream.
    m = mp4_reader_create();
    mp4_buf_put(m, data, uint32_t(copy.size()));
    for (int i = 0; i < 10000; i++) {
        uint8_t *payload = nullptr;
        uint32_t length = 0;
        mp4_get_mdat(m, &payload, &length);
        if (!payload)
            break;
        ASSERT_GE(payload, data);
        ASSERT_LE(payload + length, data + copy.size()) << "a payload inside the buffer";
        mp4_get_timestamp(m, 1);
        mp4_get_timestamp(m, 2);
    }
    mp4_buf_get(m);
    mp4_delete(m);
}

const char *const all_fixtures[] = {"h264_aac.mp4",
                                    "h264_aac.mov",
                                    "h264_aac_default_ts.mp4",
                                    "h264_only_faststart.mp4",
                                    "frag.mp4",
                                    "h264_bframes.mp4",
                                    "mp4v.mp4",
                                    "pcm_only.mov",
                                    "pcm_s16le.mov"};

TEST(ReaderDamage, TruncatedFilesEndCleanly) {
    for (const char *name : all_fixtures) {
        SCOPED_TRACE(name);
        auto data = readFile(fixture(name));
        ASSERT_FALSE(data.empty());
        // Every length around and inside each movie or fragment header, a sweep elsewhere.
        std::vector<bool> cut(data.size() + 1, false);
        for (size_t n = 0; n <= data.size(); n += 397)
            cut[n] = true;
        for (auto &b : topLevel(data))
            if (b.type == fourcc("moov") || b.type == fourcc("moof"))
                for (uint64_t n = b.start; n <= std::min<uint64_t>(b.end + 8, data.size()); n++)
                    cut[n] = true;
        Silence quiet;
        for (size_t n = 0; n <= data.size(); n++)
            if (cut[n])
                exercise(std::vector<uint8_t>(data.begin(), data.begin() + long(n)), n % 2);
    }
}

TEST(ReaderDamage, FlippedBytesInTheHeadersEndCleanly) {
    for (const char *name : all_fixtures) {
        SCOPED_TRACE(name);
        auto data = readFile(fixture(name));
        ASSERT_FALSE(data.empty());
        Silence quiet;
        for (auto &b : topLevel(data)) {
            if (b.type != fourcc("moov") && b.type != fourcc("moof"))
                continue;
            // Every byte once, with a pattern that varies from byte to byte: all bits, the top
            // bit (sizes and counts jump by 2^31), the low bit (off by one).
            const uint8_t patterns[] = {0xFF, 0x80, 0x01};
            for (uint64_t i = b.start; i < b.end && i < data.size(); i++) {
                auto damaged = data;
                damaged[i] ^= patterns[i % 3];
                exercise(damaged, (i / 3) % 2);
            }
        }
    }
}

TEST(ReaderDamage, TruncatedFilesThroughTheFileBackEnds) {
    auto data = readFile(fixture("h264_only_faststart.mp4"));
    char path[] = "/tmp/mp4kit_reader_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    Silence quiet;
    for (size_t n = 0; n <= data.size(); n += 211) {
        FILE *f = fopen(path, "wb");
        fwrite(data.data(), 1, n, f);
        fclose(f);
        for (int backend = 0; backend < 2; backend++) {
            mp4_muxer *m = mp4_reader_create();
            int in = -1;
            if (backend == 0) {
                mp4_file_name_ascii(m, path);
            } else {
                in = open(path, O_RDONLY);
                mp4_file_descriptor(m, in);
            }
            mp4_set_sample_callback(m, ignoreSample, nullptr);
            int calls = 0;
            while (mp4_play(m) == 0 && ++calls < 100000) {
            }
            EXPECT_LT(calls, 100000);
            while (mp4_play_reverse(m) == 0 && ++calls < 200000) {
            }
            mp4_seek(m, 20000);
            mp4_play(m);
            mp4_delete(m);
            if (in >= 0)
                close(in);
        }
    }
    unlink(path);
}

// ---- the command-line tool -------------------------------------------------------------------

std::string runTool(const std::string &args) {
    const char *tool = getenv("MP4KIT_TOOL");
    std::string out;
    if (!tool)
        return out;
    FILE *p = popen((std::string(tool) + " " + args).c_str(), "r");
    if (!p)
        return out;
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0)
        out.append(buf, n);
    pclose(p);
    return out;
}

std::vector<Delivery> parseSamples(const std::string &text) {
    std::vector<Delivery> out;
    const char *p = text.c_str();
    Delivery d;
    unsigned long long offset, timestamp;
    int used = 0;
    while (sscanf(p, "%u %llu %llu %u %u\n%n", &d.track, &offset, &timestamp, &d.size, &d.flags,
                  &used) == 5) {
        d.offset = offset;
        d.timestamp = timestamp;
        out.push_back(d);
        p += used;
    }
    EXPECT_EQ(*p, '\0') << "every line is a sample line";
    return out;
}

TEST(ReaderTool, SamplesListsWhatThePlayerDelivers) {
    if (!getenv("MP4KIT_TOOL"))
        GTEST_SKIP() << "MP4KIT_TOOL not set (run through ctest)";
    std::string path = fixture("h264_aac_default_ts.mp4");
    {
        FileReader r(path, true);
        r.playAll();
        EXPECT_EQ(parseSamples(runTool("samples '" + path + "'")), r.got);
    }
    {
        FileReader r(path, true);
        r.playAll();
        r.got.clear();
        r.reverseAll();
        EXPECT_EQ(parseSamples(runTool("samples '" + path + "' --reverse")), r.got);
    }
    {
        FileReader r(path, true);
        ASSERT_EQ(mp4_seek(r.m, 16000), 0);
        r.playAll();
        auto listed = parseSamples(runTool("samples --seek 16000 '" + path + "'"));
        EXPECT_EQ(listed, r.got);
        ASSERT_FALSE(listed.empty());
        EXPECT_EQ(listed[0].timestamp, 30u * 512) << "the key frame at 1 s, before 16000";
    }
    EXPECT_EQ(runTool("samples 2>&1"), "usage: mp4kit samples FILE [--reverse] [--seek TIME]\n");
    EXPECT_EQ(runTool("samples --seek x '" + path + "' 2>&1"),
              "mp4kit samples: --seek needs a decode time (video timescale)\n");
}

TEST(ReaderTool, InfoDescribesPlainAndFragmentedMovies) {
    if (!getenv("MP4KIT_TOOL"))
        GTEST_SKIP() << "MP4KIT_TOOL not set (run through ctest)";
    std::string plain = fixture("h264_aac.mp4");
    std::string text = runTool("info '" + plain + "'");
    EXPECT_NE(text.find(": plain movie, timescale 1000, duration 2000 (2.000 s), 2 tracks\n"),
              std::string::npos)
        << text;
    // Sizes and counts: the sums of the sample tables, as the player reports them.
    FileReader r(plain);
    r.playAll();
    uint64_t video_bytes = 0;
    for (auto &d : r.got)
        if (d.track == 1)
            video_bytes += d.size;
    char line[200];
    snprintf(line, sizeof line,
             "track 1: vide avc1 160x120, timescale 48000, duration 96000 (2.000 s), 60 samples, "
             "%lu bytes\n",
             (unsigned long)video_bytes);
    EXPECT_NE(text.find(line), std::string::npos) << text;
    EXPECT_NE(text.find("track 2: soun mp4a 48000 Hz 2 ch, timescale 48000, "), std::string::npos)
        << text;
    EXPECT_NE(text.find(", 95 samples, "), std::string::npos) << text;

    std::string frag = fixture("frag.mp4");
    text = runTool("info '" + frag + "'");
    EXPECT_NE(text.find(": fragmented movie (4 fragments)"), std::string::npos) << text;
    // Every sample lies in one of the mdats: the two tracks' bytes add up to their payloads.
    auto data = readFile(frag);
    uint64_t payload = 0;
    for (auto &b : topLevel(data))
        if (b.type == fourcc("mdat"))
            payload += b.end - b.payload;
    unsigned long n1 = 0, b1 = 0, n2 = 0, b2 = 0;
    const char *t1 = strstr(text.c_str(), "track 1: vide avc1 160x120");
    const char *t2 = strstr(text.c_str(), "track 2: soun mp4a 48000 Hz 2 ch");
    ASSERT_TRUE(t1 && t2) << text;
    ASSERT_EQ(sscanf(strstr(t1, " s), ") + 5, "%lu samples, %lu bytes", &n1, &b1), 2);
    ASSERT_EQ(sscanf(strstr(t2, " s), ") + 5, "%lu samples, %lu bytes", &n2, &b2), 2);
    EXPECT_EQ(n1, 60u);
    EXPECT_EQ(n2, 95u);
    EXPECT_EQ(b1 + b2, payload);
    EXPECT_EQ(runTool("info /nonexistent/file.mp4 2>&1"),
              "mp4kit info: /nonexistent/file.mp4: file open failed\n");
}

} // namespace
