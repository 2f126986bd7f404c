#!/usr/bin/env bash
# Times whole conversions of one large image with imagelib and with
# ImageMagick, GraphicsMagick and libvips (whichever are installed), with
# hyperfine, and prints the mean times and each tool's ratio to imagelib.
# usage: bench/compare.sh [BUILD_DIR] [SIZE]      (defaults: build/release 4096)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build/release}
size=${2:-4096}
cli=$build/imagelib
[ -x "$cli" ] || { echo "build the CLI first (./run.sh formats)" >&2; exit 2; }
command -v hyperfine >/dev/null || { echo "hyperfine is needed (apt-get install hyperfine)" >&2; exit 2; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# A photo-like source: smooth gradients with noise, written by ImageMagick.
convert -size "${size}x${size}" gradient:red-blue \( -size "${size}x${size}" plasma:fractal -seed 7 \) \
  -compose blend -define compose:args=50 -composite -depth 8 "$work/src.ppm"
"$cli" convert "$work/src.ppm" "$work/src.bmp"
"$cli" convert "$work/src.ppm" "$work/src.tga"

tools=(imagelib)
command -v convert >/dev/null && tools+=(magick)
command -v gm >/dev/null && tools+=(gm)
command -v vips >/dev/null && tools+=(vips)

cmd() {  # tool in out
  case $1 in
    imagelib) echo "$cli convert $2 $3" ;;
    magick) echo "convert $2 $3" ;;
    gm) echo "gm convert $2 $3" ;;
    vips) echo "vips copy $2 $3" ;;
  esac
}

printf '| conversion (%sx%s) | %s |\n' "$size" "$size" "$(IFS='|'; echo "${tools[*]}" | sed 's/|/ | /g')"
printf '|---|%s\n' "$(for _ in "${tools[@]}"; do printf -- '---|'; done)"
for job in "ppm bmp" "ppm tga" "bmp tga" "tga bmp" "bmp ppm" "tga ppm"; do
  set -- $job
  in=$work/src.$1
  row="| $1 to $2 |"
  base=""
  for t in "${tools[@]}"; do
    out=$work/out-$t.$2
    # vips cannot write Targa or BMP through copy: mark it.
    if [ "$t" = vips ] && { [ "$2" = tga ] || [ "$2" = bmp ] || [ "$1" = tga ]; }; then row="$row n/a |"; continue; fi
    json=$work/h.json
    hyperfine -N --warmup 1 --runs 5 --export-json "$json" "$(cmd "$t" "$in" "$out")" >/dev/null 2>&1 || {
      row="$row failed |"; continue; }
    mean=$(python3 -c "import json;print(json.load(open('$json'))['results'][0]['mean']*1000)")
    if [ -z "$base" ]; then base=$mean; fi
    row="$row $(python3 -c "print(f'{$mean:.0f} ms (x{$mean/$base:.2f})')") |"
  done
  echo "$row"
done
