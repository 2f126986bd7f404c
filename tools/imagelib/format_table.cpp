#include "format_table.h"

#include "imagelib/imagelib.h"

namespace cli {

const char* const kExportSupportKeys[6] = {"defaultMode", "rgb", "palette256", "palette16", "grey", "bilevel"};

FormatRow describeFormat(int type) {
    FormatRow r;
    r.type = type;
    char ext[16];
    korImage_getExtension(ext, type);
    r.ext = ext;
    uint32_t os = 0;
    korImage_getOSFileType(&os, type);
    for (int s = 24; s >= 0; s -= 8) r.osType += char((os >> s) & 0xFF);
    char name[IMAGELIB_TEXT_MAX];
    int t;
    for (int i = 0; i < IMAGELIB_IMPORT_LIST_ROWS; ++i)
        if (korImage_getImportFormat(name, &t, i) == 0 && t == type) {
            r.readable = true;
            r.name = name;
        }
    for (int i = 0; i < IMAGELIB_EXPORT_LIST_ROWS; ++i)
        if (korImage_getExportFormat(name, &t, i) == 0 && t == type) {
            r.writable = true;
            if (r.name.empty()) r.name = name;
        }
    int* s = r.support;
    if (korImage_getExportSupport(&s[0], &s[1], &s[2], &s[3], &s[4], &s[5], type) != 0)
        for (int i = 0; i < 6; ++i) s[i] = -1;
    r.alpha = korImage_alphaExportSupported(type) != 0;
    return r;
}

}  // namespace cli
