// PCX and Sun raster interop beyond the shared tables of
// codec_interop_test.cpp: one-bit files, where the library's rules differ
// from the tools' on purpose, and the sample files. Pixels are compared
// through binary PNM; a case is skipped when its tool is absent.
#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <vector>

#include "imagelib/imagelib.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A binary PBM, PGM or PPM of maxval 255 (1 for PBM) as width, height and
// interleaved RGB; empty pixels when the text is not such a file.
struct Picture {
    int w = 0, h = 0;
    Bytes rgb;
    bool operator==(const Picture& o) const { return w == o.w && h == o.h && rgb == o.rgb; }
};

Picture parsePnm(const std::string& s) {
    Picture p;
    size_t at = 2;
    auto number = [&]() {
        while (at < s.size() && (std::isspace(uint8_t(s[at])) || s[at] == '#'))
            at = s[at] == '#' ? s.find('\n', at) : at + 1;
        int v = 0;
        while (at < s.size() && std::isdigit(uint8_t(s[at]))) v = v * 10 + (s[at++] - '0');
        return v;
    };
    if (s.size() < 2 || s[0] != 'P' || s[1] < '4' || s[1] > '6') return p;
    const int kind = s[1] - '0', w = number(), h = number(), maxval = kind == 4 ? 1 : number();
    const size_t rowBytes = kind == 4 ? (size_t(w) + 7) / 8 : size_t(w) * (kind == 6 ? 3 : 1);
    if (maxval != (kind == 4 ? 1 : 255) || s.size() < ++at + rowBytes * h) return p;
    p.w = w, p.h = h;
    for (int y = 0; y < h; ++y) {
        const auto* row = reinterpret_cast<const uint8_t*>(s.data() + at + size_t(y) * rowBytes);
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 3; ++c)
                p.rgb.push_back(kind == 6   ? row[3 * x + c]
                                : kind == 5 ? row[x]
                                            : (row[x / 8] >> (7 - x % 8) & 1) ? 0 : 255);
    }
    return p;
}

bool have(const std::string& tool) { return iltest::haveProgram(tool); }

// The tool's decoding of path: {f} in command stands for it.
Picture viaTool(std::string command, const std::string& path) {
    for (size_t at; (at = command.find("{f}")) != std::string::npos;) command.replace(at, 3, "'" + path + "'");
    std::string out;
    if (iltest::run(command + " 2>/dev/null", &out) != 0) return {};
    return parsePnm(out);
}

Picture inverse(Picture p) {
    for (uint8_t& v : p.rgb) v = uint8_t(255 - v);
    return p;
}

class PcxSunInterop : public ::testing::Test {
protected:
    iltest::TempDir dir;
    std::string source = dir.file("src.ppm");
    void SetUp() override {
        // 37 x 23: odd width, so every depth needs pad or partial bytes.
        std::string ppm = "P6\n37 23\n255\n";
        for (int y = 0; y < 23; ++y)
            for (int x = 0; x < 37; ++x) ppm += {char(x * 7), char(y * 11), char((x ^ y) * 9)};
        iltest::writeFile(source, ppm);
    }
    // Runs a command (with {src} standing for the source picture) writing
    // to standard output, into a file of the given name.
    std::string make(std::string command, const std::string& name) {
        for (size_t at; (at = command.find("{src}")) != std::string::npos;) command.replace(at, 5, "'" + source + "'");
        const std::string out = dir.file(name);
        EXPECT_EQ(iltest::run(command + " > '" + out + "' 2>/dev/null"), 0) << command;
        return out;
    }
    // Our decoding of path through the CLI.
    Picture ours(const std::string& path) {
        const std::string out = path + ".ours.ppm";
        if (iltest::run("'" + iltest::cliPath() + "' convert '" + path + "' '" + out + "' 2>/dev/null") != 0) return {};
        const Bytes b = iltest::readFile(out);
        return parsePnm(std::string(b.begin(), b.end()));
    }
    // Our decoding of path through the RGB reader of the library.
    static Picture readRGB(const std::string& path) {
        uint8_t* rgb = nullptr;
        ImageSize size{};
        Picture p;
        if (korImage_readFileToRGB(&rgb, &size, path.c_str(), -1, nullptr, nullptr) != 0) return p;
        p.w = size.x, p.h = size.y;
        for (int y = 0; y < size.y; ++y)
            for (int x = 0; x < size.x; ++x)
                for (int c = 0; c < 3; ++c) p.rgb.push_back(rgb[(size_t(y) * 3 + c) * size.x + x]);
        korImage_freeImage(rgb, &size, IMAGEFORMAT_RGB);
        return p;
    }
};

