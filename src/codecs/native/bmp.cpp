// Windows and OS/2 device-independent bitmaps.
//
// Rows are stored bottom row first (top row first when the height is
// negative), padded to a multiple of 4 bytes; 24-bit pixels are stored blue,
// green, red; 1- and 4-bit pixels are packed with the leftmost pixel in the
// top bits. All fields are little-endian.
//
// The readers never trust a size from the header: the pixel data they need
// must be in the file (IMGERR_BADFILE otherwise), and run-length data is
// decoded within both the row and the bytes read.
#include "codecs/native/bmp.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "imagelib/io.h"
#include "imagelib/pixels.h"
#include "internal/bytes.h"
#include "internal/checked.h"
#include "internal/scratch.h"
#include "pixels/colour.h"
#include "pixels/dither.h"
#include "pixels/rgbrows.h"
#include "pixels/rows.h"
#include "codecs/rows.h"

namespace {

constexpr int kFileHeaderBytes = 14;
constexpr int kInfoHeaderBytes = 40;
constexpr int kCoreHeaderBytes = 12;
constexpr int kOs2HeaderBytes = 64;       // OS/2 2.x, which may also stop at 16 bytes
constexpr int kLargestHeaderBytes = 124;  // the version 5 header

// The info header sizes read besides the core header: OS/2 2.x (16, 64),
// Windows (40), with bit fields (52, 56), versions 4 (108) and 5 (124).
bool isInfoHeaderSize(uint32_t n) {
    return n == 16 || n == 40 || n == 52 || n == 56 || n == 64 || n == 108 || n == 124;
}
constexpr int kFileType = 9;          // BMP in the format table
constexpr int kStreamOrientation = 6; // orientation code: rows stored bottom-up

// Bytes of one stored row: ceil(width / (32 / bits)) 32-bit words. For 24
// bits this is 4 bytes a pixel, more than the rows hold: the header's image
// size is computed this way on purpose.
int64_t wordRowBytes(int64_t width, int bits) {
    int64_t perWord = 32 / bits;
    return (width + perWord - 1) / perWord * 4;
}

// Bytes of one stored 24-bit row.
int64_t rgbRowBytes(int64_t width) { return (3 * width + 3) & ~int64_t(3); }

int64_t absHeight(const BmpInfoHeader& ih) { return ih.height < 0 ? -int64_t(ih.height) : ih.height; }

// --- reading ---------------------------------------------------------------

// An open file with its parsed headers.
struct Source {
    il::File file;
    BmpFileHeader fh{};
    BmpInfoHeader ih{};
    int fourBytePalette = 1;
    int width = 0;
    int height = 0;
    bool topDown = false;
    int64_t length = 0;

    int open(const char* path) {
        file = il::File::open(path, "rb");
        if (!file.ok()) return IMGERR_OPENFAILED;
        length = file.size();
        if (length < 0) return IMGERR_READFAILED;
        if (int st = imageBmp_readHeader(&fh, &ih, &fourBytePalette, file)) return st;
        width = ih.width;
        height = int(absHeight(ih));
        topDown = ih.height < 0;
        return 0;
    }

    // Image row of the i-th stored row.
    int imageRow(int i) const { return topDown ? i : height - 1 - i; }

    // Reads the palette at the current position into the three arrays.
    int readPalette(uint8_t* red, uint8_t* green, uint8_t* blue) {
        const int entry = fourBytePalette ? 4 : 3;
        const int count = int(ih.coloursUsed);  // at most 256 for these depths
        uint8_t raw[256 * 4];
        if (!file.read(raw, size_t(count) * entry)) return IMGERR_READFAILED;
        for (int i = 0; i < count; ++i) {
            blue[i] = raw[i * entry];
            green[i] = raw[i * entry + 1];
            red[i] = raw[i * entry + 2];
        }
        // Indices past a short palette read as black.
        for (int i = count; i < 256; ++i) red[i] = green[i] = blue[i] = 0;
        return 0;
    }

    // Bytes of the file from the current position to its end.
    int64_t remaining() const {
        int64_t here = file.tell();
        return here < 0 || here > length ? 0 : length - here;
    }
};

// The pixels of a file of 8 bits or fewer, one index a pixel, delivered row
// by row to `put(imageRow, bytes)`.
template <class Put>
int decodeIndexRows(Source& src, const uint8_t* data, size_t dataBytes, uint8_t* rowBuf, Put put) {
    const int w = src.width, h = src.height, bits = src.ih.bitCount;
    if (src.ih.compression == kBmpUncompressed) {
        const size_t stride = size_t(wordRowBytes(w, bits));
        for (int i = 0; i < h; ++i) {
            const uint8_t* stored = data + size_t(i) * stride;
            if (bits == 8) {
                std::memcpy(rowBuf, stored, size_t(w));
            } else {
                korImage_unpackBuffer(rowBuf, stored, bits, w);
            }
            if (int st = put(src.imageRow(i), rowBuf)) return st;
        }
        return 0;
    }
    // Run-length rows; a short row keeps the pixels of the row before it.
    std::memset(rowBuf, 0, size_t(w));
    size_t pos = 0;
    for (int i = 0; i < h; ++i) {
        if (imageBmp_decodeRleRow(rowBuf, data, dataBytes, &pos, w, w, src.ih.compression) < 0)
            return IMGERR_BADFILE;
        if (int st = put(src.imageRow(i), rowBuf)) return st;
    }
    return 0;
}

}  // namespace

