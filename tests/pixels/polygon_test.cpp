// Polygon fills: the even-odd rule at pixel centres, the row range and span
// rules, outside mode, and the agreement of every layout.
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
using Points = std::vector<double>;

// Paints value 1 into a zeroed w x h byte map; the filled flag goes to *filled.
Bytes fillMap(int w, int h, const Points& pts, bool outside, int* filled = nullptr) {
    Bytes map(size_t(w) * h, 0);
    ImageSize s{w, h};
    int f = -1;
    EXPECT_EQ(korImage_setMapPolygon(map.data(), &f, &s, IMAGEFORMAT_MAP, pts.data(), int(pts.size() / 2), outside, 1,
                                     nullptr),
              0);
    if (filled) *filled = f;
    return map;
}

Bytes fromPredicate(int w, int h, auto inside) {
    Bytes map(size_t(w) * h);
    for (int i = 0; i < w * h; ++i) map[i] = inside(i % w, i / w) ? 1 : 0;
    return map;
}

const Points kSquare = {2, 2, 6, 2, 6, 6, 2, 6, 2, 2};

TEST(Polygon, SquareComplementAndSinglePixelSpans) {
    int filled = 0;
    Bytes inside = fillMap(10, 9, kSquare, false, &filled);
    EXPECT_EQ(filled, 1);
    EXPECT_EQ(inside, fromPredicate(10, 9, [](int x, int y) { return x >= 2 && x <= 5 && y >= 2 && y <= 5; }));
    Bytes outside = fillMap(10, 9, kSquare, true, &filled);
    EXPECT_EQ(filled, 1);
    for (size_t i = 0; i < inside.size(); ++i) ASSERT_EQ(outside[i], 1 - inside[i]) << i;

    // One pixel wide: every span starts where it ends. Outside a polygon that
    // starts at x = 1, the one-pixel gap at the left edge stays.
    EXPECT_EQ(fillMap(8, 8, {2, 1, 3, 1, 3, 7, 2, 7, 2, 1}, false, &filled), Bytes(64, 0));
    EXPECT_EQ(filled, 0);
    EXPECT_EQ(fillMap(8, 4, {1, -1, 8, -1, 8, 9, 1, 9, 1, -1}, true, &filled), Bytes(32, 0));
    EXPECT_EQ(filled, 0);
    // No point at all: nothing inside, everything outside.
    EXPECT_EQ(fillMap(8, 4, {}, false), Bytes(32, 0));
    EXPECT_EQ(fillMap(8, 4, {}, true), Bytes(32, 1));
}

TEST(Polygon, RowRangeAndVerticesOnScanLines) {
    // The triangle (0,0) (8,0) (0,8): on scan line r + 0.5 the hypotenuse lies
    // at x = 7.5 - r, so row r spans 0 .. 6 - r; its last rows are single
    // pixels or empty.
    EXPECT_EQ(fillMap(10, 10, {0, 0, 8, 0, 0, 8, 0, 0}, false),
              fromPredicate(10, 10, [](int x, int y) { return y < 6 && x <= 6 - y; }));

    // A notch whose tip (4, 3.5) touches scan line 3 from above adds no
    // crossing there. On row 4 its sides cross at 2.52 and 5.48; on row 5 at
    // 1.04 and 6.96, which leaves single pixels only.
    EXPECT_EQ(fillMap(9, 6, {0, 0.2, 8, 0.2, 8, 6.2, 4, 3.5, 0, 6.2, 0, 0.2}, false),
              (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0,  //
                     1, 1, 1, 1, 1, 1, 1, 1, 0,  //
                     1, 1, 1, 1, 1, 1, 1, 1, 0,  //
                     1, 1, 1, 1, 1, 1, 1, 1, 0,  //
                     1, 1, 0, 0, 0, 0, 1, 1, 0,  //
                     0, 0, 0, 0, 0, 0, 0, 0, 0}));

    // The side vertices (0, 3.5) and (10, 3.5) of this hexagon lie on scan
    // line 3 and are passed through: each counts once.
    EXPECT_EQ(fillMap(10, 8, {0, 3.5, 3, 0.5, 7, 0.5, 10, 3.5, 7, 6.5, 3, 6.5, 0, 3.5}, false),
              fromPredicate(10, 8, [](int x, int y) {
                  return y >= 1 && y <= 5 && x >= std::abs(y - 3) && x <= 9 - std::abs(y - 3);
              }));

    // An edge lying on scan line 2 ((6, 2.5) to (8, 2.5)) adds no crossing at
    // either end, which leaves one crossing on that row: it is not painted.
    EXPECT_EQ(fillMap(9, 5, {0, 0.2, 6, 0.2, 6, 2.5, 8, 2.5, 8, 4.8, 0, 4.8, 0, 0.2}, false),
              fromPredicate(9, 5, [](int x, int y) { return (y == 1 && x <= 5) || (y == 3 && x <= 7); }));

    // The row at floor(largest y) is never painted, and rows off the image are cut.
    EXPECT_EQ(fillMap(6, 4, {1, 1, 5, 1, 5, 3.9, 1, 3.9, 1, 1}, false),
              fromPredicate(6, 4, [](int x, int y) { return y >= 1 && y <= 2 && x >= 1 && x <= 4; }));
    EXPECT_EQ(fillMap(6, 4, {1, -3, 5, -3, 5, 30, 1, 30, 1, -3}, false),
              fromPredicate(6, 4, [](int x, int) { return x >= 1 && x <= 4; }));
}

