// Separable resampling: axis tables, the row passes and the resampler that
// drives them.
#include "pixels/resize.h"

#include "internal/checked.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace il {

namespace {

int32_t clampIndex(int64_t i, int32_t count) {
    return int32_t(std::clamp<int64_t>(i, 0, int64_t(count) - 1));
}

void buildEnlargement(AxisEntry* t, int32_t source, int32_t dest) {
    // The divisor is dest, not dest - 1: the pixel before the last one does
    // not quite reach the last source pixel, and the fixed last entry jumps
    // onto it.
    const double step = double(source - 1) / double(dest);
    for (int32_t i = 0; i + 1 < dest; ++i) {
        const double pos = double(i) * step;
        const int64_t left = int64_t(pos);
        const int32_t right = int32_t((pos - double(left)) * kWeightOne);
        t[i] = {clampIndex(left, source), kWeightOne - right, clampIndex(left + 1, source), right};
    }
    t[dest - 1] = {clampIndex(int64_t(source) - 2, source), 0, clampIndex(int64_t(source) - 1, source),
                   kWeightOne};
}

void buildReduction(AxisEntry* t, int32_t source, int32_t dest) {
    const double f = double(dest) / double(source);
    double acc = 0;
    int32_t j = 0;
    for (int32_t s = 0; s < source; ++s) {
        acc += f;
        // Rounding drift may carry the very last pixel past the last
        // destination pixel; indices stay inside the destination.
        const int32_t at = std::min(j, dest - 1);
        if (acc <= 1.0) {
            t[s] = {at, int32_t(f * kWeightOne + 0.5), at + 1, 0};
        } else {
            acc -= 1.0;
            t[s] = {at, int32_t((f - acc) * kWeightOne + 0.5), at + 1, int32_t(acc * kWeightOne + 0.5)};
            ++j;
        }
    }
    t[source] = {std::min(j, dest), 0, std::min(j, dest) + 1, 0};
}

}  // namespace

int buildAxisTable(AxisTable& table, int32_t source, int32_t dest) noexcept {
    table.entries.reset();
    table.mode = kAxisCopy;
    table.source = table.dest = 0;
    if (source <= 0 || dest <= 0) return IMGERR_BADARG;
    table.source = source;
    table.dest = dest;
    if (dest == source) return 0;
    if (dest > source) {
        if (!table.entries.allocate(size_t(dest), tag("RsTE"))) return IMGERR_NOMEMORY;
        buildEnlargement(table.entries.get(), source, dest);
        table.mode = kAxisEnlarge;
    } else {
        if (!table.entries.allocate(size_t(source) + 1, tag("RsTR"))) return IMGERR_NOMEMORY;
        buildReduction(table.entries.get(), source, dest);
        table.mode = kAxisReduce;
    }
    return 0;
}

void resampleRow(const AxisTable& table, const uint8_t* in, uint32_t* out) noexcept {
    const AxisEntry* t = table.entries.get();
    switch (table.mode) {
        case kAxisCopy:
            for (int32_t i = 0; i < table.source; ++i) out[i] = uint32_t(in[i]) << kWeightBits;
            break;
        case kAxisEnlarge:
            for (int32_t i = 0; i < table.dest; ++i)
                out[i] = uint32_t(t[i].weight) * in[t[i].index] + uint32_t(t[i].nextWeight) * in[t[i].nextIndex];
            break;
        case kAxisReduce: {
            // Sum the source pixels of each destination pixel; the pixel that
            // closes one carries its next share into the next sum.
            uint32_t sum = 0;
            for (int32_t s = 0; s < table.source; ++s) {
                const uint32_t v = in[s];
                sum += uint32_t(t[s].weight) * v;
                if (t[s + 1].index != t[s].index) {
                    out[t[s].index] = sum;
                    sum = uint32_t(t[s].nextWeight) * v;
                }
            }
            if (t[table.source].index < table.dest) out[t[table.source].index] = sum;
            break;
        }
        default: break;
    }
}

