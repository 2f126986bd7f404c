// Quarter-turn rotation of images of every layout.
#include <cstring>
#include <utility>

#include "imagelib/geo.h"
#include "imagelib/pixels.h"
#include "internal/checked.h"
#include "internal/scratch.h"
#include "pixels/rotate.h"
#include "pixels/rows.h"

namespace {

struct Geometry {
    int32_t w, h;        // source
    int32_t newW, newH;  // result
    int angle;
};

int stopped(int answer) { return answer != 0 ? IMGERR_STOPPED : 0; }

// Layouts 3 to 7: one pass per byte component into a new block that is
// not cleared.
int rotateBytes(void** out, const uint8_t* src, const Geometry& g, int format, StopFunction stop) {
    const int bpp = int(il::pixelBytes(format));
    size_t bytes = 0;
    if (!il::mulSize(size_t(g.w), size_t(g.h), &bytes) || !il::mulSize(bytes, size_t(bpp), &bytes))
        return IMGERR_NOMEMORY;
    auto block = il::callerBytes(bytes);
    if (!block) return IMGERR_NOMEMORY;
    const size_t w = size_t(g.w), nw = size_t(g.newW), b = size_t(bpp);
    int answer = 0;
    if (format == IMAGEFORMAT_RGB) {
        // Row-planar: each plane is a byte map whose rows are 3 widths apart.
        for (size_t p = 0; p < 3; ++p)
            answer = il::rotateComponent(src + p * w, 3 * w, block.get() + p * nw, 3 * nw, g.w, g.h, 1, g.angle, stop);
    } else {
        for (size_t p = 0; p < b; ++p)
            answer = il::rotateComponent(src + p, b * w, block.get() + p, b * nw, g.w, g.h, bpp, g.angle, stop);
    }
    // Only the last pass's answer decides. A stopped rotation releases its
    // block rather than dropping it.
    if (answer != 0) return IMGERR_STOPPED;
    *out = block.release();
    return 0;
}

int rotateBitMap(void** out, const uint8_t* src, const Geometry& g, StopFunction stop) {
    const size_t bytes = ((size_t(g.newW) + 7) >> 3) * size_t(g.newH);
    auto block = il::callerBytes(bytes);
    if (!block) return IMGERR_NOMEMORY;
    if (const int s = stopped(il::rotateBits(src, block.get(), g.w, g.h, g.angle, stop))) return s;
    *out = block.release();
    return 0;
}

bool quarterOrHalf(int angle) { return angle == 90 || angle == 180 || angle == 270; }

// Layout 2: the rows are decoded into a bitmap, the bitmap is rotated and
// its rows are encoded into a new table.
int rotateRunLength(void** out, uint16_t* const* rows, const Geometry& g, StopFunction stop) {
    il::RowTable table;
    if (!quarterOrHalf(g.angle)) {  // the block of another angle: a table of null rows
        if (!table.allocate(ImageSize{g.w, g.h}, IMAGEFORMAT_RLEBITMAP)) return IMGERR_NOMEMORY;
        *out = table.release();
        return 0;
    }
    const size_t srcRow = (size_t(g.w) + 7) >> 3, dstRow = (size_t(g.newW) + 7) >> 3;
    il::Scratch<uint8_t> bits(srcRow * size_t(g.h), il::tag("RoRb"), true);
    il::Scratch<uint8_t> turned(dstRow * size_t(g.newH), il::tag("RoRt"));
    if (!bits.ok() || !turned.ok()) return IMGERR_NOMEMORY;
    for (int32_t y = 0; y < g.h; ++y) {
        if (!rows[y]) continue;  // a missing row reads as background
        if (il::rleDecodeRowBounded(bits.get() + size_t(y) * srcRow, rows[y], il::runLimit(g.w), g.w) < 0)
            return IMGERR_BADFILE;
    }
    if (const int s = stopped(il::rotateBits(bits.get(), turned.get(), g.w, g.h, g.angle, stop))) return s;
    if (!table.allocate(ImageSize{g.newW, g.newH}, IMAGEFORMAT_RLEBITMAP)) return IMGERR_NOMEMORY;
    uint16_t** newRows = table.runs();
    for (int32_t y = 0; y < g.newH; ++y)
        if (il::storeRLEBitMapRow(newRows, y, turned.get() + size_t(y) * dstRow, g.newW) != 0)
            return IMGERR_NOMEMORY;
    *out = table.release();
    return 0;
}

// Layout 8: the rows are unpacked into a byte map, rotated, and packed into
// a new table.
int rotatePackByte(void** out, uint8_t* const* rows, const Geometry& g, StopFunction stop) {
    il::RowTable table;
    if (!quarterOrHalf(g.angle)) {
        if (!table.allocate(ImageSize{g.w, g.h})) return IMGERR_NOMEMORY;
        *out = table.release();
        return 0;
    }
    size_t bytes = 0;
    if (!il::mulSize(size_t(g.w), size_t(g.h), &bytes)) return IMGERR_NOMEMORY;
    il::Scratch<uint8_t> map(bytes, il::tag("RoPm"), true);
    il::Scratch<uint8_t> turned(bytes, il::tag("RoPt"));
    if (!map.ok() || !turned.ok()) return IMGERR_NOMEMORY;
    for (int32_t y = 0; y < g.h; ++y)  // a missing row reads as zeros
        if (rows[y]) korImage_unpackByteBuffer(map.get() + size_t(y) * size_t(g.w), rows[y], g.w);
    const int answer = il::rotateComponent(map.get(), size_t(g.w), turned.get(), size_t(g.newW), g.w, g.h, 1,
                                           g.angle, stop);
    if (answer != 0) return IMGERR_STOPPED;
    if (!table.allocate(ImageSize{g.newW, g.newH})) return IMGERR_NOMEMORY;
    uint8_t** newRows = table.bytes();
    for (int32_t y = 0; y < g.newH; ++y)
        if (il::storePackByteRow(newRows, y, turned.get() + size_t(y) * size_t(g.newW), g.newW) != 0)
            return IMGERR_NOMEMORY;
    *out = table.release();
    return 0;
}

}  // namespace

