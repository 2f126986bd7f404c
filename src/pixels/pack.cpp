// Packing of small pixel values into bytes and back.
#include <cstring>

#include "pixels/rows.h"

namespace {

// Unpacked bytes of one packed byte at 1 and 2 bits a pixel, one table
// entry a source byte (8 or 4 values in memory order).
struct UnpackTables {
    uint8_t bits1[256][8];
    uint8_t bits2[256][4];
    constexpr UnpackTables() : bits1(), bits2() {
        for (int b = 0; b < 256; ++b) {
            for (int i = 0; i < 8; ++i) bits1[b][i] = uint8_t((b >> (7 - i)) & 1);
            for (int i = 0; i < 4; ++i) bits2[b][i] = uint8_t((b >> (6 - 2 * i)) & 3);
        }
    }
};
constexpr UnpackTables kUnpack;

// Generic packer for B = 1, 2, 4 (values are ORed in unmasked, so a wide
// value spills into its neighbours' fields like the reference packer).
template <int B>
void packBits(uint8_t* dst, const uint8_t* src, int count) {
    constexpr int P = 8 / B;
    int whole = count / P;
    for (int i = 0; i < whole; ++i, src += P) {
        unsigned v = 0;
        for (int j = 0; j < P; ++j) v |= unsigned(src[j]) << ((P - 1 - j) * B);
        dst[i] = uint8_t(v);
    }
    int rest = count - whole * P;
    if (rest > 0) {
        unsigned v = 0;
        for (int j = 0; j < rest; ++j) v |= unsigned(src[j]) << ((P - 1 - j) * B);
        dst[whole] = uint8_t(v);
    }
}

// Any other width of 1..7 bits: the plain description of the packer.
void packGeneric(uint8_t* dst, const uint8_t* src, int bits, int count) {
    int per = 8 / bits;
    for (int done = 0; done < count;) {
        unsigned v = 0;
        int shift = (per - 1) * bits;
        for (int j = 0; j < per && done < count; ++j, ++done, shift -= bits) v |= unsigned(*src++) << shift;
        *dst++ = uint8_t(v);
    }
}

template <class Out>
void unpackGeneric(const uint8_t* src, int bits, int count, Out out) {
    int per = 8 / bits;
    unsigned top = (0xFFu << (8 - bits)) & 0xFFu;
    for (int done = 0; done < count; ++src) {
        unsigned mask = top;
        int shift = (per - 1) * bits;
        for (int j = 0; j < per && done < count; ++j, ++done, shift -= bits, mask >>= bits)
            out(uint8_t((*src & mask) >> shift));
    }
}

void unpackFast(uint8_t* dst, const uint8_t* src, int bits, int count) {
    switch (bits) {
        case 8: std::memcpy(dst, src, size_t(count)); return;
        case 4: {
            int whole = count / 2;
            for (int i = 0; i < whole; ++i) {
                dst[2 * i] = uint8_t(src[i] >> 4);
                dst[2 * i + 1] = uint8_t(src[i] & 15);
            }
            if (count & 1) dst[count - 1] = uint8_t(src[whole] >> 4);
            return;
        }
        case 2: {
            int whole = count / 4;
            for (int i = 0; i < whole; ++i) std::memcpy(dst + 4 * i, kUnpack.bits2[src[i]], 4);
            if (count > 4 * whole) std::memcpy(dst + 4 * whole, kUnpack.bits2[src[whole]], size_t(count - 4 * whole));
            return;
        }
        case 1: {
            int whole = count / 8;
            for (int i = 0; i < whole; ++i) std::memcpy(dst + 8 * i, kUnpack.bits1[src[i]], 8);
            if (count > 8 * whole) std::memcpy(dst + 8 * whole, kUnpack.bits1[src[whole]], size_t(count - 8 * whole));
            return;
        }
        default: {
            uint8_t* d = dst;
            unpackGeneric(src, bits, count, [&d](uint8_t v) { *d++ = v; });
        }
    }
}

}  // namespace

namespace il {

void unpackBufferMapped(uint8_t* dst, const uint8_t* src, int bitsPerPixel, int count,
                        const uint8_t* table) noexcept {
    if (!dst || !src || count <= 0 || bitsPerPixel < 1 || bitsPerPixel > 8) return;
    if (!table) {
        unpackFast(dst, src, bitsPerPixel, count);
        return;
    }
    if (bitsPerPixel == 8) {
        for (int i = 0; i < count; ++i) dst[i] = table[src[i]];
        return;
    }
    uint8_t* d = dst;
    unpackGeneric(src, bitsPerPixel, count, [&d, table](uint8_t v) { *d++ = table[v]; });
}

}  // namespace il

extern "C" {

int korImage_packBuffer(uint8_t* dst, const uint8_t* src, int bitsPerPixel, int count) noexcept {
    if (bitsPerPixel < 1 || bitsPerPixel > 8) return IMGERR_BADARG;
    if (dst && src && count > 0) {
        switch (bitsPerPixel) {
            case 8: std::memcpy(dst, src, size_t(count)); break;
            case 4: packBits<4>(dst, src, count); break;
            case 2: packBits<2>(dst, src, count); break;
            case 1: packBits<1>(dst, src, count); break;
            default: packGeneric(dst, src, bitsPerPixel, count); break;
        }
    }
    return 8 / bitsPerPixel;
}

int korImage_unpackBuffer(uint8_t* dst, const uint8_t* src, int bitsPerPixel, int count) noexcept {
    il::unpackBufferMapped(dst, src, bitsPerPixel, count, nullptr);
    return 0;
}

}  // extern "C"
