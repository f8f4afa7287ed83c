#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace CLI {
class App;
} // namespace CLI

namespace tool {

// How often a waiting loop looks whether it should end.
inline constexpr std::chrono::milliseconds kWaitStep{100};

// Ctrl-C, or SIGTERM, ends a loop in good order; a second one ends the program.
void catchInterrupts();
bool interrupted();

// When a command that goes on by itself ends: after a time, a number of things, or an interrupt.
class StopCondition {
public:
    using Seconds = std::chrono::duration<double>;

    void addOptions(CLI::App &command);
    void start();
    bool reached(uint64_t done) const;

private:
    std::optional<double> seconds_;
    std::optional<uint64_t> count_;
    std::chrono::steady_clock::time_point begin_;
};

} // namespace tool