// ---------------------------------------------------------------------------

int imageBmp_readHeader(BmpFileHeader* fh, BmpInfoHeader* ih, int* fourBytePalette, il::File& f) noexcept {
    uint8_t b[kInfoHeaderBytes];
    *fh = BmpFileHeader{};
    *ih = BmpInfoHeader{};
    if (!f.read(b, 2)) return IMGERR_READFAILED;
    if (b[0] != 'B') return IMGERR_BADFILE;
    if (b[1] == 'A') {
        // OS/2 bitmap array: follow the chain of "BA" headers to the last
        // one; only its image is read. Links must move forward, so a chain
        // always ends.
        fh->bitmapArray = true;
        const int64_t length = f.size();
        int64_t link = f.tell() - 2;
        for (;;) {
            if (!f.read(b, 8)) return IMGERR_READFAILED;
            const uint32_t headerSize = il::get32le(b), next = il::get32le(b + 4);
            if (headerSize != 40) return IMGERR_BADFILE;
            if (next == 0) break;
            if (int64_t(next) <= link || int64_t(next) >= length) return IMGERR_BADFILE;
            link = next;
            if (!f.seek(link) || !f.read(b, 2)) return IMGERR_READFAILED;
            if (b[0] != 'B' || b[1] != 'A') return IMGERR_BADFILE;
        }
        if (!f.read(b, 4)) return IMGERR_READFAILED;  // display width and height
        if (!f.read(b, 2)) return IMGERR_READFAILED;
    }
    if (b[1] != 'M') return IMGERR_BADFILE;
    fh->signature[0] = b[0];
    fh->signature[1] = b[1];

    if (!f.read(b, kFileHeaderBytes - 2 + 4)) return IMGERR_READFAILED;
    fh->fileSize = il::get32le(b);
    fh->reserved1 = il::get16le(b + 4);
    fh->reserved2 = il::get16le(b + 6);
    fh->dataOffset = il::get32le(b + 8);
    const uint32_t headerSize = il::get32le(b + 12);
    int four = 1;
    ih->storedHeaderSize = headerSize;
    if (headerSize == kCoreHeaderBytes) {
        // OS/2 core header: four unsigned 16-bit fields, 3-byte palette entries.
        if (!f.read(b, kCoreHeaderBytes - 4)) return IMGERR_READFAILED;
        ih->width = il::get16le(b);
        ih->height = il::get16le(b + 2);
        ih->planes = il::get16le(b + 4);
        ih->bitCount = il::get16le(b + 6);
        four = 0;
    } else if (isInfoHeaderSize(headerSize)) {
        // The fields a header holds; an OS/2 2.x header may end after the
        // bit count (16 bytes) and the rest reads as 0.
        uint8_t h[kLargestHeaderBytes] = {};
        if (!f.read(h, headerSize - 4)) return IMGERR_READFAILED;
        ih->width = int32_t(il::get32le(h));
        ih->height = int32_t(il::get32le(h + 4));
        ih->planes = il::get16le(h + 8);
        ih->bitCount = il::get16le(h + 10);
        ih->compression = il::get32le(h + 12);
        ih->imageSize = il::get32le(h + 16);
        ih->xResolution = int32_t(il::get32le(h + 20));
        ih->yResolution = int32_t(il::get32le(h + 24));
        ih->coloursUsed = il::get32le(h + 28);
        ih->coloursImportant = il::get32le(h + 32);
        // OS/2 2.x compressions 3 (Huffman) and 4 (24-bit run-length) are
        // not the Windows bit fields; they are not read.
        if (headerSize == kOs2HeaderBytes && ih->compression > kBmpRle4) return IMGERR_BADFORMAT;
        const bool bitFields = ih->compression == kBmpBitFields || ih->compression == kBmpAlphaBitFields;
        if (bitFields) {
            if (ih->bitCount != 16 && ih->bitCount != 32) return IMGERR_BADFORMAT;
            // Masks in the header, or (40-byte header) after it: red, green,
            // blue, and alpha with the alpha variant.
            const int fields = ih->compression == kBmpAlphaBitFields ? 4 : 3;
            const uint8_t* m = h + kInfoHeaderBytes - 4;
            if (headerSize == kInfoHeaderBytes) {
                // Some writers (ImageMagick's BMP3 16-bit output) mark bit
                // fields but start the pixels right after the header: the
                // masks are then taken as absent and the defaults apply.
                const int64_t here = f.tell();
                if (!fh->bitmapArray && int64_t(fh->dataOffset) < here + fields * 4) {
                    std::memset(b, 0, sizeof b);
                } else if (!f.read(b, size_t(fields) * 4)) {
                    return IMGERR_READFAILED;
                }
                m = b;
            }
            const int inHeader = headerSize >= 56 ? 4 : headerSize >= 52 ? 3 : fields;
            for (int i = 0; i < std::max(fields, inHeader); ++i) ih->masks[i] = il::get32le(m + 4 * i);
        }
    } else {
        return IMGERR_BADFILE;
    }
    ih->headerSize = kInfoHeaderBytes;

    // Depths that cannot be sized (0, or more than 32 bits a pixel), palettes
    // larger than the 256 entries a palette image holds, and dimensions the
    // library cannot hold are refused before anything is sized from them.
    const int bits = ih->bitCount;
    if (bits == 64) return IMGERR_BADFORMAT;
    if (bits == 0 || bits > 32) return IMGERR_BADFILE;
    if (bits <= 8 && ih->coloursUsed > 256) return IMGERR_BADFILE;
    if (ih->width <= 0 || ih->height == 0 || ih->width > il::kMaxDimension || absHeight(*ih) > il::kMaxDimension)
        return IMGERR_BADFILE;
    if ((bits == 16 || bits == 32) && !(ih->masks[0] | ih->masks[1] | ih->masks[2])) {
        if (bits == 16) {
            ih->masks[0] = 0x7C00, ih->masks[1] = 0x03E0, ih->masks[2] = 0x001F;
        } else {
            ih->masks[0] = 0xFF0000, ih->masks[1] = 0x00FF00, ih->masks[2] = 0x0000FF;
        }
    }

    // Kept on purpose for 24 bits too (the value is then only a count); 32
    // bits have no such count.
    if (ih->coloursUsed == 0 && bits < 32) ih->coloursUsed = uint32_t(uint64_t(1) << bits);

    if (!fh->bitmapArray) {
        // A data offset that points into the headers or the palette is
        // raised to the end of the palette (palette images) or of the
        // headers and masks (true colour).
        const int64_t here = f.tell();
        if (here < 0) return IMGERR_READFAILED;
        int64_t lowest = here;
        if (bits <= 8) lowest += int64_t(ih->coloursUsed) * (four ? 4 : 3);
        if (int64_t(fh->dataOffset) < lowest) fh->dataOffset = uint32_t(std::min<int64_t>(lowest, UINT32_MAX));
    }

    if (ih->imageSize == 0) {
        const uint64_t bytes = uint64_t(wordRowBytes(ih->width, bits)) * uint64_t(absHeight(*ih));
        ih->imageSize = uint32_t(std::min<uint64_t>(bytes, UINT32_MAX));
        ih->imageSizeComputed = true;
    }
    if (fourBytePalette) *fourBytePalette = four;
    return 0;
}

