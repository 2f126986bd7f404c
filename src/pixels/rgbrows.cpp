// Interleaved RGB rows to row planes and back, 16 pixels a step with SSSE3
// byte shuffles where the processor has them.
#include "pixels/rgbrows.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define IL_RGBROWS_X86 1
#endif

namespace il {

namespace {

// p[c]: the plane that byte c of each interleaved pixel belongs to.
void toPlanesScalar(uint8_t* const* p, const uint8_t* __restrict rgb, size_t from, size_t width) {
    uint8_t* __restrict r = p[0];
    uint8_t* __restrict g = p[1];
    uint8_t* __restrict b = p[2];
    for (size_t x = from; x < width; ++x) {
        r[x] = rgb[3 * x];
        g[x] = rgb[3 * x + 1];
        b[x] = rgb[3 * x + 2];
    }
}

void toRGBScalar(uint8_t* __restrict rgb, const uint8_t* const* p, size_t from, size_t width) {
    const uint8_t* r = p[0];
    const uint8_t* g = p[1];
    const uint8_t* b = p[2];
    for (size_t x = from; x < width; ++x) {
        rgb[3 * x] = r[x];
        rgb[3 * x + 1] = g[x];
        rgb[3 * x + 2] = b[x];
    }
}

#ifdef IL_RGBROWS_X86

// Shuffle masks for 16 pixels (48 interleaved bytes in three vectors).
// gather[c][j]: bytes of plane c taken from interleaved vector j;
// scatter[j][c]: bytes of interleaved vector j taken from plane c.
struct Masks {
    alignas(16) uint8_t gather[3][3][16];
    alignas(16) uint8_t scatter[3][3][16];
    Masks() {
        for (int c = 0; c < 3; ++c)
            for (int j = 0; j < 3; ++j)
                for (int k = 0; k < 16; ++k) {
                    const int n = 3 * k + c;  // byte of pixel k, channel c
                    gather[c][j][k] = n / 16 == j ? uint8_t(n % 16) : 0x80;
                    const int m = 16 * j + k;  // interleaved byte m: pixel m / 3, channel m % 3
                    scatter[j][c][k] = m % 3 == c ? uint8_t(m / 3) : 0x80;
                }
    }
};
const Masks kMasks;

__attribute__((target("ssse3"))) size_t toPlanesSsse3(uint8_t* const* p, const uint8_t* rgb, size_t width) {
    __m128i m[3][3];
    for (int c = 0; c < 3; ++c)
        for (int j = 0; j < 3; ++j) m[c][j] = _mm_load_si128(reinterpret_cast<const __m128i*>(kMasks.gather[c][j]));
    size_t x = 0;
    for (; x + 16 <= width; x += 16) {
        const __m128i a0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rgb + 3 * x));
        const __m128i a1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rgb + 3 * x + 16));
        const __m128i a2 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rgb + 3 * x + 32));
        for (int c = 0; c < 3; ++c) {
            const __m128i v = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(a0, m[c][0]), _mm_shuffle_epi8(a1, m[c][1])),
                                           _mm_shuffle_epi8(a2, m[c][2]));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(p[c] + x), v);
        }
    }
    return x;
}

__attribute__((target("ssse3"))) size_t toRGBSsse3(uint8_t* rgb, const uint8_t* const* p, size_t width) {
    __m128i m[3][3];
    for (int j = 0; j < 3; ++j)
        for (int c = 0; c < 3; ++c) m[j][c] = _mm_load_si128(reinterpret_cast<const __m128i*>(kMasks.scatter[j][c]));
    size_t x = 0;
    for (; x + 16 <= width; x += 16) {
        const __m128i r = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p[0] + x));
        const __m128i g = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p[1] + x));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p[2] + x));
        for (int j = 0; j < 3; ++j) {
            const __m128i v = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(r, m[j][0]), _mm_shuffle_epi8(g, m[j][1])),
                                           _mm_shuffle_epi8(b, m[j][2]));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(rgb + 3 * x + 16 * size_t(j)), v);
        }
    }
    return x;
}

const bool kHaveSsse3 = __builtin_cpu_supports("ssse3");

#endif

void toPlanes(uint8_t* const* p, const uint8_t* rgb, size_t width) {
    size_t done = 0;
#ifdef IL_RGBROWS_X86
    if (kHaveSsse3) done = toPlanesSsse3(p, rgb, width);
#endif
    toPlanesScalar(p, rgb, done, width);
}

void toInterleaved(uint8_t* rgb, const uint8_t* const* p, size_t width) {
    size_t done = 0;
#ifdef IL_RGBROWS_X86
    if (kHaveSsse3) done = toRGBSsse3(rgb, p, width);
#endif
    toRGBScalar(rgb, p, done, width);
}

}  // namespace

void rgbRowToPlanes(uint8_t* r, uint8_t* g, uint8_t* b, const uint8_t* rgb, size_t width) noexcept {
    uint8_t* const p[3] = {r, g, b};
    toPlanes(p, rgb, width);
}

void planesToRGBRow(uint8_t* rgb, const uint8_t* r, const uint8_t* g, const uint8_t* b, size_t width) noexcept {
    const uint8_t* const p[3] = {r, g, b};
    toInterleaved(rgb, p, width);
}

}  // namespace il
