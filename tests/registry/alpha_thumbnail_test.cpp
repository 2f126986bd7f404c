// Transparency through the writers and readers that keep it, and
// thumbnails: their size rule and the reductions that make them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "imagelib/imagelib.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Rows of four planes in six colours, alpha 0 on a diagonal band.
Bytes rgbaPlanes(int w, int h) {
    static const uint8_t kColours[6][3] = {{255, 0, 0}, {0, 128, 0}, {0, 0, 255}, {250, 250, 250}, {9, 9, 9},
                                           {200, 150, 30}};
    Bytes b(size_t(w) * h * 4);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const uint8_t* c = kColours[(x / 3 + y) % 6];
            uint8_t* row = &b[size_t(y) * 4 * w];
            for (int k = 0; k < 3; ++k) row[size_t(k) * w + x] = c[k];
            row[3 * size_t(w) + x] = (x + y) % 7 < 2 ? 0 : 255;
        }
    return b;
}

// Mean absolute difference of two equal-sized buffers.
double meanDiff(const uint8_t* a, const uint8_t* b, size_t n) {
    double sum = 0;
    for (size_t i = 0; i < n; ++i) sum += std::abs(int(a[i]) - int(b[i]));
    return sum / double(n);
}

// A smooth row-planar RGB picture.
Bytes gradient(int w, int h) {
    Bytes b(size_t(w) * h * 3);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            uint8_t* row = &b[size_t(y) * 3 * w];
            row[x] = uint8_t(x * 255 / (w - 1));
            row[size_t(w) + x] = uint8_t(y * 255 / (h - 1));
            row[2 * size_t(w) + x] = uint8_t((x + y) * 255 / (w + h - 2));
        }
    return b;
}

struct Freed {
    uint8_t* p = nullptr;
    ~Freed() { dlmSystem_korFree(p); }
};

TEST(Alpha, RoundTripsThroughEveryWriterThatKeepsIt) {
    iltest::TempDir d;
    const ImageSize size{23, 9};
    const Bytes src = rgbaPlanes(size.x, size.y);
    for (const char* name : {"a.png", "a.tif", "a.tga", "a.bmp", "a.gif"}) {
        SCOPED_TRACE(name);
        const std::string f = d.file(name);
        ASSERT_EQ(korImage_extCreateFileFromRGB(f.c_str(), -1, COLORMODE_RGBA, &size, src.data(), 0, 0, nullptr), 0);
        ImageFileInfo info;
        ASSERT_EQ(korImage_readFileInfoEx(&info, f.c_str()), 0);
        EXPECT_EQ(info.colorMode, COLORMODE_RGBA);
        EXPECT_EQ(info.size.x, size.x);
        EXPECT_EQ(info.size.y, size.y);
        Freed out;
        ImageSize got{};
        ASSERT_EQ(korImage_readFileToRGBA(&out.p, &got, f.c_str(), -1, nullptr, 1, 0, nullptr), 0);
        ASSERT_EQ(got.x, size.x);
        ASSERT_EQ(got.y, size.y);
        // Alpha exactly; colours exactly where the pixel is opaque (six
        // colours fit every palette).
        for (size_t y = 0; y < size_t(size.y); ++y)
            for (size_t x = 0; x < size_t(size.x); ++x) {
                const size_t row = y * 4 * size.x, a = row + 3 * size.x + x;
                ASSERT_EQ(out.p[a], src[a]) << x << "," << y;
                if (src[a]) {
                    for (size_t c = 0; c < 3; ++c) ASSERT_EQ(out.p[row + c * size.x + x], src[row + c * size.x + x]);
                }
            }
    }
    // More colours than a GIF palette holds: alpha still exact, colours
    // through an optimised palette.
    {
        const ImageSize big{40, 30};
        const Bytes rgb = gradient(big.x, big.y);
        Bytes planes(size_t(big.x) * big.y * 4);
        for (size_t y = 0; y < size_t(big.y); ++y) {
            std::memcpy(&planes[y * 4 * big.x], &rgb[y * 3 * big.x], 3 * size_t(big.x));
            for (size_t x = 0; x < size_t(big.x); ++x) planes[y * 4 * big.x + 3 * big.x + x] = x < 5 ? 0 : 255;
        }
        const std::string f = d.file("many.gif");
        ASSERT_EQ(korImage_extCreateFileFromRGB(f.c_str(), 7, COLORMODE_RGBA, &big, planes.data(), 0, 0, nullptr), 0);
        Freed out;
        ASSERT_EQ(korImage_readFileToRGBA(&out.p, nullptr, f.c_str(), -1, nullptr, 1, 0, nullptr), 0);
        double diff = 0;
        for (size_t y = 0; y < size_t(big.y); ++y) {
            const size_t row = y * 4 * big.x;
            EXPECT_EQ(std::memcmp(out.p + row + 3 * big.x, &planes[row + 3 * big.x], size_t(big.x)), 0) << y;
            for (size_t c = 0; c < 3; ++c)
                diff += meanDiff(out.p + row + c * big.x + 5, &planes[row + c * big.x + 5], size_t(big.x) - 5);
        }
        EXPECT_LT(diff / (3 * big.y), 8.0);  // the optimiser's 5-bit cells
    }
    // GIF: a GIF89a file with the transparent index 0 in its graphic
    // control; BMP: a version 5 header with an alpha mask.
    const Bytes gif = iltest::readFile(d.file("a.gif"));
    ASSERT_GT(gif.size(), 13u + 768 + 8);
    EXPECT_EQ(std::memcmp(gif.data(), "GIF89a", 6), 0);
    const uint8_t control[8] = {0x21, 0xF9, 4, 1, 0, 0, 0, 0};
    EXPECT_EQ(std::memcmp(gif.data() + 13 + 768, control, 8), 0);
    const Bytes bmp = iltest::readFile(d.file("a.bmp"));
    ASSERT_GT(bmp.size(), 70u);
    EXPECT_EQ(bmp[14], 124);
    EXPECT_EQ(bmp[28], 32);
    EXPECT_EQ(bmp[30], 3);
    EXPECT_EQ(bmp[14 + 52 + 3], 0xFF);  // alpha mask 0xFF000000
    EXPECT_EQ(bmp.size(), 14u + 124 + 23 * 9 * 4);
}

