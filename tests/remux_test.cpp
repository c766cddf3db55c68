// The two remuxers: fragmented streams turned into plain movies (however the input is cut into
// buffers, with shifted positions, missing data and hostile boxes), plain movies turned into
// fragments, and the round trip between the two, which must give back every sample.
#include "byte_builder.h"
#include "internal.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <vector>

using namespace test_util;

namespace {

constexpr uint32_t AVC1 = MP4_FOURCC('a', 'v', 'c', '1');
constexpr uint32_t MP4A = MP4_FOURCC('m', 'p', '4', 'a');
constexpr size_t npos = std::string::npos;

uint64_t fnv(const uint8_t *p, size_t n) {
    uint64_t h = 1469598103934665603ull;
    for (size_t i = 0; i < n; i++)
        h = (h ^ p[i]) * 1099511628211ull;
    return h;
}

// ---- what a plain movie holds, read without the library ------------------------------------

struct Sample {
    uint64_t hash;
    uint32_t size;
    uint32_t duration;
    bool operator==(const Sample &o) const {
        return std::tie(hash, size, duration) == std::tie(o.hash, o.size, o.duration);
    }
};

std::ostream &operator<<(std::ostream &os, const Sample &s) {
    return os << "{size " << s.size << ", duration " << s.duration << "}";
}

struct Track {
    std::string handler;
    uint32_t timescale = 0;
    uint64_t duration = 0; // mdhd
    std::vector<Sample> samples;
};

// The full-box fields of a box (after version and flags) and its version.
const uint8_t *body(const Bytes &f, const BoxRef &b, int *version = nullptr) {
    if (version)
        *version = f[b.payload()];
    return &f[b.payload() + 4];
}

// Every sample of every track of a plain movie, from its sample tables.
std::map<uint32_t, Track> tracksOf(const Bytes &f) {
    std::map<uint32_t, Track> out;
    BoxRef moov = findBox(f, "moov");
    if (!moov.found)
        return out;
    int n = 0;
    for (auto &kv : boxesIn(f, moov.payload(), moov.end())) {
        if (kv.first != "trak")
            continue;
        std::string p = "moov/trak#" + std::to_string(++n);
        int v = 0;
        const uint8_t *tkhd = body(f, findBox(f, p + "/tkhd"), &v);
        Track &t = out[be32(tkhd + (v == 1 ? 16 : 8))];
        const uint8_t *mdhd = body(f, findBox(f, p + "/mdia/mdhd"), &v);
        t.timescale = be32(mdhd + (v == 1 ? 16 : 8));
        t.duration = v == 1 ? be64(mdhd + 20) : be32(mdhd + 12);
        t.handler.assign(reinterpret_cast<const char *>(body(f, findBox(f, p + "/mdia/hdlr")) + 4),
                         4);
        std::string s = p + "/mdia/minf/stbl/";
        const uint8_t *stsz = body(f, findBox(f, s + "stsz"));
        const uint8_t *stsc = body(f, findBox(f, s + "stsc"));
        const uint8_t *stts = body(f, findBox(f, s + "stts"));
        BoxRef stco = findBox(f, s + "stco"), co64 = findBox(f, s + "co64");
        const uint8_t *chunks = body(f, stco.found ? stco : co64);
        uint32_t constant = be32(stsz), count = be32(stsz + 4);
        uint32_t stsc_n = be32(stsc), stts_n = be32(stts), chunk_n = be32(chunks);
        uint32_t si = 0, sample = 0, ti = 0, used = 0;
        for (uint32_t c = 0; c < chunk_n && sample < count; c++) {
            if (si + 1 < stsc_n && be32(stsc + 4 + 12 * (si + 1)) == c + 1)
                si++;
            uint64_t off = stco.found ? be32(chunks + 4 + 4 * c) : be64(chunks + 4 + 8 * c);
            uint32_t per = be32(stsc + 4 + 12 * si + 4);
            for (uint32_t k = 0; k < per && sample < count && ti < stts_n; k++, sample++) {
                uint32_t size = constant ? constant : be32(stsz + 8 + 4 * sample);
                uint32_t delta = be32(stts + 4 + 8 * ti + 4);
                uint64_t h = off + size <= f.size() ? fnv(&f[off], size) : 0;
                t.samples.push_back({h, size, delta});
                off += size;
                if (++used == be32(stts + 4 + 8 * ti)) {
                    ti++;
                    used = 0;
                }
            }
        }
    }
    return out;
}

// What the library's reader hands to a sample callback while playing a file forwards: track,
// timestamp, size, flags (0 unless asked for) and a checksum of the bytes.
using Delivered = std::tuple<uint32_t, uint64_t, uint32_t, uint32_t, uint64_t>;

std::vector<Delivered> played(const std::string &path, bool with_flags) {
    struct Context {
        Bytes file;
        std::vector<Delivered> list;
        bool with_flags;
    } c{readFile(path), {}, with_flags};
    mp4_muxer *r = mp4_reader_create();
    mp4_file_name_ascii(r, path.c_str());
    mp4_play_mixed_timescales(r, 1);
    mp4_set_sample_callback(
        r,
        [](void *opaque, uint32_t track, uint64_t offset, uint64_t timestamp, uint32_t size,
           uint32_t flags) {
            auto *c = static_cast<Context *>(opaque);
            uint64_t h = offset + size <= c->file.size() ? fnv(&c->file[offset], size) : 0;
            c->list.emplace_back(track, timestamp, size, c->with_flags ? flags : 0, h);
            return 0;
        },
        &c);
    for (int guard = 0; guard < 1000000 && mp4_play(r) == 0; guard++) {
    }
    mp4_delete(r);
    return c.list;
}

// ---- running the remuxers ------------------------------------------------------------------

uint32_t feed(mp4_muxer *h, const Bytes &piece) {
    mp4_buf_put(h, const_cast<uint8_t *>(piece.data()), uint32_t(piece.size()));
    mp4_remux(h);
    return mp4_buf_get(h);
}

// Runs a refragmenting remuxer through a memory buffer until a pass gives nothing, then closes
// the fragment still open; each pass's output that is not empty is one piece. On pass
// `fail_pass` no allocation succeeds, and nothing coming out of it does not end the run.
Bytes drain(mp4_muxer *h, std::vector<Bytes> *pieces = nullptr, int fail_pass = -1) {
    Bytes buffer(8 << 20), out;
    bool finishing = false;
    for (int pass = 0; pass < 1000000; pass++) {
        mp4_buf_put(h, buffer.data(), uint32_t(buffer.size()));
        if (pass == fail_pass)
            mp4_alloc_fail_after(0);
        finishing ? mp4_write_movie(h) : mp4_remux(h);
        mp4_alloc_fail_after(-1);
        uint32_t n = mp4_buf_get(h);
        out.insert(out.end(), buffer.begin(), buffer.begin() + n);
        if (pieces && n)
            pieces->emplace_back(buffer.begin(), buffer.begin() + n);
        if (finishing)
            break;
        finishing = n == 0 && pass != fail_pass;
    }
    return out;
}

// A plain movie refragmented without error.
Bytes refragment(const std::string &path, std::vector<Bytes> *pieces = nullptr,
                 uint32_t *frag_samples = nullptr) {
    mp4_muxer *h = mp4_refrag_create();
    mp4_file_name_ascii(h, path.c_str());
    EXPECT_EQ(mp4_is_fragmented(h), 0) << path;
    Bytes out = drain(h, pieces);
    EXPECT_EQ(mp4_get_error(h), nullptr) << path;
    if (frag_samples)
        *frag_samples = h->linked->frag_samples;
    mp4_delete(h);
    return out;
}

// A fragmented stream fed to the defragmenting remuxer piece by piece, honouring how much of
// each piece was consumed; the plain movie goes to `out_path`. `after` sees the count each
// piece returned. Returns the remuxer's error code.
uint32_t defragment(const std::vector<Bytes> &pieces, const std::string &out_path,
                    const std::function<void(mp4_muxer *, uint64_t)> &after = nullptr) {
    mp4_muxer *h = mp4_remuxer_create();
    mp4_file_name_ascii(h, out_path.c_str());
    Bytes pending;
    for (const Bytes &piece : pieces) {
        append(pending, piece);
        uint64_t got = feed(h, pending), used = std::min<uint64_t>(got, pending.size());
        EXPECT_EQ(h->buffer_adjust, 0); // taken into the position with the buffer
        if (after)
            after(h, got);
        pending.erase(pending.begin(), pending.begin() + long(used));
    }
    mp4_write_movie(h);
    uint32_t error = mp4_get_error_code(h);
    mp4_delete(h);
    return error;
}

long countBoxes(const Bytes &f, const char *type) {
    std::vector<std::string> top = topLevel(f);
    return long(std::count(top.begin(), top.end(), type));
}

std::vector<Bytes> topLevelBoxes(const Bytes &f) {
    std::vector<Bytes> out;
    for (auto &kv : boxesIn(f, 0, f.size()))
        out.emplace_back(f.begin() + long(kv.second.offset), f.begin() + long(kv.second.end()));
    return out;
}

// A stream in groupings of whole top-level boxes: all at once, one box per piece, and `random`
// groupings of 1 to `most` boxes per piece.
std::vector<std::vector<Bytes>> groupings(const Bytes &stream, uint32_t seed, size_t most,
                                          int random) {
    std::vector<Bytes> boxes = topLevelBoxes(stream);
    std::vector<std::vector<Bytes>> out = {{stream}, boxes};
    std::mt19937 rng(seed);
    for (int g = 0; g < random; g++) {
        out.emplace_back();
        for (size_t i = 0; i < boxes.size();) {
            Bytes piece;
            for (size_t k = 1 + rng() % most; k > 0 && i < boxes.size(); k--)
                append(piece, boxes[i++]);
            out.back().push_back(piece);
        }
    }
    return out;
}

// ---- recordings made for the tests ---------------------------------------------------------

// Stored H.264 samples of chosen sizes (a slice NAL behind its 4-byte length) and raw AAC
// frames, distinct bytes in each so that every sample can be recognised.
Bytes nal(uint32_t size, bool idr, uint32_t seed) {
    Bytes b = {0, 0, 0, 1, uint8_t(idr ? 0x65 : 0x41)};
    for (uint32_t i = 5; i < size; i++)
        b.push_back(uint8_t(seed * 31 + i * 7 + 1));
    return b;
}
Bytes rawAudio(uint32_t size, uint32_t seed) {
    Bytes b;
    for (uint32_t i = 0; i < size; i++)
        b.push_back(uint8_t(0x20 + seed * 13 + i * 3));
    return b;
}

// In writing order: track 1 video (90000 Hz), track 2 audio (48000 Hz).
struct Step {
    uint32_t track;
    Bytes data;
    uint32_t duration;
};
using Plan = std::vector<Step>;

// Video in runs of `run_v` pictures and audio in runs of `run_a` frames, so that each run is one
// chunk. Picture sizes walk through 250..520 bytes and frame sizes through 100..199, so that
// no two samples near each other have the same length.
Plan synthetic(uint32_t pictures, uint32_t run_v, uint32_t frames, uint32_t run_a) {
    Plan p;
    uint32_t v = 0, a = 0;
    while (v < pictures || a < frames) {
        for (uint32_t k = 0; k < run_v && v < pictures; k++, v++)
            p.push_back({1, nal(250 + (v * 37) % 271, v % 30 == 0, v), 3000});
        for (uint32_t k = 0; k < run_a && a < frames; k++, a++)
            p.push_back({2, rawAudio(100 + (a * 53) % 100, a), 1024});
    }
    return p;
}

// A plan recorded by the library's writer: a plain movie at `path`, or, given `per_fragment`
// steps to a fragment, a fragmented stream of which each buffer taken out is one piece, with
// `lead` bytes of a skip box first.
std::vector<Bytes> record(const Plan &plan, size_t per_fragment, const std::string &path = "",
                          uint32_t lead = 0) {
    mp4_muxer *m = mp4_writer_create();
    EXPECT_EQ(mp4_video_track_create(m, AVC1, 90000, 3000, 0, 64, 48, 66, 30), 1u);
    EXPECT_EQ(mp4_audio_track_create(m, MP4A, 48000, 1024, 0, 48000, 2), 2u);
    Bytes buffer(1 << 20), skip(lead ? lead - 8 : 0, 0x5A);
    std::vector<Bytes> pieces;
    auto take = [&]() {
        if (uint32_t n = mp4_buf_get(m))
            pieces.emplace_back(buffer.begin(), buffer.begin() + n);
        mp4_buf_put(m, buffer.data(), uint32_t(buffer.size()));
    };
    if (per_fragment) {
        mp4_buf_put(m, buffer.data(), uint32_t(buffer.size()));
        if (lead)
            mp4_write_skip_data(m, skip.data(), uint32_t(skip.size()));
        mp4_write_movie(m);
        take();
    } else {
        mp4_file_name_ascii(m, path.c_str());
    }
    for (size_t i = 0; i < plan.size(); i++) {
        const Step &s = plan[i];
        mp4_write_track(m, s.track, s.data.data(), uint32_t(s.data.size()), s.duration);
        if (per_fragment && ((i + 1) % per_fragment == 0 || i + 1 == plan.size())) {
            mp4_write_frag_header(m);
            take();
        }
    }
    if (!per_fragment)
        mp4_write_movie(m);
    EXPECT_EQ(mp4_get_error(m), nullptr);
    if (per_fragment)
        mp4_buf_get(m);
    mp4_delete(m);
    return pieces;
}

// A plan recorded as a plain movie, changed by `patch` when one is given, and refragmented.
struct Refragmented {
    Bytes input, stream;
    std::vector<Bytes> pieces;
    uint32_t frag_samples = 0;
};
Refragmented refragmentPlan(const Plan &plan, const std::function<void(Bytes &)> &patch = nullptr) {
    TempDir dir;
    Refragmented r;
    record(plan, 0, dir.file("plain.mp4"));
    r.input = readFile(dir.file("plain.mp4"));
    if (patch) {
        patch(r.input);
        writeFile(dir.file("plain.mp4"), r.input);
    }
    r.stream = refragment(dir.file("plain.mp4"), &r.pieces, &r.frag_samples);
    return r;
}

// The samples a plan puts into each track, as stored (start code turned into a length).
std::map<uint32_t, std::vector<Sample>> expectedSamples(const Plan &plan) {
    std::map<uint32_t, std::vector<Sample>> out;
    for (const Step &s : plan) {
        Bytes stored = s.data;
        if (s.track == 1) {
            uint32_t len = uint32_t(stored.size() - 4);
            for (int i = 0; i < 4; i++)
                stored[i] = uint8_t(len >> (24 - 8 * i));
        }
        out[s.track].push_back(
            {fnv(stored.data(), stored.size()), uint32_t(stored.size()), s.duration});
    }
    return out;
}

} // namespace

