// RLC reader. Spans beyond the width and files cut short are refused with
// IMGERR_READFAILED rather than trusted.
#include "codecs/intergraph/rlc.h"

#include <cstring>
#include <memory>

#include "imagelib/host.h"
#include "imagelib/pixels.h"
#include "internal/bytes.h"
#include "internal/checked.h"
#include "internal/file.h"
#include "internal/scratch.h"

using il::File;
using il::Scratch;

namespace {

struct KorFree {
    void operator()(uint8_t* p) const { dlmSystem_korFree(p); }
};

// The whole file in memory, the size checked against it.
int load(Scratch<uint8_t>& data, size_t* length, ImageSize* size, const char* path) {
    File f = File::open(path, "rb");
    if (!f.ok()) return IMGERR_OPENFAILED;
    const int64_t n = f.size();
    if (n < 4) return IMGERR_READFAILED;
    if (!data.allocate(size_t(n), il::tag("RLCf"))) return IMGERR_NOMEMORY;
    if (!f.read(data.get(), size_t(n))) return IMGERR_READFAILED;
    *length = size_t(n);
    size->y = il::get16be(data.get());
    size->x = il::get16be(data.get() + 2);
    // Every line holds at least its span count.
    if (uint64_t(size->y) * 2 > *length - 4) return IMGERR_READFAILED;
    if (!il::imageBytes(size->x, size->y, 1) || !il::withinPixelLimit(size->x, size->y)) return IMGERR_BADFILE;
    return 0;
}

// Calls span(line, first, last) for every span, in file order.
template <class Span>
int walk(const uint8_t* p, size_t len, ImageSize size, StopFunction stop, Span span) {
    size_t pos = 4;
    for (int y = 0; y < size.y; ++y) {
        if (imageUtil_stopped(stop)) return IMGERR_STOPPED;
        if (len - pos < 2) return IMGERR_READFAILED;
        const unsigned n = il::get16be(p + pos);
        pos += 2;
        if (size_t(n) * 4 > len - pos) return IMGERR_READFAILED;
        for (unsigned i = 0; i < n; ++i, pos += 4) {
            const unsigned first = il::get16be(p + pos), last = il::get16be(p + pos + 2);
            if (first > last || last >= unsigned(size.x)) return IMGERR_READFAILED;
            span(y, first, last);
        }
    }
    return 0;
}

}  // namespace

int rlc_readFileInfo(ImageSize* size, int* colourMode, const char* path) noexcept {
    File f = File::open(path, "rb");
    if (!f.ok()) return IMGERR_OPENFAILED;
    uint8_t h[4];
    if (!f.read(h, 4)) return IMGERR_READFAILED;
    if (size) *size = ImageSize{il::get16be(h + 2), il::get16be(h)};
    if (colourMode) *colourMode = COLORMODE_BILEVEL;
    return 0;
}

int rlc_readFileToMap(void** map, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue, int* count,
                      const char* path, int invert, StopFunction stop) noexcept {
    Scratch<uint8_t> data;
    size_t len = 0;
    ImageSize sz{};
    if (int st = load(data, &len, &sz, path)) return st;
    std::unique_ptr<uint8_t, KorFree> out(
        static_cast<uint8_t*>(dlmSystem_korCalloc(size_t(sz.x) * size_t(sz.y), 1)));
    if (!out) return IMGERR_NOMEMORY;
    uint8_t* m = out.get();
    const size_t w = size_t(sz.x);
    int st = walk(data.get(), len, sz, stop, [&](int y, unsigned a, unsigned b) {
        std::memset(m + w * size_t(y) + a, 1, b - a + 1);
    });
    if (st) return st;
    const uint8_t first = invert ? 255 : 0;
    red[0] = green[0] = blue[0] = first;
    red[1] = green[1] = blue[1] = uint8_t(255 - first);
    *count = 2;
    *map = out.release();
    if (size) *size = sz;
    return 0;
}

int rlc_readFileToBitMap(void** bitmap, ImageSize* size, int runLength, const char* path,
                         StopFunction stop) noexcept {
    Scratch<uint8_t> data;
    size_t len = 0;
    ImageSize sz{};
    if (int st = load(data, &len, &sz, path)) return st;
    const size_t rowBytes = (size_t(sz.x) + 7) >> 3;
    std::unique_ptr<uint8_t, KorFree> out(static_cast<uint8_t*>(dlmSystem_korCalloc(rowBytes * size_t(sz.y), 1)));
    if (!out) return IMGERR_NOMEMORY;
    uint8_t* bits = out.get();
    int st = walk(data.get(), len, sz, stop, [&](int y, unsigned a, unsigned b) {
        uint8_t* row = bits + rowBytes * size_t(y);
        for (unsigned x = a; x <= b; ++x) row[x >> 3] |= uint8_t(0x80 >> (x & 7));
    });
    if (st) return st;
    // Each row mirrored byte-wise: output byte k is scratch byte n - 1 - k
    // with its bits reversed, which flips the whole row of n bytes.
    uint8_t reversed[256];
    for (int b = 0; b < 256; ++b) {
        uint8_t r = 0;
        for (int i = 0; i < 8; ++i)
            if (b & (1 << i)) r |= uint8_t(0x80 >> i);
        reversed[b] = r;
    }
    for (int y = 0; y < sz.y; ++y) {
        uint8_t* row = bits + rowBytes * size_t(y);
        for (size_t k = 0; k < rowBytes / 2; ++k) {
            const uint8_t a = row[k];
            row[k] = reversed[row[rowBytes - 1 - k]];
            row[rowBytes - 1 - k] = reversed[a];
        }
        if (rowBytes % 2) row[rowBytes / 2] = reversed[row[rowBytes / 2]];
    }
    if (runLength) {
        uint16_t** rows = nullptr;
        if (int s = korImage_runLengthEncodeBitMap(&rows, bits, &sz)) return s;
        *bitmap = rows;
    } else {
        *bitmap = out.release();
    }
    if (size) *size = sz;
    return 0;
}
