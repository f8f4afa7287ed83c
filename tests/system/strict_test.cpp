// Strict streams on a real kernel: whatever happens, and whenever, no byte that is read is wrong.
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "instrument_protocol.h"
#include "simulator.h"
#include "stream_reader.h"

namespace {

using test::EventLog;

constexpr uint32_t kFull = VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL;
constexpr uint32_t kError = VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR;
constexpr uint32_t kRemoved = VEXA_USB_DEVICE_EVENT_REMOVED;
constexpr uint32_t kStopped = VEXA_USB_DEVICE_EVENT_DATA_STREAM_STOPPED;
constexpr uint64_t kRingBytes = 16U << 20;
constexpr uint64_t kBytesAfterwards = 4U << 20;

enum class Fault { Halt, Short, Silence, Unplug, Reset, Overflow, Count };
constexpr const char *kFaultNames[]{"halts",   "short answers", "silences",
                                    "unplugs", "resets",        "overflows"};

class StrictTest : public ::testing::Test {
protected:
    StrictTest() {
        setenv("VEXA_USB_STREAM", "strict", 1);
        vexa_usb_init();
    }
    ~StrictTest() override {
        vexa_usb_close(device);
        vexa_usb_fini();
    }

    uint64_t random(uint64_t from, uint64_t to) {
        return std::uniform_int_distribution<uint64_t>(from, to)(engine);
    }
    void reopen() {
        if (device != nullptr)
            vexa_usb_close(std::exchange(device, nullptr));
        ASSERT_TRUE(test::eventually([this]() {
            const auto ids = test::listedIds();
            device = ids.size() == 1 ? test::openDevice(ids[0], events) : nullptr;
            return device != nullptr;
        }));
    }
    void start() {
        const auto size = static_cast<uint64_t>(
            1e5 * std::pow(42.0, static_cast<double>(random(0, 1000)) / 1000));
        seen = events.count(kFull);
        errors = events.count(kError);
        removals = events.count(kRemoved);
        ASSERT_EQ(test::rewindStream(device), 0);
        ASSERT_EQ(
            vexa_usb_data_stream_start(device, sim::kStreamEndpoint, size, kRingBytes / size + 2),
            0);
    }
    bool hasEnded() { return events.count(kError) > errors || events.count(kRemoved) > removals; }
    // Looks at every byte, with one lock for each buffer-full event, until the stream has ended or
    // has come that far.
    void drain(const std::atomic<uint64_t> &target) {
        for (uint64_t position = 0; position < target; reached = position) {
            ASSERT_TRUE(events.waitForAny(
                {{kFull, seen + 1}, {kError, errors + 1}, {kRemoved, removals + 1}}))
                << "silent after " << position;
            while (paused)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            if (events.count(kFull) == seen)
                return;
            uint8_t *data = nullptr;
            uint64_t size = 0;
            const int32_t status = vexa_usb_data_stream_buffer_lock(device, &data, &size);
            if (status == VEXA_USB_STATUS_DEVICE_REMOVED) {
                ASSERT_TRUE(events.waitFor(kRemoved, removals + 1)); // says so a little later
                return;
            }
            ASSERT_EQ(status, 0);
            ++seen;
            const uint64_t right = sim::firstPatternError(position, {data, size});
            ASSERT_EQ(right, size) << "wrong byte at " << position + right;
            position += size;
            const int32_t unlocked = vexa_usb_data_stream_buffer_unlock(device);
            ASSERT_TRUE(unlocked == 0 || unlocked == VEXA_USB_STATUS_DEVICE_REMOVED);
        }
    }
    void cause(Fault fault) {
        switch (fault) {
        case Fault::Halt:
            ASSERT_EQ(test::steer(device, sim::kRequestStall, 1, sim::kStreamEndpoint), 0);
            ASSERT_EQ(test::steer(device, sim::kRequestStall, 0, sim::kStreamEndpoint), 0);
            break;
        case Fault::Short: {
            const uint16_t lengths[]{0, 1, 512, 1000};
            ASSERT_EQ(test::steer(device, sim::kRequestShort, lengths[random(0, 3)],
                                  sim::kStreamEndpoint),
                      0);
            break;
        }
        case Fault::Silence:
            ASSERT_EQ(test::steer(device, sim::kRequestSilence, 1, sim::kStreamEndpoint), 0);
            std::this_thread::sleep_for(std::chrono::milliseconds(random(0, 50)));
            ASSERT_EQ(test::steer(device, sim::kRequestSilence, 0, sim::kStreamEndpoint), 0);
            break;
        case Fault::Unplug:
            ASSERT_EQ(test::vanish(device, random(0, 1) * 1000000, 100, 0, 0), 0);
            break;
        case Fault::Overflow:
            paused = true;
            EXPECT_TRUE(test::eventually([this]() { return hasEnded(); }));
            paused = false;
            break;
        default:
            ASSERT_EQ(std::system("usbreset 5658:0001 >/dev/null"), 0);
        }
    }

