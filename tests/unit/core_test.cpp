// The library frame: statuses, threads, the event queue, start-up and shut-down.
#include <array>
#include <csignal>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include <pthread.h>

#include "core/event_queue.h"
#include "core/status.h"
#include "core/supported_devices.h"
#include "core/thread.h"
#include "helpers.h"

namespace {

using vexausb::EventQueue;

std::string currentThreadName() {
    std::array<char, 16> name{};
    pthread_getname_np(pthread_self(), name.data(), name.size());
    return name.data();
}

TEST(Status, TextsAndMapping) {
    EXPECT_STREQ(vexa_usb_get_status_str(-14), "Not all data has been transferred");
    EXPECT_STREQ(vexa_usb_get_status_str(-8), "Stream buffer active error");
    EXPECT_STREQ(vexa_usb_get_status_str(0), "Success");
    EXPECT_STREQ(vexa_usb_get_status_str(1), "Data stream buffer empty");
    for (const int32_t none : {2, -15, INT32_MAX, INT32_MIN})
        EXPECT_STREQ(vexa_usb_get_status_str(none), "");
    EXPECT_EQ(vexausb::statusFromLibusbError(LIBUSB_ERROR_TIMEOUT), -13);
    EXPECT_EQ(vexausb::statusFromLibusbError(LIBUSB_ERROR_NO_DEVICE), -1);
    EXPECT_EQ(vexausb::statusFromLibusbError(1), -1);

    const _vexa_usb_version &version = *vexa_usb_get_version();
    EXPECT_EQ(&version, vexa_usb_get_version());
    EXPECT_EQ(version.minor, 8);
    EXPECT_EQ(version.patch, 2);
    EXPECT_EQ(version.build, 10);
    EXPECT_STREQ(version.suffix, "");
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
    while (!watch.expired())
        std::this_thread::yield();
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

// The nodes are used again, and what was prepared keeps its place.
TEST(EventQueue, KeepsItsOrderWithPreparedEvents) {
    std::promise<void> done;
    std::vector<int> handled;
    const auto queue = std::make_shared<EventQueue<int>>([&](const int &event) {
        handled.push_back(event);
        if (event == 1000)
            done.set_value();
    });
    queue->start("prepared");
    auto prepared = EventQueue<int>::prepare(500);
    std::vector<int> expected;
    for (int event = 0; event <= 1000; ++event) {
        if (event == 500)
            queue->post(prepared);
        else
            queue->post(event);
        expected.push_back(event);
    }
    queue->post(prepared); // posted already
    done.get_future().wait();
    queue->stop();
    EXPECT_EQ(handled, expected);
}

class LifecycleTest : public test::FakeBusTest {};

TEST_F(LifecycleTest, StartsAndStopsInOrder) {
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
    while (test::Snapshot().count == 0)
        std::this_thread::yield();
    vexa_usb_fini();
}

TEST_F(LifecycleTest, ReinitialisedLibraryFollowsNoHotplugButUpdates) {
    vexa_usb_init();
    vexa_usb_fini();
    vexa_usb_init();
    vexausb::libusbThread.join(); // has ended by itself
    vexausb::libusbThread = std::thread([]() {});
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

// Everything at once: the fake stops the program when a context is used or doubled wrongly.
TEST_F(LifecycleTest, ManyThreadsInitAndFini) {
    fake::attach(VEXA_USB_VENDOR_ID, 1);
    std::vector<std::thread> threads;
    for (int i = 0; i < 6; ++i) {
        threads.emplace_back([]() {
            for (int round = 0; round < 200; ++round) {
                vexa_usb_init();
                vexa_usb_update_device_list();
                test::EventLog &log = test::EventLog::make();
                {
                    const test::Snapshot snapshot;
                    _vexa_usb_device *device = nullptr;
                    if (snapshot.status == 0 && snapshot.count > 0 &&
                        vexa_usb_open(snapshot.list[0], test::EventLog::callback, &log, &device) ==
                            0) {
                        vexa_usb_data_stream_start(device, 0x82, 4096, 4);
                        vexa_usb_close(device);
                    }
                }
                vexa_usb_fini();
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(vexausb::initCount.load(), 0U);
    EXPECT_EQ(vexausb::currentDeviceList(), nullptr);
}

} // namespace
