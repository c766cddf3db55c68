// Helpers shared by the test suites: temporary files, running the command-line tool and the
// independent validators (ffprobe, ffmpeg), and a small box walker over file bytes that does not
// use the library's own reader.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace test_util {

inline std::string dataPath(const std::string &name) {
    return std::string(TEST_DATA_DIR) + "/" + name;
}

inline std::vector<uint8_t> readFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
}

inline void writeFile(const std::string &path, const std::vector<uint8_t> &bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char *>(bytes.data()), std::streamsize(bytes.size()));
}

inline uint64_t fileSize(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? uint64_t(st.st_size) : 0;
}

// A directory of its own for one test, removed with everything in it.
class TempDir {
  public:
    TempDir() {
        const char *base = getenv("TMPDIR");
        std::string templ = std::string(base && *base ? base : "/tmp") + "/mp4kit-test-XXXXXX";
        std::vector<char> buf(templ.begin(), templ.end());
        buf.push_back('\0');
        if (mkdtemp(buf.data()))
            path_ = buf.data();
    }
    ~TempDir() {
        if (!path_.empty()) {
            std::string cmd = "rm -rf '" + path_ + "'";
            int rc = system(cmd.c_str());
            (void)rc;
        }
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// Runs a shell command; returns its exit status and its standard output (and, with
// merge_stderr, its standard error too).
inline int run(const std::string &command, std::string *output = nullptr,
               bool merge_stderr = true) {
    std::string cmd = command + (merge_stderr ? " 2>&1" : "");
    FILE *p = popen(cmd.c_str(), "r");
    if (!p)
        return -1;
    std::string out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0)
        out.append(buf, n);
    int status = pclose(p);
    if (output)
        *output = out;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

inline bool haveProgram(const std::string &name) {
    return run("command -v " + name + " >/dev/null", nullptr) == 0;
}

inline std::string quote(const std::string &s) {
    std::string q = "'";
    for (char c : s)
        q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

// The command-line tool built with the tests (CTest sets MP4KIT_TOOL), or empty.
inline std::string toolPath() {
    const char *p = getenv("MP4KIT_TOOL");
    return p && *p && access(p, X_OK) == 0 ? std::string(p) : std::string();
}

#define SKIP_WITHOUT_FFPROBE()                                                                     \
    do {                                                                                           \
        if (!test_util::haveProgram("ffprobe") || !test_util::haveProgram("ffmpeg"))               \
            GTEST_SKIP() << "ffprobe/ffmpeg not installed (apt-get install ffmpeg)";               \
    } while (0)

#define SKIP_WITHOUT_TOOL()                                                                        \
    do {                                                                                           \
        if (test_util::toolPath().empty())                                                         \
            GTEST_SKIP() << "MP4KIT_TOOL does not name the built mp4kit tool";                     \
    } while (0)

// One stream as ffprobe reports it: key=value pairs of -show_streams.
using Fields = std::map<std::string, std::string>;

// ffprobe's view of every stream of a file (counting packets, so nb_read_packets is set).
// Returns false when ffprobe rejects the file; *errors receives what it printed on stderr.
inline bool probeStreams(const std::string &file, std::vector<Fields> *streams,
                         std::string *errors = nullptr) {
    std::string out;
    int rc = run("ffprobe -v error -count_packets -show_streams -of default=nw=0 " + quote(file) +
                     " 2>" + quote(file + ".probe-err"),
                 &out, false);
    if (errors) {
        std::vector<uint8_t> e = readFile(file + ".probe-err");
        errors->assign(e.begin(), e.end());
    }
    unlink((file + ".probe-err").c_str());
    if (rc != 0)
        return false;
    std::istringstream in(out);
    std::string line;
    while (std::getline(in, line)) {
        if (line == "[STREAM]") {
            streams->emplace_back();
        } else if (!streams->empty() && line.find('=') != std::string::npos) {
            size_t eq = line.find('=');
            streams->back()[line.substr(0, eq)] = line.substr(eq + 1);
        }
    }
    return true;
}

// Everything `ffmpeg -v error -i FILE -f null -` prints: empty for a file that decodes cleanly.
inline std::string decodeErrors(const std::string &file) {
    std::string out;
    int rc = run("ffmpeg -nostdin -v error -i " + quote(file) + " -f null -", &out);
    if (rc != 0 && out.empty())
        out = "ffmpeg exit status " + std::to_string(rc);
    return out;
}

// ---- box walking over file bytes -------------------------------------------------------------

inline uint32_t be32(const uint8_t *p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}
inline uint64_t be64(const uint8_t *p) {
    return uint64_t(be32(p)) << 32 | be32(p + 4);
}
inline uint16_t be16(const uint8_t *p) {
    return uint16_t(p[0] << 8 | p[1]);
}

struct BoxRef {
    size_t offset = 0; // first header byte
    size_t header = 0; // 8 or 16
    uint64_t size = 0; // whole box
    bool found = false;
    size_t payload() const { return offset + header; }
    size_t end() const { return size_t(offset + size); }
};

// Children of the byte range [begin, end) as boxes.
inline std::vector<std::pair<std::string, BoxRef>> boxesIn(const std::vector<uint8_t> &f,
                                                           size_t begin, size_t end) {
    std::vector<std::pair<std::string, BoxRef>> out;
    size_t p = begin;
    while (p + 8 <= end && p + 8 <= f.size()) {
        BoxRef b;
        b.offset = p;
        b.size = be32(&f[p]);
        b.header = 8;
        if (b.size == 1 && p + 16 <= f.size()) {
            b.size = be64(&f[p + 8]);
            b.header = 16;
        }
        if (b.size < b.header || p + b.size > end)
            break;
        b.found = true;
        out.emplace_back(std::string(reinterpret_cast<const char *>(&f[p + 4]), 4), b);
        p += size_t(b.size);
    }
    return out;
}

// Bytes before the children of a box, for the containers the writer makes.
inline size_t childOffset(const std::string &type) {
    if (type == "stsd" || type == "dref")
        return 8; // version, flags, entry_count
    if (type == "avc1" || type == "mp4v")
        return 78;
    if (type == "mp4a")
        return 28; // audio entry fields (version 0)
    if (type == "mp4s")
        return 8; // plain entry: reserved bytes and the data reference index
    if (type == "sowt")
        return 44; // version 1 sound description
    return 0;
}

// The box at a slash-separated path ("moov/trak/mdia/mdhd"); a path element "trak#2" takes the
// second box of that type.
inline BoxRef findBox(const std::vector<uint8_t> &f, const std::string &path) {
    size_t begin = 0, end = f.size();
    std::string parent;
    BoxRef result;
    std::istringstream in(path);
    std::string part;
    while (std::getline(in, part, '/')) {
        int nth = 1;
        size_t hash = part.find('#');
        if (hash != std::string::npos) {
            nth = atoi(part.c_str() + hash + 1);
            part = part.substr(0, hash);
        }
        BoxRef hit;
        for (auto &kv : boxesIn(f, begin + childOffset(parent), end))
            if (kv.first == part && --nth == 0) {
                hit = kv.second;
                break;
            }
        if (!hit.found)
            return BoxRef{};
        result = hit;
        begin = hit.payload();
        end = hit.end();
        parent = part;
    }
    return result;
}

// The whole box at `path` as bytes (empty when absent).
inline std::vector<uint8_t> boxBytes(const std::vector<uint8_t> &f, const std::string &path) {
    BoxRef b = findBox(f, path);
    if (!b.found)
        return {};
    return std::vector<uint8_t>(f.begin() + long(b.offset), f.begin() + long(b.end()));
}

// Top-level box types of a file, in order.
inline std::vector<std::string> topLevel(const std::vector<uint8_t> &f) {
    std::vector<std::string> out;
    for (auto &kv : boxesIn(f, 0, f.size()))
        out.push_back(kv.first);
    return out;
}

// ---- samples a reader delivers ---------------------------------------------------------------

// One call of the sample callback.
struct Delivery {
    uint32_t track;
    uint64_t offset;
    uint64_t timestamp;
    uint32_t size;
    uint32_t flags;
    bool operator==(const Delivery &o) const {
        return track == o.track && offset == o.offset && timestamp == o.timestamp &&
               size == o.size && flags == o.flags;
    }
};

inline std::ostream &operator<<(std::ostream &os, const Delivery &d) {
    return os << "{track " << d.track << " offset " << d.offset << " dts " << d.timestamp
              << " size " << d.size << " flags " << d.flags << "}";
}

// ---- elementary streams of the fixtures --------------------------------------------------

// Access units of an Annex B stream in which every unit opens with an access unit delimiter
// (as tests/data/sample.h264 does), as [offset, size) pairs.
inline std::vector<std::pair<size_t, size_t>> splitAtDelimiters(const std::vector<uint8_t> &s) {
    std::vector<size_t> starts;
    for (size_t i = 0; i + 4 < s.size(); i++) {
        if (s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1 && (s[i + 3] & 0x1F) == 9)
            starts.push_back(i > 0 && s[i - 1] == 0 ? i - 1 : i);
    }
    std::vector<std::pair<size_t, size_t>> units;
    for (size_t k = 0; k < starts.size(); k++) {
        size_t end = k + 1 < starts.size() ? starts[k + 1] : s.size();
        units.emplace_back(starts[k], end - starts[k]);
    }
    return units;
}

// ADTS frames by their frame_length field.
inline std::vector<std::pair<size_t, size_t>> splitAdtsFrames(const std::vector<uint8_t> &s) {
    std::vector<std::pair<size_t, size_t>> frames;
    size_t p = 0;
    while (p + 7 <= s.size() && s[p] == 0xFF && (s[p + 1] & 0xF0) == 0xF0) {
        size_t len = (size_t(s[p + 3] & 3) << 11) | (size_t(s[p + 4]) << 3) | (s[p + 5] >> 5);
        if (len < 7 || p + len > s.size())
            break;
        frames.emplace_back(p, len);
        p += len;
    }
    return frames;
}

} // namespace test_util
