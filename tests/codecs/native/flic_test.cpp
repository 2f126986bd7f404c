// FLI/FLC: the decoders on hand-built chunks, hostile counts, the writers
// read back frame by frame.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>

#include "codecs/native/flic.h"
#include "flic_build.h"
#include "imagelib/pixels.h"
#include "internal/bytes.h"
#include "test_support.h"

namespace {

using flictest::Bytes;
using flictest::chunk;
using flictest::frame;

// A frame decoded onto a zero canvas and black palette.
struct Decoded {
    int status;
    Bytes canvas;
    Bytes palette;
};

Decoded decode(const Bytes& fr, int w, int h, Bytes canvas = {}) {
    Decoded d{0, canvas.empty() ? Bytes(size_t(w) * h, 0) : canvas, Bytes(768, 0)};
    d.status = imageFlic_decodeFrame(d.canvas.data(), w, h, d.palette.data(), fr.data(), fr.size(), nullptr);
    return d;
}

// The first frame of a file through the path reader (map form), with its
// palette interleaved.
struct Read {
    int status;
    ImageSize size;
    Bytes map;
    Bytes palette;
};

Read readFile(const std::string& path) {
    Read r{0, {}, {}, Bytes(768)};
    uint8_t red[256], green[256], blue[256];
    int count = 0;
    void* map = nullptr;
    r.status = imageFlic_readToMap(&map, &r.size, red, green, blue, &count, path.c_str(), 0, nullptr);
    if (r.status == 0) {
        r.map.assign(static_cast<uint8_t*>(map), static_cast<uint8_t*>(map) + size_t(r.size.x) * r.size.y);
        korImage_freeImage(map, &r.size, IMAGEFORMAT_MAP);
        for (int i = 0; i < 256; ++i) r.palette[3 * i] = red[i], r.palette[3 * i + 1] = green[i], r.palette[3 * i + 2] = blue[i];
        EXPECT_EQ(count, 256);
    }
    return r;
}

Read readBytes(const Bytes& file) {
    iltest::TempDir d;
    EXPECT_TRUE(iltest::writeFile(d.file("t.flc"), file));
    return readFile(d.file("t.flc"));
}

TEST(FlicDecode, ChunkExamples) {
    // Byte run: AB x3 then four literals.
    auto d = decode(frame({chunk(kFlicByteRun, {0x02, 0x03, 0xAB, 0xFC, 0x01, 0x23, 0x45, 0x67})}), 7, 1);
    EXPECT_EQ(d.status, 0);
    EXPECT_EQ(d.canvas, (Bytes{0xAB, 0xAB, 0xAB, 0x01, 0x23, 0x45, 0x67}));

    // Byte-oriented delta: line 2 gets five literals at column 3, then AB x4
    // after 2 skipped columns.
    d = decode(frame({chunk(kFlicDeltaFli, {0x02, 0, 0x01, 0, 0x02, 0x03, 0x05, 1, 2, 3, 4, 5, 0x02, 0xFC, 0xAB})}),
               16, 3, Bytes(48, 9));
    EXPECT_EQ(d.status, 0);
    EXPECT_EQ(Bytes(d.canvas.begin() + 32, d.canvas.end()),
              (Bytes{9, 9, 9, 1, 2, 3, 4, 5, 9, 9, 0xAB, 0xAB, 0xAB, 0xAB, 9, 9}));
    EXPECT_EQ(Bytes(d.canvas.begin(), d.canvas.begin() + 32), Bytes(32, 9));

    // Word-oriented delta: line 0 gets 10 bytes at column 3, then ABCD x4
    // after 2 columns; one line skipped; line 2's last pixel is EE.
    Bytes ss2 = {0x02, 0x00, 0x02, 0x00, 0x03, 0x05};
    for (int i = 0; i < 10; ++i) ss2.push_back(uint8_t(i + 1));
    for (uint8_t b : {0x02, 0xFC, 0xAB, 0xCD, 0xFF, 0xFF, 0xEE, 0x80, 0x00, 0x00}) ss2.push_back(b);
    d = decode(frame({chunk(kFlicDeltaFlc, ss2)}), 23, 3);
    EXPECT_EQ(d.status, 0);
    Bytes line0(23, 0);
    for (int i = 0; i < 10; ++i) line0[3 + i] = uint8_t(i + 1);
    for (int i = 0; i < 4; ++i) line0[15 + 2 * i] = 0xAB, line0[16 + 2 * i] = 0xCD;
    EXPECT_EQ(Bytes(d.canvas.begin(), d.canvas.begin() + 23), line0);
    EXPECT_EQ(d.canvas[3 * 23 - 1], 0xEE);

    // Colour packets change entries 2, 7, 8, 9; 6-bit components widen to 0..255.
    Bytes colour = {0x02, 0x00, 0x02, 0x01, 10, 20, 30, 0x04, 0x03};
    for (int i = 0; i < 9; ++i) colour.push_back(uint8_t(40 + i));
    d = decode(frame({chunk(kFlicColour256, colour)}), 1, 1);
    EXPECT_EQ(Bytes(d.palette.begin() + 6, d.palette.begin() + 9), (Bytes{10, 20, 30}));
    EXPECT_EQ(Bytes(d.palette.begin() + 21, d.palette.begin() + 30), (Bytes{40, 41, 42, 43, 44, 45, 46, 47, 48}));
    EXPECT_EQ(d.palette[9], 0);
    d = decode(frame({chunk(kFlicColour64, {0x01, 0x00, 0x00, 0x01, 63, 32, 1})}), 1, 1);
    EXPECT_EQ(Bytes(d.palette.begin(), d.palette.begin() + 3), (Bytes{255, 130, 4}));

    // Copy, black, and stamps and unknown types skipped by their size.
    d = decode(frame({chunk(kFlicStamp, Bytes(40, 0x77)), chunk(99, {1, 2, 3}), chunk(kFlicCopy, {1, 2, 3, 4, 5, 6})}),
               3, 2);
    EXPECT_EQ(d.status, 0);
    EXPECT_EQ(d.canvas, (Bytes{1, 2, 3, 4, 5, 6}));
    d = decode(frame({chunk(kFlicBlack, {})}), 3, 2, Bytes(6, 5));
    EXPECT_EQ(d.canvas, Bytes(6, 0));
}

// Counts that would write outside the frame are refused; a chunk cut short
// is applied as far as it goes.
TEST(FlicDecode, HostileCounts) {
    struct Case {
        const char* what;
        Bytes frameBytes;
    };
    const Case bad[] = {
        {"run across the line end", frame({chunk(kFlicByteRun, {0, 0x03, 1, 0x03, 1})})},
        {"literal across the line end", frame({chunk(kFlicByteRun, {0, 0xFA, 1, 2, 3, 4, 5, 6})})},
        {"run type 0", frame({chunk(kFlicByteRun, {0, 0x00, 0x00, 0x00})})},
        {"delta lines past the height", frame({chunk(kFlicDeltaFli, {1, 0, 2, 0, 0, 0})})},
        {"delta first line past the height", frame({chunk(kFlicDeltaFli, {9, 0, 1, 0, 0})})},
        {"delta skip past the width", frame({chunk(kFlicDeltaFli, {0, 0, 1, 0, 1, 6, 0})})},
        {"delta literal past the width", frame({chunk(kFlicDeltaFli, {0, 0, 1, 0, 1, 1, 5, 7, 7, 7, 7, 7})})},
        {"delta repeat past the width", frame({chunk(kFlicDeltaFli, {0, 0, 1, 0, 1, 0, 0xFA, 7})})},
        {"word delta skip past the height", frame({chunk(kFlicDeltaFlc, {1, 0, 0xFD, 0xFF, 0, 0})})},
        {"word delta packet on the odd last column", frame({chunk(kFlicDeltaFlc, {1, 0, 1, 0, 4, 1, 7, 7})})},
        {"word delta opcode 01", frame({chunk(kFlicDeltaFlc, {1, 0, 0x00, 0x40})})},
        {"word delta lines past the height", frame({chunk(kFlicDeltaFlc, {3, 0, 0, 0, 0, 0, 0, 0})})},
        {"sub-chunk of size 0", [] {
             Bytes f = frame({chunk(kFlicBlack, {})});
             flictest::Bytes z(f.begin(), f.begin() + 16);
             z[0] = 22, z[1] = z[2] = z[3] = 0;
             for (int i = 0; i < 6; ++i) z.push_back(0);
             return z;
         }()},
        {"not a frame", frame({}, 0x1234)},
    };
    for (const Case& c : bad) EXPECT_EQ(decode(c.frameBytes, 5, 2).status, IMGERR_BADFILE) << c.what;

    // Cut short: the first line is decoded, the rest stays as it was.
    Bytes f = frame({chunk(kFlicByteRun, {0, 0x05, 1, 0, 0xFB, 2, 3})});
    auto d = decode(f, 5, 2);
    EXPECT_EQ(d.status, 0);
    EXPECT_EQ(d.canvas, (Bytes{1, 1, 1, 1, 1, 2, 3, 0, 0, 0}));
    f.resize(f.size() - 4);  // the literal bytes are gone
    d = decode(f, 5, 2);
    EXPECT_EQ(d.status, 0);
    EXPECT_EQ(d.canvas, (Bytes{1, 1, 1, 1, 1, 0, 0, 0, 0, 0}));
}

TEST(FlicRead, FilesAndHeaders) {
    Bytes pal(768);
    for (int i = 0; i < 768; ++i) pal[i] = uint8_t(i * 7);
    const Bytes img = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    // A prefix chunk before frame 1 and a stamp in it, oframe1 pointing at it.
    Bytes f = flictest::file(kFlcMagic, 4, 3, 1, 40,
                             {frame({chunk(1, {1, 2, 3})}, kFlicPrefixChunk),
                              frame({chunk(kFlicStamp, Bytes(10, 1)), chunk(kFlicColour256, flictest::colourData(pal, false)),
                                     chunk(kFlicByteRun, flictest::byteRunData(img, 4, 3))}),
                              frame({})});
    Read r = readBytes(f);
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.map, img);
    EXPECT_EQ(r.palette, pal);

