// WordPerfect Graphics (WPG 1) output.
//
// The bitmap record's length is only known once the rows are coded: the
// record is written with 14 zero bytes for its fields, and these are filled
// in after the end record. Its length uses the long form: two 16-bit words,
// the high half with bit 15 set, then the low half.
#include "codecs/native/wpg.h"

#include <algorithm>
#include <cstring>

#include "imagelib/pixels.h"
#include "internal/bytes.h"
#include "internal/checked.h"
#include "internal/scratch.h"
#include "pixels/colour.h"
#include "pixels/map_rows.h"
#include "pixels/dither.h"

namespace {

constexpr int kDpi = 76;           // assumed resolution
constexpr int kUnitsPerInch = 1200;
constexpr int kMaxField = 0xFFFF;
constexpr int64_t kMaxLongLength = 0x7FFFFFFF;

// Screen size in WPG units, held to its 16-bit field.
uint32_t screenUnits(int pixels) {
    return uint32_t(std::min<int64_t>(int64_t(pixels) * kUnitsPerInch / kDpi, kMaxField));
}

// The bitmap fields after 0x0B 0xFF: long length, width, height, depth and
// the two resolutions.
void putBitmapFields(uint8_t* p, uint32_t length, const ImageSize* size, int depth) {
    il::put16le(p, (length >> 16) | 0x8000);
    il::put16le(p + 2, length & 0xFFFF);
    il::put16le(p + 4, uint32_t(size->x));
    il::put16le(p + 6, uint32_t(size->y));
    il::put16le(p + 8, uint32_t(depth));
    il::put16le(p + 10, kDpi);
    il::put16le(p + 12, kDpi);
}

size_t rowBytes(int width, int depth) { return depth == 4 ? (size_t(width) + 1) / 2 : size_t(width); }

// A size the file can describe, whose coded rows fit the long length.
bool sizeFits(const ImageSize* size, int depth) {
    if (!size || !il::imageBytes(size->x, size->y, 1) || size->x > kMaxField || size->y > kMaxField) return false;
    return int64_t(wpgRowBound(rowBytes(size->x, depth))) * size->y + 10 <= kMaxLongLength;
}

// Joins pixels two to a byte, first pixel in the high nibble.
void joinNibbles(uint8_t* dst, const uint8_t* src, int width) {
    for (int x = 0; x + 1 < width; x += 2) *dst++ = uint8_t((src[x] << 4) | (src[x + 1] & 15));
    if (width & 1) *dst = uint8_t(src[width - 1] << 4);
}

// A file being written: header records, the bitmap record's placeholder,
// coded rows, then the end record and the bitmap fields.
class Writer {
public:
    int begin(const char* path, const ImageSize* size, int depth, int count, const uint8_t* red,
              const uint8_t* green, const uint8_t* blue) {
        size_ = *size;
        depth_ = depth;
        bytes_ = rowBytes(size->x, depth);
        if (!coded_.allocate(wpgRowBound(bytes_), il::tag("WpgC")) ||
            (depth == 4 && !joined_.allocate(bytes_, il::tag("WpgJ"))))
            return IMGERR_NOMEMORY;
        file_ = il::File::open(path, "wb+");
        if (!file_.ok()) return IMGERR_OPENFAILED;
        if (!imageWpg_writeHeader(file_, size, depth, count, red, green, blue)) return IMGERR_WRITEFAILED;
        static const uint8_t kRecord[2 + 14] = {0x0B, 0xFF};
        fieldsAt_ = file_.tell() + 2;
        return fieldsAt_ >= 2 && file_.write(kRecord, sizeof kRecord) ? 0 : IMGERR_WRITEFAILED;
    }
    // Codes and writes one row of width index bytes.
    int row(const uint8_t* indices) {
        const uint8_t* bytes = indices;
        if (depth_ == 4) {
            joinNibbles(joined_.get(), indices, size_.x);
            bytes = joined_.get();
        }
        const int n = imageWpg_encodeRow(coded_.get(), bytes, int(bytes_));
        length_ += uint32_t(n);
        return file_.write(coded_.get(), size_t(n)) ? 0 : IMGERR_WRITEFAILED;
    }
    // Writes the end record and the bitmap fields and closes; status is
    // what the rows ended with, kept unless finishing fails.
    int finish(int status) {
        static const uint8_t kEnd[2] = {0x10, 0x00};
        uint8_t fields[14];
        putBitmapFields(fields, length_, &size_, depth_);
        bool ok = file_.write(kEnd, sizeof kEnd) && file_.seek(fieldsAt_) && file_.write(fields, sizeof fields);
        ok &= file_.close();
        return status ? status : ok ? 0 : IMGERR_WRITEFAILED;
    }

private:
    il::File file_;
    il::Scratch<uint8_t> coded_, joined_;
    ImageSize size_{};
    int depth_ = 8;
    size_t bytes_ = 0;
    int64_t fieldsAt_ = 0;
    uint32_t length_ = 10;  // the five 16-bit fields, then the coded rows
};


}  // namespace

