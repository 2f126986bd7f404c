// TIFF codec rules: files are built with libtiff itself, so that each test
// holds exactly the tags it is about.
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "codecs/libs/tiff.h"
#include "codecs/rows.h"
#include "imagelib/imagelib.h"
#include "test_support.h"

#include <tiffio.h>

namespace {

using Bytes = std::vector<uint8_t>;

// Writes a one-strip TIFF: tags set by `tags`, rows of rowBytes bytes.
void makeTiff(const std::string& path, uint32_t w, uint32_t h, size_t rowBytes, const Bytes& data,
              const std::function<void(TIFF*)>& tags) {
    TIFF* t = TIFFOpen(path.c_str(), "w");
    ASSERT_NE(t, nullptr);
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, w);
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, h);
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, h);
    tags(t);
    for (uint32_t y = 0; y < h; ++y) ASSERT_GE(TIFFWriteScanline(t, (void*)(data.data() + rowBytes * y), y, 0), 0);
    TIFFClose(t);
}

void palette1(TIFF* t, uint16_t first, uint16_t second) {
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 1);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_PALETTE);
    uint16_t r[2] = {first, second}, g[2] = {first, second}, b[2] = {first, second};
    TIFFSetField(t, TIFFTAG_COLORMAP, r, g, b);
}

struct Env {
    const char* name;
    Env(const char* n, const char* v) : name(n) { setenv(n, v, 1); }
    ~Env() { unsetenv(name); }
};

Bytes bitmapOf(const std::string& path, int* status, ImageSize* size = nullptr) {
    void* p = nullptr;
    ImageSize s{};
    *status = tiff_readFileToBitMap(&p, &s, 0, path.c_str(), nullptr);
    if (*status) return {};
    Bytes out(static_cast<uint8_t*>(p), static_cast<uint8_t*>(p) + size_t((s.x + 7) / 8) * s.y);
    korImage_freeImage(p, &s, IMAGEFORMAT_BITMAP);
    if (size) *size = s;
    return out;
}

// True when the first directory of a big-endian classic TIFF file has an
// entry for tag.
bool hasTag(const std::string& path, uint16_t tag) {
    const Bytes b = iltest::readFile(path);
    auto u16 = [&](size_t at) { return uint16_t(b.at(at) << 8 | b.at(at + 1)); };
    const size_t ifd = size_t(b.at(4)) << 24 | size_t(b.at(5)) << 16 | size_t(b.at(6)) << 8 | b.at(7);
    for (size_t i = 0, n = u16(ifd); i < n; ++i)
        if (u16(ifd + 2 + 12 * i) == tag) return true;
    return false;
}

class Tiff : public ::testing::Test {
protected:
    iltest::TempDir dir;
    std::string f(const char* name) { return dir.file(name); }
};

TEST(TiffCodes, CompressionTablesBothWays) {
    EXPECT_EQ(tiff_compressionFromCode(-5, 8), COMPRESSION_LZW);
    EXPECT_EQ(tiff_compressionFromCode(-1, 8), COMPRESSION_NONE);
    EXPECT_EQ(tiff_compressionFromCode(6, 8), COMPRESSION_JPEG);
    EXPECT_EQ(tiff_compressionFromCode(32946, 8), 32946);
    // Unlisted codes (1, 5, -3, ...) depend on the depth.
    for (int code : {1, 5, -3, 90}) {
        EXPECT_EQ(tiff_compressionFromCode(code, 1), COMPRESSION_CCITTFAX4) << code;
        EXPECT_EQ(tiff_compressionFromCode(code, 8), COMPRESSION_PACKBITS) << code;
    }
    EXPECT_EQ(tiff_codeFromCompression(COMPRESSION_LZW), -5);
    EXPECT_EQ(tiff_codeFromCompression(COMPRESSION_NONE), 0);
    EXPECT_EQ(tiff_codeFromCompression(COMPRESSION_JPEG), 7);
    EXPECT_EQ(tiff_codeFromCompression(COMPRESSION_OJPEG), 6);
    EXPECT_EQ(tiff_codeFromCompression(34661), 34661);
    EXPECT_EQ(tiff_codeFromCompression(COMPRESSION_LZMA), 0);
}

