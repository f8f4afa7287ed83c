#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace test {

inline constexpr std::chrono::seconds kLong{25}; // far longer than anything here should take

// Whether the condition comes true; looks soon at first, then less often, which leaves a slow
// machine to what is waited for.
template <typename Condition>
bool eventually(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + kLong;
    for (std::chrono::microseconds step{100}; !condition(); step *= step.count() < 6400 ? 2 : 1) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(step);
    }
    return true;
}

inline std::chrono::steady_clock::duration timed(const std::function<void()> &action) {
    const auto before = std::chrono::steady_clock::now();
    action();
    return std::chrono::steady_clock::now() - before;
}

} // namespace test
