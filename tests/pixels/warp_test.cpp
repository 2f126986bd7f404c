#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "pixels/warp.h"
#include "rotate_images.h"

using namespace geotest;

namespace {

constexpr int kWarpFormats[] = {1, 3, 5, 6, 7};

int warpInto(Image& out, const Image& src, ImageSize to, const double m[6], int interp, const uint8_t* bg,
             StopFunction stop = nullptr) {
    out.reset();
    out.format = src.format;
    out.size = to;
    return korImage_warp(&out.data, &to, src.data, &src.size, src.format, m, interp, bg, stop);
}

// A smooth picture (sums of slow waves) for the resampling round trips.
Grid smoothGrid(int format, int32_t w, int32_t h) {
    Grid g{w, h, gridBytes(format), std::vector<uint8_t>(size_t(w) * size_t(h) * size_t(gridBytes(format)))};
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x)
            for (int c = 0; c < g.bpp; ++c)
                g.at(x, y)[c] = uint8_t(127.5 + 60 * std::sin(x * 0.11 + c) + 60 * std::cos(y * 0.07 - c));
    return g;
}

// Straightforward sampling of one channel at source point (x, y) in double
// precision, the background where a tap is outside.
double referenceSample(Grid& g, int c, double x, double y, int interp, double bg) {
    auto at = [&](int32_t i, int32_t j) -> double {
        return i >= 0 && j >= 0 && i < g.w && j < g.h ? g.at(i, j)[c] : bg;
    };
    if (interp == IMAGEWARP_NEAREST) return at(int32_t(std::floor(x)), int32_t(std::floor(y)));
    const double sx = x - 0.5, sy = y - 0.5;
    const int32_t x0 = int32_t(std::floor(sx)), y0 = int32_t(std::floor(sy));
    const double fx = sx - x0, fy = sy - y0;
    if (interp == IMAGEWARP_BILINEAR)
        return (at(x0, y0) * (1 - fx) + at(x0 + 1, y0) * fx) * (1 - fy) +
               (at(x0, y0 + 1) * (1 - fx) + at(x0 + 1, y0 + 1) * fx) * fy;
    auto w = [](double t) {  // Catmull-Rom
        t = std::fabs(t);
        return t < 1 ? 1.5 * t * t * t - 2.5 * t * t + 1 : t < 2 ? -0.5 * t * t * t + 2.5 * t * t - 4 * t + 2 : 0;
    };
    double sum = 0;
    for (int r = -1; r <= 2; ++r)
        for (int k = -1; k <= 2; ++k) sum += w(fx - k) * w(fy - r) * at(x0 + k, y0 + r);
    return std::clamp(sum, 0.0, 255.0);
}

// The destination point's source point through the inverse of m.
void sourcePoint(const double m[6], double X, double Y, double* x, double* y) {
    double inv[6];
    ASSERT_TRUE(il::invertMatrix(inv, m));
    *x = inv[0] * X + inv[2] * Y + inv[4];
    *y = inv[1] * X + inv[3] * Y + inv[5];
}

}  // namespace

// The quarter-turn path is taken bit for bit, for every layout and for
// angles that reduce to a quarter turn; 0 is a copy.
TEST(RotateAngle, MultiplesOfNinetyAreTheQuarterTurnsAndZeroIsTheIdentity) {
    const double angles[] = {0, 90, 180, 270, -90, 450, 360, -180};
    for (int format : kAllFormats)
        for (double angle : angles) {
            SCOPED_TRACE(testing::Message() << "layout " << format << " angle " << angle);
            Image src, got;
            fill(src, format, randomGrid(format, 13, 6, unsigned(format)));
            got.format = format;
            got.size = src.size;
            ASSERT_EQ(korImage_rotateAngle(&got.data, &got.size, src.data, &src.size, format, angle,
                                           IMAGEWARP_BICUBIC, nullptr, nullptr),
                      0);
            const int turn = ((int(angle) % 360) + 360) % 360;
            const Grid want = turn == 0 ? grid(src) : rotated(grid(src), turn);
            EXPECT_EQ(got.size.x, want.w);
            EXPECT_EQ(got.size.y, want.h);
            EXPECT_TRUE(grid(got) == want);
            EXPECT_NE(got.data, src.data);
        }
    // In place (result and size record shared with the source): the source
    // is replaced and freed.
    Image img;
    const Grid g = randomGrid(5, 9, 4, 3);
    fill(img, 5, g);
    ASSERT_EQ(korImage_rotateAngle(&img.data, &img.size, img.data, &img.size, 5, 90, 1, nullptr, nullptr), 0);
    EXPECT_TRUE(grid(img) == rotated(g, 90));
    ASSERT_EQ(korImage_rotateAngle(&img.data, &img.size, img.data, &img.size, 5, 33, 1, nullptr, nullptr), 0);
    ImageSize want;
    ASSERT_TRUE(il::rotatedSize(&want, {4, 9}, 33));
    EXPECT_EQ(img.size.x, want.x);
}

