// The per-type field descriptions called by the codec driver's dispatch in codec.cpp. Each
// enlarges *box to its record with extendBox (false when that fails: the driver then takes its
// allocation exit), then codes the fields in on-disk order in the handle's direction.
// `start` is the stream position of the box's first header byte, so start + size is its end.
#pragma once

#include "box/box.h"

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