// ---- handles and dispatch ------------------------------------------------------------------

TEST(RemuxHandles, OnlyALinkedReaderAndWriterCanRemux) {
    mp4_muxer *plain = mp4_reader_create();
    mp4_muxer *writers = mp4_writer_create();
    writers->linked = mp4_writer_create();
    for (mp4_muxer *m : {plain, writers, static_cast<mp4_muxer *>(nullptr)}) {
        testing::internal::CaptureStderr();
        mp4_remux(m);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "mp4_remux: not a remuxable handle\n");
    }
    mp4_delete(plain);
    mp4_delete(writers);
}

// ---- defragmenting ---------------------------------------------------------------------------

TEST(Defragment, EverySampleIsCopiedAndAnyGroupingOfWholeBoxesMakesTheSameFile) {
    TempDir dir;
    Plan plan = synthetic(40, 5, 60, 7);
    std::vector<Bytes> as_written = record(plan, 12);
    testing::internal::CaptureStdout();
    ASSERT_EQ(defragment(as_written, dir.file("plain.mp4")), 0u);
    std::string said = testing::internal::GetCapturedStdout();
    EXPECT_EQ(said.find("failed to find"), npos) << said;

    Bytes f = readFile(dir.file("plain.mp4"));
    EXPECT_EQ(topLevel(f), (std::vector<std::string>{"ftyp", "free", "mdat", "moov"}));
    EXPECT_FALSE(findBox(f, "moov/mvex").found);
    std::map<uint32_t, Track> tracks = tracksOf(f);
    auto expected = expectedSamples(plan);
    ASSERT_EQ(tracks.size(), 2u);
    EXPECT_EQ(tracks[1].samples, expected[1]);
    EXPECT_EQ(tracks[2].samples, expected[2]);
    EXPECT_EQ(tracks[1].duration, 40u * 3000);
    EXPECT_EQ(tracks[2].duration, 60u * 1024);
    // Each track fragment started a chunk of its own: 12 steps per fragment.
    uint32_t with_video = 0;
    for (size_t i = 0; i < plan.size(); i += 12)
        with_video +=
            std::any_of(plan.begin() + long(i), plan.begin() + long(std::min(i + 12, plan.size())),
                        [](const Step &s) { return s.track == 1; });
    BoxRef stco = findBox(f, "moov/trak#1/mdia/minf/stbl/stco");
    EXPECT_EQ(be32(&f[stco.payload() + 4]), with_video);

    Bytes stream;
    for (const Bytes &p : as_written)
        append(stream, p);
    std::vector<std::vector<Bytes>> all = groupings(stream, 4417, 7, 3);
    ASSERT_GT(all[1].size(), 80u);
    for (size_t g = 0; g < all.size(); g++) {
        std::string out = dir.file("grouping" + std::to_string(g) + ".mp4");
        ASSERT_EQ(defragment(all[g], out), 0u);
        EXPECT_EQ(readFile(out), f) << "grouping " << g;
    }
}

