#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

// Annotations by which clang checks locks at compile time (-Wthread-safety); others ignore them.
#if defined(__clang__)
#define VEXA_THREAD_ANNOTATION(annotation) __attribute__((annotation))
#else
#define VEXA_THREAD_ANNOTATION(annotation)
#endif

#define GUARDED_BY(lock) VEXA_THREAD_ANNOTATION(guarded_by(lock))
#define REQUIRES(...) VEXA_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) VEXA_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) VEXA_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) VEXA_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) VEXA_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define SCOPED_LOCKABLE VEXA_THREAD_ANNOTATION(scoped_lockable)
#define NO_THREAD_SAFETY_ANALYSIS VEXA_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace vexausb {

// A std::mutex that the annotations can name.
class VEXA_THREAD_ANNOTATION(capability("mutex")) Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex &) = delete;
    Mutex &operator=(const Mutex &) = delete;

    void lock() ACQUIRE() { inner_.lock(); }
    bool tryLock() TRY_ACQUIRE(true) { return inner_.try_lock(); }
    void unlock() RELEASE() { inner_.unlock(); }

private:
    friend class Condition;

    std::mutex inner_;
};

// Holds a mutex for as long as it lives.
class SCOPED_LOCKABLE MutexLock {
public:
    explicit MutexLock(Mutex &mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~MutexLock() RELEASE() { mutex_.unlock(); }
    MutexLock(const MutexLock &) = delete;
    MutexLock &operator=(const MutexLock &) = delete;

private:
    Mutex &mutex_;
};

// A condition variable for a Mutex.  The predicate runs with the mutex held; a lambda says so with
// REQUIRES(mutex).  It must not throw: the mutex would be unlocked twice.
class Condition {
public:
    template <typename Predicate>
    void wait(Mutex &mutex, Predicate isTrue) REQUIRES(mutex) {
        std::unique_lock lock(mutex.inner_, std::adopt_lock);
        inner_.wait(lock, isTrue);
        lock.release(); // still held, by the caller
    }
    // Whether it became true by that time.
    template <typename Predicate>
    bool waitUntil(Mutex &mutex, std::chrono::steady_clock::time_point time, Predicate isTrue)
        REQUIRES(mutex) {
        std::unique_lock lock(mutex.inner_, std::adopt_lock);
        const bool became = inner_.wait_until(lock, time, isTrue);
        lock.release();
        return became;
    }
    void notifyOne() { inner_.notify_one(); }
    void notifyAll() { inner_.notify_all(); }

private:
    std::condition_variable inner_;
};

} // namespace vexausb
