// GIF files: LZW coding with codes of 3 to 12 bits packed least significant
// bit first into data sub-blocks of at most 255 bytes.
//
// Code widths: the coder widens after assigning the code equal to the width
// limit (512, 1024, 2048) and, at 12 bits, sends a clear code at the first
// miss after code 4095 was assigned; the decoder widens when its next free
// code reaches the limit and at 12 bits stops adding codes until a clear
// code. Coder and decoder are templates over their byte and pixel routines
// so that the writers and the reader run them without indirect calls; the
// exported entry points wrap them around function pointers.
//
// The reader never trusts the file: table sizes are read and the excess
// dropped, an image that claims more pixels than its data could expand to
// is refused before allocation, and pixels past the image end decoding.
#include "codecs/native/gif.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <utility>

#include "imagelib/io.h"
#include "imagelib/pixels.h"
#include "internal/bytes.h"
#include "internal/checked.h"
#include "internal/file.h"
#include "internal/scratch.h"
#include "pixels/colour.h"
#include "pixels/dither.h"
#include "pixels/rows.h"

namespace {

constexpr int kMaxWidth = 12;                // widest code
constexpr int kCodes = 1 << kMaxWidth;       // 4096 codes
constexpr int kHashSlots = 5003;             // prime, about 1.2 slots a code
constexpr int kFullBlock = 254;              // complete bytes that start a new sub-block
constexpr int kTerminator = INT_MIN;         // code reader: block terminator before the end code

// --- LZW coder -------------------------------------------------------------------

// A slot of the coder's hash table: the string (prefix code, suffix symbol)
// and the code assigned to it (0: empty). The suffix is kept whole so that
// symbols of code size 9 match exactly.
struct HashSlot {
    int32_t prefix;
    int32_t code;
    int32_t suffix;
};

// Packs codes least significant bit first into sub-blocks.
template <class Put>
class CodeWriter {
public:
    explicit CodeWriter(Put& put) : put_(put) {}

    // Adds the low `width` bits of code. Before that, 254 or more complete
    // bytes go out as one sub-block; the partial byte stays.
    int add(int code, int width) {
        if (count_ >= kFullBlock) {
            if (int e = block(buf_, count_)) return e;
            count_ = 0;
        }
        acc_ |= (uint32_t(code) & ((1u << width) - 1)) << bits_;
        bits_ += width;
        while (bits_ >= 8) {
            buf_[count_++] = uint8_t(acc_);
            acc_ >>= 8;
            bits_ -= 8;
        }
        return 0;
    }

    // Writes the pending bytes as a last sub-block (split when they exceed
    // 255) and the block terminator.
    int finish() {
        if (bits_ > 0) buf_[count_++] = uint8_t(acc_);
        const int first = std::min(count_, 255);
        if (first > 0)
            if (int e = block(buf_, first)) return e;
        if (count_ > first)
            if (int e = block(buf_ + first, count_ - first)) return e;
        count_ = 0;
        return put_(0);
    }

private:
    int block(const uint8_t* p, int n) {
        if (int e = put_(n)) return e;
        for (int i = 0; i < n; ++i)
            if (int e = put_(p[i])) return e;
        return 0;
    }

