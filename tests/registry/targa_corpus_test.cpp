// Targa files written by another program: each image is stored raw and
// run-length coded, bottom-up and top-down, and all four must read as the
// same upright picture.
#include <gtest/gtest.h>

#include <algorithm>

#include "registry/targa.h"
#include "stream_test_util.h"
#include "test_support.h"

namespace {

TEST(TargaCorpus, AllStoragesOfAnImageAgree) {
    if (iltest::corpusFile("tga/common/1x1_l_bl_raw.tga").empty()) GTEST_SKIP() << "no sample corpus";
    const std::pair<const char*, int> kinds[] = {{"200x32_rgb", COLORMODE_RGB},     {"200x32_rgba", COLORMODE_RGBA},
                                                 {"200x32_p", COLORMODE_PALETTE256}, {"200x32_l", COLORMODE_BILEVEL},
                                                 {"200x32_la", COLORMODE_BILEVEL},   {"1x1_l", COLORMODE_BILEVEL}};
    for (const auto& [name, mode] : kinds) {
        stest::Planar reference;
        for (const char* storage : {"bl_raw", "bl_rle", "tl_raw", "tl_rle"}) {
            const std::string path = iltest::corpusFile("tga/common/" + std::string(name) + "_" + storage + ".tga");
            ASSERT_FALSE(path.empty()) << name << " " << storage;
            ImageSize size{};
            int fileMode = 0, orientation = 0;
            ASSERT_EQ(imageTga_readInfo(&size, &fileMode, &orientation, path.c_str()), 0) << path;
            EXPECT_EQ(fileMode, mode) << path;
            EXPECT_EQ(orientation, storage[0] == 'b' ? 6 : 4) << path;
            stest::Planar img;
            ASSERT_EQ(stest::readStream(path, nullptr, &img, nullptr, mode == COLORMODE_RGBA), 0) << path;
            EXPECT_EQ(img.size.x * 1000 + img.size.y, size.x * 1000 + size.y);
            const stest::Planar up = stest::upright(img, orientation);
            if (reference.data.empty())
                reference = up;
            else
                EXPECT_EQ(up.data, reference.data) << path;
        }
        // Not a flat picture: a decoder that loses the data fails here.
        EXPECT_TRUE(reference.size.x == 1 ||
                    std::count(reference.data.begin(), reference.data.end(), reference.data[0]) <
                        long(reference.data.size()))
            << name;
    }
}

}  // namespace