int imageBmp_readInfo(ImageSize* size, int* imageFormat, const char* path) noexcept {
    Source src;
    if (int st = src.open(path)) return st;
    if (size) *size = ImageSize{src.width, src.height};
    int st = 0;
    if (imageFormat) {
        switch (src.ih.bitCount) {
            case 16:
            case 32: *imageFormat = src.ih.masks[3] ? COLORMODE_RGBA : COLORMODE_RGB; break;
            case 24: *imageFormat = COLORMODE_RGB; break;
            case 8: *imageFormat = COLORMODE_PALETTE256; break;
            case 4:
            case 2: *imageFormat = COLORMODE_PALETTE16; break;
            case 1:
                if (src.ih.planes == 1) {
                    *imageFormat = COLORMODE_BILEVEL;
                } else if (src.ih.planes == 4) {
                    *imageFormat = COLORMODE_PALETTE16;
                } else {
                    st = IMGERR_BADFILE;
                }
                break;
            default: st = IMGERR_BADFILE; break;
        }
    }
    const uint32_t c = src.ih.compression;
    if (c > kBmpRle4 && c != kBmpBitFields && c != kBmpAlphaBitFields) st = IMGERR_BADFORMAT;
    return st;
}

int imageBmp_decodeRleRow(uint8_t* row, const uint8_t* data, size_t length, size_t* pos, int limit, int width,
                          uint32_t compression) noexcept {
    const bool rle8 = compression == kBmpRle8;
    size_t p = *pos;
    int x = 0;
    for (;;) {
        if (p > length || length - p < 2) return kBmpRleShort;
        const int count = data[p], value = data[p + 1];
        p += 2;
        if (count != 0) {
            // Encoded run, cut at the limit.
            const int n = std::min(count, limit - x);
            if (rle8) {
                std::memset(row + x, value, size_t(std::max(n, 0)));
            } else {
                for (int k = 0; k < n; ++k) row[x + k] = uint8_t(k & 1 ? value & 15 : value >> 4);
            }
            x += std::max(n, 0);
        } else if (value == 0 || value == 1) {
            break;  // end of line; end of bitmap ends the row the same way
        } else if (value == 2) {
            return kBmpRleDelta;
        } else {
            // Absolute run of `value` pixels: all of its bytes are consumed,
            // the pixels past the limit are dropped.
            const size_t bytes = rle8 ? size_t(value) : size_t(value + 1) / 2;
            if (length - p < bytes) return kBmpRleShort;
            const int n = std::min(value, limit - x);
            if (rle8) {
                if (n > 0) std::memcpy(row + x, data + p, size_t(n));
            } else {
                for (int k = 0; k < n; ++k) {
                    const uint8_t byte = data[p + size_t(k) / 2];
                    row[x + k] = uint8_t(k & 1 ? byte & 15 : byte >> 4);
                }
            }
            x += std::max(n, 0);
            p += bytes;
            p += p & 1;
        }
        if (x > width) return kBmpRleOverrun;
    }
    p += p & 1;
    *pos = p;
    return x;
}

