#!/usr/bin/env bash
# Runs each fuzz target for a fixed time, starting from the seed corpus made of the test
# fixtures. Usage: fuzz/run.sh BUILD_DIR SECONDS TARGET...
set -euo pipefail
build=$1 seconds=$2
shift 2
root=$(cd "$(dirname "$0")/.." && pwd)
data=$root/tests/data
status=0
for target in "$@"; do
    corpus=$build/corpus/$target
    artifacts=$build/artifacts/$target/
    mkdir -p "$corpus" "$artifacts"
    case $target in
        fuzz_parameter_data) seeds=("$data"/sample.h264 "$data"/sample.m4v) ;;
        # Raw streams; the first two bytes choose the window and the PCM frame size.
        fuzz_es_parse) seeds=("$data"/sample.h264 "$data"/sample.m4v "$data"/sample.aac
                             "$data"/sample_s16le.pcm) ;;
        # Call sequences, not files: hand-made seeds (fuzz/make_write_api_seeds.py).
        fuzz_write_api) seeds=("$root"/fuzz/corpus_write_api/*) ;;
        *) seeds=("$data"/*.mp4 "$data"/*.mov) ;;
    esac
    cp -n "${seeds[@]}" "$corpus"/ 2>/dev/null || true
    [ -d "$root/fuzz/regressions/$target" ] && cp -n "$root/fuzz/regressions/$target"/* "$corpus"/ 2>/dev/null || true
    echo "== $target: ${seconds}s from $(ls "$corpus" | wc -l) inputs"
    # -close_fd_mask=2 drops the library's warnings on stderr; libFuzzer and the sanitizers
    # keep reporting on a duplicate of it.
    if ! "$build/$target" "$corpus" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
            -malloc_limit_mb=128 -max_len=262144 -print_final_stats=1 -close_fd_mask=2 \
            -artifact_prefix="$artifacts" 2>"$build/$target.log"; then
        echo "!! $target found a failure; see $build/$target.log and $artifacts"
        tail -n 40 "$build/$target.log"
        status=1
    fi
    grep -E '^stat::(number_of_executed_units|average_exec_per_sec|peak_rss_mb)|^#[0-9]+.*DONE' \
        "$build/$target.log" | tail -n 4 || true
    echo "corpus now $(ls "$corpus" | wc -l) inputs"
done
exit $status
