// A recording past 4 GiB: chunk offsets move to co64, the mdat takes a 64-bit header in the room
// of the padding box before it, and an independent reader accepts the file. The file (about
// 4.1 GiB of generated PCM and real H.264) is removed afterwards.
#include "internal.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fcntl.h>
#include <string>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
using test_util::be32;
using test_util::be64;

// Reads `n` bytes at `offset` of a file.
Bytes readAt(const std::string &path, uint64_t offset, size_t n) {
    Bytes out(n);
    int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0)
        return {};
    ssize_t got = pread(fd, out.data(), n, off_t(offset));
    close(fd);
    out.resize(got > 0 ? size_t(got) : 0);
    return out;
}

TEST(LargeFile, RecordingPast4GiBUsesCo64AndA64BitMdatHeader) {
    SKIP_WITHOUT_FFPROBE();
    test_util::TempDir dir;
    struct statvfs vfs;
    ASSERT_EQ(statvfs(dir.path().c_str(), &vfs), 0);
    if (uint64_t(vfs.f_bavail) * vfs.f_frsize < (5ull << 30))
        GTEST_SKIP() << "needs 5 GiB free in " << dir.path();

    const Bytes h264 = test_util::readFile(test_util::dataPath("sample.h264"));
    const auto units = test_util::splitAtDelimiters(h264);
    ASSERT_EQ(units.size(), 75u);

    // One MiB of 16-bit stereo PCM: 262144 frames of a slow ramp, the same block every time
    // except for a block number in its first bytes.
    const uint32_t frames_per_block = 262144;
    Bytes block(frames_per_block * 4);
    for (uint32_t i = 0; i < frames_per_block; i++) {
        int16_t v = int16_t((i * 7) & 0x3FFF);
        block[4 * i] = block[4 * i + 2] = uint8_t(v);
        block[4 * i + 1] = block[4 * i + 3] = uint8_t(v >> 8);
    }
    const uint32_t video_ticks = uint32_t(uint64_t(frames_per_block) * 90000 / 48000);

    const std::string path = dir.file("large.mov");
    mp4_muxer *m = mov_writer_create();
    mp4_file_name_ascii(m, path.c_str());
    ASSERT_EQ(mp4_video_track_create(m, fourcc("avc1"), 90000, video_ticks, 0, 128, 96, 66, 11),
              1u);
    ASSERT_EQ(mp4_audio_track_create(m, fourcc("sowt"), 48000, 1024, 0, 48000, 2), 2u);
    const uint64_t target = (4ull << 30) + (96ull << 20);
    uint32_t blocks = 0;
    uint64_t last_block_offset = 0;
    while (m->pos < target) {
        const auto &u = units[blocks % units.size()];
        mp4_write_track(m, 1, h264.data() + u.first, uint32_t(u.second), video_ticks);
        block[0] = uint8_t(blocks), block[1] = uint8_t(blocks >> 8);
        last_block_offset = m->pos;
        mp4_write_track(m, 2, block.data(), uint32_t(block.size()), frames_per_block);
        blocks++;
        ASSERT_EQ(mp4_get_error_code(m), 0u) << "at block " << blocks;
    }
    mp4_write_movie(m);
    ASSERT_EQ(mp4_get_error_code(m), 0u);
    // Both tracks had chunks past 4 GiB.
    Box *trak1 = getChild(m->moov, fourcc("trak"));
    for (Box *trak : {trak1, trak1->next}) {
        Box *stbl =
            getChild(getChild(getChild(trak, fourcc("mdia")), fourcc("minf")), fourcc("stbl"));
        EXPECT_EQ(getChild(stbl, fourcc("stco")), nullptr);
        ASSERT_NE(getChild(stbl, fourcc("co64")), nullptr);
    }
    mp4_delete(m);

    const uint64_t size = test_util::fileSize(path);
    ASSERT_GT(size, target);
    // ftyp (24 bytes), then the mdat with a 64-bit header where the padding box was.
    Bytes head = readAt(path, 0, 40);
    ASSERT_EQ(head.size(), 40u);
    EXPECT_EQ(std::string(head.begin() + 4, head.begin() + 8), "ftyp");
    EXPECT_EQ(be32(&head[24]), 1u);
    EXPECT_EQ(std::string(head.begin() + 28, head.begin() + 32), "mdat");
    const uint64_t mdat_size = be64(&head[32]);
    EXPECT_GT(mdat_size, 0xFFFFFFFFull);
    const uint64_t moov_at = 24 + mdat_size;
    Bytes moov = readAt(path, moov_at, size_t(size - moov_at));
    ASSERT_GE(moov.size(), 8u);
    EXPECT_EQ(std::string(moov.begin() + 4, moov.begin() + 8), "moov");
    EXPECT_EQ(be32(&moov[0]), moov.size()); // the movie ends the file

    // The last audio chunk offset points at the last block written, past 4 GiB.
    test_util::BoxRef co64 = test_util::findBox(moov, "moov/trak#2/mdia/minf/stbl/co64");
    ASSERT_TRUE(co64.found);
    uint32_t chunks = be32(&moov[co64.payload() + 4]);
    ASSERT_EQ(chunks, blocks);
    uint64_t last = be64(&moov[co64.payload() + 8 + 8 * (chunks - 1)]);
    EXPECT_EQ(last, last_block_offset);
    EXPECT_GT(last, 0xFFFFFFFFull);
    Bytes tail = readAt(path, last, 8);
    EXPECT_EQ(tail, Bytes({uint8_t(blocks - 1), uint8_t((blocks - 1) >> 8), block[2], block[3],
                           block[4], block[5], block[6], block[7]}));

    // An independent reader accepts it.
    std::string out;
    ASSERT_EQ(
        test_util::run("ffprobe -v error -show_entries stream=codec_name,nb_frames -of csv=p=0 " +
                           test_util::quote(path),
                       &out),
        0)
        << out;
    EXPECT_EQ(out, "h264," + std::to_string(blocks) + "\npcm_s16le," +
                       std::to_string(uint64_t(blocks) * frames_per_block) + "\n");
    unlink(path.c_str());
}