    Put& put_;
    uint8_t buf_[260];
    int count_ = 0;     // complete bytes in buf_
    uint32_t acc_ = 0;  // the partial byte's bits
    int bits_ = 0;
};

template <class Next, class Put>
int lzwEncode(int codeSize, Next& next, Put& put) {
    if (codeSize < 1 || codeSize > 9) return kGifBadCodeSize;
    if (codeSize == 1) codeSize = 2;
    il::Scratch<HashSlot> table(kHashSlots, il::tag("GfHs"));
    if (!table.ok()) return kGifNoMemory;
    if (int e = put(codeSize)) return e;

    const int clear = 1 << codeSize, end = clear + 1;
    int freeCode = 0, width = 0, limit = 0;
    auto reset = [&] {
        freeCode = clear + 2;
        width = codeSize + 1;
        limit = 1 << (codeSize + 1);
        for (int i = 0; i < kHashSlots; ++i) table[i].code = 0;
    };
    reset();
    CodeWriter<Put> out(put);
    if (int e = out.add(clear, width)) return e;

    int prefix = next();
    if (prefix < -1) return prefix;
    if (prefix >= 0) {
        for (;;) {
            const int c = next();
            if (c == -1) break;
            if (c < 0) return c;
            uint32_t h = ((uint32_t(c) << 5) ^ uint32_t(prefix)) % kHashSlots;
            // Probe with displacements 1, 3, 5, ... A table without an
            // empty slot on the probe path (never seen in practice) gives a
            // miss whose string is not kept; the codes stay in step with
            // the decoder either way.
            bool hit = false, room = true;
            for (uint32_t disp = 1, probes = 0;; disp += 2, ++probes) {
                const HashSlot& s = table[h];
                if (s.code == 0) break;
                if (s.prefix == prefix && s.suffix == c) {
                    hit = true;
                    break;
                }
                if (probes == kHashSlots) {
                    room = false;
                    break;
                }
                h += disp;
                while (h >= uint32_t(kHashSlots)) h -= kHashSlots;
            }
            if (hit) {
                prefix = table[h].code;
                continue;
            }
            if (int e = out.add(prefix, width)) return e;
            const int considered = freeCode < kCodes ? freeCode : kCodes;
            if (freeCode < kCodes) {
                if (room) table[h] = HashSlot{prefix, freeCode, c};
                ++freeCode;
            }
            if (considered == limit) {
                if (width == kMaxWidth) {
                    if (int e = out.add(clear, kMaxWidth)) return e;
                    reset();
                } else {
                    ++width;
                    limit <<= 1;
                }
            }
            prefix = c;
        }
        if (int e = out.add(prefix, width)) return e;
    }
    if (int e = out.add(end, width)) return e;
    return out.finish();
}

// --- LZW decoder -------------------------------------------------------------------

// Reads codes least significant bit first across data sub-blocks.
template <class Get>
class CodeReader {
public:
    explicit CodeReader(Get& get) : get_(get) {}

