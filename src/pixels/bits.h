// Bit-level helpers for one-bit rows (most significant bit first).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace il::bits {

// Bytes of a bitmap row of width pixels.
constexpr size_t rowBytes(size_t width) { return (width + 7) >> 3; }

// Up to eight bytes at p as a big-endian word (missing bytes read as 0).
inline uint64_t loadBE(const uint8_t* p, size_t avail) {
    if (avail >= 8) {
        uint64_t w;
        std::memcpy(&w, p, 8);
        return __builtin_bswap64(w);
    }
    uint64_t w = 0;
    for (size_t i = 0; i < avail; ++i) w |= uint64_t(p[i]) << (56 - 8 * i);
    return w;
}

// Stores the top `bytes` bytes of w (at most 8) at p, big-endian.
inline void storeBE(uint8_t* p, uint64_t w, size_t bytes) {
    if (bytes >= 8) {
        w = __builtin_bswap64(w);
        std::memcpy(p, &w, 8);
        return;
    }
    for (size_t i = 0; i < bytes; ++i) p[i] = uint8_t(w >> (56 - 8 * i));
}

// Mask of the bits of pixels from .. to - 1 of one byte (0 <= from < to <= 8).
constexpr uint8_t byteMask(unsigned from, unsigned to) { return uint8_t((0xFFu >> from) & ~(0xFFu >> to)); }

// Sets (colour 1) or clears (colour 0) pixels from .. to - 1 of a row.
inline void fill(uint8_t* row, size_t from, size_t to, bool colour) {
    if (from >= to) return;
    size_t fb = from >> 3, lb = (to - 1) >> 3;
    unsigned fo = unsigned(from & 7), lo = unsigned(((to - 1) & 7) + 1);
    if (fb == lb) {
        uint8_t m = byteMask(fo, lo);
        row[fb] = colour ? uint8_t(row[fb] | m) : uint8_t(row[fb] & ~m);
        return;
    }
    uint8_t hm = byteMask(fo, 8), tm = byteMask(0, lo);
    row[fb] = colour ? uint8_t(row[fb] | hm) : uint8_t(row[fb] & ~hm);
    if (lb > fb + 1) std::memset(row + fb + 1, colour ? 0xFF : 0x00, lb - fb - 1);
    row[lb] = colour ? uint8_t(row[lb] | tm) : uint8_t(row[lb] & ~tm);
}

}  // namespace il::bits
