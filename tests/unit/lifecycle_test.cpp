// Start-up and shut-down.
#include <string>
#include <thread>
#include <vector>

#include "core/supported_devices.h"
#include "support/device_fixtures.h"

namespace {

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
