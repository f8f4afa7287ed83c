#pragma once

#include <cstdint>

#include "device/abstract_device.h"

namespace vexausb {

// The control requests that loaders send, on the caller's thread.  They return the status of the
// transfer; a short transfer is an error.
int32_t vendorWrite(AbstractDevice &device, uint8_t request, uint16_t value, uint16_t index,
                    const uint8_t *data, uint64_t length);
int32_t classWrite(AbstractDevice &device, uint8_t request, uint16_t value, const uint8_t *data,
                   uint64_t length);
int32_t classRead(AbstractDevice &device, uint8_t request, uint8_t *data, uint64_t length);
// Vendor request 0xA0 of the EZ-USB chips.  wValue and wIndex carry the 32-bit address.
int32_t memoryWrite(AbstractDevice &device, uint32_t address, const uint8_t *data, uint64_t length);

} // namespace vexausb