// ceil of the exact box; a side that is a whole number up to rounding keeps it.
TEST(RotateAngle, BoundingBoxSizes) {
    const struct {
        ImageSize from;
        double degrees;
        ImageSize want;
    } cases[] = {{{100, 50}, 30, {112, 94}},  {{100, 50}, -30, {112, 94}}, {{100, 100}, 45, {142, 142}},
                 {{1, 1}, 45, {2, 2}},        {{200, 3}, 135, {144, 144}}, {{100, 100}, 0.001, {101, 101}},
                 {{37, 21}, 300, {37, 43}},   {{30, 40}, 36.86989764584402, {48, 50}}};  // cos 0.8, sin 0.6
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.from.x << "x" << c.from.y << " by " << c.degrees);
        Image src, out;
        fill(src, 3, randomGrid(3, c.from.x, c.from.y, 1));
        out.format = 3;
        ASSERT_EQ(korImage_rotateAngle(&out.data, &out.size, src.data, &src.size, 3, c.degrees, 0, nullptr, nullptr),
                  0);
        EXPECT_EQ(out.size.x, c.want.x);
        EXPECT_EQ(out.size.y, c.want.y);
    }
}

// Every layout and filter against a plain double-precision sampler, for
// matrices that turn, shear, enlarge, shrink and mirror, so that the pixels
// of the span loop, of the edges and of the background are all compared.
TEST(Warp, AgreesWithAReferenceSamplerEverywhere) {
    const double matrices[][6] = {
        {0.8660254, -0.5, 0.5, 0.8660254, 3.2, 21.7},  // 30 degrees
        {1.7, 0.3, -0.2, 1.3, -4.1, 2.9},               // enlarging shear
        {0.45, 0.1, 0.05, 0.6, 1.5, 0.25},              // shrinking
        {-1, 0, 0, 1, 40.5, 0},                         // mirrored, half-pixel shift
        {0, 1, -1, 0, 30.3, 2.2},                       // a quarter turn off the grid
    };
    const uint8_t bg[4] = {200, 10, 99, 7};
    for (int format : kWarpFormats)
        for (int interp : {0, 1, 2})
            for (const auto& m : matrices) {
                SCOPED_TRACE(testing::Message() << "layout " << format << " filter " << interp << " m0 " << m[0]);
                Grid g = randomGrid(format, 37, 29, unsigned(format + interp));
                Image src, out;
                fill(src, format, g);
                const ImageSize to{45, 41};
                ASSERT_EQ(warpInto(out, src, to, m, interp, bg), 0);
                const Grid got = grid(out);
                const int effective = format <= 4 ? 0 : interp;  // bits and indices go by nearest neighbour
                const int tolerance = effective == 0 ? 0 : effective == 1 ? 1 : 2;
                int worst = 0;
                for (int32_t j = 0; j < to.y; ++j)
                    for (int32_t i = 0; i < to.x; ++i) {
                        double x = 0, y = 0;
                        sourcePoint(m, i + 0.5, j + 0.5, &x, &y);
                        // The nearest neighbour of a point on a pixel border may go either way.
                        if (effective == 0 && (std::fabs(x - std::round(x)) < 1e-6 || std::fabs(y - std::round(y)) < 1e-6))
                            continue;
                        for (int c = 0; c < g.bpp; ++c) {
                            const double want = referenceSample(g, c, x, y, effective, format == 1 ? bg[0] != 0 : bg[c]);
                            const int diff = std::abs(int(got.px[(size_t(j) * to.x + i) * g.bpp + c]) - int(std::lround(want)));
                            worst = std::max(worst, diff);
                        }
                    }
                EXPECT_LE(worst, tolerance);
            }
}