TEST(Alpha, PngTransparencyChunkAndGifIndexReadAsAlpha) {
    iltest::TempDir d;
    const ImageSize size{10, 4};
    Bytes map(40);
    for (size_t i = 0; i < map.size(); ++i) map[i] = uint8_t(i % 3);
    uint8_t r[256] = {10, 20, 30}, g[256] = {40, 50, 60}, b[256] = {70, 80, 90};
    // tRNS on palette entry 1 (the colour given through the option).
    const std::string png = d.file("t.png");
    const int option = 0x1000000 | (20 << 16) | (50 << 8) | 80;
    ASSERT_EQ(korImage_extCreateFileFromMap(png.c_str(), 28, 3, &size, map.data(), r, g, b, 3, 0, option, nullptr), 0);
    // A palette file with the GIF writer's transparent index 0.
    const std::string gif = d.file("t.gif");
    ASSERT_EQ(korImage_createFileFromMap(gif.c_str(), 7, 3, &size, map.data(), r, g, b, 3, nullptr), 0);
    for (auto [f, clearIndex] : {std::pair{png, 1}, std::pair{gif, 0}}) {
        SCOPED_TRACE(f);
        int mode = 0;
        ImageFileInfo info;
        ASSERT_EQ(korImage_readFileInfoEx(&info, f.c_str()), 0);
        EXPECT_EQ(info.colorMode, COLORMODE_RGBA);
        EXPECT_EQ(info.size.x, 10);
        Freed out;
        ASSERT_EQ(korImage_readFileToRGBA(&out.p, nullptr, f.c_str(), -1, nullptr, 0, 0, nullptr), 0);
        for (size_t i = 0; i < map.size(); ++i) {
            EXPECT_EQ(out.p[4 * i], r[map[i]]);
            EXPECT_EQ(out.p[4 * i + 2], b[map[i]]);
            EXPECT_EQ(out.p[4 * i + 3], map[i] == clearIndex ? 0 : 255) << i;
        }
        if (f == png) {  // the plain info keeps the palette mode
            ASSERT_EQ(korImage_readFileInfo(nullptr, &mode, nullptr, f.c_str(), -1), 0);
            EXPECT_EQ(mode, COLORMODE_PALETTE256);
        }
    }
    // A GIF87a file from RGB has no graphic control: its info stays
    // unknown before the image is read, and it reads as RGBA all the same.
    const Bytes rgb = gradient(10, 4);
    const std::string plain = d.file("p.gif");
    ASSERT_EQ(korImage_createFileFromRGB(plain.c_str(), 7, 3, &size, rgb.data(), nullptr), 0);
    ImageFileInfo info;
    EXPECT_EQ(korImage_readFileInfoEx(&info, plain.c_str()), IMGERR_BADFORMAT);
    Freed out;
    EXPECT_EQ(korImage_readFileToRGBA(&out.p, nullptr, plain.c_str(), -1, nullptr, 0, 0, nullptr), 0);
}

