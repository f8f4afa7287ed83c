#pragma once

#include <memory>

#include <libusb.h>

#include "core/global_state.h"
#include "core/mutex.h"

/*
 * Counts the uses of the library.  The first one builds the process-wide state up, the last one
 * tears it down.
 *
 * Only a call that takes the counter from 0 to 1 or from 1 to 0 locks initFiniMutex, so no other
 * call ever waits.  Two such calls may lock it in the opposite order of their counting.  So each
 * reads the counter again under the mutex, and does its work only if the state does not match the
 * counter yet.
 */
namespace vexausb {

class DeviceList;

// What the first init needs of the device list; core_api.cpp provides it.
struct LifecycleParts {
    std::shared_ptr<DeviceList> (*makeDeviceList)();
    libusb_hotplug_callback_fn onHotplug;
};

// Counts one use more.  Throws when the state cannot be built up; even then the use is counted.
// Like endUse it does nothing in a process that was forked while the library was in use.
void beginUse(const LifecycleParts &parts) EXCLUDES(initFiniMutex);
// Counts one use less.  Allocates no memory.
void endUse() EXCLUDES(initFiniMutex);

} // namespace vexausb
