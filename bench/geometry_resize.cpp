// Resampling of a large row-planar RGB image.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "imagelib/geo.h"
#include "imagelib/host.h"

namespace {

std::vector<uint8_t> sourceImage(ImageSize s) {
    std::vector<uint8_t> b(size_t(s.x) * size_t(s.y) * 3);
    uint32_t v = 12345;
    for (auto& x : b) {
        v = v * 1103515245u + 12345u;
        x = uint8_t(v >> 24);
    }
    return b;
}

void resizeRGB(benchmark::State& state) {
    const ImageSize from{4096, 4096};
    const ImageSize to{int32_t(state.range(0)), int32_t(state.range(0))};
    const auto src = sourceImage(from);
    for (auto _ : state) {
        void* out = nullptr;
        if (korImage_resize(&out, &to, src.data(), &from, nullptr) != 0) state.SkipWithError("resize failed");
        benchmark::DoNotOptimize(out);
        dlmSystem_korFree(out);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(src.size()));
}
BENCHMARK(resizeRGB)->Arg(1000)->Arg(8192)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
