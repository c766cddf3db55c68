// The two remuxers, each a pair of linked handles.
//
// Defragmenting: a reader fed with memory buffers, linked to a writer that produces a plain
// movie. The input's moov becomes the writer's movie tree; while the box codec reads a trun it
// hands every sample to defrag_callback, which finds the sample's bytes in the mdat boxes read
// since the previous moof and writes them through the writer.
//
// Refragmenting: a writer to memory buffers, linked to a reader of a plain movie. The input's
// moov is rewritten for fragments (tables emptied, mvex added), every sample is mapped once,
// and each call copies the audio due up to the next video sample and that video sample, with a
// fragment header after every frag_samples video samples.
//
// Samples cross from one half to the other in stored form (length-prefixed H.264, raw AAC), so
// both remuxers hand them to write_stored_sample, never to the encoder-output path.
#include "internal.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// ---- shared helpers --------------------------------------------------------------------------

uint64_t header_size(const Box *b) {
    return req64(b->size) ? 16 : 8;
}

// The record of the first child of `type`, or null when there is none or the codec kept only
// its header.
template <class T> T *child(Box *box, uint32_t type) {
    Box *c = getChild(box, type);
    return c && c->alloc_size >= sizeof(T) ? static_cast<T *>(c) : nullptr;
}

// Unlinks a box from its parent without touching any size: used for nodes whose sizes cannot
// be trusted, where subtracting them could wrap the ancestors' sizes.
void detach(Box *b) {
    Box *p = b->parent;
    if (p) {
        if (p->first_child == b) {
            p->first_child = b->next;
        } else {
            for (Box *c = p->first_child; c; c = c->next)
                if (c->next == b) {
                    c->next = b->next;
                    break;
                }
        }
    }
    b->parent = nullptr;
    b->next = nullptr;
}

bool is_container(uint32_t type) {
    switch (type) {
    case fourcc("dinf"):
    case fourcc("edts"):
    case fourcc("mdia"):
    case fourcc("minf"):
    case fourcc("moof"):
    case fourcc("moov"):
    case fourcc("mvex"):
    case fourcc("rmda"):
    case fourcc("rmra"):
    case fourcc("stbl"):
    case fourcc("traf"):
    case fourcc("trak"):
        return true;
    default:
        return false;
    }
}

bool es_fits(const ES_Descriptor &es, uint64_t room) {
    const DecoderConfigDescriptor &dc = es.decConfigDescr;
    return es.length <= room && (!(es.present & 1) || dc.length <= es.length) &&
           (!(es.present & 1) || !(dc.present & 1) || dc.decSpecificInfo.length <= dc.length) &&
           (!(es.present & 2) || es.slConfigDescr.length <= es.length);
}

// Whether the descriptor lengths held by an esds or iods fit inside the box. They are written
// back as they stand, and the codec moves to the end each one declares: a length taken from
// hostile input would move the output forward by up to 256 MiB.
bool descriptors_fit(Box *b) {
    if (b->type == fourcc("esds") && b->alloc_size >= sizeof(Esds))
        return es_fits(static_cast<Esds *>(b)->es, b->size);
    if (b->type == fourcc("iods") && b->alloc_size >= sizeof(Iods)) {
        const InitialObjectDescriptor &iod = static_cast<Iods *>(b)->iod;
        return iod.length <= b->size && es_fits(iod.esDescr, iod.length);
    }
    return true;
}

// Prepares a movie tree read from input for being written back.
// - A box that claims to reach beyond its parent's end cannot hold what it claims, and writing
//   it back would move the output forward by whatever the input declared. It is unlinked
//   without touching any size: its claim cannot be subtracted safely. Eight bytes of slack cover
//   a 64-bit header, whose length the node does not record.
// - A box the codec did not decode holds only its header: written back, its content would
//   become zeros, so it goes, and its ancestors shrink by its size (which fits in them). So does
//   a descriptor box whose lengths do not fit in it.
void prepare_for_writing(Box *parent, int depth) {
    if (depth > 32)
        return;
    uint64_t parent_start = parent->data_pos - header_size(parent);
    uint64_t parent_end = parent_start + parent->size;
    for (Box *c = parent->first_child; c;) {
        Box *next = c->next;
        uint64_t start = c->data_pos - header_size(c);
        if (c->size < 8 || start < parent_start || start + c->size < start ||
            start + c->size > parent_end + 8) {
            detach(c);
            deleteBox(c);
        } else if ((!is_container(c->type) && c->alloc_size < recordSize(c->type)) ||
                   !descriptors_fit(c)) {
            deleteBox(c);
        } else {
            prepare_for_writing(c, depth + 1);
        }
        c = next;
    }
}

// Size of the input behind a reader, 0 when unknown (a memory buffer, or a stream that cannot
// seek). Found by seeking to the end and back, which also works for streams without a
// descriptor of their own.
uint64_t input_size(mp4_muxer *r) {
    if (r->fd != -1) {
        off64_t here = lseek64(r->fd, 0, SEEK_CUR);
        off64_t end = here < 0 ? -1 : lseek64(r->fd, 0, SEEK_END);
        if (here >= 0)
            lseek64(r->fd, here, SEEK_SET);
        return end > 0 ? uint64_t(end) : 0;
    }
    if (r->fp) {
        off64_t here = ftello64(r->fp);
        if (here < 0 || fseeko64(r->fp, 0, SEEK_END) != 0)
            return 0;
        off64_t end = ftello64(r->fp);
        fseeko64(r->fp, here, SEEK_SET);
        return end > 0 ? uint64_t(end) : 0;
    }
    return 0;
}

