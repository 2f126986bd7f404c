// GIF codec: the LZW code stream pinned bit by bit, reader rules on
// hand-built files, writer layouts read back, and bad data.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "codecs/native/gif.h"
#include "internal/bytes.h"
#include "pixels/rows.h"
#include "map_reader.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

// --- coder and decoder through their routines -------------------------------------

struct Symbols {
    const std::vector<int>* in;
    size_t at = 0;
};

Bytes encode(int codeSize, const std::vector<int>& symbols, int* status = nullptr) {
    Symbols src{&symbols};
    Bytes out;
    int st = imageGif_encode(
        codeSize,
        [](void* c) {
            auto* s = static_cast<Symbols*>(c);
            return s->at < s->in->size() ? (*s->in)[s->at++] : -1;
        },
        &src, [](void* c, int byte) { return static_cast<Bytes*>(c)->push_back(uint8_t(byte)), 0; }, &out);
    if (status) *status = st;
    return out;
}

struct Stream {
    const Bytes* in;
    size_t at = 0;
};

std::vector<int> decode(const Bytes& stream, int* status) {
    Stream src{&stream};
    std::vector<int> out;
    *status = imageGif_decode(
        [](void* c) {
            auto* s = static_cast<Stream*>(c);
            return s->at < s->in->size() ? int((*s->in)[s->at++]) : -1;
        },
        &src, [](void* c, int p) { return static_cast<std::vector<int>*>(c)->push_back(p), 0; }, &out);
    return out;
}

// The codes of an encoded stream (code size byte first) read with the
// widths that width(i) gives for the i-th code.
template <class Width>
std::vector<int> codes(const Bytes& stream, size_t count, Width width) {
    Bytes data;
    size_t p = 1;
    while (p < stream.size() && stream[p] != 0) {
        data.insert(data.end(), stream.begin() + p + 1, stream.begin() + p + 1 + stream[p]);
        p += stream[p] + 1;
    }
    std::vector<int> out;
    size_t bit = 0;
    for (size_t i = 0; i < count && bit + width(i) <= data.size() * 8; ++i) {
        int v = 0;
        for (int k = 0; k < width(i); ++k, ++bit) v |= (data[bit / 8] >> (bit % 8) & 1) << k;
        out.push_back(v);
    }
    return out;
}

// Symbols whose consecutive pairs never repeat: the coder misses on every
// symbol and sends each one as a code of its own. Block k (odd) steps
// through the multiples of k, so that every pair differs by k.
std::vector<int> allMisses(size_t n, int alphabet) {
    std::vector<int> s;
    for (int k = 1; s.size() < n; k += 2)
        for (int j = 0; j < alphabet && s.size() < n; ++j) s.push_back(j * k % alphabet);
    return s;
}

TEST(GifLzw, CodeWidthRisesAfterCode512AndTheFullTableIsCleared) {
    // Code k (k >= 1) assigns 257 + k: 9 bits up to the code that assigns
    // 512, 10 up to 1024, 11 up to 2048, then 12; the miss after 4095 was
    // assigned sends a 12-bit clear and starts again at 9 bits.
    const std::vector<int> s = allMisses(4000, 256);
    int st = -9;
    const Bytes stream = encode(8, s, &st);
    ASSERT_EQ(st, 0);
    EXPECT_EQ(stream[0], 8);
    auto width = [](size_t i) { return i <= 255 ? 9 : i <= 767 ? 10 : i <= 1791 ? 11 : i <= 3840 ? 12 : 9; };
    const std::vector<int> got = codes(stream, 3845, width);
    ASSERT_EQ(got.size(), 3845u);
    EXPECT_EQ(got[0], 256);
    for (size_t i = 1; i <= 3839; ++i) ASSERT_EQ(got[i], s[i - 1]) << "code " << i;
    EXPECT_EQ(got[3840], 256);  // the clear after the table filled
    for (size_t i = 3841; i < 3845; ++i) EXPECT_EQ(got[i], s[i - 2]) << "code " << i;
    EXPECT_EQ(decode(stream, &st), s);
    EXPECT_EQ(st, 0);
}

