// Row codecs and packing: PackByte, run-length bitmap rows, bit packing.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "imagelib/pixels.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr int kRowBytes = 4096;
constexpr int kRows = 256;  // 1 MiB a pass

// Kinds of byte rows: 0 mixed runs and literals (a scanned drawing), 1 noise
// (all literals), 2 long runs (flat areas).
Bytes byteRows(int kind) {
    std::mt19937 rng(42);
    Bytes d;
    d.reserve(size_t(kRowBytes) * kRows);
    while (d.size() < size_t(kRowBytes) * kRows) {
        size_t len = kind == 1 ? 1 : kind == 2 ? 50 + rng() % 400 : (rng() % 4 == 0 ? 2 + rng() % 60 : 1);
        d.insert(d.end(), len, uint8_t(rng()));
    }
    d.resize(size_t(kRowBytes) * kRows);
    return d;
}

// kRows bitmap rows of rowBytes bytes with runs of mean length meanRun
// pixels; meanRun 0 makes scanned-page rows: white stretches of 500 to
// 5000 pixels between blocks of text (runs of 1 to 24 pixels).
Bytes bitRows(unsigned meanRun, size_t rowBytes = kRowBytes) {
    std::mt19937 rng(7);
    Bytes d(rowBytes * kRows, 0);
    size_t width = rowBytes * 8;
    for (int r = 0; r < kRows; ++r) {
        uint8_t* row = d.data() + size_t(r) * rowBytes;
        bool colour = false;
        size_t blockEnd = 0;  // end of the current text block (page rows)
        for (size_t x = 0; x < width;) {
            size_t len = 1 + rng() % (2 * (meanRun ? meanRun : 12));
            if (!meanRun && x >= blockEnd) {
                if (!colour) len = 500 + rng() % 4500;
                blockEnd = x + len + 200 + rng() % 3000;
            }
            size_t end = std::min(width, x + len);
            if (colour)
                for (; x < end; ++x) row[x >> 3] |= uint8_t(0x80 >> (x & 7));
            x = end;
            colour = !colour;
        }
    }
    return d;
}

void PackByteEncode(benchmark::State& state) {
    Bytes src = byteRows(int(state.range(0)));
    Bytes dst(2 * kRowBytes + 2);
    for (auto _ : state) {
        for (int r = 0; r < kRows; ++r) {
            int len;
            korImage_packByteBuffer(dst.data(), &len, src.data() + size_t(r) * kRowBytes, kRowBytes);
            benchmark::DoNotOptimize(len);
        }
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kRowBytes * kRows);
}
BENCHMARK(PackByteEncode)->Arg(0)->Arg(1)->Arg(2)->ArgName("kind");

void PackByteDecode(benchmark::State& state) {
    Bytes src = byteRows(int(state.range(0)));
    std::vector<Bytes> enc(kRows);
    for (int r = 0; r < kRows; ++r) {
        enc[size_t(r)].resize(2 * kRowBytes + 2);
        int len;
        korImage_packByteBuffer(enc[size_t(r)].data(), &len, src.data() + size_t(r) * kRowBytes, kRowBytes);
        enc[size_t(r)].resize(size_t(len));
    }
    Bytes dst(kRowBytes);
    for (auto _ : state) {
        for (int r = 0; r < kRows; ++r) {
            korImage_unpackByteBuffer(dst.data(), enc[size_t(r)].data(), kRowBytes);
            benchmark::DoNotOptimize(dst.data());
        }
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kRowBytes * kRows);
}
BENCHMARK(PackByteDecode)->Arg(0)->Arg(1)->Arg(2)->ArgName("kind");

// Run-length rows: arguments mean run (0: scanned page) and row bytes.
void RunLengthEncode(benchmark::State& state) {
    size_t rowBytes = size_t(state.range(1));
    int width = int(rowBytes * 8);
    Bytes src = bitRows(unsigned(state.range(0)), rowBytes);
    std::vector<uint16_t> runs(size_t(width) + 1);
    for (auto _ : state) {
        for (int r = 0; r < kRows; ++r) {
            int len;
            korImage_runLengthEncodeBitMapRow(runs.data(), &len, src.data() + size_t(r) * rowBytes, width);
            benchmark::DoNotOptimize(len);
        }
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(rowBytes) * kRows);
}

void RunLengthDecode(benchmark::State& state) {
    size_t rowBytes = size_t(state.range(1));
    int width = int(rowBytes * 8);
    Bytes src = bitRows(unsigned(state.range(0)), rowBytes);
    std::vector<std::vector<uint16_t>> runs(kRows);
    for (int r = 0; r < kRows; ++r) {
        runs[size_t(r)].resize(size_t(width) + 1);
        int len;
        korImage_runLengthEncodeBitMapRow(runs[size_t(r)].data(), &len, src.data() + size_t(r) * rowBytes, width);
    }
    Bytes dst(rowBytes);
    for (auto _ : state) {
        for (int r = 0; r < kRows; ++r) {
            korImage_runLengthDecodeBitMapRow(dst.data(), runs[size_t(r)].data(), width);
            benchmark::DoNotOptimize(dst.data());
        }
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(rowBytes) * kRows);
}

// Noise, line art, sparse and scanned-page rows of 4096 bytes, and fax-width
// rows (1728 pixels) of noise and line art.
void runLengthArgs(benchmark::internal::Benchmark* b) {
    b->ArgNames({"meanRun", "rowBytes"});
    for (int mean : {3, 12, 200, 0}) b->Args({mean, kRowBytes});
    for (int mean : {3, 12}) b->Args({mean, 216});
}
BENCHMARK(RunLengthEncode)->Apply(runLengthArgs);
BENCHMARK(RunLengthDecode)->Apply(runLengthArgs);

// Rates count the unpacked values (one byte each).
void PackBits(benchmark::State& state) {
    int bits = int(state.range(0));
    std::mt19937 rng(1);
    Bytes values(size_t(kRowBytes) * 64);
    for (auto& v : values) v = uint8_t(rng() & ((1u << bits) - 1));
    Bytes packed(values.size());
    for (auto _ : state) {
        korImage_packBuffer(packed.data(), values.data(), bits, int(values.size()));
        benchmark::DoNotOptimize(packed.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(values.size()));
}
BENCHMARK(PackBits)->Arg(1)->Arg(2)->Arg(4)->Arg(8)->ArgName("bits");

void UnpackBits(benchmark::State& state) {
    int bits = int(state.range(0));
    std::mt19937 rng(1);
    Bytes packed(size_t(kRowBytes) * 64);
    for (auto& v : packed) v = uint8_t(rng());
    Bytes values(packed.size() * 8 / size_t(bits));
    for (auto _ : state) {
        korImage_unpackBuffer(values.data(), packed.data(), bits, int(values.size()));
        benchmark::DoNotOptimize(values.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(values.size()));
}
BENCHMARK(UnpackBits)->Arg(1)->Arg(2)->Arg(4)->Arg(8)->ArgName("bits");

}  // namespace