// A movie tree taken from input is written back by the remuxers; it must not claim more bytes
// than the input holds, and is prepared as above. False when it is implausible.
bool plausible_movie(mp4_muxer *src, Box *moov) {
    uint64_t limit = input_size(src);
    if (limit && moov->size > limit)
        return false;
    prepare_for_writing(moov, 0);
    return true;
}

// Makes the track array of `h` hold at least `next` - 1 zero-filled records; records that
// exist are kept. False when the array cannot be grown.
bool ensure_tracks(mp4_muxer *h, uint32_t next) {
    uint32_t have = h->tracks && h->next_track_id > 0 ? h->next_track_id - 1 : 0;
    uint32_t want = next > 0 ? next - 1 : 0;
    if (h->tracks && want <= have)
        return true;
    if (want < have)
        want = have;
    void *p = mp4_realloc(h->tracks, (size_t(want) ? size_t(want) : 1) * sizeof(mp4_track));
    if (!p)
        return false;
    h->tracks = static_cast<mp4_track *>(p);
    if (want > have)
        memset(h->tracks + have, 0, size_t(want - have) * sizeof(mp4_track));
    h->next_track_id = want + 1;
    return true;
}

// The track_ID of a trak, 0 without tkhd.
uint32_t trak_id(Box *trak) {
    auto *tkhd = child<Tkhd>(trak, fourcc("tkhd"));
    return tkhd ? tkhd->track_ID : 0;
}

// The value of next_track_id for a moov: one record per track number its traks use, so that a
// large next_track_ID does not cost a record per unused number, and no more than the bound the
// reader keeps, as records are indexed by track_ID. The movie's next_track_ID is not trusted to
// cover them (ffmpeg's fragmented files give 2 for two tracks). Tracks numbered beyond the
// bound are not copied.
uint32_t records_needed(Box *moov, uint32_t) {
    uint32_t top = 0;
    for (Box *c = getChild(moov, fourcc("trak")); c; c = c->next) {
        uint32_t id = c->type == fourcc("trak") ? trak_id(c) : 0;
        // A number beyond the bound has no record: it does not raise the others' count.
        if (id > top && bounded_track_records(id) == id)
            top = id;
    }
    return top + 1;
}

// Copies what the moov says about each track into a handle's records.
void describe_tracks(mp4_muxer *h, Box *moov) {
    for (Box *trak = getChild(moov, fourcc("trak")); trak; trak = trak->next) {
        if (trak->type != fourcc("trak"))
            continue;
        uint32_t id = trak_id(trak);
        if (id == 0 || id >= h->next_track_id)
            continue;
        mp4_track &t = h->tracks[id - 1];
        Box *mdia = getChild(trak, fourcc("mdia"));
        if (auto *hdlr = child<Hdlr>(mdia, fourcc("hdlr")))
            t.handler_type = hdlr->handler_type;
        if (auto *mdhd = child<Mdhd>(mdia, fourcc("mdhd")))
            t.timescale = mdhd->timescale;
        Box *stsd =
            getChild(getChild(getChild(mdia, fourcc("minf")), fourcc("stbl")), fourcc("stsd"));
        if (stsd && stsd->first_child)
            t.fourcc = stsd->first_child->type;
    }
}

// ---- the chain of mdat boxes waiting for their moof ----------------------------------------
//
// The handle's mdat field holds a header-only holder node; the mdat boxes are its children,
// newest first, so that deleting the holder (here or in mp4_delete) frees them all without
// recursion. The holder's data block is a lookup index over the chain, rebuilt when the chain
// has changed (it cannot change while a moof is being read), so that a moof of n samples over n
// boxes costs n log n instead of n squared.

struct ChainEntry {
    Box *box;
    uint64_t pos;
    uint32_t len;
    uint32_t seq; // arrival order: larger is newer
};

struct ChainIndex {
    Box *head; // the newest box when the index was built
    uint32_t count;
    uint32_t unused;
    // followed by count entries ordered by position, then count ordered by payload length
};

ChainEntry *by_pos(ChainIndex *idx) {
    return reinterpret_cast<ChainEntry *>(idx + 1);
}
ChainEntry *by_len(ChainIndex *idx) {
    return by_pos(idx) + idx->count;
}

// Bytes of payload the codec holds for an mdat (its length is kept in 32 bits).
uint32_t payload_len(const Box *b) {
    return b->size >= 8 ? uint32_t(b->size - 8) : 0;
}

void chain_push(mp4_muxer *m, Box *box) {
    if (!m->mdat)
        m->mdat = newBox(fourcc("mdat"), 0);
    Box *holder = m->mdat;
    box->parent = holder;
    box->next = holder->first_child;
    holder->first_child = box;
    holder->size += box->size;
}

void chain_clear(mp4_muxer *m) {
    deleteBox(m->mdat);
    m->mdat = nullptr;
}

