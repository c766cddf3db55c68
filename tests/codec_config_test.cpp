// Codec parameter data: capture of H.264 SPS/PPS and MPEG-4 Visual headers from encoder output,
// their way into avcC / esds, and their way back out of a loaded movie.
#include "byte_builder.h"
#include "internal.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using test_util::Bytes;
using test_util::cat;
using test_util::SC3;
using test_util::SC4;

// An SPS NAL unit: header 0x67, profile 66, constraints, level 30, then filler up to `size`.
Bytes sps(size_t size, uint8_t fill = 0xAA) {
    Bytes b = {0x67, 66, 0xC0, 30};
    while (b.size() < size)
        b.push_back(uint8_t(fill + b.size()));
    return b;
}

Bytes pps(size_t size, uint8_t fill = 0x10) {
    Bytes b = {0x68};
    while (b.size() < size)
        b.push_back(uint8_t(fill + b.size()));
    return b;
}

const Bytes IDR = {0x65, 0x88, 0x84, 0x00, 0x33};

Bytes stored(const mp4_muxer *m, bool which_sps) {
    const uint8_t *p = which_sps ? m->sps : m->pps;
    size_t n = which_sps ? m->sps_size : m->pps_size;
    return p ? Bytes(p, p + n) : Bytes();
}

struct Handle {
    mp4_muxer *m;
    explicit Handle(mp4_muxer *h) : m(h) {}
    ~Handle() { mp4_delete(m); }
};

// ---- H.264 capture ---------------------------------------------------------------------------

TEST(ParameterCapture, SpsAndPpsBehindFourByteStartCodesStopAtTheSlice) {
    Handle h(mp4_writer_create());
    // 00 00 00 01 67 (20 bytes) 00 00 00 01 68 (4 bytes) 00 00 00 01 65 ...
    Bytes s = sps(21), p = pps(5);
    Bytes data = cat({SC4, s, SC4, p, SC4, IDR, SC4, sps(30)});
    mp4_set_parameter_data(h.m, data.data(), uint32_t(data.size()));
    EXPECT_EQ(h.m->sps_size, 21);
    EXPECT_EQ(h.m->pps_size, 5);
    EXPECT_EQ(stored(h.m, true), s);
    EXPECT_EQ(stored(h.m, false), p);
}

TEST(ParameterCapture, SetsAreCopiedSoTheCallerMayReuseItsBuffer) {
    Handle h(mp4_writer_create());
    Bytes s = sps(12), p = pps(4);
    Bytes data = cat({SC4, s, SC4, p});
    mp4_set_parameter_data(h.m, data.data(), uint32_t(data.size()));
    std::fill(data.begin(), data.end(), 0xEE);
    data.clear();
    data.shrink_to_fit();
    EXPECT_EQ(stored(h.m, true), s);
    EXPECT_EQ(stored(h.m, false), p);
    EXPECT_EQ(h.m->sps, h.m->sps_store);
    EXPECT_EQ(h.m->pps, h.m->pps_store);
}

TEST(ParameterCapture, AccessUnitDelimiterAndSeiAreSkipped) {
    Handle h(mp4_writer_create());
    Bytes s = sps(15), p = pps(6);
    Bytes data = cat({SC4, {0x09, 0x10}, SC4, s, SC4, {0x06, 0x05, 0x01, 0x80}, SC4, p, SC4, IDR});
    mp4_set_parameter_data(h.m, data.data(), uint32_t(data.size()));
    EXPECT_EQ(stored(h.m, true), s);
    EXPECT_EQ(stored(h.m, false), p);
}

