// An image in memory as the CLI handles it, and the operations its commands
// share: loading any readable file (or PNM), geometry, writing in a mode.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "imagelib/imagelib.h"

namespace cli {

// Layouts the CLI works in: row-planar RGB (5), Map (3), run-length bitmap
// rows (2) and interleaved RGBA (7), as korImage_readFileToBuffer gives them.
class Image {
public:
    Image() = default;
    ~Image();
    Image(const Image&) = delete;
    Image& operator=(const Image&) = delete;
    Image(Image&& o) noexcept;
    Image& operator=(Image&& o) noexcept;

    void* buffer = nullptr;  // owned; released with korImage_freeImage
    ImageSize size{};
    int layout = 0;          // ImageFormat
    int colorMode = 0;       // ColorMode of the source
    uint8_t red[256] = {}, green[256] = {}, blue[256] = {};
    int count = 0;

    uint8_t* bytes() const { return static_cast<uint8_t*>(buffer); }
    // Replaces the pixels (the old buffer is freed).
    void replace(void* p, ImageSize s, int newLayout);
};

// The stop function: it stops once the process is interrupted and draws a
// progress bar on stderr when that is a terminal.
StopFunction progressFunction();
// Whether this thread draws the bar (the threads of a batch do not).
void showProgress(bool shown);
// Ends the progress bar line, if one was drawn.
void progressDone();

// True when the file starts like a binary or plain PNM/PAM file.
bool isPnmFile(const std::string& path);
// True when the name asks for PNM output (.ppm, .pam, .pgm, .pbm, .pnm).
bool isPnmName(const std::string& path);

// The file type of a file: from the contents, else nameTypeOf; -1 when
// none fits.
int fileTypeOf(const std::string& path);

// The file type of a name: the library's extensions, then the common names
// the format table does not hold (.ras and .sun for Sun raster, .pict for
// PICT); -1 when none fits.
int nameTypeOf(const std::string& path);

// Reads a file: PNM by the CLI itself, anything else through the library.
// forceRGB asks for row-planar RGB whatever the file holds (alpha is kept
// as layout 7 unless dropAlpha). 0 or a status.
int loadImage(const std::string& path, Image& img, bool forceRGB, StopFunction stop);

// Writes PNM: P6 (.ppm, .pnm), P5 (.pgm), P4 (.pbm) or P7 (.pam, with alpha
// when the image has it). 0 or a status.
int savePnm(const std::string& path, Image& img);
int loadPnm(const std::string& path, Image& img);

// Converts the image to row-planar RGB (layout 5), dropping any alpha.
int toRGB(Image& img, StopFunction stop);
// Converts to row-planar RGBA (four planes a row).
int toRGBAPlanes(Image& img, uint8_t** planes);

// Geometry on any layout the CLI holds.
int crop(Image& img, const double rect[4], StopFunction stop);
int resize(Image& img, ImageSize to, StopFunction stop);
int rotate(Image& img, int angle, StopFunction stop);
int mirror(Image& img, int mode, StopFunction stop);

// Writes the image as file type `type` in colour mode `mode` through the
// write entry point that matches its layout. compression is the writer's
// compression code (JPEG quality). 0 or a status.
int saveImage(const std::string& path, int type, int mode, Image& img, int compression, StopFunction stop);

// The colour mode to write when none is asked for: the source's when the
// writer takes it, else the writer's default.
int defaultWriteMode(int type, int sourceMode);

// A colour "#rrggbb" or "r,g,b", with a tolerance (0..255) after a last
// comma when tolerance is not null (0 when none is given).
bool parseColour(const std::string& text, uint8_t rgb[3], int* tolerance);
// Makes the pixels within tolerance of colour transparent: the image
// becomes interleaved RGBA (layout 7) with alpha 0 there and 255 elsewhere.
int makeTransparent(Image& img, const uint8_t colour[3], int tolerance, StopFunction stop);
// Reads the thumbnail of a file that fits box (PNM files are reduced here).
int loadThumbnail(const std::string& path, Image& img, ImageSize box, StopFunction stop);

// Mode names: rgb, 16, 256, grey, bilevel, rgba, or 1..6. -1 when unknown.
int parseMode(const std::string& s);
const char* modeName(int mode);

}  // namespace cli
