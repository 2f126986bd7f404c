// Arbitrary bytes through the GIF reader (contiguous and PackByte rows), the
// LZW decoder on the raw bytes, and the coder and decoder against each
// other: the bytes as symbols must come back unchanged.
#include <cstdlib>
#include <vector>

#include "codecs/native/gif.h"
#include "harness_support.h"
#include "imagelib/imagelib.h"

namespace {

struct Cursor {
    const uint8_t* data;
    size_t size, at;
};

int nextByte(void* c) {
    auto* s = static_cast<Cursor*>(c);
    return s->at < s->size ? s->data[s->at++] : -1;
}

int putByte(void* c, int byte) { return static_cast<std::vector<uint8_t>*>(c)->push_back(uint8_t(byte)), 0; }

int takePixel(void* c, int pixel) {
    auto* out = static_cast<std::vector<uint8_t>*>(c);
    if (out->size() >= (1u << 22)) return 1;  // enough: the decoder is bounded, the harness need not be
    out->push_back(uint8_t(pixel));
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& path = ilfuzz::writeTemp(data, size, "gif");
    for (int packed : {0, 1}) {
        void* map = nullptr;
        ImageSize s{};
        uint8_t r[256], g[256], b[256];
        int count = 0;
        if (imageGif_readToMap(&map, &s, r, g, b, &count, path.c_str(), packed, nullptr) == 0)
            korImage_freeImage(map, &s, packed ? IMAGEFORMAT_PACKBYTE : IMAGEFORMAT_MAP);
    }

    ImageSize headerSize{};
    int transparent = -1;
    (void)imageGif_readInfo(&headerSize, &transparent, path.c_str());

    Cursor raw{data, size, 0};
    std::vector<uint8_t> pixels;
    (void)imageGif_decode(nextByte, &raw, takePixel, &pixels);

    // Round trip: the first byte picks the code size, the rest are symbols
    // reduced to its alphabet.
    if (size >= 1) {
        const int codeSize = 2 + data[0] % 7;
        std::vector<uint8_t> symbols(data + 1, data + size);
        for (uint8_t& v : symbols) v = uint8_t(v & ((1 << codeSize) - 1));
        Cursor in{symbols.data(), symbols.size(), 0};
        std::vector<uint8_t> stream;
        if (imageGif_encode(codeSize, nextByte, &in, putByte, &stream) != 0) std::abort();
        Cursor back{stream.data(), stream.size(), 0};
        std::vector<uint8_t> decoded;
        if (imageGif_decode(nextByte, &back, takePixel, &decoded) != 0 || decoded != symbols) std::abort();
    }
    return 0;
}
