// Shared set-up of the fuzz targets: the library prints diagnostics on stdout for every
// malformed box, which would drown the fuzzer's own output. Its standard error is left alone:
// libFuzzer and the sanitizers report there, and run.sh passes -close_fd_mask=2 so that the
// library's own warnings on stderr are dropped while those reports are kept.
#pragma once

#include <mp4kit/mp4.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

inline void silence_library_output() {
    if (!getenv("MP4KIT_FUZZ_VERBOSE"))
        (void)!freopen("/dev/null", "w", stdout);
}

// Feeds a whole input to a reader as one memory buffer that stays valid for the handle's life.
// The copy has exactly the input's size, so ASan sees any read past its end.
struct MemoryInput {
    std::vector<uint8_t> bytes;
    MemoryInput(const uint8_t *data, size_t size) : bytes(data, data + size) {}
    uint8_t *data() { return bytes.empty() ? nullptr : bytes.data(); }
    uint32_t size() const { return uint32_t(bytes.size()); }
};

inline int count_samples(uint64_t, uint64_t, uint32_t, uint32_t) {
    return 0;
}
