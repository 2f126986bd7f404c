// Movies: multi-frame files written frame by frame, FLI and FLC through the
// animation codec, AVI through the AVI writer. This is the only place that
// knows which writer serves which movie type.
#include <new>

#include "codecs/native/avi.h"
#include "codecs/native/flic.h"
#include "imagelib/io.h"
#include "imagelib/registry.h"

struct ImageMovie {
    int type = 0;
    ImageSize size{};
    FlicWriter* flic = nullptr;
    AviWriter* avi = nullptr;
};

namespace {

constexpr int kFli = 14, kFlc = 15, kAvi = 26;

int setStatus(int* status, int st) {
    if (status) *status = st;
    return st;
}

}  // namespace

extern "C" {

ImageMovie* korMovie_create(int* status, const char* path, int type, const ImageSize* size, int delay) noexcept {
    if (!path || !size) {
        setStatus(status, IMGERR_BADARG);
        return nullptr;
    }
    if (type < 0) type = korImage_typeFromExtension(path);
    if (type != kFli && type != kFlc && type != kAvi) {
        setStatus(status, IMGERR_UNSUPPORTEDTYPE);
        return nullptr;
    }
    auto* movie = new (std::nothrow) ImageMovie;
    if (!movie) {
        setStatus(status, IMGERR_NOMEMORY);
        return nullptr;
    }
    movie->type = type;
    movie->size = *size;
    int st = type == kAvi ? imageAvi_create(&movie->avi, size, delay, path)
                          : imageFlic_create(&movie->flic, path, size, delay, type == kFlc);
    if (st != 0) {
        delete movie;
        setStatus(status, st);
        return nullptr;
    }
    setStatus(status, 0);
    return movie;
}

int korMovie_addFrameFromRGB(ImageMovie* movie, const uint8_t* rgb, StopFunction stop) noexcept {
    if (!movie || !rgb) return IMGERR_BADARG;
    if (movie->avi) return imageAvi_writeFrameFromRGB(movie->avi, rgb, stop);
    return imageFlic_writeFrameFromRGB(movie->flic, rgb, COLORMODE_PALETTE256, stop);
}

int korMovie_addFrameFromMap(ImageMovie* movie, const uint8_t* map, const uint8_t* red, const uint8_t* green,
                             const uint8_t* blue, int count, StopFunction stop) noexcept {
    if (!movie || !map || !red || !green || !blue) return IMGERR_BADARG;
    if (movie->avi) return imageAvi_writeFrameFromMap(movie->avi, map, red, green, blue, count, &movie->size, stop);
    return imageFlic_writeFrameFromMap(movie->flic, map, 0, red, green, blue, count, stop);
}

int korMovie_close(ImageMovie* movie) noexcept {
    if (!movie) return IMGERR_BADARG;
    int st = movie->avi ? imageAvi_close(movie->avi) : imageFlic_close(movie->flic);
    delete movie;
    return st;
}

int korMovie_getFrameCount(int* frames, const char* path, int type) noexcept {
    if (!frames) return IMGERR_BADARG;
    type = korImage_fileType(type, path);
    if (type != kFli && type != kFlc) return IMGERR_UNSUPPORTEDTYPE;
    return imageFlic_readInfo(nullptr, frames, path);
}

}  // extern "C"
