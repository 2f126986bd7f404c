// Intergraph raster header, type resolution, pixel decoders, georeference
// and the Intergraph RGB row handler.
#include "codecs/intergraph/ingr.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <new>

#include "codecs/intergraph/ccitt.h"
#include "codecs/rows.h"
#include "imagelib/geo.h"
#include "imagelib/host.h"
#include "imagelib/pixels.h"
#include "internal/bytes.h"
#include "internal/checked.h"
#include "pixels/rows.h"

using il::File;
using il::Scratch;

namespace {

constexpr uint16_t kHeaderCode = 2312;  // bytes 0x08, 0x09

// Pixels a header may claim per byte of file for codings that can pack a
// blank line into a bit (Group 4) or a tile into a directory entry.
constexpr int64_t kMaxPixelsPerByte = 65536;

// VAX D-floating (four little-endian 16-bit words, most significant first).
double vaxDouble(const uint8_t* p) {
    uint16_t w[4] = {il::get16le(p), il::get16le(p + 2), il::get16le(p + 4), il::get16le(p + 6)};
    int e = (w[0] >> 7) & 0xFF;
    if (e == 0) return 0.0;
    uint64_t frac = (uint64_t(w[0] & 0x7F) << 48) | (uint64_t(w[1]) << 32) | (uint64_t(w[2]) << 16) | w[3];
    double m = 0.5 + double(frac) / double(uint64_t(1) << 56);  // 0.1fff... binary
    double v = std::ldexp(m, e - 128);
    return (w[0] & 0x8000) ? -v : v;
}

double ieeeDouble(const uint8_t* p) {
    uint64_t u = uint64_t(il::get32le(p)) | (uint64_t(il::get32le(p + 4)) << 32);
    double d;
    std::memcpy(&d, &u, 8);
    return d;
}

void readMatrix(IngrHeader* h) {
    const uint8_t* m = h->raw + 56;
    bool ieee = true;
    if (h->version == 1) ieee = false;
    if (h->version == 2) ieee = ieeeDouble(m + 80) == 1.0 || ieeeDouble(m + 120) == 1.0;
    for (int i = 0; i < 16; ++i) h->matrix[i] = ieee ? ieeeDouble(m + 8 * i) : vaxDouble(m + 8 * i);
}

int colourModeOf(int dt, int tileDt, uint32_t tableType) {
    if (dt == 65) dt = tileDt;
    switch (dt) {
        case 2: case 29: return tableType ? COLORMODE_PALETTE256 : COLORMODE_GREY;
        case 9: case 24: return COLORMODE_BILEVEL;
        case 27: case 28: return COLORMODE_RGB;
        default: return 0;
    }
}

bool isBinary(int dt, int tileDt) { return dt == 9 || dt == 24 || (dt == 65 && (tileDt == 9 || tileDt == 24)); }

}  // namespace

int ingr_openHeader(File& file, uint8_t header[1024], const char* path) noexcept {
    file = File::open(path, "rb");
    if (!file.ok()) return IMGERR_OPENFAILED;
    if (!file.read(header, 1024) || il::get16le(header) != kHeaderCode) {
        file.close();
        return IMGERR_UNSUPPORTEDTYPE;
    }
    return 0;
}

int ingr_readTilePacket(Scratch<uint8_t>& packet, File& file, uint32_t offset) noexcept {
    uint8_t head[8];
    if (!file.seek(offset) || !file.read(head, 8)) return IMGERR_NODATA;
    if (il::get16le(head) != 1 || il::get16le(head + 2) != 7) return IMGERR_NODATA;
    const uint64_t bytes = uint64_t(il::get32le(head + 4)) * 2 + 8;
    const int64_t len = file.size();
    if (len < 0 || uint64_t(offset) + bytes > uint64_t(len)) return IMGERR_BADFILE;
    if (!packet.allocate(size_t(bytes), il::tag("IGtp"))) return IMGERR_NOMEMORY;
    std::memcpy(packet.get(), head, 8);
    if (!file.read(packet.get() + 8, size_t(bytes) - 8)) return IMGERR_BADFILE;
    return 0;
}

int ingr_readHeader(IngrHeader* h, File& file, const char* path) noexcept {
    std::memset(h, 0, sizeof *h);
    if (int st = ingr_openHeader(file, h->raw, path)) return st;
    const uint8_t* r = h->raw;
    h->dataType = il::get16le(r + 4);
    h->headerLength = uint32_t(il::get16le(r + 2)) * 2 + 4;
    h->pixels = il::get32le(r + 184);
    h->lines = il::get32le(r + 188);
    h->orientation = int8_t(r[194]);
    h->scannable = r[195];
    h->colourTableType = il::get32le(r + 532);
    h->colourCount = il::get32le(r + 536);
    h->version = r[511];
    readMatrix(h);
    if (h->dataType == 65) {
        Scratch<uint8_t> packet;
        if (int st = ingr_readTilePacket(packet, file, h->headerLength)) return st;
        if (packet.size() < 20) return IMGERR_BADFILE;
        h->tileDataType = il::get16le(packet.get() + 18);
    }
    return 0;
}

