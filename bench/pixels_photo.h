// A synthetic photograph for the pixel benchmarks: smooth colour gradients,
// a few soft-edged shapes and fine noise, as row-planar RGB.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

namespace ilbench {

inline std::vector<uint8_t> syntheticPhoto(int width, int height) {
    std::vector<uint8_t> rgb(size_t(width) * size_t(height) * 3);
    uint32_t seed = 12345;
    auto noise = [&seed]() {
        seed = seed * 1664525u + 1013904223u;
        return int(seed >> 28) - 8;  // -8 .. 7
    };
    const double cx[3] = {0.3 * width, 0.7 * width, 0.5 * width};
    const double cy[3] = {0.4 * height, 0.3 * height, 0.75 * height};
    const double radius = 0.18 * std::min(width, height);
    for (int y = 0; y < height; ++y) {
        uint8_t* row = rgb.data() + size_t(y) * size_t(width) * 3;
        for (int x = 0; x < width; ++x) {
            const double fx = double(x) / width, fy = double(y) / height;
            double c[3] = {150 + 90 * std::sin(3.1 * fx + 1.3 * fy), 120 + 80 * std::cos(2.3 * fy - 1.7 * fx),
                           110 + 100 * std::sin(1.9 * (fx + fy) + 0.5)};
            for (int k = 0; k < 3; ++k) {
                const double d = std::hypot(x - cx[k], y - cy[k]) / radius;
                const double w = d < 1 ? 1 - d * d : 0;  // soft disc of one hue each
                c[k] = c[k] * (1 - w) + 235 * w;
                c[(k + 1) % 3] *= 1 - 0.6 * w;
            }
            for (int k = 0; k < 3; ++k) {
                const int v = int(c[k]) + noise();
                row[size_t(k) * size_t(width) + size_t(x)] = uint8_t(v < 0 ? 0 : v > 255 ? 255 : v);
            }
        }
    }
    return rgb;
}

}  // namespace ilbench
