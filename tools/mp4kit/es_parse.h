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
    size_t offset;
    size_t size;
};

// A whole input file, mapped read-only (or empty).
class InputFile {
  public:
    InputFile() = default;
    ~InputFile();
    InputFile(const InputFile &) = delete;
    InputFile &operator=(const InputFile &) = delete;
    // Maps `path`; false with a message in *error.
    bool open(const std::string &path, std::string *error);
    const uint8_t *data() const { return data_; }
    size_t size() const { return size_; }

  private:
    const uint8_t *data_ = nullptr;
    size_t size_ = 0;
    void *map_ = nullptr;
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
};

// Picture size, profile and level from an SPS NAL unit (header byte included, emulation
// prevention bytes still in). False when it cannot be parsed.
bool parseSps(const uint8_t *nal, size_t size, H264Info *info);

// Splits an Annex B stream into access units: a new unit begins at an access unit delimiter,
// or at a new primary picture (a slice with first_mb_in_slice 0 after slices), or at an SPS,
// PPS or SEI that follows slices. False with a message when the data holds no start code.
bool splitH264(const uint8_t *data, size_t size, std::vector<Unit> *units, H264Info *info,
               std::string *error);

// ---- MPEG-4 Visual ---------------------------------------------------------------------------

struct M4vInfo {
    uint8_t profile_level = 0; // from the visual object sequence header, 0 if absent
    uint32_t width = 0;        // from the video object layer, 0 when not found
    uint32_t height = 0;
};

// Width and height from a video object layer header starting at its start code.
bool parseVol(const uint8_t *data, size_t size, M4vInfo *info);

// Splits a raw MPEG-4 Visual stream into video object planes; the headers before a plane go
// with it. False with a message when there is no plane.
bool splitM4v(const uint8_t *data, size_t size, std::vector<Unit> *units, M4vInfo *info,
              std::string *error);

// ---- AAC in ADTS -----------------------------------------------------------------------------

struct AdtsInfo {
    uint32_t sample_rate = 0;
    uint32_t channels = 0;
    uint32_t object_type = 0; // profile + 1 (2 = AAC LC)
};

// Splits ADTS frames by their frame_length; rate and channels come from the first header.
// Stops with a message at the first byte that is not a frame header; a cut-off last frame is
// dropped (*dropped_tail set).
bool splitAdts(const uint8_t *data, size_t size, std::vector<Unit> *units, AdtsInfo *info,
               bool *dropped_tail, std::string *error);

// ---- PCM -------------------------------------------------------------------------------------

// Blocks of `frames_per_block` frames of `frame_bytes` bytes; the last block may be shorter.
// A trailing partial frame is not part of any block.
void splitPcm(size_t size, uint32_t frame_bytes, uint32_t frames_per_block,
              std::vector<Unit> *units);

} // namespace es