    // The next code of `width` bits, kTerminator at a zero-length block, or
    // the get routine's negative answer.
    int read(int width) {
        while (bits_ < width) {
            if (left_ == 0) {
                const int n = get_();
                if (n < 0) return n;
                if ((n & 255) == 0) return kTerminator;
                left_ = n & 255;
            }
            const int byte = get_();
            if (byte < 0) return byte;
            --left_;
            acc_ |= uint32_t(byte & 255) << bits_;
            bits_ += 8;
        }
        const int code = int(acc_ & ((1u << width) - 1));
        acc_ >>= width;
        bits_ -= width;
        return code;
    }

private:
    Get& get_;
    int left_ = 0;  // bytes left in the current sub-block
    uint32_t acc_ = 0;
    int bits_ = 0;
};

// take(pixels, n) receives each decoded string in order.
template <class Get, class Take>
int lzwDecode(Get& get, Take& take) {
    const int codeSize = get();
    if (codeSize < 0) return codeSize;
    if (codeSize < 2 || codeSize > 9) return kGifBadCodeSize;
    // Strings are unwound into the pixel stack from its end, so that they
    // come out in order; a string is at most kCodes pixels long.
    constexpr int kStack = kCodes + 1;
    il::Scratch<uint16_t> prefixes(kCodes, il::tag("GfPr"));
    il::Scratch<uint8_t> suffixes(kCodes, il::tag("GfSx"));
    il::Scratch<uint8_t> stack(kStack, il::tag("GfSt"));
    if (!prefixes.ok() || !suffixes.ok() || !stack.ok()) return kGifNoMemory;

    const int clear = 1 << codeSize, end = clear + 1;
    int freeCode = 0, width = 0, limit = 0, prev = -1;
    uint8_t prevFirst = 0;
    auto reset = [&] {
        freeCode = clear + 2;
        width = codeSize + 1;
        limit = 1 << (codeSize + 1);
        prev = -1;
    };
    reset();
    CodeReader<Get> in(get);
    for (;;) {
        const int code = in.read(width);
        if (code < 0) return code == kTerminator ? 0 : code;
        if (code == end) return 0;
        if (code == clear) {
            reset();
            continue;
        }
        if (prev < 0) {
            // First code after a clear (or of the stream): a root.
            if (code >= clear) return IMGERR_BADFILE;
            prevFirst = uint8_t(code);
            prev = code;
            if (int st = take(&prevFirst, 1)) return st;
            continue;
        }
        int pos = kStack, cur = code;
        const bool undefined = code >= freeCode;
        if (undefined) {
            // Not yet defined: the previous string and its first pixel.
            stack[--pos] = prevFirst;
            cur = prev;
        }
        while (cur >= clear) {
            if (pos <= 1) return IMGERR_BADFILE;
            stack[--pos] = suffixes[cur];
            cur = prefixes[cur];
        }
        const uint8_t first = uint8_t(cur);
        stack[--pos] = first;
        if (int st = take(stack.get() + pos, kStack - pos)) return st;
        if (freeCode < kCodes) {
            prefixes[freeCode] = uint16_t(prev);
            suffixes[freeCode] = first;
            ++freeCode;
            if (freeCode == limit && width < kMaxWidth) {
                ++width;
                limit <<= 1;
            }
        }
        // A code beyond the next free one stands for the string just
        // added, so that every prefix stays below the code it belongs to.
        prev = undefined ? freeCode - 1 : code;
        prevFirst = first;
    }
}

// --- file bytes ----------------------------------------------------------------------

// Buffered reading: get() answers -1 at the end of the file.
class ByteReader {
public:
    explicit ByteReader(il::File& f) : file_(f) {}
    bool ok() const { return buf_.ok(); }
    int get() {
        if (pos_ == len_) {
            len_ = file_.readSome(buf_.get(), buf_.size());
            pos_ = 0;
            consumed_ += int64_t(len_);
            if (len_ == 0) return -1;
        }
        return buf_[pos_++];
    }
    bool read(uint8_t* dst, size_t n) {
        for (size_t i = 0; i < n; ++i) {
            const int c = get();
            if (c < 0) return false;
            dst[i] = uint8_t(c);
        }
        return true;
    }
    // Bytes read so far.
    int64_t position() const { return consumed_ - int64_t(len_ - pos_); }

private:
    il::File& file_;
    il::Scratch<uint8_t> buf_{16384, il::tag("GfRd")};
    size_t pos_ = 0, len_ = 0;
    int64_t consumed_ = 0;
};

// Buffered writing; once a write fails every later byte answers the error.
class ByteWriter {
public:
    explicit ByteWriter(il::File& f) : file_(f) {}
    int operator()(int byte) {
        buf_[n_++] = uint8_t(byte);
        return n_ == sizeof buf_ ? flush() : failed_;
    }
    int bytes(const uint8_t* p, size_t n) {
        for (size_t i = 0; i < n; ++i)
            if ((*this)(p[i])) return failed_;
        return failed_;
    }
    int flush() {
        if (n_ && !failed_ && !file_.write(buf_, n_)) failed_ = IMGERR_WRITEFAILED;
        n_ = 0;
        return failed_;
    }
    int failed() const { return failed_; }

private:
    il::File& file_;
    uint8_t buf_[16384];
    size_t n_ = 0;
    int failed_ = 0;
};

// --- writing -------------------------------------------------------------------------

bool writableSize(const ImageSize* size) {
    return size && il::imageBytes(size->x, size->y, 1) && size->x <= 0xFFFF && size->y <= 0xFFFF;
}

// Signature, logical screen descriptor and a global table of 2^bits
// entries (entries past the colour count are whatever the arrays hold).
void writeScreen(ByteWriter& out, bool gif89, const ImageSize* size, int bits, const uint8_t* red,
                 const uint8_t* green, const uint8_t* blue) {
    uint8_t h[13] = {'G', 'I', 'F', '8', uint8_t(gif89 ? '9' : '7'), 'a'};
    il::put16le(h + 6, uint32_t(size->x));
    il::put16le(h + 8, uint32_t(size->y));
    h[10] = uint8_t(0xF0 | (bits - 1));
    out.bytes(h, sizeof h);
    for (int i = 0; i < 1 << bits; ++i) {
        out(red[i]);
        out(green[i]);
        out(blue[i]);
    }
}

// Image descriptor: at 0, 0, no local table, not interlaced.
void writeDescriptor(ByteWriter& out, const ImageSize* size) {
    uint8_t d[10] = {0x2C};
    il::put16le(d + 5, uint32_t(size->x));
    il::put16le(d + 7, uint32_t(size->y));
    out.bytes(d, sizeof d);
}

// Two pixels a symbol, the first in the high nibble, taken across rows; an
// odd pixel at the very end is paired with 0.
template <class Source>
struct Paired {
    Source& source;
    int operator()() {
        const int a = source();
        if (a < 0) return a;
        const int b = source();
        if (b < -1) return b;
        return a * 16 + (b < 0 ? 0 : b);
    }
};

// Encodes the image from source (nibble pairs when paired), writes the
// trailer and closes the file. The result: the stop poll's answer, else
// IMGERR_WRITEFAILED when a write failed, else 0. The coder's own result is
// not the writer's.
template <class Source>
int finishImage(il::File& file, ByteWriter& out, int codeSize, bool paired, Source& source, const int& stopped) {
    if (paired) {
        Paired<Source> pairs{source};
        (void)lzwEncode(codeSize, pairs, out);
    } else {
        (void)lzwEncode(codeSize, source, out);
    }
    out(';');
    const int written = out.flush();
    const bool closed = file.close();
    if (stopped) return stopped;
    return written || !closed ? IMGERR_WRITEFAILED : 0;
}

// Grey level of the grey writer: 0.11 blue + 0.59 green + 0.3 red + 0.5,
// summed in this order in double precision.
uint8_t gifGrey(int r, int g, int b) { return uint8_t(int(0.11 * b + 0.59 * g + 0.3 * r + 0.5)); }

}  // namespace

