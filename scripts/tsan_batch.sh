#!/bin/sh
# Runs `imagelib convert -j 4` batches over files of every codec family with
# a ThreadSanitizer build of the CLI; any report fails the run.
# Usage: scripts/tsan_batch.sh BUILD_DIR   (configured with -DIMAGELIB_SANITIZE=thread)
set -eu
cli=$(cd "$1" && pwd)/imagelib
root=$(cd "$(dirname "$0")/.." && pwd)
corpus=${IMAGELIB_CORPUS:-$root/../shared/corpus}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export TSAN_OPTIONS="halt_on_error=1 exitcode=66 ${TSAN_OPTIONS:-}"
# A picture of our own: a 96 x 64 plain PPM of gradients and flat patches.
awk 'BEGIN { print "P3"; print "96 64"; print 255
             for (y = 0; y < 64; y++) for (x = 0; x < 96; x++)
                 if ((int(x / 24) + int(y / 16)) % 3 == 0) print 200, 40, 40
                 else print x * 2, y * 3, (x + y) % 256 }' >"$work/src.ppm"
if [ -d "$corpus" ]; then
    # Files of other programs, where the sample corpus is at hand.
    for f in bmp/hopper.bmp tga/common/200x32_rgba_tl_rle.tga gif/hopper.gif pcx/pil184.pcx tif/hopper_lzw.tif \
             tif/hopper_g4.tif jpg/hopper.jpg png/hopper.png fli/hopper.fli; do
        cp "$corpus/$f" "$work/in-$(echo "$f" | tr / -)"
    done
fi
# Files of our own writers: every family, with or without the corpus.
for ext in bmp tga gif pcx tif jpg png fli cot rle cit rgb cal rs p; do
    "$cli" convert "$work/src.ppm" "$work/own-$ext.$ext" 2>/dev/null ||
        "$cli" convert "$work/src.ppm" "$work/own-$ext.$ext" --mode bilevel
done
# Four threads over every file at once, then one thread: the same bytes.
files=$(ls "$work"/in-* "$work"/own-* 2>/dev/null || true)
for type in 28 18 3 9 2 5 7 17 22; do
    "$cli" convert -j 4 $files --to "$work/out$type" --type "$type"
    "$cli" convert -j 1 $files --to "$work/one$type" --type "$type"
    diff -r "$work/out$type" "$work/one$type" >/dev/null || { echo "type $type: -j 4 differs from -j 1"; exit 1; }
    echo "type $type: $(ls "$work/out$type" | wc -l) files, as one thread writes them"
done
"$cli" convert -j 2 "$work"/own-tga.tga "$work"/own-tif.tif "$work"/own-rgb.rgb --stream --to "$work/stream" --type 9
echo "stream: $(ls "$work/stream" | wc -l) files"
echo "no ThreadSanitizer report"
