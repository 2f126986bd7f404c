// WPG writer: the row coder, the header and start records, the two colour
// map forms and the bitmap record with its long length.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "codecs/native/wpg.h"
#include "internal/bytes.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes encode(const Bytes& in) {
    Bytes out(wpgRowBound(in.size()));
    out.resize(size_t(imageWpg_encodeRow(out.data(), in.data(), int(in.size()))));
    return out;
}

Bytes decode(const Bytes& in) {
    Bytes out;
    for (size_t i = 0; i < in.size();) {
        const int c = in[i++];
        if (c & 0x80) {
            out.insert(out.end(), size_t(c & 0x7F), in[i++]);
        } else {
            out.insert(out.end(), in.begin() + long(i), in.begin() + long(i) + c);
            i += size_t(c);
        }
    }
    return out;
}

TEST(WpgRow, RunsKeepTheirLastByteForTheNextCode) {
    EXPECT_EQ(encode({'A', 'A', 'A', 'B'}), (Bytes{0x82, 'A', 0x02, 'A', 'B'}));
    EXPECT_EQ(encode({'A', 'B', 'C', 'C'}), (Bytes{0x02, 'A', 'B', 0x81, 'C', 0x01, 'C'}));
    // Counts stop at 127.
    EXPECT_EQ(encode(Bytes(200, 'z')), (Bytes{0xFF, 'z', 0xC8, 'z', 0x01, 'z'}));
    Bytes ramp(130);
    for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = uint8_t(i);
    const Bytes coded = encode(ramp);
    ASSERT_EQ(coded.size(), 132u);
    EXPECT_EQ(coded[0], 127);
    EXPECT_EQ(coded[128], 3);
}

TEST(WpgRow, RandomRowsRoundTripWithinTheBound) {
    std::mt19937 rng(11);
    for (int t = 0; t < 400; ++t) {
        Bytes row(rng() % 600 + 1);
        for (size_t i = 0; i < row.size();) {
            const size_t n = std::min(row.size() - i, size_t(rng() % 4 == 0 ? rng() % 300 : rng() % 3 + 1));
            const uint8_t v = uint8_t(rng() % 3);
            for (size_t k = 0; k < n; ++k) row[i + k] = rng() % 6 == 0 ? uint8_t(rng()) : v;
            i += n;
        }
        const Bytes coded = encode(row);
        EXPECT_LE(coded.size(), 2 * row.size());
        ASSERT_EQ(decode(coded), row);
    }
}

class WpgFile : public ::testing::Test {
protected:
    iltest::TempDir dir;
    std::string path = dir.file("t.wpg");
    uint8_t r[256] = {}, g[256] = {}, b[256] = {};
    void SetUp() override {
        for (int i = 0; i < 256; ++i) r[i] = uint8_t(i), g[i] = uint8_t(255 - i), b[i] = uint8_t(i * 3);
    }
    Bytes write(const Bytes& map, ImageSize size, int format, int count) {
        EXPECT_EQ(imageWpg_writeFromMap(path.c_str(), map.data(), r, g, b, count, &size, format, 0, nullptr), 0);
        return iltest::readFile(path);
    }
};

