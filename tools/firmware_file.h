#pragma once

#include <cstddef>
#include <string>

#include "bytes.h"

namespace tool {

// Larger than any firmware for these chips, and small enough to be held in memory.
inline constexpr size_t kMostFirmware = 128U << 20;

// Throws the error for a file with wrong contents.
[[noreturn]] void throwWrongFile(const std::string &path, const std::string &what,
                                 const std::string &hint);
[[noreturn]] void throwTooLarge(const std::string &path);

// Reads a whole file, which must not be empty. A file that is too large is refused; reading an
// endless one stops at the limit.
Bytes readFirmware(const std::string &path);

} // namespace tool
