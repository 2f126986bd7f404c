// Group 4 coding through libtiff's fax codec over in-memory TIFF handles.
#include "codecs/intergraph/ccitt.h"

#include <tiffio.h>

#include <cstring>

#include "internal/bytes.h"
#include "internal/checked.h"

namespace il::ccitt {
namespace {

// A growable in-memory file for libtiff's client interface.
struct MemFile {
    Scratch<uint8_t> buf;
    size_t size = 0;      // bytes held
    size_t pos = 0;
    bool failed = false;

    bool reserve(size_t need) {
        if (need <= buf.size()) return true;
        size_t cap = buf.size() ? buf.size() : 8192;
        while (cap < need) {
            if (cap > SIZE_MAX / 2) return false;
            cap *= 2;
        }
        Scratch<uint8_t> grown(cap, tag("G4mf"));
        if (!grown.ok()) return false;
        if (size) std::memcpy(grown.get(), buf.get(), size);
        buf = std::move(grown);
        return true;
    }
};

tmsize_t memRead(thandle_t h, void* dst, tmsize_t n) {
    auto* m = static_cast<MemFile*>(h);
    if (n < 0 || m->pos >= m->size) return 0;
    size_t take = std::min(size_t(n), m->size - m->pos);
    std::memcpy(dst, m->buf.get() + m->pos, take);
    m->pos += take;
    return tmsize_t(take);
}

tmsize_t memWrite(thandle_t h, void* src, tmsize_t n) {
    auto* m = static_cast<MemFile*>(h);
    size_t end = 0;
    if (n < 0 || !addSize(m->pos, size_t(n), &end) || !m->reserve(end)) {
        m->failed = true;
        return 0;
    }
    if (m->pos > m->size) std::memset(m->buf.get() + m->size, 0, m->pos - m->size);
    std::memcpy(m->buf.get() + m->pos, src, size_t(n));
    m->pos = end;
    if (end > m->size) m->size = end;
    return n;
}

toff_t memSeek(thandle_t h, toff_t off, int whence) {
    auto* m = static_cast<MemFile*>(h);
    uint64_t base = whence == SEEK_CUR ? m->pos : whence == SEEK_END ? m->size : 0;
    uint64_t to = base + off;
    if (to > uint64_t(SIZE_MAX / 2)) return toff_t(-1);
    m->pos = size_t(to);
    return to;
}

int memClose(thandle_t) { return 0; }
toff_t memSize(thandle_t h) { return static_cast<MemFile*>(h)->size; }
int memMap(thandle_t, void**, toff_t*) { return 0; }
void memUnmap(thandle_t, void*, toff_t) {}

// libtiff's messages about a bad stream are answered by the status codes.
int quiet(TIFF*, void*, const char*, const char*, va_list) { return 1; }

TIFF* openMem(MemFile& m, const char* mode) {
    TIFFOpenOptions* opts = TIFFOpenOptionsAlloc();
    if (!opts) return nullptr;
    TIFFOpenOptionsSetErrorHandlerExtR(opts, quiet, nullptr);
    TIFFOpenOptionsSetWarningHandlerExtR(opts, quiet, nullptr);
    TIFF* t = TIFFClientOpenExt("(FakeInput)", mode, &m, memRead, memWrite, memSeek, memClose, memSize, memMap,
                                memUnmap, opts);
    TIFFOpenOptionsFree(opts);
    return t;
}

struct TiffCloser {
    TIFF* t;
    ~TiffCloser() {
        if (t) TIFFClose(t);
    }
};

void entry(uint8_t*& p, uint16_t tag, uint16_t type, uint32_t value) {
    put16le(p, tag);
    put16le(p + 2, type);
    put32le(p + 4, 1);
    if (type == 3)
        put16le(p + 8, value), put16le(p + 10, 0);
    else
        put32le(p + 8, value);
    p += 12;
}

}  // namespace

int decode(const uint8_t* data, size_t length, int width, int height, bool lsbFirst, StopFunction stop,
           RowSink sink, void* user) noexcept {
    if (width <= 0 || height <= 0 || length > 0xFFFFFF00u) return IMGERR_BADFILE;
    constexpr int kEntries = 11;
    constexpr size_t kHead = 8 + 2 + kEntries * 12 + 4;
    MemFile m;
    if (!m.reserve(kHead + length + 1)) return IMGERR_NOMEMORY;
    uint8_t* p = m.buf.get();
    std::memcpy(p, "II*\0", 4);
    put32le(p + 4, 8);
    put16le(p + 8, kEntries);
    uint8_t* e = p + 10;
    entry(e, 256, 4, uint32_t(width));
    entry(e, 257, 4, uint32_t(height));
    entry(e, 258, 3, 1);
    entry(e, 259, 3, 4);
    entry(e, 262, 3, 0);
    entry(e, 266, 3, lsbFirst ? 2 : 1);
    entry(e, 273, 4, uint32_t(kHead));
    entry(e, 277, 3, 1);
    entry(e, 278, 4, uint32_t(height));
    entry(e, 279, 4, uint32_t(length));
    entry(e, 284, 3, 1);
    put32le(e, 0);
    if (length) std::memcpy(p + kHead, data, length);
    m.size = kHead + length;

    TiffCloser tc{openMem(m, "rm")};
    if (!tc.t) return IMGERR_BADFILE;
    const size_t rowBytes = (size_t(width) + 7) >> 3;
    if (size_t(TIFFScanlineSize(tc.t)) != rowBytes) return IMGERR_BADFILE;
    Scratch<uint8_t> row(rowBytes, tag("G4rw"), true);
    if (!row.ok()) return IMGERR_NOMEMORY;
    for (int y = 0; y < height; ++y) {
        if (imageUtil_stopped(stop)) return IMGERR_STOPPED;
        if (TIFFReadScanline(tc.t, row.get(), uint32_t(y), 0) < 0) return IMGERR_BADFILE;
        if (int st = sink(user, y, row.get())) return st;
    }
    return 0;
}

int encode(Scratch<uint8_t>& out, size_t* length, int width, int height, bool lsbFirst, StopFunction stop,
           RowSource rowAt, void* user) noexcept {
    if (width <= 0 || height <= 0) return IMGERR_BADARG;
    MemFile m;
    {
        TiffCloser tc{openMem(m, "w")};
        if (!tc.t) return IMGERR_NOMEMORY;
        TIFF* t = tc.t;
        TIFFSetField(t, TIFFTAG_IMAGEWIDTH, uint32_t(width));
        TIFFSetField(t, TIFFTAG_IMAGELENGTH, uint32_t(height));
        TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 1);
        TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 1);
        TIFFSetField(t, TIFFTAG_FILLORDER, lsbFirst ? FILLORDER_LSB2MSB : FILLORDER_MSB2LSB);
        TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
        TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISWHITE);
        TIFFSetField(t, TIFFTAG_YRESOLUTION, 196.0);
        TIFFSetField(t, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
        TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_CCITTFAX4);
        TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, uint32_t(height));
        const size_t rowBytes = (size_t(width) + 7) >> 3;
        Scratch<uint8_t> row(rowBytes, tag("G4wr"));
        if (!row.ok()) return IMGERR_NOMEMORY;
        for (int y = 0; y < height; ++y) {
            if (imageUtil_stopped(stop)) return IMGERR_STOPPED;
            int st = 0;
            const uint8_t* bits = rowAt(user, y, &st);
            if (!bits) return st ? st : IMGERR_NOMEMORY;
            std::memcpy(row.get(), bits, rowBytes);  // libtiff may reverse bits in place
            if (TIFFWriteScanline(t, row.get(), uint32_t(y), 0) < 0) return IMGERR_NOMEMORY;
        }
        if (!TIFFWriteDirectory(t) || m.failed) return IMGERR_NOMEMORY;
    }
    // Take the strip out of the file just written.
    m.pos = 0;
    TiffCloser rd{openMem(m, "rm")};
    if (!rd.t) return IMGERR_NOMEMORY;
    uint64_t* offsets = nullptr;
    uint64_t* counts = nullptr;
    if (!TIFFGetField(rd.t, TIFFTAG_STRIPOFFSETS, &offsets) || !TIFFGetField(rd.t, TIFFTAG_STRIPBYTECOUNTS, &counts) ||
        !offsets || !counts || offsets[0] > m.size || counts[0] > m.size - offsets[0])
        return IMGERR_NOMEMORY;
    if (!out.allocate(size_t(counts[0]), tag("G4ou"))) return IMGERR_NOMEMORY;
    std::memcpy(out.get(), m.buf.get() + offsets[0], size_t(counts[0]));
    *length = size_t(counts[0]);
    return 0;
}

}  // namespace il::ccitt

