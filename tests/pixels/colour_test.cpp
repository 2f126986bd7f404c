// Colour mapping, layout conversions, gamma, tone operations and grey levels.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "imagelib/host.h"
#include "imagelib/pixels.h"
#include "pixels/colour.h"
#include "pixels/rows.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Calls = std::vector<std::pair<int, int>>;

// A stop function that answers `answer` from its `after`-th call on and
// records what it was given.
struct StopProbe {
    static inline int calls = 0, after = 0, answer = 0;
    static inline Calls args;
    static int fn(int total, int done) {
        args.emplace_back(total, done);
        return ++calls > after ? answer : 0;
    }
    static StopFunction arm(int afterCalls, int value) {
        calls = 0, after = afterCalls, answer = value;
        args.clear();
        return &fn;
    }
};

struct Palette {
    uint8_t r[256] = {}, g[256] = {}, b[256] = {};
    int count = 0;
    Palette(std::initializer_list<std::array<uint8_t, 3>> colours = {}) {
        for (const auto& c : colours) add(c[0], c[1], c[2]);
    }
    void add(uint8_t red, uint8_t green, uint8_t blue) { r[count] = red, g[count] = green, b[count++] = blue; }
};

Bytes randomBytes(std::mt19937& rng, size_t n) {
    Bytes v(n);
    for (auto& b : v) b = uint8_t(rng());
    return v;
}

Bytes decodePackByteImage(uint8_t* const* rows, const ImageSize& size) {
    uint8_t* decoded = nullptr;
    EXPECT_EQ(il::packByteDecodeImage(&decoded, rows, &size), 0);
    Bytes out(decoded, decoded + size_t(size.x) * size_t(size.y));
    korImage_freeImage(decoded, &size, IMAGEFORMAT_MAP);
    return out;
}

}  // namespace

TEST(Grey, ToneCurveAndGreyTables) {
    // The tone curve as tabulated: 1 up to 38, 2 .. 32 rising by one, the
    // listed values from 70 to 211, then 254.
    std::vector<int> curve(39, 1);
    for (int v = 2; v <= 32; ++v) curve.push_back(v);
    curve.insert(curve.end(),
                 {32,  33,  34,  35,  35,  36,  37,  39,  39,  40,  41,  42,  43,  44,  45,  46,  47,  47,  48,  49,
                  50,  51,  52,  53,  54,  55,  56,  57,  58,  58,  59,  60,  61,  62,  63,  64,  65,  66,  67,  68,
                  69,  70,  71,  72,  73,  74,  75,  76,  77,  78,  80,  81,  82,  83,  85,  86,  87,  88,  89,  90,
                  91,  93,  94,  95,  96,  97,  99,  100, 101, 102, 103, 105, 106, 107, 108, 110, 112, 114, 115, 116,
                  118, 120, 122, 124, 126, 128, 130, 132, 134, 136, 138, 140, 143, 145, 147, 149, 152, 154, 156, 159,
                  161, 164, 166, 169, 171, 174, 176, 178, 179, 181, 183, 185, 186, 188, 189, 190, 192, 194, 196, 198,
                  200, 202, 204, 206, 208, 210, 212, 214, 217, 219, 221, 224, 227, 230, 232, 235, 237, 239, 242, 245,
                  248, 251});
    curve.resize(256, 254);
    EXPECT_EQ(std::vector<int>(il::kGreyToneCurve, il::kGreyToneCurve + 256), curve);

    // The identity ramp keeps its indices.
    Palette ramp;
    for (int i = 0; i < 16; ++i) ramp.add(uint8_t(i), uint8_t(i), uint8_t(i));
    uint8_t table[256];
    int dark = -1, light = -1;
    ASSERT_EQ(korImage_paletteToGreyScale(table, &dark, &light, ramp.r, ramp.g, ramp.b, 16), 0);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(table[i], i);
    EXPECT_EQ(std::pair(dark, light), std::pair(0, 15));
    // White: 76 + 150 + 28 = 254 -> 254.
    Palette white{{255, 255, 255}};
    ASSERT_EQ(korImage_paletteToGreyScale(table, &dark, &light, white.r, white.g, white.b, 1), 0);
    EXPECT_EQ(table[0], 254);
    EXPECT_EQ(std::pair(dark, light), std::pair(254, 254));
    // Pure red: 255 * 30 / 100 = 76 -> 37; blue 28 -> 1; the lightest over the entries in use.
    Palette three{{0, 0, 0}, {255, 0, 0}, {0, 0, 255}};
    ASSERT_EQ(korImage_paletteToGreyScale(table, nullptr, &light, three.r, three.g, three.b, 3), 0);
    EXPECT_EQ(table[1], 37);
    EXPECT_EQ(table[2], 1);
    EXPECT_EQ(light, 37);

    // RGB: black 1, white 254, with the extremes reported.
    ImageSize size{3, 1};
    Bytes rgb = {0, 255, 255, 0, 255, 255, 0, 255, 0};  // black, white, yellow (76 + 150 = 226 -> 254)
    Bytes grey(3);
    ASSERT_EQ(korImage_rgbToGreyScale(grey.data(), &dark, &light, rgb.data(), &size), 0);
    EXPECT_EQ(grey, (Bytes{1, 254, 254}));
    EXPECT_EQ(std::pair(dark, light), std::pair(1, 254));
}