TEST(Defragment, FragmentsWhoseMediaDataFollowsTheirHeaderAreCopiedWhenItArrives) {
    // The order ffmpeg and most fragmenters use: each moof, then the mdat it describes.
    SKIP_WITHOUT_FFPROBE();
    TempDir dir;
    const Bytes stream = readFile(dataPath("frag.mp4"));
    ASSERT_EQ(topLevel(stream)[2], "moof");
    ASSERT_EQ(topLevel(stream)[3], "mdat");
    // Stream, size and a checksum of the bytes of every packet, as ffprobe lists them.
    auto packets = [](const std::string &path) {
        std::string out;
        run("ffprobe -v error -show_data_hash CRC32 -show_entries "
            "packet=stream_index,size,data_hash -of csv=p=0 " +
                quote(path),
            &out);
        return out;
    };
    const std::string expected = packets(dataPath("frag.mp4"));
    ASSERT_EQ(std::count(expected.begin(), expected.end(), '\n'), 60 + 95);
    std::vector<std::vector<Bytes>> all = groupings(stream, 1201, 3, 1);
    ASSERT_GT(all[1].size(), 6u);
    for (size_t g = 0; g < all.size(); g++) {
        SCOPED_TRACE("grouping " + std::to_string(g));
        const std::string out = dir.file("plain" + std::to_string(g) + ".mp4");
        testing::internal::CaptureStdout();
        EXPECT_EQ(defragment(all[g], out), 0u);
        EXPECT_EQ(testing::internal::GetCapturedStdout().find("failed to find"), npos);
        EXPECT_EQ(countBoxes(readFile(out), "moof"), 0);
        EXPECT_EQ(packets(out), expected);
        EXPECT_EQ(decodeErrors(out), "");
    }
}

TEST(Defragment, ShiftedPositionsAreRecoveredThroughTheBufferAdjustment) {
    TempDir dir;
    Plan plan = synthetic(20, 4, 30, 6);
    const uint32_t cut = 64;
    std::vector<Bytes> pieces = record(plan, 10, "", cut);
    // The stream loses its first bytes: every recorded position is `cut` ahead of the input.
    ASSERT_GT(pieces[0].size(), cut);
    pieces[0].erase(pieces[0].begin(), pieces[0].begin() + cut);

    testing::internal::CaptureStdout();
    ASSERT_EQ(defragment(pieces, dir.file("plain.mp4")), 0u);
    std::string said = testing::internal::GetCapturedStdout();
    // The first sample is looked for at its recorded position, then found by its length.
    const std::string failed = "defrag_callback: failed to find a MDAT containing referenced "
                               "track data at offset ";
    size_t first = said.find(failed);
    ASSERT_NE(first, npos) << said;
    EXPECT_EQ(said.find(failed, first + failed.size()), npos) << said;
    EXPECT_NE(said.find("defrag_callback: buffer_adjust is 64\n"), npos) << said;

    Bytes f = readFile(dir.file("plain.mp4"));
    // The stream had no ftyp; the file still opens with the writer's own.
    EXPECT_EQ(topLevel(f), (std::vector<std::string>{"ftyp", "free", "mdat", "moov"}));
    std::map<uint32_t, Track> tracks = tracksOf(f);
    auto expected = expectedSamples(plan);
    EXPECT_EQ(tracks[1].samples, expected[1]);
    EXPECT_EQ(tracks[2].samples, expected[2]);
}

