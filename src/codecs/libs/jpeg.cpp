// JPEG through libjpeg, with the library's own error manager.
//
// libjpeg reports fatal errors by calling error_exit, which here jumps back
// (longjmp) into the call that set the jump target. The functions that set
// one (named ...Protected) therefore hold no object with a destructor: every
// resource lives in the plain JpegContext record and is released by
// releaseContext() after the protected function has returned, whichever
// way it returned.
#include "codecs/libs/jpeg.h"

#include <sys/stat.h>

#include <csetjmp>
#include <cstdio>
#include <cstring>

// jpeglib.h needs size_t and FILE declared before it.
#include <jerror.h>
#include <jpeglib.h>

#include "imagelib/host.h"
#include "imagelib/pixels.h"
#include "internal/checked.h"
#include "internal/file.h"
#include "internal/scratch.h"
#include "pixels/colour.h"
#include "pixels/rgbrows.h"
#include "pixels/rows.h"

namespace {

// libjpeg's memory for one image is held to this (progressive and
// multi-scan files keep every coefficient of the image).
constexpr long kJpegMemoryLimit = 1L << 30;
// More scans than any encoder writes: a file with more is refused, so that
// a small file cannot keep the decoder busy for long.
constexpr int kJpegMaxScans = 1000;
constexpr size_t kOutputChunk = 64 * 1024;

// Destination manager that writes through the tool services.
struct ToolDestination {
    jpeg_destination_mgr pub;
    FILE* file;
    JOCTET buffer[kOutputChunk];
};

// The working context of one call. Allocated zeroed; only plain members.
struct JpegContext {
    jpeg_error_mgr err;
    jpeg_progress_mgr progress;
    jpeg_decompress_struct d;
    jpeg_compress_struct c;
    bool decompressCreated;
    bool compressCreated;
    bool writing;        // the file was opened for writing
    bool silent;         // messages are not printed
    std::jmp_buf jump;   // where a fatal libjpeg error returns to
    FILE* file;
    ToolDestination* destination;
    // The image being read (host allocator) and its layout.
    void* output;
    ImageSize outputSize;
    int outputLayout;
    uint8_t* row;        // one decoded or converted row (scratch)
    int colourMode;      // COLORMODE_RGB or COLORMODE_GREY
    int packed;
    int scaleDenom;      // 1, or the reduction of the scaled read (2, 4, 8)
};

thread_local JpegContext* t_jpeg = nullptr;

JpegContext* contextOf(j_common_ptr cinfo) { return static_cast<JpegContext*>(cinfo->client_data); }

// Prints libjpeg's message for the current error or warning.
void printMessage(j_common_ptr cinfo) {
    char text[JMSG_LENGTH_MAX];
    (*cinfo->err->format_message)(cinfo, text);
    std::fprintf(stderr, "imagelib: JPEG: %s\n", text);
}

void silentMessage(j_common_ptr) {}

[[noreturn]] void fatalError(j_common_ptr cinfo) {
    (*cinfo->err->output_message)(cinfo);  // silent for the header reader
    std::longjmp(contextOf(cinfo)->jump, 1);
}

void watchScans(j_common_ptr cinfo) {
    if (cinfo->is_decompressor) {
        auto* d = reinterpret_cast<j_decompress_ptr>(cinfo);
        if (d->input_scan_number > kJpegMaxScans) ERREXIT1(cinfo, JERR_BAD_SCAN_SCRIPT, d->input_scan_number);
    }
}

void initDestination(j_compress_ptr cinfo) {
    auto* dest = reinterpret_cast<ToolDestination*>(cinfo->dest);
    dest->pub.next_output_byte = dest->buffer;
    dest->pub.free_in_buffer = kOutputChunk;
}

boolean emptyDestination(j_compress_ptr cinfo) {
    auto* dest = reinterpret_cast<ToolDestination*>(cinfo->dest);
    if (il::toolSubsystem_fwrite(dest->buffer, 1, kOutputChunk, dest->file) != kOutputChunk)
        ERREXIT(cinfo, JERR_FILE_WRITE);
    dest->pub.next_output_byte = dest->buffer;
    dest->pub.free_in_buffer = kOutputChunk;
    return TRUE;
}

void termDestination(j_compress_ptr cinfo) {
    auto* dest = reinterpret_cast<ToolDestination*>(cinfo->dest);
    const size_t n = kOutputChunk - dest->pub.free_in_buffer;
    if (n && il::toolSubsystem_fwrite(dest->buffer, 1, n, dest->file) != n) ERREXIT(cinfo, JERR_FILE_WRITE);
    if (il::toolSubsystem_fflush(dest->file) != 0) ERREXIT(cinfo, JERR_FILE_WRITE);
}

JpegContext* newContext(bool silent) {
    auto* ctx = static_cast<JpegContext*>(memutil_malloc(sizeof(JpegContext), il::tag("JpgC")));
    if (!ctx) return nullptr;
    std::memset(static_cast<void*>(ctx), 0, sizeof *ctx);
    ctx->silent = silent;
    t_jpeg = ctx;
    return ctx;
}

// Idempotent release: the libjpeg object, the file, the output image (on
// failure only), the rows and the context itself.
int releaseContext(JpegContext*& ctx, int status) {
    if (!ctx) return status;
    if (ctx->decompressCreated) jpeg_destroy_decompress(&ctx->d);
    if (ctx->compressCreated) jpeg_destroy_compress(&ctx->c);
    if (ctx->file) {
        if (ctx->writing) {
            if (il::toolSubsystem_fclose(ctx->file) != 0 && status == 0) status = IMGERR_WRITEFAILED;
        } else {
            std::fclose(ctx->file);
        }
    }
    if (status != 0 && ctx->output) korImage_freeImage(ctx->output, &ctx->outputSize, ctx->outputLayout);
    if (ctx->row) memutil_free(ctx->row);
    if (ctx->destination) memutil_free(ctx->destination);
    memutil_free(ctx);
    ctx = nullptr;
    t_jpeg = nullptr;
    return status;
}

void installErrorManager(JpegContext* ctx, j_common_ptr cinfo) {
    cinfo->err = jpeg_std_error(&ctx->err);
    ctx->err.error_exit = fatalError;
    ctx->err.output_message = ctx->silent ? silentMessage : printMessage;
}

// Creates the decompressor and reads the header. Protected: no destructors.
int readHeaderProtected(JpegContext* ctx) {
    if (setjmp(ctx->jump)) return IMGERR_DECODEFAILED;
    installErrorManager(ctx, reinterpret_cast<j_common_ptr>(&ctx->d));
    ctx->decompressCreated = true;  // destroying a half-made object is safe
    jpeg_create_decompress(&ctx->d);
    ctx->d.client_data = ctx;
    ctx->d.mem->max_memory_to_use = kJpegMemoryLimit;
    ctx->progress.progress_monitor = watchScans;
    ctx->d.progress = &ctx->progress;
    jpeg_stdio_src(&ctx->d, ctx->file);
    if (jpeg_read_header(&ctx->d, TRUE) != JPEG_HEADER_OK) return IMGERR_BADFILE;
    switch (ctx->d.num_components) {
        case 1: ctx->colourMode = COLORMODE_GREY; break;
        case 3: ctx->colourMode = COLORMODE_RGB; break;
        default: return IMGERR_BADFILE;
    }
    return 0;
}

// Opening shared by the header reader, the detector and the reader: the
// context, the file and the header. On failure nothing is left.
int openForReading(JpegContext*& ctx, const char* path, bool silent) {
    ctx = newContext(silent);
    if (!ctx) return IMGERR_NOMEMORY;
    ctx->file = path ? std::fopen(path, "rb") : nullptr;
    if (!ctx->file) return releaseContext(ctx, IMGERR_OPENFAILED);
    if (int st = readHeaderProtected(ctx)) return releaseContext(ctx, st);
    return 0;
}

// Decodes every row into ctx->output. Protected: no destructors.
int decodeProtected(JpegContext* ctx, int ditherOff, int twoPassOff, int colourCount, StopFunction stop) {
    if (setjmp(ctx->jump)) return IMGERR_DECODEFAILED;
    jpeg_decompress_struct& d = ctx->d;
    d.out_color_space = ctx->colourMode == COLORMODE_GREY ? JCS_GRAYSCALE : JCS_RGB;
    if (ctx->scaleDenom > 1) {
        d.scale_num = 1;
        d.scale_denom = unsigned(ctx->scaleDenom);
    }
    d.quantize_colors = FALSE;
    d.dither_mode = ditherOff ? JDITHER_NONE : JDITHER_FS;
    d.two_pass_quantize = twoPassOff ? FALSE : TRUE;
    d.desired_number_of_colors = colourCount == 4 || colourCount == 16 || colourCount == 256 ? colourCount : 256;
    jpeg_start_decompress(&d);
    const int w = ctx->outputSize.x, h = ctx->outputSize.y;
    if (int(d.output_width) != w || int(d.output_height) != h) return IMGERR_BADFILE;
    const size_t plane = size_t(w);
    auto* out = static_cast<uint8_t*>(ctx->output);
    for (int y = 0; y < h; ++y) {
        if (imageUtil_reportProgress(stop, h, y)) return IMGERR_STOPPED;
        if (ctx->colourMode == COLORMODE_RGB) {
            JSAMPROW row = ctx->row;
            jpeg_read_scanlines(&d, &row, 1);
            il::rgbRowToPlanes(out + 3 * plane * size_t(y), ctx->row, plane);
        } else if (ctx->packed) {
            JSAMPROW row = ctx->row;
            jpeg_read_scanlines(&d, &row, 1);
            if (il::storePackByteRow(static_cast<uint8_t**>(ctx->output), int(d.output_scanline) - 1, ctx->row, w))
                ERREXIT1(&d, JERR_OUT_OF_MEMORY, 0);
        } else {
            JSAMPROW row = out + plane * size_t(y);
            jpeg_read_scanlines(&d, &row, 1);
        }
    }
    jpeg_finish_decompress(&d);
    return 0;
}

// Writes every row. Protected: no destructors.
int encodeProtected(JpegContext* ctx, const ImageSize* size, const uint8_t* buffer, int quality, int greyOutput,
                    StopFunction stop) {
    if (setjmp(ctx->jump)) return IMGERR_DECODEFAILED;
    installErrorManager(ctx, reinterpret_cast<j_common_ptr>(&ctx->c));
    ctx->compressCreated = true;
    jpeg_create_compress(&ctx->c);
    jpeg_compress_struct& c = ctx->c;
    c.client_data = ctx;
    ToolDestination* dest = ctx->destination;
    dest->file = ctx->file;
    dest->pub.init_destination = initDestination;
    dest->pub.empty_output_buffer = emptyDestination;
    dest->pub.term_destination = termDestination;
    c.dest = &dest->pub;
    c.image_width = JDIMENSION(size->x);
    c.image_height = JDIMENSION(size->y);
    const bool grey = ctx->colourMode == COLORMODE_GREY;
    c.input_components = grey ? 1 : 3;
    c.in_color_space = grey ? JCS_GRAYSCALE : JCS_RGB;
    jpeg_set_defaults(&c);
    jpeg_set_quality(&c, jpegFile_quality(quality), TRUE);
    jpeg_set_colorspace(&c, greyOutput ? JCS_GRAYSCALE : JCS_YCbCr);
    jpeg_start_compress(&c, TRUE);
    const int w = size->x, h = size->y;
    const size_t plane = size_t(w);
    for (int y = 0; y < h; ++y) {
        if (imageUtil_reportProgress(stop, h, y)) return IMGERR_STOPPED;
        JSAMPROW row;
        if (grey) {
            row = const_cast<uint8_t*>(buffer + plane * size_t(y));
        } else {
            il::planesToRGBRow(ctx->row, buffer + 3 * plane * size_t(y), plane);
            row = ctx->row;
        }
        jpeg_write_scanlines(&c, &row, 1);
    }
    jpeg_finish_compress(&c);
    return 0;
}

}  // namespace

