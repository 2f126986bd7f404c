// One row of RGB between the interleaved form of the codec libraries
// (R, G, B bytes a pixel) and the library's row planes (width red bytes,
// then green, then blue). Vector paths are chosen at run time.
#pragma once

#include <cstddef>
#include <cstdint>

namespace il {

// Planes r, g, b (width bytes each) from rgb (3 x width bytes); none may
// overlap another. With r and b exchanged the interleaved side is B, G, R.
void rgbRowToPlanes(uint8_t* r, uint8_t* g, uint8_t* b, const uint8_t* rgb, size_t width) noexcept;

// rgb (3 x width bytes) from planes r, g, b; none may overlap rgb.
void planesToRGBRow(uint8_t* rgb, const uint8_t* r, const uint8_t* g, const uint8_t* b, size_t width) noexcept;

// The same for one row of row-planar RGB (width red bytes, then green,
// then blue), with the interleaved side R, G, B or B, G, R (BMP, Targa).
inline void rgbRowToPlanes(uint8_t* planes, const uint8_t* rgb, size_t width) noexcept {
    rgbRowToPlanes(planes, planes + width, planes + 2 * width, rgb, width);
}
inline void bgrRowToPlanes(uint8_t* planes, const uint8_t* bgr, size_t width) noexcept {
    rgbRowToPlanes(planes + 2 * width, planes + width, planes, bgr, width);
}
inline void planesToRGBRow(uint8_t* rgb, const uint8_t* planes, size_t width) noexcept {
    planesToRGBRow(rgb, planes, planes + width, planes + 2 * width, width);
}
inline void planesToBGRRow(uint8_t* bgr, const uint8_t* planes, size_t width) noexcept {
    planesToRGBRow(bgr, planes + 2 * width, planes + width, planes, width);
}

}  // namespace il
