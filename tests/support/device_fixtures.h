#pragma once

#include <cstdint>
#include <cstdlib>
#include <utility>

#include <gtest/gtest.h>

#include "core/global_state.h"
#include "core/log.h"
#include "support/device_list_snapshot.h"
#include "support/event_log.h"
#include "support/fake_libusb.h"
#include "vexa_usb.h"

namespace test {

// Each test starts as a new process does, on an empty bus.
class FakeBusTest : public ::testing::Test {
protected:
    FakeBusTest() {
        for (const char *const setting : {"VEXA_USB_LOG", "VEXA_USB_RING", "VEXA_USB_STREAM"})
            unsetenv(setting);
        vexausb::readLogLevel();
        fake::reset();
        vexausb::libusbRunning.store(true);
    }
    ~FakeBusTest() override {
        EXPECT_FALSE(fake::takeClosedInFlight()); // where it is right, the test has taken it
        fake::reset();
    }
};

// The library initialised, with one instrument attached and opened.
class DeviceTest : public FakeBusTest {
protected:
    DeviceTest() {
        vexa_usb_init();
        vexa_usb_update_device_list();
        device = open();
        fake::takeCalls();
    }
    ~DeviceTest() override {
        if (device != nullptr)
            vexa_usb_close(device);
        vexa_usb_fini();
    }

    _vexa_usb_device *open() {
        _vexa_usb_device *opened = nullptr;
        EXPECT_EQ(openFirst(log, opened), 0);
        return opened;
    }
    int32_t close() { return vexa_usb_close(std::exchange(device, nullptr)); }
    int32_t start(uint64_t bufferSize = 512, uint64_t bufferCount = 4, uint8_t endpoint = 0x82) {
        return vexa_usb_data_stream_start(device, endpoint, bufferSize, bufferCount);
    }
    int32_t stop() { return vexa_usb_data_stream_stop(device); }
    int32_t enable(uint8_t endpoint = 0x81) { return vexa_usb_event_pipe_enable(device, endpoint); }
    int32_t disable() { return vexa_usb_event_pipe_disable(device); }
    void remove() {
        fake::detach(usbDevice);
        fake::notifyDeparture(usbDevice);
        ASSERT_TRUE(log.waitFor(kRemoved));
    }
    // Whether the last fini has begun to close this device.
    static bool isTurnedAway(_vexa_usb_device *closing) {
        uint16_t size = 0;
        return vexa_usb_get_max_packet_size(closing, 0x82, &size) < 0;
    }
    // What happens to devices that are still open at the last fini, and a new beginning, in which
    // nobody delivers events.
    void reinitialise() {
        vexa_usb_fini();
        vexa_usb_init();
    }
    // A new beginning as in a new process.
    void beginAgain() {
        vexa_usb_fini();
        vexausb::libusbRunning.store(true);
        vexa_usb_init();
        vexa_usb_update_device_list();
        device = open();
    }

    EventLog &log = EventLog::make();
    libusb_device *const usbDevice = fake::attach(VEXA_USB_VENDOR_ID, 1);
    _vexa_usb_device *device = nullptr;
};

class StreamingTest : public DeviceTest {
protected:
    int32_t lock() { return vexa_usb_data_stream_buffer_lock(device, &data, &size); }
    int32_t unlock() { return vexa_usb_data_stream_buffer_unlock(device); }

    uint8_t *data = nullptr; // of the buffer that is locked
    uint64_t size = 0;
};

} // namespace test