int jpegFile_readInfo(ImageSize* size, int* colourMode, const char* path) noexcept {
    JpegContext* ctx = nullptr;
    if (int st = openForReading(ctx, path, true)) return st;
    if (size) *size = ImageSize{int32_t(ctx->d.image_width), int32_t(ctx->d.image_height)};
    if (colourMode) *colourMode = ctx->colourMode;
    return releaseContext(ctx, 0);
}

int jpegFile_detect(const char* path) noexcept { return jpegFile_readInfo(nullptr, nullptr, path); }

int jpegFile_read(void** buffer, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue, int* count,
                  const char* path, int packed, int ditherOff, int twoPassOff, int colourCount,
                  StopFunction stop) noexcept {
    if (!buffer) return IMGERR_BADARG;
    JpegContext* ctx = nullptr;
    if (int st = openForReading(ctx, path, false)) return st;
    const bool rgb = ctx->colourMode == COLORMODE_RGB;
    const int64_t w = ctx->d.image_width, h = ctx->d.image_height;
    // A header claiming more pixels than the file could describe is refused
    // before anything is allocated for them.
    struct stat info;
    const int64_t fileBytes = fstat(fileno(ctx->file), &info) == 0 ? int64_t(info.st_size) : 0;
    size_t bytes = 0;
    if (!il::imageBytes(w, h, rgb ? 3 : 1, &bytes) || w * h > fileBytes * kJpegPixelsPerByte ||
        !il::withinPixelLimit(w, h))
        return releaseContext(ctx, IMGERR_BADFILE);
    ctx->outputSize = ImageSize{int32_t(w), int32_t(h)};
    ctx->packed = rgb ? 0 : packed;
    if (rgb || packed) {
        ctx->row = static_cast<uint8_t*>(memutil_malloc(size_t(w) * 3, il::tag("JpgR")));
        if (!ctx->row) return releaseContext(ctx, IMGERR_NOMEMORY);
    }
    if (ctx->packed) {
        ctx->output = dlmSystem_korCalloc(size_t(h), sizeof(uint8_t*));
        ctx->outputLayout = IMAGEFORMAT_PACKBYTE;
    } else {
        ctx->output = dlmSystem_korMalloc(bytes);
        ctx->outputLayout = rgb ? IMAGEFORMAT_RGB : IMAGEFORMAT_MAP;
    }
    if (!ctx->output) return releaseContext(ctx, IMGERR_NOMEMORY);
    if (int st = decodeProtected(ctx, ditherOff, twoPassOff, colourCount, stop)) return releaseContext(ctx, st);
    if (rgb) {
        if (count) *count = 0;
    } else {
        if (red && green && blue) il::setGreyRamp(red, green, blue);
        if (count) *count = 256;
    }
    *buffer = ctx->output;
    if (size) *size = ctx->outputSize;
    return releaseContext(ctx, 0);
}

