#pragma once

#include <cstdint>

#include "device/abstract_device.h"

namespace vexausb {

/*
 * Loads a Cypress EZ-USB FX2.  The chip itself writes memory below 0x3000 while its 8051 is held in
 * reset; memory above is written by a small loader program on the 8051.  So a load goes: loader
 * into the lower memory, upper memory through the loader, then the lower memory, where the loader
 * was.
 *
 * A load that fails leaves the chip as it is then: held in reset while its lower memory is
 * incomplete, else running the loader.
 *
 * Threads: all work on the caller's and hold nothing; the image is read during the call only.
 */
int32_t fx2Reset(AbstractDevice &device);
// `image` is a stream of Intel HEX records as raw bytes; throws what parseHexBinary() throws.
int32_t fx2LoadFirmware(AbstractDevice &device, const uint8_t *image, uint64_t size);
// Tells the program on the chip to come back as another device, where it knows how.
int32_t fx2Renumerate(AbstractDevice &device);

} // namespace vexausb
