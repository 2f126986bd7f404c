// imagelib movie: frames from image files into a FLI, FLC or AVI movie.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "cli.h"
#include "image.h"
#include "output.h"

namespace cli {

namespace {

// The progress bar counts frames.
StopFunction g_bar = nullptr;

}  // namespace

int cmdMovie(const Args& args) {
    std::string out;
    Args frames;
    int delay = 4;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--delay") {
            char* end = nullptr;
            long v = i + 1 < args.size() ? std::strtol(args[i + 1].c_str(), &end, 10) : 0;
            if (i + 1 >= args.size() || *end || v < 1 || v > 65535)
                return usage("movie: --delay takes a number of ticks of 1/60 s, 1..65535");
            delay = int(v);
            ++i;
        } else if (!a.empty() && a[0] == '-' && a.size() > 1) {
            return usage("movie: unknown option '" + a + "'");
        } else if (out.empty()) {
            out = a;
        } else {
            frames.push_back(a);
        }
    }
    if (out.empty() || frames.empty()) return usage("movie: expected OUT and at least one FRAME");
    const int type = korImage_typeFromExtension(out.c_str());
    if (type != 14 && type != 15 && type != 26) return usage("movie: OUT must end in .fli, .flc or .avi");

    g_bar = progressFunction();
    OutputFile file(out);
    if (int s = file.open()) return failure(out, s);
    ImageMovie* movie = nullptr;
    ImageSize size{};
    int st = 0;
    std::string failed;
    for (size_t i = 0; i < frames.size() && st == 0; ++i) {
        if (g_bar) g_bar(int(frames.size()), int(i));
        Image img;
        failed = frames[i];
        st = loadImage(frames[i], img, false, nullptr);
        // Palette images keep their palette; everything else goes as RGB.
        if (st == 0 && img.layout != IMAGEFORMAT_MAP && img.layout != IMAGEFORMAT_MAP2) st = toRGB(img, nullptr);
        if (st != 0) break;
        if (!movie) {
            size = img.size;
            failed = out;
            movie = korMovie_create(&st, file.path().c_str(), type, &size, delay);
            if (!movie) break;
            failed = frames[i];
        } else if (img.size.x != size.x || img.size.y != size.y) {
            progressDone();
            std::fprintf(stderr, "imagelib: %s: %d x %d, but the movie is %d x %d\n", frames[i].c_str(), img.size.x,
                         img.size.y, size.x, size.y);
            korMovie_close(movie);
            return kFailed;
        }
        failed = out;
        st = img.layout == IMAGEFORMAT_RGB
                 ? korMovie_addFrameFromRGB(movie, img.bytes(), nullptr)
                 : korMovie_addFrameFromMap(movie, img.bytes(), img.red, img.green, img.blue, img.count, nullptr);
    }
    if (movie) {
        int closed = korMovie_close(movie);
        if (st == 0) st = closed;
    }
    if (st == 0 && interrupted()) st = IMGERR_STOPPED;
    if (st == 0) {
        failed = out;
        st = file.commit();
    }
    if (g_bar) g_bar(int(frames.size()), int(frames.size()));
    progressDone();
    if (st != 0) return failure(failed, failed == out ? writerStatus(st) : st);
    return kOk;
}

}  // namespace cli
