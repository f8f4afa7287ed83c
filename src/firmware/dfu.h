#pragma once

#include <cstdint>
#include <functional>

#include "device/abstract_device.h"

namespace vexausb {

using DfuProgress = std::function<void(double)>; // may be empty

int32_t dfuDownload(AbstractDevice &device, const uint8_t *data, uint64_t size,
                    DfuProgress progress);

} // namespace vexausb
