// Decompression bombs: a header that claims a huge picture is refused before
// the library allocates for it. Tiny files of every readable type, made by
// patching the size fields of seed files to 26000 x 26000 (6.8e8 pixels,
// within the image model's byte cap so that only the readers' own checks
// stand in the way), go through every read entry point under a host that
// records the largest allocation. Larger files of the compressed formats,
// beyond what their per-byte bounds catch, meet the pixel limit (2^28 unless
// the host's KV_MAXPIXELS says otherwise).
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "counting_host.h"
#include "imagelib/imagelib.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;
using il::test::g_allocCap;
using il::test::g_peakBytes;
using il::test::g_liveBytes;

constexpr size_t kCap = size_t(16) << 20;  // the most a read may hold at once here
constexpr int kSide = 26000;

// ---- The host's configuration: KV_MAXPIXELS as the test sets it ---------

std::string g_maxPixels;  // empty: unset
int cfgVar(char* buffer, const char* name, int size) {
    if (std::strcmp(name, "KV_MAXPIXELS") != 0 || g_maxPixels.empty()) return 1;
    if (g_maxPixels.size() >= size_t(size)) return 1;
    std::memcpy(buffer, g_maxPixels.c_str(), g_maxPixels.size() + 1);
    return 0;
}

// ---- Byte patching -------------------------------------------------------

void put16le(Bytes& b, size_t at, unsigned v) { b.at(at) = uint8_t(v), b.at(at + 1) = uint8_t(v >> 8); }
void put16be(Bytes& b, size_t at, unsigned v) { b.at(at) = uint8_t(v >> 8), b.at(at + 1) = uint8_t(v); }
void put32le(Bytes& b, size_t at, uint32_t v) { put16le(b, at, v & 0xFFFF), put16le(b, at + 2, v >> 16); }
void put32be(Bytes& b, size_t at, uint32_t v) { put16be(b, at, v >> 16), put16be(b, at + 2, v & 0xFFFF); }
void append(Bytes& b, std::initializer_list<int> v) { for (int x : v) b.push_back(uint8_t(x)); }

uint32_t crc32(const uint8_t* p, size_t n) {
    uint32_t c = 0xFFFFFFFFu;
    for (size_t i = 0; i < n; ++i) {
        c ^= p[i];
        for (int k = 0; k < 8; ++k) c = (c >> 1) ^ (0xEDB88320u & (0u - (c & 1)));
    }
    return ~c;
}

// A PNG's IHDR width and height, with the chunk's CRC made good again.
void pngSize(Bytes& b, uint32_t w, uint32_t h) {
    put32be(b, 16, w), put32be(b, 20, h);
    put32be(b, 29, crc32(b.data() + 12, 17));
}

// The width and length tags of a little-endian TIFF's first directory.
void tiffSize(Bytes& b, uint32_t w, uint32_t h) {
    ASSERT_EQ(b.at(0), 'I');
    const size_t ifd = b[4] | b[5] << 8 | b[6] << 16 | size_t(b[7]) << 24;
    const unsigned n = b.at(ifd) | b.at(ifd + 1) << 8;
    for (unsigned i = 0; i < n; ++i) {
        const size_t e = ifd + 2 + 12 * i;
        const unsigned tag = b.at(e) | b.at(e + 1) << 8;
        if (tag != 256 && tag != 257) continue;
        put16le(b, e + 2, 4), put32le(b, e + 4, 1);  // one LONG
        put32le(b, e + 8, tag == 256 ? w : h);
    }
}

// The SOF marker's height and width of a JPEG.
void jpegSize(Bytes& b, unsigned w, unsigned h) {
    for (size_t i = 2; i + 9 < b.size(); ++i)
        if (b[i] == 0xFF && b[i + 1] >= 0xC0 && b[i + 1] <= 0xCF && b[i + 1] != 0xC4 && b[i + 1] != 0xC8 &&
            b[i + 1] != 0xCC) {
            put16be(b, i + 5, h), put16be(b, i + 7, w);
            return;
        }
    ADD_FAILURE() << "no SOF marker";
}

// A GIF's screen and first image descriptor.
void gifSize(Bytes& b, unsigned w, unsigned h) {
    put16le(b, 6, w), put16le(b, 8, h);
    size_t at = 13 + ((b[10] & 0x80) ? 3u << ((b[10] & 7) + 1) : 0);
    while (at < b.size() && b[at] == 0x21) {  // extensions
        at += 2;
        while (at < b.size() && b[at]) at += b[at] + 1u;
        ++at;
    }
    ASSERT_EQ(b.at(at), 0x2C);
    put16le(b, at + 5, w), put16le(b, at + 7, h);
}

