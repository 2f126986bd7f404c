// "p", "a" and display-procedure images through the exported entry points:
// detection from contents, writing and reading back by type, and a PMA
// program drawn at the requested size rather than resampled.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "imagelib/imagelib.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A 4 x 3 row-planar image of six colours.
Bytes sixColours() {
    // Components the palette optimiser keeps exactly (multiples of 8).
    static const uint8_t kColours[6][3] = {{0, 0, 0},   {248, 0, 0},   {0, 248, 0},
                                           {0, 0, 248}, {248, 248, 0}, {88, 56, 24}};
    Bytes rgb(4 * 3 * 3);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 4; ++x)
            for (int c = 0; c < 3; ++c) rgb[size_t(12 * y + 4 * c + x)] = kColours[(x + y) % 6][c];
    return rgb;
}

Bytes readRGB(const std::string& path, int type, ImageSize* size, const ImageSize* requested = nullptr) {
    uint8_t* rgb = nullptr;
    EXPECT_EQ(korImage_readFileToRGB(&rgb, size, path.c_str(), type, requested, nullptr), 0) << path;
    if (!rgb) return {};
    Bytes out(rgb, rgb + size_t(size->x) * size->y * 3);
    korImage_freeImage(rgb, size, IMAGEFORMAT_RGB);
    return out;
}

TEST(PaDispatch, WrittenByTypeFoundByContentsReadBack) {
    iltest::TempDir dir;
    const ImageSize s{4, 3};
    const Bytes rgb = sixColours();
    // Names without the types' extensions: found from the contents.
    const std::string p = dir.file("pal.dat"), a = dir.file("planes.hdr");
    ASSERT_EQ(korImage_createFileFromRGB(p.c_str(), 11, COLORMODE_PALETTE256, &s, rgb.data(), nullptr), 0);
    ASSERT_EQ(korImage_createFileFromRGB(a.c_str(), 12, COLORMODE_PALETTE16, &s, rgb.data(), nullptr), 0);
    EXPECT_EQ(korImage_typeFromFile(p.c_str()), 11);
    EXPECT_EQ(korImage_typeFromFile(a.c_str()), 12);
    for (const std::string& f : {p, a}) {
        ImageSize size{};
        EXPECT_EQ(readRGB(f, -1, &size), rgb) << f;
        EXPECT_EQ(size.x, 4);
        EXPECT_EQ(size.y, 3);
    }
    int mode = 0;
    ASSERT_EQ(korImage_readFileInfo(nullptr, &mode, nullptr, p.c_str(), -1), 0);
    EXPECT_EQ(mode, COLORMODE_PALETTE16);  // six colours
    ASSERT_EQ(korImage_readFileInfo(nullptr, &mode, nullptr, a.c_str(), -1), 0);
    EXPECT_EQ(mode, COLORMODE_RGB);

    // A palette image through the map writer and the PackByte reader.
    uint8_t red[256] = {10, 20, 30}, green[256] = {1, 2, 3}, blue[256] = {7, 8, 9};
    const Bytes map = {0, 1, 2, 2, 1, 0, 0, 0, 1, 1, 2, 2};
    const std::string m = dir.file("map.p");
    ASSERT_EQ(korImage_createFileFromMap(m.c_str(), -1, COLORMODE_PALETTE256, &s, map.data(), red, green, blue, 3,
                                         nullptr),
              0);
    uint8_t** rows = nullptr;
    uint8_t r2[256], g2[256], b2[256];
    int count = 0;
    ImageSize size{};
    ASSERT_EQ(korImage_readFileToMap(&rows, &size, r2, g2, b2, &count, m.c_str(), -1, nullptr, nullptr), 0);
    Bytes back(12);
    for (int y = 0; y < 3; ++y) korImage_unpackByteBuffer(back.data() + 4 * y, rows[y], 4);
    korImage_freeImage(rows, &size, IMAGEFORMAT_PACKBYTE);
    EXPECT_EQ(back, map);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(std::memcmp(r2, red, 3), 0);
}

TEST(PaDispatch, DisplayProcedureDrawsAtTheRequestedSize) {
    const std::string program = IMAGELIB_PMA_PROGRAM;
    EXPECT_EQ(korImage_fileType(-1, program.c_str()), 27);  // from the extension
    ImageSize size{};
    int mode = 0;
    ASSERT_EQ(korImage_readFileInfo(&size, &mode, nullptr, program.c_str(), -1), 0);
    EXPECT_EQ(size.x, 7);
    EXPECT_EQ(size.y, 5);
    EXPECT_EQ(mode, COLORMODE_RGB);
    // Drawn at 3 x 2, not drawn at 7 x 5 and resampled: blue 200, red 10 x.
    const ImageSize requested{3, 2};
    Bytes rgb = readRGB(program, -1, &size, &requested);
    EXPECT_EQ(rgb, (Bytes{0, 10, 20, 0, 0, 0, 200, 200, 200, 0, 10, 20, 20, 20, 20, 200, 200, 200}));
}

}  // namespace
