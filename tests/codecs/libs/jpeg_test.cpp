// JPEG codec: the writer's quality rule, grey and colour round trips, the
// refused component counts, the silent and the printing error paths, and
// headers that claim more than their file can hold.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <jpeglib.h>

#include "codecs/libs/jpeg.h"
#include "imagelib/imagelib.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes planarPicture(int w, int h) {
    Bytes rgb(size_t(w) * h * 3);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 3; ++c) rgb[(size_t(y) * 3 + c) * w + x] = uint8_t(x * 3 + y * 2 + c * 50);
    return rgb;
}

// The first value of the first quantisation table: 16 scaled by quality
// (q 75 gives 8, q 90 gives 3, q 40 gives 20).
int firstQuantValue(const std::string& path) {
    const Bytes f = iltest::readFile(path);
    for (size_t i = 2; i + 5 < f.size(); ++i)
        if (f[i] == 0xFF && f[i + 1] == 0xDB) return f[i + 5];
    return -1;
}

class Jpeg : public ::testing::Test {
protected:
    iltest::TempDir dir;
    std::string file = dir.file("a.jpg");
    ImageSize size{37, 21};
    Bytes rgb = planarPicture(37, 21);
    uint8_t r[256], g[256], b[256];
    int count = -1;

    int write(int quality, int mode = COLORMODE_RGB, int grey = 0, const uint8_t* data = nullptr) {
        return jpegFile_create(file.c_str(), &size, data ? data : rgb.data(), quality, mode, grey, nullptr);
    }
};

TEST_F(Jpeg, WriterQualityAbove90IsNotOffered) {
    const std::vector<std::pair<int, int>> cases = {{95, 8}, {100, 8}, {-1, 8}, {90, 3}, {40, 20}, {75, 8}};
    for (auto [quality, q0] : cases) {
        ASSERT_EQ(write(quality), 0);
        EXPECT_EQ(firstQuantValue(file), q0) << "quality " << quality;
    }
}

TEST_F(Jpeg, ColourAndGreyRoundTrips) {
    ASSERT_EQ(write(90), 0);
    ImageSize s{};
    int mode = 0;
    ASSERT_EQ(jpegFile_readInfo(&s, &mode, file.c_str()), 0);
    EXPECT_EQ(mode, COLORMODE_RGB);
    EXPECT_EQ(jpegFile_detect(file.c_str()), 0);
    void* p = nullptr;
    ASSERT_EQ(jpegFile_read(&p, &s, r, g, b, &count, file.c_str(), 0, 0, 0, 256, nullptr), 0);
    EXPECT_EQ(count, 0);
    ASSERT_EQ(s.x, 37);
    const uint8_t* px = static_cast<uint8_t*>(p);
    int worst = 0;
    for (size_t i = 0; i < rgb.size(); ++i) worst = std::max(worst, std::abs(int(px[i]) - rgb[i]));
    EXPECT_LT(worst, 24);  // row-planar, in the right planes
    korImage_freeImage(p, &s, IMAGEFORMAT_RGB);

    // Grey output from RGB input has one component; grey input likewise.
    ASSERT_EQ(write(90, COLORMODE_RGB, 1), 0);
    ASSERT_EQ(jpegFile_readInfo(nullptr, &mode, file.c_str()), 0);
    EXPECT_EQ(mode, COLORMODE_GREY);
    Bytes grey(size_t(size.x) * size.y);
    for (size_t i = 0; i < grey.size(); ++i) grey[i] = uint8_t(i % 200);
    ASSERT_EQ(write(90, COLORMODE_GREY, 1, grey.data()), 0);
    void* map = nullptr;
    ASSERT_EQ(jpegFile_read(&map, &s, r, g, b, &count, file.c_str(), 0, 1, 1, 16, nullptr), 0);
    EXPECT_EQ(count, 256);
    EXPECT_EQ(r[0] + g[100] + b[255], 0 + 100 + 255);
    void* rows = nullptr;
    ASSERT_EQ(jpegFile_read(&rows, &s, r, g, b, &count, file.c_str(), 1, 0, 0, 256, nullptr), 0);
    Bytes unpacked(grey.size());
    for (int y = 0; y < s.y; ++y)
        korImage_unpackByteBuffer(&unpacked[size_t(y) * s.x], static_cast<uint8_t**>(rows)[y], s.x);
    EXPECT_EQ(0, std::memcmp(unpacked.data(), map, unpacked.size()));
    korImage_freeImage(map, &s, IMAGEFORMAT_MAP);
    korImage_freeImage(rows, &s, IMAGEFORMAT_PACKBYTE);
}

