// The AVI writer: the written file parsed field by field, frame data, the
// rate rule, rounding, stops and the size limit.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "codecs/native/avi.h"
#include "imagelib/io.h"
#include "internal/bytes.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

uint32_t u32(const Bytes& b, size_t at) { return il::get32le(&b[at]); }
std::string cc(const Bytes& b, size_t at) { return std::string(b.begin() + at, b.begin() + at + 4); }

// Row-planar RGB where every pixel differs by row, column and frame.
Bytes frameRGB(int w, int h, int k) {
    Bytes rgb(size_t(w) * h * 3);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            uint8_t* r = &rgb[size_t(y) * w * 3];
            r[x] = uint8_t(x * 19 + k);
            r[w + x] = uint8_t(y * 23 + 7 * k);
            r[2 * w + x] = uint8_t(x * y + 100 + k);
        }
    return rgb;
}

Bytes writeMovie(const std::string& path, int w, int h, int delay, int frames) {
    AviWriter* wr = nullptr;
    const ImageSize size{w, h};
    EXPECT_EQ(imageAvi_create(&wr, &size, delay, path.c_str()), 0);
    if (!wr) return {};
    for (int k = 0; k < frames; ++k) EXPECT_EQ(imageAvi_writeFrameFromRGB(wr, frameRGB(w, h, k).data(), nullptr), 0);
    EXPECT_EQ(imageAvi_close(wr), 0);
    return iltest::readFile(path);
}

TEST(AviWrite, LayoutAndFields) {
    iltest::TempDir d;
    // 13 x 13 is written as 13 x 8: rows of 39 bytes padded to 40.
    const Bytes f = writeMovie(d.file("a.avi"), 13, 13, 7, 5);
    const uint32_t F = 40 * 8, N = 5;
    ASSERT_EQ(f.size(), 232 + N * (F + 24));
    EXPECT_EQ(f.size(), 1952u);
    EXPECT_EQ(cc(f, 0) + cc(f, 8) + cc(f, 12) + cc(f, 20) + cc(f, 24), "RIFFAVI LISThdrlavih");
    EXPECT_EQ(cc(f, 88) + cc(f, 96) + cc(f, 100) + cc(f, 108) + cc(f, 164), "LISTstrlstrhvidsstrf");
    EXPECT_EQ(cc(f, 212) + cc(f, 220), "LISTmovi");
    // (offset, value) of the 32-bit fields.
    const std::pair<size_t, uint32_t> fields[] = {
        {4, uint32_t(f.size() - 8)}, {16, 192}, {32, 116667},  // microseconds a frame
        {36, ((F + 8) * 60 + 6) / 7},                          // bytes a second, rounded up
        {44, 0x10}, {48, N}, {56, 1}, {60, F}, {64, 13}, {68, 8}, {92, 116},
        {112, 0},  // handler
        {128, 7}, {132, 60}, {140, N}, {144, F}, {148, 0xFFFFFFFF}, {156, 0}, {160, 13u | (8u << 16)},
        {172, 40}, {176, 13}, {180, 8},  // positive height: bottom row first
        {184, 1u | (24u << 16)}, {188, 0}, {192, F}, {216, 4 + N * (F + 8)}};
    for (const auto& [at, v] : fields) EXPECT_EQ(u32(f, at), v) << "offset " << at;
    const size_t idx = 224 + N * (F + 8);
    EXPECT_EQ(cc(f, idx), "idx1");
    EXPECT_EQ(u32(f, idx + 4), 16 * N);
    for (uint32_t k = 0; k < N; ++k) {
        const size_t chunk = 224 + k * (F + 8), e = idx + 8 + 16 * k;
        EXPECT_EQ(cc(f, chunk), "00db");
        EXPECT_EQ(u32(f, chunk + 4), F);
        EXPECT_EQ(cc(f, e), "00db");
        EXPECT_EQ(u32(f, e + 4), 0x10u);
        EXPECT_EQ(u32(f, e + 8), 4 + k * (F + 8));
        EXPECT_EQ(u32(f, e + 12), F);
        // Pixels: bottom kept row first, blue, green, red, zero padding.
        const Bytes rgb = frameRGB(13, 13, int(k));
        for (int s = 0; s < 8; ++s) {
            const int y = 7 - s;
            const uint8_t* row = &f[chunk + 8 + size_t(s) * 40];
            for (int x = 0; x < 13; ++x) {
                const uint8_t* r = &rgb[size_t(y) * 39];
                ASSERT_EQ(row[3 * x], r[26 + x]) << k << " " << y << " " << x;
                ASSERT_EQ(row[3 * x + 1], r[13 + x]);
                ASSERT_EQ(row[3 * x + 2], r[x]);
            }
            ASSERT_EQ(row[39], 0);
        }
    }
}

