// The format table and the queries on it.
#include "registry/formats.h"

#include <cctype>
#include <cstring>

#include "imagelib/host.h"
#include "imagelib/registry.h"
#include "internal/file.h"

namespace il::registry {

namespace {
constexpr uint32_t os(const char (&s)[5]) {
    return (uint32_t(uint8_t(s[0])) << 24) | (uint32_t(uint8_t(s[1])) << 16) | (uint32_t(uint8_t(s[2])) << 8) |
           uint32_t(uint8_t(s[3]));
}
}  // namespace

const FormatRow kFormatTable[kTypeCount] = {
    {"tif", os("TIFF"), 0, false},  {"rgb", os("TEXT"), 1, true},   {"tga", os("TPIC"), 2, false},
    {"tif", os("TIFF"), 3, false},  {"pct", os("PICT"), 4, false},  {"pcx", os("TEXT"), 5, false},
    {"eps", os("EPSF"), 6, false},  {"gif", os("GIFf"), 7, false},  {"wpg", os("TEXT"), 8, false},
    {"bmp", os("TEXT"), 9, false},  {"rs", os("TEXT"), 10, false},  {"p", os("TEXT"), 11, false},
    {"a", os("TEXT"), 12, false},   {"rle", os("TEXT"), 13, true},  {"fli", os("TEXT"), 14, false},
    {"flc", os("TEXT"), 15, false}, {"bum", os("TEXT"), 16, true},  {"cot", os("TEXT"), 17, true},
    {"jpg", os("TEXT"), 18, false}, {"cit", os("TEXT"), 19, true},  {"tg4", os("TEXT"), 20, true},
    {"fax", os("TEXT"), 21, false}, {"cal", os("TEXT"), 22, false}, {"int", os("TEXT"), 23, true},
    {"rlc", os("TEXT"), 24, false}, {"t29", os("TEXT"), 25, true},  {"avi", os("TEXT"), 26, false},
    {"pma", os("TEXT"), 27, false}, {"png", os("TEXT"), 28, false}, {"tif", os("TEXT"), 29, false},
    {"hmr", os("TEXT"), 30, false}, {"itiff", os("TEXT"), 31, false}, {"c29", os("TEXT"), 32, false},
    {"sid", os("TEXT"), 33, false}, {"ecw", os("TEXT"), 34, false}, {"tif", os("TEXT"), 35, false},
    {"xml", os("TEXT"), 36, false}, {"c30", os("TEXT"), 37, false}, {"c31", os("TEXT"), 38, false},
    {"epx", os("TEXT"), 39, false}, {"bil", os("TEXT"), 40, false}, {"jp2", os("TEXT"), 41, false},
};

const int kExportList[kExportRows] = {22, 14, 15, 11, 12, 19, 17, 1, 13, 18, 5, 4, 28, 6, 10, 2, 3, 29, 9, 26, 8, 39};

bool exportSupport(int type, ExportSupport* out) {
    ExportSupport s;
    switch (type) {
        case 0: case 3: s = {1, 1, 1, 1, 1, 1}; break;
        case 29: case 28: s = {3, 1, 1, 1, 1, 1}; break;
        case 9: s = {1, 1, 1, 1, 1, 0}; break;
        case 4: s = {1, 1, 1, 0, 1, 0}; break;
        case 6: case 18: s = {1, 1, 0, 0, 1, 0}; break;
        case 1: case 26: case 2: case 12: case 39: s = {1, 1, 0, 0, 0, 0}; break;
        case 5: case 8: case 11: s = {3, 0, 1, 1, 1, 0}; break;
        case 10: s = {3, 0, 1, 0, 1, 0}; break;
        case 14: case 15: s = {3, 0, 1, 0, 0, 0}; break;
        case 17: s = {4, 0, 1, 0, 1, 0}; break;
        case 13: case 19: case 22: s = {5, 0, 0, 0, 0, 1}; break;
        default: return false;
    }
    *out = s;
    return true;
}

// The lower- or upper-cased extension of path; false when it does not fit.
static bool foldedExtension(const char* path, char* out, size_t outSize, bool upper) {
    char ext[IMAGELIB_PATH_MAX];
    if (korFile_parseName(nullptr, nullptr, ext, path) != 0) return false;
    size_t n = std::strlen(ext);
    if (n >= outSize) return false;
    for (size_t i = 0; i <= n; ++i)
        out[i] = char(upper ? std::toupper(uint8_t(ext[i])) : std::tolower(uint8_t(ext[i])));
    return true;
}

}  // namespace il::registry