    // Without oframe1 the reader walks past the prefix from the header.
    f[80] = f[81] = 0;
    r = readBytes(f);
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.map, img);
    // FLI palettes widen from 6 bits.
    f = flictest::file(kFliMagic, 4, 3, 1, 5,
                       {frame({chunk(kFlicColour64, flictest::colourData(pal, true)), chunk(kFlicCopy, img)}), frame({})});
    r = readBytes(f);
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.map, img);
    for (int i = 0; i < 768; ++i) ASSERT_EQ(r.palette[i], uint8_t((pal[i] >> 2 << 2) | (pal[i] >> 6))) << i;

    // Bad headers, no frame, and a size no file of this length can hold.
    Bytes bad = f;
    bad[12] = 16;  // depth 16
    EXPECT_EQ(readBytes(bad).status, IMGERR_BADFILE);
    bad = f;
    bad[8] = bad[9] = 0;
    EXPECT_EQ(readBytes(bad).status, IMGERR_BADFILE);
    EXPECT_EQ(readBytes(Bytes(f.begin(), f.begin() + 130)).status, IMGERR_BADFILE);
    EXPECT_EQ(readBytes(Bytes(f.begin(), f.begin() + 100)).status, IMGERR_READFAILED);
    bad = flictest::file(kFlcMagic, 40000, 40000, 1, 40, {frame({chunk(kFlicBlack, {})}), frame({})});
    EXPECT_EQ(readBytes(bad).status, IMGERR_BADFILE);
}

