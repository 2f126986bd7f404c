// PICT writer: the PackBits coder, the picture header, the indexed and
// 32-bit pixel maps, row counts and the end of the picture.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "codecs/native/pict.h"
#include "codecs/rows.h"
#include "internal/bytes.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes pack(const Bytes& in) {
    Bytes out(pictPackBitsBound(in.size()));
    out.resize(size_t(imagePict_packBits(out.data(), in.data(), int(in.size()))));
    return out;
}

// PackBits decoding as QuickDraw reads it.
Bytes unpack(const Bytes& in) {
    Bytes out;
    for (size_t i = 0; i < in.size();) {
        const int h = int8_t(in[i++]);
        if (h >= 0) {
            out.insert(out.end(), in.begin() + long(i), in.begin() + long(i) + h + 1);
            i += size_t(h) + 1;
        } else {
            out.insert(out.end(), size_t(1 - h), in[i++]);
        }
    }
    return out;
}

uint16_t be16(const Bytes& f, size_t at) { return il::get16be(&f[at]); }

// The index bytes of every row of PictFile::writeMap.
Bytes indexRow(int width) {
    Bytes row(static_cast<size_t>(width));
    for (int x = 0; x < width; ++x) row[size_t(x)] = uint8_t(x % 5);
    return row;
}

TEST(PictPackBits, RunsAndLiterals) {
    EXPECT_EQ(pack(Bytes(10, 'x')), (Bytes{0xF7, 'x'}));
    EXPECT_EQ(pack({'A', 'B', 'C', 'A', 'A', 'A', 'D'}), (Bytes{0x02, 'A', 'B', 'C', 0xFE, 'A', 0x00, 'D'}));
    // Two equal bytes stay literal; runs go in pieces of 128, a last piece
    // of one with header 0.
    EXPECT_EQ(pack({'A', 'A', 'B'}), (Bytes{0x02, 'A', 'A', 'B'}));
    EXPECT_EQ(pack(Bytes(129, 'r')), (Bytes{0x81, 'r', 0x00, 'r'}));
    EXPECT_EQ(pack(Bytes(130, 'r')), (Bytes{0x81, 'r', 0xFF, 'r'}));
    // Literals go in pieces of 127.
    Bytes ramp(200);
    for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = uint8_t(i);
    const Bytes coded = pack(ramp);
    ASSERT_EQ(coded.size(), 202u);
    EXPECT_EQ(coded[0], 126);
    EXPECT_EQ(coded[128], 72);
    EXPECT_EQ(unpack(coded), ramp);
}

TEST(PictPackBits, RandomRowsRoundTripWithinTheBound) {
    std::mt19937 rng(5);
    for (int t = 0; t < 400; ++t) {
        Bytes row(rng() % 700 + 1);
        // Short runs, long runs and noise, from a few values.
        for (size_t i = 0; i < row.size();) {
            const size_t n = std::min(row.size() - i, size_t(rng() % 4 == 0 ? rng() % 300 : rng() % 4 + 1));
            const uint8_t v = uint8_t(rng() % 3);
            for (size_t k = 0; k < n; ++k) row[i + k] = rng() % 5 == 0 ? uint8_t(rng()) : v;
            i += n;
        }
        const Bytes coded = pack(row);
        EXPECT_LE(coded.size(), pictPackBitsBound(row.size()) - 1);
        ASSERT_EQ(unpack(coded), row);
    }
}

class PictFile : public ::testing::Test {
protected:
    iltest::TempDir dir;
    std::string path = dir.file("t.pct");

    // An indexed picture of width x 2 whose index bytes are x % 5.
    Bytes writeMap(int width, int format = COLORMODE_PALETTE256) {
        Bytes map(size_t(width) * 2);
        for (size_t i = 0; i < map.size(); ++i) map[i] = uint8_t(i % size_t(width) % 5);
        uint8_t r[256] = {1, 2, 3, 4, 255}, g[256] = {5, 6, 7, 8, 128}, b[256] = {9, 10, 11, 12, 0};
        const ImageSize size{width, 2};
        EXPECT_EQ(imagePict_writeFromMap(path.c_str(), map.data(), r, g, b, 5, &size, format, 0, nullptr), 0);
        return iltest::readFile(path);
    }
};

TEST_F(PictFile, HeaderAndIndexedPixelMap) {
    const Bytes f = writeMap(300);
    ASSERT_GT(f.size(), 700u);
    EXPECT_EQ(Bytes(f.begin(), f.begin() + 514), Bytes(514, 0));
    const Bytes header(f.begin() + 514, f.begin() + 566);
    const Bytes expected = {0, 0, 0, 0, 0, 2, 1, 0x2C,  // frame 0, 0, 2, 300
                            0, 0x11, 2, 0xFF, 0x0C, 0, 0xFF, 0xFF, 0xFF, 0xFF,  // version 2, header -1
                            0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                            0x00, 0x1E, 0x00, 0x01, 0, 10, 0, 0, 0, 0, 0, 2, 1, 0x2C};
    EXPECT_EQ(header, expected);
    // (offset, 16-bit value): opcode, row bytes, pack type, pixel and
    // component size, colour table flags and last entry.
    for (auto [at, v] : {std::pair<size_t, int>{566, 0x0098}, {568, 0x8000 | 300}, {580, 4}, {586, 0x48}, {588, 0},
                         {596, 8}, {600, 8}, {614, 0}, {616, 0xFFFF}, {618, 0x8000}, {620, 4}})
        EXPECT_EQ(be16(f, at), v) << "offset " << at;
    EXPECT_EQ(Bytes(f.begin() + 622 + 4 * 8, f.begin() + 622 + 5 * 8),
              (Bytes{0x08, 0x00, 0xFF, 0x00, 0x80, 0x00, 0x00, 0x00}));
    const size_t rows = 622 + 5 * 8 + 18;
    EXPECT_EQ(be16(f, rows - 2), 0);    // copy mode
    // Row bytes 300: two-byte counts.
    const size_t n = be16(f, rows);
    Bytes row(f.begin() + long(rows) + 2, f.begin() + long(rows) + 2 + long(n));
    EXPECT_EQ(unpack(row), indexRow(300));
    // Then the second row, an even length and the end opcode.
    const size_t end = rows + 2 * (2 + n);
    EXPECT_EQ(f.size(), end + (end & 1) + 2);
    EXPECT_EQ(be16(f, f.size() - 2), 0x00FF);
    if (end & 1) {
        EXPECT_EQ(f[end], 0);
    }
}

