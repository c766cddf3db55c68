// The writer: track creation, sample writing with its tables and chunking, fragment-mode
// samples, finishing (durations, edit lists, timescales), the size limit and the recovery of a
// recording whose output failed.
#include "internal.h"
#include "test_util.h"
#include "tree_compare.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using test_util::be32;
using test_util::Bytes;
using test_util::cat;
using test_util::SC3;
using test_util::SC4;

const Bytes SPS = {0x67, 0x42, 0xC0, 0x1E, 0xD9, 0x01, 0x41, 0xFB, 0x01, 0x10};
const Bytes PPS = {0x68, 0xCB, 0x83, 0xCB};
const Bytes IDR = {0x65, 0x88, 0x84, 0x00, 0x33, 0x21};
const Bytes PSLICE = {0x41, 0x9A, 0x02};

// An access unit as x264 hands it over: delimiter, parameter sets, the slice.
Bytes idrUnit() {
    return cat({SC4, {0x09, 0x10}, SC4, SPS, SC4, PPS, SC4, IDR});
}
Bytes pUnit() {
    return cat({SC4, PSLICE});
}

// An ADTS frame (no CRC unless protected) around `payload`.
Bytes adts(const Bytes &payload, bool crc = false) {
    size_t len = payload.size() + (crc ? 9 : 7);
    Bytes h = {0xFF,
               uint8_t(crc ? 0xF0 : 0xF1),
               0x4C,
               uint8_t(0x80 | ((len >> 11) & 3)),
               uint8_t(len >> 3),
               uint8_t(((len & 7) << 5) | 0x1F),
               0xFC};
    if (crc) {
        h.push_back(0xAB);
        h.push_back(0xCD);
    }
    return cat({h, payload});
}

struct Handle {
    mp4_muxer *m;
    explicit Handle(mp4_muxer *h) : m(h) {}
    ~Handle() { mp4_delete(m); }
    Handle(const Handle &) = delete;
};

void write(mp4_muxer *m, uint32_t track, const Bytes &b, uint32_t duration) {
    mp4_write_track(m, track, b.data(), uint32_t(b.size()), duration);
}

// Box of the movie tree at a path such as "trak#2/mdia/minf/stbl/stsc".
Box *at(Box *b, const std::string &path) {
    std::istringstream in(path);
    std::string part;
    while (b && std::getline(in, part, '/')) {
        int nth = part.size() > 5 ? atoi(part.c_str() + 5) : 1;
        const uint32_t type = be32(reinterpret_cast<const uint8_t *>(part.data()));
        Box *c = b->first_child;
        while (c && !(c->type == type && --nth == 0))
            c = c->next;
        b = c;
    }
    return b;
}

// What the plain sample callback was told: offset, decode time, stored size, flags.
std::vector<std::array<uint64_t, 4>> seen;
int recordSample(uint64_t off, uint64_t ts, uint32_t size, uint32_t flags) {
    seen.push_back({off, ts, size, flags});
    return 0;
}

template <class T> T *table(mp4_muxer *m, int track, const char *type) {
    return static_cast<T *>(
        at(m->moov, "trak#" + std::to_string(track) + "/mdia/minf/stbl/" + type));
}

std::vector<std::array<uint32_t, 3>> stscOf(mp4_muxer *m, int track) {
    std::vector<std::array<uint32_t, 3>> out;
    Stsc *s = table<Stsc>(m, track, "stsc");
    for (uint32_t i = 0; s && i < s->entry_count; i++)
        out.push_back({s->entries[i].first_chunk, s->entries[i].samples_per_chunk,
                       s->entries[i].sample_description_index});
    return out;
}

std::vector<std::pair<uint32_t, uint32_t>> sttsOf(mp4_muxer *m, int track) {
    std::vector<std::pair<uint32_t, uint32_t>> out;
    Stts *s = table<Stts>(m, track, "stts");
    for (uint32_t i = 0; s && i < s->entry_count; i++)
        out.emplace_back(s->entries[i].sample_count, s->entries[i].sample_delta);
    return out;
}

std::vector<uint32_t> stssOf(mp4_muxer *m, int track) {
    Stss *s = table<Stss>(m, track, "stss");
    return s ? std::vector<uint32_t>(s->entries, s->entries + s->entry_count)
             : std::vector<uint32_t>();
}

std::vector<uint32_t> stszOf(mp4_muxer *m, int track) {
    Stsz *s = table<Stsz>(m, track, "stsz");
    return s && s->entries ? std::vector<uint32_t>(s->entries, s->entries + s->sample_count)
                           : std::vector<uint32_t>();
}

std::vector<uint64_t> chunkOffsets(mp4_muxer *m, int track) {
    std::vector<uint64_t> out;
    if (Stco *s = table<Stco>(m, track, "stco"))
        for (uint32_t i = 0; i < s->entry_count; i++)
            out.push_back(s->entries[i]);
    if (Co64 *s = table<Co64>(m, track, "co64"))
        for (uint32_t i = 0; i < s->entry_count; i++)
            out.push_back(s->entries[i]);
    return out;
}

std::vector<std::array<int64_t, 2>> elstOf(mp4_muxer *m, int track) {
    std::vector<std::array<int64_t, 2>> out;
    Elst *e = static_cast<Elst *>(at(m->moov, "trak#" + std::to_string(track) + "/edts/elst"));
    for (uint32_t i = 0; e && i < e->entry_count; i++) {
        EXPECT_EQ(e->entries[i].media_rate_integer, 1);
        out.push_back({int64_t(e->entries[i].segment_duration), e->entries[i].media_time});
    }
    return out;
}

Mdhd *mdhdOf(mp4_muxer *m, int track) {
    return static_cast<Mdhd *>(at(m->moov, "trak#" + std::to_string(track) + "/mdia/mdhd"));
}

// ---- expected bytes --------------------------------------------------------------------------

using test_util::box;
using test_util::fullBox;

// Big-endian fields of one width, one after the other.
template <void (*put)(Bytes &, uint32_t)> Bytes fields(std::initializer_list<uint32_t> v) {
    Bytes b;
    for (uint32_t x : v)
        put(b, x);
    return b;
}
const auto u8s = &fields<test_util::put8>;
const auto u16s = &fields<test_util::put16>;
const auto u32s = &fields<test_util::put32>;
const Bytes MATRIX = u32s({0x10000, 0, 0, 0, 0x10000, 0, 0, 0, 0x40000000});

// Characters of `s`, with its terminator when `nul`.
Bytes str(const char *s, bool nul = true) {
    return Bytes(s, s + strlen(s) + (nul ? 1 : 0));
}

// ---- track creation --------------------------------------------------------------------------

TEST(TrackCreation, RecordsIdsAndCodecSettings) {
    // Handlers, sizes, rates and delays are checked where they reach the file (MovieLayout,
    // Durations, FragmentedMovieHeader.SubtitleTrack...); here what only the track record shows.
    Handle h(mp4_writer_create());
    EXPECT_EQ(mp4_video_track_create(h.m, fourcc("avc1"), 90000, 3000, 0, 640, 480, 77, 41), 1u);
    EXPECT_EQ(mp4_audio_track_create(h.m, fourcc("mp4a"), 44100, 1024, 900, 44100, 1), 2u);
    EXPECT_EQ(
        mp4_subtitle_track_create(h.m, fourcc("mp4s"), "Subs", 1000, 40, 0, 720, 576, nullptr), 3u);
    EXPECT_EQ(h.m->next_track_id, 4u);
    EXPECT_EQ(h.m->moov, nullptr); // the tree waits for the first sample

    const mp4_track &v = h.m->tracks[0], &a = h.m->tracks[1], &s = h.m->tracks[2];
    EXPECT_EQ(v.samplerate, 0u);
    EXPECT_EQ(a.width, 0u);
    EXPECT_EQ(s.samplerate, 1000u); // a subtitle track keeps its timescale here
    EXPECT_EQ(s.channels, 0u);
    // Only the video constructor sets the avcC profile and level.
    EXPECT_EQ(h.m->avc_profile, 77u);
    EXPECT_EQ(h.m->avc_level, 41u);
}

