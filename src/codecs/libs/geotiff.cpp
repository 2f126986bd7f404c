// GeoTIFF key directories and transforms through libgeotiff.
#include "codecs/libs/geotiff.h"

#include <cstdarg>
#include <cstring>
#include <memory>

#include "codecs/libs/tiff.h"
#include "imagelib/geo.h"

#include <geotiff/geotiff.h>
#include <geotiff/geokeys.h>
#include <geotiff/geo_tiffp.h>
#include <geotiff/xtiffio.h>
#include <tiffio.h>

namespace {

struct Handles {
    TIFF* tif = nullptr;
    GTIF* gtif = nullptr;
    ~Handles() {
        if (gtif) GTIFFree(gtif);
        if (tif) XTIFFClose(tif);
    }
};

// libgeotiff's complaints go through the TIFF message handler, so that the
// message flags and suppression hold for them too.
void geoError(GTIF*, int, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    tiff_messageHandler("GeoTIFF", format, ap);
    va_end(ap);
}

GTIF* geoNew(TIFF* tif) { return GTIFNewEx(tif, geoError, nullptr); }

// Messages off for the lifetime of the object.
struct Quiet {
    Quiet() { tiff_suppressMessages(0); }
    ~Quiet() { tiff_suppressMessages(1); }
};

// The version of the key directory as the file stores it (0 when absent).
int storedVersion(TIFF* tif) {
    uint16_t count = 0;
    uint16_t* keys = nullptr;
    if (!TIFFGetField(tif, TIFFTAG_GEOKEYDIRECTORY, &count, &keys) || !keys || count < 4) return 0;
    return keys[0];
}

// Doubles of a GeoTIFF tag, with their count (0 when absent).
int doubles(TIFF* tif, ttag_t tag, double** values) {
    uint16_t count = 0;
    *values = nullptr;
    if (!TIFFGetField(tif, tag, &count, values) || !*values) return 0;
    return count;
}

// Opens the file and its key directory and runs the version and model-type
// checks. With report set, the failures issue their messages. On success
// *model holds GTModelTypeGeoKey.
int openKeys(Handles& h, const char* path, const char* mode, bool report, int* model) {
    h.tif = path ? XTIFFOpen(path, mode) : nullptr;
    if (!h.tif) return IMGERR_OPENFAILED;
    h.gtif = geoNew(h.tif);
    if (!h.gtif) {
        int v = storedVersion(h.tif);
        if (v >= 2) {
            if (report) tiff_issueMessage(kTiffMsgGeoVersion, v, 0, 0);
            return IMGERR_GEOKEYVERSION;
        }
        return IMGERR_NOMEMORY;
    }
    int versions[3] = {0, 0, 0}, keys = 0;
    GTIFDirectoryInfo(h.gtif, versions, &keys);
    if (versions[0] >= 2) {
        if (report) tiff_issueMessage(kTiffMsgGeoVersion, versions[0], versions[1], versions[2]);
        return IMGERR_GEOKEYVERSION;
    }
    unsigned short value = 0;
    if (GTIFKeyGet(h.gtif, GTModelTypeGeoKey, &value, 0, 1) != 1) {
        if (report) tiff_issueMessage(kTiffMsgGeoModel);
        return IMGERR_BADFILE;
    }
    *model = value;
    return 0;
}

bool lowerLeftModel(int model) { return model == kGeoModelLowerLeftA || model == kGeoModelLowerLeftB; }

}  // namespace

int tiff_geoTiffCheck(const char* path) noexcept {
    Quiet quiet;
    Handles h;
    int model = 0;
    if (int st = openKeys(h, path, "r", false, &model)) return st;
    double* v = nullptr;
    if (doubles(h.tif, TIFFTAG_GEOTRANSMATRIX, &v) >= 12) return 0;
    if (doubles(h.tif, TIFFTAG_GEOPIXELSCALE, &v) >= 3 && doubles(h.tif, TIFFTAG_GEOTIEPOINTS, &v) >= 6) return 0;
    return IMGERR_BADFILE;
}

bool tiff_hasGeoKeys(TIFF* tif) noexcept {
    uint16_t count = 0;
    uint16_t* keys = nullptr;
    if (!TIFFGetField(tif, TIFFTAG_GEOKEYDIRECTORY, &count, &keys) || !keys || count < 4) return false;
    GTIF* g = geoNew(tif);
    if (!g) return false;
    GTIFFree(g);
    return true;
}

