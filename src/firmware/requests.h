#pragma once

#include <cstdint>

#include "device/abstract_device.h"

namespace vexausb {

// Control requests as the loaders send them, on the caller's thread; they answer the transfer's
// status, and a short transfer is an error.
int32_t vendorWrite(AbstractDevice &device, uint8_t request, uint16_t value, uint16_t index,
                    const uint8_t *data, uint64_t length);
int32_t classWrite(AbstractDevice &device, uint8_t request, uint16_t value, const uint8_t *data,
                   uint64_t length);
int32_t classRead(AbstractDevice &device, uint8_t request, uint8_t *data, uint64_t length);
// Vendor request 0xA0 of the EZ-USB chips, for a 32-bit address in wValue and wIndex.
int32_t memoryWrite(AbstractDevice &device, uint32_t address, const uint8_t *data, uint64_t length);

} // namespace vexausb
