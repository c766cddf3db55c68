// Box dump: the printed form of every record, the entry limit, the clock and fixed-point formats,
// the mdat peek that must leave the stream alone, and whole-file listings checked against
// reviewed golden files.
#include "box/box.h"
#include "io.h"
#include "tree_compare.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

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

TEST(DumpLayout, MvhdFieldsSitFourDeeperThanItsHeaderLine) {
    Mvhd *mvhd = sampleMvhd();
    IndentAt at(4); // as the codec leaves it for a child of moov
    EXPECT_EQ(
        dump(nullptr, mvhd),
        text(4, {"mvhd  size: 108", "    version: 0  flags: 0", "    creation_time: 3000000000",
                 "    modification_time: 3000000001", "    timescale: 90000",
                 "    duration: 5400000 (0:01:00.000)", "    rate: 0x18000 (1.5000)",
                 "    volume: 0x180 (1.50)", "    matrix[0]: 0x10000", "    matrix[1]: 0x0",
                 "    matrix[2]: 0x0", "    matrix[3]: 0x0", "    matrix[4]: 0x10000",
                 "    matrix[5]: 0x0", "    matrix[6]: 0x0", "    matrix[7]: 0x0",
                 "    matrix[8]: 0x40000000", "    next_track_ID: 3"}));
    deleteBox(mvhd);
}

TEST(DumpLayout, ContainersPrintOnlyTheirHeaderLine) {
    for (uint32_t type : {fourcc("moov"), fourcc("trak"), fourcc("mdia"), fourcc("minf"),
                          fourcc("stbl"), fourcc("dinf"), fourcc("edts"), fourcc("mvex"),
                          fourcc("moof"), fourcc("traf"), fourcc("mfra"), fourcc("rmra"),
                          fourcc("rmda"), fourcc("free"), fourcc("skip"), fourcc("wide")}) {
        Box *b = newBox(type, 4000000000u);
        char expected[64];
        snprintf(expected, sizeof expected, "%c%c%c%c  size: 4000000000\n", char(type >> 24),
                 char(type >> 16), char(type >> 8), char(type));
        EXPECT_EQ(dump(nullptr, b), expected);
        deleteBox(b);
    }
}

TEST(DumpLayout, SizeAbove32BitsIsPrintedWhole) {
    Box *b = newBox(fourcc("moov"), 8);
    b->size = 0x123456789ull;
    EXPECT_EQ(dump(nullptr, b), "moov  size: 4886718345\n");
    deleteBox(b);
}

TEST(DumpLayout, NullBoxPrintsNothing) {
    EXPECT_EQ(dump(nullptr, nullptr), "");
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
}

