// Intergraph rasters a block at a time: the tiles of tiled files, strips of
// lines of untiled ones, turned upright as the whole-image reader turns them.
//
// Everything works from a rectangle of the stored raster (pixels along the
// lines, lines) that an upright block covers: tiles are decoded one at a time
// into a small cache; uncompressed lines are read where they lie; the
// sequential codings (run-length, Group 4, atoms) decode a prefix of the
// lines, grown by doubling so that reading a file strip by strip stays linear.
#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "codecs/intergraph/ingr.h"
#include "imagelib/io.h"
#include "internal/bytes.h"
#include "internal/checked.h"

using il::File;
using il::Scratch;

namespace {

constexpr uint16_t kHeaderCode = 2312;
constexpr int64_t kMaxPixelsPerByte = 65536;  // as the whole-image reader allows
constexpr size_t kStripBytes = size_t(1) << 18;
constexpr size_t kTileCacheBytes = size_t(64) << 20;

// How the upright picture sits on the stored raster. Codes 0..3 run the lines
// vertically (the picture is lines wide); bit 0 puts the stored origin on
// the right, bit 1 at the bottom. Other codes read as stored.
struct Orientation {
    bool transposed = false, flipU = false, flipV = false;
    bool negated = false;  // codes 1 and 2 map (-pixel, line) under keep registration
    explicit Orientation(int o) {
        if (o < 0 || o > 7) return;
        transposed = o < 4;
        flipU = o & 1;
        flipV = o & 2;
        negated = o == 1 || o == 2;
    }
};

// Matrix input (a, b) = S (col, row) + t for the upright picture's corners:
// with keep registration the stored (pixel, -line) (negated for codes 1
// and 2, as the attach rules of those codes have it), otherwise the upright
// offsets from the stored origin corner, x to the right and y upwards.
struct InputMap {
    int s[2][2];
    double t[2];
};

InputMap inputMap(const Orientation& o, bool keep, double wu, double hu) {
    InputMap m{};
    if (!keep) {
        m.s[0][0] = 1, m.t[0] = o.flipU ? -wu : 0;
        m.s[1][1] = -1, m.t[1] = o.flipV ? hu : 0;
    } else if (!o.transposed) {
        m.s[0][0] = o.flipU ? -1 : 1, m.t[0] = o.flipU ? wu : 0;
        m.s[1][1] = o.flipV ? 1 : -1, m.t[1] = o.flipV ? -hu : 0;
    } else {
        m.s[0][1] = o.flipV ? -1 : 1, m.t[0] = o.flipV ? hu : 0;
        m.s[1][0] = o.flipU ? 1 : -1, m.t[1] = o.flipU ? -wu : 0;
    }
    if (keep && o.negated)
        for (int i = 0; i < 2; ++i) {
            m.s[i][0] = -m.s[i][0], m.s[i][1] = -m.s[i][1];
            m.t[i] = -m.t[i];
        }
    return m;
}

struct CachedTile {
    uint64_t index = UINT64_MAX;
    Scratch<uint8_t> pixels;
    uint32_t w = 0, h = 0;
};

}  // namespace

struct IngrBlockReader {
    IngrHeader h{};
    File file;
    int dt = 0;  // coding of the data (the tiles' for tiled files)
    bool rgb = false;
    int planes = 1;
    uint32_t W = 0, H = 0;  // stored pixels per line, lines
    Orientation orient{4};
    int32_t bw = 0, bh = 0;  // block size
    uint32_t strip = 0;      // lines a strip (untiled)
    uint64_t dataLen = 0;
    // tiled
    Scratch<uint8_t> packet;
    uint32_t tileSize = 0;
    uint64_t tileCols = 0, tileRows = 0;
    std::vector<CachedTile> cache;
    size_t nextSlot = 0;
    // untiled, sequential codings
    Scratch<uint8_t> data;
    Scratch<uint8_t> prefix;
    uint32_t prefixLines = 0;
    // one stored rectangle, planes per line
    Scratch<uint8_t> region;
};

