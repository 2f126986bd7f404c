/* imagelib: the format table, type detection and writer capabilities. */
#ifndef IMAGELIB_REGISTRY_H
#define IMAGELIB_REGISTRY_H

#include "types.h"

IMAGELIB_EXTERN_C_BEGIN

/* The type found from the file's contents (the detectors of the import
   list in their fixed order), IMGERR_OPENFAILED or IMGERR_UNKNOWNTYPE. */
IMAGELIB_API int korImage_typeFromFile(const char* path) IMAGELIB_NOEXCEPT;

/* The type found from the name's extension (case folded), or IMGERR_BADARG. */
IMAGELIB_API int korImage_typeFromExtension(const char* path) IMAGELIB_NOEXCEPT;

/* type when it is 0 or more; otherwise the contents, then the extension. */
IMAGELIB_API int korImage_fileType(int type, const char* path) IMAGELIB_NOEXCEPT;

/* The quick extension mapping of the streaming writer: RGB 1, TGA 2, TIF 3,
   PCT 4, PCX 5, GIF 7, RS 10; 0 for anything else. */
IMAGELIB_API int korImage_fileNameType(const char* path) IMAGELIB_NOEXCEPT;

/* Copies the type's extension (no dot); "*" and IMGERR_BADARG for a type
   outside 0..41. buffer holds at least 8 bytes. */
IMAGELIB_API int korImage_getExtension(char* buffer, int type) IMAGELIB_NOEXCEPT;

/* Stores the type's Mac OS file type (four characters, big-endian). */
IMAGELIB_API int korImage_getOSFileType(uint32_t* osType, int type) IMAGELIB_NOEXCEPT;

/* Row `index` of the import list (0..22, the end row included) or of the
   export list (0..21): display name (IMAGELIB_TEXT_MAX bytes) from the
   message catalogue, and the type (-1 for the end row). */
IMAGELIB_API int korImage_getImportFormat(char* name, int* type, int index) IMAGELIB_NOEXCEPT;
IMAGELIB_API int korImage_getExportFormat(char* name, int* type, int index) IMAGELIB_NOEXCEPT;

/* What the writer of a type takes; any pointer may be null. */
IMAGELIB_API int korImage_getExportSupport(int* defaultMode, int* rgb, int* palette256, int* palette16,
                                           int* grey, int* bilevel, int type) IMAGELIB_NOEXCEPT;

/* 1 for the types whose writers keep an alpha channel, else 0. */
IMAGELIB_API int korImage_alphaExportSupported(int type) IMAGELIB_NOEXCEPT;

/* Number of rows of the import list including the end row (23) and of the
   export list (22). */
#define IMAGELIB_IMPORT_LIST_ROWS 23
#define IMAGELIB_EXPORT_LIST_ROWS 22

IMAGELIB_EXTERN_C_END

#endif
