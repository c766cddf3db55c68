// Box dump: whole-file listings checked against reviewed golden files, and, for what those
// listings do not reach, the printed form of single records, the entry limit, the clock and
// fixed-point formats, and the mdat peek that must leave the stream alone.
#include "box/box.h"
#include "io.h"
#include "test_util.h"
#include "tree_compare.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using test_util::dataPath;

template <class T> T *make(uint32_t type, uint32_t size) {
    return static_cast<T *>(newBox(type, size));
}

template <class T> T *allocArray(size_t count) {
    return static_cast<T *>(mp4_calloc(count ? count : 1, sizeof(T)));
}

// Runs f with stdout captured; the dump must leave `indent` as it found it.
template <class F> std::string captured(F f) {
    fflush(stdout);
    const int before = indent;
    testing::internal::CaptureStdout();
    f();
    fflush(stdout);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(indent, before) << "indent not restored";
    return out;
}

std::string dump(mp4_muxer *m, Box *box) {
    return captured([&] { printBox(m, box); });
}

std::string dumpDescriptor(uint8_t tag, const void *record) {
    return captured([&] { printDescriptor(tag, record); });
}

std::vector<std::string> lines(const std::string &text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

// Builds the expected text from lines, each prefixed by `pad` spaces.
std::string text(int pad, std::initializer_list<const char *> ls) {
    std::string out;
    for (const char *l : ls)
        out += std::string(pad, ' ') + l + "\n";
    return out;
}

struct Handle {
    mp4_muxer *m;
    explicit Handle(mp4_muxer *handle) : m(handle) {}
    ~Handle() { mp4_delete(m); }
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;
};

// Keeps `indent` at a chosen value for the duration of a test.
struct IndentAt {
    int saved;
    explicit IndentAt(int value) : saved(indent) { indent = value; }
    ~IndentAt() { indent = saved; }
};

// ---- header line, indentation, full-box line, clock and fixed-point forms --------------------

Mvhd *sampleMvhd() {
    auto *mvhd = make<Mvhd>(fourcc("mvhd"), 108);
    mvhd->creation_time = 3000000000u;
    mvhd->modification_time = 3000000001u;
    mvhd->timescale = 90000;
    mvhd->duration = 5400000;
    mvhd->rate = 0x18000; // 1.5
    mvhd->volume = 0x180; // 1.5
    mvhd->matrix[0] = 0x10000;
    mvhd->matrix[4] = 0x10000;
    mvhd->matrix[8] = 0x40000000;
    mvhd->next_track_ID = 3;
    return mvhd;
}

// The mvhd above as printed, its header line `pad` spaces in.
std::string mvhdLines(int pad) {
    return text(pad,
                {"mvhd  size: 108", "    version: 0  flags: 0", "    creation_time: 3000000000",
                 "    modification_time: 3000000001", "    timescale: 90000",
                 "    duration: 5400000 (0:01:00.000)", "    rate: 0x18000 (1.5000)",
                 "    volume: 0x180 (1.50)", "    matrix[0]: 0x10000", "    matrix[1]: 0x0",
                 "    matrix[2]: 0x0", "    matrix[3]: 0x0", "    matrix[4]: 0x10000",
                 "    matrix[5]: 0x0", "    matrix[6]: 0x0", "    matrix[7]: 0x0",
                 "    matrix[8]: 0x40000000", "    next_track_ID: 3"});
}

TEST(DumpLayout, HeaderLineOnlyForContainersWholeSizeUnknownWithoutRowAndNothingForNull) {
    for (uint32_t type : {fourcc("moov"), fourcc("trak"), fourcc("mdia"), fourcc("minf"),
                          fourcc("stbl"), fourcc("dinf"), fourcc("edts"), fourcc("mvex"),
                          fourcc("moof"), fourcc("traf"), fourcc("mfra"), fourcc("rmra"),
                          fourcc("rmda"), fourcc("free"), fourcc("skip"), fourcc("wide")}) {
        Box *b = newBox(type, 4000000000u);
        EXPECT_EQ(dump(nullptr, b), boxtest::fcc(type) + "  size: 4000000000\n");
        deleteBox(b);
    }
    Box *b = newBox(fourcc("moov"), 8);
    b->size = 0x123456789ull;
    EXPECT_EQ(dump(nullptr, b), "moov  size: 4886718345\n");
    deleteBox(b);
    EXPECT_EQ(dump(nullptr, nullptr), "");
    // A box without a row and without a parent: "unknown" (under any parent but an stsd, in the
    // golden listings).
    b = newBox(fourcc("abcd"), 16);
    EXPECT_EQ(dump(nullptr, b), "abcd  size: 16\n    unknown\n");
    deleteBox(b);
}

TEST(DumpClock, HoursMinutesSecondsAndMillisecondsFromTheMediaTimescale) {
    auto *mdhd = make<Mdhd>(fourcc("mdhd"), 32);
    mdhd->version = 1;
    mdhd->flags = 0xabc;
    mdhd->timescale = 48000;
    mdhd->duration = uint64_t(48000) * 3661 + 24000 + 48; // 1:01:01.501
    mdhd->language[0] = 4;
    mdhd->language[1] = 14;
    mdhd->language[2] = 21;
    EXPECT_EQ(dump(nullptr, mdhd),
              text(0, {"mdhd  size: 32", "    version: 1  flags: abc", "    creation_time: 0",
                       "    modification_time: 0", "    timescale: 48000",
                       "    duration: 175752048 (1:01:01.501)", "    language[0]: 4",
                       "    language[1]: 14", "    language[2]: 21"}));
    mdhd->timescale = 0; // no clock without a timescale
    EXPECT_NE(dump(nullptr, mdhd).find("    duration: 175752048\n"), std::string::npos);
    deleteBox(mdhd);
    Mvhd *mvhd = sampleMvhd();
    mvhd->timescale = 0;
    std::string out = dump(nullptr, mvhd);
    EXPECT_NE(out.find("\n    duration: 5400000\n"), std::string::npos) << out;
    deleteBox(mvhd);
}

// ---- tkhd and elst find the movie timescale in the mvhd of their moov ------------------------

Tkhd *sampleTkhd() {
    auto *tkhd = make<Tkhd>(fourcc("tkhd"), 92);
    tkhd->flags = 3;
    tkhd->track_ID = 1;
    tkhd->duration = 5400000;
    tkhd->layer = 1;
    tkhd->alternate_group = 2;
    tkhd->volume = 0x100;
    tkhd->matrix[0] = 0x10000;
    tkhd->width = 160u << 16;
    tkhd->height = 0xFFFFFFFF; // 65535.99998: the fraction needs more than 32 bits
    return tkhd;
}

std::string tkhdLines(const char *duration_line, int pad = 0) {
    return text(pad, {"tkhd  size: 92",       "    version: 0  flags: 3",
                      "    creation_time: 0", "    modification_time: 0",
                      "    track_ID: 1",      duration_line,
                      "    layer: 1",         "    alternate_group: 2",
                      "    volume: 256",      "    matrix[0]: 0x10000",
                      "    matrix[1]: 0x0",   "    matrix[2]: 0x0",
                      "    matrix[3]: 0x0",   "    matrix[4]: 0x0",
                      "    matrix[5]: 0x0",   "    matrix[6]: 0x0",
                      "    matrix[7]: 0x0",   "    matrix[8]: 0x0",
                      "    width: 160.00000", "    height: 65535.99998"});
}

TEST(DumpTimescale, TkhdUsesTheMvhdOfItsMovieOnly) {
    Tkhd *tkhd = sampleTkhd();
    const std::string plain = tkhdLines("    duration: 5400000");
    EXPECT_EQ(dump(nullptr, tkhd), plain);
    Box *trak = newBox(fourcc("trak"), 8);
    addBox(tkhd, trak); // a trak read on its own: no grandparent
    EXPECT_EQ(dump(nullptr, tkhd), plain);
    Box *moov = newBox(fourcc("moov"), 8);
    addBox(trak, moov); // a moov without an mvhd
    EXPECT_EQ(dump(nullptr, tkhd), plain);
    Mvhd *mvhd = sampleMvhd();
    addBox(mvhd, moov);
    EXPECT_EQ(dump(nullptr, tkhd), tkhdLines("    duration: 5400000 (0:01:00.000)"));
    mvhd->timescale = 0;
    EXPECT_EQ(dump(nullptr, tkhd), plain);
    deleteBox(moov);
}

// With the mvhd of its movie (elst -> edts -> trak -> moov), elst prints clocks: golden listings.
TEST(DumpTimescale, ElstWithoutAMovieHeaderPrintsPlainDurations) {
    auto *elst = make<Elst>(fourcc("elst"), 40);
    elst->entry_count = 2;
    elst->entries = allocArray<ElstEntry>(2);
    elst->entries[0] = {45000, -1, 1, 0};
    elst->entries[1] = {90000 * 61 + 9, 1024, 1, -2};
    const std::string plain =
        text(0, {"elst  size: 40", "    version: 0  flags: 0", "    entry_count: 2",
                 "    segment_duration[0]: 45000", "    media_time      [0]: -1",
                 "    media_rate_integer [0]: 1", "    media_rate_fraction[0]: 0",
                 "    segment_duration[1]: 5490009", "    media_time      [1]: 1024",
                 "    media_rate_integer [1]: 1", "    media_rate_fraction[1]: -2"});
    EXPECT_EQ(dump(nullptr, elst), plain);
    deleteBox(elst);
}

// ---- movie, track and media boxes ------------------------------------------------------------

TEST(DumpMovieBoxes, RecordBuiltOnTheStackIsPrintedWhole) {
    Ftyp ftyp{}; // as the writer builds its ftyp: no allocation recorded
    ftyp.type = fourcc("ftyp");
    ftyp.size = 20;
    ftyp.major_brand = fourcc("qt  ");
    ftyp.minor_version = 0x20050300;
    ftyp.compatible_brands[0] = fourcc("qt  ");
    EXPECT_EQ(dump(nullptr, &ftyp), text(0, {"ftyp  size: 20", "    major_brand: 0x71742020 (qt  )",
                                             "    minor_version: 20050300",
                                             "    compatible_brand[0]: 0x71742020 (qt  )"}));
}

TEST(DumpMovieBoxes, FtypBrandsAreCountedFromTheBoxSize) {
    auto *ftyp = make<Ftyp>(fourcc("ftyp"), 16);
    ftyp->major_brand = fourcc("isom");
    ftyp->minor_version = 0x200;
    ftyp->compatible_brands[0] = fourcc("isom");
    ftyp->compatible_brands[1] = fourcc("mp41");
    for (int i = 2; i < 6; i++)
        ftyp->compatible_brands[i] = fourcc("avc1");
    EXPECT_EQ(dump(nullptr, ftyp), text(0, {"ftyp  size: 16", "    major_brand: 0x69736f6d (isom)",
                                            "    minor_version: 200"}));
    // More brands than the record holds: the six held ones only.
    ftyp->size = 100;
    std::vector<std::string> ls = lines(dump(nullptr, ftyp));
    ASSERT_EQ(ls.size(), 9u);
    EXPECT_EQ(ls[8], "    compatible_brand[5]: 0x61766331 (avc1)");
    deleteBox(ftyp);
}

Hdlr *sampleHdlr(const char *name, uint32_t size) {
    auto *hdlr = make<Hdlr>(fourcc("hdlr"), size);
    hdlr->handler_type = fourcc("vide");
    hdlr->name = static_cast<char *>(mp4_malloc(strlen(name) + 1));
    memcpy(hdlr->name, name, strlen(name) + 1);
    return hdlr;
}

TEST(DumpMovieBoxes, HdlrNameIsCutAtBoxSizeMinus32AndAtItsTerminator) {
    Hdlr *hdlr = sampleHdlr("VideoHandler", 40); // size 45, the whole name: golden listings
    EXPECT_NE(dump(nullptr, hdlr).find("    name: VideoHan\n"), std::string::npos);
    hdlr->size = 32;
    EXPECT_NE(dump(nullptr, hdlr).find("    name: \n"), std::string::npos);
    hdlr->size = 20; // smaller than the fixed fields: no characters at all
    EXPECT_NE(dump(nullptr, hdlr).find("    name: \n"), std::string::npos);
    hdlr->size = 0x100000000ull; // never beyond the stored string
    EXPECT_NE(dump(nullptr, hdlr).find("    name: VideoHandler\n"), std::string::npos);
    mp4_free(hdlr->name); // no name at all
    hdlr->name = nullptr;
    hdlr->handler_type = fourcc("soun");
    hdlr->size = 45;
    EXPECT_NE(dump(nullptr, hdlr).find("    handler_type: 0x736f756e (soun)\n    name: \n"),
              std::string::npos);
    deleteBox(hdlr);
}

// ---- sample tables ---------------------------------------------------------------------------

TEST(DumpSampleTables, SttsPrints2000EntriesThenDotsThenTheTotalOfAllWhenThereAreSamples) {
    auto *stts = make<Stts>(fourcc("stts"), 16 + 8 * 2500);
    stts->entry_count = 2500;
    stts->entries = allocArray<SttsEntry>(2500);
    for (int i = 0; i < 2500; i++)
        stts->entries[i] = {3, 512};
    // 4 x 0x40000000 is 2^32: taken in 32 bits it adds nothing to the total.
    stts->entries[2499] = {4, 0x40000000};
    std::vector<std::string> ls = lines(dump(nullptr, stts));
    ASSERT_EQ(ls.size(), 1u + 2u + 2000u + 2u);
    EXPECT_EQ(ls[0], "stts  size: 20016");
    EXPECT_EQ(ls[2], "    entry_count: 2500");
    EXPECT_EQ(ls[3], "    sample[0] count: 3  delta: 512");
    EXPECT_EQ(ls[2002], "    sample[1999] count: 3  delta: 512");
    EXPECT_EQ(ls[2003], "    ...");
    // total = 2499 x 3 x 512 = 3838464; samples = 7497 + 4 = 7501; avg = 511.
    EXPECT_EQ(ls[2004], "    total: 3838464 avg: 511");
    deleteBox(stts);

    // The total line needs samples.
    stts = make<Stts>(fourcc("stts"), 16);
    EXPECT_EQ(dump(nullptr, stts),
              text(0, {"stts  size: 16", "    version: 0  flags: 0", "    entry_count: 0"}));
    stts->entry_count = 1;
    stts->entries = allocArray<SttsEntry>(1);
    stts->entries[0] = {0, 1000};
    EXPECT_EQ(dump(nullptr, stts),
              text(0, {"stts  size: 16", "    version: 0  flags: 0", "    entry_count: 1",
                       "    sample[0] count: 0  delta: 1000"}));
    deleteBox(stts);
}

// More than 2000 entries: the stts test above.
TEST(DumpSampleTables, ExactlyTheEntryLimitPrintsNoDots) {
    auto *stco = make<Stco>(fourcc("stco"), 16 + 4 * 2000);
    stco->entry_count = 2000;
    stco->entries = allocArray<uint32_t>(2000);
    for (uint32_t i = 0; i < 2000; i++)
        stco->entries[i] = 0x1000 + i;
    std::vector<std::string> ls = lines(dump(nullptr, stco));
    ASSERT_EQ(ls.size(), 3u + 2000u);
    EXPECT_EQ(ls[3 + 1999], "    chunk_offset[1999]: 0x17cf");
    deleteBox(stco);
}

TEST(DumpSampleTables, CttsOffsetsAreSignedInVersion1AndInQuickTime) {
    auto *ctts = make<Ctts>(fourcc("ctts"), 24);
    ctts->entry_count = 1;
    ctts->entries = allocArray<CttsEntry>(1);
    ctts->entries[0] = {2, 0xFFFFFFFE};
    const std::string head =
        text(0, {"ctts  size: 24", "    version: 0  flags: 0", "    entry_count: 1"});
    Handle mp4(mp4_writer_create()), mov(mov_writer_create());
    EXPECT_EQ(dump(mp4.m, ctts), head + "    sample[0] count: 2  offset: 4294967294\n");
    EXPECT_EQ(dump(mov.m, ctts), head + "    sample[0] count: 2  offset: -2\n");
    ctts->version = 1;
    EXPECT_EQ(dump(mp4.m, ctts),
              text(0, {"ctts  size: 24", "    version: 1  flags: 0", "    entry_count: 1",
                       "    sample[0] count: 2  offset: -2"}));
    deleteBox(ctts);
}

TEST(DumpSampleTables, StszListsSizesOnlyWhenTheyVary) {
    auto *stsz = make<Stsz>(fourcc("stsz"), 32);
    stsz->sample_count = 3;
    stsz->entries = allocArray<uint32_t>(3);
    stsz->entries[0] = 100;
    stsz->entries[1] = 200;
    stsz->entries[2] = 4000000000u;
    EXPECT_EQ(dump(nullptr, stsz),
              text(0, {"stsz  size: 32", "    version: 0  flags: 0", "    sample_size: 0",
                       "    sample_count: 3", "    entry_size[0]: 100", "    entry_size[1]: 200",
                       "    entry_size[2]: 4000000000"}));
    stsz->sample_size = 1024;
    EXPECT_EQ(dump(nullptr, stsz), text(0, {"stsz  size: 32", "    version: 0  flags: 0",
                                            "    sample_size: 1024", "    sample_count: 3"}));
    deleteBox(stsz);
}

TEST(DumpSampleTables, Stz2UnpacksFourEightAndSixteenBitSizesAndNeverReadsPastItsBytes) {
    const struct {
        uint8_t field_size;
        uint32_t count;
        std::vector<uint8_t> bytes;
        const char *sizes;
    } cases[] = {
        {4,
         3,
         {0x5A, 0xC0},
         "    entry_size[0]: 5\n    entry_size[1]: 10\n    entry_size[2]: 12\n"},
        {8, 2, {0xFE, 0x01}, "    entry_size[0]: 254\n    entry_size[1]: 1\n"},
        {16, 2, {0x12, 0x34, 0xFF, 0xFE}, "    entry_size[0]: 4660\n    entry_size[1]: 65534\n"},
        // A count whose product wraps in 32 bits: 0x80000001 x 16 = 2^35 + 16, so the codec
        // holds (16 + 7) / 8 = 2 bytes, one size.
        {16, 0x80000001u, {0x01, 0x02}, "    entry_size[0]: 258\n"},
        {12, 1, {0x01, 0x02}, ""}, // a field size without a packing prints no sizes
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.count);
        auto *stz2 = make<Stz2>(fourcc("stz2"), 23);
        stz2->field_size = c.field_size;
        stz2->sample_count = c.count;
        stz2->entries = allocArray<uint8_t>(c.bytes.size());
        memcpy(stz2->entries, c.bytes.data(), c.bytes.size());
        EXPECT_EQ(dump(nullptr, stz2),
                  "stz2  size: 23\n    version: 0  flags: 0\n    field_size: " +
                      std::to_string(c.field_size) +
                      "\n    sample_count: " + std::to_string(c.count) + "\n" + c.sizes);
        deleteBox(stz2);
    }
}

