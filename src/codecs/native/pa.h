// The library's own two simple raster formats.
//
// "p" files (file type 11): palette indices with an RGB colour map, in
// chunks. An 8-byte signature "SCMI" and the version 1, then chunks of a
// two-letter name and an 8-character length: "AT" (12 bytes: width, height
// and colour count as 4-character numbers), "CM" (the colour map, red,
// green, blue a colour) and "PD" (one index a pixel, top row first).
//
// "a" files (file type 12): RGB as a 12-byte header file holding width and
// height (two 4-character numbers and four spaces) and three plane files
// beside it, named like the header file with the extension "r", "g" and
// "b", each holding height rows of width bytes, top row first.
//
// Every number is decimal text right-aligned in its field with leading
// spaces. Readers return palette images as one index a pixel (or PackByte
// rows) with a palette of three 256-byte arrays, and RGB row-planar, from
// the host allocator.
#pragma once

#include <cstdint>

#include "imagelib/types.h"

// The positive result of the "p" writers for a value that does not fit its
// field (or a pixel index at or above the colour count), and of the "p"
// reader for a bad pixel chunk. Kept as it is: not a library status.
constexpr int kPOutOfRange = 32768;

// Largest width, height and colour count a "p" or "a" header can hold, and
// the largest chunk length.
constexpr unsigned kPMaxField = 9999;
constexpr unsigned kPMaxChunk = 99999999;

// Parses a right-aligned decimal field of `width` characters: leading
// spaces, then digits to the end of the field. False for any other
// character.
bool imagePA_parseField(const char* field, int width, unsigned* value) noexcept;

// --- "p" files (type 11) -----------------------------------------------------

// Writes a palette image: a byte map, or PackByte rows when packed is
// nonzero. A byte map with an index at or above colourCount gives
// kPOutOfRange before the file is created; so does a width, height or
// colour count above 9999. imageFormat is not used. Rows of PackByte images
// poll the progress function (stopped: 1, the file is kept as far as it
// got). IMGERR_OPENFAILED, IMGERR_WRITEFAILED, IMGERR_NOMEMORY.
int imageP_writeFromMap(const char* path, const void* map, const uint8_t* red, const uint8_t* green,
                        const uint8_t* blue, int colourCount, const ImageSize* size, int imageFormat, int packed,
                        StopFunction stop) noexcept;

// Writes row-planar RGB: image format 2 with an optimised palette of at most
// 16 colours, 3 of at most 256 (both dithered), 4 as 256 grey levels;
// IMGERR_BADARG for any other format. The stop function is polled before
// the file is opened and once a row: 1 when it answered nonzero, else 0 (or
// a failure status).
int imageP_writeFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, int imageFormat,
                        StopFunction stop) noexcept;

// Size and image format (2 for fewer than 16 colours, else 3) from the
// signature and attribute chunk. Either output may be null. IMGERR_BADFILE
// when they do not parse, IMGERR_OPENFAILED when the file cannot be opened.
int imageP_readInfo(ImageSize* size, int* imageFormat, const char* path) noexcept;

// Reads the image: with packed 0 a byte map of width x height in *map, with
// packed nonzero a table of height PackByte rows. The palette goes to red,
// green and blue (256 bytes each; entries the colour map does not fill are
// 0) and the colour count to *colourCount. Results: 0; 1 when the stop
// function answered nonzero before the pixels; IMGERR_STOPPED when it did
// during the rows; IMGERR_BADFILE for a bad header or colour map chunk, a
// zero size, more than 256 colours or pixels the file cannot hold;
// kPOutOfRange for a bad pixel chunk header.
int imageP_readToMap(void** map, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue, int* colourCount,
                     const char* path, int packed, StopFunction stop) noexcept;

// True when the file's signature and attribute chunk parse.
bool imageP_detect(const char* path) noexcept;

// --- "a" files (type 12) -----------------------------------------------------

// Writes the header file, then the red, green and blue plane files. The
// stop function is polled before every row: 1 when it answered nonzero (the
// plane file being written is closed as it is). IMGERR_BADARG for a width
// or height above 9999 (the header could not hold it), IMGERR_OPENFAILED,
// IMGERR_WRITEFAILED.
int imageA_writeFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, StopFunction stop) noexcept;

// Size and image format (always 1, RGB) from the 12-byte header; either
// output may be null. IMGERR_BADFILE unless both numbers parse and are at
// least 1.
int imageA_readInfo(ImageSize* size, int* imageFormat, const char* path) noexcept;

// Reads the header and the three plane files into a new row-planar RGB
// image. IMGERR_OPENFAILED when a file cannot be opened, IMGERR_READFAILED
// when a plane file is shorter than the image (found before the image is
// allocated), IMGERR_STOPPED when the progress function answered nonzero.
int imageA_readToRGB(uint8_t** rgb, ImageSize* size, const char* path, StopFunction stop) noexcept;

// True when the file's first 12 bytes are a header with both numbers at
// least 1.
bool imageA_detect(const char* path) noexcept;

// The plane file of an "a" image: path with its extension replaced by
// plane ('r', 'g' or 'b'). out holds IMAGELIB_PATH_MAX bytes. 0 or
// IMGERR_BADARG.
int imageA_planeName(char* out, const char* path, char plane) noexcept;
