#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <utility>

#include "core/mutex.h"

namespace tool {

// A queue from a callback of the library, on its threads, to the program's own thread.  Kept alive
// by a shared pointer of each, since a callback may come after its deregistration.
template <typename Letter>
class Mailbox {
public:
    void post(Letter letter) EXCLUDES(mutex_) {
        const vexausb::MutexLock lock(mutex_);
        letters_.push_back(std::move(letter));
        changed_.notifyOne();
    }

    std::optional<Letter> wait(std::chrono::milliseconds atMost) EXCLUDES(mutex_) {
        const auto end = std::chrono::steady_clock::now() + atMost;
        const vexausb::MutexLock lock(mutex_);
        if (!changed_.waitUntil(mutex_, end,
                                [this]() REQUIRES(mutex_) { return !letters_.empty(); }))
            return std::nullopt;
        Letter letter = std::move(letters_.front());
        letters_.pop_front();
        return letter;
    }

    size_t size() EXCLUDES(mutex_) {
        const vexausb::MutexLock lock(mutex_);
        return letters_.size();
    }

private:
    vexausb::Mutex mutex_;
    vexausb::Condition changed_;
    std::deque<Letter> letters_ GUARDED_BY(mutex_);
};

} // namespace tool
