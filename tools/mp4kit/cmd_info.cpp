// mp4kit info FILE: the movie's layout and, per track, what it holds.
#include "commands.h"

#include "internal.h"

#include <cstdio>
#include <map>

namespace {

struct TrackTotals {
    uint64_t samples = 0;
    uint64_t bytes = 0;
    uint64_t duration = 0; // media timescale
};

// A child holding the full record T (a bare header cannot be read as one).
template <class T> T *typed(Box *parent, uint32_t type) {
    Box *b = getChild(parent, type);
    return (b && b->alloc_size >= sizeof(T)) ? static_cast<T *>(b) : nullptr;
}

template <class T> T *typedBox(Box *b) {
    return (b && b->alloc_size >= sizeof(T)) ? static_cast<T *>(b) : nullptr;
}

Box *stblOf(Box *trak) {
    return getChild(getChild(getChild(trak, fourcc("mdia")), fourcc("minf")), fourcc("stbl"));
}

void fourccText(uint32_t v, char out[5]) {
    for (int i = 0; i < 4; i++) {
        char c = char(v >> (24 - 8 * i));
        out[i] = (c >= 32 && c < 127) ? c : '.';
    }
    out[4] = 0;
}

// Totals from the sample tables of a plain movie.
TrackTotals tableTotals(Box *trak) {
    TrackTotals t;
    Box *stbl = stblOf(trak);
    if (Stsz *stsz = typed<Stsz>(stbl, fourcc("stsz"))) {
        t.samples = stsz->sample_count;
        if (stsz->sample_size)
            t.bytes = uint64_t(stsz->sample_size) * stsz->sample_count;
        else if (stsz->entries)
            for (uint32_t i = 0; i < stsz->sample_count; i++)
                t.bytes += stsz->entries[i];
    }
    if (Stts *stts = typed<Stts>(stbl, fourcc("stts")))
        if (stts->entries)
            for (uint32_t i = 0; i < stts->entry_count; i++)
                t.duration +=
                    uint64_t(stts->entries[i].sample_count) * stts->entries[i].sample_delta;
    return t;
}

// Adds up the samples of one movie fragment per track_ID. Sizes and durations come from the
// trun when it carries them, else from the tfhd defaults, else from the movie's trex.
void addFragment(Box *moov, Box *moof, std::map<uint32_t, TrackTotals> &totals) {
    Box *mvex = getChild(moov, fourcc("mvex"));
    for (Box *traf = getChild(moof, fourcc("traf")); traf; traf = traf->next) {
        if (traf->type != fourcc("traf"))
            continue;
        Tfhd *tfhd = typed<Tfhd>(traf, fourcc("tfhd"));
        if (!tfhd)
            continue;
        uint32_t def_size = 0, def_duration = 0;
        for (Box *b = getChild(mvex, fourcc("trex")); b; b = b->next) {
            Trex *trex = b->type == fourcc("trex") ? typedBox<Trex>(b) : nullptr;
            if (trex && trex->track_ID == tfhd->track_ID) {
                def_size = trex->default_sample_size;
                def_duration = trex->default_sample_duration;
                break;
            }
        }
        if (tfhd->flags & 0x10)
            def_size = tfhd->default_sample_size;
        if (tfhd->flags & 0x08)
            def_duration = tfhd->default_sample_duration;
        TrackTotals &t = totals[tfhd->track_ID];
        for (Box *b = getChild(traf, fourcc("trun")); b; b = b->next) {
            Trun *trun = b->type == fourcc("trun") ? typedBox<Trun>(b) : nullptr;
            if (!trun)
                continue;
            t.samples += trun->sample_count;
            for (uint32_t i = 0; i < trun->sample_count; i++) {
                const TrunSample *s = trun->samples ? &trun->samples[i] : nullptr;
                t.bytes += (s && (trun->flags & 0x200)) ? s->sample_size : def_size;
                t.duration += (s && (trun->flags & 0x100)) ? s->sample_duration : def_duration;
            }
        }
    }
}

void printDuration(uint64_t duration, uint32_t timescale) {
    printf("duration %lu", (unsigned long)duration);
    if (timescale)
        printf(" (%.3f s)", double(duration) / timescale);
}

} // namespace

