// Affine warping of byte, RGB, RGBA and one-bit images, and rotation by any
// angle.
//
// Every destination pixel centre goes back through the inverse of the
// caller's matrix to a source point, which is sampled with the chosen
// filter. Taps that fall outside the source read the background, so that the
// edges of the picture blend into it.
//
// Each destination row is cut into spans. Where every tap of every pixel lies
// inside the source, a fixed-point loop (32 fraction bits, one add per axis a
// pixel) reads the source directly; where no tap does, the row is filled
// with the background; in between (a pixel or two along the picture's
// edges), each pixel's taps are gathered into a small patch with the
// background in place of the missing ones, and the same kernel runs on it.
#include "pixels/warp.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "imagelib/geo.h"
#include "imagelib/host.h"
#include "internal/checked.h"
#include "internal/scratch.h"
#include "pixels/rotate.h"
#include "pixels/rows.h"

namespace il {

bool rotatedSize(ImageSize* out, ImageSize size, double degrees) noexcept {
    if (!std::isfinite(degrees)) return false;
    const double r = std::fmod(degrees, 360.0) * (M_PI / 180.0);
    const double c = std::fabs(std::cos(r)), s = std::fabs(std::sin(r));
    // The tiny allowance keeps sides that are whole numbers up to rounding
    // (a square at 45 degrees, say) from growing by one.
    const double w = std::ceil(double(size.x) * c + double(size.y) * s - 1e-7);
    const double h = std::ceil(double(size.x) * s + double(size.y) * c - 1e-7);
    if (!(w < 2147483647.0) || !(h < 2147483647.0)) return false;
    out->x = w < 1 ? 1 : int32_t(w);
    out->y = h < 1 ? 1 : int32_t(h);
    return true;
}

void rotationMatrix(double m[6], ImageSize from, ImageSize to, double degrees) noexcept {
    const double r = std::fmod(degrees, 360.0) * (M_PI / 180.0);
    const double c = std::cos(r), s = std::sin(r);
    const double cx = from.x / 2.0, cy = from.y / 2.0;
    // y grows downwards: counter-clockwise on the screen takes +x towards -y.
    m[0] = c;
    m[1] = -s;
    m[2] = s;
    m[3] = c;
    m[4] = to.x / 2.0 - c * cx - s * cy;
    m[5] = to.y / 2.0 + s * cx - c * cy;
}

bool invertMatrix(double inv[6], const double m[6]) noexcept {
    for (int i = 0; i < 6; ++i)
        if (!std::isfinite(m[i])) return false;
    const double a = m[0], b = m[1], c = m[2], d = m[3], e = m[4], f = m[5];
    const double det = a * d - b * c;
    const double norm = a * a + b * b + c * c + d * d;
    if (!(std::fabs(det) > 1e-12 * norm)) return false;
    inv[0] = d / det;
    inv[1] = -b / det;
    inv[2] = -c / det;
    inv[3] = a / det;
    inv[4] = (c * f - d * e) / det;
    inv[5] = (b * e - a * f) / det;
    for (int i = 0; i < 6; ++i)
        if (!std::isfinite(inv[i])) return false;
    return true;
}

}  // namespace il

