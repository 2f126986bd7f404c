// Writes fuzz input to a per-process temporary file, for readers that take
// a path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace ilfuzz {
// Path of a temporary file holding data, with the given extension (no dot);
// the same path is reused by every run of the process.
const std::string& writeTemp(const uint8_t* data, size_t size, const char* extension);
}  // namespace ilfuzz
