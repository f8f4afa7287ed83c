#include "device/data_stream.h"

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
 * transfer has completed.
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

uint64_t allocationSizeFor(uint64_t bufferSize, uint64_t packetSize) {
    if (bufferSize % packetSize == 0)
        return bufferSize;
    if (bufferSize > std::numeric_limits<uint64_t>::max() - packetSize)
        throw std::length_error("stream buffer too large");
    return bufferSize + packetSize;
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

// False when the ring is full: the caller has not yet given back the buffer that is needed.
bool DataStream::nextTransfer(DataStreamTransferInfo &info) {
    DataStreamBuffer &buffer = *buffers[writeIndex];
    if (writeOffset == 0 &&
        !buffer.change(DataStreamBufferState::Free, DataStreamBufferState::Filling))
        return false;

    info = {};
    info.destination = buffer.data.get() + writeOffset;
    info.transferLength = transferSize;
    while (writeOffset + info.transferLength > allocationSize)
        info.transferLength -= packetSize;

    writeOffset += info.transferLength;
    if (writeOffset < bufferSize)
        return true;
    info.completesBuffer = true;
    return prepareOvershoot(buffer, info);
}

// The buffer counts as full from here on, although its last transfer has only been prepared; the
// buffer-full event says when the data are there.
bool DataStream::prepareOvershoot(const DataStreamBuffer &full, DataStreamTransferInfo &info) {
    buffers[writeIndex]->state.store(DataStreamBufferState::Full, std::memory_order_release);
    writeIndex = following(writeIndex);
    writeOffset -= bufferSize;
    if (writeOffset == 0)
        return true;

    DataStreamBuffer &next = *buffers[writeIndex];
    if (!next.change(DataStreamBufferState::Free, DataStreamBufferState::Filling))
        return false;
    info.copyLength = writeOffset;
    info.copySource = full.data.get() + bufferSize;
    info.copyDestination = next.data.get();
    return true;
}

bool DataStream::transferCompleted(const DataStreamTransferInfo &info) {
    if (info.copyLength != 0)
        std::memcpy(info.copyDestination, info.copySource, info.copyLength);
    return info.completesBuffer;
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
    return true;
}

} // namespace vexausb
