// mp4kit record: elementary streams (H.264 Annex B or MPEG-4 Visual video, ADTS AAC or s16le
// PCM audio) recorded into an MP4 or QuickTime file through the public API, audio and video
// delivered in time order the way a live encoder hands them over.
#include "async_output.h"
#include "commands.h"
#include "es_parse.h"

#include <mp4kit/mp4.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

const char *const usage_line =
    "record -o OUT(.mp4|.mov) [--h264 FILE | --mp4v FILE] [--aac FILE | --pcm FILE --rate HZ "
    "--channels N] [--fps N] [--size WxH] [--interleave TICKS] [--moov-at-start MINUTES "
    "--update SECONDS] [--fragmented N]  (record elementary streams into a movie file)";

struct Options {
    std::string out, h264, mp4v, aac, pcm;
    uint32_t rate = 0, channels = 0, fps = 25, width = 0, height = 0;
    uint32_t interleave = 0, moov_minutes = 0, update_seconds = 0;
    uint32_t fragmented = 0; // video samples per fragment (audio samples without video)
};

int fail(const std::string &message) {
    fprintf(stderr, "mp4kit record: %s\n", message.c_str());
    return 1;
}

bool parseNumber(const char *text, uint32_t min, uint32_t max, uint32_t *out) {
    if (!text || !*text)
        return false;
    char *end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(text, &end, 10);
    if (errno || *end || text[0] == '-' || v < min || v > max)
        return false;
    *out = uint32_t(v);
    return true;
}

bool parseSize(const char *text, uint32_t *w, uint32_t *h) {
    const char *x = text ? strchr(text, 'x') : nullptr;
    if (!x)
        return false;
    std::string a(text, size_t(x - text));
    return parseNumber(a.c_str(), 1, 65535, w) && parseNumber(x + 1, 1, 65535, h);
}

// Returns 0 when the options are complete, else the exit status after a message.
int parseOptions(int argc, char **argv, Options *o) {
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        const char *value = i + 1 < argc ? argv[i + 1] : nullptr;
        auto need = [&](const char *what) {
            if (!value) {
                fail(arg + " needs " + what);
                return false;
            }
            i++;
            return true;
        };
        if (arg == "-o" || arg == "--output") {
            if (!need("a file name"))
                return 2;
            o->out = value;
        } else if (arg == "--h264" || arg == "--mp4v" || arg == "--aac" || arg == "--pcm") {
            if (!need("a file name"))
                return 2;
            (arg == "--h264"   ? o->h264
             : arg == "--mp4v" ? o->mp4v
             : arg == "--aac"  ? o->aac
                               : o->pcm) = value;
        } else if (arg == "--rate") {
            if (!need("a sampling rate") || !parseNumber(value, 1, 1000000, &o->rate))
                return value ? fail(std::string("bad --rate: ") + value), 2 : 2;
        } else if (arg == "--channels") {
            if (!need("a channel count") || !parseNumber(value, 1, 32, &o->channels))
                return value ? fail(std::string("bad --channels: ") + value), 2 : 2;
        } else if (arg == "--fps") {
            if (!need("a frame rate") || !parseNumber(value, 1, 1000, &o->fps))
                return value ? fail(std::string("bad --fps: ") + value), 2 : 2;
        } else if (arg == "--interleave") {
            if (!need("a period in audio ticks") ||
                !parseNumber(value, 1, UINT32_MAX, &o->interleave))
                return value ? fail(std::string("bad --interleave: ") + value), 2 : 2;
        } else if (arg == "--moov-at-start") {
            if (!need("a length in minutes") || !parseNumber(value, 1, 100000, &o->moov_minutes))
                return value ? fail(std::string("bad --moov-at-start: ") + value), 2 : 2;
        } else if (arg == "--update") {
            if (!need("an interval in seconds") ||
                !parseNumber(value, 1, 47721, &o->update_seconds))
                return value ? fail(std::string("bad --update: ") + value), 2 : 2;
        } else if (arg == "--fragmented") {
            if (!need("a number of samples per fragment") ||
                !parseNumber(value, 1, 1000000, &o->fragmented))
                return value ? fail(std::string("bad --fragmented: ") + value), 2 : 2;
        } else if (arg == "--size") {
            if (!need("WxH") || !parseSize(value, &o->width, &o->height))
                return value ? fail(std::string("bad --size (WxH expected): ") + value), 2 : 2;
        } else {
            fail("unknown option " + arg);
            fprintf(stderr, "usage: mp4kit %s\n", usage_line);
            return 2;
        }
    }
    if (o->out.empty())
        return fail("no output file (-o OUT)"), 2;
    if (!o->h264.empty() && !o->mp4v.empty())
        return fail("give --h264 or --mp4v, not both"), 2;
    if (!o->aac.empty() && !o->pcm.empty())
        return fail("give --aac or --pcm, not both"), 2;
    if (o->h264.empty() && o->mp4v.empty() && o->aac.empty() && o->pcm.empty())
        return fail("nothing to record: give a video and/or an audio stream"), 2;
    if (!o->pcm.empty() && (!o->rate || !o->channels))
        return fail("--pcm needs --rate HZ and --channels N"), 2;
    if (o->update_seconds && !o->moov_minutes)
        return fail("--update goes with --moov-at-start MINUTES"), 2;
    if (o->fragmented && (o->interleave || o->moov_minutes))
        return fail("--fragmented goes without --interleave and --moov-at-start"), 2;
    if (o->fragmented && !o->pcm.empty())
        return fail("--fragmented records H.264/MPEG-4 Visual and AAC; PCM is recorded plain"), 2;
    return 0;
}

