#include "core/global_state.h"

#include <utility>

#include "core/mutex.h"

namespace vexausb {

namespace {

Mutex deviceListMutex; // held for a few instructions; nothing is locked inside it

// Before libusbThread, so that at the process's end the thread's destructor runs first: a process
// that ends without the last fini ends by std::terminate, whatever the list holds.
std::shared_ptr<DeviceList> deviceList GUARDED_BY(deviceListMutex);

} // namespace

std::atomic<bool> libraryStarted{false};
std::atomic<uint64_t> initCount{0};
libusb_context *libusbContext = nullptr;
std::thread libusbThread;
std::atomic<bool> libusbRunning{true};

std::shared_ptr<DeviceList> currentDeviceList() {
    const MutexLock lock(deviceListMutex);
    return deviceList;
}

std::shared_ptr<DeviceList> exchangeDeviceList(std::shared_ptr<DeviceList> next) {
    const MutexLock lock(deviceListMutex);
    return std::exchange(deviceList, std::move(next));
}

} // namespace vexausb
