// Display-procedure images read through the test program pmaprog.pma
// (tests/codecs/native/pma_program.c): size, drawing at a given size,
// progress forwarding, programs without a procedure, hosts without a
// program loader.
#include <gtest/gtest.h>

#include <vector>

#include "codecs/native/pma.h"
#include "imagelib/host.h"

namespace {

constexpr const char* kProgram = IMAGELIB_PMA_PROGRAM;

// Checks an image drawn by pmaprog: red 10 x, green 20 y, blue 200.
void expectDrawn(const uint8_t* rgb, ImageSize s) {
    for (int y = 0; y < s.y; ++y)
        for (int x = 0; x < s.x; ++x) {
            const uint8_t* row = rgb + 3 * size_t(s.x) * y;
            ASSERT_EQ(row[x], 10 * x);
            ASSERT_EQ(row[s.x + x], 20 * y);
            ASSERT_EQ(row[2 * s.x + x], 200);
        }
}

TEST(Pma, SizeAndPixelsFromTheProgram) {
    ImageSize s{};
    int format = 0;
    ASSERT_EQ(imagePma_open(&s, &format, kProgram), 0);
    EXPECT_EQ(format, COLORMODE_RGB);
    EXPECT_EQ(std::pair(s.x, s.y), std::pair(7, 5));
    EXPECT_EQ(korSystem_getTaskStatistics("pmaprog"), 1);

    // No size given (-1, -1): the program's own.
    uint8_t* rgb = nullptr;
    s = ImageSize{-1, -1};
    ASSERT_EQ(imagePma_readToRGB(&rgb, &s, kProgram, nullptr), 0);
    EXPECT_EQ(std::pair(s.x, s.y), std::pair(7, 5));
    expectDrawn(rgb, s);
    korImage_freeImage(rgb, &s, IMAGEFORMAT_RGB);

    // A positive size is kept: the program draws at it.
    s = ImageSize{12, 3};
    ASSERT_EQ(imagePma_readToRGB(&rgb, &s, kProgram, nullptr), 0);
    EXPECT_EQ(std::pair(s.x, s.y), std::pair(12, 3));
    expectDrawn(rgb, s);
    korImage_freeImage(rgb, &s, IMAGEFORMAT_RGB);
}

std::vector<std::pair<int, int>> g_calls;

TEST(Pma, ProgressReachesTheCaller) {
    g_calls.clear();
    ImageSize s{-1, -1};
    uint8_t* rgb = nullptr;
    StopFunction stopAtRow2 = [](int rows, int row) {
        g_calls.emplace_back(rows, row);
        return row == 2 ? 1 : 0;
    };
    EXPECT_EQ(imagePma_readToRGB(&rgb, &s, kProgram, stopAtRow2), IMGERR_STOPPED);
    EXPECT_EQ(rgb, nullptr);
    EXPECT_EQ(g_calls, (std::vector<std::pair<int, int>>{{5, 0}, {5, 1}, {5, 2}}));
}

TEST(Pma, ProgramsThatCannotDraw) {
    // No display procedure: -119, and the program is unloaded again.
    ImageSize s{};
    EXPECT_EQ(imagePma_open(&s, nullptr, IMAGELIB_PMA_NOPROCEDURE), IMGERR_UNSUPPORTEDTYPE);
    EXPECT_EQ(korSystem_getTaskStatistics("pmanone"), 0);
    // Not there, or not a shared object: -113.
    EXPECT_EQ(imagePma_open(&s, nullptr, "/nonexistent/maps.pma"), IMGERR_OPENFAILED);
    EXPECT_EQ(imagePma_open(&s, nullptr, __FILE__), IMGERR_OPENFAILED);

    // A host that cannot load programs: -119.
    ImageHost h{};
    h.programCount = [](const char*) { return 0; };
    h.loadProgram = [](const char*, const char*) { return IMGERR_UNSUPPORTEDTYPE; };
    imagelib_setHost(&h);
    uint8_t* rgb = nullptr;
    s = ImageSize{-1, -1};
    const int st = imagePma_readToRGB(&rgb, &s, kProgram, nullptr);
    imagelib_setHost(nullptr);
    EXPECT_EQ(st, IMGERR_UNSUPPORTEDTYPE);
}

}  // namespace
