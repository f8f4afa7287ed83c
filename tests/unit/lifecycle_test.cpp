// Start-up and shut-down.
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include "core/supported_devices.h"
#include "support/allocations.h"
#include "support/device_fixtures.h"

namespace {

const bool loopRunsAtFirst = vexausb::libusbRunning.load(); // before any test has set it

class LifecycleTest : public test::FakeBusTest {};

TEST_F(LifecycleTest, StartsAndStopsInOrder) {
    EXPECT_TRUE(loopRunsAtFirst);
    vexa_usb_init();
    vexa_usb_init();
    vexa_usb_fini();
    EXPECT_EQ(vexa_usb_update_device_list(), 0);
    vexa_usb_fini();
    EXPECT_EQ(vexa_usb_update_device_list(), -3);
    std::vector<std::string> expected{"libusb_init"};
    for (const vexausb::SupportedDevice &device : vexausb::supportedDevices)
        expected.push_back("libusb_hotplug_register_callback(" + std::to_string(device.vendor) +
                           "," + std::to_string(device.product) + ")");
    expected.insert(expected.end(),
                    {"libusb_get_device_list", "libusb_interrupt_event_handler", "libusb_exit"});
    EXPECT_EQ(fake::takeCalls(), expected);
}

TEST_F(LifecycleTest, WithoutContextTheListStaysEmpty) {
    fake::attach(VEXA_USB_VENDOR_ID, 1);
    fake::failCall("libusb_init");
    vexa_usb_init();
    EXPECT_EQ(vexa_usb_update_device_list(), 0);
    {
        const test::Snapshot snapshot;
        EXPECT_EQ(snapshot.status, 0);
        EXPECT_EQ(snapshot.count, 0U);
    }
    vexa_usb_fini();
    EXPECT_EQ(fake::takeCalls(), std::vector<std::string>{"libusb_init"});
    // Nothing was cleared that the next start needs.
    libusb_device *const late = fake::attach(VEXA_USB_VENDOR_ID, 2);
    vexa_usb_init();
    fake::notifyArrival(late);
    EXPECT_TRUE(test::eventually([]() { return test::Snapshot().count == 1; }));
    vexa_usb_fini();
}

TEST_F(LifecycleTest, ReinitialisedLibraryFollowsNoHotplugButUpdates) {
    vexa_usb_init();
    vexa_usb_fini();
    vexa_usb_init();
    {
        const vexausb::MutexLock lock(vexausb::initFiniMutex);
        vexausb::libusbThread.join(); // has ended by itself
        vexausb::libusbThread = std::thread([]() {});
    }
    fake::notifyArrival(fake::attach(VEXA_USB_VENDOR_ID, 1));
    fake::deliverEvents(); // as a synchronous transfer might
    EXPECT_EQ(test::Snapshot().count, 0U);
    EXPECT_EQ(vexa_usb_update_device_list(), 0);
    EXPECT_EQ(test::Snapshot().count, 1U);
    vexa_usb_fini();
}

// A thread that comes while the first init is at work is not made to wait, nor told that all is
// well.
TEST_F(LifecycleTest, NotReadyWhileTheFirstInitIsUnderWay) {
    fake::attach(VEXA_USB_VENDOR_ID, 1);
    int32_t updated = 0;
    int32_t opened = 0;
    fake::onCall("libusb_init", [&]() {
        vexa_usb_init();
        updated = vexa_usb_update_device_list();
        _vexa_usb_device_list_item item{};
        _vexa_usb_device *device = nullptr;
        opened = vexa_usb_open(&item, test::EventLog::callback, nullptr, &device);
        vexa_usb_fini();
    });
    vexa_usb_init();
    EXPECT_EQ(updated, -3);
    EXPECT_EQ(opened, -3);
    EXPECT_EQ(vexa_usb_update_device_list(), 0);
    vexa_usb_fini();
}

// What comes while the first init or the last fini is at work waits for its end; then the state is
// as the counter says, and whole.
TEST_F(LifecycleTest, InitAndFiniDuringATransition) {
    fake::attach(VEXA_USB_VENDOR_ID, 1);
    std::vector<std::thread> threads;
    const auto during = [&](const char *point, const std::vector<void (*)()> &calls) {
        fake::onCall(point, [&threads, calls]() {
            for (const auto call : calls) {
                const uint64_t before = vexausb::initCount.load();
                threads.emplace_back(call);
                EXPECT_TRUE(
                    test::eventually([&]() { return vexausb::initCount.load() != before; }));
                EXPECT_EQ(vexa_usb_update_device_list(), -3);
            }
        });
    };
    const auto expect = [&](uint64_t count, size_t starts) {
        for (std::thread &thread : std::exchange(threads, {}))
            thread.join();
        EXPECT_EQ(vexausb::initCount.load(), count);
        EXPECT_EQ(vexa_usb_update_device_list(), count == 0 ? -3 : 0);
        EXPECT_EQ(fake::countCalls("libusb_init"), starts);
        EXPECT_EQ(fake::countCalls("libusb_exit") + (count == 0 ? 0 : 1), starts);
    };
    during("libusb_init", {vexa_usb_fini, vexa_usb_init});
    vexa_usb_init();
    expect(1, 1);
    EXPECT_EQ(test::Snapshot().count, 1U);
    during("libusb_exit", {vexa_usb_init, vexa_usb_fini});
    vexa_usb_fini();
    expect(0, 1);
    during("libusb_init", {vexa_usb_fini});
    vexa_usb_init();
    expect(0, 2);
    vexa_usb_init();
    during("libusb_exit", {vexa_usb_init});
    vexa_usb_fini();
    expect(1, 4);
    EXPECT_EQ(test::Snapshot().count, 1U);
    vexa_usb_fini();
}

TEST_F(LifecycleTest, AChildOfAProcessThatUsesItCannotUseIt) {
    for (const bool inUse : {false, true}) {
        if (inUse)
            vexa_usb_init();
        const pid_t child = fork();
        if (child == 0) {
            alarm(10);
            vexa_usb_init();
            _exit(vexa_usb_update_device_list() == VEXA_USB_STATUS_NOT_INITIALIZED ? 3 : 4);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == (inUse ? 3 : 4)) << status;
    }
    vexa_usb_fini();
}

// Nothing is left of a device that is closed, whichever way, nor of a stream that is stopped.
class AccumulationTest : public test::DeviceTest {
protected:
    static size_t threadCount() {
        const std::filesystem::directory_iterator threads("/proc/self/task");
        return static_cast<size_t>(std::distance(begin(threads), end(threads)));
    }
    static uint64_t mappedPages() {
        uint64_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        return pages;
    }
};

TEST_F(AccumulationTest, WhatHasEndedIsForgotten) {
    constexpr uint64_t kAllowed = 40000;
    constexpr uint64_t kRingPages = 65536;
    std::thread([]() {}).join(); // the thread sanitizer has one of its own from the first on
    const size_t threads = threadCount();
    const uint64_t memory = allocations::inUse();
    for (int round = 0; round < 300; ++round) {
        ASSERT_EQ(start(8192, 4), 0);
        ASSERT_EQ(stop(), 0);
        fake::takeCalls();
    }
    EXPECT_TRUE(test::eventually([&]() { return allocations::inUse() < memory + kAllowed; }));
    setenv("VEXA_USB_RING", "private", 1);
    const uint64_t mapped = mappedPages();
    ASSERT_EQ(start(64U << 20, 4), 0);
    ASSERT_EQ(stop(), 0);
    // The thread that completes transfers may be the last to hold the ring.
    EXPECT_TRUE(test::eventually([&]() { return mappedPages() < mapped + kRingPages / 2; }));
    for (int round = 0; round < 300; ++round) {
        ASSERT_EQ(close(), 0);
        device = open();
        fake::takeCalls();
    }
    for (int round = 0; round < 100; ++round) {
        ASSERT_EQ(start(64U << 20, 4), 0);
        ASSERT_EQ(stop(), 0);
        ASSERT_EQ(start(64U << 20, 4), 0);
        ASSERT_EQ(enable(), 0);
        if (round % 2 == 0)
            reinitialise();
        ASSERT_EQ(close(), 0);
        beginAgain();
        fake::takeCalls();
    }
    EXPECT_TRUE(test::eventually([&]() { return allocations::inUse() < memory + kAllowed; }));
    // Threads have had room reserved for what they might allocate, which is less than this.
    EXPECT_TRUE(test::eventually([&]() { return mappedPages() < mapped + 20 * kRingPages; }));
    EXPECT_TRUE(test::eventually([&]() { return threadCount() <= threads; }));
}

class TearDownTest : public test::DeviceTest {
protected:
    // Has the last fini begin on a thread of its own, at the next call of that function, and go as
    // far as turning the device's callers away.
    void finiAt(const char *function) {
        fake::onCall(function, [this]() {
            finishing = std::thread(vexa_usb_fini);
            EXPECT_TRUE(test::eventually([this]() { return isTurnedAway(device); }));
        });
    }
    void expectTornDown() {
        finishing.join();
        EXPECT_TRUE(fake::inFlight().empty());
        vexa_usb_init();
        EXPECT_EQ(close(), 0);
        beginAgain();
    }

