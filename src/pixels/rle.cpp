// Run-length bitmap rows (layout 2): encoding, decoding, whole images,
// inversion, left justification and row appends.
#include <emmintrin.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "internal/checked.h"
#include "internal/scratch.h"
#include "pixels/bits.h"
#include "pixels/rows.h"

// AVX2 kernels picked at run time next to the SSE2 ones; defining
// IMAGELIB_RLE_DISPATCH as 0 builds the SSE2 ones only.
#ifndef IMAGELIB_RLE_DISPATCH
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define IMAGELIB_RLE_DISPATCH 1
#else
#define IMAGELIB_RLE_DISPATCH 0
#endif
#endif
#if IMAGELIB_RLE_DISPATCH
#include <immintrin.h>
#endif

namespace {

using il::bits::rowBytes;

// ---- Encoding ---------------------------------------------------------------

// The runs that the colour changes of one byte start: for a change byte c
// (bit 7 set where pixel 0 differs from the pixel before it, and so on),
// runs[c] holds the distance of the first change from the byte start and
// then the distances between successive changes; count[c] is the number of
// changes, tail[c] the pixels after the last one (8 when there is none) and
// keep[c] all ones when there is none.
struct ByteChanges {
    alignas(16) uint16_t runs[256][8];
    uint64_t keep[256];
    uint8_t count[256];
    uint8_t tail[256];
};

constexpr ByteChanges makeByteChanges() {
    ByteChanges t{};
    for (unsigned c = 0; c < 256; ++c) {
        unsigned k = 0, last = 0;
        for (unsigned p = 0; p < 8; ++p) {
            if (!(c & (0x80u >> p))) continue;
            t.runs[c][k] = uint16_t(k == 0 ? p : p - last);
            ++k;
            last = p;
        }
        t.count[c] = uint8_t(k);
        t.tail[c] = uint8_t(k ? 8 - last : 8);
        t.keep[c] = k ? 0 : ~0ull;
    }
    return t;
}

constexpr ByteChanges kByteChanges = makeByteChanges();

// Runs of a word of 64 pixels from its change mask t (pixel 0 in bit 63)
// through the byte table, without data-dependent branches: every byte
// stores eight run slots at runs + n and advances n by its number of
// changes. gap is the distance from the last change before the word to its
// first pixel; returns the distance from the last change to the end of the
// word. The caller makes sure that the eight slots fit (see encodeRowT) and
// that gap + 63 fits 16 bits.
inline size_t encodeWord(uint16_t* runs, size_t& n, uint64_t t, size_t gap) {
    uint64_t bytes = __builtin_bswap64(t);  // change byte of pixels 0-7 lowest
    for (int j = 0; j < 8; ++j, bytes >>= 8) {
        unsigned c = unsigned(bytes & 0xFF);
        __m128i v = _mm_load_si128(reinterpret_cast<const __m128i*>(kByteChanges.runs[c]));
        v = _mm_add_epi16(v, _mm_cvtsi32_si128(int(gap)));  // first run starts before the byte
        _mm_storeu_si128(reinterpret_cast<__m128i*>(runs + n), v);
        n += kByteChanges.count[c];
        gap = (gap & kByteChanges.keep[c]) + kByteChanges.tail[c];
    }
    return gap;
}

// Encodes width pixels of row into runs; returns the number of runs. Only
// the pixels inside the width are looked at, so padding bits never matter.
// Colour changes are found 64 pixels at a time: words with no change or
// one take the same branch-free step (a count of leading zeros and a
// store), denser words go through the byte table. In rows wider than 65535
// pixels a longer run is split into 65535, 0, rest so that every run fits
// its 16-bit slot.
//
// The table stores eight slots from the current run count n. Before the
// word at pixel base there are at most base changes and, since a split
// takes 65535 pixels without a change for its two extra runs, n <= base;
// a word wholly inside the row (base + 64 <= width) thus stores below
// slot base + 64 <= width + 1, inside the 2 * width + 2 bytes of runs.
template <bool Wide>
size_t encodeRowT(uint16_t* runs, const uint8_t* row, size_t width) {
    size_t n = 0, nbytes = rowBytes(width), start = 0;
    auto put = [&](size_t len) {
        if constexpr (Wide) {
            while (len > 0xFFFF) {
                runs[n++] = 0xFFFF;
                runs[n++] = 0;
                len -= 0xFFFF;
            }
        }
        runs[n++] = uint16_t(len);
    };
    uint64_t prev = 0;  // colour of the pixel before the word (background first)
    for (size_t base = 0; base < width; base += 64) {
        size_t byte = base >> 3;
        // Pixel 0 of the word in bit 63; bit 63 - i of t is set where pixel i
        // differs from the pixel before it.
        uint64_t px = il::bits::loadBE(row + byte, nbytes - byte);
        uint64_t t = px ^ ((px >> 1) | (prev << 63));
        size_t valid = width - base;
        if (valid < 64) t &= ~0ull << (64 - valid);
        prev = px & 1;
        if (t & (t - 1)) {
            if (valid >= 64 && (!Wide || base - start <= 0xFFFF - 63)) {
                start = base + 64 - encodeWord(runs, n, t, base - start);
                continue;
            }
            do {
                unsigned z = unsigned(__builtin_clzll(t));
                t ^= (1ull << 63) >> z;
                put(base + z - start);
                start = base + z;
            } while (t);
            continue;
        }
        // No change or one, the common words of sparse rows: no branch on
        // which. Without a change the run goes to a slot past the last one
        // (n <= base < width) and is overwritten later.
        size_t p = base + unsigned(__builtin_clzll(t | 1)), one = t != 0;
        if (Wide && one && p - start > 0xFFFF) {
            put(p - start);
            start = p;
            continue;
        }
        runs[n] = uint16_t(p - start);
        n += one;
        start += (p - start) & (0 - one);
    }
    if (width > start) put(width - start);
    return n;
}

size_t encodeRow(uint16_t* runs, const uint8_t* row, size_t width) {
    return width > 0xFFFF ? encodeRowT<true>(runs, row, width) : encodeRowT<false>(runs, row, width);
}

// ---- Decoding ---------------------------------------------------------------
//
// Every run boundary flips the colour of the pixels after it, so the
// boundaries are first marked as flips and a prefix XOR then turns the
// flips into pixels, carrying the colour from chunk to chunk. Where runs
// are short (dense chunks of kChunk pixels) each boundary flips a byte of a
// scratch block, one byte a pixel: neighbouring boundaries then touch
// different bytes and do not wait for each other's stores. Where they are
// long (sparse chunks of up to kSparseSpan pixels) each boundary flips a
// bit of the cleared row itself. The first 16 runs of the row choose the
// way of the first chunk, the run count of each chunk that of the next.

constexpr size_t kChunk = 2048;        // pixels of a dense chunk; a multiple of 64
constexpr size_t kSparseSpan = 32768;  // pixels of a sparse chunk; a multiple of 64

// Prefix XOR from the most significant bit down: bit i of the result is
// the XOR of bits 63 .. i of w.
inline uint64_t prefixXor(uint64_t w) {
    w ^= w >> 1;
    w ^= w >> 2;
    w ^= w >> 4;
    w ^= w >> 8;
    w ^= w >> 16;
    w ^= w >> 32;
    return w;
}

// In-place prefix XOR over the n bytes of a sparse chunk (see fromFlips)
// with the prefix XOR of 64 bits of Kernels.
template <class Kernels>
[[gnu::always_inline]] inline uint64_t flipsToPixels(uint8_t* row, size_t n, uint64_t carry) {
    size_t b = 0;
    for (; b + 8 <= n; b += 8) {
        uint64_t w = Kernels::prefix(il::bits::loadBE(row + b, 8)) ^ carry;
        carry = uint64_t(0) - (w & 1);
        il::bits::storeBE(row + b, w, 8);
    }
    if (b < n) {
        uint64_t w = Kernels::prefix(il::bits::loadBE(row + b, n - b)) ^ carry;
        carry = uint64_t(0) - ((w >> (64 - 8 * (n - b))) & 1);
        il::bits::storeBE(row + b, w, n - b);
    }
    return carry;
}

// The kernels of one instruction set:
//   prefix(w): bit i is the XOR of bits 63 .. i of w.
//   fromFlips(row, n, carry) turns a sparse chunk into pixels: its n bytes
//     at row hold flip bits and receive the pixels. carry is all ones while
//     the colour entering the chunk is foreground; returns the carry out of
//     the chunk.
//   denseRun: chunks whose runs are shorter than this on average go the
//     dense way; 0 when there is no dense way. Then also:
//   fromMarks(marks, span, out, outBytes, carry) does the same for a dense
//     chunk: marks holds 0x80 at each flipped pixel of span (a multiple of
//     64) pixels and is cleared again; outBytes bytes go to out.
//
// With SSE2 alone a dense chunk (bytes reversed by shuffles, the prefix
// XOR in six shifts) did not pay for itself on line art and cost the
// sparse rows the probe, so only the sparse way is there.
struct Sse2Kernels {
    static constexpr size_t denseRun = 0;

