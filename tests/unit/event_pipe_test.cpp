// The event pipe.
#include <chrono>
#include <vector>

#include "support/device_fixtures.h"

namespace {

class EventPipeTest : public test::DeviceTest {};

TEST_F(EventPipeTest, BytesBecomeEventsInOrder) {
    ASSERT_EQ(enable(), 0);
    EXPECT_EQ(enable(), -7);
    EXPECT_EQ(fake::inFlight().at(0).length, 64);
    const uint8_t *const buffer = fake::inFlight()[0].buffer;
    size_t bytes = 0;
    for (const int length : {3, 0, 64, 1, 0, 17}) {
        fake::completeOldest(LIBUSB_TRANSFER_COMPLETED, length); // counting bytes
        fake::waitInFlight(1);
        EXPECT_EQ(fake::inFlight()[0].buffer, buffer);
        bytes += static_cast<size_t>(length);
    }
    EXPECT_EQ(disable(), 0); // what came before is delivered
    EXPECT_EQ(disable(), 0);
    ASSERT_TRUE(log.waitFor(84));
    EXPECT_EQ(enable(), -7);
    fake::waitInFlight(0);
    const auto events = log.all();
    ASSERT_EQ(events.size(), bytes);
    for (size_t i = 0; i < bytes; ++i)
        EXPECT_EQ(events[i], i);
    remove();
    EXPECT_EQ(enable(), -7);
    EXPECT_EQ(disable(), -12);
}

TEST_F(EventPipeTest, FailedEnableCanBeRetried) {
    fake::failCall("libusb_alloc_transfer");
    EXPECT_EQ(enable(), -4);
    EXPECT_EQ(enable(0x8F), -1); // no such endpoint
    fake::failCall("libusb_get_max_packet_size", LIBUSB_ERROR_OTHER);
    EXPECT_EQ(enable(), -1);
    fake::failCall("libusb_submit_transfer");
    EXPECT_EQ(enable(), -1);
    EXPECT_EQ(disable(), -6);
    EXPECT_EQ(enable(), 0);
    close();
    device = open();
    fake::failCall("libusb_submit_transfer");
    EXPECT_EQ(enable(), -1);
    reinitialise(); // the device is still open, but nothing of libusb's is left with it
}

TEST_F(EventPipeTest, EndsSilentlyByItself) {
    ASSERT_EQ(enable(), 0);
    fake::completeOldest(LIBUSB_TRANSFER_STALL);
    fake::waitInFlight(0);
    EXPECT_EQ(enable(), -7);
    EXPECT_EQ(disable(), 0);
    close();
    device = open();
    ASSERT_EQ(enable(), 0);
    fake::failCall("libusb_submit_transfer");
    fake::completeOldest(LIBUSB_TRANSFER_COMPLETED, 1);
    fake::waitInFlight(0);
    EXPECT_TRUE(log.waitFor(0));
    EXPECT_EQ(log.all().size(), 1U);
}

// Pipes whose transfers nobody completes hold a close up for half a second, not for ever, and the
// last fini no longer for many of them than for one.
TEST_F(EventPipeTest, EndsThoughNothingCompletes) {
    constexpr size_t kOthers = 39;
    std::vector<_vexa_usb_device *> others;
    for (size_t i = 0; i < kOthers; ++i) {
        others.push_back(open());
        ASSERT_EQ(vexa_usb_event_pipe_enable(others.back(), 0x81), 0);
    }
    ASSERT_EQ(enable(), 0);
    fake::holdEvents(true);
    const auto closing = test::timed([&]() { EXPECT_EQ(close(), 0); });
    EXPECT_GE(closing, std::chrono::milliseconds(450));
    EXPECT_LT(closing, std::chrono::seconds(3));
    EXPECT_TRUE(fake::closedInFlight());
    EXPECT_LT(test::timed(vexa_usb_fini), std::chrono::seconds(5));
    fake::holdEvents(false);
    vexa_usb_init();
    for (_vexa_usb_device *const other : others)
        EXPECT_EQ(vexa_usb_close(other), 0);
}

} // namespace
