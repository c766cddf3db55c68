// A movie header kept at the start of the file: reserved before the first sample and rewritten
// within its region as the recording goes, so that a recording cut off at any moment stays
// playable.
#include "internal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <unistd.h>

extern "C" void mp4_set_moov_mode(mp4_muxer *m, uint32_t max_moov_size, uint32_t interval) {
    if (!m)
        return;
    // The reservation is made at the first sample and keeps its size from then on: the region
    // on file would no longer match a new one.
    if (!m->moov)
        m->max_moov_size = max_moov_size;
    m->moov_interval = interval;
}

extern "C" void mp4_set_moov_max_duration(mp4_muxer *m, uint32_t max_minutes,
                                          uint32_t interval_seconds) {
    if (!m)
        return;
    m->moov_max_minutes = max_minutes;
    // An interval beyond what the field holds saturates instead of wrapping to a short one,
    // which would rewrite the movie far more often than asked.
    uint64_t ticks = uint64_t(interval_seconds) * 90000;
    m->moov_interval = max_minutes ? (ticks > 0xFFFFFFFFu ? 0xFFFFFFFFu : uint32_t(ticks)) : 0;
    printf("%s: max_minutes=%u interval_seconds=%u\n", "mp4_set_moov_max_duration", max_minutes,
           interval_seconds);
}

// Frames in max_minutes of a track of `timescale` ticks per second and `dur` ticks per frame,
// saturated: with a huge timescale and a short duration the count exceeds 32 bits, and a
// wrapped count would stand for a short recording.
static uint32_t frames_for(uint32_t minutes, uint32_t timescale, uint32_t dur) {
    unsigned __int128 frames = (unsigned __int128)minutes * timescale * 60 / dur;
    return frames > 0xFFFFFFFFu ? 0xFFFFFFFFu : uint32_t(frames);
}

// The largest reservation: the movie in the region is coded in memory and put out in one write
// of at most 0x7FFFFFFF bytes, so a larger one could never be updated.
static const uint64_t MAX_ESTIMATE = 0x7FFF8000u;

static uint32_t padding_type(const mp4_muxer *m) {
    return (m->flags & MP4_MOV) ? fourcc("wide") : fourcc("free");
}

// The exact size the movie codes to as it now stands at `at`, found by coding it into a handle
// that has no output. The prediction of checkBoxSize cannot serve: the reservation size sits in
// the movie node, and sample entries without a layout (subtitles) are left out of it. So when
// that handle cannot be allocated the size is unknown: UNMEASURED, with error 2.
static const uint64_t UNMEASURED = UINT64_MAX;

static uint64_t coded_movie_size(mp4_muxer *m, uint64_t at) {
    mp4_muxer *probe = mp4_writer_create();
    if (!probe) {
        m->error = MP4_ERR_NOMEM;
        return UNMEASURED;
    }
    probe->flags |= uint8_t(m->flags & MP4_MOV);
    probe->pos = probe->max_pos = at;
    Box *moov = m->moov;
    const uint64_t reserved = moov->size;
    const uint8_t node_flags = moov->node_flags;
    moov->node_flags |= BOX_AUTO_SIZE;
    rwBox(probe, moov);
    const uint64_t size = probe->pos - at;
    moov->size = reserved;
    moov->node_flags = node_flags;
    mp4_delete(probe);
    return size;
}

static bool fits(const mp4_muxer *m, uint64_t size) {
    // The codec pads a fixed-size box only when more than 8 bytes are left; a smaller gap would
    // leave stale bytes inside the movie box, where a reader may take them for a child box.
    return size != UNMEASURED && (size == m->max_moov_size || size + 8 < m->max_moov_size);
}

