// Median-cut palettes: hand-worked cuts that pin the split axis, the split
// point, the crosswise counts and the saturating histogram; wanted counts;
// the stop poll; allocation failure.
#include <gtest/gtest.h>

#include <cstdlib>
#include <tuple>
#include <vector>

#include "imagelib/host.h"
#include "imagelib/pixels.h"
#include "internal/scratch.h"

namespace {

using Colour = std::tuple<int, int, int>;
using Colours = std::vector<Colour>;

// Row-planar image of `width` columns holding `n` pixels of each colour in
// turn (the last row padded with the last colour).
struct Image {
    std::vector<uint8_t> rgb;
    ImageSize size{};
    Image(const std::vector<std::pair<Colour, int>>& runs, int width) {
        Colours pixels;
        for (const auto& [c, n] : runs) pixels.insert(pixels.end(), size_t(n), c);
        size = {width, int((pixels.size() + size_t(width) - 1) / size_t(width))};
        pixels.resize(size_t(size.x) * size_t(size.y), pixels.back());
        rgb.resize(3 * pixels.size());
        for (size_t i = 0, w = size_t(width); i < pixels.size(); ++i) {
            uint8_t* px = rgb.data() + 3 * w * (i / w) + i % w;
            std::tie(px[0], px[w], px[2 * w]) = pixels[i];
        }
    }
};

// The palette (empty when none) and the status.
Colours optimise(const Image& img, int wanted, StopFunction stop = nullptr, int* status = nullptr) {
    uint8_t r[256], g[256], b[256];
    int count = -7;
    const int st = korImage_getOptimizedPalette(r, g, b, &count, wanted, img.rgb.data(), &img.size, stop);
    if (status) *status = st;
    Colours out;
    for (int i = 0; i < count; ++i) out.emplace_back(r[i], g[i], b[i]);
    return out;
}

TEST(Palette, SingleColourImagesGiveTheirCellCentre) {
    int status = -1;
    EXPECT_EQ((Colours{{248, 248, 248}}), optimise(Image({{{255, 255, 255}, 100}}, 10), 256, nullptr, &status));
    EXPECT_EQ(0, status);
    // One cell, nothing to split however many colours are wanted.
    EXPECT_EQ((Colours{{96, 144, 200}}), optimise(Image({{{100, 150, 201}, 30}}, 7), 16));
    // Two colours far apart: the cut lands just before the upper one.
    EXPECT_EQ((Colours{{0, 0, 0}, {248, 248, 248}}), optimise(Image({{{0, 0, 0}, 5}, {{255, 255, 255}, 9}}, 7), 2));
}

TEST(Palette, WantedCountsOutsideTheRangeMean256) {
    // 512 distinct cells: every wanted count up to 256 is reached.
    std::vector<std::pair<Colour, int>> runs;
    for (int i = 0; i < 512; ++i) runs.push_back({{(i & 7) * 32, ((i >> 3) & 7) * 32, (i >> 6) * 32}, 1 + i % 3});
    Image img(runs, 64);
    for (auto [wanted, got] : {std::pair{0, 256u}, {300, 256u}, {-1, 256u}, {1, 1u}, {100, 100u}})
        EXPECT_EQ(got, optimise(img, wanted).size()) << wanted;
    // No channel can exceed the centre of the top cell.
    for (const auto& [r, g, b] : optimise(img, 256)) EXPECT_TRUE(r <= 248 && g <= 248 && b <= 248);
}

TEST(Palette, SplitAxisRule) {
    // Red and blue extents equal, green flat: red is cut.
    Image rb({{{0, 0, 0}, 4}, {{0, 0, 255}, 4}, {{255, 0, 255}, 4}}, 4);
    EXPECT_EQ((Colours{{0, 0, 124}, {248, 0, 248}}), optimise(rb, 2));
    // Red and green extents equal: green is cut.
    Image rg({{{0, 0, 0}, 4}, {{0, 255, 0}, 4}, {{255, 255, 0}, 4}}, 4);
    EXPECT_EQ((Colours{{0, 0, 0}, {124, 248, 0}}), optimise(rg, 2));
    // Red shorter than blue: blue is cut.
    Image b({{{0, 0, 0}, 4}, {{0, 0, 255}, 4}, {{128, 0, 255}, 4}}, 4);
    EXPECT_EQ((Colours{{0, 0, 0}, {64, 0, 248}}), optimise(b, 2));
}

TEST(Palette, SplitPointAndSaturatedCounts) {
    // Green slices 0, 10, 20 hold 1, 2, 3 pixels: half of 6 is 3, and
    // 1 + 2 is not greater than 3, so slice 10 joins the lower part, which
    // shrinks to green 0..10.
    Image a({{{0, 0, 0}, 1}, {{0, 80, 0}, 2}, {{0, 160, 0}, 3}}, 3);
    EXPECT_EQ((Colours{{0, 40, 0}, {0, 160, 0}}), optimise(a, 2));

    // Slices 0, 10, 20, 30 with 100 pixels each in the first three and 512
    // or 1040 in the last, which counts as 255 either way: half of 555 is
    // 277, so the cut falls before slice 20. (Unsaturated, half of 812
    // would put it before slice 30.)
    for (int many : {512, 1040}) {
        Image b({{{0, 240, 0}, many}, {{0, 0, 0}, 100}, {{0, 80, 0}, 100}, {{0, 160, 0}, 100}}, 16);
        EXPECT_EQ((Colours{{0, 40, 0}, {0, 200, 0}}), optimise(b, 2)) << many;
    }
}

TEST(Palette, PartsTakeTheirCountsCrosswise) {
    // First cut across green: the lower part (two dark colours, 20 pixels)
    // is given 100 and the upper part (100 pixels) 20, so the lower part is
    // cut next although it holds fewer pixels; its red half is appended.
    Image img({{{0, 0, 0}, 10}, {{255, 0, 0}, 10}, {{0, 255, 0}, 50}, {{255, 255, 0}, 50}}, 10);
    EXPECT_EQ((Colours{{0, 0, 0}, {124, 248, 0}, {248, 0, 0}}), optimise(img, 3));

    // On equal counts the later box is cut: after the first cut across
    // green, the lower part is given 8 (the upper part's pixels) and the
    // upper part 8, so the upper part, later in the list, is cut.
    Image tie({{{0, 0, 0}, 4}, {{255, 0, 0}, 4}, {{0, 255, 0}, 4}, {{255, 255, 0}, 4}}, 4);
    EXPECT_EQ((Colours{{124, 0, 0}, {0, 248, 0}, {248, 248, 0}}), optimise(tie, 3));
}

// A stop function that answers 42 on a given poll and counts the polls.
int g_polls = 0, g_stopAt = 0, g_lastArgs[2] = {-1, -1};
int countingStop(int total, int done) {
    g_lastArgs[0] = total, g_lastArgs[1] = done;
    return ++g_polls == g_stopAt ? 42 : 0;
}

TEST(Palette, StopPollOncePerRow) {
    Image img({{{10, 20, 30}, 12}, {{200, 100, 0}, 12}}, 4);  // 6 rows
    g_polls = g_stopAt = 0;
    int status = -1;
    optimise(img, 16, countingStop, &status);
    EXPECT_EQ(0, status);
    EXPECT_EQ(img.size.y, g_polls);
    EXPECT_EQ(std::pair(g_lastArgs[0], g_lastArgs[1]), std::pair(0, 0));

    // Stopped on the third row: result 1, palette and count untouched.
    g_polls = 0;
    g_stopAt = 3;
    uint8_t r[256] = {9}, g[256] = {9}, b[256] = {9};
    int count = -7;
    EXPECT_EQ(1, korImage_getOptimizedPalette(r, g, b, &count, 16, img.rgb.data(), &img.size, countingStop));
    EXPECT_EQ(3, g_polls);
    EXPECT_EQ(-7, count);
    EXPECT_EQ(9, r[0]);
}

void* refuseBoxes(size_t n, uint32_t tag) { return tag == il::tag("PaBx") ? nullptr : std::malloc(n); }

TEST(Palette, NoRoomForTheBoxesGivesNoColours) {
    ImageHost h{};
    h.scratchMalloc = refuseBoxes;
    imagelib_setHost(&h);
    Image img({{{10, 20, 30}, 4}}, 2);
    uint8_t r[256], g[256], b[256];
    int count = -7;
    const int status = korImage_getOptimizedPalette(r, g, b, &count, 16, img.rgb.data(), &img.size, nullptr);
    imagelib_setHost(nullptr);
    EXPECT_EQ(0, status);
    EXPECT_EQ(0, count);
}

}  // namespace
