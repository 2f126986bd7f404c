// One interop harness for every codec, pixel for pixel through the CLI:
//  - kPeerFiles: a file written by another program must decode with
//    `imagelib convert FILE out.pam` to the pixels that a reference decoder
//    (by default ImageMagick) gives for it;
//  - kOurFiles: a file written by `imagelib convert SOURCE FILE [options]`
//    must decode in another program to the pixels our own reader gives;
//  - kSampleFiles: a file of the sample corpus (../shared/corpus) must
//    decode as a reference decoder decodes it; kRefusedSamples must fail
//    with their status.
// A row is skipped when its program is absent. Adding a codec's cases is
// adding rows.
//
// Commands are shell text with these names replaced:
//   {out}    the file of the row (its name is the row's name, so its
//            extension tells our CLI the type);
//   {photo}  a 61 x 43 PPM with smooth ramps and sharp edges (odd width:
//            every row needs padding in most formats);
//   {few}    the same size in six colours (palette writers keep it exact);
//   {grey}   a PGM of the photo's green channel;
//   {bw}     a PBM of the same size, an irregular pattern;
//   {alpha}  a PAM of the photo with an alpha ramp and fully transparent
//            pixels;
//   {pal}    the six colours as a 256-colour BMP of our own writer (the
//            source of palette writers).
// Sample rows name their file relative to the corpus; {out} is that file.
// Rows of lossless writers also check that our decoding is the source.
// A decode command prints PBM, PGM, PPM or PAM (any depth, maxval 255 or
// 1 for PBM) on its standard output. Colour is compared always, alpha when
// both sides carry it.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

// ImageMagick's decoding of the first image of a file.
constexpr const char* kMagick = "convert {out}[0] -depth 8 pam:-";
// ImageMagick keeps Targa rows in stored order tagged with the file's
// origin; turned upright here. Its writer stores the rows as it holds them
// labelled bottom-left unless told otherwise: such a file holds the picture
// upside down, and so do our decodings of it.
constexpr const char* kMagickUpright = "convert {out} -auto-orient -depth 8 pam:-";

struct PeerFile {
    const char* name;    // file name; its extension is the type
    const char* tool;    // program that must be present
    const char* make;    // command that writes {out}
    const char* decode;  // reference decoding of {out}; null: ImageMagick's
    int tolerance;       // largest difference allowed in a sample (0: exact)
};

struct OurFile {
    const char* name;    // file name; its extension chooses our writer
    const char* source;  // photo, few, grey, bw, alpha or pal
    const char* options; // further options of imagelib convert
    const char* tool;    // program that must be present
    const char* decode;  // the other program's decoding of {out}; null: ImageMagick's
    int tolerance;
    bool lossless;       // our decoding must also equal the source picture
};

struct SampleFile {
    const char* path;    // relative to the corpus
    const char* tool;    // program that must be present
    const char* decode;  // reference decoding of {out}; null: ImageMagick's
};

struct RefusedSample {
    const char* path;
    int status;          // what `imagelib convert` reports
};