    static uint64_t prefix(uint64_t w) { return prefixXor(w); }

    static uint64_t fromFlips(uint8_t* row, size_t n, uint64_t carry) {
        return flipsToPixels<Sse2Kernels>(row, n, carry);
    }
};

#if IMAGELIB_RLE_DISPATCH
#define IL_AVX2 __attribute__((target("avx2,pclmul")))
// AVX2 takes 32 marks a mask, and a carry-less multiply does the prefix
// XOR: the high half of w times all ones holds at bit i the XOR of the bits
// of w above i. A dense chunk then costs little more than a sparse one.
struct Avx2Kernels {
    static constexpr size_t denseRun = 32;

    IL_AVX2 static uint64_t prefix(uint64_t w) {
        __m128i p = _mm_clmulepi64_si128(_mm_cvtsi64_si128(int64_t(w)), _mm_set1_epi64x(-1), 0x00);
        return w ^ uint64_t(_mm_cvtsi128_si64(_mm_unpackhi_epi64(p, p)));
    }

    IL_AVX2 static uint64_t fromMarks(uint8_t* marks, size_t span, uint8_t* out, size_t outBytes, uint64_t carry) {
        const __m256i reverse8 = _mm256_setr_epi8(7, 6, 5, 4, 3, 2, 1, 0, 15, 14, 13, 12, 11, 10, 9, 8,  //
                                                  7, 6, 5, 4, 3, 2, 1, 0, 15, 14, 13, 12, 11, 10, 9, 8);
        for (size_t g = 0; g < span; g += 64) {
            auto* p = reinterpret_cast<__m256i*>(marks + g);
            __m256i lo = _mm256_shuffle_epi8(_mm256_load_si256(p), reverse8);
            __m256i hi = _mm256_shuffle_epi8(_mm256_load_si256(p + 1), reverse8);
            _mm256_store_si256(p, _mm256_setzero_si256());
            _mm256_store_si256(p + 1, _mm256_setzero_si256());
            uint64_t bytes = uint64_t(unsigned(_mm256_movemask_epi8(lo))) |
                             uint64_t(unsigned(_mm256_movemask_epi8(hi))) << 32;
            uint64_t w = prefix(__builtin_bswap64(bytes)) ^ carry;
            carry = uint64_t(0) - (w & 1);
            il::bits::storeBE(out + (g >> 3), w, std::min<size_t>(8, outBytes - (g >> 3)));
        }
        return carry;
    }

