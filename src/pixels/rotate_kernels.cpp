// Quarter-turn kernels: byte components in cache-sized tiles of 8 x 8
// transposed blocks, one-bit images in 8 x 8 bit blocks, and bit-row
// reversal.
#include <array>
#include <cstring>

#include "pixels/rotate.h"

namespace il {

namespace {

// Rows of a strip: polled together, then rotated tile by tile so that both
// the source and the destination lines of a tile stay in the caches.
constexpr int32_t kTile = 64;

inline uint64_t load64(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
}
inline void store64(uint8_t* p, uint64_t v) { std::memcpy(p, &v, 8); }

// Exchanges the `shift`-bit fields selected by mask between a (upper) and b.
inline void swapFields(uint64_t& a, uint64_t& b, int shift, uint64_t mask) {
    const uint64_t t = ((a >> shift) ^ b) & mask;
    b ^= t;
    a ^= t << shift;
}

// Transposes 8 x 8 bytes held little-endian in r: afterwards r[c] holds
// column c, byte k of it being row k.
inline void transposeBytes8(uint64_t r[8]) {
    for (int k = 0; k < 8; k += 2) swapFields(r[k], r[k + 1], 8, 0x00FF00FF00FF00FFull);
    for (int k : {0, 1, 4, 5}) swapFields(r[k], r[k + 2], 16, 0x0000FFFF0000FFFFull);
    for (int k = 0; k < 4; ++k) swapFields(r[k], r[k + 4], 32, 0x00000000FFFFFFFFull);
}

// Transposes an 8 x 8 bit matrix: byte j (from the top) is row j, bit 7 - c
// of it column c.
inline uint64_t transposeBits8(uint64_t x) {
    uint64_t t = (x ^ (x >> 7)) & 0x00AA00AA00AA00AAull;
    x ^= t ^ (t << 7);
    t = (x ^ (x >> 14)) & 0x0000CCCC0000CCCCull;
    x ^= t ^ (t << 14);
    t = (x ^ (x >> 28)) & 0x00000000F0F0F0F0ull;
    x ^= t ^ (t << 28);
    return x;
}

constexpr std::array<uint8_t, 256> kReversed = [] {
    std::array<uint8_t, 256> t{};
    for (int i = 0; i < 256; ++i) {
        int r = 0;
        for (int b = 0; b < 8; ++b)
            if (i & (1 << b)) r |= 0x80 >> b;
        t[size_t(i)] = uint8_t(r);
    }
    return t;
}();

// Polls rows y0 .. y1 - 1 of a pass; returns the first nonzero answer and
// moves y1 back to the row that asked to stop.
int pollRows(StopFunction stop, int32_t height, int32_t y0, int32_t& y1) {
    for (int32_t y = y0; y < y1; ++y) {
        const int answer = imageUtil_reportProgress(stop, height, y);
        if (answer != 0) {
            y1 = y;
            return answer;
        }
    }
    return 0;
}

struct Component {
    const uint8_t* src;
    size_t srcRow;
    uint8_t* dst;
    size_t dstRow;
    int32_t w, h;
    size_t ps;  // pixel stride
    bool clockwise;

    // Destination of source pixel (x, y) for 90 (counter-clockwise) or 270.
    uint8_t* to(int32_t x, int32_t y) const {
        return clockwise ? dst + size_t(x) * dstRow + size_t(h - 1 - y) * ps
                         : dst + size_t(w - 1 - x) * dstRow + size_t(y) * ps;
    }
    const uint8_t* from(int32_t x, int32_t y) const { return src + size_t(y) * srcRow + size_t(x) * ps; }

    void pixels(int32_t x0, int32_t x1, int32_t y0, int32_t y1) const {
        for (int32_t y = y0; y < y1; ++y)
            for (int32_t x = x0; x < x1; ++x) *to(x, y) = *from(x, y);
    }

    // One block of 8 x 8 one-byte pixels at (x, y).
    void block8(int32_t x, int32_t y) const {
        uint64_t r[8];
        for (int k = 0; k < 8; ++k) r[k] = load64(from(x, y + k));
        transposeBytes8(r);
        if (clockwise) {
            // Source rows y .. y + 7 land in columns h - 1 - y down to h - 8 - y.
            for (int c = 0; c < 8; ++c) store64(to(x + c, y + 7), __builtin_bswap64(r[c]));
        } else {
            for (int c = 0; c < 8; ++c) store64(to(x + c, y), r[c]);
        }
    }

