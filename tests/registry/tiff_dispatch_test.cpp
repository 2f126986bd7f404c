// TIFF through the dispatch and the streaming rows: written and read back
// by the exported entry points.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "imagelib/imagelib.h"
#include "stream_test_util.h"
#include "test_support.h"

namespace {

TEST(TiffDispatch, StreamingRowsRoundTripWithAlpha) {
    iltest::TempDir dir;
    const std::string p = dir.file("s.tif");
    const stest::Planar img = stest::pattern(9, 5, 4);
    ASSERT_EQ(stest::writeStream(p, img, nullptr, 3, COLORMODE_RGBA), 0);
    int mode = 0;
    ASSERT_EQ(korImage_readFileInfo(nullptr, &mode, nullptr, p.c_str(), -1), 0);
    EXPECT_EQ(mode, COLORMODE_RGBA);
    stest::Planar back;
    int orientation = 0;
    ASSERT_EQ(stest::readStream(p, nullptr, &back, &orientation), 0);
    EXPECT_EQ(orientation, 4);
    for (int r = 0; r < 5; ++r)
        for (int k = 0; k < 3; ++k)
            EXPECT_EQ(std::vector<uint8_t>(back.plane(r, k), back.plane(r, k) + 9),
                      std::vector<uint8_t>(img.plane(r, k), img.plane(r, k) + 9));
    // The whole-image reader with alpha hands out interleaved RGBA.
    uint8_t* rgba = nullptr;
    ImageSize s{};
    ASSERT_EQ(korImage_readFileToRGBA(&rgba, &s, p.c_str(), -1, nullptr, 0, 0, nullptr), 0);
    EXPECT_EQ(rgba[0], img.plane(0, 0)[0]);
    EXPECT_EQ(rgba[3], img.plane(0, 3)[0]);
    EXPECT_EQ(rgba[4 * 10 + 3], img.plane(1, 3)[1]);
    korImage_freeImage(rgba, &s, IMAGEFORMAT_RGBA);
}

TEST(TiffDispatch, BilevelBufferAndPaletteRoundTrip) {
    iltest::TempDir dir;
    const std::string p = dir.file("b.tif");
    const ImageSize size{10, 2};
    const uint8_t bits[4] = {0xF0, 0x40, 0x0F, 0x80};
    // Type 0: written min-is-black, read back unchanged.
    ASSERT_EQ(korImage_createFileFromBitMap(p.c_str(), 0, &size, bits, 0, nullptr, nullptr, nullptr), 0);
    void* buf = nullptr;
    int layout = 0, mode = 0, count = 0;
    uint8_t r[256], g[256], b[256];
    ImageSize s{};
    ASSERT_EQ(korImage_readFileToBuffer(&buf, &layout, &mode, r, g, b, &count, &s, p.c_str(), -1, 0, nullptr), 0);
    EXPECT_EQ(layout, IMAGEFORMAT_RLEBITMAP);
    EXPECT_EQ(count, 2);
    uint8_t row[2] = {};
    korImage_runLengthDecodeBitMapRow(row, static_cast<uint16_t**>(buf)[0], 10);
    EXPECT_EQ(row[0], 0xF0);
    korImage_freeImage(buf, &s, layout);

    // A palette image of type 3: PackBits, 8 bits, palette x 256 read back.
    const uint8_t map[20] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0};
    uint8_t pr[256] = {}, pg[256] = {}, pb[256] = {};
    for (int i = 0; i < 10; ++i) pr[i] = uint8_t(i * 20), pg[i] = uint8_t(255 - i), pb[i] = 7;
    ASSERT_EQ(korImage_createFileFromMap(p.c_str(), 3, COLORMODE_PALETTE256, &size, map, pr, pg, pb, 10, nullptr), 0);
    ImageFileInfo info{};
    ASSERT_EQ(korImage_readFileInfoEx(&info, p.c_str()), 0);
    EXPECT_EQ(info.compression, 32773);
    EXPECT_EQ(info.colorMode, COLORMODE_PALETTE256);
    EXPECT_EQ(info.flags & 0x40, 0);
    uint8_t** rows = nullptr;
    ASSERT_EQ(korImage_readFileToMap(&rows, &s, r, g, b, &count, p.c_str(), -1, nullptr, nullptr), 0);
    EXPECT_EQ(count, 256);
    EXPECT_EQ(r[9], 180);
    EXPECT_EQ(g[0], 255);
    uint8_t line[10];
    korImage_unpackByteBuffer(line, rows[1], 10);
    EXPECT_EQ(line[0], 9);
    korImage_freeImage(rows, &s, IMAGEFORMAT_PACKBYTE);
    ASSERT_EQ(korImage_readPalette(r, g, b, &count, p.c_str(), -1), 0);
    EXPECT_EQ(r[1], 20);
}

}  // namespace
