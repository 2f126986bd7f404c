// AVI movies (file type 26), written natively: RIFF 'AVI ' with one
// uncompressed 24-bit video stream (bottom-up rows of blue, green, red
// padded to 4 bytes, one '00db' chunk a frame, every frame a key frame) and
// an 'idx1' index. AVI files are not read.
//
// Frames are the movie's size with the height rounded down to a multiple of
// 8: image rows below it are dropped. Timing: a delay of d ticks (1/60 s)
// that divides 60 is written as rate 60 / d with scale 1; any other delay as
// rate 60 with scale d, which players read exactly.
#pragma once

#include <cstddef>
#include <cstdint>

#include "imagelib/types.h"

// The result of a failed file operation of the writer; the operation's own
// status is kept in the record and given back by imageAvi_close.
constexpr int kAviFailed = 32768;
// Largest file the writer makes: the sizes of an AVI 1.0 file are 32-bit.
constexpr uint64_t kAviMaxFileBytes = UINT32_MAX;

// An AVI movie being written.
struct AviWriter;

// 0: the native writer is always there.
int imageAvi_load() noexcept;

// Creates path for frames of size shown `delay` ticks each. IMGERR_BADARG
// for a delay below 1 or a frame of no rows (height below 8) or no columns,
// IMGERR_NOMEMORY when the record cannot be had, kAviFailed when the file
// cannot be created or written.
int imageAvi_create(AviWriter** writer, const ImageSize* size, int delay, const char* path) noexcept;
// The same with a smaller file limit (for tests of the limit).
int imageAvi_createLimited(AviWriter** writer, const ImageSize* size, int delay, const char* path,
                           uint64_t maxFileBytes) noexcept;

// Writes a frame from row-planar RGB of the movie's size. The rows are
// converted from the last kept row up, each after a poll of stop; a stop
// ends the conversion and the frame is written with the rows of the frame
// before it where none were converted. kAviFailed when the frame cannot be
// written, or would take the file past its limit; later frames then fail
// the same way.
int imageAvi_writeFrameFromRGB(AviWriter* writer, const uint8_t* rgb, StopFunction stop) noexcept;

// The same from a byte map of size (the movie's width, at least its kept
// rows; IMGERR_BADARG otherwise) with its palette (count is not used:
// indices take the entry they name).
int imageAvi_writeFrameFromMap(AviWriter* writer, const uint8_t* map, const uint8_t* red, const uint8_t* green,
                               const uint8_t* blue, int count, const ImageSize* size, StopFunction stop) noexcept;

// Writes the index, completes the headers, closes the file and frees the
// writer. Returns the status of the last failed operation (0 when none
// failed), kAviFailed for a null writer.
int imageAvi_close(AviWriter* writer) noexcept;

// Frames a second of a delay as the stream header gives it: *rate / *scale.
void imageAvi_rate(int delay, uint32_t* rate, uint32_t* scale) noexcept;
