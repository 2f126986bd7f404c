// "p" and "a" raster files: fixed-width decimal headers, raw index and
// plane bytes.
//
// The readers never trust a size from a header: the colour map and the
// pixels they need must be in the file (IMGERR_BADFILE otherwise, checked
// before the image is allocated), and lengths the header claims for chunks
// that are skipped are checked against the file, not allocated.
#include "codecs/native/pa.h"

#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>

#include "imagelib/host.h"
#include "imagelib/pixels.h"
#include "internal/checked.h"
#include "internal/file.h"
#include "internal/scratch.h"
#include "pixels/colour.h"
#include "pixels/dither.h"
#include "pixels/rows.h"

namespace {

constexpr size_t kSignatureBytes = 8;   // "SCMI" and the version
constexpr size_t kChunkHeaderBytes = 10;  // two letters and an 8-character length
constexpr size_t kAttributeBytes = 12;  // width, height, colour count
constexpr size_t kAHeaderBytes = 12;    // width, height, four spaces

bool validSize(const ImageSize* size) { return size && size->x > 0 && size->y > 0; }

// --- "p" header ----------------------------------------------------------------

struct PHeader {
    unsigned width = 0, height = 0, colours = 0;
};

// Reads a 10-byte chunk header and checks its name; its length to *length.
bool readChunkHeader(il::File& f, const char* name, unsigned* length) {
    char h[kChunkHeaderBytes];
    if (!f.read(h, sizeof h)) return false;
    return h[0] == name[0] && h[1] == name[1] && imagePA_parseField(h + 2, 8, length);
}

// Bytes from the current position to the end of the file (0 when unknown).
int64_t remaining(il::File& f, int64_t length) {
    int64_t here = f.tell();
    return here < 0 || here > length ? 0 : length - here;
}

// Parses the signature and the attribute chunk of an open file, leaving it
// after the attribute chunk. The attribute chunk's declared length must be
// in the file; only its first 12 bytes are read.
bool parsePHeader(il::File& f, int64_t length, PHeader* h) {
    char sig[kSignatureBytes];
    unsigned version = 0;
    if (!f.read(sig, sizeof sig) || std::memcmp(sig, "SCMI", 4) != 0 || !imagePA_parseField(sig + 4, 4, &version) ||
        version != 1)
        return false;
    unsigned n = 0;
    if (!readChunkHeader(f, "AT", &n) || n < kAttributeBytes || int64_t(n) > remaining(f, length)) return false;
    const int64_t end = f.tell() + int64_t(n);
    char at[kAttributeBytes];
    if (!f.read(at, sizeof at)) return false;
    if (!imagePA_parseField(at, 4, &h->width) || !imagePA_parseField(at + 4, 4, &h->height) ||
        !imagePA_parseField(at + 8, 4, &h->colours))
        return false;
    return f.seek(end);
}

// Opens path and parses its header: 0, IMGERR_OPENFAILED or IMGERR_BADFILE.
int openP(il::File& f, int64_t* length, PHeader* h, const char* path) {
    f = il::File::open(path, "rb");
    if (!f.ok()) return IMGERR_OPENFAILED;
    *length = f.size();
    if (*length < 0) return IMGERR_BADFILE;
    return parsePHeader(f, *length, h) ? 0 : IMGERR_BADFILE;
}

// --- "p" writing ---------------------------------------------------------------

// The header up to and including the pixel chunk's header, and the colour
// map. Every value has been checked to fit its field.
bool writePHeader(il::File& f, unsigned width, unsigned height, unsigned colours, const uint8_t* red,
                  const uint8_t* green, const uint8_t* blue) {
    char h[64];  // 40 bytes of header, room for the longest number of every field
    std::snprintf(h, sizeof h, "SCMI%4uAT%8u%4u%4u%4uCM%8u", 1u, unsigned(kAttributeBytes), width, height, colours,
                  colours * 3);
    if (!f.write(h, std::strlen(h))) return false;
    uint8_t map[256 * 3];
    for (unsigned i = 0; i < colours; ++i) {
        map[3 * i] = red[i];
        map[3 * i + 1] = green[i];
        map[3 * i + 2] = blue[i];
    }
    if (!f.write(map, size_t(colours) * 3)) return false;
    std::snprintf(h, sizeof h, "PD%8u", width * height);
    return f.write(h, kChunkHeaderBytes);
}

// Width, height and colour count within their fields (the pixel chunk's
// length, width x height, then fits its field too).
bool fitsP(const ImageSize* size, unsigned colours) {
    return unsigned(size->x) <= kPMaxField && unsigned(size->y) <= kPMaxField && colours <= kPMaxField;
}

// --- "a" header ----------------------------------------------------------------

bool parseAHeader(const char* h, ImageSize* size) {
    unsigned w = 0, hgt = 0;
    if (!imagePA_parseField(h, 4, &w) || !imagePA_parseField(h + 4, 4, &hgt) || w < 1 || hgt < 1) return false;
    *size = ImageSize{int(w), int(hgt)};
    return true;
}

int readAHeader(const char* path, ImageSize* size) {
    il::File f = il::File::open(path, "rb");
    if (!f.ok()) return IMGERR_OPENFAILED;
    char h[kAHeaderBytes];
    if (!f.read(h, sizeof h)) return IMGERR_BADFILE;
    return parseAHeader(h, size) ? 0 : IMGERR_BADFILE;
}

}  // namespace

