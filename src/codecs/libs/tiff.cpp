// TIFF through libtiff: detection, information, readers, writers and the
// streaming row handlers. The message handler is in tiff_messages.cpp, the
// GeoTIFF parts in geotiff.cpp.
#include "codecs/libs/tiff.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "codecs/libs/geotiff.h"
#include "codecs/rows.h"
#include "imagelib/host.h"
#include "imagelib/pixels.h"
#include "internal/checked.h"
#include "internal/file.h"
#include "internal/scratch.h"
#include "pixels/dither.h"
#include "pixels/rgbrows.h"
#include "pixels/rows.h"

#include <tiffio.h>

namespace {

struct TiffCloser {
    void operator()(TIFF* t) const noexcept { TIFFClose(t); }
};
using TiffPtr = std::unique_ptr<TIFF, TiffCloser>;

// Pixels a file of `bytes` bytes may claim: generous enough for the best
// compression of real files (a blank Group 4 page), small enough that a
// forged header cannot make us allocate gigabytes from a few bytes.
bool plausible(const char* path, uint32_t width, uint32_t height, uint32_t bitsPerPixel) {
    struct stat st;
    if (::stat(path, &st) != 0) return false;
    const uint64_t bytes = uint64_t(std::max<off_t>(st.st_size, 1));
    const uint64_t ratio = bitsPerPixel <= 1 ? (1u << 15) : (1u << 12);
    return uint64_t(width) * height <= bytes * ratio;
}

// The n-bit value (n <= 32) that starts at bit `bit` of data packed with the
// most significant bit first, as TIFF packs samples of any width.
uint32_t bitsAt(const uint8_t* p, size_t bit, int n) {
    uint32_t v = 0;
    for (int k = 0; k < n; ++k, ++bit) v = (v << 1) | ((p[bit >> 3] >> (7 - (bit & 7))) & 1u);
    return v;
}

struct Fields {
    uint32_t width = 0, height = 0;
    uint16_t bits = 1, samples = 1, photometric = 0, planar = 1, orientation = 1;
    bool hasPhotometric = false;
    bool tiled = false;
    uint32_t tileWidth = 0, tileLength = 0;
};

// The fields every reader needs; IMGERR_BADFILE when the size is missing or
// absurd.
int readFields(TIFF* tif, const char* path, Fields& f) {
    if (!TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &f.width) || !TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &f.height))
        return IMGERR_BADFILE;
    if (!TIFFGetField(tif, TIFFTAG_BITSPERSAMPLE, &f.bits)) f.bits = 1;
    if (!TIFFGetField(tif, TIFFTAG_SAMPLESPERPIXEL, &f.samples)) f.samples = 1;
    f.hasPhotometric = TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &f.photometric) != 0;
    TIFFGetFieldDefaulted(tif, TIFFTAG_PLANARCONFIG, &f.planar);
    if (!TIFFGetField(tif, TIFFTAG_ORIENTATION, &f.orientation)) f.orientation = 1;
    f.tiled = TIFFIsTiled(tif) && TIFFGetField(tif, TIFFTAG_TILEWIDTH, &f.tileWidth) &&
              TIFFGetField(tif, TIFFTAG_TILELENGTH, &f.tileLength);
    if (!il::imageBytes(f.width, f.height, 1)) return IMGERR_BADFILE;
    if (f.tiled && (f.tileWidth == 0 || f.tileLength == 0 || uint64_t(f.tileWidth) * f.tileLength > (1u << 26)))
        return IMGERR_BADFILE;
    if (!plausible(path, f.width, f.height, uint32_t(f.bits) * f.samples)) return IMGERR_BADFILE;
    return 0;
}

// Before a whole image is allocated: compressed strips and tiles are held to
// the library's pixel limit, uncompressed ones to what the file can hold.
int checkWholeImage(TIFF* tif, const char* path, const Fields& f) {
    uint16_t compression = COMPRESSION_NONE;
    TIFFGetFieldDefaulted(tif, TIFFTAG_COMPRESSION, &compression);
    if (compression != COMPRESSION_NONE) return il::withinPixelLimit(f.width, f.height) ? 0 : IMGERR_BADFILE;
    struct stat st;
    if (::stat(path, &st) != 0) return IMGERR_BADFILE;
    const uint64_t rowBytes = (uint64_t(f.width) * f.bits * f.samples + 7) / 8;
    return rowBytes * f.height <= uint64_t(st.st_size) ? 0 : IMGERR_BADFILE;
}

TiffPtr openRead(const char* path) { return TiffPtr(path ? TIFFOpen(path, "rb") : nullptr); }

// The palette of a palette-index file: grey ramps for photometric 0 and 1,
// the ColorMap for 3.
int paletteOf(TIFF* tif, const Fields& f, uint8_t* red, uint8_t* green, uint8_t* blue, int* count) {
    if (!f.hasPhotometric) return IMGERR_UNSUPPORTEDTYPE;
    if (f.bits > 8 || f.bits == 0) return IMGERR_UNSUPPORTEDTYPE;
    if (f.photometric > 1 && f.photometric != PHOTOMETRIC_PALETTE) return IMGERR_UNSUPPORTEDTYPE;
    const int n = 1 << f.bits;
    if (f.photometric != PHOTOMETRIC_PALETTE) {
        for (int i = 0; i < n; ++i) {
            int level = n == 1 ? 255 : i * 255 / (n - 1);
            int v = f.photometric == PHOTOMETRIC_MINISBLACK ? level : 255 - level;
            red[i] = green[i] = blue[i] = uint8_t(v);
        }
        *count = n;
        return 0;
    }
    uint16_t *r = nullptr, *g = nullptr, *b = nullptr;
    if (!TIFFGetField(tif, TIFFTAG_COLORMAP, &r, &g, &b) || !r || !g || !b) return IMGERR_BADFILE;
    bool highZero = true;
    for (int i = 0; i < n && highZero; ++i) highZero = (r[i] >> 8) == 0 && (g[i] >> 8) == 0 && (b[i] >> 8) == 0;
    const int shift = highZero ? 0 : 8;
    for (int i = 0; i < n; ++i) {
        red[i] = uint8_t(r[i] >> shift);
        green[i] = uint8_t(g[i] >> shift);
        blue[i] = uint8_t(b[i] >> shift);
    }
    *count = n;
    return 0;
}

bool stopped(StopFunction stop, int total, int done) { return imageUtil_reportProgress(stop, total, done) != 0; }

// A buffer for one scanline or tile: at least what libtiff will write.
bool lineBuffer(il::Scratch<uint8_t>& buf, size_t want, tmsize_t libtiffSize, uint32_t tag) {
    if (libtiffSize <= 0) return false;
    return buf.allocate(std::max(want, size_t(libtiffSize)), tag, true);
}

