#include "core/lifecycle.h"

#include <mutex>

#include "core/global_state.h"
#include "core/lib_usb.h"
#include "core/log.h"

namespace vexausb {

/*
 * Only a call that takes the counter from 0 to 1 or from 1 to 0 goes on to `transition`, so no
 * other call ever waits.  Two such calls may come to the mutex in the opposite order of their
 * counting.  So neither trusts what it counted: each makes the state match the counter as it is
 * now, which is right in either order and runs one build-up or tear-down at a time.
 */
namespace {

std::mutex transition; // held while the state is built up or torn down

} // namespace

void beginUse(const LifecycleParts &parts) {
    if (initCount.fetch_add(1) != 0)
        return;
    const std::lock_guard lock(transition);
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
    const std::lock_guard lock(transition);
    if (initCount.load() != 0 || currentDeviceList() == nullptr)
        return;
    libraryStarted.store(false);
    LibUSB::fini();
    exchangeDeviceList(nullptr);
    logLine(LogLevel::Info, "ended");
}

} // namespace vexausb