TEST(ParameterCapture, ThreeByteStartCodesBetweenTheSetsAreFollowed) {
    // Chosen behaviour: the scan steps over the start code actually present, so x264-style
    // output (4-byte code first, 3-byte codes after) yields the exact sets.
    Handle h(mp4_writer_create());
    Bytes s = sps(18), p = pps(4);
    Bytes data = cat({SC4, {0x09, 0xF0}, SC3, s, SC3, p, SC3, {0x06, 0x05, 0x80}, SC3, IDR});
    mp4_set_parameter_data(h.m, data.data(), uint32_t(data.size()));
    EXPECT_EQ(stored(h.m, true), s);
    EXPECT_EQ(stored(h.m, false), p);
}

TEST(ParameterCapture, SetThatEndsTheBufferTakesTheWholeRemainder) {
    Handle h(mp4_writer_create());
    Bytes s = sps(9);
    Bytes data = cat({SC4, pps(4), SC4, s});
    mp4_set_parameter_data(h.m, data.data(), uint32_t(data.size()));
    EXPECT_EQ(stored(h.m, true), s);
    EXPECT_EQ(h.m->pps_size, 4);

    // Shorter than a start code's lookahead: exactly the bytes there are (the vector is the
    // allocation, so a read past it would be caught by the address sanitizer).
    for (size_t n = 1; n <= 4; n++) {
        Handle k(mp4_writer_create());
        Bytes whole = sps(4);
        Bytes tiny = cat({SC4, Bytes(whole.begin(), whole.begin() + long(n))});
        Bytes heap(tiny);
        mp4_set_parameter_data(k.m, heap.data(), uint32_t(heap.size()));
        EXPECT_EQ(k.m->sps_size, n) << "SPS of " << n << " bytes at the very end";
    }
}

TEST(ParameterCapture, DataWithoutFourByteStartIsRefusedAndShowsItsFirstBytes) {
    Handle h(mp4_writer_create());
    Bytes data = cat({SC3, sps(10)});
    testing::internal::CaptureStdout();
    mp4_set_parameter_data(h.m, data.data(), uint32_t(data.size()));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "mp4_set_parameter_data: no sync marker: 00 00 01 67 42 c0 1e ae\n");
    EXPECT_EQ(h.m->sps_size, 0);
    EXPECT_EQ(h.m->sps, nullptr);
    EXPECT_EQ(h.m->pps_size, 0);
}

TEST(ParameterCapture, ShortDataShowsOnlyTheBytesItHas) {
    Handle h(mp4_writer_create());
    const Bytes two = {0x00, 0x00};
    Bytes heap(two);
    testing::internal::CaptureStdout();
    mp4_set_parameter_data(h.m, heap.data(), 2);
    mp4_set_parameter_data(h.m, heap.data(), 0);
    mp4_set_parameter_data(h.m, nullptr, 8);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "mp4_set_parameter_data: no sync marker: 00 00\n"
              "mp4_set_parameter_data: no sync marker:\n"
              "mp4_set_parameter_data: no sync marker:\n");
    EXPECT_EQ(h.m->sps_size, 0);
    mp4_set_parameter_data(nullptr, heap.data(), 2); // no handle: nothing at all
}

TEST(ParameterCapture, OverlongSetsAreDroppedAndTheScanGoesOn) {
    Handle h(mp4_writer_create());
    Bytes p = pps(6);
    Bytes data = cat({SC4, sps(140), SC4, p, SC4, IDR});
    testing::internal::CaptureStderr();
    mp4_set_parameter_data(h.m, data.data(), uint32_t(data.size()));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "sequenceParameterDataLength overflow\n");
    EXPECT_EQ(h.m->sps_size, 0);
    EXPECT_EQ(stored(h.m, false), p);

    // The room is shared: an SPS of 100 leaves a PPS of 40 no space.
    Handle k(mp4_writer_create());
    Bytes s = sps(100);
    data = cat({SC4, s, SC4, pps(40)});
    testing::internal::CaptureStderr();
    mp4_set_parameter_data(k.m, data.data(), uint32_t(data.size()));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "pictureParameterDataLength overflow\n");
    EXPECT_EQ(stored(k.m, true), s);
    EXPECT_EQ(k.m->pps_size, 0);
}