TEST_F(Tiff, MissingBitsPerSampleReadsAsOneBit) {
    const std::string p = f("nobits.tif");
    makeTiff(p, 16, 2, 2, {0xF0, 0x0F, 0x00, 0xFF}, [](TIFF* t) {
        TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    });
    TiffInfo info{};
    ASSERT_EQ(tiff_readFileInfo(&info, p.c_str()), 0);
    EXPECT_EQ(info.colourMode, COLORMODE_BILEVEL);
    EXPECT_EQ(info.orientation, 0);
    EXPECT_EQ(info.flags, kTiffInfoFlags);
    uint8_t r[256], g[256], b[256];
    int n = 0;
    ASSERT_EQ(tiff_readPalette(r, g, b, &n, p.c_str()), 0);
    EXPECT_EQ(n, 2);
    EXPECT_EQ(r[0], 0);
    EXPECT_EQ(r[1], 255);
    int st;
    EXPECT_EQ(bitmapOf(p, &st), (Bytes{0xF0, 0x0F, 0x00, 0xFF}));
}

// Samples of 3, 5, 6 and 7 bits run across byte boundaries in TIFF rows:
// the map reader takes each from its own bits, not two or more to a byte.
TEST_F(Tiff, OddBitDepthsReadSampleBySample) {
    const uint32_t w = 37, h = 2;
    for (int bits : {3, 5, 6, 7}) {
        SCOPED_TRACE(bits);
        const std::string p = f("odd.tif");
        const size_t rowBytes = (w * bits + 7) / 8;
        Bytes data(rowBytes * h, 0), want(w * h);
        for (uint32_t y = 0; y < h; ++y)
            for (uint32_t x = 0; x < w; ++x) {
                const unsigned v = (x * 7 + y * 3) % (1u << bits);
                want[y * w + x] = uint8_t(v);
                for (int k = 0; k < bits; ++k) {  // most significant bit first
                    const size_t bit = size_t(x) * bits + size_t(k);
                    if (v >> (bits - 1 - k) & 1) data[y * rowBytes + bit / 8] |= uint8_t(0x80 >> (bit % 8));
                }
            }
        makeTiff(p, w, h, rowBytes, data, [bits](TIFF* t) {
            TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, bits);
            TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
        });
        void* map = nullptr;
        ImageSize size{};
        uint8_t r[256], g[256], b[256];
        int count = 0;
        ASSERT_EQ(tiff_readFileToMap(&map, &size, r, g, b, &count, p.c_str(), 0, nullptr), 0);
        EXPECT_EQ(Bytes(static_cast<uint8_t*>(map), static_cast<uint8_t*>(map) + w * h), want);
        korImage_freeImage(map, &size, IMAGEFORMAT_MAP);
    }
}

TEST_F(Tiff, InfoFlagsTypeAndMissingPhotometric) {
    const std::string p = f("rgb.tif"), q = f("nophoto.tif");
    makeTiff(p, 2, 1, 6, Bytes(6, 7), [](TIFF* t) {
        TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 8);
        TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 3);
        TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
        TIFFSetField(t, TIFFTAG_ORIENTATION, ORIENTATION_BOTLEFT);
        TIFFSetField(t, TIFFTAG_XRESOLUTION, 300.0);
    });
    TiffInfo info{};
    ASSERT_EQ(tiff_readFileInfo(&info, p.c_str()), 0);
    EXPECT_EQ(info.type, 3);
    EXPECT_EQ(info.flags, kTiffInfoFlags | kTiffInfoDirectRows);
    EXPECT_EQ(info.orientation, 2);
    EXPECT_FLOAT_EQ(info.xResolution, 300.0f);
    EXPECT_EQ(info.compression, 0);
    makeTiff(q, 8, 1, 1, {0}, [](TIFF*) {});
    EXPECT_EQ(tiff_readFileInfo(&info, q.c_str()), IMGERR_UNSUPPORTEDTYPE);
    iltest::writeFile(f("x.tif"), std::string("XX\x2a\x00"));
    EXPECT_EQ(tiff_detect(f("x.tif").c_str(), 3), IMGERR_UNSUPPORTEDTYPE);
    EXPECT_EQ(tiff_detect(f("none.tif").c_str(), 3), IMGERR_OPENFAILED);
}

