// Every call keeps its word when memory runs out, and the calls that end things need none.
#include <cstdint>
#include <new>
#include <utility>

#include "helpers.h"

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

    bool begin() {
        const bool started = statusOf(
                                 []() {
                                     vexa_usb_init();
                                     return 0;
                                 },
                                 -4) == 0;
        if (started)
            twiceAtMost([]() { return statusOf(vexa_usb_update_device_list, -4); }, -4);
        else
            EXPECT_EQ(vexa_usb_update_device_list(), -3);
        return started;
    }
    int32_t open(_vexa_usb_device *&device) {
        _vexa_usb_device_list_item **list = nullptr;
        uint64_t count = 0;
        if (statusOf([&]() { return vexa_usb_get_device_list(&list, &count); }, -4) != 0) {
            if (list != nullptr)
                vexa_usb_free_device_list(list);
            EXPECT_EQ(vexa_usb_get_device_list(&list, &count), 0);
        }
        EXPECT_EQ(count, 1U);
        const int32_t status = vexa_usb_open(list[0], test::EventLog::callback, &log, &device);
        vexa_usb_free_device_list(list);
        return status;
    }
    void openAndStart(_vexa_usb_device *&device) {
        twiceAtMost([&]() { return open(device); }, -1);
        twiceAtMost([&]() { return vexa_usb_data_stream_start(device, 0x82, 512, 8); }, -4);
        twiceAtMost([&]() { return vexa_usb_event_pipe_enable(device, 0x81); }, -4);
    }
    void use() {
        uint32_t id = 0;
        const auto onChange = [](uint32_t, const _vexa_usb_device_list_item *, void *) {};
        twiceAtMost(
            [&]() {
                return statusOf(
                    [&]() {
                        return vexa_usb_register_device_list_event_callback(onChange, nullptr, &id);
                    },
                    -4);
            },
            -4);
        EXPECT_EQ(id, 0U);
        openAndStart(closed);
        fake::completeNewest(LIBUSB_TRANSFER_COMPLETED); // 64 events
        for (size_t i = 1; i <= 3 && log.count(kError) == 0; ++i) {
            fake::completeOldest();
            fake::deliverEvents();
            ASSERT_TRUE(log.waitForEither(kFull, i, kError));
        }
        openAndStart(leftOpen);
        // What cannot be listed for want of memory is listed by the next update.
        libusb_device *const second = fake::attach(VEXA_USB_VENDOR_ID, 2);
        fake::notifyArrival(second);
        fake::deliverEvents();
        twiceAtMost([]() { return statusOf(vexa_usb_update_device_list, -4); }, -4);
        fake::detach(second);
        fake::notifyDeparture(second);
        fake::deliverEvents();
    }
    void end() {
        allocations::failAll();
        EXPECT_EQ(vexa_usb_data_stream_stop(closed), 0);
        EXPECT_EQ(vexa_usb_close(closed), 0);
        vexa_usb_fini();
        EXPECT_FALSE(allocations::restore());
        EXPECT_TRUE(log.waitFor(VEXA_USB_DEVICE_EVENT_REMOVED));
    }
    void closeLeftOpen() {
        vexa_usb_init();
        EXPECT_EQ(vexa_usb_close(leftOpen), 0);
        vexa_usb_fini();
        vexausb::libusbRunning.store(true);
    }

    test::EventLog &log = test::EventLog::make();
    _vexa_usb_device *closed = nullptr;
    _vexa_usb_device *leftOpen = nullptr;
};

TEST_F(MemoryTest, EachAllocationMayFail) {
    uint64_t skip = 0;
    for (bool failed = true; failed; ++skip) {
        SCOPED_TRACE(skip);
        ASSERT_LT(skip, 10000U);
        fake::attach(VEXA_USB_VENDOR_ID, 1);
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
