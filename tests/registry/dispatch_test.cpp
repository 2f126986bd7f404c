// Read and write dispatch: routing, fallbacks, layouts and sizes, through
// the BMP and Targa codecs.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "imagelib/imagelib.h"
#include "registry/dispatch.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A row-planar RGB test image with distinct, varied pixels.
Bytes makeRGB(int w, int h) {
    Bytes rgb(size_t(w) * h * 3);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            uint8_t* row = &rgb[size_t(y) * w * 3];
            row[x] = uint8_t(x * 37 + y * 11);
            row[w + x] = uint8_t(x * 5 + y * 53);
            row[2 * w + x] = uint8_t(255 - x * 19 - y * 7);
        }
    return rgb;
}

// A palette of n entries and a map using all of them.
struct MapImage {
    uint8_t red[256] = {}, green[256] = {}, blue[256] = {};
    int count = 0;
    Bytes map;
};
MapImage makeMap(int w, int h, int n) {
    MapImage m;
    m.count = n;
    for (int i = 0; i < 256; ++i) {
        m.red[i] = uint8_t(i * 7);
        m.green[i] = uint8_t(255 - i);
        m.blue[i] = uint8_t(i * 3 + 1);
    }
    m.map.resize(size_t(w) * h);
    for (size_t i = 0; i < m.map.size(); ++i) m.map[i] = uint8_t((i * 13 + i / 7) % n);
    return m;
}

// The palette lookup of a map as row-planar RGB.
Bytes expand(const MapImage& m, int w, int h) {
    Bytes rgb(size_t(w) * h * 3);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            uint8_t v = m.map[size_t(y) * w + x];
            uint8_t* row = &rgb[size_t(y) * w * 3];
            row[x] = m.red[v];
            row[w + x] = m.green[v];
            row[2 * w + x] = m.blue[v];
        }
    return rgb;
}

// Reads a file to RGB and returns its pixels (empty on failure).
Bytes readRGB(const std::string& path, int type, ImageSize* size, const ImageSize* requested = nullptr,
              int* status = nullptr) {
    uint8_t* p = nullptr;
    int st = korImage_readFileToRGB(&p, size, path.c_str(), type, requested, nullptr);
    if (status) *status = st;
    if (st != 0 || !p) return {};
    Bytes out(p, p + size_t(size->x) * size->y * 3);
    korImage_freeImage(p, size, IMAGEFORMAT_RGB);
    return out;
}

int g_stopAt = -1;
int stopAtRow(int, int done) { return done >= g_stopAt ? 1 : 0; }

TEST(ReadDispatch, TypesWithoutReadersAnswerUnsupported) {
    iltest::TempDir d;
    std::string f = d.file("x.bin");
    ASSERT_TRUE(iltest::writeFile(f, std::string("not an image at all")));
    uint8_t* p = nullptr;
    void* v = nullptr;
    uint8_t** rows = nullptr;
    uint8_t r[256], g[256], b[256];
    int n = 0, layout = 0, mode = 0;
    ImageSize s{};
    for (int type : {6, 8, 26}) {
        EXPECT_EQ(korImage_readFileToRGB(&p, &s, f.c_str(), type, nullptr, nullptr), IMGERR_UNSUPPORTEDTYPE);
        EXPECT_EQ(korImage_readFileToRGBA(&p, &s, f.c_str(), type, nullptr, 0, 0, nullptr), IMGERR_UNSUPPORTEDTYPE);
        EXPECT_EQ(korImage_readFileToMap(&rows, &s, r, g, b, &n, f.c_str(), type, nullptr, nullptr),
                  IMGERR_UNSUPPORTEDTYPE);
        EXPECT_EQ(korImage_readFileToBitMap(&v, &s, f.c_str(), type, 0, nullptr), IMGERR_UNSUPPORTEDTYPE);
        EXPECT_EQ(korImage_readPalette(r, g, b, &n, f.c_str(), type), IMGERR_UNSUPPORTEDTYPE);
        EXPECT_EQ(korImage_readFileToBuffer(&v, &layout, &mode, r, g, b, &n, &s, f.c_str(), type, 0, nullptr),
                  IMGERR_UNSUPPORTEDTYPE);
        EXPECT_EQ(korImage_readFileInfo(&s, &mode, nullptr, f.c_str(), type), IMGERR_UNSUPPORTEDTYPE);
    }
    // Undetectable file: -119 from the readers.
    EXPECT_EQ(korImage_readFileToRGB(&p, &s, f.c_str(), -1, nullptr, nullptr), IMGERR_UNSUPPORTEDTYPE);
    EXPECT_EQ(korImage_readFileToRGB(&p, &s, f.c_str(), 30, nullptr, nullptr), IMGERR_UNSUPPORTEDTYPE);
    EXPECT_EQ(p, nullptr);
}