TEST_F(Tiff, ColorMapHighOrLowBytes) {
    const std::string hi = f("hi.tif"), lo = f("lo.tif");
    auto map = [](uint16_t scale) {
        return [scale](TIFF* t) {
            TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 4);
            TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_PALETTE);
            uint16_t r[16], g[16], b[16];
            for (int i = 0; i < 16; ++i) r[i] = uint16_t(i * 16 * scale), g[i] = uint16_t((15 - i) * scale), b[i] = 0;
            TIFFSetField(t, TIFFTAG_COLORMAP, r, g, b);
        };
    };
    makeTiff(hi, 4, 1, 2, {0x01, 0xEF}, map(256));
    makeTiff(lo, 4, 1, 2, {0x01, 0xEF}, map(1));
    for (const std::string& p : {hi, lo}) {
        uint8_t r[256] = {}, g[256] = {}, b[256] = {};
        int n = 0;
        ASSERT_EQ(tiff_readPalette(r, g, b, &n, p.c_str()), 0);
        EXPECT_EQ(n, 16);
        EXPECT_EQ(r[15], 240);
        EXPECT_EQ(g[0], 15);
        void* m = nullptr;
        ImageSize s{};
        ASSERT_EQ(tiff_readFileToMap(&m, &s, r, g, b, &n, p.c_str(), 0, nullptr), 0);
        EXPECT_EQ(Bytes(static_cast<uint8_t*>(m), static_cast<uint8_t*>(m) + 4), (Bytes{0, 1, 14, 15}));
        korImage_freeImage(m, &s, IMAGEFORMAT_MAP);
    }
}

TEST_F(Tiff, BitmapInversionAndItsFlip) {
    const Bytes rows = {0xC0};
    const std::string white0 = f("w0.tif"), black0 = f("b0.tif"), minWhite = f("mw.tif"), minBlack = f("mb.tif");
    makeTiff(white0, 4, 1, 1, rows, [](TIFF* t) { palette1(t, 65535, 0); });
    makeTiff(black0, 4, 1, 1, rows, [](TIFF* t) { palette1(t, 0, 65535); });
    makeTiff(minWhite, 4, 1, 1, rows, [](TIFF* t) {
        TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 1);
        TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISWHITE);
    });
    makeTiff(minBlack, 4, 1, 1, rows, [](TIFF* t) {
        TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 1);
        TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    });
    int st;
    EXPECT_EQ(bitmapOf(white0, &st)[0], 0x3F);
    EXPECT_EQ(bitmapOf(minWhite, &st)[0], 0x3F);
    EXPECT_EQ(bitmapOf(black0, &st)[0], 0xC0);
    EXPECT_EQ(bitmapOf(minBlack, &st)[0], 0xC0);
    {
        Env flip("KV_RASTER_TIFFINVERT", "1");
        EXPECT_EQ(bitmapOf(white0, &st)[0], 0xC0);
        EXPECT_EQ(bitmapOf(minBlack, &st)[0], 0x3F);
    }
    Env zero("KV_RASTER_TIFFINVERT", "0");
    EXPECT_EQ(bitmapOf(white0, &st)[0], 0x3F);
    // Two bits a pixel is not a bitmap.
    const std::string grey2 = f("g2.tif");
    makeTiff(grey2, 4, 1, 1, rows, [](TIFF* t) {
        TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 2);
        TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    });
    bitmapOf(grey2, &st);
    EXPECT_EQ(st, IMGERR_UNSUPPORTEDTYPE);
}

