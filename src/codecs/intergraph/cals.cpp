// CALS and fax files over the Group 4 coder.
#include "codecs/intergraph/cals.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>

#include "codecs/intergraph/ccitt.h"
#include "imagelib/host.h"
#include "imagelib/pixels.h"
#include "internal/checked.h"
#include "internal/file.h"
#include "pixels/rows.h"

using il::File;
using il::Scratch;

namespace {

constexpr int kHeaderBytes = 2048;
constexpr int kRecordBytes = 128;
constexpr int kFaxWidth = 1728, kFaxHeight = 84;
constexpr int kNoSize = IMGSTAT_NO_BACKGROUND;  // 32768: no usable "rpelcnt"

struct KorFree {
    void operator()(uint8_t* p) const { dlmSystem_korFree(p); }
};
using Owned = std::unique_ptr<uint8_t, KorFree>;

void twoColours(uint8_t* red, uint8_t* green, uint8_t* blue, int* count, int invert) {
    const uint8_t first = invert ? 255 : 0;
    red[0] = green[0] = blue[0] = first;
    red[1] = green[1] = blue[1] = uint8_t(255 - first);
    *count = 2;
}

// The code stream from offset to the end of the file, in memory.
int readStream(Scratch<uint8_t>& data, size_t* length, const char* path, long offset) {
    File f = File::open(path, "rb");
    if (!f.ok()) return IMGERR_OPENFAILED;
    const int64_t size = f.size();
    if (size < 0 || size < offset || !f.seek(offset)) return IMGERR_READFAILED;
    *length = size_t(size - offset);
    if (!data.allocate(*length, il::tag("CLst"))) return IMGERR_NOMEMORY;
    if (!f.read(data.get(), *length)) return IMGERR_READFAILED;
    return 0;
}

// Pixels a Group 4 stream may claim per byte (a blank line codes in a bit).
bool plausible(const ImageSize& s, size_t length) {
    return int64_t(s.y) <= 8 * int64_t(length) + 8 && uint64_t(s.x) * uint64_t(s.y) <= 65536 * uint64_t(length + 1);
}

struct MapSink {
    uint8_t* map;
    int width;
};
int mapRow(void* u, int y, const uint8_t* bits) {
    auto* s = static_cast<MapSink*>(u);
    korImage_unpackBuffer(s->map + size_t(s->width) * size_t(y), bits, 1, s->width);
    return 0;
}

struct BitSink {
    uint8_t* out;
    size_t stride;
    size_t rowBytes;
};
int bitRow(void* u, int y, const uint8_t* bits) {
    auto* s = static_cast<BitSink*>(u);
    std::memcpy(s->out + s->stride * size_t(y), bits, s->rowBytes);
    return 0;
}

int readMap(void** map, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue, int* count, const char* path,
            int invert, StopFunction stop, ImageSize sz, long offset) {
    Scratch<uint8_t> data;
    size_t len = 0;
    if (int st = readStream(data, &len, path, offset)) return st;
    size_t bytes = 0;
    if (!il::imageBytes(sz.x, sz.y, 1, &bytes) || !plausible(sz, len) ||
        !il::withinPixelLimit(sz.x, sz.y)) return IMGERR_BADFILE;
    Owned out(static_cast<uint8_t*>(dlmSystem_korCalloc(bytes, 1)));
    if (!out) return IMGERR_NOMEMORY;
    MapSink sink{out.get(), sz.x};
    if (int st = il::ccitt::decode(data.get(), len, sz.x, sz.y, false, stop, mapRow, &sink)) return st;
    twoColours(red, green, blue, count, invert);
    *map = out.release();
    if (size) *size = sz;
    return 0;
}

}  // namespace

int cals_readHeader(ImageSize* size, int* colourMode, const char* path) noexcept {
    File f = File::open(path, "rb");
    if (!f.ok()) return IMGERR_OPENFAILED;
    char h[kHeaderBytes];
    const size_t got = f.readSome(h, sizeof h);
    f.close();
    static const char kKey[] = "rpelcnt";
    for (size_t at = 0; at < got && got - at > sizeof kKey - 1; at += kRecordBytes) {
        if (std::memcmp(h + at, kKey, sizeof kKey - 1) != 0) continue;
        char text[kRecordBytes] = {};
        if (at + 9 < got) std::memcpy(text, h + at + 9, std::min<size_t>(kRecordBytes - 10, got - at - 9));
        long w = 0, ht = 0;
        if (std::sscanf(text, "%ld,%ld", &w, &ht) != 2 || w <= 0 || ht <= 0) return kNoSize;
        if (w > INT32_MAX || ht > INT32_MAX) return IMGERR_BADFILE;
        if (size) *size = ImageSize{int32_t(w), int32_t(ht)};
        if (colourMode) *colourMode = COLORMODE_BILEVEL;
        return 0;
    }
    return kNoSize;
}

int cals_readFileToMap(void** map, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue, int* count,
                       const char* path, int invert, StopFunction stop) noexcept {
    ImageSize sz{};
    if (int st = cals_readHeader(&sz, nullptr, path)) return st;
    return readMap(map, size, red, green, blue, count, path, invert, stop, sz, kHeaderBytes);
}

int fax_readFileInfo(ImageSize* size, int* colourMode, const char* path) noexcept {
    File f = File::open(path, "rb");
    if (!f.ok()) return IMGERR_OPENFAILED;
    if (size) *size = ImageSize{kFaxWidth, kFaxHeight};
    if (colourMode) *colourMode = COLORMODE_BILEVEL;
    return 0;
}

