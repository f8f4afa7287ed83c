// Who handles libusb's events: "usb-libusb", or synchronous calls that follow one another.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <stop_token>
#include <thread>

#include "support/device_fixtures.h"

namespace {

using test::DeviceTest;

// Control transfers that follow one another on a thread of their own, so that "usb-libusb" leaves
// the events to them.  When that thread does not get to run for a while, "usb-libusb" stays, as it
// should; so the tests try until that has not happened.
class FollowingCallsTest : public DeviceTest {
protected:
    static constexpr size_t kAttempts = 10;

    FollowingCallsTest() {
        fake::onControl([this](const fake::ControlRequest & /*request*/) {
            ++count;
            return 0;
        });
    }
    // Has the calls begin, and then "usb-libusb" handle something.
    void begin() {
        calls = std::jthread([this](const std::stop_token &stop) {
            while (!stop.stop_requested()) {
                vexa_usb_control_transfer(device, 0, 2, 0, 1, 0, 0, nullptr, 0);
                fake::takeCalls();
            }
        });
        ASSERT_TRUE(test::eventually([this]() { return count >= 2; }));
        notifyArrival();
        ASSERT_TRUE(isHeard(test::kLong));
    }
    void notifyArrival() {
        expected = test::Snapshot().count + 1;
        fake::notifyArrival(fake::attach(VEXA_USB_VENDOR_ID, 2));
    }
    bool isHeard(std::chrono::milliseconds within) const {
        const auto end = std::chrono::steady_clock::now() + within;
        while (test::Snapshot().count != expected && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return test::Snapshot().count == expected;
    }

    std::atomic<uint64_t> count = 0;
    uint64_t expected = 0;
    std::jthread calls; // last: it ends before what it uses
};

// The stand-in's calls handle no events, unlike real ones; the thread comes in all the same.
TEST_F(FollowingCallsTest, KeepTheThreadOutForATurnOnly) {
    // What kept the thread on duty has ended.
    ASSERT_EQ(vexa_usb_data_stream_start(device, 0x82, 512, 4), 0);
    ASSERT_EQ(vexa_usb_event_pipe_enable(device, 0x81), 0);
    fake::completeNewest(LIBUSB_TRANSFER_STALL);
    ASSERT_EQ(vexa_usb_data_stream_stop(device), 0);
    begin();
    bool stayedOut = false;
    std::array<std::chrono::steady_clock::duration, kAttempts> delays{};
    for (auto &delay : delays) {
        const auto notified = std::chrono::steady_clock::now();
        notifyArrival();
        stayedOut = !isHeard(std::chrono::milliseconds(3)) || stayedOut;
        ASSERT_TRUE(isHeard(test::kLong));
        delay = std::chrono::steady_clock::now() - notified;
    }
    EXPECT_TRUE(stayedOut);
    // A turn is 10 ms; some of them are longer, on a machine that has other things to do.
    std::sort(delays.begin(), delays.end());
    EXPECT_LT(delays[kAttempts / 4], std::chrono::milliseconds(25));
}

TEST_F(FollowingCallsTest, WithoutThemTheThreadStays) {
    std::array<std::chrono::steady_clock::duration, kAttempts> delays{};
    for (auto &delay : delays) {
        const auto notified = std::chrono::steady_clock::now();
        notifyArrival();
        ASSERT_TRUE(isHeard(test::kLong));
        delay = std::chrono::steady_clock::now() - notified;
    }
    std::sort(delays.begin(), delays.end());
    EXPECT_LT(delays[kAttempts / 4], std::chrono::milliseconds(5));
}

TEST_F(FollowingCallsTest, StreamsDoNotWaitForThem) {
    begin();
    std::array<std::chrono::steady_clock::duration, kAttempts> delays{};
    for (size_t i = 0; i < kAttempts; ++i) {
        ASSERT_EQ(vexa_usb_data_stream_start(device, 0x82, 512, 4), 0);
        const auto start = std::chrono::steady_clock::now();
        fake::completeOldest();
        ASSERT_TRUE(log.waitFor(VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL, i + 1));
        delays[i] = std::chrono::steady_clock::now() - start;
        ASSERT_EQ(vexa_usb_data_stream_stop(device), 0);
        notifyArrival(); // after which the thread leaves
        ASSERT_TRUE(isHeard(test::kLong));
    }
    // Without the reservation it would be most of a turn; on a busy machine, some are.
    std::sort(delays.begin(), delays.end());
    EXPECT_LT(delays[kAttempts / 4], std::chrono::milliseconds(5));
}

// The last fini ends the turn.
TEST_F(FollowingCallsTest, TheLastFiniDoesNotWaitForThem) {
    auto shortest = std::chrono::steady_clock::duration::max();
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(vexa_usb_control_transfer(device, 0, 2, 0, 1, 0, 0, nullptr, 0), 0);
        notifyArrival(); // after which the thread leaves
        ASSERT_TRUE(isHeard(test::kLong));
        shortest = std::min(shortest, test::timed(vexa_usb_fini));
        vexa_usb_init();
        close();
        beginAgain();
    }
    EXPECT_LT(shortest, std::chrono::milliseconds(5));
}

} // namespace
