// Intergraph raster decoders: hand-built files of every data type decode to
// the picture they were built from.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "codecs/intergraph/ccitt.h"
#include "codecs/intergraph/ingr.h"
#include "imagelib/geo.h"
#include "imagelib/host.h"
#include "ingr_gen.h"
#include "internal/bytes.h"
#include "test_support.h"

namespace {

using ingrgen::Bytes;

struct Read {
    int status = 0;
    ImageSize size{};
    int rgb = 0, count = 0, mode = 0;
    uint8_t r[256] = {}, g[256] = {}, b[256] = {};
    std::vector<uint8_t> pixels;  // byte map, or row-planar RGB
};

Read readBytes(const Bytes& file) {
    iltest::TempDir dir;
    const std::string path = dir.file("t.int");
    iltest::writeFile(path, file);
    Read out;
    void* img = nullptr;
    out.status = ingr_readImage(&img, &out.size, &out.rgb, out.r, out.g, out.b, &out.count, &out.mode, path.c_str(),
                                nullptr);
    if (out.status == 0) {
        const size_t n = size_t(out.size.x) * out.size.y * (out.rgb ? 3 : 1);
        out.pixels.assign(static_cast<uint8_t*>(img), static_cast<uint8_t*>(img) + n);
        dlmSystem_korFree(img);
    }
    return out;
}

Bytes concat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// A w x h picture of bytes with a pattern that shows misplaced pixels.
std::vector<uint8_t> pattern(uint32_t w, uint32_t h, int salt = 0) {
    std::vector<uint8_t> p(size_t(w) * h);
    for (size_t i = 0; i < p.size(); ++i) p[i] = uint8_t((i * 7 + salt + (i / w) * 13) & 0xFF);
    return p;
}

// Row-planar RGB of three byte planes (w x h each, one after another).
std::vector<uint8_t> planar(const std::vector<uint8_t>& r, const std::vector<uint8_t>& g,
                            const std::vector<uint8_t>& b, uint32_t w, uint32_t h) {
    std::vector<uint8_t> out;
    for (uint32_t y = 0; y < h; ++y)
        for (const auto* p : {&r, &g, &b}) out.insert(out.end(), p->begin() + y * w, p->begin() + (y + 1) * w);
    return out;
}

TEST(IngrDecode, EightBitGreyAndPaletteWithAnyHeaderLength) {
    const uint32_t w = 5, h = 3;  // odd width: no padding between lines
    const auto px = pattern(w, h);
    for (uint32_t len : {1024u, 1536u, 8192u}) {
        ingrgen::Header s;
        s.pixels = w, s.lines = h, s.headerLength = len, s.filler = 0xA5;
        Read grey = readBytes(concat(ingrgen::header(s), px));
        ASSERT_EQ(grey.status, 0) << len;
        EXPECT_EQ(grey.mode, COLORMODE_GREY);
        EXPECT_EQ(grey.pixels, px);
        EXPECT_EQ(grey.r[200], 200);
        if (len < 1536) continue;
        s.tableType = 1, s.tableCount = 3, s.table = {10, 20, 30, 40, 50, 60, 70, 80, 90};
        Read pal = readBytes(concat(ingrgen::header(s), px));
        ASSERT_EQ(pal.status, 0);
        EXPECT_EQ(pal.mode, COLORMODE_PALETTE256);
        EXPECT_EQ(pal.count, 3);
        EXPECT_EQ(pal.pixels, px);
        EXPECT_EQ(pal.r[1], 40);
        EXPECT_EQ(pal.b[2], 90);
        EXPECT_EQ(pal.g[3], 0);  // entries past the count stay black
    }
}

TEST(IngrDecode, TypeTwoColourTableByItsSlots) {
    ingrgen::Header s;
    s.pixels = 2, s.lines = 1, s.headerLength = 1536, s.tableType = 2, s.tableCount = 2;
    Bytes t;
    for (uint32_t v : {5u, 0xFF00u, 0x1100u, 0x2200u, 0u, 0x8000u, 0u, 0xFFFFu}) ingrgen::word(t, v);
    s.table = t;
    Read r = readBytes(concat(ingrgen::header(s), Bytes{5, 0}));
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.count, 6);
    EXPECT_EQ(r.r[5], 0xFF);
    EXPECT_EQ(r.g[5], 0x11);
    EXPECT_EQ(r.r[0], 0x80);
    EXPECT_EQ(r.b[0], 0xFF);
}

