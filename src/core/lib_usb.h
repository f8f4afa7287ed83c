#pragma once

#include <libusb.h>

#include "core/use_gate.h"

/*
 * The libusb side of the process-wide state: the context, the hot-plug registrations and
 * "usb-libusb", the thread that handles libusb's events unless callers do (event_duty.h).
 *
 * init and fini run on callers' threads, one at a time: lifecycle.cpp alone calls them.  No handle
 * outlives its context: fini closes the connections first, while the event loop still delivers the
 * completions that this takes, and then waits for whoever is using the context.
 *
 * The event loop runs once in the life of a process.  After a re-initialisation its thread ends at
 * once, and connections are told so, because nobody then delivers completions.
 */
namespace vexausb::LibUSB {

// Throws, and leaves nothing behind, when the thread cannot be started.
void init(libusb_hotplug_callback_fn onHotplug);
// Needs no memory.
void fini();
// Lets the caller use libusbContext for as long as it holds the result; false when there is no
// context.  Any thread.
UseGate::Use useContext();

} // namespace vexausb::LibUSB
