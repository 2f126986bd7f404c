// imagelib demo: a built-in test image written in every writable type and
// read back.
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"
#include "image.h"
#include "output.h"

namespace cli {

namespace {

constexpr int kW = 640, kH = 480;
constexpr int kGifType = 7;  // read and written, though in neither format list

void put(uint8_t* rgb, int x, int y, int r, int g, int b) {
    uint8_t* row = rgb + size_t(y) * kW * 3;
    row[x] = uint8_t(r);
    row[kW + x] = uint8_t(g);
    row[2 * kW + x] = uint8_t(b);
}

// Hue h in 0..1535 at full saturation.
void hue(int h, int& r, int& g, int& b) {
    int seg = h / 256, f = h % 256;
    switch (seg) {
        case 0: r = 255, g = f, b = 0; break;
        case 1: r = 255 - f, g = 255, b = 0; break;
        case 2: r = 0, g = 255, b = f; break;
        case 3: r = 0, g = 255 - f, b = 255; break;
        case 4: r = f, g = 0, b = 255; break;
        default: r = 255, g = 0, b = 255 - f; break;
    }
}

// Gradients on top, saturated and grey patches in the middle, fine lines at
// the bottom left and a sixteen-colour region at the bottom right.
void makeTestImage(uint8_t* rgb) {
    for (int y = 0; y < 160; ++y)
        for (int x = 0; x < kW; ++x) {
            int r, g, b;
            hue(x * 1535 / (kW - 1), r, g, b);
            int light = 255 - y * 255 / 159;  // fades towards black
            put(rgb, x, y, r * light / 255, g * light / 255, b * light / 255);
        }
    static const int kSaturated[8][3] = {{255, 0, 0}, {0, 255, 0},   {0, 0, 255}, {0, 255, 255},
                                         {255, 0, 255}, {255, 255, 0}, {0, 0, 0},   {255, 255, 255}};
    for (int y = 160; y < 320; ++y)
        for (int x = 0; x < kW; ++x) {
            int i = x / 80;
            if (y < 240) put(rgb, x, y, kSaturated[i][0], kSaturated[i][1], kSaturated[i][2]);
            else put(rgb, x, y, i * 255 / 7, i * 255 / 7, i * 255 / 7);
        }
    for (int y = 320; y < kH; ++y)
        for (int x = 0; x < 320; ++x) {
            int v;
            if (y < 370) v = (x & 1) ? 0 : 255;                 // one-pixel vertical lines
            else if (y < 420) v = (y & 1) ? 0 : 255;            // one-pixel horizontal lines
            else v = ((x + y) % 8 == 0 || (x - y + 800) % 8 == 0) ? 0 : 255;  // diagonals
            put(rgb, x, y, v, v, v);
        }
    static const int kPalette[16][3] = {{0, 0, 0},     {128, 0, 0},   {0, 128, 0},   {128, 128, 0},
                                        {0, 0, 128},   {128, 0, 128}, {0, 128, 128}, {192, 192, 192},
                                        {128, 128, 128}, {255, 0, 0}, {0, 255, 0},   {255, 255, 0},
                                        {0, 0, 255},   {255, 0, 255}, {0, 255, 255}, {255, 255, 255}};
    for (int y = 320; y < kH; ++y)
        for (int x = 320; x < kW; ++x) {
            int i = ((y - 320) / 40) * 4 + (x - 320) / 80;
            put(rgb, x, y, kPalette[i][0], kPalette[i][1], kPalette[i][2]);
        }
}

double msSince(std::chrono::steady_clock::time_point t) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t).count();
}

bool readable(int type) {
    char name[IMAGELIB_TEXT_MAX];
    int t;
    for (int i = 0; i < IMAGELIB_IMPORT_LIST_ROWS; ++i)
        if (korImage_getImportFormat(name, &t, i) == 0 && t == type) return true;
    return false;
}

}  // namespace

