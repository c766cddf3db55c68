/* record: H.264 (Annex B) and AAC (ADTS) elementary streams to an MP4 file.
 *
 *   record VIDEO.h264 AUDIO.aac OUT.mp4 [FPS]
 *
 * Access units are split at access unit delimiters or at the first slice of a new picture;
 * AAC frames at their ADTS headers. The library strips the stream headers itself. */
#include <mp4kit/mp4.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static uint8_t *load(const char *path, size_t *size) {
    FILE *f = fopen(path, "rb");
    uint8_t *data = NULL;
    long n;
    if (!f)
        return NULL;
    if (fseek(f, 0, SEEK_END) == 0 && (n = ftell(f)) > 0 && fseek(f, 0, SEEK_SET) == 0) {
        data = malloc((size_t)n);
        if (data && fread(data, 1, (size_t)n, f) != (size_t)n) {
            free(data);
            data = NULL;
        }
        *size = (size_t)n;
    }
    fclose(f);
    return data;
}

/* Offset of the next start code at or after i (size when none), and its length. */
static size_t next_start(const uint8_t *p, size_t size, size_t i, size_t *len) {
    for (; i + 3 <= size; i++) {
        if (p[i] == 0 && p[i + 1] == 0 && p[i + 2] == 1) {
            *len = 3;
            return i;
        }
        if (i + 4 <= size && p[i] == 0 && p[i + 1] == 0 && p[i + 2] == 0 && p[i + 3] == 1) {
            *len = 4;
            return i;
        }
    }
    *len = 0;
    return size;
}

/* End of the access unit that starts at `start`. */
static size_t access_unit_end(const uint8_t *p, size_t size, size_t start) {
    size_t len, i = next_start(p, size, start, &len);
    int seen_slice = 0;
    while (i < size) {
        size_t nal = i + len;
        int type = nal < size ? p[nal] & 0x1F : 0;
        int first_mb_zero = nal + 1 < size && (p[nal + 1] & 0x80);
        if (i > start && (type == 9 || (seen_slice && (type == 7 || type == 8 || type == 6)) ||
                          (seen_slice && (type == 1 || type == 5) && first_mb_zero)))
            return i;
        if (type == 1 || type == 5)
            seen_slice = 1;
        i = next_start(p, size, nal, &len);
    }
    return size;
}

int main(int argc, char **argv) {
    size_t vsize = 0, asize = 0, v = 0, a = 0;
    uint8_t *video, *audio;
    uint32_t fps, vt, at, frame_ticks;
    uint64_t vtime = 0, atime = 0;
    mp4_muxer *m;
    if (argc < 4) {
        fprintf(stderr, "usage: %s VIDEO.h264 AUDIO.aac OUT.mp4 [FPS]\n", argv[0]);
        return 2;
    }
    fps = argc > 4 ? (uint32_t)atoi(argv[4]) : 25;
    if (fps == 0)
        fps = 25;
    frame_ticks = 90000 / fps;
    video = load(argv[1], &vsize);
    audio = load(argv[2], &asize);
    if (!video || !audio || asize < 7 || audio[0] != 0xFF || (audio[1] & 0xF0) != 0xF0) {
        fprintf(stderr, "record: cannot read H.264 from %s and ADTS AAC from %s\n", argv[1],
                argv[2]);
        return 1;
    }
    m = mp4_writer_create();
    mp4_file_name_ascii(m, argv[3]);
    if (mp4_get_error_code(m)) {
        fprintf(stderr, "record: %s: %s\n", argv[3], mp4_get_error(m));
        mp4_delete(m);
        return 1;
    }
    /* The picture size goes into the sample entry; players take the real one from the SPS. */
    vt = mp4_video_track_create(m, MP4_FOURCC('a', 'v', 'c', '1'), 90000, frame_ticks, 0, 128, 96,
                                66, 30);
    {
        static const uint32_t rates[16] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050,
                                           16000, 12000, 11025, 8000,  7350,  0,     0,     0};
        uint32_t rate = rates[(audio[2] >> 2) & 15];
        uint32_t channels = (uint32_t)((audio[2] & 1) << 2 | audio[3] >> 6);
        at = mp4_audio_track_create(m, MP4_FOURCC('m', 'p', '4', 'a'), rate, 1024, 0, rate,
                                    channels);
        /* Deliver in time order, as a live encoder would: audio ticks scaled to 90 kHz. */
        while (v < vsize || a < asize) {
            int audio_due = a < asize && (v >= vsize || atime * 90000 / rate <= vtime);
            if (audio_due) {
                size_t len = a + 6 < asize ? ((size_t)(audio[a + 3] & 3) << 11 |
                                              (size_t)audio[a + 4] << 3 | audio[a + 5] >> 5)
                                           : 0;
                if (len < 7 || a + len > asize)
                    break;
                mp4_write_track(m, at, audio + a, (uint32_t)len, 1024);
                a += len;
                atime += 1024;
            } else {
                size_t end = access_unit_end(video, vsize, v);
                mp4_write_track(m, vt, video + v, (uint32_t)(end - v), frame_ticks);
                v = end;
                vtime += frame_ticks;
            }
        }
    }
    mp4_write_movie(m);
    if (mp4_get_error_code(m)) {
        fprintf(stderr, "record: %s\n", mp4_get_error(m));
        mp4_delete(m);
        return 1;
    }
    mp4_delete(m);
    free(video);
    free(audio);
    printf("wrote %s\n", argv[3]);
    return 0;
}
