#!/usr/bin/env bash
# Times every whole conversion that imagelib shares with ImageMagick,
# GraphicsMagick and libvips (whichever are installed) on one large
# photo-like image: one hyperfine run a conversion, all tools of it in that
# run. Prints a Markdown table of the mean times, our time over the fastest
# peer's, and for the conversions that have one the physical or library
# floor measured in the same run: a plain `cp` of the source for conversions
# between uncompressed formats, djpeg/cjpeg (bare libjpeg-turbo) for JPEG.
#
# usage: bench/compare.sh [--docs] [BUILD_DIR] [SIZE] [RUNS]
#        (defaults: build/release 4096 5; --docs also writes the table into
#        docs/performance.md between its compare markers)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
docs=0
if [ "${1:-}" = --docs ]; then docs=1; shift; fi
build=${1:-$root/build/release}
size=${2:-4096}
runs=${3:-5}
cli=$build/imagelib
[ -x "$cli" ] || { echo "build the CLI first (./run.sh formats)" >&2; exit 2; }
command -v hyperfine >/dev/null || { echo "hyperfine is needed (apt-get install hyperfine)" >&2; exit 2; }
command -v convert >/dev/null || { echo "ImageMagick makes the sources (apt-get install imagemagick)" >&2; exit 2; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export KV_PNG_INTERLACE=0  # no interlacing for us, as for the peers

# A photo-like source: smooth gradients with noise, written by ImageMagick;
# the inputs of the decoders are ImageMagick's files of it.
convert -size "${size}x${size}" gradient:red-blue \( -size "${size}x${size}" plasma:fractal -seed 7 \) \
  -compose blend -define compose:args=50 -composite -depth 8 "$work/src.ppm"
convert "$work/src.ppm" -define png:compression-level=6 "$work/src.png"
convert "$work/src.ppm" -quality 90 "$work/src.jpg"
convert "$work/src.ppm" -compress None "$work/src.none.tif"
convert "$work/src.ppm" -compress LZW "$work/src.lzw.tif"
convert "$work/src.ppm" -type TrueColor BMP3:"$work/src.bmp"
convert "$work/src.ppm" -compress None -orient TopLeft "$work/src.tga"
convert "$work/src.ppm" -colors 256 "$work/src.gif"
convert "$work/src.ppm" -colors 256 -type Palette "$work/src.pcx"
convert "$work/src.ppm" -colors 256 SUN:"$work/src.ras"

have() { command -v "$1" >/dev/null; }

# The command of one tool for one job; empty when the tool has none.
#   job: decode EXT | encode EXT | resize | rotate | floor-cp FILE | floor-djpeg | floor-cjpeg
command_of() {
  local tool=$1 kind=$2 arg=${3:-}
  local in out
  case $kind in
    decode)
      in=$work/src.$arg out=$work/out-$tool.ppm
      case $tool in
        imagelib) echo "$cli convert $in $out" ;;
        magick) echo "convert $in $out" ;;
        gm) echo "gm convert $in $out" ;;
        # libvips' own loaders only: BMP, Targa, PCX and Sun go through ImageMagick in it.
        vips) case $arg in png|jpg|none.tif|lzw.tif|gif) echo "vips copy $in $out" ;; esac ;;
      esac ;;
    encode)
      in=$work/src.ppm out=$work/out-$tool.$arg
      case $tool:$arg in
        imagelib:png) echo "$cli convert $in $out" ;;
        magick:png) echo "convert $in $out" ;;
        gm:png) echo "gm convert $in $out" ;;
        vips:png) echo "vips copy $in $out" ;;
        imagelib:jpg) echo "$cli convert $in $out --quality 90" ;;
        magick:jpg) echo "convert $in -quality 90 $out" ;;
        gm:jpg) echo "gm convert $in -quality 90 $out" ;;
        vips:jpg) echo "vips copy $in $out[Q=90]" ;;
        imagelib:tif) echo "$cli convert $in $out --compression -5" ;;
        magick:tif) echo "convert $in -compress LZW $out" ;;
        gm:tif) echo "gm convert $in -compress LZW $out" ;;
        vips:tif) echo "vips copy $in $out[compression=lzw]" ;;
        imagelib:none.tif) echo "$cli convert $in $out --compression 0" ;;
        magick:none.tif) echo "convert $in -compress None $out" ;;
        gm:none.tif) echo "gm convert $in -compress None $out" ;;
        vips:none.tif) echo "vips copy $in $out" ;;
        imagelib:tga) echo "$cli convert $in $out" ;;
        magick:tga) echo "convert $in -compress None $out" ;;
        gm:tga) echo "gm convert $in $out" ;;
        imagelib:bmp) echo "$cli convert $in $out" ;;
        magick:bmp) echo "convert $in BMP3:$out" ;;
        gm:bmp) echo "gm convert $in BMP3:$out" ;;
        imagelib:gif) echo "$cli convert $in $out" ;;
        magick:gif) echo "convert $in -colors 256 -dither FloydSteinberg $out" ;;
        gm:gif) echo "gm convert $in -colors 256 -dither $out" ;;
        vips:gif) echo "vips copy $in $out[dither=1]" ;;
        imagelib:pcx) echo "$cli convert $in $out --mode 256" ;;
        magick:pcx) echo "convert $in -colors 256 -dither FloydSteinberg -type Palette $out" ;;
        gm:pcx) echo "gm convert $in -colors 256 -dither -type Palette $out" ;;
      esac ;;
    resize)
      in=$work/src.ppm out=$work/out-$tool-small.ppm
      case $tool in
        imagelib) echo "$cli convert $in $out --size 1000x1000" ;;
        magick) echo "convert $in -resize 1000x1000! $out" ;;
        gm) echo "gm convert $in -resize 1000x1000! $out" ;;
        vips) echo "vips resize $in $out $(python3 -c "print(1000 / $size)")" ;;
      esac ;;
    rotate)
      # 30 degrees counter-clockwise into the bounding box, bilinear, black background;
      # ImageMagick turns clockwise.
      in=$work/src.ppm out=$work/out-$tool-turned.ppm
      case $tool in
        imagelib) echo "$cli convert $in $out --rotate 30" ;;
        magick) echo "convert $in -background black -rotate -30 $out" ;;
        gm) echo "gm convert $in -background black -rotate -30 $out" ;;
        vips) echo "vips rotate $in $out 30" ;;
      esac ;;
  esac
}

