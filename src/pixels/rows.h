// Row encodings shared by the codecs and conversions: packed pixels,
// run-length bitmap rows (layout 2) and PackByte rows (layout 8).
//
// Row tables of layouts 2 and 8 are arrays of row pointers; every row is a
// block of its own from the host allocator (dlmSystem_korMalloc), sized to
// exactly its encoded length, and released by korImage_freeImage.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "imagelib/pixels.h"

namespace il {

// --- packed pixels -----------------------------------------------------------

// As korImage_unpackBuffer, but every value passes through table (256
// bytes); a null table is the identity.
void unpackBufferMapped(uint8_t* dst, const uint8_t* src, int bitsPerPixel, int count,
                        const uint8_t* table) noexcept;

// --- run-length bitmap rows --------------------------------------------------

// Encodes bitmap row `bits` of width pixels and stores a fresh copy of
// exactly its length as rows[row] (the old pointer is overwritten, not
// freed). 0 or IMGERR_NOMEMORY.
int storeRLEBitMapRow(uint16_t** rows, int row, const uint8_t* bits, int width) noexcept;

// Extends rows[row], which holds oldWidth pixels, by addWidth pixels of
// bitmap `bits`. The new pixels start at the next byte boundary of the
// row, so oldWidth should be a multiple of 8. On failure the old row is
// kept and the result is IMGERR_NOMEMORY.
int appendRLEBitMapRow(uint16_t** rows, int row, const uint8_t* bits, int oldWidth, int addWidth) noexcept;

// appendRLEBitMapRow for rows first, first + step, ... below last, with
// successive source rows of (addWidth + 7) / 8 bytes from src. Stops at
// the first failure and returns its status.
int appendStripToRLERows(uint16_t** rows, int first, int last, int step, const uint8_t* src, int oldWidth,
                         int addWidth) noexcept;

// Bounded decoding of a run-length row that came from a file: at most
// runCount runs are read and nothing past width pixels is written (the
// last run is clipped; padding bits of the last byte are kept). Pixels
// that the runs do not reach are background. Returns the number of runs
// used to reach the width, or IMGERR_BADFILE when the runs end before it.
int rleDecodeRowBounded(uint8_t* row, const uint16_t* runs, int runCount, int width) noexcept;

// Number of runs of a run-length row up to the one that reaches width
// (at most maxRuns are read); IMGERR_BADFILE when maxRuns runs do not
// reach it. Use it to validate rows built from file data.
int rleRowRunCount(const uint16_t* runs, int maxRuns, int width) noexcept;

// --- row tables -------------------------------------------------------------

// A row table of layout 2 (run-length bitmap rows) or 8 (PackByte rows)
// that frees its rows and itself until it is handed out.
struct RowTable {
    void** rows = nullptr;
    ImageSize size{};
    int layout = IMAGEFORMAT_PACKBYTE;

    RowTable() = default;
    RowTable(const RowTable&) = delete;
    RowTable& operator=(const RowTable&) = delete;
    ~RowTable();
    // A table of size.y null rows. False when out of memory.
    bool allocate(ImageSize tableSize, int tableLayout = IMAGEFORMAT_PACKBYTE) noexcept;
    // Takes over a table made elsewhere.
    void adopt(void* table, ImageSize tableSize, int tableLayout = IMAGEFORMAT_PACKBYTE) noexcept;
    uint8_t** bytes() const { return reinterpret_cast<uint8_t**>(rows); }
    uint16_t** runs() const { return reinterpret_cast<uint16_t**>(rows); }
    void* release() noexcept { return std::exchange(rows, nullptr); }
};

// --- PackByte rows -----------------------------------------------------------

// PackByte-encodes width bytes and stores a fresh copy of exactly its
// encoded length as rows[row] (the old pointer is overwritten, not freed).
// 0 or IMGERR_NOMEMORY.
int storePackByteRow(uint8_t** rows, int row, const uint8_t* bytes, int width) noexcept;

// As storePackByteRow, but frees the row that stood at rows[row] first
// (when not null).
int replacePackByteRow(uint8_t** rows, int row, const uint8_t* bytes, int width) noexcept;

// Extends PackByte row rows[row] of oldWidth pixels by addWidth bytes.
int appendPackByteRow(uint8_t** rows, int row, const uint8_t* bytes, int oldWidth, int addWidth) noexcept;

// appendPackByteRow for rows first, first + step, ... below last, with
// successive source rows of addWidth bytes. Stops at the first failure.
int appendStripToPackByteRows(uint8_t** rows, int first, int last, int step, const uint8_t* src, int oldWidth,
                              int addWidth) noexcept;

// A whole byte map of size->x by size->y bytes to a new PackByte row table
// in *rows. 0 or IMGERR_NOMEMORY (nothing is left allocated then).
int packByteEncodeImage(uint8_t*** rows, const uint8_t* map, const ImageSize* size) noexcept;

// A PackByte row table to a new byte map of width x height bytes in *map
// (host allocator). 0 or IMGERR_NOMEMORY.
int packByteDecodeImage(uint8_t** map, uint8_t* const* rows, const ImageSize* size) noexcept;

// A PackByte row table into the caller's width x height bytes; null rows
// become zeros.
void packByteDecodeInto(uint8_t* dst, uint8_t* const* rows, const ImageSize* size) noexcept;

// Moves *cursor in a PackByte row past n pixels. *residual (when not
// null) receives the count that remains at the cursor: the count byte
// under it when n ends on a packet boundary (or n is 0), k - n when n ends
// inside a literal of k (the remaining literal bytes then start one byte
// after the cursor), k + n (negative) when n ends inside a repeat of -k
// (the cursor stays on that packet).
void skipPackBytePixels(const uint8_t** cursor, int n, int* residual) noexcept;

// Bounded PackByte decoding of data that came from a file: reads at most
// srcLength bytes of src and writes exactly count bytes to dst. The number
// of source bytes used goes to *used (when not null). Returns 0, or
// IMGERR_READFAILED when the source ends before count bytes are produced
// (the rest of dst is then zero-filled).
int unpackByteBufferBounded(uint8_t* dst, int count, const uint8_t* src, size_t srcLength,
                            size_t* used = nullptr) noexcept;

// Bytes of scratch that always hold the PackByte encoding of count bytes.
constexpr size_t packByteBound(size_t count) { return 2 * count + 2; }
// Bytes of scratch that always hold the run-length encoding of width pixels.
constexpr size_t rleBound(size_t width) { return 2 * width + 2; }

}  // namespace il
