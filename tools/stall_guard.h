#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

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

    void noteProgress();

private:
    void watch(const std::stop_token &stop);

    const Seconds atMost_;
    const std::string what_;
    const std::string hint_;
    std::mutex mutex_;
    std::condition_variable_any changed_;
    bool progressed_ = false;
    std::jthread thread_; // the last member, since it uses the others
};

} // namespace tool
