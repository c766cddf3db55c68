// Files made by ffmpeg (tests/data): every top-level box reads cleanly, every movie and movie
// fragment box survives read -> write -> read with the same tree, and a memory reader whose
// buffer ends anywhere inside a box gives no box, stays at the box's start and reads the box
// once the rest is attached.
#include "box/layouts.h"
#include "tree_compare.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

using namespace boxtest;

namespace {

std::vector<std::string> fixtureNames() {
    std::vector<std::string> names;
    if (DIR *d = opendir(TEST_DATA_DIR)) {
        while (dirent *e = readdir(d)) {
            std::string n = e->d_name;
            auto ends = [&](const char *suffix) {
                size_t k = strlen(suffix);
                return n.size() > k && n.compare(n.size() - k, k, suffix) == 0;
            };
            if (ends(".mp4") || ends(".mov"))
                names.push_back(n);
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

Bytes loadFile(const std::string &name) {
    std::ifstream f(std::string(TEST_DATA_DIR) + "/" + name, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

struct TopBox {
    uint32_t type;
    uint64_t start, end;
};

// Reads the whole file box by box from memory; each box is handed to `visit` before deletion.
template <class F> std::vector<TopBox> readTopLevel(Bytes &bytes, F visit) {
    std::vector<TopBox> list;
    mp4_muxer *m = mp4_reader_create();
    mp4_buf_put(m, bytes.data(), uint32_t(bytes.size()));
    while (muxer_pos(m) < bytes.size()) {
        uint64_t start = muxer_pos(m);
        Box *b = rwBox(m, nullptr);
        EXPECT_NE(b, nullptr) << "at " << start;
        EXPECT_EQ(m->error, 0) << "at " << start;
        if (!b)
            break;
        EXPECT_EQ(muxer_pos(m), start + b->size);
        list.push_back({b->type, start, start + b->size});
        visit(m, b);
        deleteBox(b);
    }
    EXPECT_EQ(muxer_pos(m), bytes.size());
    mp4_buf_get(m);
    mp4_delete(m);
    return list;
}

class Fixture : public testing::TestWithParam<std::string> {};

std::string paramName(const testing::TestParamInfo<std::string> &info) {
    std::string s = info.param;
    for (char &c : s)
        if (!isalnum(uint8_t(c)))
            c = '_';
    return s;
}

} // namespace

TEST(Fixtures, DataDirectoryHoldsMovies) {
    EXPECT_GE(fixtureNames().size(), 5u);
}

TEST_P(Fixture, EveryTopLevelBoxReadsFromMemoryAndFromFile) {
    Bytes bytes = loadFile(GetParam());
    ASSERT_FALSE(bytes.empty());
    std::vector<TopBox> list = readTopLevel(bytes, [](mp4_muxer *, Box *) {});
    bool has_moov = false;
    for (const TopBox &t : list)
        has_moov |= t.type == fourcc("moov");
    EXPECT_TRUE(has_moov);

    // The same boxes through a file descriptor.
    int fd = open((std::string(TEST_DATA_DIR) + "/" + GetParam()).c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    mp4_muxer *m = mp4_reader_create();
    mp4_file_descriptor(m, fd);
    for (const TopBox &t : list) {
        Box *b = rwBox(m, nullptr);
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(b->type, t.type);
        EXPECT_EQ(muxer_pos(m), t.end);
        deleteBox(b);
    }
    EXPECT_EQ(m->error, 0);
    EXPECT_EQ(rwBox(m, nullptr), nullptr) << "nothing after the last box";
    mp4_delete(m);
    close(fd);
}

TEST_P(Fixture, MovieAndFragmentsRoundTripWithTheSameTree) {
    Bytes bytes = loadFile(GetParam());
    const bool mov = GetParam().size() > 4 && GetParam().substr(GetParam().size() - 4) == ".mov";
    int compared = 0;
    readTopLevel(bytes, [&](mp4_muxer *, Box *b) {
        if (b->type != fourcc("moov") && b->type != fourcc("moof"))
            return;
        compared++;
        mp4_muxer *w = nullptr;
        Bytes out = writeToMemory(b, mov, uint32_t(b->size) + 4096, &w);
        EXPECT_EQ(w->error, 0);
        mp4_delete(w);
        EXPECT_EQ(out.size(), b->size) << fcc(b->type);
        MemReader r(out);
        Box *back = r.read();
        ASSERT_NE(back, nullptr);
        EXPECT_EQ(r.m->error, 0);
        std::vector<std::string> diffs = compareTrees(b, back);
        EXPECT_TRUE(diffs.empty()) << GetParam() << " " << fcc(b->type) << ": " << diffs[0];
        deleteBox(back);
    });
    EXPECT_GE(compared, 1);
}

TEST_P(Fixture, BufferEndingInsideAnyBoxRewindsThenReads) {
    Bytes bytes = loadFile(GetParam());
    std::vector<TopBox> list = readTopLevel(bytes, [](mp4_muxer *, Box *) {});
    for (const TopBox &t : list) {
        const uint64_t len = t.end - t.start;
        // Every cut in boxes that are parsed; a sample of cuts (and the last bytes) in the
        // large media data, which is only passed over.
        const uint64_t step = (t.type == fourcc("mdat") && len > 4096) ? 61 : 1;
        std::vector<uint64_t> cuts;
        for (uint64_t c = 0; c < len; c += step)
            cuts.push_back(c);
        for (uint64_t c = len > 16 ? len - 16 : 0; c < len; c++)
            cuts.push_back(c);
        for (uint64_t cut : cuts) {
            mp4_muxer *m = mp4_reader_create();
            m->pos = t.start; // as if the boxes before had been consumed
            mp4_buf_put(m, bytes.data() + t.start, uint32_t(cut));
            Box *b = rwBox(m, nullptr);
            EXPECT_EQ(b, nullptr) << fcc(t.type) << " cut at " << cut;
            deleteBox(b);
            EXPECT_EQ(muxer_pos(m), t.start) << fcc(t.type) << " cut at " << cut;
            EXPECT_EQ(m->error, 0);
            EXPECT_EQ(mp4_buf_get(m), 0u);
            if (cut % 97 == 0 || cut + 1 == len) {
                // The rest attached: the box reads whole.
                mp4_buf_put(m, bytes.data() + t.start, uint32_t(bytes.size() - t.start));
                b = rwBox(m, nullptr);
                EXPECT_NE(b, nullptr) << fcc(t.type) << " cut at " << cut;
                if (b) {
                    EXPECT_EQ(b->type, t.type);
                }
                deleteBox(b);
                EXPECT_EQ(muxer_pos(m), t.end);
                mp4_buf_get(m);
            }
            mp4_delete(m);
            if (testing::Test::HasFailure())
                return;
        }
    }
}

// The comparison itself must see a changed field deep in the tree, or the round trips above
// would prove nothing.
TEST(Fixtures, TreeComparisonSeesChangedFields) {
    Bytes bytes = loadFile("h264_aac.mp4");
    ASSERT_FALSE(bytes.empty());
    std::vector<Box *> moovs;
    for (int i = 0; i < 2; i++)
        readTopLevel(bytes, [&](mp4_muxer *, Box *b) {
            if (b->type == fourcc("moov")) {
                // Keep a copy by reading it once more from its own bytes.
                Bytes own = writeToMemory(b);
                MemReader r(own);
                moovs.push_back(r.read());
            }
        });
    ASSERT_EQ(moovs.size(), 2u);
    ASSERT_NE(moovs[0], nullptr);
    ASSERT_NE(moovs[1], nullptr);
    EXPECT_TRUE(compareTrees(moovs[0], moovs[1]).empty());
    Box *stbl = getChild(
        getChild(getChild(getChild(moovs[1], fourcc("trak")), fourcc("mdia")), fourcc("minf")),
        fourcc("stbl"));
    ASSERT_NE(stbl, nullptr);
    auto *stsz = static_cast<Stsz *>(getChild(stbl, fourcc("stsz")));
    ASSERT_NE(stsz, nullptr);
    ASSERT_NE(stsz->entries, nullptr);
    stsz->entries[stsz->sample_count - 1]++;
    EXPECT_FALSE(compareTrees(moovs[0], moovs[1]).empty()) << "a sample size";
    stsz->entries[stsz->sample_count - 1]--;
    Box *entry = getChild(stbl, fourcc("stsd"))->first_child;
    ASSERT_NE(entry, nullptr);
    ASSERT_GE(entry->alloc_size, sizeof(SampleEntry)) << "the sample entry is decoded";
    static_cast<SampleEntry *>(entry)->width++;
    EXPECT_FALSE(compareTrees(moovs[0], moovs[1]).empty()) << "a visual sample entry field";
    static_cast<SampleEntry *>(entry)->width--;
    EXPECT_TRUE(compareTrees(moovs[0], moovs[1]).empty());
    deleteBox(moovs[0]);
    deleteBox(moovs[1]);
}

INSTANTIATE_TEST_SUITE_P(Files, Fixture, testing::ValuesIn(fixtureNames()), paramName);
