/*
 * mp4kit: recording and reading of MP4 (ISO base media) and QuickTime movie files.
 *
 * One handle type serves as a writer (plain file, or fragmented MP4 into caller memory
 * buffers), as a reader, and, as a linked pair, as a remuxer between fragmented and plain
 * files. Calls do not return failures: they record an error code (1..10) in the handle,
 * which the caller polls with mp4_get_error_code() / mp4_get_error(). Processing goes on
 * after a failure.
 *
 * Threads: the library starts none. A handle (with its linked handle) must be used by one
 * thread at a time; mp4_compressor_name() and the box dump use process-wide state.
 *
 * Error codes:
 *   1 "seek out of range"          2 "failed to allocate memory"   3 "bad input"
 *   4 "cannot write null box"      5 "recursion limit reached"     6 "buffer overflow"
 *   7 "remux failed to find mdat"  8 "write failed"                9 "maximum size limit reached"
 *  10 "file open failed"
 */
#ifndef MP4KIT_MP4_H
#define MP4KIT_MP4_H

#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Opaque handle; defined only inside the library. */
typedef struct mp4_muxer mp4_muxer;
/* Opaque box-tree node. */
typedef struct Box Box;

/* Sample callback: file offset, decode time (track timescale), size in bytes, flags.
 * Flags: 1 = sync sample listed in stss; 2 = every sample is a sync sample (writer: the track
 * has no stss; reader: an audio sample not listed in stss); 0 = other. Result ignored. */
typedef int (*mp4_callback)(uint64_t offset, uint64_t timestamp, uint32_t size, uint32_t flags);

/* Per-sample callback with the track number and the caller's context pointer. */
typedef int (*mp4_sample_fn)(void *opaque, uint32_t track_id, uint64_t offset,
                             uint64_t timestamp, uint32_t size, uint32_t flags);

#define MP4_FOURCC(a, b, c, d)                                                                     \
    (((uint32_t)(uint8_t)(a) << 24) | ((uint32_t)(uint8_t)(b) << 16) |                           \
     ((uint32_t)(uint8_t)(c) << 8) | (uint32_t)(uint8_t)(d))

/* ---- handle and I/O ---------------------------------------------------------------------- */

/* New MP4 writer. Returns NULL when memory runs out. */
mp4_muxer *mp4_writer_create(void);
/* New QuickTime (.mov) writer. Returns NULL when memory runs out. */
mp4_muxer *mov_writer_create(void);
/* New reader. Returns NULL when memory runs out. */
mp4_muxer *mp4_reader_create(void);
/* Destroys a handle and its linked handle; closes only a file it opened itself (never a
 * descriptor or stream given by the caller, never a caller buffer). NULL is ignored. */
void mp4_delete(mp4_muxer *m);
/* Bit 0 of on switches the box dump on stdout (on the linked handle when there is one). */
void mp4_debug(mp4_muxer *m, int on);
/* Attaches a file descriptor (never closed by the library); on a remuxer, to its linked half.
 * Leaves no error. */
void mp4_file_descriptor(mp4_muxer *m, int fd);
/* Attaches a stdio stream (never closed by the library). Leaves no error. */
void mp4_file_pointer(mp4_muxer *m, FILE *stream);
/* Attaches a second stdio stream that mirrors every write of the first. Leaves no error. */
void mp4_file2_pointer(mp4_muxer *m, FILE *stream);
/* Opens path ("rb" for a reader, "w+b" for a writer); closed by mp4_delete. Error 10. */
void mp4_file_name_ascii(mp4_muxer *m, const char *path);
/* Sets the process-wide compressor name of video sample entries (at most 32 bytes; default
 * "Talvorin 4417"). Affects handles' entries written afterwards. */
void mp4_compressor_name(const char *name);
/* Attaches a caller memory buffer at the current stream position (not copied, not freed).
 * Writes past its end go to an internal overflow area and leave error 6. */
void mp4_buf_put(mp4_muxer *m, uint8_t *data, uint32_t size);
/* Detaches the buffer; returns the bytes filled (writer) or consumed (reader). */
uint32_t mp4_buf_get(mp4_muxer *m);

/* ---- errors ------------------------------------------------------------------------------ */

