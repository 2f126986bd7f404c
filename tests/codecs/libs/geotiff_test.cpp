// GeoTIFF: the type-29 check, the lower-left origin rules of the transform
// reader and the georeference update, on files made with libgeotiff.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "codecs/libs/geotiff.h"
#include "codecs/libs/tiff.h"
#include "imagelib/imagelib.h"
#include "test_support.h"

#include <geotiff/geotiff.h>
#include <geotiff/geo_tiffp.h>
#include <geotiff/geovalues.h>
#include <geotiff/xtiffio.h>
#include <tiffio.h>

namespace {

// A 2 x 4 grey GeoTIFF; `geo` sets its georeference tags and keys.
void makeGeo(const std::string& path, const std::function<void(TIFF*, GTIF*)>& geo) {
    TIFF* t = XTIFFOpen(path.c_str(), "w");
    ASSERT_NE(t, nullptr);
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, 2u);
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, 4u);
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, 4u);
    GTIF* g = GTIFNew(t);
    geo(t, g);
    GTIFWriteKeys(g);
    GTIFFree(g);
    uint8_t row[2] = {1, 2};
    for (uint32_t y = 0; y < 4; ++y) TIFFWriteScanline(t, row, y, 0);
    XTIFFClose(t);
}

auto model(int type) {
    return [type](GTIF* g) { GTIFKeySet(g, GTModelTypeGeoKey, TYPE_SHORT, 1, type); };
}

auto scaleAndTie(int type, bool tie = true) {
    return [type, tie](TIFF* t, GTIF* g) {
        model(type)(g);
        double scale[3] = {2, 3, 0}, tiept[6] = {0, 0, 0, 100, 200, 0};
        TIFFSetField(t, TIFFTAG_GEOPIXELSCALE, 3, scale);
        if (tie) TIFFSetField(t, TIFFTAG_GEOTIEPOINTS, 6, tiept);
    };
}

auto matrix(double m5) {
    return [m5](TIFF* t, GTIF* g) {
        model(ModelTypeProjected)(g);
        double m[16] = {2, 0, 0, 10, 0, m5, 0, 50, 0, 0, 1, 0, 0, 0, 0, 1};
        TIFFSetField(t, TIFFTAG_GEOTRANSMATRIX, 16, m);
    };
}

std::vector<double> transformOf(const std::string& path, int* status = nullptr) {
    std::vector<double> m(12, -1);
    int st = korImage_readGeoTiffInfo(m.data(), path.c_str());
    if (status) *status = st;
    return m;
}

class GeoTiff : public ::testing::Test {
protected:
    iltest::TempDir dir;
    std::string path = dir.file("g.tif");
};

TEST_F(GeoTiff, PixelScaleAndTiePointMoveTheOriginDown) {
    makeGeo(path, scaleAndTie(ModelTypeProjected));
    EXPECT_EQ(tiff_detect(path.c_str(), 29), 0);
    TiffInfo info{};
    ASSERT_EQ(tiff_readFileInfo(&info, path.c_str()), 0);
    EXPECT_EQ(info.type, 29);
    const std::vector<double> m = transformOf(path);
    EXPECT_EQ(m, (std::vector<double>{2, 0, 0, 100, 0, 3, 0, 200 - 4 * 3, 0, 0, 0, 0}));
    // Private lower-left model types keep the tie point's y.
    makeGeo(path, scaleAndTie(kGeoModelLowerLeftA));
    EXPECT_DOUBLE_EQ(transformOf(path)[7], 200);
}

TEST_F(GeoTiff, TransformMatrixRules) {
    makeGeo(path, matrix(-3));  // y grows downwards from the top-left: kept
    EXPECT_EQ(transformOf(path), (std::vector<double>{2, 0, 0, 10, 0, -3, 0, 50, 0, 0, 1, 0}));
    makeGeo(path, matrix(3));  // y grows upwards from the top: origin moved down
    EXPECT_DOUBLE_EQ(transformOf(path)[7], 50 - 4 * 3);
    makeGeo(path, [](TIFF* t, GTIF* g) {
        matrix(3)(t, g);
        model(kGeoModelLowerLeftB)(g);
    });
    std::vector<double> m = transformOf(path);
    EXPECT_DOUBLE_EQ(m[5], -3);
    EXPECT_DOUBLE_EQ(m[7], 50 + 4 * 3);
}

