// The reader: loads a movie (or follows a fragmented stream), then walks the sample tables to
// report where each sample lies and when it is decoded. Sample data is never read here.
//
// Every count and index used below comes from the file, so each table access is checked
// against the table's own entry count before it is made, and no loop runs longer than the
// tables that drive it.
#include "internal.h"

#include <cstdio>
#include <cstring>

namespace {

// Audio samples with a zero decode-time delta never catch up with the video time, so a table
// claiming billions of them would keep one call busy for minutes. After this many audio samples
// in a row that do not advance the audio time, the call moves on to its video sample; the audio
// cursor keeps its place for the next call.
constexpr uint32_t MAX_STALLED_AUDIO = 4096;

// A child of the given type whose node holds the full record T. Nodes kept as a bare header
// (an undecoded sample entry, say) are too small to be read as T.
template <class T> T *typedChild(Box *parent, uint32_t type) {
    Box *b = getChild(parent, type);
    if (!b || b->alloc_size < sizeof(T))
        return nullptr;
    return static_cast<T *>(b);
}

template <class T> T *typedBox(Box *b) {
    return (b && b->alloc_size >= sizeof(T)) ? static_cast<T *>(b) : nullptr;
}

Box *findStbl(Box *trak) {
    return getChild(getChild(getChild(trak, fourcc("mdia")), fourcc("minf")), fourcc("stbl"));
}

struct Tables {
    Stts *stts;
    Stsz *stsz;
    Stsc *stsc;
    Stco *stco;
    Co64 *co64;
    Stss *stss;
};

Tables findTables(Box *trak) {
    Box *stbl = findStbl(trak);
    Tables t;
    t.stts = typedChild<Stts>(stbl, fourcc("stts"));
    t.stsz = typedChild<Stsz>(stbl, fourcc("stsz"));
    t.stsc = typedChild<Stsc>(stbl, fourcc("stsc"));
    t.stco = typedChild<Stco>(stbl, fourcc("stco"));
    t.co64 = typedChild<Co64>(stbl, fourcc("co64"));
    t.stss = typedChild<Stss>(stbl, fourcc("stss"));
    return t;
}

// Entry counts that can actually be indexed: a table without its array has none.
uint32_t sttsCount(const Stts *b) {
    return b && b->entries ? b->entry_count : 0;
}
uint32_t stscCount(const Stsc *b) {
    return b && b->entries ? b->entry_count : 0;
}
uint32_t stssCount(const Stss *b) {
    return b && b->entries ? b->entry_count : 0;
}

// Samples an stts entry stands for. An entry of 0 samples still moves the cursor by one, so
// that no walk can stay on it.
uint32_t sttsSamples(const SttsEntry &e) {
    return e.sample_count ? e.sample_count : 1;
}

// Samples that stsz can size: all of them with a constant size, else those in the array.
uint32_t stszCount(const Stsz *b) {
    if (!b)
        return 0;
    if (b->sample_size)
        return b->sample_count;
    return b->entries ? b->sample_count : 0;
}

bool sampleSize(const Stsz *b, uint64_t index, uint32_t *size) {
    if (!b || index >= stszCount(b))
        return false;
    *size = b->sample_size ? b->sample_size : b->entries[index];
    return true;
}

// Sum of the sizes of samples [from, to); false when a sample has no size.
bool sizeSum(const Stsz *b, uint64_t from, uint64_t to, uint64_t *sum) {
    if (from > to || to > stszCount(b))
        return false;
    if (b->sample_size) {
        *sum = (to - from) * b->sample_size;
        return true;
    }
    uint64_t s = 0;
    for (uint64_t i = from; i < to; i++)
        s += b->entries[i];
    *sum = s;
    return true;
}

bool chunkOffset(const Tables &t, uint64_t chunk, uint64_t *offset) {
    if (t.stco && t.stco->entries && chunk < t.stco->entry_count) {
        *offset = t.stco->entries[chunk];
        return true;
    }
    if (t.co64 && t.co64->entries && chunk < t.co64->entry_count) {
        *offset = t.co64->entries[chunk];
        return true;
    }
    return false;
}

// Samples must end inside the mdat found while loading. Without one (movie header first) there
// is nothing to compare with, and every sample is accepted. The header length is deliberately
// not subtracted from the box size.
bool insideMdat(const mp4_muxer *m, uint64_t offset, uint32_t size) {
    if (!m->mdat)
        return true;
    return (unsigned __int128)offset + size < (unsigned __int128)m->mdat->data_pos + m->mdat->size;
}

uint32_t trackNumber(const mp4_muxer *m, const mp4_track *track) {
    if (!m->tracks || track < m->tracks || m->next_track_id < 1)
        return 0;
    size_t index = size_t(track - m->tracks);
    return index < m->next_track_id - 1 ? uint32_t(index + 1) : 0;
}

bool allocTracks(mp4_muxer *m, uint32_t next_track_ID) {
    // mvhd next_track_ID sizes the track array, within the bound every reader of input keeps.
    uint32_t count = bounded_track_records(next_track_ID ? next_track_ID - 1 : 0);
    // One record at least, so that "no track array" keeps meaning "not loaded yet".
    auto *tracks = static_cast<mp4_track *>(mp4_calloc(count ? count : 1, sizeof(mp4_track)));
    if (!tracks) {
        m->error = MP4_ERR_NOMEM;
        return false;
    }
    m->tracks = tracks;
    m->next_track_id = count + 1;
    return true;
}

mp4_track *trackRecord(mp4_muxer *m, uint64_t number) {
    if (!m->tracks || number < 1 || number >= m->next_track_id)
        return nullptr;
    return &m->tracks[number - 1];
}

struct Chosen {
    mp4_track *video = nullptr;
    mp4_track *audio = nullptr;
    Box *video_trak = nullptr;
    Box *audio_trak = nullptr;
};

// The last video and the last audio track, numbered by position among moov's children from the
// first trak on.
Chosen chooseTracks(mp4_muxer *m) {
    Chosen c;
    uint64_t number = 1;
    for (Box *b = getChild(m->moov, fourcc("trak")); b; b = b->next, number++) {
        mp4_track *t = trackRecord(m, number);
        if (!t)
            break;
        if (t->handler_type == fourcc("vide")) {
            c.video = t;
            c.video_trak = b;
        } else if (t->handler_type == fourcc("soun")) {
            c.audio = t;
            c.audio_trak = b;
        }
    }
    return c;
}

bool differentTimescales(const mp4_track *a, const mp4_track *v) {
    return a->timescale != v->timescale;
}

// Whether the audio sample next to the cursor comes before (forwards) or after (backwards) the
// video cursor. Across timescales the times are compared as fractions of a second.
bool audioDue(const mp4_muxer *m, const mp4_track *a, const mp4_track *v, bool reverse) {
    if (m->mixed_timescales && a->timescale != v->timescale && a->timescale && v->timescale) {
        unsigned __int128 at = (unsigned __int128)a->timestamp * v->timescale;
        unsigned __int128 vt = (unsigned __int128)v->timestamp * a->timescale;
        return reverse ? at >= vt : at <= vt;
    }
    return reverse ? a->timestamp >= v->timestamp : a->timestamp <= v->timestamp;
}

int play(mp4_muxer *m, bool reverse, const char *name) {
    if (!m || !is_reader(m)) {
        printf("%s: not a reader muxer\n", name);
        return -1;
    }
    if (!m->moov || !m->tracks) {
        int r = load_moov_and_track(m);
        if (r != 0)
            return r;
    }
    Chosen c = chooseTracks(m);
    if (!c.video)
        return -1;
    uint32_t stalled = 0;
    while (c.audio && audioDue(m, c.audio, c.video, reverse)) {
        if (differentTimescales(c.audio, c.video) && !m->mixed_timescales) {
            printf("can't handle different track timescales\n");
            return -1;
        }
        uint64_t before = c.audio->timestamp;
        int r = reverse ? track_play_reverse(m, c.audio, c.audio_trak)
                        : track_play(m, c.audio, c.audio_trak);
        if (r == -1)
            break;
        if (c.audio->timestamp != before)
            stalled = 0;
        else if (++stalled >= MAX_STALLED_AUDIO)
            break;
    }
    return reverse ? track_play_reverse(m, c.video, c.video_trak)
                   : track_play(m, c.video, c.video_trak);
}

// Video time in the audio timescale, rounded down; saturates rather than wrapping.
uint64_t toTimescale(uint64_t time, uint32_t from, uint32_t to) {
    if (!from || !to || from == to)
        return time;
    unsigned __int128 t = (unsigned __int128)time * to / from;
    return t > UINT64_MAX ? UINT64_MAX : uint64_t(t);
}

// Finds, from the first trak of moov on, a sibling whose tkhd carries track_ID and that holds
// what `want` looks for; a matching track without it does not end the search.
template <class F> uint32_t queryTrack(mp4_muxer *m, uint32_t track_ID, const char *name, F want) {
    if (!m || !is_reader(m)) {
        printf("%s: not a reader muxer\n", name);
        return 0;
    }
    if (!m->moov)
        return 0;
    for (Box *b = getChild(m->moov, fourcc("trak")); b; b = b->next) {
        Tkhd *tkhd = typedChild<Tkhd>(b, fourcc("tkhd"));
        if (!tkhd || tkhd->track_ID != track_ID)
            continue;
        uint32_t value;
        if (want(b, &value))
            return value;
    }
    return 0;
}

Box *findStsd(Box *trak) {
    return getChild(findStbl(trak), fourcc("stsd"));
}

} // namespace