int ingr_typeFromDataType(int dt, int tileDt) noexcept {
    switch (dt) {
        case 2: return 17;
        case 9: return 13;
        case 24: return 19;
        case 27: case 28: return 1;
        case 29: return 23;
        case 65:
            if (tileDt == 24) return 20;
            if (tileDt == 2 || tileDt == 27 || tileDt == 28 || tileDt == 29) return 23;
            return -1;
        default: return -1;
    }
}

int ingr_readHeaderInfo(ImageSize* size, int* colourMode, int* dataType, int* tileDataType, int* resolvedType,
                        const char* path) noexcept {
    IngrHeader h;
    File f;
    if (int st = ingr_openHeader(f, h.raw, path)) return st;
    const int dt = il::get16le(h.raw + 4);
    if (dt < 2 || dt >= 66) return IMGERR_UNSUPPORTEDTYPE;
    switch (dt) {
        case 2: case 9: case 24: case 27: case 28: case 29: case 65: break;
        default: return IMGERR_UNSUPPORTEDTYPE;
    }
    f.close();
    if (int st = ingr_readHeader(&h, f, path)) return st;
    if (dt == 65) {
        switch (h.tileDataType) {
            case 2: case 24: case 27: case 28: case 29: break;
            default: return IMGERR_UNSUPPORTEDTYPE;
        }
    }
    if (size) *size = ImageSize{int32_t(h.pixels), int32_t(h.lines)};
    if (colourMode) *colourMode = colourModeOf(dt, h.tileDataType, h.colourTableType);
    if (dataType) *dataType = dt;
    if (tileDataType) *tileDataType = h.tileDataType;
    if (resolvedType) *resolvedType = ingr_typeFromDataType(dt, h.tileDataType);
    return 0;
}

int ingr_detect(const char* path, int type) noexcept {
    IngrHeader h;
    File f;
    int st = ingr_openHeader(f, h.raw, path);
    if (st) return st;
    const int dt = il::get16le(h.raw + 4);
    int tileDt = 0;
    if (dt == 65) {
        Scratch<uint8_t> packet;
        if (ingr_readTilePacket(packet, f, uint32_t(il::get16le(h.raw + 2)) * 2 + 4) == 0 && packet.size() >= 20)
            tileDt = il::get16le(packet.get() + 18);
    }
    auto in = [](int v, std::initializer_list<int> set) {
        for (int s : set)
            if (v == s) return true;
        return false;
    };
    bool ok;
    switch (type) {
        case 1: case 16: ok = in(dt, {27, 28}); break;
        case 13: ok = dt == 9; break;
        case 17: ok = dt == 2; break;
        case 19: ok = dt == 24; break;
        case 20: ok = dt == 65 && tileDt == 24; break;
        case 23: ok = in(dt, {2, 9, 24, 27, 28, 29}) || (dt == 65 && in(tileDt, {2, 24, 27, 28, 29})); break;
        case 25: ok = dt == 29; break;
        default: ok = false; break;
    }
    return ok ? 0 : IMGERR_UNSUPPORTEDTYPE;
}

// --- pixel decoding ------------------------------------------------------------

