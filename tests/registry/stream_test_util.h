// Helpers for the streaming row tests: row-planar images written and read
// through the streaming interface, and Targa headers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "imagelib/imagelib.h"
#include "registry/stream.h"

namespace stest {

// A row-planar image: per row x red, x green, x blue (and x alpha) bytes.
struct Planar {
    ImageSize size{0, 0};
    int planes = 3;
    std::vector<uint8_t> data;

    Planar() = default;
    Planar(int x, int y, int planeCount) : size{x, y}, planes(planeCount), data(size_t(x) * y * planeCount) {}
    uint8_t* plane(int row, int p) { return data.data() + (size_t(row) * planes + p) * size.x; }
    const uint8_t* plane(int row, int p) const { return data.data() + (size_t(row) * planes + p) * size.x; }
    uint8_t& at(int row, int p, int x) { return plane(row, p)[x]; }
};

// Pixels that differ from their neighbours, with stretches of equal ones.
inline Planar pattern(int x, int y, int planes) {
    Planar img(x, y, planes);
    for (int r = 0; r < y; ++r)
        for (int i = 0; i < x; ++i)
            for (int p = 0; p < planes; ++p)
                img.at(r, p, i) = uint8_t(((i / 7) % 3 == 1 ? r * 11 : i * 37 + r * 5) + p * 71 + (p == 3 ? i : 0));
    return img;
}

// Writes img through the streaming writer, feeding the last row first when
// the file stores rows bottom-up (unless inStoredOrder). The first failing
// status, or the close's.
inline int writeStream(const std::string& path, const Planar& img, const ImageSize* fileSize, int type,
                       int colourMode, bool inStoredOrder = false) {
    int status = 0;
    ImageFileContext* c = korImage_createFile(&status, path.c_str(), fileSize, &img.size, type, colourMode);
    if (!c) return status;
    const bool bottomUp = !inStoredOrder && il::stream::orientationBits(c) == il::stream::kRowsBottomUp;
    for (int r = 0; r < img.size.y && status == 0; ++r) {
        const int row = bottomUp ? img.size.y - 1 - r : r;
        status = korImage_putRow(c, img.plane(row, 0), img.plane(row, 1), img.plane(row, 2),
                                 img.planes == 4 ? img.plane(row, 3) : nullptr);
    }
    const int closed = korImage_closeFile(c);
    return status ? status : closed;
}

// Reads every row of path (at the requested size, or the file's) in stored
// order; *orientation gets the context's orientation code.
inline int readStream(const std::string& path, const ImageSize* requested, Planar* out, int* orientation = nullptr,
                      bool withAlpha = false) {
    int status = 0;
    ImageFileContext* c = korImage_openFile(&status, requested, path.c_str());
    if (!c) return status;
    ImageSize size{};
    korImage_getImageSize(&size, c);
    *out = Planar(size.x, size.y, withAlpha ? 4 : 3);
    if (orientation) *orientation = c->orientation;
    for (int r = 0; r < size.y && status == 0; ++r)
        status = korImage_getRow(c, out->plane(r, 0), out->plane(r, 1), out->plane(r, 2),
                                 withAlpha ? out->plane(r, 3) : nullptr);
    const int closed = korImage_closeFile(c);
    return status ? status : closed;
}

// Turns stored rows upright by a Targa orientation code (4..7): bottom-up
// files are flipped, right-to-left ones mirrored.
inline Planar upright(const Planar& img, int orientation) {
    Planar out = img;
    const bool bottomUp = (orientation & 3) >= 2, mirrored = (orientation & 1) != 0;
    for (int r = 0; r < img.size.y; ++r)
        for (int p = 0; p < img.planes; ++p)
            for (int i = 0; i < img.size.x; ++i)
                out.at(bottomUp ? img.size.y - 1 - r : r, p, mirrored ? img.size.x - 1 - i : i) = img.plane(r, p)[i];
    return out;
}

// An 18-byte Targa header followed by `data`.
inline std::vector<uint8_t> tga(int imageType, int width, int height, int depth, int descriptor,
                                std::vector<uint8_t> data = {}, int mapFirst = 0, int mapLength = 0,
                                int mapBits = 0, int idLength = 0) {
    const uint8_t header[18] = {uint8_t(idLength), uint8_t(mapLength ? 1 : 0), uint8_t(imageType), uint8_t(mapFirst),
                                uint8_t(mapFirst >> 8), uint8_t(mapLength), uint8_t(mapLength >> 8), uint8_t(mapBits),
                                0, 0, 0, 0, uint8_t(width), uint8_t(width >> 8), uint8_t(height), uint8_t(height >> 8),
                                uint8_t(depth), uint8_t(descriptor)};
    data.insert(data.begin(), header, header + 18);
    return data;
}

}  // namespace stest
