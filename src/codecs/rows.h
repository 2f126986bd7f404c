// The row-handler interface that streaming codecs implement: the open-file
// context of the streaming row interface and the contract between the
// streaming layer and its per-type handlers. It sits below the codecs so
// that a codec includes only the pixel layer, internal helpers and this.
//
// A handler (Targa, Intergraph RGB, TIFF, BMP, PICT, EPS) fills the context
// when it opens or creates a file: the file size, the alpha flag, its two
// codes in the flags word, the row operations it serves and its own state.
// The layer owns everything else (caller size, row counter, scaling tables
// and buffers) and frees the context after the handler's close operation.
//
// Handlers are listed once, in the handler table of registry/stream_handlers.cpp.
#pragma once

#include <cstdint>

#include "imagelib/io.h"
#include "imagelib/types.h"

namespace il::stream {

// Row operations of a handler. Planes are one byte a pixel at file width;
// a null plane is skipped. The alpha plane is passed only when the context
// carries alpha. Each returns 0 or a status (negative, or one of the
// positive codes the handler documents).
using ReadRowFn = int (*)(ImageFileContext* ctx, uint8_t* red, uint8_t* green, uint8_t* blue, uint8_t* alpha);
using WriteRowFn = int (*)(ImageFileContext* ctx, const uint8_t* red, const uint8_t* green, const uint8_t* blue,
                           const uint8_t* alpha);
// Finishes the file (trailers), closes it and frees the handler's state.
using CloseFn = int (*)(ImageFileContext* ctx);

// Opens path for reading: 0 when the file is the handler's and was opened,
// with fileSize, alpha, the flags word and readRow/close filled in; any
// other value when it is not its type or cannot be read (the handler has
// then released everything it took and left the context alone).
using OpenFn = int (*)(ImageFileContext* ctx, const char* path);

// Creates path for writing at ctx->fileSize. type is the file type asked for
// (TIFF reads its compression choice from it: 3 compresses, 0 does not);
// colourMode is the ColorMode of the rows to be written (6: with alpha).
// Same contract as OpenFn, with writeRow/close filled in.
using CreateFn = int (*)(ImageFileContext* ctx, const char* path, int type, int colourMode);

// The background colour of the file at path: 0 with red, green and blue in
// rgb[0..2] when its header marks one, 32768 when it has none, or the
// status of a failed open.
using BackgroundFn = int (*)(uint8_t* rgb, const char* path);

// One row of the handler table: the file type it serves, and its open and
// create operations (null when it does not read or write that type) and
// its background query (null for types that carry no background).
struct Handler {
    int type;
    OpenFn open;
    CreateFn create;
    BackgroundFn background;
};

// The orientation bits (bits 0-1 of the orientation code) of a file whose
// rows are stored bottom-up: readers fill, and writers take, rows from the
// last one upwards.
constexpr int kRowsBottomUp = 2;

}  // namespace il::stream

namespace il {
struct AxisTable;  // the resampler's table of one axis (pixels/resize.h)
}

// The open-file context (opaque to users of the public header). Allocated
// zero-filled by the streaming layer with tag "RGBF".
struct ImageFileContext {
    // Flags word: the handler code, then the orientation code whose bits 0-1
    // are the orientation bits (2 = rows stored bottom-up). Pairs in use:
    // BMP 9/6, Targa 2/6 (reading: 4..7 from the file), EPS 1/4, PICT 4/4.
    uint16_t handlerCode;
    uint16_t orientation;

    int scaling;          // caller size differs from the file size
    ImageSize fileSize;   // the image as stored
    ImageSize callerSize; // the rows the caller reads or writes
    int row;              // index of the last row handed over, -1 before the first

    // Resampling of caller rows from or to file rows (scaling only).
    il::AxisTable* xTable;
    int xMode;            // 0 same width, 1 enlarge, 2 reduce
    il::AxisTable* yTable;
    int yMode;
    int yPos;             // output row being built
    int storedRows;       // stored rows read or written so far

    uint8_t* planes[4];   // file-width red, green, blue, alpha (alpha only with alpha)
    // Accumulator rows at the resampled width (the caller's when reading, the
    // file's when writing), 3 planes (4 with alpha) one after another.
    uint32_t* acc[3];

    int alpha;            // the file carries (or is to carry) an alpha channel

    // The handler's operations.
    il::stream::ReadRowFn readRow;
    il::stream::WriteRowFn writeRow;
    il::stream::CloseFn close;

    void* state;          // the handler's own, freed by its close operation
};

namespace il::stream {

inline int orientationBits(const ImageFileContext* ctx) { return ctx->orientation & 3; }

// What a handler fills when it has opened or created its file: its two
// codes, its operations (null where it has none) and its own state.
inline void installHandler(ImageFileContext* ctx, uint16_t handlerCode, uint16_t orientation, ReadRowFn readRow,
                           WriteRowFn writeRow, CloseFn close, void* state) {
    ctx->handlerCode = handlerCode;
    ctx->orientation = orientation;
    ctx->readRow = readRow;
    ctx->writeRow = writeRow;
    ctx->close = close;
    ctx->state = state;
}

}  // namespace il::stream
