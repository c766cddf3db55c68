// Codec parameter data: the H.264 SPS/PPS or the MPEG-4 Visual configuration header taken from
// an encoder's output into the handle (copied, so the caller's buffer may go away), moved into
// the avcC / esds of the movie tree, and handed back from a loaded movie.
#include "internal.h"

#include <cstdio>
#include <cstring>
#include <initializer_list>

namespace {

// Length of the start code at p (4 or 3), or 0. Never reads at or beyond end.
unsigned startCodeAt(const uint8_t *p, const uint8_t *end) {
    if (end - p >= 4 && p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 1)
        return 4;
    if (end - p >= 3 && p[0] == 0 && p[1] == 0 && p[2] == 1)
        return 3;
    return 0;
}

// The first child of `box` of type `type`, walking a slash-separated path of four-character
// codes ("mdia/minf/stbl/stsd").
Box *findPath(Box *box, const char *path) {
    while (box && *path) {
        uint32_t type = 0;
        for (int i = 0; i < 4; i++) {
            if (!path[i])
                return nullptr;
            type = (type << 8) | uint8_t(path[i]);
        }
        box = getChild(box, type);
        path += 4;
        if (*path == '/')
            path++;
    }
    return box;
}

// The codec box `child` of the `entry` sample entry of a trak (or of the box after the first
// trak, the second track of a two-track movie, as the recorder builds them).
Box *findCodecBox(Box *moov, uint32_t entry, uint32_t child) {
    Box *trak = getChild(moov, fourcc("trak"));
    if (!trak)
        return nullptr;
    for (Box *t : {trak, trak->next}) {
        Box *stsd = findPath(t, "mdia/minf/stbl/stsd");
        if (Box *found = getChild(getChild(stsd, entry), child))
            return found;
    }
    return nullptr;
}

// Bytes an expandable descriptor length takes for `length`.
uint32_t lengthFieldBytes(uint32_t length) {
    uint32_t n = 1;
    while (n < 4 && length >= (1u << (7 * n)))
        n++;
    return n;
}

// Scans one parameter set that starts at p (its NAL header byte). Returns the position where
// the scan stopped and stores the set's length in *size (0 after an overflow). `other` is the
// length of the other set, which shares the avcC's room with this one.
const uint8_t *scanSet(const uint8_t *p, const uint8_t *end, uint16_t other, uint16_t *size,
                       const char *overflow_message) {
    const uint8_t *set = p;
    uint32_t n = 0;
    while (!startCodeAt(p, end)) {
        p++;
        if (end <= p + 3) {
            // The set runs to the end of the data.
            n = uint32_t(end - set);
            if (n + other > MP4_PARAM_MAX)
                n = 0; // cannot happen after the checks below, but keep the room's bound
            *size = uint16_t(n);
            return end;
        }
        n++;
        if (n + other > 128) {
            fputs(overflow_message, stderr);
            *size = 0;
            // Go on from the next start code.
            while (p < end && !startCodeAt(p, end))
                p++;
            return p;
        }
    }
    *size = uint16_t(n);
    return p;
}

} // namespace

// Fills the esds of an mp4v entry around a decoder configuration of `size` bytes. The
// descriptor lengths are computed with the real width of every length field, so a header of
// more than 104 bytes still gives consistent descriptors.
void fillVisualEsds(Esds *esds, const uint8_t *config, uint32_t size) {
    if (size > DSI_DATA_MAX)
        size = DSI_DATA_MAX;
    ES_Descriptor &es = esds->es;
    DecoderConfigDescriptor &dcd = es.decConfigDescr;
    DecoderSpecificInfo &dsi = dcd.decSpecificInfo;
    dsi.tag = 5;
    dsi.length = size;
    if (size && config)
        memmove(dsi.data, config, size);
    uint32_t dsi_total = 1 + lengthFieldBytes(size) + size;
    dcd.tag = 4;
    dcd.length = 13 + dsi_total;
    dcd.present |= 1;
    uint32_t dcd_total = 1 + lengthFieldBytes(dcd.length) + dcd.length;
    es.tag = 3;
    es.length = 3 + dcd_total + 3; // ES_ID and flags, the decoder config, the SL descriptor
    es.present |= 3;
    esds->size = 12 + 1 + lengthFieldBytes(es.length) + es.length;
}