// --- writing ---------------------------------------------------------------------

// The frame chunks of a file (from the header on), each with its offset.
std::vector<std::pair<size_t, Bytes>> frames(const Bytes& file) {
    std::vector<std::pair<size_t, Bytes>> out;
    for (size_t at = 128; at + 6 <= file.size();) {
        const uint32_t size = il::get32le(&file[at]);
        if (size < 6 || at + size > file.size()) break;
        out.push_back({at, Bytes(file.begin() + at, file.begin() + at + size)});
        at += size;
    }
    return out;
}

// The sub-chunk types of a frame; every size must be even.
std::vector<int> subTypes(const Bytes& fr) {
    std::vector<int> types;
    for (size_t at = 16, n = il::get16le(&fr[6]); n > 0 && at + 6 <= fr.size(); --n) {
        const uint32_t size = il::get32le(&fr[at]);
        EXPECT_EQ(size % 2, 0u);
        types.push_back(il::get16le(&fr[at + 4]));
        at += size;
    }
    return types;
}

struct Picture {
    Bytes map;
    uint8_t red[256], green[256], blue[256];
};

Picture picture(int w, int h, int seed) {
    Picture p;
    p.map.resize(size_t(w) * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) p.map[size_t(y) * w + x] = uint8_t((x / 3 + y * 5 + seed) % 251);
    for (int i = 0; i < 256; ++i) p.red[i] = uint8_t(i), p.green[i] = uint8_t(255 - i), p.blue[i] = uint8_t(i * 3 + seed);
    return p;
}

