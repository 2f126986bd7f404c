#include "harness_support.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>

namespace ilfuzz {

const std::string& writeTemp(const uint8_t* data, size_t size, const char* extension) {
    static std::map<std::string, std::string> paths;
    std::string& path = paths[extension];
    if (path.empty()) {
        const char* dir = std::getenv("TMPDIR");
        path = std::string(dir ? dir : "/tmp") + "/imagelib-fuzz-" + std::to_string(::getpid()) + "." + extension;
    }
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f) {
        if (size) std::fwrite(data, 1, size, f);
        std::fclose(f);
    }
    return path;
}

}  // namespace ilfuzz