TEST(Grey, FloatingRuleMatchesTheDoubleSum) {
    // The in-place RGB grey uses 0.3 / 0.59 / 0.11 and + 0.5, without the
    // tone curve (white 255, black 0); checked against the double sum over a
    // dense sample.
    std::vector<int> want;
    Bytes r, g, b;
    for (int red = 0; red < 256; red += 3)
        for (int green = 0; green < 256; green += 5)
            for (int blue = 0; blue < 256; ++blue) {
                r.push_back(uint8_t(red)), g.push_back(uint8_t(green)), b.push_back(uint8_t(blue));
                want.push_back(int(0.3 * red + 0.59 * green + 0.11 * blue + 0.5));
            }
    const size_t n = want.size();
    ImageSize size{int32_t(n), 1};
    Bytes planes = r;
    planes.insert(planes.end(), g.begin(), g.end());
    planes.insert(planes.end(), b.begin(), b.end());
    ASSERT_EQ(korImage_RGBToRGBGreyScale(planes.data(), &size, nullptr), 0);
    for (size_t i = 0; i < n; ++i) {
        ASSERT_EQ(planes[i], want[i]) << int(r[i]) << "," << int(g[i]) << "," << int(b[i]);
        ASSERT_EQ(planes[n + i], want[i]);
        ASSERT_EQ(planes[2 * n + i], want[i]);
    }
}

TEST(Grey, ConvertByteMapsAndPackByteRows) {
    Palette pal{{0, 0, 0}, {255, 255, 255}, {255, 0, 0}};
    ImageSize size{3, 2};
    Bytes map = {0, 1, 2, 2, 1, 0};
    Bytes out(6);
    int count = pal.count;
    // Into another buffer: the palette stays.
    ASSERT_EQ(korImage_convertToGreyScale(out.data(), pal.r, pal.g, pal.b, &count, map.data(), &size, 3, nullptr), 0);
    EXPECT_EQ(out, (Bytes{1, 254, 37, 37, 254, 1}));
    EXPECT_EQ(count, 3);
    EXPECT_EQ(pal.r[1], 255);
    // In place: the palette becomes the grey ramp of 256.
    ASSERT_EQ(korImage_convertToGreyScale(map.data(), pal.r, pal.g, pal.b, &count, map.data(), &size, 3, nullptr), 0);
    EXPECT_EQ(map, out);
    EXPECT_EQ(count, 256);
    for (int i = 0; i < 256; ++i) ASSERT_TRUE(pal.r[i] == i && pal.g[i] == i && pal.b[i] == i);
    EXPECT_EQ(korImage_convertToGreyScale(map.data(), pal.r, pal.g, pal.b, &count, map.data(), &size, 5, nullptr),
              IMGERR_CANTCONVERT);

    // PackByte rows in place, then a stop on the second row.
    const Bytes src = {0, 0, 1, 1, 1, 0};
    for (StopFunction stop : {StopFunction(nullptr), StopProbe::arm(1, 9)}) {
        Palette bw{{0, 0, 0}, {255, 255, 255}};
        count = 2;
        uint8_t** rows = nullptr;
        ASSERT_EQ(il::packByteEncodeImage(&rows, src.data(), &size), 0);
        EXPECT_EQ(korImage_convertToGreyScale(rows, bw.r, bw.g, bw.b, &count, rows, &size, 8, stop),
                  stop ? IMGERR_STOPPED : 0);
        // Stopped: the second row keeps its indices.
        EXPECT_EQ(decodePackByteImage(rows, size),
                  stop ? (Bytes{1, 1, 254, 1, 1, 0}) : (Bytes{1, 1, 254, 254, 254, 1}));
        korImage_freeImage(rows, &size, IMAGEFORMAT_PACKBYTE);
    }
}

