#include "fuzz/calls/scheduler.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <semaphore>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "support/allocations.h"

using Create = int(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
// The address sanitizer's own, where it is linked statically.
extern "C" __attribute__((weak))
Create __interceptor_pthread_create; // NOLINT(readability-identifier-naming)

namespace {

constexpr uint64_t kNever = UINT64_MAX;
constexpr uint64_t kSecond = 1000000000;
constexpr uint64_t kLongWait = kSecond / 10; // above the loaders' pauses and the event duty's
constexpr uint64_t kMostSteps = 2000000;
constexpr unsigned kTimePasses = 7; // as the upper three bits of a choice

struct Task {
    enum class State { Ready, Waiting, Ended };

    State state = State::Ready;
    const void *awaited = nullptr;
    uint64_t deadline = kNever;
    uint64_t patience = 0; // of the last wait with a deadline
    bool isLate = false;   // the deadline has ended the wait
    size_t locks = 0;
    std::binary_semaphore turn{0};
    pthread_t thread = pthread_self();
    void *(*body)(void *) = nullptr;
    void *argument = nullptr;
};

thread_local Task *self = nullptr; // null outside begin() and end()

// The rest belongs to whoever has the turn.
std::vector<std::unique_ptr<Task>> tasks; // oldest first
std::span<const uint8_t> choices;
uint64_t pointsToSwitch = 0; // 0: no switch comes
uint64_t steps = 0;
uint64_t now = kSecond; // nanoseconds
bool threadFails = false;
bool longEndedEarly = false;

[[noreturn]] void giveUp(const char *why) {
    std::printf("scheduler: %s\n", why);
    for (const auto &task : tasks) {
        std::array<char, 16> name{};
        if (task->state != Task::State::Ended)
            pthread_getname_np(task->thread, name.data(), name.size());
        std::printf("  '%s' state %d, awaits %p, holds %zu locks\n", name.data(),
                    static_cast<int>(task->state), task->awaited, task->locks);
    }
    std::fflush(stdout);
    self = nullptr; // what the fuzzer does now is not scheduled
    std::abort();
}

void countStep() {
    if (++steps > kMostSteps)
        giveUp("no end is in sight");
}

// Of those that are ready the one that many behind the caller, which comes last itself.
Task *ready(size_t skip) {
    std::vector<Task *> found;
    size_t older = 0; // than the caller, or the caller
    for (const auto &task : tasks) {
        if (task->state == Task::State::Ready)
            found.push_back(task.get());
        older = task.get() == self ? found.size() : older;
    }
    return found.empty() ? nullptr : found[(older + skip) % found.size()];
}

// Ends the wait that has the earliest deadline.
Task *letTimePass() {
    const auto first = std::min_element(tasks.begin(), tasks.end(),
                                        [](auto &a, auto &b) { return a->deadline < b->deadline; });
    Task &task = **first;
    if (task.deadline == kNever)
        return nullptr;
    now = std::max(now, std::exchange(task.deadline, kNever));
    task.isLate = true;
    task.state = Task::State::Ready;
    return &task;
}

void wake(const void *awaited, size_t atMost = SIZE_MAX) {
    for (const auto &task : tasks) {
        if (atMost == 0 || task->state != Task::State::Waiting || task->awaited != awaited)
            continue;
        task->state = Task::State::Ready;
        --atMost;
    }
}

// When the caller cannot go on.
Task &successor() {
    countStep();
    Task *task = ready(0);
    if (task == nullptr)
        task = letTimePass();
    if (task == nullptr)
        wake(&tasks); // who settles
    if (task == nullptr)
        task = ready(0);
    if (task == nullptr)
        giveUp("deadlock");
    return *task;
}

void giveTurnTo(Task &task) {
    if (&task == self)
        return;
    task.turn.release();
    self->turn.acquire();
}

// Where another may go on.
void point() {
    countStep();
    if (pointsToSwitch == 0 || --pointsToSwitch > 0 || choices.empty())
        return;
    const allocations::Exempt exempt;
    const unsigned pause = choices.back() & 0x1FU;
    const unsigned which = choices.back() >> 5U;
    pointsToSwitch = 1 + pause * pause / 4;
    choices = choices.first(choices.size() - 1);
    Task *const other = which == kTimePasses ? letTimePass() : ready(which);
    if (which == kTimePasses && other != nullptr && other->patience >= kLongWait)
        longEndedEarly = true;
    if (other != nullptr)
        giveTurnTo(*other);
}

// False when the deadline has ended it.
bool waitFor(const void *what, uint64_t deadline = kNever) {
    const allocations::Exempt exempt;
    self->state = Task::State::Waiting;
    self->awaited = what;
    self->deadline = deadline;
    self->patience = deadline - std::min(deadline, now);
    self->isLate = false;
    giveTurnTo(successor());
    self->deadline = kNever;
    return !self->isLate;
}

// A mutex has its owner where the C library counts.
void lock(pthread_mutex_t *mutex) {
    while (mutex->__align != 0)
        waitFor(mutex);
    mutex->__align = reinterpret_cast<intptr_t>(self);
    ++self->locks;
}

void unlock(pthread_mutex_t *mutex) {
    mutex->__align = 0;
    --self->locks;
    wake(mutex);
}

bool waitOn(pthread_cond_t *condition, pthread_mutex_t *mutex, uint64_t deadline = kNever) {
    unlock(mutex);
    const bool inTime = waitFor(condition, deadline);
    lock(mutex);
    return inTime;
}

uint64_t nanoseconds(const timespec &time) {
    return static_cast<uint64_t>(time.tv_sec) * kSecond + static_cast<uint64_t>(time.tv_nsec);
}

void *runTask(void *argument) {
    self = static_cast<Task *>(argument);
    self->turn.acquire();
    void *const result = self->body(self->argument);
    const allocations::Exempt exempt;
    self->state = Task::State::Ended;
    wake(self);
    Task &next = successor();
    self = nullptr;
    next.turn.release();
    return result;
}

template <typename Function>
Function *real(Function & /*shape*/, const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

namespace scheduler {

void begin(std::span<const uint8_t> input) {
    choices = input;
    pointsToSwitch = 1;
    steps = 0;
    now = kSecond;
    threadFails = false;
    longEndedEarly = false;
    self = tasks.emplace_back(std::make_unique<Task>()).get();
}

void settle() {
    waitFor(&tasks);
}

void end() {
    settle();
    for (const auto &task : tasks) {
        if (task.get() != self && task->state != Task::State::Ended)
            giveUp("a thread does not end");
    }
    self = nullptr;
    tasks.clear();
}

bool holdsLock() {
    return self->locks > 0;
}

bool failNextThread(bool fails) {
    return std::exchange(threadFails, fails);
}

bool longWaitEndedEarly() {
    return longEndedEarly;
}

} // namespace scheduler

// With parameters named as they are here.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" {
// The C++ library, from which comes the time of a steady clock, has to find these here.
#pragma GCC visibility push(default)

int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *),
                   void *argument) {
    static auto *const create = __interceptor_pthread_create != nullptr
                                    ? &__interceptor_pthread_create
                                    : real<Create>(__interceptor_pthread_create, "pthread_create");
    if (self == nullptr)
        return create(thread, attributes, body, argument);
    if (std::exchange(threadFails, false))
        return EAGAIN;
    {
        const allocations::Exempt exempt;
        Task &task = *tasks.emplace_back(std::make_unique<Task>());
        task.body = body;
        task.argument = argument;
        if (create(thread, attributes, runTask, &task) != 0)
            giveUp("the system starts no thread");
        task.thread = *thread;
    }
    point();
    return 0;
}

int pthread_join(pthread_t thread, void **result) {
    Task *joined = nullptr;
    for (const auto &task : tasks)
        joined = pthread_equal(task->thread, thread) != 0 ? task.get() : joined;
    while (self != nullptr && joined != nullptr && joined->state != Task::State::Ended)
        waitFor(joined);
    return real(pthread_join, "pthread_join")(thread, result);
}

int pthread_mutex_lock(pthread_mutex_t *mutex) {
    if (self == nullptr)
        return real(pthread_mutex_lock, "pthread_mutex_lock")(mutex);
    point();
    lock(mutex);
    return 0;
}

int pthread_mutex_unlock(pthread_mutex_t *mutex) {
    if (self == nullptr)
        return real(pthread_mutex_unlock, "pthread_mutex_unlock")(mutex);
    unlock(mutex);
    point();
    return 0;
}

// Only the library and the stand-in wait like this, inside begin() and end().
int pthread_cond_wait(pthread_cond_t *condition, pthread_mutex_t *mutex) {
    waitOn(condition, mutex);
    return 0;
}

int pthread_cond_clockwait(pthread_cond_t *condition, pthread_mutex_t *mutex, clockid_t /*clock*/,
                           const timespec *end) {
    return waitOn(condition, mutex, nanoseconds(*end)) ? 0 : ETIMEDOUT;
}

int pthread_cond_signal(pthread_cond_t *condition) {
    wake(condition, 1);
    return 0;
}

int pthread_cond_broadcast(pthread_cond_t *condition) {
    wake(condition);
    return 0;
}

int nanosleep(const timespec *duration, timespec *rest) {
    if (self == nullptr)
        return static_cast<int>(syscall(SYS_nanosleep, duration, rest));
    waitFor(nullptr, now + nanoseconds(*duration));
    return 0;
}

int clock_gettime(clockid_t clock, timespec *time) {
    if (self == nullptr || clock != CLOCK_MONOTONIC)
        return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    time->tv_sec = static_cast<time_t>(now / kSecond);
    time->tv_nsec = static_cast<long>(now % kSecond);
    return 0;
}
#pragma GCC visibility pop

} // extern "C"
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
