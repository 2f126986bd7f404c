// A small FLI/FLC file generator for tests: headers, frames and every
// sub-chunk type that real files use, encoded plainly (independently of the
// library's encoders), so that readers can be checked against them.
#pragma once

#include <cstdint>
#include <vector>

namespace flictest {

using Bytes = std::vector<uint8_t>;

inline void put16(Bytes& b, unsigned v) {
    b.push_back(uint8_t(v));
    b.push_back(uint8_t(v >> 8));
}
inline void put32(Bytes& b, uint32_t v) {
    put16(b, v & 0xFFFF);
    put16(b, v >> 16);
}
inline void append(Bytes& b, const Bytes& more) { b.insert(b.end(), more.begin(), more.end()); }

// A sub-chunk: 6-byte header, data, a pad byte when odd (counted).
inline Bytes chunk(uint16_t type, const Bytes& data) {
    Bytes b;
    const size_t size = 6 + data.size() + (data.size() & 1);
    put32(b, uint32_t(size));
    put16(b, type);
    append(b, data);
    if (data.size() & 1) b.push_back(0);
    return b;
}

// A frame chunk of the given sub-chunks (type 0xF1FA; other types make
// prefix chunks).
inline Bytes frame(const std::vector<Bytes>& subs, uint16_t type = 0xF1FA) {
    Bytes body;
    for (const Bytes& s : subs) append(body, s);
    Bytes b;
    put32(b, uint32_t(16 + body.size()));
    put16(b, type);
    put16(b, unsigned(subs.size()));
    b.resize(16, 0);
    append(b, body);
    return b;
}

// A whole file: header, chunks in order (prefix, frames, ring), size field
// and, for FLC, oframe1/oframe2 pointing at the first two frame chunks.
inline Bytes file(uint16_t magic, int w, int h, int frames, uint32_t speed, const std::vector<Bytes>& chunks) {
    Bytes b(128, 0);
    b[4] = uint8_t(magic), b[5] = uint8_t(magic >> 8);
    b[6] = uint8_t(frames), b[7] = uint8_t(frames >> 8);
    b[8] = uint8_t(w), b[9] = uint8_t(w >> 8);
    b[10] = uint8_t(h), b[11] = uint8_t(h >> 8);
    b[12] = 8;
    if (magic == 0xAF12) b[14] = 3;
    for (int i = 0; i < 4; ++i) b[16 + i] = uint8_t(speed >> (8 * i));
    std::vector<uint32_t> frameAt;
    for (const Bytes& c : chunks) {
        if (c.size() >= 6 && c[4] == 0xFA && c[5] == 0xF1) frameAt.push_back(uint32_t(b.size()));
        append(b, c);
    }
    auto at32 = [&](size_t at, uint32_t v) {
        for (int i = 0; i < 4; ++i) b[at + i] = uint8_t(v >> (8 * i));
    };
    at32(0, uint32_t(b.size()));
    if (magic == 0xAF12 && frameAt.size() >= 2) {
        at32(80, frameAt[0]);
        at32(84, frameAt[1]);
    }
    return b;
}

// Palette chunk data: the whole palette (768 bytes, red, green, blue) in one
// packet; sixBit stores v >> 2.
inline Bytes colourData(const Bytes& palette, bool sixBit) {
    Bytes b;
    put16(b, 1);
    b.push_back(0);
    b.push_back(0);
    for (uint8_t v : palette) b.push_back(sixBit ? uint8_t(v >> 2) : v);
    return b;
}

// Byte-run data: repeats for runs of 2 or more, literals otherwise.
inline Bytes byteRunData(const Bytes& map, int w, int h) {
    Bytes b;
    for (int y = 0; y < h; ++y) {
        const uint8_t* r = map.data() + size_t(y) * w;
        b.push_back(0);  // packet count: not used by readers
        for (int x = 0; x < w;) {
            int run = 1;
            while (x + run < w && run < 127 && r[x + run] == r[x]) ++run;
            if (run >= 2) {
                b.push_back(uint8_t(run));
                b.push_back(r[x]);
                x += run;
                continue;
            }
            int n = 0;
            while (x + n < w && n < 128 && (x + n + 1 >= w || r[x + n + 1] != r[x + n])) ++n;
            if (n == 0) n = 1;
            b.push_back(uint8_t(-n));
            b.insert(b.end(), r + x, r + x + n);
            x += n;
        }
    }
    return b;
}

// Byte-oriented delta data that rewrites lines first..first+count-1 whole
// (literal packets of up to 127 bytes, the first after a skip of 0).
inline Bytes deltaFliData(const Bytes& map, int w, int first, int count) {
    Bytes b;
    put16(b, unsigned(first));
    put16(b, unsigned(count));
    for (int y = first; y < first + count; ++y) {
        b.push_back(uint8_t((w + 126) / 127));
        for (int x = 0; x < w; x += 127) {
            const int n = w - x < 127 ? w - x : 127;
            b.push_back(0);
            b.push_back(uint8_t(n));
            b.insert(b.end(), map.begin() + y * w + x, map.begin() + y * w + x + n);
        }
    }
    return b;
}

// Word-oriented delta data (even widths) for every line but `skipLine`,
// which is skipped with a line-skip word; -1 skips none.
inline Bytes deltaFlcData(const Bytes& map, int w, int h, int skipLine) {
    Bytes b;
    put16(b, unsigned(h - (skipLine >= 0 ? 1 : 0)));
    for (int y = 0; y < h; ++y) {
        if (y == skipLine) {
            put16(b, 0xFFFF);  // skip one line
            continue;
        }
        const int words = w / 2;
        put16(b, unsigned((words + 126) / 127));
        for (int x = 0; x < words; x += 127) {
            const int n = words - x < 127 ? words - x : 127;
            b.push_back(0);
            b.push_back(uint8_t(n));
            b.insert(b.end(), map.begin() + y * w + 2 * x, map.begin() + y * w + 2 * (x + n));
        }
    }
    return b;
}

}  // namespace flictest