// Writes frames with imageFlic_create and decodes every frame chunk back
// (ring frame included), checking them against what was written.
void movieRoundTrip(int w, int h, bool flc, std::vector<Picture> pics, int expectDelta) {
    iltest::TempDir d;
    const std::string path = d.file("m.flc");
    FlicWriter* wr = nullptr;
    const ImageSize size{w, h};
    ASSERT_EQ(imageFlic_create(&wr, path.c_str(), &size, 7, flc), 0);
    for (const Picture& p : pics)
        ASSERT_EQ(imageFlic_writeFrameFromMap(wr, p.map.data(), 0, p.red, p.green, p.blue, 256, nullptr), 0);
    ASSERT_EQ(imageFlic_close(wr), 0);
    const Bytes file = iltest::readFile(path);
    FlicHeader hd;
    ASSERT_EQ(imageFlic_parseHeader(&hd, file.data()), 0);
    const bool fli = !flc && w == 320 && h == 200;
    EXPECT_EQ(hd.magic, fli ? kFliMagic : kFlcMagic);
    EXPECT_EQ(hd.fileSize, file.size());
    EXPECT_EQ(hd.frames, pics.size());
    EXPECT_EQ(hd.flags, fli ? 0 : 3);
    EXPECT_EQ(hd.speed, fli ? 8u : 117u);
    auto fr = frames(file);
    ASSERT_EQ(fr.size(), pics.size() + 1);
    EXPECT_EQ(fr.back().first + fr.back().second.size(), file.size());
    if (!fli) {
        EXPECT_EQ(hd.oframe1, 128u);
        EXPECT_EQ(hd.oframe2, fr[1].first);
    }
    if (pics.size() == 1) {
        EXPECT_EQ(fr.back().second.size(), 16u);  // empty ring frame
    }
    Bytes canvas(size_t(w) * h, 0), pal(768, 0);
    int deltas = 0;
    for (size_t k = 0; k < fr.size(); ++k) {
        const Picture& p = pics[k % pics.size()];
        ASSERT_EQ(imageFlic_decodeFrame(canvas.data(), w, h, pal.data(), fr[k].second.data(), fr[k].second.size(),
                                        nullptr),
                  0);
        if (fli) {
            EXPECT_LT(fr[k].second.size(), 65536u);
        }
        for (int t : subTypes(fr[k].second)) deltas += t == expectDelta;
        ASSERT_EQ(canvas, p.map) << "frame " << k;
        for (int i = 0; i < 256; ++i) {
            auto six = [fli](uint8_t v) { return fli ? uint8_t((v >> 2 << 2) | (v >> 6)) : v; };
            ASSERT_EQ(pal[3 * i], six(p.red[i])) << "frame " << k << " entry " << i;
            ASSERT_EQ(pal[3 * i + 1], six(p.green[i]));
            ASSERT_EQ(pal[3 * i + 2], six(p.blue[i]));
        }
    }
    if (pics.size() > 1) {
        EXPECT_GT(deltas, 0) << "no delta chunk of type " << expectDelta;
    }
    // The path reader gives frame 1.
    Read r = readFile(path);
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.map, pics[0].map);
}