// --- exported coder and decoder -----------------------------------------------------

int imageGif_encode(int minCodeSize, GifNextPixel next, void* nextContext, GifPutByte put, void* putContext) noexcept {
    if (!next || !put) return IMGERR_BADARG;
    auto n = [&] { return next(nextContext); };
    auto p = [&](int byte) { return put(putContext, byte); };
    return lzwEncode(minCodeSize, n, p);
}

int imageGif_decode(GifGetByte get, void* getContext, GifTakePixel take, void* takeContext) noexcept {
    if (!get || !take) return IMGERR_BADARG;
    auto g = [&] { return get(getContext); };
    auto t = [&](const uint8_t* pixels, int n) {
        for (int i = 0; i < n; ++i)
            if (int st = take(takeContext, pixels[i])) return st;
        return 0;
    };
    return lzwDecode(g, t);
}

// --- writers -----------------------------------------------------------------------------

int imageGif_writeFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, int imageFormat,
                          StopFunction stop) noexcept {
    if (imageFormat < COLORMODE_PALETTE16 || imageFormat > COLORMODE_GREY) return IMGERR_BADARG;
    if (!rgb || !writableSize(size)) return IMGERR_BADARG;
    const int w = size->x, h = size->y;
    const bool sixteen = imageFormat == COLORMODE_PALETTE16, grey = imageFormat == COLORMODE_GREY;
    const int bits = sixteen ? 4 : 8;

    uint8_t red[256] = {}, green[256] = {}, blue[256] = {};
    int count = 256;
    if (grey) {
        il::setGreyRamp(red, green, blue);
    } else if (int st = korImage_getOptimizedPalette(red, green, blue, &count, sixteen ? 16 : 256, rgb, size, stop)) {
        return st;
    }
    il::File file = il::File::open(path, "wb");
    if (!file.ok()) return IMGERR_OPENFAILED;
    il::DitherJob job;
    if (!grey)
        if (int st = korImage_ditherInitialize(count, red, green, blue, w)) return st;
    ByteWriter out(file);
    writeScreen(out, false, size, bits, red, green, blue);
    writeDescriptor(out, size);
    il::Scratch<uint8_t> row(size_t(w), il::tag("GfWr"));
    if (!row.ok()) {
        out.flush();  // the headers stay in the file
        return IMGERR_NOMEMORY;
    }

    const size_t planeRow = size_t(w) * 3;
    int stopped = 0, x = w, y = -1;
    bool done = false;
    if (grey) {
        // Computed pixel by pixel; the poll follows the last pixel of a row.
        auto source = [&]() -> int {
            if (done) return -1;
            if (x == w) {
                x = 0;
                ++y;
            }
            if (y >= h) return done = true, -1;
            const uint8_t* r = rgb + size_t(y) * planeRow;
            const int v = gifGrey(r[x], r[w + x], r[2 * w + x]);
            if (++x == w && (stopped = imageUtil_stopped(stop))) done = true;
            return v;
        };
        return finishImage(file, out, 8, false, source, stopped);
    }
    // Each row is dithered when the coder reaches it.
    auto source = [&]() -> int {
        if (done) return -1;
        if (x == w) {
            if (++y >= h || (stopped = imageUtil_stopped(stop))) return done = true, -1;
            const uint8_t* r = rgb + size_t(y) * planeRow;
            korImage_ditherRow(row.get(), r, r + w, r + 2 * w, w);
            x = 0;
        }
        return row[x++];
    };
    return finishImage(file, out, bits, sixteen, source, stopped);
}

