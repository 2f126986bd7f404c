// Rotation by a free angle and affine warping of a 4096 x 4096 picture.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "imagelib/geo.h"
#include "imagelib/host.h"
#include "imagelib/pixels.h"
#include "pixels_photo.h"

namespace {

constexpr int32_t kSide = 4096;

const std::vector<uint8_t>& photo() {
    static const std::vector<uint8_t> rgb = ilbench::syntheticPhoto(kSide, kSide);
    return rgb;
}

// range(0): layout (5 row-planar RGB, 6 interleaved RGB, 3 byte map),
// range(1): interpolation, range(2): degrees, range(3): KV_THREADS.
void rotateAngle(benchmark::State& state) {
    const int format = int(state.range(0)), interp = int(state.range(1));
    const double degrees = double(state.range(2));
    ::setenv("KV_THREADS", std::to_string(state.range(3)).c_str(), 1);
    const ImageSize size{kSide, kSide};
    std::vector<uint8_t> src = photo();
    if (format == IMAGEFORMAT_RGB2) korImage_RGBSeparateToRGB(nullptr, src.data(), &size, IMAGEFORMAT_RGB, nullptr);
    if (format == IMAGEFORMAT_MAP) src.resize(size_t(kSide) * kSide);
    int64_t pixels = 0;
    for (auto _ : state) {
        void* out = nullptr;
        ImageSize s{};
        if (korImage_rotateAngle(&out, &s, src.data(), &size, format, degrees, interp, nullptr, nullptr) != 0)
            state.SkipWithError("rotation failed");
        benchmark::DoNotOptimize(out);
        pixels += int64_t(s.x) * s.y;
        dlmSystem_korFree(out);
    }
    state.counters["Mpx/s"] = benchmark::Counter(double(pixels) / 1e6, benchmark::Counter::kIsRate);
    ::unsetenv("KV_THREADS");
}
BENCHMARK(rotateAngle)
    ->ArgNames({"format", "filter", "deg", "threads"})
    ->Args({IMAGEFORMAT_RGB, IMAGEWARP_BILINEAR, 30, 1})
    ->Args({IMAGEFORMAT_RGB2, IMAGEWARP_BILINEAR, 30, 1})
    ->Args({IMAGEFORMAT_RGB2, IMAGEWARP_BILINEAR, 30, 2})
    ->Args({IMAGEFORMAT_RGB, IMAGEWARP_NEAREST, 30, 1})
    ->Args({IMAGEFORMAT_RGB, IMAGEWARP_BICUBIC, 30, 1})
    ->Args({IMAGEFORMAT_MAP, IMAGEWARP_NEAREST, 30, 1})
    ->Args({IMAGEFORMAT_RGB, IMAGEWARP_BILINEAR, 3, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
