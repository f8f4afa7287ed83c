#pragma once

#include <libusb.h>

namespace vexausb {

// libusb's name of a transfer's end, as libusb_error_name gives those of calls.
const char *transferStatusName(libusb_transfer_status status);

} // namespace vexausb
