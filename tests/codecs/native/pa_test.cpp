// "p" and "a" rasters: header bytes, writer refusals, reader rules pinned
// with hand-built files, round trips of both writers.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "codecs/native/pa.h"
#include "imagelib/host.h"
#include "imagelib/pixels.h"
#include "pixels/rows.h"
#include "few_colours.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// A "p" file: header fields as text, then the colour map and pixel chunks.
Bytes pFile(const std::string& attributes, const Bytes& colourMap, const Bytes& pixels,
            const std::string& pdHeader = "") {
    char cm[16], pd[16];
    std::snprintf(cm, sizeof cm, "CM%8zu", colourMap.size());
    std::snprintf(pd, sizeof pd, "PD%8zu", pixels.size());
    char at[16];
    std::snprintf(at, sizeof at, "AT%8zu", attributes.size());
    return text("SCMI   1") + text(at) + text(attributes) + text(cm) + colourMap +
           text(pdHeader.empty() ? pd : pdHeader) + pixels;
}

class PaTest : public ::testing::Test {
protected:
    iltest::TempDir dir;
    std::string put(const Bytes& bytes, const std::string& name = "t.p") {
        std::string p = dir.file(name);
        iltest::writeFile(p, bytes);
        return p;
    }
    uint8_t red[256] = {}, green[256] = {}, blue[256] = {};

    // Reads a "p" file as a byte map (or PackByte rows decoded to one).
    maptest::MapImage read(const std::string& path, bool packed = false, StopFunction stop = nullptr) {
        return maptest::readMap(packed, [&](void** out, ImageSize* s, uint8_t* r, uint8_t* g, uint8_t* b, int* n) {
            return imageP_readToMap(out, s, r, g, b, n, path.c_str(), packed, stop);
        });
    }
};

TEST(PaField, RightAlignedDigitsOnly) {
    unsigned v = 7;
    EXPECT_TRUE(imagePA_parseField(" 640", 4, &v));
    EXPECT_EQ(v, 640u);
    EXPECT_TRUE(imagePA_parseField("0012", 4, &v));
    EXPECT_EQ(v, 12u);
    for (const char* bad : {"64 0", "640 ", " +64", " -64", "6a40"}) EXPECT_FALSE(imagePA_parseField(bad, 4, &v)) << bad;
}

TEST_F(PaTest, HeaderBytesOfA640By480Image) {
    const ImageSize s{640, 480};
    Bytes map(640 * 480, 0);
    map[1000] = 255;
    for (int i = 0; i < 256; ++i) red[i] = uint8_t(i), green[i] = uint8_t(255 - i), blue[i] = 7;
    std::string path = dir.file("big.p");
    ASSERT_EQ(imageP_writeFromMap(path.c_str(), map.data(), red, green, blue, 256, &s, 3, 0, nullptr), 0);
    Bytes f = iltest::readFile(path);
    const std::string head = "SCMI   1AT      12 640 480 256CM     768";
    ASSERT_EQ(f.size(), head.size() + 768 + 10 + 640 * 480);
    EXPECT_EQ(std::string(f.begin(), f.begin() + 40), head);
    EXPECT_EQ((Bytes{f[40], f[41], f[42], f[805], f[806], f[807]}), (Bytes{0, 255, 7, 255, 0, 7}));
    EXPECT_EQ(std::string(f.begin() + 808, f.begin() + 818), "PD  307200");
    EXPECT_EQ(f[818 + 1000], 255);

    ImageSize got{};
    int format = 0;
    EXPECT_EQ(imageP_readInfo(&got, &format, path.c_str()), 0);
    EXPECT_EQ(std::pair(got.x, got.y), std::pair(640, 480));
    EXPECT_EQ(format, COLORMODE_PALETTE256);
}

TEST_F(PaTest, MapWriterRefusals) {
    // Index 20 with 16 colours: refused before the file exists.
    const ImageSize s{4, 2};
    Bytes map = {0, 1, 2, 3, 20, 5, 6, 7};
    std::string path = dir.file("refused.p");
    EXPECT_EQ(imageP_writeFromMap(path.c_str(), map.data(), red, green, blue, 16, &s, 2, 0, nullptr), kPOutOfRange);
    EXPECT_TRUE(iltest::readFile(path).empty());
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    // Fields that do not fit: a width of 10000, a colour count of 10000.
    const ImageSize wide{10000, 1};
    Bytes row(10000, 0);
    EXPECT_EQ(imageP_writeFromMap(path.c_str(), row.data(), red, green, blue, 16, &wide, 2, 0, nullptr),
              kPOutOfRange);
    EXPECT_EQ(imageP_writeFromMap(path.c_str(), map.data(), red, green, blue, 10000, &s, 2, 0, nullptr),
              kPOutOfRange);
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    EXPECT_EQ(imageP_writeFromRGB(path.c_str(), row.data(), &s, COLORMODE_RGB, nullptr), IMGERR_BADARG);
}

