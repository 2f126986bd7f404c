// Intergraph raster writers: CIT (Group 4), COT (8-bit, palette or grey)
// and RLE (binary run-length records).
#include <cstring>

#include "codecs/intergraph/ccitt.h"
#include "codecs/intergraph/ingr.h"
#include "imagelib/pixels.h"
#include "internal/bytes.h"
#include "internal/checked.h"
#include "pixels/colour.h"

using il::File;
using il::Scratch;
using il::ccitt::BilevelRows;

namespace {

constexpr int kRunsPerRecord = 762;

void baseHeader(uint8_t* h, uint32_t wtf, int dataType, const ImageSize* size, int scannable, int version) {
    il::put16le(h, 2312);
    il::put16le(h + 2, wtf);
    il::put16le(h + 4, uint32_t(dataType));
    il::put32le(h + 184, uint32_t(size->x));
    il::put32le(h + 188, uint32_t(size->y));
    h[194] = 4;
    h[195] = uint8_t(scannable);
    h[511] = uint8_t(version);
}

bool validSize(const ImageSize* size) { return size && il::imageBytes(size->x, size->y, 3); }

// --- CIT --------------------------------------------------------------------

int writeCIT(const char* path, BilevelRows& rows, const ImageSize* size, StopFunction stop) {
    if (!rows.ok()) return IMGERR_NOMEMORY;
    File f = File::open(path, "wb");
    if (!f.ok()) return IMGERR_OPENFAILED;
    uint8_t h[1536] = {};
    baseHeader(h, 766, 24, size, 0, 3);
    if (!f.write(h, sizeof h)) return IMGERR_WRITEFAILED;
    Scratch<uint8_t> stream;
    size_t len = 0;
    if (int st = il::ccitt::encode(stream, &len, size->x, size->y, true, stop, il::ccitt::bilevelRowSource, &rows))
        return st;
    if (!f.write(stream.get(), len)) return IMGERR_WRITEFAILED;
    return f.close() ? 0 : IMGERR_WRITEFAILED;
}

// --- RLE --------------------------------------------------------------------

int writeRLE(const char* path, BilevelRows& rows, const ImageSize* size, StopFunction stop, int stopMode) {
    if (!rows.ok()) return IMGERR_NOMEMORY;
    const size_t w = size_t(size->x);
    Scratch<uint16_t> words(2 * w + 8 * (w / kRunsPerRecord + 1) + 8, il::tag("IGrl"));
    Scratch<uint8_t> bytes(2 * words.size(), il::tag("IGrb"));
    if (!words.ok() || !bytes.ok()) return IMGERR_NOMEMORY;
    File f = File::open(path, "wb");
    if (!f.ok()) return IMGERR_OPENFAILED;
    uint8_t h[1024] = {};
    baseHeader(h, 510, 9, size, 1, 2);
    if (!f.write(h, sizeof h)) return IMGERR_WRITEFAILED;
    for (int y = 0; y < size->y; ++y) {
        if (int s = imageUtil_stopped(stop)) {
            // The bitmap writer reports a stop, the map writer the poll's
            // own answer; the RGB writer finishes quietly.
            if (stopMode == 0) return IMGERR_STOPPED;
            if (stopMode == 1) return s;
            break;
        }
        const size_t n = ingr_encodeRunLine(words.get(), rows.pixels(y), size->x, y);
        for (size_t i = 0; i < n; ++i) il::put16le(bytes.get() + 2 * i, words[i]);
        if (!f.write(bytes.get(), 2 * n)) return IMGERR_WRITEFAILED;
    }
    return f.close() ? 0 : IMGERR_WRITEFAILED;
}

BilevelRows::Kind mapKind(int packedRows) { return packedRows ? BilevelRows::PackByte : BilevelRows::Map; }

// --- COT --------------------------------------------------------------------

struct CotFile {
    File f;
    Scratch<uint8_t> row;
};

int openCOT(CotFile& c, const char* path, const ImageSize* size, const uint8_t* red, const uint8_t* green,
            const uint8_t* blue, int count, bool palette) {
    if (!c.row.allocate(size_t(size->x), il::tag("IGcr"))) return IMGERR_NOMEMORY;
    c.f = File::open(path, "wb");
    if (!c.f.ok()) return IMGERR_OPENFAILED;
    uint8_t h[1536] = {};
    baseHeader(h, 766, 2, size, 0, 3);
    if (palette) {
        if (count > 256) count = 256;
        if (count < 0) count = 0;
        il::put16le(h + 532, 1);
        il::put32le(h + 536, uint32_t(count));
        for (int i = 0; i < count; ++i) {
            h[768 + 3 * i] = red[i];
            h[769 + 3 * i] = green[i];
            h[770 + 3 * i] = blue[i];
        }
    }
    return c.f.write(h, sizeof h) ? 0 : IMGERR_WRITEFAILED;
}

}  // namespace

