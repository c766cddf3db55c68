// Fragmented output: the movie fragment header ('moof') that describes the samples queued since
// the previous one, and the movie header written in front of the fragments. Neither is kept in
// memory: every box is a temporary node, written the moment it is linked to its parent, and the
// parents' sizes in the stream are patched as children arrive.
#include "internal.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

const uint32_t identity_matrix[9] = {0x00010000, 0, 0, 0, 0x00010000, 0, 0, 0, 0x40000000};

// A temporary node with a stated size. `fixed` keeps that size on the wire even when the
// contents are shorter (the codec then leaves a gap or pads); otherwise the size is measured.
template <class T> T *make(uint32_t type, uint32_t size, bool fixed = false) {
    T *box = static_cast<T *>(newBox(type, size));
    if (fixed)
        box->node_flags &= uint8_t(~BOX_AUTO_SIZE);
    return box;
}

// Writes `box` as the last child of `parent` and patches the ancestors' sizes in the stream.
// The parent link is set first so that the codec sees where a sample entry lives.
bool put(mp4_muxer *m, Box *box, Box *parent) {
    box->parent = parent;
    if (!rwSubBox(m, box, parent)) {
        box->parent = nullptr;
        deleteBox(box);
        return false;
    }
    return true;
}

// Sampling-frequency index of an AAC rate; 15 (explicit) when the table has no such rate.
uint8_t aac_frequency_index(uint32_t rate) {
    for (uint8_t i = 0; i < 16 && AACfrequencyTable[i]; i++)
        if (AACfrequencyTable[i] == rate)
            return i;
    return 15;
}

void set_sl_predefined(SLConfigDescriptor &sl) {
    sl.tag = 6;
    sl.length = 1;
    sl.predefined = 2;
}

// The AAC configuration of an audio entry. The sampling-frequency index is the track's real
// one: a fixed 48 kHz index would make a decoder play any other rate at the wrong speed.
Esds *aac_esds(const mp4_track &t) {
    auto *esds = make<Esds>(fourcc("esds"), 40, true);
    ES_Descriptor &es = esds->es;
    es.tag = 3;
    es.length = 25;
    es.ES_ID = 1;
    es.present = 3;
    DecoderConfigDescriptor &dc = es.decConfigDescr;
    dc.tag = 4;
    dc.length = 17;
    dc.objectTypeIndication = 0x40;
    dc.streamType = 5;
    dc.upStream = 1;
    dc.bufferSizeDB = 15000;
    dc.maxBitrate = 1500000;
    dc.avgBitrate = 0;
    dc.present = 1;
    uint8_t index = aac_frequency_index(t.samplerate);
    dc.decSpecificInfo.tag = 5;
    dc.decSpecificInfo.length = 2;
    dc.decSpecificInfo.data[0] = uint8_t(0x10 | ((index >> 1) & 7));
    dc.decSpecificInfo.data[1] = uint8_t(((index & 1) << 7) | ((t.channels << 3) & 0x78));
    set_sl_predefined(es.slConfigDescr);
    return esds;
}

// MPEG-4 Visual: the captured configuration header is the decoder specific info. Measured on
// write, so a header long enough to need two-byte descriptor lengths still gets a true size.
Esds *visual_esds(const mp4_muxer *m) {
    uint32_t n = m->sps_size;
    if (n > DSI_DATA_MAX)
        n = DSI_DATA_MAX;
    auto *esds = make<Esds>(fourcc("esds"), n + 37);
    ES_Descriptor &es = esds->es;
    es.tag = 3;
    es.length = n + 23;
    es.streamPriority = 31;
    es.present = 3;
    DecoderConfigDescriptor &dc = es.decConfigDescr;
    dc.tag = 4;
    dc.length = n + 15;
    dc.objectTypeIndication = 0x20;
    dc.streamType = 4;
    dc.upStream = 1;
    dc.bufferSizeDB = 192000;
    dc.maxBitrate = 2000000;
    dc.avgBitrate = 2000000;
    dc.present = 1;
    dc.decSpecificInfo.tag = 5;
    dc.decSpecificInfo.length = n;
    if (n && m->sps)
        memcpy(dc.decSpecificInfo.data, m->sps, n);
    set_sl_predefined(es.slConfigDescr);
    return esds;
}