const char* const kMagickDecode = "convert {f} -depth 8 -type TrueColor ppm:-";

TEST_F(PcxSunInterop, OneBitPcxFiles) {
    if (!have("ppmtopcx") || !have("pcxtoppm") || !have("pamditherbw")) GTEST_SKIP() << "netpbm absent";
    // One plane of 1 bit with the palette black, white: the RGB reader
    // follows the palette as netpbm does. The whole-file reads take such a
    // file as a bitmap whose set bits are black (bits are taken as they
    // are), the inverse here; ImageMagick 6.9 ignores the palette of these
    // files and shows set bits black too.
    const std::string path = make("ppmtopgm {src} | pamditherbw | pamtopnm | ppmtopcx", "n1.pcx");
    const Picture peer = viaTool("pcxtoppm {f}", path);
    EXPECT_EQ(readRGB(path), peer);
    EXPECT_EQ(ours(path), inverse(peer));
}

TEST_F(PcxSunInterop, OneBitSunFilesWithoutColourMap) {
    if (!have("pnmtorast") || !have("rasttopnm") || !have("pamditherbw")) GTEST_SKIP() << "netpbm absent";
    // Without a colour map index 0 is black and 1 white, where the tools
    // take a set bit as black: their pixels inverted.
    for (const char* option : {"-standard", "-rle"}) {
        const std::string path =
            make(std::string("ppmtopgm {src} | pamditherbw | pamtopnm | pnmtorast ") + option, "n1.ras");
        const Picture peer = viaTool("rasttopnm {f}", path);
        ASSERT_FALSE(peer.rgb.empty());
        EXPECT_EQ(ours(path), inverse(peer)) << option;
    }
}

TEST_F(PcxSunInterop, SampleFilesReadAsTheToolsReadThem) {
    if (iltest::corpusFile("pcx/pil184.pcx").empty()) GTEST_SKIP() << "sample corpus absent";
    if (!have("convert")) GTEST_SKIP() << "ImageMagick absent";
    for (const char* name : {"odd_stride.pcx", "p_4_planes.pcx"}) {
        const std::string path = iltest::corpusFile(std::string("pcx/") + name);
        EXPECT_EQ(ours(path), viaTool(kMagickDecode, path)) << name;
    }
    // One plane of 1 bit with the palette black, white: read through the
    // palette as GraphicsMagick and pcxtoppm read it; ImageMagick 6.9 shows
    // it inverted (it ignores the palette), as does our bitmap route.
    const std::string pil = iltest::corpusFile("pcx/pil184.pcx");
    if (have("pcxtoppm")) {
        EXPECT_EQ(readRGB(pil), viaTool("pcxtoppm {f}", pil));
    }
    EXPECT_EQ(ours(pil), viaTool(kMagickDecode, pil));
    // Lines of 12 bytes for 88 pixels of 8 bits: refused (ImageMagick
    // reports the file as cut short).
    ImageSize size{};
    uint8_t* rgb = nullptr;
    EXPECT_EQ(korImage_readFileToRGB(&rgb, &size, iltest::corpusFile("pcx/01r_00.pcx").c_str(), -1, nullptr, nullptr),
              -154);
    // 24-bit Sun rasters are not read.
    EXPECT_EQ(korImage_readFileToRGB(&rgb, &size, iltest::corpusFile("ras/hopper.ras").c_str(), 10, nullptr, nullptr),
              -119);
}

}  // namespace
