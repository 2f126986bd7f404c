// Encapsulated PostScript output.
//
// The image is drawn by the image (grey) or colorimage (colour, three
// separate strings a row) operator from hexadecimal strings read from the
// file itself. Its matrix [w 0 0 -h 0 h] puts the first row at the top of
// the unit square, which "W H scale" stretches over the bounding box.
//
// Every line is built in memory and written in one piece; the bytes are
// those of the printf formats they come from ("%02.2X" a value).
#include "codecs/native/eps.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "codecs/rows.h"
#include "internal/checked.h"
#include "internal/scratch.h"

namespace {

constexpr uint16_t kHandlerCode = 1;
constexpr uint16_t kStreamOrientation = 4;  // orientation bits 0: rows top row first

constexpr char kHex[] = "0123456789ABCDEF";

// Points of the bounding box for n pixels: n * 1.25 truncated.
int points(int n) { return int(double(n) * 1.25); }

// Grey level of the grey files, its terms summed in this order.
uint8_t epsGrey(int r, int g, int b) { return uint8_t(int(0.3 * r + 0.11 * b + 0.59 * g + 0.5)); }

bool writeText(il::File& f, const char* s) { return f.write(s, std::strlen(s)); }

template <class... A>
bool writeFormat(il::File& f, const char* format, A... args) {
    char line[160];
    int n = std::snprintf(line, sizeof line, format, args...);
    return n >= 0 && size_t(n) < sizeof line && f.write(line, size_t(n));
}

// Appends width values as hexadecimal pairs; a null plane gives zeros.
char* putHex(char* out, const uint8_t* values, int width) {
    for (int x = 0; x < width; ++x) {
        const uint8_t v = values ? values[x] : 0;
        *out++ = kHex[v >> 4];
        *out++ = kHex[v & 15];
    }
    return out;
}

// One colour row line: red, green and blue values, then CR LF.
bool writeColourLine(il::File& f, char* line, const uint8_t* r, const uint8_t* g, const uint8_t* b, int width) {
    char* p = putHex(putHex(putHex(line, r, width), g, width), b, width);
    *p++ = '\r';
    *p++ = '\n';
    return f.write(line, size_t(p - line));
}

bool validSize(const ImageSize* size) { return size && il::imageBytes(size->x, size->y, 3); }

}  // namespace

bool imageEps_writeHeader(il::File& f, const char* title, const ImageSize* size, bool colour) noexcept {
    const int w = size->x, h = size->y, pw = points(w), ph = points(h);
    bool ok = writeText(f, "%!PS-Adobe-2.0 EPSF-1.2\r\n");
    ok &= writeText(f, "%%Creator: Velmora 4.0\r\n");
    ok &= writeText(f, "%%Title: ") && writeText(f, title ? title : "") && writeText(f, "\r\n");
    ok &= writeFormat(f, "%%%%BoundingBox: 0 0 %d %d\r\n", pw, ph);
    if (!colour) {
        ok &= writeFormat(f, "/picstr %d string def\r\n", w);
        ok &= writeFormat(f, "%d %d scale\r\n", pw, ph);
        ok &= writeFormat(f, "%d %d 8 [%d 0 0 %d 0 %d]", w, h, w, -h, h);
        ok &= writeText(f, " {currentfile picstr readhexstring pop} image\r\n");
        return ok;
    }
    ok &= writeFormat(f, "/rstr %d string def\r\n", w);
    ok &= writeFormat(f, "/gstr %d string def\r\n", w);
    ok &= writeFormat(f, "/bstr %d string def\r\n", w);
    ok &= writeFormat(f, "%d %d scale\r\n", pw, ph);
    ok &= writeFormat(f, "%d %d 8 [%d 0 0 %d 0 %d]\r\n", w, h, w, -h, h);
    ok &= writeText(f, " {currentfile rstr readhexstring pop}\r\n");
    ok &= writeText(f, " {currentfile gstr readhexstring pop}\r\n");
    ok &= writeText(f, " {currentfile bstr readhexstring pop}\r\n");
    ok &= writeText(f, " true 3 colorimage\r\n");
    return ok;
}

