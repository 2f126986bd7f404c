// imagelib formats / imagelib type
#include <cstdio>
#include <string>

#include "cli.h"
#include "format_table.h"
#include "imagelib/imagelib.h"

namespace cli {

int cmdFormats(const Args& args) {
    bool json = false;
    for (const auto& a : args) {
        if (a == "--json")
            json = true;
        else
            return usage("formats: unknown argument '" + a + "'");
    }
    if (json) std::printf("[\n");
    else
        std::printf("%-4s %-6s %-5s %-4s %-5s %-18s %-5s %s\n", "type", "ext", "os", "read", "write",
                    "export (d r 256 16 g b)", "alpha", "name");
    for (int type = 0; type < IMAGELIB_FILETYPE_COUNT; ++type) {
        const FormatRow r = describeFormat(type);
        if (json) {
            std::printf("  {\"type\": %d, \"extension\": %s, \"osType\": %s, \"readable\": %s, \"writable\": %s, ",
                        r.type, jsonString(r.ext).c_str(), jsonString(r.osType).c_str(),
                        r.readable ? "true" : "false", r.writable ? "true" : "false");
            if (r.support[0] < 0) {
                std::printf("\"exportSupport\": null, ");
            } else {
                std::printf("\"exportSupport\": {");
                for (int i = 0; i < 6; ++i) std::printf("%s\"%s\": %d", i ? ", " : "", kExportSupportKeys[i], r.support[i]);
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
