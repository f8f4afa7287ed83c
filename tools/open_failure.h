#pragma once

#include <cstdint>

#include "errors.h"

namespace tool {

// Why a device with these identifiers could not be opened, as its node tells: no permission, or
// another program has it.  `status` is what the library said.
Error openFailure(uint16_t vendor, uint16_t product, int32_t status);

} // namespace tool
