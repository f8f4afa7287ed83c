#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

namespace vexausb {

enum class DataStreamBufferState : uint32_t {
    Free = 0,    // may be claimed for filling
    Filling = 1, // transfers are being prepared into it
    Full = 2,    // the transfer that reaches its end has been prepared
    Locked = 3,  // the caller holds it
};

struct DataStreamBuffer {
    explicit DataStreamBuffer(uint64_t allocationSize);

    bool change(DataStreamBufferState from, DataStreamBufferState to);

    std::atomic<DataStreamBufferState> state{DataStreamBufferState::Free};
    const std::unique_ptr<uint8_t[]> data;
};

// What one prepared transfer does, kept by that transfer until it completes.
struct DataStreamTransferInfo {
    uint8_t *destination = nullptr;
    uint64_t transferLength = 0;
    uint64_t bufferIndex = 0; // of the buffer that the transfer writes to
    // Buffers whose end the transfer reaches: 0 or 1, or more when they are smaller than a packet.
    uint64_t completedBuffers = 0;
    // Bytes behind that buffer's end, which belong at the front of the next one.
    uint64_t copyLength = 0;
};

class DataStream {
public:
    DataStream(uint64_t size, uint64_t bufferCount, uint64_t maxTransferSize, uint64_t packet);
    DataStream(const DataStream &) = delete;
    DataStream &operator=(const DataStream &) = delete;

    // Producer.
    bool nextTransfer(DataStreamTransferInfo &info);
    // The number of buffers that hold all their data now.
    uint64_t transferCompleted(const DataStreamTransferInfo &info);

    // Consumer.
    bool lock(uint8_t *&data, uint64_t &size);
    bool unlock();

    // Any thread: how many buffers the consumer has given back.
    uint64_t buffersReleased() const { return released.load(std::memory_order_relaxed); }

private:
    bool claim(uint64_t index);
    bool advance(DataStreamTransferInfo &info);
    uint64_t following(uint64_t index) const { return index + 1 == buffers.size() ? 0 : index + 1; }

    const uint64_t bufferSize;
    const uint64_t packetSize;
    const uint64_t allocationSize;
    const uint64_t transferSize;
    std::vector<std::unique_ptr<DataStreamBuffer>> buffers;

    // The consumer's.
    uint64_t readIndex = 0;
    bool locked = false;
    std::atomic<uint64_t> released{0}; // for others to read

    // The producer's.
    uint64_t writeIndex = 0;
    uint64_t writeOffset = 0;
};

} // namespace vexausb
