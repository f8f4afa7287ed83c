#include "core/lifecycle.h"

#include <pthread.h>

#include "core/lib_usb.h"
#include "core/log.h"
#include "core/thread.h"

namespace vexausb {

namespace {

// If another thread was in an init or a fini, nobody will ever unlock the mutex.
bool wasUnusedAtFork() {
    if (!initFiniMutex.tryLock())
        return false;
    initFiniMutex.unlock();
    return initCount.load() == 0 && !libraryStarted.load();
}

void onForkInChild() {
    if (wasUnusedAtFork())
        return;
    forkedInUse.store(true);
    initCount.store(0);
    keepInherited();
}

// When the library is loaded.
[[maybe_unused]] const int forksAreWatched = pthread_atfork(nullptr, nullptr, onForkInChild);

} // namespace

void beginUse(const LifecycleParts &parts) {
    const CancellationLater uncancelled;
    if (forkedInUse.load()) {
        logLine(LogLevel::Error, "this process was forked from one that uses the library, and "
                                 "cannot use it: fork before the first init, or exec");
        return;
    }
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
    const CancellationLater uncancelled;
    if (forkedInUse.load() || initCount.fetch_sub(1) != 1)
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
