// QuickDraw pictures, version 2 (file type 4): indexed images as one
// PackBitsRect, true colour row by row as one DirectBitsRect of 32-bit
// pixels through the streaming layer's PICT row writer. PICT files are
// written only.
//
// Every file: a 512-byte zero preamble, a 54-byte picture header (frame,
// version 2 opcode, extended header, default highlight, clip region), the
// image opcode with its pixel map and rows, a zero pad byte when the length
// is odd, and the end-of-picture opcode. All words are big-endian.
//
// The "image format" codes of this writer are colour modes: 1 true colour,
// 2 up to 16 colours, 3 up to 256 colours, 4 grey.
#pragma once

#include <cstddef>
#include <cstdint>

#include "imagelib/types.h"

struct ImageFileContext;

// Bytes before the image opcode: preamble and picture header.
constexpr int kPictHeaderBytes = 566;
// Bytes of the DirectBitsRect opcode and its pixel map up to the rows.
constexpr int kPictDirectHeaderBytes = 70;

// PackBits-codes length bytes of input into output and returns the coded
// length. Runs of three or more equal bytes are repeat runs (at most 128 a
// piece, header 1 - n); everything else is literal (at most 127 a piece,
// header n - 1). output must hold pictPackBitsBound(length) bytes.
int imagePict_packBits(uint8_t* output, const uint8_t* input, int length) noexcept;

// Bytes that always hold the PackBits coding of length bytes.
constexpr size_t pictPackBitsBound(size_t length) { return length + (length + 126) / 127 + 1; }

// Writes a palette image (a byte map, or PackByte rows when packed is
// nonzero): image format 2 with pixel size 4, 3 with pixel size 8, 4 as
// grey levels of the palette with pixel size 8. The rows coded are always
// one index byte a pixel, also at pixel size 4, where the pixel map's row
// bytes say half that. IMGERR_BADARG for any other format. The row progress
// poll ends the rows with its nonzero answer, which is returned; the
// picture is still ended.
int imagePict_writeFromMap(const char* path, const void* map, const uint8_t* red, const uint8_t* green,
                           const uint8_t* blue, int colourCount, const ImageSize* size, int imageFormat, int packed,
                           StopFunction stop) noexcept;

// Writes row-planar RGB: format 1 as 32-bit DirectBitsRect rows (the
// streaming row writer), 2 and 3 as 8-bit indices of an optimised palette
// of 16 or 256 colours (dithered), 4 as 8-bit grey levels. IMGERR_BADARG for
// any other format.
int imagePict_writeFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, int imageFormat,
                           StopFunction stop) noexcept;

// --- streaming writer (32-bit rows) ------------------------------------------

// Creates path for rows of ctx->fileSize: writes the preamble, the picture
// header and the DirectBitsRect header, and installs the row and close
// operations (codes 4 and 4: rows top row first). 1 when the file cannot be
// opened (kept as it is), IMGERR_NOMEMORY, IMGERR_BADARG for a size the
// picture cannot describe. type and colourMode are not used.
int imagePict_createFile(ImageFileContext* ctx, const char* path, int type, int colourMode) noexcept;

// Writes one row: its byte count, then the PackBits-coded red, green and
// blue planes. IMGERR_WRITEFAILED once the stream has failed.
int imagePict_putRow(ImageFileContext* ctx, const uint8_t* red, const uint8_t* green, const uint8_t* blue,
                     const uint8_t* alpha) noexcept;

// Pads the file to an even length, writes the end opcode, closes the file
// and frees the handler's state.
int imagePict_closeFile(ImageFileContext* ctx) noexcept;
