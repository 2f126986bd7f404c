#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <thread>
#include <vector>

#include "imagelib/geo.h"
#include "imagelib/host.h"
#include "pixels/resize.h"
#include "rotate_images.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Owned {
    void* p = nullptr;
    ~Owned() { dlmSystem_korFree(p); }
    const uint8_t* bytes() const { return static_cast<const uint8_t*>(p); }
};

Bytes resized(const Bytes& src, ImageSize from, ImageSize to, int planes = 3) {
    Owned out;
    const int status = planes == 4 ? korImage_resizeRGBA(&out.p, &to, src.data(), &from, nullptr)
                                   : korImage_resize(&out.p, &to, src.data(), &from, nullptr);
    EXPECT_EQ(status, 0);
    if (status != 0) return {};
    return Bytes(out.bytes(), out.bytes() + size_t(to.x) * size_t(to.y) * size_t(planes));
}

// A smooth random row-planar image (neighbouring pixels close), so that
// fixed-point and exact resampling differ only by rounding.
Bytes smoothImage(ImageSize s, int planes, unsigned seed) {
    std::mt19937 rng(seed);
    Bytes b(size_t(s.x) * size_t(s.y) * size_t(planes));
    for (int p = 0; p < planes; ++p) {
        const double fx = 0.05 + (rng() % 100) / 400.0, fy = 0.05 + (rng() % 100) / 400.0;
        for (int y = 0; y < s.y; ++y)
            for (int x = 0; x < s.x; ++x)
                b[(size_t(y) * size_t(planes) + size_t(p)) * size_t(s.x) + size_t(x)] =
                    uint8_t(127.5 + 127.5 * std::sin(fx * x + p) * std::cos(fy * y));
    }
    return b;
}

// Exact weights of source pixels for destination pixel i of an axis: area
// coverage when shrinking, linear interpolation at i (S - 1) / D when
// growing (the last pixel is the last source pixel).
std::vector<std::pair<int, double>> exactWeights(int s, int d, int i) {
    std::vector<std::pair<int, double>> w;
    if (d == s) {
        w.push_back({i, 1.0});
    } else if (d > s) {
        if (i == d - 1) return {{s - 1, 1.0}};
        const double pos = double(i) * (s - 1) / d;
        const int left = int(pos);
        w.push_back({left, 1 - (pos - left)});
        if (pos > left) w.push_back({left + 1, pos - left});
    } else {
        const double a = double(i) * s / d, b = double(i + 1) * s / d;
        for (int k = int(a); k < s && k < b; ++k)
            w.push_back({k, (std::min(b, k + 1.0) - std::max(a, double(k))) * d / s});
    }
    return w;
}

}  // namespace

TEST(ResizeTable, TheLastEnlargedPixelJumpsToTheLastSourcePixel) {
    // Divisor D: 3 -> 5 steps by 2/5, so the pixel before the last stops at
    // 1.2 and the last jumps to source pixel 2.
    il::AxisTable t;
    ASSERT_EQ(il::buildAxisTable(t, 3, 5), 0);
    EXPECT_EQ(t.mode, il::kAxisEnlarge);
    EXPECT_EQ((std::vector<int32_t>{t.entries[3].index, t.entries[3].nextWeight}), (std::vector<int32_t>{1, 102}));
    EXPECT_EQ((std::vector<int32_t>{t.entries[4].index, t.entries[4].nextIndex, t.entries[4].nextWeight}),
              (std::vector<int32_t>{1, 2, 512}));
    EXPECT_EQ(il::buildAxisTable(t, 0, 4), IMGERR_BADARG);
    EXPECT_EQ(il::buildAxisTable(t, 4, -1), IMGERR_BADARG);
}