bool imagePA_parseField(const char* field, int width, unsigned* value) noexcept {
    int i = 0;
    while (i < width && field[i] == ' ') ++i;
    unsigned v = 0;
    for (; i < width; ++i) {
        if (field[i] < '0' || field[i] > '9') return false;
        v = v * 10 + unsigned(field[i] - '0');
    }
    *value = v;
    return true;
}

// --- "p" files -------------------------------------------------------------------

int imageP_writeFromMap(const char* path, const void* map, const uint8_t* red, const uint8_t* green,
                        const uint8_t* blue, int colourCount, const ImageSize* size, int imageFormat, int packed,
                        StopFunction stop) noexcept {
    (void)imageFormat;
    if (!map || !red || !green || !blue || !validSize(size)) return IMGERR_BADARG;
    const unsigned colours = unsigned(colourCount);
    if (!fitsP(size, colours)) return kPOutOfRange;
    if (colours > 256) return IMGERR_BADARG;  // the palette arrays hold 256 entries
    const int w = size->x, h = size->y;
    const size_t pixels = size_t(w) * size_t(h);
    if (!packed) {
        const auto* p = static_cast<const uint8_t*>(map);
        for (size_t i = 0; i < pixels; ++i)
            if (p[i] >= colours) return kPOutOfRange;
    }
    il::Scratch<uint8_t> row(packed ? size_t(w) : 0, il::tag("PwRw"));
    if (packed && !row.ok()) return IMGERR_NOMEMORY;

    il::File f = il::File::open(path, "wb");
    if (!f.ok()) return IMGERR_OPENFAILED;
    if (!writePHeader(f, unsigned(w), unsigned(h), colours, red, green, blue)) return IMGERR_WRITEFAILED;
    if (!packed) return f.write(map, pixels) && f.close() ? 0 : IMGERR_WRITEFAILED;
    for (int y = 0; y < h; ++y) {
        if (imageUtil_reportProgress(stop, h, y)) return 1;
        korImage_unpackByteBuffer(row.get(), static_cast<uint8_t* const*>(map)[y], w);
        if (!f.write(row.get(), size_t(w))) return IMGERR_WRITEFAILED;
    }
    return f.close() ? 0 : IMGERR_WRITEFAILED;
}

