// Sub-image extraction: the fixed-point stepping, the row-copy rule, and the
// agreement of every layout's member with the byte-map member.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>
#include <vector>

#include "imagelib/geo.h"
#include "imagelib/host.h"
#include "imagelib/pixels.h"
#include "pixels/rows.h"
#include "rotate_images.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes extractMap(const Bytes& src, ImageSize ss, ImageSize ds, const double* rect, const uint8_t* remap = nullptr) {
    Bytes dst(size_t(ds.x) * ds.y, 0xEE);
    EXPECT_EQ(korImage_extractByteMapSubImage(dst.data(), &ds, src.data(), &ss, rect, remap), 0);
    return dst;
}

Bytes row(const Bytes& map, int width, int r) { return Bytes(map.begin() + r * width, map.begin() + (r + 1) * width); }

TEST(SubImage, HandCheckedStepping) {
    // 4 x 1 to 2 x 1: Dx = 4096, Ex = 12288, e0 = 8192 takes the first and the last pixel.
    const Bytes src{10, 20, 30, 40};
    EXPECT_EQ(extractMap(src, {4, 1}, {2, 1}, nullptr), (Bytes{10, 40}));
    EXPECT_EQ(extractMap(src, {4, 1}, {4, 1}, nullptr), src);
    EXPECT_EQ(extractMap(src, {4, 1}, {7, 1}, nullptr), (Bytes{10, 10, 20, 20, 30, 30, 40}));
    // A fractional start: source positions 0.75, 1.25, 1.75, 2.25, 2.75.
    const double quarter[4] = {0.75, 0, 2.75, 0};
    EXPECT_EQ(extractMap(src, {4, 1}, {5, 1}, quarter), (Bytes{10, 20, 20, 30, 30}));
    // The extent is rounded, not cut: 1.9999 x 4096 = 8191.6 steps as 8192, two whole pixels.
    const double nearlyTwo[4] = {0, 0, 1.9999, 0};
    EXPECT_EQ(extractMap(src, {4, 1}, {2, 1}, nearlyTwo), (Bytes{10, 30}));
    // A destination one pixel wide takes the pixel at trunc(x0).
    const double late[4] = {2.7, 0, 3, 0};
    EXPECT_EQ(extractMap(src, {4, 1}, {1, 1}, late), (Bytes{30}));
    uint8_t remap[256];
    for (int i = 0; i < 256; ++i) remap[i] = uint8_t(255 - i);
    EXPECT_EQ(extractMap(src, {4, 1}, {2, 1}, nullptr, remap), (Bytes{245, 215}));

    Bytes out(2);
    ImageSize ss{4, 1}, ds{2, 1};
    EXPECT_EQ(korImage_extractSubImage(out.data(), &ds, src.data(), &ss, nullptr, IMAGEFORMAT_MAP2), 0);
    EXPECT_EQ(out, (Bytes{10, 40}));
    for (int format : {0, int(IMAGEFORMAT_RGB2), 9})
        EXPECT_EQ(korImage_extractSubImage(out.data(), &ds, src.data(), &ss, nullptr, format), IMGERR_BADIMAGEFORMAT);
}

// With corners on quarter pixels the fixed point is exact, and destination i
// takes the source pixel under x0 + i (x1 - x0) / (d - 1), rounded down.
TEST(SubImage, QuarterPixelRectanglesFollowTheExactRatio) {
    const int sw = 37, sh = 23;
    Bytes src(sw * sh);
    for (int i = 0; i < sw * sh; ++i) src[i] = uint8_t(i % sw + 40 * (i / sw % 6));
    // Corners a / 4 .. b / 4 (b >= a >= 0): the source index of position i.
    auto under = [](int a, int b, int d, int i) { return (a * (d - 1) + i * (b - a)) / (4 * (d - 1)); };
    std::mt19937 rng(11);
    for (int trial = 0; trial < 300; ++trial) {
        int ax = int(rng() % (4 * sw - 3)), bx = int(rng() % (4 * sw - 3)), ay = int(rng() % 24);
        int by = ay + int(rng() % 24), dw = 2 + int(rng() % 60), dh = 2 + int(rng() % 9);
        if (bx < ax) std::swap(ax, bx);
        const double rect[4] = {ax / 4.0, ay / 4.0, bx / 4.0, by / 4.0};
        Bytes dst = extractMap(src, {sw, sh}, {dw, dh}, rect);
        for (int j = 0; j < dh; ++j)
            for (int i = 0; i < dw; ++i)
                ASSERT_EQ(dst[j * dw + i], src[under(ay, by, dh, j) * sw + under(ax, bx, dw, i)])
                    << "trial " << trial << " at " << i << "," << j;
    }
}

