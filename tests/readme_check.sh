#!/usr/bin/env bash
# The README's C example must compile exactly as printed, as strict C99.
set -euo pipefail
src=$1 work=$2
mkdir -p "$work"
awk '/^```c$/ {on = 1; next} /^```$/ && on {exit} on' "$src/README.md" >"$work/readme_example.c"
[ -s "$work/readme_example.c" ] || { echo "no C example found in README.md"; exit 1; }
gcc -std=c99 -Wall -Wextra -Werror -pedantic -I"$src/include" -c "$work/readme_example.c" \
    -o "$work/readme_example.o"
echo "README example compiles"
