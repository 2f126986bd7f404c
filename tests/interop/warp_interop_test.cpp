// convert --rotate (any angle) and --affine against ImageMagick's -rotate
// (which turns clockwise) and -distort AffineProjection.
#include <gtest/gtest.h>

#include <cctype>
#include <cmath>
#include <string>
#include <vector>

#include "imagelib/geo.h"
#include "pixels/warp.h"
#include "test_support.h"

namespace {

struct Ppm {
    int w = 0, h = 0;
    std::vector<uint8_t> v;
    double at(int x, int y, int c) const {
        return x >= 0 && y >= 0 && x < w && y < h ? v[(size_t(y) * w + x) * 3 + c] : 0.0;
    }
    // Bilinear value at continuous point (x, y), pixel centres at half-integers.
    double sample(double x, double y, int c) const {
        const double sx = x - 0.5, sy = y - 0.5;
        const int x0 = int(std::floor(sx)), y0 = int(std::floor(sy));
        const double fx = sx - x0, fy = sy - y0;
        return (at(x0, y0, c) * (1 - fx) + at(x0 + 1, y0, c) * fx) * (1 - fy) +
               (at(x0, y0 + 1, c) * (1 - fx) + at(x0 + 1, y0 + 1, c) * fx) * fy;
    }
};

Ppm readPpm(const std::string& path) {
    const auto b = iltest::readFile(path);
    Ppm p;
    size_t i = 2;
    auto word = [&]() {
        while (i < b.size() && std::isspace(b[i])) ++i;
        int v = 0;
        while (i < b.size() && std::isdigit(b[i])) v = v * 10 + (b[i++] - '0');
        return v;
    };
    if (b.size() < 2 || b[0] != 'P' || b[1] != '6') return p;
    p.w = word(), p.h = word();
    if (word() != 255) return Ppm{};
    ++i;
    const size_t n = size_t(p.w) * p.h * 3;
    if (b.size() < i + n) return Ppm{};
    p.v.assign(b.begin() + long(i), b.begin() + long(i + n));
    return p;
}

class WarpInterop : public testing::Test {
protected:
    void SetUp() override {
        if (!iltest::haveProgram("convert")) GTEST_SKIP() << "ImageMagick is not installed";
        src = dir.file("src.ppm");
        // A smooth picture with a few small bright marks on it.
        ASSERT_EQ(iltest::run("convert -size 160x120 plasma:fractal -seed 5 -blur 0x2 -depth 8 " + src), 0);
        marked = dir.file("marked.ppm");
        ASSERT_EQ(iltest::run("convert -size 160x120 xc:black -fill white -draw 'rectangle 20,30 22,32' "
                              "-draw 'rectangle 130,15 132,17' -draw 'rectangle 70,95 72,97' -depth 8 " + marked),
                  0);
    }
    int ours(const std::string& in, const std::string& out, const std::string& options) {
        return iltest::run(iltest::cliPath() + " convert " + in + " " + out + " " + options);
    }
    iltest::TempDir dir;
    std::string src, marked;
    // Centres of the marks drawn above.
    const double marks[3][2] = {{21.5, 31.5}, {131.5, 16.5}, {71.5, 96.5}};
};

// Centroid of the bright pixels within 4 pixels of (x, y) (channel 0).
bool centroid(const Ppm& p, double x, double y, double* cx, double* cy, double dx = 0, double dy = 0) {
    double sx = 0, sy = 0, sw = 0;
    for (int j = int(y + dy) - 4; j <= int(y + dy) + 4; ++j)
        for (int i = int(x + dx) - 4; i <= int(x + dx) + 4; ++i) {
            const double v = p.at(i, j, 0);
            sx += v * (i + 0.5), sy += v * (j + 0.5), sw += v;
        }
    if (sw <= 0) return false;
    *cx = sx / sw - dx, *cy = sy / sw - dy;
    return true;
}

TEST_F(WarpInterop, RotationAgreesWithImageMagickTurningTheOtherWay) {
    for (double degrees : {30.0, 17.0, 135.0}) {
        SCOPED_TRACE(degrees);
        const std::string a = dir.file("ours.ppm"), b = dir.file("im.ppm");
        char arg[32];
        std::snprintf(arg, sizeof arg, "%g", -degrees);
        ASSERT_EQ(ours(src, a, std::string("--rotate ") + arg), 0);
        std::snprintf(arg, sizeof arg, "%g", degrees);
        ASSERT_EQ(iltest::run("convert " + src + " -background black -rotate " + arg + " " + b), 0);
        const Ppm mine = readPpm(a), theirs = readPpm(b);
        ImageSize box;
        ASSERT_TRUE(il::rotatedSize(&box, {160, 120}, degrees));
        EXPECT_EQ(mine.w, box.x);
        EXPECT_EQ(mine.h, box.y);
        // ImageMagick's canvas is a pixel or two larger.
        EXPECT_GE(theirs.w, mine.w);
        EXPECT_LE(theirs.w, mine.w + 2);
        EXPECT_GE(theirs.h, mine.h);
        EXPECT_LE(theirs.h, mine.h + 2);
        // Aligned at the centres, inside the turned picture (two pixels off its edges).
        const double dx = (theirs.w - mine.w) / 2.0, dy = (theirs.h - mine.h) / 2.0;
        double m[6], inv[6];
        il::rotationMatrix(m, {160, 120}, box, -degrees);
        ASSERT_TRUE(il::invertMatrix(inv, m));
        double sum = 0;
        long count = 0;
        for (int y = 0; y < mine.h; ++y)
            for (int x = 0; x < mine.w; ++x) {
                const double X = x + 0.5, Y = y + 0.5;
                const double sx = inv[0] * X + inv[2] * Y + inv[4], sy = inv[1] * X + inv[3] * Y + inv[5];
                if (sx < 2 || sy < 2 || sx > 158 || sy > 118) continue;
                for (int c = 0; c < 3; ++c, ++count) sum += std::fabs(mine.at(x, y, c) - theirs.sample(X + dx, Y + dy, c));
            }
        ASSERT_GT(count, 10000);
        EXPECT_LT(sum / count, 2.0);

        // The marks land where the rotation puts them, in both outputs.
        ASSERT_EQ(ours(marked, a, std::string("--rotate ") + std::to_string(-degrees)), 0);
        ASSERT_EQ(iltest::run("convert " + marked + " -background black -rotate " + arg + " " + b), 0);
        const Ppm mineMarks = readPpm(a), theirMarks = readPpm(b);
        for (const auto& mark : marks) {
            const double wx = m[0] * mark[0] + m[2] * mark[1] + m[4], wy = m[1] * mark[0] + m[3] * mark[1] + m[5];
            double cx, cy;
            ASSERT_TRUE(centroid(mineMarks, wx, wy, &cx, &cy));
            EXPECT_NEAR(cx, wx, 1.0 / 3);
            EXPECT_NEAR(cy, wy, 1.0 / 3);
            ASSERT_TRUE(centroid(theirMarks, wx, wy, &cx, &cy, dx, dy));
            EXPECT_NEAR(cx, wx, 1.0 / 3);
            EXPECT_NEAR(cy, wy, 1.0 / 3);
        }
    }
}

TEST_F(WarpInterop, AffineAgreesWithImageMagicksAffineProjection) {
    for (const char* matrix : {"0.9,0.2,-0.15,1.1,5,-3", "1.3,0,0,0.8,-12.5,7.25", "-1,0,0,1,160,0"}) {
        SCOPED_TRACE(matrix);
        const std::string a = dir.file("ours.ppm"), b = dir.file("im.ppm");
        ASSERT_EQ(ours(src, a, std::string("--affine ") + matrix), 0);
        ASSERT_EQ(iltest::run("convert " + src + " -virtual-pixel black -distort AffineProjection " + matrix + " " + b),
                  0);
        const Ppm mine = readPpm(a), theirs = readPpm(b);
        ASSERT_EQ(mine.w, 160);
        ASSERT_EQ(mine.h, 120);
        ASSERT_EQ(theirs.w, 160);
        ASSERT_EQ(theirs.h, 120);
        double sum = 0;
        for (size_t i = 0; i < mine.v.size(); ++i) sum += std::fabs(double(mine.v[i]) - theirs.v[i]);
        EXPECT_LT(sum / mine.v.size(), 2.0);

        // Marks go where the matrix puts them.
        ASSERT_EQ(ours(marked, a, std::string("--affine ") + matrix), 0);
        const Ppm mineMarks = readPpm(a);
        double m[6];
        std::sscanf(matrix, "%lf,%lf,%lf,%lf,%lf,%lf", &m[0], &m[1], &m[2], &m[3], &m[4], &m[5]);
        for (const auto& mark : marks) {
            const double wx = m[0] * mark[0] + m[2] * mark[1] + m[4], wy = m[1] * mark[0] + m[3] * mark[1] + m[5];
            if (wx < 5 || wy < 5 || wx > 155 || wy > 115) continue;
            double cx, cy;
            ASSERT_TRUE(centroid(mineMarks, wx, wy, &cx, &cy));
            EXPECT_NEAR(cx, wx, 1.0 / 3);
            EXPECT_NEAR(cy, wy, 1.0 / 3);
        }
    }
}

}  // namespace