// A 4 x 4 CMYK JPEG written with libjpeg.
bool writeCmyk(const std::string& path) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    jpeg_compress_struct c;
    jpeg_error_mgr err;
    c.err = jpeg_std_error(&err);
    jpeg_create_compress(&c);
    jpeg_stdio_dest(&c, f);
    c.image_width = c.image_height = 4;
    c.input_components = 4;
    c.in_color_space = JCS_CMYK;
    jpeg_set_defaults(&c);
    jpeg_start_compress(&c, TRUE);
    uint8_t row[16] = {};
    JSAMPROW rows[1] = {row};
    while (c.next_scanline < c.image_height) jpeg_write_scanlines(&c, rows, 1);
    jpeg_finish_compress(&c);
    jpeg_destroy_compress(&c);
    std::fclose(f);
    return true;
}

TEST_F(Jpeg, FourComponentsAreRefused) {
    ASSERT_TRUE(writeCmyk(file));
    std::vector<std::string> files = {file};
    const std::string corpus = iltest::corpusFile("jpg/pil_sample_cmyk.jpg");
    if (!corpus.empty()) files.push_back(corpus);
    for (const std::string& cmyk : files) {
        void* p = nullptr;
        ImageSize s{};
        EXPECT_EQ(jpegFile_detect(cmyk.c_str()), IMGERR_BADFILE);
        EXPECT_EQ(jpegFile_read(&p, &s, r, g, b, &count, cmyk.c_str(), 0, 0, 0, 256, nullptr), IMGERR_BADFILE);
        EXPECT_EQ(p, nullptr);
    }
}

TEST_F(Jpeg, DetectorIsSilentAndReaderPrints) {
    iltest::writeFile(file, Bytes{0xFF, 0xD8, 1, 2, 3, 4, 5, 6, 7, 8});
    testing::internal::CaptureStderr();
    EXPECT_EQ(jpegFile_detect(file.c_str()), IMGERR_DECODEFAILED);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    void* p = nullptr;
    ImageSize s{};
    testing::internal::CaptureStderr();
    EXPECT_EQ(jpegFile_read(&p, &s, r, g, b, &count, file.c_str(), 0, 0, 0, 256, nullptr), IMGERR_DECODEFAILED);
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(jpegFile_detect(dir.file("missing.jpg").c_str()), IMGERR_OPENFAILED);
}

int stopAtThird(int, int done) { return done == 3; }

TEST_F(Jpeg, StopsAndOversizedHeaders) {
    ASSERT_EQ(write(75), 0);
    void* p = nullptr;
    ImageSize s{};
    EXPECT_EQ(jpegFile_read(&p, &s, r, g, b, &count, file.c_str(), 0, 0, 0, 256, stopAtThird), IMGERR_STOPPED);
    EXPECT_EQ(write(75, COLORMODE_RGB, 0), 0);
    EXPECT_EQ(jpegFile_create(file.c_str(), &size, rgb.data(), 75, 1, 0, stopAtThird), IMGERR_STOPPED);

    // The same small file with a frame header claiming 60000 x 60000.
    ASSERT_EQ(write(75), 0);
    Bytes f = iltest::readFile(file);
    size_t sof = 2;
    while (sof + 9 < f.size() && !(f[sof] == 0xFF && f[sof + 1] == 0xC0)) ++sof;
    ASSERT_LT(sof + 9, f.size());
    f[sof + 5] = f[sof + 7] = 0xEA;  // 0xEA60 = 60000
    f[sof + 6] = f[sof + 8] = 0x60;
    iltest::writeFile(file, f);
    EXPECT_EQ(jpegFile_readInfo(&s, nullptr, file.c_str()), 0);
    EXPECT_EQ(s.x, 60000);
    EXPECT_EQ(jpegFile_read(&p, &s, r, g, b, &count, file.c_str(), 0, 0, 0, 256, nullptr), IMGERR_BADFILE);
}

}  // namespace
