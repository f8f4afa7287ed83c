#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "device/abstract_device.h"

namespace vexausb {

// False on any failure.
bool imx7LoadSpl(AbstractDevice &device, std::span<const uint8_t> image);
bool imx7LoadUboot(AbstractDevice &device, std::span<const uint8_t> image);

// Where an image is to be written and entered; nothing when its header is wrong.
std::optional<uint32_t> imx7SplAddress(std::span<const uint8_t> image);
std::optional<uint32_t> imx7UbootAddress(std::span<const uint8_t> image);

} // namespace vexausb