bool endsWithMov(const std::string &name) {
    return name.size() >= 4 && strcasecmp(name.c_str() + name.size() - 4, ".mov") == 0;
}

// One input stream, split a unit at a time as the recording goes: `unit` is the next unit to
// write while `has_unit` is set, its bytes readable through the input until the stream advances.
struct Stream {
    es::Input file;
    std::function<bool(es::Unit *)> split;
    es::Unit unit{};
    bool has_unit = false;
    uint32_t track = 0;
    uint32_t timescale = 0;
    uint64_t time = 0;    // start of the next unit, in timescale ticks
    uint64_t count = 0;   // units in the stream
    uint64_t written = 0; // units handed to the writer
    size_t largest = 0;   // bytes of the largest unit

    void advance() { has_unit = split && split(&unit); }
};

class Progress {
  public:
    Progress(uint64_t total) : total_(total), on_(isatty(STDERR_FILENO) && total >= (16u << 20)) {}
    void update(uint64_t done) {
        if (!on_)
            return;
        int percent = int(done * 100 / total_);
        if (percent != shown_) {
            shown_ = percent;
            fprintf(stderr, "\rrecording: %3d%%", percent);
        }
    }
    void done() {
        if (on_)
            fprintf(stderr, "\r%*s\r", 20, "");
    }

  private:
    uint64_t total_;
    bool on_;
    int shown_ = -1;
};

// Fragmented output goes through a memory buffer that is emptied into the file after every
// call: each call writes whole boxes (one sample's mdat, or a fragment header), so the buffer
// only has to hold the largest of them.
struct FragmentSink {
    FILE *file = nullptr;
    std::unique_ptr<uint8_t[]> buffer;
    uint32_t size = 0;
    bool ok = true;

    void drain(mp4_muxer *m) {
        uint32_t n = mp4_buf_get(m);
        if (n && fwrite(buffer.get(), 1, n, file) != n)
            ok = false;
        mp4_buf_put(m, buffer.get(), size);
    }
};

