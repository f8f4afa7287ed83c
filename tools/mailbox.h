#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace tool {

// A queue from a callback of the library to the program's own thread. Both share its ownership;
// `mutex_` guards the letters.
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

    size_t size() {
        const std::lock_guard lock(mutex_);
        return letters_.size();
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Letter> letters_;
};

} // namespace tool
