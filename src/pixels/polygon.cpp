// Polygon fills: one value (or one colour) painted inside a polygon, or
// everything outside it, by the even-odd rule on the scan lines through the
// pixel centres.
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

struct Point {
    double x, y;
};

// Where a point lies against the scan line y: 1 below it (larger y), -1
// above it, 0 on it.
int side(double y, const double* points, size_t k) {
    double py = points[2 * k + 1];
    return y < py ? 1 : (y > py ? -1 : 0);
}

// The x of every crossing of the outline with the scan line y, into list
// (room for n values); returns their number. The outline is closed by its
// last point repeating the first, so the point that follows point k + 1 is
// point (k + 2) mod (n - 1). A vertex on the scan line counts once where
// the outline passes through the line and not at all where it only touches it.
size_t crossings(double* list, double y, const double* points, size_t n) {
    if (n < 2) return 0;
    size_t count = 0;
    int prev = side(y, points, 0), cur = side(y, points, 1);
    for (size_t k = 0; k + 1 < n; ++k) {
        int next = side(y, points, (k + 2) % (n - 1));
        const double x0 = points[2 * k], y0 = points[2 * k + 1];
        const double x1 = points[2 * k + 2], y1 = points[2 * k + 3];
        if (cur != 0 && prev * cur < 0) {
            // An outline that is not closed can carry a side that is not its
            // own point's onto the last edge; a level edge has no crossing.
            if (y1 != y0) {
                double x = (x1 - x0) * (y - y0) / (y1 - y0) + x0;
                list[count++] = std::isnan(x) ? x0 : x;  // NaN only from coordinates near the double range
            }
        } else if (cur == 0 && prev * next < 0) {
            list[count++] = x1;
        }
        prev = cur;
        cur = next;
    }
    return count;
}

// The pixels a span covers: the crossings a and b give ceil(a) .. floor(b) - 1,
// cut to the row. False when nothing remains or only one pixel would
// (single pixels are never painted).
bool spanPixels(double a, double b, int32_t width, int32_t* first, int32_t* last) {
    double start = std::ceil(a), end = std::floor(b) - 1.0;
    if (start > double(width - 1)) return false;
    start = std::max(start, 0.0);
    if (end < 0.0) return false;
    end = std::min(end, double(width - 1));
    if (!(end > start)) return false;
    *first = int32_t(start);
    *last = int32_t(end);
    return true;
}

// Painting of one image layout. begin(row) readies a row, paint(first,
// last) paints pixels of it, end() puts the row back; begin and end matter
// only for the row tables, which are decoded into a scratch row and encoded
// again.
class Painter {
public:
    Painter(void* image, int format, int32_t width, int value, const uint8_t* rgb)
        : image_(image), format_(format), width_(width), value_(uint8_t(value)), on_(value != 0), rgb_(rgb) {}

    // Scratch of the row-table layouts; false when it cannot be had.
    bool prepare() {
        if (format_ == IMAGEFORMAT_RLEBITMAP)
            return row_.allocate(il::bits::rowBytes(size_t(width_)), il::tag("rPMs"), true);
        if (format_ == IMAGEFORMAT_PACKBYTE) return row_.allocate(size_t(width_), il::tag("rPMs"));
        return true;
    }

    void begin(int32_t r) {
        row_index_ = r;
        decoded_ = false;
    }

    void paint(int32_t first, int32_t last) {
        const size_t w = size_t(width_), r = size_t(row_index_), n = size_t(last - first + 1);
        switch (format_) {
            case IMAGEFORMAT_BITMAP:
                il::bits::fill(static_cast<uint8_t*>(image_) + r * il::bits::rowBytes(w), size_t(first),
                               size_t(last) + 1, on_);
                break;
            case IMAGEFORMAT_RLEBITMAP:
                decode();
                il::bits::fill(row_.get(), size_t(first), size_t(last) + 1, on_);
                break;
            case IMAGEFORMAT_MAP:
            case IMAGEFORMAT_MAP2:
                std::memset(static_cast<uint8_t*>(image_) + r * w + size_t(first), value_, n);
                break;
            case IMAGEFORMAT_PACKBYTE:
                decode();
                std::memset(row_.get() + first, value_, n);
                break;
            case IMAGEFORMAT_RGB: {
                uint8_t* row = static_cast<uint8_t*>(image_) + r * 3 * w + size_t(first);
                for (size_t plane = 0; plane < 3; ++plane) std::memset(row + plane * w, rgb_[plane], n);
                break;
            }
        }
    }

