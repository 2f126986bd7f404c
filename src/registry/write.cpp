// Whole-image writing: which codec writes which file type, and the
// conversions that let a writer take a layout it has no writer for
// (palette images expanded to RGB, bitmaps given a two-entry palette,
// two-colour palette images written as bitmaps).
//
// Each entry point has one switch over the file type; a type whose writer
// is not in the library yet answers IMGERR_UNSUPPORTEDTYPE from its case.
// The caller's buffers are never changed: conversions work on copies.
#include <cstring>

#include "codecs/libs/jpeg.h"
#include "codecs/libs/png.h"
#include "codecs/libs/tiff.h"
#include "codecs/intergraph/cals.h"
#include "codecs/intergraph/ingr.h"
#include "codecs/native/bmp.h"
#include "codecs/native/eps.h"
#include "codecs/native/flic.h"
#include "codecs/native/gif.h"
#include "codecs/native/pcx.h"
#include "codecs/native/pict.h"
#include "codecs/native/sun.h"
#include "codecs/native/pa.h"
#include "codecs/native/wpg.h"
#include "imagelib/io.h"
#include "imagelib/pixels.h"
#include "imagelib/registry.h"
#include "internal/checked.h"
#include "pixels/rows.h"
#include "registry/dispatch.h"
#include "registry/stream.h"