TEST(ReadDispatch, PaletteBmpMapsToRGBAndResamplesOnlyWhenAsked) {
    iltest::TempDir d;
    const int w = 13, h = 7;
    MapImage m = makeMap(w, h, 200);
    std::string f = d.file("map.bmp");
    ImageSize size{w, h};
    ASSERT_EQ(korImage_createFileFromMap(f.c_str(), -1, COLORMODE_PALETTE256, &size, m.map.data(), m.red, m.green,
                                         m.blue, m.count, nullptr),
              0);
    ImageSize s{}, info{};
    int mode = 0, orient = 7;
    ASSERT_EQ(korImage_readFileInfo(&info, &mode, &orient, f.c_str(), -1), 0);
    EXPECT_EQ(info.x, w);
    EXPECT_EQ(info.y, h);
    EXPECT_EQ(mode, COLORMODE_PALETTE256);
    EXPECT_EQ(orient, 0);
    EXPECT_EQ(readRGB(f, -1, &s), expand(m, w, h));
    // The same size asked for: no resampling, same pixels.
    ImageSize same{w, h};
    EXPECT_EQ(readRGB(f, 9, &s, &same), expand(m, w, h));
    ImageSize bigger{w * 2, h * 3};
    Bytes scaled = readRGB(f, 9, &s, &bigger);
    EXPECT_EQ(s.x, w * 2);
    EXPECT_EQ(s.y, h * 3);
    EXPECT_EQ(scaled.size(), size_t(w) * 2 * h * 3 * 3);
}

TEST(ReadDispatch, MapReadsKeepIndicesAndReduceTrueColour) {
    iltest::TempDir d;
    const int w = 9, h = 5;
    MapImage m = makeMap(w, h, 16);
    ImageSize size{w, h};
    std::string f8 = d.file("p.bmp");
    ASSERT_EQ(korImage_createFileFromMap(f8.c_str(), 9, COLORMODE_PALETTE256, &size, m.map.data(), m.red, m.green,
                                         m.blue, m.count, nullptr),
              0);
    uint8_t** rows = nullptr;
    uint8_t r[256], g[256], b[256];
    int n = 0;
    ImageSize s{};
    ASSERT_EQ(korImage_readFileToMap(&rows, &s, r, g, b, &n, f8.c_str(), -1, nullptr, nullptr), 0);
    EXPECT_EQ(n, 256);  // an 8-bit BMP always carries a full palette
    Bytes row(w);
    for (int y = 0; y < h; ++y) {
        korImage_unpackByteBuffer(row.data(), rows[y], w);
        for (int x = 0; x < w; ++x) {
            uint8_t v = row[x];
            EXPECT_EQ(v, m.map[size_t(y) * w + x]);
            EXPECT_EQ(r[v], m.red[v]);
        }
    }
    korImage_freeImage(rows, &s, IMAGEFORMAT_PACKBYTE);

    // Nearest-neighbour size change of a palette image: every pixel keeps a
    // colour of the source.
    ImageSize half{4, 2};
    ASSERT_EQ(korImage_readFileToMap(&rows, &s, r, g, b, &n, f8.c_str(), -1, &half, nullptr), 0);
    EXPECT_EQ(s.x, 4);
    EXPECT_EQ(s.y, 2);
    korImage_unpackByteBuffer(row.data(), rows[0], 4);
    EXPECT_EQ(row[0], m.map[0]);
    korImage_freeImage(rows, &s, IMAGEFORMAT_PACKBYTE);

    // A true-colour file with few colours is reduced to exactly those colours.
    Bytes rgb = expand(m, w, h);
    std::string f24 = d.file("t.bmp");
    ASSERT_EQ(korImage_createFileFromRGB(f24.c_str(), 9, COLORMODE_RGB, &size, rgb.data(), nullptr), 0);
    ASSERT_EQ(korImage_readFileToMap(&rows, &s, r, g, b, &n, f24.c_str(), -1, nullptr, nullptr), 0);
    EXPECT_LE(n, 256);
    EXPECT_GE(n, 1);
    korImage_freeImage(rows, &s, IMAGEFORMAT_PACKBYTE);
}

