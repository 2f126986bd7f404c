/* imagelib: row packing, run-length and PackByte rows, colour mapping, grey levels, dithering, palettes. */
#ifndef IMAGELIB_PIXELS_H
#define IMAGELIB_PIXELS_H

#include "types.h"

IMAGELIB_EXTERN_C_BEGIN

/* ==== rows: row packing, run-length bitmap rows, PackByte rows, bitmap utilities ==== */
/* (end of rows) */

/* ==== colour: colour mapping, layout conversions, gamma and grey levels ==== */
/* (end of colour) */

/* ==== dither: error-diffusion and ordered dithering ==== */
/* (end of dither) */

/* ==== palette: median-cut palette optimisation and palette utilities ==== */
/* (end of palette) */

IMAGELIB_EXTERN_C_END

#endif
