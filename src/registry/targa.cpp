// Targa files: reading true-colour (16, 24, 32 bits), colour-mapped and grey
// images, raw or run-length coded, and writing run-length coded 24- or
// 32-bit images, one row at a time through the streaming layer.
#include "registry/targa.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "internal/checked.h"
#include "internal/bytes.h"
#include "internal/file.h"
#include "internal/scratch.h"
#include "pixels/rgbrows.h"
#include "codecs/rows.h"

namespace {

constexpr int kHeaderBytes = 18;
constexpr int kFooterBytes = 26;
constexpr char kFooterSignature[18] = "TRUEVISION-XFILE.";  // with its terminating zero
constexpr int kAttributesTypeOffset = 494;                 // in the extension area

// Handler code of Targa in the context's flags word, and the orientation
// code the writer declares (origin bottom left: rows stored bottom-up).
constexpr uint16_t kHandlerCode = 2;
constexpr uint16_t kWrittenOrientation = 6;

// Codes of the positive results the streaming layer passes on.
constexpr int kCannotOpen = 1;
constexpr int kNoHeader = 3;
constexpr int kNoRowBuffer = 294;
constexpr int kShortWrite = 32768;

enum ImageType {
    kMapped = 1,
    kTrueColour = 2,
    kGrey = 3,
    kMappedRle = 9,
    kTrueColourRle = 10,
    kGreyRle = 11,
};

struct Header {
    int idLength;
    int mapType;
    int imageType;
    int mapFirst;
    int mapLength;
    int mapEntryBits;
    int width;
    int height;
    int depth;
    int descriptor;
};

Header parseHeader(const uint8_t* p) {
    Header h;
    h.idLength = p[0];
    h.mapType = p[1];
    h.imageType = p[2];
    h.mapFirst = il::get16le(p + 3);
    h.mapLength = il::get16le(p + 5);
    h.mapEntryBits = p[7];
    h.width = il::get16le(p + 12);
    h.height = il::get16le(p + 14);
    h.depth = p[16];
    h.descriptor = p[17];
    return h;
}

// Bytes of a pixel or colour-map entry of the given bit count (15-bit
// values take two bytes).
int bytesOf(int bits) { return (bits + 7) / 8; }

// Orientation code from the origin bits 4-5 of the descriptor: bottom left
// 6, bottom right 7, top left 4, top right 5.
int orientationCode(int descriptor) { return 4 + (((descriptor >> 4) & 3) ^ 2); }

// True when the file ends with the footer of the later edition of the
// format; its extension area offset goes to *extension.
bool readFooter(il::File& f, uint32_t* extension) {
    int64_t size = f.size();
    if (size < kHeaderBytes + kFooterBytes || !f.seek(size - kFooterBytes)) return false;
    uint8_t footer[kFooterBytes];
    if (!f.read(footer, sizeof footer)) return false;
    if (std::memcmp(footer + 8, kFooterSignature, sizeof kFooterSignature) != 0) return false;
    *extension = il::get32le(footer);
    return true;
}

// The colour mode of a file: 6 for 32-bit true colour with 8 alpha bits,
// unless the extension area's attributes type says the alpha is not to be
// used; 1 for other true colour; 5 for grey; 3 for anything else.
int colourModeOf(il::File& f, const Header& h) {
    switch (h.imageType) {
        case kTrueColour:
        case kTrueColourRle: {
            if ((h.descriptor & 0x0F) != 8 || h.depth != 32) return COLORMODE_RGB;
            uint32_t extension = 0;
            if (readFooter(f, &extension) && extension != 0) {
                uint8_t attributes = 0;
                if (f.seek(int64_t(extension) + kAttributesTypeOffset) && f.read(&attributes, 1) && attributes < 3)
                    return COLORMODE_RGB;
            }
            return COLORMODE_RGBA;
        }
        case kGrey:
        case kGreyRle:
            return COLORMODE_BILEVEL;
        default:
            return COLORMODE_PALETTE256;
    }
}

// Whether the pixel data of a header is something the row reader decodes.
int checkDecodable(const Header& h) {
    if (h.mapType > 1) return IMGERR_BADFILE;
    switch (h.imageType) {
        case kTrueColour:
        case kTrueColourRle:
            return (h.depth == 15 || h.depth == 16 || h.depth == 24 || h.depth == 32) ? 0 : IMGERR_BADFORMAT;
        case kMapped:
        case kMappedRle:
            if (h.mapType != 1 || h.mapLength == 0) return IMGERR_BADFILE;
            if (h.depth != 8) return IMGERR_BADFORMAT;
            return (h.mapEntryBits == 15 || h.mapEntryBits == 16 || h.mapEntryBits == 24 || h.mapEntryBits == 32)
                       ? 0
                       : IMGERR_BADFORMAT;
        case kGrey:
        case kGreyRle:
            return (h.depth == 8 || h.depth == 16) ? 0 : IMGERR_BADFORMAT;
        default:
            return IMGERR_BADFORMAT;
    }
}

// The run-length packet left over from the previous row. One Targa file is
// decoded at a time per thread: opening a file clears it.
struct RunState {
    bool run = false;     // a run packet (else literal pixels follow in the file)
    int left = 0;         // pixels of the packet not yet used
    uint8_t pixel[4] = {};  // the repeated pixel of a run packet
};
thread_local RunState tRun;

struct TgaState {
    il::File file;
    il::Scratch<uint8_t> row;  // stored pixels of one row (reading) or its packets (writing)
    il::Scratch<uint8_t> pixels;  // interleaved pixels of the row being written
    int imageType = 0;
    int bytesPerPixel = 0;
    // Colour map of mapped files, by pixel value: red, green, blue, alpha.
    uint8_t map[256][4] = {};
};

TgaState* stateOf(ImageFileContext* ctx) { return static_cast<TgaState*>(ctx->state); }

// 16-bit pixel or map entry: five bits each of red, green and blue.
void split16(uint16_t v, uint8_t* rgb) {
    rgb[0] = uint8_t((v >> 7) & 0xF8);
    rgb[1] = uint8_t((v >> 2) & 0xF8);
    rgb[2] = uint8_t((v << 3) & 0xF8);
}

// Reads the colour map of a mapped file into st->map; entries that lie
// outside pixel values 0..255 are skipped over.
bool readColourMap(il::File& f, const Header& h, TgaState* st) {
    const int entryBytes = bytesOf(h.mapEntryBits);
    uint8_t e[4];
    for (int i = 0; i < h.mapLength; ++i) {
        if (!f.read(e, size_t(entryBytes))) return false;
        const int index = h.mapFirst + i;
        if (index > 255) continue;
        uint8_t* m = st->map[index];
        if (entryBytes == 2) {
            split16(il::get16le(e), m);
            m[3] = 255;
        } else {
            m[0] = e[2];
            m[1] = e[1];
            m[2] = e[0];
            m[3] = entryBytes == 4 ? e[3] : 255;
        }
    }
    return true;
}

// Decodes one row of run-length packets into row (width pixels). A packet
// that runs past the row's end is kept for the next row. Short data clears
// the rest of the row and gives IMGERR_READFAILED.
int decodeRunLength(TgaState* st, uint8_t* row, int width) {
    const int bpp = st->bytesPerPixel;
    int n = 0;
    while (n < width) {
        if (tRun.left == 0) {
            int c = st->file.getc();
            if (c < 0) break;
            tRun.run = (c & 0x80) != 0;
            tRun.left = (c & 0x7F) + 1;
            if (tRun.run && !st->file.read(tRun.pixel, size_t(bpp))) {
                tRun.left = 0;
                break;
            }
        }
        const int take = std::min(tRun.left, width - n);
        uint8_t* out = row + size_t(n) * bpp;
        if (tRun.run) {
            for (int i = 0; i < take; ++i) std::memcpy(out + size_t(i) * bpp, tRun.pixel, size_t(bpp));
        } else if (!st->file.read(out, size_t(take) * bpp)) {
            tRun.left = 0;
            break;
        }
        n += take;
        tRun.left -= take;
    }
    if (n == width) return 0;
    std::memset(row + size_t(n) * bpp, 0, size_t(width - n) * bpp);
    return IMGERR_READFAILED;
}

// Stored pixels to planes through decode (stored pixel -> red, green, blue,
// alpha); null planes are skipped.
template <class Decode>
void splitPixels(const uint8_t* src, int width, int bpp, uint8_t* const* out, Decode decode) {
    uint8_t rgba[4];
    for (int i = 0; i < width; ++i, src += bpp) {
        decode(src, rgba);
        for (int p = 0; p < 4; ++p)
            if (out[p]) out[p][i] = rgba[p];
    }
}

void toPlanes(const TgaState* st, const uint8_t* src, int width, uint8_t* const* out) {
    const int bpp = st->bytesPerPixel;
    switch (st->imageType) {
        case kTrueColour:
        case kTrueColourRle:
            if (bpp == 2)
                splitPixels(src, width, bpp, out, [](const uint8_t* s, uint8_t* px) {
                    split16(il::get16le(s), px);
                    px[3] = 255;
                });
            else if (bpp == 3 && out[0] && out[1] && out[2]) {
                il::rgbRowToPlanes(out[2], out[1], out[0], src, size_t(width));  // stored B, G, R
                if (out[3]) std::memset(out[3], 255, size_t(width));
            } else
                splitPixels(src, width, bpp, out, [bpp](const uint8_t* s, uint8_t* px) {
                    px[0] = s[2];
                    px[1] = s[1];
                    px[2] = s[0];
                    px[3] = bpp == 4 ? s[3] : 255;
                });
            break;
        case kGrey:
        case kGreyRle:
            splitPixels(src, width, bpp, out, [bpp](const uint8_t* s, uint8_t* px) {
                px[0] = px[1] = px[2] = s[0];
                px[3] = bpp == 2 ? s[1] : 255;
            });
            break;
        default:  // mapped
            splitPixels(src, width, bpp, out, [st](const uint8_t* s, uint8_t* px) { std::memcpy(px, st->map[s[0]], 4); });
            break;
    }
}

int readRow(ImageFileContext* ctx, uint8_t* r, uint8_t* g, uint8_t* b, uint8_t* a) {
    TgaState* st = stateOf(ctx);
    const int width = ctx->fileSize.x;
    uint8_t* row = st->row.get();
    int status = 0;
    switch (st->imageType) {
        case kMapped:
        case kTrueColour:
        case kGrey: {
            const size_t bytes = size_t(width) * st->bytesPerPixel;
            const size_t got = st->file.readSome(row, bytes);
            if (got < bytes) {
                std::memset(row + got, 0, bytes - got);
                status = IMGERR_READFAILED;
            }
            break;
        }
        default:
            status = decodeRunLength(st, row, width);
            break;
    }
    uint8_t* const out[4] = {r, g, b, a};
    toPlanes(st, row, width, out);
    return status;
}

int closeFile(ImageFileContext* ctx) {
    TgaState* st = stateOf(ctx);
    int status = 0;
    if (st) {
        if (!st->file.close()) status = IMGERR_WRITEFAILED;
        delete st;
    }
    ctx->state = nullptr;
    return status;
}

// Appends the run-length packets of one row of interleaved pixels to out;
// returns the byte count. Packets never cross rows: runs of equal pixels
// become run packets of at most 128, everything else literal packets of at
// most 127.
template <int kBpp>
size_t encodeRowOf(const uint8_t* px, int width, uint8_t* out) {
    constexpr size_t bpp = kBpp;
    auto same = [&](int i, int j) { return std::memcmp(px + size_t(i) * bpp, px + size_t(j) * bpp, bpp) == 0; };
    size_t n = 0;
    int i = 0;
    while (i < width) {
        if (i + 1 < width && same(i, i + 1)) {
            int end = i + 1;
            while (end + 1 < width && same(end + 1, i)) ++end;
            int count = end - i + 1;
            while (count > 0) {
                const int packet = std::min(count, 128);
                out[n++] = uint8_t((packet - 1) | 0x80);
                std::memcpy(out + n, px + size_t(i) * bpp, size_t(bpp));
                n += size_t(bpp);
                count -= packet;
            }
            i = end + 1;
        } else {
            const int start = i;
            do {
                ++i;
            } while (i < width && i - start < 127 && !(i + 1 < width && same(i, i + 1)));
            const int count = i - start;
            out[n++] = uint8_t(count - 1);
            std::memcpy(out + n, px + size_t(start) * bpp, size_t(count) * bpp);
            n += size_t(count) * bpp;
        }
    }
    return n;
}

size_t encodeRow(const uint8_t* px, int width, int bpp, uint8_t* out) {
    switch (bpp) {
        case 1: return encodeRowOf<1>(px, width, out);
        case 2: return encodeRowOf<2>(px, width, out);
        case 3: return encodeRowOf<3>(px, width, out);
        default: return encodeRowOf<4>(px, width, out);
    }
}

int writeRow(ImageFileContext* ctx, const uint8_t* r, const uint8_t* g, const uint8_t* b, const uint8_t* a) {
    TgaState* st = stateOf(ctx);
    const int width = ctx->fileSize.x;
    const int bpp = st->bytesPerPixel;
    uint8_t* px = st->pixels.get();
    if (bpp == 3 && r && g && b) {
        il::planesToRGBRow(px, b, g, r, size_t(width));  // stored B, G, R
    } else {
        for (int i = 0; i < width; ++i, px += bpp) {
            px[0] = b ? b[i] : 0;
            px[1] = g ? g[i] : 0;
            px[2] = r ? r[i] : 0;
            if (bpp == 4) px[3] = a ? a[i] : 0;
        }
    }
    const size_t bytes = encodeRow(st->pixels.get(), width, bpp, st->row.get());
    return st->file.write(st->row.get(), bytes) ? 0 : kShortWrite;
}

// Opens path and reads the header; 0 or the handler's code for the failure.
int openHeader(const char* path, il::File* f, Header* h) {
    *f = il::File::open(path, "rb");
    if (!f->ok()) return kCannotOpen;
    uint8_t bytes[kHeaderBytes];
    if (!f->read(bytes, sizeof bytes)) return kNoHeader;
    *h = parseHeader(bytes);
    return 0;
}

}  // namespace