namespace {

// The picture in stored space: lines x pixels, one byte a pixel, or for RGB
// each line as a red, a green and a blue plane of `pixels` bytes.
struct Raster {
    uint8_t* data = nullptr;
    size_t stride = 0;  // bytes a line
    uint32_t pixels = 0;
    uint32_t lines = 0;
    bool rgb = false;
    uint8_t* at(uint32_t line, uint32_t pixel, int plane = 0) const {
        return data + stride * line + size_t(plane) * pixels + pixel;
    }
};

// A block of the raster (the whole of it, or one tile): origin and size.
struct Block {
    uint32_t x0, y0, w, h;
};

// Data type 2 (8-bit) and 28 (RGB): raw rows of the block's width.
int decodeRaw(const Raster& r, const Block& b, const uint8_t* p, size_t len, bool rgb, StopFunction stop) {
    const size_t bpp = rgb ? 3 : 1;
    if (uint64_t(b.w) * b.h * bpp > len) return IMGERR_BADFILE;
    for (uint32_t y = 0; y < b.h; ++y, p += b.w * bpp) {
        if (imageUtil_stopped(stop)) return IMGERR_STOPPED;
        if (!rgb) {
            std::memcpy(r.at(b.y0 + y, b.x0), p, b.w);
            continue;
        }
        uint8_t *red = r.at(b.y0 + y, b.x0, 0), *green = r.at(b.y0 + y, b.x0, 1), *blue = r.at(b.y0 + y, b.x0, 2);
        for (uint32_t x = 0; x < b.w; ++x) {
            red[x] = p[3 * x];
            green[x] = p[3 * x + 1];
            blue[x] = p[3 * x + 2];
        }
    }
    return 0;
}

// One plane of adaptive run-length atoms: exactly w values from p[*pos..end).
int decodeAtoms(uint8_t* dst, uint32_t w, const uint8_t* p, size_t end, size_t* pos) {
    size_t i = *pos;
    uint32_t x = 0;
    while (x < w) {
        if (i >= end) return IMGERR_BADFILE;
        const int count = int8_t(p[i++]);
        if (count == 0) continue;  // never written: a one-byte no-op
        if (count > 0) {
            if (uint32_t(count) > w - x || size_t(count) > end - i) return IMGERR_BADFILE;
            std::memcpy(dst + x, p + i, size_t(count));
            i += size_t(count);
            x += uint32_t(count);
        } else {
            const uint32_t n = uint32_t(-count);
            if (n > w - x || i >= end) return IMGERR_BADFILE;
            std::memset(dst + x, p[i++], n);
            x += n;
        }
    }
    *pos = i;
    return 0;
}

// Data types 27 and 29: atoms per line (three planes for 27), with or
// without line header records.
int decodeAtomLines(const Raster& r, const Block& b, const uint8_t* p, size_t len, bool rgb, bool scannable,
                    StopFunction stop, bool poll) {
    size_t pos = 0;
    for (uint32_t y = 0; y < b.h; ++y) {
        if (poll && imageUtil_stopped(stop)) return IMGERR_STOPPED;
        size_t end = len, next = 0;
        if (scannable) {
            if (len - pos < 8 || il::get16le(p + pos) != 0x5900) return IMGERR_BADFILE;
            next = pos + 2 * (size_t(il::get16le(p + pos + 2)) + 2);
            if (next > len) return IMGERR_BADFILE;
            end = next;
            pos += 8;
        }
        for (int plane = 0; plane < (rgb ? 3 : 1); ++plane)
            if (int st = decodeAtoms(r.at(b.y0 + y, b.x0, plane), b.w, p, end, &pos)) return st;
        if (scannable) pos = next;
    }
    return 0;
}

// Applies one run of n pixels of value v at *x of a line of w pixels.
bool putRun(uint8_t* line, uint32_t w, uint32_t* x, uint32_t n, uint8_t v) {
    if (n > w - *x) return false;
    if (v) std::memset(line + *x, 1, n);
    *x += n;
    return true;
}

// Data type 9: 16-bit runs alternating clear and set, each line (or line
// record) beginning with clear.
int decodeRuns(const Raster& r, const uint8_t* p, size_t len, bool scannable, StopFunction stop) {
    const size_t words = len / 2;
    size_t i = 0;
    const uint32_t w = r.pixels;
    // Line records when the header says so, or when the data begin with the
    // record marker and no run could be mistaken for one.
    if (!scannable && words > 0 && il::get16le(p) == 0x5900 && w < 0x5900) scannable = true;
    if (scannable) {
        int64_t y = -1;
        uint32_t x = 0;
        int lineWord = -1;
        while (i + 4 <= words) {
            if (il::get16le(p + 2 * i) != 0x5900) return IMGERR_BADFILE;
            const size_t wtf = il::get16le(p + 2 * i + 2);
            const int number = il::get16le(p + 2 * i + 4);
            const uint32_t offset = il::get16le(p + 2 * i + 6);
            if (wtf < 2 || i + 2 + wtf > words) return IMGERR_BADFILE;
            // A new line: another line number, or a full line followed by a
            // record at offset 0. Otherwise the record continues the line
            // where the last one stopped (offsets are 16 bits and wrap).
            if (y < 0 || number != lineWord || (offset == 0 && x == w)) {
                if (y + 1 >= int64_t(r.lines)) break;  // records past the last line are ignored
                ++y;
                if (imageUtil_stopped(stop)) return IMGERR_STOPPED;
                x = 0;
                lineWord = number;
            }
            if (offset != (x & 0xFFFF)) return IMGERR_BADFILE;
            uint8_t* line = r.at(uint32_t(y), 0);
            uint8_t v = 0;
            for (size_t k = 0; k < wtf - 2; ++k, v ^= 1)
                if (!putRun(line, w, &x, il::get16le(p + 2 * (i + 4 + k)), v)) return IMGERR_BADFILE;
            i += 2 + wtf;
        }
        return y + 1 >= int64_t(r.lines) ? 0 : IMGERR_BADFILE;
    }
    for (uint32_t y = 0; y < r.lines; ++y) {
        if (imageUtil_stopped(stop)) return IMGERR_STOPPED;
        uint8_t* line = r.at(y, 0);
        uint32_t x = 0;
        size_t used = 0;
        uint8_t v = 0;
        while (x < w) {
            if (i >= words) return IMGERR_BADFILE;
            if (!putRun(line, w, &x, il::get16le(p + 2 * i++), v)) return IMGERR_BADFILE;
            v ^= 1;
            ++used;
        }
        // A line that ends set is closed by a clear run of 0.
        if (used % 2 == 0 && i < words && il::get16le(p + 2 * i) == 0) ++i;
    }
    return 0;
}

struct G4Target {
    const Raster* r;
    Block b;
};

int g4Row(void* user, int row, const uint8_t* bits) {
    auto* t = static_cast<G4Target*>(user);
    korImage_unpackBuffer(t->r->at(t->b.y0 + uint32_t(row), t->b.x0), bits, 1, int(t->b.w));
    return 0;
}

int decodeG4(const Raster& r, const Block& b, const uint8_t* p, size_t len, StopFunction stop) {
    G4Target t{&r, b};
    return il::ccitt::decode(p, len, int(b.w), int(b.h), true, stop, g4Row, &t);
}

int decodeBlock(const Raster& r, const Block& b, int dt, const uint8_t* p, size_t len, bool scannable,
                StopFunction stop, bool whole) {
    switch (dt) {
        case 2: return decodeRaw(r, b, p, len, false, whole ? stop : nullptr);
        case 28: return decodeRaw(r, b, p, len, true, whole ? stop : nullptr);
        case 27: return decodeAtomLines(r, b, p, len, true, scannable, stop, whole);
        case 29: return decodeAtomLines(r, b, p, len, false, scannable, stop, whole);
        case 24: return decodeG4(r, b, p, len, whole ? stop : nullptr);
        case 9: return whole ? decodeRuns(r, p, len, scannable, stop) : IMGERR_BADFORMAT;
        default: return IMGERR_UNSUPPORTEDTYPE;
    }
}

// A tile with no stored data: filled with the value of its `used` word.
void fillTile(const Raster& r, const Block& b, uint32_t value, int dt) {
    for (uint32_t y = 0; y < b.h; ++y) {
        if (r.rgb) {
            std::memset(r.at(b.y0 + y, b.x0, 0), int((value >> 16) & 0xFF), b.w);
            std::memset(r.at(b.y0 + y, b.x0, 1), int((value >> 8) & 0xFF), b.w);
            std::memset(r.at(b.y0 + y, b.x0, 2), int(value & 0xFF), b.w);
        } else {
            std::memset(r.at(b.y0 + y, b.x0), dt == 24 ? (value ? 1 : 0) : int(value & 0xFF), b.w);
        }
    }
}

int decodeTiles(const Raster& r, const IngrHeader& h, const uint8_t* data, size_t len, StopFunction stop) {
    if (len < 128) return IMGERR_BADFILE;
    const uint64_t packetBytes = uint64_t(il::get32le(data + 4)) * 2 + 8;
    const uint32_t t = il::get32le(data + 120);
    const int dt = il::get16le(data + 18);
    if (dt == 9) return IMGERR_BADFORMAT;
    if (t == 0 || packetBytes > len) return IMGERR_BADFILE;
    const uint64_t cols = (uint64_t(r.pixels) + t - 1) / t, rows = (uint64_t(r.lines) + t - 1) / t;
    if (128 + 12 * cols * rows > packetBytes) return IMGERR_BADFILE;
    for (uint64_t tr = 0; tr < rows; ++tr) {
        if (imageUtil_reportProgress(stop, int(rows), int(tr))) return IMGERR_STOPPED;
        for (uint64_t tc = 0; tc < cols; ++tc) {
            const uint8_t* e = data + 128 + 12 * (tr * cols + tc);
            const uint32_t start = il::get32le(e), used = il::get32le(e + 8);
            Block b{uint32_t(tc * t), uint32_t(tr * t), 0, 0};
            b.w = std::min<uint32_t>(t, r.pixels - b.x0);
            b.h = std::min<uint32_t>(t, r.lines - b.y0);
            if (start == 0) {
                fillTile(r, b, used, dt);
                continue;
            }
            if (start > len || used > len - start) return IMGERR_BADFILE;
            if (int st = decodeBlock(r, b, dt, data + start, used, h.scannable != 0, nullptr, false)) return st;
        }
    }
    return 0;
}

// Type 1 and 2 colour tables into a palette; count of entries.
int readColourTable(File& f, const IngrHeader& h, uint8_t* red, uint8_t* green, uint8_t* blue) {
    std::memset(red, 0, 256);
    std::memset(green, 0, 256);
    std::memset(blue, 0, 256);
    const uint32_t n = std::min<uint32_t>(h.colourCount, 256);
    if (h.colourTableType == 1 || (h.colourTableType != 2 && h.colourTableType != 0)) {
        uint8_t table[768] = {};
        if (!f.seek(768) || !f.read(table, 3 * size_t(n))) return IMGERR_BADFILE;
        for (uint32_t i = 0; i < n; ++i) {
            red[i] = table[3 * i];
            green[i] = table[3 * i + 1];
            blue[i] = table[3 * i + 2];
        }
        return int(n ? n : 256);
    }
    // Type 2: slot, red, green, blue as 16-bit values of 8-, 12- or 16-bit scale.
    uint8_t table[256 * 8] = {};
    if (!f.seek(1024) || !f.read(table, 8 * size_t(n))) return IMGERR_BADFILE;
    unsigned top = 0;
    for (uint32_t i = 0; i < n; ++i)
        for (int c = 1; c < 4; ++c) top = std::max<unsigned>(top, il::get16le(table + 8 * i + 2 * c));
    const int shift = top > 4095 ? 8 : top > 255 ? 4 : 0;
    int count = 0;
    for (uint32_t i = 0; i < n; ++i) {
        const unsigned slot = il::get16le(table + 8 * i);
        if (slot > 255) continue;
        red[slot] = uint8_t(il::get16le(table + 8 * i + 2) >> shift);
        green[slot] = uint8_t(il::get16le(table + 8 * i + 4) >> shift);
        blue[slot] = uint8_t(il::get16le(table + 8 * i + 6) >> shift);
        count = std::max(count, int(slot) + 1);
    }
    return count;
}

struct KorFreeDeleter {
    void operator()(uint8_t* p) const { dlmSystem_korFree(p); }
};

}  // namespace

