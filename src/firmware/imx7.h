#pragma once

#include <cstdint>
#include <span>

#include "device/abstract_device.h"

namespace vexausb {

// False on any failure.
bool imx7LoadSpl(AbstractDevice &device, std::span<const uint8_t> image);
bool imx7LoadUboot(AbstractDevice &device, std::span<const uint8_t> image);

} // namespace vexausb
