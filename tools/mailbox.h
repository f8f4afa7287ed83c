#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace tool {

// Carries what a callback of the library is told to the program's own thread, in order.  Owned by
// both; `mutex` guards the letters.
template <typename Letter>
class Mailbox {
public:
    void post(Letter letter) {
        const std::lock_guard lock(mutex);
        letters.push_back(std::move(letter));
        changed.notify_one();
    }

    std::optional<Letter> wait(std::chrono::milliseconds atMost) {
        std::unique_lock lock(mutex);
        if (!changed.wait_for(lock, atMost, [this]() { return !letters.empty(); }))
            return std::nullopt;
        Letter letter = std::move(letters.front());
        letters.pop_front();
        return letter;
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Letter> letters;
};

} // namespace tool
