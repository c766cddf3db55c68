/* play: list the samples of an MP4/QuickTime file and read their bytes.
 *
 *   play FILE
 *
 * The reader reports each sample's offset, decode time, size and flags; the bytes are read
 * from the file with plain stdio, here to print a checksum of every sample. */
#include <mp4kit/mp4.h>

#include <stdio.h>
#include <stdlib.h>

struct playback {
    FILE *file;
    unsigned long samples;
    int failed;
};

static int on_sample(void *opaque, uint32_t track, uint64_t offset, uint64_t timestamp,
                     uint32_t size, uint32_t flags) {
    struct playback *p = opaque;
    uint8_t *bytes = malloc(size ? size : 1);
    uint32_t sum = 0, i;
    if (!bytes || fseek(p->file, (long)offset, SEEK_SET) != 0 ||
        fread(bytes, 1, size, p->file) != size) {
        p->failed = 1;
        free(bytes);
        return 0;
    }
    for (i = 0; i < size; i++)
        sum = sum * 31 + bytes[i];
    free(bytes);
    printf("track %u offset %llu time %llu size %u flags %u sum %08x\n", track,
           (unsigned long long)offset, (unsigned long long)timestamp, size, flags, sum);
    p->samples++;
    return 0;
}

int main(int argc, char **argv) {
    struct playback p = {NULL, 0, 0};
    mp4_muxer *m;
    if (argc != 2) {
        fprintf(stderr, "usage: %s FILE\n", argv[0]);
        return 2;
    }
    p.file = fopen(argv[1], "rb");
    if (!p.file) {
        perror(argv[1]);
        return 1;
    }
    m = mp4_reader_create();
    mp4_file_name_ascii(m, argv[1]);
    mp4_play_mixed_timescales(m, 1);
    mp4_set_sample_callback(m, on_sample, &p);
    while (mp4_play(m) == 0)
        ;
    if (mp4_get_error_code(m))
        fprintf(stderr, "play: %s\n", mp4_get_error(m));
    mp4_delete(m);
    fclose(p.file);
    printf("%lu samples\n", p.samples);
    return p.failed || p.samples == 0;
}