int imageGif_writeFromMap(const char* path, const void* map, const uint8_t* red, const uint8_t* green,
                          const uint8_t* blue, int colourCount, const ImageSize* size, int imageFormat, int packed,
                          StopFunction stop) noexcept {
    int bits;
    if (imageFormat == COLORMODE_PALETTE16 && colourCount <= 16) {
        bits = 4;
    } else if (imageFormat == COLORMODE_PALETTE256 && colourCount <= 256) {
        bits = 8;
    } else {
        return IMGERR_BADARG;
    }
    if (!map || !red || !green || !blue || !writableSize(size)) return IMGERR_BADARG;
    const int w = size->x, h = size->y;

    il::File file = il::File::open(path, "wb");
    if (!file.ok()) return IMGERR_OPENFAILED;
    ByteWriter out(file);
    writeScreen(out, true, size, bits, red, green, blue);
    // Graphic control extension: palette index 0 is transparent.
    static const uint8_t kControl[8] = {0x21, 0xF9, 4, 1, 0, 0, 0, 0};
    out.bytes(kControl, sizeof kControl);
    writeDescriptor(out, size);
    il::Scratch<uint8_t> unpacked(packed ? size_t(w) : 0, il::tag("GfWu"));
    if (packed && !unpacked.ok()) return IMGERR_NOMEMORY;

    int stopped = 0, x = w, y = -1;
    bool done = false;
    const uint8_t* row = nullptr;
    auto source = [&]() -> int {
        if (done) return -1;
        if (x == w) {
            if (++y >= h || (stopped = imageUtil_stopped(stop))) return done = true, -1;
            if (packed) {
                korImage_unpackByteBuffer(unpacked.get(), static_cast<uint8_t* const*>(map)[y], w);
                row = unpacked.get();
            } else {
                row = static_cast<const uint8_t*>(map) + size_t(y) * size_t(w);
            }
            x = 0;
        }
        return row[x++];
    };
    return finishImage(file, out, bits == 4 ? 4 : 8, bits == 4, source, stopped);
}

// --- reader --------------------------------------------------------------------------------

