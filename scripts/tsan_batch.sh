#!/bin/sh
# Runs `imagelib convert -j 4` batches over files of every codec family with
# a ThreadSanitizer build of the CLI; any report fails the run.
# Usage: scripts/tsan_batch.sh BUILD_DIR   (configured with -DIMAGELIB_SANITIZE=thread)
set -eu
cli=$(cd "$1" && pwd)/imagelib
root=$(cd "$(dirname "$0")/.." && pwd)
corpus=${IMAGELIB_CORPUS:-$root/../shared/corpus}
if [ ! -d "$corpus" ]; then echo "no sample corpus at $corpus: skipped"; exit 0; fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export TSAN_OPTIONS="halt_on_error=1 exitcode=66 ${TSAN_OPTIONS:-}"
for f in bmp/hopper.bmp tga/common/200x32_rgba_tl_rle.tga gif/hopper.gif pcx/pil184.pcx tif/hopper_lzw.tif \
         tif/hopper_g4.tif jpg/hopper.jpg png/hopper.png fli/hopper.fli; do
    cp "$corpus/$f" "$work/in-$(echo "$f" | tr / -)"
done
# Files of our own writers, for the families without a sample.
for ext in cot rle cit rgb cal rs p; do
    "$cli" convert "$corpus/png/hopper.png" "$work/own-$ext.$ext" 2>/dev/null ||
        "$cli" convert "$corpus/tif/hopper_g4.tif" "$work/own-$ext.$ext"
done
# Four threads over every file at once, then one thread: the same bytes.
for type in 28 18 3 9 2 5 7 17 22; do
    "$cli" convert -j 4 "$work"/in-* "$work"/own-* --to "$work/out$type" --type "$type"
    "$cli" convert -j 1 "$work"/in-* "$work"/own-* --to "$work/one$type" --type "$type"
    diff -r "$work/out$type" "$work/one$type" >/dev/null || { echo "type $type: -j 4 differs from -j 1"; exit 1; }
    echo "type $type: $(ls "$work/out$type" | wc -l) files, as one thread writes them"
done
"$cli" convert -j 2 "$work"/in-tga* "$work"/in-tif-hopper_lzw.tif "$work"/own-rgb.rgb --stream --to "$work/stream" --type 9
echo "stream: $(ls "$work/stream" | wc -l) files"
echo "no ThreadSanitizer report"
