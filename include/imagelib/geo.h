/* imagelib: resampling, rotation, mirroring, orientation, sub-images, polygon fills. */
#ifndef IMAGELIB_GEO_H
#define IMAGELIB_GEO_H

#include "types.h"

IMAGELIB_EXTERN_C_BEGIN

/* ==== resample: resampling ==== */
/* Resamples a row-planar RGB image (layout 5: per row x red, x green, x blue
   bytes) to destSize: linear interpolation where an axis grows, area
   averaging where it shrinks, a copy where it stays. *out receives a new
   block of destSize->x * 3 * destSize->y bytes (host allocator). The stop
   function is polled before each destination row with (destination height,
   row); its nonzero answer is returned and no block is handed out.
   0, IMGERR_BADARG (null pointers, sizes not positive), IMGERR_NOMEMORY. */
IMAGELIB_API int korImage_resize(void** out, const ImageSize* destSize, const void* source,
                                 const ImageSize* sourceSize, StopFunction stop) IMAGELIB_NOEXCEPT;

/* As korImage_resize for row-planar RGBA (4 planes a row: red, green, blue,
   alpha). */
IMAGELIB_API int korImage_resizeRGBA(void** out, const ImageSize* destSize, const void* source,
                                     const ImageSize* sourceSize, StopFunction stop) IMAGELIB_NOEXCEPT;

/* Produces destination rows first .. last of the resampling of a row-planar
   RGB source into *band ((last - first + 1) * 3 * destSize->x bytes,
   allocated with the host allocator when *band is null). The resampler keeps
   its state between calls (one state per thread), so that successive bands
   continue where the previous call stopped; rows between the last one
   produced and first are produced and thrown away. A call that asks for a
   row already passed, or for other sizes, starts afresh. The stop function
   is polled before each band row with (last, row); its nonzero answer is
   returned. 0, IMGERR_BADARG, IMGERR_NOMEMORY. */
IMAGELIB_API int korImage_resizeBand(void** band, const ImageSize* destSize, int first, int last,
                                     const void* source, const ImageSize* sourceSize,
                                     StopFunction stop) IMAGELIB_NOEXCEPT;

/* Releases the state kept by korImage_resizeBand on this thread. Returns 0. */
IMAGELIB_API int korImage_resizeCleanup(void) IMAGELIB_NOEXCEPT;
/* (end of resample) */

/* ==== rotate: quarter-turn rotation, mirroring and orientation ==== */
/* Rotates an image of any layout 1..8 by a quarter-turn multiple: 90 moves
   pixel (x, y) to (y, W - 1 - x) (counter-clockwise), 180 to
   (W - 1 - x, H - 1 - y), 270 to (H - 1 - y, x) (clockwise). Any other angle
   hands back a new block of the same size with unspecified content (for the
   row tables of layouts 2 and 8: all rows null) and status 0.
   *result receives the new image; result may point at the pointer that
   holds source, which is then freed on success. resultSize (may be null or
   sourceSize itself) gets width and height exchanged for 90 and 270.
   The stop function is polled once per source row (stop, H, y); stopped:
   IMGERR_STOPPED with *result unchanged. IMGERR_BADARG for an unknown
   layout, IMGERR_NOMEMORY, IMGERR_BADFILE for a run-length row that does not
   reach the width. */
IMAGELIB_API int korImage_rotate(void** result, ImageSize* resultSize, void* source,
                                 const ImageSize* sourceSize, int format, int angle,
                                 StopFunction stop) IMAGELIB_NOEXCEPT;

/* Mirrors an image in place: mode 0 exchanges rows top and bottom, any other
   mode reverses every row left to right. For layouts 2 and 8, image is the
   row table. 0, IMGERR_BADARG, IMGERR_NOMEMORY, IMGERR_STOPPED,
   IMGERR_BADFILE (a run-length row that does not reach the width). */
IMAGELIB_API int korImage_mirror(void* image, const ImageSize* size, int format, int mode,
                                 StopFunction stop) IMAGELIB_NOEXCEPT;

/* Turns an image stored in scan orientation `orientation` (0..7) upright,
   top to bottom and left to right, in place: *image and *size are replaced
   when a rotation replaces the buffer. Code 4 is decided from the
   transformation matrix (elements 0, 1 and 4 are read; null means nothing to
   do); codes above 7 do nothing. Returns the status of the last operation,
   0 when nothing was done. */
IMAGELIB_API int korImage_transformToUpperLeftHorizontal(void** image, ImageSize* size, int orientation,
                                                         int format, const double* matrix,
                                                         StopFunction stop) IMAGELIB_NOEXCEPT;

