// The streaming row interface: handler selection, the row counter and its
// positive codes, and on-the-fly scaling checked against the whole-image
// resampler.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "codecs/native/bmp.h"
#include "stream_test_util.h"
#include "test_support.h"

using stest::Planar;

namespace {

Planar resized(const Planar& img, ImageSize to) {
    void* out = nullptr;
    const int s = img.planes == 4 ? korImage_resizeRGBA(&out, &to, img.data.data(), &img.size, nullptr)
                                  : korImage_resize(&out, &to, img.data.data(), &img.size, nullptr);
    Planar r(to.x, to.y, img.planes);
    EXPECT_EQ(s, 0);
    if (s == 0) std::memcpy(r.data.data(), out, r.data.size());
    dlmSystem_korFree(out);
    return r;
}

// A Targa file whose stored rows are img's rows in order, at fileSize.
int writeInOrder(const std::string& path, const Planar& img, ImageSize fileSize) {
    return stest::writeStream(path, img, &fileSize, 2, img.planes == 4 ? 6 : 1, true);
}

TEST(StreamRows, UnscaledRowsAndRowCounter) {
    iltest::TempDir dir;
    const std::string path = dir.file("round.tga");
    const Planar img = stest::pattern(37, 4, 4);
    ASSERT_EQ(stest::writeStream(path, img, nullptr, -1, COLORMODE_RGBA), 0);

    ImageSize same{37, 4};
    int status = -1;
    ImageFileContext* c = korImage_openFile(&status, &same, path.c_str());
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(c->scaling, 0);  // a requested size equal to the file's
    EXPECT_EQ(il::stream::orientationBits(c), il::stream::kRowsBottomUp);
    int orientation = -1, alpha = -1;
    EXPECT_EQ(imagelib_getFileLayout(c, &orientation, &alpha), 0);
    EXPECT_EQ(std::pair(orientation & 3, alpha), std::pair(il::stream::kRowsBottomUp, 1));
    Planar back = img;
    for (int r = 3; r >= 0; --r) {
        EXPECT_EQ(c->row, 2 - r);
        std::memset(back.plane(r, 0), 0, 37);
        std::memset(back.plane(r, 2), 0, 2 * 37);
        ASSERT_EQ(korImage_getRow(c, back.plane(r, 0), nullptr, back.plane(r, 2), back.plane(r, 3)), 0);
    }
    EXPECT_EQ(back.data, img.data);  // the green plane was skipped
    uint8_t r[37], g[37], b[37], a[37];
    EXPECT_EQ(korImage_getRow(c, r, g, b, nullptr), IMGSTAT_NO_MORE_ROWS);  // a fifth row of four
    EXPECT_EQ(c->row, 3);
    EXPECT_EQ(korImage_closeFile(c), 0);
    ImageSize fileSize{};
    EXPECT_EQ(korImage_getFileSize(&fileSize, path.c_str()), 0);
    EXPECT_EQ(std::pair(fileSize.x, fileSize.y), std::pair(37, 4));

    // Without colour mode 6 no alpha is written, and none is filled in.
    ASSERT_EQ(stest::writeStream(path, img, nullptr, 2, COLORMODE_RGB), 0);
    c = korImage_openFile(&status, nullptr, path.c_str());
    ASSERT_NE(c, nullptr);
    std::memset(a, 0x5A, sizeof a);
    EXPECT_EQ(korImage_getRow(c, r, g, b, a), 0);
    EXPECT_EQ(std::count(a, a + 37, 0x5A), 37);
    korImage_closeFile(c);

    ImageSize one{3, 1};
    c = korImage_createFile(&status, path.c_str(), nullptr, &one, 2, COLORMODE_RGB);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(korImage_putRow(c, r, g, b, nullptr), 0);
    EXPECT_EQ(korImage_putRow(c, r, g, b, nullptr), IMGSTAT_NO_MORE_ROWS);
    EXPECT_EQ(korImage_closeFile(c), 0);
}

TEST(StreamRows, ScaledReads) {
    iltest::TempDir dir;
    const std::string path = dir.file("s.tga");
    Planar back;
    // Enlargement in y interpolates between the two rows read at open, so
    // the rows equal the whole-image resampling.
    for (int planes : {3, 4}) {
        const Planar img = stest::pattern(7, 5, planes);
        ASSERT_EQ(writeInOrder(path, img, img.size), 0);
        for (ImageSize to : {ImageSize{12, 9}, ImageSize{7, 11}, ImageSize{3, 13}}) {
            ASSERT_EQ(stest::readStream(path, &to, &back, nullptr, planes == 4), 0);
            EXPECT_EQ(back.data, resized(img, to).data) << to.x << "x" << to.y << ", " << planes << " planes";
        }
    }
    // A width-only change consumes the first two stored rows at open: the
    // first row handed over is made from the third, and when the stored rows
    // run out two rows early the last one is handed over again.
    const Planar img = stest::pattern(9, 10, 3);
    ASSERT_EQ(writeInOrder(path, img, img.size), 0);
    Planar shifted(9, 10, 3);
    ImageSize wider{13, 10};
    ASSERT_EQ(stest::readStream(path, &wider, &back), 0);
    for (int r = 0; r < 10; ++r) std::memcpy(shifted.plane(r, 0), img.plane(std::min(r + 2, 9), 0), 27);
    EXPECT_EQ(back.data, resized(shifted, wider).data);
    // Reduction in y adds stored rows from the third on: the whole-image
    // reduction of the file with its first two rows black.
    Planar blanked = img;
    std::memset(blanked.data.data(), 0, size_t(9) * 3 * 2);
    for (ImageSize to : {ImageSize{9, 5}, ImageSize{4, 3}, ImageSize{13, 4}}) {
        ASSERT_EQ(stest::readStream(path, &to, &back), 0);
        EXPECT_EQ(back.data, resized(blanked, to).data) << to.x << "x" << to.y;
    }
    // A one-row file enlarged holds its row twice.
    const Planar line = stest::pattern(4, 1, 3);
    ASSERT_EQ(writeInOrder(path, line, line.size), 0);
    ImageSize big{8, 3};
    ASSERT_EQ(stest::readStream(path, &big, &back), 0);
    EXPECT_EQ(back.data, resized(line, big).data);
}

TEST(StreamRows, ScaledWrites) {
    iltest::TempDir dir;
    const std::string path = dir.file("w.tga");
    for (int planes : {3, 4}) {
        const Planar img = stest::pattern(10, 7, planes);
        for (ImageSize file : {ImageSize{15, 7}, ImageSize{6, 13}, ImageSize{4, 3}, ImageSize{10, 1}}) {
            ASSERT_EQ(writeInOrder(path, img, file), 0);
            Planar back;
            ASSERT_EQ(stest::readStream(path, nullptr, &back, nullptr, planes == 4), 0);
            EXPECT_EQ(back.data, resized(img, file).data) << file.x << "x" << file.y << ", " << planes << " planes";
        }
    }
    // A reducing writer holds caller rows back until a file row is complete.
    ImageSize rows{4, 4}, file{4, 2};
    int status = 0;
    ImageFileContext* c = korImage_createFile(&status, path.c_str(), &file, &rows, 2, 1);
    ASSERT_NE(c, nullptr);
    uint8_t row[4] = {1, 2, 3, 4};
    for (int stored : {0, 0, 1, 2}) {
        EXPECT_EQ(korImage_putRow(c, row, row, row, nullptr), 0);
        EXPECT_EQ(c->storedRows, stored);
    }
    EXPECT_EQ(korImage_putRow(c, row, row, row, nullptr), IMGSTAT_NO_MORE_ROWS);
    korImage_closeFile(c);

    // BMP through its row writer: the first row given is the bottom one.
    const Planar img = stest::pattern(13, 5, 3);
    for (ImageSize size : {ImageSize{13, 5}, ImageSize{7, 9}}) {
        ASSERT_EQ(stest::writeStream(dir.file("s.bmp"), img, &size, 9, COLORMODE_RGB), 0);
        uint8_t* rgb = nullptr;
        ImageSize got{};
        ASSERT_EQ(imageBmp_readToRGB(&rgb, &got, dir.file("s.bmp").c_str()), 0);
        EXPECT_EQ(std::pair(got.x, got.y), std::pair(size.x, size.y));
        const Planar expected = stest::upright(resized(stest::upright(img, 6), size), 6);
        EXPECT_TRUE(std::equal(expected.data.begin(), expected.data.end(), rgb)) << size.x << "x" << size.y;
        dlmSystem_korFree(rgb);
    }
}

TEST(StreamRows, HandlerSelectionAndFailures) {
    iltest::TempDir dir;
    const ImageSize size{2, 2};
    int status = 0;
    for (int type : {5, 7, 10, 28, -1}) {  // types without a row writer, and one by the name
        EXPECT_EQ(korImage_createFile(&status, dir.file("x.pcx").c_str(), nullptr, &size, type, 1), nullptr);
        EXPECT_EQ(status, IMGSTAT_NO_HANDLER) << type;
    }
    ImageFileContext* c = korImage_createFile(&status, dir.file("x.TGA").c_str(), nullptr, &size, -1, 1);
    ASSERT_NE(c, nullptr);
    korImage_closeFile(c);
    EXPECT_EQ(iltest::readFile(dir.file("x.TGA")).at(2), 10);
    // An unknown extension is written as Intergraph RGB, as type 1 is.
    int byName = 0, byType = 0;
    ImageFileContext* a = korImage_createFile(&byName, dir.file("x.xyz").c_str(), nullptr, &size, -1, 1);
    ImageFileContext* b = korImage_createFile(&byType, dir.file("y.xyz").c_str(), nullptr, &size, 1, 1);
    EXPECT_EQ(byName, byType);
    EXPECT_EQ(a == nullptr, b == nullptr);
    if (a) korImage_closeFile(a);
    if (b) korImage_closeFile(b);

    ASSERT_TRUE(iltest::writeFile(dir.file("empty.tga"), std::vector<uint8_t>{}));
    for (const char* name : {"missing.tga", "empty.tga"}) {
        status = 0;
        EXPECT_EQ(korImage_openFile(&status, nullptr, dir.file(name).c_str()), nullptr);
        EXPECT_NE(status, 0);
        ImageSize s{};
        EXPECT_EQ(korImage_getFileSize(&s, dir.file(name).c_str()), status);
    }
    ASSERT_EQ(writeInOrder(dir.file("ok.tga"), stest::pattern(3, 3, 3), {3, 3}), 0);
    ImageSize bad{0, 3};
    EXPECT_EQ(korImage_openFile(&status, &bad, dir.file("ok.tga").c_str()), nullptr);
    EXPECT_EQ(status, IMGERR_BADARG);
    // Targa files carry no background: 32768, the colour left alone.
    uint8_t colour[4] = {1, 2, 3, 4};
    EXPECT_EQ(korImage_getImageBgColor(colour, dir.file("ok.tga").c_str(), -1), IMGSTAT_NO_BACKGROUND);
    EXPECT_EQ(colour[0] + colour[3], 5);
}

}  // namespace
