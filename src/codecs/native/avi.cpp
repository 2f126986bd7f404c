// AVI movies: headers and frames are written as they come, the index and
// the counts when the movie is closed.
//
// Layout: RIFF 'AVI ' { LIST 'hdrl' { 'avih', LIST 'strl' { 'strh', 'strf' } },
// LIST 'movi' { '00db' x N }, 'idx1' }. Every frame chunk has the same size
// F = row stride x height, a multiple of 32 bytes (height a multiple of 8,
// stride a multiple of 4), so no chunk needs a pad byte. Until the movie is
// closed the RIFF and 'movi' sizes and the frame counts are 0, which
// players read as "to the end of the file": a movie that is never closed
// still plays its complete frames.
#include "codecs/native/avi.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "imagelib/host.h"
#include "imagelib/io.h"
#include "internal/bytes.h"
#include "internal/checked.h"
#include "internal/file.h"
#include "internal/scratch.h"

namespace {

constexpr size_t kHeaderBytes = 224;  // up to and with the 'movi' list type
constexpr size_t kMoviSizeAt = 216;
constexpr size_t kRiffSizeAt = 4;
constexpr size_t kTotalFramesAt = 48;
constexpr size_t kLengthAt = 140;
constexpr uint32_t kKeyFrame = 0x10;
constexpr uint32_t kHasIndex = 0x10;

void fourcc(uint8_t* p, const char (&s)[5]) { std::memcpy(p, s, 4); }

}  // namespace

struct AviWriter {
    il::File file;
    int width = 0, height = 0;  // height rounded down to a multiple of 8
    int delay = 0;
    size_t stride = 0;
    size_t frameBytes = 0;
    il::Scratch<uint8_t> frame;  // one frame as stored, bottom row first
    uint32_t frames = 0;
    uint64_t limit = kAviMaxFileBytes;
    int status = 0;  // the last failed operation

    // File length with n frames and the index.
    uint64_t lengthWith(uint64_t n) const { return kHeaderBytes + 8 + n * (frameBytes + 24); }

    int writeFrame() {
        if (status) return kAviFailed;
        if (lengthWith(uint64_t(frames) + 1) > limit) {
            status = IMGERR_WRITEFAILED;
            return kAviFailed;
        }
        uint8_t h[8];
        fourcc(h, "00db");
        il::put32le(h + 4, uint32_t(frameBytes));
        if (!file.seek(int64_t(kHeaderBytes + uint64_t(frames) * (frameBytes + 8))) || !file.write(h, 8) ||
            !file.write(frame.get(), frameBytes)) {
            status = IMGERR_WRITEFAILED;
            return kAviFailed;
        }
        ++frames;
        return 0;
    }

    int writeHeaders() {
        uint8_t b[kHeaderBytes] = {};
        uint32_t rate, scale;
        imageAvi_rate(delay, &rate, &scale);
        const uint32_t f = uint32_t(frameBytes);
        fourcc(b, "RIFF");
        fourcc(b + 8, "AVI ");
        fourcc(b + 12, "LIST");
        il::put32le(b + 16, 192);
        fourcc(b + 20, "hdrl");
        fourcc(b + 24, "avih");
        il::put32le(b + 28, 56);
        il::put32le(b + 32, uint32_t((int64_t(delay) * 1000000 + 30) / 60));
        il::put32le(b + 36, uint32_t(std::min<uint64_t>((uint64_t(f + 8) * 60 + delay - 1) / delay, UINT32_MAX)));
        il::put32le(b + 44, kHasIndex);
        il::put32le(b + 56, 1);
        il::put32le(b + 60, f);
        il::put32le(b + 64, uint32_t(width));
        il::put32le(b + 68, uint32_t(height));
        fourcc(b + 88, "LIST");
        il::put32le(b + 92, 116);
        fourcc(b + 96, "strl");
        fourcc(b + 100, "strh");
        il::put32le(b + 104, 56);
        fourcc(b + 108, "vids");
        il::put32le(b + 128, scale);
        il::put32le(b + 132, rate);
        il::put32le(b + 144, f);
        il::put32le(b + 148, 0xFFFFFFFF);
        if (width <= 0x7FFF && height <= 0x7FFF) {  // 16-bit frame rectangle
            il::put16le(b + 160, uint32_t(width));
            il::put16le(b + 162, uint32_t(height));
        }
        fourcc(b + 164, "strf");
        il::put32le(b + 168, 40);
        il::put32le(b + 172, 40);
        il::put32le(b + 176, uint32_t(width));
        il::put32le(b + 180, uint32_t(height));  // positive: rows bottom up
        il::put16le(b + 184, 1);
        il::put16le(b + 186, 24);
        il::put32le(b + 192, f);
        fourcc(b + 212, "LIST");
        fourcc(b + 220, "movi");
        return file.write(b, sizeof b) ? 0 : IMGERR_WRITEFAILED;
    }

