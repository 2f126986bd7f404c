// Read and write dispatch: routing, fallbacks, layouts and sizes, through
// the BMP and Targa codecs.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "imagelib/imagelib.h"
#include "registry/dispatch.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;
using il::dispatch::OwnedImage;

// A row-planar RGB test image with distinct, varied pixels.
Bytes makeRGB(int w, int h) {
    Bytes rgb(size_t(w) * h * 3);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            uint8_t* row = &rgb[size_t(y) * w * 3];
            row[x] = uint8_t(x * 37 + y * 11), row[w + x] = uint8_t(x * 5 + y * 53);
            row[2 * w + x] = uint8_t(255 - x * 19 - y * 7);
        }
    return rgb;
}

// A palette of n entries and a w x h map using all of them.
struct MapImage {
    int w, h, count;
    uint8_t red[256], green[256], blue[256];
    Bytes map;
    MapImage(int width, int height, int n) : w(width), h(height), count(n), map(size_t(width) * height) {
        for (int i = 0; i < 256; ++i)
            red[i] = uint8_t(i * 7), green[i] = uint8_t(255 - i), blue[i] = uint8_t(i * 3 + 1);
        for (size_t i = 0; i < map.size(); ++i) map[i] = uint8_t((i * 13 + i / 7) % n);
    }
    // The palette lookup as row-planar RGB.
    Bytes expand() const {
        Bytes rgb(size_t(w) * h * 3);
        for (size_t i = 0; i < map.size(); ++i) {
            uint8_t* row = &rgb[i / w * w * 3];
            row[i % w] = red[map[i]], row[w + i % w] = green[map[i]], row[2 * w + i % w] = blue[map[i]];
        }
        return rgb;
    }
    int write(const std::string& path, int type, int mode) {
        const ImageSize size{w, h};
        return korImage_createFileFromMap(path.c_str(), type, mode, &size, map.data(), red, green, blue, count,
                                          nullptr);
    }
};

// Reads a file to RGB and returns its pixels (empty on failure).
Bytes readRGB(const std::string& path, int type, ImageSize* size, const ImageSize* requested = nullptr) {
    uint8_t* p = nullptr;
    if (korImage_readFileToRGB(&p, size, path.c_str(), type, requested, nullptr) != 0 || !p) return {};
    OwnedImage owned(p, *size, IMAGEFORMAT_RGB);
    return Bytes(p, p + size_t(size->x) * size->y * 3);
}

int fileMode(const std::string& path) {
    ImageSize s{};
    int mode = 0;
    EXPECT_EQ(korImage_readFileInfo(&s, &mode, nullptr, path.c_str(), -1), 0);
    return mode;
}

int g_stopAt = -1;
int stopAtRow(int, int done) { return done >= g_stopAt ? 1 : 0; }

class Dispatch : public ::testing::Test {
protected:
    iltest::TempDir d;
    uint8_t r[256], g[256], b[256];
    int n = 0;
    ImageSize s{};
};

