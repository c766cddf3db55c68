// mp4kit dump FILE: reads every top-level box of FILE with the debug switch on, so that the
// codec prints the whole box tree as it goes.
#include "commands.h"

#include "box/box.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

static int run(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: mp4kit dump FILE\n");
        return 2;
    }
    const char *path = argv[1];
    mp4_muxer *m = mp4_reader_create();
    if (!m) {
        fprintf(stderr, "mp4kit dump: out of memory\n");
        return 1;
    }
    errno = 0;
    mp4_file_name_ascii(m, path);
    if (mp4_get_error_code(m)) {
        fprintf(stderr, "mp4kit dump: cannot open %s: %s\n", path,
                errno ? strerror(errno) : mp4_get_error(m));
        mp4_delete(m);
        return 1;
    }
    mp4_debug(m, 1);
    // Each call reads one top-level box and its subtree; null at the end of the file or when a
    // box cannot be read.
    while (Box *box = rwBox(m, nullptr))
        deleteBox(box);
    fflush(stdout);
    int status = 0;
    struct stat st;
    if (mp4_get_error_code(m)) {
        fprintf(stderr, "mp4kit dump: %s: %s\n", path, mp4_get_error(m));
        status = 1;
    } else if (fstat(fileno(m->fp), &st) == 0 && uint64_t(st.st_size) != muxer_pos(m)) {
        // A box whose fields ran out is rewound to its start; one whose declared size runs
        // past the end leaves the position beyond it. Either way the file is incomplete.
        fprintf(stderr, "mp4kit dump: %s: file is %lu bytes but its boxes end at %lu\n", path,
                (unsigned long)st.st_size, (unsigned long)muxer_pos(m));
        status = 1;
    }
    mp4_delete(m);
    return status;
}

static CommandRegistrar reg({"dump", "dump FILE  (print every box of FILE as an indented tree)",
                             run});