TEST(TrackCreation, CodesOfStructuralBoxesAreRefusedAsSampleEntries) {
    Handle h(mp4_writer_create());
    testing::internal::CaptureStderr();
    EXPECT_EQ(mp4_video_track_create(h.m, fourcc("stts"), 90000, 3000, 0, 64, 48, 0, 0), 0u);
    EXPECT_EQ(mp4_audio_track_create(h.m, fourcc("moov"), 48000, 1024, 0, 48000, 2), 0u);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("stts cannot be a sample entry type"), std::string::npos) << err;
    EXPECT_EQ(h.m->next_track_id, 1u);
    EXPECT_EQ(mp4_video_track_create(h.m, fourcc("jpeg"), 90000, 3000, 0, 64, 48, 0, 0), 1u);
}

TEST(TrackCreation, TrackArrayGrowthFailureIsError2) {
    Handle h(mp4_writer_create());
    testing::internal::CaptureStderr();
    mp4_alloc_fail_after(0);
    uint32_t id = mp4_video_track_create(h.m, fourcc("avc1"), 90000, 3000, 0, 64, 48, 0, 0);
    mp4_alloc_fail_after(-1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "mp4_video_track_create: track realloc failed\n");
    EXPECT_EQ(id, 0u);
    EXPECT_EQ(h.m->error, MP4_ERR_NOMEM);
    EXPECT_EQ(h.m->next_track_id, 1u);
}

TEST(TrackCreation, TracksAddedToAnExistingTreeGetTheirTrakAtOnce) {
    Handle h(mp4_writer_create());
    mp4_video_track_create(h.m, fourcc("avc1"), 90000, 3000, 0, 64, 48, 66, 30);
    create_moov(h.m);
    ASSERT_NE(h.m->moov, nullptr);
    // A second avc1 track inserts its own iods right after mvhd, ahead of the first one's.
    mp4_video_track_create(h.m, fourcc("avc1"), 90000, 3000, 0, 32, 32, 66, 30);
    // No picture size: no trak.
    mp4_video_track_create(h.m, fourcc("avc1"), 90000, 3000, 0, 0, 32, 66, 30);
    mp4_audio_track_create(h.m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    std::vector<uint32_t> kids;
    for (Box *b = h.m->moov->first_child; b; b = b->next)
        kids.push_back(b->type);
    EXPECT_EQ(kids, (std::vector<uint32_t>{fourcc("mvhd"), fourcc("iods"), fourcc("iods"),
                                           fourcc("trak"), fourcc("trak"), fourcc("trak")}));
    EXPECT_EQ(static_cast<Mvhd *>(at(h.m->moov, "mvhd"))->next_track_ID, 5u);
    EXPECT_EQ(static_cast<Tkhd *>(at(h.m->moov, "trak#3/tkhd"))->track_ID, 4u);

    testing::internal::CaptureStderr();
    create_track(h.m, 0);
    create_track(h.m, 9);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "create_track: bad track id 0\ncreate_track: bad track id 9\n");
}

TEST(TrackCreation, UnknownSampleRateGivesFrequencyIndex15) {
    Handle h(mp4_writer_create());
    mp4_audio_track_create(h.m, fourcc("mp4a"), 12345, 1024, 0, 12345, 2);
    mp4_audio_track_create(h.m, fourcc("mp4a"), 44100, 1024, 0, 44100, 1);
    create_moov(h.m);
    auto asc = [&](int track) {
        Esds *e = static_cast<Esds *>(
            at(h.m->moov, "trak#" + std::to_string(track) + "/mdia/minf/stbl/stsd/mp4a/esds"));
        const DecoderSpecificInfo &d = e->es.decConfigDescr.decSpecificInfo;
        return Bytes(d.data, d.data + d.length);
    };
    EXPECT_EQ(asc(1), Bytes({0x17, 0x90})); // AAC LC, index 15, 2 channels
    EXPECT_EQ(asc(2), Bytes({0x12, 0x08})); // index 4 (44100), 1 channel
}

TEST(TrackCreation, SubtitleTrackBeforeTheTreeIsBuiltWithTheTreeAndKeepsItsPalette) {
    uint32_t palette[16];
    for (int i = 0; i < 16; i++)
        palette[i] = 0x00102030u + uint32_t(i);
    Handle early(mp4_writer_create());
    mp4_subtitle_track_create(early.m, fourcc("mp4s"), "Subtitles", 90000, 3600, 0, 720, 576,
                              palette);
    palette[0] = 0xDEADBEEF; // the track keeps its own copy
    create_moov(early.m);

    Handle late(mp4_writer_create());
    create_moov(late.m);
    palette[0] = 0x00102030u;
    mp4_subtitle_track_create(late.m, fourcc("mp4s"), "Subtitles", 90000, 3600, 0, 720, 576,
                              palette);

    // One builder: both movies hold the same trak.
    Bytes f = boxtest::writeToMemory(early.m->moov);
    EXPECT_EQ(f, boxtest::writeToMemory(late.m->moov));

    ASSERT_FALSE(test_util::boxBytes(f, "moov/trak").empty());
    EXPECT_FALSE(test_util::findBox(f, "moov/trak/edts").found);
    EXPECT_TRUE(test_util::findBox(f, "moov/trak/mdia/minf/nmhd").found);
    EXPECT_FALSE(test_util::findBox(f, "moov/trak/mdia/minf/stbl/stss").found);
    Bytes mdhd = test_util::boxBytes(f, "moov/trak/mdia/mdhd");
    ASSERT_EQ(mdhd.size(), 32u);
    EXPECT_EQ(test_util::be16(&mdhd[28]), 0x41EC); // "pol"
    Bytes esds = test_util::boxBytes(f, "moov/trak/mdia/minf/stbl/stsd/mp4s/esds");
    Bytes pal;
    for (int i = 0; i < 16; i++)
        test_util::put32(pal, 0x00102030u + uint32_t(i));
    EXPECT_EQ(esds,
              fullBox("esds", 0, 0,
                      cat({u8s({3, 87}), u16s({0}), u8s({0, 4, 79, 0xE0, (0x38 << 2) | 2 | 1, 0}),
                           u16s({5454}), u32s({85376, 4920}), u8s({5, 64}), pal, u8s({6, 1, 2})})));
    Bytes tkhd = test_util::boxBytes(f, "moov/trak/tkhd");
    EXPECT_EQ(be32(&tkhd[8]) & 0xFFFFFF, 7u);
}

TEST(TrackCreation, SubtitleTrackWithoutPaletteGetsTheDefaultOne) {
    Handle h(mp4_writer_create());
    mp4_subtitle_track_create(h.m, fourcc("mp4s"), "S", 1000, 40, 0, 0, 0, nullptr);
    create_moov(h.m);
    Esds *e = static_cast<Esds *>(at(h.m->moov, "trak/mdia/minf/stbl/stsd/mp4s/esds"));
    ASSERT_NE(e, nullptr);
    const uint8_t *d = e->es.decConfigDescr.decSpecificInfo.data;
    Bytes expected(64, 0);
    for (int i = 1; i <= 3; i++)
        expected[4 * i + 1] = expected[4 * i + 2] = expected[4 * i + 3] = 0xF0;
    EXPECT_EQ(Bytes(d, d + 64), expected);
}

TEST(TrackCreation, SubtitleTrackOnARemuxingReaderLandsInItsWriter) {
    Handle r(mp4_remuxer_create());
    ASSERT_NE(r.m->linked, nullptr);
    mp4_video_track_create(r.m->linked, fourcc("avc1"), 90000, 3000, 0, 64, 48, 0, 0);
    EXPECT_EQ(mp4_subtitle_track_create(r.m, fourcc("mp4s"), "S", 1000, 40, 0, 0, 0, nullptr), 2u);
    EXPECT_EQ(r.m->linked->next_track_id, 3u);
    EXPECT_EQ(r.m->next_track_id, 1u);
    Handle plain(mp4_reader_create());
    EXPECT_EQ(mp4_subtitle_track_create(plain.m, fourcc("mp4s"), "S", 1000, 40, 0, 0, 0, nullptr),
              0u);
}