ChainIndex *chain_index(mp4_muxer *m) {
    auto *holder = static_cast<DataBox *>(m->mdat);
    if (!holder)
        return nullptr;
    auto *idx = reinterpret_cast<ChainIndex *>(holder->data);
    if (idx && idx->head == holder->first_child)
        return idx;
    uint32_t n = 0;
    for (Box *b = holder->first_child; b; b = b->next)
        n++;
    auto *fresh = static_cast<ChainIndex *>(
        mp4_malloc(sizeof(ChainIndex) + 2 * size_t(n) * sizeof(ChainEntry)));
    if (!fresh) {
        m->error = MP4_ERR_NOMEM;
        return nullptr;
    }
    fresh->head = holder->first_child;
    fresh->count = n;
    uint32_t i = 0;
    for (Box *b = holder->first_child; b; b = b->next, i++)
        by_pos(fresh)[i] = {b, b->data_pos, payload_len(b), n - 1 - i};
    memcpy(by_len(fresh), by_pos(fresh), size_t(n) * sizeof(ChainEntry));
    std::sort(by_pos(fresh), by_pos(fresh) + n, [](const ChainEntry &a, const ChainEntry &b) {
        return a.pos != b.pos ? a.pos < b.pos : a.seq < b.seq;
    });
    std::sort(by_len(fresh), by_len(fresh) + n, [](const ChainEntry &a, const ChainEntry &b) {
        return a.len != b.len ? a.len < b.len : a.seq > b.seq;
    });
    mp4_free(holder->data);
    holder->data = reinterpret_cast<uint8_t *>(fresh);
    return fresh;
}

bool holds(const ChainEntry &e, uint64_t offset, uint32_t length) {
    if (offset < e.pos)
        return false;
    uint64_t rel = offset - e.pos;
    return rel <= e.len && length <= e.len - rel;
}

// The newest box whose payload holds [offset, offset + length). Boxes of one stream do not
// overlap, so only those starting at the nearest position at or before offset can hold it.
Box *find_holding(ChainIndex *idx, uint64_t offset, uint32_t length) {
    ChainEntry *e = by_pos(idx);
    ChainEntry *it = std::upper_bound(e, e + idx->count, offset,
                                      [](uint64_t v, const ChainEntry &c) { return v < c.pos; });
    if (it == e)
        return nullptr;
    uint64_t nearest = (it - 1)->pos;
    for (ChainEntry *q = it; q != e && (q - 1)->pos == nearest; --q)
        if (holds(*(q - 1), offset, length))
            return (q - 1)->box;
    return nullptr;
}

// The newest box whose payload is exactly `length` bytes long.
Box *find_by_length(ChainIndex *idx, uint32_t length) {
    ChainEntry *e = by_len(idx);
    ChainEntry *it = std::lower_bound(e, e + idx->count, length,
                                      [](const ChainEntry &c, uint32_t v) { return c.len < v; });
    return (it != e + idx->count && it->len == length) ? it->box : nullptr;
}

// The newest box starting at `offset` whose payload length is not `length`.
Box *find_at_position(ChainIndex *idx, uint64_t offset, uint32_t length) {
    ChainEntry *e = by_pos(idx);
    ChainEntry *it = std::upper_bound(e, e + idx->count, offset,
                                      [](uint64_t v, const ChainEntry &c) { return v < c.pos; });
    for (; it != e && (it - 1)->pos == offset; --it)
        if ((it - 1)->len != length)
            return (it - 1)->box;
    return nullptr;
}

// Decode time owed to a track by samples that could not be copied. It is added to the track's
// next copied sample, so that every later sample keeps its decode time and the tracks stay in
// sync; the reader's track record keeps it in `timestamp`.
uint64_t *owed_duration(mp4_muxer *m, uint32_t track_ID) {
    if (!m->tracks || track_ID == 0 || track_ID >= m->next_track_id)
        return nullptr;
    return &m->tracks[track_ID - 1].timestamp;
}

void skip_sample(mp4_muxer *m, uint32_t track_ID, uint32_t duration) {
    if (uint64_t *owed = owed_duration(m, track_ID))
        *owed += duration;
}

uint32_t settle_duration(mp4_muxer *m, uint32_t track_ID, uint32_t duration) {
    uint64_t *owed = owed_duration(m, track_ID);
    if (!owed || !*owed)
        return duration;
    uint64_t total = *owed + duration;
    uint64_t now = total > 0xFFFFFFFFu ? 0xFFFFFFFFu : total;
    *owed = total - now;
    return uint32_t(now);
}

// ---- defragmenting ---------------------------------------------------------------------------

