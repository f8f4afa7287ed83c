#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace tool {

// "1.5 MiB"
std::string sizeText(uint64_t bytes);

// Shows the progress of long work on standard error: as a bar on a terminal, or, where the user
// asks for it, as one line a second, in text or JSON.
class Progress {
public:
    using Seconds = std::chrono::duration<double>;
    enum class Form : uint8_t { None, Bar, Lines, Json };
    // The work ends after that many bytes, or at a time, or is open-ended.
    struct Total {
        std::optional<uint64_t> bytes;
        std::optional<Seconds> time;
    };

    static Form formFor(bool isWanted, bool json);

    Progress(Form form, Total total) : form_(form), total_(total) {}
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    // `ringFill` is the part of a stream's ring that waits to be read.
    void update(uint64_t bytesDone, std::optional<double> ringFill = std::nullopt);
    // Shows the end; what follows stands on a line of its own.
    void finish();

private:
    using Clock = std::chrono::steady_clock;

    void show();
    double rate(Seconds elapsed) const;
    std::optional<double> part(Seconds elapsed) const;
    std::optional<double> secondsLeft(Seconds elapsed) const;
    std::string text(Seconds elapsed) const;
    std::string json(Seconds elapsed) const;

    const Form form_;
    const Total total_;
    const Clock::time_point start_ = Clock::now();
    Clock::time_point next_ = start_;
    uint64_t bytes_ = 0;
    std::optional<double> ringFill_;
    size_t width_ = 0; // of what stands on the terminal's line
    bool shown_ = false;
};

} // namespace tool
