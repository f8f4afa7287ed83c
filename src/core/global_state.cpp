#include "core/global_state.h"

#include <utility>

namespace vexausb {

namespace {

Mutex deviceListMutex; // no other lock is taken under it

// Defined before libusbThread, so destroyed after it: a process that exits without the last fini
// ends in the thread's destructor, by std::terminate, whatever the list holds.
std::shared_ptr<DeviceList> deviceList GUARDED_BY(deviceListMutex);

} // namespace

Mutex initFiniMutex;
std::atomic<bool> libraryStarted{false};
std::atomic<uint64_t> initCount{0};
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