namespace {

constexpr double kOne = 4294967296.0;  // 1.0 in the 32.32 fixed point of the span loops
constexpr double kLimit = 1073741824.0;  // coordinates beyond 2^30 pixels never reach a tap
constexpr int32_t kBand = 32, kChunk = 128;  // destination tiles

// Catmull-Rom weights of the four taps for fractions i / 256.
struct CubicTable {
    float w[256][4];
    constexpr CubicTable() : w{} {
        for (int i = 0; i < 256; ++i) {
            const double t = i / 256.0, t2 = t * t, t3 = t2 * t;
            w[i][0] = float(-0.5 * t3 + t2 - 0.5 * t);
            w[i][1] = float(1.5 * t3 - 2.5 * t2 + 1.0);
            w[i][2] = float(-1.5 * t3 + 2.0 * t2 + 0.5 * t);
            w[i][3] = float(0.5 * t3 - 0.5 * t2);
        }
    }
};
constexpr CubicTable kCubic;

// Taps per axis and the first tap's offset from the floor of the sample
// point; nearest neighbour samples half a pixel further so that its floor is
// the pixel that holds the point.
constexpr int tapCount(int interp) { return interp == IMAGEWARP_BICUBIC ? 4 : interp == IMAGEWARP_BILINEAR ? 2 : 1; }
constexpr int firstTap(int interp) { return interp == IMAGEWARP_BICUBIC ? -1 : 0; }
constexpr double sampleShift(int interp) { return interp == IMAGEWARP_NEAREST ? 0.5 : 0.0; }

inline uint8_t clampByte(float v) { return v <= 0.f ? 0 : v >= 255.f ? 255 : uint8_t(v + 0.5f); }

// One destination pixel of C channels from taps starting at p (the first
// tap), with pixel, channel and row strides ps, cs, rs; fx and fy are the
// fractions of the sample point in 1/2^32 (the bilinear weights take 12
// bits of them, the cubic table 8).
template <int Interp, int C>
inline void sample(uint8_t* out, size_t outCs, const uint8_t* p, size_t ps, size_t cs, size_t rs, uint32_t fx,
                   uint32_t fy) {
    if constexpr (Interp == IMAGEWARP_NEAREST) {
#pragma GCC unroll 4
        for (int c = 0; c < C; ++c) out[size_t(c) * outCs] = p[size_t(c) * cs];
    } else if constexpr (Interp == IMAGEWARP_BILINEAR) {
        // 12-bit weights: each axis is one multiply of a difference.
        const int64_t ax = fx >> 20, ay = fy >> 20;
#pragma GCC unroll 4
        for (int c = 0; c < C; ++c) {
            const uint8_t* q = p + size_t(c) * cs;
            const int64_t top = (int64_t(q[0]) << 12) + (int64_t(q[ps]) - q[0]) * ax;
            const int64_t bottom = (int64_t(q[rs]) << 12) + (int64_t(q[rs + ps]) - q[rs]) * ax;
            out[size_t(c) * outCs] = uint8_t(((top << 12) + (bottom - top) * ay + (1 << 23)) >> 24);
        }
    } else {
        const float* wx = kCubic.w[fx >> 24];
        const float* wy = kCubic.w[fy >> 24];
        for (int c = 0; c < C; ++c) {
            const uint8_t* q = p + size_t(c) * cs;
            float sum = 0.f;
            for (int r = 0; r < 4; ++r, q += rs)
                sum += wy[r] * (wx[0] * q[0] + wx[1] * q[ps] + wx[2] * q[2 * ps] + wx[3] * q[3 * ps]);
            out[size_t(c) * outCs] = clampByte(sum);
        }
    }
}

#if defined(__SSE2__)
// Bilinear pixels of the span loop eight at a time, for three or four
// channels. The taps of each channel are gathered as byte pairs (left,
// right) of the two rows; SSE2 multiply-adds weigh them across with 12-bit
// weights into 32 bits, and, the sums cut to 15 bits, down with 12-bit
// weights. S and T advance past the pixels done; returns their number.
template <int C, bool Planar>
int32_t bilinearEights(uint8_t* o, size_t dcs, const uint8_t* base, size_t rs, size_t scs, int64_t& S, int64_t& T,
                       int64_t DS, int64_t DT, int32_t count) {
    constexpr size_t ps = Planar ? 1 : size_t(C);
    alignas(16) uint8_t bytes[16];
    const __m128i zero = _mm_setzero_si128(), half = _mm_set1_epi32(1 << 18);
    int32_t done = 0;
    for (; done + 8 <= count; done += 8, o += 8 * ps) {
        // The pairs and weights go straight into registers, lane by lane
        // (through memory, each vector load would wait on the byte stores).
        __m128i r0s[C], r1s[C];
        __m128i wxl = zero, wxh = zero, wyl = zero, wyh = zero;
#pragma GCC unroll 4
        for (int c = 0; c < C; ++c) r0s[c] = r1s[c] = zero;
        auto one = [&](auto lane) {
            constexpr int k = decltype(lane)::value;
            const uint8_t* p = base + size_t(T >> 32) * rs + size_t(S >> 32) * ps;
            const int ax = int(uint32_t(S) >> 20), ay = int(uint32_t(T) >> 20);
            if constexpr (k < 4) {
                wxl = _mm_insert_epi16(_mm_insert_epi16(wxl, 4096 - ax, 2 * k), ax, 2 * k + 1);
                wyl = _mm_insert_epi16(_mm_insert_epi16(wyl, 4096 - ay, 2 * k), ay, 2 * k + 1);
            } else {
                wxh = _mm_insert_epi16(_mm_insert_epi16(wxh, 4096 - ax, 2 * k - 8), ax, 2 * k - 7);
                wyh = _mm_insert_epi16(_mm_insert_epi16(wyh, 4096 - ay, 2 * k - 8), ay, 2 * k - 7);
            }
#pragma GCC unroll 4
            for (int c = 0; c < C; ++c) {
                const uint8_t* q = p + size_t(c) * scs;
                r0s[c] = _mm_insert_epi16(r0s[c], q[0] | q[ps] << 8, k);
                r1s[c] = _mm_insert_epi16(r1s[c], q[rs] | q[rs + ps] << 8, k);
            }
            S += DS;
            T += DT;
        };
        [&]<size_t... K>(std::index_sequence<K...>) {
            (one(std::integral_constant<int, int(K)>{}), ...);
        }(std::make_index_sequence<8>{});
#pragma GCC unroll 4
        for (int c = 0; c < C; ++c) {
            const __m128i r0 = r0s[c], r1 = r1s[c];
            // Across: at most 255 x 4096, cut by 5 bits to fit 16.
            const __m128i t0 = _mm_srli_epi32(_mm_madd_epi16(_mm_unpacklo_epi8(r0, zero), wxl), 5);
            const __m128i t1 = _mm_srli_epi32(_mm_madd_epi16(_mm_unpackhi_epi8(r0, zero), wxh), 5);
            const __m128i b0 = _mm_srli_epi32(_mm_madd_epi16(_mm_unpacklo_epi8(r1, zero), wxl), 5);
            const __m128i b1 = _mm_srli_epi32(_mm_madd_epi16(_mm_unpackhi_epi8(r1, zero), wxh), 5);
            const __m128i top = _mm_packs_epi32(t0, t1), bottom = _mm_packs_epi32(b0, b1);
            // Down: (top, bottom) pairs against (4096 - w, w); scale 2^19.
            __m128i v0 = _mm_madd_epi16(_mm_unpacklo_epi16(top, bottom), wyl);
            __m128i v1 = _mm_madd_epi16(_mm_unpackhi_epi16(top, bottom), wyh);
            v0 = _mm_srli_epi32(_mm_add_epi32(v0, half), 19);
            v1 = _mm_srli_epi32(_mm_add_epi32(v1, half), 19);
            const __m128i px = _mm_packus_epi16(_mm_packs_epi32(v0, v1), zero);
            if constexpr (Planar) {
                _mm_storel_epi64(reinterpret_cast<__m128i*>(o + size_t(c) * dcs), px);
            } else {
                _mm_store_si128(reinterpret_cast<__m128i*>(bytes), px);
#pragma GCC unroll 8
                for (int k = 0; k < 8; ++k) o[size_t(k) * ps + size_t(c)] = bytes[k];
            }
        }
    }
    return done;
}
#endif

// The source or destination picture: strides in bytes between neighbouring
// pixels, channels and rows (row-planar RGB: pixels 1, channels one width).
struct Plane {
    uint8_t* data;
    int32_t w, h;
    size_t ps, cs, rs;
};

struct Job {
    Plane src, dst;
    double inv[6];
    uint8_t bg[4];
    int interp;
    int32_t firstRow;  // the destination row that dst.data holds first
};

// The pixels i of [from, to) at which floor(s0 + i ds) lies in [lo, hi], as
// the half-open [*first, *end); close to exact, for callers that verify or
// allow a margin.
void span(double s0, double ds, double lo, double hi, int32_t from, int32_t to, int32_t* first, int32_t* end) {
    double a, b;
    if (!std::isfinite(s0) || !std::isfinite(ds)) {  // a matrix near the limits of double
        *first = *end = from;
        return;
    }
    if (ds == 0) {
        const bool in = s0 >= lo && s0 < hi + 1;
        a = in ? from : to;
        b = in ? to : from;
    } else if (ds > 0) {
        a = std::ceil((lo - s0) / ds);
        b = std::ceil((hi + 1 - s0) / ds);
    } else {
        a = std::floor((hi + 1 - s0) / ds) + 1;
        b = std::floor((lo - s0) / ds) + 1;
    }
    a = a < from ? from : a > to ? to : a;  // NaN-free: ds and s0 are finite
    b = b < from ? from : b > to ? to : b;
    *first = int32_t(a);
    *end = int32_t(b) < int32_t(a) ? int32_t(a) : int32_t(b);
}

// 32.32 fixed point of v, which is within kLimit.
inline int64_t toFixed(double v) {
    const double scaled = v * kOne;
    int64_t q = int64_t(scaled);
    return q > scaled ? q - 1 : q;
}

inline bool within(__int128 fixed, int32_t lo, int32_t hi) {
    return fixed >= (__int128(lo) << 32) && fixed < (__int128(hi) + 1) << 32;
}

// Pixels [from, to) of one destination row of a byte, RGB or RGBA picture;
// Planar: the channels are planes of the row (pixel stride 1).
template <int Interp, int C, bool Planar>
void warpRow(const Job& job, int32_t j, int32_t from, int32_t to, uint8_t* patchStore) {
    constexpr int K = tapCount(Interp), F = firstTap(Interp);
    const Plane& s = job.src;
    const Plane& d = job.dst;
    const double* m = job.inv;
    const double y = j + 0.5, shift = sampleShift(Interp) - 0.5;
    const double s0 = m[0] * 0.5 + m[2] * y + m[4] + shift, ds = m[0];
    const double t0 = m[1] * 0.5 + m[3] * y + m[5] + shift, dt = m[1];
    uint8_t* row = d.data + size_t(j - job.firstRow) * d.rs;

    // Pixels some tap of which may be inside (a pixel of margin each way):
    // everything else is background.
    int32_t c0, c1, c2, c3;
    span(s0, ds, -(F + K - 1) - 1, s.w - F, from, to, &c0, &c1);
    span(t0, dt, -(F + K - 1) - 1, s.h - F, from, to, &c2, &c3);
    const int32_t touchA = c0 > c2 ? c0 : c2;
    const int32_t touchB = touchA > (c1 < c3 ? c1 : c3) ? touchA : (c1 < c3 ? c1 : c3);

    // Pixels all of whose taps are inside, made exact in the fixed point
    // that the span loop steps in.
    const int32_t xlo = -F, xhi = s.w - K - F, ylo = -F, yhi = s.h - K - F;
    int32_t a = touchA, b = touchA;
    int64_t S = 0, T = 0, DS = 0, DT = 0;
    if (xhi >= xlo && yhi >= ylo && std::fabs(ds) < kLimit && std::fabs(dt) < kLimit) {
        span(s0, ds, xlo, xhi, from, to, &c0, &c1);
        span(t0, dt, ylo, yhi, from, to, &c2, &c3);
        a = c0 > c2 ? c0 : c2;
        b = c1 < c3 ? c1 : c3;
        if (a < touchA) a = touchA;
        if (b > touchB) b = touchB;
        DS = toFixed(ds);
        DT = toFixed(dt);
        while (a < b) {
            const double sa = s0 + a * ds, ta = t0 + a * dt;
            if (!(std::fabs(sa) < kLimit && std::fabs(ta) < kLimit)) {
                ++a;
                continue;
            }
            S = toFixed(sa);
            T = toFixed(ta);
            if (!within(S, xlo, xhi) || !within(T, ylo, yhi)) {
                ++a;
                continue;
            }
            const __int128 steps = b - 1 - a;
            const __int128 se = S + steps * DS, te = T + steps * DT;
            if (!within(se, xlo, xhi) || !within(te, ylo, yhi)) {
                --b;
                continue;
            }
            break;
        }
        if (a >= b) a = b = touchA;
    }

    auto fill = [&](int32_t from, int32_t to) {
        if (from >= to) return;
        if (d.ps == 1) {
            for (int c = 0; c < C; ++c) std::memset(row + size_t(c) * d.cs + size_t(from), job.bg[c], size_t(to - from));
            return;
        }
        // Interleaved: one pixel, then copies of what is done, doubling.
        uint8_t* o = row + size_t(from) * d.ps;
        const size_t n = size_t(to - from) * d.ps;
        std::memcpy(o, job.bg, size_t(C));
        for (size_t done = d.ps; done < n;) {
            const size_t k = done < n - done ? done : n - done;
            std::memcpy(o + done, o, k);
            done += k;
        }
    };
    // Edge pixels: the taps gathered into a patch, the background in place
    // of those outside.
    auto edge = [&](int32_t from, int32_t to) {
        for (int32_t i = from; i < to; ++i) {
            double sv = s0 + i * ds, tv = t0 + i * dt;
            sv = sv < -kLimit ? -kLimit : sv > kLimit ? kLimit : sv;
            tv = tv < -kLimit ? -kLimit : tv > kLimit ? kLimit : tv;
            const int64_t fs = toFixed(sv), ft = toFixed(tv);
            const int32_t x0 = int32_t(fs >> 32) + F, y0 = int32_t(ft >> 32) + F;
            for (int r = 0; r < K; ++r) {
                const int32_t yy = y0 + r;
                for (int k = 0; k < K; ++k) {
                    const int32_t xx = x0 + k;
                    uint8_t* cell = patchStore + size_t(r * K + k) * C;
                    if (yy >= 0 && yy < s.h && xx >= 0 && xx < s.w) {
                        const uint8_t* p = s.data + size_t(yy) * s.rs + size_t(xx) * s.ps;
                        for (int c = 0; c < C; ++c) cell[c] = p[size_t(c) * s.cs];
                    } else {
                        for (int c = 0; c < C; ++c) cell[c] = job.bg[c];
                    }
                }
            }
            sample<Interp, C>(row + size_t(i) * d.ps, d.cs, patchStore, C, 1, size_t(K) * C,
                              uint32_t(fs), uint32_t(ft));
        }
    };

    fill(from, touchA);
    edge(touchA, a);
    // The span loop: no tap leaves the source here. Strides live in locals
    // (byte stores could otherwise alias the job and force reloads).
    constexpr size_t ps = Planar ? 1 : size_t(C);
    const size_t rs = s.rs, scs = Planar ? s.cs : 1, dcs = Planar ? d.cs : 1;
    const uint8_t* base = s.data + size_t(F) * rs + size_t(F) * ps;
    uint8_t* o = row + size_t(a) * ps;
    int32_t i = a;
#if defined(__SSE2__)
    if constexpr (Interp == IMAGEWARP_BILINEAR && C >= 3) {
        const int32_t done = bilinearEights<C, Planar>(o, dcs, base, rs, scs, S, T, DS, DT, b - a);
        i += done;
        o += size_t(done) * ps;
    }
#endif
    for (; i < b; ++i, S += DS, T += DT, o += ps) {
        const size_t x0 = size_t(S >> 32), y0 = size_t(T >> 32);
        sample<Interp, C>(o, dcs, base + y0 * rs + x0 * ps, ps, scs, rs, uint32_t(S), uint32_t(T));
    }
    edge(b, touchB);
    fill(touchB, to);
}

// One destination row of a one-bit picture (nearest neighbour; rows of
// (w + 7) / 8 bytes, padding bits cleared).
void warpBitRow(const Job& job, int32_t j) {
    const Plane& s = job.src;
    const Plane& d = job.dst;
    const double* m = job.inv;
    const double y = j + 0.5;
    const double s0 = m[0] * 0.5 + m[2] * y + m[4], ds = m[0];
    const double t0 = m[1] * 0.5 + m[3] * y + m[5], dt = m[1];
    const int32_t n = d.w;
    uint8_t* row = d.data + size_t(j - job.firstRow) * d.rs;
    std::memset(row, 0, d.rs);
    int32_t a = 0, b = 0;
    int64_t S = 0, T = 0, DS = 0, DT = 0;
    if (std::fabs(ds) < kLimit && std::fabs(dt) < kLimit) {
        int32_t c0, c1, c2, c3;
        span(s0, ds, 0, s.w - 1, 0, n, &c0, &c1);
        span(t0, dt, 0, s.h - 1, 0, n, &c2, &c3);
        a = c0 > c2 ? c0 : c2;
        b = c1 < c3 ? c1 : c3;
        DS = toFixed(ds);
        DT = toFixed(dt);
        // Neighbours of the span the estimate may have missed are looked at
        // one by one below, so the span only has to be exact, not maximal.
        while (a < b) {
            const double sa = s0 + a * ds, ta = t0 + a * dt;
            if (std::fabs(sa) < kLimit && std::fabs(ta) < kLimit) {
                S = toFixed(sa);
                T = toFixed(ta);
                if (within(S, 0, s.w - 1) && within(T, 0, s.h - 1)) {
                    const __int128 steps = b - 1 - a;
                    const __int128 se = S + steps * DS, te = T + steps * DT;
                    if (within(se, 0, s.w - 1) && within(te, 0, s.h - 1))
                        break;
                    --b;
                    continue;
                }
            }
            ++a;
        }
        if (a >= b) a = b = 0;
    }
    auto bitAt = [&](int32_t x, int32_t yy) { return (s.data[size_t(yy) * s.rs + size_t(x >> 3)] >> (7 - (x & 7))) & 1; };
    // Outside the span: the background, or a source pixel the span missed.
    auto other = [&](int32_t i) {
        double sv = s0 + i * ds, tv = t0 + i * dt;
        int bit = job.bg[0];
        if (sv >= 0 && sv < s.w && tv >= 0 && tv < s.h) bit = bitAt(int32_t(sv), int32_t(tv));
        if (bit) row[i >> 3] |= uint8_t(0x80 >> (i & 7));
    };
    for (int32_t i = 0; i < a; ++i) other(i);
    for (int32_t i = a; i < b; ++i, S += DS, T += DT)
        if (bitAt(int32_t(S >> 32), int32_t(T >> 32))) row[i >> 3] |= uint8_t(0x80 >> (i & 7));
    for (int32_t i = b; i < n; ++i) other(i);
}

using RowFunction = void (*)(const Job&, int32_t, int32_t, int32_t, uint8_t*);

template <int C, bool Planar>
RowFunction rowFunction(int interp) {
    switch (interp) {
        case IMAGEWARP_BILINEAR: return warpRow<IMAGEWARP_BILINEAR, C, Planar>;
        case IMAGEWARP_BICUBIC: return warpRow<IMAGEWARP_BICUBIC, C, Planar>;
        default: return warpRow<IMAGEWARP_NEAREST, C, Planar>;
    }
}

bool validInterpolation(int interp) {
    return interp == IMAGEWARP_NEAREST || interp == IMAGEWARP_BILINEAR || interp == IMAGEWARP_BICUBIC;
}

bool sizeOk(const ImageSize* s) { return s && s->x > 0 && s->y > 0; }

// Describes a picture of the layout; false for the layouts that do not warp.
bool describe(Plane* p, uint8_t* data, ImageSize size, int format, int* channels) {
    const size_t w = size_t(size.x);
    *p = Plane{data, size.x, size.y, 1, 0, w};
    switch (format) {
        case IMAGEFORMAT_BITMAP: p->rs = (w + 7) >> 3; *channels = 0; return true;
        case IMAGEFORMAT_MAP:
        case IMAGEFORMAT_MAP2: *channels = 1; return true;
        case IMAGEFORMAT_RGB: p->cs = w; p->rs = 3 * w; *channels = 3; return true;
        case IMAGEFORMAT_RGB2: p->ps = 3; p->cs = 1; p->rs = 3 * w; *channels = 3; return true;
        case IMAGEFORMAT_RGBA: p->ps = 4; p->cs = 1; p->rs = 4 * w; *channels = 4; return true;
        default: return false;
    }
}

// Bytes in a destination row of the layout.
size_t rowBytes(int32_t width, int format, int channels) {
    return format == IMAGEFORMAT_BITMAP ? (size_t(width) + 7) >> 3 : size_t(width) * size_t(channels);
}

// Destination rows [j0, j1) in tiles of kBand rows by kChunk pixels, which
// keep the source pixels that a turned tile reads in the cache. A row's
// pixels do not depend on which rows share its tile, so any split of the
// rows gives the same bytes.
void warpTile(const Job& job, RowFunction row, int32_t j0, int32_t j1) {
    if (!row) {
        for (int32_t j = j0; j < j1; ++j) warpBitRow(job, j);
        return;
    }
    uint8_t patch[4 * 4 * 4];
    const int32_t w = job.dst.w;
    for (int32_t x0 = 0; x0 < w; x0 += kChunk) {
        const int32_t x1 = w - x0 > kChunk ? x0 + kChunk : w;
        for (int32_t j = j0; j < j1; ++j) row(job, j, x0, x1, patch);
    }
}

// The number of threads a warp may use: KV_THREADS through the host layer,
// by default the hardware's, at most 8; 1 keeps the work on the caller.
int warpThreads() {
    unsigned hw = std::thread::hardware_concurrency();
    const int fallback = hw == 0 ? 1 : hw > 8 ? 8 : int(hw);
    const int n = imagelib_cfgInt("KV_THREADS", fallback);
    return n < 1 ? 1 : n > 64 ? 64 : n;
}

// Shared state of the threads of one band. Workers touch nothing else: no
// host call, no allocation, none of the thread's process-wide states.
struct Crew {
    const Job* job = nullptr;
    RowFunction row = nullptr;
    int32_t first = 0, end = 0, total = 0;
    StopFunction stop = nullptr;
    std::atomic<int32_t> next{0};  // the first row of the next unclaimed tile
    std::atomic<bool> stopped{false};
    std::mutex lock;
    std::condition_variable changed;
    int32_t done = 0;    // rows finished (under lock)
    int32_t polled = 0;  // the next row to poll (the caller's thread only)
    bool halted = false;