TEST(ReadDispatch, TargaStreamsRowsAndStopsWithOne) {
    iltest::TempDir d;
    const int w = 6, h = 5;
    Bytes rgb = makeRGB(w, h);
    ImageSize size{w, h};
    std::string f = d.file("a.tga");
    ASSERT_EQ(korImage_createFileFromRGB(f.c_str(), -1, COLORMODE_RGB, &size, rgb.data(), nullptr), 0);
    ImageSize s{};
    int mode = 0, orient = 0;
    ASSERT_EQ(korImage_readFileInfo(&s, &mode, &orient, f.c_str(), -1), 0);
    EXPECT_EQ(mode, COLORMODE_RGB);
    EXPECT_EQ(orient, 6);  // written bottom-up
    EXPECT_EQ(readRGB(f, 2, &s), rgb);

    g_stopAt = 2;
    uint8_t* p = nullptr;
    EXPECT_EQ(korImage_readFileToRGB(&p, &s, f.c_str(), 2, nullptr, stopAtRow), IMGSTAT_STREAM_STOPPED);
    ASSERT_NE(p, nullptr);  // the partial image is handed out
    // Bottom-up file: the two rows read are the last two of the image.
    EXPECT_EQ(0, std::memcmp(p + size_t(w) * 3 * (h - 1), &rgb[size_t(w) * 3 * (h - 1)], size_t(w) * 3));
    korImage_freeImage(p, &s, IMAGEFORMAT_RGB);
}

TEST(ReadDispatch, RGBAReadsAlphaFilesAndAddsAlphaToOthers) {
    iltest::TempDir d;
    const int w = 4, h = 3;
    Bytes planes(size_t(w) * h * 4);
    Bytes rgb = makeRGB(w, h);
    for (int y = 0; y < h; ++y) {
        std::memcpy(&planes[size_t(y) * w * 4], &rgb[size_t(y) * w * 3], size_t(w) * 3);
        for (int x = 0; x < w; ++x) planes[size_t(y) * w * 4 + 3 * w + x] = uint8_t(x * 60 + y);
    }
    ImageSize size{w, h};
    std::string fa = d.file("alpha.tga");
    ASSERT_EQ(korImage_createFileFromRGB(fa.c_str(), 2, COLORMODE_RGBA, &size, planes.data(), nullptr), 0);
    uint8_t* p = nullptr;
    ImageSize s{};
    ASSERT_EQ(korImage_readFileToRGBA(&p, &s, fa.c_str(), -1, nullptr, 1, 0, nullptr), 0);
    EXPECT_EQ(0, std::memcmp(p, planes.data(), planes.size()));  // four planes a row
    korImage_freeImage(p, &s, IMAGEFORMAT_RGBA);
    ASSERT_EQ(korImage_readFileToRGBA(&p, &s, fa.c_str(), -1, nullptr, 0, 0, nullptr), 0);
    for (int x = 0; x < w; ++x) {  // interleaved
        EXPECT_EQ(p[4 * x], rgb[x]);
        EXPECT_EQ(p[4 * x + 3], planes[3 * w + x]);
    }
    korImage_freeImage(p, &s, IMAGEFORMAT_RGBA);

    // A BMP has no alpha: keyed on its top-left pixel when asked.
    Bytes keyed = rgb;
    keyed[w - 1] = keyed[0], keyed[2 * w - 1] = keyed[w], keyed[3 * w - 1] = keyed[2 * w];
    std::string fb = d.file("plain.bmp");
    ASSERT_EQ(korImage_createFileFromRGB(fb.c_str(), 9, COLORMODE_RGB, &size, keyed.data(), nullptr), 0);
    ASSERT_EQ(korImage_readFileToRGBA(&p, &s, fb.c_str(), -1, nullptr, 0, 1, nullptr), 0);
    EXPECT_EQ(p[3], 0);                // the key pixel itself
    EXPECT_EQ(p[4 * (w - 1) + 3], 0);  // same colour
    EXPECT_EQ(p[4 * 1 + 3], 255);
    korImage_freeImage(p, &s, IMAGEFORMAT_RGBA);
    ASSERT_EQ(korImage_readFileToRGBA(&p, &s, fb.c_str(), -1, nullptr, 1, 1, nullptr), 0);
    EXPECT_EQ(p[3 * w], 0);  // mask plane
    EXPECT_EQ(p[3 * w + 1], 255);
    korImage_freeImage(p, &s, IMAGEFORMAT_RGBA);
    ASSERT_EQ(korImage_readFileToRGBA(&p, &s, fb.c_str(), -1, nullptr, 1, 0, nullptr), 0);
    EXPECT_EQ(p[3 * w + 1], 0);  // no key: a zero alpha plane
    EXPECT_EQ(0, std::memcmp(p, keyed.data(), size_t(w) * 3));
    korImage_freeImage(p, &s, IMAGEFORMAT_RGBA);

    // A Targa file without alpha is not among the types the RGBA reader
    // takes: kept as the dispatch routes it.
    std::string ft = d.file("noalpha.tga");
    ASSERT_EQ(korImage_createFileFromRGB(ft.c_str(), 2, COLORMODE_RGB, &size, rgb.data(), nullptr), 0);
    EXPECT_EQ(korImage_readFileToRGBA(&p, &s, ft.c_str(), -1, nullptr, 0, 0, nullptr), IMGERR_UNSUPPORTEDTYPE);
}