int ingr_decodeStored(uint8_t* out, uint32_t pixels, uint32_t lines, bool rgb, int dataType, const uint8_t* data,
                      size_t length, bool scannable, bool tile) noexcept {
    Raster r{out, size_t(pixels) * (rgb ? 3 : 1), pixels, lines, rgb};
    return decodeBlock(r, Block{0, 0, pixels, lines}, dataType, data, length, scannable, nullptr, !tile);
}

void ingr_fillStored(uint8_t* out, uint32_t pixels, uint32_t lines, bool rgb, uint32_t value, int dataType) noexcept {
    Raster r{out, size_t(pixels) * (rgb ? 3 : 1), pixels, lines, rgb};
    fillTile(r, Block{0, 0, pixels, lines}, value, dataType);
}

int ingr_readColourTable(File& file, const IngrHeader& h, uint8_t* red, uint8_t* green, uint8_t* blue) noexcept {
    return readColourTable(file, h, red, green, blue);
}

int ingr_readImage(void** image, ImageSize* size, int* isRGB, uint8_t* red, uint8_t* green, uint8_t* blue,
                   int* count, int* colourMode, const char* path, StopFunction stop) noexcept {
    IngrHeader h;
    File f;
    if (int st = ingr_readHeader(&h, f, path)) return st;
    const int dt = h.dataType == 65 ? h.tileDataType : h.dataType;
    const int mode = colourModeOf(h.dataType, h.tileDataType, h.colourTableType);
    if (ingr_typeFromDataType(h.dataType, h.tileDataType) < 0 || mode == 0) {
        return h.dataType == 65 && h.tileDataType == 9 ? IMGERR_BADFORMAT : IMGERR_UNSUPPORTEDTYPE;
    }
    const int64_t fileLen = f.size();
    if (fileLen < 0) return IMGERR_READFAILED;
    if (h.pixels == 0 || h.lines == 0 || h.headerLength > uint64_t(fileLen)) return IMGERR_BADFILE;
    const bool rgb = mode == COLORMODE_RGB;
    const size_t dataLen = size_t(fileLen - h.headerLength);
    size_t bytes = 0;
    if (!il::imageBytes(h.pixels, h.lines, rgb ? 3 : 1, &bytes)) return IMGERR_BADFILE;
    // What the data can hold at best, checked before the large allocations.
    const uint64_t px = uint64_t(h.pixels) * h.lines;
    uint64_t minBytes;
    switch (h.dataType) {
        case 2: minBytes = px; break;
        case 28: minBytes = 3 * px; break;
        case 27: case 29: minBytes = uint64_t(h.lines) * ((h.pixels + 127) / 128) * 2 * (dt == 27 ? 3 : 1); break;
        case 9: minBytes = uint64_t(h.lines) * 2; break;
        default: minBytes = px / kMaxPixelsPerByte; break;
    }
    if (minBytes > dataLen) return IMGERR_BADFILE;
    // Compressed data cannot be bounded by the file: the library's pixel limit.
    if (dt != 2 && dt != 28 && !il::withinPixelLimit(h.pixels, h.lines)) return IMGERR_BADFILE;

    Scratch<uint8_t> data(dataLen, il::tag("IGdt"));
    if (!data.ok()) return IMGERR_NOMEMORY;
    if (!f.seek(h.headerLength) || !f.read(data.get(), dataLen)) return IMGERR_READFAILED;

    uint8_t pr[256], pg[256], pb[256];
    int n = 0;
    if (mode == COLORMODE_PALETTE256) {
        n = readColourTable(f, h, pr, pg, pb);
        if (n < 0) return n;
    } else if (mode == COLORMODE_GREY) {
        for (int i = 0; i < 256; ++i) pr[i] = pg[i] = pb[i] = uint8_t(i);
        n = 256;
    } else if (mode == COLORMODE_BILEVEL) {
        std::memset(pr, 0, 256), std::memset(pg, 0, 256), std::memset(pb, 0, 256);
        pr[0] = pg[0] = pb[0] = 255;
        n = 2;
    }
    f.close();

    std::unique_ptr<uint8_t, KorFreeDeleter> buf(static_cast<uint8_t*>(dlmSystem_korCalloc(bytes, 1)));
    if (!buf) return IMGERR_NOMEMORY;
    Raster r{buf.get(), size_t(h.pixels) * (rgb ? 3 : 1), h.pixels, h.lines, rgb};
    int st = h.dataType == 65 ? decodeTiles(r, h, data.get(), dataLen, stop)
                              : decodeBlock(r, Block{0, 0, h.pixels, h.lines}, dt, data.get(), dataLen,
                                            h.scannable != 0, stop, true);
    if (st) return st;
    data.reset();

    void* p = buf.release();
    ImageSize sz{int32_t(h.pixels), int32_t(h.lines)};
    const int layout = rgb ? IMAGEFORMAT_RGB : IMAGEFORMAT_MAP;
    if (h.orientation != 4) {
        st = korImage_convertToUpperLeftHorizontal(&p, &sz, h.orientation, layout, stop);
        if (st) {
            dlmSystem_korFree(p);
            return st > 0 ? IMGERR_STOPPED : st;
        }
    }
    *image = p;
    if (size) *size = sz;
    if (isRGB) *isRGB = rgb;
    if (colourMode) *colourMode = mode;
    if (!rgb) {
        if (red) std::memcpy(red, pr, 256);
        if (green) std::memcpy(green, pg, 256);
        if (blue) std::memcpy(blue, pb, 256);
    }
    if (count) *count = n;
    return 0;
}