    // Polls the rows that the finished ones have reached; false once the
    // stop function asks to stop. The caller's thread only.
    bool poll() {
        int32_t upTo;
        {
            std::lock_guard<std::mutex> hold(lock);
            upTo = first + done;
        }
        if (upTo > end - 1) upTo = end - 1;
        for (; polled <= upTo; ++polled) {
            if (imageUtil_reportProgress(stop, total, polled) != 0) {
                halted = true;
                stopped.store(true);
                return false;
            }
        }
        return true;
    }

    // Claims and warps tiles until none is left or the band is stopped;
    // the caller's thread polls between its own tiles.
    void work(bool caller) {
        for (;;) {
            if (stopped.load(std::memory_order_relaxed)) return;
            const int32_t j0 = next.fetch_add(kBand, std::memory_order_relaxed);
            if (j0 >= end) return;
            const int32_t j1 = end - j0 > kBand ? j0 + kBand : end;
            warpTile(*job, row, j0, j1);
            {
                std::lock_guard<std::mutex> hold(lock);
                done += j1 - j0;
            }
            if (caller) {
                if (!poll()) return;
            } else {
                changed.notify_one();
            }
        }
    }
};

// Joins the workers however the band ends.
struct CrewJoin {
    Crew& crew;
    std::vector<std::thread>& threads;
    ~CrewJoin() {
        crew.stopped.store(true);
        for (auto& t : threads)
            if (t.joinable()) t.join();
    }
};

// Rows [y0, y1) of the destination (of totalRows rows) into the job's
// destination. The stop function is polled on the calling thread only, with
// (totalRows, row) for every row in order: alone, before each tile; with
// helper threads, the first row before any work and each later one once the
// rows before it are finished.
int runBand(const Job& job, RowFunction row, int32_t totalRows, int32_t y0, int32_t y1, StopFunction stop) {
    const int32_t tiles = (y1 - y0 + kBand - 1) / kBand;
    int threads = tiles > 1 ? warpThreads() : 1;
    if (threads > tiles) threads = tiles;
    if (threads <= 1) {
        for (int32_t j0 = y0; j0 < y1; j0 += kBand) {
            const int32_t j1 = y1 - j0 > kBand ? j0 + kBand : y1;
            for (int32_t j = j0; j < j1; ++j)
                if (imageUtil_reportProgress(stop, totalRows, j) != 0) return IMGERR_STOPPED;
            warpTile(job, row, j0, j1);
        }
        return 0;
    }
    if (imageUtil_reportProgress(stop, totalRows, y0) != 0) return IMGERR_STOPPED;
    try {
        Crew crew;
        crew.job = &job;
        crew.row = row;
        crew.first = y0;
        crew.end = y1;
        crew.total = totalRows;
        crew.stop = stop;
        crew.next.store(y0);
        crew.polled = y0 + 1;
        std::vector<std::thread> workers;
        workers.reserve(size_t(threads - 1));
        {
            CrewJoin join{crew, workers};
            try {
                for (int t = 1; t < threads; ++t) workers.emplace_back([&crew] { crew.work(false); });
            } catch (...) {
                // Fewer threads than asked for: the caller does the rest.
            }
            crew.work(true);
            // The caller has no tile left: it polls the workers' rows as
            // they are finished.
            while (!crew.halted && crew.polled < y1) {
                {
                    std::unique_lock<std::mutex> hold(crew.lock);
                    crew.changed.wait(hold, [&] { return y0 + crew.done >= crew.polled; });
                }
                crew.poll();
            }
        }
        return crew.halted ? IMGERR_STOPPED : 0;
    } catch (...) {
        return IMGERR_NOMEMORY;
    }
}

// Sets up the job of a warp into dest, which holds destination rows from
// firstRow on; false for a layout that does not warp here.
bool prepare(Job* job, RowFunction* row, uint8_t* dest, const ImageSize& to, int32_t firstRow, const void* source,
             const ImageSize& from, int format, const double inv[6], int interp, const uint8_t* background) {
    *job = Job{};
    int channels = 0;
    if (!describe(&job->src, static_cast<uint8_t*>(const_cast<void*>(source)), from, format, &channels)) return false;
    describe(&job->dst, dest, to, format, &channels);
    job->firstRow = firstRow;
    std::memcpy(job->inv, inv, sizeof job->inv);
    if (background) std::memcpy(job->bg, background, channels ? size_t(channels) : 1);
    if (format == IMAGEFORMAT_BITMAP) job->bg[0] = job->bg[0] != 0;
    // Palette indices and bits cannot be blended.
    job->interp = channels <= 1 ? IMAGEWARP_NEAREST : interp;
    *row = nullptr;
    switch (channels) {
        case 1: *row = rowFunction<1, false>(job->interp); break;
        case 3: *row = format == IMAGEFORMAT_RGB ? rowFunction<3, true>(job->interp) : rowFunction<3, false>(job->interp); break;
        case 4: *row = rowFunction<4, false>(job->interp); break;
        default: break;
    }
    return true;
}

int warpInto(void** out, const ImageSize& to, const void* source, const ImageSize& from, int format,
             const double inv[6], int interp, const uint8_t* background, StopFunction stop) {
    int channels = 0;
    Plane probe;
    describe(&probe, nullptr, to, format, &channels);
    size_t bytes = 0;
    if (!il::mulSize(rowBytes(to.x, format, channels), size_t(to.y), &bytes)) return IMGERR_NOMEMORY;
    auto block = il::callerBytes(bytes);
    if (!block) return IMGERR_NOMEMORY;
    Job job;
    RowFunction row;
    prepare(&job, &row, block.get(), to, 0, source, from, format, inv, interp, background);
    if (int st = runBand(job, row, to.y, 0, to.y, stop)) return st;
    *out = block.release();
    return 0;
}

bool warpable(int format) { return format >= IMAGEFORMAT_BITMAP && format <= IMAGEFORMAT_PACKBYTE; }

// Layouts 2 and 8: the rows are decoded into a bitmap or byte map (a null
// row reads as zeros), warped, and encoded into a new row table.
int warpRows(void** out, const ImageSize& to, const void* source, const ImageSize& from, int format,
             const double inv[6], const uint8_t* background, StopFunction stop) {
    const bool bits = format == IMAGEFORMAT_RLEBITMAP;
    const size_t srcRow = bits ? (size_t(from.x) + 7) >> 3 : size_t(from.x);
    const size_t dstRow = bits ? (size_t(to.x) + 7) >> 3 : size_t(to.x);
    size_t bytes = 0;
    if (!il::mulSize(srcRow, size_t(from.y), &bytes)) return IMGERR_NOMEMORY;
    il::Scratch<uint8_t> plain(bytes, il::tag("WaRd"), true);
    if (!plain.ok()) return IMGERR_NOMEMORY;
    for (int32_t y = 0; y < from.y; ++y) {
        uint8_t* row = plain.get() + size_t(y) * srcRow;
        if (bits) {
            const uint16_t* runs = static_cast<uint16_t* const*>(source)[y];
            if (runs && il::rleDecodeRowBounded(row, runs, il::runLimit(from.x), from.x) < 0) return IMGERR_BADFILE;
        } else if (const uint8_t* packed = static_cast<uint8_t* const*>(source)[y]) {
            korImage_unpackByteBuffer(row, packed, from.x);
        }
    }
    void* warped = nullptr;
    const int plainFormat = bits ? IMAGEFORMAT_BITMAP : IMAGEFORMAT_MAP;
    if (int st = warpInto(&warped, to, plain.get(), from, plainFormat, inv, IMAGEWARP_NEAREST, background, stop))
        return st;
    il::CallerBuffer<uint8_t> picture(static_cast<uint8_t*>(warped));
    il::RowTable table;
    if (!table.allocate(to, format)) return IMGERR_NOMEMORY;
    for (int32_t y = 0; y < to.y; ++y) {
        const uint8_t* row = picture.get() + size_t(y) * dstRow;
        if ((bits ? il::storeRLEBitMapRow(table.runs(), y, row, to.x) : il::storePackByteRow(table.bytes(), y, row, to.x)) != 0)
            return IMGERR_NOMEMORY;
    }
    *out = table.release();
    return 0;
}

int warpAny(void** out, const ImageSize& to, const void* source, const ImageSize& from, int format,
            const double inv[6], int interp, const uint8_t* background, StopFunction stop) {
    if (format == IMAGEFORMAT_RLEBITMAP || format == IMAGEFORMAT_PACKBYTE)
        return warpRows(out, to, source, from, format, inv, background, stop);
    return warpInto(out, to, source, from, format, inv, interp, background, stop);
}

// A copy of an image of any layout (the row tables of layouts 2 and 8 by
// two half turns, which copy every row).
int copyImage(void** out, void* source, const ImageSize& size, int format, StopFunction stop) {
    if (format == IMAGEFORMAT_RLEBITMAP || format == IMAGEFORMAT_PACKBYTE) {
        void* half = nullptr;
        ImageSize s = size;
        if (int st = korImage_rotate(&half, &s, source, &size, format, 180, stop)) return st;
        void* back = half;
        if (int st = korImage_rotate(&back, &s, half, &size, format, 180, stop)) {
            korImage_freeImage(half, &size, format);
            return st;
        }
        *out = back;
        return 0;
    }
    const int32_t bytes = korImage_memorySize(&size, format);
    if (bytes < 0) return IMGERR_BADARG;
    auto block = il::callerBytes(size_t(bytes));
    if (!block) return IMGERR_NOMEMORY;
    std::memcpy(block.get(), source, size_t(bytes));
    *out = block.release();
    return 0;
}

}  // namespace

