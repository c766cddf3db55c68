// Elementary-stream parsing for the recording commands: raw encoder output split into the units
// the writer takes one at a time (H.264 access units, MPEG-4 Visual planes, ADTS frames, PCM
// blocks), and the stream parameters a track needs (picture size, profile, rate, channels).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace es {

// A unit is a range of the input: [offset, offset + size).
struct Unit {
    uint64_t offset;
    size_t size;
};

// A file read front to back through a window of its bytes: large reads into one buffer that
// slides along, so that memory stays small whatever the file's length. A pipe is read whole.
class Input {
  public:
    // `window`: bytes read at a time (at least 16), grown for a unit larger than it. The default
    // fits the second-level cache along with the writer's output buffer.
    explicit Input(size_t window = 256 << 10) : window_(window < 16 ? 16 : window) {}
    ~Input();
    Input(const Input &) = delete;
    Input &operator=(const Input &) = delete;
    // Opens `path`; false with a message in *error.
    bool open(const std::string &path, std::string *error);
    // Bytes in the input (fewer than the file had at the start if it was cut while being read).
    uint64_t size() const { return size_; }
    // Makes [keep, end) readable through at(), end clipped to size(); bytes before keep may go.
    // False when the input ends (or cannot be read on) before `end`.
    bool need(uint64_t keep, uint64_t end);
    uint64_t begin() const { return base_; } // first offset in the window
    uint64_t end() const { return base_ + len_; }
    const uint8_t *at(uint64_t offset) const { return buf_ + (offset - base_); }
    // Starts again from the first byte.
    void rewind();
    // Why the input ended before its size at the start, or empty.
    const std::string &error() const { return error_; }

  private:
    size_t window_;
    int fd_ = -1; // -1 when the input is held whole
    uint8_t *buf_ = nullptr;
    size_t cap_ = 0;
    size_t len_ = 0;
    uint64_t base_ = 0;
    uint64_t size_ = 0;
    std::string error_;
};

struct StartCode {
    uint64_t begin; // first byte of the start code (the zero_byte of a 4-byte one)
    uint64_t nal;   // first byte of the NAL unit / the code byte after 00 00 01
};

// Every 00 00 01 of an input, in order.
class StartCodeScanner {
  public:
    explicit StartCodeScanner(Input &in) : in_(in) {}
    // The next start code; false at the end of the input. Bytes from `keep` on stay readable.
    bool next(uint64_t keep, StartCode *code);

  private:
    Input &in_;
    uint64_t scan_ = 0;
    uint64_t last_nal_ = 0;
    bool found_ = false;
};

// ---- H.264 Annex B ---------------------------------------------------------------------------

struct H264Info {
    bool have_sps = false;
    bool have_pps = false;
    uint8_t profile = 0; // profile_idc
    uint8_t level = 0;   // level_idc
    uint32_t width = 0;  // after cropping; 0 when the SPS could not be parsed
    uint32_t height = 0;
    bool multi_slice = false; // some access unit holds more than one coded slice
    // The first SPS and the first PPS behind 4-byte start codes, without trailing zeros: a
    // fragmented movie header needs them before any sample.
    std::vector<uint8_t> sps, pps;
};

// Picture size, profile and level from an SPS NAL unit (header byte included, emulation
// prevention bytes still in). False when it cannot be parsed.
bool parseSps(const uint8_t *nal, size_t size, H264Info *info);

// Splits an Annex B stream into access units, one at a time: a new unit begins at an access
// unit delimiter, or at a new primary picture (a slice with first_mb_in_slice 0 after slices), or
// at an SPS, PPS or SEI that follows slices. Each unit's bytes are at in.at(offset) until the
// next call.
class H264Splitter {
  public:
    explicit H264Splitter(Input &in) : in_(in), scanner_(in) {}
    // The next access unit; false at the end of the stream.
    bool next(Unit *unit);
    // What the stream has shown so far.
    const H264Info &info() const { return info_; }
    bool sawStartCode() const { return saw_start_code_; }
    uint64_t count() const { return count_; } // units returned

  private:
    void handle(const StartCode &code, uint64_t end, uint64_t next_code);
    void close(uint64_t end);

    Input &in_;
    StartCodeScanner scanner_;
    H264Info info_;
    StartCode pending_code_{};
    bool pending_ = false, done_ = false, saw_start_code_ = false;
    bool open_ = false, has_slice_ = false;
    int slices_ = 0;
    uint64_t unit_start_ = 0, count_ = 0;
    Unit ready_[2] = {};
    int ready_count_ = 0;
};

// ---- MPEG-4 Visual ---------------------------------------------------------------------------

struct M4vInfo {
    uint8_t profile_level = 0; // from the visual object sequence header, 0 if absent
    uint32_t width = 0;        // from the video object layer, 0 when not found
    uint32_t height = 0;
};

// Width and height from a video object layer header starting at its start code.
bool parseVol(const uint8_t *data, size_t size, M4vInfo *info);

// Splits a raw MPEG-4 Visual stream into video object planes, one at a time; the headers
// before a plane go with it. Each unit's bytes are at in.at(offset) until the next call.
class M4vSplitter {
  public:
    explicit M4vSplitter(Input &in) : in_(in), scanner_(in) {}
    bool next(Unit *unit);
    const M4vInfo &info() const { return info_; }
    uint64_t count() const { return count_; }

  private:
    bool handle(const StartCode &code, uint64_t end);
    void emit(uint64_t end);

    Input &in_;
    StartCodeScanner scanner_;
    M4vInfo info_;
    StartCode pending_code_{};
    bool pending_ = false, done_ = false, open_ = false, seen_vop_ = false;
    uint64_t unit_start_ = 0, count_ = 0;
    Unit ready_[2] = {};
    int ready_count_ = 0;
};

// ---- AAC in ADTS -----------------------------------------------------------------------------

struct AdtsInfo {
    uint32_t sample_rate = 0;
    uint32_t channels = 0;
    uint32_t object_type = 0; // profile + 1 (2 = AAC LC)
};

// Splits ADTS frames by their frame_length, one at a time; rate and channels come from the
// first header. Ends with a message at the first byte that is not a frame header; a cut-off last
// frame is dropped (droppedTail()).
class AdtsSplitter {
  public:
    explicit AdtsSplitter(Input &in) : in_(in) {}
    bool next(Unit *unit);
    const AdtsInfo &info() const { return info_; }
    bool droppedTail() const { return dropped_tail_; }
    const std::string &error() const { return error_; } // why the stream ended, if it is bad
    uint64_t count() const { return count_; }

  private:
    bool finish();

    Input &in_;
    AdtsInfo info_;
    uint64_t pos_ = 0, count_ = 0;
    bool done_ = false, dropped_tail_ = false;
    std::string error_;
};

// ---- PCM -------------------------------------------------------------------------------------

// Blocks of `frames_per_block` frames of `frame_bytes` bytes; the last block may be shorter.
// A trailing partial frame is not part of any block.
class PcmSplitter {
  public:
    PcmSplitter(Input &in, uint32_t frame_bytes, uint32_t frames_per_block)
        : in_(in), frame_bytes_(frame_bytes), frames_per_block_(frames_per_block) {}
    bool next(Unit *unit);

  private:
    Input &in_;
    uint32_t frame_bytes_, frames_per_block_;
    uint64_t frame_ = 0;
};

} // namespace es
