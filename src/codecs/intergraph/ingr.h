// Intergraph raster files: the 1024-byte header and type resolution, the
// pixel decoders (data types 2, 9, 24, 27, 28, 29 and tiled 65 over them),
// georeference ("attach") reading and rewriting, the writers (CIT, COT,
// RLE) and the Intergraph RGB row handler of the streaming layer.
#pragma once

#include <cstddef>
#include <cstdint>

#include "imagelib/types.h"
#include "internal/file.h"
#include "internal/scratch.h"

struct ImageFileContext;

// The header fields this library uses, decoded from the first 1024 bytes.
struct IngrHeader {
    uint8_t raw[1024];
    int dataType;          // offset 4
    int tileDataType;      // tile packet offset 18 (data type 65), else 0
    uint32_t pixels;       // pixels per line (offset 184)
    uint32_t lines;        // number of lines (offset 188)
    int orientation;       // scan-line orientation (offset 194)
    int scannable;         // line header records present (offset 195)
    uint32_t headerLength; // words to follow x 2 + 4: where the data (or tile packet) start
    uint32_t colourTableType;  // offsets 532-535 read as one value
    uint32_t colourCount;  // offset 536
    int version;           // grid file version (offset 511)
    double matrix[16];     // transformation matrix, as doubles whatever the stored form
};

// Opens path and reads its header into raw[]: IMGERR_OPENFAILED, or
// IMGERR_UNSUPPORTEDTYPE when it is no Intergraph raster (wrong header type
// code, shorter than a header). The file stays open on success.
int ingr_openHeader(il::File& file, uint8_t header[1024], const char* path) noexcept;

// Reads the tile packet at offset into packet (the whole packet):
// IMGERR_NODATA when its type and subtype are not 1 and 7, IMGERR_BADFILE
// when it does not fit in the file, IMGERR_NOMEMORY.
int ingr_readTilePacket(il::Scratch<uint8_t>& packet, il::File& file, uint32_t offset) noexcept;

// Header, fields and (tiled files) the tiles' data type; the file stays open.
int ingr_readHeader(IngrHeader* h, il::File& file, const char* path) noexcept;

// The type a data type resolves to: 17, 13, 19, 1, 23, 20 (see the .cpp); -1
// for any other.
int ingr_typeFromDataType(int dataType, int tileDataType) noexcept;

// Every output optional: size (pixels, lines), colour mode, data type, the
// tiles' data type and the resolved type. IMGERR_UNSUPPORTEDTYPE for data
// types the library does not read.
int ingr_readHeaderInfo(ImageSize* size, int* colourMode, int* dataType, int* tileDataType, int* resolvedType,
                        const char* path) noexcept;

// Detector for types 1, 13, 16, 17, 19, 20, 23 and 25.
int ingr_detect(const char* path, int type) noexcept;

// Reads the picture upright: a byte map (layout 3) with its palette and
// count, or row-planar RGB (layout 5) with *isRGB set; host allocator.
// Binary data give 0 for background (white) and 1 for ink, with a palette
// white, black. colourMode (may be null) gets the file's colour mode.
int ingr_readImage(void** image, ImageSize* size, int* isRGB, uint8_t* red, uint8_t* green, uint8_t* blue,
                   int* count, int* colourMode, const char* path, StopFunction stop) noexcept;

// Bilevel files to a bitmap (layout 1) or run-length rows (layout 2); other
// palette files go through their grey levels, RGB files give
// IMGERR_UNSUPPORTEDTYPE.
int ingr_readToBitMap(void** bitmap, ImageSize* size, int runLength, const char* path, StopFunction stop) noexcept;

// The palette alone (grey ramp for grey files, white/black for binary ones).
int ingr_readPalette(uint8_t* red, uint8_t* green, uint8_t* blue, int* count, const char* path) noexcept;

// Georeference: origin (x, y, z), extent (width, height), orientation and,
// when words is not null, the first 12 matrix entries as raw 32-bit words
// (24 words: the 12 doubles as stored).
int ingr_extractAttach(double* origin, double* extent, int* orientation, uint32_t* words,
                       const char* path) noexcept;

// --- block access (ingr_blocks.cpp) ---------------------------------------------
// Decodes stored data of one coding (2, 9, 24, 27, 28, 29) into pixels x
// lines bytes, each line one plane (three for RGB: red, green, blue) of
// `pixels` bytes; tile selects the rules of tiles. The first `lines` lines
// of an untiled file decode from its data alone.
int ingr_decodeStored(uint8_t* out, uint32_t pixels, uint32_t lines, bool rgb, int dataType, const uint8_t* data,
                      size_t length, bool scannable, bool tile) noexcept;
// A tile with no stored data, in the same layout, from its `used` word.
void ingr_fillStored(uint8_t* out, uint32_t pixels, uint32_t lines, bool rgb, uint32_t value, int dataType) noexcept;
// The palette of an 8-bit file with a colour table; entry count or a status.
int ingr_readColourTable(il::File& file, const IngrHeader& h, uint8_t* red, uint8_t* green, uint8_t* blue) noexcept;
// 1 when the matrix maps stored (pixel, line) as the file holds them
// (binary data, or KV_KEEP_REGISTRATION), 0 when it maps the upright picture.
int ingr_keepRegistration(const IngrHeader& h) noexcept;

// --- writers -----------------------------------------------------------------
int ingr_createCITFromBitMap(const char* path, const void* buffer, int runLength, const ImageSize* size,
                             StopFunction stop) noexcept;
int ingr_createCITFromMap(const char* path, const void* buffer, const uint8_t* red, const uint8_t* green,
                          const uint8_t* blue, int count, const ImageSize* size, int colourMode, int packedRows,
                          StopFunction stop) noexcept;
int ingr_createCITFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, StopFunction stop) noexcept;
int ingr_createCOTFromMap(const char* path, const void* buffer, const uint8_t* red, const uint8_t* green,
                          const uint8_t* blue, int count, const ImageSize* size, int colourMode, int packedRows,
                          StopFunction stop) noexcept;
int ingr_createCOTFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, int colourMode,
                          StopFunction stop) noexcept;
int ingr_createRLEFromBitMap(const char* path, const void* buffer, int runLength, const ImageSize* size,
                             StopFunction stop) noexcept;
int ingr_createRLEFromMap(const char* path, const void* buffer, const uint8_t* red, const uint8_t* green,
                          const uint8_t* blue, int count, const ImageSize* size, int colourMode, int packedRows,
                          StopFunction stop) noexcept;
int ingr_createRLEFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, StopFunction stop) noexcept;

// Builds the run-length records of one line of one byte a pixel (nonzero =
// set) into words (at most 2 x width + 8 x (width / 762 + 1) + 8 words);
// returns the word count.
size_t ingr_encodeRunLine(uint16_t* words, const uint8_t* pixels, int width, int lineNumber) noexcept;

// --- Intergraph RGB streaming handler ------------------------------------------
int ingr_openRGB(ImageFileContext* ctx, const char* path) noexcept;
int ingr_createRGB(ImageFileContext* ctx, const char* path, int type, int colourMode) noexcept;
int ingr_backgroundRGB(uint8_t* rgb, const char* path) noexcept;

// The file a raster reference names: "http:" and "iip:" addresses and
// absolute names as they stand, other names looked for along the
// directories of KV_RFDIR. result holds IMAGELIB_PATH_MAX bytes.
// IMGERR_NOTFOUND when the search finds nothing.
int ingr_findReferenceFile(char* result, const char* name) noexcept;
