#pragma once

#include <cstdint>
#include <vector>

namespace tool {

using Bytes = std::vector<uint8_t>;

} // namespace tool
