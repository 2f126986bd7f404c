// CCITT Group 4 (T.6) coding of bare code streams, shared by CALS, fax and
// the Group 4 Intergraph rasters. libtiff's fax codec does the work: the
// stream is wrapped in a minimal in-memory TIFF (one strip) for decoding,
// and taken out of the strip of one for encoding, so that files hold the
// code stream alone.
#pragma once

#include <cstddef>
#include <cstdint>

#include "imagelib/types.h"
#include "internal/scratch.h"

namespace il::ccitt {

// Receives each decoded row, top to bottom, as packed bits ((width + 7) / 8
// bytes, most significant bit first, 1 = black ink). A nonzero answer ends
// decoding and is returned.
using RowSink = int (*)(void* user, int row, const uint8_t* bits);

// Decodes width x height pixels from the code stream data[0..length).
// lsbFirst: the stream's first bit is the low bit of each byte (fill
// order 2). Polls stop before each row (IMGERR_STOPPED). IMGERR_BADFILE when
// the stream does not decode, IMGERR_NOMEMORY.
int decode(const uint8_t* data, size_t length, int width, int height, bool lsbFirst, StopFunction stop,
           RowSink sink, void* user) noexcept;

// Builds the code stream of an image whose rows come from rowAt(user, y)
// (packed bits as above). The stream goes to *out (scratch memory).
// IMGERR_NOMEMORY, IMGERR_STOPPED (stop polled before each row), or the
// row source's negative status.
using RowSource = const uint8_t* (*)(void* user, int row, int* status);
int encode(il::Scratch<uint8_t>& out, size_t* length, int width, int height, bool lsbFirst, StopFunction stop,
           RowSource rowAt, void* user) noexcept;

}  // namespace il::ccitt

namespace il::ccitt {

// The rows of a bilevel picture to be written, from any of the caller's
// forms, as packed bits (1 = set) or as one byte a pixel (0/1):
// bitmap rows as they are, run-length rows expanded, byte maps and PackByte
// rows packed (values taken by their low bit), row-planar RGB set where
// 0.3 R + 0.59 G + 0.11 B is greater than 128.
struct BilevelRows {
    enum Kind { Bitmap, RunLength, Map, PackByte, RGB } kind;
    const void* source;
    int width;
    Scratch<uint8_t> bytes;  // one byte a pixel
    Scratch<uint8_t> bits;   // packed row

    BilevelRows(Kind k, const void* src, int w) : kind(k), source(src), width(w) {}
    bool ok() {
        return bytes.allocate(size_t(width) + 8, tag("BLby"), true) &&
               bits.allocate((size_t(width) + 7) / 8 + 1, tag("BLbi"), true);
    }
    const uint8_t* packed(int y);     // (width + 7) / 8 bytes
    const uint8_t* pixels(int y);     // width bytes of 0 or 1
};

// RowSource over a BilevelRows.
const uint8_t* bilevelRowSource(void* rows, int y, int* status);

}  // namespace il::ccitt