namespace il::dispatch {

namespace {

// The type to write: as given when 0 or more, else from the contents (an
// existing file) or the name.
int writeType(int type, const char* path) {
    int t = korImage_fileType(type, path);
    return t < 0 ? IMGERR_UNSUPPORTEDTYPE : t;
}

// Expands a byte map or PackByte rows to row-planar RGB.
int expandToRGB(OwnedImage& rgb, const void* image, bool packed, const ImageSize* size, const uint8_t* red,
                const uint8_t* green, const uint8_t* blue) {
    uint8_t* p = nullptr;
    int st = korImage_extMapToRGB(&p, image, size, red, green, blue, packed ? 1 : 0, nullptr);
    if (st != 0) {
        if (p) dlmSystem_korFree(p);
        return st > 0 ? IMGERR_STOPPED : st;
    }
    rgb.reset(p, *size, IMAGEFORMAT_RGB);
    return 0;
}

// The transparent colour that the PNG writer is given through `option`:
// bit 24 set marks 0xRRGGBB in the low 24 bits as the colour; 0 means none.
const uint8_t* pngTransparency(int option, uint8_t rgb[3]) {
    if (!(option & 0x1000000)) return nullptr;
    rgb[0] = uint8_t(option >> 16), rgb[1] = uint8_t(option >> 8), rgb[2] = uint8_t(option);
    return rgb;
}

// JPEG from a palette image: grey levels of the palette for colour mode 4,
// else the colours expanded to RGB.
int jpegFromPalette(const char* path, int colourMode, const ImageSize* size, const void* image, bool packed,
                    const uint8_t* red, const uint8_t* green, const uint8_t* blue, int count, StopFunction stop) {
    const int quality = jpegQuality(90);
    if (colourMode != COLORMODE_GREY) {
        OwnedImage rgb;
        if (int st = expandToRGB(rgb, image, packed, size, red, green, blue)) return st;
        return jpegFile_create(path, size, rgb.bytes(), quality, COLORMODE_RGB, 0, stop);
    }
    Palette pal;
    std::memcpy(pal.red, red, 256);
    std::memcpy(pal.green, green, 256);
    std::memcpy(pal.blue, blue, 256);
    pal.count = count;
    size_t bytes = 0;
    if (!il::imageBytes(size->x, size->y, 1, &bytes)) return IMGERR_BADARG;
    il::CallerBuffer<uint8_t> grey = il::callerBytes(bytes);
    if (!grey) return IMGERR_NOMEMORY;
    const void* map = image;
    uint8_t* decoded = nullptr;
    if (packed) {
        if (int st = il::packByteDecodeImage(&decoded, static_cast<uint8_t* const*>(image), size)) return st;
        map = decoded;
    }
    int st = korImage_convertToGreyScale(grey.get(), pal.red, pal.green, pal.blue, &pal.count, map, size,
                                         IMAGEFORMAT_MAP, stop);
    if (decoded) dlmSystem_korFree(decoded);
    if (st != 0) return st;
    return jpegFile_create(path, size, grey.get(), quality, COLORMODE_GREY, 1, stop);
}

// The palette writers of korImage_createFileFromMap and the PackByte
// writer: the image is a byte map, or PackByte rows when packed is set.
// IMGERR_UNSUPPORTEDTYPE for a type without one (the caller then expands).
int writePalette(const char* path, int type, int colourMode, const ImageSize* size, const void* image, bool packed,
                 const uint8_t* red, const uint8_t* green, const uint8_t* blue, int count, StopFunction stop) {
    switch (type) {
        case 9:
            return imageBmp_writeFromMap(path, image, red, green, blue, count, size, colourMode, packed ? 1 : 0,
                                         stop);
        case 5:
            return imagePcx_writeFromMap(path, image, red, green, blue, count, size, colourMode, packed ? 1 : 0,
                                         stop);
        case 10:
            return imageSun_writeFromMap(path, image, red, green, blue, count, size, colourMode, packed ? 1 : 0,
                                         stop);
        case 14: case 15:  // FLI/FLC, one frame
            return imageFlic_writeFromMap(path, image, red, green, blue, count, size, packed ? 1 : 0, type == 15, stop);
        case 11:
            return imageP_writeFromMap(path, image, red, green, blue, count, size, colourMode, packed ? 1 : 0, stop);
        case 7:
            return imageGif_writeFromMap(path, image, red, green, blue, count, size, colourMode, packed ? 1 : 0,
                                         stop);
        case 4:
            return imagePict_writeFromMap(path, image, red, green, blue, count, size, colourMode, packed ? 1 : 0,
                                          stop);
        case 8:
            return imageWpg_writeFromMap(path, image, red, green, blue, count, size, colourMode, packed ? 1 : 0,
                                         stop);
        case 18: return jpegFromPalette(path, colourMode, size, image, packed, red, green, blue, count, stop);
        case 28:
            return pngFile_create(path, image, size, colourMode, packed ? IMAGEFORMAT_PACKBYTE : IMAGEFORMAT_MAP, red,
                                  green, blue, count, nullptr, stop);
        case 0: case 3: case 29: {  // TIFF palette writer (compression argument 0 for type 0, 1 otherwise)
            TiffMapOptions o{count, *size, colourMode, type == 0 ? 0 : 1, packed ? 1 : 0, stop};
            return tiff_createFileFromMap(path, image, red, green, blue, &o);
        }
        case 13:
            return ingr_createRLEFromMap(path, image, red, green, blue, count, size, colourMode, packed ? 1 : 0, stop);
        case 17:
            return ingr_createCOTFromMap(path, image, red, green, blue, count, size, colourMode, packed ? 1 : 0, stop);
        case 19:
            return ingr_createCITFromMap(path, image, red, green, blue, count, size, colourMode, packed ? 1 : 0, stop);
        case 22:
            return cals_createFileFromMap(path, image, red, green, blue, count, size, colourMode, packed ? 1 : 0,
                                          stop);
        default: return IMGERR_UNSUPPORTEDTYPE;
    }
}

// The types with a palette writer (taking a byte map or PackByte rows).
bool hasPaletteWriter(int type) {
    switch (type) {
        case 0: case 3: case 29: case 4: case 5: case 7: case 8: case 9: case 10: case 11:
        case 13: case 14: case 15: case 17: case 18: case 19: case 22: case 28: return true;
        default: return false;
    }
}

// A palette image (byte map, or PackByte rows when packed) through its
// type's palette writer when the palette fits the colour mode (PNG takes any
// palette, but not in RGB mode), else expanded to RGB and written as such.
int writePaletteImage(const char* path, int type, int colourMode, const ImageSize* size, const void* image,
                      bool packed, const uint8_t* red, const uint8_t* green, const uint8_t* blue, int count,
                      StopFunction stop) {
    const bool fits = paletteFits(colourMode, count) || type == 28;
    const bool pngRGB = type == 28 && colourMode == COLORMODE_RGB;
    if (fits && !pngRGB && hasPaletteWriter(type))
        return writePalette(path, type, colourMode, size, image, packed, red, green, blue, count, stop);
    OwnedImage rgb;
    if (int st = expandToRGB(rgb, image, packed, size, red, green, blue)) return st;
    // The expanded image has three planes: alpha asked for is written as RGB.
    if (colourMode == COLORMODE_RGBA) colourMode = COLORMODE_RGB;
    return korImage_createFileFromRGB(path, type, colourMode, size, rgb.bytes(), stop);
}

// Bitmap rows to PackByte rows of 0 and 1 bytes.
int bitmapToPackByte(OwnedImage& out, const void* bitmap, bool runLength, const ImageSize* size) {
    size_t bytes = 0;
    if (!il::imageBytes(size->x, size->y, 1, &bytes)) return IMGERR_BADARG;
    auto** rows = static_cast<uint8_t**>(dlmSystem_korCalloc(size_t(size->y), sizeof(uint8_t*)));
    if (!rows) return IMGERR_NOMEMORY;
    out.reset(rows, *size, IMAGEFORMAT_PACKBYTE);
    const size_t rowBytes = (size_t(size->x) + 7) / 8;
    il::Scratch<uint8_t> bits(rowBytes, il::tag("b2pB"));
    il::Scratch<uint8_t> values(size_t(size->x), il::tag("b2pV"));
    if (!bits.ok() || !values.ok()) return IMGERR_NOMEMORY;
    for (int y = 0; y < size->y; ++y) {
        const uint8_t* row;
        if (runLength) {
            std::memset(bits.get(), 0, rowBytes);
            korImage_runLengthDecodeBitMapRow(bits.get(), static_cast<uint16_t* const*>(bitmap)[y], size->x);
            row = bits.get();
        } else {
            row = static_cast<const uint8_t*>(bitmap) + rowBytes * y;
        }
        korImage_unpackBuffer(values.get(), row, 1, size->x);
        if (int st = il::storePackByteRow(rows, y, values.get(), size->x)) return st;
    }
    return 0;
}

}  // namespace

int streamWriteImage(const char* path, int type, int colourMode, const ImageSize* size, const uint8_t* rgb,
                     StopFunction stop) noexcept {
    int st = 0;
    ImageFileContext* ctx = korImage_createFile(&st, path, nullptr, size, type, colourMode);
    if (!ctx) return st;
    const bool alpha = ctx->alpha != 0;
    const size_t x = size_t(size->x);
    const size_t rowBytes = x * (colourMode == COLORMODE_RGBA ? 4 : 3);
    const bool bottomUp = il::stream::orientationBits(ctx) == il::stream::kRowsBottomUp;
    int result = 0;
    for (int i = 0; i < size->y; ++i) {
        if (int stop_ = imageUtil_reportProgress(stop, size->y, i)) {
            result = stop_;
            break;
        }
        const uint8_t* r = rgb + rowBytes * size_t(bottomUp ? size->y - 1 - i : i);
        st = korImage_putRow(ctx, r, r + x, r + 2 * x, alpha ? r + 3 * x : nullptr);
        if (st != 0) {
            result = st;
            break;
        }
    }
    int closed = korImage_closeFile(ctx);
    return result != 0 ? result : closed;
}

}  // namespace il::dispatch

