// Data streams through the exported functions, with transfers that end as told.
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

#include "support/device_fixtures.h"

namespace {

constexpr uint32_t kFull = VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL;
constexpr uint32_t kError = VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR;
constexpr uint32_t kStarted = VEXA_USB_DEVICE_EVENT_DATA_STREAM_STARTED;
constexpr uint32_t kStopped = VEXA_USB_DEVICE_EVENT_DATA_STREAM_STOPPED;

class StreamTest : public test::DeviceTest {
protected:
    int32_t lock() { return vexa_usb_data_stream_buffer_lock(device, &data, &size); }
    int32_t unlock() { return vexa_usb_data_stream_buffer_unlock(device); }
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
    // Stops with a transfer complete that nobody has heard of yet.
    void stopWithOneDue() {
        fake::holdEvents(true);
        fake::completeNewest(LIBUSB_TRANSFER_COMPLETED);
        std::thread stopping([this]() { EXPECT_EQ(stop(), 0); });
        EXPECT_TRUE(test::eventually([]() { return fake::inFlight().empty(); }));
        fake::holdEvents(false);
        stopping.join();
    }
    void expectDrained(int buffers) {
        for (int i = 0; i < buffers; ++i) {
            EXPECT_EQ(lock(), 0);
            EXPECT_EQ(unlock(), 0);
        }
    }
    void expectEvents(const std::vector<uint32_t> &events) {
        ASSERT_TRUE(test::eventually([&]() { return log.all().size() >= events.size(); }));
        EXPECT_EQ(log.all(), events);
    }

    uint8_t *data = nullptr;
    uint64_t size = 0;
};

TEST_F(StreamTest, StreamsInOrderAndReportsInOrder) {
    ASSERT_EQ(start(1000, 8), 0); // transfers of 1024: an overshoot of 24, 48, ... bytes
    EXPECT_EQ(start(1000, 8), -8);
    uint8_t expected = 0;
    for (int i = 1; i <= 50; ++i) {
        complete();
        ASSERT_TRUE(log.waitFor(kFull, static_cast<size_t>(i)));
        ASSERT_EQ(lock(), 0);
        ASSERT_EQ(size, 1000U);
        for (uint64_t byte = 0; byte < size; ++byte)
            ASSERT_EQ(data[byte], expected++);
        EXPECT_EQ(lock(), 1);
        ASSERT_EQ(unlock(), 0);
        EXPECT_EQ(unlock(), -1);
    }
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(stop(), -9);
    EXPECT_EQ(lock(), -9);
    ASSERT_TRUE(log.waitFor(kStopped));
    const auto events = log.all();
    EXPECT_EQ(events.front(), kStarted);
    EXPECT_EQ(events.back(), kStopped);
    EXPECT_EQ(events.size(), 52U);
    EXPECT_FALSE(fake::closedInFlight());
}

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
}

TEST_F(StreamTest, SlowCallerFailsTheRunAndLosesNothingBefore) {
    ASSERT_EQ(start(), 0);
    complete();
    ASSERT_TRUE(log.waitFor(kFull));
    ASSERT_EQ(lock(), 0);
    const std::vector<uint8_t> held(data, data + size);
    complete(0); // no fifth buffer: the two others are cancelled
    ASSERT_TRUE(log.waitFor(kError));
    EXPECT_EQ(std::vector<uint8_t>(data, data + size), held);
    EXPECT_EQ(unlock(), 0);
    expectDrained(1); // the second buffer was reported
    EXPECT_EQ(start(), -8);
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(log.count(kError), 1U);
    EXPECT_EQ(log.count(kFull), 2U);
    EXPECT_EQ(start(), 0); // and again
    complete();
    ASSERT_TRUE(log.waitFor(kFull, 3));
    EXPECT_EQ(stop(), 0);
}

