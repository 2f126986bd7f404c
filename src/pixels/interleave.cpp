// Conversions between row-planar RGB(A) and interleaved pixels, and the
// keyed alpha and mask rows.
#include <cstring>

#include "internal/scratch.h"
#include "pixels/colour.h"
#include "pixels/rgbrows.h"

namespace {

bool sizeOk(const ImageSize* size) { return size && size->x >= 0 && size->y >= 0; }

// Runs fn(out, in) over the rows of an image whose input rows take inRow
// bytes and output rows outRow bytes, polling the stop function before
// each row and returning its nonzero answer. A null dst or src means in
// place: each row is then converted into a scratch row and copied back, so
// in place works whenever outRow <= inRow.
template <class RowFn>
int convertRows(uint8_t* dst, const uint8_t* src, const ImageSize* size, size_t inRow, size_t outRow,
                StopFunction stop, RowFn fn) {
    if (!sizeOk(size)) return IMGERR_BADARG;
    if (!dst) dst = const_cast<uint8_t*>(src);
    if (!src) src = dst;
    if (!dst) return IMGERR_BADARG;
    bool inPlace = dst == src;
    il::Scratch<uint8_t> line;
    if (inPlace && !line.allocate(outRow, il::tag("RoW3"))) return IMGERR_NOMEMORY;
    for (int32_t y = 0; y < size->y; ++y) {
        int st = imageUtil_stopped(stop);
        if (st) return st;
        const uint8_t* in = src + inRow * size_t(y);
        uint8_t* out = dst + outRow * size_t(y);
        if (inPlace) {
            fn(line.get(), in);
            std::memcpy(out, line.get(), outRow);
        } else {
            fn(out, in);
        }
    }
    return 0;
}

// Planes of one row to interleaved pixels of N channels; order[k] is the
// plane that goes to byte k of a pixel.
template <int N>
void interleave(uint8_t* out, const uint8_t* in, size_t width, const int (&order)[N]) {
    const uint8_t* p[N];
    for (int k = 0; k < N; ++k) p[k] = in + size_t(order[k]) * width;
    for (size_t x = 0; x < width; ++x)
        for (int k = 0; k < N; ++k) out[N * x + size_t(k)] = p[k][x];
}

// Interleaved pixels of S bytes to N planes (the first N bytes of a pixel).
template <int S, int N>
void deinterleave(uint8_t* out, const uint8_t* in, size_t width) {
    for (int k = 0; k < N; ++k) {
        uint8_t* plane = out + size_t(k) * width;
        for (size_t x = 0; x < width; ++x) plane[x] = in[S * x + size_t(k)];
    }
}

constexpr int kRGBA[4] = {0, 1, 2, 3};

}  // namespace

namespace il {

int rgbToRGBAKeyed(uint8_t* dst, const uint8_t* src, const ImageSize* size, uint32_t key, StopFunction stop) noexcept {
    if (!dst || !src || dst == src || !sizeOk(size)) return IMGERR_BADARG;
    size_t width = size_t(size->x);
    return convertRows(dst, src, size, 3 * width, 4 * width, stop, [width, key](uint8_t* out, const uint8_t* in) {
        const uint8_t *r = in, *g = in + width, *b = in + 2 * width;
        for (size_t x = 0; x < width; ++x) {
            out[4 * x] = r[x];
            out[4 * x + 1] = g[x];
            out[4 * x + 2] = b[x];
            out[4 * x + 3] = colourKey(r[x], g[x], b[x]) == key ? 0 : 255;
        }
    });
}

void rgbaToRGB(uint8_t* dst, const uint8_t* src, size_t pixels) noexcept {
    if (!dst || !src) return;
    // Front to back: output byte 3x+k never passes input byte 4x+k, so dst == src is safe.
    for (size_t x = 0; x < pixels; ++x) {
        dst[3 * x] = src[4 * x];
        dst[3 * x + 1] = src[4 * x + 1];
        dst[3 * x + 2] = src[4 * x + 2];
    }
}

int rgbToKeyMask(uint8_t* dst, const uint8_t* src, const ImageSize* size, uint32_t key, StopFunction stop) noexcept {
    if (!dst || !src || dst == src || !sizeOk(size)) return IMGERR_BADARG;
    size_t width = size_t(size->x);
    return convertRows(dst, src, size, 3 * width, 4 * width, stop, [width, key](uint8_t* out, const uint8_t* in) {
        std::memcpy(out, in, 3 * width);
        const uint8_t *r = in, *g = in + width, *b = in + 2 * width;
        uint8_t* mask = out + 3 * width;
        for (size_t x = 0; x < width; ++x) mask[x] = colourKey(r[x], g[x], b[x]) == key ? 0 : 255;
    });
}

}  // namespace il

extern "C" {

int korImage_RGBToRGBA(uint8_t* dst, const uint8_t* src, const ImageSize* size, StopFunction stop) noexcept {
    if (!dst || !src || dst == src || !sizeOk(size)) return IMGERR_BADARG;
    size_t width = size_t(size->x);
    return convertRows(dst, src, size, 3 * width, 4 * width, stop, [width](uint8_t* out, const uint8_t* in) {
        const uint8_t *r = in, *g = in + width, *b = in + 2 * width;
        for (size_t x = 0; x < width; ++x) {
            out[4 * x] = r[x];
            out[4 * x + 1] = g[x];
            out[4 * x + 2] = b[x];
            out[4 * x + 3] = 0;
        }
    });
}

int korImage_RGBAToRGBSeparate(uint8_t* dst, const uint8_t* src, const ImageSize* size, StopFunction stop) noexcept {
    if (!sizeOk(size)) return IMGERR_BADARG;
    size_t width = size_t(size->x);
    return convertRows(dst, src, size, 4 * width, 3 * width, stop,
                       [width](uint8_t* out, const uint8_t* in) { deinterleave<4, 3>(out, in, width); });
}

int korImage_RGBToRGBSeparate(uint8_t* dst, const uint8_t* src, const ImageSize* size, int layout,
                              StopFunction stop) noexcept {
    if (!sizeOk(size)) return IMGERR_BADARG;
    size_t width = size_t(size->x);
    if (layout == 6)
        return convertRows(dst, src, size, 4 * width, 4 * width, stop,
                           [width](uint8_t* out, const uint8_t* in) { deinterleave<4, 4>(out, in, width); });
    return convertRows(dst, src, size, 3 * width, 3 * width, stop,
                       [width](uint8_t* out, const uint8_t* in) { il::rgbRowToPlanes(out, in, width); });
}

int korImage_RGBSeparateToRGB(uint8_t* dst, const uint8_t* src, const ImageSize* size, int layout,
                              StopFunction stop) noexcept {
    if (!sizeOk(size)) return IMGERR_BADARG;
    size_t width = size_t(size->x);
    if (layout == 6)
        return convertRows(dst, src, size, 4 * width, 4 * width, stop,
                           [width](uint8_t* out, const uint8_t* in) { interleave<4>(out, in, width, kRGBA); });
    return convertRows(dst, src, size, 3 * width, 3 * width, stop,
                       [width](uint8_t* out, const uint8_t* in) { il::planesToRGBRow(out, in, width); });
}

int korImage_RGBSeparateToBGR(uint8_t* dst, const uint8_t* src, const ImageSize* size, StopFunction stop) noexcept {
    if (!sizeOk(size)) return IMGERR_BADARG;
    size_t width = size_t(size->x);
    return convertRows(dst, src, size, 3 * width, 3 * width, stop,
                       [width](uint8_t* out, const uint8_t* in) { il::planesToBGRRow(out, in, width); });
}

}  // extern "C"
