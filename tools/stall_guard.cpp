#include "stall_guard.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include <fmt/format.h>

#include "errors.h"

namespace tool {

namespace {

constexpr StallGuard::Seconds kMost{1e9}; // the clock knows no more than some hundred years

} // namespace

StallGuard::StallGuard(Seconds atMost, std::string what, std::string hint)
    : atMost_(std::min(atMost, kMost)), what_(std::move(what)), hint_(std::move(hint)) {
    if (atMost_.count() > 0)
        thread_ = std::jthread([this](const std::stop_token &stop) { watch(stop); });
}

void StallGuard::noteProgress() {
    const std::lock_guard lock(mutex_);
    progressed_ = true;
    changed_.notify_all();
}

// Only an unplug or the library's end would end the call that hangs, and nobody can say when; so
// the program ends from here, without tidying up.
void StallGuard::watch(const std::stop_token &stop) {
    std::unique_lock lock(mutex_);
    while (changed_.wait_for(lock, stop, atMost_, [this]() { return progressed_; }))
        progressed_ = false;
    if (stop.stop_requested())
        return;
    fmt::print(stderr, "\nvexa-usb: {}\n  {}\n", what_, hint_);
    std::_Exit(static_cast<int>(Exit::Timeout));
}

} // namespace tool
