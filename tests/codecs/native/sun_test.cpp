// Sun raster codec: the written header and pad, the byte decoder with its
// run carried across rows, the depths read, and bad headers.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "codecs/native/sun.h"
#include "imagelib/pixels.h"
#include "internal/bytes.h"
#include "few_colours.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A Sun raster file: header words, colour map bytes and the pixel data.
Bytes build(uint32_t width, uint32_t height, uint32_t depth, uint32_t type, const Bytes& map, const Bytes& data,
            uint32_t magic = kSunMagic) {
    Bytes f(kSunHeaderBytes);
    const uint32_t words[8] = {magic, width, height, depth, uint32_t(data.size()), type, map.empty() ? 0u : 1u,
                               uint32_t(map.size())};
    for (int i = 0; i < 8; ++i) il::put32be(&f[4 * size_t(i)], words[i]);
    f.insert(f.end(), map.begin(), map.end());
    f.insert(f.end(), data.begin(), data.end());
    return f;
}

using Map = maptest::MapImage;

class SunTest : public ::testing::Test {
protected:
    iltest::TempDir dir;
    std::string put(const Bytes& bytes, const std::string& name = "t.rs") {
        const std::string p = dir.file(name);
        iltest::writeFile(p, bytes);
        return p;
    }
    Map read(const std::string& path, bool packed = false, StopFunction stop = nullptr) {
        return maptest::readMap(packed, [&](void** out, ImageSize* size, uint8_t* r, uint8_t* g, uint8_t* b, int* n) {
            return imageSun_readToMap(out, size, r, g, b, n, path.c_str(), packed, stop);
        });
    }
};

TEST(SunDecoder, EscapesAndRunsAcrossCalls) {
    const Bytes d = {0x80, 0x00, 0x80, 0x03, 0x41, 7, 0x80, 0x04, 9};
    SunDecoder dec;
    dec.data = d.data(), dec.length = d.size();
    Bytes out(3);
    EXPECT_EQ(imageSun_readRow(&dec, out.data(), 3, 1), 0);
    EXPECT_EQ(out, (Bytes{0x80, 0x41, 0x41}));
    EXPECT_EQ(imageSun_readRow(&dec, out.data(), 3, 1), 0);  // the run goes on
    EXPECT_EQ(out, (Bytes{0x41, 0x41, 7}));
    Bytes rest(6, 0xEE);
    EXPECT_EQ(imageSun_readRow(&dec, rest.data(), 6, 1), 32768);
    EXPECT_EQ(rest, (Bytes{9, 9, 9, 9, 9, 0}));
    // Uncompressed: copied; what the data does not reach is 0.
    SunDecoder raw;
    raw.data = d.data(), raw.length = d.size(), raw.pos = 7;
    EXPECT_EQ(imageSun_readRow(&raw, out.data(), 3, 0), 32768);
    EXPECT_EQ(out, (Bytes{4, 9, 0}));
}

TEST_F(SunTest, WrittenHeaderColourMapAndPad) {
    const ImageSize size{3, 2};
    const Bytes map = {0, 1, 2, 2, 1, 0};
    uint8_t r[256] = {10, 11, 12}, g[256] = {20, 21, 22}, b[256] = {30, 31, 32};
    const std::string p = dir.file("w.rs");
    ASSERT_EQ(imageSun_writeFromMap(p.c_str(), map.data(), r, g, b, 3, &size, 3, 0, nullptr), 0);
    Bytes expect = build(3, 2, 8, 1, {10, 11, 12, 20, 21, 22, 30, 31, 32}, {0, 1, 2, 0, 2, 1, 0, 0});
    EXPECT_EQ(iltest::readFile(p), expect);  // length 8: rows of 4 bytes, the fourth a 0 pad
    Map m = read(p);
    EXPECT_EQ(m.pixels, map);
    EXPECT_EQ(m.count, 256);
    EXPECT_EQ((Bytes{m.r[2], m.g[2], m.b[2], m.r[3]}), (Bytes{12, 22, 32, 0}));
    // Grey: the palette's grey levels with a ramp of 256; 16 colours refused.
    ASSERT_EQ(imageSun_writeFromMap(p.c_str(), map.data(), r, g, b, 3, &size, 4, 0, nullptr), 0);
    const Bytes f = iltest::readFile(p);
    EXPECT_EQ(il::get32be(&f[28]), 768u);
    uint8_t table[256];
    korImage_paletteToGreyScale(table, nullptr, nullptr, r, g, b, 3);
    EXPECT_EQ(Bytes(f.begin() + 32 + 768, f.begin() + 32 + 768 + 4), (Bytes{table[0], table[1], table[2], 0}));
    EXPECT_EQ(imageSun_writeFromMap(p.c_str(), map.data(), r, g, b, 3, &size, 2, 0, nullptr), -126);
}

TEST_F(SunTest, RgbWritersReadBack) {
    const ImageSize size{7, 3};
    const Bytes rgb = maptest::fewColours(7, 3);
    const std::string p = dir.file("w.rs");
    ASSERT_EQ(imageSun_writeFromRGB(p.c_str(), rgb.data(), &size, 3, nullptr), 0);
    Map m = read(p);
    ASSERT_EQ(m.status, 0);
    EXPECT_EQ(maptest::expand(m), rgb);
    // Grey: 0.11 b + 0.3 r + 0.59 g + 0.5 in that order: 13 for (1, 22, 2).
    const ImageSize two{2, 1};
    const Bytes px = {1, 255, 22, 255, 2, 255};
    ASSERT_EQ(imageSun_writeFromRGB(p.c_str(), px.data(), &two, 4, nullptr), 0);
    m = read(p);
    EXPECT_EQ(m.pixels, (Bytes{13, 255}));
    EXPECT_EQ((Bytes{m.r[200], m.g[200], m.b[200]}), (Bytes{200, 200, 200}));
    EXPECT_EQ(imageSun_writeFromRGB(p.c_str(), px.data(), &two, 1, nullptr), -126);
    EXPECT_EQ(imageSun_writeFromRGB(dir.file("no/x.rs").c_str(), px.data(), &two, 4, nullptr), -113);
}