int cmdDemo(const Args& args) {
    if (args.size() > 1) return usage("demo: expected at most one DIR");
    std::string dir = args.empty() ? "imagelib-demo" : args[0];
    ::mkdir(dir.c_str(), 0777);
    struct stat st;
    if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return failure(dir, IMGERR_OPENFAILED);

    Image source;
    source.size = {kW, kH};
    source.layout = IMAGEFORMAT_RGB;
    source.colorMode = COLORMODE_RGB;
    source.buffer = dlmSystem_korMalloc(size_t(kW) * kH * 3);
    if (!source.buffer) return failure("demo", IMGERR_NOMEMORY);
    makeTestImage(source.bytes());

    std::printf("test image %dx%d written to %s/\n\n", kW, kH, dir.c_str());
    std::printf("%-4s %-5s %-8s %10s %9s %9s %8s  %s\n", "type", "ext", "mode", "bytes", "write ms", "read ms",
                "max diff", "note");
    // The export list, then GIF: writable through the write entry points
    // though the list leaves it out (kept on purpose).
    std::vector<int> types;
    for (int i = 0; i < IMAGELIB_EXPORT_LIST_ROWS; ++i) {
        char name[IMAGELIB_TEXT_MAX];
        int type = -1;
        if (korImage_getExportFormat(name, &type, i) == 0) types.push_back(type);  // else no catalogue
    }
    types.push_back(kGifType);
    int written = 0;
    for (int type : types) {
        int mode = COLORMODE_RGB;
        if (korImage_getExportSupport(&mode, nullptr, nullptr, nullptr, nullptr, nullptr, type) != 0)
            mode = defaultWriteMode(type, COLORMODE_RGB);
        char ext[16];
        korImage_getExtension(ext, type);
        std::string path = dir + "/demo-" + std::to_string(type) + "." + ext;
        auto t0 = std::chrono::steady_clock::now();
        OutputFile file(path);
        int rc = file.open();
        if (rc == 0) rc = writerStatus(saveImage(file.path(), type, mode, source, 90, nullptr));
        if (rc == 0 && interrupted()) return failure(path, IMGERR_STOPPED);
        if (rc == 0) rc = file.commit();
        double writeMs = msSince(t0);
        if (rc != 0) {
            std::printf("%-4d %-5s %-8s %10s %9s %9s %8s  %s\n", type, ext, modeName(mode), "-", "-", "-", "-",
                        (std::string(imagelib_statusText(rc)) + " (status " + std::to_string(rc) + ")").c_str());
            continue;
        }
        ++written;
        long bytes = ::stat(path.c_str(), &st) == 0 ? long(st.st_size) : -1;
        std::string readMs = "-", diff = "-", note;
        if (readable(type) || type == kGifType) {
            uint8_t* back = nullptr;
            ImageSize size{};
            t0 = std::chrono::steady_clock::now();
            rc = korImage_readFileToRGB(&back, &size, path.c_str(), type, nullptr, nullptr);
            double ms = msSince(t0);
            if (rc == 0 && size.x == kW && size.y == kH) {
                int worst = 0;
                const uint8_t* a = source.bytes();
                for (size_t k = 0; k < size_t(kW) * kH * 3; ++k) {
                    int d = a[k] > back[k] ? a[k] - back[k] : back[k] - a[k];
                    if (d > worst) worst = d;
                }
                char buf[32];
                std::snprintf(buf, sizeof buf, "%.1f", ms);
                readMs = buf;
                diff = std::to_string(worst);
            } else {
                note = rc == 0 ? "read back at another size" : std::string("read: ") + imagelib_statusText(rc);
            }
            if (back) korImage_freeImage(back, &size, IMAGEFORMAT_RGB);
        } else {
            note = "no reader";
        }
        char wbuf[32];
        std::snprintf(wbuf, sizeof wbuf, "%.1f", writeMs);
        std::printf("%-4d %-5s %-8s %10ld %9s %9s %8s  %s\n", type, ext, modeName(mode), bytes, wbuf,
                    readMs.c_str(), diff.c_str(), note.c_str());
    }
    std::printf("\n%d of %d writable types written.\n", written, int(types.size()));
    return kOk;
}

}  // namespace cli
