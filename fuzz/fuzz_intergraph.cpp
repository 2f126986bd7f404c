// Arbitrary bytes through the Intergraph raster readers: header
// information, detection, the whole-picture decoder, bitmaps, palette,
// georeference and the RGB row handler.
#include "codecs/intergraph/ingr.h"
#include "harness_support.h"
#include "imagelib/imagelib.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& path = ilfuzz::writeTemp(data, size, "int");
    const char* p = path.c_str();
    ImageSize s{};
    int mode = 0, dt = 0, tdt = 0, resolved = 0;
    (void)ingr_readHeaderInfo(&s, &mode, &dt, &tdt, &resolved, p);
    (void)ingr_detect(p, 23);
    void* img = nullptr;
    int rgb = 0, count = 0;
    uint8_t r[256], g[256], b[256];
    if (ingr_readImage(&img, &s, &rgb, r, g, b, &count, &mode, p, nullptr) == 0) dlmSystem_korFree(img);
    for (int rl : {0, 1}) {
        void* bits = nullptr;
        if (ingr_readToBitMap(&bits, &s, rl, p, nullptr) == 0)
            korImage_freeImage(bits, &s, rl ? IMAGEFORMAT_RLEBITMAP : IMAGEFORMAT_BITMAP);
    }
    (void)ingr_readPalette(r, g, b, &count, p);
    double origin[3], extent[2];
    int orientation = 0;
    (void)korImage_extractIngrAttach(origin, extent, &orientation, p);
    int st = 0;
    if (ImageFileContext* ctx = korImage_openFile(&st, nullptr, p)) {
        uint8_t row[3][64];
        ImageSize is{};
        korImage_getImageSize(&is, ctx);
        if (is.x <= 64)
            for (int y = 0; y < 4; ++y)
                if (korImage_getRow(ctx, row[0], row[1], row[2], nullptr) != 0) break;
        korImage_closeFile(ctx);
    }
    return 0;
}