extern "C" int korImage_warp(void** result, const ImageSize* resultSize, const void* source,
                             const ImageSize* sourceSize, int format, const double* matrix, int interpolation,
                             const uint8_t* background, StopFunction stop) noexcept {
    if (!result || !source || !matrix || !sizeOk(resultSize) || !sizeOk(sourceSize)) return IMGERR_BADARG;
    if (!warpable(format) || !validInterpolation(interpolation)) return IMGERR_BADARG;
    double inv[6];
    if (!il::invertMatrix(inv, matrix)) return IMGERR_BADARG;
    return warpAny(result, *resultSize, source, *sourceSize, format, inv, interpolation, background, stop);
}

extern "C" int korImage_warpBand(uint8_t* band, const ImageSize* resultSize, int32_t firstRow, int32_t endRow,
                                 const void* source, const ImageSize* sourceSize, int format, const double* matrix,
                                 int interpolation, const uint8_t* background, StopFunction stop) noexcept {
    if (!band || !source || !matrix || !sizeOk(resultSize) || !sizeOk(sourceSize)) return IMGERR_BADARG;
    if (format == IMAGEFORMAT_RLEBITMAP || format == IMAGEFORMAT_PACKBYTE || !warpable(format) ||
        !validInterpolation(interpolation))
        return IMGERR_BADARG;
    if (firstRow < 0 || endRow <= firstRow || endRow > resultSize->y) return IMGERR_BADARG;
    double inv[6];
    if (!il::invertMatrix(inv, matrix)) return IMGERR_BADARG;
    Job job;
    RowFunction row;
    prepare(&job, &row, band, *resultSize, firstRow, source, *sourceSize, format, inv, interpolation, background);
    return runBand(job, row, resultSize->y, firstRow, endRow, stop);
}

