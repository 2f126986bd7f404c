// TIFF cases beyond the rows of the codec interop table: georeferences
// agree with listgeo and gdalinfo, both bilevel polarities give one bitmap.
// A case is skipped when its tool is absent.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "imagelib/imagelib.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Binary PGM or PPM of 8 bits as row-planar RGB; empty when it is not one
// of w x h.
Bytes planarFromPnm(const std::string& s, ImageSize size) {
    size_t p = 2;
    auto number = [&]() {
        while (p < s.size() && (std::isspace(uint8_t(s[p])) || s[p] == '#'))
            p = s[p] == '#' ? s.find('\n', p) : p + 1;
        int v = 0;
        while (p < s.size() && std::isdigit(uint8_t(s[p]))) v = v * 10 + (s[p++] - '0');
        return v;
    };
    if (s.size() < 2 || s[0] != 'P' || (s[1] != '5' && s[1] != '6')) return {};
    const int channels = s[1] == '6' ? 3 : 1, w = number(), h = number(), maxval = number();
    if (w != size.x || h != size.y || maxval != 255 || s.size() < ++p + size_t(w) * h * channels) return {};
    Bytes rgb(size_t(w) * h * 3);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 3; ++c)
                rgb[(size_t(y) * 3 + c) * w + x] =
                    uint8_t(s[p + (size_t(y) * w + x) * channels + (channels == 3 ? c : 0)]);
    return rgb;
}

bool have(const char* tool) { return iltest::haveProgram(tool); }

// ImageMagick's pixels of path (alpha composed over black, which is what
// the premultiplied RGBA interface gives for alpha 0 and 255).
Bytes magickPixels(const std::string& path, ImageSize size) {
    std::string out;
    if (iltest::run("convert '" + path + "' -background black -alpha remove -depth 8 ppm:- 2>/dev/null", &out) != 0)
        return {};
    return planarFromPnm(out, size);
}

struct Ours {
    int status = -1;
    ImageSize size{};
    Bytes rgb;
};

Ours ours(const std::string& path) {
    Ours o;
    uint8_t* p = nullptr;
    o.status = korImage_readFileToRGB(&p, &o.size, path.c_str(), -1, nullptr, nullptr);
    if (o.status == 0) {
        o.rgb.assign(p, p + size_t(o.size.x) * o.size.y * 3);
        korImage_freeImage(p, &o.size, IMAGEFORMAT_RGB);
    }
    return o;
}

// tolerance 1 serves our palette files: their ColorMap holds value x 256,
// which readers scale back to value - 1 for the brightest levels.
void expectMagickAgrees(const std::string& path, int tolerance = 0) {
    const Ours mine = ours(path);
    ASSERT_EQ(mine.status, 0) << path;
    const Bytes theirs = magickPixels(path, mine.size);
    ASSERT_EQ(theirs.size(), mine.rgb.size()) << "convert could not decode " << path;
    int worst = 0;
    for (size_t i = 0; i < theirs.size(); ++i) worst = std::max(worst, std::abs(int(theirs[i]) - int(mine.rgb[i])));
    EXPECT_LE(worst, tolerance) << path;
}

class TiffInterop : public ::testing::Test {
protected:
    iltest::TempDir dir;
    std::string colour = dir.file("src.ppm"), alpha = dir.file("src.pam");
    void SetUp() override {
        if (!have("convert")) GTEST_SKIP() << "ImageMagick absent";
        std::string ppm = "P6\n37 23\n255\n", pam = "P7\nWIDTH 37\nHEIGHT 23\nDEPTH 4\nMAXVAL 255\nTUPLTYPE RGB_ALPHA\nENDHDR\n";
        for (int y = 0; y < 23; ++y)
            for (int x = 0; x < 37; ++x) {
                ppm += {char(x * 7), char(y * 11), char((x ^ y) * 9)};
                pam += {char(x * 7), char(y * 11), char((x ^ y) * 9), char((x + y) % 3 ? 255 : 0)};
            }
        iltest::writeFile(colour, ppm);
        iltest::writeFile(alpha, pam);
    }
    std::string make(const std::string& command, const std::string& name) {
        const std::string out = dir.file(name);
        EXPECT_EQ(iltest::run(command + " '" + out + "' 2>/dev/null"), 0) << command;
        return out;
    }
};