extern "C" int korImage_readGeoTiffInfo(double* transform, const char* path) noexcept {
    tiff_installHandlers();
    if (!transform) return IMGERR_BADARG;
    Handles h;
    h.tif = path ? XTIFFOpen(path, "r") : nullptr;
    if (!h.tif) return IMGERR_OPENFAILED;
    uint32_t width = 0, height = 0;
    if (!TIFFGetField(h.tif, TIFFTAG_IMAGEWIDTH, &width) || !TIFFGetField(h.tif, TIFFTAG_IMAGELENGTH, &height))
        return IMGERR_BADFILE;
    XTIFFClose(h.tif);
    h.tif = nullptr;
    int model = 0;
    if (openKeys(h, path, "r", true, &model) != 0) return 0;

    double m[12];
    double *matrix = nullptr, *scale = nullptr, *tie = nullptr;
    const int nMatrix = doubles(h.tif, TIFFTAG_GEOTRANSMATRIX, &matrix);
    const int nScale = doubles(h.tif, TIFFTAG_GEOPIXELSCALE, &scale);
    const int nTie = doubles(h.tif, TIFFTAG_GEOTIEPOINTS, &tie);
    const double rows = double(height);
    if (nMatrix >= 12) {
        std::memcpy(m, matrix, sizeof m);
        if (nScale >= 3 || lowerLeftModel(model)) {
            m[7] = m[7] + rows * m[5];
            m[5] = -m[5];
        } else if (m[5] > 0) {
            m[7] = m[7] - rows * m[5];
        }
        std::memcpy(transform, m, sizeof m);
    } else if (nScale >= 3 && nTie >= 6) {
        const double sx = scale[0], sy = scale[1], sz = scale[2];
        const double i = tie[0], j = tie[1], k = tie[2], x = tie[3], y = tie[4], z = tie[5];
        std::memset(m, 0, sizeof m);
        m[0] = sx;
        m[5] = sy;
        m[10] = sz;
        // The divisions by the scale are the rule of the files this
        // library has always read and written.
        m[3] = x - i / sx;
        m[7] = lowerLeftModel(model) ? y - j / sy : y - j / sy - rows * sy;
        m[11] = k == 0 ? 0 : z - k / sz;
        std::memcpy(transform, m, sizeof m);
    } else if (nScale >= 3) {
        tiff_issueMessage(kTiffMsgGeoTiepoint);
    }
    return 0;
}

int tiff_updateGeoReference(const double* origin, const double* extent, const char* path, int type) noexcept {
    tiff_installHandlers();
    if (!origin || !extent) return IMGERR_BADARG;
    Handles h;
    h.tif = path ? XTIFFOpen(path, "r+") : nullptr;
    if (!h.tif) return IMGERR_OPENFAILED;
    uint32_t width = 0, height = 0;
    if (!TIFFGetField(h.tif, TIFFTAG_IMAGEWIDTH, &width) || !TIFFGetField(h.tif, TIFFTAG_IMAGELENGTH, &height) ||
        width == 0 || height == 0) {
        tiff_issueMessage(kTiffMsgSize);
        return IMGERR_BADFILE;
    }
    double m[16] = {};
    m[0] = extent[0] / width;
    m[3] = origin[0];
    m[5] = extent[1] / height;
    m[7] = origin[1] + extent[1];
    m[10] = 1.0;
    m[11] = origin[2];
    m[15] = 1.0;

    if (type == 29) {
        XTIFFClose(h.tif);
        h.tif = nullptr;
        int model = 0;
        if (int st = openKeys(h, path, "r+", true, &model)) return st;
        double* v = nullptr;
        if (doubles(h.tif, TIFFTAG_GEOTRANSMATRIX, &v) >= 12) {
            TIFFSetField(h.tif, TIFFTAG_GEOTRANSMATRIX, 16, m);
        } else if (doubles(h.tif, TIFFTAG_GEOPIXELSCALE, &v) >= 1) {
            if (doubles(h.tif, TIFFTAG_GEOTIEPOINTS, &v) < 1) {
                tiff_issueMessage(kTiffMsgGeoTiepoint);
                return 0;
            }
            double scale[3] = {m[0], m[5], 0};
            double tie[6] = {0, 0, 0, origin[0], origin[1] + extent[1], origin[2]};
            TIFFSetField(h.tif, TIFFTAG_GEOPIXELSCALE, 3, scale);
            TIFFSetField(h.tif, TIFFTAG_GEOTIEPOINTS, 6, tie);
        } else {
            TIFFSetField(h.tif, TIFFTAG_GEOTRANSMATRIX, 16, m);
        }
    } else {
        h.gtif = geoNew(h.tif);
        if (!h.gtif) return IMGERR_NOMEMORY;
        GTIFKeySet(h.gtif, GTModelTypeGeoKey, TYPE_SHORT, 1, kGeoModelAdded);
        TIFFSetField(h.tif, TIFFTAG_GEOTRANSMATRIX, 16, m);
    }
    if (!GTIFWriteKeys(h.gtif)) return IMGERR_WRITEFAILED;
    // The directory is rewritten in place of the old one, so that the file
    // keeps a single image directory.
    if (!TIFFRewriteDirectory(h.tif)) return IMGERR_WRITEFAILED;
    return 0;
}