const PeerFile kPeerFiles[] = {
    // CALS from ImageMagick and GDAL (whose writer takes 1-bit sources
    // only, hence the detour); a Group 4 code stream (fax) taken out
    // of ImageMagick's Group 4 TIFF strip (its raw "g4:" writer puts out
    // streams that it cannot read back itself).
    {"im_bw.cal", "convert", "convert {bw} CALS:{out}", nullptr, 0},
    {"gdal_bw.cal", "gdal_translate", "convert {bw} CALS:{out}.im.cal && gdal_translate -q -of CALS {out}.im.cal {out}", nullptr, 0},
    {"im_g4.fax", "convert",
     "convert {bw} -background white -extent 1728x84 -compress Group4 TIFF:{out}.tif && /usr/bin/python3 -c \""
     "import struct,sys;d=open(sys.argv[1],'rb').read();o=struct.unpack('<I',d[4:8])[0];"
     "n=struct.unpack('<H',d[o:o+2])[0];e=[struct.unpack('<HHII',d[o+2+12*i:o+14+12*i]) for i in range(n)];"
     "t={x[0]:x[3] for x in e};open(sys.argv[2],'wb').write(d[t[273]:t[273]+t[279]])\" {out}.tif {out}",
     "convert -size 1728x84 g4:{out} -depth 8 pam:-", 0},
    {"im_rgb24.bmp", "convert", "convert {photo} -type TrueColor BMP3:{out}", nullptr, 0},
    {"im_8bit.bmp", "convert", "convert {few} -type Palette -compress None BMP3:{out}", nullptr, 0},
    {"netpbm_8bit.bmp", "ppmtobmp", "ppmtobmp -bpp 8 {few} > {out}", "bmptopnm {out}", 0},
    {"netpbm_rgb24.bmp", "ppmtobmp", "ppmtobmp -bpp 24 {photo} > {out}", "bmptopnm {out}", 0},
    {"netpbm_4bit.bmp", "ppmtobmp", "ppmtobmp -bpp 4 {few} > {out}", "bmptopnm {out}", 0},
    {"netpbm_os2_4bit.bmp", "ppmtobmp", "ppmtobmp -os2 -bpp 4 {few} > {out}", "bmptopnm {out}", 0},
    {"netpbm_1bit.bmp", "ppmtobmp", "ppmtobmp {bw} > {out}", "bmptopnm {out}", 0},
    // ImageMagick writes no RLE4; its RLE8 runs cover the padded row, cut
    // at the width here as ImageMagick does (bmptopnm refuses them).
    {"im_rle8.bmp", "convert", "convert {photo} -colors 200 -type Palette -compress RLE BMP3:{out}", nullptr, 0},
    {"im_4bit.bmp", "convert", "convert {photo} -colors 12 -type Palette -compress None BMP3:{out}", nullptr, 0},
    {"im_1bit.bmp", "convert", "convert {photo} -monochrome BMP3:{out}", nullptr, 0},
    // ImageMagick's default BMP (version 5 header), its 16-bit forms and
    // 32 bits with alpha (bit fields).
    {"im_default.bmp", "convert", "convert {photo} {out}", nullptr, 0},
    {"im_rgb565.bmp", "convert", "convert {photo} -define bmp:subtype=RGB565 {out}", nullptr, 0},
    {"im_rgb555.bmp", "convert", "convert {photo} -define bmp:subtype=RGB555 {out}", nullptr, 0},
    {"im_alpha32.bmp", "convert", "convert {photo} -alpha set -channel A -fx 'i/w' +channel {out}", nullptr, 0},
    // Targa: both origins, run-length packets or none, true colour with and
    // without alpha, colour maps, grey.
    {"im_rgb.tga", "convert", "convert {photo} -compress None {out}", kMagickUpright, 0},
    {"im_rgb_rle_top.tga", "convert", "convert {photo} -orient TopLeft -compress RLE {out}", kMagickUpright, 0},
    {"im_alpha_rle.tga", "convert", "convert {alpha} -compress RLE {out}", kMagickUpright, 0},
    {"im_alpha_top.tga", "convert", "convert {alpha} -orient TopLeft -compress None {out}", kMagickUpright, 0},
    {"im_map.tga", "convert", "convert {few} -type Palette -compress None {out}", kMagickUpright, 0},
    {"im_map_rle_top.tga", "convert", "convert {few} -type Palette -orient TopLeft -compress RLE {out}",
     kMagickUpright, 0},
    {"im_grey.tga", "convert", "convert {grey} -type Grayscale -compress None {out}", kMagickUpright, 0},
    {"im_grey_rle_top.tga", "convert", "convert {grey} -type Grayscale -orient TopLeft -compress RLE {out}",
     kMagickUpright, 0},
    {"netpbm_rgb.tga", "ppmtotga", "ppmtotga -rgb {photo} > {out}", "tgatoppm {out}", 0},
    {"netpbm_map.tga", "ppmtotga", "ppmtotga -cmap -norle {few} > {out}", "tgatoppm {out}", 0},
    {"netpbm_grey.tga", "ppmtotga", "ppmtotga -mono {grey} > {out}", "tgatoppm {out}", 0},
    // PCX: 8 bits with the palette behind the pixels, 24 bits in three
    // planes, netpbm's planar and packed forms.
    {"im_8bit.pcx", "convert", "convert {photo} -colors 200 PCX:{out}", nullptr, 0},
    {"im_rgb24.pcx", "convert", "convert {photo} -type TrueColor PCX:{out}", nullptr, 0},
    {"gm_8bit.pcx", "gm", "gm convert {photo} -colors 200 PCX:{out}", "gm convert {out} ppm:-", 0},
    {"gm_rgb24.pcx", "gm", "gm convert {photo} PCX:{out}", "gm convert {out} ppm:-", 0},
    {"netpbm_4planes.pcx", "ppmtopcx", "ppmtopcx -planes 4 {few} > {out}", "pcxtoppm {out}", 0},
    {"netpbm_3planes.pcx", "ppmtopcx", "pnmquant 8 {photo} | ppmtopcx -planes 3 > {out}", "pcxtoppm {out}", 0},
    {"netpbm_2planes.pcx", "ppmtopcx", "pnmquant 4 {photo} | ppmtopcx -planes 2 > {out}", "pcxtoppm {out}", 0},
    {"netpbm_packed4.pcx", "ppmtopcx", "ppmtopcx -packed {few} > {out}", "pcxtoppm {out}", 0},
    {"netpbm_8bit.pcx", "ppmtopcx", "ppmtopcx -8bit {few} > {out}", "pcxtoppm {out}", 0},
    {"netpbm_rgb24.pcx", "ppmtopcx", "ppmtopcx -24bit {photo} > {out}", "pcxtoppm {out}", 0},
    // One plane of 1 bit, palette black, white: the bitmap reader takes the
    // bits as stored; the CLI rebuilds the bitmap through the palette and
    // shows netpbm's pixels (ImageMagick 6.9 ignores the palette of these
    // files).
    {"netpbm_1bit.pcx", "ppmtopcx", "ppmtopcx {bw} > {out}", "pcxtoppm {out}", 0},
    // Sun raster, uncompressed and byte-encoded. ImageMagick 6.9 loses the
    // tail of the last row of netpbm's byte-encoded files, so those are
    // checked against rasttopnm (GraphicsMagick agrees with it).
    {"im_8bit.ras", "convert", "convert {photo} -colors 200 SUN:{out}", nullptr, 0},
    {"im_rle.ras", "convert", "convert {photo} -colors 200 -compress RLE SUN:{out}", nullptr, 0},
    {"gm_8bit.ras", "gm", "gm convert {photo} -colors 200 SUN:{out}", "gm convert {out} ppm:-", 0},
    {"netpbm_rle.ras", "pnmtorast", "pnmtorast -rle {few} > {out}", "rasttopnm {out}", 0},
    {"netpbm_std.ras", "pnmtorast", "pnmtorast -standard {few} > {out}", "rasttopnm {out}", 0},
    {"netpbm_grey_rle.ras", "pnmtorast", "pnmtorast -rle {grey} > {out}", "rasttopnm {out}", 0},
    // 1 bit without colour map reads index 0 black, 1 white: the inverse of
    // the Sun convention that netpbm (and ImageMagick) follow.
    {"netpbm_1bit.ras", "pnmtorast", "pnmtorast {bw} > {out}", "rasttopnm {out} | pnminvert", 0},
    {"netpbm_1bit_rle.ras", "pnmtorast", "pnmtorast -rle {bw} > {out}", "rasttopnm {out} | pnminvert", 0},
    // GIF: every table size from 2 to 256 entries, GIF87a, interlaced,
    // transparent; code streams that fill the table with clear codes and,
    // from pamtogif -noclear, without them (coding goes on at 12 bits).
    {"im_2.gif", "convert", "convert {photo} -colors 2 {out}", nullptr, 0},
    {"im_4.gif", "convert", "convert {photo} -colors 4 {out}", nullptr, 0},
    {"im_8.gif", "convert", "convert {photo} -colors 8 {out}", nullptr, 0},
    {"im_16.gif", "convert", "convert {photo} -colors 16 {out}", nullptr, 0},
    {"im_32.gif", "convert", "convert {photo} -colors 32 {out}", nullptr, 0},
    {"im_64.gif", "convert", "convert {photo} -colors 64 {out}", nullptr, 0},
    {"im_128.gif", "convert", "convert {photo} -colors 128 {out}", nullptr, 0},
    {"im_256.gif", "convert", "convert {photo} -colors 256 {out}", nullptr, 0},
    {"im_87a.gif", "convert", "convert {photo} -colors 200 GIF87:{out}", nullptr, 0},
    {"im_interlaced.gif", "convert", "convert {photo} -colors 100 -interlace GIF {out}", nullptr, 0},
    {"im_transparent.gif", "convert", "convert {photo} -colors 60 -fuzz 20% -transparent black {out}", nullptr, 0},
    {"im_full_table.gif", "convert", "convert -seed 1 -size 160x120 xc: +noise Random -colors 256 {out}", nullptr, 0},
    {"gm_16.gif", "gm", "gm convert {photo} -colors 16 {out}", "gm convert {out}[0] ppm:-", 0},
    {"gm_87a.gif", "gm", "gm convert {photo} -colors 100 GIF87:{out}", "gm convert {out}[0] ppm:-", 0},
    {"gm_interlaced.gif", "gm", "gm convert {photo} -interlace Line {out}", "gm convert {out}[0] ppm:-", 0},
    {"netpbm.gif", "pamtogif", "pamtogif {few} > {out}", "giftopnm {out}", 0},
    {"netpbm_2.gif", "pamtogif", "pamtogif {bw} > {out}", "giftopnm {out}", 0},
    {"netpbm_interlaced.gif", "pamtogif", "pamtogif -interlace {few} > {out}", "giftopnm {out}", 0},
    {"netpbm_transparent.gif", "pamtogif", "pamtogif -transparent black {few} > {out}", "giftopnm {out}", 0},
    {"netpbm_uncompressed.gif", "pamtogif", "pamtogif -nolzw {grey} > {out}", "giftopnm {out}", 0},
    {"netpbm_full_table.gif", "pamtogif", "pgmnoise -randomseed=1 160 120 | pamtogif > {out}", "giftopnm {out}", 0},
    {"netpbm_no_clear.gif", "pamtogif", "pgmnoise -randomseed=1 160 120 | pamtogif -noclear > {out}",
     "giftopnm {out}", 0},
    {"ppmtogif.gif", "ppmtogif", "ppmtogif {few} > {out}", "giftopnm {out}", 0},
    // JPEG codings from cjpeg decode exactly as djpeg decodes them.
    {"cjpeg_baseline.jpg", "cjpeg", "cjpeg {photo} > {out}", "djpeg -pnm {out}", 0},
    {"cjpeg_progressive.jpg", "cjpeg", "cjpeg -progressive -sample 1x1 {photo} > {out}", "djpeg -pnm {out}", 0},
    {"cjpeg_arithmetic.jpg", "cjpeg", "cjpeg -arithmetic -sample 2x1 {photo} > {out}", "djpeg -pnm {out}", 0},
    {"cjpeg_restart.jpg", "cjpeg", "cjpeg -restart 1 -optimize {photo} > {out}", "djpeg -pnm {out}", 0},
    {"cjpeg_grey.jpg", "cjpeg", "cjpeg -grayscale {photo} > {out}", "djpeg -pnm {out}", 0},
    {"cjpeg_restart_blocks.jpg", "cjpeg", "cjpeg -restart 3B {photo} > {out}", "djpeg -pnm {out}", 0},
    {"cjpeg_1x2.jpg", "cjpeg", "cjpeg -sample 1x2 {photo} > {out}", "djpeg -pnm {out}", 0},
    {"cjpeg_2x2_q100.jpg", "cjpeg", "cjpeg -sample 2x2 -quality 100 {photo} > {out}", "djpeg -pnm {out}", 0},
    {"cjpeg_progressive_grey.jpg", "cjpeg", "cjpeg -progressive -grayscale {photo} > {out}", "djpeg -pnm {out}", 0},
    {"cjpeg_arith_progressive.jpg", "cjpeg", "cjpeg -arithmetic -progressive -sample 1x1 {photo} > {out}",
     "djpeg -pnm {out}", 0},
    // PNG colour, palette and alpha files (grey files read through the
    // library's grey scale, which ImageMagick does not use).
    {"im_rgb.png", "convert", "convert {photo} -define png:color-type=2 {out}", nullptr, 0},
    {"im_rgb_adam7.png", "convert", "convert {photo} -interlace PNG -define png:color-type=2 {out}", nullptr, 0},
    {"im_palette.png", "convert", "convert {few} -define png:color-type=3 {out}", nullptr, 0},
    {"im_rgba.png", "convert", "convert {photo} -alpha set -channel A -fx 'i/w' +channel -define png:color-type=6 {out}",
     nullptr, 0},
    // TIFF through libtiff: strips and tiles, the common compressions, both
    // byte orders, separate planes, 16 bits, grey and palettes.
    {"im_none.tif", "convert", "convert {photo} -compress None {out}", nullptr, 0},
    {"im_lzw.tif", "convert", "convert {photo} -compress LZW {out}", nullptr, 0},
    {"im_zip.tif", "convert", "convert {photo} -compress Zip {out}", nullptr, 0},
    {"im_16.tif", "convert", "convert {photo} -depth 16 {out}", nullptr, 0},
    {"im_rgb16_tiles.tif", "convert", "convert {photo} -depth 16 -define tiff:tile-geometry=16x16 {out}", nullptr, 0},
    {"im_grey16.tif", "convert", "convert {grey} -depth 16 -define quantum:polarity=min-is-white {out}", nullptr, 0},
    {"im_grey16_tiles.tif", "convert",
     "convert {grey} -depth 16 -define tiff:tile-geometry=16x16 {out}", nullptr, 0},
    {"im_lzw_pred.tif", "convert", "convert {photo} -compress LZW -define tiff:predictor=2 {out}", nullptr, 0},
    {"im_zip_tiles.tif", "convert", "convert {photo} -compress Zip -define tiff:tile-geometry=16x16 {out}", nullptr, 0},
    {"im_packbits_msb.tif", "convert", "convert {photo} -compress RLE -endian MSB {out}", nullptr, 0},
    {"im_planes16.tif", "convert", "convert {photo} -depth 16 -interlace Plane {out}", nullptr, 0},
    {"im_grey.tif", "convert", "convert {grey} {out}", nullptr, 0},
    {"im_pal8.tif", "convert", "convert {few} -type Palette -depth 8 {out}", nullptr, 0},
    {"im_pal4.tif", "convert", "convert {few} -type Palette -depth 4 {out}", nullptr, 0},
    {"tiffcp_lzw_tiles.tif", "tiffcp",
     "convert {photo} -compress None {out}.src.tif && tiffcp -c lzw:2 -t -w 16 -l 16 {out}.src.tif {out}", nullptr, 0},
    {"tiffcp_separate_packbits.tif", "tiffcp",
     "convert {photo} -compress None {out}.src.tif && tiffcp -p separate -c packbits {out}.src.tif {out}", nullptr, 0},
    {"tiffcp_big_endian.tif", "tiffcp",
     "convert {photo} -compress None {out}.src.tif && tiffcp -B -c lzw {out}.src.tif {out}", nullptr, 0},
    {"tiffcp_strips.tif", "tiffcp",
     "convert {photo} -compress None {out}.src.tif && tiffcp -L -r 5 {out}.src.tif {out}", nullptr, 0},
    {"tiffcp_g4.tif", "tiffcp", "convert {bw} -compress None {out}.src.tif && tiffcp -c g4 {out}.src.tif {out}",
     nullptr, 0},
    {"tiffcp_g3_2d.tif", "tiffcp", "convert {bw} -compress None {out}.src.tif && tiffcp -c g3:2d {out}.src.tif {out}",
     nullptr, 0},
    {"tiffcp_g4_tiles.tif", "tiffcp",
     "convert {bw} -compress None {out}.src.tif && tiffcp -t -w 16 -l 16 -c g4 {out}.src.tif {out}", nullptr, 0},
    {"gdal_deflate_bands.tif", "gdal_translate",
     "gdal_translate -q -co INTERLEAVE=BAND -co COMPRESS=DEFLATE {photo} {out}", nullptr, 0},
    // Bilevel TIFF in both polarities.
    {"im_g4.tif", "convert", "convert {bw} -compress Group4 {out}", nullptr, 0},
    {"im_minblack.tif", "convert", "convert {bw} -define quantum:polarity=min-is-black {out}", nullptr, 0},
    {"im_bilevel.tif", "convert", "convert {bw} -depth 1 -compress None {out}", nullptr, 0},
    {"im_g3.tif", "convert", "convert {bw} -compress Fax {out}", nullptr, 0},
    // Alpha through libtiff's RGBA interface: colour premultiplied, as
    // ImageMagick composes it over black (rounded its own way).
    {"im_rgba.tif", "convert", "convert {alpha} -compress LZW {out}",
     "convert {out} -background black -alpha remove -depth 8 ppm:-", 1},
};

