// convert --rotate DEG, --affine, --background and --interpolate.
#include "transform.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>

#include "cli.h"
#include "output.h"

namespace cli {

namespace {

bool parseNumber(const std::string& s, double* v) {
    char* end;
    const double d = std::strtod(s.c_str(), &end);
    if (s.empty() || *end || !std::isfinite(d)) return false;
    *v = d;
    return true;
}

// The palette entry nearest the colour (squared distance).
uint8_t nearestIndex(const Image& img, const uint8_t rgb[3]) {
    const int count = img.count > 0 && img.count <= 256 ? img.count : 256;
    int best = 0;
    long bestDistance = -1;
    for (int i = 0; i < count; ++i) {
        const long dr = img.red[i] - rgb[0], dg = img.green[i] - rgb[1], db = img.blue[i] - rgb[2];
        const long d = dr * dr + dg * dg + db * db;
        if (bestDistance < 0 || d < bestDistance) best = i, bestDistance = d;
    }
    return uint8_t(best);
}

// One step: a rotation (matrix null) or a warp into the image's size.
int step(Image& img, const WarpOptions& o, const double* matrix, StopFunction stop) {
    if (!matrix) {
        double turn = std::fmod(o.degrees, 360.0);
        if (turn < 0) turn += 360.0;
        if (turn == 0) return 0;
        // Quarter turns keep every layout as it is.
        if (turn == 90 || turn == 180 || turn == 270) return rotate(img, int(turn), stop);
    }
    uint8_t bg[4] = {o.background[0], o.background[1], o.background[2], 255};
    if (img.layout != IMAGEFORMAT_RGB && img.layout != IMAGEFORMAT_RGB2 && img.layout != IMAGEFORMAT_RGBA)
        bg[0] = nearestIndex(img, o.background);  // palette images and bitmaps
    void* out = nullptr;
    ImageSize size = img.size;
    int st = matrix ? korImage_warp(&out, &size, img.buffer, &img.size, img.layout, matrix, o.interpolation, bg, stop)
                    : korImage_rotateAngle(&out, &size, img.buffer, &img.size, img.layout, o.degrees,
                                           o.interpolation, bg, stop);
    if (st != 0) return st > 0 ? IMGERR_STOPPED : st;
    img.replace(out, size, img.layout);
    return 0;
}

}  // namespace

bool parseColour(const std::string& s, uint8_t rgb[3]) {
    if (s.size() == 7 && s[0] == '#') {
        char* end;
        const long v = std::strtol(s.c_str() + 1, &end, 16);
        if (*end || v < 0) return false;
        rgb[0] = uint8_t(v >> 16), rgb[1] = uint8_t(v >> 8), rgb[2] = uint8_t(v);
        return true;
    }
    size_t at = 0;
    for (int i = 0; i < 3; ++i) {
        const size_t comma = s.find(',', at);
        if ((comma == std::string::npos) != (i == 2)) return false;
        const std::string part = s.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
        char* end;
        const long v = std::strtol(part.c_str(), &end, 10);
        if (part.empty() || *end || v < 0 || v > 255) return false;
        rgb[i] = uint8_t(v);
        at = comma + 1;
    }
    return true;
}

bool parseInterpolation(const std::string& s, int* code) {
    if (s == "nearest") *code = IMAGEWARP_NEAREST;
    else if (s == "bilinear") *code = IMAGEWARP_BILINEAR;
    else if (s == "bicubic") *code = IMAGEWARP_BICUBIC;
    else return false;
    return true;
}

bool parseDegrees(const std::string& s, double* degrees) { return parseNumber(s, degrees); }

bool parseMatrix(const std::string& s, double m[6]) {
    size_t at = 0;
    for (int i = 0; i < 6; ++i) {
        const size_t comma = s.find(',', at);
        if ((comma == std::string::npos) != (i == 5)) return false;
        if (!parseNumber(s.substr(at, comma == std::string::npos ? std::string::npos : comma - at), &m[i]))
            return false;
        at = comma + 1;
    }
    return true;
}

int transform(Image& img, const WarpOptions& options, StopFunction stop) {
    if (options.rotate)
        if (int st = step(img, options, nullptr, stop)) return st;
    if (options.affine) return step(img, options, options.matrix, stop);
    return 0;
}

bool warpPpmFile(const std::string& in, const std::string& out, const WarpOptions& o, int* exitCode) {
    if (o.rotate == o.affine) return false;
    const size_t dot = out.find_last_of('.');
    std::string ext = dot == std::string::npos ? std::string() : out.substr(dot + 1);
    for (char& c : ext) c = char(std::tolower(static_cast<unsigned char>(c)));
    if (ext != "ppm" && ext != "pnm") return false;
    if (o.rotate) {
        double turn = std::fmod(o.degrees, 360.0);
        if (turn < 0) turn += 360.0;
        if (turn == 0 || turn == 90 || turn == 180 || turn == 270) return false;  // exact paths
    }
    MappedPpm src;
    if (mapPpm(in, src) != 0) return false;
    double m[6];
    ImageSize to = src.size;
    if (o.rotate) {
        if (int st = korImage_rotationMatrix(m, &to, &src.size, o.degrees)) return *exitCode = failure(in, st), true;
    } else {
        std::copy(o.matrix, o.matrix + 6, m);
    }
    const size_t rowBytes = size_t(to.x) * 3;
    // Bands of about 8 MiB: many tiles for the library's threads, and a
    // buffer that stays small beside the picture.
    const int32_t bandRows = int32_t(std::max<size_t>(1, std::min<size_t>(size_t(to.y), (size_t(8) << 20) / rowBytes)));
    // Two bands: one is written by a helper thread while the next is made.
    const size_t bandBytes = rowBytes * size_t(bandRows);
    uint8_t* band = static_cast<uint8_t*>(dlmSystem_korMalloc(2 * bandBytes));
    if (!band) return *exitCode = failure(out, IMGERR_NOMEMORY), true;
    std::unique_ptr<uint8_t, void (*)(uint8_t*)> hold(band, [](uint8_t* p) { dlmSystem_korFree(p); });
    StopFunction stop = progressFunction();
    OutputFile file(out);
    int st = file.open();
    std::FILE* f = st == 0 ? std::fopen(file.path().c_str(), "wb") : nullptr;
    if (st == 0 && !f) st = IMGERR_OPENFAILED;
    if (st == 0 && std::fprintf(f, "P6\n%d %d\n255\n", to.x, to.y) < 0) st = IMGERR_WRITEFAILED;
    bool writing = false;  // a failure is the output's
    std::thread writer;
    bool written = true;   // the last band handed to the writer went out
    auto put = [&written, f, rowBytes](const uint8_t* rows, int32_t n) {
        if (std::fwrite(rows, rowBytes, size_t(n), f) != size_t(n)) written = false;
    };
    auto finishWrite = [&] {
        if (writer.joinable()) writer.join();
        if (!written && st == 0) st = IMGERR_WRITEFAILED, writing = true;
    };
    for (int32_t y0 = 0, k = 0; st == 0 && y0 < to.y; y0 += bandRows, k ^= 1) {
        const int32_t y1 = to.y - y0 > bandRows ? y0 + bandRows : to.y;
        uint8_t* rows = band + size_t(k) * bandBytes;
        st = korImage_warpBand(rows, &to, y0, y1, src.pixels, &src.size, IMAGEFORMAT_RGB2, m, o.interpolation,
                               o.background, stop);
        finishWrite();
        if (st != 0) break;
        try {
            writer = std::thread(put, rows, y1 - y0);
        } catch (...) {
            put(rows, y1 - y0);
        }
    }
    finishWrite();
    if (f && std::fclose(f) != 0 && st == 0) st = IMGERR_WRITEFAILED, writing = true;
    if (st == 0) st = file.commit(), writing = true;
    progressDone();
    if (st > 0) st = IMGERR_STOPPED;
    *exitCode = st == 0 ? kOk : failure(writing || st == IMGERR_OPENFAILED ? out : in, st);
    return true;
}

}  // namespace cli
