// A host for tests that watch the library's memory: its allocators count the
// live blocks and bytes, remember the peak of live bytes, and refuse a
// request that would take the live bytes over g_allocCap (0: no cap), as a
// host short of memory would.
#pragma once

#include <malloc.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>

#include "imagelib/imagelib.h"

namespace il::test {

inline std::atomic<long> g_live{0};
inline std::atomic<size_t> g_liveBytes{0};
inline std::atomic<size_t> g_peakBytes{0};
inline std::atomic<size_t> g_allocCap{0};

inline void* counted(void* p) {
    if (!p) return p;
    ++g_live;
    const size_t now = g_liveBytes += malloc_usable_size(p);
    size_t seen = g_peakBytes;
    while (now > seen && !g_peakBytes.compare_exchange_weak(seen, now)) {
    }
    return p;
}
// Whether n more bytes are granted; a refused request still counts as a peak.
inline bool granted(size_t n) {
    const size_t want = g_liveBytes + n;
    if (g_allocCap == 0 || want <= g_allocCap) return true;
    size_t seen = g_peakBytes;
    while (want > seen && !g_peakBytes.compare_exchange_weak(seen, want)) {
    }
    return false;
}
inline void* countMalloc(size_t n) { return granted(n) ? counted(std::malloc(n)) : nullptr; }
inline void* countCalloc(size_t c, size_t n) {
    return c && n > SIZE_MAX / c ? nullptr : granted(c * n) ? counted(std::calloc(c, n)) : nullptr;
}
inline void countFree(void* p) {
    if (!p) return;
    --g_live;
    g_liveBytes -= malloc_usable_size(p);
    std::free(p);
}
inline void* countScratch(size_t n, uint32_t) { return countMalloc(n); }

// A host record with the counting allocators (other members default).
inline ImageHost countingHost() {
    ImageHost host{};
    host.korMalloc = countMalloc, host.korCalloc = countCalloc, host.korFree = countFree;
    host.scratchMalloc = countScratch, host.scratchFree = countFree;
    return host;
}

}  // namespace il::test
