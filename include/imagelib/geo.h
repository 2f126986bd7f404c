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
/* Every member cuts the rectangle (x0, y0, x1, y1), corners inclusive and in source pixels (null:
   the whole source), out of the source and steps it nearest-neighbour onto the destination size
   in 12-bit fixed point. Destination buffers are the caller's; for the row-table layouts (2, 8)
   the caller gives the table of destinationSize->y pointers and the function allocates the rows
   (host allocator). Parts of the rectangle outside the source repeat the nearest edge pixel.
   Status 0; -126 for a null buffer or size, a non-finite rectangle or an empty source with a
   non-empty destination; -116 when an allocation fails (row tables are then left all null). */
/* Dispatch by layout: 1, 2, 3, 4, 5, 7, 8; -107 for 6 or an unknown code. */
IMAGELIB_API int korImage_extractSubImage(void* destination, const ImageSize* destinationSize, const void* source, const ImageSize* sourceSize, const double* rectangle, int format) IMAGELIB_NOEXCEPT;
/* Byte map to byte map; every copied value passes through remap (256 bytes) when it is not null. */
IMAGELIB_API int korImage_extractByteMapSubImage(uint8_t* destination, const ImageSize* destinationSize, const uint8_t* source, const ImageSize* sourceSize, const double* rectangle, const uint8_t* remap) IMAGELIB_NOEXCEPT;
/* Row-planar RGB to row-planar RGB. */
IMAGELIB_API int korImage_extractRGBSubImage(uint8_t* destination, const ImageSize* destinationSize, const uint8_t* source, const ImageSize* sourceSize, const double* rectangle) IMAGELIB_NOEXCEPT;
/* Interleaved RGBA to interleaved RGBA. */
IMAGELIB_API int korImage_extractRGBASubImage(uint8_t* destination, const ImageSize* destinationSize, const uint8_t* source, const ImageSize* sourceSize, const double* rectangle) IMAGELIB_NOEXCEPT;
/* Bitmap to bitmap (the padding bits of destination rows are cleared). */
IMAGELIB_API int korImage_extractBitMapSubImage(uint8_t* destination, const ImageSize* destinationSize, const uint8_t* source, const ImageSize* sourceSize, const double* rectangle) IMAGELIB_NOEXCEPT;
/* Run-length bitmap rows to new run-length bitmap rows in the destination table. */
IMAGELIB_API int korImage_extractRLEBitMapSubImage(uint16_t** destination, const ImageSize* destinationSize, uint16_t* const* source, const ImageSize* sourceSize, const double* rectangle) IMAGELIB_NOEXCEPT;
/* PackByte rows to new PackByte rows in the destination table. */
IMAGELIB_API int korImage_extractPackByteSubImage(uint8_t** destination, const ImageSize* destinationSize, uint8_t* const* source, const ImageSize* sourceSize, const double* rectangle) IMAGELIB_NOEXCEPT;
/* A bitmap, PackByte or run-length source into a byte map (bit sources give 0 and 1). */
IMAGELIB_API int korImage_subByteMapFromBitMap(uint8_t* destination, const ImageSize* destinationSize, const uint8_t* source, const ImageSize* sourceSize, const double* rectangle) IMAGELIB_NOEXCEPT;
IMAGELIB_API int korImage_subByteMapFromPackByte(uint8_t* destination, const ImageSize* destinationSize, uint8_t* const* source, const ImageSize* sourceSize, const double* rectangle) IMAGELIB_NOEXCEPT;
IMAGELIB_API int korImage_subByteMapFromRLEBitMap(uint8_t* destination, const ImageSize* destinationSize, uint16_t* const* source, const ImageSize* sourceSize, const double* rectangle) IMAGELIB_NOEXCEPT;
/* (end of subimage) */

/* ==== polygon: polygon fills ==== */
/* Paints the polygon of pointCount points (x, y pairs in pixels; the first point repeated as the
   last closes it), or with outside nonzero everything outside it, by the even-odd rule sampled at
   pixel centres. Spans of a single pixel are never painted. *filled (may be null) becomes 1 once
   a span is painted. Status 0, -144 when stopped (rows already painted stay), -116 when memory
   runs out, -126 for a bad argument (null image or size, non-finite point, negative count). */
/* Layouts 1 and 2 (value nonzero sets, 0 clears), 3, 4 and 8 (value byte); -126 for another layout. */
IMAGELIB_API int korImage_setMapPolygon(void* image, int* filled, const ImageSize* size, int format, const double* points, int pointCount, int outside, int value, StopFunction stop) IMAGELIB_NOEXCEPT;
/* Row-planar RGB; rgb holds red, green, blue. */
IMAGELIB_API int korImage_setRGBPolygon(uint8_t* image, int* filled, const ImageSize* size, const double* points, int pointCount, int outside, const uint8_t* rgb, StopFunction stop) IMAGELIB_NOEXCEPT;
/* (end of polygon) */

IMAGELIB_EXTERN_C_END

#endif
