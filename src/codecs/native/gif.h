// GIF files (file type 7): the variable-width LZW coder and decoder, the
// writers from row-planar RGB (GIF87a) and from a palette-index map (GIF89a
// with a graphic control extension), and the reader of the first image of a
// file into a palette-index map.
//
// The coder and decoder talk to the file only through a put-byte and a
// get-byte routine and to the image only through a next-pixel and a
// take-pixel routine, so that one coder serves every pixel source.
//
// The "image format" codes of the writers are the colour modes: 2 up to 16
// colours (minimum code size 4, two pixels a symbol: see below), 3 up to
// 256 colours (code size 8), 4 (RGB writer only) 256 grey levels.
//
// Sixteen-colour files carry two pixels in each LZW symbol, the first in
// the high nibble, under a minimum code size of 4: a row of odd width pairs
// its last pixel with the first pixel of the next row. This pairing is kept
// on purpose; other GIF readers (this one included) do not see the image
// in such files.
#pragma once

#include <cstdint>

#include "imagelib/types.h"

// The reader's result for a file whose headers do not parse: a positive
// value, deliberately not a library status.
constexpr int kGifParseFailure = 32768;

// Results of the coder and decoder besides 0 and the routines' own values.
constexpr int kGifNoMemory = -2;     // the hash or string table cannot be allocated
constexpr int kGifBadCodeSize = -3;  // minimum code size out of range

// The next symbol (0 or more), -1 at the end of the data, or another
// negative value as an error that ends coding.
using GifNextPixel = int (*)(void* context);
// Writes one byte; nonzero on a write error, which ends coding.
using GifPutByte = int (*)(void* context, int byte);
// The next byte of the file, or a negative value (-1 at its end).
using GifGetByte = int (*)(void* context);
// Takes the next decoded pixel; a nonzero answer ends decoding.
using GifTakePixel = int (*)(void* context, int pixel);

// The LZW coder: writes the minimum code size byte, the code stream in data
// sub-blocks and the block terminator. 0, kGifNoMemory, kGifBadCodeSize
// (outside 1..9; 1 is raised to 2), or the first error of a routine.
int imageGif_encode(int minCodeSize, GifNextPixel next, void* nextContext, GifPutByte put,
                    void* putContext) noexcept;

// The LZW decoder: reads the minimum code size byte and the data
// sub-blocks. 0 at the end code (or a block terminator before it),
// kGifNoMemory, kGifBadCodeSize (outside 2..9), a negative get-byte result,
// the first nonzero answer of take, or IMGERR_BADFILE for a code that no
// decoder can give a meaning to (an undefined code right after a clear).
int imageGif_decode(GifGetByte get, void* getContext, GifTakePixel take, void* takeContext) noexcept;

// Writes row-planar RGB as a GIF87a file: image format 2 with an optimised
// 16-colour palette and dithering (paired pixels), 3 with an optimised
// 256-colour palette and dithering, 4 as 256 grey levels. IMGERR_BADARG for
// another format. The stop poll runs once a row; a nonzero answer ends the
// image (the file is still completed) and is returned. IMGERR_WRITEFAILED
// when the file could not be written in full.
int imageGif_writeFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, int imageFormat,
                          StopFunction stop) noexcept;

// Writes a palette image (a byte map, or PackByte rows when packed is
// nonzero) as a GIF89a file whose palette index 0 is transparent: image
// format 2 takes at most 16 colours (paired pixels), 3 at most 256.
// IMGERR_BADARG for more colours or another format. Stop as above.
int imageGif_writeFromMap(const char* path, const void* map, const uint8_t* red, const uint8_t* green,
                          const uint8_t* blue, int colourCount, const ImageSize* size, int imageFormat, int packed,
                          StopFunction stop) noexcept;

// Reads the first image of a GIF file into one palette index a pixel: with
// packed 0 a contiguous block of width x height bytes in *map, with packed
// nonzero an array of height PackByte rows (layout 8), both from the host
// allocator; rows the image data never reached are zero. The palette (the
// local table when the image has one, else the global table) goes to red,
// green and blue, its size to *colourCount.
// Results: 0; kGifParseFailure when the headers do not parse;
// IMGERR_OPENFAILED, IMGERR_NOMEMORY; IMGERR_BADFILE for a size of 0, more
// pixels than the file can hold, more pixels in the data than the image
// holds, a minimum code size outside 2..9 or an undefined code;
// IMGERR_READFAILED when the file ends inside the image data; the stop
// poll's nonzero answer (polled after each row).
int imageGif_readToMap(void** map, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue, int* colourCount,
                       const char* path, int packed, StopFunction stop) noexcept;

// Size of the first image and the transparent index that its graphic
// control extension gives (-1 when none marks one), from the headers alone.
// kGifParseFailure when they do not parse, IMGERR_OPENFAILED,
// IMGERR_BADFILE for an empty image.
int imageGif_readInfo(ImageSize* size, int* transparentIndex, const char* path) noexcept;

// Writes rows of four planes (red, green, blue, alpha) as a GIF89a palette
// file whose index 0 is the transparent entry: pixels with alpha below 128
// take index 0, the others their own colours when there are at most 255 of
// them, else 255 optimised, dithered colours. The
// transparent entry holds the colour of the first transparent pixel.
// Results as imageGif_writeFromMap.
int imageGif_writeFromRGBA(const char* path, const uint8_t* rgba, const ImageSize* size, StopFunction stop) noexcept;