namespace {

size_t lineBytes(const IngrBlockReader& r, uint32_t pixels) { return size_t(pixels) * size_t(r.planes); }

int loadTile(IngrBlockReader& r, uint64_t index, const CachedTile** out) {
    for (const CachedTile& c : r.cache)
        if (c.index == index) {
            *out = &c;
            return 0;
        }
    CachedTile& c = r.cache[r.nextSlot];
    r.nextSlot = (r.nextSlot + 1) % r.cache.size();
    c.index = UINT64_MAX;
    const uint64_t tr = index / r.tileCols, tc = index % r.tileCols;
    const uint32_t x0 = uint32_t(tc * r.tileSize), y0 = uint32_t(tr * r.tileSize);
    c.w = std::min<uint32_t>(r.tileSize, r.W - x0);
    c.h = std::min<uint32_t>(r.tileSize, r.H - y0);
    if (!c.pixels.allocate(lineBytes(r, c.w) * c.h, il::tag("IGbt"), true)) return IMGERR_NOMEMORY;
    const uint8_t* e = r.packet.get() + 128 + 12 * index;
    const uint32_t start = il::get32le(e), used = il::get32le(e + 8);
    if (start == 0) {
        ingr_fillStored(c.pixels.get(), c.w, c.h, r.rgb, used, r.dt);
    } else {
        if (start > r.dataLen || used > r.dataLen - start) return IMGERR_BADFILE;
        Scratch<uint8_t> bytes(used, il::tag("IGbd"));
        if (!bytes.ok()) return IMGERR_NOMEMORY;
        if (!r.file.seek(int64_t(r.h.headerLength) + start) || !r.file.read(bytes.get(), used)) return IMGERR_BADFILE;
        if (int st = ingr_decodeStored(c.pixels.get(), c.w, c.h, r.rgb, r.dt, bytes.get(), used, r.h.scannable != 0,
                                       true))
            return st;
    }
    c.index = index;
    *out = &c;
    return 0;
}

// Makes the first `lines` stored lines of a sequential coding available.
int decodePrefix(IngrBlockReader& r, uint32_t lines) {
    if (lines <= r.prefixLines) return 0;
    if (!r.data.ok()) {
        if (!r.data.allocate(size_t(r.dataLen), il::tag("IGdt"))) return IMGERR_NOMEMORY;
        if (!r.file.seek(r.h.headerLength) || !r.file.read(r.data.get(), size_t(r.dataLen))) return IMGERR_BADFILE;
    }
    const uint32_t want = std::max(lines, uint32_t(std::min<uint64_t>(r.H, uint64_t(r.prefixLines) * 2)));
    // Decoded again from the first line: the old prefix goes first, so that
    // the peak stays at one prefix.
    r.prefix.reset();
    r.prefixLines = 0;
    if (!r.prefix.allocate(lineBytes(r, r.W) * want, il::tag("IGpf"), true)) return IMGERR_NOMEMORY;
    if (int st = ingr_decodeStored(r.prefix.get(), r.W, want, r.rgb, r.dt, r.data.get(), size_t(r.dataLen),
                                   r.h.scannable != 0, false))
        return st;
    r.prefixLines = want;
    return 0;
}

// Fills r.region with stored lines [l0, l1) x pixels [p0, p1), planes per line.
int fetchStored(IngrBlockReader& r, uint32_t p0, uint32_t p1, uint32_t l0, uint32_t l1) {
    const uint32_t w = p1 - p0;
    const size_t rowBytes = lineBytes(r, w);
    if (r.region.size() < rowBytes * (l1 - l0) &&
        !r.region.allocate(rowBytes * (l1 - l0), il::tag("IGrg")))
        return IMGERR_NOMEMORY;
    uint8_t* out = r.region.get();
    auto copyLine = [&](uint8_t* dst, const uint8_t* line, uint32_t linePixels, uint32_t from) {
        for (int p = 0; p < r.planes; ++p) std::memcpy(dst + size_t(p) * w, line + size_t(p) * linePixels + from, w);
    };
    if (r.h.dataType == 65) {
        const uint32_t T = r.tileSize;
        for (uint32_t tr = l0 / T; tr <= (l1 - 1) / T; ++tr)
            for (uint32_t tc = p0 / T; tc <= (p1 - 1) / T; ++tc) {
                const CachedTile* t = nullptr;
                if (int st = loadTile(r, uint64_t(tr) * r.tileCols + tc, &t)) return st;
                const uint32_t tx = tc * T, ty = tr * T;
                const uint32_t xa = std::max(p0, tx), xb = std::min(p1, tx + t->w);
                const uint32_t ya = std::max(l0, ty), yb = std::min(l1, ty + t->h);
                for (uint32_t y = ya; y < yb; ++y) {
                    const uint8_t* src = t->pixels.get() + lineBytes(r, t->w) * (y - ty);
                    uint8_t* dst = out + rowBytes * (y - l0);
                    for (int p = 0; p < r.planes; ++p)
                        std::memcpy(dst + size_t(p) * w + (xa - p0), src + size_t(p) * t->w + (xa - tx), xb - xa);
                }
            }
        return 0;
    }
    if (r.dt == 2 || r.dt == 28) {
        const size_t stored = size_t(r.W) * size_t(r.planes);
        Scratch<uint8_t> line(stored, il::tag("IGln"));
        if (!line.ok()) return IMGERR_NOMEMORY;
        for (uint32_t y = l0; y < l1; ++y) {
            const uint64_t at = uint64_t(r.h.headerLength) + uint64_t(y) * stored + uint64_t(p0) * r.planes;
            if (!r.file.seek(int64_t(at)) || !r.file.read(line.get(), size_t(w) * r.planes)) return IMGERR_BADFILE;
            uint8_t* dst = out + rowBytes * (y - l0);
            if (!r.rgb) {
                std::memcpy(dst, line.get(), w);
                continue;
            }
            for (uint32_t x = 0; x < w; ++x)
                for (int p = 0; p < 3; ++p) dst[size_t(p) * w + x] = line.get()[3 * size_t(x) + p];
        }
        return 0;
    }
    if (int st = decodePrefix(r, l1)) return st;
    for (uint32_t y = l0; y < l1; ++y) copyLine(out + rowBytes * (y - l0), r.prefix.get() + lineBytes(r, r.W) * y, r.W, p0);
    return 0;
}

int openReader(IngrBlockReader& r, IngrRasterInfo& info, const char* path) {
    IngrHeader& h = r.h;
    if (int st = ingr_readHeader(&h, r.file, path)) return st;
    r.dt = h.dataType == 65 ? h.tileDataType : h.dataType;
    if (h.dataType == 65 && h.tileDataType == 9) return IMGERR_BADFORMAT;
    if (ingr_typeFromDataType(h.dataType, h.tileDataType) < 0) return IMGERR_UNSUPPORTEDTYPE;
    int mode;
    switch (r.dt) {
        case 2: case 29: mode = h.colourTableType ? COLORMODE_PALETTE256 : COLORMODE_GREY; break;
        case 9: case 24: mode = COLORMODE_BILEVEL; break;
        default: mode = COLORMODE_RGB; break;
    }
    r.rgb = mode == COLORMODE_RGB;
    r.planes = r.rgb ? 3 : 1;
    r.W = h.pixels;
    r.H = h.lines;
    const int64_t fileLen = r.file.size();
    if (fileLen < 0) return IMGERR_READFAILED;
    if (!il::imageBytes(r.W, r.H, r.planes) || h.headerLength > uint64_t(fileLen)) return IMGERR_BADFILE;
    r.dataLen = uint64_t(fileLen) - h.headerLength;
    const uint64_t px = uint64_t(r.W) * r.H;
    uint64_t minBytes;
    switch (h.dataType) {
        case 2: minBytes = px; break;
        case 28: minBytes = 3 * px; break;
        case 27: case 29: minBytes = uint64_t(r.H) * ((r.W + 127) / 128) * 2 * (r.dt == 27 ? 3 : 1); break;
        case 9: minBytes = uint64_t(r.H) * 2; break;
        default: minBytes = px / kMaxPixelsPerByte; break;
    }
    if (minBytes > r.dataLen) return IMGERR_BADFILE;

    std::memset(&info, 0, sizeof info);
    if (mode == COLORMODE_PALETTE256) {
        const int n = ingr_readColourTable(r.file, h, info.red, info.green, info.blue);
        if (n < 0) return n;
        info.colorCount = n;
    } else if (mode == COLORMODE_GREY) {
        for (int i = 0; i < 256; ++i) info.red[i] = info.green[i] = info.blue[i] = uint8_t(i);
        info.colorCount = 256;
    } else if (mode == COLORMODE_BILEVEL) {
        info.red[0] = info.green[0] = info.blue[0] = 255;
        info.colorCount = 2;
    }

    r.orient = Orientation(h.orientation);
    const uint32_t wu = r.orient.transposed ? r.H : r.W, hu = r.orient.transposed ? r.W : r.H;
    if (h.dataType == 65) {
        if (!r.file.seek(h.headerLength)) return IMGERR_BADFILE;
        if (int st = ingr_readTilePacket(r.packet, r.file, h.headerLength)) return st == IMGERR_NODATA ? IMGERR_BADFILE : st;
        if (r.packet.size() < 128) return IMGERR_BADFILE;
        r.tileSize = il::get32le(r.packet.get() + 120);
        if (r.tileSize == 0) return IMGERR_BADFILE;
        r.tileCols = (uint64_t(r.W) + r.tileSize - 1) / r.tileSize;
        r.tileRows = (uint64_t(r.H) + r.tileSize - 1) / r.tileSize;
        if (128 + 12 * r.tileCols * r.tileRows > r.packet.size()) return IMGERR_BADFILE;
        r.bw = int32_t(std::min(r.tileSize, wu));
        r.bh = int32_t(std::min(r.tileSize, hu));
        const uint64_t tileBytes = lineBytes(r, std::min(r.tileSize, r.W)) * uint64_t(std::min(r.tileSize, r.H));
        const uint64_t fit = std::max<uint64_t>(1, kTileCacheBytes / std::max<uint64_t>(1, tileBytes));
        try {
            r.cache.resize(size_t(std::min<uint64_t>(fit, 2 * r.tileCols + 2)));
        } catch (...) {
            return IMGERR_NOMEMORY;
        }
    } else {
        r.strip = uint32_t(std::clamp<uint64_t>(kStripBytes / lineBytes(r, r.W), 1, r.H));
        r.bw = int32_t(r.orient.transposed ? r.strip : wu);
        r.bh = int32_t(r.orient.transposed ? hu : r.strip);
    }

    info.size = ImageSize{int32_t(wu), int32_t(hu)};
    info.blockSize = ImageSize{r.bw, r.bh};
    info.bands = r.planes;
    info.colorMode = mode;
    info.dataType = h.dataType;
    info.tileDataType = h.tileDataType;
    info.orientation = h.orientation;
    info.deviceResolution = int16_t(il::get16le(h.raw + 192));
    info.colorTableType = int32_t(h.colourTableType);
    std::memcpy(info.matrix, h.matrix, sizeof info.matrix);
    const double* m = h.matrix;
    for (int i = 0; i < 16; ++i)
        if (m[i] != 0) info.hasGeoTransform = 1;
    if (info.hasGeoTransform) {
        const InputMap im = inputMap(r.orient, ingr_keepRegistration(h) != 0, wu, hu);
        double* g = info.geoTransform;
        for (int axis = 0; axis < 2; ++axis) {
            const double ma = m[4 * axis], mb = m[4 * axis + 1], mt = m[4 * axis + 3];
            g[3 * axis] = ma * im.t[0] + mb * im.t[1] + mt;
            g[3 * axis + 1] = ma * im.s[0][0] + mb * im.s[1][0];
            g[3 * axis + 2] = ma * im.s[0][1] + mb * im.s[1][1];
        }
    }
    return 0;
}

}  // namespace

