// QuickDraw picture output (PICT version 2).
//
// Layout: 512 zero bytes, picture size (left 0), frame, the version opcode
// 0x0011 0x02FF, the extended header opcode 0x0C00 (version -1, zero
// bounds), default highlight 0x001E, a rectangular clip region 0x0001, then
// the image opcode:
//   0x0098 PackBitsRect: pixel map of 1 component (4 or 8 bits), colour table
//          with values ignored (flags 0x8000), source and destination
//          rectangles, copy mode, and each row as a byte count and its
//          PackBits coding;
//   0x009A DirectBitsRect: pixel map of 32-bit pixels, 3 components of 8
//          bits packed plane by plane (pack type 4): each row's count covers
//          the coded red, green and blue planes.
// Row counts are one byte while the pixel map's row bytes are below 251,
// two bytes from there. The picture ends on an even length with 0x00FF.
//
// Sizes the picture cannot describe (coordinates above 32767, row bytes
// above 0x3FFF) are refused with IMGERR_BADARG.
#include "codecs/native/pict.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "codecs/rows.h"
#include "imagelib/io.h"
#include "imagelib/pixels.h"
#include "internal/bytes.h"
#include "internal/checked.h"
#include "internal/file.h"
#include "internal/scratch.h"
#include "pixels/colour.h"
#include "pixels/map_rows.h"
#include "pixels/dither.h"

