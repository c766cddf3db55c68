// Interleaving: audio samples are held back and written in one burst per period, so that each
// period's audio forms one chunk between runs of video.
#include "internal.h"

#include <cstring>

extern "C" void mp4_interleave_duration(mp4_muxer *m, uint32_t period) {
    if (!m)
        return;
    // Samples held under the old period go out now: turned off, nothing would ever write them.
    // (In fragment mode the sample records are the fragment queue, never held audio.)
    if (period != m->interleave_duration && !m->buffer && m->tracks)
        for (uint32_t id = 1; id < m->next_track_id; id++)
            write_interleaved_track(m, id);
    m->interleave_duration = period;
}

// Every held sample of every track, in buffer order, is moved down to close the gap that a
// flushed track left. Tracks place their samples after everything held (arrival order), so
// each queue is sorted by offset and a merge over the queues visits the buffer front to back.
// This keeps several audio tracks from overlapping in the shared buffer and keeps its size
// bounded by what is actually held.
static void compact_interleave_buffer(mp4_muxer *m) {
    uint32_t ntracks = m->next_track_id ? m->next_track_id - 1 : 0;
    uint32_t holding = 0;
    for (uint32_t t = 0; t < ntracks; t++)
        holding += m->tracks[t].sample_count ? 1 : 0;
    if (holding == 0)
        return; // the usual case of one audio track: the next burst starts at 0
    auto *cursor = static_cast<uint32_t *>(mp4_calloc(ntracks, sizeof(uint32_t)));
    if (!cursor)
        return; // not compacted: later samples go after what is held, the buffer just grows
    uint64_t next_free = 0;
    for (;;) {
        uint32_t best = ntracks;
        for (uint32_t t = 0; t < ntracks; t++) {
            const mp4_track &tr = m->tracks[t];
            if (cursor[t] < tr.sample_count &&
                (best == ntracks ||
                 tr.samples[cursor[t]].offset < m->tracks[best].samples[cursor[best]].offset))
                best = t;
        }
        if (best == ntracks)
            break;
        mp4_sample &s = m->tracks[best].samples[cursor[best]++];
        if (s.offset != next_free) {
            memmove(m->interleave_buffer + next_free, m->interleave_buffer + s.offset, s.size);
            s.offset = next_free;
        }
        next_free += s.size;
    }
    mp4_free(cursor);
}

// End of everything held in the buffer by any track.
static uint64_t held_end(const mp4_muxer *m) {
    uint64_t end = 0;
    uint32_t ntracks = m->next_track_id ? m->next_track_id - 1 : 0;
    for (uint32_t t = 0; t < ntracks; t++) {
        const mp4_track *tr = &m->tracks[t];
        if (tr->sample_count) {
            const mp4_sample *last = &tr->samples[tr->sample_count - 1];
            if (last->offset + last->size > end)
                end = last->offset + last->size;
        }
    }
    return end;
}

void track_interleave(mp4_muxer *m, uint32_t id, const uint8_t *data, uint32_t size,
                      uint32_t duration) {
    if (!m->tracks || id == 0 || id >= m->next_track_id || m->interleave_duration == 0)
        return;
    mp4_track *t = &m->tracks[id - 1];
    if (t->timestamp >= t->interleave_time) {
        // The deadline moves past the track's time in whole periods. Only the first step can
        // find samples to write, so the steps are taken at once: a long sample over a short
        // period costs one division, not a loop per period.
        write_interleaved_track(m, id);
        const uint64_t behind = t->timestamp - t->interleave_time;
        t->interleave_time += m->interleave_duration * (behind / m->interleave_duration + 1);
        m->interleave_time = t->interleave_time; // the deadline last moved
    }
    t->timestamp += duration;

    uint64_t place = held_end(m);
    // An empty sample still needs a buffer to point into, or its duration would be lost.
    if (place + size > m->interleave_size || !m->interleave_buffer) {
        uint64_t want = m->interleave_size;
        do
            want += 0x10000;
        while (want < place + size);
        void *p = want <= 0xFFFFFFFFull ? mp4_realloc(m->interleave_buffer, size_t(want)) : nullptr;
        if (!p) {
            fprintf(stderr, "%s: failed to reallocate interleave buffer\n", "track_interleave");
            m->error = MP4_ERR_NOMEM;
            return;
        }
        m->interleave_buffer = static_cast<uint8_t *>(p);
        m->interleave_size = uint32_t(want);
    }
    if (t->sample_count >= t->sample_alloc) {
        void *p = mp4_realloc(t->samples, (size_t(t->sample_alloc) + 1) * sizeof(mp4_sample));
        if (!p) {
            fprintf(stderr, "%s: failed to reallocate fragment buffer\n", "track_interleave");
            m->error = MP4_ERR_NOMEM;
            return;
        }
        t->samples = static_cast<mp4_sample *>(p);
        t->sample_alloc++;
    }
    t->samples[t->sample_count] = mp4_sample{place, size, duration};
    if (size)
        memcpy(m->interleave_buffer + place, data, size);
    t->sample_count++;
}

void write_interleaved_track(mp4_muxer *m, uint32_t id) {
    if (!m->tracks || id == 0 || id >= m->next_track_id)
        return;
    mp4_track *t = &m->tracks[id - 1];
    if (t->sample_count == 0)
        return;
    // A burst is a chunk of its own even when nothing was written since the last one (audio
    // without video): the period's samples stay together and apart from the next period's.
    m->flags |= MP4_NEW_CHUNK;
    for (uint32_t i = 0; i < t->sample_count; i++) {
        const mp4_sample &s = t->samples[i];
        mp4_write_track(m, id, m->interleave_buffer + s.offset, s.size, s.duration);
    }
    t->sample_count = 0;
    compact_interleave_buffer(m);
}