/* Text of the handle's error (falling back to the linked handle), or NULL. Not to be freed. */
const char *mp4_get_error(mp4_muxer *m);
/* Error code of the handle, else of its linked handle; 0 when none. */
uint32_t mp4_get_error_code(mp4_muxer *m);
/* 1 when the handle or its linked handle holds any error code, else 0. */
int mp4_was_write_error(mp4_muxer *m);
/* Stores the low 8 bits of code as the handle's own error code (0 clears it). */
void mp4_set_error(mp4_muxer *m, int code);

/* ---- box tree ---------------------------------------------------------------------------- */

/* First child of box with the given type, or NULL. */
Box *getChild(Box *box, uint32_t type);
/* Parent of box, or NULL. */
Box *getParent(Box *box);
/* Reads (reader) or writes (writer) one box as a child of parent and links it; with m NULL it
 * only links box. Returns the box linked, or NULL when the read failed (input ran out, or
 * errors 2, 3, 5). Writing can leave errors 1, 4, 5, 6, 8. */
Box *rwSubBox(mp4_muxer *m, Box *box, Box *parent);

/* ---- codec parameter data ---------------------------------------------------------------- */

/* Captures H.264 SPS/PPS (Annex B, 4-byte start codes) or an MPEG-4 Visual header from
 * encoder output; the bytes are copied into the handle, so data may be freed on return.
 * Unrecognised data is reported on stdout and changes nothing. Leaves no error. */
void mp4_set_parameter_data(mp4_muxer *m, const uint8_t *data, uint32_t length);
/* Size in bytes of the parameter data of the loaded movie (Annex B for H.264), or 0. */
uint32_t mp4_get_parameter_size(mp4_muxer *m);
/* Copies the parameter data (mp4_get_parameter_size bytes) into buffer; readers only.
 * Leaves no error. */
void mp4_get_parameter_data(mp4_muxer *m, uint8_t *buffer);

/* ---- writer ------------------------------------------------------------------------------ */

/* Adds a video track ('avc1', 'mp4v' or another sample-entry code). Returns the track number
 * (1, 2, ...), or 0 with error 2 when memory runs out. */
uint32_t mp4_video_track_create(mp4_muxer *m, uint32_t fourcc, uint32_t timescale,
                                uint32_t default_duration, uint32_t delay, uint32_t width,
                                uint32_t height, uint32_t avc_profile, uint32_t avc_level);
/* Adds an audio track ('mp4a' AAC or 'sowt' 16-bit PCM). Returns the track number or 0. */
uint32_t mp4_audio_track_create(mp4_muxer *m, uint32_t fourcc, uint32_t timescale,
                                uint32_t default_duration, uint32_t delay, uint32_t samplerate,
                                uint32_t channels);
/* Adds a subtitle track; name must outlive the handle; palette is NULL or 16 entries.
 * Returns the track number or 0. */
uint32_t mp4_subtitle_track_create(mp4_muxer *m, uint32_t fourcc, const char *name,
                                   uint32_t timescale, uint32_t default_duration, uint32_t delay,
                                   uint32_t width, uint32_t height, const uint32_t *palette);
/* Writes one encoded sample (access unit, ADTS frame, PCM block) of duration ticks.
 * Errors: 2, 8, 9 (size limit), 6 (memory buffer overflow). */
void mp4_write_track(mp4_muxer *m, uint32_t track_id, const uint8_t *data, uint32_t size,
                     uint32_t duration);
/* Writes an opaque 'skip' box holding data; size 0 writes nothing. Errors: 1, 6, 8. */
void mp4_write_skip_data(mp4_muxer *m, const uint8_t *data, uint32_t size);
/* Holds audio back and writes it in one chunk per period (audio timescale ticks); 0 = off.
 * Set before the first sample; changed later, what is held is written at once. Each audio
 * track keeps its own period. Holding a sample can later leave error 2. */
void mp4_interleave_duration(mp4_muxer *m, uint32_t period);
/* Reserves max_moov_size bytes for the movie header at the start of the file, rewritten every
 * interval ticks of video. Call before the first sample (later, only the interval changes: the
 * reservation on file keeps its size). When the movie outgrows the reservation,
 * mp4_write_track leaves error 6 and the movie goes to the end at the finish. */
void mp4_set_moov_mode(mp4_muxer *m, uint32_t max_moov_size, uint32_t interval);
/* As mp4_set_moov_mode, the reservation estimated for max_minutes of recording from the
 * tracks' default durations, rewritten every interval_seconds (90 kHz video). */