TEST(ReadDispatch, BufferReadsPickTheNearestLayout) {
    iltest::TempDir d;
    const int w = 10, h = 3;
    Bytes bits(size_t((w + 7) / 8) * h);
    for (size_t i = 0; i < bits.size(); ++i) bits[i] = uint8_t(0xA5 ^ (i * 29));
    ImageSize size{w, h};
    std::string f1 = d.file("bits.bmp");
    ASSERT_EQ(korImage_createFileFromBitMap(f1.c_str(), 9, &size, bits.data(), 0, nullptr, nullptr, nullptr), 0);
    void* buf = nullptr;
    int layout = 0, mode = 0, n = 0;
    uint8_t r[256], g[256], b[256];
    ImageSize s{};
    ASSERT_EQ(korImage_readFileToBuffer(&buf, &layout, &mode, r, g, b, &n, &s, f1.c_str(), -1, 0, nullptr), 0);
    EXPECT_EQ(layout, IMAGEFORMAT_RLEBITMAP);
    EXPECT_EQ(mode, COLORMODE_BILEVEL);
    EXPECT_EQ(n, 2);
    EXPECT_EQ(r[0], 255);
    EXPECT_EQ(r[1], 0);
    Bytes row((w + 7) / 8);
    korImage_runLengthDecodeBitMapRow(row.data(), static_cast<uint16_t**>(buf)[0], w);
    EXPECT_EQ(row[0], bits[0]);
    korImage_freeImage(buf, &s, layout);
    // Forced to RGB: set bits black, clear bits white, count 0.
    ASSERT_EQ(korImage_readFileToBuffer(&buf, &layout, &mode, nullptr, nullptr, nullptr, &n, &s, f1.c_str(), -1, 1,
                                        nullptr),
              0);
    EXPECT_EQ(layout, IMAGEFORMAT_RGB);
    EXPECT_EQ(mode, COLORMODE_RGB);
    EXPECT_EQ(n, 0);
    const uint8_t* px = static_cast<uint8_t*>(buf);
    for (int x = 0; x < 8; ++x) EXPECT_EQ(px[x], (bits[0] & (0x80 >> x)) ? 0 : 255) << x;
    korImage_freeImage(buf, &s, layout);

    MapImage m = makeMap(w, h, 7);
    std::string f8 = d.file("map.bmp");
    ASSERT_EQ(korImage_createFileFromMap(f8.c_str(), 9, COLORMODE_PALETTE16, &size, m.map.data(), m.red, m.green,
                                         m.blue, m.count, nullptr),
              0);
    ASSERT_EQ(korImage_readFileToBuffer(&buf, &layout, &mode, r, g, b, &n, &s, f8.c_str(), -1, 0, nullptr), 0);
    EXPECT_EQ(layout, IMAGEFORMAT_MAP);
    EXPECT_EQ(mode, COLORMODE_PALETTE16);
    EXPECT_EQ(0, std::memcmp(buf, m.map.data(), m.map.size()));
    korImage_freeImage(buf, &s, layout);
}