void setup_moov_at_start(mp4_muxer *m) {
    if (m->moov_max_minutes) {
        const uint32_t minutes = m->moov_max_minutes;
        uint32_t video_dur = 1501, audio_dur = 1920; // defaults in 90 kHz ticks
        uint32_t video_frames = frames_for(minutes, 90000, video_dur);
        uint32_t audio_frames = frames_for(minutes, 90000, audio_dur);
        for (uint32_t i = 0; m->tracks && i + 1 < m->next_track_id; i++) {
            const mp4_track &t = m->tracks[i];
            // A track without a default duration cannot be counted; it keeps the default.
            if (t.default_duration == 0)
                continue;
            if (t.handler_type == fourcc("vide")) {
                video_dur = t.default_duration;
                video_frames = frames_for(minutes, t.timescale, video_dur);
                printf("video_dur=%u timescale=%u track=%d\n", video_dur, t.timescale, int(i));
            } else if (t.handler_type == fourcc("soun")) {
                audio_dur = t.default_duration;
                audio_frames = frames_for(minutes, t.timescale, audio_dur);
                printf("audio_dur=%u timescale=%u track=%d\n", audio_dur, t.timescale, int(i));
            }
        }
        // In 64 bits and capped: the sum wrapped in 32 bits left a long recording a reservation
        // of a few KiB (or of any size at all).
        uint64_t estimate = uint64_t(audio_frames) * 10 + uint64_t(video_frames) * 12 + 0xFFFF;
        m->max_moov_size = uint32_t(std::min(estimate, MAX_ESTIMATE) & ~uint64_t(0x7FFF));
        printf("%s: max_minutes=%u video_dur=%u audio_dur=%u next_track_id=%u\n",
               "setup_moov_at_start", minutes, video_dur, audio_dur, m->next_track_id);
        printf("%s: video_frames=%u audio_frames=%u est_size=%u\n", "setup_moov_at_start",
               video_frames, audio_frames, m->max_moov_size);
    }
    if (m->max_moov_size == 0 || !m->moov) {
        m->moov_interval = 0;
        return;
    }
    const uint64_t at = muxer_pos(m);
    const uint64_t size = coded_movie_size(m, at);
    if (size == UNMEASURED) {
        // No reservation without its size: the movie goes to the end of the file.
        m->moov_interval = 0;
        m->max_moov_size = 0;
        return;
    }
    if (!fits(m, size)) {
        // Not even the empty movie fits: the mode is abandoned at once, as an update would.
        printf("%s: movie of %lu bytes does not fit the %u bytes reserved\n", "setup_moov_at_start",
               (unsigned long)size, m->max_moov_size);
        m->error = MP4_ERR_OVERFLOW;
        m->moov_interval = 0;
        if (m->max_moov_size < 8) {
            m->max_moov_size = 0; // no room for any box: nothing is reserved
            return;
        }
        // The region is held by a padding box, which the finish rewrites over the same bytes
        // (it finds the region through the movie's position).
        m->moov_full = 1;
        m->moov->data_pos = at + 8;
        DataBox pad{};
        pad.type = padding_type(m);
        pad.size = m->max_moov_size;
        rwBox(m, &pad);
        return;
    }
    m->moov->size = m->max_moov_size;
    m->moov->node_flags &= uint8_t(~BOX_AUTO_SIZE);
    rwBox(m, m->moov);
    m->moov_coded = size;
    m->moov_at_back = 0;
    m->moov_countdown = m->moov_interval;
}

static void put_be32(uint8_t *p, uint32_t v) {
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}

void (*moov_region_write_hook)(const mp4_muxer *m, uint64_t at, const uint8_t *bytes,
                               uint32_t n) = nullptr;

// Puts n bytes at `at` on the output in one write; true when they reached it. A stdio stream
// would cut them into buffer-sized writes, so its buffer is flushed and the bytes go to its
// descriptor directly, which leaves the stream's own position alone.
static bool write_region(mp4_muxer *m, uint64_t at, const uint8_t *bytes, uint32_t n) {
    if (!flush_output(m))
        return false;
    if (moov_region_write_hook)
        moov_region_write_hook(m, at, bytes, n);
    if (m->fp && fileno(m->fp) >= 0 && (!m->fp2 || fileno(m->fp2) >= 0)) {
        bool done = true;
        for (FILE *f : {m->fp, m->fp2}) {
            if (!f)
                continue;
            uint32_t put = 0;
            while (done && put < n) {
                ssize_t w = pwrite64(fileno(f), bytes + put, n - put, off64_t(at + put));
                if (w < 0 && errno == EINTR)
                    continue;
                if (w <= 0)
                    done = false;
                else
                    put += uint32_t(w);
            }
        }
        if (done)
            return true;
        // Whatever went wrong is met and reported again by the stream's own write.
    }
    const uint32_t failures = m->write_failures;
    muxer_seek(m, at);
    write_n(m, bytes, int32_t(n));
    return flush_output(m) && m->write_failures == failures;
}

// A kill can land inside a write, and the kernel then leaves it cut at a page boundary: a movie
// rewritten over itself would be left half old, half new. So while the old movie and the new one
// fit the region side by side, the new one goes where the old one is not, hidden inside a
// padding box, and becomes the movie with one 8-byte write at the start of the region, which no
// page boundary cuts. The movie box itself always covers the region exactly:
//   front: moov [children][padding]          back: moov [padding][children]
// At the front, the first child's header is that 8-byte write; at the back, the padding's.
// Only a movie of more than half the region is rewritten over itself (one write, as before).

