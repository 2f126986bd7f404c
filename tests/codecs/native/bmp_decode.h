// Reading BMP files in the tests: the map and RGB readers with their results
// copied out and freed, and a whole picture decoded the way the read
// dispatch does (24 bits directly, palette files through their palette).
#pragma once

#include <string>
#include <vector>

#include "codecs/native/bmp.h"
#include "pixels/rows.h"

namespace bmptest {

using Bytes = std::vector<uint8_t>;

struct Picture {
    int status = 0;
    ImageSize size{};
    Bytes rgb;      // row-planar
    Bytes indices;  // palette files only
    uint8_t r[256] = {}, g[256] = {}, b[256] = {};
    int count = 0;
};

// imageBmp_readToMap, contiguous or packed (then decoded for comparison).
inline Picture readMap(const std::string& path, bool packed = false) {
    Picture m;
    void* out = nullptr;
    if ((m.status = imageBmp_readToMap(&out, &m.size, m.r, m.g, m.b, &m.count, path.c_str(), packed))) return m;
    if (packed) {
        uint8_t* flat = nullptr;
        il::packByteDecodeImage(&flat, static_cast<uint8_t* const*>(out), &m.size);
        korImage_freeImage(out, &m.size, IMAGEFORMAT_PACKBYTE);
        out = flat;
    }
    m.indices.assign(static_cast<uint8_t*>(out), static_cast<uint8_t*>(out) + size_t(m.size.x) * m.size.y);
    korImage_freeImage(out, &m.size, IMAGEFORMAT_MAP);
    return m;
}

inline Picture readRGB(const std::string& path) {
    Picture p;
    uint8_t* out = nullptr;
    if ((p.status = imageBmp_readToRGB(&out, &p.size, path.c_str()))) return p;
    p.rgb.assign(out, out + size_t(p.size.x) * p.size.y * 3);
    korImage_freeImage(out, &p.size, IMAGEFORMAT_RGB);
    return p;
}

// Row-planar RGB of a map through its palette.
inline Bytes expand(const Picture& m) {
    const int w = m.size.x;
    Bytes rgb(m.indices.size() * 3);
    for (int y = 0; y < m.size.y; ++y)
        for (int x = 0; x < w; ++x) {
            const uint8_t i = m.indices[size_t(y) * w + x];
            uint8_t* row = &rgb[size_t(y) * w * 3];
            row[x] = m.r[i], row[w + x] = m.g[i], row[2 * w + x] = m.b[i];
        }
    return rgb;
}

inline Picture decode(const std::string& path) {
    Picture p;
    int format = 0;
    if ((p.status = imageBmp_readInfo(&p.size, &format, path.c_str()))) return p;
    if (format == COLORMODE_RGB || format == COLORMODE_RGBA) return readRGB(path);
    p = readMap(path);
    p.rgb = expand(p);
    return p;
}

}  // namespace bmptest
