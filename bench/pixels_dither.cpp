// Error diffusion of a synthetic photograph onto median-cut palettes.
#include <benchmark/benchmark.h>

#include <vector>

#include "imagelib/pixels.h"
#include "pixels_photo.h"

namespace {

constexpr int kWidth = 2048;
constexpr int kHeight = 2048;

const std::vector<uint8_t>& photo() {
    static const std::vector<uint8_t> rgb = ilbench::syntheticPhoto(kWidth, kHeight);
    return rgb;
}

// Dithers the whole image once per iteration (initialisation, every row,
// clean-up), onto a palette of state.range(0) colours; with gamma 2.2 when
// state.range(1) is set.
void BM_DitherRow(benchmark::State& state) {
    const std::vector<uint8_t>& rgb = photo();
    const ImageSize size{kWidth, kHeight};
    uint8_t r[256], g[256], b[256];
    int count = 0;
    korImage_getOptimizedPalette(r, g, b, &count, int(state.range(0)), rgb.data(), &size, nullptr);
    const double gamma = state.range(1) ? 2.2 : 1.0;
    std::vector<uint8_t> out(size_t(kWidth) * kHeight);
    for (auto _ : state) {
        korImage_ditherInitializeWithGamma(count, r, g, b, kWidth, gamma);
        for (int y = 0; y < kHeight; ++y) {
            const uint8_t* row = rgb.data() + size_t(y) * kWidth * 3;
            korImage_ditherRow(out.data() + size_t(y) * kWidth, row, row + kWidth, row + 2 * kWidth, kWidth);
        }
        korImage_ditherCleanup();
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kWidth * kHeight);
    state.counters["Mpixel/s"] =
        benchmark::Counter(double(kWidth) * kHeight * 1e-6, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_DitherRow)->Args({256, 0})->Args({16, 0})->Args({256, 1})->Unit(benchmark::kMillisecond);

}  // namespace
