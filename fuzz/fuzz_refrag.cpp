// The refragmenting remuxer reading an arbitrary "plain" file and writing fragments into a memory
// buffer; what it wrote is then read back by the fragment reader. Inputs of odd length come from
// a descriptor of an in-memory file (samples then go through the read-ahead window), the others
// from a memory stream without a descriptor.
#include "fuzz_common.h"

#include <sys/mman.h>
#include <unistd.h>

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    silence_library_output();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    std::vector<uint8_t> input(data, data + size);
    FILE *in = nullptr;
    int fd = -1;
    if (size & 1) {
        fd = memfd_create("fuzz_refrag", 0);
        if (fd < 0 || write(fd, data, size) != ssize_t(size) || lseek(fd, 0, SEEK_SET) != 0) {
            if (fd >= 0)
                close(fd);
            return 0;
        }
    } else {
        in = fmemopen(input.data(), input.size(), "rb");
        if (!in)
            return 0;
    }
    mp4_muxer *m = mp4_refrag_create();
    if (in)
        mp4_file_pointer(m, in); // goes to the linked reader
    else
        mp4_file_descriptor(m, fd);
    mp4_is_fragmented(m);
    // Large enough for any movie header a fuzz input can describe: an overflowing buffer stalls
    // one second per write by design, which would only slow the fuzzer down.
    static std::vector<uint8_t> out(16 << 20);
    std::vector<uint8_t> stream; // everything written, up to a bound
    auto keep = [&stream](uint32_t produced) {
        if (produced > out.size())
            __builtin_trap();
        if (stream.size() + produced <= (8u << 20))
            stream.insert(stream.end(), out.begin(), out.begin() + produced);
    };
    for (int i = 0; i < 5000; i++) {
        mp4_buf_put(m, out.data(), uint32_t(out.size()));
        mp4_remux(m);
        uint32_t produced = mp4_buf_get(m);
        keep(produced);
        if (produced == 0 && i > 0)
            break;
    }
    mp4_buf_put(m, out.data(), uint32_t(out.size()));
    mp4_write_frag_header(m);
    keep(mp4_buf_get(m));
    mp4_delete(m);
    if (in)
        fclose(in);
    else
        close(fd);

    if (stream.empty())
        return 0;
    mp4_muxer *r = mp4_reader_create();
    mp4_buf_put(r, stream.data(), uint32_t(stream.size()));
    for (int i = 0; i < 100000; i++) {
        uint8_t *payload = nullptr;
        mp4_get_mdat(r, &payload, nullptr);
        if (!payload)
            break;
        mp4_get_timestamp(r, 1);
        mp4_get_timestamp(r, 2);
    }
    mp4_buf_get(r);
    mp4_delete(r);
    return 0;
}
