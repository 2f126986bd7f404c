// FLI and FLC animations.
//
// Reading: the header, then the first frame chunk (after any prefix chunk),
// whose sub-chunks are applied in file order to a canvas of index 0 and a
// black palette. Every decoder checks each count against the canvas before
// it writes and against the chunk before it reads: counts that would write
// outside the frame are refused, data that ends early leaves the rest of
// the frame as it was.
//
// Writing: frame 1 is a full palette and a byte-run image (a raw copy when
// that is smaller and the width a multiple of 4, a black chunk when every
// pixel is 0); later frames carry the changed palette entries and the
// smallest of a line delta, a byte run and a raw copy. FLC line deltas are
// word-oriented for even widths; odd widths use the byte-oriented form,
// since players misplace the last pixel of odd-width word deltas. The ring
// frame at the end is the delta from the last frame back to the first.
#include "codecs/native/flic.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "imagelib/pixels.h"
#include "internal/bytes.h"
#include "internal/checked.h"
#include "internal/file.h"
#include "internal/scratch.h"
#include "pixels/colour.h"
#include "pixels/dither.h"
#include "pixels/rows.h"

namespace {

// Images above this many pixels must come with at least one byte of file
// for every kMaxPixelsPerByte pixels: a byte-run image cannot pack more
// than 127 pixels into 2 bytes, and only a black or empty first frame packs
// more, which is not worth gigabytes of memory from a few bytes of file.
constexpr int64_t kFreePixels = int64_t(1) << 24;
constexpr int64_t kMaxPixelsPerByte = 128;

uint8_t widen6(uint8_t v) { return uint8_t((v << 2) | ((v >> 4) & 3)); }

// --- decoding ----------------------------------------------------------------

// A bounded reader over the bytes of one sub-chunk.
struct Cursor {
    const uint8_t* p;
    size_t left;
    bool has(size_t n) const { return left >= n; }
    uint8_t u8() {
        --left;
        return *p++;
    }
    uint16_t u16() {
        uint16_t v = il::get16le(p);
        p += 2;
        left -= 2;
        return v;
    }
};

constexpr int kBad = IMGERR_BADFILE;

// Colour packets; entries past 255 are dropped.
void decodeColour(Cursor c, uint8_t* palette, bool sixBit) {
    if (!c.has(2)) return;
    int packets = c.u16();
    int index = 0;
    while (packets-- > 0 && c.has(2)) {
        index += c.u8();
        int n = c.u8();
        if (n == 0) n = 256;
        for (int i = 0; i < n; ++i, ++index) {
            if (!c.has(3)) return;
            uint8_t rgb[3] = {c.u8(), c.u8(), c.u8()};
            if (index < 256)
                for (int k = 0; k < 3; ++k) palette[index * 3 + k] = sixBit ? widen6(rgb[k]) : rgb[k];
        }
    }
}

// Byte runs: height lines of packets (count > 0: one byte repeated, < 0: that
// many literal bytes) until the line is full; the per-line packet count is
// not used.
int decodeByteRun(Cursor c, uint8_t* canvas, int w, int h) {
    for (int y = 0; y < h; ++y) {
        uint8_t* row = canvas + size_t(y) * size_t(w);
        if (!c.has(1)) return 0;
        c.u8();
        int x = 0;
        while (x < w) {
            if (!c.has(1)) return 0;
            const int t = int8_t(c.u8());
            if (t == 0) return kBad;
            const int n = t > 0 ? t : -t;
            if (n > w - x) return kBad;
            if (t > 0) {
                if (!c.has(1)) return 0;
                std::memset(row + x, c.u8(), size_t(n));
            } else {
                const size_t k = std::min<size_t>(size_t(n), c.left);
                std::memcpy(row + x, c.p, k);
                if (k < size_t(n)) return 0;
                c.p += n;
                c.left -= size_t(n);
            }
            x += n;
        }
    }
    return 0;
}

// Byte-oriented line delta: first line, line count, then per line a packet
// count and packets of (column skip, count > 0: literal bytes, < 0: one
// byte repeated, 0: skip only).
int decodeDeltaFli(Cursor c, uint8_t* canvas, int w, int h) {
    if (!c.has(4)) return 0;
    const int first = c.u16(), lines = c.u16();
    if (lines > 0 && first + lines > h) return kBad;
    for (int y = first; y < first + lines; ++y) {
        uint8_t* row = canvas + size_t(y) * size_t(w);
        if (!c.has(1)) return 0;
        int packets = c.u8(), x = 0;
        while (packets-- > 0) {
            if (!c.has(2)) return 0;
            x += c.u8();
            const int t = int8_t(c.u8());
            const int n = t > 0 ? t : -t;
            if (x > w || n > w - x) return kBad;
            if (t > 0) {
                const size_t k = std::min<size_t>(size_t(n), c.left);
                std::memcpy(row + x, c.p, k);
                if (k < size_t(n)) return 0;
                c.p += n;
                c.left -= size_t(n);
            } else if (t < 0) {
                if (!c.has(1)) return 0;
                std::memset(row + x, c.u8(), size_t(n));
            }
            x += n;
        }
    }
    return 0;
}

// Word-oriented line delta: a count of lines that carry packets, then per
// line opcode words (11: skip lines, 10: last pixel of the line, 00: packet
// count) and packets of (column skip, count > 0: literal words, < 0: one
// word repeated).
int decodeDeltaFlc(Cursor c, uint8_t* canvas, int w, int h) {
    if (!c.has(2)) return 0;
    int lines = c.u16(), y = 0;
    while (lines > 0) {
        if (!c.has(2)) return 0;
        const uint16_t word = c.u16();
        const int kind = word >> 14;
        if (kind == 3) {  // skip lines
            y += 0x10000 - word;
            if (y > h) return kBad;
            continue;
        }
        if (kind == 1 || y >= h) return kBad;
        uint8_t* row = canvas + size_t(y) * size_t(w);
        if (kind == 2) {  // the line's last pixel; a packet count follows
            row[w - 1] = uint8_t(word);
            continue;
        }
        int packets = word, x = 0;
        while (packets-- > 0) {
            if (!c.has(2)) return 0;
            x += c.u8();
            const int t = int8_t(c.u8());
            const int n = t > 0 ? t : -t;
            if (x > w || 2 * n > w - x) return kBad;
            if (t > 0) {
                const size_t k = std::min<size_t>(2 * size_t(n), c.left);
                std::memcpy(row + x, c.p, k);
                if (k < 2 * size_t(n)) return 0;
                c.p += 2 * n;
                c.left -= 2 * size_t(n);
            } else if (t < 0) {
                if (!c.has(2)) return 0;
                const uint8_t a = c.u8(), b = c.u8();
                for (int i = 0; i < n; ++i) {
                    row[x + 2 * i] = a;
                    row[x + 2 * i + 1] = b;
                }
            }
            x += 2 * n;
        }
        ++y;
        --lines;
    }
    return 0;
}

}  // namespace

