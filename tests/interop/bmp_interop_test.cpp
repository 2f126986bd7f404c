// BMP files shared with ImageMagick and netpbm: their files decode here to
// the pixels they decode them to, and ours decode there to ours. Pixels are
// compared through binary PNM; a case is skipped when its tool is absent.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include "../codecs/native/bmp_decode.h"
#include "test_support.h"

namespace {

using bmptest::Bytes;

// Binary PBM, PGM or PPM of 8 bits as row-planar RGB; empty when the text
// is not such a file or its size is not w x h.
Bytes planarFromPnm(const std::string& s, ImageSize size) {
    size_t p = 2;
    auto number = [&]() {
        while (p < s.size() && (std::isspace(uint8_t(s[p])) || s[p] == '#'))
            p = s[p] == '#' ? s.find('\n', p) : p + 1;
        int v = 0;
        while (p < s.size() && std::isdigit(uint8_t(s[p]))) v = v * 10 + (s[p++] - '0');
        return v;
    };
    if (s.size() < 2 || s[0] != 'P' || s[1] < '4' || s[1] > '6') return {};
    const int kind = s[1] - '0', w = number(), h = number(), maxval = kind == 4 ? 1 : number();
    const size_t rowBytes = kind == 4 ? (size_t(w) + 7) / 8 : size_t(w) * (kind == 6 ? 3 : 1);
    if (w != size.x || h != size.y || maxval != (kind == 4 ? 1 : 255) || s.size() < ++p + rowBytes * h) return {};
    Bytes rgb(size_t(w) * h * 3);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const uint8_t* row = reinterpret_cast<const uint8_t*>(s.data() + p + size_t(y) * rowBytes);
            for (int c = 0; c < 3; ++c)
                rgb[(size_t(y) * 3 + c) * w + x] = kind == 6   ? row[3 * x + c]
                                                   : kind == 5 ? row[x]
                                                               : (row[x / 8] >> (7 - x % 8) & 1) ? 0 : 255;
        }
    return rgb;
}

Bytes viaTool(const std::string& command, ImageSize size) {
    std::string out;
    if (iltest::run(command + " 2>/dev/null", &out) != 0) return {};
    return planarFromPnm(out, size);
}

bool have(const char* tool) { return iltest::haveProgram(tool); }

// Compares this codec's decoding of path with ImageMagick's and, when
// asked, netpbm's.
void expectToolsAgree(const std::string& path, bool netpbm = true) {
    const bmptest::Picture mine = bmptest::decode(path);
    ASSERT_EQ(mine.status, 0) << path;
    if (have("convert")) {
        EXPECT_EQ(viaTool("convert '" + path + "' -depth 8 ppm:-", mine.size), mine.rgb) << "convert " << path;
    }
    if (netpbm && have("bmptopnm")) {
        EXPECT_EQ(viaTool("bmptopnm '" + path + "'", mine.size), mine.rgb) << "bmptopnm " << path;
    }
}

class BmpInterop : public ::testing::Test {
protected:
    iltest::TempDir dir;
    std::string source = dir.file("src.ppm");
    // A 37 x 23 picture with smooth and sharp changes; the odd width needs
    // row padding at every depth.
    void SetUp() override {
        std::string ppm = "P6\n37 23\n255\n";
        for (int y = 0; y < 23; ++y)
            for (int x = 0; x < 37; ++x) ppm += {char(x * 7), char(y * 11), char((x ^ y) * 9)};
        iltest::writeFile(source, ppm);
    }
    std::string make(const std::string& command, const char* name) {
        const std::string out = dir.file(name);
        EXPECT_EQ(iltest::run(command + " > '" + out + "' 2>/dev/null"), 0) << command;
        return out;
    }
};

TEST_F(BmpInterop, FilesOfTheToolsDecodeAlike) {
    if (have("convert")) {
        // ImageMagick writes no RLE4; its RLE8 runs cover the padded row,
        // which bmptopnm refuses and which is cut at the width here, as
        // ImageMagick does.
        const std::tuple<const char*, const char*, bool> cases[] = {
            {"-type TrueColor", "m24.bmp", true},
            {"-colors 200 -type Palette -compress None", "m8.bmp", true},
            {"-colors 200 -type Palette -compress RLE", "m8rle.bmp", false},
            {"-colors 12 -type Palette -compress None", "m4.bmp", true},
            {"-monochrome", "m1.bmp", true}};
        for (auto [options, name, netpbm] : cases)
            expectToolsAgree(make("convert '" + source + "' " + options + " BMP3:-", name), netpbm);
    }
    if (have("ppmtobmp") && have("pnmquant") && have("pamditherbw")) {
        const std::string q16 = make("pnmquant 16 '" + source + "'", "q16.ppm");
        const std::string bw = make("ppmtopgm '" + source + "' | pamditherbw | pamtopnm", "bw.pbm");
        for (auto [options, name] : {std::pair{"-bpp 24 '" + source + "'", "n24.bmp"},
                                     {"-bpp 8 '" + q16 + "'", "n8.bmp"},
                                     {"-bpp 4 '" + q16 + "'", "n4.bmp"},
                                     {"-os2 -bpp 4 '" + q16 + "'", "n4os2.bmp"},
                                     {"'" + bw + "'", "n1.bmp"}})
            expectToolsAgree(make("ppmtobmp " + options, name));
    }
}

