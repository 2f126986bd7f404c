// Mirroring in place: rows top to bottom, or each row left to right.
#include <algorithm>
#include <cstring>
#include <utility>

#include "imagelib/geo.h"
#include "imagelib/pixels.h"
#include "internal/scratch.h"
#include "pixels/rotate.h"
#include "pixels/rows.h"

namespace {

size_t rowBytes(int format, int32_t width) {
    return format == IMAGEFORMAT_BITMAP ? (size_t(width) + 7) >> 3 : size_t(width) * il::pixelBytes(format);
}

// Mode 0: rows i and H - 1 - i change places.
int mirrorTopBottom(void* image, int32_t width, int32_t height, int format, StopFunction stop) {
    if (format == IMAGEFORMAT_RLEBITMAP || format == IMAGEFORMAT_PACKBYTE) {
        void** rows = static_cast<void**>(image);
        for (int32_t i = 0; i < height / 2; ++i) std::swap(rows[i], rows[height - 1 - i]);
        return 0;
    }
    const size_t n = rowBytes(format, width);
    il::Scratch<uint8_t> scratch(n, il::tag("BRim"));
    if (!scratch.ok()) return IMGERR_NOMEMORY;
    uint8_t* base = static_cast<uint8_t*>(image);
    for (int32_t i = 0; i < height / 2; ++i) {
        if (imageUtil_reportProgress(stop, height / 2, i) != 0) return IMGERR_STOPPED;
        uint8_t* a = base + size_t(i) * n;
        uint8_t* b = base + size_t(height - 1 - i) * n;
        std::memcpy(scratch.get(), a, n);
        std::memcpy(a, b, n);
        std::memcpy(b, scratch.get(), n);
    }
    return 0;
}

// Reverses the order of the pixels of `size` bytes in a row of n pixels.
void reversePixels(uint8_t* row, size_t n, size_t size) {
    if (size == 1) {
        std::reverse(row, row + n);
        return;
    }
    for (size_t i = 0, j = n - 1; i < j; ++i, --j)
        std::swap_ranges(row + i * size, row + (i + 1) * size, row + j * size);
}

// Mode 1 for the run-length and PackByte row tables: each row is decoded,
// reversed and encoded again in place of the old row.
int mirrorRunLengthRow(uint16_t** rows, int32_t y, int32_t width, uint8_t* bits, uint8_t* reversed) {
    if (!rows[y]) return 0;
    const size_t n = (size_t(width) + 7) >> 3;
    std::memset(bits, 0, n);
    if (il::rleDecodeRowBounded(bits, rows[y], il::runLimit(width), width) < 0) return IMGERR_BADFILE;
    il::reverseBitRow(reversed, bits, width);
    uint16_t* old = rows[y];
    if (il::storeRLEBitMapRow(rows, y, reversed, width) != 0) {
        rows[y] = old;
        return IMGERR_NOMEMORY;
    }
    dlmSystem_korFree(old);
    return 0;
}

int mirrorPackByteRow(uint8_t** rows, int32_t y, int32_t width, uint8_t* bytes) {
    if (!rows[y]) return 0;
    korImage_unpackByteBuffer(bytes, rows[y], width);
    std::reverse(bytes, bytes + width);
    return il::replacePackByteRow(rows, y, bytes, width) != 0 ? IMGERR_NOMEMORY : 0;
}

// Any other mode: each row left to right.
int mirrorLeftRight(void* image, int32_t width, int32_t height, int format, StopFunction stop) {
    const size_t w = size_t(width), bitRow = rowBytes(IMAGEFORMAT_BITMAP, width);
    // A scratch row where a row is rebuilt: the reversed bits, the decoded
    // and the reversed bits of a run-length row, the bytes of a PackByte row.
    const size_t scratchBytes = format == IMAGEFORMAT_BITMAP      ? bitRow
                                : format == IMAGEFORMAT_RLEBITMAP ? 2 * bitRow
                                : format == IMAGEFORMAT_PACKBYTE  ? w
                                                                  : 0;
    il::Scratch<uint8_t> scratch;
    if (scratchBytes &&
        !scratch.allocate(scratchBytes, format == IMAGEFORMAT_PACKBYTE ? il::tag("PBim") : il::tag("tRIm")))
        return IMGERR_NOMEMORY;
    const size_t n = rowBytes(format, width);
    for (int32_t y = 0; y < height; ++y) {
        if (imageUtil_reportProgress(stop, height, y) != 0) return IMGERR_STOPPED;
        int status = 0;
        uint8_t* row = format == IMAGEFORMAT_RLEBITMAP || format == IMAGEFORMAT_PACKBYTE
                           ? nullptr
                           : static_cast<uint8_t*>(image) + size_t(y) * n;
        switch (format) {
            case IMAGEFORMAT_BITMAP:
                il::reverseBitRow(scratch.get(), row, width);
                std::memcpy(row, scratch.get(), n);
                break;
            case IMAGEFORMAT_RLEBITMAP:
                status = mirrorRunLengthRow(static_cast<uint16_t**>(image), y, width, scratch.get(),
                                            scratch.get() + bitRow);
                break;
            case IMAGEFORMAT_PACKBYTE:
                status = mirrorPackByteRow(static_cast<uint8_t**>(image), y, width, scratch.get());
                break;
            case IMAGEFORMAT_RGB:  // each plane on its own
                for (size_t p = 0; p < 3; ++p) std::reverse(row + p * w, row + (p + 1) * w);
                break;
            default: reversePixels(row, w, il::pixelBytes(format)); break;
        }
        if (status != 0) return status;
    }
    return 0;
}

}  // namespace

extern "C" int korImage_mirror(void* image, const ImageSize* size, int format, int mode, StopFunction stop) noexcept {
    if (format < IMAGEFORMAT_BITMAP || format > IMAGEFORMAT_PACKBYTE) return IMGERR_BADARG;
    if (!image || !size || size->x <= 0 || size->y <= 0) return IMGERR_BADARG;
    return mode == 0 ? mirrorTopBottom(image, size->x, size->y, format, stop)
                     : mirrorLeftRight(image, size->x, size->y, format, stop);
}
