#pragma once

#include <cstdint>

#include "device_list.h"
#include "errors.h"

namespace tool {

// Why a device could not be opened: no permission, or someone else has it.  `status` is what the
// library said.
Error openFailure(const ListedDevice &device, int32_t status);

} // namespace tool
