#include "stall_guard.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include <fmt/format.h>
#include <unistd.h>

#include "errors.h"

namespace tool {

namespace {

// Counted in steps: a program that was stopped (Ctrl-Z) loses one step of its time at most.
constexpr StallGuard::Seconds kStep{1};

} // namespace

StallGuard::StallGuard(Seconds atMost, std::string what, std::string hint)
    : atMost_(atMost), what_(std::move(what)), hint_(std::move(hint)) {
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
    Seconds left = atMost_;
    while (left.count() > 0) {
        const Seconds next = std::min(left, kStep);
        left -= next;
        if (changed_.wait_for(lock, stop, next, [this]() { return progressed_; }))
            left = atMost_;
        progressed_ = false;
        if (stop.stop_requested())
            return;
    }
    const char *const afterBar = isatty(STDERR_FILENO) != 0 ? "\n" : "";
    fmt::print(stderr, "{}vexa-usb: {}\n  {}\n", afterBar, what_, hint_);
    std::_Exit(static_cast<int>(Exit::Timeout));
}

} // namespace tool
