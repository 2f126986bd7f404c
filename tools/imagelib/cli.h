// The imagelib command-line tool: shared pieces of its commands.
#pragma once

#include <string>
#include <vector>

namespace cli {

// Exit codes: 0 success, 1 failed operation, 2 usage error.
constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

using Args = std::vector<std::string>;

// A command: its name, a one-line synopsis for the help, and its body.
struct Command {
    const char* name;
    const char* synopsis;
    int (*run)(const Args& args);
};

// Prints "imagelib: FILE: text (status N)" to stderr and returns kFailed.
int failure(const std::string& file, int status);
// Prints "imagelib: message" and the hint to use --help; returns kUsage.
int usage(const std::string& message);

// JSON string literal of s.
std::string jsonString(const std::string& s);

int cmdFormats(const Args& args);
int cmdType(const Args& args);
int cmdInfo(const Args& args);
int cmdConvert(const Args& args);
int cmdDemo(const Args& args);
int cmdMovie(const Args& args);
int cmdThumbnail(const Args& args);

// convert --stream IN OUT (type -1: PPM or PAM by OUT's name; mode -1: the
// source's).
int convertStream(const Args& args, const std::string& in, const std::string& out, int type, int mode);
// convert -j N IN... --to DIR: args[inputs] are the inputs, args[batchArgs]
// the batch's own options and their values.
int convertBatch(const Args& args, const std::vector<size_t>& inputs, const std::vector<size_t>& batchArgs,
                 const std::string& toDir, int jobs, int type);

}  // namespace cli