void calsSize(Bytes& b, unsigned w, unsigned h) {
    std::string s(b.begin(), b.end());
    const size_t at = s.find("rpelcnt:");
    ASSERT_NE(at, std::string::npos);
    char field[16];
    std::snprintf(field, sizeof field, " %06u,%06u", w, h);
    std::memcpy(b.data() + at + 8, field, std::strlen(field));
}

struct Bomb {
    const char* seed;  // under the seed corpus
    std::function<void(Bytes&)> patch;
};

const Bomb kBombs[] = {
    {"bmp/rle8.bmp", [](Bytes& b) { put32le(b, 18, kSide), put32le(b, 22, kSide); }},
    {"bmp/rle4.bmp", [](Bytes& b) { put32le(b, 18, kSide), put32le(b, 22, kSide); }},
    {"bmp/rgb24.bmp", [](Bytes& b) { put32le(b, 18, kSide), put32le(b, 22, kSide); }},
    {"targa/rgb_rle.tga", [](Bytes& b) { put16le(b, 12, kSide), put16le(b, 14, kSide); }},
    {"targa/grey_rle.tga", [](Bytes& b) { put16le(b, 12, kSide), put16le(b, 14, kSide); }},
    {"targa/rgb16.tga", [](Bytes& b) { put16le(b, 12, kSide), put16le(b, 14, kSide); }},
    {"pcx/ours256.pcx", [](Bytes& b) { put16le(b, 8, kSide - 1), put16le(b, 10, kSide - 1), put16le(b, 66, kSide); }},
    {"pcx/bits1.pcx", [](Bytes& b) { put16le(b, 8, kSide - 1), put16le(b, 10, kSide - 1), put16le(b, 66, kSide / 8); }},
    {"sun/im_rle.rs", [](Bytes& b) { put32be(b, 4, kSide), put32be(b, 8, kSide); }},
    {"sun/ours256.rs", [](Bytes& b) { put32be(b, 4, kSide), put32be(b, 8, kSide); }},
    {"flic/vga.fli", [](Bytes& b) { put16le(b, 8, kSide), put16le(b, 10, kSide); }},
    {"flic/one.flc", [](Bytes& b) { put16le(b, 8, kSide), put16le(b, 10, kSide); }},
    {"gif/im87.gif", [](Bytes& b) { gifSize(b, kSide, kSide); }},
    {"gif/im_interlaced.gif", [](Bytes& b) { gifSize(b, kSide, kSide); }},
    {"jpeg/grey.jpg", [](Bytes& b) { jpegSize(b, kSide, kSide); }},
    {"jpeg/progressive.jpg", [](Bytes& b) { jpegSize(b, kSide, kSide); }},
    {"png/ct0_d1.png", [](Bytes& b) { pngSize(b, kSide, kSide); }},
    {"png/ct2_d8.png", [](Bytes& b) { pngSize(b, kSide, kSide); }},
    {"tiff/g4.tif", [](Bytes& b) { tiffSize(b, kSide, kSide); }},
    {"tiff/rgb_lzw.tif", [](Bytes& b) { tiffSize(b, kSide, kSide); }},
    {"tiff/tiles_zip.tif", [](Bytes& b) { tiffSize(b, kSide, kSide); }},
    {"tiff/grey8.tif", [](Bytes& b) { tiffSize(b, kSide, kSide); }},
    {"intergraph/runs.rle", [](Bytes& b) { put32le(b, 184, kSide), put32le(b, 188, kSide); }},
    {"intergraph/g4.cit", [](Bytes& b) { put32le(b, 184, kSide), put32le(b, 188, kSide); }},
    {"intergraph/rl24.rgb", [](Bytes& b) { put32le(b, 184, kSide), put32le(b, 188, kSide); }},
    {"intergraph/rl8.t29", [](Bytes& b) { put32le(b, 184, kSide), put32le(b, 188, kSide); }},
    {"intergraph/tiled8.int", [](Bytes& b) { put32le(b, 184, kSide), put32le(b, 188, kSide); }},
    {"intergraph/rgb28.rgb", [](Bytes& b) { put32le(b, 184, kSide), put32le(b, 188, kSide); }},
    {"cals/ours.cal", [](Bytes& b) { calsSize(b, kSide, kSide); }},
    {"rlc/small.rlc", [](Bytes& b) { put16be(b, 0, kSide), put16be(b, 2, kSide); }},
};