int fax_readFileToMap(void** map, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue, int* count,
                      const char* path, int invert, StopFunction stop) noexcept {
    return readMap(map, size, red, green, blue, count, path, invert, stop, ImageSize{kFaxWidth, kFaxHeight}, 0);
}

namespace {

int readBits(void** bitmap, ImageSize sz, bool runLength, const char* path, long offset, size_t stride,
             StopFunction stop) {
    Scratch<uint8_t> data;
    size_t len = 0;
    if (int st = readStream(data, &len, path, offset)) return st;
    const size_t rowBytes = (size_t(sz.x) + 7) >> 3;
    size_t bytes = 0;
    if (!il::imageBytes(int64_t(stride), sz.y, 1, &bytes) || !plausible(sz, len) ||
        !il::withinPixelLimit(sz.x, sz.y)) return IMGERR_BADFILE;
    Owned out(static_cast<uint8_t*>(dlmSystem_korCalloc(bytes, 1)));
    if (!out) return IMGERR_NOMEMORY;
    BitSink sink{out.get(), stride, rowBytes};
    if (int st = il::ccitt::decode(data.get(), len, sz.x, sz.y, false, stop, bitRow, &sink)) return st;
    if (runLength) {
        uint16_t** rows = nullptr;
        if (int st = korImage_runLengthEncodeBitMap(&rows, out.get(), &sz)) return st;
        *bitmap = rows;
        return 0;
    }
    *bitmap = out.release();
    return 0;
}

}  // namespace

int cals_readFileToBitMap(void** bitmap, ImageSize* size, int runLength, const char* path,
                          StopFunction stop) noexcept {
    ImageSize sz{};
    if (int st = cals_readHeader(&sz, nullptr, path)) return st;
    if (int st = readBits(bitmap, sz, runLength != 0, path, kHeaderBytes, (size_t(sz.x) + 7) >> 3, stop)) return st;
    if (size) *size = sz;
    return 0;
}

int fax_readFileToBitMap(void** bitmap, ImageSize* size, const char* path, StopFunction stop) noexcept {
    ImageSize sz{};
    if (int st = cals_readHeader(&sz, nullptr, path)) return st;
    if (int st = readBits(bitmap, sz, false, path, 0, size_t(sz.x), stop)) return st;
    if (size) *size = sz;
    return 0;
}

// --- writing -----------------------------------------------------------------

void cals_buildHeader(char header[2048], const ImageSize* size) noexcept {
    std::memset(header, ' ', kHeaderBytes);
    char pel[32];
    std::snprintf(pel, sizeof pel, "%.6d,%.6d", size->x, size->y);
    const char* records[][2] = {{"srcdocid", "NONE"}, {"dstdocid", "NONE"}, {"txtfilid", "NONE"},
                                {"figid", "NONE"},    {"srcgph", "NONE"},   {"doccls", "NONE"},
                                {"rtype", "1"},       {"rorient", "000,270"}, {"rpelcnt", pel},
                                {"rdensty", "0300"},  {"notes", "NONE"}};
    for (int i = 0; i < 11; ++i) {
        char text[kRecordBytes + 1];
        const int n = std::snprintf(text, sizeof text, "%s: %s", records[i][0], records[i][1]);
        std::memcpy(header + kRecordBytes * i, text, size_t(std::min(n, kRecordBytes)));
    }
}

namespace {

int writeCALS(const char* path, il::ccitt::BilevelRows& rows, const ImageSize* size, StopFunction stop) {
    if (!rows.ok()) return IMGERR_NOMEMORY;
    File f = File::open(path, "wb");
    if (!f.ok()) return IMGERR_OPENFAILED;
    char h[kHeaderBytes];
    cals_buildHeader(h, size);
    if (!f.write(h, sizeof h)) return IMGERR_WRITEFAILED;
    Scratch<uint8_t> stream;
    size_t len = 0;
    int st = il::ccitt::encode(stream, &len, size->x, size->y, false, stop, il::ccitt::bilevelRowSource, &rows);
    if (st == 0 && !f.write(stream.get(), len)) st = IMGERR_WRITEFAILED;
    if (!f.close() && st == 0) st = IMGERR_WRITEFAILED;
    return st;
}

bool validSize(const ImageSize* size) { return size && il::imageBytes(size->x, size->y, 3); }

}  // namespace

int cals_createFileFromBitMap(const char* path, const void* buffer, int runLength, const ImageSize* size,
                              StopFunction stop) noexcept {
    if (!buffer || !validSize(size)) return IMGERR_BADARG;
    il::ccitt::BilevelRows rows(runLength ? il::ccitt::BilevelRows::RunLength : il::ccitt::BilevelRows::Bitmap,
                                buffer, size->x);
    return writeCALS(path, rows, size, stop);
}

int cals_createFileFromMap(const char* path, const void* buffer, const uint8_t*, const uint8_t*, const uint8_t*, int,
                           const ImageSize* size, int colourMode, int packedRows, StopFunction stop) noexcept {
    if (colourMode != COLORMODE_BILEVEL) return IMGERR_UNSUPPORTEDTYPE;
    if (!buffer || !validSize(size)) return IMGERR_BADARG;
    il::ccitt::BilevelRows rows(packedRows ? il::ccitt::BilevelRows::PackByte : il::ccitt::BilevelRows::Map, buffer,
                                size->x);
    return writeCALS(path, rows, size, stop);
}

int cals_createFileFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, StopFunction stop) noexcept {
    if (!rgb || !validSize(size)) return IMGERR_BADARG;
    il::ccitt::BilevelRows rows(il::ccitt::BilevelRows::RGB, rgb, size->x);
    return writeCALS(path, rows, size, stop);
}
