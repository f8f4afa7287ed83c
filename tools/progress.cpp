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

Progress::Progress(bool forced, std::optional<uint64_t> bytes,
                   std::optional<std::chrono::duration<double>> time)
    : shown(forced || isatty(STDERR_FILENO) != 0), totalBytes(bytes), totalTime(time) {}

Progress::~Progress() {
    finish();
}

void Progress::finish() {
    if (!drawn)
        return;
    draw(lastBytes);
    fmt::print(stderr, "\n");
    drawn = false;
}

void Progress::update(uint64_t bytesDone) {
    lastBytes = bytesDone;
    if (!shown || Clock::now() < nextDraw)
        return;
    nextDraw = Clock::now() + kInterval;
    draw(bytesDone);
}

void Progress::draw(uint64_t bytesDone) {
    const std::chrono::duration<double> elapsed = Clock::now() - start;
    std::string bar;
    if (totalBytes || totalTime) {
        const double done = totalBytes ? static_cast<double>(bytesDone) /
                                             static_cast<double>(std::max<uint64_t>(*totalBytes, 1))
                                       : elapsed / *totalTime;
        const double part = std::clamp(done, 0.0, 1.0);
        bar = fmt::format("[{:-<{}}] {:3.0f} %  ",
                          std::string(static_cast<size_t>(part * kBarWidth), '#'), kBarWidth,
                          part * 100);
    }
    const double rate = static_cast<double>(bytesDone) / std::max(elapsed.count(), 1e-6) / 1e6;
    fmt::print(stderr, "\r{}{:>10}  {:6.1f} MB/s ", bar, sizeText(bytesDone), rate);
    std::fflush(stderr);
    drawn = true;
}

} // namespace tool
