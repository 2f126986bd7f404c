// The host record: standalone defaults and their replacement.
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include <sys/mman.h>

#include "host/host_internal.h"
#include "internal/checked.h"

namespace {

// Whole-image buffers are tens of megabytes that are filled once from
// start to end: backed by huge pages, they cost a few hundred page faults
// instead of one every 4 KiB (most of a plain conversion's time).
void* bigBlock(void* p, size_t n) {
    constexpr size_t kHuge = size_t(2) << 20, kPage = 4096;
    if (p && n >= 2 * kHuge) {
        const uintptr_t from = (uintptr_t(p) + kPage - 1) & ~uintptr_t(kPage - 1);
        const uintptr_t to = (uintptr_t(p) + n) & ~uintptr_t(kPage - 1);
        if (to > from) ::madvise(reinterpret_cast<void*>(from), to - from, MADV_HUGEPAGE);
    }
    return p;
}

void* defMalloc(size_t n) { return bigBlock(std::malloc(n), n); }
void* defCalloc(size_t c, size_t n) { return bigBlock(std::calloc(c, n), c * n); }
void defFree(void* p) { std::free(p); }
void* defScratchMalloc(size_t n, uint32_t) { return bigBlock(std::malloc(n), n); }
void defScratchFree(void* p) { std::free(p); }

int defGetCfgVar(char* buffer, const char* name, int size) {
    if (!name || !buffer || size <= 0) return 1;
    const char* v = std::getenv(name);
    if (!v) return 1;
    size_t n = std::strlen(v);
    if (n >= size_t(size)) return 1;
    std::memcpy(buffer, v, n + 1);
    return 0;
}

int defCallStop(StopFunction f, int a, int b) { return f ? f(a, b) : 0; }

// No host application is loaded in a standalone process.
int defCallCommand(const char*, const void*, const void*, int*) { return IMGERR_NOHOSTCOMMAND; }


const ImageHost kDefaults = {defMalloc, defCalloc, defFree, defScratchMalloc, defScratchFree,
                             defGetCfgVar, nullptr, defCallStop, defCallCommand,
                             il::host::defaultProgramCount, il::host::defaultLoadProgram,
                             il::host::defaultUnloadProgram, il::host::defaultProgramValue};

ImageHost g_host = kDefaults;

}  // namespace

namespace il::host {
const ImageHost& active() { return g_host; }
}  // namespace il::host

namespace il {
int64_t maxPixels() noexcept {
    char buf[32];
    if (g_host.getCfgVar(buf, "KV_MAXPIXELS", int(sizeof buf)) != 0) return kDefaultMaxPixels;
    // Leading decimal digits; anything else (unset, 0, negative, not a
    // number) keeps the default.
    errno = 0;
    char* end = nullptr;
    const long long v = std::strtoll(buf, &end, 10);
    if (errno || end == buf || v <= 0) return kDefaultMaxPixels;
    return int64_t(v);
}
}  // namespace il

extern "C" {

void imagelib_setHost(const ImageHost* h) noexcept {
    ImageHost next = kDefaults;
    if (h) {
#define KEEP(m) if (h->m) next.m = h->m
        KEEP(korMalloc);
        KEEP(korCalloc);
        KEEP(korFree);
        KEEP(scratchMalloc);
        KEEP(scratchFree);
        KEEP(getCfgVar);
        KEEP(loadString);
        KEEP(callStop);
        KEEP(callCommand);
        KEEP(programCount);
        KEEP(loadProgram);
        KEEP(unloadProgram);
        KEEP(programValue);
#undef KEEP
    }
    g_host = next;
}

int korSystem_getCfgVar(char* buffer, const char* name, int size) noexcept {
    return g_host.getCfgVar(buffer, name, size);
}

int imagelib_cfgInt(const char* name, int whenUnset) noexcept {
    char buf[64];
    if (korSystem_getCfgVar(buf, name, sizeof buf) != 0) return whenUnset;
    // A decimal conversion in the manner of atoi: leading digits, else 0.
    errno = 0;
    long v = std::strtol(buf, nullptr, 10);
    if (errno || v > INT_MAX || v < INT_MIN) return 0;
    return int(v);
}

int imageUtil_stopped(StopFunction f) noexcept { return f ? g_host.callStop(f, 0, 0) : 0; }

int imageUtil_reportProgress(StopFunction f, int total, int done) noexcept {
    return f ? g_host.callStop(f, total, done) : 0;
}

}  // extern "C"
