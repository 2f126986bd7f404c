// The command-line tool's commands and exit codes.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "test_support.h"

namespace {

int cli(const std::string& args, std::string* out = nullptr) {
    return iltest::run(iltest::cliPath() + " " + args + " 2>/dev/null", out);
}

TEST(Cli, HelpVersionAndUsageErrors) {
    std::string out;
    EXPECT_EQ(cli("--help", &out), 0);
    EXPECT_NE(out.find("formats"), std::string::npos);
    EXPECT_EQ(cli("--version", &out), 0);
    EXPECT_EQ(out.rfind("imagelib ", 0), 0u);
    EXPECT_EQ(cli(""), 2);
    EXPECT_EQ(cli("frobnicate"), 2);
    EXPECT_EQ(cli("type"), 2);
    EXPECT_EQ(cli("type a b"), 2);
    EXPECT_EQ(cli("formats --xml"), 2);
}

TEST(Cli, FormatsListsEveryRow) {
    std::string out;
    ASSERT_EQ(cli("formats --json", &out), 0);
    size_t rows = 0;
    for (size_t at = out.find("\"type\":"); at != std::string::npos; at = out.find("\"type\":", at + 1)) ++rows;
    EXPECT_EQ(rows, 42u);
    EXPECT_NE(out.find("\"extension\": \"itiff\""), std::string::npos);
    EXPECT_NE(out.find("\"type\": 7, \"extension\": \"gif\", \"osType\": \"GIFf\""), std::string::npos);
    ASSERT_EQ(cli("formats", &out), 0);
    EXPECT_NE(out.find("Truevision"), std::string::npos);
}

TEST(Cli, TypeReportsTheTypeOrTheStatus) {
    iltest::TempDir d;
    std::vector<uint8_t> png = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
    ASSERT_TRUE(iltest::writeFile(d.file("x.tga"), png));
    std::string out;
    EXPECT_EQ(cli("type " + d.file("x.tga"), &out), 0);
    EXPECT_EQ(out, "28 png\n");
    ASSERT_TRUE(iltest::writeFile(d.file("y.dat"), std::string("hello")));
    std::string err;
    EXPECT_EQ(iltest::run(iltest::cliPath() + " type " + d.file("y.dat") + " 2>&1", &err), 1);
    EXPECT_NE(err.find("(status -126)"), std::string::npos) << err;
    EXPECT_NE(err.find("imagelib: " + d.file("y.dat") + ": "), std::string::npos) << err;
}

// A 3x2 binary PPM with distinct pixels.
std::string ppm3x2() {
    std::string s = "P6\n3 2\n255\n";
    for (int i = 0; i < 6; ++i) {
        s += char(10 + i * 40);
        s += char(200 - i * 30);
        s += char(i * 7);
    }
    return s;
}

// The pixel bytes of a binary PPM written by the CLI.
std::string pixels(const std::string& path) {
    auto bytes = iltest::readFile(path);
    std::string s(bytes.begin(), bytes.end());
    size_t at = 0;
    for (int fields = 0; fields < 4 && at < s.size(); ++at)
        if (s[at] == '\n' || s[at] == ' ') ++fields;
    return s.substr(at);
}

TEST(Cli, ConvertRoundTripsThroughTargaAndBmp) {
    iltest::TempDir d;
    ASSERT_TRUE(iltest::writeFile(d.file("in.ppm"), ppm3x2()));
    const std::string in = d.file("in.ppm");
    const std::string src = ppm3x2().substr(11);
    for (const char* ext : {"tga", "bmp"}) {
        std::string mid = d.file(std::string("mid.") + ext), back = d.file(std::string("back-") + ext + ".ppm");
        ASSERT_EQ(cli("convert " + in + " " + mid), 0) << ext;
        ASSERT_EQ(cli("convert " + mid + " " + back), 0) << ext;
        EXPECT_EQ(pixels(back), src) << ext;
        std::string out;
        ASSERT_EQ(cli("info --json " + mid, &out), 0);
        for (const char* key : {"\"file\"", "\"type\"", "\"extension\"", "\"width\": 3", "\"height\": 2",
                                "\"colorMode\": 1", "\"orientation\""})
            EXPECT_NE(out.find(key), std::string::npos) << key << " in " << out;
    }
    // An explicit type wins over the name.
    ASSERT_EQ(cli("convert " + in + " " + d.file("odd.dat") + " --type 2"), 0);
    std::string out;
    ASSERT_EQ(cli("info " + d.file("odd.dat"), &out), 1);  // .dat: no type from the name
    ASSERT_EQ(cli("type " + d.file("odd.dat"), &out), 1);
}

TEST(Cli, ConvertGeometryOptions) {
    iltest::TempDir d;
    ASSERT_TRUE(iltest::writeFile(d.file("in.ppm"), ppm3x2()));
    const std::string in = d.file("in.ppm");
    const std::string src = ppm3x2().substr(11);
    auto px = [&](int x, int y) { return src.substr(size_t(y * 3 + x) * 3, 3); };
    ASSERT_EQ(cli("convert " + in + " " + d.file("r.ppm") + " --rotate 90"), 0);
    // Counter-clockwise: the first row of the result is the source's last column.
    EXPECT_EQ(pixels(d.file("r.ppm")), px(2, 0) + px(2, 1) + px(1, 0) + px(1, 1) + px(0, 0) + px(0, 1));
    ASSERT_EQ(cli("convert " + in + " " + d.file("m.ppm") + " --mirror h"), 0);
    EXPECT_EQ(pixels(d.file("m.ppm")), px(2, 0) + px(1, 0) + px(0, 0) + px(2, 1) + px(1, 1) + px(0, 1));
    ASSERT_EQ(cli("convert " + in + " " + d.file("v.ppm") + " --mirror v"), 0);
    EXPECT_EQ(pixels(d.file("v.ppm")), px(0, 1) + px(1, 1) + px(2, 1) + px(0, 0) + px(1, 0) + px(2, 0));
    ASSERT_EQ(cli("convert " + in + " " + d.file("c.ppm") + " --crop 1,0,2,1"), 0);
    EXPECT_EQ(pixels(d.file("c.ppm")), px(1, 0) + px(2, 0) + px(1, 1) + px(2, 1));
    ASSERT_EQ(cli("convert " + in + " " + d.file("s.ppm") + " --size 6x4"), 0);
    EXPECT_EQ(pixels(d.file("s.ppm")).size(), 6u * 4 * 3);
    EXPECT_EQ(cli("convert " + in + " " + d.file("c.ppm") + " --crop 0,0,3,1"), 1);  // outside the image
}

TEST(Cli, ConvertReportsFailuresAndUsage) {
    iltest::TempDir d;
    ASSERT_TRUE(iltest::writeFile(d.file("in.ppm"), ppm3x2()));
    const std::string in = d.file("in.ppm");
    EXPECT_EQ(cli("convert " + in), 2);
    EXPECT_EQ(cli("convert " + in + " x.tga --mode purple"), 2);
    EXPECT_EQ(cli("convert " + in + " x.tga --rotate 45"), 2);
    EXPECT_EQ(cli("convert " + in + " x.tga --size 0x3"), 2);
    EXPECT_EQ(cli("convert " + in + " x.tga --bogus"), 2);
    EXPECT_EQ(cli("convert /nonexistent.tga " + d.file("x.bmp")), 1);
    EXPECT_EQ(cli("convert " + in + " " + d.file("x.unknownext")), 1);
    EXPECT_EQ(cli("convert " + in + " " + d.file("x.eps")), 1);  // no EPS writer yet: -119
    ASSERT_TRUE(iltest::writeFile(d.file("bad.bmp"), std::string("BMxx")));
    std::string err;
    EXPECT_EQ(iltest::run(iltest::cliPath() + " info " + d.file("bad.bmp") + " 2>&1", &err), 1);
    EXPECT_NE(err.find("(status -"), std::string::npos) << err;
}

TEST(Cli, DemoWritesEveryAvailableType) {
    iltest::TempDir d;
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
