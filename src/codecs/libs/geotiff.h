// GeoTIFF georeference over libtiff: the type-29 check of the
// detector, the key-directory test of the file information, the transform
// reader and the georeference update of TIFF and GeoTIFF files.
//
// The transform exchanged with callers is the first three rows of the 4 x 4
// ModelTransformation matrix, row-major (12 doubles), with the origin moved
// to the lower left of the raster.
#pragma once

#include "imagelib/types.h"

struct tiff;

// Private GTModelTypeGeoKey values: files whose transform already has its
// origin at the lower left, and the value written when a georeference is
// added to a plain TIFF file.
constexpr int kGeoModelLowerLeftA = 63554;
constexpr int kGeoModelLowerLeftB = 63502;
constexpr int kGeoModelAdded = 63555;

// The GeoTIFF check (messages suppressed throughout): 0 when the file has a
// key directory of version 1 with a model type and a transform (or a pixel
// scale and a tie point); IMGERR_OPENFAILED, IMGERR_NOMEMORY,
// IMGERR_GEOKEYVERSION or IMGERR_BADFILE otherwise.
int tiff_geoTiffCheck(const char* path) noexcept;

// TIFFOpen with the GeoTIFF tags known to libtiff (their values are then
// read and written as counted arrays).
struct tiff* tiff_geoOpen(const char* path, const char* mode) noexcept;

// True when the open file carries a usable GeoTIFF key directory.
bool tiff_hasGeoKeys(struct tiff* tif) noexcept;

// The georeference update of a type 3 or 29 file (the type already
// resolved): rewrites the transform, or the pixel scale and tie point, of a
// GeoTIFF; adds a transform and model type 63555 to a plain TIFF.
int tiff_updateGeoReference(const double* origin, const double* extent, const char* path, int type) noexcept;
