// Who handles libusb's events: "usb-libusb", or synchronous calls that follow one another.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <thread>
#include <utility>

#include "helpers.h"

namespace {

using test::DeviceTest;

// Control transfers that follow one another on a thread of their own, so that "usb-libusb" leaves
// the events to them.  When that thread does not get to run for a while, "usb-libusb" comes back by
// itself, as it should; so the tests try until that has not happened.
class FollowingCallsTest : public DeviceTest {
protected:
    static constexpr int kAttempts = 20;

    FollowingCallsTest() {
        fake::onControl([this](const fake::ControlRequest & /*request*/) {
            const auto now = std::chrono::steady_clock::now();
            longestGap = std::max(longestGap.load(), now - std::exchange(last, now));
            ++count;
            return result.load();
        });
    }
    ~FollowingCallsTest() override {
        ended = true;
        if (calls.joinable())
            calls.join();
    }
    // Has the calls begin, and then "usb-libusb" handle something, unless it is out already.
    void begin() {
        calls = std::thread([this]() {
            while (!ended) {
                vexa_usb_control_transfer(device, 0, 2, 0, 1, 0, 0, nullptr, 0);
                fake::takeCalls();
            }
        });
        waitForCalls();
        EXPECT_TRUE(isHeard(std::chrono::milliseconds(200)) || isHeardByDelivery());
    }
    void waitForCalls() {
        const auto end = std::chrono::steady_clock::now() + test::kLong;
        for (const uint64_t before = count; count < before + 2;)
            ASSERT_LT(std::chrono::steady_clock::now(), end);
    }
    // Whether a device that arrives gets listed within that time, and by what a real call does.
    bool isHeard(std::chrono::milliseconds within) {
        expected = test::Snapshot().count + 1;
        fake::notifyArrival(fake::attach(VEXA_USB_VENDOR_ID, 2));
        const auto end = std::chrono::steady_clock::now() + within;
        while (test::Snapshot().count != expected && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return test::Snapshot().count == expected;
    }
    bool isHeardByDelivery() const {
        fake::deliverEvents();
        return test::Snapshot().count == expected;
    }

    std::atomic<int> result = 0;
    std::atomic<uint64_t> count = 0;
    std::chrono::steady_clock::time_point last = std::chrono::steady_clock::now();
    std::atomic<std::chrono::steady_clock::duration> longestGap{};
    std::atomic<bool> ended = false;
    std::thread calls;
    uint64_t expected = 0;
};

TEST_F(FollowingCallsTest, HandleTheEventsThemselves) {
    // What kept the thread on duty has ended.
    ASSERT_EQ(vexa_usb_data_stream_start(device, 0x82, 512, 4), 0);
    ASSERT_EQ(vexa_usb_event_pipe_enable(device, 0x81), 0);
    fake::completeNewest(LIBUSB_TRANSFER_STALL);
    ASSERT_EQ(vexa_usb_data_stream_stop(device), 0);
    begin();
    bool stayedOut = false;
    for (int i = 0; i < kAttempts && !stayedOut; ++i) {
        stayedOut = !isHeard(std::chrono::milliseconds(200));
        EXPECT_TRUE(!stayedOut || isHeardByDelivery());
    }
    EXPECT_TRUE(stayedOut);
}

TEST_F(FollowingCallsTest, FailedOnesLeaveNoticesToTheThread) {
    begin();
    bool heard = false;
    for (int i = 0; i < kAttempts && !heard; ++i) {
        result = LIBUSB_ERROR_NO_DEVICE;
        waitForCalls();
        longestGap = std::chrono::steady_clock::duration::zero();
        ASSERT_TRUE(isHeard(test::kLong));
        heard = longestGap.load() < std::chrono::milliseconds(40);
        result = 0;
        waitForCalls();
    }
    EXPECT_TRUE(heard);
}

TEST_F(FollowingCallsTest, StreamsDoNotWaitForThem) {
    begin();
    bool atOnce = false;
    for (size_t i = 1; i <= kAttempts / 2 && !atOnce; ++i) {
        ASSERT_EQ(vexa_usb_data_stream_start(device, 0x82, 512, 4), 0);
        const auto start = std::chrono::steady_clock::now();
        fake::completeOldest();
        ASSERT_TRUE(log.waitFor(VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL, i));
        atOnce = std::chrono::steady_clock::now() - start < std::chrono::milliseconds(20);
        ASSERT_EQ(vexa_usb_data_stream_stop(device), 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(5)); // the thread leaves
    }
    EXPECT_TRUE(atOnce);
}

} // namespace