const OurFile kOurFiles[] = {
    // CALS read by ImageMagick and GDAL; its code stream alone by
    // ImageMagick's raw Group 4 reader.
    {"ours_bw.cal", "bw", "", "convert", nullptr, 0, true},
    {"ours_bw_gdal.cal", "bw", "", "gdal_translate",
     "gdal_translate -q -expand rgb -of PNM {out} {out}.ppm && cat {out}.ppm", 0, true},
    {"ours_stream.cal", "bw", "", "convert", "tail -c +2049 {out} > {out}.g4 && convert -size 61x43 g4:{out}.g4 -depth 8 pam:-",
     0, true},
    {"ours_rgb.bmp", "photo", "", "convert", nullptr, 0, true},
    {"ours_bw.bmp", "bw", "", "bmptopnm", "bmptopnm {out}", 0, true},
    {"ours_256.bmp", "photo", "--mode 256", "bmptopnm", "bmptopnm {out}", 0, false},
    {"ours_16.bmp", "few", "--mode 16", "convert", nullptr, 0, false},
    {"ours_grey.bmp", "grey", "--mode grey", "convert", nullptr, 0, true},
    {"ours_map.bmp", "pal", "", "bmptopnm", "bmptopnm {out}", 0, false},
    // Targa: true colour, with alpha, read upright by ImageMagick.
    {"ours_rgb.tga", "photo", "", "convert", kMagickUpright, 0, true},
    {"ours_rgb_netpbm.tga", "photo", "", "tgatoppm", "tgatoppm {out}", 0, true},
    {"ours_alpha.tga", "alpha", "", "convert", kMagickUpright, 0, true},
    // From RGB through an optimised palette: colours move to the optimiser's cell centres.
    {"ours_256.pcx", "few", "", "pcxtoppm", "pcxtoppm {out}", 0, false},
    {"ours_16.pcx", "few", "--mode 16", "pcxtoppm", "pcxtoppm {out}", 0, false},
    {"ours_photo16.pcx", "photo", "--mode 16", "convert", nullptr, 0, false},
    {"ours_photo256.pcx", "photo", "", "gm", "gm convert {out} ppm:-", 0, false},
    {"ours_grey.pcx", "grey", "--mode grey", "convert", nullptr, 0, true},
    {"ours_256.ras", "few", "", "rasttopnm", "rasttopnm {out}", 0, false},
    {"ours_photo.ras", "photo", "", "convert", nullptr, 0, false},
    {"ours_grey.ras", "grey", "--mode grey", "rasttopnm", "rasttopnm {out}", 0, true},
    // "a" planes as raw grey images, combined by ImageMagick.
    {"ours_planes.a", "photo", "", "convert",
     "f={out}; convert -size 61x43 -depth 8 gray:${f%.a}.r gray:${f%.a}.g gray:${f%.a}.b -combine pam:-", 0, true},
    {"ours_few.flc", "few", "", "ffmpeg", "ffmpeg -v error -i {out} -frames:v 1 -f image2pipe -vcodec ppm -", 0, true},
    {"ours_photo.flc", "photo", "", "ffmpeg", "ffmpeg -v error -i {out} -frames:v 1 -f image2pipe -vcodec ppm -", 0,
     false},
    // GIF from RGB (GIF87a, 256 colours dithered, or grey levels) and from
    // palette images (GIF89a, index 0 transparent: compared by colour).
    {"ours_256.gif", "photo", "", "convert", nullptr, 0, false},
    {"ours_256_netpbm.gif", "photo", "", "giftopnm", "giftopnm {out}", 0, false},
    {"ours_grey_levels.gif", "photo", "--mode grey", "giftopnm", "giftopnm {out}", 0, false},
    {"ours_grey.gif", "grey", "", "convert", nullptr, 0, true},
    {"ours_bw.gif", "bw", "", "giftopnm", "giftopnm {out}", 0, true},
    {"ours_map.gif", "pal", "", "gm", "gm convert {out}[0] ppm:-", 0, false},
    {"ours.png", "photo", "", "pngcheck", nullptr, 0, true},
    {"ours_few.png", "few", "--mode 256", "convert", nullptr, 0, false},  // optimised palette
    {"ours_bw.png", "bw", "", "convert", nullptr, 0, true},
    {"ours.jpg", "photo", "--quality 90", "djpeg", "djpeg -pnm {out}", 0, false},
    {"ours_grey.jpg", "grey", "", "djpeg", "djpeg -pnm {out}", 0, false},
    {"ours_rgb.tif", "photo", "", "convert", "tiffinfo -D {out} >/dev/null && convert {out} -depth 8 pam:-", 0, true},
    {"ours_packbits.tif", "photo", "--compression 32773", "convert", nullptr, 0, true},
    {"ours_16.tif", "few", "--mode 16", "tiffinfo", "tiffinfo -D {out} >/dev/null && convert {out} -depth 8 pam:-", 1,
     false},
    {"ours_geo.tif", "photo", "--type 29", "convert", nullptr, 0, true},
    {"ours_lzw.tif", "photo", "--compression -5", "convert", nullptr, 0, true},
    {"ours_deflate.tif", "photo", "--compression 32946", "convert", nullptr, 0, true},
    // Palette TIFF files hold value x 256 in their ColorMap: other readers
    // see 255 as 254.
    {"ours_few.tif", "few", "--mode 256", "convert", nullptr, 1, false},
    {"ours_grey.tif", "grey", "--mode grey", "convert", nullptr, 1, true},
    // Group 4, min-is-white.
    {"ours_bw.tif", "bw", "", "convert", nullptr, 0, false},
};