// Takes a moov read from the input as the movie tree of both halves. False ends the pass.
bool adopt_moov(mp4_muxer *m, Box *moov) {
    mp4_muxer *w = m->linked;
    if (m->moov || w->moov) {
        // The writer is already filling a tree; a second one would orphan its tables.
        printf("%s: ignoring another moov\n", "defrag");
        deleteBox(moov);
        return true;
    }
    if (m->error == MP4_ERR_NOMEM) {
        // Memory ran out while it was read: any of its boxes may be missing. An incomplete
        // movie is not written out, nor taken for bad input.
        deleteBox(moov);
        return false;
    }
    if (!plausible_movie(m, moov)) {
        printf("%s: moov larger than its input\n", "defrag");
        m->error = MP4_ERR_BAD_INPUT;
        deleteBox(moov);
        return false;
    }
    // Looked up once the tree is prepared: an mvhd that was not decoded is gone by now.
    auto *mvhd = child<Mvhd>(moov, fourcc("mvhd"));
    if (!mvhd) {
        printf("%s: moov without mvhd\n", "defrag");
        m->error = MP4_ERR_BAD_INPUT;
        deleteBox(moov);
        return false;
    }
    uint32_t next = records_needed(moov, mvhd->next_track_ID);
    // The writer gets records as well: any later track created on the remuxer lands there and
    // grows the array one record at a time from what exists.
    if (!ensure_tracks(w, next) || !ensure_tracks(m, next)) {
        m->error = MP4_ERR_NOMEM;
        deleteBox(moov);
        return false;
    }
    m->moov = moov;
    w->moov = moov;
    describe_tracks(m, moov);
    describe_tracks(w, moov);
    // A stream without an ftyp of its own still makes a file that opens with one.
    if (muxer_pos(w) == 0)
        write_ftyp(w);
    return true;
}

// Bytes of payload actually held in memory for an mdat. The codec keeps the payload right
// behind the record, and a box cut short by the end of its input piece holds only the part that
// arrived, less than its declared length.
uint32_t held_len(const Box *b) {
    auto *d = static_cast<const DataBox *>(b);
    if (!d->data)
        return 0;
    uint32_t declared = payload_len(b);
    if (d->data == reinterpret_cast<const uint8_t *>(d) + sizeof(DataBox) &&
        b->alloc_size >= sizeof(DataBox) && b->alloc_size - sizeof(DataBox) < declared)
        return uint32_t(b->alloc_size - sizeof(DataBox));
    return declared;
}

// Copies the bytes of one sample found in `md` (or, on a file-backed reader, at `offset`).
// Returns the length written: a sample whose mdat arrived cut short keeps only the bytes that
// arrived, and one of which nothing arrived is skipped like a sample that was not found.
uint32_t copy_sample(mp4_muxer *m, Box *md, uint32_t track_ID, uint64_t offset, uint32_t length,
                     uint32_t duration) {
    mp4_muxer *w = m->linked;
    if (m->fp || m->fd != -1) {
        duration = settle_duration(m, track_ID, duration);
        uint32_t held = 0;
        uint8_t *bytes = read_tmp(m, offset, length, &held);
        if (!bytes || (length && !held)) {
            mp4_free(bytes);
            skip_sample(m, track_ID, duration);
            return length;
        }
        write_stored_sample(w, track_ID, bytes, held, duration);
        mp4_free(bytes);
        return held;
    }
    static const uint8_t nothing = 0; // a zero-length sample still needs a valid pointer
    const uint8_t *data = &nothing;
    if (length) {
        uint64_t rel = offset - md->data_pos;
        uint32_t held = held_len(md);
        if (rel >= held) {
            skip_sample(m, track_ID, duration);
            return length;
        }
        if (length > held - rel)
            length = uint32_t(held - rel);
        data = static_cast<DataBox *>(md)->data + rel;
    }
    write_stored_sample(w, track_ID, data, length, settle_duration(m, track_ID, duration));
    return length;
}

// Media data after the fragment header that describes it (the order most fragmented files
// use) has not arrived when the header is read: its samples wait in a queue, bounded like any
// count taken from the input, until their mdat comes.
bool queue_pending(mp4_muxer *m, uint32_t track_ID, uint64_t offset, uint32_t length,
                   uint32_t duration) {
    if (m->pending_count == m->pending_alloc) {
        if (m->pending_alloc >= (1u << 24))
            return false;
        const uint32_t want = m->pending_alloc ? 2 * m->pending_alloc : 64;
        void *p = mp4_realloc(m->pending, size_t(want) * sizeof(PendingSample));
        if (!p) {
            m->error = MP4_ERR_NOMEM;
            return false;
        }
        m->pending = static_cast<PendingSample *>(p);
        m->pending_alloc = want;
    }
    m->pending[m->pending_count++] = PendingSample{offset, track_ID, length, duration, m->moof_seq};
    return true;
}

// Copies, in order, the waiting samples whose data the chain now holds. Once none waits, the
// chain's data has all been taken, and it is emptied so that no later sample is looked for in it.
void resolve_pending(mp4_muxer *m) {
    ChainIndex *idx = chain_index(m);
    uint32_t done = 0;
    for (; idx && done < m->pending_count; done++) {
        const PendingSample p = m->pending[done];
        Box *md = find_holding(idx, p.offset, p.length);
        if (!md)
            break; // later data: the order of the samples is kept
        copy_sample(m, md, p.track, p.offset, p.length, p.duration);
    }
    memmove(m->pending, m->pending + done, size_t(m->pending_count - done) * sizeof(PendingSample));
    m->pending_count -= done;
    if (done && m->pending_count == 0)
        chain_clear(m);
}

// Gives up the waiting samples described by fragment headers before number `before`: their
// data never came. They are skipped as samples whose data cannot be found are.
void drop_pending(mp4_muxer *m, uint32_t before) {
    uint32_t kept = 0;
    for (uint32_t i = 0; i < m->pending_count; i++) {
        const PendingSample p = m->pending[i];
        if (p.moof >= before) {
            m->pending[kept++] = p;
            continue;
        }
        printf("%s: failed to find a MDAT containing referenced track data at offset %lu "
               "len=%u\n",
               "defrag_callback", (unsigned long)p.offset, p.length);
        skip_sample(m, p.track, p.duration);
    }
    m->pending_count = kept;
}

} // namespace

