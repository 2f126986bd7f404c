// PCX, Sun raster, "p", "a", FLI/FLC and display-procedure images through the
// exported entry points: writing by type, reading back through every reader,
// detection of "p" and "a" files from their contents, the writers' fallbacks.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "imagelib/imagelib.h"
#include "internal/bytes.h"
#include "pixels/rows.h"
#include "test_support.h"
#include "../codecs/native/few_colours.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Row-planar pixels from korImage_readFileToRGB (empty on failure).
Bytes rgbOf(const std::string& path, ImageSize* size = nullptr, const ImageSize* requested = nullptr) {
    uint8_t* out = nullptr;
    ImageSize s{};
    if (korImage_readFileToRGB(&out, &s, path.c_str(), -1, requested, nullptr) != 0) return {};
    Bytes v(out, out + size_t(s.x) * s.y * 3);
    korImage_freeImage(out, &s, IMAGEFORMAT_RGB);
    if (size) *size = s;
    return v;
}

int modeOf(const std::string& path) {
    int mode = 0;
    EXPECT_EQ(korImage_readFileInfo(nullptr, &mode, nullptr, path.c_str(), -1), 0) << path;
    return mode;
}

// A palette image through korImage_readFileToBuffer, or as PackByte rows
// through korImage_readFileToMap (decoded).
struct Read {
    int status = -999, layout = 0, mode = 0, count = 0;
    ImageSize size{};
    Bytes pixels;
    uint8_t r[256] = {}, g[256] = {}, b[256] = {};
};

Read readBuffer(const std::string& path) {
    Read m;
    void* buf = nullptr;
    m.status = korImage_readFileToBuffer(&buf, &m.layout, &m.mode, m.r, m.g, m.b, &m.count, &m.size, path.c_str(), -1,
                                         0, nullptr);
    if (m.status != 0) return m;
    if (m.layout == IMAGEFORMAT_MAP)
        m.pixels.assign(static_cast<uint8_t*>(buf), static_cast<uint8_t*>(buf) + size_t(m.size.x) * m.size.y);
    korImage_freeImage(buf, &m.size, m.layout);
    return m;
}

Read readRows(const std::string& path) {
    Read m;
    uint8_t** rows = nullptr;
    m.status = korImage_readFileToMap(&rows, &m.size, m.r, m.g, m.b, &m.count, path.c_str(), -1, nullptr, nullptr);
    if (m.status != 0) return m;
    m.pixels.resize(size_t(m.size.x) * m.size.y);
    il::packByteDecodeInto(m.pixels.data(), rows, &m.size);
    korImage_freeImage(rows, &m.size, IMAGEFORMAT_PACKBYTE);
    return m;
}

TEST(NativeDispatch, PaletteFilesThroughEveryReaderAndBothMapWriters) {
    iltest::TempDir dir;
    const int w = 13, h = 5;
    const ImageSize size{w, h};
    Bytes map(size_t(w) * h);
    for (size_t i = 0; i < map.size(); ++i) map[i] = uint8_t(i * 29 % 3);
    uint8_t red[256] = {10, 200, 30}, green[256] = {1, 2, 250}, blue[256] = {7, 8, 9};
    uint8_t** rows = nullptr;
    ASSERT_EQ(il::packByteEncodeImage(&rows, map.data(), &size), 0);
    const struct {
        const char* name;
        int type, mode, count;  // type, colour mode and colour count read back
    } cases[] = {{"m.pcx", 5, 3, 256}, {"m.rs", 10, 3, 256}, {"m.p", 11, 2, 3}, {"m.flc", 15, 3, 256}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = dir.file(c.name), again = dir.file(std::string("b") + c.name);
        ASSERT_EQ(korImage_createFileFromMap(path.c_str(), -1, 3, &size, map.data(), red, green, blue, 3, nullptr), 0);
        EXPECT_EQ(korImage_fileType(-1, path.c_str()), c.type);
        EXPECT_EQ(modeOf(path), c.mode);
        // The PackByte writer writes the same file.
        ASSERT_EQ(korImage_createFileFromPackByte(again.c_str(), -1, 3, &size, rows, red, green, blue, 3, nullptr), 0);
        EXPECT_EQ(iltest::readFile(again), iltest::readFile(path));

        const Read buf = readBuffer(path), packed = readRows(path);
        ASSERT_EQ(buf.status, 0);
        EXPECT_EQ(buf.layout, IMAGEFORMAT_MAP);
        EXPECT_EQ(buf.pixels, map);
        EXPECT_EQ(buf.count, c.count);
        EXPECT_EQ(std::memcmp(buf.r, red, 3) | std::memcmp(buf.g, green, 3) | std::memcmp(buf.b, blue, 3), 0);
        ASSERT_EQ(packed.status, 0);
        EXPECT_EQ(packed.pixels, map);
        EXPECT_EQ(packed.count, c.count);
        const Bytes rgb = rgbOf(path);
        ASSERT_EQ(rgb.size(), 3 * map.size());
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const uint8_t i = map[size_t(y) * w + x], *row = &rgb[size_t(y) * w * 3];
                ASSERT_EQ((Bytes{row[x], row[w + x], row[2 * w + x]}), (Bytes{red[i], green[i], blue[i]})) << x;
            }
    }
    korImage_freeImage(rows, &size, IMAGEFORMAT_PACKBYTE);
}

