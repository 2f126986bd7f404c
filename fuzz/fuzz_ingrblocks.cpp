// Arbitrary bytes through the block reader of Intergraph rasters: open, then
// blocks from the last one back (sequential codings restart), a bounded
// number of them.
#include <vector>

#include "harness_support.h"
#include "imagelib/imagelib.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& path = ilfuzz::writeTemp(data, size, "int");
    int st = 0;
    IngrRasterInfo info{};
    IngrBlockReader* r = korImage_openIngrBlocks(&st, &info, path.c_str());
    if (!r) return 0;
    const size_t bytes = size_t(info.blockSize.x) * size_t(info.blockSize.y) * size_t(info.bands);
    if (bytes <= (size_t(16) << 20)) {
        std::vector<uint8_t> block(bytes);
        const int cols = (info.size.x + info.blockSize.x - 1) / info.blockSize.x;
        const int rows = (info.size.y + info.blockSize.y - 1) / info.blockSize.y;
        const int total = cols * rows;
        for (int k = total - 1; k >= 0 && k >= total - 16; --k)
            if (korImage_readIngrBlock(r, k % cols, k / cols, block.data()) != 0) break;
        (void)korImage_readIngrBlock(r, 0, 0, block.data());
    }
    korImage_closeIngrBlocks(r);
    return 0;
}
