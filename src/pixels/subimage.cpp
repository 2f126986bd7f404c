// Sub-image extraction: a rectangle of the source stepped nearest-neighbour
// onto the destination size in 12-bit fixed point.
//
// Every member runs on one plan: the source column of each destination
// column and the source row of each destination row (or "copy the row
// above"), both made by one stepping routine. The members differ only in
// how they read a source row and write a destination row. Bit, run-length
// and PackByte rows are expanded to one byte a pixel, stepped as bytes and
// packed again with the row codecs.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "imagelib/geo.h"
#include "imagelib/pixels.h"
#include "internal/scratch.h"
#include "pixels/bits.h"
#include "pixels/rows.h"

namespace {

using il::Scratch;

// 1.0 in the fixed point of the stepping.
constexpr int64_t kOne = 4096;
// Rectangle coordinates are held within this range so that the fixed-point
// arithmetic stays far from overflow; anything beyond lies outside every
// image anyway.
constexpr double kCoordinateLimit = double(int64_t(1) << 30);
// Marks a destination row that repeats the row above.
constexpr int32_t kCopyAbove = -1;

// Stepping of one axis: the destination span D = (d - 1) * 4096, the
// source extent E = round((c1 - c0) * 4096), the first source index
// trunc(c0) and the starting error trunc(frac(c0) * D) - D + E.
struct Axis {
    int64_t span;
    int64_t extent;
    int64_t start;
    int64_t error;
};

Axis makeAxis(double c0, double c1, int32_t d) {
    Axis a;
    a.span = int64_t(d - 1) * kOne;
    a.extent = std::llround((c1 - c0) * double(kOne));
    a.start = int64_t(std::trunc(c0));
    a.error = int64_t(std::trunc(std::fmod(c0, 1.0) * double(a.span))) - a.span + a.extent;
    return a;
}

// Calls visit(i, sourceIndex) for the destination positions i = 0 .. d - 1.
// Between two positions the source index advances while the error is not
// negative, taking D off the error each time, and then E is added. The
// advance is made in one division, so that no rectangle can make it slow.
template <class Visit>
void stepAxis(const Axis& a, int32_t d, Visit&& visit) {
    int64_t index = a.start;
    int64_t error = a.error;
    for (int32_t i = 0; i < d; ++i) {
        visit(i, index);
        if (i + 1 == d) break;
        if (error >= 0) {  // d > 1 here, so the span is positive
            int64_t advance = error / a.span + 1;
            index += advance;
            error -= advance * a.span;
        }
        error += a.extent;
    }
}

struct Plan {
    int32_t dw = 0, dh = 0, sw = 0, sh = 0;
    Scratch<int32_t> columns;  // source column of each destination column, inside the source
    Scratch<int32_t> rows;     // source row of each destination row, or kCopyAbove
    bool straight = false;     // the columns are consecutive: a row is one block copy

