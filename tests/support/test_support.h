// Helpers shared by the test executables: temporary files, whole-file
// reads and writes, the sample corpus, running the CLI.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace iltest {

// A fresh directory under the build tree, removed with its contents when
// the object goes away.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

bool writeFile(const std::string& path, const std::vector<uint8_t>& bytes);
bool writeFile(const std::string& path, const std::string& text);
std::vector<uint8_t> readFile(const std::string& path);

// Path of a file of the sample corpus (../shared/corpus/...), or "" when the
// corpus is absent (tests then skip).
std::string corpusFile(const std::string& relative);
std::string corpusDir();

// Runs a shell command; its exit status (-1 when it could not run) and,
// when out is given, its standard output.
int run(const std::string& command, std::string* out = nullptr);

// Path of the built command-line tool.
std::string cliPath();

// True when an external program is on the PATH.
bool haveProgram(const std::string& name);

}  // namespace iltest
