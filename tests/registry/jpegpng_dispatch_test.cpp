// JPEG and PNG through the read and write entry points and the CLI: the
// dispatch's quality clamp before the writer's rule, configuration from the
// environment, and the layouts each reader serves.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "imagelib/imagelib.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

int firstQuantValue(const std::string& path) {
    const Bytes f = iltest::readFile(path);
    for (size_t i = 2; i + 5 < f.size(); ++i)
        if (f[i] == 0xFF && f[i + 1] == 0xDB) return f[i + 5];
    return -1;
}

class JpegPngDispatch : public ::testing::Test {
protected:
    iltest::TempDir d;
    ImageSize size{24, 10};
    Bytes rgb;
    uint8_t r[256], g[256], b[256];
    int n = 0;
    ImageSize s{};
    void SetUp() override {
        rgb.resize(size_t(size.x) * size.y * 3);
        for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = uint8_t(i % 97 + 40);
    }
};

TEST_F(JpegPngDispatch, QualityIsClampedBeforeTheWritersRule) {
    const std::string f = d.file("q.jpg");
    // Through the dispatch 95 is held to 90 (the writer alone would make it 75).
    ASSERT_EQ(korImage_extCreateFileFromRGB(f.c_str(), 18, 1, &size, rgb.data(), 95, 0, nullptr), 0);
    EXPECT_EQ(firstQuantValue(f), 3);
    ASSERT_EQ(korImage_extCreateFileFromRGB(f.c_str(), 18, 1, &size, rgb.data(), 10, 0, nullptr), 0);
    EXPECT_EQ(firstQuantValue(f), 20);  // quality 40
    ASSERT_EQ(korImage_createFileFromRGB(f.c_str(), 18, 4, &size, rgb.data(), nullptr), 0);
    int mode = 0;
    ASSERT_EQ(korImage_readFileInfo(&s, &mode, nullptr, f.c_str(), -1), 0);
    EXPECT_EQ(mode, COLORMODE_GREY);  // colour mode 4 writes grey
    EXPECT_EQ(korImage_typeFromFile(f.c_str()), 18);

    const std::string ppm = d.file("in.ppm");
    std::string text = "P6\n24 10\n255\n";
    text.append(240 * 3, '\x50');
    ASSERT_TRUE(iltest::writeFile(ppm, text));
    ASSERT_EQ(iltest::run(iltest::cliPath() + " convert " + ppm + " " + f + " --quality 95"), 0);
    EXPECT_EQ(firstQuantValue(f), 3);
}

TEST_F(JpegPngDispatch, InterlaceComesFromTheEnvironment) {
    const std::string ppm = d.file("in.ppm"), png = d.file("out.png");
    std::string text = "P6\n24 10\n255\n";
    text.append(240 * 3, '\x7f');
    ASSERT_TRUE(iltest::writeFile(ppm, text));
    ASSERT_EQ(iltest::run("env -u KV_PNG_INTERLACE " + iltest::cliPath() + " convert " + ppm + " " + png), 0);
    EXPECT_EQ(iltest::readFile(png)[28], 1);
    ASSERT_EQ(iltest::run("KV_PNG_INTERLACE=0 " + iltest::cliPath() + " convert " + ppm + " " + png), 0);
    EXPECT_EQ(iltest::readFile(png)[28], 0);
}

TEST_F(JpegPngDispatch, ReadersServeEveryLayout) {
    const std::string grey = d.file("g.jpg"), png = d.file("a.png"), mono = d.file("m.png");
    ASSERT_EQ(korImage_createFileFromRGB(grey.c_str(), 18, 4, &size, rgb.data(), nullptr), 0);
    uint8_t* p = nullptr;
    ASSERT_EQ(korImage_readFileToRGB(&p, &s, grey.c_str(), -1, nullptr, nullptr), 0);
    EXPECT_EQ(0, std::memcmp(p, p + size.x, size_t(size.x)));  // grey through the ramp
    korImage_freeImage(p, &s, IMAGEFORMAT_RGB);
    uint8_t** rows = nullptr;
    ASSERT_EQ(korImage_readFileToMap(&rows, &s, r, g, b, &n, grey.c_str(), -1, nullptr, nullptr), 0);
    EXPECT_EQ(n, 256);
    korImage_freeImage(rows, &s, IMAGEFORMAT_PACKBYTE);

    // RGBA PNG: interleaved or planes through the alpha reader; RGB reduced for maps.
    Bytes planes(size_t(size.x) * size.y * 4, 200);
    ASSERT_EQ(korImage_extCreateFileFromRGB(png.c_str(), 28, 6, &size, planes.data(), 0, 0, nullptr), 0);
    ASSERT_EQ(korImage_readFileToRGBA(&p, &s, png.c_str(), -1, nullptr, 0, 0, nullptr), 0);
    EXPECT_EQ(p[3], 200);
    korImage_freeImage(p, &s, IMAGEFORMAT_RGBA);
    void* v = nullptr;
    int layout = 0, mode = 0;
    ASSERT_EQ(korImage_readFileToBuffer(&v, &layout, &mode, r, g, b, &n, &s, png.c_str(), -1, 0, nullptr), 0);
    EXPECT_EQ(layout, IMAGEFORMAT_RGBA);
    korImage_freeImage(v, &s, layout);
    ASSERT_EQ(korImage_readFileToMap(&rows, &s, r, g, b, &n, png.c_str(), -1, nullptr, nullptr), 0);
    EXPECT_EQ(n, 1);
    korImage_freeImage(rows, &s, IMAGEFORMAT_PACKBYTE);

    // Bilevel PNG from a bitmap given white on black: the same picture reads back.
    const Bytes bits = {0xF0, 0x0F, 0x3C, 0x00, 0x00, 0x00};
    const ImageSize bs{16, 3};
    const uint8_t black[3] = {0, 0, 0}, white[3] = {255, 255, 255};
    ASSERT_EQ(korImage_createFileFromBitMap(mono.c_str(), 28, &bs, bits.data(), 0, black, white, nullptr), 0);
    ASSERT_EQ(korImage_readFileToBitMap(&v, &s, mono.c_str(), -1, 0, nullptr), 0);
    EXPECT_EQ(static_cast<uint8_t*>(v)[0], 0x0F);  // set bits are black now
    korImage_freeImage(v, &s, IMAGEFORMAT_BITMAP);
    ASSERT_EQ(korImage_readFileToRGB(&p, &s, mono.c_str(), -1, nullptr, nullptr), 0);
    EXPECT_EQ((Bytes{p[0], p[4], p[16], p[36]}), (Bytes{255, 0, 255, 0}));
    korImage_freeImage(p, &s, IMAGEFORMAT_RGB);
}

}  // namespace