TEST(WriteDispatch, FallbacksExpandPalettesAndBitmaps) {
    iltest::TempDir d;
    const int w = 11, h = 4;
    ImageSize size{w, h};
    // Targa has no palette writer: the map is expanded to RGB.
    MapImage m = makeMap(w, h, 40);
    std::string ft = d.file("map.tga");
    ASSERT_EQ(korImage_createFileFromMap(ft.c_str(), -1, COLORMODE_PALETTE256, &size, m.map.data(), m.red, m.green,
                                         m.blue, m.count, nullptr),
              0);
    ImageSize s{};
    EXPECT_EQ(readRGB(ft, -1, &s), expand(m, w, h));
    // A palette that does not fit its mode goes to the RGB writer.
    std::string f300 = d.file("300.bmp");
    MapImage m300 = makeMap(w, h, 255);
    ASSERT_EQ(korImage_createFileFromMap(f300.c_str(), 9, COLORMODE_PALETTE256, &size, m300.map.data(), m300.red,
                                         m300.green, m300.blue, 300, nullptr),
              0);
    int mode = 0;
    ASSERT_EQ(korImage_readFileInfo(&s, &mode, nullptr, f300.c_str(), 9), 0);
    EXPECT_EQ(mode, COLORMODE_PALETTE256);  // the RGB writer's optimised 8-bit file

    // A bitmap to Targa: two-entry palette, expanded to RGB.
    Bytes bits(size_t((w + 7) / 8) * h);
    for (size_t i = 0; i < bits.size(); ++i) bits[i] = uint8_t(i * 73 + 5);
    const Bytes original = bits;
    const uint8_t black[3] = {0, 0, 0}, white[3] = {255, 255, 255}, red[3] = {200, 10, 20};
    std::string fb = d.file("bits.tga");
    ASSERT_EQ(korImage_createFileFromBitMap(fb.c_str(), 2, &size, bits.data(), 0, white, red, nullptr), 0);
    Bytes px = readRGB(fb, 2, &s);
    ASSERT_EQ(px.size(), size_t(w) * h * 3);
    auto bitAt = [&](int x, int y) { return (original[size_t(y) * ((w + 7) / 8) + x / 8] >> (7 - x % 8)) & 1; };
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) EXPECT_EQ(px[size_t(y) * w * 3 + x], bitAt(x, y) ? 200 : 255);
    // Black background under white foreground is inverted into a copy; the
    // pixels keep their colours and the caller's bitmap is untouched.
    std::string fi = d.file("inv.bmp");
    ASSERT_EQ(korImage_createFileFromBitMap(fi.c_str(), 9, &size, bits.data(), 0, black, white, nullptr), 0);
    EXPECT_EQ(bits, original);
    px = readRGB(fi, 9, &s);
    ASSERT_EQ(px.size(), size_t(w) * h * 3);
    for (int x = 0; x < w; ++x) EXPECT_EQ(px[x], bitAt(x, 0) ? 255 : 0) << x;
}