uint32_t defrag_callback(mp4_muxer *m, uint32_t track_ID, uint64_t offset, uint32_t length,
                         uint32_t duration) {
    mp4_muxer *w = m ? m->linked : nullptr;
    if (!w || offset == 0)
        return length;
    offset -= uint64_t(int64_t(m->buffer_adjust));
    if (!w->moov || track_ID == 0 || track_ID >= w->next_track_id)
        return length; // no movie to record it in, or no such track
    // A run without durations takes the trex default, which fragmenters that put theirs in
    // the track fragment header leave at 0 (ffmpeg among them): a sample lasts no time then.
    if (duration == 0)
        duration = m->tfhd_duration;

    ChainIndex *idx = chain_index(m);
    Box *md = idx ? find_holding(idx, offset, length) : nullptr;
    // No media data held, and the sample's lies ahead: it follows this fragment header.
    if (!md && !idx && !m->error && offset >= muxer_pos(m) &&
        queue_pending(m, track_ID, offset, length, duration))
        return length;
    if (!md) {
        printf("%s: failed to find a MDAT containing referenced track data at offset %lu "
               "len=%u\n",
               "defrag_callback", (unsigned long)offset, length);
        if (idx && (md = find_by_length(idx, length))) {
            // One sample per mdat: a box of exactly this length is the sample, and the distance
            // to it applies to every later sample.
            m->buffer_adjust =
                int32_t(uint32_t(m->buffer_adjust) + uint32_t(offset - md->data_pos));
            offset = md->data_pos;
            printf("%s: buffer_adjust is %d\n", "defrag_callback", m->buffer_adjust);
        } else if (idx && (md = find_at_position(idx, offset, length))) {
            length = payload_len(md);
        }
        if (!md) {
            if (idx && idx->count > 500)
                m->error = MP4_ERR_NO_MDAT;
            skip_sample(m, track_ID, duration);
            return length;
        }
    }
    return copy_sample(m, md, track_ID, offset, length, duration);
}

void defrag(mp4_muxer *m) {
    if (!m || !m->linked)
        return;
    mp4_muxer *w = m->linked;
    while (!at_end_of_input(m)) {
        m->parent = nullptr;
        Box *box = rwBox(m, nullptr);
        if (!box)
            break;
        bool go_on = true;
        switch (box->type) {
        case fourcc("moov"):
            go_on = adopt_moov(m, box);
            break;
        case fourcc("mdat"):
            chain_push(m, box);
            if (m->pending_count)
                resolve_pending(m);
            break;
        case fourcc("moof"):
            // Its samples were copied while it was read, or wait for the data after it; the
            // data before it is done with, and so are samples of earlier headers still waiting.
            drop_pending(m, m->moof_seq);
            m->moof_seq++;
            chain_clear(m);
            deleteBox(box);
            break;
        case fourcc("ftyp"):
            // Only at the very start of the output: later it would land inside the media data.
            if (muxer_pos(w) == 0)
                rwBox(w, box);
            deleteBox(box);
            break;
        default:
            deleteBox(box);
            break;
        }
        if (!go_on || m->error)
            break;
    }
}

// ---- refragmenting ---------------------------------------------------------------------------

