// FLI and FLC animations (file types 14 and 15): the reader of the first
// frame that the read dispatch calls, the one-frame writers that the write
// dispatch calls, and the frame-by-frame writer behind the movie functions.
//
// A file is a 128-byte header, an optional prefix chunk (FLC), frame chunks
// and a last "ring" frame that leads from the last frame back to the first.
// Frames are 8-bit palette images; every frame after the first is written
// as a delta against the one before it. FLI files are 320 x 200 with a
// palette of 6-bit components and a speed in 1/70 s; FLC files are of any
// size with 8-bit components and a speed in milliseconds.
//
// Palettes of 6-bit components are widened as (v << 2) | (v >> 4), so that
// 63 reads as 255.
#pragma once

#include <cstddef>
#include <cstdint>

#include "imagelib/types.h"

constexpr uint16_t kFliMagic = 0xAF11;
constexpr uint16_t kFlcMagic = 0xAF12;
constexpr uint16_t kFlicFrameChunk = 0xF1FA;
constexpr uint16_t kFlicPrefixChunk = 0xF100;
constexpr size_t kFlicHeaderBytes = 128;
constexpr size_t kFlicFrameHeaderBytes = 16;
constexpr size_t kFlicSubHeaderBytes = 6;
// Most frames a file may hold (the format's documented limit).
constexpr int kFlicMaxFrames = 4000;
// Frame delay of the one-frame writers, in ticks of 1/60 s.
constexpr int kFlicDefaultDelay = 4;

// Sub-chunk types inside a frame.
enum : uint16_t {
    kFlicColour256 = 4,   // palette packets, components 0..255
    kFlicDeltaFlc = 7,    // word-oriented line delta
    kFlicColour64 = 11,   // palette packets, components 0..63
    kFlicDeltaFli = 12,   // byte-oriented line delta
    kFlicBlack = 13,      // every pixel 0
    kFlicByteRun = 15,    // whole image, run-length coded
    kFlicCopy = 16,       // whole image, raw
    kFlicStamp = 18,      // thumbnail (skipped)
};

// The fields of the 128-byte header that the library uses.
struct FlicHeader {
    uint32_t fileSize;
    uint16_t magic;
    uint16_t frames;  // without the ring frame
    uint16_t width;
    uint16_t height;
    uint16_t depth;
    uint16_t flags;
    uint32_t speed;   // FLC milliseconds; FLI 1/70 s (16 bits)
    uint32_t oframe1; // FLC only: offsets of the first and second frames
    uint32_t oframe2;
};

// The speed field for a delay of `delay` ticks of 1/60 s: FLI in 1/70 s,
// FLC in milliseconds, rounded, at least 1.
uint32_t imageFlic_speed(int delay, bool fli) noexcept;

// --- reading ---------------------------------------------------------------

// Parses the 128 bytes of a header: IMGERR_BADFILE unless the magic is FLI
// or FLC, the depth 0 or 8 and both dimensions at least 1.
int imageFlic_parseHeader(FlicHeader* header, const uint8_t* bytes) noexcept;

// Size and frame count (the header's, without the ring frame) of the file
// at path; either output may be null.
int imageFlic_readInfo(ImageSize* size, int* frames, const char* path) noexcept;

// Reads the first frame: one palette index a pixel, as a contiguous block of
// width x height bytes (packed 0) or as PackByte rows (packed nonzero), with
// its palette of 256 entries (black where frame 1 sets none). A frame that
// claims more bytes than the file holds is decoded as far as it goes; data
// that would write outside the frame gives IMGERR_BADFILE. stop is polled
// before each sub-chunk and each output row (IMGERR_STOPPED).
int imageFlic_readToMap(void** image, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue, int* count,
                        const char* path, int packed, StopFunction stop) noexcept;

// Applies one frame chunk (from its 16-byte header; at most `length` bytes
// of it are there) to canvas (width x height indices) and palette (256
// entries, red, green, blue interleaved). Chunks cut short are applied as
// far as they go; prefix, stamp and unknown sub-chunks are skipped.
// IMGERR_BADFILE for a chunk that is not a frame, a sub-chunk size below 6,
// or data that would write outside the canvas.
int imageFlic_decodeFrame(uint8_t* canvas, int width, int height, uint8_t* palette, const uint8_t* frame,
                          size_t length, StopFunction stop) noexcept;

// --- writing ---------------------------------------------------------------

// An animation being written frame by frame.
struct FlicWriter;

// Creates path for frames of size (each dimension 1..65535) shown `delay`
// ticks of 1/60 s each. flc 0 asks for FLI, which is written only at
// 320 x 200; any other size is written as FLC. IMGERR_BADARG for a bad size
// or a delay below 1, IMGERR_OPENFAILED, IMGERR_NOMEMORY.
int imageFlic_create(FlicWriter** writer, const char* path, const ImageSize* size, int delay, int flc) noexcept;

// Adds a frame from a palette image: a byte map, or PackByte rows when
// packed is nonzero, with `count` palette entries (the rest are written
// black). IMGERR_BADARG past kFlicMaxFrames; IMGERR_WRITEFAILED.
int imageFlic_writeFrameFromMap(FlicWriter* writer, const void* map, int packed, const uint8_t* red,
                                const uint8_t* green, const uint8_t* blue, int count, StopFunction stop) noexcept;

// Adds a frame from row-planar RGB: image format 4 as grey levels, 2 with a
// palette of 16 colours, any other with 256. Images of no more colours than
// that keep them exactly; others get an optimised palette and are dithered.
int imageFlic_writeFrameFromRGB(FlicWriter* writer, const uint8_t* rgb, int imageFormat, StopFunction stop) noexcept;

// Writes the ring frame and the final header, closes the file and frees the
// writer. A writer without frames leaves no file and gives IMGERR_NODATA;
// a failure of an earlier frame is returned again here.
int imageFlic_close(FlicWriter* writer) noexcept;

// One-frame files for the write dispatch (flc 0: FLI where the size allows).
int imageFlic_writeFromMap(const char* path, const void* map, const uint8_t* red, const uint8_t* green,
                           const uint8_t* blue, int count, const ImageSize* size, int packed, int flc,
                           StopFunction stop) noexcept;
int imageFlic_writeFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, int imageFormat, int flc,
                           StopFunction stop) noexcept;
