// The format table, detection from contents and from names, list queries
// and writer capabilities.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "imagelib/imagelib.h"
#include "registry/formats.h"
#include "test_support.h"

namespace {

const std::vector<uint8_t> kPngStart = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A, 0, 0, 0, 13};

std::vector<uint8_t> flicHeader(uint16_t magic) {
    std::vector<uint8_t> h(128, 0);
    h[4] = uint8_t(magic);
    h[5] = uint8_t(magic >> 8);
    return h;
}

// A minimal uncompressed 2x1 Targa file: nothing in it that any detector takes.
const std::vector<uint8_t> kTarga = {0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 1, 0, 24, 0, 1, 2, 3, 4, 5, 6};

TEST(Registry, TableRowsAreIndexedByType) {
    using namespace il::registry;
    for (int t = 0; t < kTypeCount; ++t) EXPECT_EQ(kFormatTable[t].type, t);
    char ext[16];
    EXPECT_EQ(korImage_getExtension(ext, 31), 0);
    EXPECT_STREQ(ext, "itiff");
    EXPECT_EQ(korImage_getExtension(ext, 42), IMGERR_BADARG);
    EXPECT_STREQ(ext, "*");
    EXPECT_EQ(korImage_getExtension(ext, -1), IMGERR_BADARG);
    EXPECT_STREQ(ext, "*");
    uint32_t os = 0;
    EXPECT_EQ(korImage_getOSFileType(&os, 7), 0);
    EXPECT_EQ(os, 0x47494666u);  // "GIFf"
    EXPECT_EQ(korImage_getOSFileType(&os, 2), 0);
    EXPECT_EQ(os, 0x54504943u);  // "TPIC"
    EXPECT_EQ(korImage_getOSFileType(nullptr, 2), IMGERR_BADARG);
    EXPECT_EQ(korImage_getOSFileType(&os, 42), IMGERR_BADARG);
}

TEST(Registry, ExtensionMappingFoldsCaseAndSkipsRowZero) {
    EXPECT_EQ(korImage_typeFromExtension("/a/b/MAP.TIF"), 3);
    EXPECT_EQ(korImage_fileNameType("/a/b/MAP.TIF"), 3);
    EXPECT_EQ(korImage_typeFromExtension("map.tiff"), IMGERR_BADARG);
    EXPECT_EQ(korImage_fileNameType("map.tiff"), 0);
    EXPECT_EQ(korImage_typeFromExtension("README"), IMGERR_BADARG);
    EXPECT_EQ(korImage_fileNameType("README"), 0);
    EXPECT_EQ(korImage_typeFromExtension("x.Bmp"), 9);
    EXPECT_EQ(korImage_typeFromExtension("x.jpg"), 18);
    EXPECT_EQ(korImage_typeFromExtension("x.jpeg"), IMGERR_BADARG);
    EXPECT_EQ(korImage_typeFromExtension("x.jp2"), 41);
    // Quick mapping: only its seven names.
    EXPECT_EQ(korImage_fileNameType("x.rgb"), 1);
    EXPECT_EQ(korImage_fileNameType("x.tga"), 2);
    EXPECT_EQ(korImage_fileNameType("x.pct"), 4);
    EXPECT_EQ(korImage_fileNameType("x.pcx"), 5);
    EXPECT_EQ(korImage_fileNameType("x.gif"), 7);
    EXPECT_EQ(korImage_fileNameType("x.Rs"), 10);
    EXPECT_EQ(korImage_fileNameType("x.bmp"), 0);
    // Shared Intergraph extensions fall back to the row's type when the
    // header cannot be read (here: there is no such file).
    EXPECT_EQ(korImage_typeFromExtension("/nonexistent/x.rle"), 13);
    EXPECT_EQ(korImage_typeFromExtension("/nonexistent/x.COT"), 17);
}

