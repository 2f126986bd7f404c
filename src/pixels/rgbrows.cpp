// Interleaved RGB rows to row planes and back, 16 pixels a step with SSSE3
// byte shuffles where the processor has them.
#include "pixels/rgbrows.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define IL_RGBROWS_X86 1
#endif

namespace il {

namespace {

void toPlanesScalar(uint8_t* __restrict planes, const uint8_t* __restrict rgb, size_t from, size_t width) {
    uint8_t* __restrict r = planes;
    uint8_t* __restrict g = planes + width;
    uint8_t* __restrict b = planes + 2 * width;
    for (size_t x = from; x < width; ++x) {
        r[x] = rgb[3 * x];
        g[x] = rgb[3 * x + 1];
        b[x] = rgb[3 * x + 2];
    }
}

void toRGBScalar(uint8_t* __restrict rgb, const uint8_t* __restrict planes, size_t from, size_t width) {
    const uint8_t* r = planes;
    const uint8_t* g = planes + width;
    const uint8_t* b = planes + 2 * width;
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

__attribute__((target("ssse3"))) size_t toPlanesSsse3(uint8_t* planes, const uint8_t* rgb, size_t width) {
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
            _mm_storeu_si128(reinterpret_cast<__m128i*>(planes + size_t(c) * width + x), v);
        }
    }
    return x;
}

__attribute__((target("ssse3"))) size_t toRGBSsse3(uint8_t* rgb, const uint8_t* planes, size_t width) {
    __m128i m[3][3];
    for (int j = 0; j < 3; ++j)
        for (int c = 0; c < 3; ++c) m[j][c] = _mm_load_si128(reinterpret_cast<const __m128i*>(kMasks.scatter[j][c]));
    size_t x = 0;
    for (; x + 16 <= width; x += 16) {
        const __m128i r = _mm_loadu_si128(reinterpret_cast<const __m128i*>(planes + x));
        const __m128i g = _mm_loadu_si128(reinterpret_cast<const __m128i*>(planes + width + x));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(planes + 2 * width + x));
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

}  // namespace

void rgbRowToPlanes(uint8_t* planes, const uint8_t* rgb, size_t width) noexcept {
    size_t done = 0;
#ifdef IL_RGBROWS_X86
    if (kHaveSsse3) done = toPlanesSsse3(planes, rgb, width);
#endif
    toPlanesScalar(planes, rgb, done, width);
}

void planesToRGBRow(uint8_t* rgb, const uint8_t* planes, size_t width) noexcept {
    size_t done = 0;
#ifdef IL_RGBROWS_X86
    if (kHaveSsse3) done = toRGBSsse3(rgb, planes, width);
#endif
    toRGBScalar(rgb, planes, done, width);
}

}  // namespace il
