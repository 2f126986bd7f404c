// Sun raster files.
//
// Eight big-endian 32-bit header words, the colour map (all red bytes, then
// all green, then all blue), then the rows top row first, each padded to an
// even number of bytes. Byte-encoded files (type 2) code the whole pixel
// stream, pads included, with 0x80 escapes; runs may cross rows.
//
// The reader loads the file once and decodes from memory. Sizes the data
// cannot hold are refused with IMGERR_BADFILE before the image is
// allocated; within that bound rows that the data does not reach read as 0.
#include "codecs/native/sun.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "imagelib/pixels.h"
#include "internal/bytes.h"
#include "internal/checked.h"
#include "internal/file.h"
#include "internal/scratch.h"
#include "pixels/colour.h"
#include "pixels/dither.h"
#include "pixels/rows.h"

void imageSun_parseHeader(SunHeader* h, const uint8_t* b) noexcept {
    uint32_t* words[8] = {&h->magic, &h->width,  &h->height,  &h->depth,
                          &h->length, &h->type, &h->mapType, &h->mapLength};
    for (int i = 0; i < 8; ++i) *words[i] = il::get32be(b + 4 * i);
}

int imageSun_readRow(SunDecoder* d, uint8_t* out, size_t length, int encoded) noexcept {
    size_t i = 0;
    if (!encoded) {
        const size_t n = std::min(length, d->length - std::min(d->pos, d->length));
        std::memcpy(out, d->data + d->pos, n);
        d->pos += n;
        i = n;
    } else {
        while (i < length) {
            if (d->pending > 0) {
                const size_t n = std::min(size_t(d->pending), length - i);
                std::memset(out + i, d->value, n);
                i += n;
                d->pending -= int(n);
                continue;
            }
            if (d->pos >= d->length) break;
            const uint8_t c = d->data[d->pos++];
            if (c != 0x80) {
                out[i++] = c;
                continue;
            }
            if (d->pos >= d->length) break;
            const uint8_t n = d->data[d->pos++];
            if (n == 0) {
                out[i++] = 0x80;
                continue;
            }
            if (d->pos >= d->length) break;
            d->value = d->data[d->pos++];
            d->pending = n + 1;
        }
    }
    if (i == length) return 0;
    std::memset(out + i, 0, length - i);
    return IMGSTAT_NO_BACKGROUND;  // 32768: the data ended first
}

namespace {

// Bytes of one stored row without its pad.
int64_t rowLength(int64_t width, uint32_t depth) {
    return depth == 1 ? (width + 7) / 8 : int64_t((depth + 7) / 8) * width;
}

// A whole file in memory with its header.
struct Source {
    il::Scratch<uint8_t> bytes;
    size_t length = 0;
    SunHeader h{};

    int load(const char* path) {
        il::File f = il::File::open(path, "rb");
        if (!f.ok()) return IMGERR_OPENFAILED;
        const int64_t n = f.size();
        if (n < kSunHeaderBytes) return IMGERR_READFAILED;
        if (!bytes.allocate(size_t(n), il::tag("SunF"))) return IMGERR_NOMEMORY;
        if (!f.read(bytes.get(), size_t(n))) return IMGERR_READFAILED;
        length = size_t(n);
        imageSun_parseHeader(&h, bytes.get());
        return h.magic == kSunMagic ? 0 : IMGERR_UNSUPPORTEDTYPE;
    }
};

}  // namespace

int imageSun_readInfo(ImageSize* size, int* imageFormat, const char* path) noexcept {
    il::File f = il::File::open(path, "rb");
    if (!f.ok()) return IMGERR_OPENFAILED;
    uint8_t b[kSunHeaderBytes];
    if (!f.read(b, sizeof b)) return IMGERR_READFAILED;
    SunHeader h;
    imageSun_parseHeader(&h, b);
    if (h.magic != kSunMagic) return IMGERR_UNSUPPORTEDTYPE;
    if (size) *size = ImageSize{int32_t(h.width), int32_t(h.height)};
    if (imageFormat)
        *imageFormat = h.depth == 1 ? COLORMODE_BILEVEL : h.depth > 4 ? COLORMODE_PALETTE256 : COLORMODE_PALETTE16;
    return 0;
}