extern "C" void mp4_set_parameter_data(mp4_muxer *m, const uint8_t *data, uint32_t length) {
    if (!m)
        return;
    if (!data)
        length = 0;
    if (length >= 4 && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1) {
        const uint8_t *end = data + length;
        const uint8_t *p = data;
        uint16_t sps_size = m->sps_size, pps_size = m->pps_size;
        const uint8_t *sps = nullptr, *pps = nullptr;
        for (;;) {
            // Step over the start code; the sets may be separated by 3- or 4-byte ones.
            unsigned sc = startCodeAt(p, end);
            p += sc ? sc : 4;
            if (p >= end)
                break;
            uint8_t t = *p;
            if ((t & 0x1F) == 7) {
                sps = p;
                p = scanSet(p, end, pps_size, &sps_size, "sequenceParameterDataLength overflow\n");
                if (!sps_size)
                    sps = nullptr;
                // Record the result now: an overflow empties the stored set as well.
                if (sps)
                    memmove(m->sps_store, sps, sps_size);
                m->sps = m->sps_store;
                m->sps_size = sps_size;
            } else if ((t & 0x9F) == 8) {
                pps = p;
                p = scanSet(p, end, sps_size, &pps_size, "pictureParameterDataLength overflow\n");
                if (!pps_size)
                    pps = nullptr;
                if (pps)
                    memmove(m->pps_store, pps, pps_size);
                m->pps = m->pps_store;
                m->pps_size = pps_size;
            } else if ((t & 0x9F) == 1 || (t & 0x9F) == 5) {
                break; // picture data: no parameter set follows
            } else {
                while (p < end && !startCodeAt(p, end))
                    p++;
            }
            if (!(end > p + 4))
                break;
        }
        update_moov_parameter_data(m);
        return;
    }
    if (length >= 4 && data[0] == 0 && data[1] == 0 && data[2] == 1 && data[3] == 0xB0) {
        // MPEG-4 Visual: everything up to the first video object plane, at most 128 bytes.
        const uint8_t *end = data + length;
        const uint8_t *p = data;
        uint32_t n = 0;
        while (p < end && n <= 127) {
            if (end - p >= 4 && p[0] == 0 && p[1] == 0 && p[2] == 1 && p[3] == 0xB6)
                break;
            p++;
            n++;
        }
        memmove(m->sps_store, data, n);
        m->sps = m->sps_store;
        m->sps_size = uint16_t(n);
        update_moov_parameter_data(m);
        return;
    }
    // Show what there is of the first eight bytes.
    printf("%s: no sync marker:", "mp4_set_parameter_data");
    for (uint32_t i = 0; i < length && i < 8; i++)
        printf(" %02x", data[i]);
    printf("\n");
}

void update_moov_parameter_data(mp4_muxer *m) {
    if (!m || !m->moov)
        return;
    if (Box *box = findCodecBox(m->moov, fourcc("avc1"), fourcc("avcC"))) {
        AvcC *avcc = static_cast<AvcC *>(box);
        if (avcc->alloc_size < sizeof(AvcC))
            return; // a node the codec could not decode holds no record
        uint32_t sps_size = m->sps_size, pps_size = m->pps_size;
        if (sps_size > AVCC_DATA_MAX)
            sps_size = AVCC_DATA_MAX;
        if (pps_size > AVCC_DATA_MAX - sps_size)
            pps_size = AVCC_DATA_MAX - sps_size;
        if (avcc->length[0] != sps_size) {
            uint32_t old_sps = avcc->length[0];
            if (old_sps > AVCC_DATA_MAX)
                old_sps = AVCC_DATA_MAX;
            uint32_t old_pps = avcc->length[1];
            if (old_pps > AVCC_DATA_MAX - old_sps)
                old_pps = AVCC_DATA_MAX - old_sps;
            if (old_pps > AVCC_DATA_MAX - sps_size)
                old_pps = AVCC_DATA_MAX - sps_size;
            memmove(avcc->data + sps_size, avcc->data + old_sps, old_pps);
            if (sps_size)
                memcpy(avcc->data, m->sps, sps_size);
            avcc->length[0] = uint16_t(sps_size);
            avcc->length[1] = uint16_t(old_pps);
            if (sps_size > 1)
                avcc->AVCProfileIndication = m->sps[1];
            if (sps_size > 3)
                avcc->AVCLevelIndication = m->sps[3];
        }
        if (avcc->length[1] != pps_size) {
            if (pps_size)
                memcpy(avcc->data + sps_size, m->pps, pps_size);
            avcc->length[1] = uint16_t(pps_size);
        }
        // Measured again when next written.
        avcc->size = 0;
        return;
    }
    if (Box *box = findCodecBox(m->moov, fourcc("mp4v"), fourcc("esds"))) {
        Esds *esds = static_cast<Esds *>(box);
        if (esds->alloc_size < sizeof(Esds))
            return;
        if (m->sps_size > DSI_DATA_MAX)
            m->sps_size = DSI_DATA_MAX;
        fillVisualEsds(esds, m->sps, m->sps_size);
    }
}