TEST_F(Tiff, BitmapWriterTags) {
    const std::string p = f("bits.tif");
    const uint8_t bits[4] = {0xA5, 0x80, 0x5A, 0x00};
    const ImageSize size{9, 2};
    ASSERT_EQ(tiff_createFileFromBitMap(p.c_str(), bits, 0, &size, 4, 1, nullptr), 0);
    TIFF* t = TIFFOpen(p.c_str(), "r");
    ASSERT_NE(t, nullptr);
    float res = 0;
    uint16_t v = 0;
    // libtiff answers for both resolutions when either is there: look at the
    // directory itself.
    EXPECT_FALSE(hasTag(p, TIFFTAG_XRESOLUTION));
    EXPECT_TRUE(hasTag(p, TIFFTAG_YRESOLUTION));
    ASSERT_EQ(TIFFGetField(t, TIFFTAG_YRESOLUTION, &res), 1);
    EXPECT_FLOAT_EQ(res, 196.0f);
    TIFFGetField(t, TIFFTAG_PHOTOMETRIC, &v);
    EXPECT_EQ(v, PHOTOMETRIC_MINISWHITE);
    TIFFGetField(t, TIFFTAG_COMPRESSION, &v);
    EXPECT_EQ(v, COMPRESSION_CCITTFAX4);
    EXPECT_TRUE(TIFFIsBigEndian(t));  // the writers open with "b"
    TIFFClose(t);
    // Min-is-white files read back inverted.
    int st;
    Bytes back = bitmapOf(p, &st);
    ASSERT_EQ(back.size(), 4u);
    EXPECT_EQ(back[0], 0x5A);
    EXPECT_EQ(back[1] & 0x80, 0x00);
    EXPECT_EQ(back[2], 0xA5);
    EXPECT_EQ(back[3] & 0x80, 0x80);
    ASSERT_EQ(tiff_createFileFromBitMap(p.c_str(), bits, 0, &size, 0, 0, nullptr), 0);
    EXPECT_EQ(bitmapOf(p, &st)[0], 0xA5);
}

TEST_F(Tiff, RGBWriterModes) {
    // Grey exactly 128 writes a 0 bit; 129 a 1 bit.
    const ImageSize size{3, 1};
    const uint8_t rgb[9] = {128, 129, 255, 128, 129, 255, 128, 129, 255};
    const std::string p = f("bi.tif");
    ASSERT_EQ(tiff_createFileFromRGB(p.c_str(), rgb, &size, COLORMODE_BILEVEL, 0, nullptr), 0);
    int st;
    EXPECT_EQ(bitmapOf(p, &st)[0] & 0xE0, 0x60);
    // Grey mode: 0.3 R + 0.59 G + 0.11 B + 0.5, truncated.
    const uint8_t c[3] = {200, 100, 10};
    const ImageSize one{1, 1};
    ASSERT_EQ(tiff_createFileFromRGB(p.c_str(), c, &one, COLORMODE_GREY, -5, nullptr), 0);
    uint8_t r[256], g[256], b[256];
    int n = 0;
    void* m = nullptr;
    ImageSize s{};
    ASSERT_EQ(tiff_readFileToMap(&m, &s, r, g, b, &n, p.c_str(), 0, nullptr), 0);
    EXPECT_EQ(static_cast<uint8_t*>(m)[0], 120);  // 60 + 59 + 1.1 + 0.5
    korImage_freeImage(m, &s, IMAGEFORMAT_MAP);
    // Rows wider than 8192 bytes: one row a strip.
    const ImageSize wide{3000, 2};
    Bytes big(size_t(wide.x) * 3 * 2, 9);
    ASSERT_EQ(tiff_createFileFromRGB(p.c_str(), big.data(), &wide, COLORMODE_RGB, 0, nullptr), 0);
    TIFF* t = TIFFOpen(p.c_str(), "r");
    uint32_t rps = 0;
    TIFFGetField(t, TIFFTAG_ROWSPERSTRIP, &rps);
    EXPECT_EQ(rps, 1u);
    TIFFClose(t);
    ASSERT_EQ(tiff_createFileFromRGB(p.c_str(), big.data(), &size, COLORMODE_RGB, 7, nullptr), 0);
    t = TIFFOpen(p.c_str(), "r");
    TIFFGetField(t, TIFFTAG_ROWSPERSTRIP, &rps);
    EXPECT_EQ(rps, 1u);  // the height, with JPEG
    TIFFClose(t);
}

