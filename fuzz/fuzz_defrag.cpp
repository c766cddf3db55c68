// The defragmenting remuxer on arbitrary input fed in pieces, each handed in as its own
// exact-size heap block (a read past a piece is an ASan report): one top-level box at a time,
// as a receiver of the stream hands them on, or (for inputs of odd length) pieces of 4 KiB
// that cut boxes anywhere. The plain movie it writes goes
// to a memory stream, so an output that grows out of proportion to the input shows up as an
// allocation the fuzzer's malloc limit catches; that output is then loaded and played.
#include "fuzz_common.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    silence_library_output();
    return 0;
}

static void play_output(std::vector<uint8_t> &out) {
    if (out.empty())
        return;
    mp4_muxer *r = mp4_reader_create();
    mp4_buf_put(r, out.data(), uint32_t(out.size()));
    mp4_set_callback(r, count_samples);
    for (int steps = 0; mp4_play(r) == 0 && steps < 100000; steps++) {
    }
    mp4_buf_get(r);
    mp4_delete(r);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    char *out_bytes = nullptr;
    size_t out_size = 0;
    FILE *out = open_memstream(&out_bytes, &out_size);
    if (!out)
        return 0;
    mp4_muxer *m = mp4_remuxer_create();
    mp4_file_pointer(m, out); // goes to the linked writer
    const bool whole_boxes = size % 2 == 0;
    size_t offset = 0;
    uint32_t piece = 4096;
    int rounds = 0;
    bool stuck = false; // nothing was taken from the last piece: offer more
    while (offset < size && rounds++ < 10000) {
        if (whole_boxes && !stuck && size - offset >= 8) {
            const uint8_t *p = data + offset;
            uint32_t box = uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
            piece = box >= 8 && box <= size - offset ? box : uint32_t(size - offset);
        }
        uint32_t len = uint32_t(std::min<size_t>(piece, size - offset));
        std::vector<uint8_t> block(data + offset, data + offset + len);
        mp4_buf_put(m, block.data(), len);
        mp4_remux(m);
        // May exceed the piece: a box cut by its end that the remuxer cannot use counts as
        // consumed whole, and the caller goes on after it.
        uint32_t used = mp4_buf_get(m);
        stuck = used == 0;
        if (stuck) {
            if (len == size - offset)
                break;
            piece = whole_boxes ? uint32_t(size - offset) : piece * 2;
        }
        offset += used;
    }
    mp4_write_movie(m);
    mp4_delete(m);
    fclose(out);
    std::vector<uint8_t> written(out_bytes, out_bytes + out_size);
    free(out_bytes);
    play_output(written);
    return 0;
}
