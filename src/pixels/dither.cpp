// Error diffusion of RGB rows onto a palette.
//
// One working state per thread holds two rows of accumulated errors, a
// cache that maps each 8 x 8 x 8 cell of colour space to the palette index
// found for the first colour that fell into it, and 4 x 4 x 4 lazily built
// candidate lists that limit each nearest-colour search to the palette
// entries within one 64-level cell in every channel.
//
// The error of a pixel is split 3/16 below-left, 5/16 below, 1/16
// below-right and 7/16 right, with truncating integer divisions. The share
// below is stored over whatever the left neighbour put there as its
// below-right share, so that share is lost on every pixel but the last of a
// row; the row loop below writes the surviving sums directly, which gives
// the same error rows as adding and replacing share by share.
#include "pixels/dither.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "internal/scratch.h"
#include "pixels/colour.h"

namespace {

constexpr int kCacheCells = 32 * 32 * 32;
constexpr uint16_t kUnset = 0xFFFF;
constexpr int kErrorLimit = 127;
constexpr int kGridCells = 4 * 4 * 4;
constexpr int kPaletteMax = 256;

// The four shares of one channel's error.
struct Shares {
    int16_t belowLeft;
    int16_t below;
    int16_t belowRight;
    int16_t right;
};

// Shares of every difference between a clamped channel value (0..254) and
// a palette value (0..255), indexed by difference + 255; the clamp of the
// error to +-127 is folded in.
constexpr int kDifferences = 255 + 255;

constexpr Shares splitError(int e) {
    e = std::clamp(e, -kErrorLimit, kErrorLimit);
    const int a = 3 * e / 16;
    const int rest1 = e - a;
    const int b = 5 * rest1 / 13;
    const int rest2 = rest1 - b;
    const int k = rest2 / 8;
    const int d = rest2 - k;
    return {int16_t(a), int16_t(b), int16_t(k), int16_t(d)};
}

constexpr std::array<Shares, kDifferences> makeShareTable() {
    std::array<Shares, kDifferences> t{};
    for (int i = 0; i < kDifferences; ++i) t[size_t(i)] = splitError(i - 255);
    return t;
}

constexpr std::array<Shares, kDifferences> kShares = makeShareTable();

// Stands in for missing palette arrays so that the row loop never reads
// through a null pointer.
constexpr uint8_t kNoPalette[kPaletteMax] = {};

struct DitherState {
    int width = 0;
    int count = 0;
    const uint8_t* red = kNoPalette;
    const uint8_t* green = kNoPalette;
    const uint8_t* blue = kNoPalette;
    // Two rows of (width + 2) pixels x 3 errors; pixel x uses entry x + 1.
    il::Scratch<int16_t> errors;
    int16_t* current = nullptr;
    int16_t* next = nullptr;
    il::Scratch<uint16_t> cache;
    il::Scratch<uint8_t> gamma;  // empty: no gamma correction
    std::array<il::Scratch<uint8_t>, kGridCells> lists;
    std::array<uint16_t, kGridCells> listCount{};
    std::array<bool, kGridCells> listBuilt{};

    bool ready() const { return errors.ok() && cache.ok(); }