TEST(DumpSampleTables, StdpTakesItsCountFromTheLastStsz) {
    auto *stdp = make<Stdp>(fourcc("stdp"), 18);
    stdp->entries = allocArray<uint16_t>(3);
    stdp->entries[0] = 9;
    stdp->entries[1] = 65535;
    stdp->entries[2] = 1;
    Handle h(mp4_reader_create());
    h.m->sample_count = 2;
    EXPECT_EQ(dump(h.m, stdp), text(0, {"stdp  size: 18", "    version: 0  flags: 0",
                                        "    priority[0]: 9", "    priority[1]: 65535"}));
    h.m->sample_count = 0;
    EXPECT_EQ(dump(h.m, stdp), text(0, {"stdp  size: 18", "    version: 0  flags: 0"}));
    deleteBox(stdp);
}

// ---- sample entries --------------------------------------------------------------------------

struct EntryUnderStsd {
    Box *stsd;
    SampleEntry *entry;
    EntryUnderStsd(uint32_t type, uint32_t size) {
        stsd = newBox(fourcc("stsd"), 16);
        entry = make<SampleEntry>(type, size);
        addBox(entry, stsd);
    }
    ~EntryUnderStsd() { deleteBox(stsd); }
};

// The video and sound layouts (versions 0 and 1) are those of the golden listings.
TEST(DumpSampleEntries, FullCompressorNameAndVersion2SoundEntries) {
    EntryUnderStsd e(fourcc("avc1"), 86);
    Handle h(mp4_reader_create());
    h.m->handler_type = fourcc("vide");
    // A name filling all 32 bytes is not read past the field.
    memset(e.entry->compressorname, 'n', 32);
    EXPECT_NE(dump(h.m, e.entry).find("    compressorname: " + std::string(32, 'n') + "\n"),
              std::string::npos);
    h.m->handler_type = fourcc("soun");
    e.entry->version = 2; // coded like version 0
    EXPECT_EQ(lines(dump(h.m, e.entry)).size(), 7u);
}

