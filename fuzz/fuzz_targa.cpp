// Arbitrary bytes through the Targa reader: the info reader, then the
// streaming open and every row, unscaled and (for small images) scaled to a
// size taken from the input.
#include <vector>

#include "harness_support.h"
#include "imagelib/imagelib.h"
#include "registry/targa.h"

namespace {

void readRows(const char* path, const ImageSize* requested) {
    int status = 0;
    ImageFileContext* c = korImage_openFile(&status, requested, path);
    if (!c) return;
    ImageSize size{};
    korImage_getImageSize(&size, c);
    std::vector<uint8_t> planes(size_t(size.x) * 4);
    uint8_t* p = planes.data();
    for (int r = 0; r < size.y; ++r)
        if (korImage_getRow(c, p, p + size.x, p + 2 * size.x, p + 3 * size.x) != 0) break;
    korImage_closeFile(c);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& path = ilfuzz::writeTemp(data, size, "tga");
    ImageSize fileSize{};
    int mode = 0, orientation = 0;
    if (imageTga_readInfo(&fileSize, &mode, &orientation, path.c_str()) != 0) return 0;
    readRows(path.c_str(), nullptr);
    // A scaled read of a small image, to a size of up to 64 x 64 from the
    // last two bytes.
    if (size >= 20 && fileSize.x <= 256 && fileSize.y <= 256) {
        const ImageSize requested{1 + data[size - 1] % 64, 1 + data[size - 2] % 64};
        readRows(path.c_str(), &requested);
    }
    return 0;
}
