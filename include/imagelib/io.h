/* imagelib: whole-image reading and writing, streaming rows. */
#ifndef IMAGELIB_IO_H
#define IMAGELIB_IO_H

#include "types.h"

IMAGELIB_EXTERN_C_BEGIN

IMAGELIB_EXTERN_C_END

#endif
