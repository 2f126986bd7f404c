// Run-length bitmap rows (layout 2): encoding, decoding, whole images,
// inversion, left justification and row appends.
#include <algorithm>
#include <climits>
#include <cstring>

#include "internal/checked.h"
#include "internal/scratch.h"
#include "pixels/bits.h"
#include "pixels/rows.h"

namespace {

using il::bits::rowBytes;

// The bits of a word in reverse order (bit 63 becomes bit 0).
inline uint64_t reverseBits(uint64_t w) {
    w = __builtin_bswap64(w);
    w = ((w >> 1) & 0x5555555555555555ull) | ((w & 0x5555555555555555ull) << 1);
    w = ((w >> 2) & 0x3333333333333333ull) | ((w & 0x3333333333333333ull) << 2);
    w = ((w >> 4) & 0x0F0F0F0F0F0F0F0Full) | ((w & 0x0F0F0F0F0F0F0F0Full) << 4);
    return w;
}

// Number of set bits (the baseline instruction set has no popcnt).
inline unsigned bitCount(uint64_t x) {
    x = x - ((x >> 1) & 0x5555555555555555ull);
    x = (x & 0x3333333333333333ull) + ((x >> 2) & 0x3333333333333333ull);
    x = (x + (x >> 4)) & 0x0F0F0F0F0F0F0F0Full;
    return unsigned((x * 0x0101010101010101ull) >> 56);
}

// Encodes width pixels of row into runs; returns the number of runs. Only
// the pixels inside the width are looked at, so padding bits never matter.
// Colour changes are found 64 pixels at a time. In rows wider than 65535
// pixels a longer run is split into 65535, 0, rest so that every run fits
// its 16-bit slot.
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
        if (!t) continue;
        t = reverseBits(t);  // bit i: a change at pixel i
        if (!(t & (t - 1))) {  // one change: the common case of sparse rows
            size_t p = base + unsigned(__builtin_ctzll(t));
            put(p - start);
            start = p;
            continue;
        }
        if (!Wide && base + 128 <= width) {
            // Runs of this word in groups of eight without data-dependent
            // branches. A row of width W holds at most W + 1 runs and, this
            // far from the end, the slots written past the last real run are
            // still inside the caller's buffer (they are overwritten later).
            unsigned count = bitCount(t);
            size_t last = base + 63 - unsigned(__builtin_clzll(t));
            uint16_t* o = runs + n;
            for (unsigned k = 0; k < count; k += 8, o += 8) {
                for (int j = 0; j < 8; ++j) {
                    size_t p = base + unsigned(__builtin_ctzll(t | (1ull << 63)));
                    t &= t - 1;
                    o[j] = uint16_t(p - start);
                    start = p;
                }
            }
            n += count;
            start = last;
            continue;
        }
        while (t) {
            size_t p = base + unsigned(__builtin_ctzll(t));
            t &= t - 1;
            put(p - start);
            start = p;
        }
    }
    if (width > start) put(width - start);
    return n;
}

size_t encodeRow(uint16_t* runs, const uint8_t* row, size_t width) {
    return width > 0xFFFF ? encodeRowT<true>(runs, row, width) : encodeRowT<false>(runs, row, width);
}

// Decodes runs into width pixels of row, reading at most maxRuns runs; the
// last run is clipped at the width and the padding bits of the last byte
// are kept. The first pass marks every run boundary as a colour change in
// the cleared row, the second turns the changes into pixels with a prefix
// XOR, 64 pixels at a time. Returns the runs used, or -1 when maxRuns runs
// did not reach the width (the pixels after the last run are then
// background).
long decodeRow(uint8_t* row, const uint16_t* runs, size_t maxRuns, size_t width) {
    if (width == 0) return 0;
    size_t nbytes = rowBytes(width);
    uint8_t padMask = uint8_t(0xFFu >> (width & 7)) & uint8_t((width & 7) ? 0xFF : 0), pad = row[nbytes - 1] & padMask;
    std::memset(row, 0, nbytes);
    size_t pos = 0, i = 0;
    long used;
    for (;;) {
        if (i == maxRuns) {
            used = -1;
            if (i & 1) row[pos >> 3] ^= uint8_t(0x80u >> (pos & 7));  // back to background
            break;
        }
        pos += runs[i++];
        if (pos >= width) {
            used = long(i);
            break;
        }
        row[pos >> 3] ^= uint8_t(0x80u >> (pos & 7));
    }
    uint64_t carry = 0;  // all ones while the colour entering the word is foreground
    size_t b = 0;
    for (; b + 8 <= nbytes; b += 8) {
        uint64_t w = il::bits::loadBE(row + b, 8);
        w ^= w >> 1;
        w ^= w >> 2;
        w ^= w >> 4;
        w ^= w >> 8;
        w ^= w >> 16;
        w ^= w >> 32;
        w ^= carry;
        carry = uint64_t(0) - (w & 1);
        il::bits::storeBE(row + b, w, 8);
    }
    for (unsigned c = unsigned(carry & 0xFF); b < nbytes; ++b) {
        unsigned v = row[b];
        v ^= v >> 1;
        v ^= v >> 2;
        v ^= v >> 4;
        v ^= c;
        c = 0u - (v & 1);
        row[b] = uint8_t(v);
    }
    row[nbytes - 1] = uint8_t((row[nbytes - 1] & ~padMask) | pad);
    return used;
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
