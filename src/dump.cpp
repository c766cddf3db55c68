// Box dump: while a handle's debug switch is on, the codec hands every box it has just read or
// written to printBox, which prints the box's fields as one indented line each. The dump only
// reads records; the one place it touches the stream (the first bytes of an mdat) puts the
// position and the stream state back as they were.
#include "box/box.h"

#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <unistd.h>

int indent = 0;

namespace {

// Tables print at most this many entries, then "...".
constexpr uint32_t ENTRY_LIMIT = 2000;

#define FCC(t) char((t) >> 24), char((t) >> 16), char((t) >> 8), char(t)

// The record of `box` as T, or null when the node does not hold that much: a node the codec
// passed over (unknown type, undecoded box read from a file) holds only its header. A node
// built outside the allocator (a typed record on the writer's stack, alloc_size 0) is whole.
template <class T> const T *record(const Box *box) {
    return box->alloc_size == 0 || box->alloc_size >= sizeof(T) ? static_cast<const T *>(box)
                                                                : nullptr;
}

// Bytes from p to the end of the node when p points into the node (a name or payload the codec
// stored behind the record), else no limit.
uint64_t bytesLeftInNode(const Box *box, const void *p) {
    uintptr_t node = reinterpret_cast<uintptr_t>(box), at = reinterpret_cast<uintptr_t>(p);
    if (at >= node && at < node + box->alloc_size)
        return node + box->alloc_size - at;
    return UINT64_MAX;
}

void printFull(const FullBox *b) {
    iprintf("version: %u  flags: %x\n", b->version, b->flags);
}

// 16.16 fraction in five digits; the product needs more than 32 bits.
unsigned frac16(uint32_t v) {
    return unsigned((uint64_t(v & 0xFFFF) * 100000) >> 16);
}

struct Clock {
    int hours, minutes, seconds, millis;
};

// t must not be 0.
Clock clockOf(uint64_t d, uint32_t t) {
    uint64_t secs = d / t;
    return Clock{int(secs / 3600), int(secs / 60 % 60), int(secs % 60), int((d % t) * 1000 / t)};
}

// Timescale of the mvhd directly under `container`, or 0 when there is none to be had.
uint32_t movieTimescale(Box *container) {
    Box *mvhd = getChild(container, fourcc("mvhd"));
    if (!mvhd)
        return 0;
    const Mvhd *r = record<Mvhd>(mvhd);
    return r ? r->timescale : 0;
}

Box *ancestor(Box *box, int levels) {
    while (box && levels-- > 0)
        box = box->parent;
    return box;
}

void printDuration(uint64_t d, uint32_t t) {
    if (!t) {
        iprintf("duration: %lu\n", (unsigned long)d);
        return;
    }
    Clock c = clockOf(d, t);
    iprintf("duration: %lu (%d:%02d:%02d.%03d)\n", (unsigned long)d, c.hours, c.minutes, c.seconds,
            c.millis);
}

// True while entry i may be printed; prints "..." for the first one that may not.
bool withinLimit(uint32_t i) {
    if (i < ENTRY_LIMIT)
        return true;
    if (i == ENTRY_LIMIT)
        iprintf("...\n");
    return false;
}

void printMatrix(const uint32_t *matrix) {
    for (int i = 0; i < 9; i++)
        iprintf("matrix[%d]: 0x%x\n", i, matrix[i]);
}

// ---- movie, track and media boxes ------------------------------------------------------------

void printFtyp(const Ftyp *b) {
    iprintf("major_brand: 0x%0x (%c%c%c%c)\n", b->major_brand, FCC(b->major_brand));
    iprintf("minor_version: %x\n", b->minor_version);
    // The box size says how many brands there are; the record holds six at most.
    for (int i = 0; i < 6 && (uint64_t(i) + 4) * 4 < b->size; i++)
        iprintf("compatible_brand[%d]: 0x%0x (%c%c%c%c)\n", i, b->compatible_brands[i],
                FCC(b->compatible_brands[i]));
}

void printMvhd(const Mvhd *b) {
    printFull(b);
    iprintf("creation_time: %lu\n", (unsigned long)b->creation_time);
    iprintf("modification_time: %lu\n", (unsigned long)b->modification_time);
    iprintf("timescale: %u\n", b->timescale);
    printDuration(b->duration, b->timescale);
    iprintf("rate: 0x%x (%u.%04u)\n", b->rate, b->rate >> 16, ((b->rate & 0xFFFF) * 10000) >> 16);
    iprintf("volume: 0x%x (%u.%02u)\n", b->volume, unsigned(b->volume >> 8),
            unsigned(((b->volume & 0xFF) * 100) >> 8));
    printMatrix(b->matrix);
    iprintf("next_track_ID: %u\n", b->next_track_ID);
}

void printTkhd(Box *box, const Tkhd *b) {
    printFull(b);
    iprintf("creation_time: %lu\n", (unsigned long)b->creation_time);
    iprintf("modification_time: %lu\n", (unsigned long)b->modification_time);
    iprintf("track_ID: %u\n", b->track_ID);
    // tkhd -> trak -> moov, whose mvhd gives the movie timescale.
    Box *moov = ancestor(box, 2);
    printDuration(b->duration, moov ? movieTimescale(moov) : 0);
    iprintf("layer: %u\n", b->layer);
    iprintf("alternate_group: %u\n", b->alternate_group);
    iprintf("volume: %u\n", b->volume);
    printMatrix(b->matrix);
    iprintf("width: %u.%05u\n", b->width >> 16, frac16(b->width));
    iprintf("height: %u.%05u\n", b->height >> 16, frac16(b->height));
}

void printMdhd(const Mdhd *b) {
    printFull(b);
    iprintf("creation_time: %lu\n", (unsigned long)b->creation_time);
    iprintf("modification_time: %lu\n", (unsigned long)b->modification_time);
    iprintf("timescale: %u\n", b->timescale);
    printDuration(b->duration, b->timescale);
    for (int i = 0; i < 3; i++)
        iprintf("language[%d]: %u\n", i, b->language[i]);
}

void printHdlr(const Hdlr *b) {
    printFull(b);
    iprintf("handler_type: 0x%0x (%c%c%c%c)\n", b->handler_type, FCC(b->handler_type));
    // The box size gives the name's room; the precision also stops at the stored terminator,
    // and a name held inside the node cannot run past the node.
    uint64_t room = b->size > 32 ? b->size - 32 : 0;
    const char *name = b->name ? b->name : "";
    uint64_t left = bytesLeftInNode(b, name);
    if (room > left)
        room = left;
    iprintf("name: %.*s\n", room > INT_MAX ? INT_MAX : int(room), name);
}

void printVmhd(const Vmhd *b) {
    printFull(b);
    iprintf("graphicsmode: %d\n", b->graphicsmode);
    for (int i = 0; i < 3; i++)
        iprintf("opcolor[%d]: %d\n", i, b->opcolor[i]);
}

void printHmhd(const Hmhd *b) {
    printFull(b);
    iprintf("maxPDUsize: %u\n", b->maxPDUsize);
    iprintf("avgPDUsize: %u\n", b->avgPDUsize);
    iprintf("maxbitrate: %u\n", b->maxbitrate);
    iprintf("avgbitrate: %u\n", b->avgbitrate);
}

// Fixed-size string fields are printed up to their terminator, never past the field.
void printUrl(const Url *b) {
    printFull(b);
    iprintf("location: \"%.*s\"\n", int(sizeof b->location), b->location);
}

void printUrn(const Urn *b) {
    printFull(b);
    iprintf("name: \"%.*s\"\n", int(sizeof b->name), b->name);
    iprintf("location: \"%.*s\"\n", int(sizeof b->location), b->location);
}

void printElst(Box *box, const Elst *b) {
    printFull(b);
    iprintf("entry_count: %u\n", b->entry_count);
    // elst -> edts -> trak -> moov, whose mvhd gives the movie timescale.
    Box *moov = ancestor(box, 3);
    uint32_t t = moov ? movieTimescale(moov) : 0;
    for (uint32_t i = 0; b->entries && i < b->entry_count && withinLimit(i); i++) {
        const ElstEntry &e = b->entries[i];
        if (t) {
            Clock c = clockOf(e.segment_duration, t);
            iprintf("segment_duration[%d]: %lu (%d:%02d:%02d.%03d)\n", int(i),
                    (unsigned long)e.segment_duration, c.hours, c.minutes, c.seconds, c.millis);
        } else {
            iprintf("segment_duration[%d]: %lu\n", int(i), (unsigned long)e.segment_duration);
        }
        iprintf("media_time      [%d]: %li\n", int(i), (long)e.media_time);
        iprintf("media_rate_integer [%d]: %i\n", int(i), e.media_rate_integer);
        iprintf("media_rate_fraction[%d]: %i\n", int(i), e.media_rate_fraction);
    }
}

// ---- sample tables ---------------------------------------------------------------------------

void printStts(const Stts *b) {
    printFull(b);
    iprintf("entry_count: %u\n", b->entry_count);
    if (!b->entries)
        return;
    for (uint32_t i = 0; i < b->entry_count && withinLimit(i); i++)
        iprintf("sample[%d] count: %u  delta: %u\n", int(i), b->entries[i].sample_count,
                b->entries[i].sample_delta);
    // The total covers every entry, printed or not; each product is taken in 32 bits.
    uint64_t total = 0, samples = 0;
    for (uint32_t i = 0; i < b->entry_count; i++) {
        total += uint32_t(b->entries[i].sample_count * b->entries[i].sample_delta);
        samples += b->entries[i].sample_count;
    }
    if (samples)
        iprintf("total: %lu avg: %lu\n", (unsigned long)total, (unsigned long)(total / samples));
}

void printCtts(mp4_muxer *m, const Ctts *b) {
    printFull(b);
    iprintf("entry_count: %u\n", b->entry_count);
    // Offsets are unsigned only in a version-0 box of an MP4 handle.
    bool is_signed = b->version != 0 || (m && (m->flags & MP4_MOV));
    for (uint32_t i = 0; b->entries && i < b->entry_count && withinLimit(i); i++) {
        const CttsEntry &e = b->entries[i];
        if (is_signed)
            iprintf("sample[%d] count: %u  offset: %i\n", int(i), e.sample_count,
                    int32_t(e.sample_offset));
        else
            iprintf("sample[%d] count: %u  offset: %u\n", int(i), e.sample_count, e.sample_offset);
    }
}

void printStsz(const Stsz *b) {
    printFull(b);
    iprintf("sample_size: %u\n", b->sample_size);
    iprintf("sample_count: %u\n", b->sample_count);
    if (b->sample_size != 0)
        return;
    for (uint32_t i = 0; b->entries && i < b->sample_count && withinLimit(i); i++)
        iprintf("entry_size[%d]: %u\n", int(i), b->entries[i]);
}

void printStz2(const Stz2 *b) {
    printFull(b);
    iprintf("field_size: %u\n", b->field_size);
    iprintf("sample_count: %u\n", b->sample_count);
    if (!b->entries)
        return;
    // The packed table holds (sample_count x field_size + 7) / 8 bytes, the product taken in
    // 32 bits as the codec takes it; entries beyond those bytes are not printed.
    uint64_t held = (uint64_t(uint32_t(b->sample_count * b->field_size)) + 7) / 8;
    for (uint32_t i = 0; i < b->sample_count; i++) {
        unsigned value;
        if (b->field_size == 4 && i / 2 < held) {
            uint8_t byte = b->entries[i / 2];
            value = (i & 1) ? (byte & 0x0F) : (byte >> 4);
        } else if (b->field_size == 8 && i < held) {
            value = b->entries[i];
        } else if (b->field_size == 16 && uint64_t(i) * 2 + 1 < held) {
            value = unsigned(b->entries[2 * i]) << 8 | b->entries[2 * i + 1];
        } else {
            break; // no such field size, or the table ends
        }
        if (!withinLimit(i))
            break;
        iprintf("entry_size[%d]: %u\n", int(i), value);
    }
}

void printStsc(const Stsc *b) {
    printFull(b);
    iprintf("entry_count: %u\n", b->entry_count);
    for (uint32_t i = 0; b->entries && i < b->entry_count && withinLimit(i); i++) {
        iprintf("first_chunk[%d]: %u\n", int(i), b->entries[i].first_chunk);
        iprintf("samples_per_chunk[%d]: %u\n", int(i), b->entries[i].samples_per_chunk);
        iprintf("samples_description_index[%d]: %u\n", int(i),
                b->entries[i].sample_description_index);
    }
}

void printStco(const Stco *b) {
    printFull(b);
    iprintf("entry_count: %u\n", b->entry_count);
    for (uint32_t i = 0; b->entries && i < b->entry_count && withinLimit(i); i++)
        iprintf("chunk_offset[%d]: 0x%x\n", int(i), b->entries[i]);
}

void printCo64(const Co64 *b) {
    printFull(b);
    iprintf("entry_count: %u\n", b->entry_count);
    for (uint32_t i = 0; b->entries && i < b->entry_count && withinLimit(i); i++)
        iprintf("chunk_offset[%d]: 0x%lx\n", int(i), (unsigned long)b->entries[i]);
}

void printStss(const Stss *b) {
    printFull(b);
    iprintf("entry_count: %u\n", b->entry_count);
    for (uint32_t i = 0; b->entries && i < b->entry_count && withinLimit(i); i++)
        iprintf("sample_number[%d]: %u\n", int(i), b->entries[i]);
}

void printStsh(const Stsh *b) {
    printFull(b);
    iprintf("entry_count: %u\n", b->entry_count);
    for (uint32_t i = 0; b->entries && i < b->entry_count && withinLimit(i); i++) {
        iprintf("shadowed_sample_number[%d]: %u\n", int(i), b->entries[i].shadowed_sample_number);
        iprintf("sync_sample_number[%d]: %u\n", int(i), b->entries[i].sync_sample_number);
    }
}

// stdp has no count of its own: it has one priority per sample of the last stsz.
void printStdp(mp4_muxer *m, const Stdp *b) {
    printFull(b);
    uint32_t count = m ? m->sample_count : 0;
    for (uint32_t i = 0; b->entries && i < count && withinLimit(i); i++)
        iprintf("priority[%d]: %u\n", int(i), b->entries[i]);
}

// Each byte holds the 3-bit pad values of two samples, the first in the high half.
void printPadb(const Padb *b) {
    printFull(b);
    iprintf("sample_count: %u\n", b->sample_count);
    uint64_t bytes = (uint64_t(b->sample_count) + 1) / 2;
    for (uint32_t i = 0; b->entries && i < bytes && withinLimit(i); i++) {
        iprintf("pad[%d]: %u\n", int(2 * i + 1), unsigned(b->entries[i] >> 4) & 7);
        iprintf("pad[%d]: %u\n", int(2 * i + 2), unsigned(b->entries[i]) & 7);
    }
}

// ---- sample entries and codec boxes ----------------------------------------------------------

void printAvcC(const AvcC *b) {
    iprintf("configurationVersion: %u\n", b->configurationVersion);
    iprintf("AVCProfileIndication: %u\n", b->AVCProfileIndication);
    iprintf("profile_compatibility: %u\n", b->profile_compatibility);
    iprintf("AVCLevelIndication: %u\n", b->AVCLevelIndication);
    iprintf("lengthSizeMinusOne: %u\n", b->lengthSizeMinusOne);
    // Parameter sets take the length slots and the data area in turn; the record has two
    // slots and 132 bytes, so sets beyond those are not held and not printed.
    unsigned slot = 0;
    uint32_t offset = 0;
    auto printBytes = [&](uint32_t length) {
        for (uint32_t k = 0; k < length && offset < AVCC_DATA_MAX; k++)
            printf(" %02x", b->data[offset++]);
        putchar('\n');
    };
    iprintf("numOfSequenceParameterSets: %u\n", b->numOfSequenceParameterSets);
    for (int i = 0; i < b->numOfSequenceParameterSets && slot < 2; i++) {
        uint32_t length = b->length[slot++];
        iprintf("sequenceParameterSetLength[%d] = %d\n", i, int(length));
        iprintf("sequenceParameterSetNALUnit[%d] =", i);
        printBytes(length);
    }
    iprintf("numOfPictureParameterSets: %u\n", b->numOfPictureParameterSets);
    for (int i = 0; i < b->numOfPictureParameterSets && slot < 2; i++) {
        uint32_t length = b->length[slot++];
        iprintf("pictureParameterSetLength[%d] = %d\n", i, int(length));
        iprintf("pictureParameterSetNALUnit[%d] =", i);
        printBytes(length);
    }
}

void printFiel(const Fiel *b) {
    const char *count = b->fieldCount == 1   ? "progressive"
                        : b->fieldCount == 2 ? "interlaced"
                                             : "unknown";
    const char *order;
    switch (b->fieldOrder) {
    case 0:
        order = "one field";
        break;
    case 1:
        order = "top first";
        break;
    case 6:
        order = "bottom first";
        break;
    case 9:
        order = "top first, display bottom first";
        break;
    case 14:
        order = "bottom first, display top first";
        break;
    default:
        order = "unknown";
        break;
    }
    iprintf("fieldCount: %u %s\n", b->fieldCount, count);
    iprintf("fieldOrder: %u %s\n", b->fieldOrder, order);
}

double floatBits(uint32_t bits) {
    float f;
    memcpy(&f, &bits, sizeof f);
    return f;
}

void printChan(const Chan *b) {
    printFull(b);
    iprintf("ChannelLayoutTag: %x\n", b->ChannelLayoutTag);
    iprintf("ChannelBitmap: %x\n", b->ChannelBitmap);
    iprintf("NumberChannelDescriptions: %x\n", b->NumberChannelDescriptions);
    for (uint32_t i = 0; b->descriptions && i < b->NumberChannelDescriptions; i++) {
        const ChannelDescription &d = b->descriptions[i];
        iprintf("ChannelLabel[%u]: %x\n", i, d.ChannelLabel);
        iprintf("ChannelFlags[%u]: %x\n", i, d.ChannelFlags);
        iprintf("Coordinates [%u]: (%g, %g, %g)\n", i, floatBits(d.Coordinates[0]),
                floatBits(d.Coordinates[1]), floatBits(d.Coordinates[2]));
    }
}

// A box without a row of its own: a sample entry when its parent is an stsd, laid out by the
// handler type of the track being coded.
bool inStsd(const Box *box) {
    return box->parent && box->parent->type == fourcc("stsd");
}

void printOther(mp4_muxer *m, const Box *box) {
    if (!box->parent || box->parent->type != fourcc("stsd")) {
        iprintf("unknown\n");
        return;
    }
    uint32_t handler = m ? m->handler_type : 0;
    const SampleEntry *e = record<SampleEntry>(box);
    switch (handler) {
    case fourcc("vide"):
        if (!e)
            break;
        iprintf("data_reference_index: %u\n", e->data_reference_index);
        iprintf("width: %u\n", e->width);
        iprintf("height: %u\n", e->height);
        iprintf("horizresolution: %u.%05u\n", e->horizresolution >> 16, frac16(e->horizresolution));
        iprintf("vertresolution: %u.%05u\n", e->vertresolution >> 16, frac16(e->vertresolution));
        iprintf("frame_count: %u\n", e->frame_count);
        iprintf("compressorname: %.*s\n", int(sizeof e->compressorname),
                reinterpret_cast<const char *>(e->compressorname));
        iprintf("depth: %u\n", e->depth);
        break;
    case fourcc("soun"):
        if (!e)
            break;
        iprintf("data_reference_index: %u\n", e->data_reference_index);
        iprintf("version: %u\n", e->version);
        iprintf("channelcount: %u\n", e->channelcount);
        iprintf("samplesize: %u\n", e->samplesize);
        iprintf("compressionID: %u\n", e->compressionID);
        iprintf("samplerate: %u.%05u\n", e->samplerate >> 16, frac16(e->samplerate));
        if (e->version == 1) {
            iprintf("samplesPerPacket: %u\n", e->samplesPerPacket);
            iprintf("bytesPerPacket: %u\n", e->bytesPerPacket);
            iprintf("bytesPerFrame: %u\n", e->bytesPerFrame);
            iprintf("bytesPerSample: %u\n", e->bytesPerSample);
        }
        break;
    case fourcc("hint"):
    case fourcc("subp"):
        if (!e)
            break;
        iprintf("data_reference_index: %u\n", e->data_reference_index);
        iprintf("%c%c%c%c data size %u\n", FCC(handler), uint32_t(box->size - 8));
        break;
    default:
        puts("handler type not set");
        break;
    }
}

// ---- fragments -------------------------------------------------------------------------------

void printTfhd(const Tfhd *b) {
    printFull(b);
    iprintf("track_ID: %u\n", b->track_ID);
    if (b->flags & 0x000001)
        iprintf("base_data_offset: %lu\n", (unsigned long)b->base_data_offset);
    if (b->flags & 0x000002)
        iprintf("sample_description_index: %u\n", b->sample_description_index);
    if (b->flags & 0x000008)
        iprintf("default_sample_duration: %u\n", b->default_sample_duration);
    if (b->flags & 0x000010)
        iprintf("default_sample_size: %u\n", b->default_sample_size);
    if (b->flags & 0x000020)
        iprintf("default_sample_flags: %u\n", b->default_sample_flags);
}

void printTrun(const Trun *b) {
    printFull(b);
    iprintf("sample_count: %u\n", b->sample_count);
    if (b->flags & 0x000001)
        iprintf("data_offset: %i\n", b->data_offset);
    if (b->flags & 0x000004)
        iprintf("first_sample_flags: %u\n", b->first_sample_flags);
    for (uint32_t i = 0; b->samples && i < b->sample_count && withinLimit(i); i++) {
        const TrunSample &s = b->samples[i];
        if (b->flags & 0x000100)
            iprintf("sample_duration[%d]: %u\n", int(i), s.sample_duration);
        if (b->flags & 0x000200)
            iprintf("sample_size[%d]: %u\n", int(i), s.sample_size);
        if (b->flags & 0x000400)
            iprintf("sample_flags[%d]: %u\n", int(i), s.sample_flags);
        if (b->flags & 0x000800)
            iprintf("sample_composition_time_offset[%d]: %u\n", int(i),
                    s.sample_composition_time_offset);
    }
}

void printTfra(const Tfra *b) {
    printFull(b);
    iprintf("track_ID: %u\n", b->track_ID);
    iprintf("length_size_of_traf_num: %u\n", b->length_size_of_traf_num);
    iprintf("length_size_of_trun_num: %u\n", b->length_size_of_trun_num);
    iprintf("length_size_of_sample_num: %u\n", b->length_size_of_sample_num);
    iprintf("number_of_entry: %u\n", b->number_of_entry);
    for (uint32_t i = 0; b->entries && i < b->number_of_entry && withinLimit(i); i++) {
        const TfraEntry &e = b->entries[i];
        iprintf("time[%d]: %lu\n", int(i), (unsigned long)e.time);
        iprintf("moof_offset[%d]: %lu\n", int(i), (unsigned long)e.moof_offset);
        iprintf("traf_number[%d]: %u\n", int(i), e.traf_number);
        iprintf("trun_number[%d]: %u\n", int(i), e.trun_number);
        iprintf("sample_number[%d]: %u\n", int(i), e.sample_number);
    }
}

// ---- mdat ------------------------------------------------------------------------------------

// Reads n bytes at `at` without disturbing the stream: position, end-of-input flag and error
// code are as before afterwards. False when the bytes cannot be had.
bool peekStream(mp4_muxer *m, uint64_t at, uint8_t *dst, uint32_t n) {
    if (m->fd == -1 && !m->fp) {
        // Memory input: only what the attached buffer holds; seeking outside it would complain.
        if (!m->buffer || at < m->buffer_start)
            return false;
        uint64_t off = at - m->buffer_start;
        if (off > buffer_readable(m) || n > buffer_readable(m) - off)
            return false;
        memcpy(dst, m->buffer + off, n);
        return true;
    }
    // Only a seekable stream can be looked at without consuming it.
    if (m->fd != -1 ? lseek64(m->fd, 0, SEEK_CUR) < 0 : ftello64(m->fp) < 0)
        return false;
    const uint8_t saved_eoi = m->flags & MP4_END_OF_INPUT;
    const uint8_t saved_error = m->error;
    const uint64_t here = muxer_pos(m);
    muxer_seek(m, at);
    m->flags &= uint8_t(~MP4_END_OF_INPUT);
    read_n(m, dst, n);
    const bool ok = !at_end_of_input(m) && m->error == saved_error;
    // A short read can leave the stream behind the logical position; going through `at`
    // makes the final seek a real one even when `here` equals at + n.
    muxer_seek(m, at);
    muxer_seek(m, here);
    m->flags = uint8_t((m->flags & ~MP4_END_OF_INPUT) | saved_eoi);
    m->error = saved_error;
    return ok;
}

void printMdat(mp4_muxer *m, const Box *box) {
    iprintf("data (offset: %lu)\n", (unsigned long)box->data_pos);
    if (!m)
        return;
    // The payload is size - 8 bytes, in 32 bits as the codec keeps it; short ones show less.
    uint32_t payload = box->size > 8 ? uint32_t(box->size - 8) : 0;
    uint32_t n = payload < 10 ? payload : 10;
    uint8_t bytes[10];
    const DataBox *mdat = record<DataBox>(box);
    bool have = false;
    if (mdat && mdat->data && (!is_reader(m) || (m->flags & MP4_REMUXER))) {
        if (n > bytesLeftInNode(box, mdat->data))
            n = uint32_t(bytesLeftInNode(box, mdat->data));
        memcpy(bytes, mdat->data, n);
        have = true;
    } else if (is_reader(m)) {
        have = n > 0 && peekStream(m, box->data_pos, bytes, n);
    }
    if (!have)
        return;
    for (uint32_t i = 0; i < n; i++)
        printf("%02x ", bytes[i]);
    putchar('\n');
}

// ---- descriptors -----------------------------------------------------------------------------

void printDescriptorHeader(uint8_t tag, uint32_t length) {
    iprintf("tag: 0x%x  length: %u\n", tag, length);
}

void printDSI(const DecoderSpecificInfo &d) {
    printDescriptorHeader(d.tag, d.length);
    // A length beyond the record's room was cut when read: only the held bytes exist.
    uint32_t held = d.length < uint32_t(DSI_DATA_MAX) ? d.length : uint32_t(DSI_DATA_MAX);
    iprintf("data:");
    for (uint32_t i = 0; i < held; i++)
        printf(" %02x", d.data[i]);
    putchar('\n');
    if (d.length != 2)
        return;
    // Two bytes are an AAC AudioSpecificConfig.
    uint8_t b0 = d.data[0], b1 = d.data[1];
    int index = ((b0 & 7) << 1) + (b1 >> 7);
    int frame_length_flag = (b1 >> 2) & 1;
    iprintf("object type: %d\n", b0 >> 3);
    iprintf("frequency index: %d (%d)\n", index, int(AACfrequencyTable[index]));
    iprintf("channel config: %d\n", (b1 >> 3) & 15);
    iprintf("frame length flag: %d (%d)\n", frame_length_flag, frame_length_flag ? 960 : 1024);
    iprintf("dependsOnCoreCoder: %d\n", (b1 >> 1) & 1);
    iprintf("extensionFlag: %d\n", b1 & 1);
}

void printDCD(const DecoderConfigDescriptor &d) {
    printDescriptorHeader(d.tag, d.length);
    iprintf("objectTypeIndication: 0x%x\n", d.objectTypeIndication);
    iprintf("streamType: %u\n", d.streamType);
    iprintf("upStream: %d\n", d.upStream);
    iprintf("bufferSizeDB: %d\n", int(d.bufferSizeDB));
    iprintf("maxBitrate: %u\n", d.maxBitrate);
    iprintf("avgBitrate: %u\n", d.avgBitrate);
    if (d.present & 1) {
        iprintf("decSpecificInfo  length: %u\n", d.decSpecificInfo.length);
        indent += 4;
        printDSI(d.decSpecificInfo);
        indent -= 4;
    }
}

void printSL(const SLConfigDescriptor &d) {
    printDescriptorHeader(d.tag, d.length);
    iprintf("predefined: %d\n", d.predefined);
    if (d.predefined == 0) {
        iprintf("useAccessUnitStartFlag: %d\n", d.useAccessUnitStartFlag);
        iprintf("useAccessUnitEndFlag: %d\n", d.useAccessUnitEndFlag);
        iprintf("useRandomAccessPointFlag: %d\n", d.useRandomAccessPointFlag);
        iprintf("hasRandomAccessUnitOnlyFlag: %d\n", d.hasRandomAccessUnitOnlyFlag);
        iprintf("usePaddingFlag: %d\n", d.usePaddingFlag);
        iprintf("useTimeStampsFlag: %d\n", d.useTimeStampsFlag);
        iprintf("useIdleFlag: %d\n", d.useIdleFlag);
        iprintf("durationFlag: %d\n", d.durationFlag);
        iprintf("timeStampResolution: %u\n", d.timeStampResolution);
        iprintf("OCRResolution: %u\n", d.OCRResolution);
        iprintf("timeStampLength: %u\n", d.timeStampLength);
        iprintf("OCRLength: %u\n", d.OCRLength);
        iprintf("AU_Length: %u\n", d.AU_Length);
        iprintf("instantBitrateLength: %u\n", d.instantBitrateLength);
        iprintf("degradationPriorityLength: %d\n", d.degradationPriorityLength);
        iprintf("AU_seqNumLength: %d\n", d.AU_seqNumLength);
        iprintf("packetSeqNumLength: %d\n", d.packetSeqNumLength);
    }
    if (d.durationFlag) {
        iprintf("timeScale: %u\n", d.timeScale);
        iprintf("accessUnitDuration: %u\n", d.accessUnitDuration);
        iprintf("compositionUnitDuration: %u\n", d.compositionUnitDuration);
    }
    if (!d.useTimeStampsFlag) {
        iprintf("startDecodingTimeStamp: %lu\n", (unsigned long)d.startDecodingTimeStamp);
        iprintf("startCompositionTimeStamp: %lu\n", (unsigned long)d.startCompositionTimeStamp);
    }
}

void printES(const ES_Descriptor &d) {
    printDescriptorHeader(d.tag, d.length);
    iprintf("ES_id: %u\n", d.ES_ID);
    iprintf("streamDependenceFlag: %d\n", d.streamDependenceFlag);
    iprintf("URL_Flag: %d\n", d.URL_Flag);
    iprintf("OCRstreamFlag: %d\n", d.OCRstreamFlag);
    iprintf("streamPriority: %d\n", d.streamPriority);
    if (d.streamDependenceFlag)
        iprintf("dependsOn_ES_ID: %u\n", d.dependsOn_ES_ID);
    if (d.URL_Flag) {
        iprintf("URLlength: %u\n", d.URLlength);
        // URLlength bytes are held at most; the field always has room for a terminator.
        iprintf("URLstring: %.*s\n", int(d.URLlength), d.URLstring);
    }
    if (d.OCRstreamFlag)
        iprintf("OCR_ES_Id: %u\n", d.OCR_ES_Id);
    if (d.present & 1) {
        iprintf("decConfigDescr  length: %u\n", d.decConfigDescr.length);
        indent += 4;
        printDCD(d.decConfigDescr);
        indent -= 4;
    }
    if (d.present & 2) {
        iprintf("slConfigDescr  length: %u\n", d.slConfigDescr.length);
        indent += 4;
        printSL(d.slConfigDescr);
        indent -= 4;
    }
}

void printIOD(uint8_t tag, const InitialObjectDescriptor &d) {
    printDescriptorHeader(d.tag, d.length);
    iprintf("ObjectDescriptorID: %d\n", d.ObjectDescriptorID);
    iprintf("URL_Flag: %d\n", d.URL_Flag);
    if (tag != 1)
        iprintf("includeInlineProfileLevelFlag: %d\n", d.includeInlineProfileLevelFlag);
    if (d.URL_Flag) {
        iprintf("URLlength: %d\n", d.URLlength);
        iprintf("URLstring: %s\n", ""); // the URL bytes are skipped, not held
    } else {
        iprintf("ODProfileLevelIndication: %d\n", d.ODProfileLevelIndication);
        iprintf("sceneProfileLevelIndication: %d\n", d.sceneProfileLevelIndication);
        iprintf("audioProfileLevelIndication: %d\n", d.audioProfileLevelIndication);
        iprintf("visualProfileLevelIndication: %d\n", d.visualProfileLevelIndication);
        iprintf("graphicsProfileLevelIndication: %d\n", d.graphicsProfileLevelIndication);
    }
    iprintf("esDescr  length: %u\n", d.esDescr.length);
    if (d.esDescr.length != 0) {
        // Printed by its stored tag. The nested record is an ES_Descriptor, so only the
        // ES_Descriptor layout can be applied to it; other tags print nothing.
        indent += 4;
        if (d.esDescr.tag == 3)
            printDescriptor(d.esDescr.tag, &d.esDescr);
        indent -= 4;
    }
}

} // namespace

