// GeoTIFF key directories read and written over libtiff, checked against
// libgeotiff on directories of every shape: which ones are usable, the
// model type found in them, and the directory written back when a
// georeference is added.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "codecs/libs/geotiff.h"
#include "codecs/libs/tiff.h"
#include "imagelib/imagelib.h"
#include "test_support.h"

#include <geotiff/geotiff.h>
#include <geotiff/geo_tiffp.h>
#include <geotiff/xtiffio.h>
#include <tiffio.h>

namespace {

void silent(GTIF*, int, const char*, ...) {}
GTIF* keysOf(TIFF* t) { return GTIFNewEx(t, silent, nullptr); }

struct Dir {
    const char* name;
    std::vector<uint16_t> keys;
    std::vector<double> doubles;
    const char* ascii;
};

// Model type 63554 keeps the origin where the matrix puts it, so the
// transform read back tells which model value was found.
const std::vector<Dir> kDirs = {
    {"model", {1, 1, 0, 1, 1024, 0, 1, 63554}, {}, nullptr},
    {"params", {1, 1, 0, 4, 1024, 0, 1, 2, 2049, 34737, 7, 0, 2057, 34736, 2, 0, 3073, 34735, 2, 20, 7, 8},
     {6378137, 298.25}, "WGS 84|"},
    {"version 0", {0, 1, 0, 1, 1024, 0, 1, 1}, {}, nullptr},
    {"version 2", {2, 1, 0, 1, 1024, 0, 1, 1}, {}, nullptr},
    {"no model", {1, 1, 0, 1, 1025, 0, 1, 2}, {}, nullptr},
    {"unsorted", {1, 1, 0, 2, 3072, 0, 1, 5, 1024, 0, 1, 63554}, {}, nullptr},
    {"duplicate", {1, 1, 0, 2, 1024, 0, 1, 63554, 1024, 0, 1, 1}, {}, nullptr},
    {"count past the tag", {1, 1, 0, 2, 1024, 0, 1, 1}, {}, nullptr},
    {"in-entry count 2", {1, 1, 0, 1, 1024, 0, 2, 1}, {}, nullptr},
    {"in-entry count 0", {1, 1, 0, 2, 1024, 0, 1, 1, 2048, 0, 0, 1}, {}, nullptr},
    {"shorts past the tag", {1, 1, 0, 2, 1024, 0, 1, 1, 3073, 34735, 2, 13, 7, 8}, {}, nullptr},
    {"doubles past the tag", {1, 1, 0, 2, 1024, 0, 1, 1, 2057, 34736, 2, 1}, {1, 2}, nullptr},
    {"doubles without tag", {1, 1, 0, 2, 1024, 0, 1, 1, 2057, 34736, 1, 0}, {}, nullptr},
    {"model among doubles", {1, 1, 0, 1, 1024, 34736, 1, 0}, {3}, nullptr},
    {"model as text", {1, 1, 0, 1, 1024, 34737, 3, 0}, {}, "ab|"},
    {"text one past", {1, 1, 0, 2, 1024, 0, 1, 1, 2049, 34737, 3, 0}, {}, "ab"},
    {"text from inside", {1, 1, 0, 2, 1024, 0, 1, 1, 2049, 34737, 5, 1}, {}, "abc"},
    {"text past", {1, 1, 0, 2, 1024, 0, 1, 1, 2049, 34737, 2, 4}, {}, "abc"},
    {"text without tag", {1, 1, 0, 2, 1024, 0, 1, 1, 2049, 34737, 2, 0}, {}, nullptr},
    {"unknown location", {1, 1, 0, 1, 1024, 33550, 1, 0}, {}, nullptr},
    {"too many keys", {1, 1, 0, 300, 1024, 0, 1, 1}, {}, nullptr},
};

void write(const std::string& path, const Dir& d, bool matrix) {
    TIFF* t = XTIFFOpen(path.c_str(), "w");
    ASSERT_NE(t, nullptr);
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, 2u);
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, 3u);
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    if (!d.keys.empty()) TIFFSetField(t, TIFFTAG_GEOKEYDIRECTORY, int(d.keys.size()), d.keys.data());
    if (!d.doubles.empty()) TIFFSetField(t, TIFFTAG_GEODOUBLEPARAMS, int(d.doubles.size()), d.doubles.data());
    if (d.ascii) TIFFSetField(t, TIFFTAG_GEOASCIIPARAMS, d.ascii);
    double m[16] = {1, 0, 0, 5, 0, 2, 0, 7, 0, 0, 1, 0, 0, 0, 0, 1};
    if (matrix) TIFFSetField(t, TIFFTAG_GEOTRANSMATRIX, 16, m);
    uint8_t row[2] = {1, 2};
    for (uint32_t y = 0; y < 3; ++y) TIFFWriteScanline(t, row, y, 0);
    XTIFFClose(t);
}

