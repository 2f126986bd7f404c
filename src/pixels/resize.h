// Separable resampling of row-planar images: the axis tables, the
// horizontal row resampler, the vertical accumulator steps, and a whole
// resampler that pulls source rows and yields destination rows.
//
// All weights are fixed point with 512 as one (9 fractional bits). A
// horizontally resampled row holds 32-bit accumulators of value x 512;
// combining rows vertically gives value x 512 x 512, written out with a
// shift of 18 (9 when the height is unchanged).
#pragma once

#include <cstddef>
#include <cstdint>

#include "imagelib/types.h"
#include "internal/scratch.h"

namespace il {

constexpr int kWeightBits = 9;
constexpr int32_t kWeightOne = 1 << kWeightBits;  // 512

// How an axis changes.
enum AxisMode : int {
    kAxisCopy = 0,     // same size: no table
    kAxisEnlarge = 1,  // linear interpolation, one entry per destination pixel
    kAxisReduce = 2,   // area averaging, one entry per source pixel
};

// One entry of an axis table.
// Enlargement: index and weight are the left source pixel and its weight,
//   nextIndex and nextWeight the right one (index + 1). Indices are clamped
//   to the source, so enlarging from one pixel never reads beyond it.
// Reduction: the source pixel adds weight x value to destination pixel
//   index, and nextWeight x value to destination pixel nextIndex
//   (index + 1); when the pixel completes its destination pixel, that share
//   starts the next pixel's sum.
struct AxisEntry {
    int32_t index;
    int32_t weight;
    int32_t nextIndex;
    int32_t nextWeight;
};

// The table of one axis from `source` pixels to `dest` pixels.
// Enlargement: step = (source - 1) / dest; entry i < dest - 1 has
//   left = trunc(i x step), right weight = trunc(frac x 512), left weight =
//   512 - right weight; the last entry is fixed to {source - 2, 0,
//   source - 1, 512} (clamped), so the last destination pixel is the last
//   source pixel.
// Reduction: source + 1 entries; the extra last one is a sentinel whose
//   index is the destination pixel reached after the last source pixel, so
//   that completes(s) can look one entry ahead for every s.
struct AxisTable {
    int mode = kAxisCopy;
    int32_t source = 0;
    int32_t dest = 0;
    Scratch<AxisEntry> entries;

    // Reduction: true when source pixel s closes destination pixel
    // entries[s].index (the next source pixel belongs to the next one).
    bool completes(int32_t s) const { return entries[size_t(s) + 1].index != entries[size_t(s)].index; }
};

// Builds the table of an axis. 0, IMGERR_BADARG (a size not positive) or
// IMGERR_NOMEMORY. The table is reset first; it may be rebuilt for other
// sizes.
int buildAxisTable(AxisTable& table, int32_t source, int32_t dest) noexcept;

// Horizontal pass of one plane: `in` holds table.source bytes, `out`
// receives table.dest accumulators of value x 512.
void resampleRow(const AxisTable& table, const uint8_t* in, uint32_t* out) noexcept;

// The horizontal pass of `planes` planes at once (faster than plane by
// plane when reducing): plane p goes to out + p x outStride.
void resamplePlanes(const AxisTable& table, const uint8_t* const* in, uint32_t* out, size_t outStride,
                    int planes) noexcept;

// Vertical steps over n accumulators.
// out = top x topWeight + bottom x bottomWeight (enlargement).
void blendRows(uint32_t* out, const uint32_t* top, int32_t topWeight, const uint32_t* bottom,
               int32_t bottomWeight, size_t n) noexcept;
// The same blend written out at once as bytes (shift 18, 256 and above
// become 255).
void blendToBytes(uint8_t* out, const uint32_t* top, int32_t topWeight, const uint32_t* bottom,
                  int32_t bottomWeight, size_t n) noexcept;
// acc += row x weight (reduction: a source row adds into its destination row).
void addWeightedRow(uint32_t* acc, const uint32_t* row, int32_t weight, size_t n) noexcept;
// acc = row x weight (reduction: the share that starts the next destination row).
void setWeightedRow(uint32_t* acc, const uint32_t* row, int32_t weight, size_t n) noexcept;
// Writes accumulators out as bytes: acc >> shift (truncating), 256 and
// above become 255.
void accumulatorsToBytes(uint8_t* out, const uint32_t* acc, size_t n, int shift) noexcept;

// Supplies source row `row` (asked in increasing order, each at most once)
// as `planes` pointers of source width bytes each. Returns 0, a positive
// value when there is no such row (the resampler then keeps what it held),
// or a negative status that ends the resampling.
using ResampleFetch = int (*)(void* context, int32_t row, const uint8_t** planes);

// A whole separable resampler of 3 or 4 planes: pulls source rows through
// a ResampleFetch and produces destination rows one after another.
class Resampler {
public:
    // Builds the tables and the row buffers. 0, IMGERR_BADARG or
    // IMGERR_NOMEMORY (the resampler is then empty).
    int init(const ImageSize& source, const ImageSize& dest, int planes) noexcept;
    void reset() noexcept;
    bool ready() const { return planes_ != 0; }

    // Produces the next destination row into out[0 .. planes - 1] (dest
    // width bytes each). 0 or the fetch's negative status.
    int nextRow(uint8_t* const* out, ResampleFetch fetch, void* context) noexcept;

    ImageSize source() const { return source_; }
    ImageSize dest() const { return dest_; }
    int planes() const { return planes_; }
    int32_t rowsProduced() const { return produced_; }

private:
    // Fetches the next source row and resamples it horizontally into row.
    // 0, positive (no such row: row keeps its content) or negative.
    int pullRow(uint32_t* row, ResampleFetch fetch, void* context) noexcept;

    ImageSize source_{0, 0};
    ImageSize dest_{0, 0};
    int planes_ = 0;
    size_t rowLength_ = 0;  // planes x dest width accumulators
    AxisTable horizontal_;
    AxisTable vertical_;
    int32_t consumed_ = 0;  // source rows fetched
    int32_t produced_ = 0;  // destination rows produced
    // Enlargement: source rows held in the two row buffers (-1 none).
    int32_t held_[2] = {-1, -1};
    Scratch<uint32_t> rows_;  // three rows of rowLength_ accumulators
    uint32_t* row_[3] = {nullptr, nullptr, nullptr};
};

}  // namespace il