namespace {

constexpr uint16_t kHandlerCode = 4;
constexpr uint16_t kStreamOrientation = 4;  // orientation bits 0: rows top row first
constexpr int kMaxCoordinate = 0x7FFF;
constexpr int kMaxRowBytes = 0x3FFF;
constexpr int kOneByteCountBelow = 251;     // row bytes from which counts take two bytes
constexpr uint16_t kEndOfPicture = 0x00FF;

// A rectangle 0, 0, bottom, right.
void putRect(uint8_t* p, int bottom, int right) {
    il::put16be(p, 0);
    il::put16be(p + 2, 0);
    il::put16be(p + 4, uint32_t(bottom));
    il::put16be(p + 6, uint32_t(right));
}

// The preamble and the picture header up to the image opcode.
void buildHeader(uint8_t* h, int width, int height) {
    std::memset(h, 0, kPictHeaderBytes);
    putRect(h + 514, height, width);  // frame; the picture size before it stays 0
    il::put16be(h + 522, 0x0011);     // version
    il::put16be(h + 524, 0x02FF);
    il::put16be(h + 526, 0x0C00);     // extended header
    il::put32be(h + 528, 0xFFFFFFFF); // header version -1; bounds and reserved stay 0
    il::put16be(h + 552, 0x001E);     // default highlight
    il::put16be(h + 554, 0x0001);     // clip region
    il::put16be(h + 556, 10);
    putRect(h + 558, height, width);
}

// The pixel map fields shared by both image opcodes, from the version to
// the reserved word (36 bytes).
void putPixMapTail(uint8_t* p, int pixelType, int pixelSize, int components, int componentSize) {
    std::memset(p, 0, 36);
    il::put16be(p, 0);                   // version
    il::put16be(p + 2, 4);               // pack type
    il::put32be(p + 4, 0);               // pack size
    il::put32be(p + 8, 0x00480000);      // 72 dpi
    il::put32be(p + 12, 0x00480000);
    il::put16be(p + 16, uint32_t(pixelType));
    il::put16be(p + 18, uint32_t(pixelSize));
    il::put16be(p + 20, uint32_t(components));
    il::put16be(p + 22, uint32_t(componentSize));
}

// Source and destination rectangles and the copy transfer mode (18 bytes).
void putTransfer(uint8_t* p, int width, int height) {
    putRect(p, height, width);
    putRect(p + 8, height, width);
    il::put16be(p + 16, 0);
}

bool sizeFits(const ImageSize* size, int64_t rowBytes) {
    return size && size->x > 0 && size->y > 0 && size->x <= kMaxCoordinate && size->y <= kMaxCoordinate &&
           rowBytes <= kMaxRowBytes;
}

int64_t indexedRowBytes(int64_t width, int bits) { return (width * bits + 7) / 8; }

// Writes a row's count (one or two bytes by the row bytes) and its coded bytes.
bool writeRow(il::File& f, int rowBytes, const uint8_t* coded, int codedLength) {
    uint8_t count[2];
    size_t n;
    if (rowBytes < kOneByteCountBelow) {
        count[0] = uint8_t(codedLength);
        n = 1;
    } else {
        il::put16be(count, uint32_t(codedLength));
        n = 2;
    }
    return f.write(count, n) && f.write(coded, size_t(codedLength));
}

// Pads to an even length and writes the end opcode.
bool endPicture(il::File& f) {
    const int64_t end = f.tell();
    if (end < 0) return false;
    static const uint8_t kZero = 0;
    if ((end & 1) && !f.write(&kZero, 1)) return false;
    uint8_t op[2];
    il::put16be(op, kEndOfPicture);
    return f.write(op, 2);
}

// A PackBitsRect picture being written: header, pixel map, colour table,
// then rows top to bottom, then the end of the picture.
class IndexedWriter {
public:
    int begin(const char* path, const ImageSize* size, int bits, int count, const uint8_t* red,
              const uint8_t* green, const uint8_t* blue) {
        const int w = size->x, h = size->y;
        rowBytes_ = int(indexedRowBytes(w, bits));
        file_ = il::File::open(path, "wb+");
        if (!file_.ok()) return IMGERR_OPENFAILED;
        // The coded rows are always width bytes before coding, whatever the
        // pixel size.
        if (!coded_.allocate(pictPackBitsBound(size_t(w)), il::tag("PctO"))) return IMGERR_NOMEMORY;

        uint8_t header[kPictHeaderBytes];
        buildHeader(header, w, h);
        uint8_t map[56];
        il::put16be(map, 0x0098);
        il::put16be(map + 2, uint32_t(rowBytes_) | 0x8000);
        putRect(map + 4, h, w);
        putPixMapTail(map + 12, 0, bits, 1, bits);
        il::put32be(map + 48, 0x0000FFFF);  // colour table seed
        il::put16be(map + 52, 0x8000);      // entries in index order
        il::put16be(map + 54, uint32_t(count - 1));
        if (!file_.write(header, sizeof header) || !file_.write(map, sizeof map)) return IMGERR_WRITEFAILED;
        uint8_t table[256 * 8];
        for (int i = 0; i < count; ++i) {
            uint8_t* e = table + 8 * i;
            il::put16be(e, 0x0800);
            il::put16be(e + 2, uint32_t(red[i]) << 8);
            il::put16be(e + 4, uint32_t(green[i]) << 8);
            il::put16be(e + 6, uint32_t(blue[i]) << 8);
        }
        uint8_t transfer[18];
        putTransfer(transfer, w, h);
        if (!file_.write(table, size_t(count) * 8) || !file_.write(transfer, sizeof transfer))
            return IMGERR_WRITEFAILED;
        width_ = w;
        return 0;
    }
    // Codes and writes one row of width index bytes.
    int row(const uint8_t* indices) {
        const int n = imagePict_packBits(coded_.get(), indices, width_);
        return writeRow(file_, rowBytes_, coded_.get(), n) ? 0 : IMGERR_WRITEFAILED;
    }
    // Ends the picture and closes; status is what the rows ended with, kept
    // unless finishing fails.
    int finish(int status) {
        bool ok = endPicture(file_);
        ok &= file_.close();
        return status ? status : ok ? 0 : IMGERR_WRITEFAILED;
    }

private:
    il::File file_;
    il::Scratch<uint8_t> coded_;
    int rowBytes_ = 0;
    int width_ = 0;
};


}  // namespace