// Hands every row of a one-sample image to onRow(y, bytes) as it is stored
// (rowBytes bytes, samples packed), a whole row also in tiled files, whose
// tiles are laid side by side first. 0, a status, or what onRow returned.
template <class OnRow>
int forEachStoredRow(TIFF* t, const Fields& f, size_t rowBytes, StopFunction stop, OnRow&& onRow) {
    if (!f.tiled) {
        il::Scratch<uint8_t> line;
        if (!lineBuffer(line, rowBytes, TIFFScanlineSize(t), il::tag("TfRs"))) return IMGERR_NOMEMORY;
        for (uint32_t y = 0; y < f.height; ++y) {
            if (stopped(stop, int(f.height), int(y))) return IMGERR_STOPPED;
            if (TIFFReadScanline(t, line.get(), y, 0) < 0) return IMGERR_READFAILED;
            if (int st = onRow(y, line.get())) return st;
        }
        return 0;
    }
    const tmsize_t tileSize = TIFFTileSize(t), tileRow = TIFFTileRowSize(t);
    // Checked before the band of tile rows is allocated: a tile length no
    // tile holds must not size it.
    if (tileRow <= 0 || uint64_t(tileRow) * f.tileLength > uint64_t(tileSize)) return IMGERR_BADFILE;
    il::Scratch<uint8_t> tile, band;
    if (!lineBuffer(tile, 0, tileSize, il::tag("TfRT")) || !band.allocate(rowBytes * f.tileLength, il::tag("TfRb"), true))
        return IMGERR_NOMEMORY;
    for (uint32_t ty = 0; ty < f.height; ty += f.tileLength) {
        if (stopped(stop, int(f.height), int(ty))) return IMGERR_STOPPED;
        const uint32_t rowsHere = std::min(f.tileLength, f.height - ty);
        for (uint32_t tx = 0; tx < f.width; tx += f.tileWidth) {
            if (TIFFReadTile(t, tile.get(), tx, ty, 0, 0) < 0) return IMGERR_READFAILED;
            // Tile widths are multiples of 16: every tile starts on a byte.
            const size_t at = size_t(tx) * f.bits / 8;
            const size_t n = std::min(size_t(tileRow), rowBytes - at);
            for (uint32_t r = 0; r < rowsHere; ++r)
                std::memcpy(band.get() + size_t(r) * rowBytes + at, tile.get() + size_t(r) * size_t(tileRow), n);
        }
        for (uint32_t r = 0; r < rowsHere; ++r)
            if (int st = onRow(ty + r, band.get() + size_t(r) * rowBytes)) return st;
    }
    return 0;
}

// ---- RGBA interface ------------------------------------------------------------------

// The job of one RGBA read: libtiff's put routine is wrapped so that it
// draws into a scratch raster of one strip or tile, whose packed pixels are
// then spread into the caller's row planes.
struct RgbaJob {
    TIFFRGBAImage img;
    tileContigRoutine contig = nullptr;
    tileSeparateRoutine separate = nullptr;
    uint32_t* raster = nullptr;
    size_t rasterPixels = 0;
    uint8_t* out = nullptr;
    uint32_t width = 0, height = 0;
    bool alpha = false;
    bool keepRows = false;  // orientation 4: the library's row y is buffer row y
    bool flipped = false;   // the library fills its raster upwards
    StopFunction stop = nullptr;
    int rowsDone = 0;
    bool halted = false;
    bool bad = false;
    // libtiff's 16-bit grey routine steps over the skipped samples of a
    // clipped tile one byte per sample; its skew is scaled here so that the
    // right-hand tiles come out right.
    int32_t skewScale = 1;
};
thread_local RgbaJob* g_rgba = nullptr;

void spread(RgbaJob& j, uint32_t x, uint32_t y, uint32_t w, uint32_t h) {
    const size_t planes = j.alpha ? 4 : 3;
    for (uint32_t r = 0; r < h; ++r) {
        if (stopped(j.stop, int(j.height), j.rowsDone++)) {
            j.halted = true;
            return;
        }
        int64_t rasterRow = j.flipped ? int64_t(y) - r : int64_t(y) + r;
        if (rasterRow < 0 || rasterRow >= int64_t(j.height) || x + w > j.width) {
            j.bad = true;
            return;
        }
        const size_t outRow = j.keepRows ? size_t(rasterRow) : size_t(j.height - 1 - rasterRow);
        uint8_t* base = j.out + outRow * planes * j.width;
        const uint32_t* p = j.raster + size_t(r) * w;
        uint8_t* red = base + x;
        uint8_t* green = base + j.width + x;
        uint8_t* blue = base + 2 * size_t(j.width) + x;
        for (uint32_t i = 0; i < w; ++i) {
            uint32_t v = p[i];
            red[i] = uint8_t(v);
            green[i] = uint8_t(v >> 8);
            blue[i] = uint8_t(v >> 16);
        }
        if (j.alpha) {
            uint8_t* a = base + 3 * size_t(j.width) + x;
            for (uint32_t i = 0; i < w; ++i) a[i] = uint8_t(p[i] >> 24);
        }
    }
}

void putContig(TIFFRGBAImage* img, uint32_t*, uint32_t x, uint32_t y, uint32_t w, uint32_t h, int32_t fromskew,
               int32_t, unsigned char* pp) {
    RgbaJob& j = *g_rgba;
    if (j.halted || j.bad) return;
    if (uint64_t(w) * h > j.rasterPixels) {
        j.bad = true;
        return;
    }
    j.contig(img, j.raster, x, y, w, h, fromskew * j.skewScale, 0, pp);
    spread(j, x, y, w, h);
}

void putSeparate(TIFFRGBAImage* img, uint32_t*, uint32_t x, uint32_t y, uint32_t w, uint32_t h, int32_t fromskew,
                 int32_t, unsigned char* r, unsigned char* g, unsigned char* b, unsigned char* a) {
    RgbaJob& j = *g_rgba;
    if (j.halted || j.bad) return;
    if (uint64_t(w) * h > j.rasterPixels) {
        j.bad = true;
        return;
    }
    j.separate(img, j.raster, x, y, w, h, fromskew, 0, r, g, b, a);
    spread(j, x, y, w, h);
}

struct JobScope {
    RgbaJob* previous;
    explicit JobScope(RgbaJob* j) : previous(g_rgba) { g_rgba = j; }
    ~JobScope() { g_rgba = previous; }
};

// ---- writers ------------------------------------------------------------------------

// The tags of the palette and RGB writers.
void setTags(TIFF* tif, const ImageSize& size, int bits, int samples, int photometric, int compressionCode,
             const uint8_t* red, const uint8_t* green, const uint8_t* blue) {
    TIFFSetField(tif, TIFFTAG_SUBFILETYPE, 0);
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, uint32_t(size.x));
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, uint32_t(size.y));
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, bits);
    TIFFSetField(tif, TIFFTAG_COMPRESSION, tiff_compressionFromCode(compressionCode, bits));
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, photometric);
    TIFFSetField(tif, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, samples);
    if (samples == 4) {
        uint16_t extra = EXTRASAMPLE_ASSOCALPHA;
        TIFFSetField(tif, TIFFTAG_EXTRASAMPLES, 1, &extra);
    }
    uint32_t rows = compressionCode == 7 ? uint32_t(size.y)
                                         : uint32_t(std::max<int64_t>(1, 8192 / (int64_t(size.x) * samples)));
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, rows);
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tif, TIFFTAG_XRESOLUTION, 75.0);
    TIFFSetField(tif, TIFFTAG_YRESOLUTION, 75.0);
    TIFFSetField(tif, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
    if (photometric == PHOTOMETRIC_PALETTE) {
        // Entries are value x 256 (not x 257): the files this library has
        // always written.
        uint16_t r[256] = {}, g[256] = {}, b[256] = {};
        const int n = 1 << bits;
        for (int i = 0; i < n && i < 256; ++i) {
            r[i] = uint16_t(red[i] << 8);
            g[i] = uint16_t(green[i] << 8);
            b[i] = uint16_t(blue[i] << 8);
        }
        TIFFSetField(tif, TIFFTAG_COLORMAP, r, g, b);
    }
}

