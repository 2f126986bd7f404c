// Arbitrary bytes through every TIFF reader: detection and information, the
// RGBA interface (with and without alpha), palette-index images (byte map
// and PackByte rows), bitmaps (plain and run-length rows), the palette, the
// GeoTIFF transform and the streaming rows.
#include <cstdlib>
#include <vector>

#include "codecs/libs/tiff.h"
#include "codecs/rows.h"
#include "harness_support.h"
#include "imagelib/imagelib.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("KV_TIFFMESSAGES", "0", 1);  // libtiff's complaints would flood the log
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& path = ilfuzz::writeTemp(data, size, "tif");
    const char* p = path.c_str();
    (void)tiff_detect(p, 29);
    TiffInfo info{};
    (void)tiff_readFileInfo(&info, p);
    double m[12];
    (void)korImage_readGeoTiffInfo(m, p);

    ImageSize s{};
    for (int alpha : {0, 1}) {
        uint8_t* rgb = nullptr;
        if (tiff_readFileToRGBSeparate(&rgb, &s, p, alpha, nullptr) == 0) korImage_freeImage(rgb, &s, IMAGEFORMAT_RGB);
    }
    uint8_t r[256], g[256], b[256];
    int count = 0;
    (void)tiff_readPalette(r, g, b, &count, p);
    for (int packed : {0, 1}) {
        void* map = nullptr;
        if (tiff_readFileToMap(&map, &s, r, g, b, &count, p, packed, nullptr) == 0)
            korImage_freeImage(map, &s, packed ? IMAGEFORMAT_PACKBYTE : IMAGEFORMAT_MAP);
        void* bits = nullptr;
        if (tiff_readFileToBitMap(&bits, &s, packed, p, nullptr) == 0)
            korImage_freeImage(bits, &s, packed ? IMAGEFORMAT_RLEBITMAP : IMAGEFORMAT_BITMAP);
    }

    ImageFileContext ctx{};
    if (tiff_openStream(&ctx, p) == 0) {
        std::vector<uint8_t> row(size_t(ctx.fileSize.x) * 3);
        const int rows = ctx.fileSize.y < 64 ? ctx.fileSize.y : 64;
        for (int y = 0; y < rows; ++y)
            if (ctx.readRow(&ctx, row.data(), row.data() + ctx.fileSize.x, row.data() + 2 * size_t(ctx.fileSize.x),
                            nullptr) != 0)
                break;
        ctx.close(&ctx);
    }
    return 0;
}
