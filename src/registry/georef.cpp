// The georeference update: which codec rewrites the georeference of which
// file type.
#include "codecs/libs/geotiff.h"
#include "codecs/libs/tiff.h"
#include "imagelib/geo.h"
#include "imagelib/registry.h"

extern "C" int korImage_updateGeoReference(const double* origin, const double* extent, const char* path,
                                           int addIfAbsent) noexcept {
    if (!origin || !extent) return IMGERR_BADARG;
    int type = korImage_fileType(-1, path);
    if (type == 3 && tiff_detect(path, 29) == 0) type = 29;
    switch (type) {
        case 13: case 17: case 19: case 20: case 23: case 25:
            // Intergraph rasters keep their georeference in the header's
            // transformation matrix.
            return korImage_updateIngrAttach(origin, extent, path);
        case 29: return tiff_updateGeoReference(origin, extent, path, 29);
        case 3:
            if (!addIfAbsent) return IMGERR_BADIMAGEFORMAT;
            return tiff_updateGeoReference(origin, extent, path, 3);
        default: return IMGERR_BADIMAGEFORMAT;
    }
}
