#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include <pthread.h>

#include "core/thread.h"

namespace vexausb {

/*
 * Hands events to a handler, one at a time and in the order of posting, on a worker thread of the
 * queue's own, so that callers' code never runs on a thread that handles USB events nor under a
 * lock of the library.
 *
 * Life: make with std::make_shared, start() once, post() from any thread, stop(), release.  The
 * worker holds a reference to the queue for as long as it runs, so an owner that stops and
 * releases never waits for a handler in progress; the queue then destroys itself on its worker.
 * Events still queued at the stop are dropped with the queue.
 *
 * Locks: `mutex` guards `queue` and `stopRequested`.  It is taken inside the locks of producers,
 * and no other lock is taken while it is held.  `thread` belongs to start() and the destructor.
 */
template <typename T>
class EventQueue : public std::enable_shared_from_this<EventQueue<T>> {
public:
    using Handler = std::function<void(const T &)>;

    explicit EventQueue(Handler eventHandler) : handler(std::move(eventHandler)) {}
    ~EventQueue();
    EventQueue(const EventQueue &) = delete;
    EventQueue &operator=(const EventQueue &) = delete;

    void start(std::string name);
    void post(T event);
    void stop();

private:
    void work();

    const Handler handler;
    std::deque<T> queue;
    std::mutex mutex;
    std::condition_variable condition;
    bool stopRequested = false;
    std::thread thread;
};

template <typename T>
void EventQueue<T>::start(std::string name) {
    thread = startThread(std::move(name), [self = this->shared_from_this()]() { self->work(); });
}

template <typename T>
void EventQueue<T>::post(T event) {
    const std::lock_guard lock(mutex);
    queue.push_back(std::move(event));
    condition.notify_all();
}

template <typename T>
void EventQueue<T>::stop() {
    const std::lock_guard lock(mutex);
    stopRequested = true;
    condition.notify_all();
}

// Moving an event out of the queue leaves no second reference behind: what an event holds is
// released here, after its handler, and not under `mutex`.
template <typename T>
void EventQueue<T>::work() {
    for (;;) {
        std::unique_lock lock(mutex);
        condition.wait(lock, [this]() { return !queue.empty() || stopRequested; });
        if (stopRequested)
            return;
        const T event = std::move(queue.front());
        queue.pop_front();
        lock.unlock();
        handler(event);
    }
}

template <typename T>
EventQueue<T>::~EventQueue() {
    if (pthread_equal(thread.native_handle(), pthread_self()) != 0)
        thread.detach();
    else if (thread.joinable())
        thread.join();
}

} // namespace vexausb
