// Sample descriptions: the stsd box, the sample entries inside it (laid out by the track's
// handler type, not by the entry's own code) and the codec boxes that hang under an entry.
#include "box/layouts.h"

#include <cstdio>
#include <cstring>

namespace {

inline bool isWriter(mp4_muxer *m) {
    return !is_reader(m);
}

// Moves forward to `target` without touching the bytes in between. Reading skips them; writing
// leaves them as the stream holds them (zeros when the seek extends a fresh stream).
void skipTo(mp4_muxer *m, uint64_t target) {
    if (target > muxer_pos(m))
        muxer_seek(m, target);
}

// The six reserved bytes and data_reference_index that open every sample entry.
void codeEntryHeader(mp4_muxer *m, SampleEntry *e) {
    reserved(m, 32);
    reserved(m, 16);
    rw16(m, &e->data_reference_index);
}

// The in-memory name is either already in the stored form (a length byte, then at most 31
// characters, zero padded: what a file holds, or all zeros) or the writer's NUL-padded name.
// A first byte that is a control character can only be a length.
void compressorNameForWriting(const uint8_t in[32], uint8_t out[32]) {
    if (in[0] < 32) {
        memcpy(out, in, 32);
        return;
    }
    size_t len = 0;
    while (len < 31 && in[len])
        len++;
    memset(out, 0, 32);
    out[0] = uint8_t(len);
    memcpy(out + 1, in, len);
}

void codeVisualEntry(mp4_muxer *m, SampleEntry *e) {
    codeEntryHeader(m, e);
    pre_defined(m, 16, 0);
    reserved(m, 16);
    pre_defined(m, 32, 0);
    pre_defined(m, 32, 0);
    pre_defined(m, 32, 0);
    rw16(m, &e->width);
    rw16(m, &e->height);
    rw32(m, &e->horizresolution);
    rw32(m, &e->vertresolution);
    reserved(m, 32);
    rw16(m, &e->frame_count);
    if (is_reader(m)) {
        read_n(m, e->compressorname, 32);
    } else {
        uint8_t name[32];
        compressorNameForWriting(e->compressorname, name);
        write_n(m, name, 32);
    }
    rw16(m, &e->depth);
    pre_defined(m, 16, 0xFFFF);
}

void codeAudioEntry(mp4_muxer *m, SampleEntry *e) {
    codeEntryHeader(m, e);
    rw16(m, &e->version);
    reserved(m, 16); // revision level
    reserved(m, 32); // vendor
    rw16(m, &e->channelcount);
    rw16(m, &e->samplesize);
    rw16(m, &e->compressionID);
    reserved(m, 16); // packet size
    rw32(m, &e->samplerate);
    // Only version 1 carries the four packet fields; 0 and 2 share the short layout.
    if (e->version == 1) {
        rw32(m, &e->samplesPerPacket);
        rw32(m, &e->bytesPerPacket);
        rw32(m, &e->bytesPerFrame);
        rw32(m, &e->bytesPerSample);
    }
}

SampleEntry *extendEntry(Box **box) {
    return static_cast<SampleEntry *>(extendBox(box, sizeof(SampleEntry)));
}

// Reads one parameter-set length and its bytes; the set is kept in `slot` when the slot is
// still empty and its bytes fit both the data area after `used` bytes and the box. Returns
// false when the set reaches beyond the box: the rest of the list cannot be trusted.
bool readParameterSet(mp4_muxer *m, AvcC *c, int slot, bool *kept, uint32_t used, uint64_t end) {
    uint16_t len = 0;
    rw16(m, &len);
    if (at_end_of_input(m))
        return false;
    uint64_t pos = muxer_pos(m);
    if (end && pos + len > end)
        return false;
    if (!*kept && used + len <= AVCC_DATA_MAX) {
        read_n(m, c->data + used, len);
        c->length[slot] = len;
        *kept = true;
    } else {
        muxer_seek(m, pos + len);
    }
    return true;
}

} // namespace

bool codeStsd(mp4_muxer *m, Box **box, uint64_t) {
    auto *b = static_cast<Stsd *>(extendBox(box, sizeof(Stsd)));
    if (!b)
        return false;
    rwFullBox(m, b);
    rw32(m, &b->entry_count);
    return true;
}

bool codeSampleEntry(mp4_muxer *m, Box **box, uint64_t, bool *decoded) {
    *decoded = true;
    switch (m->handler_type) {
    case fourcc("vide"): {
        SampleEntry *e = extendEntry(box);
        if (!e)
            return false;
        codeVisualEntry(m, e);
        return true;
    }
    case fourcc("soun"): {
        SampleEntry *e = extendEntry(box);
        if (!e)
            return false;
        codeAudioEntry(m, e);
        return true;
    }
    case fourcc("hint"):
    case fourcc("subp"):
    case fourcc("meta"): {
        SampleEntry *e = extendEntry(box);
        if (!e)
            return false;
        codeEntryHeader(m, e);
        return true;
    }
    default:
        fprintf(stderr, "%s: handler type not set\n", "rwBox");
        *decoded = false;
        return true;
    }
}

bool codePlainSampleEntry(mp4_muxer *m, Box **box, uint64_t) {
    SampleEntry *e = extendEntry(box);
    if (!e)
        return false;
    codeEntryHeader(m, e);
    return true;
}

