// MPEG-4 Systems descriptors as stored in esds and iods boxes. Every descriptor is a tag, an
// expandable length and a body; the codec never computes a length: whoever fills a record sets
// them, and after each body the position moves to where the length says the body ends, so that
// fields this codec does not know are skipped (reading) or jumped over (writing).
#include "box/layouts.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

enum class Layout { Skip, Iod, Es, Dcd, Dsi, Sl };

Layout layoutOf(uint8_t tag) {
    switch (tag) {
    case 1:
    case 2:
    case 16:
        return Layout::Iod;
    case 3:
    case 14:
        return Layout::Es;
    case 4:
        return Layout::Dcd;
    case 5:
        return Layout::Dsi;
    case 6:
        return Layout::Sl;
    default:
        return Layout::Skip;
    }
}

// While reading, the end of the enclosing box: no descriptor is looked for, and no move goes,
// beyond it, whatever a length claims. Writing has no such bound.
struct Bound {
    uint64_t limit = UINT64_MAX;
};

void moveTo(mp4_muxer *m, const Bound &bound, uint64_t target) {
    if (is_reader(m) && target > bound.limit)
        target = bound.limit;
    muxer_seek(m, target);
}

uint64_t clampEnd(mp4_muxer *m, const Bound &bound, uint64_t end) {
    return is_reader(m) && end > bound.limit ? bound.limit : end;
}

// A run of bytes. Reading takes no byte from beyond the enclosing box: a length that claims
// more leaves the rest of the field zero, whatever the stream holds after the box.
void rwBytes(mp4_muxer *m, const Bound &bound, uint8_t *p, uint32_t n) {
    if (!is_reader(m)) {
        write_n(m, p, int32_t(n));
        return;
    }
    uint64_t pos = muxer_pos(m);
    uint64_t room = bound.limit > pos ? bound.limit - pos : 0;
    read_n(m, p, room < n ? uint32_t(room) : n);
}

uint32_t *lengthOf(Layout kind, void *record) {
    switch (kind) {
    case Layout::Iod:
        return &static_cast<InitialObjectDescriptor *>(record)->length;
    case Layout::Es:
        return &static_cast<ES_Descriptor *>(record)->length;
    case Layout::Dcd:
        return &static_cast<DecoderConfigDescriptor *>(record)->length;
    case Layout::Dsi:
        return &static_cast<DecoderSpecificInfo *>(record)->length;
    case Layout::Sl:
        return &static_cast<SLConfigDescriptor *>(record)->length;
    case Layout::Skip:
        break;
    }
    return nullptr;
}

uint8_t *tagOf(Layout kind, void *record) {
    switch (kind) {
    case Layout::Iod:
        return &static_cast<InitialObjectDescriptor *>(record)->tag;
    case Layout::Es:
        return &static_cast<ES_Descriptor *>(record)->tag;
    case Layout::Dcd:
        return &static_cast<DecoderConfigDescriptor *>(record)->tag;
    case Layout::Dsi:
        return &static_cast<DecoderSpecificInfo *>(record)->tag;
    case Layout::Sl:
        return &static_cast<SLConfigDescriptor *>(record)->tag;
    case Layout::Skip:
        break;
    }
    return nullptr;
}

bool codeDescriptor(mp4_muxer *m, const Bound &bound, uint8_t tag, Layout kind, void *record);

// Reading only: the tag of the next descriptor, without consuming it.
bool peekTag(mp4_muxer *m, uint8_t *tag) {
    uint64_t here = muxer_pos(m);
    rw8(m, tag);
    if (at_end_of_input(m))
        return false;
    muxer_seek(m, here);
    return true;
}

