// Handle, track record, stream back-ends and error codes: the layer every other unit uses.
#pragma once

#include <mp4kit/mp4.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

struct Box;

// Bits of mp4_muxer::flags. Bits 4 and 7 are unused.
enum : uint8_t {
    MP4_READER = 0x01,       // every field primitive reads instead of writing
    MP4_END_OF_INPUT = 0x02, // a read came up short
    MP4_REMUXER = 0x04,      // reader half of a defragmenting remuxer
    MP4_NEW_CHUNK = 0x08,    // the next sample written opens a new chunk
    MP4_DEBUG = 0x20,        // box dump on stdout
    MP4_MOV = 0x40,          // QuickTime flavour of the writer
};

// Error codes kept in mp4_muxer::error.
enum : uint8_t {
    MP4_ERR_SEEK = 1,
    MP4_ERR_NOMEM = 2,
    MP4_ERR_BAD_INPUT = 3,
    MP4_ERR_NULL_BOX = 4,
    MP4_ERR_RECURSION = 5,
    MP4_ERR_OVERFLOW = 6,
    MP4_ERR_NO_MDAT = 7,
    MP4_ERR_WRITE = 8,
    MP4_ERR_SIZE_LIMIT = 9,
    MP4_ERR_OPEN = 10,
};

struct mp4_sample {
    uint64_t offset;
    uint32_t size;
    uint32_t duration;
};

struct Mdhd;
struct Stts;
struct Stss;
struct Stsc;
struct Stsz;
struct Stco;
struct Co64;

// The boxes a track's samples are written into; a table a node does not hold is null.
struct TrackBoxes {
    Box *trak, *mdia, *minf, *stbl;
    Mdhd *mdhd;
    Stts *stts;
    Stss *stss;
    Stsc *stsc;
    Stsz *stsz;
    Stco *stco;
    Co64 *co64;
};

struct mp4_track {
    uint32_t handler_type;
    const char *handler_name; // not owned
    uint32_t fourcc;
    uint32_t width;
    uint32_t height;
    uint32_t timescale;
    uint32_t default_duration;
    uint32_t default_size;
    uint32_t default_flags;
    uint32_t delay;
    uint32_t samplerate;
    uint32_t channels;
    uint32_t sample_count;
    uint32_t sample_alloc;
    uint64_t timestamp;
    uint64_t frag_time;
    // When this audio track's held samples are next due (interleaving): every track keeps its
    // own, so that one track moving the deadline on cannot leave another holding forever.
    uint64_t interleave_time;
    mp4_sample *samples; // owned
    uint32_t play_sample;
    uint32_t play_stts_entry;
    uint32_t play_stts_used;
    uint32_t play_stss_entry;
    uint32_t play_stsc_entry;
    uint32_t play_chunk;
    uint32_t play_chunk_used;
    uint64_t play_offset;
    // Subtitle palette kept from creation so that a track created before the movie tree
    // exists can still be built later.
    uint32_t palette[16];
    uint8_t has_palette;
    // Where the writer last found this track's boxes: good while cache_moov is the movie and
    // box_tree_generation still reads cache_generation, so samples are written without a walk
    // over the tree.
    TrackBoxes cache;
    uint64_t cache_generation;
    Box *cache_moov;
};

// A sample that a fragment header describes, waiting for the media data that follows the
// header (defragmenter).
struct PendingSample {
    uint64_t offset;
    uint32_t track;
    uint32_t length;
    uint32_t duration;
    uint32_t moof; // number of the fragment header that described it
};

typedef uint32_t (*mp4_remux_fn)(mp4_muxer *m, uint32_t track_ID, uint64_t offset, uint32_t size,
                                 uint32_t duration);

// Room for captured parameter sets. The avcC record holds 132 bytes for SPS + PPS together and
// an MPEG-4 Visual header is at most 128 bytes, so these never need more.
enum { MP4_PARAM_MAX = 132 };

struct mp4_muxer {
    int32_t fd;
    FILE *fp;
    FILE *fp2;
    uint32_t own_file;
    uint8_t *file_buffer; // stdio buffer of a file the writer opened itself, freed after it
    uint8_t flags;
    uint8_t error;
    // Writes that failed, whatever the error code already was: tells whether a given write
    // reached the output when the code was set before it.
    uint32_t write_failures;
    uint8_t depth;
    uint64_t pos;
    uint64_t buffer_start;
    uint8_t *buffer;
    uint32_t buffer_size;
    int32_t buffer_adjust;
    uint64_t overflow_start;
    uint8_t *overflow_buffer;
    uint32_t overflow_size;
    uint64_t max_pos;
    uint32_t next_track_id;
    uint32_t frag_sequence;
    mp4_track *tracks;
    uint32_t handler_type;
    uint32_t sample_count;
    mp4_remux_fn remux_callback;
    // Defragmenter: samples whose data comes after their fragment header, as most fragmented
    // files have it, copied once that data has arrived; and the fragment headers read so far.
    PendingSample *pending;
    uint32_t pending_count;
    uint32_t pending_alloc;
    uint32_t moof_seq;
    // The default sample duration of the track fragment being read, 0 when its tfhd has none.
    uint32_t tfhd_duration;
    uint32_t current_track_id;
    Box *parent;
    uint16_t sps_size;
    uint8_t *sps;
    uint16_t pps_size;
    uint8_t *pps;
    uint32_t avc_profile;
    uint32_t avc_level;
    Box *moov;
    Box *mdat;
    mp4_muxer *linked;
    uint32_t frag_samples;
    uint32_t interleave_duration;
    uint8_t *interleave_buffer;
    uint32_t interleave_size;
    uint64_t interleave_time;
    uint32_t max_moov_size;
    uint32_t moov_max_minutes;
    uint32_t moov_interval;
    uint32_t moov_countdown;
    uint32_t moov_full;
    mp4_callback callback;
    uint64_t max_file_size;

