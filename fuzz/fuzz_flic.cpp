// Arbitrary bytes through the FLI/FLC reader: information, the first frame
// as a map and as PackByte rows, and every frame chunk of the file applied
// in turn to one canvas (so that the delta decoders see any canvas state).
#include <vector>

#include "codecs/native/flic.h"
#include "harness_support.h"
#include "imagelib/imagelib.h"
#include "internal/bytes.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& path = ilfuzz::writeTemp(data, size, "flc");
    const char* p = path.c_str();
    ImageSize s{};
    int frames = 0;
    (void)imageFlic_readInfo(&s, &frames, p);
    uint8_t r[256], g[256], b[256];
    int count = 0;
    for (int packed : {0, 1}) {
        void* map = nullptr;
        if (imageFlic_readToMap(&map, &s, r, g, b, &count, p, packed, nullptr) == 0)
            korImage_freeImage(map, &s, packed ? IMAGEFORMAT_PACKBYTE : IMAGEFORMAT_MAP);
    }

    // Every frame chunk after the header, on a canvas of at most 2^20 pixels.
    FlicHeader h;
    if (size < kFlicHeaderBytes || imageFlic_parseHeader(&h, data) != 0) return 0;
    if (size_t(h.width) * h.height > (size_t(1) << 20)) return 0;
    std::vector<uint8_t> canvas(size_t(h.width) * h.height), palette(768);
    for (size_t at = kFlicHeaderBytes; size - at >= kFlicSubHeaderBytes;) {
        const uint32_t chunk = il::get32le(data + at);
        if (chunk < kFlicSubHeaderBytes) break;
        if (il::get16le(data + at + 4) == kFlicFrameChunk)
            (void)imageFlic_decodeFrame(canvas.data(), h.width, h.height, palette.data(), data + at, size - at,
                                        nullptr);
        if (chunk > size - at) break;
        at += chunk;
    }
    return 0;
}