void codeEsBody(mp4_muxer *m, const Bound &bound, ES_Descriptor *es, uint64_t body) {
    rw16(m, &es->ES_ID);
    uint8_t b = uint8_t((es->streamDependenceFlag & 1) << 7 | (es->URL_Flag & 1) << 6 |
                        (es->OCRstreamFlag & 1) << 5 | (es->streamPriority & 0x1F));
    rw8(m, &b);
    es->streamDependenceFlag = b >> 7;
    es->URL_Flag = (b >> 6) & 1;
    es->OCRstreamFlag = (b >> 5) & 1;
    es->streamPriority = b & 0x1F;
    if (es->streamDependenceFlag)
        rw16(m, &es->dependsOn_ES_ID);
    if (es->URL_Flag) {
        rw8(m, &es->URLlength);
        rwBytes(m, bound, reinterpret_cast<uint8_t *>(es->URLstring), es->URLlength);
        if (is_reader(m))
            es->URLstring[es->URLlength] = 0;
    }
    if (es->OCRstreamFlag)
        rw16(m, &es->OCR_ES_Id);

    if (!is_reader(m)) {
        if (es->present & 1)
            codeDescriptor(m, bound, es->decConfigDescr.tag, Layout::Dcd, &es->decConfigDescr);
        if (es->present & 2)
            codeDescriptor(m, bound, es->slConfigDescr.tag, Layout::Sl, &es->slConfigDescr);
        return;
    }
    const uint64_t end = clampEnd(m, bound, body + es->length);
    for (;;) {
        uint64_t here = muxer_pos(m);
        uint8_t next = 0;
        if (here + 2 >= end || !peekTag(m, &next))
            break;
        // A later descriptor of the same kind replaces the earlier one whole.
        if (next == 4) {
            memset(&es->decConfigDescr, 0, sizeof es->decConfigDescr);
            if (codeDescriptor(m, bound, 0, Layout::Dcd, &es->decConfigDescr))
                es->present |= 1;
        } else if (next == 6) {
            memset(&es->slConfigDescr, 0, sizeof es->slConfigDescr);
            if (codeDescriptor(m, bound, 0, Layout::Sl, &es->slConfigDescr))
                es->present |= 2;
        } else {
            codeDescriptor(m, bound, 0, Layout::Skip, nullptr);
        }
        if (at_end_of_input(m) || muxer_pos(m) <= here)
            break;
    }
}

void codeDcdBody(mp4_muxer *m, const Bound &bound, DecoderConfigDescriptor *d, uint64_t body) {
    rw8(m, &d->objectTypeIndication);
    uint8_t b = uint8_t((d->streamType & 0x3F) << 2 | (d->upStream & 1) << 1 | 1);
    rw8(m, &b);
    d->streamType = b >> 2;
    d->upStream = (b >> 1) & 1;
    rw24(m, &d->bufferSizeDB);
    rw32(m, &d->maxBitrate);
    rw32(m, &d->avgBitrate);
    if (!is_reader(m)) {
        if (d->present & 1)
            codeDescriptor(m, bound, d->decSpecificInfo.tag, Layout::Dsi, &d->decSpecificInfo);
        return;
    }
    d->present = 0;
    if (muxer_pos(m) + 2 <= clampEnd(m, bound, body + d->length) && !at_end_of_input(m)) {
        if (codeDescriptor(m, bound, 0, Layout::Dsi, &d->decSpecificInfo))
            d->present |= 1;
    }
}

// Returns where the body ends as far as the final move is concerned.
uint64_t codeDsiBody(mp4_muxer *m, const Bound &bound, DecoderSpecificInfo *d, uint64_t body) {
    uint32_t held = d->length;
    if (d->length > DSI_DATA_MAX) {
        printf("%s: decSpecificInfo size %d truncated\n", "rwDescriptor", int(d->length));
        held = DSI_DATA_MAX;
    }
    rwBytes(m, bound, d->data, held);
    if (is_reader(m))
        return body + held; // the enclosing descriptor's own move skips the rest
    // A record truncated on reading still declares its full length; the bytes it no longer
    // holds are written as zeros, so that the descriptor keeps its length and every enclosing
    // length stays true.
    write_n(m, nullptr, int32_t(d->length - held));
    return body + d->length;
}

