// Colour mapping between palette layouts (byte maps, PackByte rows,
// bitmaps) and row-planar RGB.
#include <algorithm>
#include <cstring>

#include "internal/checked.h"
#include "internal/scratch.h"
#include "pixels/bits.h"
#include "pixels/colour.h"
#include "pixels/dither.h"
#include "pixels/rows.h"

namespace {

bool sizeOk(const ImageSize* size) { return size && size->x >= 0 && size->y >= 0; }

bool paletteOk(const uint8_t* r, const uint8_t* g, const uint8_t* b) { return r && g && b; }

// One byte-map row through the palette into the three planes of an RGB row.
void mapRow(uint8_t* rgb, const uint8_t* map, size_t width, const uint8_t* red, const uint8_t* green,
            const uint8_t* blue) {
    uint8_t *r = rgb, *g = rgb + width, *b = rgb + 2 * width;
    for (size_t x = 0; x < width; ++x) {
        uint8_t i = map[x];
        r[x] = red[i];
        g[x] = green[i];
        b[x] = blue[i];
    }
}

// A row of PackByte-encoded pixels: decoded on the stack when small.
class PackedRow {
public:
    explicit PackedRow(size_t width) : width_(width) {
        if (width > sizeof(local_)) heap_.allocate(width, il::tag("PKBm"));
    }
    bool ok() const { return width_ <= sizeof(local_) || heap_.ok(); }
    const uint8_t* decode(const uint8_t* packed) {
        uint8_t* out = width_ <= sizeof(local_) ? local_ : heap_.get();
        if (packed)
            korImage_unpackByteBuffer(out, packed, int(width_));
        else
            std::memset(out, 0, width_);
        return out;
    }

private:
    size_t width_;
    uint8_t local_[5000];
    il::Scratch<uint8_t> heap_;
};

}  // namespace

