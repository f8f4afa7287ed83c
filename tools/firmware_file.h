#pragma once

#include <cstddef>
#include <string>

#include "bytes.h"

namespace tool {

// More than any firmware for these chips, and little enough to be held in memory.
inline constexpr size_t kMostFirmware = 128U << 20;

// Something is wrong with what a file holds.
[[noreturn]] void throwWrongFile(const std::string &path, const std::string &what,
                                 const std::string &hint);
[[noreturn]] void throwTooLarge(const std::string &path);

// All of a file, which must not be empty; one that is too large is not read, one that does not end
// only so far.
Bytes readFirmware(const std::string &path);

} // namespace tool
