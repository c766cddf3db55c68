// Track creation: the track records a writer learns from its caller, the movie tree built from
// them when the first sample arrives (or at once for a track added later), and the file type
// box that opens every file the writer makes.
#include "internal.h"

#include <cstdio>
#include <cstring>

namespace {

const uint32_t identity_matrix[9] = {0x00010000, 0, 0, 0, 0x00010000, 0, 0, 0, 0x40000000};

// Palette of a subtitle track created without one.
const uint32_t default_palette[16] = {0, 0x00F0F0F0, 0x00F0F0F0, 0x00F0F0F0};

template <class T> T *make(const char (&type)[5], uint32_t size) {
    return static_cast<T *>(newBox(fourcc(type), size));
}

template <class T> T *add(Box *parent, T *child) {
    addBox(child, parent);
    return child;
}

// A sample entry node must not carry the code of a box the codec lays out itself: the codec
// would take the entry's record for that box's record.
bool usableEntryType(uint32_t type) {
    return recordSize(type) == sizeof(SampleEntry);
}

// Adds one zero-filled record to the track array and fills the fields every track has.
// Returns the new id, or 0 when the array cannot grow.
uint32_t addTrackRecord(mp4_muxer *m, uint32_t handler, const char *name, uint32_t type,
                        uint32_t timescale, uint32_t default_duration, uint32_t delay,
                        uint32_t width, uint32_t height) {
    if (m->next_track_id == 0 || m->next_track_id == UINT32_MAX)
        return 0;
    void *p = mp4_realloc(m->tracks, size_t(m->next_track_id) * sizeof(mp4_track));
    if (!p) {
        fprintf(stderr, "%s: track realloc failed\n", "mp4_video_track_create");
        m->error = MP4_ERR_NOMEM;
        return 0;
    }
    m->tracks = static_cast<mp4_track *>(p);
    uint32_t id = m->next_track_id++;
    mp4_track *t = &m->tracks[id - 1];
    memset(t, 0, sizeof *t);
    t->handler_type = handler;
    t->handler_name = name;
    t->fourcc = type;
    t->timescale = timescale;
    t->default_duration = default_duration;
    t->delay = delay;
    t->width = width;
    t->height = height;
    return id;
}

Hdlr *makeHdlr(uint32_t handler_type, const char *name) {
    if (!name)
        name = "";
    Hdlr *hdlr = make<Hdlr>("hdlr", uint32_t(33 + strlen(name)));
    hdlr->handler_type = handler_type;
    // The name belongs to the track record (or is a constant), not to the box.
    hdlr->name = const_cast<char *>(name);
    hdlr->node_flags &= uint8_t(~BOX_OWNS_ARRAYS);
    return hdlr;
}

Box *makeDinf(uint32_t entry_type) {
    Box *dinf = make<Box>("dinf", 8);
    Dref *dref = add(dinf, make<Dref>("dref", 16));
    dref->entry_count = 1;
    Url *url = static_cast<Url *>(newBox(entry_type, 12));
    url->flags = 1; // media data in this file
    addBox(url, dref);
    return dinf;
}

void fillDescriptorHeaders(Esds *esds, uint32_t es_length, uint32_t dcd_length) {
    ES_Descriptor &es = esds->es;
    es.tag = 3;
    es.length = es_length;
    es.present = 3;
    es.decConfigDescr.tag = 4;
    es.decConfigDescr.length = dcd_length;
    es.decConfigDescr.present = 1;
    es.decConfigDescr.decSpecificInfo.tag = 5;
    es.slConfigDescr.tag = 6;
    es.slConfigDescr.length = 1;
    es.slConfigDescr.predefined = 2;
}

Esds *makeVisualEsds(const mp4_muxer *m) {
    Esds *esds = make<Esds>("esds", 37);
    fillDescriptorHeaders(esds, 0, 0);
    ES_Descriptor &es = esds->es;
    es.ES_ID = 0;
    es.streamPriority = 31;
    DecoderConfigDescriptor &dcd = es.decConfigDescr;
    dcd.objectTypeIndication = 0x20; // MPEG-4 Visual
    dcd.streamType = 4;
    dcd.upStream = 1;
    dcd.bufferSizeDB = 192000;
    dcd.maxBitrate = 2000000;
    dcd.avgBitrate = 2000000;
    fillVisualEsds(esds, m->sps, m->sps ? m->sps_size : 0);
    return esds;
}

Esds *makeAudioEsds(uint32_t samplerate, uint32_t channels) {
    uint32_t index = 0;
    while (index < 16 && AACfrequencyTable[index] != samplerate) {
        if (AACfrequencyTable[index] == 0) {
            index = 15;
            break;
        }
        index++;
    }
    if (index > 15)
        index = 15;
    Esds *esds = make<Esds>("esds", 40);
    fillDescriptorHeaders(esds, 26, 17);
    ES_Descriptor &es = esds->es;
    es.ES_ID = 1;
    DecoderConfigDescriptor &dcd = es.decConfigDescr;
    dcd.objectTypeIndication = 0x40; // MPEG-4 Audio
    dcd.streamType = 5;
    dcd.bufferSizeDB = 15000;
    dcd.maxBitrate = 1500000;
    dcd.avgBitrate = 0;
    // AudioSpecificConfig: object type 2 (AAC LC), frequency index, channel configuration.
    DecoderSpecificInfo &dsi = dcd.decSpecificInfo;
    dsi.length = 2;
    dsi.data[0] = uint8_t(0x10 | ((index >> 1) & 7));
    dsi.data[1] = uint8_t(((index & 1) << 7) | ((channels << 3) & 0x78));
    es.slConfigDescr.length = 2; // its second byte is left zero
    return esds;
}

Esds *makeSubtitleEsds(const mp4_track *t) {
    Esds *esds = make<Esds>("esds", 101);
    fillDescriptorHeaders(esds, 87, 79);
    DecoderConfigDescriptor &dcd = esds->es.decConfigDescr;
    dcd.objectTypeIndication = 0xE0;
    dcd.streamType = 0x38;
    dcd.upStream = 1;
    dcd.bufferSizeDB = 5454;
    dcd.maxBitrate = 85376;
    dcd.avgBitrate = 4920;
    DecoderSpecificInfo &dsi = dcd.decSpecificInfo;
    dsi.length = 64;
    const uint32_t *palette = t->has_palette ? t->palette : default_palette;
    for (int i = 0; i < 16; i++) {
        dsi.data[4 * i] = uint8_t(palette[i] >> 24);
        dsi.data[4 * i + 1] = uint8_t(palette[i] >> 16);
        dsi.data[4 * i + 2] = uint8_t(palette[i] >> 8);
        dsi.data[4 * i + 3] = uint8_t(palette[i]);
    }
    return esds;
}

AvcC *makeAvcC(const mp4_muxer *m) {
    uint32_t sps = m->sps ? m->sps_size : 0, pps = m->pps ? m->pps_size : 0;
    if (sps > AVCC_DATA_MAX)
        sps = AVCC_DATA_MAX;
    if (pps > AVCC_DATA_MAX - sps)
        pps = AVCC_DATA_MAX - sps;
    AvcC *avcc = make<AvcC>("avcC", 19 + sps + pps);
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

// The initial object descriptor that every avc1 track places right after mvhd.
Iods *makeIods() {
    Iods *iods = make<Iods>("iods", 33);
    InitialObjectDescriptor &iod = iods->iod;
    iod.tag = 0x10;
    iod.length = 19;
    iod.ObjectDescriptorID = 1;
    iod.ODProfileLevelIndication = 0xFF;
    iod.sceneProfileLevelIndication = 0xFF;
    iod.audioProfileLevelIndication = 0x0F;
    iod.visualProfileLevelIndication = 0x03;
    iod.graphicsProfileLevelIndication = 0xFF;
    iod.esDescr.tag = 3;
    iod.esDescr.length = 4;
    return iods;
}

// The sample entry of a video or audio track, with its codec box.
Box *makeSampleEntry(mp4_muxer *m, const mp4_track *t, Mdhd *mdhd) {
    if (t->handler_type == fourcc("vide")) {
        SampleEntry *e = static_cast<SampleEntry *>(newBox(t->fourcc, 86));
        e->data_reference_index = 1;
        e->width = uint16_t(t->width);
        e->height = uint16_t(t->height);
        e->horizresolution = 0x00480000;
        e->vertresolution = 0x00480000;
        e->frame_count = 1;
        memcpy(e->compressorname, compressor_name, sizeof e->compressorname);
        e->depth = 0x0018;
        if (t->fourcc == fourcc("avc1"))
            addBox(makeAvcC(m), e);
        else if (t->fourcc == fourcc("mp4v"))
            addBox(makeVisualEsds(m), e);
        return e;
    }
    SampleEntry *e = static_cast<SampleEntry *>(newBox(t->fourcc, 36));
    e->data_reference_index = 1;
    e->channelcount = uint16_t(t->channels);
    e->samplesize = 16;
    e->samplerate = t->samplerate << 16;
    if (t->fourcc == fourcc("mp4a")) {
        addBox(makeAudioEsds(t->samplerate, t->channels), e);
    } else if (t->fourcc == fourcc("sowt")) {
        // Every PCM frame is one sample: the media runs at the sampling rate.
        mdhd->timescale = t->samplerate;
        e->size = 52;
        e->version = 1;
        e->compressionID = 0xFFFF;
        e->samplesPerPacket = 1;
        e->bytesPerPacket = 2;
        e->bytesPerFrame = 2 * t->channels;
        e->bytesPerSample = 2;
        Chan *chan = make<Chan>("chan", 24);
        chan->ChannelLayoutTag = 0x00650002; // stereo
        addBox(chan, e);
    }
    return e;
}

Box *makeEmptyTables(const mp4_track *t, Box *stbl) {
    add(stbl, make<Stts>("stts", 16));
    if (t->handler_type == fourcc("vide"))
        add(stbl, make<Stss>("stss", 16));
    add(stbl, make<Stsc>("stsc", 16));
    Stsz *stsz = add(stbl, make<Stsz>("stsz", 20));
    if (t->fourcc == fourcc("sowt"))
        stsz->sample_size = 1; // every PCM frame counts as one one-byte sample
    add(stbl, make<Stco>("stco", 16));
    return stbl;
}

// The trak of a subtitle track: a null media header and an mp4s entry carrying the palette.
Box *buildSubtitleTrak(uint32_t id, const mp4_track *t) {
    Box *trak = make<Box>("trak", 8);
    Tkhd *tkhd = add(trak, make<Tkhd>("tkhd", 92));
    tkhd->flags = 7; // enabled, in movie, in preview
    tkhd->track_ID = id;
    memcpy(tkhd->matrix, identity_matrix, sizeof identity_matrix);
    tkhd->width = t->width << 16;
    tkhd->height = t->height << 16;
    Box *mdia = add(trak, make<Box>("mdia", 8));
    Mdhd *mdhd = add(mdia, make<Mdhd>("mdhd", 32));
    mdhd->timescale = t->timescale;
    // "pol", packed as 0x41EC.
    mdhd->language[2] = 'p' - 0x60;
    mdhd->language[1] = 'o' - 0x60;
    mdhd->language[0] = 'l' - 0x60;
    add(mdia, makeHdlr(fourcc("subp"), t->handler_name));
    Box *minf = add(mdia, make<Box>("minf", 8));
    add(minf, make<FullBox>("nmhd", 12));
    add(minf, makeDinf(fourcc("url ")));
    Box *stbl = add(minf, make<Box>("stbl", 8));
    Stsd *stsd = add(stbl, make<Stsd>("stsd", 16));
    stsd->entry_count = 1;
    SampleEntry *entry = add(stsd, static_cast<SampleEntry *>(newBox(fourcc("mp4s"), 16)));
    entry->data_reference_index = 1;
    add(entry, makeSubtitleEsds(t));
    add(stbl, make<Stts>("stts", 16));
    add(stbl, make<Stsc>("stsc", 16));
    add(stbl, make<Stsz>("stsz", 20));
    add(stbl, make<Stco>("stco", 16));
    return trak;
}

// Builds the trak of track `id` and appends it to the movie. False when memory ran out; the
// movie then stays as it was.
bool buildTrack(mp4_muxer *m, uint32_t id) {
    Box *moov = m->moov;
    // A movie written into a reserved region keeps the region's size as tracks are added.
    struct KeepFixedSize {
        Box *moov;
        uint64_t size;
        ~KeepFixedSize() {
            if (!(moov->node_flags & BOX_AUTO_SIZE))
                moov->size = size;
        }
    } keep{moov, moov->size};
    Mvhd *mvhd = static_cast<Mvhd *>(getChild(moov, fourcc("mvhd")));
    if (!mvhd)
        return true;
    mvhd->next_track_ID = m->next_track_id;
    const mp4_track *t = &m->tracks[id - 1];
    if (t->handler_type == fourcc("subp")) {
        addBox(buildSubtitleTrak(id, t), moov);
        return true;
    }
    const bool mov = (m->flags & MP4_MOV) != 0;
    const bool video = t->handler_type == fourcc("vide");
    const bool audio = t->handler_type == fourcc("soun");

    // The only allocation here that can fail: take it before anything is built.
    ElstEntry *edit = nullptr;
    if (t->delay) {
        edit = static_cast<ElstEntry *>(mp4_malloc(sizeof(ElstEntry)));
        if (!edit) {
            m->error = MP4_ERR_NOMEM;
            return false;
        }
        *edit = ElstEntry{t->delay, -1, 1, 0}; // an empty edit: the track starts late
    }

    if (t->fourcc == fourcc("avc1"))
        insertBoxAfter(makeIods(), mvhd);

    Box *trak = make<Box>("trak", 8);
    Tkhd *tkhd = add(trak, make<Tkhd>("tkhd", 92));
    tkhd->flags = video ? 7 : 1;
    tkhd->track_ID = id;
    memcpy(tkhd->matrix, identity_matrix, sizeof identity_matrix);
    tkhd->width = t->width << 16;
    tkhd->height = t->height << 16;
    tkhd->volume = audio ? 0x0100 : 0;
    tkhd->duration = t->delay;

    Box *edts = add(trak, make<Box>("edts", 8));
    Elst *elst = add(edts, make<Elst>("elst", edit ? 28 : 16));
    elst->entry_count = edit ? 1 : 0;
    elst->entries = edit;

    Box *mdia = add(trak, make<Box>("mdia", 8));
    Mdhd *mdhd = add(mdia, make<Mdhd>("mdhd", 32));
    mdhd->timescale = t->timescale;
    add(mdia, makeHdlr(t->handler_type, t->handler_name));
    Box *minf = add(mdia, make<Box>("minf", 8));
    if (video) {
        Vmhd *vmhd = add(minf, make<Vmhd>("vmhd", 20));
        vmhd->flags = 1;
    } else if (audio) {
        Smhd *smhd = add(minf, make<Smhd>("smhd", 16));
        smhd->flags = mov ? 1 : 0;
    }
    if (mov)
        add(minf, makeHdlr(fourcc("alis"), "Alias Data Handler"));
    add(minf, makeDinf(mov ? fourcc("alis") : fourcc("url ")));
    Box *stbl = add(minf, make<Box>("stbl", 8));
    Stsd *stsd = add(stbl, make<Stsd>("stsd", 16));
    stsd->entry_count = 1;
    if (video || audio)
        addBox(makeSampleEntry(m, t, mdhd), stsd);
    makeEmptyTables(t, stbl);
    addBox(trak, moov);
    return true;
}

} // namespace

void create_track(mp4_muxer *m, uint32_t id) {
    if (!m || !m->moov)
        return;
    if (id == 0 || id >= m->next_track_id) {
        fprintf(stderr, "%s: bad track id %d\n", "create_track", int(id));
        return;
    }
    buildTrack(m, id);
}

void create_moov(mp4_muxer *m) {
    if (!m || m->moov)
        return;
    Box *moov = make<Box>("moov", 8);
    Mvhd *mvhd = add(moov, make<Mvhd>("mvhd", 108));
    mvhd->timescale = 90000;
    mvhd->rate = 0x00010000;
    mvhd->volume = 0x0100;
    memcpy(mvhd->matrix, identity_matrix, sizeof identity_matrix);
    mvhd->next_track_ID = m->next_track_id;
    m->moov = moov;
    for (uint32_t id = 1; id < m->next_track_id; id++) {
        if (!buildTrack(m, id)) {
            deleteBox(moov);
            m->moov = nullptr;
            m->error = MP4_ERR_NOMEM;
            return;
        }
    }
}

void write_ftyp(mp4_muxer *m) {
    Ftyp ftyp{};
    ftyp.type = fourcc("ftyp");
    ftyp.size = 24;
    if (m->flags & MP4_MOV) {
        ftyp.major_brand = fourcc("qt  ");
        ftyp.minor_version = 0x20050300;
        ftyp.compatible_brands[0] = fourcc("qt  ");
        ftyp.compatible_brands[1] = 0;
    } else {
        const uint32_t tracks = m->tracks && m->next_track_id > 1 ? m->next_track_id - 1 : 0;
        const bool visual = (tracks >= 1 && m->tracks[0].fourcc == fourcc("mp4v")) ||
                            (tracks >= 2 && m->tracks[1].fourcc == fourcc("mp4v"));
        ftyp.major_brand = fourcc("mp42");
        ftyp.minor_version = 1;
        ftyp.compatible_brands[0] = visual ? fourcc("mp41") : fourcc("isom");
        ftyp.compatible_brands[1] = fourcc("mp42");
    }
    rwBox(m, &ftyp);
}

extern "C" uint32_t mp4_video_track_create(mp4_muxer *m, uint32_t type, uint32_t timescale,
                                           uint32_t default_duration, uint32_t delay,
                                           uint32_t width, uint32_t height, uint32_t avc_profile,
                                           uint32_t avc_level) {
    if (!m)
        return 0;
    if (!usableEntryType(type)) {
        fprintf(stderr, "%s: %c%c%c%c cannot be a sample entry type\n", "mp4_video_track_create",
                char(type >> 24), char(type >> 16), char(type >> 8), char(type));
        return 0;
    }
    uint32_t id = addTrackRecord(m, fourcc("vide"), "Video Handler", type, timescale,
                                 default_duration, delay, width, height);
    if (!id)
        return 0;
    m->avc_profile = avc_profile;
    m->avc_level = avc_level;
    if (m->moov && width && height)
        create_track(m, id);
    return id;
}

extern "C" uint32_t mp4_audio_track_create(mp4_muxer *m, uint32_t type, uint32_t timescale,
                                           uint32_t default_duration, uint32_t delay,
                                           uint32_t samplerate, uint32_t channels) {
    if (!m)
        return 0;
    if (!usableEntryType(type)) {
        fprintf(stderr, "%s: %c%c%c%c cannot be a sample entry type\n", "mp4_audio_track_create",
                char(type >> 24), char(type >> 16), char(type >> 8), char(type));
        return 0;
    }
    uint32_t id = addTrackRecord(m, fourcc("soun"), "Audio Handler", type, timescale,
                                 default_duration, delay, 0, 0);
    if (!id)
        return 0;
    mp4_track *t = &m->tracks[id - 1];
    t->samplerate = samplerate;
    t->channels = channels;
    if (m->moov)
        create_track(m, id);
    return id;
}

extern "C" uint32_t mp4_subtitle_track_create(mp4_muxer *m, uint32_t type, const char *name,
                                              uint32_t timescale, uint32_t default_duration,
                                              uint32_t delay, uint32_t width, uint32_t height,
                                              const uint32_t *palette) {
    if (!m)
        return 0;
    if (is_reader(m)) {
        // A remuxing reader passes the track on to its output.
        if (!m->linked || is_reader(m->linked))
            return 0;
        m = m->linked;
    }
    uint32_t id = addTrackRecord(m, fourcc("subp"), name ? name : "", type, timescale,
                                 default_duration, delay, width, height);
    if (!id)
        return 0;
    mp4_track *t = &m->tracks[id - 1];
    t->samplerate = timescale;
    t->channels = 0;
    if (palette) {
        memcpy(t->palette, palette, sizeof t->palette);
        t->has_palette = 1;
    }
    // Without a movie tree yet, the trak is built with the others when the tree is made.
    if (m->moov)
        create_track(m, id);
    return id;
}