int imageP_writeFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, int imageFormat,
                        StopFunction stop) noexcept {
    if (imageFormat != COLORMODE_PALETTE16 && imageFormat != COLORMODE_PALETTE256 && imageFormat != COLORMODE_GREY)
        return IMGERR_BADARG;
    if (!rgb || !validSize(size)) return IMGERR_BADARG;
    const bool grey = imageFormat == COLORMODE_GREY;
    if (!fitsP(size, grey ? 256 : 0)) return kPOutOfRange;
    const int w = size->x, h = size->y;
    il::Scratch<uint8_t> row(size_t(w), il::tag("PwIx"));
    if (!row.ok()) return IMGERR_NOMEMORY;
    if (imageUtil_stopped(stop)) return 1;

    uint8_t red[256] = {}, green[256] = {}, blue[256] = {};
    int count = 0;
    std::optional<il::DitherJob> job;  // the palette formats end their dither job on every return
    if (grey) {
        for (int i = 0; i < 256; ++i) red[i] = green[i] = blue[i] = uint8_t(i);
        count = 256;
    } else {
        const int wanted = imageFormat == COLORMODE_PALETTE16 ? 16 : 256;
        if (korImage_getOptimizedPalette(red, green, blue, &count, wanted, rgb, size, stop)) return 1;
        if (count <= 0) return IMGERR_NOMEMORY;  // the optimiser could not get its working memory
        job.emplace();
        if (int st = korImage_ditherInitialize(count, red, green, blue, w)) return st;
    }

    il::File f = il::File::open(path, "wb");
    if (!f.ok()) return IMGERR_OPENFAILED;
    if (!writePHeader(f, unsigned(w), unsigned(h), unsigned(count), red, green, blue)) return IMGERR_WRITEFAILED;
    const size_t planeRow = size_t(w) * 3;
    for (int y = 0; y < h; ++y) {
        if (imageUtil_stopped(stop)) return 1;
        const uint8_t* r = rgb + planeRow * size_t(y);
        const uint8_t *g = r + w, *b = g + w;
        if (grey) {
            for (int x = 0; x < w; ++x) row[size_t(x)] = il::greyLevelWriter(r[x], g[x], b[x]);
        } else {
            korImage_ditherRow(row.get(), r, g, b, w);
        }
        if (!f.write(row.get(), size_t(w))) return IMGERR_WRITEFAILED;
    }
    return f.close() ? 0 : IMGERR_WRITEFAILED;
}

int imageP_readInfo(ImageSize* size, int* imageFormat, const char* path) noexcept {
    il::File f;
    int64_t length = 0;
    PHeader h;
    if (int st = openP(f, &length, &h, path)) return st;
    if (size) *size = ImageSize{int(h.width), int(h.height)};
    // A count of exactly 16 reports 256 colours: kept as it is.
    if (imageFormat) *imageFormat = h.colours < 16 ? COLORMODE_PALETTE16 : COLORMODE_PALETTE256;
    return 0;
}

bool imageP_detect(const char* path) noexcept {
    il::File f;
    int64_t length = 0;
    PHeader h;
    return openP(f, &length, &h, path) == 0;
}

int imageP_readToMap(void** map, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue, int* colourCount,
                     const char* path, int packed, StopFunction stop) noexcept {
    if (!map || !red || !green || !blue) return IMGERR_BADARG;
    il::File f;
    int64_t length = 0;
    PHeader h;
    if (int st = openP(f, &length, &h, path)) return st;
    if (size) *size = ImageSize{int(h.width), int(h.height)};
    if (colourCount) *colourCount = int(h.colours);
    if (h.width == 0 || h.height == 0 || h.colours > 256) return IMGERR_BADFILE;
    if (imageUtil_stopped(stop)) return 1;

    unsigned cmLength = 0;
    if (!readChunkHeader(f, "CM", &cmLength) || int64_t(cmLength) > remaining(f, length)) return IMGERR_BADFILE;
    uint8_t cm[256 * 3] = {};
    const size_t kept = cmLength < sizeof cm ? cmLength : sizeof cm;
    if (!f.read(cm, kept) || !f.seek(int64_t(cmLength - kept), SEEK_CUR)) return IMGERR_BADFILE;
    for (int i = 0; i < 256; ++i) {
        red[i] = cm[3 * i];
        green[i] = cm[3 * i + 1];
        blue[i] = cm[3 * i + 2];
    }
    if (imageUtil_stopped(stop)) return 1;

    unsigned pdLength = 0;
    if (!readChunkHeader(f, "PD", &pdLength)) return kPOutOfRange;
    const int w = int(h.width), ht = int(h.height);
    const size_t pixels = size_t(w) * size_t(ht);
    // The packed form reads whole rows, the contiguous form the chunk's
    // length (at most the image). A file too short for the image is refused
    // before the image is allocated.
    if (int64_t(pixels) > remaining(f, length)) return IMGERR_BADFILE;
    const size_t wanted = packed || pdLength > pixels ? pixels : pdLength;

    if (packed) {
        il::Scratch<uint8_t> row(size_t(w), il::tag("PrRw"));
        if (!row.ok()) return IMGERR_NOMEMORY;
        il::RowTable table;
        if (!table.allocate(ImageSize{w, ht})) return IMGERR_NOMEMORY;
        for (int y = 0; y < ht; ++y) {
            if (imageUtil_reportProgress(stop, ht, y)) return IMGERR_STOPPED;
            if (!f.read(row.get(), size_t(w))) return kPOutOfRange;
            if (int st = il::storePackByteRow(table.bytes(), y, row.get(), w)) return st;
        }
        *map = table.release();
        return 0;
    }
    il::CallerBuffer<uint8_t> out = il::callerBytes(pixels);
    if (!out) return IMGERR_NOMEMORY;
    if (!f.read(out.get(), wanted)) return kPOutOfRange;
    std::memset(out.get() + wanted, 0, pixels - wanted);
    *map = out.release();
    return 0;
}