int jpegFile_readScaled(uint8_t** rgb, ImageSize* size, const char* path, int denom, StopFunction stop) noexcept {
    if (!rgb || (denom != 1 && denom != 2 && denom != 4 && denom != 8)) return IMGERR_BADARG;
    JpegContext* ctx = nullptr;
    if (int st = openForReading(ctx, path, false)) return st;
    const int64_t fw = ctx->d.image_width, fh = ctx->d.image_height;
    struct stat info;
    const int64_t fileBytes = fstat(fileno(ctx->file), &info) == 0 ? int64_t(info.st_size) : 0;
    if (fw * fh > fileBytes * kJpegPixelsPerByte) return releaseContext(ctx, IMGERR_BADFILE);
    // The decoder's scaled size: each side divided by denom, rounded up.
    const int64_t w = (fw + denom - 1) / denom, h = (fh + denom - 1) / denom;
    size_t bytes = 0;
    if (!il::imageBytes(w, h, 3, &bytes) || !il::withinPixelLimit(w, h)) return releaseContext(ctx, IMGERR_BADFILE);
    ctx->colourMode = COLORMODE_RGB;  // grey files are expanded by the decoder
    ctx->scaleDenom = denom;
    ctx->outputSize = ImageSize{int32_t(w), int32_t(h)};
    ctx->row = static_cast<uint8_t*>(memutil_malloc(size_t(w) * 3, il::tag("JpgS")));
    ctx->output = dlmSystem_korMalloc(bytes);
    ctx->outputLayout = IMAGEFORMAT_RGB;
    if (!ctx->row || !ctx->output) return releaseContext(ctx, IMGERR_NOMEMORY);
    if (int st = decodeProtected(ctx, 1, 1, 256, stop)) return releaseContext(ctx, st);
    *rgb = static_cast<uint8_t*>(ctx->output);
    if (size) *size = ctx->outputSize;
    return releaseContext(ctx, 0);
}

