// PNG codec: classification, the grey-scale rule, the wanted-mode
// conversions and refusals, composition over the background, the writer's
// modes and interlacing, and headers that claim more than their file holds.
#include <gtest/gtest.h>
#include <png.h>
#include <zlib.h>

#include <csetjmp>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "codecs/libs/png.h"
#include "imagelib/imagelib.h"
#include "internal/bytes.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A PNG written with libpng from rows of packed samples.
struct PngLayout {
    int width = 4, height = 3, colourType = PNG_COLOR_TYPE_GRAY, depth = 8;
    std::vector<Bytes> rows;
    std::vector<png_color> palette;
    Bytes trnsAlpha;
    const png_color_16* background = nullptr;
};

bool writePng(const std::string& path, const PngLayout& s) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    bool ok = false;
    if (!setjmp(png_jmpbuf(png))) {
        png_init_io(png, f);
        png_set_IHDR(png, info, s.width, s.height, s.depth, s.colourType, 0, 0, 0);
        if (!s.palette.empty()) png_set_PLTE(png, info, s.palette.data(), int(s.palette.size()));
        if (!s.trnsAlpha.empty()) png_set_tRNS(png, info, s.trnsAlpha.data(), int(s.trnsAlpha.size()), nullptr);
        if (s.background) png_set_bKGD(png, info, s.background);
        png_write_info(png, info);
        for (const Bytes& row : s.rows) png_write_row(png, row.data());
        png_write_end(png, info);
        ok = true;
    }
    png_destroy_write_struct(&png, &info);
    std::fclose(f);
    return ok;
}

class Png : public ::testing::Test {
protected:
    iltest::TempDir dir;
    std::string file = dir.file("a.png");
    uint8_t r[256], g[256], b[256];
    int count = -1, layout = 0;
    ImageSize s{};
    void* p = nullptr;

    void TearDown() override {
        if (p) korImage_freeImage(p, &s, layout);
    }
    int read(int wanted, int packed = 0) {
        if (p) korImage_freeImage(p, &s, layout);
        p = nullptr;
        return pngFile_read(&p, &s, r, g, b, &count, file.c_str(), wanted, packed, nullptr, &layout);
    }
    const uint8_t* px() const { return static_cast<const uint8_t*>(p); }
};

TEST_F(Png, TwoBitGreyReadsWithTheGreyScaleRule) {
    PngLayout png;
    png.depth = 2;
    png.rows = {{0x1B}, {0xE4}, {0x00}};  // samples 0 1 2 3 / 3 2 1 0 / 0 0 0 0
    ASSERT_TRUE(writePng(file, png));
    int mode = 0;
    ASSERT_EQ(pngFile_readInfo(&s, &mode, file.c_str()), 0);
    EXPECT_EQ(mode, COLORMODE_GREY);
    ASSERT_EQ(read(0), 0);
    EXPECT_EQ(layout, IMAGEFORMAT_MAP);
    EXPECT_EQ(count, 4);
    EXPECT_EQ((Bytes{r[0], r[1], r[2], r[3]}), (Bytes{0, 51, 102, 255}));
    EXPECT_EQ(Bytes(px(), px() + 8), (Bytes{0, 1, 2, 3, 3, 2, 1, 0}));
    // As RGB the samples go through that scale.
    ASSERT_EQ(read(COLORMODE_RGB), 0);
    EXPECT_EQ(Bytes(px(), px() + 4), (Bytes{0, 51, 102, 255}));
    EXPECT_EQ(count, 0);

    uint8_t scale[3][256];
    pngFile_greyScale(scale[0], scale[1], scale[2], 256);
    EXPECT_EQ((Bytes{scale[0][0], scale[0][1], scale[0][2], scale[0][128], scale[0][254], scale[0][255]}),
              (Bytes{0, 0, 1, 127, 253, 255}));
}

TEST_F(Png, OneBitPaletteIsBilevel) {
    PngLayout png;
    png.colourType = PNG_COLOR_TYPE_PALETTE;
    png.depth = 1;
    png.width = 10;
    png.palette = {{250, 250, 0}, {0, 0, 90}};  // entry 1 is the darker
    png.rows = {{0xA5, 0xC0}, {0x00, 0x00}, {0xFF, 0xC0}};
    ASSERT_TRUE(writePng(file, png));
    int mode = 0;
    ASSERT_EQ(pngFile_readInfo(nullptr, &mode, file.c_str()), 0);
    EXPECT_EQ(mode, COLORMODE_BILEVEL);
    EXPECT_EQ(read(COLORMODE_RGB), IMGERR_BADIMAGEFORMAT);
    EXPECT_EQ(read(COLORMODE_PALETTE256), IMGERR_BADIMAGEFORMAT);
    ASSERT_EQ(read(COLORMODE_BILEVEL), 0);
    EXPECT_EQ(Bytes(px(), px() + 6), (Bytes{0xA5, 0xC0, 0, 0, 0xFF, 0xC0}));
    ASSERT_EQ(read(COLORMODE_BILEVEL, 1), 0);
    EXPECT_EQ(layout, IMAGEFORMAT_RLEBITMAP);

    // With the darker colour first the bits are turned over (padding stays clear).
    std::swap(png.palette[0], png.palette[1]);
    ASSERT_TRUE(writePng(file, png));
    ASSERT_EQ(read(COLORMODE_BILEVEL), 0);
    EXPECT_EQ(Bytes(px(), px() + 6), (Bytes{0x5A, 0x00, 0xFF, 0xC0, 0x00, 0x00}));
    ASSERT_EQ(read(0), 0);  // the file's own mode keeps the indices and palette
    EXPECT_EQ(Bytes(px(), px() + 2), (Bytes{0xA5, 0xC0}));
    EXPECT_EQ(count, 2);
    EXPECT_EQ(b[1], 0);
}