int run(int argc, char **argv) {
    Options o;
    if (int status = parseOptions(argc, argv, &o))
        return status;

    std::string error;
    Stream video, audio;
    uint32_t video_type = 0, audio_type = 0, width = 0, height = 0, profile = 0, level = 0;
    const uint32_t frame_ticks = 90000 / o.fps;
    std::vector<uint8_t> params; // given before the movie header of a fragmented recording
    bool warn_multi_slice = false;
    if (!o.h264.empty()) {
        if (!video.file.open(o.h264, &error))
            return fail(error);
        // The track is described by the stream's first picture and parameter sets: read ahead
        // until they are found (to the end of a stream that lacks them, or to count the units
        // of a fragmented recording), then go through the stream again to record it.
        es::H264Splitter look(video.file);
        es::Unit u;
        while (o.fragmented || !(look.info().have_sps && look.info().have_pps && look.count())) {
            if (!look.next(&u))
                break;
            video.largest = u.size > video.largest ? u.size : video.largest;
        }
        if (!look.sawStartCode())
            return fail(o.h264 + ": not an H.264 Annex B stream (no start code)");
        if (!look.count())
            return fail(o.h264 + ": no coded picture found in the H.264 stream");
        const es::H264Info &info = look.info();
        if (!info.have_sps || !info.have_pps)
            return fail(o.h264 + ": no sequence/picture parameter set in the stream");
        // Said as soon as it shows: here, or when recording reaches it.
        warn_multi_slice = true;
        auto warnMultiSlice = [&o, &warn_multi_slice] {
            fprintf(stderr,
                    "mp4kit record: warning: %s has pictures of several slices; each "
                    "picture is stored as one unit and may not play\n",
                    o.h264.c_str());
            warn_multi_slice = false;
        };
        if (info.multi_slice)
            warnMultiSlice();
        video_type = MP4_FOURCC('a', 'v', 'c', '1');
        width = info.width;
        height = info.height;
        profile = info.profile;
        level = info.level;
        video.count = look.count();
        for (const std::vector<uint8_t> *nal : {&info.sps, &info.pps})
            params.insert(params.end(), nal->begin(), nal->end());
        video.file.rewind();
        auto splitter = std::make_shared<es::H264Splitter>(video.file);
        video.split = [splitter, &warn_multi_slice, warnMultiSlice](es::Unit *unit) {
            bool more = splitter->next(unit);
            if (warn_multi_slice && splitter->info().multi_slice)
                warnMultiSlice();
            return more;
        };
    } else if (!o.mp4v.empty()) {
        if (!video.file.open(o.mp4v, &error))
            return fail(error);
        // The picture size may come from any object layer: the whole stream is looked through.
        es::M4vSplitter look(video.file);
        es::Unit u;
        while (look.next(&u)) {
            if (look.count() == 1 && o.fragmented)
                params.assign(video.file.at(u.offset), video.file.at(u.offset) + u.size);
            video.largest = u.size > video.largest ? u.size : video.largest;
        }
        if (!look.count())
            return fail(o.mp4v + ": not an MPEG-4 Visual stream (no video object plane)");
        video_type = MP4_FOURCC('m', 'p', '4', 'v');
        width = look.info().width;
        height = look.info().height;
        video.count = look.count();
        video.file.rewind();
        auto splitter = std::make_shared<es::M4vSplitter>(video.file);
        video.split = [splitter](es::Unit *unit) { return splitter->next(unit); };
    }
    if (video_type) {
        if (o.width) {
            width = o.width;
            height = o.height;
        }
        if (!width || !height)
            return fail("cannot tell the picture size of the video stream; give --size WxH");
        video.timescale = 90000;
    }

    uint32_t rate = 0, channels = 0;
    std::shared_ptr<es::AdtsSplitter> adts; // an AAC stream not looked through before recording
    auto warnCutOff = [&o] {
        fprintf(stderr, "mp4kit record: warning: %s ends in a cut-off frame, left out\n",
                o.aac.c_str());
    };
    if (!o.aac.empty()) {
        if (!audio.file.open(o.aac, &error))
            return fail(error);
        // The first frame tells the track's parameters. A fragmented recording sizes its buffer
        // by the whole stream; a plain one finds a frame that loses sync when it gets there
        // (reading the stream twice would cost a fifth of the recording's time).
        es::AdtsSplitter look(audio.file);
        es::Unit u;
        while ((o.fragmented || !look.count()) && look.next(&u))
            audio.largest = u.size > audio.largest ? u.size : audio.largest;
        if (!look.error().empty())
            return fail(o.aac + ": " + look.error());
        if (look.droppedTail())
            warnCutOff();
        const es::AdtsInfo &info = look.info();
        if (info.object_type != 2)
            fprintf(stderr,
                    "mp4kit record: warning: %s is AAC object type %u; the file "
                    "declares AAC LC\n",
                    o.aac.c_str(), info.object_type);
        audio_type = MP4_FOURCC('m', 'p', '4', 'a');
        rate = info.sample_rate;
        channels = info.channels;
        audio.count = look.count();
        audio.file.rewind();
        auto splitter = std::make_shared<es::AdtsSplitter>(audio.file);
        audio.split = [splitter](es::Unit *unit) { return splitter->next(unit); };
        if (!o.fragmented)
            adts = splitter;
    } else if (!o.pcm.empty()) {
        if (!audio.file.open(o.pcm, &error))
            return fail(error);
        rate = o.rate;
        channels = o.channels;
        const uint32_t frame_bytes = 2 * channels;
        const uint64_t frames = audio.file.size() / frame_bytes;
        audio.count = (frames + 1023) / 1024;
        if (!audio.count)
            return fail(o.pcm + ": shorter than one PCM frame");
        audio.largest = size_t(frames < 1024 ? frames : 1024) * frame_bytes;
        if (audio.file.size() % frame_bytes)
            fprintf(stderr, "mp4kit record: warning: %s ends in a partial frame, left out\n",
                    o.pcm.c_str());
        audio_type = MP4_FOURCC('s', 'o', 'w', 't');
        auto splitter = std::make_shared<es::PcmSplitter>(audio.file, frame_bytes, 1024);
        audio.split = [splitter](es::Unit *unit) { return splitter->next(unit); };
    }
    if (audio_type)
        audio.timescale = rate;

    const bool mov = endsWithMov(o.out);
    AsyncOutput output; // outlives the handle that writes through it
    mp4_muxer *m = mov ? mov_writer_create() : mp4_writer_create();
    if (!m)
        return fail("out of memory");
    FragmentSink sink;
    if (o.fragmented) {
        sink.file = fopen(o.out.c_str(), "wb");
        if (!sink.file) {
            mp4_delete(m);
            return fail("cannot open " + o.out + " for writing: " + strerror(errno));
        }
        const size_t largest = video.largest > audio.largest ? video.largest : audio.largest;
        // The largest sample, or a fragment header of every sample at once, and the movie
        // header.
        uint64_t want = largest + 64 * (video.count + audio.count) + (64u << 10);
        sink.size = want > 0xFFFFFFFFu ? 0xFFFFFFFFu : uint32_t(want);
        sink.buffer.reset(new (std::nothrow) uint8_t[sink.size]);
        if (!sink.buffer) {
            fclose(sink.file);
            mp4_delete(m);
            return fail("out of memory");
        }
        mp4_buf_put(m, sink.buffer.get(), sink.size);
    } else if (!o.moov_minutes) {
        // The file's writes go out on a thread of their own. Not with the movie at the start:
        // its updates are flushed so that a killed recording keeps them, and a stream cannot
        // tell a flush of a full buffer from an ordinary write.
        if (!output.open(o.out)) {
            mp4_delete(m);
            return fail("cannot open " + o.out + " for writing: " + strerror(errno));
        }
        mp4_file_pointer(m, output.stream());
    } else {
        mp4_file_name_ascii(m, o.out.c_str());
        if (mp4_get_error_code(m)) {
            mp4_delete(m);
            return fail("cannot open " + o.out + " for writing: " + strerror(errno));
        }
    }
    if (o.interleave)
        mp4_interleave_duration(m, o.interleave);
    if (o.moov_minutes)
        mp4_set_moov_max_duration(m, o.moov_minutes, o.update_seconds ? o.update_seconds : 10);
    if (video_type)
        video.track = mp4_video_track_create(m, video_type, 90000, frame_ticks, 0, width, height,
                                             profile, level);
    if (audio_type)
        audio.track = mp4_audio_track_create(m, audio_type, rate, 1024, 0, rate, channels);
    if ((video_type && !video.track) || (audio_type && !audio.track)) {
        if (sink.file) {
            mp4_buf_get(m);
            fclose(sink.file);
        }
        mp4_delete(m);
        return fail("cannot create the tracks");
    }
    if (o.fragmented) {
        // The movie header comes before any sample, so it needs the parameter sets now.
        if (params.size() >= 4)
            mp4_set_parameter_data(m, params.data(), uint32_t(params.size()));
        mp4_write_movie(m);
        sink.drain(m);
    }
    uint32_t in_fragment = 0; // samples written since the last fragment header

    // Deliver in time order; video first on equal times.
    uint64_t total = video.file.size() + audio.file.size(), done = 0;
    Progress progress(total);
    uint32_t failed = 0;
    video.advance();
    audio.advance();
    while (!failed && (video.has_unit || audio.has_unit)) {
        bool take_video = video.has_unit;
        if (take_video && audio.has_unit)
            take_video = video.time * audio.timescale <= audio.time * video.timescale;
        Stream &s = take_video ? video : audio;
        const es::Unit u = s.unit;
        uint32_t duration = take_video ? frame_ticks
                            : audio_type == MP4_FOURCC('s', 'o', 'w', 't')
                                ? uint32_t(u.size / (2 * channels))
                                : 1024;
        mp4_write_track(m, s.track, s.file.at(u.offset), uint32_t(u.size), duration);
        s.written++;
        if (o.fragmented) {
            in_fragment++;
            // A fragment every N pictures, or every N audio frames when there is no video.
            if ((take_video || !video_type) && s.written % o.fragmented == 0) {
                mp4_write_frag_header(m);
                in_fragment = 0;
            }
            sink.drain(m);
        }
        s.time += duration;
        done += u.size;
        progress.update(done);
        failed = mp4_get_error_code(m);
        s.advance();
    }
    if (!o.fragmented) {
        mp4_write_movie(m);
    } else {
        if (in_fragment)
            mp4_write_frag_header(m); // the last samples are described once their fragment closes
        sink.drain(m);
        mp4_buf_get(m);
        if (fclose(sink.file) != 0 || !sink.ok)
            failed = failed ? failed : 8;
    }
    progress.done();
    if (!failed)
        failed = mp4_get_error_code(m);
    std::string failure = failed ? mp4_get_error(m) : "";
    mp4_delete(m); // closes a file it opened
    if (FILE *f = output.stream(); f && fclose(f) != 0 && !failed) {
        failed = 8;
        failure = std::string("write failed: ") + strerror(errno);
    }
    if (failed)
        return fail(o.out + ": " + (failure.empty() ? "error" : failure) + " (code " +
                    std::to_string(failed) + ")");
    if (adts && adts->droppedTail())
        warnCutOff();
    // An input that could not be read to its end, or an AAC stream that lost its frame sync:
    // the movie holds what came before.
    if (adts && !adts->error().empty())
        return fail(o.aac + ": " + adts->error() + "; the recording ends before it");
    for (const auto &[path, s] :
         {std::pair<const std::string &, const Stream &>{o.h264.empty() ? o.mp4v : o.h264, video},
          {o.aac.empty() ? o.pcm : o.aac, audio}})
        if (!s.file.error().empty())
            return fail(path + ": " + s.file.error());

    struct stat st;
    uint64_t bytes = stat(o.out.c_str(), &st) == 0 ? uint64_t(st.st_size) : 0;
    printf("wrote %s (%s, %" PRIu64 " bytes)\n", o.out.c_str(), mov ? "QuickTime" : "MP4", bytes);
    uint32_t n = 1;
    if (video_type)
        printf("  track %u: video %s %ux%u, %zu samples, %.3f s\n", n++,
               video_type == MP4_FOURCC('a', 'v', 'c', '1') ? "avc1" : "mp4v", width, height,
               size_t(video.written), double(video.time) / 90000);
    if (audio_type == MP4_FOURCC('m', 'p', '4', 'a'))
        printf("  track %u: audio mp4a %u Hz, %u channels, %zu samples, %.3f s\n", n, rate,
               channels, size_t(audio.written), double(audio.time) / rate);
    else if (audio_type)
        printf("  track %u: audio sowt %u Hz, %u channels, %zu blocks (%" PRIu64
               " frames), %.3f s\n",
               n, rate, channels, size_t(audio.written), audio.time, double(audio.time) / rate);
    return 0;
}

CommandRegistrar reg({"record", usage_line, run});

} // namespace