// A polygon painted into one layout from the one-byte-a-pixel image img,
// read back one byte a pixel.
Bytes paintLayout(int format, ImageSize s, const Points& pts, int outside, int value, Bytes img, int* filled) {
    geotest::Image image;
    geotest::fill(image, format, geotest::Grid{s.x, s.y, 1, std::move(img)});
    EXPECT_EQ(korImage_setMapPolygon(image.data, filled, &s, format, pts.data(), int(pts.size() / 2), outside, value,
                                     nullptr),
              0);
    return geotest::grid(image).px;
}

TEST(Polygon, EveryLayoutPaintsTheSamePixels) {
    std::mt19937 rng(17);
    std::uniform_real_distribution<double> coord(-8.0, 48.0);
    for (int trial = 0; trial < 150; ++trial) {
        ImageSize s{1 + int(rng() % 45), 1 + int(rng() % 30)};
        Points pts;
        for (int i = 3 + int(rng() % 7); i > 0; --i) {  // some vertices on scan lines and pixel edges
            pts.push_back(rng() % 3 ? coord(rng) : std::floor(coord(rng)));
            pts.push_back(rng() % 3 ? coord(rng) : std::floor(coord(rng)) + 0.5);
        }
        pts.push_back(pts[0]);
        pts.push_back(pts[1]);
        const int outside = rng() % 3 == 0;
        const size_t n = size_t(s.x) * s.y;
        Bytes bilevel(n), bytes(n), mask;
        for (size_t i = 0; i < n; ++i) {
            bilevel[i] = uint8_t((i / 5 + i / 7) & 1);
            bytes[i] = uint8_t(i / 4 * 37);
        }
        SCOPED_TRACE(testing::Message() << "trial " << trial);

        // Which pixels are painted, whatever the image held before.
        int maskFilled = -1, filled = -1;
        mask = paintLayout(IMAGEFORMAT_MAP2, s, pts, outside, 1, Bytes(n, 0), &maskFilled);
        EXPECT_EQ(maskFilled, std::count(mask.begin(), mask.end(), 1) > 0 ? 1 : 0);
        Bytes map(n), rgb(n * 3);
        for (size_t i = 0; i < n; ++i) map[i] = mask[i] ? 9 : bytes[i];
        EXPECT_EQ(paintLayout(IMAGEFORMAT_MAP, s, pts, outside, 9, bytes, &filled), map);
        EXPECT_EQ(paintLayout(IMAGEFORMAT_PACKBYTE, s, pts, outside, 9, bytes, &filled), map);
        EXPECT_EQ(filled, maskFilled);
        for (int value : {0, 1}) {
            for (size_t i = 0; i < n; ++i) map[i] = mask[i] ? value : bilevel[i];
            EXPECT_EQ(paintLayout(IMAGEFORMAT_BITMAP, s, pts, outside, value * 77, bilevel, &filled), map);
            EXPECT_EQ(paintLayout(IMAGEFORMAT_RLEBITMAP, s, pts, outside, value * 77, bilevel, &filled), map);
        }
        // Row-planar RGB: each plane gets its own colour on the same pixels.
        const uint8_t colour[3] = {9, 90, 190};
        for (size_t i = 0; i < n * 3; ++i) rgb[i] = uint8_t(i);
        Bytes want = rgb;
        for (size_t i = 0; i < n * 3; ++i)
            if (mask[i / (3 * s.x) * s.x + i % s.x]) want[i] = colour[i / s.x % 3];
        EXPECT_EQ(
            korImage_setRGBPolygon(rgb.data(), &filled, &s, pts.data(), int(pts.size() / 2), outside, colour, nullptr),
            0);
        EXPECT_EQ(rgb, want);
    }
}

// Stop polls: (rows in the range, rows done) once a row.
std::vector<std::pair<int, int>> g_polls;
int recordingStop(int total, int done) {
    g_polls.emplace_back(total, done);
    return done == 2 && total == 9;  // stops outside fills at their third row
}
int g_blocksLeft = 0;
void* failingMalloc(size_t n) { return g_blocksLeft-- > 0 ? std::malloc(n) : nullptr; }

