// Intergraph, CALS and RLC writers and readers: files read back to the
// pixels they were written from, and the record and header rules.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "codecs/intergraph/cals.h"
#include "codecs/intergraph/ingr.h"
#include "codecs/intergraph/rlc.h"
#include "imagelib/host.h"
#include "imagelib/pixels.h"
#include "internal/bytes.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::vector<uint8_t> readMap(const std::string& path, ImageSize* size, int* count = nullptr,
                             uint8_t* red = nullptr) {
    void* img = nullptr;
    int rgb = 0, n = 0;
    uint8_t r[256], g[256], b[256];
    EXPECT_EQ(ingr_readImage(&img, size, &rgb, r, g, b, &n, nullptr, path.c_str(), nullptr), 0);
    if (!img) return {};
    std::vector<uint8_t> out(static_cast<uint8_t*>(img), static_cast<uint8_t*>(img) + size_t(size->x) * size->y);
    dlmSystem_korFree(img);
    if (count) *count = n;
    if (red) std::memcpy(red, r, 256);
    return out;
}

// A bilevel picture, one byte a pixel, and its packed bitmap.
struct Picture {
    ImageSize size;
    std::vector<uint8_t> px, bits;
};
Picture picture(int w, int h) {
    Picture p{{w, h}, std::vector<uint8_t>(size_t(w) * h), {}};
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) p.px[size_t(y) * w + x] = ((x / 3 + y) % 5 == 0 || x == y) ? 1 : 0;
    const size_t rb = (size_t(w) + 7) / 8;
    p.bits.assign(rb * h, 0);
    for (int y = 0; y < h; ++y) korImage_packBuffer(&p.bits[rb * y], &p.px[size_t(y) * w], 1, w);
    return p;
}

TEST(IngrWrite, CITAndRLERoundTripFromEveryForm) {
    iltest::TempDir dir;
    const Picture p = picture(37, 11);
    for (int kind = 0; kind < 3; ++kind) {
        for (const char* name : {"a.cit", "a.rle"}) {
            const std::string path = dir.file(name);
            const bool cit = name[2] == 'c';
            int st;
            if (kind == 0) {
                st = cit ? ingr_createCITFromBitMap(path.c_str(), p.bits.data(), 0, &p.size, nullptr)
                         : ingr_createRLEFromBitMap(path.c_str(), p.bits.data(), 0, &p.size, nullptr);
            } else if (kind == 1) {
                st = cit ? ingr_createCITFromMap(path.c_str(), p.px.data(), nullptr, nullptr, nullptr, 2, &p.size, 5,
                                                 0, nullptr)
                         : ingr_createRLEFromMap(path.c_str(), p.px.data(), nullptr, nullptr, nullptr, 2, &p.size, 5,
                                                 0, nullptr);
            } else {
                std::vector<uint8_t> rgb;  // ink dark, paper light: set where grey > 128
                for (int y = 0; y < p.size.y; ++y)
                    for (int c = 0; c < 3; ++c)
                        for (int x = 0; x < p.size.x; ++x) rgb.push_back(p.px[size_t(y) * p.size.x + x] ? 200 : 20);
                st = cit ? ingr_createCITFromRGB(path.c_str(), rgb.data(), &p.size, nullptr)
                         : ingr_createRLEFromRGB(path.c_str(), rgb.data(), &p.size, nullptr);
            }
            ASSERT_EQ(st, 0) << name << kind;
            ImageSize size{};
            EXPECT_EQ(readMap(path, &size), p.px) << name << kind;
            const Bytes f = iltest::readFile(path);
            EXPECT_EQ(il::get16le(&f[4]), cit ? 24 : 9);
            EXPECT_EQ(il::get16le(&f[2]), cit ? 766 : 510);
        }
    }
    EXPECT_EQ(ingr_createCITFromMap(dir.file("x.cit").c_str(), p.px.data(), nullptr, nullptr, nullptr, 2, &p.size, 3,
                                    0, nullptr),
              IMGERR_UNSUPPORTEDTYPE);
}

