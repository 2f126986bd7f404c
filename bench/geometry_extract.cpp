// Sub-image extraction from a 4096 x 4096 source: a large window copied at
// the same size and reduced to a quarter of its width and height, in the
// byte map, row-planar RGB, bitmap and PackByte layouts; and a polygon fill.
// Rates are bytes of the source window (the pixels a job covers).
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "imagelib/geo.h"
#include "imagelib/host.h"
#include "imagelib/pixels.h"
#include "pixels/rows.h"

namespace {

constexpr int kSide = 4096;
constexpr int kWindow = 4000;  // the window starts at (48, 48)
const double kRect[4] = {48, 48, 48 + kWindow - 1, 48 + kWindow - 1};

// A source with texture: smooth ramps and some noise, so that PackByte rows
// hold both runs and literals.
const std::vector<uint8_t>& sourceBytes(size_t planes) {
    static std::vector<uint8_t> cache[4];
    auto& v = cache[planes];
    if (v.empty()) {
        v.resize(size_t(kSide) * kSide * planes);
        uint32_t noise = 1;
        for (size_t i = 0; i < v.size(); ++i) {
            noise = noise * 1664525u + 1013904223u;
            v[i] = uint8_t(((i % kSide) / 16 + (i / kSide) / 32) + ((noise >> 28) == 0 ? noise >> 24 : 0));
        }
    }
    return v;
}

int destinationSide(const benchmark::State& state) { return state.range(0) ? kWindow : kWindow / 4; }

void setRates(benchmark::State& state, size_t bytesPerPixel) {
    state.SetBytesProcessed(int64_t(state.iterations()) * kWindow * kWindow * int64_t(bytesPerPixel));
    state.SetLabel(state.range(0) ? "same size" : "reduced 4:1");
}

void BM_ExtractByteMap(benchmark::State& state) {
    const auto& src = sourceBytes(1);
    const int d = destinationSide(state);
    std::vector<uint8_t> dst(size_t(d) * d);
    ImageSize ss{kSide, kSide}, ds{d, d};
    for (auto _ : state) {
        korImage_extractSubImage(dst.data(), &ds, src.data(), &ss, kRect, IMAGEFORMAT_MAP);
        benchmark::DoNotOptimize(dst.data());
    }
    setRates(state, 1);
}

void BM_ExtractByteMapRemapped(benchmark::State& state) {
    const auto& src = sourceBytes(1);
    const int d = destinationSide(state);
    std::vector<uint8_t> dst(size_t(d) * d);
    uint8_t remap[256];
    for (int i = 0; i < 256; ++i) remap[i] = uint8_t(255 - i);
    ImageSize ss{kSide, kSide}, ds{d, d};
    for (auto _ : state) {
        korImage_extractByteMapSubImage(dst.data(), &ds, src.data(), &ss, kRect, remap);
        benchmark::DoNotOptimize(dst.data());
    }
    setRates(state, 1);
}

void BM_ExtractRGB(benchmark::State& state) {
    const auto& src = sourceBytes(3);
    const int d = destinationSide(state);
    std::vector<uint8_t> dst(size_t(d) * d * 3);
    ImageSize ss{kSide, kSide}, ds{d, d};
    for (auto _ : state) {
        korImage_extractSubImage(dst.data(), &ds, src.data(), &ss, kRect, IMAGEFORMAT_RGB);
        benchmark::DoNotOptimize(dst.data());
    }
    setRates(state, 3);
}

void BM_ExtractRGBA(benchmark::State& state) {
    const auto& src = sourceBytes(4);
    const int d = destinationSide(state);
    std::vector<uint8_t> dst(size_t(d) * d * 4);
    ImageSize ss{kSide, kSide}, ds{d, d};
    for (auto _ : state) {
        korImage_extractSubImage(dst.data(), &ds, src.data(), &ss, kRect, IMAGEFORMAT_RGBA);
        benchmark::DoNotOptimize(dst.data());
    }
    setRates(state, 4);
}

void BM_ExtractBitMap(benchmark::State& state) {
    static std::vector<uint8_t> bits;
    if (bits.empty()) {
        const auto& src = sourceBytes(1);
        bits.resize(size_t(kSide / 8) * kSide);
        for (int i = 0; i < kSide * kSide / 8; ++i) bits[i] = src[i] ^ src[i + 1];
    }
    const int d = destinationSide(state);
    std::vector<uint8_t> dst(size_t((d + 7) / 8) * d);
    ImageSize ss{kSide, kSide}, ds{d, d};
    for (auto _ : state) {
        korImage_extractSubImage(dst.data(), &ds, bits.data(), &ss, kRect, IMAGEFORMAT_BITMAP);
        benchmark::DoNotOptimize(dst.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kWindow * kWindow / 8);
    state.SetLabel(state.range(0) ? "same size" : "reduced 4:1");
}

void BM_ExtractPackByte(benchmark::State& state) {
    static uint8_t** rows = nullptr;
    ImageSize ss{kSide, kSide};
    if (!rows) il::packByteEncodeImage(&rows, sourceBytes(1).data(), &ss);
    const int d = destinationSide(state);
    ImageSize ds{d, d};
    std::vector<uint8_t*> dst(static_cast<size_t>(d));
    for (auto _ : state) {
        korImage_extractSubImage(dst.data(), &ds, rows, &ss, kRect, IMAGEFORMAT_PACKBYTE);
        state.PauseTiming();
        for (uint8_t* r : dst) dlmSystem_korFree(r);
        state.ResumeTiming();
    }
    setRates(state, 1);
}

// A 256-sided polygon close to a circle filling most of the image.
void BM_PolygonFillByteMap(benchmark::State& state) {
    std::vector<uint8_t> map(size_t(kSide) * kSide);
    std::vector<double> pts;
    for (int i = 0; i <= 256; ++i) {
        double a = 2 * M_PI * (i % 256) / 256;
        pts.push_back(2048 + 2000 * std::cos(a));
        pts.push_back(2048 + 2000 * std::sin(a));
    }
    ImageSize s{kSide, kSide};
    const int outside = int(state.range(0));
    for (auto _ : state) {
        korImage_setMapPolygon(map.data(), nullptr, &s, IMAGEFORMAT_MAP, pts.data(), 257, outside, 7, nullptr);
        benchmark::DoNotOptimize(map.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kSide * kSide);
    state.SetLabel(outside ? "outside" : "inside");
}

}  // namespace

BENCHMARK(BM_ExtractByteMap)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ExtractByteMapRemapped)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ExtractRGB)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ExtractRGBA)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ExtractBitMap)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ExtractPackByte)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PolygonFillByteMap)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
