#include "core/global_state.h"

#include <utility>

#include "core/undestroyed.h"

namespace vexausb {

namespace {

Mutex deviceListMutex; // no other lock is taken under it

// Defined before libusbThread, so destroyed after it: a process that exits without the last fini
// ends in the thread's destructor, by std::terminate, whatever the list holds.
std::shared_ptr<DeviceList> deviceList GUARDED_BY(deviceListMutex);

// Each type has one thing to keep: its static object takes the first and would drop a second.
template <typename Thing>
void keep(Thing &thing) {
    static Undestroyed<Thing> kept(std::move(thing));
}

} // namespace

Mutex initFiniMutex;
std::atomic<bool> libraryStarted{false};
std::atomic<uint64_t> initCount{0};
std::thread libusbThread;
std::atomic<bool> libusbRunning{true};
std::atomic<bool> forkedInUse{false};

// A child has one thread, and the mutexes may be held by those that it has not.
void keepInherited() NO_THREAD_SAFETY_ANALYSIS {
    keep(libusbThread);
    keep(deviceList);
}

std::shared_ptr<DeviceList> currentDeviceList() {
    const MutexLock lock(deviceListMutex);
    return deviceList;
}

std::shared_ptr<DeviceList> exchangeDeviceList(std::shared_ptr<DeviceList> next) {
    const MutexLock lock(deviceListMutex);
    return std::exchange(deviceList, std::move(next));
}

} // namespace vexausb