// A subtitle entry's configuration: the 16-colour palette as decoder specific info.
Esds *subtitle_esds(const mp4_track &t) {
    auto *esds = make<Esds>(fourcc("esds"), 101);
    ES_Descriptor &es = esds->es;
    es.tag = 3;
    es.length = 87;
    es.present = 3;
    DecoderConfigDescriptor &dc = es.decConfigDescr;
    dc.tag = 4;
    dc.length = 79;
    dc.objectTypeIndication = 0xE0;
    dc.streamType = 0x38;
    dc.upStream = 1;
    dc.bufferSizeDB = 5454;
    dc.maxBitrate = 85376;
    dc.avgBitrate = 4920;
    dc.present = 1;
    dc.decSpecificInfo.tag = 5;
    dc.decSpecificInfo.length = 64;
    for (int i = 0; i < 16; i++) {
        uint32_t c = t.has_palette ? t.palette[i] : (i >= 1 && i <= 3 ? 0x00F0F0F0u : 0u);
        for (int b = 0; b < 4; b++)
            dc.decSpecificInfo.data[4 * i + b] = uint8_t(c >> (24 - 8 * b));
    }
    set_sl_predefined(es.slConfigDescr);
    return esds;
}

AvcC *avc_config(const mp4_muxer *m) {
    // The record holds SPS and PPS together in 132 bytes; the capture keeps them within that,
    // and anything beyond is cut here rather than copied past the record.
    uint32_t sps = m->sps ? m->sps_size : 0;
    if (sps > AVCC_DATA_MAX)
        sps = AVCC_DATA_MAX;
    uint32_t pps = m->pps ? m->pps_size : 0;
    if (pps > AVCC_DATA_MAX - sps)
        pps = AVCC_DATA_MAX - sps;
    auto *avcc = make<AvcC>(fourcc("avcC"), sps + pps + 19);
    avcc->configurationVersion = 1;
    avcc->AVCProfileIndication = uint8_t(m->avc_profile);
    avcc->profile_compatibility = 0;
    avcc->AVCLevelIndication = uint8_t(m->avc_level);
    avcc->lengthSizeMinusOne = 3;
    avcc->numOfSequenceParameterSets = 1;
    avcc->numOfPictureParameterSets = 1;
    avcc->length[0] = uint16_t(sps);
    avcc->length[1] = uint16_t(pps);
    if (sps)
        memcpy(avcc->data, m->sps, sps);
    if (pps)
        memcpy(avcc->data + sps, m->pps, pps);
    return avcc;
}

// The sample description of one track. Video and audio get their codec entry; a subtitle
// track gets the plain 'mp4s' entry with its palette, as in the plain writer's movie; any other
// handler gets an stsd that honestly lists no entry.
bool write_stsd(mp4_muxer *m, const mp4_track &t, Box *stbl) {
    auto *stsd = make<Stsd>(fourcc("stsd"), 16);
    bool video = t.handler_type == fourcc("vide");
    bool audio = t.handler_type == fourcc("soun");
    bool subtitle = t.handler_type == fourcc("subp");
    stsd->entry_count = (video || audio || subtitle) ? 1 : 0;
    if (!put(m, stsd, stbl))
        return false;
    if (video) {
        auto *entry = make<SampleEntry>(t.fourcc, 86);
        entry->data_reference_index = 1;
        entry->width = uint16_t(t.width);
        entry->height = uint16_t(t.height);
        entry->horizresolution = 0x00480000;
        entry->vertresolution = 0x00480000;
        entry->frame_count = 1;
        memcpy(entry->compressorname, compressor_name, sizeof entry->compressorname);
        entry->depth = 0x0018;
        if (!put(m, entry, stsd))
            return false;
        if (t.fourcc == fourcc("avc1"))
            return put(m, avc_config(m), entry);
        if (t.fourcc == fourcc("mp4v"))
            return put(m, visual_esds(m), entry);
        return true;
    }
    if (audio) {
        auto *entry = make<SampleEntry>(t.fourcc, 36);
        entry->data_reference_index = 1;
        entry->channelcount = uint16_t(t.channels);
        entry->samplesize = 16;
        entry->samplerate = t.samplerate << 16;
        return put(m, entry, stsd) && put(m, aac_esds(t), entry);
    }
    if (subtitle) {
        auto *entry = make<SampleEntry>(fourcc("mp4s"), 16);
        entry->data_reference_index = 1;
        return put(m, entry, stsd) && put(m, subtitle_esds(t), entry);
    }
    return true;
}

