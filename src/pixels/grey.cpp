// Grey levels: the tone curve, palette and image grey tables, the grey
// conversion of byte maps and PackByte rows, and the grey and contrast
// operations on row-planar RGB.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "internal/checked.h"
#include "internal/scratch.h"
#include "pixels/colour.h"
#include "pixels/rows.h"

namespace il {

const uint8_t kGreyToneCurve[256] = {
    1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,  // 0-15
    1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,  // 16-31
    1, 1, 1, 1, 1, 1, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10,  // 32-47
    11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26,  // 48-63
    27, 28, 29, 30, 31, 32, 32, 33, 34, 35, 35, 36, 37, 39, 39, 40,  // 64-79
    41, 42, 43, 44, 45, 46, 47, 47, 48, 49, 50, 51, 52, 53, 54, 55,  // 80-95
    56, 57, 58, 58, 59, 60, 61, 62, 63, 64, 65, 66, 67, 68, 69, 70,  // 96-111
    71, 72, 73, 74, 75, 76, 77, 78, 80, 81, 82, 83, 85, 86, 87, 88,  // 112-127
    89, 90, 91, 93, 94, 95, 96, 97, 99, 100, 101, 102, 103, 105, 106, 107,  // 128-143
    108, 110, 112, 114, 115, 116, 118, 120, 122, 124, 126, 128, 130, 132, 134, 136,  // 144-159
    138, 140, 143, 145, 147, 149, 152, 154, 156, 159, 161, 164, 166, 169, 171, 174,  // 160-175
    176, 178, 179, 181, 183, 185, 186, 188, 189, 190, 192, 194, 196, 198, 200, 202,  // 176-191
    204, 206, 208, 210, 212, 214, 217, 219, 221, 224, 227, 230, 232, 235, 237, 239,  // 192-207
    242, 245, 248, 251, 254, 254, 254, 254, 254, 254, 254, 254, 254, 254, 254, 254,  // 208-223
    254, 254, 254, 254, 254, 254, 254, 254, 254, 254, 254, 254, 254, 254, 254, 254,  // 224-239
    254, 254, 254, 254, 254, 254, 254, 254, 254, 254, 254, 254, 254, 254, 254, 254,  // 240-255
};

void buildGammaTable(uint8_t table[256], double gamma) noexcept {
    const double inv = 1.0 / gamma;
    for (int i = 0; i < 256; ++i) {
        double v = std::pow(i * 0.00392156862745098, inv) * 255 + 0.499999;
        // Good gammas give 0 .. 255.499999; anything else is kept in range.
        table[i] = !(v >= 0) ? 0 : v >= 255 ? 255 : uint8_t(v);
    }
}

bool gammaIsIdentity(double gamma) noexcept { return gamma == 1.0 || std::isnan(gamma); }

void setGreyRamp(uint8_t* red, uint8_t* green, uint8_t* blue) noexcept {
    for (int i = 0; i < 256; ++i) red[i] = green[i] = blue[i] = uint8_t(i);
}

bool isGreyRamp(const uint8_t* red, const uint8_t* green, const uint8_t* blue, int count) noexcept {
    for (int i = 0; i < count; ++i)
        if (red[i] != i || green[i] != i || blue[i] != i) return false;
    return true;
}

}  // namespace il

namespace {

bool sizeOk(const ImageSize* size) { return size && size->x >= 0 && size->y >= 0; }

// The floating grey rule trunc(0.3 r + 0.59 g + 0.11 b + 0.5), computed in
// integers: the exact value is (30 r + 59 g + 11 b + 50) / 100, and the
// double sum can differ from its truncation only where that quotient is a
// whole number, so only those pixels take the double path.
inline uint8_t greyFloatRule(unsigned r, unsigned g, unsigned b) {
    unsigned s = 30 * r + 59 * g + 11 * b + 50;
    unsigned q = s / 100;
    if (q * 100 == s) return il::greyLevelFloat(int(r), int(g), int(b));
    return uint8_t(q);
}

// Stop-and-return contract of the in-place RGB loops: poll before each row
// and hand back the poll's nonzero answer.
template <class RowFn>
int eachRow(const ImageSize* size, StopFunction stop, RowFn fn) {
    for (int32_t y = 0; y < size->y; ++y) {
        int st = imageUtil_stopped(stop);
        if (st) return st;
        fn(size_t(y));
    }
    return 0;
}

}  // namespace