TEST_F(BmpInterop, SampleFilesDecodeAsImageMagickDecodesThem) {
    if (!have("convert")) GTEST_SKIP() << "ImageMagick absent";
    if (iltest::corpusFile("bmp/g/pal8.bmp").empty()) GTEST_SKIP() << "sample corpus absent";
    for (const char* name : {"pal1.bmp", "pal1wb.bmp", "pal1bg.bmp", "pal4.bmp", "pal4rle.bmp", "pal8.bmp",
                             "pal8rle.bmp", "pal8-0.bmp", "pal8os2.bmp", "pal8topdown.bmp", "pal8w124.bmp",
                             "pal8w125.bmp", "pal8w126.bmp", "pal8nonsquare.bmp", "rgb24.bmp", "rgb24pal.bmp",
                             "pal8v4.bmp", "pal8v5.bmp", "rgb16.bmp", "rgb16-565.bmp", "rgb16-565pal.bmp",
                             "rgb32.bmp", "rgb32bf.bmp"})
        expectToolsAgree(iltest::corpusFile(std::string("bmp/g/") + name), false);
}

// Two-colour files keep their own colours through the command-line tool,
// whatever the palette: black and white either way, other colours, one entry.
TEST_F(BmpInterop, CliConvertsTwoColourSamplesAsImageMagickDoes) {
    if (!have("convert")) GTEST_SKIP() << "ImageMagick absent";
    if (iltest::corpusFile("bmp/g/pal1.bmp").empty()) GTEST_SKIP() << "sample corpus absent";
    for (const char* name : {"pal1.bmp", "pal1wb.bmp", "pal1bg.bmp"}) {
        const std::string path = iltest::corpusFile(std::string("bmp/g/") + name), out = dir.file("cli.ppm");
        ASSERT_EQ(iltest::run("'" + iltest::cliPath() + "' convert '" + path + "' '" + out + "'"), 0) << name;
        const Bytes ppm = iltest::readFile(out);
        const bmptest::Picture mine = bmptest::decode(path);
        const Bytes ours = planarFromPnm(std::string(ppm.begin(), ppm.end()), mine.size);
        ASSERT_FALSE(ours.empty()) << name;
        EXPECT_EQ(viaTool("convert '" + path + "' -depth 8 ppm:-", mine.size), ours) << name;
    }
    // A palette of one entry: index 1 reads as black.
    Bytes one = {'B', 'M'};
    for (uint32_t v : {66u, 0u, 58u, 40u, 2u, 1u}) one.insert(one.end(), {uint8_t(v), 0, 0, 0});
    one.insert(one.end(), {1, 0, 1, 0});  // one plane, one bit
    for (uint32_t v : {0u, 4u, 0u, 0u, 1u, 0u}) one.insert(one.end(), {uint8_t(v), 0, 0, 0});
    one.insert(one.end(), {40, 90, 200, 0, 0x40, 0, 0, 0});  // the one entry; pixels 0, 1
    ASSERT_TRUE(iltest::writeFile(dir.file("one.bmp"), one));
    ASSERT_EQ(iltest::run("'" + iltest::cliPath() + "' convert '" + dir.file("one.bmp") + "' '" + dir.file("one.ppm") +
                          "'"),
              0);
    const Bytes ppm = iltest::readFile(dir.file("one.ppm"));
    EXPECT_EQ(planarFromPnm(std::string(ppm.begin(), ppm.end()), ImageSize{2, 1}), Bytes({200, 0, 90, 0, 40, 0}));
}

TEST_F(BmpInterop, OurFilesDecodeInTheTools) {
    const ImageSize size{37, 23};
    const Bytes b = iltest::readFile(source);
    const Bytes src = planarFromPnm(std::string(b.begin(), b.end()), size);
    Bytes bits(5 * 23);
    for (size_t i = 0; i < bits.size(); ++i) bits[i] = uint8_t(i * 37 + (i >> 3));
    for (int format : {1, 2, 3, 4, 5}) {
        const std::string path = dir.file("o" + std::to_string(format) + ".bmp");
        ASSERT_EQ(format == 5 ? imageBmp_writeFromBitMap(path.c_str(), bits.data(), 0, &size, nullptr)
                              : imageBmp_writeFromRGB(path.c_str(), src.data(), &size, format, nullptr),
                  0);
        if (format == 1) {
            EXPECT_EQ(bmptest::decode(path).rgb, src);
        }
        expectToolsAgree(path);
    }
}

}  // namespace