// A whole-pixel translation moves every pixel exactly, whatever the filter;
// what it uncovers is the background.
TEST(Warp, WholePixelTranslationShiftsExactly) {
    const uint8_t bg[4] = {1, 2, 3, 4};
    for (int format : kWarpFormats)
        for (int interp : {0, 1, 2})
            for (auto [tx, ty] : {std::pair{3, -2}, std::pair{-5, 4}, std::pair{0, 0}}) {
                SCOPED_TRACE(testing::Message() << "layout " << format << " filter " << interp << " by " << tx << ","
                                                << ty);
                const Grid g = randomGrid(format, 19, 11, 7);
                Image src, out;
                fill(src, format, g);
                const double m[6] = {1, 0, 0, 1, double(tx), double(ty)};
                ASSERT_EQ(warpInto(out, src, src.size, m, interp, bg), 0);
                Grid want = g;
                for (int32_t y = 0; y < g.h; ++y)
                    for (int32_t x = 0; x < g.w; ++x) {
                        const int32_t sx = x - tx, sy = y - ty;
                        for (int c = 0; c < g.bpp; ++c)
                            want.at(x, y)[c] = sx >= 0 && sy >= 0 && sx < g.w && sy < g.h
                                                   ? const_cast<Grid&>(g).at(sx, sy)[c]
                                                   : format == 1 ? 1 : bg[c];
                    }
                EXPECT_TRUE(grid(out) == want);
            }
}

// Turning by 30 and back by -30 with the bicubic filter comes back close in
// the middle of the picture; the corners of the turned picture are the
// background exactly.
TEST(RotateAngle, ThereAndBackAgainAndTheBackgroundAroundIt) {
    for (int format : {5, 6, 7}) {
        SCOPED_TRACE(format);
        const Grid g = smoothGrid(format, 120, 90);
        Image src, turned, back;
        fill(src, format, g);
        const uint8_t bg[4] = {255, 0, 128, 66};
        turned.format = back.format = format;
        ASSERT_EQ(korImage_rotateAngle(&turned.data, &turned.size, src.data, &src.size, format, 30, IMAGEWARP_BICUBIC,
                                       bg, nullptr),
                  0);
        const Grid t = grid(turned);
        for (auto [x, y] : {std::pair{0, 0}, std::pair{t.w - 1, 0}, std::pair{0, t.h - 1}, std::pair{t.w - 1, t.h - 1}})
            for (int c = 0; c < t.bpp; ++c) EXPECT_EQ(const_cast<Grid&>(t).at(x, y)[c], bg[c]);
        ASSERT_EQ(korImage_rotateAngle(&back.data, &back.size, turned.data, &turned.size, format, -30,
                                       IMAGEWARP_BICUBIC, bg, nullptr),
                  0);
        // The twice-turned box is larger; the picture sits at its centre.
        Grid b = grid(back);
        double sum = 0;
        int count = 0;
        for (int32_t y = g.h / 4; y < 3 * g.h / 4; ++y)
            for (int32_t x = g.w / 4; x < 3 * g.w / 4; ++x)
                for (int c = 0; c < g.bpp; ++c, ++count) {
                    const double bx = x + 0.5 + (b.w - g.w) / 2.0, by = y + 0.5 + (b.h - g.h) / 2.0;
                    const double v = referenceSample(b, c, bx, by, IMAGEWARP_BILINEAR, 0);
                    sum += std::fabs(v - const_cast<Grid&>(g).at(x, y)[c]);
                }
        EXPECT_LT(sum / count, 1.5);
    }
    // Palette images and bitmaps take the palette index and the bit.
    for (int format : {1, 3}) {
        Image src, turned;
        fill(src, format, Grid{10, 10, 1, std::vector<uint8_t>(100, format == 1 ? 0 : 9)});
        const uint8_t bg = 1;
        turned.format = format;
        ASSERT_EQ(korImage_rotateAngle(&turned.data, &turned.size, src.data, &src.size, format, 45, 1, &bg, nullptr), 0);
        Grid t = grid(turned);
        EXPECT_EQ(t.at(0, 0)[0], 1);
        EXPECT_EQ(t.at(t.w / 2, t.h / 2)[0], format == 1 ? 0 : 9);
        for (uint8_t v : t.px) EXPECT_TRUE(v == 1 || v == (format == 1 ? 0 : 9));
    }
}