uint32_t imageFlic_speed(int delay, bool fli) noexcept {
    if (delay < 1) delay = 1;
    const int64_t unit = fli ? 70 : 1000;
    const int64_t v = (int64_t(delay) * unit + 30) / 60;
    const int64_t cap = fli ? 0xFFFF : 0xFFFFFFFF;
    return uint32_t(std::clamp<int64_t>(v, 1, cap));
}

int imageFlic_parseHeader(FlicHeader* h, const uint8_t* b) noexcept {
    h->fileSize = il::get32le(b);
    h->magic = il::get16le(b + 4);
    h->frames = il::get16le(b + 6);
    h->width = il::get16le(b + 8);
    h->height = il::get16le(b + 10);
    h->depth = il::get16le(b + 12);
    h->flags = il::get16le(b + 14);
    h->speed = h->magic == kFliMagic ? il::get16le(b + 16) : il::get32le(b + 16);
    h->oframe1 = h->magic == kFlcMagic ? il::get32le(b + 80) : 0;
    h->oframe2 = h->magic == kFlcMagic ? il::get32le(b + 84) : 0;
    if (h->magic != kFliMagic && h->magic != kFlcMagic) return IMGERR_BADFILE;
    if (h->depth != 0 && h->depth != 8) return IMGERR_BADFILE;
    if (h->width == 0 || h->height == 0) return IMGERR_BADFILE;
    return 0;
}

int imageFlic_decodeFrame(uint8_t* canvas, int w, int h, uint8_t* palette, const uint8_t* frame, size_t length,
                          StopFunction stop) noexcept {
    if (length < kFlicFrameHeaderBytes) return IMGERR_BADFILE;
    const uint32_t declared = il::get32le(frame);
    if (il::get16le(frame + 4) != kFlicFrameChunk || declared < kFlicFrameHeaderBytes) return IMGERR_BADFILE;
    const size_t size = std::min<size_t>(declared, length);
    int chunks = il::get16le(frame + 6);
    size_t pos = kFlicFrameHeaderBytes;
    while (chunks-- > 0 && size - pos >= kFlicSubHeaderBytes) {
        if (imageUtil_stopped(stop)) return IMGERR_STOPPED;
        const uint32_t subSize = il::get32le(frame + pos);
        const uint16_t type = il::get16le(frame + pos + 4);
        if (subSize < kFlicSubHeaderBytes) return IMGERR_BADFILE;
        const size_t have = std::min<size_t>(subSize, size - pos);
        Cursor c{frame + pos + kFlicSubHeaderBytes, have - kFlicSubHeaderBytes};
        int st = 0;
        switch (type) {
            case kFlicColour256: decodeColour(c, palette, false); break;
            case kFlicColour64: decodeColour(c, palette, true); break;
            case kFlicBlack: std::memset(canvas, 0, size_t(w) * size_t(h)); break;
            case kFlicByteRun: st = decodeByteRun(c, canvas, w, h); break;
            case kFlicCopy: std::memcpy(canvas, c.p, std::min(c.left, size_t(w) * size_t(h))); break;
            case kFlicDeltaFli: st = decodeDeltaFli(c, canvas, w, h); break;
            case kFlicDeltaFlc: st = decodeDeltaFlc(c, canvas, w, h); break;
            default: break;  // stamps and types of other programs
        }
        if (st) return st;
        pos += have;
    }
    return 0;
}

