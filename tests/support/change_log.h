#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "core/mutex.h"
#include "support/event_log.h"
#include "vexa_usb.h"

namespace test {

// A callback for changes of the device list, and what it was told.
class ChangeLog {
public:
    using Action = std::function<void(uint32_t type, const _vexa_usb_device_list_item &item)>;
    using Change = std::pair<uint32_t, uint64_t>; // type and id

    // The callback may run a last time after the deregistration, so logs live for ever.
    static ChangeLog &add(Action action = nullptr) {
        static auto *const logs = new std::vector<ChangeLog *>;
        auto *const log = logs->emplace_back(new ChangeLog);
        log->action_ = std::move(action);
        EXPECT_EQ(vexa_usb_register_device_list_event_callback(callback, log, &log->id), 0);
        return *log;
    }
    bool waitFor(size_t count) {
        const vexausb::MutexLock lock(mutex_);
        return changed_.waitUntil(mutex_, std::chrono::steady_clock::now() + kLong,
                                  [this, count]()
                                      REQUIRES(mutex_) { return changes_.size() >= count; });
    }
    size_t count(uint32_t type) {
        const vexausb::MutexLock lock(mutex_);
        return static_cast<size_t>(
            std::count_if(changes_.begin(), changes_.end(),
                          [type](const Change &change) { return change.first == type; }));
    }
    std::vector<Change> all() {
        const vexausb::MutexLock lock(mutex_);
        return changes_;
    }

    uint32_t id = 0;

private:
    ChangeLog() { changes_.reserve(1U << 14); } // some tests look at the memory in use

    static void callback(uint32_t type, const _vexa_usb_device_list_item *item, void *data) {
        auto &self = *static_cast<ChangeLog *>(data);
        if (self.action_)
            self.action_(type, *item);
        const vexausb::MutexLock lock(self.mutex_);
        self.changes_.emplace_back(type, item->id);
        self.changed_.notifyAll();
    }

    Action action_;
    vexausb::Mutex mutex_;
    vexausb::Condition changed_;
    std::vector<Change> changes_ GUARDED_BY(mutex_);
};

} // namespace test
