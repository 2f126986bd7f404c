// Host programs: the standalone loader opens a program's shared object
// with dlopen and finds its named values with dlsym. Programs are known by
// the base name of their path; the table of loaded programs is process-wide
// (the dynamic loader's own state is), guarded by a mutex.
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "host/host_internal.h"

#if __has_include(<dlfcn.h>)
#include <dlfcn.h>
#define IMAGELIB_HAVE_DLOPEN 1
#endif

namespace {

#if IMAGELIB_HAVE_DLOPEN
std::mutex g_programsMutex;

std::map<std::string, void*>& programs() {
    static std::map<std::string, void*> table;
    return table;
}
#endif

const ImageHost& host() { return il::host::active(); }

}  // namespace

namespace il::host {

#if IMAGELIB_HAVE_DLOPEN

int defaultProgramCount(const char* name) {
    if (!name) return 0;
    std::lock_guard<std::mutex> lock(g_programsMutex);
    return programs().count(name) ? 1 : 0;
}

// The argument is for programs that the host starts; a shared object has no
// use for it.
int defaultLoadProgram(const char* path, const char* argument) {
    (void)argument;
    char name[IMAGELIB_PATH_MAX];
    if (!path || korFile_parseName(nullptr, name, nullptr, path) != 0 || !*name) return IMGERR_OPENFAILED;
    // A name without a directory is the file in the current directory, not
    // a library along the loader's search path.
    std::string file = std::strchr(path, '/') ? std::string(path) : "./" + std::string(path);
    void* handle = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) return IMGERR_OPENFAILED;
    std::lock_guard<std::mutex> lock(g_programsMutex);
    auto [at, added] = programs().emplace(name, handle);
    if (!added) ::dlclose(handle);  // loaded meanwhile: keep one reference
    return 0;
}

int defaultUnloadProgram(const char* name) {
    if (!name) return IMGERR_NOTFOUND;
    std::lock_guard<std::mutex> lock(g_programsMutex);
    auto it = programs().find(name);
    if (it == programs().end()) return IMGERR_NOTFOUND;
    ::dlclose(it->second);
    programs().erase(it);
    return 0;
}

int defaultProgramValue(void** value, const char* valueName, const char* program) {
    if (!value || !valueName || !program) return IMGERR_BADARG;
    std::lock_guard<std::mutex> lock(g_programsMutex);
    auto it = programs().find(program);
    if (it == programs().end()) return IMGERR_NOTFOUND;
    void* v = ::dlsym(it->second, valueName);
    if (!v) return IMGERR_NOTFOUND;
    *value = v;
    return 0;
}

#else  // no dynamic loader: no programs can be loaded

int defaultProgramCount(const char*) { return 0; }
int defaultLoadProgram(const char*, const char*) { return IMGERR_UNSUPPORTEDTYPE; }
int defaultUnloadProgram(const char*) { return IMGERR_NOTFOUND; }
int defaultProgramValue(void**, const char*, const char*) { return IMGERR_NOTFOUND; }

#endif

}  // namespace il::host

extern "C" {

int korSystem_getTaskStatistics(const char* name) noexcept { return host().programCount(name); }

int korSystem_loadKorProgram(const char* path, const char* argument) noexcept {
    return host().loadProgram(path, argument);
}

int korSystem_unloadKorProgram(const char* name) noexcept { return host().unloadProgram(name); }

int korCExpression_getValue(void** value, const char* expression, const char* program) noexcept {
    return host().programValue(value, expression, program);
}

}  // extern "C"
