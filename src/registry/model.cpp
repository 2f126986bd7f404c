// The image model: buffer sizes, release, status texts.
#include "imagelib/host.h"
#include "imagelib/types.h"

extern "C" {

int32_t korImage_memorySize(const ImageSize* size, int format) noexcept {
    if (!size) return IMGERR_BADARG;
    // Widened so that sizes that do not fit 32 bits wrap the way the
    // 32-bit arithmetic of the image model does, without undefined behaviour.
    int64_t x = size->x, y = size->y, n;
    switch (format) {
        case IMAGEFORMAT_BITMAP: n = ((x + 7) >> 3) * y; break;
        case IMAGEFORMAT_RLEBITMAP:
        case IMAGEFORMAT_PACKBYTE: n = y * int64_t(sizeof(void*)); break;  // the row pointer array
        case IMAGEFORMAT_MAP:
        case IMAGEFORMAT_MAP2: n = x * y; break;
        case IMAGEFORMAT_RGB:
        case IMAGEFORMAT_RGB2: n = x * y * 3; break;
        case IMAGEFORMAT_RGBA: n = x * y * 4; break;
        default: return IMGERR_BADARG;
    }
    return int32_t(uint32_t(uint64_t(n)));
}

int korImage_freeImage(void* buffer, const ImageSize* size, int format) noexcept {
    if (!buffer) return 0;
    if ((format == IMAGEFORMAT_RLEBITMAP || format == IMAGEFORMAT_PACKBYTE) && size) {
        void** rows = static_cast<void**>(buffer);
        for (int32_t i = 0; i < size->y; ++i)
            if (rows[i]) dlmSystem_korFree(rows[i]);
    }
    return dlmSystem_korFree(buffer);
}

const char* imagelib_statusText(int status) noexcept {
    switch (status) {
        case 0: return "success";
        case IMGSTAT_STREAM_STOPPED: return "stopped by the caller, or the file could not be opened";
        case IMGSTAT_NO_HANDLER: return "no streaming handler for this file type, or unreadable header";
        case IMGSTAT_NO_MORE_ROWS: return "no more rows";
        case IMGSTAT_NO_ROW_BUFFER: return "row buffer could not be allocated";
        case IMGSTAT_NO_BACKGROUND: return "no background colour, a short write, or GIF headers that do not parse";
        case IMGERR_NODATA: return "the requested data is not in the file";
        case IMGERR_BADIMAGEFORMAT: return "buffer layout not handled by this operation";
        case IMGERR_WRITEFAILED: return "write failed";
        case IMGERR_OPENFAILED: return "file cannot be opened";
        case IMGERR_NOTFOUND: return "not found";
        case IMGERR_NOMEMORY: return "out of memory";
        case IMGERR_UNSUPPORTEDTYPE: return "file type not supported by this operation";
        case IMGERR_READFAILED: return "read failed or file truncated";
        case IMGERR_NOHOSTCOMMAND: return "host command not available";
        case IMGERR_DECODEFAILED: return "the codec library could not decode or encode the image";
        case IMGERR_UNKNOWNTYPE: return "unknown file type";
        case IMGERR_BADARG: return "invalid argument";
        case IMGERR_NORESOURCE: return "message not found in the catalogue";
        case IMGERR_CANTCONVERT: return "conversion not possible for this layout";
        case IMGERR_STOPPED: return "stopped by the caller";
        case IMGERR_BADSCREEN: return "invalid screen number";
        case IMGERR_BADFILE: return "invalid or corrupt file";
        case IMGERR_BADFORMAT: return "unsupported depth, compression or organisation";
        case IMGERR_GEOKEYVERSION: return "GeoTIFF key directory version not supported";
        case IMGERR_HOSTSTATUSBAR: return "status bar not available";
        default: return "unknown status";
    }
}

const char* imagelib_version(void) noexcept { return IMAGELIB_VERSION_STRING; }

}  // extern "C"
