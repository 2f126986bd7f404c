// Quarter-turn rotation and mirroring kernels shared by the rotation,
// mirroring and orientation entry points.
//
// Geometry, x to the right and y downwards, W x H the source: 90 moves
// (x, y) to (y, W - 1 - x), 180 to (W - 1 - x, H - 1 - y), 270 to
// (H - 1 - y, x). The result of 90 and 270 is H wide and W high.
#pragma once

#include <cstddef>
#include <cstdint>

#include "imagelib/types.h"

namespace il {

// Rotates one byte component of an image by 90, 180 or 270 (other angles
// write nothing). Source pixel (x, y) is at src[y x srcRowStride + x x
// pixelStride], destination pixels likewise in dst. Polls (stop, H, y) once
// per source row, (stop, H, H - y) for 180, and stops at once on a nonzero
// answer; returns that answer (0 when the pass completed).
int rotateComponent(const uint8_t* src, size_t srcRowStride, uint8_t* dst, size_t dstRowStride, int32_t width,
                    int32_t height, int pixelStride, int angle, StopFunction stop) noexcept;

// The same for a one-bit image (layout 1): rows of (width + 7) / 8 bytes,
// destination rows of (new width + 7) / 8 bytes. Padding bits of the
// destination are cleared.
int rotateBits(const uint8_t* src, uint8_t* dst, int32_t width, int32_t height, int angle,
               StopFunction stop) noexcept;

// Writes bitmap row src of width pixels reversed left to right into dst
// ((width + 7) / 8 bytes, padding bits cleared). dst and src must not
// overlap.
void reverseBitRow(uint8_t* dst, const uint8_t* src, int32_t width) noexcept;

// Bytes of one pixel of the byte layouts: 3 for 5 and 6, 4 for 7, else 1.
constexpr size_t pixelBytes(int format) {
    return format == IMAGEFORMAT_RGBA ? 4 : (format == IMAGEFORMAT_RGB || format == IMAGEFORMAT_RGB2) ? 3 : 1;
}

// Most runs read from a run-length row of width pixels held in a caller's
// row table (which may come from a file): a row whose runs do not reach the
// width by then is bad data.
constexpr int runLimit(int32_t width) { return width > (INT32_MAX - 2) / 2 ? INT32_MAX : 2 * width + 2; }

}  // namespace il