bool validSize(const ImageSize* s) { return s && il::imageBytes(s->x, s->y, 4); }

// Removes the entry of `tag` from the first directory of a classic TIFF file
// just written. libtiff writes XResolution whenever YResolution is set; the
// bitmap files carry the vertical resolution alone.
bool dropTag(const char* path, uint16_t tag) {
    il::File f = il::File::open(path, "r+b");
    uint8_t h[8];
    if (!f.ok() || !f.read(h, 8)) return false;
    const bool big = h[0] == 'M';
    auto u16 = [big](const uint8_t* p) { return big ? uint16_t(p[0] << 8 | p[1]) : uint16_t(p[1] << 8 | p[0]); };
    auto u32 = [big](const uint8_t* p) {
        return big ? uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]
                   : uint32_t(p[3]) << 24 | uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0];
    };
    if (u16(h + 2) != 42) return false;
    const uint32_t at = u32(h + 4);
    uint8_t c[2];
    if (!f.seek(at) || !f.read(c, 2)) return false;
    const uint16_t n = u16(c);
    std::vector<uint8_t> dir(size_t(n) * 12 + 4);
    if (n == 0 || !f.read(dir.data(), dir.size())) return false;
    for (uint16_t i = 0; i < n; ++i) {
        if (u16(dir.data() + 12 * size_t(i)) != tag) continue;
        dir.erase(dir.begin() + 12 * ptrdiff_t(i), dir.begin() + 12 * ptrdiff_t(i) + 12);
        dir.insert(dir.end(), 12, 0);
        const uint16_t m = uint16_t(n - 1);
        c[0] = uint8_t(big ? m >> 8 : m), c[1] = uint8_t(big ? m : m >> 8);
        return f.seek(at) && f.write(c, 2) && f.write(dir.data(), dir.size()) && f.close();
    }
    return true;
}

// Two indices a byte, the first in the high nibble.
void packNibbles(uint8_t* dst, const uint8_t* src, int width) {
    for (int x = 0; x + 1 < width; x += 2) dst[x / 2] = uint8_t((src[x] << 4) | (src[x + 1] & 15));
    if (width & 1) dst[width / 2] = uint8_t(src[width - 1] << 4);
}

int writeMapRows(TIFF* tif, const void* buffer, bool packed, const ImageSize& size, int bits, StopFunction stop) {
    const size_t w = size_t(size.x);
    il::Scratch<uint8_t> row(w, il::tag("TfMr")), line(w + 1, il::tag("TfMl"), true);
    if (!row.ok() || !line.ok()) return IMGERR_NOMEMORY;
    for (int y = 0; y < size.y; ++y) {
        if (stopped(stop, size.y, y)) return IMGERR_STOPPED;
        const uint8_t* src;
        if (packed) {
            const uint8_t* r = static_cast<uint8_t* const*>(buffer)[y];
            if (r)
                korImage_unpackByteBuffer(row.get(), r, size.x);
            else
                std::memset(row.get(), 0, w);
            src = row.get();
        } else {
            src = static_cast<const uint8_t*>(buffer) + w * size_t(y);
        }
        if (bits == 4) {
            packNibbles(line.get(), src, size.x);
        } else {
            std::memcpy(line.get(), src, w);
        }
        if (TIFFWriteScanline(tif, line.get(), uint32_t(y), 0) < 0) return kTiffWriteFailed;
    }
    return 0;
}

// ---- streaming ------------------------------------------------------------------------

struct StreamState {
    TiffPtr tif;
    il::Scratch<uint8_t> line;
    uint16_t photometric = 0, bits = 1, samples = 1;
    uint8_t red[256] = {}, green[256] = {}, blue[256] = {};
    int row = 0;
    // Tiled files: one band of tiles across the image at a time.
    uint32_t tileWidth = 0, tileLength = 0;
    size_t rowBytes = 0;      // one row of the band
    il::Scratch<uint8_t> band, tile;
    int64_t bandTop = -1;     // first row of the band held
};

// Decodes the band of tiles that holds row y into s->band.
int readTileBand(StreamState* s, uint32_t width, uint32_t height, uint32_t y) {
    TIFF* t = s->tif.get();
    const uint32_t top = y / s->tileLength * s->tileLength;
    const uint32_t rows = std::min(s->tileLength, height - top);
    const size_t bitsPerPixel = size_t(s->bits) * s->samples;
    const size_t tileRowBytes = size_t(TIFFTileRowSize(t));
    s->bandTop = -1;
    for (uint32_t x = 0; x < width; x += s->tileWidth) {
        if (TIFFReadTile(t, s->tile.get(), x, top, 0, 0) < 0) return IMGERR_READFAILED;
        // Tile widths are multiples of 16, so every tile starts on a byte.
        const size_t at = size_t(x) * bitsPerPixel / 8;
        const size_t bytes = std::min(tileRowBytes, s->rowBytes - at);
        for (uint32_t r = 0; r < rows; ++r)
            std::memcpy(s->band.get() + s->rowBytes * r + at, s->tile.get() + tileRowBytes * r, bytes);
    }
    s->bandTop = top;
    return 0;
}

int streamReadRow(ImageFileContext* ctx, uint8_t* red, uint8_t* green, uint8_t* blue, uint8_t*) {
    auto* s = static_cast<StreamState*>(ctx->state);
    const int w = ctx->fileSize.x;
    if (s->tileWidth) {
        const uint32_t y = uint32_t(s->row++);
        if (s->bandTop < 0 || y < uint32_t(s->bandTop) || y >= uint32_t(s->bandTop) + s->tileLength)
            if (int st = readTileBand(s, uint32_t(w), uint32_t(ctx->fileSize.y), y)) return st;
        std::memcpy(s->line.get(), s->band.get() + s->rowBytes * (y - uint32_t(s->bandTop)), s->rowBytes);
    } else if (TIFFReadScanline(s->tif.get(), s->line.get(), uint32_t(s->row++), 0) < 0) {
        return IMGERR_READFAILED;
    }
    const uint8_t* p = s->line.get();
    if (s->photometric == PHOTOMETRIC_RGB) {
        const size_t step = (size_t(s->bits) * s->samples + 7) / 8;
        if (step == 3 && red && green && blue) {
            il::rgbRowToPlanes(red, green, blue, p, size_t(w));
            return 0;
        }
        for (int x = 0; x < w; ++x, p += step) {
            if (red) red[x] = p[0];
            if (green) green[x] = p[1];
            if (blue) blue[x] = p[2];
        }
        return 0;
    }
    const int bpp = s->bits * s->samples;
    size_t bit = 0;
    for (int x = 0; x < w; ++x, bit += size_t(bpp)) {
        const unsigned v = bitsAt(p, bit, bpp) & 255;
        if (red) red[x] = s->red[v];
        if (green) green[x] = s->green[v];
        if (blue) blue[x] = s->blue[v];
    }
    return 0;
}