// The parameter data of the first video track that has any: the esds of an mp4v entry or the
// avcC of an avc1 entry. Audio entries are never looked at.
static Box *findParameterBox(mp4_muxer *m) {
    if (!m->moov)
        return nullptr;
    for (Box *b = getChild(m->moov, fourcc("trak")); b; b = b->next) {
        Box *stsd = findPath(b, "mdia/minf/stbl/stsd");
        if (!stsd)
            continue;
        Box *esds = getChild(getChild(stsd, fourcc("mp4v")), fourcc("esds"));
        if (esds && esds->alloc_size >= sizeof(Esds))
            return esds;
        Box *avcc = getChild(getChild(stsd, fourcc("avc1")), fourcc("avcC"));
        if (avcc && avcc->alloc_size >= sizeof(AvcC))
            return avcc;
    }
    return nullptr;
}

// The SPS and PPS lengths of an avcC, bounded by its data area.
static void avccLengths(const AvcC *avcc, uint32_t *sps, uint32_t *pps) {
    const uint32_t room = AVCC_DATA_MAX;
    *sps = avcc->length[0] > room ? room : avcc->length[0];
    *pps = avcc->length[1] > room - *sps ? room - *sps : avcc->length[1];
}

static uint32_t dsiLength(const Esds *esds) {
    uint32_t n = esds->es.decConfigDescr.decSpecificInfo.length;
    const uint32_t held = DSI_DATA_MAX;
    return n > held ? held : n; // only that much is held
}

extern "C" uint32_t mp4_get_parameter_size(mp4_muxer *m) {
    if (!m)
        return 0;
    Box *box = findParameterBox(m);
    if (!box)
        return 0;
    if (box->type == fourcc("esds"))
        return dsiLength(static_cast<Esds *>(box));
    uint32_t sps, pps;
    avccLengths(static_cast<AvcC *>(box), &sps, &pps);
    return sps + pps + 8;
}

extern "C" void mp4_get_parameter_data(mp4_muxer *m, uint8_t *buffer) {
    if (!m || !buffer)
        return;
    if (!is_reader(m)) {
        fprintf(stderr, "%s: not a reader muxer\n", "mp4_get_parameter_data");
        return;
    }
    Box *box = findParameterBox(m);
    if (!box)
        return;
    if (box->type == fourcc("esds")) {
        const Esds *esds = static_cast<Esds *>(box);
        memcpy(buffer, esds->es.decConfigDescr.decSpecificInfo.data, dsiLength(esds));
        return;
    }
    const AvcC *avcc = static_cast<AvcC *>(box);
    uint32_t sps, pps;
    avccLengths(avcc, &sps, &pps);
    static const uint8_t start_code[4] = {0, 0, 0, 1};
    memcpy(buffer, start_code, 4);
    memcpy(buffer + 4, avcc->data, sps);
    memcpy(buffer + 4 + sps, start_code, 4);
    memcpy(buffer + 8 + sps, avcc->data + sps, pps);
}