int imageTga_readInfo(ImageSize* size, int* colourMode, int* orientation, const char* path) noexcept {
    il::File f;
    Header h;
    switch (openHeader(path, &f, &h)) {
        case 0:
            break;
        case kCannotOpen:
            return IMGERR_OPENFAILED;
        default:
            return IMGERR_UNSUPPORTEDTYPE;
    }
    if (h.width == 0 || h.height == 0) return IMGERR_BADFILE;
    const int mode = colourModeOf(f, h);
    if (size) *size = ImageSize{h.width, h.height};
    if (colourMode) *colourMode = mode;
    if (orientation) *orientation = orientationCode(h.descriptor);
    return 0;
}

int imageTga_checkWholeImage(const char* path) noexcept {
    il::File f;
    Header h;
    if (openHeader(path, &f, &h) != 0) return 0;  // the open reports it
    // Raw pixels must be in the file; a run-length packet of 1 + n bytes
    // stands for at most 128 pixels, and run-length images are held to the
    // library's pixel limit as well.
    const int64_t pixels = int64_t(h.width) * h.height, fileBytes = f.size();
    const bool rle = h.imageType == kTrueColourRle || h.imageType == kMappedRle || h.imageType == kGreyRle;
    if (rle ? pixels > fileBytes * 128 || !il::withinPixelLimit(h.width, h.height)
            : pixels * bytesOf(h.depth) > fileBytes)
        return IMGERR_BADFILE;
    return 0;
}

