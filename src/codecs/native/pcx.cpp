// PC Paintbrush files.
//
// A 128-byte little-endian header, then for every row one run-length coded
// line per plane (plane 0 first), then, in 256-colour files of version 5,
// the byte 12 and a palette of 256 red, green, blue entries.
//
// The readers load the file once and decode from memory. Nothing in the
// header is trusted: a size the data cannot produce (each two bytes decode
// to at most 63) is refused with IMGERR_BADFILE before the image is
// allocated, and a line shorter than the width it must hold likewise.
// Within that bound a file that ends early decodes as the old readers did:
// the missing bytes read as 0xFF, that is as runs of 0xFF.
#include "codecs/native/pcx.h"

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

const uint8_t kPcxDefaultPalette[48] = {
    0,   0,   0,   0,   0,   168, 0,   168, 0,   0,   168, 168, 168, 0,   0,   168,
    0,   168, 168, 84,  0,   168, 168, 168, 84,  84,  84,  84,  84,  252, 84,  252,
    84,  84,  252, 252, 252, 84,  84,  252, 84,  252, 252, 252, 84,  252, 252, 252};

void imagePcx_parseHeader(PcxHeader* h, const uint8_t* b) noexcept {
    h->manufacturer = b[0];
    h->version = b[1];
    h->encoding = b[2];
    h->bitsPerPixel = b[3];
    h->xMin = il::get16le(b + 4);
    h->yMin = il::get16le(b + 6);
    h->xMax = il::get16le(b + 8);
    h->yMax = il::get16le(b + 10);
    std::memcpy(h->palette, b + 16, 48);
    h->planes = b[65];
    h->bytesPerLine = il::get16le(b + 66);
}

// --- the line coder -------------------------------------------------------------

size_t imagePcx_encodeLine(uint8_t* out, const uint8_t* b, size_t length) noexcept {
    uint8_t* o = out;
    size_t i = 0;
    while (i < length) {
        if (i + 1 < length && b[i] == b[i + 1]) {
            // Equal neighbouring pairs from (i, i + 1) on, at most 63: the
            // run's last byte is left for the next code.
            size_t n = 1;
            while (n < 63 && i + n + 1 < length && b[i + n] == b[i + n + 1]) ++n;
            *o++ = uint8_t(0xC0 | n);
            *o++ = b[i];
            i += n;
        } else {
            if (b[i] >= 0xC0) *o++ = 0xC1;
            *o++ = b[i++];
        }
    }
    return size_t(o - out);
}

int imagePcx_decodeLine(uint8_t* buffer, int start, int limit, int size, const uint8_t* data, size_t length,
                        size_t* pos) noexcept {
    std::memset(buffer, 0, size_t(size));
    size_t p = *pos;
    auto next = [&](bool& end) -> uint8_t {
        end = p >= length;
        return end ? 0xFF : data[p++];
    };
    int index = start;
    bool valueAtEnd = false;
    while (index < limit) {
        bool end;
        const uint8_t c = next(end);
        if (c < 0xC0) {
            buffer[index++] = c;
            continue;
        }
        const int count = std::min(int(c & 0x3F), size - index);
        const uint8_t v = next(valueAtEnd);
        std::memset(buffer + index, v, size_t(count));
        index += count;
        if (count == 0 && valueAtEnd) break;  // nothing more can come
    }
    *pos = p;
    return valueAtEnd ? 0 : index;
}

namespace {

constexpr int kMaxRun = 63;

// --- reading ---------------------------------------------------------------

// A whole file in memory with its header and the geometry the readers use.
struct Source {
    il::Scratch<uint8_t> bytes;
    size_t length = 0;
    PcxHeader h{};
    int width = 0, height = 0, bits = 0, planes = 0, lineBytes = 0;

    // IMGERR_NOMEMORY when the file cannot be opened (the readers' code for
    // it), IMGERR_READFAILED when it is shorter than a header.
    int load(const char* path) {
        il::File f = il::File::open(path, "rb");
        if (!f.ok()) return IMGERR_NOMEMORY;
        const int64_t n = f.size();
        if (n < 0) return IMGERR_READFAILED;
        if (n < kPcxHeaderBytes) return IMGERR_READFAILED;
        if (!bytes.allocate(size_t(n), il::tag("PcxF"))) return IMGERR_NOMEMORY;
        if (!f.read(bytes.get(), size_t(n))) return IMGERR_READFAILED;
        length = size_t(n);
        imagePcx_parseHeader(&h, bytes.get());
        width = int(h.xMax) - int(h.xMin) + 1;
        height = int(h.yMax) - int(h.yMin) + 1;
        bits = h.bitsPerPixel;
        planes = h.planes;
        lineBytes = h.bytesPerLine;
        return 0;
    }