TEST(Defragment, APieceEndingInsideAnMdatKeepsThePartThatArrived) {
    TempDir dir;
    Plan plan = synthetic(6, 6, 0, 0);
    std::vector<Bytes> pieces = record(plan, 6);
    ASSERT_EQ(pieces.size(), 2u); // header, then one fragment
    const Bytes &fragment = pieces[1];
    std::vector<Bytes> boxes = topLevelBoxes(fragment);
    ASSERT_EQ(boxes.size(), 7u); // six mdat boxes and the moof
    // The third mdat arrives with only 20 bytes of its payload; the rest of it is lost.
    size_t split = boxes[0].size() + boxes[1].size() + 8 + 20;
    size_t resume = split - 8 - 20 + boxes[2].size();
    Bytes head(fragment.begin(), fragment.begin() + long(split));
    Bytes tail(fragment.begin() + long(resume), fragment.end());
    std::vector<uint64_t> used;
    testing::internal::CaptureStdout();
    ASSERT_EQ(defragment({pieces[0], head, tail}, dir.file("plain.mp4"),
                         [&](mp4_muxer *, uint64_t n) { used.push_back(n); }),
              0u);
    std::string said = testing::internal::GetCapturedStdout();
    // The cut mdat counts as consumed whole.
    EXPECT_EQ(used, (std::vector<uint64_t>{pieces[0].size(), resume, tail.size()}));
    EXPECT_NE(said.find("rwBox: short input type=mdat"), npos) << said;
    uint32_t stored = uint32_t(boxes[2].size() - 8);
    // Each trun of the fragment writer holds one sample: the index is 0.
    EXPECT_NE(
        said.find("WARNING: TRUN sample[0] size " + std::to_string(stored) + " should be 20\n"),
        npos)
        << said;

    std::vector<Sample> got = tracksOf(readFile(dir.file("plain.mp4")))[1].samples;
    std::vector<Sample> want = expectedSamples(plan)[1];
    ASSERT_EQ(got.size(), 6u);
    EXPECT_EQ(got[2].size, 20u);
    EXPECT_EQ(got[2].hash, fnv(&boxes[2][8], 20));
    got.erase(got.begin() + 2);
    want.erase(want.begin() + 2);
    EXPECT_EQ(got, want);
}

TEST(Defragment, APieceEndingInsideAMoofLosesThatFragmentOnly) {
    TempDir dir;
    Plan plan = synthetic(12, 12, 0, 0);
    std::vector<Bytes> pieces = record(plan, 4); // header and three fragments
    ASSERT_EQ(pieces.size(), 4u);
    const Bytes &second = pieces[2];
    std::vector<Bytes> boxes = topLevelBoxes(second);
    ASSERT_EQ(boxes.size(), 5u);
    Bytes head(second.begin(), second.begin() + long(second.size() - boxes[4].size() + 30));
    std::vector<uint64_t> used;
    testing::internal::CaptureStdout();
    ASSERT_EQ(defragment({pieces[0], pieces[1], head, pieces[3]}, dir.file("plain.mp4"),
                         [&](mp4_muxer *, uint64_t n) { used.push_back(n); }),
              0u);
    std::string said = testing::internal::GetCapturedStdout();
    EXPECT_NE(said.find("rwBox: short input type=moof"), npos) << said;
    // The moof cut short is passed over whole: the count covers it, so the caller goes on after it.
    EXPECT_EQ(used, (std::vector<uint64_t>{pieces[0].size(), pieces[1].size(), second.size(),
                                           pieces[3].size()}));

    auto expected = expectedSamples(plan)[1];
    std::vector<Sample> kept(expected.begin(), expected.begin() + 4);
    kept.insert(kept.end(), expected.begin() + 8, expected.end());
    EXPECT_EQ(tracksOf(readFile(dir.file("plain.mp4")))[1].samples, kept);
}

TEST(Defragment, AMissingSampleLeavesItsTimeToTheNextOne) {
    TempDir dir;
    Plan plan = synthetic(8, 8, 0, 0);
    std::vector<Bytes> pieces = record(plan, 8);
    // The fourth sample's mdat becomes a free box of the same size: positions stay, data is gone.
    std::vector<Bytes> boxes = topLevelBoxes(pieces[1]);
    memcpy(&pieces[1][boxes[0].size() + boxes[1].size() + boxes[2].size() + 4], "free", 4);

    testing::internal::CaptureStdout();
    ASSERT_EQ(defragment(pieces, dir.file("plain.mp4")), 0u);
    std::string said = testing::internal::GetCapturedStdout();
    EXPECT_NE(said.find("failed to find a MDAT"), npos) << said;

    Track t = tracksOf(readFile(dir.file("plain.mp4")))[1];
    ASSERT_EQ(t.samples.size(), 7u);
    EXPECT_EQ(t.samples[3].hash, expectedSamples(plan)[1][4].hash);
    EXPECT_EQ(t.samples[3].duration, 6000u); // its own and the lost one's
    EXPECT_EQ(t.samples[2].duration, 3000u);
    EXPECT_EQ(t.duration, 8u * 3000); // the track keeps its length
}

// A moov without an mvhd, and one of 24 bytes whose mvhd claims 108: decoded from the bytes
// after the moov, then dropped as reaching outside it (the mvhd is looked up after that).
TEST(Defragment, AMoovWithoutAUsableMvhdStopsThePass) {
    Bytes without = box("moov", box("trak", box("tkhd", Bytes(84, 0))));
    append(without, box("free", Bytes(8, 0)));
    Bytes mvhd(100, 0), reaching;
    mvhd[99] = 3; // next_track_ID
    put32(reaching, 24);
    putType(reaching, "moov");
    append(reaching, box("mvhd", mvhd));
    for (const Bytes *stream : {&without, &reaching}) {
        SCOPED_TRACE(stream == &without ? "no mvhd" : "mvhd reaching out");
        mp4_muxer *h = mp4_remuxer_create();
        testing::internal::CaptureStdout();
        uint32_t used = feed(h, *stream);
        std::string said = testing::internal::GetCapturedStdout();
        EXPECT_NE(said.find("defrag: moov without mvhd\n"), npos) << said;
        if (stream == &without) {
            EXPECT_EQ(used, stream->size() - 16); // stopped before the box after the moov
        }
        EXPECT_EQ(mp4_get_error_code(h), 3u);
        EXPECT_STREQ(mp4_get_error(h), "bad input");
        EXPECT_EQ(h->moov, nullptr);
        EXPECT_EQ(h->linked->moov, nullptr);
        EXPECT_EQ(h->next_track_id, 1u);
        EXPECT_EQ(h->linked->next_track_id, 1u);
        EXPECT_EQ(h->tracks, nullptr);
        EXPECT_EQ(h->linked->tracks, nullptr);
        mp4_delete(h);
    }
}

