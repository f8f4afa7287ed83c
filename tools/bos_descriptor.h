#pragma once

namespace tool {

struct UsbDevice;

// Whether the device says in its binary object store (USB 3.2, 9.6.2) that it can run at
// SuperSpeed. False also for a user who may not open the device.
bool tellsOfSuperSpeed(const UsbDevice &device);

} // namespace tool
