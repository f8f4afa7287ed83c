#pragma once

#include <cstdint>

#include "device/abstract_device.h"

namespace vexausb {

// `length` counts the 32-bit words of the image, of which there is at least one.
int32_t fx3LoadFirmware(AbstractDevice &device, const uint32_t *image, uint64_t length);

} // namespace vexausb