void codeSlBody(mp4_muxer *m, SLConfigDescriptor *s) {
    rw8(m, &s->predefined);
    if (s->predefined == 0) {
        uint8_t b = uint8_t(
            (s->useAccessUnitStartFlag & 1) << 7 | (s->useAccessUnitEndFlag & 1) << 6 |
            (s->useRandomAccessPointFlag & 1) << 5 | (s->hasRandomAccessUnitOnlyFlag & 1) << 4 |
            (s->usePaddingFlag & 1) << 3 | (s->useTimeStampsFlag & 1) << 2 |
            (s->useIdleFlag & 1) << 1 | (s->durationFlag & 1));
        rw8(m, &b);
        s->useAccessUnitStartFlag = (b >> 7) & 1;
        s->useAccessUnitEndFlag = (b >> 6) & 1;
        s->useRandomAccessPointFlag = (b >> 5) & 1;
        s->hasRandomAccessUnitOnlyFlag = (b >> 4) & 1;
        s->usePaddingFlag = (b >> 3) & 1;
        s->useTimeStampsFlag = (b >> 2) & 1;
        s->useIdleFlag = (b >> 1) & 1;
        s->durationFlag = b & 1;
        rw32(m, &s->timeStampResolution);
        rw32(m, &s->OCRResolution);
        rw8(m, &s->timeStampLength);
        rw8(m, &s->OCRLength);
        rw8(m, &s->AU_Length);
        rw8(m, &s->instantBitrateLength);
        uint16_t w =
            uint16_t((s->degradationPriorityLength & 0xF) << 12 | (s->AU_seqNumLength & 0x1F) << 7 |
                     (s->packetSeqNumLength & 0x1F) << 2 | 3);
        rw16(m, &w);
        s->degradationPriorityLength = uint8_t(w >> 12);
        s->AU_seqNumLength = (w >> 7) & 0x1F;
        s->packetSeqNumLength = (w >> 2) & 0x1F;
    } else if (is_reader(m)) {
        // Predefined settings have no duration fields and use timestamps.
        s->durationFlag = 0;
        s->useTimeStampsFlag = 1;
    }
    if (s->durationFlag) {
        rw32(m, &s->timeScale);
        rw16(m, &s->accessUnitDuration);
        rw16(m, &s->compositionUnitDuration);
    }
    if (!s->useTimeStampsFlag) {
        if (s->timeStampLength == 32) {
            rw32as64(m, &s->startDecodingTimeStamp);
            rw32as64(m, &s->startCompositionTimeStamp);
        } else if (s->timeStampLength == 64) {
            rw64(m, &s->startDecodingTimeStamp);
            rw64(m, &s->startCompositionTimeStamp);
        }
    }
}

void codeIodBody(mp4_muxer *m, const Bound &bound, uint8_t tag, InitialObjectDescriptor *d) {
    // Tag 1 has no includeInlineProfileLevelFlag: the bit is written set and not read.
    uint8_t inline_bit = tag == 1 ? 1 : (d->includeInlineProfileLevelFlag & 1);
    uint16_t w = uint16_t((d->ObjectDescriptorID & 0x3FF) << 6 | (d->URL_Flag & 1) << 5 |
                          inline_bit << 4 | 0xF);
    rw16(m, &w);
    d->ObjectDescriptorID = w >> 6;
    d->URL_Flag = (w >> 5) & 1;
    if (tag != 1)
        d->includeInlineProfileLevelFlag = (w >> 4) & 1;
    if (d->URL_Flag) {
        rw8(m, &d->URLlength);
        // The URL itself is not held; a writer puts zeros where it was.
        if (is_reader(m))
            moveTo(m, bound, muxer_pos(m) + d->URLlength);
        else
            write_n(m, nullptr, d->URLlength);
    } else {
        rw8(m, &d->ODProfileLevelIndication);
        rw8(m, &d->sceneProfileLevelIndication);
        rw8(m, &d->audioProfileLevelIndication);
        rw8(m, &d->visualProfileLevelIndication);
        rw8(m, &d->graphicsProfileLevelIndication);
    }
    if (muxer_pos(m) >= d->end || at_end_of_input(m))
        return;
    if (is_reader(m)) {
        memset(&d->esDescr, 0, sizeof d->esDescr);
        codeDescriptor(m, bound, 0, Layout::Es, &d->esDescr);
    } else if (d->esDescr.tag) {
        codeDescriptor(m, bound, d->esDescr.tag, Layout::Es, &d->esDescr);
    }
}