bool write_trak(mp4_muxer *m, uint32_t id, const mp4_track &t, Box *moov) {
    bool video = t.handler_type == fourcc("vide");
    Box *trak = make<Box>(fourcc("trak"), 8);
    if (!put(m, trak, moov))
        return false;

    auto *tkhd = make<Tkhd>(fourcc("tkhd"), 92);
    tkhd->flags = 7;
    tkhd->track_ID = id;
    tkhd->duration = t.delay;
    memcpy(tkhd->matrix, identity_matrix, sizeof identity_matrix);
    tkhd->width = t.width << 16;
    tkhd->height = t.height << 16;
    tkhd->volume = t.handler_type == fourcc("soun") ? 0x0100 : 0;
    if (!put(m, tkhd, trak))
        return false;

    if (t.delay) {
        Box *edts = make<Box>(fourcc("edts"), 8);
        if (!put(m, edts, trak))
            return false;
        ElstEntry empty_edit = {t.delay, -1, 1, 0};
        auto *elst = make<Elst>(fourcc("elst"), 28);
        elst->node_flags &= uint8_t(~BOX_OWNS_ARRAYS); // the entry lives on this stack frame
        elst->entry_count = 1;
        elst->entries = &empty_edit;
        if (!put(m, elst, edts))
            return false;
        elst->entries = nullptr; // written; no pointer to this frame outlives it
    }

    Box *mdia = make<Box>(fourcc("mdia"), 8);
    if (!put(m, mdia, trak))
        return false;
    auto *mdhd = make<Mdhd>(fourcc("mdhd"), 32);
    mdhd->timescale = t.timescale;
    mdhd->language[2] = 'u' - 0x60; // und: 0x55C4 on disk
    mdhd->language[1] = 'n' - 0x60;
    mdhd->language[0] = 'd' - 0x60;
    if (!put(m, mdhd, mdia))
        return false;

    // 48 bytes hold a name of up to 15 characters; a longer one makes the box grow to carry it
    // whole, as the plain writer's header does, rather than reach players cut short.
    const char *name = t.handler_name ? t.handler_name : "";
    size_t name_len = strnlen(name, 0xFFFF);
    uint32_t hdlr_size = name_len <= 15 ? 48 : uint32_t(33 + name_len);
    auto *hdlr = make<Hdlr>(fourcc("hdlr"), hdlr_size, true);
    hdlr->node_flags &= uint8_t(~BOX_OWNS_ARRAYS); // the name belongs to the track record
    hdlr->handler_type = t.handler_type;
    hdlr->name = const_cast<char *>(name);
    if (!put(m, hdlr, mdia))
        return false;

    Box *minf = make<Box>(fourcc("minf"), 8);
    if (!put(m, minf, mdia))
        return false;
    if (video) {
        auto *vmhd = make<Vmhd>(fourcc("vmhd"), 20);
        vmhd->flags = 1;
        if (!put(m, vmhd, minf))
            return false;
    } else {
        auto *smhd = make<Smhd>(fourcc("smhd"), 16);
        smhd->flags = 1;
        if (!put(m, smhd, minf))
            return false;
    }
    Box *dinf = make<Box>(fourcc("dinf"), 8);
    if (!put(m, dinf, minf))
        return false;
    auto *dref = make<Dref>(fourcc("dref"), 16);
    dref->entry_count = 1;
    if (!put(m, dref, dinf))
        return false;
    auto *url = make<Url>(fourcc("url "), 12, true);
    url->flags = 1;
    if (!put(m, url, dref))
        return false;

    Box *stbl = make<Box>(fourcc("stbl"), 8);
    if (!put(m, stbl, minf) || !write_stsd(m, t, stbl))
        return false;
    if (!put(m, make<Stts>(fourcc("stts"), 16), stbl))
        return false;
    if (video && !put(m, make<Stss>(fourcc("stss"), 16), stbl))
        return false;
    return put(m, make<Stsc>(fourcc("stsc"), 16), stbl) &&
           put(m, make<Stsz>(fourcc("stsz"), 20), stbl) &&
           put(m, make<Stco>(fourcc("stco"), 16), stbl);
}

