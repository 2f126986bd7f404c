// The command-line tool's commands and exit codes.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "test_support.h"

namespace {

int cli(const std::string& args, std::string* out = nullptr, bool withErrors = false) {
    return iltest::run(iltest::cliPath() + " " + args + (withErrors ? " 2>&1" : " 2>/dev/null"), out);
}

// A 3x2 binary PPM with distinct pixels, and its pixel bytes.
const std::string kPixels = [] {
    std::string s;
    for (int i = 0; i < 6; ++i) s += {char(10 + i * 40), char(200 - i * 30), char(i * 7)};
    return s;
}();
const std::string kPpm = "P6\n3 2\n255\n" + kPixels;

// The pixel bytes of a binary PPM written by the CLI.
std::string pixels(const std::string& path) {
    auto bytes = iltest::readFile(path);
    std::string s(bytes.begin(), bytes.end());
    size_t at = 0;
    for (int fields = 0; fields < 4 && at < s.size(); ++at)
        if (s[at] == '\n' || s[at] == ' ') ++fields;
    return s.substr(at);
}

class Cli : public ::testing::Test {
protected:
    iltest::TempDir d;
    std::string in = d.file("in.ppm");
    void SetUp() override { ASSERT_TRUE(iltest::writeFile(in, kPpm)); }
};

TEST_F(Cli, HelpVersionAndUsageErrors) {
    std::string out;
    EXPECT_EQ(cli("--help", &out), 0);
    EXPECT_NE(out.find("formats"), std::string::npos);
    EXPECT_EQ(cli("--version", &out), 0);
    EXPECT_EQ(out.rfind("imagelib ", 0), 0u);
    for (const char* args : {"", "frobnicate", "type", "type a b", "formats --xml"}) EXPECT_EQ(cli(args), 2) << args;
    for (const char* args : {"", " x.tga --mode purple", " x.tga --rotate 4x5", " x.tga --size 0x3", " x.tga --bogus",
                             " x.tga --background #12345", " x.tga --interpolate cubic", " x.tga --affine 1,0,0,1,2"})
        EXPECT_EQ(cli("convert " + in + args), 2) << args;
}

TEST_F(Cli, FormatsListsEveryRow) {
    std::string out;
    ASSERT_EQ(cli("formats --json", &out), 0);
    size_t rows = 0;
    for (size_t at = out.find("\"type\":"); at != std::string::npos; at = out.find("\"type\":", at + 1)) ++rows;
    EXPECT_EQ(rows, 42u);
    EXPECT_NE(out.find("\"type\": 7, \"extension\": \"gif\", \"osType\": \"GIFf\""), std::string::npos);
    ASSERT_EQ(cli("formats", &out), 0);
    EXPECT_NE(out.find("Truevision"), std::string::npos);
}

TEST_F(Cli, TypeReportsTheTypeOrTheStatus) {
    ASSERT_TRUE(iltest::writeFile(d.file("x.tga"), std::vector<uint8_t>{0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A}));
    std::string out;
    EXPECT_EQ(cli("type " + d.file("x.tga"), &out), 0);
    EXPECT_EQ(out, "28 png\n");
    ASSERT_TRUE(iltest::writeFile(d.file("y.dat"), std::string("hello")));
    EXPECT_EQ(cli("type " + d.file("y.dat"), &out, true), 1);
    EXPECT_NE(out.find("imagelib: " + d.file("y.dat") + ": "), std::string::npos) << out;
    EXPECT_NE(out.find("(status -126)"), std::string::npos) << out;
}

TEST_F(Cli, ConvertRoundTripsThroughTargaAndBmp) {
    for (const std::string ext : {"tga", "bmp"}) {
        const std::string mid = d.file("mid." + ext), back = d.file("back-" + ext + ".ppm");
        ASSERT_EQ(cli("convert " + in + " " + mid), 0) << ext;
        ASSERT_EQ(cli("convert " + mid + " " + back), 0) << ext;
        EXPECT_EQ(pixels(back), kPixels) << ext;
        std::string out;
        ASSERT_EQ(cli("info --json " + mid, &out), 0);
        for (const char* key : {"\"width\": 3", "\"height\": 2", "\"colorMode\": 1", "\"orientation\""})
            EXPECT_NE(out.find(key), std::string::npos) << key << " in " << out;
    }
    // An explicit type wins over the name; .dat gives no type from the name.
    ASSERT_EQ(cli("convert " + in + " " + d.file("odd.dat") + " --type 2"), 0);
    EXPECT_EQ(cli("info " + d.file("odd.dat")), 1);
    EXPECT_EQ(cli("type " + d.file("odd.dat")), 1);
}

TEST_F(Cli, ConvertGeometryOptions) {
    auto px = [&](int x, int y) { return kPixels.substr(size_t(y * 3 + x) * 3, 3); };
    auto converted = [&](const std::string& options) {
        EXPECT_EQ(cli("convert " + in + " " + d.file("g.ppm") + " " + options), 0) << options;
        return pixels(d.file("g.ppm"));
    };
    // Counter-clockwise: the first row of the result is the source's last column.
    EXPECT_EQ(converted("--rotate 90"), px(2, 0) + px(2, 1) + px(1, 0) + px(1, 1) + px(0, 0) + px(0, 1));
    EXPECT_EQ(converted("--mirror h"), px(2, 0) + px(1, 0) + px(0, 0) + px(2, 1) + px(1, 1) + px(0, 1));
    EXPECT_EQ(converted("--mirror v"), px(0, 1) + px(1, 1) + px(2, 1) + px(0, 0) + px(1, 0) + px(2, 0));
    EXPECT_EQ(converted("--crop 1,0,2,1"), px(1, 0) + px(2, 0) + px(1, 1) + px(2, 1));
    EXPECT_EQ(converted("--size 6x4").size(), 6u * 4 * 3);
    // Any angle: whole turns are the quarter turns; a whole-pixel shift moves exactly and
    // uncovers the background.
    EXPECT_EQ(converted("--rotate -270 --interpolate bicubic"), converted("--rotate 90"));
    const std::string bg = "\x09\x08\x07";
    EXPECT_EQ(converted("--affine 1,0,0,1,1,0 --background 9,8,7"), bg + px(0, 0) + px(1, 0) + bg + px(0, 1) + px(1, 1));
    EXPECT_EQ(converted("--affine 1,0,0,1,0,-1 --background '#090807' --interpolate nearest"),
              px(0, 1) + px(1, 1) + px(2, 1) + bg + bg + bg);
    EXPECT_EQ(converted("--rotate 45").size(), 4u * 4 * 3);  // ceil(3 cos 45 + 2 sin 45) = 4
    EXPECT_EQ(cli("convert " + in + " " + d.file("c.ppm") + " --crop 0,0,3,1"), 1);  // outside the image
}

TEST_F(Cli, ConvertReportsFailures) {
    EXPECT_EQ(cli("convert /nonexistent.tga " + d.file("x.bmp")), 1);
    EXPECT_EQ(cli("convert " + in + " " + d.file("x.unknownext")), 1);
    EXPECT_EQ(cli("convert " + in + " " + d.file("x.rlc")), 1);  // RLC has no writer: -119
    // A streamed PPM whose header claims more rows than the file holds.
    ASSERT_TRUE(iltest::writeFile(d.file("huge.ppm"), std::string("P6\n200000000 9\n255\n") + kPixels));
    std::string huge;
    EXPECT_EQ(cli("convert --stream " + d.file("huge.ppm") + " " + d.file("huge.tga"), &huge, true), 1);
    EXPECT_NE(huge.find("(status -154)"), std::string::npos) << huge;
    ASSERT_TRUE(iltest::writeFile(d.file("bad.bmp"), std::string("BMxx")));
    std::string err;
    EXPECT_EQ(cli("info " + d.file("bad.bmp"), &err, true), 1);
    EXPECT_NE(err.find("(status -"), std::string::npos) << err;
}

// A two-colour file keeps its own colours through the CLI, whatever the
// palette; a palette of one entry reads index 1 as black.
TEST_F(Cli, ConvertKeepsTheColoursOfAOneEntryPalette) {
    std::string one = "BM";
    auto le32 = [&](uint32_t v) { one += {char(v), char(v >> 8), char(v >> 16), char(v >> 24)}; };
    for (uint32_t v : {66u, 0u, 58u, 40u, 2u, 1u}) le32(v);
    one += {1, 0, 1, 0};  // one plane, one bit
    for (uint32_t v : {0u, 4u, 0u, 0u, 1u, 0u}) le32(v);
    one += {40, 90, char(200), 0, 0x40, 0, 0, 0};  // the one entry; pixels 0, 1
    ASSERT_TRUE(iltest::writeFile(d.file("one.bmp"), one));
    ASSERT_EQ(cli("convert " + d.file("one.bmp") + " " + d.file("one.ppm")), 0);
    EXPECT_EQ(pixels(d.file("one.ppm")), std::string({char(200), 90, 40, 0, 0, 0}));
}

TEST_F(Cli, DemoWritesEveryAvailableType) {
    std::string out;
    ASSERT_EQ(cli("demo " + d.path(), &out), 0);
    // Targa and BMP are written and read back without loss.
    for (const char* line : {"\n2    tga   rgb", "\n9    bmp   rgb"}) {
        size_t at = out.find(line);
        ASSERT_NE(at, std::string::npos) << out;
        std::string row = out.substr(at + 1, out.find('\n', at + 1) - at - 1);
        EXPECT_NE(row.find("        0"), std::string::npos) << row;
    }
}

}  // namespace
