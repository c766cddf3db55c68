#!/usr/bin/env bash
# Runs the three examples on the bundled sample streams and checks what they produce.
set -euo pipefail
mkdir -p "$OUT"
"$RECORD" "$DATA/sample.h264" "$DATA/sample.aac" "$OUT/record.mp4" 25
"$PLAY" "$OUT/record.mp4" >"$OUT/play.txt"
video=$(grep -c '^track 1 ' "$OUT/play.txt" || true)
[ "$video" = 75 ] || { echo "play listed $video video samples, expected 75"; exit 1; }
"$FRAGMENT" "$DATA/sample.aac" "$OUT/fragment.mp4"
if command -v ffprobe >/dev/null; then
    for f in record.mp4 fragment.mp4; do
        err=$(ffmpeg -v error -i "$OUT/$f" -f null - 2>&1)
        [ -z "$err" ] || { echo "$f does not decode cleanly: $err"; exit 1; }
    done
    n=$(ffprobe -v error -count_packets -select_streams a:0 -show_entries stream=nb_read_packets \
        -of csv=p=0 "$OUT/fragment.mp4")
    [ "$n" = 142 ] || { echo "fragment.mp4 holds $n audio packets, expected 142"; exit 1; }
else
    echo "ffprobe missing: outputs not validated"
fi
echo "examples check passed"
