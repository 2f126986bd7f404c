// Median-cut palette of a synthetic 4096 x 4096 photograph.
#include <benchmark/benchmark.h>

#include <vector>

#include "imagelib/pixels.h"
#include "pixels_photo.h"

namespace {

void BM_OptimizedPalette(benchmark::State& state) {
    const int side = int(state.range(1));
    static std::vector<uint8_t> rgb;
    static int madeSide = 0;
    if (madeSide != side) {
        rgb = ilbench::syntheticPhoto(side, side);
        madeSide = side;
    }
    const ImageSize size{side, side};
    uint8_t r[256], g[256], b[256];
    int count = 0;
    for (auto _ : state) {
        korImage_getOptimizedPalette(r, g, b, &count, int(state.range(0)), rgb.data(), &size, nullptr);
        benchmark::DoNotOptimize(count);
    }
    state.counters["colours"] = count;
    state.counters["Mpixel/s"] =
        benchmark::Counter(double(side) * side * 1e-6, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_OptimizedPalette)->Args({256, 4096})->Args({16, 4096})->Unit(benchmark::kMillisecond);

}  // namespace
