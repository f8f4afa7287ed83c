#pragma once

#include <cstdint>

#include "device/abstract_device.h"

namespace vexausb {

/*
 * Loads a Cypress EZ-USB FX2.  The chip by itself writes the memory below 0x3000 while its 8051 is
 * held in reset.  The memory from 0x3000 on is written by a small loader program on the 8051.  So a
 * load first writes the loader to the lower memory, then the upper memory through the loader, and
 * last the lower memory, over the loader.
 *
 * A load that fails leaves the chip held in reset if its lower memory is incomplete, otherwise
 * running the loader.
 *
 * Threads: all functions work on the caller's thread and keep nothing; the image is read during the
 * call only.
 */
int32_t fx2Reset(AbstractDevice &device);
// `image` is a stream of Intel HEX records as raw bytes; throws what parseHexBinary() throws.
int32_t fx2LoadFirmware(AbstractDevice &device, const uint8_t *image, uint64_t size);
// Asks the program on the chip to leave the bus and come back as another device.
int32_t fx2Renumerate(AbstractDevice &device);

} // namespace vexausb
