// Affine warping and free-angle rotation: the geometry shared by the warp
// entry points, the CLI's rotation and the tests.
//
// Coordinates are continuous, x to the right and y downwards; pixel (i, j)
// covers [i, i + 1) x [j, j + 1) and its centre is (i + 0.5, j + 0.5). A
// matrix m[6] = {a, b, c, d, e, f} maps a source point (x, y) to the
// destination point (a x + c y + e, b x + d y + f).
#pragma once

#include "imagelib/types.h"

namespace il {

// The bounding box of a w x h image turned by `degrees`:
// ceil(|w cos| + |h sin|) by ceil(|w sin| + |h cos|), each at least 1. False
// when a side would not fit in 32 bits or the angle is not finite.
bool rotatedSize(ImageSize* out, ImageSize size, double degrees) noexcept;

// The matrix that turns an image of `from` counter-clockwise by `degrees`
// about its centre and puts that centre at the centre of `to`.
void rotationMatrix(double m[6], ImageSize from, ImageSize to, double degrees) noexcept;

// The inverse of m into inv; false when m is not finite or is singular
// (its columns nearly parallel relative to their length).
bool invertMatrix(double inv[6], const double m[6]) noexcept;

}  // namespace il
