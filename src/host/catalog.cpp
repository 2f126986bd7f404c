// The message catalogue "imagemsg.rsc" and library start-up.
//
// File format (UTF-8 text, one item a line):
//   # comment                 blank lines and lines starting with '#' are skipped
//   [list -7502]              starts a message list; its number is a signed integer
//   28 PNG (Portable ...)     string number, white space, then the text to the end
//                             of the line (trailing white space dropped); the
//                             escapes \n, \t and \\ stand for newline, tab and
//                             backslash
// A string before any list, an unreadable number, a number given twice in a
// list, an unknown escape or a text longer than IMAGELIB_TEXT_MAX - 1 bytes
// makes the whole file malformed; the library then runs without messages.
#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "host/host_internal.h"

namespace il::host {

namespace {

bool parseInt(const std::string& s, size_t& pos, int& out) {
    size_t start = pos;
    if (pos < s.size() && (s[pos] == '-' || s[pos] == '+')) ++pos;
    size_t digits = pos;
    long long v = 0;
    while (pos < s.size() && s[pos] >= '0' && s[pos] <= '9') {
        v = v * 10 + (s[pos] - '0');
        if (v > 0x7fffffffLL) return false;
        ++pos;
    }
    if (pos == digits) return false;
    out = int(s[start] == '-' ? -v : v);
    return true;
}

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r'; }

// The catalogue in use; start-up loads it once, on first use.
std::mutex g_mutex;
Catalog* g_catalog = nullptr;
bool g_started = false;


// Reads and parses a catalogue file; null when it cannot be read or is malformed.
Catalog* readCatalogFile(const std::string& path) {
    FILE* f = path.empty() ? nullptr : std::fopen(path.c_str(), "rb");
    if (!f) return nullptr;
    std::string text;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
    std::fclose(f);
    auto* c = new (std::nothrow) Catalog;
    if (!c) return nullptr;
    if (!parseCatalog(text, *c, nullptr)) {
        delete c;
        return nullptr;
    }
    c->path = path;
    return c;
}

// Start-up: once, on first use of a message. Caller holds g_mutex.
void startUp() {
    if (g_started) return;
    g_started = true;
    g_catalog = readCatalogFile(findCatalog());
}

}  // namespace

bool parseCatalog(const std::string& text, Catalog& out, std::string* why) {
    auto fail = [&](int line, const char* msg) {
        if (why) *why = "line " + std::to_string(line) + ": " + msg;
        out.strings.clear();
        return false;
    };
    bool haveList = false;
    int list = 0;
    int lineNo = 0;
    size_t at = 0;
    while (at <= text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(at, end - at);
        at = end + 1;
        ++lineNo;
        size_t p = 0;
        while (p < line.size() && isSpace(line[p])) ++p;
        if (p == line.size() || line[p] == '#') {
            if (end == text.size()) break;
            continue;
        }
        if (line[p] == '[') {
            const char kw[] = "[list";
            if (line.compare(p, 5, kw) != 0) return fail(lineNo, "expected [list N]");
            p += 5;
            while (p < line.size() && isSpace(line[p])) ++p;
            if (!parseInt(line, p, list)) return fail(lineNo, "bad list number");
            while (p < line.size() && isSpace(line[p])) ++p;
            if (p >= line.size() || line[p] != ']') return fail(lineNo, "expected ]");
            ++p;
            while (p < line.size() && isSpace(line[p])) ++p;
            if (p != line.size()) return fail(lineNo, "text after ]");
            haveList = true;
        } else {
            int number;
            if (!parseInt(line, p, number)) return fail(lineNo, "bad string number");
            if (!haveList) return fail(lineNo, "string before any list");
            if (p < line.size() && !isSpace(line[p])) return fail(lineNo, "no space after the number");
            while (p < line.size() && isSpace(line[p])) ++p;
            size_t q = line.size();
            while (q > p && isSpace(line[q - 1])) --q;
            std::string value;
            for (size_t i = p; i < q; ++i) {
                char c = line[i];
                if (c != '\\') {
                    value += c;
                    continue;
                }
                if (++i >= q) return fail(lineNo, "backslash at the end");
                switch (line[i]) {
                    case 'n': value += '\n'; break;
                    case 't': value += '\t'; break;
                    case '\\': value += '\\'; break;
                    default: return fail(lineNo, "unknown escape");
                }
            }
            if (value.size() >= IMAGELIB_TEXT_MAX) return fail(lineNo, "text too long");
            if (!out.strings.emplace(std::make_pair(list, number), std::move(value)).second)
                return fail(lineNo, "string number given twice");
        }
        if (end == text.size()) break;
    }
    return true;
}

// The installed data directories: next to the installed library (or the
// program it is linked into) as lib/../share/imagelib, so that an installed
// tree can be moved; then the prefix it was configured for.
static std::vector<std::string> installedDataDirs() {
    std::vector<std::string> dirs;
    Dl_info info;
    if (dladdr(reinterpret_cast<void*>(&findCatalog), &info) && info.dli_fname) {
        char real[PATH_MAX];
        if (::realpath(info.dli_fname, real)) {
            std::string dir = real;
            dir.erase(dir.find_last_of('/') + 1);
            dirs.push_back(dir + "../share/imagelib");
            dirs.push_back(dir + "../../share/imagelib");  // lib/<multiarch>/
        }
    }
    dirs.push_back(IMAGELIB_DATADIR);
    return dirs;
}

std::string findCatalog() {
    char found[IMAGELIB_PATH_MAX];
    if (korFile_find(found, "imagemsg.rsc", "KV_KOR", nullptr) == 0) return found;
    std::vector<std::string> dirs = installedDataDirs();
    dirs.push_back(IMAGELIB_SOURCE_DATADIR);  // the build tree
    for (const std::string& dir : dirs) {
        std::string p = dir + "/imagemsg.rsc";
        char real[PATH_MAX];
        if (::realpath(p.c_str(), real) && korFile_find(found, real, nullptr, nullptr) == 0) return real;
    }
    return {};
}

bool loadCatalogFrom(const std::string& path) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_started = true;
    delete g_catalog;
    g_catalog = readCatalogFile(path);
    return g_catalog != nullptr;
}

}  // namespace il::host

extern "C" {

int korResource_loadFromStringList(char* buffer, void*, int list, int number) noexcept {
    if (!buffer) return 1;
    const ImageHost& h = il::host::active();
    if (h.loadString) return h.loadString(buffer, IMAGELIB_TEXT_MAX, list, number);
    std::lock_guard<std::mutex> lock(il::host::g_mutex);
    il::host::startUp();
    if (!il::host::g_catalog) return 1;
    auto it = il::host::g_catalog->strings.find({list, number});
    if (it == il::host::g_catalog->strings.end()) return 1;
    std::memcpy(buffer, it->second.c_str(), it->second.size() + 1);
    return 0;
}

const char* imagelib_catalogPath(void) noexcept {
    std::lock_guard<std::mutex> lock(il::host::g_mutex);
    il::host::startUp();
    return il::host::g_catalog ? il::host::g_catalog->path.c_str() : nullptr;
}

}  // extern "C"