int imageTga_open(ImageFileContext* ctx, const char* path) noexcept {
    il::File f;
    Header h;
    if (int status = openHeader(path, &f, &h)) return status;
    if (h.width == 0 || h.height == 0) return IMGERR_BADFILE;
    if (int status = checkDecodable(h)) return status;
    const int mode = colourModeOf(f, h);

    std::unique_ptr<TgaState> st(new (std::nothrow) TgaState);
    if (!st) return IMGERR_NOMEMORY;
    if (!st->row.allocate(size_t(h.width) * 4, il::tag("tgaW"))) return kNoRowBuffer;
    st->imageType = h.imageType;
    st->bytesPerPixel = bytesOf(h.depth);

    // Skip the identification field; read the colour map of mapped files
    // and skip any other.
    if (!f.seek(kHeaderBytes + h.idLength)) return IMGERR_READFAILED;
    if (h.imageType == kMapped || h.imageType == kMappedRle) {
        if (!readColourMap(f, h, st.get())) return IMGERR_READFAILED;
    } else if (h.mapType == 1) {
        if (!f.seek(int64_t(bytesOf(h.mapEntryBits)) * h.mapLength, SEEK_CUR)) return IMGERR_READFAILED;
    }
    st->file = std::move(f);

    ctx->fileSize = ImageSize{h.width, h.height};
    ctx->alpha = mode == COLORMODE_RGBA;
    il::stream::installHandler(ctx, kHandlerCode, uint16_t(orientationCode(h.descriptor)), readRow, nullptr,
                               closeFile, st.release());
    tRun = RunState{};
    return 0;
}