namespace {

// The open file of a reader: header, length, and where frame 1 starts.
struct Source {
    il::File file;
    FlicHeader header{};
    int64_t length = 0;

    int open(const char* path) {
        file = il::File::open(path, "rb");
        if (!file.ok()) return IMGERR_OPENFAILED;
        length = file.size();
        if (length < 0) return IMGERR_READFAILED;
        uint8_t b[kFlicHeaderBytes];
        if (!file.read(b, sizeof b)) return IMGERR_READFAILED;
        return imageFlic_parseHeader(&header, b);
    }

    // Reads the chunk header at pos: its size and type; false past the end.
    bool chunkAt(int64_t pos, uint32_t* size, uint16_t* type) {
        uint8_t b[kFlicSubHeaderBytes];
        if (pos < 0 || pos + int64_t(sizeof b) > length || !file.seek(pos) || !file.read(b, sizeof b)) return false;
        *size = il::get32le(b);
        *type = il::get16le(b + 4);
        return true;
    }

    // Offset of frame 1: at oframe1 in FLC files that point at a frame
    // there, else the first frame chunk after the header and any chunks of
    // other types. IMGERR_BADFILE when there is none.
    int firstFrame(int64_t* at) {
        uint32_t size;
        uint16_t type;
        if (header.magic == kFlcMagic && header.oframe1 >= kFlicHeaderBytes && chunkAt(header.oframe1, &size, &type) &&
            type == kFlicFrameChunk) {
            *at = header.oframe1;
            return 0;
        }
        int64_t pos = kFlicHeaderBytes;
        for (;;) {
            if (!chunkAt(pos, &size, &type)) return IMGERR_BADFILE;
            if (type == kFlicFrameChunk) break;
            if (size < kFlicSubHeaderBytes) return IMGERR_BADFILE;
            pos += size;
        }
        *at = pos;
        return 0;
    }
};

}  // namespace

int imageFlic_readInfo(ImageSize* size, int* frames, const char* path) noexcept {
    Source src;
    if (int st = src.open(path)) return st;
    if (size) *size = ImageSize{src.header.width, src.header.height};
    if (frames) *frames = src.header.frames;
    return 0;
}

int imageFlic_readToMap(void** image, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue, int* count,
                        const char* path, int packed, StopFunction stop) noexcept {
    if (!image || !red || !green || !blue) return IMGERR_BADARG;
    Source src;
    if (int st = src.open(path)) return st;
    const int w = src.header.width, h = src.header.height;
    size_t pixels;
    if (!il::imageBytes(w, h, 1, &pixels)) return IMGERR_BADFILE;
    if (!il::withinPixelLimit(w, h) ||
        (int64_t(pixels) > kFreePixels && int64_t(pixels) > kMaxPixelsPerByte * src.length))
        return IMGERR_BADFILE;
    int64_t at = 0;
    if (int st = src.firstFrame(&at)) return st;
    uint32_t declared = 0;
    uint16_t type = 0;
    if (!src.chunkAt(at, &declared, &type)) return IMGERR_READFAILED;
    const size_t frameBytes = size_t(std::min<int64_t>(declared, src.length - at));
    il::Scratch<uint8_t> frame(frameBytes, il::tag("FlFr"));
    if (!frame.ok()) return IMGERR_NOMEMORY;
    if (!src.file.seek(at) || !src.file.read(frame.get(), frameBytes)) return IMGERR_READFAILED;

    il::CallerBuffer<uint8_t> map;
    il::Scratch<uint8_t> scratch;
    uint8_t* canvas;
    if (packed) {
        if (!scratch.allocate(pixels, il::tag("FlCv"), true)) return IMGERR_NOMEMORY;
        canvas = scratch.get();
    } else {
        map = il::callerBytes(pixels, true);
        if (!map) return IMGERR_NOMEMORY;
        canvas = map.get();
    }
    uint8_t palette[768] = {};
    if (int st = imageFlic_decodeFrame(canvas, w, h, palette, frame.get(), frameBytes, stop)) return st;
    frame.reset();

    if (packed) {
        auto** rows = static_cast<uint8_t**>(dlmSystem_korCalloc(size_t(h), sizeof(uint8_t*)));
        if (!rows) return IMGERR_NOMEMORY;
        const ImageSize sz{w, h};
        for (int y = 0; y < h; ++y) {
            int st = imageUtil_reportProgress(stop, h, y) ? IMGERR_STOPPED
                                                           : il::storePackByteRow(rows, y, canvas + size_t(y) * w, w);
            if (st) {
                korImage_freeImage(rows, &sz, IMAGEFORMAT_PACKBYTE);
                return st;
            }
        }
        *image = rows;
    } else {
        *image = map.release();
    }
    for (int i = 0; i < 256; ++i) {
        red[i] = palette[3 * i];
        green[i] = palette[3 * i + 1];
        blue[i] = palette[3 * i + 2];
    }
    if (count) *count = 256;
    if (size) *size = ImageSize{w, h};
    return 0;
}

// --- encoding ------------------------------------------------------------------

