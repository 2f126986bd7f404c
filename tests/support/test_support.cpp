#include "test_support.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace fs = std::filesystem;

namespace iltest {

TempDir::TempDir() {
    fs::create_directories(IMAGELIB_TEST_TMPDIR);
    std::string templ = std::string(IMAGELIB_TEST_TMPDIR) + "/t.XXXXXX";
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back(0);
    if (::mkdtemp(buf.data())) path_ = buf.data();
}

TempDir::~TempDir() {
    std::error_code ec;
    if (!path_.empty()) fs::remove_all(path_, ec);
}

bool writeFile(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream f(path, std::ios::binary);
    f.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    return bool(f);
}

bool writeFile(const std::string& path, const std::string& text) {
    return writeFile(path, std::vector<uint8_t>(text.begin(), text.end()));
}

std::vector<uint8_t> readFile(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

std::string corpusDir() {
    const char* env = std::getenv("IMAGELIB_CORPUS");
    std::string dir = env ? env : IMAGELIB_CORPUS_DIR;
    return fs::is_directory(dir) ? dir : std::string();
}

std::string corpusFile(const std::string& relative) {
    std::string dir = corpusDir();
    if (dir.empty()) return {};
    std::string p = dir + "/" + relative;
    return fs::exists(p) ? p : std::string();
}

int run(const std::string& command, std::string* out) {
    FILE* p = ::popen(command.c_str(), "r");
    if (!p) return -1;
    char buf[4096];
    size_t n;
    std::string text;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) text.append(buf, n);
    int st = ::pclose(p);
    if (out) *out = text;
    if (st == -1 || !WIFEXITED(st)) return -1;
    return WEXITSTATUS(st);
}

std::string cliPath() { return IMAGELIB_CLI_PATH; }

bool haveProgram(const std::string& name) {
    return run("command -v " + name + " >/dev/null 2>&1") == 0;
}

}  // namespace iltest