namespace {

// Shrinks a box, and its ancestors by the same amount, to `size` bytes; nothing is changed
// unless every ancestor is large enough for that to stay consistent.
void shrink_box(Box *box, uint64_t size) {
    if (!box || box->size <= size)
        return;
    uint64_t d = box->size - size;
    for (Box *a = box; a; a = a->parent)
        if (a->size < d)
            return;
    for (Box *a = box; a; a = a->parent)
        a->size -= d;
}

struct Tables {
    Tkhd *tkhd;
    Mdhd *mdhd;
    Hdlr *hdlr;
    Box *stsd;
    Stts *stts;
    Stsc *stsc;
    Stsz *stsz;
    Stco *stco;
    Co64 *co64;
    Stss *stss;
};

// Looks up the boxes a track needs to be copied; false when one is missing or inconsistent.
bool find_tables(Box *trak, Tables &t) {
    t.tkhd = child<Tkhd>(trak, fourcc("tkhd"));
    Box *mdia = getChild(trak, fourcc("mdia"));
    t.mdhd = child<Mdhd>(mdia, fourcc("mdhd"));
    t.hdlr = child<Hdlr>(mdia, fourcc("hdlr"));
    Box *minf = getChild(mdia, fourcc("minf"));
    Box *stbl = getChild(minf, fourcc("stbl"));
    t.stsd = getChild(stbl, fourcc("stsd"));
    t.stts = child<Stts>(stbl, fourcc("stts"));
    t.stsc = child<Stsc>(stbl, fourcc("stsc"));
    t.stsz = child<Stsz>(stbl, fourcc("stsz"));
    t.stco = child<Stco>(stbl, fourcc("stco"));
    t.co64 = child<Co64>(stbl, fourcc("co64"));
    t.stss = child<Stss>(stbl, fourcc("stss"));
    if (!t.tkhd || !mdia || !t.mdhd || !t.hdlr || !minf || !stbl || !t.stsd || !t.stts || !t.stsc ||
        !t.stsz || (!t.stco && !t.co64))
        return false;
    // Without a first stts entry there is no default duration and no sample has a duration.
    if (t.stts->entry_count == 0 || !t.stts->entries)
        return false;
    if (t.stsc->entry_count && !t.stsc->entries)
        return false;
    if (t.stsz->sample_size == 0 && t.stsz->sample_count && !t.stsz->entries)
        return false;
    if (t.stco ? (t.stco->entry_count && !t.stco->entries)
               : (t.co64->entry_count && !t.co64->entries))
        return false;
    return true;
}

// Bytes of one sample of a constant-size table. QuickTime PCM counts every frame as a sample of
// size 1 while a frame takes channels x sample bytes (the sound description says how many); the
// map needs the bytes, or it would copy a fraction of the audio.
uint32_t constant_size(const Tables &t, uint32_t handler_type) {
    uint32_t size = t.stsz->sample_size;
    Box *entry = t.stsd->first_child;
    if (size != 1 || handler_type != fourcc("soun") || !entry ||
        entry->alloc_size < sizeof(SampleEntry))
        return size;
    auto *sound = static_cast<SampleEntry *>(entry);
    if (sound->version == 1 && sound->bytesPerFrame > 1)
        return sound->bytesPerFrame;
    uint32_t frame = uint32_t(sound->channelcount) * (sound->samplesize / 8u);
    return sound->version != 1 && frame > 1 ? frame : size;
}

// Fills `map` with the position, size and duration of every sample the tables describe (each of
// `constant` bytes when that is non-zero), the first `samples` at most; every index stays below
// the entry count of its table. Returns the number of samples mapped.
uint32_t map_samples(const Tables &t, uint32_t constant, uint32_t samples, mp4_sample *map) {
    uint32_t chunks = t.stco ? t.stco->entry_count : t.co64->entry_count;
    uint32_t stsc_i = 0, sample_i = 0, stts_i = 0, stts_used = 0;
    for (uint32_t c = 0; c < chunks && t.stsc->entry_count && sample_i < samples; c++) {
        if (stsc_i + 1 < t.stsc->entry_count && t.stsc->entries[stsc_i + 1].first_chunk == c + 1)
            stsc_i++;
        uint64_t offset = t.stco ? t.stco->entries[c] : t.co64->entries[c];
        uint32_t per_chunk = t.stsc->entries[stsc_i].samples_per_chunk;
        for (uint32_t k = 0; k < per_chunk && sample_i < samples; k++) {
            while (stts_i < t.stts->entry_count && t.stts->entries[stts_i].sample_count == 0)
                stts_i++;
            if (stts_i >= t.stts->entry_count)
                return sample_i;
            // A constant-size table has no per-sample entries: every sample has that size.
            uint32_t size = constant ? constant : t.stsz->entries[sample_i];
            map[sample_i] = {offset, size, t.stts->entries[stts_i].sample_delta};
            offset += size;
            if (++stts_used >= t.stts->entries[stts_i].sample_count) {
                stts_i++;
                stts_used = 0;
            }
            sample_i++;
        }
    }
    return sample_i;
}

void map_track(mp4_muxer *r, uint32_t movie_next, Box *mvex, Box *trak) {
    Tables t;
    if (!find_tables(trak, t))
        return;
    uint32_t id = t.tkhd->track_ID;
    if (id == 0 || id >= movie_next || id >= r->next_track_id)
        return;
    mp4_track &rec = r->tracks[id - 1];
    if (rec.samples)
        return; // a second trak with the same track_ID: the first one keeps the record

    // A constant-size table has no entry per sample, so its sample_count costs the input
    // nothing; no more samples are mapped than the input could hold at that size.
    const uint32_t constant = constant_size(t, t.hdlr->handler_type);
    const uint64_t limit = input_size(r);
    uint32_t samples = t.stsz->sample_count;
    if (constant && limit && samples > limit / constant)
        samples = uint32_t(limit / constant);
    auto *map = static_cast<mp4_sample *>(mp4_calloc(samples, sizeof(mp4_sample)));
    if (!map) {
        r->error = MP4_ERR_NOMEM;
        return;
    }
    uint32_t first_delta = t.stts->entries[0].sample_delta;
    rec.handler_type = t.hdlr->handler_type;
    rec.handler_name = t.hdlr->name;
    if (t.stsd->first_child)
        rec.fourcc = t.stsd->first_child->type;
    if (rec.handler_type == fourcc("vide"))
        r->frag_samples = t.stsc->entry_count ? t.stsc->entries[0].samples_per_chunk : 0;

    auto *trex = static_cast<Trex *>(newBox(fourcc("trex"), 32));
    trex->track_ID = id;
    trex->default_sample_description_index = 1;
    trex->default_sample_duration = first_delta;
    addBox(trex, mvex);

    rec.samples = map;
    // Samples the chunks do not reach are not copied.
    rec.sample_alloc = map_samples(t, constant, samples, map);
    // Nor is anything the input does not hold: a sample reaching past its end keeps the bytes
    // that exist, so no table entry can make a copy larger than the file.
    if (limit) {
        for (uint32_t i = 0; i < rec.sample_alloc; i++) {
            mp4_sample &s = map[i];
            uint64_t room = s.offset < limit ? limit - s.offset : 0;
            if (s.size > room)
                s.size = uint32_t(room);
        }
    }
    rec.sample_count = 0;
    rec.default_duration = first_delta;
    rec.timescale = t.mdhd->timescale;

    // The samples now travel in fragments. The tables are emptied (their arrays stay, unused);
    // stss goes too, or the sync samples would be listed twice once the fragments are turned
    // back into a plain movie; and the media duration restarts at 0 for the same reason.
    t.stts->entry_count = 0;
    t.stsc->entry_count = 0;
    t.stsz->sample_count = 0;
    shrink_box(t.stts, 16);
    shrink_box(t.stsc, 16);
    shrink_box(t.stsz, 20);
    if (t.stco) {
        t.stco->entry_count = 0;
        shrink_box(t.stco, 16);
    } else {
        t.co64->entry_count = 0;
        shrink_box(t.co64, 16);
    }
    if (t.stss) {
        t.stss->entry_count = 0;
        shrink_box(t.stss, 16);
    }
    t.mdhd->duration = 0;
}

bool alloc_reader_tracks(mp4_muxer *r, Mvhd *mvhd) {
    if (r->tracks)
        return true;
    uint32_t next = records_needed(r->moov, mvhd->next_track_ID);
    r->tracks = static_cast<mp4_track *>(mp4_calloc(next - 1, sizeof(mp4_track)));
    if (!r->tracks)
        return false;
    r->next_track_id = next;
    return true;
}

} // namespace