namespace {

// Most pixels accepted per byte of run-length data. Rows that end early
// keep the row before them, so a few bytes can stand for a large image; far
// beyond what any encoder writes, the header is taken to be corrupt.
constexpr int64_t kMaxRlePixelsPerByte = 4096;

// Reads the palette and the pixel data of a file of 8 bits or fewer, checking
// that the file holds what its header promises before anything is sized
// from it.
int loadIndexed(Source& src, uint8_t* red, uint8_t* green, uint8_t* blue, il::Scratch<uint8_t>* data) {
    const uint32_t compression = src.ih.compression;
    if (compression > kBmpRle4) return IMGERR_BADFORMAT;
    // Top-down files cannot be run-length coded.
    if (compression != kBmpUncompressed && src.topDown) return IMGERR_BADFILE;

    if (int st = src.readPalette(red, green, blue)) return st;
    const int64_t here = src.file.tell();
    if (here < 0) return IMGERR_READFAILED;
    if (int64_t(src.fh.dataOffset) >= here && !src.file.seek(src.fh.dataOffset)) return IMGERR_READFAILED;
    const int64_t available = src.remaining();

    // Uncompressed rows must all be in the file. Run-length data is read up
    // to the image size, and a stored image size must fit the file.
    int64_t dataBytes;
    if (compression == kBmpUncompressed) {
        dataBytes = wordRowBytes(src.width, src.ih.bitCount) * src.height;
        if (dataBytes > available) return IMGERR_BADFILE;
    } else {
        if (!src.ih.imageSizeComputed && int64_t(src.ih.imageSize) > available) return IMGERR_BADFILE;
        dataBytes = std::min<int64_t>(src.ih.imageSize, available);
        // Every row ends with a 2-byte escape.
        if (dataBytes < 2 * int64_t(src.height)) return IMGERR_BADFILE;
        if (int64_t(src.width) * src.height > kMaxRlePixelsPerByte * dataBytes ||
            !il::withinPixelLimit(src.width, src.height))
            return IMGERR_BADFILE;
    }
    if (!data->allocate(size_t(dataBytes), il::tag("BmPx"))) return IMGERR_NOMEMORY;
    return src.file.read(data->get(), size_t(dataBytes)) ? 0 : IMGERR_READFAILED;
}

// Opens and parses a file for the map reader: depths above 8 bits are not
// read as a map; of the others only those the row unpacker handles.
int openIndexed(Source& src, const char* path) {
    if (int st = src.open(path)) return st;
    const int bits = src.ih.bitCount;
    if (bits > 8) return IMGERR_UNSUPPORTEDTYPE;
    if (bits != 1 && bits != 2 && bits != 4 && bits != 8) return IMGERR_BADFILE;
    return 0;
}

}  // namespace

int imageBmp_readToMap(void** map, ImageSize* size, uint8_t* red, uint8_t* green, uint8_t* blue, int* colourCount,
                       const char* path, int packed) noexcept {
    if (!map || !red || !green || !blue) return IMGERR_BADARG;
    Source src;
    if (int st = openIndexed(src, path)) return st;
    const int w = src.width, h = src.height;
    if (size) *size = ImageSize{w, h};
    if (colourCount) *colourCount = int(src.ih.coloursUsed);

    il::Scratch<uint8_t> data;
    if (int st = loadIndexed(src, red, green, blue, &data)) return st;
    size_t mapBytes;
    if (!il::imageBytes(w, h, 1, &mapBytes)) return IMGERR_BADFILE;
    il::Scratch<uint8_t> rowBuf(size_t(w), il::tag("BmRw"));
    if (!rowBuf.ok()) return IMGERR_NOMEMORY;

    if (packed) {
        il::RowTable table;
        if (!table.allocate(ImageSize{w, h})) return IMGERR_NOMEMORY;
        int st = decodeIndexRows(src, data.get(), data.size(), rowBuf.get(), [&](int y, const uint8_t* bytes) {
            return il::storePackByteRow(table.bytes(), y, bytes, w);
        });
        if (st) return st;
        *map = table.release();
        return 0;
    }
    il::CallerBuffer<uint8_t> out = il::callerBytes(mapBytes);
    if (!out) return IMGERR_NOMEMORY;
    uint8_t* base = out.get();
    int st = decodeIndexRows(src, data.get(), data.size(), rowBuf.get(), [&](int y, const uint8_t* bytes) {
        std::memcpy(base + size_t(y) * size_t(w), bytes, size_t(w));
        return 0;
    });
    if (st) return st;
    *map = out.release();
    return 0;
}

namespace {

// One bit field of a 16- or 32-bit pixel, widened to 8 bits: fields of 1 to
// 7 bits repeat their bits (5 bits abcde give abcdeabc), wider fields keep
// their top 8 bits.
struct Field {
    int shift = 0;  // lowest bit of the mask
    int width = 0;  // bits from there to the highest bit of the mask
    uint32_t mask = 0;
    uint8_t widen[256] = {};  // field value to 8 bits, for widths up to 8

