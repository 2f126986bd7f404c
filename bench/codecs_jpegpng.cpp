// JPEG and PNG decode and encode of a 4096 x 4096 photograph: the library's
// readers and writers against a bare libjpeg or libpng loop doing the same
// work with the same settings (one row at a time, RGB, 8 bits; PNG
// interlaced as the writer is by default, and not; decoders fill a freshly
// allocated whole image, as the adapter does). The difference is the
// adapter's cost: layout conversion, row polling and bookkeeping.
#include <benchmark/benchmark.h>
#include <jpeglib.h>
#include <png.h>
#include <unistd.h>

#include <csetjmp>
#include <memory>
#include <cstdio>
#include <string>
#include <vector>

#include "codecs/libs/jpeg.h"
#include "codecs/libs/png.h"
#include "imagelib/imagelib.h"
#include "pixels_photo.h"

namespace {

constexpr int kSide = 4096;

const std::vector<uint8_t>& photo() {
    static const std::vector<uint8_t> p = ilbench::syntheticPhoto(kSide, kSide);
    return p;
}

const std::vector<uint8_t>& interleavedPhoto() {
    static const std::vector<uint8_t> p = [] {
        const std::vector<uint8_t>& planes = photo();
        std::vector<uint8_t> rgb(planes.size());
        for (size_t y = 0; y < kSide; ++y)
            for (size_t x = 0; x < kSide; ++x)
                for (size_t c = 0; c < 3; ++c) rgb[(y * kSide + x) * 3 + c] = planes[(y * 3 + c) * kSide + x];
        return rgb;
    }();
    return p;
}

std::string tempPath(const char* name) {
    const char* dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    return std::string(dir) + "/imagelib_bench_" + std::to_string(getpid()) + "_" + name;
}

const ImageSize kSize{kSide, kSide};

// Removes the benchmark's files when the program ends.
struct TempFiles {
    std::vector<std::string> paths;
    ~TempFiles() {
        for (const std::string& p : paths) std::remove(p.c_str());
    }
};
TempFiles g_temp;

const std::string& jpegFile() {
    static const std::string f = [] {
        std::string path = tempPath("photo.jpg");
        g_temp.paths.push_back(path);
        jpegFile_create(path.c_str(), &kSize, photo().data(), 75, COLORMODE_RGB, 0, nullptr);
        return path;
    }();
    return f;
}

const std::string& pngFile(bool interlaced) {
    static std::string files[2];
    std::string& f = files[interlaced];
    if (f.empty()) {
        f = tempPath(interlaced ? "adam7.png" : "plain.png");
        g_temp.paths.push_back(f);
        setenv("KV_PNG_INTERLACE", interlaced ? "1" : "0", 1);
        pngFile_create(f.c_str(), photo().data(), &kSize, COLORMODE_RGB, IMAGEFORMAT_RGB, nullptr, nullptr, nullptr,
                       0, nullptr, nullptr);
        unsetenv("KV_PNG_INTERLACE");
    }
    return f;
}

// ---- JPEG -------------------------------------------------------------------

struct JpegError {
    jpeg_error_mgr pub;
    std::jmp_buf jump;
};
[[noreturn]] void jpegFail(j_common_ptr c) { std::longjmp(reinterpret_cast<JpegError*>(c->err)->jump, 1); }

void JpegDecodeAdapter(benchmark::State& state) {
    const std::string& f = jpegFile();
    for (auto _ : state) {
        void* out = nullptr;
        ImageSize s{};
        uint8_t r[256], g[256], b[256];
        int n = 0;
        if (jpegFile_read(&out, &s, r, g, b, &n, f.c_str(), 0, 0, 0, 256, nullptr) != 0) state.SkipWithError("read");
        korImage_freeImage(out, &s, IMAGEFORMAT_RGB);
    }
}

void JpegDecodeBare(benchmark::State& state) {
    const std::string& f = jpegFile();
    for (auto _ : state) {
        // A whole image in memory, as the adapter hands out.
        std::unique_ptr<uint8_t[]> out(new uint8_t[size_t(kSide) * kSide * 3]);
        FILE* in = std::fopen(f.c_str(), "rb");
        jpeg_decompress_struct d;
        JpegError err;
        d.err = jpeg_std_error(&err.pub);
        err.pub.error_exit = jpegFail;
        if (setjmp(err.jump)) {
            state.SkipWithError("libjpeg");
            break;
        }
        jpeg_create_decompress(&d);
        jpeg_stdio_src(&d, in);
        jpeg_read_header(&d, TRUE);
        d.out_color_space = JCS_RGB;
        jpeg_start_decompress(&d);
        while (d.output_scanline < d.output_height) {
            JSAMPROW row = out.get() + size_t(d.output_scanline) * kSide * 3;
            jpeg_read_scanlines(&d, &row, 1);
        }
        jpeg_finish_decompress(&d);
        jpeg_destroy_decompress(&d);
        std::fclose(in);
        benchmark::DoNotOptimize(out.get());
    }
}

void JpegEncodeAdapter(benchmark::State& state) {
    const std::string f = tempPath("enc.jpg");
    for (auto _ : state)
        if (jpegFile_create(f.c_str(), &kSize, photo().data(), 75, COLORMODE_RGB, 0, nullptr) != 0)
            state.SkipWithError("write");
    std::remove(f.c_str());
}

void JpegEncodeBare(benchmark::State& state) {
    const std::string f = tempPath("enc_bare.jpg");
    const std::vector<uint8_t>& rgb = interleavedPhoto();
    for (auto _ : state) {
        FILE* out = std::fopen(f.c_str(), "wb");
        jpeg_compress_struct c;
        JpegError err;
        c.err = jpeg_std_error(&err.pub);
        err.pub.error_exit = jpegFail;
        if (setjmp(err.jump)) {
            state.SkipWithError("libjpeg");
            break;
        }
        jpeg_create_compress(&c);
        jpeg_stdio_dest(&c, out);
        c.image_width = c.image_height = kSide;
        c.input_components = 3;
        c.in_color_space = JCS_RGB;
        jpeg_set_defaults(&c);
        jpeg_set_quality(&c, 75, TRUE);
        jpeg_start_compress(&c, TRUE);
        while (c.next_scanline < c.image_height) {
            JSAMPROW row = const_cast<uint8_t*>(rgb.data()) + size_t(c.next_scanline) * kSide * 3;
            jpeg_write_scanlines(&c, &row, 1);
        }
        jpeg_finish_compress(&c);
        jpeg_destroy_compress(&c);
        std::fclose(out);
    }
    std::remove(f.c_str());
}

// ---- PNG --------------------------------------------------------------------

void PngDecodeAdapter(benchmark::State& state) {
    const std::string& f = pngFile(state.range(0) != 0);
    for (auto _ : state) {
        void* out = nullptr;
        ImageSize s{};
        uint8_t r[256], g[256], b[256];
        int n = 0;
        if (pngFile_read(&out, &s, r, g, b, &n, f.c_str(), COLORMODE_RGB, 0, nullptr) != 0)
            state.SkipWithError("read");
        korImage_freeImage(out, &s, IMAGEFORMAT_RGB);
    }
}

void PngDecodeBare(benchmark::State& state) {
    const std::string& f = pngFile(state.range(0) != 0);
    std::vector<png_bytep> rows(kSide);
    for (auto _ : state) {
        std::unique_ptr<uint8_t[]> out(new uint8_t[size_t(kSide) * kSide * 3]);
        for (int y = 0; y < kSide; ++y) rows[size_t(y)] = out.get() + size_t(y) * kSide * 3;
        FILE* in = std::fopen(f.c_str(), "rb");
        png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
        png_infop info = png_create_info_struct(png);
        if (setjmp(png_jmpbuf(png))) {
            state.SkipWithError("libpng");
            break;
        }
        png_init_io(png, in);
        png_read_info(png, info);
        const int passes = png_set_interlace_handling(png);
        png_read_update_info(png, info);
        for (int pass = 0; pass < passes; ++pass)
            for (int y = 0; y < kSide; ++y) png_read_row(png, rows[size_t(y)], nullptr);
        png_read_end(png, nullptr);
        png_destroy_read_struct(&png, &info, nullptr);
        std::fclose(in);
        benchmark::DoNotOptimize(out.get());
    }
}

void PngEncodeAdapter(benchmark::State& state) {
    const std::string f = tempPath("enc.png");
    setenv("KV_PNG_INTERLACE", state.range(0) ? "1" : "0", 1);
    for (auto _ : state)
        if (pngFile_create(f.c_str(), photo().data(), &kSize, COLORMODE_RGB, IMAGEFORMAT_RGB, nullptr, nullptr,
                           nullptr, 0, nullptr, nullptr) != 0)
            state.SkipWithError("write");
    unsetenv("KV_PNG_INTERLACE");
    std::remove(f.c_str());
}

void PngEncodeBare(benchmark::State& state) {
    const std::string f = tempPath("enc_bare.png");
    const std::vector<uint8_t>& rgb = interleavedPhoto();
    const int interlace = state.range(0) ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE;
    for (auto _ : state) {
        FILE* out = std::fopen(f.c_str(), "wb");
        png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
        png_infop info = png_create_info_struct(png);
        if (setjmp(png_jmpbuf(png))) {
            state.SkipWithError("libpng");
            break;
        }
        png_init_io(png, out);
        png_set_IHDR(png, info, kSide, kSide, 8, PNG_COLOR_TYPE_RGB, interlace, 0, 0);
        png_write_info(png, info);
        const int passes = interlace ? png_set_interlace_handling(png) : 1;
        for (int pass = 0; pass < passes; ++pass)
            for (int y = 0; y < kSide; ++y) {
                png_bytep row = const_cast<uint8_t*>(rgb.data()) + size_t(y) * kSide * 3;
                png_write_rows(png, &row, 1);
            }
        png_write_end(png, info);
        png_destroy_write_struct(&png, &info);
        std::fclose(out);
    }
    std::remove(f.c_str());
}

}  // namespace

BENCHMARK(JpegDecodeAdapter)->Unit(benchmark::kMillisecond);
BENCHMARK(JpegDecodeBare)->Unit(benchmark::kMillisecond);
BENCHMARK(JpegEncodeAdapter)->Unit(benchmark::kMillisecond);
BENCHMARK(JpegEncodeBare)->Unit(benchmark::kMillisecond);
BENCHMARK(PngDecodeAdapter)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(PngDecodeBare)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(PngEncodeAdapter)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(PngEncodeBare)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(2);
