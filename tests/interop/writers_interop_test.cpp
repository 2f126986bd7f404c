// PICT, WPG and EPS files written by `imagelib convert` decode in the other
// programs to our pixels: ImageMagick and GraphicsMagick read PICT and WPG,
// Ghostscript renders EPS at one device pixel an image pixel. A peer that is
// absent skips its checks.
//
// ImageMagick and GraphicsMagick are read at 16 bits a sample and compared
// by the high byte: PICT colour tables hold 16-bit values (ours are the
// 8-bit value in the high byte), which the peers' own 8-bit reduction
// moves down by one.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Pixels {
    int w = 0, h = 0;
    Bytes rgb;  // interleaved, 8 bits
    bool operator==(const Pixels& o) const { return w == o.w && h == o.h && rgb == o.rgb; }
};

// Binary PPM of maxval 255 or 65535 (the high byte kept); w == 0 when the
// text is not one.
Pixels fromPpm(const std::string& s) {
    Pixels p;
    size_t at = 2;
    auto number = [&]() {
        while (at < s.size() && (std::isspace(uint8_t(s[at])) || s[at] == '#'))
            at = s[at] == '#' ? s.find('\n', at) : at + 1;
        long v = 0;
        while (at < s.size() && std::isdigit(uint8_t(s[at]))) v = v * 10 + (s[at++] - '0');
        return v;
    };
    if (s.size() < 2 || s.compare(0, 2, "P6") != 0) return p;
    const long w = number(), h = number(), maxval = number();
    const size_t sample = maxval == 65535 ? 2 : 1;
    ++at;
    if ((maxval != 255 && maxval != 65535) || s.size() < at + size_t(w * h * 3) * sample) return p;
    p.w = int(w), p.h = int(h);
    p.rgb.resize(size_t(w * h * 3));
    for (size_t i = 0; i < p.rgb.size(); ++i) p.rgb[i] = uint8_t(s[at + i * sample]);
    return p;
}

Pixels viaTool(const std::string& command) {
    std::string out;
    if (iltest::run(command + " 2>/dev/null", &out) != 0) return {};
    return fromPpm(out);
}

std::string shellQuoted(const std::string& s) { return "'" + s + "'"; }

// Grey levels of the grey writers; each sums its terms in its own order in
// double precision, which decides some halves.
enum class Expect { Same, GreyPict, GreyWpg, GreyEps };

Pixels expected(const Pixels& src, Expect e) {
    if (e == Expect::Same) return src;
    Pixels g = src;
    for (size_t i = 0; i < g.rgb.size(); i += 3) {
        const double r = src.rgb[i], gr = src.rgb[i + 1], b = src.rgb[i + 2];
        const double v = e == Expect::GreyPict  ? 0.11 * b + 0.3 * r + 0.59 * gr + 0.5
                         : e == Expect::GreyWpg ? 0.3 * r + 0.59 * gr + 0.11 * b + 0.5
                                                : 0.3 * r + 0.11 * b + 0.59 * gr + 0.5;
        g.rgb[i] = g.rgb[i + 1] = g.rgb[i + 2] = uint8_t(int(v));
    }
    return g;
}

// Ghostscript rendering of an EPS file with one device pixel an image
// pixel: the file scales the image to its bounding box of W x H points, so
// the resolution is 72 w / W by 72 h / H dots an inch, on a w x h page.
Pixels renderEps(const std::string& path, int w, int h) {
    const Bytes b = iltest::readFile(path);
    const std::string text(b.begin(), b.end());
    const size_t at = text.find("%%BoundingBox: 0 0 ");
    int pw = 0, ph = 0;
    if (at == std::string::npos || std::sscanf(text.c_str() + at, "%%%%BoundingBox: 0 0 %d %d", &pw, &ph) != 2 ||
        pw <= 0 || ph <= 0)
        return {};
    char res[64];
    std::snprintf(res, sizeof res, "-r%.6fx%.6f -g%dx%d", 72.0 * w / pw, 72.0 * h / ph, w, h);
    return viaTool("gs -q -dSAFER -dBATCH -dNOPAUSE -sDEVICE=ppmraw " + std::string(res) + " -sOutputFile=- " +
                   shellQuoted(path));
}

class WriterInterop : public ::testing::Test {
protected:
    iltest::TempDir dir;

