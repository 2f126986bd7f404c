// Animations shared with ffmpeg: FLI/FLC files built by the test generator
// for every chunk type real files use, and the sample files, decode here as
// ffmpeg decodes their frame 0; our FLI, FLC and AVI movies are reported by
// ffprobe with their size, frame count and rate, and every frame ffmpeg
// extracts matches ours pixel for pixel. Skipped without ffmpeg.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "../codecs/native/flic_build.h"
#include "imagelib/imagelib.h"
#include "test_support.h"

namespace {

using flictest::Bytes;
using flictest::chunk;
using flictest::frame;

bool haveFfmpeg() { return iltest::haveProgram("ffmpeg") && iltest::haveProgram("ffprobe"); }

// All frames ffmpeg decodes from path, as interleaved RGB, one string each.
std::vector<std::string> ffmpegFrames(const std::string& path, int w, int h, int maxFrames = 1000) {
    std::string out;
    iltest::run("ffmpeg -v error -i '" + path + "' -frames:v " + std::to_string(maxFrames) +
                    " -f rawvideo -pix_fmt rgb24 - 2>/dev/null",
                &out);
    std::vector<std::string> frames;
    const size_t n = size_t(w) * h * 3;
    for (size_t at = 0; n && at + n <= out.size(); at += n) frames.push_back(out.substr(at, n));
    return frames;
}

// ffprobe's fields of the video stream (and the format), key=value.
std::map<std::string, std::string> probe(const std::string& path, const std::string& extra = "") {
    std::string out;
    iltest::run("ffprobe -v error " + extra + " -count_frames -show_streams -show_format '" + path + "' 2>/dev/null",
                &out);
    std::map<std::string, std::string> fields;
    size_t at = 0;
    while (at < out.size()) {
        size_t end = out.find('\n', at);
        if (end == std::string::npos) end = out.size();
        const std::string line = out.substr(at, end - at);
        const size_t eq = line.find('=');
        if (eq != std::string::npos && !fields.count(line.substr(0, eq)))
            fields[line.substr(0, eq)] = line.substr(eq + 1);
        at = end + 1;
    }
    return fields;
}

// Our first frame of a file, interleaved RGB.
std::string ours(const std::string& path, ImageSize* size = nullptr) {
    uint8_t* rgb = nullptr;
    ImageSize s{};
    EXPECT_EQ(korImage_readFileToRGB(&rgb, &s, path.c_str(), -1, nullptr, nullptr), 0) << path;
    if (!rgb) return {};
    std::string out;
    for (int y = 0; y < s.y; ++y)
        for (int x = 0; x < s.x; ++x)
            for (int c = 0; c < 3; ++c) out += char(rgb[(size_t(y) * 3 + c) * s.x + x]);
    korImage_freeImage(rgb, &s, IMAGEFORMAT_RGB);
    if (size) *size = s;
    return out;
}

Bytes palette(int seed) {
    Bytes p(768);
    for (int i = 0; i < 768; ++i) p[i] = uint8_t(i * 13 + seed * 101 + i / 3);
    return p;
}

Bytes indices(int w, int h, int seed) {
    Bytes m(size_t(w) * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) m[size_t(y) * w + x] = uint8_t((x / 2) * 7 + y * 31 + seed + (x == w - 1 ? 99 : 0));
    return m;
}

TEST(FlicInterop, GeneratedChunksDecodeAsFfmpeg) {
    if (!haveFfmpeg()) GTEST_SKIP() << "ffmpeg not installed";
    iltest::TempDir d;
    const Bytes pal = palette(1);
    const Bytes colour = chunk(4, flictest::colourData(pal, false));
    auto img = [](int w, int h) { return indices(w, h, 5); };
    // A few entries only, in packets with skips.
    Bytes partial = {2, 0, 3, 2, 1, 2, 3, 4, 5, 6, 250, 1, 9, 8, 7};
    const struct {
        const char* name;
        uint16_t magic;
        int w, h;
        std::vector<Bytes> frame1;
        std::vector<Bytes> before;  // chunks before frame 1 (prefix)
    } cases[] = {
        {"byte run", 0xAF12, 13, 7, {colour, chunk(15, flictest::byteRunData(img(13, 7), 13, 7))}, {}},
        {"byte run, wide lines", 0xAF12, 300, 2, {colour, chunk(15, flictest::byteRunData(img(300, 2), 300, 2))}, {}},
        {"FLI palette and byte run", 0xAF11, 320, 200,
         {chunk(11, flictest::colourData(pal, true)), chunk(15, flictest::byteRunData(img(320, 200), 320, 200))}, {}},
        {"copy", 0xAF12, 16, 4, {colour, chunk(16, img(16, 4))}, {}},
        {"black", 0xAF12, 6, 3, {colour, chunk(13, {})}, {}},
        {"byte delta", 0xAF12, 11, 6, {colour, chunk(12, flictest::deltaFliData(img(11, 6), 11, 2, 3))}, {}},
        {"word delta", 0xAF12, 12, 5, {colour, chunk(7, flictest::deltaFlcData(img(12, 5), 12, 5, 1))}, {}},
        {"partial palette", 0xAF12, 8, 2, {chunk(4, partial), chunk(15, flictest::byteRunData(img(8, 2), 8, 2))}, {}},
        {"stamp and prefix", 0xAF12, 10, 4,
         {chunk(18, {4, 0, 4, 0, 1, 0, 6, 0, 0, 0, 13, 0}), colour, chunk(15, flictest::byteRunData(img(10, 4), 10, 4))},
         {frame({chunk(3, {1, 2, 3, 4})}, 0xF100)}},
    };
    for (const auto& c : cases) {
        std::vector<Bytes> chunks = c.before;
        chunks.push_back(frame(c.frame1));
        chunks.push_back(frame({}));
        const std::string path = d.file(std::string("g") + (c.magic == 0xAF11 ? ".fli" : ".flc"));
        ASSERT_TRUE(iltest::writeFile(path, flictest::file(c.magic, c.w, c.h, 1, c.magic == 0xAF11 ? 5 : 40, chunks)));
        auto theirs = ffmpegFrames(path, c.w, c.h, 1);
        ASSERT_EQ(theirs.size(), 1u) << c.name;
        EXPECT_TRUE(ours(path) == theirs[0]) << c.name;
    }
}

TEST(FlicInterop, SampleFilesDecodeAsFfmpeg) {
    if (!haveFfmpeg()) GTEST_SKIP() << "ffmpeg not installed";
    if (iltest::corpusDir().empty()) GTEST_SKIP() << "no sample corpus";
    iltest::TempDir d;
    for (const char* name : {"fli/a.fli", "fli/2422.flc", "fli/hopper.fli"}) {
        std::string path = iltest::corpusFile(name);
        ImageSize size{};
        const std::string mine = ours(path, &size);
        // hopper.fli ends one pad byte short of its frame, which ffmpeg
        // refuses; it is given the byte.
        Bytes bytes = iltest::readFile(path);
        bytes.push_back(0);
        ASSERT_TRUE(iltest::writeFile(d.file("padded.flc"), bytes));
        auto theirs = ffmpegFrames(d.file("padded.flc"), size.x, size.y, 1);
        ASSERT_EQ(theirs.size(), 1u) << name;
        EXPECT_TRUE(mine == theirs[0]) << name;
    }
}

// A movie written through the movie functions from maps and palettes.
struct Movie {
    std::vector<Bytes> maps, palettes;
};

Movie makeMovie(int w, int h, int n) {
    Movie m;
    for (int k = 0; k < n; ++k) {
        Bytes map = indices(w, h, 0);
        for (int y = k; y < h; y += 3)
            for (int x = 1 + k; x < w; x += 5) map[size_t(y) * w + x] = uint8_t(17 * k + x);
        map[size_t(h - 1) * w + w - 1] = uint8_t(k * 40);
        m.maps.push_back(map);
        Bytes pal = palette(0);
        if (k == 2) pal[3 * 40] ^= 0xF0;
        m.palettes.push_back(pal);
    }
    return m;
}

int writeMovie(const std::string& path, int w, int h, int delay, const Movie& m) {
    int st = 0;
    const ImageSize size{w, h};
    ImageMovie* movie = korMovie_create(&st, path.c_str(), -1, &size, delay);
    if (!movie) return st;
    for (size_t k = 0; k < m.maps.size(); ++k) {
        uint8_t r[256], g[256], b[256];
        for (int i = 0; i < 256; ++i) r[i] = m.palettes[k][3 * i], g[i] = m.palettes[k][3 * i + 1], b[i] = m.palettes[k][3 * i + 2];
        if ((st = korMovie_addFrameFromMap(movie, m.maps[k].data(), r, g, b, 256, nullptr))) break;
    }
    const int closed = korMovie_close(movie);
    return st ? st : closed;
}

TEST(FlicInterop, OurFlicMoviesThroughFfmpeg) {
    if (!haveFfmpeg()) GTEST_SKIP() << "ffmpeg not installed";
    iltest::TempDir d;
    const struct {
        const char* name;
        int w, h, frames, delay;
        const char* rate;
    } cases[] = {{"a.flc", 16, 8, 3, 4, "1000/67"},
                 {"b.flc", 13, 7, 3, 7, "1000/117"},
                 {"c.flc", 40, 3, 1, 1, "1000/17"},
                 {"d.fli", 320, 200, 3, 4, "14/1"}};
    for (const auto& c : cases) {
        const std::string path = d.file(c.name);
        const Movie m = makeMovie(c.w, c.h, c.frames);
        ASSERT_EQ(writeMovie(path, c.w, c.h, c.delay, m), 0) << c.name;
        auto f = probe(path);
        EXPECT_EQ(f["codec_name"], "flic") << c.name;
        EXPECT_EQ(f["pix_fmt"], "pal8");
        EXPECT_EQ(f["width"], std::to_string(c.w));
        EXPECT_EQ(f["height"], std::to_string(c.h));
        EXPECT_EQ(f["r_frame_rate"], c.rate) << c.name;
        EXPECT_EQ(f["nb_read_frames"], std::to_string(c.frames + 1));  // the ring frame too
        int frames = 0;
        EXPECT_EQ(korMovie_getFrameCount(&frames, path.c_str(), -1), 0);
        EXPECT_EQ(frames, c.frames);
        auto theirs = ffmpegFrames(path, c.w, c.h);
        ASSERT_EQ(theirs.size(), size_t(c.frames + 1)) << c.name;
        const bool fli = c.name[2] == 'f' && c.name[3] == 'l' && c.name[4] == 'i';
        for (int k = 0; k <= c.frames; ++k) {
            const Bytes& map = m.maps[k % c.frames];
            const Bytes& pal = m.palettes[k % c.frames];
            std::string want;
            for (uint8_t i : map)
                for (int ch = 0; ch < 3; ++ch) {
                    const uint8_t v = pal[3 * i + ch];
                    want += char(fli ? (v >> 2 << 2) | (v >> 6) : v);
                }
            EXPECT_TRUE(theirs[k] == want) << c.name << " frame " << k;
        }
    }
}

TEST(FlicInterop, OurAviMoviesThroughFfmpeg) {
    if (!haveFfmpeg()) GTEST_SKIP() << "ffmpeg not installed";
    iltest::TempDir d;
    const struct {
        int w, h, frames, delay;
        const char* rate;
        const char* duration;
    } cases[] = {{13, 13, 5, 7, "60/7", "0.583333"}, {16, 8, 1, 1, "60/1", "0.016667"}, {16, 8, 5, 4, "15/1", "0.333333"},
                 {1, 9, 3, 121, "60/121", "6.050000"}};
    for (const auto& c : cases) {
        const std::string path = d.file("m.avi");
        int st = 0;
        const ImageSize size{c.w, c.h};
        ImageMovie* movie = korMovie_create(&st, path.c_str(), 26, &size, c.delay);
        ASSERT_TRUE(movie) << st;
        std::vector<Bytes> rgbs;
        for (int k = 0; k < c.frames; ++k) {
            Bytes rgb(size_t(c.w) * c.h * 3);
            for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = uint8_t(i * 7 + k * 50 + i / (3 * c.w));
            ASSERT_EQ(korMovie_addFrameFromRGB(movie, rgb.data(), nullptr), 0);
            rgbs.push_back(rgb);
        }
        ASSERT_EQ(korMovie_close(movie), 0);
        const int h = c.h / 8 * 8;
        auto f = probe(path);
        EXPECT_EQ(f["codec_name"], "rawvideo");
        EXPECT_EQ(f["pix_fmt"], "bgr24");
        EXPECT_EQ(f["width"], std::to_string(c.w));
        EXPECT_EQ(f["height"], std::to_string(h));
        EXPECT_EQ(f["r_frame_rate"], c.rate);
        EXPECT_EQ(f["avg_frame_rate"], c.rate);
        EXPECT_EQ(f["nb_frames"], std::to_string(c.frames));
        EXPECT_EQ(f["nb_read_frames"], std::to_string(c.frames));
        EXPECT_EQ(f["duration"], c.duration);
        auto theirs = ffmpegFrames(path, c.w, h);
        ASSERT_EQ(theirs.size(), size_t(c.frames));
        for (int k = 0; k < c.frames; ++k) {
            std::string want;
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < c.w; ++x)
                    for (int ch = 0; ch < 3; ++ch) want += char(rgbs[k][(size_t(y) * 3 + ch) * c.w + x]);
            EXPECT_TRUE(theirs[k] == want) << c.w << "x" << c.h << " frame " << k;
        }
    }
}

}  // namespace
