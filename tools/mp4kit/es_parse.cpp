// Elementary-stream parsing for the recording commands. Every read is bounded by the input: a
// malformed stream gives an error or a shorter result, never a read outside the data.
//
// Inputs are read in large pieces into a window that slides along the file, and each stream is
// split one unit at a time, so that an hour of input costs a few hundred kilobytes of memory and
// is copied while it is still in the cache. Mapping the file instead costs a page fault per few
// pages, which on virtual machines is far dearer than the copy of a read.
#include "es_parse.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#endif

namespace es {

// ---- input -----------------------------------------------------------------------------------

Input::~Input() {
    if (fd_ >= 0)
        close(fd_);
    free(buf_);
}

bool Input::open(const std::string &path, std::string *error) {
    int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) {
        *error = path + ": " + strerror(errno);
        return false;
    }
    struct stat st;
    if (fstat(fd, &st) < 0) {
        *error = path + ": " + strerror(errno);
        ::close(fd);
        return false;
    }
    if (S_ISREG(st.st_mode)) {
        if (st.st_size == 0) {
            *error = path + ": empty file";
            ::close(fd);
            return false;
        }
        buf_ = static_cast<uint8_t *>(malloc(window_));
        if (!buf_) {
            *error = path + ": out of memory";
            ::close(fd);
            return false;
        }
        cap_ = window_;
        fd_ = fd;
        size_ = uint64_t(st.st_size);
        return true;
    }
    // Not a regular file (a pipe, say): read it all, so that it can be gone through twice.
    size_t cap = 1 << 20, n = 0;
    auto *buf = static_cast<uint8_t *>(malloc(cap));
    for (;;) {
        if (!buf) {
            *error = path + ": out of memory";
            ::close(fd);
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
            ::close(fd);
            return false;
        }
        if (r == 0)
            break;
        n += size_t(r);
    }
    ::close(fd);
    if (n == 0) {
        free(buf);
        *error = path + ": empty file";
        return false;
    }
    buf_ = buf;
    cap_ = cap;
    len_ = n;
    size_ = n;
    return true;
}

void Input::rewind() {
    if (fd_ < 0)
        return; // held whole
    base_ = 0;
    len_ = 0;
    lseek(fd_, 0, SEEK_SET);
}

bool Input::need(uint64_t keep, uint64_t end) {
    if (end > size_)
        end = size_;
    if (end <= base_ + len_)
        return true;
    if (fd_ < 0)
        return false;
    // Drop what is no longer wanted, then read as much as fits.
    if (keep > base_ + len_)
        keep = base_ + len_;
    if (keep > base_) {
        size_t drop = size_t(keep - base_);
        memmove(buf_, buf_ + drop, len_ - drop);
        len_ -= drop;
        base_ = keep;
    }
    if (end - base_ > cap_) {
        size_t cap = cap_;
        while (cap < end - base_)
            cap *= 2;
        auto *bigger = static_cast<uint8_t *>(realloc(buf_, cap));
        if (!bigger) {
            // The input ends here for the splitters, which never read past it.
            error_ = "out of memory";
            size_ = base_ + len_;
            return false;
        }
        buf_ = bigger;
        cap_ = cap;
    }
    while (base_ + len_ < end) {
        size_t room = cap_ - len_;
        if (uint64_t(room) > size_ - (base_ + len_))
            room = size_t(size_ - (base_ + len_));
        ssize_t r = read(fd_, buf_ + len_, room);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0) {
            // The file ended early, or cannot be read on: what was read is all there is.
            if (r < 0)
                error_ = strerror(errno);
            size_ = base_ + len_;
            return false;
        }
        len_ += size_t(r);
    }
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

} // namespace

// ---- H.264 parameter sets and MPEG-4 Visual layers ------------------------------------------

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

// ---- start codes -----------------------------------------------------------------------------