TEST(Tone, GammaNegateTint) {
    uint8_t t[256];
    il::buildGammaTable(t, 2.0);
    EXPECT_EQ((Bytes{t[0], t[128], t[255]}), (Bytes{0, 181, 255}));
    il::buildGammaTable(t, 0.5);
    EXPECT_EQ(t[128], 64);
    il::buildGammaTable(t, 1.0);
    for (int i = 0; i < 256; ++i) ASSERT_EQ(t[i], i);
    il::buildGammaTable(t, -1.0);  // nonsense gammas stay in range
    il::buildGammaTable(t, 0.0);
    EXPECT_TRUE(il::gammaIsIdentity(1.0));
    EXPECT_TRUE(il::gammaIsIdentity(std::nan("")));
    EXPECT_FALSE(il::gammaIsIdentity(1.0000001));

    ImageSize size{2, 1};
    Bytes src = {0, 128, 255, 128, 10, 20};
    Bytes dst(6, 0);
    korImage_applyGamma(dst.data(), src.data(), &size, 1.0);
    EXPECT_EQ(dst, src);
    korImage_applyGamma(dst.data(), src.data(), &size, 2.0);
    EXPECT_EQ((Bytes{dst[1], dst[2]}), (Bytes{181, 255}));
    Palette pal{{128, 0, 255}};
    korImage_applyGammaToPalette(pal.r, pal.g, pal.b, 1, 2.0);
    EXPECT_EQ(pal.r[0], 181);
    korImage_negatePalette(pal.r, pal.g, pal.b, 1);
    EXPECT_EQ((Bytes{pal.r[0], pal.g[0], pal.b[0]}), (Bytes{74, 255, 0}));
    korImage_negate(dst.data(), src.data(), &size);
    EXPECT_EQ(dst, (Bytes{255, 127, 0, 127, 245, 235}));

    // Tint: v * tint / 255, truncating; per plane.
    const uint8_t tint[3] = {128, 255, 0};
    Bytes img = {200, 255, 7, 9, 100, 100};
    ASSERT_EQ(korImage_tintImage(img.data(), &size, tint, nullptr), 0);
    EXPECT_EQ(img, (Bytes{100, 128, 7, 9, 0, 0}));
    Palette p2{{200, 7, 100}};
    korImage_tintPalette(p2.r, p2.g, p2.b, 1, tint);
    EXPECT_EQ((Bytes{p2.r[0], p2.g[0], p2.b[0]}), (Bytes{100, 7, 0}));
    // The tint polls with (total rows, current row) and returns the answer.
    ImageSize tall{1, 3};
    Bytes col(9, 255);
    EXPECT_EQ(korImage_tintImage(col.data(), &tall, tint, StopProbe::arm(1, 5)), 5);
    EXPECT_EQ(StopProbe::args, (Calls{{3, 0}, {3, 1}}));
    EXPECT_EQ(col[0], 128);  // row 0 done
    EXPECT_EQ(col[3], 255);  // row 1 not
}

