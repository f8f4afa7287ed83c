#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace vexausb {

// Where an image is to be written and entered; nothing when its header is wrong.
std::optional<uint32_t> imx7SplAddress(std::span<const uint8_t> image);
std::optional<uint32_t> imx7UbootAddress(std::span<const uint8_t> image);

} // namespace vexausb