TEST(TrackCreation, FileTypeBoxByFlavour) {
    auto ftyp = [](mp4_muxer *m) {
        Bytes buf(64);
        mp4_buf_put(m, buf.data(), 64);
        write_ftyp(m);
        buf.resize(mp4_buf_get(m));
        mp4_delete(m);
        return buf;
    };
    EXPECT_EQ(ftyp(mp4_writer_create()),
              box("ftyp", cat({str("mp42", false), u32s({1}), str("isommp42", false)})));
    mp4_muxer *v = mp4_writer_create();
    mp4_audio_track_create(v, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    mp4_video_track_create(v, fourcc("mp4v"), 90000, 3000, 0, 64, 48, 0, 0);
    EXPECT_EQ(ftyp(v), box("ftyp", cat({str("mp42", false), u32s({1}), str("mp41mp42", false)})));
    EXPECT_EQ(ftyp(mov_writer_create()), box("ftyp", cat({str("qt  ", false), u32s({0x20050300}),
                                                          str("qt  ", false), u32s({0})})));
}

// ---- the movie box, byte for byte ------------------------------------------------------------

// One H.264 and one AAC track: V A V A A, then the finish.
Bytes recordSmallMovie(bool mov, const std::string &path) {
    mp4_muxer *m = mov ? mov_writer_create() : mp4_writer_create();
    mp4_file_name_ascii(m, path.c_str());
    mp4_video_track_create(m, fourcc("avc1"), 90000, 3600, 0, 64, 48, 66, 30);
    mp4_audio_track_create(m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    write(m, 1, idrUnit(), 3600);
    write(m, 2, adts({1, 2, 3, 4, 5}), 1024);
    write(m, 1, pUnit(), 3600);
    write(m, 2, adts({6, 7, 8, 9, 10}), 1024);
    write(m, 2, adts({11, 12, 13, 14, 15}), 1024);
    mp4_write_movie(m);
    EXPECT_EQ(mp4_get_error_code(m), 0u);
    mp4_delete(m);
    return test_util::readFile(path);
}

Bytes expectedMoov(bool mov) {
    const Bytes mvhd = fullBox("mvhd", 0, 0,
                               cat({u32s({0, 0, 90000, 7200, 0x10000}), u16s({0x100}), Bytes(10, 0),
                                    MATRIX, Bytes(24, 0), u32s({3})}));
    const Bytes iods = fullBox("iods", 0, 0,
                               cat({u8s({0x10, 19}), u16s({0x004F}),
                                    u8s({0xFF, 0xFF, 0x0F, 0x03, 0xFF, 3, 4}), Bytes(10, 0)}));
    auto tkhd = [](uint32_t flags, uint32_t id, uint32_t duration, uint32_t volume, uint32_t w,
                   uint32_t h) {
        return fullBox("tkhd", 0, flags,
                       cat({u32s({0, 0, id, 0, duration}), Bytes(8, 0), u16s({0, 0, volume, 0}),
                            MATRIX, u32s({w << 16, h << 16})}));
    };
    auto mdhd = [](uint32_t ts, uint32_t duration) {
        return fullBox("mdhd", 0, 0, cat({u32s({0, 0, ts, duration}), u16s({0, 0})}));
    };
    auto hdlr = [](const char *type, const char *name) {
        return fullBox("hdlr", 0, 0, cat({u32s({0}), str(type, false), Bytes(12, 0), str(name)}));
    };
    const Bytes dinf = box(
        "dinf", fullBox("dref", 0, 0, cat({u32s({1}), fullBox(mov ? "alis" : "url ", 0, 1, {})})));
    auto elst = [](std::vector<std::array<int64_t, 2>> entries) {
        Bytes b = u32s({uint32_t(entries.size())});
        for (auto &e : entries)
            test_util::append(b, cat({u32s({uint32_t(e[0]), uint32_t(e[1])}), u16s({1, 0})}));
        return box("edts", fullBox("elst", 0, 0, b));
    };
    Bytes compressor = cat({u8s({13}), str("Talvorin 4417", false), Bytes(18, 0)});
    const Bytes avcc =
        box("avcC", cat({u8s({1, 0x42, 0, 0x1E, 0xFF, 0xE1}), u16s({uint32_t(SPS.size())}), SPS,
                         u8s({1}), u16s({uint32_t(PPS.size())}), PPS}));
    const Bytes avc1 = box("avc1", cat({Bytes(6, 0), u16s({1, 0, 0}), Bytes(12, 0), u16s({64, 48}),
                                        u32s({0x480000, 0x480000, 0}), u16s({1}), compressor,
                                        u16s({0x18, 0xFFFF}), avcc}));
    Bytes vminf = fullBox("vmhd", 0, 1, u16s({0, 0, 0, 0}));
    if (mov)
        vminf = cat({vminf, hdlr("alis", "Alias Data Handler")});
    vminf = cat({vminf, dinf,
                 box("stbl", cat({fullBox("stsd", 0, 0, cat({u32s({1}), avc1})),
                                  fullBox("stts", 0, 0, u32s({1, 2, 3600})),
                                  fullBox("stss", 0, 0, u32s({1, 1})),
                                  fullBox("stsc", 0, 0, u32s({1, 1, 1, 1})),
                                  fullBox("stsz", 0, 0, u32s({0, 2, 10, 7})),
                                  fullBox("stco", 0, 0, u32s({2, 40, 55}))}))});
    const Bytes vtrak =
        box("trak", cat({tkhd(7, 1, 7200, 0, 64, 48), elst({{7200, 0}}),
                         box("mdia", cat({mdhd(90000, 7200), hdlr("vide", "Video Handler"),
                                          box("minf", vminf)}))}));

    const Bytes esds =
        fullBox("esds", 0, 0,
                cat({u8s({3, 26}), u16s({1}), u8s({0, 4, 17, 0x40, 0x15, 0}), u16s({15000}),
                     u32s({1500000, 0}), u8s({5, 2, 0x11, 0x90, 6, 2, 2, 0})}));
    const Bytes mp4a = box("mp4a", cat({Bytes(6, 0), u16s({1, 0, 0}), u32s({0}),
                                        u16s({2, 16, 0, 0}), u32s({48000u << 16}), esds}));
    Bytes aminf = fullBox("smhd", 0, mov ? 1 : 0, u16s({0, 0}));
    if (mov)
        aminf = cat({aminf, hdlr("alis", "Alias Data Handler")});
    aminf = cat({aminf, dinf,
                 box("stbl", cat({fullBox("stsd", 0, 0, cat({u32s({1}), mp4a})),
                                  fullBox("stts", 0, 0, u32s({1, 3, 1024})),
                                  fullBox("stsc", 0, 0, u32s({2, 1, 1, 1, 2, 2, 1})),
                                  fullBox("stsz", 0, 0, u32s({0, 3, 5, 5, 5})),
                                  fullBox("stco", 0, 0, u32s({2, 50, 62}))}))});
    const Bytes atrak =
        box("trak", cat({tkhd(1, 2, 5760, 0x100, 0, 0), elst({{5760, 0}, {1440, -1}}),
                         box("mdia", cat({mdhd(48000, 3072), hdlr("soun", "Audio Handler"),
                                          box("minf", aminf)}))}));
    return box("moov", cat({mvhd, iods, vtrak, atrak}));
}

TEST(MovieLayout, MovieBoxByteForByteInBothFlavours) {
    // The QuickTime file type box is checked in TrackCreation.FileTypeBoxByFlavour.
    test_util::TempDir dir;
    for (bool mov : {false, true}) {
        SCOPED_TRACE(mov ? "mov" : "mp4");
        Bytes f = recordSmallMovie(mov, dir.file(mov ? "a.mov" : "a.mp4"));
        const std::string pad = mov ? "wide" : "free";
        EXPECT_EQ(test_util::topLevel(f), (std::vector<std::string>{"ftyp", pad, "mdat", "moov"}));
        EXPECT_EQ(test_util::boxBytes(f, "moov"), expectedMoov(mov));
        // The media data: each slice behind its length, the audio without ADTS headers.
        EXPECT_EQ(test_util::boxBytes(f, "mdat"), box("mdat", cat({u32s({6}),
                                                                   IDR,
                                                                   {1, 2, 3, 4, 5},
                                                                   u32s({3}),
                                                                   PSLICE,
                                                                   {6, 7, 8, 9, 10},
                                                                   {11, 12, 13, 14, 15}})));
        EXPECT_EQ(test_util::boxBytes(f, pad), mov ? box("wide", {}) : box("free", {}));
    }
}

TEST(MovieLayout, SecondFinishLeavesTheFileAlone) {
    // Chosen behaviour: a finished movie is not written again (a second moov would follow the
    // first); the call reports the misuse and changes nothing.
    test_util::TempDir dir;
    mp4_muxer *m = mp4_writer_create();
    FILE *f = fopen(dir.file("a.mp4").c_str(), "w+b");
    mp4_file_pointer(m, f);
    mp4_video_track_create(m, fourcc("avc1"), 90000, 3600, 0, 64, 48, 66, 30);
    write(m, 1, idrUnit(), 3600);
    mp4_write_movie(m);
    fflush(f);
    Bytes once = test_util::readFile(dir.file("a.mp4"));
    testing::internal::CaptureStderr();
    mp4_write_movie(m);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "mp4_write_movie: movie already written\n");
    fflush(f);
    EXPECT_EQ(test_util::readFile(dir.file("a.mp4")), once);
    EXPECT_EQ(mp4_get_error_code(m), 0u);
    mp4_delete(m);
    fclose(f);
}

TEST(MovieLayout, FinishWithoutSamplesWritesTheFragmentedHeader) {
    Handle h(mp4_writer_create());
    mp4_video_track_create(h.m, fourcc("avc1"), 90000, 3600, 0, 64, 48, 66, 30);
    Bytes buf(4096);
    mp4_buf_put(h.m, buf.data(), uint32_t(buf.size()));
    mp4_write_movie(h.m);
    buf.resize(mp4_buf_get(h.m));
    EXPECT_EQ(test_util::topLevel(buf), (std::vector<std::string>{"ftyp", "moov"}));
    EXPECT_TRUE(test_util::findBox(buf, "moov/mvex/trex").found);
    EXPECT_EQ(h.m->moov, nullptr);

    Handle r(mp4_reader_create()); // a plain reader has nothing to finish
    mp4_write_movie(r.m);
    EXPECT_EQ(r.m->pos, 0u);
}

// ---- sample tables ---------------------------------------------------------------------------

TEST(SampleTables, RunsOfChunksShareStscEntries) {
    // A chunk ends at the other track's sample or at bytes written between samples. An entry
    // merged away comes back when its chunk grows.
    using E = std::array<uint32_t, 3>;
    struct Case {
        bool audio;
        std::vector<int> runs;
        std::vector<E> expected;
    };
    for (const Case &c : {Case{true, {3, 3, 3, 2}, {{1, 3, 1}, {4, 2, 1}}},
                          Case{false, {3, 3, 4}, {{1, 3, 1}, {3, 4, 1}}}}) {
        SCOPED_TRACE(c.audio ? "audio between" : "skip data between");
        Handle h(mp4_writer_create()); // no back-end: positions only
        mp4_video_track_create(h.m, fourcc("avc1"), 90000, 3600, 0, 64, 48, 66, 30);
        mp4_audio_track_create(h.m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
        for (int run : c.runs) {
            for (int i = 0; i < run; i++)
                write(h.m, 1, c.audio && i == 0 && run == 3 ? idrUnit() : pUnit(), 3600);
            uint8_t junk[4] = {};
            if (c.audio)
                write(h.m, 2, adts({1, 2, 3}), 1024);
            else
                mp4_write_skip_data(h.m, junk, 4);
        }
        EXPECT_EQ(stscOf(h.m, 1), c.expected);
        EXPECT_EQ(chunkOffsets(h.m, 1).size(), c.runs.size());
        if (c.audio) {
            EXPECT_EQ(stscOf(h.m, 2), (std::vector<E>{{1, 1, 1}}));
            EXPECT_EQ(chunkOffsets(h.m, 2).size(), 4u);
        }
    }
}

TEST(SampleTables, DurationRunsShareSttsEntries) {
    Handle h(mp4_writer_create());
    mp4_video_track_create(h.m, fourcc("avc1"), 90000, 3600, 0, 64, 48, 66, 30);
    for (uint32_t d : {3600u, 3600u, 3000u, 3000u, 3600u})
        write(h.m, 1, pUnit(), d);
    using E = std::pair<uint32_t, uint32_t>;
    EXPECT_EQ(sttsOf(h.m, 1), (std::vector<E>{{2, 3600}, {2, 3000}, {1, 3600}}));
    EXPECT_EQ(mdhdOf(h.m, 1)->duration, 16800u);
}

TEST(SampleTables, SyncSamplesOfH264AndMpeg4Visual) {
    Handle h(mp4_writer_create());
    mp4_video_track_create(h.m, fourcc("avc1"), 90000, 3600, 0, 64, 48, 66, 30);
    write(h.m, 1, idrUnit(), 3600);                          // 1: IDR behind 4-byte codes
    write(h.m, 1, pUnit(), 3600);                            // 2
    write(h.m, 1, cat({SC4, {0x09, 0x10}, SC3, IDR}), 3600); // 3: IDR slice, 3-byte code
    write(h.m, 1, cat({SC3, IDR}), 3600);                    // 4: a bare 3-byte IDR
    write(h.m, 1, cat({SC3, PSLICE}), 3600);                 // 5
    write(h.m, 1, cat({SC4, {0x09, 0x10}, SC4, SPS, SC3, PPS, SC3, IDR}), 3600); // 6
    EXPECT_EQ(stssOf(h.m, 1), (std::vector<uint32_t>{1, 3, 4, 6}));

    Handle v(mp4_writer_create());
    mp4_video_track_create(v.m, fourcc("mp4v"), 90000, 3600, 0, 64, 48, 0, 0);
    const Bytes vos = {0, 0, 1,    0xB0, 0x01, 0, 0,    1,    0xB5, 0x09, 0,
                       0, 1, 0x00, 0,    0,    1, 0x20, 0x08, 0xC8, 0x0D, 0x40};
    const Bytes gov = {0, 0, 1, 0xB3, 0x00, 0x10, 0x07};
    const Bytes ivop = {0, 0, 1, 0xB6, 0x10, 0x60, 0x91};
    const Bytes pvop = {0, 0, 1, 0xB6, 0x50, 0x60, 0x91};
    write(v.m, 1, cat({vos, gov, ivop}), 3600); // 1: header first, then a group and the plane
    write(v.m, 1, pvop, 3600);                  // 2
    write(v.m, 1, cat({gov, ivop}), 3600);      // 3: a group header before an I-plane
    write(v.m, 1, ivop, 3600);                  // 4
    write(v.m, 1, {0, 0, 1, 0xB6}, 3600);       // 5: too short to tell: not a sync sample
    EXPECT_EQ(stssOf(v.m, 1), (std::vector<uint32_t>{1, 3, 4}));
    // The header went to the esds, the plane data to the file.
    EXPECT_EQ(v.m->sps_size, vos.size() + gov.size());
    EXPECT_EQ(stszOf(v.m, 1)[0], ivop.size());
}

TEST(SampleTables, StartCodesBecomeLengthsAndHeadersAreStripped) {
    test_util::TempDir dir;
    using test_util::Delivery;
    std::vector<Delivery> calls;
    auto cb = [](void *o, uint32_t track, uint64_t off, uint64_t ts, uint32_t size, uint32_t fl) {
        static_cast<std::vector<Delivery> *>(o)->push_back({track, off, ts, size, fl});
        return 0;
    };
    mp4_muxer *m = mp4_writer_create();
    FILE *f = fopen(dir.file("a.mp4").c_str(), "w+b");
    mp4_file_pointer(m, f);
    mp4_set_sample_callback(m, cb, &calls);
    mp4_video_track_create(m, fourcc("avc1"), 90000, 3600, 0, 64, 48, 66, 30);
    mp4_audio_track_create(m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    write(m, 1, cat({SC4, SPS, SC4, PPS}), 3600); // headers only: nothing stored
    EXPECT_EQ(m->sps_size, SPS.size());
    EXPECT_EQ(m->pps_size, PPS.size());
    write(m, 1, cat({SC4, {0x09, 0xF0}, SC3, IDR}), 3600); // 3-byte slice code: one byte more
    write(m, 2, adts({1, 2, 3, 4}, true), 1024);           // CRC: 9 header bytes
    write(m, 2, adts({5, 6}), 1024);                       // 7 header bytes
    write(m, 2, adts({}), 1024);                           // header only: nothing
    Bytes other_sps = SPS;
    other_sps[3] = 0x28;
    write(m, 1, cat({SC4, other_sps, SC4, PPS, SC4, IDR}), 3600); // sets already captured
    mp4_write_movie(m);
    mp4_delete(m);
    fclose(f);
    Bytes file = test_util::readFile(dir.file("a.mp4"));
    Bytes mdat = test_util::boxBytes(file, "mdat");
    EXPECT_EQ(mdat, box("mdat", cat({u32s({6}), IDR, {1, 2, 3, 4}, {5, 6}, u32s({6}), IDR})));
    Bytes avcc = test_util::boxBytes(file, "moov/trak/mdia/minf/stbl/stsd/avc1/avcC");
    ASSERT_GT(avcc.size(), 8u + 6 + 2 + SPS.size());
    EXPECT_EQ(Bytes(avcc.begin() + 16, avcc.begin() + 16 + long(SPS.size())), SPS);

    // Callback: offset of the stored bytes, decode time, stored size, sync flags.
    EXPECT_EQ(calls,
              (std::vector<Delivery>{
                  {1, 40, 0, 10, 1}, {2, 50, 0, 4, 2}, {2, 54, 1024, 2, 2}, {1, 56, 3600, 10, 1}}));
    for (auto &c : calls)
        EXPECT_LE(c.offset + c.size, test_util::findBox(file, "mdat").end());
    // Stored sizes; the empty ADTS frame is no sample.
    Bytes stsz = test_util::boxBytes(file, "moov/trak#2/mdia/minf/stbl/stsz");
    EXPECT_EQ(stsz, fullBox("stsz", 0, 0, u32s({0, 2, 4, 2})));
}

TEST(SampleTables, PlainCallbackSeesEverySampleWithItsFlags) {
    seen.clear();
    Handle h(mp4_writer_create());
    mp4_set_callback(h.m, recordSample);
    mp4_video_track_create(h.m, fourcc("avc1"), 90000, 3600, 0, 64, 48, 66, 30);
    write(h.m, 1, idrUnit(), 3600);
    write(h.m, 1, pUnit(), 3000);
    write(h.m, 1, pUnit(), 3600);
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0], (std::array<uint64_t, 4>{40, 0, 10, 1}));
    EXPECT_EQ(seen[1], (std::array<uint64_t, 4>{50, 3600, 7, 0}));
    EXPECT_EQ(seen[2], (std::array<uint64_t, 4>{57, 6600, 7, 0}));
}

TEST(SampleTables, PcmBlocksCountEveryFrameAsOneSample) {
    seen.clear();
    Handle h(mov_writer_create());
    mp4_set_callback(h.m, recordSample);
    mp4_audio_track_create(h.m, fourcc("sowt"), 44100, 1024, 0, 48000, 2);
    Bytes block(4096, 0x11);
    for (int i = 0; i < 3; i++)
        write(h.m, 1, block, 1024);
    using E = std::pair<uint32_t, uint32_t>;
    EXPECT_EQ(sttsOf(h.m, 1), (std::vector<E>{{3072, 1}}));
    Stsz *stsz = table<Stsz>(h.m, 1, "stsz");
    EXPECT_EQ(stsz->sample_size, 1u);
    EXPECT_EQ(stsz->sample_count, 3072u);
    EXPECT_EQ(stscOf(h.m, 1), (std::vector<std::array<uint32_t, 3>>{{1, 3072, 1}}));
    EXPECT_EQ(mdhdOf(h.m, 1)->duration, 3072u);
    EXPECT_EQ(mdhdOf(h.m, 1)->timescale, 48000u); // the sampling rate, not the given timescale
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[1], (std::array<uint64_t, 4>{40 + 4096, 1024, 4096, 2}));
    EXPECT_EQ(seen[2][1], 2048u);
    SampleEntry *e = static_cast<SampleEntry *>(at(h.m->moov, "trak/mdia/minf/stbl/stsd/sowt"));
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->version, 1);
    EXPECT_EQ(e->bytesPerFrame, 4u);
    EXPECT_EQ(static_cast<Chan *>(getChild(e, fourcc("chan")))->ChannelLayoutTag, 0x00650002u);
}

