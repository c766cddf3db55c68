// Elementary-stream parsing for the recording commands. Every read is bounded by the input: a
// malformed stream gives an error or a shorter result, never a read outside the data.
#include "es_parse.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace es {

// ---- input -----------------------------------------------------------------------------------

InputFile::~InputFile() {
    if (map_)
        munmap(map_, size_);
    else
        free(const_cast<uint8_t *>(data_));
}

bool InputFile::open(const std::string &path, std::string *error) {
    int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) {
        *error = path + ": " + strerror(errno);
        return false;
    }
    struct stat st;
    if (fstat(fd, &st) < 0) {
        *error = path + ": " + strerror(errno);
        close(fd);
        return false;
    }
    if (S_ISREG(st.st_mode)) {
        if (st.st_size == 0) {
            *error = path + ": empty file";
            close(fd);
            return false;
        }
        void *p = mmap(nullptr, size_t(st.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
        if (p != MAP_FAILED) {
            map_ = p;
            data_ = static_cast<const uint8_t *>(p);
            size_ = size_t(st.st_size);
            close(fd);
            return true;
        }
    }
    // Not mappable (a pipe, say): read it all.
    size_t cap = 1 << 20, n = 0;
    auto *buf = static_cast<uint8_t *>(malloc(cap));
    for (;;) {
        if (!buf) {
            *error = path + ": out of memory";
            close(fd);
            return false;
        }
        if (n == cap) {
            auto *bigger = static_cast<uint8_t *>(realloc(buf, cap * 2));
            if (!bigger) {
                free(buf);
                buf = nullptr;
                continue;
            }
            buf = bigger;
            cap *= 2;
        }
        ssize_t r = read(fd, buf + n, cap - n);
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0) {
            *error = path + ": " + strerror(errno);
            free(buf);
            close(fd);
            return false;
        }
        if (r == 0)
            break;
        n += size_t(r);
    }
    close(fd);
    if (n == 0) {
        free(buf);
        *error = path + ": empty file";
        return false;
    }
    data_ = buf;
    size_ = n;
    return true;
}

// ---- bits ------------------------------------------------------------------------------------

namespace {

class BitReader {
  public:
    BitReader(const uint8_t *data, size_t size) : data_(data), bits_(size * 8) {}
    uint32_t u(int n) {
        uint32_t v = 0;
        for (int i = 0; i < n; i++) {
            if (pos_ >= bits_) {
                bad_ = true;
                return 0;
            }
            v = (v << 1) | ((data_[pos_ >> 3] >> (7 - (pos_ & 7))) & 1);
            pos_++;
        }
        return v;
    }
    uint32_t ue() {
        int zeros = 0;
        while (u(1) == 0) {
            if (bad_ || ++zeros > 31) {
                bad_ = true;
                return 0;
            }
        }
        if (zeros == 0)
            return 0;
        return uint32_t((uint64_t(1) << zeros) - 1 + u(zeros));
    }
    int32_t se() {
        uint32_t k = ue();
        return (k & 1) ? int32_t((k + 1) / 2) : -int32_t(k / 2);
    }
    bool bad() const { return bad_; }

