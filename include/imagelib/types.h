/* imagelib: image model, buffer layouts, colour modes, status codes. */
#ifndef IMAGELIB_TYPES_H
#define IMAGELIB_TYPES_H

#include <stddef.h>
#include <stdint.h>

/* One export macro for every public name; everything else is hidden. */
#if defined(IMAGELIB_BUILDING)
#define IMAGELIB_API __attribute__((visibility("default")))
#else
#define IMAGELIB_API
#endif

#ifdef __cplusplus
#define IMAGELIB_EXTERN_C_BEGIN extern "C" {
#define IMAGELIB_EXTERN_C_END }
#define IMAGELIB_NOEXCEPT noexcept
#else
#define IMAGELIB_EXTERN_C_BEGIN
#define IMAGELIB_EXTERN_C_END
#define IMAGELIB_NOEXCEPT
#endif

IMAGELIB_EXTERN_C_BEGIN

/* Width x then height y, in pixels. */
typedef struct ImageSize {
    int32_t x;
    int32_t y;
} ImageSize;

/* Buffer layout codes (ImageFormat). */
enum {
    IMAGEFORMAT_BITMAP = 1,     /* 1 bit a pixel, MSB first, rows byte aligned */
    IMAGEFORMAT_RLEBITMAP = 2,  /* y row pointers, each a run-length bitmap row */
    IMAGEFORMAT_MAP = 3,        /* 1 byte a pixel, palette index */
    IMAGEFORMAT_MAP2 = 4,       /* byte map, second form (treated as 3) */
    IMAGEFORMAT_RGB = 5,        /* per row: x red, x green, x blue bytes */
    IMAGEFORMAT_RGB2 = 6,       /* 3 bytes a pixel, interleaved */
    IMAGEFORMAT_RGBA = 7,       /* 4 bytes a pixel, interleaved */
    IMAGEFORMAT_PACKBYTE = 8    /* y row pointers, each a PackByte row */
};
typedef int32_t ImageFormat;

/* Colour modes (ColorMode) of files and written layouts. */
enum {
    COLORMODE_RGB = 1,
    COLORMODE_PALETTE16 = 2,
    COLORMODE_PALETTE256 = 3,
    COLORMODE_GREY = 4,
    COLORMODE_BILEVEL = 5,
    COLORMODE_RGBA = 6
};
typedef int32_t ColorMode;

/* File type codes (ImageFileType), the row index of the format table. */
typedef int32_t ImageFileType;
#define IMAGELIB_FILETYPE_COUNT 42

/* The caller's stop poll: called with (total rows, rows done), or (0, 0);
   a nonzero answer asks the operation to stop. 0 (null) means no poll. */
typedef int (*StopFunction)(int total, int done);

/* Status codes. 0 is success; negative codes are failures. */
#define IMGERR_OK 0
#define IMGERR_NODATA (-103)
#define IMGERR_BADIMAGEFORMAT (-107)
#define IMGERR_WRITEFAILED (-111)
#define IMGERR_OPENFAILED (-113)
#define IMGERR_NOTFOUND (-114)
#define IMGERR_NOMEMORY (-116)
#define IMGERR_UNSUPPORTEDTYPE (-119)
#define IMGERR_READFAILED (-120)
#define IMGERR_NOHOSTCOMMAND (-121)
#define IMGERR_DECODEFAILED (-122)
#define IMGERR_UNKNOWNTYPE (-123)
#define IMGERR_BADARG (-126)
#define IMGERR_NORESOURCE (-128)
#define IMGERR_CANTCONVERT (-138)
#define IMGERR_STOPPED (-144)
#define IMGERR_BADSCREEN (-152)
#define IMGERR_BADFILE (-154)
#define IMGERR_BADFORMAT (-156)
#define IMGERR_GEOKEYVERSION (-910)
/* Host status-bar command answer that counts as success. */
#define IMGERR_HOSTSTATUSBAR (-742)

/* Positive results kept on purpose by some operations. */
#define IMGSTAT_STREAM_STOPPED 1     /* streaming read stopped; file could not be opened (Targa) */
#define IMGSTAT_NO_HANDLER 3         /* streaming create: no writer for the type; bad Targa header */
#define IMGSTAT_NO_MORE_ROWS 4       /* streaming row past the last row */
#define IMGSTAT_NO_ROW_BUFFER 294    /* Targa row buffer could not be allocated */
#define IMGSTAT_NO_BACKGROUND 32768  /* no background colour; short Targa write */

/* Buffer size of a layout: the table of the image model; for the row
   layouts 2 and 8 the size of the row pointer array (rows x the size of a
   pointer). -126 for an unknown layout code. */
IMAGELIB_API int32_t korImage_memorySize(const ImageSize* size, int format) IMAGELIB_NOEXCEPT;

/* Frees an image buffer (row by row for layouts 2 and 8). */
IMAGELIB_API int korImage_freeImage(void* buffer, const ImageSize* size, int format) IMAGELIB_NOEXCEPT;

/* Polls the stop function with (0, 0); 0 when f is null. */
IMAGELIB_API int imageUtil_stopped(StopFunction f) IMAGELIB_NOEXCEPT;

/* Polls the stop function with (total, done); 0 when f is null. */
IMAGELIB_API int imageUtil_reportProgress(StopFunction f, int total, int done) IMAGELIB_NOEXCEPT;

/* A short English text for every status code, positive ones included.
   Never null; unknown codes give "unknown status". */
IMAGELIB_API const char* imagelib_statusText(int status) IMAGELIB_NOEXCEPT;

/* The library's version, "major.minor.patch". */
IMAGELIB_API const char* imagelib_version(void) IMAGELIB_NOEXCEPT;

IMAGELIB_EXTERN_C_END

#endif
