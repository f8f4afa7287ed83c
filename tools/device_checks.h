#pragma once

#include <vector>

#include "finding.h"
#include "usb_device.h"

namespace tool {

// Each checks for one thing that can keep this user from working with a device.

Finding checkPermission(const UsbDevice &device);
// A kernel driver or another program.
Finding checkHolder(const UsbDevice &device);
// Whether there is an interface to work with.
Finding checkInterface(const UsbDevice &device);
Finding checkSpeed(const UsbDevice &device);
Finding checkPower(const UsbDevice &device);
// Whether the kernel allows as much memory as streams from all these devices need.
Finding checkMemory(const std::vector<UsbDevice> &devices);

} // namespace tool
