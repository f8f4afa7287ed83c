// Devices that come and go on a real kernel while the library is in the middle of something.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <optional>
#include <random>
#include <stop_token>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#ifdef __SANITIZE_ADDRESS__
extern "C" size_t __sanitizer_get_current_allocated_bytes(); // g++ installs no header for it
#endif

#include <gtest/gtest.h>

#include "support/change_log.h"
#include "system_fixture.h"

namespace {

using namespace test;

class UnplugTest : public KernelTest {
protected:
    // Whether that many devices come to have arrived and left in all.
    bool reach(size_t arrivals, size_t departures) {
        return eventually([&]() {
            return changes.count(VEXA_USB_DEVICE_LIST_EVENT_ADDED) == arrivals &&
                   changes.count(VEXA_USB_DEVICE_LIST_EVENT_REMOVED) == departures;
        });
    }
    // Every call answers "removed", the callback was told once, and closing works.
    void expectRemoved() {
        ASSERT_TRUE(events.waitFor(kRemoved));
        EXPECT_EQ(rewindStream(device), VEXA_USB_STATUS_DEVICE_REMOVED);
        EXPECT_EQ(close(), 0);
        EXPECT_EQ(events.count(kRemoved), 1U);
    }

    ChangeLog &changes = ChangeLog::add();
};

TEST_F(UnplugTest, SupportedIdentifiersAppearAndOthersDoNot) {
    std::optional<Simulator> simulator;
    simulator.emplace(
        std::vector<std::string>{
            "instrument,vendor=0x04b4,product=0x8614", "instrument,vendor=0x5657",
            "instrument,product=0xffff", "instrument,vendor=0x04b4,product=0x8613",
            "instrument,vendor=0x04b4,product=0x00f3", "instrument,vendor=0x15a2,product=0x0076"},
        0, false);
    ASSERT_TRUE(reach(4, 0));
    ASSERT_TRUE(systemLists("5657:", 1) && systemLists(":8614", 1));
    EXPECT_EQ(listedIds().size(), 4U);
    simulator.reset();
    EXPECT_TRUE(reach(4, 4));
}

// Requests without a pause leave libusb's events to the thread that makes them; what becomes of
// another device is heard all the same, and its stream is whole.
TEST_F(UnplugTest, WhileAnotherIsKeptBusy) {
    const Simulator simulator({"instrument", "instrument"}, 2);
    _vexa_usb_device *const other = openDevice(listedIds().at(0), EventLog::make());
    ASSERT_NE(other, nullptr);
    std::jthread busy([other](const std::stop_token &stop) {
        while (!stop.stop_requested())
            EXPECT_EQ(rewindStream(other), 0);
    });
    for (size_t i = 1; i <= 3; ++i) {
        device = openDevice(listedIds(false).back(), events);
        ASSERT_NE(device, nullptr);
        EXPECT_EQ(stream(65536, 32, 1000000), 1000000U);
        ASSERT_EQ(vanish(device, 0, 300), 0);
        EXPECT_TRUE(events.waitFor(kRemoved, i));
        EXPECT_EQ(close(), 0);
        EXPECT_TRUE(reach(2 + i, i));
    }
    busy.request_stop();
    busy.join();
    EXPECT_EQ(vexa_usb_close(other), 0);
}

TEST_F(UnplugTest, InABlockingRead) {
    const Simulator simulator({"instrument"});
    openFirst();
    ASSERT_EQ(vanish(device, 0, sim::kNeverReturn, 0, 500), 0);
    uint8_t byte = 0;
    int32_t status = 0;
    do
        status = vexa_usb_bulk_read(device, sim::kBulkLoopIn, &byte, 1);
    while (status == VEXA_USB_STATUS_TIMEOUT);
    EXPECT_EQ(status, VEXA_USB_STATUS_UNKNOWN);
    expectRemoved();
}

// Gone in the middle of a stream, with a buffer locked; and back as another.
TEST_F(UnplugTest, WithABufferLockedAndThePipeArmed) {
    const Simulator simulator({"instrument"});
    openFirst();
    ASSERT_EQ(vexa_usb_event_pipe_enable(device, sim::kEventEndpoint), 0);
    ASSERT_EQ(start(65536, 4096), 0);
    ASSERT_TRUE(events.waitFor(kFull));
    ASSERT_EQ(lock(), 0);
    ASSERT_EQ(vanish(device, 1000000, 200, 0x22), 0);
    ASSERT_TRUE(events.waitFor(kRemoved));
    EXPECT_EQ(vexa_usb_data_stream_buffer_unlock(device), VEXA_USB_STATUS_DEVICE_REMOVED);
    EXPECT_EQ(stop(), VEXA_USB_STATUS_DEVICE_REMOVED);
    EXPECT_EQ(vexa_usb_event_pipe_disable(device), VEXA_USB_STATUS_DEVICE_REMOVED);
    EXPECT_EQ(sim::firstPatternError(0, {lockedData, lockedSize}),
              lockedSize); // held until the close
    expectRemoved();
    EXPECT_EQ(events.count(kStopped), 0U);
    EXPECT_TRUE(reach(2, 1));
    EXPECT_TRUE(systemLists(":0022", 1));
}

// Pulled out from its own callback or from the list's, which opens what comes; closed in its own.
TEST_F(UnplugTest, FromWithinCallbacks) {
    static std::atomic<int> closed = 0, refused = 0;
    struct Own {
        _vexa_usb_device *device = nullptr;

        static void onDevice(_vexa_usb_device_event event, void *data) {
            auto &self = *static_cast<Own *>(data);
            if (event == 7)
                vanish(self.device, 0, 50);
            if (event == kRemoved)
                closed += vexa_usb_close(self.device) == 0 ? 1 : 0;
        }
    };
    static auto &all = *new std::deque<Own>; // callbacks may come late
    const ChangeLog &own =
        ChangeLog::add([](uint32_t type, const _vexa_usb_device_list_item &item) {
            Own &one = all.emplace_back();
            const int32_t status = vexa_usb_open(&item, Own::onDevice, &one, &one.device);
            if (type == VEXA_USB_DEVICE_LIST_EVENT_REMOVED) {
                refused += status == VEXA_USB_STATUS_UNKNOWN ? 1 : 0;
                return;
            }
            vexa_usb_event_pipe_enable(one.device, sim::kEventEndpoint);
            if (refused % 2 == 0)
                steer(one.device, sim::kRequestSendEvents, 0, 0, {7});
            else
                vanish(one.device, 0, 50);
        });
    const Simulator simulator({"instrument"}, 0, false);
    EXPECT_TRUE(eventually([]() { return refused >= 5 && closed >= 5; }));
    EXPECT_EQ(vexa_usb_deregister_device_list_event_callback(own.id), 0);
}

// After a second initialisation nothing is heard of the bus, but an update finds what is there.
TEST_F(UnplugTest, AfterASecondInitialisation) {
    vexa_usb_fini();
    vexa_usb_init();
    ChangeLog &later = ChangeLog::add();
    const Simulator simulator({"instrument", "instrument"}, 0, false);
    ASSERT_TRUE(systemLists(":0001", 2));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_TRUE(later.all().empty());
    openFirst();
    EXPECT_TRUE(later.waitFor(2));
    _vexa_usb_device *const other = openDevice(listedIds(false).at(1), EventLog::make());
    ASSERT_EQ(vanish(other, 0, sim::kNeverReturn), 0);
    EXPECT_TRUE(eventually([&]() { return rewindStream(other) != 0; }));
    for (int i = 0; i < 100; ++i) { // calls have libusb look at the bus
        EXPECT_EQ(rewindStream(device), 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
    }
    EXPECT_EQ(later.all().size(), 2U);
    EXPECT_EQ(vexa_usb_close(other), 0);
    EXPECT_EQ(close(), 0);
}

// Bytes in use; known under the address sanitizer only.
size_t allocatedBytes() {
#ifdef __SANITIZE_ADDRESS__
    return __sanitizer_get_current_allocated_bytes();
#else
    return 0;
#endif
}

class UnplugCyclesTest : public UnplugTest {
protected:
    static constexpr uint8_t kEventByte = 99;

    uint16_t random(uint32_t limit) { return static_cast<uint16_t>(generator() % limit); }
    // Opens, uses and closes the device at random moments until it has gone.
    void useUntilGone(size_t departures) {
        static auto &logs = *new std::deque<EventLog>; // callbacks may come late
        const uint64_t id = changes.all().back().second;
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        for (bool isFirst = true; changes.count(VEXA_USB_DEVICE_LIST_EVENT_REMOVED) < departures;) {
            ASSERT_LT(std::chrono::steady_clock::now(), end) << "the device has not gone";
            EventLog &log = logs.emplace_back();
            device = openDevice(id, log);
            if (device == nullptr) {
                logs.pop_back();
                continue;
            }
            if (logs.size() > 100)
                logs.pop_front(); // long past its last event
            if (std::exchange(isFirst, false)) {
                EXPECT_EQ(vanish(device, 0, random(30), 0, random(100)), 0);
            }
            use(log);
            EXPECT_EQ(close(), 0);
            EXPECT_LE(log.count(kRemoved), 1U);
            ++opened;
            buffers += log.count(kFull);
            eventBytes += log.count(kEventByte);
        }
    }
    // Any step may fail, once the device has gone.
    void use(EventLog &log) {
        if (random(4) != 0) {
            vexa_usb_event_pipe_enable(device, sim::kEventEndpoint);
            steer(device, sim::kRequestSendEvents, 0, 0,
                  std::vector<uint8_t>(random(65), kEventByte));
        }
        bool rewound = false;
        if (random(4) != 0) {
            rewound = rewindStream(device) == 0;
            start(1000 + 2 * random(50000), 32);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(random(40)));
        if (rewound && log.count(kFull) > 0 && lock() == 0) {
            EXPECT_EQ(sim::firstPatternError(0, {lockedData, lockedSize}), lockedSize);
        }
        if (random(4) == 0)
            stop();
        if (random(4) == 0)
            vexa_usb_event_pipe_disable(device);
        if (random(4) == 0) {
            EXPECT_TRUE(log.waitFor(kRemoved));
            EXPECT_EQ(rewindStream(device), VEXA_USB_STATUS_DEVICE_REMOVED);
            EXPECT_EQ(log.count(kRemoved), 1U);
        }
    }
    // Whether three transfers of 330 kB are all that is in use: with 60 kB more they would be
    // refused.
    void expectNoTransferMemoryInUse() {
        limitTransfers("1");
        openFirst();
        EXPECT_EQ(start(330000, 8), 0);
        EXPECT_TRUE(events.waitFor(kFull));
        EXPECT_EQ(close(), 0);
        limitTransfers("256");
    }

    std::mt19937 generator{7}; // NOLINT(cert-msc51-cpp): repeatable
    size_t opened = 0;
    size_t buffers = 0;
    size_t eventBytes = 0;
};

TEST_F(UnplugCyclesTest, PlugCycles) {
    const char *const wanted = std::getenv("VEXA_PLUG_CYCLES");
    // In fewer, the device may each time have gone before an event came.
    const size_t cycles = std::max(8UL, wanted == nullptr ? 0 : std::strtoul(wanted, nullptr, 10));
    const Simulator simulator({"instrument"}, 0, false);
    size_t descriptors = 0;
    size_t memory = 0;
    for (size_t cycle = 0; cycle < cycles; ++cycle) {
        ASSERT_TRUE(reach(cycle + 1, cycle)) << "cycle " << cycle;
        if (cycle == cycles / 4) {
            descriptors = openDescriptors();
            memory = allocatedBytes();
        }
        useUntilGone(cycle + 1);
        ASSERT_FALSE(HasFailure()) << "cycle " << cycle;
    }
    ASSERT_TRUE(reach(cycles + 1, cycles));
    const size_t memoryAtTheEnd = allocatedBytes();
    // Each has come, and has gone before the next one came.
    const auto seen = changes.all();
    for (size_t i = 1; i < seen.size(); ++i)
        EXPECT_TRUE(i % 2 == 1 ? seen[i].second == seen[i - 1].second
                               : seen[i].second > seen[i - 1].second);
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_EQ(sharedMappings(), 0U);
    expectNoTransferMemoryInUse();
    EXPECT_LE(memoryAtTheEnd, memory + (32U << 10));
    EXPECT_GT(buffers, 0U);
    EXPECT_GT(eventBytes, 0U);
    std::printf(
        "%zu cycles, opened %zu times, %zu buffers, %zu event bytes, %zu descriptors, bytes "
        "in use %zu, then %zu\n",
        cycles, opened, buffers, eventBytes, descriptors, memory, memoryAtTheEnd);
}

} // namespace
