#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <utility>

#include <pthread.h>

#include "core/mutex.h"
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
 * refused, and waits with its owner until it is posted.
 *
 * Locks: the mutex is taken inside the locks of producers, and no other lock is taken inside it.
 */
template <typename T>
class EventQueue : public std::enable_shared_from_this<EventQueue<T>> {
public:
    using Handler = std::function<void(const T &)>;
    // An event that is yet to be posted, and its place among the others once it is.
    struct Late {
        T event;
        uint64_t place = 0; // number of events that were posted before it without preparation
    };
    // One, or none.
    using Prepared = std::list<Late>;

    explicit EventQueue(Handler handler) : handler_(std::move(handler)) {}
    ~EventQueue();
    EventQueue(const EventQueue &) = delete;
    EventQueue &operator=(const EventQueue &) = delete;

    // Starts the worker under that name; the owner calls it, once.
    void start(std::string name);
    static Prepared prepare(T event) { return Prepared(1, Late{std::move(event)}); }
    // Posts nothing when it throws.
    void post(T event) EXCLUDES(mutex_);
    // False, and nothing is posted, for want of memory.
    bool tryPost(T event) noexcept EXCLUDES(mutex_);
    // Takes what was prepared; nothing happens when it was posted before.
    void post(Prepared &prepared) noexcept EXCLUDES(mutex_);
    // The handler in progress goes on, and is the last.
    void stop() EXCLUDES(mutex_);

private:
    void work();
    bool takeNext(T &event) EXCLUDES(mutex_);

    const Handler handler_;
    Mutex mutex_;
    Condition changed_;
    std::deque<T> queue_ GUARDED_BY(mutex_);
    std::list<Late> late_ GUARDED_BY(mutex_); // prepared and posted, in order
    uint64_t posted_ GUARDED_BY(mutex_) = 0;  // that have come to queue_
    uint64_t taken_ GUARDED_BY(mutex_) = 0;   // that have left it
    bool stopRequested_ GUARDED_BY(mutex_) = false;
    std::thread thread_; // start()'s and the destructor's
};

template <typename T>
void EventQueue<T>::start(std::string name) {
    thread_ = startThread(std::move(name), [self = this->shared_from_this()]() { self->work(); });
}

template <typename T>
void EventQueue<T>::post(T event) {
    const MutexLock lock(mutex_);
    queue_.push_back(std::move(event));
    ++posted_;
    changed_.notifyAll();
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
    const MutexLock lock(mutex_);
    for (Late &late : prepared)
        late.place = posted_;
    late_.splice(late_.end(), prepared);
    changed_.notifyAll();
}

template <typename T>
void EventQueue<T>::stop() {
    const MutexLock lock(mutex_);
    stopRequested_ = true;
    changed_.notifyAll();
}

// What an event holds is released here, after its handler, and not under the mutex.
template <typename T>
void EventQueue<T>::work() {
    for (;;) {
        T event{};
        if (!takeNext(event))
            return;
        handler_(event);
    }
}

// Waits for the next event; false when there is none any more.
template <typename T>
bool EventQueue<T>::takeNext(T &event) {
    const MutexLock lock(mutex_);
    while (queue_.empty() && late_.empty() && !stopRequested_)
        changed_.wait(mutex_);
    if (stopRequested_)
        return false;
    if (!late_.empty() && late_.front().place == taken_) {
        event = std::move(late_.front().event);
        late_.pop_front();
    } else {
        event = std::move(queue_.front());
        queue_.pop_front();
        ++taken_;
    }
    return true;
}

template <typename T>
EventQueue<T>::~EventQueue() {
    if (pthread_equal(thread_.native_handle(), pthread_self()) != 0)
        thread_.detach();
    else if (thread_.joinable())
        thread_.join();
}

} // namespace vexausb