    explicit Field(uint32_t m) : mask(m) {
        if (!m) return;
        while (!(m >> shift & 1)) ++shift;
        while (width + shift < 32 && (m >> (shift + width)) != 0) ++width;
        if (width >= 8) return;
        for (uint32_t v = 0; v < (1u << width); ++v) {
            uint32_t out = 0;
            for (int filled = 0; filled < 8; filled += width) out = out << width | v;
            widen[v] = uint8_t(out >> (((8 + width - 1) / width) * width - 8));
        }
    }
    uint8_t operator()(uint32_t pixel) const {
        const uint32_t v = (pixel & mask) >> shift;
        return width > 8 ? uint8_t(v >> (width - 8)) : width == 8 ? uint8_t(v) : widen[v];
    }
};

// Reads a 16-, 24- or 32-bit file into row-planar planes (3, or 4 with
// alpha), top row first.
int readTrueColour(uint8_t** out, ImageSize* size, const char* path, bool alpha) {
    if (!out) return IMGERR_BADARG;
    Source src;
    if (int st = src.open(path)) return st;
    const int bits = src.ih.bitCount;
    if (bits != 16 && bits != 24 && bits != 32) return IMGERR_UNSUPPORTEDTYPE;
    const int w = src.width, h = src.height, planes = alpha ? 4 : 3;
    if (size) *size = ImageSize{w, h};

    // The compression field is not looked at beyond the bit fields: the
    // rows are read as stored.
    const int64_t stride = bits == 24 ? rgbRowBytes(w) : wordRowBytes(w, bits);
    if (!src.file.seek(src.fh.dataOffset)) return IMGERR_READFAILED;
    if (stride * h > src.remaining()) return IMGERR_BADFILE;
    size_t bytes;
    if (!il::imageBytes(w, h, planes, &bytes)) return IMGERR_BADFILE;
    il::CallerBuffer<uint8_t> image = il::callerBytes(bytes);
    il::Scratch<uint8_t> row(size_t(stride), il::tag("BmR3"));
    if (!image || !row.ok()) return IMGERR_NOMEMORY;

    const Field red(src.ih.masks[0]), green(src.ih.masks[1]), blue(src.ih.masks[2]), alphaField(src.ih.masks[3]);
    const size_t planeRow = size_t(w) * planes;
    bool anyAlpha = false;
    for (int i = 0; i < h; ++i) {
        if (!src.file.read(row.get(), size_t(stride))) return IMGERR_READFAILED;
        uint8_t* r = image.get() + size_t(src.imageRow(i)) * planeRow;
        uint8_t* g = r + w;
        uint8_t* b = g + w;
        uint8_t* a = alpha ? b + w : nullptr;
        const uint8_t* p = row.get();
        if (bits == 24) {
            il::bgrRowToPlanes(r, p, size_t(w));
            if (a) std::memset(a, 255, size_t(w));
            continue;
        }
        for (int x = 0; x < w; ++x) {
            const uint32_t px = bits == 16 ? il::get16le(p + 2 * x) : il::get32le(p + 4 * x);
            r[x] = red(px), g[x] = green(px), b[x] = blue(px);
            if (a) {
                a[x] = alphaField.mask ? alphaField(px) : 255;
                anyAlpha |= a[x] != 0;
            }
        }
    }
    // Alpha that is 0 everywhere was never written: the picture is opaque.
    if (alpha && !anyAlpha)
        for (int y = 0; y < h; ++y) std::memset(image.get() + size_t(y) * planeRow + size_t(w) * 3, 255, size_t(w));
    *out = image.release();
    return 0;
}

}  // namespace

int imageBmp_readToRGB(uint8_t** rgb, ImageSize* size, const char* path) noexcept {
    return readTrueColour(rgb, size, path, false);
}

int imageBmp_readToRGBA(uint8_t** rgba, ImageSize* size, const char* path) noexcept {
    return readTrueColour(rgba, size, path, true);
}

int imageBmp_readToBitMap(void** bitmap, ImageSize* size, int runLength, const char* path,
                          StopFunction stop) noexcept {
    if (!bitmap) return IMGERR_BADARG;
    {
        Source src;
        if (int st = src.open(path)) return st;
        if (src.ih.bitCount != 1 || src.ih.planes != 1) return IMGERR_UNSUPPORTEDTYPE;
    }
    uint8_t red[256] = {}, green[256] = {}, blue[256] = {};
    int count = 0;
    ImageSize sz{};
    il::RowTable map;
    void* rows = nullptr;
    if (int st = imageBmp_readToMap(&rows, &sz, red, green, blue, &count, path, 1)) return st;
    map.adopt(rows, sz);
    if (imageUtil_stopped(stop)) return IMGERR_STOPPED;

    // Indices to bits through the palette's grey levels. Error diffusion
    // between the darkest and the lightest entry maps two colours exactly:
    // the dark one to set bits.
    const size_t rowBytes = (size_t(sz.x) + 7) / 8;
    il::CallerBuffer<uint8_t> bits = il::callerBytes(rowBytes * size_t(sz.y), true);
    if (!bits) return IMGERR_NOMEMORY;
    if (int st = korImage_packByteToBitMap(bits.get(), map.bytes(), red, green, blue, count, &sz, 1)) return st;
    if (size) *size = sz;
    if (!runLength) {
        *bitmap = bits.release();
        return 0;
    }
    uint16_t** runs = nullptr;
    if (int st = korImage_runLengthEncodeBitMap(&runs, bits.get(), &sz)) return st;
    *bitmap = runs;
    return 0;
}

// --- writing -----------------------------------------------------------------

namespace {

// The fields every info header starts with: its length, the size (rows
// bottom-up), one plane and the bits a pixel.
void putInfoStart(uint8_t* info, uint32_t headerBytes, const ImageSize* size, int bitCount) {
    il::put32le(info, headerBytes);
    il::put32le(info + 4, uint32_t(size->x));
    il::put32le(info + 8, uint32_t(size->y));
    il::put16le(info + 12, 1);
    il::put16le(info + 14, uint32_t(bitCount));
}

}  // namespace

