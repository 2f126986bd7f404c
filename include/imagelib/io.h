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

/* How the rows of an open file are stored: *orientation receives the
   orientation code, whose bits 0-1 are 2 when the rows are stored bottom-up
   (korImage_getRow then hands out, and korImage_putRow takes, the bottom row
   of the picture first); *alpha is 1 when the rows carry an alpha plane.
   Either pointer may be null. 0, or IMGERR_BADARG for a null context. */
IMAGELIB_API int imagelib_getFileLayout(const ImageFileContext* ctx, int* orientation,
                                        int* alpha) IMAGELIB_NOEXCEPT;

/* The stored size of the file at path (opened and closed again). */
IMAGELIB_API int korImage_getFileSize(ImageSize* size, const char* path) IMAGELIB_NOEXCEPT;

/* The background colour of a file (red, green, blue, 0 into colour[4]):
   0 when the file has one, 32768 when it has none. type -1: from the name. */
IMAGELIB_API int korImage_getImageBgColor(uint8_t* colour, const char* path, int type) IMAGELIB_NOEXCEPT;
/* (end of stream) */

/* ==== read: whole-image reading ==== */
/* Every reader takes a file type (negative: detect it from the contents,
   then the name) and hands out buffers that belong to the caller (release
   them with korImage_freeImage). A type without a reader gives
   IMGERR_UNSUPPORTEDTYPE (-119). */

/* What a file's header tells, in one record. */
typedef struct ImageFileInfo {
    int32_t type;            /* ImageFileType */
    ImageSize size;
    int32_t colorMode;       /* ColorMode */
    int32_t orientation;     /* stored scan orientation (0: rows top-down) */
    int32_t flags;           /* format-specific flags; 0 when none */
    float xResolution;       /* as stored; 0 when the file has none */
    float yResolution;
    int32_t compression;     /* compression code; 0 when not told */
    int32_t hasGeoreference; /* nonzero when the fields below are filled */
    double origin[3];        /* model coordinates of the image origin */
    double extent[2];        /* width and height in model units */
    double matrix[16];       /* pixel/line to model transformation, row-major */
} ImageFileInfo;

/* Size, colour mode and orientation from the header; any output may be null. */
IMAGELIB_API int korImage_readFileInfo(ImageSize* size, int* colorMode, int* orientation, const char* path,
                                       int type) IMAGELIB_NOEXCEPT;
/* The same facts, and the georeference of the file where it has one. */
IMAGELIB_API int korImage_readFileInfoEx(ImageFileInfo* info, const char* path) IMAGELIB_NOEXCEPT;

/* Row-planar RGB (layout 5) in *rgb, resampled to requested when it is given
   and differs. Returns 1 (not -144) when a streamed read (Targa) is stopped:
   the partly filled image is handed out. */
IMAGELIB_API int korImage_readFileToRGB(uint8_t** rgb, ImageSize* outSize, const char* path, int type,
                                        const ImageSize* requested, StopFunction stop) IMAGELIB_NOEXCEPT;

/* Interleaved RGBA (layout 7), or with separatePlanes row-planar red, green,
   blue and alpha planes. Files without alpha get an alpha channel: with
   useBackground, alpha 0 where a pixel has the key colour (the file's
   background, or else the top-left pixel) and 255 elsewhere; without it,
   alpha 0 everywhere. */
IMAGELIB_API int korImage_readFileToRGBA(uint8_t** out, ImageSize* outSize, const char* path, int type,
                                         const ImageSize* requested, int separatePlanes, int useBackground,
                                         StopFunction stop) IMAGELIB_NOEXCEPT;
/* Reads a file to row-planar RGB (layout 5) that fits within box: the largest scale at which both sides
   fit, aspect kept, sides rounded to nearest and at least 1, never enlarged. The reader's own reduction
   (the JPEG decoder's 1/2, 1/4, 1/8 scaling, the streaming rows' scaling) comes before an area-averaging
   reduction, so that memory stays close to the thumbnail's. Statuses as korImage_readFileToRGB; a stop
   gives IMGERR_STOPPED and no image. */