TEST(IngrDecode, RGBRawAndRunLengthAgree) {
    const uint32_t w = 300, h = 3;
    auto red = pattern(w, h, 1), green = pattern(w, h, 2), blue = pattern(w, h, 3);
    std::fill(red.begin(), red.begin() + 200, 7);  // repeats past 128 in one plane
    std::fill(green.begin() + 300, green.begin() + 600, 9);
    const auto want = planar(red, green, blue, w, h);

    ingrgen::Header s;
    s.dataType = 28, s.pixels = w, s.lines = h;
    Bytes raw;
    for (size_t i = 0; i < red.size(); ++i) raw.push_back(red[i]), raw.push_back(green[i]), raw.push_back(blue[i]);
    Read r28 = readBytes(concat(ingrgen::header(s), raw));
    ASSERT_EQ(r28.status, 0);
    EXPECT_TRUE(r28.rgb);
    EXPECT_EQ(r28.pixels, want);

    for (int scannable : {0, 1}) {
        s.dataType = 27, s.scannable = scannable;
        Bytes data;
        for (uint32_t y = 0; y < h; ++y) {
            Bytes line;
            for (const auto* p : {&red, &green, &blue}) ingrgen::atoms(line, p->data() + y * w, w);
            if (scannable) {
                if (line.size() % 2) line.push_back(0);  // pad byte
                ingrgen::word(data, 0x5900);
                ingrgen::word(data, uint32_t(line.size() / 2 + 2));
                ingrgen::word(data, y);
                ingrgen::word(data, 0);
            }
            data.insert(data.end(), line.begin(), line.end());
        }
        Read r27 = readBytes(concat(ingrgen::header(s), data));
        ASSERT_EQ(r27.status, 0) << scannable;
        EXPECT_EQ(r27.pixels, want) << scannable;
    }
}

TEST(IngrDecode, EightBitRunLengthEqualsRaw) {
    const uint32_t w = 260, h = 2;
    auto px = pattern(w, h);
    std::fill(px.begin() + 10, px.begin() + 140, 3);
    ingrgen::Header s;
    s.dataType = 29, s.pixels = w, s.lines = h;
    Bytes data;
    for (uint32_t y = 0; y < h; ++y) ingrgen::atoms(data, px.data() + y * w, w);
    Read r = readBytes(concat(ingrgen::header(s), data));
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.mode, COLORMODE_GREY);
    EXPECT_EQ(r.pixels, px);
    // An atom that runs past its line is refused, not trusted.
    data = {uint8_t(-128), 1, uint8_t(-128), 1, uint8_t(-10), 1};
    s.lines = 1, s.pixels = 260;
    EXPECT_EQ(readBytes(concat(ingrgen::header(s), data)).status, IMGERR_BADFILE);
}

TEST(IngrDecode, BinaryRunsWithAndWithoutLineRecords) {
    const uint32_t w = 70000, h = 3;  // runs past 32767 and 65535
    std::vector<uint8_t> px(size_t(w) * h, 0);
    std::fill(px.begin(), px.begin() + 40000, 1);          // line 0 starts set
    std::fill(px.begin() + w + 5, px.begin() + 2 * w, 1);  // line 1 ends set
    for (uint32_t x = 0; x < w; x += 2) px[2 * size_t(w) + x] = 1;  // line 2: many runs
    ingrgen::Header s;
    s.dataType = 9, s.pixels = w, s.lines = h;

    Bytes plain;  // long runs split as 32767, 0, rest; closing 0 after a set end
    for (uint32_t y = 0; y < h; ++y) {
        auto r = ingrgen::runs(px.data() + size_t(y) * w, w);
        for (uint32_t v : r) {
            if (v > 32767) {
                ingrgen::word(plain, 32767), ingrgen::word(plain, 0), ingrgen::word(plain, v - 32767);
            } else {
                ingrgen::word(plain, v);
            }
        }
        if (r.size() % 2 == 0) ingrgen::word(plain, 0);
    }
    Read a = readBytes(concat(ingrgen::header(s), plain));
    ASSERT_EQ(a.status, 0);
    EXPECT_EQ(a.mode, COLORMODE_BILEVEL);
    EXPECT_EQ(a.pixels, px);
    EXPECT_EQ(a.r[0], 255);  // 0 is white
    EXPECT_EQ(a.r[1], 0);

    s.scannable = 1;  // records, line 2 split over several of them
    Bytes rec;
    for (uint32_t y = 0; y < h; ++y) {
        std::vector<uint32_t> r;
        for (uint32_t v : ingrgen::runs(px.data() + size_t(y) * w, w)) {
            if (v > 32767) r.insert(r.end(), {32767, 0, v - 32767});
            else r.push_back(v);
        }
        uint32_t offset = 0;
        for (size_t i = 0; i < r.size(); i += 762) {
            std::vector<uint32_t> part(r.begin() + i, r.begin() + std::min(r.size(), i + 762));
            ingrgen::record(rec, part, int(y), offset);
            for (uint32_t v : part) offset += v;
        }
    }
    Read b = readBytes(concat(ingrgen::header(s), rec));
    ASSERT_EQ(b.status, 0);
    ASSERT_EQ(b.pixels.size(), px.size());
    EXPECT_EQ(std::mismatch(b.pixels.begin(), b.pixels.end(), px.begin()).first - b.pixels.begin(),
              std::ptrdiff_t(px.size()));
}