// ---- loading ---------------------------------------------------------------------------------

int load_moov_and_track(mp4_muxer *m) {
    while (!m->moov) {
        Box *box = rwBox(m, nullptr);
        if (!box)
            return -1;
        if (box->type == fourcc("moov")) {
            m->moov = box;
        } else if (box->type == fourcc("mdat")) {
            deleteBox(m->mdat);
            m->mdat = box;
        } else {
            deleteBox(box);
        }
        // The box is kept (or freed) first, so a later call resumes after it with nothing lost.
        if (m->error)
            return -1;
    }
    if (m->tracks)
        return 0;
    Mvhd *mvhd = typedChild<Mvhd>(m->moov, fourcc("mvhd"));
    if (!mvhd || !allocTracks(m, mvhd->next_track_ID))
        return -1;
    uint64_t number = 1;
    for (Box *b = getChild(m->moov, fourcc("trak")); b; b = b->next, number++) {
        mp4_track *t = trackRecord(m, number);
        if (!t)
            break;
        Box *mdia = getChild(b, fourcc("mdia"));
        if (Mdhd *mdhd = typedChild<Mdhd>(mdia, fourcc("mdhd")))
            t->timescale = mdhd->timescale;
        if (Hdlr *hdlr = typedChild<Hdlr>(mdia, fourcc("hdlr")))
            t->handler_type = hdlr->handler_type;
    }
    return 0;
}

