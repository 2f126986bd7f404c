// Error diffusion onto a palette: hand-worked rows of a black-and-white
// palette, the nearest search, the state's life cycle, allocation failures,
// threads, and a share-by-share model of the ditherer run against the
// library on random images.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "imagelib/host.h"
#include "imagelib/pixels.h"
#include "internal/scratch.h"
#include "pixels/colour.h"
#include "pixels/dither.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Palette {
    Bytes r, g, b;
    Palette(std::initializer_list<std::array<int, 3>> colours = {}) {
        for (const auto& c : colours) add(c[0], c[1], c[2]);
    }
    void add(int red, int green, int blue) {
        r.push_back(uint8_t(red)), g.push_back(uint8_t(green)), b.push_back(uint8_t(blue));
    }
    int count() const { return int(r.size()); }
    // Starts a dither job on this palette.
    int start(int width, double gamma = 1.0) const {
        return korImage_ditherInitializeWithGamma(count(), r.data(), g.data(), b.data(), width, gamma);
    }
};

const Palette kBlackWhite{{0, 0, 0}, {255, 255, 255}};

// Dithers one row of grey pixels (r = g = b = the given value).
Bytes greyRow(const std::vector<int>& grey) {
    Bytes v(grey.begin(), grey.end()), out(grey.size(), 0xEE);
    korImage_ditherRow(out.data(), v.data(), v.data(), v.data(), int(v.size()));
    return out;
}

TEST(Dither, BlackAndWhiteRowsFollowTheErrorShares) {
    il::DitherJob job;
    ASSERT_EQ(0, kBlackWhite.start(3));
    // Grey 128 lies in grid cell (2, 2, 2), whose only candidate is white:
    // error -127 gives -23 below-left, -40 below, -8 below-right, -56 right.
    // The second pixel sees 128 - 56 = 72 (black, error 72: 13, 22, 4, 33),
    // the third 128 + 33 = 161 (white, error -94: -17, -29, -6, -42).
    EXPECT_EQ((Bytes{1, 0, 1}), greyRow({128, 128, 128}));
    // Next row errors: -40 + 13 = -27, 22 - 17 = 5, -29. So 101 (black,
    // right share 46), 128 + 5 + 46 = 179 (white, right share -35), and
    // 128 - 29 - 35 = 64 (black).
    EXPECT_EQ((Bytes{0, 1, 0}), greyRow({128, 128, 128}));

    // The below share replaces the left neighbour's below-right share: 40
    // (black, error 40: 7, 12, 2, 19) then 59 (black, error 59: 11, 18, 3,
    // 27). Next row: 0 + 12 + 11 = 23 (black, right share 11), then 98 + 18
    // + 11 = 127, black; had the 2 been kept, 129 white.
    ASSERT_EQ(0, kBlackWhite.start(2));
    EXPECT_EQ((Bytes{0, 0}), greyRow({40, 40}));
    EXPECT_EQ((Bytes{0, 0}), greyRow({0, 98}));
}

TEST(Dither, NearestSearch) {
    il::DitherJob job;
    // Equal distances go to the lower index, whichever colour it holds.
    for (const Palette& p : {Palette{{0, 0, 0}, {20, 20, 20}}, Palette{{20, 20, 20}, {0, 0, 0}}}) {
        ASSERT_EQ(0, p.start(1));
        EXPECT_EQ((Bytes{0}), greyRow({10}));
    }
    // Saturated white is searched as 254: the exact 254 wins over 255.
    const Palette w{{255, 255, 255}, {254, 254, 254}};
    ASSERT_EQ(0, w.start(1));
    EXPECT_EQ((Bytes{1}), greyRow({255}));
    // White's grid cell holds neither entry of this palette, although red is
    // nearer than black: index 0.
    const Palette sparse{{0, 0, 0}, {255, 0, 0}};
    ASSERT_EQ(0, sparse.start(1));
    EXPECT_EQ((Bytes{0}), greyRow({255}));
}

