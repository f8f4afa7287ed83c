#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "support/allocations.h"
#include "vexa_usb.h"

namespace test {

inline constexpr std::chrono::seconds kLong{20}; // far longer than anything here should take

// Collects a device's events.
class EventLog {
public:
    // Devices' callbacks may run a last time after the close, so logs live for ever.
    static EventLog &make() {
        static auto *const logs = new std::vector<EventLog *>;
        static std::mutex logsMutex;
        const std::lock_guard lock(logsMutex);
        return *logs->emplace_back(new EventLog);
    }
    static void callback(_vexa_usb_device_event event, void *data) {
        auto &log = *static_cast<EventLog *>(data);
        const allocations::Exempt exempt;
        const std::lock_guard lock(log.mutex);
        log.events.push_back(event);
        log.changed.notify_all();
    }

    size_t count(uint32_t event) {
        const std::lock_guard lock(mutex);
        return countLocked(event);
    }
    bool waitFor(uint32_t event, size_t atLeast = 1) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, kLong, [&]() { return countLocked(event) >= atLeast; });
    }
    bool waitForEither(uint32_t event, size_t atLeast, uint32_t other) {
        std::unique_lock lock(mutex);
        return changed.wait_for(
            lock, kLong, [&]() { return countLocked(event) >= atLeast || countLocked(other) > 0; });
    }
    std::vector<uint32_t> all() {
        const std::lock_guard lock(mutex);
        return events;
    }

private:
    size_t countLocked(uint32_t event) const {
        return static_cast<size_t>(std::count(events.begin(), events.end(), event));
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<uint32_t> events;
};

} // namespace test