  private:
    const uint8_t *data_;
    size_t bits_;
    size_t pos_ = 0;
    bool bad_ = false;
};

// The payload of a NAL unit without its emulation prevention bytes (at most `limit` bytes).
std::vector<uint8_t> rbsp(const uint8_t *p, size_t n, size_t limit) {
    std::vector<uint8_t> out;
    int zeros = 0;
    for (size_t i = 0; i < n && out.size() < limit; i++) {
        if (zeros >= 2 && p[i] == 3) {
            zeros = 0;
            continue;
        }
        zeros = p[i] == 0 ? zeros + 1 : 0;
        out.push_back(p[i]);
    }
    return out;
}

bool highProfile(uint32_t profile) {
    switch (profile) {
    case 100:
    case 110:
    case 122:
    case 244:
    case 44:
    case 83:
    case 86:
    case 118:
    case 128:
    case 138:
    case 139:
    case 134:
    case 135:
        return true;
    default:
        return false;
    }
}

void skipScalingList(BitReader &br, int size) {
    int last = 8, next = 8;
    for (int j = 0; j < size && !br.bad(); j++) {
        if (next != 0)
            next = (last + br.se() + 256) % 256;
        last = next == 0 ? last : next;
    }
}

struct StartCode {
    size_t begin; // first byte of the start code (the zero_byte of a 4-byte one)
    size_t nal;   // first byte of the NAL unit / the code byte after 00 00 01
};

// Every start code of the data, in order.
std::vector<StartCode> startCodes(const uint8_t *d, size_t n) {
    std::vector<StartCode> out;
    for (size_t i = 0; i + 3 <= n;) {
        if (d[i] == 0 && d[i + 1] == 0 && d[i + 2] == 1) {
            size_t begin = (i > 0 && d[i - 1] == 0) ? i - 1 : i;
            if (!out.empty() && begin < out.back().nal)
                begin = i; // never reach back into the previous start code
            out.push_back(StartCode{begin, i + 3});
            i += 3;
        } else {
            i++;
        }
    }
    return out;
}

} // namespace

// ---- H.264 -----------------------------------------------------------------------------------

bool parseSps(const uint8_t *nal, size_t size, H264Info *info) {
    if (size < 4 || (nal[0] & 0x1F) != 7)
        return false;
    std::vector<uint8_t> b = rbsp(nal + 1, size - 1, 1024);
    BitReader br(b.data(), b.size());
    uint32_t profile = br.u(8);
    br.u(8); // constraint flags
    uint32_t level = br.u(8);
    br.ue(); // seq_parameter_set_id
    uint32_t chroma_format = 1;
    bool separate_planes = false;
    if (highProfile(profile)) {
        chroma_format = br.ue();
        if (chroma_format > 3)
            return false;
        if (chroma_format == 3)
            separate_planes = br.u(1);
        br.ue();       // bit_depth_luma_minus8
        br.ue();       // bit_depth_chroma_minus8
        br.u(1);       // qpprime_y_zero_transform_bypass_flag
        if (br.u(1)) { // seq_scaling_matrix_present_flag
            int lists = chroma_format != 3 ? 8 : 12;
            for (int i = 0; i < lists && !br.bad(); i++)
                if (br.u(1))
                    skipScalingList(br, i < 6 ? 16 : 64);
        }
    }
    br.ue(); // log2_max_frame_num_minus4
    uint32_t poc_type = br.ue();
    if (poc_type == 0) {
        br.ue(); // log2_max_pic_order_cnt_lsb_minus4
    } else if (poc_type == 1) {
        br.u(1);
        br.se();
        br.se();
        uint32_t cycle = br.ue();
        if (cycle > 255)
            return false;
        for (uint32_t i = 0; i < cycle && !br.bad(); i++)
            br.se();
    }
    br.ue(); // max_num_ref_frames
    br.u(1); // gaps_in_frame_num_value_allowed_flag
    uint64_t width_mbs = uint64_t(br.ue()) + 1;
    uint64_t height_units = uint64_t(br.ue()) + 1;
    uint32_t frame_mbs_only = br.u(1);
    if (!frame_mbs_only)
        br.u(1); // mb_adaptive_frame_field_flag
    br.u(1);     // direct_8x8_inference_flag
    uint64_t crop_left = 0, crop_right = 0, crop_top = 0, crop_bottom = 0;
    if (br.u(1)) {
        crop_left = br.ue();
        crop_right = br.ue();
        crop_top = br.ue();
        crop_bottom = br.ue();
    }
    if (br.bad())
        return false;
    uint64_t width = width_mbs * 16;
    uint64_t height = (2 - frame_mbs_only) * height_units * 16;
    uint64_t unit_x = 1, unit_y = 2 - frame_mbs_only;
    if (chroma_format != 0 && !separate_planes) {
        unit_x = chroma_format == 3 ? 1 : 2;
        unit_y *= chroma_format == 1 ? 2 : 1;
    }
    uint64_t cut_x = unit_x * (crop_left + crop_right), cut_y = unit_y * (crop_top + crop_bottom);
    if (cut_x >= width || cut_y >= height || width > 65535 || height > 65535)
        return false;
    info->profile = uint8_t(profile);
    info->level = uint8_t(level);
    info->width = uint32_t(width - cut_x);
    info->height = uint32_t(height - cut_y);
    return true;
}