TEST(Tone, EqualisationCutOffs) {
    // Red: 10 and 200 only; both scans stop at 200, nothing changes.
    // Green: 30, 31, 40: L = 30, H = 40; 31 -> 1/10 * 234 + 16 = 39.4 -> 39,
    // while 30 itself stays (the curve is not monotonic at its ends).
    // Blue: 20, 100, 240: 100 -> 80/220 * 234 + 16 = 101.09 -> 101.
    ImageSize size{3, 1};
    Bytes img = {10, 200, 10, 30, 31, 40, 20, 100, 240};
    ASSERT_EQ(korImage_RGBToRGBEqualized(img.data(), &size, nullptr), 0);
    EXPECT_EQ(img, (Bytes{10, 200, 10, 30, 39, 40, 20, 101, 240}));
    EXPECT_EQ(korImage_RGBToRGBEqualized(nullptr, &size, nullptr), 0);

    // A stop ends the counting but the stretch still runs on what was
    // counted (row 0 only), and the poll's answer comes back.
    ImageSize two{3, 2};
    Bytes img2 = {20, 100, 240, 20, 100, 240, 20, 100, 240, 50, 50, 50, 50, 50, 50, 50, 50, 50};
    EXPECT_EQ(korImage_RGBToRGBEqualized(img2.data(), &two, StopProbe::arm(1, 3)), 3);
    EXPECT_EQ(img2[1], 101);
    EXPECT_EQ(img2[9], 47);  // stretched on 20 .. 240 only: 30/220 * 234 + 16 = 47.9
}

TEST(Mapping, ByteMapsAndPackByteRowsToRGB) {
    Palette pal{{1, 2, 3}, {10, 20, 30}, {100, 200, 255}};
    ImageSize size{4, 2};
    Bytes map = {0, 1, 2, 1, 2, 2, 0, 0};
    uint8_t *rgb = nullptr, *rgb2 = nullptr;
    ASSERT_EQ(korImage_mapToRGB(&rgb, map.data(), &size, pal.r, pal.g, pal.b, nullptr), 0);
    EXPECT_EQ(Bytes(rgb, rgb + 24), (Bytes{1, 10, 100, 10, 2, 20, 200, 20, 3, 30, 255, 30,  //
                                           100, 100, 1, 1, 200, 200, 2, 2, 255, 255, 3, 3}));
    uint8_t** rows = nullptr;
    ASSERT_EQ(il::packByteEncodeImage(&rows, map.data(), &size), 0);
    ASSERT_EQ(korImage_extMapToRGB(&rgb2, rows, &size, pal.r, pal.g, pal.b, 1, nullptr), 0);
    EXPECT_EQ(Bytes(rgb2, rgb2 + 24), Bytes(rgb, rgb + 24));
    korImage_freeImage(rgb2, &size, IMAGEFORMAT_RGB);

    // Wide PackByte rows go through an allocated row.
    std::mt19937 rng(8);
    ImageSize wide{6001, 2};
    Bytes wideMap = randomBytes(rng, 6001 * 2);
    for (auto& v : wideMap) v %= 3;
    uint8_t** wideRows = nullptr;
    ASSERT_EQ(il::packByteEncodeImage(&wideRows, wideMap.data(), &wide), 0);
    uint8_t *a = nullptr, *b = nullptr;
    ASSERT_EQ(korImage_extMapToRGB(&a, wideRows, &wide, pal.r, pal.g, pal.b, 1, nullptr), 0);
    ASSERT_EQ(korImage_extMapToRGB(&b, wideMap.data(), &wide, pal.r, pal.g, pal.b, 0, nullptr), 0);
    EXPECT_EQ(std::memcmp(a, b, 3 * 6001 * 2), 0);
    korImage_freeImage(a, &wide, IMAGEFORMAT_RGB);
    korImage_freeImage(b, &wide, IMAGEFORMAT_RGB);
    korImage_freeImage(wideRows, &wide, IMAGEFORMAT_PACKBYTE);

    // Stops hand back the poll's value; into the caller's buffer the rows
    // before the stop are done.
    Bytes buf(24, 0);
    EXPECT_EQ(korImage_mapToRGBBuffer(buf.data(), map.data(), &size, pal.r, pal.g, pal.b, StopProbe::arm(1, 7)), 7);
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 12), Bytes(rgb, rgb + 12));
    EXPECT_EQ(Bytes(buf.begin() + 12, buf.end()), Bytes(12, 0));
    uint8_t* none = nullptr;
    EXPECT_EQ(korImage_extMapToRGB(&none, rows, &size, pal.r, pal.g, pal.b, 1, StopProbe::arm(0, -2)), -2);
    EXPECT_EQ(none, nullptr);
    korImage_freeImage(rgb, &size, IMAGEFORMAT_RGB);
    korImage_freeImage(rows, &size, IMAGEFORMAT_PACKBYTE);

    Bytes triples(9);
    korImage_paletteToRgbTable(triples.data(), pal.r, pal.g, pal.b, 3);
    EXPECT_EQ(triples, (Bytes{1, 2, 3, 10, 20, 30, 100, 200, 255}));
    uint8_t swap[256];
    for (int i = 0; i < 256; ++i) swap[i] = uint8_t(i ^ 1);
    Bytes buffer = {0, 1, 2, 3};
    korImage_remapByteBuffer(buffer.data(), 3, swap);
    EXPECT_EQ(buffer, (Bytes{1, 0, 3, 3}));
}

