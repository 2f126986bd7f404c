// Display-procedure images through the host's program loader.
#include "codecs/native/pma.h"

#include <cstring>
#include <string>

#include "imagelib/host.h"
#include "internal/checked.h"
#include "internal/scratch.h"

namespace {

// The procedure chosen by the last open and the progress function of the
// read in progress, per thread.
thread_local ImageDisplayProcedure t_procedure = nullptr;
thread_local StopFunction t_progress = nullptr;

// What the procedure is given as its progress function: the read's own.
int forwardProgress(int rows, int row) { return imageUtil_reportProgress(t_progress, rows, row); }

}  // namespace

int imagePma_open(ImageSize* size, int* imageFormat, const char* path) noexcept {
    if (imageFormat) *imageFormat = COLORMODE_RGB;
    char name[IMAGELIB_PATH_MAX];
    if (!path || korFile_parseName(nullptr, name, nullptr, path) != 0) return IMGERR_OPENFAILED;
    if (korSystem_getTaskStatistics(name) == 0) {
        int st = korSystem_loadKorProgram(path, "DISPLAY_ONLY");
        if (st == IMGERR_UNSUPPORTEDTYPE) return st;  // the host has no program loader
        if (st != 0) return IMGERR_OPENFAILED;
    }
    const std::string procedure = std::string(name) + "_displayProcedure";
    void* value = nullptr;
    if (korCExpression_getValue(&value, procedure.c_str(), name) != 0 || !value) {
        korSystem_unloadKorProgram(name);
        return IMGERR_UNSUPPORTEDTYPE;
    }
    t_procedure = reinterpret_cast<ImageDisplayProcedure>(value);
    return size ? t_procedure(nullptr, size, nullptr) : 0;
}

int imagePma_readToRGB(uint8_t** rgb, ImageSize* size, const char* path, StopFunction progress) noexcept {
    if (!rgb || !size) return IMGERR_BADARG;
    const bool sized = size->x > 0 && size->y > 0;
    if (int st = imagePma_open(sized ? nullptr : size, nullptr, path)) return st;
    size_t bytes = 0;
    if (!il::imageBytes(size->x, size->y, 3, &bytes))
        return size->x <= 0 || size->y <= 0 ? IMGERR_BADFILE : IMGERR_NOMEMORY;
    // Zeroed, so that pixels a procedure leaves alone are black.
    il::CallerBuffer<uint8_t> out = il::callerBytes(bytes, true);
    if (!out) return IMGERR_NOMEMORY;
    t_progress = progress;
    ImageSize drawn = *size;  // a copy: the buffer's size cannot change under the caller
    int st = t_procedure(out.get(), &drawn, forwardProgress);
    t_progress = nullptr;
    if (st != 0) return st;
    *rgb = out.release();
    return 0;
}
