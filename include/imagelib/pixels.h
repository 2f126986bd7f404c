/* imagelib: row packing, run-length and PackByte rows, colour mapping, grey levels, dithering, palettes. */
#ifndef IMAGELIB_PIXELS_H
#define IMAGELIB_PIXELS_H

#include "types.h"

IMAGELIB_EXTERN_C_BEGIN

/* ==== rows: row packing, run-length bitmap rows, PackByte rows, bitmap utilities ==== */
/* Packs count values (one a byte) at bitsPerPixel (1, 2, 4, 8) bits each, first value in the
   top bits; returns the pixels a byte (8 / bitsPerPixel). Values are not masked. */
IMAGELIB_API int korImage_packBuffer(uint8_t* dst, const uint8_t* src, int bitsPerPixel, int count) IMAGELIB_NOEXCEPT;
/* Unpacks exactly count values of bitsPerPixel bits into one byte each; returns 0. */
IMAGELIB_API int korImage_unpackBuffer(uint8_t* dst, const uint8_t* src, int bitsPerPixel, int count) IMAGELIB_NOEXCEPT;
/* Encodes one bitmap row of width pixels into 16-bit runs (background first); stores the byte
   length (2 x runs) through byteLength when not null and returns it. runs needs 2 x width + 2 bytes. */
IMAGELIB_API int korImage_runLengthEncodeBitMapRow(uint16_t* runs, int* byteLength, const uint8_t* row, int width) IMAGELIB_NOEXCEPT;
/* Decodes run-length runs into a bitmap row of width pixels; never writes past the width.
   Returns an internal bit mask of no use to callers. */
IMAGELIB_API int korImage_runLengthDecodeBitMapRow(uint8_t* row, const uint16_t* runs, int width) IMAGELIB_NOEXCEPT;
/* Encodes a bitmap into a new run-length row table (layout 2); status 0 or -116. */
IMAGELIB_API int korImage_runLengthEncodeBitMap(uint16_t*** rows, const uint8_t* bitmap, const ImageSize* size) IMAGELIB_NOEXCEPT;
/* Replaces the run-length image *image (layout 2) by a new bitmap (layout 1); status. */
IMAGELIB_API int korImage_stretchRLEToBitMap(void** image, const ImageSize* size) IMAGELIB_NOEXCEPT;
/* New inverted copy of a bitmap (isRunLength 0) or run-length image (isRunLength nonzero) in *out. */
IMAGELIB_API int korImage_invertBitMap(void** out, const void* src, const ImageSize* size, int isRunLength) IMAGELIB_NOEXCEPT;
/* Copies count pixels from pixel first of a bitmap row (or run-length row) to the start of dst.
   From a bitmap with first > 0 only count - 1 pixels are copied (the last stays 0). Returns an
   internal value of no use to callers. */
IMAGELIB_API int korImage_leftJustifyBitMap(uint8_t* dst, const void* src, int first, int count, int isRunLength) IMAGELIB_NOEXCEPT;
/* Doubles an image in both directions byte by byte; returns dst past the last byte written. */
IMAGELIB_API uint8_t* korImage_doubleImage(uint8_t* dst, const uint8_t* src, const ImageSize* size, int bytesPerPixel) IMAGELIB_NOEXCEPT;
/* PackByte-encodes count bytes (dst needs 2 x count bytes); stores the encoded length through
   length when not null and returns length. */
IMAGELIB_API int* korImage_packByteBuffer(uint8_t* dst, int* length, const uint8_t* src, int count) IMAGELIB_NOEXCEPT;
/* Decodes a PackByte row into exactly count bytes; returns the source position after the
   last packet read. */
IMAGELIB_API const uint8_t* korImage_unpackByteBuffer(uint8_t* dst, const uint8_t* src, int count) IMAGELIB_NOEXCEPT;
/* Grey bytes to a bitmap: method 0 ordered dither, 1 error diffusion between low and high (changes
   grey in place); -126 for another method. */
