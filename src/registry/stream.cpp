// Streaming row access: open or create a file through its type's handler and
// hand rows over one at a time, resampling them on the fly when the caller's
// row size differs from the file's.
#include "registry/stream.h"

#include <cstring>
#include <new>
#include <utility>

#include "imagelib/io.h"
#include "imagelib/registry.h"
#include "internal/checked.h"
#include "internal/scratch.h"
#include "pixels/resize.h"

namespace {

using il::stream::Handler;
using il::stream::kHandlerCount;
using il::stream::kHandlers;

// Positive results kept on purpose.
constexpr int kNoHandler = IMGSTAT_NO_HANDLER;
constexpr int kNoMoreRows = IMGSTAT_NO_MORE_ROWS;
constexpr int kNoBackground = IMGSTAT_NO_BACKGROUND;

// Fixed-point shifts: one axis of weights (9 bits) or two (18 bits).
constexpr int kShiftOneAxis = il::kWeightBits;
constexpr int kShiftTwoAxes = 2 * il::kWeightBits;

int planeCount(const ImageFileContext* c) { return c->alpha ? 4 : 3; }

bool sameSize(const ImageSize& a, const ImageSize& b) { return a.x == b.x && a.y == b.y; }

ImageFileContext* newContext() {
    void* p = memutil_malloc(sizeof(ImageFileContext), il::tag("RGBF"));
    if (!p) return nullptr;
    std::memset(p, 0, sizeof(ImageFileContext));
    return static_cast<ImageFileContext*>(p);
}

void freeScaling(ImageFileContext* c) {
    delete c->xTable;
    delete c->yTable;
    c->xTable = c->yTable = nullptr;
    if (c->planes[0]) memutil_free(c->planes[0]);
    if (c->acc[0]) memutil_free(c->acc[0]);
    std::memset(c->planes, 0, sizeof c->planes);
    std::memset(c->acc, 0, sizeof c->acc);
}

void freeContext(ImageFileContext* c) {
    freeScaling(c);
    memutil_free(c);
}

// Closes the handler's file and frees the context (a failure after the
// handler had opened or created its file).
void abandon(ImageFileContext* c) {
    if (c->close) c->close(c);
    freeContext(c);
}

ImageFileContext* fail(int* status, int code) {
    if (status) *status = code;
    return nullptr;
}

const Handler* handlerFor(int type) {
    for (int i = 0; i < kHandlerCount; ++i)
        if (kHandlers[i].type == type) return &kHandlers[i];
    return nullptr;
}

// Number of accumulators in one accumulator row: planes at the resampled
// width.
size_t accLength(const ImageFileContext* c) { return size_t(c->xTable->dest) * planeCount(c); }

// Builds the tables from `from` to `to` and the buffers: file-width planes
// and three accumulator rows at the destination width.
int setupScaling(ImageFileContext* c, const ImageSize& from, const ImageSize& to) {
    if (to.x > il::kMaxDimension || to.y > il::kMaxDimension || from.x > il::kMaxDimension ||
        from.y > il::kMaxDimension)
        return IMGERR_BADARG;
    c->xTable = new (std::nothrow) il::AxisTable;
    c->yTable = new (std::nothrow) il::AxisTable;
    if (!c->xTable || !c->yTable) return IMGERR_NOMEMORY;
    if (int s = il::buildAxisTable(*c->xTable, from.x, to.x)) return s;
    if (int s = il::buildAxisTable(*c->yTable, from.y, to.y)) return s;
    c->xMode = c->xTable->mode;
    c->yMode = c->yTable->mode;

    const int n = planeCount(c);
    const size_t fileWidth = size_t(c->fileSize.x);
    auto* planes = static_cast<uint8_t*>(memutil_malloc(fileWidth * n, il::tag("RGBp")));
    if (!planes) return IMGERR_NOMEMORY;
    for (int p = 0; p < n; ++p) c->planes[p] = planes + fileWidth * p;

    const size_t len = accLength(c);
    auto* acc = static_cast<uint32_t*>(memutil_malloc(len * 3 * sizeof(uint32_t), il::tag("RGBa")));
    if (!acc) return IMGERR_NOMEMORY;
    std::memset(acc, 0, len * 3 * sizeof(uint32_t));
    for (int i = 0; i < 3; ++i) c->acc[i] = acc + len * i;
    return 0;
}

// --- reading ---------------------------------------------------------------

// Reads the next stored row and resamples it horizontally into acc.
// kNoMoreRows when the file has no more rows.
int readStored(ImageFileContext* c, uint32_t* acc) {
    if (c->storedRows >= c->fileSize.y) return kNoMoreRows;
    const int n = planeCount(c);
    const int s = c->readRow(c, c->planes[0], c->planes[1], c->planes[2], c->alpha ? c->planes[3] : nullptr);
    ++c->storedRows;
    if (s != 0) return s;
    const size_t width = size_t(c->xTable->dest);
    for (int p = 0; p < n; ++p) il::resampleRow(*c->xTable, c->planes[p], acc + width * p);
    return 0;
}

// Converts an accumulator row into the caller's planes (null ones skipped).
void emitRow(const ImageFileContext* c, const uint32_t* acc, int shift, uint8_t* const* out) {
    const size_t width = size_t(c->xTable->dest);
    for (int p = 0; p < planeCount(c); ++p)
        if (out[p]) il::accumulatorsToBytes(out[p], acc + width * p, width, shift);
}

// The two reads made at open: the first two stored rows go into the second
// and third accumulators (a one-row file holds its row twice), so that
// enlargement has two rows to interpolate between. Reduction starts from
// empty accumulators: in modes 0 and 2 the rows handed over are made from
// the third stored row on.
int primeReading(ImageFileContext* c) {
    const size_t len = accLength(c);
    if (int s = readStored(c, c->acc[1]); s < 0) return s;
    if (c->fileSize.y >= 2) {
        if (int s = readStored(c, c->acc[2]); s < 0) return s;
    } else {
        std::memcpy(c->acc[2], c->acc[1], len * sizeof(uint32_t));
    }
    if (c->yMode == il::kAxisReduce) std::memset(c->acc[1], 0, 2 * len * sizeof(uint32_t));
    return 0;
}

int getScaledRow(ImageFileContext* c, uint8_t* const* out) {
    const size_t len = accLength(c);
    switch (c->yMode) {
        case il::kAxisCopy: {
            // The third accumulator holds the latest stored row; once the
            // stored rows are used up (two rows early, for the two read at
            // open) it is handed over again.
            if (int s = readStored(c, c->acc[2]); s < 0) return s;
            emitRow(c, c->acc[2], kShiftOneAxis, out);
            return 0;
        }
        case il::kAxisEnlarge: {
            // The held rows are stored rows storedRows - 2 and - 1; move on
            // while the output row lies below the upper one.
            const il::AxisEntry& e = c->yTable->entries[size_t(c->row)];
            while (e.index > c->storedRows - 2 && c->storedRows < c->fileSize.y) {
                std::swap(c->acc[1], c->acc[2]);
                if (int s = readStored(c, c->acc[2]); s < 0) return s;
            }
            il::blendRows(c->acc[0], c->acc[1], e.weight, c->acc[2], e.nextWeight, len);
            emitRow(c, c->acc[0], kShiftTwoAxes, out);
            return 0;
        }
        default: {
            // Add stored rows until one completes the output row, or the
            // stored rows run out (the sum is then handed over as it stands).
            bool completed = false;
            while (!completed && c->storedRows < c->fileSize.y) {
                const int32_t source = c->storedRows;
                if (int s = readStored(c, c->acc[0]); s < 0) return s;
                const il::AxisEntry& e = c->yTable->entries[size_t(source)];
                il::addWeightedRow(c->acc[1], c->acc[0], e.weight, len);
                if (c->yTable->completes(source)) {
                    il::setWeightedRow(c->acc[2], c->acc[0], e.nextWeight, len);
                    completed = true;
                }
            }
            emitRow(c, c->acc[1], kShiftTwoAxes, out);
            if (completed)
                std::swap(c->acc[1], c->acc[2]);
            else
                std::memset(c->acc[1], 0, len * sizeof(uint32_t));
            ++c->yPos;
            return 0;
        }
    }
}

// --- writing ---------------------------------------------------------------

// Writes the file-width planes as the next stored row.
int writeStored(ImageFileContext* c) {
    if (c->storedRows >= c->fileSize.y) return kNoMoreRows;
    ++c->storedRows;
    return c->writeRow(c, c->planes[0], c->planes[1], c->planes[2], c->alpha ? c->planes[3] : nullptr);
}

// Converts a file-width accumulator row into the plane buffers and writes it.
int writeAccumulated(ImageFileContext* c, const uint32_t* acc, int shift) {
    const size_t width = size_t(c->fileSize.x);
    for (int p = 0; p < planeCount(c); ++p)
        il::accumulatorsToBytes(c->planes[p], acc + width * p, width, shift);
    return writeStored(c);
}

int putScaledRow(ImageFileContext* c, const uint8_t* const* in) {
    const size_t len = accLength(c);
    const size_t width = size_t(c->fileSize.x);
    const bool last = c->row == c->callerSize.y - 1;
    // Enlargement keeps the two latest caller rows in the second and third
    // accumulators; the others resample into the first.
    uint32_t* row = c->acc[0];
    if (c->yMode == il::kAxisEnlarge) {
        std::swap(c->acc[1], c->acc[2]);
        row = c->acc[2];
    }
    for (int p = 0; p < planeCount(c); ++p) {
        if (in[p])
            il::resampleRow(*c->xTable, in[p], row + width * p);
        else
            std::memset(row + width * p, 0, width * sizeof(uint32_t));
    }

    switch (c->yMode) {
        case il::kAxisCopy:
            return writeAccumulated(c, row, kShiftOneAxis);
        case il::kAxisEnlarge: {
            // The first caller row only primes the held rows; each later one
            // writes the file rows that lie between it and the one before.
            if (c->row == 0) std::memcpy(c->acc[1], c->acc[2], len * sizeof(uint32_t));
            int status = 0;
            while (c->yPos < c->fileSize.y) {
                const il::AxisEntry& e = c->yTable->entries[size_t(c->yPos)];
                if (!last && e.index > c->row - 1) break;
                il::blendRows(c->acc[0], c->acc[1], e.weight, c->acc[2], e.nextWeight, len);
                const int s = writeAccumulated(c, c->acc[0], kShiftTwoAxes);
                if (s != 0 && status == 0) status = s;
                ++c->yPos;
            }
            return status;
        }
        default: {
            const il::AxisEntry& e = c->yTable->entries[size_t(c->row)];
            il::addWeightedRow(c->acc[1], row, e.weight, len);
            const bool completes = c->yTable->completes(c->row);
            if (completes) il::setWeightedRow(c->acc[2], row, e.nextWeight, len);
            if (!completes && !last) return 0;
            // (A last caller row that completes a row past the file's end
            // has nothing left to write.)
            const int s = c->storedRows < c->fileSize.y ? writeAccumulated(c, c->acc[1], kShiftTwoAxes) : 0;
            std::swap(c->acc[1], c->acc[2]);
            ++c->yPos;
            return s;
        }
    }
}

}  // namespace

