// Who handles libusb's events: "usb-libusb", or synchronous calls that follow one another.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
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
    using Duration = std::chrono::steady_clock::duration;

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
        expectHeard();
    }
    void notifyArrival() {
        expected = test::Snapshot().count + 1;
        fake::notifyArrival(fake::attach(VEXA_USB_VENDOR_ID, 2));
    }
    void expectHeard() const { ASSERT_TRUE(isHeard(test::kLong)); }
    // What is measured when nothing else holds it up: on a machine that has other things to do,
    // some of the times are longer.
    static Duration lowQuartile(const std::function<Duration()> &measure) {
        std::array<Duration, 10> times{};
        std::generate(times.begin(), times.end(), measure);
        std::sort(times.begin(), times.end());
        return times[times.size() / 4];
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
    ASSERT_EQ(start(), 0);
    ASSERT_EQ(enable(), 0);
    fake::completeNewest(LIBUSB_TRANSFER_STALL);
    ASSERT_EQ(stop(), 0);
    begin();
    bool stayedOut = false;
    const auto delay = lowQuartile([&]() {
        return test::timed([&]() {
            notifyArrival();
            stayedOut = !isHeard(std::chrono::milliseconds(3)) || stayedOut;
            expectHeard();
        });
    });
    EXPECT_TRUE(stayedOut);
    EXPECT_LT(delay, std::chrono::milliseconds(25)); // a turn is 10 ms
}

// One call costs one turn, and none after it.
TEST_F(FollowingCallsTest, WithoutThemTheThreadStays) {
    EXPECT_EQ(vexa_usb_control_transfer(device, 0, 2, 0, 1, 0, 0, nullptr, 0), 0);
    const auto hearOfOne = [this]() {
        return test::timed([this]() {
            notifyArrival();
            expectHeard();
        });
    };
    hearOfOne();
    EXPECT_LT(lowQuartile(hearOfOne), std::chrono::milliseconds(5));
}

TEST_F(FollowingCallsTest, StreamsDoNotWaitForThem) {
    begin();
    size_t full = 0;
    const auto delay = lowQuartile([&]() {
        EXPECT_EQ(start(), 0);
        const auto time = test::timed([&]() {
            fake::completeOldest();
            EXPECT_TRUE(log.waitFor(test::kFull, ++full));
        });
        EXPECT_EQ(stop(), 0);
        notifyArrival(); // after which the thread leaves
        expectHeard();
        return time;
    });
    EXPECT_LT(delay, std::chrono::milliseconds(5)); // without the reservation, most of a turn
}

// The last fini ends the turn.
TEST_F(FollowingCallsTest, TheLastFiniDoesNotWaitForThem) {
    auto shortest = std::chrono::steady_clock::duration::max();
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(vexa_usb_control_transfer(device, 0, 2, 0, 1, 0, 0, nullptr, 0), 0);
        notifyArrival(); // after which the thread leaves
        expectHeard();
        shortest = std::min(shortest, test::timed(vexa_usb_fini));
        vexa_usb_init();
        close();
        beginAgain();
    }
    EXPECT_LT(shortest, std::chrono::milliseconds(5));
}

} // namespace