IMAGELIB_API int korImage_greyScaleToBitMap(uint8_t* dst, uint8_t* grey, const ImageSize* size, int low, int high, int method) IMAGELIB_NOEXCEPT;
/* Byte map with palette to a bitmap through its grey levels; status. */
IMAGELIB_API int korImage_byteMapToBitMap(uint8_t* dst, const uint8_t* map, const uint8_t* red, const uint8_t* green, const uint8_t* blue, int count, const ImageSize* size, int method) IMAGELIB_NOEXCEPT;
/* PackByte rows with palette to a bitmap through its grey levels; status. */
IMAGELIB_API int korImage_packByteToBitMap(uint8_t* dst, uint8_t* const* rows, const uint8_t* red, const uint8_t* green, const uint8_t* blue, int count, const ImageSize* size, int method) IMAGELIB_NOEXCEPT;
/* Row-planar RGB to a bitmap through its grey levels; status. */
IMAGELIB_API int korImage_rgbToBitMap(uint8_t* dst, const uint8_t* rgb, const ImageSize* size, int method) IMAGELIB_NOEXCEPT;
/* (end of rows) */

/* ==== colour: colour mapping, layout conversions, gamma and grey levels ==== */
/* Row-planar RGB to a byte map by dithering to the palette with gamma; allocates width x height
   bytes when *map is null. Returns the progress poll's nonzero answer when stopped. */
IMAGELIB_API int korImage_RGBToMapWithGamma(uint8_t** map, const uint8_t* rgb, const ImageSize* size, const uint8_t* red, const uint8_t* green, const uint8_t* blue, int count, double gamma, StopFunction stop) IMAGELIB_NOEXCEPT;
/* As korImage_RGBToMapWithGamma with gamma 1.0, always into a new byte map. */
IMAGELIB_API int korImage_RGBToMap(uint8_t** map, const uint8_t* rgb, const ImageSize* size, const uint8_t* red, const uint8_t* green, const uint8_t* blue, int count, StopFunction stop) IMAGELIB_NOEXCEPT;
/* Row-planar RGB to a new PackByte row table by dithering with gamma; status. */
IMAGELIB_API int korImage_RGBToPackByteWithGamma(uint8_t*** rows, const uint8_t* rgb, const ImageSize* size, const uint8_t* red, const uint8_t* green, const uint8_t* blue, int count, double gamma, StopFunction stop) IMAGELIB_NOEXCEPT;
/* As korImage_RGBToPackByteWithGamma with gamma 1.0. */
IMAGELIB_API int korImage_RGBToPackByte(uint8_t*** rows, const uint8_t* rgb, const ImageSize* size, const uint8_t* red, const uint8_t* green, const uint8_t* blue, int count, StopFunction stop) IMAGELIB_NOEXCEPT;
/* Row-planar RGB to a new PackByte row table (isPackByte nonzero) or byte map in *out. */
IMAGELIB_API int korImage_extRGBToMap(void** out, const uint8_t* rgb, const ImageSize* size, const uint8_t* red, const uint8_t* green, const uint8_t* blue, int count, int isPackByte, StopFunction stop) IMAGELIB_NOEXCEPT;
/* Byte map through the palette into caller's row-planar RGB; returns the stop poll's answer when stopped. */
IMAGELIB_API int korImage_mapToRGBBuffer(uint8_t* rgb, const uint8_t* map, const ImageSize* size, const uint8_t* red, const uint8_t* green, const uint8_t* blue, StopFunction stop) IMAGELIB_NOEXCEPT;
/* As korImage_mapToRGBBuffer into a new 3 x width x height buffer in *rgb. */
IMAGELIB_API int korImage_mapToRGB(uint8_t** rgb, const uint8_t* map, const ImageSize* size, const uint8_t* red, const uint8_t* green, const uint8_t* blue, StopFunction stop) IMAGELIB_NOEXCEPT;
/* As korImage_mapToRGB from a byte map or (isPackByte nonzero) PackByte rows. */
IMAGELIB_API int korImage_extMapToRGB(uint8_t** rgb, const void* map, const ImageSize* size, const uint8_t* red, const uint8_t* green, const uint8_t* blue, int isPackByte, StopFunction stop) IMAGELIB_NOEXCEPT;
/* Bitmap or run-length rows to a new row-planar RGB image with foreground and background colours
   (3 bytes each); -144 when stopped. */