extern "C" IngrBlockReader* korImage_openIngrBlocks(int* status, IngrRasterInfo* info, const char* path) noexcept {
    std::unique_ptr<IngrBlockReader> r(new (std::nothrow) IngrBlockReader);
    IngrRasterInfo local;
    int st = r ? (path ? openReader(*r, local, path) : IMGERR_BADARG) : IMGERR_NOMEMORY;
    if (status) *status = st;
    if (st) return nullptr;
    if (info) *info = local;
    return r.release();
}

extern "C" int korImage_readIngrBlock(IngrBlockReader* r, int column, int row, uint8_t* buffer) noexcept {
    if (!r || !buffer || column < 0 || row < 0) return IMGERR_BADARG;
    const uint32_t wu = r->orient.transposed ? r->H : r->W, hu = r->orient.transposed ? r->W : r->H;
    const uint64_t c0 = uint64_t(column) * uint32_t(r->bw), r0 = uint64_t(row) * uint32_t(r->bh);
    if (c0 >= wu || r0 >= hu) return IMGERR_BADARG;
    const uint32_t c1 = uint32_t(std::min<uint64_t>(wu, c0 + uint32_t(r->bw)));
    const uint32_t r1 = uint32_t(std::min<uint64_t>(hu, r0 + uint32_t(r->bh)));
    // The stored rectangle under the block: upright columns run along the
    // stored lines when transposed, flips count from the far side.
    const Orientation& o = r->orient;
    auto span = [](bool flip, uint32_t a, uint32_t b, uint32_t n, uint32_t* lo, uint32_t* hi) {
        *lo = flip ? n - b : a;
        *hi = flip ? n - a : b;
    };
    uint32_t p0, p1, l0, l1;
    if (!o.transposed) {
        span(o.flipU, uint32_t(c0), c1, r->W, &p0, &p1);
        span(o.flipV, uint32_t(r0), r1, r->H, &l0, &l1);
    } else {
        span(o.flipU, uint32_t(c0), c1, r->H, &l0, &l1);
        span(o.flipV, uint32_t(r0), r1, r->W, &p0, &p1);
    }
    if (int st = fetchStored(*r, p0, p1, l0, l1)) return st;
    const size_t plane = size_t(r->bw) * size_t(r->bh);
    std::memset(buffer, 0, plane * size_t(r->planes));
    const uint32_t w = p1 - p0;
    const size_t rowBytes = lineBytes(*r, w);
    const uint8_t* src = r->region.get();
    for (int p = 0; p < r->planes; ++p) {
        uint8_t* dst = buffer + plane * size_t(p);
        for (uint32_t y = uint32_t(r0); y < r1; ++y) {
            uint8_t* out = dst + size_t(r->bw) * (y - r0);
            if (!o.transposed && !o.flipU) {
                const uint32_t l = o.flipV ? r->H - 1 - y : y;
                std::memcpy(out, src + rowBytes * (l - l0) + size_t(p) * w, c1 - c0);
                continue;
            }
            for (uint32_t c = uint32_t(c0); c < c1; ++c) {
                uint32_t px, l;
                if (!o.transposed) {
                    px = o.flipU ? r->W - 1 - c : c;
                    l = o.flipV ? r->H - 1 - y : y;
                } else {
                    l = o.flipU ? r->H - 1 - c : c;
                    px = o.flipV ? r->W - 1 - y : y;
                }
                out[c - c0] = src[rowBytes * (l - l0) + size_t(p) * w + (px - p0)];
            }
        }
    }
    return 0;
}

