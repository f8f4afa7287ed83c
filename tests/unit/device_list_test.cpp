// The device list and its entries, and opening from them.
#include "support/device_fixtures.h"

namespace {

constexpr uint16_t kVendor = VEXA_USB_VENDOR_ID;

class DeviceListTest : public test::FakeBusTest {
protected:
    DeviceListTest() { vexa_usb_init(); }
    ~DeviceListTest() override { vexa_usb_fini(); }

    static std::vector<std::pair<uint16_t, uint16_t>> listed() {
        const test::Snapshot snapshot;
        std::vector<std::pair<uint16_t, uint16_t>> result;
        for (auto **record = snapshot.list; *record != nullptr; ++record)
            result.emplace_back((*record)->vendor_id, (*record)->product_id);
        EXPECT_EQ(result.size(), snapshot.count);
        return result;
    }
    static void waitCount(uint64_t count) {
        EXPECT_TRUE(test::eventually([&]() { return test::Snapshot().count == count; }));
    }
    int32_t open(const _vexa_usb_device_list_item *record) {
        _vexa_usb_device *device = nullptr;
        fake::takeCalls();
        const int32_t status = vexa_usb_open(record, test::EventLog::callback, &log, &device);
        EXPECT_EQ(status == 0, device != nullptr);
        if (device != nullptr)
            vexa_usb_close(device);
        return status;
    }

    test::EventLog &log = test::EventLog::make();
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
    const test::Snapshot snapshot;
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

TEST_F(DeviceListTest, FollowsHotplug) {
    libusb_device *const first = fake::attach(kVendor, 1);
    fake::notifyArrival(first);
    waitCount(1);
    vexa_usb_update_device_list();
    fake::notifyArrival(first);
    fake::notifyArrival(fake::attach(kVendor, 2));
    waitCount(2);

    const test::Snapshot before;
    fake::detach(first);
    fake::notifyDeparture(fake::attach(kVendor, 3)); // never listed: nothing to remove
    fake::notifyDeparture(first);
    waitCount(1);
    EXPECT_EQ(listed()[0].second, 2);
    EXPECT_EQ(open(before.list[0]), -1);
}

TEST_F(DeviceListTest, OpenMakesItsCallsInOrder) {
    fake::attach(kVendor, 1);
    vexa_usb_update_device_list();
    const test::Snapshot snapshot;
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

TEST_F(DeviceListTest, OpenFailsCleanly) {
    libusb_device *const device = fake::attach(kVendor, 1);
    vexa_usb_update_device_list();
    const test::Snapshot snapshot;
    const struct {
        const char *function;
        int result;
        int32_t status;
        size_t closes;
        size_t releases;
    } cases[] = {
        {"libusb_get_device_list", LIBUSB_ERROR_NO_MEM, -1, 0, 0},
        {"libusb_get_device_list", LIBUSB_ERROR_TIMEOUT, -13, 0, 0},
        {"libusb_open", LIBUSB_ERROR_ACCESS, -1, 0, 0},
        {"libusb_open", LIBUSB_ERROR_TIMEOUT, -13, 0, 0},
        {"libusb_claim_interface", LIBUSB_ERROR_BUSY, -1, 1, 0},
        {"libusb_get_device_descriptor", LIBUSB_ERROR_IO, -1, 1, 0},
    };
    for (const auto &each : cases) {
        fake::failCall(each.function, each.result);
        EXPECT_EQ(open(snapshot.list[0]), each.status) << each.function;
        EXPECT_EQ(fake::countCalls("libusb_close"), each.closes) << each.function;
        EXPECT_EQ(fake::countCalls("libusb_release_interface(0)"), each.releases);
    }
    fake::detach(device); // still in the list, but not on the bus
    EXPECT_EQ(open(snapshot.list[0]), -1);
}

} // namespace
