#pragma once

#include <cstdint>
#include <functional>

#include "device/abstract_device.h"

namespace vexausb {

using DfuProgress = std::function<void(double)>; // the share that is done; may be empty

/*
 * Downloads an image to a device by USB Device Firmware Upgrade 1.1.  An error state is neither
 * looked for before the first block nor cleared after a failure.
 *
 * Life: the image is read during the call only, and `progress` is called and destroyed during it.
 *
 * Threads: works on the caller's, on which `progress` is called after each block.  The device
 * decides how long it takes: it is polled for as long as it asks for that.
 */
int32_t dfuDownload(AbstractDevice &device, const uint8_t *data, uint64_t size,
                    DfuProgress progress);

} // namespace vexausb
