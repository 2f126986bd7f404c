// BMP codec on sample files written by other programs: the same picture
// stored in different ways decodes to the same pixels.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "bmp_decode.h"
#include "test_support.h"

namespace {

using bmptest::Picture;

Picture decode(const std::string& name) { return bmptest::decode(iltest::corpusFile("bmp/" + name)); }

class BmpCorpus : public ::testing::Test {
protected:
    void SetUp() override {
        if (iltest::corpusFile("bmp/g/pal8.bmp").empty()) GTEST_SKIP() << "sample corpus absent";
    }
};

TEST_F(BmpCorpus, StorageVariantsOfOnePictureAgree) {
    const Picture rgb24 = decode("g/rgb24.bmp"), rgb24pal = decode("g/rgb24pal.bmp");
    ASSERT_EQ(rgb24.status, 0);
    EXPECT_EQ(rgb24.size.x, 127);
    EXPECT_EQ(rgb24.size.y, 64);
    EXPECT_EQ(rgb24pal.rgb, rgb24.rgb);  // a palette the 24-bit rows do not use

    // Run-length, core-header, top-down and no-colour-count variants of the
    // 8-bit picture.
    const Picture pal8 = decode("g/pal8.bmp");
    ASSERT_EQ(pal8.status, 0);
    EXPECT_EQ(pal8.size.y, 64);
    for (const char* name : {"g/pal8rle.bmp", "g/pal8-0.bmp", "g/pal8os2.bmp", "g/pal8topdown.bmp"}) {
        const Picture d = decode(name);
        ASSERT_EQ(d.status, 0) << name;
        EXPECT_EQ(d.indices, pal8.indices) << name;
        EXPECT_EQ(d.rgb, pal8.rgb) << name;
    }
    const Picture pal4 = decode("g/pal4.bmp"), pal4rle = decode("g/pal4rle.bmp");
    ASSERT_EQ(pal4.status, 0);
    ASSERT_EQ(pal4rle.status, 0);
    EXPECT_EQ(pal4.rgb, pal4rle.rgb);

    // Two-colour files: the inverted palette gives the same picture from
    // complemented indices; other colours give the same indices.
    const Picture pal1 = decode("g/pal1.bmp"), wb = decode("g/pal1wb.bmp"), bg = decode("g/pal1bg.bmp");
    ASSERT_EQ(pal1.status, 0);
    EXPECT_EQ(wb.rgb, pal1.rgb);
    EXPECT_NE(wb.indices, pal1.indices);
    EXPECT_EQ(bg.indices, pal1.indices);
    EXPECT_NE(bg.rgb, pal1.rgb);

    // Odd widths and a non-square picture.
    for (auto [name, w, h] : {std::tuple{"g/pal8w124.bmp", 124, 61}, {"g/pal8w125.bmp", 125, 62},
                              {"g/pal8w126.bmp", 126, 63}, {"g/pal8nonsquare.bmp", 127, 32}}) {
        const Picture d = decode(name);
        ASSERT_EQ(d.status, 0) << name;
        EXPECT_EQ(d.size.x, w);
        EXPECT_EQ(d.size.y, h);
    }
}

TEST_F(BmpCorpus, TrueColourAndVersionHeadersReadAsTheirPlainForms) {
    // 32-bit files (no masks, and bit fields in another channel order) and
    // the version 4 and 5 headers hold the pictures of rgb24 and pal8.
    const Picture rgb24 = decode("g/rgb24.bmp"), pal8 = decode("g/pal8.bmp");
    for (const char* name : {"g/rgb32.bmp", "g/rgb32bf.bmp"}) EXPECT_EQ(decode(name).rgb, rgb24.rgb) << name;
    for (const char* name : {"g/pal8v4.bmp", "g/pal8v5.bmp"}) EXPECT_EQ(decode(name).rgb, pal8.rgb) << name;
    // 16-bit files: 5-5-5 and 5-6-5 of the same picture, with and without a
    // palette that the pixels do not use.
    const Picture rgb16 = decode("g/rgb16.bmp"), rgb565 = decode("g/rgb16-565.bmp");
    ASSERT_EQ(rgb16.status, 0);
    ASSERT_EQ(rgb565.status, 0);
    EXPECT_EQ(decode("g/rgb16-565pal.bmp").rgb, rgb565.rgb);
    int worst = 0;
    for (size_t i = 0; i < rgb24.rgb.size(); ++i) worst = std::max(worst, std::abs(rgb16.rgb[i] - rgb24.rgb[i]));
    EXPECT_LE(worst, 7);  // five bits a channel
}

}  // namespace