int ingr_readToBitMap(void** bitmap, ImageSize* size, int runLength, const char* path, StopFunction stop) noexcept {
    void* img = nullptr;
    ImageSize sz{};
    int rgb = 0, count = 0, mode = 0;
    uint8_t r[256], g[256], b[256];
    if (int st = ingr_readImage(&img, &sz, &rgb, r, g, b, &count, &mode, path, stop)) return st;
    std::unique_ptr<uint8_t, KorFreeDeleter> map(static_cast<uint8_t*>(img));
    if (rgb) return IMGERR_UNSUPPORTEDTYPE;
    const size_t rowBytes = (size_t(sz.x) + 7) >> 3;
    std::unique_ptr<uint8_t, KorFreeDeleter> bits(static_cast<uint8_t*>(dlmSystem_korCalloc(rowBytes * sz.y, 1)));
    if (!bits) return IMGERR_NOMEMORY;
    if (mode == COLORMODE_BILEVEL) {
        for (int y = 0; y < sz.y; ++y)
            korImage_packBuffer(bits.get() + rowBytes * y, map.get() + size_t(sz.x) * y, 1, sz.x);
    } else if (int st = korImage_byteMapToBitMap(bits.get(), map.get(), r, g, b, count, &sz, 0)) {
        return st;
    }
    if (runLength) {
        uint16_t** rows = nullptr;
        if (int st = korImage_runLengthEncodeBitMap(&rows, bits.get(), &sz)) return st;
        *bitmap = rows;
    } else {
        *bitmap = bits.release();
    }
    if (size) *size = sz;
    return 0;
}

