#include "device/data_stream.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace vexausb {

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
    : bufferSize_(size),
      packetSize_(packet),
      allocationSize_(allocationSizeFor(size, packet)),
      transferSize_(transferSizeFor(size, maxTransferSize, packet)) {
    buffers_.reserve(bufferCount);
    for (uint64_t i = 0; i < bufferCount; ++i)
        buffers_.push_back(std::make_unique<DataStreamBuffer>(allocationSize_));
}

bool DataStream::claim(uint64_t index) {
    return buffers_[index]->change(DataStreamBufferState::Free, DataStreamBufferState::Filling);
}

// False when the ring is full: the caller has not yet given back a buffer that is needed.
bool DataStream::nextTransfer(DataStreamTransferInfo &info) {
    if (writeOffset_ == 0 && !claim(writeIndex_))
        return false;
    info = {};
    info.bufferIndex = writeIndex_;
    info.destination = buffers_[writeIndex_]->data.get() + writeOffset_;
    info.transferLength = transferSize_;
    while (writeOffset_ + info.transferLength > allocationSize_)
        info.transferLength -= packetSize_;
    writeOffset_ += info.transferLength;
    return advance(info);
}

// A buffer counts as full from here on, although its last transfer has only been prepared; the
// buffer-full event says when the data are there.
bool DataStream::advance(DataStreamTransferInfo &info) {
    if (writeOffset_ < bufferSize_)
        return true;
    info.copyLength = writeOffset_ - bufferSize_;
    info.completedBuffers = writeOffset_ / bufferSize_;
    writeOffset_ %= bufferSize_;
    buffers_[writeIndex_]->state.store(DataStreamBufferState::Full, std::memory_order_release);

    // The buffers that the overshoot reaches, before any of them is called full.
    const uint64_t reached = info.completedBuffers - (writeOffset_ == 0 ? 1 : 0);
    uint64_t index = writeIndex_;
    for (uint64_t i = 0; i < reached; ++i) {
        index = following(index);
        if (!claim(index))
            return false;
    }
    for (uint64_t i = 1; i < info.completedBuffers; ++i) {
        writeIndex_ = following(writeIndex_);
        buffers_[writeIndex_]->state.store(DataStreamBufferState::Full, std::memory_order_release);
    }
    writeIndex_ = following(writeIndex_);
    return true;
}

uint64_t DataStream::transferCompleted(const DataStreamTransferInfo &info) {
    uint64_t index = info.bufferIndex;
    uint64_t overshoot = info.copyLength;
    while (overshoot != 0) {
        const uint64_t next = following(index);
        std::memcpy(buffers_[next]->data.get(), buffers_[index]->data.get() + bufferSize_,
                    overshoot);
        overshoot -= std::min(overshoot, bufferSize_);
        index = next;
    }
    return info.completedBuffers;
}

bool DataStream::lock(uint8_t *&data, uint64_t &size) {
    if (locked_)
        return false;
    DataStreamBuffer &buffer = *buffers_[readIndex_];
    if (!buffer.change(DataStreamBufferState::Full, DataStreamBufferState::Locked))
        return false;
    data = buffer.data.get();
    size = bufferSize_;
    locked_ = true;
    return true;
}

bool DataStream::unlock() {
    if (!locked_ ||
        !buffers_[readIndex_]->change(DataStreamBufferState::Locked, DataStreamBufferState::Free))
        return false;
    readIndex_ = following(readIndex_);
    locked_ = false;
    released_.fetch_add(1, std::memory_order_relaxed);
    return true;
}

} // namespace vexausb
