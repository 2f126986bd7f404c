// Encapsulated PostScript output (file type 6): the whole-image writer that
// the write dispatch calls and the colour row writer of the streaming layer.
// EPS files are written only.
//
// The file is a PostScript program of CR LF lines: a fixed header with the
// bounding box (1.25 points an image pixel, truncated to whole points), the
// image procedure, one line of upper-case hexadecimal a row (grey: one
// value a pixel; colour: the row's red values, then its green, then its
// blue), then "showpage" and the trailer comment.
//
// The "image format" codes of this writer are colour modes: 1 colour, 4 grey.
#pragma once

#include <cstdint>

#include "imagelib/types.h"
#include "internal/file.h"

struct ImageFileContext;

// Writes the header lines up to the image procedure, with title in the
// %%Title comment; colour selects the colorimage form. false when a write
// failed.
bool imageEps_writeHeader(il::File& file, const char* title, const ImageSize* size, bool colour) noexcept;

// Writes "showpage" and the %%Trailer comment.
bool imageEps_writeTrailer(il::File& file) noexcept;

// Writes row-planar RGB as a colour file (image format 1) or a grey file (4,
// grey levels 0.3 R + 0.59 G + 0.11 B rounded). IMGERR_BADARG for any other
// format, IMGERR_OPENFAILED, IMGERR_NOMEMORY. A nonzero stop answer ends the
// rows and is returned; the file still gets its trailer.
int imageEps_writeFromRGB(const char* path, const uint8_t* rgb, const ImageSize* size, int imageFormat,
                          StopFunction stop) noexcept;

// --- streaming writer (colour rows) ------------------------------------------

// Creates path for colour rows of ctx->fileSize and installs the row and
// close operations (codes 1 and 4: rows top row first). 1 when the file
// cannot be opened (kept as it is), IMGERR_NOMEMORY when the line buffer
// cannot be had. type and colourMode are not used.
int imageEps_createFile(ImageFileContext* ctx, const char* path, int type, int colourMode) noexcept;

// Writes one row line; a null plane writes zeros.
int imageEps_putRow(ImageFileContext* ctx, const uint8_t* red, const uint8_t* green, const uint8_t* blue,
                    const uint8_t* alpha) noexcept;

// Writes the trailer, closes the file and frees the handler's state.
int imageEps_closeFile(ImageFileContext* ctx) noexcept;
