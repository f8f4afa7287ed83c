#pragma once

#include <libusb.h>

#include "core/global_state.h"
#include "core/mutex.h"
#include "core/use_gate.h"

/*
 * The libusb side of the process-wide state: the context, the hot-plug registrations, and
 * "usb-libusb", the thread that handles libusb's events unless callers do (event_duty.h).
 *
 * lifecycle.cpp calls init and fini, on callers' threads.  No libusb handle outlives its context:
 * fini closes the connections first, while the event loop still delivers the completions of their
 * transfers.  Then it waits for every ContextUse.
 *
 * The event loop runs only once in the life of a process.  After a re-initialisation its thread
 * ends at once, and connections are told that nobody delivers completions.
 */
namespace vexausb::LibUSB {

// Without a context (libusb_init failed) the library runs, but has no devices.  Throws, and leaves
// nothing behind, when the thread cannot be started.
void init(libusb_hotplug_callback_fn onHotplug) REQUIRES(initFiniMutex);
// Allocates no memory.
void fini() REQUIRES(initFiniMutex);

// Keeps the context while it exists.  Any thread.
class ContextUse {
public:
    ContextUse();

    // Whether there is a context.
    explicit operator bool() const { return static_cast<bool>(use_); }
    // Only if there is one.
    libusb_context *context() const;

private:
    const UseGate::Use use_;
};

} // namespace vexausb::LibUSB
