#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "core/transfer_set.h"
#include "device/ring_memory.h"
#include "device/shared_buffers.h"

namespace vexausb {

enum class DataStreamBufferState : uint32_t {
    Free = 0,    // may be claimed for filling
    Filling = 1, // transfers are being prepared into it
    Full = 2,    // the transfer that reaches its end has been prepared
    Locked = 3,  // the caller holds it
    Closed = 4,  // its memory has gone
};

struct DataStreamBuffer {
    explicit DataStreamBuffer(uint8_t *memory) : ordinary(memory), data(memory) {}

    bool change(DataStreamBufferState from, DataStreamBufferState to);
    // Nobody gets it any more; false when the caller holds it.
    bool closeUnlessLocked();

    bool isShared() const { return data != ordinary; }

    std::atomic<DataStreamBufferState> state{DataStreamBufferState::Free};
    // The ring's, always there, and not touched while shared memory stands in for it.
    uint8_t *const ordinary;
    // The rest is the producer's.
    uint8_t *data; // ordinary memory or a block; the consumer may read this of a locked buffer
    uint64_t pendingTransfers = 0; // prepared, and not completed
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

/*
 * The ring of buffers that bulk transfers fill and the caller drains in place.
 *
 * USB transfers should be whole packets, buffers need not be.  A buffer whose size is not a
 * multiple of the packet size has room for one packet more; the transfer that reaches its end may
 * run into that room, and what lies there is moved to the front of the next buffer once the
 * transfer has completed.  With buffers smaller than a packet it moves on from there to the ones
 * behind.
 *
 * A buffer that is claimed gets a block of memory that the kernel fills itself, where there is one
 * (SharedBuffers); else its own ordinary memory does.  The blocks of buffers that the caller has
 * given back are used again first.  So a start does not wait for the whole ring to be mapped, and a
 * caller that keeps up has a few blocks go round that stay in the processor's caches.
 *
 * Threads: one producer and one consumer at a time; StreamSession and DeviceLibUSB see to that
 * with a lock for each side.  The two meet in the buffers' states only, which change by atomic
 * compare-and-swap, so that a buffer is never filled while the caller may read it.
 *
 * After nextTransfer() has failed the ring must not be asked again: the next buffer's front may
 * already be claimed for bytes that never come.
 */
class DataStream {
public:
    // No size is 0.  A transfer has maxTransferSize at most, rounded up to whole packets.
    DataStream(uint64_t bufferSize, uint64_t bufferCount, uint64_t maxTransferSize,
               uint64_t packetSize, std::unique_ptr<SharedBuffers> shared = nullptr);
    ~DataStream();
    DataStream(const DataStream &) = delete;
    DataStream &operator=(const DataStream &) = delete;

    // The bytes that each buffer takes; throws std::length_error when that is too much.
    static uint64_t allocationSizeFor(uint64_t bufferSize, uint64_t packetSize);

    // Producer.  Claims the next piece of the ring for a transfer; false when the ring is full: the
    // caller has not yet given back a buffer that is needed.
    bool nextTransfer(DataStreamTransferInfo &info);
    // For each transfer that has completed, in the order in which they were prepared; each is taken
    // to have filled its length.  Answers how many buffers this one has completed.  Not called for
    // a transfer that failed: its buffer keeps its memory.
    uint64_t transferCompleted(const DataStreamTransferInfo &info);

    // Consumer.  Gives the oldest full buffer, which stays as it is until unlock(); false when none
    // is full or one is locked.
    bool lock(uint8_t *&data, uint64_t &size);
    // False when none is locked.
    bool unlock();

    // The next two are for the producer's side, too.
    // The blocks of buffers that nobody uses are unmapped, and the ring takes no more.
    void releaseUnused();
    // Once nothing is in flight: gives back all shared memory but, if so wished, that of the buffer
    // that the caller has locked.  Called before the device's handle is closed, and once more
    // afterwards, for what had to stay.
    void releaseShared(CallerMemory callers);

    // Any thread: how many buffers the consumer has given back.
    uint64_t buffersReleased() const { return released_.load(std::memory_order_relaxed); }

private:
    bool claim(uint64_t index);
    void collectShared();
    void makeOrdinary(DataStreamBuffer &buffer);
    bool advance(DataStreamTransferInfo &info);
    uint64_t following(uint64_t index) const {
        return index + 1 == buffers_.size() ? 0 : index + 1;
    }

    const uint64_t bufferSize_;
    const uint64_t packetSize_;
    const uint64_t allocationSize_;
    const uint64_t transferSize_;
    const RingMemory memory_;
    std::vector<std::unique_ptr<DataStreamBuffer>> buffers_;
    const std::unique_ptr<SharedBuffers> shared_; // the producer's; null when nothing may be shared

    // The consumer's.
    uint64_t readIndex_ = 0;
    bool locked_ = false;
    std::atomic<uint64_t> released_{0}; // for others to read

    // The producer's.
    uint64_t writeIndex_ = 0;
    uint64_t writeOffset_ = 0;
    uint64_t collectIndex_ = 0; // the oldest buffer whose shared memory may come back
};

} // namespace vexausb