    // Stores a row that was decoded and painted; 0 or -116 (the old row then
    // stays as it was).
    int end() {
        if (!decoded_) return 0;
        decoded_ = false;
        if (format_ == IMAGEFORMAT_PACKBYTE) {
            uint8_t** rows = static_cast<uint8_t**>(image_);
            uint8_t* fresh[1] = {nullptr};
            if (il::storePackByteRow(fresh, 0, row_.get(), width_) != 0) return IMGERR_NOMEMORY;
            dlmSystem_korFree(rows[row_index_]);
            rows[row_index_] = fresh[0];
        } else {
            uint16_t** rows = static_cast<uint16_t**>(image_);
            uint16_t* fresh[1] = {nullptr};
            if (il::storeRLEBitMapRow(fresh, 0, row_.get(), width_) != 0) return IMGERR_NOMEMORY;
            dlmSystem_korFree(rows[row_index_]);
            rows[row_index_] = fresh[0];
        }
        return 0;
    }

private:
    // Decodes the current row of a row table into the scratch row, once per
    // row. A missing row (left null by a read that stopped) reads as zeros.
    void decode() {
        if (decoded_) return;
        decoded_ = true;
        if (format_ == IMAGEFORMAT_PACKBYTE) {
            const uint8_t* packed = static_cast<uint8_t**>(image_)[row_index_];
            if (packed)
                korImage_unpackByteBuffer(row_.get(), packed, width_);
            else
                std::memset(row_.get(), 0, size_t(width_));
        } else {
            const uint16_t* runs = static_cast<uint16_t**>(image_)[row_index_];
            if (runs)
                korImage_runLengthDecodeBitMapRow(row_.get(), runs, width_);
            else
                std::memset(row_.get(), 0, row_.size());
        }
    }

    void* image_;
    int format_;
    int32_t width_;
    uint8_t value_;
    bool on_;
    const uint8_t* rgb_;
    Scratch<uint8_t> row_;
    int32_t row_index_ = 0;
    bool decoded_ = false;
};

// The fill shared by both entry points, after the layout has been checked.
int fillPolygon(Painter& painter, int* filled, const ImageSize* size, const double* points, int pointCount, int outside,
                StopFunction stop) {
    if (filled) *filled = 0;
    if (!size || pointCount < 0 || (pointCount > 0 && !points)) return IMGERR_BADARG;
    const size_t n = size_t(pointCount);
    for (size_t i = 0; i < 2 * n; ++i)
        if (!std::isfinite(points[i])) return IMGERR_BADARG;
    const int32_t width = size->x, height = size->y;
    if (width <= 0 || height <= 0) return 0;

    Scratch<double> list(n + 2, il::tag("iPMs"));
    if (!list.ok() || !painter.prepare()) return IMGERR_NOMEMORY;

    // Rows: all of them outside; inside, from the first row whose centre can
    // lie inside up to, not including, the row at floor(largest y).
    int32_t firstRow = 0, endRow = height;
    if (!outside) {
        if (n == 0) return 0;
        double low = points[1], high = points[1];
        for (size_t i = 1; i < n; ++i) {
            low = std::min(low, points[2 * i + 1]);
            high = std::max(high, points[2 * i + 1]);
        }
        double first = std::max(std::ceil(low), 0.0), end = std::min(std::floor(high), double(height));
        if (!(end > first)) return 0;
        firstRow = int32_t(first);
        endRow = int32_t(end);
    }

    const int total = endRow - firstRow;
    for (int32_t r = firstRow; r < endRow; ++r) {
        if (imageUtil_reportProgress(stop, total, r - firstRow) != 0) return IMGERR_STOPPED;
        size_t count = crossings(list.get(), double(r) + 0.5, points, n);
        if (outside) {
            list[count++] = 0.0;
            list[count++] = double(width);
        }
        if (count < 2) continue;
        std::sort(list.get(), list.get() + count);
        painter.begin(r);
        for (size_t k = 0; k + 1 < count; k += 2) {
            int32_t first, last;
            if (!spanPixels(list[k], list[k + 1], width, &first, &last)) continue;
            if (filled) *filled = 1;
            painter.paint(first, last);
        }
        if (int status = painter.end(); status != 0) return status;
    }
    return 0;
}

}  // namespace

extern "C" {

int korImage_setMapPolygon(void* image, int* filled, const ImageSize* size, int format, const double* points,
                           int pointCount, int outside, int value, StopFunction stop) noexcept {
    if (filled) *filled = 0;
    switch (format) {
        case IMAGEFORMAT_BITMAP:
        case IMAGEFORMAT_RLEBITMAP:
        case IMAGEFORMAT_MAP:
        case IMAGEFORMAT_MAP2:
        case IMAGEFORMAT_PACKBYTE:
            break;
        default:
            return IMGERR_BADARG;
    }
    if (!image) return IMGERR_BADARG;
    Painter painter(image, format, size ? size->x : 0, value, nullptr);
    return fillPolygon(painter, filled, size, points, pointCount, outside, stop);
}

int korImage_setRGBPolygon(uint8_t* image, int* filled, const ImageSize* size, const double* points, int pointCount,
                           int outside, const uint8_t* rgb, StopFunction stop) noexcept {
    if (filled) *filled = 0;
    if (!image || !rgb) return IMGERR_BADARG;
    Painter painter(image, IMAGEFORMAT_RGB, size ? size->x : 0, 0, rgb);
    return fillPolygon(painter, filled, size, points, pointCount, outside, stop);
}

}  // extern "C"
