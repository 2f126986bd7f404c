// TIFF decode and encode of a 4096 x 4096 photograph through the library,
// against the same work done by a direct libtiff loop, so that the
// adapter's share of the time is known.
//
// Decode: korImage_readFileToRGB (libtiff's RGBA interface, spread into row
// planes) against (a) libtiff's own whole-image RGBA read and (b) a
// scanline loop that splits the interleaved rows into planes. Encode:
// korImage_extCreateFileFromRGB against a scanline loop that interleaves
// the planes. Files: uncompressed and LZW, strips of 8 KB.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "imagelib/imagelib.h"
#include "pixels_photo.h"

#include <tiffio.h>

namespace {

constexpr int kSide = 4096;

const std::vector<uint8_t>& photo() {
    static const std::vector<uint8_t> rgb = ilbench::syntheticPhoto(kSide, kSide);
    return rgb;
}

std::string tempName(const char* name) { return std::string("/tmp/imagelib_bench_") + name; }

// The direct libtiff writer: RGB interleaved, 8 KB strips.
bool bareWrite(const std::string& path, int compression) {
    TIFF* t = TIFFOpen(path.c_str(), "w");
    if (!t) return false;
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, uint32_t(kSide));
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, uint32_t(kSide));
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 3);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
    TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(t, TIFFTAG_COMPRESSION, compression);
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, 1u);
    const std::vector<uint8_t>& rgb = photo();
    std::vector<uint8_t> line(size_t(kSide) * 3);
    bool ok = true;
    for (int y = 0; y < kSide && ok; ++y) {
        const uint8_t* r = rgb.data() + size_t(y) * kSide * 3;
        for (int x = 0; x < kSide; ++x) {
            line[3 * size_t(x)] = r[x];
            line[3 * size_t(x) + 1] = r[kSide + x];
            line[3 * size_t(x) + 2] = r[2 * kSide + x];
        }
        ok = TIFFWriteScanline(t, line.data(), uint32_t(y), 0) >= 0;
    }
    TIFFClose(t);
    return ok;
}

const std::string& sourceFile(int compression) {
    static std::string none, lzw;
    std::string& s = compression == COMPRESSION_LZW ? lzw : none;
    if (s.empty()) {
        s = tempName(compression == COMPRESSION_LZW ? "src_lzw.tif" : "src_none.tif");
        bareWrite(s, compression);
    }
    return s;
}

void Decode_Library(benchmark::State& state) {
    const std::string& path = sourceFile(int(state.range(0)));
    for (auto _ : state) {
        uint8_t* rgb = nullptr;
        ImageSize size{};
        if (korImage_readFileToRGB(&rgb, &size, path.c_str(), 3, nullptr, nullptr) != 0) state.SkipWithError("read");
        benchmark::DoNotOptimize(rgb);
        korImage_freeImage(rgb, &size, IMAGEFORMAT_RGB);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kSide * kSide * 3);
}

void Decode_LibtiffRGBA(benchmark::State& state) {
    const std::string& path = sourceFile(int(state.range(0)));
    for (auto _ : state) {
        // A fresh image each time, as every library call hands out.
        auto* raster = static_cast<uint32_t*>(std::malloc(size_t(kSide) * kSide * 4));
        TIFF* t = TIFFOpen(path.c_str(), "r");
        if (!t || !TIFFReadRGBAImageOriented(t, kSide, kSide, raster, ORIENTATION_TOPLEFT, 1))
            state.SkipWithError("read");
        TIFFClose(t);
        benchmark::DoNotOptimize(raster);
        std::free(raster);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kSide * kSide * 3);
}

void Decode_LibtiffScanlines(benchmark::State& state) {
    const std::string& path = sourceFile(int(state.range(0)));
    std::vector<uint8_t> line(size_t(kSide) * 3);
    for (auto _ : state) {
        auto* out = static_cast<uint8_t*>(std::malloc(size_t(kSide) * kSide * 3));
        TIFF* t = TIFFOpen(path.c_str(), "r");
        for (int y = 0; t && y < kSide; ++y) {
            if (TIFFReadScanline(t, line.data(), uint32_t(y), 0) < 0) state.SkipWithError("read");
            uint8_t* r = out + size_t(y) * kSide * 3;
            for (int x = 0; x < kSide; ++x) {
                r[x] = line[3 * size_t(x)];
                r[kSide + x] = line[3 * size_t(x) + 1];
                r[2 * kSide + x] = line[3 * size_t(x) + 2];
            }
        }
        TIFFClose(t);
        benchmark::DoNotOptimize(out);
        std::free(out);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kSide * kSide * 3);
}

void Encode_Library(benchmark::State& state) {
    const std::string path = tempName("out_lib.tif");
    const int code = state.range(0) == COMPRESSION_LZW ? -5 : 0;
    const ImageSize size{kSide, kSide};
    for (auto _ : state) {
        if (korImage_extCreateFileFromRGB(path.c_str(), 3, COLORMODE_RGB, &size, photo().data(), code, 0, nullptr))
            state.SkipWithError("write");
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kSide * kSide * 3);
    std::remove(path.c_str());
}

void Encode_LibtiffScanlines(benchmark::State& state) {
    const std::string path = tempName("out_bare.tif");
    for (auto _ : state)
        if (!bareWrite(path, int(state.range(0)))) state.SkipWithError("write");
    state.SetBytesProcessed(int64_t(state.iterations()) * kSide * kSide * 3);
    std::remove(path.c_str());
}

}  // namespace

// Argument: the TIFF compression (1 none, 5 LZW).
BENCHMARK(Decode_Library)->Arg(COMPRESSION_NONE)->Arg(COMPRESSION_LZW)->Unit(benchmark::kMillisecond);
BENCHMARK(Decode_LibtiffRGBA)->Arg(COMPRESSION_NONE)->Arg(COMPRESSION_LZW)->Unit(benchmark::kMillisecond);
BENCHMARK(Decode_LibtiffScanlines)->Arg(COMPRESSION_NONE)->Arg(COMPRESSION_LZW)->Unit(benchmark::kMillisecond);
BENCHMARK(Encode_Library)->Arg(COMPRESSION_NONE)->Arg(COMPRESSION_LZW)->Unit(benchmark::kMillisecond);
BENCHMARK(Encode_LibtiffScanlines)->Arg(COMPRESSION_NONE)->Arg(COMPRESSION_LZW)->Unit(benchmark::kMillisecond);
