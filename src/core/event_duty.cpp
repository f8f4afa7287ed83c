#include "core/event_duty.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "core/global_state.h"

namespace vexausb {

/*
 * Who handles libusb's events.
 *
 * A synchronous transfer handles all events itself while it waits, unless another thread is at it:
 * then that thread is woken by the completion and wakes the caller in turn, which a short request
 * pays for dearly.  So while such transfers follow one another, "usb-libusb" stays out of libusb.
 *
 * Nothing is left undone meanwhile.  A transfer that succeeded did handle events; one that failed
 * may not have, so it does not count, and the thread looks after kTurn at the latest.  Asynchronous
 * transfers wait for nothing: while there is somebody to submit any, the thread stays on duty.
 */
namespace {

// Long compared with a request, short for a hot-plug notice that comes after the last of them.
constexpr std::chrono::milliseconds kTurn{50};

std::atomic<bool> callsFollow{false}; // set by callers, cleared by "usb-libusb"

std::mutex mutex; // guards reservations
std::condition_variable changed;
uint64_t reservations = 0;

bool mustReturn() {
    return reservations > 0 || !libusbRunning.load();
}

} // namespace

EventDuty::Reserved::Reserved() {
    const std::lock_guard lock(mutex);
    ++reservations;
    changed.notify_one();
}

EventDuty::Reserved::~Reserved() {
    const std::lock_guard lock(mutex);
    --reservations;
}

void EventDuty::callSucceeded() {
    callsFollow.store(true, std::memory_order_relaxed);
}

void EventDuty::leaveToCalls() {
    std::unique_lock lock(mutex);
    while (!mustReturn() && callsFollow.exchange(false, std::memory_order_relaxed))
        changed.wait_for(lock, kTurn, mustReturn);
}

// Under the mutex, so that the notice does not fall between a look at libusbRunning and the wait.
void EventDuty::end() {
    const std::lock_guard lock(mutex);
    changed.notify_one();
}

} // namespace vexausb
