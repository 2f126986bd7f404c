// Tone operations on row-planar RGB images and palettes: gamma, negation
// and tint.
#include <cstring>

#include "pixels/colour.h"

namespace {

bool sizeOk(const ImageSize* size) { return size && size->x >= 0 && size->y >= 0; }

size_t rgbBytes(const ImageSize* size) { return 3 * size_t(size->x) * size_t(size->y); }

void mapBytes(uint8_t* dst, const uint8_t* src, size_t n, const uint8_t* table) {
    for (size_t i = 0; i < n; ++i) dst[i] = table[src[i]];
}

void mapPalette(uint8_t* red, uint8_t* green, uint8_t* blue, int count, const uint8_t* table) {
    for (int i = 0; i < count && i < 256; ++i) {
        red[i] = table[red[i]];
        green[i] = table[green[i]];
        blue[i] = table[blue[i]];
    }
}

// Channel scaling of a tint: v * tint / 255, truncating.
void tintTable(uint8_t table[256], uint8_t tint) {
    for (unsigned v = 0; v < 256; ++v) table[v] = uint8_t(v * tint / 255);
}

}  // namespace

extern "C" {

int korImage_applyGamma(uint8_t* dst, const uint8_t* src, const ImageSize* size, double gamma) noexcept {
    if (!dst || !src || !sizeOk(size)) return IMGERR_BADARG;
    size_t n = rgbBytes(size);
    if (il::gammaIsIdentity(gamma)) {
        if (dst != src) std::memmove(dst, src, n);
        return 0;
    }
    uint8_t table[256];
    il::buildGammaTable(table, gamma);
    mapBytes(dst, src, n, table);
    return 0;
}

int korImage_applyGammaToPalette(uint8_t* red, uint8_t* green, uint8_t* blue, int count, double gamma) noexcept {
    if (!red || !green || !blue) return IMGERR_BADARG;
    if (gamma == 1.0) return 0;
    uint8_t table[256];
    il::buildGammaTable(table, gamma);
    mapPalette(red, green, blue, count, table);
    return 0;
}

int korImage_negate(uint8_t* dst, const uint8_t* src, const ImageSize* size) noexcept {
    if (!dst || !src || !sizeOk(size)) return IMGERR_BADARG;
    size_t n = rgbBytes(size);
    for (size_t i = 0; i < n; ++i) dst[i] = uint8_t(255 - src[i]);
    return 0;
}

int korImage_negatePalette(uint8_t* red, uint8_t* green, uint8_t* blue, int count) noexcept {
    if (!red || !green || !blue) return IMGERR_BADARG;
    for (int i = 0; i < count && i < 256; ++i) {
        red[i] = uint8_t(255 - red[i]);
        green[i] = uint8_t(255 - green[i]);
        blue[i] = uint8_t(255 - blue[i]);
    }
    return 0;
}

int korImage_tintImage(uint8_t* rgb, const ImageSize* size, const uint8_t* tint, StopFunction stop) noexcept {
    if (!rgb || !tint || !sizeOk(size)) return IMGERR_BADARG;
    uint8_t table[3][256];
    for (int c = 0; c < 3; ++c) tintTable(table[c], tint[c]);
    size_t width = size_t(size->x);
    for (int32_t y = 0; y < size->y; ++y) {
        int st = imageUtil_reportProgress(stop, size->y, y);
        if (st) return st;
        uint8_t* row = rgb + 3 * width * size_t(y);
        for (int c = 0; c < 3; ++c, row += width) mapBytes(row, row, width, table[c]);
    }
    return 0;
}

int korImage_tintPalette(uint8_t* red, uint8_t* green, uint8_t* blue, int count, const uint8_t* tint) noexcept {
    if (!red || !green || !blue || !tint) return IMGERR_BADARG;
    uint8_t* planes[3] = {red, green, blue};
    for (int c = 0; c < 3; ++c) {
        uint8_t table[256];
        tintTable(table, tint[c]);
        for (int i = 0; i < count && i < 256; ++i) planes[c][i] = table[planes[c][i]];
    }
    return 0;
}

}  // extern "C"