int imageBmp_writeHeaders(il::File& f, const ImageSize* size, int bitCount, int colourCount, const uint8_t* red,
                          const uint8_t* green, const uint8_t* blue) noexcept {
    uint8_t h[kFileHeaderBytes + kInfoHeaderBytes] = {};
    putInfoStart(h + kFileHeaderBytes, kInfoHeaderBytes, size, bitCount);
    if (!f.write(h, sizeof h)) return IMGERR_WRITEFAILED;
    if (bitCount > 8) return 0;
    // Always a full palette of 2^bits entries; the colours-used field stays 0.
    uint8_t pal[256 * 4] = {};
    const int entries = 1 << bitCount;
    const int n = std::clamp(colourCount, 0, entries);
    for (int i = 0; i < n; ++i) {
        pal[i * 4] = blue[i];
        pal[i * 4 + 1] = green[i];
        pal[i * 4 + 2] = red[i];
    }
    return f.write(pal, size_t(entries) * 4) ? 0 : IMGERR_WRITEFAILED;
}

int imageBmp_finishFileHeader(il::File& f, uint32_t dataOffset, uint32_t fileSize) noexcept {
    uint8_t h[kFileHeaderBytes] = {'B', 'M'};
    il::put32le(h + 2, fileSize);
    il::put32le(h + 10, dataOffset);
    if (!f.seek(0)) return IMGERR_WRITEFAILED;
    return f.write(h, sizeof h) ? 0 : IMGERR_WRITEFAILED;
}

namespace {

// Joins pixels two to a byte, first pixel in the high nibble.
void joinNibbles(uint8_t* dst, const uint8_t* src, int width) {
    for (int x = 0; x + 1 < width; x += 2) *dst++ = uint8_t(src[x] * 16 + src[x + 1]);
    if (width & 1) *dst = uint8_t(src[width - 1] * 16);
}

bool validSize(const ImageSize* size) { return size && il::imageBytes(size->x, size->y, 1); }

// A file being written: headers first, rows bottom row first, then the
// final file header.
class Writer {
public:
    int begin(const char* path, const ImageSize* size, int bits, int colourCount, const uint8_t* red,
              const uint8_t* green, const uint8_t* blue) {
        file_ = il::File::open(path, "wb+");
        if (!file_.ok()) return IMGERR_OPENFAILED;
        if (int st = imageBmp_writeHeaders(file_, size, bits, colourCount, red, green, blue)) return st;
        dataOffset_ = file_.tell();
        return 0;
    }
    // Headers of a 32-bit file with alpha: a version 5 info header with bit
    // fields B, G, R, A from the lowest byte up, in the sRGB colour space.
    int beginWithAlpha(const char* path, const ImageSize* size) {
        file_ = il::File::open(path, "wb+");
        if (!file_.ok()) return IMGERR_OPENFAILED;
        uint8_t h[kFileHeaderBytes + kLargestHeaderBytes] = {};
        uint8_t* info = h + kFileHeaderBytes;
        putInfoStart(info, kLargestHeaderBytes, size, 32);
        il::put32le(info + 16, 3);  // bit fields
        il::put32le(info + 20, uint32_t(uint64_t(size->x) * 4 * uint64_t(size->y)));
        il::put32le(info + 40, 0x00FF0000u);  // red
        il::put32le(info + 44, 0x0000FF00u);  // green
        il::put32le(info + 48, 0x000000FFu);  // blue
        il::put32le(info + 52, 0xFF000000u);  // alpha
        il::put32le(info + 56, 0x73524742u);  // 'sRGB'
        il::put32le(info + 108, 4);           // rendering intent: pictures
        if (!file_.write(h, sizeof h)) return IMGERR_WRITEFAILED;
        dataOffset_ = file_.tell();
        return 0;
    }
    // Writes a row of `bytes` bytes followed by zero padding to `stride`.
    int row(const uint8_t* data, size_t bytes, size_t stride) {
        static const uint8_t kZero[4] = {};
        if (!file_.write(data, bytes) || !file_.write(kZero, stride - bytes)) return IMGERR_WRITEFAILED;
        return 0;
    }
    // Completes the file header and closes; status is what the rows ended
    // with, kept unless finishing fails.
    int finish(int status) {
        const int64_t end = file_.tell();
        int st = end < 0 ? IMGERR_WRITEFAILED
                         : imageBmp_finishFileHeader(file_, uint32_t(dataOffset_), uint32_t(end));
        if (!file_.close() && !st) st = IMGERR_WRITEFAILED;
        return status ? status : st;
    }

private:
    il::File file_;
    int64_t dataOffset_ = 0;
};

// Runs the row loop of a whole-image writer: rows from the bottom image row
// up, each polled first; build(y, out) fills the row bytes. A nonzero poll
// ends the loop and is returned; the file is finished either way.
template <class Poll, class Build>
int writeRows(Writer& w, const ImageSize* size, size_t rowBytes, uint8_t* rowBuf, Poll poll, Build build) {
    const size_t stride = (rowBytes + 3) & ~size_t(3);
    int status = 0;
    for (int done = 0; done < size->y; ++done) {
        if ((status = poll(done))) break;
        const uint8_t* out = build(size->y - 1 - done, rowBuf);
        if ((status = w.row(out, rowBytes, stride))) break;
    }
    return w.finish(status);
}

}  // namespace

