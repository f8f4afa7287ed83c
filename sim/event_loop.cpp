#include "event_loop.h"

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>
#include <vector>

#include <poll.h>

namespace sim {

void EventLoop::watch(int descriptor, short events, Ready ready) {
    watches_[descriptor] = {events, std::move(ready)};
}

void EventLoop::unwatch(int descriptor) {
    watches_.erase(descriptor);
}

void EventLoop::after(std::chrono::milliseconds delay, Task task) {
    tasks_.emplace(Clock::now() + delay, std::move(task));
}

// A handler may add and remove watches, its own, too.  So each is looked up again and copied before
// it is called.
void EventLoop::run() {
    std::vector<pollfd> polled;
    while (running_) {
        runDueTasks();
        polled.clear();
        for (const auto &[descriptor, watch] : watches_)
            polled.push_back({descriptor, watch.events, 0});
        if (poll(polled.data(), polled.size(), millisecondsToNextTask()) < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "poll");
        for (const pollfd &entry : polled) {
            const auto found = watches_.find(entry.fd);
            if (entry.revents == 0 || found == watches_.end())
                continue;
            const Ready ready = found->second.ready;
            ready(entry.revents);
        }
    }
}

void EventLoop::runDueTasks() {
    const Clock::time_point now = Clock::now();
    while (!tasks_.empty() && tasks_.begin()->first <= now) {
        const Task task = std::move(tasks_.begin()->second);
        tasks_.erase(tasks_.begin());
        task();
    }
}

int EventLoop::millisecondsToNextTask() const {
    if (tasks_.empty())
        return -1;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(tasks_.begin()->first - Clock::now());
    return static_cast<int>(std::clamp<int64_t>(left.count(), 0, 60000));
}

} // namespace sim