// --- "a" files -------------------------------------------------------------------

int imageA_planeName(char* out, const char* path, char plane) noexcept {
    char dir[IMAGELIB_PATH_MAX], name[IMAGELIB_PATH_MAX];
    if (int st = korFile_parseName(dir, name, nullptr, path)) return st;
    const char ext[2] = {plane, 0};
    return korFile_buildName(out, dir, name, ext);
}

int imageA_writeFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, StopFunction stop) noexcept {
    if (!rgb || !validSize(size)) return IMGERR_BADARG;
    if (unsigned(size->x) > kPMaxField || unsigned(size->y) > kPMaxField) return IMGERR_BADARG;
    const int w = size->x, h = size->y;
    {
        char header[kAHeaderBytes + 1];
        std::snprintf(header, sizeof header, "%4u%4u    ", unsigned(w), unsigned(h));
        il::File f = il::File::open(path, "wb");
        if (!f.ok()) return IMGERR_OPENFAILED;
        if (!f.write(header, kAHeaderBytes) || !f.close()) return IMGERR_WRITEFAILED;
    }
    const size_t planeRow = size_t(w) * 3;
    static const char kPlanes[3] = {'r', 'g', 'b'};
    for (int p = 0; p < 3; ++p) {
        char name[IMAGELIB_PATH_MAX];
        if (int st = imageA_planeName(name, path, kPlanes[p])) return st;
        il::File f = il::File::open(name, "wb");
        if (!f.ok()) return IMGERR_OPENFAILED;
        for (int y = 0; y < h; ++y) {
            if (imageUtil_stopped(stop)) return 1;  // the plane file closes with f
            if (!f.write(rgb + planeRow * size_t(y) + size_t(w) * size_t(p), size_t(w))) return IMGERR_WRITEFAILED;
        }
        if (!f.close()) return IMGERR_WRITEFAILED;
    }
    return 0;
}

int imageA_readInfo(ImageSize* size, int* imageFormat, const char* path) noexcept {
    ImageSize s{};
    if (int st = readAHeader(path, &s)) return st;
    if (size) *size = s;
    if (imageFormat) *imageFormat = COLORMODE_RGB;
    return 0;
}

bool imageA_detect(const char* path) noexcept {
    ImageSize s{};
    return readAHeader(path, &s) == 0;
}

int imageA_readToRGB(uint8_t** rgb, ImageSize* size, const char* path, StopFunction stop) noexcept {
    if (!rgb) return IMGERR_BADARG;
    ImageSize s{};
    if (int st = readAHeader(path, &s)) return st;
    const size_t w = size_t(s.x), planeBytes = w * size_t(s.y);
    il::File planes[3];
    static const char kPlanes[3] = {'r', 'g', 'b'};
    for (int p = 0; p < 3; ++p) {
        char name[IMAGELIB_PATH_MAX];
        if (int st = imageA_planeName(name, path, kPlanes[p])) return st;
        planes[p] = il::File::open(name, "rb");
        if (!planes[p].ok()) return IMGERR_OPENFAILED;
        const int64_t length = planes[p].size();
        if (length < 0 || uint64_t(length) < planeBytes) return IMGERR_READFAILED;
    }
    size_t bytes = 0;
    if (!il::imageBytes(s.x, s.y, 3, &bytes)) return IMGERR_BADFILE;
    il::CallerBuffer<uint8_t> out = il::callerBytes(bytes);
    if (!out) return IMGERR_NOMEMORY;
    for (int y = 0; y < s.y; ++y) {
        if (imageUtil_reportProgress(stop, s.y, y)) return IMGERR_STOPPED;
        uint8_t* row = out.get() + 3 * w * size_t(y);
        for (int p = 0; p < 3; ++p)
            if (!planes[p].read(row + w * size_t(p), w)) return IMGERR_READFAILED;
    }
    if (size) *size = s;
    *rgb = out.release();
    return 0;
}