namespace {

// convert of a binary PPM to PPM with only a warp reads the input in place
// and writes the output band by band: the bytes must be those of the
// ordinary path (here taken by giving the same picture as a BMP), and a
// PPM it cannot map still fails as a short file does.
TEST_F(WarpInterop, InPlacePpmPathEqualsTheOrdinaryPath) {
    const std::string bmp = dir.file("src.bmp");
    ASSERT_EQ(ours(src, bmp, ""), 0);
    const char* const cases[] = {"--rotate 30", "--rotate -200.5 --interpolate bicubic --background 10,200,30",
                                 "--rotate 33 --interpolate nearest", "--affine 0.9,0.2,-0.3,1.1,7.5,-3"};
    for (const char* options : cases) {
        SCOPED_TRACE(options);
        const std::string a = dir.file("a.ppm"), b = dir.file("b.ppm");
        for (const char* threads : {"KV_THREADS=1 ", "KV_THREADS=3 "}) {
            ASSERT_EQ(iltest::run(std::string(threads) + iltest::cliPath() + " convert " + src + " " + a + " " + options), 0);
            ASSERT_EQ(ours(bmp, b, options), 0);
            const auto bytes = iltest::readFile(a);
            EXPECT_GT(bytes.size(), 160u * 120u * 3u);
            EXPECT_EQ(bytes, iltest::readFile(b)) << threads;
        }
    }
    auto whole = iltest::readFile(src);
    whole.resize(whole.size() - 100);
    const std::string shortFile = dir.file("short.ppm");
    ASSERT_TRUE(iltest::writeFile(shortFile, whole));
    EXPECT_NE(ours(shortFile, dir.file("c.ppm"), "--rotate 30"), 0);
}

}  // namespace