// Every whole-image read entry point, and the streaming open with its first
// row: the status of each, by name.
std::vector<std::pair<std::string, int>> readAll(const std::string& path, int type) {
    std::vector<std::pair<std::string, int>> out;
    const char* p = path.c_str();
    ImageSize size{};
    uint8_t* rgb = nullptr;
    out.emplace_back("rgb", korImage_readFileToRGB(&rgb, &size, p, type, nullptr, nullptr));
    if (rgb) korImage_freeImage(rgb, &size, IMAGEFORMAT_RGB);
    uint8_t* rgba = nullptr;
    out.emplace_back("rgba", korImage_readFileToRGBA(&rgba, &size, p, type, nullptr, 0, 1, nullptr));
    if (rgba) korImage_freeImage(rgba, &size, IMAGEFORMAT_RGBA);
    uint8_t red[256], green[256], blue[256];
    int count = 0, layout = 0, mode = 0;
    uint8_t** rows = nullptr;
    out.emplace_back("map", korImage_readFileToMap(&rows, &size, red, green, blue, &count, p, type, nullptr, nullptr));
    if (rows) korImage_freeImage(rows, &size, IMAGEFORMAT_PACKBYTE);
    void* bits = nullptr;
    out.emplace_back("bitmap", korImage_readFileToBitMap(&bits, &size, p, type, 0, nullptr));
    if (bits) korImage_freeImage(bits, &size, IMAGEFORMAT_BITMAP);
    void* buffer = nullptr;
    out.emplace_back("buffer", korImage_readFileToBuffer(&buffer, &layout, &mode, red, green, blue, &count, &size, p,
                                                         type, 0, nullptr));
    if (buffer) korImage_freeImage(buffer, &size, layout);
    const ImageSize box{64, 64};
    uint8_t* thumb = nullptr;
    out.emplace_back("thumbnail", korImage_readThumbnail(&thumb, &size, p, type, &box, nullptr));
    if (thumb) korImage_freeImage(thumb, &size, IMAGEFORMAT_RGB);
    int st = 0;
    if (ImageFileContext* ctx = korImage_openFile(&st, nullptr, p)) {
        ImageSize rowSize{};
        korImage_getImageSize(&rowSize, ctx);
        Bytes planes(size_t(rowSize.x) * 4);
        uint8_t* r = planes.data();
        st = korImage_getRow(ctx, r, r + rowSize.x, r + 2 * rowSize.x, r + 3 * rowSize.x);
        korImage_closeFile(ctx);
    }
    out.emplace_back("stream", st);
    return out;
}

class Bombs : public ::testing::Test {
protected:
    void SetUp() override {
        ImageHost host = il::test::countingHost();
        host.getCfgVar = cfgVar;
        imagelib_setHost(&host);
        g_allocCap = kCap;
        g_peakBytes = size_t(g_liveBytes);
        g_maxPixels.clear();
    }
    void TearDown() override {
        imagelib_setHost(nullptr);
        g_allocCap = 0;
        g_maxPixels.clear();
    }
    iltest::TempDir dir;
};

// Tiny files claiming 6.8e8 pixels: every entry point fails (the size
// query may answer with the size) and none asks for more than kCap.
TEST_F(Bombs, TinyFilesClaimingHugeSizesAreRefusedWithoutLargeAllocations) {
    for (const Bomb& b : kBombs) {
        Bytes bytes = iltest::readFile(std::string(IMAGELIB_SEED_DIR) + "/" + b.seed);
        ASSERT_FALSE(bytes.empty()) << b.seed;
        b.patch(bytes);
        // The extension names the types that are not detected from their contents.
        const std::string seed = b.seed;
        const std::string path = dir.file("bomb" + seed.substr(seed.rfind('.')));
        ASSERT_TRUE(iltest::writeFile(path, bytes));
        g_peakBytes = size_t(g_liveBytes);
        ImageSize size{};
        int mode = 0, orientation = 0;
        korImage_readFileInfo(&size, &mode, &orientation, path.c_str(), -1);
        for (const auto& [entry, status] : readAll(path, -1)) {
            // A stream that no handler opens answers the last handler's status, 1 for TIFF.
            if (entry == "stream") EXPECT_NE(status, 0) << b.seed;
            else EXPECT_LT(status, 0) << b.seed << " " << entry;
            EXPECT_NE(status, IMGERR_NOMEMORY) << b.seed << " " << entry << ": sized from the header";
        }
        EXPECT_LE(size_t(g_peakBytes), kCap) << b.seed;
    }
}

