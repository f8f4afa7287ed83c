#pragma once

#include <libusb.h>

namespace vexausb {

// libusb's callback for arrivals and departures, which LibUSB::init registers.  Passes them on to
// the device list.  Runs on whichever thread handles libusb's events, under libusb's locks, so it
// throws nothing.
int LIBUSB_CALL onHotplug(libusb_context *context, libusb_device *device,
                          libusb_hotplug_event event, void *userData) noexcept;

} // namespace vexausb
