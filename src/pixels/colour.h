// Colour helpers shared by the conversions and the codecs: the grey tone
// curve and weighted grey levels, the gamma table, the grey ramp palette
// and the keyed RGBA / key-mask conversions.
#pragma once

#include <cstddef>
#include <cstdint>

#include "imagelib/pixels.h"

namespace il {

// Tone curve applied to every weighted grey sum 0..255; its values lie in
// 1..254.
extern const uint8_t kGreyToneCurve[256];

// Integer grey weight sum: r * 30 / 100 + g * 59 / 100 + b * 11 / 100,
// each term truncated on its own (at most 254).
inline int greySum(int r, int g, int b) { return r * 30 / 100 + g * 59 / 100 + b * 11 / 100; }

// Grey level of the integer rule: the tone curve at the weighted sum.
inline uint8_t greyLevel(int r, int g, int b) { return kGreyToneCurve[greySum(r, g, b)]; }

// Grey level of the floating rule of the native writers:
// trunc(0.3 r + 0.59 g + 0.11 b + 0.5), no tone curve.
inline uint8_t greyLevelFloat(int r, int g, int b) {
    return uint8_t(int(0.3 * r + 0.59 * g + 0.11 * b + 0.5));
}

// Grey level of the 8-bit grey writers (BMP, PCX, Sun, "p"):
// trunc(0.11 b + 0.3 r + 0.59 g + 0.5), summed in that order in double
// precision (the order changes the result at some halves).
inline uint8_t greyLevelWriter(int r, int g, int b) { return uint8_t(int(0.11 * b + 0.3 * r + 0.59 * g + 0.5)); }

// Gamma table: T[i] = trunc((i / 255) ^ (1 / gamma) * 255 + 0.499999).
void buildGammaTable(uint8_t table[256], double gamma) noexcept;

// True when gamma changes nothing (exactly 1.0, or not a number).
bool gammaIsIdentity(double gamma) noexcept;

// Sets red[i] = green[i] = blue[i] = i for i = 0..255.
void setGreyRamp(uint8_t* red, uint8_t* green, uint8_t* blue) noexcept;

// True when red[i] = green[i] = blue[i] = i for every i below count.
bool isGreyRamp(const uint8_t* red, const uint8_t* green, const uint8_t* blue, int count) noexcept;

// The 32-bit key of a colour: R, G, B, 0 as a little-endian word.
constexpr uint32_t colourKey(uint8_t r, uint8_t g, uint8_t b) {
    return uint32_t(r) | (uint32_t(g) << 8) | (uint32_t(b) << 16);
}

// Row-planar RGB (src) to interleaved RGBA (dst, 4 bytes a pixel): A = 255
// where the pixel's key differs from `key`, 0 where it equals it. Polls
// imageUtil_stopped once a row and returns its nonzero answer.
int rgbToRGBAKeyed(uint8_t* dst, const uint8_t* src, const ImageSize* size, uint32_t key,
                   StopFunction stop) noexcept;

// Interleaved RGBA to interleaved RGB: drops every fourth byte of pixels
// pixels. dst may equal src.
void rgbaToRGB(uint8_t* dst, const uint8_t* src, size_t pixels) noexcept;

// Row-planar RGB (src) to rows of four planes in dst: the three colour
// planes copied, then width mask bytes, 0 where the pixel equals `key`
// and 255 elsewhere. Polls like rgbToRGBAKeyed.
int rgbToKeyMask(uint8_t* dst, const uint8_t* src, const ImageSize* size, uint32_t key, StopFunction stop) noexcept;

}  // namespace il
