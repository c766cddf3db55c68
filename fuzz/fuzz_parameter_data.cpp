// Codec parameter data from arbitrary encoder output, before and after the movie tree exists,
// for H.264 and MPEG-4 Visual tracks.
#include "fuzz_common.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    silence_library_output();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::vector<uint8_t> bytes(data, data + size); // exact-size copy: overreads are caught
    const uint8_t *p = bytes.empty() ? nullptr : bytes.data();
    uint32_t n = uint32_t(bytes.size());
    for (uint32_t codec : {MP4_FOURCC('a', 'v', 'c', '1'), MP4_FOURCC('m', 'p', '4', 'v')}) {
        mp4_muxer *m = mp4_writer_create(); // no back-end: writes only count positions
        uint32_t t = mp4_video_track_create(m, codec, 90000, 3000, 0, 64, 48, 66, 30);
        if (p)
            mp4_set_parameter_data(m, p, n);
        if (p)
            mp4_write_track(m, t, p, n, 3000); // builds the tree, captures from the sample
        if (p)
            mp4_set_parameter_data(m, p, n);
        mp4_write_movie(m);
        mp4_delete(m);
    }
    return 0;
}
