// The ring by itself.
#include <deque>
#include <random>

#include <gtest/gtest.h>
#include <sanitizer/asan_interface.h>

#include "device/data_stream.h"

namespace {

using vexausb::DataStream;
using vexausb::DataStreamTransferInfo;

constexpr uint64_t kMax = 524288;

#ifdef __SANITIZE_ADDRESS__
TEST(DataStream, WhoReadsBehindABufferIsTold) {
    DataStreamTransferInfo info;
    {
        DataStream ring(1000, 2, kMax, 1000);
        while (ring.nextTransfer(info))
            EXPECT_EQ(__asan_region_is_poisoned(info.destination, 2000), info.destination + 1000);
    }
    EXPECT_EQ(__asan_region_is_poisoned(info.destination, 2000), nullptr); // others' memory now
}
#endif

// What was never filled must not look full, however many buffers a packet spans.
TEST(DataStream, PacketThatSpansTooManyBuffers) {
    DataStream ring(100, 5, kMax, 512);
    DataStreamTransferInfo info;
    uint8_t *data = nullptr;
    uint64_t size = 0;
    EXPECT_FALSE(ring.nextTransfer(info));
    EXPECT_TRUE(ring.lock(data, size));
    EXPECT_TRUE(ring.unlock());
    EXPECT_FALSE(ring.lock(data, size));
}

// A device that counts, a consumer that is sometimes behind: whatever the sizes, every buffer must
// hold its part of the count, and no transfer may leave its buffer.
TEST(DataStream, AnySizesKeepEveryByteInOrder) {
    std::mt19937 random(20240607); // NOLINT(cert-msc51-cpp): repeatable
    const uint64_t packets[] = {1, 8, 64, 512, 1024, 1023};
    for (int round = 0; round < 300; ++round) {
        const uint64_t packet = packets[random() % std::size(packets)];
        const uint64_t size = 1 + random() % 5000;
        const uint64_t most = packet * (1 + random() % 4);
        DataStream ring(size, 2 + packet / size + random() % 4, most, packet);
        std::deque<DataStreamTransferInfo> flying;
        uint8_t sent = 0;
        uint8_t expected = 0;
        uint64_t full = 0;
        for (int step = 0; step < 400; ++step) {
            DataStreamTransferInfo info;
            if (flying.size() < 3) {
                if (!ring.nextTransfer(info))
                    break; // the consumer was too slow: final
                ASSERT_EQ(info.transferLength % packet, 0U);
                ASSERT_GT(info.transferLength, 0U);
                ASSERT_LE(info.transferLength, most);
                flying.push_back(info);
            }
            if (random() % 2 == 0 && !flying.empty()) {
                info = flying.front();
                flying.pop_front();
                for (uint64_t i = 0; i < info.transferLength; ++i)
                    info.destination[i] = sent++;
                full += ring.transferCompleted(info);
            }
            for (; full > 0 && random() % 8 != 0; --full) {
                uint8_t *data = nullptr;
                uint64_t length = 0;
                ASSERT_TRUE(ring.lock(data, length));
                ASSERT_EQ(length, size);
                ASSERT_EQ(reinterpret_cast<uintptr_t>(data) % 64, 0U); // a cache line
                for (uint64_t i = 0; i < length; ++i)
                    ASSERT_EQ(data[i], expected++) << size << " " << packet << " " << i;
                ASSERT_TRUE(ring.unlock());
            }
        }
    }
}

} // namespace
