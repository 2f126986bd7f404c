/* imagelib: host services and their standalone defaults.
 *
 * The library asks its host for memory, configuration variables, message
 * texts, named commands and file names. A standalone process gets working
 * defaults; an embedding program may replace any of them with
 * imagelib_setHost(). Null members of the record keep the default. */
#ifndef IMAGELIB_HOST_H
#define IMAGELIB_HOST_H

#include "types.h"

IMAGELIB_EXTERN_C_BEGIN

/* Largest file name the library builds, and the buffer size callers give to
   functions that return a name or a message. */
#define IMAGELIB_PATH_MAX 4096
#define IMAGELIB_TEXT_MAX 256

/* Message lists of the catalogue "imagemsg.rsc". */
#define IMAGELIB_LIST_IMPORT_NAMES (-7502)
#define IMAGELIB_LIST_EXPORT_NAMES (-7503)
#define IMAGELIB_LIST_TIFF (-7505)
#define IMAGELIB_LIST_ZLIB (-7507)
#define IMAGELIB_LIST_STATUSBAR (-7508)

typedef struct ImageHost {
    /* Buffers handed to callers (released by korImage_freeImage). */
    void* (*korMalloc)(size_t size);
    void* (*korCalloc)(size_t count, size_t size);
    void (*korFree)(void* p);
    /* Scratch memory; tag is four ASCII characters naming the site. */
    void* (*scratchMalloc)(size_t size, uint32_t tag);
    void (*scratchFree)(void* p);
    /* Configuration variable: copy the value into buffer (size bytes with
       its terminating zero); nonzero when the variable is not set. */
    int (*getCfgVar)(char* buffer, const char* name, int size);
    /* One message of the catalogue: list and string number; nonzero on
       failure. buffer holds size bytes. */
    int (*loadString)(char* buffer, int size, int list, int number);
    /* Calls the caller's stop function with two integers. */
    int (*callStop)(StopFunction f, int a, int b);
    /* Calls a named command of the host application ("openStatusBar" ...).
       Returns 0 and stores the command's answer in *result when the command
       ran; IMGERR_NOHOSTCOMMAND when no host application serves commands. */
    int (*callCommand)(const char* command, const void* arg1, const void* arg2, int* result);
    /* Host programs, by name (the base name of the program's path): how
       many of that name are loaded (0 or 1); load the program at path with
       an argument (0, or a status; IMGERR_UNSUPPORTEDTYPE when the host
       cannot load programs); unload it (0 or IMGERR_NOTFOUND); look up a
       named value of a loaded program (0 and the value, or a status). The
       standalone defaults open shared objects with dlopen and look values up
       with dlsym. */
    int (*programCount)(const char* name);
    int (*loadProgram)(const char* path, const char* argument);
    int (*unloadProgram)(const char* name);
    int (*programValue)(void** value, const char* valueName, const char* program);
} ImageHost;

/* Installs host services; null members keep (or restore) the defaults.
   Passing null restores every default. Not to be called while other
   threads are inside the library. */
IMAGELIB_API void imagelib_setHost(const ImageHost* host) IMAGELIB_NOEXCEPT;

/* The allocator of buffers that belong to callers. */
IMAGELIB_API void* dlmSystem_korMalloc(size_t size) IMAGELIB_NOEXCEPT;
IMAGELIB_API void* dlmSystem_korCalloc(size_t count, size_t size) IMAGELIB_NOEXCEPT;
IMAGELIB_API int dlmSystem_korFree(void* p) IMAGELIB_NOEXCEPT;

/* Tagged scratch memory. */
IMAGELIB_API void* memutil_malloc(size_t size, uint32_t tag) IMAGELIB_NOEXCEPT;
IMAGELIB_API void memutil_free(void* p) IMAGELIB_NOEXCEPT;

/* Reads a configuration variable (standalone: the environment). 0 when set,
   nonzero when not set or when it does not fit the buffer. */
IMAGELIB_API int korSystem_getCfgVar(char* buffer, const char* name, int size) IMAGELIB_NOEXCEPT;

/* A configuration variable as an integer: its decimal value when set,
   otherwise whenUnset. */
IMAGELIB_API int imagelib_cfgInt(const char* name, int whenUnset) IMAGELIB_NOEXCEPT;