namespace {

// Reduction of several planes in one walk over the table: the planes share
// the table loads and the branch on closing pixels.
template <int P>
void reducePlanes(const AxisTable& table, const uint8_t* const* in, uint32_t* out, size_t outStride) {
    const AxisEntry* t = table.entries.get();
    uint32_t sum[P] = {};
    for (int32_t s = 0; s < table.source; ++s) {
        const AxisEntry& e = t[s];
        for (int p = 0; p < P; ++p) sum[p] += uint32_t(e.weight) * in[p][s];
        if (t[s + 1].index != e.index) {
            for (int p = 0; p < P; ++p) {
                out[size_t(p) * outStride + size_t(e.index)] = sum[p];
                sum[p] = uint32_t(e.nextWeight) * in[p][s];
            }
        }
    }
    const int32_t last = t[table.source].index;
    if (last < table.dest)
        for (int p = 0; p < P; ++p) out[size_t(p) * outStride + size_t(last)] = sum[p];
}

}  // namespace

void resamplePlanes(const AxisTable& table, const uint8_t* const* in, uint32_t* out, size_t outStride,
                    int planes) noexcept {
    if (table.mode == kAxisReduce && planes == 3) return reducePlanes<3>(table, in, out, outStride);
    if (table.mode == kAxisReduce && planes == 4) return reducePlanes<4>(table, in, out, outStride);
    for (int p = 0; p < planes; ++p) resampleRow(table, in[p], out + size_t(p) * outStride);
}

void blendRows(uint32_t* out, const uint32_t* top, int32_t topWeight, const uint32_t* bottom,
               int32_t bottomWeight, size_t n) noexcept {
    const uint32_t a = uint32_t(topWeight), b = uint32_t(bottomWeight);
    for (size_t i = 0; i < n; ++i) out[i] = top[i] * a + bottom[i] * b;
}

void blendToBytes(uint8_t* out, const uint32_t* top, int32_t topWeight, const uint32_t* bottom,
                  int32_t bottomWeight, size_t n) noexcept {
    const uint32_t a = uint32_t(topWeight), b = uint32_t(bottomWeight);
    for (size_t i = 0; i < n; ++i) {
        const uint32_t v = (top[i] * a + bottom[i] * b) >> (2 * kWeightBits);
        out[i] = uint8_t(v > 255 ? 255 : v);
    }
}

void addWeightedRow(uint32_t* acc, const uint32_t* row, int32_t weight, size_t n) noexcept {
    const uint32_t w = uint32_t(weight);
    for (size_t i = 0; i < n; ++i) acc[i] += row[i] * w;
}

void setWeightedRow(uint32_t* acc, const uint32_t* row, int32_t weight, size_t n) noexcept {
    const uint32_t w = uint32_t(weight);
    for (size_t i = 0; i < n; ++i) acc[i] = row[i] * w;
}

void accumulatorsToBytes(uint8_t* out, const uint32_t* acc, size_t n, int shift) noexcept {
    for (size_t i = 0; i < n; ++i) {
        const uint32_t v = acc[i] >> shift;
        out[i] = uint8_t(v > 255 ? 255 : v);
    }
}

// ---------------------------------------------------------------------------

void Resampler::reset() noexcept {
    horizontal_.entries.reset();
    vertical_.entries.reset();
    rows_.reset();
    planes_ = 0;
    source_ = dest_ = ImageSize{0, 0};
    rowLength_ = 0;
    consumed_ = produced_ = 0;
    held_[0] = held_[1] = -1;
    row_[0] = row_[1] = row_[2] = nullptr;
}

