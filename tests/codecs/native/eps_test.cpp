// EPS writer: the text of small files, whole-image and streamed.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "codecs/native/eps.h"
#include "codecs/rows.h"
#include "test_support.h"

namespace {

std::string text(const std::string& path) {
    const std::vector<uint8_t> b = iltest::readFile(path);
    return std::string(b.begin(), b.end());
}

const char kColourHeader3x1[] =
    "%!PS-Adobe-2.0 EPSF-1.2\r\n%%Creator: Velmora 4.0\r\n%%Title: {T}\r\n%%BoundingBox: 0 0 3 1\r\n"
    "/rstr 3 string def\r\n/gstr 3 string def\r\n/bstr 3 string def\r\n3 1 scale\r\n3 1 8 [3 0 0 -1 0 1]\r\n"
    " {currentfile rstr readhexstring pop}\r\n {currentfile gstr readhexstring pop}\r\n"
    " {currentfile bstr readhexstring pop}\r\n true 3 colorimage\r\n";

std::string withTitle(std::string s, const std::string& title) { return s.replace(s.find("{T}"), 3, title); }

TEST(Eps, GreyFileOfTwoByOne) {
    iltest::TempDir dir;
    const std::string path = dir.file("g.eps");
    // Planes: red, green, blue. Grey levels 10 and trunc(0.3 * 255 + 0.5) = 77.
    const uint8_t rgb[6] = {10, 255, 10, 0, 10, 0};
    const ImageSize size{2, 1};
    ASSERT_EQ(imageEps_writeFromRGB(path.c_str(), rgb, &size, COLORMODE_GREY, nullptr), 0);
    EXPECT_EQ(text(path), "%!PS-Adobe-2.0 EPSF-1.2\r\n%%Creator: Velmora 4.0\r\n%%Title: " + path +
                              "\r\n%%BoundingBox: 0 0 2 1\r\n/picstr 2 string def\r\n2 1 scale\r\n"
                              "2 1 8 [2 0 0 -1 0 1] {currentfile picstr readhexstring pop} image\r\n"
                              "0A4D\r\nshowpage\r\n%%Trailer\r\n");
}

TEST(Eps, ColourRowsAreRedThenGreenThenBlue) {
    iltest::TempDir dir;
    const std::string path = dir.file("c.eps");
    const uint8_t rgb[9] = {1, 2, 3, 0xA0, 0xB0, 0xC0, 0xFF, 0x0E, 0x7F};
    const ImageSize size{3, 1};
    ASSERT_EQ(imageEps_writeFromRGB(path.c_str(), rgb, &size, COLORMODE_RGB, nullptr), 0);
    const std::string expected =
        withTitle(kColourHeader3x1, path) + "010203A0B0C0FF0E7F\r\nshowpage\r\n%%Trailer\r\n";
    EXPECT_EQ(text(path), expected);

    // The row writer of the streaming layer writes the same file.
    ImageFileContext ctx{};
    ctx.fileSize = size;
    ASSERT_EQ(imageEps_createFile(&ctx, path.c_str(), 6, COLORMODE_RGB), 0);
    EXPECT_EQ(ctx.handlerCode, 1);
    EXPECT_EQ(ctx.orientation, 4);
    EXPECT_EQ(ctx.writeRow(&ctx, rgb, rgb + 3, rgb + 6, nullptr), 0);
    EXPECT_EQ(ctx.close(&ctx), 0);
    EXPECT_EQ(text(path), expected);
}

TEST(Eps, BoundingBoxTruncatesAndBadArguments) {
    iltest::TempDir dir;
    const std::string path = dir.file("b.eps");
    std::vector<uint8_t> rgb(7 * 5 * 3, 0x33);
    const ImageSize size{7, 5};
    ASSERT_EQ(imageEps_writeFromRGB(path.c_str(), rgb.data(), &size, COLORMODE_RGB, nullptr), 0);
    const std::string t = text(path);
    EXPECT_NE(t.find("%%BoundingBox: 0 0 8 6\r\n"), std::string::npos);  // 8.75 and 6.25
    EXPECT_NE(t.find("\r\n8 6 scale\r\n7 5 8 [7 0 0 -5 0 5]\r\n"), std::string::npos);
    EXPECT_NE(t.find("\r\n" + std::string(42, '3') + "\r\nshowpage"), std::string::npos);

    for (int format : {COLORMODE_PALETTE16, COLORMODE_PALETTE256, COLORMODE_BILEVEL, COLORMODE_RGBA})
        EXPECT_EQ(imageEps_writeFromRGB(path.c_str(), rgb.data(), &size, format, nullptr), IMGERR_BADARG);
    EXPECT_EQ(imageEps_writeFromRGB(dir.file("no/such/dir.eps").c_str(), rgb.data(), &size, 1, nullptr),
              IMGERR_OPENFAILED);
    ImageFileContext ctx{};
    ctx.fileSize = size;
    EXPECT_EQ(imageEps_createFile(&ctx, dir.file("no/such/dir.eps").c_str(), 6, 1), 1);
}

TEST(Eps, StopEndsTheRowsAndStillWritesTheTrailer) {
    iltest::TempDir dir;
    const std::string path = dir.file("s.eps");
    std::vector<uint8_t> rgb(4 * 3 * 3, 0);
    const ImageSize size{4, 3};
    StopFunction stop = [](int, int) { return 7; };
    EXPECT_EQ(imageEps_writeFromRGB(path.c_str(), rgb.data(), &size, COLORMODE_RGB, stop), 7);
    const std::string t = text(path);
    EXPECT_TRUE(t.ends_with(" true 3 colorimage\r\nshowpage\r\n%%Trailer\r\n")) << t;
}

}  // namespace
