// The library on a real kernel, with simulated devices on the kernel's own virtual bus.  Each test
// runs in a process of its own (see run), since the library follows the bus once in a process.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <initializer_list>
#include <random>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "system_fixture.h"

namespace {

using namespace test;

using Bytes = std::vector<uint8_t>;
using Sizes = std::initializer_list<size_t>;

class SystemTest : public KernelTest {
protected:
    int32_t read(Bytes &bytes) {
        return vexa_usb_bulk_read(device, sim::kBulkLoopIn, bytes.data(), bytes.size());
    }
    int32_t write(const Bytes &bytes) {
        return vexa_usb_bulk_write(device, sim::kBulkLoopOut, bytes.data(), bytes.size());
    }
    // What is written with each of these lengths comes back the same.
    template <typename Write, typename Read>
    void expectLoop(Sizes lengths, Write writeAll, uint8_t out, Read readAll, uint8_t in) {
        for (const size_t length : lengths) {
            Bytes sent(length);
            for (size_t i = 0; i < length; ++i)
                sent[i] = static_cast<uint8_t>(i * 7 + i / 251);
            Bytes received(length);
            ASSERT_EQ(writeAll(device, out, sent.data(), length), 0) << length;
            ASSERT_EQ(readAll(device, in, received.data(), length), 0) << length;
            ASSERT_EQ(received, sent);
        }
    }
};

TEST_F(SystemTest, TransfersOfAwkwardLengths) {
    const Simulator simulator({"instrument"});
    openFirst();
    expectLoop({1, 511, 512, 513, 65536, 524287, 524288, 524289, 1048577}, vexa_usb_bulk_write,
               sim::kBulkLoopOut, vexa_usb_bulk_read, sim::kBulkLoopIn);
    expectLoop({1, 63, 64, 65, 200}, vexa_usb_interrupt_write, sim::kInterruptLoopOut,
               vexa_usb_interrupt_read, sim::kInterruptLoopIn);
    for (const size_t length : Sizes{0, 1, 64, 65, 4096}) { // the kernel allows no more
        const Bytes sent(length, static_cast<uint8_t>(length));
        Bytes received(length);
        ASSERT_EQ(steer(device, sim::kRequestScratch, 0, 0, sent), 0) << length;
        ASSERT_EQ(ask(device, sim::kRequestScratch, received), 0) << length;
        ASSERT_EQ(received, sent);
    }
}

TEST_F(SystemTest, TimeoutsStallsAndShortAnswers) {
    const Simulator simulator({"instrument"});
    openFirst();
    Bytes bytes(1000);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(read(bytes), VEXA_USB_STATUS_TIMEOUT);
    const auto time = std::chrono::steady_clock::now() - before;
    EXPECT_GT(time, std::chrono::milliseconds(900));
    EXPECT_LT(time, std::chrono::milliseconds(3000));

    ASSERT_EQ(steer(device, sim::kRequestStall, 1, sim::kBulkLoopIn), 0);
    ASSERT_EQ(write(bytes), 0);
    EXPECT_EQ(read(bytes), VEXA_USB_STATUS_UNKNOWN);
    // CLEAR_FEATURE(ENDPOINT_HALT), as a driver would.
    EXPECT_EQ(vexa_usb_control_transfer(device, VEXA_USB_DIRECTION_OUT, VEXA_USB_TYPE_STANDARD,
                                        VEXA_USB_RECIPIENT_ENDPOINT, 1, 0, sim::kBulkLoopIn,
                                        nullptr, 0),
              0);
    EXPECT_EQ(read(bytes), 0);
    EXPECT_EQ(steer(device, 0x7F), VEXA_USB_STATUS_UNKNOWN); // no such request: a stall

    ASSERT_EQ(write(bytes), 0);
    ASSERT_EQ(steer(device, sim::kRequestShort, 10, sim::kBulkLoopIn), 0);
    EXPECT_EQ(read(bytes), VEXA_USB_STATUS_NOT_ALL_DATA_TRANSFERRED);
}

TEST_F(SystemTest, StreamsOfManySizes) {
    const auto streamAll = [this](const char *instrument, Sizes sizes) {
        const Simulator simulator({instrument});
        openFirst();
        for (const uint64_t size : sizes) {
            const uint64_t bytes = size < 65536 ? 1000000 : 24000000;
            EXPECT_EQ(stream(size, 4 + 4000000 / size, bytes), bytes) << "buffers of " << size;
        }
        EXPECT_EQ(events.count(kError), 0U);
        EXPECT_EQ(close(), 0);
    };
    streamAll("instrument,speed=high", {300, 512, 65536, 524288, 1000000, 1048576, 3000001});
    streamAll("instrument,speed=super", {700, 1024, 100001, 524289, 2097152});
}

TEST_F(SystemTest, TwentyDevicesStream) {
    const Simulator simulator({"--count", "20"}, 20);
    std::vector<std::thread> threads;
    std::atomic<uint64_t> total = 0;
    for (const uint64_t id : listedIds()) {
        threads.emplace_back([&total, id, &each = EventLog::make()]() {
            _vexa_usb_device *const opened = openDevice(id, each);
            ASSERT_NE(opened, nullptr);
            StreamReader reader(opened, each);
            EXPECT_EQ(vexa_usb_data_stream_start(opened, sim::kStreamEndpoint, 100000, 80), 0);
            total += reader.read(4000000);
            EXPECT_EQ(vexa_usb_close(opened), 0);
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(total, 20 * 4000000U);
}

// Opens all, starts a stream on each, and tells how many of them run.  No data come, so that all
// transfers are in flight.
size_t runningStreams(const std::vector<uint64_t> &ids) {
    size_t running = 0;
    std::vector<_vexa_usb_device *> opened;
    for (const uint64_t id : ids) {
        EventLog &events = EventLog::make();
        opened.push_back(openDevice(id, events));
        steer(opened.back(), sim::kRequestSilence, 1, sim::kStreamEndpoint);
        EXPECT_EQ(vexa_usb_data_stream_start(opened.back(), sim::kStreamEndpoint, 1048576, 16), 0);
        EXPECT_TRUE(events.waitFor(kStarted));
        running += 1 - events.count(kError);
    }
    for (_vexa_usb_device *each : opened)
        EXPECT_EQ(vexa_usb_close(each), 0);
    EXPECT_EQ(sharedMappings(), 0U);
    return running;
}

// Under each limit, as many devices stream as without shared rings.
TEST_F(SystemTest, SharedRingsTakeNothingFromOthers) {
    const char *const wanted = std::getenv("VEXA_STREAMING_DEVICES");
    const std::string devices = wanted == nullptr ? "44" : wanted;
    const Simulator simulator({"--count", devices}, std::stoul(devices));
    const auto ids = listedIds();
    for (const char *const mebibytes : {"16", "64", "128"}) {
        limitTransfers(mebibytes);
        ASSERT_EQ(setenv("VEXA_USB_RING", "private", 1), 0);
        const size_t before = runningStreams(ids);
        ASSERT_EQ(unsetenv("VEXA_USB_RING"), 0);
        const size_t shared = runningStreams(ids);
        std::printf("limit %s: of %zu devices %zu stream, with shared rings %zu\n", mebibytes,
                    ids.size(), before, shared);
        EXPECT_EQ(shared, before);
    }
    limitTransfers("256");
}

// A hundred packets of random lengths arrive byte for byte while a stream runs on the device.
TEST_F(SystemTest, EventsWhileStreaming) {
    const Simulator simulator({"instrument"});
    openFirst();
    ASSERT_EQ(vexa_usb_event_pipe_enable(device, sim::kEventEndpoint), 0);
    // One buffer that takes long to fill: its events, 4 and 5, would look like bytes.
    ASSERT_EQ(start(1 << 30, 2), 0);
    std::vector<uint32_t> sent;
    std::mt19937 random(42); // NOLINT(cert-msc51-cpp): repeatable
    for (int packet = 0; packet < 100; ++packet) {
        Bytes bytes(random() % 65);
        for (uint8_t &byte : bytes)
            byte = static_cast<uint8_t>(random());
        ASSERT_EQ(steer(device, sim::kRequestSendEvents, 0, 0, bytes), 0);
        sent.insert(sent.end(), bytes.begin(), bytes.end());
    }
    const auto received = [this]() {
        auto bytes = events.all();
        std::erase_if(bytes, [](uint32_t event) { return event > UINT8_MAX; });
        return bytes;
    };
    EXPECT_TRUE(eventually([&]() { return received().size() >= sent.size(); }));
    EXPECT_EQ(received(), sent);
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(vexa_usb_event_pipe_disable(device), 0);
    // The device has sent of its stream, too: it goes on where it was.
    const size_t fours = events.count(kFull);
    ASSERT_EQ(start(65536, 64), 0);
    ASSERT_TRUE(events.waitFor(kFull, fours + 1));
    ASSERT_EQ(lock(), 0);
    EXPECT_LT(sim::firstPatternError(0, {lockedData, lockedSize}), lockedSize);
}

// Every life-cycle state with a real libusb below: nothing hangs, no descriptor stays open.
TEST_F(SystemTest, InitAndFiniCycles) {
    const Simulator simulator({"instrument"});
    vexa_usb_fini();
    const size_t before = openDescriptors();
    for (int cycle = 0; cycle < 30; ++cycle) {
        vexa_usb_init();
        openFirst();
        ASSERT_EQ(start(65536, 16), 0);
        if (cycle % 3 == 0) {
            EXPECT_EQ(stop(), 0);
        }
        if (cycle % 3 == 1) {
            EXPECT_EQ(close(), 0);
        }
        vexa_usb_fini(); // a device that is still open
        if (device != nullptr) {
            vexa_usb_init();
            EXPECT_EQ(close(), 0);
            vexa_usb_fini();
        }
    }
    EXPECT_EQ(openDescriptors(), before);
    vexa_usb_init();
}

} // namespace
