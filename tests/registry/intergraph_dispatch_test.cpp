// Intergraph rasters through the read dispatch and the streaming rows.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "../codecs/intergraph/ingr_gen.h"
#include "imagelib/geo.h"
#include "imagelib/host.h"
#include "imagelib/io.h"
#include "imagelib/registry.h"
#include "test_support.h"

namespace {

using ingrgen::Bytes;

Bytes file(const ingrgen::Header& s, const Bytes& data) {
    Bytes f = ingrgen::header(s);
    f.insert(f.end(), data.begin(), data.end());
    return f;
}

TEST(IngrDispatch, TypesResolvedFromTheHeaderWhateverTheName) {
    iltest::TempDir dir;
    ingrgen::Header s;
    s.dataType = 28, s.pixels = 2, s.lines = 1;
    const std::string path = dir.file("picture.cot");  // named as 8-bit, holds RGB
    iltest::writeFile(path, file(s, {10, 20, 30, 40, 50, 60}));
    EXPECT_EQ(korImage_typeFromFile(path.c_str()), 16);
    EXPECT_EQ(korImage_typeFromExtension(path.c_str()), 1);
    ImageFileInfo info{};
    ASSERT_EQ(korImage_readFileInfoEx(&info, path.c_str()), 0);
    EXPECT_EQ(info.type, 1);
    EXPECT_EQ(info.colorMode, COLORMODE_RGB);
    uint8_t* rgb = nullptr;
    ImageSize size{};
    ASSERT_EQ(korImage_readFileToRGB(&rgb, &size, path.c_str(), -1, nullptr, nullptr), 0);
    const uint8_t want[] = {10, 40, 20, 50, 30, 60};
    EXPECT_EQ(std::memcmp(rgb, want, 6), 0);
    dlmSystem_korFree(rgb);

    // A 9 file read as a bitmap and as a palette image.
    s.dataType = 9, s.pixels = 10, s.lines = 1;
    Bytes runs;
    for (uint32_t r : {2u, 3u, 5u}) ingrgen::word(runs, r);
    const std::string rle = dir.file("b.rle");
    iltest::writeFile(rle, file(s, runs));
    void* bits = nullptr;
    ASSERT_EQ(korImage_readFileToBitMap(&bits, &size, rle.c_str(), -1, 0, nullptr), 0);
    EXPECT_EQ(static_cast<uint8_t*>(bits)[0], 0x38);
    dlmSystem_korFree(bits);
    uint8_t** rows = nullptr;
    uint8_t r[256], g[256], b[256];
    int count = 0;
    ASSERT_EQ(korImage_readFileToMap(&rows, &size, r, g, b, &count, rle.c_str(), -1, nullptr, nullptr), 0);
    EXPECT_EQ(count, 2);
    korImage_freeImage(rows, &size, IMAGEFORMAT_PACKBYTE);
}

TEST(IngrDispatch, RGBStreamingWriterIsTheDefaultAndReadsBack) {
    iltest::TempDir dir;
    const std::string path = dir.file("out.xyz");
    const ImageSize size{3, 2};
    int st = -1;
    ImageFileContext* ctx = korImage_createFile(&st, path.c_str(), nullptr, &size, -1, COLORMODE_RGB);
    ASSERT_NE(ctx, nullptr);
    ASSERT_EQ(st, 0);
    uint8_t row[9];
    for (int y = 0; y < 2; ++y) {
        for (int i = 0; i < 9; ++i) row[i] = uint8_t(10 * y + i);
        ASSERT_EQ(korImage_putRow(ctx, row, row + 3, row + 6, nullptr), 0);
    }
    korImage_closeFile(ctx);
    const Bytes f = iltest::readFile(path);
    ASSERT_EQ(f.size(), 1024u + 18);
    EXPECT_EQ(f[4], 28);
    ctx = korImage_openFile(&st, nullptr, path.c_str());
    ASSERT_NE(ctx, nullptr);
    uint8_t red[3], green[3], blue[3];
    for (int y = 0; y < 2; ++y) {
        ASSERT_EQ(korImage_getRow(ctx, red, green, blue, nullptr), 0);
        EXPECT_EQ(red[2], 10 * y + 2);
        EXPECT_EQ(blue[0], 10 * y + 6);
    }
    korImage_closeFile(ctx);
    uint8_t bg[4];
    EXPECT_EQ(korImage_getImageBgColor(bg, path.c_str(), 1), IMGSTAT_NO_BACKGROUND);
}

TEST(IngrDispatch, WritersByTypeReadBack) {
    iltest::TempDir dir;
    const ImageSize size{9, 2};
    const uint8_t map[18] = {0, 1, 1, 0, 0, 1, 0, 1, 1, 1, 0, 0, 1, 1, 1, 0, 0, 1};
    uint8_t r[256] = {255, 0}, g[256] = {255, 0}, b[256] = {255, 0};
    std::vector<uint8_t> rgb;
    for (int y = 0; y < 2; ++y)
        for (int c = 0; c < 3; ++c)
            for (int x = 0; x < 9; ++x) rgb.push_back(map[9 * y + x] ? 10 : 240);
    const uint8_t bits[4] = {0x65, 0x80, 0x9C, 0x80};  // the map, packed
    for (const char* name : {"a.rle", "a.cit", "a.cal", "a.cot"}) {
        const std::string path = dir.file(name);
        for (int form = 0; form < 3; ++form) {
            int st = form == 0   ? korImage_createFileFromMap(path.c_str(), -1, name[3] == 'o' ? 4 : 5, &size, map, r,
                                                              g, b, 2, nullptr)
                     : form == 1 ? korImage_createFileFromRGB(path.c_str(), -1, name[3] == 'o' ? 4 : 5, &size,
                                                              rgb.data(), nullptr)
                                 : korImage_createFileFromBitMap(path.c_str(), -1, &size, bits, 0, nullptr, nullptr,
                                                                 nullptr);
            ASSERT_EQ(st, 0) << name << " " << form;
            uint8_t* back = nullptr;
            ImageSize got{};
            ASSERT_EQ(korImage_readFileToRGB(&back, &got, path.c_str(), -1, nullptr, nullptr), 0) << name << form;
            ASSERT_EQ(got.x, 9);
            for (int y = 0; y < 2; ++y)
                for (int x = 0; x < 9; ++x)
                    // From RGB the light pixels (grey above 128) are the set ones.
                    EXPECT_EQ(back[27 * y + x] < 128, (map[9 * y + x] == 1) != (form == 1 && name[3] != 'o'))
                        << name << form << " " << x << "," << y;
            dlmSystem_korFree(back);
        }
    }
}

// The georeference update of the GeoTIFF family reaches Intergraph files
// through their header matrix.
TEST(IngrDispatch, GeoReferenceUpdateRewritesTheHeaderMatrix) {
    iltest::TempDir dir;
    ingrgen::Header s;
    s.dataType = 2, s.pixels = 3, s.lines = 2;
    const std::string path = dir.file("map.cot");
    iltest::writeFile(path, file(s, {1, 2, 3, 4, 5, 6}));
    const double origin[3] = {1000, 2000, 0}, extent[2] = {30, 20};
    ASSERT_EQ(korImage_updateGeoReference(origin, extent, path.c_str(), 0), 0);
    double o[3] = {}, e[2] = {};
    ASSERT_EQ(korImage_extractIngrAttach(o, e, nullptr, path.c_str()), 0);
    EXPECT_DOUBLE_EQ(o[0], 1000);
    EXPECT_DOUBLE_EQ(o[1], 2000);
    EXPECT_DOUBLE_EQ(e[0], 30);
    EXPECT_DOUBLE_EQ(e[1], 20);
}

}  // namespace
