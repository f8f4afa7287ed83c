#pragma once

#include <cstdint>

#include "device/abstract_device.h"

namespace vexausb {

/*
 * Loads a Cypress FX3.  Its boot loader has one vendor request, which writes memory, or jumps if
 * there are no data.  The checksum is known only after the last section was written; if it is
 * wrong, the program is not started.
 *
 * `length` counts the 32-bit words of the image; there is at least one.
 *
 * Threads: works on the caller's thread and keeps nothing; the image is read during the call only.
 */
int32_t fx3LoadFirmware(AbstractDevice &device, const uint32_t *image, uint64_t length);

} // namespace vexausb
