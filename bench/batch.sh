#!/bin/sh
# Throughput of `imagelib convert -j N` on one thread and on two: a batch of
# 32 photo-like 1024 x 1024 BMP files converted to PNG, timed with hyperfine.
# Usage: bench/batch.sh [BUILD_DIR] [FILES]   (default build/release, 32)
set -eu
build=${1:-build/release}
files=${2:-32}
cli=$(cd "$build" && pwd)/imagelib
work=$(mktemp -d /dev/shm/imagelib-batch.XXXXXX)
trap 'rm -rf "$work"' EXIT
convert -size 1024x1024 plasma:fractal -seed 7 "$work/src.ppm" 2>/dev/null ||
    convert -size 1024x1024 gradient:red-blue "$work/src.ppm"
"$cli" convert "$work/src.ppm" "$work/src.bmp"
inputs=""
i=0
while [ "$i" -lt "$files" ]; do
    cp "$work/src.bmp" "$work/in$i.bmp"
    inputs="$inputs $work/in$i.bmp"
    i=$((i + 1))
done
echo "load average: $(cut -d' ' -f1-3 /proc/loadavg)"
hyperfine -w 1 -r 7 -N \
    -n "one thread (-j 1)" "$cli convert -j 1 $inputs --to $work/out1 --type 28" \
    -n "two threads (-j 2)" "$cli convert -j 2 $inputs --to $work/out2 --type 28"
echo "load average: $(cut -d' ' -f1-3 /proc/loadavg)"
for j in 1 2; do
    /usr/bin/time -f "-j $j: %e s wall, %U s user, %S s system, CPU %P" \
        "$cli" convert -j $j $inputs --to "$work/out$j" --type 28
done
cmp_all=0
for f in "$work"/out1/*.png; do cmp -s "$f" "$work/out2/$(basename "$f")" || cmp_all=1; done
[ "$cmp_all" -eq 0 ] && echo "outputs of -j 1 and -j 2 identical" || echo "OUTPUTS DIFFER"
