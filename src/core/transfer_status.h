#pragma once

#include <libusb.h>

namespace vexausb {

// The name of a transfer's status, as libusb_error_name has for results of calls.
const char *transferStatusName(libusb_transfer_status status);

} // namespace vexausb