TEST(GifLzw, RoundTripsAtEveryCodeSize) {
    std::mt19937 rng(7);
    for (int codeSize = 1; codeSize <= 8; ++codeSize) {
        const int alphabet = 1 << std::max(codeSize, 2);
        // Noise, long runs (codes used before they are complete) and a
        // sequence long enough to fill the table several times.
        std::vector<int> s;
        for (int i = 0; i < 30000; ++i) s.push_back(int(rng() % alphabet));
        s.insert(s.end(), 5000, alphabet - 1);
        for (int i = 0; i < 20000; ++i) s.push_back((i / 7) % alphabet);
        int st = -9;
        const Bytes stream = encode(codeSize, s, &st);
        ASSERT_EQ(st, 0);
        EXPECT_EQ(stream[0], std::max(codeSize, 2));  // 1 is raised to 2
        EXPECT_EQ(decode(stream, &st), s) << "code size " << codeSize;
        EXPECT_EQ(st, 0);
    }
    int st = 0;
    EXPECT_EQ(encode(0, {1}, &st).size(), 0u);
    EXPECT_EQ(st, kGifBadCodeSize);
    encode(10, {1}, &st);
    EXPECT_EQ(st, kGifBadCodeSize);
    // An empty image: clear and end code only.
    EXPECT_EQ(encode(8, {}, &st), (Bytes{8, 3, 0x00, 0x03, 0x02, 0}));
}

TEST(GifLzw, DecoderRules) {
    int st = 0;
    // Code size byte out of 2..9, and the end of the data inside it.
    EXPECT_TRUE(decode(Bytes{1, 1, 0, 0}, &st).empty());
    EXPECT_EQ(st, kGifBadCodeSize);
    decode(Bytes{10, 1, 0, 0}, &st);
    EXPECT_EQ(st, kGifBadCodeSize);
    decode(Bytes{}, &st);
    EXPECT_EQ(st, -1);
    // A stream cut inside a sub-block gives the get routine's -1 after
    // the pixels before the cut; a block terminator before the end code
    // ends the image normally.
    const std::vector<int> s = {1, 2, 3, 1, 2, 3, 0, 0};
    const Bytes full = encode(2, s);
    const std::vector<int> part = decode(Bytes(full.begin(), full.end() - 2), &st);
    EXPECT_EQ(st, -1);
    ASSERT_LT(part.size(), s.size());
    EXPECT_EQ(part, std::vector<int>(s.begin(), s.begin() + part.size()));
    EXPECT_EQ(decode(Bytes{2, 1, uint8_t(4 | 1 << 3), 0}, &st), (std::vector<int>{1}));
    EXPECT_EQ(st, 0);
    // Codes 4 (clear), 1, then 6 (not yet defined: 1 1) and 7 (1 1 1) at 3
    // bits; the width is 4 from the end code on.
    const Bytes kwk = {2, 2, uint8_t(4 | 1 << 3 | 6 << 6), uint8_t(6 >> 2 | 7 << 1 | 5 << 4), 0};
    EXPECT_EQ(decode(kwk, &st), (std::vector<int>{1, 1, 1, 1, 1, 1}));
    EXPECT_EQ(st, 0);
    // An undefined code right after a clear has no meaning.
    const Bytes undefined = {2, 1, uint8_t(4 | 7 << 3), 0};
    decode(undefined, &st);
    EXPECT_EQ(st, IMGERR_BADFILE);
}

// --- files -----------------------------------------------------------------------------------

// Black, red, green, blue.
Bytes fourColours() { return {0, 0, 0, 255, 0, 0, 0, 255, 0, 0, 0, 255}; }

// A GIF file assembled block by block.
struct GifLayout {
    const char* signature = "GIF89a";
    int screenW = 4, screenH = 4, screenFlags = 0x81;  // global table of 4
    Bytes global = fourColours();
    Bytes extensions;
    int width = 4, height = 4, imageFlags = 0;
    Bytes local;
    int codeSize = 2;
    std::vector<int> pixels;  // encoded with the library's coder
    Bytes data;               // used instead when not empty
    bool trailer = true;
};