TEST(Dither, RowCallsOutsideAJobOrPastTheWidthDoNothing) {
    uint8_t grey[4] = {128, 128, 128, 128}, out[4] = {7, 7, 7, 7};
    korImage_ditherCleanup();
    EXPECT_FALSE(il::ditherActive());
    EXPECT_EQ(-1, korImage_ditherRow(out, grey, grey, grey, 1));
    EXPECT_EQ(7, out[0]);
    {
        il::DitherJob job;
        ASSERT_EQ(0, kBlackWhite.start(3));
        EXPECT_TRUE(il::ditherActive());
        EXPECT_EQ(-1, korImage_ditherRow(out, grey, grey, grey, 4));
        EXPECT_EQ(7, out[0]);
        EXPECT_EQ(-1, korImage_ditherRowWithOffset(out, grey, grey, grey, 1, 1));
        EXPECT_EQ(1, out[0]);
        // A row of no pixels clears the carried errors: 128 is white again
        // (with the -40 below it, it would be black).
        korImage_ditherRow(out, grey, grey, grey, 0);
        EXPECT_EQ((Bytes{1}), greyRow({128}));
    }
    EXPECT_FALSE(il::ditherActive());
    korImage_ditherCleanup();  // a second clean-up is harmless
}

// Scratch allocator that refuses one tag while it is installed.
uint32_t g_refusedTag = 0;
void* refusingMalloc(size_t n, uint32_t tag) { return tag == g_refusedTag ? nullptr : std::malloc(n); }

struct RefuseTag {
    explicit RefuseTag(uint32_t tag) {
        g_refusedTag = tag;
        ImageHost h{};
        h.scratchMalloc = refusingMalloc;
        imagelib_setHost(&h);
    }
    ~RefuseTag() { imagelib_setHost(nullptr); }
};

TEST(Dither, AllocationFailures) {
    il::DitherJob job;
    {
        RefuseTag refuse(il::tag("DiEr"));
        EXPECT_EQ(IMGERR_NOMEMORY, kBlackWhite.start(2));
        EXPECT_FALSE(il::ditherActive());
        uint8_t grey[2] = {128, 128}, out[2] = {9, 9};
        korImage_ditherRow(out, grey, grey, grey, 2);
        EXPECT_EQ(9, out[0]);
    }
    {
        // Without candidate lists the whole palette is searched, so white
        // finds the nearer red rather than the empty cell's index 0.
        RefuseTag refuse(il::tag("DiCL"));
        const Palette sparse{{0, 0, 0}, {255, 0, 0}};
        ASSERT_EQ(0, sparse.start(1));
        EXPECT_EQ((Bytes{1}), greyRow({255}));
    }
    {
        // Without the gamma table the job runs uncorrected.
        RefuseTag refuse(il::tag("DiGa"));
        Palette ramp;
        for (int i = 0; i < 256; ++i) ramp.add(i, i, i);
        ASSERT_EQ(0, ramp.start(1, 2.0));
        EXPECT_EQ((Bytes{128}), greyRow({128}));
    }
}

// The ditherer as described, share by share: errors added into and stored
// over two full rows, the current row updated in place.
class ModelDitherer {
public:
    ModelDitherer(const Palette& p, int width, double gamma)
        : p_(p), cur_(size_t(width + 2) * 3, 0), next_(cur_), cache_(32768, -1), lists_(64), built_(64, false) {
        for (int i = 0; i < 256; ++i) gamma_[size_t(i)] = uint8_t(i);
        if (!il::gammaIsIdentity(gamma)) il::buildGammaTable(gamma_.data(), gamma);
    }

    void row(uint8_t* out, const uint8_t* r, const uint8_t* g, const uint8_t* b, int n) {
        std::fill(next_.begin(), next_.end(), 0);
        for (size_t x = 0; x < size_t(n); ++x) {
            int v[3] = {gamma_[r[x]], gamma_[g[x]], gamma_[b[x]]};
            for (size_t c = 0; c < 3; ++c) v[c] = std::clamp(v[c] + cur_[3 * (x + 1) + c], 0, 254);
            int& cached = cache_[size_t(((v[0] >> 3) * 32 + (v[1] >> 3)) * 32 + (v[2] >> 3))];
            if (cached < 0) cached = nearest(v);
            out[x] = uint8_t(cached);
            const int pal[3] = {p_.r[size_t(cached)], p_.g[size_t(cached)], p_.b[size_t(cached)]};
            for (size_t c = 0; c < 3; ++c) {
                const int e = std::clamp(v[c] - pal[c], -127, 127);
                const int a = 3 * e / 16, rest1 = e - a, bs = 5 * rest1 / 13, rest2 = rest1 - bs, k = rest2 / 8;
                next_[3 * x + c] += int16_t(a);
                next_[3 * (x + 1) + c] = int16_t(bs);
                next_[3 * (x + 2) + c] += int16_t(k);
                cur_[3 * (x + 2) + c] += int16_t(rest2 - k);
            }
        }
        std::swap(cur_, next_);
    }

private:
    int nearest(const int* v) {
        const size_t cell = size_t((v[0] >> 6) * 16 + (v[1] >> 6) * 4 + (v[2] >> 6));
        auto near = [&](const Bytes& ch, int i, int c) { return std::abs((ch[size_t(i)] >> 6) - (v[c] >> 6)) <= 1; };
        if (!built_[cell]) {
            for (int i = 0; i < p_.count(); ++i)
                if (near(p_.r, i, 0) && near(p_.g, i, 1) && near(p_.b, i, 2)) lists_[cell].push_back(i);
            built_[cell] = true;
        }
        int best = 0, bestD = 1 << 30;
        for (int i : lists_[cell]) {
            const int dr = p_.r[size_t(i)] - v[0], dg = p_.g[size_t(i)] - v[1], db = p_.b[size_t(i)] - v[2];
            const int d = dr * dr + dg * dg + db * db;
            if (d < bestD) best = i, bestD = d;
            if (d == 0) break;
        }
        return best;
    }