int ingr_readPalette(uint8_t* red, uint8_t* green, uint8_t* blue, int* count, const char* path) noexcept {
    IngrHeader h;
    File f;
    if (int st = ingr_readHeader(&h, f, path)) return st;
    const int mode = colourModeOf(h.dataType, h.tileDataType, h.colourTableType);
    if (ingr_typeFromDataType(h.dataType, h.tileDataType) < 0 || mode == 0 || mode == COLORMODE_RGB)
        return IMGERR_UNSUPPORTEDTYPE;
    int n;
    if (mode == COLORMODE_PALETTE256) {
        n = readColourTable(f, h, red, green, blue);
        if (n < 0) return n;
    } else if (mode == COLORMODE_GREY) {
        for (int i = 0; i < 256; ++i) red[i] = green[i] = blue[i] = uint8_t(i);
        n = 256;
    } else {
        red[0] = green[0] = blue[0] = 255;
        red[1] = green[1] = blue[1] = 0;
        n = 2;
    }
    *count = n;
    return 0;
}

// --- georeference ------------------------------------------------------------

namespace {

bool cfgFlag(const char* name) {
    char buf[64] = {};
    if (korSystem_getCfgVar(buf, name, int(sizeof buf)) != 0) return false;
    return std::atoi(buf) != 0;
}

}  // namespace

int ingr_keepRegistration(const IngrHeader& h) noexcept {
    char buf[64] = {};
    if (korSystem_getCfgVar(buf, "KV_KEEP_REGISTRATION", int(sizeof buf)) == 0 && std::atoi(buf) != 0) return 1;
    return isBinary(h.dataType, h.tileDataType) ? 1 : 0;
}

int ingr_extractAttach(double* origin, double* extent, int* orientation, uint32_t* words,
                       const char* path) noexcept {
    IngrHeader h;
    File f;
    int st = ingr_readHeader(&h, f, path);
    if (st == IMGERR_OPENFAILED) return st;
    if (st) {
        if (orientation) {
            const int o = *orientation;
            *orientation = o == 1 ? 5 : o == 2 ? 6 : o == 3 ? 7 : 4;
        }
        return IMGERR_NODATA;
    }
    if (orientation) *orientation = h.orientation;
    if (words)
        for (int i = 0; i < 24; ++i) words[i] = il::get32le(h.raw + 56 + 4 * i);
    if (!origin && !extent) return 0;
    double m[16];
    std::memcpy(m, h.matrix, sizeof m);
    const double w = h.pixels, ht = h.lines;
    int keep;
    {
        char buf[64] = {};
        if (korSystem_getCfgVar(buf, "KV_KEEP_REGISTRATION", int(sizeof buf)) == 0 && std::atoi(buf) != 0)
            keep = 1;
        else
            keep = isBinary(h.dataType, h.tileDataType) ? 1 : 0;
    }
    if (keep && cfgFlag("KV_RASTER_NOASPECTRATIO")) {
        if (m[0] <= m[5])
            m[0] = m[5];
        else
            m[5] = m[0];
    }
    double u = 0, v = 0;
    switch (h.orientation) {
        case 0: keep ? (u = w, v = 0) : (u = 0, v = -w); break;
        case 1: keep ? (u = -w, v = ht) : (u = -ht, v = -w); break;
        case 3: keep ? (u = 0, v = -ht) : (u = -ht, v = 0); break;
        case 4:
            if (keep || std::fabs(m[1]) < 1e-100)
                u = 0, v = -ht;
            break;
        case 5: keep ? (u = w, v = -ht) : (u = -w, v = -ht); break;
        case 7: keep ? (u = w, v = 0) : (u = -w, v = 0); break;
        default: break;
    }
    if (origin) {
        origin[0] = m[0] * u + m[1] * v + m[3];
        origin[1] = m[4] * u + m[5] * v + m[7];
        origin[2] = m[8] * u + m[9] * v + m[11];
    }
    if (extent) {
        double ex = std::sqrt((m[1] * ht) * (m[1] * ht) + (m[0] * w) * (m[0] * w));
        double ey = std::sqrt((m[4] * w) * (m[4] * w) + (m[5] * ht) * (m[5] * ht));
        if (!keep && h.orientation < 4) std::swap(ex, ey);
        extent[0] = ex;
        extent[1] = ey;
    }
    return 0;
}

