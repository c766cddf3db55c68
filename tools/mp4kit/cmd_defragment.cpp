// mp4kit defragment IN OUT: a fragmented movie turned into a plain one by the defragmenting
// remuxer, its input fed in pieces the way a stream would arrive.
#include "commands.h"

#include <mp4kit/mp4.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <vector>

namespace {

constexpr uint32_t PIECE = 64u << 10;

uint32_t be32(const uint8_t *p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

// Length of the run of whole top-level boxes at the start of p[0..n), and in *first the size
// of the first box (0 while its header is incomplete). A size below 8 is corrupt: its header is
// handed over as it is, for the remuxer to report.
uint64_t whole_boxes(const uint8_t *p, uint64_t n, uint64_t *first) {
    uint64_t at = 0;
    *first = 0;
    while (at + 8 <= n) {
        uint64_t size = be32(p + at);
        if (size == 1) {
            if (at + 16 > n)
                break;
            size = uint64_t(be32(p + at + 8)) << 32 | be32(p + at + 12);
        }
        if (size < 8)
            size = 8;
        if (at == 0)
            *first = size;
        if (size > n - at)
            break;
        at += size;
    }
    if (at == 0 && *first == 0)
        *first = 16; // enough for any header
    return at;
}

int fail(mp4_muxer *h, FILE *in, const char *what) {
    const char *why = h ? mp4_get_error(h) : nullptr;
    fprintf(stderr, "mp4kit defragment: %s%s%s\n", what, why ? ": " : "", why ? why : "");
    if (in)
        fclose(in);
    mp4_delete(h);
    return 1;
}

int run(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: mp4kit defragment IN OUT\n");
        return 2;
    }
    FILE *in = fopen(argv[1], "rb");
    if (!in) {
        perror(argv[1]);
        return 1;
    }
    struct stat st;
    uint64_t left = fstat(fileno(in), &st) == 0 ? uint64_t(st.st_size) : 0; // bytes not read yet
    mp4_muxer *h = mp4_remuxer_create();
    if (!h)
        return fail(nullptr, in, "out of memory");
    mp4_file_name_ascii(h, argv[2]); // the output goes to the remuxer's writer
    if (mp4_get_error_code(h))
        return fail(h, in, argv[2]);

    // `piece` holds the input not consumed yet, from its first byte on.
    std::vector<uint8_t> piece;
    bool stalled = false;
    for (;;) {
        uint64_t first = 0;
        uint64_t whole = whole_boxes(piece.data(), piece.size(), &first);
        // Read up to one piece of input, or more when the first box does not fit in one.
        uint64_t want = first > PIECE ? first : PIECE;
        if (whole == 0 && piece.size() < want && left > 0) {
            uint64_t more = want - piece.size();
            if (more > left)
                more = left; // a box claiming more than the file holds ends with the file
            size_t have = piece.size();
            piece.resize(have + size_t(more));
            size_t got = fread(piece.data() + have, 1, size_t(more), in);
            piece.resize(have + got);
            left = got < more ? 0 : left - more;
            continue;
        }
        // Whole boxes only; what is left of a truncated file goes as it is.
        uint64_t give = whole ? whole : piece.size();
        if (give == 0)
            break;
        if (give > 0xFFFFFFFFu)
            return fail(h, in, "a box too large for a memory buffer");
        mp4_buf_put(h, piece.data(), uint32_t(give));
        mp4_remux(h);
        uint64_t used = mp4_buf_get(h);
        if (used > give)
            used = give; // a box cut off by the end of the file counts as consumed whole
        piece.erase(piece.begin(), piece.begin() + std::ptrdiff_t(used));
        if (mp4_get_error_code(h))
            break; // finish with what was converted, then report
        if (used == 0) {
            stalled = true;
            break;
        }
        if (whole == 0 && left == 0)
            break; // the truncated tail has been handed over
    }
    fclose(in);
    mp4_write_movie(h);
    if (stalled)
        return fail(h, nullptr, "the input stopped being consumed");
    if (mp4_get_error_code(h))
        return fail(h, nullptr, "defragmenting failed");
    mp4_delete(h);
    return 0;
}

CommandRegistrar reg({"defragment",
                      "defragment IN OUT  (rewrite a fragmented movie as a plain one)", run});

} // namespace
