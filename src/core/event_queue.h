#pragma once

#include <cstddef>
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
 * refused.  The nodes of events that were handled are used again, so a queue that is kept short
 * allocates nothing.
 *
 * Locks: the mutex is taken inside the locks of producers, and no other lock is taken inside it.
 */
template <typename T>
class EventQueue : public std::enable_shared_from_this<EventQueue<T>> {
public:
    using Handler = std::function<void(const T &)>;
    // One event that is yet to be posted, or none.
    using Prepared = std::list<T>;

    explicit EventQueue(Handler handler) : handler_(std::move(handler)) {}
    ~EventQueue();
    EventQueue(const EventQueue &) = delete;
    EventQueue &operator=(const EventQueue &) = delete;

    // Starts the worker under that name; the owner calls it, once.
    void start(std::string name);
    static Prepared prepare(T event) { return Prepared(1, event); }
    // Posts nothing when it throws.
    void post(T event) EXCLUDES(mutex_);
    // False, and nothing is posted, for want of memory.
    bool tryPost(T event) noexcept EXCLUDES(mutex_);
    // Takes what was prepared; nothing happens when it was posted before.
    void post(Prepared &prepared) noexcept EXCLUDES(mutex_);
    // The handler in progress goes on, and is the last.
    void stop() EXCLUDES(mutex_);

private:
    static constexpr size_t kSpareLimit = 256;

    void work();
    bool takeNext(std::list<T> &inHand) EXCLUDES(mutex_);

    const Handler handler_;
    Mutex mutex_;
    Condition changed_;
    std::list<T> queue_ GUARDED_BY(mutex_);
    std::list<T> spare_ GUARDED_BY(mutex_); // nodes without an event
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
    if (spare_.empty())
        spare_.emplace_front();
    spare_.front() = std::move(event);
    queue_.splice(queue_.end(), spare_, spare_.begin());
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
    queue_.splice(queue_.end(), prepared);
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
    std::list<T> inHand;
    while (takeNext(inHand)) {
        handler_(inHand.front());
        inHand.front() = T{};
    }
}

// Exchanges the node in hand, if there is one, for the next event; false when there is none any
// more.
template <typename T>
bool EventQueue<T>::takeNext(std::list<T> &inHand) {
    const MutexLock lock(mutex_);
    if (spare_.size() < kSpareLimit)
        spare_.splice(spare_.begin(), inHand);
    else
        inHand.clear();
    while (queue_.empty() && !stopRequested_)
        changed_.wait(mutex_);
    if (stopRequested_)
        return false;
    inHand.splice(inHand.begin(), queue_, queue_.begin());
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
