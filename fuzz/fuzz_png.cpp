// Arbitrary bytes through the PNG detector, header reader and the reader in
// the wanted colour modes, plain and packed.
#include "codecs/libs/png.h"
#include "harness_support.h"
#include "imagelib/imagelib.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& path = ilfuzz::writeTemp(data, size, "png");
    const char* p = path.c_str();
    ImageSize s{};
    int mode = 0;
    if (pngFile_readInfo(&s, &mode, p) != 0) return 0;
    uint8_t r[256], g[256], b[256];
    int count = 0;
    // The file's own mode plain and packed, RGB, a packed palette, a run-length
    // bitmap and alpha planes; modes a file does not allow are refused early.
    const int wants[][2] = {{0, 0}, {0, 1}, {1, 0}, {3, 1}, {5, 1}, {6, 0}};
    for (const auto& w : wants) {
        void* out = nullptr;
        int layout = 0;
        if (pngFile_read(&out, &s, r, g, b, &count, p, w[0], w[1], nullptr, &layout) == 0)
            korImage_freeImage(out, &s, layout);
    }
    return 0;
}
