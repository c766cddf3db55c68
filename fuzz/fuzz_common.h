// Shared set-up of the fuzz targets: the library prints diagnostics on stdout and stderr for
// every malformed box, which would drown the fuzzer's own output.
#pragma once

#include <mp4kit/mp4.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <algorithm>
#include <cstdlib>
#include <vector>

inline void silence_library_output() {
    if (!freopen("/dev/null", "w", stdout))
        return;
    if (!getenv("MP4KIT_FUZZ_VERBOSE"))
        (void)!freopen("/dev/null", "w", stderr);
}

// Feeds a whole input to a reader as one memory buffer that stays valid for the handle's life.
struct MemoryInput {
    std::vector<uint8_t> bytes;
    MemoryInput(const uint8_t *data, size_t size) : bytes(data, data + size) {}
    uint8_t *data() { return bytes.empty() ? nullptr : bytes.data(); }
    uint32_t size() const { return uint32_t(bytes.size()); }
};

inline int count_samples(uint64_t, uint64_t, uint32_t, uint32_t) { return 0; }