TEST(Mapping, BitmapsToRGB) {
    ImageSize size{10, 2};
    Bytes bits = {0x81, 0x40, 0x00, 0x00};
    const uint8_t fg[3] = {9, 8, 7}, bg[3] = {1, 2, 3}, greyBg[3] = {5, 5, 5};
    Bytes want(60);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 10; ++x)
            for (int c = 0; c < 3; ++c)
                want[size_t(30 * y + 10 * c + x)] = (bits[size_t(2 * y + x / 8)] >> (7 - x % 8)) & 1 ? fg[c] : bg[c];
    uint8_t *a = nullptr, *b = nullptr;
    ASSERT_EQ(korImage_extBitMapToRGB(&a, bits.data(), &size, fg, bg, 0, nullptr), 0);
    EXPECT_EQ(Bytes(a, a + 60), want);
    korImage_freeImage(a, &size, IMAGEFORMAT_RGB);
    uint16_t** rows = nullptr;
    ASSERT_EQ(korImage_runLengthEncodeBitMap(&rows, bits.data(), &size), 0);
    ASSERT_EQ(korImage_extBitMapToRGB(&b, rows, &size, fg, bg, 1, nullptr), 0);
    EXPECT_EQ(Bytes(b, b + 60), want);
    korImage_freeImage(b, &size, IMAGEFORMAT_RGB);
    ASSERT_EQ(korImage_extBitMapToRGB(&b, rows, &size, fg, greyBg, 1, nullptr), 0);
    EXPECT_EQ((Bytes{b[0], b[1], b[59]}), (Bytes{9, 5, 5}));
    korImage_freeImage(b, &size, IMAGEFORMAT_RGB);
    b = nullptr;
    EXPECT_EQ(korImage_extBitMapToRGB(&b, rows, &size, fg, bg, 1, StopProbe::arm(1, 1)), IMGERR_STOPPED);
    EXPECT_EQ(b, nullptr);
    korImage_freeImage(rows, &size, IMAGEFORMAT_RLEBITMAP);
}

