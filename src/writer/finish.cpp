// Finishing a plain recording: the held audio goes out, the mdat gets its final size, the
// durations and edit lists are computed, and the movie box is written at the end of the file or
// into the room reserved at its start. A recording whose output failed (disk full) is cut back to
// a playable file.
#include "internal.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <sys/stat.h>
#include <unistd.h>
#if defined(__GLIBC__) || defined(__linux__)
#include <stdio_ext.h>
#define MP4KIT_HAVE_FPURGE 1
#endif

namespace {

// a * b / c without overflow of the product; 0 for c = 0; saturates at 2^64 - 1.
uint64_t mulDiv(uint64_t a, uint64_t b, uint64_t c) {
    if (c == 0)
        return 0;
    unsigned __int128 r = (unsigned __int128)a * b / c;
    return r > UINT64_MAX ? UINT64_MAX : uint64_t(r);
}

template <class T> T *child(Box *box, const char (&type)[5]) {
    Box *b = getChild(box, fourcc(type));
    return b && b->alloc_size >= sizeof(T) ? static_cast<T *>(b) : nullptr;
}

Box *stblOf(Box *trak) {
    return getChild(getChild(getChild(trak, fourcc("mdia")), fourcc("minf")), fourcc("stbl"));
}

// The tables of a track cut back to the samples whose bytes end at or before `end`: after a
// failed write the media data past that point is lost or overwritten by the movie.
void trimTrack(Box *trak, uint64_t end) {
    Box *stbl = stblOf(trak);
    Stsz *stsz = child<Stsz>(stbl, "stsz");
    Stsc *stsc = child<Stsc>(stbl, "stsc");
    Stts *stts = child<Stts>(stbl, "stts");
    Stco *stco = child<Stco>(stbl, "stco");
    Co64 *co64 = child<Co64>(stbl, "co64");
    Stss *stss = child<Stss>(stbl, "stss");
    Mdhd *mdhd = child<Mdhd>(getChild(trak, fourcc("mdia")), "mdhd");
    if (!stsz || !stsc || !stts || !(stco || co64))
        return;
    if (!stsz->sample_size && stsz->sample_count && !stsz->entries)
        return;
    // PCM tracks count frames as one-byte samples; their bytes per frame are in the entry.
    uint32_t frame_bytes = stsz->sample_size;
    Box *stsd = getChild(stbl, fourcc("stsd"));
    if (Box *first = stsd ? stsd->first_child : nullptr) {
        const SampleEntry *entry =
            first->alloc_size >= sizeof(SampleEntry) ? static_cast<SampleEntry *>(first) : nullptr;
        if (entry && first->type == fourcc("sowt") && frame_bytes == 1) {
            frame_bytes = entry->version == 1
                              ? entry->bytesPerFrame
                              : uint32_t(entry->channelcount) * entry->samplesize / 8;
            if (frame_bytes == 0)
                frame_bytes = 1;
        }
    }
    const uint32_t chunks = stco ? stco->entry_count : co64->entry_count;
    // Walk the chunks; keep = samples kept, kept_chunks = chunks holding kept samples, and the
    // number of kept samples in the last of them.
    uint64_t keep = 0;
    uint32_t kept_chunks = 0, in_last = 0, total = stsz->sample_count;
    bool cut = false;
    for (uint32_t e = 0; e < stsc->entry_count && !cut; e++) {
        uint32_t first = stsc->entries[e].first_chunk;
        uint32_t last = e + 1 < stsc->entry_count ? stsc->entries[e + 1].first_chunk - 1 : chunks;
        uint32_t per = stsc->entries[e].samples_per_chunk;
        for (uint32_t c = first; c <= last && c >= 1 && c <= chunks && !cut; c++) {
            uint64_t off = stco ? stco->entries[c - 1] : co64->entries[c - 1];
            uint32_t here = 0;
            for (uint32_t s = 0; s < per && keep < total; s++) {
                uint32_t size = stsz->sample_size ? frame_bytes : stsz->entries[keep];
                if (off + size > end) {
                    cut = true;
                    break;
                }
                off += size;
                keep++;
                here++;
            }
            if (here) {
                kept_chunks = c;
                in_last = here;
            }
            if (here < per)
                cut = true;
        }
    }
    if (keep >= total)
        return;
    // The sample-to-chunk map: the entries up to the last kept chunk, and one more when that
    // chunk is kept only in part and shares its entry with earlier chunks.
    uint32_t e = 0;
    while (e < stsc->entry_count && stsc->entries[e].first_chunk <= kept_chunks)
        e++;
    const bool partial = e && stsc->entries[e - 1].samples_per_chunk != in_last;
    if (partial && stsc->entries[e - 1].first_chunk != kept_chunks) {
        StscEntry *grown = nullptr;
        if (realloc_p2(reinterpret_cast<void **>(&grown), 0, e + 1, sizeof(StscEntry)))
            return; // no memory: the tables stay as they are
        memcpy(grown, stsc->entries, e * sizeof(StscEntry));
        grown[e] = StscEntry{kept_chunks, in_last, 1};
        if (stsc->node_flags & BOX_OWNS_ARRAYS)
            mp4_free(stsc->entries);
        stsc->entries = grown;
        stsc->node_flags |= BOX_OWNS_ARRAYS;
        stsc->entry_count = e + 1;
    } else {
        stsc->entry_count = e;
        if (partial)
            stsc->entries[e - 1].samples_per_chunk = in_last;
    }
    stsz->sample_count = uint32_t(keep);
    if (stco)
        stco->entry_count = kept_chunks;
    else
        co64->entry_count = kept_chunks;
    // Times.
    uint64_t left = keep, duration = 0;
    uint32_t n = 0;
    while (n < stts->entry_count && left) {
        SttsEntry &entry = stts->entries[n++];
        if (entry.sample_count > left)
            entry.sample_count = uint32_t(left);
        left -= entry.sample_count;
        duration += uint64_t(entry.sample_count) * entry.sample_delta;
    }
    stts->entry_count = n;
    if (mdhd)
        mdhd->duration = duration;
    if (stss) {
        uint32_t s = 0;
        while (s < stss->entry_count && stss->entries[s] <= keep)
            s++;
        stss->entry_count = s;
    }
}

// The end of the written data of a stdio stream: its real size on disk. Buffered bytes that
// could not be written are dropped first, so that they cannot land anywhere later.
uint64_t streamEnd(FILE *f) {
#ifdef MP4KIT_HAVE_FPURGE
    __fpurge(f);
#endif
    if (fseeko64(f, 0, SEEK_END) < 0)
        perror("fseeko SEEK_END");
    int64_t end = ftello64(f);
    struct stat st;
    if (fstat(fileno(f), &st) == 0 && (end < 0 || st.st_size < end))
        end = st.st_size;
    return end > 0 ? uint64_t(end) : 0;
}

// Cuts the output back to `length` bytes, dropping what its streams still buffer.
static void truncateOutput(mp4_muxer *m, uint64_t length) {
    for (FILE *f : {m->fp, m->fp2}) {
        if (!f)
            continue;
#ifdef MP4KIT_HAVE_FPURGE
        __fpurge(f);
#endif
        if (fileno(f) >= 0 && ftruncate64(fileno(f), off64_t(length)) < 0)
            perror("ftruncate");
    }
    if (m->fd != -1 && ftruncate64(m->fd, off64_t(length)) < 0)
        perror("ftruncate");
}

// The stts of a track moved from timescale `from` to `to`, sample by sample, with the rounding
// carried forward so that the times never drift.
bool rescaleStts(Stts *stts, uint32_t from, uint32_t to) {
    SttsEntry *out = nullptr;
    uint32_t count = 0;
    uint32_t r = 0;
    for (uint32_t i = 0; i < stts->entry_count; i++) {
        const uint32_t d = stts->entries[i].sample_delta;
        for (uint32_t k = 0; k < stts->entries[i].sample_count; k++) {
            uint32_t e = uint32_t(uint64_t(to) * (uint64_t(d) + r) / from);
            r += d - uint32_t(uint64_t(e) * from / to);
            if (count && out[count - 1].sample_delta == e) {
                out[count - 1].sample_count++;
                continue;
            }
            if (realloc_p2(reinterpret_cast<void **>(&out), count, count + 1, sizeof(SttsEntry))) {
                printf("Failed to realloc stts entries\n");
                mp4_free(out);
                return false;
            }
            out[count++] = SttsEntry{1, e};
        }
    }
    if (stts->node_flags & BOX_OWNS_ARRAYS)
        mp4_free(stts->entries);
    stts->entries = out;
    stts->entry_count = count;
    stts->node_flags |= BOX_OWNS_ARRAYS | BOX_AUTO_SIZE;
    return true;
}

// Divisor that brings a constant sample delta of a common frame rate to a small number.
uint32_t deltaDivisor(uint32_t delta) {
    switch (delta) {
    case 1920:
        return 240;
    case 3003:
        return 3;
    case 3600:
    case 7200:
    case 10800:
    case 18000:
        return 3600;
    case 6006:
        return 6;
    case 9009:
        return 9;
    case 15015:
        return 15;
    default:
        return 1;
    }
}

} // namespace

