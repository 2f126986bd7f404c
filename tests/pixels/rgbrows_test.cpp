// Interleaved RGB rows to row planes and back, across the 16-pixel vector
// steps and their scalar tails.
#include <gtest/gtest.h>

#include <vector>

#include "pixels/rgbrows.h"

TEST(RgbRows, PlanesAndInterleavedAgreeAtEveryWidth) {
    for (size_t width : {1, 15, 16, 17, 33, 100}) {
        std::vector<uint8_t> rgb(3 * width), planes(3 * width), back(3 * width);
        for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = uint8_t(i * 7 + 3);
        il::rgbRowToPlanes(planes.data(), rgb.data(), width);
        for (size_t x = 0; x < width; ++x)
            for (size_t c = 0; c < 3; ++c) ASSERT_EQ(planes[c * width + x], rgb[3 * x + c]) << width << " " << x;
        il::planesToRGBRow(back.data(), planes.data(), width);
        EXPECT_EQ(back, rgb) << width;
    }
}