TEST(AviWrite, RateRule) {
    const struct {
        int delay;
        uint32_t rate, scale;
    } cases[] = {{1, 60, 1}, {4, 15, 1}, {7, 60, 7}, {12, 5, 1}, {60, 1, 1}, {121, 60, 121}, {45, 60, 45}};
    for (const auto& c : cases) {
        uint32_t rate = 0, scale = 0;
        imageAvi_rate(c.delay, &rate, &scale);
        EXPECT_EQ(rate, c.rate) << c.delay;
        EXPECT_EQ(scale, c.scale) << c.delay;
    }
}

TEST(AviWrite, ArgumentsEmptyMoviesAndStops) {
    iltest::TempDir d;
    AviWriter* wr = nullptr;
    const ImageSize seven{10, 7}, ok{4, 8};
    EXPECT_EQ(imageAvi_create(&wr, &seven, 4, d.file("a.avi").c_str()), IMGERR_BADARG);
    EXPECT_EQ(imageAvi_create(&wr, &ok, 0, d.file("a.avi").c_str()), IMGERR_BADARG);
    EXPECT_EQ(imageAvi_create(&wr, &ok, 4, (d.path() + "/no/such/dir/a.avi").c_str()), kAviFailed);
    EXPECT_EQ(imageAvi_close(nullptr), kAviFailed);
    EXPECT_EQ(korImage_isAVIAvailable(), 1);

    // No frame: a whole file of headers and an empty index.
    const Bytes empty = writeMovie(d.file("e.avi"), 4, 8, 4, 0);
    ASSERT_EQ(empty.size(), 232u);
    EXPECT_EQ(u32(empty, 4), 224u);
    EXPECT_EQ(u32(empty, 216), 4u);

    // A stop during the second frame: the rows converted before it are
    // new, the others keep the first frame's.
    ASSERT_EQ(imageAvi_create(&wr, &ok, 4, d.file("s.avi").c_str()), 0);
    EXPECT_EQ(imageAvi_writeFrameFromRGB(wr, frameRGB(4, 8, 0).data(), nullptr), 0);
    static int polls;
    polls = 0;
    EXPECT_EQ(imageAvi_writeFrameFromRGB(wr, frameRGB(4, 8, 1).data(), [](int, int) { return int(++polls > 3); }), 0);
    EXPECT_EQ(imageAvi_close(wr), 0);
    const Bytes s = iltest::readFile(d.file("s.avi"));
    const size_t F = 12 * 8, second = 224 + (F + 8) + 8;
    const Bytes one = frameRGB(4, 8, 1), zero = frameRGB(4, 8, 0);
    EXPECT_EQ(s[second], one[7 * 12 + 8]);             // stored row 0 = image row 7 of frame 1
    EXPECT_EQ(s[second + 2 * 12], one[5 * 12 + 8]);    // image row 5, the third converted
    EXPECT_EQ(s[second + 3 * 12], zero[4 * 12 + 8]);   // image row 4: still frame 0
}

TEST(AviWrite, SizeLimitAndMaps) {
    iltest::TempDir d;
    AviWriter* wr = nullptr;
    const ImageSize size{4, 8};
    const uint64_t F = 12 * 8;
    // Room for two frames and the index.
    ASSERT_EQ(imageAvi_createLimited(&wr, &size, 4, d.file("l.avi").c_str(), 232 + 2 * (F + 24)), 0);
    uint8_t map[32], red[256] = {}, green[256] = {}, blue[256] = {};
    for (int i = 0; i < 32; ++i) map[i] = uint8_t(i), red[i] = uint8_t(i * 8), green[i] = 1, blue[i] = 200;
    EXPECT_EQ(imageAvi_writeFrameFromMap(wr, map, red, green, blue, 32, &size, nullptr), 0);
    EXPECT_EQ(imageAvi_writeFrameFromMap(wr, map, red, green, blue, 32, &size, nullptr), 0);
    EXPECT_EQ(imageAvi_writeFrameFromMap(wr, map, red, green, blue, 32, &size, nullptr), kAviFailed);
    EXPECT_EQ(imageAvi_close(wr), IMGERR_WRITEFAILED);
    const Bytes f = iltest::readFile(d.file("l.avi"));
    ASSERT_EQ(f.size(), 232 + 2 * (F + 24));
    EXPECT_EQ(u32(f, 48), 2u);
    EXPECT_EQ(u32(f, 4), f.size() - 8);
    // Map pixels through the palette: stored row 0 is image row 7 (indices 28..31).
    EXPECT_EQ(Bytes(f.begin() + 232, f.begin() + 235), (Bytes{200, 1, 28 * 8}));
}

}  // namespace
