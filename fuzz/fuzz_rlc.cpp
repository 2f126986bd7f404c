// Arbitrary bytes through the RLC readers: information, map, bitmap and
// run-length bitmap.
#include "codecs/intergraph/rlc.h"
#include "harness_support.h"
#include "imagelib/imagelib.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& path = ilfuzz::writeTemp(data, size, "rlc");
    const char* p = path.c_str();
    ImageSize s{};
    int mode = 0, count = 0;
    (void)rlc_readFileInfo(&s, &mode, p);
    uint8_t r[256], g[256], b[256];
    void* img = nullptr;
    if (rlc_readFileToMap(&img, &s, r, g, b, &count, p, 1, nullptr) == 0) dlmSystem_korFree(img);
    for (int rl : {0, 1}) {
        img = nullptr;
        if (rlc_readFileToBitMap(&img, &s, rl, p, nullptr) == 0)
            korImage_freeImage(img, &s, rl ? IMAGEFORMAT_RLEBITMAP : IMAGEFORMAT_BITMAP);
    }
    return 0;
}
