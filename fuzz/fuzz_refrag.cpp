// The refragmenting remuxer reading an arbitrary "plain" file and writing fragments into a
// memory buffer.
#include "fuzz_common.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    silence_library_output();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    std::vector<uint8_t> input(data, data + size);
    FILE *in = fmemopen(input.data(), input.size(), "rb");
    if (!in)
        return 0;
    mp4_muxer *m = mp4_refrag_create();
    mp4_file_pointer(m, in); // goes to the linked reader
    mp4_is_fragmented(m);
    // Large enough for any movie header a fuzz input can describe: an overflowing buffer stalls
    // one second per write by design, which would only slow the fuzzer down.
    static std::vector<uint8_t> out(16 << 20);
    for (int i = 0; i < 5000; i++) {
        mp4_buf_put(m, out.data(), uint32_t(out.size()));
        mp4_remux(m);
        uint32_t produced = mp4_buf_get(m);
        if (produced > out.size())
            __builtin_trap();
        if (produced == 0 && i > 0)
            break;
    }
    mp4_buf_put(m, out.data(), uint32_t(out.size()));
    mp4_write_frag_header(m);
    mp4_buf_get(m);
    mp4_delete(m);
    fclose(in);
    return 0;
}
