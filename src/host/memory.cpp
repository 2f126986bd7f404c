// Caller-buffer allocator and tagged scratch memory.
#include <cstdlib>

#include "host/host_internal.h"

extern "C" {

void* dlmSystem_korMalloc(size_t size) noexcept { return il::host::active().korMalloc(size); }

void* dlmSystem_korCalloc(size_t count, size_t size) noexcept {
    return il::host::active().korCalloc(count, size);
}

int dlmSystem_korFree(void* p) noexcept {
    if (p) il::host::active().korFree(p);
    return 0;
}

void* memutil_malloc(size_t size, uint32_t tag) noexcept { return il::host::active().scratchMalloc(size, tag); }

void memutil_free(void* p) noexcept {
    if (p) il::host::active().scratchFree(p);
}

}  // extern "C"
