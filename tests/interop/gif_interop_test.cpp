// GIF cases beyond the rows of the codec interop table: a local colour
// table, our files whose code stream fills the table, palette files
// rewritten through the map writer, the information call of the CLI, and
// the sample corpus. Decoded through `imagelib convert X out.ppm` and
// compared with ImageMagick, GraphicsMagick and netpbm; a case is skipped
// when its tool is absent.
#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A binary PBM, PGM or PPM (comments allowed, maxval 255) as interleaved
// RGB with its size; empty when it is none.
struct Pixels {
    int w = 0, h = 0;
    Bytes rgb;
    bool operator==(const Pixels& o) const { return w == o.w && h == o.h && rgb == o.rgb; }
};

Pixels fromPnm(const std::string& s) {
    size_t p = 2;
    auto number = [&]() {
        while (p < s.size() && (std::isspace(uint8_t(s[p])) || s[p] == '#'))
            p = s[p] == '#' ? s.find('\n', p) : p + 1;
        int v = 0;
        while (p < s.size() && std::isdigit(uint8_t(s[p]))) v = v * 10 + (s[p++] - '0');
        return v;
    };
    Pixels px;
    if (s.size() < 2 || s[0] != 'P' || s[1] < '4' || s[1] > '6') return px;
    const int kind = s[1] - '0', w = number(), h = number(), maxval = kind == 4 ? 1 : number();
    const size_t rowBytes = kind == 4 ? (size_t(w) + 7) / 8 : size_t(w) * (kind == 6 ? 3 : 1);
    if (maxval != (kind == 4 ? 1 : 255) || s.size() < ++p + rowBytes * h) return px;
    px.w = w;
    px.h = h;
    for (int y = 0; y < h; ++y) {
        const auto* row = reinterpret_cast<const uint8_t*>(s.data() + p + size_t(y) * rowBytes);
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 3; ++c)
                px.rgb.push_back(kind == 6   ? row[3 * x + c]
                                 : kind == 5 ? row[x]
                                             : (row[x / 8] >> (7 - x % 8) & 1) ? 0 : 255);
    }
    return px;
}

bool have(const char* tool) { return iltest::haveProgram(tool); }

Pixels viaTool(const std::string& command) {
    std::string out;
    if (iltest::run(command + " 2>/dev/null", &out) != 0) return {};
    return fromPnm(out);
}

std::string q(const std::string& path) { return "'" + path + "'"; }

class GifInterop : public ::testing::Test {
protected:
    iltest::TempDir dir;
    std::string smooth = dir.file("smooth.ppm"), noise = dir.file("noise.ppm");

    // A 61 x 47 picture of smooth and sharp changes (odd sizes), and 160 x
    // 120 of noise in 256 colours, whose code stream fills the table many
    // times over.
    void SetUp() override {
        std::string a = "P6\n61 47\n255\n", b = "P6\n160 120\n255\n";
        for (int y = 0; y < 47; ++y)
            for (int x = 0; x < 61; ++x) a += {char(x * 4), char(y * 5), char((x ^ y) * 9)};
        uint32_t r = 12345;
        for (int i = 0; i < 160 * 120; ++i) {
            r = r * 1103515245 + 12345;
            const int k = int(r >> 16) & 255;
            b += {char(k), char(255 - k), char(k * 7)};
        }
        iltest::writeFile(smooth, a);
        iltest::writeFile(noise, b);
    }

    std::string make(const std::string& command, const std::string& name) {
        const std::string out = dir.file(name);
        EXPECT_EQ(iltest::run(command + " > " + q(out) + " 2>/dev/null"), 0) << command;
        return out;
    }

    // This library's decoding of path, through the command-line tool.
    Pixels ours(const std::string& path) {
        const std::string out = dir.file("ours.ppm");
        std::remove(out.c_str());
        if (iltest::run(q(iltest::cliPath()) + " convert " + q(path) + " " + q(out) + " 2>/dev/null") != 0) return {};
        const Bytes b = iltest::readFile(out);
        return fromPnm(std::string(b.begin(), b.end()));
    }