// Frames that change here and there: odd columns, the last column, far
// apart on wide lines, and the palette.
std::vector<Picture> changing(int w, int h, int n) {
    std::vector<Picture> pics;
    for (int k = 0; k < n; ++k) {
        Picture p = picture(w, h, 0);
        for (int y = 0; y < h; y += 2) {
            if (k == 0) break;
            p.map[size_t(y) * w + w - 1] = uint8_t(200 + k);
            for (int x = 1; x < w; x += w > 600 ? 400 : 2 + 17 * k) p.map[size_t(y) * w + x] ^= uint8_t(k);
            if (w > 600) p.map[size_t(y) * w + 599] = uint8_t(k);
        }
        if (k == 2) p.red[17] ^= 0xFC, p.blue[255] ^= 0x80;
        pics.push_back(p);
    }
    return pics;
}

TEST(FlicWrite, MoviesReadBackFrameByFrame) {
    // FLC: word deltas for even widths, byte deltas for odd ones.
    movieRoundTrip(16, 8, true, changing(16, 8, 3), kFlicDeltaFlc);
    movieRoundTrip(13, 7, true, changing(13, 7, 3), kFlicDeltaFli);
    movieRoundTrip(700, 3, true, changing(700, 3, 3), kFlicDeltaFlc);
    movieRoundTrip(701, 3, true, changing(701, 3, 3), kFlicDeltaFli);
    // FLI at 320 x 200 (6-bit palette); other sizes asked for as FLI are FLC.
    movieRoundTrip(320, 200, false, changing(320, 200, 3), kFlicDeltaFli);
    movieRoundTrip(20, 4, false, changing(20, 4, 2), kFlicDeltaFlc);
    // One frame: the ring frame is empty.
    movieRoundTrip(1, 1, true, {picture(1, 1, 3)}, 0);
    movieRoundTrip(300, 2, true, {picture(300, 2, 1)}, 0);
}

TEST(FlicWrite, ImageChunkChoice) {
    // Lines of runs 127, 128 and 129 long and literals of 128 and 129 bytes
    // (odd widths: byte runs, no copies); a black frame; noise on a width of
    // a multiple of 4 (a copy is smaller than byte runs).
    Picture runs = picture(385, 2, 0);
    for (int x = 0; x < 385; ++x) runs.map[x] = x < 127 ? 1 : x < 255 ? 2 : 3;
    for (int x = 0; x < 385; ++x) runs.map[385 + x] = uint8_t(x < 257 ? x : 7);
    Picture black = picture(12, 3, 0);
    std::fill(black.map.begin(), black.map.end(), 0);
    Picture noise = picture(12, 3, 0);
    for (size_t i = 0; i < noise.map.size(); ++i) noise.map[i] = uint8_t(i * 37);
    const struct {
        Picture* p;
        int w, h, type;
    } cases[] = {{&runs, 385, 2, kFlicByteRun}, {&black, 12, 3, kFlicBlack}, {&noise, 12, 3, kFlicCopy}};
    for (const auto& c : cases) {
        iltest::TempDir d;
        const ImageSize size{c.w, c.h};
        ASSERT_EQ(imageFlic_writeFromMap(d.file("a.flc").c_str(), c.p->map.data(), c.p->red, c.p->green, c.p->blue,
                                         256, &size, 0, 1, nullptr),
                  0);
        const Bytes file = iltest::readFile(d.file("a.flc"));
        EXPECT_EQ(subTypes(frames(file)[0].second), (std::vector<int>{kFlicColour256, c.type}));
        Read r = readFile(d.file("a.flc"));
        ASSERT_EQ(r.status, 0);
        EXPECT_EQ(r.map, c.p->map) << c.type;
    }
}

