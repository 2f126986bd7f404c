// Thumbnails: a file read to row-planar RGB that fits a box. The reader's
// own reduction comes first where it has one (the JPEG decoder's scaled
// inverse DCT, the streaming rows' on-the-fly scaling), so that a large
// file costs little more memory than its thumbnail; an area-averaging
// reduction makes the exact size.
#include "codecs/libs/jpeg.h"
#include "codecs/native/gif.h"
#include "imagelib/geo.h"
#include "imagelib/io.h"
#include "imagelib/registry.h"
#include "registry/dispatch.h"

namespace {

using il::dispatch::OwnedImage;

// The largest decoder reduction (8, 4, 2, else 1) that leaves the image at
// least as large as the thumbnail on both sides.
int jpegReduction(const ImageSize& file, const ImageSize& thumb) {
    for (int d = 8; d > 1; d /= 2)
        if ((file.x + d - 1) / d >= thumb.x && (file.y + d - 1) / d >= thumb.y) return d;
    return 1;
}

// The file's size without reading its pixels, where the type can tell it.
int fileSize(ImageSize* size, const char* path, int type) {
    if (type == 7) return imageGif_readInfo(size, nullptr, path);  // the headers of the first image
    return korImage_readFileInfo(size, nullptr, nullptr, path, type);
}

}  // namespace

extern "C" {

int korImage_thumbnailSize(ImageSize* thumb, const ImageSize* image, const ImageSize* box) noexcept {
    if (!thumb || !image || !box || image->x <= 0 || image->y <= 0 || box->x <= 0 || box->y <= 0)
        return IMGERR_BADARG;
    const int64_t w = image->x, h = image->y, bw = box->x, bh = box->y;
    if (w <= bw && h <= bh) {  // never enlarged
        *thumb = *image;
        return 0;
    }
    // The side that limits the scale meets the box; the other is rounded
    // to nearest, at least 1.
    int64_t tw, th;
    if (bw * h <= bh * w) {
        tw = bw;
        th = (2 * h * bw + w) / (2 * w);
    } else {
        th = bh;
        tw = (2 * w * bh + h) / (2 * h);
    }
    *thumb = ImageSize{int32_t(tw < 1 ? 1 : tw), int32_t(th < 1 ? 1 : th)};
    return 0;
}

int korImage_readThumbnail(uint8_t** rgb, ImageSize* outSize, const char* path, int type, const ImageSize* box,
                           StopFunction stop) noexcept {
    if (!rgb || !box || box->x <= 0 || box->y <= 0) return IMGERR_BADARG;
    type = il::dispatch::resolveType(type, path);
    if (type < 0 || type > 29) return IMGERR_UNSUPPORTEDTYPE;
    ImageSize file{}, thumb{};
    const bool known = fileSize(&file, path, type) == 0 && korImage_thumbnailSize(&thumb, &file, box) == 0;

    OwnedImage img;
    uint8_t* p = nullptr;
    ImageSize got{};
    int st;
    const bool reduced = known && (type == 18 || type == 1 || type == 2);
    if (known && type == 18) {  // JPEG: reduced while decoding
        st = jpegFile_readScaled(&p, &got, path, jpegReduction(file, thumb), stop);
    } else if (known && (type == 1 || type == 2)) {  // streamed rows, scaled as they come
        st = il::dispatch::streamReadImage(&p, &got, path, &thumb, false, stop);
        if (st > 0) {  // stopped: the partial picture is not a thumbnail
            if (p) dlmSystem_korFree(p);
            return IMGERR_STOPPED;
        }
    } else {
        st = korImage_readFileToRGB(&p, &got, path, type, nullptr, stop);
        if (st > 0) {
            if (p) dlmSystem_korFree(p);
            return IMGERR_STOPPED;
        }
    }
    if (st != 0) return st;
    img.reset(p, got, IMAGEFORMAT_RGB);
    // A whole read: the size of the pixels themselves decides (the header
    // may not tell it, or tell it before the picture was turned upright).
    if (!reduced)
        if (int s = korImage_thumbnailSize(&thumb, &got, box)) return s;
    if (got.x != thumb.x || got.y != thumb.y) {
        void* out = nullptr;
        if (int s = korImage_resize(&out, &thumb, img.get(), &got, stop)) {
            if (out) dlmSystem_korFree(out);
            return s > 0 ? IMGERR_STOPPED : s;
        }
        img.reset(out, thumb, IMAGEFORMAT_RGB);
    }
    if (outSize) *outSize = img.size();
    *rgb = static_cast<uint8_t*>(img.release());
    return 0;
}

}  // extern "C"