void refrag_moov(mp4_muxer *r) {
    if (!r || !r->moov)
        return;
    Box *moov = r->moov;
    auto *mvhd = child<Mvhd>(moov, fourcc("mvhd"));
    if (!mvhd || !alloc_reader_tracks(r, mvhd))
        return;

    // An mvex already present describes fragments that are not copied.
    for (Box *c = moov->first_child; c;) {
        Box *next = c->next;
        if (c->type == fourcc("mvex"))
            deleteBox(c);
        c = next;
    }
    Box *mvex = newBox(fourcc("mvex"), 8);
    Box *first_trak = getChild(moov, fourcc("trak"));
    Box *before = nullptr;
    for (Box *c = moov->first_child; c && c != first_trak; c = c->next)
        before = c;
    if (first_trak && before)
        insertBoxAfter(mvex, before); // right in front of the first trak
    else
        addBox(mvex, moov); // no trak, or trak first: the end of the moov still announces it

    for (Box *c = first_trak; c; c = c->next)
        if (c->type == fourcc("trak"))
            map_track(r, mvhd->next_track_ID, mvex, c);
}

void refrag_sample(mp4_muxer *r, mp4_muxer *m, uint32_t track) {
    if (!r || !m || !r->tracks || track == 0 || track >= r->next_track_id)
        return;
    mp4_track &t = r->tracks[track - 1];
    if (!t.samples || t.sample_count >= t.sample_alloc)
        return;
    mp4_sample s = t.samples[t.sample_count++];
    // A sample keeps the bytes the input holds, however large its recorded size.
    uint32_t held = 0;
    uint8_t *bytes = read_tmp(r, s.offset, s.size, &held);
    if (!bytes) {
        m->error = MP4_ERR_NOMEM;
        return;
    }
    write_stored_sample(m, track, bytes, held, s.duration);
    t.timestamp += s.duration;
    mp4_free(bytes);
}

