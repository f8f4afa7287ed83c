#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vexausb {

// The contents of a file.  Both throw std::ios_base::failure when it cannot be read.
std::string readFileToString(const std::string &path);
std::vector<uint8_t> readFileToBytes(const std::string &path);

} // namespace vexausb
