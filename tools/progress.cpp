#include "progress.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include <fmt/format.h>
#include <unistd.h>

namespace tool {

namespace {

constexpr std::chrono::milliseconds kInterval{100};
constexpr int kBarWidth = 30;

} // namespace

std::string sizeText(uint64_t bytes) {
    constexpr std::array kUnits{"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    auto value = static_cast<double>(bytes);
    size_t unit = 0;
    for (; value >= 1024 && unit + 1 < kUnits.size(); ++unit)
        value /= 1024;
    return unit == 0 ? fmt::format("{} B", bytes) : fmt::format("{:.1f} {}", value, kUnits[unit]);
}

Progress::Progress(bool forced, std::optional<uint64_t> totalBytes,
                   std::optional<std::chrono::duration<double>> totalTime)
    : shown_(forced || isatty(STDERR_FILENO) != 0),
      totalBytes_(totalBytes),
      totalTime_(totalTime) {}

Progress::~Progress() {
    finish();
}

void Progress::finish() {
    if (!drawn_)
        return;
    draw(lastBytes_);
    fmt::print(stderr, "\n");
    drawn_ = false;
}

void Progress::update(uint64_t bytesDone) {
    lastBytes_ = bytesDone;
    if (!shown_ || Clock::now() < nextDraw_)
        return;
    nextDraw_ = Clock::now() + kInterval;
    draw(bytesDone);
}

void Progress::draw(uint64_t bytesDone) {
    const std::chrono::duration<double> elapsed = Clock::now() - start_;
    std::string bar;
    if (totalBytes_ || totalTime_) {
        const double done = totalBytes_
                                ? static_cast<double>(bytesDone) /
                                      static_cast<double>(std::max<uint64_t>(*totalBytes_, 1))
                                : elapsed / *totalTime_;
        const double part = std::clamp(done, 0.0, 1.0);
        bar = fmt::format("[{:-<{}}] {:3.0f} %  ",
                          std::string(static_cast<size_t>(part * kBarWidth), '#'), kBarWidth,
                          part * 100);
    }
    const double rate = static_cast<double>(bytesDone) / std::max(elapsed.count(), 1e-6) / 1e6;
    fmt::print(stderr, "\r{}{:>10}  {:6.1f} MB/s ", bar, sizeText(bytesDone), rate);
    std::fflush(stderr);
    drawn_ = true;
}

} // namespace tool
