// Whole-image reading: which codec serves which file type, and what is done
// around it (palette images mapped to RGB, resampling to a requested size,
// alpha added, layouts converted).
//
// Each entry point has one switch over the file type. A type whose codec is
// not in the library yet answers IMGERR_UNSUPPORTEDTYPE from its case, so
// that wiring a codec in is one line in each switch that names it.
#include <cstring>

#include "codecs/libs/jpeg.h"
#include "codecs/libs/png.h"
#include "codecs/libs/tiff.h"
#include "codecs/intergraph/cals.h"
#include "codecs/intergraph/ingr.h"
#include "codecs/intergraph/rlc.h"
#include "codecs/native/bmp.h"
#include "codecs/native/flic.h"
#include "codecs/native/gif.h"
#include "codecs/native/pcx.h"
#include "codecs/native/sun.h"
#include "codecs/native/pa.h"
#include "codecs/native/pma.h"
#include "imagelib/geo.h"
#include "imagelib/io.h"
#include "imagelib/pixels.h"
#include "imagelib/registry.h"
#include "internal/checked.h"
#include "internal/file.h"
#include "pixels/colour.h"
#include "pixels/rows.h"
#include "registry/dispatch.h"
#include "registry/stream.h"
#include "registry/targa.h"

namespace il::dispatch {

int resolveType(int type, const char* path) noexcept {
    int t = korImage_fileType(type, path);
    return t < 0 ? IMGERR_UNSUPPORTEDTYPE : t;
}

namespace {

// Closes a streaming context on scope exit.
struct StreamCloser {
    ImageFileContext* ctx;
    ~StreamCloser() {
        if (ctx) korImage_closeFile(ctx);
    }
};

bool sameSize(const ImageSize& a, const ImageSize& b) { return a.x == b.x && a.y == b.y; }

// Size and orientation bits of a file opened through the streaming rows.
int streamInfo(const char* path, ImageSize* size, int* orientation) {
    int st = 0;
    StreamCloser c{korImage_openFile(&st, nullptr, path)};
    if (!c.ctx) return st;
    *size = c.ctx->fileSize;
    *orientation = il::stream::orientationBits(c.ctx);
    return 0;
}

// A decoded image as a codec gives it: a palette image (byte map, layout 3)
// with its palette, or row-planar RGB (layout 5).
struct Decoded {
    OwnedImage image;
    Palette palette;
    bool isMap = false;
};

// BMP for the RGB readers: 24-bit files directly, the others as a map.
int bmpDecode(const char* path, Decoded& d) {
    ImageSize size{};
    int mode = 0;
    if (int st = imageBmp_readInfo(&size, &mode, path)) return st;
    void* p = nullptr;
    if (mode == COLORMODE_RGB || mode == COLORMODE_RGBA) {
        uint8_t* rgb = nullptr;
        if (int st = imageBmp_readToRGB(&rgb, &size, path)) return st;
        d.image.reset(rgb, size, IMAGEFORMAT_RGB);
        return 0;
    }
    if (int st = imageBmp_readToMap(&p, &size, d.palette.red, d.palette.green, d.palette.blue, &d.palette.count,
                                    path, 0))
        return st;
    d.image.reset(p, size, IMAGEFORMAT_MAP);
    d.isMap = true;
    return 0;
}

// PCX for the RGB readers: a palette image, or RGB when the reader gives no
// colours (three planes of 8 bits).
int pcxDecode(const char* path, Decoded& d, StopFunction stop) {
    ImageSize size{};
    void* p = nullptr;
    if (int st = imagePcx_readToMap(&p, &size, d.palette.red, d.palette.green, d.palette.blue, &d.palette.count,
                                    path, 0, stop))
        return st;
    d.isMap = d.palette.count != 0;
    d.image.reset(p, size, d.isMap ? IMAGEFORMAT_MAP : IMAGEFORMAT_RGB);
    return 0;
}

// Sun raster for the RGB readers: always a palette image.
int sunDecode(const char* path, Decoded& d, StopFunction stop) {
    ImageSize size{};
    void* p = nullptr;
    if (int st = imageSun_readToMap(&p, &size, d.palette.red, d.palette.green, d.palette.blue, &d.palette.count,
                                    path, 0, stop))
        return st;
    d.image.reset(p, size, IMAGEFORMAT_MAP);
    d.isMap = true;
    return 0;
}

// "p": a map.
int pDecode(const char* path, Decoded& d, StopFunction stop) {
    void* p = nullptr;
    ImageSize size{};
    int st = imageP_readToMap(&p, &size, d.palette.red, d.palette.green, d.palette.blue, &d.palette.count, path, 0,
                              stop);
    if (st != 0) return st;
    d.image.reset(p, size, IMAGEFORMAT_MAP);
    d.isMap = true;
    return 0;
}

// The first frame of a FLI/FLC file, as a map.
int flicDecode(const char* path, Decoded& d, StopFunction stop) {
    void* p = nullptr;
    ImageSize size{};
    if (int st = imageFlic_readToMap(&p, &size, d.palette.red, d.palette.green, d.palette.blue, &d.palette.count,
                                     path, 0, stop))
        return st;
    d.image.reset(p, size, IMAGEFORMAT_MAP);
    d.isMap = true;
    return 0;
}

// "a": RGB.
int aDecode(const char* path, Decoded& d, StopFunction stop) {
    uint8_t* rgb = nullptr;
    ImageSize size{};
    if (int st = imageA_readToRGB(&rgb, &size, path, stop)) return st;
    d.image.reset(rgb, size, IMAGEFORMAT_RGB);
    return 0;
}

// PMA: the program draws at the requested size, or at its own (-1, -1 asks
// for it). A positive answer of the program is taken as a stop.
int pmaDecode(const char* path, const ImageSize* requested, StopFunction stop, Decoded& d) {
    ImageSize size = requested ? *requested : ImageSize{-1, -1};
    uint8_t* rgb = nullptr;
    int st = imagePma_readToRGB(&rgb, &size, path, stop);
    if (st != 0) return st < 0 ? st : IMGERR_STOPPED;
    d.image.reset(rgb, size, IMAGEFORMAT_RGB);
    return 0;
}

// JPEG for the RGB readers: colour files directly, grey files as a map.
int jpegDecode(const char* path, Decoded& d, StopFunction stop) {
    void* p = nullptr;
    ImageSize size{};
    if (int st = jpegFile_read(&p, &size, d.palette.red, d.palette.green, d.palette.blue, &d.palette.count, path, 0,
                               0, 0, 255, stop))
        return st;
    d.isMap = d.palette.count != 0;
    d.image.reset(p, size, d.isMap ? IMAGEFORMAT_MAP : IMAGEFORMAT_RGB);
    return 0;
}

// PNG for the RGB readers: the file's own mode; bilevel files are expanded
// here with their two colours.
int pngDecode(const char* path, Decoded& d, StopFunction stop) {
    void* p = nullptr;
    ImageSize size{};
    int layout = 0;
    if (int st = pngFile_read(&p, &size, d.palette.red, d.palette.green, d.palette.blue, &d.palette.count, path, 0,
                              0, stop, &layout))
        return st;
    d.image.reset(p, size, layout);
    if (layout == IMAGEFORMAT_BITMAP) {
        const uint8_t fg[3] = {d.palette.red[1], d.palette.green[1], d.palette.blue[1]};
        const uint8_t bg[3] = {d.palette.red[0], d.palette.green[0], d.palette.blue[0]};
        uint8_t* rgb = nullptr;
        if (int st = korImage_extBitMapToRGB(&rgb, p, &size, fg, bg, 0, stop)) {
            if (rgb) dlmSystem_korFree(rgb);
            return st > 0 ? IMGERR_STOPPED : st;
        }
        d.image.reset(rgb, size, IMAGEFORMAT_RGB);
    }
    d.isMap = layout == IMAGEFORMAT_MAP;
    return 0;
}

// Intergraph rasters for the RGB readers: upright, a palette image or RGB.
int ingrDecode(const char* path, Decoded& d, StopFunction stop) {
    void* p = nullptr;
    ImageSize size{};
    int rgb = 0;
    if (int st = ingr_readImage(&p, &size, &rgb, d.palette.red, d.palette.green, d.palette.blue, &d.palette.count,
                                nullptr, path, stop))
        return st;
    d.isMap = !rgb;
    d.image.reset(p, size, rgb ? IMAGEFORMAT_RGB : IMAGEFORMAT_MAP);
    return 0;
}

// Fax, CALS and RLC as a two-colour map: white paper, black ink.
int bilevelDecode(int type, const char* path, Decoded& d, StopFunction stop) {
    void* p = nullptr;
    ImageSize size{};
    Palette& c = d.palette;
    int st = type == 21   ? fax_readFileToMap(&p, &size, c.red, c.green, c.blue, &c.count, path, 1, stop)
             : type == 22 ? cals_readFileToMap(&p, &size, c.red, c.green, c.blue, &c.count, path, 1, stop)
                          : rlc_readFileToMap(&p, &size, c.red, c.green, c.blue, &c.count, path, 1, stop);
    if (st) return st;
    d.isMap = true;
    d.image.reset(p, size, IMAGEFORMAT_MAP);
    return 0;
}

// The codec step of korImage_readFileToRGB for the types that are not
// streamed. Types listed without a call have their codec still to come.
int decodeForRGB(int type, const char* path, Decoded& d, StopFunction stop) {
    switch (type) {
        case 9: return bmpDecode(path, d);
        case 5: return pcxDecode(path, d, stop);
        case 10: return sunDecode(path, d, stop);
        case 14: case 15: return flicDecode(path, d, stop);  // FLI/FLC first frame
        case 11: return pDecode(path, d, stop);
        case 12: return aDecode(path, d, stop);
        case 7: {  // GIF: the first image as a map
            void* p = nullptr;
            ImageSize size{};
            if (int st = imageGif_readToMap(&p, &size, d.palette.red, d.palette.green, d.palette.blue,
                                            &d.palette.count, path, 0, stop))
                return st;
            d.image.reset(p, size, IMAGEFORMAT_MAP);
            d.isMap = true;
            return 0;
        }
        case 18: return jpegDecode(path, d, stop);
        case 28: return pngDecode(path, d, stop);
        case 0: case 3: case 29: {  // TIFF, through the RGBA interface
            uint8_t* rgb = nullptr;
            ImageSize size{};
            if (int st = tiff_readFileToRGBSeparate(&rgb, &size, path, 0, stop)) return st;
            d.image.reset(rgb, size, IMAGEFORMAT_RGB);
            return 0;
        }
        case 1: case 16:          // Intergraph RGB
        case 13: case 17: case 19: case 20: case 23: case 25:  // Intergraph rasters
            return ingrDecode(path, d, stop);
        case 21: case 22: case 24:  // fax, CALS, RLC
            return bilevelDecode(type, path, d, stop);
        case 27:                  // PMA: drawn at the requested size, see pmaDecode
        default: return IMGERR_UNSUPPORTEDTYPE;
    }
}

// Resamples a row-planar image (3 or 4 planes) to requested when it differs.
int resampleTo(OwnedImage& img, const ImageSize* requested, bool alpha, StopFunction stop) {
    if (!requested || sameSize(*requested, img.size())) return 0;
    void* out = nullptr;
    ImageSize src = img.size();
    int st = alpha ? korImage_resizeRGBA(&out, requested, img.get(), &src, stop)
                   : korImage_resize(&out, requested, img.get(), &src, stop);
    if (st != 0) return st;
    img.reset(out, *requested, IMAGEFORMAT_RGB);
    return 0;
}

void handOut(OwnedImage& img, uint8_t** out, ImageSize* outSize) {
    if (outSize) *outSize = img.size();
    *out = static_cast<uint8_t*>(img.release());
}

// Row-planar RGB of the file: korImage_readFileToRGB without its checks.
// A stopped streamed read gives 1 and an image.
int readRGB(OwnedImage& img, const char* path, int type, const ImageSize* requested, StopFunction stop) {
    if (type == 2 || type == 4) {  // Targa and PICT: streamed, scaled by the streaming layer
        if (type == 2)
            if (int st = imageTga_checkWholeImage(path)) return st;
        uint8_t* rgb = nullptr;
        ImageSize size{};
        int st = streamReadImage(&rgb, &size, path, requested, false, stop);
        if (st < 0) return st;
        img.reset(rgb, size, IMAGEFORMAT_RGB);
        return st;
    }
    Decoded d;
    if (int st = type == 27 ? pmaDecode(path, requested, stop, d) : decodeForRGB(type, path, d, stop)) return st;
    if (d.isMap) {
        uint8_t* rgb = nullptr;
        ImageSize size = d.image.size();
        int st = korImage_mapToRGB(&rgb, d.image.bytes(), &size, d.palette.red, d.palette.green, d.palette.blue,
                                   stop);
        if (st != 0) {
            if (rgb) dlmSystem_korFree(rgb);
            return st > 0 ? IMGERR_STOPPED : st;  // a stopped conversion
        }
        d.image.reset(rgb, size, IMAGEFORMAT_RGB);
    }
    if (int st = resampleTo(d.image, requested, false, stop)) return st > 0 ? IMGERR_STOPPED : st;
    img.reset(d.image.get(), d.image.size(), IMAGEFORMAT_RGB);
    d.image.release();
    return 0;
}

// The palette-image codec step of korImage_extReadFileToMap: PackByte rows
// and palette, or (trueColour set) nothing, for files to be read as RGB and
// reduced.
int decodeForMap(int type, const char* path, OwnedImage& rows, Palette& pal, bool& trueColour, StopFunction stop) {
    trueColour = false;
    switch (type) {
        case 18: {  // grey files as 256 levels, colour files reduced
            ImageSize size{};
            int mode = 0;
            if (int st = jpegFile_readInfo(&size, &mode, path)) return st;
            if (mode == COLORMODE_RGB) {
                trueColour = true;
                return 0;
            }
            void* p = nullptr;
            if (int st = jpegFile_read(&p, &size, pal.red, pal.green, pal.blue, &pal.count, path, 1, 0, 0, 256, stop))
                return st;
            rows.reset(p, size, IMAGEFORMAT_PACKBYTE);
            return 0;
        }
        case 28: {  // asked for 256 colours
            ImageSize size{};
            void* p = nullptr;
            if (int st = pngFile_read(&p, &size, pal.red, pal.green, pal.blue, &pal.count, path,
                                      COLORMODE_PALETTE256, 1, stop))
                return st;
            rows.reset(p, size, IMAGEFORMAT_PACKBYTE);
            return 0;
        }
        case 9: {
            ImageSize size{};
            int mode = 0;
            if (int st = imageBmp_readInfo(&size, &mode, path)) return st;
            if (mode == COLORMODE_RGB || mode == COLORMODE_RGBA) {
                trueColour = true;
                return 0;
            }
            void* p = nullptr;
            if (int st = imageBmp_readToMap(&p, &size, pal.red, pal.green, pal.blue, &pal.count, path, 1)) return st;
            rows.reset(p, size, IMAGEFORMAT_PACKBYTE);
            return 0;
        }
        case 5: {
            ImageSize size{};
            int mode = 0;
            if (int st = imagePcx_readInfo(&size, &mode, path)) return st;
            if (mode == COLORMODE_RGB) {
                trueColour = true;
                return 0;
            }
            void* p = nullptr;
            if (int st = imagePcx_readToMap(&p, &size, pal.red, pal.green, pal.blue, &pal.count, path, 1, stop))
                return st;
            rows.reset(p, size, IMAGEFORMAT_PACKBYTE);
            return 0;
        }
        case 10: {
            ImageSize size{};
            void* p = nullptr;
            if (int st = imageSun_readToMap(&p, &size, pal.red, pal.green, pal.blue, &pal.count, path, 1, stop))
                return st;
            rows.reset(p, size, IMAGEFORMAT_PACKBYTE);
            return 0;
        }
        case 14: case 15: {  // FLI/FLC first frame
            void* p = nullptr;
            ImageSize size{};
            if (int st = imageFlic_readToMap(&p, &size, pal.red, pal.green, pal.blue, &pal.count, path, 1, stop))
                return st;
            rows.reset(p, size, IMAGEFORMAT_PACKBYTE);
            return 0;
        }
        case 11: {
            void* p = nullptr;
            ImageSize size{};
            if (int st = imageP_readToMap(&p, &size, pal.red, pal.green, pal.blue, &pal.count, path, 1, stop))
                return st;
            rows.reset(p, size, IMAGEFORMAT_PACKBYTE);
            return 0;
        }
        case 7: {  // GIF
            void* p = nullptr;
            ImageSize size{};
            if (int st = imageGif_readToMap(&p, &size, pal.red, pal.green, pal.blue, &pal.count, path, 1, stop))
                return st;
            rows.reset(p, size, IMAGEFORMAT_PACKBYTE);
            return 0;
        }
        case 0: case 3: case 29: {  // TIFF palette reader
            TiffInfo info{};
            if (int st = tiff_readFileInfo(&info, path)) return st;
            ImageSize size{};
            void* p = nullptr;
            int st = IMGERR_UNSUPPORTEDTYPE;
            if (info.colourMode != COLORMODE_RGB && info.colourMode != COLORMODE_RGBA)
                st = tiff_readFileToMap(&p, &size, pal.red, pal.green, pal.blue, &pal.count, path, 1, stop);
            // Depths the palette reader does not take (true colour, 16-bit
            // grey, grey with alpha) are read as RGB and reduced.
            if (st == IMGERR_UNSUPPORTEDTYPE) {
                trueColour = true;
                return 0;
            }
            if (st != 0) return st;
            rows.reset(p, size, IMAGEFORMAT_PACKBYTE);
            return 0;
        }
        case 13: case 17: case 19: case 20: case 23: case 25: {  // Intergraph rasters
            int mode = 0;
            if (int st = ingr_readHeaderInfo(nullptr, &mode, nullptr, nullptr, nullptr, path)) return st;
            if (mode == COLORMODE_RGB) {
                trueColour = true;
                return 0;
            }
            void* p = nullptr;
            ImageSize size{};
            if (int st = ingr_readImage(&p, &size, nullptr, pal.red, pal.green, pal.blue, &pal.count, nullptr, path,
                                        stop))
                return st;
            OwnedImage map(p, size, IMAGEFORMAT_MAP);
            uint8_t** packed = nullptr;
            if (int st = il::packByteEncodeImage(&packed, map.bytes(), &size)) return st;
            rows.reset(packed, size, IMAGEFORMAT_PACKBYTE);
            return 0;
        }
        case 21: case 22: {       // fax, CALS
            Decoded d;
            if (int st = bilevelDecode(type, path, d, stop)) return st;
            ImageSize size = d.image.size();
            uint8_t** packed = nullptr;
            if (int st = il::packByteEncodeImage(&packed, d.image.bytes(), &size)) return st;
            rows.reset(packed, size, IMAGEFORMAT_PACKBYTE);
            pal = d.palette;
            return 0;
        }
        default: return IMGERR_UNSUPPORTEDTYPE;
    }
}

// Maps a positive "stopped" answer of a conversion to the reader's status.
int stoppedStatus(int st) { return st > 0 ? IMGERR_STOPPED : st; }

// Transparency that the colour mode of korImage_readFileInfo does not tell:
// the tRNS chunk (or grey alpha) of a PNG file and the transparent index of
// a GIF file's first image (-1 when none). *alpha is set when there is any.
int findTransparency(int type, const char* path, ImageSize* size, bool* alpha, int* gifIndex) {
    *alpha = false;
    *gifIndex = -1;
    if (type == 28) {
        int t = 0;
        if (int st = pngFile_readInfo(size, nullptr, path, &t)) return st;
        *alpha = t != 0;
    } else if (type == 7) {
        int st = imageGif_readInfo(size, gifIndex, path);
        if (st != 0) return st == kGifParseFailure ? IMGERR_BADFILE : st;
        *alpha = *gifIndex >= 0;
    }
    return 0;
}

// The first image of a GIF file as rows of four planes: alpha 0 at the
// transparent index, 255 elsewhere.
int gifDecodeRGBA(const char* path, int index, OwnedImage& img, StopFunction stop) {
    Palette pal;
    void* p = nullptr;
    ImageSize size{};
    if (int st = imageGif_readToMap(&p, &size, pal.red, pal.green, pal.blue, &pal.count, path, 0, stop))
        return st > 0 ? (st == kGifParseFailure ? IMGERR_BADFILE : IMGERR_STOPPED) : st;
    OwnedImage map(p, size, IMAGEFORMAT_MAP);
    size_t bytes = 0;
    if (!il::imageBytes(size.x, size.y, 4, &bytes)) return IMGERR_BADFILE;
    il::CallerBuffer<uint8_t> out = il::callerBytes(bytes);
    if (!out) return IMGERR_NOMEMORY;
    const size_t w = size_t(size.x);
    for (size_t y = 0; y < size_t(size.y); ++y) {
        const uint8_t* m = map.bytes() + w * y;
        uint8_t* r = out.get() + 4 * w * y;
        for (size_t x = 0; x < w; ++x) {
            r[x] = pal.red[m[x]];
            r[w + x] = pal.green[m[x]];
            r[2 * w + x] = pal.blue[m[x]];
            r[3 * w + x] = m[x] == index ? 0 : 255;
        }
    }
    img.reset(out.release(), size, IMAGEFORMAT_RGB);
    return 0;
}

}  // namespace

int streamReadImage(uint8_t** out, ImageSize* outSize, const char* path, const ImageSize* requested, bool alpha,
                    StopFunction stop) noexcept {
    int st = 0;
    StreamCloser c{korImage_openFile(&st, requested, path)};
    // No handler took the file: the open answers the last one's status
    // (TIFF's positive "not a stream"), which is no image and no stop here.
    if (!c.ctx) return st <= 0 ? st : il::File::open(path, "rb").ok() ? IMGERR_BADFILE : IMGERR_OPENFAILED;
    ImageSize size{};
    korImage_getImageSize(&size, c.ctx);
    const int planes = alpha ? 4 : 3;
    size_t bytes = 0;
    if (!imageBytes(size.x, size.y, planes, &bytes)) return requested ? IMGERR_BADARG : IMGERR_BADFILE;
    CallerBuffer<uint8_t> buf = callerBytes(bytes, true);
    if (!buf) return IMGERR_NOMEMORY;
    const size_t rowBytes = size_t(size.x) * planes;
    const bool bottomUp = il::stream::orientationBits(c.ctx) == il::stream::kRowsBottomUp;
    int result = 0;
    for (int i = 0; i < size.y; ++i) {
        if (imageUtil_reportProgress(stop, size.y, i)) {
            result = IMGSTAT_STREAM_STOPPED;  // kept on purpose: 1, and the partial image is handed out
            break;
        }
        uint8_t* r = buf.get() + rowBytes * size_t(bottomUp ? size.y - 1 - i : i);
        st = korImage_getRow(c.ctx, r, r + size.x, r + 2 * size_t(size.x), alpha ? r + 3 * size_t(size.x) : nullptr);
        if (st != 0) return st < 0 ? st : IMGERR_READFAILED;
    }
    *out = buf.release();
    if (outSize) *outSize = size;
    return result;
}

}  // namespace il::dispatch