extern "C" int korImage_rotationMatrix(double* matrix, ImageSize* resultSize, const ImageSize* sourceSize,
                                       double degrees) noexcept {
    if (!matrix || !resultSize || !sizeOk(sourceSize) || !std::isfinite(degrees)) return IMGERR_BADARG;
    double turn = std::fmod(degrees, 360.0);
    if (turn < 0) turn += 360.0;
    ImageSize to{};
    if (!il::rotatedSize(&to, *sourceSize, turn)) return IMGERR_NOMEMORY;
    il::rotationMatrix(matrix, *sourceSize, to, turn);
    *resultSize = to;
    return 0;
}

extern "C" int korImage_rotateAngle(void** result, ImageSize* resultSize, void* source, const ImageSize* sourceSize,
                                    int format, double degrees, int interpolation, const uint8_t* background,
                                    StopFunction stop) noexcept {
    if (!result || !source || !sizeOk(sourceSize) || !std::isfinite(degrees)) return IMGERR_BADARG;
    if (format < IMAGEFORMAT_BITMAP || format > IMAGEFORMAT_PACKBYTE || !validInterpolation(interpolation))
        return IMGERR_BADARG;
    double turn = std::fmod(degrees, 360.0);
    if (turn < 0) turn += 360.0;
    if (turn == 90.0 || turn == 180.0 || turn == 270.0)
        return korImage_rotate(result, resultSize, source, sourceSize, format, int(turn), stop);
    const ImageSize from = *sourceSize;
    void* made = nullptr;
    ImageSize to = from;
    if (turn == 0.0) {
        if (*result == source) return 0;
        if (int st = copyImage(&made, source, from, format, stop)) return st;
    } else {
        if (!il::rotatedSize(&to, from, turn)) return IMGERR_NOMEMORY;
        double m[6], inv[6];
        il::rotationMatrix(m, from, to, turn);
        if (!il::invertMatrix(inv, m)) return IMGERR_BADARG;
        if (int st = warpAny(&made, to, source, from, format, inv, interpolation, background, stop)) return st;
    }
    if (*result == source) korImage_freeImage(source, &from, format);
    *result = made;
    if (resultSize) *resultSize = to;
    return 0;
}