int streamWriteRow(ImageFileContext* ctx, const uint8_t* red, const uint8_t* green, const uint8_t* blue,
                   const uint8_t* alpha) {
    auto* s = static_cast<StreamState*>(ctx->state);
    const int w = ctx->fileSize.x;
    uint8_t* p = s->line.get();
    const int n = s->samples;
    if (n == 3 && red && green && blue) {
        il::planesToRGBRow(p, red, green, blue, size_t(w));
    } else {
        for (int x = 0; x < w; ++x, p += n) {
            p[0] = red ? red[x] : 0;
            p[1] = green ? green[x] : 0;
            p[2] = blue ? blue[x] : 0;
            if (n == 4) p[3] = alpha ? alpha[x] : 0;
        }
    }
    if (TIFFWriteScanline(s->tif.get(), s->line.get(), uint32_t(s->row++), 0) < 0) return kTiffWriteFailed;
    return 0;
}

int streamClose(ImageFileContext* ctx) {
    delete static_cast<StreamState*>(ctx->state);
    ctx->state = nullptr;
    return 0;
}

// TIFF orientation to the library's orientation code.
uint16_t orientationCode(uint16_t o) {
    switch (o) {
        case 2: return 5;
        case 3: return 7;
        case 4: return 6;
        case 5: return 0;
        case 6: return 1;
        case 7: return 3;
        case 8: return 2;
        default: return 4;
    }
}

constexpr uint16_t kStreamHandlerCode = 3;

}  // namespace

// ---- compression codes ----------------------------------------------------------------

int tiff_compressionFromCode(int code, int bits) noexcept {
    switch (code) {
        case -5: return COMPRESSION_LZW;
        case -1: case 0: return COMPRESSION_NONE;
        case 2: return COMPRESSION_CCITTRLE;
        case 3: return COMPRESSION_CCITTFAX3;
        case 4: return COMPRESSION_CCITTFAX4;
        case 6: case 7: return COMPRESSION_JPEG;
        case 32766: case 32771: case 32773: case 32809: case 32908: case 32946: case 34661: return code;
        default: return bits == 1 ? COMPRESSION_CCITTFAX4 : COMPRESSION_PACKBITS;
    }
}

int tiff_codeFromCompression(int compression) noexcept {
    switch (compression) {
        case COMPRESSION_LZW: return -5;
        case COMPRESSION_NONE: return 0;
        case 2: case 3: case 4: case 6: case 7: return compression;
        case 32766: case 32771: case 32773: case 32809: case 32908: case 32946: case 34661: return compression;
        default: return 0;
    }
}

// ---- detection and information ----------------------------------------------------------

int tiff_detect(const char* path, int type) noexcept {
    tiff_installHandlers();
    {
        il::File f = il::File::open(path, "rb");
        if (!f.ok()) return IMGERR_OPENFAILED;
        uint8_t h[2] = {0, 0};
        if (!f.read(h, 2)) return IMGERR_UNSUPPORTEDTYPE;
        const unsigned v = unsigned(h[0]) | (unsigned(h[1]) << 8);
        if (v != 19789 && v != 18761) return IMGERR_UNSUPPORTEDTYPE;
    }
    if (type != 29) return 0;
    return tiff_geoTiffCheck(path);
}

int tiff_readFileInfo(TiffInfo* info, const char* path) noexcept {
    if (!info) return IMGERR_BADARG;
    if (int st = tiff_detect(path, -1)) return st;
    TiffPtr tif(tiff_geoOpen(path, "r"));
    if (!tif) return IMGERR_OPENFAILED;
    TIFF* t = tif.get();
    uint16_t photometric = 0, bits = 1, samples = 1, orientation = 0, compression = 1;
    if (!TIFFGetField(t, TIFFTAG_PHOTOMETRIC, &photometric)) return IMGERR_UNSUPPORTEDTYPE;
    if (!TIFFGetField(t, TIFFTAG_BITSPERSAMPLE, &bits)) bits = 1;
    if (!TIFFGetField(t, TIFFTAG_SAMPLESPERPIXEL, &samples)) samples = 1;
    int mode = COLORMODE_RGB;
    int status = 0;
    switch (photometric) {
        case PHOTOMETRIC_MINISWHITE:
        case PHOTOMETRIC_MINISBLACK: mode = bits == 1 ? COLORMODE_BILEVEL : COLORMODE_GREY; break;
        case PHOTOMETRIC_RGB: {
            uint16_t n = 0;
            uint16_t* extra = nullptr;
            mode = COLORMODE_RGB;
            if (samples == 4 && TIFFGetField(t, TIFFTAG_EXTRASAMPLES, &n, &extra) && n == 1 && extra &&
                extra[0] <= 2)
                mode = COLORMODE_RGBA;
            break;
        }
        case PHOTOMETRIC_PALETTE:
            if (bits == 4) mode = COLORMODE_PALETTE16;
            else if (bits == 8) mode = COLORMODE_PALETTE256;
            else if (bits == 1) mode = COLORMODE_BILEVEL;
            else return IMGERR_UNSUPPORTEDTYPE;
            if (samples >= 2) status = IMGERR_UNSUPPORTEDTYPE;
            break;
        default: mode = COLORMODE_RGB; break;
    }
    if (status) return status;
    TiffInfo r{};
    r.orientation = TIFFGetField(t, TIFFTAG_ORIENTATION, &orientation) && orientation == ORIENTATION_BOTLEFT ? 2 : 0;
    uint32_t w = 0, h = 0;
    if (!TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &w) || !TIFFGetField(t, TIFFTAG_IMAGELENGTH, &h)) return IMGERR_BADFILE;
    if (w > uint32_t(INT32_MAX) || h > uint32_t(INT32_MAX)) return IMGERR_BADFILE;
    r.type = tiff_hasGeoKeys(t) ? 29 : 3;
    r.size = {int32_t(w), int32_t(h)};
    r.colourMode = mode;
    r.flags = kTiffInfoFlags;
    uint32_t tw = 0, tl = 0;
    const bool tiled = TIFFIsTiled(t) && TIFFGetField(t, TIFFTAG_TILEWIDTH, &tw) && TIFFGetField(t, TIFFTAG_TILELENGTH, &tl);
    if (tiled) r.flags |= kTiffInfoTiled;
    TIFFGetFieldDefaulted(t, TIFFTAG_COMPRESSION, &compression);
    if (!TIFFIsTiled(t) && bits == 8 && (samples == 1 || samples == 3) && compression == COMPRESSION_NONE)
        r.flags |= kTiffInfoDirectRows;
    float xr = 0, yr = 0;
    if (TIFFGetField(t, TIFFTAG_XRESOLUTION, &xr)) r.xResolution = xr;
    if (TIFFGetField(t, TIFFTAG_YRESOLUTION, &yr)) r.yResolution = yr;
    r.compression = tiff_codeFromCompression(compression);
    *info = r;
    return 0;
}

