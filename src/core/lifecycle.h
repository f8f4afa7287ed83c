#pragma once

#include <memory>

#include <libusb.h>

/*
 * The reference-counted use of the library: the first use builds the process-wide state up, the
 * last tears it down.
 *
 * Only a call that takes the counter from 0 to 1 or from 1 to 0 takes the transition mutex, so no
 * other call ever waits.  Two such calls may come to the mutex in the opposite order of their
 * counting.  So neither trusts what it counted: each makes the state match the counter as it is
 * then, which is right in either order and runs one build-up or tear-down at a time.
 */
namespace vexausb {

class DeviceList;

// What the first initialisation builds on top of the core.
struct LifecycleParts {
    std::shared_ptr<DeviceList> (*makeDeviceList)();
    libusb_hotplug_callback_fn onHotplug;
};

// Counts one use more.  Throws when the state cannot be built up; the use is counted all the same.
void beginUse(const LifecycleParts &parts);
// Counts one use less.  Needs no memory.
void endUse();

} // namespace vexausb
