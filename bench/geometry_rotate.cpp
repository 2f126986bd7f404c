// Quarter-turn rotation and mirroring of large images.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "imagelib/geo.h"
#include "imagelib/host.h"

namespace {

constexpr int32_t kSide = 4096;

std::vector<uint8_t> sourceImage(size_t bytes) {
    std::vector<uint8_t> b(bytes);
    uint32_t v = 777;
    for (auto& x : b) {
        v = v * 1103515245u + 12345u;
        x = uint8_t(v >> 24);
    }
    return b;
}

size_t bytesOf(int format) {
    const size_t n = size_t(kSide) * size_t(kSide);
    return format == IMAGEFORMAT_BITMAP ? n / 8 : format == IMAGEFORMAT_RGB ? 3 * n : n;
}

// range(0): layout, range(1): angle.
void rotate(benchmark::State& state) {
    const int format = int(state.range(0)), angle = int(state.range(1));
    const ImageSize size{kSide, kSide};
    auto src = sourceImage(bytesOf(format));
    for (auto _ : state) {
        void* out = nullptr;
        ImageSize s = size;
        if (korImage_rotate(&out, &s, src.data(), &size, format, angle, nullptr) != 0)
            state.SkipWithError("rotate failed");
        benchmark::DoNotOptimize(out);
        dlmSystem_korFree(out);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(src.size()));
}
BENCHMARK(rotate)
    ->ArgNames({"format", "angle"})
    ->Args({IMAGEFORMAT_MAP, 90})
    ->Args({IMAGEFORMAT_MAP, 270})
    ->Args({IMAGEFORMAT_MAP, 180})
    ->Args({IMAGEFORMAT_RGB, 90})
    ->Args({IMAGEFORMAT_BITMAP, 90})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// range(0): layout, range(1): mode.
void mirror(benchmark::State& state) {
    const int format = int(state.range(0)), mode = int(state.range(1));
    const ImageSize size{kSide, kSide};
    auto img = sourceImage(bytesOf(format));
    for (auto _ : state) {
        if (korImage_mirror(img.data(), &size, format, mode, nullptr) != 0) state.SkipWithError("mirror failed");
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(img.size()));
}
BENCHMARK(mirror)
    ->ArgNames({"format", "mode"})
    ->Args({IMAGEFORMAT_MAP, 0})
    ->Args({IMAGEFORMAT_MAP, 1})
    ->Args({IMAGEFORMAT_RGB, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