uint32_t track_count(const mp4_muxer *m) {
    return (m->tracks && m->next_track_id > 0) ? m->next_track_id - 1 : 0;
}

void write_moov_boxes(mp4_muxer *m, Box *moov) {
    uint32_t tracks = track_count(m);
    auto *mvhd = make<Mvhd>(fourcc("mvhd"), 108);
    mvhd->timescale = 90000;
    mvhd->rate = 0x00010000;
    mvhd->volume = 0x0100;
    memcpy(mvhd->matrix, identity_matrix, sizeof identity_matrix);
    mvhd->next_track_ID = m->next_track_id;
    if (!put(m, mvhd, moov))
        return;

    if ((tracks >= 1 && m->tracks[0].fourcc == fourcc("avc1")) ||
        (tracks >= 2 && m->tracks[1].fourcc == fourcc("avc1"))) {
        auto *iods = make<Iods>(fourcc("iods"), 21);
        InitialObjectDescriptor &iod = iods->iod;
        iod.tag = 0x10;
        iod.length = 7;
        iod.ObjectDescriptorID = 1;
        iod.ODProfileLevelIndication = 0xFF;
        iod.sceneProfileLevelIndication = 0xFF;
        iod.audioProfileLevelIndication = 0x29;
        iod.visualProfileLevelIndication = 0x15;
        iod.graphicsProfileLevelIndication = 0xFF;
        if (!put(m, iods, moov))
            return;
    }

    Box *mvex = make<Box>(fourcc("mvex"), 8);
    if (!put(m, mvex, moov))
        return;
    for (uint32_t id = 1; id <= tracks; id++) {
        auto *trex = make<Trex>(fourcc("trex"), 32);
        trex->track_ID = id;
        trex->default_sample_description_index = 1;
        trex->default_sample_duration = m->tracks[id - 1].default_duration;
        if (!put(m, trex, mvex))
            return;
    }

    for (uint32_t id = 1; id <= tracks; id++)
        if (!write_trak(m, id, m->tracks[id - 1], moov))
            return;
}

} // namespace

void write_fragmented_moov(mp4_muxer *m) {
    if (!m)
        return;
    if (is_reader(m)) {
        // Every field primitive would read on this handle.
        fprintf(stderr, "%s: not a writer muxer\n", "write_fragmented_moov");
        return;
    }
    Box *moov = make<Box>(fourcc("moov"), 8);
    if (!rwBox(m, moov)) {
        deleteBox(moov);
        return;
    }
    write_moov_boxes(m, moov);
    deleteBox(moov); // nothing of the header is kept
}

// ---- movie fragment header -------------------------------------------------------------------

namespace {

// The data offset of a trun is a signed 32-bit distance from its traf's base; a sample farther
// away than that needs a traf of its own.
bool fits_data_offset(uint64_t offset, uint64_t base) {
    if (offset >= base)
        return offset - base <= uint64_t(INT32_MAX);
    return base - offset <= uint64_t(INT32_MAX) + 1;
}

struct FragmentWriter {
    mp4_muxer *m;
    Box *moof;
    uint64_t moof_pos;
    Trun *trun; // one node, rewritten for every sample

