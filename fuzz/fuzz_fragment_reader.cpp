// The buffered fragment reader fed in pieces whose sizes the fuzzer chooses: the first bytes
// of the input are the piece sizes, the rest is the stream. Each piece is handed in as its own
// exact-size heap block, so a read past the piece's end is an ASan report, not a quiet read
// of the bytes that follow in the stream.
#include "fuzz_common.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    silence_library_output();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 4)
        return 0;
    const uint8_t *sizes = data;
    const size_t nsizes = 4;
    const uint8_t *stream = data + nsizes;
    const size_t stream_size = size - nsizes;
    mp4_muxer *m = mp4_reader_create();
    size_t offset = 0, turn = 0;
    uint32_t piece = 1 + sizes[0] * 16u;
    int rounds = 0;
    while (offset < stream_size && rounds++ < 100000) {
        uint32_t len = uint32_t(std::min<size_t>(piece, stream_size - offset));
        std::vector<uint8_t> block(stream + offset, stream + offset + len);
        mp4_buf_put(m, block.data(), len);
        for (int i = 0; i < 10000; i++) {
            uint8_t *payload = nullptr;
            uint32_t length = 0;
            mp4_get_mdat(m, &payload, &length);
            if (!payload)
                break;
            // The payload must lie inside the piece handed in.
            if (payload < block.data() || length > len || payload + length > block.data() + len)
                __builtin_trap();
            for (int t = 1; t < 4; t++)
                mp4_get_timestamp(m, t);
        }
        uint32_t used = mp4_buf_get(m);
        if (used > len)
            __builtin_trap();
        offset += used;
        if (used == 0) {
            if (len == stream_size - offset)
                break; // the rest cannot be read whole: give up as a caller would
            piece = piece * 2 + sizes[++turn % nsizes];
        } else {
            piece = 1 + sizes[++turn % nsizes] * 16u;
        }
    }
    mp4_delete(m);
    return 0;
}