void iprintf(const char *format, ...) {
    printf("%*s", indent, "");
    va_list ap;
    va_start(ap, format);
    vprintf(format, ap);
    va_end(ap);
}

void printDescriptor(uint8_t tag, const void *record) {
    if (!record)
        return;
    switch (tag) {
    case 1:
    case 2:
    case 16:
        printIOD(tag, *static_cast<const InitialObjectDescriptor *>(record));
        break;
    case 3:
        printES(*static_cast<const ES_Descriptor *>(record));
        break;
    case 4:
        printDCD(*static_cast<const DecoderConfigDescriptor *>(record));
        break;
    case 5:
        printDSI(*static_cast<const DecoderSpecificInfo *>(record));
        break;
    case 6:
        printSL(*static_cast<const SLConfigDescriptor *>(record));
        break;
    default:
        break;
    }
}

void printBox(mp4_muxer *m, Box *box) {
    if (!box)
        return;
    iprintf("%c%c%c%c  size: %lu\n", FCC(box->type), (unsigned long)box->size);
    indent += 4;
    switch (box->type) {
    case fourcc("moov"):
    case fourcc("trak"):
    case fourcc("mdia"):
    case fourcc("minf"):
    case fourcc("stbl"):
    case fourcc("dinf"):
    case fourcc("edts"):
    case fourcc("mvex"):
    case fourcc("moof"):
    case fourcc("traf"):
    case fourcc("mfra"):
    case fourcc("rmra"):
    case fourcc("rmda"):
    case fourcc("free"):
    case fourcc("skip"):
    case fourcc("wide"):
        break;
    case fourcc("ftyp"):
        if (auto *r = record<Ftyp>(box))
            printFtyp(r);
        break;
    case fourcc("mvhd"):
        if (auto *r = record<Mvhd>(box))
            printMvhd(r);
        break;
    case fourcc("tkhd"):
        if (auto *r = record<Tkhd>(box))
            printTkhd(box, r);
        break;
    case fourcc("mdhd"):
        if (auto *r = record<Mdhd>(box))
            printMdhd(r);
        break;
    case fourcc("hdlr"):
        if (auto *r = record<Hdlr>(box))
            printHdlr(r);
        break;
    case fourcc("vmhd"):
        if (auto *r = record<Vmhd>(box))
            printVmhd(r);
        break;
    case fourcc("smhd"):
        if (auto *r = record<Smhd>(box)) {
            printFull(r);
            iprintf("balance: 0x%x\n", r->balance);
        }
        break;
    case fourcc("hmhd"):
        if (auto *r = record<Hmhd>(box))
            printHmhd(r);
        break;
    case fourcc("nmhd"):
        if (auto *r = record<FullBox>(box))
            printFull(r);
        break;
    case fourcc("dref"):
        if (auto *r = record<Dref>(box)) {
            printFull(r);
            iprintf("entry_count: %u\n", r->entry_count);
        }
        break;
    case fourcc("url "):
    case fourcc("alis"):
        if (auto *r = record<Url>(box))
            printUrl(r);
        break;
    case fourcc("urn "):
        if (auto *r = record<Urn>(box))
            printUrn(r);
        break;
    case fourcc("elst"):
        if (auto *r = record<Elst>(box))
            printElst(box, r);
        break;
    case fourcc("stsd"):
        if (auto *r = record<Stsd>(box)) {
            printFull(r);
            iprintf("entry_count: %u\n", r->entry_count);
        }
        break;
    case fourcc("stts"):
        if (auto *r = record<Stts>(box))
            printStts(r);
        break;
    case fourcc("ctts"):
        if (auto *r = record<Ctts>(box))
            printCtts(m, r);
        break;
    case fourcc("stsz"):
        if (auto *r = record<Stsz>(box))
            printStsz(r);
        break;
    case fourcc("stz2"):
        if (auto *r = record<Stz2>(box))
            printStz2(r);
        break;
    case fourcc("stsc"):
        if (auto *r = record<Stsc>(box))
            printStsc(r);
        break;
    case fourcc("stco"):
        if (auto *r = record<Stco>(box))
            printStco(r);
        break;
    case fourcc("co64"):
        if (auto *r = record<Co64>(box))
            printCo64(r);
        break;
    case fourcc("stss"):
        if (auto *r = record<Stss>(box))
            printStss(r);
        break;
    // Boxes the codec has no layout for when reading: under stsd it takes them for sample entries
    // (their records are sample entries then, not tables), elsewhere it keeps their header only.
    case fourcc("stsh"):
        if (inStsd(box))
            printOther(m, box);
        else if (auto *r = record<Stsh>(box))
            printStsh(r);
        break;
    case fourcc("stdp"):
        if (inStsd(box))
            printOther(m, box);
        else if (auto *r = record<Stdp>(box))
            printStdp(m, r);
        break;
    case fourcc("padb"):
        if (inStsd(box))
            printOther(m, box);
        else if (auto *r = record<Padb>(box))
            printPadb(r);
        break;
    case fourcc("mdat"):
        printMdat(m, box);
        break;
    case fourcc("iods"):
        if (auto *r = record<Iods>(box)) {
            printFull(r);
            printDescriptor(2, &r->iod);
        }
        break;
    case fourcc("esds"):
        if (auto *r = record<Esds>(box)) {
            printFull(r);
            printDescriptor(3, &r->es);
        }
        break;
    case fourcc("btrt"):
        if (auto *r = record<Btrt>(box)) {
            iprintf("bufferSizeDB: %u\n", r->bufferSizeDB);
            iprintf("maxBitrate: %u\n", r->maxBitrate);
            iprintf("avgBitrate: %u\n", r->avgBitrate);
        }
        break;
    case fourcc("avcC"):
        if (auto *r = record<AvcC>(box))
            printAvcC(r);
        break;
    case fourcc("fiel"):
        if (auto *r = record<Fiel>(box))
            printFiel(r);
        break;
    case fourcc("chan"):
        if (auto *r = record<Chan>(box))
            printChan(r);
        break;
    case fourcc("mehd"):
        if (auto *r = record<Mehd>(box)) {
            printFull(r);
            iprintf("fragment_duration: %lu\n", (unsigned long)r->fragment_duration);
        }
        break;
    case fourcc("trex"):
        if (auto *r = record<Trex>(box)) {
            printFull(r);
            iprintf("track_ID: %u\n", r->track_ID);
            iprintf("default_sample_description_index: %u\n", r->default_sample_description_index);
            iprintf("default_sample_duration: %u\n", r->default_sample_duration);
            iprintf("default_sample_size: %u\n", r->default_sample_size);
            iprintf("default_sample_flags: %u\n", r->default_sample_flags);
        }
        break;
    case fourcc("mfhd"):
        if (auto *r = record<Mfhd>(box)) {
            printFull(r);
            iprintf("sequence_number: %u\n", r->sequence_number);
        }
        break;
    case fourcc("tfhd"):
        if (auto *r = record<Tfhd>(box))
            printTfhd(r);
        break;
    case fourcc("trun"):
        if (auto *r = record<Trun>(box))
            printTrun(r);
        break;
    case fourcc("tfra"):
        if (auto *r = record<Tfra>(box))
            printTfra(r);
        break;
    case fourcc("mfro"):
        if (auto *r = record<Mfro>(box)) {
            printFull(r);
            iprintf("size: %lu\n", (unsigned long)r->size);
        }
        break;
    case fourcc("vide"):
    case fourcc("soun"):
    case fourcc("hint"):
        if (auto *r = record<SampleEntry>(box))
            iprintf("data_reference_index: %u\n", r->data_reference_index);
        break;
    default:
        printOther(m, box);
        break;
    }
    indent -= 4;
}
