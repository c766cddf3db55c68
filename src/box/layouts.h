// The per-type field descriptions called by the codec driver's dispatch in codec.cpp. Each
// enlarges *box to its record with extendBox (false when that fails: the driver then takes its
// allocation exit), then codes the fields in on-disk order in the handle's direction.
// `start` is the stream position of the box's first header byte, so start + size is its end.
#pragma once

#include "box/box.h"

// Bounded allocation for everything sized by a count or length read from a file (codec.cpp).
// A reader must never allocate more than its input could fill: when the input is a memory
// buffer, or a file, descriptor or stream whose size fstat reports, the bytes still to come
// after the current position bound every table.
//
// inputHolds(m, bytes): true when the input can still deliver `bytes` (or its size cannot be
// learned, e.g. a pipe). Otherwise sets end_of_input and returns false; the layout then returns
// true so that the driver takes its rewind exit, as for any input that runs out.
bool inputHolds(mp4_muxer *m, uint64_t bytes);
//
// allocEntries(m, count, entry_size, disk_entry_size): a zero-filled block of count x
// entry_size bytes for a table whose entries take disk_entry_size bytes each in the file
// (disk_entry_size must be at least 1: entries with no bytes on disk cannot be bounded). Returns
// null without allocating when count is 0, when end_of_input is already set, or when the input
// cannot hold count x disk_entry_size more bytes (end_of_input is then set). A null result with
// count > 0 and end_of_input clear means the allocator failed. Usual idiom in a layout:
//     b->entries = static_cast<T *>(allocEntries(m, b->entry_count, sizeof(T), 8));
//     if (!b->entries && b->entry_count)
//         return at_end_of_input(m); // true: rewind exit; false: allocation exit (error 2)
//     if (b->entries) b->node_flags |= BOX_OWNS_ARRAYS;
void *allocEntries(mp4_muxer *m, uint32_t count, size_t entry_size, size_t disk_entry_size);

// movie.cpp: movie, track and media boxes
bool codeFtyp(mp4_muxer *m, Box **box, uint64_t start);
bool codeMvhd(mp4_muxer *m, Box **box, uint64_t start);
bool codeTkhd(mp4_muxer *m, Box **box, uint64_t start);
bool codeMdhd(mp4_muxer *m, Box **box, uint64_t start);
bool codeHdlr(mp4_muxer *m, Box **box, uint64_t start);
bool codeVmhd(mp4_muxer *m, Box **box, uint64_t start);
bool codeSmhd(mp4_muxer *m, Box **box, uint64_t start);
bool codeHmhd(mp4_muxer *m, Box **box, uint64_t start);
bool codeNmhd(mp4_muxer *m, Box **box, uint64_t start);
bool codeDref(mp4_muxer *m, Box **box, uint64_t start);
bool codeUrl(mp4_muxer *m, Box **box, uint64_t start); // 'url ' and 'alis'
bool codeUrn(mp4_muxer *m, Box **box, uint64_t start);
bool codeElst(mp4_muxer *m, Box **box, uint64_t start);
bool codeFree(mp4_muxer *m, Box **box, uint64_t start); // 'free', 'skip', 'wide'
bool codeMdat(mp4_muxer *m, Box **box, uint64_t start);

// tables.cpp: sample tables
bool codeStts(mp4_muxer *m, Box **box, uint64_t start);
bool codeCtts(mp4_muxer *m, Box **box, uint64_t start);
bool codeStss(mp4_muxer *m, Box **box, uint64_t start);
bool codeStsz(mp4_muxer *m, Box **box, uint64_t start);
bool codeStz2(mp4_muxer *m, Box **box, uint64_t start);
bool codeStsc(mp4_muxer *m, Box **box, uint64_t start);
bool codeStco(mp4_muxer *m, Box **box, uint64_t start);
bool codeCo64(mp4_muxer *m, Box **box, uint64_t start);

// entries.cpp: sample descriptions and codec boxes
bool codeStsd(mp4_muxer *m, Box **box, uint64_t start);
// A box without a case of its own whose parent is an stsd; laid out by the handle's
// handler_type. Sets *decoded to false when the handler has no layout (the entry is then
// passed over like an unknown box).
bool codeSampleEntry(mp4_muxer *m, Box **box, uint64_t start, bool *decoded);
bool codePlainSampleEntry(mp4_muxer *m, Box **box, uint64_t start); // 'mett', 'metx'
bool codeAvcC(mp4_muxer *m, Box **box, uint64_t start);
bool codeBtrt(mp4_muxer *m, Box **box, uint64_t start);
bool codeChan(mp4_muxer *m, Box **box, uint64_t start);
bool codeFiel(mp4_muxer *m, Box **box, uint64_t start);

// fragments.cpp: movie fragment boxes
bool codeMehd(mp4_muxer *m, Box **box, uint64_t start);
bool codeTrex(mp4_muxer *m, Box **box, uint64_t start);
bool codeMfhd(mp4_muxer *m, Box **box, uint64_t start);
bool codeTfhd(mp4_muxer *m, Box **box, uint64_t start);
bool codeTrun(mp4_muxer *m, Box **box, uint64_t start);
bool codeTfra(mp4_muxer *m, Box **box, uint64_t start);
bool codeMfro(mp4_muxer *m, Box **box, uint64_t start);

// descriptors.cpp: MPEG-4 descriptors
bool codeEsds(mp4_muxer *m, Box **box, uint64_t start);
bool codeIods(mp4_muxer *m, Box **box, uint64_t start);