bool splitH264(const uint8_t *data, size_t size, std::vector<Unit> *units, H264Info *info,
               std::string *error) {
    std::vector<StartCode> codes = startCodes(data, size);
    if (codes.empty()) {
        *error = "not an H.264 Annex B stream (no start code)";
        return false;
    }
    size_t unit_start = 0;
    bool open = false, has_slice = false;
    int slices = 0;
    auto close = [&](size_t end) {
        if (open && has_slice)
            units->push_back(Unit{unit_start, end - unit_start});
        // A unit without picture data (parameter sets alone) goes with the next picture.
        if (!(open && !has_slice))
            open = false;
        has_slice = false;
        slices = 0;
    };
    for (size_t i = 0; i < codes.size(); i++) {
        const size_t nal = codes[i].nal;
        const size_t end = i + 1 < codes.size() ? codes[i + 1].begin : size;
        if (nal >= end)
            continue; // a start code with nothing behind it
        const uint8_t header = data[nal];
        const uint8_t type = header & 0x1F;
        const bool slice = type == 1 || type == 5;
        const bool first_mb_zero = slice && nal + 1 < end && (data[nal + 1] & 0x80);
        if (type >= 10 && type <= 12) {
            // End of sequence / stream and filler data carry nothing a stored sample needs.
            close(codes[i].begin);
            continue;
        }
        bool boundary =
            type == 9 ||
            (has_slice && (type == 6 || type == 7 || type == 8 || (type >= 14 && type <= 18))) ||
            (has_slice && slice && first_mb_zero);
        if (open && boundary)
            close(codes[i].begin);
        if (!open) {
            open = true;
            unit_start = codes[i].begin;
        }
        if (slice) {
            has_slice = true;
            if (++slices > 1)
                info->multi_slice = true;
        }
        if (type == 7 && !info->have_sps) {
            H264Info parsed;
            if (parseSps(data + nal, end - nal, &parsed)) {
                info->profile = parsed.profile;
                info->level = parsed.level;
                info->width = parsed.width;
                info->height = parsed.height;
            }
            info->have_sps = true;
        }
        if (type == 8)
            info->have_pps = true;
    }
    close(size);
    if (units->empty()) {
        *error = "no coded picture found in the H.264 stream";
        return false;
    }
    return true;
}

// ---- MPEG-4 Visual ---------------------------------------------------------------------------

bool parseVol(const uint8_t *data, size_t size, M4vInfo *info) {
    if (size < 5 || data[0] || data[1] || data[2] != 1 || data[3] < 0x20 || data[3] > 0x2F)
        return false;
    BitReader br(data + 4, size - 4);
    br.u(1); // random_accessible_vol
    br.u(8); // video_object_type_indication
    uint32_t verid = 1;
    if (br.u(1)) { // is_object_layer_identifier
        verid = br.u(4);
        br.u(3);
    }
    if (br.u(4) == 0xF) { // aspect_ratio_info: extended
        br.u(8);
        br.u(8);
    }
    if (br.u(1)) { // vol_control_parameters
        br.u(2);
        br.u(1);
        if (br.u(1)) { // vbv_parameters
            br.u(15), br.u(1), br.u(15), br.u(1), br.u(15), br.u(1), br.u(3), br.u(11), br.u(1);
            br.u(15), br.u(1);
        }
    }
    uint32_t shape = br.u(2);
    if (shape == 3 && verid != 1)
        br.u(4);
    br.u(1); // marker
    uint32_t resolution = br.u(16);
    br.u(1);       // marker
    if (br.u(1)) { // fixed_vop_rate
        int bits = 1;
        while (bits < 16 && (1u << bits) < resolution)
            bits++;
        br.u(bits);
    }
    if (shape != 0 || br.bad())
        return false; // only rectangular layers carry a size
    br.u(1);
    uint32_t width = br.u(13);
    br.u(1);
    uint32_t height = br.u(13);
    if (br.bad() || width == 0 || height == 0)
        return false;
    info->width = width;
    info->height = height;
    return true;
}