size_t ingr_encodeRunLine(uint16_t* words, const uint8_t* px, int width, int lineNumber) noexcept {
    size_t n = 0;
    size_t recordStart = 0;
    uint32_t written = 0;  // pixels in the records already closed
    int runs = 0;
    auto openRecord = [&](uint32_t offset) {
        recordStart = n;
        words[n++] = 0x5900;
        words[n++] = 2;
        words[n++] = uint16_t(lineNumber);
        words[n++] = uint16_t(offset);
        runs = 0;
    };
    auto closeRun = [&](uint32_t len) {
        words[n++] = uint16_t(len);
        words[recordStart + 1] = uint16_t(words[recordStart + 1] + 1);
        written += len;
        if (++runs == kRunsPerRecord) openRecord(written);
    };
    openRecord(0);
    uint8_t value = 0;
    uint32_t run = 0;
    for (int x = 0; x < width; ++x) {
        const uint8_t v = px[x] ? 1 : 0;
        if (run == 65535) {  // a full run is closed by the next pixel, whatever it is
            closeRun(run);
            value ^= 1;
            run = 1;
            continue;
        }
        if (v != value) {
            closeRun(run);
            value = v;
            run = 0;
        }
        ++run;
    }
    if (run > 0 || runs == 0) closeRun(run);
    if (runs == 0 && n - recordStart == 4 && recordStart > 0) n = recordStart;  // an empty last record
    return n;
}

int ingr_createCITFromBitMap(const char* path, const void* buffer, int runLength, const ImageSize* size,
                             StopFunction stop) noexcept {
    if (!buffer || !validSize(size)) return IMGERR_BADARG;
    BilevelRows rows(runLength ? BilevelRows::RunLength : BilevelRows::Bitmap, buffer, size->x);
    return writeCIT(path, rows, size, stop);
}

int ingr_createCITFromMap(const char* path, const void* buffer, const uint8_t*, const uint8_t*, const uint8_t*, int,
                          const ImageSize* size, int colourMode, int packedRows, StopFunction stop) noexcept {
    if (colourMode != COLORMODE_BILEVEL) return IMGERR_UNSUPPORTEDTYPE;
    if (!buffer || !validSize(size)) return IMGERR_BADARG;
    BilevelRows rows(mapKind(packedRows), buffer, size->x);
    return writeCIT(path, rows, size, stop);
}

int ingr_createCITFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, StopFunction stop) noexcept {
    if (!rgb || !validSize(size)) return IMGERR_BADARG;
    BilevelRows rows(BilevelRows::RGB, rgb, size->x);
    return writeCIT(path, rows, size, stop);
}

int ingr_createRLEFromBitMap(const char* path, const void* buffer, int runLength, const ImageSize* size,
                             StopFunction stop) noexcept {
    if (!buffer || !validSize(size)) return IMGERR_BADARG;
    BilevelRows rows(runLength ? BilevelRows::RunLength : BilevelRows::Bitmap, buffer, size->x);
    return writeRLE(path, rows, size, stop, 0);
}