// Offset of the first 00 00 01 in d[from, to) that lies wholly inside it, or `to`.
static size_t findStartCodePortable(const uint8_t *d, size_t from, size_t to) {
    size_t i = from;
#if defined(__SSE2__)
    // Sixteen positions at a time: a start code begins at i + k where bytes i + k and i + k + 1
    // are zero and byte i + k + 2 is one.
    const __m128i zero = _mm_setzero_si128(), one = _mm_set1_epi8(1);
    while (i + 18 <= to) {
        __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(d + i));
        __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(d + i + 1));
        __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i *>(d + i + 2));
        __m128i hit = _mm_and_si128(_mm_and_si128(_mm_cmpeq_epi8(a, zero), _mm_cmpeq_epi8(b, zero)),
                                    _mm_cmpeq_epi8(c, one));
        unsigned mask = unsigned(_mm_movemask_epi8(hit));
        if (mask)
            return i + size_t(__builtin_ctz(mask));
        i += 16;
    }
#endif
    for (; i + 2 < to; i++)
        if (d[i] == 0 && d[i + 1] == 0 && d[i + 2] == 1)
            return i;
    return to;
}

#if defined(__x86_64__) && defined(__GNUC__)
// The same thirty-two positions at a time, on processors that have AVX2: the scan touches every
// byte of the video, so its width shows in the recording's time.
__attribute__((target("avx2"))) static size_t findStartCodeAvx2(const uint8_t *d, size_t from,
                                                                size_t to) {
    size_t i = from;
    const __m256i zero = _mm256_setzero_si256(), one = _mm256_set1_epi8(1);
    while (i + 34 <= to) {
        __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(d + i));
        __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(d + i + 1));
        __m256i c = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(d + i + 2));
        __m256i hit = _mm256_and_si256(
            _mm256_and_si256(_mm256_cmpeq_epi8(a, zero), _mm256_cmpeq_epi8(b, zero)),
            _mm256_cmpeq_epi8(c, one));
        unsigned mask = unsigned(_mm256_movemask_epi8(hit));
        if (mask)
            return i + size_t(__builtin_ctz(mask));
        i += 32;
    }
    return findStartCodePortable(d, i, to);
}

static size_t findStartCode(const uint8_t *d, size_t from, size_t to) {
    static const bool avx2 = __builtin_cpu_supports("avx2");
    return avx2 ? findStartCodeAvx2(d, from, to) : findStartCodePortable(d, from, to);
}
#else
static size_t findStartCode(const uint8_t *d, size_t from, size_t to) {
    return findStartCodePortable(d, from, to);
}
#endif

bool StartCodeScanner::next(uint64_t keep, StartCode *code) {
    for (;;) {
        const uint64_t hi = in_.end();
        if (scan_ + 2 < hi) {
            const uint8_t *w = in_.at(in_.begin());
            const size_t from = size_t(scan_ - in_.begin()), to = size_t(hi - in_.begin());
            const size_t at = findStartCode(w, from, to);
            if (at < to) {
                const uint64_t i = in_.begin() + at;
                uint64_t begin = (i > 0 && w[at - 1] == 0) ? i - 1 : i;
                if (found_ && begin < last_nal_)
                    begin = i; // never reach back into the previous start code
                found_ = true;
                last_nal_ = i + 3;
                scan_ = i + 3;
                *code = StartCode{begin, i + 3};
                return true;
            }
            scan_ = hi - 2; // the last two bytes may begin a start code that the next read ends
        }
        if (hi >= in_.size())
            return false;
        // Keep the byte before the scan position: it may be the zero_byte of a 4-byte code.
        uint64_t k = scan_ > 0 ? scan_ - 1 : 0;
        if (keep < k)
            k = keep;
        if (!in_.need(k, hi + 1) && in_.end() == hi)
            return false;
    }
}

// ---- H.264 -----------------------------------------------------------------------------------

// The NAL unit of a start code as the movie header wants it: behind a 4-byte start code, up to
// the next start code, without trailing zeros.
static std::vector<uint8_t> parameterSet(const uint8_t *nal, size_t n) {
    while (n > 1 && nal[n - 1] == 0)
        n--;
    std::vector<uint8_t> out{0, 0, 0, 1};
    out.insert(out.end(), nal, nal + n);
    return out;
}

