// Calls between the library's units. Each group is implemented by the unit named in its heading.
#pragma once

#include "box/box.h"
#include "io.h"

// ---- codec_config.cpp ------------------------------------------------------------------------
void update_moov_parameter_data(mp4_muxer *m);
// Fills the esds of an mp4v entry around `size` bytes of decoder configuration (at most 128),
// with every descriptor length and the box size computed.
void fillVisualEsds(Esds *esds, const uint8_t *config, uint32_t size);

// ---- writer/tracks.cpp -----------------------------------------------------------------------
void create_moov(mp4_muxer *m);
void create_track(mp4_muxer *m, uint32_t track_id);
void write_ftyp(mp4_muxer *m);

// ---- writer/samples.cpp ----------------------------------------------------------------------
uint32_t skip_video_header(const uint8_t *data, uint32_t size);
uint32_t skip_aac_header(const uint8_t *data, uint32_t size);
int isIframe(const uint8_t *data, uint32_t size);
// Grows *array from old_count to new_count entries at power-of-two (then 1 MiB) boundaries.
// 0 on success, 1 on failure (the old array stays valid).
int realloc_p2(void **array, uint32_t old_count, uint32_t new_count, uint32_t entry_size);
// The remuxers' path into the writer: the sample is already in stored form (length-prefixed
// H.264, raw AAC), so encoder-output handling (header skipping, parameter capture, start code
// conversion, ADTS stripping) is bypassed.
void write_stored_sample(mp4_muxer *m, uint32_t track_id, const uint8_t *data, uint32_t size,
                         uint32_t duration);

// ---- writer/interleave.cpp -------------------------------------------------------------------
void track_interleave(mp4_muxer *m, uint32_t track_id, const uint8_t *data, uint32_t size,
                      uint32_t duration);
void write_interleaved_track(mp4_muxer *m, uint32_t track_id);

// ---- writer/moov_at_start.cpp ----------------------------------------------------------------
void setup_moov_at_start(mp4_muxer *m);
void update_moov_atom(mp4_muxer *m, uint32_t duration);
// Writes the movie into the region reserved at the start when it fits there; false (nothing
// written) when it does not.
bool write_moov_in_region(mp4_muxer *m);
// Turns the region at `at` into one padding box with a zero payload.
void blank_moov_region(mp4_muxer *m, uint64_t at);
// Tests watch the writes into the region through this (called before each one).
extern void (*moov_region_write_hook)(const mp4_muxer *m, uint64_t at, const uint8_t *bytes,
                                      uint32_t n);

// ---- writer/fragments.cpp --------------------------------------------------------------------
// The fragmented movie header written by mp4_write_movie on a handle without a movie tree.
void write_fragmented_moov(mp4_muxer *m);

// ---- writer/finish.cpp -----------------------------------------------------------------------
int updateMovieDurations(Box *moov);

// ---- reader.cpp ------------------------------------------------------------------------------
int load_moov_and_track(mp4_muxer *m);
void init_timestamps(mp4_muxer *m);
void process_moof(mp4_muxer *m, Box *moof);
int track_play(mp4_muxer *m, mp4_track *track, Box *trak);
int track_play_reverse(mp4_muxer *m, mp4_track *track, Box *trak);
int track_seek(mp4_track *track, Box *trak, uint64_t time);

// ---- remux.cpp -------------------------------------------------------------------------------
void defrag(mp4_muxer *m);
uint32_t defrag_callback(mp4_muxer *m, uint32_t track_ID, uint64_t offset, uint32_t length,
                         uint32_t duration);
void refrag(mp4_muxer *m);
void refrag_moov(mp4_muxer *r);
void refrag_sample(mp4_muxer *r, mp4_muxer *m, uint32_t track);
// The remuxer branch of mp4_write_movie: finishes the linked output handle.
void finish_remux_output(mp4_muxer *m);
