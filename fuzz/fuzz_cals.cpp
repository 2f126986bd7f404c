// Arbitrary bytes through the CALS and fax readers (header, map, bitmap,
// run-length bitmap) and so through the Group 4 decoder.
#include "codecs/intergraph/cals.h"
#include "harness_support.h"
#include "imagelib/imagelib.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& path = ilfuzz::writeTemp(data, size, "cal");
    const char* p = path.c_str();
    ImageSize s{};
    int mode = 0, count = 0;
    (void)cals_readHeader(&s, &mode, p);
    uint8_t r[256], g[256], b[256];
    void* img = nullptr;
    if (cals_readFileToMap(&img, &s, r, g, b, &count, p, 1, nullptr) == 0) dlmSystem_korFree(img);
    for (int rl : {0, 1}) {
        img = nullptr;
        if (cals_readFileToBitMap(&img, &s, rl, p, nullptr) == 0)
            korImage_freeImage(img, &s, rl ? IMAGEFORMAT_RLEBITMAP : IMAGEFORMAT_BITMAP);
    }
    img = nullptr;
    if (fax_readFileToMap(&img, &s, r, g, b, &count, p, 0, nullptr) == 0) dlmSystem_korFree(img);
    img = nullptr;
    if (fax_readFileToBitMap(&img, &s, p, nullptr) == 0) dlmSystem_korFree(img);
    return 0;
}