TEST_F(Dispatch, TypesWithoutReadersAnswerUnsupported) {
    std::string f = d.file("x.bin");
    ASSERT_TRUE(iltest::writeFile(f, std::string("not an image at all")));
    uint8_t* p = nullptr;
    void* v = nullptr;
    uint8_t** rows = nullptr;
    int layout = 0, mode = 0;
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

// Each type is served by its own codec: a file written as one type is not
// recognised from its contents as another format, and its header tells the
// size written. (A case line placed inside another type's fall-through
// group sends that type to the wrong codec.)
TEST_F(Dispatch, EveryWriterWritesItsOwnFormat) {
    const ImageSize size{16, 8};
    std::vector<uint8_t> rgb(size_t(size.x) * size.y * 3);
    for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = uint8_t(i * 7);
    auto family = [](int t) {
        if (t == 0 || t == 3 || t == 29) return 0;
        if (t == 14 || t == 15) return 14;
        if (t == 1 || t == 13 || t == 16 || t == 17 || t == 19 || t == 20 || t == 23 || t == 25) return 1;
        return t;
    };
    int written = 0;
    for (int t = 0; t < IMAGELIB_FILETYPE_COUNT; ++t) {
        char ext[16] = {};
        korImage_getExtension(ext, t);
        const std::string f = d.file("w" + std::to_string(t) + "." + ext);
        int mode = COLORMODE_PALETTE256, rgbOk, p256, p16, grey, bilevel;
        korImage_getExportSupport(&mode, &rgbOk, &p256, &p16, &grey, &bilevel, t);
        if (korImage_createFileFromRGB(f.c_str(), t, mode, &size, rgb.data(), nullptr) != 0) continue;
        ++written;
        const int detected = korImage_typeFromFile(f.c_str());
        if (detected >= 0) {
            EXPECT_EQ(family(detected), family(t)) << "written as " << t << ", found as " << detected;
        }
        ImageSize read{};
        if (korImage_readFileInfo(&read, nullptr, nullptr, f.c_str(), t) == 0) {
            EXPECT_EQ(std::pair(read.x, read.y), std::pair(size.x, size.y)) << t;
        }
    }
    EXPECT_GE(written, 2);
}

TEST_F(Dispatch, PaletteBmpMapsToRGBAndResamplesOnlyWhenAsked) {
    const int w = 13, h = 7;
    MapImage m(w, h, 200);
    std::string f = d.file("map.bmp");
    ASSERT_EQ(m.write(f, -1, COLORMODE_PALETTE256), 0);
    int mode = 0, orient = 7;
    ASSERT_EQ(korImage_readFileInfo(&s, &mode, &orient, f.c_str(), -1), 0);
    EXPECT_EQ((std::vector<int>{s.x, s.y, mode, orient}), (std::vector<int>{w, h, COLORMODE_PALETTE256, 0}));
    EXPECT_EQ(readRGB(f, -1, &s), m.expand());
    // The same size asked for: no resampling, same pixels.
    ImageSize same{w, h}, bigger{w * 2, h * 3};
    EXPECT_EQ(readRGB(f, 9, &s, &same), m.expand());
    EXPECT_EQ(readRGB(f, 9, &s, &bigger).size(), size_t(w) * 2 * h * 3 * 3);
    EXPECT_EQ(std::pair(s.x, s.y), std::pair(w * 2, h * 3));
}

TEST_F(Dispatch, MapReadsKeepIndicesAndReduceTrueColour) {
    const int w = 9, h = 5;
    MapImage m(w, h, 16);
    std::string f8 = d.file("p.bmp"), f24 = d.file("t.bmp");
    ASSERT_EQ(m.write(f8, 9, COLORMODE_PALETTE256), 0);
    uint8_t** rows = nullptr;
    ASSERT_EQ(korImage_readFileToMap(&rows, &s, r, g, b, &n, f8.c_str(), -1, nullptr, nullptr), 0);
    EXPECT_EQ(n, 256);  // an 8-bit BMP always carries a full palette
    Bytes row(w);
    for (int y = 0; y < h; ++y) {
        korImage_unpackByteBuffer(row.data(), rows[y], w);
        EXPECT_EQ(row, Bytes(m.map.begin() + y * w, m.map.begin() + (y + 1) * w));
    }
    EXPECT_EQ(Bytes(r, r + 16), Bytes(m.red, m.red + 16));
    korImage_freeImage(rows, &s, IMAGEFORMAT_PACKBYTE);

    // Nearest-neighbour size change of a palette image keeps indices.
    ImageSize half{4, 2};
    ASSERT_EQ(korImage_readFileToMap(&rows, &s, r, g, b, &n, f8.c_str(), -1, &half, nullptr), 0);
    EXPECT_EQ(std::pair(s.x, s.y), std::pair(4, 2));
    korImage_unpackByteBuffer(row.data(), rows[0], 4);
    EXPECT_EQ(row[0], m.map[0]);
    korImage_freeImage(rows, &s, IMAGEFORMAT_PACKBYTE);

    // A true-colour file of 16 colours is reduced to at most those.
    const ImageSize size{w, h};
    ASSERT_EQ(korImage_createFileFromRGB(f24.c_str(), 9, COLORMODE_RGB, &size, m.expand().data(), nullptr), 0);
    ASSERT_EQ(korImage_readFileToMap(&rows, &s, r, g, b, &n, f24.c_str(), -1, nullptr, nullptr), 0);
    EXPECT_TRUE(n >= 1 && n <= 16) << n;
    korImage_freeImage(rows, &s, IMAGEFORMAT_PACKBYTE);
}

TEST_F(Dispatch, TargaStreamsRowsAndStopsWithOne) {
    const int w = 6, h = 5;
    Bytes rgb = makeRGB(w, h);
    ImageSize size{w, h};
    std::string f = d.file("a.tga");
    ASSERT_EQ(korImage_createFileFromRGB(f.c_str(), -1, COLORMODE_RGB, &size, rgb.data(), nullptr), 0);
    int mode = 0, orient = 0;
    ASSERT_EQ(korImage_readFileInfo(&s, &mode, &orient, f.c_str(), -1), 0);
    EXPECT_EQ(mode, COLORMODE_RGB);
    EXPECT_EQ(orient, 6);  // written bottom-up
    EXPECT_EQ(readRGB(f, 2, &s), rgb);

    g_stopAt = 2;
    uint8_t* p = nullptr;
    EXPECT_EQ(korImage_readFileToRGB(&p, &s, f.c_str(), 2, nullptr, stopAtRow), IMGSTAT_STREAM_STOPPED);
    ASSERT_NE(p, nullptr);  // the partial image is handed out
    OwnedImage owned(p, s, IMAGEFORMAT_RGB);
    // Bottom-up file: the two rows read are the last two of the image.
    EXPECT_EQ(0, std::memcmp(p + size_t(w) * 3 * (h - 1), &rgb[size_t(w) * 3 * (h - 1)], size_t(w) * 3));
}

TEST_F(Dispatch, RGBAReadsAlphaFilesAndAddsAlphaToOthers) {
    const int w = 4, h = 3;
    const ImageSize size{w, h};
    Bytes planes(size_t(w) * h * 4), rgb = makeRGB(w, h);
    for (int y = 0; y < h; ++y) {
        std::memcpy(&planes[size_t(y) * w * 4], &rgb[size_t(y) * w * 3], size_t(w) * 3);
        for (int x = 0; x < w; ++x) planes[size_t(y) * w * 4 + 3 * w + x] = uint8_t(x * 60 + y);
    }
    // Reads with (planar, key) and returns the image.
    auto rgba = [&](const std::string& f, int planar, int key) {
        uint8_t* p = nullptr;
        EXPECT_EQ(korImage_readFileToRGBA(&p, &s, f.c_str(), -1, nullptr, planar, key, nullptr), 0);
        return std::make_unique<OwnedImage>(p, s, IMAGEFORMAT_RGBA);
    };
    std::string fa = d.file("alpha.tga"), fb = d.file("plain.bmp"), ft = d.file("noalpha.tga");
    ASSERT_EQ(korImage_createFileFromRGB(fa.c_str(), 2, COLORMODE_RGBA, &size, planes.data(), nullptr), 0);
    EXPECT_EQ(0, std::memcmp(rgba(fa, 1, 0)->bytes(), planes.data(), planes.size()));  // four planes a row
    auto img = rgba(fa, 0, 0);  // interleaved
    for (int x = 0; x < w; ++x)
        EXPECT_EQ((Bytes{img->bytes()[4 * x], img->bytes()[4 * x + 3]}), (Bytes{rgb[x], planes[3 * w + x]}));

    // A BMP has no alpha: keyed on its top-left pixel when asked.
    Bytes keyed = rgb;
    keyed[w - 1] = keyed[0] = 77, keyed[2 * w - 1] = keyed[w], keyed[3 * w - 1] = keyed[2 * w];  // red, green differ
    ASSERT_EQ(korImage_createFileFromRGB(fb.c_str(), 9, COLORMODE_RGB, &size, keyed.data(), nullptr), 0);
    img = rgba(fb, 0, 1);
    const uint8_t* p = img->bytes();
    EXPECT_EQ((Bytes{p[3], p[4 * (w - 1) + 3], p[4 + 3]}), (Bytes{0, 0, 255}));  // the key pixel, same colour, other
    img = rgba(fb, 1, 1);
    EXPECT_EQ((Bytes{img->bytes()[3 * w], img->bytes()[3 * w + 1]}), (Bytes{0, 255}));  // mask plane
    img = rgba(fb, 1, 0);
    EXPECT_EQ(img->bytes()[3 * w + 1], 0);  // no key: a zero alpha plane
    EXPECT_EQ(0, std::memcmp(img->bytes(), keyed.data(), size_t(w) * 3));

    // A Targa file without alpha is not among the types the RGBA reader
    // takes: kept as the dispatch routes it.
    ASSERT_EQ(korImage_createFileFromRGB(ft.c_str(), 2, COLORMODE_RGB, &size, rgb.data(), nullptr), 0);
    uint8_t* none = nullptr;
    EXPECT_EQ(korImage_readFileToRGBA(&none, &s, ft.c_str(), -1, nullptr, 0, 0, nullptr), IMGERR_UNSUPPORTEDTYPE);
}

TEST_F(Dispatch, BufferReadsPickTheNearestLayout) {
    const int w = 10, h = 3;
    Bytes bits(size_t((w + 7) / 8) * h);
    for (size_t i = 0; i < bits.size(); ++i) bits[i] = uint8_t(0xA5 ^ (i * 29));
    ImageSize size{w, h};
    std::string f1 = d.file("bits.bmp"), f8 = d.file("map.bmp");
    ASSERT_EQ(korImage_createFileFromBitMap(f1.c_str(), 9, &size, bits.data(), 0, nullptr, nullptr, nullptr), 0);
    void* buf = nullptr;
    int layout = 0, mode = 0;
    auto read = [&](const std::string& f, int forceRGB, bool palette = true) {
        EXPECT_EQ(korImage_readFileToBuffer(&buf, &layout, &mode, palette ? r : nullptr, palette ? g : nullptr,
                                            palette ? b : nullptr, &n, &s, f.c_str(), -1, forceRGB, nullptr),
                  0);
        return std::make_unique<OwnedImage>(buf, s, layout);
    };
    auto img = read(f1, 0);
    EXPECT_EQ((std::vector<int>{layout, mode, n, r[0], r[1]}),
              (std::vector<int>{IMAGEFORMAT_RLEBITMAP, COLORMODE_BILEVEL, 2, 255, 0}));
    Bytes row((w + 7) / 8);
    korImage_runLengthDecodeBitMapRow(row.data(), static_cast<uint16_t**>(buf)[0], w);
    EXPECT_EQ(row[0], bits[0]);
    // Forced to RGB: set bits black, clear bits white, count 0.
    img = read(f1, 1, false);
    EXPECT_EQ((std::vector<int>{layout, mode, n}), (std::vector<int>{IMAGEFORMAT_RGB, COLORMODE_RGB, 0}));
    for (int x = 0; x < 8; ++x) EXPECT_EQ(img->bytes()[x], (bits[0] & (0x80 >> x)) ? 0 : 255) << x;

    MapImage m(w, h, 7);
    ASSERT_EQ(m.write(f8, 9, COLORMODE_PALETTE16), 0);
    img = read(f8, 0);
    EXPECT_EQ((std::vector<int>{layout, mode}), (std::vector<int>{IMAGEFORMAT_MAP, COLORMODE_PALETTE16}));
    EXPECT_EQ(0, std::memcmp(buf, m.map.data(), m.map.size()));
}

TEST_F(Dispatch, WriteFallbacksExpandPalettesAndBitmaps) {
    const int w = 11, h = 4;
    ImageSize size{w, h};
    // Targa has no palette writer: the map is expanded to RGB.
    MapImage m(w, h, 40);
    std::string ft = d.file("map.tga"), f300 = d.file("300.bmp"), fb = d.file("bits.tga"), fi = d.file("inv.bmp");
    ASSERT_EQ(m.write(ft, -1, COLORMODE_PALETTE256), 0);
    EXPECT_EQ(readRGB(ft, -1, &s), m.expand());
    // A palette that does not fit its mode goes to the RGB writer, whose
    // optimised 8-bit file is a palette file still.
    MapImage m300(w, h, 255);
    m300.count = 300;
    ASSERT_EQ(m300.write(f300, 9, COLORMODE_PALETTE256), 0);
    EXPECT_EQ(fileMode(f300), COLORMODE_PALETTE256);

    // A bitmap to Targa: two-entry palette, expanded to RGB.
    Bytes bits(size_t((w + 7) / 8) * h);
    for (size_t i = 0; i < bits.size(); ++i) bits[i] = uint8_t(i * 73 + 5);
    const Bytes original = bits;
    const uint8_t black[3] = {0, 0, 0}, white[3] = {255, 255, 255}, red[3] = {200, 10, 20};
    ASSERT_EQ(korImage_createFileFromBitMap(fb.c_str(), 2, &size, bits.data(), 0, white, red, nullptr), 0);
    Bytes px = readRGB(fb, 2, &s);
    ASSERT_EQ(px.size(), size_t(w) * h * 3);
    auto bitAt = [&](int x, int y) { return (original[size_t(y) * ((w + 7) / 8) + x / 8] >> (7 - x % 8)) & 1; };
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) EXPECT_EQ(px[size_t(y) * w * 3 + x], bitAt(x, y) ? 200 : 255);
    // Black background under white foreground is inverted into a copy; the
    // pixels keep their colours and the caller's bitmap is untouched.
    ASSERT_EQ(korImage_createFileFromBitMap(fi.c_str(), 9, &size, bits.data(), 0, black, white, nullptr), 0);
    EXPECT_EQ(bits, original);
    px = readRGB(fi, 9, &s);
    ASSERT_EQ(px.size(), size_t(w) * h * 3);
    for (int x = 0; x < w; ++x) EXPECT_EQ(px[x], bitAt(x, 0) ? 255 : 0) << x;
}

