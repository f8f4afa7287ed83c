#include "stall_guard.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include <fmt/format.h>
#include <unistd.h>

#include "errors.h"

namespace tool {

using vexausb::MutexLock;

namespace {

// Counted in steps: a program that was stopped (Ctrl-Z) loses one step of its time at most.
constexpr StallGuard::Seconds kStep{1};

} // namespace

StallGuard::StallGuard(Seconds atMost, std::string what, std::string hint)
    : atMost_(atMost), what_(std::move(what)), hint_(std::move(hint)) {
    if (atMost_.count() > 0)
        thread_ = std::thread([this]() { watch(); });
}

StallGuard::~StallGuard() {
    {
        const MutexLock lock(mutex_);
        ended_ = true;
        changed_.notifyAll();
    }
    if (thread_.joinable())
        thread_.join();
}

void StallGuard::noteProgress() {
    const MutexLock lock(mutex_);
    progressed_ = true;
    changed_.notifyAll();
}

bool StallGuard::waitForNews(Seconds atMost) {
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::duration_cast<std::chrono::steady_clock::duration>(atMost);
    return changed_.waitUntil(mutex_, end,
                              [this]() REQUIRES(mutex_) { return progressed_ || ended_; });
}

// Only an unplug or the library's end would end the call that hangs, and nobody can say when; so
// the program ends from here, without tidying up.
void StallGuard::watch() {
    const MutexLock lock(mutex_);
    Seconds left = atMost_;
    while (left.count() > 0) {
        const Seconds next = std::min(left, kStep);
        left = waitForNews(next) ? atMost_ : left - next;
        progressed_ = false;
        if (ended_)
            return;
    }
    const char *const afterBar = isatty(STDERR_FILENO) != 0 ? "\n" : "";
    fmt::print(stderr, "{}vexa-usb: {}\n  {}\n", afterBar, what_, hint_);
    std::_Exit(static_cast<int>(Exit::Timeout));
}

} // namespace tool