namespace {

// A byte sink of fixed capacity: writes past it are counted but dropped,
// so an encoding that outgrows its bound is noticed and never overflows.
class Sink {
public:
    bool allocate(size_t capacity, uint32_t siteTag) {
        n_ = 0;
        return buf_.allocate(capacity, siteTag);
    }
    void clear() { n_ = 0; }
    void u8(uint32_t v) {
        if (n_ < buf_.size()) buf_[n_] = uint8_t(v);
        ++n_;
    }
    void u16(uint32_t v) {
        u8(v);
        u8(v >> 8);
    }
    void u32(uint32_t v) {
        u16(v);
        u16(v >> 16);
    }
    void bytes(const uint8_t* p, size_t k) {
        if (k <= buf_.size() && n_ <= buf_.size() - k) std::memcpy(buf_.get() + n_, p, k);
        n_ += k;
    }
    void patch8(size_t at, uint32_t v) {
        if (at < buf_.size()) buf_[at] = uint8_t(v);
    }
    void patch16(size_t at, uint32_t v) {
        patch8(at, v);
        patch8(at + 1, v >> 8);
    }
    void patch32(size_t at, uint32_t v) {
        patch16(at, v);
        patch16(at + 2, v >> 16);
    }
    size_t size() const { return n_; }
    bool ok() const { return n_ <= buf_.size(); }
    const uint8_t* data() const { return buf_.get(); }