// The movie of `size` bytes coded into a zeroed block of `total` bytes, as it goes at the front
// of the region at `at`: its header claims the whole region and a padding header follows it when
// it leaves room. Null when it cannot be coded in memory.
static uint8_t *code_movie(mp4_muxer *m, uint64_t at, uint64_t size, uint64_t total) {
    const uint64_t reserved = m->max_moov_size;
    if (total > 0x7FFFFFFF)
        return nullptr; // beyond what one write carries
    auto *bytes = static_cast<uint8_t *>(mp4_calloc(size_t(total), 1));
    if (!bytes)
        return nullptr;
    mp4_muxer *scratch = mp4_writer_create();
    if (!scratch) {
        mp4_free(bytes);
        return nullptr;
    }
    scratch->flags |= uint8_t(m->flags & (MP4_MOV | MP4_DEBUG));
    scratch->pos = scratch->max_pos = at; // the boxes keep the positions they have in the file
    mp4_buf_put(scratch, bytes, uint32_t(total));
    // Coded at its own size, so that the codec adds no padding; the region's size goes into the
    // header afterwards.
    m->moov->size = size;
    rwBox(scratch, m->moov);
    m->moov->size = reserved;
    const bool coded = scratch->error == 0 && scratch->pos == at + size;
    mp4_buf_get(scratch);
    mp4_delete(scratch);
    if (!coded) {
        mp4_free(bytes);
        return nullptr;
    }
    put_be32(bytes, uint32_t(reserved));
    if (size < reserved) {
        put_be32(bytes + size, uint32_t(reserved - size));
        put_be32(bytes + size + 4, padding_type(m));
    }
    return bytes;
}

// Whether the movie of `size` bytes and the one last written fit the region side by side.
static bool beside(const mp4_muxer *m, uint64_t size) {
    return m->moov_coded >= 16 && size >= 16 && m->moov_coded + size <= m->max_moov_size;
}

// Puts the movie coded in `bytes` at the back of the region, behind the padding that holds the
// old movie's children; then the padding is moved to the front over them. False when a write
// failed: the old movie is then still the one in force, unless the switch itself failed.
static bool place_at_back(mp4_muxer *m, uint64_t at, const uint8_t *bytes, uint64_t size) {
    const uint64_t padding = m->max_moov_size - size;
    if (!write_region(m, at + padding + 8, bytes + 8, uint32_t(size - 8)))
        return false;
    uint8_t header[8];
    put_be32(header, uint32_t(padding));
    put_be32(header + 4, padding_type(m));
    if (!write_region(m, at + 8, header, 8))
        return false;
    m->moov_at_back = 1;
    m->moov_coded = size;
    return true;
}

// Puts the movie coded in `bytes` (`n` of them) at the front of the region, behind the padding
// header that hides it from there on; then the first child's header replaces the padding's.
// Without room beside the old movie it is written over it.
static bool place_at_front(mp4_muxer *m, uint64_t at, const uint8_t *bytes, uint64_t size,
                           uint64_t n) {
    if (beside(m, size) && m->moov_at_back) {
        if (!write_region(m, at + 16, bytes + 16, uint32_t(n - 16)) ||
            !write_region(m, at + 8, bytes + 8, 8))
            return false;
    } else if (!write_region(m, at, bytes, uint32_t(n))) {
        return false;
    }
    m->moov_at_back = 0;
    m->moov_coded = size;
    return true;
}

// Writes the movie of `size` bytes into the reserved region at `at`. False when the movie cannot
// be coded in memory (nothing has been written then) or a write failed (error 8).
static bool write_movie_at_once(mp4_muxer *m, uint64_t at, uint64_t size) {
    const uint64_t n = size + (size < m->max_moov_size ? 8 : 0);
    uint8_t *bytes = code_movie(m, at, size, n);
    if (!bytes)
        return false;
    const bool placed = beside(m, size) && !m->moov_at_back ? place_at_back(m, at, bytes, size)
                                                            : place_at_front(m, at, bytes, size, n);
    mp4_free(bytes);
    return placed;
}

