// JPEG files (file type 18) through libjpeg: 8-bit grey (one component) or
// colour (three components) only; CMYK and every other component count are
// refused with IMGERR_BADFILE.
//
// One working context per thread exists from the start to the end of each
// call; a fatal libjpeg error jumps back into the call, which releases the
// context and answers IMGERR_DECODEFAILED. The reader and the writer print
// libjpeg's messages; the header reader and the detector are silent.
#pragma once

#include <cstdint>

#include "imagelib/types.h"

// Size and colour mode (COLORMODE_RGB or COLORMODE_GREY) from the header.
// Either output may be null. IMGERR_OPENFAILED, IMGERR_NOMEMORY,
// IMGERR_DECODEFAILED (not a JPEG stream), IMGERR_BADFILE (unusable
// component count).
int jpegFile_readInfo(ImageSize* size, int* colourMode, const char* path) noexcept;

// 0 when path is a JPEG file of one or three components.
int jpegFile_detect(const char* path) noexcept;

// Reads the whole image. Colour files give row-planar RGB (layout 5) in
// *buffer and *count 0; grey files give a byte map (layout 3), or PackByte
// rows (layout 8) when packed is nonzero, with the 256-level grey ramp in
// red, green, blue and *count 256. ditherOff, twoPassOff and colourCount
// set libjpeg's quantisation inputs (quantisation itself stays off). The
// stop function is polled before each row (IMGERR_STOPPED).
int jpegFile_read(void** buffer, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue, int* count,
                  const char* path, int packed, int ditherOff, int twoPassOff, int colourCount,
                  StopFunction stop) noexcept;

// Reads the image reduced by denom (1, 2, 4 or 8) in the decoder itself
// (scaled inverse DCT): row-planar RGB (layout 5, grey files expanded) of
// each side divided by denom and rounded up. Refusals and stop as
// jpegFile_read; IMGERR_BADARG for another denom.
int jpegFile_readScaled(uint8_t** rgb, ImageSize* size, const char* path, int denom, StopFunction stop) noexcept;
// The quality that jpegFile_create writes with: the requested value when it
// lies in 0..90, else 75 (qualities above 90 are not offered).
constexpr int jpegFile_quality(int requested) { return requested >= 0 && requested <= 90 ? requested : 75; }

// Writes row-planar RGB (colour mode other than 4) or one grey byte a pixel
// (colour mode 4), baseline, with quality jpegFile_quality(quality); the
// file holds one grey component when greyOutput is nonzero, else YCbCr.
// IMGERR_OPENFAILED, IMGERR_NOMEMORY, IMGERR_DECODEFAILED (any fatal
// libjpeg error, a failed write included), IMGERR_STOPPED.
int jpegFile_create(const char* path, const ImageSize* size, const uint8_t* buffer, int quality, int colourMode,
                    int greyOutput, StopFunction stop) noexcept;

// Pixels a JPEG file is trusted to describe per byte of its length: a
// header claiming more is refused with IMGERR_BADFILE before allocation.
constexpr int64_t kJpegPixelsPerByte = 1024;