TEST(Resize, HandCheckedCases) {
    // Same size: the copy through accumulators gives the input back.
    const Bytes same = smoothImage({13, 7}, 3, 1);
    EXPECT_EQ(resized(same, {13, 7}, {13, 7}), same);
    const Bytes sameA = smoothImage({5, 9}, 4, 2);
    EXPECT_EQ(resized(sameA, {5, 9}, {5, 9}, 4), sameA);

    // 2 x 1 to 4 x 1: weights 512/0, 384/128, 256/256, then the last pixel.
    const Bytes two = {0, 200, 100, 100, 255, 0};
    EXPECT_EQ(resized(two, {2, 1}, {4, 1}),
              (Bytes{0, 50, 100, 200, 100, 100, 100, 100, 255, 191, 127, 0}));
    // The same down a column (shift 18 after the vertical blend).
    const Bytes col = {0, 100, 255, 200, 100, 0};
    EXPECT_EQ(resized(col, {1, 2}, {1, 4}), (Bytes{0, 100, 255, 50, 100, 191, 100, 100, 127, 200, 100, 0}));

    // Halving truncates: (1 + 2 + 2 + 2) / 4 = 1.75 gives 1.
    const Bytes four = {1, 2, 3, 4, 0, 0, 0, 0, 9, 9, 9, 9, 2, 2, 5, 5, 0, 0, 0, 0, 9, 9, 9, 8};
    EXPECT_EQ(resized(four, {4, 2}, {2, 1}), (Bytes{1, 4, 0, 0, 9, 8}));
    // Rounded weights may add up to more than one: white stays white.
    EXPECT_EQ(resized(Bytes(11 * 11 * 3, 255), {11, 11}, {1, 1}), Bytes(3, 255));

    // Enlarging from a single pixel repeats it.
    const Bytes one = {10, 20, 30, 40};
    EXPECT_EQ(resized(one, {1, 1}, {5, 3}, 4), [] {
        Bytes b;
        for (int y = 0; y < 3; ++y)
            for (uint8_t v : {10, 20, 30, 40}) b.insert(b.end(), 5, v);
        return b;
    }());
}

// Against exact area averaging and linear interpolation: the fixed-point
// result may only differ by weight rounding and the final truncation.
TEST(Resize, CloseToExactResampling) {
    const ImageSize from{97, 61};
    for (int planes : {3, 4}) {
        const Bytes src = smoothImage(from, planes, unsigned(planes));
        for (ImageSize to : {ImageSize{40, 25}, ImageSize{150, 90}, ImageSize{150, 30}, ImageSize{30, 61},
                             ImageSize{97, 200}, ImageSize{12, 8}}) {
            const Bytes out = resized(src, from, to, planes);
            ASSERT_EQ(out.size(), size_t(to.x) * size_t(to.y) * size_t(planes));
            int worst = 0;
            for (int y = 0; y < to.y; ++y)
                for (int p = 0; p < planes; ++p)
                    for (int x = 0; x < to.x; ++x) {
                        double v = 0;
                        for (auto [sy, wy] : exactWeights(from.y, to.y, y))
                            for (auto [sx, wx] : exactWeights(from.x, to.x, x))
                                v += wx * wy * src[(size_t(sy) * size_t(planes) + size_t(p)) * size_t(from.x) +
                                                   size_t(sx)];
                        const int got = out[(size_t(y) * size_t(planes) + size_t(p)) * size_t(to.x) + size_t(x)];
                        worst = std::max(worst, std::abs(got - int(std::floor(v))));
                    }
            EXPECT_LE(worst, 2) << planes << " planes to " << to.x << "x" << to.y;
        }
    }
}

TEST(Resize, PollsEachDestinationRowAndReturnsTheAnswer) {
    const Bytes src = smoothImage({8, 8}, 3, 3);
    const ImageSize from{8, 8}, to{4, 5};
    geotest::PollScope ps;
    ps.log.stopAt = 3;
    ps.log.answer = 7;
    void* out = nullptr;
    EXPECT_EQ(korImage_resize(&out, &to, src.data(), &from, geotest::recordPoll), 7);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(ps.log.calls, (geotest::Calls{{5, 0}, {5, 1}, {5, 2}, {5, 3}}));

    EXPECT_EQ(korImage_resize(nullptr, &to, src.data(), &from, nullptr), IMGERR_BADARG);
    EXPECT_EQ(korImage_resize(&out, &to, nullptr, &from, nullptr), IMGERR_BADARG);
    const ImageSize empty{0, 5};
    EXPECT_EQ(korImage_resizeRGBA(&out, &empty, src.data(), &from, nullptr), IMGERR_BADARG);
    EXPECT_EQ(korImage_resize(&out, &to, src.data(), &empty, nullptr), IMGERR_BADARG);
}