IMAGELIB_API int korImage_extBitMapToRGB(uint8_t** rgb, const void* bits, const ImageSize* size, const uint8_t* foreground, const uint8_t* background, int isRunLength, StopFunction stop) IMAGELIB_NOEXCEPT;
/* Palette to count R, G, B triples. */
IMAGELIB_API int korImage_paletteToRgbTable(uint8_t* triples, const uint8_t* red, const uint8_t* green, const uint8_t* blue, int count) IMAGELIB_NOEXCEPT;
/* In place: each byte b of buffer becomes table[b]. */
IMAGELIB_API int korImage_remapByteBuffer(uint8_t* buffer, int length, const uint8_t* table) IMAGELIB_NOEXCEPT;
/* Row-planar RGB through the gamma table (plain copy for gamma 1.0 or NaN). */
IMAGELIB_API int korImage_applyGamma(uint8_t* dst, const uint8_t* src, const ImageSize* size, double gamma) IMAGELIB_NOEXCEPT;
/* Palette entries through the gamma table unless gamma is exactly 1.0. */
IMAGELIB_API int korImage_applyGammaToPalette(uint8_t* red, uint8_t* green, uint8_t* blue, int count, double gamma) IMAGELIB_NOEXCEPT;
/* Complements every byte of a row-planar RGB image (255 - v). */
IMAGELIB_API int korImage_negate(uint8_t* dst, const uint8_t* src, const ImageSize* size) IMAGELIB_NOEXCEPT;
/* Complements every palette entry. */
IMAGELIB_API int korImage_negatePalette(uint8_t* red, uint8_t* green, uint8_t* blue, int count) IMAGELIB_NOEXCEPT;
/* In place: each plane times tint[c] / 255 (truncating); returns the progress poll's answer when stopped. */
IMAGELIB_API int korImage_tintImage(uint8_t* rgb, const ImageSize* size, const uint8_t* tint, StopFunction stop) IMAGELIB_NOEXCEPT;
/* The same tint on a palette. */
IMAGELIB_API int korImage_tintPalette(uint8_t* red, uint8_t* green, uint8_t* blue, int count, const uint8_t* tint) IMAGELIB_NOEXCEPT;
/* In place: all planes set to trunc(0.3 R + 0.59 G + 0.11 B + 0.5); returns the stop poll's answer when stopped. */
IMAGELIB_API int korImage_RGBToRGBGreyScale(uint8_t* rgb, const ImageSize* size, StopFunction stop) IMAGELIB_NOEXCEPT;
/* In place contrast stretch per channel (cut-offs 17 and 249); returns the stop poll's answer when stopped. */
IMAGELIB_API int korImage_RGBToRGBEqualized(uint8_t* rgb, const ImageSize* size, StopFunction stop) IMAGELIB_NOEXCEPT;
/* 256-byte grey table of a palette, with the darkest and lightest grey (each may be null). */
IMAGELIB_API int korImage_paletteToGreyScale(uint8_t* table, int* darkest, int* lightest, const uint8_t* red, const uint8_t* green, const uint8_t* blue, int count) IMAGELIB_NOEXCEPT;
/* Byte map to grey bytes through the palette's grey table. */
IMAGELIB_API int korImage_byteMapToGreyScale(uint8_t* grey, int* darkest, int* lightest, const uint8_t* map, const uint8_t* red, const uint8_t* green, const uint8_t* blue, int count, const ImageSize* size) IMAGELIB_NOEXCEPT;
/* PackByte rows to grey bytes through the palette's grey table. */
IMAGELIB_API int korImage_packByteToGreyScale(uint8_t* grey, int* darkest, int* lightest, uint8_t* const* rows, const uint8_t* red, const uint8_t* green, const uint8_t* blue, int count, const ImageSize* size) IMAGELIB_NOEXCEPT;
/* Row-planar RGB to grey bytes (weights 30/59/11 and the tone curve). */
IMAGELIB_API int korImage_rgbToGreyScale(uint8_t* grey, int* darkest, int* lightest, const uint8_t* rgb, const ImageSize* size) IMAGELIB_NOEXCEPT;
/* Byte map (layout 3) or PackByte rows (layout 8) to grey levels; in place the palette becomes the
   grey ramp of 256. -138 for another layout, -144 when stopped. */
