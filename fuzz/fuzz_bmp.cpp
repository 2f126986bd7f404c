// Arbitrary bytes through every BMP reader: information, map (contiguous and
// PackByte rows), RGB and RGBA, bitmap (plain and run-length rows), and the run-length
// row decoder on the raw bytes.
#include <cstring>
#include <vector>

#include "codecs/native/bmp.h"
#include "harness_support.h"
#include "imagelib/imagelib.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& path = ilfuzz::writeTemp(data, size, "bmp");
    const char* p = path.c_str();
    ImageSize s{};
    int format = 0;
    (void)imageBmp_readInfo(&s, &format, p);

    uint8_t r[256], g[256], b[256];
    int count = 0;
    for (int packed : {0, 1}) {
        void* map = nullptr;
        if (imageBmp_readToMap(&map, &s, r, g, b, &count, p, packed) == 0)
            korImage_freeImage(map, &s, packed ? IMAGEFORMAT_PACKBYTE : IMAGEFORMAT_MAP);
        void* bits = nullptr;
        if (imageBmp_readToBitMap(&bits, &s, packed, p, nullptr) == 0)
            korImage_freeImage(bits, &s, packed ? IMAGEFORMAT_RLEBITMAP : IMAGEFORMAT_BITMAP);
    }
    uint8_t* rgb = nullptr;
    if (imageBmp_readToRGB(&rgb, &s, p) == 0) korImage_freeImage(rgb, &s, IMAGEFORMAT_RGB);
    if (imageBmp_readToRGBA(&rgb, &s, p) == 0) korImage_freeImage(rgb, &s, IMAGEFORMAT_RGBA);

    // The row decoder alone: the first byte picks RLE8 or RLE4 and the row
    // width, the rest is run-length data decoded row after row.
    if (size >= 1) {
        const int width = 1 + data[0] % 64;
        const uint32_t compression = data[0] & 0x80 ? kBmpRle4 : kBmpRle8;
        std::vector<uint8_t> row(static_cast<size_t>(width));
        size_t pos = 1;
        for (int i = 0; i < 64 && pos < size; ++i)
            if (imageBmp_decodeRleRow(row.data(), data, size, &pos, width, width, compression) < 0) break;
    }
    return 0;
}
