// Whole-image and banded resampling of row-planar RGB and RGBA images.
#include <cstring>

#include "imagelib/geo.h"
#include "internal/checked.h"
#include "internal/scratch.h"
#include "pixels/resize.h"

namespace {

// A row-planar image in memory: row r at r x (width x planes) bytes, plane p
// at + p x width.
struct MemorySource {
    const uint8_t* base;
    ImageSize size;
    int planes;
};

int fetchFromMemory(void* context, int32_t row, const uint8_t** planes) {
    const auto* src = static_cast<const MemorySource*>(context);
    if (row < 0 || row >= src->size.y) return 1;  // beyond the image: nothing
    const size_t width = size_t(src->size.x);
    const uint8_t* p = src->base + size_t(row) * width * size_t(src->planes);
    for (int i = 0; i < src->planes; ++i) planes[i] = p + size_t(i) * width;
    return 0;
}

bool validSizes(const ImageSize* dest, const ImageSize* source) {
    return dest && source && dest->x > 0 && dest->y > 0 && source->x > 0 && source->y > 0;
}

int resizeImage(void** out, const ImageSize* destSize, const void* source, const ImageSize* sourceSize,
                StopFunction stop, int planes) {
    if (!out || !source || !validSizes(destSize, sourceSize)) return IMGERR_BADARG;
    size_t bytes = 0;
    if (!il::mulSize(size_t(destSize->x), size_t(destSize->y), &bytes) || !il::mulSize(bytes, size_t(planes), &bytes))
        return IMGERR_NOMEMORY;
    il::Resampler resampler;
    int status = resampler.init(*sourceSize, *destSize, planes);
    if (status != 0) return status;
    auto buffer = il::callerBytes(bytes);
    if (!buffer) return IMGERR_NOMEMORY;
    MemorySource src{static_cast<const uint8_t*>(source), *sourceSize, planes};
    const size_t width = size_t(destSize->x);
    for (int32_t row = 0; row < destSize->y; ++row) {
        if ((status = imageUtil_reportProgress(stop, destSize->y, row)) != 0) return status;
        uint8_t* p = buffer.get() + size_t(row) * width * size_t(planes);
        uint8_t* rowPlanes[4] = {p, p + width, p + 2 * width, p + 3 * width};
        if ((status = resampler.nextRow(rowPlanes, fetchFromMemory, &src)) != 0) return status;
    }
    *out = buffer.release();
    return 0;
}

// The banded resampler keeps its state between calls, one per thread.
thread_local il::Resampler t_band;

}  // namespace

extern "C" {

int korImage_resize(void** out, const ImageSize* destSize, const void* source, const ImageSize* sourceSize,
                    StopFunction stop) noexcept {
    return resizeImage(out, destSize, source, sourceSize, stop, 3);
}

int korImage_resizeRGBA(void** out, const ImageSize* destSize, const void* source, const ImageSize* sourceSize,
                        StopFunction stop) noexcept {
    return resizeImage(out, destSize, source, sourceSize, stop, 4);
}

int korImage_resizeBand(void** band, const ImageSize* destSize, int first, int last, const void* source,
                        const ImageSize* sourceSize, StopFunction stop) noexcept {
    constexpr int planes = 3;
    if (!band || !source || !validSizes(destSize, sourceSize)) return IMGERR_BADARG;
    if (first < 0 || last < first || last >= destSize->y) return IMGERR_BADARG;
    size_t bytes = 0;
    if (!il::mulSize(size_t(destSize->x), size_t(last - first) + 1, &bytes) ||
        !il::mulSize(bytes, size_t(planes), &bytes))
        return IMGERR_NOMEMORY;

    // Continue the state of the previous band when it can reach `first`;
    // otherwise (first band, other sizes, a row already passed) start afresh.
    il::Resampler& r = t_band;
    const ImageSize s = r.source(), d = r.dest();
    if (!r.ready() || s.x != sourceSize->x || s.y != sourceSize->y || d.x != destSize->x ||
        d.y != destSize->y || r.rowsProduced() > first) {
        const int status = r.init(*sourceSize, *destSize, planes);
        if (status != 0) return status;
    }

    il::CallerBuffer<uint8_t> owned;
    uint8_t* out = static_cast<uint8_t*>(*band);
    if (!out) {
        owned = il::callerBytes(bytes);
        if (!owned) return IMGERR_NOMEMORY;
        out = owned.get();
    }
    MemorySource src{static_cast<const uint8_t*>(source), *sourceSize, planes};
    const size_t width = size_t(destSize->x);
    auto rowPlanes = [&](int32_t bandRow, uint8_t** p) {
        uint8_t* base = out + size_t(bandRow) * width * planes;
        for (int i = 0; i < planes; ++i) p[i] = base + size_t(i) * width;
    };
    uint8_t* p[planes];
    int status = 0;
    rowPlanes(0, p);
    while (r.rowsProduced() < first)  // rows before the band are thrown away
        if ((status = r.nextRow(p, fetchFromMemory, &src)) != 0) return status;
    for (int32_t row = first; row <= last; ++row) {
        if ((status = imageUtil_reportProgress(stop, last, row)) != 0) return status;
        rowPlanes(row - first, p);
        if ((status = r.nextRow(p, fetchFromMemory, &src)) != 0) return status;
    }
    if (owned) *band = owned.release();
    return 0;
}

int korImage_resizeCleanup(void) noexcept {
    t_band.reset();
    return 0;
}

}  // extern "C"