// Tiled files over the byte-coded types: 10 x 7 pixels in tiles of 4 (edge
// tiles clipped), stored out of order, one tile without data.
TEST(IngrDecode, TiledFilesWithClippedEmptyAndReorderedTiles) {
    const uint32_t w = 10, h = 7, t = 4, cols = 3, rows = 2;
    for (int tileType : {2, 28, 27, 29}) {
        const bool rgb = tileType == 27 || tileType == 28;
        std::vector<uint8_t> planes[3] = {pattern(w, h, 1), pattern(w, h, 2), pattern(w, h, 3)};
        const uint32_t emptyTile = 4;  // row 1, column 1: filled from its used word
        const uint32_t fill = 0x112233;
        Bytes payloads;
        std::vector<uint32_t> entries(3 * cols * rows);
        const uint32_t dirBytes = 128 + 12 * cols * rows;
        for (int k = int(cols * rows) - 1; k >= 0; --k) {  // stored last tile first
            const uint32_t c = uint32_t(k) % cols, r = uint32_t(k) / cols;
            const uint32_t tw = std::min(t, w - c * t), th = std::min(t, h - r * t);
            if (uint32_t(k) == emptyTile) {
                entries[3 * k + 2] = fill;
                for (uint32_t y = 0; y < th; ++y)
                    for (int p = 0; p < 3; ++p)
                        for (uint32_t x = 0; x < tw; ++x)
                            planes[p][(r * t + y) * w + c * t + x] =
                                rgb ? uint8_t(fill >> (16 - 8 * p)) : uint8_t(fill);
                continue;
            }
            Bytes tile;
            for (uint32_t y = 0; y < th; ++y) {
                const size_t at = (r * t + y) * w + c * t;
                if (tileType == 2) tile.insert(tile.end(), planes[0].begin() + at, planes[0].begin() + at + tw);
                if (tileType == 28)
                    for (uint32_t x = 0; x < tw; ++x)
                        for (int p = 0; p < 3; ++p) tile.push_back(planes[p][at + x]);
                if (tileType == 29) ingrgen::atoms(tile, planes[0].data() + at, tw);
                if (tileType == 27)
                    for (int p = 0; p < 3; ++p) ingrgen::atoms(tile, planes[p].data() + at, tw);
            }
            entries[3 * k] = dirBytes + uint32_t(payloads.size());
            entries[3 * k + 1] = uint32_t(tile.size());
            entries[3 * k + 2] = uint32_t(tile.size());
            payloads.insert(payloads.end(), tile.begin(), tile.end());
        }
        ingrgen::Header s;
        s.dataType = 65, s.pixels = w, s.lines = h;
        Bytes file = concat(concat(ingrgen::header(s), ingrgen::tilePacket(tileType, t, entries)), payloads);
        Read got = readBytes(file);
        ASSERT_EQ(got.status, 0) << tileType;
        EXPECT_EQ(got.pixels, rgb ? planar(planes[0], planes[1], planes[2], w, h) : planes[0]) << tileType;
        // A tile that points past the end of the file is a bad file.
        il::put32le(&file[1024 + 128], uint32_t(file.size()));
        EXPECT_EQ(readBytes(file).status, IMGERR_BADFILE) << tileType;
    }
}