// The Targa samples' PNG references, beside them.
#define TGA_REFERENCE(name) \
    {"tga/common/" name "_bl_rle.tga", "convert", "f={out}; convert \"${f%_bl_rle.tga}.png\" -depth 8 pam:-"}

const SampleFile kSampleFiles[] = {
    // BMP suite: every depth, RLE, OS/2 and version 4/5 headers, bit
    // fields; two-colour files keep their own colours through the CLI.
    {"bmp/g/pal1.bmp", "convert", nullptr},         {"bmp/g/pal1wb.bmp", "convert", nullptr},
    {"bmp/g/pal1bg.bmp", "convert", nullptr},       {"bmp/g/pal4.bmp", "convert", nullptr},
    {"bmp/g/pal4rle.bmp", "convert", nullptr},      {"bmp/g/pal8.bmp", "convert", nullptr},
    {"bmp/g/pal8rle.bmp", "convert", nullptr},      {"bmp/g/pal8-0.bmp", "convert", nullptr},
    {"bmp/g/pal8os2.bmp", "convert", nullptr},      {"bmp/g/pal8topdown.bmp", "convert", nullptr},
    {"bmp/g/pal8w124.bmp", "convert", nullptr},     {"bmp/g/pal8w125.bmp", "convert", nullptr},
    {"bmp/g/pal8w126.bmp", "convert", nullptr},     {"bmp/g/pal8nonsquare.bmp", "convert", nullptr},
    {"bmp/g/rgb24.bmp", "convert", nullptr},        {"bmp/g/rgb24pal.bmp", "convert", nullptr},
    {"bmp/g/pal8v4.bmp", "convert", nullptr},       {"bmp/g/pal8v5.bmp", "convert", nullptr},
    {"bmp/g/rgb16.bmp", "convert", nullptr},        {"bmp/g/rgb16-565.bmp", "convert", nullptr},
    {"bmp/g/rgb16-565pal.bmp", "convert", nullptr}, {"bmp/g/rgb32.bmp", "convert", nullptr},
    {"bmp/g/rgb32bf.bmp", "convert", nullptr},
    TGA_REFERENCE("200x32_rgb"), TGA_REFERENCE("200x32_rgba"), TGA_REFERENCE("200x32_p"),
    TGA_REFERENCE("200x32_l"),   TGA_REFERENCE("200x32_la"),   TGA_REFERENCE("1x1_l"),
    // GIF animations (chi, iss634: a local table, no global one) read their
    // first image; a comment after the only image is not read.
    {"gif/chi.gif", "convert", nullptr},   {"gif/comment_after_only_frame.gif", "convert", nullptr},
    {"gif/hopper.gif", "convert", nullptr}, {"gif/iss634.gif", "convert", nullptr},
    // One plane of 1 bit, palette black, white: read through the palette as
    // pcxtoppm does (ImageMagick 6.9 ignores it).
    {"pcx/odd_stride.pcx", "convert", nullptr}, {"pcx/p_4_planes.pcx", "convert", nullptr},
    {"pcx/pil184.pcx", "pcxtoppm", "pcxtoppm {out}"},
    {"jpg/flower.jpg", "djpeg", "djpeg -pnm {out}"}, {"jpg/hopper.jpg", "djpeg", "djpeg -pnm {out}"},
    {"jpg/hopper_gray.jpg", "djpeg", "djpeg -pnm {out}"},
    {"tif/8bit.s.tif", "convert", nullptr},        {"tif/compression.tif", "convert", nullptr},
    {"tif/copyleft.tiff", "convert", nullptr},     {"tif/g4-fillorder-test.tif", "convert", nullptr},
    {"tif/hopper.tif", "convert", nullptr},        {"tif/hopper_g4.tif", "convert", nullptr},
    {"tif/hopper_gray_4bpp.tif", "convert", nullptr}, {"tif/hopper_lzw.tif", "convert", nullptr},
    {"tif/g4_orientation_1.tif", "convert", nullptr}, {"tif/g4_orientation_4.tif", "convert", nullptr},
};

