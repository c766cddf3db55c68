// The defragmenting remuxer on arbitrary input fed in pieces; the output goes nowhere (a writer
// without a back-end only counts positions).
#include "fuzz_common.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    silence_library_output();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::vector<uint8_t> stream(data, data + size);
    mp4_muxer *m = mp4_remuxer_create();
    size_t offset = 0;
    uint32_t piece = 4096;
    int rounds = 0;
    while (offset < stream.size() && rounds++ < 10000) {
        uint32_t len = uint32_t(std::min<size_t>(piece, stream.size() - offset));
        mp4_buf_put(m, stream.data() + offset, len);
        mp4_remux(m);
        uint32_t used = mp4_buf_get(m);
        if (used == 0) {
            if (len == stream.size() - offset)
                break;
            piece *= 2;
        }
        offset += used;
    }
    mp4_write_movie(m);
    mp4_delete(m);
    return 0;
}