TEST(ParameterCapture, ASetMissingFromTheDataKeepsItsValue) {
    Handle h(mp4_writer_create());
    Bytes s = sps(12), p1 = pps(4), p2 = pps(7, 0x40);
    Bytes first = cat({SC4, s, SC4, p1});
    mp4_set_parameter_data(h.m, first.data(), uint32_t(first.size()));
    Bytes second = cat({SC4, p2, SC4, IDR});
    mp4_set_parameter_data(h.m, second.data(), uint32_t(second.size()));
    EXPECT_EQ(stored(h.m, true), s);
    EXPECT_EQ(stored(h.m, false), p2);
}

// ---- MPEG-4 Visual capture -------------------------------------------------------------------

Bytes visualHeader(size_t header_bytes) {
    Bytes b = {0, 0, 1, 0xB0, 0x01, 0, 0, 1, 0xB5, 0x09};
    while (b.size() < header_bytes)
        b.push_back(uint8_t(0x40 + b.size() % 0x3F));
    return b;
}

TEST(ParameterCapture, VisualHeaderRunsToTheFirstPlane) {
    Handle h(mp4_writer_create());
    Bytes header = visualHeader(30);
    Bytes data = cat({header, {0, 0, 1, 0xB6, 0x10, 0x22}});
    mp4_set_parameter_data(h.m, data.data(), uint32_t(data.size()));
    EXPECT_EQ(stored(h.m, true), header);
    EXPECT_EQ(h.m->pps_size, 0);
}

TEST(ParameterCapture, VisualHeaderIsAtMost128Bytes) {
    Handle h(mp4_writer_create());
    Bytes data = visualHeader(300);
    mp4_set_parameter_data(h.m, data.data(), uint32_t(data.size()));
    EXPECT_EQ(h.m->sps_size, 128);
    EXPECT_EQ(stored(h.m, true), Bytes(data.begin(), data.begin() + 128));

    Handle k(mp4_writer_create());
    Bytes shorter = visualHeader(50);
    mp4_set_parameter_data(k.m, shorter.data(), uint32_t(shorter.size()));
    EXPECT_EQ(stored(k.m, true), shorter);
}

// ---- into the movie tree ---------------------------------------------------------------------

AvcC *avccOf(mp4_muxer *m) {
    Box *b = getChild(m->moov, fourcc("trak"));
    for (const char *t : {"mdia", "minf", "stbl", "stsd", "avc1", "avcC"}) {
        uint32_t type = uint32_t(uint8_t(t[0])) << 24 | uint32_t(uint8_t(t[1])) << 16 |
                        uint32_t(uint8_t(t[2])) << 8 | uint8_t(t[3]);
        b = getChild(b, type);
    }
    return static_cast<AvcC *>(b);
}

Esds *esdsOf(mp4_muxer *m, uint32_t entry, int track = 1) {
    Box *b = getChild(m->moov, fourcc("trak"));
    for (int i = 1; i < track && b; i++)
        b = b->next;
    b = getChild(getChild(getChild(getChild(b, fourcc("mdia")), fourcc("minf")), fourcc("stbl")),
                 fourcc("stsd"));
    return static_cast<Esds *>(getChild(getChild(b, entry), fourcc("esds")));
}

Bytes avccSets(const AvcC *a) {
    return Bytes(a->data, a->data + a->length[0] + a->length[1]);
}

