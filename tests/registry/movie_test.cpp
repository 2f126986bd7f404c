// FLI/FLC through the write dispatch, and the movie functions' routing and
// argument checks.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "imagelib/imagelib.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

uint16_t magicOf(const std::string& path) {
    Bytes b = iltest::readFile(path);
    return b.size() >= 6 ? uint16_t(b[4] | b[5] << 8) : 0;
}

TEST(FlicDispatch, FliOnlyAt320By200) {
    iltest::TempDir d;
    for (ImageSize size : {ImageSize{320, 200}, ImageSize{10, 10}}) {
        Bytes rgb(size_t(size.x) * size.y * 3, 90);
        const std::string path = d.file("a.fli");
        ASSERT_EQ(korImage_createFileFromRGB(path.c_str(), 14, COLORMODE_PALETTE256, &size, rgb.data(), nullptr), 0);
        EXPECT_EQ(magicOf(path), size.x == 320 ? 0xAF11 : 0xAF12);
    }
    // AVI is a movie type only: the whole-image writers do not take it.
    const ImageSize one{8, 8};
    Bytes rgb(8 * 8 * 3, 1);
    EXPECT_EQ(korImage_createFileFromRGB(d.file("a.avi").c_str(), -1, 1, &one, rgb.data(), nullptr),
              IMGERR_UNSUPPORTEDTYPE);
}

TEST(Movie, RoutingAndArguments) {
    iltest::TempDir d;
    const ImageSize size{8, 8}, tiny{8, 7};
    int st = 1;
    EXPECT_EQ(korMovie_create(&st, d.file("a.bmp").c_str(), -1, &size, 4), nullptr);
    EXPECT_EQ(st, IMGERR_UNSUPPORTEDTYPE);
    EXPECT_EQ(korMovie_create(&st, d.file("a.flc").c_str(), -1, &size, 0), nullptr);
    EXPECT_EQ(st, IMGERR_BADARG);
    EXPECT_EQ(korMovie_create(&st, d.file("a.avi").c_str(), -1, &tiny, 4), nullptr);
    EXPECT_EQ(st, IMGERR_BADARG);
    EXPECT_EQ(korMovie_create(nullptr, d.file("none/a.flc").c_str(), -1, &size, 4), nullptr);

    // A FLI/FLC movie without frames leaves no file; an AVI one is valid.
    ImageMovie* m = korMovie_create(&st, d.file("a.flc").c_str(), -1, &size, 4);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(korMovie_close(m), IMGERR_NODATA);
    EXPECT_TRUE(iltest::readFile(d.file("a.flc")).empty());
    m = korMovie_create(&st, d.file("a.dat").c_str(), 26, &size, 4);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(korMovie_close(m), 0);
    EXPECT_EQ(iltest::readFile(d.file("a.dat")).size(), 232u);

    // Two frames, counted back; other types have no frame count.
    m = korMovie_create(&st, d.file("b.fli").c_str(), -1, &size, 4);
    ASSERT_NE(m, nullptr);
    Bytes rgb(8 * 8 * 3, 50), map(64, 3);
    uint8_t pal[256] = {};
    EXPECT_EQ(korMovie_addFrameFromRGB(m, rgb.data(), nullptr), 0);
    EXPECT_EQ(korMovie_addFrameFromMap(m, map.data(), pal, pal, pal, 4, nullptr), 0);
    EXPECT_EQ(korMovie_close(m), 0);
    int frames = 0;
    EXPECT_EQ(korMovie_getFrameCount(&frames, d.file("b.fli").c_str(), -1), 0);
    EXPECT_EQ(frames, 2);
    EXPECT_EQ(korMovie_getFrameCount(&frames, d.file("a.dat").c_str(), -1), IMGERR_UNSUPPORTEDTYPE);
    EXPECT_EQ(korImage_isAVIAvailable(), 1);
}

}  // namespace