    IL_AVX2 static uint64_t fromFlips(uint8_t* row, size_t n, uint64_t carry) {
        return flipsToPixels<Avx2Kernels>(row, n, carry);
    }
};
#endif

enum class MarkStop { chunkEnd, runsOut };

// Calls mark(b) for the run boundaries b (relative to the chunk) before
// lim, from the run after the boundary at rel (which may lie before the
// chunk). Stops at the first boundary at lim or beyond, without taking its
// run, or when maxRuns runs have been taken (Bounded only). A run is read
// only when the boundary before it lies inside the row, so well-formed
// rows are never read past the run that reaches the width.
template <bool Bounded, class Mark>
inline MarkStop markRuns(const uint16_t* runs, size_t maxRuns, size_t& i, int64_t& rel, int64_t lim, Mark mark) {
    for (;; ++i) {
        if (Bounded && i == maxRuns) return MarkStop::runsOut;
        int64_t b = rel + runs[i];
        if (b >= lim) return MarkStop::chunkEnd;
        mark(b);
        rel = b;
    }
}

// True when the row begins with short runs: its first 16 runs end before
// pixel 16 * denseRun.
template <bool Bounded>
bool denseStart(const uint16_t* runs, size_t maxRuns, size_t width, size_t denseRun) {
    size_t end = std::min(width, 16 * denseRun), pos = 0;
    for (size_t i = 0; i < 16; ++i) {
        if (Bounded && i == maxRuns) return false;
        pos += runs[i];
        if (pos >= end) return false;
    }
    return true;
}

// Decodes runs into width pixels of row, reading at most maxRuns runs
// (Bounded) or trusting the runs to reach the width; the last run is
// clipped at the width and the padding bits of the last byte are kept.
// Returns the runs used, or -1 when maxRuns runs did not reach the width
// (the pixels after the last run are then background).
template <bool Bounded, class Kernels>
[[gnu::always_inline]] inline long decodeRowT(uint8_t* row, const uint16_t* runs, size_t maxRuns, size_t width) {
    size_t nbytes = rowBytes(width);
    uint8_t padMask = uint8_t(0xFFu >> (width & 7)) & uint8_t((width & 7) ? 0xFF : 0), pad = row[nbytes - 1] & padMask;
    alignas(32) uint8_t marks[Kernels::denseRun ? kChunk : 1];
    bool marksClear = false;
    size_t i = 0;
    int64_t rel = 0;     // last boundary, relative to the chunk
    uint64_t carry = 0;  // all ones while the colour entering the chunk is foreground
    long used = -1;
    bool dense = Kernels::denseRun && denseStart<Bounded>(runs, maxRuns, width, Kernels::denseRun);
    for (size_t cs = 0; cs < width;) {
        size_t len = std::min(dense ? kChunk : kSparseSpan, width - cs), outBytes = rowBytes(len), first = i;
        uint8_t* out = row + (cs >> 3);
        MarkStop stop = MarkStop::chunkEnd;
        if constexpr (Kernels::denseRun > 0) {
            if (dense) {
                size_t span = (len + 63) & ~size_t(63);
                if (!marksClear) std::memset(marks, 0, span);  // later chunks find them cleared
                marksClear = true;
                auto mark = [&](int64_t b) { marks[b] ^= 0x80; };
                stop = markRuns<Bounded>(runs, maxRuns, i, rel, int64_t(len), mark);
                if (stop == MarkStop::runsOut && (i & 1) && rel >= 0) mark(rel);  // back to background
                carry = Kernels::fromMarks(marks, span, out, outBytes, carry);
            }
        }
        if (!dense) {
            std::memset(out, 0, outBytes);
            auto mark = [&](int64_t b) { out[b >> 3] ^= uint8_t(0x80u >> (b & 7)); };
            stop = markRuns<Bounded>(runs, maxRuns, i, rel, int64_t(len), mark);
            if (stop == MarkStop::runsOut && (i & 1) && rel >= 0) mark(rel);
            carry = Kernels::fromFlips(out, outBytes, carry);
        }
        if (stop == MarkStop::runsOut) {
            size_t next = rowBytes(cs + len);
            if (next < nbytes) std::memset(row + next, 0, nbytes - next);
            break;
        }
        cs += len;
        if (cs == width) used = long(i + 1);  // the boundary after the last chunk reached the width
        rel -= int64_t(len);
        dense = (i - first) * Kernels::denseRun > len;  // never with denseRun 0
    }
    row[nbytes - 1] = uint8_t((row[nbytes - 1] & ~padMask) | pad);
    return used;
}

long decodeRowSse2(uint8_t* row, const uint16_t* runs, size_t maxRuns, size_t width) {
    return maxRuns == SIZE_MAX ? decodeRowT<false, Sse2Kernels>(row, runs, maxRuns, width)
                               : decodeRowT<true, Sse2Kernels>(row, runs, maxRuns, width);
}

#if IMAGELIB_RLE_DISPATCH
IL_AVX2 long decodeRowAvx2(uint8_t* row, const uint16_t* runs, size_t maxRuns, size_t width) {
    return maxRuns == SIZE_MAX ? decodeRowT<false, Avx2Kernels>(row, runs, maxRuns, width)
                               : decodeRowT<true, Avx2Kernels>(row, runs, maxRuns, width);
}
#endif

using RowDecoder = long (*)(uint8_t* row, const uint16_t* runs, size_t maxRuns, size_t width);

RowDecoder pickRowDecoder() {
#if IMAGELIB_RLE_DISPATCH
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("pclmul")) return decodeRowAvx2;
#endif
    return decodeRowSse2;
}