TEST(IngrDecode, ScanOrientationsTurnedUpright) {
    // Stored: 3 pixels a line, 2 lines.
    const Bytes stored = {1, 2, 3, 4, 5, 6};
    struct Case {
        int orientation;
        ImageSize size;
        Bytes upright;
    };
    const Case cases[] = {
        {4, {3, 2}, {1, 2, 3, 4, 5, 6}},
        {5, {3, 2}, {3, 2, 1, 6, 5, 4}},
        {6, {3, 2}, {4, 5, 6, 1, 2, 3}},
        {7, {3, 2}, {6, 5, 4, 3, 2, 1}},
        {0, {2, 3}, {1, 4, 2, 5, 3, 6}},  // line k is column k, pixels run down
        {2, {2, 3}, {3, 6, 2, 5, 1, 4}},  // pixels run up
    };
    for (const Case& c : cases) {
        ingrgen::Header s;
        s.pixels = 3, s.lines = 2, s.orientation = c.orientation;
        Read r = readBytes(concat(ingrgen::header(s), stored));
        ASSERT_EQ(r.status, 0) << c.orientation;
        EXPECT_EQ(r.size.x, c.size.x) << c.orientation;
        EXPECT_EQ(r.size.y, c.size.y) << c.orientation;
        EXPECT_EQ(r.pixels, c.upright) << c.orientation;
    }
}

TEST(IngrHeader, TypesFromTheHeader) {
    iltest::TempDir dir;
    const std::string path = dir.file("h.cot");
    ingrgen::Header s;
    s.pixels = 4, s.lines = 2;
    Bytes f = concat(ingrgen::header(s), Bytes(8, 0));
    iltest::writeFile(path, f);
    int mode = 0, resolved = 0;
    ASSERT_EQ(ingr_readHeaderInfo(nullptr, &mode, nullptr, nullptr, &resolved, path.c_str()), 0);
    EXPECT_EQ(mode, COLORMODE_GREY);
    EXPECT_EQ(resolved, 17);
    il::put16le(&f[532], 1);  // colour table type 1: palette
    iltest::writeFile(path, f);
    ASSERT_EQ(ingr_readHeaderInfo(nullptr, &mode, nullptr, nullptr, nullptr, path.c_str()), 0);
    EXPECT_EQ(mode, COLORMODE_PALETTE256);
    EXPECT_EQ(ingr_detect(path.c_str(), 17), 0);
    EXPECT_EQ(ingr_detect(path.c_str(), 23), 0);
    EXPECT_EQ(ingr_detect(path.c_str(), 19), IMGERR_UNSUPPORTEDTYPE);

    f[0] = 0x09, f[1] = 0x08;  // byte-swapped header code
    iltest::writeFile(path, f);
    EXPECT_EQ(ingr_detect(path.c_str(), 17), IMGERR_UNSUPPORTEDTYPE);
    EXPECT_EQ(ingr_readHeaderInfo(nullptr, nullptr, nullptr, nullptr, nullptr, path.c_str()),
              IMGERR_UNSUPPORTEDTYPE);

    // Tiles of binary run-length data: no type, unsupported, yet binary.
    s.dataType = 65;
    Bytes tiled = concat(ingrgen::header(s), ingrgen::tilePacket(9, 512, {0, 0, 0}));
    iltest::writeFile(path, tiled);
    EXPECT_EQ(ingr_typeFromDataType(65, 9), -1);
    EXPECT_EQ(ingr_detect(path.c_str(), 23), IMGERR_UNSUPPORTEDTYPE);
    EXPECT_EQ(ingr_readHeaderInfo(nullptr, nullptr, nullptr, nullptr, nullptr, path.c_str()),
              IMGERR_UNSUPPORTEDTYPE);
    EXPECT_EQ(readBytes(tiled).status, IMGERR_BADFORMAT);
}

