// Median-cut palette optimisation on a 15-bit colour histogram.
//
// Boxes of histogram cells are split one at a time until the wanted number
// exists: always the fullest box that can still be split, cut across its
// longest side (green wins ties, then red over blue) at the slice where
// the running sum would pass half the box's count. The two parts get their
// counts crosswise (the upper part the lower part's sum and the other way
// round); that steers which box is split next and is kept as it is.
#include "pixels/palette.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "imagelib/pixels.h"

namespace {

constexpr int kSets = 4;  // interleaved counter sets of ColourHistogram
constexpr int kPaletteMax = 256;

struct Box {
    int count;
    uint8_t lo[3];  // red, green, blue bounds in cell units 0..31
    uint8_t hi[3];
};

// Sums of the box's counters per slice along each of the three channels.
struct Projections {
    std::array<int, 32> sum[3];
};

Projections project(const uint8_t* h, const Box& box) {
    Projections p{};
    for (int r = box.lo[0]; r <= box.hi[0]; ++r) {
        for (int g = box.lo[1]; g <= box.hi[1]; ++g) {
            const uint8_t* line = h + (r << 10) + (g << 5);
            int lineSum = 0;
            for (int b = box.lo[2]; b <= box.hi[2]; ++b) {
                lineSum += line[b];
                p.sum[2][size_t(b)] += line[b];
            }
            p.sum[0][size_t(r)] += lineSum;
            p.sum[1][size_t(g)] += lineSum;
        }
    }
    return p;
}

// Moves every bound inward to the first slice that holds a counter; an
// empty box keeps its bounds.
void shrink(const uint8_t* h, Box& box) {
    const Projections p = project(h, box);
    for (int c = 0; c < 3; ++c) {
        int lo = box.lo[c], hi = box.hi[c];
        while (lo < hi && p.sum[c][size_t(lo)] == 0) ++lo;
        if (p.sum[c][size_t(lo)] == 0) continue;  // nothing in the box
        while (hi > lo && p.sum[c][size_t(hi)] == 0) --hi;
        box.lo[c] = uint8_t(lo);
        box.hi[c] = uint8_t(hi);
    }
}

int extent(const Box& box, int c) { return box.hi[c] - box.lo[c]; }

bool splittable(const Box& box) { return extent(box, 0) > 0 || extent(box, 1) > 0 || extent(box, 2) > 0; }

// Green when its extent is at least the others, else blue when red's is
// smaller than blue's, else red.
int splitAxis(const Box& box) {
    const int re = extent(box, 0), ge = extent(box, 1), be = extent(box, 2);
    if (ge >= re && ge >= be) return 1;
    return re < be ? 2 : 0;
}

// Splits boxes[i] into itself (lower part) and a new box appended at
// boxes[n]; false when the box cannot be split.
bool split(const uint8_t* h, Box* boxes, int i, int n) {
    Box& box = boxes[i];
    const int axis = splitAxis(box);
    const int lo = box.lo[axis], hi = box.hi[axis];
    if (hi <= lo) return false;
    const std::array<int, 32> slice = project(h, box).sum[axis];

    const int half = box.count / 2;
    int sum = slice[size_t(lo)];
    int k = lo + 1;
    while (k < hi && sum + slice[size_t(k)] <= half) sum += slice[size_t(k++)];

    Box& upper = boxes[n];
    upper = box;
    upper.lo[axis] = uint8_t(k);
    box.hi[axis] = uint8_t(k - 1);
    upper.count = sum;
    box.count = std::max(box.count - sum, 0);
    shrink(h, box);
    shrink(h, upper);
    return true;
}

}  // namespace

namespace il {

bool ColourHistogram::allocate() noexcept {
    finished_ = false;
    return counts_.allocate(size_t(kSets) * kColourCells, tag("PaHi"), true);
}

void ColourHistogram::addRow(const uint8_t* red, const uint8_t* green, const uint8_t* blue, int n) noexcept {
    uint8_t* sets[kSets];
    for (int s = 0; s < kSets; ++s) sets[s] = counts_.get() + size_t(s) * kColourCells;
    auto add = [](uint8_t* set, int cell) {
        const uint8_t v = set[cell];
        set[cell] = uint8_t(v + (v != 255));
    };
    int x = 0;
    for (; x + kSets <= n; x += kSets) {
        for (int s = 0; s < kSets; ++s)
            add(sets[s], colourCell(red[x + s], green[x + s], blue[x + s]));
    }
    for (; x < n; ++x) add(sets[0], colourCell(red[x], green[x], blue[x]));
}

const uint8_t* ColourHistogram::finish() noexcept {
    // A saturated sum of saturated parts equals the saturated whole.
    uint8_t* total = counts_.get();
    if (!finished_) {
        for (int s = 1; s < kSets; ++s) {
            const uint8_t* part = total + size_t(s) * kColourCells;
            for (int i = 0; i < kColourCells; ++i) total[i] = uint8_t(std::min(total[i] + part[i], 255));
        }
        finished_ = true;
    }
    return total;
}

int medianCut(const uint8_t* h, int wanted, uint8_t* red, uint8_t* green, uint8_t* blue) noexcept {
    if (wanted < 1 || wanted > kPaletteMax) wanted = kPaletteMax;
    Scratch<Box> boxes(size_t(wanted), tag("PaBx"), true);
    if (!boxes.ok()) return -1;

    Box& first = boxes[0];
    first.count = 0;
    for (int i = 0; i < kColourCells; ++i) first.count += h[i];
    for (int c = 0; c < 3; ++c) {
        first.lo[c] = 0;
        first.hi[c] = 31;
    }
    shrink(h, first);

    int n = 1;
    while (n < wanted) {
        // The fullest splittable box; on equal counts the later one.
        int pick = -1;
        for (int i = 0; i < n; ++i) {
            if (splittable(boxes[i]) && (pick < 0 || boxes[i].count >= boxes[pick].count)) pick = i;
        }
        if (pick < 0 || !split(h, boxes.get(), pick, n)) break;
        ++n;
    }

    // Each box gives the centre of its cells in 8-bit units.
    for (int i = 0; i < n; ++i) {
        red[i] = uint8_t((boxes[i].lo[0] + boxes[i].hi[0]) * 4);
        green[i] = uint8_t((boxes[i].lo[1] + boxes[i].hi[1]) * 4);
        blue[i] = uint8_t((boxes[i].lo[2] + boxes[i].hi[2]) * 4);
    }
    return n;
}

}  // namespace il

extern "C" {

int korImage_getOptimizedPalette(uint8_t* red, uint8_t* green, uint8_t* blue, int* count, int wanted,
                                 const uint8_t* rgb, const ImageSize* size, StopFunction stop) noexcept {
    if (!red || !green || !blue || !count || !size) return IMGERR_BADARG;
    const int width = std::max(size->x, 0);
    const int height = std::max(size->y, 0);
    if (!rgb && width > 0 && height > 0) return IMGERR_BADARG;

    il::ColourHistogram histogram;
    if (!histogram.allocate()) return IMGERR_NOMEMORY;
    const size_t rowBytes = 3 * size_t(width);
    for (int y = 0; y < height; ++y) {
        if (imageUtil_stopped(stop)) return 1;
        const uint8_t* row = rgb + rowBytes * size_t(y);
        histogram.addRow(row, row + width, row + 2 * size_t(width), width);
    }

    const int n = il::medianCut(histogram.finish(), wanted, red, green, blue);
    *count = std::max(n, 0);
    return IMGERR_OK;
}

}  // extern "C"
