// Sun raster files (file type 10): the whole-image readers and writers that
// the read and write dispatch call, and the byte-encoded row decoder.
//
// The reader takes 1-, 4- and 8-bit files, uncompressed or byte-encoded,
// into one palette index a pixel; the writers write 8-bit uncompressed
// files with an RGB colour map. True-colour files (24 and 32 bits) are not
// read.
//
// The "image format" codes of this codec are the colour modes: 2 up to 16
// colours, 3 up to 256 colours, 4 grey (written as 256 colours), 5 bilevel.
#pragma once

#include <cstddef>
#include <cstdint>

#include "imagelib/types.h"

constexpr uint32_t kSunMagic = 0x59A66A95;
constexpr int kSunHeaderBytes = 32;
constexpr uint32_t kSunByteEncoded = 2;  // the type of byte-encoded files

// The eight header words.
struct SunHeader {
    uint32_t magic, width, height, depth, length, type, mapType, mapLength;
};

// Decodes the 32 big-endian header bytes.
void imageSun_parseHeader(SunHeader* header, const uint8_t* bytes) noexcept;

// The byte decoder: the escape 0x80, count n (0 stands for one 0x80 byte)
// and a value written n + 1 times. A run left unfinished at the end of one
// call continues in the next, so rows may end inside a run.
struct SunDecoder {
    const uint8_t* data = nullptr;
    size_t length = 0;
    size_t pos = 0;
    int pending = 0;   // bytes of the current run still to come
    uint8_t value = 0;
};

// Fills `length` bytes of out from the file data at d->pos, decoding when
// encoded is nonzero, else copying. Returns 0, or 32768 when the data ends
// first (the bytes not reached are then 0).
int imageSun_readRow(SunDecoder* d, uint8_t* out, size_t length, int encoded) noexcept;

// Size and image format from the header: depth 1 gives 5, depths above 4
// give 3, others 2. Either output may be null. IMGERR_OPENFAILED,
// IMGERR_READFAILED for a header cut short, IMGERR_UNSUPPORTEDTYPE for a
// wrong magic number.
int imageSun_readInfo(ImageSize* size, int* imageFormat, const char* path) noexcept;

// Reads a file of 1, 4 or 8 bits into one palette index a pixel (a
// contiguous map, or PackByte rows with packed nonzero) with its colour map
// (entries not in the file are 0); without a colour map the palette is
// black, white. *colourCount is 2^depth. IMGERR_UNSUPPORTEDTYPE for a wrong
// magic number or another depth; IMGERR_BADFILE for sizes the data cannot
// hold. stop is polled once a row (IMGERR_STOPPED).
int imageSun_readToMap(void** map, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue, int* colourCount,
                       const char* path, int packed, StopFunction stop) noexcept;

// Writes a palette image (a byte map, or PackByte rows with packed nonzero):
// image format 3 as it is, 4 as the palette's grey levels with a grey ramp;
// IMGERR_BADARG for any other. Returns 1 when stop asked to stop (the file
// is still closed), else 0 or a status.
int imageSun_writeFromMap(const char* path, const void* map, const uint8_t* red, const uint8_t* green,
                          const uint8_t* blue, int colourCount, const ImageSize* size, int imageFormat, int packed,
                          StopFunction stop) noexcept;

// Writes row-planar RGB: image format 3 with an optimised palette of up to
// 256 colours (dithered), 4 as 256 grey levels; IMGERR_BADARG for any other.
// Stopping as for imageSun_writeFromMap.
int imageSun_writeFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, int imageFormat,
                          StopFunction stop) noexcept;