Bytes build(const GifLayout& g) {
    Bytes f(g.signature, g.signature + 6);
    f.resize(13);
    il::put16le(&f[6], uint32_t(g.screenW));
    il::put16le(&f[8], uint32_t(g.screenH));
    f[10] = uint8_t(g.screenFlags);
    f.insert(f.end(), g.global.begin(), g.global.end());
    f.insert(f.end(), g.extensions.begin(), g.extensions.end());
    const size_t d = f.size();
    f.resize(d + 10);
    f[d] = 0x2C;
    il::put16le(&f[d + 5], uint32_t(g.width));
    il::put16le(&f[d + 7], uint32_t(g.height));
    f[d + 9] = uint8_t(g.imageFlags);
    f.insert(f.end(), g.local.begin(), g.local.end());
    const Bytes data = g.data.empty() ? encode(g.codeSize, g.pixels) : g.data;
    f.insert(f.end(), data.begin(), data.end());
    if (g.trailer) f.push_back(0x3B);
    return f;
}

using maptest::MapImage;

MapImage readMap(const std::string& path, bool packed, StopFunction stop = nullptr) {
    return maptest::readMap(packed, [&](void** out, ImageSize* size, uint8_t* r, uint8_t* g, uint8_t* b, int* n) {
        return imageGif_readToMap(out, size, r, g, b, n, path.c_str(), packed, stop);
    });
}

class GifFiles : public ::testing::Test {
protected:
    iltest::TempDir dir;
    std::string path = dir.file("t.gif");

    // Reads the file both ways; both must agree.
    MapImage read(const Bytes& file) {
        iltest::writeFile(path, file);
        MapImage a = readMap(path, false), b = readMap(path, true);
        EXPECT_EQ(a.status, b.status);
        EXPECT_EQ(a.pixels, b.pixels);
        return a;
    }
};

std::vector<int> ramp(int n, int mod) {
    std::vector<int> v;
    for (int i = 0; i < n; ++i) v.push_back(i % mod);
    return v;
}

TEST_F(GifFiles, OnePixelMapIsWrittenExactly) {
    uint8_t r[256], g[256], b[256];
    for (int i = 0; i < 256; ++i) r[i] = uint8_t(i), g[i] = uint8_t(255 - i), b[i] = uint8_t(i * 3);
    const uint8_t map[1] = {5};
    const ImageSize size{1, 1};
    ASSERT_EQ(imageGif_writeFromMap(path.c_str(), map, r, g, b, 256, &size, COLORMODE_PALETTE256, 0, nullptr), 0);
    Bytes want = {'G', 'I', 'F', '8', '9', 'a', 1, 0, 1, 0, 0xF7, 0, 0};
    for (int i = 0; i < 256; ++i) want.insert(want.end(), {r[i], g[i], b[i]});
    want.insert(want.end(), {0x21, 0xF9, 4, 1, 0, 0, 0, 0});   // index 0 transparent
    want.insert(want.end(), {0x2C, 0, 0, 0, 0, 1, 0, 1, 0, 0});
    // Clear 256, pixel 5, end 257 at 9 bits: 27 bits in one 4-byte block.
    const uint32_t bits = 256u | 5u << 9 | 257u << 18;
    want.insert(want.end(), {8, 4, uint8_t(bits), uint8_t(bits >> 8), uint8_t(bits >> 16), uint8_t(bits >> 24), 0});
    want.push_back(0x3B);
    EXPECT_EQ(iltest::readFile(path), want);
}

TEST_F(GifFiles, RGBWriterHeaderAndGreyLevels) {
    // One pixel each of pure red, green and blue as grey levels:
    // 0.3 x 255 + 0.5 = 77, 0.59 x 255 + 0.5 = 150, 0.11 x 255 + 0.5 = 28.
    const uint8_t rgb[9] = {255, 0, 0, 0, 255, 0, 0, 0, 255};
    const ImageSize size{3, 1};
    ASSERT_EQ(imageGif_writeFromRGB(path.c_str(), rgb, &size, COLORMODE_GREY, nullptr), 0);
    const Bytes f = iltest::readFile(path);
    EXPECT_EQ(Bytes(f.begin(), f.begin() + 13), (Bytes{'G', 'I', 'F', '8', '7', 'a', 3, 0, 1, 0, 0xF7, 0, 0}));
    EXPECT_EQ(f[13 + 768], 0x2C);  // no extension before the image
    EXPECT_EQ(f.back(), 0x3B);
    const MapImage m = readMap(path, false);
    ASSERT_EQ(m.status, 0);
    EXPECT_EQ(m.pixels, (Bytes{77, 150, 28}));
    EXPECT_EQ(m.count, 256);
    EXPECT_EQ(m.r[200], 200);
    EXPECT_EQ(m.b[77], 77);

    // Dithered palettes: 256 colours read back within the palette's cells,
    // 16 colours as a 16-entry table with code size 4.
    const uint8_t grey[9] = {10, 10, 10, 100, 100, 100, 200, 200, 200};
    ASSERT_EQ(imageGif_writeFromRGB(path.c_str(), grey, &size, COLORMODE_PALETTE256, nullptr), 0);
    const MapImage p = readMap(path, false);
    ASSERT_EQ(p.status, 0);
    for (int x = 0; x < 3; ++x) EXPECT_NEAR(p.r[p.pixels[x]], grey[x], 4);
    ASSERT_EQ(imageGif_writeFromRGB(path.c_str(), grey, &size, COLORMODE_PALETTE16, nullptr), 0);
    const Bytes f16 = iltest::readFile(path);
    EXPECT_EQ(f16[10], 0xF3);
    EXPECT_EQ(f16[13 + 48 + 10], 4);
    EXPECT_EQ(imageGif_writeFromRGB(path.c_str(), grey, &size, COLORMODE_RGB, nullptr), IMGERR_BADARG);
}

