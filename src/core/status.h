#pragma once

#include <cstdint>

namespace vexausb {

// The text of a status code; empty for a value that is not a status code.
const char *statusText(int32_t status);

// The status code for the result of a libusb function.
int32_t statusFromLibusbError(int libusbResult);

} // namespace vexausb