extern "C" int mp4_is_fragmented(mp4_muxer *m) {
    if (!m)
        return -1;
    mp4_muxer *r = m;
    if (!is_reader(r)) {
        r = m->linked;
        if (!r || !is_reader(r))
            return -1;
    }
    uint64_t start = muxer_pos(r);
    bool first = true;
    while (!r->moov) {
        Box *box = rwBox(r, nullptr);
        if (!box) {
            muxer_seek(r, start);
            return -1;
        }
        if (first && box->type != fourcc("ftyp")) {
            deleteBox(box);
            muxer_seek(r, start);
            return -1;
        }
        first = false;
        if (box->type == fourcc("moov"))
            r->moov = box;
        else
            deleteBox(box);
    }
    int answer = 1;
    for (Box *trak = getChild(r->moov, fourcc("trak")); trak; trak = trak->next) {
        if (trak->type != fourcc("trak"))
            continue;
        Tkhd *tkhd = typedChild<Tkhd>(trak, fourcc("tkhd"));
        Box *mdia = getChild(trak, fourcc("mdia"));
        Box *minf = getChild(mdia, fourcc("minf"));
        Box *stbl = getChild(minf, fourcc("stbl"));
        Stsd *stsd = typedChild<Stsd>(stbl, fourcc("stsd"));
        Stts *stts = typedChild<Stts>(stbl, fourcc("stts"));
        Stsc *stsc = typedChild<Stsc>(stbl, fourcc("stsc"));
        Stsz *stsz = typedChild<Stsz>(stbl, fourcc("stsz"));
        bool chunks = getChild(stbl, fourcc("stco")) || getChild(stbl, fourcc("co64"));
        if (tkhd && tkhd->track_ID && getChild(mdia, fourcc("mdhd")) &&
            getChild(mdia, fourcc("hdlr")) && minf && stsd && stts && stsc && stsz && chunks &&
            stsd->entry_count && stts->entry_count && stsc->entry_count && stsz->sample_count)
            answer = 0;
    }
    muxer_seek(r, start);
    return answer;
}