// Run-length and PackByte rows warp as the bitmap and byte map they hold.
TEST(Warp, RowTablesWarpAsThePicturesTheyHold) {
    const double m[6] = {0.8, 0.45, -0.5, 0.9, 6.3, -2.1};
    const uint8_t bg = 1;
    for (auto [rows, plain] : {std::pair{2, 1}, std::pair{8, 3}}) {
        const Grid g = randomGrid(plain, 41, 23, 9);
        Image a, b, wa, wb;
        fill(a, rows, g);
        fill(b, plain, g);
        ASSERT_EQ(warpInto(wa, a, {37, 45}, m, IMAGEWARP_BICUBIC, &bg), 0);
        ASSERT_EQ(warpInto(wb, b, {37, 45}, m, IMAGEWARP_BICUBIC, &bg), 0);
        EXPECT_TRUE(grid(wa) == grid(wb));
        wa.reset();
        wa.format = rows;
        ASSERT_EQ(korImage_rotateAngle(&wa.data, &wa.size, a.data, &a.size, rows, 33, 1, &bg, nullptr), 0);
        wb.reset();
        wb.format = plain;
        ASSERT_EQ(korImage_rotateAngle(&wb.data, &wb.size, b.data, &b.size, plain, 33, 1, &bg, nullptr), 0);
        EXPECT_TRUE(grid(wa) == grid(wb));
    }
}

TEST(Warp, RefusesBadArgumentsAndStopsWhenAsked) {
    Image src, out;
    fill(src, 5, randomGrid(5, 8, 8, 1));
    const double identity[6] = {1, 0, 0, 1, 0, 0};
    const double singular[6] = {1, 2, 2, 4, 0, 0};
    const double nan[6] = {1, 0, 0, NAN, 0, 0};
    const ImageSize to{8, 8}, empty{0, 8};
    void* r = nullptr;
    EXPECT_EQ(korImage_warp(&r, &to, src.data, &src.size, 5, singular, 1, nullptr, nullptr), IMGERR_BADARG);
    EXPECT_EQ(korImage_warp(&r, &to, src.data, &src.size, 5, nan, 1, nullptr, nullptr), IMGERR_BADARG);
    EXPECT_EQ(korImage_warp(&r, &to, src.data, &src.size, 5, identity, 3, nullptr, nullptr), IMGERR_BADARG);
    EXPECT_EQ(korImage_warp(&r, &to, src.data, &src.size, 5, identity, -1, nullptr, nullptr), IMGERR_BADARG);
    EXPECT_EQ(korImage_warp(&r, &empty, src.data, &src.size, 5, identity, 1, nullptr, nullptr), IMGERR_BADARG);
    EXPECT_EQ(korImage_warp(&r, &to, src.data, &src.size, 5, nullptr, 1, nullptr, nullptr), IMGERR_BADARG);
    for (int format : {0, 9})
        EXPECT_EQ(korImage_warp(&r, &to, src.data, &src.size, format, identity, 0, nullptr, nullptr), IMGERR_BADARG);
    EXPECT_EQ(korImage_rotateAngle(&r, nullptr, src.data, &src.size, 5, 30, 7, nullptr, nullptr), IMGERR_BADARG);
    EXPECT_EQ(korImage_rotateAngle(&r, nullptr, src.data, &src.size, 5, 90, 7, nullptr, nullptr), IMGERR_BADARG);
    EXPECT_EQ(korImage_rotateAngle(&r, nullptr, src.data, &src.size, 5, INFINITY, 1, nullptr, nullptr), IMGERR_BADARG);
    EXPECT_EQ(r, nullptr);

    // One poll a destination row; a stop answer hands nothing out.
    PollScope scope;
    const double m[6] = {0.5, 0, 0, 0.5, 0, 0};
    const ImageSize half{4, 5};
    ASSERT_EQ(korImage_warp(&r, &half, src.data, &src.size, 5, m, 1, nullptr, recordPoll), 0);
    dlmSystem_korFree(r);
    r = nullptr;
    EXPECT_EQ(scope.log.calls, (Calls{{5, 0}, {5, 1}, {5, 2}, {5, 3}, {5, 4}}));
    scope.log.calls.clear();
    scope.log.stopAt = 2;
    EXPECT_EQ(korImage_warp(&r, &half, src.data, &src.size, 5, m, 1, nullptr, recordPoll), IMGERR_STOPPED);
    EXPECT_EQ(r, nullptr);
    EXPECT_EQ(scope.log.calls.size(), 3u);
}

