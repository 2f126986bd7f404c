// PackByte rows (layout 8): encoding, decoding, cursors and row tables.
#include <algorithm>
#include <climits>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "internal/checked.h"
#include "internal/scratch.h"
#include "pixels/rows.h"

namespace {

// Length of the run of equal bytes that starts at i (at least 1).
size_t runLength(const uint8_t* s, size_t i, size_t n) {
    uint8_t v = s[i];
    size_t j = i + 1;
#if defined(__SSE2__)
    __m128i vv = _mm_set1_epi8(char(v));
    while (j + 16 <= n) {
        unsigned eq = unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_loadu_si128((const __m128i*)(s + j)), vv)));
        if (eq != 0xFFFF) return j + unsigned(__builtin_ctz(~eq)) - i;
        j += 16;
    }
#endif
    while (j < n && s[j] == v) ++j;
    return j - i;
}

// First j >= i where s[j] == s[j + 1] (a run begins), or n.
size_t literalEnd(const uint8_t* s, size_t i, size_t n) {
    size_t j = i;
#if defined(__SSE2__)
    while (j + 17 <= n) {
        __m128i a = _mm_loadu_si128((const __m128i*)(s + j));
        __m128i b = _mm_loadu_si128((const __m128i*)(s + j + 1));
        unsigned eq = unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(a, b)));
        if (eq) return j + unsigned(__builtin_ctz(eq));
        j += 16;
    }
#endif
    while (j + 1 < n && s[j] != s[j + 1]) ++j;
    return j + 1 < n ? j : n;
}

// The PackByte encoder. It produces exactly the packets of the byte-wise
// state machine of the format (pending byte, open literal, pending repeat),
// but finds runs and literal stretches many bytes at a time:
// - a run of L >= 2 equal bytes gives L / 128 packets 0x80 v, then a repeat
//   of the remainder r when r >= 2; a remainder of 1 opens the literal that
//   follows;
// - a stretch of bytes without two equal neighbours gives literals of 127,
//   then one of the remainder m; m = 1 at the very end of the data becomes
//   the repeat 0xFF v instead.
size_t encode(uint8_t* dst, const uint8_t* src, size_t n) {
    uint8_t* o = dst;
    size_t i = 0;
    while (i < n) {
        size_t len = runLength(src, i, n);
        if (len >= 2) {
            uint8_t v = src[i];
            for (size_t q = len / 128; q > 0; --q) {
                *o++ = 0x80;
                *o++ = v;
            }
            size_t r = len % 128;
            if (r != 1) {
                if (r) {
                    *o++ = uint8_t(-int(r));
                    *o++ = v;
                }
                i += len;
                continue;
            }
            i += len - 1;
        }
        size_t j = literalEnd(src, i, n);
        while (j - i >= 127) {
            *o++ = 127;
            std::memcpy(o, src + i, 127);
            o += 127;
            i += 127;
        }
        size_t m = j - i;
        if (m == 1 && j == n) {
            *o++ = 0xFF;
            *o++ = src[i];
        } else if (m) {
            *o++ = uint8_t(m);
            std::memcpy(o, src + i, m);
            o += m;
        }
        i = j;
    }
    return size_t(o - dst);
}

// Decodes packets into count bytes; at most srcLen bytes of src are read.
// Returns the source bytes used, or SIZE_MAX when the source ran out (the
// output then is complete only up to *produced).
size_t decode(uint8_t* dst, size_t count, const uint8_t* src, size_t srcLen, size_t* produced) {
    size_t out = 0, in = 0;
    while (out < count) {
        if (in >= srcLen) break;
        int k = int8_t(src[in++]);
        if (k > 0) {
            size_t take = std::min(size_t(k), count - out);
            if (take > srcLen - in) {
                std::memcpy(dst + out, src + in, srcLen - in);
                out += srcLen - in;
                in = srcLen;
                break;
            }
            std::memcpy(dst + out, src + in, take);
            out += take;
            in += size_t(k);  // a cut literal is passed whole
        } else if (k < 0) {
            if (in >= srcLen) break;
            size_t take = std::min(size_t(-k), count - out);
            std::memset(dst + out, src[in++], take);
            out += take;
        }
    }
    *produced = out;
    return out < count ? SIZE_MAX : std::min(in, srcLen);
}

int storeEncoded(uint8_t** rows, int row, const uint8_t* encoded, size_t len) {
    void* p = dlmSystem_korMalloc(len ? len : 1);
    if (!p) return IMGERR_NOMEMORY;
    std::memcpy(p, encoded, len);
    rows[row] = static_cast<uint8_t*>(p);
    return 0;
}

bool sizeOk(const ImageSize* size) { return size && size->x >= 0 && size->y >= 0; }

}  // namespace

