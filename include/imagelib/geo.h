/* imagelib: resampling, rotation, mirroring, orientation, sub-images, polygon fills. */
#ifndef IMAGELIB_GEO_H
#define IMAGELIB_GEO_H

#include "types.h"

IMAGELIB_EXTERN_C_BEGIN

IMAGELIB_EXTERN_C_END

#endif
