#include "image.h"

#include "output.h"

#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <utility>

namespace cli {

// ---- Image -----------------------------------------------------------------

Image::~Image() {
    if (buffer) korImage_freeImage(buffer, &size, layout);
}

Image::Image(Image&& o) noexcept { *this = std::move(o); }

Image& Image::operator=(Image&& o) noexcept {
    if (this == &o) return *this;
    if (buffer) korImage_freeImage(buffer, &size, layout);
    buffer = std::exchange(o.buffer, nullptr);
    size = o.size;
    layout = o.layout;
    colorMode = o.colorMode;
    std::memcpy(red, o.red, 256);
    std::memcpy(green, o.green, 256);
    std::memcpy(blue, o.blue, 256);
    count = o.count;
    return *this;
}

void Image::replace(void* p, ImageSize s, int newLayout) {
    if (buffer) korImage_freeImage(buffer, &size, layout);
    buffer = p;
    size = s;
    layout = newLayout;
}

// ---- progress --------------------------------------------------------------

namespace {
// Per thread: the threads of a batch draw no bar.
thread_local int g_lastPercent = -1;
thread_local bool g_showProgress = true;

// The CLI's stop function: a stop once an interrupt has come, else the bar.
int drawProgress(int total, int done) {
    if (interrupted()) return 1;
    static const bool terminal = ::isatty(2);
    if (total <= 0 || !g_showProgress || !terminal) return 0;
    int percent = int(int64_t(done) * 100 / total);
    if (percent == g_lastPercent) return 0;
    g_lastPercent = percent;
    char bar[41];
    int filled = percent * 40 / 100;
    for (int i = 0; i < 40; ++i) bar[i] = i < filled ? '#' : '.';
    bar[40] = 0;
    std::fprintf(stderr, "\r[%s] %3d%%", bar, percent);
    std::fflush(stderr);
    return 0;
}
}  // namespace

StopFunction progressFunction() {
    installInterruptHandlers();
    return drawProgress;
}

void showProgress(bool shown) { g_showProgress = shown; }

void progressDone() {
    if (g_lastPercent >= 0) std::fprintf(stderr, "\r%60s\r", "");
    g_lastPercent = -1;
}

// ---- modes -----------------------------------------------------------------

int parseMode(const std::string& s) {
    static const struct {
        const char* name;
        int mode;
    } kModes[] = {{"rgb", 1}, {"16", 2}, {"256", 3}, {"grey", 4}, {"gray", 4}, {"bilevel", 5}, {"rgba", 6},
                  {"1", 1},   {"2", 2},  {"3", 3},   {"4", 4},    {"5", 5},    {"6", 6}};
    for (const auto& m : kModes)
        if (s == m.name) return m.mode;
    return -1;
}

const char* modeName(int mode) {
    switch (mode) {
        case 1: return "rgb";
        case 2: return "16";
        case 3: return "256";
        case 4: return "grey";
        case 5: return "bilevel";
        case 6: return "rgba";
        default: return "?";
    }
}

int defaultWriteMode(int type, int sourceMode) {
    int def, rgb, p256, p16, grey, bilevel;
    // A type writable though it tells nothing of its modes (GIF): bitmaps and
    // grey images as they are, everything else as 256 colours.
    if (korImage_getExportSupport(&def, &rgb, &p256, &p16, &grey, &bilevel, type) != 0)
        return sourceMode == COLORMODE_BILEVEL || sourceMode == COLORMODE_GREY ? sourceMode : COLORMODE_PALETTE256;
    bool takes = false;
    switch (sourceMode) {
        case 1: takes = rgb; break;
        case 2: takes = p16; break;
        case 3: takes = p256; break;
        case 4: takes = grey; break;
        case 5: takes = bilevel; break;
        case 6: takes = korImage_alphaExportSupported(type) != 0; break;
    }
    return takes ? sourceMode : def;
}

// ---- layout conversions ------------------------------------------------------

int toRGB(Image& img, StopFunction stop) {
    uint8_t* rgb = nullptr;
    int st = 0;
    switch (img.layout) {
        case IMAGEFORMAT_RGB: return 0;
        case IMAGEFORMAT_MAP:
        case IMAGEFORMAT_MAP2:
            st = korImage_mapToRGB(&rgb, img.bytes(), &img.size, img.red, img.green, img.blue, stop);
            break;
        case IMAGEFORMAT_BITMAP:
        case IMAGEFORMAT_RLEBITMAP: {
            const uint8_t fg[3] = {img.red[1], img.green[1], img.blue[1]};
            const uint8_t bg[3] = {img.red[0], img.green[0], img.blue[0]};
            st = korImage_extBitMapToRGB(&rgb, img.buffer, &img.size, fg, bg, img.layout == IMAGEFORMAT_RLEBITMAP,
                                         stop);
            break;
        }
        case IMAGEFORMAT_RGBA: {
            size_t n = size_t(img.size.x) * img.size.y * 3;
            rgb = static_cast<uint8_t*>(dlmSystem_korMalloc(n));
            if (!rgb) return IMGERR_NOMEMORY;
            st = korImage_RGBAToRGBSeparate(rgb, img.bytes(), &img.size, nullptr);
            break;
        }
        default: return IMGERR_BADIMAGEFORMAT;
    }
    if (st != 0) {
        if (rgb) dlmSystem_korFree(rgb);
        return st > 0 ? IMGERR_STOPPED : st;
    }
    img.replace(rgb, img.size, IMAGEFORMAT_RGB);
    return 0;
}

int toRGBAPlanes(Image& img, uint8_t** planes) {
    if (img.layout != IMAGEFORMAT_RGBA) return IMGERR_BADIMAGEFORMAT;
    size_t n = size_t(img.size.x) * img.size.y * 4;
    auto* p = static_cast<uint8_t*>(dlmSystem_korMalloc(n));
    if (!p) return IMGERR_NOMEMORY;
    int st = korImage_RGBToRGBSeparate(p, img.bytes(), &img.size, IMAGEFORMAT_RGB2, nullptr);
    if (st != 0) {
        dlmSystem_korFree(p);
        return st;
    }
    *planes = p;
    return 0;
}

// ---- geometry ----------------------------------------------------------------

namespace {

// A new, empty buffer for `layout` at `size` (row tables start all null).
void* newBuffer(int layout, ImageSize size) {
    if (layout == IMAGEFORMAT_RLEBITMAP || layout == IMAGEFORMAT_PACKBYTE)
        return dlmSystem_korCalloc(size_t(size.y), sizeof(void*));
    int32_t n = korImage_memorySize(&size, layout);
    return n > 0 ? dlmSystem_korCalloc(size_t(n), 1) : nullptr;
}

int extractTo(Image& img, ImageSize to, const double* rect) {
    if (to.x <= 0 || to.y <= 0 || int64_t(to.x) * to.y > (int64_t(1) << 30)) return IMGERR_BADARG;
    void* dst = newBuffer(img.layout, to);
    if (!dst) return IMGERR_NOMEMORY;
    int st = korImage_extractSubImage(dst, &to, img.buffer, &img.size, rect, img.layout);
    if (st != 0) {
        korImage_freeImage(dst, &to, img.layout);
        return st;
    }
    img.replace(dst, to, img.layout);
    return 0;
}

}  // namespace

int crop(Image& img, const double rect[4], StopFunction) {
    if (rect[0] < 0 || rect[1] < 0 || rect[2] < rect[0] || rect[3] < rect[1] || rect[2] >= img.size.x ||
        rect[3] >= img.size.y)
        return IMGERR_BADARG;
    ImageSize to{int32_t(rect[2] - rect[0]) + 1, int32_t(rect[3] - rect[1]) + 1};
    return extractTo(img, to, rect);
}

int resize(Image& img, ImageSize to, StopFunction stop) {
    if (to.x <= 0 || to.y <= 0 || int64_t(to.x) * to.y > (int64_t(1) << 28)) return IMGERR_BADARG;
    if (to.x == img.size.x && to.y == img.size.y) return 0;
    void* out = nullptr;
    if (img.layout == IMAGEFORMAT_RGB) {
        int st = korImage_resize(&out, &to, img.buffer, &img.size, stop);
        if (st != 0) return st > 0 ? IMGERR_STOPPED : st;
        img.replace(out, to, IMAGEFORMAT_RGB);
        return 0;
    }
    if (img.layout == IMAGEFORMAT_RGBA) {
        uint8_t* planes = nullptr;
        if (int st = toRGBAPlanes(img, &planes)) return st;
        int st = korImage_resizeRGBA(&out, &to, planes, &img.size, stop);
        dlmSystem_korFree(planes);
        if (st != 0) return st > 0 ? IMGERR_STOPPED : st;
        st = korImage_RGBSeparateToRGB(nullptr, static_cast<uint8_t*>(out), &to, IMAGEFORMAT_RGB2, nullptr);
        img.replace(out, to, IMAGEFORMAT_RGBA);
        return st;
    }
    // Palette and bilevel images: nearest neighbour.
    return extractTo(img, to, nullptr);
}

int rotate(Image& img, int angle, StopFunction stop) {
    return korImage_rotate(&img.buffer, &img.size, img.buffer, &img.size, img.layout, angle, stop);
}

int mirror(Image& img, int mode, StopFunction stop) {
    return korImage_mirror(img.buffer, &img.size, img.layout, mode, stop);
}

// ---- loading and saving --------------------------------------------------------

namespace {

// A bilevel file comes from the library as a bitmap with the palette white,
// black, in the polarity its reader gives. The file is read again as a
// palette image: a black and white palette rebuilds the bitmap with black
// pixels set; other colours (or a palette of one entry) make it a
// two-colour palette image with the palette it holds, so that the output
// shows the file's colours. A failed second read keeps the bitmap.
int keepTwoColours(const std::string& path, Image& img, StopFunction stop) {
    uint8_t red[256] = {}, green[256] = {}, blue[256] = {};
    int count = 0;
    uint8_t** rows = nullptr;
    ImageSize size{};
    // Readers without a palette form keep the bitmap.
    if (korImage_readFileToMap(&rows, &size, red, green, blue, &count, path.c_str(), -1, nullptr, stop) != 0) return 0;
    auto is = [&](int i, int v) { return red[i] == v && green[i] == v && blue[i] == v; };
    if (count == 2 && ((is(0, 0) && is(1, 255)) || (is(0, 255) && is(1, 0)))) {
        // Black and white: the bitmap is rebuilt from the indices through the
        // palette (black pixels set), whatever polarity the reader's bitmap
        // had.
        const size_t rowBytes = (size_t(size.x) + 7) / 8;
        auto* bits = static_cast<uint8_t*>(dlmSystem_korCalloc(rowBytes * size_t(size.y) + 1, 1));
        uint16_t** runs = nullptr;
        int st = bits ? korImage_packByteToBitMap(bits, rows, red, green, blue, count, &size, 1) : IMGERR_NOMEMORY;
        if (st == 0) st = korImage_runLengthEncodeBitMap(&runs, bits, &size);
        dlmSystem_korFree(bits);
        korImage_freeImage(rows, &size, IMAGEFORMAT_PACKBYTE);
        if (st != 0) return st;
        img.replace(runs, size, IMAGEFORMAT_RLEBITMAP);
        return 0;
    }
    const size_t width = size_t(size.x);
    auto* map = static_cast<uint8_t*>(dlmSystem_korMalloc(width * size_t(size.y)));
    if (map)
        for (int y = 0; y < size.y; ++y) korImage_unpackByteBuffer(map + width * size_t(y), rows[y], size.x);
    korImage_freeImage(rows, &size, IMAGEFORMAT_PACKBYTE);
    if (!map) return IMGERR_NOMEMORY;
    for (int i = count; i < 2; ++i) red[i] = green[i] = blue[i] = 0;  // past a one-entry palette: black
    img.replace(map, size, IMAGEFORMAT_MAP);
    std::memcpy(img.red, red, 256);
    std::memcpy(img.green, green, 256);
    std::memcpy(img.blue, blue, 256);
    img.count = 2;
    img.colorMode = COLORMODE_PALETTE16;
    return 0;
}

// Reads a file as a palette image (Map) through the PackByte reader.
int loadPaletteImage(const std::string& path, Image& img, StopFunction stop) {
    uint8_t** rows = nullptr;
    ImageSize size{};
    int st = korImage_readFileToMap(&rows, &size, img.red, img.green, img.blue, &img.count, path.c_str(), -1,
                                    nullptr, stop);
    if (st != 0) return st;
    auto* map = static_cast<uint8_t*>(dlmSystem_korMalloc(size_t(size.x) * size.y));
    if (map)
        for (int y = 0; y < size.y; ++y) korImage_unpackByteBuffer(map + size_t(size.x) * y, rows[y], size.x);
    korImage_freeImage(rows, &size, IMAGEFORMAT_PACKBYTE);
    if (!map) return IMGERR_NOMEMORY;
    img.replace(map, size, IMAGEFORMAT_MAP);
    img.colorMode = img.count <= 16 ? COLORMODE_PALETTE16 : COLORMODE_PALETTE256;
    return 0;
}

}  // namespace

int fileTypeOf(const std::string& path) {
    const int type = korImage_typeFromFile(path.c_str());
    return type >= 0 ? type : nameTypeOf(path);
}

int nameTypeOf(const std::string& path) {
    const int type = korImage_typeFromExtension(path.c_str());
    if (type >= 0) return type;
    const size_t dot = path.find_last_of('.'), slash = path.find_last_of('/');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return -1;
    std::string ext = path.substr(dot + 1);
    for (char& c : ext) c = char(std::tolower(uint8_t(c)));
    if (ext == "pict") return 4;
    return ext == "ras" || ext == "sun" ? 10 : -1;
}

int loadImage(const std::string& path, Image& img, bool forceRGB, StopFunction stop) {
    if (isPnmFile(path)) {
        int st = loadPnm(path, img);
        if (st == 0 && forceRGB) st = toRGB(img, stop);
        return st;
    }
    void* buf = nullptr;
    int layout = 0, mode = 0;
    ImageSize size{};
    const int type = fileTypeOf(path);
    int st = korImage_readFileToBuffer(&buf, &layout, &mode, img.red, img.green, img.blue, &img.count, &size,
                                       path.c_str(), type, forceRGB ? 1 : 0, stop);
    if (st == IMGERR_UNSUPPORTEDTYPE || st == IMGSTAT_NO_BACKGROUND) {
        // Bilevel files of a type without a bitmap reader (Sun raster) are
        // read as RGB, and so are fax files, whose bitmap reader wants a
        // CALS size record (32768 without one).
        uint8_t* rgb = nullptr;
        st = korImage_readFileToRGB(&rgb, &size, path.c_str(), type, nullptr, stop);
        buf = rgb;
        layout = IMAGEFORMAT_RGB;
        mode = COLORMODE_RGB;
    }
    if (st == IMGERR_BADFORMAT) {
        // A type whose header reader tells nothing without reading the
        // image (GIF) is read as a palette image; when the type has no
        // palette reader either, the first answer stands.
        Image pal;
        if (int s = loadPaletteImage(path, pal, stop)) return readerStatus(s == IMGERR_UNSUPPORTEDTYPE ? st : s, path);
        img = std::move(pal);
        return forceRGB ? toRGB(img, stop) : 0;
    }
    if (st < 0) return st;
    img.replace(buf, size, layout);
    img.colorMode = mode;
    if (st == 0 && mode == COLORMODE_BILEVEL && !forceRGB) st = keepTwoColours(path, img, stop);
    return readerStatus(st, path);
}

int saveImage(const std::string& path, int type, int mode, Image& img, int compression, StopFunction stop) {
    if (type < 0 && isPnmName(path)) return savePnm(path, img);
    const char* p = path.c_str();
    if (mode == COLORMODE_RGBA && img.layout != IMAGEFORMAT_RGBA) mode = COLORMODE_RGB;

    if (mode == COLORMODE_BILEVEL) {
        if (img.layout == IMAGEFORMAT_RLEBITMAP || img.layout == IMAGEFORMAT_BITMAP) {
            const uint8_t bg[3] = {img.red[0], img.green[0], img.blue[0]};
            const uint8_t fg[3] = {img.red[1], img.green[1], img.blue[1]};
            bool colours = img.count >= 2;
            return korImage_createFileFromBitMap(p, type, &img.size, img.buffer,
                                                 img.layout == IMAGEFORMAT_RLEBITMAP, colours ? bg : nullptr,
                                                 colours ? fg : nullptr, stop);
        }
        if (int st = toRGB(img, stop)) return st;
        size_t bytes = size_t((img.size.x + 7) / 8) * img.size.y;
        auto* bits = static_cast<uint8_t*>(dlmSystem_korCalloc(bytes ? bytes : 1, 1));
        if (!bits) return IMGERR_NOMEMORY;
        int st = korImage_rgbToBitMap(bits, img.bytes(), &img.size, 1);
        if (st == 0) st = korImage_createFileFromBitMap(p, type, &img.size, bits, 0, nullptr, nullptr, stop);
        dlmSystem_korFree(bits);
        return st;
    }
    switch (img.layout) {
        case IMAGEFORMAT_MAP:
        case IMAGEFORMAT_MAP2:
            // Such a type (GIF) takes a grey palette image as 256 colours.
            if (mode == COLORMODE_GREY &&
                korImage_getExportSupport(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, type) != 0)
                mode = COLORMODE_PALETTE256;
            return korImage_extCreateFileFromMap(p, type, mode, &img.size, img.bytes(), img.red, img.green,
                                                 img.blue, img.count, compression, 0, stop);
        case IMAGEFORMAT_RGBA:
            if (mode == COLORMODE_RGBA) {
                uint8_t* planes = nullptr;
                if (int st = toRGBAPlanes(img, &planes)) return st;
                int st = korImage_extCreateFileFromRGB(p, type, mode, &img.size, planes, compression, 0, stop);
                dlmSystem_korFree(planes);
                return st;
            }
            [[fallthrough]];
        default:
            if (int st = toRGB(img, stop)) return st;
            return korImage_extCreateFileFromRGB(p, type, mode, &img.size, img.bytes(), compression, 0, stop);
    }
}

}  // namespace cli
