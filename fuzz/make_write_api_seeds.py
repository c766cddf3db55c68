#!/usr/bin/env python3
"""Writes the seed inputs of fuzz_write_api into fuzz/corpus_write_api/ (see the input layout at
the top of fuzz/fuzz_write_api.cpp)."""
import os
import struct

OUT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus_write_api")

def u16(v): return struct.pack(">H", v)
def u32(v): return struct.pack(">I", v)

# Input::value(): 6 = 90000, 3 = a 16-bit value, 2 = an 8-bit value, 0 = zero, 1 = one.
def val(v):
    if v == 0: return b"\x00"
    if v == 1: return b"\x01"
    if v == 90000: return b"\x06"
    if v < 256: return b"\x02" + bytes([v])
    if v < 65536: return b"\x03" + u16(v)
    return b"\x07" + u32(v)

AVC1, MP4V, MP4A, SOWT, TX3G = 0, 1, 2, 3, 4

def video(fourcc, ts=90000, dur=3000, w=64, h=48):
    return bytes([0, fourcc]) + val(ts) + val(dur) + val(0) + val(w) + val(h) + bytes([66, 30])

def audio(fourcc, ts=48000, dur=1024, rate=48000, ch=2):
    return bytes([1, fourcc]) + val(ts) + val(dur) + val(0) + val(rate) + val(ch)

def subtitle(fourcc=TX3G, ts=1000, dur=500):
    return bytes([2, fourcc, 1]) + val(ts) + val(dur) + val(0) + val(320) + val(40) + b"\x01"

def sample(shape, body=b"", extra=b""):
    return bytes([shape]) + u16(len(body)) + body + extra

ANNEXB_IDR = sample(1 | (2 << 4), bytes(range(40)))          # shape 1, NAL type 0x65
ANNEXB_P = sample(1 | (3 << 4), bytes(range(20)))            # NAL type 0x41
ADTS = sample(2 | 8, bytes(100), b"\x50\x80")                # header length = frame length
PCM = sample(0, bytes(256))

def one(track, smp, dur): return bytes([8, track]) + smp + val(dur)
def run(track, count, smp, dur): return bytes([11, track, count - 1]) + smp + val(dur)

PARAMS = bytes([3]) + sample(0, b"\x00\x00\x00\x01\x67\x42\x00\x1e\xab\x40\x50\x1e\xc8"
                                b"\x00\x00\x00\x01\x68\xce\x38\x80")
MOVIE = b"\x0e"
FRAG = b"\x0d"
CALLBACKS = b"\x10\x01\x11\x01"
def buffer(size): return b"\x0f\x00" + u32(size)

seeds = {
    # MP4 to a descriptor: H.264 and AAC, the movie at the end.
    "mp4_fd_avc_aac.bin": bytes([4]) + video(AVC1) + audio(MP4A) + PARAMS + CALLBACKS
    + one(1, ANNEXB_IDR, 3000) + run(2, 10, ADTS, 1024) + run(1, 20, ANNEXB_P, 3000) + MOVIE,
    # MOV to one large memory buffer: H.264 and PCM, interleaved.
    "mov_buffer_avc_pcm.bin": bytes([1 | 2 | 8]) + video(AVC1) + audio(SOWT, 44100, 1, 44100)
    + b"\x04" + val(44100) + one(1, ANNEXB_IDR, 3000) + run(2, 8, PCM, 64)
    + run(1, 10, ANNEXB_P, 3000) + MOVIE + MOVIE,
    # Fragmented MP4 into small memory buffers, drained between fragments.
    "mp4_fragments_small_buffers.bin": bytes([2]) + u16(4096) + audio(MP4A) + MOVIE
    + buffer(2048) + run(1, 20, ADTS, 1024) + FRAG + buffer(300) + run(1, 20, ADTS, 1024)
    + FRAG + buffer(65536),
    # MP4 to a descriptor with the movie at the start, MPEG-4 Visual, written twice.
    "mp4_fd_moov_at_start.bin": bytes([4]) + video(MP4V, 30000, 1001) + b"\x05" + val(20000)
    + val(3003) + run(1, 30, sample(3, bytes(50)), 1001) + MOVIE + MOVIE,
    # No back-end: subtitles, skip data, a size limit, samples to bad track numbers.
    "mp4_none_subtitles_limits.bin": bytes([0]) + subtitle() + video(AVC1, 0, 0)
    + b"\x07\x00" + u16(2000) + b"\x0c" + u16(5) + b"hello" + one(1, sample(0, b"text"), 500)
    + one(7, ANNEXB_IDR, 1) + one(0, sample(7), 0) + run(2, 50, sample(4, b"", u16(100)), 3000)
    + MOVIE,
    # MOV with the movie reservation estimated from minutes, to a descriptor.
    "mov_fd_moov_minutes.bin": bytes([1 | 4]) + video(AVC1) + audio(MP4A) + b"\x06\x01" + val(1)
    + one(1, ANNEXB_IDR, 3000) + run(2, 5, ADTS, 1024) + MOVIE,
}

os.makedirs(OUT, exist_ok=True)
for name, data in seeds.items():
    with open(os.path.join(OUT, name), "wb") as f:
        f.write(data)
