// PNG cases beyond the rows of the codec interop table: files of every
// colour type and bit depth decode to ImageMagick's pixels through this
// library's grey-scale and composition rules; our PNG files of every mode
// pass pngcheck and decode in ImageMagick to what we wrote. A case is
// skipped when its tool is absent.
#include <gtest/gtest.h>

#include <cctype>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "codecs/libs/png.h"
#include "imagelib/imagelib.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A binary PGM, PPM or PAM (maxval 255 or 65535) as samples, interleaved.
struct Pnm {
    int w = 0, h = 0, channels = 0, maxval = 0;
    std::vector<int> v;
    int at(int x, int y, int c) const { return v[(size_t(y) * w + x) * channels + c]; }
};

Pnm parsePnm(const std::string& s) {
    Pnm p;
    if (s.size() < 3 || s[0] != 'P') return p;
    size_t i = 2;
    auto word = [&]() {
        while (i < s.size() && (std::isspace(uint8_t(s[i])) || s[i] == '#'))
            i = s[i] == '#' ? s.find('\n', i) : i + 1;
        std::string t;
        while (i < s.size() && !std::isspace(uint8_t(s[i]))) t += s[i++];
        return t;
    };
    if (s[1] == '7') {
        for (std::string t = word(); !t.empty() && t != "ENDHDR"; t = word()) {
            if (t == "WIDTH") p.w = std::stoi(word());
            else if (t == "HEIGHT") p.h = std::stoi(word());
            else if (t == "DEPTH") p.channels = std::stoi(word());
            else if (t == "MAXVAL") p.maxval = std::stoi(word());
            else if (t == "TUPLTYPE") word();
        }
    } else {
        p.channels = s[1] == '6' ? 3 : 1;
        p.w = std::stoi(word()), p.h = std::stoi(word()), p.maxval = std::stoi(word());
    }
    ++i;
    const int bytes = p.maxval > 255 ? 2 : 1;
    const size_t n = size_t(p.w) * p.h * p.channels;
    if (s.size() < i + n * bytes) return Pnm{};
    p.v.resize(n);
    for (size_t k = 0; k < n; ++k)
        p.v[k] = bytes == 2 ? uint8_t(s[i + 2 * k]) << 8 | uint8_t(s[i + 2 * k + 1]) : uint8_t(s[i + k]);
    return p;
}

Pnm viaTool(const std::string& command) {
    std::string out;
    if (iltest::run(command + " 2>/dev/null", &out) != 0) return {};
    return parsePnm(out);
}

bool have(const char* tool) { return iltest::haveProgram(tool); }

// Row-planar RGB of the file through korImage_readFileToRGB.
Bytes ourRGB(const std::string& path, ImageSize& size) {
    uint8_t* p = nullptr;
    if (korImage_readFileToRGB(&p, &size, path.c_str(), -1, nullptr, nullptr) != 0) return {};
    Bytes rgb(p, p + size_t(size.x) * size.y * 3);
    korImage_freeImage(p, &size, IMAGEFORMAT_RGB);
    return rgb;
}

class JpegPngInterop : public ::testing::Test {
protected:
    iltest::TempDir dir;
    std::string ppm = dir.file("src.ppm"), pam = dir.file("src.pam");
    void SetUp() override {
        if (!have("convert")) GTEST_SKIP() << "no ImageMagick";
        // A 61 x 37 picture with gradients and noise, at 16 bits, and the
        // same with a gradient alpha.
        ASSERT_EQ(iltest::run("convert -size 61x37 gradient:'#d02010'-'#1040e0' -attenuate 0.4 +noise Uniform "
                              "-depth 16 '" + ppm + "'"),
                  0);
        ASSERT_EQ(iltest::run("convert '" + ppm + "' \\( -size 61x37 gradient:white-black \\) -alpha off "
                              "-compose CopyOpacity -composite -depth 16 '" + pam + "'"),
                  0);
    }
    std::string make(const std::string& command, const std::string& name) {
        const std::string out = dir.file(name);
        EXPECT_EQ(iltest::run(command + " '" + out + "' 2>/dev/null"), 0) << command;
        return out;
    }
};

// libpng's composition of a grey sample (16-bit scale) with alpha over
// black: to linear light (file gamma 0.45), composed, back to the screen
// gamma 2.2; 8-bit files through 8-bit tables, 16-bit files cut after.
int composeOverBlack(int v16, int a16, int depth) {
    auto correct = [](int i, int max, double g) { return int(std::floor(max * std::pow(double(i) / max, g) + .5)); };
    if (depth == 16) {
        if (a16 == 65535) return v16 >> 8;
        const double lin = std::pow(v16 / 65535.0, 1 / 0.45) * a16 / 65535.0;
        return int(std::floor(65535 * std::pow(lin, 1 / 2.2) + .5)) >> 8;
    }
    const int v = v16 >> 8, a = a16 >> 8;
    if (a == 255) return v;
    if (a == 0) return 0;
    const int t = correct(v, 255, 1 / 0.45) * a + 128;
    return correct((t + (t >> 8)) >> 8, 255, 1 / 2.2);
}