using namespace il::dispatch;

extern "C" {

int korImage_readFileInfo(ImageSize* size, int* colorMode, int* orientation, const char* path, int type) noexcept {
    if (orientation) *orientation = 0;
    type = resolveType(type, path);
    if (type < 0) return type;
    ImageSize sz{};
    int mode = 0, orient = 0, st;
    switch (type) {
        case 1: case 4: case 16:  // through the streaming rows
            st = streamInfo(path, &sz, &orient);
            mode = COLORMODE_RGB;
            break;
        case 2:
            st = imageTga_readInfo(&sz, &mode, &orient, path);
            if (mode != COLORMODE_RGB && mode != COLORMODE_RGBA) mode = COLORMODE_RGB;
            break;
        case 9: st = imageBmp_readInfo(&sz, &mode, path); break;
        case 5: st = imagePcx_readInfo(&sz, &mode, path); break;
        case 10: st = imageSun_readInfo(&sz, &mode, path); break;
        case 14: case 15:  // FLI/FLC: 256 colours
            st = imageFlic_readInfo(&sz, nullptr, path);
            mode = COLORMODE_PALETTE256;
            break;
        case 11: st = imageP_readInfo(&sz, &mode, path); break;
        case 12: st = imageA_readInfo(&sz, &mode, path); break;
        case 27: st = imagePma_open(&sz, &mode, path); break;
        case 7: st = IMGERR_BADFORMAT; break;  // GIF: size and colours are known only by reading the image
        case 18: st = jpegFile_readInfo(&sz, &mode, path); break;
        case 28: st = pngFile_readInfo(&sz, &mode, path); break;
        case 0: case 3: case 29: {  // TIFF
            TiffInfo info{};
            st = tiff_readFileInfo(&info, path);
            sz = info.size;
            mode = info.colourMode;
            orient = info.orientation;
            break;
        }
        case 13: case 17: case 19: case 20: case 23: case 25:  // Intergraph header
            st = ingr_readHeaderInfo(&sz, &mode, nullptr, nullptr, nullptr, path);
            break;
        case 21: st = fax_readFileInfo(&sz, &mode, path); break;
        case 22: st = cals_readHeader(&sz, &mode, path); break;
        case 24: st = rlc_readFileInfo(&sz, &mode, path); break;
        default: st = IMGERR_UNSUPPORTEDTYPE; break;
    }
    if (st != 0) return st;
    if (size) *size = sz;
    if (colorMode) *colorMode = mode;
    if (orientation) *orientation = orient;
    return 0;
}

int korImage_readFileInfoEx(ImageFileInfo* info, const char* path) noexcept {
    if (!info) return IMGERR_BADARG;
    ImageFileInfo r;
    std::memset(&r, 0, sizeof r);
    r.type = resolveType(-1, path);
    if (r.type < 0) return r.type;
    if (r.type == 3) {  // TIFF files tell their own type (29 with a key directory) and more
        TiffInfo t{};
        if (int st = tiff_readFileInfo(&t, path)) return st;
        r.type = t.type;
        r.size = t.size;
        r.colorMode = t.colourMode;
        r.orientation = t.orientation;
        r.flags = t.flags;
        r.xResolution = t.xResolution;
        r.yResolution = t.yResolution;
        r.compression = t.compression;
    } else if (r.type == 7 || r.type == 28) {
        // Transparency of PNG and GIF files is reported as colour mode 6;
        // GIF files without it tell nothing before their image is read.
        bool alpha = false;
        int index = -1;
        if (int st = findTransparency(r.type, path, &r.size, &alpha, &index)) return st;
        if (r.type == 7 && !alpha) return IMGERR_BADFORMAT;
        if (r.type == 28 && pngFile_readInfo(nullptr, &r.colorMode, path) != 0) return IMGERR_BADFILE;
        if (alpha) r.colorMode = COLORMODE_RGBA;
    } else if (int st = korImage_readFileInfo(&r.size, &r.colorMode, &r.orientation, path, r.type)) {
        return st;
    }
    // Intergraph rasters: the header type and the georeference.
    {
        int dt = 0, tileDt = 0, resolved = -1;
        if (ingr_readHeaderInfo(nullptr, nullptr, &dt, &tileDt, &resolved, path) == 0) {
            if (resolved >= 0) r.type = resolved;
            if (korImage_extractIngrAttach(r.origin, r.extent, nullptr, path) == 0) r.hasGeoreference = 1;
            IngrHeader h;
            il::File f;
            if (ingr_readHeader(&h, f, path) == 0) std::memcpy(r.matrix, h.matrix, sizeof r.matrix);
        }
    }
    *info = r;
    return 0;
}

int korImage_readFileToRGB(uint8_t** rgb, ImageSize* outSize, const char* path, int type, const ImageSize* requested,
                           StopFunction stop) noexcept {
    if (!rgb) return IMGERR_BADARG;
    type = resolveType(type, path);
    if (type < 0 || type > 29) return IMGERR_UNSUPPORTEDTYPE;
    OwnedImage img;
    int st = readRGB(img, path, type, requested, stop);
    if (st < 0) return st;
    handOut(img, rgb, outSize);
    return st;
}

int korImage_readFileToRGBA(uint8_t** out, ImageSize* outSize, const char* path, int type,
                            const ImageSize* requested, int separatePlanes, int useBackground,
                            StopFunction stop) noexcept {
    if (!out) return IMGERR_BADARG;
    type = resolveType(type, path);
    if (type < 0) return type;
    int mode = 0, gifIndex = -1;
    bool transparency = false;
    if (int st = findTransparency(type, path, nullptr, &transparency, &gifIndex)) return st;
    if (transparency) mode = COLORMODE_RGBA;
    else if (type != 7)  // GIF: no header reader, a palette file
        if (int st = korImage_readFileInfo(nullptr, &mode, nullptr, path, type)) return st;

    if (mode == COLORMODE_RGBA) {
        OwnedImage img;
        switch (type) {
            case 7:
                if (int st = gifDecodeRGBA(path, gifIndex, img, stop)) return st;
                break;
            case 2: {
                if (int st = imageTga_checkWholeImage(path)) return st;
                uint8_t* p = nullptr;
                ImageSize size{};
                int st = streamReadImage(&p, &size, path, requested, true, stop);
                if (st < 0) return st;
                img.reset(p, size, IMAGEFORMAT_RGB);
                if (st > 0) {  // stopped: hand out what was read
                    handOut(img, out, outSize);
                    return st;
                }
                break;
            }
            case 9: {
                uint8_t* p = nullptr;
                ImageSize size{};
                if (int st = imageBmp_readToRGBA(&p, &size, path)) return st;
                img.reset(p, size, IMAGEFORMAT_RGB);
                break;
            }
            case 28: {  // PNG asked for alpha: four planes a row
                uint8_t r[256], g[256], b[256];
                int n = 0;
                void* p = nullptr;
                ImageSize size{};
                if (int st = pngFile_read(&p, &size, r, g, b, &n, path, COLORMODE_RGBA, 0, stop)) return st;
                img.reset(p, size, IMAGEFORMAT_RGB);
                break;
            }
            case 0: case 3: case 29: {  // TIFF with alpha
                uint8_t* p = nullptr;
                ImageSize size{};
                if (int st = tiff_readFileToRGBSeparate(&p, &size, path, 1, stop)) return st;
                img.reset(p, size, IMAGEFORMAT_RGB);
                break;
            }
            default: return IMGERR_UNSUPPORTEDTYPE;
        }
        if (int st = resampleTo(img, requested, true, stop)) return st;
        if (!separatePlanes) {
            ImageSize size = img.size();
            if (int st = korImage_RGBSeparateToRGB(nullptr, img.bytes(), &size, IMAGEFORMAT_RGB2, nullptr))
                return stoppedStatus(st);
        }
        handOut(img, out, outSize);
        return 0;
    }

    switch (type) {
        case 1: case 4: case 5: case 7: case 27: break;
        default:
            if (type >= 9 && type <= 25) break;
            return IMGERR_UNSUPPORTEDTYPE;
    }
    OwnedImage rgb;
    int st = readRGB(rgb, path, type, requested, stop);
    if (st != 0) return st < 0 ? st : IMGERR_STOPPED;
    const ImageSize size = rgb.size();
    bool keyed = false;
    uint32_t key = 0;
    if (useBackground) {
        uint8_t colour[4];
        if (korImage_getImageBgColor(colour, path, type) == 0) {
            key = il::colourKey(colour[0], colour[1], colour[2]);
        } else {
            const uint8_t* p = rgb.bytes();  // the top-left pixel
            key = il::colourKey(p[0], p[size.x], p[2 * size_t(size.x)]);
        }
        keyed = true;
    }
    size_t bytes = 0;
    if (!il::imageBytes(size.x, size.y, 4, &bytes)) return IMGERR_NOMEMORY;
    il::CallerBuffer<uint8_t> dst = il::callerBytes(bytes);
    if (!dst) return IMGERR_NOMEMORY;
    if (separatePlanes && !keyed) {
        const size_t planes = 3 * size_t(size.x);
        for (int y = 0; y < size.y; ++y) {
            uint8_t* d = dst.get() + 4 * size_t(size.x) * y;
            std::memcpy(d, rgb.bytes() + planes * y, planes);
            std::memset(d + planes, 0, size_t(size.x));
        }
    } else if (separatePlanes) {
        il::rgbToKeyMask(dst.get(), rgb.bytes(), &size, key, nullptr);
    } else if (keyed) {
        il::rgbToRGBAKeyed(dst.get(), rgb.bytes(), &size, key, nullptr);
    } else {
        korImage_RGBToRGBA(dst.get(), rgb.bytes(), &size, nullptr);
    }
    if (outSize) *outSize = size;
    *out = dst.release();
    return 0;
}

int korImage_extReadFileToMap(uint8_t*** rows, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue,
                              int* count, const char* path, int type, const ImageSize* requested, int extended,
                              StopFunction stop) noexcept {
    (void)extended;  // no reader in the library takes it yet
    if (!rows || !red || !green || !blue || !count) return IMGERR_BADARG;
    type = resolveType(type, path);
    if (type < 0 || type > 29) return IMGERR_UNSUPPORTEDTYPE;
    OwnedImage img;
    Palette pal;
    bool trueColour = false;
    if (int st = decodeForMap(type, path, img, pal, trueColour, stop)) return st;

    if (trueColour) {
        OwnedImage rgb;
        int st = readRGB(rgb, path, type, requested, stop);
        if (st != 0) return st < 0 ? st : IMGERR_STOPPED;
        ImageSize sz = rgb.size();
        st = korImage_getOptimizedPalette(pal.red, pal.green, pal.blue, &pal.count, 256, rgb.bytes(), &sz, stop);
        if (st != 0) return stoppedStatus(st);
        uint8_t** packed = nullptr;
        st = korImage_RGBToPackByte(&packed, rgb.bytes(), &sz, pal.red, pal.green, pal.blue, pal.count, stop);
        if (st != 0) {
            if (packed) korImage_freeImage(packed, &sz, IMAGEFORMAT_PACKBYTE);
            return stoppedStatus(st);
        }
        img.reset(packed, sz, IMAGEFORMAT_PACKBYTE);
    } else if (requested && !sameSize(*requested, img.size())) {
        // Palette images are resized by nearest-neighbour stepping.
        size_t bytes = 0;
        if (!il::imageBytes(requested->x, requested->y, 1, &bytes)) return IMGERR_BADARG;
        auto** scaled = static_cast<uint8_t**>(dlmSystem_korCalloc(size_t(requested->y), sizeof(uint8_t*)));
        if (!scaled) return IMGERR_NOMEMORY;
        ImageSize from = img.size();
        int st = korImage_extractPackByteSubImage(scaled, requested, static_cast<uint8_t* const*>(img.get()), &from,
                                                  nullptr);
        if (st != 0) {
            korImage_freeImage(scaled, requested, IMAGEFORMAT_PACKBYTE);
            return st;
        }
        img.reset(scaled, *requested, IMAGEFORMAT_PACKBYTE);
    }
    std::memcpy(red, pal.red, 256);
    std::memcpy(green, pal.green, 256);
    std::memcpy(blue, pal.blue, 256);
    *count = pal.count;
    if (size) *size = img.size();
    *rows = static_cast<uint8_t**>(img.release());
    return 0;
}

int korImage_readFileToMap(uint8_t*** rows, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue, int* count,
                           const char* path, int type, const ImageSize* requested, StopFunction stop) noexcept {
    return korImage_extReadFileToMap(rows, size, red, green, blue, count, path, type, requested, 0, stop);
}

int korImage_readFileToBitMap(void** bitmap, ImageSize* size, const char* path, int type, int runLength,
                              StopFunction stop) noexcept {
    if (!bitmap) return IMGERR_BADARG;
    type = resolveType(type, path);
    if (type < 0) return type;
    ImageSize sz{};
    int st;
    switch (type) {
        case 9: st = imageBmp_readToBitMap(bitmap, &sz, runLength, path, stop); break;
        case 5: st = imagePcx_readToBitMap(bitmap, &sz, runLength, path, stop); break;
        case 28: {  // PNG asked for a bitmap
            uint8_t r[256], g[256], b[256];
            int n = 0;
            st = pngFile_read(bitmap, &sz, r, g, b, &n, path, COLORMODE_BILEVEL, runLength, stop);
            break;
        }
        case 0: case 3: case 29: st = tiff_readFileToBitMap(bitmap, &sz, runLength, path, stop); break;
        case 13: case 19: case 20: case 23:  // Intergraph
            st = ingr_readToBitMap(bitmap, &sz, runLength, path, stop);
            break;
        case 21: st = fax_readFileToBitMap(bitmap, &sz, path, stop); break;
        case 22: st = cals_readFileToBitMap(bitmap, &sz, runLength, path, stop); break;
        case 24: st = rlc_readFileToBitMap(bitmap, &sz, runLength, path, stop); break;
        default: st = IMGERR_UNSUPPORTEDTYPE; break;
    }
    if (st == 0 && size) *size = sz;
    return st;
}

int korImage_readPalette(uint8_t* red, uint8_t* green, uint8_t* blue, int* count, const char* path,
                         int type) noexcept {
    if (!red || !green || !blue || !count) return IMGERR_BADARG;
    type = resolveType(type, path);
    if (type < 0) return type;
    switch (type) {
        case 0: case 3: case 29: return tiff_readPalette(red, green, blue, count, path);
        case 13: case 17: case 19: case 20: case 23: case 25:  // Intergraph
            return ingr_readPalette(red, green, blue, count, path);
        default: return IMGERR_UNSUPPORTEDTYPE;
    }
}

int korImage_readFileToBuffer(void** buffer, int* imageFormat, int* colorMode, uint8_t* red, uint8_t* green,
                              uint8_t* blue, int* count, ImageSize* size, const char* path, int type, int forceRGB,
                              StopFunction stop) noexcept {
    if (!buffer || !size) return IMGERR_BADARG;
    // Null outputs are replaced by scratch.
    Palette scratch;
    int layoutScratch = 0, modeScratch = 0;
    if (!imageFormat) imageFormat = &layoutScratch;
    if (!colorMode) colorMode = &modeScratch;
    if (!count) count = &scratch.count;
    if (!red) red = scratch.red;
    if (!green) green = scratch.green;
    if (!blue) blue = scratch.blue;

    type = resolveType(type, path);
    if (type < 0) return type;
    int mode = 0;
    if (int st = korImage_readFileInfo(nullptr, &mode, nullptr, path, type)) return st;
    // An Intergraph raster's scan orientation would be applied here; the
    // Intergraph readers already hand out their pictures upright, so no
    // file leaves anything to turn.
    int orientation = -1;

    OwnedImage img;
    int layout = 0;
    ImageSize sz{};
    int st = 0;
    switch (mode) {
        case COLORMODE_RGB: {
            uint8_t* p = nullptr;
            st = korImage_readFileToRGB(&p, &sz, path, type, nullptr, stop);
            if (st < 0) return st;
            img.reset(p, sz, IMAGEFORMAT_RGB);
            layout = IMAGEFORMAT_RGB;
            break;
        }
        case COLORMODE_PALETTE16:
        case COLORMODE_PALETTE256:
        case COLORMODE_GREY: {
            uint8_t** rows = nullptr;
            st = korImage_readFileToMap(&rows, &sz, red, green, blue, count, path, type, nullptr, stop);
            if (st != 0) return st;
            OwnedImage packed(rows, sz, IMAGEFORMAT_PACKBYTE);
            uint8_t* map = nullptr;
            if (int s = il::packByteDecodeImage(&map, rows, &sz)) return s;
            img.reset(map, sz, IMAGEFORMAT_MAP);
            layout = IMAGEFORMAT_MAP;
            break;
        }
        case COLORMODE_BILEVEL: {
            void* rows = nullptr;
            st = korImage_readFileToBitMap(&rows, &sz, path, type, 1, stop);
            if (st != 0) return st;
            img.reset(rows, sz, IMAGEFORMAT_RLEBITMAP);
            layout = IMAGEFORMAT_RLEBITMAP;
            red[0] = green[0] = blue[0] = 255;
            red[1] = green[1] = blue[1] = 0;
            *count = 2;
            break;
        }
        case COLORMODE_RGBA: {
            uint8_t* p = nullptr;
            if (forceRGB) {
                st = korImage_readFileToRGB(&p, &sz, path, type, nullptr, stop);
                layout = IMAGEFORMAT_RGB;
                mode = COLORMODE_RGB;
            } else {
                st = korImage_readFileToRGBA(&p, &sz, path, type, nullptr, 0, 0, stop);
                layout = IMAGEFORMAT_RGBA;
            }
            if (st < 0) return st;
            img.reset(p, sz, layout);
            break;
        }
        default: return IMGERR_UNSUPPORTEDTYPE;
    }

    if (orientation >= 0) {
        void* p = img.release();
        ImageSize s = sz;
        if (korImage_convertToUpperLeftHorizontal(&p, &s, orientation, layout, stop) != 0) {
            korImage_freeImage(p, &s, layout);
            return IMGERR_NOMEMORY;
        }
        sz = s;
        img.reset(p, sz, layout);
    }

    if (forceRGB && layout != IMAGEFORMAT_RGB) {
        uint8_t* rgb = nullptr;
        int s;
        if (layout == IMAGEFORMAT_MAP) {
            s = korImage_extMapToRGB(&rgb, img.get(), &sz, red, green, blue, 0, stop);
        } else if (layout == IMAGEFORMAT_RLEBITMAP) {
            const uint8_t fg[3] = {red[1], green[1], blue[1]};
            const uint8_t bg[3] = {red[0], green[0], blue[0]};
            s = korImage_extBitMapToRGB(&rgb, img.get(), &sz, fg, bg, 1, stop);
        } else {
            return IMGERR_BADIMAGEFORMAT;
        }
        if (s != 0) {
            if (rgb) dlmSystem_korFree(rgb);
            return stoppedStatus(s);
        }
        img.reset(rgb, sz, IMAGEFORMAT_RGB);
        layout = IMAGEFORMAT_RGB;
        mode = COLORMODE_RGB;
        *count = 0;
    }
    *imageFormat = layout;
    *colorMode = mode;
    *size = sz;
    *buffer = img.release();
    return st;
}

}  // extern "C"