int imageTga_create(ImageFileContext* ctx, const char* path, int /*type*/, int colourMode) noexcept {
    const int width = ctx->fileSize.x, height = ctx->fileSize.y;
    if (width <= 0 || height <= 0 || width > 0xFFFF || height > 0xFFFF) return IMGERR_BADARG;
    const bool alpha = colourMode == COLORMODE_RGBA;
    const int bpp = alpha ? 4 : 3;

    std::unique_ptr<TgaState> st(new (std::nothrow) TgaState);
    if (!st) return IMGERR_NOMEMORY;
    // Worst case of a row: all literal packets, one packet byte per 127 pixels.
    if (!st->pixels.allocate(size_t(width) * bpp, il::tag("tgaP")) ||
        !st->row.allocate(size_t(width) * bpp + size_t(width) / 127 + 1, il::tag("tgaW")))
        return IMGERR_NOMEMORY;
    st->imageType = kTrueColourRle;
    st->bytesPerPixel = bpp;

    st->file = il::File::open(path, "wb");
    if (!st->file.ok()) return kCannotOpen;
    uint8_t header[kHeaderBytes] = {};
    header[2] = kTrueColourRle;
    il::put16le(header + 12, uint32_t(width));
    il::put16le(header + 14, uint32_t(height));
    header[16] = uint8_t(bpp * 8);
    header[17] = alpha ? 8 : 0;
    if (!st->file.write(header, sizeof header)) return kShortWrite;

    ctx->alpha = alpha;
    il::stream::installHandler(ctx, kHandlerCode, kWrittenOrientation, nullptr, writeRow, closeFile, st.release());
    return 0;
}