tools=(imagelib)
have convert && tools+=(magick)
have gm && tools+=(gm)
have vips && tools+=(vips)

# One row: hyperfine over every tool's command (and the floor), in one run.
#   row LABEL KIND ARG FLOOR_LABEL FLOOR_COMMAND
rows=()
row() {
  local label=$1 kind=$2 arg=$3 floor_label=${4:-} floor_cmd=${5:-}
  local names=() cmds=() t c
  for t in "${tools[@]}"; do
    c=$(command_of "$t" "$kind" "$arg")
    [ -n "$c" ] && names+=("$t") && cmds+=("$c")
  done
  [ -n "$floor_cmd" ] && names+=("$floor_label") && cmds+=("$floor_cmd")
  local args=() i
  for i in "${!cmds[@]}"; do args+=(-n "${names[$i]}" "${cmds[$i]}"); done
  local json=$work/h.json
  if ! hyperfine -N --warmup 1 --runs "$runs" --export-json "$json" "${args[@]}" >/dev/null 2>&1; then
    rows+=("| $label | failed |")
    return
  fi
  rows+=("$(python3 - "$json" "$label" "$floor_label" "${tools[@]}" <<'EOF'
import json, sys
path, label, floor = sys.argv[1], sys.argv[2], sys.argv[3]
tools = sys.argv[4:]
means = {r["command"]: r["mean"] * 1000 for r in json.load(open(path))["results"]}
cells = [f"{means[t]:.0f}" if t in means else "n/a" for t in tools]
peers = {t: m for t, m in means.items() if t in tools and t != "imagelib"}
best = min(peers, key=peers.get) if peers else None
ratio = f"{means['imagelib'] / peers[best]:.2f} ({best})" if best else "n/a"
floor_cell = f"{floor} {means[floor]:.0f}: x{means['imagelib'] / means[floor]:.2f}" if floor in means else ""
print(f"| {label} | " + " | ".join(cells) + f" | {ratio} | {floor_cell} |")
EOF
)")
}

cp_floor() { echo "cp $work/src.$1 $work/copy.$1"; }

row "PNG to PPM" decode png
row "JPEG to PPM" decode jpg djpeg "djpeg -outfile $work/out-djpeg.ppm $work/src.jpg"
row "TIFF (none) to PPM" decode none.tif cp "$(cp_floor none.tif)"
row "TIFF (LZW) to PPM" decode lzw.tif
row "BMP to PPM" decode bmp cp "$(cp_floor bmp)"
row "Targa to PPM" decode tga cp "$(cp_floor tga)"
row "GIF to PPM" decode gif
row "PCX to PPM" decode pcx
row "Sun raster to PPM" decode ras
row "PPM to PNG" encode png
row "PPM to JPEG q90" encode jpg cjpeg "cjpeg -quality 90 -outfile $work/out-cjpeg.jpg $work/src.ppm"
row "PPM to TIFF LZW" encode tif
row "PPM to TIFF (none)" encode none.tif cp "$(cp_floor ppm)"
row "PPM to BMP" encode bmp cp "$(cp_floor ppm)"
row "PPM to Targa" encode tga cp "$(cp_floor ppm)"
row "PPM to GIF 256 dithered" encode gif
row "PPM to PCX 256" encode pcx
row "resize to 1000x1000" resize ""
row "rotate by 30 degrees" rotate ""

header="| conversion (${size}x${size}, ms) | $(IFS='|'; echo "${tools[*]}" | sed 's/|/ | /g') | ours / fastest peer | floor |"
rule="|---|$(for _ in "${tools[@]}"; do printf -- '---|'; done)---|---|"
table=$(printf '%s\n%s\n' "$header" "$rule"; printf '%s\n' "${rows[@]}")
echo "$table"
if [ $docs = 1 ]; then
  stamp="$(date -u +%Y-%m-%d), $(nproc) cores, load $(cut -d' ' -f1 /proc/loadavg), $runs runs, \`bench/compare.sh --docs ${build#$root/} $size $runs\`"
  python3 - "$root/docs/performance.md" "$stamp" <<EOF
import sys
path, stamp = sys.argv[1], sys.argv[2]
text = open(path).read()
begin, end = "<!-- compare:begin -->", "<!-- compare:end -->"
block = begin + "\n" + stamp + ":\n\n" + """$table""" + "\n" + end
if begin in text:
    a, b = text.index(begin), text.index(end) + len(end)
    text = text[:a] + block + text[b:]
else:
    text = text.rstrip("\n") + "\n\n## Whole conversions against the peers\n\n" + block + "\n"
open(path, "w").write(text)
EOF
fi
