#pragma once

#include <chrono>
#include <string>
#include <thread>

#include "core/mutex.h"

namespace tool {

/*
 * While it lives, ends the program with an error when too much time passes without progress.  For
 * calls of the library that only the device ends.
 *
 * Threads: one of its own, which the destructor ends.
 */
class StallGuard {
public:
    using Seconds = std::chrono::duration<double>;

    // 0 s: no limit.  `what` and `hint` are those of the error.
    StallGuard(Seconds atMost, std::string what, std::string hint);
    ~StallGuard();
    StallGuard(const StallGuard &) = delete;
    StallGuard &operator=(const StallGuard &) = delete;

    void noteProgress() EXCLUDES(mutex_);

private:
    // False when there was none for that long.
    bool waitForNews(Seconds atMost) REQUIRES(mutex_);
    void watch() EXCLUDES(mutex_);

    const Seconds atMost_;
    const std::string what_;
    const std::string hint_;
    vexausb::Mutex mutex_;
    vexausb::Condition changed_;
    bool progressed_ GUARDED_BY(mutex_) = false;
    bool ended_ GUARDED_BY(mutex_) = false;
    std::thread thread_; // the last member, since it uses the others
};

} // namespace tool
