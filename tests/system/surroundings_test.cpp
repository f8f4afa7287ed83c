// A driver's life in hostile surroundings: whatever fails, each call answers what is documented,
// what succeeds works, and everything is given back.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sched.h>

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "instrument_protocol.h"
#include "simulator.h"
#include "stream_reader.h"
#include "support/device_list_snapshot.h"

extern "C" uint64_t failAllocations(char kind, uint64_t number); // failing_allocations.cpp

namespace {

enum class At { Begin, Stream, End };
using Action = std::function<void(At)>; // what is done to a session

constexpr int kThrown = 99;
constexpr int kBeyond = 2;
constexpr int kNotWhole = 1 << 8; // a wait status
test::EventLog &events = test::EventLog::make();
std::atomic<_vexa_usb_device *> opened = nullptr;
bool scarce = false; // something is made to fail

// Aborts where it does not hold, which shows the stack.
void require(bool condition) {
    if (!condition)
        std::abort();
}

template <typename Call>
bool answers(std::initializer_list<int> documented, Call call) {
    int status = kThrown;
    try {
        status = call();
    } catch (const std::bad_alloc &) {
    } catch (const std::system_error &) {
    }
    require(std::ranges::count(documented, status) == 1);
    return status == 0;
}

int control(uint8_t request, uint8_t byte = 0) {
    uint8_t data[8] = {byte};
    return vexa_usb_control_transfer(opened, 0, 2, 0, request, 0, 0, data, sizeof(data));
}

// A strict stream: it does not end without a word.
bool streams(const Action &action) {
    constexpr uint64_t kBytes = 24UL * 65536;
    const auto start = []() { return vexa_usb_data_stream_start(opened, 0x82, 65536, 4096); };
    if (!answers({0, -1}, []() { return control(sim::kRequestSeek); }) ||
        !answers({0, -1, -4}, start))
        return false;
    action(At::Stream);
    const bool whole = test::StreamReader(opened, events).read(kBytes) == kBytes;
    require(whole || events.count(VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR) == 1);
    return answers({0}, []() { return vexa_usb_data_stream_stop(opened); }) && whole;
}

// Whether everything worked.
bool use(const Action &action) {
    uint8_t data[64] = {0x77};
    bool whole = answers({0, -1, -4}, []() { return vexa_usb_event_pipe_enable(opened, 0x81); });
    whole &= streams(action);
    whole &= answers({0, -1}, [&]() { return vexa_usb_bulk_write(opened, 0x03, data, 64); });
    data[0] = 0;
    whole &=
        whole && answers({0, -1}, [&]() { return vexa_usb_bulk_read(opened, 0x83, data, 64); });
    require(!whole || data[0] == 0x77);
    whole &= answers({0, -1}, []() { return control(sim::kRequestSendEvents, 0x77); });
    require(!whole || scarce || events.waitFor(0x77));
    return answers({0}, []() { return vexa_usb_close(opened.exchange(nullptr)); }) && whole;
}

bool session(const Action &action) {
    const auto open = []() {
        _vexa_usb_device *device = nullptr; // written on success only
        const int status = test::openFirst(events, device);
        opened = device;
        return status;
    };
    const bool begun = answers({0, kThrown}, []() { return vexa_usb_init(), 0; });
    bool whole = answers({begun ? 0 : -3, kThrown}, vexa_usb_update_device_list);
    whole &= answers({0, -1, kThrown}, open) && use(action);
    vexa_usb_fini();
    return whole;
}

// A session in a process of its own; the process's wait status.
int inChild(const Action &action) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(60);
        const size_t descriptors = test::openDescriptors();
        action(At::Begin);
        const bool whole = session(action);
        action(At::End);
        require(test::eventually([]() { return test::threads().size() == 1; }));
        require(test::openDescriptors() == descriptors);
        _exit(whole ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status;
}

// With that again and again on another thread.
int whileDoing(void (*what)(int), const Action &action = nullptr) {
    std::atomic<bool> over = false;
    std::thread thread;
    return inChild([&](At moment) {
        if (action)
            action(moment);
        over = moment == At::End;
        if (moment == At::Begin)
            thread = std::thread([&]() {
                for (int i = 0; !over; ++i)
                    what(i);
            });
        if (moment == At::End)
            thread.join();
    });
}

class SurroundingsTest : public ::testing::Test {
protected:
    SurroundingsTest() {
        setenv("VEXA_USB_STREAM", "strict", 1);
        EXPECT_TRUE(test::systemLists("5658:", 1));
    }
    ~SurroundingsTest() override {
        EXPECT_EQ(inChild([](At) {}), 0);
    }