extern "C" int korImage_extractIngrAttach(double* origin, double* extent, int* orientation,
                                          const char* path) noexcept {
    return ingr_extractAttach(origin, extent, orientation, nullptr, path);
}

extern "C" int korImage_updateIngrAttach(const double* origin, const double* extent, const char* path) noexcept {
    if (!origin || !extent) return IMGERR_BADARG;
    File f = File::open(path, "r+b");
    if (!f.ok()) return IMGERR_OPENFAILED;
    uint8_t raw[1024];
    if (!f.read(raw, 1024) || il::get16le(raw) != kHeaderCode) return IMGERR_BADFILE;
    double m[16] = {};
    m[3] = origin[0], m[7] = origin[1], m[11] = origin[2], m[10] = 1.0, m[15] = 1.0;
    const double W = il::get32le(raw + 184), H = il::get32le(raw + 188);
    const int o = int8_t(raw[194]);
    int dt = il::get16le(raw + 4), tileDt = 0;
    if (dt == 65) {
        Scratch<uint8_t> packet;
        if (ingr_readTilePacket(packet, f, uint32_t(il::get16le(raw + 2)) * 2 + 4) == 0 && packet.size() >= 20)
            tileDt = il::get16le(packet.get() + 18);
    }
    char buf[64] = {};
    const int keep = (korSystem_getCfgVar(buf, "KV_KEEP_REGISTRATION", int(sizeof buf)) == 0 && std::atoi(buf))
                         ? 1
                         : isBinary(dt, tileDt) ? 1 : 0;
    const double ex = extent[0], ey = extent[1];
    if (!keep) {
        m[0] = ex / (o >= 4 ? W : H);
        m[5] = ey / (o < 4 ? W : H);
    }
    switch (o) {
        case 0:
            if (keep) m[1] = -(ex / H), m[4] = -(ey / W), m[7] += ey;
            else m[7] += ey;
            break;
        case 1:
            if (keep) m[1] = -(ex / H), m[4] = ey / W;
            m[3] += ex, m[7] += ey;
            break;
        case 2:
            if (keep) m[1] = ex / H, m[4] = -(ey / W);
            break;
        case 3:
            if (keep) m[1] = ex / H, m[4] = ey / W;
            m[3] += ex;
            break;
        case 4:
            if (keep) m[0] = ex / W, m[5] = ey / H;
            m[7] += ey;
            break;
        case 5:
            if (keep) m[0] = -(ex / W), m[5] = ey / H;
            m[3] += ex, m[7] += ey;
            break;
        case 6:
            if (keep) m[0] = ex / W, m[5] = -(ey / H);
            break;
        case 7:
            if (keep) m[0] = -(ex / W), m[5] = -(ey / H);
            m[3] += ex;
            break;
        default: break;
    }
    for (int i = 0; i < 16; ++i) {
        uint64_t u;
        std::memcpy(&u, &m[i], 8);
        il::put32le(raw + 56 + 8 * i, uint32_t(u));
        il::put32le(raw + 60 + 8 * i, uint32_t(u >> 32));
    }
    if (!f.seek(0) || !f.write(raw, 1024)) return IMGERR_WRITEFAILED;
    return f.close() ? 0 : IMGERR_WRITEFAILED;
}

// --- Intergraph RGB row handler --------------------------------------------------

