// RLC files (type 24): bilevel images stored as the spans of set pixels of
// every line, 16-bit big-endian words. Read only.
#pragma once

#include <cstdint>

#include "imagelib/types.h"

// Size (header words: lines, then pixels a line) and colour mode 5.
int rlc_readFileInfo(ImageSize* size, int* colourMode, const char* path) noexcept;

// One byte a pixel, 1 inside the spans; palette of two (invert: entry 0
// white, entry 1 black; else the other way round).
int rlc_readFileToMap(void** map, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue, int* count,
                      const char* path, int invert, StopFunction stop) noexcept;

// A bitmap (layout 1) or run-length rows (layout 2). Each row comes out
// flipped left to right: the format's bitmap path has always done so.
int rlc_readFileToBitMap(void** bitmap, ImageSize* size, int runLength, const char* path,
                         StopFunction stop) noexcept;
