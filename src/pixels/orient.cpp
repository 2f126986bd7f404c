// Turning images stored in another scan orientation upright.
#include <cmath>
#include <numbers>

#include "imagelib/geo.h"

namespace {

constexpr double kPi = std::numbers::pi;

int rotateInPlace(void** image, ImageSize* size, int format, int angle, StopFunction stop) {
    return korImage_rotate(image, size, *image, size, format, angle, stop);
}

// The quarter turn that a transformation matrix asks for (elements 0, 1
// and 4 are read), or 0 for none. The angle a = atan2(m[4], m[0]) selects
// 90 anywhere in [pi/4, pi]: the test that would pick 180 from that range
// compares against 7 pi / 4 and can never hold, and that is how stored
// files have always been read.
int matrixAngle(const double* m) {
    if (!m || std::fabs(m[1]) < 1e-100 || std::fabs(m[0]) < 1e-100) return 0;
    const double a = std::atan2(m[4], m[0]);
    if (a >= kPi / 4 && a <= kPi) return 90;
    if (a >= -kPi && a < -3 * kPi / 4) return 180;
    if (a >= -3 * kPi / 4 && a < -kPi / 4) return 270;
    return 0;  // -pi/4 <= a < pi/4 (or not a number)
}

}  // namespace

extern "C" {

int korImage_transformToUpperLeftHorizontal(void** image, ImageSize* size, int orientation, int format,
                                            const double* matrix, StopFunction stop) noexcept {
    if (!image || !size) return IMGERR_BADARG;
    int status = 0;
    switch (orientation) {
        case 0:
            status = rotateInPlace(image, size, format, 90, stop);
            if (status == 0) status = korImage_mirror(*image, size, format, 0, stop);
            break;
        case 1: status = rotateInPlace(image, size, format, 270, stop); break;
        case 2: status = rotateInPlace(image, size, format, 90, stop); break;
        case 3:
            status = rotateInPlace(image, size, format, 270, stop);
            if (status == 0) status = korImage_mirror(*image, size, format, 0, stop);
            break;
        case 4:
            if (const int angle = matrixAngle(matrix)) status = rotateInPlace(image, size, format, angle, stop);
            break;
        case 5: status = korImage_mirror(*image, size, format, 1, stop); break;
        case 6: status = korImage_mirror(*image, size, format, 0, stop); break;
        case 7:
            status = korImage_mirror(*image, size, format, 1, stop);
            // The status of the last operation is what counts.
            status = korImage_mirror(*image, size, format, 0, stop);
            break;
        default: break;  // nothing to do
    }
    return status;
}

int korImage_convertToUpperLeftHorizontal(void** image, ImageSize* size, int orientation, int format,
                                          StopFunction stop) noexcept {
    return korImage_transformToUpperLeftHorizontal(image, size, orientation, format, nullptr, stop);
}

}  // extern "C"
