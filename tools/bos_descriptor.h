#pragma once

namespace tool {

struct UsbDevice;

// Whether the device says in its binary object store (USB 3.2, 9.6.2) that it can run at
// SuperSpeed. While it runs slower that stands nowhere else.  Only who may open the device gets the
// answer; false for others.
bool tellsOfSuperSpeed(const UsbDevice &device);

} // namespace tool