// ---- readers ------------------------------------------------------------------------------

int tiff_readFileToRGBSeparate(uint8_t** buffer, ImageSize* size, const char* path, int withAlpha,
                               StopFunction stop) noexcept {
    tiff_installHandlers();
    if (!buffer) return IMGERR_BADARG;
    TiffPtr tif = openRead(path);
    if (!tif) return IMGERR_OPENFAILED;
    Fields f;
    if (int st = readFields(tif.get(), path, f)) return st;
    if (int st = checkWholeImage(tif.get(), path, f)) return st;

    std::unique_ptr<RgbaJob> job(new (std::nothrow) RgbaJob);
    if (!job) return IMGERR_NOMEMORY;
    std::memset(&job->img, 0, sizeof job->img);
    char emsg[1024] = "";
    if (!TIFFRGBAImageOK(tif.get(), emsg) || !TIFFRGBAImageBegin(&job->img, tif.get(), 1, emsg)) {
        int code = tiff_lastMessageCode();
        return code == kTiffMsgNoMemory || code == kTiffMsgNoSpace ? IMGERR_NOMEMORY : IMGERR_BADFILE;
    }
    struct End {
        TIFFRGBAImage* img;
        ~End() { TIFFRGBAImageEnd(img); }
    } end{&job->img};
    TIFFRGBAImage& img = job->img;

    switch (img.orientation) {
        case ORIENTATION_TOPLEFT:
        case ORIENTATION_BOTLEFT: break;
        case ORIENTATION_BOTRIGHT:
        case ORIENTATION_RIGHTBOT:
        case ORIENTATION_LEFTBOT:
            tiff_issueMessage(kTiffMsgOrientBottom, unsigned(img.orientation));
            img.orientation = ORIENTATION_BOTLEFT;
            break;
        default:
            tiff_issueMessage(kTiffMsgOrientTop, unsigned(img.orientation));
            img.orientation = ORIENTATION_TOPLEFT;
            break;
    }
    img.req_orientation = ORIENTATION_BOTLEFT;

    const uint32_t w = img.width, h = img.height;
    const int planes = withAlpha ? 4 : 3;
    size_t outBytes = 0;
    if (!il::imageBytes(w, h, planes, &outBytes)) return IMGERR_BADFILE;
    size_t rasterPixels;
    if (f.tiled) {
        rasterPixels = size_t(f.tileWidth) * f.tileLength;
    } else {
        uint32_t rps = 0;
        if (!TIFFGetField(tif.get(), TIFFTAG_ROWSPERSTRIP, &rps) || int32_t(rps) <= 0 || rps > h) rps = h;
        rasterPixels = size_t(w) * rps;
    }
    il::Scratch<uint32_t> raster(rasterPixels, il::tag("TfRa"));
    il::CallerBuffer<uint8_t> out = il::callerBytes(outBytes, true);
    if (!raster.ok() || !out) return IMGERR_NOMEMORY;

    RgbaJob& j = *job;
    j.raster = raster.get();
    j.rasterPixels = rasterPixels;
    j.out = out.get();
    j.width = w;
    j.height = h;
    j.alpha = withAlpha != 0;
    j.keepRows = img.orientation == ORIENTATION_BOTLEFT;
    j.flipped = img.orientation == ORIENTATION_TOPLEFT;  // turned to bottom-left
    j.stop = stop;
    if (img.isContig) {
        if (!img.put.contig) return IMGERR_BADFILE;
        if (img.bitspersample == 16 &&
            (img.photometric == PHOTOMETRIC_MINISBLACK || img.photometric == PHOTOMETRIC_MINISWHITE))
            j.skewScale = 2 * img.samplesperpixel;
        j.contig = img.put.contig;
        img.put.contig = putContig;
    } else {
        if (!img.put.separate) return IMGERR_BADFILE;
        j.separate = img.put.separate;
        img.put.separate = putSeparate;
    }
    JobScope scope(job.get());
    // libtiff addresses its own raster argument only through the put
    // routine, which draws into the scratch raster instead; the strip-sized
    // raster passed here is never indexed by the wrappers.
    int ok = TIFFRGBAImageGet(&img, raster.get(), w, h);
    if (j.halted) return IMGERR_STOPPED;
    if (j.bad) return IMGERR_BADFILE;
    if (!ok) return IMGERR_READFAILED;
    if (size) *size = {int32_t(w), int32_t(h)};
    *buffer = out.release();
    return 0;
}

int tiff_readPalette(uint8_t* red, uint8_t* green, uint8_t* blue, int* count, const char* path) noexcept {
    tiff_installHandlers();
    if (!red || !green || !blue || !count) return IMGERR_BADARG;
    TiffPtr tif = openRead(path);
    if (!tif) return IMGERR_OPENFAILED;
    Fields f;
    if (int st = readFields(tif.get(), path, f)) return st;
    return paletteOf(tif.get(), f, red, green, blue, count);
}

int tiff_readFileToMap(void** buffer, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue, int* count,
                       const char* path, int packed, StopFunction stop) noexcept {
    tiff_installHandlers();
    if (!buffer || !red || !green || !blue || !count) return IMGERR_BADARG;
    TiffPtr tif = openRead(path);
    if (!tif) return IMGERR_OPENFAILED;
    TIFF* t = tif.get();
    Fields f;
    if (int st = readFields(t, path, f)) return st;
    if (int st = checkWholeImage(t, path, f)) return st;
    // 16-bit grey reads as its high bytes through a ramp of 256 levels.
    const bool grey16 = f.hasPhotometric && f.bits == 16 && f.photometric <= PHOTOMETRIC_MINISBLACK;
    if (!f.hasPhotometric || (f.bits > 8 && !grey16)) return IMGERR_UNSUPPORTEDTYPE;
    if (f.samples != 1) return IMGERR_UNSUPPORTEDTYPE;
    uint8_t r[256], g[256], b[256];
    int n = 256;
    if (grey16) {
        for (int i = 0; i < 256; ++i)
            r[i] = g[i] = b[i] = uint8_t(f.photometric == PHOTOMETRIC_MINISBLACK ? i : 255 - i);
    } else if (int st = paletteOf(t, f, r, g, b, &n)) {
        return st;
    }
    const auto unpack = [&](uint8_t* to, const uint8_t* from, uint32_t count) {
        if (f.bits == 1 || f.bits == 2 || f.bits == 4 || f.bits == 8) {
            korImage_unpackBuffer(to, from, f.bits, int(count));
            return;
        }
        if (!grey16) {  // 3, 5, 6 or 7 bits: samples run across byte boundaries
            for (uint32_t x = 0; x < count; ++x) to[x] = uint8_t(bitsAt(from, size_t(x) * f.bits, f.bits));
            return;
        }
        for (uint32_t x = 0; x < count; ++x) {  // samples in the machine's order, as libtiff hands them out
            uint16_t v;
            std::memcpy(&v, from + 2 * size_t(x), 2);
            to[x] = uint8_t(v >> 8);
        }
    };

    const ImageSize sz{int32_t(f.width), int32_t(f.height)};
    const size_t w = f.width;
    il::CallerBuffer<uint8_t> map;
    il::RowTable table;
    if (packed) {
        if (!table.allocate(sz)) return IMGERR_NOMEMORY;
    } else {
        map = il::callerBytes(w * f.height, true);
        if (!map) return IMGERR_NOMEMORY;
    }
    il::Scratch<uint8_t> values(w + 16, il::tag("TfMv"), true);
    if (!values.ok()) return IMGERR_NOMEMORY;
    auto store = [&](uint32_t y, const uint8_t* v) -> int {
        if (packed) return il::storePackByteRow(table.bytes(), int(y), v, int(w));
        std::memcpy(map.get() + w * y, v, w);
        return 0;
    };

    const int st = forEachStoredRow(t, f, (w * f.bits + 7) / 8, stop, [&](uint32_t y, const uint8_t* stored) {
        unpack(values.get(), stored, uint32_t(w));
        return store(y, values.get());
    });
    if (st != 0) return st;
    std::memcpy(red, r, 256);
    std::memcpy(green, g, 256);
    std::memcpy(blue, b, 256);
    *count = n;
    if (size) *size = sz;
    *buffer = packed ? table.release() : static_cast<void*>(map.release());
    return 0;
}