IMAGELIB_API int korImage_readThumbnail(uint8_t** rgb, ImageSize* outSize, const char* path, int type,
                                        const ImageSize* box, StopFunction stop) IMAGELIB_NOEXCEPT;
/* The size of the thumbnail of an image of size image within box (the rule of korImage_readThumbnail).
   IMGERR_BADARG for null pointers or sizes not positive. */
IMAGELIB_API int korImage_thumbnailSize(ImageSize* thumb, const ImageSize* image,
                                        const ImageSize* box) IMAGELIB_NOEXCEPT;

/* PackByte rows (layout 8) and palette (256-byte arrays). True-colour files
   are reduced to an optimised palette of 256 colours and dithered. A
   requested size that differs is met by nearest-neighbour stepping. The
   extended flag is handed to readers that take it. */
IMAGELIB_API int korImage_extReadFileToMap(uint8_t*** rows, ImageSize* size, uint8_t* red, uint8_t* green,
                                           uint8_t* blue, int* count, const char* path, int type,
                                           const ImageSize* requested, int extended,
                                           StopFunction stop) IMAGELIB_NOEXCEPT;
IMAGELIB_API int korImage_readFileToMap(uint8_t*** rows, ImageSize* size, uint8_t* red, uint8_t* green,
                                        uint8_t* blue, int* count, const char* path, int type,
                                        const ImageSize* requested, StopFunction stop) IMAGELIB_NOEXCEPT;

/* A bilevel image: a bitmap (layout 1), or with runLength run-length rows
   (layout 2). */
IMAGELIB_API int korImage_readFileToBitMap(void** bitmap, ImageSize* size, const char* path, int type,
                                           int runLength, StopFunction stop) IMAGELIB_NOEXCEPT;

/* The palette alone. */
IMAGELIB_API int korImage_readPalette(uint8_t* red, uint8_t* green, uint8_t* blue, int* count, const char* path,
                                      int type) IMAGELIB_NOEXCEPT;

/* The image in the layout nearest to what the file stores: RGB (5), Map (3)
   with palette, run-length bitmap rows (2) with the palette white, black,
   or RGBA (7); *imageFormat and *colorMode tell which. With forceRGB the
   result is always layout 5. Null outputs other than buffer and size are
   allowed. */
IMAGELIB_API int korImage_readFileToBuffer(void** buffer, int* imageFormat, int* colorMode, uint8_t* red,
                                           uint8_t* green, uint8_t* blue, int* count, ImageSize* size,
                                           const char* path, int type, int forceRGB,
                                           StopFunction stop) IMAGELIB_NOEXCEPT;
/* (end of read) */

/* ==== write: whole-image writing ==== */
/* Every writer takes a file type (negative: from the name) and the colour
   mode to write (ColorMode). The caller's buffers are never changed. A type
   without a writer gives IMGERR_UNSUPPORTEDTYPE (-119). */

/* From row-planar RGB (with colorMode 6: four planes a row, alpha last).
   compression is the writer's compression code (JPEG: the quality, held to
   40..90); option is handed to the PNG writer. */
IMAGELIB_API int korImage_extCreateFileFromRGB(const char* path, int type, int colorMode, const ImageSize* size,
                                               const uint8_t* rgb, int compression, int option,
                                               StopFunction stop) IMAGELIB_NOEXCEPT;
/* The same with compression 90 and option 0. */
IMAGELIB_API int korImage_createFileFromRGB(const char* path, int type, int colorMode, const ImageSize* size,
                                            const uint8_t* rgb, StopFunction stop) IMAGELIB_NOEXCEPT;

/* From a byte map (layout 3) and palette; a palette that does not fit the
   colour mode is expanded to RGB first. */
IMAGELIB_API int korImage_createFileFromMap(const char* path, int type, int colorMode, const ImageSize* size,
                                            const uint8_t* map, const uint8_t* red, const uint8_t* green,
                                            const uint8_t* blue, int count, StopFunction stop) IMAGELIB_NOEXCEPT;