TEST(SampleTables, ChunkOffsetsPast4GiBMoveToCo64) {
    Handle h(mp4_writer_create()); // no back-end: only the position moves
    mp4_video_track_create(h.m, fourcc("avc1"), 90000, 3600, 0, 64, 48, 66, 30);
    write(h.m, 1, idrUnit(), 3600);
    write(h.m, 1, pUnit(), 3600);
    for (int i = 0; i < 4; i++)
        mp4_write_skip_data(h.m, nullptr, 0x40000000);
    const uint64_t far = h.m->pos;
    ASSERT_GT(far, 0xFFFFFFFFull);
    EXPECT_NE(table<Stco>(h.m, 1, "stco"), nullptr);
    write(h.m, 1, pUnit(), 3600);
    write(h.m, 1, pUnit(), 3600);
    EXPECT_EQ(table<Stco>(h.m, 1, "stco"), nullptr);
    Co64 *co64 = table<Co64>(h.m, 1, "co64");
    ASSERT_NE(co64, nullptr);
    EXPECT_EQ(chunkOffsets(h.m, 1), (std::vector<uint64_t>{40, far}));
    EXPECT_TRUE(co64->node_flags & BOX_AUTO_SIZE);
    EXPECT_TRUE(co64->node_flags & BOX_OWNS_ARRAYS);
    EXPECT_EQ(stscOf(h.m, 1), (std::vector<std::array<uint32_t, 3>>{{1, 2, 1}}));
    EXPECT_EQ(checkBoxSize(co64), 16u + 2 * 8);
    // The skip boxes count as part of the mdat, so the finish finds it consistent.
    EXPECT_EQ(h.m->mdat->data_pos + h.m->mdat->size - 8, h.m->pos);
}

