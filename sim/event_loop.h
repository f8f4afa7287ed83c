#pragma once

#include <chrono>
#include <functional>
#include <map>

namespace sim {

/*
 * Waits for file descriptors and for points in time, and calls those who asked for them.
 *
 * Threads: the whole simulator runs on the one thread that calls run(), so it needs no locks.
 */
class EventLoop {
public:
    using Clock = std::chrono::steady_clock;
    using Task = std::function<void()>;
    using Ready = std::function<void(short events)>;

    // Calls `ready` whenever one of these events of poll() occurs; replaces an earlier watch.
    void watch(int descriptor, short events, Ready ready);
    void unwatch(int descriptor);
    // Runs the task after that time, from run() and never from within this call.
    void after(std::chrono::milliseconds delay, Task task);

    // Returns after quit(), which a handler or a task calls.
    void run();
    void quit() { running_ = false; }

private:
    struct Watch {
        short events;
        Ready ready;
    };

    void runDueTasks();
    int millisecondsToNextTask() const;

    std::map<int, Watch> watches_;
    std::multimap<Clock::time_point, Task> tasks_;
    bool running_ = true;
};

} // namespace sim
