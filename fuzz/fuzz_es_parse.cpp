// The recording tool's elementary-stream parsers (H.264 Annex B, MPEG-4 Visual, ADTS, PCM) on
// arbitrary bytes, read from a file through a window of input-chosen size so that units, start
// codes and headers straddle window ends; the parameter-set and object-layer parsers on the raw
// bytes. Every unit must lie inside the input, after the one before it, and be readable whole.
#include "es_parse.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace {

// Reads every byte of a unit (ASan sees a read past the window) and checks where it lies.
struct Checker {
    es::Input &in;
    uint64_t end = 0;
    uint32_t sum = 0;
    void unit(const es::Unit &u) {
        if (u.offset < end || u.offset + u.size > in.size() || u.offset < in.begin() ||
            u.offset + u.size > in.end())
            __builtin_trap();
        const uint8_t *p = in.at(u.offset);
        for (size_t i = 0; i < u.size; i++)
            sum += p[i];
        end = u.offset + u.size;
    }
};

template <class Splitter, class... Args>
void split(const std::string &path, size_t window, Args... args) {
    es::Input in(window);
    std::string error;
    if (!in.open(path, &error))
        return;
    // Twice, as the tool goes through a stream: looked through, then recorded.
    for (int pass = 0; pass < 2; pass++) {
        Splitter s(in, args...);
        Checker c{in};
        es::Unit u;
        for (int n = 0; n < 1000000 && s.next(&u); n++)
            c.unit(u);
        in.rewind();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2)
        return 0;
    // First byte: the window (16 bytes to 4 KiB); second: the PCM frame size.
    const size_t window = 16 + size_t(data[0]) * 16;
    const uint32_t frame_bytes = 1 + data[1] % 8;
    data += 2;
    size -= 2;

    std::vector<uint8_t> bytes(data, data + size); // exact size: overreads are caught
    es::H264Info sps;
    es::parseSps(bytes.data(), bytes.size(), &sps);
    es::M4vInfo vol;
    es::parseVol(bytes.data(), bytes.size(), &vol);

    int fd = memfd_create("es", 0);
    if (fd < 0)
        return 0;
    if (size && write(fd, data, size) != ssize_t(size)) {
        close(fd);
        return 0;
    }
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    split<es::H264Splitter>(path, window);
    split<es::M4vSplitter>(path, window);
    split<es::AdtsSplitter>(path, window);
    split<es::PcmSplitter>(path, window, frame_bytes, uint32_t(1 + frame_bytes * 3));
    close(fd);
    return 0;
}
