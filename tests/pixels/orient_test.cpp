#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "rotate_images.h"

using namespace geotest;

namespace {

// What each stored orientation code does, step by step, on the grid.
Grid expected(const Grid& g, int code) {
    switch (code) {
        case 0: return mirrored(rotated(g, 90), 0);
        case 1: return rotated(g, 270);
        case 2: return rotated(g, 90);
        case 3: return mirrored(rotated(g, 270), 0);
        case 5: return mirrored(g, 1);
        case 6: return mirrored(g, 0);
        case 7: return mirrored(mirrored(g, 1), 0);
        default: return g;
    }
}

// A 4 x 4 matrix, row by row, that turns by `a` radians.
std::vector<double> turn(double a) {
    return {std::cos(a), -std::sin(a), 0, 0, std::sin(a), std::cos(a), 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
}

}  // namespace

TEST(Orientation, EveryCodeOnEveryLayout) {
    for (int format : kAllFormats) {
        Grid g = randomGrid(format, 11, 6, unsigned(format + 40));
        for (int code : {0, 1, 2, 3, 5, 6, 7, 8, 100, -1}) {
            Image img;
            fill(img, format, g);
            ASSERT_EQ(korImage_convertToUpperLeftHorizontal(&img.data, &img.size, code, format, nullptr), 0);
            EXPECT_EQ(grid(img), expected(g, code)) << "format " << format << " code " << code;
        }
    }
}

TEST(Orientation, CodeFourFollowsTheMatrixAngle) {
    using std::numbers::pi;
    Grid g = randomGrid(IMAGEFORMAT_MAP, 5, 3, 9);
    // (angle, the quarter turn expected or 0). [pi/2, pi] gives 90 too: the
    // test that would select 180 there never holds.
    const std::pair<double, int> cases[] = {{0.1, 0},         {pi / 4 + 1e-9, 90},      {3 * pi / 4, 90},
                                            {pi - 1e-9, 90},  {-pi + 1e-9, 180},        {-3 * pi / 4 + 1e-9, 270},
                                            {-pi / 3, 270},   {-pi / 4 + 1e-9, 0}};
    for (auto [angle, quarter] : cases) {
        Image img;
        fill(img, IMAGEFORMAT_MAP, g);
        auto m = turn(angle);
        ASSERT_EQ(korImage_transformToUpperLeftHorizontal(&img.data, &img.size, 4, IMAGEFORMAT_MAP, m.data(), nullptr),
                  0);
        EXPECT_EQ(grid(img), quarter ? rotated(g, quarter) : g) << "angle " << angle;
    }
    // Nothing without a matrix, with m[1] or m[0] (almost) zero.
    const std::vector<double> identity = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    auto straightUp = turn(pi / 2);
    straightUp[0] = 0;
    for (const double* m : {static_cast<const double*>(nullptr), identity.data(),
                            static_cast<const double*>(straightUp.data())}) {
        Image img;
        fill(img, IMAGEFORMAT_MAP, g);
        void* const before = img.data;
        ASSERT_EQ(korImage_transformToUpperLeftHorizontal(&img.data, &img.size, 4, IMAGEFORMAT_MAP, m, nullptr), 0);
        EXPECT_EQ(img.data, before);
        EXPECT_EQ(grid(img), g);
    }
}

TEST(Orientation, AFailedRotationSkipsTheMirror) {
    Grid g = randomGrid(IMAGEFORMAT_MAP, 4, 4, 2);
    Image img;
    fill(img, IMAGEFORMAT_MAP, g);
    PollScope ps;
    ps.log.stopAt = 1;
    EXPECT_EQ(korImage_convertToUpperLeftHorizontal(&img.data, &img.size, 0, IMAGEFORMAT_MAP, recordPoll),
              IMGERR_STOPPED);
    EXPECT_EQ(ps.log.calls.size(), 2u);  // no poll of a mirror after the stop
    EXPECT_EQ(grid(img), g);
    EXPECT_EQ(korImage_convertToUpperLeftHorizontal(&img.data, &img.size, 2, 0, nullptr), IMGERR_BADARG);
}
