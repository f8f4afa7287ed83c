#pragma once

#include <cstdint>

#include "device_list.h"
#include "errors.h"

namespace tool {

// The error for a device that could not be opened: no permission, or a driver or another program
// uses it. `status` is the result of the library's call.
Error openFailure(const ListedDevice &device, int32_t status);

} // namespace tool