    // The checks every decode makes before it allocates: a size, lines
    // that hold the width, and data enough for every line.
    int checkGeometry(int bytesPerPixel) const {
        if (width <= 0 || height <= 0 || planes <= 0) return IMGERR_BADFILE;
        const int64_t needed = (int64_t(width) * bits + 7) / 8;
        if (lineBytes < needed) return IMGERR_BADFILE;
        const int64_t decoded = int64_t(height) * planes * lineBytes;
        const int64_t available = int64_t(length - kPcxHeaderBytes + 1) / 2 * kMaxRun;
        if (decoded > available) return IMGERR_BADFILE;
        if (!il::imageBytes(width, height, bytesPerPixel) || !il::withinPixelLimit(width, height)) return IMGERR_BADFILE;
        return 0;
    }
};

// ORs bit `plane` into the pixels of row whose bit is set in line.
void addPlane(uint8_t* row, const uint8_t* line, int width, int plane) {
    const uint8_t bit = uint8_t(1 << plane);
    for (int x = 0; x < width; x += 8) {
        const uint8_t byte = line[x >> 3];
        if (!byte) continue;
        const int n = std::min(8, width - x);
        for (int k = 0; k < n; ++k)
            if (byte & (0x80 >> k)) row[x + k] |= bit;
    }
}

}  // namespace

int imagePcx_readInfo(ImageSize* size, int* imageFormat, const char* path) noexcept {
    il::File f = il::File::open(path, "rb");
    if (!f.ok()) return IMGERR_OPENFAILED;
    uint8_t b[kPcxHeaderBytes] = {};
    (void)f.readSome(b, sizeof b);  // no field is checked; a short header reads as zeros
    PcxHeader h;
    imagePcx_parseHeader(&h, b);
    if (size) *size = ImageSize{int(h.xMax) - int(h.xMin) + 1, int(h.yMax) - int(h.yMin) + 1};
    if (imageFormat) {
        const int d = h.bitsPerPixel == 1 ? h.planes : h.bitsPerPixel;
        *imageFormat = d == 8 ? (h.planes == 3 ? COLORMODE_RGB : COLORMODE_PALETTE256)
                       : d == 1 ? COLORMODE_BILEVEL
                                : COLORMODE_PALETTE16;
    }
    return 0;
}