IMAGELIB_API int korImage_extCreateFileFromMap(const char* path, int type, int colorMode, const ImageSize* size,
                                               const uint8_t* map, const uint8_t* red, const uint8_t* green,
                                               const uint8_t* blue, int count, int compression, int option,
                                               StopFunction stop) IMAGELIB_NOEXCEPT;

/* From PackByte rows (layout 8) and palette. */
IMAGELIB_API int korImage_createFileFromPackByte(const char* path, int type, int colorMode, const ImageSize* size,
                                                 uint8_t* const* rows, const uint8_t* red, const uint8_t* green,
                                                 const uint8_t* blue, int count, StopFunction stop) IMAGELIB_NOEXCEPT;

/* From a bitmap (layout 1) or run-length rows (runLength nonzero, layout 2).
   background and foreground are 3-byte colours or null (white, black). */
IMAGELIB_API int korImage_createFileFromBitMap(const char* path, int type, const ImageSize* size,
                                               const void* bitmap, int runLength, const uint8_t* background,
                                               const uint8_t* foreground, StopFunction stop) IMAGELIB_NOEXCEPT;

/* From any layout but RGBA: routes by imageFormat. For layouts 1 and 2 the
   first two palette entries are the background and foreground colours.
   IMGERR_BADARG for layout 7 and unknown layouts. */
IMAGELIB_API int korImage_createFileFromBuffer(const char* path, int type, int colorMode, const ImageSize* size,
                                               const void* buffer, int imageFormat, const uint8_t* red,
                                               const uint8_t* green, const uint8_t* blue, int count,
                                               int compression, StopFunction stop) IMAGELIB_NOEXCEPT;
IMAGELIB_API int korImage_createRasterFile(const char* path, int type, int colorMode, const ImageSize* size,
                                           const void* buffer, int imageFormat, const uint8_t* red,
                                           const uint8_t* green, const uint8_t* blue, int count, int compression,
                                           StopFunction stop) IMAGELIB_NOEXCEPT;
/* (end of write) */

/* ==== movie: animations ==== */
/* Multi-frame files written frame by frame: FLI (14), FLC (15) and AVI
   (26). Frames are all the movie's size and are shown `delay` ticks of
   1/60 s each. FLI and FLC frames are palette images (true-colour frames
   get an optimised palette of 256 colours, dithered); FLI is written only
   at 320 x 200, other sizes asked for as FLI are written as FLC. AVI frames
   are 24-bit, of the movie's width and its height rounded down to a
   multiple of 8 (the rows below are dropped). */
typedef struct ImageMovie ImageMovie;

/* Creates path for a movie of type (negative: from the name; 14, 15 or 26,
   else IMGERR_UNSUPPORTEDTYPE). Returns the movie, or null with the status
   in *status (when not null): IMGERR_BADARG for a bad size or a delay below
   1, IMGERR_NOMEMORY, IMGERR_OPENFAILED (FLI/FLC) or 32768 (AVI: the file
   cannot be written). */
IMAGELIB_API ImageMovie* korMovie_create(int* status, const char* path, int type, const ImageSize* size,
                                         int delay) IMAGELIB_NOEXCEPT;

/* Adds a frame from row-planar RGB of the movie's size. */
IMAGELIB_API int korMovie_addFrameFromRGB(ImageMovie* movie, const uint8_t* rgb, StopFunction stop) IMAGELIB_NOEXCEPT;

/* Adds a frame from a byte map of the movie's size and its palette of count
   entries. */
IMAGELIB_API int korMovie_addFrameFromMap(ImageMovie* movie, const uint8_t* map, const uint8_t* red,
                                          const uint8_t* green, const uint8_t* blue, int count,
                                          StopFunction stop) IMAGELIB_NOEXCEPT;

/* Completes the file and frees the movie. A FLI/FLC movie without frames
   leaves no file and gives IMGERR_NODATA; an AVI one is a valid file of no
   frames. A failure of an earlier frame is returned again here. */