    void releaseLists() {
        for (int i = 0; i < kGridCells; ++i) {
            lists[size_t(i)].reset();
            listCount[size_t(i)] = 0;
            listBuilt[size_t(i)] = false;
        }
    }
};

thread_local DitherState t_dither;

int gridCell(int r, int g, int b) { return ((r >> 6) * 4 + (g >> 6)) * 4 + (b >> 6); }

// Builds the candidate list of one grid cell: the palette entries whose own
// cell lies within one step in every channel, in index order. False when
// the list cannot be allocated.
bool buildList(DitherState& s, int cell) {
    const int cr = cell >> 4, cg = (cell >> 2) & 3, cb = cell & 3;
    uint8_t found[kPaletteMax];
    int n = 0;
    for (int i = 0; i < s.count; ++i) {
        if (std::abs((s.red[i] >> 6) - cr) <= 1 && std::abs((s.green[i] >> 6) - cg) <= 1 &&
            std::abs((s.blue[i] >> 6) - cb) <= 1)
            found[n++] = uint8_t(i);
    }
    il::Scratch<uint8_t>& list = s.lists[size_t(cell)];
    if (!list.allocate(size_t(n), il::tag("DiCL"))) return false;
    if (n) std::memcpy(list.get(), found, size_t(n));
    s.listCount[size_t(cell)] = uint16_t(n);
    s.listBuilt[size_t(cell)] = true;
    return true;
}

// Nearest entry by squared distance; ties keep the lower position, and a
// distance of 0 ends the search. Index 0 when there are no candidates.
template <class IndexOf>
int searchNearest(const DitherState& s, int n, IndexOf indexOf, int r, int g, int b) {
    int best = 0;
    int bestDistance = 0x7FFFFFFF;
    for (int j = 0; j < n; ++j) {
        const int i = indexOf(j);
        const int dr = s.red[i] - r, dg = s.green[i] - g, db = s.blue[i] - b;
        const int distance = dr * dr + dg * dg + db * db;
        if (distance < bestDistance) {
            best = i;
            bestDistance = distance;
            if (distance == 0) break;
        }
    }
    return best;
}

[[gnu::noinline]] int nearestColour(DitherState& s, int r, int g, int b) {
    const int cell = gridCell(r, g, b);
    if (s.listBuilt[size_t(cell)] || buildList(s, cell)) {
        const uint8_t* list = s.lists[size_t(cell)].get();
        return searchNearest(s, s.listCount[size_t(cell)], [list](int j) { return int(list[j]); }, r, g, b);
    }
    // Without a candidate list the whole palette is searched.
    return searchNearest(s, s.count, [](int j) { return j; }, r, g, b);
}

template <bool kGamma>
void ditherPixels(DitherState& s, uint8_t* dest, const uint8_t* r, const uint8_t* g, const uint8_t* b, int n,
                  ptrdiff_t stride) {
    const int16_t* cur = s.current;
    int16_t* next = s.next;
    const uint8_t* gamma = s.gamma.get();
    uint16_t* cache = s.cache.get();
    const uint8_t* pr = s.red;
    const uint8_t* pg = s.green;
    const uint8_t* pb = s.blue;

    // The right share of the previous pixel, and its below share, which the
    // current pixel's below-left share is added to.
    int rightR = 0, rightG = 0, rightB = 0;
    int belowR = 0, belowG = 0, belowB = 0;
    const Shares* lastR = &kShares[255];
    const Shares* lastG = lastR;
    const Shares* lastB = lastR;
    for (int x = 0; x < n; ++x) {
        int vr = *r, vg = *g, vb = *b;
        r += stride;
        g += stride;
        b += stride;
        if constexpr (kGamma) {
            vr = gamma[vr];
            vg = gamma[vg];
            vb = gamma[vb];
        }
        // Below 0 becomes 0; 255 and more become 254.
        const int16_t* e = cur + 3 * (x + 1);
        vr = std::clamp(vr + e[0] + rightR, 0, 254);
        vg = std::clamp(vg + e[1] + rightG, 0, 254);
        vb = std::clamp(vb + e[2] + rightB, 0, 254);

        const unsigned cell = (unsigned(vr >> 3) << 10) | (unsigned(vg >> 3) << 5) | unsigned(vb >> 3);
        unsigned index = cache[cell];
        if (index == kUnset) [[unlikely]] {
            index = unsigned(nearestColour(s, vr, vg, vb));
            cache[cell] = uint16_t(index);
        }
        dest[x] = uint8_t(index);

        lastR = &kShares[size_t(vr - pr[index] + 255)];
        lastG = &kShares[size_t(vg - pg[index] + 255)];
        lastB = &kShares[size_t(vb - pb[index] + 255)];
        int16_t* out = next + 3 * x;
        out[0] = int16_t(belowR + lastR->belowLeft);
        out[1] = int16_t(belowG + lastG->belowLeft);
        out[2] = int16_t(belowB + lastB->belowLeft);
        belowR = lastR->below;
        belowG = lastG->below;
        belowB = lastB->below;
        rightR = lastR->right;
        rightG = lastG->right;
        rightB = lastB->right;
    }

    // Entry n holds the last pixel's below share and entry n + 1 its
    // below-right share; the rest of the next row is clear.
    int firstClear = 0;
    if (n > 0) {
        int16_t* out = next + 3 * n;
        out[0] = int16_t(belowR);
        out[1] = int16_t(belowG);
        out[2] = int16_t(belowB);
        out[3] = lastR->belowRight;
        out[4] = lastG->belowRight;
        out[5] = lastB->belowRight;
        firstClear = n + 2;
    }
    if (firstClear < s.width + 2)
        std::memset(next + 3 * firstClear, 0, sizeof(int16_t) * 3 * size_t(s.width + 2 - firstClear));
}

}  // namespace