// Matrices that throw the source far away, shrink it to nothing, blow it up or
// nearly flatten it: every pixel is written, nothing outside the buffers is
// touched (the sanitizer build watches), and a picture moved off the
// destination leaves only the background.
TEST(Warp, ExtremeMatricesStayInBounds) {
    const double matrices[][6] = {
        {1, 0, 0, 1, 1e15, -1e15}, {1e-9, 0, 0, 1e-9, 3, 3},      {1e9, 0, 0, 1e9, -5e9, -5e9},
        {1, 1, 1, 1 + 1e-9, 0, 0}, {-3e5, 2e5, 1e5, 4e5, 7, -7}, {0.3, -1e-7, 2e-7, 0.3, -1e8, 4},
        {1e-160, 0, 0, 1e-160, 0, 0},
    };
    const uint8_t bg[4] = {11, 22, 33, 44};
    for (int format : kWarpFormats)
        for (int interp : {0, 1, 2})
            for (const auto& m : matrices) {
                SCOPED_TRACE(testing::Message() << "layout " << format << " filter " << interp << " m0 " << m[0]);
                Image src, out;
                fill(src, format, randomGrid(format, 23, 17, 5));
                ASSERT_EQ(warpInto(out, src, {29, 13}, m, interp, bg), 0);
                if (m[4] != 1e15 && m[5] != 4) continue;
                const Grid g = grid(out);
                for (size_t i = 0; i < g.px.size(); ++i) ASSERT_EQ(g.px[i], format == 1 ? 1 : bg[i % size_t(g.bpp)]);
            }
}

namespace {

// KV_THREADS for the span of a scope.
struct Threads {
    explicit Threads(const char* n) { ::setenv("KV_THREADS", n, 1); }
    ~Threads() { ::unsetenv("KV_THREADS"); }
};

size_t rowBytes(int format, int32_t w) { return format == 1 ? (size_t(w) + 7) / 8 : size_t(w) * size_t(gridBytes(format)); }

// The whole destination made band by band through korImage_warpBand.
std::vector<uint8_t> byBands(const Image& src, ImageSize to, const double m[6], int interp, const uint8_t* bg,
                             std::initializer_list<int32_t> cuts) {
    std::vector<uint8_t> all(rowBytes(src.format, to.x) * size_t(to.y));
    int32_t y0 = 0;
    std::vector<int32_t> ends(cuts);
    ends.push_back(to.y);
    for (int32_t y1 : ends) {
        EXPECT_EQ(korImage_warpBand(all.data() + rowBytes(src.format, to.x) * size_t(y0), &to, y0, y1, src.data,
                                    &src.size, src.format, m, interp, bg, nullptr),
                  0);
        y0 = y1;
    }
    return all;
}

}  // namespace

