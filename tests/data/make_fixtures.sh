#!/usr/bin/env bash
# Regenerates the media fixtures in this directory with ffmpeg.
#
# Every input is synthetic (lavfi testsrc / aevalsrc), encoders run
# single-threaded and all metadata and version strings are stripped, so the
# same ffmpeg build gives the same bytes on every run. Files stay small
# (tens of KB) because they are committed.
set -euo pipefail

cd "$(dirname "$0")"

if ! command -v ffmpeg >/dev/null 2>&1; then
    echo "make_fixtures.sh: ffmpeg not found (apt-get install ffmpeg)" >&2
    exit 1
fi

# One tone per channel, so a swapped or dropped channel is visible.
stereo_tone() { # rate seconds
    echo "aevalsrc=0.4*sin(2*PI*440*t)|0.4*sin(2*PI*660*t):s=$1:d=$2"
}

video_src() { # size rate seconds
    echo "testsrc=size=$1:rate=$2:duration=$3"
}

# -threads 1 matters: x264's decisions depend on its thread count.
COMMON=(-hide_banner -loglevel error -nostdin -y -bitexact)
OUT_FLAGS=(-fflags +bitexact -flags +bitexact -map_metadata -1 -threads 1)
H264=(-c:v libx264 -pix_fmt yuv420p -profile:v baseline -preset medium
      -b:v 80k -maxrate 120k -bufsize 240k -g 15 -keyint_min 15 -sc_threshold 0)
AAC=(-c:a aac -b:a 48k -ar 48000 -ac 2)

ff() { # output, then ffmpeg arguments
    local out=$1
    shift
    ffmpeg "${COMMON[@]}" "$@" "${OUT_FLAGS[@]}" "$out"
    echo "wrote $out ($(stat -c %s "$out") bytes)"
}

# H.264 + AAC sharing a 48000 Hz timescale; moov after mdat.
ff h264_aac.mp4 \
    -f lavfi -i "$(video_src 160x120 30 2)" -f lavfi -i "$(stereo_tone 48000 2)" \
    "${H264[@]}" "${AAC[@]}" -video_track_timescale 48000

# The same streams in a QuickTime container.
ff h264_aac.mov \
    -f lavfi -i "$(video_src 160x120 30 2)" -f lavfi -i "$(stereo_tone 48000 2)" \
    "${H264[@]}" "${AAC[@]}" -video_track_timescale 48000 -f mov

# ffmpeg's default timescales: 15360 for 30 fps video, 48000 for audio.
ff h264_aac_default_ts.mp4 \
    -f lavfi -i "$(video_src 160x120 30 2)" -f lavfi -i "$(stereo_tone 48000 2)" \
    "${H264[@]}" "${AAC[@]}"

# Video only, moov moved in front of mdat.
ff h264_only_faststart.mp4 \
    -f lavfi -i "$(video_src 160x120 30 2)" \
    "${H264[@]}" -movflags +faststart

# Fragmented: empty moov, then one moof+mdat per keyframe.
ff frag.mp4 \
    -f lavfi -i "$(video_src 160x120 30 2)" -f lavfi -i "$(stereo_tone 48000 2)" \
    "${H264[@]}" "${AAC[@]}" -movflags frag_keyframe+empty_moov

# H.264 main profile with B-frames: composition offsets and a video edit list.
ff h264_bframes.mp4 \
    -f lavfi -i "$(video_src 160x120 30 2)" \
    -c:v libx264 -pix_fmt yuv420p -profile:v main -preset medium \
    -b:v 80k -maxrate 120k -bufsize 240k -g 15 -keyint_min 15 -sc_threshold 0 -bf 2

# MPEG-4 Visual + AAC.
ff mp4v.mp4 \
    -f lavfi -i "$(video_src 160x120 30 2)" -f lavfi -i "$(stereo_tone 48000 2)" \
    -c:v mpeg4 -pix_fmt yuv420p -b:v 100k -g 15 "${AAC[@]}"

# H.264 + 16-bit little-endian PCM ('sowt') in QuickTime. PCM is large, so
# one second at 16 kHz keeps the file small.
ff pcm_s16le.mov \
    -f lavfi -i "$(video_src 128x96 15 1)" -f lavfi -i "$(stereo_tone 16000 1)" \
    "${H264[@]}" -c:a pcm_s16le -ar 16000 -ac 2 -f mov

# Audio-only PCM at 48 kHz: 12000 sample frames.
ff pcm_only.mov \
    -f lavfi -i "$(stereo_tone 48000 1)" \
    -af atrim=end_sample=12000 -c:a pcm_s16le -ar 48000 -ac 2 -f mov

# Elementary streams for the recording tool and examples.

# Annex B with AUDs and SPS/PPS repeated before every IDR.
ff sample.h264 \
    -f lavfi -i "$(video_src 128x96 25 3)" \
    -c:v libx264 -pix_fmt yuv420p -profile:v baseline -preset medium \
    -b:v 60k -maxrate 90k -bufsize 180k -g 25 -keyint_min 25 -sc_threshold 0 \
    -x264-params aud=1:repeat-headers=1 -f h264

# ADTS AAC, 48 kHz stereo, 3 s.
ff sample.aac \
    -f lavfi -i "$(stereo_tone 48000 3)" \
    "${AAC[@]}" -f adts

# Raw MPEG-4 Visual (VOS/VOL headers, then VOPs).
ff sample.m4v \
    -f lavfi -i "$(video_src 128x96 25 3)" \
    -c:v mpeg4 -pix_fmt yuv420p -b:v 60k -g 25 -f m4v

# Raw s16le 48 kHz stereo: 15360 sample frames (15 x 1024), 61440 bytes.
ff sample_s16le.pcm \
    -f lavfi -i "$(stereo_tone 48000 1)" \
    -af atrim=end_sample=15360 -c:a pcm_s16le -ar 48000 -ac 2 -f s16le
