// A movie header kept at the start of the file: reserved before the first sample and rewritten
// in place as the recording goes, so that a recording cut off at any moment stays playable.
#include "internal.h"

extern "C" void mp4_set_moov_mode(mp4_muxer *m, uint32_t max_moov_size, uint32_t interval) {
    if (!m)
        return;
    m->max_moov_size = max_moov_size;
    m->moov_interval = interval;
}

extern "C" void mp4_set_moov_max_duration(mp4_muxer *m, uint32_t max_minutes,
                                          uint32_t interval_seconds) {
    if (!m)
        return;
    m->moov_max_minutes = max_minutes;
    m->moov_interval = max_minutes ? uint32_t(uint64_t(interval_seconds) * 90000) : 0;
    printf("%s: max_minutes=%u interval_seconds=%u\n", "mp4_set_moov_max_duration", max_minutes,
           interval_seconds);
}

// Frames in max_minutes of a track of `timescale` ticks per second and `dur` ticks per frame.
static uint32_t frames_for(uint32_t minutes, uint32_t timescale, uint32_t dur) {
    return uint32_t(uint64_t(minutes) * timescale * 60 / dur);
}

void setup_moov_at_start(mp4_muxer *m) {
    if (m->moov_max_minutes) {
        const uint32_t minutes = m->moov_max_minutes;
        uint32_t video_dur = 1501, audio_dur = 1920; // defaults in 90 kHz ticks
        uint32_t video_frames = uint32_t(uint64_t(minutes) * 5400000 / video_dur);
        uint32_t audio_frames = uint32_t(uint64_t(minutes) * 5400000 / audio_dur);
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
        m->max_moov_size = (audio_frames * 10u + video_frames * 12u + 0xFFFFu) & 0xFFFF8000u;
        printf("%s: max_minutes=%u video_dur=%u audio_dur=%u next_track_id=%u\n",
               "setup_moov_at_start", minutes, video_dur, audio_dur, m->next_track_id);
        printf("%s: video_frames=%u audio_frames=%u est_size=%u\n", "setup_moov_at_start",
               video_frames, audio_frames, m->max_moov_size);
    }
    if (m->max_moov_size == 0 || !m->moov) {
        m->moov_interval = 0;
        return;
    }
    m->moov->size = m->max_moov_size;
    m->moov->node_flags &= uint8_t(~BOX_AUTO_SIZE);
    rwBox(m, m->moov);
    m->moov_countdown = m->moov_interval;
}

void update_moov_atom(mp4_muxer *m, uint32_t duration) {
    if (duration < m->moov_countdown) {
        m->moov_countdown -= duration;
        return;
    }
    if (!m->moov || m->max_moov_size == 0) {
        m->moov_interval = 0;
        return;
    }
    // The size the movie occupies as it now stands. The moov node's own size holds the
    // reservation in this mode, so the tree is measured instead.
    uint64_t size = checkBoxSize(m->moov);
    if (size > m->max_moov_size) {
        // Written now it would run past the reservation into the media data behind it: give
        // up before writing, so that the last movie written stays valid.
        m->moov_interval = 0;
        m->moov_full = 1;
        m->error = MP4_ERR_OVERFLOW;
        return;
    }
    uint64_t here = muxer_pos(m);
    if (m->mdat)
        updateBoxSize(m, m->mdat);
    muxer_seek(m, m->moov->data_pos - 8);
    rwBox(m, m->moov);
    muxer_seek(m, here);
    flush_output(m);

    if ((uint64_t(m->max_moov_size) - size) * 10 < m->moov_interval) {
        // Too little room left for the next updates: stop here, the finish moves the movie.
        m->moov_interval = 0;
        m->moov_full = 1;
        return;
    }
    if (m->moov_interval == 0)
        return;
    while (m->moov_countdown <= duration)
        m->moov_countdown += m->moov_interval;
    m->moov_countdown -= duration;
}