    const Palette& p_;
    std::vector<int16_t> cur_, next_;
    std::vector<int> cache_;
    std::vector<std::vector<int>> lists_;
    std::vector<bool> built_;
    std::array<uint8_t, 256> gamma_{};
};

// Random palettes (wide, clustered, tiny) and images with smooth areas,
// noise and saturated runs; rows of varying length; every other trial reads
// interleaved pixels through the stride.
TEST(Dither, MatchesTheShareByShareModel) {
    std::mt19937 rng(2024);
    for (int trial = 0; trial < 24; ++trial) {
        Palette p;
        const int count = trial % 4 == 0 ? 1 + int(rng() % 4) : 1 + int(rng() % 256);
        const int spread = trial % 3 == 0 ? 40 : 256;
        const int base = int(rng() % unsigned(257 - spread));
        for (int i = 0; i < count; ++i)
            p.add(base + int(rng() % spread), base + int(rng() % spread), base + int(rng() % spread));
        const int width = 1 + int(rng() % 90);
        const double gamma = trial % 5 == 1 ? 0.45 + (rng() % 300) / 100.0 : 1.0;

        il::DitherJob job;
        ASSERT_EQ(0, p.start(width, gamma));
        ModelDitherer model(p, width, gamma);
        const size_t w = size_t(width);
        Bytes planes(3 * w), pixels(3 * w), got(w), want(w);
        for (int y = 0; y < 30; ++y) {
            const int n = y % 7 == 3 ? int(rng() % (w + 1)) : width;
            for (size_t c = 0; c < 3; ++c)
                for (size_t x = 0; x < w; ++x) {
                    int v = int(x * 255 / w) + int(y * 5 + c * 60) % 90 + int(rng() % 41) - 20;
                    if ((x + size_t(y)) % 17 == 0) v = c == 1 ? 0 : 255;
                    planes[c * w + x] = pixels[3 * x + c] = uint8_t(std::clamp(v, 0, 255));
                }
            std::fill(got.begin(), got.end(), 0);
            std::fill(want.begin(), want.end(), 0);
            if (trial % 2 == 1)
                korImage_ditherRowWithOffset(got.data(), pixels.data(), pixels.data() + 1, pixels.data() + 2, n, 3);
            else
                korImage_ditherRow(got.data(), planes.data(), planes.data() + w, planes.data() + 2 * w, n);
            model.row(want.data(), planes.data(), planes.data() + w, planes.data() + 2 * w, n);
            ASSERT_EQ(want, got) << "trial " << trial << " row " << y << " n " << n;
        }
    }
}

TEST(Dither, EachThreadHasItsOwnJob) {
    std::mt19937 rng(11);
    Palette p;
    for (int i = 0; i < 64; ++i) p.add(int(rng() & 255), int(rng() & 255), int(rng() & 255));
    const size_t w = 64;
    Bytes rgb(3 * w * w);
    for (auto& v : rgb) v = uint8_t(rng());
    auto job = [&](Bytes& out) {
        out.assign(w * w, 0);
        il::DitherJob cleanup;
        p.start(int(w));
        for (size_t y = 0; y < w; ++y) {
            const uint8_t* row = rgb.data() + 3 * w * y;
            korImage_ditherRow(out.data() + w * y, row, row + w, row + 2 * w, int(w));
            std::this_thread::yield();
        }
    };
    Bytes alone, first, second;
    job(alone);
    std::thread t1(job, std::ref(first)), t2(job, std::ref(second));
    t1.join();
    t2.join();
    EXPECT_EQ(alone, first);
    EXPECT_EQ(alone, second);
}

}  // namespace
