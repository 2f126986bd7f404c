// The read and write dispatch for PCX (type 5) and Sun raster (type 10):
// which reader serves which entry point, and the writers' fallbacks.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "imagelib/imagelib.h"
#include "internal/bytes.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

class PcxSunDispatch : public ::testing::Test {
protected:
    iltest::TempDir dir;
    Bytes rgbOf(const std::string& path, int type = -1) {
        uint8_t* out = nullptr;
        ImageSize size{};
        if (korImage_readFileToRGB(&out, &size, path.c_str(), type, nullptr, nullptr) != 0) return {};
        Bytes v(out, out + size_t(size.x) * size.y * 3);
        korImage_freeImage(out, &size, IMAGEFORMAT_RGB);
        return v;
    }
};

TEST_F(PcxSunDispatch, PalettesAndTrueColourReadThroughEveryEntryPoint) {
    const ImageSize s2{2, 2};
    const Bytes map = {0, 1, 1, 0};
    const uint8_t red[256] = {255, 0}, green[256] = {0, 0}, blue[256] = {0, 255};
    for (const char* name : {"m.pcx", "m.rs"}) {
        const std::string p = dir.file(name);
        ASSERT_EQ(korImage_createFileFromMap(p.c_str(), -1, 3, &s2, map.data(), red, green, blue, 2, nullptr), 0);
        EXPECT_EQ(rgbOf(p), (Bytes{255, 0, 0, 0, 0, 255, 0, 255, 0, 0, 255, 0})) << name;
        int mode = 0;
        ASSERT_EQ(korImage_readFileInfo(nullptr, &mode, nullptr, p.c_str(), -1), 0);
        EXPECT_EQ(mode, 3);
        void* buf = nullptr;
        int layout = 0, count = 0;
        uint8_t r[256], g[256], b[256];
        ImageSize size{};
        ASSERT_EQ(korImage_readFileToBuffer(&buf, &layout, &mode, r, g, b, &count, &size, p.c_str(), -1, 0, nullptr),
                  0);
        EXPECT_EQ(layout, IMAGEFORMAT_MAP);
        EXPECT_EQ(Bytes(static_cast<uint8_t*>(buf), static_cast<uint8_t*>(buf) + 4), map);
        EXPECT_EQ(count, 256);
        korImage_freeImage(buf, &size, layout);
    }
    // A three-plane PCX: RGB directly; a palette read reduces it.
    Bytes f(128, 0);
    f[0] = 10, f[1] = 5, f[2] = 1, f[3] = 8, f[8] = 1, f[65] = 3, f[66] = 2;
    f.insert(f.end(), {8, 0xC1, 200, 16, 96, 24, 0xC1, 248});
    const std::string p3 = dir.file("t.pcx");
    iltest::writeFile(p3, f);
    EXPECT_EQ(rgbOf(p3), (Bytes{8, 200, 16, 96, 24, 248}));
    uint8_t** rows = nullptr;
    uint8_t r[256], g[256], b[256];
    int count = 0;
    ImageSize size{};
    ASSERT_EQ(korImage_readFileToMap(&rows, &size, r, g, b, &count, p3.c_str(), -1, nullptr, nullptr), 0);
    EXPECT_EQ(count, 2);
    korImage_freeImage(rows, &size, IMAGEFORMAT_PACKBYTE);
}

TEST_F(PcxSunDispatch, BitmapsAndWriterFallbacks) {
    // A bitmap written as PCX is a two-entry palette file; 1-bit PCX files
    // read back as bitmaps with their bits as stored.
    const ImageSize size{9, 2};
    const Bytes bits = {0xC3, 0x80, 0x0F, 0x00};
    const std::string p = dir.file("b.pcx");
    ASSERT_EQ(korImage_createFileFromBitMap(p.c_str(), 5, &size, bits.data(), 0, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(iltest::readFile(p)[3], 8);
    Bytes one(128, 0);
    one[0] = 10, one[1] = 5, one[3] = 1, one[8] = 8, one[10] = 1, one[65] = 1, one[66] = 2;
    one.insert(one.end(), {0x3C, 0x80, 0x0F, 0x00});
    iltest::writeFile(p, one);
    void* out = nullptr;
    ImageSize got{};
    ASSERT_EQ(korImage_readFileToBitMap(&out, &got, p.c_str(), -1, 0, nullptr), 0);
    const uint8_t* o = static_cast<uint8_t*>(out);
    EXPECT_EQ((Bytes{o[0], o[1], o[2]}), (Bytes{0x3C, 0x80, 0x0F}));
    korImage_freeImage(out, &got, IMAGEFORMAT_BITMAP);
    // Sun has no bitmap reader: a 1-bit Sun file is read as RGB only.
    Bytes sun(32, 0);
    const uint32_t words[8] = {0x59A66A95, 9, 1, 1, 2, 1, 0, 0};
    for (int i = 0; i < 8; ++i) il::put32be(&sun[4 * size_t(i)], words[i]);
    sun.insert(sun.end(), {0x80, 0x00});
    const std::string q = dir.file("b.rs");
    iltest::writeFile(q, sun);
    EXPECT_EQ(korImage_readFileToBitMap(&out, &got, q.c_str(), -1, 0, nullptr), -119);
    EXPECT_EQ(rgbOf(q).size(), 27u);
    // 16 colours to Sun is refused; 300 colours to PCX are expanded to RGB
    // and written as 256.
    const ImageSize s4{4, 1};
    const Bytes map = {0, 1, 2, 3};
    uint8_t pal[256] = {0, 80, 160, 240};
    EXPECT_EQ(korImage_createFileFromMap(q.c_str(), 10, 2, &s4, map.data(), pal, pal, pal, 4, nullptr), -126);
    ASSERT_EQ(korImage_createFileFromMap(p.c_str(), 5, 3, &s4, map.data(), pal, pal, pal, 300, nullptr), 0);
    EXPECT_EQ(rgbOf(p), (Bytes{0, 80, 160, 240, 0, 80, 160, 240, 0, 80, 160, 240}));
}

}  // namespace
