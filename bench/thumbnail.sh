#!/usr/bin/env bash
# Times a 256-pixel thumbnail of one large baseline JPEG with imagelib,
# vipsthumbnail and ImageMagick (plain, and with its decoder size hint),
# with hyperfine in one run, and measures each one's peak memory.
# usage: bench/thumbnail.sh [BUILD_DIR] [WxH]      (defaults: build/release 6000x4000)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build/release}
size=${2:-6000x4000}
cli=$build/imagelib
[ -x "$cli" ] || { echo "build the CLI first (./run.sh formats)" >&2; exit 2; }
command -v hyperfine >/dev/null || { echo "hyperfine is needed (apt-get install hyperfine)" >&2; exit 2; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# A photo-like source: a gradient blended with plasma, baseline JPEG.
convert -size "$size" gradient:red-blue \( -size "$size" plasma:fractal -seed 7 \) \
  -compose blend -define compose:args=50 -composite -interlace none -quality 90 "$work/src.jpg"

names=(imagelib)
cmds=("$cli convert $work/src.jpg $work/o-imagelib.png --thumbnail 256x256")
if command -v vipsthumbnail >/dev/null; then
  names+=(vipsthumbnail)
  cmds+=("vipsthumbnail $work/src.jpg -s 256x256 -o $work/o-vips.png")
fi
if command -v convert >/dev/null; then
  names+=("ImageMagick -thumbnail" "ImageMagick -define jpeg:size")
  cmds+=("convert $work/src.jpg -thumbnail 256x256 $work/o-magick.png"
         "convert -define jpeg:size=512x512 $work/src.jpg -thumbnail 256x256 $work/o-magick-hint.png")
fi

printf '| 256-pixel thumbnail of a %s JPEG | mean time | ratio to imagelib | peak memory |\n|---|---|---|---|\n' "$size"
base=""
for i in "${!cmds[@]}"; do
  json=$work/h.json
  hyperfine -N --warmup 2 --runs 10 --export-json "$json" "${cmds[$i]}" >/dev/null 2>&1 || {
    echo "| ${names[$i]} | failed | | |"; continue; }
  mean=$(python3 -c "import json;print(json.load(open('$json'))['results'][0]['mean']*1000)")
  [ -z "$base" ] && base=$mean
  /usr/bin/time -f '%M' -o "$work/mem" ${cmds[$i]} >/dev/null 2>&1
  kb=$(tail -1 "$work/mem")
  python3 -c "print(f'| ${names[$i]} | {$mean:.0f} ms | x{$mean/$base:.2f} | {$kb/1024:.1f} MiB |')"
done
