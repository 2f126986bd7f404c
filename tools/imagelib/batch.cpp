// imagelib convert -j N IN... --to DIR: every input converted on a pool of
// threads, one file a task, each exactly as one convert command would.
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "cli.h"
#include "image.h"

namespace cli {

int convertBatch(const Args& args, const std::vector<size_t>& inputs, const std::vector<size_t>& batchArgs,
                 const std::string& toDir, int jobs, int type) {
    if (toDir.empty()) return usage("convert: -j takes its inputs with --to DIR");
    if (inputs.empty()) return usage("convert: --to DIR takes one or more IN");
    if (type < 0) return usage("convert: --to DIR takes --type T for the outputs");
    if (jobs < 1) jobs = 1;

    char ext[16];
    korImage_getExtension(ext, type);
    const std::string dir = toDir.back() == '/' ? toDir : toDir + "/";
    // The arguments each file is converted with: everything but the inputs
    // and the batch's own options.
    Args common;
    for (size_t i = 0; i < args.size(); ++i) {
        bool skip = false;
        for (size_t k : inputs) skip |= k == i;
        for (size_t k : batchArgs) skip |= k == i;
        if (!skip) common.push_back(args[i]);
    }
    // DIR/<name without extension>.<type's extension>; two inputs that
    // would write one output are a usage error, found before any work.
    std::vector<std::string> in, out;
    std::map<std::string, std::string> taken;
    for (size_t k : inputs) {
        const std::string& path = args[k];
        const size_t slash = path.find_last_of('/');
        std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
        const size_t dot = name.find_last_of('.');
        if (dot != std::string::npos && dot > 0) name.resize(dot);
        const std::string target = dir + name + "." + ext;
        auto [at, fresh] = taken.emplace(target, path);
        if (!fresh) return usage("convert: " + at->second + " and " + path + " would both write " + target);
        in.push_back(path);
        out.push_back(target);
    }
    struct stat st;
    if (::stat(toDir.c_str(), &st) != 0) ::mkdir(toDir.c_str(), 0777);
    if (::stat(toDir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return failure(toDir, IMGERR_OPENFAILED);

    std::atomic<size_t> next{0};
    std::atomic<int> failed{0};
    auto work = [&] {
        showProgress(false);
        for (size_t i; (i = next.fetch_add(1)) < in.size();) {
            Args one = common;
            one.push_back(in[i]);
            one.push_back(out[i]);
            if (cmdConvert(one) != kOk) failed.fetch_add(1);
        }
    };
    progressFunction();  // the interrupt handlers, before the threads start
    const int threads = int(std::min<size_t>(size_t(jobs), in.size()));
    std::vector<std::thread> pool;
    pool.reserve(size_t(threads));
    for (int t = 1; t < threads; ++t) {
        try {
            pool.emplace_back(work);
        } catch (const std::system_error&) {
            break;  // no more threads: the ones there are do the work
        }
    }
    work();
    for (auto& t : pool) t.join();
    return failed.load() ? kFailed : kOk;
}

}  // namespace cli