TEST(SampleTables, AReservedMovieKeepsItsSizeAsTheTreeChanges) {
    // With the movie kept in a region at the start, the moov's size is the region's.
    Handle h(mp4_writer_create());
    mp4_video_track_create(h.m, fourcc("avc1"), 90000, 3600, 0, 64, 48, 66, 30);
    write(h.m, 1, idrUnit(), 3600);
    h.m->moov->node_flags &= uint8_t(~BOX_AUTO_SIZE);
    h.m->moov->size = 65536;
    mp4_audio_track_create(h.m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2); // a trak is added
    EXPECT_NE(at(h.m->moov, "trak#2"), nullptr);
    EXPECT_EQ(h.m->moov->size, 65536u);
    for (int i = 0; i < 4; i++)
        mp4_write_skip_data(h.m, nullptr, 0x40000000);
    write(h.m, 1, pUnit(), 3600); // stco becomes co64
    ASSERT_NE(table<Co64>(h.m, 1, "co64"), nullptr);
    EXPECT_EQ(h.m->moov->size, 65536u);
}

TEST(SampleTables, SamplesFollowTheTablesWhenTheTreeChangesBetweenThem) {
    // The writer keeps each track's boxes between samples; a table replaced in between (as the
    // tree allows) must receive the next samples, and the one removed must not be touched.
    Handle h(mp4_writer_create());
    mp4_video_track_create(h.m, fourcc("avc1"), 90000, 3600, 0, 64, 48, 66, 30);
    mp4_audio_track_create(h.m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    write(h.m, 1, idrUnit(), 3600);
    write(h.m, 2, adts({1, 2, 3}), 1024);
    write(h.m, 1, pUnit(), 3600);
    const std::vector<uint32_t> before = stszOf(h.m, 1); // an IDR unit and a P unit, stored
    ASSERT_EQ(before.size(), 2u);
    Stsz *old_stsz = table<Stsz>(h.m, 1, "stsz");
    ASSERT_NE(old_stsz, nullptr);
    Box *stbl = getParent(old_stsz);
    auto *fresh = static_cast<Stsz *>(newBox(fourcc("stsz"), 20));
    deleteBox(old_stsz);
    addBox(fresh, stbl);
    deleteBox(table<Stss>(h.m, 1, "stss"));
    write(h.m, 1, pUnit(), 3600);
    write(h.m, 2, adts({4, 5}), 1024);
    write(h.m, 1, idrUnit(), 3600);
    EXPECT_EQ(table<Stsz>(h.m, 1, "stsz"), fresh);
    EXPECT_EQ(stszOf(h.m, 1), (std::vector<uint32_t>{before[1], before[0]}));
    EXPECT_EQ(table<Stss>(h.m, 1, "stss"), nullptr);
    EXPECT_EQ(stszOf(h.m, 2).size(), 2u); // the other track's boxes were left alone
}

TEST(SampleTables, NoPerSampleAllocationBetweenTableBoundaries) {
    Handle h(mp4_writer_create());
    mp4_video_track_create(h.m, fourcc("avc1"), 90000, 3600, 0, 64, 48, 66, 30);
    Bytes big(100000, 0x5A);
    big[0] = 0, big[1] = 0, big[2] = 0, big[3] = 1, big[4] = 0x41;
    for (int i = 0; i < 5; i++)
        write(h.m, 1, big, 3600); // 5 sizes: the tables hold room for 8
    unsigned long before = mp4_alloc_count();
    write(h.m, 1, big, 3600);
    write(h.m, 1, big, 3600);
    EXPECT_EQ(mp4_alloc_count(), before); // sample bytes are never copied
    EXPECT_EQ(stszOf(h.m, 1).size(), 7u);
}

TEST(SampleTables, TableGrowthFailureIsError2) {
    Handle h(mp4_writer_create());
    mp4_video_track_create(h.m, fourcc("avc1"), 90000, 3600, 0, 64, 48, 66, 30);
    write(h.m, 1, idrUnit(), 3600);
    testing::internal::CaptureStderr();
    mp4_alloc_fail_after(0);
    write(h.m, 1, pUnit(), 3600); // stts appends in place; stsz needs a second slot
    mp4_alloc_fail_after(-1);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("failed to allocate 8 bytes"), std::string::npos) << err;
    EXPECT_EQ(h.m->error, MP4_ERR_NOMEM);
}