    // Rows y0 .. y1 - 1 (at most one strip), tile by tile.
    void strip(int32_t y0, int32_t y1) const {
        for (int32_t tx = 0; tx < w; tx += kTile) {
            const int32_t tx1 = tx + kTile < w ? tx + kTile : w;
            if (ps != 1) {
                pixels(tx, tx1, y0, y1);
                continue;
            }
            int32_t y = y0;
            for (; y + 8 <= y1; y += 8) {
                int32_t x = tx;
                for (; x + 8 <= tx1; x += 8) block8(x, y);
                pixels(x, tx1, y, y + 8);
            }
            pixels(tx, tx1, y, y1);
        }
    }
};

}  // namespace

int rotateComponent(const uint8_t* src, size_t srcRowStride, uint8_t* dst, size_t dstRowStride, int32_t width,
                    int32_t height, int pixelStride, int angle, StopFunction stop) noexcept {
    const size_t ps = size_t(pixelStride);
    if (angle == 180) {
        for (int32_t y = 0; y < height; ++y) {
            const int answer = imageUtil_reportProgress(stop, height, height - y);
            if (answer != 0) return answer;
            const uint8_t* s = src + size_t(y) * srcRowStride;
            uint8_t* d = dst + size_t(height - 1 - y) * dstRowStride + size_t(width - 1) * ps;
            if (ps == 1) {
                for (int32_t x = 0; x < width; ++x) d[-x] = s[x];
            } else {
                for (int32_t x = 0; x < width; ++x) *(d - size_t(x) * ps) = s[size_t(x) * ps];
            }
        }
        return 0;
    }
    if (angle != 90 && angle != 270) return 0;
    const Component c{src, srcRowStride, dst, dstRowStride, width, height, ps, angle == 270};
    for (int32_t y0 = 0; y0 < height; y0 += kTile) {
        int32_t y1 = y0 + kTile < height ? y0 + kTile : height;
        const int answer = pollRows(stop, height, y0, y1);
        c.strip(y0, y1);  // the rows polled before a stop are still done
        if (answer != 0) return answer;
    }
    return 0;
}

void reverseBitRow(uint8_t* dst, const uint8_t* src, int32_t width) noexcept {
    if (width <= 0) return;
    const size_t n = (size_t(width) + 7) >> 3;
    const unsigned pad = unsigned(n * 8 - size_t(width));
    // Reversing the whole bytes puts the padding bits first; shift them out.
    for (size_t i = 0; i < n; ++i) {
        const unsigned hi = kReversed[src[n - 1 - i]];
        const unsigned lo = i + 1 < n ? kReversed[src[n - 2 - i]] : 0;
        dst[i] = pad ? uint8_t((hi << pad) | (lo >> (8 - pad))) : uint8_t(hi);
    }
}

int rotateBits(const uint8_t* src, uint8_t* dst, int32_t width, int32_t height, int angle,
               StopFunction stop) noexcept {
    const size_t srcRow = (size_t(width) + 7) >> 3;
    if (angle == 180) {
        for (int32_t y = 0; y < height; ++y) {
            const int answer = imageUtil_reportProgress(stop, height, height - y);
            if (answer != 0) return answer;
            reverseBitRow(dst + size_t(height - 1 - y) * srcRow, src + size_t(y) * srcRow, width);
        }
        return 0;
    }
    if (angle != 90 && angle != 270) return 0;
    const bool clockwise = angle == 270;
    const size_t dstRow = (size_t(height) + 7) >> 3;
    const int32_t groups = int32_t(dstRow);
    // Destination byte column k gathers eight source rows: 8k + j for 90,
    // height - 1 - 8k - j for 270 (j = 0 .. 7, bit 7 - j). The groups are
    // taken in the order that visits source rows top to bottom.
    for (int32_t g = 0; g < groups; ++g) {
        const int32_t k = clockwise ? groups - 1 - g : g;
        int32_t rows[8];
        for (int j = 0; j < 8; ++j) rows[j] = clockwise ? height - 1 - 8 * k - j : 8 * k + j;
        for (int i = 0; i < 8; ++i) {
            const int32_t y = rows[clockwise ? 7 - i : i];
            if (y < 0 || y >= height) continue;
            const int answer = imageUtil_reportProgress(stop, height, y);
            if (answer != 0) return answer;
        }
        const uint8_t* line[8];
        for (int j = 0; j < 8; ++j)
            line[j] = rows[j] >= 0 && rows[j] < height ? src + size_t(rows[j]) * srcRow : nullptr;
        for (size_t bx = 0; bx < srcRow; ++bx) {
            uint64_t m = 0;
            for (int j = 0; j < 8; ++j) m = (m << 8) | (line[j] ? line[j][bx] : 0u);
            m = transposeBits8(m);
            for (int c = 0; c < 8; ++c) {
                const int32_t x = int32_t(bx * 8) + c;
                if (x >= width) break;
                const int32_t row = clockwise ? x : width - 1 - x;
                dst[size_t(row) * dstRow + size_t(k)] = uint8_t(m >> (56 - 8 * c));
            }
        }
    }
    return 0;
}

}  // namespace il
