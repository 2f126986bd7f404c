// A codec's map reader as the tests call it: the indices decoded from
// either form (contiguous, or PackByte rows), the palette and its count.
#pragma once

#include <cstring>
#include <vector>

#include "imagelib/imagelib.h"
#include "pixels/rows.h"

namespace maptest {

struct MapImage {
    int status = -999;
    ImageSize size{};
    std::vector<uint8_t> pixels;  // indices; three bytes a pixel when count is 0 (true colour)
    uint8_t r[256] = {}, g[256] = {}, b[256] = {};
    int count = -1;
};

// read(&out, &size, r, g, b, &count) calls the reader, asked for PackByte
// rows when packed. Red entries the reader leaves alone read 0xAA.
template <class Read>
MapImage readMap(bool packed, Read&& read) {
    MapImage m;
    std::memset(m.r, 0xAA, sizeof m.r);
    void* out = nullptr;
    if ((m.status = read(&out, &m.size, m.r, m.g, m.b, &m.count)) != 0) return m;
    const size_t n = size_t(m.size.x) * size_t(m.size.y);
    if (packed) {
        m.pixels.resize(n);
        il::packByteDecodeInto(m.pixels.data(), static_cast<uint8_t* const*>(out), &m.size);
        korImage_freeImage(out, &m.size, IMAGEFORMAT_PACKBYTE);
    } else {
        m.pixels.assign(static_cast<uint8_t*>(out), static_cast<uint8_t*>(out) + n * (m.count == 0 ? 3 : 1));
        korImage_freeImage(out, &m.size, IMAGEFORMAT_MAP);
    }
    return m;
}

}  // namespace maptest