int tiff_getInvertFlag(TIFF* tif) noexcept {
    uint16_t photometric = 0;
    if (!TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &photometric)) return IMGERR_BADFILE;
    int invert;
    switch (photometric) {
        case PHOTOMETRIC_MINISWHITE: invert = 1; break;
        case PHOTOMETRIC_MINISBLACK: invert = 0; break;
        case PHOTOMETRIC_PALETTE: {
            uint16_t *r = nullptr, *g = nullptr, *b = nullptr;
            if (!TIFFGetField(tif, TIFFTAG_COLORMAP, &r, &g, &b) || !r || !g || !b) return IMGERR_BADFILE;
            invert = r[0] == 0 && g[0] == 0 && b[0] == 0 ? 0 : 1;
            break;
        }
        default: return IMGERR_UNSUPPORTEDTYPE;
    }
    if (imagelib_cfgInt("KV_RASTER_TIFFINVERT", 0) != 0) invert = !invert;
    return invert;
}

int tiff_readFileToBitMap(void** buffer, ImageSize* size, int runLength, const char* path,
                          StopFunction stop) noexcept {
    tiff_installHandlers();
    if (!buffer) return IMGERR_BADARG;
    TiffPtr tif = openRead(path);
    if (!tif) return IMGERR_OPENFAILED;
    TIFF* t = tif.get();
    Fields f;
    if (int st = readFields(t, path, f)) return st;
    if (int st = checkWholeImage(t, path, f)) return st;
    if (f.bits > 1) return IMGERR_UNSUPPORTEDTYPE;
    if (f.samples != 1) return IMGERR_UNSUPPORTEDTYPE;
    const int invert = tiff_getInvertFlag(t);
    if (invert < 0) return invert;

    const ImageSize sz{int32_t(f.width), int32_t(f.height)};
    const size_t rowBytes = (size_t(f.width) + 7) / 8;
    il::CallerBuffer<uint8_t> bits;
    il::RowTable table;
    if (runLength) {
        if (!table.allocate(sz, IMAGEFORMAT_RLEBITMAP)) return IMGERR_NOMEMORY;
    } else {
        bits = il::callerBytes(rowBytes * f.height, true);
        if (!bits) return IMGERR_NOMEMORY;
    }
    auto store = [&](uint32_t y, const uint8_t* row) -> int {
        if (runLength) return il::storeRLEBitMapRow(table.runs(), int(y), row, int(f.width));
        std::memcpy(bits.get() + rowBytes * y, row, rowBytes);
        return 0;
    };

    il::Scratch<uint8_t> flipped(rowBytes, il::tag("TfBf"));
    if (!flipped.ok()) return IMGERR_NOMEMORY;
    const int st = forEachStoredRow(t, f, rowBytes, stop, [&](uint32_t y, const uint8_t* stored) {
        if (!invert) return store(y, stored);
        for (size_t i = 0; i < rowBytes; ++i) flipped.get()[i] = uint8_t(~stored[i]);
        return store(y, flipped.get());
    });
    if (st != 0) return st;
    if (size) *size = sz;
    *buffer = runLength ? table.release() : static_cast<void*>(bits.release());
    return 0;
}

// ---- writers -------------------------------------------------------------------------------

int tiff_createFileFromBitMap(const char* path, const void* buffer, int runLength, const ImageSize* size,
                              int compressionCode, int minIsWhite, StopFunction stop) noexcept {
    tiff_installHandlers();
    if (!buffer || !validSize(size)) return IMGERR_BADARG;
    TiffPtr tif(path ? TIFFOpen(path, "w+b") : nullptr);
    if (!tif) return IMGERR_OPENFAILED;
    TIFF* t = tif.get();
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, uint32_t(size->x));
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, uint32_t(size->y));
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 1);
    TIFFSetField(t, TIFFTAG_FILLORDER, FILLORDER_MSB2LSB);
    TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    // Only the fax-like vertical resolution is written, never XResolution.
    TIFFSetField(t, TIFFTAG_YRESOLUTION, 196.0);
    TIFFSetField(t, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
    TIFFSetField(t, TIFFTAG_COMPRESSION, tiff_compressionFromCode(compressionCode, 1));
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, minIsWhite ? PHOTOMETRIC_MINISWHITE : PHOTOMETRIC_MINISBLACK);
    const size_t rowBytes = (size_t(size->x) + 7) >> 3;
    il::Scratch<uint8_t> row(rowBytes, il::tag("TfBw"));
    if (!row.ok()) return IMGERR_NOMEMORY;
    for (int y = 0; y < size->y; ++y) {
        if (stopped(stop, size->y, y)) return IMGERR_STOPPED;
        if (runLength) {
            std::memset(row.get(), 0, rowBytes);
            const uint16_t* runs = static_cast<uint16_t* const*>(buffer)[y];
            if (runs) korImage_runLengthDecodeBitMapRow(row.get(), runs, size->x);
        } else {
            std::memcpy(row.get(), static_cast<const uint8_t*>(buffer) + rowBytes * size_t(y), rowBytes);
        }
        if (TIFFWriteScanline(t, row.get(), uint32_t(y), 0) < 0) return kTiffWriteFailed;
    }
    tif.reset();
    return dropTag(path, TIFFTAG_XRESOLUTION) ? 0 : IMGERR_WRITEFAILED;
}

