// Test images of every layout built from a plain pixel grid, the grid
// operations that rotation and mirroring must agree with, and a recording
// stop function.
#pragma once

#include <climits>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "imagelib/geo.h"
#include "imagelib/host.h"
#include "imagelib/pixels.h"
#include "pixels/rows.h"

namespace geotest {

constexpr int kAllFormats[] = {1, 2, 3, 4, 5, 6, 7, 8};

// Pixels in reading order, bpp bytes each (3 for RGB, 4 for RGBA, else 1;
// the one-bit layouts hold 0 or 1).
struct Grid {
    int32_t w = 0, h = 0, bpp = 1;
    std::vector<uint8_t> px;
    uint8_t* at(int32_t x, int32_t y) { return &px[(size_t(y) * size_t(w) + size_t(x)) * size_t(bpp)]; }
    bool operator==(const Grid&) const = default;
};

inline int gridBytes(int format) { return format == 5 || format == 6 ? 3 : format == 7 ? 4 : 1; }

inline Grid randomGrid(int format, int32_t w, int32_t h, unsigned seed) {
    Grid g{w, h, gridBytes(format), std::vector<uint8_t>(size_t(w) * size_t(h) * size_t(gridBytes(format)))};
    std::mt19937 rng(seed);
    uint8_t v = 0;
    for (auto& b : g.px) {  // runs of equal values: repeats and literals in the row layouts
        if (rng() % 3 == 0) v = uint8_t(rng());
        b = format <= 2 ? uint8_t(v & 1) : v;
    }
    return g;
}

// An image of any layout that frees itself.
struct Image {
    void* data = nullptr;
    ImageSize size{0, 0};
    int format = 0;
    Image() = default;
    Image(const Image&) = delete;
    ~Image() { reset(); }
    void reset() {
        if (data) korImage_freeImage(data, &size, format);
        data = nullptr;
    }
};

template <class T>
T* copyOut(const void* p, size_t n) {
    void* q = dlmSystem_korMalloc(n ? n : 1);
    std::memcpy(q, p, n);
    return static_cast<T*>(q);
}

// The bytes of one stored row of a grid: bits for layouts 1 and 2, planes
// for 5, interleaved otherwise.
inline std::vector<uint8_t> storedRow(Grid& g, int format, int32_t y) {
    const size_t w = size_t(g.w);
    std::vector<uint8_t> r(format <= 2 ? (w + 7) / 8 : w * size_t(g.bpp), 0);
    for (size_t x = 0; x < w; ++x) {
        const uint8_t* p = g.at(int32_t(x), y);
        if (format <= 2)
            r[x / 8] |= uint8_t(p[0] << (7 - x % 8));
        else if (format == 5)
            for (size_t c = 0; c < 3; ++c) r[c * w + x] = p[c];
        else
            std::memcpy(&r[x * size_t(g.bpp)], p, size_t(g.bpp));
    }
    return r;
}

inline void fill(Image& img, int format, Grid g) {
    img.reset();
    img.format = format;
    img.size = {g.w, g.h};
    std::vector<uint8_t> all;
    for (int32_t y = 0; y < g.h; ++y) {
        auto r = storedRow(g, format, y);
        all.insert(all.end(), r.begin(), r.end());
    }
    if (format == IMAGEFORMAT_RLEBITMAP) {
        korImage_runLengthEncodeBitMap(reinterpret_cast<uint16_t***>(&img.data), all.data(), &img.size);
    } else if (format == IMAGEFORMAT_PACKBYTE) {
        il::packByteEncodeImage(reinterpret_cast<uint8_t***>(&img.data), all.data(), &img.size);
    } else {
        img.data = copyOut<void>(all.data(), all.size());
    }
}

// Reads an image of any layout back into a grid.
inline Grid grid(const void* data, ImageSize size, int format) {
    Grid g{size.x, size.y, gridBytes(format), {}};
    g.px.resize(size_t(size.x) * size_t(size.y) * size_t(g.bpp));
    const size_t w = size_t(size.x), rowLen = storedRow(g, format, 0).size();
    std::vector<uint8_t> r(rowLen);
    for (int32_t y = 0; y < size.y; ++y) {
        if (format == IMAGEFORMAT_RLEBITMAP)
            korImage_runLengthDecodeBitMapRow(r.data(), static_cast<uint16_t* const*>(data)[y], size.x);
        else if (format == IMAGEFORMAT_PACKBYTE)
            korImage_unpackByteBuffer(r.data(), static_cast<uint8_t* const*>(data)[y], size.x);
        else
            std::memcpy(r.data(), static_cast<const uint8_t*>(data) + size_t(y) * rowLen, rowLen);
        for (size_t x = 0; x < w; ++x)
            for (size_t c = 0; c < size_t(g.bpp); ++c)
                g.at(int32_t(x), y)[c] = format <= 2   ? (r[x / 8] >> (7 - x % 8)) & 1
                                         : format == 5 ? r[c * w + x]
                                                       : r[x * size_t(g.bpp) + c];
    }
    return g;
}
inline Grid grid(const Image& img) { return grid(img.data, img.size, img.format); }

// 90 moves (x, y) to (y, W-1-x), 180 to (W-1-x, H-1-y), 270 to (H-1-y, x).
inline Grid rotated(Grid s, int angle) {
    const bool quarter = angle == 90 || angle == 270;
    Grid d{quarter ? s.h : s.w, quarter ? s.w : s.h, s.bpp, s.px};
    for (int32_t y = 0; y < s.h; ++y)
        for (int32_t x = 0; x < s.w; ++x)
            std::memcpy(angle == 90    ? d.at(y, s.w - 1 - x)
                        : angle == 180 ? d.at(s.w - 1 - x, s.h - 1 - y)
                                       : d.at(s.h - 1 - y, x),
                        s.at(x, y), size_t(s.bpp));
    return d;
}

// Mode 0 exchanges rows top and bottom, other modes reverse each row.
inline Grid mirrored(Grid s, int mode) {
    Grid d = s;
    for (int32_t y = 0; y < s.h; ++y)
        for (int32_t x = 0; x < s.w; ++x)
            std::memcpy(mode == 0 ? d.at(x, s.h - 1 - y) : d.at(s.w - 1 - x, y), s.at(x, y), size_t(s.bpp));
    return d;
}

// A stop function that records its calls and answers `answer` to calls
// number stopAt .. stopEnd - 1 (counting from 0).
struct PollLog {
    std::vector<std::pair<int, int>> calls;
    long stopAt = -1, stopEnd = LONG_MAX;
    int answer = 1;
};
inline thread_local PollLog* t_log = nullptr;
inline int recordPoll(int total, int done) {
    const long i = long(t_log->calls.size());
    t_log->calls.emplace_back(total, done);
    return t_log->stopAt >= 0 && i >= t_log->stopAt && i < t_log->stopEnd ? t_log->answer : 0;
}
struct PollScope {
    PollLog log;
    PollScope() { t_log = &log; }
    ~PollScope() { t_log = nullptr; }
};
using Calls = std::vector<std::pair<int, int>>;

}  // namespace geotest