    // Opens a traf for `track_id` whose base is `base`; null when it could not be written.
    Box *open_traf(uint32_t track_id, uint64_t base) {
        Box *traf = make<Box>(fourcc("traf"), 8);
        if (!put(m, traf, moof))
            return nullptr;
        auto *tfhd = make<Tfhd>(fourcc("tfhd"), 24);
        tfhd->flags = 0x000001; // base-data-offset-present
        tfhd->track_ID = track_id;
        tfhd->base_data_offset = base;
        if (!put(m, tfhd, traf))
            return nullptr;
        return traf;
    }

    // Writes one trun for one sample. The trun is not linked into the tree (one node serves
    // every sample, and a fragment may hold many), so its size is added to the traf and the moof
    // here and patched in the stream when the traf is complete.
    void write_trun(Box *traf, const mp4_sample &s, uint64_t base, uint32_t default_duration) {
        int32_t data_offset = int32_t(int64_t(s.offset) - int64_t(base));
        TrunSample row = {};
        row.sample_duration = s.duration;
        row.sample_size = s.size;
        trun->flags = 0x000200;
        uint32_t size = 8 + 4 + 4 + 4;
        if (data_offset != 0) {
            trun->flags |= 0x000001;
            size += 4;
        }
        if (s.duration != default_duration) {
            trun->flags |= 0x000100;
            size += 4;
        }
        trun->version = 0;
        trun->size = size;
        trun->sample_count = 1;
        trun->data_offset = data_offset;
        trun->samples = &row;
        trun->parent = traf;
        if (moof_pos < s.offset)
            printf("danger! mux offset %lu is invalid, pos=%lu\n", (unsigned long)s.offset,
                   (unsigned long)moof_pos);
        if (rwBox(m, trun)) {
            traf->size += trun->size;
            moof->size += trun->size;
        }
        trun->samples = nullptr;
        trun->parent = nullptr;
    }

    void write_track(uint32_t id, mp4_track &t) {
        Box *traf = nullptr;
        uint64_t base = 0;
        for (uint32_t i = 0; i < t.sample_count; i++) {
            const mp4_sample &s = t.samples[i];
            if (!traf || !fits_data_offset(s.offset, base)) {
                if (traf)
                    close_traf(traf);
                base = s.offset;
                traf = open_traf(id, base);
                if (!traf)
                    return;
            }
            write_trun(traf, s, base, t.default_duration);
        }
        if (traf)
            close_traf(traf);
    }

    void close_traf(Box *traf) {
        updateBoxSize(m, traf);
        updateBoxSize(m, moof);
    }
};

} // namespace

extern "C" void mp4_write_frag_header(mp4_muxer *m) {
    if (!m)
        return;
    if (is_reader(m)) {
        fprintf(stderr, "%s: not a writer muxer\n", "mp4_write_frag_header");
        return;
    }
    Box *moof = make<Box>(fourcc("moof"), 8);
    auto *mfhd = make<Mfhd>(fourcc("mfhd"), 16);
    m->frag_sequence++;
    mfhd->sequence_number = m->frag_sequence;

    FragmentWriter w = {m, moof, muxer_pos(m), nullptr};
    if (!rwBox(m, moof)) {
        deleteBox(mfhd);
        deleteBox(moof);
        return;
    }
    if (put(m, mfhd, moof)) {
        w.trun = make<Trun>(fourcc("trun"), 20);
        w.trun->node_flags &= uint8_t(~BOX_OWNS_ARRAYS); // its one row lives on the stack
        uint32_t tracks = track_count(m);
        for (uint32_t id = 1; id <= tracks; id++) {
            mp4_track &t = m->tracks[id - 1];
            if (t.sample_count == 0 || !t.samples)
                continue;
            w.write_track(id, t);
            t.sample_count = 0; // the queue array stays for the next fragment
        }
        deleteBox(w.trun);
    }
    deleteBox(moof);
}
