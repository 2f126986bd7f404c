// PCX and Sun raster sample files read as the other programs read them
// (the files of the tools themselves are rows of codec_interop_test.cpp).
// Pixels are compared through binary PPM.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "imagelib/imagelib.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

// The interleaved pixels of a binary PPM of maxval 255 (its header is the
// three numbers and single spaces or newlines); empty for anything else.
Bytes ppmPixels(const std::string& s) {
    size_t at = 0;
    for (int fields = 0; fields < 4 && at != std::string::npos; ++fields) at = s.find_first_of(" \n", at + 1);
    if (s.compare(0, 2, "P6") != 0 || at == std::string::npos) return {};
    return Bytes(s.begin() + long(at) + 1, s.end());
}

Bytes viaTool(const std::string& command) {
    std::string out;
    return iltest::run(command + " 2>/dev/null", &out) == 0 ? ppmPixels(out) : Bytes{};
}

// Our decoding: through the CLI, or the library's RGB reader.
Bytes ours(const std::string& path, const iltest::TempDir& dir) {
    const std::string out = dir.file("ours.ppm");
    if (iltest::run("'" + iltest::cliPath() + "' convert '" + path + "' '" + out + "'") != 0) return {};
    const Bytes b = iltest::readFile(out);
    return ppmPixels(std::string(b.begin(), b.end()));
}

Bytes readRGB(const std::string& path) {
    uint8_t* rgb = nullptr;
    ImageSize size{};
    if (korImage_readFileToRGB(&rgb, &size, path.c_str(), -1, nullptr, nullptr) != 0) return {};
    Bytes v;
    for (int y = 0; y < size.y; ++y)
        for (int x = 0; x < size.x; ++x)
            for (int c = 0; c < 3; ++c) v.push_back(rgb[(size_t(y) * 3 + c) * size.x + x]);
    korImage_freeImage(rgb, &size, IMAGEFORMAT_RGB);
    return v;
}

TEST(PcxSunSamples, ReadAsTheToolsReadThem) {
    if (iltest::corpusFile("pcx/pil184.pcx").empty()) GTEST_SKIP() << "sample corpus absent";
    if (!iltest::haveProgram("convert")) GTEST_SKIP() << "ImageMagick absent";
    iltest::TempDir dir;
    const auto magick = [](const std::string& path) {
        return viaTool("convert '" + path + "' -depth 8 -type TrueColor ppm:-");
    };
    for (const char* name : {"odd_stride.pcx", "p_4_planes.pcx"}) {
        const std::string path = iltest::corpusFile(std::string("pcx/") + name);
        const Bytes mine = ours(path, dir);
        EXPECT_FALSE(mine.empty()) << name;
        EXPECT_EQ(mine, magick(path)) << name;
    }
    // One plane of 1 bit, palette black, white: the RGB reader and the CLI
    // follow the palette as GraphicsMagick and pcxtoppm do (ImageMagick 6.9
    // ignores it and shows the set bits black).
    const std::string pil = iltest::corpusFile("pcx/pil184.pcx");
    if (iltest::haveProgram("pcxtoppm")) {
        EXPECT_EQ(readRGB(pil), viaTool("pcxtoppm '" + pil + "'"));
        EXPECT_EQ(ours(pil, dir), viaTool("pcxtoppm '" + pil + "'"));
    }
    // Lines of 12 bytes for 88 pixels of 8 bits are refused (ImageMagick
    // reports the file as cut short); 24-bit Sun rasters are not read.
    ImageSize size{};
    uint8_t* rgb = nullptr;
    EXPECT_EQ(korImage_readFileToRGB(&rgb, &size, iltest::corpusFile("pcx/01r_00.pcx").c_str(), -1, nullptr, nullptr),
              -154);
    EXPECT_EQ(korImage_readFileToRGB(&rgb, &size, iltest::corpusFile("ras/hopper.ras").c_str(), 10, nullptr, nullptr),
              -119);
}

}  // namespace
