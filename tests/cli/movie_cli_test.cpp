// imagelib movie, and FLI/FLC through info and convert.
#include <gtest/gtest.h>

#include <string>

#include "test_support.h"

namespace {

int cli(const std::string& args, std::string* out = nullptr) {
    return iltest::run(iltest::cliPath() + " " + args + " 2>/dev/null", out);
}

// A w x h PPM of a few colours that depend on k.
std::string ppm(int k, int w = 4, int h = 3) {
    std::string s = "P6\n" + std::to_string(w) + " " + std::to_string(h) + "\n255\n";
    for (int i = 0; i < w * h; ++i) s += {char(i % 3 == 0 ? 200 : 10 * k), char(40 * (i % 2)), char(k)};
    return s;
}

TEST(MovieCli, FramesIntoAnimations) {
    iltest::TempDir d;
    std::string frames;
    for (int k = 0; k < 3; ++k) {
        ASSERT_TRUE(iltest::writeFile(d.file("f" + std::to_string(k) + ".ppm"), ppm(k)));
        frames += " " + d.file("f" + std::to_string(k) + ".ppm");
    }
    std::string out;
    ASSERT_EQ(cli("movie " + d.file("m.flc") + " --delay 7" + frames), 0);
    ASSERT_EQ(cli("info --json " + d.file("m.flc"), &out), 0);
    EXPECT_NE(out.find("\"type\": 15"), std::string::npos) << out;
    EXPECT_NE(out.find("\"frames\": 3}"), std::string::npos) << out;
    // convert reads the first frame (its few colours exactly) and writes FLI/FLC.
    ASSERT_EQ(cli("convert " + d.file("m.flc") + " " + d.file("first.ppm")), 0);
    auto bytes = iltest::readFile(d.file("first.ppm"));
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), ppm(0));
    ASSERT_EQ(cli("convert " + d.file("first.ppm") + " " + d.file("one.fli")), 0);
    ASSERT_EQ(cli("info --json " + d.file("one.fli"), &out), 0);
    EXPECT_NE(out.find("\"frames\": 1}"), std::string::npos) << out;
    // AVI: 4 x 9 frames are kept as 4 x 8 (rows of 12 bytes).
    ASSERT_TRUE(iltest::writeFile(d.file("tall.ppm"), ppm(2, 4, 9)));
    ASSERT_EQ(cli("movie " + d.file("m.avi") + " " + d.file("tall.ppm") + " " + d.file("tall.ppm")), 0);
    EXPECT_EQ(iltest::readFile(d.file("m.avi")).size(), 232u + 2 * (12 * 8 + 24));
    EXPECT_EQ(cli("movie " + d.file("m.avi") + frames), 1);  // 3 rows: none left

    // Usage errors and frames of another size.
    ASSERT_TRUE(iltest::writeFile(d.file("wide.ppm"), ppm(1, 5)));
    for (const std::string& args : {"movie " + d.file("x.flc"), "movie " + d.file("x.bmp") + frames,
                                    "movie " + d.file("x.flc") + " --delay 0" + frames})
        EXPECT_EQ(cli(args), 2) << args;
    EXPECT_EQ(cli("movie " + d.file("x.flc") + frames + " " + d.file("wide.ppm")), 1);
}

}  // namespace