namespace {

constexpr uint16_t kHandlerCode = 1;

struct RgbState {
    File file;           // writing
    std::string path;    // reading: decoded at the first row
    uint8_t* image = nullptr;  // reading: the upright picture, row-planar
    ImageSize size{};
    int next = 0;
    Scratch<uint8_t> row;
    ~RgbState() {
        if (image) dlmSystem_korFree(image);
    }
};

int rgbReadRow(ImageFileContext* ctx, uint8_t* red, uint8_t* green, uint8_t* blue, uint8_t*) {
    auto* s = static_cast<RgbState*>(ctx->state);
    if (!s->image) {
        void* img = nullptr;
        ImageSize size{};
        int rgb = 0;
        if (int st = ingr_readImage(&img, &size, &rgb, nullptr, nullptr, nullptr, nullptr, nullptr, s->path.c_str(),
                                    nullptr))
            return st;
        s->image = static_cast<uint8_t*>(img);
        if (!rgb || size.x != s->size.x || size.y != s->size.y) return IMGERR_BADFILE;
    }
    if (s->next >= s->size.y) return IMGSTAT_NO_MORE_ROWS;
    const size_t w = size_t(s->size.x);
    const uint8_t* r = s->image + 3 * w * size_t(s->next++);
    if (red) std::memcpy(red, r, w);
    if (green) std::memcpy(green, r + w, w);
    if (blue) std::memcpy(blue, r + 2 * w, w);
    return 0;
}

int rgbWriteRow(ImageFileContext* ctx, const uint8_t* red, const uint8_t* green, const uint8_t* blue,
                const uint8_t*) {
    auto* s = static_cast<RgbState*>(ctx->state);
    const int w = ctx->fileSize.x;
    uint8_t* p = s->row.get();
    for (int x = 0; x < w; ++x, p += 3) {
        p[0] = red ? red[x] : 0;
        p[1] = green ? green[x] : 0;
        p[2] = blue ? blue[x] : 0;
    }
    return s->file.write(s->row.get(), 3 * size_t(w)) ? 0 : IMGERR_WRITEFAILED;
}

int rgbClose(ImageFileContext* ctx) {
    std::unique_ptr<RgbState> s(static_cast<RgbState*>(ctx->state));
    ctx->state = nullptr;
    if (!s) return 0;
    if (s->file.ok() && !s->file.close()) return IMGERR_WRITEFAILED;
    return 0;
}

}  // namespace

int ingr_openRGB(ImageFileContext* ctx, const char* path) noexcept {
    int dt = 0, tileDt = 0;
    if (int st = ingr_readHeaderInfo(nullptr, nullptr, &dt, &tileDt, nullptr, path)) return st;
    if (dt == 65) dt = tileDt;
    if (dt != 27 && dt != 28) return IMGERR_UNSUPPORTEDTYPE;
    ImageSize stored{};
    if (int st = ingr_readHeaderInfo(&stored, nullptr, nullptr, nullptr, nullptr, path)) return st;
    if (!il::imageBytes(stored.x, stored.y, 3)) return IMGERR_BADFILE;
    IngrHeader h;
    File f;
    if (int st = ingr_readHeader(&h, f, path)) return st;
    std::unique_ptr<RgbState> s(new (std::nothrow) RgbState);
    if (!s) return IMGERR_NOMEMORY;
    // Pictures are handed out upright: vertical scan lines turn the size.
    const bool vertical = h.orientation >= 0 && h.orientation < 4;
    s->size = vertical ? ImageSize{stored.y, stored.x} : stored;
    try {
        s->path = path;
    } catch (...) {
        return IMGERR_NOMEMORY;
    }
    ctx->fileSize = s->size;
    ctx->alpha = 0;
    il::stream::installHandler(ctx, kHandlerCode, 4, rgbReadRow, nullptr, rgbClose, s.release());
    return 0;
}

int ingr_createRGB(ImageFileContext* ctx, const char* path, int, int) noexcept {
    const ImageSize sz = ctx->fileSize;
    if (!il::imageBytes(sz.x, sz.y, 3)) return IMGERR_BADARG;
    std::unique_ptr<RgbState> s(new (std::nothrow) RgbState);
    if (!s || !s->row.allocate(3 * size_t(sz.x), il::tag("IGrw"))) return IMGERR_NOMEMORY;
    s->file = File::open(path, "wb");
    if (!s->file.ok()) return IMGERR_OPENFAILED;
    uint8_t h[1024] = {};
    il::put16le(h, kHeaderCode);
    il::put16le(h + 2, 510);
    il::put16le(h + 4, 28);
    il::put32le(h + 184, uint32_t(sz.x));
    il::put32le(h + 188, uint32_t(sz.y));
    h[194] = 4;
    h[511] = 3;
    if (!s->file.write(h, sizeof h)) return IMGERR_WRITEFAILED;
    ctx->alpha = 0;
    il::stream::installHandler(ctx, kHandlerCode, 4, nullptr, rgbWriteRow, rgbClose, s.release());
    return 0;
}

int ingr_backgroundRGB(uint8_t*, const char* path) noexcept {
    // No header field of these files is known to mark a background.
    int dt = 0;
    if (int st = ingr_readHeaderInfo(nullptr, nullptr, &dt, nullptr, nullptr, path)) return st;
    return IMGSTAT_NO_BACKGROUND;
}

// --- reference file names ------------------------------------------------------

int ingr_findReferenceFile(char* result, const char* name) noexcept {
    if (!result || !name) return IMGERR_BADARG;
    const size_t n = std::strlen(name);
    if (n >= IMAGELIB_PATH_MAX) return IMGERR_BADARG;
    if (std::strncmp(name, "http:", 5) == 0 || std::strncmp(name, "iip:", 4) == 0) {
        std::memcpy(result, name, n + 1);  // addresses are used as they stand
        return 0;
    }
    char dir[IMAGELIB_PATH_MAX], base[IMAGELIB_PATH_MAX], ext[IMAGELIB_PATH_MAX];
    if (int st = korFile_parseName(dir, base, ext, name)) return st;
    if (dir[0] == '/' || dir[0] == '\\') {
        std::memcpy(result, name, n + 1);
        return 0;
    }
    char rebuilt[IMAGELIB_PATH_MAX];
    if (int st = korFile_buildName(rebuilt, dir, base, ext)) return st;
    return korFile_find(result, rebuilt, "KV_RFDIR", nullptr);
}