TEST(WriteDispatch, BufferRoutesByLayout) {
    iltest::TempDir d;
    const int w = 5, h = 3;
    ImageSize size{w, h};
    Bytes rgb = makeRGB(w, h);
    std::string f = d.file("x.bmp");
    Bytes rgba(size_t(w) * h * 4);
    EXPECT_EQ(korImage_createFileFromBuffer(f.c_str(), 9, COLORMODE_RGB, &size, rgba.data(), IMAGEFORMAT_RGBA, nullptr,
                                            nullptr, nullptr, 0, 0, nullptr),
              IMGERR_BADARG);
    EXPECT_EQ(korImage_createRasterFile(f.c_str(), 9, COLORMODE_RGB, &size, rgba.data(), 0, nullptr, nullptr, nullptr,
                                        0, 0, nullptr),
              IMGERR_BADARG);
    // Interleaved RGB is written from a row-planar copy.
    Bytes inter(rgb.size());
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 3; ++c) inter[(size_t(y) * w + x) * 3 + c] = rgb[size_t(y) * w * 3 + c * w + x];
    const Bytes copy = inter;
    ASSERT_EQ(korImage_createFileFromBuffer(f.c_str(), 9, COLORMODE_RGB, &size, inter.data(), IMAGEFORMAT_RGB2,
                                            nullptr, nullptr, nullptr, 0, 0, nullptr),
              0);
    EXPECT_EQ(inter, copy);
    ImageSize s{};
    EXPECT_EQ(readRGB(f, 9, &s), rgb);
    // PackByte rows in bilevel mode with two colours are thresholded to a bitmap.
    MapImage m = makeMap(w, h, 2);
    m.red[0] = m.green[0] = m.blue[0] = 255;
    m.red[1] = m.green[1] = m.blue[1] = 0;
    uint8_t** rows = nullptr;
    ASSERT_EQ(korImage_extRGBToMap(reinterpret_cast<void**>(&rows), expand(m, w, h).data(), &size, m.red, m.green,
                                   m.blue, 2, 1, nullptr),
              0);
    std::string fp = d.file("pb.bmp");
    ASSERT_EQ(korImage_createFileFromBuffer(fp.c_str(), 9, COLORMODE_BILEVEL, &size, rows, IMAGEFORMAT_PACKBYTE,
                                            m.red, m.green, m.blue, 2, 0, nullptr),
              0);
    korImage_freeImage(rows, &size, IMAGEFORMAT_PACKBYTE);
    int mode = 0;
    ASSERT_EQ(korImage_readFileInfo(&s, &mode, nullptr, fp.c_str(), 9), 0);
    EXPECT_EQ(mode, COLORMODE_BILEVEL);
    EXPECT_EQ(readRGB(fp, 9, &s), expand(m, w, h));
}

TEST(WriteDispatch, StreamedWritesStopWithTheCallbacksAnswer) {
    iltest::TempDir d;
    const int w = 4, h = 6;
    ImageSize size{w, h};
    Bytes rgb = makeRGB(w, h);
    g_stopAt = 3;
    std::string f = d.file("s.tga");
    EXPECT_EQ(korImage_createFileFromRGB(f.c_str(), 2, COLORMODE_RGB, &size, rgb.data(), stopAtRow), 1);
    ImageSize s{};
    EXPECT_EQ(korImage_readFileInfo(&s, nullptr, nullptr, f.c_str(), 2), 0);  // closed and readable
    EXPECT_EQ(korImage_createFileFromRGB(d.file("x.xyz").c_str(), 41, COLORMODE_RGB, &size, rgb.data(), nullptr),
              IMGERR_UNSUPPORTEDTYPE);
    EXPECT_EQ(korImage_createFileFromRGB(d.file("x.tga").c_str(), 40, COLORMODE_RGB, &size, rgb.data(), nullptr),
              IMGERR_UNSUPPORTEDTYPE);
    EXPECT_EQ(il::dispatch::jpegQuality(100), 90);
    EXPECT_EQ(il::dispatch::jpegQuality(10), 40);
    EXPECT_EQ(il::dispatch::jpegQuality(75), 75);
    EXPECT_TRUE(il::dispatch::paletteFits(2, 16));
    EXPECT_FALSE(il::dispatch::paletteFits(2, 17));
    EXPECT_TRUE(il::dispatch::paletteFits(4, 256));
    EXPECT_FALSE(il::dispatch::paletteFits(3, 257));
    EXPECT_TRUE(il::dispatch::paletteFits(5, 2));
    EXPECT_FALSE(il::dispatch::paletteFits(5, 3));
    EXPECT_FALSE(il::dispatch::paletteFits(1, 2));
}

}  // namespace
