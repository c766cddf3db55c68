// Loading a file from memory, then playing it forwards and backwards, seeking, and querying
// every track: each track record, and each track_ID the movie's traks carry.
#include "fuzz_common.h"

#include "box/box.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    silence_library_output();
    return 0;
}

// By track record (constant time each).
static void query_record(mp4_muxer *m, uint32_t track) {
    mp4_get_timestamp(m, int(track));
    mp4_get_default_duration(m, int(track));
}

// By track_ID (each a walk over the traks).
static void query_id(mp4_muxer *m, uint32_t track_ID) {
    mp4_get_fourcc(m, track_ID);
    mp4_get_timescale(m, track_ID);
    mp4_get_samplerate(m, track_ID);
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
            mp4_play(m);
            mp4_play_reverse(m);
        }
    }
    // Every record the reader made, one past them, and numbers no record can have.
    for (uint32_t track = 0; track <= m->next_track_id; track++)
        query_record(m, track);
    for (uint32_t track : {0xFFFFFFFFu, 0x80000000u}) {
        query_record(m, track);
        query_id(m, track);
    }
    // The track_ID of every trak (the first few hundred: each query walks them all).
    int traks = 0;
    for (Box *trak = getChild(m->moov, fourcc("trak")); trak && traks < 256; trak = trak->next) {
        Box *tkhd = getChild(trak, fourcc("tkhd"));
        if (trak->type != fourcc("trak") || !tkhd || tkhd->alloc_size < sizeof(Tkhd))
            continue;
        query_id(m, static_cast<Tkhd *>(tkhd)->track_ID);
        traks++;
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