TEST(IngrWrite, RunLengthRecords) {
    std::vector<uint16_t> w(4000);
    std::vector<uint8_t> line(70000, 0);
    size_t n = ingr_encodeRunLine(w.data(), line.data(), 100, 5);
    EXPECT_EQ(std::vector<uint16_t>(w.begin(), w.begin() + n), (std::vector<uint16_t>{0x5900, 3, 5, 0, 100}));

    std::fill(line.begin(), line.end(), 1);  // 65535 + 4465 set pixels
    n = ingr_encodeRunLine(w.data(), line.data(), 70000, 0);
    EXPECT_EQ(std::vector<uint16_t>(w.begin(), w.begin() + n),
              (std::vector<uint16_t>{0x5900, 6, 0, 0, 0, 65535, 1, 4464}));

    for (int x = 0; x < 2000; ++x) line[x] = uint8_t(x & 1);
    n = ingr_encodeRunLine(w.data(), line.data(), 2000, 1);
    ASSERT_EQ(n, 2000u + 12);
    EXPECT_EQ(w[1], 764);
    EXPECT_EQ(w[766 + 1], 764);
    EXPECT_EQ(w[766 + 3], 762);  // pixel offset of the continuation
    EXPECT_EQ(w[2 * 766 + 1], 478);
    EXPECT_EQ(w[2 * 766 + 3], 1524);

    // Lines of more than 762 runs and 65535 pixels read back.
    iltest::TempDir dir;
    const ImageSize size{70000, 2};
    std::vector<uint8_t> px(140000, 0);
    for (int x = 0; x < 3000; ++x) px[x] = uint8_t(x & 1);
    std::fill(px.begin() + 70000 + 10, px.end(), 1);
    px[70000 + 10 + 65535] = 0;  // the pixel the 65535 rule counts as clear anyway
    const std::string path = dir.file("w.rle");
    ASSERT_EQ(ingr_createRLEFromMap(path.c_str(), px.data(), nullptr, nullptr, nullptr, 2, &size, 5, 0, nullptr), 0);
    ImageSize got{};
    px[3000 + 65535] = 1;  // line 0: the pixel after a full clear run is counted as set
    EXPECT_TRUE(readMap(path, &got) == px);
}

TEST(IngrWrite, COTPaletteAndGrey) {
    iltest::TempDir dir;
    const ImageSize size{3, 2};
    const uint8_t map[] = {0, 1, 2, 2, 1, 0};
    uint8_t r[256] = {255, 0, 10}, g[256] = {0, 255, 20}, b[256] = {0, 0, 30};
    const std::string path = dir.file("p.cot");
    ASSERT_EQ(ingr_createCOTFromMap(path.c_str(), map, r, g, b, 3, &size, 3, 0, nullptr), 0);
    Bytes f = iltest::readFile(path);
    ASSERT_EQ(f.size(), 1536u + 6);
    EXPECT_EQ(il::get16le(&f[532]), 1);
    EXPECT_EQ(il::get32le(&f[536]), 3u);
    ImageSize got{};
    int count = 0;
    uint8_t red[256];
    EXPECT_EQ(readMap(path, &got, &count, red), std::vector<uint8_t>(map, map + 6));
    EXPECT_EQ(count, 3);
    EXPECT_EQ(red[0], 255);

    ASSERT_EQ(ingr_createCOTFromMap(path.c_str(), map, r, g, b, 3, &size, 4, 0, nullptr), 0);
    f = iltest::readFile(path);
    EXPECT_EQ(il::get32le(&f[532]), 0u);
    uint8_t grey[256];
    int dark, light;
    korImage_paletteToGreyScale(grey, &dark, &light, r, g, b, 3);
    EXPECT_EQ(f[1536], grey[0]);
    EXPECT_EQ(f[1537], grey[1]);
    EXPECT_EQ(ingr_createCOTFromMap(path.c_str(), map, r, g, b, 3, &size, 5, 0, nullptr), IMGERR_BADARG);
}

TEST(Cals, HeaderWrittenAndRead) {
    iltest::TempDir dir;
    const Picture p = picture(100, 50);
    const std::string path = dir.file("a.cal");
    ASSERT_EQ(cals_createFileFromBitMap(path.c_str(), p.bits.data(), 0, &p.size, nullptr), 0);
    const Bytes f = iltest::readFile(path);
    ASSERT_GT(f.size(), 2048u);
    EXPECT_EQ(std::count(f.begin(), f.begin() + 2048, 0), 0);
    EXPECT_EQ(std::string(f.begin(), f.begin() + 14), "srcdocid: NONE");
    EXPECT_EQ(std::string(f.begin() + 1024, f.begin() + 1024 + 23), "rpelcnt: 000100,000050 ");
    ImageSize size{};
    int mode = 0;
    ASSERT_EQ(cals_readHeader(&size, &mode, path.c_str()), 0);
    EXPECT_EQ(std::pair(size.x, size.y), std::pair(100, 50));
    void* map = nullptr;
    uint8_t r[256], g[256], b[256];
    int count = 0;
    ASSERT_EQ(cals_readFileToMap(&map, &size, r, g, b, &count, path.c_str(), 1, nullptr), 0);
    EXPECT_EQ(std::memcmp(map, p.px.data(), p.px.size()), 0);
    EXPECT_EQ(r[0], 255);
    dlmSystem_korFree(map);
    void* bits = nullptr;
    ASSERT_EQ(cals_readFileToBitMap(&bits, &size, 0, path.c_str(), nullptr), 0);
    EXPECT_EQ(std::memcmp(bits, p.bits.data(), p.bits.size()), 0);
    dlmSystem_korFree(bits);

    Bytes h(2048, ' ');
    auto put = [&](size_t at, const std::string& s) { std::copy(s.begin(), s.end(), h.begin() + at); };
    put(128, "rpelcnt: 0,50");
    iltest::writeFile(path, h);
    EXPECT_EQ(cals_readHeader(&size, &mode, path.c_str()), 32768);
    h.assign(2048, ' ');
    put(130, "rpelcnt: 000100,000050");  // not at a record start
    iltest::writeFile(path, h);
    EXPECT_EQ(cals_readHeader(&size, &mode, path.c_str()), 32768);
}

