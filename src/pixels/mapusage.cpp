// Palette statistics and masks: index usage, colour-keyed index changes,
// masking by run-length rows and the balanced palette.
#include <algorithm>
#include <cstring>

#include "pixels/colour.h"
#include "pixels/rows.h"

namespace {

bool sizeOk(const ImageSize* size) { return size && size->x >= 0 && size->y >= 0; }

// Calls fn(from, to) for every background run of a run-length row (the
// first run and every second one after it), clipped at width.
template <class Fn>
void eachBackgroundRun(const uint16_t* runs, size_t width, Fn fn) {
    bool colour = false;
    for (size_t pos = 0; pos < width; colour = !colour) {
        size_t end = std::min(pos + *runs++, width);
        if (!colour && end > pos) fn(pos, end);
        pos = end;
    }
}

}  // namespace

extern "C" {

int korImage_getMapUsage(uint8_t* counts, const void* image, const ImageSize* size, int isPackByte) noexcept {
    if (!counts || !image || !sizeOk(size)) return IMGERR_BADARG;
    size_t width = size_t(size->x), height = size_t(size->y);
    uint32_t tally[256] = {};
    auto add = [&tally](uint8_t v, size_t n) { tally[v] = uint32_t(std::min<size_t>(255, tally[v] + n)); };
    if (!isPackByte) {
        const auto* map = static_cast<const uint8_t*>(image);
        // Counting without clamping cannot overflow 32 bits for an image of
        // up to 2^32 - 1 pixels per index; the result saturates at 255.
        for (size_t i = 0, n = width * height; i < n; ++i) tally[map[i]] = std::min<uint32_t>(tally[map[i]] + 1, 255);
    } else {
        auto* const* rows = static_cast<uint8_t* const*>(image);
        for (size_t y = 0; y < height; ++y) {
            const uint8_t* p = rows[y];
            if (!p) continue;
            for (size_t x = 0; x < width;) {
                int k = int8_t(*p++);
                if (k > 0) {
                    size_t n = std::min(size_t(k), width - x);
                    for (size_t j = 0; j < n; ++j) add(p[j], 1);
                    p += k;
                    x += n;
                } else if (k < 0) {
                    size_t n = std::min(size_t(-k), width - x);
                    add(*p++, n);
                    x += n;
                }
            }
        }
    }
    for (int i = 0; i < 256; ++i) counts[i] = uint8_t(tally[i]);
    return 0;
}

int korImage_setMapIfRGBMatch(void* image, int index, const uint8_t* rgb, const ImageSize* size,
                              const uint8_t* colour, int isPackByte) noexcept {
    if (!image || !rgb || !colour || !sizeOk(size)) return IMGERR_BADARG;
    size_t width = size_t(size->x), height = size_t(size->y);
    uint8_t value = uint8_t(index);
    for (size_t y = 0; y < height; ++y) {
        const uint8_t *r = rgb + 3 * width * y, *g = r + width, *b = g + width;
        auto match = [&](size_t x) { return r[x] == colour[0] && g[x] == colour[1] && b[x] == colour[2]; };
        if (!isPackByte) {
            uint8_t* row = static_cast<uint8_t*>(image) + width * y;
            for (size_t x = 0; x < width; ++x)
                if (match(x)) row[x] = value;
            continue;
        }
        uint8_t* p = static_cast<uint8_t* const*>(image)[y];
        if (!p) continue;
        for (size_t x = 0; x < width;) {
            int k = int8_t(*p++);
            if (k > 0) {
                size_t n = std::min(size_t(k), width - x);
                for (size_t j = 0; j < n; ++j)
                    if (match(x + j)) p[j] = value;
                p += k;
                x += n;
            } else if (k < 0) {
                // A repeat is judged by its first pixel.
                if (match(x)) *p = value;
                ++p;
                x += std::min(size_t(-k), width - x);
            }
        }
    }
    return 0;
}

int korImage_maskByteBuffer(uint8_t* row, const uint16_t* runs, int length, int value) noexcept {
    if (!row || !runs || length <= 0) return 0;
    eachBackgroundRun(runs, size_t(length),
                      [&](size_t from, size_t to) { std::memset(row + from, uint8_t(value), to - from); });
    return 0;
}

int korImage_maskRgbBuffer(uint8_t* rgb, const uint16_t* runs, int width, const uint8_t* colour) noexcept {
    if (!rgb || !runs || !colour || width <= 0) return 0;
    size_t w = size_t(width);
    eachBackgroundRun(runs, w, [&](size_t from, size_t to) {
        for (int c = 0; c < 3; ++c) std::memset(rgb + size_t(c) * w + from, colour[c], to - from);
    });
    return 0;
}

int korImage_getBalancedPalette(uint8_t* red, uint8_t* green, uint8_t* blue, int* count) noexcept {
    if (!red || !green || !blue || !count) return IMGERR_BADARG;
    int i = 0;
    for (int r = 0; r < 6; ++r)
        for (int g = 0; g < 6; ++g)
            for (int b = 0; b < 6; ++b, ++i) {
                red[i] = uint8_t(51 * r);
                green[i] = uint8_t(51 * g);
                blue[i] = uint8_t(51 * b);
            }
    *count = 216;
    const int step = 255 / 40;
    for (int k = 1; i < 256; ++i, ++k) red[i] = green[i] = blue[i] = uint8_t(step * k);
    *count = 256;
    return 0;
}

}  // extern "C"