void init_timestamps(mp4_muxer *m) {
    Mvhd *mvhd = typedChild<Mvhd>(m->moov, fourcc("mvhd"));
    if (!mvhd) {
        printf(m->moov ? "%s: failed to find mvhd\n" : "%s: failed to find moov\n",
               "init_timestamps");
        return;
    }
    if (!m->tracks && !allocTracks(m, mvhd->next_track_ID)) {
        printf("%s: failed to alloc mux->track for %d tracks\n", "init_timestamps",
               int(mvhd->next_track_ID - 1));
        return;
    }
    Box *mvex = getChild(m->moov, fourcc("mvex"));
    for (Box *b = getChild(mvex, fourcc("trex")); b; b = b->next) {
        Trex *trex = b->type == fourcc("trex") ? typedBox<Trex>(b) : nullptr;
        if (!trex)
            continue;
        if (mp4_track *t = trackRecord(m, trex->track_ID))
            t->default_duration = trex->default_sample_duration;
    }
    for (Box *b = getChild(m->moov, fourcc("trak")); b; b = b->next) {
        if (b->type != fourcc("trak"))
            continue;
        // Tracks without tkhd or with an empty edit list say nothing about a start delay.
        Tkhd *tkhd = typedChild<Tkhd>(b, fourcc("tkhd"));
        Elst *elst = typedChild<Elst>(getChild(b, fourcc("edts")), fourcc("elst"));
        if (!tkhd || !elst || !elst->entry_count || !elst->entries)
            continue;
        if (elst->entries[0].media_time != -1)
            continue;
        if (mp4_track *t = trackRecord(m, tkhd->track_ID)) {
            t->timestamp = elst->entries[0].segment_duration;
            t->frag_time = elst->entries[0].segment_duration;
        }
    }
}

void process_moof(mp4_muxer *m, Box *moof) {
    if (!m->tracks)
        return;
    for (Box *traf = getChild(moof, fourcc("traf")); traf; traf = traf->next) {
        if (traf->type != fourcc("traf"))
            continue;
        Tfhd *tfhd = typedChild<Tfhd>(traf, fourcc("tfhd"));
        if (!tfhd)
            continue;
        mp4_track *t = trackRecord(m, tfhd->track_ID);
        if (!t)
            continue;
        for (Box *b = getChild(traf, fourcc("trun")); b; b = b->next) {
            Trun *trun = b->type == fourcc("trun") ? typedBox<Trun>(b) : nullptr;
            if (!trun)
                continue;
            if ((trun->flags & 0x100) && trun->samples) {
                for (uint32_t i = 0; i < trun->sample_count; i++)
                    t->frag_time += trun->samples[i].sample_duration;
            } else {
                t->frag_time += uint64_t(trun->sample_count) * t->default_duration;
            }
        }
        t->timestamp = t->frag_time;
    }
}

extern "C" void mp4_get_mdat(mp4_muxer *m, uint8_t **data, uint32_t *length) {
    if (!m || !is_reader(m) || !m->buffer) {
        fprintf(stderr, "%s: src is not a buffered reader muxer\n", "mp4_get_mdat");
        return;
    }
    Box *mdat = nullptr;
    while (!at_end_of_input(m)) {
        Box *box = rwBox(m, nullptr);
        if (!box)
            return;
        if (box->type == fourcc("moov")) {
            // A later movie header replaces the stored one (unless a linked handle shares it).
            if (m->moov && !(m->linked && m->linked->moov == m->moov))
                deleteBox(m->moov);
            m->moov = box;
            init_timestamps(m);
        } else if (box->type == fourcc("mdat")) {
            mdat = box;
            break;
        } else if (box->type == fourcc("moof")) {
            process_moof(m, box);
            deleteBox(box);
        } else {
            deleteBox(box);
        }
    }
    if (!mdat)
        return;
    uint64_t payload = mdat->data_pos;
    uint64_t end = muxer_pos(m);
    deleteBox(mdat);
    // The payload is handed out in place, so it must lie inside the caller's buffer.
    if (payload < m->buffer_start || end < payload ||
        end - m->buffer_start > uint64_t(buffer_readable(m)))
        return;
    if (data)
        *data = m->buffer + (payload - m->buffer_start);
    if (length)
        *length = uint32_t(end - payload);
}