TEST_F(Dispatch, WriteBufferRoutesByLayout) {
    const int w = 5, h = 3;
    ImageSize size{w, h};
    Bytes rgb = makeRGB(w, h), rgba(size_t(w) * h * 4);
    std::string f = d.file("x.bmp"), fp = d.file("pb.bmp");
    EXPECT_EQ(korImage_createFileFromBuffer(f.c_str(), 9, COLORMODE_RGB, &size, rgba.data(), IMAGEFORMAT_RGBA, nullptr,
                                            nullptr, nullptr, 0, 0, nullptr),
              IMGERR_BADARG);
    EXPECT_EQ(korImage_createRasterFile(f.c_str(), 9, COLORMODE_RGB, &size, rgba.data(), 0, nullptr, nullptr, nullptr,
                                        0, 0, nullptr),
              IMGERR_BADARG);
    // Interleaved RGB is written from a row-planar copy.
    Bytes inter(rgb.size());
    for (size_t i = 0; i < inter.size(); ++i) inter[i] = rgb[i / (3 * w) * 3 * w + i % 3 * w + i / 3 % w];
    const Bytes copy = inter;
    ASSERT_EQ(korImage_createFileFromBuffer(f.c_str(), 9, COLORMODE_RGB, &size, inter.data(), IMAGEFORMAT_RGB2,
                                            nullptr, nullptr, nullptr, 0, 0, nullptr),
              0);
    EXPECT_EQ(inter, copy);
    EXPECT_EQ(readRGB(f, 9, &s), rgb);
    // PackByte rows in bilevel mode with two colours are thresholded to a bitmap.
    MapImage m(w, h, 2);
    m.red[0] = m.green[0] = m.blue[0] = 255;
    m.red[1] = m.green[1] = m.blue[1] = 0;
    uint8_t** rows = nullptr;
    ASSERT_EQ(korImage_extRGBToMap(reinterpret_cast<void**>(&rows), m.expand().data(), &size, m.red, m.green, m.blue,
                                   2, 1, nullptr),
              0);
    ASSERT_EQ(korImage_createFileFromBuffer(fp.c_str(), 9, COLORMODE_BILEVEL, &size, rows, IMAGEFORMAT_PACKBYTE,
                                            m.red, m.green, m.blue, 2, 0, nullptr),
              0);
    korImage_freeImage(rows, &size, IMAGEFORMAT_PACKBYTE);
    EXPECT_EQ(fileMode(fp), COLORMODE_BILEVEL);
    EXPECT_EQ(readRGB(fp, 9, &s), m.expand());
}