// Codes one descriptor. `kind` is the kind of `record`; `tag` is the tag written (ignored when
// reading, where the tag comes from the stream). A descriptor whose tag has another layout than
// `kind` is passed over (its length coded, its body jumped) and the record is left alone.
// Returns true when the descriptor went into (or came from) the record.
bool codeDescriptor(mp4_muxer *m, const Bound &bound, uint8_t tag, Layout kind, void *record) {
    const bool reading = is_reader(m);
    if (!record)
        kind = Layout::Skip;
    // A descriptor needs at least its tag and one length byte inside the box.
    if (reading && muxer_pos(m) + 2 > bound.limit)
        return false;
    rw8(m, &tag);
    if (reading && at_end_of_input(m))
        return false;
    const bool match = kind != Layout::Skip && layoutOf(tag) == kind;
    uint32_t scratch = 0;
    if (!reading && !match && kind != Layout::Skip)
        scratch = *lengthOf(kind, record); // a record under a foreign tag keeps its length
    uint32_t *length = match ? lengthOf(kind, record) : &scratch;
    rwExpandableSize(m, length);
    const uint64_t body = muxer_pos(m);
    uint64_t end = body + *length;
    if (match && !(reading && at_end_of_input(m))) {
        *tagOf(kind, record) = tag;
        switch (kind) {
        case Layout::Iod:
            codeIodBody(m, bound, tag, static_cast<InitialObjectDescriptor *>(record));
            break;
        case Layout::Es:
            codeEsBody(m, bound, static_cast<ES_Descriptor *>(record), body);
            break;
        case Layout::Dcd:
            codeDcdBody(m, bound, static_cast<DecoderConfigDescriptor *>(record), body);
            break;
        case Layout::Dsi:
            end = codeDsiBody(m, bound, static_cast<DecoderSpecificInfo *>(record), body);
            break;
        case Layout::Sl:
            codeSlBody(m, static_cast<SLConfigDescriptor *>(record));
            break;
        case Layout::Skip:
            break;
        }
    }
    moveTo(m, bound, end);
    return match;
}

} // namespace

// `tag` names the kind of `record` (and is the tag written). Reading takes the tag from the
// stream and fills the record only when that tag has the same layout; any other descriptor is
// passed over.
void rwDescriptor(mp4_muxer *m, uint8_t tag, void *record) {
    codeDescriptor(m, Bound{}, tag, layoutOf(tag), record);
}

bool codeEsds(mp4_muxer *m, Box **box, uint64_t start) {
    auto *b = static_cast<Esds *>(extendBox(box, sizeof(Esds)));
    if (!b)
        return false;
    rwFullBox(m, b);
    if (is_reader(m)) {
        Bound bound;
        bound.limit = start + b->size;
        codeDescriptor(m, bound, 0, Layout::Es, &b->es);
    } else if (b->es.tag) {
        // A box read without a descriptor it could decode is written without one.
        codeDescriptor(m, Bound{}, b->es.tag, Layout::Es, &b->es);
    }
    return true;
}

bool codeIods(mp4_muxer *m, Box **box, uint64_t start) {
    auto *b = static_cast<Iods *>(extendBox(box, sizeof(Iods)));
    if (!b)
        return false;
    rwFullBox(m, b);
    b->iod.end = start + b->size;
    if (is_reader(m)) {
        Bound bound;
        bound.limit = b->iod.end;
        codeDescriptor(m, bound, 0, Layout::Iod, &b->iod);
    } else if (b->iod.tag) {
        codeDescriptor(m, Bound{}, b->iod.tag, Layout::Iod, &b->iod);
    }
    return true;
}
