#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tool {

// A boot image for a Cypress FX3, of a program: checked from its signature to its checksum.
std::vector<uint32_t> readFx3Image(const std::string &path);

} // namespace tool