// Any split of the destination rows into bands, and any number of threads,
// gives the bytes of the whole warp on one thread.
TEST(WarpBand, BandsAndThreadCountsGiveTheWholeWarp) {
    const uint8_t bg[4] = {9, 200, 31, 77};
    for (int format : kWarpFormats) {
        Image src;
        fill(src, format, randomGrid(format, 150, 97, unsigned(format)));
        double turn[6];
        ImageSize to{};
        ASSERT_EQ(korImage_rotationMatrix(turn, &to, &src.size, 33), 0);
        const double shear[6] = {0.9, 0.2, -0.35, 1.1, 12.5, -3.25};
        for (int interp : {IMAGEWARP_NEAREST, IMAGEWARP_BILINEAR, IMAGEWARP_BICUBIC}) {
            const std::string what = "format " + std::to_string(format) + " filter " + std::to_string(interp);
            std::vector<uint8_t> alone, alonePlain;
            {
                Threads one("1");
                Image r;
                r.format = format;
                ASSERT_EQ(korImage_rotateAngle(&r.data, &r.size, src.data, &src.size, format, 33, interp, bg, nullptr), 0);
                ASSERT_TRUE(r.size.x == to.x && r.size.y == to.y) << what;
                alone.assign(static_cast<uint8_t*>(r.data), static_cast<uint8_t*>(r.data) + rowBytes(format, to.x) * size_t(to.y));
                Image p;
                ASSERT_EQ(warpInto(p, src, src.size, shear, interp, bg), 0);
                alonePlain.assign(static_cast<uint8_t*>(p.data), static_cast<uint8_t*>(p.data) + rowBytes(format, src.size.x) * size_t(src.size.y));
                EXPECT_EQ(byBands(src, to, turn, interp, bg, {1, 40, 41, 100}), alone) << what;
            }
            Threads four("4");
            Image r;
            r.format = format;
            ASSERT_EQ(korImage_rotateAngle(&r.data, &r.size, src.data, &src.size, format, 33, interp, bg, nullptr), 0);
            EXPECT_EQ(std::memcmp(r.data, alone.data(), alone.size()), 0) << what;
            Image p;
            ASSERT_EQ(warpInto(p, src, src.size, shear, interp, bg), 0);
            EXPECT_EQ(std::memcmp(p.data, alonePlain.data(), alonePlain.size()), 0) << what;
            EXPECT_EQ(byBands(src, to, turn, interp, bg, {70}), alone) << what;
            EXPECT_EQ(byBands(src, src.size, shear, interp, bg, {3, 64}), alonePlain) << what;
        }
    }
}

TEST(WarpBand, RefusesRowTablesAndRowsOutsideAndPollsOnTheCallersThread) {
    Image src;
    fill(src, 6, randomGrid(6, 64, 90, 3));
    const double m[6] = {1, 0.1, 0, 1, 0, 0};
    std::vector<uint8_t> band(64 * 3 * 90);
    auto call = [&](int32_t y0, int32_t y1, int format, StopFunction stop = nullptr) {
        return korImage_warpBand(band.data(), &src.size, y0, y1, src.data, &src.size, format, m, 1, nullptr, stop);
    };
    EXPECT_EQ(call(5, 5, 6), IMGERR_BADARG);
    EXPECT_EQ(call(-1, 5, 6), IMGERR_BADARG);
    EXPECT_EQ(call(80, 91, 6), IMGERR_BADARG);
    EXPECT_EQ(call(0, 4, IMAGEFORMAT_RLEBITMAP), IMGERR_BADARG);
    EXPECT_EQ(call(0, 4, IMAGEFORMAT_PACKBYTE), IMGERR_BADARG);

    // With helper threads every row is polled once, in order, and only on
    // this thread (the log is this thread's); a stop ends the band.
    Threads four("4");
    PollScope scope;
    ASSERT_EQ(call(10, 90, 6, recordPoll), 0);
    Calls want;
    for (int j = 10; j < 90; ++j) want.emplace_back(90, j);
    EXPECT_EQ(scope.log.calls, want);
    for (int at : {0, 1, 40, 79}) {
        scope.log.calls.clear();
        scope.log.stopAt = at;
        EXPECT_EQ(call(10, 90, 6, recordPoll), IMGERR_STOPPED) << at;
        EXPECT_EQ(scope.log.calls.size(), size_t(at + 1)) << at;
    }
}