// Every start code is handled once the next one (or the end of the input) is known, since its
// NAL unit runs up to there. A new unit begins at an access unit delimiter, at a new primary
// picture (a slice with first_mb_in_slice 0 after slices), or at an SPS, PPS or SEI that follows
// slices; parameter sets alone go with the next picture.
bool H264Splitter::next(Unit *unit) {
    while (ready_count_ == 0) {
        if (done_)
            return false;
        StartCode code;
        // Keep the unit being gathered and the start code waiting for its end.
        uint64_t keep = open_ ? unit_start_ : pending_ ? pending_code_.begin : UINT64_MAX;
        if (pending_ && pending_code_.begin < keep)
            keep = pending_code_.begin;
        const bool more = scanner_.next(keep, &code);
        if (pending_)
            handle(pending_code_, more ? code.begin : in_.size(), more ? code.nal - 3 : in_.size());
        if (more) {
            pending_code_ = code;
            pending_ = true;
            saw_start_code_ = true;
        } else {
            close(in_.size());
            done_ = true;
        }
    }
    *unit = ready_[0];
    ready_[0] = ready_[1];
    ready_count_--;
    count_++;
    return true;
}

void H264Splitter::close(uint64_t end) {
    if (open_ && has_slice_)
        ready_[ready_count_++] = Unit{unit_start_, size_t(end - unit_start_)};
    if (!(open_ && !has_slice_))
        open_ = false;
    has_slice_ = false;
    slices_ = 0;
}

void H264Splitter::handle(const StartCode &code, uint64_t end, uint64_t next_code) {
    const uint64_t nal = code.nal;
    if (nal >= end)
        return; // a start code with nothing behind it
    const uint8_t *p = in_.at(nal);
    const uint8_t header = p[0];
    const uint8_t type = header & 0x1F;
    const bool slice = type == 1 || type == 5;
    const bool first_mb_zero = slice && nal + 1 < end && (p[1] & 0x80);
    if (type >= 10 && type <= 12) {
        // End of sequence / stream and filler data carry nothing a stored sample needs.
        close(code.begin);
        return;
    }
    bool boundary =
        type == 9 ||
        (has_slice_ && (type == 6 || type == 7 || type == 8 || (type >= 14 && type <= 18))) ||
        (has_slice_ && slice && first_mb_zero);
    if (open_ && boundary)
        close(code.begin);
    if (!open_) {
        open_ = true;
        unit_start_ = code.begin;
    }
    if (slice) {
        has_slice_ = true;
        if (++slices_ > 1)
            info_.multi_slice = true;
    }
    if (type == 7 && !info_.have_sps) {
        H264Info parsed;
        if (parseSps(p, size_t(end - nal), &parsed)) {
            info_.profile = parsed.profile;
            info_.level = parsed.level;
            info_.width = parsed.width;
            info_.height = parsed.height;
        }
        info_.have_sps = true;
    }
    if (type == 8)
        info_.have_pps = true;
    if ((type == 7 && info_.sps.empty()) || (type == 8 && info_.pps.empty()))
        (type == 7 ? info_.sps : info_.pps) = parameterSet(p, size_t(next_code - nal));
}

// ---- MPEG-4 Visual ---------------------------------------------------------------------------

// A plane runs from the first start code after the previous plane up to the next start code
// after its own; the headers before a plane go with it.
bool M4vSplitter::next(Unit *unit) {
    while (ready_count_ == 0) {
        if (done_)
            return false;
        StartCode code;
        uint64_t keep = open_ ? unit_start_ : UINT64_MAX;
        if (pending_ && pending_code_.nal - 3 < keep)
            keep = pending_code_.nal - 3;
        bool more = scanner_.next(keep, &code);
        if (pending_ && !handle(pending_code_, more ? code.nal - 3 : in_.size()))
            more = false; // only the last start code can have its code byte past the end
        if (more) {
            pending_code_ = code;
            pending_ = true;
        } else {
            if (open_ && seen_vop_)
                emit(in_.size());
            done_ = true;
        }
    }
    *unit = ready_[0];
    ready_[0] = ready_[1];
    ready_count_--;
    count_++;
    return true;
}

// The last start code can end one plane and the end of the input the next: two at most.
void M4vSplitter::emit(uint64_t end) {
    ready_[ready_count_++] = Unit{unit_start_, size_t(end - unit_start_)};
}