TEST_F(SunTest, DepthsAndEncodedRows) {
    // 1 bit without colour map: index 0 black, 1 white; width 11 rows of
    // 2 bytes (even, no pad).
    Map m = read(put(build(11, 1, 1, 1, {}, {0xA5, 0xE0})));
    ASSERT_EQ(m.status, 0);
    EXPECT_EQ(m.count, 2);
    EXPECT_EQ(m.pixels, (Bytes{1, 0, 1, 0, 0, 1, 0, 1, 1, 1, 1}));
    EXPECT_EQ((Bytes{m.r[0], m.g[0], m.b[0], m.r[1], m.g[1], m.b[1], m.r[2]}), (Bytes{0, 0, 0, 255, 255, 255, 0}));
    // 4 bits: a row holds width bytes (odd: one pad byte), of which the
    // first half are the pixels.
    m = read(put(build(3, 2, 4, 1, {1, 2, 3, 4, 5, 6}, {0x12, 0x30, 0, 0, 0x45, 0x60, 0, 0})));
    ASSERT_EQ(m.status, 0);
    EXPECT_EQ(m.count, 16);
    EXPECT_EQ(m.pixels, (Bytes{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ((Bytes{m.r[1], m.g[1], m.b[1]}), (Bytes{2, 4, 6}));
    // 8 bits byte-encoded, width 3: the pad is decoded too, and a run goes
    // on into the next row.
    const Bytes enc = {1, 0x80, 0x03, 7, 0x80, 0x00, 2, 0};
    m = read(put(build(3, 2, 8, kSunByteEncoded, {}, enc)));
    ASSERT_EQ(m.status, 0);
    EXPECT_EQ(m.pixels, (Bytes{1, 7, 7, 7, 0x80, 2}));
    EXPECT_EQ(read(put(build(3, 2, 8, kSunByteEncoded, {}, enc)), true).pixels, m.pixels);
    // A colour map length not divisible by 3: reading goes on after the
    // entries, so the extra byte is the first pixel.
    m = read(put(build(2, 1, 8, 1, {1, 2, 3, 9}, {5})));
    EXPECT_EQ(m.pixels, (Bytes{9, 5}));
}

int stopAtSecondRow(int, int done) { return done == 1 ? 7 : 0; }

TEST_F(SunTest, InfoAndRefusals) {
    struct Case { uint32_t depth; int format, read; };
    for (const Case& k : {Case{1, 5, 0}, {4, 2, 0}, {8, 3, 0}, {24, 3, -119}, {32, 3, -119}, {2, 2, -119}}) {
        const std::string p = put(build(2, 2, k.depth, 1, {}, Bytes(64, 0)));
        ImageSize size{};
        int format = 0;
        ASSERT_EQ(imageSun_readInfo(&size, &format, p.c_str()), 0);
        EXPECT_EQ(format, k.format) << k.depth;
        EXPECT_EQ(std::pair(size.x, size.y), std::pair(2, 2));
        EXPECT_EQ(read(p).status, k.read) << k.depth;
    }
    const Bytes badMagic = build(2, 2, 8, 1, {}, Bytes(8, 0), 0x956AA659);
    EXPECT_EQ(imageSun_readInfo(nullptr, nullptr, put(badMagic).c_str()), -119);
    EXPECT_EQ(read(put(badMagic)).status, -119);
    EXPECT_EQ(imageSun_readInfo(nullptr, nullptr, put(Bytes(20, 0)).c_str()), -120);
    EXPECT_EQ(imageSun_readInfo(nullptr, nullptr, dir.file("none.rs").c_str()), -113);
    // Sizes the data cannot hold, before any allocation: raw rows must be
    // there, encoded ones within 256 bytes for 3; more than 256 map entries.
    EXPECT_EQ(read(put(build(4, 3, 8, 1, {}, Bytes(11, 0)))).status, -154);
    EXPECT_EQ(read(put(build(4, 3, 8, 1, {}, Bytes(12, 0)))).status, 0);
    EXPECT_EQ(read(put(build(100000, 100000, 8, kSunByteEncoded, {}, {0x80, 0xFF, 1}))).status, -154);
    EXPECT_EQ(read(put(build(1, 1, 8, 1, Bytes(771, 0), {0}))).status, -154);
    EXPECT_EQ(read(put(build(0, 1, 8, 1, {}, {0}))).status, -154);
    // A short encoded file reads its missing rows as 0.
    Map m = read(put(build(2, 2, 8, kSunByteEncoded, {}, {0x80, 0x02, 5})));
    EXPECT_EQ(m.pixels, (Bytes{5, 5, 5, 0}));
    // Stopping: -144 from the reader, 1 from a writer that still closes.
    EXPECT_EQ(read(put(build(2, 2, 8, 1, {}, Bytes(8, 0))), false, stopAtSecondRow).status, -144);
    const Bytes map(4, 0);
    const uint8_t pal[256] = {};
    const ImageSize size{2, 2};
    const std::string p = dir.file("s.rs");
    EXPECT_EQ(imageSun_writeFromMap(p.c_str(), map.data(), pal, pal, pal, 2, &size, 3, 0, stopAtSecondRow), 1);
    EXPECT_EQ(iltest::readFile(p).size(), 32u + 6 + 2);
}

}  // namespace
