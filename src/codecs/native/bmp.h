// Windows and OS/2 device-independent bitmaps (file type 9): the whole-image
// readers and writers that the read and write dispatch call, and the
// 24-bit row writer of the streaming layer.
//
// Readers return palette images as one index a pixel with a palette of three
// 256-byte arrays, true colour as row-planar RGB (layout 5), both from the
// host allocator. Every reader bounds what it reads by the file's length:
// sizes that the file cannot hold give IMGERR_BADFILE, a header cut short
// gives IMGERR_READFAILED.
//
// The "image format" codes of this codec are the colour modes: 1 RGB (24
// bits), 2 up to 16 colours (4 bits), 3 up to 256 colours (8 bits), 4 grey
// (8 bits), 5 bilevel (1 bit).
#pragma once

#include <cstddef>
#include <cstdint>

#include "imagelib/types.h"
#include "internal/file.h"

struct ImageFileContext;

// The 14-byte file header.
struct BmpFileHeader {
    uint8_t signature[2];   // "BM" (the last one read, after a bitmap-array chain)
    uint32_t fileSize;
    uint16_t reserved1;
    uint16_t reserved2;
    uint32_t dataOffset;    // raised to the end of the palette by the parser
    bool bitmapArray;       // the file began with an OS/2 bitmap-array chain
};

// The 40-byte info header; the 12-byte core header and the 16- and 64-byte
// OS/2 2.x headers are widened into it, and the bit fields of the 52-, 56-,
// 108- and 124-byte headers (or of the masks after a 40-byte header) are
// kept; the remaining fields of the larger headers are skipped.
struct BmpInfoHeader {
    uint32_t headerSize;    // always 40 after parsing
    uint32_t storedHeaderSize; // the size the file gave
    int32_t width;
    int32_t height;         // negative: rows stored top row first
    uint16_t planes;
    uint16_t bitCount;
    uint32_t compression;   // 0 none, 1 RLE8, 2 RLE4
    uint32_t imageSize;     // bytes of pixel data; computed when stored as 0
    int32_t xResolution;
    int32_t yResolution;
    uint32_t coloursUsed;   // 1 << bitCount when stored as 0
    uint32_t coloursImportant;
    bool imageSizeComputed; // the file stored 0 and the parser filled it in
    // Red, green, blue and alpha bit fields of 16- and 32-bit pixels: from the
    // file with bit-field compression, else 5-5-5 (16 bits) or 8-8-8 (32
    // bits) without alpha. Zero for other depths.
    uint32_t masks[4];
};

// Compression codes of the info header.
constexpr uint32_t kBmpUncompressed = 0;
constexpr uint32_t kBmpRle8 = 1;
constexpr uint32_t kBmpRle4 = 2;
constexpr uint32_t kBmpBitFields = 3;       // 16 and 32 bits, masks for red, green, blue
constexpr uint32_t kBmpAlphaBitFields = 6;  // the same with an alpha mask

// Results of imageBmp_decodeRleRow besides a pixel count.
constexpr int kBmpRleDelta = -1;    // delta escape: not supported
constexpr int kBmpRleOverrun = -2;  // the row ran past its width
constexpr int kBmpRleShort = -3;    // the data ended inside the row

// --- reading ---------------------------------------------------------------

// Size and image format (the colour mode above) of the file at path, from its
// headers. Either output may be null; the format is worked out only when
// asked for. 16- and 32-bit files are RGB (1), or RGB with alpha (6) when
// they have an alpha bit field; 2-bit files are 16-colour images (2).
// IMGERR_BADFILE for an unusable bit count and plane combination,
// IMGERR_BADFORMAT for compressions other than none, RLE and bit fields, and
// for 64-bit pixels (it overrides IMGERR_BADFILE).
int imageBmp_readInfo(ImageSize* size, int* imageFormat, const char* path) noexcept;

// Parses the headers of an open file positioned at its start, leaving it
// after the info header (where the palette begins). *fourBytePalette (when
// not null) is 1 after a 40-byte header, 0 after a 12-byte core header.
int imageBmp_readHeader(BmpFileHeader* fileHeader, BmpInfoHeader* infoHeader, int* fourBytePalette,
                        il::File& file) noexcept;

// Reads a file of 8 bits a pixel or fewer into one palette index a pixel:
// with packed 0 a contiguous block of width x height bytes in *map, with
// packed nonzero an array of height PackByte rows (layout 8). The palette
// goes to red, green, blue (256 bytes each) and its size to *colourCount.
// IMGERR_UNSUPPORTEDTYPE above 8 bits.
int imageBmp_readToMap(void** map, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue,
                       int* colourCount, const char* path, int packed) noexcept;

