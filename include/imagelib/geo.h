/* imagelib: resampling, rotation, mirroring, orientation, sub-images, polygon fills. */
#ifndef IMAGELIB_GEO_H
#define IMAGELIB_GEO_H

#include "types.h"

IMAGELIB_EXTERN_C_BEGIN

/* ==== resample: resampling ==== */
/* (end of resample) */

/* ==== rotate: quarter-turn rotation, mirroring and orientation ==== */
/* (end of rotate) */

/* ==== subimage: sub-image extraction ==== */
/* (end of subimage) */

/* ==== polygon: polygon fills ==== */
/* (end of polygon) */

IMAGELIB_EXTERN_C_END

#endif