TEST(ParameterUpdate, NewSetsReplaceTheAvcCOfTheMovie) {
    Handle h(mp4_writer_create());
    mp4_video_track_create(h.m, fourcc("avc1"), 90000, 3600, 0, 320, 240, 77, 40);
    create_moov(h.m);
    AvcC *avcc = avccOf(h.m);
    ASSERT_NE(avcc, nullptr);
    EXPECT_EQ(avcc->AVCProfileIndication, 77); // the creation arguments until an SPS arrives
    EXPECT_EQ(avcc->length[0], 0);

    Bytes s = sps(20), p = pps(5);
    Bytes data = cat({SC4, s, SC4, p, SC4, IDR});
    mp4_set_parameter_data(h.m, data.data(), uint32_t(data.size()));
    EXPECT_EQ(avcc->length[0], 20);
    EXPECT_EQ(avcc->length[1], 5);
    EXPECT_EQ(avccSets(avcc), cat({s, p}));
    EXPECT_EQ(avcc->AVCProfileIndication, 66); // SPS byte 1
    EXPECT_EQ(avcc->AVCLevelIndication, 30);   // SPS byte 3
    EXPECT_EQ(avcc->size, 0u);                 // measured again when written

    // Same lengths: the stored bytes stay (the encoder repeats its sets before each IDR).
    Bytes s_same = sps(20, 0x11), p_same = pps(5, 0x77);
    s_same[1] = 100;
    data = cat({SC4, s_same, SC4, p_same});
    mp4_set_parameter_data(h.m, data.data(), uint32_t(data.size()));
    EXPECT_EQ(avccSets(avcc), cat({s, p}));
    EXPECT_EQ(avcc->AVCProfileIndication, 66);

    // A longer SPS replaces the SPS and moves the stored PPS behind it.
    Bytes s_long = sps(26, 0x31);
    s_long[3] = 31;
    data = cat({SC4, s_long});
    mp4_set_parameter_data(h.m, data.data(), uint32_t(data.size()));
    EXPECT_EQ(avcc->length[0], 26);
    EXPECT_EQ(avcc->length[1], 5);
    EXPECT_EQ(avccSets(avcc), cat({s_long, p}));
    EXPECT_EQ(avcc->AVCLevelIndication, 31);

    // A PPS of another length is replaced.
    Bytes p_long = pps(9, 0x55);
    data = cat({SC4, p_long});
    mp4_set_parameter_data(h.m, data.data(), uint32_t(data.size()));
    EXPECT_EQ(avccSets(avcc), cat({s_long, p_long}));
}

