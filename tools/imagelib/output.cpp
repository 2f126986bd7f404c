#include "output.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "imagelib/imagelib.h"

namespace cli {

namespace {

std::atomic<int> g_signals{0};

extern "C" void onInterrupt(int sig) {
    if (g_signals.fetch_add(1) > 0) {
        // A second signal: the user does not want to wait for the stop.
        ::signal(sig, SIG_DFL);
        ::raise(sig);
    }
}

// Splits a path into its directory (with the trailing slash, empty for the
// current one) and its last component.
void splitPath(const std::string& path, std::string& dir, std::string& name) {
    const size_t slash = path.find_last_of('/');
    dir = slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
    name = slash == std::string::npos ? path : path.substr(slash + 1);
}

// Writers that put their own file name in the file (the title comment of
// EPS) name the temporary file; the title is put right before the file
// moves into place. 0 when there was nothing to change or it changed.
int retitle(const std::string& file, const std::string& written, const std::string& target) {
    std::FILE* in = std::fopen(file.c_str(), "rb");
    if (!in) return IMGERR_WRITEFAILED;
    char head[4096];
    const size_t n = std::fread(head, 1, sizeof head, in);
    const std::string text(head, n);
    const std::string old = "%%Title: " + written + "\r\n";
    const size_t at = text.rfind("%!PS", 0) == 0 ? text.find(old) : std::string::npos;
    if (at == std::string::npos) {
        std::fclose(in);
        return 0;
    }
    const std::string fixed = file + ".title";
    std::FILE* out = std::fopen(fixed.c_str(), "wb");
    bool ok = out != nullptr;
    if (ok) {
        const std::string title = "%%Title: " + target + "\r\n";
        ok = std::fwrite(head, 1, at, out) == at && std::fwrite(title.data(), 1, title.size(), out) == title.size() &&
             std::fwrite(head + at + old.size(), 1, n - at - old.size(), out) == n - at - old.size();
        std::vector<char> block(size_t(1) << 20);
        for (size_t got; ok && (got = std::fread(block.data(), 1, block.size(), in)) > 0;)
            ok = std::fwrite(block.data(), 1, got, out) == got;
        ok = !std::ferror(in) && std::fclose(out) == 0 && ok;
    }
    std::fclose(in);
    if (ok) ok = std::rename(fixed.c_str(), file.c_str()) == 0;
    if (!ok) std::remove(fixed.c_str());
    return ok ? 0 : IMGERR_WRITEFAILED;
}

}  // namespace

// ---- interrupts ----------------------------------------------------------------

void installInterruptHandlers() {
    static std::once_flag once;
    std::call_once(once, [] {
        struct sigaction sa;
        std::memset(&sa, 0, sizeof sa);
        sa.sa_handler = onInterrupt;
        sigemptyset(&sa.sa_mask);
        for (int sig : {SIGINT, SIGTERM, SIGHUP}) ::sigaction(sig, &sa, nullptr);
    });
}

bool interrupted() { return g_signals.load(std::memory_order_relaxed) > 0; }

int readerStatus(int status, const std::string& path) {
    if (status <= 0) return status;
    if (interrupted()) return IMGERR_STOPPED;
    switch (status) {
        case IMGSTAT_STREAM_STOPPED:  // Targa and TIFF: the file would not open
            return ::access(path.c_str(), R_OK) == 0 ? IMGERR_BADFILE : IMGERR_OPENFAILED;
        case IMGSTAT_NO_ROW_BUFFER: return IMGERR_NOMEMORY;
        case 5: return IMGERR_BADFORMAT;  // TIFF rows the streaming reader does not take
        default: return IMGERR_BADFILE;   // header or data the reader refused
    }
}

int writerStatus(int status) {
    if (status <= 0) return status;
    return interrupted() ? IMGERR_STOPPED : IMGERR_WRITEFAILED;
}

// ---- output files ----------------------------------------------------------------

OutputFile::OutputFile(std::string target) : target_(std::move(target)), path_(target_) {}

OutputFile::~OutputFile() { discard(); }

int OutputFile::open() {
    installInterruptHandlers();
    struct stat st;
    if (::stat(target_.c_str(), &st) == 0 && !S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) {
        direct_ = true;  // /dev/null, a pipe: nothing to keep safe
        return 0;
    }
    std::string dir, name;
    splitPath(target_, dir, name);
    if (name.empty()) return IMGERR_OPENFAILED;
    std::string tmpl = dir + ".imagelib-XXXXXX";
    if (!::mkdtemp(tmpl.data())) return IMGERR_OPENFAILED;
    dir_ = tmpl;
    path_ = dir_ + "/" + name;
    return 0;
}

int OutputFile::commit() {
    if (direct_ || dir_.empty()) return 0;
    if (retitle(path_, path_, target_) != 0) return IMGERR_WRITEFAILED;
    std::string dir, name;
    splitPath(target_, dir, name);
    // An existing target keeps its permissions.
    struct stat old;
    if (::stat(target_.c_str(), &old) == 0 && S_ISREG(old.st_mode)) ::chmod(path_.c_str(), old.st_mode & 07777);
    // Companion files first, the file itself last.
    std::vector<std::string> names;
    if (DIR* d = ::opendir(dir_.c_str())) {
        while (dirent* e = ::readdir(d))
            if (std::strcmp(e->d_name, ".") && std::strcmp(e->d_name, "..") && name != e->d_name)
                names.push_back(e->d_name);
        ::closedir(d);
    }
    names.push_back(name);
    for (const std::string& n : names)
        if (std::rename((dir_ + "/" + n).c_str(), (dir + n).c_str()) != 0) return IMGERR_WRITEFAILED;
    ::rmdir(dir_.c_str());
    dir_.clear();
    return 0;
}

void OutputFile::discard() {
    if (dir_.empty()) return;
    if (DIR* d = ::opendir(dir_.c_str())) {
        while (dirent* e = ::readdir(d))
            if (std::strcmp(e->d_name, ".") && std::strcmp(e->d_name, ".."))
                ::unlink((dir_ + "/" + e->d_name).c_str());
        ::closedir(d);
    }
    ::rmdir(dir_.c_str());
    dir_.clear();
}

}  // namespace cli