int updateMovieDurations(Box *moov) {
    Mvhd *mvhd = child<Mvhd>(moov, "mvhd");
    if (!mvhd)
        return 0;
    const uint32_t T = mvhd->timescale;

    for (Box *trak = getChild(moov, fourcc("trak")); trak; trak = trak->next) {
        if (trak->type != fourcc("trak"))
            continue;
        Tkhd *tkhd = child<Tkhd>(trak, "tkhd");
        Mdhd *mdhd = child<Mdhd>(getChild(trak, fourcc("mdia")), "mdhd");
        if (!tkhd || !mdhd)
            continue;
        tkhd->duration = mulDiv(T, mdhd->duration, mdhd->timescale);
        Elst *elst = child<Elst>(getChild(trak, fourcc("edts")), "elst");
        if (elst && elst->entry_count && elst->entries && elst->entries[0].media_time == -1)
            tkhd->duration += elst->entries[0].segment_duration;
        if (tkhd->duration > mvhd->duration)
            mvhd->duration = tkhd->duration;
        if (tkhd->duration >= 0x80000000ull)
            mvhd->timescale = 600; // too long for 32-bit durations at 90 kHz
    }
    const uint32_t movie_ts = mvhd->timescale;
    const bool changed = movie_ts != T;
    if (changed)
        mvhd->duration = mulDiv(movie_ts, mvhd->duration, T);

    for (Box *trak = getChild(moov, fourcc("trak")); trak; trak = trak->next) {
        if (trak->type != fourcc("trak"))
            continue;
        Tkhd *tkhd = child<Tkhd>(trak, "tkhd");
        Box *edts = getChild(trak, fourcc("edts"));
        Elst *elst = child<Elst>(edts, "elst");
        Box *mdia = getChild(trak, fourcc("mdia"));
        Mdhd *mdhd = child<Mdhd>(mdia, "mdhd");
        if (tkhd && changed)
            tkhd->duration = mulDiv(movie_ts, tkhd->duration, T);

        if (elst) {
            uint64_t media = mdhd ? mulDiv(movie_ts, mdhd->duration, mdhd->timescale) : 0;
            uint32_t n = 0;
            if (elst->entry_count && elst->entries && elst->entries[0].media_time == -1) {
                if (changed)
                    elst->entries[0].segment_duration =
                        mulDiv(movie_ts, elst->entries[0].segment_duration, T);
                n = 1;
            }
            const bool shorter = tkhd && tkhd->duration < mvhd->duration;
            if (shorter)
                n++;
            // Built once, by the first finish.
            if (elst->entry_count <= n) {
                void *p =
                    mp4_realloc((elst->node_flags & BOX_OWNS_ARRAYS) ? elst->entries : nullptr,
                                size_t(n + 1) * sizeof(ElstEntry));
                if (!p) {
                    printf("Failed to realloc elst entries\n");
                    return 1;
                }
                if (!(elst->node_flags & BOX_OWNS_ARRAYS) && elst->entry_count && elst->entries)
                    memcpy(p, elst->entries, elst->entry_count * sizeof(ElstEntry));
                elst->entries = static_cast<ElstEntry *>(p);
                elst->entry_count = n + 1;
                elst->node_flags |= BOX_OWNS_ARRAYS;
                if (shorter) {
                    elst->entries[n] = ElstEntry{mvhd->duration - tkhd->duration, -1, 1, 0};
                    n--;
                }
                elst->entries[n] = ElstEntry{media, 0, 1, 0};
                edts->node_flags |= BOX_AUTO_SIZE;
                elst->node_flags |= BOX_AUTO_SIZE;
            }
        }

        if (!mdhd)
            continue;
        Box *stbl = getChild(getChild(mdia, fourcc("minf")), fourcc("stbl"));
        Box *stsd = getChild(stbl, fourcc("stsd"));
        if (getChild(stsd, fourcc("sowt"))) {
            if (mdhd->duration >= 0x80000000ull)
                printf("Warning: won't play in quicktime\n");
            continue;
        }
        if (mdhd->timescale == movie_ts)
            continue;
        Stts *stts = child<Stts>(stbl, "stts");
        if (stts && stts->entry_count == 1 && stts->entries) {
            uint32_t div = deltaDivisor(stts->entries[0].sample_delta);
            // Only where the division is exact: a timescale must not lose precision or reach 0.
            if (div > 1 && mdhd->duration / div < 0x80000000ull && mdhd->timescale % div == 0 &&
                mdhd->duration % div == 0) {
                mdhd->timescale /= div;
                mdhd->duration /= div;
                stts->entries[0].sample_delta /= div;
            }
        }
        if (changed && mdhd->timescale == T && T) {
            mdhd->duration = mulDiv(movie_ts, mdhd->duration, T);
            mdhd->timescale = movie_ts;
            if (stts && !rescaleStts(stts, T, movie_ts))
                return 1;
        }
    }
    return 0;
}