int imagePcx_readToMap(void** map, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue, int* colourCount,
                       const char* path, int packed, StopFunction stop) noexcept {
    if (!map || !red || !green || !blue) return IMGERR_BADARG;
    Source src;
    if (int st = src.load(path)) return st;
    const int bits = src.bits, planes = src.planes;
    // Planes of 1 bit, one plane of packed 2- or 4-bit pixels, one plane
    // of 8-bit indices or three of red, green and blue.
    const bool ok = bits == 1   ? planes <= 8
                    : bits == 8 ? planes == 1 || planes == 3
                                : (bits == 2 || bits == 4) && planes == 1;
    if (!ok) return IMGERR_BADFORMAT;
    const bool rgb = bits == 8 && planes == 3;
    if (rgb && packed) return IMGERR_UNSUPPORTEDTYPE;
    if (int st = src.checkGeometry(rgb ? 3 : 1)) return st;
    const int w = src.width, h = src.height, bpl = src.lineBytes;
    const int count = rgb ? 0 : 1 << (bits == 1 ? planes : bits);
    const size_t rowBytes = size_t(w) * (rgb ? 3 : 1);

    il::Scratch<uint8_t> line(size_t(bpl) * (bits == 8 ? 2 : 1), il::tag("PcxL"));
    il::Scratch<uint8_t> rowBuf(rowBytes, il::tag("PcxR"));
    if (!line.ok() || !rowBuf.ok()) return IMGERR_NOMEMORY;
    il::RowTable table;
    il::CallerBuffer<uint8_t> out;
    if (packed) {
        if (!table.allocate(ImageSize{w, h}, IMAGEFORMAT_PACKBYTE)) return IMGERR_NOMEMORY;
    } else {
        out = il::callerBytes(rowBytes * size_t(h));
        if (!out) return IMGERR_NOMEMORY;
    }

    const uint8_t* data = src.bytes.get();
    size_t pos = kPcxHeaderBytes;
    int carry = 0;
    const size_t copy = size_t(std::min(bpl, w));
    for (int y = 0; y < h; ++y) {
        if (imageUtil_reportProgress(stop, h, y)) return IMGERR_STOPPED;
        uint8_t* row = packed ? rowBuf.get() : out.get() + rowBytes * size_t(y);
        if (bits < 8) {
            std::memset(row, 0, size_t(w));
            for (int p = 0; p < planes; ++p) {
                imagePcx_decodeLine(line.get(), 0, bpl, bpl, data, src.length, &pos);
                if (planes == 1)
                    korImage_unpackBuffer(row, line.get(), bits, w);
                else
                    addPlane(row, line.get(), w, p);
            }
        } else {
            // A run that crosses the end of a line leaves its overshoot as
            // zeros at the start of the next line (the next decode clears
            // the buffer before it starts after them).
            for (int p = 0; p < planes; ++p) {
                const int reached = imagePcx_decodeLine(line.get(), carry, bpl, 2 * bpl, data, src.length, &pos);
                std::memcpy(row + size_t(p) * size_t(w), line.get(), copy);
                carry = std::max(0, reached - bpl);
            }
        }
        if (packed) {
            if (il::storePackByteRow(table.bytes(), y, row, w)) return IMGERR_NOMEMORY;
        }
    }

    // The palette: the header's 16 entries (or the default ones), then the
    // palette behind the pixels when the file has one.
    const uint8_t* pal = src.h.version == 3 ? kPcxDefaultPalette : src.h.palette;
    std::memset(red, 0, 256);
    std::memset(green, 0, 256);
    std::memset(blue, 0, 256);
    for (int i = 0; i < 16; ++i) {
        red[i] = pal[3 * i];
        green[i] = pal[3 * i + 1];
        blue[i] = pal[3 * i + 2];
    }
    if (src.h.version >= 5 && count != 0 && src.length >= 769) {
        const size_t at = src.length - 769;
        if (at >= pos && data[at] == 12) {
            for (int i = 0; i < count; ++i) {
                red[i] = data[at + 1 + 3 * i];
                green[i] = data[at + 2 + 3 * i];
                blue[i] = data[at + 3 + 3 * i];
            }
        }
    }
    if (colourCount) *colourCount = count;
    if (size) *size = ImageSize{w, h};
    *map = packed ? table.release() : static_cast<void*>(out.release());
    return 0;
}

int imagePcx_readToBitMap(void** bitmap, ImageSize* size, int runLength, const char* path,
                          StopFunction stop) noexcept {
    if (!bitmap) return IMGERR_BADARG;
    Source src;
    if (int st = src.load(path)) return st;
    if (src.bits != 1 || src.planes != 1) return IMGERR_UNSUPPORTEDTYPE;
    if (int st = src.checkGeometry(1)) return st;
    const int w = src.width, h = src.height, bpl = src.lineBytes;
    const size_t rowBytes = (size_t(w) + 7) / 8;

    // One line buffer of the file's line length, whatever it is.
    il::Scratch<uint8_t> line(size_t(bpl), il::tag("PcxB"));
    if (!line.ok()) return IMGERR_NOMEMORY;
    il::RowTable table;
    il::CallerBuffer<uint8_t> out;
    if (runLength) {
        if (!table.allocate(ImageSize{w, h}, IMAGEFORMAT_RLEBITMAP)) return IMGERR_NOMEMORY;
    } else {
        out = il::callerBytes(rowBytes * size_t(h));
        if (!out) return IMGERR_NOMEMORY;
    }
    size_t pos = kPcxHeaderBytes;
    for (int y = 0; y < h; ++y) {
        if (imageUtil_reportProgress(stop, h, y)) return IMGERR_STOPPED;
        imagePcx_decodeLine(line.get(), 0, bpl, bpl, src.bytes.get(), src.length, &pos);
        if (runLength) {
            if (il::storeRLEBitMapRow(table.runs(), y, line.get(), w))
                return IMGERR_NOMEMORY;
        } else {
            std::memcpy(out.get() + rowBytes * size_t(y), line.get(), rowBytes);
        }
    }
    if (size) *size = ImageSize{w, h};
    *bitmap = runLength ? table.release() : static_cast<void*>(out.release());
    return 0;
}