TEST_F(GifFiles, SixteenColourImagesPairPixelsAcrossRows) {
    // A 3 x 2 map: symbols (p0 p1) (p2 | next row's p0) (p1 p2), first
    // pixel in the high nibble, under code size 4; a 3 x 1 map pairs its
    // last pixel with 0.
    uint8_t pal[256] = {};
    const uint8_t map[6] = {1, 2, 3, 4, 5, 6};
    for (auto [h, symbols] : {std::pair{2, std::vector<int>{0x12, 0x34, 0x56}}, std::pair{1, std::vector<int>{0x12, 0x30}}}) {
        const ImageSize size{3, h};
        ASSERT_EQ(imageGif_writeFromMap(path.c_str(), map, pal, pal, pal, 16, &size, COLORMODE_PALETTE16, 0, nullptr),
                  0);
        const Bytes f = iltest::readFile(path);
        const size_t data = 13 + 48 + 8 + 10;
        EXPECT_EQ(f[10], 0xF3);
        const Bytes stream = encode(4, symbols);
        EXPECT_EQ(Bytes(f.begin() + data, f.end() - 1), stream);
        EXPECT_EQ(f.back(), 0x3B);
    }
    const ImageSize size{3, 2};
    EXPECT_EQ(imageGif_writeFromMap(path.c_str(), map, pal, pal, pal, 17, &size, COLORMODE_PALETTE16, 0, nullptr),
              IMGERR_BADARG);
    EXPECT_EQ(imageGif_writeFromMap(path.c_str(), map, pal, pal, pal, 257, &size, COLORMODE_PALETTE256, 0, nullptr),
              IMGERR_BADARG);
    EXPECT_EQ(imageGif_writeFromMap(path.c_str(), map, pal, pal, pal, 2, &size, COLORMODE_GREY, 0, nullptr),
              IMGERR_BADARG);
}

TEST_F(GifFiles, MapRoundTripsContiguousAndPacked) {
    // Large enough to fill the code table many times.
    const ImageSize size{301, 97};
    Bytes map(size_t(size.x) * size.y);
    std::mt19937 rng(3);
    for (size_t i = 0; i < map.size(); ++i) map[i] = uint8_t(i % 1000 < 500 ? rng() : i / 301);
    uint8_t r[256], g[256], b[256];
    for (int i = 0; i < 256; ++i) r[i] = uint8_t(i), g[i] = uint8_t(i ^ 0x55), b[i] = uint8_t(255 - i);
    uint8_t** rows = nullptr;
    ASSERT_EQ(il::packByteEncodeImage(&rows, map.data(), &size), 0);
    for (int packed : {0, 1}) {
        const void* image = packed ? static_cast<const void*>(rows) : map.data();
        ASSERT_EQ(imageGif_writeFromMap(path.c_str(), image, r, g, b, 200, &size, COLORMODE_PALETTE256, packed,
                                        nullptr),
                  0);
        for (bool readPacked : {false, true}) {
            const MapImage m = readMap(path, readPacked);
            ASSERT_EQ(m.status, 0);
            EXPECT_EQ(m.size.x, size.x);
            EXPECT_EQ(m.size.y, size.y);
            EXPECT_EQ(m.pixels, map);
            EXPECT_EQ(m.count, 256);  // the table's size
            EXPECT_EQ(std::memcmp(m.g, g, 256), 0);
        }
    }
    korImage_freeImage(rows, &size, IMAGEFORMAT_PACKBYTE);
}