// ---- playback --------------------------------------------------------------------------------

int track_play(mp4_muxer *m, mp4_track *track, Box *trak) {
    Tables t = findTables(trak);
    uint32_t flags = 0;
    if (!t.stsz || track->play_sample >= stszCount(t.stsz))
        return -1;
    uint32_t size = 0;
    sampleSize(t.stsz, track->play_sample, &size);
    track->play_sample++; // now the 1-based number of the sample being delivered
    if (track->play_chunk_used == 0 && !chunkOffset(t, track->play_chunk, &track->play_offset))
        return -1;
    track->play_chunk_used++;
    uint32_t nstsc = stscCount(t.stsc);
    if (track->play_stsc_entry >= nstsc)
        return -1;
    // A chunk of 0 samples per chunk ends after every sample; the chunk index then runs off the
    // chunk table, which ends the track above.
    if (track->play_chunk_used >= t.stsc->entries[track->play_stsc_entry].samples_per_chunk) {
        track->play_chunk++;
        uint32_t next = track->play_stsc_entry + 1;
        if (next < nstsc && t.stsc->entries[next].first_chunk == uint64_t(track->play_chunk) + 1)
            track->play_stsc_entry = next;
        track->play_chunk_used = 0;
    }
    uint32_t nstts = sttsCount(t.stts);
    if (track->play_stts_entry >= nstts)
        return -1;
    uint32_t nstss = stssCount(t.stss);
    if (track->play_stss_entry < nstss &&
        t.stss->entries[track->play_stss_entry] == track->play_sample) {
        track->play_stss_entry++;
        flags = 1;
    } else if (track->handler_type == fourcc("soun")) {
        flags = 2;
    }
    if (insideMdat(m, track->play_offset, size))
        report_sample(m, trackNumber(m, track), track->play_offset, track->timestamp, size, flags);
    track->play_offset += size;
    const SttsEntry &e = t.stts->entries[track->play_stts_entry];
    track->timestamp += e.sample_delta;
    if (++track->play_stts_used >= sttsSamples(e)) {
        track->play_stts_entry++;
        track->play_stts_used = 0;
    }
    return 0;
}

int track_play_reverse(mp4_muxer *m, mp4_track *track, Box *trak) {
    Tables t = findTables(trak);
    uint32_t flags = 0;
    if (!t.stsz || track->play_sample == 0)
        return -1;
    uint32_t nstts = sttsCount(t.stts);
    if (!t.stts || track->play_stts_entry > nstts || nstts == 0)
        return -1;
    if (track->play_stts_used == 0 || track->play_stts_entry == nstts) {
        if (track->play_stts_entry > 0)
            track->play_stts_entry--;
        track->play_stts_used = sttsSamples(t.stts->entries[track->play_stts_entry]);
    }
    track->play_stts_used--;
    track->timestamp -= t.stts->entries[track->play_stts_entry].sample_delta;
    uint32_t nstss = stssCount(t.stss);
    if (track->play_stss_entry > 0 && track->play_stss_entry - 1 < nstss &&
        t.stss->entries[track->play_stss_entry - 1] == track->play_sample) {
        flags = 1;
        track->play_stss_entry--;
    } else if (track->handler_type == fourcc("soun")) {
        flags = 2;
    }
    track->play_sample--;
    uint32_t size;
    if (!sampleSize(t.stsz, track->play_sample, &size))
        return -1;
    if (track->play_chunk_used != 0) {
        track->play_offset -= size;
    } else {
        // The sample is the last one of the previous chunk.
        if (track->play_chunk == 0)
            return -1;
        track->play_chunk--;
        if (!chunkOffset(t, track->play_chunk, &track->play_offset))
            return -1;
        uint32_t nstsc = stscCount(t.stsc);
        if (!t.stsc || track->play_stsc_entry > nstsc || nstsc == 0)
            return -1;
        if (track->play_stsc_entry == nstsc ||
            t.stsc->entries[track->play_stsc_entry].first_chunk > uint64_t(track->play_chunk) + 1) {
            if (track->play_stsc_entry == 0)
                return -1;
            track->play_stsc_entry--;
        }
        uint32_t n = t.stsc->entries[track->play_stsc_entry].samples_per_chunk;
        // The chunk must hold the sample and fit in front of it.
        if (n == 0 || n - 1 > track->play_sample)
            return -1;
        uint64_t before;
        if (!sizeSum(t.stsz, track->play_sample - (n - 1), track->play_sample, &before))
            return -1;
        track->play_offset += before;
        track->play_chunk_used = n;
    }
    track->play_chunk_used--;
    if (!insideMdat(m, track->play_offset, size))
        printf("mp4 ignoring sample offset %lu,%u outside of mdat %lu\n",
               (unsigned long)track->play_offset, size,
               (unsigned long)(m->mdat->data_pos + m->mdat->size));
    else
        report_sample(m, trackNumber(m, track), track->play_offset, track->timestamp, size, flags);
    return 0;
}