TEST_F(GeoTiff, RefusedDirectoriesLeaveTheTransform) {
    makeGeo(path, scaleAndTie(ModelTypeProjected, false));  // no tie point
    EXPECT_EQ(tiff_detect(path.c_str(), 29), IMGERR_BADFILE);
    int st = -1;
    EXPECT_EQ(transformOf(path, &st), std::vector<double>(12, -1));
    EXPECT_EQ(st, 0);
    EXPECT_EQ(tiff_lastMessageCode(), kTiffMsgGeoTiepoint);
    // A key directory of version 2.
    TIFF* t = XTIFFOpen(path.c_str(), "w");
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, 1u);
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, 1u);
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    uint16_t keys[8] = {2, 1, 0, 1, GTModelTypeGeoKey, 0, 1, ModelTypeProjected};
    TIFFSetField(t, TIFFTAG_GEOKEYDIRECTORY, 8, keys);
    double m[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    TIFFSetField(t, TIFFTAG_GEOTRANSMATRIX, 16, m);
    uint8_t px = 0;
    TIFFWriteScanline(t, &px, 0, 0);
    XTIFFClose(t);
    EXPECT_EQ(tiff_detect(path.c_str(), 29), IMGERR_GEOKEYVERSION);
    EXPECT_EQ(tiff_detect(path.c_str(), 3), 0);
    EXPECT_EQ(transformOf(path, &st), std::vector<double>(12, -1));
    EXPECT_EQ(tiff_lastMessageCode(), kTiffMsgGeoVersion);
    TiffInfo info{};
    ASSERT_EQ(tiff_readFileInfo(&info, path.c_str()), 0);
    EXPECT_EQ(info.type, 3);
    const double origin[3] = {0, 0, 0}, extent[2] = {1, 1};
    EXPECT_EQ(tiff_updateGeoReference(origin, extent, path.c_str(), 29), IMGERR_GEOKEYVERSION);
}

TEST_F(GeoTiff, UpdateAddsAndRewrites) {
    const double origin[3] = {1000, 2000, 5}, extent[2] = {20, 40};
    // A plain TIFF gains model type 63555 and a transform.
    makeGeo(path, [](TIFF*, GTIF*) {});
    ASSERT_EQ(tiff_updateGeoReference(origin, extent, path.c_str(), 3), 0);
    EXPECT_EQ(tiff_detect(path.c_str(), 29), 0);
    TIFF* t = XTIFFOpen(path.c_str(), "r");
    EXPECT_EQ(TIFFNumberOfDirectories(t), 1);
    GTIF* g = GTIFNew(t);
    unsigned short type = 0;
    GTIFKeyGet(g, GTModelTypeGeoKey, &type, 0, 1);
    EXPECT_EQ(type, kGeoModelAdded);
    GTIFFree(g);
    XTIFFClose(t);
    // Read back with its origin at the lower left again.
    EXPECT_EQ(transformOf(path), (std::vector<double>{10, 0, 0, 1000, 0, 10, 0, 2000, 0, 0, 1, 5}));
    // Pixel scale and tie point are rewritten as such.
    makeGeo(path, scaleAndTie(ModelTypeProjected));
    ASSERT_EQ(tiff_updateGeoReference(origin, extent, path.c_str(), 29), 0);
    const std::vector<double> m = transformOf(path);
    EXPECT_DOUBLE_EQ(m[0], 10);
    EXPECT_DOUBLE_EQ(m[3], 1000);
    EXPECT_DOUBLE_EQ(m[7], 2040 - 4 * 10);
    // The pixels survive the directory rewrite.
    uint8_t* rgb = nullptr;
    ImageSize s{};
    ASSERT_EQ(tiff_readFileToRGBSeparate(&rgb, &s, path.c_str(), 0, nullptr), 0);
    EXPECT_EQ(rgb[1], 2);
    korImage_freeImage(rgb, &s, IMAGEFORMAT_RGB);
}

}  // namespace