int imagePict_packBits(uint8_t* output, const uint8_t* input, int length) noexcept {
    uint8_t* o = output;
    auto literals = [&](int from, int to) {
        while (from < to) {
            const int n = std::min(to - from, 127);
            *o++ = uint8_t(n - 1);
            std::memcpy(o, input + from, size_t(n));
            o += n;
            from += n;
        }
    };
    int pending = 0;  // first literal byte not yet written
    int i = 0;
    while (i < length) {
        int j = i + 1;
        while (j < length && input[j] == input[i]) ++j;
        if (j - i >= 3) {
            literals(pending, i);
            for (int run = j - i; run > 0;) {
                const int n = std::min(run, 128);
                *o++ = uint8_t(1 - n);
                *o++ = input[i];
                run -= n;
            }
            pending = j;
        }
        i = j;
    }
    literals(pending, length);
    return int(o - output);
}

int imagePict_writeFromMap(const char* path, const void* map, const uint8_t* red, const uint8_t* green,
                           const uint8_t* blue, int colourCount, const ImageSize* size, int imageFormat, int packed,
                           StopFunction stop) noexcept {
    if (imageFormat != COLORMODE_PALETTE16 && imageFormat != COLORMODE_PALETTE256 && imageFormat != COLORMODE_GREY)
        return IMGERR_BADARG;
    const int bits = imageFormat == COLORMODE_PALETTE16 ? 4 : 8;
    if (!map || !red || !green || !blue || !size || !sizeFits(size, indexedRowBytes(size->x, bits)))
        return IMGERR_BADARG;
    const bool grey = imageFormat == COLORMODE_GREY;
    if (!grey && colourCount < 1) return IMGERR_BADARG;
    const int w = size->x;

    il::MapRows rows(map, packed != 0, grey, red, green, blue, colourCount, w, il::tag("PctU"));
    if (!rows.ok()) return IMGERR_NOMEMORY;
    IndexedWriter out;
    if (int st = out.begin(path, size, bits, std::min(rows.count(), 256), rows.red(), rows.green(), rows.blue())) return st;
    int st = il::writeIndexRows(out, size->y, [&](int y) { return imageUtil_reportProgress(stop, size->y, y); },
        [&](int y) -> const uint8_t* { return rows.row(y); });
    return rows.status() ? rows.status() : st;
}

namespace {

// True colour through the row writer, rows top to bottom, each polled with
// the row progress poll first.
int writeDirect(const char* path, const uint8_t* rgb, const ImageSize* size, StopFunction stop) {
    ImageFileContext ctx{};
    ctx.fileSize = *size;
    ctx.callerSize = *size;
    ctx.row = -1;
    if (int st = imagePict_createFile(&ctx, path, 4, COLORMODE_RGB)) return st;
    const size_t x = size_t(size->x);
    int result = 0;
    for (int y = 0; y < size->y; ++y) {
        if ((result = imageUtil_reportProgress(stop, size->y, y))) break;
        const uint8_t* r = rgb + 3 * x * size_t(y);
        if ((result = imagePict_putRow(&ctx, r, r + x, r + 2 * x, nullptr))) break;
    }
    const int closed = imagePict_closeFile(&ctx);
    return result ? result : closed;
}

}  // namespace

int imagePict_writeFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, int imageFormat,
                           StopFunction stop) noexcept {
    if (imageFormat < COLORMODE_RGB || imageFormat > COLORMODE_GREY || !rgb || !size) return IMGERR_BADARG;
    if (imageFormat == COLORMODE_RGB) return writeDirect(path, rgb, size, stop);
    if (!sizeFits(size, size->x)) return IMGERR_BADARG;
    const int w = size->x;
    const size_t planeRow = size_t(w) * 3;
    auto poll = [&](int) { return imageUtil_stopped(stop); };

    uint8_t red[256] = {}, green[256] = {}, blue[256] = {};
    int count = 256;
    il::DitherJob job;
    if (imageFormat == COLORMODE_GREY) {
        il::setGreyRamp(red, green, blue);
    } else {
        const int wanted = imageFormat == COLORMODE_PALETTE16 ? 16 : 256;
        if (int st = korImage_getOptimizedPalette(red, green, blue, &count, wanted, rgb, size, stop)) return st;
        if (count < 1) return IMGERR_NOMEMORY;  // the optimiser could not have its boxes
        if (int st = korImage_ditherInitialize(count, red, green, blue, w)) return st;
        // The 16-colour picture carries a table of 16 entries, unused ones black.
        if (wanted == 16) count = 16;
    }
    il::Scratch<uint8_t> row(size_t(w), il::tag("PctR"));
    if (!row.ok()) return IMGERR_NOMEMORY;
    IndexedWriter out;
    if (int st = out.begin(path, size, 8, count, red, green, blue)) return st;
    return il::writeIndexRows(out, size->y, poll, [&](int y) -> const uint8_t* {
        const uint8_t *r = rgb + size_t(y) * planeRow, *g = r + w, *b = g + w;
        if (imageFormat == COLORMODE_GREY) {
            for (int x = 0; x < w; ++x) row[size_t(x)] = il::greyLevelWriter(r[x], g[x], b[x]);
        } else {
            korImage_ditherRow(row.get(), r, g, b, w);
        }
        return row.get();
    });
}

