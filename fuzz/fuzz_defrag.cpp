// The defragmenting remuxer on arbitrary input fed in pieces, each handed in as its own
// exact-size heap block (a read past a piece is an ASan report). The plain movie it writes goes
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
    size_t offset = 0;
    uint32_t piece = 4096;
    int rounds = 0;
    while (offset < size && rounds++ < 10000) {
        uint32_t len = uint32_t(std::min<size_t>(piece, size - offset));
        std::vector<uint8_t> block(data + offset, data + offset + len);
        mp4_buf_put(m, block.data(), len);
        mp4_remux(m);
        // May exceed the piece: a box cut by its end that the remuxer cannot use counts as
        // consumed whole, and the caller goes on after it.
        uint32_t used = mp4_buf_get(m);
        if (used == 0) {
            if (len == size - offset)
                break;
            piece *= 2;
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
