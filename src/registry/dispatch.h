// Pieces shared by the read and write dispatch.
#pragma once

#include <cstdint>
#include <cstring>

#include "imagelib/types.h"
#include "internal/scratch.h"

namespace il::dispatch {

// A palette of three 256-byte arrays and its entry count.
struct Palette {
    uint8_t red[256] = {};
    uint8_t green[256] = {};
    uint8_t blue[256] = {};
    int count = 0;
};

// The type to work with: type when 0 or more, else detected from the
// contents, then the name; IMGERR_UNSUPPORTEDTYPE when none is found.
int resolveType(int type, const char* path) noexcept;

// Frees an image of any layout on scope exit unless released.
class OwnedImage {
public:
    OwnedImage() = default;
    OwnedImage(void* p, ImageSize size, int layout) : p_(p), size_(size), layout_(layout) {}
    ~OwnedImage() { reset(); }
    OwnedImage(const OwnedImage&) = delete;
    OwnedImage& operator=(const OwnedImage&) = delete;
    void reset(void* p = nullptr, ImageSize size = {}, int layout = 0) {
        if (p_) korImage_freeImage(p_, &size_, layout_);
        p_ = p;
        size_ = size;
        layout_ = layout;
    }
    void* release() {
        void* p = p_;
        p_ = nullptr;
        return p;
    }
    void* get() const { return p_; }
    uint8_t* bytes() const { return static_cast<uint8_t*>(p_); }
    const ImageSize& size() const { return size_; }
    int layout() const { return layout_; }

private:
    void* p_ = nullptr;
    ImageSize size_{};
    int layout_ = 0;
};

// Reads a whole file through the streaming rows into row-planar RGB (with
// alpha: four planes a row), scaled to requested when given. Stopping
// returns 1 and still hands out the partly filled image.
int streamReadImage(uint8_t** out, ImageSize* outSize, const char* path, const ImageSize* requested, bool alpha,
                    StopFunction stop) noexcept;

// Writes row-planar RGB (with colourMode 6: four planes a row) through the
// streaming rows of the given type.
int streamWriteImage(const char* path, int type, int colourMode, const ImageSize* size, const uint8_t* rgb,
                     StopFunction stop) noexcept;

// The JPEG quality that the writers are given: held to 40..90.
constexpr int jpegQuality(int compression) { return compression < 40 ? 40 : compression > 90 ? 90 : compression; }

// True when a palette of count entries fits the colour mode.
constexpr bool paletteFits(int colourMode, int count) {
    switch (colourMode) {
        case 2: return count < 17;
        case 3:
        case 4: return count < 257;
        case 5: return count < 3;
        default: return false;
    }
}

}  // namespace il::dispatch