TEST_F(PaTest, MapRoundTripBothForms) {
    const ImageSize s{5, 3};
    Bytes map = {0, 1, 2, 3, 4, 4, 3, 2, 1, 0, 2, 2, 2, 2, 2};
    for (int i = 0; i < 5; ++i) red[i] = uint8_t(50 * i), green[i] = uint8_t(i), blue[i] = uint8_t(255 - i);
    // PackByte rows in, both forms out.
    auto** rows = static_cast<uint8_t**>(dlmSystem_korCalloc(3, sizeof(uint8_t*)));
    for (int y = 0; y < 3; ++y) ASSERT_EQ(il::storePackByteRow(rows, y, map.data() + 5 * y, 5), 0);
    std::string path = dir.file("rt.p");
    ASSERT_EQ(imageP_writeFromMap(path.c_str(), rows, red, green, blue, 5, &s, 3, 1, nullptr), 0);
    korImage_freeImage(rows, &s, IMAGEFORMAT_PACKBYTE);
    const uint8_t r0[5] = {0, 50, 100, 150, 200};
    for (bool packed : {false, true}) {
        const auto m = read(path, packed);
        EXPECT_EQ(m.pixels, map);
        EXPECT_EQ(m.count, 5);
        EXPECT_EQ(std::memcmp(m.r, r0, 5), 0);
        EXPECT_EQ(m.r[5], 0);  // entries past the colour map are cleared
    }
    int format = 0;
    EXPECT_EQ(imageP_readInfo(nullptr, &format, path.c_str()), 0);
    EXPECT_EQ(format, COLORMODE_PALETTE16);
    EXPECT_TRUE(imageP_detect(path.c_str()));
}