TEST(DumpSampleEntries, HintAndSubpictureEntriesShowTheirDataSizeOtherHandlersNotSet) {
    EntryUnderStsd e(fourcc("mp4s"), 52);
    e.entry->data_reference_index = 1;
    Handle h(mp4_reader_create());
    h.m->handler_type = fourcc("subp");
    EXPECT_EQ(dump(h.m, e.entry),
              text(0, {"mp4s  size: 52", "    data_reference_index: 1", "    subp data size 44"}));
    h.m->handler_type = fourcc("hint");
    EXPECT_EQ(dump(h.m, e.entry),
              text(0, {"mp4s  size: 52", "    data_reference_index: 1", "    hint data size 44"}));

    // A meta track's entry, or no hdlr seen yet: a plain line, no indentation whatever the depth.
    EntryUnderStsd mett(fourcc("mett"), 16);
    IndentAt at(24);
    for (uint32_t handler : {fourcc("meta"), 0u}) {
        h.m->handler_type = handler;
        EXPECT_EQ(dump(h.m, mett.entry),
                  std::string(24, ' ') + "mett  size: 16\nhandler type not set\n");
    }
    EXPECT_EQ(dump(nullptr, mett.entry),
              std::string(24, ' ') + "mett  size: 16\nhandler type not set\n");
}

// Nodes read from a file whose type the codec does not decode hold only their header.
Box *headerOnly(uint32_t type, uint64_t size) {
    auto *b = static_cast<Box *>(mp4_calloc(1, sizeof(Box)));
    b->type = type;
    b->size = size;
    b->node_flags = BOX_HEAP;
    b->alloc_size = sizeof(Box);
    return b;
}