using namespace il::registry;

extern "C" {

int korImage_typeFromFile(const char* path) noexcept {
    {
        il::File f = il::File::open(path, "rb");
        if (!f.ok()) return IMGERR_OPENFAILED;
    }
    for (const ImportRow& row : kImportList) {
        if (!row.detector) continue;
        if (row.detector(path, row.type) == 0) return row.type;
    }
    return IMGERR_UNKNOWNTYPE;
}

int korImage_typeFromExtension(const char* path) noexcept {
    char ext[16];
    if (!path || !foldedExtension(path, ext, sizeof ext, false)) return IMGERR_BADARG;
    for (int t = 1; t < kTypeCount; ++t) {
        const FormatRow& row = kFormatTable[t];
        if (std::strcmp(row.extension, ext) != 0) continue;
        if (!row.needsHeaderCheck) return row.type;
        int resolved = resolveIntergraphType(path, row.type);
        return resolved < 0 ? row.type : resolved;
    }
    return IMGERR_BADARG;
}

int korImage_fileType(int type, const char* path) noexcept {
    if (type >= 0) return type;
    int t = korImage_typeFromFile(path);
    if (t < 0) t = korImage_typeFromExtension(path);
    return t;
}

int korImage_fileNameType(const char* path) noexcept {
    static const struct {
        const char* ext;
        int type;
    } kQuick[] = {{"RGB", 1}, {"TGA", 2}, {"TIF", 3}, {"PCT", 4}, {"GIF", 7}, {"RS", 10}, {"PCX", 5}};
    char ext[16];
    if (!path || !foldedExtension(path, ext, sizeof ext, true)) return 0;
    for (const auto& q : kQuick)
        if (std::strcmp(q.ext, ext) == 0) return q.type;
    return 0;
}

int korImage_getExtension(char* buffer, int type) noexcept {
    if (!buffer) return IMGERR_BADARG;
    if (type < 0 || type >= kTypeCount) {
        std::strcpy(buffer, "*");
        return IMGERR_BADARG;
    }
    std::strcpy(buffer, kFormatTable[type].extension);
    return 0;
}

int korImage_getOSFileType(uint32_t* osType, int type) noexcept {
    if (!osType || type < 0 || type >= kTypeCount) return IMGERR_BADARG;
    *osType = kFormatTable[type].osType;
    return 0;
}

static int listQuery(char* name, int* type, int rowType, int list) {
    char text[IMAGELIB_TEXT_MAX];
    int number = rowType < 0 ? 99 : rowType;
    if (korResource_loadFromStringList(text, nullptr, list, number) != 0) return IMGERR_NORESOURCE;
    if (name) std::strcpy(name, text);
    if (type) *type = rowType;
    return 0;
}

int korImage_getImportFormat(char* name, int* type, int index) noexcept {
    if (index < 0 || index >= kImportRows) return IMGERR_BADARG;
    return listQuery(name, type, kImportList[index].type, IMAGELIB_LIST_IMPORT_NAMES);
}

int korImage_getExportFormat(char* name, int* type, int index) noexcept {
    if (index < 0 || index >= kExportRows) return IMGERR_BADARG;
    return listQuery(name, type, kExportList[index], IMAGELIB_LIST_EXPORT_NAMES);
}

int korImage_getExportSupport(int* defaultMode, int* rgb, int* palette256, int* palette16, int* grey, int* bilevel,
                              int type) noexcept {
    ExportSupport s;
    if (type > 39 || type < 0 || !exportSupport(type, &s)) return IMGERR_BADARG;
    if (defaultMode) *defaultMode = s.defaultMode;
    if (rgb) *rgb = s.rgb;
    if (palette256) *palette256 = s.palette256;
    if (palette16) *palette16 = s.palette16;
    if (grey) *grey = s.grey;
    if (bilevel) *bilevel = s.bilevel;
    return 0;
}

int korImage_alphaExportSupported(int type) noexcept {
    return type == 0 || type == 2 || type == 3 || type == 28 || type == 29 ? 1 : 0;
}

}  // extern "C"
