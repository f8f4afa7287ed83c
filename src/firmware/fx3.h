#pragma once

#include <cstdint>

#include "device/abstract_device.h"

namespace vexausb {

/*
 * Loads a Cypress FX3, whose boot loader writes memory and jumps, both by one vendor request.  The
 * checksum can be tested only once every section was written; a wrong one leaves the program
 * unstarted.
 *
 * `length` counts the 32-bit words of the image, of which there is at least one.
 *
 * Threads: works on the caller's and holds nothing; the image is read during the call only.
 */
int32_t fx3LoadFirmware(AbstractDevice &device, const uint32_t *image, uint64_t length);

} // namespace vexausb
