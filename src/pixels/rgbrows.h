// One row of RGB between the interleaved form of the codec libraries
// (R, G, B bytes a pixel) and the library's row planes (width red bytes,
// then green, then blue). Vector paths are chosen at run time.
#pragma once

#include <cstddef>
#include <cstdint>

namespace il {

// planes (3 x width bytes) from rgb (3 x width bytes); the two must not overlap.
void rgbRowToPlanes(uint8_t* planes, const uint8_t* rgb, size_t width) noexcept;

// rgb (3 x width bytes) from planes (3 x width bytes); the two must not overlap.
void planesToRGBRow(uint8_t* rgb, const uint8_t* planes, size_t width) noexcept;

}  // namespace il