const RefusedSample kRefusedSamples[] = {
    {"pcx/01r_00.pcx", -154},            // lines of 12 bytes for 88 pixels of 8 bits
    {"ras/hopper.ras", -119},            // 24-bit Sun rasters are not read
    {"jpg/pil_sample_cmyk.jpg", -154},   // CMYK JPEG
};

// --- pictures ---------------------------------------------------------------

struct Picture {
    int width = 0, height = 0;
    bool alpha = false;
    std::vector<uint8_t> rgba;  // four samples a pixel; alpha 255 when absent
    std::string error;
};

// Parses PBM/PGM/PPM (binary) or PAM.
Picture parsePnm(const std::string& s) {
    Picture pic;
    size_t p = 2;
    auto skipSpace = [&] {
        while (p < s.size() && (std::isspace(uint8_t(s[p])) || s[p] == '#'))
            p = s[p] == '#' ? s.find('\n', p) : p + 1;
    };
    auto number = [&] {
        skipSpace();
        int v = 0;
        while (p < s.size() && std::isdigit(uint8_t(s[p]))) v = v * 10 + (s[p++] - '0');
        return v;
    };
    if (s.size() < 3 || s[0] != 'P') return pic.error = "not a PNM or PAM file", pic;
    int depth = 0, maxval = 0;
    const char kind = s[1];
    if (kind == '7') {
        while (p < s.size()) {
            skipSpace();
            const size_t end = s.find_first_of(" \t\n", p);
            const std::string key = s.substr(p, end - p);
            p = end;
            if (key == "ENDHDR") break;
            if (key == "WIDTH") pic.width = number();
            else if (key == "HEIGHT") pic.height = number();
            else if (key == "DEPTH") depth = number();
            else if (key == "MAXVAL") maxval = number();
            else p = s.find('\n', p);
        }
    } else if (kind >= '4' && kind <= '6') {
        pic.width = number(), pic.height = number();
        maxval = kind == '4' ? 1 : number();
        depth = kind == '6' ? 3 : 1;
    } else {
        return pic.error = "unsupported PNM kind", pic;
    }
    ++p;  // the single white-space byte before the samples
    if (pic.width <= 0 || pic.height <= 0 || depth < 1 || depth > 4 || (maxval != 255 && maxval != 1))
        return pic.error = "unsupported header", pic;
    const bool bits = kind == '4' || (kind == '7' && maxval == 1 && depth == 1);
    const size_t rowBytes = kind == '4' ? (size_t(pic.width) + 7) / 8 : size_t(pic.width) * depth;
    if (s.size() < p + rowBytes * pic.height) return pic.error = "short pixel data", pic;
    pic.alpha = depth == 2 || depth == 4;
    pic.rgba.resize(size_t(pic.width) * pic.height * 4);
    for (int y = 0; y < pic.height; ++y) {
        const auto* row = reinterpret_cast<const uint8_t*>(s.data() + p + rowBytes * y);
        for (int x = 0; x < pic.width; ++x) {
            uint8_t* o = &pic.rgba[(size_t(y) * pic.width + x) * 4];
            if (bits) {
                const bool set = kind == '4' ? (row[x / 8] >> (7 - x % 8) & 1) : row[x] == 0;
                o[0] = o[1] = o[2] = set ? 0 : 255, o[3] = 255;
                continue;
            }
            const uint8_t* in = row + size_t(x) * depth;
            const auto scale = [&](uint8_t v) { return maxval == 1 ? uint8_t(v ? 255 : 0) : v; };
            if (depth <= 2) o[0] = o[1] = o[2] = scale(in[0]);
            else o[0] = scale(in[0]), o[1] = scale(in[1]), o[2] = scale(in[2]);
            o[3] = pic.alpha ? scale(in[depth - 1]) : 255;
        }
    }
    return pic;
}