TEST(Interleave, PlanesAndPixels) {
    std::mt19937 rng(12);
    ImageSize size{7, 3};
    Bytes planar = randomBytes(rng, 3 * 7 * 3);
    Bytes rgb(63), bgr(63), rgba(84);
    ASSERT_EQ(korImage_RGBSeparateToRGB(rgb.data(), planar.data(), &size, 5, nullptr), 0);
    ASSERT_EQ(korImage_RGBSeparateToBGR(bgr.data(), planar.data(), &size, nullptr), 0);
    ASSERT_EQ(korImage_RGBToRGBA(rgba.data(), planar.data(), &size, nullptr), 0);
    for (size_t y = 0; y < 3; ++y)
        for (size_t x = 0; x < 7; ++x)
            for (size_t c = 0; c < 3; ++c) {
                const uint8_t v = planar[21 * y + 7 * c + x];
                ASSERT_EQ(rgb[21 * y + 3 * x + c], v);
                ASSERT_EQ(bgr[21 * y + 3 * x + 2 - c], v);
                ASSERT_EQ(rgba[28 * y + 4 * x + c], v);
                ASSERT_EQ(rgba[28 * y + 4 * x + 3], 0);
            }
    // Back to planes, into a buffer and in place (null destination or source).
    Bytes back(63), inPlace = rgb, fromRgba = rgba;
    ASSERT_EQ(korImage_RGBToRGBSeparate(back.data(), rgb.data(), &size, 5, nullptr), 0);
    EXPECT_EQ(back, planar);
    ASSERT_EQ(korImage_RGBToRGBSeparate(nullptr, inPlace.data(), &size, 3, nullptr), 0);
    EXPECT_EQ(inPlace, planar);
    ASSERT_EQ(korImage_RGBSeparateToRGB(inPlace.data(), nullptr, &size, 5, nullptr), 0);
    EXPECT_EQ(inPlace, rgb);
    ASSERT_EQ(korImage_RGBAToRGBSeparate(nullptr, fromRgba.data(), &size, nullptr), 0);
    EXPECT_EQ(Bytes(fromRgba.begin(), fromRgba.begin() + 63), planar);

    // Layout 6: four planes and four bytes a pixel.
    Bytes four = randomBytes(rng, 4 * 7 * 3), inter(84), again(84);
    ASSERT_EQ(korImage_RGBSeparateToRGB(inter.data(), four.data(), &size, 6, nullptr), 0);
    EXPECT_EQ(inter[4 * 2 + 3], four[7 * 3 + 2]);  // alpha of pixel 2, row 0
    ASSERT_EQ(korImage_RGBToRGBSeparate(again.data(), inter.data(), &size, 6, nullptr), 0);
    EXPECT_EQ(again, four);

    // Interleaved RGBA to RGB drops every fourth byte, in place too.
    Bytes drop = {1, 2, 3, 4, 5, 6, 7, 8};
    il::rgbaToRGB(drop.data(), drop.data(), 2);
    EXPECT_EQ(Bytes(drop.begin(), drop.begin() + 6), (Bytes{1, 2, 3, 5, 6, 7}));

    // Stops: the rows before the stop are converted, the poll's value returned.
    Bytes partial(63, 0);
    EXPECT_EQ(korImage_RGBSeparateToRGB(partial.data(), planar.data(), &size, 5, StopProbe::arm(2, 4)), 4);
    EXPECT_EQ(Bytes(partial.begin(), partial.begin() + 42), Bytes(rgb.begin(), rgb.begin() + 42));
    EXPECT_EQ(Bytes(partial.begin() + 42, partial.end()), Bytes(21, 0));
}

TEST(Interleave, ColourKeys) {
    ImageSize size{3, 1};
    Bytes planar = {1, 9, 1, 2, 9, 2, 3, 9, 4};  // pixels (1,2,3) (9,9,9) (1,2,4)
    const uint32_t key = il::colourKey(1, 2, 3);
    EXPECT_EQ(key, 0x030201u);
    Bytes rgba(12), masked(12);
    ASSERT_EQ(il::rgbToRGBAKeyed(rgba.data(), planar.data(), &size, key, nullptr), 0);
    EXPECT_EQ(rgba, (Bytes{1, 2, 3, 0, 9, 9, 9, 255, 1, 2, 4, 255}));
    ASSERT_EQ(il::rgbToKeyMask(masked.data(), planar.data(), &size, key, nullptr), 0);
    EXPECT_EQ(masked, (Bytes{1, 9, 1, 2, 9, 2, 3, 9, 4, 0, 255, 255}));
}

