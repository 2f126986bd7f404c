// Transparency masks: colour with tolerance, palette index, alpha threshold,
// and the mask applied to RGB.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <vector>

#include "imagelib/pixels.h"

namespace {

using Bytes = std::vector<uint8_t>;

bool bit(const Bytes& mask, int w, int x, int y) {
    return (mask[size_t((w + 7) / 8) * y + x / 8] >> (7 - x % 8)) & 1;
}

// A random row-planar RGB image of w x h with values near 100 so that
// tolerances around it matter.
Bytes randomPlanes(int w, int h, int planes, unsigned seed) {
    std::mt19937 rng(seed);
    Bytes b(size_t(w) * h * planes);
    for (auto& v : b) v = uint8_t(95 + rng() % 11);
    return b;
}

TEST(Mask, ColourWithinToleranceOnEveryChannelInEachLayout) {
    const int w = 13, h = 5;  // rows with padding bits
    const Bytes planar = randomPlanes(w, h, 3, 1);
    // The same pixels interleaved (RGB and RGBA).
    Bytes rgb(size_t(w) * h * 3), rgba(size_t(w) * h * 4, 77);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 3; ++c) {
                const uint8_t v = planar[size_t(y) * 3 * w + size_t(c) * w + x];
                rgb[(size_t(y) * w + x) * 3 + c] = v;
                rgba[(size_t(y) * w + x) * 4 + c] = v;
            }
    const ImageSize size{w, h};
    const uint8_t colour[3] = {100, 98, 103};
    for (int tol : {0, 2, 5}) {
        for (auto [image, layout] : {std::pair<const Bytes*, int>{&planar, 5}, {&rgb, 6}, {&rgba, 7}}) {
            Bytes mask(size_t((w + 7) / 8) * h, 0xAA);
            ASSERT_EQ(korImage_makeColourMask(mask.data(), image->data(), &size, layout, colour, tol, nullptr), 0);
            int set = 0;
            for (int y = 0; y < h; ++y) {
                for (int x = 0; x < w; ++x) {
                    bool want = true;
                    for (int c = 0; c < 3; ++c)
                        want &= std::abs(planar[size_t(y) * 3 * w + size_t(c) * w + x] - colour[c]) <= tol;
                    EXPECT_EQ(bit(mask, w, x, y), want) << "tol " << tol << " layout " << layout;
                    set += want;
                }
                EXPECT_EQ(mask[size_t(y) * 2 + 1] & 0x07, 0) << "padding bits are clear";
            }
            if (tol == 5) EXPECT_GT(set, 0);
        }
    }
}

TEST(Mask, IndexAndAlphaThreshold) {
    const int w = 9, h = 3;
    const ImageSize size{w, h};
    Bytes map(size_t(w) * h);
    for (size_t i = 0; i < map.size(); ++i) map[i] = uint8_t(i % 4);
    Bytes mask(size_t(2) * h);
    ASSERT_EQ(korImage_makeIndexMask(mask.data(), map.data(), &size, 2, nullptr), 0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) EXPECT_EQ(bit(mask, w, x, y), map[size_t(y) * w + x] == 2);

    // Alpha below the threshold is transparent, in interleaved RGBA and in
    // rows of four planes.
    Bytes planes = randomPlanes(w, h, 4, 2), inter(planes.size());
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            planes[size_t(y) * 4 * w + 3 * size_t(w) + x] = uint8_t(x * 30);
            for (int c = 0; c < 4; ++c)
                inter[(size_t(y) * w + x) * 4 + c] = planes[size_t(y) * 4 * w + size_t(c) * w + x];
        }
    for (int threshold : {0, 90, 256}) {
        Bytes a(mask.size()), b(mask.size());
        ASSERT_EQ(korImage_makeAlphaMask(a.data(), inter.data(), &size, 7, threshold, nullptr), 0);
        ASSERT_EQ(korImage_makeAlphaMask(b.data(), planes.data(), &size, 5, threshold, nullptr), 0);
        EXPECT_EQ(a, b);
        for (int x = 0; x < w; ++x) EXPECT_EQ(bit(a, w, x, 1), x * 30 < threshold) << threshold;
    }
}

TEST(Mask, ApplyGivesInterleavedOrPlanarRGBA) {
    const int w = 11, h = 2;
    const ImageSize size{w, h};
    const Bytes rgb = randomPlanes(w, h, 3, 3);
    Bytes mask(size_t(2) * h, 0);
    mask[0] = 0x81;  // pixels 0 and 7 of row 0
    mask[3] = 0x20;  // pixel 10 of row 1
    Bytes inter(size_t(w) * h * 4), planar(inter.size());
    ASSERT_EQ(korImage_applyMask(inter.data(), rgb.data(), &size, mask.data(), 0, nullptr), 0);
    ASSERT_EQ(korImage_applyMask(planar.data(), rgb.data(), &size, mask.data(), 1, nullptr), 0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const bool clear = (y == 0 && (x == 0 || x == 7)) || (y == 1 && x == 10);
            const uint8_t* p = &inter[(size_t(y) * w + x) * 4];
            for (int c = 0; c < 3; ++c) {
                EXPECT_EQ(p[c], rgb[size_t(y) * 3 * w + size_t(c) * w + x]);
                EXPECT_EQ(planar[size_t(y) * 4 * w + size_t(c) * w + x], p[c]);
            }
            EXPECT_EQ(p[3], clear ? 0 : 255);
            EXPECT_EQ(planar[size_t(y) * 4 * w + 3 * size_t(w) + x], p[3]);
        }
}

TEST(Mask, RefusalsAndStop) {
    const ImageSize size{4, 4}, empty{0, 4};
    Bytes img(64), mask(4);
    const uint8_t colour[3] = {};
    EXPECT_EQ(korImage_makeColourMask(mask.data(), img.data(), &size, 3, colour, 0, nullptr), IMGERR_BADIMAGEFORMAT);
    EXPECT_EQ(korImage_makeColourMask(mask.data(), img.data(), &size, 5, colour, -1, nullptr), IMGERR_BADARG);
    EXPECT_EQ(korImage_makeColourMask(mask.data(), img.data(), &empty, 5, colour, 0, nullptr), IMGERR_BADARG);
    EXPECT_EQ(korImage_makeIndexMask(mask.data(), img.data(), &size, 256, nullptr), IMGERR_BADARG);
    EXPECT_EQ(korImage_makeAlphaMask(mask.data(), img.data(), &size, 6, 10, nullptr), IMGERR_BADIMAGEFORMAT);
    EXPECT_EQ(korImage_makeAlphaMask(mask.data(), img.data(), &size, 7, 257, nullptr), IMGERR_BADARG);
    EXPECT_EQ(korImage_applyMask(img.data(), img.data(), &size, nullptr, 0, nullptr), IMGERR_BADARG);
    // The stop poll's answer ends the job and is returned.
    auto stop = +[](int, int done) { return done == 2 ? 7 : 0; };
    EXPECT_EQ(korImage_makeIndexMask(mask.data(), img.data(), &size, 0, stop), 7);
}

}  // namespace