TEST(NativeDispatch, ThreePlanePcxAndPaFilesFoundByContents) {
    iltest::TempDir dir;
    // A three-plane PCX: RGB directly; a palette read reduces it.
    Bytes f(128, 0);
    f[0] = 10, f[1] = 5, f[2] = 1, f[3] = 8, f[8] = 1, f[65] = 3, f[66] = 2;
    f.insert(f.end(), {8, 0xC1, 200, 16, 96, 24, 0xC1, 248});
    const std::string p3 = dir.file("t.pcx");
    iltest::writeFile(p3, f);
    EXPECT_EQ(rgbOf(p3), (Bytes{8, 200, 16, 96, 24, 248}));
    EXPECT_EQ(readRows(p3).count, 2);

    // "p" and "a" files under names without their extensions, from a 4 x 3
    // image of five colours the palette optimiser keeps exactly.
    const Bytes rgb = maptest::fewColours(4, 3);
    const ImageSize s{4, 3};
    const std::string p = dir.file("pal.dat"), a = dir.file("planes.hdr");
    ASSERT_EQ(korImage_createFileFromRGB(p.c_str(), 11, COLORMODE_PALETTE256, &s, rgb.data(), nullptr), 0);
    ASSERT_EQ(korImage_createFileFromRGB(a.c_str(), 12, COLORMODE_PALETTE16, &s, rgb.data(), nullptr), 0);
    EXPECT_EQ(korImage_typeFromFile(p.c_str()), 11);
    EXPECT_EQ(korImage_typeFromFile(a.c_str()), 12);
    EXPECT_EQ(modeOf(p), COLORMODE_PALETTE16);  // five colours
    EXPECT_EQ(modeOf(a), COLORMODE_RGB);
    for (const std::string& file : {p, a}) {
        ImageSize size{};
        EXPECT_EQ(rgbOf(file, &size), rgb) << file;
        EXPECT_EQ(std::pair(size.x, size.y), std::pair(4, 3));
    }
}

TEST(NativeDispatch, BitmapsAndWriterFallbacks) {
    iltest::TempDir dir;
    // A bitmap written as PCX is a two-entry palette file; 1-bit PCX files
    // read back as bitmaps with their bits as stored.
    const ImageSize size{9, 2};
    const Bytes bits = {0xC3, 0x80, 0x0F, 0x00};
    const std::string p = dir.file("b.pcx");
    ASSERT_EQ(korImage_createFileFromBitMap(p.c_str(), 5, &size, bits.data(), 0, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(iltest::readFile(p)[3], 8);
    Bytes one(128, 0);
    one[0] = 10, one[1] = 5, one[3] = 1, one[8] = 8, one[10] = 1, one[65] = 1, one[66] = 2;
    one.insert(one.end(), {0x3C, 0x80, 0x0F, 0x00});
    iltest::writeFile(p, one);
    void* out = nullptr;
    ImageSize got{};
    ASSERT_EQ(korImage_readFileToBitMap(&out, &got, p.c_str(), -1, 0, nullptr), 0);
    const uint8_t* o = static_cast<uint8_t*>(out);
    EXPECT_EQ((Bytes{o[0], o[1], o[2]}), (Bytes{0x3C, 0x80, 0x0F}));
    korImage_freeImage(out, &got, IMAGEFORMAT_BITMAP);
    // Sun has no bitmap reader: a 1-bit Sun file is read as RGB only.
    Bytes sun(32, 0);
    const uint32_t words[8] = {0x59A66A95, 9, 1, 1, 2, 1, 0, 0};
    for (int i = 0; i < 8; ++i) il::put32be(&sun[4 * size_t(i)], words[i]);
    sun.insert(sun.end(), {0x80, 0x00});
    const std::string q = dir.file("b.rs");
    iltest::writeFile(q, sun);
    EXPECT_EQ(korImage_readFileToBitMap(&out, &got, q.c_str(), -1, 0, nullptr), -119);
    EXPECT_EQ(rgbOf(q).size(), 27u);
    // 16 colours to Sun is refused; 300 colours to PCX are expanded to RGB
    // and written as 256.
    const ImageSize s4{4, 1};
    const Bytes map = {0, 1, 2, 3};
    uint8_t pal[256] = {0, 80, 160, 240};
    EXPECT_EQ(korImage_createFileFromMap(q.c_str(), 10, 2, &s4, map.data(), pal, pal, pal, 4, nullptr), -126);
    ASSERT_EQ(korImage_createFileFromMap(p.c_str(), 5, 3, &s4, map.data(), pal, pal, pal, 300, nullptr), 0);
    EXPECT_EQ(rgbOf(p), (Bytes{0, 80, 160, 240, 0, 80, 160, 240, 0, 80, 160, 240}));
}

TEST(NativeDispatch, DisplayProcedureDrawsAtTheRequestedSize) {
    const std::string program = IMAGELIB_PMA_PROGRAM;
    EXPECT_EQ(korImage_fileType(-1, program.c_str()), 27);  // from the extension
    ImageSize size{};
    int mode = 0;
    ASSERT_EQ(korImage_readFileInfo(&size, &mode, nullptr, program.c_str(), -1), 0);
    EXPECT_EQ(std::pair(size.x, size.y), std::pair(7, 5));
    EXPECT_EQ(mode, COLORMODE_RGB);
    // Drawn at 3 x 2, not drawn at 7 x 5 and resampled: blue 200, red 10 x.
    const ImageSize requested{3, 2};
    EXPECT_EQ(rgbOf(program, &size, &requested),
              (Bytes{0, 10, 20, 0, 0, 0, 200, 200, 200, 0, 10, 20, 20, 20, 20, 200, 200, 200}));
}

}  // namespace
