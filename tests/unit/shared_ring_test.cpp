// Rings in memory that the kernel fills itself, and the room for it that is everybody's.
#include <algorithm>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "core/log.h"
#include "core/shared_memory_budget.h"
#include "support/device_fixtures.h"
#include "support/fake_shared_memory.h"

namespace {

namespace budget = vexausb::shared_memory_budget;

constexpr uint64_t kMebibyte = 1048576;

class SharedRingTest : public test::StreamingTest {
protected:
    SharedRingTest() { fake::shareMemory(fake::Sharing::All); }
    ~SharedRingTest() override {
        fake::shareAsAsked();
        if (device != nullptr)
            close();
        fake::othersShare(0);
        EXPECT_EQ(fake::sharedBlocks(), 0U);
        EXPECT_EQ(fake::toldToOthers(), 0);
        fake::limitTransfers("256");
    }

    // Has a buffer of 1000 bytes filled, locks it, and checks its part of the count; without
    // `fill`, one that is full.
    void receive(bool fill = true) {
        if (fill)
            fake::completeOldest();
        ASSERT_TRUE(log.waitFor(test::kFull, ++received_));
        ASSERT_EQ(lock(), 0);
        for (uint64_t i = 0; i < size; ++i)
            ASSERT_EQ(data[i], expected_++) << received_;
    }
    // Ten buffers are full at once, so that as many blocks are needed; of how many kinds they are.
    size_t fillAndDrain() {
        for (int i = 0; i < 10; ++i) {
            fake::completeOldest();
            fake::waitInFlight(3);
        }
        std::set<bool> kinds;
        for (int i = 0; i < 10; ++i) {
            receive(false);
            kinds.insert(fake::isShared(data));
            EXPECT_EQ(unlock(), 0);
        }
        return kinds.size();
    }

private:
    size_t received_ = 0;
    uint8_t expected_ = 0;
};

TEST_F(SharedRingTest, FewBlocksGoRoundForACallerThatKeepsUp) {
    ASSERT_EQ(start(1000, 16), 0);
    std::set<const uint8_t *> places;
    for (int i = 0; i < 100; ++i) {
        receive();
        EXPECT_TRUE(fake::isShared(data));
        places.insert(data);
        EXPECT_EQ(unlock(), 0);
    }
    EXPECT_LE(places.size(), 6U);
    EXPECT_EQ(fake::toldToOthers(), 1);
    EXPECT_EQ(stop(), 0);
    EXPECT_EQ(fake::sharedBlocks(), 0U);
    EXPECT_EQ(fake::openLimitFiles(), 1); // the stand-in's own
    ASSERT_EQ(start(kMebibyte, 16), 0);
    EXPECT_EQ(fake::toldToOthers(), 8); // it is taken in steps
}

TEST_F(SharedRingTest, TheKernelIsAskedAgainARoundAfterItRefused) {
    fake::shareMemory(fake::Sharing::None);
    ASSERT_EQ(start(1000, 16), 0);
    fake::shareMemory(fake::Sharing::All);
    for (int i = 0; i < 32; ++i) {
        receive();
        EXPECT_EQ(fake::isShared(data), i > 16) << i; // the refused one, and as many as there are
        EXPECT_EQ(unlock(), 0);
    }
    for (int i = 0; i < 12; ++i) {
        fake::completeOldest();
        fake::waitInFlight(3);
    }
    EXPECT_EQ(fake::sharedBlocks(), 16U); // all, also the one that was refused
}

TEST_F(SharedRingTest, WhatIsRefusedIsOrdinaryMemory) {
    fake::shareMemory(fake::Sharing::Half);
    ASSERT_EQ(start(1000, 16), 0);
    EXPECT_EQ(fillAndDrain(), 2U);
    fake::shareMemory(fake::Sharing::None);
    EXPECT_EQ(stop(), 0);
    ASSERT_EQ(start(1000, 16), 0);
    EXPECT_EQ(fake::sharedBlocks(), 0U);
}

// What is not shared, and what the log says of it.
TEST_F(SharedRingTest, TheLogTellsWhatIsSharedAndWhyNotTheRest) {
    struct Case {
        const char *ring;
        const char *limit;
        uint64_t bufferSize;
        const char *said;
    };
    const Case cases[] = {
        {"", "256", 1000,
         "fill 16 of the ring's 16 buffers (1512 bytes with their spare packet) itself\n"},
        {"shared", "64", 1 << 21,
         "fill 8 of the ring's 16 buffers (2097152 bytes with their spare packet) itself, and "
         "copies to the others: no more can be taken"},
        {"private", "256", 1000,
         "fill 0 of the ring's 16 buffers (1512 bytes with their spare packet) itself, and copies "
         "to the others: VEXA_USB_RING is private\n"},
        {"", "16", 1000, "copies to the others: the system's limit for USB transfers (usbfs_"},
        {"", "?", 1000, "copies to the others: the system's limit for USB transfers cannot be"},
        {"own", "256", 1000, "VEXA_USB_RING is 'own': treated as shared"},
    };
    setenv("VEXA_USB_LOG", "info", 1);
    vexausb::readLogLevel();
    for (const Case &test : cases) {
        setenv("VEXA_USB_RING", test.ring, 1);
        fake::limitTransfers(test.limit);
        testing::internal::CaptureStderr();
        ASSERT_EQ(start(test.bufferSize, 16), 0);
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_NE(said.find(test.said), std::string::npos) << said;
        EXPECT_EQ(fake::sharedBlocks() == 0, said.find("fill 0 of") != std::string::npos) << said;
        EXPECT_EQ(stop(), 0);
    }
    fake::shareMemory(fake::Sharing::None);
    testing::internal::CaptureStderr();
    ASSERT_EQ(start(1000, 16), 0);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(fillAndDrain(), 1U);
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(said.find("the kernel refused"), said.rfind("the kernel refused")) << said;
    EXPECT_NE(said.find("the kernel refused to share a buffer of 1512 bytes"), std::string::npos);
}

TEST_F(SharedRingTest, ARunThatFailedKeepsOnlyWhatIsFullOrInFlight) {
    ASSERT_EQ(start(1000, 16), 0);
    EXPECT_EQ(fillAndDrain(), 1U);
    EXPECT_GE(fake::sharedBlocks(), 13U);
    fake::failCall("libusb_submit_transfer");
    fake::completeOldest();
    ASSERT_TRUE(log.waitFor(test::kError));
    EXPECT_LE(fake::sharedBlocks(), 5U);
}

// What the caller is reading stays readable, although the device's handle closes; nothing else
// does, and the device's file is not kept open for longer than until the close.
TEST_F(SharedRingTest, LockedBufferOutlivesTheLastFini) {
    ASSERT_EQ(start(1000, 16), 0);
    receive();
    EXPECT_EQ(unlock(), 0);
    receive();
    ASSERT_TRUE(fake::isShared(data));
    const std::vector<uint8_t> before(data, data + size);
    reinitialise();
    EXPECT_EQ(std::vector<uint8_t>(data, data + size), before);
    EXPECT_EQ(fake::sharedBlocks(), 1U);
    EXPECT_EQ(close(), 0);
    EXPECT_EQ(fake::sharedBlocks(), 0U);
}

// More devices than the limit has room for, with what is shared: what no transfer and no caller
// uses goes back at once, the rest as the ring goes round, and nothing is lost.
class SharedRoomTest : public SharedRingTest {
protected:
    void expectGivesWay(bool toNoticed) {
        fake::limitTransfers("64");
        ASSERT_EQ(start(1000, 16), 0);
        EXPECT_EQ(fillAndDrain(), 1U);
        EXPECT_GE(fake::sharedBlocks(), 13U);
        vexa_usb_update_device_list();
        EXPECT_GE(fake::sharedBlocks(), 13U); // nobody has come
        std::vector<libusb_device *> others(31);
        for (libusb_device *&other : others) {
            other = fake::attach(VEXA_USB_VENDOR_ID, 1);
            if (toNoticed)
                fake::notifyArrival(other);
        }
        if (!toNoticed)
            vexa_usb_update_device_list();
        fake::deliverEvents();
        EXPECT_LE(fake::sharedBlocks(), 4U);
        for (int i = 0; i < 40; ++i) {
            receive();
            EXPECT_EQ(unlock(), 0);
        }
        EXPECT_FALSE(fake::isShared(data));
        EXPECT_EQ(fake::sharedBlocks(), 0U);
        EXPECT_EQ(fake::toldToOthers(), 0);
        EXPECT_EQ(stop(), 0);
        for (libusb_device *const other : others) {
            fake::detach(other);
            fake::notifyDeparture(other);
        }
        fake::deliverEvents();
        ASSERT_EQ(start(1000, 16), 0);
        EXPECT_GE(fake::sharedBlocks(), 3U); // there is room again
    }
};

TEST_F(SharedRoomTest, GivesWayToDevicesThatArePluggedIn) {
    expectGivesWay(true);
}

TEST_F(SharedRoomTest, GivesWayToDevicesThatAnUpdateFinds) {
    expectGivesWay(false);
}

// An open device that is not told at once gives way with its next buffer.
TEST_F(SharedRingTest, GivesWayToOtherPrograms) {
    fake::limitTransfers("64");
    ASSERT_EQ(start(1000, 16), 0);
    EXPECT_EQ(fillAndDrain(), 1U);
    for (const size_t devices : {1U, 32U}) {
        EXPECT_GE(fake::sharedBlocks(), 13U);
        budget::setAttachedDevices(devices);
        receive();
        EXPECT_EQ(unlock(), 0);
        fake::waitInFlight(3);
    }
    EXPECT_LE(fake::sharedBlocks(), 5U);
    budget::setAttachedDevices(1);
}

// What is granted of a ring of 32 MiB.
TEST_F(SharedRingTest, AQuarterOfTheLimitForAllProgramsTogether) {
    struct Case {
        const char *limit;
        int others;
        size_t devices;
        uint64_t granted;
    };
    const Case cases[] = {
        {"16", 0, 1, 0},   {"63", 0, 1, 0},     {"64", 0, 1, 16},    {"64", 10, 1, 6},
        {"64", 16, 1, 0},  {"64", 99, 1, 0},    {"64", 0, 31, 2},    {"64", 0, 99, 0},
        {"128", 0, 1, 32}, {"256", 33, 1, 31},  {"0", 0, 240, 32},   {"no number", 0, 1, 0},
        {"", 0, 1, 0},     {"256", 0, 112, 32}, {"256", 0, 113, 30},
    };
    for (const Case &test : cases) {
        fake::limitTransfers(test.limit);
        fake::othersShare(test.others);
        budget::setAttachedDevices(test.devices);
        const budget::Grant grant = budget::reserve(kMebibyte, 32);
        EXPECT_EQ(grant.blocks, test.granted) << test.limit << ' ' << test.others;
        EXPECT_EQ(grant.reason == nullptr, test.granted == 32);
        budget::release(kMebibyte, grant.blocks);
    }
    fake::othersShare(0);
    budget::setAttachedDevices(1);
    fake::limitTransfers("0");
    EXPECT_EQ(budget::reserve(4096, 5000).blocks, 4096U); // a process has only so many mappings
    budget::release(4096, 4096);
    fake::limitTransfers("4096");
    fake::othersShare(1, 100);
    EXPECT_EQ(budget::reserve(kMebibyte, 32).blocks, 32U);
    budget::release(kMebibyte, 32);
    fake::othersShare(1, 300); // more than there are in earnest
    EXPECT_EQ(budget::reserve(kMebibyte, 32).blocks, 0U);
}

TEST_F(SharedRingTest, EachProgramGivesBackItsPartOfAnExcess) {
    budget::setAttachedDevices(1);
    EXPECT_EQ(budget::reserve(kMebibyte, 40).blocks, 40U);
    EXPECT_EQ(budget::reserve(kMebibyte, 40).blocks, 24U); // rings share the quarter
    EXPECT_FALSE(budget::isOverdrawn());
    budget::setAttachedDevices(97); // 62 MiB are left for all
    EXPECT_TRUE(budget::isOverdrawn());
    EXPECT_EQ(fake::toldToOthers(), 64);
    budget::release(kMebibyte, 2);
    EXPECT_EQ(fake::toldToOthers(), 62);
    EXPECT_FALSE(budget::isOverdrawn());
    fake::othersShare(62); // each gives back its half
    budget::setAttachedDevices(97);
    budget::release(kMebibyte, 30);
    EXPECT_TRUE(budget::isOverdrawn());
    budget::release(kMebibyte, 1);
    EXPECT_FALSE(budget::isOverdrawn());
    budget::release(kMebibyte, 31);
    fake::othersShare(0);
    EXPECT_EQ(budget::reserve(kMebibyte, 1).blocks, 1U);
    fake::limitTransfers("16"); // too low for any
    budget::setAttachedDevices(1);
    EXPECT_TRUE(budget::isOverdrawn());
    budget::release(kMebibyte, 1);
}

} // namespace