// ---- Compressed files beyond the per-byte bounds ---------------------------

constexpr int kBig = 16400;  // 16400^2 = 268,960,000 > 2^28

// 1-bit grey PNG: IHDR, an IDAT of 64 KiB, IEND (libpng stops at the IDAT's
// data, after the size check).
Bytes bigPng() {
    Bytes b = {0x89, 'P', 'N', 'G', 13, 10, 26, 10, 0, 0, 0, 13, 'I', 'H', 'D', 'R'};
    append(b, {0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0});
    pngSize(b, kBig, kBig);
    const uint32_t n = 64 << 10;
    append(b, {int(n >> 24), int(n >> 16 & 255), int(n >> 8 & 255), 0, 'I', 'D', 'A', 'T'});
    b.insert(b.end(), n, 0x5A);
    append(b, {0, 0, 0, 0, 0, 0, 0, 0, 'I', 'E', 'N', 'D', 0xAE, 0x42, 0x60, 0x82});
    return b;
}

// Baseline grey JPEG header with comments to 300 KB (over 1024 pixels a byte
// would refuse it), then scan data that ends at once.
Bytes bigJpeg() {
    Bytes b = {0xFF, 0xD8};
    for (int i = 0; i < 5; ++i) {
        append(b, {0xFF, 0xFE, 0xFF, 0xF0});
        b.insert(b.end(), 0xFFF0 - 2, 'c');
    }
    append(b, {0xFF, 0xC0, 0, 11, 8, kBig >> 8, kBig & 255, kBig >> 8, kBig & 255, 1, 1, 0x11, 0});
    append(b, {0xFF, 0xDA, 0, 8, 1, 1, 0, 0, 63, 0, 0x12, 0x34, 0xFF, 0xD9});
    return b;
}

// 8-bit grey TIFF, one deflate strip of 80 KB.
Bytes bigTiff(int compression) {
    const uint32_t data = 80000, ifd = 8 + data;
    Bytes b = {'I', 'I', 42, 0};
    b.resize(8 + data, 0x78);
    put32le(b, 4, ifd);
    const uint32_t tags[][3] = {{256, 4, kBig}, {257, 4, kBig}, {258, 3, 8}, {259, 3, uint32_t(compression)},
                                {262, 3, 1},    {273, 4, 8},    {277, 3, 1}, {278, 4, kBig},
                                {279, 4, data}};
    append(b, {9, 0});
    for (const auto& t : tags) {
        const size_t at = b.size();
        b.resize(at + 12, 0);
        put16le(b, at, t[0]), put16le(b, at + 2, t[1]), put32le(b, at + 4, 1);
        if (t[1] == 3) put16le(b, at + 8, t[2]); else put32le(b, at + 8, t[2]);
    }
    append(b, {0, 0, 0, 0});
    return b;
}

// GIF with 120 KB of image data (over the 2731 pixels a byte LZW allows).
Bytes bigGif() {
    Bytes b = {'G', 'I', 'F', '8', '9', 'a', 0, 0, 0, 0, 0x80, 0, 0, 0, 0, 0, 255, 255, 255, 0x2C, 0, 0, 0, 0, 0, 0, 0, 0, 0, 8};
    put16le(b, 6, kBig), put16le(b, 8, kBig), put16le(b, 24, kBig), put16le(b, 26, kBig);
    for (int i = 0; i < 480; ++i) {
        b.push_back(255);
        b.insert(b.end(), 255, 0);
    }
    append(b, {0, ';'});
    return b;
}

struct BigCase {
    const char* name;
    Bytes (*make)();
    int type;
    bool bitmap;  // read as a bitmap (PNG's per-byte bound counts output bytes), else as RGB
};
Bytes tiffDeflate() { return bigTiff(8); }
Bytes tiffLzw() { return bigTiff(5); }
const BigCase kBig_[] = {{"png", bigPng, 28, true},        {"jpeg", bigJpeg, 18, false},
                         {"tiff deflate", tiffDeflate, 3, false}, {"tiff lzw", tiffLzw, 3, false},
                         {"gif", bigGif, 7, false}};

