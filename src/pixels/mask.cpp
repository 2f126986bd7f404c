// Transparency masks: one bit a pixel (layout 1, a set bit marks a
// transparent pixel), made from a colour with a tolerance, from a palette
// index or from an alpha plane by a threshold, and applied to RGB to give
// RGBA.
#include <cstdlib>
#include <cstring>

#include "imagelib/pixels.h"
#include "internal/checked.h"
#include "pixels/bits.h"

namespace {

bool validSize(const ImageSize* size) { return size && size->x > 0 && size->y > 0; }

// The three colour bytes of pixel x of row y: their offsets within the row
// and the step from one pixel to the next, by layout.
struct Pixels {
    size_t rowBytes, step, green, blue;
};

bool colourLayout(int format, size_t w, Pixels& p) {
    switch (format) {
        case IMAGEFORMAT_RGB: p = {3 * w, 1, w, 2 * w}; return true;
        case IMAGEFORMAT_RGB2: p = {3 * w, 3, 1, 2}; return true;
        case IMAGEFORMAT_RGBA: p = {4 * w, 4, 1, 2}; return true;
        default: return false;
    }
}

// Builds the mask row by row: test(row, x) says whether pixel x is
// transparent. Returns the stop poll's nonzero answer (rows done so far
// stay written).
template <class Test>
int buildMask(uint8_t* mask, const ImageSize* size, StopFunction stop, Test test) {
    const size_t w = size_t(size->x), rowBytes = il::bits::rowBytes(w);
    for (int y = 0; y < size->y; ++y) {
        if (int st = imageUtil_reportProgress(stop, size->y, y)) return st;
        uint8_t* out = mask + rowBytes * size_t(y);
        std::memset(out, 0, rowBytes);
        for (size_t x = 0; x < w; ++x)
            if (test(size_t(y), x)) out[x >> 3] |= uint8_t(0x80u >> (x & 7));
    }
    return 0;
}

}  // namespace

extern "C" {

int korImage_makeColourMask(uint8_t* mask, const void* image, const ImageSize* size, int imageFormat,
                            const uint8_t* colour, int tolerance, StopFunction stop) noexcept {
    Pixels p{};
    if (!mask || !image || !colour || !validSize(size) || tolerance < 0) return IMGERR_BADARG;
    if (!colourLayout(imageFormat, size_t(size->x), p)) return IMGERR_BADIMAGEFORMAT;
    const auto* src = static_cast<const uint8_t*>(image);
    const int r = colour[0], g = colour[1], b = colour[2];
    return buildMask(mask, size, stop, [&](size_t y, size_t x) {
        const uint8_t* q = src + p.rowBytes * y + p.step * x;
        return std::abs(q[0] - r) <= tolerance && std::abs(q[p.green] - g) <= tolerance &&
               std::abs(q[p.blue] - b) <= tolerance;
    });
}

int korImage_makeIndexMask(uint8_t* mask, const uint8_t* map, const ImageSize* size, int index,
                           StopFunction stop) noexcept {
    if (!mask || !map || !validSize(size) || index < 0 || index > 255) return IMGERR_BADARG;
    const size_t w = size_t(size->x);
    return buildMask(mask, size, stop, [&](size_t y, size_t x) { return map[w * y + x] == index; });
}

int korImage_makeAlphaMask(uint8_t* mask, const uint8_t* image, const ImageSize* size, int imageFormat,
                           int threshold, StopFunction stop) noexcept {
    if (!mask || !image || !validSize(size) || threshold < 0 || threshold > 256) return IMGERR_BADARG;
    const size_t w = size_t(size->x);
    // Layout 7: every fourth byte; row-planar with alpha (5): the fourth plane.
    size_t first, step;
    if (imageFormat == IMAGEFORMAT_RGBA) first = 3, step = 4;
    else if (imageFormat == IMAGEFORMAT_RGB) first = 3 * w, step = 1;
    else return IMGERR_BADIMAGEFORMAT;
    return buildMask(mask, size, stop,
                     [&](size_t y, size_t x) { return image[4 * w * y + first + step * x] < threshold; });
}

int korImage_applyMask(uint8_t* rgba, const uint8_t* rgb, const ImageSize* size, const uint8_t* mask,
                       int separatePlanes, StopFunction stop) noexcept {
    if (!rgba || !rgb || !mask || !validSize(size)) return IMGERR_BADARG;
    const size_t w = size_t(size->x), maskRow = il::bits::rowBytes(w);
    for (int y = 0; y < size->y; ++y) {
        if (int st = imageUtil_reportProgress(stop, size->y, y)) return st;
        const uint8_t* r = rgb + 3 * w * size_t(y);
        const uint8_t* m = mask + maskRow * size_t(y);
        uint8_t* d = rgba + 4 * w * size_t(y);
        if (separatePlanes) {
            std::memcpy(d, r, 3 * w);
            for (size_t x = 0; x < w; ++x) d[3 * w + x] = (m[x >> 3] & (0x80u >> (x & 7))) ? 0 : 255;
            continue;
        }
        const uint8_t *g = r + w, *b = g + w;
        for (size_t x = 0; x < w; ++x, d += 4) {
            d[0] = r[x];
            d[1] = g[x];
            d[2] = b[x];
            d[3] = (m[x >> 3] & (0x80u >> (x & 7))) ? 0 : 255;
        }
    }
    return 0;
}

}  // extern "C"
