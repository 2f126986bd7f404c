// Scratch memory and caller buffers with RAII: a scratch block frees itself
// through memutil_free, a caller buffer through the host's release function
// until it is handed out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>

#include "imagelib/host.h"

namespace il {

// Four ASCII characters packed into the 32-bit tag of a scratch allocation.
constexpr uint32_t tag(const char (&s)[5]) {
    return (uint32_t(uint8_t(s[0])) << 24) | (uint32_t(uint8_t(s[1])) << 16) |
           (uint32_t(uint8_t(s[2])) << 8) | uint32_t(uint8_t(s[3]));
}

// A move-only array of T taken from memutil_malloc. Check ok() after
// construction: allocation failure leaves it empty (never throws).
template <class T>
class Scratch {
public:
    Scratch() = default;
    Scratch(size_t count, uint32_t siteTag, bool zero = false) { allocate(count, siteTag, zero); }
    ~Scratch() { reset(); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    Scratch(Scratch&& o) noexcept : p_(std::exchange(o.p_, nullptr)), n_(std::exchange(o.n_, 0)) {}
    Scratch& operator=(Scratch&& o) noexcept {
        if (this != &o) {
            reset();
            p_ = std::exchange(o.p_, nullptr);
            n_ = std::exchange(o.n_, 0);
        }
        return *this;
    }
    // Replaces the block; false when the allocation failed (then empty).
    bool allocate(size_t count, uint32_t siteTag, bool zero = false) {
        reset();
        if (count > SIZE_MAX / sizeof(T)) return false;
        size_t bytes = count * sizeof(T);
        p_ = static_cast<T*>(memutil_malloc(bytes ? bytes : 1, siteTag));
        if (!p_) return false;
        n_ = count;
        if (zero) std::memset(static_cast<void*>(p_), 0, bytes);
        return true;
    }
    void reset() {
        if (p_) memutil_free(p_);
        p_ = nullptr;
        n_ = 0;
    }
    bool ok() const { return p_ != nullptr; }
    T* get() const { return p_; }
    T* data() const { return p_; }
    size_t size() const { return n_; }
    T& operator[](size_t i) const { return p_[i]; }

private:
    T* p_ = nullptr;
    size_t n_ = 0;
};

// Releases through the host allocator (buffers that belong to callers).
struct KorFree {
    void operator()(void* p) const noexcept { dlmSystem_korFree(p); }
};
template <class T>
using CallerBuffer = std::unique_ptr<T, KorFree>;

// Allocates count bytes for a caller (zero-filled when asked).
inline CallerBuffer<uint8_t> callerBytes(size_t count, bool zero = false) {
    void* p = zero ? dlmSystem_korCalloc(count ? count : 1, 1) : dlmSystem_korMalloc(count ? count : 1);
    return CallerBuffer<uint8_t>(static_cast<uint8_t*>(p));
}

}  // namespace il