TEST(FlicWrite, SpeedsAndArguments) {
    // (delay in 1/60 s, FLI or FLC) -> speed in 1/70 s or ms.
    for (auto [delay, fli, speed] : {std::tuple{4, true, 5u}, {4, false, 67u}, {1, false, 17u}, {1, true, 1u},
                                     {3600, false, 60000u}})
        EXPECT_EQ(imageFlic_speed(delay, fli), speed) << delay << " " << fli;
    iltest::TempDir d;
    FlicWriter* wr = nullptr;
    const ImageSize big{70000, 2}, ok{4, 4};
    EXPECT_EQ(imageFlic_create(&wr, d.file("a.flc").c_str(), &big, 4, 1), IMGERR_BADARG);
    EXPECT_EQ(imageFlic_create(&wr, d.file("a.flc").c_str(), &ok, 0, 1), IMGERR_BADARG);
    ASSERT_EQ(imageFlic_create(&wr, d.file("a.flc").c_str(), &ok, 4, 1), 0);
    EXPECT_EQ(imageFlic_close(wr), IMGERR_NODATA);  // no frame, no file
    EXPECT_TRUE(iltest::readFile(d.file("a.flc")).empty());
    // Stopped on the first row: nothing written.
    Picture p = picture(4, 4, 0);
    EXPECT_EQ(imageFlic_writeFromMap(d.file("b.flc").c_str(), p.map.data(), p.red, p.green, p.blue, 256, &ok, 0, 1,
                                     [](int, int) { return 1; }),
              IMGERR_STOPPED);
}

TEST(FlicWrite, FromRGB) {
    // Four colours are kept exactly.
    const int w = 6, h = 4;
    Bytes rgb(size_t(w) * h * 3);
    const uint8_t colours[4][3] = {{255, 0, 0}, {0, 128, 0}, {16, 32, 240}, {200, 200, 200}};
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 3; ++c) rgb[size_t(y) * w * 3 + size_t(c) * w + x] = colours[(x + y) % 4][c];
    iltest::TempDir d;
    const ImageSize size{w, h};
    ASSERT_EQ(imageFlic_writeFromRGB(d.file("a.flc").c_str(), rgb.data(), &size, 3, 1, nullptr), 0);
    // More colours than 2 in 16 x 16 (grey levels here): an optimised
    // palette, dithered, within reach of every pixel.
    Bytes ramp(16 * 16 * 3);
    for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = uint8_t((i % 16) * 16 + (i / 48));
    const ImageSize rampSize{16, 16};
    ASSERT_EQ(imageFlic_writeFromRGB(d.file("b.flc").c_str(), ramp.data(), &rampSize, 3, 1, nullptr), 0);
    Read b = readFile(d.file("b.flc"));
    ASSERT_EQ(b.status, 0);
    for (int y = 0; y < 16; ++y)
        for (int x = 0; x < 16; ++x)
            for (int c = 0; c < 3; ++c)
                ASSERT_NEAR(b.palette[3 * b.map[y * 16 + x] + c], ramp[size_t(y) * 48 + c * 16 + x], 40);
    // A movie of such frames keeps its palette: the next frame carries no
    // colour chunk, though its colours come first in another order.
    FlicWriter* wr = nullptr;
    ASSERT_EQ(imageFlic_create(&wr, d.file("m.flc").c_str(), &size, 4, 1), 0);
    ASSERT_EQ(imageFlic_writeFrameFromRGB(wr, rgb.data(), 3, nullptr), 0);
    Bytes moved = rgb;
    std::rotate(moved.begin(), moved.begin() + 3 * w, moved.end());  // rows move up: other first colours
    ASSERT_EQ(imageFlic_writeFrameFromRGB(wr, moved.data(), 3, nullptr), 0);
    ASSERT_EQ(imageFlic_close(wr), 0);
    auto movie = frames(iltest::readFile(d.file("m.flc")));
    ASSERT_EQ(movie.size(), 3u);
    const auto types = subTypes(movie[1].second);
    EXPECT_EQ(std::count(types.begin(), types.end(), int(kFlicColour256)), 0);

    Read r = readFile(d.file("a.flc"));
    ASSERT_EQ(r.status, 0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 3; ++c)
                ASSERT_EQ(r.palette[3 * r.map[size_t(y) * w + x] + c], colours[(x + y) % 4][c]) << x << "," << y;
}

// --- sample files ----------------------------------------------------------------

TEST(FlicRead, SampleFrameCount) {
    const std::string a = iltest::corpusFile("fli/a.fli");
    if (a.empty()) GTEST_SKIP() << "no sample corpus";
    int frames = 0;
    ImageSize size{};
    EXPECT_EQ(imageFlic_readInfo(&size, &frames, a.c_str()), 0);
    EXPECT_EQ(frames, 384);
}

}  // namespace