    // Index and counts. The index goes after the last complete frame.
    int finish() {
        const uint64_t end = kHeaderBytes + uint64_t(frames) * (frameBytes + 8);
        il::Scratch<uint8_t> index(8 + 16 * size_t(frames), il::tag("AvIx"));
        if (!index.ok()) return IMGERR_NOMEMORY;
        uint8_t* p = index.get();
        fourcc(p, "idx1");
        il::put32le(p + 4, 16 * frames);
        for (uint32_t i = 0; i < frames; ++i) {
            uint8_t* e = p + 8 + 16 * size_t(i);
            fourcc(e, "00db");
            il::put32le(e + 4, kKeyFrame);
            il::put32le(e + 8, uint32_t(4 + uint64_t(i) * (frameBytes + 8)));
            il::put32le(e + 12, uint32_t(frameBytes));
        }
        if (!file.seek(int64_t(end)) || !file.write(p, index.size())) return IMGERR_WRITEFAILED;
        uint8_t v[4];
        auto patch = [&](size_t at, uint64_t value) {
            il::put32le(v, uint32_t(value));
            return file.seek(int64_t(at)) && file.write(v, 4);
        };
        const uint64_t length = end + index.size();
        if (!patch(kRiffSizeAt, length - 8) || !patch(kMoviSizeAt, end - (kMoviSizeAt + 4)) ||
            !patch(kTotalFramesAt, frames) || !patch(kLengthAt, frames))
            return IMGERR_WRITEFAILED;
        return 0;
    }
};

void imageAvi_rate(int delay, uint32_t* rate, uint32_t* scale) noexcept {
    if (delay < 1) delay = 1;
    if (60 % delay == 0) {
        *rate = uint32_t(60 / delay);
        *scale = 1;
    } else {
        *rate = 60;
        *scale = uint32_t(delay);
    }
}

int imageAvi_load() noexcept { return 0; }

int imageAvi_createLimited(AviWriter** out, const ImageSize* size, int delay, const char* path,
                           uint64_t maxFileBytes) noexcept {
    if (!out) return IMGERR_BADARG;
    *out = nullptr;
    if (!size || !path || delay < 1) return IMGERR_BADARG;
    const int height = size->y / 8 * 8;
    const size_t stride = (3 * size_t(std::max(size->x, 0)) + 3) & ~size_t(3);
    size_t bytes;
    if (size->x < 1 || height < 1 || !il::imageBytes(int64_t(stride), height, 1, &bytes)) return IMGERR_BADARG;
    std::unique_ptr<AviWriter> wr(new (std::nothrow) AviWriter);
    if (!wr) return IMGERR_NOMEMORY;
    wr->width = size->x;
    wr->height = height;
    wr->delay = delay;
    wr->stride = stride;
    wr->frameBytes = bytes;
    wr->limit = std::min(maxFileBytes, kAviMaxFileBytes);
    if (!wr->frame.allocate(bytes, il::tag("AvFr"), true)) return IMGERR_NOMEMORY;
    wr->file = il::File::open(path, "wb+");
    if (!wr->file.ok() || wr->writeHeaders() != 0) return kAviFailed;
    *out = wr.release();
    return 0;
}

int imageAvi_create(AviWriter** out, const ImageSize* size, int delay, const char* path) noexcept {
    return imageAvi_createLimited(out, size, delay, path, kAviMaxFileBytes);
}

int imageAvi_writeFrameFromRGB(AviWriter* wr, const uint8_t* rgb, StopFunction stop) noexcept {
    if (!wr || !rgb) return kAviFailed;
    const int w = wr->width;
    const size_t planeRow = 3 * size_t(w);
    for (int y = wr->height - 1; y >= 0; --y) {
        if (imageUtil_stopped(stop)) break;
        const uint8_t* r = rgb + size_t(y) * planeRow;
        uint8_t* d = wr->frame.get() + size_t(wr->height - 1 - y) * wr->stride;
        for (int x = 0; x < w; ++x, d += 3) {
            d[0] = r[2 * w + x];
            d[1] = r[w + x];
            d[2] = r[x];
        }
    }
    return wr->writeFrame();
}

int imageAvi_writeFrameFromMap(AviWriter* wr, const uint8_t* map, const uint8_t* red, const uint8_t* green,
                               const uint8_t* blue, int, const ImageSize* size, StopFunction stop) noexcept {
    if (!wr || !map || !red || !green || !blue) return kAviFailed;
    const int w = wr->width;
    if (size && (size->x != w || size->y < wr->height)) return IMGERR_BADARG;
    const size_t mapRow = size_t(w);
    for (int y = wr->height - 1; y >= 0; --y) {
        if (imageUtil_stopped(stop)) break;
        const uint8_t* m = map + size_t(y) * mapRow;
        uint8_t* d = wr->frame.get() + size_t(wr->height - 1 - y) * wr->stride;
        for (int x = 0; x < w; ++x, d += 3) {
            d[0] = blue[m[x]];
            d[1] = green[m[x]];
            d[2] = red[m[x]];
        }
    }
    return wr->writeFrame();
}

int imageAvi_close(AviWriter* writer) noexcept {
    std::unique_ptr<AviWriter> wr(writer);
    if (!wr) return kAviFailed;
    int st = wr->finish();
    if (!wr->file.close() && !st) st = IMGERR_WRITEFAILED;
    return wr->status ? wr->status : st;
}

extern "C" IMAGELIB_API int korImage_isAVIAvailable() noexcept { return imageAvi_load() == 0 ? 1 : 0; }