TEST(DumpSampleEntries, HeaderOnlyNodesPrintOnlyTheirHeaderLineHandlerTypedRecordsTheirIndex) {
    for (uint32_t type :
         {fourcc("stsh"), fourcc("stdp"), fourcc("padb"), fourcc("vide"), fourcc("soun"),
          fourcc("hint"), fourcc("mvhd"), fourcc("trun"), fourcc("esds"), fourcc("mdat")}) {
        Box *b = headerOnly(type, 5000);
        Handle h(mp4_reader_create());
        h.m->sample_count = 100;
        std::string out = dump(h.m, b);
        // An mdat also prints its offset, which comes from the header.
        EXPECT_EQ(lines(out).size(), type == fourcc("mdat") ? 2u : 1u) << out;
        deleteBox(b);
    }
    // With their record, boxes typed as a handler print their data reference index.
    for (uint32_t type : {fourcc("vide"), fourcc("soun"), fourcc("hint")}) {
        auto *b = make<SampleEntry>(type, 16);
        b->data_reference_index = 7;
        b->width = 5;
        EXPECT_EQ(dump(nullptr, b),
                  boxtest::fcc(type) + "  size: 16\n    data_reference_index: 7\n");
        deleteBox(b);
    }
    // A header-only sample entry under a video handler has no fields to show.
    Box *stsd = newBox(fourcc("stsd"), 16);
    Box *entry = headerOnly(fourcc("avc1"), 100);
    addBox(entry, stsd);
    Handle h(mp4_reader_create());
    h.m->handler_type = fourcc("vide");
    EXPECT_EQ(dump(h.m, entry), "avc1  size: 100\n");
    deleteBox(stsd);
}

// ---- codec boxes -----------------------------------------------------------------------------

TEST(DumpCodecBoxes, AvcCNeverPrintsBeyondItsTwoSlotsAndDataArea) {
    auto *avcc = make<AvcC>(fourcc("avcC"), 200);
    avcc->numOfSequenceParameterSets = 31;
    avcc->numOfPictureParameterSets = 255;
    avcc->length[0] = 100;
    avcc->length[1] = 65535;
    memset(avcc->data, 0xab, sizeof avcc->data);
    std::vector<std::string> ls = lines(dump(nullptr, avcc));
    // Two sets are held: the first SPS (100 bytes) and a second SPS cut at the data area's end.
    ASSERT_EQ(ls.size(), 1u + 6u + 4u + 1u);
    EXPECT_EQ(ls[9], "    sequenceParameterSetLength[1] = 65535");
    EXPECT_EQ(ls[10].size(), std::string("    sequenceParameterSetNALUnit[1] =").size() + 32 * 3);
    EXPECT_EQ(ls[11], "    numOfPictureParameterSets: 255");
    deleteBox(avcc);
}

TEST(DumpCodecBoxes, FielNamesItsCountAndOrder) {
    auto *fiel = make<Fiel>(fourcc("fiel"), 10);
    const struct {
        uint8_t count, order;
        const char *a, *b;
    } cases[] = {
        {1, 0, "fieldCount: 1 progressive", "fieldOrder: 0 one field"},
        {2, 1, "fieldCount: 2 interlaced", "fieldOrder: 1 top first"},
        {3, 6, "fieldCount: 3 unknown", "fieldOrder: 6 bottom first"},
        {0, 9, "fieldCount: 0 unknown", "fieldOrder: 9 top first, display bottom first"},
        {2, 14, "fieldCount: 2 interlaced", "fieldOrder: 14 bottom first, display top first"},
        {2, 2, "fieldCount: 2 interlaced", "fieldOrder: 2 unknown"}};
    for (const auto &c : cases) {
        fiel->fieldCount = c.count;
        fiel->fieldOrder = c.order;
        EXPECT_EQ(dump(nullptr, fiel),
                  "fiel  size: 10\n    " + std::string(c.a) + "\n    " + c.b + "\n");
    }
    deleteBox(fiel);
}

// ---- fragments -------------------------------------------------------------------------------

TEST(DumpFragments, TfhdPrintsOnlyTheFieldsItsFlagsCarry) {
    auto *tfhd = make<Tfhd>(fourcc("tfhd"), 40);
    tfhd->track_ID = 1;
    tfhd->base_data_offset = 0x123456789ull;
    tfhd->sample_description_index = 2;
    tfhd->default_sample_duration = 512;
    tfhd->default_sample_size = 900;
    tfhd->default_sample_flags = 0x1010000;
    tfhd->flags = 0x020000; // default-base-is-moof carries no field
    EXPECT_EQ(dump(nullptr, tfhd),
              text(0, {"tfhd  size: 40", "    version: 0  flags: 20000", "    track_ID: 1"}));
    tfhd->flags = 0x00003B;
    EXPECT_EQ(dump(nullptr, tfhd),
              text(0, {"tfhd  size: 40", "    version: 0  flags: 3b", "    track_ID: 1",
                       "    base_data_offset: 4886718345", "    sample_description_index: 2",
                       "    default_sample_duration: 512", "    default_sample_size: 900",
                       "    default_sample_flags: 16842752"}));
    deleteBox(tfhd);
}

TEST(DumpFragments, TrunA05PrintsSizeAndCompositionOffsetForEverySample) {
    auto *trun = make<Trun>(fourcc("trun"), 44);
    trun->flags = 0x000A05;
    trun->sample_count = 3;
    trun->data_offset = -8;
    trun->first_sample_flags = 0x2000000;
    trun->samples = allocArray<TrunSample>(3);
    for (uint32_t i = 0; i < 3; i++)
        trun->samples[i] = {1000 + i, 200 + i, 0x10000 + i, 512 * i};
    EXPECT_EQ(dump(nullptr, trun),
              text(0, {"trun  size: 44", "    version: 0  flags: a05", "    sample_count: 3",
                       "    data_offset: -8", "    first_sample_flags: 33554432",
                       "    sample_size[0]: 200", "    sample_composition_time_offset[0]: 0",
                       "    sample_size[1]: 201", "    sample_composition_time_offset[1]: 512",
                       "    sample_size[2]: 202", "    sample_composition_time_offset[2]: 1024"}));
    trun->flags = 0x000500; // duration and flags only, no data offset or first flags
    EXPECT_EQ(dump(nullptr, trun),
              text(0, {"trun  size: 44", "    version: 0  flags: 500", "    sample_count: 3",
                       "    sample_duration[0]: 1000", "    sample_flags[0]: 65536",
                       "    sample_duration[1]: 1001", "    sample_flags[1]: 65537",
                       "    sample_duration[2]: 1002", "    sample_flags[2]: 65538"}));
    deleteBox(trun);
}

// ---- records none of the golden listings has, or has only with zero fields ---------------------