int jpegFile_create(const char* path, const ImageSize* size, const uint8_t* buffer, int quality, int colourMode,
                    int greyOutput, StopFunction stop) noexcept {
    if (!buffer || !size || !il::imageBytes(size->x, size->y, 3) || size->x > JPEG_MAX_DIMENSION ||
        size->y > JPEG_MAX_DIMENSION)
        return IMGERR_BADARG;
    JpegContext* ctx = newContext(false);
    if (!ctx) return IMGERR_NOMEMORY;
    ctx->colourMode = colourMode == COLORMODE_GREY ? COLORMODE_GREY : COLORMODE_RGB;
    ctx->destination = static_cast<ToolDestination*>(memutil_malloc(sizeof(ToolDestination), il::tag("JpgD")));
    if (!ctx->destination) return releaseContext(ctx, IMGERR_NOMEMORY);
    std::memset(static_cast<void*>(ctx->destination), 0, sizeof(ToolDestination));
    if (ctx->colourMode == COLORMODE_RGB) {
        ctx->row = static_cast<uint8_t*>(memutil_malloc(size_t(size->x) * 3, il::tag("JpgW")));
        if (!ctx->row) return releaseContext(ctx, IMGERR_NOMEMORY);
    }
    ctx->file = path ? std::fopen(path, "wb") : nullptr;
    if (!ctx->file) return releaseContext(ctx, IMGERR_OPENFAILED);
    ctx->writing = true;
    int st = encodeProtected(ctx, size, buffer, quality, greyOutput, stop);
    return releaseContext(ctx, st);
}