    bool empty() const { return dw <= 0 || dh <= 0; }
};

// Builds the plan of one extraction. Columns and rows that the rectangle
// puts outside the source take the nearest edge. A destination row repeats
// the row above when its source row is the one used last, or lies sh or
// more rows after the rectangle's first row.
int makePlan(Plan& p, const ImageSize* destinationSize, const ImageSize* sourceSize, const double* rectangle) {
    if (!destinationSize || !sourceSize) return IMGERR_BADARG;
    p.dw = destinationSize->x;
    p.dh = destinationSize->y;
    p.sw = sourceSize->x;
    p.sh = sourceSize->y;
    if (p.empty()) return 0;
    if (p.sw <= 0 || p.sh <= 0) return IMGERR_BADARG;

    double r[4] = {0.0, 0.0, double(p.sw - 1), double(p.sh - 1)};
    if (rectangle) {
        for (int i = 0; i < 4; ++i) {
            if (!std::isfinite(rectangle[i])) return IMGERR_BADARG;
            r[i] = std::clamp(rectangle[i], -kCoordinateLimit, kCoordinateLimit);
        }
    }
    if (!p.columns.allocate(size_t(p.dw), il::tag("SIcl")) || !p.rows.allocate(size_t(p.dh), il::tag("SIrw")))
        return IMGERR_NOMEMORY;

    const int64_t lastColumn = p.sw - 1, lastRow = p.sh - 1;
    stepAxis(makeAxis(r[0], r[2], p.dw), p.dw,
             [&](int32_t i, int64_t column) { p.columns[i] = int32_t(std::clamp<int64_t>(column, 0, lastColumn)); });
    p.straight = true;
    for (int32_t i = 1; i < p.dw && p.straight; ++i) p.straight = p.columns[i] == p.columns[0] + i;

    const Axis vertical = makeAxis(r[1], r[3], p.dh);
    int64_t used = 0;
    int32_t usedInside = -1;
    stepAxis(vertical, p.dh, [&](int32_t j, int64_t row) {
        int32_t inside = int32_t(std::clamp<int64_t>(row, 0, lastRow));
        if (j > 0 && (row == used || row - vertical.start >= p.sh || inside == usedInside)) {
            p.rows[j] = kCopyAbove;
            return;
        }
        p.rows[j] = inside;
        used = row;
        usedInside = inside;
    });
    return 0;
}

// Steps one row of pixels of `bytes` bytes each: source row (from column 0)
// to the dw destination pixels.
template <size_t bytes>
void stepPixels(uint8_t* dst, const uint8_t* src, const Plan& p) {
    const int32_t* c = p.columns.get();
    if (p.straight) {
        std::memcpy(dst, src + size_t(c[0]) * bytes, size_t(p.dw) * bytes);
        return;
    }
    for (int32_t i = 0; i < p.dw; ++i) std::memcpy(dst + size_t(i) * bytes, src + size_t(c[i]) * bytes, bytes);
}

void stepBytes(uint8_t* dst, const uint8_t* src, const Plan& p, const uint8_t* remap) {
    if (!remap) {
        stepPixels<1>(dst, src, p);
        return;
    }
    const int32_t* c = p.columns.get();
    if (p.straight) {
        src += c[0];
        for (int32_t i = 0; i < p.dw; ++i) dst[i] = remap[src[i]];
        return;
    }
    for (int32_t i = 0; i < p.dw; ++i) dst[i] = remap[src[c[i]]];
}

// Destination rows in one block of dstRowBytes a row: stepRow(destinationRow,
// sourceRow) makes the rows that are stepped; the others copy the row above.
template <class StepRow>
void forEachRow(const Plan& p, uint8_t* dst, size_t dstRowBytes, StepRow&& stepRow) {
    for (int32_t j = 0; j < p.dh; ++j) {
        uint8_t* d = dst + size_t(j) * dstRowBytes;
        if (p.rows[j] == kCopyAbove)
            std::memcpy(d, d - dstRowBytes, dstRowBytes);
        else
            stepRow(d, p.rows[j]);
    }
}

// Source rows expanded to one byte a pixel (sw bytes).
void expandBitRow(uint8_t* bytes, const uint8_t* bits, const Plan& p) { korImage_unpackBuffer(bytes, bits, 1, p.sw); }

// A missing row (a read that stopped early leaves null rows) reads as zeros.
void expandRunRow(uint8_t* bytes, uint8_t* bitScratch, const uint16_t* runs, const Plan& p) {
    if (!runs) {
        std::memset(bytes, 0, size_t(p.sw));
        return;
    }
    korImage_runLengthDecodeBitMapRow(bitScratch, runs, p.sw);
    expandBitRow(bytes, bitScratch, p);
}

void expandPackByteRow(uint8_t* bytes, const uint8_t* packed, const Plan& p) {
    if (!packed)
        std::memset(bytes, 0, size_t(p.sw));
    else
        korImage_unpackByteBuffer(bytes, packed, p.sw);
}

// The byte-map destinations of the bit, run-length and PackByte sources:
// expand(bytes, sourceRow) gives sw bytes of the source row.
template <class Expand>
int subByteMap(uint8_t* dst, const Plan& p, Expand&& expand) {
    Scratch<uint8_t> in(size_t(p.sw), il::tag("SIin"));
    if (!in.ok()) return IMGERR_NOMEMORY;
    forEachRow(p, dst, size_t(p.dw), [&](uint8_t* d, int32_t row) {
        expand(in.get(), row);
        stepBytes(d, in.get(), p, nullptr);
    });
    return 0;
}

// The row-table destinations (run-length and PackByte): each destination row
// is stepped into sw bytes and stored with store(table, row, bytes); a row
// that repeats the one above is stored again from the same bytes. On failure
// every row made is released and the table left all null.
template <class Table, class Expand, class Store>
int extractToRowTable(Table* dst, const Plan& p, Expand&& expand, Store&& store) {
    for (int32_t j = 0; j < p.dh; ++j) dst[j] = nullptr;
    Scratch<uint8_t> in(size_t(p.sw), il::tag("SIin")), out(size_t(p.dw), il::tag("SIou"));
    if (!in.ok() || !out.ok()) return IMGERR_NOMEMORY;
    for (int32_t j = 0; j < p.dh; ++j) {
        if (p.rows[j] != kCopyAbove) {
            expand(in.get(), p.rows[j]);
            stepBytes(out.get(), in.get(), p, nullptr);
        }
        if (int status = store(dst, j, out.get()); status != 0) {
            for (int32_t k = 0; k < j; ++k) {
                dlmSystem_korFree(dst[k]);
                dst[k] = nullptr;
            }
            return status;
        }
    }
    return 0;
}

}  // namespace

