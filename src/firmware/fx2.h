#pragma once

#include <cstdint>

#include "device/abstract_device.h"

namespace vexausb {

int32_t fx2Reset(AbstractDevice &device);
// `image` is a stream of Intel HEX records as raw bytes; throws what parseHexBinary() throws.
int32_t fx2LoadFirmware(AbstractDevice &device, const uint8_t *image, uint64_t size);
int32_t fx2Renumerate(AbstractDevice &device);

} // namespace vexausb