TEST(SubImage, RowCopyRuleWindowsOutsideTheImageAndBadArguments) {
    const int sw = 4, sh = 10;
    const ImageSize ss{sw, sh};
    Bytes src(sw * sh);
    for (int i = 0; i < sw * sh; ++i) src[i] = uint8_t(i);
    // Rows 0, 10 and 20 are asked for: rows sh or more after the first row
    // used repeat the row above instead of being read.
    const double tall[4] = {0, 0, 3, 20};
    EXPECT_EQ(extractMap(src, ss, {sw, 3}, tall), (Bytes{0, 1, 2, 3, 0, 1, 2, 3, 0, 1, 2, 3}));

    // Columns and rows outside the image take the nearest edge.
    const double left[4] = {-2, 0, 1, 0};
    EXPECT_EQ(extractMap(src, ss, {4, 1}, left), (Bytes{0, 0, 0, 1}));
    const double below[4] = {0, 8, 3, 11};
    Bytes d = extractMap(src, ss, {sw, 4}, below);
    EXPECT_EQ(row(d, sw, 0), row(src, sw, 8));
    for (int j = 1; j < 4; ++j) EXPECT_EQ(row(d, sw, j), row(src, sw, 9)) << j;
    // Corners far beyond any image neither hang nor read outside the source:
    // far left to far right, upwards from far below.
    const double huge[4] = {-1e300, 1e300, 1e300, -1e300};
    d = extractMap(src, ss, {5000, 3}, huge);
    EXPECT_EQ(d[0], src[(sh - 1) * sw]);
    EXPECT_EQ(d[4999], src[sh * sw - 1]);
    EXPECT_EQ(row(d, 5000, 2), row(d, 5000, 0));

    ImageSize ds{2, 2}, none{0, 5};
    const double nan[4] = {0, NAN, 1, 1};
    EXPECT_EQ(korImage_extractByteMapSubImage(d.data(), &ds, src.data(), &ss, nan, nullptr), IMGERR_BADARG);
    EXPECT_EQ(korImage_extractByteMapSubImage(d.data(), &ds, src.data(), &none, nullptr, nullptr), IMGERR_BADARG);
    EXPECT_EQ(korImage_extractByteMapSubImage(d.data(), &ds, nullptr, &ss, nullptr, nullptr), IMGERR_BADARG);
    EXPECT_EQ(korImage_extractByteMapSubImage(nullptr, &none, src.data(), &ss, nullptr, nullptr), 0);
}

Bytes randomRuns(std::mt19937& rng, size_t n, int levels) {
    Bytes b(n);
    for (size_t i = 0; i < n;) {
        uint8_t v = uint8_t(rng() % levels);
        for (size_t run = 1 + rng() % 6; run && i < n; --run) b[i++] = v;
    }
    return b;
}

