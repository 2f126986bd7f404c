#include <gtest/gtest.h>

#include "rotate_images.h"

using namespace geotest;

namespace {

int rotateInto(Image& out, const Image& src, int angle, StopFunction stop = nullptr) {
    out.reset();
    out.format = src.format;
    out.size = src.size;
    return korImage_rotate(&out.data, &out.size, src.data, &src.size, src.format, angle, stop);
}

}  // namespace

TEST(Rotate, ThreeByTwoMapByEachQuarterTurn) {
    Image src, r;
    fill(src, IMAGEFORMAT_MAP, Grid{3, 2, 1, {1, 2, 3, 4, 5, 6}});
    ASSERT_EQ(rotateInto(r, src, 90), 0);
    EXPECT_EQ(r.size.x, 2);
    EXPECT_EQ(r.size.y, 3);
    // First row: the last source column read top to bottom.
    EXPECT_EQ(grid(r).px, (std::vector<uint8_t>{3, 6, 2, 5, 1, 4}));
    ASSERT_EQ(rotateInto(r, src, 270), 0);
    EXPECT_EQ(grid(r).px, (std::vector<uint8_t>{4, 1, 5, 2, 6, 3}));
    ASSERT_EQ(rotateInto(r, src, 180), 0);
    EXPECT_EQ(r.size.x, 3);
    EXPECT_EQ(grid(r).px, (std::vector<uint8_t>{6, 5, 4, 3, 2, 1}));
}

// Every layout against the geometry on the plain grid, at sizes that cross
// the 8-pixel blocks and the tiles of the fast paths; then four quarter
// turns in place (result, source and size record shared) give it back.
TEST(Rotate, EveryLayoutMatchesTheGridAndFourTurnsAreIdentity) {
    const ImageSize sizes[] = {{1, 1}, {7, 3}, {8, 8}, {9, 17}, {70, 130}, {131, 66}};
    for (int format : kAllFormats)
        for (ImageSize s : sizes) {
            const Grid g = randomGrid(format, s.x, s.y, unsigned(format * 1000 + s.x));
            Image img;
            fill(img, format, g);
            for (int angle : {90, 180, 270}) {
                Image r;
                ASSERT_EQ(rotateInto(r, img, angle), 0);
                EXPECT_EQ(grid(r), rotated(g, angle)) << "format " << format << " angle " << angle << " "
                                                      << s.x << "x" << s.y;
            }
            for (int angle : {90, 270, 180})
                for (int i = 0; i < (angle == 180 ? 2 : 4); ++i)
                    ASSERT_EQ(korImage_rotate(&img.data, &img.size, img.data, &img.size, format, angle, nullptr), 0);
            EXPECT_EQ(grid(img), g) << "format " << format;
        }
}

TEST(Rotate, OtherAnglesAndBadLayouts) {
    for (int format : kAllFormats) {
        Image src, r;
        fill(src, format, randomGrid(format, 5, 3, 1));
        for (int angle : {45, 0, -90, 360}) {
            ASSERT_EQ(rotateInto(r, src, angle), 0);
            ASSERT_NE(r.data, nullptr);
            EXPECT_NE(r.data, src.data);
            EXPECT_EQ(r.size.x, 5);
            if (format == IMAGEFORMAT_RLEBITMAP || format == IMAGEFORMAT_PACKBYTE) {
                for (int y = 0; y < 3; ++y) EXPECT_EQ(static_cast<void**>(r.data)[y], nullptr);
            }
        }
    }
    Image src;
    fill(src, IMAGEFORMAT_MAP, randomGrid(3, 2, 2, 1));
    void* out = nullptr;
    EXPECT_EQ(korImage_rotate(&out, nullptr, src.data, &src.size, 0, 90, nullptr), IMGERR_BADARG);
    EXPECT_EQ(korImage_rotate(&out, nullptr, src.data, &src.size, 9, 90, nullptr), IMGERR_BADARG);
    EXPECT_EQ(out, nullptr);
}

