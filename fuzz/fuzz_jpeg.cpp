// Arbitrary bytes through the JPEG header reader, the detector and the
// whole-image reader (colour, grey plain and PackByte rows, reduced reads).
#include "codecs/libs/jpeg.h"
#include "harness_support.h"
#include "imagelib/imagelib.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& path = ilfuzz::writeTemp(data, size, "jpg");
    const char* p = path.c_str();
    ImageSize s{};
    int mode = 0;
    if (jpegFile_readInfo(&s, &mode, p) != 0) return 0;
    (void)jpegFile_detect(p);
    uint8_t r[256], g[256], b[256];
    int count = 0;
    for (int packed = 0; packed <= (mode == COLORMODE_GREY ? 1 : 0); ++packed) {
        void* out = nullptr;
        if (jpegFile_read(&out, &s, r, g, b, &count, p, packed, 0, 0, 256, nullptr) == 0)
            korImage_freeImage(out, &s,
                               count == 0 ? IMAGEFORMAT_RGB : packed ? IMAGEFORMAT_PACKBYTE : IMAGEFORMAT_MAP);
    }
    // The decoder's own reductions.
    for (int denom : {2, 8}) {
        uint8_t* rgb = nullptr;
        if (jpegFile_readScaled(&rgb, &s, p, denom, nullptr) == 0) korImage_freeImage(rgb, &s, IMAGEFORMAT_RGB);
    }
    return 0;
}