    const test::Simulator simulator{{"instrument,speed=super"}, 1, false};
};

// One fails, each k-th does, all from the k-th on: for each k that a session reaches.
TEST_F(SurroundingsTest, Allocations) {
    const char *const wanted = std::getenv("VEXA_TEST_STEP");
    const uint64_t step = wanted == nullptr ? 1999 : std::stoull(wanted);
    scarce = true;
    for (const char kind : {'=', '%', '>'}) {
        int status = 0;
        uint64_t k = 1;
        for (; (status & ~kNotWhole) == 0; k += step)
            status = inChild([=](At moment) {
                if (moment == At::Begin)
                    failAllocations(kind, k);
                else if (moment == At::End && failAllocations('=', 0) < k)
                    _exit(kBeyond);
            });
        EXPECT_EQ(status, kBeyond << 8) << kind << k - step;
        std::printf("%lu sessions, %c%lu the last\n", k / step, kind, k - step);
    }
}

// From where nothing works to where everything does.
TEST_F(SurroundingsTest, Limits) {
    scarce = true;
    for (const auto what : {RLIMIT_NOFILE, RLIMIT_NPROC}) {
        int status = kNotWhole;
        rlim_t number = 1;
        for (; status == kNotWhole && number < 64; ++number)
            status = inChild([=](At moment) {
                const rlimit limits{moment == At::Begin ? number : 1000, 1000};
                if (moment == At::Begin && what == RLIMIT_NPROC)
                    require(setresuid(4242, 4242, 4242) == 0 && prctl(PR_SET_DUMPABLE, 1) == 0);
                require(setrlimit(what, &limits) == 0);
            });
        EXPECT_EQ(status, 0);
        EXPECT_LE(number - 1, what == RLIMIT_NOFILE ? 11 : 5);
    }
}

TEST_F(SurroundingsTest, NothingThere) {
    scarce = true;
    for (const char *const hidden : {"/dev/bus/usb", "/sys", "/run"}) {
        const int status = inChild([=](At moment) {
            require(moment != At::Begin ||
                    (unshare(CLONE_NEWNS | CLONE_NEWNET) == 0 &&
                     mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                     mount("none", hidden, "tmpfs", 0, nullptr) == 0));
        });
        EXPECT_EQ(status & ~kNotWhole, 0) << hidden;
    }
}

// A child that is forked at any moment execs, exits, or calls.
void fork(int how) {
    const pid_t child = ::fork();
    int status = 0;
    if (child != 0) {
        require(waitpid(child, &status, 0) == child && status == 0);
        return;
    }
    alarm(60);
    uint16_t size = 0;
    if (how % 3 == 0)
        execl("/bin/true", "true", nullptr);
    if (how % 3 == 1) {
        require(opened == nullptr || vexa_usb_get_max_packet_size(opened, 0x82, &size) == -1);
        require(vexa_usb_close(opened) == -3 && vexa_usb_update_device_list() == -3);
        vexa_usb_init(); // does something only if the library was not in use at the fork
        vexa_usb_update_device_list();
        vexa_usb_fini();
    }
    exit(0);
}

TEST_F(SurroundingsTest, Forks) {
    const auto forkSoon = [](int turn) {
        usleep(unsigned(rand()) % 3000);
        fork(turn);
    };
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(whileDoing(forkSoon), 0);
}

// A thread that is cancelled inside a call ends after it, and leaves everything usable.
void cancel() {
    pthread_t thread{};
    void *result = nullptr;
    const auto work = [](void *) -> void * {
        for (;; pthread_testcancel())
            control(sim::kRequestScratch);
    };
    pthread_create(&thread, nullptr, work, nullptr);
    usleep(unsigned(rand()) % 5000);
    pthread_cancel(thread);
    pthread_join(thread, &result);
    require(result == PTHREAD_CANCELED);
}

TEST_F(SurroundingsTest, SignalsAndCancellations) {
    struct sigaction interrupting {};
    interrupting.sa_handler = [](int) {};
    sigaction(SIGUSR1, &interrupting, nullptr);
    const auto signalAll = [](int turn) { // a thousand times a second
        static std::vector<pid_t> threads;
        static const auto begin = std::chrono::steady_clock::now();
        if (turn % 50 == 0)
            threads = test::threads();
        for (const pid_t thread : threads)
            tgkill(getpid(), thread, SIGUSR1);
        while (std::chrono::steady_clock::now() < begin + std::chrono::milliseconds(turn))
            sched_yield();
    };
    const auto waitAndCancel = [](At moment) {
        uint8_t byte = 0;
        const auto wait = [&]() { return vexa_usb_interrupt_read(opened, 0x84, &byte, 1); };
        if (moment != At::Stream)
            return;
        const auto took = test::timed([&]() { answers({-13}, wait); });
        require(took / std::chrono::milliseconds(100) >= 9 && took < std::chrono::seconds(2));
        for (int i = 0; i < 20; ++i)
            cancel();
    };
    EXPECT_EQ(whileDoing(signalAll, waitAndCancel), 0);
}

// Without the last fini; the session after it finds nothing missing.
TEST_F(SurroundingsTest, Exits) {
    const auto exitsThen = [](const std::function<void()> &exits) {
        return inChild([=](At moment) { moment == At::Stream ? exits() : void(); });
    };
    EXPECT_EQ(WTERMSIG(exitsThen([]() { exit(0); })), SIGABRT);
    EXPECT_EQ(WTERMSIG(exitsThen([]() { std::thread([]() { exit(0); }).join(); })), SIGABRT);
    EXPECT_EQ(exitsThen([]() { _exit(0); }), 0);
}

} // namespace
