// Overflow-safe size arithmetic and the limits on sizes read from files.
#pragma once

#include <cstddef>
#include <cstdint>

namespace il {

// Largest width or height accepted from a file header, and the largest
// buffer the library will allocate for one image (the image model counts
// bytes in a signed 32-bit integer).
constexpr int64_t kMaxDimension = 1 << 20;
constexpr int64_t kMaxImageBytes = INT32_MAX;

// a * b into out; false on overflow.
inline bool mulSize(size_t a, size_t b, size_t* out) { return !__builtin_mul_overflow(a, b, out); }
inline bool addSize(size_t a, size_t b, size_t* out) { return !__builtin_add_overflow(a, b, out); }

// True when x by y pixels of bytesPerPixel bytes is a size the library can
// hold (both dimensions positive and within kMaxDimension, total within
// kMaxImageBytes). The byte count goes to *bytes when given.
inline bool imageBytes(int64_t x, int64_t y, int64_t bytesPerPixel, size_t* bytes = nullptr) {
    if (x <= 0 || y <= 0 || x > kMaxDimension || y > kMaxDimension || bytesPerPixel <= 0) return false;
    int64_t total = x * y;
    if (total > kMaxImageBytes / bytesPerPixel) return false;
    if (bytes) *bytes = size_t(total * bytesPerPixel);
    return true;
}

// The most pixels a reader allocates for one image whose stored data is
// compressed, where the file's length cannot bound the picture: 2^28 unless
// the host's configuration variable KV_MAXPIXELS holds another positive
// count. Read at every call, so a host's configuration callback rules it.
constexpr int64_t kDefaultMaxPixels = int64_t(1) << 28;
int64_t maxPixels() noexcept;

// True when x by y pixels (both positive) is within maxPixels(). Readers of
// compressed data call it before they allocate the whole image and answer
// IMGERR_BADFILE when it fails.
inline bool withinPixelLimit(int64_t x, int64_t y) noexcept {
    if (x <= 0 || y <= 0 || x > kMaxDimension || y > kMaxDimension) return false;
    return x * y <= maxPixels();
}

}  // namespace il
