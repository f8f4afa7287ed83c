// The device list and its entries, the callbacks for its changes, and opening from it.
#include "support/change_log.h"
#include "support/device_fixtures.h"

namespace {

using namespace test;

constexpr uint16_t kVendor = VEXA_USB_VENDOR_ID;
constexpr uint32_t kAdded = VEXA_USB_DEVICE_LIST_EVENT_ADDED;
constexpr uint32_t kGone = VEXA_USB_DEVICE_LIST_EVENT_REMOVED;

class DeviceListTest : public FakeBusTest {
protected:
    DeviceListTest() { vexa_usb_init(); }
    ~DeviceListTest() override { vexa_usb_fini(); }

    static libusb_device *plug(uint16_t product) {
        libusb_device *const device = fake::attach(kVendor, product);
        fake::notifyArrival(device);
        return device;
    }
    static void unplug(libusb_device *device) {
        fake::detach(device);
        fake::notifyDeparture(device);
    }
    static std::vector<std::pair<uint16_t, uint16_t>> listed() {
        const Snapshot snapshot;
        std::vector<std::pair<uint16_t, uint16_t>> result;
        for (auto **record = snapshot.list; *record != nullptr; ++record)
            result.emplace_back((*record)->vendor_id, (*record)->product_id);
        EXPECT_EQ(result.size(), snapshot.count);
        return result;
    }
    int32_t open(const _vexa_usb_device_list_item *record) {
        _vexa_usb_device *device = nullptr;
        fake::takeCalls();
        const int32_t status = vexa_usb_open(record, EventLog::callback, &log, &device);
        EXPECT_EQ(status == 0, device != nullptr);
        if (device != nullptr)
            vexa_usb_close(device);
        return status;
    }

    EventLog &log = EventLog::make();
};

TEST_F(DeviceListTest, UpdateAddsSupportedDevicesOnce) {
    EXPECT_TRUE(listed().empty());
    fake::attach(0x04B4, 0x8613);
    fake::attach(0x04B4, 0x8614);
    fake::attach(kVendor, 0x7777);
    fake::attach(0x15A2, 0x0076);
    fake::attach(0x15A2, 0x0077);
    fake::attach(0x04B4, 0x00F3);
    EXPECT_EQ(vexa_usb_update_device_list(), 0);
    EXPECT_EQ(vexa_usb_update_device_list(), 0);
    const std::vector<std::pair<uint16_t, uint16_t>> expected{
        {0x04B4, 0x8613}, {kVendor, 0x7777}, {0x15A2, 0x0076}, {0x04B4, 0x00F3}};
    EXPECT_EQ(listed(), expected);
    const Snapshot snapshot;
    for (size_t i = 1; i < snapshot.count; ++i)
        EXPECT_EQ(snapshot.list[i]->id, snapshot.list[0]->id + i);
}

TEST_F(DeviceListTest, UnreadableDevicesAndBusesAreSkipped) {
    fake::attach(kVendor, 1);
    fake::attach(kVendor, 2);
    fake::failCall("libusb_get_device_list");
    EXPECT_EQ(vexa_usb_update_device_list(), 0);
    EXPECT_TRUE(listed().empty());
    fake::failCall("libusb_get_device_descriptor");
    EXPECT_EQ(vexa_usb_update_device_list(), 0);
    EXPECT_EQ(listed().size(), 1U);
}

TEST_F(DeviceListTest, EveryChangeReachesEveryCallbackInOrder) {
    ChangeLog &first = ChangeLog::add();
    ChangeLog &second = ChangeLog::add();
    EXPECT_EQ(first.id, 0U);
    EXPECT_EQ(second.id, 1U);
    libusb_device *const device = plug(1);
    ASSERT_TRUE(second.waitFor(1));
    const Snapshot before;
    vexa_usb_update_device_list();
    fake::notifyArrival(device);                     // listed already
    fake::notifyDeparture(fake::attach(kVendor, 3)); // never listed: nothing to remove
    unplug(device);
    ASSERT_TRUE(second.waitFor(2));
    EXPECT_TRUE(listed().empty());
    EXPECT_EQ(open(before.list[0]), -1);
    EXPECT_EQ(vexa_usb_deregister_device_list_event_callback(first.id), 0);
    plug(2);
    ASSERT_TRUE(second.waitFor(3));
    const uint64_t id = before.list[0]->id;
    const std::vector<ChangeLog::Change> changes{{kAdded, id}, {kGone, id}, {kAdded, id + 1}};
    EXPECT_EQ(second.all(), changes);
    EXPECT_EQ(first.all(), std::vector(changes.begin(), changes.begin() + 2));
}

// Whatever a callback does, the delivery goes on with the callbacks that it began with.
TEST_F(DeviceListTest, CallbacksMayRegisterDeregisterAndOpen) {
    ChangeLog *inner = nullptr;
    int32_t opened = 1;
    int32_t openedWhenGone = 0;
    ChangeLog::add([&](uint32_t type, const _vexa_usb_device_list_item &item) {
        (type == kGone ? openedWhenGone : opened) = open(&item);
        if (type == kGone)
            return;
        inner = &ChangeLog::add();
        vexa_usb_deregister_device_list_event_callback(1); // the next in turn: still called
    });
    ChangeLog &next = ChangeLog::add();
    libusb_device *const device = plug(1);
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

TEST_F(DeviceListTest, OpenMakesItsCallsInOrder) {
    fake::attach(kVendor, 1);
    vexa_usb_update_device_list();
    const Snapshot snapshot;
    EXPECT_EQ(open(snapshot.list[0]), 0);
    EXPECT_EQ(fake::takeCalls(),
              (std::vector<std::string>{"libusb_get_device_list", "libusb_open",
                                        "libusb_kernel_driver_active(0)",
                                        "libusb_claim_interface(0)", "libusb_get_device_descriptor",
                                        "libusb_release_interface(0)", "libusb_close"}));
    fake::failCall("libusb_kernel_driver_active", 1);
    fake::failCall("libusb_detach_kernel_driver", LIBUSB_ERROR_OTHER);
    EXPECT_EQ(open(snapshot.list[0]), 0);
    EXPECT_EQ(fake::countCalls("libusb_detach_kernel_driver(0)"), 1U);
}

} // namespace