bool M4vSplitter::handle(const StartCode &code, uint64_t end) {
    const uint64_t at = code.nal - 3; // MPEG-4 start codes are three bytes
    const uint64_t code_pos = code.nal;
    if (code_pos >= in_.size())
        return false;
    const uint8_t c = *in_.at(code_pos);
    if (c == 0xB1) { // end of the sequence
        if (open_ && seen_vop_)
            emit(at);
        open_ = seen_vop_ = false;
        return true;
    }
    if (open_ && seen_vop_) {
        emit(at);
        open_ = seen_vop_ = false;
    }
    if (!open_) {
        open_ = true;
        unit_start_ = at;
    }
    if (c == 0xB6)
        seen_vop_ = true;
    else if (c == 0xB0 && code_pos + 1 < in_.size())
        info_.profile_level = *in_.at(code_pos + 1);
    else if (c >= 0x20 && c <= 0x2F && info_.width == 0)
        parseVol(in_.at(at), size_t(end - at), &info_);
    return true;
}

// ---- ADTS ------------------------------------------------------------------------------------

static const uint32_t adts_rates[16] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050,
                                        16000, 12000, 11025, 8000,  7350,  0,     0,     0};

bool AdtsSplitter::next(Unit *unit) {
    if (done_)
        return false;
    if (pos_ >= in_.size())
        return finish();
    in_.need(pos_, pos_ + 7);
    const uint64_t size = in_.size(); // less than at the start if the file was cut meanwhile
    if (pos_ >= size)
        return finish();
    if (size - pos_ < 7) {
        dropped_tail_ = true;
        return finish();
    }
    const uint8_t *h = in_.at(pos_);
    if (h[0] != 0xFF || (h[1] & 0xF0) != 0xF0) {
        error_ = count_ == 0 ? std::string("not an ADTS AAC stream (no frame header)")
                             : "lost ADTS frame sync at offset " + std::to_string(pos_);
        done_ = true;
        return false;
    }
    const size_t header = (h[1] & 1) ? 7 : 9;
    const size_t length = (size_t(h[3] & 3) << 11) | (size_t(h[4]) << 3) | (h[5] >> 5);
    if (length < header) {
        error_ = "bad ADTS frame length at offset " + std::to_string(pos_);
        done_ = true;
        return false;
    }
    if (length > size - pos_) {
        dropped_tail_ = true;
        return finish();
    }
    if (count_ == 0) {
        const uint32_t index = (h[2] >> 2) & 0xF;
        info_.sample_rate = adts_rates[index];
        info_.channels = (uint32_t(h[2] & 1) << 2) | (h[3] >> 6);
        info_.object_type = (h[2] >> 6) + 1u;
        if (!info_.sample_rate) {
            error_ = "ADTS header with a reserved sampling frequency index";
            done_ = true;
            return false;
        }
        if (!info_.channels) {
            error_ = "ADTS channel configuration 0 (channels given in the stream) is not "
                     "supported";
            done_ = true;
            return false;
        }
    }
    if (!in_.need(pos_, pos_ + length)) {
        dropped_tail_ = true; // cut while being read
        return finish();
    }
    *unit = Unit{pos_, length};
    pos_ += length;
    count_++;
    return true;
}

bool AdtsSplitter::finish() {
    if (count_ == 0)
        error_ = "no complete ADTS frame";
    done_ = true;
    return false;
}

// ---- PCM -------------------------------------------------------------------------------------

bool PcmSplitter::next(Unit *unit) {
    if (frame_bytes_ == 0 || frames_per_block_ == 0)
        return false;
    const uint64_t frames = in_.size() / frame_bytes_;
    if (frame_ >= frames)
        return false;
    const uint64_t n = frames - frame_ < frames_per_block_ ? frames - frame_ : frames_per_block_;
    const uint64_t at = frame_ * frame_bytes_;
    if (!in_.need(at, at + n * frame_bytes_))
        return false; // cut while being read
    *unit = Unit{at, size_t(n * frame_bytes_)};
    frame_ += n;
    return true;
}

} // namespace es