// --- writing -----------------------------------------------------------------

namespace {


// Interleaved red, green, blue entries of a palette; entries at or beyond
// count are zero.
void interleave(uint8_t* out, int entries, const uint8_t* red, const uint8_t* green, const uint8_t* blue,
                int count) {
    std::memset(out, 0, size_t(entries) * 3);
    const int n = std::clamp(count, 0, entries);
    for (int i = 0; i < n; ++i) {
        out[3 * i] = red[i];
        out[3 * i + 1] = green[i];
        out[3 * i + 2] = blue[i];
    }
}

// The file of one write: 16 colours (four planes of 1 bit) or 256 colours
// (one plane of 8 bits, palette behind the pixels).
class Writer {
public:
    Writer(const ImageSize* size, bool sixteen) : w_(size->x), h_(size->y), sixteen_(sixteen) {
        lineBytes_ = sixteen ? (w_ + 7) / 8 : w_;
    }

    int prepare() {
        if (!planes_.allocate(sixteen_ ? size_t(lineBytes_) * 4 : 1, il::tag("PcxP")) ||
            !coded_.allocate(2 * size_t(lineBytes_) + 2, il::tag("PcxC")))
            return IMGERR_NOMEMORY;
        return 0;
    }

    // Opens the file and writes the header; palette48 is the header palette
    // of 16-colour files.
    int begin(const char* path, const uint8_t* palette48) {
        file_ = il::File::open(path, "wb");
        if (!file_.ok()) return IMGERR_OPENFAILED;
        uint8_t hdr[kPcxHeaderBytes] = {};
        hdr[0] = 10;
        hdr[1] = 5;
        hdr[2] = 1;
        hdr[3] = sixteen_ ? 1 : 8;
        il::put16le(hdr + 8, uint32_t(w_ - 1));
        il::put16le(hdr + 10, uint32_t(h_ - 1));
        if (sixteen_) std::memcpy(hdr + 16, palette48, 48);
        hdr[65] = sixteen_ ? 4 : 1;
        il::put16le(hdr + 66, uint32_t(lineBytes_));
        il::put16le(hdr + 68, 1);
        return file_.write(hdr, sizeof hdr) ? 0 : IMGERR_WRITEFAILED;
    }

    // Writes one row of palette indices.
    int row(const uint8_t* indices) {
        if (!sixteen_) return line(indices, size_t(w_));
        uint8_t* pl = planes_.get();
        std::memset(pl, 0, size_t(lineBytes_) * 4);
        for (int x = 0; x < w_; ++x) {
            const uint8_t v = indices[x], mask = uint8_t(0x80 >> (x & 7));
            for (int p = 0; p < 4; ++p)
                if (v & (1 << p)) pl[size_t(p) * lineBytes_ + (x >> 3)] |= mask;
        }
        for (int p = 0; p < 4; ++p)
            if (int st = line(pl + size_t(p) * lineBytes_, size_t(lineBytes_))) return st;
        return 0;
    }

    // Appends the palette of 256-colour files and closes.
    int finish(const uint8_t* palette768) {
        if (!sixteen_) {
            const uint8_t mark = 12;
            if (!file_.write(&mark, 1) || !file_.write(palette768, 768)) return IMGERR_WRITEFAILED;
        }
        return file_.close() ? 0 : IMGERR_WRITEFAILED;
    }

private:
    int line(const uint8_t* bytes, size_t n) {
        const size_t len = imagePcx_encodeLine(coded_.get(), bytes, n);
        return file_.write(coded_.get(), len) ? 0 : IMGERR_WRITEFAILED;
    }

    il::File file_;
    il::Scratch<uint8_t> planes_, coded_;
    int w_, h_, lineBytes_;
    bool sixteen_;
};

// Sizes the header can hold.
bool writableSize(const ImageSize* size) {
    return size && size->x > 0 && size->y > 0 && size->x <= 65536 && size->y <= 65536 &&
           il::imageBytes(size->x, size->y, 1);
}

// The row loop of both writers: rows top to bottom, polled first; build(y)
// gives the row's palette indices. Returns 1 when stopped (the file is
// still finished), else 0 or a status.
template <class Build>
int writeRows(Writer& out, const char* path, const ImageSize* size, const uint8_t* palette48,
              const uint8_t* palette768, StopFunction stop, Build build) {
    if (int st = out.begin(path, palette48)) return st;
    int stopped = 0;
    for (int y = 0; y < size->y; ++y) {
        if (imageUtil_reportProgress(stop, size->y, y)) {
            stopped = 1;
            break;
        }
        if (int st = out.row(build(y))) return st;
    }
    if (int st = out.finish(palette768)) return st;
    return stopped;
}

}  // namespace

