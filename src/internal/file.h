// A move-only file handle over a standard stream. Writes and the final
// close go through the tool services (toolSubsystem_fwrite/fclose), so a
// host that wraps them sees every byte the library writes.
#pragma once

#include <cstdint>
#include <cstdio>
#include <utility>

namespace il {

size_t toolSubsystem_fwrite(const void* data, size_t size, size_t count, FILE* f);
int toolSubsystem_fclose(FILE* f);
int toolSubsystem_fflush(FILE* f);

class File {
public:
    File() = default;
    explicit File(FILE* f) : f_(f) {}
    ~File() { close(); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    File(File&& o) noexcept : f_(std::exchange(o.f_, nullptr)) {}
    File& operator=(File&& o) noexcept {
        if (this != &o) {
            close();
            f_ = std::exchange(o.f_, nullptr);
        }
        return *this;
    }

    // Opens path with a standard mode ("rb", "wb", "r+b", "w+b"); check ok().
    static File open(const char* path, const char* mode) {
        return File(path ? std::fopen(path, mode) : nullptr);
    }

    bool ok() const { return f_ != nullptr; }
    FILE* get() const { return f_; }
    FILE* release() { return std::exchange(f_, nullptr); }

    // Closes the stream; false when the close (its final flush) failed.
    bool close() {
        if (!f_) return true;
        return toolSubsystem_fclose(std::exchange(f_, nullptr)) == 0;
    }

    // Reads exactly n bytes; false when fewer were there.
    bool read(void* dst, size_t n) { return n == 0 || std::fread(dst, 1, n, f_) == n; }
    // Reads up to n bytes and returns how many came.
    size_t readSome(void* dst, size_t n) { return n ? std::fread(dst, 1, n, f_) : 0; }
    // Returns the next byte or -1 at the end.
    int getc() { return std::fgetc(f_); }
    bool write(const void* src, size_t n) { return n == 0 || toolSubsystem_fwrite(src, 1, n, f_) == n; }
    bool seek(int64_t offset, int whence = SEEK_SET) { return fseeko(f_, offset, whence) == 0; }
    int64_t tell() const { return ftello(f_); }
    // Length of the file in bytes, keeping the current position; -1 on failure.
    int64_t size() {
        int64_t here = tell();
        if (here < 0 || fseeko(f_, 0, SEEK_END) != 0) return -1;
        int64_t end = ftello(f_);
        if (fseeko(f_, here, SEEK_SET) != 0) return -1;
        return end;
    }

private:
    FILE* f_ = nullptr;
};

}  // namespace il