extern "C" {

int korImage_RGBToMapWithGamma(uint8_t** map, const uint8_t* rgb, const ImageSize* size, const uint8_t* red,
                               const uint8_t* green, const uint8_t* blue, int count, double gamma,
                               StopFunction stop) noexcept {
    if (!map || !rgb || !sizeOk(size) || !paletteOk(red, green, blue)) return IMGERR_BADARG;
    size_t width = size_t(size->x), bytes;
    if (!il::mulSize(width, size_t(size->y), &bytes)) return IMGERR_NOMEMORY;
    il::CallerBuffer<uint8_t> owned;
    uint8_t* out = *map;
    if (!out) {
        owned = il::callerBytes(bytes);
        if (!owned) return IMGERR_NOMEMORY;
        out = owned.get();
    }
    il::DitherJob job;
    if (korImage_ditherInitializeWithGamma(count, red, green, blue, size->x, gamma) != 0) return IMGERR_NOMEMORY;
    for (int32_t y = 0; y < size->y; ++y) {
        int st = imageUtil_reportProgress(stop, size->y, y);
        if (st) return st;
        const uint8_t* row = rgb + 3 * width * size_t(y);
        korImage_ditherRow(out + width * size_t(y), row, row + width, row + 2 * width, size->x);
    }
    if (owned) *map = owned.release();
    return 0;
}

int korImage_RGBToMap(uint8_t** map, const uint8_t* rgb, const ImageSize* size, const uint8_t* red,
                      const uint8_t* green, const uint8_t* blue, int count, StopFunction stop) noexcept {
    if (!map) return IMGERR_BADARG;
    *map = nullptr;
    return korImage_RGBToMapWithGamma(map, rgb, size, red, green, blue, count, 1.0, stop);
}

int korImage_RGBToPackByteWithGamma(uint8_t*** rows, const uint8_t* rgb, const ImageSize* size, const uint8_t* red,
                                    const uint8_t* green, const uint8_t* blue, int count, double gamma,
                                    StopFunction stop) noexcept {
    if (!rows || !rgb || !sizeOk(size) || !paletteOk(red, green, blue)) return IMGERR_BADARG;
    size_t width = size_t(size->x);
    il::Scratch<uint8_t> line(width, il::tag("PKBd"));
    auto* table = static_cast<uint8_t**>(dlmSystem_korCalloc(size->y ? size_t(size->y) : 1, sizeof(uint8_t*)));
    auto release = [&] { korImage_freeImage(table, size, IMAGEFORMAT_PACKBYTE); };
    if (!line.ok() || !table) {
        dlmSystem_korFree(table);
        return IMGERR_NOMEMORY;
    }
    il::DitherJob job;
    if (korImage_ditherInitializeWithGamma(count, red, green, blue, size->x, gamma) != 0) {
        release();
        return IMGERR_NOMEMORY;
    }
    for (int32_t y = 0; y < size->y; ++y) {
        int st = imageUtil_reportProgress(stop, size->y, y);
        if (st) {
            release();
            return st;
        }
        const uint8_t* row = rgb + 3 * width * size_t(y);
        korImage_ditherRow(line.get(), row, row + width, row + 2 * width, size->x);
        if (il::storePackByteRow(table, y, line.get(), size->x) != 0) {
            release();
            return IMGERR_NOMEMORY;
        }
    }
    *rows = table;
    return 0;
}

int korImage_RGBToPackByte(uint8_t*** rows, const uint8_t* rgb, const ImageSize* size, const uint8_t* red,
                           const uint8_t* green, const uint8_t* blue, int count, StopFunction stop) noexcept {
    return korImage_RGBToPackByteWithGamma(rows, rgb, size, red, green, blue, count, 1.0, stop);
}

int korImage_extRGBToMap(void** out, const uint8_t* rgb, const ImageSize* size, const uint8_t* red,
                         const uint8_t* green, const uint8_t* blue, int count, int isPackByte,
                         StopFunction stop) noexcept {
    if (!out) return IMGERR_BADARG;
    if (isPackByte) {
        uint8_t** rows = nullptr;
        int st = korImage_RGBToPackByte(&rows, rgb, size, red, green, blue, count, stop);
        if (st == 0) *out = rows;
        return st;
    }
    uint8_t* map = nullptr;
    int st = korImage_RGBToMap(&map, rgb, size, red, green, blue, count, stop);
    if (st == 0) *out = map;
    return st;
}

int korImage_mapToRGBBuffer(uint8_t* rgb, const uint8_t* map, const ImageSize* size, const uint8_t* red,
                            const uint8_t* green, const uint8_t* blue, StopFunction stop) noexcept {
    if (!rgb || !map || !sizeOk(size) || !paletteOk(red, green, blue)) return IMGERR_BADARG;
    size_t width = size_t(size->x);
    for (int32_t y = 0; y < size->y; ++y) {
        int st = imageUtil_stopped(stop);
        if (st) return st;
        mapRow(rgb + 3 * width * size_t(y), map + width * size_t(y), width, red, green, blue);
    }
    return 0;
}

int korImage_mapToRGB(uint8_t** rgb, const uint8_t* map, const ImageSize* size, const uint8_t* red,
                      const uint8_t* green, const uint8_t* blue, StopFunction stop) noexcept {
    return korImage_extMapToRGB(rgb, map, size, red, green, blue, 0, stop);
}

int korImage_extMapToRGB(uint8_t** rgb, const void* map, const ImageSize* size, const uint8_t* red,
                         const uint8_t* green, const uint8_t* blue, int isPackByte, StopFunction stop) noexcept {
    if (!rgb || !map || !sizeOk(size) || !paletteOk(red, green, blue)) return IMGERR_BADARG;
    size_t bytes;
    if (!il::imageBytes(size->x, size->y, 3, &bytes) && size->x && size->y) return IMGERR_NOMEMORY;
    if (!size->x || !size->y) bytes = 0;
    auto out = il::callerBytes(bytes);
    if (!out) return IMGERR_NOMEMORY;
    int st;
    if (!isPackByte) {
        st = korImage_mapToRGBBuffer(out.get(), static_cast<const uint8_t*>(map), size, red, green, blue, stop);
    } else {
        size_t width = size_t(size->x);
        auto* const* rows = static_cast<uint8_t* const*>(map);
        PackedRow line(width);
        if (!line.ok()) return IMGERR_NOMEMORY;
        st = 0;
        for (int32_t y = 0; y < size->y && !st; ++y) {
            st = imageUtil_stopped(stop);
            if (!st) mapRow(out.get() + 3 * width * size_t(y), line.decode(rows[y]), width, red, green, blue);
        }
    }
    if (st) return st;
    *rgb = out.release();
    return 0;
}

int korImage_extBitMapToRGB(uint8_t** rgb, const void* bits, const ImageSize* size, const uint8_t* foreground,
                            const uint8_t* background, int isRunLength, StopFunction stop) noexcept {
    if (!rgb || !bits || !foreground || !background || !sizeOk(size)) return IMGERR_BADARG;
    size_t bytes;
    if (!il::imageBytes(size->x, size->y, 3, &bytes) && size->x && size->y) return IMGERR_NOMEMORY;
    if (!size->x || !size->y) bytes = 0;
    auto out = il::callerBytes(bytes);
    if (!out) return IMGERR_NOMEMORY;
    size_t width = size_t(size->x), height = size_t(size->y);
    uint8_t* o = out.get();
    if (background[0] == background[1] && background[1] == background[2]) {
        std::memset(o, background[0], bytes);
    } else {
        for (size_t y = 0; y < height; ++y)
            for (int c = 0; c < 3; ++c) std::memset(o + (3 * y + size_t(c)) * width, background[c], width);
    }
    for (size_t y = 0; y < height; ++y) {
        if (imageUtil_stopped(stop)) return IMGERR_STOPPED;
        uint8_t* row = o + 3 * width * y;
        auto paint = [&](size_t from, size_t to) {
            for (int c = 0; c < 3; ++c) std::memset(row + size_t(c) * width + from, foreground[c], to - from);
        };
        if (isRunLength) {
            const uint16_t* runs = static_cast<uint16_t* const*>(bits)[y];
            if (!runs) continue;
            bool colour = false;
            for (size_t pos = 0; pos < width; colour = !colour) {
                size_t end = std::min(pos + *runs++, width);
                if (colour && end > pos) paint(pos, end);
                pos = end;
            }
        } else {
            const uint8_t* line = static_cast<const uint8_t*>(bits) + il::bits::rowBytes(width) * y;
            for (size_t x = 0; x < width;) {
                if ((x & 7) == 0 && line[x >> 3] == 0) {
                    x += 8;
                    continue;
                }
                if (line[x >> 3] & (0x80u >> (x & 7))) {
                    size_t end = x + 1;
                    while (end < width && (line[end >> 3] & (0x80u >> (end & 7)))) ++end;
                    paint(x, end);
                    x = end;
                } else {
                    ++x;
                }
            }
        }
    }
    *rgb = out.release();
    return 0;
}

int korImage_paletteToRgbTable(uint8_t* triples, const uint8_t* red, const uint8_t* green, const uint8_t* blue,
                               int count) noexcept {
    if (!triples || !paletteOk(red, green, blue)) return IMGERR_BADARG;
    for (int i = 0; i < count && i < 256; ++i) {
        triples[3 * i] = red[i];
        triples[3 * i + 1] = green[i];
        triples[3 * i + 2] = blue[i];
    }
    return 0;
}

int korImage_remapByteBuffer(uint8_t* buffer, int length, const uint8_t* table) noexcept {
    if (!buffer || !table) return IMGERR_BADARG;
    for (int i = 0; i < length; ++i) buffer[i] = table[buffer[i]];
    return 0;
}

}  // extern "C"