long decodeRow(uint8_t* row, const uint16_t* runs, size_t maxRuns, size_t width) {
    static const RowDecoder decoder = pickRowDecoder();
    return width ? decoder(row, runs, maxRuns, width) : 0;
}

// Stores a copy of n runs as rows[row] (a block of exactly 2n bytes).
int storeRuns(uint16_t** rows, int row, const uint16_t* runs, size_t n) {
    void* p = dlmSystem_korMalloc(n ? 2 * n : 1);
    if (!p) return IMGERR_NOMEMORY;
    std::memcpy(p, runs, 2 * n);
    rows[row] = static_cast<uint16_t*>(p);
    return 0;
}

bool sizeOk(const ImageSize* size) { return size && size->x >= 0 && size->y >= 0; }

// Runs of a well-formed row of width pixels, up to the one that reaches it.
size_t runCount(const uint16_t* runs, size_t width) {
    size_t n = 0;
    for (size_t sum = 0; sum < width; ++n) sum += runs[n];
    return n;
}

}  // namespace

namespace il {

int rleDecodeRowBounded(uint8_t* row, const uint16_t* runs, int runCount, int width) noexcept {
    if (!row || width <= 0) return 0;
    long used = decodeRow(row, runs, runs && runCount > 0 ? size_t(runCount) : 0, size_t(width));
    return used < 0 ? IMGERR_BADFILE : int(used);
}

int rleRowRunCount(const uint16_t* runs, int maxRuns, int width) noexcept {
    int64_t sum = 0;
    int n = 0;
    while (sum < width) {
        if (!runs || n >= maxRuns) return IMGERR_BADFILE;
        sum += runs[n++];
    }
    return n;
}

int storeRLEBitMapRow(uint16_t** rows, int row, const uint8_t* bits, int width) noexcept {
    if (!rows || row < 0 || width < 0) return IMGERR_BADARG;
    Scratch<uint16_t> runs(rleBound(size_t(width)) / 2, tag("RLEr"));
    if (!runs.ok()) return IMGERR_NOMEMORY;
    size_t n = bits ? encodeRow(runs.get(), bits, size_t(width)) : 0;
    return storeRuns(rows, row, runs.get(), n);
}

int appendRLEBitMapRow(uint16_t** rows, int row, const uint8_t* bits, int oldWidth, int addWidth) noexcept {
    if (!rows || row < 0 || oldWidth < 0 || addWidth < 0 || int64_t(oldWidth) + addWidth > INT_MAX)
        return IMGERR_BADARG;
    if (oldWidth == 0) return storeRLEBitMapRow(rows, row, bits, addWidth);
    size_t width = size_t(oldWidth) + size_t(addWidth), total = rowBytes(width);
    Scratch<uint8_t> bitmap(total, tag("RLEa"), true);
    Scratch<uint16_t> runs(rleBound(width) / 2, tag("RLEr"));
    if (!bitmap.ok() || !runs.ok()) return IMGERR_NOMEMORY;
    if (rows[row]) decodeRow(bitmap.get(), rows[row], SIZE_MAX, size_t(oldWidth));
    // The new pixels go in whole bytes from the next byte boundary.
    size_t at = rowBytes(size_t(oldWidth));
    if (bits && at < total) std::memcpy(bitmap.get() + at, bits, std::min(rowBytes(size_t(addWidth)), total - at));
    size_t n = encodeRow(runs.get(), bitmap.get(), width);
    uint16_t* old = rows[row];
    int st = storeRuns(rows, row, runs.get(), n);
    if (st != 0) return st;  // the old row stays in place
    if (old) dlmSystem_korFree(old);
    return 0;
}

int appendStripToRLERows(uint16_t** rows, int first, int last, int step, const uint8_t* src, int oldWidth,
                         int addWidth) noexcept {
    if (step <= 0 || addWidth < 0) return IMGERR_BADARG;
    size_t stride = rowBytes(size_t(addWidth));
    for (int i = first; i < last; i += step, src += stride) {
        int st = appendRLEBitMapRow(rows, i, src, oldWidth, addWidth);
        if (st != 0) return st;
        if (last - i <= step) break;  // no overflow of i + step
    }
    return 0;
}

}  // namespace il