// Decodes one row of RLE8 (compression 1) or RLE4 (2) data from data[*pos],
// reading no byte at or past data[length], into row (at least `limit` bytes).
// Runs are cut at `limit`; pixels a row does not write keep their values.
// Returns the pixels written, or kBmpRleDelta, kBmpRleOverrun (the position
// passed `width`) or kBmpRleShort. *pos ends on an even offset.
int imageBmp_decodeRleRow(uint8_t* row, const uint8_t* data, size_t length, size_t* pos, int limit, int width,
                          uint32_t compression) noexcept;

// Reads a 16-, 24- or 32-bit file into a new row-planar RGB image in *rgb.
// Bit fields narrower than 8 bits are widened by repeating their bits;
// wider ones keep their top 8 bits. IMGERR_UNSUPPORTEDTYPE for 8 bits or
// fewer.
int imageBmp_readToRGB(uint8_t** rgb, ImageSize* size, const char* path) noexcept;

// The same with alpha: four planes a row (red, green, blue, alpha). Files
// without an alpha field, and 32-bit files whose alpha is 0 at every pixel,
// read as opaque.
int imageBmp_readToRGBA(uint8_t** rgba, ImageSize* size, const char* path) noexcept;

// Reads a one-plane 1-bit file into a bitmap: layout 1 in *bitmap, or with
// runLength nonzero a table of run-length rows (layout 2). Dark palette
// entries become set bits. IMGERR_UNSUPPORTEDTYPE for any other file; stop
// is polled once between reading and converting (IMGERR_STOPPED).
int imageBmp_readToBitMap(void** bitmap, ImageSize* size, int runLength, const char* path,
                          StopFunction stop) noexcept;

// --- writing ---------------------------------------------------------------

// Writes row-planar RGB: image format 1 as 24 bits, 2 as 4 bits and 3 as 8
// bits (optimised palette, dithered), 4 as 8-bit grey, 6 (four planes a row,
// alpha last) as 32 bits with a version 5 header whose bit fields include
// an alpha mask. IMGERR_BADARG for any other format. A nonzero stop answer ends the rows and is returned; the
// file is still finished.
int imageBmp_writeFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, int imageFormat,
                          StopFunction stop) noexcept;

// Writes a palette image (a byte map, or PackByte rows when packed is
// nonzero): image format 2 as 4 bits, 3 as 8 bits, 4 as 8-bit grey levels of
// the palette. IMGERR_BADARG for any other format.
int imageBmp_writeFromMap(const char* path, const void* map, const uint8_t* red, const uint8_t* green,
                          const uint8_t* blue, int colourCount, const ImageSize* size, int imageFormat,
                          int packed, StopFunction stop) noexcept;

// Writes a bitmap (layout 1, or run-length rows of layout 2 when runLength
// is nonzero) as 1 bit a pixel with the palette white, black: set bits are
// black.
int imageBmp_writeFromBitMap(const char* path, const void* bitmap, int runLength, const ImageSize* size,
                             StopFunction stop) noexcept;

// Writes 14 zero bytes in place of the file header, the 40-byte info header
// and, for 8 bits or fewer, a palette of 2^bits entries (entries at or
// beyond colourCount are zero).
int imageBmp_writeHeaders(il::File& file, const ImageSize* size, int bitCount, int colourCount,
                          const uint8_t* red, const uint8_t* green, const uint8_t* blue) noexcept;

// Seeks to the start and writes the final file header.
int imageBmp_finishFileHeader(il::File& file, uint32_t dataOffset, uint32_t fileSize) noexcept;

// --- streaming writer (24 bits, RGB rows) -----------------------------------

// Creates path for rows of ctx->fileSize and installs the row and close
// operations; 1 when the file cannot be opened (kept as it is), -116 when
// the row buffer cannot be had. type and colourMode are not used.
int imageBmp_createFile(ImageFileContext* ctx, const char* path, int type, int colourMode) noexcept;

// Writes one row; rows go to the file in the order given, the first one as
// the bottom row of the image.
int imageBmp_putRow(ImageFileContext* ctx, const uint8_t* red, const uint8_t* green, const uint8_t* blue,
                    const uint8_t* alpha) noexcept;

// Completes the file header, closes the file and frees the handler's state.
int imageBmp_closeFile(ImageFileContext* ctx) noexcept;