TEST(SampleTables, BadTrackOrNullDataIsIgnored) {
    Handle h(mp4_writer_create());
    mp4_video_track_create(h.m, fourcc("avc1"), 90000, 3600, 0, 64, 48, 66, 30);
    Bytes u = pUnit();
    mp4_write_track(h.m, 0, u.data(), uint32_t(u.size()), 3600);
    mp4_write_track(h.m, 2, u.data(), uint32_t(u.size()), 3600);
    mp4_write_track(h.m, 1, nullptr, 10, 3600);
    mp4_write_track(nullptr, 1, u.data(), uint32_t(u.size()), 3600);
    EXPECT_EQ(h.m->pos, 0u);
    EXPECT_EQ(h.m->error, 0);
}

TEST(SampleTables, SkipDataOfSizeZeroWritesNothing) {
    Handle h(mp4_writer_create());
    Bytes buf(64, 0xEE);
    mp4_buf_put(h.m, buf.data(), 64);
    mp4_write_skip_data(h.m, buf.data(), 0);
    EXPECT_EQ(h.m->pos, 0u);
    const Bytes payload = {1, 2, 3};
    mp4_write_skip_data(h.m, payload.data(), 3);
    EXPECT_EQ(mp4_buf_get(h.m), 11u);
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 11), box("skip", payload));
}