Picture decodeWith(const std::string& command) {
    std::string out;
    const int status = iltest::run(command + " 2>/dev/null", &out);
    if (status != 0) {
        Picture pic;
        pic.error = "`" + command + "` exited with " + std::to_string(status);
        return pic;
    }
    return parsePnm(out);
}

std::string replaceAll(std::string text, const std::string& key, const std::string& value) {
    for (size_t at = text.find(key); at != std::string::npos; at = text.find(key, at + value.size()))
        text.replace(at, key.size(), value);
    return text;
}

// The harness's source pictures, written once per test.
struct Sources {
    iltest::TempDir dir;
    Sources() {
        const int w = 61, h = 43;
        std::string photo = "P6\n61 43\n255\n", few = photo, grey = "P5\n61 43\n255\n", bw = "P4\n61 43\n";
        static const uint8_t kSix[6][3] = {{0, 0, 0}, {255, 255, 255}, {200, 30, 40}, {20, 160, 60},
                                           {30, 60, 220}, {250, 210, 0}};
        for (int y = 0; y < h; ++y) {
            uint8_t bits[8] = {};
            for (int x = 0; x < w; ++x) {
                const uint8_t r = uint8_t(x * 4), g = uint8_t(y * 6 + (x > 30 ? 60 : 0)), b = uint8_t((x ^ y) * 5);
                photo += {char(r), char(g), char(b)};
                grey += char(g);
                const uint8_t* c = kSix[(x / 7 + y / 5) % 6];
                few += {char(c[0]), char(c[1]), char(c[2])};
                if (((x * 7 + y * 3) % 11) < 5) bits[x / 8] |= uint8_t(0x80 >> (x % 8));
            }
            bw.append(reinterpret_cast<const char*>(bits), 8);
        }
        iltest::writeFile(dir.file("photo.ppm"), photo);
        iltest::writeFile(dir.file("few.ppm"), few);
        iltest::writeFile(dir.file("grey.pgm"), grey);
        iltest::writeFile(dir.file("bw.pbm"), bw);
        std::string alpha = "P7\nWIDTH 61\nHEIGHT 43\nDEPTH 4\nMAXVAL 255\nTUPLTYPE RGB_ALPHA\nENDHDR\n";
        for (int i = 0; i < w * h; ++i) {
            alpha.append(photo, photo.size() - size_t(w * h - i) * 3, 3);
            alpha += char(i % 7 == 3 ? 0 : 255 - i % w * 4);
        }
        iltest::writeFile(dir.file("alpha.pam"), alpha);
        iltest::run("'" + iltest::cliPath() + "' convert '" + dir.file("few.ppm") + "' '" + dir.file("pal.bmp") +
                    "' --mode 256");
    }
    std::string expand(std::string command, const std::string& out) const {
        command = replaceAll(command, "{out}", "'" + out + "'");
        command = replaceAll(command, "{photo}", "'" + dir.file("photo.ppm") + "'");
        command = replaceAll(command, "{few}", "'" + dir.file("few.ppm") + "'");
        command = replaceAll(command, "{grey}", "'" + dir.file("grey.pgm") + "'");
        command = replaceAll(command, "{alpha}", "'" + dir.file("alpha.pam") + "'");
        return replaceAll(command, "{bw}", "'" + dir.file("bw.pbm") + "'");
    }
    std::string source(const std::string& name) const {
        return dir.file(name + (name == "grey"    ? ".pgm"
                                : name == "bw"    ? ".pbm"
                                : name == "alpha" ? ".pam"
                                : name == "pal"   ? ".bmp"
                                                  : ".ppm"));
    }
};

