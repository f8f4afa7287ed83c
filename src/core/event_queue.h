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
 * Hands events to a handler, one at a time and in the order of posting, on a worker thread of its
 * own.  So callers' code never runs on a thread that handles USB events, nor under a lock of the
 * library.
 *
 * Life: its owner makes it with std::make_shared, calls start() once and stop() at the end, and
 * releases it.  start() is a step of its own for two reasons.  The worker holds a reference to the
 * queue, and a constructor has none to give.  And only stop() ends the worker, so an owner whose
 * own construction can fail starts the queue last.
 *
 * An owner never waits for a handler in progress: it stops and releases the queue, which lives on
 * by the worker's reference.  Whoever releases it last destroys it, mostly the worker.  Events that
 * are still queued at the stop are dropped.
 *
 * Memory: an event that must be posted in any case is prepared early, where a failure can still be
 * reported.  The owner keeps it until it posts it.
 *
 * Locks: producers may hold locks of their own; no other lock is taken under the queue's mutex.
 */
template <typename T>
class EventQueue : public std::enable_shared_from_this<EventQueue<T>> {
public:
    using Handler = std::function<void(const T &)>;
    struct PreparedEvent {
        T event;
        uint64_t postedBefore = 0; // the value of posted_ when this one was posted
    };
    // A prepared event, with the memory that posting it takes; empty once it is posted.
    using Prepared = std::list<PreparedEvent>;

    explicit EventQueue(Handler handler) : handler_(std::move(handler)) {}
    ~EventQueue();
    EventQueue(const EventQueue &) = delete;
    EventQueue &operator=(const EventQueue &) = delete;

    // Starts the worker, a thread of that name.  When it throws, there is no worker.
    void start(std::string name);
    static Prepared prepare(T event) { return Prepared(1, PreparedEvent{std::move(event)}); }
    // Posts nothing when it throws.
    void post(T event) EXCLUDES(mutex_);
    // False, and nothing is posted, when there is no memory.
    bool tryPost(T event) noexcept EXCLUDES(mutex_);
    // Takes the event out of `prepared`; does nothing when that is empty.
    void post(Prepared &prepared) noexcept EXCLUDES(mutex_);
    // The handler in progress finishes; no other event is handled, and what is posted afterwards is
    // dropped.  May be called again.
    void stop() EXCLUDES(mutex_);

private:
    void work();
    bool takeNext(T &event) EXCLUDES(mutex_);

    const Handler handler_;
    Mutex mutex_;
    Condition changed_;
    std::deque<T> queue_ GUARDED_BY(mutex_);
    Prepared postedPrepared_ GUARDED_BY(mutex_); // in order
    uint64_t posted_ GUARDED_BY(mutex_) = 0;     // how many events have come to queue_
    uint64_t taken_ GUARDED_BY(mutex_) = 0;      // how many have left it
    bool stopRequested_ GUARDED_BY(mutex_) = false;
    std::thread thread_; // only start() and the destructor touch it
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
    for (PreparedEvent &event : prepared)
        event.postedBefore = posted_;
    postedPrepared_.splice(postedPrepared_.end(), prepared);
    changed_.notifyAll();
}

template <typename T>
void EventQueue<T>::stop() {
    const MutexLock lock(mutex_);
    stopRequested_ = true;
    changed_.notifyAll();
}

// Destroys each event here, after its handler has returned and not under the mutex.
template <typename T>
void EventQueue<T>::work() {
    for (;;) {
        T event{};
        if (!takeNext(event))
            return;
        handler_(event);
    }
}

// Waits for the next event; false when the queue was stopped.
template <typename T>
bool EventQueue<T>::takeNext(T &event) {
    const MutexLock lock(mutex_);
    changed_.wait(mutex_, [this]() REQUIRES(mutex_) {
        return !queue_.empty() || !postedPrepared_.empty() || stopRequested_;
    });
    if (stopRequested_)
        return false;
    if (!postedPrepared_.empty() && postedPrepared_.front().postedBefore == taken_) {
        event = std::move(postedPrepared_.front().event);
        postedPrepared_.pop_front();
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