TEST_F(Tiff, MapWriterColorMapAndNibbles) {
    const ImageSize size{3, 1};
    const uint8_t map[3] = {1, 2, 15};
    uint8_t r[256] = {}, g[256] = {}, b[256] = {};
    for (int i = 0; i < 16; ++i) r[i] = uint8_t(i * 17), g[i] = uint8_t(255 - i), b[i] = 1;
    const std::string p = f("m4.tif");
    TiffMapOptions o{16, size, COLORMODE_PALETTE16, 0, 0, nullptr};
    ASSERT_EQ(tiff_createFileFromMap(p.c_str(), map, r, g, b, &o), 0);
    TIFF* t = TIFFOpen(p.c_str(), "r");
    ASSERT_NE(t, nullptr);
    uint16_t *cr, *cg, *cb, bps = 0;
    ASSERT_EQ(TIFFGetField(t, TIFFTAG_COLORMAP, &cr, &cg, &cb), 1);
    TIFFGetField(t, TIFFTAG_BITSPERSAMPLE, &bps);
    EXPECT_EQ(bps, 4);
    EXPECT_EQ(cr[15], 255 * 256);  // x 256, not x 257
    EXPECT_EQ(cb[3], 256);
    uint8_t line[2];
    ASSERT_GE(TIFFReadScanline(t, line, 0, 0), 0);
    EXPECT_EQ(line[0], 0x12);
    EXPECT_EQ(line[1] & 0xF0, 0xF0);
    TIFFClose(t);
    // More than 16 colours asked for as 16: reduced first.
    uint8_t many[40];
    uint8_t R[256], G[256], B[256];
    for (int i = 0; i < 256; ++i) R[i] = G[i] = B[i] = uint8_t(i);
    for (int i = 0; i < 40; ++i) many[i] = uint8_t(i * 6);
    const ImageSize wide{40, 1};
    o = {256, wide, COLORMODE_PALETTE16, 0, 0, nullptr};
    ASSERT_EQ(tiff_createFileFromMap(p.c_str(), many, R, G, B, &o), 0);
    TiffInfo info{};
    ASSERT_EQ(tiff_readFileInfo(&info, p.c_str()), 0);
    EXPECT_EQ(info.colourMode, COLORMODE_PALETTE16);
}

TEST_F(Tiff, ScanlineWriteFailureIsPositive) {
    // A file size limit makes the first strip fail to write.
    const ImageSize size{64, 64};
    Bytes rgb(64 * 64 * 3, 1);
    struct rlimit old;
    getrlimit(RLIMIT_FSIZE, &old);
    struct rlimit small = old;
    small.rlim_cur = 1000;
    auto previous = signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &small);
    const int st = tiff_createFileFromRGB(f("full.tif").c_str(), rgb.data(), &size, COLORMODE_RGB, 0, nullptr);
    setrlimit(RLIMIT_FSIZE, &old);
    signal(SIGXFSZ, previous);
    EXPECT_EQ(st, kTiffWriteFailed);
}

