// The Targa codec: a streaming handler (rows through ImageFileContext) and a
// header-only info reader.
#pragma once

#include "imagelib/types.h"

struct ImageFileContext;

// Size, colour mode (1, 3, 5 or 6 by the Targa rules; the read dispatch
// narrows it) and orientation code (4..7) of the Targa file at path; any
// output may be null. 0, IMGERR_OPENFAILED, IMGERR_UNSUPPORTEDTYPE when the
// header cannot be read, or IMGERR_BADFILE for an impossible header.
int imageTga_readInfo(ImageSize* size, int* colourMode, int* orientation, const char* path) noexcept;

// Before the whole image is allocated: IMGERR_BADFILE when the file cannot
// hold the raw pixels its header claims, or its run-length image is beyond
// what its length or the library's pixel limit allows; else 0. The
// streaming rows read any size a row at a time and do not ask.
int imageTga_checkWholeImage(const char* path) noexcept;

// Streaming handler operations (see codecs/rows.h for the contract).
// Open returns 1 when the file cannot be opened, 3 when the header cannot
// be read, 294 when the row buffer cannot be allocated, IMGERR_BADFILE or
// IMGERR_BADFORMAT for headers it cannot decode. Create returns 1 when the
// file cannot be created and 32768 when the header write is short.
int imageTga_open(ImageFileContext* ctx, const char* path) noexcept;
int imageTga_create(ImageFileContext* ctx, const char* path, int type, int colourMode) noexcept;
