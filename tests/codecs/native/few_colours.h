// A few-colour picture that the palette writers of PCX, Sun and "p" keep exactly,
// and a map read back expanded through its palette.
#pragma once

#include <vector>

#include "map_reader.h"

namespace maptest {

// A row-planar image whose colours are cell centres of the palette
// optimiser (multiples of 8), so that an optimised palette holds them all.
inline std::vector<uint8_t> fewColours(int w, int h) {
    static const uint8_t kColours[5][3] = {{8, 16, 24}, {248, 0, 128}, {64, 200, 32}, {0, 0, 0}, {120, 120, 240}};
    std::vector<uint8_t> v(size_t(w) * h * 3);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 3; ++c) v[(size_t(y) * 3 + c) * w + x] = kColours[(x * 3 + y) % 5][c];
    return v;
}

// The indices of m through its palette, row-planar.
inline std::vector<uint8_t> expand(const MapImage& m) {
    const int w = m.size.x;
    std::vector<uint8_t> rgb(m.pixels.size() * 3);
    for (int y = 0; y < m.size.y; ++y)
        for (int x = 0; x < w; ++x) {
            const uint8_t i = m.pixels[size_t(y) * w + x];
            uint8_t* row = &rgb[size_t(y) * w * 3];
            row[x] = m.r[i], row[w + x] = m.g[i], row[2 * w + x] = m.b[i];
        }
    return rgb;
}

}  // namespace maptest
