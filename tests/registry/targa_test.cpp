// The Targa codec: pixel decoding of every image kind from hand-built
// files, the header rules of the info reader, the writer's packets, and
// hostile input.
#include <gtest/gtest.h>

#include "registry/targa.h"
#include "stream_test_util.h"
#include "test_support.h"

using stest::Planar;
using stest::tga;

namespace {

using Bytes = std::vector<uint8_t>;

// The pixels of a file in stored order as 0xRRGGBB (0xAARRGGBB with alpha).
std::vector<uint32_t> pixels(const Bytes& file, bool alpha = false) {
    iltest::TempDir dir;
    EXPECT_TRUE(iltest::writeFile(dir.file("p.tga"), file));
    Planar img;
    EXPECT_EQ(stest::readStream(dir.file("p.tga"), nullptr, &img, nullptr, alpha), 0);
    std::vector<uint32_t> out;
    for (int r = 0; r < img.size.y; ++r)
        for (int x = 0; x < img.size.x; ++x)
            out.push_back((alpha ? uint32_t(img.plane(r, 3)[x]) << 24 : 0) | (uint32_t(img.plane(r, 0)[x]) << 16) |
                          (uint32_t(img.plane(r, 1)[x]) << 8) | img.plane(r, 2)[x]);
    return out;
}

using V = std::vector<uint32_t>;

TEST(TargaRead, EveryPixelKind) {
    // 16 and 15 bits: five bits a component, the low three zero.
    for (int depth : {16, 15})
        EXPECT_EQ(pixels(tga(2, 3, 1, depth, 0, {0xFF, 0x7F, 0x1F, 0x00, 0x00, 0x7C})),
                  (V{0xF8F8F8, 0x0000F8, 0xF80000}));
    // 32 bits stored blue, green, red, alpha, after an identification field
    // and a colour map, both skipped.
    EXPECT_EQ(pixels(tga(2, 2, 1, 32, 8, {'a', 'b', 'c', 9, 9, 9, 9, 9, 9, 0x30, 0x20, 0x10, 0x40, 3, 2, 1, 4}, 0, 2,
                         24, 3),
                     true),
              (V{0x40102030, 0x04010203}));
    // A run of 5 that starts 2 pixels before the row end leaves 3 for the
    // next row; a literal packet crosses the row end alike.
    EXPECT_EQ(pixels(tga(10, 4, 2, 24, 0, {0x01, 1, 1, 1, 2, 2, 2, 0x84, 3, 3, 3, 0x00, 4, 4, 4})),
              (V{0x010101, 0x020202, 0x030303, 0x030303, 0x030303, 0x030303, 0x030303, 0x040404}));
    EXPECT_EQ(pixels(tga(10, 3, 2, 24, 0, {0x03, 1, 1, 1, 2, 2, 2, 3, 3, 3, 4, 4, 4, 0x81, 5, 5, 5})),
              (V{0x010101, 0x020202, 0x030303, 0x040404, 0x050505, 0x050505}));
    // Colour maps of each entry size, first entry 2: index 0 lies outside
    // the map and reads black.
    const std::pair<int, Bytes> maps[] = {{24, {0x30, 0x20, 0x10, 3, 2, 1, 0xFF, 0xFF, 0xFF}},
                                          {32, {0x30, 0x20, 0x10, 0, 3, 2, 1, 0, 0xFF, 0xFF, 0xFF, 0}},
                                          {16, {0x00, 0x7C, 0xE0, 0x03, 0xFF, 0x7F}},
                                          {15, {0x00, 0x7C, 0xE0, 0x03, 0xFF, 0x7F}}};
    for (const auto& [bits, entries] : maps) {
        const V want = bits >= 24 ? V{0x102030, 0x010203, 0xFFFFFF, 0} : V{0xF80000, 0x00F800, 0xF8F8F8, 0};
        Bytes raw = entries, rle = entries;
        raw.insert(raw.end(), {2, 3, 4, 0});
        rle.insert(rle.end(), {0x02, 2, 3, 4, 0x80, 0});
        EXPECT_EQ(pixels(tga(1, 4, 1, 8, 0, raw, 2, 3, bits)), want) << bits;
        EXPECT_EQ(pixels(tga(9, 4, 1, 8, 0, rle, 2, 3, bits)), want) << bits;
    }
    // Grey levels, with and without alpha.
    EXPECT_EQ(pixels(tga(3, 3, 1, 8, 0, {0, 100, 255})), (V{0, 0x646464, 0xFFFFFF}));
    EXPECT_EQ(pixels(tga(11, 3, 1, 16, 8, {0x82, 77, 200})), (V{0x4D4D4D, 0x4D4D4D, 0x4D4D4D}));
}

TEST(TargaInfo, ColourModeOrientationAndFailures) {
    iltest::TempDir dir;
    const std::string path = dir.file("i.tga");
    auto infoOf = [&](const Bytes& file, int* status = nullptr) {
        EXPECT_TRUE(iltest::writeFile(path, file));
        ImageSize size{};
        int mode = 0, orientation = 0;
        const int s = imageTga_readInfo(&size, &mode, &orientation, path.c_str());
        if (status) *status = s;
        return mode * 100 + orientation;
    };
    // A 32-bit file with 8 alpha bits has alpha unless a footer's extension
    // area gives an attributes type below 3.
    const Bytes alpha = tga(2, 1, 1, 32, 8, {1, 2, 3, 4});
    EXPECT_EQ(infoOf(alpha), 606);
    auto withFooter = [&](int attributes, uint32_t extension, char signature) {
        Bytes f = alpha;
        if (extension) extension = uint32_t(f.size());
        Bytes area(495, 0);
        area[494] = uint8_t(attributes);
        f.insert(f.end(), area.begin(), area.end());
        f.insert(f.end(), {uint8_t(extension), uint8_t(extension >> 8), 0, 0, 0, 0, 0, 0});
        const std::string sig = std::string(1, signature) + "RUEVISION-XFILE.";
        f.insert(f.end(), sig.begin(), sig.end() + 1);
        return f;
    };
    EXPECT_EQ(infoOf(withFooter(0, 1, 'T')), 106);
    EXPECT_EQ(infoOf(withFooter(2, 1, 'T')), 106);
    EXPECT_EQ(infoOf(withFooter(3, 1, 'T')), 606);
    EXPECT_EQ(infoOf(withFooter(0, 0, 'T')), 606);  // no extension area
    EXPECT_EQ(infoOf(withFooter(0, 1, 'X')), 606);  // not the signature
    int status = -1;
    ImageFileContext* c = korImage_openFile(&status, nullptr, path.c_str());
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->alpha, 1);
    korImage_closeFile(c);
    // Other kinds, and the orientation codes of the four origins.
    EXPECT_EQ(infoOf(tga(10, 1, 1, 32, 0x10)), 107);
    EXPECT_EQ(infoOf(tga(2, 1, 1, 24, 0x28)), 104);
    EXPECT_EQ(infoOf(tga(11, 1, 1, 16, 0x38)), 505);
    EXPECT_EQ(infoOf(tga(1, 1, 1, 8, 0)), 306);
    EXPECT_EQ(infoOf(tga(32, 1, 1, 8, 0)), 306);

