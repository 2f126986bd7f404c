// WordPerfect Graphics version 1 (file type 8): one colour map record and
// one bitmap record of run-length coded rows. WPG files are written only.
//
// File: the 16-byte header ("\xFFWPC", first record at 16, product 1, file
// type 0x16, version 1.0), a start record with the screen size in 1/1200
// inch at 76 pixels an inch, the colour map (16 entries in the short
// record form, 256 in the long one), the bitmap record (type 0x0B, long
// length form) and the end record 0x10 0x00. Little-endian fields.
//
// The "image format" codes of this writer are colour modes: 2 up to 16
// colours (4 bits a pixel), 3 up to 256 colours (8 bits), 4 grey (8 bits).
#pragma once

#include <cstddef>
#include <cstdint>

#include "imagelib/types.h"
#include "internal/file.h"

// Writes the file header, the start record and the colour map record: the
// 256-entry form for 8-bit files and whenever colourCount exceeds 16, else
// the 16-entry form. Entries at or beyond colourCount are 0. false when a
// write failed.
bool imageWpg_writeHeader(il::File& file, const ImageSize* size, int depth, int colourCount, const uint8_t* red,
                          const uint8_t* green, const uint8_t* blue) noexcept;

// Run-length codes one row of length bytes into output and returns the
// coded length. A count byte with the high bit set repeats the next byte
// (low seven bits) times, one without it precedes that many literal bytes.
// A run of L equal bytes is coded with the count L - 1, its last byte going
// with what follows. output must hold wpgRowBound(length) bytes.
int imageWpg_encodeRow(uint8_t* output, const uint8_t* input, int length) noexcept;

// Bytes that always hold the coding of a row of length bytes.
constexpr size_t wpgRowBound(size_t length) { return 2 * length + 2; }

// Writes a palette image (a byte map, or PackByte rows when packed is
// nonzero): image format 2 with 4 bits a pixel, 3 with 8, 4 as 8-bit grey
// levels of the palette. IMGERR_BADARG for any other format. The row
// progress poll ends the rows with its nonzero answer, which is returned;
// the file is still completed.
int imageWpg_writeFromMap(const char* path, const void* map, const uint8_t* red, const uint8_t* green,
                          const uint8_t* blue, int colourCount, const ImageSize* size, int imageFormat, int packed,
                          StopFunction stop) noexcept;

// Writes row-planar RGB: format 2 as 4 bits and 3 as 8 bits a pixel of an
// optimised palette (dithered), 4 as 8-bit grey levels. IMGERR_BADARG for
// any other format.
int imageWpg_writeFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, int imageFormat,
                          StopFunction stop) noexcept;