TEST_F(Dispatch, StreamedWritesStopWithTheCallbacksAnswer) {
    const ImageSize size{4, 6};
    Bytes rgb = makeRGB(4, 6);
    g_stopAt = 3;
    std::string f = d.file("s.tga");
    EXPECT_EQ(korImage_createFileFromRGB(f.c_str(), 2, COLORMODE_RGB, &size, rgb.data(), stopAtRow), 1);
    EXPECT_EQ(korImage_readFileInfo(&s, nullptr, nullptr, f.c_str(), 2), 0);  // closed and readable
    EXPECT_EQ(korImage_createFileFromRGB(d.file("x.xyz").c_str(), 41, COLORMODE_RGB, &size, rgb.data(), nullptr),
              IMGERR_UNSUPPORTEDTYPE);
    EXPECT_EQ(korImage_createFileFromRGB(d.file("x.tga").c_str(), 40, COLORMODE_RGB, &size, rgb.data(), nullptr),
              IMGERR_UNSUPPORTEDTYPE);
    EXPECT_EQ((std::vector<int>{il::dispatch::jpegQuality(100), il::dispatch::jpegQuality(10),
                                il::dispatch::jpegQuality(75)}),
              (std::vector<int>{90, 40, 75}));
    EXPECT_TRUE(il::dispatch::paletteFits(2, 16) && il::dispatch::paletteFits(4, 256) &&
                il::dispatch::paletteFits(5, 2));
    EXPECT_FALSE(il::dispatch::paletteFits(2, 17) || il::dispatch::paletteFits(3, 257) ||
                 il::dispatch::paletteFits(5, 3) || il::dispatch::paletteFits(1, 2));
}

}  // namespace