extern "C" void mp4_max_file_size(mp4_muxer *m, uint64_t limit) {
    if (m)
        m->max_file_size = limit;
}

extern "C" void mp4_write_movie(mp4_muxer *m) {
    if (!m)
        return;
    if (is_reader(m) && !m->linked)
        return; // a plain reader has no output to finish
    if (!is_reader(m) && m->pos == 0)
        write_ftyp(m);
    if (m->linked) {
        finish_remux_output(m);
        return;
    }
    if (!m->moov) {
        write_fragmented_moov(m);
        return;
    }
    if (!m->mdat) {
        // Finished already: the movie is on file; writing it again would leave a second one.
        fprintf(stderr, "%s: movie already written\n", "mp4_write_movie");
        return;
    }

    if (m->interleave_duration && m->tracks)
        for (uint32_t id = 1; id < m->next_track_id; id++)
            write_interleaved_track(m, id);

    Box *mdat = m->mdat;
    // Its header is 16 bytes once an update of the movie at the start has made it 64-bit.
    const uint64_t header = (mdat->node_flags & BOX_LARGE) ? 16 : 8;
    uint64_t end = muxer_pos(m);
    const bool recovering = m->fp && m->error == MP4_ERR_WRITE;
    if (recovering) {
        uint64_t need = checkBoxSize(m->moov) + 1024;
        end = streamEnd(m->fp);
        if (m->fp2) {
            uint64_t end2 = streamEnd(m->fp2);
            if (end2 < end)
                end = end2;
        }
        if (need > end || end - need < mdat->data_pos) {
            m->error = MP4_ERR_BAD_INPUT;
            return;
        }
        printf("mdat_size=%lu moov_size=%lu pos=%lu fpos=%lu\n", (unsigned long)mdat->size,
               (unsigned long)need, (unsigned long)m->pos, (unsigned long)end);
        end -= need;
        mdat->size = end - mdat->data_pos + header;
        // The samples whose bytes lie past the new end are gone.
        for (Box *trak = getChild(m->moov, fourcc("trak")); trak; trak = trak->next)
            if (trak->type == fourcc("trak"))
                trimTrack(trak, end);
        // Positions are taken from the stream from here on.
        m->pos = end;
        if (fseeko64(m->fp, off64_t(end), SEEK_SET) < 0)
            perror("fseeko");
        if (m->fp2 && fseeko64(m->fp2, off64_t(end), SEEK_SET) < 0)
            perror("fseeko 2");
    }
    if (end != mdat->data_pos + mdat->size - header) {
        printf("inconsistent mdat size\n");
        printf("mdat_offset=%lu mdat_size=%lu pos=%lu\n", (unsigned long)mdat->data_pos,
               (unsigned long)mdat->size, (unsigned long)end);
        m->error = MP4_ERR_BAD_INPUT;
        return;
    }
    updateBoxSize(m, mdat);
    deleteBox(mdat);
    m->mdat = nullptr;

    if (updateMovieDurations(m->moov))
        m->error = MP4_ERR_NOMEM;

    uint64_t media_end = end;
    const uint32_t failures_before = m->write_failures;
    bool at_start = false, blank_region = false;
    uint64_t region = 0;
    // A region exists only when the first sample reserved it (data_pos is set then).
    if (m->max_moov_size && m->moov->data_pos >= 8) {
        uint64_t here = muxer_pos(m);
        region = m->moov->data_pos - 8;
        muxer_seek(m, region);
        printf("max_moov_size=%u moov_interval=%u moov->size=%lu\n", m->max_moov_size,
               m->moov_interval, (unsigned long)m->moov->size);
        // The movie may have grown past the region since the last update, or had none.
        if (!m->moov_full && write_moov_in_region(m)) {
            at_start = true;
            muxer_seek(m, region + m->max_moov_size);
        } else {
            // The movie outgrew its room: it goes to the end, and the room is blanked.
            muxer_seek(m, here);
            m->moov->node_flags |= BOX_AUTO_SIZE;
            blank_region = true;
        }
    }
    if (!at_start)
        rwBox(m, m->moov);
    uint64_t after = muxer_pos(m);
    // Whether the movie reached the file; a movie left in the region stays the file's movie
    // until then.
    const bool movie_written = flush_output(m) && m->write_failures == failures_before;
    if (!movie_written && !m->error)
        m->error = MP4_ERR_WRITE;
    if (blank_region && movie_written) {
        // Only once the movie is at the end: until then the last movie written into the region
        // is the file's movie, so a recording cut off here still plays.
        blank_moov_region(m, region);
        muxer_seek(m, after);
    } else if (blank_region) {
        // The movie in the region stays the file's; what part of the new one got out would
        // only be a broken box after the media.
        truncateOutput(m, media_end);
        return;
    }
    if (m->max_file_size && after > m->max_file_size)
        printf("max file size exceeded %lx > %lx\n", (unsigned long)after,
               (unsigned long)m->max_file_size);
    flush_output(m);
    if (recovering && movie_written) {
        // Nothing after the last box written may stay in the file.
        uint64_t length = at_start ? media_end : after;
        if (ftruncate64(fileno(m->fp), off64_t(length)) < 0)
            perror("ftruncate");
        if (m->fp2 && ftruncate64(fileno(m->fp2), off64_t(length)) < 0)
            perror("ftruncate");
    }
}