TEST_F(GifFiles, ExtensionsBeforeTheImage) {
    GifLayout g;
    g.pixels = ramp(16, 4);
    const Bytes comment = {0x21, 0xFE, 3, 'a', 'b', 'c', 2, 'd', 'e', 0};
    const Bytes application = {0x21, 0xFF, 11, 'N', 'E', 'T', 'S', 'C', 'A', 'P', 'E', '2', '.', '0', 3, 1, 0, 0, 0};
    const Bytes control = {0x21, 0xF9, 4, 5, 10, 0, 3, 0};
    Bytes text = {0x21, 0x01, 12};
    text.resize(text.size() + 12, 7);
    text.insert(text.end(), {2, 'h', 'i', 0});
    g.extensions = comment;
    g.extensions.insert(g.extensions.end(), application.begin(), application.end());
    g.extensions.insert(g.extensions.end(), control.begin(), control.end());
    g.extensions.insert(g.extensions.end(), text.begin(), text.end());
    MapImage m = read(build(g));
    ASSERT_EQ(m.status, 0);
    EXPECT_EQ(m.pixels, Bytes(g.pixels.begin(), g.pixels.end()));
    EXPECT_EQ(m.count, 4);
    EXPECT_EQ(m.r[1], 255);

    // Headers that do not parse give the positive 32768.
    const std::vector<std::pair<const char*, Bytes>> bad = {
        {"plain text of wrong size", {0x21, 0x01, 11, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"label 0", {0x21, 0x00, 0}},
        {"unknown label", {0x21, 0x02, 0}},
        {"control of wrong size", {0x21, 0xF9, 5, 0, 0, 0, 0, 0}},
        {"control without terminator", {0x21, 0xF9, 4, 0, 0, 0, 0, 1}},
        {"application of wrong size", {0x21, 0xFF, 10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"trailer before the image", {0x3B}},
    };
    for (const auto& [what, ext] : bad) {
        GifLayout b = g;
        b.extensions = ext;
        EXPECT_EQ(read(build(b)).status, kGifParseFailure) << what;
    }
    GifLayout sig = g;
    sig.signature = "GIF88a";
    EXPECT_EQ(read(build(sig)).status, kGifParseFailure);
    sig.signature = "GIF87a";
    EXPECT_EQ(read(build(sig)).status, 0);
    // The sort bit counts in the table size: flags 0x89 claim 2^10 entries,
    // more than the file holds.
    GifLayout sorted = g;
    sorted.screenFlags = 0x89;
    EXPECT_EQ(read(build(sorted)).status, kGifParseFailure);
    EXPECT_EQ(read(Bytes{'G', 'I', 'F', '8', '9', 'a', 1, 0}).status, kGifParseFailure);
}

TEST_F(GifFiles, TablesAndInterlace) {
    // A local table replaces the global one and its size.
    GifLayout g;
    g.imageFlags = 0x80 | 2;  // local table of 8
    for (int i = 0; i < 8; ++i) g.local.insert(g.local.end(), {uint8_t(10 + i), uint8_t(20 + i), uint8_t(30 + i)});
    g.codeSize = 3;
    g.pixels = ramp(16, 8);
    MapImage m = read(build(g));
    ASSERT_EQ(m.status, 0);
    EXPECT_EQ(m.count, 8);
    EXPECT_EQ(m.r[7], 17);
    EXPECT_EQ(m.b[0], 30);

    // Without any table the size of the flags is still reported and the
    // caller's palette is left alone.
    GifLayout none;
    none.screenFlags = 0x03;
    none.global.clear();
    none.pixels = ramp(16, 4);
    iltest::writeFile(path, build(none));
    MapImage n;
    std::memset(n.r, 9, 256);
    void* out = nullptr;
    ASSERT_EQ(imageGif_readToMap(&out, &n.size, n.r, n.g, n.b, &n.count, path.c_str(), 0, nullptr), 0);
    korImage_freeImage(out, &n.size, IMAGEFORMAT_MAP);
    EXPECT_EQ(n.count, 16);
    EXPECT_EQ(n.r[0], 9);

    // An interlaced 10-row image: decoded rows land on 0, 8, 4, 2, 6, 1,
    // 3, 5, 7, 9. Each decoded row holds its image row's number.
    GifLayout il;
    il.width = 3;
    il.height = 10;
    il.imageFlags = 0x40;
    il.codeSize = 4;
    il.screenFlags = 0x83;
    il.global.assign(48, 1);
    for (int row : {0, 8, 4, 2, 6, 1, 3, 5, 7, 9}) il.pixels.insert(il.pixels.end(), 3, row);
    m = read(build(il));
    ASSERT_EQ(m.status, 0);
    for (int y = 0; y < 10; ++y) EXPECT_EQ(m.pixels[size_t(y) * 3], y) << "row " << y;
}

TEST_F(GifFiles, ShortAndBadData) {
    GifLayout g;
    g.width = 5;
    g.height = 4;
    // The end code after 7 pixels: the rest of row 1 and rows 2, 3 are 0.
    g.pixels = {1, 2, 3, 1, 2, 3, 1};
    MapImage m = read(build(g));
    ASSERT_EQ(m.status, 0);
    Bytes want(20, 0);
    for (int i = 0; i < 7; ++i) want[size_t(i)] = uint8_t(g.pixels[size_t(i)]);
    EXPECT_EQ(m.pixels, want);

    // Interlaced and short: rows never reached are 0 in both forms.
    g.imageFlags = 0x40;
    g.pixels = ramp(10, 3);
    m = read(build(g));
    ASSERT_EQ(m.status, 0);
    // Four rows decode as 0, 2, 1, 3; only 0 and 2 were reached.
    want.assign(20, 0);
    for (int i = 0; i < 5; ++i) want[size_t(i)] = uint8_t(i % 3), want[size_t(10 + i)] = uint8_t((5 + i) % 3);
    EXPECT_EQ(m.pixels, want);

    // More pixels than the image holds.
    g.imageFlags = 0;
    g.pixels = ramp(21, 3);
    EXPECT_EQ(read(build(g)).status, IMGERR_BADFILE);
    // The file ends inside the image data.
    g.pixels = ramp(20, 3);
    Bytes cut = build(g);
    cut.resize(cut.size() - 4);
    EXPECT_EQ(read(cut).status, IMGERR_READFAILED);
    // Sizes: zero, and far more pixels than a small file can hold.
    g.width = 0;
    EXPECT_EQ(read(build(g)).status, IMGERR_BADFILE);
    g.width = 65535;
    g.height = 65535;
    EXPECT_EQ(read(build(g)).status, IMGERR_BADFILE);
    // A minimum code size the decoder does not take.
    g.width = 5;
    g.height = 4;
    g.data = {12, 1, 0, 0};
    EXPECT_EQ(read(build(g)).status, IMGERR_BADFILE);
    EXPECT_EQ(readMap(dir.file("absent.gif"), false).status, IMGERR_OPENFAILED);
}

int g_polls = 0;
int stopAtSecond(int, int) { return ++g_polls >= 2 ? 7 : 0; }

TEST_F(GifFiles, StopPollEndsTheImageAndIsReturned) {
    const ImageSize size{4, 3};
    Bytes map(12, 3);
    uint8_t pal[256] = {};
    g_polls = 0;
    EXPECT_EQ(imageGif_writeFromMap(path.c_str(), map.data(), pal, pal, pal, 4, &size, COLORMODE_PALETTE256, 0,
                                    stopAtSecond),
              7);
    // The file is completed: one row, then the trailer.
    MapImage m = readMap(path, false);
    ASSERT_EQ(m.status, 0);
    EXPECT_EQ(m.pixels, (Bytes{3, 3, 3, 3, 0, 0, 0, 0, 0, 0, 0, 0}));
    ASSERT_EQ(imageGif_writeFromMap(path.c_str(), map.data(), pal, pal, pal, 4, &size, COLORMODE_PALETTE256, 0,
                                    nullptr),
              0);
    for (bool packed : {false, true}) {
        g_polls = 0;
        EXPECT_EQ(readMap(path, packed, stopAtSecond).status, 7);
    }
}

}  // namespace
