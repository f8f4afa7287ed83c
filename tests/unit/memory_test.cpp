// Every call keeps its word when memory runs out, and the calls that end things need none.
#include <cstdint>
#include <new>

#include "support/device_fixtures.h"

namespace {

using namespace test;

constexpr int32_t kThrew = 1; // an exception instead of a status

// A whole session in which one allocation fails, whichever; the call that it hits says so with that
// status, and is made again.
class MemoryTest : public FakeBusTest {
protected:
    template <typename Call>
    static int32_t statusOf(Call call) {
        try {
            return call();
        } catch (const std::bad_alloc &) {
            return kThrew;
        }
    }
    template <typename Call>
    static void twiceAtMost(int32_t statusIfFailed, Call call) {
        const int32_t status = statusOf(call);
        if (status == 0)
            return;
        EXPECT_EQ(status, statusIfFailed);
        EXPECT_EQ(call(), 0);
    }

    static void openAndStart(_vexa_usb_device *&device, EventLog &events) {
        _vexa_usb_device_list_item **list = nullptr;
        twiceAtMost(kThrew, [&]() {
            if (list != nullptr)
                vexa_usb_free_device_list(list); // as far as it had come
            return vexa_usb_get_device_list(&list, nullptr);
        });
        twiceAtMost(-1,
                    [&]() { return vexa_usb_open(list[0], EventLog::callback, &events, &device); });
        vexa_usb_free_device_list(list);
        twiceAtMost(-4, [&]() { return vexa_usb_data_stream_start(device, 0x82, 512, 8); });
        twiceAtMost(-4, [&]() { return vexa_usb_event_pipe_enable(device, 0x81); });
    }
    void use() {
        twiceAtMost(kThrew, vexa_usb_update_device_list);
        uint32_t id = 0;
        const auto onChange = [](uint32_t, const _vexa_usb_device_list_item *, void *) {};
        twiceAtMost(kThrew, [&]() {
            return vexa_usb_register_device_list_event_callback(onChange, nullptr, &id);
        });
        EXPECT_EQ(id, 0U);
        openAndStart(closed, *log);
        fake::completeNewest(LIBUSB_TRANSFER_COMPLETED, 3); // the events 0, 1 and 2
        for (size_t i = 1; i <= 5 && log->count(kError) == 0; ++i) {
            fake::completeOldest();
            fake::deliverEvents();
            ASSERT_TRUE(log->waitForAny({{kFull, i}, {kError, 1}}));
        }
        openAndStart(leftOpen, *leftLog);
        // What cannot be listed for want of memory is listed by the next update.
        libusb_device *const second = fake::attach(VEXA_USB_VENDOR_ID, 2);
        fake::notifyArrival(second);
        fake::deliverEvents();
        twiceAtMost(kThrew, vexa_usb_update_device_list);
        fake::detach(second);
        fake::notifyDeparture(second);
        fake::deliverEvents();
    }
    // Neither what tells of an end nor the end itself needs memory.
    void end() {
        allocations::failAll();
        // Both streams come to their ends: no memory for a buffer-full event, or no free buffer.
        while (fake::completeOn(0x82))
            fake::deliverEvents();
        EXPECT_TRUE(log->waitFor(kError));
        EXPECT_TRUE(leftLog->waitFor(kError));
        // And so do both pipes, within the packets that fill what their queues have.
        int packets = 0;
        for (; packets < 10 && fake::completeOn(0x81); ++packets)
            fake::deliverEvents();
        EXPECT_LT(packets, 10);
        fake::detach(usbDevice);
        fake::notifyDeparture(usbDevice);
        fake::deliverEvents();
        EXPECT_TRUE(leftLog->waitFor(kRemoved)); // the one opened last
        EXPECT_EQ(vexa_usb_data_stream_stop(closed), 0);
        EXPECT_EQ(vexa_usb_close(closed), 0);
        EXPECT_EQ(vexa_usb_deregister_device_list_event_callback(0), 0);
        vexa_usb_fini();
        allocations::restore();
        vexa_usb_init();
        EXPECT_EQ(vexa_usb_close(leftOpen), 0);
    }

    // Of the session, one a device.
    EventLog *log = nullptr;
    EventLog *leftLog = nullptr;
    libusb_device *usbDevice = nullptr;
    _vexa_usb_device *closed = nullptr;
    _vexa_usb_device *leftOpen = nullptr;
};

TEST_F(MemoryTest, EachAllocationMayFail) {
    uint64_t skip = 0;
    for (bool failed = true; failed; ++skip) {
        SCOPED_TRACE(skip);
        ASSERT_LT(skip, 10000U);
        vexausb::libusbRunning.store(true);
        usbDevice = fake::attach(VEXA_USB_VENDOR_ID, 1);
        log = &EventLog::make();
        leftLog = &EventLog::make();
        allocations::failOne(skip);
        if (statusOf([]() { return vexa_usb_init(), 0; }) == 0) {
            use();
            ASSERT_FALSE(HasFatalFailure());
            failed = allocations::restore();
            end();
        } else {
            allocations::restore();
            EXPECT_EQ(Snapshot().status, -3);
        }
        vexa_usb_fini();
        fake::reset();
    }
    EXPECT_GT(skip, 40U); // the last session met none that fails
}

} // namespace
