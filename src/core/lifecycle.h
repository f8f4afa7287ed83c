#pragma once

#include <memory>

#include <libusb.h>

namespace vexausb {

class DeviceList;

// What the first initialisation builds on top of the core.
struct LifecycleParts {
    std::shared_ptr<DeviceList> (*makeDeviceList)();
    libusb_hotplug_callback_fn onHotplug;
};

// Counts one use of the library more, or one less; the first builds the process-wide state up,
// the last tears it down.
void beginUse(const LifecycleParts &parts);
void endUse();

} // namespace vexausb