TEST(IngrDecode, HeaderClaimingMorePixelsThanTheFileHolds) {
    for (int dt : {2, 9, 24, 27, 28, 29}) {
        ingrgen::Header s;
        s.dataType = dt, s.pixels = 1u << 20, s.lines = 1u << 11;
        EXPECT_EQ(readBytes(concat(ingrgen::header(s), Bytes(100, 0))).status, IMGERR_BADFILE) << dt;
    }
}

}  // namespace

namespace {

double matrixAt(const Bytes& f, int i) {
    double d;
    std::memcpy(&d, &f[56 + 8 * i], 8);
    return d;
}

TEST(IngrAttach, KeepRegistrationAndOrientation) {
    iltest::TempDir dir;
    const std::string path = dir.file("g.rgb");
    ingrgen::Header s;
    s.dataType = 28, s.pixels = 10, s.lines = 20, s.orientation = 5;
    Bytes f = concat(ingrgen::header(s), Bytes(600, 0));
    const double m[16] = {2, 0, 0, 100, 0, 3, 0, 200, 0, 0, 1, 5, 0, 0, 0, 1};
    std::memcpy(&f[56], m, sizeof m);
    iltest::writeFile(path, f);
    double origin[3], extent[2];
    int orientation = 0;
    ::unsetenv("KV_KEEP_REGISTRATION");
    ASSERT_EQ(korImage_extractIngrAttach(origin, extent, &orientation, path.c_str()), 0);
    EXPECT_EQ(orientation, 5);
    EXPECT_DOUBLE_EQ(origin[0], 80);   // corner (-w, -h)
    EXPECT_DOUBLE_EQ(origin[1], 140);
    EXPECT_DOUBLE_EQ(origin[2], 5);
    EXPECT_DOUBLE_EQ(extent[0], 20);
    EXPECT_DOUBLE_EQ(extent[1], 60);
    ::setenv("KV_KEEP_REGISTRATION", "1", 1);  // as for a binary file: corner (w, -h)
    ASSERT_EQ(korImage_extractIngrAttach(origin, extent, &orientation, path.c_str()), 0);
    EXPECT_DOUBLE_EQ(origin[0], 120);
    ::unsetenv("KV_KEEP_REGISTRATION");

    // A binary file of orientation 8: only the translation and the unit
    // entries are written.
    s.dataType = 9, s.orientation = 8;
    f = concat(ingrgen::header(s), Bytes(8, 0));
    std::memcpy(&f[56], m, sizeof m);
    iltest::writeFile(path, f);
    const double o[3] = {7, 8, 9}, e[2] = {30, 40};
    ASSERT_EQ(korImage_updateIngrAttach(o, e, path.c_str()), 0);
    f = iltest::readFile(path);
    for (int i = 0; i < 16; ++i) {
        const double want = i == 3 ? 7 : i == 7 ? 8 : i == 11 ? 9 : (i == 10 || i == 15) ? 1 : 0;
        EXPECT_DOUBLE_EQ(matrixAt(f, i), want) << i;
    }
    // Orientation 4, binary: scales from the extent, origin at the top.
    f[194] = 4;
    iltest::writeFile(path, f);
    ASSERT_EQ(korImage_updateIngrAttach(o, e, path.c_str()), 0);
    ASSERT_EQ(korImage_extractIngrAttach(origin, extent, nullptr, path.c_str()), 0);
    EXPECT_DOUBLE_EQ(extent[0], 30);
    EXPECT_DOUBLE_EQ(extent[1], 40);
    EXPECT_DOUBLE_EQ(origin[0], 7);
    EXPECT_DOUBLE_EQ(origin[1], 8);

    f[0] = 0x09, f[1] = 0x08;
    iltest::writeFile(path, f);
    EXPECT_EQ(korImage_updateIngrAttach(o, e, path.c_str()), IMGERR_BADFILE);
    orientation = 2;
    EXPECT_EQ(korImage_extractIngrAttach(origin, extent, &orientation, path.c_str()), IMGERR_NODATA);
    EXPECT_EQ(orientation, 6);
}

}  // namespace

