#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace tool {

// Carries what a callback of the library is told to the program's own thread, in order.  Owned by
// both; `mutex_` guards the letters.
template <typename Letter>
class Mailbox {
public:
    void post(Letter letter) {
        const std::lock_guard lock(mutex_);
        letters_.push_back(std::move(letter));
        changed_.notify_one();
    }

    std::optional<Letter> wait(std::chrono::milliseconds atMost) {
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, atMost, [this]() { return !letters_.empty(); }))
            return std::nullopt;
        Letter letter = std::move(letters_.front());
        letters_.pop_front();
        return letter;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Letter> letters_;
};

} // namespace tool
