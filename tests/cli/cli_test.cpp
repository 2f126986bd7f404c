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

}  // namespace
