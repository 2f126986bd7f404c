/* imagelib: whole-image reading and writing, streaming rows. */
#ifndef IMAGELIB_IO_H
#define IMAGELIB_IO_H

#include "types.h"

IMAGELIB_EXTERN_C_BEGIN

/* ==== stream: streaming row access ==== */
/* (end of stream) */

/* ==== read: whole-image reading ==== */
/* (end of read) */

/* ==== write: whole-image writing ==== */
/* (end of write) */

IMAGELIB_EXTERN_C_END

#endif
