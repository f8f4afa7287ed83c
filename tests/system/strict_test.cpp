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

#include "system_fixture.h"

namespace {

using namespace test;

constexpr uint64_t kRingBytes = 16U << 20;
constexpr uint64_t kBytesAfterwards = 4U << 20;

enum class Fault { Halt, Short, Silence, Unplug, Reset, Overflow, Count };
constexpr const char *kFaultNames[]{"halts",   "short answers", "silences",
                                    "unplugs", "resets",        "overflows"};

class StrictTest : public KernelTest {
protected:
    StrictTest() { setenv("VEXA_USB_STREAM", "strict", 1); }

    uint64_t random(uint64_t from, uint64_t to) {
        return std::uniform_int_distribution<uint64_t>(from, to)(engine);
    }
    void reopen() {
        if (device != nullptr)
            close();
        ASSERT_TRUE(eventually([this]() {
            const auto ids = listedIds();
            device = ids.size() == 1 ? openDevice(ids[0], events) : nullptr;
            return device != nullptr;
        }));
    }
    void startAnySize() {
        const auto bufferSize = static_cast<uint64_t>(
            1e5 * std::pow(42.0, static_cast<double>(random(0, 1000)) / 1000));
        seen = events.count(kFull);
        errors = events.count(kError);
        removals = events.count(kRemoved);
        ASSERT_EQ(rewindStream(device), 0);
        ASSERT_EQ(start(bufferSize, kRingBytes / bufferSize + 2), 0);
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
            const int32_t status = lock();
            if (status == VEXA_USB_STATUS_DEVICE_REMOVED) {
                ASSERT_TRUE(events.waitFor(kRemoved, removals + 1)); // says so a little later
                return;
            }
            ASSERT_EQ(status, 0);
            ++seen;
            const uint64_t right = sim::firstPatternError(position, {lockedData, lockedSize});
            ASSERT_EQ(right, lockedSize) << "wrong byte at " << position + right;
            position += lockedSize;
            const int32_t unlocked = vexa_usb_data_stream_buffer_unlock(device);
            ASSERT_TRUE(unlocked == 0 || unlocked == VEXA_USB_STATUS_DEVICE_REMOVED);
        }
    }
    void steerStream(uint8_t request, uint16_t value) {
        ASSERT_EQ(steer(device, request, value, sim::kStreamEndpoint), 0);
    }
    void cause(Fault fault) {
        switch (fault) {
        case Fault::Halt:
            steerStream(sim::kRequestStall, 1);
            steerStream(sim::kRequestStall, 0);
            break;
        case Fault::Short: {
            const uint16_t lengths[]{0, 1, 512, 1000};
            steerStream(sim::kRequestShort, lengths[random(0, 3)]);
            break;
        }
        case Fault::Silence:
            steerStream(sim::kRequestSilence, 1);
            std::this_thread::sleep_for(std::chrono::milliseconds(random(0, 50)));
            steerStream(sim::kRequestSilence, 0);
            break;
        case Fault::Unplug:
            ASSERT_EQ(vanish(device, random(0, 1) * 1000000, 100, 0, 0), 0);
            break;
        case Fault::Overflow:
            paused = true;
            EXPECT_TRUE(eventually([this]() { return hasEnded(); }));
            paused = false;
            break;
        default:
            ASSERT_EQ(std::system("usbreset 5658:0001 >/dev/null"), 0);
        }
    }

    std::mt19937 engine{20260314};
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
    const Simulator simulator({"instrument,speed=super"});
    std::map<Fault, std::pair<int, int>> seenFaults; // how many, and how many ended the stream
    reopen();
    for (size_t round = 0; round < rounds; ++round) {
        const auto fault = static_cast<Fault>(round % static_cast<size_t>(Fault::Count));
        SCOPED_TRACE("round " + std::to_string(round));
        startAnySize();
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
        const int32_t stopped = stop();
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