// What this library makes of ImageMagick's 16-bit decoding of a PNG of
// the given colour type and depth: grey samples through the grey scale,
// alpha of grey files composed over black, 16-bit samples cut to 8 bits.
Bytes expectedFromPeer(const Pnm& p, int colourType, int depth) {
    Bytes rgb(size_t(p.w) * p.h * 3);
    uint8_t scale[3][256];
    const int levels = depth == 16 || colourType == 4 ? 256 : 1 << depth;
    pngFile_greyScale(scale[0], scale[1], scale[2], levels);
    for (int y = 0; y < p.h; ++y)
        for (int x = 0; x < p.w; ++x)
            for (int c = 0; c < 3; ++c) {
                const int v16 = p.at(x, y, p.channels >= 3 ? c : 0);
                int v = v16 >> 8;
                if (colourType == 0 || colourType == 4) {
                    if (colourType == 4) {  // composed over black in linear light, as libpng does
                        v = composeOverBlack(v16, p.at(x, y, 1), depth);
                    } else if (depth < 8) {
                        v = scale[0][(v16 * ((1 << depth) - 1) + 32767) / 65535];
                        if (depth == 1) v = v ? 255 : 0;
                    }
                    if (depth > 1) v = depth < 8 && colourType == 0 ? v : scale[0][v];
                }
                rgb[(size_t(y) * 3 + c) * p.w + x] = uint8_t(v);
            }
    return rgb;
}

TEST_F(JpegPngInterop, PeerPngOfEveryTypeAndDepth) {
    struct Case {
        int colourType, depth;
        bool interlace;
    };
    const std::vector<Case> cases = {{0, 1, false}, {0, 2, false}, {0, 4, true},  {0, 8, false}, {0, 16, false},
                                     {2, 8, false}, {2, 8, true},  {2, 16, false}, {3, 1, false}, {3, 2, false},
                                     {3, 4, false}, {3, 8, true},  {4, 8, false}, {4, 16, false}, {6, 8, false},
                                     {6, 16, true}};
    for (const Case& k : cases) {
        const std::string tag = std::to_string(k.colourType) + "_" + std::to_string(k.depth);
        std::string extra = k.colourType == 0 || k.colourType == 4 ? "-colorspace Gray " : "";
        if (k.colourType == 3) extra += "-colors " + std::to_string(k.depth == 8 ? 200 : 1 << k.depth) + " ";
        if (k.interlace) extra += "-interlace PNG ";
        const std::string f = make("convert '" + (k.colourType >= 4 ? pam : ppm) + "' " + extra + "-depth " +
                                       std::to_string(k.depth) + " -define png:color-type=" +
                                       std::to_string(k.colourType) + " -define png:bit-depth=" +
                                       std::to_string(k.depth) +
                                       " -define png:exclude-chunks=bKGD,gAMA,cHRM,date,tIME",
                                   "im_" + tag + ".png");
        const Pnm peer = viaTool("convert '" + f + "' -depth 16 pam:-");
        ASSERT_GT(peer.w, 0) << tag;
        ImageSize size{};
        if (k.colourType == 6) {  // with alpha: interleaved RGBA
            uint8_t* p = nullptr;
            ASSERT_EQ(korImage_readFileToRGBA(&p, &size, f.c_str(), -1, nullptr, 0, 0, nullptr), 0) << tag;
            Bytes expected(size_t(peer.w) * peer.h * 4);
            for (size_t i = 0; i < expected.size(); ++i) expected[i] = uint8_t(peer.v[i] >> 8);
            EXPECT_EQ(Bytes(p, p + expected.size()), expected) << tag;
            korImage_freeImage(p, &size, IMAGEFORMAT_RGBA);
            continue;
        }
        const Bytes mine = ourRGB(f, size);
        ASSERT_FALSE(mine.empty()) << tag;
        const Bytes expected = expectedFromPeer(peer, k.colourType, k.depth);
        if (k.colourType == 4 && k.depth == 16) {  // composed at 16 bits: within one grey step
            int worst = 0;
            for (size_t i = 0; i < mine.size(); ++i) worst = std::max(worst, std::abs(mine[i] - expected[i]));
            EXPECT_LE(worst, 2) << tag;
        } else {
            EXPECT_EQ(mine, expected) << tag;
        }
    }
}

