// Content detectors of the import list, in detection order.
//
// The order is part of the library's behaviour: a file with Intergraph data
// type 27 or 28 is found as type 16 (its row comes before type 1), every TIFF
// file (GeoTIFF included) as type 3, and types without a detector (CALS, PCX,
// PMA, RLC, Sun, Targa, BMP) are found only from their extension.
//
// A codec that brings a header reader plugs it in here: the "p" and "a"
// readers, the Intergraph header and the JPEG header.
// Until then their hooks answer IMGERR_UNSUPPORTEDTYPE and the rows never
// match.
#include <cstring>

#include "codecs/intergraph/ingr.h"
#include "codecs/native/pa.h"
#include "codecs/libs/jpeg.h"
#include "codecs/libs/png.h"
#include "codecs/libs/tiff.h"
#include "imagelib/types.h"
#include "internal/bytes.h"
#include "internal/file.h"
#include "registry/formats.h"

namespace il::registry {

namespace {

// Reads the first n bytes of path: 0, IMGERR_OPENFAILED or IMGERR_READFAILED.
int readLeading(const char* path, uint8_t* buf, size_t n) {
    File f = File::open(path, "rb");
    if (!f.ok()) return IMGERR_OPENFAILED;
    return f.read(buf, n) ? 0 : IMGERR_READFAILED;
}

// FLI (0xAF11) and FLC (0xAF12): the magic after the 32-bit file size.
int detectFlic(const char* path, int type) {
    uint8_t h[6];
    if (int st = readLeading(path, h, sizeof h)) return st;
    uint16_t magic = get16le(h + 4);
    uint16_t want = type == 14 ? 0xAF11 : 0xAF12;
    if (magic == want) return 0;
    if (magic == 0xAF11 || magic == 0xAF12) return IMGERR_UNSUPPORTEDTYPE;
    return IMGERR_BADFILE;
}

int detectPng(const char* path, int) { return pngFile_detect(path); }

int detectTiffByteOrder(const char* path, int type) { return tiff_detect(path, type); }

// ---- Hooks for header readers that later codecs provide -----------------

// The "p" and "a" raster header readers.
int detectPHeader(const char* path, int) { return imageP_detect(path) ? 0 : IMGERR_BADFILE; }
int detectAHeader(const char* path, int) { return imageA_detect(path) ? 0 : IMGERR_BADFILE; }

// The JPEG header reader.
int detectJpegHeader(const char* path, int) { return jpegFile_detect(path); }

// The GeoTIFF check, after the byte order.
int detectGeoTiff(const char* path, int type) { return tiff_detect(path, type); }

// The Intergraph header: its data type and, for tiled files (65), the tile
// header's data type.
int readIntergraphDataTypes(const char* path, int* dataType, int* tileDataType) {
    *dataType = *tileDataType = 0;
    IngrHeader h;
    il::File f;
    if (int st = ingr_openHeader(f, h.raw, path)) return st;
    *dataType = il::get16le(h.raw + 4);
    if (*dataType == 65) {
        il::Scratch<uint8_t> packet;
        if (ingr_readTilePacket(packet, f, uint32_t(il::get16le(h.raw + 2)) * 2 + 4) == 0 && packet.size() >= 20)
            *tileDataType = il::get16le(packet.get() + 18);
    }
    return 0;
}

bool intergraphMatches(int type, int dt, int tileDt) {
    auto in = [](int v, std::initializer_list<int> set) {
        for (int s : set)
            if (v == s) return true;
        return false;
    };
    switch (type) {
        case 16: return in(dt, {27, 28});
        case 19: return dt == 24;
        case 17: return dt == 2;
        case 1: return in(dt, {27, 28});
        case 13: return dt == 9;
        case 20: return dt == 65 && tileDt == 24;
        case 23: return in(dt, {2, 9, 24, 27, 28, 29}) || (dt == 65 && in(tileDt, {2, 24, 27, 28, 29}));
        case 25: return dt == 29;
        default: return false;
    }
}

// The one routine behind the seven Intergraph rows.
int detectIntergraph(const char* path, int type) {
    if (type < 1 || type > 25) return IMGERR_UNSUPPORTEDTYPE;
    int dt, tileDt;
    if (int st = readIntergraphDataTypes(path, &dt, &tileDt)) return st;
    return intergraphMatches(type, dt, tileDt) ? 0 : IMGERR_UNSUPPORTEDTYPE;
}

}  // namespace

int resolveIntergraphType(const char* path, int) {
    int dt, tileDt;
    if (int st = readIntergraphDataTypes(path, &dt, &tileDt)) return st;
    return ingr_typeFromDataType(dt, tileDt);
}

const ImportRow kImportList[kImportRows] = {
    {22, nullptr},           // CALS
    {14, detectFlic},        // FLI
    {15, detectFlic},        // FLC
    {28, detectPng},         // PNG
    {11, detectPHeader},     // "p"
    {12, detectAHeader},     // "a"
    {16, detectIntergraph},  // Intergraph data type 27 or 28
    {19, detectIntergraph},  // 24
    {17, detectIntergraph},  // 2
    {1, detectIntergraph},   // 27 or 28 (never reached: row 6 takes them)
    {13, detectIntergraph},  // 9
    {20, detectIntergraph},  // tiled, tile data type 24
    {23, detectIntergraph},  // any Intergraph data type it reads
    {18, detectJpegHeader},  // JPEG
    {5, nullptr},            // PCX
    {27, nullptr},           // PMA
    {24, nullptr},           // RLC
    {10, nullptr},           // Sun raster
    {2, nullptr},            // Targa
    {3, detectTiffByteOrder},
    {29, detectGeoTiff},
    {9, nullptr},  // BMP
    {-1, nullptr},
};

}  // namespace il::registry