extern "C" int mp4_play(mp4_muxer *m) {
    return play(m, false, "mp4_play");
}

extern "C" int mp4_play_reverse(mp4_muxer *m) {
    return play(m, true, "mp4_play_reverse");
}

extern "C" void mp4_play_mixed_timescales(mp4_muxer *m, int on) {
    if (m)
        m->mixed_timescales = on ? 1 : 0;
}

// ---- seeking ---------------------------------------------------------------------------------

int track_seek(mp4_track *track, Box *trak, uint64_t time) {
    Tables t = findTables(trak);
    if (!t.stts || !t.stsz || !t.stsc || (!t.stco && !t.co64))
        return -1;

    // The new cursor is built in locals and stored only once it is known to be valid, so that a
    // failed seek leaves the old one in place.
    struct Position {
        uint64_t timestamp;
        uint64_t sample;
        uint32_t stts_entry;
        uint32_t stts_used;
        uint32_t stss_entry;
    };
    Position cur = {0, 0, 0, 0, 0};
    Position sync = cur; // the last sync sample starting before `time`, full 64-bit time

    // Time scan, one stts entry at a time: the samples of an entry all last the same, so the
    // number of them that start before `time` is a division, and the sync samples among them
    // are found by walking stss, not the samples.
    uint32_t nstts = sttsCount(t.stts);
    uint32_t nstss = stssCount(t.stss);
    while (time > cur.timestamp && cur.stts_entry < nstts) {
        const SttsEntry &e = t.stts->entries[cur.stts_entry];
        uint64_t left = sttsSamples(e) - cur.stts_used;
        uint64_t k = left;
        if (e.sample_delta) {
            uint64_t need = (time - cur.timestamp - 1) / e.sample_delta + 1;
            if (need < k)
                k = need;
        }
        uint64_t first = cur.sample + 1; // 1-based number of the first sample taken here
        uint64_t next = first;
        while (cur.stss_entry < nstss && t.stss->entries[cur.stss_entry] >= next &&
               t.stss->entries[cur.stss_entry] < first + k) {
            uint64_t s = t.stss->entries[cur.stss_entry];
            sync.timestamp = cur.timestamp + (s - first) * e.sample_delta;
            sync.sample = s - 1;
            sync.stts_entry = cur.stts_entry;
            sync.stts_used = uint32_t(cur.stts_used + (s - first));
            sync.stss_entry = cur.stss_entry;
            cur.stss_entry++;
            next = s + 1;
        }
        cur.sample += k;
        cur.timestamp += k * e.sample_delta;
        cur.stts_used = uint32_t(cur.stts_used + k);
        if (cur.stts_used >= sttsSamples(e)) {
            cur.stts_entry++;
            cur.stts_used = 0;
        }
    }
    if (t.stss)
        cur = sync;
    if (cur.sample > UINT32_MAX)
        return -1;

    // Chunk location, one stsc entry at a time: within an entry every chunk holds the same
    // number of samples.
    uint32_t nstsc = stscCount(t.stsc);
    if (nstsc == 0)
        return -1;
    uint64_t before = 0; // samples in earlier chunks
    uint64_t chunk = 0;
    uint32_t stsc_entry = 0;
    for (;;) {
        uint32_t spc = t.stsc->entries[stsc_entry].samples_per_chunk;
        if (spc == 0)
            return -1; // no number of such chunks ever reaches the sample
        uint64_t remaining = cur.sample - before;
        if (remaining < spc)
            break;
        uint64_t k = remaining / spc;
        uint64_t switch_at = UINT64_MAX; // chunk index at which the next entry takes over
        if (stsc_entry + 1 < nstsc) {
            uint64_t fc = t.stsc->entries[stsc_entry + 1].first_chunk;
            if (fc >= 1 && fc - 1 > chunk)
                switch_at = fc - 1;
        }
        if (switch_at != UINT64_MAX && k > switch_at - chunk)
            k = switch_at - chunk;
        before += k * spc;
        chunk += k;
        if (chunk == switch_at)
            stsc_entry++;
    }
    if (chunk > UINT32_MAX)
        return -1;
    uint64_t offset = 0;
    if (!chunkOffset(t, chunk, &offset)) {
        // Only the position after the last sample, where a full last chunk leaves the chunk
        // index one past the table, may do without an offset: nothing is read from there.
        if (cur.sample != before || cur.sample < stszCount(t.stsz))
            return -1;
    }
    uint64_t in_chunk;
    if (!sizeSum(t.stsz, before, cur.sample, &in_chunk))
        return -1;

    track->timestamp = cur.timestamp;
    track->play_sample = uint32_t(cur.sample);
    track->play_stts_entry = cur.stts_entry;
    track->play_stts_used = cur.stts_used;
    track->play_stss_entry = cur.stss_entry;
    track->play_stsc_entry = stsc_entry;
    track->play_chunk = uint32_t(chunk);
    track->play_chunk_used = uint32_t(cur.sample - before);
    track->play_offset = offset + in_chunk;
    return 0;
}