int imageBmp_writeFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, int imageFormat,
                          StopFunction stop) noexcept {
    if (imageFormat < COLORMODE_RGB || imageFormat > COLORMODE_RGBA || imageFormat == COLORMODE_BILEVEL)
        return IMGERR_BADARG;
    if (!rgb || !validSize(size)) return IMGERR_BADARG;
    const int w = size->x;
    auto poll = [&](int) { return imageUtil_stopped(stop); };

    if (imageFormat == COLORMODE_RGBA) {  // four planes a row: B, G, R, A pixels
        if (!il::imageBytes(w, size->y, 4)) return IMGERR_BADARG;
        il::Scratch<uint8_t> row(size_t(w) * 4, il::tag("BmWa"));
        if (!row.ok()) return IMGERR_NOMEMORY;
        Writer out;
        if (int st = out.beginWithAlpha(path, size)) return st;
        return writeRows(out, size, size_t(w) * 4, row.get(), poll, [&](int y, uint8_t* buf) {
            const uint8_t *r = rgb + size_t(y) * 4 * size_t(w), *g = r + w, *b = g + w, *a = b + w;
            for (int x = 0; x < w; ++x) {
                buf[4 * x] = b[x];
                buf[4 * x + 1] = g[x];
                buf[4 * x + 2] = r[x];
                buf[4 * x + 3] = a[x];
            }
            return buf;
        });
    }
    const size_t planeRow = size_t(w) * 3;
    auto planes = [&](int y) { return rgb + size_t(y) * planeRow; };

    if (imageFormat == COLORMODE_RGB) {
        il::Scratch<uint8_t> row(size_t(w) * 3, il::tag("BmW3"));
        if (!row.ok()) return IMGERR_NOMEMORY;
        Writer out;
        if (int st = out.begin(path, size, 24, 0, nullptr, nullptr, nullptr)) return st;
        return writeRows(out, size, size_t(w) * 3, row.get(), poll, [&](int y, uint8_t* buf) {
            il::planesToBGRRow(buf, planes(y), size_t(w));
            return buf;
        });
    }

    if (imageFormat == COLORMODE_GREY) {
        uint8_t ramp[3][256];
        il::setGreyRamp(ramp[0], ramp[1], ramp[2]);
        il::Scratch<uint8_t> row(size_t(w), il::tag("BmWg"));
        if (!row.ok()) return IMGERR_NOMEMORY;
        Writer out;
        if (int st = out.begin(path, size, 8, 256, ramp[0], ramp[1], ramp[2])) return st;
        return writeRows(out, size, size_t(w), row.get(), poll, [&](int y, uint8_t* buf) {
            const uint8_t *r = planes(y), *g = r + w, *b = g + w;
            for (int x = 0; x < w; ++x) buf[x] = il::greyLevelWriter(r[x], g[x], b[x]);
            return buf;
        });
    }

    // 16 or 256 colours: an optimised palette, then error diffusion.
    const bool four = imageFormat == COLORMODE_PALETTE16;
    uint8_t red[256] = {}, green[256] = {}, blue[256] = {};
    int count = 0;
    il::Scratch<uint8_t> indices(size_t(w), il::tag("BmWi"));
    il::Scratch<uint8_t> packed(four ? (size_t(w) + 1) / 2 : 1, il::tag("BmW4"));
    if (!indices.ok() || !packed.ok()) return IMGERR_NOMEMORY;
    if (int st = korImage_getOptimizedPalette(red, green, blue, &count, four ? 16 : 256, rgb, size, stop))
        return st;
    il::DitherJob job;
    if (int st = korImage_ditherInitialize(count, red, green, blue, w)) return st;
    Writer out;
    if (int st = out.begin(path, size, four ? 4 : 8, count, red, green, blue)) return st;
    const size_t rowBytes = four ? (size_t(w) + 1) / 2 : size_t(w);
    return writeRows(out, size, rowBytes, indices.get(), poll, [&](int y, uint8_t* buf) -> const uint8_t* {
        const uint8_t *r = planes(y), *g = r + w, *b = g + w;
        korImage_ditherRow(buf, r, g, b, w);
        if (!four) return buf;
        joinNibbles(packed.get(), buf, w);
        return packed.get();
    });
}

