// A minimal C++ program built against an installed mp4kit through find_package.
#include <mp4kit/mp4.hpp>

#include <fstream>
#include <iterator>
#include <vector>

int main(int argc, char **argv) {
    if (argc != 3)
        return 2;
    std::ifstream in(argv[1], std::ios::binary);
    std::vector<uint8_t> aac((std::istreambuf_iterator<char>(in)), {});
    auto writer = mp4kit::Muxer::writer();
    writer.open(argv[2]);
    uint32_t track = writer.audio_track(MP4_FOURCC('m', 'p', '4', 'a'), 48000, 1024, 48000, 2);
    unsigned long reported = 0;
    writer.on_sample([&](const mp4kit::Sample &s) { reported += s.track == track; });
    for (size_t pos = 0; pos + 7 <= aac.size();) {
        size_t len = size_t(aac[pos + 3] & 3) << 11 | size_t(aac[pos + 4]) << 3 | aac[pos + 5] >> 5;
        if (len < 7 || pos + len > aac.size())
            break;
        writer.write(track, &aac[pos], uint32_t(len), 1024);
        pos += len;
    }
    writer.finish();
    return writer.error() || reported == 0 ? 1 : 0;
}