TEST(Polygon, RowsFromFilesStopsFailuresAndBadArguments) {
    // A run-length row whose last run passes the width, a missing row, a
    // PackByte row with more pixels than the width: all read within the width.
    const ImageSize s{10, 3};
    const Points band = {3, -1, 7, -1, 7, 5, 3, 5, 3, -1};
    uint16_t* runs[3] = {static_cast<uint16_t*>(dlmSystem_korMalloc(4)), nullptr, nullptr};
    runs[0][0] = 0;
    runs[0][1] = 60000;
    ASSERT_EQ(korImage_setMapPolygon(runs, nullptr, &s, IMAGEFORMAT_RLEBITMAP, band.data(), 5, 0, 0, nullptr), 0);
    uint8_t bits[4];
    korImage_runLengthDecodeBitMapRow(bits, runs[0], 10);
    korImage_runLengthDecodeBitMapRow(bits + 2, runs[1], 10);
    EXPECT_EQ(Bytes({bits[0], uint8_t(bits[1] & 0xC0), bits[2], uint8_t(bits[3] & 0xC0)}), (Bytes{0xE1, 0xC0, 0, 0}));
    uint8_t* packed[3] = {static_cast<uint8_t*>(dlmSystem_korMalloc(2)), nullptr, nullptr};
    packed[0][0] = 0x80;
    packed[0][1] = 4;
    ASSERT_EQ(korImage_setMapPolygon(packed, nullptr, &s, IMAGEFORMAT_PACKBYTE, band.data(), 5, 0, 8, nullptr), 0);
    Bytes r(20);
    korImage_unpackByteBuffer(r.data(), packed[0], 10);
    korImage_unpackByteBuffer(r.data() + 10, packed[2], 10);
    EXPECT_EQ(r, (Bytes{4, 4, 4, 8, 8, 8, 8, 4, 4, 4, 0, 0, 0, 8, 8, 8, 8, 0, 0, 0}));
    for (int i = 0; i < 3; ++i) {
        dlmSystem_korFree(runs[i]);
        dlmSystem_korFree(packed[i]);
    }

    // The stop poll: once per row of the range; a stop keeps the rows painted.
    ImageSize s9{10, 9};
    Bytes map(90, 0);
    ASSERT_EQ(korImage_setMapPolygon(map.data(), nullptr, &s9, IMAGEFORMAT_MAP, kSquare.data(), 5, 0, 1, recordingStop),
              0);
    EXPECT_EQ(g_polls, (std::vector<std::pair<int, int>>{{4, 0}, {4, 1}, {4, 2}, {4, 3}}));
    std::fill(map.begin(), map.end(), 0);
    EXPECT_EQ(korImage_setMapPolygon(map.data(), nullptr, &s9, IMAGEFORMAT_MAP, kSquare.data(), 5, 1, 1, recordingStop),
              IMGERR_STOPPED);
    EXPECT_EQ(g_polls.size(), 7u);
    EXPECT_EQ(std::count(map.begin(), map.end(), 1), 20);

    // Out of memory part way: rows painted before hold the fill, the others are untouched.
    Bytes bytes(90);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = uint8_t(i % 5);
    uint8_t** rows = nullptr;
    ASSERT_EQ(il::packByteEncodeImage(&rows, bytes.data(), &s9), 0);
    ImageHost host{};
    host.korMalloc = failingMalloc;
    imagelib_setHost(&host);
    g_blocksLeft = 2;
    int status = korImage_setMapPolygon(rows, nullptr, &s9, IMAGEFORMAT_PACKBYTE, kSquare.data(), 5, 0, 9, nullptr);
    imagelib_setHost(nullptr);
    EXPECT_EQ(status, IMGERR_NOMEMORY);
    for (int y = 0; y < 9; ++y) korImage_unpackByteBuffer(map.data() + y * 10, rows[y], 10);
    for (int i = 0; i < 90; ++i)
        EXPECT_EQ(map[i], (i / 10 == 2 || i / 10 == 3) && i % 10 >= 2 && i % 10 <= 5 ? 9 : bytes[i]) << i;
    korImage_freeImage(rows, &s9, IMAGEFORMAT_PACKBYTE);

    int filled = -1;
    for (int format : {0, int(IMAGEFORMAT_RGB), int(IMAGEFORMAT_RGB2), int(IMAGEFORMAT_RGBA), 9}) {
        EXPECT_EQ(korImage_setMapPolygon(map.data(), &filled, &s9, format, kSquare.data(), 5, 0, 1, nullptr),
                  IMGERR_BADARG);
        EXPECT_EQ(filled, 0);
    }
    const Points nan = {0, 0, NAN, 1, 2, 2};
    EXPECT_EQ(korImage_setMapPolygon(map.data(), &filled, &s9, IMAGEFORMAT_MAP, nan.data(), 3, 0, 1, nullptr),
              IMGERR_BADARG);
    EXPECT_EQ(korImage_setMapPolygon(map.data(), &filled, &s9, IMAGEFORMAT_MAP, nullptr, 3, 0, 1, nullptr),
              IMGERR_BADARG);
    // Coordinates near the limits of a double stay harmless.
    const Points wild = {-1e308, -1e308, 1e308, 0.5, 1e308, 1e308, -1e308, 2.5, -1e308, -1e308};
    EXPECT_EQ(korImage_setMapPolygon(map.data(), &filled, &s9, IMAGEFORMAT_MAP, wild.data(), 5, 1, 1, nullptr), 0);
}

}  // namespace