TEST(Statistics, UsageMatchesAndMasks) {
    ImageSize big{1000, 1};
    Bytes single(1000, 4);
    single[0] = 7;
    uint8_t counts[256];
    ASSERT_EQ(korImage_getMapUsage(counts, single.data(), &big, 0), 0);
    EXPECT_EQ((Bytes{counts[4], counts[7], counts[0]}), (Bytes{255, 1, 0}));  // counts saturate
    // PackByte: a repeat adds its length at once.
    Bytes row = {0xF6, 3, 0x02, 5, 3};  // 10 x 3, then 5, 3
    uint8_t* rows[1] = {row.data()};
    ImageSize twelve{12, 1};
    ASSERT_EQ(korImage_getMapUsage(counts, rows, &twelve, 1), 0);
    EXPECT_EQ((Bytes{counts[3], counts[5]}), (Bytes{11, 1}));

    // Index change where the RGB matches; a repeat is judged by its first
    // pixel: pixel 0 red 200 changes the repeat, pixel 11 the last literal
    // byte, pixel 1 alone would not change a repeat.
    Bytes rgb(36, 0);
    rgb[0] = rgb[11] = rgb[1] = 200;
    const uint8_t colour[3] = {200, 0, 0};
    ASSERT_EQ(korImage_setMapIfRGBMatch(rows, 9, rgb.data(), &twelve, colour, 1), 0);
    EXPECT_EQ(row, (Bytes{0xF6, 9, 0x02, 5, 9}));
    Bytes map(12, 1);
    ASSERT_EQ(korImage_setMapIfRGBMatch(map.data(), 9, rgb.data(), &twelve, colour, 0), 0);
    EXPECT_EQ(map, (Bytes{9, 9, 1, 1, 1, 1, 1, 1, 1, 1, 1, 9}));

    // Masks: background runs (first and every second) take the value.
    uint16_t runs[] = {2, 3, 0, 1, 60}, runs3[] = {1, 1, 1};
    Bytes line = {1, 2, 3, 4, 5, 6, 7, 8};
    korImage_maskByteBuffer(line.data(), runs, 8, 0);
    EXPECT_EQ(line, (Bytes{0, 0, 3, 4, 5, 6, 0, 0}));  // the 0 run flips the colour
    Bytes planes(9, 50);
    const uint8_t c[3] = {1, 2, 3};
    korImage_maskRgbBuffer(planes.data(), runs3, 3, c);
    EXPECT_EQ(planes, (Bytes{1, 50, 1, 2, 50, 2, 3, 50, 3}));

    Palette bal;
    ASSERT_EQ(korImage_getBalancedPalette(bal.r, bal.g, bal.b, &bal.count), 0);
    EXPECT_EQ(bal.count, 256);
    EXPECT_EQ((Bytes{bal.r[1], bal.b[1], bal.r[36], bal.g[215], bal.r[216], bal.b[255]}),
              (Bytes{0, 51, 51, 255, 6, 240}));
}

TEST(Mapping, RGBToPaletteLayouts) {
    // Colours of the palette itself map to their indices (no error to spread).
    Palette pal{{10, 20, 30}, {200, 100, 50}, {0, 0, 0}};
    ImageSize size{4, 3};
    Bytes idx = {0, 1, 2, 1, 1, 1, 0, 0, 2, 2, 2, 0};
    Bytes rgb(36);
    for (size_t i = 0; i < 12; ++i) {
        const size_t at = 12 * (i / 4) + i % 4;
        rgb[at] = pal.r[idx[i]], rgb[at + 4] = pal.g[idx[i]], rgb[at + 8] = pal.b[idx[i]];
    }
    uint8_t* map = nullptr;
    ASSERT_EQ(korImage_RGBToMap(&map, rgb.data(), &size, pal.r, pal.g, pal.b, 3, nullptr), 0);
    EXPECT_EQ(Bytes(map, map + 12), idx);
    korImage_freeImage(map, &size, IMAGEFORMAT_MAP);
    void* packed = nullptr;
    ASSERT_EQ(korImage_extRGBToMap(&packed, rgb.data(), &size, pal.r, pal.g, pal.b, 3, 1, nullptr), 0);
    EXPECT_EQ(decodePackByteImage(static_cast<uint8_t**>(packed), size), idx);
    korImage_freeImage(packed, &size, IMAGEFORMAT_PACKBYTE);
    // Into the caller's buffer; the progress poll sees (rows, row) and its
    // answer is returned.
    Bytes own(12, 0xEE);
    uint8_t* ownPtr = own.data();
    EXPECT_EQ(korImage_RGBToMapWithGamma(&ownPtr, rgb.data(), &size, pal.r, pal.g, pal.b, 3, 1.0,
                                         StopProbe::arm(1, 6)),
              6);
    EXPECT_EQ(StopProbe::args, (Calls{{3, 0}, {3, 1}}));
    EXPECT_EQ(Bytes(own.begin(), own.begin() + 5), (Bytes{0, 1, 2, 1, 0xEE}));
    uint8_t** table = nullptr;
    EXPECT_EQ(korImage_RGBToPackByte(&table, rgb.data(), &size, pal.r, pal.g, pal.b, 3, StopProbe::arm(0, 2)), 2);
    EXPECT_EQ(table, nullptr);
}
