// Targa files against independent programs: files written by ImageMagick
// and netpbm read as those programs read them, sample files match their PNG
// references, and our files read in those programs as the pixels we wrote.
#include <gtest/gtest.h>

#include <sstream>

#include "../registry/stream_test_util.h"
#include "test_support.h"

using stest::Planar;

namespace {

// Interleaved pixels of a binary PPM (P6) or PAM (P7) of maxval 255, as
// printed by a command; empty when the command fails.
std::vector<uint8_t> decodeWith(const std::string& command) {
    std::string text;
    if (iltest::run(command + " 2>/dev/null", &text) != 0) return {};
    std::istringstream in(text);
    std::string key;
    int w = 0, h = 0, depth = 3, maxval = 0;
    in >> key;
    if (key == "P6") {
        in >> w >> h >> maxval;
    } else {
        while (in >> key && key != "ENDHDR") {
            if (key == "WIDTH") in >> w;
            else if (key == "HEIGHT") in >> h;
            else if (key == "DEPTH") in >> depth;
            else if (key == "MAXVAL") in >> maxval;
            else std::getline(in, key);
        }
    }
    in.get();
    std::vector<uint8_t> data(size_t(w) * h * depth);
    in.read(reinterpret_cast<char*>(data.data()), std::streamsize(data.size()));
    return maxval == 255 && size_t(in.gcount()) == data.size() ? data : std::vector<uint8_t>{};
}

std::vector<uint8_t> interleaved(const Planar& img) {
    std::vector<uint8_t> out;
    for (int r = 0; r < img.size.y; ++r)
        for (int x = 0; x < img.size.x; ++x)
            for (int p = 0; p < img.planes; ++p) out.push_back(img.plane(r, p)[x]);
    return out;
}

// Our reading of a Targa file, upright and interleaved.
std::vector<uint8_t> ours(const std::string& path, bool alpha) {
    Planar img;
    int orientation = 0;
    EXPECT_EQ(stest::readStream(path, nullptr, &img, &orientation, alpha), 0) << path;
    return interleaved(stest::upright(img, orientation));
}

void writePnm(const std::string& path, const Planar& img) {
    const std::string w = std::to_string(img.size.x), h = std::to_string(img.size.y);
    const std::string head = img.planes == 4 ? "P7\nWIDTH " + w + "\nHEIGHT " + h +
                                                   "\nDEPTH 4\nMAXVAL 255\nTUPLTYPE RGB_ALPHA\nENDHDR\n"
                                             : "P6\n" + w + " " + h + "\n255\n";
    std::vector<uint8_t> bytes(head.begin(), head.end());
    const std::vector<uint8_t> px = interleaved(img);
    bytes.insert(bytes.end(), px.begin(), px.end());
    ASSERT_TRUE(iltest::writeFile(path, bytes));
}

// Source pictures: many colours, six colours (palette writers keep them
// exact) or grey.
Planar source(char kind, int planes) {
    Planar img = stest::pattern(45, 17, planes);
    for (int r = 0; r < img.size.y; ++r)
        for (int x = 0; x < img.size.x; ++x)
            for (int p = 0; p < planes; ++p) {
                if (kind == 'f') img.at(r, p, x) = uint8_t(((x / 5 + r / 3) % 6) * 40 + p * 17);
                if (kind == 'g' && p > 0 && p < 3) img.at(r, p, x) = img.at(r, 0, x);
            }
    return img;
}

TEST(TargaInterop, FilesOfOtherProgramsReadAsTheyReadThem) {
    // ImageMagick keeps Targa rows in stored order tagged with the file's
    // origin (-auto-orient turns them upright), and its writer stores rows
    // in the order it holds them labelled with the image's tag, bottom left
    // unless told otherwise: such a file, read correctly, is upside down.
    struct Case {
        const char* write;  // {in} -> {out}
        char kind;          // source: 'c' colours, 'f' few colours, 'g' grey
        bool alpha;         // RGBA source, compared with alpha
        bool flipped;       // the file holds the source upside down
    };
    const Case cases[] = {
        {"convert {in} -compress None {out}", 'c', false, true},
        {"convert {in} -orient TopLeft -compress RLE {out}", 'c', false, false},
        {"convert {in} -compress RLE {out}", 'c', true, true},
        {"convert {in} -orient TopLeft -compress None {out}", 'c', true, false},
        {"convert {in} -type Palette -compress None {out}", 'f', false, true},
        {"convert {in} -type Palette -orient TopLeft -compress RLE {out}", 'f', false, false},
        {"convert {in} -type Grayscale -compress None {out}", 'g', false, true},
        {"convert {in} -type Grayscale -orient TopLeft -compress RLE {out}", 'g', false, false},
        {"ppmtotga -rgb {in} > {out}", 'c', false, false},
        {"ppmtotga -cmap -norle {in} > {out}", 'f', false, false},
        {"ppmtotga -mono {in} > {out}", 'g', false, false},
    };
    iltest::TempDir dir;
    const std::string in = dir.file("s.pnm"), out = dir.file("t.tga");
    int ran = 0;
    for (const Case& c : cases) {
        const std::string w = c.write, tool = w.substr(0, w.find(' '));
        const bool im = tool == "convert";
        if (!iltest::haveProgram(tool) || (!im && !iltest::haveProgram("tgatoppm"))) continue;
        const Planar src = source(c.kind, c.alpha ? 4 : 3);
        writePnm(in, src);
        std::string command = w.substr(0, w.find("{in}")) + in + w.substr(w.find("{in}") + 4);
        command = command.substr(0, command.find("{out}")) + out;
        ASSERT_EQ(iltest::run(command + " 2>/dev/null"), 0) << command;
        const std::vector<uint8_t> mine = ours(out, c.alpha);
        const std::string theirs = im ? "convert " + out + " -auto-orient -depth 8 " + (c.alpha ? "pam:-" : "ppm:-")
                                      : "tgatoppm " + out;
        EXPECT_EQ(mine, decodeWith(theirs)) << command;
        EXPECT_EQ(mine, interleaved(c.flipped ? stest::upright(src, 6) : src)) << command;
        ++ran;
    }
    if (ran == 0) GTEST_SKIP() << "neither ImageMagick nor netpbm is installed";
}

TEST(TargaInterop, SampleFilesMatchTheirPngReferences) {
    if (iltest::corpusFile("tga/common/200x32_rgb.png").empty() || !iltest::haveProgram("convert"))
        GTEST_SKIP() << "no sample corpus or no ImageMagick";
    for (const char* name : {"200x32_rgb", "200x32_rgba", "200x32_p", "200x32_l", "200x32_la", "1x1_l"}) {
        const bool alpha = std::string(name) == "200x32_rgba";
        const std::string png = iltest::corpusFile("tga/common/" + std::string(name) + ".png");
        const std::string reference =
            alpha ? "convert " + png + " -depth 8 pam:-" : "convert " + png + " -alpha off -depth 8 ppm:-";
        EXPECT_EQ(ours(iltest::corpusFile("tga/common/" + std::string(name) + "_bl_rle.tga"), alpha),
                  decodeWith(reference))
            << name;
    }
}

TEST(TargaInterop, OurFilesReadInOtherPrograms) {
    const bool im = iltest::haveProgram("convert"), netpbm = iltest::haveProgram("tgatoppm");
    if (!im && !netpbm) GTEST_SKIP() << "neither ImageMagick nor netpbm is installed";
    iltest::TempDir dir;
    const std::string path = dir.file("ours.tga"), alphaPath = dir.file("a.pgm");
    for (int planes : {3, 4}) {
        const Planar src = source('c', planes);
        ASSERT_EQ(stest::writeStream(path, src, nullptr, 2, planes == 4 ? 6 : 1), 0);
        if (im) {
            EXPECT_EQ(decodeWith("convert " + path + " -auto-orient -depth 8 " + (planes == 4 ? "pam:-" : "ppm:-")),
                      interleaved(src))
                << planes << " planes";
        }
        if (netpbm) {
            EXPECT_EQ(decodeWith("tgatoppm " + path), interleaved(source('c', 3))) << planes << " planes";
            if (planes == 4) {
                // netpbm writes the alpha as a PGM; compare its raster.
                ASSERT_EQ(iltest::run("tgatoppm -alphaout=" + alphaPath + " " + path + " >/dev/null 2>&1"), 0);
                const std::vector<uint8_t> pgm = iltest::readFile(alphaPath);
                const std::vector<uint8_t> px = interleaved(src);
                ASSERT_GE(pgm.size(), px.size() / 4);
                for (size_t i = 0, base = pgm.size() - px.size() / 4; i < px.size() / 4; ++i)
                    ASSERT_EQ(pgm[base + i], px[i * 4 + 3]) << "alpha of pixel " << i;
            }
        }
    }
}

}  // namespace
