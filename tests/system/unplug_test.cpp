// Devices that come and go on a real kernel while the library is in the middle of something.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
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

#include "instrument_protocol.h"
#include "simulator.h"
#include "stream_reader.h"
#include "support/change_log.h"

namespace {

using test::ChangeLog;
using test::EventLog;
using test::Simulator;
using test::StreamReader;

constexpr uint32_t kFull = VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL;
constexpr uint32_t kRemoved = VEXA_USB_DEVICE_EVENT_REMOVED;

class UnplugTest : public ::testing::Test {
protected:
    UnplugTest() : changes((vexa_usb_init(), ChangeLog::add())) {}
    ~UnplugTest() override { vexa_usb_fini(); }
    // Whether that many devices come to have arrived and left in all.
    bool reach(size_t arrivals, size_t departures) {
        return test::eventually([&]() {
            return changes.count(VEXA_USB_DEVICE_LIST_EVENT_ADDED) == arrivals &&
                   changes.count(VEXA_USB_DEVICE_LIST_EVENT_REMOVED) == departures;
        });
    }
    void openOnly() {
        device = test::openDevice(test::listedIds().at(0), events);
        ASSERT_NE(device, nullptr);
    }
    // Every call answers "removed", the callback was told once, and closing works.
    void expectRemoved() {
        ASSERT_TRUE(events.waitFor(kRemoved));
        EXPECT_EQ(test::rewindStream(device), VEXA_USB_STATUS_DEVICE_REMOVED);
        EXPECT_EQ(vexa_usb_close(device), 0);
        EXPECT_EQ(events.count(kRemoved), 1U);
    }

