#include "progress.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <sys/ioctl.h>
#include <unistd.h>

namespace tool {

namespace {

constexpr std::chrono::milliseconds kBarInterval{100};
constexpr std::chrono::seconds kLineInterval{1};
constexpr int kBarWidth = 14;

std::string barText(double part) {
    return fmt::format("[{:-<{}}] ", std::string(static_cast<size_t>(part * kBarWidth), '#'),
                       kBarWidth);
}

// A line that does not fit would be broken, and could not be overwritten.
size_t terminalWidth() {
    winsize size{};
    return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

std::string timeText(double seconds) {
    const auto whole = static_cast<uint64_t>(std::llround(seconds));
    const uint64_t minutes = whole / 60 % 60;
    if (whole < 60)
        return fmt::format("{} s", whole);
    if (whole < 3600)
        return fmt::format("{}:{:02}", minutes, whole % 60);
    return fmt::format("{}:{:02}:{:02}", whole / 3600, minutes, whole % 60);
}

} // namespace

std::string sizeText(uint64_t bytes) {
    constexpr std::array kUnits{"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    auto value = static_cast<double>(bytes);
    size_t unit = 0;
    for (; value >= 1024 && unit + 1 < kUnits.size(); ++unit)
        value /= 1024;
    return unit == 0 ? fmt::format("{} B", bytes) : fmt::format("{:.1f} {}", value, kUnits[unit]);
}

Progress::Form Progress::formFor(bool isWanted, bool json) {
    if (isWanted && json)
        return Form::Json;
    if (isatty(STDERR_FILENO) != 0)
        return Form::Bar;
    return isWanted ? Form::Lines : Form::None;
}

Progress::~Progress() {
    finish();
}

void Progress::update(uint64_t bytesDone, std::optional<double> ringFill) {
    bytes_ = bytesDone;
    ringFill_ = ringFill;
    if (form_ == Form::None || Clock::now() < next_)
        return;
    next_ = Clock::now() + (form_ == Form::Bar ? Clock::duration(kBarInterval) : kLineInterval);
    show();
}

void Progress::finish() {
    if (!shown_)
        return;
    show();
    if (form_ == Form::Bar)
        fmt::print(stderr, "\n");
    shown_ = false;
}

void Progress::show() {
    const Seconds elapsed = Clock::now() - start_;
    shown_ = true;
    if (form_ == Form::Bar) {
        const auto done = part(elapsed);
        const std::string line =
            ((done ? barText(*done) : "") + text(elapsed)).substr(0, terminalWidth() - 1);
        width_ = std::max(width_, line.size());
        fmt::print(stderr, "\r{:<{}}", line, width_);
        std::fflush(stderr);
    } else {
        fmt::print(stderr, "{}\n", form_ == Form::Json ? json(elapsed) : text(elapsed));
    }
}

double Progress::rate(Seconds elapsed) const {
    return static_cast<double>(bytes_) / std::max(elapsed.count(), 1e-6);
}

std::optional<double> Progress::part(Seconds elapsed) const {
    if (!total_.bytes && !total_.time)
        return std::nullopt;
    const double done = total_.bytes ? static_cast<double>(bytes_) /
                                           static_cast<double>(std::max<uint64_t>(*total_.bytes, 1))
                                     : elapsed / *total_.time;
    return std::clamp(done, 0.0, 1.0);
}

std::optional<double> Progress::secondsLeft(Seconds elapsed) const {
    if (total_.time)
        return std::max((*total_.time - elapsed).count(), 0.0);
    if (!total_.bytes || bytes_ == 0)
        return std::nullopt;
    return static_cast<double>(*total_.bytes - std::min(bytes_, *total_.bytes)) / rate(elapsed);
}

std::string Progress::text(Seconds elapsed) const {
    std::string line;
    if (const auto done = part(elapsed))
        line = fmt::format("{:3.0f} %  ", *done * 100);
    line += fmt::format("{:>10}  {:6.1f} MB/s", sizeText(bytes_), rate(elapsed) / 1e6);
    if (ringFill_)
        line += fmt::format("  ring {:.0f} % full", *ringFill_ * 100);
    if (const auto left = secondsLeft(elapsed))
        line += fmt::format("  {} left", timeText(*left));
    return line;
}

std::string Progress::json(Seconds elapsed) const {
    nlohmann::json line{
        {"bytes", bytes_}, {"seconds", elapsed.count()}, {"bytes_per_second", rate(elapsed)}};
    if (const auto done = part(elapsed))
        line["part"] = *done;
    if (const auto left = secondsLeft(elapsed))
        line["seconds_left"] = *left;
    if (ringFill_)
        line["ring_fill"] = *ringFill_;
    return line.dump();
}

} // namespace tool