TEST(ParameterUpdate, SetsGivenBeforeTheTreeExistsGoIntoTheNewAvcC) {
    Handle h(mp4_writer_create());
    Bytes s = sps(14), p = pps(4);
    Bytes data = cat({SC4, s, SC4, p});
    mp4_set_parameter_data(h.m, data.data(), uint32_t(data.size()));
    mp4_audio_track_create(h.m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    mp4_video_track_create(h.m, fourcc("avc1"), 90000, 3600, 0, 320, 240, 66, 30);
    data.assign(data.size(), 0); // the handle holds its own copy
    create_moov(h.m);
    // The avcC of the second track is found too.
    Box *trak2 = getChild(h.m->moov, fourcc("trak"))->next;
    Box *avcc = getChild(
        getChild(getChild(getChild(getChild(getChild(trak2, fourcc("mdia")), fourcc("minf")),
                                   fourcc("stbl")),
                          fourcc("stsd")),
                 fourcc("avc1")),
        fourcc("avcC"));
    ASSERT_NE(avcc, nullptr);
    EXPECT_EQ(avccSets(static_cast<AvcC *>(avcc)), cat({s, p}));
}

TEST(ParameterUpdate, VisualHeaderGoesIntoTheEsdsWithConsistentLengths) {
    Handle h(mp4_writer_create());
    mp4_video_track_create(h.m, fourcc("mp4v"), 90000, 3600, 0, 176, 144, 0, 0);
    create_moov(h.m);
    Esds *esds = esdsOf(h.m, fourcc("mp4v"));
    ASSERT_NE(esds, nullptr);
    EXPECT_EQ(esds->es.decConfigDescr.decSpecificInfo.length, 0u);

    Bytes header = visualHeader(40);
    Bytes data = cat({header, {0, 0, 1, 0xB6, 0x10}});
    mp4_set_parameter_data(h.m, data.data(), uint32_t(data.size()));
    const DecoderConfigDescriptor &dcd = esds->es.decConfigDescr;
    EXPECT_EQ(dcd.decSpecificInfo.length, 40u);
    EXPECT_EQ(Bytes(dcd.decSpecificInfo.data, dcd.decSpecificInfo.data + 40), header);
    EXPECT_EQ(dcd.length, 40u + 15);
    EXPECT_EQ(esds->es.length, 40u + 23);
    EXPECT_EQ(esds->size, 40u + 37);

    // Past 104 bytes the descriptor lengths need two bytes; every length counts them.
    Bytes big = visualHeader(120);
    data = cat({big, {0, 0, 1, 0xB6, 0x10}});
    mp4_set_parameter_data(h.m, data.data(), uint32_t(data.size()));
    EXPECT_EQ(dcd.decSpecificInfo.length, 120u);
    EXPECT_EQ(dcd.length, 13u + 2 + 120);               // DSI: tag, 1-byte length, data
    EXPECT_EQ(esds->es.length, 3u + (1 + 2 + 135) + 3); // DCD length needs two bytes
    EXPECT_EQ(esds->size, 12u + 1 + 2 + 144);
}

TEST(ParameterUpdate, LongVisualHeaderEsdsReadsBackWhole) {
    Handle h(mp4_writer_create());
    mp4_video_track_create(h.m, fourcc("mp4v"), 90000, 3600, 0, 176, 144, 0, 0);
    create_moov(h.m);
    Bytes big = visualHeader(120);
    Bytes data = cat({big, {0, 0, 1, 0xB6, 0x10}});
    mp4_set_parameter_data(h.m, data.data(), uint32_t(data.size()));
    Esds *esds = esdsOf(h.m, fourcc("mp4v"));

    // Written to memory and read back by a reader: the descriptors nest as declared.
    Bytes buffer(512);
    mp4_buf_put(h.m, buffer.data(), uint32_t(buffer.size()));
    h.m->handler_type = fourcc("vide");
    ASSERT_NE(rwBox(h.m, esds), nullptr);
    uint32_t written = mp4_buf_get(h.m);
    EXPECT_EQ(written, 12u + 1 + 2 + 144);
    EXPECT_EQ(test_util::be32(buffer.data()), written);

    Handle r(mp4_reader_create());
    mp4_buf_put(r.m, buffer.data(), written);
    Box *back = rwBox(r.m, nullptr);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(mp4_buf_get(r.m), written);
    const Esds *e = static_cast<Esds *>(back);
    EXPECT_EQ(e->es.decConfigDescr.decSpecificInfo.length, 120u);
    EXPECT_EQ(Bytes(e->es.decConfigDescr.decSpecificInfo.data,
                    e->es.decConfigDescr.decSpecificInfo.data + 120),
              big);
    EXPECT_EQ(e->es.slConfigDescr.predefined, 2);
    EXPECT_EQ(e->es.present & 3, 3);
    deleteBox(back);
}

// ---- back out of a movie ---------------------------------------------------------------------

// Records two H.264 frames with the given sets into `path`.
void recordH264(const std::string &path, const Bytes &s, const Bytes &p) {
    mp4_muxer *w = mp4_writer_create();
    mp4_file_name_ascii(w, path.c_str());
    mp4_audio_track_create(w, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    mp4_video_track_create(w, fourcc("avc1"), 90000, 3600, 0, 64, 48, 66, 30);
    Bytes au = cat({SC4, s, SC4, p, SC4, IDR});
    mp4_write_track(w, 2, au.data(), uint32_t(au.size()), 3600);
    Bytes frame = cat({SC4, {0x41, 0x9A, 0x02}});
    mp4_write_track(w, 2, frame.data(), uint32_t(frame.size()), 3600);
    mp4_write_movie(w);
    ASSERT_EQ(mp4_get_error_code(w), 0u);
    mp4_delete(w);
}

TEST(ParameterReadBack, AvcCComesBackInAnnexBForm) {
    test_util::TempDir dir;
    Bytes s = sps(21), p = pps(5);
    recordH264(dir.file("a.mp4"), s, p);
    Handle r(mp4_reader_create());
    mp4_file_name_ascii(r.m, dir.file("a.mp4").c_str());
    ASSERT_EQ(load_moov_and_track(r.m), 0);
    ASSERT_EQ(mp4_get_parameter_size(r.m), 34u);
    Bytes out(64, 0xCC);
    mp4_get_parameter_data(r.m, out.data());
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 34), cat({SC4, s, SC4, p}));
    EXPECT_EQ(out[34], 0xCC); // nothing beyond the size reported
}