extern "C" int korImage_rotate(void** result, ImageSize* resultSize, void* source, const ImageSize* sourceSize,
                               int format, int angle, StopFunction stop) noexcept {
    if (format < IMAGEFORMAT_BITMAP || format > IMAGEFORMAT_PACKBYTE) return IMGERR_BADARG;
    if (!result || !source || !sourceSize || sourceSize->x <= 0 || sourceSize->y <= 0) return IMGERR_BADARG;
    const bool quarter = angle == 90 || angle == 270;
    const Geometry g{sourceSize->x, sourceSize->y, quarter ? sourceSize->y : sourceSize->x,
                     quarter ? sourceSize->x : sourceSize->y, angle};
    void* rotated = nullptr;
    int status;
    switch (format) {
        case IMAGEFORMAT_BITMAP:
            status = rotateBitMap(&rotated, static_cast<const uint8_t*>(source), g, stop);
            break;
        case IMAGEFORMAT_RLEBITMAP:
            status = rotateRunLength(&rotated, static_cast<uint16_t* const*>(source), g, stop);
            break;
        case IMAGEFORMAT_PACKBYTE:
            status = rotatePackByte(&rotated, static_cast<uint8_t* const*>(source), g, stop);
            break;
        default: status = rotateBytes(&rotated, static_cast<const uint8_t*>(source), g, format, stop); break;
    }
    if (status != 0) return status;
    // The source is released before the size record (which may be the
    // source's own) changes.
    if (*result == source) {
        const ImageSize old{g.w, g.h};
        korImage_freeImage(source, &old, format);
    }
    *result = rotated;
    if (resultSize && quarter) std::swap(resultSize->x, resultSize->y);
    return 0;
}