bool splitM4v(const uint8_t *data, size_t size, std::vector<Unit> *units, M4vInfo *info,
              std::string *error) {
    std::vector<StartCode> codes = startCodes(data, size);
    bool open = false, seen_vop = false;
    size_t unit_start = 0;
    for (size_t i = 0; i < codes.size(); i++) {
        const size_t at = codes[i].nal - 3; // MPEG-4 start codes are three bytes
        const size_t code_pos = codes[i].nal;
        if (code_pos >= size)
            break;
        const uint8_t code = data[code_pos];
        const size_t end = i + 1 < codes.size() ? codes[i + 1].nal - 3 : size;
        if (code == 0xB1) { // end of the sequence
            if (open && seen_vop)
                units->push_back(Unit{unit_start, at - unit_start});
            open = seen_vop = false;
            continue;
        }
        if (open && seen_vop) {
            units->push_back(Unit{unit_start, at - unit_start});
            open = seen_vop = false;
        }
        if (!open) {
            open = true;
            unit_start = at;
        }
        if (code == 0xB6)
            seen_vop = true;
        else if (code == 0xB0 && code_pos + 1 < size)
            info->profile_level = data[code_pos + 1];
        else if (code >= 0x20 && code <= 0x2F && info->width == 0)
            parseVol(data + at, end - at, info);
    }
    if (open && seen_vop)
        units->push_back(Unit{unit_start, size - unit_start});
    if (units->empty()) {
        *error = "not an MPEG-4 Visual stream (no video object plane)";
        return false;
    }
    return true;
}

// ---- ADTS ------------------------------------------------------------------------------------

static const uint32_t adts_rates[16] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050,
                                        16000, 12000, 11025, 8000,  7350,  0,     0,     0};

bool splitAdts(const uint8_t *data, size_t size, std::vector<Unit> *units, AdtsInfo *info,
               bool *dropped_tail, std::string *error) {
    *dropped_tail = false;
    size_t pos = 0;
    while (pos < size) {
        const uint8_t *h = data + pos;
        if (size - pos < 7) {
            *dropped_tail = true;
            break;
        }
        if (h[0] != 0xFF || (h[1] & 0xF0) != 0xF0) {
            *error = units->empty() ? std::string("not an ADTS AAC stream (no frame header)")
                                    : "lost ADTS frame sync at offset " + std::to_string(pos);
            return false;
        }
        const size_t header = (h[1] & 1) ? 7 : 9;
        const size_t length = (size_t(h[3] & 3) << 11) | (size_t(h[4]) << 3) | (h[5] >> 5);
        if (length < header) {
            *error = "bad ADTS frame length at offset " + std::to_string(pos);
            return false;
        }
        if (length > size - pos) {
            *dropped_tail = true;
            break;
        }
        if (units->empty()) {
            const uint32_t index = (h[2] >> 2) & 0xF;
            info->sample_rate = adts_rates[index];
            info->channels = (uint32_t(h[2] & 1) << 2) | (h[3] >> 6);
            info->object_type = (h[2] >> 6) + 1u;
            if (!info->sample_rate) {
                *error = "ADTS header with a reserved sampling frequency index";
                return false;
            }
            if (!info->channels) {
                *error = "ADTS channel configuration 0 (channels given in the stream) is not "
                         "supported";
                return false;
            }
        }
        units->push_back(Unit{pos, length});
        pos += length;
    }
    if (units->empty()) {
        *error = "no complete ADTS frame";
        return false;
    }
    return true;
}

// ---- PCM -------------------------------------------------------------------------------------

void splitPcm(size_t size, uint32_t frame_bytes, uint32_t frames_per_block,
              std::vector<Unit> *units) {
    if (frame_bytes == 0 || frames_per_block == 0)
        return;
    const size_t frames = size / frame_bytes;
    for (size_t f = 0; f < frames; f += frames_per_block) {
        size_t n = frames - f < frames_per_block ? frames - f : frames_per_block;
        units->push_back(Unit{f * frame_bytes, n * frame_bytes});
    }
}

} // namespace es
