// Netpbm files (PBM, PGM, PPM, PAM), read and written by the CLI itself so
// that any image can be compared with other tools pixel by pixel. They are
// not a library format.
#include <sys/mman.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "image.h"
#include "transform.h"

namespace cli {

namespace {

struct FileCloser {
    void operator()(FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

constexpr int64_t kMaxPixels = int64_t(1) << 28;

// A header's width and height, each read as any long: both positive and
// their product at most kMaxPixels (tested side by side first, so that the
// product cannot overflow).
bool pixelsWithin(long w, long h) {
    return w > 0 && h > 0 && w <= kMaxPixels && h <= kMaxPixels && w * h <= kMaxPixels;
}

// Reads the next header token, skipping white space and comments.
bool token(FILE* f, std::string& out) {
    out.clear();
    int c;
    for (;;) {
        c = std::fgetc(f);
        if (c == '#') {
            while (c != '\n' && c != EOF) c = std::fgetc(f);
        }
        if (c == EOF) return false;
        if (!std::strchr(" \t\r\n\v\f", c)) break;
    }
    while (c != EOF && !std::strchr(" \t\r\n\v\f", c)) {
        out += char(c);
        if (out.size() > 64) return false;
        c = std::fgetc(f);
    }
    return true;  // the single white space after the token is consumed
}

bool number(FILE* f, long& v) {
    std::string t;
    if (!token(f, t) || t.empty()) return false;
    char* end;
    v = std::strtol(t.c_str(), &end, 10);
    return *end == 0 && v >= 0;
}

// One sample: binary (one or two bytes by maxval) or plain text.
bool sample(FILE* f, bool plain, long maxval, int& v) {
    long raw;
    if (plain) {
        if (!number(f, raw) || raw > maxval) return false;
    } else if (maxval < 256) {
        int c = std::fgetc(f);
        if (c == EOF) return false;
        raw = c;
    } else {
        int hi = std::fgetc(f), lo = std::fgetc(f);
        if (hi == EOF || lo == EOF) return false;
        raw = (hi << 8) | lo;
    }
    if (raw > maxval) raw = maxval;
    v = int((raw * 255 + maxval / 2) / maxval);
    return true;
}

}  // namespace

bool isPnmFile(const std::string& path) {
    FilePtr f(std::fopen(path.c_str(), "rb"));
    if (!f) return false;
    unsigned char h[2];
    if (std::fread(h, 1, 2, f.get()) != 2) return false;
    return h[0] == 'P' && h[1] >= '1' && h[1] <= '7';
}

bool isPnmName(const std::string& path) {
    size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || path.find('/', dot) != std::string::npos) return false;
    std::string ext = path.substr(dot + 1);
    for (char& c : ext) c = char(std::tolower(static_cast<unsigned char>(c)));
    return ext == "ppm" || ext == "pgm" || ext == "pbm" || ext == "pam" || ext == "pnm";
}

int loadPnm(const std::string& path, Image& img) {
    FilePtr f(std::fopen(path.c_str(), "rb"));
    if (!f) return IMGERR_OPENFAILED;
    std::string magic;
    if (!token(f.get(), magic) || magic.size() != 2 || magic[0] != 'P') return IMGERR_BADFILE;
    const int kind = magic[1] - '0';
    long w = 0, h = 0, maxval = 1, depth = 0;
    std::string tupltype;
    if (kind == 7) {
        std::string key;
        for (;;) {
            if (!token(f.get(), key)) return IMGERR_BADFILE;
            if (key == "ENDHDR") break;
            if (key == "WIDTH") {
                if (!number(f.get(), w)) return IMGERR_BADFILE;
            } else if (key == "HEIGHT") {
                if (!number(f.get(), h)) return IMGERR_BADFILE;
            } else if (key == "DEPTH") {
                if (!number(f.get(), depth)) return IMGERR_BADFILE;
            } else if (key == "MAXVAL") {
                if (!number(f.get(), maxval)) return IMGERR_BADFILE;
            } else if (key == "TUPLTYPE") {
                if (!token(f.get(), tupltype)) return IMGERR_BADFILE;
            } else {
                return IMGERR_BADFILE;
            }
        }
        if (depth < 1 || depth > 4) return IMGERR_BADFORMAT;
    } else if (kind >= 1 && kind <= 6) {
        if (!number(f.get(), w) || !number(f.get(), h)) return IMGERR_BADFILE;
        if (kind != 1 && kind != 4 && !number(f.get(), maxval)) return IMGERR_BADFILE;
        depth = (kind == 3 || kind == 6) ? 3 : 1;
    } else {
        return IMGERR_BADFILE;
    }
    if (!pixelsWithin(w, h) || maxval < 1 || maxval > 65535) return IMGERR_BADFILE;
    const bool bits = kind == 1 || kind == 4;
    const bool plain = kind <= 3;
    const bool alpha = depth == 2 || depth == 4;
    const size_t x = size_t(w);
    const size_t planes = alpha ? 4 : 3;
    auto* out = static_cast<uint8_t*>(dlmSystem_korCalloc(x * size_t(h) * planes, 1));
    if (!out) return IMGERR_NOMEMORY;
    std::vector<uint8_t> px(depth), rowBuf(x * size_t(depth));
    int st = 0;
    for (long y = 0; y < h && st == 0; ++y) {
        uint8_t* row = out + x * planes * size_t(y);
        if (bits && !plain) {  // P4: 8 pixels a byte, 1 = black
            for (size_t i = 0; i < x; i += 8) {
                int c = std::fgetc(f.get());
                if (c == EOF) {
                    st = IMGERR_READFAILED;
                    break;
                }
                for (size_t b = 0; b < 8 && i + b < x; ++b) {
                    uint8_t v = (c & (0x80 >> b)) ? 0 : 255;
                    if (alpha) row[(i + b) * 4] = row[(i + b) * 4 + 1] = row[(i + b) * 4 + 2] = v, row[(i + b) * 4 + 3] = 255;
                    else row[i + b] = row[x + i + b] = row[2 * x + i + b] = v;
                }
            }
            continue;
        }
        if (!plain && !bits && maxval == 255) {  // the common case: whole rows of bytes
            std::vector<uint8_t>& buf = rowBuf;
            if (std::fread(buf.data(), 1, x * size_t(depth), f.get()) != x * size_t(depth)) {
                st = IMGERR_READFAILED;
                break;
            }
            if (depth == 3) {
                const ImageSize one{int32_t(w), 1};
                st = korImage_RGBToRGBSeparate(row, buf.data(), &one, IMAGEFORMAT_RGB, nullptr);
                continue;
            }
            for (size_t i = 0; i < x; ++i) {
                const uint8_t* q = &buf[i * size_t(depth)];
                uint8_t r = q[0], g = depth >= 3 ? q[1] : q[0], b = depth >= 3 ? q[2] : q[0];
                if (alpha) {
                    uint8_t* p = row + i * 4;
                    p[0] = r, p[1] = g, p[2] = b, p[3] = q[depth - 1];
                } else {
                    row[i] = r, row[x + i] = g, row[2 * x + i] = b;
                }
            }
            continue;
        }
        for (size_t i = 0; i < x; ++i) {
            for (long d = 0; d < depth; ++d) {
                int v;
                if (bits) {  // P1: one digit a pixel, 1 = black
                    int c;
                    do c = std::fgetc(f.get());
                    while (c == ' ' || c == '\t' || c == '\r' || c == '\n');
                    if (c != '0' && c != '1') {
                        st = IMGERR_READFAILED;
                        break;
                    }
                    v = c == '1' ? 0 : 255;
                } else if (!sample(f.get(), plain, maxval, v)) {
                    st = IMGERR_READFAILED;
                    break;
                }
                px[d] = uint8_t(v);
            }
            if (st) break;
            uint8_t r = px[0], g = depth >= 3 ? px[1] : px[0], b = depth >= 3 ? px[2] : px[0];
            if (alpha) {
                uint8_t a = px[depth - 1];
                uint8_t* p = row + i * 4;
                p[0] = r, p[1] = g, p[2] = b, p[3] = a;
            } else {
                row[i] = r, row[x + i] = g, row[2 * x + i] = b;
            }
        }
    }
    ImageSize size{int32_t(w), int32_t(h)};
    img.replace(out, size, alpha ? IMAGEFORMAT_RGBA : IMAGEFORMAT_RGB);
    if (st != 0) return st;
    img.colorMode = alpha ? COLORMODE_RGBA : bits ? COLORMODE_BILEVEL : depth == 1 ? COLORMODE_GREY : COLORMODE_RGB;
    img.count = 0;
    return 0;
}

int savePnm(const std::string& path, Image& img) {
    std::string ext = path.substr(path.find_last_of('.') + 1);
    for (char& c : ext) c = char(std::tolower(static_cast<unsigned char>(c)));
    const bool pam = ext == "pam";
    const bool keepAlpha = pam && img.layout == IMAGEFORMAT_RGBA;
    // Palette images go to RGB rows through their palette, a row at a time.
    const bool fromMap = img.layout == IMAGEFORMAT_MAP && ext != "pgm" && ext != "pbm";
    if (!keepAlpha && !fromMap)
        if (int st = toRGB(img, nullptr)) return st;
    FilePtr f(std::fopen(path.c_str(), "wb"));
    if (!f) return IMGERR_OPENFAILED;
    const size_t x = size_t(img.size.x);
    const int channels = keepAlpha ? 4 : (ext == "pgm" || ext == "pbm") ? 1 : 3;
    if (pam) {
        std::fprintf(f.get(), "P7\nWIDTH %d\nHEIGHT %d\nDEPTH %d\nMAXVAL 255\nTUPLTYPE %s\nENDHDR\n", img.size.x,
                     img.size.y, channels, keepAlpha ? "RGB_ALPHA" : "RGB");
    } else if (ext == "pbm") {
        std::fprintf(f.get(), "P4\n%d %d\n", img.size.x, img.size.y);
    } else {
        std::fprintf(f.get(), "P%d\n%d %d\n255\n", channels == 1 ? 5 : 6, img.size.x, img.size.y);
    }
    std::vector<uint8_t> row(x * 4);
    for (int y = 0; y < img.size.y; ++y) {
        size_t n = 0;
        if (keepAlpha) {
            std::memcpy(row.data(), img.bytes() + x * 4 * size_t(y), x * 4);
            n = x * 4;
        } else if (fromMap) {
            const uint8_t* m = img.bytes() + x * size_t(y);
            for (size_t i = 0; i < x; ++i, n += 3) {
                row[n] = img.red[m[i]];
                row[n + 1] = img.green[m[i]];
                row[n + 2] = img.blue[m[i]];
            }
        } else if (channels == 3) {
            const ImageSize one{img.size.x, 1};
            if (int st = korImage_RGBSeparateToRGB(row.data(), img.bytes() + x * 3 * size_t(y), &one, IMAGEFORMAT_RGB, nullptr))
                return st;
            n = x * 3;
        } else {
            const uint8_t* r = img.bytes() + x * 3 * size_t(y);
            for (size_t i = 0; i < x; ++i) {
                if (channels == 1) {
                    int grey = int(0.3 * r[i] + 0.59 * r[x + i] + 0.11 * r[2 * x + i] + 0.5);
                    if (ext == "pbm") {
                        if (grey < 128) row[i / 8] |= uint8_t(0x80 >> (i % 8));
                        else row[i / 8] &= uint8_t(~(0x80 >> (i % 8)));
                        n = (x + 7) / 8;
                    } else {
                        row[n++] = uint8_t(grey);
                    }
                } else {
                    row[n++] = r[i];
                    row[n++] = r[x + i];
                    row[n++] = r[2 * x + i];
                }
            }
        }
        if (std::fwrite(row.data(), 1, n, f.get()) != n) return IMGERR_WRITEFAILED;
    }
    if (std::fclose(f.release()) != 0) return IMGERR_WRITEFAILED;
    return 0;
}

// A binary PPM of maxval 255 mapped read-only: its pixel rows are layout 6
// as the file holds them, so whole-picture operations read them in place.
MappedPpm::~MappedPpm() {
    if (base) ::munmap(base, length);
}

int mapPpm(const std::string& path, MappedPpm& map) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return 1;  // pipes are read once, by loadPnm
    FilePtr f(std::fopen(path.c_str(), "rb"));
    if (!f) return IMGERR_OPENFAILED;
    std::string magic;
    long w = 0, h = 0, maxval = 0;
    if (!token(f.get(), magic) || magic != "P6" || !number(f.get(), w) || !number(f.get(), h) ||
        !number(f.get(), maxval) || maxval != 255 || !pixelsWithin(w, h))
        return 1;
    const long at = std::ftell(f.get());
    if (at <= 0 || ::fstat(fileno(f.get()), &st) != 0) return 1;
    const size_t need = size_t(at) + size_t(w) * size_t(h) * 3;
    if (size_t(st.st_size) < need) return 1;  // short: the ordinary reader says how
    void* base = ::mmap(nullptr, need, PROT_READ, MAP_PRIVATE, fileno(f.get()), 0);
    if (base == MAP_FAILED) return 1;
    ::madvise(base, need, MADV_WILLNEED);
    map.base = base;
    map.length = need;
    map.pixels = static_cast<const uint8_t*>(base) + at;
    map.size = ImageSize{int32_t(w), int32_t(h)};
    return 0;
}

}  // namespace cli
