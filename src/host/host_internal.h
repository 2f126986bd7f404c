// The active host services, shared by the host layer's sources.
#pragma once

#include <map>
#include <string>
#include <utility>

#include "imagelib/host.h"

namespace il::host {

// The services in use: the defaults with whatever imagelib_setHost replaced.
const ImageHost& active();

// The standalone program loader (dlopen and dlsym), the defaults of the
// program members of ImageHost.
int defaultProgramCount(const char* name);
int defaultLoadProgram(const char* path, const char* argument);
int defaultUnloadProgram(const char* name);
int defaultProgramValue(void** value, const char* valueName, const char* program);

// The catalogue seam for tests and start-up: load the catalogue from a file
// (replacing the one in use); an empty path or a file that cannot be read
// or parsed leaves the library without messages. Returns true when loaded.
bool loadCatalogFrom(const std::string& path);

// Where start-up looks for the catalogue, in order: every directory of
// KV_KOR, the installed data directory, the source tree's data directory.
std::string findCatalog();

// A parsed catalogue: strings by (list, number).
struct Catalog {
    std::string path;
    std::map<std::pair<int, int>, std::string> strings;
};

// Parses catalogue text; false (and a reason) when it is malformed.
bool parseCatalog(const std::string& text, Catalog& out, std::string* why);

}  // namespace il::host
