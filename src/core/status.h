#pragma once

#include <cstdint>

namespace vexausb {

// Text of a status code; the empty text for a value that is none.
const char *statusText(int32_t status);

// The one mapping from a libusb result to a status code.
int32_t statusFromLibusbError(int libusbResult);

} // namespace vexausb
