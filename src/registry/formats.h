// The format table, the import and export lists and the content detectors.
//
// This is the one place that says which file types exist and how each is
// recognised. A codec that brings a header reader plugs it in by filling its
// row of the detector table (detectors.cpp); nothing else changes.
#pragma once

#include <cstdint>

namespace il::registry {

constexpr int kTypeCount = 42;

struct FormatRow {
    const char* extension;  // lower case, no dot
    uint32_t osType;        // Mac OS file type, four characters big-endian
    int type;               // equals the row index
    bool needsHeaderCheck;  // extension shared by Intergraph types: the header decides
};

extern const FormatRow kFormatTable[kTypeCount];

// A content detector: 0 when the file at path is of the given type, a
// negative status otherwise.
using Detector = int (*)(const char* path, int type);

struct ImportRow {
    int type;           // -1 ends the list
    Detector detector;  // null: never found from the contents
};

constexpr int kImportRows = 23;
constexpr int kExportRows = 22;
extern const ImportRow kImportList[kImportRows];
extern const int kExportList[kExportRows];

// Resolves a type whose extension is shared by several Intergraph types from
// the file's header: the resolved type, or a negative status when the header
// cannot be read (the Intergraph header issue supplies it; until then it
// answers IMGERR_UNSUPPORTEDTYPE).
int resolveIntergraphType(const char* path, int rowType);

// Writer capabilities of the export support table.
struct ExportSupport {
    int defaultMode, rgb, palette256, palette16, grey, bilevel;
};
// False for types absent from the table.
bool exportSupport(int type, ExportSupport* out);

}  // namespace il::registry