TEST(DumpRecords, RecordsTheFixturesLackPrintEveryField) {
    auto *url = make<Url>(fourcc("url "), 12);
    // A location filling its whole field is printed up to the field's end only.
    memset(url->location, 'x', sizeof url->location);
    EXPECT_NE(dump(nullptr, url).find("    location: \"" + std::string(256, 'x') + "\"\n"),
              std::string::npos);
    deleteBox(url);

    std::vector<std::pair<Box *, std::string>> cases;
    auto *hmhd = make<Hmhd>(fourcc("hmhd"), 28);
    hmhd->maxPDUsize = 1500;
    hmhd->avgPDUsize = 700;
    hmhd->maxbitrate = 4000000000u;
    hmhd->avgbitrate = 128000;
    cases.emplace_back(hmhd, text(0, {"hmhd  size: 28", "    version: 0  flags: 0",
                                      "    maxPDUsize: 1500", "    avgPDUsize: 700",
                                      "    maxbitrate: 4000000000", "    avgbitrate: 128000"}));

    auto *nmhd = make<FullBox>(fourcc("nmhd"), 12);
    nmhd->version = 2;
    nmhd->flags = 0x10;
    cases.emplace_back(nmhd, text(0, {"nmhd  size: 12", "    version: 2  flags: 10"}));
    auto *alis = make<Url>(fourcc("alis"), 20);
    strcpy(alis->location, "here");
    cases.emplace_back(
        alis, text(0, {"alis  size: 20", "    version: 0  flags: 0", "    location: \"here\""}));

    auto *urn = make<Urn>(fourcc("urn "), 30);
    strcpy(urn->name, "urn:x");
    strcpy(urn->location, "loc");
    cases.emplace_back(urn, text(0, {"urn   size: 30", "    version: 0  flags: 0",
                                     "    name: \"urn:x\"", "    location: \"loc\""}));
    auto *co64 = make<Co64>(fourcc("co64"), 32);
    co64->entry_count = 2;
    co64->entries = allocArray<uint64_t>(2);
    co64->entries[0] = 0x100000000ull;
    co64->entries[1] = 0x30;
    cases.emplace_back(co64,
                       text(0, {"co64  size: 32", "    version: 0  flags: 0", "    entry_count: 2",
                                "    chunk_offset[0]: 0x100000000", "    chunk_offset[1]: 0x30"}));

    auto *stsh = make<Stsh>(fourcc("stsh"), 24);
    stsh->entry_count = 1;
    stsh->entries = allocArray<StshEntry>(1);
    stsh->entries[0] = {7, 5};
    cases.emplace_back(
        stsh, text(0, {"stsh  size: 24", "    version: 0  flags: 0", "    entry_count: 1",
                       "    shadowed_sample_number[0]: 7", "    sync_sample_number[0]: 5"}));
    auto *padb = make<Padb>(fourcc("padb"), 18);
    padb->sample_count = 3; // two bytes; the second holds sample 3 and an unused half
    padb->entries = allocArray<uint8_t>(2);
    padb->entries[0] = 0x35; // 0 011 0 101
    padb->entries[1] = 0xF8; // 1 111 1 000: reserved bits are not part of the values
    cases.emplace_back(
        padb, text(0, {"padb  size: 18", "    version: 0  flags: 0", "    sample_count: 3",
                       "    pad[1]: 3", "    pad[2]: 5", "    pad[3]: 7", "    pad[4]: 0"}));
    auto *chan = make<Chan>(fourcc("chan"), 44);
    chan->ChannelLayoutTag = 0x650002;
    chan->ChannelBitmap = 3;
    chan->NumberChannelDescriptions = 1;
    chan->descriptions = allocArray<ChannelDescription>(1);
    chan->descriptions[0].ChannelLabel = 0x1a;
    chan->descriptions[0].ChannelFlags = 0x2;
    const float coords[3] = {1.5f, -2.0f, 0.25f};
    memcpy(chan->descriptions[0].Coordinates, coords, sizeof coords);
    cases.emplace_back(chan,
                       text(0, {"chan  size: 44", "    version: 0  flags: 0",
                                "    ChannelLayoutTag: 650002", "    ChannelBitmap: 3",
                                "    NumberChannelDescriptions: 1", "    ChannelLabel[0]: 1a",
                                "    ChannelFlags[0]: 2", "    Coordinates [0]: (1.5, -2, 0.25)"}));
    auto *mehd = make<Mehd>(fourcc("mehd"), 20);
    mehd->version = 1;
    mehd->fragment_duration = 0x100000000ull;
    cases.emplace_back(mehd, text(0, {"mehd  size: 20", "    version: 1  flags: 0",
                                      "    fragment_duration: 4294967296"}));

    auto *mfro = make<Mfro>(fourcc("mfro"), 16);
    mfro->size = 67;
    cases.emplace_back(mfro,
                       text(0, {"mfro  size: 16", "    version: 0  flags: 0", "    size: 67"}));
    auto *tfra = make<Tfra>(fourcc("tfra"), 39);
    tfra->version = 1;
    tfra->track_ID = 1;
    tfra->length_size_of_traf_num = 0;
    tfra->length_size_of_trun_num = 1;
    tfra->length_size_of_sample_num = 3;
    tfra->number_of_entry = 1;
    tfra->entries = allocArray<TfraEntry>(1);
    tfra->entries[0] = {0x100000000ull, 1234, 1, 2, 3};
    cases.emplace_back(
        tfra,
        text(0, {"tfra  size: 39", "    version: 1  flags: 0", "    track_ID: 1",
                 "    length_size_of_traf_num: 0", "    length_size_of_trun_num: 1",
                 "    length_size_of_sample_num: 3", "    number_of_entry: 1",
                 "    time[0]: 4294967296", "    moof_offset[0]: 1234", "    traf_number[0]: 1",
                 "    trun_number[0]: 2", "    sample_number[0]: 3"}));

    for (const auto &c : cases) {
        SCOPED_TRACE(boxtest::fcc(c.first->type));
        EXPECT_EQ(dump(nullptr, c.first), c.second);
        deleteBox(c.first);
    }
}

// ---- descriptors -----------------------------------------------------------------------------

std::vector<std::string> ascLines(uint8_t b0, uint8_t b1) {
    DecoderSpecificInfo dsi{};
    dsi.tag = 5;
    dsi.length = 2;
    dsi.data[0] = b0;
    dsi.data[1] = b1;
    std::vector<std::string> ls = lines(dumpDescriptor(5, &dsi));
    return std::vector<std::string>(ls.begin() + 2, ls.end());
}

TEST(DumpDescriptors, AudioSpecificConfigFields) {
    EXPECT_EQ(ascLines(0x11, 0x90),
              (std::vector<std::string>{"object type: 2", "frequency index: 3 (48000)",
                                        "channel config: 2", "frame length flag: 0 (1024)",
                                        "dependsOnCoreCoder: 0", "extensionFlag: 0"}));
    EXPECT_EQ(ascLines(0x14, 0x08),
              (std::vector<std::string>{"object type: 2", "frequency index: 8 (16000)",
                                        "channel config: 1", "frame length flag: 0 (1024)",
                                        "dependsOnCoreCoder: 0", "extensionFlag: 0"}));
    EXPECT_EQ(ascLines(0x14, 0x88)[1], "frequency index: 9 (12000)");
    // 00101 111 | 1 0110 1 1 1: index 15 has no frequency; 960-sample frames; both flags.
    EXPECT_EQ(ascLines(0x2F, 0xB7),
              (std::vector<std::string>{"object type: 5", "frequency index: 15 (0)",
                                        "channel config: 6", "frame length flag: 1 (960)",
                                        "dependsOnCoreCoder: 1", "extensionFlag: 1"}));
}

// Other lengths print their bytes only: golden listings (length 5).
TEST(DumpDescriptors, DecoderSpecificInfoEmptyOrLongerThanHeldPrintsHeldBytesOnly) {
    DecoderSpecificInfo dsi{};
    dsi.tag = 5;
    dsi.length = 0;
    EXPECT_EQ(dumpDescriptor(5, &dsi), "tag: 0x5  length: 0\ndata:\n");
    // Longer than the record holds (cut when read): the 128 held bytes only.
    dsi.length = 200;
    for (int i = 0; i < DSI_DATA_MAX; i++)
        dsi.data[i] = uint8_t(i);
    std::vector<std::string> ls = lines(dumpDescriptor(5, &dsi));
    ASSERT_EQ(ls.size(), 2u);
    EXPECT_EQ(ls[1].size(), 5u + 3u * 128u);
    EXPECT_EQ(ls[1].substr(ls[1].size() - 6), " 7e 7f");
}