    // Beyond the classic field set.
    uint8_t sps_store[MP4_PARAM_MAX]; // sps points here: parameter sets are copied in
    uint8_t pps_store[MP4_PARAM_MAX]; // pps points here
    mp4_sample_fn sample_fn;          // extended per-sample callback
    void *sample_opaque;
    uint8_t mixed_timescales; // playback compares audio/video times across timescales
    // Set while a remuxer hands a sample that is already in stored form (length-prefixed
    // H.264, raw AAC) to mp4_write_track: the encoder-output handling is skipped for it.
    uint8_t stored_form;
    // Bytes of the caller's buffer that exist. The remuxer may count a cut box as consumed by
    // raising buffer_size past them; reads stay within this.
    uint32_t buffer_limit;
    // Bytes of the input file read ahead for read_tmp: [read_window_start, + read_window_len).
    uint8_t *read_window;
    uint64_t read_window_start;
    uint32_t read_window_len;
    uint32_t read_window_capacity;
    // The movie kept at the start: the bytes it coded to at its last write, and whether its
    // children then sat at the back of the region behind a padding box (see moov_at_start.cpp).
    uint64_t moov_coded;
    uint8_t moov_at_back;
};

// Bytes of the attached buffer that may be read or handed out.
inline uint32_t buffer_readable(const mp4_muxer *m) {
    return m->buffer_size < m->buffer_limit ? m->buffer_size : m->buffer_limit;
}

inline bool is_reader(const mp4_muxer *m) {
    return (m->flags & MP4_READER) != 0;
}

// Track records of a movie read from input are indexed by numbers the input chooses (its
// next_track_ID, a trak's track_ID). One hostile number must not cost gigabytes of records, so
// the reader and both remuxers make at most this many of `wanted`; a track numbered beyond them
// has no record, as every use compares with next_track_id.
inline uint32_t bounded_track_records(uint32_t wanted) {
    const uint32_t most = 1024;
    return wanted < most ? wanted : most;
}
inline bool at_end_of_input(const mp4_muxer *m) {
    return (m->flags & MP4_END_OF_INPUT) != 0;
}

// ---- allocation ------------------------------------------------------------------------------
// Every heap allocation of the library goes through these, so tests can make the n-th one fail.
void *mp4_malloc(size_t n);
void *mp4_calloc(size_t count, size_t size);
void *mp4_realloc(void *p, size_t n);
void mp4_free(void *p);
// Test seam: after `n` more successful allocations, every further one fails until reset with
// -1 (the default: never fail).
void mp4_alloc_fail_after(long n);
// Test seam: the allocation after `n` more successful ones fails, and only that one (-1, the
// default, turns this off).
void mp4_alloc_fail_only(long n);
// Number of allocations performed since the process started (for tests that probe each one).
unsigned long mp4_alloc_count(void);
// Largest single allocation requested since the last reset (tests of input-bounded allocation).
size_t mp4_alloc_largest(void);
void mp4_alloc_reset_largest(void);
// Blocks allocated and not yet freed (tests that check a handle leaves nothing behind).
long mp4_alloc_live(void);

// ---- stream operations -----------------------------------------------------------------------
// Returns the bytes delivered: n, or fewer when the input ran out (end_of_input is then set; a
// memory buffer delivers a read whole or not at all).
uint32_t read_n(mp4_muxer *m, void *dst, uint32_t n);
void write_n(mp4_muxer *m, const void *src, int32_t n);
uint64_t muxer_pos(mp4_muxer *m);
void muxer_seek(mp4_muxer *m, uint64_t position);
// Up to n bytes read at `position` into a new block (the caller frees it with mp4_free); *got
// receives how many the input held. The stream position and end_of_input are left as they
// were. Null with error 2 when the block cannot be allocated.
uint8_t *read_tmp(mp4_muxer *m, uint64_t position, uint32_t n, uint32_t *got);
// fflush of the stdio streams, if any; false (and error 8) if one failed.
bool flush_output(mp4_muxer *m);

// Reports one sample to the caller's callbacks (plain, then extended).
void report_sample(mp4_muxer *m, uint32_t track_id, uint64_t offset, uint64_t timestamp,
                   uint32_t size, uint32_t flags);

// ---- process-wide state ----------------------------------------------------------------------
extern char compressor_name[32];
extern const uint32_t AACfrequencyTable[16];
