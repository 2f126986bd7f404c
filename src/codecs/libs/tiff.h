// TIFF files (types 0 and 3, and GeoTIFF 29 for the pixels) through libtiff:
// the message handler with its configuration flags, detection, file
// information, the whole-image readers (RGBA interface, palette index,
// bitmap, palette) and writers (bitmap, palette, RGB), the compression code
// tables and the streaming row handlers.
//
// Every entry point installs the message handler first and re-reads the
// three message flags (KV_TIFFMESSAGES, KV_IGNOREKNOWNWARNINGS,
// KV_IGNOREUNKNOWNTAGS; unset means 1). Buffers handed to callers come from
// the host allocator. Readers bound every size by the file before they
// allocate: a header that claims more pixels than the file could code gives
// IMGERR_BADFILE.
#pragma once

#include <cstdarg>
#include <cstdint>

#include "imagelib/types.h"

struct ImageFileContext;

// ---- messages -----------------------------------------------------------------

// Message numbers of list -7505 that the library itself issues or that its
// rules name.
constexpr int kTiffMsgSeverity = 2;       // the severity label
constexpr int kTiffMsgUnknownTag = 28;    // unknown tag (silenced by KV_IGNOREUNKNOWNTAGS)
constexpr int kTiffMsgOrientBottom = 62;  // orientation read as bottom-left
constexpr int kTiffMsgOrientTop = 63;     // orientation read as top-left
constexpr int kTiffMsgNoMemory = 64;      // libtiff out of memory
constexpr int kTiffMsgNoSpace = 65;       // libtiff could not allocate a buffer
constexpr int kTiffMsgSize = 132;         // the image size cannot be read
constexpr int kTiffMsgZlibInit = 140;     // compression library: set-up failed
constexpr int kTiffMsgZlibDecode = 141;   // compression library: decoding failed
constexpr int kTiffMsgZlibEncode = 142;   // compression library: encoding failed
constexpr int kTiffMsgGeoVersion = 171;   // GeoTIFF key directory too new
constexpr int kTiffMsgGeoModel = 172;     // GeoTIFF model type key missing
constexpr int kTiffMsgGeoTiepoint = 174;  // GeoTIFF pixel scale without tie point

// Installs the message handler as libtiff's warning and error handler,
// resets the last message code to 0 and re-reads the three flags.
void tiff_installHandlers() noexcept;

// Mode 0 saves the messages-enabled flag and clears it, 1 restores the saved
// value, any other mode sets it to 1.
void tiff_suppressMessages(int mode) noexcept;

// The code of the last message seen on this thread (0: none since the last
// tiff_installHandlers).
int tiff_lastMessageCode() noexcept;

// The message number of a libtiff message text (its format string): one
// number per known text, 0 for a text the catalogue does not number.
int tiff_messageCode(const char* format) noexcept;

// The handler itself (module may be null): records the code and prints the
// message built from the catalogue unless the flags silence it.
void tiff_messageHandler(const char* module, const char* format, va_list args) noexcept;

// Issues one of the library's own messages (62, 63, 132, 171, 172, 174)
// through the same rules, with printf-style arguments for its text.
void tiff_issueMessage(int code, ...) noexcept;

// Where printed messages go: stderr unless a sink is set (tests). Null
// restores stderr. Per thread.
using TiffMessageSink = void (*)(const char* text);
void tiff_setMessageSink(TiffMessageSink sink) noexcept;

// ---- compression codes ------------------------------------------------------------

// The TIFF Compression value written for a library compression code; bits
// is the bit depth (unlisted codes give Group 4 for 1 bit, else PackBits).
int tiff_compressionFromCode(int code, int bits) noexcept;
// The library code of a TIFF Compression value read from a file.
int tiff_codeFromCompression(int compression) noexcept;

// The positive result of a failed scanline write (whole-image and streaming
// writers alike).
constexpr int kTiffWriteFailed = 32768;

// ---- detection and information ----------------------------------------------------