namespace {

// The most pixels one byte of image data can stand for: a code of w bits
// stands for at most 2^w pixels, and 2^w / w is largest at 12 bits.
constexpr int64_t kMaxPixelsPerByte = 8 * kCodes / kMaxWidth + 1;

// Reads a colour table of `entries` entries; entries past 256 are read and
// dropped.
bool readTable(ByteReader& in, int entries, uint8_t* red, uint8_t* green, uint8_t* blue) {
    uint8_t rgb[3];
    for (int i = 0; i < entries; ++i) {
        if (!in.read(rgb, 3)) return false;
        if (i < 256) {
            red[i] = rgb[0];
            green[i] = rgb[1];
            blue[i] = rgb[2];
        }
    }
    return true;
}

// Skips data sub-blocks, the first of length `length`, up to a zero length.
bool skipBlocks(ByteReader& in, int length) {
    while (length != 0) {
        if (length < 0) return false;
        for (int i = 0; i < length; ++i)
            if (in.get() < 0) return false;
        length = in.get();
    }
    return true;
}

// What the headers tell of the first image.
struct GifImage {
    int width = 0;
    int height = 0;
    bool interlaced = false;
    int colours = 0;  // table size, at most 256
    int transparent = -1;  // the graphic control's transparent index, -1 for none
};

// Table size of a flags byte: 2^((flags AND 15) + 1). The low four bits
// are taken, the sort bit of the logical screen among them.
int tableEntries(int flags) { return 2 << (flags & 15); }

// Logical screen, extensions up to the first image, image descriptor and
// colour tables. false: the headers do not parse.
bool parseHeaders(ByteReader& in, GifImage* img, uint8_t* red, uint8_t* green, uint8_t* blue) {
    uint8_t b[14];
    if (!in.read(b, 13)) return false;
    if (std::memcmp(b, "GIF8", 4) != 0 || (b[4] != '7' && b[4] != '9') || b[5] != 'a') return false;
    img->width = il::get16le(b + 6);
    // The screen height is taken as byte 8 OR (byte 9 << 9), a quirk kept on
    // purpose; the image descriptor's height replaces it.
    img->height = b[8] | (b[9] << 9);
    const int screenFlags = b[10];
    const int globalEntries = tableEntries(screenFlags);
    img->colours = std::min(globalEntries, 256);
    if ((screenFlags & 0x80) && !readTable(in, globalEntries, red, green, blue)) return false;

    int c;
    while ((c = in.get()) == 0x21) {
        switch (in.get()) {
            case 1:  // plain text: block size 12, its 12 bytes, the first sub-block length
                if (!in.read(b, 14) || b[0] != 12 || !skipBlocks(in, b[13])) return false;
                break;
            case 0xF9:  // graphic control: the last one before the image gives its transparent index
                if (!in.read(b, 6) || b[0] != 4 || b[5] != 0) return false;
                img->transparent = (b[1] & 1) ? b[4] : -1;
                break;
            case 0xFE:  // comment
                if (!skipBlocks(in, in.get())) return false;
                break;
            case 0xFF:  // application: block size 11, identifier and code
                if (!in.read(b, 12) || b[0] != 11 || !skipBlocks(in, in.get())) return false;
                break;
            default: return false;  // label 0, unknown labels, end of file
        }
    }
    if (c != 0x2C) return false;
    if (!in.read(b, 9)) return false;
    img->width = il::get16le(b + 4);
    img->height = il::get16le(b + 6);
    img->interlaced = (b[8] & 0x40) != 0;
    if (b[8] & 0x80) {
        const int entries = tableEntries(b[8]);
        if (!readTable(in, entries, red, green, blue)) return false;
        img->colours = std::min(entries, 256);
    }
    return true;
}

// Image row of each decoded row of an interlaced image: every 8th row from
// 0, every 8th from 4, every 4th from 2, every 2nd from 1.
void interlaceRows(int* table, int h) {
    int n = 0;
    for (const auto& [start, step] : {std::pair{0, 8}, std::pair{4, 8}, std::pair{2, 4}, std::pair{1, 2}})
        for (int y = start; y < h; y += step) table[n++] = y;
}

// Takes decoded strings into the image rows: pixel i goes to column
// i mod width of decoded row i / width. After each row the stop poll runs
// and, for PackByte output, the row is packed.
struct Placer {
    uint8_t* map = nullptr;    // contiguous output, or null
    uint8_t** rows = nullptr;  // PackByte output, or null
    uint8_t* rowBuf = nullptr; // the row being built for PackByte output
    const int* rowTable = nullptr;
    int width = 0, height = 0;
    int row = 0, x = 0;        // decoded row and column of the next pixel
    StopFunction stop = nullptr;

    int imageRow(int n) const { return rowTable ? rowTable[n] : n; }
    uint8_t* target() const { return map ? map + size_t(imageRow(row)) * size_t(width) : rowBuf; }

    int operator()(const uint8_t* p, int n) {
        while (n > 0) {
            if (row >= height) return IMGERR_BADFILE;  // more pixels than the image holds
            const int k = std::min(n, width - x);
            std::memcpy(target() + x, p, size_t(k));
            x += k;
            p += k;
            n -= k;
            if (x == width) {
                if (int st = imageUtil_stopped(stop)) return st;
                if (rows && il::storePackByteRow(rows, imageRow(row), rowBuf, width)) return IMGERR_NOMEMORY;
                x = 0;
                ++row;
            }
        }
        return 0;
    }

    // PackByte output after the data ended: a row begun is packed with zeros
    // after its last pixel, rows never reached become zero rows.
    int finishRows() {
        if (!rows) return 0;
        if (x > 0 && row < height) {
            std::memset(rowBuf + x, 0, size_t(width - x));
            if (il::storePackByteRow(rows, imageRow(row), rowBuf, width)) return IMGERR_NOMEMORY;
        }
        // The zero row is encoded once and copied.
        std::memset(rowBuf, 0, size_t(width));
        il::Scratch<uint8_t> zero(il::packByteBound(size_t(width)), il::tag("GfZr"));
        if (!zero.ok()) return IMGERR_NOMEMORY;
        int length = 0;
        korImage_packByteBuffer(zero.get(), &length, rowBuf, width);
        for (int y = 0; y < height; ++y) {
            if (rows[y]) continue;
            rows[y] = static_cast<uint8_t*>(dlmSystem_korMalloc(size_t(length)));
            if (!rows[y]) return IMGERR_NOMEMORY;
            std::memcpy(rows[y], zero.get(), size_t(length));
        }
        return 0;
    }
};

}  // namespace

