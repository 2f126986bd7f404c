// Builds Intergraph raster files from the format's own description, for the
// decoder tests: header, colour tables, and each pixel coding.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "internal/bytes.h"

namespace ingrgen {

using Bytes = std::vector<uint8_t>;

struct Header {
    int dataType = 2;
    uint32_t pixels = 1, lines = 1;
    int orientation = 4;
    int scannable = 0;
    uint32_t headerLength = 1024;  // a multiple of 512
    uint8_t filler = 0;            // header bytes nobody reads
    int version = 3;
    uint32_t tableType = 0, tableCount = 0;
    Bytes table;                   // placed at 768 (type 1) or 1024 (type 2)
};

inline Bytes header(const Header& s) {
    Bytes h(s.headerLength, s.filler);
    std::fill(h.begin() + 4, h.begin() + 200, 0);
    std::fill(h.begin() + 528, h.begin() + 540, 0);
    il::put16le(&h[0], 2312);
    il::put16le(&h[2], s.headerLength / 2 - 2);
    il::put16le(&h[4], uint32_t(s.dataType));
    il::put32le(&h[184], s.pixels);
    il::put32le(&h[188], s.lines);
    h[194] = uint8_t(s.orientation);
    h[195] = uint8_t(s.scannable);
    h[511] = uint8_t(s.version);
    il::put32le(&h[532], s.tableType);
    il::put32le(&h[536], s.tableCount);
    const size_t at = s.tableType == 2 ? 1024 : 768;
    if (!s.table.empty()) {
        if (h.size() < at + s.table.size()) h.resize(at + s.table.size());
        std::copy(s.table.begin(), s.table.end(), h.begin() + at);
    }
    return h;
}

// Adaptive run-length atoms of one plane: repeats for runs of 3 or more
// (at most 128), literals (at most 127) otherwise.
inline void atoms(Bytes& out, const uint8_t* v, size_t n) {
    size_t i = 0;
    while (i < n) {
        size_t r = 1;
        while (i + r < n && r < 128 && v[i + r] == v[i]) ++r;
        if (r >= 3) {
            out.push_back(uint8_t(-int(r)));
            out.push_back(v[i]);
            i += r;
            continue;
        }
        size_t lit = 0;
        while (i + lit < n && lit < 127) {
            size_t rr = 1;
            while (i + lit + rr < n && rr < 3 && v[i + lit + rr] == v[i + lit]) ++rr;
            if (rr >= 3) break;
            ++lit;
        }
        out.push_back(uint8_t(lit));
        out.insert(out.end(), v + i, v + i + lit);
        i += lit;
    }
}

inline void word(Bytes& out, uint32_t w) {
    out.push_back(uint8_t(w));
    out.push_back(uint8_t(w >> 8));
}

// Runs of a line of 0/1 pixels, alternating clear and set from clear.
inline std::vector<uint32_t> runs(const uint8_t* px, size_t n) {
    std::vector<uint32_t> r;
    uint8_t v = 0;
    size_t i = 0;
    while (i < n) {
        size_t k = 0;
        while (i + k < n && (px[i + k] != 0) == (v != 0)) ++k;
        r.push_back(uint32_t(k));
        i += k;
        v ^= 1;
    }
    return r;
}

// A line header record followed by its payload words.
inline void record(Bytes& out, const std::vector<uint32_t>& w, int line, uint32_t offset) {
    word(out, 0x5900);
    word(out, uint32_t(w.size() + 2));
    word(out, uint32_t(line));
    word(out, offset);
    for (uint32_t x : w) word(out, x);
}

// A tile directory packet for `entries` (start, allocated, used) triples.
inline Bytes tilePacket(int tileType, uint32_t tileSize, const std::vector<uint32_t>& entries) {
    Bytes p(128, 0);
    il::put16le(&p[0], 1);
    il::put16le(&p[2], 7);
    il::put32le(&p[4], uint32_t((120 + 4 * entries.size()) / 2));
    il::put16le(&p[8], 1);
    il::put16le(&p[10], 1);
    il::put16le(&p[18], uint32_t(tileType));
    il::put32le(&p[120], tileSize);
    for (uint32_t e : entries) {
        p.resize(p.size() + 4);
        il::put32le(&p[p.size() - 4], e);
    }
    return p;
}

}  // namespace ingrgen