int Resampler::init(const ImageSize& source, const ImageSize& dest, int planes) noexcept {
    reset();
    if (planes < 1 || planes > 4) return IMGERR_BADARG;
    int status = buildAxisTable(horizontal_, source.x, dest.x);
    if (status == 0) status = buildAxisTable(vertical_, source.y, dest.y);
    size_t length = 0;
    // Three rows of planes x width accumulators; the horizontal pass of the
    // copy mode writes source-width rows, which equal the destination width.
    if (status == 0 && !mulSize(size_t(planes), size_t(dest.x), &length)) status = IMGERR_NOMEMORY;
    if (status == 0 && (length > SIZE_MAX / 3 || !rows_.allocate(length * 3, tag("RsAc"), true)))
        status = IMGERR_NOMEMORY;
    if (status != 0) {
        reset();
        return status;
    }
    source_ = source;
    dest_ = dest;
    planes_ = planes;
    rowLength_ = length;
    for (int i = 0; i < 3; ++i) row_[i] = rows_.get() + size_t(i) * length;
    return 0;
}

int Resampler::pullRow(uint32_t* row, ResampleFetch fetch, void* context) noexcept {
    const uint8_t* planes[4] = {nullptr, nullptr, nullptr, nullptr};
    const int status = fetch(context, consumed_++, planes);
    if (status != 0) return status;
    resamplePlanes(horizontal_, planes, row, size_t(dest_.x), planes_);
    return 0;
}

int Resampler::nextRow(uint8_t* const* out, ResampleFetch fetch, void* context) noexcept {
    const size_t width = size_t(dest_.x);
    auto writeOut = [&](const uint32_t* acc, int shift) {
        for (int p = 0; p < planes_; ++p) accumulatorsToBytes(out[p], acc + size_t(p) * width, width, shift);
    };
    int status = 0;
    switch (vertical_.mode) {
        case kAxisCopy:
            status = pullRow(row_[0], fetch, context);
            if (status < 0) return status;
            writeOut(row_[0], kWeightBits);
            break;
        case kAxisEnlarge: {
            // Hold the two source rows of this entry; the rows move on by one
            // when the entry's top row changes.
            const AxisEntry& e = vertical_.entries[size_t(produced_)];
            if (held_[0] != e.index) {
                if (held_[1] == e.index) {
                    std::swap(row_[0], row_[1]);
                    held_[0] = e.index;
                    held_[1] = -1;
                } else {
                    while (consumed_ <= e.index)
                        if ((status = pullRow(row_[0], fetch, context)) < 0) return status;
                    held_[0] = e.index;
                }
            }
            if (held_[1] != e.nextIndex) {
                if (e.nextIndex == held_[0]) {
                    std::memcpy(row_[1], row_[0], rowLength_ * sizeof(uint32_t));
                } else {
                    while (consumed_ <= e.nextIndex)
                        if ((status = pullRow(row_[1], fetch, context)) < 0) return status;
                }
                held_[1] = e.nextIndex;
            }
            // Blended and written out in one go, plane by plane.
            for (int p = 0; p < planes_; ++p) {
                const size_t at = size_t(p) * width;
                blendToBytes(out[p], row_[0] + at, e.weight, row_[1] + at, e.nextWeight, width);
            }
            break;
        }
        case kAxisReduce: {
            // row_[0]: the resampled source row; row_[1]: the destination row
            // being summed; row_[2]: the share of the next one.
            for (;;) {
                if (consumed_ >= source_.y) {  // source used up: write out as it stands
                    writeOut(row_[1], 2 * kWeightBits);
                    break;
                }
                const int32_t s = consumed_;
                if ((status = pullRow(row_[0], fetch, context)) < 0) return status;
                const AxisEntry& e = vertical_.entries[size_t(s)];
                addWeightedRow(row_[1], row_[0], e.weight, rowLength_);
                if (vertical_.completes(s)) {
                    setWeightedRow(row_[2], row_[0], e.nextWeight, rowLength_);
                    writeOut(row_[1], 2 * kWeightBits);
                    std::swap(row_[1], row_[2]);
                    break;
                }
            }
            break;
        }
        default: return IMGERR_BADARG;
    }
    ++produced_;
    return 0;
}

}  // namespace il