namespace il {

RowTable::~RowTable() {
    if (rows) korImage_freeImage(rows, &size, layout);
}

bool RowTable::allocate(ImageSize tableSize, int tableLayout) noexcept {
    if (rows) korImage_freeImage(rows, &size, layout);
    size = tableSize;
    layout = tableLayout;
    rows = static_cast<void**>(dlmSystem_korCalloc(size_t(size.y > 0 ? size.y : 1), sizeof(void*)));
    return rows != nullptr;
}

void RowTable::adopt(void* table, ImageSize tableSize, int tableLayout) noexcept {
    if (rows) korImage_freeImage(rows, &size, layout);
    rows = static_cast<void**>(table);
    size = tableSize;
    layout = tableLayout;
}

int storePackByteRow(uint8_t** rows, int row, const uint8_t* bytes, int width) noexcept {
    if (!rows || row < 0 || width < 0 || (!bytes && width > 0)) return IMGERR_BADARG;
    Scratch<uint8_t> enc(packByteBound(size_t(width)), tag("PKBs"));
    if (!enc.ok()) return IMGERR_NOMEMORY;
    return storeEncoded(rows, row, enc.get(), encode(enc.get(), bytes, size_t(width)));
}

int replacePackByteRow(uint8_t** rows, int row, const uint8_t* bytes, int width) noexcept {
    if (!rows || row < 0) return IMGERR_BADARG;
    uint8_t* old = rows[row];
    int st = storePackByteRow(rows, row, bytes, width);
    if (st == 0 && old) dlmSystem_korFree(old);
    return st;
}

int appendPackByteRow(uint8_t** rows, int row, const uint8_t* bytes, int oldWidth, int addWidth) noexcept {
    if (!rows || row < 0 || oldWidth < 0 || addWidth < 0 || int64_t(oldWidth) + addWidth > INT_MAX)
        return IMGERR_BADARG;
    if (oldWidth == 0) return storePackByteRow(rows, row, bytes, addWidth);
    Scratch<uint8_t> plain(size_t(oldWidth) + size_t(addWidth), tag("PKBa"), true);
    if (!plain.ok()) return IMGERR_NOMEMORY;
    if (rows[row]) korImage_unpackByteBuffer(plain.get(), rows[row], oldWidth);
    if (bytes) std::memcpy(plain.get() + oldWidth, bytes, size_t(addWidth));
    return replacePackByteRow(rows, row, plain.get(), oldWidth + addWidth);
}

int appendStripToPackByteRows(uint8_t** rows, int first, int last, int step, const uint8_t* src, int oldWidth,
                              int addWidth) noexcept {
    if (step <= 0 || addWidth < 0) return IMGERR_BADARG;
    for (int i = first; i < last; i += step, src += addWidth) {
        int st = appendPackByteRow(rows, i, src, oldWidth, addWidth);
        if (st != 0) return st;
        if (last - i <= step) break;
    }
    return 0;
}

int packByteEncodeImage(uint8_t*** rows, const uint8_t* map, const ImageSize* size) noexcept {
    if (!rows || !map || !sizeOk(size)) return IMGERR_BADARG;
    size_t width = size_t(size->x);
    Scratch<uint8_t> enc(packByteBound(width), tag("PKBe"));
    auto* table = static_cast<uint8_t**>(dlmSystem_korCalloc(size->y ? size_t(size->y) : 1, sizeof(uint8_t*)));
    if (!enc.ok() || !table) {
        dlmSystem_korFree(table);
        return IMGERR_NOMEMORY;
    }
    for (int32_t y = 0; y < size->y; ++y, map += width) {
        if (storeEncoded(table, y, enc.get(), encode(enc.get(), map, width)) != 0) {
            korImage_freeImage(table, size, IMAGEFORMAT_PACKBYTE);
            return IMGERR_NOMEMORY;
        }
    }
    *rows = table;
    return 0;
}

void packByteDecodeInto(uint8_t* dst, uint8_t* const* rows, const ImageSize* size) noexcept {
    const size_t width = size_t(size->x);
    for (int32_t y = 0; y < size->y; ++y) {
        uint8_t* d = dst + size_t(y) * width;
        if (rows[y])
            korImage_unpackByteBuffer(d, rows[y], int(width));
        else
            std::memset(d, 0, width);
    }
}

int packByteDecodeImage(uint8_t** map, uint8_t* const* rows, const ImageSize* size) noexcept {
    if (!map || !rows || !sizeOk(size)) return IMGERR_BADARG;
    size_t width = size_t(size->x), bytes;
    if (!mulSize(width, size_t(size->y), &bytes)) return IMGERR_NOMEMORY;
    auto* out = static_cast<uint8_t*>(dlmSystem_korMalloc(bytes ? bytes : 1));
    if (!out) return IMGERR_NOMEMORY;
    packByteDecodeInto(out, rows, size);
    *map = out;
    return 0;
}

void skipPackBytePixels(const uint8_t** cursor, int n, int* residual) noexcept {
    if (!cursor || !*cursor) return;
    const uint8_t* c = *cursor;
    int res = int8_t(*c);
    while (n > 0) {
        int k = int8_t(*c);
        int pixels = k > 0 ? k : -k;
        if (n < pixels) {
            if (k > 0) {
                c += n;
                res = k - n;
            } else {
                res = k + n;
            }
            n = 0;
            break;
        }
        c += k > 0 ? k + 1 : (k < 0 ? 2 : 1);
        n -= pixels;
        res = int8_t(*c);
    }
    *cursor = c;
    if (residual) *residual = res;
}

int unpackByteBufferBounded(uint8_t* dst, int count, const uint8_t* src, size_t srcLength, size_t* used) noexcept {
    if (used) *used = 0;
    if (!dst || count <= 0) return 0;
    size_t produced = 0;
    size_t in = decode(dst, size_t(count), src, src ? srcLength : 0, &produced);
    if (in == SIZE_MAX) {
        std::memset(dst + produced, 0, size_t(count) - produced);
        if (used) *used = srcLength;
        return IMGERR_READFAILED;
    }
    if (used) *used = in;
    return 0;
}

}  // namespace il

extern "C" {

int* korImage_packByteBuffer(uint8_t* dst, int* length, const uint8_t* src, int count) noexcept {
    size_t len = (dst && src && count > 0) ? encode(dst, src, size_t(count)) : 0;
    if (length) *length = int(len);
    return length;
}

const uint8_t* korImage_unpackByteBuffer(uint8_t* dst, const uint8_t* src, int count) noexcept {
    if (!dst || !src || count <= 0) return src;
    size_t produced = 0;
    size_t in = decode(dst, size_t(count), src, SIZE_MAX, &produced);
    return src + in;
}

}  // extern "C"