int imagePcx_writeFromMap(const char* path, const void* map, const uint8_t* red, const uint8_t* green,
                          const uint8_t* blue, int colourCount, const ImageSize* size, int imageFormat, int packed,
                          StopFunction stop) noexcept {
    if (imageFormat != COLORMODE_PALETTE16 && imageFormat != COLORMODE_PALETTE256 && imageFormat != COLORMODE_GREY)
        return IMGERR_BADARG;
    if (!map || !red || !green || !blue || !writableSize(size)) return IMGERR_BADARG;
    const int w = size->x;
    const bool sixteen = imageFormat == COLORMODE_PALETTE16;
    const bool grey = imageFormat == COLORMODE_GREY;

    uint8_t pal48[48], pal768[768], table[256];
    if (grey) {
        // The palette's grey levels, written with the grey ramp.
        korImage_paletteToGreyScale(table, nullptr, nullptr, red, green, blue, std::clamp(colourCount, 0, 256));
        for (int i = 0; i < 256; ++i) pal768[3 * i] = pal768[3 * i + 1] = pal768[3 * i + 2] = uint8_t(i);
    } else {
        interleave(pal48, 16, red, green, blue, colourCount);
        interleave(pal768, 256, red, green, blue, colourCount);
    }
    il::Scratch<uint8_t> unpacked(packed ? size_t(w) : 1, il::tag("PcxU"));
    il::Scratch<uint8_t> greyRow(grey ? size_t(w) : 1, il::tag("PcxG"));
    Writer out(size, sixteen);
    if (!unpacked.ok() || !greyRow.ok() || out.prepare()) return IMGERR_NOMEMORY;

    return writeRows(out, path, size, pal48, pal768, stop, [&](int y) -> const uint8_t* {
        const uint8_t* src;
        if (packed) {
            korImage_unpackByteBuffer(unpacked.get(), static_cast<uint8_t* const*>(map)[y], w);
            src = unpacked.get();
        } else {
            src = static_cast<const uint8_t*>(map) + size_t(y) * size_t(w);
        }
        if (!grey) return src;
        for (int x = 0; x < w; ++x) greyRow[x] = table[src[x]];
        return greyRow.get();
    });
}

int imagePcx_writeFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, int imageFormat,
                          StopFunction stop) noexcept {
    il::DitherJob job;  // cleaned up on every path
    if (imageFormat != COLORMODE_PALETTE16 && imageFormat != COLORMODE_PALETTE256 && imageFormat != COLORMODE_GREY)
        return IMGERR_BADARG;
    if (!rgb || !writableSize(size)) return IMGERR_BADARG;
    const int w = size->x;
    const bool sixteen = imageFormat == COLORMODE_PALETTE16;
    const bool grey = imageFormat == COLORMODE_GREY;
    const size_t planeRow = size_t(w) * 3;

    uint8_t red[256] = {}, green[256] = {}, blue[256] = {};
    int count = 256;
    if (grey) {
        il::setGreyRamp(red, green, blue);
    } else {
        if (int st = korImage_getOptimizedPalette(red, green, blue, &count, sixteen ? 16 : 256, rgb, size, stop))
            return st;
    }
    il::Scratch<uint8_t> indices(size_t(w), il::tag("PcxI"));
    Writer out(size, sixteen);
    if (!indices.ok() || out.prepare()) return IMGERR_NOMEMORY;
    if (!grey) {
        if (int st = korImage_ditherInitialize(count, red, green, blue, w)) return st;
    }
    uint8_t pal48[48], pal768[768];
    interleave(pal48, 16, red, green, blue, count);
    interleave(pal768, 256, red, green, blue, count);

    return writeRows(out, path, size, pal48, pal768, stop, [&](int y) -> const uint8_t* {
        const uint8_t* r = rgb + size_t(y) * planeRow;
        const uint8_t *g = r + w, *b = g + w;
        uint8_t* row = indices.get();
        if (grey) {
            for (int x = 0; x < w; ++x) row[x] = il::greyLevelWriter(r[x], g[x], b[x]);
        } else {
            korImage_ditherRow(row, r, g, b, w);
        }
        return row;
    });
}