using namespace il::dispatch;

extern "C" {

int korImage_extCreateFileFromRGB(const char* path, int type, int colorMode, const ImageSize* size,
                                  const uint8_t* rgb, int compression, int option, StopFunction stop) noexcept {
    uint8_t key[3];
    (void)option;  // for the PNG writer
    if (!rgb || !size || size->x <= 0 || size->y <= 0) return IMGERR_BADARG;
    type = writeType(type, path);
    if (type < 0 || type > 39) return IMGERR_UNSUPPORTEDTYPE;
    switch (type) {
        case 1: case 2: return streamWriteImage(path, type, colorMode, size, rgb, stop);
        case 9: return imageBmp_writeFromRGB(path, rgb, size, colorMode, stop);
        case 5: return imagePcx_writeFromRGB(path, rgb, size, colorMode, stop);
        case 10: return imageSun_writeFromRGB(path, rgb, size, colorMode, stop);
        case 14: case 15: return imageFlic_writeFromRGB(path, rgb, size, colorMode, type == 15, stop);  // FLI/FLC
        case 11: return imageP_writeFromRGB(path, rgb, size, colorMode, stop);
        case 12: return imageA_writeFromRGB(path, rgb, size, stop);  // not given the colour mode
        case 7:  // not listed for export, on purpose; alpha as the transparent index
            return colorMode == COLORMODE_RGBA ? imageGif_writeFromRGBA(path, rgb, size, stop)
                                               : imageGif_writeFromRGB(path, rgb, size, colorMode, stop);
        case 4: return imagePict_writeFromRGB(path, rgb, size, colorMode, stop);
        case 6: return imageEps_writeFromRGB(path, rgb, size, colorMode, stop);
        case 8: return imageWpg_writeFromRGB(path, rgb, size, colorMode, stop);
        case 18:
            return jpegFile_create(path, size, rgb, jpegQuality(compression), COLORMODE_RGB,
                                   colorMode == COLORMODE_GREY, stop);
        case 28:
            return pngFile_create(path, rgb, size, colorMode, IMAGEFORMAT_RGB, nullptr, nullptr, nullptr, 0,
                                  pngTransparency(option, key), stop);
        case 0: return tiff_createFileFromRGB(path, rgb, size, colorMode, 0, stop);  // compression forced to 0
        case 3: case 29: return tiff_createFileFromRGB(path, rgb, size, colorMode, compression, stop);
        case 13: return ingr_createRLEFromRGB(path, rgb, size, stop);
        case 17: return ingr_createCOTFromRGB(path, rgb, size, colorMode, stop);
        case 19: return ingr_createCITFromRGB(path, rgb, size, stop);
        case 22: return cals_createFileFromRGB(path, rgb, size, stop);
        case 39:                  // EPX
        default: return IMGERR_UNSUPPORTEDTYPE;
    }
}

int korImage_createFileFromRGB(const char* path, int type, int colorMode, const ImageSize* size, const uint8_t* rgb,
                               StopFunction stop) noexcept {
    return korImage_extCreateFileFromRGB(path, type, colorMode, size, rgb, 90, 0, stop);
}

int korImage_createFileFromMap(const char* path, int type, int colorMode, const ImageSize* size, const uint8_t* map,
                               const uint8_t* red, const uint8_t* green, const uint8_t* blue, int count,
                               StopFunction stop) noexcept {
    if (!map || !red || !green || !blue || !size || size->x <= 0 || size->y <= 0) return IMGERR_BADARG;
    type = writeType(type, path);
    if (type < 0) return type;
    return writePaletteImage(path, type, colorMode, size, map, false, red, green, blue, count, stop);
}

int korImage_extCreateFileFromMap(const char* path, int type, int colorMode, const ImageSize* size,
                                  const uint8_t* map, const uint8_t* red, const uint8_t* green, const uint8_t* blue,
                                  int count, int compression, int option, StopFunction stop) noexcept {
    if (!map || !red || !green || !blue || !size || size->x <= 0 || size->y <= 0) return IMGERR_BADARG;
    type = writeType(type, path);
    if (type < 0) return type;
    switch (type) {
        case 28: {  // PNG palette writer with option (korImage_createFileFromMap when unsuitable)
            if (colorMode < COLORMODE_PALETTE16 || colorMode > COLORMODE_GREY)
                return korImage_createFileFromMap(path, type, colorMode, size, map, red, green, blue, count, stop);
            uint8_t key[3];
            return pngFile_create(path, map, size, colorMode, IMAGEFORMAT_MAP, red, green, blue, count,
                                  pngTransparency(option, key), stop);
        }
        case 3: case 29: {  // TIFF palette writer with the given compression
            TiffMapOptions o{count, *size, colorMode, compression, 0, stop};
            return tiff_createFileFromMap(path, map, red, green, blue, &o);
        }
        case 0: case 4: case 5: case 7: case 8: case 9: case 10: case 11: case 13: case 14: case 15: case 17:
        case 19: case 22:
            return korImage_createFileFromMap(path, type, colorMode, size, map, red, green, blue, count, stop);
        case 1: case 2: case 6: case 12: case 16: case 18: case 20: case 21: case 23: case 24: case 25: case 26:
        case 27: {
            OwnedImage rgb;
            if (int st = expandToRGB(rgb, map, false, size, red, green, blue)) return st;
            return korImage_extCreateFileFromRGB(path, type, colorMode, size, rgb.bytes(), compression, option,
                                                 stop);
        }
        default: return IMGERR_UNSUPPORTEDTYPE;
    }
}

int korImage_createFileFromBitMap(const char* path, int type, const ImageSize* size, const void* bitmap,
                                  int runLength, const uint8_t* background, const uint8_t* foreground,
                                  StopFunction stop) noexcept {
    if (!bitmap || !size || size->x <= 0 || size->y <= 0) return IMGERR_BADARG;
    type = writeType(type, path);
    if (type < 0) return type;
    static const uint8_t kWhite[3] = {255, 255, 255}, kBlack[3] = {0, 0, 0};
    const uint8_t* bg = background ? background : kWhite;
    const uint8_t* fg = foreground ? foreground : kBlack;

    // Black background under white foreground: the writers see the bitmap
    // inverted, so that set bits are always the dark ones.
    OwnedImage inverted;
    if (background && foreground && background[0] == 0 && background[1] == 0 && background[2] == 0 &&
        foreground[0] == 255 && foreground[1] == 255 && foreground[2] == 255) {
        void* copy = nullptr;
        if (int st = korImage_invertBitMap(&copy, bitmap, size, runLength)) return st;
        inverted.reset(copy, *size, runLength ? IMAGEFORMAT_RLEBITMAP : IMAGEFORMAT_BITMAP);
        bitmap = copy;
        // The copy's set bits are the dark pixels now: its palette is the
        // given one with the two entries exchanged.
        std::swap(bg, fg);
    }

    switch (type) {
        case 9: return imageBmp_writeFromBitMap(path, bitmap, runLength, size, stop);
        case 28:
            return pngFile_create(path, bitmap, size, COLORMODE_BILEVEL,
                                  runLength ? IMAGEFORMAT_RLEBITMAP : IMAGEFORMAT_BITMAP, nullptr, nullptr, nullptr, 0,
                                  nullptr, stop);
        case 0: return tiff_createFileFromBitMap(path, bitmap, runLength, size, 0, 0, stop);
        case 3: case 29: {  // Group 4; black on white is written min-is-white
            const bool blackOnWhite = fg[0] == 0 && fg[1] == 0 && fg[2] == 0 && bg[0] == 255 && bg[1] == 255 &&
                                      bg[2] == 255;
            return tiff_createFileFromBitMap(path, bitmap, runLength, size, 4, blackOnWhite ? 1 : 0, stop);
        }
        case 13: return ingr_createRLEFromBitMap(path, bitmap, runLength, size, stop);
        case 19: return ingr_createCITFromBitMap(path, bitmap, runLength, size, stop);
        case 22: return cals_createFileFromBitMap(path, bitmap, runLength, size, stop);
        default: break;
    }
    OwnedImage rows;
    if (int st = bitmapToPackByte(rows, bitmap, runLength != 0, size)) return st;
    uint8_t red[256] = {bg[0], fg[0]}, green[256] = {bg[1], fg[1]}, blue[256] = {bg[2], fg[2]};
    return korImage_createFileFromPackByte(path, type, COLORMODE_PALETTE256, size,
                                           static_cast<uint8_t* const*>(rows.get()), red, green, blue, 2, stop);
}

int korImage_createFileFromPackByte(const char* path, int type, int colorMode, const ImageSize* size,
                                    uint8_t* const* rows, const uint8_t* red, const uint8_t* green,
                                    const uint8_t* blue, int count, StopFunction stop) noexcept {
    if (!rows || !red || !green || !blue || !size || size->x <= 0 || size->y <= 0) return IMGERR_BADARG;
    type = writeType(type, path);
    if (type < 0) return type;
    if (colorMode == COLORMODE_BILEVEL && paletteFits(colorMode, count)) {
        // Two colours: written as a bitmap, set bits for the darker entry.
        size_t bytes = 0;
        if (!il::imageBytes((size->x + 7) / 8, size->y, 1, &bytes)) return IMGERR_BADARG;
        il::CallerBuffer<uint8_t> bits = il::callerBytes(bytes, true);
        if (!bits) return IMGERR_NOMEMORY;
        // The grey levels of the two entries, thresholded half-way between
        // the darker and the lighter one.
        int st = korImage_packByteToBitMap(bits.get(), rows, red, green, blue, count, size, 1);
        if (st != 0) return st;
        return korImage_createFileFromBitMap(path, type, size, bits.get(), 0, nullptr, nullptr, stop);
    }
    return writePaletteImage(path, type, colorMode, size, rows, true, red, green, blue, count, stop);
}

int korImage_createFileFromBuffer(const char* path, int type, int colorMode, const ImageSize* size,
                                  const void* buffer, int imageFormat, const uint8_t* red, const uint8_t* green,
                                  const uint8_t* blue, int count, int compression, StopFunction stop) noexcept {
    if (!buffer || !size) return IMGERR_BADARG;
    switch (imageFormat) {
        case IMAGEFORMAT_BITMAP:
        case IMAGEFORMAT_RLEBITMAP: {
            uint8_t bg[3] = {255, 255, 255}, fg[3] = {0, 0, 0};
            const bool colours = red && green && blue;
            if (colours) {
                bg[0] = red[0], bg[1] = green[0], bg[2] = blue[0];
                fg[0] = red[1], fg[1] = green[1], fg[2] = blue[1];
            }
            return korImage_createFileFromBitMap(path, type, size, buffer, imageFormat == IMAGEFORMAT_RLEBITMAP,
                                                 colours ? bg : nullptr, colours ? fg : nullptr, stop);
        }
        case IMAGEFORMAT_MAP:
        case IMAGEFORMAT_MAP2:
            return korImage_extCreateFileFromMap(path, type, colorMode, size, static_cast<const uint8_t*>(buffer), red,
                                                 green, blue, count, compression, 0, stop);
        case IMAGEFORMAT_RGB:
            return korImage_extCreateFileFromRGB(path, type, colorMode, size, static_cast<const uint8_t*>(buffer),
                                                 compression, 0, stop);
        case IMAGEFORMAT_RGB2: {
            // Interleaved pixels: the writers take row planes, so convert a copy.
            size_t bytes = 0;
            if (!il::imageBytes(size->x, size->y, 3, &bytes)) return IMGERR_BADARG;
            il::CallerBuffer<uint8_t> planes = il::callerBytes(bytes);
            if (!planes) return IMGERR_NOMEMORY;
            int st = korImage_RGBToRGBSeparate(planes.get(), static_cast<const uint8_t*>(buffer), size,
                                               IMAGEFORMAT_RGB, nullptr);
            if (st != 0) return st;
            return korImage_extCreateFileFromRGB(path, type, colorMode, size, planes.get(), compression, 0, stop);
        }
        case IMAGEFORMAT_PACKBYTE: {
            int t = writeType(type, path);
            if (t < 0) return t;
            if (hasPaletteWriter(t))
                return korImage_createFileFromPackByte(path, t, colorMode, size, static_cast<uint8_t* const*>(buffer),
                                                       red, green, blue, count, stop);
            OwnedImage rgb;
            if (int st = expandToRGB(rgb, buffer, true, size, red, green, blue)) return st;
            return korImage_extCreateFileFromRGB(path, t, colorMode, size, rgb.bytes(), compression, 0, stop);
        }
        default: return IMGERR_BADARG;
    }
}

int korImage_createRasterFile(const char* path, int type, int colorMode, const ImageSize* size, const void* buffer,
                              int imageFormat, const uint8_t* red, const uint8_t* green, const uint8_t* blue,
                              int count, int compression, StopFunction stop) noexcept {
    return korImage_createFileFromBuffer(path, type, colorMode, size, buffer, imageFormat, red, green, blue, count,
                                         compression, stop);
}

}  // extern "C"