    // Failures of the info reader and of the handler's open and create.
    EXPECT_EQ(imageTga_readInfo(nullptr, nullptr, nullptr, dir.file("missing").c_str()), IMGERR_OPENFAILED);
    infoOf(Bytes(17, 0), &status);
    EXPECT_EQ(status, IMGERR_UNSUPPORTEDTYPE);
    ImageFileContext ctx{};
    EXPECT_EQ(imageTga_open(&ctx, dir.file("missing").c_str()), 1);
    EXPECT_EQ(imageTga_open(&ctx, path.c_str()), 3);
    // Width 0; 8-bit true colour; mapped without a map; no image data.
    const std::pair<Bytes, int> refused[] = {{tga(2, 0, 5, 24, 0), IMGERR_BADFILE},
                                             {tga(2, 5, 5, 8, 0), IMGERR_BADFORMAT},
                                             {tga(1, 5, 5, 8, 0), IMGERR_BADFILE},
                                             {tga(0, 5, 5, 8, 0), IMGERR_BADFORMAT}};
    for (const auto& [file, code] : refused) {
        ASSERT_TRUE(iltest::writeFile(path, file));
        EXPECT_EQ(imageTga_open(&ctx, path.c_str()), code);
        EXPECT_EQ(ctx.state, nullptr);
    }
    EXPECT_EQ(imageTga_create(&ctx, path.c_str(), 2, 1), IMGERR_BADARG);  // no size
    ctx.fileSize = {2, 2};
    EXPECT_EQ(imageTga_create(&ctx, dir.file("no/dir.tga").c_str(), 2, 1), 1);
}

// The bytes after the header of a written file of `rows` equal rows.
Bytes packets(const V& row, int rows = 1) {
    iltest::TempDir dir;
    Planar img(int(row.size()), rows, 3);
    for (int r = 0; r < rows; ++r)
        for (size_t x = 0; x < row.size(); ++x)
            for (int p = 0; p < 3; ++p) img.at(r, p, int(x)) = uint8_t(row[x] >> (16 - 8 * p));
    EXPECT_EQ(stest::writeStream(dir.file("w.tga"), img, nullptr, 2, COLORMODE_RGB), 0);
    const Bytes f = iltest::readFile(dir.file("w.tga"));
    return Bytes(f.begin() + 18, f.end());
}