namespace {

// A moof for `track` whose samples lie at `base`, `size` bytes each.
Bytes strayMoof(uint32_t track, uint64_t base, uint32_t size, uint32_t count = 1,
                uint32_t trun_flags = 0x200) {
    Bytes tfhd, trun, mfhd;
    put32(tfhd, 0x000001);
    put32(tfhd, track);
    put64(tfhd, base);
    put32(trun, trun_flags);
    put32(trun, count);
    for (uint32_t i = 0; i < count && (trun_flags & 0x200); i++)
        put32(trun, size);
    put32(mfhd, 0);
    put32(mfhd, 1);
    return box("moof",
               cat({box("mfhd", mfhd), box("traf", cat({box("tfhd", tfhd), box("trun", trun)}))}));
}

// The fragmented header of the synthetic tracks.
Bytes headerPiece() {
    return record(Plan(), 1)[0];
}

} // namespace

TEST(Defragment, MoreThan500UnmatchedMdatsSetError7) {
    for (int mdats : {500, 501}) {
        SCOPED_TRACE(mdats);
        mp4_muxer *h = mp4_remuxer_create();
        Bytes stream = headerPiece();
        for (int i = 0; i < mdats; i++)
            append(stream, box("mdat", Bytes(1 + i % 3, uint8_t(i))));
        append(stream, strayMoof(1, 1ull << 40, 1000));
        testing::internal::CaptureStdout();
        feed(h, stream);
        std::string said = testing::internal::GetCapturedStdout();
        EXPECT_NE(said.find("failed to find a MDAT containing referenced track data at offset "
                            "1099511627776 len=1000\n"),
                  npos);
        EXPECT_EQ(mp4_get_error_code(h), mdats == 501 ? 7u : 0u);
        EXPECT_STREQ(mp4_get_error(h), mdats == 501 ? "remux failed to find mdat" : nullptr);
        mp4_delete(h);
    }
}

TEST(Defragment, HostileFragmentsCopyNothingAndHurtNothing) {
    TempDir dir;
    Bytes stream = headerPiece();
    append(stream, box("mdat", Bytes(16, 7)));
    append(stream, strayMoof(0, 0x20, 16));          // track 0
    append(stream, strayMoof(99, 0x20, 16));         // no such track
    append(stream, strayMoof(1, ~0ull - 4, 16));     // offset wraps past the end
    append(stream, strayMoof(1, 0x20, 16, 4096, 0)); // many samples, no fields
    append(stream, strayMoof(2, 0x10, 0xFFFFFFFFu)); // more than any mdat holds
    append(stream, box("ftyp", Bytes(8, 'x')));      // not at the start: not written
    append(stream, headerPiece());                   // a second movie: ignored
    uint64_t used = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(
        defragment({stream}, dir.file("plain.mp4"), [&](mp4_muxer *, uint64_t n) { used = n; }),
        0u);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("defrag: ignoring another moov\n"), npos);
    EXPECT_EQ(used, stream.size());
    Bytes f = readFile(dir.file("plain.mp4"));
    EXPECT_EQ(countBoxes(f, "ftyp"), 1);
    for (auto &kv : tracksOf(f))
        EXPECT_TRUE(kv.second.samples.empty()) << "track " << kv.first;
}

TEST(Defragment, ALargeNextTrackIdCostsNoRecordPerNumber) {
    TempDir dir;
    Plan plan = synthetic(6, 3, 6, 3);
    std::vector<Bytes> pieces = record(plan, 6);
    BoxRef mvhd = findBox(pieces[0], "moov/mvhd");
    memset(&pieces[0][mvhd.payload() + 4 + 92], 0xFF, 4); // next_track_ID 0xFFFFFFFF
    bool first = true;
    ASSERT_EQ(defragment(pieces, dir.file("plain.mp4"),
                         [&](mp4_muxer *h, uint64_t) {
                             if (first) { // records for tracks 1 and 2 only
                                 EXPECT_EQ(h->next_track_id, 3u);
                                 EXPECT_EQ(h->linked->next_track_id, 3u);
                             }
                             first = false;
                         }),
              0u);
    std::map<uint32_t, Track> tracks = tracksOf(readFile(dir.file("plain.mp4")));
    auto expected = expectedSamples(plan);
    EXPECT_EQ(tracks[1].samples, expected[1]);
    EXPECT_EQ(tracks[2].samples, expected[2]);
}

// ---- refragmenting ---------------------------------------------------------------------------

namespace {

// Which sample of which track each mdat of a fragmented stream holds, and where the fragment
// headers fall: "v3" is video sample 3, "a0" audio sample 0, "|" a moof.
std::vector<std::string> fragmentOrder(const Bytes &stream, const Plan &plan) {
    std::map<uint64_t, std::string> names;
    for (auto &kv : expectedSamples(plan))
        for (size_t i = 0; i < kv.second.size(); i++)
            names[kv.second[i].hash] = (kv.first == 1 ? "v" : "a") + std::to_string(i);
    std::vector<std::string> order;
    for (auto &kv : boxesIn(stream, 0, stream.size())) {
        if (kv.first == "moof")
            order.push_back("|");
        if (kv.first != "mdat")
            continue;
        uint64_t h = fnv(&stream[kv.second.payload()], size_t(kv.second.size - 8));
        order.push_back(names.count(h) ? names[h] : "?");
    }
    return order;
}

// Pictures "v0".."v<n-1>" but `lost`, then a closing "|".
std::vector<std::string> picturesThenClose(int n, int lost = -1) {
    std::vector<std::string> want;
    for (int i = 0; i < n; i++)
        if (i != lost)
            want.push_back("v" + std::to_string(i));
    want.push_back("|");
    return want;
}

// The order the refragmenter is to copy in: per call, the audio due up to the next picture
// (audio time x 90000 against video time x 48000, audio first on a tie), then the picture,
// and a fragment header after every `n`th picture; the last open fragment is closed at the end.
std::vector<std::string> expectedOrder(uint32_t pictures, uint32_t frames, uint32_t n) {
    std::vector<std::string> order;
    uint32_t v = 0, a = 0;
    bool open = false;
    while (v < pictures || a < frames) {
        while (a < frames &&
               !(v < pictures && uint64_t(a) * 1024 * 90000 > uint64_t(v) * 3000 * 48000)) {
            order.push_back("a" + std::to_string(a++));
            open = true;
        }
        if (v >= pictures)
            break;
        order.push_back("v" + std::to_string(v++));
        open = true;
        if (n && v % n == 0) {
            order.push_back("|");
            open = false;
        }
    }
    if (open)
        order.push_back("|");
    return order;
}

std::vector<std::string> childTypes(const Bytes &f, const std::string &path) {
    BoxRef b = findBox(f, path);
    std::vector<std::string> out;
    for (auto &kv : boxesIn(f, b.payload(), b.end()))
        out.push_back(kv.first);
    return out;
}

} // namespace