int tiff_createFileFromMap(const char* path, const void* buffer, const uint8_t* red, const uint8_t* green,
                           const uint8_t* blue, const TiffMapOptions* o) noexcept {
    tiff_installHandlers();
    if (!buffer || !red || !green || !blue || !o || !validSize(&o->size)) return IMGERR_BADARG;
    const ImageSize size = o->size;
    const bool packed = o->packed != 0;
    const int layout = packed ? IMAGEFORMAT_PACKBYTE : IMAGEFORMAT_MAP;

    auto toRGB = [&](il::CallerBuffer<uint8_t>& rgb) -> int {
        uint8_t* p = nullptr;
        int st = korImage_extMapToRGB(&p, buffer, &size, red, green, blue, packed ? 1 : 0, o->stop);
        rgb.reset(p);
        if (st != 0) return st > 0 ? IMGERR_STOPPED : st;
        return 0;
    };

    switch (o->colourMode) {
        case COLORMODE_PALETTE16: {
            if (o->count > 16) {
                il::CallerBuffer<uint8_t> rgb;
                if (int st = toRGB(rgb)) return st;
                uint8_t r[256] = {}, g[256] = {}, b[256] = {};
                int n = 0;
                if (korImage_getOptimizedPalette(r, g, b, &n, 16, rgb.get(), &size, o->stop) != 0)
                    return IMGERR_STOPPED;
                if (n <= 0) return IMGERR_NOMEMORY;
                void* mapped = nullptr;
                int st = korImage_extRGBToMap(&mapped, rgb.get(), &size, r, g, b, n, 0, o->stop);
                il::CallerBuffer<uint8_t> map(static_cast<uint8_t*>(mapped));
                if (st != 0) return st > 0 ? IMGERR_STOPPED : st;
                TiffMapOptions again = *o;
                again.count = n;
                again.packed = 0;
                return tiff_createFileFromMap(path, map.get(), r, g, b, &again);
            }
            TiffPtr tif(path ? TIFFOpen(path, "w+b") : nullptr);
            if (!tif) return IMGERR_OPENFAILED;
            setTags(tif.get(), size, 4, 1, PHOTOMETRIC_PALETTE, o->compressionCode, red, green, blue);
            return writeMapRows(tif.get(), buffer, packed, size, 4, o->stop);
        }
        case COLORMODE_PALETTE256: {
            TiffPtr tif(path ? TIFFOpen(path, "w+b") : nullptr);
            if (!tif) return IMGERR_OPENFAILED;
            setTags(tif.get(), size, 8, 1, PHOTOMETRIC_PALETTE, o->compressionCode, red, green, blue);
            return writeMapRows(tif.get(), buffer, packed, size, 8, o->stop);
        }
        case COLORMODE_GREY: {
            uint8_t r[256], g[256], b[256];
            std::memcpy(r, red, 256);
            std::memcpy(g, green, 256);
            std::memcpy(b, blue, 256);
            int n = o->count;
            il::CallerBuffer<uint8_t> grey;
            if (packed) {
                grey.reset(static_cast<uint8_t*>(dlmSystem_korCalloc(size_t(size.y), sizeof(uint8_t*))));
            } else {
                grey = il::callerBytes(size_t(size.x) * size_t(size.y));
            }
            if (!grey) return IMGERR_NOMEMORY;
            struct Rows {
                uint8_t** rows;
                ImageSize size;
                ~Rows() {
                    if (rows)
                        for (int y = 0; y < size.y; ++y) dlmSystem_korFree(rows[y]);
                }
            } rowsGuard{packed ? reinterpret_cast<uint8_t**>(grey.get()) : nullptr, size};
            if (int st = korImage_convertToGreyScale(grey.get(), r, g, b, &n, buffer, &size, layout, o->stop))
                return st;
            uint8_t ramp[256];
            for (int i = 0; i < 256; ++i) ramp[i] = uint8_t(i);
            TiffPtr tif(path ? TIFFOpen(path, "w+b") : nullptr);
            if (!tif) return IMGERR_OPENFAILED;
            setTags(tif.get(), size, 8, 1, PHOTOMETRIC_PALETTE, o->compressionCode, ramp, ramp, ramp);
            return writeMapRows(tif.get(), grey.get(), packed, size, 8, o->stop);
        }
        default: {
            il::CallerBuffer<uint8_t> rgb;
            if (int st = toRGB(rgb)) return st;
            return tiff_createFileFromRGB(path, rgb.get(), &size, o->colourMode, o->compressionCode, o->stop);
        }
    }
}

int tiff_createFileFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, int colourMode,
                           int compressionCode, StopFunction stop) noexcept {
    tiff_installHandlers();
    if (!rgb || !validSize(size)) return IMGERR_BADARG;
    int bits = 8, samples = 3, photometric = PHOTOMETRIC_RGB;
    switch (colourMode) {
        case COLORMODE_RGB: break;
        case COLORMODE_PALETTE16: bits = 4, samples = 1, photometric = PHOTOMETRIC_PALETTE; break;
        case COLORMODE_PALETTE256: samples = 1, photometric = PHOTOMETRIC_PALETTE; break;
        case COLORMODE_GREY: samples = 1, photometric = PHOTOMETRIC_MINISBLACK; break;
        case COLORMODE_BILEVEL: bits = 1, samples = 1, photometric = PHOTOMETRIC_MINISBLACK; break;
        case COLORMODE_RGBA: samples = 4; break;
        default: return IMGERR_BADARG;
    }
    const size_t w = size_t(size->x);
    const size_t planes = colourMode == COLORMODE_RGBA ? 4 : 3;
    uint8_t r[256] = {}, g[256] = {}, b[256] = {};
    il::DitherJob ditherScope;
    const bool dither = photometric == PHOTOMETRIC_PALETTE;
    if (dither) {
        int n = 0;
        if (korImage_getOptimizedPalette(r, g, b, &n, bits == 4 ? 16 : 256, rgb, size, stop) != 0)
            return IMGERR_STOPPED;
        int st = korImage_ditherInitialize(n, r, g, b, size->x);
        if (st < 0) return st;
    }
    TiffPtr tif(path ? TIFFOpen(path, "w+b") : nullptr);
    if (!tif) return IMGERR_OPENFAILED;
    setTags(tif.get(), *size, bits, samples, photometric, compressionCode, r, g, b);
    il::Scratch<uint8_t> line(planes * w + 1, il::tag("TfRw"), true), idx(w + 1, il::tag("TfRi"));
    if (!line.ok() || !idx.ok()) return IMGERR_NOMEMORY;
    for (int y = 0; y < size->y; ++y) {
        if (stopped(stop, size->y, y)) return IMGERR_STOPPED;
        const uint8_t* R = rgb + planes * w * size_t(y);
        const uint8_t* G = R + w;
        const uint8_t* B = G + w;
        uint8_t* p = line.get();
        switch (colourMode) {
            case COLORMODE_RGB:
                il::planesToRGBRow(p, R, w);
                break;
            case COLORMODE_RGBA: {
                const uint8_t* A = B + w;
                for (size_t x = 0; x < w; ++x, p += 4) p[0] = R[x], p[1] = G[x], p[2] = B[x], p[3] = A[x];
                break;
            }
            case COLORMODE_GREY:
                for (size_t x = 0; x < w; ++x) p[x] = uint8_t(int(0.3 * R[x] + 0.59 * G[x] + 0.11 * B[x] + 0.5));
                break;
            case COLORMODE_BILEVEL:
                std::memset(p, 0, (w + 7) / 8);
                for (size_t x = 0; x < w; ++x)
                    if (int(0.3 * R[x] + 0.59 * G[x] + 0.11 * B[x] + 0.5) > 128) p[x >> 3] |= uint8_t(0x80 >> (x & 7));
                break;
            default:
                korImage_ditherRow(idx.get(), R, G, B, size->x);
                if (bits == 4)
                    packNibbles(p, idx.get(), size->x);
                else
                    std::memcpy(p, idx.get(), w);
                break;
        }
        if (TIFFWriteScanline(tif.get(), line.get(), uint32_t(y), 0) < 0) return kTiffWriteFailed;
    }
    return 0;
}