void mp4_set_moov_max_duration(mp4_muxer *m, uint32_t max_minutes, uint32_t interval_seconds);
/* Writes a movie fragment header ('moof') describing the queued samples (buffer output).
 * Errors: 1, 6, 8. */
void mp4_write_frag_header(mp4_muxer *m);
/* Finishes the movie: plain file, fragmented header, or remuxer output. Errors: 2, 3, 8, and 9
 * when audio still held for interleaving would pass the size limit. */
void mp4_write_movie(mp4_muxer *m);
/* Installs the sample callback (NULL turns it off). Leaves no error. A callback must not call
 * back into the handle that calls it (it runs in the middle of that handle's work). */
void mp4_set_callback(mp4_muxer *m, mp4_callback callback);
/* Limits the written file's size (0 = no limit); samples past it fail with error 9, and the
 * file stays playable. */
void mp4_max_file_size(mp4_muxer *m, uint64_t limit);

/* ---- reader ------------------------------------------------------------------------------ */

/* 1 fragmented, 0 plain, -1 cannot tell. The input position is restored; the movie stays
 * loaded. A failed read can leave errors 2, 3, 5. */
int mp4_is_fragmented(mp4_muxer *m);
/* Buffered fragment reading: points *data at the next mdat payload in the attached buffer and
 * sets *length; both are left unchanged when no whole mdat is in the buffer (attach more).
 * A failed read can leave errors 2, 3, 5. */
void mp4_get_mdat(mp4_muxer *m, uint8_t **data, uint32_t *length);
/* Delivers the audio due and the next video sample to the callbacks. 0, or -1 at the end or
 * when the movie cannot be loaded (errors 2, 3, 5 from reading). */
int mp4_play(mp4_muxer *m);
/* Same, backwards. 0, or -1 at the start. */
int mp4_play_reverse(mp4_muxer *m);
/* Moves playback to the last sync sample starting before time (video timescale). 0, or -1
 * without a video track or with incomplete tables. Loading can leave errors 2, 3, 5. */
int mp4_seek(mp4_muxer *m, uint64_t time);
/* Decode time of the next sample of track (low 32 bits), then advances it by its default
 * duration. 0 for a bad track. */
uint32_t mp4_get_timestamp(mp4_muxer *m, int track);
/* The track's default sample duration, or 0. */
uint32_t mp4_get_default_duration(mp4_muxer *m, int track);
/* Sample-entry code of the track with this tkhd track_ID, or 0. */
uint32_t mp4_get_fourcc(mp4_muxer *m, uint32_t track_ID);
/* Media timescale of the track, or 0. */
uint32_t mp4_get_timescale(mp4_muxer *m, uint32_t track_ID);
/* Sampling rate in Hz of the track's 'mp4a' entry, or 0. */
uint32_t mp4_get_samplerate(mp4_muxer *m, uint32_t track_ID);

/* ---- remuxers ---------------------------------------------------------------------------- */

/* Fragmented to plain: a reader fed with mp4_buf_put whose linked writer makes the file.
 * Feed it whole top-level boxes (as `mp4kit defragment` does): a box cut by the end of a piece
 * is taken as it stands (what arrived of an mdat is kept, a cut moov or moof is lost). The media
 * data of a fragment may come before its moof or after it. Returns NULL when memory runs out. */
mp4_muxer *mp4_remuxer_create(void);
/* Plain to fragmented: a writer to memory buffers whose linked reader reads the file (which
 * must not be rewritten meanwhile: samples are read ahead). Returns NULL when memory runs out. */
mp4_muxer *mp4_refrag_create(void);
/* One pass of the remuxer (direction chosen by which half is the reader). Errors of either
 * half: 1, 2, 3, 5, 6, 7, 8. */
void mp4_remux(mp4_muxer *m);

/* ---- extensions -------------------------------------------------------------------------- */

/* Playback and seeking across differing audio/video timescales; off by default (playback then
 * stops with -1 when the audio and video timescales differ). */
void mp4_play_mixed_timescales(mp4_muxer *m, int on);
/* Per-sample callback with the track number and the caller's context pointer: called for every
 * sample the plain callback is called for (writer and reader), after it when both are set.
 * NULL turns it off. Like the plain one, it must not call back into the same handle. */
void mp4_set_sample_callback(mp4_muxer *m, mp4_sample_fn fn, void *opaque);

#ifdef __cplusplus
}
#endif

#endif
