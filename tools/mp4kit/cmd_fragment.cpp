// mp4kit fragment IN OUT: a plain movie rewritten as a fragmented one, through the refragmenting
// remuxer and one fixed-size memory buffer.
#include "commands.h"

#include "internal.h"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <new>
#include <sys/stat.h>

namespace {

uint32_t be32(const uint8_t *p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

// Follows the top-level boxes of one pass's output (each pass writes whole boxes) and notes
// whether samples were written after the last fragment header.
void track_open_fragment(const uint8_t *p, uint32_t n, bool *open) {
    uint64_t at = 0;
    while (at + 8 <= n) {
        uint64_t size = be32(p + at);
        uint32_t type = be32(p + at + 4);
        if (size == 1 && at + 16 <= n)
            size = uint64_t(be32(p + at + 8)) << 32 | be32(p + at + 12);
        if (type == MP4_FOURCC('m', 'd', 'a', 't'))
            *open = true;
        else if (type == MP4_FOURCC('m', 'o', 'o', 'f'))
            *open = false;
        if (size < 8)
            break;
        at += size;
    }
}

// Room for one pass. A pass copies the audio due up to one picture, but a movie without video,
// or whose audio outlasts its video, has much of its audio copied in one pass, so the buffer
// covers the whole output: the input plus, per sample, its mdat header, its trun and at worst a
// fragment header of its own. Only the pages a pass writes are ever touched.
uint64_t whole_output_bound(mp4_muxer *h, const char *path) {
    struct stat st;
    uint64_t bound = (stat(path, &st) == 0 ? uint64_t(st.st_size) : 0) + (1u << 20);
    Box *moov = h->linked ? h->linked->moov : nullptr;
    for (Box *trak = getChild(moov, fourcc("trak")); trak; trak = trak->next) {
        Box *stbl =
            getChild(getChild(getChild(trak, fourcc("mdia")), fourcc("minf")), fourcc("stbl"));
        Box *stsz = getChild(stbl, fourcc("stsz"));
        if (trak->type == fourcc("trak") && stsz && stsz->alloc_size >= sizeof(Stsz))
            bound += 128 * uint64_t(static_cast<Stsz *>(stsz)->sample_count);
    }
    return bound;
}
int fail(mp4_muxer *h, FILE *out, const char *what) {
    const char *why = h ? mp4_get_error(h) : nullptr;
    fprintf(stderr, "mp4kit fragment: %s%s%s\n", what, why ? ": " : "", why ? why : "");
    if (out)
        fclose(out);
    mp4_delete(h);
    return 1;
}

int run(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: mp4kit fragment IN OUT\n");
        return 2;
    }
    mp4_muxer *h = mp4_refrag_create();
    if (!h)
        return fail(nullptr, nullptr, "out of memory");
    mp4_file_name_ascii(h, argv[1]); // the input goes to the remuxer's reader
    if (mp4_get_error_code(h))
        return fail(h, nullptr, argv[1]);
    int fragmented = mp4_is_fragmented(h);
    if (fragmented == 1)
        return fail(h, nullptr, "the input is fragmented already");
    if (fragmented != 0)
        return fail(h, nullptr, "the input is not a movie");
    FILE *out = fopen(argv[2], "wb");
    if (!out) {
        perror(argv[2]);
        mp4_delete(h);
        return 1;
    }

    uint64_t bound = whole_output_bound(h, argv[1]);
    const uint32_t size = bound > 0xFFFFFFFFu ? 0xFFFFFFFFu : uint32_t(bound);
    std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[size]);
    if (!buffer)
        return fail(h, out, "out of memory");
    bool open = false; // samples written since the last fragment header
    for (;;) {
        mp4_buf_put(h, buffer.get(), size);
        mp4_remux(h);
        uint32_t n = mp4_buf_get(h);
        if (mp4_get_error_code(h))
            return fail(h, out, "remuxing failed");
        if (n == 0)
            break; // every sample has been copied
        track_open_fragment(buffer.get(), n, &open);
        if (fwrite(buffer.get(), 1, n, out) != n)
            return fail(h, out, "write failed");
    }
    if (open) {
        // The last samples are described only once their fragment is closed.
        mp4_buf_put(h, buffer.get(), size);
        mp4_write_frag_header(h);
        uint32_t n = mp4_buf_get(h);
        if (mp4_get_error_code(h))
            return fail(h, out, "remuxing failed");
        if (fwrite(buffer.get(), 1, n, out) != n)
            return fail(h, out, "write failed");
    }
    if (fclose(out) != 0) {
        perror(argv[2]);
        mp4_delete(h);
        return 1;
    }
    mp4_delete(h);
    return 0;
}

CommandRegistrar reg({"fragment", "fragment IN OUT  (rewrite a plain movie as a fragmented one)",
                      run});

} // namespace