// After a failed overshoot the ring is not asked again, neither by the start nor by a transfer that
// brings its data all the same.
TEST_F(StreamTest, RingFailureIsFinal) {
    ASSERT_EQ(start(1000, 2), 0); // the second piece's overshoot needs a buffer that is full
    EXPECT_TRUE(log.waitFor(kStarted));
    fake::waitInFlight(0);
    EXPECT_EQ(stop(), 0);
    ASSERT_TRUE(log.waitFor(kStopped));
    ASSERT_EQ(start(1000, 5), 0);
    complete();
    completeTwo(); // the fifth piece's overshoot needs the first buffer
    ASSERT_TRUE(log.waitFor(kFull, 3));
    expectDrained(1);
    EXPECT_EQ(stop(), 0);
    expectEvents({kError, kStarted, kStopped, kStarted, kFull, kFull, kError, kFull, kStopped});
}

// Of a completion that is due and a stop, the data count.
TEST_F(StreamTest, CompletionPendingAtAStop) {
    ASSERT_EQ(start(512, 8), 0);
    stopWithOneDue();
    expectEvents({kStarted, kFull, kStopped});
}

// The first transfer has its data before the start is through.
TEST_F(StreamTest, CompletionDuringTheStart) {
    fake::onCall("libusb_submit_transfer", []() {
        fake::onCall("libusb_submit_transfer", []() {
            fake::completeOldest();
            EXPECT_TRUE(test::eventually([]() { return !fake::eventsPending(); }));
        });
    });
    ASSERT_EQ(start(512, 8), 0);
    fake::waitInFlight(3);
    expectEvents({kStarted, kFull});
}

// Of two threads that start, or enable, one does.
TEST_F(StreamTest, TwoThreadsStart) {
    const auto both = [](const std::function<int32_t()> &begin) {
        int32_t other = 1;
        std::thread second;
        fake::onCall("libusb_alloc_transfer", [&]() {
            second = std::thread([&]() { other = begin(); });
            std::this_thread::sleep_for(
                std::chrono::milliseconds(20)); // time to come in, if it can
        });
        EXPECT_EQ(begin(), 0);
        second.join();
        return other;
    };
    EXPECT_EQ(both([this]() { return start(); }), -8);
    EXPECT_EQ(both([this]() { return enable(); }), -7);
    EXPECT_EQ(fake::inFlight().size(), 4U);
}

TEST_F(StreamTest, RefusedSubmissions) {
    for (int skip = 0; skip < 3; ++skip) {
        fake::failCall("libusb_submit_transfer", LIBUSB_ERROR_NO_MEM, skip);
        ASSERT_EQ(start(512, 8), 0);
        EXPECT_TRUE(log.waitFor(kError, static_cast<size_t>(skip) + 1));
        fake::waitInFlight(0);
        EXPECT_EQ(stop(), 0);
    }
    ASSERT_EQ(start(512, 8), 0);
    fake::failCall("libusb_submit_transfer");
    complete(0);
    EXPECT_TRUE(log.waitFor(kError, 4));
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(log.count(kError), 4U);
    fake::failCall("libusb_submit_transfer");
    ASSERT_EQ(start(512, 8), 0);
    reinitialise(); // nothing of libusb's is left with the device
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
    EXPECT_EQ(start(uint64_t{1} << 62, 1), -4); // more than the system maps
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
    EXPECT_EQ(log.count(kFull), 1U);
    EXPECT_EQ(log.count(kError), 0U);
}

TEST_F(StreamTest, RemovalComesAfterTheStateOfTheStream) {
    ASSERT_EQ(start(), 0);
    remove();
    EXPECT_EQ(start(), -8);
    EXPECT_EQ(stop(), -12);
    EXPECT_EQ(lock(), -12);
    EXPECT_EQ(unlock(), -12);
    EXPECT_EQ(close(), 0);
    EXPECT_EQ(log.count(VEXA_USB_DEVICE_EVENT_REMOVED), 1U);
    EXPECT_EQ(log.count(kStopped), 0U);
}

class StrictStreamTest : public StreamTest {
protected:
    StrictStreamTest() { setenv("VEXA_USB_STREAM", "strict", 1); }
    ~StrictStreamTest() override { unsetenv("VEXA_USB_STREAM"); }

    // Has the oldest transfer bring less than it was to, and one behind it everything.
    void expectEnd(libusb_transfer_status status, int actual) {
        const size_t errors = log.count(kError);
        const size_t full = log.count(kFull);
        ASSERT_EQ(start(512, 8), 0);
        complete();
        completeTwo(status, actual);
        ASSERT_TRUE(log.waitFor(kError, errors + 1));
        expectDrained(1); // what came before
        EXPECT_EQ(stop(), 0);
        ASSERT_TRUE(log.waitFor(kStopped, ++stops));
        EXPECT_EQ(log.count(kError), errors + 1);
        EXPECT_EQ(log.count(kFull), full + 1);
    }