TEST_F(PictFile, OneByteRowCountsBelowRowBytes251AndFourBitMaps) {
    for (int width : {250, 251}) {
        const Bytes f = writeMap(width);
        const size_t rows = 622 + 5 * 8 + 18, countBytes = width < 251 ? 1 : 2;
        const size_t n = countBytes == 1 ? f[rows] : be16(f, rows);
        EXPECT_EQ(n, pack(indexRow(width)).size()) << width;
        const size_t end = rows + 2 * (countBytes + n);
        EXPECT_EQ(f.size(), end + (end & 1) + 2) << width;
    }
    // Four bits a pixel: row bytes for 4 bits, but one index byte a pixel.
    const Bytes f = writeMap(20, COLORMODE_PALETTE16);
    EXPECT_EQ(be16(f, 568), 0x8000 | 10);
    EXPECT_EQ(be16(f, 596), 4);
    const size_t rows = 622 + 5 * 8 + 18;
    EXPECT_EQ(unpack(Bytes(f.begin() + long(rows) + 1, f.begin() + long(rows) + 1 + f[rows])), indexRow(20));
}

TEST_F(PictFile, StreamedTrueColourRows) {
    const int w = 70, h = 3;  // row bytes 280: two-byte counts; rows end on an odd length
    ImageFileContext ctx{};
    ctx.fileSize = {w, h};
    ASSERT_EQ(imagePict_createFile(&ctx, path.c_str(), 4, COLORMODE_RGB), 0);
    EXPECT_EQ(ctx.handlerCode, 4);
    EXPECT_EQ(ctx.orientation, 4);
    Bytes red(w, 200), green(w), blue(w, 7);
    for (int x = 0; x < w; ++x) green[size_t(x)] = uint8_t(x);
    for (int y = 0; y < h; ++y) ASSERT_EQ(ctx.writeRow(&ctx, red.data(), green.data(), blue.data(), nullptr), 0);
    ASSERT_EQ(ctx.close(&ctx), 0);

    const Bytes f = iltest::readFile(path);
    const size_t op = kPictHeaderBytes;
    for (auto [at, v] : {std::pair<size_t, int>{0, 0x009A}, {2, 0}, {4, 0xFF}, {6, 0x8000 | 280},
                         {32, 16} /* pixel type */, {34, 32} /* pixel size */, {36, 3} /* components */, {38, 8}})
        EXPECT_EQ(be16(f, op + at), v) << "offset " << at;
    const size_t rows = op + kPictDirectHeaderBytes;
    const size_t n = be16(f, rows);
    Bytes planes = red;
    planes.insert(planes.end(), green.begin(), green.end());
    planes.insert(planes.end(), blue.begin(), blue.end());
    EXPECT_EQ(unpack(Bytes(f.begin() + long(rows) + 2, f.begin() + long(rows) + 2 + long(n))), planes);
    const size_t end = rows + h * (2 + n);
    ASSERT_EQ(end & 1, 1u);
    ASSERT_EQ(f.size(), end + 1 + 2);
    EXPECT_EQ(f[end], 0);
    EXPECT_EQ(be16(f, end + 1), 0x00FF);
}

TEST_F(PictFile, FormatsSizesAndStop) {
    Bytes rgb(12 * 3 * 3, 9);
    const ImageSize size{12, 3};
    uint8_t pal[256] = {};
    for (int format : {int(COLORMODE_BILEVEL), int(COLORMODE_RGBA), 0})
        EXPECT_EQ(imagePict_writeFromRGB(path.c_str(), rgb.data(), &size, format, nullptr), IMGERR_BADARG);
    for (int format : {COLORMODE_RGB, COLORMODE_BILEVEL})
        EXPECT_EQ(imagePict_writeFromMap(path.c_str(), rgb.data(), pal, pal, pal, 2, &size, format, 0, nullptr),
                  IMGERR_BADARG);
    // Row bytes above 0x3FFF do not fit the pixel map.
    const ImageSize wide{4096, 1};
    EXPECT_EQ(imagePict_writeFromRGB(path.c_str(), rgb.data(), &wide, COLORMODE_RGB, nullptr), IMGERR_BADARG);
    EXPECT_EQ(imagePict_writeFromRGB(dir.file("no/dir.pct").c_str(), rgb.data(), &size, 4, nullptr),
              IMGERR_OPENFAILED);
    EXPECT_EQ(imagePict_writeFromRGB(dir.file("no/dir.pct").c_str(), rgb.data(), &size, 1, nullptr), 1);

    // A stop ends the rows; the picture is still ended.
    StopFunction stop = [](int, int) { return 5; };
    EXPECT_EQ(imagePict_writeFromRGB(path.c_str(), rgb.data(), &size, COLORMODE_GREY, stop), 5);
    const Bytes f = iltest::readFile(path);
    ASSERT_EQ(f.size(), 622u + 256 * 8 + 18 + 2);
    EXPECT_EQ(be16(f, f.size() - 2), 0x00FF);
}

}  // namespace