TEST(DumpClock, MvhdWithoutTimescalePrintsThePlainDuration) {
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

std::string tkhdLines(const char *duration_line) {
    return text(0, {"tkhd  size: 92",       "    version: 0  flags: 3",
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

TEST(DumpTimescale, TkhdInsideAMovieUsesTheMvhdTimescale) {
    Box *moov = newBox(fourcc("moov"), 8);
    Mvhd *mvhd = sampleMvhd();
    Box *trak = newBox(fourcc("trak"), 8);
    Tkhd *tkhd = sampleTkhd();
    addBox(mvhd, moov);
    addBox(trak, moov);
    addBox(tkhd, trak);
    EXPECT_EQ(dump(nullptr, tkhd), tkhdLines("    duration: 5400000 (0:01:00.000)"));
    mvhd->timescale = 0;
    EXPECT_EQ(dump(nullptr, tkhd), tkhdLines("    duration: 5400000"));
    deleteBox(moov);
}

TEST(DumpTimescale, TkhdWithoutAMovieHeaderPrintsThePlainDuration) {
    Tkhd *tkhd = sampleTkhd();
    EXPECT_EQ(dump(nullptr, tkhd), tkhdLines("    duration: 5400000"));
    Box *trak = newBox(fourcc("trak"), 8);
    addBox(tkhd, trak); // a trak read on its own: no grandparent
    EXPECT_EQ(dump(nullptr, tkhd), tkhdLines("    duration: 5400000"));
    Box *moov = newBox(fourcc("moov"), 8);
    addBox(trak, moov); // a moov without an mvhd
    EXPECT_EQ(dump(nullptr, tkhd), tkhdLines("    duration: 5400000"));
    deleteBox(moov);
}

TEST(DumpTimescale, ElstUsesTheMvhdUnderItsGreatGrandparent) {
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

    Box *moov = newBox(fourcc("moov"), 8);
    Box *trak = newBox(fourcc("trak"), 8);
    Box *edts = newBox(fourcc("edts"), 8);
    addBox(sampleMvhd(), moov);
    addBox(trak, moov);
    addBox(edts, trak);
    addBox(elst, edts);
    EXPECT_EQ(
        dump(nullptr, elst),
        text(0, {"elst  size: 40", "    version: 0  flags: 0", "    entry_count: 2",
                 "    segment_duration[0]: 45000 (0:00:00.500)", "    media_time      [0]: -1",
                 "    media_rate_integer [0]: 1", "    media_rate_fraction[0]: 0",
                 "    segment_duration[1]: 5490009 (0:01:01.000)", "    media_time      [1]: 1024",
                 "    media_rate_integer [1]: 1", "    media_rate_fraction[1]: -2"}));
    deleteBox(moov);
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
    ftyp->size = 24;
    EXPECT_EQ(dump(nullptr, ftyp),
              text(0, {"ftyp  size: 24", "    major_brand: 0x69736f6d (isom)",
                       "    minor_version: 200", "    compatible_brand[0]: 0x69736f6d (isom)",
                       "    compatible_brand[1]: 0x6d703431 (mp41)"}));
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
    Hdlr *hdlr = sampleHdlr("VideoHandler", 45);
    const std::string head = text(
        0, {"hdlr  size: 45", "    version: 0  flags: 0", "    handler_type: 0x76696465 (vide)"});
    EXPECT_EQ(dump(nullptr, hdlr), head + "    name: VideoHandler\n");
    hdlr->size = 40;
    EXPECT_NE(dump(nullptr, hdlr).find("    name: VideoHan\n"), std::string::npos);
    hdlr->size = 32;
    EXPECT_NE(dump(nullptr, hdlr).find("    name: \n"), std::string::npos);
    hdlr->size = 20; // smaller than the fixed fields: no characters at all
    EXPECT_NE(dump(nullptr, hdlr).find("    name: \n"), std::string::npos);
    hdlr->size = 0x100000000ull; // never beyond the stored string
    EXPECT_NE(dump(nullptr, hdlr).find("    name: VideoHandler\n"), std::string::npos);
    deleteBox(hdlr);
}

TEST(DumpMovieBoxes, HdlrWithoutNamePrintsAnEmptyName) {
    auto *hdlr = make<Hdlr>(fourcc("hdlr"), 45);
    hdlr->handler_type = fourcc("soun");
    std::string out = dump(nullptr, hdlr);
    EXPECT_NE(out.find("    handler_type: 0x736f756e (soun)\n    name: \n"), std::string::npos);
    deleteBox(hdlr);
}

TEST(DumpMovieBoxes, MediaHeaders) {
    auto *vmhd = make<Vmhd>(fourcc("vmhd"), 20);
    vmhd->flags = 1;
    vmhd->graphicsmode = 64;
    vmhd->opcolor[0] = 0x8000;
    vmhd->opcolor[2] = 7;
    EXPECT_EQ(dump(nullptr, vmhd),
              text(0, {"vmhd  size: 20", "    version: 0  flags: 1", "    graphicsmode: 64",
                       "    opcolor[0]: 32768", "    opcolor[1]: 0", "    opcolor[2]: 7"}));
    deleteBox(vmhd);

    auto *smhd = make<Smhd>(fourcc("smhd"), 16);
    smhd->balance = 0xff80;
    EXPECT_EQ(dump(nullptr, smhd),
              text(0, {"smhd  size: 16", "    version: 0  flags: 0", "    balance: 0xff80"}));
    deleteBox(smhd);

    auto *hmhd = make<Hmhd>(fourcc("hmhd"), 28);
    hmhd->maxPDUsize = 1500;
    hmhd->avgPDUsize = 700;
    hmhd->maxbitrate = 4000000000u;
    hmhd->avgbitrate = 128000;
    EXPECT_EQ(
        dump(nullptr, hmhd),
        text(0, {"hmhd  size: 28", "    version: 0  flags: 0", "    maxPDUsize: 1500",
                 "    avgPDUsize: 700", "    maxbitrate: 4000000000", "    avgbitrate: 128000"}));
    deleteBox(hmhd);

    auto *nmhd = make<FullBox>(fourcc("nmhd"), 12);
    nmhd->version = 2;
    nmhd->flags = 0x10;
    EXPECT_EQ(dump(nullptr, nmhd), text(0, {"nmhd  size: 12", "    version: 2  flags: 10"}));
    deleteBox(nmhd);
}

TEST(DumpMovieBoxes, DataReferences) {
    auto *dref = make<Dref>(fourcc("dref"), 28);
    dref->entry_count = 1;
    EXPECT_EQ(dump(nullptr, dref),
              text(0, {"dref  size: 28", "    version: 0  flags: 0", "    entry_count: 1"}));
    deleteBox(dref);

    auto *url = make<Url>(fourcc("url "), 12);
    url->flags = 1;
    EXPECT_EQ(dump(nullptr, url),
              text(0, {"url   size: 12", "    version: 0  flags: 1", "    location: \"\""}));
    // A location filling its whole field is printed up to the field's end only.
    memset(url->location, 'x', sizeof url->location);
    std::string out = dump(nullptr, url);
    EXPECT_NE(out.find("    location: \"" + std::string(256, 'x') + "\"\n"), std::string::npos);
    deleteBox(url);

    auto *alis = make<Url>(fourcc("alis"), 20);
    strcpy(alis->location, "here");
    EXPECT_EQ(dump(nullptr, alis),
              text(0, {"alis  size: 20", "    version: 0  flags: 0", "    location: \"here\""}));
    deleteBox(alis);

    auto *urn = make<Urn>(fourcc("urn "), 30);
    strcpy(urn->name, "urn:x");
    strcpy(urn->location, "loc");
    EXPECT_EQ(dump(nullptr, urn), text(0, {"urn   size: 30", "    version: 0  flags: 0",
                                           "    name: \"urn:x\"", "    location: \"loc\""}));
    deleteBox(urn);
}

// ---- sample tables ---------------------------------------------------------------------------

TEST(DumpSampleTables, SttsOf2500EntriesPrints2000ThenDotsThenTheTotalOfAll) {
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
}

TEST(DumpSampleTables, SttsTotalLineNeedsSamples) {
    auto *stts = make<Stts>(fourcc("stts"), 16);
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

TEST(DumpSampleTables, EntryLimitIsExactly2000) {
    for (uint32_t count : {2000u, 2001u}) {
        auto *stco = make<Stco>(fourcc("stco"), 16 + 4 * count);
        stco->entry_count = count;
        stco->entries = allocArray<uint32_t>(count);
        for (uint32_t i = 0; i < count; i++)
            stco->entries[i] = 0x1000 + i;
        std::vector<std::string> ls = lines(dump(nullptr, stco));
        EXPECT_EQ(ls[3 + 1999], "    chunk_offset[1999]: 0x17cf");
        if (count == 2000) {
            EXPECT_EQ(ls.size(), 3u + 2000u);
        } else {
            ASSERT_EQ(ls.size(), 3u + 2000u + 1u);
            EXPECT_EQ(ls.back(), "    ...");
        }
        deleteBox(stco);
    }
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

TEST(DumpSampleTables, Stz2UnpacksFourEightAndSixteenBitSizes) {
    auto *stz2 = make<Stz2>(fourcc("stz2"), 23);
    stz2->field_size = 4;
    stz2->sample_count = 3;
    stz2->entries = allocArray<uint8_t>(2);
    stz2->entries[0] = 0x5A;
    stz2->entries[1] = 0xC0;
    EXPECT_EQ(dump(nullptr, stz2),
              text(0, {"stz2  size: 23", "    version: 0  flags: 0", "    field_size: 4",
                       "    sample_count: 3", "    entry_size[0]: 5", "    entry_size[1]: 10",
                       "    entry_size[2]: 12"}));
    mp4_free(stz2->entries);

    stz2->field_size = 8;
    stz2->sample_count = 2;
    stz2->entries = allocArray<uint8_t>(2);
    stz2->entries[0] = 0xFE;
    stz2->entries[1] = 0x01;
    std::string out = dump(nullptr, stz2);
    EXPECT_NE(out.find("    entry_size[0]: 254\n    entry_size[1]: 1\n"), std::string::npos);
    mp4_free(stz2->entries);

    stz2->field_size = 16;
    stz2->sample_count = 2;
    stz2->entries = allocArray<uint8_t>(4);
    const uint8_t be[4] = {0x12, 0x34, 0xFF, 0xFE};
    memcpy(stz2->entries, be, 4);
    out = dump(nullptr, stz2);
    EXPECT_NE(out.find("    entry_size[0]: 4660\n    entry_size[1]: 65534\n"), std::string::npos);
    deleteBox(stz2);
}

TEST(DumpSampleTables, Stz2NeverReadsPastItsPackedBytes) {
    // 16-bit fields and a count whose product wraps in 32 bits: 0x80000001 x 16 = 2^35 + 16,
    // so the codec holds (16 + 7) / 8 = 2 bytes, one size.
    auto *stz2 = make<Stz2>(fourcc("stz2"), 22);
    stz2->field_size = 16;
    stz2->sample_count = 0x80000001u;
    stz2->entries = allocArray<uint8_t>(2);
    stz2->entries[0] = 0x01;
    stz2->entries[1] = 0x02;
    std::vector<std::string> ls = lines(dump(nullptr, stz2));
    ASSERT_EQ(ls.size(), 5u);
    EXPECT_EQ(ls[4], "    entry_size[0]: 258");
    // A field size without a packing prints no sizes.
    stz2->field_size = 12;
    stz2->sample_count = 1;
    EXPECT_EQ(lines(dump(nullptr, stz2)).size(), 4u);
    deleteBox(stz2);
}

TEST(DumpSampleTables, ChunkAndSyncTables) {
    auto *stsc = make<Stsc>(fourcc("stsc"), 40);
    stsc->entry_count = 2;
    stsc->entries = allocArray<StscEntry>(2);
    stsc->entries[0] = {1, 15, 1};
    stsc->entries[1] = {4, 3, 2};
    EXPECT_EQ(dump(nullptr, stsc),
              text(0, {"stsc  size: 40", "    version: 0  flags: 0", "    entry_count: 2",
                       "    first_chunk[0]: 1", "    samples_per_chunk[0]: 15",
                       "    samples_description_index[0]: 1", "    first_chunk[1]: 4",
                       "    samples_per_chunk[1]: 3", "    samples_description_index[1]: 2"}));
    deleteBox(stsc);

    auto *co64 = make<Co64>(fourcc("co64"), 32);
    co64->entry_count = 2;
    co64->entries = allocArray<uint64_t>(2);
    co64->entries[0] = 0x100000000ull;
    co64->entries[1] = 0x30;
    EXPECT_EQ(dump(nullptr, co64),
              text(0, {"co64  size: 32", "    version: 0  flags: 0", "    entry_count: 2",
                       "    chunk_offset[0]: 0x100000000", "    chunk_offset[1]: 0x30"}));
    deleteBox(co64);

    auto *stco = make<Stco>(fourcc("stco"), 20);
    stco->entry_count = 1;
    stco->entries = allocArray<uint32_t>(1);
    stco->entries[0] = 0xdeadbeef;
    EXPECT_EQ(dump(nullptr, stco),
              text(0, {"stco  size: 20", "    version: 0  flags: 0", "    entry_count: 1",
                       "    chunk_offset[0]: 0xdeadbeef"}));
    deleteBox(stco);

    auto *stss = make<Stss>(fourcc("stss"), 24);
    stss->entry_count = 2;
    stss->entries = allocArray<uint32_t>(2);
    stss->entries[0] = 1;
    stss->entries[1] = 16;
    EXPECT_EQ(dump(nullptr, stss),
              text(0, {"stss  size: 24", "    version: 0  flags: 0", "    entry_count: 2",
                       "    sample_number[0]: 1", "    sample_number[1]: 16"}));
    deleteBox(stss);

    auto *stsh = make<Stsh>(fourcc("stsh"), 24);
    stsh->entry_count = 1;
    stsh->entries = allocArray<StshEntry>(1);
    stsh->entries[0] = {7, 5};
    EXPECT_EQ(dump(nullptr, stsh),
              text(0, {"stsh  size: 24", "    version: 0  flags: 0", "    entry_count: 1",
                       "    shadowed_sample_number[0]: 7", "    sync_sample_number[0]: 5"}));
    deleteBox(stsh);
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

TEST(DumpSampleTables, PadbPrintsTwoPadValuesPerByte) {
    auto *padb = make<Padb>(fourcc("padb"), 18);
    padb->sample_count = 3; // two bytes; the second holds sample 3 and an unused half
    padb->entries = allocArray<uint8_t>(2);
    padb->entries[0] = 0x35; // 0 011 0 101
    padb->entries[1] = 0xF8; // 1 111 1 000: reserved bits are not part of the values
    EXPECT_EQ(dump(nullptr, padb),
              text(0, {"padb  size: 18", "    version: 0  flags: 0", "    sample_count: 3",
                       "    pad[1]: 3", "    pad[2]: 5", "    pad[3]: 7", "    pad[4]: 0"}));
    deleteBox(padb);
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

TEST(DumpSampleEntries, VisualLayoutUnderAVideoHandler) {
    EntryUnderStsd e(fourcc("avc1"), 86);
    e.entry->data_reference_index = 1;
    e.entry->width = 160;
    e.entry->height = 120;
    e.entry->horizresolution = 0x480000;
    e.entry->vertresolution = 0x488000;
    e.entry->frame_count = 1;
    memcpy(e.entry->compressorname, "Talvorin 4417", 13);
    e.entry->depth = 24;
    e.entry->channelcount = 2; // audio fields are not part of this layout
    Handle h(mp4_reader_create());
    h.m->handler_type = fourcc("vide");
    EXPECT_EQ(
        dump(h.m, e.entry),
        text(0, {"avc1  size: 86", "    data_reference_index: 1", "    width: 160",
                 "    height: 120", "    horizresolution: 72.00000", "    vertresolution: 72.50000",
                 "    frame_count: 1", "    compressorname: Talvorin 4417", "    depth: 24"}));
    // A name filling all 32 bytes is not read past the field.
    memset(e.entry->compressorname, 'n', 32);
    EXPECT_NE(dump(h.m, e.entry).find("    compressorname: " + std::string(32, 'n') + "\n"),
              std::string::npos);
}

TEST(DumpSampleEntries, AudioLayoutAddsFourFieldsForVersion1) {
    EntryUnderStsd e(fourcc("mp4a"), 36);
    e.entry->data_reference_index = 1;
    e.entry->channelcount = 2;
    e.entry->samplesize = 16;
    e.entry->compressionID = 0xFFFE;
    e.entry->samplerate = 44100u << 16;
    e.entry->samplesPerPacket = 1024;
    e.entry->bytesPerPacket = 1536;
    e.entry->bytesPerFrame = 6;
    e.entry->bytesPerSample = 2;
    e.entry->width = 99; // visual fields are not part of this layout
    Handle h(mp4_reader_create());
    h.m->handler_type = fourcc("soun");
    const std::string v0 = text(0, {"mp4a  size: 36", "    data_reference_index: 1",
                                    "    version: 0", "    channelcount: 2", "    samplesize: 16",
                                    "    compressionID: 65534", "    samplerate: 44100.00000"});
    EXPECT_EQ(dump(h.m, e.entry), v0);
    e.entry->version = 2; // coded like version 0
    EXPECT_EQ(lines(dump(h.m, e.entry)).size(), 7u);
    e.entry->version = 1;
    e.entry->size = 52;
    EXPECT_EQ(
        dump(h.m, e.entry),
        text(0, {"mp4a  size: 52", "    data_reference_index: 1", "    version: 1",
                 "    channelcount: 2", "    samplesize: 16", "    compressionID: 65534",
                 "    samplerate: 44100.00000", "    samplesPerPacket: 1024",
                 "    bytesPerPacket: 1536", "    bytesPerFrame: 6", "    bytesPerSample: 2"}));
}

TEST(DumpSampleEntries, HintAndSubpictureEntriesShowTheirDataSize) {
    EntryUnderStsd e(fourcc("mp4s"), 52);
    e.entry->data_reference_index = 1;
    Handle h(mp4_reader_create());
    h.m->handler_type = fourcc("subp");
    EXPECT_EQ(dump(h.m, e.entry),
              text(0, {"mp4s  size: 52", "    data_reference_index: 1", "    subp data size 44"}));
    h.m->handler_type = fourcc("hint");
    EXPECT_EQ(dump(h.m, e.entry),
              text(0, {"mp4s  size: 52", "    data_reference_index: 1", "    hint data size 44"}));
}

TEST(DumpSampleEntries, MetaTrackEntryPrintsThePlainNotSetLine) {
    EntryUnderStsd e(fourcc("mett"), 16);
    Handle h(mp4_reader_create());
    h.m->handler_type = fourcc("meta");
    IndentAt at(24); // the line is plain: no indentation whatever the depth
    EXPECT_EQ(dump(h.m, e.entry), std::string(24, ' ') + "mett  size: 16\nhandler type not set\n");
    h.m->handler_type = 0; // no hdlr seen yet
    EXPECT_EQ(dump(h.m, e.entry), std::string(24, ' ') + "mett  size: 16\nhandler type not set\n");
    EXPECT_EQ(dump(nullptr, e.entry),
              std::string(24, ' ') + "mett  size: 16\nhandler type not set\n");
}

TEST(DumpSampleEntries, BoxWithoutRowOutsideStsdIsUnknown) {
    Box *b = newBox(fourcc("abcd"), 16);
    EXPECT_EQ(dump(nullptr, b), "abcd  size: 16\n    unknown\n");
    Box *parent = newBox(fourcc("minf"), 8);
    addBox(b, parent);
    Handle h(mp4_reader_create());
    h.m->handler_type = fourcc("vide"); // the handler matters only under an stsd
    EXPECT_EQ(dump(h.m, b), "abcd  size: 16\n    unknown\n");
    deleteBox(parent);
}

TEST(DumpSampleEntries, HandlerTypeBoxesPrintTheirDataReferenceIndex) {
    for (uint32_t type : {fourcc("vide"), fourcc("soun"), fourcc("hint")}) {
        auto *b = make<SampleEntry>(type, 16);
        b->data_reference_index = 7;
        b->width = 5;
        std::string out = dump(nullptr, b);
        EXPECT_EQ(lines(out).size(), 2u) << out;
        EXPECT_EQ(lines(out)[1], "    data_reference_index: 7");
        deleteBox(b);
    }
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

TEST(DumpSampleEntries, HeaderOnlyNodesPrintOnlyTheirHeaderLine) {
    for (uint32_t type :
         {fourcc("stsh"), fourcc("stdp"), fourcc("padb"), fourcc("vide"), fourcc("soun"),
          fourcc("hint"), fourcc("mvhd"), fourcc("trun"), fourcc("esds"), fourcc("mdat")}) {
        Box *b = headerOnly(type, 5000);
        Handle h(mp4_reader_create());
        h.m->sample_count = 100;
        std::string out = dump(h.m, b);
        if (type == fourcc("mdat")) // the offset comes from the header
            EXPECT_EQ(lines(out).size(), 2u) << out;
        else
            EXPECT_EQ(lines(out).size(), 1u) << out;
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

TEST(DumpCodecBoxes, AvcCPrintsEachParameterSetAsBytes) {
    auto *avcc = make<AvcC>(fourcc("avcC"), 8 + 11 + 4 + 2);
    avcc->configurationVersion = 1;
    avcc->AVCProfileIndication = 66;
    avcc->profile_compatibility = 0xC0;
    avcc->AVCLevelIndication = 12;
    avcc->lengthSizeMinusOne = 3;
    avcc->numOfSequenceParameterSets = 1;
    avcc->numOfPictureParameterSets = 1;
    avcc->length[0] = 4;
    avcc->length[1] = 2;
    const uint8_t data[6] = {0x67, 0x42, 0xc0, 0x0c, 0x68, 0xce};
    memcpy(avcc->data, data, 6);
    EXPECT_EQ(dump(nullptr, avcc),
              text(0, {"avcC  size: 25", "    configurationVersion: 1",
                       "    AVCProfileIndication: 66", "    profile_compatibility: 192",
                       "    AVCLevelIndication: 12", "    lengthSizeMinusOne: 3",
                       "    numOfSequenceParameterSets: 1", "    sequenceParameterSetLength[0] = 4",
                       "    sequenceParameterSetNALUnit[0] = 67 42 c0 0c",
                       "    numOfPictureParameterSets: 1", "    pictureParameterSetLength[0] = 2",
                       "    pictureParameterSetNALUnit[0] = 68 ce"}));
    deleteBox(avcc);
}

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

TEST(DumpCodecBoxes, BtrtFielAndChan) {
    auto *btrt = make<Btrt>(fourcc("btrt"), 20);
    btrt->bufferSizeDB = 1;
    btrt->maxBitrate = 2;
    btrt->avgBitrate = 3;
    EXPECT_EQ(dump(nullptr, btrt), text(0, {"btrt  size: 20", "    bufferSizeDB: 1",
                                            "    maxBitrate: 2", "    avgBitrate: 3"}));
    deleteBox(btrt);

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

    auto *chan = make<Chan>(fourcc("chan"), 44);
    chan->ChannelLayoutTag = 0x650002;
    chan->ChannelBitmap = 3;
    chan->NumberChannelDescriptions = 1;
    chan->descriptions = allocArray<ChannelDescription>(1);
    chan->descriptions[0].ChannelLabel = 0x1a;
    chan->descriptions[0].ChannelFlags = 0x2;
    const float coords[3] = {1.5f, -2.0f, 0.25f};
    memcpy(chan->descriptions[0].Coordinates, coords, sizeof coords);
    EXPECT_EQ(dump(nullptr, chan),
              text(0, {"chan  size: 44", "    version: 0  flags: 0", "    ChannelLayoutTag: 650002",
                       "    ChannelBitmap: 3", "    NumberChannelDescriptions: 1",
                       "    ChannelLabel[0]: 1a", "    ChannelFlags[0]: 2",
                       "    Coordinates [0]: (1.5, -2, 0.25)"}));
    deleteBox(chan);
}

// ---- fragments -------------------------------------------------------------------------------

TEST(DumpFragments, MovieExtendsAndFragmentHeaders) {
    auto *mehd = make<Mehd>(fourcc("mehd"), 20);
    mehd->version = 1;
    mehd->fragment_duration = 0x100000000ull;
    EXPECT_EQ(dump(nullptr, mehd), text(0, {"mehd  size: 20", "    version: 1  flags: 0",
                                            "    fragment_duration: 4294967296"}));
    deleteBox(mehd);

    auto *trex = make<Trex>(fourcc("trex"), 32);
    trex->track_ID = 2;
    trex->default_sample_description_index = 1;
    trex->default_sample_duration = 1024;
    trex->default_sample_size = 300;
    trex->default_sample_flags = 0x02000000;
    EXPECT_EQ(
        dump(nullptr, trex),
        text(0, {"trex  size: 32", "    version: 0  flags: 0", "    track_ID: 2",
                 "    default_sample_description_index: 1", "    default_sample_duration: 1024",
                 "    default_sample_size: 300", "    default_sample_flags: 33554432"}));
    deleteBox(trex);

    auto *mfhd = make<Mfhd>(fourcc("mfhd"), 16);
    mfhd->sequence_number = 4;
    EXPECT_EQ(dump(nullptr, mfhd),
              text(0, {"mfhd  size: 16", "    version: 0  flags: 0", "    sequence_number: 4"}));
    deleteBox(mfhd);

    auto *mfro = make<Mfro>(fourcc("mfro"), 16);
    mfro->size = 67;
    EXPECT_EQ(dump(nullptr, mfro),
              text(0, {"mfro  size: 16", "    version: 0  flags: 0", "    size: 67"}));
    deleteBox(mfro);
}

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
    tfhd->flags = 0x000018;
    EXPECT_EQ(dump(nullptr, tfhd),
              text(0, {"tfhd  size: 40", "    version: 0  flags: 18", "    track_ID: 1",
                       "    default_sample_duration: 512", "    default_sample_size: 900"}));
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

TEST(DumpFragments, Tfra) {
    auto *tfra = make<Tfra>(fourcc("tfra"), 39);
    tfra->version = 1;
    tfra->track_ID = 1;
    tfra->length_size_of_traf_num = 0;
    tfra->length_size_of_trun_num = 1;
    tfra->length_size_of_sample_num = 3;
    tfra->number_of_entry = 1;
    tfra->entries = allocArray<TfraEntry>(1);
    tfra->entries[0] = {0x100000000ull, 1234, 1, 2, 3};
    EXPECT_EQ(
        dump(nullptr, tfra),
        text(0, {"tfra  size: 39", "    version: 1  flags: 0", "    track_ID: 1",
                 "    length_size_of_traf_num: 0", "    length_size_of_trun_num: 1",
                 "    length_size_of_sample_num: 3", "    number_of_entry: 1",
                 "    time[0]: 4294967296", "    moof_offset[0]: 1234", "    traf_number[0]: 1",
                 "    trun_number[0]: 2", "    sample_number[0]: 3"}));
    deleteBox(tfra);
}

// ---- descriptors -----------------------------------------------------------------------------

// The esds of an AAC entry as the writer builds it.
Esds *aacEsds(uint8_t b0, uint8_t b1) {
    auto *esds = make<Esds>(fourcc("esds"), 42);
    ES_Descriptor &es = esds->es;
    es.tag = 3;
    es.length = 26;
    es.ES_ID = 2;
    es.present = 3;
    es.decConfigDescr.tag = 4;
    es.decConfigDescr.length = 17;
    es.decConfigDescr.objectTypeIndication = 0x40;
    es.decConfigDescr.streamType = 5;
    es.decConfigDescr.bufferSizeDB = 1536;
    es.decConfigDescr.maxBitrate = 128000;
    es.decConfigDescr.avgBitrate = 96000;
    es.decConfigDescr.present = 1;
    es.decConfigDescr.decSpecificInfo.tag = 5;
    es.decConfigDescr.decSpecificInfo.length = 2;
    es.decConfigDescr.decSpecificInfo.data[0] = b0;
    es.decConfigDescr.decSpecificInfo.data[1] = b1;
    es.slConfigDescr.tag = 6;
    es.slConfigDescr.length = 2;
    es.slConfigDescr.predefined = 2;
    es.slConfigDescr.useTimeStampsFlag = 1;
    return esds;
}

TEST(DumpDescriptors, AacEsdsWithAudioSpecificConfig1190) {
    Esds *esds = aacEsds(0x11, 0x90);
    EXPECT_EQ(dump(nullptr, esds), text(0, {"esds  size: 42",
                                            "    version: 0  flags: 0",
                                            "    tag: 0x3  length: 26",
                                            "    ES_id: 2",
                                            "    streamDependenceFlag: 0",
                                            "    URL_Flag: 0",
                                            "    OCRstreamFlag: 0",
                                            "    streamPriority: 0",
                                            "    decConfigDescr  length: 17",
                                            "        tag: 0x4  length: 17",
                                            "        objectTypeIndication: 0x40",
                                            "        streamType: 5",
                                            "        upStream: 0",
                                            "        bufferSizeDB: 1536",
                                            "        maxBitrate: 128000",
                                            "        avgBitrate: 96000",
                                            "        decSpecificInfo  length: 2",
                                            "            tag: 0x5  length: 2",
                                            "            data: 11 90",
                                            "            object type: 2",
                                            "            frequency index: 3 (48000)",
                                            "            channel config: 2",
                                            "            frame length flag: 0 (1024)",
                                            "            dependsOnCoreCoder: 0",
                                            "            extensionFlag: 0",
                                            "    slConfigDescr  length: 2",
                                            "        tag: 0x6  length: 2",
                                            "        predefined: 2"}));
    deleteBox(esds);
}

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

TEST(DumpDescriptors, DecoderSpecificInfoOfOtherLengthsPrintsHeldBytesOnly) {
    DecoderSpecificInfo dsi{};
    dsi.tag = 5;
    dsi.length = 3;
    dsi.data[0] = 0x11;
    dsi.data[1] = 0x90;
    dsi.data[2] = 0x56;
    EXPECT_EQ(dumpDescriptor(5, &dsi), "tag: 0x5  length: 3\ndata: 11 90 56\n");
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
    EXPECT_EQ(dumpDescriptor(3, &es), text(0, {"tag: 0x3  length: 60",
                                               "ES_id: 1",
                                               "streamDependenceFlag: 1",
                                               "URL_Flag: 1",
                                               "OCRstreamFlag: 1",
                                               "streamPriority: 31",
                                               "dependsOn_ES_ID: 7",
                                               "URLlength: 3",
                                               "URLstring: abc",
                                               "OCR_ES_Id: 9",
                                               "slConfigDescr  length: 40",
                                               "    tag: 0x6  length: 40",
                                               "    predefined: 0",
                                               "    useAccessUnitStartFlag: 1",
                                               "    useAccessUnitEndFlag: 0",
                                               "    useRandomAccessPointFlag: 1",
                                               "    hasRandomAccessUnitOnlyFlag: 0",
                                               "    usePaddingFlag: 0",
                                               "    useTimeStampsFlag: 0",
                                               "    useIdleFlag: 0",
                                               "    durationFlag: 1",
                                               "    timeStampResolution: 90000",
                                               "    OCRResolution: 1000",
                                               "    timeStampLength: 32",
                                               "    OCRLength: 8",
                                               "    AU_Length: 16",
                                               "    instantBitrateLength: 4",
                                               "    degradationPriorityLength: 15",
                                               "    AU_seqNumLength: 31",
                                               "    packetSeqNumLength: 5",
                                               "    timeScale: 48000",
                                               "    accessUnitDuration: 1024",
                                               "    compositionUnitDuration: 1024",
                                               "    startDecodingTimeStamp: 4294967297",
                                               "    startCompositionTimeStamp: 12"}));
}

TEST(DumpDescriptors, IodsPrintsTheInitialObjectDescriptorWithItsNestedEsDescriptor) {
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
}

TEST(DumpDescriptors, ObjectDescriptorTagsAndUrlForm) {
    InitialObjectDescriptor od{};
    od.tag = 1;
    od.length = 4;
    od.ObjectDescriptorID = 1023;
    od.URL_Flag = 1;
    od.includeInlineProfileLevelFlag = 1;
    od.URLlength = 10;
    // Tag 1 has no includeInlineProfileLevelFlag; the URL bytes are not held.
    EXPECT_EQ(dumpDescriptor(1, &od),
              text(0, {"tag: 0x1  length: 4", "ObjectDescriptorID: 1023", "URL_Flag: 1",
                       "URLlength: 10", "URLstring: ", "esDescr  length: 0"}));
    EXPECT_EQ(dumpDescriptor(2, &od),
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
std::string mdatFile() {
    char path[] = "/tmp/mp4kit_dump_XXXXXX";
    int fd = mkstemp(path);
    const uint8_t bytes[32] = {0,    0,    0,    8,    'f',  'r',  'e',  'e',  0,    0,    0,
                               20,   'm',  'd',  'a',  't',  0xa0, 0xa1, 0xa2, 0xa3, 0xa4, 0xa5,
                               0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xab, 0xc0, 0xc1, 0xc2, 0xc3};
    EXPECT_EQ(write(fd, bytes, sizeof bytes), ssize_t(sizeof bytes));
    close(fd);
    return path;
}

DataBox *mdatAt(uint64_t data_pos, uint32_t size) {
    auto *mdat = make<DataBox>(fourcc("mdat"), size);
    mdat->data_pos = data_pos;
    return mdat;
}

const char *const kMdatLines = "mdat  size: 20\n"
                               "    data (offset: 16)\n"
                               "a0 a1 a2 a3 a4 a5 a6 a7 a8 a9 \n";

TEST(DumpMdat, ReaderOnStdioShowsTheFirstTenBytesAndLeavesTheStreamAlone) {
    std::string path = mdatFile();
    FILE *fp = fopen(path.c_str(), "rb");
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
    deleteBox(mdat);
    fclose(fp);
    unlink(path.c_str());
}

TEST(DumpMdat, ReaderOnADescriptorLeavesTheOffsetAlone) {
    std::string path = mdatFile();
    int fd = open(path.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    Handle h(mp4_reader_create());
    mp4_file_descriptor(h.m, fd);
    muxer_seek(h.m, 36); // at the mdat's end, as the codec leaves a skipped mdat
    DataBox *mdat = mdatAt(16, 20);
    EXPECT_EQ(dump(h.m, mdat), kMdatLines);
    EXPECT_EQ(muxer_pos(h.m), 36u);
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 36);
    deleteBox(mdat);
    close(fd);
    unlink(path.c_str());
}

TEST(DumpMdat, ShortPayloadsShowFewerBytesAndMissingBytesShowNone) {
    std::string path = mdatFile();
    FILE *fp = fopen(path.c_str(), "rb");
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
    unlink(path.c_str());
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

TEST(DumpThroughCodec, ChildrenIndentFourPerLevelAndReadingListsWhatWritingListed) {
    Box *moov = sampleMovie();
    std::vector<uint8_t> file(1024);
    Handle w(mp4_writer_create());
    mp4_buf_put(w.m, file.data(), uint32_t(file.size()));
    mp4_debug(w.m, 1);
    const std::string written = captured([&] { EXPECT_EQ(rwBox(w.m, moov), moov); });
    file.resize(mp4_buf_get(w.m));
    ASSERT_EQ(file.size(), 216u);

    std::vector<std::string> ls = lines(written);
    ASSERT_EQ(ls.size(), 1u + 18u + 1u + 20u) << written;
    EXPECT_EQ(ls[0], "moov  size: 216");
    EXPECT_EQ(ls[1], "    mvhd  size: 108");
    EXPECT_EQ(ls[2], "        version: 0  flags: 0");
    EXPECT_EQ(ls[6], "        duration: 5400000 (0:01:00.000)");
    EXPECT_EQ(ls[18], "        next_track_ID: 3");
    EXPECT_EQ(ls[19], "    trak  size: 100");
    EXPECT_EQ(ls[20], "        tkhd  size: 92");
    EXPECT_EQ(ls[21], "            version: 0  flags: 3");
    EXPECT_EQ(ls[25], "            duration: 5400000 (0:01:00.000)");
    EXPECT_EQ(ls[39], "            height: 65535.99998");

    Handle r(mp4_reader_create());
    mp4_buf_put(r.m, file.data(), uint32_t(file.size()));
    mp4_debug(r.m, 1);
    Box *read = nullptr;
    EXPECT_EQ(captured([&] { read = rwBox(r.m, nullptr); }), written);
    ASSERT_NE(read, nullptr);
    mp4_buf_get(r.m);
    deleteBox(read);
    deleteBox(moov);
}

TEST(DumpThroughCodec, DebugOffPrintsNothing) {
    Box *moov = sampleMovie();
    Handle w(mp4_writer_create());
    EXPECT_EQ(captured([&] { rwBox(w.m, moov); }), "");
    deleteBox(moov);
}

// ---- whole files -----------------------------------------------------------------------------

const char *const kFixtures[] = {"h264_aac.mp4", "h264_aac.mov", "frag.mp4", "mp4v.mp4",
                                 "pcm_s16le.mov"};

std::string fixturePath(const std::string &name) {
    return std::string(TEST_DATA_DIR) + "/" + name;
}

std::string readText(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
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

// What `mp4kit dump` prints for a file.
std::string dumpFile(const std::string &path) {
    return captured([&] { FileTree tree(path, true); });
}

TEST(DumpGolden, FixturesDumpAsTheReviewedListings) {
    for (const char *name : kFixtures) {
        const std::string golden = readText(fixturePath("golden/" + std::string(name) + ".dump"));
        ASSERT_FALSE(golden.empty()) << "missing golden listing for " << name;
        const std::string out = dumpFile(fixturePath(name));
        if (out == golden)
            continue;
        // Point at the first differing line rather than printing both listings.
        std::vector<std::string> a = lines(out), b = lines(golden);
        size_t i = 0;
        while (i < a.size() && i < b.size() && a[i] == b[i])
            i++;
        ADD_FAILURE() << name << ": line " << i + 1
                      << "\n  got:      " << (i < a.size() ? a[i] : "<end>")
                      << "\n  expected: " << (i < b.size() ? b[i] : "<end>");
    }
}

// The record as bytes, with every pointer the node holds cleared so that two reads compare.
std::vector<uint8_t> recordBytes(const Box *b) {
    std::vector<uint8_t> v(reinterpret_cast<const uint8_t *>(b),
                           reinterpret_cast<const uint8_t *>(b) + b->alloc_size);
    auto *c = reinterpret_cast<Box *>(v.data());
    c->first_child = c->next = c->parent = nullptr;
    if (b->alloc_size < recordSize(b->type))
        return v; // header only
    switch (b->type) {
    case fourcc("stts"):
        reinterpret_cast<Stts *>(c)->entries = nullptr;
        break;
    case fourcc("ctts"):
        reinterpret_cast<Ctts *>(c)->entries = nullptr;
        break;
    case fourcc("stss"):
        reinterpret_cast<Stss *>(c)->entries = nullptr;
        break;
    case fourcc("stsz"):
        reinterpret_cast<Stsz *>(c)->entries = nullptr;
        break;
    case fourcc("stz2"):
        reinterpret_cast<Stz2 *>(c)->entries = nullptr;
        break;
    case fourcc("stsc"):
        reinterpret_cast<Stsc *>(c)->entries = nullptr;
        break;
    case fourcc("stco"):
        reinterpret_cast<Stco *>(c)->entries = nullptr;
        break;
    case fourcc("co64"):
        reinterpret_cast<Co64 *>(c)->entries = nullptr;
        break;
    case fourcc("elst"):
        reinterpret_cast<Elst *>(c)->entries = nullptr;
        break;
    case fourcc("hdlr"):
        reinterpret_cast<Hdlr *>(c)->name = nullptr;
        break;
    case fourcc("mdat"):
    case fourcc("free"):
    case fourcc("skip"):
    case fourcc("wide"):
        reinterpret_cast<DataBox *>(c)->data = nullptr;
        break;
    case fourcc("chan"):
        reinterpret_cast<Chan *>(c)->descriptions = nullptr;
        break;
    case fourcc("trun"):
        reinterpret_cast<Trun *>(c)->samples = nullptr;
        break;
    case fourcc("tfra"):
        reinterpret_cast<Tfra *>(c)->entries = nullptr;
        break;
    default:
        break;
    }
    return v;
}

void expectSameNodes(const std::string &where, const Box *a, const Box *b) {
    for (; a && b; a = a->next, b = b->next) {
        const std::string here = where + "/" + boxtest::fcc(a->type);
        ASSERT_EQ(a->type, b->type) << here;
        EXPECT_EQ(a->size, b->size) << here;
        EXPECT_EQ(a->data_pos, b->data_pos) << here;
        EXPECT_EQ(a->node_flags, b->node_flags) << here;
        ASSERT_EQ(a->alloc_size, b->alloc_size) << here;
        EXPECT_TRUE(recordBytes(a) == recordBytes(b)) << here << ": record bytes differ";
        if (a->type == fourcc("hdlr") && a->alloc_size >= sizeof(Hdlr)) {
            const char *na = static_cast<const Hdlr *>(a)->name;
            const char *nb = static_cast<const Hdlr *>(b)->name;
            EXPECT_STREQ(na ? na : "", nb ? nb : "") << here;
        }
        expectSameNodes(here, a->first_child, b->first_child);
    }
    EXPECT_EQ(a == nullptr, b == nullptr) << where << ": child counts differ";
}

TEST(DumpSideEffects, ReadingWithTheDumpOnGivesTheSameTreesAndPositions) {
    for (const char *name : kFixtures) {
        SCOPED_TRACE(name);
        FileTree plain(fixturePath(name), false);
        std::unique_ptr<FileTree> holder;
        (void)captured([&] { holder.reset(new FileTree(fixturePath(name), true)); });
        FileTree &dumped = *holder;
        ASSERT_EQ(plain.boxes.size(), dumped.boxes.size());
        ASSERT_GT(plain.boxes.size(), 2u);
        EXPECT_EQ(plain.positions, dumped.positions);
        EXPECT_EQ(plain.m->flags & ~MP4_DEBUG, dumped.m->flags & ~MP4_DEBUG);
        EXPECT_EQ(plain.m->error, dumped.m->error);
        for (size_t i = 0; i < plain.boxes.size(); i++) {
            expectSameNodes("", plain.boxes[i], dumped.boxes[i]);
            EXPECT_EQ(boxtest::compareTrees(plain.boxes[i], dumped.boxes[i]),
                      std::vector<std::string>{});
        }
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

TEST(DumpSideEffects, PrintingAReadTreeChangesNoRecordAndNoStreamState) {
    for (const char *name : kFixtures) {
        SCOPED_TRACE(name);
        FileTree tree(fixturePath(name), false);
        FileTree fresh(fixturePath(name), false); // never printed
        ASSERT_FALSE(tree.boxes.empty());
        muxer_seek(tree.m, 100); // somewhere else than any mdat
        const uint8_t flags = tree.m->flags;
        std::vector<std::vector<uint8_t>> before, after;
        for (Box *b : tree.boxes)
            snapshot(b, before);
        std::string out = captured([&] {
            for (Box *b : tree.boxes)
                printTree(tree.m, b);
        });
        EXPECT_NE(out.find("mdat  size: "), std::string::npos);
        for (Box *b : tree.boxes)
            snapshot(b, after);
        EXPECT_TRUE(before == after) << "a record changed";
        ASSERT_EQ(tree.boxes.size(), fresh.boxes.size());
        for (size_t i = 0; i < tree.boxes.size(); i++) // arrays by content
            EXPECT_EQ(boxtest::compareTrees(tree.boxes[i], fresh.boxes[i]),
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
        std::string file = readText(fixturePath(name));
        // Find the moov among the top-level boxes.
        size_t moov = 0, moov_size = 0;
        for (size_t at = 0; at + 8 <= file.size();) {
            uint32_t size = uint32_t(uint8_t(file[at])) << 24 |
                            uint32_t(uint8_t(file[at + 1])) << 16 |
                            uint32_t(uint8_t(file[at + 2])) << 8 | uint8_t(file[at + 3]);
            if (file.compare(at + 4, 4, "moov") == 0) {
                moov = at;
                moov_size = size;
                break;
            }
            if (size < 8)
                break;
            at += size;
        }
        ASSERT_GT(moov_size, 0u);
        uint32_t seed = 12345;
        for (int round = 0; round < 150; round++) {
            std::vector<uint8_t> bytes(file.begin(), file.end());
            for (int k = 0; k < 4; k++) {
                seed = seed * 1103515245u + 12345u;
                size_t at = moov + 8 + (seed >> 8) % (moov_size - 12);
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

// Runs a shell command; returns its exit status and fills `out` with its standard output.
int runCommand(const std::string &command, std::string &out) {
    out.clear();
    FILE *p = popen(command.c_str(), "r");
    if (!p)
        return -1;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;)
        out.append(buf, n);
    int status = pclose(p);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

const char *tool() {
    return getenv("MP4KIT_TOOL");
}

TEST(DumpTool, PrintsTheSameListingAsTheLibrary) {
    if (!tool())
        GTEST_SKIP() << "MP4KIT_TOOL not set (run through ctest)";
    for (const char *name : kFixtures) {
        std::string out;
        EXPECT_EQ(runCommand(std::string("'") + tool() + "' dump '" + fixturePath(name) + "'", out),
                  0)
            << name;
        EXPECT_TRUE(out == readText(fixturePath("golden/" + std::string(name) + ".dump"))) << name;
    }
}

TEST(DumpTool, FailsClearlyOnFilesItCannotDump) {
    if (!tool())
        GTEST_SKIP() << "MP4KIT_TOOL not set (run through ctest)";
    std::string out;
    EXPECT_NE(runCommand(std::string("'") + tool() + "' dump /nonexistent/x.mp4 2>&1", out), 0);
    EXPECT_EQ(out, "mp4kit dump: cannot open /nonexistent/x.mp4: No such file or directory\n");
    EXPECT_NE(runCommand(std::string("'") + tool() + "' dump 2>&1", out), 0);
    EXPECT_EQ(out, "usage: mp4kit dump FILE\n");

    // A box whose size is below 8 is bad input.
    char path[] = "/tmp/mp4kit_dump_XXXXXX";
    int fd = mkstemp(path);
    const uint8_t corrupt[16] = {0, 0, 0, 8, 'f', 'r', 'e', 'e', 0, 0, 0, 4, 'a', 'b', 'c', 'd'};
    ASSERT_EQ(write(fd, corrupt, sizeof corrupt), ssize_t(sizeof corrupt));
    close(fd);
    EXPECT_EQ(runCommand(std::string("'") + tool() + "' dump " + path + " 2>&1", out), 1);
    EXPECT_NE(out.find("free  size: 8\n"), std::string::npos) << out;
    EXPECT_NE(out.find(std::string("mp4kit dump: ") + path + ": bad input\n"), std::string::npos)
        << out;

    // A file cut inside a box is incomplete.
    const uint8_t cut[12] = {0, 0, 0, 8, 'f', 'r', 'e', 'e', 0, 0, 0, 40};
    fd = open(path, O_WRONLY | O_TRUNC);
    ASSERT_EQ(write(fd, cut, sizeof cut), ssize_t(sizeof cut));
    close(fd);
    EXPECT_EQ(runCommand(std::string("'") + tool() + "' dump " + path + " 2>&1", out), 1);
    EXPECT_NE(out.find(std::string("mp4kit dump: ") + path +
                       ": file is 12 bytes but its boxes end at 8\n"),
              std::string::npos)
        << out;
    unlink(path);
}

} // namespace