// Our CLI's decoding of a file.
Picture ours(const std::string& path, const std::string& scratch) {
    const std::string command = "'" + iltest::cliPath() + "' convert '" + path + "' '" + scratch + "'";
    if (int status = iltest::run(command + " 2>&1")) {
        Picture pic;
        pic.error = "`" + command + "` exited with " + std::to_string(status);
        return pic;
    }
    const std::vector<uint8_t> bytes = iltest::readFile(scratch);
    return parsePnm(std::string(bytes.begin(), bytes.end()));
}

// Compares two decodings; describes the first difference beyond tolerance.
void expectSame(const Picture& expected, const Picture& actual, int tolerance, const std::string& what) {
    ASSERT_TRUE(expected.error.empty()) << what << ": reference: " << expected.error;
    ASSERT_TRUE(actual.error.empty()) << what << ": " << actual.error;
    ASSERT_EQ(expected.width, actual.width) << what;
    ASSERT_EQ(expected.height, actual.height) << what;
    const int channels = expected.alpha && actual.alpha ? 4 : 3;
    for (size_t i = 0; i < expected.rgba.size(); ++i) {
        if (int(i % 4) >= channels) continue;
        if (std::abs(expected.rgba[i] - actual.rgba[i]) > tolerance) {
            const size_t px = i / 4;
            FAIL() << what << ": first difference at x " << px % expected.width << ", y " << px / expected.width
                   << ", channel " << i % 4 << ": expected " << int(expected.rgba[i]) << ", got "
                   << int(actual.rgba[i]);
        }
    }
}