void refrag(mp4_muxer *m) {
    mp4_muxer *r = m ? m->linked : nullptr;
    if (!r || !is_reader(r) || is_reader(m))
        return;

    // Input start: the ftyp goes out as it is; reading stops at the moov.
    while (!r->moov || muxer_pos(m) == 0) {
        r->parent = nullptr;
        Box *box = rwBox(r, nullptr);
        if (!box)
            return;
        if (m->error) {
            deleteBox(box);
            return;
        }
        if (box->type == fourcc("moov")) {
            if (r->moov)
                deleteBox(box); // loaded already (mp4_is_fragmented); that one is used
            else
                r->moov = box;
            break;
        }
        if (box->type == fourcc("ftyp") && muxer_pos(m) == 0)
            rwBox(m, box);
        deleteBox(box);
    }

    if (!m->tracks) {
        if (r->error == MP4_ERR_NOMEM) {
            // Memory ran out while the movie was read: any of its boxes may be missing, and an
            // incomplete movie is neither written out nor taken for bad input.
            m->error = MP4_ERR_NOMEM;
            return;
        }
        if (!plausible_movie(r, r->moov)) {
            printf("%s: moov larger than its input\n", "refrag");
            m->error = MP4_ERR_BAD_INPUT;
            return;
        }
        // Looked up once the tree is prepared: an mvhd that was not decoded is gone by now.
        auto *mvhd = child<Mvhd>(r->moov, fourcc("mvhd"));
        if (!mvhd) {
            printf("%s: moov without mvhd\n", "refrag");
            m->error = MP4_ERR_BAD_INPUT;
            return;
        }
        // Both arrays first, so that a failure leaves nothing half done for the next call.
        if (!alloc_reader_tracks(r, mvhd)) {
            m->error = MP4_ERR_NOMEM;
            return;
        }
        auto *tracks =
            static_cast<mp4_track *>(mp4_calloc(r->next_track_id - 1, sizeof(mp4_track)));
        if (!tracks) {
            m->error = MP4_ERR_NOMEM;
            return;
        }
        refrag_moov(r);
        init_timestamps(r);
        rwBox(m, r->moov);
        m->tracks = tracks;
        m->next_track_id = r->next_track_id;
        for (uint32_t i = 0; i + 1 < r->next_track_id; i++) {
            m->tracks[i].default_duration = r->tracks[i].default_duration;
            m->tracks[i].default_flags = r->tracks[i].default_flags;
            m->tracks[i].default_size = r->tracks[i].default_size;
        }
    }

    uint32_t audio = 0, video = 0;
    uint64_t audio_scale = 1, video_scale = 1;
    for (uint32_t id = 1; id < r->next_track_id && r->tracks; id++) {
        const mp4_track &t = r->tracks[id - 1];
        if (t.handler_type == fourcc("soun")) {
            audio = id;
            audio_scale = t.timescale;
        } else if (t.handler_type == fourcc("vide")) {
            video = id;
            video_scale = t.timescale;
        } else if (t.handler_type) {
            printf("unknown handler type: %c%c%c%c\n", char(t.handler_type >> 24),
                   char(t.handler_type >> 16), char(t.handler_type >> 8), char(t.handler_type));
        }
    }
    if (audio_scale == video_scale)
        audio_scale = video_scale = 1;

    mp4_track *a = audio ? &r->tracks[audio - 1] : nullptr;
    mp4_track *v = video ? &r->tracks[video - 1] : nullptr;
    bool video_left = v && v->sample_count < v->sample_alloc;
    while (a && a->sample_count < a->sample_alloc) {
        // Audio goes first up to the next video sample's time; products in 128 bits so that
        // no timestamp and timescale can overflow the comparison.
        if (video_left && (unsigned __int128)a->timestamp * video_scale >
                              (unsigned __int128)v->timestamp * audio_scale)
            break;
        refrag_sample(r, m, audio);
    }
    if (!video_left)
        return;
    refrag_sample(r, m, video);
    // frag_samples 0 (a first chunk of no samples) means no fragment header is ever due.
    if (r->frag_samples && v->sample_count % r->frag_samples == 0)
        mp4_write_frag_header(m);
}

namespace {

// The movie is the last box of the output, and a box read from input may end in bytes that are
// passed over rather than written (a gap the codec leaves when a box comes out shorter than it
// was declared). A file does not grow by a seek, so it is extended to the position explicitly:
// otherwise it would end before the movie does.
void extend_to_position(mp4_muxer *w) {
    uint64_t end = muxer_pos(w);
    flush_output(w);
    for (int fd : {w->fd, w->fp ? fileno(w->fp) : -1, w->fp2 ? fileno(w->fp2) : -1}) {
        struct stat st;
        if (fd >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && uint64_t(st.st_size) < end)
            if (ftruncate64(fd, off64_t(end)) != 0)
                w->error = MP4_ERR_WRITE;
    }
}

} // namespace

// ---- handles and dispatch --------------------------------------------------------------------

extern "C" mp4_muxer *mp4_remuxer_create(void) {
    mp4_muxer *m = mp4_reader_create();
    if (!m)
        return nullptr;
    mp4_muxer *w = mp4_writer_create();
    if (!w) {
        mp4_delete(m);
        return nullptr;
    }
    m->linked = w;
    m->flags |= MP4_REMUXER;
    m->remux_callback = defrag_callback;
    return m;
}

extern "C" mp4_muxer *mp4_refrag_create(void) {
    mp4_muxer *m = mp4_writer_create();
    if (!m)
        return nullptr;
    mp4_muxer *r = mp4_reader_create();
    if (!r) {
        mp4_delete(m);
        return nullptr;
    }
    m->linked = r;
    return m;
}

extern "C" void mp4_remux(mp4_muxer *m) {
    if (!m || !m->linked || is_reader(m) == is_reader(m->linked)) {
        fprintf(stderr, "%s: not a remuxable handle\n", "mp4_remux");
        return;
    }
    if (is_reader(m))
        defrag(m);
    else
        refrag(m);
}

void finish_remux_output(mp4_muxer *m) {
    if (!m || !m->linked)
        return;
    mp4_muxer *w = m->linked;
    if (is_reader(m) && !is_reader(w)) {
        // Defragmenting: close the writer's mdat, drop the fragment announcement and write the
        // completed movie after the media data. Samples still waiting for data never get it.
        drop_pending(m, UINT32_MAX);
        if (w->mdat) {
            updateBoxSize(w, w->mdat);
            deleteBox(w->mdat);
            w->mdat = nullptr;
        }
        if (w->moov) {
            for (Box *c = w->moov->first_child; c;) {
                Box *next = c->next;
                if (c->type == fourcc("mvex"))
                    deleteBox(c);
                c = next;
            }
            if (updateMovieDurations(w->moov))
                w->error = MP4_ERR_NOMEM;
            rwBox(w, w->moov);
            extend_to_position(w);
        }
        return;
    }
    if (!is_reader(m) && is_reader(w)) {
        // Refragmenting: the only thing left to finish is a fragment still open.
        uint32_t tracks = m->tracks && m->next_track_id ? m->next_track_id - 1 : 0;
        for (uint32_t i = 0; i < tracks; i++) {
            if (m->tracks[i].sample_count) {
                mp4_write_frag_header(m);
                return;
            }
        }
    }
}