TEST_F(TiffInterop, GdalFilesDecodeToTheirPixelsAndGeoreference) {
    if (!have("gdal_translate") || !have("gdalinfo")) GTEST_SKIP();
    const std::string g = "gdal_translate -q -a_srs EPSG:32631 -a_ullr 500000 4600000 500074 4599954 ";
    const std::string tiled = make(g + "-co TILED=YES -co BLOCKXSIZE=16 -co BLOCKYSIZE=16 -co COMPRESS=DEFLATE '" +
                                       colour + "'",
                                   "gtiles.tif");
    const std::string bands = make(g + "-co INTERLEAVE=BAND -co COMPRESS=LZW -co PREDICTOR=2 '" + colour + "'",
                                   "gbands.tif");
    for (const auto& f : {tiled, bands}) {
        expectMagickAgrees(f);
        ImageFileInfo info{};
        ASSERT_EQ(korImage_readFileInfoEx(&info, f.c_str()), 0);
        EXPECT_EQ(info.type, 29);
        double m[12];
        ASSERT_EQ(korImage_readGeoTiffInfo(m, f.c_str()), 0);
        // gdalinfo: origin 500000, 4600000, pixel 2 x -2; ours: lower left.
        EXPECT_DOUBLE_EQ(m[0], 2);
        EXPECT_DOUBLE_EQ(m[3], 500000);
        EXPECT_DOUBLE_EQ(m[5], 2);
        EXPECT_DOUBLE_EQ(m[7], 4600000 - 23 * 2);
    }
}

// Both polarities of bilevel files read the same through the bitmap
// reader: set bits are the white pixels.
TEST_F(TiffInterop, BilevelPolaritiesGiveTheSameBitmap) {
    const std::string white = make("convert '" + colour + "' -monochrome -compress Group4", "mw.tif");
    const std::string black =
        make("convert '" + colour + "' -monochrome -depth 1 -define quantum:polarity=min-is-black", "mb.tif");
    Bytes got[2];
    int k = 0;
    for (const auto& f : {white, black}) {
        void* p = nullptr;
        ImageSize s{};
        ASSERT_EQ(korImage_readFileToBitMap(&p, &s, f.c_str(), -1, 0, nullptr), 0);
        const size_t rowBytes = size_t((s.x + 7) / 8);
        got[k].assign(static_cast<uint8_t*>(p), static_cast<uint8_t*>(p) + rowBytes * s.y);
        for (int y = 0; y < s.y; ++y) got[k][rowBytes * (y + 1) - 1] &= uint8_t(0xFF << (8 * rowBytes - s.x));
        ++k;
        korImage_freeImage(p, &s, IMAGEFORMAT_BITMAP);
    }
    EXPECT_EQ(got[0], got[1]);
    const Bytes rgb = ours(white).rgb;
    EXPECT_EQ((got[0][0] >> 7) & 1, rgb[0] == 255 ? 1 : 0);
}

TEST_F(TiffInterop, UpdatedGeoreferenceAgreesWithListgeoAndGdal) {
    if (!have("listgeo") || !have("gdalinfo")) GTEST_SKIP();
    const std::string f = make("convert '" + colour + "' -compress LZW", "plain.tif");
    const double origin[3] = {1000, 2000, 0}, extent[2] = {74, 46};
    EXPECT_EQ(korImage_updateGeoReference(origin, extent, f.c_str(), 0), IMGERR_BADIMAGEFORMAT);
    ASSERT_EQ(korImage_updateGeoReference(origin, extent, f.c_str(), 1), 0);
    std::string listing, json;
    ASSERT_EQ(iltest::run("listgeo '" + f + "' 2>/dev/null", &listing), 0);
    EXPECT_NE(listing.find("ModelTransformationTag"), std::string::npos);
    EXPECT_NE(listing.find("63555"), std::string::npos);
    ASSERT_EQ(iltest::run("gdalinfo -json '" + f + "' 2>/dev/null", &json), 0);
    // GDAL takes the matrix as written: origin at the top, y growing upwards.
    EXPECT_NE(json.find("\"geoTransform\":[\n    1000.0,\n    2.0,\n    0.0,\n    2046.0,\n    0.0,\n    2.0\n  ]"),
              std::string::npos)
        << json;
    double m[12];
    ASSERT_EQ(korImage_readGeoTiffInfo(m, f.c_str()), 0);
    EXPECT_DOUBLE_EQ(m[7], 2000);
    expectMagickAgrees(f);  // the pixels survive the rewrite
}

TEST(TiffCorpus, OrientationsReadAsStored) {
    if (iltest::corpusDir().empty()) GTEST_SKIP();
    // Orientations other than 1 and 4 are read as their rows are stored.
    for (int o = 2; o <= 8; ++o) {
        const Ours r = ours(iltest::corpusFile("tif/g4_orientation_" + std::to_string(o) + ".tif"));
        EXPECT_EQ(r.status, 0) << o;
    }
}

}  // namespace
