/* A host program that draws an image on request, for the display-procedure
   image tests. Built twice: as pmaprog.pma with its display procedure, and
   (PMA_NO_PROCEDURE) as pmanone.pma without one.

   The image is 7 x 5 unless drawn at another size; pixel (x, y) is red
   10 x, green 20 y, blue 200. progress is called with (rows, row) before
   each row; a nonzero answer stops the drawing with IMGERR_STOPPED. */
#include <stddef.h>

#include "imagelib/host.h"

#define EXPORTED __attribute__((visibility("default")))

#ifndef PMA_NO_PROCEDURE
EXPORTED int pmaprog_displayProcedure(uint8_t* rgb, ImageSize* size, StopFunction progress) {
    if (!rgb) {
        size->x = 7;
        size->y = 5;
        return 0;
    }
    const size_t w = (size_t)size->x;
    for (int y = 0; y < size->y; ++y) {
        if (progress && progress(size->y, y)) return IMGERR_STOPPED;
        uint8_t* row = rgb + 3 * w * (size_t)y;
        for (size_t x = 0; x < w; ++x) {
            row[x] = (uint8_t)(10 * x);
            row[w + x] = (uint8_t)(20 * y);
            row[2 * w + x] = 200;
        }
    }
    return 0;
}
#else
EXPORTED int pmanone_version = 1;
#endif
