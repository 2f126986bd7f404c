// PICT, EPS and WPG through the exported entry points: the streaming row
// writers of PICT and EPS, and the write dispatch's routes to each writer,
// give the files their codecs write.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "codecs/native/eps.h"
#include "codecs/native/pict.h"
#include "codecs/native/wpg.h"
#include "imagelib/imagelib.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes planarImage(int w, int h) {
    Bytes rgb(size_t(w) * h * 3);
    for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = uint8_t(i * 7 / 3);
    return rgb;
}

TEST(WriterRoutes, StreamingRowsOfPictAndEps) {
    iltest::TempDir dir;
    const int w = 9, h = 4;
    const ImageSize size{w, h};
    const Bytes rgb = planarImage(w, h);
    // PICT by its name (type -1), EPS by its type.
    for (const auto& [name, type] : {std::pair{"s.pct", -1}, std::pair{"s.eps", 6}}) {
        const std::string path = dir.file(name);
        int status = -1;
        ImageFileContext* c = korImage_createFile(&status, path.c_str(), nullptr, &size, type, COLORMODE_RGB);
        ASSERT_NE(c, nullptr) << name;
        EXPECT_EQ(status, 0);
        for (int y = 0; y < h; ++y) {
            const uint8_t* r = rgb.data() + size_t(y) * w * 3;
            ASSERT_EQ(korImage_putRow(c, r, r + w, r + 2 * w, nullptr), 0);
        }
        EXPECT_EQ(korImage_putRow(c, rgb.data(), rgb.data(), rgb.data(), nullptr), IMGSTAT_NO_MORE_ROWS);
        EXPECT_EQ(korImage_closeFile(c), 0);
        const Bytes streamed = iltest::readFile(path);
        ASSERT_EQ(type == 6 ? imageEps_writeFromRGB(path.c_str(), rgb.data(), &size, 1, nullptr)
                            : imagePict_writeFromRGB(path.c_str(), rgb.data(), &size, 1, nullptr),
                  0);
        EXPECT_EQ(streamed, iltest::readFile(path)) << name;
    }
}

TEST(WriterRoutes, DispatchReachesEachWriter) {
    iltest::TempDir dir;
    const int w = 6, h = 3;
    const ImageSize size{w, h};
    const Bytes rgb = planarImage(w, h);
    Bytes map(size_t(w) * h);
    for (size_t i = 0; i < map.size(); ++i) map[i] = uint8_t(i % 3);
    uint8_t r[256] = {10, 20, 30}, g[256] = {40, 50, 60}, b[256] = {70, 80, 90};
    // Each file is written twice under one name (EPS files carry it), through
    // the dispatch and straight through the codec.
    const std::string a = dir.file("a");
    for (const auto& [type, mode] : {std::pair{4, 1}, {4, 4}, {6, 1}, {6, 4}, {8, 4}}) {
        ASSERT_EQ(korImage_createFileFromRGB(a.c_str(), type, mode, &size, rgb.data(), nullptr), 0) << type;
        const Bytes routed = iltest::readFile(a);
        const int direct = type == 4   ? imagePict_writeFromRGB(a.c_str(), rgb.data(), &size, mode, nullptr)
                           : type == 6 ? imageEps_writeFromRGB(a.c_str(), rgb.data(), &size, mode, nullptr)
                                       : imageWpg_writeFromRGB(a.c_str(), rgb.data(), &size, mode, nullptr);
        ASSERT_EQ(direct, 0);
        EXPECT_EQ(routed, iltest::readFile(a)) << type << " " << mode;
    }
    for (int type : {4, 8}) {
        ASSERT_EQ(korImage_createFileFromMap(a.c_str(), type, COLORMODE_PALETTE256, &size, map.data(), r, g, b, 3,
                                             nullptr),
                  0);
        const Bytes routed = iltest::readFile(a);
        const int direct = type == 4 ? imagePict_writeFromMap(a.c_str(), map.data(), r, g, b, 3, &size, 3, 0, nullptr)
                                     : imageWpg_writeFromMap(a.c_str(), map.data(), r, g, b, 3, &size, 3, 0, nullptr);
        ASSERT_EQ(direct, 0);
        EXPECT_EQ(routed, iltest::readFile(a)) << type;
    }
    // WPG holds palette images only; EPS colour or grey only.
    EXPECT_EQ(korImage_createFileFromRGB(a.c_str(), 8, COLORMODE_RGB, &size, rgb.data(), nullptr), IMGERR_BADARG);
    EXPECT_EQ(korImage_createFileFromRGB(a.c_str(), 6, COLORMODE_PALETTE256, &size, rgb.data(), nullptr),
              IMGERR_BADARG);
}

}  // namespace