TEST(Registry, DetectionFromContentsFollowsTheImportOrder) {
    iltest::TempDir d;
    // A PNG named .tga is PNG by contents.
    ASSERT_TRUE(iltest::writeFile(d.file("really-png.tga"), kPngStart));
    EXPECT_EQ(korImage_typeFromFile(d.file("really-png.tga").c_str()), 28);
    EXPECT_EQ(korImage_fileType(-1, d.file("really-png.tga").c_str()), 28);
    // A Targa file is never found from its contents.
    ASSERT_TRUE(iltest::writeFile(d.file("pic.dat"), kTarga));
    EXPECT_EQ(korImage_typeFromFile(d.file("pic.dat").c_str()), IMGERR_UNKNOWNTYPE);
    EXPECT_EQ(korImage_typeFromExtension(d.file("pic.dat").c_str()), IMGERR_BADARG);
    EXPECT_EQ(korImage_fileType(-1, d.file("pic.dat").c_str()), IMGERR_BADARG);
    ASSERT_TRUE(iltest::writeFile(d.file("pic.tga"), kTarga));
    EXPECT_EQ(korImage_fileType(-1, d.file("pic.tga").c_str()), 2);
    // An explicit type is returned as given, even for a missing file.
    EXPECT_EQ(korImage_fileType(9, "/nonexistent/file"), 9);
    EXPECT_EQ(korImage_typeFromFile("/nonexistent/file"), IMGERR_OPENFAILED);
    // TIFF byte orders; GeoTIFF is never found from the contents.
    ASSERT_TRUE(iltest::writeFile(d.file("le.bin"), std::string("II*\0", 4)));
    ASSERT_TRUE(iltest::writeFile(d.file("be.bin"), std::string("MM\0*", 4)));
    EXPECT_EQ(korImage_typeFromFile(d.file("le.bin").c_str()), 3);
    EXPECT_EQ(korImage_typeFromFile(d.file("be.bin").c_str()), 3);
    // Animation magic numbers.
    ASSERT_TRUE(iltest::writeFile(d.file("a.bin"), flicHeader(0xAF11)));
    ASSERT_TRUE(iltest::writeFile(d.file("c.bin"), flicHeader(0xAF12)));
    EXPECT_EQ(korImage_typeFromFile(d.file("a.bin").c_str()), 14);
    EXPECT_EQ(korImage_typeFromFile(d.file("c.bin").c_str()), 15);
    // Short and empty files pass every detector and are unknown.
    ASSERT_TRUE(iltest::writeFile(d.file("empty.bin"), std::vector<uint8_t>{}));
    ASSERT_TRUE(iltest::writeFile(d.file("one.bin"), std::vector<uint8_t>{'I'}));
    EXPECT_EQ(korImage_typeFromFile(d.file("empty.bin").c_str()), IMGERR_UNKNOWNTYPE);
    EXPECT_EQ(korImage_typeFromFile(d.file("one.bin").c_str()), IMGERR_UNKNOWNTYPE);
}

TEST(Registry, DetectorsAnswerWithTheirOwnStatuses) {
    using namespace il::registry;
    iltest::TempDir d;
    ASSERT_TRUE(iltest::writeFile(d.file("a.bin"), flicHeader(0xAF11)));
    ASSERT_TRUE(iltest::writeFile(d.file("short.bin"), std::vector<uint8_t>{0x89, 'P'}));
    auto detector = [](int index) { return kImportList[index].detector; };
    ASSERT_EQ(kImportList[2].type, 15);
    EXPECT_EQ(detector(2)(d.file("a.bin").c_str(), 15), IMGERR_UNSUPPORTEDTYPE);  // the other magic
    ASSERT_EQ(kImportList[3].type, 28);
    EXPECT_EQ(detector(3)(d.file("short.bin").c_str(), 28), IMGERR_READFAILED);
    EXPECT_EQ(detector(3)(d.file("a.bin").c_str(), 28), IMGERR_BADFILE);
    EXPECT_EQ(detector(3)(d.file("missing").c_str(), 28), IMGERR_OPENFAILED);
    // Fixed order and end row.
    const int order[] = {22, 14, 15, 28, 11, 12, 16, 19, 17, 1, 13, 20, 23, 18, 5, 27, 24, 10, 2, 3, 29, 9, -1};
    for (int i = 0; i < kImportRows; ++i) EXPECT_EQ(kImportList[i].type, order[i]) << i;
    for (int t : {22, 5, 27, 24, 10, 2, 9}) {
        for (const ImportRow& r : kImportList) {
            if (r.type != t) continue;
            EXPECT_EQ(r.detector, nullptr) << t;
        }
    }
}