TEST_F(Tiff, RGBAReaderOrientationAndAlpha) {
    // Two rows, stored bottom-left: buffer rows keep the file's order.
    const std::string p = f("rgba.tif");
    const Bytes rows = {1, 2, 3, 4, 5, 6, 7, 8};
    auto tags = [](uint16_t orientation) {
        return [orientation](TIFF* t) {
            TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 8);
            TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 4);
            uint16_t extra = EXTRASAMPLE_ASSOCALPHA;
            TIFFSetField(t, TIFFTAG_EXTRASAMPLES, 1, &extra);
            TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
            TIFFSetField(t, TIFFTAG_ORIENTATION, orientation);
        };
    };
    for (uint16_t o : {ORIENTATION_TOPLEFT, ORIENTATION_BOTLEFT, ORIENTATION_BOTRIGHT}) {
        makeTiff(p, 1, 2, 4, rows, tags(o));
        TiffInfo info{};
        ASSERT_EQ(tiff_readFileInfo(&info, p.c_str()), 0);
        EXPECT_EQ(info.colourMode, COLORMODE_RGBA);
        uint8_t* out = nullptr;
        ImageSize s{};
        ASSERT_EQ(tiff_readFileToRGBSeparate(&out, &s, p.c_str(), 1, nullptr), 0) << o;
        EXPECT_EQ(Bytes(out, out + 8), rows) << o;
        EXPECT_EQ(tiff_lastMessageCode(), o == ORIENTATION_BOTRIGHT ? kTiffMsgOrientBottom : 0);
        korImage_freeImage(out, &s, IMAGEFORMAT_RGB);
    }
}

int stopAtOnce(int, int) { return 1; }

TEST_F(Tiff, StopAndForgedSizes) {
    const std::string p = f("g.tif");
    makeTiff(p, 4, 4, 4, Bytes(16, 50), [](TIFF* t) {
        TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 8);
        TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    });
    uint8_t* out = nullptr;
    ImageSize s{};
    EXPECT_EQ(tiff_readFileToRGBSeparate(&out, &s, p.c_str(), 0, stopAtOnce), IMGERR_STOPPED);
    EXPECT_EQ(out, nullptr);
    // A header claiming 60000 x 60000 pixels in a few hundred bytes.
    const std::string big = f("big.tif");
    TIFF* t = TIFFOpen(big.c_str(), "w");
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, 60000u);
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, 60000u);
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_DEFLATE);
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, 60000u);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    uint8_t row[16] = {};
    TIFFWriteRawStrip(t, 0, row, sizeof row);
    TIFFClose(t);
    EXPECT_EQ(tiff_readFileToRGBSeparate(&out, &s, big.c_str(), 0, nullptr), IMGERR_BADFILE);
    uint8_t r[256], g[256], b[256];
    int n;
    void* m = nullptr;
    EXPECT_EQ(tiff_readFileToMap(&m, &s, r, g, b, &n, big.c_str(), 1, nullptr), IMGERR_BADFILE);
}

// ---- messages -------------------------------------------------------------------

thread_local std::vector<std::string> g_printed;
void collect(const char* text) { g_printed.push_back(text); }

void warn(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    tiff_messageHandler("mod", fmt, ap);
    va_end(ap);
}

