#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace tool {

// "1.5 MiB"
std::string sizeText(uint64_t bytes);

// A line on standard error that shows how far long work has come; silent unless that is a
// terminal or `forced`.
class Progress {
public:
    // The work ends after that many bytes, or at a time, or is open-ended.
    Progress(bool forced, std::optional<uint64_t> totalBytes,
             std::optional<std::chrono::duration<double>> totalTime);
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void update(uint64_t bytesDone);
    // Shows the end, and leaves the line; what follows stands on one of its own.
    void finish();

private:
    using Clock = std::chrono::steady_clock;

    void draw(uint64_t bytesDone);

    const bool shown_;
    const std::optional<uint64_t> totalBytes_;
    const std::optional<std::chrono::duration<double>> totalTime_;
    const Clock::time_point start_ = Clock::now();
    Clock::time_point nextDraw_ = start_;
    uint64_t lastBytes_ = 0;
    bool drawn_ = false;
};

} // namespace tool