extern "C" {

int korImage_extractByteMapSubImage(uint8_t* destination, const ImageSize* destinationSize, const uint8_t* source,
                                    const ImageSize* sourceSize, const double* rectangle,
                                    const uint8_t* remap) noexcept {
    Plan p;
    if (int status = makePlan(p, destinationSize, sourceSize, rectangle); status != 0 || p.empty()) return status;
    if (!destination || !source) return IMGERR_BADARG;
    forEachRow(p, destination, size_t(p.dw),
               [&](uint8_t* d, int32_t row) { stepBytes(d, source + size_t(row) * size_t(p.sw), p, remap); });
    return 0;
}

int korImage_extractRGBSubImage(uint8_t* destination, const ImageSize* destinationSize, const uint8_t* source,
                                const ImageSize* sourceSize, const double* rectangle) noexcept {
    Plan p;
    if (int status = makePlan(p, destinationSize, sourceSize, rectangle); status != 0 || p.empty()) return status;
    if (!destination || !source) return IMGERR_BADARG;
    const size_t sw = size_t(p.sw), dw = size_t(p.dw);
    forEachRow(p, destination, 3 * dw, [&](uint8_t* d, int32_t row) {
        const uint8_t* s = source + size_t(row) * 3 * sw;
        for (size_t plane = 0; plane < 3; ++plane) stepPixels<1>(d + plane * dw, s + plane * sw, p);
    });
    return 0;
}

int korImage_extractRGBASubImage(uint8_t* destination, const ImageSize* destinationSize, const uint8_t* source,
                                 const ImageSize* sourceSize, const double* rectangle) noexcept {
    Plan p;
    if (int status = makePlan(p, destinationSize, sourceSize, rectangle); status != 0 || p.empty()) return status;
    if (!destination || !source) return IMGERR_BADARG;
    forEachRow(p, destination, 4 * size_t(p.dw),
               [&](uint8_t* d, int32_t row) { stepPixels<4>(d, source + size_t(row) * 4 * size_t(p.sw), p); });
    return 0;
}

int korImage_extractBitMapSubImage(uint8_t* destination, const ImageSize* destinationSize, const uint8_t* source,
                                   const ImageSize* sourceSize, const double* rectangle) noexcept {
    Plan p;
    if (int status = makePlan(p, destinationSize, sourceSize, rectangle); status != 0 || p.empty()) return status;
    if (!destination || !source) return IMGERR_BADARG;
    Scratch<uint8_t> in(size_t(p.sw), il::tag("SIin")), out(size_t(p.dw), il::tag("SIou"));
    if (!in.ok() || !out.ok()) return IMGERR_NOMEMORY;
    const size_t sourceRowBytes = il::bits::rowBytes(p.sw), rowBytes = il::bits::rowBytes(p.dw);
    const bool byteAligned = p.straight && p.columns[0] % 8 == 0;
    forEachRow(p, destination, rowBytes, [&](uint8_t* d, int32_t row) {
        const uint8_t* s = source + size_t(row) * sourceRowBytes;
        if (byteAligned) {  // whole bytes of the source row, padding bits cleared
            std::memcpy(d, s + p.columns[0] / 8, rowBytes);
            if (p.dw % 8) d[rowBytes - 1] &= uint8_t(0xFF << (8 - p.dw % 8));
            return;
        }
        expandBitRow(in.get(), s, p);
        stepBytes(out.get(), in.get(), p, nullptr);
        korImage_packBuffer(d, out.get(), 1, p.dw);
    });
    return 0;
}

int korImage_extractRLEBitMapSubImage(uint16_t** destination, const ImageSize* destinationSize, uint16_t* const* source,
                                      const ImageSize* sourceSize, const double* rectangle) noexcept {
    Plan p;
    if (int status = makePlan(p, destinationSize, sourceSize, rectangle); status != 0 || p.empty()) return status;
    if (!destination || !source) return IMGERR_BADARG;
    // Zeroed: the run decoder keeps the padding bits of the last byte as it
    // finds them, and the unpacking reads that whole byte.
    Scratch<uint8_t> sourceBits(il::bits::rowBytes(p.sw), il::tag("SIbi"), true),
        bits(il::bits::rowBytes(p.dw), il::tag("SIbo"));
    if (!sourceBits.ok() || !bits.ok()) return IMGERR_NOMEMORY;
    return extractToRowTable(
        destination, p, [&](uint8_t* bytes, int32_t row) { expandRunRow(bytes, sourceBits.get(), source[row], p); },
        [&](uint16_t** table, int32_t row, const uint8_t* bytes) {
            korImage_packBuffer(bits.get(), bytes, 1, p.dw);
            return il::storeRLEBitMapRow(table, row, bits.get(), p.dw);
        });
}

int korImage_extractPackByteSubImage(uint8_t** destination, const ImageSize* destinationSize, uint8_t* const* source,
                                     const ImageSize* sourceSize, const double* rectangle) noexcept {
    Plan p;
    if (int status = makePlan(p, destinationSize, sourceSize, rectangle); status != 0 || p.empty()) return status;
    if (!destination || !source) return IMGERR_BADARG;
    return extractToRowTable(
        destination, p, [&](uint8_t* bytes, int32_t row) { expandPackByteRow(bytes, source[row], p); },
        [&](uint8_t** table, int32_t row, const uint8_t* bytes) {
            return il::storePackByteRow(table, row, bytes, p.dw);
        });
}

int korImage_subByteMapFromBitMap(uint8_t* destination, const ImageSize* destinationSize, const uint8_t* source,
                                  const ImageSize* sourceSize, const double* rectangle) noexcept {
    Plan p;
    if (int status = makePlan(p, destinationSize, sourceSize, rectangle); status != 0 || p.empty()) return status;
    if (!destination || !source) return IMGERR_BADARG;
    const size_t sourceRowBytes = il::bits::rowBytes(p.sw);
    return subByteMap(destination, p, [&](uint8_t* bytes, int32_t row) {
        expandBitRow(bytes, source + size_t(row) * sourceRowBytes, p);
    });
}

int korImage_subByteMapFromPackByte(uint8_t* destination, const ImageSize* destinationSize, uint8_t* const* source,
                                    const ImageSize* sourceSize, const double* rectangle) noexcept {
    Plan p;
    if (int status = makePlan(p, destinationSize, sourceSize, rectangle); status != 0 || p.empty()) return status;
    if (!destination || !source) return IMGERR_BADARG;
    return subByteMap(destination, p, [&](uint8_t* bytes, int32_t row) { expandPackByteRow(bytes, source[row], p); });
}

int korImage_subByteMapFromRLEBitMap(uint8_t* destination, const ImageSize* destinationSize, uint16_t* const* source,
                                     const ImageSize* sourceSize, const double* rectangle) noexcept {
    Plan p;
    if (int status = makePlan(p, destinationSize, sourceSize, rectangle); status != 0 || p.empty()) return status;
    if (!destination || !source) return IMGERR_BADARG;
    Scratch<uint8_t> sourceBits(il::bits::rowBytes(p.sw), il::tag("SIbi"), true);  // padding bits: as above
    if (!sourceBits.ok()) return IMGERR_NOMEMORY;
    return subByteMap(destination, p,
                      [&](uint8_t* bytes, int32_t row) { expandRunRow(bytes, sourceBits.get(), source[row], p); });
}

int korImage_extractSubImage(void* destination, const ImageSize* destinationSize, const void* source,
                             const ImageSize* sourceSize, const double* rectangle, int format) noexcept {
    auto* d = static_cast<uint8_t*>(destination);
    auto* s = static_cast<const uint8_t*>(source);
    switch (format) {
        case IMAGEFORMAT_BITMAP:
            return korImage_extractBitMapSubImage(d, destinationSize, s, sourceSize, rectangle);
        case IMAGEFORMAT_RLEBITMAP:
            return korImage_extractRLEBitMapSubImage(static_cast<uint16_t**>(destination), destinationSize,
                                                     static_cast<uint16_t* const*>(source), sourceSize, rectangle);
        case IMAGEFORMAT_MAP:
        case IMAGEFORMAT_MAP2:
            return korImage_extractByteMapSubImage(d, destinationSize, s, sourceSize, rectangle, nullptr);
        case IMAGEFORMAT_RGB:
            return korImage_extractRGBSubImage(d, destinationSize, s, sourceSize, rectangle);
        case IMAGEFORMAT_RGBA:
            return korImage_extractRGBASubImage(d, destinationSize, s, sourceSize, rectangle);
        case IMAGEFORMAT_PACKBYTE:
            return korImage_extractPackByteSubImage(static_cast<uint8_t**>(destination), destinationSize,
                                                    static_cast<uint8_t* const*>(source), sourceSize, rectangle);
        default:
            return IMGERR_BADIMAGEFORMAT;
    }
}

}  // extern "C"