TEST(ParameterReadBack, VisualConfigurationComesBackAsStored) {
    Handle r(mp4_reader_create());
    mp4_file_name_ascii(r.m, test_util::dataPath("mp4v.mp4").c_str());
    ASSERT_EQ(load_moov_and_track(r.m), 0);
    uint32_t n = mp4_get_parameter_size(r.m);
    ASSERT_GT(n, 4u);
    ASSERT_LE(n, 128u);
    Bytes out(n);
    mp4_get_parameter_data(r.m, out.data());
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 4), Bytes({0, 0, 1, 0xB0}));
}

TEST(ParameterReadBack, OnlyReadersHandItOutAndAudioIsNeverConsidered) {
    Handle w(mp4_writer_create());
    mp4_audio_track_create(w.m, fourcc("mp4a"), 48000, 1024, 0, 48000, 2);
    create_moov(w.m);
    EXPECT_EQ(mp4_get_parameter_size(w.m), 0u); // an audio-only movie has none

    mp4_video_track_create(w.m, fourcc("avc1"), 90000, 3600, 0, 64, 48, 66, 30);
    Bytes data = cat({SC4, sps(10), SC4, pps(4)});
    mp4_set_parameter_data(w.m, data.data(), uint32_t(data.size()));
    EXPECT_EQ(mp4_get_parameter_size(w.m), 22u); // works on any handle with a tree
    Bytes out(32, 0xCC);
    testing::internal::CaptureStderr();
    mp4_get_parameter_data(w.m, out.data());
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "mp4_get_parameter_data: not a reader muxer\n");
    EXPECT_EQ(out, Bytes(32, 0xCC));

    Handle none(mp4_reader_create());
    EXPECT_EQ(mp4_get_parameter_size(none.m), 0u); // no movie tree
    EXPECT_EQ(mp4_get_parameter_size(nullptr), 0u);
}

TEST(ParameterReadBack, OtherVideoEntriesGiveNothing) {
    Handle w(mp4_writer_create());
    mp4_video_track_create(w.m, fourcc("jpeg"), 90000, 3600, 0, 64, 48, 0, 0);
    create_moov(w.m);
    EXPECT_EQ(mp4_get_parameter_size(w.m), 0u);
}

TEST(ParameterReadBack, MalformedAvcCLengthsStayInsideTheRecord) {
    Handle r(mp4_reader_create());
    // A reader whose tree holds an avcC with lengths beyond its data area.
    r.m->flags &= uint8_t(~MP4_READER);
    mp4_video_track_create(r.m, fourcc("avc1"), 90000, 3600, 0, 64, 48, 66, 30);
    create_moov(r.m);
    r.m->flags |= MP4_READER;
    AvcC *avcc = avccOf(r.m);
    ASSERT_NE(avcc, nullptr);
    avcc->length[0] = 200;
    avcc->length[1] = 300;
    EXPECT_EQ(mp4_get_parameter_size(r.m), 140u); // 132 bytes of room + two start codes
    Bytes out(140);
    mp4_get_parameter_data(r.m, out.data()); // a sanitizer build catches any overrun
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 4), SC4);
}

} // namespace
