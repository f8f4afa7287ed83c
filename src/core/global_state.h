#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

struct libusb_context;

namespace vexausb {

class DeviceList;

// True between the end of the first init and the beginning of the last fini's work, which alone
// write it: callers can use the device list and the context.
extern std::atomic<bool> libraryStarted;

// Calls of init not yet matched by fini.  Everyone reads it; init and fini alone change it.
extern std::atomic<uint64_t> initCount;

// The context, null when there is none.  LibUSB sets it while its gate is closed, and lets others
// read it only while they are inside that gate.
extern libusb_context *libusbContext;

// "usb-libusb".  LibUSB::init and LibUSB::fini alone touch it, one at a time.
extern std::thread libusbThread;

// The event loop runs while this is true; once cleared it stays so for the life of the process.
extern std::atomic<bool> libusbRunning;

// The device list, null when there is none.  Holding the reference keeps the list alive beyond a
// last fini on another thread.
std::shared_ptr<DeviceList> currentDeviceList();

// Puts another list in place and hands out the former one.
std::shared_ptr<DeviceList> exchangeDeviceList(std::shared_ptr<DeviceList> next);

} // namespace vexausb