TEST(DumpDescriptors, EsDescriptorOptionalFieldsAndFullSLConfig) {
    ES_Descriptor es{};
    es.tag = 3;
    es.length = 60;
    es.ES_ID = 1;
    es.streamDependenceFlag = 1;
    es.URL_Flag = 1;
    es.OCRstreamFlag = 1;
    es.streamPriority = 31;
    es.dependsOn_ES_ID = 7;
    es.URLlength = 3;
    memcpy(es.URLstring, "abcdef", 6); // only URLlength bytes are held
    es.OCR_ES_Id = 9;
    es.present = 2;
    SLConfigDescriptor &sl = es.slConfigDescr;
    sl.tag = 6;
    sl.length = 40;
    sl.useAccessUnitStartFlag = 1;
    sl.useRandomAccessPointFlag = 1;
    sl.durationFlag = 1;
    sl.timeStampResolution = 90000;
    sl.OCRResolution = 1000;
    sl.timeStampLength = 32;
    sl.OCRLength = 8;
    sl.AU_Length = 16;
    sl.instantBitrateLength = 4;
    sl.degradationPriorityLength = 15;
    sl.AU_seqNumLength = 31;
    sl.packetSeqNumLength = 5;
    sl.timeScale = 48000;
    sl.accessUnitDuration = 1024;
    sl.compositionUnitDuration = 1024;
    sl.startDecodingTimeStamp = 0x100000001ull;
    sl.startCompositionTimeStamp = 12;
    EXPECT_EQ(
        dumpDescriptor(3, &es),
        text(0, {"tag: 0x3  length: 60", "ES_id: 1", "streamDependenceFlag: 1", "URL_Flag: 1",
                 "OCRstreamFlag: 1", "streamPriority: 31", "dependsOn_ES_ID: 7", "URLlength: 3",
                 "URLstring: abc", "OCR_ES_Id: 9", "slConfigDescr  length: 40"}) +
            text(4, {"tag: 0x6  length: 40", "predefined: 0", "useAccessUnitStartFlag: 1",
                     "useAccessUnitEndFlag: 0", "useRandomAccessPointFlag: 1",
                     "hasRandomAccessUnitOnlyFlag: 0", "usePaddingFlag: 0", "useTimeStampsFlag: 0",
                     "useIdleFlag: 0", "durationFlag: 1"}) +
            text(4,
                 {"timeStampResolution: 90000", "OCRResolution: 1000", "timeStampLength: 32",
                  "OCRLength: 8", "AU_Length: 16", "instantBitrateLength: 4",
                  "degradationPriorityLength: 15", "AU_seqNumLength: 31", "packetSeqNumLength: 5",
                  "timeScale: 48000", "accessUnitDuration: 1024", "compositionUnitDuration: 1024",
                  "startDecodingTimeStamp: 4294967297", "startCompositionTimeStamp: 12"}));
}

TEST(DumpDescriptors, ObjectDescriptorsWithProfilesAndNestedEsDescriptorOrWithUrl) {
    auto *iods = make<Iods>(fourcc("iods"), 33);
    InitialObjectDescriptor &od = iods->iod;
    od.tag = 0x10;
    od.length = 7;
    od.ObjectDescriptorID = 1;
    od.includeInlineProfileLevelFlag = 1;
    od.ODProfileLevelIndication = 0xFF;
    od.sceneProfileLevelIndication = 0xFE;
    od.audioProfileLevelIndication = 0x29;
    od.visualProfileLevelIndication = 0x7F;
    od.graphicsProfileLevelIndication = 0xFD;
    const std::string head = text(
        0, {"iods  size: 33", "    version: 0  flags: 0", "    tag: 0x10  length: 7",
            "    ObjectDescriptorID: 1", "    URL_Flag: 0", "    includeInlineProfileLevelFlag: 1",
            "    ODProfileLevelIndication: 255", "    sceneProfileLevelIndication: 254",
            "    audioProfileLevelIndication: 41", "    visualProfileLevelIndication: 127",
            "    graphicsProfileLevelIndication: 253"});
    EXPECT_EQ(dump(nullptr, iods), head + "    esDescr  length: 0\n");

    od.esDescr.tag = 3;
    od.esDescr.length = 3;
    od.esDescr.ES_ID = 5;
    EXPECT_EQ(dump(nullptr, iods),
              head + text(4, {"esDescr  length: 3", "    tag: 0x3  length: 3", "    ES_id: 5",
                              "    streamDependenceFlag: 0", "    URL_Flag: 0",
                              "    OCRstreamFlag: 0", "    streamPriority: 0"}));
    // A nested descriptor under another tag has no printable layout for this record.
    od.esDescr.tag = 0x0E;
    EXPECT_EQ(dump(nullptr, iods), head + "    esDescr  length: 3\n");
    deleteBox(iods);

    // The URL form, and tag 1, which has no includeInlineProfileLevelFlag.
    InitialObjectDescriptor url{};
    url.tag = 1;
    url.length = 4;
    url.ObjectDescriptorID = 1023;
    url.URL_Flag = 1;
    url.includeInlineProfileLevelFlag = 1;
    url.URLlength = 10;
    // The URL bytes are not held.
    EXPECT_EQ(dumpDescriptor(1, &url),
              text(0, {"tag: 0x1  length: 4", "ObjectDescriptorID: 1023", "URL_Flag: 1",
                       "URLlength: 10", "URLstring: ", "esDescr  length: 0"}));
    EXPECT_EQ(dumpDescriptor(2, &url),
              text(0, {"tag: 0x1  length: 4", "ObjectDescriptorID: 1023", "URL_Flag: 1",
                       "includeInlineProfileLevelFlag: 1", "URLlength: 10",
                       "URLstring: ", "esDescr  length: 0"}));
}

TEST(DumpDescriptors, TagsWithoutLayoutPrintNothing) {
    ES_Descriptor es{};
    for (int tag : {0, 7, 13, 14, 15, 17, 255})
        EXPECT_EQ(dumpDescriptor(uint8_t(tag), &es), "") << tag;
    EXPECT_EQ(dumpDescriptor(3, nullptr), "");
}

// ---- mdat: the first media bytes -------------------------------------------------------------

// A file of 8 filler bytes, then an mdat of 8 + 12 bytes, then 4 more bytes.
struct MdatFile {
    test_util::TempDir dir;
    std::string path = dir.file("mdat.mp4");
    MdatFile() {
        test_util::writeFile(path,
                             {0,    0,    0,    8,    'f',  'r',  'e',  'e',  0,    0,    0,
                              20,   'm',  'd',  'a',  't',  0xa0, 0xa1, 0xa2, 0xa3, 0xa4, 0xa5,
                              0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xab, 0xc0, 0xc1, 0xc2, 0xc3});
    }
};

DataBox *mdatAt(uint64_t data_pos, uint32_t size) {
    auto *mdat = make<DataBox>(fourcc("mdat"), size);
    mdat->data_pos = data_pos;
    return mdat;
}

const char *const kMdatLines = "mdat  size: 20\n"
                               "    data (offset: 16)\n"
                               "a0 a1 a2 a3 a4 a5 a6 a7 a8 a9 \n";

TEST(DumpMdat, ReaderOnStdioOrADescriptorShowsTheFirstTenBytesAndLeavesTheStreamAlone) {
    MdatFile file;
    FILE *fp = fopen(file.path.c_str(), "rb");
    ASSERT_NE(fp, nullptr);
    Handle h(mp4_reader_create());
    mp4_file_pointer(h.m, fp);
    muxer_seek(h.m, 28);
    DataBox *mdat = mdatAt(16, 20);
    for (uint8_t state : {uint8_t(0), uint8_t(MP4_END_OF_INPUT)}) {
        h.m->flags = uint8_t((h.m->flags & ~MP4_END_OF_INPUT) | state);
        h.m->error = state ? MP4_ERR_BAD_INPUT : 0;
        EXPECT_EQ(dump(h.m, mdat), kMdatLines);
        EXPECT_EQ(muxer_pos(h.m), 28u);
        EXPECT_EQ(ftello(fp), 28);
        EXPECT_EQ(h.m->flags & MP4_END_OF_INPUT, state);
        EXPECT_EQ(h.m->error, state ? MP4_ERR_BAD_INPUT : 0);
    }
    // The next read continues where the stream was.
    h.m->flags &= uint8_t(~MP4_END_OF_INPUT);
    uint8_t next = 0;
    read_n(h.m, &next, 1);
    EXPECT_EQ(next, 0xc0);
    fclose(fp);

    // On a descriptor, at the mdat's end as the codec leaves a skipped mdat.
    int fd = open(file.path.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    Handle d(mp4_reader_create());
    mp4_file_descriptor(d.m, fd);
    muxer_seek(d.m, 36);
    EXPECT_EQ(dump(d.m, mdat), kMdatLines);
    EXPECT_EQ(muxer_pos(d.m), 36u);
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 36);
    deleteBox(mdat);
    close(fd);
}

