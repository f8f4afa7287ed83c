#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tool {

// Reads a program's boot image for a Cypress FX3, and checks all of it.
std::vector<uint32_t> readFx3Image(const std::string &path);

} // namespace tool