TEST_F(Png, WantedModesAndRefusals) {
    PngLayout png;
    png.colourType = PNG_COLOR_TYPE_RGB_ALPHA;
    png.width = 3;
    png.rows.assign(3, Bytes{10, 20, 30, 255, 40, 50, 60, 128, 70, 80, 90, 0});
    ASSERT_TRUE(writePng(file, png));
    EXPECT_EQ(read(COLORMODE_BILEVEL), IMGERR_DECODEFAILED);
    ASSERT_EQ(read(COLORMODE_RGBA), 0);  // four planes a row
    EXPECT_EQ(Bytes(px(), px() + 12), (Bytes{10, 40, 70, 20, 50, 80, 30, 60, 90, 255, 128, 0}));
    ASSERT_EQ(read(COLORMODE_RGB), 0);
    EXPECT_EQ(Bytes(px(), px() + 9), (Bytes{10, 40, 70, 20, 50, 80, 30, 60, 90}));
    ASSERT_EQ(read(COLORMODE_PALETTE256, 1), 0);  // reduced to a palette
    EXPECT_EQ(layout, IMAGEFORMAT_PACKBYTE);
    EXPECT_GE(count, 3);
    uint8_t row[3];
    korImage_unpackByteBuffer(row, static_cast<uint8_t**>(p)[2], 3);
    EXPECT_NEAR(r[row[1]], 40, 8);
    EXPECT_NEAR(g[row[1]] + b[row[1]], 110, 16);

    png.colourType = PNG_COLOR_TYPE_GRAY;
    png.rows.assign(3, Bytes{1, 2, 3});
    ASSERT_TRUE(writePng(file, png));
    EXPECT_EQ(read(COLORMODE_RGBA), IMGERR_BADIMAGEFORMAT);
    EXPECT_EQ(read(9), IMGERR_BADARG);
    iltest::writeFile(file, std::string("\x89PNG\r\n\x1a\n"));
    EXPECT_EQ(read(0), IMGERR_BADFILE);
    iltest::writeFile(file, std::string("\x89PNG"));
    EXPECT_EQ(pngFile_detect(file.c_str()), IMGERR_READFAILED);
}

TEST_F(Png, TransparencyIsComposedOverTheBackground) {
    PngLayout png;
    png.colourType = PNG_COLOR_TYPE_GRAY_ALPHA;
    png.width = 2;
    png.height = 1;
    png.rows = {{200, 255, 200, 0}};
    ASSERT_TRUE(writePng(file, png));
    ASSERT_EQ(read(0), 0);
    EXPECT_EQ(Bytes(px(), px() + 2), (Bytes{200, 0}));  // over black without bKGD
    png_color_16 grey{0, 0, 0, 0, 77};
    png.background = &grey;
    ASSERT_TRUE(writePng(file, png));
    ASSERT_EQ(read(0), 0);
    EXPECT_EQ(Bytes(px(), px() + 2), (Bytes{200, 77}));
}