    // A sub-chunk: its header now, its size (with the pad byte that keeps
    // it even) when it ends.
    size_t begin(uint16_t type) {
        const size_t at = n_;
        u32(0);
        u16(type);
        return at;
    }
    void end(size_t at) {
        if ((n_ - at) & 1) u8(0);
        patch32(at, uint32_t(n_ - at));
    }

private:
    il::Scratch<uint8_t> buf_;
    size_t n_ = 0;
};

// Length of the run of equal values at i, at most limit.
template <class Eq>
int runAt(int i, int end, int limit, Eq eq) {
    int n = 1;
    while (i + n < end && n < limit && eq(i + n, i)) ++n;
    return n;
}

// Byte-run encoding of one line: repeats of 3 or more, literals between.
void byteRunLine(Sink& s, const uint8_t* row, int w) {
    const size_t countAt = s.size();
    s.u8(0);
    int packets = 0;
    auto eq = [row](int a, int b) { return row[a] == row[b]; };
    for (int i = 0; i < w; ++packets) {
        const int run = runAt(i, w, 127, eq);
        if (run >= 3) {
            s.u8(uint32_t(run));
            s.u8(row[i]);
            i += run;
            continue;
        }
        int j = i;
        while (j < w && j - i < 128 && (j == i || runAt(j, w, 3, eq) < 3)) ++j;
        s.u8(uint32_t(-(j - i)) & 0xFF);
        s.bytes(row + i, size_t(j - i));
        i = j;
    }
    s.patch8(countAt, uint32_t(std::min(packets, 255)));
}

void encodeByteRun(Sink& s, const uint8_t* map, int w, int h) {
    const size_t at = s.begin(kFlicByteRun);
    for (int y = 0; y < h; ++y) byteRunLine(s, map + size_t(y) * w, w);
    s.end(at);
}

// The changed spans of a line, in units (pixels, or pixel pairs): calls
// span(start, end) for each, where short unchanged gaps (below 3 units)
// are taken into the span, since a new packet costs more than they do.
template <class Changed, class Span>
void changedSpans(int units, Changed changed, Span span) {
    int x = 0;
    for (;;) {
        while (x < units && !changed(x)) ++x;
        if (x == units) return;
        int e = x + 1;
        for (;;) {
            while (e < units && changed(e)) ++e;
            int g = e;
            while (g < units && g - e < 3 && !changed(g)) ++g;
            if (g < units && g - e < 3) {
                e = g;
                continue;
            }
            break;
        }
        span(x, e);
        x = e;
    }
}

// Byte-oriented delta of one line from prev to cur: packets appended to s,
// their number returned.
int deltaFliLine(Sink& s, const uint8_t* prev, const uint8_t* cur, int w) {
    int packets = 0, x = 0;
    auto eq = [cur](int a, int b) { return cur[a] == cur[b]; };
    changedSpans(
        w, [&](int i) { return cur[i] != prev[i]; },
        [&](int d, int e) {
            // Column skips above 255 go in steps of 255 skipped and one
            // pixel written again (no packet without pixels).
            while (d - x > 255) {
                s.u8(255);
                s.u8(1);
                s.u8(cur[x + 255]);
                x += 256;
                ++packets;
            }
            int skip = d - x;
            for (int i = d; i < e; ++packets, skip = 0) {
                s.u8(uint32_t(skip));
                const int run = runAt(i, e, 128, eq);
                if (run >= 3) {
                    s.u8(uint32_t(-run) & 0xFF);
                    s.u8(cur[i]);
                    i += run;
                    continue;
                }
                int j = i;
                while (j < e && j - i < 127 && (j == i || runAt(j, e, 3, eq) < 3)) ++j;
                s.u8(uint32_t(j - i));
                s.bytes(cur + i, size_t(j - i));
                i = j;
            }
            x = e;
        });
    return packets;
}

// The first and last changed lines; false when nothing changed.
bool changedLines(const uint8_t* prev, const uint8_t* cur, int w, int h, int* first, int* last) {
    const size_t row = size_t(w);
    int f = 0, l = h - 1;
    while (f < h && std::memcmp(prev + f * row, cur + f * row, row) == 0) ++f;
    if (f == h) return false;
    while (std::memcmp(prev + l * row, cur + l * row, row) == 0) --l;
    *first = f;
    *last = l;
    return true;
}

// Byte-oriented delta chunk; false when a line needs more than 255 packets.
bool encodeDeltaFli(Sink& s, const uint8_t* prev, const uint8_t* cur, int w, int h) {
    int first, last;
    if (!changedLines(prev, cur, w, h, &first, &last)) return false;
    const size_t at = s.begin(kFlicDeltaFli);
    s.u16(uint32_t(first));
    s.u16(uint32_t(last - first + 1));
    for (int y = first; y <= last; ++y) {
        const size_t countAt = s.size();
        s.u8(0);
        const int packets = deltaFliLine(s, prev + size_t(y) * w, cur + size_t(y) * w, w);
        if (packets > 255) return false;
        s.patch8(countAt, uint32_t(packets));
    }
    s.end(at);
    return true;
}

// Word-oriented delta chunk for an even width; false when a line needs
// more than 16383 packets.
bool encodeDeltaFlc(Sink& s, const uint8_t* prev, const uint8_t* cur, int w, int h) {
    const size_t at = s.begin(kFlicDeltaFlc);
    const size_t linesAt = s.size();
    s.u16(0);
    int lines = 0, skipped = 0;
    const int units = w / 2;
    for (int y = 0; y < h; ++y) {
        const uint8_t* p = prev + size_t(y) * w;
        const uint8_t* c = cur + size_t(y) * w;
        if (std::memcmp(p, c, size_t(w)) == 0) {
            ++skipped;
            continue;
        }
        for (; skipped > 0; skipped -= std::min(skipped, 16384)) s.u16(uint32_t(-std::min(skipped, 16384)) & 0xFFFF);
        const size_t countAt = s.size();
        s.u16(0);
        int packets = 0, x = 0;
        auto changed = [&](int i) { return c[2 * i] != p[2 * i] || c[2 * i + 1] != p[2 * i + 1]; };
        auto eq = [c](int a, int b) { return c[2 * a] == c[2 * b] && c[2 * a + 1] == c[2 * b + 1]; };
        changedSpans(units, changed, [&](int d, int e) {
            while (d - x > 127) {  // skips are in pixels, at most 254 here
                s.u8(254);
                s.u8(1);
                s.bytes(c + 2 * (x + 127), 2);
                x += 128;
                ++packets;
            }
            int skip = 2 * (d - x);
            for (int i = d; i < e; ++packets, skip = 0) {
                s.u8(uint32_t(skip));
                const int run = runAt(i, e, 128, eq);
                if (run >= 3) {
                    s.u8(uint32_t(-run) & 0xFF);
                    s.bytes(c + 2 * i, 2);
                    i += run;
                    continue;
                }
                int j = i;
                while (j < e && j - i < 127 && (j == i || runAt(j, e, 3, eq) < 3)) ++j;
                s.u8(uint32_t(j - i));
                s.bytes(c + 2 * i, 2 * size_t(j - i));
                i = j;
            }
            x = e;
        });
        if (packets > 16383) return false;
        s.patch16(countAt, uint32_t(packets));
        ++lines;
    }
    s.patch16(linesAt, uint32_t(lines));
    s.end(at);
    return lines > 0;
}

// Colour chunk: the whole palette (full) or the entries that differ from
// prev, each as stored (6-bit components in FLI files).
void encodeColour(Sink& s, const uint8_t* prev, const uint8_t* cur, bool full, bool fli) {
    const size_t at = s.begin(fli ? kFlicColour64 : kFlicColour256);
    const size_t packetsAt = s.size();
    s.u16(0);
    int packets = 0;
    if (full) {
        s.u8(0);
        s.u8(0);
        s.bytes(cur, 768);
        packets = 1;
    } else {
        int last = 0;
        for (int i = 0; i < 256;) {
            if (std::memcmp(prev + 3 * i, cur + 3 * i, 3) == 0) {
                ++i;
                continue;
            }
            int j = i + 1;
            while (j < 256 && std::memcmp(prev + 3 * j, cur + 3 * j, 3) != 0) ++j;
            s.u8(uint32_t(i - last));
            s.u8(uint32_t(j - i) & 0xFF);
            s.bytes(cur + 3 * i, 3 * size_t(j - i));
            ++packets;
            last = i = j;
        }
    }
    s.patch16(packetsAt, uint32_t(packets));
    s.end(at);
}

// The distinct colours of a row-planar RGB image when there are at most
// `wanted`: the palette and every pixel's index (into map). The first
// `seeds` entries of the palette keep their places (so that a movie's
// palette does not move from frame to frame). False when there are more.
bool exactPalette(const uint8_t* rgb, int w, int h, int wanted, uint8_t* red, uint8_t* green, uint8_t* blue,
                  int seeds, int* count, uint8_t* map) {
    constexpr int kSlots = 1024;  // open addressing, at most 256 in use
    uint32_t keys[kSlots];
    uint16_t index[kSlots];
    std::fill(keys, keys + kSlots, UINT32_MAX);
    int n = 0;
    for (; n < seeds && n < wanted; ++n) {
        const uint32_t key = uint32_t(red[n]) << 16 | uint32_t(green[n]) << 8 | blue[n];
        uint32_t slot = (key * 2654435761u) >> 22;
        while (keys[slot] != key && keys[slot] != UINT32_MAX) slot = (slot + 1) & (kSlots - 1);
        if (keys[slot] == UINT32_MAX) keys[slot] = key, index[slot] = uint16_t(n);
    }
    for (int y = 0; y < h; ++y) {
        const uint8_t* r = rgb + size_t(y) * 3 * w;
        for (int x = 0; x < w; ++x) {
            const uint32_t key = uint32_t(r[x]) << 16 | uint32_t(r[w + x]) << 8 | r[2 * w + x];
            uint32_t slot = (key * 2654435761u) >> 22;
            while (keys[slot] != key && keys[slot] != UINT32_MAX) slot = (slot + 1) & (kSlots - 1);
            if (keys[slot] == UINT32_MAX) {
                if (n == wanted) return false;
                keys[slot] = key;
                index[slot] = uint16_t(n);
                red[n] = r[x], green[n] = r[w + x], blue[n] = r[2 * w + x];
                ++n;
            }
            map[size_t(y) * w + x] = uint8_t(index[slot]);
        }
    }
    *count = n;
    return true;
}

}  // namespace