// Random sizes and rectangles (fractional, reversed, partly outside, or the
// whole source); each member's result, expanded, equals the byte-map
// member's result on the expanded source.
TEST(SubImage, EveryMemberAgreesWithTheByteMapMember) {
    using geotest::Grid;
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> coord(-6.0, 50.0);
    for (int trial = 0; trial < 400; ++trial) {
        ImageSize ss{1 + int(rng() % 45), 1 + int(rng() % 12)}, ds{1 + int(rng() % 70), 1 + int(rng() % 20)};
        double r[4] = {coord(rng), coord(rng), coord(rng), coord(rng)};
        if (trial % 5 == 1) r[2] = (r[0] = 8.0 * (rng() % 3)) + ds.x - 1;  // same size, from a whole byte
        const double* rect = trial % 7 == 0 ? nullptr : r;
        const size_t sn = size_t(ss.x) * ss.y, dn = size_t(ds.x) * ds.y, rb = (size_t(ds.x) + 7) / 8;
        SCOPED_TRACE(testing::Message() << "trial " << trial);
        // The map in a layout; an empty row table of the destination's size.
        auto layout = [&](geotest::Image& img, int format, const Bytes& map) {
            geotest::fill(img, format, Grid{ss.x, ss.y, 1, map});
        };
        auto rowTable = [&](geotest::Image& img, int format) {
            img.data = dlmSystem_korCalloc(size_t(ds.y), sizeof(void*)), img.size = ds, img.format = format;
        };

        geotest::Image bits, runs, packed, outRuns, outRows;
        Bytes map = randomRuns(rng, sn, 2), expected = extractMap(map, ss, ds, rect), outBits(rb * ds.y, 0xA5),
              out(dn, 0xEE);
        layout(bits, IMAGEFORMAT_BITMAP, map);
        layout(runs, IMAGEFORMAT_RLEBITMAP, map);
        ASSERT_EQ(korImage_extractSubImage(outBits.data(), &ds, bits.data, &ss, rect, IMAGEFORMAT_BITMAP), 0);
        EXPECT_EQ(geotest::grid(outBits.data(), ds, IMAGEFORMAT_BITMAP).px, expected);
        EXPECT_EQ(outBits[rb - 1] & (0xFF >> ((ds.x - 1) % 8 + 1)), 0);  // padding bits cleared
        ASSERT_EQ(korImage_subByteMapFromBitMap(out.data(), &ds, static_cast<uint8_t*>(bits.data), &ss, rect), 0);
        EXPECT_EQ(out, expected);
        out.assign(dn, 0xEE);
        ASSERT_EQ(korImage_subByteMapFromRLEBitMap(out.data(), &ds, static_cast<uint16_t**>(runs.data), &ss, rect), 0);
        EXPECT_EQ(out, expected);
        rowTable(outRuns, IMAGEFORMAT_RLEBITMAP);
        ASSERT_EQ(korImage_extractSubImage(outRuns.data, &ds, runs.data, &ss, rect, IMAGEFORMAT_RLEBITMAP), 0);
        EXPECT_EQ(geotest::grid(outRuns).px, expected);

        map = randomRuns(rng, sn, 4 + int(rng() % 250));
        expected = extractMap(map, ss, ds, rect);
        layout(packed, IMAGEFORMAT_PACKBYTE, map);
        out.assign(dn, 0xEE);
        ASSERT_EQ(korImage_subByteMapFromPackByte(out.data(), &ds, static_cast<uint8_t**>(packed.data), &ss, rect), 0);
        EXPECT_EQ(out, expected);
        rowTable(outRows, IMAGEFORMAT_PACKBYTE);
        ASSERT_EQ(korImage_extractSubImage(outRows.data, &ds, packed.data, &ss, rect, IMAGEFORMAT_PACKBYTE), 0);
        EXPECT_EQ(geotest::grid(outRows).px, expected);

        // Row-planar RGB and interleaved RGBA: every plane or channel steps like a byte map.
        for (int format : {IMAGEFORMAT_RGB, IMAGEFORMAT_RGBA}) {
            const size_t bpp = size_t(geotest::gridBytes(format));
            Grid src{ss.x, ss.y, int(bpp), Bytes(sn * bpp)}, want{ds.x, ds.y, int(bpp), Bytes(dn * bpp)};
            for (size_t k = 0; k < bpp; ++k) {
                Bytes plane = randomRuns(rng, sn, 256), stepped = extractMap(plane, ss, ds, rect);
                for (size_t i = 0; i < sn; ++i) src.px[i * bpp + k] = plane[i];
                for (size_t i = 0; i < dn; ++i) want.px[i * bpp + k] = stepped[i];
            }
            geotest::Image img;
            geotest::fill(img, format, src);
            Bytes dst(dn * bpp);
            ASSERT_EQ(korImage_extractSubImage(dst.data(), &ds, img.data, &ss, rect, format), 0);
            EXPECT_EQ(geotest::grid(dst.data(), ds, format), want) << format;
        }
    }
}

