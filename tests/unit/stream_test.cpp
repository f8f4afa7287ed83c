// Data streams through the exported functions, with transfers that end as told.
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

#include "support/allocations.h"
#include "support/device_fixtures.h"

namespace {

using namespace test;

class StreamTest : public StreamingTest {
protected:
    static void complete(size_t inFlightAfterwards = 3) {
        fake::completeOldest();
        fake::waitInFlight(inFlightAfterwards);
    }
    // The two oldest transfers end before either is heard of, and the stream with them.
    static void completeTwo(libusb_transfer_status status = LIBUSB_TRANSFER_COMPLETED,
                            int actual = -1) {
        fake::holdEvents(true);
        fake::completeOldest(status, actual);
        fake::completeOldest();
        fake::holdEvents(false);
        fake::waitInFlight(0);
    }
    void expectDrained(int buffers) {
        for (int i = 0; i < buffers; ++i) {
            EXPECT_EQ(lock(), 0);
            EXPECT_EQ(unlock(), 0);
        }
    }
    void expectEvents(const std::vector<uint32_t> &events) {
        ASSERT_TRUE(eventually([&]() { return log.all().size() >= events.size(); }));
        EXPECT_EQ(log.all(), events);
    }
};

TEST_F(StreamTest, SubmitsThreeWholePacketTransfers) {
    ASSERT_EQ(start(3UL * 524288, 2), 0);
    const auto flying = fake::inFlight();
    ASSERT_EQ(flying.size(), 3U);
    for (const fake::InFlight &transfer : flying) {
        EXPECT_EQ(transfer.endpoint, 0x82);
        EXPECT_EQ(transfer.length, 524288);
    }
    EXPECT_EQ(flying[1].buffer, flying[0].buffer + 524288);
    EXPECT_EQ(stop(), 0); // with a buffer that could be locked, and is freed
    ASSERT_EQ(start(524289, 8), 0);
    EXPECT_EQ(fake::inFlight().front().length, 262144); // equal ones rather than a small rest
}

// After a failed overshoot the ring is not asked again, neither by the start nor by a transfer that
// brings its data all the same.  What the caller holds stays as it was.
TEST_F(StreamTest, RingFailureIsFinal) {
    ASSERT_EQ(start(1000, 2), 0); // the second piece's overshoot needs a buffer that is full
    EXPECT_TRUE(log.waitFor(kStarted));
    fake::waitInFlight(0);
    EXPECT_EQ(stop(), 0);
    ASSERT_TRUE(log.waitFor(kStopped));
    ASSERT_EQ(start(1000, 5), 0);
    complete();
    ASSERT_TRUE(log.waitFor(kFull));
    ASSERT_EQ(lock(), 0);
    const std::vector<uint8_t> held(data, data + size);
    completeTwo(); // the fifth piece's overshoot needs the first buffer
    ASSERT_TRUE(log.waitFor(kFull, 3));
    EXPECT_EQ(std::vector<uint8_t>(data, data + size), held);
    EXPECT_EQ(unlock(), 0);
    EXPECT_EQ(start(), -8);
    EXPECT_EQ(stop(), 0);
    expectEvents({kError, kStarted, kStopped, kStarted, kFull, kFull, kError, kFull, kStopped});
}

// A transfer that is complete, but was not heard of, when the stream is stopped: its data count,
// unless the stream is strict.
TEST_F(StreamTest, CompletionPendingAtAStop) {
    for (const char *const mode : {"default", "strict"}) {
        setenv("VEXA_USB_STREAM", mode, 1);
        ASSERT_EQ(start(512, 8), 0);
        fake::holdEvents(true);
        fake::completeNewest(LIBUSB_TRANSFER_COMPLETED);
        std::thread stopping([this]() { EXPECT_EQ(stop(), 0); });
        EXPECT_TRUE(eventually([]() { return fake::inFlight().empty(); }));
        fake::holdEvents(false);
        stopping.join();
    }
    expectEvents({kStarted, kFull, kStopped, kStarted, kStopped});
}

// Calls that come while another starts or stops the same: they wait for it, and are told.
TEST_F(StreamTest, CallsDuringAStartOrAStop) {
    std::vector<std::thread> others;
    std::atomic<int> returned = 0;
    const auto meanwhile = [&](auto call, int32_t expected) {
        others.emplace_back([call, expected, &returned]() {
            EXPECT_EQ(call(), expected);
            ++returned;
        });
    };
    const auto letThemCome = []() { // beyond the look without the mutex
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    };
    fake::onCall("libusb_alloc_transfer", [&]() {
        meanwhile([this]() { return start(); }, VEXA_USB_STATUS_STREAM_BUFFER_ACTIVE);
        letThemCome();
    });
    EXPECT_EQ(start(), 0);
    fake::onCall("libusb_alloc_transfer", [&]() {
        meanwhile([this]() { return enable(); }, VEXA_USB_STATUS_EVENT_PIPE_ACTIVE);
        letThemCome();
    });
    EXPECT_EQ(enable(), 0);
    fake::waitInFlight(4);
    fake::holdEvents(true);
    meanwhile([this]() { return stop(); }, 0);
    EXPECT_TRUE(eventually([]() { return fake::inFlight().size() == 1; }));
    meanwhile([this]() { return stop(); }, VEXA_USB_STATUS_STREAM_BUFFER_NOT_ACTIVE);
    meanwhile([this]() { return lock(); }, VEXA_USB_STATUS_STREAM_BUFFER_NOT_ACTIVE);
    meanwhile([this]() { return unlock(); }, VEXA_USB_STATUS_STREAM_BUFFER_NOT_ACTIVE);
    letThemCome();
    EXPECT_LE(returned, 2); // the start and the enable
    fake::holdEvents(false);
    for (std::thread &other : others)
        other.join();
}

TEST_F(StreamTest, StartThatCannotBegin) {
    for (int skip = 0; skip < 3; ++skip) {
        fake::failCall("libusb_alloc_transfer", 0, skip);
        EXPECT_EQ(start(), -4);
        EXPECT_TRUE(fake::inFlight().empty());
    }
    EXPECT_EQ(start(512, 4, 0x8F), -1);
    fake::describe(usbDevice).packetSizes[0x85] = 0;
    EXPECT_EQ(start(512, 4, 0x85), -1);
    EXPECT_EQ(start(UINT64_MAX, 1), -4);
    EXPECT_EQ(start(UINT64_MAX - 511, 1), -4);
    EXPECT_EQ(start(512, UINT64_MAX), -4);
    EXPECT_EQ(start(uint64_t{1} << 62, 1), -4);                         // more than the system maps
    EXPECT_EQ(start((uint64_t{1} << 40) + 512, uint64_t{1} << 24), -4); // the product overflows
    EXPECT_EQ(stop(), -9);
    EXPECT_TRUE(log.all().empty());
}

// A transfer that fails takes its own piece with it; the others still mean what they did.
TEST_F(StreamTest, FailedTransfersAreDroppedAlone) {
    ASSERT_EQ(start(1024, 4), 0);
    const auto flying = fake::inFlight();
    fake::completeNewest(LIBUSB_TRANSFER_STALL);
    fake::waitInFlight(2);
    complete(2);
    ASSERT_TRUE(log.waitFor(kFull, 1));
    ASSERT_EQ(lock(), 0);
    EXPECT_EQ(data, flying[0].buffer);
    EXPECT_EQ(data[1], 1);
    ASSERT_EQ(unlock(), 0);
    fake::completeOldest(LIBUSB_TRANSFER_ERROR);
    fake::waitInFlight(1);
    fake::completeOldest(LIBUSB_TRANSFER_NO_DEVICE);
    fake::waitInFlight(0);
    EXPECT_EQ(stop(), 0);
    expectEvents({kStarted, kFull, kStopped});
}

// Has the oldest transfer bring less than it was to, and one behind it everything.
TEST_F(StreamTest, StrictEndsAtTheFirstGap) {
    setenv("VEXA_USB_STREAM", "strict", 1);
    const std::pair<libusb_transfer_status, int> gaps[] = {
        {LIBUSB_TRANSFER_STALL, 512},     {LIBUSB_TRANSFER_ERROR, 512},
        {LIBUSB_TRANSFER_NO_DEVICE, 512}, {LIBUSB_TRANSFER_OVERFLOW, 512},
        {LIBUSB_TRANSFER_TIMED_OUT, 512}, {LIBUSB_TRANSFER_CANCELLED, 512},
        {LIBUSB_TRANSFER_COMPLETED, 0},   {LIBUSB_TRANSFER_COMPLETED, 1},
        {LIBUSB_TRANSFER_COMPLETED, 511}};
    std::vector<uint32_t> events;
    for (const auto &[status, actual] : gaps) {
        ASSERT_EQ(start(512, 8), 0);
        complete();
        completeTwo(status, actual);
        expectDrained(1); // what came before
        EXPECT_EQ(stop(), 0);
        events.insert(events.end(), {kStarted, kFull, kError, kStopped});
        expectEvents(events);
    }
    // Behind an overflow of the ring, too, a transfer may still bring its data.
    ASSERT_EQ(start(), 0);
    complete();
    completeTwo(); // the first needs a fifth buffer
    EXPECT_EQ(stop(), 0);
    events.insert(events.end(), {kStarted, kFull, kFull, kError, kStopped});
    expectEvents(events);
}

// Where there is no memory for a buffer-full event, the stream ends, and asks for nothing more.
TEST_F(StreamTest, EndsWithoutMemoryForAnEvent) {
    ASSERT_EQ(start(512, 200), 0);
    allocations::failAll();
    int buffers = 0;
    for (; buffers < 150 && fake::completeOn(0x82); ++buffers)
        fake::deliverEvents();
    EXPECT_TRUE(allocations::restore());
    EXPECT_TRUE(log.waitFor(kError));
    EXPECT_EQ(log.count(kFull) + 1, static_cast<size_t>(buffers));
}

// As it is read at each start; a word that it does not know is as if it were unset.
TEST_F(StreamTest, StrictIsTheRunThatAskedForIt) {
    for (const char *mode : {"", "default", "STRICT", "strict "}) {
        setenv("VEXA_USB_STREAM", mode, 1);
        ASSERT_EQ(start(512, 8), 0);
        setenv("VEXA_USB_STREAM", "strict", 1);
        fake::completeOldest(LIBUSB_TRANSFER_STALL);
        fake::waitInFlight(2);
        EXPECT_EQ(stop(), 0);
    }
    EXPECT_EQ(log.count(kError), 0U);
}

// Nobody delivers completions after a re-initialisation: stop, disable and close must end all the
// same.
TEST_F(StreamTest, EndsWithoutEventLoop) {
    close();
    reinitialise();
    vexa_usb_update_device_list();
    for (int round = 0; round < 3; ++round) {
        device = open();
        ASSERT_EQ(start(), 0);
        ASSERT_EQ(enable(), 0);
        if (round == 1) {
            EXPECT_EQ(disable(), 0);
        }
        if (round == 2) { // one of the stream's transfers has ended
            fake::completeOldest(LIBUSB_TRANSFER_STALL);
            fake::deliverEvents();
        }
        EXPECT_EQ(close(), 0);
    }
    device = open();
    ASSERT_EQ(start(), 0);
    EXPECT_EQ(stop(), 0);
    EXPECT_TRUE(fake::takeClosedInFlight());
    uint8_t byte = 0;
    EXPECT_EQ(vexa_usb_bulk_read(device, 0x83, &byte, 1), -1);
    EXPECT_EQ(vexa_usb_control_transfer(device, 1, 0, 0, 6, 0, 0, &byte, 1), -1);
    EXPECT_TRUE(isTurnedAway(device));
    EXPECT_EQ(enable(), -1);
    EXPECT_EQ(start(), -1);
}

// Completions on two threads, a consumer, and an end that may come from anywhere.
TEST_F(StreamTest, EndsWhileStreaming) {
    fake::describe(usbDevice).packetSizes[0x81] = 1;
    for (int round = 0; round < 60; ++round) {
        fake::completeBySelf(1U << 30);
        ASSERT_EQ(enable(), 0);
        ASSERT_EQ(start(1000, 8), 0);
        std::atomic<bool> consumed = false, ended = false;
        std::thread consumer([&]() {
            while (!consumed) {
                if (lock() == 0)
                    unlock();
            }
        });
        std::thread events([&]() {
            while (!ended)
                fake::deliverEvents();
        });
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        if (round % 3 == 0)
            reinitialise();
        else
            EXPECT_EQ(stop(), 0);
        EXPECT_EQ(round % 3 == 1 ? disable() : 0, 0);
        consumed = true;
        consumer.join();
        EXPECT_EQ(close(), 0); // with the pipe armed, or about to end
        ended = true;
        events.join();
        fake::completeBySelf(0);
        if (round % 3 == 0)
            beginAgain();
        else
            device = open();
    }
}

} // namespace
