// Arbitrary bytes through every PCX reader: information, map and RGB
// (contiguous and PackByte rows), bitmap (plain and run-length rows), and
// the line decoder on the raw bytes.
#include <vector>

#include "codecs/native/pcx.h"
#include "harness_support.h"
#include "imagelib/imagelib.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& path = ilfuzz::writeTemp(data, size, "pcx");
    const char* p = path.c_str();
    ImageSize s{};
    int format = 0;
    (void)imagePcx_readInfo(&s, &format, p);

    uint8_t r[256], g[256], b[256];
    int count = 0;
    for (int packed : {0, 1}) {
        void* map = nullptr;
        if (imagePcx_readToMap(&map, &s, r, g, b, &count, p, packed, nullptr) == 0)
            korImage_freeImage(map, &s, packed ? IMAGEFORMAT_PACKBYTE : IMAGEFORMAT_MAP);
        void* bits = nullptr;
        if (imagePcx_readToBitMap(&bits, &s, packed, p, nullptr) == 0)
            korImage_freeImage(bits, &s, packed ? IMAGEFORMAT_RLEBITMAP : IMAGEFORMAT_BITMAP);
    }

    // The line decoder alone: the first byte picks the line length and the
    // start, the rest is coded data decoded line after line with the carry.
    if (size >= 1) {
        const int line = 1 + data[0] % 100;
        std::vector<uint8_t> buf(static_cast<size_t>(2 * line));
        size_t pos = 1;
        int carry = data[0] >> 7;
        for (int i = 0; i < 64 && pos < size; ++i) {
            const int reached = imagePcx_decodeLine(buf.data(), carry, line, 2 * line, data, size, &pos);
            carry = reached > line ? reached - line : 0;
        }
    }
    return 0;
}
