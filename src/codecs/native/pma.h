// Display-procedure images (file type 27): the "file" is a host program
// that draws the image on request. Reading loads the program (when no
// program of its name is loaded), finds its "<name>_displayProcedure" and
// lets it report the size and fill a row-planar RGB buffer (the procedure's
// contract is ImageDisplayProcedure in imagelib/host.h).
//
// The procedure found last and the progress function of the read are kept
// per thread: the most recent imagePma_open on a thread decides which
// program draws there. A program loaded here stays loaded.
#pragma once

#include <cstdint>

#include "imagelib/types.h"

// Sets *imageFormat (when not null) to 1 (RGB), loads the program of path
// with the argument "DISPLAY_ONLY" unless one of its name is loaded
// (IMGERR_OPENFAILED when that fails; IMGERR_UNSUPPORTEDTYPE when the host
// cannot load programs) and looks up its display procedure (not found: the
// program is unloaded and the result is IMGERR_UNSUPPORTEDTYPE). With a
// size record, the procedure is asked for the size and its result returned;
// otherwise 0.
int imagePma_open(ImageSize* size, int* imageFormat, const char* path) noexcept;

// Draws the image into a new row-planar RGB buffer in *rgb. A size with a
// positive width and height is kept (the program draws at that size);
// otherwise the procedure is asked for it. The procedure's progress calls
// reach `progress` as (rows, row). Returns the procedure's result; the
// buffer is handed out only on 0. IMGERR_BADFILE when the procedure reports
// an empty size, IMGERR_NOMEMORY when the buffer cannot be had.
int imagePma_readToRGB(uint8_t** rgb, ImageSize* size, const char* path, StopFunction progress) noexcept;