/* Configuration variables the library itself reads include KV_MAXPIXELS:
   the most pixels a reader allocates for one image whose stored data is
   compressed (PNG, JPEG, compressed TIFF strips and tiles, GIF, FLI/FLC,
   PCX, byte-encoded Sun, BMP and Targa run-length, Intergraph run-length,
   Group 4 and tiled, CALS, fax, RLC), since the file's length cannot bound
   such a picture. Default 2^28 (268435456); a positive decimal count
   replaces it, anything else keeps the default. It is read at every check,
   so a host's getCfgVar rules it. Larger images give IMGERR_BADFILE (-154)
   from the whole-image readers; uncompressed data is bounded by the file
   holding it instead. */

/* Loads string `number` of message list `list` into buffer (at least
   IMAGELIB_TEXT_MAX bytes). The resource argument is kept for the host's
   signature and ignored: the library has one catalogue. Nonzero on failure. */
IMAGELIB_API int korResource_loadFromStringList(char* buffer, void* resource, int list, int number) IMAGELIB_NOEXCEPT;

/* Path of the message catalogue in use, or null when none was found or it
   could not be parsed. Starts the library if needed. */
IMAGELIB_API const char* imagelib_catalogPath(void) IMAGELIB_NOEXCEPT;

/* Looks for fileName along the colon-separated search path held by the
   configuration variable pathVar (or along defaultPath when it is unset).
   A name with a slash is taken as it is. 0 and the full path in result
   (IMAGELIB_PATH_MAX bytes) when found; IMGERR_NOTFOUND otherwise. */
IMAGELIB_API int korFile_find(char* result, const char* fileName, const char* pathVar, const char* defaultPath) IMAGELIB_NOEXCEPT;

/* Splits a POSIX path into directory (with its trailing slash), base name
   and extension (without the dot). Any output may be null; each holds
   IMAGELIB_PATH_MAX bytes. A leading dot of the base name does not start an
   extension. Returns 0, or IMGERR_BADARG for a null or overlong path. */
IMAGELIB_API int korFile_parseName(char* dir, char* name, char* ext, const char* path) IMAGELIB_NOEXCEPT;

/* Builds dir + name + "." + ext (any part may be null or empty; a slash is
   added after dir when it has none). Returns 0 or IMGERR_BADARG when the
   result would not fit IMAGELIB_PATH_MAX bytes. */
IMAGELIB_API int korFile_buildName(char* out, const char* dir, const char* name, const char* ext) IMAGELIB_NOEXCEPT;

/* Calls a named host command with one argument; the command's answer, or
   IMGERR_NOHOSTCOMMAND (-121) when the host application is not loaded. */
IMAGELIB_API int imageHost_callCommand(const char* command, const void* arg) IMAGELIB_NOEXCEPT;

/* Shows message `number` of the status-bar list in the host's status bar,
   formatted with arg when arg is nonzero. 0 on success; the answers -121
   and -742 of the host count as success. */
IMAGELIB_API int imageUtil_showStatus(int number, int arg) IMAGELIB_NOEXCEPT;

/* Host programs (see ImageHost). A program that draws PMA images exports
   "<name>_displayProcedure" of type ImageDisplayProcedure, where <name> is
   the base name of its file (the program "/x/maps.pma" exports
   "maps_displayProcedure"). Called with rgb null it stores the image's
   width and height in *size; called with a buffer of size->x * size->y * 3
   bytes it draws the image into it as row-planar RGB (per row x red, x
   green, x blue bytes), calling progress (when not null) with (rows, row)
   before each row and stopping when it answers nonzero. It returns 0 or a
   library status. */
typedef int (*ImageDisplayProcedure)(uint8_t* rgb, ImageSize* size, StopFunction progress);

/* The number of loaded host programs called name (0 or 1). */
IMAGELIB_API int korSystem_getTaskStatistics(const char* name) IMAGELIB_NOEXCEPT;
/* Loads the host program at path, giving it argument. 0 or a status. */
IMAGELIB_API int korSystem_loadKorProgram(const char* path, const char* argument) IMAGELIB_NOEXCEPT;
/* Unloads the host program called name. 0 or IMGERR_NOTFOUND. */
IMAGELIB_API int korSystem_unloadKorProgram(const char* name) IMAGELIB_NOEXCEPT;
/* Looks up the value named expression in the loaded program called
   program: 0 and the value in *value, or a status (IMGERR_NOTFOUND). */
IMAGELIB_API int korCExpression_getValue(void** value, const char* expression, const char* program) IMAGELIB_NOEXCEPT;

IMAGELIB_EXTERN_C_END

#endif
