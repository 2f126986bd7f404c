// PC Paintbrush files (file type 5): the whole-image readers and writers that
// the read and write dispatch call, and the run-length line coder.
//
// Files are written as version 5: 256 colours as one plane of 8 bits with
// the palette after the pixels, 16 colours as four planes of 1 bit with the
// palette in the header. The readers take one-bit files of 1 to 8 planes,
// one plane of packed 2- or 4-bit pixels, and 8-bit files of 1 plane
// (palette indices) or 3 planes (true colour).
//
// The "image format" codes of this codec are the colour modes: 1 RGB, 2 up
// to 16 colours, 3 up to 256 colours, 4 grey (written as 256 colours),
// 5 bilevel.
#pragma once

#include <cstddef>
#include <cstdint>

#include "imagelib/types.h"

constexpr int kPcxHeaderBytes = 128;

// The header fields the readers use.
struct PcxHeader {
    uint8_t manufacturer;
    uint8_t version;
    uint8_t encoding;
    uint8_t bitsPerPixel;  // a plane
    uint16_t xMin, yMin, xMax, yMax;
    uint8_t palette[48];   // 16 entries of red, green, blue
    uint8_t planes;
    uint16_t bytesPerLine; // a plane
};

// Decodes the 128 header bytes.
void imagePcx_parseHeader(PcxHeader* header, const uint8_t* bytes) noexcept;

// The 16 colours of version 3 files, which carry no palette of their own.
extern const uint8_t kPcxDefaultPalette[48];

// --- the line coder -------------------------------------------------------------

// Run-length codes `length` bytes into out (at least 2 x length bytes) and
// returns the number of bytes written. A run of L equal bytes (2 to 64) is
// written with the count L - 1, and its last byte is coded again by what
// follows: "AAAB" becomes 0xC2 A A B. Bytes of 0xC0 and above that are not
// in a run are written as 0xC1 and the byte.
size_t imagePcx_encodeLine(uint8_t* out, const uint8_t* bytes, size_t length) noexcept;

// Decodes one line into buffer (size bytes, cleared first) from data[*pos]
// on, starting at index start, until the index reaches limit; a run is cut
// at size. Past the end of data every byte reads as 0xFF (*pos stops at
// length). Returns the index reached (beyond limit by the overshoot of the
// last run), or 0 when the value byte of the last run lay past the end.
int imagePcx_decodeLine(uint8_t* buffer, int start, int limit, int size, const uint8_t* data, size_t length,
                        size_t* pos) noexcept;

// --- reading ---------------------------------------------------------------

// Size and image format from the header: 1 for 8 bits in 3 planes, 3 for
// 8 bits otherwise, 5 for one plane of 1 bit, 2 for anything else. Either
// output may be null. No field is checked: 0 whenever the file opens,
// IMGERR_OPENFAILED otherwise.
int imagePcx_readInfo(ImageSize* size, int* imageFormat, const char* path) noexcept;

// Reads a file into one palette index a pixel (a contiguous map, or PackByte
// rows with packed nonzero), or, for 8 bits in 3 planes, into row-planar RGB
// with a colour count of 0 (contiguous only; packed gives
// IMGERR_UNSUPPORTEDTYPE). The palette: the default one for version 3, else
// the header's 16 entries, replaced from version 5 on by the palette at the
// end of the file when one is there; entries not set are 0. A file that
// cannot be opened gives IMGERR_NOMEMORY (kept as it is). Depths the reader
// does not decode give IMGERR_BADFORMAT; impossible sizes IMGERR_BADFILE.
// stop is polled once a row (IMGERR_STOPPED).
int imagePcx_readToMap(void** map, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue, int* colourCount,
                       const char* path, int packed, StopFunction stop) noexcept;

// Reads a file of one plane of 1 bit into a bitmap (layout 1), or run-length
// rows (layout 2) with runLength nonzero. Bits are taken as stored: a set
// bit is palette index 1. IMGERR_UNSUPPORTEDTYPE for any other file.
int imagePcx_readToBitMap(void** bitmap, ImageSize* size, int runLength, const char* path,
                          StopFunction stop) noexcept;

// --- writing ---------------------------------------------------------------

// Writes a palette image (a byte map, or PackByte rows with packed nonzero):
// image format 2 as 16 colours in four planes, 3 as 256 colours, 4 as the
// palette's grey levels in 256 colours; IMGERR_BADARG for any other. Returns
// 1 when stop asked to stop (the file is still closed), else 0 or a status.
int imagePcx_writeFromMap(const char* path, const void* map, const uint8_t* red, const uint8_t* green,
                          const uint8_t* blue, int colourCount, const ImageSize* size, int imageFormat, int packed,
                          StopFunction stop) noexcept;

// Writes row-planar RGB: image format 2 as 16 colours and 3 as 256 colours
// (optimised palette, dithered), 4 as 256 grey levels; IMGERR_BADARG for
// any other. Stopping as for imagePcx_writeFromMap.
int imagePcx_writeFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, int imageFormat,
                          StopFunction stop) noexcept;