    // The peers' decodings of the first image of path.
    void expectPeersAgree(const std::string& path, bool netpbm = true) {
        const Pixels mine = ours(path);
        ASSERT_GT(mine.w, 0) << path;
        if (have("convert")) {
            EXPECT_EQ(viaTool("convert " + q(path + "[0]") + " -depth 8 ppm:-"), mine) << "ImageMagick " << path;
        }
        if (have("gm")) {
            EXPECT_EQ(viaTool("gm convert " + q(path + "[0]") + " -depth 8 ppm:-"), mine) << "GraphicsMagick " << path;
        }
        if (netpbm && have("giftopnm")) {
            EXPECT_EQ(viaTool("giftopnm " + q(path)), mine) << "giftopnm " << path;
        }
    }
};

// The global table of a GIF moved into a local table of its first image.
Bytes globalToLocal(Bytes f) {
    const int flags = f[10];
    if (!(flags & 0x80)) return f;
    const size_t n = size_t(3) << ((flags & 7) + 1);
    const Bytes table(f.begin() + 13, f.begin() + 13 + long(n));
    f.erase(f.begin() + 13, f.begin() + 13 + long(n));
    f[10] = uint8_t(flags & 0x7F);
    size_t p = 13;
    while (p < f.size() && f[p] == 0x21) {
        p += 2;
        while (p < f.size() && f[p]) p += f[p] + 1;
        ++p;
    }
    if (p + 10 > f.size() || f[p] != 0x2C) return {};
    f[p + 9] = uint8_t(f[p + 9] | 0x80 | (flags & 7));
    f.insert(f.begin() + long(p) + 10, table.begin(), table.end());
    return f;
}

TEST_F(GifInterop, LocalTableAndFullTables) {
    if (!have("convert")) GTEST_SKIP() << "ImageMagick absent";
    // ImageMagick's file of a stream that fills the table, with its global
    // table moved into a local table of the image.
    const std::string full = make("convert " + q(noise) + " -colors 256 gif:-", "imn.gif");
    const std::string local = dir.file("local.gif");
    const Bytes moved = globalToLocal(iltest::readFile(full));
    ASSERT_FALSE(moved.empty());
    iltest::writeFile(local, moved);
    expectPeersAgree(local);
}

TEST_F(GifInterop, OurFilesDecodeInThePeers) {
    // From RGB, a stream that fills the table (clear codes at 12 bits),
    // then the same pixels through the map writer (GIF89a, index 0
    // transparent).
    const std::string cli = q(iltest::cliPath());
    const std::string rgb = dir.file("on.gif"), rewritten = dir.file("map.gif"), small = dir.file("o.gif");
    ASSERT_EQ(iltest::run(cli + " convert " + q(noise) + " " + q(rgb)), 0);
    ASSERT_EQ(iltest::run(cli + " convert " + q(rgb) + " " + q(rewritten)), 0);
    EXPECT_EQ(ours(rewritten), ours(rgb));
    EXPECT_EQ(iltest::readFile(rewritten)[4], '9');
    for (const auto& f : {rgb, rewritten}) expectPeersAgree(f);
    // The information comes from reading the image.
    ASSERT_EQ(iltest::run(cli + " convert " + q(smooth) + " " + q(small)), 0);
    std::string info;
    ASSERT_EQ(iltest::run(cli + " info --json " + q(small), &info), 0);
    EXPECT_NE(info.find("\"type\": 7, \"extension\": \"gif\", \"width\": 61, \"height\": 47, \"colorMode\": 3"),
              std::string::npos)
        << info;
}

TEST_F(GifInterop, SampleFilesDecodeAsImageMagickDecodesThem) {
    if (!have("convert")) GTEST_SKIP() << "ImageMagick absent";
    if (iltest::corpusFile("gif/hopper.gif").empty()) GTEST_SKIP() << "sample corpus absent";
    // Animations (chi, iss634: a local table, no global one) read their
    // first image; a comment after the only image is not read.
    for (const char* name : {"chi.gif", "comment_after_only_frame.gif", "hopper.gif", "iss634.gif"}) {
        const std::string path = iltest::corpusFile(std::string("gif/") + name);
        const Pixels mine = ours(path);
        ASSERT_GT(mine.w, 0) << name;
        EXPECT_EQ(viaTool("convert " + q(path + "[0]") + " -depth 8 ppm:-"), mine) << name;
    }
}

}  // namespace