TEST(TargaWrite, HeaderPacketsAndRoundTrips) {
    iltest::TempDir dir;
    for (int planes : {3, 4})
        for (int w : {1, 2, 3, 127, 128, 129, 300}) {
            const Planar img = stest::pattern(w, 3, planes);
            ASSERT_EQ(stest::writeStream(dir.file("rt.tga"), img, nullptr, 2, planes == 4 ? 6 : 1), 0);
            const Bytes f = iltest::readFile(dir.file("rt.tga"));
            EXPECT_EQ(Bytes(f.begin(), f.begin() + 18), tga(10, w, 3, planes * 8, planes == 4 ? 8 : 0));
            Planar back;
            int orientation = 0;
            ASSERT_EQ(stest::readStream(dir.file("rt.tga"), nullptr, &back, &orientation, planes == 4), 0);
            EXPECT_EQ(orientation, 6);
            EXPECT_EQ(stest::upright(back, orientation).data, img.data) << w << " " << planes;
        }
    // A 300-pixel run is written as 128, 128 and 44.
    EXPECT_EQ(packets(V(300, 0x010203)), (Bytes{255, 3, 2, 1, 255, 3, 2, 1, 171, 3, 2, 1}));
    // Literals stop where a run starts; a lone last pixel is a literal of one.
    EXPECT_EQ(packets({0xA, 0xB, 0xC, 0xC, 0xC, 0xD}),
              (Bytes{0x01, 0xA, 0, 0, 0xB, 0, 0, 0x82, 0xC, 0, 0, 0x00, 0xD, 0, 0}));
    // Packets never cross rows.
    EXPECT_EQ(packets({0xA, 0xB, 0xB}, 2), (Bytes{0, 0xA, 0, 0, 0x81, 0xB, 0, 0, 0, 0xA, 0, 0, 0x81, 0xB, 0, 0}));
    // Literal packets hold at most 127 pixels.
    V distinct(130);
    for (size_t i = 0; i < distinct.size(); ++i) distinct[i] = uint32_t(i);
    const Bytes lit = packets(distinct);
    ASSERT_EQ(lit.size(), 2 + 130 * 3u);
    EXPECT_EQ(lit[0] * 1000 + lit[1 + 127 * 3], 126002);
}

// Opens and reads every row (one row buffer: the header's size is not to
// be trusted); the first nonzero status.
int readEverything(const std::string& path) {
    int status = 0;
    ImageFileContext* c = korImage_openFile(&status, nullptr, path.c_str());
    if (!c) return status ? status : -1;
    ImageSize size{};
    korImage_getImageSize(&size, c);
    std::vector<uint8_t> planes(size_t(size.x) * 4);
    uint8_t* p = planes.data();
    for (int r = 0; r < size.y && status == 0; ++r)
        status = korImage_getRow(c, p, p + size.x, p + 2 * size.x, p + 3 * size.x);
    korImage_closeFile(c);
    return status;
}

TEST(TargaRead, TruncatedAndCorruptedFiles) {
    iltest::TempDir dir;
    const std::string cut = dir.file("cut.tga");
    ASSERT_EQ(stest::writeStream(dir.file("src.tga"), stest::pattern(13, 7, 4), nullptr, 2, 6), 0);
    const Bytes files[] = {iltest::readFile(dir.file("src.tga")), tga(2, 5, 4, 24, 0, Bytes(60, 0x42)),
                           tga(9, 6, 3, 8, 0, {1, 2, 3, 4, 5, 6, 7, 8, 0x85, 3, 0x8B, 1}, 0, 4, 16)};
    for (const Bytes& whole : files) {
        ASSERT_TRUE(iltest::writeFile(cut, whole));
        EXPECT_EQ(readEverything(cut), 0);
        // Every shorter file fails somewhere, and never reads out of bounds.
        for (size_t len = 0; len < whole.size(); ++len) {
            ASSERT_TRUE(iltest::writeFile(cut, Bytes(whole.begin(), whole.begin() + long(len))));
            EXPECT_NE(readEverything(cut), 0) << "length " << len;
        }
        // Flipped bits: any status, but no crash, leak or stray access.
        for (size_t bit = 0; bit < whole.size() * 8; bit += 7) {
            Bytes flipped = whole;
            flipped[bit / 8] ^= uint8_t(1 << (bit % 8));
            ASSERT_TRUE(iltest::writeFile(cut, flipped));
            readEverything(cut);
            imageTga_readInfo(nullptr, nullptr, nullptr, cut.c_str());
        }
    }
    // A header that claims a huge image over a few bytes.
    ASSERT_TRUE(iltest::writeFile(cut, tga(10, 0xFFFF, 0xFFFF, 32, 8, {0xFF, 1, 2, 3, 4})));
    EXPECT_EQ(readEverything(cut), IMGERR_READFAILED);
}

}  // namespace