bool imageEps_writeTrailer(il::File& f) noexcept {
    return writeText(f, "showpage\r\n") && writeText(f, "%%Trailer\r\n");
}

int imageEps_writeFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, int imageFormat,
                          StopFunction stop) noexcept {
    if (imageFormat != COLORMODE_RGB && imageFormat != COLORMODE_GREY) return IMGERR_BADARG;
    if (!rgb || !validSize(size)) return IMGERR_BADARG;
    const bool colour = imageFormat == COLORMODE_RGB;
    const int w = size->x;
    il::File f = il::File::open(path, "wb");
    if (!f.ok()) return IMGERR_OPENFAILED;
    // One row line: 2 (grey) or 6 (colour) characters a pixel and CR LF.
    il::Scratch<char> line(size_t(w) * (colour ? 6 : 2) + 2, il::tag("EpsL"));
    if (!line.ok()) return IMGERR_NOMEMORY;

    bool ok = imageEps_writeHeader(f, path, size, colour);
    int status = 0;
    const size_t planeRow = size_t(w) * 3;
    for (int y = 0; y < size->y; ++y) {
        if ((status = imageUtil_stopped(stop))) break;
        const uint8_t *r = rgb + size_t(y) * planeRow, *g = r + w, *b = g + w;
        if (colour) {
            ok &= writeColourLine(f, line.get(), r, g, b, w);
            continue;
        }
        char* p = line.get();
        for (int x = 0; x < w; ++x) {
            const uint8_t v = epsGrey(r[x], g[x], b[x]);
            *p++ = kHex[v >> 4];
            *p++ = kHex[v & 15];
        }
        *p++ = '\r';
        *p++ = '\n';
        ok &= f.write(line.get(), size_t(p - line.get()));
    }
    ok &= imageEps_writeTrailer(f);
    ok &= f.close();
    if (status) return status;
    return ok ? 0 : IMGERR_WRITEFAILED;
}

// --- streaming writer ----------------------------------------------------------

namespace {

struct StreamState {
    il::File file;
    il::Scratch<char> line;
    bool ok = true;
};

}  // namespace

int imageEps_createFile(ImageFileContext* ctx, const char* path, int, int) noexcept {
    if (!ctx || !validSize(&ctx->fileSize)) return IMGERR_BADARG;
    std::unique_ptr<StreamState> st(new (std::nothrow) StreamState);
    if (!st || !st->line.allocate(size_t(ctx->fileSize.x) * 6 + 2, il::tag("EpsS"))) return IMGERR_NOMEMORY;
    st->file = il::File::open(path, "wb");
    if (!st->file.ok()) return IMGSTAT_STREAM_STOPPED;  // 1: the file cannot be opened
    st->ok = imageEps_writeHeader(st->file, path, &ctx->fileSize, true);
    il::stream::installHandler(ctx, kHandlerCode, kStreamOrientation, nullptr, imageEps_putRow, imageEps_closeFile,
                               st.release());
    return 0;
}

int imageEps_putRow(ImageFileContext* ctx, const uint8_t* red, const uint8_t* green, const uint8_t* blue,
                    const uint8_t*) noexcept {
    auto* st = static_cast<StreamState*>(ctx->state);
    st->ok &= writeColourLine(st->file, st->line.get(), red, green, blue, ctx->fileSize.x);
    return 0;
}

int imageEps_closeFile(ImageFileContext* ctx) noexcept {
    std::unique_ptr<StreamState> st(static_cast<StreamState*>(ctx->state));
    ctx->state = nullptr;
    if (!st) return 0;
    bool ok = st->ok && imageEps_writeTrailer(st->file);
    ok &= st->file.close();
    return ok ? 0 : IMGERR_WRITEFAILED;
}
