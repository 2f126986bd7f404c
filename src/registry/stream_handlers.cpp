// The streaming handlers: one row per file type with a row reader or
// writer. Opening tries the rows with an open operation in table order;
// creating takes the row of the requested type. A codec that gains a
// streaming handler fills its row here and nothing else changes.
#include "codecs/libs/tiff.h"
#include "codecs/intergraph/ingr.h"
#include "codecs/native/bmp.h"
#include "codecs/native/eps.h"
#include "codecs/native/pict.h"
#include "registry/stream.h"
#include "registry/targa.h"

namespace il::stream {

const Handler kHandlers[] = {
    {1, ingr_openRGB, ingr_createRGB, ingr_backgroundRGB},  // Intergraph RGB
    {2, imageTga_open, imageTga_create, nullptr},     // Targa
    {3, tiff_openStream, tiff_createStream, nullptr}, // TIFF, compressed when written
    {0, nullptr, tiff_createStream, nullptr},         // TIFF, uncompressed
    {4, nullptr, imagePict_createFile, nullptr},      // PICT, 32-bit rows
    {6, nullptr, imageEps_createFile, nullptr},       // EPS, colour rows
    {9, nullptr, imageBmp_createFile, nullptr},       // BMP, 24 bits
};
const int kHandlerCount = int(sizeof kHandlers / sizeof kHandlers[0]);

}  // namespace il::stream