std::string testName(const char* name) {
    std::string n = name;
    for (char& c : n)
        if (!std::isalnum(uint8_t(c))) c = '_';
    return n;
}

class PeerFiles : public ::testing::TestWithParam<PeerFile> {};

TEST_P(PeerFiles, DecodeToThePeersPixels) {
    const PeerFile& row = GetParam();
    if (!iltest::haveProgram(row.tool)) GTEST_SKIP() << row.tool << " absent";
    Sources src;
    const std::string out = src.dir.file(row.name);
    const std::string make = src.expand(row.make, out);
    ASSERT_EQ(iltest::run(make + " 2>/dev/null"), 0) << make;
    const Picture reference = decodeWith(src.expand(row.decode ? row.decode : kMagick, out));
    expectSame(reference, ours(out, src.dir.file("ours.pam")), row.tolerance, row.name);
}

INSTANTIATE_TEST_SUITE_P(Interop, PeerFiles, ::testing::ValuesIn(kPeerFiles),
                         [](const auto& info) { return testName(info.param.name); });

class OurFiles : public ::testing::TestWithParam<OurFile> {};

TEST_P(OurFiles, DecodeInThePeerToOurPixels) {
    const OurFile& row = GetParam();
    if (!iltest::haveProgram(row.tool)) GTEST_SKIP() << row.tool << " absent";
    Sources src;
    const std::string out = src.dir.file(row.name);
    const std::string command = "'" + iltest::cliPath() + "' convert '" + src.source(row.source) + "' '" + out +
                                "' " + row.options;
    ASSERT_EQ(iltest::run(command + " 2>&1"), 0) << command;
    const Picture mine = ours(out, src.dir.file("ours.pam"));
    expectSame(mine, decodeWith(src.expand(row.decode ? row.decode : kMagick, out)), row.tolerance, row.name);
    if (row.lossless) {
        const std::vector<uint8_t> bytes = iltest::readFile(src.source(row.source));
        ASSERT_NE(row.source, std::string("pal")) << "the palette source is no PNM";
        expectSame(parsePnm(std::string(bytes.begin(), bytes.end())), mine, 0,
                   std::string(row.name) + " against its source");
    }
}

INSTANTIATE_TEST_SUITE_P(Interop, OurFiles, ::testing::ValuesIn(kOurFiles),
                         [](const auto& info) { return testName(info.param.name); });

class SampleFiles : public ::testing::TestWithParam<SampleFile> {};

TEST_P(SampleFiles, DecodeAsTheReferenceDecodesThem) {
    const SampleFile& row = GetParam();
    const std::string path = iltest::corpusFile(row.path);
    if (path.empty()) GTEST_SKIP() << "sample corpus absent";
    if (!iltest::haveProgram(row.tool)) GTEST_SKIP() << row.tool << " absent";
    Sources src;
    const Picture reference = decodeWith(src.expand(row.decode ? row.decode : kMagick, path));
    expectSame(reference, ours(path, src.dir.file("ours.pam")), 0, row.path);
}

INSTANTIATE_TEST_SUITE_P(Interop, SampleFiles, ::testing::ValuesIn(kSampleFiles),
                         [](const auto& info) { return testName(info.param.path); });

TEST(RefusedSamples, FailWithTheirStatus) {
    if (iltest::corpusDir().empty()) GTEST_SKIP() << "sample corpus absent";
    iltest::TempDir dir;
    for (const RefusedSample& row : kRefusedSamples) {
        std::string out;
        EXPECT_EQ(iltest::run("'" + iltest::cliPath() + "' convert '" + iltest::corpusFile(row.path) + "' '" +
                                  dir.file("x.pam") + "' 2>&1",
                              &out),
                  1)
            << row.path;
        EXPECT_NE(out.find("(status " + std::to_string(row.status) + ")"), std::string::npos) << row.path << ": " << out;
    }
}

}  // namespace