TEST(LargeFile, AMovieKeptAtTheStartFollowsTheMediaPast4GiB) {
    // Each update writes the media size first: past 4 GiB that is the 64-bit header, which the
    // finish must then take into account.
    SKIP_WITHOUT_FFPROBE();
    test_util::TempDir dir;
    struct statvfs vfs;
    ASSERT_EQ(statvfs(dir.path().c_str(), &vfs), 0);
    if (uint64_t(vfs.f_bavail) * vfs.f_frsize < (5ull << 30))
        GTEST_SKIP() << "needs 5 GiB free in " << dir.path();

    const Bytes h264 = test_util::readFile(test_util::dataPath("sample.h264"));
    const auto units = test_util::splitAtDelimiters(h264);
    const uint32_t frames_per_block = 262144;
    const Bytes block(frames_per_block * 4, 0x11);
    const uint32_t video_ticks = uint32_t(uint64_t(frames_per_block) * 90000 / 48000);
    const std::string path = dir.file("large_at_start.mp4");
    mp4_muxer *m = mp4_writer_create();
    mp4_file_name_ascii(m, path.c_str());
    mp4_set_moov_mode(m, 1 << 20, 90000); // an update at every picture
    mp4_video_track_create(m, fourcc("avc1"), 90000, video_ticks, 0, 128, 96, 66, 11);
    mp4_audio_track_create(m, fourcc("sowt"), 48000, 1024, 0, 48000, 2);
    uint32_t blocks = 0;
    while (m->pos < (4ull << 30) + (16ull << 20)) {
        const auto &u = units[blocks % units.size()];
        mp4_write_track(m, 1, h264.data() + u.first, uint32_t(u.second), video_ticks);
        mp4_write_track(m, 2, block.data(), uint32_t(block.size()), frames_per_block);
        blocks++;
        ASSERT_EQ(mp4_get_error_code(m), 0u) << "at block " << blocks;
    }
    EXPECT_EQ(m->moov_full, 0u);
    mp4_write_movie(m);
    EXPECT_EQ(mp4_get_error_code(m), 0u);
    mp4_delete(m);

    // ftyp, the movie in its region, then the media with a 64-bit header to the end of the file.
    Bytes head = readAt(path, 0, 32);
    ASSERT_EQ(head.size(), 32u);
    EXPECT_EQ(std::string(head.begin() + 28, head.begin() + 32), "moov");
    EXPECT_EQ(be32(&head[24]), 1u << 20);
    Bytes mdat = readAt(path, 24 + (1 << 20), 16);
    ASSERT_EQ(mdat.size(), 16u);
    EXPECT_EQ(be32(&mdat[0]), 1u);
    EXPECT_EQ(std::string(mdat.begin() + 4, mdat.begin() + 8), "mdat");
    EXPECT_EQ(24 + (1 << 20) + be64(&mdat[8]), test_util::fileSize(path));
    std::string out;
    ASSERT_EQ(
        test_util::run("ffprobe -v error -show_entries stream=codec_name,nb_frames -of csv=p=0 " +
                           test_util::quote(path),
                       &out),
        0)
        << out;
    EXPECT_EQ(out, "h264," + std::to_string(blocks) + "\npcm_s16le," +
                       std::to_string(uint64_t(blocks) * frames_per_block) + "\n");
    unlink(path.c_str());
}

} // namespace
