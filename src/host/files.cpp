// File names on POSIX paths: split, build, and find along a search path.
#include <sys/stat.h>

#include <cstring>
#include <string>

#include "host/host_internal.h"

namespace {

bool isRegularFile(const std::string& p) {
    struct stat st;
    return ::stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool copyOut(char* out, const char* src, size_t n) {
    if (!out) return true;
    if (n >= IMAGELIB_PATH_MAX) return false;
    std::memcpy(out, src, n);
    out[n] = 0;
    return true;
}

}  // namespace

extern "C" {

int korFile_parseName(char* dir, char* name, char* ext, const char* path) noexcept {
    if (!path) return IMGERR_BADARG;
    size_t len = std::strlen(path);
    if (len >= IMAGELIB_PATH_MAX) return IMGERR_BADARG;
    const char* slash = std::strrchr(path, '/');
    const char* base = slash ? slash + 1 : path;
    size_t baseLen = len - size_t(base - path);
    // The extension starts after the last dot of the base name, unless that
    // dot is the name's first character (".profile" has no extension).
    const char* dot = std::strrchr(base, '.');
    if (dot == base) dot = nullptr;
    size_t stemLen = dot ? size_t(dot - base) : baseLen;
    copyOut(dir, path, size_t(base - path));
    copyOut(name, base, stemLen);
    if (dot)
        copyOut(ext, dot + 1, baseLen - stemLen - 1);
    else
        copyOut(ext, "", 0);
    return 0;
}

int korFile_buildName(char* out, const char* dir, const char* name, const char* ext) noexcept {
    if (!out) return IMGERR_BADARG;
    std::string s;
    if (dir && *dir) {
        s = dir;
        if (s.back() != '/') s += '/';
    }
    if (name) s += name;
    if (ext && *ext) {
        s += '.';
        s += ext;
    }
    if (!copyOut(out, s.c_str(), s.size())) {
        out[0] = 0;
        return IMGERR_BADARG;
    }
    return 0;
}

int korFile_find(char* result, const char* fileName, const char* pathVar, const char* defaultPath) noexcept {
    if (!result || !fileName || !*fileName) return IMGERR_BADARG;
    if (std::strchr(fileName, '/')) {
        if (!isRegularFile(fileName)) return IMGERR_NOTFOUND;
        return copyOut(result, fileName, std::strlen(fileName)) ? 0 : IMGERR_BADARG;
    }
    std::string search;
    char value[IMAGELIB_PATH_MAX];
    if (pathVar && korSystem_getCfgVar(value, pathVar, sizeof value) == 0)
        search = value;
    else if (defaultPath)
        search = defaultPath;
    size_t at = 0;
    while (at <= search.size()) {
        size_t end = search.find(':', at);
        if (end == std::string::npos) end = search.size();
        std::string dir = search.substr(at, end - at);
        at = end + 1;
        if (!dir.empty()) {
            std::string candidate = dir + (dir.back() == '/' ? "" : "/") + fileName;
            if (isRegularFile(candidate) && copyOut(result, candidate.c_str(), candidate.size())) return 0;
        }
        if (end == search.size()) break;
    }
    return IMGERR_NOTFOUND;
}

}  // extern "C"
