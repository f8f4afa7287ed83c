// Devices that come and go on a real kernel while the library is in the middle of something.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
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

namespace {

using test::Events;
using test::Simulator;
using test::StreamReader;

// What the list's callbacks said; for the life of the process, since callbacks may come late.
class Changes {
public:
    static Changes &watch() {
        static Changes &changes = *new Changes;
        uint32_t id = 0;
        EXPECT_EQ(vexa_usb_register_device_list_event_callback(callback, &changes, &id), 0);
        return changes;
    }
    // Whether that many devices have come and gone in all; each id comes once and goes once.
    bool reach(size_t arrivals, size_t departures) {
        return test::eventually([&]() {
            const std::lock_guard lock(mutex);
            EXPECT_EQ(wrong, 0);
            return come == arrivals && gone == departures;
        });
    }
    size_t departures() {
        const std::lock_guard lock(mutex);
        return gone;
    }
    uint64_t latest() {
        const std::lock_guard lock(mutex);
        return lastId;
    }
    bool hasCome(uint16_t vendor, uint16_t product) {
        const std::lock_guard lock(mutex);
        return kinds.contains({vendor, product});
    }

private:
    static void callback(uint32_t type, const _vexa_usb_device_list_item *item, void *data) {
        auto &self = *static_cast<Changes *>(data);
        const std::lock_guard lock(self.mutex);
        if (type == VEXA_USB_DEVICE_LIST_EVENT_ADDED) {
            self.wrong += item->id > self.lastId ? 0 : 1;
            self.lastId = item->id;
            self.present.insert(item->id);
            self.kinds.emplace(item->vendor_id, item->product_id);
            ++self.come;
        } else {
            self.wrong += self.present.erase(item->id) == 1 ? 0 : 1;
            ++self.gone;
        }
    }

    // Nothing that grows with each device: a test looks at the memory in use.
    std::mutex mutex;
    size_t come = 0, gone = 0;
    uint64_t lastId = 0;
    std::set<uint64_t> present;
    std::set<std::pair<uint16_t, uint16_t>> kinds;
    int wrong = 0;
};

class UnplugTest : public ::testing::Test {
protected:
    UnplugTest() : changes((vexa_usb_init(), Changes::watch())) {}
    ~UnplugTest() override { vexa_usb_fini(); }
    void openOnly() {
        device = test::openDevice(test::listedIds().at(0), Events::callback, &events);
        ASSERT_NE(device, nullptr);
    }
    // Every call answers "removed", the callback was told once, and closing works.
    void expectRemoved() {
        ASSERT_TRUE(events.wait(VEXA_USB_DEVICE_EVENT_REMOVED));
        EXPECT_EQ(test::rewindStream(device), VEXA_USB_STATUS_DEVICE_REMOVED);
        uint16_t size = 0;
        EXPECT_EQ(vexa_usb_get_max_packet_size(device, 0x82, &size),
                  VEXA_USB_STATUS_DEVICE_REMOVED);
        EXPECT_EQ(vexa_usb_close(device), 0);
        EXPECT_EQ(events.count(VEXA_USB_DEVICE_EVENT_REMOVED), 1U);
    }