bool imageWpg_writeHeader(il::File& f, const ImageSize* size, int depth, int colourCount, const uint8_t* red,
                          const uint8_t* green, const uint8_t* blue) noexcept {
    uint8_t h[16 + 8] = {0xFF, 'W', 'P', 'C'};
    il::put32le(h + 4, 16);
    h[8] = 1;     // product type
    h[9] = 0x16;  // file type
    h[10] = 1;    // major version
    h[11] = 0;    // minor version; encryption key and reserved word stay 0
    uint8_t* start = h + 16;
    start[0] = 0x0F;
    start[1] = 6;
    start[2] = 1;  // version
    start[3] = 0;  // flags
    il::put16le(start + 4, screenUnits(size->x));
    il::put16le(start + 6, screenUnits(size->y));

    const bool wide = depth == 8 || colourCount > 16;
    const int entries = wide ? 256 : 16;
    const int n = std::clamp(colourCount, 0, entries);
    uint8_t map[8 + 256 * 3] = {};
    uint8_t* p = map;
    *p++ = 0x0E;
    if (wide) {
        *p++ = 0xFF;
        il::put16le(p, 4 + 3 * 256);
        p += 2;
    } else {
        *p++ = 4 + 3 * 16;
    }
    il::put16le(p, 0);  // first index
    il::put16le(p + 2, uint32_t(entries));
    p += 4;
    for (int i = 0; i < n; ++i) {
        p[3 * i] = red[i];
        p[3 * i + 1] = green[i];
        p[3 * i + 2] = blue[i];
    }
    p += 3 * entries;
    return f.write(h, sizeof h) && f.write(map, size_t(p - map));
}

int imageWpg_encodeRow(uint8_t* output, const uint8_t* in, int length) noexcept {
    uint8_t* o = output;
    int i = 0;
    while (i < length) {
        int n = 0;
        if (i + 1 < length && in[i] == in[i + 1]) {
            // Equal neighbouring pairs from (i, i + 1): a run of n + 1 bytes
            // coded as n repeats.
            while (n < 127 && i + n + 1 < length && in[i + n] == in[i + n + 1]) ++n;
            *o++ = uint8_t(0x80 | n);
            *o++ = in[i];
        } else {
            // Literal bytes up to the next byte that equals its neighbour.
            n = 1;
            while (n < 127 && i + n < length && !(i + n + 1 < length && in[i + n] == in[i + n + 1])) ++n;
            *o++ = uint8_t(n);
            std::memcpy(o, in + i, size_t(n));
            o += n;
        }
        i += n;
    }
    return int(o - output);
}

int imageWpg_writeFromMap(const char* path, const void* map, const uint8_t* red, const uint8_t* green,
                          const uint8_t* blue, int colourCount, const ImageSize* size, int imageFormat, int packed,
                          StopFunction stop) noexcept {
    if (imageFormat != COLORMODE_PALETTE16 && imageFormat != COLORMODE_PALETTE256 && imageFormat != COLORMODE_GREY)
        return IMGERR_BADARG;
    const int depth = imageFormat == COLORMODE_PALETTE16 ? 4 : 8;
    if (!map || !red || !green || !blue || !sizeFits(size, depth)) return IMGERR_BADARG;
    const bool grey = imageFormat == COLORMODE_GREY;
    const int w = size->x;

    il::MapRows rows(map, packed != 0, grey, red, green, blue, colourCount, w, il::tag("WpgU"));
    if (!rows.ok()) return IMGERR_NOMEMORY;
    Writer out;
    if (int st = out.begin(path, size, depth, rows.count(), rows.red(), rows.green(), rows.blue())) return st;
    int st = il::writeIndexRows(out, size->y, [&](int y) { return imageUtil_reportProgress(stop, size->y, y); },
        [&](int y) -> const uint8_t* { return rows.row(y); });
    return rows.status() ? rows.status() : st;
}

int imageWpg_writeFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, int imageFormat,
                          StopFunction stop) noexcept {
    if (imageFormat != COLORMODE_PALETTE16 && imageFormat != COLORMODE_PALETTE256 && imageFormat != COLORMODE_GREY)
        return IMGERR_BADARG;
    const int depth = imageFormat == COLORMODE_PALETTE16 ? 4 : 8;
    if (!rgb || !sizeFits(size, depth)) return IMGERR_BADARG;
    const int w = size->x;
    const size_t planeRow = size_t(w) * 3;

    uint8_t red[256] = {}, green[256] = {}, blue[256] = {};
    int count = 256;
    il::DitherJob job;
    if (imageFormat == COLORMODE_GREY) {
        il::setGreyRamp(red, green, blue);
    } else {
        if (int st = korImage_getOptimizedPalette(red, green, blue, &count, depth == 4 ? 16 : 256, rgb, size, stop))
            return st;
        if (count < 1) return IMGERR_NOMEMORY;  // the optimiser could not have its boxes
        if (int st = korImage_ditherInitialize(count, red, green, blue, w)) return st;
    }
    il::Scratch<uint8_t> row(size_t(w), il::tag("WpgR"));
    if (!row.ok()) return IMGERR_NOMEMORY;

    Writer out;
    if (int st = out.begin(path, size, depth, count, red, green, blue)) return st;
    return il::writeIndexRows(out, size->y, [&](int) { return imageUtil_stopped(stop); },
        [&](int y) -> const uint8_t* {
            const uint8_t *r = rgb + size_t(y) * planeRow, *g = r + w, *b = g + w;
            if (imageFormat == COLORMODE_GREY) {
                for (int x = 0; x < w; ++x) row[size_t(x)] = il::greyLevelFloat(r[x], g[x], b[x]);
            } else {
                korImage_ditherRow(row.get(), r, g, b, w);
            }
            return row.get();
        });
}
