// Bitmap utilities: doubling, and grey levels (from grey bytes, byte maps,
// PackByte rows or RGB) reduced to a one-bit bitmap.
#include <algorithm>
#include <cstring>

#include "internal/checked.h"
#include "internal/scratch.h"
#include "pixels/bits.h"
#include "pixels/rows.h"

namespace {

// Ordered-dither thresholds, indexed [column mod 8][row mod 8] (the first
// index is the column phase; the dot pattern depends on that).
constexpr uint8_t kOrderedDither[8][8] = {
    {0, 32, 8, 40, 2, 34, 10, 42},  {48, 16, 56, 24, 50, 18, 58, 26}, {12, 44, 4, 36, 14, 46, 6, 38},
    {60, 28, 52, 20, 62, 30, 54, 22}, {3, 35, 11, 43, 1, 33, 9, 41},   {51, 19, 59, 27, 49, 17, 57, 25},
    {15, 47, 7, 39, 13, 45, 5, 37},  {63, 31, 55, 23, 61, 29, 53, 21}};

uint8_t clampByte(int v) { return uint8_t(std::clamp(v, 0, 255)); }

void orderedDither(uint8_t* dst, const uint8_t* grey, size_t width, size_t height, size_t stride) {
    for (size_t y = 0; y < height; ++y, grey += width, dst += stride) {
        for (size_t x = 0; x < width; ++x)
            if ((grey[x] >> 2) <= kOrderedDither[x & 7][y & 7]) dst[x >> 3] |= uint8_t(0x80u >> (x & 7));
    }
}

// Error diffusion between two levels, in place on the grey rows.
void diffuse(uint8_t* dst, uint8_t* grey, size_t width, size_t height, size_t stride, int low, int high) {
    int threshold = (low + high) / 2;
    for (size_t y = 0; y < height; ++y, grey += width, dst += stride) {
        uint8_t* next = y + 1 < height ? grey + width : nullptr;
        for (size_t x = 0; x < width; ++x) {
            int g = grey[x], e;
            if (g <= threshold) {
                dst[x >> 3] |= uint8_t(0x80u >> (x & 7));
                e = g - low;
            } else {
                e = g - high;
            }
            bool right = x + 1 < width;
            if (right) grey[x + 1] = clampByte(grey[x + 1] + 7 * e / 16);
            if (next) {
                if (x > 0) next[x - 1] = clampByte(next[x - 1] + 3 * e / 16);
                next[x] = clampByte(next[x] + 5 * e / 16);
                if (right) next[x + 1] = clampByte(next[x + 1] + e / 16);
            }
        }
    }
}

bool sizeOk(const ImageSize* size) { return size && size->x >= 0 && size->y >= 0; }

// Grey scratch of width x height, filled by toGrey(grey, &darkest, &lightest),
// then reduced to the bitmap.
template <class ToGrey>
int viaGrey(uint8_t* dst, const ImageSize* size, int method, ToGrey toGrey) {
    if (!dst || !sizeOk(size)) return IMGERR_BADARG;
    size_t bytes;
    if (!il::mulSize(size_t(size->x), size_t(size->y), &bytes)) return IMGERR_NOMEMORY;
    il::Scratch<uint8_t> grey(bytes, il::tag("GryB"));
    if (!grey.ok()) return IMGERR_NOMEMORY;
    int darkest = 0, lightest = 0;
    int st = toGrey(grey.get(), &darkest, &lightest);
    if (st != 0) return st;
    return korImage_greyScaleToBitMap(dst, grey.get(), size, darkest, lightest, method);
}

}  // namespace

extern "C" {

uint8_t* korImage_doubleImage(uint8_t* dst, const uint8_t* src, const ImageSize* size, int bytesPerPixel) noexcept {
    if (!dst || !src || !sizeOk(size) || bytesPerPixel <= 0) return dst;
    size_t rowBytes = size_t(size->x) * size_t(bytesPerPixel);
    for (int32_t y = 0; y < size->y; ++y, src += rowBytes) {
        uint8_t* row = dst;
        for (size_t i = 0; i < rowBytes; ++i) {
            dst[0] = dst[1] = src[i];
            dst += 2;
        }
        std::memcpy(dst, row, 2 * rowBytes);
        dst += 2 * rowBytes;
    }
    return dst;
}

int korImage_greyScaleToBitMap(uint8_t* dst, uint8_t* grey, const ImageSize* size, int low, int high,
                               int method) noexcept {
    if (method != 0 && method != 1) return IMGERR_BADARG;
    if (!dst || !grey || !sizeOk(size)) return IMGERR_BADARG;
    size_t width = size_t(size->x), height = size_t(size->y), stride = il::bits::rowBytes(width), bytes;
    if (!il::mulSize(stride, height, &bytes)) return IMGERR_BADARG;
    std::memset(dst, 0, bytes);
    if (method == 0)
        orderedDither(dst, grey, width, height, stride);
    else
        diffuse(dst, grey, width, height, stride, low, high);
    return 0;
}

int korImage_byteMapToBitMap(uint8_t* dst, const uint8_t* map, const uint8_t* red, const uint8_t* green,
                             const uint8_t* blue, int count, const ImageSize* size, int method) noexcept {
    return viaGrey(dst, size, method, [&](uint8_t* grey, int* darkest, int* lightest) {
        return korImage_byteMapToGreyScale(grey, darkest, lightest, map, red, green, blue, count, size);
    });
}

int korImage_packByteToBitMap(uint8_t* dst, uint8_t* const* rows, const uint8_t* red, const uint8_t* green,
                              const uint8_t* blue, int count, const ImageSize* size, int method) noexcept {
    return viaGrey(dst, size, method, [&](uint8_t* grey, int* darkest, int* lightest) {
        return korImage_packByteToGreyScale(grey, darkest, lightest, rows, red, green, blue, count, size);
    });
}

int korImage_rgbToBitMap(uint8_t* dst, const uint8_t* rgb, const ImageSize* size, int method) noexcept {
    return viaGrey(dst, size, method, [&](uint8_t* grey, int* darkest, int* lightest) {
        return korImage_rgbToGreyScale(grey, darkest, lightest, rgb, size);
    });
}

}  // extern "C"
