#!/usr/bin/env bash
# Side-by-side timing on the same elementary streams:
#   recording: `mp4kit record` vs `ffmpeg -c copy` vs `cat` of the same input bytes (the I/O floor)
#   reading:   `mp4kit samples` vs `ffprobe -show_packets` on the recorded file
# Each command runs RUNS times; the best wall time and the peak resident memory are reported.
#
# Usage: bench/compare.sh [MINUTES]   (default 60; the streams are generated once and cached)
set -euo pipefail

minutes=${1:-60}
runs=${RUNS:-3}
root=$(cd "$(dirname "$0")/.." && pwd)
tool=${MP4KIT_TOOL:-$root/build/bench/mp4kit}
work=${WORK:-${TMPDIR:-/tmp}/mp4kit-compare}
mkdir -p "$work"

[ -x "$tool" ] || { echo "compare: build the tool first (make bench), or set MP4KIT_TOOL"; exit 1; }
command -v ffmpeg >/dev/null && command -v ffprobe >/dev/null ||
    { echo "compare: ffmpeg and ffprobe are needed"; exit 1; }

seconds=$((minutes * 60))
video=$work/in_${minutes}m.h264
audio=$work/in_${minutes}m.aac
if [ ! -s "$video" ] || [ ! -s "$audio" ]; then
    echo "generating ${minutes} min of 30 fps H.264 (128x72) and 48 kHz AAC in $work ..."
    ffmpeg -v error -y -f lavfi -i "testsrc2=size=128x72:rate=30" -t "$seconds" \
        -c:v libx264 -preset ultrafast -g 30 -pix_fmt yuv420p \
        -x264-params aud=1:repeat-headers=1 -f h264 "$video"
    ffmpeg -v error -y -f lavfi -i "sine=frequency=440:sample_rate=48000" -ac 2 -t "$seconds" \
        -c:a aac -b:a 64k -f adts "$audio"
fi

# measure NAME CMD...: best wall time over $runs runs and the peak RSS, from wait4's rusage.
measure() {
    local name=$1
    shift
    python3 - "$runs" "$@" <<'PY'
import os, subprocess, sys, time
runs = int(sys.argv[1]); cmd = sys.argv[2:]
best = None; peak = 0
for _ in range(runs):
    start = time.perf_counter()
    p = subprocess.Popen(cmd, stdout=subprocess.DEVNULL)
    _, status, usage = os.wait4(p.pid, 0)
    elapsed = time.perf_counter() - start
    if os.waitstatus_to_exitcode(status) != 0:
        sys.exit("failed: " + " ".join(cmd))
    best = elapsed if best is None else min(best, elapsed)
    peak = max(peak, usage.ru_maxrss)
print(f"{best:.3f} {peak}")
PY
}

bytes=$(($(stat -c %s "$video") + $(stat -c %s "$audio")))
echo "input: $(stat -c %s "$video") bytes of H.264 + $(stat -c %s "$audio") bytes of AAC ($minutes min)"

read -r t_floor m_floor < <(measure floor sh -c "cat '$video' '$audio' > '$work/floor.bin'")
read -r t_rec m_rec < <(measure record "$tool" record -o "$work/mp4kit.mp4" --h264 "$video" \
    --aac "$audio" --fps 30)
read -r t_ff m_ff < <(measure ffmpeg ffmpeg -v error -y -r 30 -f h264 -i "$video" -i "$audio" \
    -c copy "$work/ffmpeg.mp4")
read -r t_samples m_samples < <(measure samples sh -c "'$tool' samples '$work/mp4kit.mp4' > /dev/null")
read -r t_probe m_probe < <(measure ffprobe sh -c "ffprobe -v error -show_packets '$work/mp4kit.mp4' > /dev/null")

ratio() { python3 -c "print(f'{$1 / $2:.2f}')"; }
printf '%-34s %10s %12s\n' "command" "seconds" "peak RSS KiB"
printf '%-34s %10s %12s\n' "cat (I/O floor)" "$t_floor" "$m_floor"
printf '%-34s %10s %12s\n' "mp4kit record" "$t_rec" "$m_rec"
printf '%-34s %10s %12s\n' "ffmpeg -c copy" "$t_ff" "$m_ff"
printf '%-34s %10s %12s\n' "mp4kit samples" "$t_samples" "$m_samples"
printf '%-34s %10s %12s\n' "ffprobe -show_packets" "$t_probe" "$m_probe"
echo "mp4kit record / floor:          $(ratio "$t_rec" "$t_floor")"
echo "ffmpeg / mp4kit record:         $(ratio "$t_ff" "$t_rec")"
echo "ffprobe / mp4kit samples:       $(ratio "$t_probe" "$t_samples")"
moov=$(python3 - "$work/mp4kit.mp4" <<'PY'
import struct, sys
f = open(sys.argv[1], 'rb'); pos = 0
while True:
    h = f.read(8)
    if len(h) < 8: break
    size, kind = struct.unpack('>I4s', h)
    if size == 1: size = struct.unpack('>Q', f.read(8))[0]
    if kind == b'moov': print(size); break
    pos += size; f.seek(pos)
PY
)
echo "movie box of the recording:     $moov bytes; record peak RSS $m_rec KiB (bound: 2 x moov + 4 MiB = $(( (2 * moov + 4194304) / 1024 )) KiB)"
