// Reading arbitrary input with the box dump on.
#include "fuzz_common.h"

#include "box/box.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    silence_library_output();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    MemoryInput in(data, size);
    mp4_muxer *m = mp4_reader_create();
    mp4_debug(m, 1);
    mp4_buf_put(m, in.data(), in.size());
    for (int i = 0; i < 10000; i++) {
        Box *box = rwBox(m, nullptr);
        if (!box)
            break;
        deleteBox(box);
    }
    mp4_buf_get(m);
    mp4_delete(m);
    return 0;
}