    // A PPM of w x h: flat stretches longer than a run piece, noise longer
    // than a literal piece, and smooth ramps.
    std::string makeSource(const char* name, int w, int h) {
        std::string ppm = "P6\n" + std::to_string(w) + " " + std::to_string(h) + "\n255\n";
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const int band = x / 100;
                uint8_t r, g, b;
                if (band == 0) {
                    r = 200, g = uint8_t(y * 20), b = 40;
                } else if (band == 1) {
                    const unsigned n = unsigned(x * 2654435761u ^ y * 40503u);
                    r = uint8_t(n >> 8), g = uint8_t(n >> 16), b = uint8_t(n >> 24);
                } else {
                    r = uint8_t(x * 7), g = uint8_t(y * 11), b = uint8_t((x ^ y) * 9);
                }
                ppm += {char(r), char(g), char(b)};
            }
        const std::string path = dir.file(name);
        iltest::writeFile(path, ppm);
        return path;
    }
    int convert(const std::string& in, const std::string& out, const std::string& options = "") {
        return iltest::run(shellQuoted(iltest::cliPath()) + " convert " + shellQuoted(in) + " " + shellQuoted(out) + " " + options +
                           " >/dev/null 2>&1");
    }
    // Our own decoding of a source file, through the CLI.
    Pixels ours(const std::string& path) {
        const std::string ppm = path + ".ref.ppm";
        EXPECT_EQ(convert(path, ppm), 0) << path;
        const Bytes b = iltest::readFile(ppm);
        return fromPpm(std::string(b.begin(), b.end()));
    }
};

TEST_F(WriterInterop, OurPictAndWpgFilesDecodeInImageMagickAndGraphicsMagick) {
    const bool im = iltest::haveProgram("convert"), gm = iltest::haveProgram("gm");
    if (!im && !gm) GTEST_SKIP() << "neither ImageMagick nor GraphicsMagick";
    const std::string wide = makeSource("wide.ppm", 300, 9), small = makeSource("small.ppm", 37, 23);
    // Palette sources: 8-bit and 4-bit BMP files of ImageMagick, read as a
    // map and palette and so written through the palette writers.
    std::vector<std::string> bmp;
    if (im) {
        for (const char* colours : {"200", "12"}) {
            bmp.push_back(dir.file(std::string("p") + colours + ".bmp"));
            ASSERT_EQ(iltest::run("convert " + shellQuoted(wide) + " -colors " + colours +
                                  " -type Palette -compress None BMP3:" + shellQuoted(bmp.back())),
                      0);
        }
    }
    struct Case {
        std::string source, out, options;
        Expect expect;
    };
    std::vector<Case> cases = {
        {wide, "rgb.pct", "", Expect::Same},           // 32-bit rows, two-byte counts
        {small, "rgb-small.pct", "", Expect::Same},    // one-byte counts
        {wide, "grey.pct", "--mode grey", Expect::GreyPict},
        {small, "grey-small.pict", "--mode grey", Expect::GreyPict},
        {wide, "grey.wpg", "--mode grey", Expect::GreyWpg},
        {small, "grey-small.wpg", "--mode grey", Expect::GreyWpg},
    };
    if (im) {
        cases.push_back({bmp[0], "map8.pct", "", Expect::Same});
        cases.push_back({bmp[0], "map8.wpg", "", Expect::Same});
        cases.push_back({bmp[1], "map4.wpg", "", Expect::Same});         // 4 bits, 16-entry colour map
        cases.push_back({bmp[1], "map4as8.wpg", "--mode 256", Expect::Same});
    }
    for (const Case& c : cases) {
        const std::string out = dir.file(c.out);
        ASSERT_EQ(convert(c.source, out, c.options), 0) << c.out;
        const Pixels want = expected(ours(c.source), c.expect);
        ASSERT_GT(want.w, 0) << c.source;
        if (im) {
            EXPECT_EQ(viaTool("convert " + shellQuoted(out) + " -depth 16 ppm:-"), want) << "convert " << c.out;
        }
        if (gm) {
            EXPECT_EQ(viaTool("gm convert " + shellQuoted(out) + " -depth 16 ppm:-"), want) << "gm " << c.out;
        }
    }
}

TEST_F(WriterInterop, OurEpsFilesRenderInGhostscript) {
    if (!iltest::haveProgram("gs")) GTEST_SKIP() << "Ghostscript absent";
    // Widths and heights whose bounding box is truncated (37 x 23 -> 46 x 28)
    // and exact (300 x 8 -> 375 x 10).
    const std::string wide = makeSource("wide.ppm", 300, 8), small = makeSource("small.ppm", 37, 23);
    for (const auto& [source, w, h] : {std::tuple{wide, 300, 8}, std::tuple{small, 37, 23}}) {
        const Pixels src = ours(source);
        for (bool grey : {false, true}) {
            const std::string out = source + (grey ? ".grey.eps" : ".eps");
            ASSERT_EQ(convert(source, out, grey ? "--mode grey" : ""), 0) << out;
            EXPECT_EQ(renderEps(out, w, h), expected(src, grey ? Expect::GreyEps : Expect::Same)) << out;
        }
    }
}

}  // namespace
