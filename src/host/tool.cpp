// Tool services: the file writes and closes of every writer pass here.
#include <cstdio>

#include "internal/file.h"

namespace il {

size_t toolSubsystem_fwrite(const void* data, size_t size, size_t count, FILE* f) {
    return std::fwrite(data, size, count, f);
}

int toolSubsystem_fclose(FILE* f) { return std::fclose(f); }

int toolSubsystem_fflush(FILE* f) { return std::fflush(f); }

}  // namespace il
