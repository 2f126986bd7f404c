// BMP codec on sample files written by other programs: the same picture
// stored in different ways decodes to the same pixels, and the variants the
// codec does not read are refused with a status.
#include <gtest/gtest.h>

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

TEST_F(BmpCorpus, UnsupportedVariantsAreRefused) {
    // 16 and 32 bits a pixel: no image format; not readable as map or RGB.
    for (const char* name : {"g/rgb16.bmp", "g/rgb16-565.bmp", "g/rgb16-565pal.bmp", "g/rgb32.bmp", "g/rgb32bf.bmp"}) {
        const std::string path = iltest::corpusFile(std::string("bmp/") + name);
        ImageSize size;
        int format;
        const int st = imageBmp_readInfo(&size, &format, path.c_str());
        EXPECT_TRUE(st == IMGERR_BADFILE || st == IMGERR_BADFORMAT) << name << " " << st;
        uint8_t* rgb = nullptr;
        EXPECT_EQ(imageBmp_readToRGB(&rgb, &size, path.c_str()), IMGERR_UNSUPPORTEDTYPE) << name;
    }
    // Version 4 and 5 info headers.
    for (const char* name : {"g/pal8v4.bmp", "g/pal8v5.bmp", "hopper.bmp"})
        EXPECT_EQ(decode(name).status, IMGERR_BADFILE) << name;
}

}  // namespace
