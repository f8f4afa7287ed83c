#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace test {

inline constexpr std::chrono::seconds kLong{25}; // far longer than anything here should take

// Whether the condition comes true.
template <typename Condition>
bool eventually(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + kLong;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    return true;
}

inline std::chrono::steady_clock::duration timed(const std::function<void()> &action) {
    const auto before = std::chrono::steady_clock::now();
    action();
    return std::chrono::steady_clock::now() - before;
}

} // namespace test