int imageSun_readToMap(void** map, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue, int* colourCount,
                       const char* path, int packed, StopFunction stop) noexcept {
    if (!map || !red || !green || !blue) return IMGERR_BADARG;
    Source src;
    if (int st = src.load(path)) return st;
    const SunHeader& h = src.h;
    // True colour (24, 32) is not read, nor any depth the row expansion
    // does not take.
    if (h.depth != 1 && h.depth != 4 && h.depth != 8) return IMGERR_UNSUPPORTEDTYPE;
    if (h.width == 0 || h.height == 0 || h.width > il::kMaxDimension || h.height > il::kMaxDimension)
        return IMGERR_BADFILE;
    const int w = int(h.width), hgt = int(h.height);

    // The colour map: mapLength / 3 entries of each component; reading
    // goes on right after them.
    const size_t entries = h.mapLength / 3;
    if (entries > 256 || kSunHeaderBytes + 3 * entries > src.length) return IMGERR_BADFILE;
    std::memset(red, 0, 256);
    std::memset(green, 0, 256);
    std::memset(blue, 0, 256);
    const uint8_t* cmap = src.bytes.get() + kSunHeaderBytes;
    if (h.mapLength != 0) {
        std::memcpy(red, cmap, entries);
        std::memcpy(green, cmap + entries, entries);
        std::memcpy(blue, cmap + 2 * entries, entries);
    } else {
        red[1] = green[1] = blue[1] = 255;
    }

    const int64_t rowLen = rowLength(w, h.depth);
    const int64_t stored = rowLen + (rowLen & 1);
    const bool encoded = h.type == kSunByteEncoded;
    const int64_t remaining = int64_t(src.length - kSunHeaderBytes - 3 * entries);
    // Uncompressed rows must all be there (a missing last pad is let go);
    // three encoded bytes give at most 256.
    if (encoded ? stored * hgt > remaining * 86 + 256 : rowLen * hgt > remaining) return IMGERR_BADFILE;
    if (!il::imageBytes(w, hgt, 1) || (encoded && !il::withinPixelLimit(w, hgt))) return IMGERR_BADFILE;

    il::Scratch<uint8_t> rowBuf(size_t(stored), il::tag("SunR"));
    il::Scratch<uint8_t> unpacked(size_t(w), il::tag("SunU"));
    if (!rowBuf.ok() || !unpacked.ok()) return IMGERR_NOMEMORY;
    il::RowTable table;
    il::CallerBuffer<uint8_t> out;
    if (packed) {
        if (!table.allocate(ImageSize{w, hgt})) return IMGERR_NOMEMORY;
    } else {
        out = il::callerBytes(size_t(w) * size_t(hgt));
        if (!out) return IMGERR_NOMEMORY;
    }

    SunDecoder dec;
    dec.data = src.bytes.get();
    dec.length = src.length;
    dec.pos = kSunHeaderBytes + 3 * entries;
    for (int y = 0; y < hgt; ++y) {
        if (imageUtil_reportProgress(stop, hgt, y)) return IMGERR_STOPPED;
        (void)imageSun_readRow(&dec, rowBuf.get(), size_t(stored), encoded);  // a short file reads as 0
        uint8_t* row = packed ? unpacked.get() : out.get() + size_t(y) * size_t(w);
        if (h.depth == 8)
            std::memcpy(row, rowBuf.get(), size_t(w));
        else
            korImage_unpackBuffer(row, rowBuf.get(), int(h.depth), w);
        if (packed && il::storePackByteRow(table.bytes(), y, row, w)) return IMGERR_NOMEMORY;
    }
    if (size) *size = ImageSize{w, hgt};
    if (colourCount) *colourCount = 1 << h.depth;
    *map = packed ? static_cast<void*>(table.release()) : static_cast<void*>(out.release());
    return 0;
}

// --- writing -----------------------------------------------------------------

