/* imagelib: whole-image reading and writing, streaming rows. */
#ifndef IMAGELIB_IO_H
#define IMAGELIB_IO_H

#include "types.h"

IMAGELIB_EXTERN_C_BEGIN

/* ==== stream: streaming row access ==== */
/* An open image file read or written one row at a time (Targa, Intergraph
   RGB, TIFF, BMP, PICT, EPS). When the caller's row size differs from the
   file's, rows are resampled on the fly. */
typedef struct ImageFileContext ImageFileContext;

/* Opens path for reading. requested is the size of the rows the caller
   wants (null: the file's own). Returns the context, or null with the
   status in *status (when status is not null). */
IMAGELIB_API ImageFileContext* korImage_openFile(int* status, const ImageSize* requested,
                                                 const char* path) IMAGELIB_NOEXCEPT;

/* Creates path for writing rows of rowSize; the file is fileSize (null: the
   row size). type -1 takes the type from the name (unknown names write
   Intergraph RGB); colourMode 6 writes alpha where the type can. Returns the
   context, or null with the status (3 for a type without a row writer). */
IMAGELIB_API ImageFileContext* korImage_createFile(int* status, const char* path, const ImageSize* fileSize,
                                                   const ImageSize* rowSize, int type,
                                                   int colourMode) IMAGELIB_NOEXCEPT;

/* Reads the next row at the caller's width into the planes (null planes are
   skipped; alpha only when the file has alpha). 4 when no rows are left. */
IMAGELIB_API int korImage_getRow(ImageFileContext* ctx, uint8_t* red, uint8_t* green, uint8_t* blue,
                                 uint8_t* alpha) IMAGELIB_NOEXCEPT;

/* Writes the next row of the caller's width. 4 when the file is full. */
IMAGELIB_API int korImage_putRow(ImageFileContext* ctx, const uint8_t* red, const uint8_t* green,
                                 const uint8_t* blue, const uint8_t* alpha) IMAGELIB_NOEXCEPT;

/* Finishes and closes the file and frees the context. */
IMAGELIB_API int korImage_closeFile(ImageFileContext* ctx) IMAGELIB_NOEXCEPT;

/* The caller's row size of an open file. */
IMAGELIB_API int korImage_getImageSize(ImageSize* size, const ImageFileContext* ctx) IMAGELIB_NOEXCEPT;

/* The stored size of the file at path (opened and closed again). */
IMAGELIB_API int korImage_getFileSize(ImageSize* size, const char* path) IMAGELIB_NOEXCEPT;

/* The background colour of a file (red, green, blue, 0 into colour[4]):
   0 when the file has one, 32768 when it has none. type -1: from the name. */
IMAGELIB_API int korImage_getImageBgColor(uint8_t* colour, const char* path, int type) IMAGELIB_NOEXCEPT;
/* (end of stream) */

/* ==== read: whole-image reading ==== */
/* (end of read) */

/* ==== write: whole-image writing ==== */
/* (end of write) */

IMAGELIB_EXTERN_C_END

#endif