    ChangeLog &changes;
    EventLog &events = EventLog::make();
    _vexa_usb_device *device = nullptr;
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
    ASSERT_TRUE(test::systemLists("5657:", 1) && test::systemLists(":8614", 1));
    EXPECT_EQ(test::listedIds().size(), 4U);
    simulator.reset();
    EXPECT_TRUE(reach(4, 4));
}

// Requests without a pause leave libusb's events to the thread that makes them; what becomes of
// another device is heard all the same, and its stream is whole.
TEST_F(UnplugTest, WhileAnotherIsKeptBusy) {
    const Simulator simulator({"instrument", "instrument"}, 2);
    _vexa_usb_device *const other = test::openDevice(test::listedIds().at(0), EventLog::make());
    ASSERT_NE(other, nullptr);
    std::jthread busy([other](const std::stop_token &stop) {
        while (!stop.stop_requested())
            EXPECT_EQ(test::rewindStream(other), 0);
    });
    for (size_t i = 1; i <= 3; ++i) {
        EventLog &own = EventLog::make();
        device = test::openDevice(test::listedIds(false).back(), own);
        ASSERT_NE(device, nullptr);
        StreamReader reader(device, own);
        ASSERT_EQ(test::rewindStream(device), 0);
        ASSERT_EQ(vexa_usb_data_stream_start(device, sim::kStreamEndpoint, 65536, 32), 0);
        EXPECT_EQ(reader.read(1000000), 1000000U);
        EXPECT_EQ(vexa_usb_data_stream_stop(device), 0);
        ASSERT_EQ(test::vanish(device, 0, 300), 0);
        EXPECT_TRUE(own.waitFor(kRemoved));
        EXPECT_EQ(vexa_usb_close(device), 0);
        EXPECT_TRUE(reach(2 + i, i));
    }
    busy.request_stop();
    busy.join();
    EXPECT_EQ(vexa_usb_close(other), 0);
}

TEST_F(UnplugTest, InABlockingRead) {
    const Simulator simulator({"instrument"});
    openOnly();
    ASSERT_EQ(test::vanish(device, 0, sim::kNeverReturn, 0, 500), 0);
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
    openOnly();
    ASSERT_EQ(vexa_usb_event_pipe_enable(device, sim::kEventEndpoint), 0);
    ASSERT_EQ(vexa_usb_data_stream_start(device, sim::kStreamEndpoint, 65536, 4096), 0);
    ASSERT_TRUE(events.waitFor(kFull));
    uint8_t *data = nullptr;
    uint64_t size = 0;
    ASSERT_EQ(vexa_usb_data_stream_buffer_lock(device, &data, &size), 0);
    ASSERT_EQ(test::vanish(device, 1000000, 200, 0x22), 0);
    ASSERT_TRUE(events.waitFor(kRemoved));
    EXPECT_EQ(vexa_usb_data_stream_buffer_unlock(device), VEXA_USB_STATUS_DEVICE_REMOVED);
    EXPECT_EQ(vexa_usb_data_stream_stop(device), VEXA_USB_STATUS_DEVICE_REMOVED);
    EXPECT_EQ(vexa_usb_event_pipe_disable(device), VEXA_USB_STATUS_DEVICE_REMOVED);
    EXPECT_EQ(sim::firstPatternError(0, {data, size}), size); // held until the close
    expectRemoved();
    EXPECT_EQ(events.count(VEXA_USB_DEVICE_EVENT_DATA_STREAM_STOPPED), 0U);
    EXPECT_TRUE(reach(2, 1));
    EXPECT_TRUE(test::systemLists(":0022", 1));
}

// Pulled out from its own callback or from the list's, which opens what comes; closed in its own.
TEST_F(UnplugTest, FromWithinCallbacks) {
    static std::atomic<int> closed = 0, refused = 0;
    struct Own {
        _vexa_usb_device *device = nullptr;

        static void onDevice(_vexa_usb_device_event event, void *data) {
            auto &self = *static_cast<Own *>(data);
            if (event == 7)
                test::vanish(self.device, 0, 50);
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
                test::steer(one.device, sim::kRequestSendEvents, 0, 0, {7});
            else
                test::vanish(one.device, 0, 50);
        });
    const Simulator simulator({"instrument"}, 0, false);
    EXPECT_TRUE(test::eventually([]() { return refused >= 5 && closed >= 5; }));
    EXPECT_EQ(vexa_usb_deregister_device_list_event_callback(own.id), 0);
}

// After a second initialisation nothing is heard of the bus, but an update finds what is there.
TEST_F(UnplugTest, AfterASecondInitialisation) {
    vexa_usb_fini();
    vexa_usb_init();
    ChangeLog &later = ChangeLog::add();
    const Simulator simulator({"instrument", "instrument"}, 0, false);
    ASSERT_TRUE(test::systemLists(":0001", 2));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_TRUE(later.all().empty());
    openOnly();
    EXPECT_TRUE(later.waitFor(2));
    _vexa_usb_device *const other =
        test::openDevice(test::listedIds(false).at(1), EventLog::make());
    ASSERT_EQ(test::vanish(other, 0, sim::kNeverReturn), 0);
    EXPECT_TRUE(test::eventually([&]() { return test::rewindStream(other) != 0; }));
    for (int i = 0; i < 100; ++i) { // calls have libusb look at the bus
        EXPECT_EQ(test::rewindStream(device), 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
    }
    EXPECT_EQ(later.all().size(), 2U);
    EXPECT_EQ(vexa_usb_close(other), 0);
    EXPECT_EQ(vexa_usb_close(device), 0);
}

// Bytes in use; known under the address sanitizer only.
size_t allocatedBytes() {
#ifdef __SANITIZE_ADDRESS__
    return __sanitizer_get_current_allocated_bytes();
#else
    return 0;
#endif
}

// Opens, uses and closes the device at random moments until it has gone.
class RandomClient {
public:
    // Returns how often the device could be opened.
    int useUntilGone(ChangeLog &changes, size_t departures) {
        int opened = 0;
        const uint64_t id = changes.all().back().second;
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (changes.count(VEXA_USB_DEVICE_LIST_EVENT_REMOVED) < departures) {
            if (std::chrono::steady_clock::now() > end) {
                ADD_FAILURE() << "the device has not gone";
                break;
            }
            all_.push_back(std::make_unique<EventLog>());
            device_ = test::openDevice(id, *all_.back());
            if (device_ == nullptr) {
                all_.pop_back();
                continue;
            }
            if (all_.size() > 100)
                all_.pop_front(); // long past its last event
            if (opened++ == 0) {
                EXPECT_EQ(test::vanish(device_, 0, random(30), 0, random(100)), 0);
            }
            use(*all_.back());
            EXPECT_EQ(vexa_usb_close(device_), 0);
            EXPECT_LE(all_.back()->count(kRemoved), 1U);
            buffers += all_.back()->count(kFull);
            eventBytes += all_.back()->count(kEventByte);
        }
        return opened;
    }

    static constexpr uint8_t kEventByte = 99;
    size_t buffers = 0;
    size_t eventBytes = 0;

private:
    uint16_t random(uint32_t limit) { return static_cast<uint16_t>(generator_() % limit); }
    // Any step may fail, once the device has gone.
    void use(EventLog &events) {
        if (random(4) != 0) {
            vexa_usb_event_pipe_enable(device_, sim::kEventEndpoint);
            test::steer(device_, sim::kRequestSendEvents, 0, 0,
                        std::vector<uint8_t>(random(65), kEventByte));
        }
        bool rewound = false;
        if (random(4) != 0) {
            rewound = test::rewindStream(device_) == 0;
            vexa_usb_data_stream_start(device_, sim::kStreamEndpoint, 1000 + 2 * random(50000), 32);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(random(40)));
        uint8_t *data = nullptr;
        uint64_t size = 0;
        if (rewound && events.count(kFull) > 0 &&
            vexa_usb_data_stream_buffer_lock(device_, &data, &size) == 0) {
            EXPECT_EQ(sim::firstPatternError(0, {data, size}), size);
        }
        if (random(4) == 0)
            vexa_usb_data_stream_stop(device_);
        if (random(4) == 0)
            vexa_usb_event_pipe_disable(device_);
        if (random(4) == 0) {
            EXPECT_TRUE(events.waitFor(kRemoved));
            EXPECT_EQ(test::rewindStream(device_), VEXA_USB_STATUS_DEVICE_REMOVED);
            EXPECT_EQ(events.count(kRemoved), 1U);
        }
    }

    std::mt19937 generator_{7}; // NOLINT(cert-msc51-cpp): repeatable
    std::deque<std::unique_ptr<EventLog>> all_;
    _vexa_usb_device *device_ = nullptr;
};

// Whether three transfers of 330 kB are all that is in use: with 60 kB more they would be refused.
void expectNoTransferMemoryInUse(uint64_t id) {
    test::limitTransfers("1");
    EventLog &events = EventLog::make();
    _vexa_usb_device *const device = test::openDevice(id, events);
    EXPECT_EQ(vexa_usb_data_stream_start(device, sim::kStreamEndpoint, 330000, 8), 0);
    EXPECT_TRUE(events.waitFor(kFull));
    EXPECT_EQ(vexa_usb_close(device), 0);
    test::limitTransfers("256");
}

// No removal is missed and nothing stays behind.
TEST_F(UnplugTest, PlugCycles) {
    const char *const wanted = std::getenv("VEXA_PLUG_CYCLES");
    const size_t cycles = wanted == nullptr ? 8 : std::strtoul(wanted, nullptr, 10);
    const Simulator simulator({"instrument"}, 0, false);
    static RandomClient &client = *new RandomClient; // callbacks may come late
    size_t descriptors = 0;
    size_t memory = 0;
    int opened = 0;
    for (size_t cycle = 0; cycle < cycles; ++cycle) {
        ASSERT_TRUE(reach(cycle + 1, cycle)) << "cycle " << cycle;
        if (cycle == cycles / 4) {
            descriptors = test::openDescriptors();
            memory = allocatedBytes();
        }
        opened += client.useUntilGone(changes, cycle + 1);
        ASSERT_FALSE(HasFailure()) << "cycle " << cycle;
    }
    ASSERT_TRUE(reach(cycles + 1, cycles));
    const size_t memoryAtTheEnd = allocatedBytes();
    // Each has come, and has gone before the next one came.
    const auto seen = changes.all();
    for (size_t i = 1; i < seen.size(); ++i)
        EXPECT_TRUE(i % 2 == 1 ? seen[i].second == seen[i - 1].second
                               : seen[i].second > seen[i - 1].second);
    EXPECT_EQ(test::openDescriptors(), descriptors);
    EXPECT_EQ(test::sharedMappings(), 0U);
    expectNoTransferMemoryInUse(changes.all().back().second);
    EXPECT_LE(memoryAtTheEnd, memory + (32U << 10));
    EXPECT_GT(client.buffers, 0U);
    EXPECT_GT(client.eventBytes, 0U);
    std::printf("%zu cycles, opened %d times, %zu buffers, %zu event bytes, %zu descriptors, bytes "
                "in use %zu, then %zu\n",
                cycles, opened, client.buffers, client.eventBytes, descriptors, memory,
                memoryAtTheEnd);
}

} // namespace
