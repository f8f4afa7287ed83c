#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "allocations.h"
#include "core/global_state.h"
#include "fake_libusb.h"
#include "vexa_usb.h"

namespace test {

inline constexpr std::chrono::seconds kLong{20}; // far longer than anything here should take

// Collects a device's events.
class EventLog {
public:
    // Devices' callbacks may run a last time after the close, so logs live for ever.
    static EventLog &make() {
        static auto *const logs = new std::vector<EventLog *>;
        static std::mutex logsMutex;
        const std::lock_guard lock(logsMutex);
        return *logs->emplace_back(new EventLog);
    }
    static void callback(_vexa_usb_device_event event, void *data) {
        auto &log = *static_cast<EventLog *>(data);
        const allocations::Exempt exempt;
        const std::lock_guard lock(log.mutex);
        log.events.push_back(event);
        log.changed.notify_all();
    }

    size_t count(uint32_t event) {
        const std::lock_guard lock(mutex);
        return countLocked(event);
    }
    bool waitFor(uint32_t event, size_t atLeast = 1) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, kLong, [&]() { return countLocked(event) >= atLeast; });
    }
    bool waitForEither(uint32_t event, size_t atLeast, uint32_t other) {
        std::unique_lock lock(mutex);
        return changed.wait_for(
            lock, kLong, [&]() { return countLocked(event) >= atLeast || countLocked(other) > 0; });
    }
    std::vector<uint32_t> all() {
        const std::lock_guard lock(mutex);
        return events;
    }

private:
    size_t countLocked(uint32_t event) const {
        return static_cast<size_t>(std::count(events.begin(), events.end(), event));
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<uint32_t> events;
};

// A snapshot of the device list.
struct Snapshot {
    Snapshot() { status = vexa_usb_get_device_list(&list, &count); }
    ~Snapshot() {
        if (status == VEXA_USB_STATUS_SUCCESS)
            vexa_usb_free_device_list(list);
    }
    Snapshot(const Snapshot &) = delete;
    Snapshot &operator=(const Snapshot &) = delete;

    _vexa_usb_device_list_item **list = nullptr;
    uint64_t count = 0;
    int32_t status;
};

// Each test starts as a new process does, on an empty bus.
class FakeBusTest : public ::testing::Test {
protected:
    FakeBusTest() {
        fake::reset();
        vexausb::libusbRunning.store(true);
    }
    ~FakeBusTest() override { fake::reset(); }
};

// The library initialised, with one instrument attached and opened.
class DeviceTest : public FakeBusTest {
protected:
    explicit DeviceTest(uint16_t bcdUsb = 0x0200)
        : usbDevice(fake::attach(VEXA_USB_VENDOR_ID, 1, bcdUsb)) {
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
        const Snapshot snapshot;
        _vexa_usb_device *opened = nullptr;
        EXPECT_EQ(vexa_usb_open(snapshot.list[0], EventLog::callback, &log, &opened), 0);
        return opened;
    }
    int32_t close() { return vexa_usb_close(std::exchange(device, nullptr)); }
    void remove() {
        fake::detach(usbDevice);
        fake::notifyDeparture(usbDevice);
        ASSERT_TRUE(log.waitFor(VEXA_USB_DEVICE_EVENT_REMOVED));
    }
    // What happens to devices that are still open at the last fini, and a new beginning.
    void reinitialise() {
        vexa_usb_fini();
        vexa_usb_init();
    }

    EventLog &log = EventLog::make();
    libusb_device *const usbDevice;
    _vexa_usb_device *device = nullptr;
};

} // namespace test