/* As korImage_transformToUpperLeftHorizontal with no matrix. */
IMAGELIB_API int korImage_convertToUpperLeftHorizontal(void** image, ImageSize* size, int orientation,
                                                       int format, StopFunction stop) IMAGELIB_NOEXCEPT;
/* (end of rotate) */

/* ==== warp: affine warping and rotation by any angle ==== */
/* Interpolation codes of the warp. Palette images and bitmaps always take
   the nearest neighbour; bicubic is Catmull-Rom. */
enum {
    IMAGEWARP_NEAREST = 0,
    IMAGEWARP_BILINEAR = 1,
    IMAGEWARP_BICUBIC = 2
};

/* Warps an image of any layout 1..8 by the affine matrix
   {a, b, c, d, e, f}, which maps a source point (x, y) to the destination
   point (a x + c y + e, b x + d y + f); x runs to the right, y downwards and
   pixel (i, j) has its centre at (i + 0.5, j + 0.5). Every destination pixel
   samples the source at the point the inverse matrix gives. *result
   receives a new block (host allocator) of resultSize, in the source's
   layout. Where the source does not reach, the pixel is the background:
   background holds 3 bytes red, green, blue for layouts 5 and 6, 4 bytes
   red, green, blue, alpha for 7, one palette index for 3, 4 and 8, one byte
   for 1 and 2 (nonzero: set); null means zeros. Filter taps outside the
   source read the background, so that edges blend into it. Layouts 1, 2, 3,
   4 and 8 take the nearest neighbour whatever the code; the row tables of 2
   and 8 are decoded (a null row reads as zeros) and the result encoded into
   a new table. The stop function is polled before each destination row
   with (resultSize->y, row); stopped: IMGERR_STOPPED and nothing is handed
   out. IMGERR_BADARG: null pointers, sizes not positive, an unknown layout
   or interpolation code, a matrix that is not finite or singular.
   IMGERR_NOMEMORY; IMGERR_BADFILE for a run-length row that does not reach
   the width. */
IMAGELIB_API int korImage_warp(void** result, const ImageSize* resultSize, const void* source,
                               const ImageSize* sourceSize, int format, const double* matrix, int interpolation,
                               const uint8_t* background, StopFunction stop) IMAGELIB_NOEXCEPT;

/* Warps destination rows [firstRow, endRow) of a resultSize image, exactly
   as korImage_warp makes them, into band: the caller's block of
   (endRow - firstRow) rows of the layout (a row of (x + 7) / 8 bytes for 1;
   x for 3 and 4; 3 x, three planes of x, for 5; 3 x interleaved for 6;
   4 x for 7). Layouts 1, 3, 4, 5, 6 and 7 (the row tables of 2 and 8:
   IMGERR_BADARG, as for a row range that is empty or outside
   0..resultSize->y). The work is shared among KV_THREADS threads (1: the
   calling thread alone; unset: the processor count, at most 8), with the
   same bytes whatever their number; korImage_warp and korImage_rotateAngle
   share it the same way. The stop function is called on the calling thread
   only, with (resultSize->y, row) once for each row of the band in order,
   as the rows before it are finished; stopped: IMGERR_STOPPED, and the band
   holds some rows. Other statuses as korImage_warp. */
IMAGELIB_API int korImage_warpBand(uint8_t* band, const ImageSize* resultSize, int32_t firstRow, int32_t endRow,
                                   const void* source, const ImageSize* sourceSize, int format, const double* matrix,
                                   int interpolation, const uint8_t* background, StopFunction stop) IMAGELIB_NOEXCEPT;

/* The matrix (6 numbers, as korImage_warp takes) and the result size of
   korImage_rotateAngle's rotation of a sourceSize image by degrees, for a
   rotation done band by band with korImage_warpBand. 0; IMGERR_BADARG for a
   null pointer, a size not positive or an angle not finite;
   IMGERR_NOMEMORY when a side of the result would not fit in 32 bits. */
IMAGELIB_API int korImage_rotationMatrix(double* matrix, ImageSize* resultSize, const ImageSize* sourceSize,
                                         double degrees) IMAGELIB_NOEXCEPT;

/* Rotates an image counter-clockwise by any number of degrees about its
   centre, into the bounding box of the turned picture:
   ceil(|W cos| + |H sin|) by ceil(|W sin| + |H cos|), the centres aligned.
   Multiples of 90 take korImage_rotate (bit for bit, any layout 1..8, its
   polling); 0 gives a copy. Other angles warp as korImage_warp. As with
   korImage_rotate, result may point at the pointer that holds source, which
   is then freed on success, and resultSize (may be null or sourceSize
   itself) receives the new size. IMGERR_BADARG also for an angle that is
   not finite. */