    std::thread finishing;
};

TEST_F(TearDownTest, OpenDuringTheLastFini) {
    const test::Snapshot snapshot;
    _vexa_usb_device *opened = nullptr;
    finiAt("libusb_claim_interface");
    EXPECT_EQ(vexa_usb_open(snapshot.list[0], test::EventLog::callback, &log, &opened), -1);
    EXPECT_EQ(opened, nullptr);
    expectTornDown();
}

TEST_F(TearDownTest, StartDuringTheLastFini) {
    for (const char *point :
         {"libusb_get_max_packet_size", "libusb_alloc_transfer", "libusb_submit_transfer"}) {
        SCOPED_TRACE(point);
        finiAt(point);
        EXPECT_EQ(start(512, 8), 0);
        expectTornDown();
        finiAt(point);
        enable(); // armed, or refused
        expectTornDown();
    }
}

// Both wait for the same transfers; one of them closes.
TEST_F(TearDownTest, CloseDuringTheLastFini) {
    ASSERT_EQ(start(512, 8), 0);
    fake::holdEvents(true);
    std::thread closing([this]() { EXPECT_EQ(close(), 0); });
    EXPECT_TRUE(test::eventually([]() { return fake::inFlight().empty(); }));
    std::thread fini(vexa_usb_fini);
    EXPECT_TRUE(test::eventually([]() { return vexa_usb_update_device_list() != 0; }));
    EXPECT_EQ(fake::countCalls("libusb_close"), 0U);
    fake::holdEvents(false);
    closing.join();
    fini.join();
    EXPECT_EQ(fake::countCalls("libusb_close"), 1U);
    vexa_usb_init();
}

} // namespace
