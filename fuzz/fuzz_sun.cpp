// Arbitrary bytes through every Sun raster reader: information and map
// (contiguous and PackByte rows), and the byte decoder on the raw bytes.
#include <vector>

#include "codecs/native/sun.h"
#include "harness_support.h"
#include "imagelib/imagelib.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& path = ilfuzz::writeTemp(data, size, "rs");
    const char* p = path.c_str();
    ImageSize s{};
    int format = 0;
    (void)imageSun_readInfo(&s, &format, p);

    uint8_t r[256], g[256], b[256];
    int count = 0;
    for (int packed : {0, 1}) {
        void* map = nullptr;
        if (imageSun_readToMap(&map, &s, r, g, b, &count, p, packed, nullptr) == 0)
            korImage_freeImage(map, &s, packed ? IMAGEFORMAT_PACKBYTE : IMAGEFORMAT_MAP);
    }

    // The byte decoder alone: rows of a length the first byte picks.
    if (size >= 1) {
        std::vector<uint8_t> row(1 + data[0] % 97);
        SunDecoder dec;
        dec.data = data, dec.length = size, dec.pos = 1;
        for (int i = 0; i < 64; ++i)
            if (imageSun_readRow(&dec, row.data(), row.size(), 1) != 0) break;
    }
    return 0;
}