    Changes &changes;
    Events &events = Events::make();
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
    ASSERT_TRUE(changes.reach(4, 0));
    EXPECT_TRUE(changes.hasCome(VEXA_USB_VENDOR_ID, 0xFFFF));
    EXPECT_TRUE(changes.hasCome(0x04B4, 0x8613));
    EXPECT_TRUE(changes.hasCome(0x04B4, 0x00F3));
    EXPECT_TRUE(changes.hasCome(0x15A2, 0x0076));
    ASSERT_TRUE(test::systemLists("5657:", 1) && test::systemLists(":8614", 1));
    EXPECT_EQ(test::listedIds().size(), 4U);
    simulator.reset();
    EXPECT_TRUE(changes.reach(4, 4));
}

// Requests without a pause leave libusb's events to the thread that makes them; what becomes of
// another device is heard all the same, and its stream is whole.
TEST_F(UnplugTest, WhileAnotherIsKeptBusy) {
    const Simulator simulator({"instrument", "instrument"}, 2);
    _vexa_usb_device *const other =
        test::openDevice(test::listedIds().at(0), Events::callback, &Events::make());
    ASSERT_NE(other, nullptr);
    std::jthread busy([other](const std::stop_token &stop) {
        while (!stop.stop_requested())
            EXPECT_EQ(test::rewindStream(other), 0);
    });
    for (size_t i = 1; i <= 3; ++i) {
        Events &own = Events::make();
        device = test::openDevice(test::listedIds(false).back(), Events::callback, &own);
        ASSERT_NE(device, nullptr);
        StreamReader reader(device, own);
        ASSERT_EQ(test::rewindStream(device), 0);
        ASSERT_EQ(vexa_usb_data_stream_start(device, sim::kStreamEndpoint, 65536, 32), 0);
        EXPECT_EQ(reader.read(1000000), 1000000U);
        EXPECT_EQ(vexa_usb_data_stream_stop(device), 0);
        ASSERT_EQ(test::vanish(device, 0, 300), 0);
        EXPECT_TRUE(own.wait(VEXA_USB_DEVICE_EVENT_REMOVED));
        EXPECT_EQ(vexa_usb_close(device), 0);
        EXPECT_TRUE(changes.reach(2 + i, i));
    }
    busy.request_stop();
    busy.join();
    EXPECT_EQ(vexa_usb_close(other), 0);
}

TEST_F(UnplugTest, WhileIdleAndBackAsAnother) {
    const Simulator simulator({"instrument"});
    openOnly();
    ASSERT_EQ(test::vanish(device, 0, 200, 0x22), 0);
    expectRemoved();
    EXPECT_TRUE(changes.reach(2, 1));
    EXPECT_TRUE(changes.hasCome(VEXA_USB_VENDOR_ID, 0x22));
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

// Calls that follow one another keep "usb-libusb" out for a moment only: a driver that calls once a
// millisecond hears soon why its calls fail.
TEST_F(UnplugTest, IsNoticedSoonByWhoKeepsCalling) {
    constexpr size_t kTimes = 4;
    const Simulator simulator({"instrument"});
    int failures = 0;
    for (size_t i = 1; i <= kTimes; ++i) {
        ASSERT_TRUE(changes.reach(i, i - 1));
        openOnly();
        ASSERT_EQ(test::vanish(device, 0, 100, 0, 50), 0);
        for (int32_t status = 0; status != VEXA_USB_STATUS_DEVICE_REMOVED;) {
            status = test::steer(device, sim::kRequestScratch);
            failures += status == VEXA_USB_STATUS_UNKNOWN ? 1 : 0;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_EQ(vexa_usb_close(device), 0);
    }
    std::printf("%d calls failed before %zu said that the device was removed\n", failures, kTimes);
    EXPECT_LT(failures, 60);
}

TEST_F(UnplugTest, WithABufferLockedAndThePipeArmed) {
    const Simulator simulator({"instrument"});
    openOnly();
    ASSERT_EQ(vexa_usb_event_pipe_enable(device, sim::kEventEndpoint), 0);
    ASSERT_EQ(vexa_usb_data_stream_start(device, sim::kStreamEndpoint, 65536, 4096), 0);
    ASSERT_TRUE(events.wait(VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL));
    uint8_t *data = nullptr;
    uint64_t size = 0;
    ASSERT_EQ(vexa_usb_data_stream_buffer_lock(device, &data, &size), 0);
    ASSERT_EQ(test::vanish(device, 0, sim::kNeverReturn), 0);
    ASSERT_TRUE(events.wait(VEXA_USB_DEVICE_EVENT_REMOVED));
    EXPECT_EQ(vexa_usb_data_stream_buffer_unlock(device), VEXA_USB_STATUS_DEVICE_REMOVED);
    EXPECT_EQ(vexa_usb_event_pipe_disable(device), VEXA_USB_STATUS_DEVICE_REMOVED);
    EXPECT_EQ(sim::firstPatternError(0, {data, size}), size); // held until the close
    expectRemoved();
}

// Opening while the device leaves: it opens and is then told of the removal, or fails.
TEST_F(UnplugTest, InTheMiddleOfOpening) {
    const Simulator simulator({"instrument"});
    for (uint16_t round = 1; round <= 8; ++round) {
        ASSERT_TRUE(changes.reach(round, round - 1U));
        const uint64_t id = test::listedIds(false).at(0);
        openOnly();
        ASSERT_EQ(test::vanish(device, 0, 50, 0, static_cast<uint16_t>(round * 3)), 0);
        ASSERT_EQ(vexa_usb_close(device), 0);
        bool listed = true;
        while (listed) {
            Events &others = Events::make();
            device = test::openDevice(id, Events::callback, &others);
            const std::vector<uint64_t> ids = test::listedIds(false);
            listed = std::find(ids.begin(), ids.end(), id) != ids.end();
            if (device == nullptr)
                continue;
            if (!listed) {
                EXPECT_TRUE(others.wait(VEXA_USB_DEVICE_EVENT_REMOVED));
            }
            EXPECT_EQ(vexa_usb_close(device), 0);
        }
    }
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
            if (event == VEXA_USB_DEVICE_EVENT_REMOVED)
                closed += vexa_usb_close(self.device) == 0 ? 1 : 0;
        }
        static void onList(uint32_t type, const _vexa_usb_device_list_item *item, void *data) {
            Own &own = static_cast<std::deque<Own> *>(data)->emplace_back();
            const int32_t status = vexa_usb_open(item, onDevice, &own, &own.device);
            if (type == VEXA_USB_DEVICE_LIST_EVENT_REMOVED) {
                refused += status == VEXA_USB_STATUS_UNKNOWN ? 1 : 0;
                return;
            }
            vexa_usb_event_pipe_enable(own.device, sim::kEventEndpoint);
            if (refused % 2 == 0)
                test::steer(own.device, sim::kRequestSendEvents, 0, 0, {7});
            else
                test::vanish(own.device, 0, 50);
        }
    };
    static auto &all = *new std::deque<Own>; // callbacks may come late
    uint32_t id = 0;
    ASSERT_EQ(vexa_usb_register_device_list_event_callback(Own::onList, &all, &id), 0);
    const Simulator simulator({"instrument"}, 0, false);
    EXPECT_TRUE(test::eventually([]() { return refused >= 5 && closed >= 5; }));
    EXPECT_EQ(vexa_usb_deregister_device_list_event_callback(id), 0);
}

// After a second initialisation nothing is heard of the bus, but an update finds what is there.
TEST_F(UnplugTest, AfterASecondInitialisation) {
    vexa_usb_fini();
    vexa_usb_init();
    Changes &later = Changes::watch();
    const Simulator simulator({"instrument", "instrument"}, 0, false);
    ASSERT_TRUE(test::systemLists(":0001", 2));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_TRUE(later.reach(0, 0));
    openOnly();
    EXPECT_TRUE(later.reach(2, 0));
    _vexa_usb_device *const other =
        test::openDevice(test::listedIds(false).at(1), Events::callback, &Events::make());
    ASSERT_EQ(test::vanish(other, 0, sim::kNeverReturn), 0);
    EXPECT_TRUE(test::eventually([&]() { return test::rewindStream(other) != 0; }));
    for (int i = 0; i < 100; ++i) { // calls have libusb look at the bus
        EXPECT_EQ(test::rewindStream(device), 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
    }
    EXPECT_TRUE(later.reach(2, 0));
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
    int useUntilGone(Changes &changes, size_t departures) {
        int opened = 0;
        const uint64_t id = changes.latest();
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (changes.departures() < departures) {
            if (std::chrono::steady_clock::now() > end) {
                ADD_FAILURE() << "the device has not gone";
                break;
            }
            all.push_back(std::make_unique<Events>());
            device = test::openDevice(id, Events::callback, all.back().get());
            if (device == nullptr) {
                all.pop_back();
                continue;
            }
            if (all.size() > 100)
                all.pop_front(); // long past its last event
            if (opened++ == 0) {
                EXPECT_EQ(test::vanish(device, 0, random(30), 0, random(100)), 0);
            }
            use(*all.back());
            EXPECT_EQ(vexa_usb_close(device), 0);
            EXPECT_LE(all.back()->count(VEXA_USB_DEVICE_EVENT_REMOVED), 1U);
            buffers += all.back()->count(VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL);
            eventBytes += all.back()->count(kEventByte);
        }
        return opened;
    }

    static constexpr uint8_t kEventByte = 99;
    uint64_t buffers = 0;
    uint64_t eventBytes = 0;

private:
    uint16_t random(uint32_t limit) { return static_cast<uint16_t>(generator() % limit); }
    // Any step may fail, once the device has gone.
    void use(Events &events) {
        if (random(4) != 0) {
            vexa_usb_event_pipe_enable(device, sim::kEventEndpoint);
            test::steer(device, sim::kRequestSendEvents, 0, 0,
                        std::vector<uint8_t>(random(65), kEventByte));
        }
        bool rewound = false;
        if (random(4) != 0) {
            rewound = test::rewindStream(device) == 0;
            vexa_usb_data_stream_start(device, sim::kStreamEndpoint, 1000 + 2 * random(50000), 32);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(random(40)));
        uint8_t *data = nullptr;
        uint64_t size = 0;
        if (rewound && events.count(VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL) > 0 &&
            vexa_usb_data_stream_buffer_lock(device, &data, &size) == 0) {
            EXPECT_EQ(sim::firstPatternError(0, {data, size}), size);
        }
        if (random(4) == 0)
            vexa_usb_data_stream_stop(device);
        if (random(4) == 0)
            vexa_usb_event_pipe_disable(device);
        if (random(4) == 0) {
            EXPECT_TRUE(events.wait(VEXA_USB_DEVICE_EVENT_REMOVED));
            EXPECT_EQ(test::rewindStream(device), VEXA_USB_STATUS_DEVICE_REMOVED);
            EXPECT_EQ(events.count(VEXA_USB_DEVICE_EVENT_REMOVED), 1U);
        }
    }

    std::mt19937 generator{7}; // NOLINT(cert-msc51-cpp): repeatable
    std::deque<std::unique_ptr<Events>> all;
    _vexa_usb_device *device = nullptr;
};

// Whether three transfers of 300 kB are all that is in use: with 100 kB more they would be refused.
void expectNoTransferMemoryInUse(uint64_t id) {
    test::limitTransfers("1");
    Events &events = Events::make();
    _vexa_usb_device *const device = test::openDevice(id, Events::callback, &events);
    EXPECT_EQ(vexa_usb_data_stream_start(device, sim::kStreamEndpoint, 300000, 8), 0);
    EXPECT_TRUE(events.wait(VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL));
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
        ASSERT_TRUE(changes.reach(cycle + 1, cycle)) << "cycle " << cycle;
        if (cycle == cycles / 4) {
            descriptors = test::openDescriptors();
            memory = allocatedBytes();
        }
        opened += client.useUntilGone(changes, cycle + 1);
        ASSERT_FALSE(HasFailure()) << "cycle " << cycle;
    }
    ASSERT_TRUE(changes.reach(cycles + 1, cycles));
    EXPECT_EQ(test::openDescriptors(), descriptors);
    EXPECT_EQ(test::sharedMappings(), 0U);
    expectNoTransferMemoryInUse(changes.latest());
    EXPECT_LE(allocatedBytes(), memory + (32U << 10));
    EXPECT_GT(client.buffers, 0U);
    EXPECT_GT(client.eventBytes, 0U);
    std::printf("%zu cycles, opened %d times, %llu buffers, %llu event bytes, %zu descriptors, "
                "bytes in use %zu, then %zu\n",
                cycles, opened, static_cast<unsigned long long>(client.buffers),
                static_cast<unsigned long long>(client.eventBytes), descriptors, memory,
                allocatedBytes());
}

} // namespace