int imageBmp_writeFromMap(const char* path, const void* map, const uint8_t* red, const uint8_t* green,
                          const uint8_t* blue, int colourCount, const ImageSize* size, int imageFormat, int packed,
                          StopFunction stop) noexcept {
    if (imageFormat != COLORMODE_PALETTE16 && imageFormat != COLORMODE_PALETTE256 && imageFormat != COLORMODE_GREY)
        return IMGERR_BADARG;
    if (!map || !red || !green || !blue || !validSize(size)) return IMGERR_BADARG;
    const int w = size->x;
    const bool four = imageFormat == COLORMODE_PALETTE16;
    const bool grey = imageFormat == COLORMODE_GREY;

    il::Scratch<uint8_t> unpacked(packed ? size_t(w) : 1, il::tag("BmWu"));
    il::Scratch<uint8_t> row(size_t(w), il::tag("BmWm"));
    if (!unpacked.ok() || !row.ok()) return IMGERR_NOMEMORY;

    // Grey output: each row becomes the grey levels of its palette entries
    // (converted with a copy of the palette, so that the caller's stays as
    // it is) and is written with the 256-entry grey ramp.
    uint8_t copy[3][256] = {}, ramp[3][256];
    const uint8_t *pr = red, *pg = green, *pb = blue;
    int count = colourCount;
    if (grey) {
        const size_t n = size_t(std::clamp(colourCount, 0, 256));
        std::memcpy(copy[0], red, n);
        std::memcpy(copy[1], green, n);
        std::memcpy(copy[2], blue, n);
        il::setGreyRamp(ramp[0], ramp[1], ramp[2]);
        pr = ramp[0];
        pg = ramp[1];
        pb = ramp[2];
        count = 256;
    }

    Writer out;
    if (int st = out.begin(path, size, four ? 4 : 8, count, pr, pg, pb)) return st;
    const size_t rowBytes = four ? (size_t(w) + 1) / 2 : size_t(w);
    const ImageSize oneRow{w, 1};
    int convertStatus = 0;
    int st = writeRows(
        out, size, rowBytes, row.get(), [&](int done) { return imageUtil_reportProgress(stop, size->y, done); },
        [&](int y, uint8_t* buf) -> const uint8_t* {
            const uint8_t* src;
            if (packed) {
                korImage_unpackByteBuffer(unpacked.get(), static_cast<uint8_t* const*>(map)[y], w);
                src = unpacked.get();
            } else {
                src = static_cast<const uint8_t*>(map) + size_t(y) * size_t(w);
            }
            if (grey) {
                int n = colourCount;
                if (int c = korImage_convertToGreyScale(buf, copy[0], copy[1], copy[2], &n, src, &oneRow, IMAGEFORMAT_MAP, nullptr))
                    convertStatus = c;
                return buf;
            }
            if (four) {
                joinNibbles(buf, src, w);
                return buf;
            }
            return src;
        });
    return convertStatus ? convertStatus : st;
}

int imageBmp_writeFromBitMap(const char* path, const void* bitmap, int runLength, const ImageSize* size,
                             StopFunction stop) noexcept {
    if (!bitmap || !validSize(size)) return IMGERR_BADARG;
    const int w = size->x;
    const size_t rowBytes = (size_t(w) + 7) / 8;
    // Zeroed once: the pad bytes of every row stay 0.
    il::Scratch<uint8_t> row((rowBytes + 3) & ~size_t(3), il::tag("BmW1"), true);
    if (!row.ok()) return IMGERR_NOMEMORY;
    const uint8_t red[2] = {255, 0}, green[2] = {255, 0}, blue[2] = {255, 0};
    Writer out;
    if (int st = out.begin(path, size, 1, 2, red, green, blue)) return st;
    return writeRows(
        out, size, rowBytes, row.get(), [&](int done) { return imageUtil_reportProgress(stop, size->y, done); },
        [&](int y, uint8_t* buf) {
            if (runLength) {
                std::memset(buf, 0, rowBytes);
                korImage_runLengthDecodeBitMapRow(buf, static_cast<uint16_t* const*>(bitmap)[y], w);
            } else {
                std::memcpy(buf, static_cast<const uint8_t*>(bitmap) + size_t(y) * rowBytes, rowBytes);
            }
            return buf;
        });
}

// --- streaming writer ----------------------------------------------------------

namespace {

struct StreamState {
    il::File file;
    il::Scratch<uint8_t> row;
    size_t stride = 0;
    uint32_t dataOffset = 0;
};

}  // namespace

int imageBmp_createFile(ImageFileContext* ctx, const char* path, int, int) noexcept {
    if (!ctx || !validSize(&ctx->fileSize) || !il::imageBytes(ctx->fileSize.x, ctx->fileSize.y, 3))
        return IMGERR_BADARG;
    std::unique_ptr<StreamState> st(new (std::nothrow) StreamState);
    if (!st) return IMGERR_NOMEMORY;
    st->stride = size_t(rgbRowBytes(ctx->fileSize.x));
    if (!st->row.allocate(st->stride, il::tag("BmSr"), true)) return IMGERR_NOMEMORY;
    st->file = il::File::open(path, "wb");
    if (!st->file.ok()) return IMGSTAT_STREAM_STOPPED;  // 1: the file cannot be opened
    if (int s = imageBmp_writeHeaders(st->file, &ctx->fileSize, 24, 0, nullptr, nullptr, nullptr)) return s;
    st->dataOffset = uint32_t(st->file.tell());
    il::stream::installHandler(ctx, kFileType, kStreamOrientation, nullptr, imageBmp_putRow, imageBmp_closeFile,
                               st.release());
    return 0;
}

int imageBmp_putRow(ImageFileContext* ctx, const uint8_t* red, const uint8_t* green, const uint8_t* blue,
                    const uint8_t*) noexcept {
    auto* st = static_cast<StreamState*>(ctx->state);
    const int w = ctx->fileSize.x;
    uint8_t* p = st->row.get();
    for (int x = 0; x < w; ++x, p += 3) {
        p[0] = blue ? blue[x] : 0;
        p[1] = green ? green[x] : 0;
        p[2] = red ? red[x] : 0;
    }
    return st->file.write(st->row.get(), st->stride) ? 0 : IMGERR_WRITEFAILED;
}

int imageBmp_closeFile(ImageFileContext* ctx) noexcept {
    std::unique_ptr<StreamState> st(static_cast<StreamState*>(ctx->state));
    ctx->state = nullptr;
    if (!st) return 0;
    const int64_t end = st->file.tell();
    int status = end < 0 ? IMGERR_WRITEFAILED : imageBmp_finishFileHeader(st->file, st->dataOffset, uint32_t(end));
    if (!st->file.close() && !status) status = IMGERR_WRITEFAILED;
    return status;
}