// --- streaming writer ----------------------------------------------------------

namespace {

struct StreamState {
    il::File file;
    il::Scratch<uint8_t> coded;
    int rowBytes = 0;
};

}  // namespace

int imagePict_createFile(ImageFileContext* ctx, const char* path, int, int) noexcept {
    if (!ctx) return IMGERR_BADARG;
    const ImageSize size = ctx->fileSize;
    if (!sizeFits(&size, int64_t(size.x) * 4)) return IMGERR_BADARG;
    const int w = size.x, h = size.y;
    std::unique_ptr<StreamState> st(new (std::nothrow) StreamState);
    if (!st) return IMGERR_NOMEMORY;
    st->file = il::File::open(path, "wb");
    if (!st->file.ok()) return IMGSTAT_STREAM_STOPPED;  // 1: the file cannot be opened
    st->rowBytes = w * 4;
    // Three coded planes of width bytes each.
    if (!st->coded.allocate(3 * pictPackBitsBound(size_t(w)), il::tag("PctS"))) return IMGERR_NOMEMORY;

    uint8_t header[kPictHeaderBytes + kPictDirectHeaderBytes];
    buildHeader(header, w, h);
    uint8_t* p = header + kPictHeaderBytes;
    il::put16be(p, 0x009A);
    il::put32be(p + 2, 0x000000FF);  // base address
    il::put16be(p + 6, uint32_t(st->rowBytes) | 0x8000);
    putRect(p + 8, h, w);
    putPixMapTail(p + 16, 16, 32, 3, 8);
    putTransfer(p + 52, w, h);
    if (!st->file.write(header, sizeof header)) return IMGERR_WRITEFAILED;
    il::stream::installHandler(ctx, kHandlerCode, kStreamOrientation, nullptr, imagePict_putRow,
                               imagePict_closeFile, st.release());
    return 0;
}

int imagePict_putRow(ImageFileContext* ctx, const uint8_t* red, const uint8_t* green, const uint8_t* blue,
                     const uint8_t*) noexcept {
    auto* st = static_cast<StreamState*>(ctx->state);
    const int w = ctx->fileSize.x;
    uint8_t* out = st->coded.get();
    int n = 0;
    for (const uint8_t* plane : {red, green, blue}) {
        if (plane) {
            n += imagePict_packBits(out + n, plane, w);
        } else {
            // A missing plane is zeros: repeat runs of 128.
            for (int left = w; left > 0; left -= 128) {
                out[n++] = uint8_t(1 - std::min(left, 128));
                out[n++] = 0;
            }
        }
    }
    writeRow(st->file, st->rowBytes, out, n);
    return std::ferror(st->file.get()) ? IMGERR_WRITEFAILED : 0;
}

int imagePict_closeFile(ImageFileContext* ctx) noexcept {
    std::unique_ptr<StreamState> st(static_cast<StreamState*>(ctx->state));
    ctx->state = nullptr;
    if (!st) return 0;
    bool ok = endPicture(st->file);
    ok &= il::toolSubsystem_fflush(st->file.get()) == 0;
    ok &= st->file.close();
    return ok ? 0 : IMGERR_WRITEFAILED;
}