// --- the writer -------------------------------------------------------------------

struct FlicWriter {
    il::File file;
    std::string path;
    int width = 0, height = 0;
    bool fli = false;
    uint32_t speed = 0;
    size_t pixels = 0;
    il::Scratch<uint8_t> first, prev, cur;     // index maps
    uint8_t firstPal[768] = {}, prevPal[768] = {}, curPal[768] = {};  // as stored
    Sink head, delta, byteRun;
    int frames = 0;
    uint64_t offset = kFlicHeaderBytes;  // where the next frame goes
    uint32_t frame2 = 0;                 // offset of frame 2 (or of the ring frame)
    int status = 0;                      // the first failure, kept for close
    uint8_t lastRed[256] = {}, lastGreen[256] = {}, lastBlue[256] = {};  // exact palette of the last RGB frame
    int lastCount = 0;

    // Encodes cur/curPal against prev/prevPal (whole when `whole`) and
    // writes the frame.
    int writeFrame(const uint8_t* before, const uint8_t* beforePal, const uint8_t* image, const uint8_t* pal,
                   bool whole) {
        const int w = width, h = height;
        head.clear();
        head.u32(0);
        head.u16(kFlicFrameChunk);
        head.u16(0);
        for (int i = 0; i < 8; ++i) head.u8(0);
        int chunks = 0;
        if (whole || std::memcmp(beforePal, pal, 768) != 0) {
            encodeColour(head, beforePal, pal, whole, fli);
            ++chunks;
        }
        // The image: the smallest of what applies.
        enum { kNone, kBlack, kCopy, kRun, kDelta } pick = kNone;
        size_t best = SIZE_MAX;
        const bool same = !whole && std::memcmp(before, image, pixels) == 0;
        if (!same) {
            bool black = true;
            for (size_t i = 0; i < pixels && black; ++i) black = image[i] == 0;
            if (black) {
                pick = kBlack;
                best = kFlicSubHeaderBytes;
            }
            if (pick == kNone && !whole) {
                delta.clear();
                const bool words = !fli && w % 2 == 0;
                const bool fits = words ? encodeDeltaFlc(delta, before, image, w, h)
                                        : encodeDeltaFli(delta, before, image, w, h);
                if (fits && delta.ok()) {
                    pick = kDelta;
                    best = delta.size();
                }
            }
            if (pick != kBlack) {
                byteRun.clear();
                encodeByteRun(byteRun, image, w, h);
                if (byteRun.ok() && byteRun.size() < best) {
                    pick = kRun;
                    best = byteRun.size();
                }
                const size_t copy = kFlicSubHeaderBytes + pixels + (pixels & 1);
                if (w % 4 == 0 && copy < best) {
                    pick = kCopy;
                    best = copy;
                }
            }
            if (pick == kNone) {  // byte runs that outgrew their bound: a copy after all
                pick = kCopy;
                best = kFlicSubHeaderBytes + pixels + (pixels & 1);
            }
            ++chunks;
        }
        if (pick == kBlack) {
            head.u32(kFlicSubHeaderBytes);
            head.u16(kFlicBlack);
        }
        if (!head.ok()) return IMGERR_NOMEMORY;
        const uint64_t total = head.size() + (pick == kBlack || pick == kNone ? 0 : best);
        if (offset + total > UINT32_MAX) return IMGERR_WRITEFAILED;
        head.patch32(0, uint32_t(total));
        head.patch16(6, uint32_t(chunks));
        if (!file.write(head.data(), head.size())) return IMGERR_WRITEFAILED;
        bool ok = true;
        if (pick == kDelta) ok = file.write(delta.data(), delta.size());
        if (pick == kRun) ok = file.write(byteRun.data(), byteRun.size());
        if (pick == kCopy) {
            uint8_t h6[kFlicSubHeaderBytes];
            il::put32le(h6, uint32_t(best));
            il::put16le(h6 + 4, kFlicCopy);
            static const uint8_t kPad = 0;
            ok = file.write(h6, sizeof h6) && file.write(image, pixels) && file.write(&kPad, pixels & 1);
        }
        if (!ok) return IMGERR_WRITEFAILED;
        offset += total;
        return 0;
    }