namespace il {

bool ditherActive() noexcept { return t_dither.ready(); }

}  // namespace il

extern "C" {

int korImage_ditherInitializeWithGamma(int count, const uint8_t* red, const uint8_t* green, const uint8_t* blue,
                                       int width, double gamma) noexcept {
    DitherState& s = t_dither;
    if (width < 0) {
        korImage_ditherCleanup();
        return IMGERR_BADARG;
    }
    s.width = width;
    s.errors.reset();
    s.current = s.next = nullptr;
    const size_t rowValues = 3 * (size_t(width) + 2);
    if (!s.cache.allocate(kCacheCells, il::tag("DiCa")) || !s.errors.allocate(2 * rowValues, il::tag("DiEr"), true))
        return IMGERR_NOMEMORY;
    s.current = s.errors.get();
    s.next = s.errors.get() + rowValues;
    std::fill_n(s.cache.get(), kCacheCells, kUnset);
    s.releaseLists();

    if (!red || !green || !blue) {
        s.count = 0;
        s.red = s.green = s.blue = kNoPalette;
    } else {
        s.count = std::min(count, kPaletteMax);
        s.red = red;
        s.green = green;
        s.blue = blue;
    }

    // Without room for the gamma table the job runs uncorrected.
    s.gamma.reset();
    if (!il::gammaIsIdentity(gamma) && s.gamma.allocate(256, il::tag("DiGa"))) il::buildGammaTable(s.gamma.get(), gamma);
    return IMGERR_OK;
}

int korImage_ditherInitialize(int count, const uint8_t* red, const uint8_t* green, const uint8_t* blue,
                              int width) noexcept {
    return korImage_ditherInitializeWithGamma(count, red, green, blue, width, 1.0);
}

int korImage_ditherRowWithOffset(uint8_t* dest, const uint8_t* red, const uint8_t* green, const uint8_t* blue, int n,
                                 int stride) noexcept {
    DitherState& s = t_dither;
    if (!s.ready() || n < 0 || n > s.width) return -1;
    if (n > 0 && (!dest || !red || !green || !blue)) return -1;
    if (s.gamma.ok())
        ditherPixels<true>(s, dest, red, green, blue, n, stride);
    else
        ditherPixels<false>(s, dest, red, green, blue, n, stride);
    std::swap(s.current, s.next);
    return -1;
}

int korImage_ditherRow(uint8_t* dest, const uint8_t* red, const uint8_t* green, const uint8_t* blue, int n) noexcept {
    return korImage_ditherRowWithOffset(dest, red, green, blue, n, 1);
}

void korImage_ditherCleanup(void) noexcept {
    DitherState& s = t_dither;
    s.errors.reset();
    s.current = s.next = nullptr;
    s.cache.reset();
    s.gamma.reset();
    s.releaseLists();
    s.width = 0;
    s.count = 0;
    s.red = s.green = s.blue = kNoPalette;
}

}  // extern "C"
