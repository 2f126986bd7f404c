// The rows of a palette image as palette writers take them: a byte map or
// PackByte rows, and for grey output each row turned into the grey levels
// of its palette entries under a 256-entry grey ramp (converted with a copy
// of the palette, so the caller's stays as it is).
#pragma once

#include <algorithm>
#include <cstring>

#include "imagelib/pixels.h"
#include "internal/scratch.h"
#include "pixels/colour.h"

namespace il {

class MapRows {
public:
    MapRows(const void* map, bool packed, bool grey, const uint8_t* red, const uint8_t* green, const uint8_t* blue,
            int colourCount, int width, uint32_t tag)
        : map_(map), packed_(packed), grey_(grey), colourCount_(colourCount), width_(width),
          unpacked_(packed ? size_t(width) : 1, tag), greyRow_(grey ? size_t(width) : 1, tag) {
        red_ = red, green_ = green, blue_ = blue, count_ = colourCount;
        if (grey) {
            const size_t n = size_t(std::clamp(colourCount, 0, 256));
            std::memcpy(copy_[0], red, n);
            std::memcpy(copy_[1], green, n);
            std::memcpy(copy_[2], blue, n);
            setGreyRamp(ramp_[0], ramp_[1], ramp_[2]);
            red_ = ramp_[0], green_ = ramp_[1], blue_ = ramp_[2];
            count_ = 256;
        }
    }
    bool ok() const { return unpacked_.ok() && greyRow_.ok(); }
    // The palette the file gets, and its size.
    const uint8_t* red() const { return red_; }
    const uint8_t* green() const { return green_; }
    const uint8_t* blue() const { return blue_; }
    int count() const { return count_; }

    // Row y as palette indices of the file's palette.
    const uint8_t* row(int y) {
        const uint8_t* src;
        if (packed_) {
            korImage_unpackByteBuffer(unpacked_.get(), static_cast<uint8_t* const*>(map_)[y], width_);
            src = unpacked_.get();
        } else {
            src = static_cast<const uint8_t*>(map_) + size_t(y) * size_t(width_);
        }
        if (!grey_) return src;
        int n = colourCount_;
        const ImageSize oneRow{width_, 1};
        if (int c = korImage_convertToGreyScale(greyRow_.get(), copy_[0], copy_[1], copy_[2], &n, src, &oneRow,
                                                IMAGEFORMAT_MAP, nullptr))
            status_ = c;
        return greyRow_.get();
    }
    // The first failure of a grey conversion, or 0.
    int status() const { return status_; }

private:
    const void* map_;
    bool packed_, grey_;
    int colourCount_, width_;
    Scratch<uint8_t> unpacked_, greyRow_;
    uint8_t copy_[3][256] = {}, ramp_[3][256] = {};
    const uint8_t *red_, *green_, *blue_;
    int count_ = 0;
    int status_ = 0;
};

// Runs a palette writer's rows top to bottom: poll(y) first, then
// out.row(build(y)) with the row's index bytes; a nonzero poll or a failed
// row ends the loop, and out.finish(status) closes the picture either way.
template <class Writer, class Poll, class Build>
int writeIndexRows(Writer& out, int height, Poll poll, Build build) {
    int status = 0;
    for (int y = 0; y < height; ++y) {
        if ((status = poll(y))) break;
        if ((status = out.row(build(y)))) break;
    }
    return out.finish(status);
}

}  // namespace il