// ---- streaming ------------------------------------------------------------------------------

int tiff_openStream(ImageFileContext* ctx, const char* path) noexcept {
    tiff_installHandlers();
    if (!ctx) return IMGSTAT_STREAM_STOPPED;
    tiff_suppressMessages(0);
    struct Restore {
        ~Restore() { tiff_suppressMessages(1); }
    } restore;
    std::unique_ptr<StreamState> s(new (std::nothrow) StreamState);
    if (!s) return IMGSTAT_NO_ROW_BUFFER;
    // Not memory-mapped ("m"): the mapped pages of a file read from top to
    // bottom would stay resident and the process grow with the file.
    s->tif.reset(path ? TIFFOpen(path, "rbm") : nullptr);
    if (!s->tif) return IMGSTAT_STREAM_STOPPED;
    TIFF* t = s->tif.get();
    uint32_t w = 0, h = 0;
    if (!TIFFGetField(t, TIFFTAG_IMAGELENGTH, &h) || !TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &w) ||
        !il::imageBytes(w, h, 4) || !plausible(path, w, h, 1))
        return IMGSTAT_STREAM_STOPPED;
    uint16_t orientation = 1;
    if (!TIFFGetField(t, TIFFTAG_PHOTOMETRIC, &s->photometric)) return 5;
    if (!TIFFGetField(t, TIFFTAG_ORIENTATION, &orientation)) orientation = 1;
    if (!TIFFGetField(t, TIFFTAG_SAMPLESPERPIXEL, &s->samples)) s->samples = 1;
    if (!TIFFGetField(t, TIFFTAG_BITSPERSAMPLE, &s->bits)) s->bits = 1;
    // Sample layouts the row reader can walk: up to 16 bits and 8 samples.
    if (s->bits == 0 || s->bits > 16 || s->samples == 0 || s->samples > 8) return 5;
    // The row reader walks (bits x samples + 7) / 8 bytes a pixel whatever
    // the planar layout: the line holds that much, and libtiff's scanline.
    const tmsize_t scan = TIFFScanlineSize(t);
    const size_t walk = size_t(w) * ((size_t(s->bits) * s->samples + 7) / 8) + 3;
    if (scan <= 0 || !s->line.allocate(std::max({size_t(4) * w, size_t(scan), walk}), il::tag("TfSl"), true))
        return IMGSTAT_NO_ROW_BUFFER;
    const int bpp = s->bits * s->samples;
    if (TIFFIsTiled(t)) {
        // A band of tiles across the image, the height of one tile (bounded
        // like any one allocation from a header).
        uint32_t tw = 0, tl = 0;
        uint16_t planar = PLANARCONFIG_CONTIG;
        TIFFGetField(t, TIFFTAG_PLANARCONFIG, &planar);
        if (!TIFFGetField(t, TIFFTAG_TILEWIDTH, &tw) || !TIFFGetField(t, TIFFTAG_TILELENGTH, &tl) || tw == 0 ||
            tl == 0 || tw % 16 != 0 || planar != PLANARCONFIG_CONTIG)
            return 5;
        s->rowBytes = (size_t(w) * size_t(bpp) + 7) / 8;
        const tmsize_t tileBytes = TIFFTileSize(t);
        if (tileBytes <= 0 || size_t(tileBytes) > (size_t(1) << 28) || s->rowBytes > (size_t(1) << 28) / tl)
            return IMGSTAT_STREAM_STOPPED;
        if (!s->tile.allocate(size_t(tileBytes), il::tag("TfSt")) ||
            !s->band.allocate(s->rowBytes * tl, il::tag("TfSb"), true))
            return IMGSTAT_NO_ROW_BUFFER;
        s->tileWidth = tw;
        s->tileLength = tl;
    }
    switch (s->photometric) {
        case PHOTOMETRIC_MINISBLACK:
        case PHOTOMETRIC_MINISWHITE: {
            if (s->bits == 0 || s->bits > 8 || bpp > 16) return 5;
            const int n = 1 << s->bits;
            for (int i = 0; i < n; ++i) {
                int v = n == 1 ? 255 : s->photometric == PHOTOMETRIC_MINISBLACK ? 255 * i / (n - 1)
                                                                                  : 255 * (n - 1 - i) / (n - 1);
                s->red[i] = s->green[i] = s->blue[i] = uint8_t(v);
            }
            break;
        }
        case PHOTOMETRIC_RGB:
            if (s->samples < 3 || s->bits < 8) return 5;
            break;
        case PHOTOMETRIC_PALETTE: {
            uint16_t *r = nullptr, *g = nullptr, *b = nullptr;
            if (s->bits == 0 || s->bits > 8 || bpp > 16 || !TIFFGetField(t, TIFFTAG_COLORMAP, &r, &g, &b)) return 5;
            for (int i = 0; i < (1 << s->bits); ++i) {
                s->red[i] = uint8_t(r[i] >> 8);
                s->green[i] = uint8_t(g[i] >> 8);
                s->blue[i] = uint8_t(b[i] >> 8);
            }
            break;
        }
        default: return 5;
    }
    ctx->fileSize = {int32_t(w), int32_t(h)};
    ctx->alpha = 0;
    il::stream::installHandler(ctx, kStreamHandlerCode, orientationCode(orientation), streamReadRow, nullptr,
                               streamClose, s.release());
    return 0;
}

int tiff_createStream(ImageFileContext* ctx, const char* path, int type, int colourMode) noexcept {
    tiff_installHandlers();
    if (!ctx || !validSize(&ctx->fileSize)) return IMGERR_BADARG;
    const ImageSize size = ctx->fileSize;
    const int samples = colourMode == COLORMODE_RGBA ? 4 : 3;
    std::unique_ptr<StreamState> s(new (std::nothrow) StreamState);
    if (!s || !s->line.allocate(size_t(4) * size_t(size.x), il::tag("TfSw"), true)) return IMGSTAT_NO_ROW_BUFFER;
    s->tif.reset(path ? TIFFOpen(path, "wb") : nullptr);
    if (!s->tif) return IMGSTAT_STREAM_STOPPED;
    TIFF* t = s->tif.get();
    TIFFSetField(t, TIFFTAG_SUBFILETYPE, 0);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, uint32_t(size.x));
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, uint32_t(size.y));
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 8);
    if (type == 3) TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_PACKBITS);
    TIFFSetField(t, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, samples);
    if (samples == 4) {
        uint16_t extra = EXTRASAMPLE_ASSOCALPHA;
        TIFFSetField(t, TIFFTAG_EXTRASAMPLES, 1, &extra);
    }
    TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, uint32_t(std::max<int64_t>(1, 8192 / (int64_t(size.x) * samples))));
    s->samples = uint16_t(samples);
    ctx->alpha = samples == 4;
    il::stream::installHandler(ctx, kStreamHandlerCode, 4, nullptr, streamWriteRow, streamClose, s.release());
    return 0;
}
