#include "core/event_duty.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <new>

#include "core/global_state.h"

namespace vexausb {

/*
 * Who handles libusb's events.
 *
 * A synchronous transfer handles all events itself while it waits, unless another thread is at it:
 * then that thread is woken by the completion and wakes the caller in turn, which a short request
 * pays for dearly.  So while such transfers follow one another, "usb-libusb" stays out of libusb,
 * and comes in once a turn only, whatever the calls do.
 *
 * So an event waits for one turn at most: a hot-plug notice that comes when the last call has just
 * ended.  Asynchronous transfers wait for nothing: while any is in flight, the thread stays on
 * duty.
 */
namespace {

// Long compared with a request, short for a hot-plug notice.
constexpr std::chrono::milliseconds kTurn{10};

struct Duty {
    std::atomic<bool> callsFollow{false}; // set by callers, cleared by "usb-libusb"

    std::mutex mutex; // guards reservations; nothing is locked inside it
    std::condition_variable changed;
    uint64_t reservations = 0;

    bool mustReturn() const { return reservations > 0 || !libusbRunning.load(); }
};

// Never destroyed, since the thread may wait in it when the process ends without the last fini.
Duty &duty() {
    alignas(Duty) static std::byte memory[sizeof(Duty)];
    static auto *const only = new (memory) Duty;
    return *only;
}

} // namespace

EventDuty::Reserved::Reserved() {
    const std::lock_guard lock(duty().mutex);
    ++duty().reservations;
    duty().changed.notify_one();
}

EventDuty::Reserved::~Reserved() {
    const std::lock_guard lock(duty().mutex);
    --duty().reservations;
}

void EventDuty::callSucceeded() {
    duty().callsFollow.store(true, std::memory_order_relaxed);
}

void EventDuty::leaveToCalls() {
    Duty &now = duty();
    std::unique_lock lock(now.mutex);
    if (now.callsFollow.exchange(false, std::memory_order_relaxed))
        now.changed.wait_for(lock, kTurn, [&]() { return now.mustReturn(); });
}

// Under the mutex, so that the notice does not fall between a look at libusbRunning and the wait.
void EventDuty::end() {
    const std::lock_guard lock(duty().mutex);
    duty().changed.notify_one();
}

} // namespace vexausb
