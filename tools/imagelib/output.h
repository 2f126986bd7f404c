// Output files that appear only when complete, the interrupt that stops
// the CLI's work cleanly, and the texts of the library's positive reader
// results.
#pragma once

#include <string>

namespace cli {

// A file written under a temporary name beside its final place and renamed
// there only on success. The writer is given path(): a file of the same
// name in a fresh hidden directory next to the target, so that writers that
// derive other names from it (the plane files of A rasters) or type it from
// its extension see what they would see at the target. Everything written
// into that directory is moved beside the target by commit(); anything not
// committed is removed by the destructor, so that a failed or stopped
// conversion leaves the target as it was.
class OutputFile {
public:
    explicit OutputFile(std::string target);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // Makes the temporary directory: 0, or IMGERR_OPENFAILED when the
    // target's directory cannot take it.
    int open();
    // The name to write.
    const std::string& path() const { return path_; }
    // Moves the written files into place: 0, or IMGERR_WRITEFAILED.
    int commit();

private:
    void discard();

    std::string target_;
    std::string dir_;   // the temporary directory (empty when writing in place)
    std::string path_;
    bool direct_ = false;  // a device or pipe: written where it is
};

// Installs the handlers of SIGINT, SIGTERM and SIGHUP (once): the first
// signal asks every running operation to stop through the CLI's stop
// function; a second one ends the process at once.
void installInterruptHandlers();
// True once an interrupt has been received.
bool interrupted();

// The status the CLI reports for a reader's result: negative ones as they
// are, positive ones (the codes some readers keep for their own failures)
// as the failure they stand for; IMGERR_STOPPED only when the CLI itself
// asked to stop.
int readerStatus(int status, const std::string& path);
// The same for a writer: a positive result is a short write, or a stop.
int writerStatus(int status);

}  // namespace cli