    size_t stops = 0;
};

TEST_F(StrictStreamTest, EndsAtTheFirstGap) {
    for (const auto status :
         {LIBUSB_TRANSFER_STALL, LIBUSB_TRANSFER_ERROR, LIBUSB_TRANSFER_NO_DEVICE,
          LIBUSB_TRANSFER_OVERFLOW, LIBUSB_TRANSFER_TIMED_OUT, LIBUSB_TRANSFER_CANCELLED})
        expectEnd(status, 512);
    for (const int actual : {0, 1, 511})
        expectEnd(LIBUSB_TRANSFER_COMPLETED, actual);
}

// Behind an overflow, or a stop, a transfer may still bring its data: from behind the gap.
TEST_F(StrictStreamTest, ReportsNothingBehindItsEnd) {
    ASSERT_EQ(start(), 0);
    complete();
    completeTwo(); // the first needs a fifth buffer
    ASSERT_TRUE(log.waitFor(kError));
    EXPECT_EQ(stop(), 0);
    expectEvents({kStarted, kFull, kFull, kError, kStopped});
    ASSERT_EQ(start(512, 8), 0);
    stopWithOneDue();
    ASSERT_TRUE(log.waitFor(kStopped, 2));
    EXPECT_EQ(log.count(kFull), 2U);
}

// As it is read at each start; a word that it does not know is as if it were unset.
TEST_F(StrictStreamTest, IsForTheRunThatAskedForIt) {
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

TEST_F(StreamTest, CloseAndFiniEndTheStream) {
    ASSERT_EQ(start(), 0);
    EXPECT_EQ(close(), 0);
    device = open();
    ASSERT_EQ(start(), 0);
    reinitialise();
    EXPECT_TRUE(fake::inFlight().empty());
    EXPECT_FALSE(fake::closedInFlight());
    EXPECT_TRUE(log.waitFor(VEXA_USB_DEVICE_EVENT_REMOVED));
    EXPECT_EQ(lock(), -12);
    EXPECT_EQ(close(), 0); // which closes nothing twice
    EXPECT_EQ(log.count(VEXA_USB_DEVICE_EVENT_REMOVED), 1U);
}

// Nobody delivers completions after a re-initialisation: stop, disable and close must end all the
// same.
TEST_F(StreamTest, EndsWithoutEventLoop) {
    close();
    reinitialise();
    vexa_usb_update_device_list();
    device = open();
    ASSERT_EQ(start(), 0);
    EXPECT_EQ(stop(), 0);
    EXPECT_TRUE(fake::closedInFlight());
    uint8_t byte = 0;
    EXPECT_EQ(vexa_usb_bulk_read(device, 0x83, &byte, 1), -1);
    EXPECT_EQ(vexa_usb_control_transfer(device, 1, 0, 0, 6, 0, 0, &byte, 1), -1);
    EXPECT_TRUE(isTurnedAway(device));
    EXPECT_EQ(enable(), -1);
    EXPECT_EQ(start(), -1);
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(close(), 0);
        device = open();
        ASSERT_EQ(start(), 0);
        ASSERT_EQ(enable(), 0);
        if (round == 1) {
            EXPECT_EQ(disable(), 0);
        }
    } // the last fini finds the last
}

// Completions on two threads, a consumer, and an end that may come from anywhere.
TEST_F(StreamTest, EndsWhileStreaming) {
    fake::describe(usbDevice).packetSizes[0x81] = 1;
    for (int round = 0; round < 60; ++round) {
        fake::completeBySelf(1U << 30);
        ASSERT_EQ(enable(), 0);
        ASSERT_EQ(start(1000, 8), 0);
        std::atomic<bool> consumed = false;
        std::atomic<bool> ended = false;
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
        ASSERT_FALSE(fake::closedInFlight());
        if (round % 3 == 0)
            beginAgain();
        else
            device = open();
    }
}

} // namespace