TEST(ResizeBand, BandsContinueOneAnotherAndMatchTheWholeImage) {
    for (ImageSize to : {ImageSize{50, 31}, ImageSize{20, 9}, ImageSize{37, 23}}) {
        const ImageSize from{37, 23};
        const Bytes src = smoothImage(from, 3, 5);
        const Bytes whole = resized(src, from, to);
        const size_t row = size_t(to.x) * 3;
        auto band = [&](int first, int last) {
            Owned b;
            EXPECT_EQ(korImage_resizeBand(&b.p, &to, first, last, src.data(), &from, nullptr), 0);
            return Bytes(b.bytes(), b.bytes() + size_t(last - first + 1) * row);
        };
        auto rows = [&](int first, int last) {
            return Bytes(whole.begin() + std::ptrdiff_t(size_t(first) * row),
                         whole.begin() + std::ptrdiff_t(size_t(last + 1) * row));
        };
        EXPECT_EQ(band(0, 2), rows(0, 2));
        EXPECT_EQ(band(3, 3), rows(3, 3));
        EXPECT_EQ(band(6, to.y - 2), rows(6, to.y - 2));  // rows 4 and 5 thrown away
        EXPECT_EQ(band(to.y - 1, to.y - 1), rows(to.y - 1, to.y - 1));
        EXPECT_EQ(band(1, 4), rows(1, 4));  // a row already passed starts afresh

        // Into the caller's band, polling (last, row).
        Bytes mine(2 * row, 0xEE);
        void* p = mine.data();
        geotest::PollScope ps;
        ASSERT_EQ(korImage_resizeBand(&p, &to, 5, 6, src.data(), &from, geotest::recordPoll), 0);
        EXPECT_EQ(p, mine.data());
        EXPECT_EQ(mine, rows(5, 6));
        EXPECT_EQ(ps.log.calls, (geotest::Calls{{6, 5}, {6, 6}}));
        korImage_resizeCleanup();
    }
}

TEST(ResizeBand, StateIsPerThreadAndArgumentsAreChecked) {
    const ImageSize from{30, 20}, to{45, 12};
    const Bytes src = smoothImage(from, 3, 8);
    const Bytes whole = resized(src, from, to);
    const size_t row = size_t(to.x) * 3;
    Owned a;
    ASSERT_EQ(korImage_resizeBand(&a.p, &to, 0, 4, src.data(), &from, nullptr), 0);
    std::thread([&] {
        const ImageSize small{7, 3};
        Owned other;
        EXPECT_EQ(korImage_resizeBand(&other.p, &small, 0, 2, src.data(), &from, nullptr), 0);
        korImage_resizeCleanup();
    }).join();
    Owned b;
    ASSERT_EQ(korImage_resizeBand(&b.p, &to, 5, 11, src.data(), &from, nullptr), 0);
    EXPECT_TRUE(std::equal(b.bytes(), b.bytes() + 7 * row, whole.begin() + std::ptrdiff_t(5 * row)));

    void* p = nullptr;
    EXPECT_EQ(korImage_resizeBand(&p, &to, 3, 2, src.data(), &from, nullptr), IMGERR_BADARG);
    EXPECT_EQ(korImage_resizeBand(&p, &to, -1, 2, src.data(), &from, nullptr), IMGERR_BADARG);
    EXPECT_EQ(korImage_resizeBand(&p, &to, 0, to.y, src.data(), &from, nullptr), IMGERR_BADARG);
    EXPECT_EQ(korImage_resizeBand(nullptr, &to, 0, 1, src.data(), &from, nullptr), IMGERR_BADARG);
    EXPECT_EQ(p, nullptr);

    // A stop frees a band the call allocated and returns the answer.
    geotest::PollScope ps;
    ps.log.stopAt = 1;
    ps.log.answer = 3;
    EXPECT_EQ(korImage_resizeBand(&p, &to, 0, 5, src.data(), &from, geotest::recordPoll), 3);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(korImage_resizeCleanup(), 0);
}
