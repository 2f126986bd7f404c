// PCX codec: the line coder's run rule, hand-built files for the reader's
// palette, carry and plane rules, writers read back, and bad headers.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "codecs/native/pcx.h"
#include "imagelib/pixels.h"
#include "internal/bytes.h"
#include "few_colours.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes encode(const Bytes& in) {
    Bytes out(2 * in.size() + 2);
    out.resize(imagePcx_encodeLine(out.data(), in.data(), in.size()));
    return out;
}

TEST(PcxLine, EncoderRunRule) {
    const uint8_t A = 0x41, B = 0x42;
    EXPECT_EQ(encode({A, A, A, B}), (Bytes{0xC2, A, A, B}));
    EXPECT_EQ(encode({0xC5}), (Bytes{0xC1, 0xC5}));
    EXPECT_EQ(encode({A, A}), (Bytes{0xC1, A, A}));
    EXPECT_EQ(encode(Bytes(100, A)), (Bytes{0xFF, A, 0xE4, A, A}));
    EXPECT_EQ(encode({0xD0, 0xD0}), (Bytes{0xC1, 0xD0, 0xC1, 0xD0}));
    EXPECT_TRUE(encode({}).empty());
}

TEST(PcxLine, DecoderRules) {
    Bytes buf(8, 0xEE);
    size_t pos = 0;
    // A run cut at the buffer size; the index passes the limit by the
    // overshoot of the last run.
    const Bytes d = {7, 0xC9, 5, 3};
    EXPECT_EQ(imagePcx_decodeLine(buf.data(), 0, 4, 8, d.data(), d.size(), &pos), 8);
    EXPECT_EQ(buf, (Bytes{7, 5, 5, 5, 5, 5, 5, 5}));
    EXPECT_EQ(pos, 3u);
    // The buffer is cleared before the start index; a count of 0 writes nothing.
    const Bytes e = {0xC0, 9, 4};
    pos = 0;
    EXPECT_EQ(imagePcx_decodeLine(buf.data(), 2, 3, 8, e.data(), e.size(), &pos), 3);
    EXPECT_EQ(buf, (Bytes{0, 0, 4, 0, 0, 0, 0, 0}));
    // Past the end bytes read as 0xFF: a run of 0xFF whose value lay past
    // the end returns 0.
    const Bytes f = {1};
    pos = 0;
    EXPECT_EQ(imagePcx_decodeLine(buf.data(), 0, 8, 8, f.data(), f.size(), &pos), 0);
    EXPECT_EQ(buf, (Bytes{1, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(pos, 1u);
    // Any line survives encoding and decoding.
    Bytes line(300);
    for (size_t i = 0; i < line.size(); ++i) line[i] = uint8_t(i % 7 < 3 ? 0xC7 : i * 37 / 50);
    const Bytes coded = encode(line);
    Bytes back(line.size());
    pos = 0;
    EXPECT_EQ(imagePcx_decodeLine(back.data(), 0, 300, 300, coded.data(), coded.size(), &pos), 300);
    EXPECT_EQ(back, line);
    EXPECT_EQ(pos, coded.size());
}

// A PCX file assembled field by field; data is the coded pixel stream.
struct Layout {
    int version = 5, bits = 8, planes = 1, xMin = 0, yMin = 0, width = 1, height = 1, lineBytes = -1;
    Bytes headerPalette;  // up to 48 bytes
    Bytes data;
    Bytes trailer;        // appended as it is
};

Bytes build(const Layout& s) {
    Bytes f(kPcxHeaderBytes, 0);
    f[0] = 10, f[1] = uint8_t(s.version), f[2] = 1, f[3] = uint8_t(s.bits);
    il::put16le(&f[4], uint32_t(s.xMin));
    il::put16le(&f[6], uint32_t(s.yMin));
    il::put16le(&f[8], uint32_t(s.xMin + s.width - 1));
    il::put16le(&f[10], uint32_t(s.yMin + s.height - 1));
    std::copy(s.headerPalette.begin(), s.headerPalette.end(), f.begin() + 16);
    f[65] = uint8_t(s.planes);
    il::put16le(&f[66], uint32_t(s.lineBytes >= 0 ? s.lineBytes : (s.width * s.bits + 7) / 8));
    f.insert(f.end(), s.data.begin(), s.data.end());
    f.insert(f.end(), s.trailer.begin(), s.trailer.end());
    return f;
}

// A trailing palette: 12 and 256 entries with entry i = (i, 2i, 3i).
Bytes trailingPalette() {
    Bytes t = {12};
    for (int i = 0; i < 256; ++i) t.insert(t.end(), {uint8_t(i), uint8_t(2 * i), uint8_t(3 * i)});
    return t;
}

using Map = maptest::MapImage;

class PcxTest : public ::testing::Test {
protected:
    iltest::TempDir dir;
    std::string put(const Bytes& bytes, const std::string& name = "t.pcx") {
        const std::string p = dir.file(name);
        iltest::writeFile(p, bytes);
        return p;
    }
    // imagePcx_readToMap, contiguous or packed (decoded for comparison).
    Map read(const std::string& path, bool packed = false, StopFunction stop = nullptr) {
        return maptest::readMap(packed, [&](void** out, ImageSize* size, uint8_t* r, uint8_t* g, uint8_t* b, int* n) {
            return imagePcx_readToMap(out, size, r, g, b, n, path.c_str(), packed, stop);
        });
    }
};

TEST_F(PcxTest, InfoFormatsFromBitsAndPlanes) {
    struct Case { int bits, planes, format; };
    for (const Case& k : {Case{8, 3, 1}, {8, 1, 3}, {8, 4, 3}, {1, 1, 5}, {1, 4, 2}, {1, 8, 3}, {4, 1, 2}, {2, 1, 2}}) {
        Layout s;
        s.bits = k.bits, s.planes = k.planes, s.xMin = 3, s.yMin = 1, s.width = 7, s.height = 2;
        ImageSize size{};
        int format = 0;
        ASSERT_EQ(imagePcx_readInfo(&size, &format, put(build(s)).c_str()), 0);
        EXPECT_EQ(format, k.format) << k.bits << "/" << k.planes;
        EXPECT_EQ(std::pair(size.x, size.y), std::pair(7, 2));
    }
    EXPECT_EQ(imagePcx_readInfo(nullptr, nullptr, put(Bytes{10}).c_str()), 0);  // nothing is checked
    EXPECT_EQ(imagePcx_readInfo(nullptr, nullptr, dir.file("none.pcx").c_str()), -113);
}

TEST_F(PcxTest, PaletteRules) {
    Layout s;
    s.width = 2, s.data = {1, 0};
    s.headerPalette = {9, 8, 7, 6, 5, 4};
    s.trailer = trailingPalette();
    // Version 5, 256 colours: the trailing palette.
    Map m = read(put(build(s)));
    ASSERT_EQ(m.status, 0);
    EXPECT_EQ(m.count, 256);
    EXPECT_EQ(m.pixels, (Bytes{1, 0}));
    EXPECT_EQ((Bytes{m.r[255], m.g[255], m.b[255], m.r[1]}), (Bytes{255, 254, 253, 1}));
    // Version 4: the header's 16 entries, the rest 0.
    s.version = 4;
    m = read(put(build(s)));
    EXPECT_EQ((Bytes{m.r[0], m.g[0], m.b[1], m.r[16], m.r[255]}), (Bytes{9, 8, 4, 0, 0}));
    // Version 3: the default palette.
    s.version = 3;
    m = read(put(build(s)));
    EXPECT_EQ((Bytes{m.r[1], m.g[1], m.b[1], m.r[6], m.g[6], m.b[15]}), (Bytes{0, 0, 168, 168, 84, 252}));
    // A 16-colour version 5 file whose last 769 bytes do not start with 12
    // keeps its header palette; when they do, its 16 entries come from there.
    Layout p;
    p.bits = 1, p.planes = 4, p.width = 3, p.headerPalette = {9, 8, 7, 6, 5, 4};
    p.data = {0xC1, 0xE0, 0x00, 0x40, 0xC1, 0xFF};  // bytes from 0xC0 on are coded as runs
    p.trailer.assign(769, 0);
    m = read(put(build(p)));
    ASSERT_EQ(m.status, 0);
    EXPECT_EQ(m.count, 16);
    EXPECT_EQ(m.pixels, (Bytes{9, 13, 9}));
    EXPECT_EQ((Bytes{m.r[1], m.g[1], m.b[1]}), (Bytes{6, 5, 4}));
    p.trailer = trailingPalette();
    m = read(put(build(p)));
    EXPECT_EQ((Bytes{m.r[1], m.g[1], m.b[1], m.r[16]}), (Bytes{1, 2, 3, 0}));
    // A 12 inside the pixel data is not a palette: the file is 769 bytes of
    // pixels after the header, and the mark lies before their end.
    Layout q;
    q.width = 769, q.data.assign(769, 12);
    q.headerPalette = {1, 2, 3};
    m = read(put(build(q)));
    EXPECT_EQ(m.r[0], 1);
}

TEST_F(PcxTest, RunAcrossLineEndLeavesZerosInTheNextLine) {
    // Width 3, two rows; the first row's run of 5 overshoots by 2: those
    // positions of the second row read 0 and its data starts after them.
    Layout s;
    s.width = 3, s.height = 2, s.data = {0xC5, 7, 4};
    Map m = read(put(build(s)));
    ASSERT_EQ(m.status, 0);
    EXPECT_EQ(m.pixels, (Bytes{7, 7, 7, 0, 0, 4}));
    // Three planes: RGB, the planes of each row after one another.
    Layout rgb;
    rgb.planes = 3, rgb.width = 2, rgb.height = 1, rgb.lineBytes = 3, rgb.data = {1, 2, 9, 3, 4, 9, 5, 6, 9};
    m = read(put(build(rgb)));
    ASSERT_EQ(m.status, 0);
    EXPECT_EQ(m.count, 0);
    EXPECT_EQ(m.pixels, (Bytes{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(read(put(build(rgb)), true).status, -119);
}

TEST_F(PcxTest, OneBitPlanesAndOddWidths) {
    // Width 11, 3 planes of 2 bytes: bit p of pixel x from plane p.
    Layout s;
    s.bits = 1, s.planes = 3, s.width = 11, s.height = 1;
    s.data = {0xA5, 0xC1, 0xE0, 0xC1, 0xFF, 0x20, 0x0F, 0x80};
    Map m = read(put(build(s)));
    ASSERT_EQ(m.status, 0);
    EXPECT_EQ(m.count, 8);
    EXPECT_EQ(m.pixels, (Bytes{3, 2, 3, 2, 6, 7, 6, 7, 5, 1, 3}));
    EXPECT_EQ(read(put(build(s)), true).pixels, m.pixels);
    // One plane: 2 colours; packed 4-bit pixels: 16.
    s.planes = 1, s.data = {0xA5, 0xC1, 0xE0};
    m = read(put(build(s)));
    EXPECT_EQ(m.count, 2);
    EXPECT_EQ(m.pixels, (Bytes{1, 0, 1, 0, 0, 1, 0, 1, 1, 1, 1}));
    Layout four;
    four.bits = 4, four.width = 3, four.data = {0x12, 0x30};
    m = read(put(build(four)));
    EXPECT_EQ(m.count, 16);
    EXPECT_EQ(m.pixels, (Bytes{1, 2, 3}));
}

TEST_F(PcxTest, BitmapReader) {
    // Width 10 in lines of 4 bytes (beyond what the width needs); the rows
    // keep their first 2 bytes as stored.
    Layout s;
    s.bits = 1, s.width = 10, s.height = 2, s.lineBytes = 4;
    s.data = {0xA5, 0x80, 1, 2, 0xC4, 0xFF};
    const std::string p = put(build(s));
    void* out = nullptr;
    ImageSize size{};
    ASSERT_EQ(imagePcx_readToBitMap(&out, &size, 0, p.c_str(), nullptr), 0);
    const uint8_t* bits = static_cast<uint8_t*>(out);
    EXPECT_EQ((Bytes{bits[0], bits[1], bits[2], bits[3]}), (Bytes{0xA5, 0x80, 0xFF, 0xFF}));
    korImage_freeImage(out, &size, IMAGEFORMAT_BITMAP);
    ASSERT_EQ(imagePcx_readToBitMap(&out, &size, 1, p.c_str(), nullptr), 0);
    uint8_t row[2] = {};
    korImage_runLengthDecodeBitMapRow(row, static_cast<uint16_t**>(out)[0], 10);
    EXPECT_EQ((Bytes{row[0], uint8_t(row[1] & 0xC0)}), (Bytes{0xA5, 0x80}));
    korImage_freeImage(out, &size, IMAGEFORMAT_RLEBITMAP);
    // Lines longer than 2000 bytes come from the line just decoded.
    Layout wide;
    wide.bits = 1, wide.width = 16100, wide.height = 2, wide.lineBytes = 2013;
    for (int y = 0; y < 2; ++y) {
        for (int k = 0; k < 31; ++k) wide.data.insert(wide.data.end(), {0xFF, uint8_t(0x11 * (y + 1))});
        wide.data.insert(wide.data.end(), {0xDE, uint8_t(0x11 * (y + 1))});  // 63 x 31 + 30 = 1983 bytes
        wide.data.insert(wide.data.end(), {0xDE, 0x0F});                     // the last 30
    }
    ASSERT_EQ(imagePcx_readToBitMap(&out, &size, 0, put(build(wide)).c_str(), nullptr), 0);
    bits = static_cast<uint8_t*>(out);
    EXPECT_EQ((Bytes{bits[0], bits[1982], bits[1983], bits[2012], bits[2013 + 5]}),
              (Bytes{0x11, 0x11, 0x0F, 0x0F, 0x22}));
    korImage_freeImage(out, &size, IMAGEFORMAT_BITMAP);
    s.planes = 2;
    EXPECT_EQ(imagePcx_readToBitMap(&out, &size, 0, put(build(s)).c_str(), nullptr), -119);
}

TEST_F(PcxTest, BadHeadersAndShortFiles) {
    // 8 bits, 2 planes; 16-bit pixels; 9 one-bit planes: not decoded.
    for (auto [bits, planes] : {std::pair{8, 2}, {16, 1}, {1, 9}, {4, 2}}) {
        Layout s;
        s.bits = bits, s.planes = planes, s.data.assign(64, 0);
        EXPECT_EQ(read(put(build(s))).status, -156) << bits << "/" << planes;
    }
    Layout s;
    s.width = 4, s.height = 2, s.data = {1, 2, 3, 4, 5, 6, 7, 8};
    Layout bad = s;
    bad.lineBytes = 3;  // lines shorter than the width
    EXPECT_EQ(read(put(build(bad))).status, -154);
    bad = s;
    bad.bits = 1, bad.planes = 0;
    EXPECT_EQ(read(put(build(bad))).status, -154);
    // A size no data of this length can give, before any allocation.
    bad = s;
    bad.width = 65535, bad.height = 65535;
    EXPECT_EQ(read(put(build(bad))).status, -154);
    Bytes neg = build(s);
    il::put16le(&neg[4], 9);  // Xmin above Xmax
    EXPECT_EQ(read(put(neg)).status, -154);
    // Within reach of the data a short file decodes its missing bytes as
    // runs of 0xFF.
    Layout cut = s;
    cut.data = {1, 2, 3};
    Map m = read(put(build(cut)));
    ASSERT_EQ(m.status, 0);
    EXPECT_EQ(m.pixels, (Bytes{1, 2, 3, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(read(put(Bytes(100, 10))).status, -120);
    EXPECT_EQ(read(dir.file("none.pcx")).status, -116);  // kept as the old readers had it
}

int stopAtSecondRow(int, int done) { return done == 1 ? 7 : 0; }

TEST_F(PcxTest, WritersReadBack) {
    const ImageSize size{10, 3};
    Bytes map(30);
    for (size_t i = 0; i < map.size(); ++i) map[i] = uint8_t(i * 7 % 16);
    uint8_t r[256] = {}, g[256] = {}, b[256] = {};
    for (int i = 0; i < 20; ++i) r[i] = uint8_t(i * 10), g[i] = uint8_t(255 - i), b[i] = uint8_t(i);
    const std::string p = dir.file("w.pcx");

    // 16 colours: width 10 has lines of 2 bytes, four coded planes a row.
    ASSERT_EQ(imagePcx_writeFromMap(p.c_str(), map.data(), r, g, b, 12, &size, 2, 0, nullptr), 0);
    Bytes f = iltest::readFile(p);
    EXPECT_EQ(Bytes(f.begin(), f.begin() + 4), (Bytes{10, 5, 1, 1}));
    EXPECT_EQ((std::vector<int>{il::get16le(&f[8]), il::get16le(&f[10]), f[65], il::get16le(&f[66]),
                                il::get16le(&f[68])}),
              (std::vector<int>{9, 2, 4, 2, 1}));
    EXPECT_EQ((Bytes{f[16 + 33], f[16 + 34], f[16 + 36], f[16 + 47]}), (Bytes{110, 244, 0, 0}));  // zero from 12 on
    Map m = read(p);
    EXPECT_EQ(m.pixels, map);
    EXPECT_EQ(m.count, 16);
    // The first row's plane 0: pixels 0..9 are 0 7 14 5 12 3 10 1 8 15.
    Bytes planeLine(2);
    for (int x = 0; x < 10; ++x)
        if (map[size_t(x)] & 1) planeLine[size_t(x / 8)] |= uint8_t(0x80 >> (x % 8));
    EXPECT_EQ(Bytes(f.begin() + 128, f.begin() + 128 + encode(planeLine).size()), encode(planeLine));

    // 256 colours; the palette behind the pixels is zero beyond the count.
    ASSERT_EQ(imagePcx_writeFromMap(p.c_str(), map.data(), r, g, b, 20, &size, 3, 0, nullptr), 0);
    f = iltest::readFile(p);
    EXPECT_EQ((std::vector<int>{f[3], f[65], il::get16le(&f[66])}), (std::vector<int>{8, 1, 10}));
    EXPECT_EQ(f[f.size() - 769], 12);
    EXPECT_EQ(Bytes(f.end() - 768 + 57, f.end() - 768 + 63), (Bytes{190, 236, 19, 0, 0, 0}));
    m = read(p);
    EXPECT_EQ(m.pixels, map);
    EXPECT_EQ(m.r[19], 190);

    // Grey from a map: grey levels through the palette, the grey ramp.
    ASSERT_EQ(imagePcx_writeFromMap(p.c_str(), map.data(), r, g, b, 20, &size, 4, 0, nullptr), 0);
    m = read(p);
    uint8_t table[256];
    korImage_paletteToGreyScale(table, nullptr, nullptr, r, g, b, 20);
    EXPECT_EQ(m.pixels[5], table[map[5]]);
    EXPECT_EQ((Bytes{m.r[77], m.g[77], m.b[77]}), (Bytes{77, 77, 77}));
    EXPECT_EQ(imagePcx_writeFromMap(p.c_str(), map.data(), r, g, b, 20, &size, 1, 0, nullptr), -126);

    // From RGB: 16 and 256 colours hold these five colours exactly.
    const ImageSize rs{9, 4};
    const Bytes rgb = maptest::fewColours(9, 4);
    for (int format : {2, 3}) {
        ASSERT_EQ(imagePcx_writeFromRGB(p.c_str(), rgb.data(), &rs, format, nullptr), 0);
        m = read(p);
        EXPECT_EQ(m.count, format == 2 ? 16 : 256);
        EXPECT_EQ(maptest::expand(m), rgb) << format;
    }
    // Grey: 0.11 b + 0.3 r + 0.59 g + 0.5 summed in that order gives 13 for
    // (1, 22, 2) (another order gives 14).
    const ImageSize two{2, 1};
    const Bytes px = {1, 255, 22, 255, 2, 255};
    ASSERT_EQ(imagePcx_writeFromRGB(p.c_str(), px.data(), &two, 4, nullptr), 0);
    EXPECT_EQ(read(p).pixels, (Bytes{13, 255}));
    EXPECT_EQ(imagePcx_writeFromRGB(p.c_str(), px.data(), &two, 1, nullptr), -126);
    EXPECT_EQ(imagePcx_writeFromRGB(dir.file("no/x.pcx").c_str(), px.data(), &two, 4, nullptr), -113);
}

TEST_F(PcxTest, StopEndsReadingAndWriting) {
    const ImageSize size{3, 4};
    const Bytes map(12, 1);
    const uint8_t pal[256] = {};
    const std::string p = dir.file("s.pcx");
    // A stopped write answers 1 and still closes a file with its palette.
    EXPECT_EQ(imagePcx_writeFromMap(p.c_str(), map.data(), pal, pal, pal, 2, &size, 3, 0, stopAtSecondRow), 1);
    EXPECT_EQ(iltest::readFile(p).size(), 128u + 3 + 769);
    EXPECT_EQ(read(p, false, stopAtSecondRow).status, -144);
}

}  // namespace