extern "C" {

int korImage_paletteToGreyScale(uint8_t* table, int* darkest, int* lightest, const uint8_t* red,
                                const uint8_t* green, const uint8_t* blue, int count) noexcept {
    if (!table || !red || !green || !blue) return IMGERR_BADARG;
    count = std::clamp(count, 0, 256);
    int dark, light;
    if (il::isGreyRamp(red, green, blue, count)) {
        for (int i = 0; i < 256; ++i) table[i] = uint8_t(i);
        dark = 0;
        light = count - 1;
    } else {
        dark = 255;
        light = 0;
        // Every entry gets its grey (indices past the count included, so the
        // table is never left undefined); only the entries in use count for
        // the darkest and lightest levels.
        for (int i = 0; i < 256; ++i) {
            uint8_t g = il::greyLevel(red[i], green[i], blue[i]);
            table[i] = g;
            if (i < count) {
                dark = std::min(dark, int(g));
                light = std::max(light, int(g));
            }
        }
    }
    if (darkest) *darkest = dark;
    if (lightest) *lightest = light;
    return 0;
}

int korImage_byteMapToGreyScale(uint8_t* grey, int* darkest, int* lightest, const uint8_t* map,
                                const uint8_t* red, const uint8_t* green, const uint8_t* blue, int count,
                                const ImageSize* size) noexcept {
    if (!grey || !map || !sizeOk(size)) return IMGERR_BADARG;
    uint8_t table[256];
    int st = korImage_paletteToGreyScale(table, darkest, lightest, red, green, blue, count);
    if (st != 0) return st;
    size_t n = size_t(size->x) * size_t(size->y);
    for (size_t i = 0; i < n; ++i) grey[i] = table[map[i]];
    return 0;
}

int korImage_packByteToGreyScale(uint8_t* grey, int* darkest, int* lightest, uint8_t* const* rows,
                                 const uint8_t* red, const uint8_t* green, const uint8_t* blue, int count,
                                 const ImageSize* size) noexcept {
    if (!grey || !rows || !sizeOk(size)) return IMGERR_BADARG;
    uint8_t table[256];
    int st = korImage_paletteToGreyScale(table, darkest, lightest, red, green, blue, count);
    if (st != 0) return st;
    il::packByteDecodeInto(grey, rows, size);
    size_t n = size_t(size->x) * size_t(size->y);
    for (size_t i = 0; i < n; ++i) grey[i] = table[grey[i]];
    return 0;
}

int korImage_rgbToGreyScale(uint8_t* grey, int* darkest, int* lightest, const uint8_t* rgb,
                            const ImageSize* size) noexcept {
    if (!grey || !rgb || !sizeOk(size)) return IMGERR_BADARG;
    // Each weighted term truncated on its own, as the integer rule wants.
    uint8_t tr[256], tg[256], tb[256];
    for (int v = 0; v < 256; ++v) {
        tr[v] = uint8_t(v * 30 / 100);
        tg[v] = uint8_t(v * 59 / 100);
        tb[v] = uint8_t(v * 11 / 100);
    }
    size_t width = size_t(size->x);
    uint8_t dark = 255, light = 0;
    for (int32_t y = 0; y < size->y; ++y, rgb += 3 * width, grey += width) {
        const uint8_t *r = rgb, *g = rgb + width, *b = rgb + 2 * width;
        for (size_t x = 0; x < width; ++x) {
            uint8_t v = il::kGreyToneCurve[tr[r[x]] + tg[g[x]] + tb[b[x]]];
            grey[x] = v;
            dark = std::min(dark, v);
            light = std::max(light, v);
        }
    }
    if (darkest) *darkest = dark;
    if (lightest) *lightest = light;
    return 0;
}

int korImage_convertToGreyScale(void* dst, uint8_t* red, uint8_t* green, uint8_t* blue, int* count,
                                const void* src, const ImageSize* size, int layout, StopFunction stop) noexcept {
    if (layout != IMAGEFORMAT_MAP && layout != IMAGEFORMAT_PACKBYTE) return IMGERR_CANTCONVERT;
    if (!dst || !src || !red || !green || !blue || !count || !sizeOk(size)) return IMGERR_BADARG;
    uint8_t table[256];
    korImage_paletteToGreyScale(table, nullptr, nullptr, red, green, blue, *count);
    size_t width = size_t(size->x);
    int status = 0;
    if (layout == IMAGEFORMAT_MAP) {
        size_t n = width * size_t(size->y);
        auto* d = static_cast<uint8_t*>(dst);
        const auto* s = static_cast<const uint8_t*>(src);
        for (size_t i = 0; i < n; ++i) d[i] = table[s[i]];
    } else {
        auto* out = static_cast<uint8_t**>(dst);
        auto* const* in = static_cast<uint8_t* const*>(src);
        il::Scratch<uint8_t> row(width, il::tag("GryR"));
        if (!row.ok()) return IMGERR_NOMEMORY;
        for (int32_t y = 0; y < size->y; ++y) {
            if (imageUtil_stopped(stop)) {
                status = IMGERR_STOPPED;
                break;
            }
            if (in[y])
                korImage_unpackByteBuffer(row.get(), in[y], int(width));
            else
                std::memset(row.get(), 0, width);
            for (size_t x = 0; x < width; ++x) row[x] = table[row[x]];
            status = il::replacePackByteRow(out, y, row.get(), int(width));
            if (status != 0) break;
        }
    }
    if (dst == src) {
        il::setGreyRamp(red, green, blue);
        *count = 256;
    }
    return status;
}

int korImage_RGBToRGBGreyScale(uint8_t* rgb, const ImageSize* size, StopFunction stop) noexcept {
    if (!rgb || !sizeOk(size)) return IMGERR_BADARG;
    size_t width = size_t(size->x);
    return eachRow(size, stop, [&](size_t y) {
        uint8_t* r = rgb + 3 * width * y;
        uint8_t *g = r + width, *b = g + width;
        for (size_t x = 0; x < width; ++x) r[x] = g[x] = b[x] = greyFloatRule(r[x], g[x], b[x]);
    });
}

int korImage_RGBToRGBEqualized(uint8_t* rgb, const ImageSize* size, StopFunction stop) noexcept {
    if (!rgb) return 0;
    if (!sizeOk(size)) return IMGERR_BADARG;
    size_t width = size_t(size->x);
    // Occurrence of each value per channel; a stop ends the counting, and
    // the stretch still runs on what was counted.
    static_assert(sizeof(bool) == 1);
    bool seen[3][256] = {};
    int status = eachRow(size, stop, [&](size_t y) {
        const uint8_t* row = rgb + 3 * width * y;
        for (int c = 0; c < 3; ++c, row += width)
            for (size_t x = 0; x < width; ++x) seen[c][row[x]] = true;
    });
    uint8_t table[3][256];
    for (int c = 0; c < 3; ++c) {
        int low = 0, high = 255;
        for (int v = 17; v <= 255; ++v)
            if (seen[c][v]) {
                low = v;
                break;
            }
        for (int v = 249; v >= 0; --v)
            if (seen[c][v]) {
                high = v;
                break;
            }
        for (int v = 0; v < 256; ++v) {
            table[c][v] = uint8_t(v);
            if (low < v && v < high) table[c][v] = uint8_t(int(double(v - low) / double(high - low) * 234 + 16));
        }
    }
    for (size_t y = 0; y < size_t(size->y); ++y) {
        uint8_t* row = rgb + 3 * width * y;
        for (int c = 0; c < 3; ++c, row += width)
            for (size_t x = 0; x < width; ++x) row[x] = table[c][row[x]];
    }
    return status;
}

}  // extern "C"
