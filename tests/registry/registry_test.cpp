// The format table, detection from contents and from names, list queries
// and writer capabilities.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "imagelib/imagelib.h"
#include "registry/formats.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes flicHeader(uint16_t magic) {
    Bytes h(128, 0);
    h[4] = uint8_t(magic), h[5] = uint8_t(magic >> 8);
    return h;
}

TEST(Registry, TableRowsAreIndexedByType) {
    char ext[16];
    EXPECT_EQ(korImage_getExtension(ext, 31), 0);
    EXPECT_STREQ(ext, "itiff");
    for (int bad : {42, -1}) {
        EXPECT_EQ(korImage_getExtension(ext, bad), IMGERR_BADARG);
        EXPECT_STREQ(ext, "*");
    }
    uint32_t os = 0;
    EXPECT_EQ(korImage_getOSFileType(&os, 7), 0);
    EXPECT_EQ(os, 0x47494666u);  // "GIFf"
    EXPECT_EQ(korImage_getOSFileType(&os, 2), 0);
    EXPECT_EQ(os, 0x54504943u);  // "TPIC"
    EXPECT_EQ(korImage_getOSFileType(nullptr, 2), IMGERR_BADARG);
    EXPECT_EQ(korImage_getOSFileType(&os, 42), IMGERR_BADARG);
}

TEST(Registry, ExtensionMappingFoldsCaseAndSkipsRowZero) {
    // (name, type from the extension, type from the quick mapping of its seven names).
    const std::tuple<const char*, int, int> cases[] = {
        {"/a/b/MAP.TIF", 3, 3}, {"map.tiff", IMGERR_BADARG, 0}, {"README", IMGERR_BADARG, 0}, {"x.Bmp", 9, 0},
        {"x.jpeg", IMGERR_BADARG, 0}, {"x.jp2", 41, 0}, {"x.rgb", 1, 1}, {"x.Rs", 10, 10},
        // Shared Intergraph extensions fall back to the row's type when the
        // header cannot be read (here: there is no such file).
        {"/nonexistent/x.rle", 13, 0}, {"/nonexistent/x.COT", 17, 0}};
    for (const auto& [name, byExtension, quick] : cases) {
        EXPECT_EQ(korImage_typeFromExtension(name), byExtension) << name;
        EXPECT_EQ(korImage_fileNameType(name), quick) << name;
    }
}

TEST(Registry, DetectionFromContentsFollowsTheImportOrder) {
    iltest::TempDir d;
    auto typeOf = [&](const std::string& name, const Bytes& contents) {
        EXPECT_TRUE(iltest::writeFile(d.file(name), contents));
        return korImage_typeFromFile(d.file(name).c_str());
    };
    // A PNG named .tga is PNG by contents.
    EXPECT_EQ(typeOf("really-png.tga", {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A, 0, 0, 0, 13}), 28);
    EXPECT_EQ(korImage_fileType(-1, d.file("really-png.tga").c_str()), 28);
    // A Targa file is never found from its contents.
    const Bytes targa = {0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 1, 0, 24, 0, 1, 2, 3, 4, 5, 6};
    EXPECT_EQ(typeOf("pic.dat", targa), IMGERR_UNKNOWNTYPE);
    EXPECT_EQ(korImage_fileType(-1, d.file("pic.dat").c_str()), IMGERR_BADARG);
    EXPECT_EQ(typeOf("pic.tga", targa), IMGERR_UNKNOWNTYPE);
    EXPECT_EQ(korImage_fileType(-1, d.file("pic.tga").c_str()), 2);
    // An explicit type is returned as given, even for a missing file.
    EXPECT_EQ(korImage_fileType(9, "/nonexistent/file"), 9);
    EXPECT_EQ(korImage_typeFromFile("/nonexistent/file"), IMGERR_OPENFAILED);
    // TIFF byte orders (GeoTIFF is never found from the contents) and the
    // animation magic numbers.
    EXPECT_EQ(typeOf("le.bin", {'I', 'I', '*', 0}), 3);
    EXPECT_EQ(typeOf("be.bin", {'M', 'M', 0, '*'}), 3);
    EXPECT_EQ(typeOf("a.bin", flicHeader(0xAF11)), 14);
    EXPECT_EQ(typeOf("c.bin", flicHeader(0xAF12)), 15);
    // Short and empty files pass every detector and are unknown.
    EXPECT_EQ(typeOf("empty.bin", {}), IMGERR_UNKNOWNTYPE);
    EXPECT_EQ(typeOf("one.bin", {'I'}), IMGERR_UNKNOWNTYPE);
}

TEST(Registry, DetectorsAnswerWithTheirOwnStatuses) {
    using namespace il::registry;
    iltest::TempDir d;
    ASSERT_TRUE(iltest::writeFile(d.file("a.bin"), flicHeader(0xAF11)));
    ASSERT_TRUE(iltest::writeFile(d.file("short.bin"), Bytes{0x89, 'P'}));
    ASSERT_EQ(kImportList[2].type, 15);
    EXPECT_EQ(kImportList[2].detector(d.file("a.bin").c_str(), 15), IMGERR_UNSUPPORTEDTYPE);  // the other magic
    ASSERT_EQ(kImportList[3].type, 28);
    EXPECT_EQ(kImportList[3].detector(d.file("short.bin").c_str(), 28), IMGERR_READFAILED);
    EXPECT_EQ(kImportList[3].detector(d.file("a.bin").c_str(), 28), IMGERR_BADFILE);
    EXPECT_EQ(kImportList[3].detector(d.file("missing").c_str(), 28), IMGERR_OPENFAILED);
    // Fixed order and end row.
    const int order[] = {22, 14, 15, 28, 11, 12, 16, 19, 17, 1, 13, 20, 23, 18, 5, 27, 24, 10, 2, 3, 29, 9, -1};
    for (int i = 0; i < kImportRows; ++i) EXPECT_EQ(kImportList[i].type, order[i]) << i;
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
    // (mode, rgb, 256, 16, grey, bilevel) of a type.
    auto support = [](int type) {
        std::vector<int> v(6, -9);
        EXPECT_EQ(korImage_getExportSupport(&v[0], &v[1], &v[2], &v[3], &v[4], &v[5], type), 0) << type;
        return v;
    };
    const auto t29 = support(29), bmp = support(9), sun = support(10);
    EXPECT_EQ(std::pair(t29[0], t29[5]), std::pair(3, 1));
    EXPECT_EQ((std::vector<int>{bmp[0], bmp[3], bmp[5]}), (std::vector<int>{1, 1, 0}));
    EXPECT_EQ((std::vector<int>{sun[0], sun[1], sun[3], sun[4]}), (std::vector<int>{3, 0, 0, 1}));
    int m = 77, bi = 0;
    ASSERT_EQ(korImage_getExportSupport(&m, nullptr, nullptr, nullptr, nullptr, nullptr, 17), 0);
    EXPECT_EQ(m, 4);
    ASSERT_EQ(korImage_getExportSupport(&m, nullptr, nullptr, nullptr, nullptr, &bi, 22), 0);
    EXPECT_EQ(std::pair(m, bi), std::pair(5, 1));
    m = 77;
    for (int bad : {7, 40, -1}) EXPECT_EQ(korImage_getExportSupport(&m, &bi, &bi, &bi, &bi, &bi, bad), IMGERR_BADARG);
    EXPECT_EQ(m, 77);
    for (int t = -1; t <= 42; ++t)
        EXPECT_EQ(korImage_alphaExportSupported(t), t == 0 || t == 2 || t == 3 || t == 28 || t == 29 ? 1 : 0) << t;
}

}  // namespace
