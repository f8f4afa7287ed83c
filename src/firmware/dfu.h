#pragma once

#include <cstdint>
#include <functional>

#include "device/abstract_device.h"

namespace vexausb {

using DfuProgress = std::function<void(double)>; // gets the part that is done, 0 to 1; may be empty

/*
 * Downloads an image to a device by USB Device Firmware Upgrade 1.1.  It does not check for an
 * error state before the first block, and does not clear one after a failure.
 *
 * Life: the image is read during the call only; `progress` is called and destroyed during it.
 *
 * Threads: works on the caller's thread, and calls `progress` there after each block.  How long it
 * takes is up to the device, which is polled until it is ready for the next block.
 */
int32_t dfuDownload(AbstractDevice &device, const uint8_t *data, uint64_t size,
                    DfuProgress progress);

} // namespace vexausb