TEST(Registry, ListQueriesUseTheCatalogue) {
    char name[IMAGELIB_TEXT_MAX];
    int type = 0;
    ASSERT_EQ(korImage_getImportFormat(name, &type, 22), 0);
    EXPECT_EQ(type, -1);
    EXPECT_GT(std::strlen(name), 0u);
    EXPECT_EQ(korImage_getImportFormat(name, &type, 23), IMGERR_BADARG);
    EXPECT_EQ(korImage_getImportFormat(name, &type, -1), IMGERR_BADARG);
    ASSERT_EQ(korImage_getImportFormat(name, &type, 3), 0);
    EXPECT_EQ(type, 28);
    const int exportOrder[] = {22, 14, 15, 11, 12, 19, 17, 1, 13, 18, 5, 4, 28, 6, 10, 2, 3, 29, 9, 26, 8, 39};
    for (int i = 0; i < 22; ++i) {
        ASSERT_EQ(korImage_getExportFormat(name, &type, i), 0) << i;
        EXPECT_EQ(type, exportOrder[i]);
    }
    EXPECT_EQ(korImage_getExportFormat(name, &type, 22), IMGERR_BADARG);
}

TEST(Registry, ExportSupportTable) {
    int m, rgb, p256, p16, grey, bi;
    ASSERT_EQ(korImage_getExportSupport(&m, &rgb, &p256, &p16, &grey, &bi, 29), 0);
    EXPECT_EQ(m, 3);
    EXPECT_EQ(bi, 1);
    ASSERT_EQ(korImage_getExportSupport(&m, &rgb, &p256, &p16, &grey, &bi, 9), 0);
    EXPECT_EQ(m, 1);
    EXPECT_EQ(p16, 1);
    EXPECT_EQ(bi, 0);
    ASSERT_EQ(korImage_getExportSupport(&m, &rgb, &p256, &p16, &grey, &bi, 10), 0);
    EXPECT_EQ(m, 3);
    EXPECT_EQ(rgb, 0);
    EXPECT_EQ(p16, 0);
    EXPECT_EQ(grey, 1);
    ASSERT_EQ(korImage_getExportSupport(&m, nullptr, nullptr, nullptr, &grey, nullptr, 17), 0);
    EXPECT_EQ(m, 4);
    ASSERT_EQ(korImage_getExportSupport(&m, nullptr, nullptr, nullptr, nullptr, &bi, 22), 0);
    EXPECT_EQ(m, 5);
    EXPECT_EQ(bi, 1);
    m = 77;
    EXPECT_EQ(korImage_getExportSupport(&m, &rgb, &p256, &p16, &grey, &bi, 7), IMGERR_BADARG);  // GIF
    EXPECT_EQ(korImage_getExportSupport(&m, &rgb, &p256, &p16, &grey, &bi, 40), IMGERR_BADARG);
    EXPECT_EQ(korImage_getExportSupport(&m, &rgb, &p256, &p16, &grey, &bi, -1), IMGERR_BADARG);
    EXPECT_EQ(m, 77);
    for (int t = -1; t <= 42; ++t) {
        bool alpha = t == 0 || t == 2 || t == 3 || t == 28 || t == 29;
        EXPECT_EQ(korImage_alphaExportSupported(t), alpha ? 1 : 0) << t;
    }
}

}  // namespace