TEST(TiffMessages, FlagsSilencingAndSuppression) {
    tiff_setMessageSink(collect);
    g_printed.clear();
    tiff_installHandlers();
    warn("Unknown field with tag %u (0x%x) encountered", 700u, 700u);
    EXPECT_EQ(tiff_lastMessageCode(), 28);
    warn("Invalid TIFF directory; tags are not sorted in ascending order");
    EXPECT_EQ(tiff_lastMessageCode(), 3);
    EXPECT_TRUE(g_printed.empty());
    warn("Out of memory reading of \"%s\"", "x");
    EXPECT_EQ(tiff_lastMessageCode(), kTiffMsgNoMemory);
    ASSERT_EQ(g_printed.size(), 1u);
    {
        Env a("KV_IGNOREUNKNOWNTAGS", "0"), b("KV_IGNOREKNOWNWARNINGS", "0");
        tiff_installHandlers();
        g_printed.clear();
        warn("Unknown field with tag %u (0x%x) encountered", 700u, 700u);
        warn("Invalid TIFF directory; tags are not sorted in ascending order");
        ASSERT_EQ(g_printed.size(), 2u);
        // Module, severity label, then the catalogue text with the arguments.
        EXPECT_NE(g_printed[0].find("mod: "), std::string::npos);
        EXPECT_NE(g_printed[0].find("700 (0x2bc)"), std::string::npos);
    }
    tiff_installHandlers();
    g_printed.clear();
    tiff_suppressMessages(0);
    warn("Out of memory");
    tiff_suppressMessages(0);  // saving the cleared flag
    tiff_suppressMessages(1);
    warn("Out of memory");
    EXPECT_TRUE(g_printed.empty());
    tiff_suppressMessages(2);
    warn("Out of memory");
    EXPECT_EQ(g_printed.size(), 1u);
    // Compression-library failures name zlib's own text.
    g_printed.clear();
    warn("Decoding error at scanline %u, %s", 3u, "incorrect header check");
    EXPECT_EQ(tiff_lastMessageCode(), kTiffMsgZlibDecode);
    ASSERT_EQ(g_printed.size(), 1u);
    EXPECT_NE(g_printed[0].find("Decoding error at scanline 3"), std::string::npos);
    {
        Env off("KV_TIFFMESSAGES", "0");
        tiff_installHandlers();
        g_printed.clear();
        warn("Out of memory");
        EXPECT_TRUE(g_printed.empty());
    }
    tiff_setMessageSink(nullptr);
}

// ---- streaming ----------------------------------------------------------------------

TEST_F(Tiff, StreamRowsBothWays) {
    const std::string p = f("s.tif");
    ImageFileContext w{};
    w.fileSize = {3, 2};
    ASSERT_EQ(tiff_createStream(&w, p.c_str(), 3, COLORMODE_RGB), 0);
    const uint8_t R[3] = {1, 2, 3}, G[3] = {4, 5, 6}, B[3] = {7, 8, 9};
    ASSERT_EQ(w.writeRow(&w, R, G, B, nullptr), 0);
    ASSERT_EQ(w.writeRow(&w, B, G, R, nullptr), 0);
    w.close(&w);
    TiffInfo info{};
    ASSERT_EQ(tiff_readFileInfo(&info, p.c_str()), 0);
    EXPECT_EQ(info.compression, 32773);

    ImageFileContext r{};
    ASSERT_EQ(tiff_openStream(&r, p.c_str()), 0);
    EXPECT_EQ(r.orientation, 4);
    EXPECT_EQ(r.fileSize.x, 3);
    uint8_t r0[4], g0[4], b0[4];
    ASSERT_EQ(r.readRow(&r, r0, g0, b0, nullptr), 0);
    ASSERT_EQ(r.readRow(&r, r0, g0, b0, nullptr), 0);
    EXPECT_EQ(Bytes(r0, r0 + 3), Bytes(B, B + 3));
    r.close(&r);

    // Palette rows through the colour table; orientation 4 (bottom-left) is code 6.
    const std::string q = f("p.tif");
    makeTiff(q, 4, 1, 1, {0x90}, [](TIFF* t) {
        TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 2);
        TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISWHITE);
        TIFFSetField(t, TIFFTAG_ORIENTATION, ORIENTATION_BOTLEFT);
    });
    ImageFileContext c{};
    ASSERT_EQ(tiff_openStream(&c, q.c_str()), 0);
    EXPECT_EQ(c.orientation, 6);
    ASSERT_EQ(c.readRow(&c, r0, g0, b0, nullptr), 0);
    EXPECT_EQ(g0[0], 85);   // value 2, white first: 255 * (3 - 2) / 3
    EXPECT_EQ(g0[1], 170);  // value 1
    c.close(&c);
    iltest::writeFile(f("no.tif"), std::string("BM"));
    ImageFileContext d{};
    EXPECT_EQ(tiff_openStream(&d, f("no.tif").c_str()), 1);
}

}  // namespace
