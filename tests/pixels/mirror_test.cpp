#include <gtest/gtest.h>

#include "rotate_images.h"

using namespace geotest;

TEST(Mirror, EveryLayoutBothModesMatchTheGridAndUndoThemselves) {
    const ImageSize sizes[] = {{1, 1}, {10, 5}, {16, 4}, {33, 7}, {200, 3}};
    for (int format : kAllFormats)
        for (ImageSize s : sizes) {
            const Grid g = randomGrid(format, s.x, s.y, unsigned(format * 77 + s.x));
            for (int mode : {0, 1, 2}) {
                Image img;
                fill(img, format, g);
                ASSERT_EQ(korImage_mirror(img.data, &img.size, format, mode, nullptr), 0);
                EXPECT_EQ(grid(img), mirrored(g, mode)) << "format " << format << " mode " << mode << " "
                                                        << s.x << "x" << s.y;
                ASSERT_EQ(korImage_mirror(img.data, &img.size, format, mode, nullptr), 0);
                EXPECT_EQ(grid(img), g) << "format " << format << " mode " << mode;
            }
        }
}

TEST(Mirror, TopToBottom) {
    // On row tables only the row pointers change places, without polling.
    Image pb;
    fill(pb, IMAGEFORMAT_PACKBYTE, randomGrid(IMAGEFORMAT_PACKBYTE, 4, 3, 2));
    void** rows = static_cast<void**>(pb.data);
    void* const before[3] = {rows[0], rows[1], rows[2]};
    PollScope ps;
    ASSERT_EQ(korImage_mirror(pb.data, &pb.size, IMAGEFORMAT_PACKBYTE, 0, recordPoll), 0);
    EXPECT_EQ(rows[0], before[2]);
    EXPECT_EQ(rows[1], before[1]);
    EXPECT_EQ(rows[2], before[0]);
    EXPECT_TRUE(ps.log.calls.empty());

    // Other layouts poll (H / 2, i) before each exchange.
    Image rgb;
    fill(rgb, IMAGEFORMAT_RGB, randomGrid(IMAGEFORMAT_RGB, 3, 7, 3));
    ASSERT_EQ(korImage_mirror(rgb.data, &rgb.size, IMAGEFORMAT_RGB, 0, recordPoll), 0);
    EXPECT_EQ(ps.log.calls, (Calls{{3, 0}, {3, 1}, {3, 2}}));
}

TEST(Mirror, LeftToRight) {
    // A bitmap row of 10 pixels with pixels 0, 1, 9 and the padding set: the
    // reversed row has pixels 0, 8, 9 and clear padding.
    uint8_t bits[] = {0xC0, 0x7F};
    const ImageSize ten{10, 1};
    ASSERT_EQ(korImage_mirror(bits, &ten, IMAGEFORMAT_BITMAP, 1, nullptr), 0);
    EXPECT_EQ(bits[0], 0x80);
    EXPECT_EQ(bits[1], 0xC0);

    // Polls (H, row) before every row and stops with -144.
    PollScope ps;
    ps.log.stopAt = 2;
    Image map;
    fill(map, IMAGEFORMAT_MAP, randomGrid(IMAGEFORMAT_MAP, 4, 5, 1));
    EXPECT_EQ(korImage_mirror(map.data, &map.size, IMAGEFORMAT_MAP, 1, recordPoll), IMGERR_STOPPED);
    EXPECT_EQ(ps.log.calls, (Calls{{5, 0}, {5, 1}, {5, 2}}));
    EXPECT_EQ(korImage_mirror(map.data, &map.size, 9, 1, nullptr), IMGERR_BADARG);
    EXPECT_EQ(korImage_mirror(map.data, &map.size, 0, 0, nullptr), IMGERR_BADARG);
}