extern "C" {

int korImage_runLengthEncodeBitMapRow(uint16_t* runs, int* byteLength, const uint8_t* row, int width) noexcept {
    int len = 0;
    if (runs && row && width > 0) len = int(2 * encodeRow(runs, row, size_t(width)));
    if (byteLength) *byteLength = len;
    return len;
}

int korImage_runLengthDecodeBitMapRow(uint8_t* row, const uint16_t* runs, int width) noexcept {
    if (!row || !runs || width <= 0) return 0;
    decodeRow(row, runs, SIZE_MAX, size_t(width));
    return 0x80 >> (width & 7);
}

int korImage_runLengthEncodeBitMap(uint16_t*** rows, const uint8_t* bitmap, const ImageSize* size) noexcept {
    if (!rows || !bitmap || !sizeOk(size)) return IMGERR_BADARG;
    size_t width = size_t(size->x), stride = rowBytes(width);
    il::Scratch<uint16_t> runs(il::rleBound(width) / 2, il::tag("RLEe"));
    auto* table = static_cast<uint16_t**>(dlmSystem_korCalloc(size->y ? size_t(size->y) : 1, sizeof(uint16_t*)));
    if (!runs.ok() || !table) {
        dlmSystem_korFree(table);
        return IMGERR_NOMEMORY;
    }
    for (int32_t y = 0; y < size->y; ++y, bitmap += stride) {
        size_t n = encodeRow(runs.get(), bitmap, width);
        if (storeRuns(table, y, runs.get(), n) != 0) {
            korImage_freeImage(table, size, IMAGEFORMAT_RLEBITMAP);
            return IMGERR_NOMEMORY;
        }
    }
    *rows = table;
    return 0;
}

int korImage_stretchRLEToBitMap(void** image, const ImageSize* size) noexcept {
    if (!image || !*image || !sizeOk(size)) return IMGERR_BADARG;
    size_t width = size_t(size->x), stride = rowBytes(width), bytes;
    if (!il::mulSize(stride, size_t(size->y), &bytes)) return IMGERR_NOMEMORY;
    auto* bitmap = static_cast<uint8_t*>(dlmSystem_korMalloc(bytes ? bytes : 1));
    if (!bitmap) return IMGERR_NOMEMORY;
    auto* const* rows = static_cast<uint16_t* const*>(*image);
    for (int32_t y = 0; y < size->y; ++y) {
        uint8_t* out = bitmap + size_t(y) * stride;
        if (rows[y])
            decodeRow(out, rows[y], SIZE_MAX, width);
        else
            std::memset(out, 0, stride);
    }
    korImage_freeImage(*image, size, IMAGEFORMAT_RLEBITMAP);
    *image = bitmap;
    return 0;
}

int korImage_invertBitMap(void** out, const void* src, const ImageSize* size, int isRunLength) noexcept {
    if (!out || !src || !sizeOk(size)) return IMGERR_BADARG;
    if (!isRunLength) {
        size_t bytes;
        if (!il::mulSize(rowBytes(size_t(size->x)), size_t(size->y), &bytes)) return IMGERR_NOMEMORY;
        auto* dst = static_cast<uint8_t*>(dlmSystem_korMalloc(bytes ? bytes : 1));
        if (!dst) return IMGERR_NOMEMORY;
        const auto* s = static_cast<const uint8_t*>(src);
        for (size_t i = 0; i < bytes; ++i) dst[i] = uint8_t(~s[i]);
        *out = dst;
        return 0;
    }
    auto* table = static_cast<uint16_t**>(dlmSystem_korCalloc(size->y ? size_t(size->y) : 1, sizeof(uint16_t*)));
    if (!table) return IMGERR_NOMEMORY;
    *out = table;
    auto* const* rows = static_cast<uint16_t* const*>(src);
    for (int32_t y = 0; y < size->y; ++y) {
        const uint16_t* r = rows[y];
        if (!r) continue;
        size_t n = runCount(r, size_t(size->x));
        // A leading 0 run is dropped, otherwise one is put in front: every
        // run then stands for the other colour.
        bool drop = n > 0 && r[0] == 0;
        size_t m = drop ? n - 1 : n + 1;
        auto* row = static_cast<uint16_t*>(dlmSystem_korMalloc(m ? 2 * m : 1));
        if (!row) return IMGERR_NOMEMORY;
        if (drop) {
            std::memcpy(row, r + 1, 2 * m);
        } else {
            row[0] = 0;
            std::memcpy(row + 1, r, 2 * n);
        }
        table[y] = row;
    }
    return 0;
}

int korImage_leftJustifyBitMap(uint8_t* dst, const void* src, int first, int count, int isRunLength) noexcept {
    if (!dst || !src || count <= 0 || first < 0) return 0;
    size_t outBytes = rowBytes(size_t(count));
    if (!isRunLength) {
        const auto* s = static_cast<const uint8_t*>(src);
        if (first == 0) {
            std::memcpy(dst, s, outBytes);
            return 0;
        }
        // Only count - 1 pixels are taken over; the last one stays clear.
        std::memset(dst, 0, outBytes);
        size_t copy = size_t(count) - 1, b = size_t(first) >> 3;
        unsigned sh = unsigned(first & 7);
        for (size_t k = 0; 8 * k < copy; ++k) {
            size_t lastBit = std::min(8 * k + 7, copy - 1);  // last destination pixel of this byte
            unsigned v = unsigned(s[b + k]) << sh;
            if (((size_t(first) + lastBit) >> 3) > b + k) v |= unsigned(s[b + k + 1]) >> (8 - sh);
            dst[k] = uint8_t(v & il::bits::byteMask(0, unsigned(lastBit - 8 * k + 1)));
        }
        return 0;
    }
    std::memset(dst, 0, outBytes);
    const auto* runs = static_cast<const uint16_t*>(src);
    size_t from = size_t(first), to = from + size_t(count), pos = 0;
    bool colour = false;
    while (pos < to) {
        size_t end = pos + *runs++;
        if (colour && end > from) il::bits::fill(dst, std::max(pos, from) - from, std::min(end, to) - from, true);
        pos = end;
        colour = !colour;
    }
    return 0;
}

}  // extern "C"