namespace {


bool writableSize(const ImageSize* size) { return size && il::imageBytes(size->x, size->y, 1); }

// Header, colour map and rows of an 8-bit uncompressed file; rows of odd
// width get a 0 pad byte. Returns 1 when stop asked to stop (the file is
// still closed), else 0 or a status.
template <class Build>
int writeFile(const char* path, const ImageSize* size, int count, const uint8_t* red, const uint8_t* green,
              const uint8_t* blue, uint8_t* rowBuf, StopFunction stop, Build build) {
    const uint32_t w = uint32_t(size->x), pad = w & 1;
    count = std::clamp(count, 0, 256);
    uint8_t hdr[kSunHeaderBytes];
    const uint32_t words[8] = {kSunMagic, w, uint32_t(size->y), 8, uint32_t(size->y) * (w + pad), 1, 1,
                               uint32_t(count) * 3};
    for (int i = 0; i < 8; ++i) il::put32be(hdr + 4 * i, words[i]);
    il::File f = il::File::open(path, "wb");
    if (!f.ok()) return IMGERR_OPENFAILED;
    if (!f.write(hdr, sizeof hdr) || !f.write(red, size_t(count)) || !f.write(green, size_t(count)) ||
        !f.write(blue, size_t(count)))
        return IMGERR_WRITEFAILED;
    int stopped = 0;
    for (int y = 0; y < size->y; ++y) {
        if (imageUtil_reportProgress(stop, size->y, y)) {
            stopped = 1;
            break;
        }
        const uint8_t* row = build(y, rowBuf);
        if (row != rowBuf) std::memcpy(rowBuf, row, w);
        rowBuf[w] = 0;
        if (!f.write(rowBuf, w + pad)) return IMGERR_WRITEFAILED;
    }
    if (!f.close()) return IMGERR_WRITEFAILED;
    return stopped;
}

}  // namespace

int imageSun_writeFromMap(const char* path, const void* map, const uint8_t* red, const uint8_t* green,
                          const uint8_t* blue, int colourCount, const ImageSize* size, int imageFormat, int packed,
                          StopFunction stop) noexcept {
    if (imageFormat != COLORMODE_PALETTE256 && imageFormat != COLORMODE_GREY) return IMGERR_BADARG;
    if (!map || !red || !green || !blue || !writableSize(size)) return IMGERR_BADARG;
    const int w = size->x;
    const bool grey = imageFormat == COLORMODE_GREY;
    uint8_t table[256], ramp[3][256];
    if (grey) {
        korImage_paletteToGreyScale(table, nullptr, nullptr, red, green, blue, std::clamp(colourCount, 0, 256));
        il::setGreyRamp(ramp[0], ramp[1], ramp[2]);
    }
    il::Scratch<uint8_t> rowBuf(size_t(w) + 1, il::tag("SunW"));
    if (!rowBuf.ok()) return IMGERR_NOMEMORY;
    return writeFile(path, size, grey ? 256 : colourCount, grey ? ramp[0] : red, grey ? ramp[1] : green,
                     grey ? ramp[2] : blue, rowBuf.get(), stop, [&](int y, uint8_t* buf) -> const uint8_t* {
                         const uint8_t* src;
                         if (packed) {
                             korImage_unpackByteBuffer(buf, static_cast<uint8_t* const*>(map)[y], w);
                             src = buf;
                         } else {
                             src = static_cast<const uint8_t*>(map) + size_t(y) * size_t(w);
                         }
                         if (!grey) return src;
                         for (int x = 0; x < w; ++x) buf[x] = table[src[x]];
                         return buf;
                     });
}

int imageSun_writeFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, int imageFormat,
                          StopFunction stop) noexcept {
    il::DitherJob job;  // cleaned up on every path
    if (imageFormat != COLORMODE_PALETTE256 && imageFormat != COLORMODE_GREY) return IMGERR_BADARG;
    if (!rgb || !writableSize(size)) return IMGERR_BADARG;
    const int w = size->x;
    const bool grey = imageFormat == COLORMODE_GREY;
    const size_t planeRow = size_t(w) * 3;
    uint8_t red[256] = {}, green[256] = {}, blue[256] = {};
    int count = 256;
    if (grey) {
        il::setGreyRamp(red, green, blue);
    } else if (int st = korImage_getOptimizedPalette(red, green, blue, &count, 256, rgb, size, stop)) {
        return st;
    }
    il::Scratch<uint8_t> rowBuf(size_t(w) + 1, il::tag("SunV"));
    if (!rowBuf.ok()) return IMGERR_NOMEMORY;
    if (!grey) {
        if (int st = korImage_ditherInitialize(count, red, green, blue, w)) return st;
    }
    return writeFile(path, size, count, red, green, blue, rowBuf.get(), stop, [&](int y, uint8_t* buf) {
        const uint8_t* r = rgb + size_t(y) * planeRow;
        const uint8_t *g = r + w, *b = g + w;
        if (grey) {
            for (int x = 0; x < w; ++x) buf[x] = il::greyLevelWriter(r[x], g[x], b[x]);
        } else {
            korImage_ditherRow(buf, r, g, b, w);
        }
        return static_cast<const uint8_t*>(buf);
    });
}