IMAGELIB_API int korImage_convertToGreyScale(void* dst, uint8_t* red, uint8_t* green, uint8_t* blue, int* count, const void* src, const ImageSize* size, int layout, StopFunction stop) IMAGELIB_NOEXCEPT;
/* Row-planar RGB to interleaved R, G, B, A with A = 0 (dst and src distinct). */
IMAGELIB_API int korImage_RGBToRGBA(uint8_t* dst, const uint8_t* src, const ImageSize* size, StopFunction stop) IMAGELIB_NOEXCEPT;
/* Interleaved RGBA to row-planar RGB (A dropped); a null dst or src means in place. */
IMAGELIB_API int korImage_RGBAToRGBSeparate(uint8_t* dst, const uint8_t* src, const ImageSize* size, StopFunction stop) IMAGELIB_NOEXCEPT;
/* Interleaved pixels to row planes (4 when layout is 6, else 3); a null dst or src means in place. */
IMAGELIB_API int korImage_RGBToRGBSeparate(uint8_t* dst, const uint8_t* src, const ImageSize* size, int layout, StopFunction stop) IMAGELIB_NOEXCEPT;
/* Row planes to interleaved pixels (4 when layout is 6, else 3); a null dst or src means in place. */
IMAGELIB_API int korImage_RGBSeparateToRGB(uint8_t* dst, const uint8_t* src, const ImageSize* size, int layout, StopFunction stop) IMAGELIB_NOEXCEPT;
/* Row planes to interleaved B, G, R; a null dst or src means in place. */
IMAGELIB_API int korImage_RGBSeparateToBGR(uint8_t* dst, const uint8_t* src, const ImageSize* size, StopFunction stop) IMAGELIB_NOEXCEPT;
/* Pixels a palette index is used (counters saturate at 255), byte map or PackByte rows. */
IMAGELIB_API int korImage_getMapUsage(uint8_t* counts, const void* image, const ImageSize* size, int isPackByte) IMAGELIB_NOEXCEPT;
/* Sets to index every pixel whose RGB equals colour (3 bytes), in a byte map or PackByte rows. */
IMAGELIB_API int korImage_setMapIfRGBMatch(void* image, int index, const uint8_t* rgb, const ImageSize* size, const uint8_t* colour, int isPackByte) IMAGELIB_NOEXCEPT;
/* Sets the bytes of row under background runs of runs to value. */
IMAGELIB_API int korImage_maskByteBuffer(uint8_t* row, const uint16_t* runs, int length, int value) IMAGELIB_NOEXCEPT;
/* Sets the pixels of a row-planar RGB row under background runs to colour (3 bytes). */
IMAGELIB_API int korImage_maskRgbBuffer(uint8_t* rgb, const uint16_t* runs, int width, const uint8_t* colour) IMAGELIB_NOEXCEPT;
/* The 6 x 6 x 6 colour cube and 40 greys; *count becomes 256. */
IMAGELIB_API int korImage_getBalancedPalette(uint8_t* red, uint8_t* green, uint8_t* blue, int* count) IMAGELIB_NOEXCEPT;
/* (end of colour) */

/* ==== dither: error-diffusion and ordered dithering ==== */
/* Error diffusion of RGB rows onto a palette of at most 256 entries. One
   working state per thread: initialise it with a palette and a row width,
   dither the rows top to bottom, then clean up. The palette arrays are not
   copied and must stay valid until korImage_ditherCleanup. */

/* Starts a dither job. count is capped at 256; gamma other than exactly 1.0
   corrects the input through the gamma table. 0, or IMGERR_NOMEMORY when
   the working rows cannot be had (clean-up is still safe then). */
IMAGELIB_API int korImage_ditherInitializeWithGamma(int count, const uint8_t* red, const uint8_t* green,
                                                    const uint8_t* blue, int width,
                                                    double gamma) IMAGELIB_NOEXCEPT;
