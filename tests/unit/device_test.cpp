// Opened devices: checks, queries, synchronous transfers, removal.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "device/abstract_device.h"
#include "support/device_fixtures.h"

namespace {

using test::DeviceTest;

TEST_F(DeviceTest, DescriptorKeepsItsOddities) {
    _vexa_usb_device_descriptor record;
    std::memset(&record, 0x5A, sizeof(record));
    EXPECT_EQ(vexa_usb_get_device_descriptor(device, &record, 15), -5);
    EXPECT_EQ(record.idVendor, 0x5A5A);
    EXPECT_EQ(vexa_usb_get_device_descriptor(device, &record, 17), 0);
    const std::array<uint8_t, 16> expected{0x23, 0x01, 0x11, 0x22, 0x33, 0x5A, 0x58, 0x56,
                                           0x01, 0x00, 0x23, 0x01, 0x55, 0x66, 0x77, 0x88};
    EXPECT_EQ(std::memcmp(&record, expected.data(), sizeof(record)), 0);
}

TEST_F(DeviceTest, PacketSizes) {
    uint16_t size = 0;
    EXPECT_EQ(vexa_usb_get_max_packet_size(device, 0x82, &size), 0);
    EXPECT_EQ(size, 512);
    EXPECT_EQ(vexa_usb_get_max_packet_size(device, 0x8F, &size), -10);
    fake::failCall("libusb_get_max_packet_size", LIBUSB_ERROR_OTHER);
    EXPECT_EQ(vexa_usb_get_max_packet_size(device, 0x82, &size), -1);
    fake::describe(usbDevice).packetSizes[0x82] = 0;
    EXPECT_EQ(vexa_usb_get_max_packet_size(device, 0x82, &size), 0);
    EXPECT_EQ(size, 0);
}

TEST_F(DeviceTest, ControlTransfers) {
    std::vector<uint8_t> data(65536);
    EXPECT_EQ(vexa_usb_control_transfer(device, 1, 2, 3, 0xA3, 0x1234, 7, data.data(), 65535), 0);
    EXPECT_EQ(fake::takeCalls(),
              std::vector<std::string>{"libusb_control_transfer(195,163,4660,7,65535)"});
    EXPECT_EQ(vexa_usb_control_transfer(device, 1, 2, 0, 1, 0, 0, data.data(), 65536), -1);
    EXPECT_TRUE(fake::takeCalls().empty());
    EXPECT_EQ(vexa_usb_control_transfer(device, 0, 0, 0, 9, 1, 0, nullptr, 0), 0);
    fake::onControl([](const fake::ControlRequest &request) { return request.length - 1; });
    EXPECT_EQ(vexa_usb_control_transfer(device, 1, 0, 0, 6, 0, 0, data.data(), 18), -14);
    fake::failCall("libusb_control_transfer", LIBUSB_ERROR_TIMEOUT);
    EXPECT_EQ(vexa_usb_control_transfer(device, 0, 0, 0, 9, 1, 0, nullptr, 0), -13);
    fake::failCall("libusb_control_transfer", LIBUSB_ERROR_PIPE);
    EXPECT_EQ(vexa_usb_control_transfer(device, 0, 0, 0, 9, 1, 0, nullptr, 0), -1);
}

TEST_F(DeviceTest, TransfersGoToTheirEndpoints) {
    std::vector<uint8_t> endpoints;
    fake::onTransfer([&](uint8_t endpoint, uint8_t *, int, int *) {
        endpoints.push_back(endpoint);
        return 0;
    });
    std::array<uint8_t, 4> data{};
    EXPECT_EQ(vexa_usb_interrupt_read(device, 0x81, data.data(), 1), 0);
    EXPECT_EQ(vexa_usb_interrupt_write(device, 0x02, data.data(), 2), 0);
    EXPECT_EQ(vexa_usb_bulk_read(device, 0x83, data.data(), 3), 0);
    EXPECT_EQ(vexa_usb_bulk_write(device, 0x04, data.data(), 4), 0);
    EXPECT_EQ(endpoints, (std::vector<uint8_t>{0x81, 0x02, 0x83, 0x04}));
    EXPECT_EQ(fake::takeCalls(), (std::vector<std::string>{
                                     "libusb_interrupt_transfer(1)", "libusb_interrupt_transfer(2)",
                                     "libusb_bulk_transfer(3)", "libusb_bulk_transfer(4)"}));
}

TEST_F(DeviceTest, LongTransfersGoInPieces) {
    std::vector<uint8_t> data(3UL * 524288);
    // Every piece at its place, and the first that is short or fails is the last.
    std::vector<const uint8_t *> places;
    int failAt = -1;
    int result = 0;
    int missing = 0;
    fake::onTransfer([&](uint8_t, uint8_t *at, int length, int *actual) {
        places.push_back(at);
        const bool failing = static_cast<int>(places.size()) == failAt;
        *actual = length - (failing ? missing : 0);
        return failing ? result : 0;
    });
    EXPECT_EQ(vexa_usb_interrupt_write(device, 0x03, data.data(), data.size()), 0);
    EXPECT_EQ(places, (std::vector<const uint8_t *>{&data[0], &data[524288], &data[1048576]}));
    const struct {
        int at, result, missing;
        int32_t status;
    } cases[] = {{1, 0, 1, -14},
                 {2, 0, 524288, -14},
                 {2, LIBUSB_ERROR_TIMEOUT, 0, -13},
                 {3, LIBUSB_ERROR_PIPE, 0, -1}};
    for (const auto &each : cases) {
        places.clear();
        failAt = each.at;
        result = each.result;
        missing = each.missing;
        EXPECT_EQ(vexa_usb_bulk_write(device, 0x03, data.data(), data.size()), each.status);
        EXPECT_EQ(places.size(), static_cast<size_t>(each.at));
    }
}

// To those inside the library who want to know how much came, a short transfer is no error.
TEST_F(DeviceTest, ShortTransfersAreCounted) {
    vexausb::AbstractDevice &asked = *device->device;
    std::vector<uint8_t> data(600000);
    uint64_t came = 0;
    fake::onControl([](const fake::ControlRequest &request) { return request.length - 1; });
    EXPECT_EQ(asked.controlTransfer(1, 2, 0, 6, 0, 0, data.data(), 18, &came), 0);
    EXPECT_EQ(came, 17U);
    came = 0;
    fake::onTransfer([](uint8_t, uint8_t *, int length, int *actual) {
        *actual = std::min(length, 524000);
        return 0;
    });
    EXPECT_EQ(asked.bulkRead(0x83, data.data(), data.size(), &came), 0);
    EXPECT_EQ(came, 524000U); // and the second piece is not asked for
    EXPECT_EQ(asked.interruptRead(0x81, data.data(), 64, &came), 0);
    EXPECT_EQ(came, 524064U);
}

// The last fini lets the pieces in progress end, turns all devices' callers away at once, and only
// then closes.
TEST_F(DeviceTest, FiniWaitsForAllDevicesAtOnce) {
    std::atomic<int> pieces = 0;
    std::promise<void> goOn;
    const auto gone = goOn.get_future().share();
    fake::onTransfer([&](uint8_t, uint8_t *, int, int *) {
        ++pieces;
        gone.wait();
        return 0;
    });
    std::vector<_vexa_usb_device *> devices{open(), open(), open()};
    std::vector<std::thread> threads;
    threads.reserve(devices.size() + 1);
    for (_vexa_usb_device *each : devices) {
        threads.emplace_back([each]() {
            std::vector<uint8_t> data(2UL * 524288);
            EXPECT_EQ(vexa_usb_bulk_read(each, 0x83, data.data(), data.size()), -1);
        });
    }
    close();
    fake::takeCalls();
    EXPECT_TRUE(test::eventually([&]() { return pieces == 3; }));
    threads.emplace_back(vexa_usb_fini);
    for (_vexa_usb_device *each : devices)
        EXPECT_TRUE(test::eventually([each]() { return isTurnedAway(each); }));
    EXPECT_EQ(fake::countCalls("libusb_close"), 0U);
    goOn.set_value();
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(pieces, 3);
    vexa_usb_init();
    for (_vexa_usb_device *each : devices)
        vexa_usb_close(each);
}

// The list entry holds the device while it says that it has gone; a close meanwhile gives back what
// the device holds of the bus all the same.
TEST_F(DeviceTest, CloseGivesBackWhoeverElseHoldsTheDevice) {
    const auto held = device->device;
    ASSERT_EQ(vexa_usb_data_stream_start(device, 0x82, 512, 4), 0);
    fake::takeCalls();
    EXPECT_EQ(close(), 0);
    EXPECT_EQ(fake::takeCalls(),
              (std::vector<std::string>{"libusb_release_interface(0)", "libusb_close"}));
    EXPECT_TRUE(fake::inFlight().empty());
    held->setRemoved();
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // time to be told, if it were
    device = open();
    EXPECT_EQ(log.count(VEXA_USB_DEVICE_EVENT_REMOVED), 0U);
}

// Pipes whose transfers nobody completes hold a close up for half a second, not for ever, and the
// last fini no longer for many of them than for one.
TEST_F(DeviceTest, EventPipesEndThoughNothingCompletes) {
    constexpr size_t kOthers = 39;
    std::vector<_vexa_usb_device *> others;
    for (size_t i = 0; i < kOthers; ++i) {
        others.push_back(open());
        ASSERT_EQ(vexa_usb_event_pipe_enable(others.back(), 0x81), 0);
    }
    ASSERT_EQ(enable(), 0);
    EXPECT_EQ(fake::inFlight().back().length, 64); // a packet
    fake::holdEvents(true);
    const auto closing = test::timed([&]() { EXPECT_EQ(close(), 0); });
    EXPECT_GE(closing, std::chrono::milliseconds(450));
    EXPECT_LT(closing, std::chrono::seconds(3));
    EXPECT_TRUE(fake::takeClosedInFlight());
    EXPECT_LT(test::timed(vexa_usb_fini), std::chrono::seconds(5));
    EXPECT_TRUE(fake::takeClosedInFlight());
    fake::holdEvents(false);
    vexa_usb_init();
    for (_vexa_usb_device *const other : others)
        EXPECT_EQ(vexa_usb_close(other), 0);
}

TEST_F(DeviceTest, RateFollowsTheUsbVersion) {
    const std::pair<uint16_t, uint64_t> cases[] = {
        {0x010F, 0},        {0x0110, 1000000},   {0x01FF, 1000000},  {0x0200, 40000000},
        {0x0210, 40000000}, {0x0300, 400000000}, {0x0320, 400000000}};
    for (const auto &[bcdUsb, rate] : cases) {
        close();
        fake::describe(usbDevice).descriptor.bcdUSB = bcdUsb;
        device = open();
        uint64_t value = 1;
        const int32_t expected = rate == 0 ? -2 : 0;
        EXPECT_EQ(vexa_usb_data_stream_rate_max(device, &value), expected) << bcdUsb;
        EXPECT_EQ(value, rate == 0 ? 1 : rate);
        EXPECT_EQ(vexa_usb_data_stream_memory_size_max(device, &value), expected);
        EXPECT_EQ(value, rate == 0 ? 1 : 268435456U);
        EXPECT_EQ(start(), expected);
    }
}

} // namespace
