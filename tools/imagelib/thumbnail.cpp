// imagelib thumbnail, and the transparency and thumbnail steps of convert.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cli.h"
#include "image.h"

namespace cli {

namespace {

// A whole decimal number in lo..hi.
bool number(const std::string& s, int lo, int hi, int& v) {
    char* end;
    const long l = std::strtol(s.c_str(), &end, 10);
    if (s.empty() || *end || l < lo || l > hi) return false;
    v = int(l);
    return true;
}

std::string baseName(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    const size_t dot = name.find_last_of('.');
    return dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
}

// One line of progress over the files on a terminal.
void showFiles(int done, int total, const std::string& name) {
    if (!::isatty(2)) return;
    char bar[31];
    const int filled = total ? done * 30 / total : 30;
    for (int i = 0; i < 30; ++i) bar[i] = i < filled ? '#' : '.';
    bar[30] = 0;
    std::fprintf(stderr, "\r[%s] %d/%d %-30.30s", bar, done, total, name.c_str());
    std::fflush(stderr);
}

}  // namespace

bool parseColour(const std::string& text, uint8_t rgb[3], int* tolerance) {
    std::string s = text;
    int tol = 0;
    // The tolerance is a fourth number after r,g,b, or a second after #rrggbb.
    const size_t commas = size_t(std::count(s.begin(), s.end(), ','));
    const bool hex = !s.empty() && s[0] == '#';
    if ((hex && commas == 1) || (!hex && commas == 3)) {
        const size_t at = s.find_last_of(',');
        if (!tolerance || !number(s.substr(at + 1), 0, 255, tol)) return false;
        s = s.substr(0, at);
    } else if ((hex && commas != 0) || (!hex && commas != 2)) {
        return false;
    }
    if (hex) {
        if (s.size() != 7) return false;
        for (int i = 0; i < 3; ++i) {
            const std::string pair = s.substr(1 + 2 * i, 2);
            char* end;
            const long v = std::strtol(pair.c_str(), &end, 16);
            if (*end || !std::isxdigit(uint8_t(pair[0])) || !std::isxdigit(uint8_t(pair[1]))) return false;
            rgb[i] = uint8_t(v);
        }
    } else {
        size_t at = 0;
        for (int i = 0; i < 3; ++i) {
            const size_t comma = s.find(',', at);
            int v;
            if (!number(s.substr(at, comma == std::string::npos ? std::string::npos : comma - at), 0, 255, v))
                return false;
            rgb[i] = uint8_t(v);
            at = comma + 1;
        }
    }
    if (tolerance) *tolerance = tol;
    return true;
}

int makeTransparent(Image& img, const uint8_t colour[3], int tolerance, StopFunction stop) {
    if (int st = toRGB(img, stop)) return st;
    const size_t pixels = size_t(img.size.x) * size_t(img.size.y);
    auto* mask = static_cast<uint8_t*>(dlmSystem_korMalloc(size_t(korImage_memorySize(&img.size, IMAGEFORMAT_BITMAP))));
    auto* rgba = static_cast<uint8_t*>(dlmSystem_korMalloc(pixels * 4));
    int st = mask && rgba ? 0 : IMGERR_NOMEMORY;
    if (st == 0) st = korImage_makeColourMask(mask, img.buffer, &img.size, IMAGEFORMAT_RGB, colour, tolerance, stop);
    if (st == 0) st = korImage_applyMask(rgba, img.bytes(), &img.size, mask, 0, stop);
    dlmSystem_korFree(mask);
    if (st != 0) {
        dlmSystem_korFree(rgba);
        return st > 0 ? IMGERR_STOPPED : st;
    }
    img.replace(rgba, img.size, IMAGEFORMAT_RGBA);
    img.colorMode = COLORMODE_RGBA;
    return 0;
}

int loadThumbnail(const std::string& path, Image& img, ImageSize box, StopFunction stop) {
    if (isPnmFile(path)) {
        if (int st = loadImage(path, img, true, stop)) return st;
        ImageSize to{};
        if (int st = korImage_thumbnailSize(&to, &img.size, &box)) return st;
        return resize(img, to, stop);
    }
    uint8_t* rgb = nullptr;
    ImageSize size{};
    if (int st = korImage_readThumbnail(&rgb, &size, path.c_str(), fileTypeOf(path), &box, stop)) return st;
    img.replace(rgb, size, IMAGEFORMAT_RGB);
    img.colorMode = COLORMODE_RGB;
    img.count = 0;
    return 0;
}

int cmdThumbnail(const Args& args) {
    Args inputs;
    std::string dir;
    int side = 0, type = 28;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        const bool more = i + 1 < args.size();
        if (a == "--size") {
            if (!more || !number(args[++i], 1, 1000000, side)) return usage("thumbnail: --size takes a number");
        } else if (a == "--to") {
            if (!more) return usage("thumbnail: --to takes a directory");
            dir = args[++i];
        } else if (a == "--type") {
            if (!more || !number(args[++i], 0, IMAGELIB_FILETYPE_COUNT - 1, type))
                return usage("thumbnail: --type takes a type number 0..41");
        } else if (!a.empty() && a[0] == '-' && a.size() > 1) {
            return usage("thumbnail: unknown option '" + a + "'");
        } else {
            inputs.push_back(a);
        }
    }
    if (inputs.empty() || side <= 0 || dir.empty()) return usage("thumbnail: expected IN... --size N --to DIR");
    struct stat st;
    if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return failure(dir, IMGERR_OPENFAILED);
    char ext[16];
    if (korImage_getExtension(ext, type) != 0) return usage("thumbnail: --type takes a type number 0..41");
    int result = kOk;
    const ImageSize box{side, side};
    for (size_t n = 0; n < inputs.size(); ++n) {
        const std::string& in = inputs[n];
        showFiles(int(n), int(inputs.size()), in);
        const std::string out = dir + "/" + baseName(in) + "." + ext;
        Image img;
        int s = loadThumbnail(in, img, box, nullptr);
        if (s != 0) {
            progressDone();
            result = failure(in, s);
            continue;
        }
        s = saveImage(out, type, defaultWriteMode(type, COLORMODE_RGB), img, 90, nullptr);
        if (s != 0) {
            progressDone();
            result = failure(out, s);
        }
    }
    showFiles(int(inputs.size()), int(inputs.size()), "");
    if (::isatty(2)) std::fprintf(stderr, "\n");
    return result;
}

}  // namespace cli