int imageGif_readToMap(void** map, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue, int* colourCount,
                       const char* path, int packed, StopFunction stop) noexcept {
    if (!map || !red || !green || !blue) return IMGERR_BADARG;
    il::File file = il::File::open(path, "rb");
    if (!file.ok()) return IMGERR_OPENFAILED;
    const int64_t length = file.size();
    ByteReader in(file);
    if (!in.ok()) return IMGERR_NOMEMORY;
    GifImage img;
    if (!parseHeaders(in, &img, red, green, blue)) return kGifParseFailure;

    const int w = img.width, h = img.height;
    if (!il::imageBytes(w, h, 1)) return IMGERR_BADFILE;  // a size of 0, or beyond what the library holds
    const int64_t remaining = std::max<int64_t>(length - in.position(), 0);
    if (int64_t(w) * h > remaining * kMaxPixelsPerByte + kCodes || !il::withinPixelLimit(w, h)) return IMGERR_BADFILE;

    Placer placer;
    placer.width = w;
    placer.height = h;
    placer.stop = stop;
    il::Scratch<int> rowTable(img.interlaced ? size_t(h) : 0, il::tag("GfIl"));
    if (img.interlaced) {
        if (!rowTable.ok()) return IMGERR_NOMEMORY;
        interlaceRows(rowTable.get(), h);
        placer.rowTable = rowTable.get();
    }
    il::CallerBuffer<uint8_t> bytes;
    il::RowTable table;
    il::Scratch<uint8_t> rowBuf;
    if (packed) {
        if (!table.allocate(ImageSize{w, h}) || !rowBuf.allocate(size_t(w), il::tag("GfRw"))) return IMGERR_NOMEMORY;
        placer.rows = table.bytes();
        placer.rowBuf = rowBuf.get();
    } else {
        bytes = il::callerBytes(size_t(w) * size_t(h), true);
        if (!bytes) return IMGERR_NOMEMORY;
        placer.map = bytes.get();
    }

    auto get = [&] { return in.get(); };
    int st = lzwDecode(get, placer);
    switch (st) {
        case 0: break;
        case -1: return IMGERR_READFAILED;  // the file ended inside the image data
        case kGifNoMemory: return IMGERR_NOMEMORY;
        case kGifBadCodeSize: return IMGERR_BADFILE;
        default: return st;
    }
    if (int s = placer.finishRows()) return s;
    if (size) *size = ImageSize{w, h};
    if (colourCount) *colourCount = img.colours;
    *map = packed ? table.release() : bytes.release();
    return 0;
}

int imageGif_readInfo(ImageSize* size, int* transparentIndex, const char* path) noexcept {
    il::File file = il::File::open(path, "rb");
    if (!file.ok()) return IMGERR_OPENFAILED;
    ByteReader in(file);
    if (!in.ok()) return IMGERR_NOMEMORY;
    GifImage img;
    uint8_t red[256], green[256], blue[256];
    if (!parseHeaders(in, &img, red, green, blue)) return kGifParseFailure;
    if (!il::imageBytes(img.width, img.height, 1)) return IMGERR_BADFILE;
    if (size) *size = ImageSize{img.width, img.height};
    if (transparentIndex) *transparentIndex = img.transparent;
    return 0;
}

