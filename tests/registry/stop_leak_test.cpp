// Interruption leaves nothing behind: every reader and writer, stopped by the
// caller's poll at its first poll and again half-way, answers its stop status
// and gives back every host block and file descriptor it took. A counting host
// allocator tracks the blocks; /proc/self/fd the descriptors. Allocations
// outside the host (libtiff, libjpeg, libpng, the C++ runtime) are covered by
// running this executable under valgrind (scripts/valgrind.sh).
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "imagelib/imagelib.h"
#include "counting_host.h"
#include "test_support.h"

namespace {

namespace fs = std::filesystem;

// ---- The counting host and the stop poll --------------------------------

using il::test::g_live;

int openFds() {
    int n = 0;
    for ([[maybe_unused]] const auto& e : fs::directory_iterator("/proc/self/fd")) ++n;
    return n;
}

// The poll answers kAnswer from poll number g_stopAt on (0: never), so that
// "the poll's own value" is told apart from 1 and -144.
constexpr int kAnswer = 7;
thread_local int g_polls = 0;
thread_local int g_stopAt = 0;
int stopPoll(int, int) { return ++g_polls, (g_stopAt && g_polls >= g_stopAt) ? kAnswer : 0; }

// ---- What a stopped call answers ----------------------------------------

enum Entry { kRgb, kRgbSized, kRgba, kMap, kMapSized, kBitMap, kRleBitMap, kBuffer,  // readers
             kFromRgb, kFromMap, kFromPackByte, kFromBitMap, kFromRle, kFrameRgb, kFrameMap };  // writers
const char* const kEntryNames[] = {"rgb", "rgb sized", "rgba", "map", "map sized", "bitmap", "rle bitmap",
                                   "buffer", "from rgb", "from map", "from packbyte", "from bitmap",
                                   "from rle", "movie frame rgb", "movie frame map"};
constexpr int kAny = -1;
constexpr int kPaletteModes = 1 << COLORMODE_PALETTE16 | 1 << COLORMODE_PALETTE256;
constexpr bool isWriter(int e) { return e >= kFromRgb; }

struct Rule {
    bool writer;
    int type, entry, modes;  // kAny matches every one; modes: a bit a colour mode
    int first, mid;         // status when stopped at the first poll, half-way
    bool mayNotPoll = false;
};
// First matching row wins. -144 is the rule; the other rows are the formats'
// own answers, kept for their callers.
const Rule kRules[] = {
    // Targa reads stream rows into the image: 1, the part read handed out.
    {false, 2, kAny, kAny, IMGSTAT_STREAM_STOPPED, IMGSTAT_STREAM_STOPPED},
    {false, 7, kMap, kAny, kAnswer, kAnswer},  // GIF decoder: the poll's value
    {false, 7, kMapSized, kAny, kAnswer, kAnswer},
    {false, 7, kRgb, kAny, kAnswer, IMGERR_STOPPED},  // then the map-to-RGB step
    {false, 7, kRgbSized, kAny, kAnswer, IMGERR_STOPPED},
    // The BMP decoders take no poll; the conversions after them do.
    {false, 9, kAny, kAny, IMGERR_STOPPED, IMGERR_STOPPED, true},
    {false, 11, kRgba, kAny, IMGERR_STOPPED, IMGERR_STOPPED},
    {false, 11, kAny, kAny, 1, IMGERR_STOPPED},  // p: 1 at the header poll
    {false, kAny, kAny, kAny, IMGERR_STOPPED, IMGERR_STOPPED},
    // Writers finish and close the file; most answer the poll's value.
    // The optimised palette of modes 2 and 3 is made before the file: a stop
    // there gives the palette's 1 (BMP, GIF, PICT, WPG) or -144 (PNG, COT).
    {true, 4, kFromRgb, kPaletteModes, 1, kAnswer},
    {true, 7, kFromRgb, kPaletteModes, 1, kAnswer},
    {true, 7, kFromRgb, 1 << COLORMODE_RGBA, 1, kAnswer},  // over 255 colours: through the palette too
    {true, 8, kFromRgb, kPaletteModes, 1, kAnswer},
    {true, 9, kFromRgb, kPaletteModes, 1, kAnswer},
    {true, 28, kFromRgb, kPaletteModes, IMGERR_STOPPED, kAnswer},
    {true, 28, kFromPackByte, 1 << COLORMODE_GREY, IMGERR_STOPPED, kAnswer},  // grey conversion first
    {true, 17, kFromRgb, 1 << COLORMODE_PALETTE256, IMGERR_STOPPED, 0},
    {true, 2, kAny, kAny, kAnswer, kAnswer},    // Targa (row writer)
    {true, 1, kAny, kAny, kAnswer, kAnswer},    // Intergraph RGB (row writer)
    {true, 4, kAny, kAny, kAnswer, kAnswer},    // PICT
    {true, 6, kAny, kAny, kAnswer, kAnswer},    // EPS
    {true, 7, kAny, kAny, kAnswer, kAnswer},    // GIF
    {true, 8, kAny, kAny, kAnswer, kAnswer},    // WPG
    {true, 9, kAny, kAny, kAnswer, kAnswer},    // BMP
    {true, 28, kAny, kAny, kAnswer, kAnswer},   // PNG
    {true, 5, kAny, kAny, 1, 1},                // PCX: 1
    {true, 10, kAny, kAny, 1, 1},               // Sun: 1
    {true, 11, kFromMap, kAny, 1, 1, true},     // p: 1; a whole map is written at once
    {true, 11, kAny, kAny, 1, 1},
    {true, 12, kAny, kAny, 1, 1},               // a: 1
    {true, 17, kAny, kAny, 0, 0},               // COT: the file is closed, 0
    {true, 13, kFromMap, 1 << COLORMODE_BILEVEL, kAnswer, kAnswer},  // RLE from a two-colour map
    {true, 13, kFromBitMap, kAny, IMGERR_STOPPED, IMGERR_STOPPED},
    {true, 13, kFromRle, kAny, IMGERR_STOPPED, IMGERR_STOPPED},
    {true, 13, kAny, kAny, 0, 0},               // RLE from RGB: 0
    {true, 26, kAny, kAny, 0, 0},               // AVI: the frame is kept with the rows converted
    {true, kAny, kAny, kAny, IMGERR_STOPPED, IMGERR_STOPPED},
};
const Rule& rule(int type, int entry, int mode) {
    for (const Rule& r : kRules)
        if (r.writer == isWriter(entry) && (r.type == kAny || r.type == type) &&
            (r.entry == kAny || r.entry == entry) && (r.modes & (1 << mode)))
            return r;
    return kRules[0];
}

// ---- The images the writers are given ------------------------------------

constexpr int kW = 40, kH = 30;
struct Pictures {
    ImageSize size{kW, kH};
    std::vector<uint8_t> rgb, rgba, map16, map2, bits;
    uint8_t red[256]{}, green[256]{}, blue[256]{};
    uint8_t** packByte = nullptr;
    uint16_t** rle = nullptr;
    Pictures() {
        for (int y = 0; y < kH; ++y)
            for (int c = 0; c < 4; ++c)
                for (int x = 0; x < kW; ++x) {
                    const uint8_t v = uint8_t(c == 3 ? 255 - 6 * x : (x * 6 + y * 8 * c + (x ^ y) * 3) & 255);
                    if (c < 3) rgb.push_back(v);
                    rgba.push_back(v);
                    if (c == 0) map16.push_back(uint8_t((x / 3 + y / 2) & 15)), map2.push_back(uint8_t((x + y) / 5 & 1));
                }
        for (int i = 0; i < 16; ++i) red[i] = uint8_t(i * 17), green[i] = uint8_t(255 - i * 16), blue[i] = uint8_t(i * 40);
        bits.assign(size_t((kW + 7) / 8) * kH, 0);
        for (int i = 0; i < kW * kH; ++i)
            if (map2[i]) bits[size_t(i / kW * ((kW + 7) / 8) + i % kW / 8)] |= uint8_t(0x80 >> (i % kW % 8));
        void* pb = nullptr;
        EXPECT_EQ(korImage_extRGBToMap(&pb, rgb.data(), &size, red, green, blue, 16, 1, nullptr), 0);
        packByte = static_cast<uint8_t**>(pb);
        EXPECT_EQ(korImage_runLengthEncodeBitMap(&rle, bits.data(), &size), 0);
    }
    ~Pictures() {
        korImage_freeImage(packByte, &size, IMAGEFORMAT_PACKBYTE);
        korImage_freeImage(rle, &size, IMAGEFORMAT_RLEBITMAP);
    }
};

// ---- One call of an entry point -------------------------------------------

// Reads `path` through `entry`; a handed-out image is freed at once.
int readOnce(int entry, const std::string& path, int type, bool* handedOut) {
    const ImageSize want{23, 17};
    ImageSize size{};
    void* out = nullptr;
    int layout = IMAGEFORMAT_RGB, mode = 0, count = 0, s = 0;
    uint8_t r[256], g[256], b[256];
    auto* rgb = reinterpret_cast<uint8_t**>(&out);
    auto* rows = reinterpret_cast<uint8_t***>(&out);
    switch (entry) {
        case kRgb: s = korImage_readFileToRGB(rgb, &size, path.c_str(), type, nullptr, stopPoll); break;
        case kRgbSized: s = korImage_readFileToRGB(rgb, &size, path.c_str(), type, &want, stopPoll); break;
        case kRgba:
            layout = IMAGEFORMAT_RGBA;
            s = korImage_readFileToRGBA(rgb, &size, path.c_str(), type, nullptr, 0, 1, stopPoll);
            break;
        case kMap:
        case kMapSized:
            layout = IMAGEFORMAT_PACKBYTE;
            s = korImage_readFileToMap(rows, &size, r, g, b, &count, path.c_str(), type,
                                       entry == kMapSized ? &want : nullptr, stopPoll);
            break;
        case kBitMap:
        case kRleBitMap:
            layout = entry == kBitMap ? IMAGEFORMAT_BITMAP : IMAGEFORMAT_RLEBITMAP;
            s = korImage_readFileToBitMap(&out, &size, path.c_str(), type, entry == kRleBitMap, stopPoll);
            break;
        case kBuffer:
            s = korImage_readFileToBuffer(&out, &layout, &mode, r, g, b, &count, &size, path.c_str(), type, 0,
                                          stopPoll);
            break;
    }
    *handedOut = out != nullptr;
    if (out) korImage_freeImage(out, &size, layout);
    return s;
}

int writeOnce(int entry, const std::string& path, int type, int mode, const Pictures& p) {
    const ImageSize* sz = &p.size;
    switch (entry) {
        case kFromRgb:
            return korImage_extCreateFileFromRGB(path.c_str(), type, mode, sz,
                                                 mode == COLORMODE_RGBA ? p.rgba.data() : p.rgb.data(), 90, 0,
                                                 stopPoll);
        case kFromMap:
            return mode == COLORMODE_BILEVEL
                       ? korImage_createFileFromMap(path.c_str(), type, mode, sz, p.map2.data(), p.red, p.green,
                                                    p.blue, 2, stopPoll)
                       : korImage_createFileFromMap(path.c_str(), type, mode, sz, p.map16.data(), p.red, p.green,
                                                    p.blue, 16, stopPoll);
        case kFromPackByte:
            return korImage_createFileFromPackByte(path.c_str(), type, mode, sz, p.packByte, p.red, p.green,
                                                   p.blue, 16, stopPoll);
        case kFromBitMap:
            return korImage_createFileFromBitMap(path.c_str(), type, sz, p.bits.data(), 0, nullptr, nullptr,
                                                 stopPoll);
        case kFromRle:
            return korImage_createFileFromBitMap(path.c_str(), type, sz, p.rle, 1, nullptr, nullptr, stopPoll);
        case kFrameRgb:
        case kFrameMap: {
            int s = 0;
            ImageMovie* m = korMovie_create(&s, path.c_str(), type, sz, 4);
            if (!m) return s;
            s = entry == kFrameRgb ? korMovie_addFrameFromRGB(m, p.rgb.data(), stopPoll)
                                   : korMovie_addFrameFromMap(m, p.map16.data(), p.red, p.green, p.blue, 16,
                                                              stopPoll);
            const int closed = korMovie_close(m);
            return s != 0 ? s : closed;
        }
    }
    return IMGERR_BADARG;
}

// Runs a call unstopped, at the first poll and half-way; checks the stop
// statuses, that nothing stays allocated or open, and that the poll fired.
// Returns false when the call is not served (nonzero unstopped status).
template <class Call>
bool checkStops(const std::string& what, const Rule& want, Call call) {
    const long live = g_live;
    const int fds = openFds();
    g_polls = 0, g_stopAt = 0;
    bool handed = false;
    if (call(&handed) != 0) {
        EXPECT_EQ(g_live, live) << what << " (failed call)";
        EXPECT_EQ(openFds(), fds) << what << " (failed call)";
        return false;
    }
    const int polls = g_polls;
    EXPECT_TRUE(polls > 0 || want.mayNotPoll) << what << ": never polls";
    if (polls == 0) return true;
    for (const bool first : {true, false}) {
        if (!first && polls < 3) break;
        g_polls = 0, g_stopAt = first ? 1 : polls / 2 + 1;
        const int s = call(&handed);
        const long left = g_live - live;
        const int fdsLeft = openFds() - fds;
        EXPECT_TRUE(s == (first ? want.first : want.mid) && g_polls >= g_stopAt && (!handed || s == IMGSTAT_STREAM_STOPPED) && left == 0 &&
                    fdsLeft == 0)
            << what << (first ? " stopped at the first poll" : " stopped half-way") << ": status " << s
            << " (want " << (first ? want.first : want.mid) << "), polls " << g_polls << "/" << polls << ", handed out " << handed
            << ", blocks left " << left << ", descriptors left " << fdsLeft;
    }
    return true;
}

class StopLeak : public ::testing::Test {
protected:
    void SetUp() override {
        const ImageHost host = il::test::countingHost();
        imagelib_setHost(&host);
    }
    void TearDown() override { imagelib_setHost(nullptr); }
    iltest::TempDir dir_;
};

TEST_F(StopLeak, EveryWriterEntryAndMode) {
    const Pictures pictures;
    const int writeTypes[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 17, 18, 19, 22, 26, 28, 29};
    for (int type : writeTypes) {
        int served = 0;
        const std::string path = dir_.file("out" + std::to_string(type));
        for (int entry = kFromRgb; entry <= kFrameMap; ++entry)
            for (int mode = 1; mode <= 6; ++mode) {
                if (entry >= kFromBitMap && mode > 1) break;  // modeless entries: once
                const std::string what = "type " + std::to_string(type) + " " + kEntryNames[entry] + " mode " +
                                         std::to_string(mode);
                served += checkStops(what, rule(type, entry, mode), [&](bool*) {
                    return writeOnce(entry, path, type, mode, pictures);
                });
            }
        EXPECT_GT(served, 0) << "type " << type << " writes nothing";
    }
}

TEST_F(StopLeak, EveryReaderEntry) {
    // The seeds of the fuzz corpora, and files our writers make for the
    // types that have none: an "a" image and a fax stream (a CALS file of
    // the fax size without its 2048-byte header).
    std::vector<std::string> files;
    for (const auto& d : fs::directory_iterator(IMAGELIB_SEED_DIR))
        for (const auto& f : fs::directory_iterator(d.path())) files.push_back(f.path().string());
    std::sort(files.begin(), files.end());
    const Pictures p;
    const std::string a = dir_.file("plane.a"), cals = dir_.file("fax.cal"), fax = dir_.file("page.fax");
    ASSERT_EQ(korImage_createFileFromRGB(a.c_str(), 12, 1, &p.size, p.rgb.data(), nullptr), 0);
    std::vector<uint8_t> page(size_t(1728 / 8) * 84);
    for (size_t i = 0; i < page.size(); i += 7) page[i] = 0xF0;
    const ImageSize faxSize{1728, 84};
    ASSERT_EQ(korImage_createFileFromBitMap(cals.c_str(), 22, &faxSize, page.data(), 0, nullptr, nullptr, nullptr), 0);
    const std::vector<uint8_t> calsBytes = iltest::readFile(cals);
    ASSERT_GT(calsBytes.size(), 2048u);
    ASSERT_TRUE(iltest::writeFile(fax, std::vector<uint8_t>(calsBytes.begin() + 2048, calsBytes.end())));
    files.insert(files.end(), {a, fax, IMAGELIB_PMA_PROGRAM});

    std::vector<int> typesRead;
    for (const std::string& path : files) {
        const int type = korImage_fileType(-1, path.c_str());
        int served = 0;
        for (int entry = kRgb; entry <= kBuffer; ++entry)
            served += checkStops(fs::path(path).filename().string() + " (type " + std::to_string(type) + ") " +
                                     kEntryNames[entry],
                                 rule(type, entry, 0), [&](bool* handed) { return readOnce(entry, path, type, handed); });
        EXPECT_GT(served, 0) << path << " reads through no entry point";
        typesRead.push_back(type);
    }
    // Every readable type took part (Intergraph RGB files are found as 16,
    // the tiled rasters as 23).
    for (int type : {2, 3, 5, 7, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 21, 22, 23, 24, 27, 28})
        EXPECT_TRUE(std::count(typesRead.begin(), typesRead.end(), type)) << "no file of type " << type;
}

// A caller that stops a streamed read or write half-way closes the file:
// that too must give everything back.
TEST_F(StopLeak, StreamsClosedHalfWay) {
    const Pictures p;
    int served = 0;
    for (int type : {1, 2, 3, 4, 6, 9}) {
        const std::string path = dir_.file("rows" + std::to_string(type));
        for (int mode : {COLORMODE_RGB, COLORMODE_RGBA}) {
            const long live = g_live;
            const int fds = openFds();
            int st = 0;
            ImageFileContext* out = korImage_createFile(&st, path.c_str(), nullptr, &p.size, type, mode);
            if (!out) continue;  // no row writer for this type and mode
            ++served;
            for (int y = 0; y < kH / 2; ++y) {
                const uint8_t* r = p.rgba.data() + size_t(y) * 4 * kW;
                ASSERT_EQ(korImage_putRow(out, r, r + kW, r + 2 * kW, r + 3 * kW), 0) << type;
            }
            korImage_closeFile(out);
            if (ImageFileContext* in = korImage_openFile(&st, nullptr, path.c_str())) {
                std::vector<uint8_t> row(4 * kW);
                for (int y = 0; y < kH / 4; ++y)
                    korImage_getRow(in, row.data(), row.data() + kW, row.data() + 2 * kW, row.data() + 3 * kW);
                korImage_closeFile(in);
            }
            EXPECT_EQ(g_live, live) << "type " << type << " mode " << mode;
            EXPECT_EQ(openFds(), fds) << "type " << type << " mode " << mode;
        }
    }
    EXPECT_GT(served, 5);
}

// The warp, alone and with helper threads: a stop at the first poll or
// half-way answers -144, hands nothing out and leaves no block behind.
TEST_F(StopLeak, WarpAndRotationOnAnyThreadCount) {
    const Pictures p;
    const Rule stops{false, kAny, kAny, kAny, IMGERR_STOPPED, IMGERR_STOPPED};
    const ImageSize big{kW * 3, kH * 4};  // rows for several bands of helper work
    std::vector<uint8_t> rgb(size_t(big.x) * big.y * 3), band(size_t(big.x) * 3 * 90);
    for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = uint8_t(i * 7 + i / 97);
    const double m[6] = {0.8, 0.3, -0.3, 0.8, 20, 5};
    for (const char* threads : {"1", "3"}) {
        ::setenv("KV_THREADS", threads, 1);
        for (int format : {IMAGEFORMAT_RGB, IMAGEFORMAT_RGB2, IMAGEFORMAT_MAP, IMAGEFORMAT_PACKBYTE}) {
            const void* src = format == IMAGEFORMAT_MAP ? p.map16.data() : format == IMAGEFORMAT_PACKBYTE
                                                                              ? static_cast<const void*>(p.packByte)
                                                                              : rgb.data();
            const ImageSize size = format == IMAGEFORMAT_RGB || format == IMAGEFORMAT_RGB2 ? big : p.size;
            EXPECT_TRUE(checkStops(std::string("rotate, threads ") + threads + ", layout " + std::to_string(format), stops,
                       [&](bool* handed) {
                           void* out = nullptr;
                           ImageSize to{};
                           const int s = korImage_rotateAngle(&out, &to, const_cast<void*>(src), &size, format, 21,
                                                              IMAGEWARP_BICUBIC, nullptr, stopPoll);
                           *handed = out != nullptr;
                           if (out) korImage_freeImage(out, &to, format);
                           return s;
                       }));
        }
        EXPECT_TRUE(checkStops(std::string("band, threads ") + threads, stops, [&](bool*) {
            return korImage_warpBand(band.data(), &big, 10, 100, rgb.data(), &big, IMAGEFORMAT_RGB2, m,
                                     IMAGEWARP_BILINEAR, nullptr, stopPoll);
        }));
    }
    ::unsetenv("KV_THREADS");
}

}  // namespace
