// Loading a file from memory, then playing it forwards and backwards, seeking, and querying
// every track.
#include "fuzz_common.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    silence_library_output();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    MemoryInput in(data, size);
    mp4_muxer *m = mp4_reader_create();
    mp4_buf_put(m, in.data(), in.size());
    mp4_set_callback(m, count_samples);
    mp4_play_mixed_timescales(m, size & 1);
    int steps = 0;
    while (mp4_play(m) == 0 && ++steps < 100000) {
    }
    while (mp4_play_reverse(m) == 0 && ++steps < 200000) {
    }
    for (uint64_t t : {uint64_t(0), uint64_t(1), uint64_t(3000), uint64_t(90000), ~uint64_t(0)}) {
        if (mp4_seek(m, t) == 0) {
            mp4_play(m);
            mp4_play_reverse(m);
        }
    }
    for (int track = -1; track < 6; track++) {
        mp4_get_timestamp(m, track);
        mp4_get_default_duration(m, track);
        mp4_get_fourcc(m, uint32_t(track));
        mp4_get_timescale(m, uint32_t(track));
        mp4_get_samplerate(m, uint32_t(track));
    }
    uint32_t psize = mp4_get_parameter_size(m);
    if (psize && psize < (1u << 16)) {
        std::vector<uint8_t> param(psize);
        mp4_get_parameter_data(m, param.data());
    }
    mp4_buf_get(m);
    mp4_delete(m);

    // The fragmented-file test works on a fresh reader and must restore its position.
    mp4_muxer *f = mp4_reader_create();
    mp4_buf_put(f, in.data(), in.size());
    mp4_is_fragmented(f);
    mp4_buf_get(f);
    mp4_delete(f);
    return 0;
}
