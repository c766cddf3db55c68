#!/usr/bin/env bash
# Installs a built tree into a scratch prefix and builds three consumers against it: through
# find_package, through pkg-config, and as strict C99. Each records a file that must be readable.
set -euo pipefail
src=$1 build=$2 work=$3
rm -rf "$work"
mkdir -p "$work"
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null

for f in include/mp4kit/mp4.h include/mp4kit/mp4.hpp lib/libmp4kit.a lib/libmp4kit.so \
         lib/cmake/mp4kit/mp4kitConfig.cmake lib/pkgconfig/mp4kit.pc bin/mp4kit; do
    [ -e "$prefix/$f" ] || { echo "missing after install: $f"; exit 1; }
done
soname=$(readelf -d "$prefix/lib/libmp4kit.so" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')
[ "$soname" = libmp4kit.so.0 ] || { echo "unexpected SONAME: $soname"; exit 1; }

aac=$src/tests/data/sample.aac

# 1. CMake package.
cmake -S "$src/tests/consumer" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
LD_LIBRARY_PATH=$prefix/lib "$work/cmake/consumer" "$aac" "$work/cmake.mp4"

# 2. pkg-config.
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
cc -o "$work/pkgconfig" "$src/tests/consumer/consumer.c" $(pkg-config --cflags --libs mp4kit)
LD_LIBRARY_PATH=$prefix/lib "$work/pkgconfig" "$aac" "$work/pkgconfig.mp4"

# 3. Plain C99 with every warning an error, against the static library.
gcc -std=c99 -Wall -Wextra -Werror -pedantic -I"$prefix/include" -o "$work/c99" \
    "$src/tests/consumer/consumer.c" "$prefix/lib/libmp4kit.a" -lstdc++
"$work/c99" "$aac" "$work/c99.mp4"

for out in cmake pkgconfig c99; do
    [ -s "$work/$out.mp4" ] || { echo "$out consumer wrote nothing"; exit 1; }
    if command -v ffprobe >/dev/null; then
        n=$(ffprobe -v error -count_packets -select_streams a:0 \
            -show_entries stream=codec_name,nb_read_packets -of csv=p=0 "$work/$out.mp4")
        [ "$n" = "aac,142" ] || { echo "$out consumer: ffprobe says '$n'"; exit 1; }
    fi
done
echo "install check passed"