TEST(Refragment, AFragmentFollowsEveryChunkLengthOfPictures) {
    Plan plan = synthetic(75, 30, 110, 45);
    Bytes stream = refragmentPlan(plan).stream;
    std::vector<std::string> top = topLevel(stream);
    ASSERT_GE(top.size(), 2u);
    EXPECT_EQ(top[0], "ftyp");
    EXPECT_EQ(top[1], "moov");
    EXPECT_EQ(fragmentOrder(stream, plan), expectedOrder(75, 110, 30));

    // The movie announces fragments and lists no samples itself.
    EXPECT_EQ(childTypes(stream, "moov/mvex"), (std::vector<std::string>{"trex", "trex"}));
    EXPECT_EQ(be32(body(stream, findBox(stream, "moov/mvex/trex#1")) + 8), 3000u);
    EXPECT_EQ(be32(body(stream, findBox(stream, "moov/mvex/trex#2")) + 8), 1024u);
    for (const char *t : {"stts", "stsc", "stco", "stss"})
        EXPECT_EQ(findBox(stream, std::string("moov/trak#1/mdia/minf/stbl/") + t).size, 16u) << t;
    EXPECT_EQ(findBox(stream, "moov/trak#2/mdia/minf/stbl/stsz").size, 20u);
}

TEST(Refragment, SamplesOfTheDefaultDurationCarryNoDuration) {
    Plan plan = synthetic(5, 5, 0, 0);
    plan.back().duration = 1500;
    Bytes stream = refragmentPlan(plan).stream;
    BoxRef traf = findBox(stream, "moof/traf");
    ASSERT_TRUE(traf.found);
    std::vector<uint32_t> flags;
    for (auto &kv : boxesIn(stream, traf.payload(), traf.end()))
        if (kv.first == "trun")
            flags.push_back(be32(&stream[kv.second.payload()]));
    EXPECT_EQ(flags, (std::vector<uint32_t>{0x200, 0x201, 0x201, 0x201, 0x301}));
}

TEST(Refragment, ASubtitleTrackIsAnnouncedButNotCopied) {
    TempDir dir;
    mp4_muxer *m = mp4_writer_create();
    mp4_file_name_ascii(m, dir.file("plain.mp4").c_str());
    mp4_video_track_create(m, AVC1, 90000, 3000, 0, 64, 48, 66, 30);
    Bytes pic = nal(300, true, 1), sub = rawAudio(40, 9), pic2 = nal(280, false, 2);
    mp4_write_track(m, 1, pic.data(), uint32_t(pic.size()), 3000);
    ASSERT_EQ(mp4_subtitle_track_create(m, MP4_FOURCC('s', 'u', 'b', 'p'), "Subtitles", 90000, 3000,
                                        0, 64, 48, nullptr),
              2u);
    mp4_write_track(m, 2, sub.data(), uint32_t(sub.size()), 3000);
    mp4_write_track(m, 1, pic2.data(), uint32_t(pic2.size()), 3000);
    mp4_write_movie(m);
    mp4_delete(m);
    testing::internal::CaptureStdout();
    Bytes stream = refragment(dir.file("plain.mp4"));
    std::string said = testing::internal::GetCapturedStdout();
    size_t lines = 0;
    for (size_t at = said.find("unknown handler type: subp\n"); at != npos;
         at = said.find("unknown handler type: subp\n", at + 1))
        lines++;
    EXPECT_GE(lines, 2u); // once per call
    EXPECT_EQ(countBoxes(stream, "mdat"), 2);
    // Its trak stays, tables emptied, with a trex of its own.
    EXPECT_EQ(be32(body(stream, findBox(stream, "moov/trak#2/mdia/minf/stbl/stsz")) + 4), 0u);
    EXPECT_EQ(be32(body(stream, findBox(stream, "moov/mvex/trex#2"))), 2u);
}

TEST(Refragment, ATrakWithoutChunkOffsetsIsLeftAsItWas) {
    const std::string stbl = "moov/trak#2/mdia/minf/stbl/";
    Refragmented r = refragmentPlan(synthetic(10, 5, 12, 6), [&](Bytes &f) {
        memcpy(&f[findBox(f, stbl + "stco").offset + 4], "xxxx", 4);
    });
    // One trex (video), video samples only, and the audio tables as they were.
    EXPECT_EQ(childTypes(r.stream, "moov/mvex").size(), 1u);
    EXPECT_EQ(countBoxes(r.stream, "mdat"), 10);
    for (const char *t : {"stts", "stsz"})
        EXPECT_EQ(boxBytes(r.stream, stbl + t), boxBytes(r.input, stbl + t)) << t;
}

TEST(Refragment, AnEmptySttsMakesATrackUnusable) {
    Refragmented r = refragmentPlan(synthetic(10, 5, 12, 6), [](Bytes &f) {
        // entry_count 0; the entries become unread bytes
        memset(&f[findBox(f, "moov/trak#1/mdia/minf/stbl/stts").payload() + 4], 0, 4);
    });
    ASSERT_EQ(childTypes(r.stream, "moov/mvex").size(), 1u);
    EXPECT_EQ(be32(body(r.stream, findBox(r.stream, "moov/mvex/trex"))), 2u);
    // Without usable video the audio all goes in the first call, and no fragment header is due
    // until the caller closes the fragment.
    EXPECT_EQ(countBoxes(r.pieces[0], "mdat"), 12);
    EXPECT_EQ(countBoxes(r.stream, "moof"), 1);
}

TEST(Refragment, AFirstChunkOfNoPicturesMeansNoFragmentHeaderIsDue) {
    Refragmented r = refragmentPlan(synthetic(50, 30, 60, 45), [](Bytes &f) {
        BoxRef stsc = findBox(f, "moov/trak#1/mdia/minf/stbl/stsc");
        ASSERT_EQ(be32(&f[stsc.payload() + 4]), 2u); // video chunks of 30 and 20 pictures
        memset(&f[stsc.payload() + 8 + 4], 0, 4);    // first entry: 0 samples per chunk
    });
    EXPECT_EQ(r.frag_samples, 0u);
    // The remuxer writes no fragment header of its own; only the final close makes one.
    EXPECT_EQ(countBoxes(r.stream, "moof"), 1);
    EXPECT_EQ(topLevel(r.stream).back(), "moof");
}

TEST(Refragment, TablesThatDisagreeAreReadWithinTheirCounts) {
    Plan plan = synthetic(30, 30, 0, 0);
    Refragmented r = refragmentPlan(plan, [](Bytes &f) {
        // Durations for 10 samples only, and a chunk that claims four billion samples.
        BoxRef stts = findBox(f, "moov/trak#1/mdia/minf/stbl/stts");
        BoxRef stsc = findBox(f, "moov/trak#1/mdia/minf/stbl/stsc");
        ASSERT_EQ(be32(&f[stts.payload() + 4]), 1u);
        ASSERT_EQ(be32(&f[stsc.payload() + 4]), 1u);
        f[stts.payload() + 8 + 3] = 10;
        memset(&f[stsc.payload() + 8 + 4], 0xFF, 4);
    });
    EXPECT_EQ(r.frag_samples, 0xFFFFFFFFu);
    EXPECT_EQ(fragmentOrder(r.stream, plan), picturesThenClose(10));
}

