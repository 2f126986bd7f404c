// Median-cut palette optimisation in two steps, so that images held in
// other shapes (chains of tiles, strips) can feed the same histogram:
// count the pixels into a ColourHistogram row by row, then cut it.
#pragma once

#include <cstdint>

#include "internal/scratch.h"

namespace il {

// Cells of the colour histogram: (R >> 3, G >> 3, B >> 3), red-major.
constexpr int kColourCells = 32 * 32 * 32;

constexpr int colourCell(int r, int g, int b) { return ((r >> 3) << 10) | ((g >> 3) << 5) | (b >> 3); }

// Pixel counts of the 32 x 32 x 32 colour cells, each saturating at 255.
class ColourHistogram {
public:
    // Takes and clears the counters; false when there is no memory.
    bool allocate() noexcept;
    // Counts n pixels given as three planes.
    void addRow(const uint8_t* red, const uint8_t* green, const uint8_t* blue, int n) noexcept;
    // The saturated counters (kColourCells bytes, red-major); no rows may
    // be added afterwards.
    const uint8_t* finish() noexcept;

private:
    // Several interleaved counter sets, so that runs of one colour do not
    // wait on their own stores; they add up (saturating) in finish().
    Scratch<uint8_t> counts_;
    bool finished_ = false;
};

// Median cut of a finished histogram into at most `wanted` colours (1..256):
// writes the palette and returns the number of colours, or -1 when the box
// list cannot be allocated.
int medianCut(const uint8_t* histogram, int wanted, uint8_t* red, uint8_t* green, uint8_t* blue) noexcept;

}  // namespace il
