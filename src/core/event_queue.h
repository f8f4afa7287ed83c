#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <new>
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
 * Memory: an event that must not fail for want of memory is prepared when memory can still be
 * refused.  The nodes of events that were handled are used again, so a queue that is kept short
 * allocates nothing.
 *
 * Locks: `mutex` guards `queue`, `spare` and `stopRequested`.  It is taken inside the locks of
 * producers, and no other lock is taken while it is held.  `thread` belongs to start() and the
 * destructor.
 */
template <typename T>
class EventQueue : public std::enable_shared_from_this<EventQueue<T>> {
public:
    using Handler = std::function<void(const T &)>;
    // One event that is yet to be posted, or none.
    using Prepared = std::list<T>;

    explicit EventQueue(Handler eventHandler) : handler(std::move(eventHandler)) {}
    ~EventQueue();
    EventQueue(const EventQueue &) = delete;
    EventQueue &operator=(const EventQueue &) = delete;

    void start(std::string name);
    static Prepared prepare(T event) { return Prepared(1, event); }
    // Posts nothing when it throws.
    void post(T event);
    // False, and nothing is posted, for want of memory.
    bool tryPost(T event) noexcept;
    // Takes what was prepared; nothing happens when it was posted before.
    void post(Prepared &prepared) noexcept;
    void stop();

private:
    static constexpr size_t kSpareLimit = 256;

    void work();
    void keepSpare(std::list<T> &handled);

    const Handler handler;
    std::list<T> queue;
    std::list<T> spare; // nodes without an event
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
    if (spare.empty())
        spare.emplace_front();
    spare.front() = std::move(event);
    queue.splice(queue.end(), spare, spare.begin());
    condition.notify_all();
}

template <typename T>
bool EventQueue<T>::tryPost(T event) noexcept {
    try {
        post(std::move(event));
        return true;
    } catch (const std::bad_alloc &) {
        return false;
    }
}

template <typename T>
void EventQueue<T>::post(Prepared &prepared) noexcept {
    const std::lock_guard lock(mutex);
    queue.splice(queue.end(), prepared);
    condition.notify_all();
}

template <typename T>
void EventQueue<T>::stop() {
    const std::lock_guard lock(mutex);
    stopRequested = true;
    condition.notify_all();
}

template <typename T>
void EventQueue<T>::keepSpare(std::list<T> &handled) {
    if (spare.size() < kSpareLimit)
        spare.splice(spare.begin(), handled);
    else
        handled.clear();
}

// What an event holds is released here, after its handler, and not under `mutex`.
template <typename T>
void EventQueue<T>::work() {
    std::list<T> inHand;
    for (;;) {
        std::unique_lock lock(mutex);
        keepSpare(inHand);
        condition.wait(lock, [this]() { return !queue.empty() || stopRequested; });
        if (stopRequested)
            return;
        inHand.splice(inHand.begin(), queue, queue.begin());
        lock.unlock();
        handler(inHand.front());
        inHand.front() = T{};
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
