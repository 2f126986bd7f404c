// Colour mapping and grey levels on a 1024 x 1024 image.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "imagelib/pixels.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr ImageSize kSize{1024, 1024};
constexpr size_t kPixels = size_t(kSize.x) * size_t(kSize.y);

Bytes noise(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    Bytes v(n);
    for (auto& b : v) b = uint8_t(rng());
    return v;
}

struct Palette {
    uint8_t r[256], g[256], b[256];
    Palette() {
        Bytes v = noise(768, 3);
        for (int i = 0; i < 256; ++i) {
            r[i] = v[size_t(i)];
            g[i] = v[size_t(256 + i)];
            b[i] = v[size_t(512 + i)];
        }
    }
};

// Rates: bytes of the source image (1 a pixel for maps, 3 for RGB).
void MapToRGB(benchmark::State& state) {
    Bytes map = noise(kPixels, 1), rgb(3 * kPixels);
    Palette p;
    for (auto _ : state) {
        korImage_mapToRGBBuffer(rgb.data(), map.data(), &kSize, p.r, p.g, p.b, nullptr);
        benchmark::DoNotOptimize(rgb.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kPixels));
}
BENCHMARK(MapToRGB);

void SeparateToRGB(benchmark::State& state) {
    Bytes planes = noise(3 * kPixels, 2), rgb(3 * kPixels);
    for (auto _ : state) {
        korImage_RGBSeparateToRGB(rgb.data(), planes.data(), &kSize, 5, nullptr);
        benchmark::DoNotOptimize(rgb.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(3 * kPixels));
}
BENCHMARK(SeparateToRGB);

void SeparateToRGBInPlace(benchmark::State& state) {
    Bytes planes = noise(3 * kPixels, 2);
    for (auto _ : state) {
        korImage_RGBSeparateToRGB(nullptr, planes.data(), &kSize, 5, nullptr);
        benchmark::DoNotOptimize(planes.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(3 * kPixels));
}
BENCHMARK(SeparateToRGBInPlace);

void RGBToSeparate(benchmark::State& state) {
    Bytes rgb = noise(3 * kPixels, 2), planes(3 * kPixels);
    for (auto _ : state) {
        korImage_RGBToRGBSeparate(planes.data(), rgb.data(), &kSize, 5, nullptr);
        benchmark::DoNotOptimize(planes.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(3 * kPixels));
}
BENCHMARK(RGBToSeparate);

void RgbToGreyScale(benchmark::State& state) {
    Bytes rgb = noise(3 * kPixels, 4), grey(kPixels);
    for (auto _ : state) {
        int dark, light;
        korImage_rgbToGreyScale(grey.data(), &dark, &light, rgb.data(), &kSize);
        benchmark::DoNotOptimize(grey.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(3 * kPixels));
}
BENCHMARK(RgbToGreyScale);

void RGBToRGBGreyScale(benchmark::State& state) {
    Bytes src = noise(3 * kPixels, 5), rgb(3 * kPixels);
    for (auto _ : state) {
        state.PauseTiming();
        rgb = src;
        state.ResumeTiming();
        korImage_RGBToRGBGreyScale(rgb.data(), &kSize, nullptr);
        benchmark::DoNotOptimize(rgb.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(3 * kPixels));
}
BENCHMARK(RGBToRGBGreyScale);

void ConvertMapToGrey(benchmark::State& state) {
    Bytes map = noise(kPixels, 6), out(kPixels);
    Palette p;
    int count = 256;
    for (auto _ : state) {
        korImage_convertToGreyScale(out.data(), p.r, p.g, p.b, &count, map.data(), &kSize, IMAGEFORMAT_MAP, nullptr);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kPixels));
}
BENCHMARK(ConvertMapToGrey);

}  // namespace