TEST_F(WpgFile, HeaderStartRecordAndLongColourMap) {
    const Bytes f = write(Bytes(76 * 76, 3), {76, 76}, COLORMODE_PALETTE256, 20);
    const Bytes head = {0xFF, 'W', 'P', 'C', 16, 0, 0, 0, 1, 0x16, 1, 0, 0, 0, 0, 0,
                        0x0F, 6, 1, 0, 0xB0, 0x04, 0xB0, 0x04};  // screen 1200 x 1200
    ASSERT_GT(f.size(), 24u + 776);
    EXPECT_EQ(Bytes(f.begin(), f.begin() + 24), head);
    // 776 bytes even for 20 colours; entries past the count are 0.
    EXPECT_EQ(Bytes(f.begin() + 24, f.begin() + 32), (Bytes{0x0E, 0xFF, 0x04, 0x03, 0, 0, 0, 1}));
    EXPECT_EQ(Bytes(f.begin() + 32 + 19 * 3, f.begin() + 32 + 21 * 3), (Bytes{19, 236, 57, 0, 0, 0}));
    const size_t bm = 24 + 776;
    EXPECT_EQ(Bytes(f.begin() + long(bm), f.begin() + long(bm) + 2), (Bytes{0x0B, 0xFF}));
    const uint32_t length = (uint32_t(il::get16le(&f[bm + 2]) & 0x7FFF) << 16) | il::get16le(&f[bm + 4]);
    EXPECT_EQ(il::get16le(&f[bm + 2]) & 0x8000, 0x8000);
    EXPECT_EQ(f.size(), bm + 6 + length + 2);
    EXPECT_EQ((std::vector<int>{il::get16le(&f[bm + 6]), il::get16le(&f[bm + 8]), il::get16le(&f[bm + 10]),
                                il::get16le(&f[bm + 12]), il::get16le(&f[bm + 14])}),
              (std::vector<int>{76, 76, 8, 76, 76}));
    // Every row: 0x80 | 75 repeats of 3, then a literal 3.
    for (int y = 0; y < 76; ++y)
        ASSERT_EQ(Bytes(f.begin() + long(bm) + 16 + 4 * y, f.begin() + long(bm) + 20 + 4 * y),
                  (Bytes{0x80 | 75, 3, 1, 3}));
    EXPECT_EQ(Bytes(f.end() - 2, f.end()), (Bytes{0x10, 0x00}));
}

TEST_F(WpgFile, SixteenColoursJoinPixelsInNibbles) {
    const Bytes map = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};  // 5 x 3
    const Bytes f = write(map, {5, 3}, COLORMODE_PALETTE16, 3);
    EXPECT_EQ(Bytes(f.begin() + 24, f.begin() + 30), (Bytes{0x0E, 52, 0, 0, 16, 0}));
    EXPECT_EQ(Bytes(f.begin() + 30, f.begin() + 39), (Bytes{0, 255, 0, 1, 254, 3, 2, 253, 6}));
    EXPECT_EQ(Bytes(f.begin() + 39, f.begin() + 78), Bytes(39, 0));
    const size_t bm = 24 + 54;
    EXPECT_EQ(il::get16le(&f[bm + 10]), 4);
    EXPECT_EQ(Bytes(f.begin() + long(bm) + 16, f.end()),
              (Bytes{3, 0x12, 0x34, 0x50, 3, 0x67, 0x89, 0xA0, 3, 0xBC, 0xDE, 0xF0, 0x10, 0x00}));
    EXPECT_EQ(il::get16le(&f[bm + 4]), 10 + 12);
}

TEST_F(WpgFile, FormatsAndStop) {
    Bytes rgb(8 * 2 * 3, 50);
    const ImageSize size{8, 2};
    for (int format : {COLORMODE_RGB, COLORMODE_BILEVEL, COLORMODE_RGBA}) {
        EXPECT_EQ(imageWpg_writeFromRGB(path.c_str(), rgb.data(), &size, format, nullptr), IMGERR_BADARG);
        EXPECT_EQ(imageWpg_writeFromMap(path.c_str(), rgb.data(), r, g, b, 4, &size, format, 0, nullptr),
                  IMGERR_BADARG);
    }
    // Grey levels 0.3 R + 0.59 G + 0.11 B, rounded; the rows still get
    // their record fields when a stop ends them.
    for (int x = 0; x < 8; ++x) rgb[size_t(x)] = 100;  // first row: grey 65
    int calls = 0;
    static int* counter;
    counter = &calls;
    StopFunction stop = [](int, int) { return ++*counter == 2 ? 9 : 0; };
    EXPECT_EQ(imageWpg_writeFromRGB(path.c_str(), rgb.data(), &size, COLORMODE_GREY, stop), 9);
    const Bytes f = iltest::readFile(path);
    const size_t bm = 24 + 776;
    ASSERT_EQ(f.size(), bm + 16 + 4 + 2);
    EXPECT_EQ(il::get16le(&f[bm + 4]), 14);
    EXPECT_EQ(Bytes(f.begin() + long(bm) + 16, f.begin() + long(bm) + 20), (Bytes{0x87, 65, 1, 65}));
}

}  // namespace