    std::mt19937 engine{20260314};
    EventLog &events = EventLog::make();
    _vexa_usb_device *device = nullptr;
    uint64_t seen = 0;
    uint64_t errors = 0;
    uint64_t removals = 0;
    uint64_t stops = 0;
    std::atomic<uint64_t> reached = 0;
    std::atomic<bool> paused = false; // the reader
};

TEST_F(StrictTest, NoWrongByteWhateverHappens) {
    const char *const wanted = std::getenv("VEXA_STRICT_FAULTS");
    const size_t rounds = wanted == nullptr ? 18 : std::strtoul(wanted, nullptr, 10);
    const test::Simulator simulator({"instrument,speed=super"});
    std::map<Fault, std::pair<int, int>> seenFaults; // how many, and how many ended the stream
    reopen();
    for (size_t round = 0; round < rounds; ++round) {
        const auto fault = static_cast<Fault>(round % static_cast<size_t>(Fault::Count));
        SCOPED_TRACE("round " + std::to_string(round));
        start();
        reached = 0;
        std::atomic<uint64_t> target = UINT64_MAX;
        std::thread reader([&]() { drain(target); });
        std::this_thread::sleep_for(std::chrono::microseconds(random(0, 100000)));
        cause(fault);
        target = reached + kRingBytes + kBytesAfterwards;
        reader.join();
        ASSERT_FALSE(HasFailure());
        // The others leave no gap when they fall between transfers.
        const bool certain =
            fault == Fault::Short || fault == Fault::Unplug || fault == Fault::Overflow;
        EXPECT_TRUE(hasEnded() || !certain) << kFaultNames[static_cast<size_t>(fault)];
        seenFaults[fault].first += 1;
        seenFaults[fault].second += hasEnded() ? 1 : 0;
        const int32_t stopped = vexa_usb_data_stream_stop(device);
        EXPECT_TRUE(stopped == 0 || stopped == VEXA_USB_STATUS_DEVICE_REMOVED);
        // The last event; a device that is removed meanwhile gives none.
        ASSERT_TRUE(events.waitForAny({{kStopped, stops + 1}, {kRemoved, removals + 1}}));
        stops = events.count(kStopped);
        // Nothing is reported behind the end.  What a removed device reported could not be read.
        if (events.count(kError) > errors && events.count(kRemoved) == removals) {
            EXPECT_EQ(events.count(kFull), seen);
        }
        EXPECT_LE(events.count(kError), errors + 1);
        if (fault == Fault::Unplug || fault == Fault::Reset)
            reopen();
        ASSERT_FALSE(HasFailure());
    }
    for (const auto &[fault, counts] : seenFaults)
        std::printf("%s: %d, of which %d ended the stream\n",
                    kFaultNames[static_cast<size_t>(fault)], counts.first, counts.second);
}

} // namespace
