// imagelib formats / imagelib type
#include <cstdio>
#include <string>

#include "cli.h"
#include "imagelib/imagelib.h"

namespace cli {

namespace {

struct Row {
    int type;
    std::string ext, osType, name;
    bool readable, writable;
    int support[6];  // defaultMode, rgb, palette256, palette16, grey, bilevel; -1 when refused
    bool alpha;
};

Row describe(int type) {
    Row r{};
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

}  // namespace

int cmdFormats(const Args& args) {
    bool json = false;
    for (const auto& a : args) {
        if (a == "--json")
            json = true;
        else
            return usage("formats: unknown argument '" + a + "'");
    }
    static const char* kKeys[6] = {"defaultMode", "rgb", "palette256", "palette16", "grey", "bilevel"};
    if (json) std::printf("[\n");
    else
        std::printf("%-4s %-6s %-5s %-4s %-5s %-18s %-5s %s\n", "type", "ext", "os", "read", "write",
                    "export (d r 256 16 g b)", "alpha", "name");
    for (int type = 0; type < IMAGELIB_FILETYPE_COUNT; ++type) {
        Row r = describe(type);
        if (json) {
            std::printf("  {\"type\": %d, \"extension\": %s, \"osType\": %s, \"readable\": %s, \"writable\": %s, ",
                        r.type, jsonString(r.ext).c_str(), jsonString(r.osType).c_str(),
                        r.readable ? "true" : "false", r.writable ? "true" : "false");
            if (r.support[0] < 0) {
                std::printf("\"exportSupport\": null, ");
            } else {
                std::printf("\"exportSupport\": {");
                for (int i = 0; i < 6; ++i) std::printf("%s\"%s\": %d", i ? ", " : "", kKeys[i], r.support[i]);
                std::printf("}, ");
            }
            std::printf("\"alpha\": %s, \"name\": %s}%s\n", r.alpha ? "true" : "false", jsonString(r.name).c_str(),
                        type + 1 < IMAGELIB_FILETYPE_COUNT ? "," : "");
        } else {
            std::string sup = "-";
            if (r.support[0] >= 0) {
                sup.clear();
                for (int i = 0; i < 6; ++i) sup += std::to_string(r.support[i]) + (i < 5 ? " " : "");
            }
            std::printf("%-4d %-6s %-5s %-4s %-5s %-23s %-5s %s\n", r.type, r.ext.c_str(), r.osType.c_str(),
                        r.readable ? "yes" : "-", r.writable ? "yes" : "-", sup.c_str(), r.alpha ? "yes" : "-",
                        r.name.c_str());
        }
    }
    if (json) std::printf("]\n");
    return kOk;
}

int cmdType(const Args& args) {
    if (args.size() != 1) return usage("type: expected one FILE");
    const std::string& file = args[0];
    int type = korImage_fileType(-1, file.c_str());
    if (type < 0) return failure(file, type);
    char ext[16];
    korImage_getExtension(ext, type);
    std::printf("%d %s\n", type, ext);
    return kOk;
}

}  // namespace cli
