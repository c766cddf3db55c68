#!/usr/bin/env bash
# Side-by-side timing on the same elementary streams:
#   recording: `mp4kit record` vs `ffmpeg -c copy` vs two I/O floors for the same input bytes:
#              `cat` (coreutils copies file to file inside the kernel, with copy_file_range, so
#              no byte passes through user space) and `dd bs=256K` (every byte read into a
#              process and written out again, as any program that looks at the bytes must)
#   reading:   `mp4kit samples` vs `ffprobe -show_packets` on the recorded file
# The commands take turns, RUNS rounds of them (default 5), each run from a warm page cache
# with its output file removed and dirty pages synced beforehand (neither is timed), so that
# every run writes into fresh pages of the same file system and none pays for another's
# write-back. Best and median wall times are reported, and the peak resident memory, measured
# by bench/runstat.c, which forks the commands from a process of its own.
#
# Usage: bench/compare.sh [MINUTES]   (default 60; the streams are generated once and cached)
set -euo pipefail

minutes=${1:-60}
runs=${RUNS:-5}
root=$(cd "$(dirname "$0")/.." && pwd)
tool=${MP4KIT_TOOL:-$root/build/bench/mp4kit}
work=${WORK:-${TMPDIR:-/tmp}/mp4kit-compare}
mkdir -p "$work"

[ -x "$tool" ] || { echo "compare: build the tool first (make bench), or set MP4KIT_TOOL"; exit 1; }
command -v ffmpeg >/dev/null && command -v ffprobe >/dev/null ||
    { echo "compare: ffmpeg and ffprobe are needed"; exit 1; }
cc -O2 -o "$work/runstat" "$root/bench/runstat.c"

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
echo "input: $(stat -c %s "$video") bytes of H.264 + $(stat -c %s "$audio") bytes of AAC ($minutes min)"

python3 - "$runs" "$work" "$tool" "$video" "$audio" <<'PY'
import os, statistics, struct, subprocess, sys

runs, work, tool, video, audio = int(sys.argv[1]), sys.argv[2], sys.argv[3], sys.argv[4], sys.argv[5]
runstat = os.path.join(work, "runstat")
rec = os.path.join(work, "mp4kit.mp4")
out = lambda name: os.path.join(work, name)

# name: (output file removed before each run, stdout file or None, command)
recording = [
    ("cat (kernel copy floor)", out("floor.bin"), out("floor.bin"), ["cat", video, audio]),
    ("dd bs=256K (user-space floor)", out("floor_dd.bin"), None,
     ["sh", "-c", f"dd if='{video}' of='{out('floor_dd.bin')}' bs=256K status=none && "
                  f"dd if='{audio}' of='{out('floor_dd.bin')}' bs=256K oflag=append "
                  f"conv=notrunc status=none"]),
    ("mp4kit record", rec, None,
     [tool, "record", "-o", rec, "--h264", video, "--aac", audio, "--fps", "30"]),
    ("ffmpeg -c copy", out("ffmpeg.mp4"), None,
     ["ffmpeg", "-v", "error", "-y", "-r", "30", "-f", "h264", "-i", video, "-i", audio,
      "-c", "copy", out("ffmpeg.mp4")]),
]
reading = [
    ("mp4kit samples", None, None, [tool, "samples", rec]),
    ("ffprobe -show_packets", None, None, ["ffprobe", "-v", "error", "-show_packets", rec]),
]

def measure(commands):
    times = {c[0]: [] for c in commands}
    peak = {c[0]: 0 for c in commands}
    for _ in range(runs):
        for name, remove, stdout, cmd in commands:
            if remove and os.path.exists(remove):
                os.unlink(remove)
            os.sync()
            args = [runstat] + (["-o", stdout] if stdout else []) + cmd
            r = subprocess.run(args, capture_output=True, text=True)
            if r.returncode != 0:
                sys.exit(f"failed: {' '.join(cmd)}\n{r.stderr}")
            t, rss = r.stdout.split()
            times[name].append(float(t))
            peak[name] = max(peak[name], int(rss))
    return {n: (min(ts), statistics.median(ts), peak[n]) for n, ts in times.items()}

res = measure(recording)
res.update(measure(reading))

print(f"{runs} runs each, taking turns; wall seconds")
print(f"{'command':34} {'best':>8} {'median':>8} {'peak RSS KiB':>13}")
for name, (best, med, rss) in res.items():
    print(f"{name:34} {best:8.3f} {med:8.3f} {rss:13}")

def ratio(a, b, label):
    print(f"{label:40} best {res[a][0] / res[b][0]:6.2f}   median {res[a][1] / res[b][1]:6.2f}")
ratio("mp4kit record", "cat (kernel copy floor)", "mp4kit record / cat")
ratio("mp4kit record", "dd bs=256K (user-space floor)", "mp4kit record / dd")
ratio("ffmpeg -c copy", "mp4kit record", "ffmpeg / mp4kit record")
ratio("ffprobe -show_packets", "mp4kit samples", "ffprobe / mp4kit samples")

with open(rec, "rb") as f:
    pos, moov = 0, 0
    while True:
        f.seek(pos)
        h = f.read(16)
        if len(h) < 8:
            break
        size, kind = struct.unpack(">I4s", h[:8])
        if size == 1:
            size = struct.unpack(">Q", h[8:16])[0]
        if kind == b"moov":
            moov = size
            break
        if size < 8:
            break
        pos += size
bound = (2 * moov + 4 * 1024 * 1024) // 1024
samples = subprocess.run([tool, "samples", rec], capture_output=True, text=True).stdout.count("\n")
rss = res["mp4kit record"][2]
print(f"samples in the recording:                {samples}")
print(f"movie box of the recording:              {moov} bytes")
print(f"mp4kit record peak RSS:                  {rss} KiB (bound 2 x moov + 4 MiB = {bound} KiB)")
print(f"mp4kit record per sample (best):         {res['mp4kit record'][0] / samples * 1e9:.0f} ns")
PY
