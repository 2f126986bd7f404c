// Intergraph rasters read by blocks: every coding and scan orientation gives
// the picture of the whole-image reader, and the geotransform agrees with the
// attach rules of the header matrix.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "codecs/intergraph/ccitt.h"
#include "codecs/intergraph/ingr.h"
#include "imagelib/geo.h"
#include "imagelib/host.h"
#include "imagelib/io.h"
#include "ingr_gen.h"
#include "test_support.h"

namespace {

using ingrgen::Bytes;

struct Whole {
    int status = 0;
    ImageSize size{};
    int rgb = 0;
    std::vector<uint8_t> planes;  // plane after plane, as the blocks give them
};

Whole readWhole(const std::string& path) {
    Whole w;
    void* img = nullptr;
    w.status = ingr_readImage(&img, &w.size, &w.rgb, nullptr, nullptr, nullptr, nullptr, nullptr, path.c_str(), nullptr);
    if (w.status) return w;
    const size_t n = size_t(w.size.x) * w.size.y, bands = w.rgb ? 3 : 1;
    const uint8_t* p = static_cast<uint8_t*>(img);
    w.planes.resize(n * bands);
    for (int y = 0; y < w.size.y; ++y)
        for (size_t b = 0; b < bands; ++b)
            std::copy_n(p + (size_t(y) * bands + b) * w.size.x, w.size.x, w.planes.begin() + b * n + size_t(y) * w.size.x);
    dlmSystem_korFree(img);
    return w;
}

// The picture assembled from its blocks, read last block first so that the
// sequential codings restart.
Whole readBlocks(const std::string& path, IngrRasterInfo* info) {
    Whole w;
    IngrBlockReader* r = korImage_openIngrBlocks(&w.status, info, path.c_str());
    if (!r) return w;
    w.size = info->size;
    w.rgb = info->bands == 3;
    const size_t n = size_t(w.size.x) * w.size.y, bw = size_t(info->blockSize.x), bh = size_t(info->blockSize.y);
    w.planes.assign(n * info->bands, 0xEE);
    std::vector<uint8_t> block(bw * bh * info->bands);
    const int cols = int((w.size.x + bw - 1) / bw), rows = int((w.size.y + bh - 1) / bh);
    for (int k = cols * rows - 1; k >= 0 && w.status == 0; --k) {
        const int c = k % cols, rr = k / cols;
        w.status = korImage_readIngrBlock(r, c, rr, block.data());
        for (int b = 0; b < info->bands; ++b)
            for (size_t y = 0; y < bh && rr * bh + y < size_t(w.size.y); ++y)
                for (size_t x = 0; x < bw && c * bw + x < size_t(w.size.x); ++x)
                    w.planes[b * n + (rr * bh + y) * w.size.x + c * bw + x] = block[b * bw * bh + y * bw + x];
    }
    EXPECT_EQ(korImage_readIngrBlock(r, cols, 0, block.data()), IMGERR_BADARG);
    korImage_closeIngrBlocks(r);
    return w;
}

std::vector<uint8_t> pattern(uint32_t w, uint32_t h, int salt, bool bilevel) {
    std::vector<uint8_t> p(size_t(w) * h);
    for (size_t i = 0; i < p.size(); ++i) {
        const size_t x = i % w, y = i / w;
        p[i] = bilevel ? uint8_t(((x / 3) ^ (y / 5) ^ salt) & 1) : uint8_t((x * 7 + y * 13 + salt * 31) & 0xFF);
    }
    return p;
}

Bytes concat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

struct BitsSource {
    const std::vector<uint8_t>* px;
    uint32_t stride, x0, y0, w;
    std::vector<uint8_t> row;
};
const uint8_t* bitsRow(void* u, int y, int*) {
    auto* s = static_cast<BitsSource*>(u);
    std::fill(s->row.begin(), s->row.end(), 0);
    for (uint32_t x = 0; x < s->w; ++x)
        if ((*s->px)[(s->y0 + uint32_t(y)) * s->stride + s->x0 + x]) s->row[x / 8] |= uint8_t(0x80 >> (x % 8));
    return s->row.data();
}

// One stored coding of a picture (tile payloads for tiled files).
Bytes code(int dt, const std::vector<uint8_t> planes[3], uint32_t stride, uint32_t x0, uint32_t y0, uint32_t w,
           uint32_t h) {
    Bytes out;
    if (dt == 24) {
        BitsSource src{&planes[0], stride, x0, y0, w, std::vector<uint8_t>((w + 7) / 8 + 1)};
        il::Scratch<uint8_t> g4;
        size_t len = 0;
        EXPECT_EQ(il::ccitt::encode(g4, &len, int(w), int(h), true, nullptr, bitsRow, &src), 0);
        return Bytes(g4.get(), g4.get() + len);
    }
    for (uint32_t y = 0; y < h; ++y) {
        const size_t at = size_t(y0 + y) * stride + x0;
        switch (dt) {
            case 2: out.insert(out.end(), planes[0].begin() + at, planes[0].begin() + at + w); break;
            case 28:
                for (uint32_t x = 0; x < w; ++x)
                    for (int p = 0; p < 3; ++p) out.push_back(planes[p][at + x]);
                break;
            case 29: ingrgen::atoms(out, planes[0].data() + at, w); break;
            case 27:
                for (int p = 0; p < 3; ++p) ingrgen::atoms(out, planes[p].data() + at, w);
                break;
            case 9: {
                const auto runs = ingrgen::runs(planes[0].data() + at, w);
                ingrgen::record(out, runs, int(y), 0);
                break;
            }
        }
    }
    return out;
}

// A stored w x h picture of coding dt, untiled or in tiles of t (one tile
// without data).
Bytes buildFile(int dt, uint32_t w, uint32_t h, uint32_t t, const std::vector<uint8_t> planes[3], bool palette) {
    ingrgen::Header s;
    s.pixels = w, s.lines = h;
    s.scannable = dt == 9;
    if (palette) {
        s.headerLength = 1536, s.tableType = 1, s.tableCount = 256;
        for (int i = 0; i < 768; ++i) s.table.push_back(uint8_t(i * 5));
    }
    if (!t) {
        s.dataType = dt;
        return concat(ingrgen::header(s), code(dt, planes, w, 0, 0, w, h));
    }
    s.dataType = 65;
    const uint32_t cols = (w + t - 1) / t, rows = (h + t - 1) / t;
    std::vector<uint32_t> entries(3 * cols * rows);
    Bytes payloads;
    const uint32_t dirBytes = 128 + 12 * cols * rows;
    for (uint32_t k = 0; k < cols * rows; ++k) {
        const uint32_t c = k % cols, r = k / cols;
        if (k == 1) {
            entries[3 * k + 2] = dt == 24 ? 1 : 0x405060;
            continue;
        }
        Bytes tile = code(dt, planes, w, c * t, r * t, std::min(t, w - c * t), std::min(t, h - r * t));
        entries[3 * k] = dirBytes + uint32_t(payloads.size());
        entries[3 * k + 1] = entries[3 * k + 2] = uint32_t(tile.size());
        payloads.insert(payloads.end(), tile.begin(), tile.end());
    }
    return concat(concat(ingrgen::header(s), ingrgen::tilePacket(dt, t, entries)), payloads);
}

TEST(IngrBlocks, EveryCodingAndOrientationGivesTheWholePicture) {
    struct Case {
        int dt;
        uint32_t tile;
        bool palette;
    };
    // Untiled pictures are wide enough to take several strips.
    const Case cases[] = {{2, 0, false}, {2, 0, true}, {29, 0, false}, {27, 0, false}, {28, 0, false},
                          {9, 0, false}, {24, 0, false}, {24, 64, false}, {2, 64, true}, {28, 64, false},
                          {29, 64, false}, {27, 64, false}};
    iltest::TempDir dir;
    for (const Case& c : cases) {
        const bool bilevel = c.dt == 9 || c.dt == 24;
        const uint32_t w = c.tile ? 150 : 3000, h = c.tile ? 130 : 190;
        const std::vector<uint8_t> planes[3] = {pattern(w, h, 1, bilevel), pattern(w, h, 2, bilevel),
                                                pattern(w, h, 3, bilevel)};
        Bytes file = buildFile(c.dt, w, h, c.tile, planes, c.palette);
        for (int o : {4, 0, 1, 2, 3, 5, 6, 7, 9}) {
            SCOPED_TRACE("data type " + std::to_string(c.dt) + " tile " + std::to_string(c.tile) + " orientation " +
                         std::to_string(o));
            file[194] = uint8_t(o);
            const std::string path = dir.file("b.int");
            ASSERT_TRUE(iltest::writeFile(path, file));
            const Whole whole = readWhole(path);
            ASSERT_EQ(whole.status, 0);
            IngrRasterInfo info{};
            const Whole blocks = readBlocks(path, &info);
            ASSERT_EQ(blocks.status, 0);
            EXPECT_EQ(blocks.size.x, whole.size.x);
            EXPECT_EQ(blocks.size.y, whole.size.y);
            EXPECT_EQ(blocks.rgb, whole.rgb);
            ASSERT_TRUE(blocks.planes == whole.planes);
            EXPECT_EQ(info.colorMode, bilevel ? COLORMODE_BILEVEL
                                      : (c.dt == 27 || c.dt == 28) ? COLORMODE_RGB
                                      : c.palette ? COLORMODE_PALETTE256 : COLORMODE_GREY);
            if (c.palette) {
                EXPECT_EQ(info.green[7], uint8_t(22 * 5));
            }
            if (c.tile && (o == 4 || o == 9)) {
                EXPECT_EQ(info.blockSize.x, int(c.tile));
            }
        }
    }
}

TEST(IngrBlocks, DamagedDataGiveBadFile) {
    iltest::TempDir dir;
    const std::string path = dir.file("d.int");
    const std::vector<uint8_t> planes[3] = {pattern(100, 90, 0, true), {}, {}};
    // Run-length atoms cut short: the file opens (the header is sound) but
    // its block does not decode.
    Bytes atoms = buildFile(29, 100, 90, 0, planes, false);
    atoms.resize(atoms.size() - 5);
    ASSERT_TRUE(iltest::writeFile(path, atoms));
    IngrRasterInfo info{};
    int st = 0;
    IngrBlockReader* r = korImage_openIngrBlocks(&st, &info, path.c_str());
    ASSERT_NE(r, nullptr);
    std::vector<uint8_t> block(size_t(info.blockSize.x) * info.blockSize.y);
    EXPECT_EQ(korImage_readIngrBlock(r, 0, (info.size.y - 1) / info.blockSize.y, block.data()), IMGERR_BADFILE);
    korImage_closeIngrBlocks(r);
    // A header claiming a huge picture over a few bytes is refused at open.
    Bytes big = buildFile(2, 4, 4, 0, planes, false);
    il::put32le(&big[184], 1u << 30);
    il::put32le(&big[188], 1u << 20);
    ASSERT_TRUE(iltest::writeFile(path, big));
    EXPECT_EQ(korImage_openIngrBlocks(&st, &info, path.c_str()), nullptr);
    EXPECT_EQ(st, IMGERR_BADFILE);
    // Run-length tiles are not read, by blocks as by the whole-image reader.
    Bytes rleTiles = buildFile(24, 100, 90, 64, planes, false);
    il::put16le(&rleTiles[1024 + 18], 9);
    ASSERT_TRUE(iltest::writeFile(path, rleTiles));
    EXPECT_EQ(korImage_openIngrBlocks(&st, &info, path.c_str()), nullptr);
    EXPECT_EQ(st, IMGERR_BADFORMAT);
}

// The geotransform follows the header matrix as the attach update writes it
// (origin and extent), for grey (upright matrix) and binary (stored matrix)
// files in every orientation, and the geotransform setter writes a matrix
// that reads back as what was set.
TEST(IngrBlocks, GeoTransformAgreesWithTheAttachRules) {
    iltest::TempDir dir;
    const std::string path = dir.file("g.int");
    const uint32_t w = 40, h = 25;
    for (bool binary : {false, true}) {
        const std::vector<uint8_t> planes[3] = {pattern(w, h, 0, binary), {}, {}};
        Bytes file = buildFile(binary ? 24 : 2, w, h, 0, planes, false);
        for (int o = 0; o < 8; ++o) {
            SCOPED_TRACE(std::string(binary ? "binary" : "grey") + " orientation " + std::to_string(o));
            file[194] = uint8_t(o);
            ASSERT_TRUE(iltest::writeFile(path, file));
            const double origin[3] = {1000.5, 2000.25, 0}, extent[2] = {80, 75};
            ASSERT_EQ(korImage_updateIngrAttach(origin, extent, path.c_str()), 0);
            IngrRasterInfo info{};
            int st = 0;
            korImage_closeIngrBlocks(korImage_openIngrBlocks(&st, &info, path.c_str()));
            ASSERT_EQ(st, 0);
            ASSERT_EQ(info.hasGeoTransform, 1);
            const double* g = info.geoTransform;
            const double expect[6] = {origin[0], extent[0] / info.size.x, 0, origin[1] + extent[1], 0,
                                      -extent[1] / info.size.y};
            for (int i = 0; i < 6; ++i) EXPECT_NEAR(g[i], expect[i], 1e-9) << i;
            // The attach reader finds the lower-left corner of the same picture.
            double o2[3], e2[2];
            int orient = 0;
            ASSERT_EQ(korImage_extractIngrAttach(o2, e2, &orient, path.c_str()), 0);
            EXPECT_NEAR(o2[0], g[0] + g[2] * info.size.y, 1e-9);
            EXPECT_NEAR(o2[1], g[3] + g[5] * info.size.y, 1e-9);

            const double rotated[6] = {500000.125, 0.5, 0.25, 4100000.75, -0.125, -0.5};
            ASSERT_EQ(korImage_setIngrGeoTransform(rotated, path.c_str()), 0);
            korImage_closeIngrBlocks(korImage_openIngrBlocks(&st, &info, path.c_str()));
            for (int i = 0; i < 6; ++i) {
                if (o == 4) {
                    EXPECT_EQ(info.geoTransform[i], rotated[i]) << i;
                } else {
                    EXPECT_NEAR(info.geoTransform[i], rotated[i], 1e-7) << i;
                }
            }
        }
    }
}

}  // namespace
