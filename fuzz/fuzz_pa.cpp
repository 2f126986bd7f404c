// Arbitrary bytes through the "p" and "a" readers. For "a" files the input
// is the header file and, after its 12 bytes, the data of all three plane
// files.
#include <cstdio>
#include <string>

#include "codecs/native/pa.h"
#include "harness_support.h"
#include "imagelib/imagelib.h"

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

    const std::string& a = ilfuzz::writeTemp(data, size, "a");
    const size_t header = size < 12 ? size : 12;
    for (char plane : {'r', 'g', 'b'}) {
        char name[IMAGELIB_PATH_MAX];
        if (imageA_planeName(name, a.c_str(), plane) != 0) continue;
        if (FILE* f = std::fopen(name, "wb")) {
            std::fwrite(data + header, 1, size - header, f);
            std::fclose(f);
        }
    }
    (void)imageA_readInfo(&s, &format, a.c_str());
    (void)imageA_detect(a.c_str());
    uint8_t* rgb = nullptr;
    if (imageA_readToRGB(&rgb, &s, a.c_str(), nullptr) == 0) korImage_freeImage(rgb, &s, IMAGEFORMAT_RGB);
    return 0;
}
