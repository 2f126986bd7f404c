// Arbitrary bytes through the "p" and "a" readers. An "a" image is read
// twice: with the input as its header file (and the bytes after its first
// 12 as the data of all three plane files), and with a header made from
// the first two bytes (sizes 1..16) over plane files of the remaining bytes,
// so that plane reading is reached without an "a" seed (a seed of the
// header alone could not read: its plane files are separate files).
#include <cstdio>
#include <string>

#include "codecs/native/pa.h"
#include "harness_support.h"
#include "imagelib/imagelib.h"

namespace {

void readA(const uint8_t* header, size_t headerBytes, const uint8_t* planes, size_t planeBytes) {
    const std::string& a = ilfuzz::writeTemp(header, headerBytes, "a");
    for (char plane : {'r', 'g', 'b'}) {
        char name[IMAGELIB_PATH_MAX];
        if (imageA_planeName(name, a.c_str(), plane) != 0) continue;
        if (FILE* f = std::fopen(name, "wb")) {
            if (planeBytes) std::fwrite(planes, 1, planeBytes, f);
            std::fclose(f);
        }
    }
    ImageSize s{};
    int format = 0;
    (void)imageA_readInfo(&s, &format, a.c_str());
    (void)imageA_detect(a.c_str());
    uint8_t* rgb = nullptr;
    if (imageA_readToRGB(&rgb, &s, a.c_str(), nullptr) == 0) korImage_freeImage(rgb, &s, IMAGEFORMAT_RGB);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* p = ilfuzz::writeTemp(data, size, "p").c_str();
    ImageSize s{};
    int format = 0, count = 0;
    (void)imageP_readInfo(&s, &format, p);
    (void)imageP_detect(p);
    uint8_t r[256], g[256], b[256];
    for (int packed : {0, 1}) {
        void* map = nullptr;
        if (imageP_readToMap(&map, &s, r, g, b, &count, p, packed, nullptr) == 0)
            korImage_freeImage(map, &s, packed ? IMAGEFORMAT_PACKBYTE : IMAGEFORMAT_MAP);
    }

    const size_t header = size < 12 ? size : 12;
    readA(data, size, data + header, size - header);
    if (size >= 2) {
        char made[16];
        std::snprintf(made, sizeof made, "%4u%4u    ", 1u + data[0] % 16, 1u + data[1] % 16);
        readA(reinterpret_cast<const uint8_t*>(made), 12, data + 2, size - 2);
    }
    return 0;
}
