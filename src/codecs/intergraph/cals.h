// CALS raster (type 22: a 2048-byte text header, then a Group 4 code stream,
// most significant bit first) and fax files (type 21: the code stream
// alone, always 1728 x 84).
#pragma once

#include <cstdint>

#include "imagelib/types.h"

// Size from the "rpelcnt" record (found only at the start of a 128-byte
// record); colour mode 5. IMGERR_OPENFAILED, or 32768 (a positive value)
// when no usable record is there.
int cals_readHeader(ImageSize* size, int* colourMode, const char* path) noexcept;

// One byte a pixel (0 white paper, 1 ink), palette of two: with invert set
// entry 0 white and entry 1 black, else the other way round.
int cals_readFileToMap(void** map, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue, int* count,
                       const char* path, int invert, StopFunction stop) noexcept;
// A bitmap (layout 1), or run-length rows (layout 2) with runLength set.
int cals_readFileToBitMap(void** bitmap, ImageSize* size, int runLength, const char* path,
                          StopFunction stop) noexcept;

int fax_readFileInfo(ImageSize* size, int* colourMode, const char* path) noexcept;
int fax_readFileToMap(void** map, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue, int* count,
                      const char* path, int invert, StopFunction stop) noexcept;
// Kept as the format has it: the size comes from a CALS "rpelcnt" record
// (plain fax files fail with 32768) and rows are width bytes apart.
int fax_readFileToBitMap(void** bitmap, ImageSize* size, const char* path, StopFunction stop) noexcept;

int cals_createFileFromBitMap(const char* path, const void* buffer, int runLength, const ImageSize* size,
                              StopFunction stop) noexcept;
int cals_createFileFromMap(const char* path, const void* buffer, const uint8_t* red, const uint8_t* green,
                           const uint8_t* blue, int count, const ImageSize* size, int colourMode, int packedRows,
                           StopFunction stop) noexcept;
int cals_createFileFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, StopFunction stop) noexcept;

// The 2048-byte header the writers put out.
void cals_buildHeader(char header[2048], const ImageSize* size) noexcept;
