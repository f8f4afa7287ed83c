#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

#include "core/mutex.h"

// What the whole process shares.  lifecycle.cpp owns it: only init and fini change it.
namespace vexausb {

class DeviceList;

// Held by lifecycle.cpp while it builds the shared state up or tears it down.  It is the first in
// the order of the mutexes: a thread that holds another one must not lock it.
extern Mutex initFiniMutex;

// True from the end of the first init's work to the beginning of the last fini's: callers can use
// the device list and the context.
extern std::atomic<bool> libraryStarted;

// How many calls of init have had no fini yet.
extern std::atomic<uint64_t> initCount;

// "usb-libusb".
extern std::thread libusbThread GUARDED_BY(initFiniMutex);

// Whether the event loop is to run.  LibUSB::fini clears it; nothing sets it again in the life of
// the process.
extern std::atomic<bool> libusbRunning;

// True in a child that was forked while the library was in use.  It has none of the library's
// threads, finds locks held for ever, and shares the devices' files with its parent, which would
// get what the child asks for.  So the library stays out of use there: init and fini do nothing.
// lifecycle.cpp sets it in the child, while that has one thread only.
extern std::atomic<bool> forkedInUse;

// Called in that child.  Moves the list and the thread to memory that the exit does not destroy:
// their destructors would wait for threads and locks that the child does not have.
void keepInherited();

// The device list, null when there is none.  Whoever holds the result can use the list even after
// the last fini.
std::shared_ptr<DeviceList> currentDeviceList();

// Replaces the list and returns the former one.
std::shared_ptr<DeviceList> exchangeDeviceList(std::shared_ptr<DeviceList> next);

} // namespace vexausb