int ingr_createRLEFromMap(const char* path, const void* buffer, const uint8_t*, const uint8_t*, const uint8_t*, int,
                          const ImageSize* size, int colourMode, int packedRows, StopFunction stop) noexcept {
    if (colourMode != COLORMODE_BILEVEL) return IMGERR_UNSUPPORTEDTYPE;
    if (!buffer || !validSize(size)) return IMGERR_BADARG;
    BilevelRows rows(mapKind(packedRows), buffer, size->x);
    return writeRLE(path, rows, size, stop, 1);
}

int ingr_createRLEFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, StopFunction stop) noexcept {
    if (!rgb || !validSize(size)) return IMGERR_BADARG;
    BilevelRows rows(BilevelRows::RGB, rgb, size->x);
    return writeRLE(path, rows, size, stop, 2);
}

int ingr_createCOTFromMap(const char* path, const void* buffer, const uint8_t* red, const uint8_t* green,
                          const uint8_t* blue, int count, const ImageSize* size, int colourMode, int packedRows,
                          StopFunction stop) noexcept {
    if (colourMode != COLORMODE_PALETTE256 && colourMode != COLORMODE_GREY) return IMGERR_BADARG;
    if (!buffer || !red || !green || !blue || !validSize(size)) return IMGERR_BADARG;
    const bool palette = colourMode == COLORMODE_PALETTE256;
    uint8_t grey[256];
    for (int i = 0; i < 256; ++i) grey[i] = uint8_t(i);
    if (!palette) {
        int dark = 0, light = 0;
        korImage_paletteToGreyScale(grey, &dark, &light, red, green, blue, count > 256 ? 256 : count);
    }
    CotFile c;
    if (int st = openCOT(c, path, size, red, green, blue, count, palette)) return st;
    const size_t w = size_t(size->x);
    for (int y = 0; y < size->y; ++y) {
        if (imageUtil_stopped(stop)) break;
        uint8_t* row = c.row.get();
        if (packedRows)
            korImage_unpackByteBuffer(row, static_cast<uint8_t* const*>(buffer)[y], size->x);
        else
            std::memcpy(row, static_cast<const uint8_t*>(buffer) + w * size_t(y), w);
        if (!palette)
            for (size_t x = 0; x < w; ++x) row[x] = grey[row[x]];
        if (!c.f.write(row, w)) return IMGERR_WRITEFAILED;
    }
    return c.f.close() ? 0 : IMGERR_WRITEFAILED;
}

int ingr_createCOTFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, int colourMode,
                          StopFunction stop) noexcept {
    if (colourMode != COLORMODE_PALETTE256 && colourMode != COLORMODE_GREY) return IMGERR_BADARG;
    if (!rgb || !validSize(size)) return IMGERR_BADARG;
    const bool palette = colourMode == COLORMODE_PALETTE256;
    uint8_t red[256] = {}, green[256] = {}, blue[256] = {};
    int count = 0;
    if (palette) {
        if (korImage_getOptimizedPalette(red, green, blue, &count, 256, rgb, size, stop) != 0) return IMGERR_STOPPED;
        if (count <= 0) return IMGERR_NOMEMORY;
        if (korImage_ditherInitialize(count, red, green, blue, size->x) != 0) {
            korImage_ditherCleanup();
            return IMGERR_NOMEMORY;
        }
    }
    struct DitherEnd {
        bool on;
        ~DitherEnd() {
            if (on) korImage_ditherCleanup();
        }
    } end{palette};
    CotFile c;
    if (int st = openCOT(c, path, size, red, green, blue, count, palette)) return st;
    const size_t w = size_t(size->x);
    for (int y = 0; y < size->y; ++y) {
        if (imageUtil_stopped(stop)) break;
        const uint8_t* r = rgb + 3 * w * size_t(y);
        uint8_t* row = c.row.get();
        if (palette)
            korImage_ditherRow(row, r, r + w, r + 2 * w, size->x);
        else
            for (size_t x = 0; x < w; ++x) row[x] = il::greyLevel(r[x], r[x + w], r[x + 2 * w]);
        if (!c.f.write(row, w)) return IMGERR_WRITEFAILED;
    }
    return c.f.close() ? 0 : IMGERR_WRITEFAILED;
}
