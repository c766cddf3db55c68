// fragment: live fragmented MP4 through memory buffers into a sink.
//
//   fragment AUDIO.aac OUT.mp4
//
// A recorder that streams: each fragment is produced into a fixed memory buffer and handed to
// a sink (here a file; a socket or an HTTP chunk writer in practice) as soon as it is complete.
#include <mp4kit/mp4.hpp>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

int main(int argc, char **argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s AUDIO.aac OUT.mp4\n", argv[0]);
        return 2;
    }
    std::ifstream in(argv[1], std::ios::binary);
    std::vector<uint8_t> aac((std::istreambuf_iterator<char>(in)), {});
    if (aac.size() < 7 || aac[0] != 0xFF || (aac[1] & 0xF0) != 0xF0) {
        std::fprintf(stderr, "fragment: %s is not ADTS AAC\n", argv[1]);
        return 1;
    }
    std::FILE *sink = std::fopen(argv[2], "wb");
    if (!sink) {
        std::perror(argv[2]);
        return 1;
    }

    auto writer = mp4kit::Muxer::writer();
    const uint32_t rate = 48000;
    const uint32_t track = writer.audio_track(MP4_FOURCC('m', 'p', '4', 'a'), rate, 1024, rate, 2);

    std::vector<uint8_t> buffer(1 << 20);
    auto ship = [&] {
        uint32_t n = writer.take_buffer();
        std::fwrite(buffer.data(), 1, n, sink);
    };

    writer.put_buffer(buffer.data(), uint32_t(buffer.size()));
    writer.finish(); // no samples yet: writes ftyp and the fragmented movie header
    ship();

    const int frames_per_fragment = 47; // about one second of 48 kHz AAC
    int in_fragment = 0;
    size_t pos = 0;
    unsigned long frames = 0;
    writer.put_buffer(buffer.data(), uint32_t(buffer.size()));
    while (pos + 7 <= aac.size()) {
        size_t len = size_t(aac[pos + 3] & 3) << 11 | size_t(aac[pos + 4]) << 3 | aac[pos + 5] >> 5;
        if (len < 7 || pos + len > aac.size())
            break;
        writer.write(track, &aac[pos], uint32_t(len), 1024);
        pos += len;
        frames++;
        if (++in_fragment == frames_per_fragment) {
            writer.fragment();
            ship();
            writer.put_buffer(buffer.data(), uint32_t(buffer.size()));
            in_fragment = 0;
        }
    }
    if (in_fragment)
        writer.fragment();
    ship();
    std::fclose(sink);

    if (auto err = writer.error()) {
        std::fprintf(stderr, "fragment: %s\n", err.message().c_str());
        return 1;
    }
    std::printf("wrote %lu frames in fragments to %s\n", frames, argv[2]);
    return frames ? 0 : 1;
}