#include "imagelib/pixels.h"

namespace il::ccitt {

const uint8_t* BilevelRows::pixels(int y) {
    const size_t w = size_t(width);
    uint8_t* out = bytes.get();
    switch (kind) {
        case Bitmap:
            korImage_unpackBuffer(out, static_cast<const uint8_t*>(source) + ((w + 7) / 8) * size_t(y), 1, width);
            break;
        case RunLength:
            korImage_runLengthDecodeBitMapRow(bits.get(), static_cast<uint16_t* const*>(source)[y], width);
            korImage_unpackBuffer(out, bits.get(), 1, width);
            break;
        case Map: {
            const uint8_t* p = static_cast<const uint8_t*>(source) + w * size_t(y);
            for (size_t x = 0; x < w; ++x) out[x] = p[x] & 1;
            break;
        }
        case PackByte:
            korImage_unpackByteBuffer(out, static_cast<uint8_t* const*>(source)[y], width);
            for (size_t x = 0; x < w; ++x) out[x] &= 1;
            break;
        case RGB: {
            const uint8_t* r = static_cast<const uint8_t*>(source) + 3 * w * size_t(y);
            for (size_t x = 0; x < w; ++x)
                out[x] = 0.3 * r[x] + 0.59 * r[x + w] + 0.11 * r[x + 2 * w] > 128.0 ? 1 : 0;
            break;
        }
    }
    return out;
}

const uint8_t* BilevelRows::packed(int y) {
    const size_t w = size_t(width);
    if (kind == Bitmap) return static_cast<const uint8_t*>(source) + ((w + 7) / 8) * size_t(y);
    if (kind == RunLength) {
        std::memset(bits.get(), 0, (w + 7) / 8);
        korImage_runLengthDecodeBitMapRow(bits.get(), static_cast<uint16_t* const*>(source)[y], width);
        return bits.get();
    }
    std::memset(bits.get(), 0, (w + 7) / 8);
    korImage_packBuffer(bits.get(), pixels(y), 1, width);
    return bits.get();
}

const uint8_t* bilevelRowSource(void* rows, int y, int*) { return static_cast<BilevelRows*>(rows)->packed(y); }

}  // namespace il::ccitt
