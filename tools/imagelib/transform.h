// convert's free-angle rotation and affine warp.
#pragma once

#include <cstdint>
#include <string>

#include "image.h"

namespace cli {

struct WarpOptions {
    bool rotate = false;       // --rotate DEG
    double degrees = 0;
    bool affine = false;       // --affine a,b,c,d,e,f
    double matrix[6] = {1, 0, 0, 1, 0, 0};
    uint8_t background[3] = {0, 0, 0};  // --background, black unless given
    int interpolation = IMAGEWARP_BILINEAR;
};

// "#rrggbb" or "r,g,b" (0..255 each).
bool parseColour(const std::string& s, uint8_t rgb[3]);
// nearest, bilinear or bicubic.
bool parseInterpolation(const std::string& s, int* code);
// A finite number.
bool parseDegrees(const std::string& s, double* degrees);
// Six comma-separated finite numbers.
bool parseMatrix(const std::string& s, double m[6]);

// Rotates (90, 180 and 270 by quarter turns, any other angle into the
// bounding box) and then warps by the matrix (into the image's own size),
// as the options ask. Palette images and bitmaps take the palette colour
// nearest the background. 0 or a status.
int transform(Image& img, const WarpOptions& options, StopFunction stop);

// convert IN OUT where IN is a binary 8-bit PPM, OUT a .ppm or .pnm name
// and the only operation a rotation by an angle that is not a quarter turn,
// or an affine warp: the input is read in place and the output written band
// by band as it is made, never whole in memory. False when the case is not
// one of these (nothing done); otherwise true with the command's exit code.
bool warpPpmFile(const std::string& in, const std::string& out, const WarpOptions& options, int* exitCode);

// A binary PPM of maxval 255 mapped into memory (pnm.cpp).
struct MappedPpm {
    MappedPpm() = default;
    ~MappedPpm();
    MappedPpm(const MappedPpm&) = delete;
    MappedPpm& operator=(const MappedPpm&) = delete;
    void* base = nullptr;
    size_t length = 0;
    const uint8_t* pixels = nullptr;  // interleaved RGB rows (layout 6)
    ImageSize size{};
};
// 0; 1 when the file is not such a PPM or is short (left to loadPnm);
// IMGERR_OPENFAILED.
int mapPpm(const std::string& path, MappedPpm& map);

}  // namespace cli
