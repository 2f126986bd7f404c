// imagelib info / imagelib convert
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"
#include "image.h"
#include "output.h"
#include "transform.h"

namespace cli {

namespace {

bool parseInt(const std::string& s, int& v) {
    char* end;
    long l = std::strtol(s.c_str(), &end, 10);
    if (s.empty() || *end || l < -1000000000 || l > 1000000000) return false;
    v = int(l);
    return true;
}

bool parseSize(const std::string& s, ImageSize& size) {
    size_t x = s.find_first_of("xX");
    if (x == std::string::npos) return false;
    int w, h;
    if (!parseInt(s.substr(0, x), w) || !parseInt(s.substr(x + 1), h) || w <= 0 || h <= 0) return false;
    size = {w, h};
    return true;
}

bool parseRect(const std::string& s, double r[4]) {
    size_t at = 0;
    for (int i = 0; i < 4; ++i) {
        size_t comma = s.find(',', at);
        if ((comma == std::string::npos) != (i == 3)) return false;
        int v;
        if (!parseInt(s.substr(at, comma == std::string::npos ? std::string::npos : comma - at), v)) return false;
        r[i] = v;
        at = comma + 1;
    }
    return true;
}

// What an orientation code means: Targa files report their origin (4..7),
// files read through the streaming rows their row order (2 = bottom-up).
const char* orientationName(int type, int o) {
    if (type == 2) {
        static const char* kOrigins[4] = {"top-left origin", "top-right origin", "bottom-left origin",
                                          "bottom-right origin"};
        if (o >= 4 && o <= 7) return kOrigins[o - 4];
    }
    return o == 2 ? "rows bottom-up" : o == 0 ? "rows top-down" : "stored scan orientation";
}

}  // namespace

int cmdInfo(const Args& args) {
    bool json = false;
    std::string file;
    for (const auto& a : args) {
        if (a == "--json") json = true;
        else if (!a.empty() && a[0] == '-') return usage("info: unknown option '" + a + "'");
        else if (file.empty()) file = a;
        else return usage("info: expected one FILE");
    }
    if (file.empty()) return usage("info: expected one FILE");
    ImageFileInfo info;
    int st = korImage_readFileInfoEx(&info, file.c_str());
    if (st == IMGERR_UNSUPPORTEDTYPE && fileTypeOf(file) >= 0) {
        // A name the library does not know (.ras): the type the CLI gives it.
        std::memset(&info, 0, sizeof info);
        info.type = fileTypeOf(file);
        st = korImage_readFileInfo(&info.size, &info.colorMode, &info.orientation, file.c_str(), info.type);
    }
    if (st == IMGERR_BADFORMAT) {
        // No header reader for the type (GIF): the image itself tells.
        Image img;
        if (int s = loadImage(file, img, false, nullptr)) return failure(file, s);
        info = ImageFileInfo{};
        info.type = korImage_fileType(-1, file.c_str());
        info.size = img.size;
        info.colorMode = img.colorMode;
        info.orientation = 0;
        st = 0;
    }
    if (st != 0) return failure(file, st);
    char ext[16];
    korImage_getExtension(ext, info.type);
    int frames = 0;  // animations: the frame count
    const bool movie = korMovie_getFrameCount(&frames, file.c_str(), info.type) == 0;
    if (json) {
        std::printf("{\"file\": %s, \"type\": %d, \"extension\": %s, \"width\": %d, \"height\": %d, "
                    "\"colorMode\": %d, \"colorModeName\": \"%s\", \"orientation\": %d",
                    jsonString(file).c_str(), info.type, jsonString(ext).c_str(), info.size.x, info.size.y,
                    info.colorMode, modeName(info.colorMode), info.orientation);
        if (movie) std::printf(", \"frames\": %d", frames);
        double m[12];
        std::fill(m, m + 12, std::nan(""));  // left so when the file's key directory is refused
        if (info.type == 29 && korImage_readGeoTiffInfo(m, file.c_str()) == 0 && !std::isnan(m[0])) {
            // The 12 numbers of the GeoTIFF transform, in the library's order.
            std::printf(", \"geoTransform\": [");
            for (int i = 0; i < 12; ++i) std::printf("%s%.17g", i ? ", " : "", m[i]);
            std::printf("]");
        }
        std::printf("}\n");
    } else {
        std::printf("file:        %s\ntype:        %d (%s)\nsize:        %d x %d\ncolour mode: %d (%s)\n"
                    "orientation: %d (%s)\n",
                    file.c_str(), info.type, ext, info.size.x, info.size.y, info.colorMode,
                    modeName(info.colorMode), info.orientation, orientationName(info.type, info.orientation));
        if (movie) std::printf("frames:      %d\n", frames);
    }
    return kOk;
}

int cmdConvert(const Args& args) {
    std::string in, out;
    int type = -1, mode = -1, quality = -1, compression = -1, mirrorMode = -1;
    WarpOptions warp;
    ImageSize size{};
    double rect[4];
    bool haveSize = false, haveCrop = false, haveThumb = false;
    bool stream = false, batch = false;
    int jobs = 1;
    std::string toDir;
    std::vector<size_t> inputs, batchArgs;
    uint8_t clear[3];
    int tolerance = -1;
    ImageSize thumb{};
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        auto value = [&](std::string& v) {
            if (i + 1 >= args.size()) return false;
            v = args[++i];
            return true;
        };
        std::string v;
        if (a == "--type") {
            if (!value(v) || !parseInt(v, type) || type < 0 || type >= IMAGELIB_FILETYPE_COUNT)
                return usage("convert: --type takes a type number 0..41");
        } else if (a == "--mode") {
            if (!value(v) || (mode = parseMode(v)) < 0)
                return usage("convert: --mode takes rgb, 16, 256, grey, bilevel, rgba or 1..6");
        } else if (a == "--quality") {
            if (!value(v) || !parseInt(v, quality)) return usage("convert: --quality takes a number");
        } else if (a == "--compression") {
            if (!value(v) || !parseInt(v, compression)) return usage("convert: --compression takes a number");
        } else if (a == "--size") {
            if (!value(v) || !parseSize(v, size)) return usage("convert: --size takes WxH");
            haveSize = true;
        } else if (a == "--rotate") {
            if (!value(v) || !parseDegrees(v, &warp.degrees)) return usage("convert: --rotate takes degrees");
            warp.rotate = true;
        } else if (a == "--background") {
            if (!value(v) || !parseColour(v, warp.background))
                return usage("convert: --background takes #rrggbb or r,g,b");
        } else if (a == "--interpolate") {
            if (!value(v) || !parseInterpolation(v, &warp.interpolation))
                return usage("convert: --interpolate takes nearest, bilinear or bicubic");
        } else if (a == "--affine") {
            if (!value(v) || !parseMatrix(v, warp.matrix)) return usage("convert: --affine takes a,b,c,d,e,f");
            warp.affine = true;
        } else if (a == "--mirror") {
            if (!value(v) || (v != "v" && v != "h")) return usage("convert: --mirror takes v or h");
            mirrorMode = v == "v" ? 0 : 1;
        } else if (a == "--crop") {
            if (!value(v) || !parseRect(v, rect)) return usage("convert: --crop takes x0,y0,x1,y1");
            haveCrop = true;
        } else if (a == "--stream") {
            stream = true;
        } else if (a == "-j") {
            batchArgs.insert(batchArgs.end(), {i, i + 1});
            if (!value(v) || !parseInt(v, jobs) || jobs < 1 || jobs > 256)
                return usage("convert: -j takes a number of threads 1..256");
            batch = true;
        } else if (a == "--to") {
            batchArgs.insert(batchArgs.end(), {i, i + 1});
            if (!value(v) || v.empty()) return usage("convert: --to takes a directory");
            toDir = v;
            batch = true;
        } else if (a == "--transparent") {
            if (!value(v) || !parseColour(v, clear, &tolerance))
                return usage("convert: --transparent takes #rrggbb or r,g,b, and ,TOL");
        } else if (a == "--thumbnail") {
            if (!value(v) || !parseSize(v, thumb)) return usage("convert: --thumbnail takes WxH");
            haveThumb = true;
        } else if (!a.empty() && a[0] == '-' && a.size() > 1) {
            return usage("convert: unknown option '" + a + "'");
        } else {
            inputs.push_back(i);
        }
    }
    if (batch) return convertBatch(args, inputs, batchArgs, toDir, jobs, type);
    if (inputs.size() != 2) return usage("convert: expected IN and OUT");
    in = args[inputs[0]];
    out = args[inputs[1]];
    const bool pnmOut = type < 0 && isPnmName(out);
    if (!pnmOut && type < 0) {
        type = nameTypeOf(out);
        if (type < 0) return failure(out, korImage_typeFromExtension(out.c_str()));
    }
    if (stream) return convertStream(args, in, out, pnmOut ? -1 : type, mode);
    if (pnmOut && mode < 0 && !haveThumb && !haveCrop && !haveSize && mirrorMode < 0 && tolerance < 0)
        if (int code; warpPpmFile(in, out, warp, &code)) return code;
    StopFunction stop = progressFunction();
    Image img;
    int st = haveThumb ? loadThumbnail(in, img, thumb, stop) : loadImage(in, img, false, stop);
    if (st == 0 && haveCrop) st = crop(img, rect, stop);
    if (st == 0 && haveSize) st = resize(img, size, stop);
    if (st == 0) st = transform(img, warp, stop);
    if (st == 0 && mirrorMode >= 0) st = mirror(img, mirrorMode, stop);
    if (st == 0 && tolerance >= 0) st = makeTransparent(img, clear, tolerance, stop);
    if (st != 0) {
        progressDone();
        return failure(in, st);
    }
    // Transparency is kept by the writers with alpha and by GIF and BMP.
    const bool keepAlpha = tolerance >= 0 && (korImage_alphaExportSupported(type) || type == 7 || type == 9);
    if (mode < 0) mode = pnmOut ? img.colorMode : keepAlpha ? COLORMODE_RGBA : defaultWriteMode(type, img.colorMode);
    int code = quality >= 0 ? quality : compression >= 0 ? compression : 90;
    OutputFile file(out);
    st = file.open();
    if (st == 0) st = writerStatus(saveImage(file.path(), pnmOut ? -1 : type, mode, img, code, stop));
    if (st == 0) st = file.commit();
    progressDone();
    if (st != 0) return failure(out, st);
    return kOk;
}

}  // namespace cli