/* The same with gamma 1.0. */
IMAGELIB_API int korImage_ditherInitialize(int count, const uint8_t* red, const uint8_t* green,
                                           const uint8_t* blue, int width) IMAGELIB_NOEXCEPT;
/* Dithers the next row of n pixels into dest (one palette index a byte).
   The sources advance by stride bytes from one pixel to the next. Nothing
   happens without an initialised state or when n exceeds the width. The
   result is always -1 and carries no meaning. */
IMAGELIB_API int korImage_ditherRowWithOffset(uint8_t* dest, const uint8_t* red, const uint8_t* green,
                                              const uint8_t* blue, int n, int stride) IMAGELIB_NOEXCEPT;
/* The same with stride 1 (one row of row-planar RGB). Always -1. */
IMAGELIB_API int korImage_ditherRow(uint8_t* dest, const uint8_t* red, const uint8_t* green,
                                    const uint8_t* blue, int n) IMAGELIB_NOEXCEPT;
/* Ends the dither job and releases its memory; harmless when none runs. */
IMAGELIB_API void korImage_ditherCleanup(void) IMAGELIB_NOEXCEPT;
/* (end of dither) */

/* ==== palette: median-cut palette optimisation and palette utilities ==== */
/* Chooses at most `wanted` colours (1..256; anything else means 256) for a
   row-planar RGB image by median cut and writes them to red, green, blue
   with their number in *count. 0 when done (also when the working boxes
   cannot be allocated: then *count is 0); 1 when the stop poll answered
   nonzero, with no palette written and *count untouched. */
IMAGELIB_API int korImage_getOptimizedPalette(uint8_t* red, uint8_t* green, uint8_t* blue, int* count,
                                              int wanted, const uint8_t* rgb, const ImageSize* size,
                                              StopFunction stop) IMAGELIB_NOEXCEPT;
/* (end of palette) */

/* ==== mask: transparency masks ==== */
/* A transparency mask is a bitmap (layout 1, rows of (x + 7) >> 3 bytes, most significant bit first) whose
   set bits mark transparent pixels. The mask makers fill a caller buffer of korImage_memorySize(size, 1)
   bytes, poll the stop function once a row and return its nonzero answer; IMGERR_BADARG for a null
   pointer, an empty size or a value out of range, IMGERR_BADIMAGEFORMAT for a layout they do not take. */
/* Set where every one of red, green and blue differs from colour (3 bytes) by at most tolerance (0 or
   more). imageFormat: 5 row-planar RGB, 6 interleaved RGB, 7 interleaved RGBA (alpha ignored). */
IMAGELIB_API int korImage_makeColourMask(uint8_t* mask, const void* image, const ImageSize* size, int imageFormat,
                                         const uint8_t* colour, int tolerance, StopFunction stop) IMAGELIB_NOEXCEPT;
/* Set where a byte map (layout 3) holds index (0..255). */
IMAGELIB_API int korImage_makeIndexMask(uint8_t* mask, const uint8_t* map, const ImageSize* size, int index,
                                        StopFunction stop) IMAGELIB_NOEXCEPT;
/* Set where alpha is below threshold (0..256; 256 makes every pixel transparent, 0 none). imageFormat: 7
   interleaved RGBA, or 5 for row-planar rows of four planes (red, green, blue, alpha). */
IMAGELIB_API int korImage_makeAlphaMask(uint8_t* mask, const uint8_t* image, const ImageSize* size,
                                        int imageFormat, int threshold, StopFunction stop) IMAGELIB_NOEXCEPT;
/* Row-planar RGB plus a mask to RGBA of x * y * 4 bytes: interleaved (layout 7), or with separatePlanes
   rows of four planes as the writers take them in colour mode 6. Alpha is 0 where the mask is set, 255
   elsewhere. */
IMAGELIB_API int korImage_applyMask(uint8_t* rgba, const uint8_t* rgb, const ImageSize* size, const uint8_t* mask,
                                    int separatePlanes, StopFunction stop) IMAGELIB_NOEXCEPT;
/* (end of mask) */

IMAGELIB_EXTERN_C_END

#endif