TEST(Cals, GreyOf128WritesAClearBitAndFaxIsAlways1728By84) {
    iltest::TempDir dir;
    const ImageSize size{2, 1};
    const uint8_t rgb[] = {128, 129, 128, 129, 128, 129};
    const std::string path = dir.file("g.cal");
    ASSERT_EQ(cals_createFileFromRGB(path.c_str(), rgb, &size, nullptr), 0);
    void* map = nullptr;
    uint8_t r[256], g[256], b[256];
    int count = 0;
    ImageSize got{};
    ASSERT_EQ(cals_readFileToMap(&map, &got, r, g, b, &count, path.c_str(), 0, nullptr), 0);
    EXPECT_EQ(static_cast<uint8_t*>(map)[0], 0);
    EXPECT_EQ(static_cast<uint8_t*>(map)[1], 1);
    dlmSystem_korFree(map);

    const std::string fax = dir.file("f.fax");
    iltest::writeFile(fax, Bytes{1, 2, 3});
    ASSERT_EQ(fax_readFileInfo(&got, nullptr, fax.c_str()), 0);
    EXPECT_EQ(std::pair(got.x, got.y), std::pair(1728, 84));
    EXPECT_EQ(fax_readFileToMap(&map, &got, r, g, b, &count, fax.c_str(), 0, nullptr), IMGERR_BADFILE);
    EXPECT_EQ(fax_readFileToBitMap(&map, &got, fax.c_str(), nullptr), 32768);
}

TEST(Rlc, SpansToMapAndMirroredBitmap) {
    iltest::TempDir dir;
    const std::string path = dir.file("a.rlc");
    // 16 x 2: line 0 has the span (3, 3) and (10, 12); line 1 none.
    iltest::writeFile(path, Bytes{0, 2, 0, 16, 0, 2, 0, 3, 0, 3, 0, 10, 0, 12, 0, 0});
    ImageSize size{};
    int mode = 0;
    ASSERT_EQ(rlc_readFileInfo(&size, &mode, path.c_str()), 0);
    EXPECT_EQ(std::pair(size.x, size.y), std::pair(16, 2));
    void* map = nullptr;
    uint8_t r[256], g[256], b[256];
    int count = 0;
    ASSERT_EQ(rlc_readFileToMap(&map, &size, r, g, b, &count, path.c_str(), 0, nullptr), 0);
    const uint8_t* m = static_cast<uint8_t*>(map);
    std::vector<uint8_t> want(32, 0);
    want[3] = want[10] = want[11] = want[12] = 1;
    EXPECT_EQ(std::vector<uint8_t>(m, m + 32), want);
    dlmSystem_korFree(map);
    void* bits = nullptr;
    ASSERT_EQ(rlc_readFileToBitMap(&bits, &size, 0, path.c_str(), nullptr), 0);
    std::vector<uint8_t> unpacked(16);
    korImage_unpackBuffer(unpacked.data(), static_cast<uint8_t*>(bits), 1, 16);
    std::reverse(unpacked.begin(), unpacked.end());
    EXPECT_EQ(unpacked, std::vector<uint8_t>(want.begin(), want.begin() + 16));
    dlmSystem_korFree(bits);

    iltest::writeFile(path, Bytes{0, 1, 0, 16, 0, 1, 0, 3, 0, 16});  // span past the width
    EXPECT_EQ(rlc_readFileToMap(&map, &size, r, g, b, &count, path.c_str(), 0, nullptr), IMGERR_READFAILED);
    iltest::writeFile(path, Bytes{0, 1, 0, 16, 0, 2, 0, 3, 0, 4});  // cut short
    EXPECT_EQ(rlc_readFileToBitMap(&bits, &size, 1, path.c_str(), nullptr), IMGERR_READFAILED);
}

}  // namespace