// 0 when the file starts with "II" or "MM" (and, for type 29, passes the
// GeoTIFF check); IMGERR_OPENFAILED, IMGERR_UNSUPPORTEDTYPE, or the GeoTIFF
// check's status otherwise.
int tiff_detect(const char* path, int type) noexcept;

// What tiff_readFileInfo reports.
struct TiffInfo {
    int type;          // 3, or 29 when the file carries a GeoTIFF key directory
    ImageSize size;
    int colourMode;    // ColorMode
    int orientation;   // 2 when the Orientation tag is 4 (bottom-left), else 0
    int flags;         // 0x307, + 0x20 tiled, + 0x40 rows readable directly
    float xResolution; // as stored, 0 when absent
    float yResolution;
    int compression;   // library compression code
};
constexpr int kTiffInfoFlags = 0x307;
constexpr int kTiffInfoTiled = 0x20;
constexpr int kTiffInfoDirectRows = 0x40;

int tiff_readFileInfo(TiffInfo* info, const char* path) noexcept;

// ---- readers -------------------------------------------------------------------

// The whole image through libtiff's RGBA interface as row-planar rows: width
// red, width green, width blue bytes (and width alpha bytes with withAlpha).
int tiff_readFileToRGBSeparate(uint8_t** buffer, ImageSize* size, const char* path, int withAlpha,
                               StopFunction stop) noexcept;

// Palette-index images (photometric 0, 1, 3; up to 8 bits) as a byte map, or
// PackByte rows when packed is set, with the palette of tiff_readPalette.
int tiff_readFileToMap(void** buffer, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue, int* count,
                       const char* path, int packed, StopFunction stop) noexcept;

// One-bit images as a bitmap, or run-length rows when runLength is set.
// Photometric 0, and palette files whose entry 0 is not black, are inverted
// (so that set bits are the white pixels); KV_RASTER_TIFFINVERT flips the
// decision.
int tiff_readFileToBitMap(void** buffer, ImageSize* size, int runLength, const char* path,
                          StopFunction stop) noexcept;

// The palette: a grey ramp of 2^bits levels (descending for photometric 0)
// or the ColorMap's high bytes (low bytes when every high byte is 0).
int tiff_readPalette(uint8_t* red, uint8_t* green, uint8_t* blue, int* count, const char* path) noexcept;

// The inversion decision of tiff_readFileToBitMap for an open file: 0, 1,
// or a status. Exposed for the tests.
struct tiff;
int tiff_getInvertFlag(struct tiff* tif) noexcept;

// ---- writers -------------------------------------------------------------------

// One-bit rows (packed, or run-length rows with runLength) with
// YResolution 196 and no XResolution; photometric 0 with minIsWhite, else 1.
int tiff_createFileFromBitMap(const char* path, const void* buffer, int runLength, const ImageSize* size,
                              int compressionCode, int minIsWhite, StopFunction stop) noexcept;

// Options of the palette writer.
struct TiffMapOptions {
    int count;            // palette entries
    ImageSize size;
    int colourMode;       // requested ColorMode
    int compressionCode;  // library compression code
    int packed;           // the rows are PackByte rows
    StopFunction stop;
};

// A palette image (byte map or PackByte rows): 4 bits (mode 2), 8 bits
// (mode 3), grey palette (mode 4); other modes are written as RGB.
int tiff_createFileFromMap(const char* path, const void* buffer, const uint8_t* red, const uint8_t* green,
                           const uint8_t* blue, const TiffMapOptions* options) noexcept;

// Row-planar RGB (four planes for mode 6) in colour mode 1..6.
int tiff_createFileFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, int colourMode,
                           int compressionCode, StopFunction stop) noexcept;

// ---- streaming rows ---------------------------------------------------------------

// Row reader: 0, or 1 (cannot open), 5 (unsupported photometric), 294 (no
// line buffer). Messages are suppressed while it opens.
int tiff_openStream(ImageFileContext* ctx, const char* path) noexcept;
// Row writer for type 0 (uncompressed) and 3 (PackBits); colour mode 6
// writes alpha. 0, 1 or 294; rows that fail to write give 32768.
int tiff_createStream(ImageFileContext* ctx, const char* path, int type, int colourMode) noexcept;