TEST(DumpMdat, ShortPayloadsShowFewerBytesAndMissingBytesShowNone) {
    MdatFile file;
    FILE *fp = fopen(file.path.c_str(), "rb");
    Handle h(mp4_reader_create());
    mp4_file_pointer(h.m, fp);
    DataBox *mdat = mdatAt(16, 12); // four bytes of payload
    EXPECT_EQ(dump(h.m, mdat), "mdat  size: 12\n    data (offset: 16)\na0 a1 a2 a3 \n");
    mdat->size = 8; // no payload at all
    EXPECT_EQ(dump(h.m, mdat), "mdat  size: 8\n    data (offset: 16)\n");
    // Declared bytes that the file does not have: nothing to show, and the stream, its
    // position and the end-of-input flag are as they were.
    mdat->size = 100;
    mdat->data_pos = 26;
    muxer_seek(h.m, 10);
    EXPECT_EQ(dump(h.m, mdat), "mdat  size: 100\n    data (offset: 26)\n");
    EXPECT_EQ(muxer_pos(h.m), 10u);
    EXPECT_EQ(ftello(fp), 10);
    EXPECT_FALSE(at_end_of_input(h.m));
    EXPECT_EQ(h.m->error, 0);
    // Even when the logical position is where the short read would leave it.
    mdat->size = 8 + 10;
    mdat->data_pos = 30;
    muxer_seek(h.m, 40);
    EXPECT_EQ(dump(h.m, mdat), "mdat  size: 18\n    data (offset: 30)\n");
    EXPECT_EQ(muxer_pos(h.m), 40u);
    EXPECT_EQ(ftello(fp), 40);
    deleteBox(mdat);
    fclose(fp);
}

TEST(DumpMdat, NonSeekableInputIsNotConsumed) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    const uint8_t bytes[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    ASSERT_EQ(write(p[1], bytes, sizeof bytes), ssize_t(sizeof bytes));
    Handle h(mp4_reader_create());
    mp4_file_descriptor(h.m, p[0]);
    DataBox *mdat = mdatAt(0, 20);
    EXPECT_EQ(dump(h.m, mdat), "mdat  size: 20\n    data (offset: 0)\n");
    uint8_t back[12] = {};
    EXPECT_EQ(read(p[0], back, sizeof back), ssize_t(sizeof back));
    EXPECT_EQ(memcmp(back, bytes, sizeof bytes), 0);
    deleteBox(mdat);
    close(p[0]);
    close(p[1]);
}

TEST(DumpMdat, MemoryReaderShowsBytesFromItsBufferWithoutSeeking) {
    uint8_t input[40];
    for (int i = 0; i < 40; i++)
        input[i] = uint8_t(0x10 + i);
    Handle h(mp4_reader_create());
    mp4_buf_put(h.m, input, sizeof input);
    muxer_seek(h.m, 30);
    DataBox *mdat = mdatAt(8, 100); // the buffer holds the first 10 payload bytes
    EXPECT_EQ(dump(h.m, mdat),
              "mdat  size: 100\n    data (offset: 8)\n18 19 1a 1b 1c 1d 1e 1f 20 21 \n");
    EXPECT_EQ(muxer_pos(h.m), 30u);
    // Payload beyond the buffer: nothing shown, no seek complaint, no error.
    mdat->data_pos = 35;
    EXPECT_EQ(dump(h.m, mdat), "mdat  size: 100\n    data (offset: 35)\n");
    EXPECT_EQ(muxer_pos(h.m), 30u);
    EXPECT_EQ(h.m->error, 0);
    EXPECT_FALSE(at_end_of_input(h.m));
    mp4_buf_get(h.m);
    // No buffer at all.
    EXPECT_EQ(dump(h.m, mdat), "mdat  size: 100\n    data (offset: 35)\n");
    deleteBox(mdat);
}

TEST(DumpMdat, WriterAndRemuxerShowTheirDataBuffer) {
    DataBox *mdat = mdatAt(48, 20);
    mdat->data = allocArray<uint8_t>(12);
    for (int i = 0; i < 12; i++)
        mdat->data[i] = uint8_t(0xd0 + i);
    const std::string from_data =
        "mdat  size: 20\n    data (offset: 48)\nd0 d1 d2 d3 d4 d5 d6 d7 d8 d9 \n";
    Handle w(mp4_writer_create());
    EXPECT_EQ(dump(w.m, mdat), from_data);
    Handle r(mp4_reader_create());
    r.m->flags |= MP4_REMUXER;
    EXPECT_EQ(dump(r.m, mdat), from_data);
    // A plain reader reads the stream, not the record's buffer (here: nothing attached).
    Handle plain(mp4_reader_create());
    EXPECT_EQ(dump(plain.m, mdat), "mdat  size: 20\n    data (offset: 48)\n");
    // A writer without a data buffer shows no bytes.
    mp4_free(mdat->data);
    mdat->data = nullptr;
    EXPECT_EQ(dump(w.m, mdat), "mdat  size: 20\n    data (offset: 48)\n");
    deleteBox(mdat);
}

// ---- through the codec ----------------------------------------------------------------------

Box *sampleMovie() {
    Box *moov = newBox(fourcc("moov"), 8);
    addBox(sampleMvhd(), moov);
    Box *trak = newBox(fourcc("trak"), 8);
    addBox(trak, moov);
    addBox(sampleTkhd(), trak);
    return moov;
}

// Also the whole mvhd and tkhd layouts with fractions the fixtures do not have (rate and volume
// 1.5, a height whose fraction needs more than 32 bits).
TEST(DumpThroughCodec, ChildrenIndentFourPerLevelReadingListsWhatWritingListedDebugOffNothing) {
    Box *moov = sampleMovie();
    std::vector<uint8_t> file(1024);
    Handle w(mp4_writer_create());
    mp4_buf_put(w.m, file.data(), uint32_t(file.size()));
    mp4_debug(w.m, 1);
    const std::string written = captured([&] { EXPECT_EQ(rwBox(w.m, moov), moov); });
    file.resize(mp4_buf_get(w.m));
    ASSERT_EQ(file.size(), 216u);
    EXPECT_EQ(written, "moov  size: 216\n" + mvhdLines(4) + "    trak  size: 100\n" +
                           tkhdLines("    duration: 5400000 (0:01:00.000)", 8));

    Handle r(mp4_reader_create());
    mp4_buf_put(r.m, file.data(), uint32_t(file.size()));
    mp4_debug(r.m, 1);
    Box *read = nullptr;
    EXPECT_EQ(captured([&] { read = rwBox(r.m, nullptr); }), written);
    ASSERT_NE(read, nullptr);
    mp4_buf_get(r.m);
    deleteBox(read);
    Handle quiet(mp4_writer_create()); // debug off: nothing
    EXPECT_EQ(captured([&] { rwBox(quiet.m, moov); }), "");
    deleteBox(moov);
}

// ---- whole files -----------------------------------------------------------------------------

const char *const kFixtures[] = {"h264_aac.mp4", "h264_aac.mov", "frag.mp4", "mp4v.mp4",
                                 "pcm_s16le.mov"};

std::string golden(const std::string &name) {
    std::vector<uint8_t> bytes = test_util::readFile(dataPath("golden/" + name + ".dump"));
    return std::string(bytes.begin(), bytes.end());
}