// The record has two length slots and 132 data bytes: the first SPS and the first PPS that fit
// are kept (SPS in slot 0, PPS in slot 1 right behind it), further or oversized sets are passed
// over, and the counts say what the record holds, so that writing it back gives a valid box.
bool codeAvcC(mp4_muxer *m, Box **box, uint64_t start) {
    auto *c = static_cast<AvcC *>(extendBox(box, sizeof(AvcC)));
    if (!c)
        return false;
    rw8(m, &c->configurationVersion);
    rw8(m, &c->AVCProfileIndication);
    rw8(m, &c->profile_compatibility);
    rw8(m, &c->AVCLevelIndication);
    uint64_t end = c->size ? start + c->size : 0;

    if (is_reader(m)) {
        uint8_t b = 0;
        rw8(m, &b);
        c->lengthSizeMinusOne = b & 3;
        rw8(m, &b);
        uint8_t sps_count = b & 0x1F;
        c->length[0] = c->length[1] = 0;
        bool sps_kept = false, pps_kept = false, whole = true;
        for (uint8_t i = 0; i < sps_count && whole; i++)
            whole = readParameterSet(m, c, 0, &sps_kept, 0, end);
        uint8_t pps_count = 0;
        if (whole) {
            rw8(m, &pps_count);
            for (uint8_t i = 0; i < pps_count && whole; i++)
                whole = readParameterSet(m, c, 1, &pps_kept, c->length[0], end);
        }
        c->numOfSequenceParameterSets = sps_kept ? 1 : 0;
        c->numOfPictureParameterSets = pps_kept ? 1 : 0;
        if (end)
            muxer_seek(m, end);
        return true;
    }

    // Writing: never more than the record holds, and never beyond its data area.
    if (c->numOfSequenceParameterSets > 1)
        c->numOfSequenceParameterSets = 1;
    if (c->numOfPictureParameterSets > 1)
        c->numOfPictureParameterSets = 1;
    if (!c->numOfSequenceParameterSets || c->length[0] > AVCC_DATA_MAX) {
        c->numOfSequenceParameterSets = 0;
        c->length[0] = 0;
    }
    if (!c->numOfPictureParameterSets || c->length[1] > AVCC_DATA_MAX - c->length[0]) {
        c->numOfPictureParameterSets = 0;
        c->length[1] = 0;
    }
    uint8_t b = uint8_t(0xFC | (c->lengthSizeMinusOne & 3));
    rw8(m, &b);
    b = uint8_t(0xE0 | c->numOfSequenceParameterSets);
    rw8(m, &b);
    if (c->numOfSequenceParameterSets) {
        rw16(m, &c->length[0]);
        write_n(m, c->data, c->length[0]);
    }
    rw8(m, &c->numOfPictureParameterSets);
    if (c->numOfPictureParameterSets) {
        rw16(m, &c->length[1]);
        write_n(m, c->data + c->length[0], c->length[1]);
    }
    // A node read from a file keeps its declared extent (bytes after the sets are not held);
    // a node built in memory is measured by the driver instead.
    if (end && !(c->node_flags & BOX_AUTO_SIZE))
        skipTo(m, end);
    return true;
}

bool codeBtrt(mp4_muxer *m, Box **box, uint64_t) {
    auto *b = static_cast<Btrt *>(extendBox(box, sizeof(Btrt)));
    if (!b)
        return false;
    rw32(m, &b->bufferSizeDB);
    rw32(m, &b->maxBitrate);
    rw32(m, &b->avgBitrate);
    return true;
}

bool codeChan(mp4_muxer *m, Box **box, uint64_t) {
    auto *c = static_cast<Chan *>(extendBox(box, sizeof(Chan)));
    if (!c)
        return false;
    rwFullBox(m, c);
    rw32(m, &c->ChannelLayoutTag);
    rw32(m, &c->ChannelBitmap);
    if (isWriter(m) && !c->descriptions)
        c->NumberChannelDescriptions = 0; // a count without descriptions would be a corrupt box
    rw32(m, &c->NumberChannelDescriptions);
    if (!c->NumberChannelDescriptions)
        return true;
    if (is_reader(m)) {
        if (at_end_of_input(m))
            return true;
        c->descriptions = static_cast<ChannelDescription *>(
            allocEntries(m, c->NumberChannelDescriptions, sizeof(ChannelDescription), 20));
        if (!c->descriptions)
            return at_end_of_input(m); // true: the input ran out; false: no memory
        c->node_flags |= BOX_OWNS_ARRAYS;
    }
    for (uint32_t i = 0; i < c->NumberChannelDescriptions; i++) {
        ChannelDescription *d = &c->descriptions[i];
        rw32(m, &d->ChannelLabel);
        rw32(m, &d->ChannelFlags);
        for (uint32_t &coordinate : d->Coordinates)
            rw32(m, &coordinate);
    }
    return true;
}

bool codeFiel(mp4_muxer *m, Box **box, uint64_t) {
    auto *f = static_cast<Fiel *>(extendBox(box, sizeof(Fiel)));
    if (!f)
        return false;
    rw8(m, &f->fieldCount);
    rw8(m, &f->fieldOrder);
    return true;
}