IMAGELIB_API int korImage_rotateAngle(void** result, ImageSize* resultSize, void* source,
                                      const ImageSize* sourceSize, int format, double degrees, int interpolation,
                                      const uint8_t* background, StopFunction stop) IMAGELIB_NOEXCEPT;
/* (end of warp) */

/* ==== subimage: sub-image extraction ==== */
/* Every member cuts the rectangle (x0, y0, x1, y1), corners inclusive and in source pixels (null:
   the whole source), out of the source and steps it nearest-neighbour onto the destination size
   in 12-bit fixed point. Destination buffers are the caller's; for the row-table layouts (2, 8)
   the caller gives the table of destinationSize->y pointers and the function allocates the rows
   (host allocator). Parts of the rectangle outside the source repeat the nearest edge pixel.
   Status 0; -126 for a null buffer or size, a non-finite rectangle or an empty source with a
   non-empty destination; -116 when an allocation fails (no destination row is left allocated then).
   Source rows of the row-table layouts are read up to the width (a null row reads as zeros). */
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
/* Layouts 1 and 2 (value nonzero sets, 0 clears), 3, 4 and 8 (value byte); -126 for another layout.
   A painted row of layouts 2 and 8 is decoded, painted and stored anew (a null row counts as zeros). */
IMAGELIB_API int korImage_setMapPolygon(void* image, int* filled, const ImageSize* size, int format, const double* points, int pointCount, int outside, int value, StopFunction stop) IMAGELIB_NOEXCEPT;
/* Row-planar RGB; rgb holds red, green, blue. */
IMAGELIB_API int korImage_setRGBPolygon(uint8_t* image, int* filled, const ImageSize* size, const double* points, int pointCount, int outside, const uint8_t* rgb, StopFunction stop) IMAGELIB_NOEXCEPT;
/* (end of polygon) */

/* ==== geotiff: GeoTIFF georeference ==== */
/* The georeference of a GeoTIFF file as 12 doubles: the first three rows of
   the 4 x 4 model transformation, row-major, with the origin moved to the
   lower left of the raster (files with a pixel scale, and model types 63554
   and 63502, have their y axis turned; a transform that grows y downwards
   gets its origin moved down by the height). A file with a pixel scale and
   tie point instead gives the scale on the diagonal and the tie point moved
   to the origin. transform is left untouched when the file has no usable
   key directory (version 2 or more: message 171; no model type: 172; pixel
   scale without tie point: 174). 0 once the file opened and its size was
   read; IMGERR_OPENFAILED, IMGERR_BADFILE otherwise. */
IMAGELIB_API int korImage_readGeoTiffInfo(double* transform, const char* path) IMAGELIB_NOEXCEPT;

/* Writes a georeference: origin (x, y, z of the lower-left corner in model
   units) and extent (width and height of the whole raster). A GeoTIFF has
   its transform (or pixel scale and tie point) rewritten; a plain TIFF gets
   a transform and model type 63555 when addIfAbsent is set (else
   IMGERR_BADIMAGEFORMAT). Intergraph raster types update their attachment
   packets. Types outside 3..29: IMGERR_BADIMAGEFORMAT. IMGERR_GEOKEYVERSION
   for a key directory of version 2 or more. */
IMAGELIB_API int korImage_updateGeoReference(const double* origin, const double* extent, const char* path,
                                             int addIfAbsent) IMAGELIB_NOEXCEPT;
/* (end of geotiff) */
/* ==== Intergraph georeference ==== */
/* Origin (x, y, z), extent (width, height in model units) and scan-line
   orientation of an Intergraph raster, from its transformation matrix. Any
   output may be null. IMGERR_OPENFAILED, IMGERR_NODATA (no usable header). */
IMAGELIB_API int korImage_extractIngrAttach(double* origin, double* extent, int* orientation,
                                            const char* path) IMAGELIB_NOEXCEPT;
/* Rewrites the transformation matrix of an Intergraph raster from origin and
   extent. IMGERR_OPENFAILED, IMGERR_BADFILE (no Intergraph header). */
IMAGELIB_API int korImage_updateIngrAttach(const double* origin, const double* extent,
                                           const char* path) IMAGELIB_NOEXCEPT;

IMAGELIB_EXTERN_C_END

#endif
