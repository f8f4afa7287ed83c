#include "core/event_duty.h"

#include <atomic>
#include <chrono>
#include <cstdint>

#include "core/global_state.h"
#include "core/mutex.h"
#include "core/undestroyed.h"

namespace vexausb::event_duty {

namespace {

// Much longer than a short request takes, and still a short delay for a hot-plug notice.
constexpr std::chrono::milliseconds kYieldTime{10};

struct Duty {
    // Methods, since locks are not checked in constructors and destructors.
    void reserve() EXCLUDES(mutex);
    void giveBack() EXCLUDES(mutex);

    std::atomic<bool> transferSucceeded{false}; // set by callers, cleared by "usb-libusb"

    Mutex mutex; // no other lock is taken under it
    Condition changed;
    uint64_t reservations GUARDED_BY(mutex) = 0;
};

void Duty::reserve() {
    const MutexLock lock(mutex);
    ++reservations;
    changed.notifyOne();
}

void Duty::giveBack() {
    const MutexLock lock(mutex);
    --reservations;
}

// Never destroyed: the thread may still wait for it when the process ends without a last fini.
Duty &duty() {
    static Undestroyed<Duty> only;
    return only.get();
}

} // namespace

Reserved::Reserved() {
    duty().reserve();
}

Reserved::~Reserved() {
    duty().giveBack();
}

void noteSynchronousTransfer() {
    duty().transferSucceeded.store(true, std::memory_order_relaxed);
}

void yieldToSynchronousTransfers() {
    Duty &shared = duty();
    const MutexLock lock(shared.mutex);
    if (!shared.transferSucceeded.exchange(false, std::memory_order_relaxed))
        return;
    const auto end = std::chrono::steady_clock::now() + kYieldTime;
    shared.changed.waitUntil(shared.mutex, end, [&shared]() REQUIRES(shared.mutex) {
        return shared.reservations > 0 || !libusbRunning.load();
    });
}

// Under the mutex: the notification cannot come between the test of libusbRunning and the wait.
void endYield() {
    const MutexLock lock(duty().mutex);
    duty().changed.notifyOne();
}

} // namespace vexausb::event_duty