    // Adds the frame in cur/curPal.
    int addFrame() {
        if (status) return status;
        if (frames >= kFlicMaxFrames) return IMGERR_BADARG;
        const bool firstFrame = frames == 0;
        int st = writeFrame(prev.get(), prevPal, cur.get(), curPal, firstFrame);
        if (st) return status = st;
        if (firstFrame) {
            std::memcpy(first.get(), cur.get(), pixels);
            std::memcpy(firstPal, curPal, 768);
        }
        if (frames == 0) frame2 = uint32_t(offset);
        ++frames;
        std::swap(prev, cur);
        std::memcpy(prevPal, curPal, 768);
        return 0;
    }

    // Stores a palette as the file keeps it.
    void setPalette(const uint8_t* red, const uint8_t* green, const uint8_t* blue, int count) {
        std::memset(curPal, 0, sizeof curPal);
        const int n = std::clamp(count, 0, 256);
        for (int i = 0; i < n; ++i) {
            const uint8_t rgb[3] = {red[i], green[i], blue[i]};
            for (int k = 0; k < 3; ++k) curPal[3 * i + k] = fli ? uint8_t(rgb[k] >> 2) : rgb[k];
        }
    }

    int finish() {
        if (status) return status;
        // Ring frame: from the last frame back to the first.
        if (int st = writeFrame(prev.get(), prevPal, first.get(), firstPal, false)) return st;
        uint8_t h[kFlicHeaderBytes] = {};
        il::put32le(h, uint32_t(offset));
        il::put16le(h + 4, fli ? kFliMagic : kFlcMagic);
        il::put16le(h + 6, uint32_t(frames));
        il::put16le(h + 8, uint32_t(width));
        il::put16le(h + 10, uint32_t(height));
        il::put16le(h + 12, 8);
        if (fli) {
            il::put16le(h + 16, speed);
        } else {
            il::put16le(h + 14, 3);  // finished and looped
            il::put32le(h + 16, speed);
            const bool vga = width == 320 && height == 200;
            il::put16le(h + 38, vga ? 6 : 1);
            il::put16le(h + 40, vga ? 5 : 1);
            il::put32le(h + 80, kFlicHeaderBytes);
            il::put32le(h + 84, frame2);
        }
        if (!file.seek(0) || !file.write(h, sizeof h)) return IMGERR_WRITEFAILED;
        return file.close() ? 0 : IMGERR_WRITEFAILED;
    }
};

int imageFlic_create(FlicWriter** out, const char* path, const ImageSize* size, int delay, int flc) noexcept {
    if (!out) return IMGERR_BADARG;
    *out = nullptr;
    if (!path || !size || size->x < 1 || size->y < 1 || size->x > 0xFFFF || size->y > 0xFFFF || delay < 1)
        return IMGERR_BADARG;
    size_t pixels;
    if (!il::imageBytes(size->x, size->y, 1, &pixels)) return IMGERR_BADARG;
    std::unique_ptr<FlicWriter> wr(new (std::nothrow) FlicWriter);
    if (!wr) return IMGERR_NOMEMORY;
    wr->width = size->x;
    wr->height = size->y;
    wr->fli = !flc && size->x == 320 && size->y == 200;
    wr->speed = imageFlic_speed(delay, wr->fli);
    wr->pixels = pixels;
    // Bounds of the encodings: a byte-run line takes at most w + w/64 + 4
    // bytes, a delta line at most 2w + 12.
    const size_t w = size_t(size->x), h = size_t(size->y);
    const size_t runBound = h * (w + w / 64 + 4) + 16, deltaBound = h * (2 * w + 12) + 16;
    try {
        wr->path = path;
    } catch (...) {
        return IMGERR_NOMEMORY;
    }
    if (!wr->first.allocate(pixels, il::tag("FlW1"), true) || !wr->prev.allocate(pixels, il::tag("FlWp"), true) ||
        !wr->cur.allocate(pixels, il::tag("FlWc"), true) || !wr->head.allocate(1024, il::tag("FlWh")) ||
        !wr->byteRun.allocate(runBound, il::tag("FlWr")) || !wr->delta.allocate(deltaBound, il::tag("FlWd")))
        return IMGERR_NOMEMORY;
    wr->file = il::File::open(path, "wb+");
    if (!wr->file.ok()) return IMGERR_OPENFAILED;
    static const uint8_t kBlank[kFlicHeaderBytes] = {};
    if (!wr->file.write(kBlank, sizeof kBlank)) return IMGERR_WRITEFAILED;
    *out = wr.release();
    return 0;
}