TEST(Refragment, ASampleThatCannotBeHeldIsLostWithErrorTwo) {
    TempDir dir;
    Plan plan = synthetic(10, 10, 0, 0);
    record(plan, 0, dir.file("plain.mp4"));
    mp4_muxer *h = mp4_refrag_create();
    mp4_file_name_ascii(h, dir.file("plain.mp4").c_str());
    // One pass per picture: the second picture's bytes cannot be allocated.
    Bytes stream = drain(h, nullptr, 1);
    EXPECT_EQ(mp4_get_error_code(h), 2u);
    EXPECT_STREQ(mp4_get_error(h), "failed to allocate memory");
    mp4_delete(h);
    EXPECT_EQ(fragmentOrder(stream, plan), picturesThenClose(10, 1));
}

TEST(Refragment, AMovieClaimingMoreThanItsInputIsRefused) {
    TempDir dir;
    record(synthetic(4, 4, 4, 4), 0, dir.file("plain.mp4"));
    Bytes f = readFile(dir.file("plain.mp4"));
    BoxRef moov = findBox(f, "moov");
    ASSERT_EQ(moov.end(), f.size()); // the movie is the last box
    uint32_t claim = uint32_t(moov.size + (64u << 20));
    for (int i = 0; i < 4; i++)
        f[moov.offset + i] = uint8_t(claim >> (24 - 8 * i));
    // A stream without a descriptor: its length is found by seeking.
    FILE *in = fmemopen(f.data(), f.size(), "rb");
    ASSERT_NE(in, nullptr);
    mp4_muxer *h = mp4_refrag_create();
    mp4_file_pointer(h, in);
    testing::internal::CaptureStdout();
    Bytes out = drain(h);
    std::string said = testing::internal::GetCapturedStdout();
    EXPECT_NE(said.find("refrag: moov larger than its input\n"), npos) << said;
    EXPECT_EQ(mp4_get_error_code(h), 3u);
    EXPECT_EQ(topLevel(out), (std::vector<std::string>{"ftyp"})); // no movie written
    mp4_delete(h);
    fclose(in);
}

TEST(Refragment, ASampleReachingPastTheFileKeepsOnlyWhatTheFileHolds) {
    Plan plan = synthetic(4, 4, 0, 0);
    Refragmented r = refragmentPlan(plan, [](Bytes &f) {
        BoxRef stsz = findBox(f, "moov/trak#1/mdia/minf/stbl/stsz");
        memset(&f[stsz.payload() + 12 + 4 * 2], 0xFF, 4); // the third sample claims 4 GiB
    });
    std::vector<uint64_t> sizes;
    for (auto &kv : boxesIn(r.stream, 0, r.stream.size()))
        if (kv.first == "mdat")
            sizes.push_back(kv.second.size - 8);
    std::vector<Sample> before = expectedSamples(plan)[1];
    BoxRef stco = findBox(r.input, "moov/trak#1/mdia/minf/stbl/stco");
    uint64_t third = be32(&r.input[stco.payload() + 8]) + before[0].size + before[1].size;
    EXPECT_EQ(sizes,
              (std::vector<uint64_t>{before[0].size, before[1].size, r.input.size() - third, 0}));
}

// Samples of a file are read ahead through a window; a stream without a descriptor is read
// where each sample lies. Both must give the same stream, whatever the sizes: small samples
// that run across the window's end, and samples too large for it.
TEST(Refragment, SamplesReadAheadFromAFileMatchThoseReadOneByOne) {
    TempDir dir;
    // One track, so that the samples are read in file order and runs of them cross the end of
    // each window.
    Plan plan = synthetic(2000, 2000, 0, 0);
    for (size_t i = 50; i < plan.size(); i += 301)
        plan[i].data = nal(70000 + uint32_t(i), false, uint32_t(i)); // past 64 KiB
    record(plan, 0, dir.file("plain.mp4"));
    Bytes file = readFile(dir.file("plain.mp4"));
    ASSERT_GT(file.size(), 2u << 18); // windows of 256 KiB, refilled

    Bytes from_file = refragment(dir.file("plain.mp4"));
    FILE *fp = fmemopen(file.data(), file.size(), "rb");
    ASSERT_NE(fp, nullptr);
    ASSERT_LT(fileno(fp), 0);
    mp4_muxer *h = mp4_refrag_create();
    mp4_file_pointer(h, fp);
    Bytes from_stream = drain(h);
    EXPECT_EQ(mp4_get_error(h), nullptr);
    mp4_delete(h);
    fclose(fp);
    EXPECT_EQ(from_file.size(), from_stream.size());
    EXPECT_TRUE(from_file == from_stream);
    EXPECT_EQ(countBoxes(from_file, "mdat"), 2000); // one per sample: none lost
}

TEST(Refragment, BoxesThatCannotBeWrittenBackFaithfullyAreLeftOut) {
    Bytes stream = refragmentPlan(synthetic(4, 4, 4, 4), [](Bytes &f) {
                       // An ES descriptor claiming 127 bytes in a 40-byte esds, and a box the codec
                       // does not know.
                       BoxRef esds = findBox(f, "moov/trak#2/mdia/minf/stbl/stsd/mp4a/esds");
                       ASSERT_EQ(f[esds.payload() + 4], 0x03);
                       f[esds.payload() + 5] = 0x7F;
                       memcpy(&f[findBox(f, "moov/trak#1/mdia/minf/vmhd").offset + 4], "zzzz", 4);
                   }).stream;
    BoxRef mp4a = findBox(stream, "moov/trak#2/mdia/minf/stbl/stsd/mp4a");
    ASSERT_TRUE(mp4a.found);
    EXPECT_TRUE(boxesIn(stream, mp4a.payload() + 28, mp4a.end()).empty());
    EXPECT_FALSE(findBox(stream, "moov/trak#1/mdia/minf/zzzz").found);
    // The rest of the movie is intact and measured: the samples still follow it.
    EXPECT_EQ(countBoxes(stream, "mdat"), 8);
    EXPECT_TRUE(findBox(stream, "moov/trak#1/mdia/minf/stbl/stsd/avc1/avcC").found);
}

TEST(Refragment, ConstantSizePcmIsMappedByTheBytesOfAFrame) {
    SKIP_WITHOUT_FFPROBE();
    TempDir dir;
    // The writer's own PCM: every frame a sample of size 1 in stsz, 4 bytes in the file.
    const std::string own = dir.file("pcm.mov");
    Bytes pcm = readFile(dataPath("sample_s16le.pcm"));
    mp4_muxer *m = mov_writer_create();
    mp4_file_name_ascii(m, own.c_str());
    mp4_audio_track_create(m, MP4_FOURCC('s', 'o', 'w', 't'), 48000, 1024, 0, 48000, 2);
    for (size_t at = 0; at < 3 * 4096; at += 4096)
        mp4_write_track(m, 1, &pcm[at], 4096, 1024);
    mp4_write_movie(m);
    ASSERT_EQ(mp4_get_error(m), nullptr);
    mp4_delete(m);
    Bytes f = readFile(own);
    ASSERT_EQ(be32(body(f, findBox(f, "moov/trak/mdia/minf/stbl/stsz"))), 1u);
    // ffmpeg's PCM (with video) counts 4 bytes per frame itself.
    for (std::string source : {own, dataPath("pcm_s16le.mov")}) {
        SCOPED_TRACE(source);
        Bytes stream = refragment(source);
        std::string frag = dir.file("frag.mov");
        writeFile(frag, stream);
        // One stereo 16-bit frame per sample: every audio mdat holds 4 bytes.
        size_t frames = 0, pictures = 0;
        for (auto &kv : boxesIn(stream, 0, stream.size()))
            if (kv.first == "mdat")
                (kv.second.size == 12 ? frames : pictures)++;
        EXPECT_EQ(frames, source == own ? 3u * 1024 : 16000u);
        EXPECT_EQ(pictures, source == own ? 0u : 15u);
        EXPECT_EQ(decodeErrors(frag), "");
        std::string a, b;
        const std::string pcm_md5 = " -map 0:a -f s16le - | md5sum";
        ASSERT_EQ(run("ffmpeg -nostdin -v error -i " + quote(source) + pcm_md5, &a), 0);
        ASSERT_EQ(run("ffmpeg -nostdin -v error -i " + quote(frag) + pcm_md5, &b), 0);
        EXPECT_EQ(a, b);
    }
}