TEST_F(Png, WriterModesRoundTripAndInterlaceByDefault) {
    const ImageSize size{19, 7};
    Bytes planes(size_t(size.x) * size.y * 4), map(size_t(size.x) * size.y);
    for (size_t i = 0; i < planes.size(); ++i) planes[i] = uint8_t(i * 7);
    for (size_t i = 0; i < map.size(); ++i) map[i] = uint8_t(i % 5);
    uint8_t pr[256] = {0, 60, 120, 180, 240}, pg[256] = {5, 6, 7, 8, 9}, pb[256] = {};
    ::unsetenv("KV_PNG_INTERLACE");
    for (int mode : {COLORMODE_RGB, COLORMODE_RGBA, COLORMODE_PALETTE16, COLORMODE_GREY}) {
        const bool rgbSource = mode == COLORMODE_RGB || mode == COLORMODE_RGBA;
        ASSERT_EQ(pngFile_create(file.c_str(), rgbSource ? planes.data() : map.data(), &size, mode,
                                 rgbSource ? IMAGEFORMAT_RGB : IMAGEFORMAT_MAP, pr, pg, pb, 5, nullptr, nullptr),
                  0)
            << mode;
        EXPECT_EQ(iltest::readFile(file)[28], 1) << "interlaced by default";
        ASSERT_EQ(read(0), 0);
        if (rgbSource) {
            const size_t n = size_t(size.x) * size.y * (mode == COLORMODE_RGBA ? 4 : 3);
            EXPECT_EQ(0, std::memcmp(px(), planes.data(), mode == COLORMODE_RGBA ? n : 3 * size_t(size.x)));
        } else if (mode == COLORMODE_PALETTE16) {
            EXPECT_EQ(0, std::memcmp(px(), map.data(), map.size()));
            EXPECT_EQ(count, 5);
            EXPECT_EQ(iltest::readFile(file)[24], 8);  // 8-bit indices even for 16 colours
        } else {
            uint8_t grey[256];
            korImage_paletteToGreyScale(grey, nullptr, nullptr, pr, pg, pb, 5);
            EXPECT_EQ(px()[3], grey[3]);  // the palette's grey levels
        }
    }
    // Bilevel: set bits are black, 0 in the file; not interlaced on request.
    ::setenv("KV_PNG_INTERLACE", "0", 1);
    const Bytes bits = {0xF0, 0x0F, 0xFF, 0x00, 0x80, 0x01, 0xAA, 0x55};
    const ImageSize bs{16, 4};
    ASSERT_EQ(pngFile_create(file.c_str(), bits.data(), &bs, COLORMODE_BILEVEL, IMAGEFORMAT_BITMAP, nullptr,
                             nullptr, nullptr, 0, nullptr, nullptr),
              0);
    ::unsetenv("KV_PNG_INTERLACE");
    EXPECT_EQ(iltest::readFile(file)[28], 0);
    ASSERT_EQ(read(0), 0);
    EXPECT_EQ(px()[0], 0x0F);  // white is 1 in the file
    EXPECT_EQ(r[1], 255);
    ASSERT_EQ(read(COLORMODE_BILEVEL), 0);
    EXPECT_EQ(Bytes(px(), px() + 8), bits);

    EXPECT_EQ(pngFile_create(file.c_str(), map.data(), &size, COLORMODE_RGB, IMAGEFORMAT_MAP, pr, pg, pb, 5,
                             nullptr, nullptr),
              IMGERR_BADARG);
    EXPECT_EQ(pngFile_create(file.c_str(), map.data(), &size, 7, IMAGEFORMAT_MAP, pr, pg, pb, 5, nullptr, nullptr),
              IMGERR_BADARG);
}

TEST_F(Png, TransparentColourIsMarked) {
    const ImageSize size{2, 1};
    const uint8_t map[2] = {0, 1};
    uint8_t pr[256] = {1, 2}, pg[256] = {3, 4}, pb[256] = {5, 6};
    const uint8_t key[3] = {2, 4, 6};
    ASSERT_EQ(pngFile_create(file.c_str(), map, &size, COLORMODE_PALETTE256, IMAGEFORMAT_MAP, pr, pg, pb, 2, key,
                             nullptr),
              0);
    const Bytes f = iltest::readFile(file);
    const std::string text(f.begin(), f.end());
    const size_t at = text.find("tRNS");
    ASSERT_NE(at, std::string::npos);
    EXPECT_EQ(il::get32be(&f[at - 4]), 2u);
    EXPECT_EQ((Bytes{f[at + 4], f[at + 5]}), (Bytes{255, 0}));
}

TEST_F(Png, HeaderClaimingMoreThanTheFileHoldsIsRefused) {
    // A valid signature and IHDR for 60000 x 60000 RGB, then a tiny IDAT.
    Bytes f = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
    auto chunk = [&](const char* type, const Bytes& data) {
        uint8_t n[4];
        il::put32be(n, uint32_t(data.size()));
        f.insert(f.end(), n, n + 4);
        Bytes body(type, type + 4);
        body.insert(body.end(), data.begin(), data.end());
        f.insert(f.end(), body.begin(), body.end());
        il::put32be(n, uint32_t(crc32(0, body.data(), uInt(body.size()))));
        f.insert(f.end(), n, n + 4);
    };
    chunk("IHDR", {0, 0, 0xEA, 0x60, 0, 0, 0xEA, 0x60, 8, 2, 0, 0, 0});
    chunk("IDAT", {0x78, 0x9C, 0x03, 0, 0, 0, 0, 1});
    chunk("IEND", {});
    iltest::writeFile(file, f);
    ASSERT_EQ(pngFile_readInfo(&s, nullptr, file.c_str()), 0);
    EXPECT_EQ(s.x, 60000);
    EXPECT_EQ(read(0), IMGERR_BADFILE);
}

}  // namespace
