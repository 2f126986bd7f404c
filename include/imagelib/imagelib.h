/* imagelib: the whole public interface. */
#ifndef IMAGELIB_IMAGELIB_H
#define IMAGELIB_IMAGELIB_H

#include "types.h"
#include "host.h"
#include "registry.h"
#include "pixels.h"
#include "geo.h"
#include "io.h"

#endif