// ---- round trips -----------------------------------------------------------------------------

namespace {

// Plain -> fragmented -> plain through the library, checking the fragmented stream on the way.
void roundTrip(const std::string &source, const TempDir &dir, bool own, bool probe) {
    SCOPED_TRACE(source);
    std::vector<Bytes> pieces;
    Bytes stream = refragment(source, &pieces);
    ASSERT_FALSE(stream.empty());
    std::string frag = dir.file("frag.mp4"), back = dir.file("back.mp4");
    writeFile(frag, stream);
    std::map<uint32_t, Track> source_tracks = tracksOf(readFile(source));
    if (probe) {
        // Against the source's own tables: ffmpeg's reading of an edit list can add or drop
        // packets of the plain source, which says nothing about the fragments.
        std::vector<Fields> got;
        std::string errors;
        ASSERT_TRUE(probeStreams(frag, &got, &errors)) << errors;
        EXPECT_EQ(errors, "");
        ASSERT_EQ(got.size(), source_tracks.size());
        size_t i = 0;
        for (auto &kv : source_tracks) {
            const Track &t = kv.second;
            EXPECT_EQ(got[i]["nb_read_packets"], std::to_string(t.samples.size()))
                << "stream " << i;
            EXPECT_NEAR(std::stod(got[i]["duration"]), double(t.duration) / t.timescale, 1e-3)
                << "stream " << i;
            i++;
        }
        EXPECT_EQ(decodeErrors(frag), "");
    }
    ASSERT_EQ(defragment(pieces, back), 0u);
    std::map<uint32_t, Track> back_tracks = tracksOf(readFile(back));
    ASSERT_EQ(source_tracks.size(), back_tracks.size());
    for (auto &kv : source_tracks) {
        const Track &x = kv.second, &y = back_tracks[kv.first];
        EXPECT_EQ(std::tie(x.handler, x.timescale, x.duration, x.samples),
                  std::tie(y.handler, y.timescale, y.duration, y.samples))
            << "track " << kv.first;
    }
    std::vector<Delivered> deliveries = played(source, own);
    ASSERT_FALSE(deliveries.empty());
    EXPECT_EQ(deliveries, played(back, own));
}

void recordEncoderOutput(const std::string &path) {
    Bytes h264 = readFile(dataPath("sample.h264")), aac = readFile(dataPath("sample.aac"));
    auto aus = splitAtDelimiters(h264), frames = splitAdtsFrames(aac);
    ASSERT_EQ(aus.size(), 75u);
    mp4_muxer *m = mp4_writer_create();
    mp4_file_name_ascii(m, path.c_str());
    mp4_video_track_create(m, AVC1, 90000, 3600, 0, 128, 96, 66, 30);
    mp4_audio_track_create(m, MP4A, 48000, 1024, 0, 48000, 2);
    size_t a = 0;
    auto audio = [&]() {
        mp4_write_track(m, 2, &aac[frames[a].first], uint32_t(frames[a].second), 1024);
        a++;
    };
    for (size_t i = 0; i < aus.size(); i++) {
        while (a < frames.size() && a * 1024 * 25 <= i * 48000)
            audio();
        mp4_write_track(m, 1, &h264[aus[i].first], uint32_t(aus[i].second), 3600);
    }
    while (a < frames.size())
        audio();
    mp4_write_movie(m);
    ASSERT_EQ(mp4_get_error(m), nullptr);
    mp4_delete(m);
}

} // namespace

TEST(RoundTrip, OwnRecordingsComeBackSampleForSample) {
    TempDir dir;
    // Encoder output, checked by ffprobe and ffmpeg on the way when they are installed.
    recordEncoderOutput(dir.file("encoded.mp4"));
    roundTrip(dir.file("encoded.mp4"), dir, true, haveProgram("ffprobe") && haveProgram("ffmpeg"));
    // Pictures of 250 to 520 bytes: lengths 00 00 01 xx must stay lengths, not start codes.
    Plan plan = synthetic(90, 7, 130, 10);
    record(plan, 0, dir.file("synthetic.mp4"));
    size_t between = 0;
    const auto expected = expectedSamples(plan); // a range over a temporary's element dangles
    for (const Sample &s : expected.at(1))
        between += s.size >= 256 && s.size <= 511;
    EXPECT_GT(between, 50u);
    roundTrip(dir.file("synthetic.mp4"), dir, true, false);
}

TEST(RoundTrip, FfmpegMadeMoviesComeBackSampleForSample) {
    SKIP_WITHOUT_FFPROBE();
    TempDir dir;
    for (const char *name : {"h264_aac.mp4", "h264_aac_default_ts.mp4", "h264_only_faststart.mp4",
                             "h264_aac.mov", "mp4v.mp4"})
        roundTrip(dataPath(name), dir, false, true);
}

TEST(RoundTrip, TheCommandLineToolsGiveTheLibrarysBytes) {
    SKIP_WITHOUT_TOOL();
    TempDir dir;
    std::string source = dataPath("h264_aac.mp4");
    std::vector<Bytes> pieces;
    Bytes stream = refragment(source, &pieces);
    ASSERT_EQ(defragment(pieces, dir.file("api.mp4")), 0u);
    std::string tool = quote(toolPath()), out;
    ASSERT_EQ(run(tool + " fragment " + quote(source) + " " + quote(dir.file("f.mp4")), &out), 0)
        << out;
    EXPECT_EQ(readFile(dir.file("f.mp4")), stream);
    ASSERT_EQ(run(tool + " defragment " + quote(dir.file("f.mp4")) + " " + quote(dir.file("p.mp4")),
                  &out),
              0)
        << out;
    EXPECT_EQ(readFile(dir.file("p.mp4")), readFile(dir.file("api.mp4")));
    // A fragmented input is refused rather than fragmented again.
    EXPECT_NE(
        run(tool + " fragment " + quote(dir.file("f.mp4")) + " " + quote(dir.file("x.mp4")), &out),
        0);
    EXPECT_NE(out.find("fragmented already"), npos) << out;
}