namespace {

TEST(IngrAttach, ReferenceNamesAlongTheSearchPath) {
    iltest::TempDir dir;
    iltest::writeFile(dir.file("ref.cit"), Bytes{1});
    ::setenv("KV_RFDIR", dir.path().c_str(), 1);
    char out[IMAGELIB_PATH_MAX];
    ASSERT_EQ(ingr_findReferenceFile(out, "ref.cit"), 0);
    EXPECT_EQ(std::string(out), dir.file("ref.cit"));
    EXPECT_EQ(ingr_findReferenceFile(out, "missing.cit"), IMGERR_NOTFOUND);
    ASSERT_EQ(ingr_findReferenceFile(out, "http://host/a.cit"), 0);
    EXPECT_EQ(std::string(out), "http://host/a.cit");
    ::unsetenv("KV_RFDIR");
}

}  // namespace

namespace {

struct BitsSource {
    const std::vector<uint8_t>* px;
    uint32_t stride, x0, y0, w;
    std::vector<uint8_t> row;
};
const uint8_t* tileRow(void* u, int y, int*) {
    auto* s = static_cast<BitsSource*>(u);
    std::fill(s->row.begin(), s->row.end(), 0);
    for (uint32_t x = 0; x < s->w; ++x)
        if ((*s->px)[(s->y0 + uint32_t(y)) * s->stride + s->x0 + x]) s->row[x / 8] |= uint8_t(0x80 >> (x % 8));
    return s->row.data();
}

Bytes g4(const std::vector<uint8_t>& px, uint32_t stride, uint32_t x0, uint32_t y0, uint32_t w, uint32_t h,
         bool lsbFirst = true) {
    BitsSource src{&px, stride, x0, y0, w, std::vector<uint8_t>((w + 7) / 8 + 1)};
    il::Scratch<uint8_t> out;
    size_t len = 0;
    EXPECT_EQ(il::ccitt::encode(out, &len, int(w), int(h), lsbFirst, nullptr, tileRow, &src), 0);
    return Bytes(out.get(), out.get() + len);
}

TEST(IngrDecode, GroupFourUntiledAndTiled) {
    const uint32_t w = 20, h = 13, t = 8, cols = 3, rows = 2;
    std::vector<uint8_t> px(w * h);
    for (uint32_t i = 0; i < px.size(); ++i) px[i] = ((i % w) * 3 + (i / w) * 5) % 7 < 3;
    ingrgen::Header s;
    s.dataType = 24, s.pixels = w, s.lines = h, s.headerLength = 1536;
    Read whole = readBytes(concat(ingrgen::header(s), g4(px, w, 0, 0, w, h)));
    ASSERT_EQ(whole.status, 0);
    EXPECT_EQ(whole.pixels, px);
    EXPECT_EQ(whole.mode, COLORMODE_BILEVEL);
    // The stream is least significant bit first: the other order does not decode.
    EXPECT_NE(readBytes(concat(ingrgen::header(s), g4(px, w, 0, 0, w, h, false))).pixels, px);

    std::vector<uint32_t> entries(3 * cols * rows);
    Bytes payloads;
    const uint32_t dirBytes = 128 + 12 * cols * rows;
    for (int k = int(cols * rows) - 1; k >= 0; --k) {
        const uint32_t c = uint32_t(k) % cols, r = uint32_t(k) / cols;
        const uint32_t tw = std::min(t, w - c * t), th = std::min(t, h - r * t);
        if (k == 1) {  // no data: filled with ink
            entries[3 * k + 2] = 1;
            for (uint32_t y = 0; y < th; ++y)
                for (uint32_t x = 0; x < tw; ++x) px[(r * t + y) * w + c * t + x] = 1;
            continue;
        }
        Bytes tile = g4(px, w, c * t, r * t, tw, th);
        tile.insert(tile.end(), 3, 0);  // padding after the end of the stream
        entries[3 * k] = dirBytes + uint32_t(payloads.size());
        entries[3 * k + 1] = uint32_t(tile.size()) + 20;
        entries[3 * k + 2] = uint32_t(tile.size());
        payloads.insert(payloads.end(), tile.begin(), tile.end());
    }
    s.dataType = 65, s.headerLength = 1024;
    Bytes file = concat(concat(ingrgen::header(s), ingrgen::tilePacket(24, t, entries)), payloads);
    Read tiled = readBytes(file);
    ASSERT_EQ(tiled.status, 0);
    EXPECT_EQ(tiled.pixels, px);
    // A tile cut short does not decode.
    il::put32le(&file[1024 + 128 + 8], 2);
    EXPECT_EQ(readBytes(file).status, IMGERR_BADFILE);
}

}  // namespace
