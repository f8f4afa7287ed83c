// Every call keeps its word when memory runs out, and the calls that end things need none.
#include <cstdint>
#include <new>
#include <utility>

#include "support/device_fixtures.h"

namespace {

constexpr uint32_t kFull = VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL;
constexpr uint32_t kError = VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR;

// A whole session in which one allocation fails, whichever; each call that it hits is made again.
class MemoryTest : public test::FakeBusTest {
protected:
    // The call's status; or `ifThrown`, where an exception is what the call is to end with.
    template <typename Call>
    static int32_t statusOf(Call call, int32_t ifThrown) {
        try {
            return call();
        } catch (const std::bad_alloc &) {
            return ifThrown;
        }
    }
    template <typename Call>
    static void twiceAtMost(Call call, int32_t statusIfFailed) {
        const int32_t status = call();
        if (status == 0)
            return;
        EXPECT_EQ(status, statusIfFailed);
        EXPECT_EQ(call(), 0);
    }
    template <typename Call>
    static void twiceAtMostOrThrown(Call call) {
        twiceAtMost([&]() { return statusOf(call, -4); }, -4);
    }

    bool begin() {
        const bool started = statusOf(
                                 []() {
                                     vexa_usb_init();
                                     return 0;
                                 },
                                 -4) == 0;
        if (started)
            twiceAtMostOrThrown(vexa_usb_update_device_list);
        else
            EXPECT_EQ(test::Snapshot().status, -3);
        return started;
    }
    static int32_t open(_vexa_usb_device *&device, test::EventLog &events) {
        _vexa_usb_device_list_item **list = nullptr;
        uint64_t count = 0;
        if (statusOf([&]() { return vexa_usb_get_device_list(&list, &count); }, -4) != 0) {
            if (list != nullptr)
                vexa_usb_free_device_list(list);
            EXPECT_EQ(vexa_usb_get_device_list(&list, &count), 0);
        }
        EXPECT_EQ(count, 1U);
        const int32_t status = vexa_usb_open(list[0], test::EventLog::callback, &events, &device);
        vexa_usb_free_device_list(list);
        return status;
    }
    static void openAndStart(_vexa_usb_device *&device, test::EventLog &events) {
        twiceAtMost([&]() { return open(device, events); }, -1);
        twiceAtMost([&]() { return vexa_usb_data_stream_start(device, 0x82, 512, 8); }, -4);
        twiceAtMost([&]() { return vexa_usb_event_pipe_enable(device, 0x81); }, -4);
    }
    void use() {
        uint32_t id = 0;
        const auto onChange = [](uint32_t, const _vexa_usb_device_list_item *, void *) {};
        twiceAtMostOrThrown(
            [&]() { return vexa_usb_register_device_list_event_callback(onChange, nullptr, &id); });
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
        twiceAtMostOrThrown(vexa_usb_update_device_list);
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
        EXPECT_TRUE(leftLog->waitFor(VEXA_USB_DEVICE_EVENT_REMOVED)); // the one opened last
        EXPECT_EQ(vexa_usb_data_stream_stop(closed), 0);
        EXPECT_EQ(vexa_usb_close(closed), 0);
        EXPECT_EQ(vexa_usb_deregister_device_list_event_callback(0), 0);
        vexa_usb_fini();
        allocations::restore();
    }
    void closeLeftOpen() {
        vexa_usb_init();
        EXPECT_EQ(vexa_usb_close(leftOpen), 0);
        vexa_usb_fini();
        vexausb::libusbRunning.store(true);
    }

    // Of the session, one a device.
    test::EventLog *log = nullptr;
    test::EventLog *leftLog = nullptr;
    libusb_device *usbDevice = nullptr;
    _vexa_usb_device *closed = nullptr;
    _vexa_usb_device *leftOpen = nullptr;
};

TEST_F(MemoryTest, EachAllocationMayFail) {
    uint64_t skip = 0;
    for (bool failed = true; failed; ++skip) {
        SCOPED_TRACE(skip);
        ASSERT_LT(skip, 10000U);
        usbDevice = fake::attach(VEXA_USB_VENDOR_ID, 1);
        log = &test::EventLog::make();
        leftLog = &test::EventLog::make();
        allocations::failOne(skip);
        if (begin()) {
            use();
            ASSERT_FALSE(HasFatalFailure());
            failed = allocations::restore();
            end();
            closeLeftOpen();
        } else {
            allocations::restore();
            vexa_usb_fini();
        }
        fake::reset();
    }
    EXPECT_GT(skip, 40U); // the last session met none that fails
}

} // namespace