IMAGELIB_API int korMovie_close(ImageMovie* movie) IMAGELIB_NOEXCEPT;

/* The number of frames of an animation file (FLI/FLC: as its header tells,
   without the closing ring frame). IMGERR_UNSUPPORTEDTYPE for other types. */
IMAGELIB_API int korMovie_getFrameCount(int* frames, const char* path, int type) IMAGELIB_NOEXCEPT;

/* 1: AVI movies can be written (natively, on every platform). */
IMAGELIB_API int korImage_isAVIAvailable(void) IMAGELIB_NOEXCEPT;
/* (end of movie) */

/* ==== ingr blocks: Intergraph rasters a block at a time ==== */
/* An Intergraph raster opened for reading by blocks: the tiles of a tiled
   file, strips of lines of an untiled one. Pixels come out upright, as the
   whole-image readers hand them out; a block of an untiled file with a
   sequential coding (run-length, Group 4) decodes the file only as far as
   that block. One reader serves one thread at a time. */
typedef struct IngrBlockReader IngrBlockReader;

typedef struct IngrRasterInfo {
    ImageSize size;           /* the upright picture */
    ImageSize blockSize;      /* blocks tile the picture from its top-left corner */
    int32_t bands;            /* 1, or 3 (red, green, blue) */
    int32_t colorMode;        /* ColorMode: 1 RGB, 3 palette, 4 grey, 5 bilevel (0 white, 1 black) */
    int32_t dataType;         /* header data type code (65: tiled) */
    int32_t tileDataType;     /* the tiles' data type code; 0 when untiled */
    int32_t orientation;      /* scan-line orientation code as stored */
    int32_t deviceResolution; /* as stored (signed 16 bits) */
    int32_t colorTableType;   /* as stored */
    int32_t colorCount;       /* palette entries: the table's, 2 for bilevel, 256 for grey */
    uint8_t red[256], green[256], blue[256];
    int32_t hasGeoTransform;  /* 0 when the matrix is all zero */
    /* Model x = t[0] + t[1] col + t[2] row, y = t[3] + t[4] col + t[5] row
       for the upright picture, col and row at pixel corners. */
    double geoTransform[6];
    double matrix[16];        /* the header matrix as stored, row-major */
} IngrRasterInfo;

/* Opens path and fills *info (may be null). Returns the reader, or null
   with the status in *status (may be null): IMGERR_OPENFAILED,
   IMGERR_UNSUPPORTEDTYPE (no Intergraph raster, or a coding not read),
   IMGERR_BADFORMAT (tiles of run-length data), IMGERR_BADFILE,
   IMGERR_NOMEMORY. */
IMAGELIB_API IngrBlockReader* korImage_openIngrBlocks(int* status, IngrRasterInfo* info,
                                                      const char* path) IMAGELIB_NOEXCEPT;

/* Decodes block (column, row) into buffer: one plane a band, each
   blockSize.x x blockSize.y bytes, rows top down; the part of an edge block
   outside the picture is 0. IMGERR_BADARG for a block outside the grid,
   IMGERR_BADFILE when the data do not decode, IMGERR_NOMEMORY. */
IMAGELIB_API int korImage_readIngrBlock(IngrBlockReader* reader, int column, int row,
                                        uint8_t* buffer) IMAGELIB_NOEXCEPT;

/* Closes the file and frees the reader (null is allowed). */
IMAGELIB_API int korImage_closeIngrBlocks(IngrBlockReader* reader) IMAGELIB_NOEXCEPT;

/* Writes the header matrix of an Intergraph raster from a geotransform of
   its upright picture (as IngrRasterInfo describes it), so that
   korImage_openIngrBlocks gives the same geotransform back. IMGERR_BADARG,
   IMGERR_OPENFAILED, IMGERR_BADFILE (no Intergraph raster),
   IMGERR_WRITEFAILED. */
IMAGELIB_API int korImage_setIngrGeoTransform(const double* geoTransform, const char* path) IMAGELIB_NOEXCEPT;
/* (end of ingr blocks) */

IMAGELIB_EXTERN_C_END

#endif
