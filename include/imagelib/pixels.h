/* imagelib: row packing, run-length and PackByte rows, colour mapping, grey levels, dithering, palettes. */
#ifndef IMAGELIB_PIXELS_H
#define IMAGELIB_PIXELS_H

#include "types.h"

IMAGELIB_EXTERN_C_BEGIN

IMAGELIB_EXTERN_C_END

#endif
