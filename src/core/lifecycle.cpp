#include "core/lifecycle.h"

#include "core/lib_usb.h"
#include "core/log.h"

namespace vexausb {

void beginUse(const LifecycleParts &parts) {
    if (initCount.fetch_add(1) != 0)
        return;
    const MutexLock lock(initFiniMutex);
    if (initCount.load() == 0 || currentDeviceList() != nullptr)
        return;
    readLogLevel();
    exchangeDeviceList(parts.makeDeviceList());
    try {
        LibUSB::init(parts.onHotplug);
    } catch (...) {
        exchangeDeviceList(nullptr);
        throw;
    }
    libraryStarted.store(true);
    logLine(LogLevel::Info, "started");
}

void endUse() {
    if (initCount.fetch_sub(1) != 1)
        return;
    const MutexLock lock(initFiniMutex);
    if (initCount.load() != 0 || currentDeviceList() == nullptr)
        return;
    libraryStarted.store(false);
    LibUSB::fini();
    exchangeDeviceList(nullptr);
    logLine(LogLevel::Info, "ended");
}

} // namespace vexausb
