// Transparency and thumbnails checked with ImageMagick: `convert
// --transparent` output has alpha 0 exactly where the colour was (and the
// other pixels keep their colours), `--thumbnail` has the size of
// ImageMagick's -thumbnail and pixels close to it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Picture {
    int w = 0, h = 0, depth = 0;  // depth: samples a pixel
    Bytes samples;
};

// A binary PPM (P6) or PAM (P7) of maxval 255.
bool parsePnm(const std::string& data, Picture& pic) {
    std::istringstream in(data);
    std::string magic, token;
    in >> magic;
    int maxval = 0;
    if (magic == "P6") {
        in >> pic.w >> pic.h >> maxval;
        pic.depth = 3;
        in.get();
    } else if (magic == "P7") {
        while (in >> token && token != "ENDHDR") {
            if (token == "WIDTH") in >> pic.w;
            else if (token == "HEIGHT") in >> pic.h;
            else if (token == "DEPTH") in >> pic.depth;
            else if (token == "MAXVAL") in >> maxval;
            else if (token == "TUPLTYPE") in >> token;
        }
        in.get();
    } else {
        return false;
    }
    if (maxval != 255 || pic.w <= 0 || pic.h <= 0) return false;
    const size_t n = size_t(pic.w) * pic.h * pic.depth;
    const size_t at = size_t(in.tellg());
    if (data.size() < at + n) return false;
    pic.samples.assign(data.begin() + long(at), data.begin() + long(at + n));
    return true;
}

class AlphaThumbInterop : public ::testing::Test {
protected:
    iltest::TempDir d;
    void SetUp() override {
        if (!iltest::haveProgram("convert")) GTEST_SKIP() << "ImageMagick absent";
    }
    Picture magick(const std::string& file, const char* format) {
        std::string out;
        // Targa rows come out of ImageMagick in stored order unless turned upright.
        EXPECT_EQ(iltest::run("convert " + file + "[0] -auto-orient -depth 8 " + format + ":-", &out), 0);
        Picture p;
        EXPECT_TRUE(parsePnm(out, p)) << file;
        return p;
    }
};

TEST_F(AlphaThumbInterop, TransparentColourHasAlphaZeroExactlyThere) {
    // 61 x 43 in a few colours: white, near-white (within 10 of 250 on
    // every channel) and colours that are not.
    const int w = 61, h = 43;
    static const uint8_t kColours[5][3] = {{255, 255, 255}, {244, 250, 255}, {200, 30, 30}, {20, 90, 200},
                                           {239, 250, 250}};
    Picture src{w, h, 3, Bytes(size_t(w) * h * 3)};
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 3; ++c) src.samples[(size_t(y) * w + x) * 3 + c] = kColours[(x / 7 + y / 5) % 5][c];
    std::string ppm = "P6\n61 43\n255\n";
    ppm.append(src.samples.begin(), src.samples.end());
    const std::string in = d.file("src.ppm");
    ASSERT_TRUE(iltest::writeFile(in, ppm));

    const struct {
        const char* option;
        int tolerance;
        uint8_t colour[3];
    } kKeys[] = {{"'#ffffff'", 0, {255, 255, 255}}, {"250,250,250,10", 10, {250, 250, 250}}};
    for (const auto& key : kKeys) {
        for (const char* ext : {"png", "gif", "tif", "tga"}) {
            SCOPED_TRACE(std::string(ext) + " " + key.option);
            const std::string out = d.file(std::string("t.") + ext);
            ASSERT_EQ(iltest::run(iltest::cliPath() + " convert " + in + " " + out + " --transparent " + key.option),
                      0);
            const Picture got = magick(out, "pam");
            ASSERT_EQ(got.w, w);
            ASSERT_EQ(got.h, h);
            ASSERT_EQ(got.depth, 4) << "no alpha";
            int clear = 0;
            for (size_t i = 0; i < size_t(w) * h; ++i) {
                const uint8_t* s = &src.samples[3 * i];
                bool within = true;
                for (int c = 0; c < 3; ++c) within &= std::abs(s[c] - key.colour[c]) <= key.tolerance;
                ASSERT_EQ(got.samples[4 * i + 3], within ? 0 : 255) << "pixel " << i;
                clear += within;
                if (!within) {
                    for (int c = 0; c < 3; ++c) ASSERT_EQ(got.samples[4 * i + c], s[c]) << "pixel " << i;
                }
            }
            EXPECT_GT(clear, 0);
        }
    }
}

TEST_F(AlphaThumbInterop, ThumbnailHasImageMagicksSizeAndClosePixels) {
    const struct {
        const char* name;
        const char* make;
        const char* box;
    } kCases[] = {
        {"photo.jpg", "-seed 4 -size 1200x800 plasma:fractal -blur 0x3 -quality 92", "256x256"},
        {"tall.jpg", "-seed 5 -size 500x1300 plasma:fractal -blur 0x3", "256x256"},
        {"photo.png", "-seed 6 -size 700x450 plasma:fractal -blur 0x3", "128x200"},
        {"photo.tga", "-seed 7 -size 640x480 plasma:fractal -blur 0x3", "256x256"},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.name);
        const std::string in = d.file(c.name), ours = d.file("ours.ppm");
        ASSERT_EQ(iltest::run(std::string("convert ") + c.make + " " + in), 0);
        ASSERT_EQ(iltest::run(iltest::cliPath() + " convert " + in + " " + ours + " --thumbnail " + c.box), 0);
        std::string text;
        ASSERT_EQ(iltest::run("convert " + in + " -auto-orient -thumbnail " + c.box + " -depth 8 ppm:-", &text), 0);
        Picture theirs, mine;
        ASSERT_TRUE(parsePnm(text, theirs));
        const Bytes ourBytes = iltest::readFile(ours);
        ASSERT_TRUE(parsePnm(std::string(ourBytes.begin(), ourBytes.end()), mine));
        ASSERT_EQ(mine.w, theirs.w);
        ASSERT_EQ(mine.h, theirs.h);
        double sum = 0;
        for (size_t i = 0; i < mine.samples.size(); ++i) sum += std::abs(mine.samples[i] - theirs.samples[i]);
        EXPECT_LT(sum / double(mine.samples.size()), 3.0);
    }
}

}  // namespace