extern "C" int korImage_closeIngrBlocks(IngrBlockReader* r) noexcept {
    delete r;
    return 0;
}

extern "C" int korImage_setIngrGeoTransform(const double* g, const char* path) noexcept {
    if (!g || !path) return IMGERR_BADARG;
    IngrHeader h;
    File f;
    const int st = ingr_readHeader(&h, f, path);
    if (st == IMGERR_OPENFAILED) return st;
    if (st) return IMGERR_BADFILE;
    f.close();
    const Orientation o(h.orientation);
    const double wu = o.transposed ? h.lines : h.pixels, hu = o.transposed ? h.pixels : h.lines;
    const InputMap im = inputMap(o, ingr_keepRegistration(h) != 0, wu, hu);
    // (col, row) = S^T ((a, b) - t): S is a signed permutation.
    double m[16] = {};
    for (int axis = 0; axis < 2; ++axis) {
        const double gc = g[3 * axis + 1], gr = g[3 * axis + 2];
        m[4 * axis] = gc * im.s[0][0] + gr * im.s[0][1];
        m[4 * axis + 1] = gc * im.s[1][0] + gr * im.s[1][1];
        const double colAtZero = -(im.s[0][0] * im.t[0] + im.s[1][0] * im.t[1]);
        const double rowAtZero = -(im.s[0][1] * im.t[0] + im.s[1][1] * im.t[1]);
        m[4 * axis + 3] = g[3 * axis] + gc * colAtZero + gr * rowAtZero;
    }
    m[10] = 1.0;
    m[15] = 1.0;
    File w = File::open(path, "r+b");
    if (!w.ok()) return IMGERR_OPENFAILED;
    uint8_t raw[1024];
    if (!w.read(raw, sizeof raw) || il::get16le(raw) != kHeaderCode) return IMGERR_BADFILE;
    for (int i = 0; i < 16; ++i) {
        uint64_t u;
        std::memcpy(&u, &m[i], 8);
        il::put32le(raw + 56 + 8 * i, uint32_t(u));
        il::put32le(raw + 60 + 8 * i, uint32_t(u >> 32));
    }
    if (raw[511] == 1) raw[511] = 3;  // grid version 1 holds VAX doubles
    if (!w.seek(0) || !w.write(raw, sizeof raw)) return IMGERR_WRITEFAILED;
    return w.close() ? 0 : IMGERR_WRITEFAILED;
}
