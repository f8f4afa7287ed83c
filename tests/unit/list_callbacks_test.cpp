// Callbacks for changes of the device list.
#include <functional>
#include <future>
#include <thread>

#include "support/change_log.h"
#include "support/device_fixtures.h"

namespace {

using test::ChangeLog;

constexpr uint16_t kVendor = VEXA_USB_VENDOR_ID;
constexpr uint32_t kAdded = VEXA_USB_DEVICE_LIST_EVENT_ADDED;
constexpr uint32_t kRemoved = VEXA_USB_DEVICE_LIST_EVENT_REMOVED;

class ListEventsTest : public test::FakeBusTest {
protected:
    ListEventsTest() { vexa_usb_init(); }
    ~ListEventsTest() override { vexa_usb_fini(); }
    static libusb_device *plug() {
        libusb_device *const device = fake::attach(kVendor, 1);
        fake::notifyArrival(device);
        return device;
    }
    static void unplug(libusb_device *device) {
        fake::detach(device);
        fake::notifyDeparture(device);
    }
};

TEST_F(ListEventsTest, EveryChangeReachesEveryCallbackInOrder) {
    ChangeLog &first = ChangeLog::add();
    ChangeLog &second = ChangeLog::add();
    EXPECT_EQ(first.id, 0U);
    EXPECT_EQ(second.id, 1U);
    libusb_device *const device = plug();
    ASSERT_TRUE(second.waitFor(1));
    const uint64_t id = second.all()[0].second;
    unplug(device);
    fake::attach(kVendor, 2);
    vexa_usb_update_device_list(); // perhaps before the departure: then it comes first
    ASSERT_TRUE(second.waitFor(3));
    EXPECT_EQ(vexa_usb_deregister_device_list_event_callback(first.id), 0);
    plug();
    ASSERT_TRUE(second.waitFor(4));
    const auto seen = second.all();
    EXPECT_EQ(std::count(seen.begin(), seen.end(), std::pair(kRemoved, id)), 1);
    EXPECT_EQ(seen[0], std::pair(kAdded, id));
    EXPECT_EQ(first.all(), (std::vector(seen.begin(), seen.begin() + 3)));
}

// Whatever a callback does, the delivery goes on with the callbacks that it began with.
TEST_F(ListEventsTest, CallbacksMayRegisterDeregisterAndOpen) {
    ChangeLog *inner = nullptr;
    int32_t opened = 1;
    int32_t openedWhenGone = 0;
    test::EventLog &log = test::EventLog::make();
    const auto open = [&](const _vexa_usb_device_list_item &item) {
        _vexa_usb_device *device = nullptr;
        const int32_t status = vexa_usb_open(&item, test::EventLog::callback, &log, &device);
        if (status == 0)
            vexa_usb_close(device);
        return status;
    };
    ChangeLog::add([&](uint32_t type, const _vexa_usb_device_list_item &item) {
        if (type == kRemoved) {
            openedWhenGone = open(item);
            return;
        }
        opened = open(item);
        inner = &ChangeLog::add();
        vexa_usb_deregister_device_list_event_callback(1); // the next in turn: still called
    });
    ChangeLog &next = ChangeLog::add();
    libusb_device *const device = plug();
    ASSERT_TRUE(next.waitFor(1));
    EXPECT_EQ(opened, 0);
    EXPECT_TRUE(inner->all().empty());
    // By the time that the callback hears of it, another device has its address.
    fake::describe(fake::attach(kVendor, 2)).address = fake::describe(device).address;
    unplug(device);
    ASSERT_TRUE(inner->waitFor(1));
    EXPECT_EQ(openedWhenGone, -1);
    EXPECT_EQ(next.all().size(), 1U);
}

// Registrations that come and go meanwhile keep no change from the one that stays.
TEST_F(ListEventsTest, RegistrationsDuringDeliveries) {
    constexpr size_t kRounds = 100;
    ChangeLog &staying = ChangeLog::add();
    std::thread changes([]() {
        for (size_t round = 0; round < kRounds; ++round)
            unplug(plug());
    });
    for (size_t round = 0; round < kRounds; ++round)
        EXPECT_EQ(vexa_usb_deregister_device_list_event_callback(ChangeLog::add().id), 0);
    changes.join();
    EXPECT_TRUE(staying.waitFor(2 * kRounds));
}

// A device that leaves too late for the opening to fail: its user hears of it all the same.
TEST_F(ListEventsTest, RemovalInTheMiddleOfOpening) {
    libusb_device *const device = fake::attach(kVendor, 1);
    vexa_usb_update_device_list();
    const test::Snapshot before;
    fake::onCall("libusb_claim_interface", [device]() {
        unplug(device);
        EXPECT_TRUE(test::eventually([]() { return test::Snapshot().count == 0; }));
    });
    test::EventLog &log = test::EventLog::make();
    _vexa_usb_device *opened = nullptr;
    ASSERT_EQ(vexa_usb_open(before.list[0], test::EventLog::callback, &log, &opened), 0);
    EXPECT_TRUE(log.waitFor(VEXA_USB_DEVICE_EVENT_REMOVED));
    EXPECT_EQ(vexa_usb_event_pipe_enable(opened, 0x81), -12);
    _vexa_usb_device *again = nullptr; // its entry is no more
    EXPECT_EQ(vexa_usb_open(before.list[0], test::EventLog::callback, &log, &again), -1);
    EXPECT_EQ(vexa_usb_close(opened), 0);
    EXPECT_EQ(log.all().size(), 1U);
}

// The last fini during a delivery, from another thread and from the callback itself.
TEST_F(ListEventsTest, FiniDuringADelivery) {
    for (int round = 0; round < 200; ++round) {
        std::promise<void> inside;
        std::promise<void> left;
        std::promise<void> ended; // by another thread, while the callback goes on
        const bool within = round % 2 == 0;
        ChangeLog::add([&, within](uint32_t, const _vexa_usb_device_list_item &) {
            if (within)
                vexa_usb_fini();
            inside.set_value();
            if (!within)
                ended.get_future().wait();
            vexa_usb_get_device_list(nullptr, nullptr);
            left.set_value();
        });
        libusb_device *const device = fake::attach(kVendor, 1);
        vexa_usb_update_device_list();
        inside.get_future().wait();
        if (!within) {
            vexa_usb_fini();
            ended.set_value();
        }
        left.get_future().wait();
        fake::detach(device);
        vexausb::libusbRunning.store(true);
        vexa_usb_init();
    }
}

} // namespace
