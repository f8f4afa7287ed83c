// Threads and the event queue.
#include <array>
#include <chrono>
#include <csignal>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <pthread.h>

#include "core/event_queue.h"
#include "core/thread.h"
#include "support/waiting.h"

namespace {

using vexausb::EventQueue;

std::string currentThreadName() {
    std::array<char, 16> name{};
    pthread_getname_np(pthread_self(), name.data(), name.size());
    return name.data();
}

// What reports a fault of the thread itself stays deliverable, even if the caller blocks it.
TEST(Thread, NamesAreCutAndSignalsBlocked) {
    std::string name;
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGSEGV);
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    vexausb::startThread("a-name-of-20-letters", [&]() {
        name = currentThreadName();
        vexausb::setThreadName("");
        EXPECT_EQ(currentThreadName(), name);
        pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    }).join();
    EXPECT_EQ(name, "a-name-of-20-le");
    EXPECT_TRUE(sigismember(&blocked, SIGINT) && sigismember(&blocked, SIGALRM));
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS})
        EXPECT_FALSE(sigismember(&blocked, fault)) << fault;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_FALSE(sigismember(&blocked, SIGINT));
    EXPECT_TRUE(sigismember(&blocked, SIGSEGV));
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// The handler in hand finishes, what is queued behind it is dropped, and nobody is waited for.
TEST(EventQueue, StopDropsWhatIsQueued) {
    struct Shared {
        std::promise<void> entered;
        std::promise<void> goOn;
        std::vector<int> handled;
    };
    const auto shared = std::make_shared<Shared>();
    auto queue = std::make_shared<EventQueue<int>>([shared](const int &event) {
        shared->handled.push_back(event);
        if (event == 2) {
            shared->entered.set_value();
            shared->goOn.get_future().wait();
        }
    });
    const std::weak_ptr<EventQueue<int>> watch = queue;
    for (int event = 1; event <= 5; ++event)
        queue->post(event);
    queue->start("queue-test");
    shared->entered.get_future().wait();
    queue->stop();
    queue->post(6);
    queue.reset();
    EXPECT_FALSE(watch.expired());
    shared->goOn.set_value();
    EXPECT_TRUE(test::eventually([&]() { return watch.expired(); }));
    EXPECT_EQ(shared->handled, (std::vector<int>{1, 2}));
}

// What an event holds is released by the worker, after the handler, and nowhere else.
TEST(EventQueue, ReleasesEventsOnItsWorker) {
    std::promise<std::string> releasedOn;
    auto event = std::shared_ptr<int>(new int(0), [&](const int *value) {
        delete value;
        releasedOn.set_value(currentThreadName());
    });
    std::promise<void> handled;
    auto queue = std::make_shared<EventQueue<std::shared_ptr<int>>>(
        [&](const std::shared_ptr<int> &) { handled.set_value(); });
    queue->start("releasing");
    queue->post(std::move(event));
    handled.get_future().wait();
    EXPECT_EQ(releasedOn.get_future().get(), "releasing");
    queue->stop();
}

} // namespace
