// The CLI's streaming conversion, its parallel batches and the outputs it
// keeps safe when a conversion fails.
#include <gtest/gtest.h>
#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

int cli(const std::string& args, std::string* err = nullptr) {
    // stderr into the captured text, stdout dropped.
    return iltest::run(iltest::cliPath() + " " + args + (err ? " 2>&1 >/dev/null" : " 2>/dev/null"), err);
}

std::string corpus(const std::string& rel) { return iltest::corpusFile(rel); }

// Names in a directory, hidden ones included.
std::vector<std::string> listing(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") names.push_back(e->d_name);
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// An uncompressed 24-bit Targa of w x h pixels with the descriptor's origin
// bits (0x00 bottom-left, 0x10 bottom-right, 0x20 top-left, 0x30 top-right);
// every pixel distinct.
Bytes targa(int w, int h, int origin) {
    Bytes b(18, 0);
    b[2] = 2;
    b[12] = uint8_t(w), b[13] = uint8_t(w >> 8), b[14] = uint8_t(h), b[15] = uint8_t(h >> 8);
    b[16] = 24;
    b[17] = uint8_t(origin);
    for (int i = 0; i < w * h; ++i) {
        b.push_back(uint8_t(i * 7));
        b.push_back(uint8_t(i * 13 + 5));
        b.push_back(uint8_t(255 - i));
    }
    return b;
}

class BatchCli : public ::testing::Test {
protected:
    iltest::TempDir d;
    // The whole-image decode of a file by the CLI, as PAM bytes.
    Bytes decoded(const std::string& path) {
        const std::string pam = d.file("decoded.pam");
        std::remove(pam.c_str());
        EXPECT_EQ(cli("convert " + path + " " + pam), 0) << path;
        return iltest::readFile(pam);
    }
};

// Row-readable sources in every orientation and with alpha, into every
// row-writable type: the streamed file holds the picture the whole-image
// conversion writes (byte for byte where both writers make the same file).
TEST_F(BatchCli, StreamEqualsWholeImageConversion) {
    if (iltest::corpusDir().empty()) GTEST_SKIP() << "no corpus";
    std::vector<std::string> sources;
    for (int origin : {0x00, 0x10, 0x20, 0x30}) {
        sources.push_back(d.file("origin" + std::to_string(origin) + ".tga"));
        ASSERT_TRUE(iltest::writeFile(sources.back(), targa(5, 3, origin)));
    }
    for (const char* f : {"rgb_tl_rle", "rgba_bl_raw", "p_bl_rle"})
        sources.push_back(corpus(std::string("tga/common/200x32_") + f + ".tga"));
    sources.push_back(corpus("tif/hopper_lzw.tif"));
    sources.push_back(corpus("tif/hopper_gray_4bpp.tif"));
    // Tiled: bands of tiles, partial tiles at the right and bottom edges.
    for (const char* f : {"tiled_rgb_edges.tif", "tiled_bilevel_g4.tif"})
        sources.push_back(std::string(IMAGELIB_SEED_DIR) + "/tiff/" + f);
    ASSERT_EQ(cli("convert " + corpus("png/hopper.png") + " " + d.file("ingr.rgb")), 0);
    sources.push_back(d.file("ingr.rgb"));
    // PNM rows read by the CLI, 8 and 16 bits a sample.
    for (const char* pnm : {"in.ppm", "in.pgm"}) {
        ASSERT_EQ(cli("convert " + corpus("png/hopper.png") + " " + d.file(pnm)), 0);
        sources.push_back(d.file(pnm));
    }
    ASSERT_EQ(cli("convert " + corpus("tga/common/200x32_rgba_tl_rle.tga") + " " + d.file("in-rgba.pam")), 0);
    sources.push_back(d.file("in-rgba.pam"));
    std::string wide = "P6\n3 2\n1000\n";
    for (int i = 0; i < 18; ++i) wide += {char((i * 55) >> 8), char(i * 55)};
    ASSERT_TRUE(iltest::writeFile(d.file("wide.ppm"), wide));
    sources.push_back(d.file("wide.ppm"));

    struct Out {
        const char* ext;
        bool sameBytes;  // both writers make the same file
        bool readable;
    };
    const Out outs[] = {{"bmp", false, true}, {"tif", false, true}, {"tga", true, true},
                        {"rgb", true, true},  {"pam", true, true},  {"pct", true, false}};
    for (const std::string& src : sources) {
        // An RGB picture written in RGB by a lossless writer reads back as the
        // source; pictures with alpha go as the whole-image conversion takes
        // them (without alpha into BMP and Intergraph RGB).
        const bool alpha = src.find("rgba") != std::string::npos;
        const Bytes source = decoded(src);
        for (const Out& o : outs) {
            SCOPED_TRACE(src + " -> " + o.ext);
            const std::string whole = d.file(std::string("whole.") + o.ext), streamed = d.file(std::string("streamed.") + o.ext);
            ASSERT_EQ(cli("convert --stream " + src + " " + streamed), 0);
            if (o.sameBytes || alpha) {
                ASSERT_EQ(cli("convert " + src + " " + whole + (alpha ? "" : " --mode rgb")), 0);
            }
            if (o.sameBytes) {
                EXPECT_EQ(iltest::readFile(streamed), iltest::readFile(whole));
            }
            if (o.readable) {
                EXPECT_EQ(decoded(streamed), alpha ? decoded(whole) : source);
            }
        }
    }
    // EPS names itself in its title: the same name in two directories.
    ASSERT_EQ(iltest::run("mkdir " + d.file("a") + " " + d.file("b")), 0);
    ASSERT_EQ(iltest::run("cd " + d.file("a") + " && " + iltest::cliPath() + " convert " + sources[0] + " x.eps"), 0);
    ASSERT_EQ(iltest::run("cd " + d.file("b") + " && " + iltest::cliPath() + " convert --stream " + sources[0] + " x.eps"), 0);
    EXPECT_EQ(iltest::readFile(d.file("b/x.eps")), iltest::readFile(d.file("a/x.eps")));
}

TEST_F(BatchCli, StreamRefusesWhatItCannotStreamAsUsage) {
    const std::string tga = d.file("in.tga");
    ASSERT_TRUE(iltest::writeFile(tga, targa(4, 4, 0)));
    ASSERT_EQ(cli("convert " + tga + " " + d.file("in.png")), 0);
    std::string err;
    EXPECT_EQ(cli("convert --stream " + d.file("in.png") + " " + d.file("o.bmp"), &err), 2);
    EXPECT_NE(err.find("no row reader"), std::string::npos) << err;
    EXPECT_EQ(cli("convert --stream " + tga + " " + d.file("o.png"), &err), 2);
    EXPECT_NE(err.find("no row writer"), std::string::npos) << err;
    for (const char* extra : {"--size 2x2", "--mode 256", "--crop 0,0,1,1"})
        EXPECT_EQ(cli("convert --stream " + tga + " " + d.file("o.bmp") + " " + extra), 2) << extra;
    EXPECT_EQ(listing(d.path()), (std::vector<std::string>{"in.png", "in.tga"}));
}

// Inputs of every codec family through a batch: -j 2 writes what -j 1 and
// one convert a file write, byte for byte, with the other options applied.
TEST_F(BatchCli, ParallelBatchEqualsSerialAndSingleConversions) {
    if (iltest::corpusDir().empty()) GTEST_SKIP() << "no corpus";
    std::string inputs;
    std::vector<std::string> names, paths;
    for (const char* f : {"bmp/hopper.bmp", "tga/common/200x32_rgba_tl_rle.tga", "gif/hopper.gif", "pcx/pil184.pcx",
                          "tif/hopper_lzw.tif", "tif/hopper_g4.tif", "jpg/hopper.jpg",
                          "png/hopper.png", "fli/hopper.fli"}) {
        // Copied under names that differ without their extensions.
        std::string n = f;
        n = n.substr(0, n.find('/')) + "-" + n.substr(n.find_last_of('/') + 1);
        paths.push_back(d.file(n));
        ASSERT_TRUE(iltest::writeFile(paths.back(), iltest::readFile(corpus(f))));
        inputs += " " + paths.back();
        names.push_back(n.substr(0, n.find_last_of('.')));
    }
    // Our own writers' files: Intergraph, CALS, Sun raster, P raster.
    for (const char* ext : {"cot", "rle", "cal", "rs", "p"}) {
        ASSERT_EQ(cli("convert " + corpus("tif/hopper_g4.tif") + " " + d.file(std::string("own-") + ext + "." + ext)), 0);
        paths.push_back(d.file(std::string("own-") + ext + "." + ext));
        inputs += " " + paths.back();
        names.push_back(std::string("own-") + ext);
    }
    struct Case {
        const char* options;
        const char* ext;
    } cases[] = {{"--type 28", "png"}, {"--type 18 --quality 75", "jpg"}, {"--type 9 --mode 256", "bmp"},
                 {"--type 3 --compression -5 --size 40x30", "tif"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.options);
        const std::string one = d.file(std::string("j1-") + c.ext), two = d.file(std::string("j2-") + c.ext);
        ASSERT_EQ(cli("convert -j 1" + inputs + " --to " + one + " " + c.options), 0);
        ASSERT_EQ(cli("convert -j 2" + inputs + " " + c.options + " --to " + two), 0);
        std::vector<std::string> expected;
        for (const std::string& n : names) expected.push_back(n + "." + c.ext);
        std::sort(expected.begin(), expected.end());
        ASSERT_EQ(listing(one), expected);
        ASSERT_EQ(listing(two), expected);
        for (const std::string& f : expected) {
            const Bytes serial = iltest::readFile(one + "/" + f);
            EXPECT_FALSE(serial.empty()) << f;
            EXPECT_EQ(iltest::readFile(two + "/" + f), serial) << f;
        }
        // One convert of the first and last input.
        for (size_t i : {size_t(0), names.size() - 1}) {
            const std::string single = d.file("single." + std::string(c.ext)), path = paths[i];
            ASSERT_EQ(cli("convert " + path + " " + single + " " + c.options), 0);
            EXPECT_EQ(iltest::readFile(single), iltest::readFile(one + "/" + names[i] + "." + c.ext)) << path;
        }
    }
}

// A file that fails leaves the rest of the batch written, one error line,
// exit 1, and no output of its own; usage errors come before any work.
TEST_F(BatchCli, FailedFileInBatchLeavesTheOthers) {
    const std::string good1 = d.file("good1.tga"), good2 = d.file("good2.tga"), bad = d.file("bad.tga");
    ASSERT_TRUE(iltest::writeFile(good1, targa(6, 4, 0)));
    ASSERT_TRUE(iltest::writeFile(good2, targa(3, 7, 0x20)));
    ASSERT_TRUE(iltest::writeFile(bad, std::string("not a picture at all")));
    const std::string out = d.file("out");
    std::string err;
    EXPECT_EQ(cli("convert -j 2 " + good1 + " " + bad + " " + good2 + " --to " + out + " --type 9", &err), 1);
    EXPECT_EQ(listing(out), (std::vector<std::string>{"good1.bmp", "good2.bmp"}));
    EXPECT_EQ(err, "imagelib: " + bad + ": invalid or corrupt file (status -154)\n");
    EXPECT_EQ(decoded(out + "/good2.bmp"), decoded(good2));

    for (const std::string& args : {"-j 2 " + good1 + " --type 9",               // no --to
                                    "--to " + out + " " + good1,                // no --type
                                    "-j 0 " + good1 + " --to " + out + " --type 9",
                                    "-j 2 --to " + out + " --type 9",           // no inputs
                                    "-j 2 " + good1 + " " + d.file("a/good1.bmp") + " --to " + out + " --type 9"})
        EXPECT_EQ(cli("convert " + args), 2) << args;
}

// Whatever fails, no output appears and an existing one keeps its bytes;
// nothing is left beside it.
TEST_F(BatchCli, FailuresKeepTheExistingOutput) {
    const std::string dir = d.file("o");
    ASSERT_EQ(iltest::run("mkdir " + dir), 0);
    const std::string existing = dir + "/kept.bmp";
    const std::string old = "the bytes that were there";
    const std::string bad = d.file("bad.tga"), big = d.file("big.tga"), cut = d.file("cut.tga");
    ASSERT_TRUE(iltest::writeFile(bad, std::string("not a picture at all")));
    Bytes image = targa(300, 200, 0);
    ASSERT_TRUE(iltest::writeFile(big, image));
    image.resize(image.size() / 2);
    ASSERT_TRUE(iltest::writeFile(cut, image));

    struct Case {
        std::string command;
        std::string out;
        const char* status;
        bool limited = false;  // under a file size limit that stops the writer part-way
    } cases[] = {
        {"convert " + bad + " " + existing, existing, "(status -154)"},
        {"convert --stream " + bad + " " + existing, existing, "(status -154)"},
        {"convert --stream " + cut + " " + existing, existing, "(status -120)"},  // fails part-way
        {"convert --stream " + cut + " " + dir + "/new.tif", dir + "/new.tif", "(status -120)"},
        {"convert -j 1 " + cut + " --to " + dir + " --type 9 --stream", dir + "/cut.bmp", "(status -120)"},
        {"convert " + d.file("missing.tga") + " " + existing, existing, "file cannot be opened (status -113)"},
        {"convert " + big + " " + existing, existing, "(status -111)", true},
        {"convert --stream " + big + " " + existing, existing, "(status -111)", true},
        {"convert --stream " + big + " " + dir + "/new.tif", dir + "/new.tif", "(status -111)", true},
        {"movie " + dir + "/kept.flc " + big + " " + big, dir + "/kept.flc", "(status -111)", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.command);
        ASSERT_TRUE(iltest::writeFile(existing, old));
        ASSERT_TRUE(iltest::writeFile(dir + "/kept.flc", old));
        std::string err;
        const std::string limit = c.limited ? "trap '' XFSZ; ulimit -f 20; " : "";  // 10 KiB
        const int rc = iltest::run(limit + iltest::cliPath() + " " + c.command + " 2>&1", &err);
        EXPECT_EQ(rc, 1) << err;
        EXPECT_NE(err.find(c.status), std::string::npos) << err;
        EXPECT_EQ(err.find("stopped by the caller"), std::string::npos) << err;
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
        if (c.out == existing || c.out == dir + "/kept.flc") {
            const Bytes now = iltest::readFile(c.out);
            EXPECT_EQ(std::string(now.begin(), now.end()), old);
        }
        std::vector<std::string> left = listing(dir);
        EXPECT_EQ(left, (std::vector<std::string>{"kept.bmp", "kept.flc"}));
    }
    // With room to write, the same conversions replace the file.
    ASSERT_EQ(cli("convert --stream " + big + " " + existing), 0);
    EXPECT_EQ(decoded(existing), decoded(big));
}

// An interrupt stops the conversion: either it had finished (a whole file)
// or nothing is left; never a part of a file.
TEST_F(BatchCli, InterruptLeavesWholeFileOrNone) {
    const std::string big = d.file("big.tga"), dir = d.file("o");
    ASSERT_TRUE(iltest::writeFile(big, targa(2000, 1500, 0)));
    ASSERT_EQ(iltest::run("mkdir " + dir), 0);
    for (const char* how : {"--stream", ""}) {
        SCOPED_TRACE(how);
        const std::string out = dir + "/out.tif";
        std::string err;
        // One SIGINT (timeout(1) may deliver a second one to the group, and a
        // second signal ends the process at once by design).
        const int rc = iltest::run("(" + iltest::cliPath() + " convert " + how + " " + big + " " + out +
                                       " 2>&1 & pid=$!; sleep 0.05; kill -INT $pid; wait $pid)",
                                   &err);
        if (rc == 0) {
            EXPECT_EQ(decoded(out), decoded(big));
            std::remove(out.c_str());
        } else if (rc != 130) {  // 130: the signal came before the handlers were in place
            EXPECT_EQ(rc, 1) << err;
            EXPECT_NE(err.find("stopped by the caller (status -144)"), std::string::npos) << err;
        }
        EXPECT_TRUE(listing(dir).empty()) << "exit " << rc;
    }
}

}  // namespace