// libgeotiff's verdict: 0 with the model type, or our status for the file.
int libgeotiffCheck(const std::string& path, int* model) {
    TIFF* t = XTIFFOpen(path.c_str(), "r");
    GTIF* g = keysOf(t);
    int st = 0;
    if (!g) {
        uint16_t n = 0;
        uint16_t* k = nullptr;
        st = TIFFGetField(t, TIFFTAG_GEOKEYDIRECTORY, &n, &k) && n >= 4 && k[0] >= 2 ? IMGERR_GEOKEYVERSION
                                                                                       : IMGERR_NOMEMORY;
    } else {
        union {
            double room[8];  // a double key is copied whole
            unsigned short value;
        } v{};
        if (GTIFKeyGet(g, GTModelTypeGeoKey, &v.value, 0, 1) != 1) st = IMGERR_BADFILE;
        *model = v.value;
        GTIFFree(g);
    }
    XTIFFClose(t);
    return st;
}

class GeoKeys : public ::testing::Test {
protected:
    iltest::TempDir dir;
    std::string path = dir.file("k.tif");
};

TEST_F(GeoKeys, DirectoriesReadAsLibgeotiffReadsThem) {
    for (const Dir& d : kDirs) {
        SCOPED_TRACE(d.name);
        write(path, d, true);
        int model = -1;
        const int expected = libgeotiffCheck(path, &model);
        EXPECT_EQ(tiff_detect(path.c_str(), 29), expected);
        TiffInfo info{};
        ASSERT_EQ(tiff_readFileInfo(&info, path.c_str()), 0);
        EXPECT_EQ(info.type, expected == 0 || expected == IMGERR_BADFILE ? 29 : 3);
        if (expected != 0) continue;
        std::vector<double> m(12);
        ASSERT_EQ(korImage_readGeoTiffInfo(m.data(), path.c_str()), 0);
        EXPECT_EQ(m[7], model == kGeoModelLowerLeftA ? 7 + 3 * 2 : 7 - 3 * 2);
    }
}

TEST_F(GeoKeys, AddedModelTypeWritesWhatLibgeotiffWrote) {
    const double origin[3] = {100, 200, 3}, extent[2] = {20, 30};
    const std::string ref = dir.file("ref.tif");
    for (const Dir& d : kDirs) {
        SCOPED_TRACE(d.name);
        write(path, d, false);
        int model = 0;
        const int usable = libgeotiffCheck(path, &model);
        if (usable == IMGERR_GEOKEYVERSION || usable == IMGERR_NOMEMORY) {
            EXPECT_EQ(tiff_updateGeoReference(origin, extent, path.c_str(), 3), IMGERR_NOMEMORY);
            continue;
        }
        ASSERT_EQ(tiff_updateGeoReference(origin, extent, path.c_str(), 3), 0);
        EXPECT_EQ(tiff_detect(path.c_str(), 29), 0);
        // The same update through libgeotiff. It repacked text parameters
        // that did not end where their entry said (those files differ in the
        // text), and leaks the text of a key it turns into a short.
        if (std::strncmp(d.name, "text", 4) == 0 || std::strcmp(d.name, "model as text") == 0) continue;
        write(ref, d, false);
        TIFF* t = XTIFFOpen(ref.c_str(), "r+");
        GTIF* g = keysOf(t);
        double m[16] = {10, 0, 0, 100, 0, 10, 0, 230, 0, 0, 1, 3, 0, 0, 0, 1};
        GTIFKeySet(g, GTModelTypeGeoKey, TYPE_SHORT, 1, kGeoModelAdded);
        TIFFSetField(t, TIFFTAG_GEOTRANSMATRIX, 16, m);
        GTIFWriteKeys(g);
        TIFFRewriteDirectory(t);
        GTIFFree(g);
        XTIFFClose(t);
        EXPECT_EQ(iltest::readFile(path), iltest::readFile(ref));
    }
}

TEST_F(GeoKeys, ValuesKeptInTheDirectoryMoveWithTheirEntry) {
    write(path, {"", {1, 1, 0, 1, 3072, 34735, 2, 8, 7, 8}, {}, nullptr}, false);
    const double origin[3] = {0, 0, 0}, extent[2] = {1, 1};
    ASSERT_EQ(tiff_updateGeoReference(origin, extent, path.c_str(), 3), 0);
    TIFF* t = XTIFFOpen(path.c_str(), "r");
    GTIF* g = keysOf(t);
    ASSERT_NE(g, nullptr);
    unsigned short v[2] = {0, 0}, model = 0;
    EXPECT_EQ(GTIFKeyGet(g, ProjectedCSTypeGeoKey, v, 0, 2), 2);
    EXPECT_EQ(v[0], 7);
    EXPECT_EQ(v[1], 8);
    EXPECT_EQ(GTIFKeyGet(g, GTModelTypeGeoKey, &model, 0, 1), 1);
    EXPECT_EQ(model, kGeoModelAdded);
    GTIFFree(g);
    XTIFFClose(t);
}

}  // namespace
