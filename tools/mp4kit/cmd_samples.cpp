// mp4kit samples FILE [--reverse] [--seek TIME]: one line per sample the reader delivers.
#include "commands.h"

#include "internal.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// Lines are formatted by hand and written straight into a large stdio buffer: this command is
// used on long files and compared for speed with other readers' packet dumps. Messages the
// library prints go through the same stream, so they stay in order with the lines.
static char *putU64(char *p, uint64_t v) {
    char tmp[20];
    int n = 0;
    do {
        tmp[n++] = char('0' + v % 10);
        v /= 10;
    } while (v);
    while (n)
        *p++ = tmp[--n];
    return p;
}

static int printSample(void *, uint32_t track, uint64_t offset, uint64_t timestamp, uint32_t size,
                       uint32_t flags) {
    char line[100];
    char *p = putU64(line, track);
    *p++ = ' ';
    p = putU64(p, offset);
    *p++ = ' ';
    p = putU64(p, timestamp);
    *p++ = ' ';
    p = putU64(p, size);
    *p++ = ' ';
    p = putU64(p, flags);
    *p++ = '\n';
    fwrite_unlocked(line, 1, size_t(p - line), stdout);
    return 0;
}

static bool parseTime(const char *s, uint64_t *out) {
    if (!s || !*s || *s == '-')
        return false;
    char *end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(s, &end, 10);
    if (errno || *end)
        return false;
    *out = v;
    return true;
}

static int run(int argc, char **argv) {
    const char *path = nullptr;
    bool reverse = false, seek = false;
    uint64_t seek_time = 0;
    for (int i = 1; i < argc; i++) {
        if (!strcmp(argv[i], "--reverse")) {
            reverse = true;
        } else if (!strcmp(argv[i], "--seek")) {
            if (i + 1 >= argc || !parseTime(argv[i + 1], &seek_time)) {
                fprintf(stderr, "mp4kit samples: --seek needs a decode time (video timescale)\n");
                return 2;
            }
            seek = true;
            i++;
        } else if (!path && argv[i][0] != '-') {
            path = argv[i];
        } else {
            fprintf(stderr, "usage: mp4kit samples FILE [--reverse] [--seek TIME]\n");
            return 2;
        }
    }
    if (!path) {
        fprintf(stderr, "usage: mp4kit samples FILE [--reverse] [--seek TIME]\n");
        return 2;
    }

    static char outbuf[1 << 20];
    setvbuf(stdout, outbuf, _IOFBF, sizeof outbuf);

    mp4_muxer *m = mp4_reader_create();
    if (!m) {
        fprintf(stderr, "mp4kit samples: out of memory\n");
        return 1;
    }
    mp4_file_name_ascii(m, path);
    if (mp4_get_error_code(m)) {
        fprintf(stderr, "mp4kit samples: %s: %s\n", path, mp4_get_error(m));
        mp4_delete(m);
        return 1;
    }
    mp4_play_mixed_timescales(m, 1);
    int status = 0;
    if (load_moov_and_track(m) != 0) {
        fprintf(stderr, "mp4kit samples: %s: no movie header found%s%s\n", path,
                mp4_get_error_code(m) ? ": " : "", mp4_get_error_code(m) ? mp4_get_error(m) : "");
        mp4_delete(m);
        return 1;
    }
    if (seek && mp4_seek(m, seek_time) != 0) {
        fprintf(stderr, "mp4kit samples: %s: cannot seek (no video track or incomplete tables)\n",
                path);
        status = 1;
    } else {
        if (reverse && !seek) {
            // Reverse playback starts from where the cursor is: move it to the end first,
            // without delivering anything.
            while (mp4_play(m) == 0) {
            }
        }
        mp4_set_sample_callback(m, printSample, nullptr);
        if (reverse) {
            while (mp4_play_reverse(m) == 0) {
            }
        } else {
            while (mp4_play(m) == 0) {
            }
        }
        mp4_set_sample_callback(m, nullptr, nullptr);
    }
    fflush(stdout);
    if (ferror(stdout)) {
        fprintf(stderr, "mp4kit samples: write error on standard output\n");
        status = 1;
    }
    mp4_delete(m);
    return status;
}

static CommandRegistrar reg({"samples",
                             "samples FILE [--reverse] [--seek TIME]  (one line per sample played: "
                             "track offset decode-time size flags)",
                             run});
