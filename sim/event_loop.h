#pragma once

#include <chrono>
#include <functional>
#include <map>

namespace sim {

class EventLoop {
public:
    using Clock = std::chrono::steady_clock;
    using Task = std::function<void()>;
    using Ready = std::function<void(short events)>;

    void watch(int descriptor, short events, Ready ready);
    void unwatch(int descriptor);
    void after(std::chrono::milliseconds delay, Task task);

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