TEST(Thumbnail, SizeFitsTheBoxRoundedAndNeverEnlarged) {
    const struct {
        ImageSize image, box, want;
    } kCases[] = {
        {{6000, 4000}, {256, 256}, {256, 171}},  // 170.67 rounds up
        {{4000, 6000}, {256, 256}, {171, 256}},
        {{300, 200}, {100, 80}, {100, 67}},      // width limits
        {{300, 200}, {200, 50}, {75, 50}},       // height limits
        {{100, 50}, {256, 256}, {100, 50}},      // never enlarged
        {{100, 50}, {100, 10}, {20, 10}},
        {{5000, 3}, {10, 10}, {10, 1}},          // at least 1
        {{3, 5000}, {10, 10}, {1, 10}},
    };
    for (const auto& c : kCases) {
        ImageSize t{};
        ASSERT_EQ(korImage_thumbnailSize(&t, &c.image, &c.box), 0);
        EXPECT_EQ(t.x, c.want.x) << c.image.x << "x" << c.image.y;
        EXPECT_EQ(t.y, c.want.y) << c.image.x << "x" << c.image.y;
    }
    const ImageSize zero{0, 5}, box{10, 10};
    ImageSize t{};
    EXPECT_EQ(korImage_thumbnailSize(&t, &zero, &box), IMGERR_BADARG);
}

// Every reader path (JPEG decoder scaling, streamed Targa rows, a whole
// read) gives the size of the rule and pixels close to a full read reduced
// by area averaging.
TEST(Thumbnail, ReductionsAgreeWithAFullReadReduced) {
    iltest::TempDir d;
    const ImageSize size{400, 300};
    const Bytes rgb = gradient(size.x, size.y);
    const struct {
        const char* name;
        ImageSize box;
        double tolerance;
    } kCases[] = {
        {"t.jpg", {100, 100}, 2.5},  // reduced 1/4 by the decoder alone
        {"t.jpg", {60, 60}, 2.5},    // 1/4, then averaged
        {"t.tga", {60, 60}, 2.5},    // the streamed rows' scaling
        {"t.png", {60, 60}, 0.5},
        {"t.gif", {60, 60}, 2.5},    // no size in the info: from the pixels
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(std::string(c.name) + " " + std::to_string(c.box.x));
        const std::string f = d.file(c.name);
        const int mode = std::string(c.name) == "t.gif" ? COLORMODE_PALETTE256 : COLORMODE_RGB;
        ASSERT_EQ(korImage_createFileFromRGB(f.c_str(), -1, mode, &size, rgb.data(), nullptr), 0);
        Freed full, small, reduced;
        ImageSize fs{}, ts{}, want{};
        ASSERT_EQ(korImage_readFileToRGB(&full.p, &fs, f.c_str(), -1, nullptr, nullptr), 0);
        ASSERT_EQ(korImage_readThumbnail(&small.p, &ts, f.c_str(), -1, &c.box, nullptr), 0);
        ASSERT_EQ(korImage_thumbnailSize(&want, &fs, &c.box), 0);
        ASSERT_EQ(ts.x, want.x);
        ASSERT_EQ(ts.y, want.y);
        ASSERT_EQ(korImage_resize(reinterpret_cast<void**>(&reduced.p), &ts, full.p, &fs, nullptr), 0);
        EXPECT_LT(meanDiff(small.p, reduced.p, size_t(ts.x) * ts.y * 3), c.tolerance);
    }
    // A box larger than the picture: the file's own pixels, as read whole.
    const std::string jpg = d.file("t.jpg");
    const ImageSize big{1000, 1000};
    Freed full, same;
    ImageSize fs{}, ts{};
    ASSERT_EQ(korImage_readFileToRGB(&full.p, &fs, jpg.c_str(), -1, nullptr, nullptr), 0);
    ASSERT_EQ(korImage_readThumbnail(&same.p, &ts, jpg.c_str(), -1, &big, nullptr), 0);
    ASSERT_EQ(ts.x, 400);
    EXPECT_EQ(std::memcmp(full.p, same.p, size_t(400) * 300 * 3), 0);
    // Stopped: no image.
    Freed none;
    auto stop = +[](int, int done) { return done == 3 ? 1 : 0; };
    const ImageSize box{60, 60};
    for (const char* name : {"t.jpg", "t.tga", "t.png"}) {
        EXPECT_EQ(korImage_readThumbnail(&none.p, &ts, d.file(name).c_str(), -1, &box, stop), IMGERR_STOPPED);
        EXPECT_EQ(none.p, nullptr);
    }
}

}  // namespace
