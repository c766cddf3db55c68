/* A minimal program built against an installed mp4kit: ADTS AAC in, MP4 out. */
#include <mp4kit/mp4.h>

#include <stdio.h>
#include <stdlib.h>

int main(int argc, char **argv) {
    static uint8_t aac[1 << 20];
    size_t size, pos = 0;
    uint32_t track;
    mp4_muxer *m;
    FILE *in;
    if (argc != 3)
        return 2;
    in = fopen(argv[1], "rb");
    if (!in)
        return 1;
    size = fread(aac, 1, sizeof aac, in);
    fclose(in);
    m = mp4_writer_create();
    mp4_file_name_ascii(m, argv[2]);
    track = mp4_audio_track_create(m, MP4_FOURCC('m', 'p', '4', 'a'), 48000, 1024, 0, 48000, 2);
    while (pos + 7 <= size) {
        size_t len = (size_t)(aac[pos + 3] & 3) << 11 | (size_t)aac[pos + 4] << 3 | aac[pos + 5] >> 5;
        if (len < 7 || pos + len > size)
            break;
        mp4_write_track(m, track, aac + pos, (uint32_t)len, 1024);
        pos += len;
    }
    mp4_write_movie(m);
    if (mp4_get_error_code(m)) {
        fprintf(stderr, "consumer: %s\n", mp4_get_error(m));
        mp4_delete(m);
        return 1;
    }
    mp4_delete(m);
    return 0;
}
