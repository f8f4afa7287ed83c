#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <utility>
#include <vector>

#include "core/mutex.h"
#include "support/allocations.h"
#include "support/waiting.h"
#include "vexa_usb.h"

namespace test {

inline constexpr uint32_t kFull = VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL;
inline constexpr uint32_t kError = VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR;
inline constexpr uint32_t kStarted = VEXA_USB_DEVICE_EVENT_DATA_STREAM_STARTED;
inline constexpr uint32_t kStopped = VEXA_USB_DEVICE_EVENT_DATA_STREAM_STOPPED;
inline constexpr uint32_t kRemoved = VEXA_USB_DEVICE_EVENT_REMOVED;

// Collects a device's events.
class EventLog {
public:
    using Counted = std::pair<uint32_t, size_t>; // an event, and how often it is to have come

    // Devices' callbacks may run a last time after the close, so logs live for ever.
    static EventLog &make() {
        const vexausb::MutexLock lock(logsMutex);
        return *logs.emplace_back(new EventLog);
    }
    static void callback(_vexa_usb_device_event event, void *data) {
        auto &log = *static_cast<EventLog *>(data);
        const allocations::Exempt exempt;
        const vexausb::MutexLock lock(log.mutex_);
        log.events_.push_back(event);
        ++log.counts_[event];
        log.changed_.notifyAll();
    }

    size_t count(uint32_t event) {
        const allocations::Exempt exempt;
        const vexausb::MutexLock lock(mutex_);
        return counts_[event];
    }
    bool waitFor(uint32_t event, size_t atLeast = 1) { return waitForAny({{event, atLeast}}); }
    bool waitForAny(std::initializer_list<Counted> wanted) {
        const allocations::Exempt exempt;
        const vexausb::MutexLock lock(mutex_);
        const auto hasCome = [this](const Counted &one)
                                 REQUIRES(mutex_) { return counts_[one.first] >= one.second; };
        return changed_.waitUntil(mutex_, std::chrono::steady_clock::now() + kLong, [&]() {
            return std::any_of(wanted.begin(), wanted.end(), hasCome);
        });
    }
    std::vector<uint32_t> all() {
        const vexausb::MutexLock lock(mutex_);
        return events_;
    }

private:
    static inline vexausb::Mutex logsMutex;
    static inline auto &logs GUARDED_BY(logsMutex) = *new std::vector<EventLog *>;

    vexausb::Mutex mutex_;
    vexausb::Condition changed_;
    std::map<uint32_t, size_t> counts_ GUARDED_BY(mutex_);
    std::vector<uint32_t> events_ GUARDED_BY(mutex_);
};

} // namespace test
