// Arbitrary bytes through type detection from contents and from the name.
#include "harness_support.h"
#include "imagelib/imagelib.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const char* kExtensions[] = {"bin", "tga", "rle", "cot"};
    const std::string& path = ilfuzz::writeTemp(data, size, kExtensions[size % 4]);
    (void)korImage_typeFromFile(path.c_str());
    (void)korImage_fileType(-1, path.c_str());
    return 0;
}
