// Error diffusion onto a palette: helpers for the conversions and the
// writers of palette formats around the exported korImage_dither* calls.
#pragma once

#include "imagelib/pixels.h"

namespace il {

// Ends the thread's dither job when it goes out of scope, so that every
// return path of a writer cleans up (korImage_ditherCleanup is harmless
// when no job runs).
class DitherJob {
public:
    DitherJob() = default;
    ~DitherJob() { korImage_ditherCleanup(); }
    DitherJob(const DitherJob&) = delete;
    DitherJob& operator=(const DitherJob&) = delete;
};

// True while the calling thread has an initialised dither job.
bool ditherActive() noexcept;

}  // namespace il