extern "C" int mp4_seek(mp4_muxer *m, uint64_t time) {
    if (!m || !is_reader(m)) {
        printf("%s: not a reader muxer\n", "mp4_seek");
        return -1;
    }
    if (!m->moov || !m->tracks) {
        int r = load_moov_and_track(m);
        if (r != 0)
            return r;
    }
    Chosen c = chooseTracks(m);
    if (!c.video)
        return -1;
    int r = track_seek(c.video, c.video_trak, time);
    if (r == 0 && c.audio) {
        uint64_t audio_time = c.video->timestamp;
        if (m->mixed_timescales)
            audio_time = toTimescale(audio_time, c.video->timescale, c.audio->timescale);
        track_seek(c.audio, c.audio_trak, audio_time);
    }
    return r;
}

// ---- queries ---------------------------------------------------------------------------------

extern "C" uint32_t mp4_get_timestamp(mp4_muxer *m, int track) {
    mp4_track *t = (m && track >= 1) ? trackRecord(m, uint64_t(track)) : nullptr;
    if (!t)
        return 0;
    uint32_t now = uint32_t(t->timestamp);
    t->timestamp += t->default_duration;
    return now;
}

extern "C" uint32_t mp4_get_default_duration(mp4_muxer *m, int track) {
    mp4_track *t = (m && track >= 1) ? trackRecord(m, uint64_t(track)) : nullptr;
    return t ? t->default_duration : 0;
}

extern "C" uint32_t mp4_get_fourcc(mp4_muxer *m, uint32_t track_ID) {
    return queryTrack(m, track_ID, "mp4_get_fourcc", [](Box *trak, uint32_t *value) {
        Box *stsd = findStsd(trak);
        if (!stsd || !stsd->first_child)
            return false;
        *value = stsd->first_child->type;
        return true;
    });
}

extern "C" uint32_t mp4_get_timescale(mp4_muxer *m, uint32_t track_ID) {
    return queryTrack(m, track_ID, "mp4_get_timescale", [](Box *trak, uint32_t *value) {
        Mdhd *mdhd = typedChild<Mdhd>(getChild(trak, fourcc("mdia")), fourcc("mdhd"));
        if (!mdhd)
            return false;
        *value = mdhd->timescale;
        return true;
    });
}

extern "C" uint32_t mp4_get_samplerate(mp4_muxer *m, uint32_t track_ID) {
    return queryTrack(m, track_ID, "mp4_get_samplerate", [](Box *trak, uint32_t *value) {
        SampleEntry *mp4a = typedChild<SampleEntry>(findStsd(trak), fourcc("mp4a"));
        if (!mp4a)
            return false;
        *value = mp4a->samplerate >> 16;
        return true;
    });
}