int imageFlic_writeFrameFromMap(FlicWriter* wr, const void* map, int packed, const uint8_t* red, const uint8_t* green,
                                const uint8_t* blue, int count, StopFunction stop) noexcept {
    if (!wr || !map || !red || !green || !blue) return IMGERR_BADARG;
    const int w = wr->width, h = wr->height;
    for (int y = 0; y < h; ++y) {
        if (imageUtil_reportProgress(stop, h, y)) return IMGERR_STOPPED;
        uint8_t* row = wr->cur.get() + size_t(y) * w;
        if (packed)
            korImage_unpackByteBuffer(row, static_cast<uint8_t* const*>(map)[y], w);
        else
            std::memcpy(row, static_cast<const uint8_t*>(map) + size_t(y) * w, size_t(w));
    }
    wr->setPalette(red, green, blue, count);
    return wr->addFrame();
}

int imageFlic_writeFrameFromRGB(FlicWriter* wr, const uint8_t* rgb, int imageFormat, StopFunction stop) noexcept {
    if (!wr || !rgb) return IMGERR_BADARG;
    const int w = wr->width, h = wr->height;
    const ImageSize size{w, h};
    uint8_t red[256] = {}, green[256] = {}, blue[256] = {};
    int count = 0;
    const size_t planeRow = 3 * size_t(w);
    if (imageFormat == COLORMODE_GREY) {
        il::setGreyRamp(red, green, blue);
        count = 256;
        for (int y = 0; y < h; ++y) {
            if (imageUtil_reportProgress(stop, h, y)) return IMGERR_STOPPED;
            const uint8_t* r = rgb + y * planeRow;
            uint8_t* row = wr->cur.get() + size_t(y) * w;
            for (int x = 0; x < w; ++x) row[x] = il::greyLevelFloat(r[x], r[w + x], r[2 * w + x]);
        }
    } else if (imageUtil_stopped(stop)) {
        return IMGERR_STOPPED;
    } else if (const int wanted = imageFormat == COLORMODE_PALETTE16 ? 16 : 256;
               (std::memcpy(red, wr->lastRed, 256), std::memcpy(green, wr->lastGreen, 256),
                std::memcpy(blue, wr->lastBlue, 256),
                exactPalette(rgb, w, h, wanted, red, green, blue, wr->lastCount, &count, wr->cur.get())) ||
               exactPalette(rgb, w, h, wanted, red, green, blue, 0, &count, wr->cur.get())) {
        // Few colours, kept exactly; the next frame starts from them.
        std::memcpy(wr->lastRed, red, 256);
        std::memcpy(wr->lastGreen, green, 256);
        std::memcpy(wr->lastBlue, blue, 256);
        wr->lastCount = count;
    } else {
        // More colours than the palette holds: an optimised palette, dithered.
        wr->lastCount = 0;
        if (int st = korImage_getOptimizedPalette(red, green, blue, &count, wanted, rgb, &size, stop))
            return st > 0 ? IMGERR_STOPPED : st;
        if (wr->fli)  // dither onto the colours that the file will show
            for (int i = 0; i < count; ++i) {
                red[i] = widen6(red[i] >> 2);
                green[i] = widen6(green[i] >> 2);
                blue[i] = widen6(blue[i] >> 2);
            }
        il::DitherJob job;
        if (int st = korImage_ditherInitialize(count, red, green, blue, w)) return st;
        for (int y = 0; y < h; ++y) {
            if (imageUtil_reportProgress(stop, h, y)) return IMGERR_STOPPED;
            const uint8_t* r = rgb + y * planeRow;
            korImage_ditherRow(wr->cur.get() + size_t(y) * w, r, r + w, r + 2 * w, w);
        }
    }
    wr->setPalette(red, green, blue, count);
    return wr->addFrame();
}

int imageFlic_close(FlicWriter* writer) noexcept {
    std::unique_ptr<FlicWriter> wr(writer);
    if (!wr) return IMGERR_BADARG;
    if (wr->frames == 0) {
        wr->file.close();
        std::remove(wr->path.c_str());
        return wr->status ? wr->status : IMGERR_NODATA;
    }
    return wr->finish();
}

namespace {

template <class AddFrame>
int writeOne(const char* path, const ImageSize* size, int flc, AddFrame add) {
    FlicWriter* wr = nullptr;
    if (int st = imageFlic_create(&wr, path, size, kFlicDefaultDelay, flc)) return st;
    int st = add(wr);
    int closed = imageFlic_close(wr);
    return st ? st : closed;
}

}  // namespace

int imageFlic_writeFromMap(const char* path, const void* map, const uint8_t* red, const uint8_t* green,
                           const uint8_t* blue, int count, const ImageSize* size, int packed, int flc,
                           StopFunction stop) noexcept {
    if (!map || !red || !green || !blue) return IMGERR_BADARG;
    return writeOne(path, size, flc, [&](FlicWriter* wr) {
        return imageFlic_writeFrameFromMap(wr, map, packed, red, green, blue, count, stop);
    });
}

int imageFlic_writeFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, int imageFormat, int flc,
                           StopFunction stop) noexcept {
    if (!rgb) return IMGERR_BADARG;
    return writeOne(path, size, flc,
                    [&](FlicWriter* wr) { return imageFlic_writeFrameFromRGB(wr, rgb, imageFormat, stop); });
}