// A caller-buffer allocator that fails after a number of blocks and counts the blocks held.
int g_blocksLeft = 0, g_live = 0;
void* failingMalloc(size_t n) {
    if (g_blocksLeft-- <= 0) return nullptr;
    ++g_live;
    return std::malloc(n);
}
void countedFree(void* p) {
    g_live -= p != nullptr;
    std::free(p);
}

TEST(SubImage, RowsFromFilesAndAllocationFailure) {
    // Runs that pass the width, a missing row, and PackByte packets holding
    // more pixels than the width: everything is read within the width.
    const ImageSize ss{10, 3};
    uint16_t overshoot[] = {3, 65535}, midway[] = {0, 4, 20, 9};
    std::vector<uint16_t*> runs = {overshoot, nullptr, midway};
    Bytes out(31, 0xEE);
    ASSERT_EQ(korImage_subByteMapFromRLEBitMap(out.data(), &ss, runs.data(), &ss, nullptr), 0);
    EXPECT_EQ(Bytes(out.begin(), out.end() - 1), (Bytes{0, 0, 0, 1, 1, 1, 1, 1, 1, 1,  //
                                                        0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  //
                                                        1, 1, 1, 1, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(out.back(), 0xEE);
    uint8_t longRepeat[] = {0x80, 7}, longLiteral[20] = {19, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
    std::vector<uint8_t*> packed = {longRepeat, longLiteral, nullptr};
    ASSERT_EQ(korImage_subByteMapFromPackByte(out.data(), &ss, packed.data(), &ss, nullptr), 0);
    EXPECT_EQ(Bytes(out.begin(), out.end() - 1), (Bytes{7, 7, 7, 7, 7, 7, 7, 7, 7, 7,   //
                                                        1, 2, 3, 4, 5, 6, 7, 8, 9, 10,  //
                                                        0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(out.back(), 0xEE);

    // A failed row allocation releases every row made and leaves the table null.
    const ImageSize big{40, 8}, ds{25, 12};
    Bytes map(40 * 8);
    for (size_t i = 0; i < map.size(); ++i) map[i] = uint8_t(i / 3);
    uint8_t** rows = nullptr;
    uint16_t** bitRows = nullptr;
    ASSERT_EQ(il::packByteEncodeImage(&rows, map.data(), &big), 0);
    ASSERT_EQ(korImage_runLengthEncodeBitMap(&bitRows, map.data(), &big), 0);
    ImageHost host{};
    host.korMalloc = failingMalloc;
    host.korFree = countedFree;
    for (int budget : {0, 1, 11}) {
        imagelib_setHost(&host);
        g_live = 0;
        g_blocksLeft = budget;
        std::vector<uint8_t*> outRows(12, reinterpret_cast<uint8_t*>(1));
        EXPECT_EQ(korImage_extractPackByteSubImage(outRows.data(), &ds, rows, &big, nullptr), IMGERR_NOMEMORY);
        g_blocksLeft = budget;
        std::vector<uint16_t*> outRuns(12);
        EXPECT_EQ(korImage_extractRLEBitMapSubImage(outRuns.data(), &ds, bitRows, &big, nullptr), IMGERR_NOMEMORY);
        imagelib_setHost(nullptr);
        EXPECT_EQ(g_live, 0) << budget;
        EXPECT_EQ(outRows, std::vector<uint8_t*>(12, nullptr));
        EXPECT_EQ(outRuns, std::vector<uint16_t*>(12, nullptr));
    }
    korImage_freeImage(rows, &big, IMAGEFORMAT_PACKBYTE);
    korImage_freeImage(bitRows, &big, IMAGEFORMAT_RLEBITMAP);
}

}  // namespace