TEST_F(JpegPngInterop, CorpusPngReferencesReadAsImageMagickReadsThem) {
    const std::string root = iltest::corpusDir();
    if (root.empty()) GTEST_SKIP() << "no corpus";
    const std::vector<std::string> files = {
        "png/hopper.png",         "bmp/html/pal1.png",     "bmp/html/pal1bg.png",     "bmp/html/pal4.png",
        "bmp/html/pal8.png",      "bmp/html/pal8w124.png", "bmp/html/pal8nonsquare-e.png",
        "bmp/html/rgb16-565.png", "bmp/html/rgb24.png",    "tga/common/200x32_p.png", "tga/common/200x32_rgb.png",
        "tga/common/200x32_l.png", "tga/common/1x1_l.png"};
    for (const std::string& name : files) {
        const std::string f = root + "/" + name;
        ImageSize size{};
        const Bytes mine = ourRGB(f, size);
        const Pnm peer = viaTool("convert '" + f + "' -depth 16 pam:-");
        const bool grey = name.find("_l.png") != std::string::npos;
        EXPECT_EQ(mine, grey ? expectedFromPeer(peer, 0, 8) : expectedFromPeer(peer, 2, 8)) << name;
    }
    // Grey with alpha, composed over black; RGBA through the alpha reader.
    const std::string la = root + "/tga/common/200x32_la.png";
    ImageSize size{};
    EXPECT_EQ(ourRGB(la, size), expectedFromPeer(viaTool("convert '" + la + "' -depth 16 pam:-"), 4, 8));
    const std::string rgba = root + "/tga/common/200x32_rgba.png";
    uint8_t* p = nullptr;
    ASSERT_EQ(korImage_readFileToRGBA(&p, &size, rgba.c_str(), -1, nullptr, 0, 0, nullptr), 0);
    const Pnm peer = viaTool("convert '" + rgba + "' pam:-");
    EXPECT_EQ(Bytes(p, p + peer.v.size()), Bytes(peer.v.begin(), peer.v.end()));
    korImage_freeImage(p, &size, IMAGEFORMAT_RGBA);
}

TEST_F(JpegPngInterop, OurPngFilesPassPngcheckAndDecodeInImageMagick) {
    if (!have("pngcheck")) GTEST_SKIP() << "no pngcheck";
    const ImageSize size{29, 13};
    Bytes planes(size_t(size.x) * size.y * 4), map(size_t(size.x) * size.y), bits(4 * 13);
    for (size_t i = 0; i < planes.size(); ++i) planes[i] = uint8_t(i * 13 + i / 29);
    for (size_t i = 0; i < map.size(); ++i) map[i] = uint8_t((i * 7) % 12);
    for (size_t i = 0; i < bits.size(); ++i) bits[i] = uint8_t(i * 37);
    uint8_t r[256], g[256], b[256];
    for (int i = 0; i < 256; ++i) r[i] = uint8_t(i * 20), g[i] = uint8_t(255 - i * 9), b[i] = uint8_t(i * 3);
    for (const char* interlace : {"0", "1"}) {
        ::setenv("KV_PNG_INTERLACE", interlace, 1);
        for (int mode = 1; mode <= 6; ++mode) {
            const std::string f = dir.file("ours" + std::to_string(mode) + interlace + ".png");
            int st;
            if (mode == 1 || mode == 6)
                st = korImage_extCreateFileFromRGB(f.c_str(), 28, mode, &size, planes.data(), 0, 0, nullptr);
            else if (mode == 5)
                st = korImage_createFileFromBitMap(f.c_str(), 28, &size, bits.data(), 0, nullptr, nullptr, nullptr);
            else
                st = korImage_createFileFromMap(f.c_str(), 28, mode, &size, map.data(), r, g, b,
                                                mode == 4 ? 0 : 12, nullptr);
            ASSERT_EQ(st, 0) << mode;
            EXPECT_EQ(iltest::run("pngcheck -q '" + f + "' >/dev/null"), 0) << mode << " interlace " << interlace;
            const Pnm peer = viaTool("convert '" + f + "' pam:-");
            ASSERT_EQ(peer.w, size.x) << mode;
            for (int y = 0; y < size.y; ++y)
                for (int x = 0; x < size.x; ++x) {
                    const size_t i = size_t(y) * size.x + x;
                    int want[4] = {0, 0, 0, 255};
                    if (mode == 1 || mode == 6) {
                        for (int c = 0; c < (mode == 6 ? 4 : 3); ++c)
                            want[c] = planes[size_t(y) * size.x * (mode == 6 ? 4 : 3) + size_t(c) * size.x + x];
                    } else if (mode == 5) {
                        want[0] = want[1] = want[2] = (bits[size_t(y) * 4 + x / 8] >> (7 - x % 8) & 1) ? 0 : 255;
                    } else if (mode == 4) {
                        want[0] = want[1] = want[2] = map[i];
                    } else {
                        want[0] = r[map[i]], want[1] = g[map[i]], want[2] = b[map[i]];
                    }
                    for (int c = 0; c < peer.channels; ++c)
                        ASSERT_EQ(peer.at(x, y, c), want[peer.channels < 3 ? 0 : c])
                            << "mode " << mode << " at " << x << "," << y << " channel " << c;
                }
        }
    }
    ::unsetenv("KV_PNG_INTERLACE");
}

}  // namespace