namespace {

// When the opaque pixels of rows of four planes hold at most 255 colours:
// those colours in red, green, blue (in order of first use) and the map of
// indices 1.. for opaque pixels, 0 for transparent ones.
bool exactColours(const uint8_t* rgba, const ImageSize* size, uint8_t* map, uint8_t* red, uint8_t* green,
                  uint8_t* blue, int* count) {
    const size_t w = size_t(size->x), h = size_t(size->y);
    // An open-addressing table of colour keys (0 = empty, else key + 1).
    constexpr size_t kSlots = 1024;
    uint32_t keys[kSlots] = {};
    uint8_t index[kSlots] = {};
    int n = 0;
    for (size_t y = 0; y < h; ++y) {
        const uint8_t* s = rgba + 4 * w * y;
        uint8_t* d = map + w * y;
        for (size_t x = 0; x < w; ++x) {
            if (s[3 * w + x] < 128) {
                d[x] = 0;
                continue;
            }
            const uint32_t key = (uint32_t(s[x]) | uint32_t(s[w + x]) << 8 | uint32_t(s[2 * w + x]) << 16) + 1;
            size_t slot = (key * 2654435761u) >> 22;
            while (keys[slot] && keys[slot] != key) slot = (slot + 1) & (kSlots - 1);
            if (!keys[slot]) {
                if (n == 255) return false;
                keys[slot] = key;
                red[n] = s[x], green[n] = s[w + x], blue[n] = s[2 * w + x];
                index[slot] = uint8_t(++n);
            }
            d[x] = index[slot];
        }
    }
    *count = n;
    return true;
}

}  // namespace

int imageGif_writeFromRGBA(const char* path, const uint8_t* rgba, const ImageSize* size, StopFunction stop) noexcept {
    if (!rgba || !writableSize(size)) return IMGERR_BADARG;
    const size_t w = size_t(size->x), h = size_t(size->y);
    il::CallerBuffer<uint8_t> map = il::callerBytes(w * h);
    if (!map) return IMGERR_NOMEMORY;
    // The first opaque colour, and the colour of the first transparent pixel.
    uint8_t first[3] = {}, hidden[3] = {};
    bool anyOpaque = false, anyHidden = false;
    for (size_t y = 0; y < h; ++y) {
        const uint8_t* s = rgba + 4 * w * y;
        for (size_t x = 0; x < w; ++x) {
            const bool opaque = s[3 * w + x] >= 128;
            uint8_t* seen = opaque ? first : hidden;
            bool& any = opaque ? anyOpaque : anyHidden;
            if (!any) seen[0] = s[x], seen[1] = s[w + x], seen[2] = s[2 * w + x], any = true;
        }
    }
    // Entry 0 is the transparent one (the colour of the first transparent
    // pixel, for readers that ignore transparency); the opaque pixels use
    // their own colours after it when there are at most 255 of them.
    uint8_t red[256] = {}, green[256] = {}, blue[256] = {};
    red[0] = hidden[0], green[0] = hidden[1], blue[0] = hidden[2];
    int count = 0;
    if (exactColours(rgba, size, map.get(), red + 1, green + 1, blue + 1, &count))
        return imageGif_writeFromMap(path, map.get(), red, green, blue, count + 1, size, COLORMODE_PALETTE256, 0,
                                     stop);
    // Else 255 optimised colours of the opaque pixels, every transparent
    // pixel given the first opaque colour so that it adds nothing.
    il::Scratch<uint8_t> rgb(3 * w * h, il::tag("GfAc"));
    if (!rgb.ok()) return IMGERR_NOMEMORY;
    for (size_t y = 0; y < h; ++y) {
        const uint8_t* s = rgba + 4 * w * y;
        uint8_t* d = rgb.get() + 3 * w * y;
        for (size_t x = 0; x < w; ++x) {
            const bool opaque = s[3 * w + x] >= 128;
            for (size_t c = 0; c < 3; ++c) d[c * w + x] = opaque ? s[c * w + x] : first[c];
        }
    }
    if (int st = korImage_getOptimizedPalette(red + 1, green + 1, blue + 1, &count, 255, rgb.get(), size, stop))
        return st;
    if (count < 1) return IMGERR_NOMEMORY;
    {
        il::DitherJob job;
        if (int st = korImage_ditherInitialize(count, red + 1, green + 1, blue + 1, int(w))) return st;
        for (size_t y = 0; y < h; ++y) {
            if (int st = imageUtil_reportProgress(stop, int(h), int(y))) return st;
            const uint8_t* r = rgb.get() + 3 * w * y;
            const uint8_t* a = rgba + 4 * w * y + 3 * w;
            uint8_t* d = map.get() + w * y;
            korImage_ditherRow(d, r, r + w, r + 2 * w, int(w));
            for (size_t x = 0; x < w; ++x) d[x] = a[x] >= 128 ? uint8_t(d[x] + 1) : 0;
        }
    }
    return imageGif_writeFromMap(path, map.get(), red, green, blue, count + 1, size, COLORMODE_PALETTE256, 0, stop);
}