extern "C" {

ImageFileContext* korImage_openFile(int* status, const ImageSize* requested, const char* path) noexcept {
    if (!path) return fail(status, IMGERR_BADARG);
    ImageFileContext* c = newContext();
    if (!c) return fail(status, IMGERR_NOMEMORY);

    // The first handler that takes the file owns the context; when none
    // does, the status of the last one tried (TIFF) is reported.
    int s = IMGERR_UNSUPPORTEDTYPE;
    for (int i = 0; i < kHandlerCount; ++i) {
        if (!kHandlers[i].open) continue;
        std::memset(c, 0, sizeof *c);
        s = kHandlers[i].open(c, path);
        if (s == 0) break;
    }
    if (s != 0) {
        freeContext(c);
        return fail(status, s);
    }

    c->callerSize = requested ? *requested : c->fileSize;
    c->row = -1;
    c->scaling = !sameSize(c->callerSize, c->fileSize);
    if (c->scaling) {
        s = setupScaling(c, c->fileSize, c->callerSize);
        if (s == 0) s = primeReading(c);
        if (s != 0) {
            abandon(c);
            return fail(status, s);
        }
    }
    if (status) *status = 0;
    return c;
}

ImageFileContext* korImage_createFile(int* status, const char* path, const ImageSize* fileSize,
                                      const ImageSize* rowSize, int type, int colourMode) noexcept {
    if (!path || !rowSize) return fail(status, IMGERR_BADARG);
    // A type not given is found from the name; names the quick mapping does
    // not know are written as Intergraph RGB.
    if (type < 0) {
        type = korImage_fileNameType(path);
        if (type == 0) type = 1;
    }
    const Handler* h = handlerFor(type);
    if (!h || !h->create) return fail(status, kNoHandler);

    ImageFileContext* c = newContext();
    if (!c) return fail(status, IMGERR_NOMEMORY);
    c->callerSize = *rowSize;
    c->fileSize = fileSize ? *fileSize : *rowSize;
    if (int s = h->create(c, path, type, colourMode)) {
        freeContext(c);
        return fail(status, s);
    }

    c->row = -1;
    c->scaling = !sameSize(c->callerSize, c->fileSize);
    if (c->scaling) {
        if (int s = setupScaling(c, c->callerSize, c->fileSize)) {
            abandon(c);
            return fail(status, s);
        }
    }
    if (status) *status = 0;
    return c;
}

int korImage_getRow(ImageFileContext* c, uint8_t* red, uint8_t* green, uint8_t* blue, uint8_t* alpha) noexcept {
    if (!c || !c->readRow) return IMGERR_BADARG;
    const int rows = c->scaling ? c->callerSize.y : c->fileSize.y;
    if (c->row + 1 >= rows) return kNoMoreRows;
    ++c->row;
    if (!c->scaling) return c->readRow(c, red, green, blue, c->alpha ? alpha : nullptr);
    uint8_t* const out[4] = {red, green, blue, c->alpha ? alpha : nullptr};
    return getScaledRow(c, out);
}

int korImage_putRow(ImageFileContext* c, const uint8_t* red, const uint8_t* green, const uint8_t* blue,
                    const uint8_t* alpha) noexcept {
    if (!c || !c->writeRow) return IMGERR_BADARG;
    const int rows = c->scaling ? c->callerSize.y : c->fileSize.y;
    if (c->row + 1 >= rows) return kNoMoreRows;
    ++c->row;
    if (!c->scaling) return c->writeRow(c, red, green, blue, c->alpha ? alpha : nullptr);
    const uint8_t* const in[4] = {red, green, blue, c->alpha ? alpha : nullptr};
    return putScaledRow(c, in);
}

int korImage_closeFile(ImageFileContext* c) noexcept {
    if (!c) return IMGERR_BADARG;
    const int s = c->close ? c->close(c) : 0;
    freeContext(c);
    return s;
}

int korImage_getImageSize(ImageSize* size, const ImageFileContext* c) noexcept {
    if (!size || !c) return IMGERR_BADARG;
    *size = c->callerSize;
    return 0;
}

int imagelib_getFileLayout(const ImageFileContext* c, int* orientation, int* alpha) noexcept {
    if (!c) return IMGERR_BADARG;
    if (orientation) *orientation = c->orientation;
    if (alpha) *alpha = c->alpha ? 1 : 0;
    return 0;
}

int korImage_getFileSize(ImageSize* size, const char* path) noexcept {
    int s = 0;
    ImageFileContext* c = korImage_openFile(&s, nullptr, path);
    if (!c) return s;
    if (size) *size = c->fileSize;
    return korImage_closeFile(c);
}

int korImage_getImageBgColor(uint8_t* colour, const char* path, int type) noexcept {
    if (type < 0) type = korImage_typeFromExtension(path);
    const Handler* h = handlerFor(type);
    if (!h || !h->background) return kNoBackground;
    uint8_t rgb[3];
    const int s = h->background(rgb, path);
    if (s == 0 && colour) {
        std::memcpy(colour, rgb, 3);
        colour[3] = 0;
    }
    return s;
}

}  // extern "C"
