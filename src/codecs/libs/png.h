// PNG files (file type 28) through libpng.
//
// Files are classified by colour type and bit depth into the colour modes:
// grey (and grey + alpha) of 1 bit is bilevel (5), of 2, 4, 8, 16 bits grey
// (4); RGB is 1; palette of 1 bit is bilevel, of 2 or 4 bits 16 colours (2),
// of 8 bits 256 colours (3); RGB + alpha is 6. Any other depth is mode 0
// (unusable); colour types 1 and 5 are refused as bad files.
//
// Each call keeps its own libpng structures; a libpng error jumps back
// into the call, which releases them and closes the file.
#pragma once

#include <cstdint>

#include "imagelib/types.h"

// 0 when the file starts with the PNG signature. IMGERR_OPENFAILED,
// IMGERR_READFAILED (shorter than the signature), IMGERR_BADFILE.
int pngFile_detect(const char* path) noexcept;

// Size and colour mode from the header (any output may be null);
// *transparency is 1 when the file has an alpha channel or a tRNS chunk.
// IMGERR_BADFILE for a corrupt header or colour type 1 or 5.
int pngFile_readInfo(ImageSize* size, int* colourMode, const char* path, int* transparency = nullptr) noexcept;

// The grey scale that grey and bilevel files read with: entry 0 is 0, the
// last 255, entry i between them (i x 256) / (count + 1).
void pngFile_greyScale(uint8_t* red, uint8_t* green, uint8_t* blue, int count) noexcept;

// Reads the whole image as the colour mode `wanted` (0: the file's own):
//  1 row-planar RGB (layout 5), count 0;
//  2, 3, 4 a byte map (layout 3), or PackByte rows (layout 8) when packed,
//    with the file's palette or grey scale; RGB and RGBA files are reduced
//    to an optimised palette of 256 colours;
//  5 a bitmap (layout 1), or run-length rows (layout 2) when packed, set
//    bits for the darker of the two colours;
//  6 rows of four planes R, G, B, A: RGBA files, and any other file with
//    an alpha channel or a tRNS chunk, expanded (8 bits, tRNS as alpha).
// A file of the file's own bilevel mode read with wanted 0 gives the bitmap
// of palette indices (bit set: entry 1) with its two-entry palette.
// Refusals: wanted 5 of a file that is not bilevel IMGERR_DECODEFAILED; a
// bilevel file as anything but 0 or 5, and wanted 6 of a file without
// transparency, IMGERR_BADIMAGEFORMAT; mode 0 files IMGERR_BADARG. The layout of
// the result goes to *layout when it is not null.
int pngFile_read(void** buffer, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue, int* count,
                 const char* path, int wanted, int packed, StopFunction stop, int* layout = nullptr) noexcept;

// Writes an image as colour mode 1 (RGB), 2 and 3 (8-bit palette indices),
// 4 (8-bit grey), 5 (1 bit, set bits black) or 6 (RGBA). sourceFormat is
// the layout of buffer: row-planar RGB (5; four planes a row for mode 6)
// for any mode; a byte map (3) or PackByte rows (8) for modes 2 to 4; a
// bitmap (1) or run-length rows (2) for mode 5. KV_PNG_INTERLACE gives the
// interlace method (unset: 1, Adam7). transparency, when not null, is the
// colour (R, G, B) that the file marks transparent with a tRNS chunk.
// IMGERR_BADARG for another mode or source, IMGERR_OPENFAILED,
// IMGERR_NOMEMORY, IMGERR_WRITEFAILED (any libpng error); a nonzero stop
// answer ends the writing and is returned.
int pngFile_create(const char* path, const void* buffer, const ImageSize* size, int colourMode, int sourceFormat,
                   const uint8_t* red, const uint8_t* green, const uint8_t* blue, int count,
                   const uint8_t* transparency, StopFunction stop) noexcept;

// Largest ratio of filtered image bytes to file bytes that deflate can
// reach: a header claiming more is refused with IMGERR_BADFILE.
constexpr int64_t kPngInflateRatio = 1040;