// The finished movie ends at the front whatever the updates left, with its padding zeroed: the
// same bytes as a movie written there at once, and no earlier movie left inside the padding. A
// movie at the front that has room beside it first moves to the back, so that every step leaves
// a whole movie. False when a write failed: the movie then goes to the end of the file, and the
// region keeps the one in force until that is done.
bool write_moov_in_region(mp4_muxer *m) {
    const uint64_t at = m->moov->data_pos - 8;
    const uint64_t size = coded_movie_size(m, at);
    if (!fits(m, size))
        return false;
    const uint64_t reserved = m->max_moov_size;
    uint8_t *bytes = code_movie(m, at, size, reserved);
    if (!bytes) {
        // No memory for it (or a region beyond one write): coded straight over the region,
        // which leaves the same bytes, though not in one write.
        const uint32_t failures = m->write_failures;
        muxer_seek(m, at);
        rwBox(m, m->moov);
        m->moov_coded = size;
        m->moov_at_back = 0;
        return m->write_failures == failures;
    }
    bool placed = true;
    if (!m->moov_at_back && beside(m, size) && 2 * size <= reserved)
        placed = place_at_back(m, at, bytes, size);
    if (placed && beside(m, size) && m->moov_at_back) {
        // The old children at the back lie inside the padding once the switch is made: zeroed
        // last (left as they are if that fails: the padding hides them).
        const uint64_t back = reserved - m->moov_coded + 8;
        placed = place_at_front(m, at, bytes, size, back);
        if (placed)
            write_region(m, at + back, bytes + back, uint32_t(reserved - back));
    } else if (placed) {
        placed = place_at_front(m, at, bytes, size, reserved);
    }
    mp4_free(bytes);
    return placed;
}

void blank_moov_region(mp4_muxer *m, uint64_t at) {
    // The header first: a write cut short leaves a padding box over what remains of the movie.
    uint8_t header[8];
    put_be32(header, m->max_moov_size);
    put_be32(header + 4, padding_type(m));
    write_region(m, at, header, 8);
    static const uint8_t zeros[65536] = {};
    for (uint64_t done = 8; done < m->max_moov_size;) {
        const uint64_t n =
            m->max_moov_size - done < sizeof zeros ? m->max_moov_size - done : sizeof zeros;
        write_region(m, at + done, zeros, uint32_t(n));
        done += n;
    }
}

void update_moov_atom(mp4_muxer *m, uint32_t duration) {
    if (duration < m->moov_countdown) {
        m->moov_countdown -= duration;
        return;
    }
    // No region to update: the mode was never entered (the output already held bytes at the
    // first sample) or has been given up. Nor after a failed write or seek: the tables may then
    // count bytes the file does not hold, and no movie may claim them; the last one stays.
    if (!m->moov || m->max_moov_size == 0 || m->moov_full || m->moov->data_pos < 8 ||
        m->write_failures || m->error == MP4_ERR_WRITE || m->error == MP4_ERR_SEEK) {
        m->moov_interval = 0;
        return;
    }
    const uint64_t at = m->moov->data_pos - 8;
    const uint64_t size = coded_movie_size(m, at);
    if (size == UNMEASURED)
        return; // the movie last written stays; the next sample tries again
    if (!fits(m, size)) {
        // Written now it would run past the reservation into the media data behind it: give
        // up before writing, so that the last movie written stays valid.
        m->moov_interval = 0;
        m->moov_full = 1;
        m->error = MP4_ERR_OVERFLOW;
        return;
    }
    uint64_t here = muxer_pos(m);
    // The samples and the media data size reach the file before the movie that counts them.
    const uint32_t failures = m->write_failures;
    if (flush_output(m) && m->mdat)
        updateBoxSize(m, m->mdat);
    // A movie that cannot be coded in memory is not written this time (written piece by piece
    // over the last one, a kill would leave neither); the next update tries again.
    if (m->write_failures == failures && m->error != MP4_ERR_SEEK && flush_output(m))
        write_movie_at_once(m, at, size);
    muxer_seek(m, here);
    if (m->write_failures != failures || m->error == MP4_ERR_SEEK) {
        m->moov_interval = 0; // the movie last written in full stays the file's movie
        return;
    }

    if ((uint64_t(m->max_moov_size) - size) * 10 < m->moov_interval) {
        // Too little room left for the next updates: stop here, the finish moves the movie.
        m->moov_interval = 0;
        m->moov_full = 1;
        return;
    }
    if (m->moov_interval == 0)
        return;
    // The next update is due once the video has advanced by whole intervals past this sample.
    uint64_t countdown = m->moov_countdown;
    if (countdown <= duration)
        countdown += uint64_t(m->moov_interval) * ((duration - countdown) / m->moov_interval + 1);
    m->moov_countdown = uint32_t(countdown - duration);
}
