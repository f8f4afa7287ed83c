#include "device/data_stream.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace vexausb {

/*
 * The ring of buffers that bulk transfers fill and the caller drains in place.
 *
 * USB transfers should be whole packets, buffers need not be.  A buffer whose size is not a
 * multiple of the packet size has room for one packet more; the transfer that reaches its end may
 * run into that room, and what lies there is moved to the front of the next buffer once the
 * transfer has completed.  With buffers smaller than a packet it moves on from there to the ones
 * behind.
 *
 * Threads: one producer and one consumer at a time; StreamSession and DeviceLibUSB see to that
 * with a lock for each side.  The two meet in the buffers' states only, which change by atomic
 * compare-and-swap, so that a buffer is never filled while the caller may read it.
 *
 * After nextTransfer() has failed the ring must not be asked again: the next buffer's front may
 * already be claimed for bytes that never come.
 */
namespace {

uint64_t roundUp(uint64_t value, uint64_t step) {
    const uint64_t rest = value % step;
    return rest == 0 ? value : value - rest + step;
}

// No array is larger than a pointer difference can tell.
uint64_t allocationSizeFor(uint64_t bufferSize, uint64_t packetSize) {
    if (bufferSize > static_cast<uint64_t>(std::numeric_limits<std::ptrdiff_t>::max()) - packetSize)
        throw std::length_error("stream buffer too large");
    return bufferSize % packetSize == 0 ? bufferSize : bufferSize + packetSize;
}

// Pieces of nearly equal size rather than full ones and a small rest.
uint64_t transferSizeFor(uint64_t bufferSize, uint64_t maxTransferSize, uint64_t packetSize) {
    if (bufferSize <= maxTransferSize)
        return roundUp(bufferSize, packetSize);
    const uint64_t pieces =
        bufferSize / maxTransferSize + (bufferSize % maxTransferSize != 0 ? 1 : 0);
    return roundUp(bufferSize / pieces, packetSize);
}

} // namespace

DataStreamBuffer::DataStreamBuffer(uint64_t allocationSize) : data(new uint8_t[allocationSize]) {}

bool DataStreamBuffer::change(DataStreamBufferState from, DataStreamBufferState to) {
    return state.compare_exchange_strong(from, to);
}

DataStream::DataStream(uint64_t size, uint64_t bufferCount, uint64_t maxTransferSize,
                       uint64_t packet)
    : bufferSize(size),
      packetSize(packet),
      allocationSize(allocationSizeFor(size, packet)),
      transferSize(transferSizeFor(size, maxTransferSize, packet)) {
    buffers.reserve(bufferCount);
    for (uint64_t i = 0; i < bufferCount; ++i)
        buffers.push_back(std::make_unique<DataStreamBuffer>(allocationSize));
}

bool DataStream::claim(uint64_t index) {
    return buffers[index]->change(DataStreamBufferState::Free, DataStreamBufferState::Filling);
}

// False when the ring is full: the caller has not yet given back a buffer that is needed.
bool DataStream::nextTransfer(DataStreamTransferInfo &info) {
    if (writeOffset == 0 && !claim(writeIndex))
        return false;
    info = {};
    info.bufferIndex = writeIndex;
    info.destination = buffers[writeIndex]->data.get() + writeOffset;
    info.transferLength = transferSize;
    while (writeOffset + info.transferLength > allocationSize)
        info.transferLength -= packetSize;
    writeOffset += info.transferLength;
    return advance(info);
}

// A buffer counts as full from here on, although its last transfer has only been prepared; the
// buffer-full event says when the data are there.
bool DataStream::advance(DataStreamTransferInfo &info) {
    if (writeOffset < bufferSize)
        return true;
    info.copyLength = writeOffset - bufferSize;
    info.completedBuffers = writeOffset / bufferSize;
    writeOffset %= bufferSize;
    buffers[writeIndex]->state.store(DataStreamBufferState::Full, std::memory_order_release);

    // The buffers that the overshoot reaches, before any of them is called full.
    const uint64_t reached = info.completedBuffers - (writeOffset == 0 ? 1 : 0);
    uint64_t index = writeIndex;
    for (uint64_t i = 0; i < reached; ++i) {
        index = following(index);
        if (!claim(index))
            return false;
    }
    for (uint64_t i = 1; i < info.completedBuffers; ++i) {
        writeIndex = following(writeIndex);
        buffers[writeIndex]->state.store(DataStreamBufferState::Full, std::memory_order_release);
    }
    writeIndex = following(writeIndex);
    return true;
}

uint64_t DataStream::transferCompleted(const DataStreamTransferInfo &info) {
    uint64_t index = info.bufferIndex;
    uint64_t overshoot = info.copyLength;
    while (overshoot != 0) {
        const uint64_t next = following(index);
        std::memcpy(buffers[next]->data.get(), buffers[index]->data.get() + bufferSize, overshoot);
        overshoot -= std::min(overshoot, bufferSize);
        index = next;
    }
    return info.completedBuffers;
}

bool DataStream::lock(uint8_t *&data, uint64_t &size) {
    if (locked)
        return false;
    DataStreamBuffer &buffer = *buffers[readIndex];
    if (!buffer.change(DataStreamBufferState::Full, DataStreamBufferState::Locked))
        return false;
    data = buffer.data.get();
    size = bufferSize;
    locked = true;
    return true;
}

bool DataStream::unlock() {
    if (!locked ||
        !buffers[readIndex]->change(DataStreamBufferState::Locked, DataStreamBufferState::Free))
        return false;
    readIndex = following(readIndex);
    locked = false;
    released.fetch_add(1, std::memory_order_relaxed);
    return true;
}

} // namespace vexausb
