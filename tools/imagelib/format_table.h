// What the library says of each file type: the rows of `imagelib formats`
// and of the Python package's formats().
#pragma once

#include <string>

namespace cli {

struct FormatRow {
    int type = 0;
    std::string ext, osType, name;
    bool readable = false, writable = false, alpha = false;
    int support[6] = {-1, -1, -1, -1, -1, -1};  // as kExportSupportKeys; -1 when the type has no writer
};

// The keys of the export support numbers, in the order of FormatRow::support.
extern const char* const kExportSupportKeys[6];

FormatRow describeFormat(int type);

}  // namespace cli