// Top-level boxes of a file read by a reader handle; `debug` switches the dump on.
struct FileTree {
    mp4_muxer *m;
    std::vector<Box *> boxes;
    std::vector<uint64_t> positions; // stream position after each box
    FileTree(const std::string &path, bool debug) {
        m = mp4_reader_create();
        mp4_file_name_ascii(m, path.c_str());
        EXPECT_EQ(mp4_get_error_code(m), 0u) << path;
        if (debug)
            mp4_debug(m, 1);
        while (Box *b = rwBox(m, nullptr)) {
            boxes.push_back(b);
            positions.push_back(muxer_pos(m));
        }
    }
    ~FileTree() {
        for (Box *b : boxes)
            deleteBox(b);
        mp4_delete(m);
    }
    FileTree(const FileTree &) = delete;
    FileTree &operator=(const FileTree &) = delete;
};

TEST(DumpGolden, FixturesDumpAsTheReviewedListings) {
    for (const char *name : kFixtures) {
        const std::string expected = golden(name);
        ASSERT_FALSE(expected.empty()) << "missing golden listing for " << name;
        const std::string out = captured([&] { FileTree tree(dataPath(name), true); });
        if (out == expected)
            continue;
        // Point at the first differing line rather than printing both listings.
        std::vector<std::string> a = lines(out), b = lines(expected);
        size_t i = 0;
        while (i < a.size() && i < b.size() && a[i] == b[i])
            i++;
        ADD_FAILURE() << name << ": line " << i + 1
                      << "\n  got:      " << (i < a.size() ? a[i] : "<end>")
                      << "\n  expected: " << (i < b.size() ? b[i] : "<end>");
    }
}

// Snapshot of every node of a tree, pointers included, in tree order.
void snapshot(const Box *b, std::vector<std::vector<uint8_t>> &out) {
    for (; b; b = b->next) {
        out.emplace_back(reinterpret_cast<const uint8_t *>(b),
                         reinterpret_cast<const uint8_t *>(b) + b->alloc_size);
        snapshot(b->first_child, out);
    }
}

void printTree(mp4_muxer *m, Box *b) {
    for (; b; b = b->next) {
        if (b->type == fourcc("hdlr") && b->alloc_size >= sizeof(Hdlr) &&
            static_cast<Hdlr *>(b)->handler_type != fourcc("alis") &&
            static_cast<Hdlr *>(b)->handler_type != fourcc("url "))
            m->handler_type = static_cast<Hdlr *>(b)->handler_type; // as the codec sets it
        printBox(m, b);
        indent += 4;
        printTree(m, b->first_child);
        indent -= 4;
    }
}

// Reading with the dump on gives the trees and positions of a plain read; printing a read tree
// afterwards changes no record and no stream state.
TEST(DumpSideEffects, ReadingWithTheDumpOnOrPrintingATreeChangesNothing) {
    for (const char *name : kFixtures) {
        SCOPED_TRACE(name);
        FileTree tree(dataPath(name), false);
        std::unique_ptr<FileTree> dumped;
        (void)captured([&] { dumped.reset(new FileTree(dataPath(name), true)); });
        ASSERT_EQ(tree.boxes.size(), dumped->boxes.size());
        ASSERT_GT(tree.boxes.size(), 2u);
        EXPECT_EQ(tree.positions, dumped->positions);
        EXPECT_EQ(tree.m->flags & ~MP4_DEBUG, dumped->m->flags & ~MP4_DEBUG);
        EXPECT_EQ(tree.m->error, dumped->m->error);
        std::vector<std::vector<uint8_t>> before, after;
        for (Box *b : tree.boxes)
            snapshot(b, before);

        muxer_seek(tree.m, 100); // somewhere else than any mdat
        const uint8_t flags = tree.m->flags;
        std::string out = captured([&] {
            for (Box *b : tree.boxes)
                printTree(tree.m, b);
        });
        EXPECT_NE(out.find("mdat  size: "), std::string::npos);
        for (Box *b : tree.boxes)
            snapshot(b, after);
        EXPECT_TRUE(before == after) << "a record changed";
        for (size_t i = 0; i < tree.boxes.size(); i++) // arrays by content
            EXPECT_EQ(boxtest::compareTrees(tree.boxes[i], dumped->boxes[i]),
                      std::vector<std::string>{});
        EXPECT_EQ(muxer_pos(tree.m), 100u);
        EXPECT_EQ(ftello(tree.m->fp), 100);
        EXPECT_EQ(tree.m->flags, flags);
        EXPECT_EQ(tree.m->error, 0);
    }
}

// Corrupted movie headers, dumped while read: every record the codec accepts, however odd its
// counts and lengths, is printed without reading outside what it holds (the sanitizers watch).
TEST(DumpSideEffects, CorruptMovieHeadersDumpSafely) {
    for (const char *name : kFixtures) {
        SCOPED_TRACE(name);
        const std::vector<uint8_t> file = test_util::readFile(dataPath(name));
        const test_util::BoxRef moov = test_util::findBox(file, "moov");
        ASSERT_TRUE(moov.found);
        uint32_t seed = 12345;
        for (int round = 0; round < 150; round++) {
            std::vector<uint8_t> bytes = file;
            for (int k = 0; k < 4; k++) {
                seed = seed * 1103515245u + 12345u;
                size_t at = moov.offset + 8 + (seed >> 8) % (size_t(moov.size) - 12);
                if (k == 0) // a count or length blown up
                    memset(&bytes[at], 0xFF, 4);
                else
                    bytes[at] = uint8_t(seed >> 24);
            }
            Handle h(mp4_reader_create());
            mp4_buf_put(h.m, bytes.data(), uint32_t(bytes.size()));
            mp4_debug(h.m, 1);
            testing::internal::CaptureStderr();
            (void)captured([&] {
                for (int n = 0; n < 64; n++) {
                    Box *b = rwBox(h.m, nullptr);
                    if (!b)
                        break;
                    deleteBox(b);
                }
            });
            (void)testing::internal::GetCapturedStderr();
            mp4_buf_get(h.m);
        }
    }
}

// ---- the command-line tool -------------------------------------------------------------------

std::string toolDump(const std::string &args) {
    return test_util::quote(test_util::toolPath()) + " dump" + args;
}

TEST(DumpTool, PrintsTheSameListingAsTheLibrary) {
    SKIP_WITHOUT_TOOL();
    for (const char *name : kFixtures) {
        std::string out;
        EXPECT_EQ(test_util::run(toolDump(" " + test_util::quote(dataPath(name))), &out, false), 0)
            << name;
        EXPECT_TRUE(out == golden(name)) << name;
    }
}

TEST(DumpTool, FailsClearlyOnFilesItCannotDump) {
    SKIP_WITHOUT_TOOL();
    std::string out;
    EXPECT_NE(test_util::run(toolDump(" /nonexistent/x.mp4"), &out), 0);
    EXPECT_EQ(out, "mp4kit dump: cannot open /nonexistent/x.mp4: No such file or directory\n");
    EXPECT_NE(test_util::run(toolDump(""), &out), 0);
    EXPECT_EQ(out, "usage: mp4kit dump FILE\n");

    // A box whose size is below 8 is bad input.
    test_util::TempDir dir;
    const std::string path = dir.file("bad.mp4");
    test_util::writeFile(path, {0, 0, 0, 8, 'f', 'r', 'e', 'e', 0, 0, 0, 4, 'a', 'b', 'c', 'd'});
    EXPECT_EQ(test_util::run(toolDump(" " + path), &out), 1);
    EXPECT_NE(out.find("free  size: 8\n"), std::string::npos) << out;
    EXPECT_NE(out.find("mp4kit dump: " + path + ": bad input\n"), std::string::npos) << out;

    // A file cut inside a box is incomplete.
    test_util::writeFile(path, {0, 0, 0, 8, 'f', 'r', 'e', 'e', 0, 0, 0, 40});
    EXPECT_EQ(test_util::run(toolDump(" " + path), &out), 1);
    EXPECT_NE(out.find("mp4kit dump: " + path + ": file is 12 bytes but its boxes end at 8\n"),
              std::string::npos)
        << out;
}

} // namespace