TEST(SampleTables, StoredSamplesAreWrittenAsGiven) {
    Handle h(mp4_writer_create());
    mp4_video_track_create(h.m, fourcc("avc1"), 90000, 3600, 0, 64, 48, 66, 30);
    mp4_audio_track_create(h.m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    Bytes buf(256);
    // A fragment buffer shows the bytes exactly as they go out.
    mp4_buf_put(h.m, buf.data(), uint32_t(buf.size()));
    // A length-prefixed slice whose length bytes look like a start code, and a raw AAC frame
    // that begins like an ADTS header: neither is touched.
    Bytes slice = cat({{0, 0, 0, 1}, {0x65}});
    Bytes raw = {0xFF, 0xF1, 0x20, 0x00};
    write_stored_sample(h.m, 1, slice.data(), uint32_t(slice.size()), 3600);
    write_stored_sample(h.m, 2, raw.data(), uint32_t(raw.size()), 1024);
    EXPECT_EQ(h.m->stored_form, 0);
    buf.resize(mp4_buf_get(h.m));
    EXPECT_EQ(buf, cat({box("mdat", slice), box("mdat", raw)}));
    EXPECT_EQ(h.m->tracks[0].samples[0].size, 5u);
    EXPECT_EQ(h.m->tracks[1].samples[0].size, 4u);
}

// ---- fragment mode ---------------------------------------------------------------------------

TEST(FragmentSamples, EachSampleIsAnMdatQueuedForTheNextFragment) {
    Handle h(mp4_writer_create());
    mp4_video_track_create(h.m, fourcc("avc1"), 90000, 3600, 0, 64, 48, 66, 30);
    mp4_audio_track_create(h.m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    Bytes buf(512);
    mp4_buf_put(h.m, buf.data(), uint32_t(buf.size()));
    const Bytes idr = idrUnit(), p3 = cat({SC3, PSLICE}), frame = adts({7, 8, 9});
    const Bytes idr_copy = idr;
    write(h.m, 1, idr, 3600);
    write(h.m, 1, p3, 3000);
    write(h.m, 2, frame, 1024);
    write(h.m, 1, cat({SC4, SPS, SC4, PPS}), 3600); // headers only: nothing queued
    EXPECT_EQ(idr, idr_copy);                       // the caller's bytes are left alone
    buf.resize(mp4_buf_get(h.m));
    EXPECT_EQ(buf, cat({box("mdat", cat({u32s({6}), IDR})), box("mdat", cat({u32s({3}), PSLICE})),
                        box("mdat", {7, 8, 9})}));
    const mp4_track &v = h.m->tracks[0], &a = h.m->tracks[1];
    ASSERT_EQ(v.sample_count, 2u);
    EXPECT_EQ(v.samples[0].offset, 8u);
    EXPECT_EQ(v.samples[0].size, 10u);
    EXPECT_EQ(v.samples[0].duration, 3600u);
    EXPECT_EQ(v.samples[1].offset, 26u);
    EXPECT_EQ(v.samples[1].size, 7u); // a 3-byte start code became a 4-byte length
    EXPECT_EQ(v.samples[1].duration, 3000u);
    ASSERT_EQ(a.sample_count, 1u);
    EXPECT_EQ(a.samples[0].size, 3u);
    EXPECT_EQ(h.m->moov, nullptr); // no tree, no tables in this mode
}

TEST(FragmentSamples, QueueGrowthFailureLeavesTheRecordUntaken) {
    Handle h(mp4_writer_create());
    mp4_audio_track_create(h.m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    Bytes buf(64);
    mp4_buf_put(h.m, buf.data(), uint32_t(buf.size()));
    testing::internal::CaptureStderr();
    mp4_alloc_fail_after(0);
    write(h.m, 1, {1, 2, 3}, 1024);
    mp4_alloc_fail_after(-1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "mp4_write_track: failed to reallocate fragment buffer\n");
    EXPECT_EQ(h.m->tracks[0].sample_count, 0u);
    EXPECT_EQ(h.m->error, MP4_ERR_NOMEM);
    EXPECT_EQ(mp4_buf_get(h.m), 0u);
}

// ---- growth policy ---------------------------------------------------------------------------

TEST(GrowthPolicy, PowersOfTwoThenWholeMebibytes) {
    void *a = nullptr;
    unsigned long before = mp4_alloc_count();
    std::vector<uint32_t> grew_at;
    for (uint32_t n = 0; n < 40; n++) {
        unsigned long c = mp4_alloc_count();
        ASSERT_EQ(realloc_p2(&a, n, n + 1, 4), 0);
        if (mp4_alloc_count() != c)
            grew_at.push_back(n + 1);
    }
    EXPECT_EQ(grew_at, (std::vector<uint32_t>{1, 2, 3, 5, 9, 17, 33}));
    EXPECT_EQ(mp4_alloc_count() - before, 7u);
    // Past 1 MiB: one reallocation per whole MiB.
    ASSERT_EQ(realloc_p2(&a, 40, 0x40000, 4), 0); // exactly 1 MiB
    unsigned long c = mp4_alloc_count();
    ASSERT_EQ(realloc_p2(&a, 0x40000, 0x40001, 4), 0); // just past it: 2 MiB
    ASSERT_EQ(realloc_p2(&a, 0x40001, 0x7FFFF, 4), 0); // still inside 2 MiB
    EXPECT_EQ(mp4_alloc_count() - c, 1u);
    static_cast<uint32_t *>(a)[0x7FFFE] = 1; // the block really holds that much
    mp4_free(a);

    // A failure keeps the old block and says how much was asked.
    void *b = nullptr;
    ASSERT_EQ(realloc_p2(&b, 0, 3, 4), 0);
    static_cast<uint32_t *>(b)[2] = 0xABCD;
    testing::internal::CaptureStderr();
    mp4_alloc_fail_after(0);
    EXPECT_EQ(realloc_p2(&b, 3, 5, 4), 1);
    mp4_alloc_fail_after(-1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "failed to allocate 32 bytes\n");
    EXPECT_EQ(static_cast<uint32_t *>(b)[2], 0xABCDu);
    mp4_free(b);
}

TEST(HeaderSkipping, VideoAudioAndSyncTestsStayInsideTheSample) {
    // Each buffer is its own allocation, so a read past it fails a sanitizer build.
    auto skipv = [](Bytes b) { return skip_video_header(b.data(), uint32_t(b.size())); };
    EXPECT_EQ(skipv({0, 0, 0, 1}), 0u); // too short
    EXPECT_EQ(skipv(cat({SC4, PSLICE})), 0u);
    EXPECT_EQ(skipv(cat({SC3, IDR})), 0u);
    Bytes header(140, 0x40);
    header[0] = 0, header[1] = 0, header[2] = 1, header[3] = 0xB0;
    EXPECT_EQ(skipv(cat({header, {0, 0, 1, 0xB6, 0}})), 0u); // plane beyond 128 bytes
    Bytes shorter(header.begin(), header.begin() + 20);
    EXPECT_EQ(skipv(cat({shorter, {0, 0, 1, 0xB6}})), 20u);

    auto skipa = [](Bytes b) { return skip_aac_header(b.data(), uint32_t(b.size())); };
    EXPECT_EQ(skipa({0xFF}), 0u);
    EXPECT_EQ(skipa({0xFF, 0xE1}), 0u);

    auto sync = [](Bytes b) { return isIframe(b.data(), uint32_t(b.size())); };
    EXPECT_EQ(sync({0, 0, 0, 1, 0x67}), 1);
    EXPECT_EQ(sync({0, 0, 0, 1}), 0);
    EXPECT_EQ(sync({0, 0, 1, 0xB0, 0x01}), 0);
    EXPECT_EQ(sync({0, 0, 1, 0xB6, 0x3F}), 1);
    EXPECT_EQ(sync({0, 0, 1, 0xB6, 0x40}), 0);
}

// ---- finishing: durations, edit lists, timescales --------------------------------------------

TEST(Durations, EditListsRunEveryTrackToTheMovieEnd) {
    // A track shorter than the movie gets a trailing empty edit, a delayed one a leading one too;
    // a constant rate video keeps the movie timescale.
    using Edits = std::vector<std::array<int64_t, 2>>;
    struct Case {
        uint32_t delta, delay;
        int frames;
        uint64_t movie, video;
        Edits video_edits, audio_edits;
    };
    for (const Case &c :
         {Case{3003, 0, 300, 900900, 900900, {{900900, 0}}, {{192000, 0}, {900900 - 192000, -1}}},
          Case{3600,
               9000,
               10,
               192000,
               45000,
               {{9000, -1}, {36000, 0}, {192000 - 45000, -1}},
               {{192000, 0}}}}) {
        SCOPED_TRACE(c.delta);
        Handle h(mp4_writer_create());
        mp4_video_track_create(h.m, fourcc("avc1"), 90000, c.delta, c.delay, 64, 48, 66, 30);
        mp4_audio_track_create(h.m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
        for (int i = 0; i < c.frames; i++)
            write(h.m, 1, pUnit(), c.delta);
        for (int i = 0; i < 100; i++)
            write(h.m, 2, adts({1}), 1024);
        mp4_write_movie(h.m);
        Mvhd *mvhd = static_cast<Mvhd *>(at(h.m->moov, "mvhd"));
        EXPECT_EQ(mvhd->timescale, 90000u);
        EXPECT_EQ(mvhd->duration, c.movie);
        EXPECT_EQ(static_cast<Tkhd *>(at(h.m->moov, "trak/tkhd"))->duration, c.video);
        if (c.delta == 3003) {
            EXPECT_EQ(mdhdOf(h.m, 1)->timescale, 90000u);
        }
        EXPECT_EQ(elstOf(h.m, 1), c.video_edits);
        EXPECT_EQ(mdhdOf(h.m, 2)->timescale, 48000u);
        EXPECT_EQ(mdhdOf(h.m, 2)->duration, 102400u);
        EXPECT_EQ(elstOf(h.m, 2), c.audio_edits);
    }
}

TEST(Durations, CommonFrameDeltasShrinkTheMediaTimescale) {
    struct Case {
        uint32_t timescale, delta, new_timescale, new_delta;
    };
    for (Case c :
         {Case{180000, 6006, 30000, 1001}, Case{270000, 9009, 30000, 1001},
          Case{48000, 1920, 200, 8}, Case{180000, 7200, 50, 2}, Case{45000, 15015, 3000, 1001},
          Case{1000, 3600, 1000, 3600}, // not an exact division: left alone
          Case{48000, 1024, 48000, 1024}}) {
        Handle h(mp4_writer_create());
        mp4_video_track_create(h.m, fourcc("avc1"), c.timescale, c.delta, 0, 64, 48, 66, 30);
        for (int i = 0; i < 12; i++)
            write(h.m, 1, pUnit(), c.delta);
        mp4_write_movie(h.m);
        EXPECT_EQ(mdhdOf(h.m, 1)->timescale, c.new_timescale) << c.timescale << "/" << c.delta;
        EXPECT_EQ(mdhdOf(h.m, 1)->duration, 12u * c.new_delta);
        EXPECT_EQ(sttsOf(h.m, 1), (std::vector<std::pair<uint32_t, uint32_t>>{{12, c.new_delta}}));
        // The movie time is unchanged by the division.
        EXPECT_EQ(static_cast<Mvhd *>(at(h.m->moov, "mvhd"))->duration,
                  uint64_t(12) * c.delta * 90000 / c.timescale);
    }
}

TEST(Durations, LongMovieFallsToTimescale600WithCarriedRounding) {
    Handle h(mp4_writer_create());
    mp4_video_track_create(h.m, fourcc("avc1"), 90000, 3001, 0, 64, 48, 66, 30);
    mp4_video_track_create(h.m, fourcc("avc1"), 1000, 3600000, 0, 64, 48, 66, 30);
    for (int i = 0; i < 200; i++)
        write(h.m, 1, pUnit(), 3001);
    for (int i = 0; i < 7; i++) // seven hours at 1000 Hz
        write(h.m, 2, pUnit(), 3600000);
    mp4_write_movie(h.m);
    Mvhd *mvhd = static_cast<Mvhd *>(at(h.m->moov, "mvhd"));
    EXPECT_EQ(mvhd->timescale, 600u);
    EXPECT_EQ(mvhd->duration, 7u * 3600 * 600);
    // The 90 kHz track moves to 600 sample by sample; the rounding never drifts.
    EXPECT_EQ(mdhdOf(h.m, 1)->timescale, 600u);
    EXPECT_EQ(mdhdOf(h.m, 1)->duration, 4001u);
    using E = std::pair<uint32_t, uint32_t>;
    EXPECT_EQ(sttsOf(h.m, 1), (std::vector<E>{{149, 20}, {1, 21}, {50, 20}}));
    EXPECT_EQ(static_cast<Tkhd *>(at(h.m->moov, "trak/tkhd"))->duration, 4001u);
    // The 1000 Hz track keeps its own timescale.
    EXPECT_EQ(mdhdOf(h.m, 2)->timescale, 1000u);
    EXPECT_EQ(mdhdOf(h.m, 2)->duration, 7u * 3600000);
    EXPECT_EQ(elstOf(h.m, 2), (std::vector<std::array<int64_t, 2>>{{7 * 3600 * 600, 0}}));
    EXPECT_EQ(elstOf(h.m, 1)[0], (std::array<int64_t, 2>{4001, 0}));
}

TEST(Durations, LongPcmTrackOnlyWarns) {
    Handle h(mov_writer_create());
    mp4_audio_track_create(h.m, fourcc("sowt"), 48000, 1024, 0, 48000, 2);
    Bytes block(8, 0);
    write(h.m, 1, block, 0x80000000u); // a duration of 2^31 frames
    testing::internal::CaptureStdout();
    mp4_write_movie(h.m);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Warning: won't play in quicktime\n"), std::string::npos) << out;
    EXPECT_EQ(mdhdOf(h.m, 1)->timescale, 48000u);
    EXPECT_EQ(static_cast<Mvhd *>(at(h.m->moov, "mvhd"))->timescale, 600u);
}

// ---- limits and failures ---------------------------------------------------------------------

struct Fixture {
    Bytes h264, aac;
    std::vector<std::pair<size_t, size_t>> units, frames;
    Fixture()
        : h264(test_util::readFile(test_util::dataPath("sample.h264"))),
          aac(test_util::readFile(test_util::dataPath("sample.aac"))),
          units(test_util::splitAtDelimiters(h264)), frames(test_util::splitAdtsFrames(aac)) {}
    // Writes video unit i and the audio due by then; returns the error code after it.
    uint32_t step(mp4_muxer *m, size_t i, size_t *audio) const {
        const auto &u = units[i % units.size()];
        mp4_write_track(m, 1, h264.data() + u.first, uint32_t(u.second), 3600);
        while (*audio < frames.size() * 4 && uint64_t(*audio) * 1024 * 90000 <= i * 3600 * 48000) {
            const auto &f = frames[*audio % frames.size()];
            mp4_write_track(m, 2, aac.data() + f.first, uint32_t(f.second), 1024);
            ++*audio;
        }
        return mp4_get_error_code(m);
    }
};

TEST(Limits, SizeLimitRefusesSamplesAndTheFileStillPlays) {
    SKIP_WITHOUT_FFPROBE();
    Fixture fx;
    ASSERT_EQ(fx.units.size(), 75u);
    test_util::TempDir dir;
    const std::string path = dir.file("limited.mp4");
    mp4_muxer *m = mp4_writer_create();
    mp4_file_name_ascii(m, path.c_str());
    mp4_max_file_size(m, 20000);
    mp4_video_track_create(m, fourcc("avc1"), 90000, 3600, 0, 128, 96, 66, 11);
    mp4_audio_track_create(m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    size_t audio = 0, i = 0;
    while (i < fx.units.size() && fx.step(m, i, &audio) == 0)
        i++;
    EXPECT_LT(i, fx.units.size());
    EXPECT_EQ(mp4_get_error_code(m), 9u);
    EXPECT_STREQ(mp4_get_error(m), "maximum size limit reached");
    const uint32_t frames = table<Stsz>(m, 1, "stsz")->sample_count;
    const uint64_t before = m->mdat->size;
    fx.step(m, i + 1, &audio); // still refused
    EXPECT_EQ(m->mdat->size, before);
    testing::internal::CaptureStdout();
    mp4_write_movie(m);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.find("max file size exceeded"), std::string::npos);
    mp4_delete(m);
    EXPECT_LE(test_util::fileSize(path), 20000u);
    std::vector<test_util::Fields> streams;
    std::string errors;
    ASSERT_TRUE(test_util::probeStreams(path, &streams, &errors)) << errors;
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_EQ(streams[0]["codec_name"], "h264");
    EXPECT_EQ(streams[0]["nb_frames"], std::to_string(frames));
    EXPECT_EQ(test_util::decodeErrors(path), "");
}

TEST(Limits, WriteFailureOnAStdioStreamIsRecoveredIntoAPlayableFile) {
    SKIP_WITHOUT_FFPROBE();
    Fixture fx;
    test_util::TempDir dir;
    const std::string path = dir.file("cut.mp4");
    const rlim_t limit = 24 * 1024;
    fflush(nullptr);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        // The child records into a file that can grow to `limit` bytes only, as on a full disk.
        struct rlimit rl = {limit, limit};
        setrlimit(RLIMIT_FSIZE, &rl);
        signal(SIGXFSZ, SIG_IGN);
        FILE *f = fopen(path.c_str(), "w+b");
        mp4_muxer *m = mp4_writer_create();
        mp4_file_pointer(m, f);
        mp4_video_track_create(m, fourcc("avc1"), 90000, 3600, 0, 128, 96, 66, 11);
        mp4_audio_track_create(m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
        size_t audio = 0, i = 0;
        while (i < 300 && fx.step(m, i, &audio) != 8)
            i++;
        for (size_t k = 0; k < 10; k++) // the encoder goes on for a while
            fx.step(m, i + 1 + k, &audio);
        mp4_write_movie(m);
        int code = int(mp4_get_error_code(m));
        mp4_delete(m);
        fclose(f);
        fflush(nullptr);
        _exit(code == 8 ? 0 : 100 + code);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0) << "error code in the child: " << WEXITSTATUS(status) - 100;
    Bytes file = test_util::readFile(path);
    EXPECT_LE(file.size(), limit);
    EXPECT_EQ(test_util::topLevel(file),
              (std::vector<std::string>{"ftyp", "free", "mdat", "moov"}));
    EXPECT_EQ(test_util::findBox(file, "moov").end(), file.size()); // truncated after the movie
    std::vector<test_util::Fields> streams;
    std::string errors;
    ASSERT_TRUE(test_util::probeStreams(path, &streams, &errors)) << errors;
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_GT(std::stoi(streams[0]["nb_frames"]), 10);
    EXPECT_GT(std::stoi(streams[1]["nb_frames"]), 10);
    // Only samples that lie whole in the kept media data are listed: everything decodes.
    EXPECT_EQ(test_util::decodeErrors(path), "");
}

} // namespace
