#include "core/event_duty.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <new>

#include "core/global_state.h"
#include "core/mutex.h"

namespace vexausb::event_duty {

namespace {

// Long compared with a request, short for a hot-plug notice.
constexpr std::chrono::milliseconds kTurn{10};

struct Duty {
    std::atomic<bool> callsFollow{false}; // set by callers, cleared by "usb-libusb"

    Mutex mutex; // nothing is locked inside it
    Condition changed;
    uint64_t reservations GUARDED_BY(mutex) = 0;
};

// Never destroyed, since the thread may wait in it when the process ends without the last fini.
Duty &duty() {
    alignas(Duty) static std::byte memory[sizeof(Duty)];
    static auto *const only = new (memory) Duty;
    return *only;
}

} // namespace

Reserved::Reserved() {
    const MutexLock lock(duty().mutex);
    ++duty().reservations;
    duty().changed.notifyOne();
}

Reserved::~Reserved() {
    const MutexLock lock(duty().mutex);
    --duty().reservations;
}

void callSucceeded() {
    duty().callsFollow.store(true, std::memory_order_relaxed);
}

void leaveToCalls() {
    Duty &now = duty();
    const MutexLock lock(now.mutex);
    if (!now.callsFollow.exchange(false, std::memory_order_relaxed))
        return;
    const auto end = std::chrono::steady_clock::now() + kTurn;
    bool inTime = true;
    while (inTime && now.reservations == 0 && libusbRunning.load())
        inTime = now.changed.waitUntil(now.mutex, end);
}

// Under the mutex, so that the notice does not fall between a look at libusbRunning and the wait.
void end() {
    const MutexLock lock(duty().mutex);
    duty().changed.notifyOne();
}

} // namespace vexausb::event_duty