int readBig(const std::string& path, const BigCase& c) {
    ImageSize size{};
    if (c.bitmap) {
        void* bits = nullptr;
        const int st = korImage_readFileToBitMap(&bits, &size, path.c_str(), c.type, 0, nullptr);
        if (bits) korImage_freeImage(bits, &size, IMAGEFORMAT_BITMAP);
        return st;
    }
    uint8_t* rgb = nullptr;
    const int st = korImage_readFileToRGB(&rgb, &size, path.c_str(), c.type, nullptr, nullptr);
    if (rgb) korImage_freeImage(rgb, &size, IMAGEFORMAT_RGB);
    return st;
}

// With the default limit the reader refuses; with the limit at the image's
// own count it goes on to allocate the picture (refused by the host, -116);
// one pixel under it refuses again.
TEST_F(Bombs, CompressedFilesMeetThePixelLimit) {
    const std::string pixels = std::to_string(int64_t(kBig) * kBig);
    const std::string under = std::to_string(int64_t(kBig) * kBig - 1);
    for (const BigCase& c : kBig_) {
        const std::string path = dir.file(std::string("big_") + c.name);
        ASSERT_TRUE(iltest::writeFile(path, c.make()));
        g_peakBytes = size_t(g_liveBytes);
        g_maxPixels.clear();
        EXPECT_EQ(readBig(path, c), IMGERR_BADFILE) << c.name << " default limit";
        EXPECT_LE(size_t(g_peakBytes), kCap) << c.name;
        g_maxPixels = pixels;
        EXPECT_EQ(readBig(path, c), IMGERR_NOMEMORY) << c.name << " limit raised";
        EXPECT_GT(size_t(g_peakBytes), kCap) << c.name;
        g_maxPixels = under;
        EXPECT_EQ(readBig(path, c), IMGERR_BADFILE) << c.name << " limit one under";
    }
}

// A small compressed picture against a lowered limit: refused one pixel
// under its count, read at it.
TEST_F(Bombs, LoweredLimitRefusesSmallPictures) {
    for (const char* seed : {"png/ct2_d8.png", "jpeg/baseline.jpg", "gif/ours_map.gif", "tiff/rgb_lzw.tif",
                             "pcx/ours256.pcx", "intergraph/runs.rle", "flic/vga.fli"}) {
        const std::string path = std::string(IMAGELIB_SEED_DIR) + "/" + seed;
        ImageSize size{};
        uint8_t* rgb = nullptr;
        ASSERT_EQ(korImage_readFileToRGB(&rgb, &size, path.c_str(), -1, nullptr, nullptr), 0) << seed;
        korImage_freeImage(rgb, &size, IMAGEFORMAT_RGB);
        const int64_t n = int64_t(size.x) * size.y;
        g_maxPixels = std::to_string(n - 1);
        rgb = nullptr;
        EXPECT_EQ(korImage_readFileToRGB(&rgb, &size, path.c_str(), -1, nullptr, nullptr), IMGERR_BADFILE) << seed;
        if (rgb) korImage_freeImage(rgb, &size, IMAGEFORMAT_RGB);
        g_maxPixels = std::to_string(n);
        rgb = nullptr;
        EXPECT_EQ(korImage_readFileToRGB(&rgb, &size, path.c_str(), -1, nullptr, nullptr), 0) << seed;
        if (rgb) korImage_freeImage(rgb, &size, IMAGEFORMAT_RGB);
        g_maxPixels.clear();
    }
}

}  // namespace

// Inputs the fuzzers found, kept under tests/data/findings (named after the
// reader and the fault): every read entry point fails or reads, within kCap.
//   png-text-length-*: a text chunk claiming 1.7 GB in a file of 200 bytes
//   (libpng allocated the claimed length before finding the file short);
//   tiff-huge-samples: 65535 samples of 65535 bits (the row reader sized a
//   68 GB row; the bit count overflowed an int);
//   tiff-odd-bits-map: a 5-bit grey file (the map reader unpacked it as
//   two pixels a byte, past the end of the row; under the sanitizers).
TEST_F(Bombs, FuzzFindingsStayWithinBounds) {
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(IMAGELIB_FINDINGS_DIR)) {
        const std::string path = entry.path().string();
        g_peakBytes = size_t(g_liveBytes);
        for (const auto& [name, status] : readAll(path, -1))
            EXPECT_NE(status, IMGERR_NOMEMORY) << path << " " << name << ": sized from the file's claims";
        EXPECT_LE(size_t(g_peakBytes), kCap) << path;
        ++files;
    }
    EXPECT_GT(files, 0);
}