TEST_F(PaTest, RGBWriterGreyAndPalette) {
    const ImageSize s{3, 2};
    // Row-planar: row 0 red 10,200,0 green 20,100,0 blue 30,50,255.
    Bytes rgb = {10, 200, 0, 20, 100, 0, 30, 50, 255, 255, 255, 1, 255, 0, 22, 255, 0, 2};
    std::string path = dir.file("grey.p");
    ASSERT_EQ(imageP_writeFromRGB(path.c_str(), rgb.data(), &s, COLORMODE_GREY, nullptr), 0);
    auto m = read(path);
    EXPECT_EQ(m.count, 256);
    EXPECT_EQ((Bytes{m.r[77], m.b[200]}), (Bytes{77, 200}));
    // 0.11 b + 0.3 r + 0.59 g + 0.5, truncated, summed in this order: (1, 22,
    // 2) gives 13 (summed from red, it would give 14).
    EXPECT_EQ(m.pixels, (Bytes{18, 125, 28, 255, 77, 13}));

    // Colours the palette optimiser holds exactly come back as they were.
    rgb = maptest::fewColours(3, 2);
    path = dir.file("pal.p");
    ASSERT_EQ(imageP_writeFromRGB(path.c_str(), rgb.data(), &s, COLORMODE_PALETTE256, nullptr), 0);
    m = read(path);
    EXPECT_EQ(maptest::expand(m), rgb);
    // Stopped before the file is opened: 1 and no file.
    path = dir.file("stopped.p");
    EXPECT_EQ(imageP_writeFromRGB(path.c_str(), rgb.data(), &s, COLORMODE_PALETTE16, [](int, int) { return 1; }),
              1);
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST_F(PaTest, ReaderRules) {
    const Bytes cm = {1, 2, 3, 4, 5, 6};
    const Bytes px = {0, 1, 1, 0};
    // A longer attribute chunk is skipped past; a count of 16 reports 256.
    std::string p = put(pFile("   2   2  16 extra", cm, px));
    auto m = read(p);
    EXPECT_EQ(m.pixels, px);
    EXPECT_EQ(m.count, 16);
    EXPECT_EQ((Bytes{m.r[1], m.g[1], m.b[1]}), (Bytes{4, 5, 6}));
    int format = 0;
    EXPECT_EQ(imageP_readInfo(nullptr, &format, p.c_str()), 0);
    EXPECT_EQ(format, COLORMODE_PALETTE256);

    // The contiguous form reads the chunk's length, the rest is 0; the
    // PackByte form reads whole rows.
    p = put(pFile("   2   2   2", cm, {1, 1, 1, 1}, "PD       3"));
    EXPECT_EQ(read(p).pixels, (Bytes{1, 1, 1, 0}));
    EXPECT_EQ(read(p, true).pixels, (Bytes{1, 1, 1, 1}));

    // Bad pixel chunk header: 32768; bad colour map header: -154.
    EXPECT_EQ(read(put(pFile("   2   2   2", cm, px, "PX       4"))).status, kPOutOfRange);
    Bytes badCm = pFile("   2   2   2", cm, px);
    badCm[30] = 'X';
    EXPECT_EQ(read(put(badCm)).status, IMGERR_BADFILE);

    // Headers that do not parse, sizes the file cannot hold, too many colours.
    for (const Bytes& f : {pFile("   2   2   ", cm, px), text("SCMI   2AT      12   2   2   2"),
                           text("SCMI   1AT      20   2   2   2"), pFile("9999 999   2", cm, px),
                           pFile("   2   2 257", cm, px), pFile("   0   2   2", cm, px)}) {
        std::string path = put(f);
        EXPECT_EQ(read(path).status, IMGERR_BADFILE) << std::string(f.begin(), f.begin() + 30);
        EXPECT_EQ(read(path, true).status, IMGERR_BADFILE);
    }
    EXPECT_FALSE(imageP_detect(put(text("SCMI   1AT     12    2   2   2")).c_str()));

    // Stop polls: before the colour map 1, during the rows -144.
    p = put(pFile("   2   2   2", cm, px));
    EXPECT_EQ(read(p, true, [](int, int) { return 1; }).status, 1);
    EXPECT_EQ(read(p, true, [](int total, int) { return total; }).status, IMGERR_STOPPED);
}

TEST_F(PaTest, AFilesOf3By2) {
    const ImageSize s{3, 2};
    Bytes rgb(18);
    for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = uint8_t(i * 13);
    std::string path = dir.file("pic.a");
    ASSERT_EQ(imageA_writeFromRGB(path.c_str(), rgb.data(), &s, nullptr), 0);
    EXPECT_EQ(iltest::readFile(path), text("   3   2    "));
    // Planes: red of row 0, red of row 1, ...
    EXPECT_EQ(iltest::readFile(dir.file("pic.r")), (Bytes{rgb[0], rgb[1], rgb[2], rgb[9], rgb[10], rgb[11]}));
    EXPECT_EQ(iltest::readFile(dir.file("pic.g")).size(), 6u);
    EXPECT_EQ(iltest::readFile(dir.file("pic.b")), (Bytes{rgb[6], rgb[7], rgb[8], rgb[15], rgb[16], rgb[17]}));

    ImageSize got{};
    int format = 0;
    EXPECT_EQ(imageA_readInfo(&got, &format, path.c_str()), 0);
    EXPECT_EQ(format, COLORMODE_RGB);
    uint8_t* back = nullptr;
    ASSERT_EQ(imageA_readToRGB(&back, &got, path.c_str(), nullptr), 0);
    EXPECT_EQ(std::pair(got.x, got.y), std::pair(3, 2));
    EXPECT_EQ(Bytes(back, back + 18), rgb);
    korImage_freeImage(back, &got, IMAGEFORMAT_RGB);

    // A short plane file: -120 before the image exists; a missing one -113.
    iltest::writeFile(dir.file("pic.g"), Bytes(5, 0));
    EXPECT_EQ(imageA_readToRGB(&back, &got, path.c_str(), nullptr), IMGERR_READFAILED);
    std::remove(dir.file("pic.g").c_str());
    EXPECT_EQ(imageA_readToRGB(&back, &got, path.c_str(), nullptr), IMGERR_OPENFAILED);

    for (const char* bad : {"   0   2    ", "   3  -2    ", "   3   2", "SCMI   1AT  "}) {
        std::string p = put(text(bad), "bad.a");
        EXPECT_EQ(imageA_readInfo(nullptr, nullptr, p.c_str()), IMGERR_BADFILE) << bad;
        EXPECT_FALSE(imageA_detect(p.c_str()));
    }
    // Stopped before the second row of the first plane: 1, no green plane.
    const ImageSize tall{1, 2};
    std::remove(dir.file("pic.r").c_str());
    StopFunction stopAtSecondRow = [](int, int) -> int {
        static int calls = 0;
        return ++calls > 1;
    };
    EXPECT_EQ(imageA_writeFromRGB(path.c_str(), rgb.data(), &tall, stopAtSecondRow), 1);
    EXPECT_EQ(iltest::readFile(dir.file("pic.r")).size(), 1u);
}

}  // namespace