TEST(Rotate, PollingAndStopping) {
    Image src, r;
    fill(src, IMAGEFORMAT_MAP, randomGrid(IMAGEFORMAT_MAP, 10, 70, 3));
    {
        PollScope ps;
        ASSERT_EQ(rotateInto(r, src, 90, recordPoll), 0);
        ASSERT_EQ(ps.log.calls.size(), 70u);
        for (int y = 0; y < 70; ++y) EXPECT_EQ(ps.log.calls[size_t(y)], std::make_pair(70, y));
        ps.log.calls.clear();
        ASSERT_EQ(rotateInto(r, src, 180, recordPoll), 0);
        ASSERT_EQ(ps.log.calls.size(), 70u);
        EXPECT_EQ(ps.log.calls.front(), std::make_pair(70, 70));  // the count runs downwards
        EXPECT_EQ(ps.log.calls.back(), std::make_pair(70, 1));
    }
    for (int format : kAllFormats) {
        Image img;
        fill(img, format, randomGrid(format, 12, 20, 4));
        void* const before = img.data;
        PollScope ps;
        ps.log.stopAt = 5;
        EXPECT_EQ(korImage_rotate(&img.data, &img.size, img.data, &img.size, format, 90, recordPoll),
                  IMGERR_STOPPED);
        EXPECT_EQ(img.data, before);  // unchanged and still the caller's
        EXPECT_EQ(img.size.x, 12);
        // Six polls up to the stop, then one in each further pass.
        const size_t passes = format == 7 ? 4 : format == 5 || format == 6 ? 3 : 1;
        EXPECT_EQ(ps.log.calls.size(), 6u + passes - 1) << format;
    }
    // Interleaved RGB rotates in three passes and only the last decides: a
    // stop asked only in the first pass does not stop the rotation.
    fill(src, IMAGEFORMAT_RGB2, randomGrid(IMAGEFORMAT_RGB2, 6, 4, 5));
    PollScope ps;
    ps.log.stopAt = 0;
    ps.log.stopEnd = 1;
    ASSERT_EQ(rotateInto(r, src, 90, recordPoll), 0);
    EXPECT_EQ(ps.log.calls.size(), 1u + 4 + 4);
}

TEST(Rotate, RowTablesFromFilesNeverWriteOutOfBounds) {
    // A last run far past the width is clipped; a missing row reads as
    // background.
    const uint16_t row0[] = {3, 60000}, row2[] = {0, 2, 65535};
    auto** rows = static_cast<uint16_t**>(dlmSystem_korCalloc(3, sizeof(uint16_t*)));
    rows[0] = copyOut<uint16_t>(row0, sizeof row0);
    rows[2] = copyOut<uint16_t>(row2, sizeof row2);
    Image img, r;
    img.data = rows;
    img.size = {10, 3};
    img.format = IMAGEFORMAT_RLEBITMAP;
    Grid expect{10, 3, 1, std::vector<uint8_t>(30, 0)};
    for (int x = 3; x < 10; ++x) *expect.at(x, 0) = 1;
    *expect.at(0, 2) = *expect.at(1, 2) = 1;
    ASSERT_EQ(rotateInto(r, img, 90), 0);
    EXPECT_EQ(grid(r), rotated(expect, 90));

    // Runs that never reach the width are bad data.
    const std::vector<uint16_t> zeros(64, 0);
    rows[1] = copyOut<uint16_t>(zeros.data(), zeros.size() * 2);
    EXPECT_EQ(rotateInto(r, img, 270), IMGERR_BADFILE);
    EXPECT_EQ(korImage_mirror(img.data, &img.size, IMAGEFORMAT_RLEBITMAP, 1, nullptr), IMGERR_BADFILE);

    // A PackByte repeat longer than the row is cut at the width.
    const uint8_t p0[] = {0x80, 7};
    auto** packed = static_cast<uint8_t**>(dlmSystem_korCalloc(2, sizeof(uint8_t*)));
    packed[0] = copyOut<uint8_t>(p0, sizeof p0);
    Image pb;
    pb.data = packed;
    pb.size = {5, 2};
    pb.format = IMAGEFORMAT_PACKBYTE;
    ASSERT_EQ(rotateInto(r, pb, 270), 0);
    EXPECT_EQ(grid(r), rotated(Grid{5, 2, 1, {7, 7, 7, 7, 7, 0, 0, 0, 0, 0}}, 270));
}