static int run(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: mp4kit info FILE\n");
        return 2;
    }
    const char *path = argv[1];
    mp4_muxer *m = mp4_reader_create();
    if (!m) {
        fprintf(stderr, "mp4kit info: out of memory\n");
        return 1;
    }
    mp4_file_name_ascii(m, path);
    if (mp4_get_error_code(m)) {
        fprintf(stderr, "mp4kit info: %s: %s\n", path, mp4_get_error(m));
        mp4_delete(m);
        return 1;
    }
    // Loads the movie header and rewinds; -1 when the file does not start with ftyp, in which
    // case the header is looked for anyway.
    int fragmented = mp4_is_fragmented(m);
    if (!m->moov)
        load_moov_and_track(m);
    if (!m->moov) {
        fprintf(stderr, "mp4kit info: %s: no movie header found%s%s\n", path,
                mp4_get_error_code(m) ? ": " : "", mp4_get_error_code(m) ? mp4_get_error(m) : "");
        mp4_delete(m);
        return 1;
    }

    std::map<uint32_t, TrackTotals> fragments;
    unsigned fragment_count = 0;
    if (fragmented == 1) {
        // Walk the whole file once: every moof adds its samples. mdat payloads are skipped.
        for (;;) {
            Box *box = rwBox(m, nullptr);
            if (!box)
                break;
            if (box->type == fourcc("moof")) {
                addFragment(m->moov, box, fragments);
                fragment_count++;
            }
            deleteBox(box);
        }
    }

    Mvhd *mvhd = typed<Mvhd>(m->moov, fourcc("mvhd"));
    unsigned track_count = 0;
    for (Box *b = getChild(m->moov, fourcc("trak")); b; b = b->next)
        track_count += b->type == fourcc("trak");
    printf("%s: %s movie", path, fragmented == 1 ? "fragmented" : "plain");
    if (fragmented == 1)
        printf(" (%u fragments)", fragment_count);
    if (mvhd) {
        printf(", timescale %u, ", mvhd->timescale);
        printDuration(mvhd->duration, mvhd->timescale);
    }
    printf(", %u track%s\n", track_count, track_count == 1 ? "" : "s");

    for (Box *trak = getChild(m->moov, fourcc("trak")); trak; trak = trak->next) {
        if (trak->type != fourcc("trak"))
            continue;
        Tkhd *tkhd = typed<Tkhd>(trak, fourcc("tkhd"));
        Box *mdia = getChild(trak, fourcc("mdia"));
        Mdhd *mdhd = typed<Mdhd>(mdia, fourcc("mdhd"));
        Hdlr *hdlr = typed<Hdlr>(mdia, fourcc("hdlr"));
        Box *stsd = getChild(stblOf(trak), fourcc("stsd"));
        Box *entry = stsd ? stsd->first_child : nullptr;
        uint32_t id = tkhd ? tkhd->track_ID : 0;
        uint32_t handler = hdlr ? hdlr->handler_type : 0;
        uint32_t timescale = mdhd ? mdhd->timescale : 0;
        char h[5], c[5];
        fourccText(handler, h);
        fourccText(entry ? entry->type : 0, c);
        printf("track %u: %s %s", id, h, entry ? c : "----");

        SampleEntry *se = typedBox<SampleEntry>(entry);
        if (handler == fourcc("vide")) {
            uint32_t w = se ? se->width : 0, hgt = se ? se->height : 0;
            if ((!w || !hgt) && tkhd) {
                w = tkhd->width >> 16;
                hgt = tkhd->height >> 16;
            }
            printf(" %ux%u", w, hgt);
        } else if (handler == fourcc("soun") && se) {
            printf(" %u Hz %u ch", se->samplerate >> 16, unsigned(se->channelcount));
        }

        TrackTotals t = tableTotals(trak);
        if (fragmented == 1) {
            auto it = fragments.find(id);
            TrackTotals f = it == fragments.end() ? TrackTotals() : it->second;
            t.samples += f.samples;
            t.bytes += f.bytes;
            t.duration += f.duration;
        } else if (mdhd && mdhd->duration) {
            t.duration = mdhd->duration;
        }
        printf(", timescale %u, ", timescale);
        printDuration(t.duration, timescale);
        printf(", %lu samples, %lu bytes\n", (unsigned long)t.samples, (unsigned long)t.bytes);
    }
    int status = mp4_get_error_code(m) ? 1 : 0;
    if (status)
        fprintf(stderr, "mp4kit info: %s: %s\n", path, mp4_get_error(m));
    mp4_delete(m);
    return status;
}

static CommandRegistrar reg({"info",
                             "info FILE  (layout and tracks of a plain or fragmented movie)", run});
