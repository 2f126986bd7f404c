// BMP codec: decoder rules pinned with hand-built files, writer layouts
// read back, the streaming writer, and hostile input.
#include <gtest/gtest.h>

#include <cstring>
#include <tuple>
#include <vector>

#include "bmp_decode.h"
#include "imagelib/pixels.h"
#include "internal/bytes.h"
#include "codecs/rows.h"
#include "test_support.h"

namespace {

using bmptest::Bytes;
using bmptest::readMap;
using bmptest::readRGB;

// A BMP file assembled field by field.
struct FileLayout {
    int width = 1, height = 1, bits = 8, planes = 1;
    uint32_t compression = 0, coloursUsed = 0;
    bool core = false;        // 12-byte header, 3-byte palette entries
    uint32_t headerSize = 40; // 16, 40, 52, 56, 64, 108 or 124
    std::vector<uint32_t> masks;  // bit fields: after a 40-byte header, else inside it
    Bytes palette;            // r, g, b triples
    int64_t dataOffset = -1;  // -1: right after the palette
    int64_t imageSize = -1;   // -1: the data's length
    Bytes data;
};

Bytes build(const FileLayout& s) {
    Bytes f = {'B', 'M'};
    f.resize(14);
    auto put32 = [&](uint32_t v) { f.resize(f.size() + 4), il::put32le(&f[f.size() - 4], v); };
    auto put16 = [&](uint32_t v) { f.resize(f.size() + 2), il::put16le(&f[f.size() - 2], v); };
    if (s.core) {
        put32(12), put16(s.width), put16(s.height), put16(s.planes), put16(s.bits);
    } else {
        put32(s.headerSize), put32(s.width), put32(uint32_t(s.height)), put16(s.planes), put16(s.bits);
        if (s.headerSize > 16) {
            put32(s.compression), put32(s.imageSize < 0 ? s.data.size() : s.imageSize);
            put32(0), put32(0), put32(s.coloursUsed), put32(0);
        }
        for (uint32_t m : s.masks) put32(m);
        if (s.headerSize > 40) f.resize(14 + s.headerSize);
    }
    for (size_t i = 0; i + 2 < s.palette.size(); i += 3) {
        f.insert(f.end(), {s.palette[i + 2], s.palette[i + 1], s.palette[i]});
        if (!s.core) f.push_back(0);
    }
    il::put32le(&f[10], uint32_t(s.dataOffset < 0 ? f.size() : s.dataOffset));
    f.insert(f.end(), s.data.begin(), s.data.end());
    il::put32le(&f[2], uint32_t(f.size()));
    return f;
}

Bytes greyPalette(int n) {
    Bytes p;
    for (int i = 0; i < n; ++i) p.insert(p.end(), {uint8_t(i * 10), uint8_t(i * 20), uint8_t(i * 30)});
    return p;
}

int info(const std::string& path, ImageSize* size = nullptr, int* format = nullptr) {
    return imageBmp_readInfo(size, format, path.c_str());
}

class BmpTest : public ::testing::Test {
protected:
    iltest::TempDir dir;
    std::string put(const Bytes& bytes, const std::string& name = "t.bmp") {
        std::string p = dir.file(name);
        iltest::writeFile(p, bytes);
        return p;
    }
    Bytes file(const std::string& name) { return iltest::readFile(dir.file(name)); }
};

TEST_F(BmpTest, HeaderParsingFillsDefaultsAndRepairsOffset) {
    FileLayout s;
    s.width = 9, s.height = 2, s.bits = 4, s.palette = greyPalette(16), s.imageSize = 0, s.dataOffset = 20;
    s.data.assign(8, 0);
    il::File f = il::File::open(put(build(s)).c_str(), "rb");
    BmpFileHeader fh;
    BmpInfoHeader ih;
    int four = -1;
    ASSERT_EQ(imageBmp_readHeader(&fh, &ih, &four, f), 0);
    EXPECT_EQ(four, 1);
    EXPECT_EQ(ih.coloursUsed, 16u);
    EXPECT_EQ(ih.imageSize, 16u);    // ceil(9 / 8) words x 2 rows
    EXPECT_EQ(fh.dataOffset, 118u);  // raised to the end of the palette

    // Core header: widened, 3-byte entries; 24 bits gets 2^24 colours and
    // an image size of 4 bytes a pixel.
    FileLayout c;
    c.core = true, c.width = 3, c.height = 2, c.bits = 24, c.data.assign(24, 0), c.dataOffset = 0;
    f = il::File::open(put(build(c)).c_str(), "rb");
    ASSERT_EQ(imageBmp_readHeader(&fh, &ih, &four, f), 0);
    EXPECT_EQ(four, 0);
    EXPECT_EQ((std::vector<uint32_t>{ih.headerSize, ih.coloursUsed, ih.imageSize, fh.dataOffset}),
              (std::vector<uint32_t>{40, 16777216, 24, 26}));
}

TEST_F(BmpTest, InfoReportsFormatsAndRefusesBadHeaders) {
    struct Case { int bits, planes; uint32_t compression; int status, format; };
    const Case cases[] = {{24, 1, 0, 0, 1},   {8, 1, 0, 0, 3},    {4, 1, 2, 0, 2},    {1, 1, 0, 0, 5},
                          {1, 4, 0, 0, 2},    {2, 1, 0, 0, 2},    {16, 1, 0, 0, 1},   {32, 1, 0, 0, 1},
                          {1, 2, 0, -154, 0}, {12, 1, 0, -154, 0}, {8, 1, 4, -156, 0}, {24, 1, 5, -156, 0}};
    for (const Case& k : cases) {
        FileLayout s;
        s.width = 5, s.height = -3, s.bits = k.bits, s.planes = k.planes, s.compression = k.compression;
        ImageSize size{};
        int format = 0;
        std::string p = put(build(s));
        EXPECT_EQ(info(p, &size, &format), k.status) << k.bits << "/" << k.planes;
        if (k.status == 0) {
            EXPECT_EQ(format, k.format);
        }
        EXPECT_EQ(std::pair(size.x, size.y), std::pair(5, 3));
        if (k.status == -154) {
            EXPECT_EQ(info(p), 0);  // the depth is judged only when asked for
        }
    }
    // Signature, header size, 0 bits, colours used, width 0, height; a cut header.
    const std::pair<int, uint32_t> bad[] = {{0, 'C'},  {1, 'X'},  {14, 20},          {28, 0},
                                            {46, 257}, {18, 0},   {22, 0x40000000}};
    for (auto [at, value] : bad) {
        Bytes b = build(FileLayout{});
        if (at < 2 || at == 14 || at == 28) b[at] = uint8_t(value);
        else il::put32le(&b[at], value);
        EXPECT_EQ(info(put(b)), -154) << at;
    }
    Bytes cut = build(FileLayout{});
    cut.resize(30);
    EXPECT_EQ(info(put(cut)), -120);
    EXPECT_EQ(info(dir.file("missing.bmp")), -113);
}

// The pixels of a true-colour file through the readers: row-planar RGB and
// the alpha plane of the RGBA reader.
struct TrueColour {
    int status = 0, format = 0;
    Bytes rgb, alpha;
};

TrueColour readTrueColour(const std::string& path) {
    TrueColour t;
    ImageSize size{};
    if ((t.status = info(path, &size, &t.format))) return t;
    const Bytes planar = readRGB(path).rgb;
    t.rgb = planar;
    uint8_t* rgba = nullptr;
    if ((t.status = imageBmp_readToRGBA(&rgba, &size, path.c_str()))) return t;
    t.alpha.assign(rgba + 3 * size.x, rgba + 4 * size.x);  // first row
    korImage_freeImage(rgba, &size, IMAGEFORMAT_RGBA);
    return t;
}

TEST_F(BmpTest, BitFieldsAndLargerHeaders) {
    struct Case {
        const char* what;
        uint32_t headerSize;
        int bits;
        uint32_t compression;
        std::vector<uint32_t> masks;
        Bytes pixels;  // one stored row of two pixels, padded
        Bytes rgb;     // expected row-planar red, green, blue of the two pixels
        Bytes alpha;   // expected alpha (255 without an alpha field)
        int format;
    };
    const Case cases[] = {
        // 5-5-5 by default: 5-bit fields repeat their top bits (10000 -> 10000100).
        {"16 default", 40, 16, 0, {}, {0xFF, 0x7F, 0x10, 0x42}, {255, 132, 255, 132, 255, 132}, {255, 255}, 1},
        // Bit fields marked but no room left for the masks before the pixels.
        {"no masks", 40, 16, 3, {}, {0xFF, 0x7F, 0x10, 0x42}, {255, 132, 255, 132, 255, 132}, {255, 255}, 1},
        // 5-6-5 masks after a 40-byte header: 6-bit 100000 -> 10000010.
        {"565", 40, 16, 3, {0xF800, 0x07E0, 0x001F}, {0x00, 0x84, 0x1F, 0x00}, {132, 0, 130, 0, 0, 255},
         {255, 255}, 1},
        // 32 bits with no masks: 8-8-8, the top byte is not alpha.
        {"32 default", 40, 32, 0, {}, {1, 2, 3, 4, 5, 6, 7, 8}, {3, 7, 2, 6, 1, 5}, {255, 255}, 1},
        // Masks inside a 52-byte header, channels in other places; a
        // 10-bit field keeps its top 8 bits, a 1-bit field gives 0 or 255.
        {"52", 52, 32, 3, {0x3FF00000, 0x000FFC00, 0x00000001}, {0x01, 0xFC, 0xFF, 0x3F, 0x00, 0x00, 0x40, 0x00},
         {255, 1, 255, 0, 255, 0}, {255, 255}, 1},
        // An alpha mask in a 56-byte header gives colour mode 6.
        {"56 alpha", 56, 32, 3, {0xFF0000, 0xFF00, 0xFF, 0xFF000000}, {1, 2, 3, 0x80, 5, 6, 7, 0},
         {3, 7, 2, 6, 1, 5}, {0x80, 0}, 6},
        // Alpha written as 0 everywhere reads as opaque.
        {"alpha zero", 124, 32, 3, {0xFF0000, 0xFF00, 0xFF, 0xFF000000}, {1, 2, 3, 0, 5, 6, 7, 0},
         {3, 7, 2, 6, 1, 5}, {255, 255}, 6},
        // 4-bit fields of a version 4 header with the alpha variant after
        // it: 1111 -> 11111111, 1000 -> 10001000.
        {"4444", 108, 16, 6, {0x0F00, 0x00F0, 0x000F, 0xF000}, {0x00, 0xFF, 0x08, 0x00}, {255, 0, 0, 0, 0, 136},
         {255, 0}, 6},
    };
    for (const Case& k : cases) {
        FileLayout s;
        s.width = 2, s.height = 1, s.bits = k.bits, s.compression = k.compression, s.headerSize = k.headerSize;
        s.masks = k.masks;
        s.data = k.pixels;
        const TrueColour t = readTrueColour(put(build(s)));
        ASSERT_EQ(t.status, 0) << k.what;
        EXPECT_EQ(t.format, k.format) << k.what;
        EXPECT_EQ(t.rgb, k.rgb) << k.what;
        EXPECT_EQ(t.alpha, k.alpha) << k.what;
    }

    // OS/2 2.x headers of 16 and 64 bytes, and version 5, hold palette images
    // with 4-byte entries.
    for (uint32_t headerSize : {16u, 64u, 124u}) {
        FileLayout s;
        s.width = 4, s.bits = 8, s.headerSize = headerSize, s.palette = greyPalette(256), s.data = {7, 0, 255, 9};
        const bmptest::Picture p = readMap(put(build(s)));
        ASSERT_EQ(p.status, 0) << headerSize;
        EXPECT_EQ(p.indices, Bytes({7, 0, 255, 9})) << headerSize;
        EXPECT_EQ(p.g[7], 140) << headerSize;
    }

    // Refused: bit fields on a palette depth, OS/2 Huffman coding, 64-bit
    // pixels, embedded JPEG and PNG.
    const std::tuple<int, uint32_t, uint32_t, int> refused[] = {
        {8, 3, 40, -156}, {1, 3, 64, -156}, {64, 0, 40, -156}, {24, 4, 124, -156}, {24, 5, 124, -156}};
    for (auto [bits, compression, headerSize, status] : refused) {
        FileLayout s;
        s.bits = bits, s.compression = compression, s.headerSize = headerSize, s.masks = {1, 2, 4};
        s.data = Bytes(8);
        EXPECT_EQ(info(put(build(s))), status) << bits << "/" << compression;
    }
}

TEST_F(BmpTest, ShortPalettesReadPastTheirEndAsBlack) {
    FileLayout s;
    s.width = 4, s.bits = 4, s.coloursUsed = 2, s.palette = {10, 20, 30, 200, 210, 220};
    s.data = {0x01, 0x9F, 0, 0};
    const bmptest::Picture p = bmptest::decode(put(build(s)));
    ASSERT_EQ(p.status, 0);
    EXPECT_EQ(p.count, 2);
    EXPECT_EQ(p.rgb, Bytes({10, 200, 0, 0, 20, 210, 0, 0, 30, 220, 0, 0}));
}

TEST_F(BmpTest, BitmapArrayChainReadsTheLastImage) {
    FileLayout s;
    s.width = 2, s.bits = 8, s.palette = greyPalette(2), s.coloursUsed = 2, s.data = {1, 0, 0, 0};
    // Two 14-byte links: the first points to the second, which holds the image.
    Bytes f = {'B', 'A', 40, 0, 0, 0, 14, 0, 0, 0, 1, 0, 1, 0, 'B', 'A', 40, 0, 0, 0, 0, 0, 0, 0, 9, 0, 9, 0};
    Bytes tail = build(s);
    il::put32le(&tail[10], il::get32le(&tail[10]) + uint32_t(f.size()));
    f.insert(f.end(), tail.begin(), tail.end());
    bmptest::Picture m = readMap(put(f));
    ASSERT_EQ(m.status, 0);
    EXPECT_EQ(m.indices, (Bytes{1, 0}));
    EXPECT_EQ(m.r[1], 10);
    // A link to itself, a bad link signature, a bad link size.
    for (auto [at, value] : {std::pair{20, 14}, {15, 'X'}, {16, 41}}) {
        Bytes bad = f;
        bad[size_t(at)] = uint8_t(value);
        EXPECT_EQ(info(put(bad)), -154) << at;
    }
}

TEST(BmpRle, RowDecoderRules) {
    Bytes row;
    size_t pos;
    auto decode = [&](const Bytes& d, uint32_t comp, int limit, int width) {
        row.assign(size_t(limit), 0xEE);
        pos = 0;
        return imageBmp_decodeRleRow(row.data(), d.data(), d.size(), &pos, limit, width, comp);
    };
    // Encoded run, absolute run of 3 (one pad byte), end of line.
    EXPECT_EQ(decode({2, 7, 0, 3, 1, 2, 3, 9, 0, 0}, kBmpRle8, 6, 6), 5);
    EXPECT_EQ(row, (Bytes{7, 7, 1, 2, 3, 0xEE}));
    EXPECT_EQ(pos, 10u);
    // A run past the width is cut without error; end of bitmap ends the row.
    EXPECT_EQ(decode({9, 4, 0, 1}, kBmpRle8, 4, 4), 4);
    EXPECT_EQ(row, (Bytes{4, 4, 4, 4}));
    // An absolute run past the limit still consumes all of its bytes.
    EXPECT_EQ(decode({0, 4, 1, 2, 3, 4, 1, 9, 0, 0}, kBmpRle8, 3, 3), 3);
    EXPECT_EQ(pos, 10u);
    // RLE4: nibbles alternate high, low; absolute nibbles high first.
    EXPECT_EQ(decode({3, 0x12, 0, 3, 0x34, 0x50, 0, 0}, kBmpRle4, 6, 6), 6);
    EXPECT_EQ(row, (Bytes{1, 2, 1, 3, 4, 5}));
    EXPECT_EQ(decode({0, 2, 1, 1}, kBmpRle8, 4, 4), kBmpRleDelta);
    EXPECT_EQ(decode({6, 1, 0, 0}, kBmpRle8, 8, 4), kBmpRleOverrun);
    EXPECT_EQ(decode({2, 1}, kBmpRle8, 4, 4), kBmpRleShort);
    EXPECT_EQ(decode({0, 5, 1, 2}, kBmpRle8, 8, 8), kBmpRleShort);
}

TEST_F(BmpTest, MapReaderLayouts) {
    // 8 bits, bottom-up, offset inside the palette: read after the palette.
    FileLayout s;
    s.width = 3, s.height = 2, s.bits = 8, s.palette = greyPalette(3), s.coloursUsed = 3, s.dataOffset = 10;
    s.data = {4, 5, 6, 0, 1, 2, 3, 0};
    bmptest::Picture m = readMap(put(build(s)));
    ASSERT_EQ(m.status, 0);
    EXPECT_EQ(m.indices, (Bytes{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(m.count, 3);
    EXPECT_EQ(readMap(put(build(s)), true).indices, m.indices);
    s.height = -2;  // top-down
    EXPECT_EQ(readMap(put(build(s))).indices, (Bytes{4, 5, 6, 1, 2, 3}));

    // 1 bit with a (black, white) palette: indices as stored, no inversion.
    // Colours used 0 means 2^bits palette entries.
    FileLayout one;
    one.width = 10, one.bits = 1, one.palette = {0, 0, 0, 255, 255, 255}, one.data = {0xA5, 0x80, 0, 0};
    m = readMap(put(build(one)));
    EXPECT_EQ(m.indices, (Bytes{1, 0, 1, 0, 0, 1, 0, 1, 1, 0}));
    EXPECT_EQ(m.count, 2);
    FileLayout four;
    four.width = 3, four.bits = 4, four.data = {0x12, 0x30, 0, 0};
    EXPECT_EQ(readMap(put(build(four))).status, -120);  // 16 palette entries promised, none there
    four.palette = greyPalette(16);
    m = readMap(put(build(four)));
    EXPECT_EQ(m.indices, (Bytes{1, 2, 3}));
    EXPECT_EQ(m.count, 16);

    // RLE8: the row buffer is not cleared between rows.
    FileLayout rle;
    rle.width = 4, rle.height = 2, rle.compression = 1, rle.palette = greyPalette(4), rle.coloursUsed = 4;
    rle.data = {4, 2, 0, 0, 1, 3, 0, 1};
    EXPECT_EQ(readMap(put(build(rle)), true).indices, (Bytes{3, 2, 2, 2, 2, 2, 2, 2}));
    rle.data = {0, 2, 1, 1};
    EXPECT_EQ(readMap(put(build(rle))).status, -154);  // delta
    rle.height = -2;
    EXPECT_EQ(readMap(put(build(rle))).status, -154);  // top-down RLE

    FileLayout rgb;
    rgb.bits = 24, rgb.data.assign(4, 0);
    EXPECT_EQ(readMap(put(build(rgb))).status, -119);
    s.compression = 3;
    EXPECT_EQ(readMap(put(build(s))).status, -156);
}

TEST_F(BmpTest, RgbAndBitmapReaders) {
    FileLayout s;
    s.width = 2, s.height = 2, s.bits = 24;
    s.data = {1, 2, 3, 4, 5, 6, 0, 0, 7, 8, 9, 10, 11, 12, 0, 0};  // bottom row first, b g r
    EXPECT_EQ(readRGB(put(build(s))).rgb, (Bytes{9, 12, 8, 11, 7, 10, 3, 6, 2, 5, 1, 4}));
    s.compression = 1;  // ignored for 24 bits
    EXPECT_EQ(readRGB(put(build(s))).rgb.size(), 12u);
    s.data.resize(15);
    EXPECT_EQ(readRGB(put(build(s))).status, -154);
    s.bits = 8;
    EXPECT_EQ(readRGB(put(build(s))).status, -119);
    ImageSize size;
    void* out = nullptr;
    EXPECT_EQ(imageBmp_readToBitMap(&out, &size, 0, put(build(s)).c_str(), nullptr), -119);

    // Bitmap: dark entries become set bits whichever index they have.
    for (bool whiteFirst : {false, true}) {
        FileLayout b;
        b.width = 9, b.height = 2, b.bits = 1;
        b.palette = whiteFirst ? Bytes{255, 255, 255, 0, 0, 0} : Bytes{0, 0, 0, 255, 255, 255};
        const uint8_t x = whiteFirst ? 0 : 0xFF;
        b.data = {uint8_t(0x0F ^ x), uint8_t(0x80 ^ x), 0, 0, uint8_t(0xC3 ^ x), uint8_t(x & 0x80), 0, 0};
        std::string p = put(build(b));
        void* runs = nullptr;
        ASSERT_EQ(imageBmp_readToBitMap(&out, &size, 0, p.c_str(), nullptr), 0);
        ASSERT_EQ(imageBmp_readToBitMap(&runs, &size, 1, p.c_str(), nullptr), 0);
        const uint8_t* bits = static_cast<uint8_t*>(out);
        EXPECT_EQ((Bytes{bits[0], bits[2], uint8_t(bits[3] & 0x80)}), (Bytes{0xC3, 0x0F, 0x80}));
        uint8_t row[2] = {};
        korImage_runLengthDecodeBitMapRow(row, static_cast<uint16_t**>(runs)[1], 9);
        EXPECT_EQ(row[0], bits[2]);
        korImage_freeImage(out, &size, IMAGEFORMAT_BITMAP);
        korImage_freeImage(runs, &size, IMAGEFORMAT_RLEBITMAP);
    }
}

// A row-planar image whose colours are cell centres of the palette
// optimiser (multiples of 8), so that an optimised palette holds them all.
Bytes planar(int w, int h) {
    static const uint8_t kColours[5][3] = {{8, 16, 24}, {248, 0, 128}, {64, 200, 32}, {0, 0, 0}, {120, 120, 240}};
    Bytes v(size_t(w) * h * 3);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 3; ++c) v[(size_t(y) * 3 + c) * w + x] = kColours[(x * 3 + y) % 5][c];
    return v;
}

TEST_F(BmpTest, RgbWriterFormatsReadBack) {
    const ImageSize size{5, 3}, two{2, 1};
    const Bytes rgb = planar(5, 3);
    const std::string p = dir.file("w.bmp");
    ASSERT_EQ(imageBmp_writeFromRGB(p.c_str(), rgb.data(), &size, 1, nullptr), 0);
    Bytes f = file("w.bmp");
    EXPECT_EQ(f.size(), 54u + 3 * 16);  // 15 pixel bytes and 1 pad byte a row
    EXPECT_EQ(std::pair(il::get32le(&f[2]), il::get32le(&f[10])), std::pair(uint32_t(f.size()), 54u));
    EXPECT_EQ(readRGB(p).rgb, rgb);
    for (int format : {2, 3}) {
        ASSERT_EQ(imageBmp_writeFromRGB(p.c_str(), rgb.data(), &size, format, nullptr), 0);
        EXPECT_EQ(il::get32le(&file("w.bmp")[10]), format == 2 ? 118u : 1078u);
        bmptest::Picture m = readMap(p);
        EXPECT_EQ(m.count, format == 2 ? 16 : 256);
        EXPECT_EQ(bmptest::expand(m), rgb) << format;
    }
    // Grey: 0.11 b + 0.3 r + 0.59 g + 0.5 summed in that order gives 13 for
    // (1, 22, 2) (another order gives 14); the palette is the grey ramp.
    const Bytes px = {1, 255, 22, 255, 2, 255};
    ASSERT_EQ(imageBmp_writeFromRGB(p.c_str(), px.data(), &two, 4, nullptr), 0);
    f = file("w.bmp");
    EXPECT_EQ(std::pair(f[1078], f[1079]), std::pair(uint8_t(13), uint8_t(255)));
    EXPECT_EQ(Bytes(f.begin() + 54 + 4 * 200, f.begin() + 58 + 4 * 200), (Bytes{200, 200, 200, 0}));

    EXPECT_EQ(imageBmp_writeFromRGB(p.c_str(), rgb.data(), &size, 5, nullptr), -126);
    EXPECT_EQ(imageBmp_writeFromRGB(dir.file("no/such.bmp").c_str(), rgb.data(), &size, 1, nullptr), -113);
}

TEST_F(BmpTest, MapAndBitmapWritersReadBack) {
    const ImageSize size{5, 2};
    const Bytes map = {0, 1, 2, 3, 4, 15, 14, 13, 12, 11}, pal = greyPalette(200);
    uint8_t r[256] = {}, g[256] = {}, b[256] = {};
    for (int i = 0; i < 200; ++i) r[i] = pal[3 * i], g[i] = pal[3 * i + 1], b[i] = pal[3 * i + 2];
    const std::string p = dir.file("m.bmp"), q = dir.file("mp.bmp");

    // 8 bits from 200 colours: a full palette, the rest zero, colours used 0.
    ASSERT_EQ(imageBmp_writeFromMap(p.c_str(), map.data(), r, g, b, 200, &size, 3, 0, nullptr), 0);
    Bytes f = file("m.bmp");
    EXPECT_EQ(il::get32le(&f[46]), 0u);
    EXPECT_EQ(Bytes(f.begin() + 54 + 199 * 4, f.begin() + 54 + 201 * 4),
              (Bytes{pal[599], pal[598], pal[597], 0, 0, 0, 0, 0}));
    bmptest::Picture m = readMap(p);
    EXPECT_EQ(m.indices, map);
    EXPECT_EQ(m.count, 256);

    // 4 bits, odd width; PackByte rows write the same file.
    uint8_t** rows = nullptr;
    ASSERT_EQ(il::packByteEncodeImage(&rows, map.data(), &size), 0);
    ASSERT_EQ(imageBmp_writeFromMap(p.c_str(), map.data(), r, g, b, 16, &size, 2, 0, nullptr), 0);
    ASSERT_EQ(imageBmp_writeFromMap(q.c_str(), rows, r, g, b, 16, &size, 2, 1, nullptr), 0);
    korImage_freeImage(rows, &size, IMAGEFORMAT_PACKBYTE);
    f = file("m.bmp");
    EXPECT_EQ(f, file("mp.bmp"));
    EXPECT_EQ(f.size(), 118u + 2 * 4);
    EXPECT_EQ(readMap(p).indices, map);

    // Grey: the palette's grey levels through the tone curve, the grey ramp.
    const uint8_t gr[3] = {0, 255, 255}, gg[3] = {0, 255, 0}, gb[3] = {0, 255, 0};
    const Bytes idx = {0, 1, 2};
    const ImageSize three{3, 1};
    ASSERT_EQ(imageBmp_writeFromMap(p.c_str(), idx.data(), gr, gg, gb, 3, &three, 4, 0, nullptr), 0);
    f = file("m.bmp");
    EXPECT_EQ(Bytes(f.begin() + 1078, f.begin() + 1081), (Bytes{1, 254, 37}));
    EXPECT_EQ(f[54 + 4 * 77], 77);
    EXPECT_EQ(imageBmp_writeFromMap(p.c_str(), idx.data(), gr, gg, gb, 3, &three, 1, 0, nullptr), -126);

    // Bitmap: white, black palette; set bits are black; pad bytes zero; the
    // run-length form writes the same file.
    const ImageSize bsize{9, 2};
    const Bytes bits = {0xC3, 0x80, 0x0F, 0x00};
    ASSERT_EQ(imageBmp_writeFromBitMap(p.c_str(), bits.data(), 0, &bsize, nullptr), 0);
    f = file("m.bmp");
    EXPECT_EQ(il::get32le(&f[10]), 62u);
    EXPECT_EQ(Bytes(f.begin() + 54, f.end()), (Bytes{255, 255, 255, 0, 0, 0, 0, 0, 0x0F, 0, 0, 0, 0xC3, 0x80, 0, 0}));
    uint16_t** runs = nullptr;
    ASSERT_EQ(korImage_runLengthEncodeBitMap(&runs, bits.data(), &bsize), 0);
    ASSERT_EQ(imageBmp_writeFromBitMap(q.c_str(), runs, 1, &bsize, nullptr), 0);
    korImage_freeImage(runs, &bsize, IMAGEFORMAT_RLEBITMAP);
    EXPECT_EQ(file("mp.bmp"), f);
}

int stopAtSecondRow(int, int done) { return done == 1 ? 7 : 0; }

TEST_F(BmpTest, StopFinishesTheFileAndStreamingWriter) {
    const ImageSize size{3, 4};
    const Bytes map(12, 1);
    const uint8_t pal[256] = {};
    const std::string p = dir.file("s.bmp");
    EXPECT_EQ(imageBmp_writeFromMap(p.c_str(), map.data(), pal, pal, pal, 2, &size, 3, 0, stopAtSecondRow), 7);
    Bytes f = file("s.bmp");
    EXPECT_EQ(f.size(), 1078u + 4);
    EXPECT_EQ(il::get32le(&f[2]), f.size());

    // Streaming: the first row put becomes the bottom row.
    ImageFileContext ctx{};
    ctx.fileSize = ImageSize{3, 2};
    ASSERT_EQ(imageBmp_createFile(&ctx, p.c_str(), 9, 1), 0);
    EXPECT_EQ(ctx.handlerCode, 9);
    EXPECT_EQ(ctx.orientation, 6);
    const uint8_t a[3] = {1, 2, 3}, z[3] = {9, 8, 7};
    EXPECT_EQ(ctx.writeRow(&ctx, a, z, a, nullptr), 0);
    EXPECT_EQ(ctx.writeRow(&ctx, z, a, z, nullptr), 0);
    EXPECT_EQ(ctx.close(&ctx), 0);
    EXPECT_EQ(readRGB(p).rgb, (Bytes{9, 8, 7, 1, 2, 3, 9, 8, 7, 1, 2, 3, 9, 8, 7, 1, 2, 3}));
    f = file("s.bmp");
    EXPECT_EQ(il::get32le(&f[2]), f.size());
    EXPECT_EQ(f.size(), 54u + 2 * 12);
    ImageFileContext bad{};
    bad.fileSize = ImageSize{3, 2};
    EXPECT_EQ(imageBmp_createFile(&bad, dir.file("no/x.bmp").c_str(), 9, 1), 1);
    EXPECT_EQ(bad.state, nullptr);
}

// Runs every reader on path and frees what they return; true when any of
// the pixel readers succeeded.
bool readAll(const std::string& path) {
    ImageSize size;
    int format;
    imageBmp_readInfo(&size, &format, path.c_str());
    bool any = false;
    for (int packed : {0, 1}) {
        any |= readMap(path, packed).status == 0;
        void* bits = nullptr;
        if (imageBmp_readToBitMap(&bits, &size, packed, path.c_str(), nullptr) == 0) {
            any = true;
            korImage_freeImage(bits, &size, packed ? IMAGEFORMAT_RLEBITMAP : IMAGEFORMAT_BITMAP);
        }
    }
    return any || readRGB(path).status == 0;
}

TEST_F(BmpTest, TruncatedAndCorruptedFilesAreRefusedSafely) {
    const ImageSize size{5, 3}, bsize{8, 3};
    const Bytes rgb = planar(5, 3), bits = {0xF0, 0x0F, 0xAA};
    std::vector<Bytes> files;
    for (int format : {1, 2, 3}) {
        imageBmp_writeFromRGB(dir.file("h.bmp").c_str(), rgb.data(), &size, format, nullptr);
        files.push_back(file("h.bmp"));
    }
    imageBmp_writeFromBitMap(dir.file("h.bmp").c_str(), bits.data(), 0, &bsize, nullptr);
    files.push_back(file("h.bmp"));
    FileLayout rle;
    rle.width = 6, rle.height = 2, rle.bits = 4, rle.compression = 2, rle.palette = greyPalette(16);
    rle.data = {4, 0x12, 0, 3, 0xAB, 0xC0, 0, 0, 6, 0x55, 0, 1};
    files.push_back(build(rle));
    rle.bits = 8, rle.compression = 1, rle.palette = greyPalette(256);
    rle.data = {4, 9, 0, 3, 1, 2, 3, 0, 0, 0, 6, 5, 0, 1};
    files.push_back(build(rle));

    for (const Bytes& whole : files) {
        ASSERT_TRUE(readAll(put(whole, "x.bmp")));
        // Every length and every byte of the headers and the pixel data; of
        // the long palettes in between, a sample.
        auto probed = [&](size_t i) { return i < 80 || i + 80 > whole.size() || i % 41 == 0; };
        for (size_t n = 0; n < whole.size(); ++n)
            if (probed(n)) {
                EXPECT_FALSE(readAll(put(Bytes(whole.begin(), whole.begin() + long(n)), "x.bmp"))) << n;
            }
        for (size_t i = 0; i < whole.size(); ++i)
            for (uint8_t flip : {0x01, 0x80, 0xFF}) {
                if (!probed(i)) continue;
                Bytes bad = whole;
                bad[i] ^= flip;
                readAll(put(bad, "x.bmp"));
            }
    }
    // Headers promising far more than the file holds are refused before
    // anything is allocated for them.
    FileLayout huge;
    huge.width = 30000, huge.height = 30000, huge.bits = 8, huge.palette = greyPalette(256);
    EXPECT_FALSE(readAll(put(build(huge))));
    huge.compression = 1, huge.data = {0, 0, 0, 1};
    EXPECT_FALSE(readAll(put(build(huge))));
}

}  // namespace
