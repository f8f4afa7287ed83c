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

// From now on the first Ctrl-C or SIGTERM only makes interrupted() true; a second one kills.
void catchInterrupts();
bool interrupted();

// While it lives, the first such signal writes a text to standard error at once.
class InterruptNotice {
public:
    // `text` must outlive this object.
    explicit InterruptNotice(const char *text);
    ~InterruptNotice();
    InterruptNotice(const InterruptNotice &) = delete;
    InterruptNotice &operator=(const InterruptNotice &) = delete;
};

// When an endless command stops: after a time, after a number of lines, or at an interrupt.
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
