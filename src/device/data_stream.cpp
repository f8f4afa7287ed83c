#include "device/data_stream.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

namespace vexausb {

namespace {

uint64_t roundUp(uint64_t value, uint64_t step) {
    const uint64_t rest = value % step;
    return rest == 0 ? value : value - rest + step;
}

// Pieces of nearly equal size rather than full ones and a small rest.
uint64_t transferSizeFor(uint64_t bufferSize, uint64_t maxTransferSize, uint64_t packetSize) {
    const uint64_t pieces =
        bufferSize / maxTransferSize + (bufferSize % maxTransferSize != 0 ? 1 : 0);
    return roundUp(bufferSize / pieces, packetSize);
}

} // namespace

// No array is larger than a pointer difference can tell.
uint64_t DataStream::allocationSizeFor(uint64_t bufferSize, uint64_t packetSize) {
    if (bufferSize > static_cast<uint64_t>(std::numeric_limits<std::ptrdiff_t>::max()) - packetSize)
        throw std::length_error("stream buffer too large");
    return bufferSize % packetSize == 0 ? bufferSize : bufferSize + packetSize;
}

bool DataStreamBuffer::change(DataStreamBufferState from, DataStreamBufferState to) {
    return state.compare_exchange_strong(from, to);
}

bool DataStreamBuffer::closeUnlessLocked() {
    DataStreamBufferState now = state.load();
    while (now != DataStreamBufferState::Locked) {
        if (state.compare_exchange_weak(now, DataStreamBufferState::Closed))
            return true;
    }
    return false;
}

DataStream::DataStream(uint64_t bufferSize, uint64_t bufferCount, uint64_t maxTransferSize,
                       uint64_t packetSize, std::unique_ptr<SharedBuffers> shared)
    : bufferSize_(bufferSize),
      packetSize_(packetSize),
      allocationSize_(allocationSizeFor(bufferSize, packetSize)),
      transferSize_(transferSizeFor(bufferSize, maxTransferSize, packetSize)),
      memory_(allocationSize_, bufferCount),
      shared_(std::move(shared)) {
    buffers_.reserve(bufferCount);
    for (uint64_t i = 0; i < bufferCount; ++i)
        buffers_.push_back(std::make_unique<DataStreamBuffer>(memory_.buffer(i)));
}

DataStream::~DataStream() {
    releaseShared(CallerMemory::Ends);
}

bool DataStream::claim(uint64_t index) {
    DataStreamBuffer &buffer = *buffers_[index];
    if (!buffer.change(DataStreamBufferState::Free, DataStreamBufferState::Filling))
        return false;
    if (shared_ == nullptr || buffer.isShared() || buffer.pendingTransfers > 0)
        return true;
    collectShared();
    uint8_t *const memory = shared_->take();
    if (memory != nullptr)
        buffer.data = memory;
    return true;
}

// Up to the first buffer that is in use; at the latest, that is the one that has just been claimed.
// A buffer that a transfer is still on its way to keeps its memory.
void DataStream::collectShared() {
    while (buffers_[collectIndex_]->state.load() == DataStreamBufferState::Free) {
        DataStreamBuffer &buffer = *buffers_[collectIndex_];
        if (buffer.isShared() && buffer.pendingTransfers == 0)
            makeOrdinary(buffer);
        collectIndex_ = following(collectIndex_);
    }
}

void DataStream::makeOrdinary(DataStreamBuffer &buffer) {
    shared_->giveBack(std::exchange(buffer.data, buffer.ordinary));
}

void DataStream::releaseUnused() {
    if (shared_ == nullptr)
        return;
    for (const auto &buffer : buffers_) {
        if (buffer->isShared() && buffer->pendingTransfers == 0 &&
            buffer->state.load() == DataStreamBufferState::Free)
            makeOrdinary(*buffer);
    }
    shared_->releaseUnused();
}

void DataStream::releaseShared(CallerMemory callers) {
    if (shared_ == nullptr)
        return;
    for (const auto &buffer : buffers_) {
        if (!buffer->isShared())
            continue;
        if (callers == CallerMemory::Ends || buffer->closeUnlessLocked())
            makeOrdinary(*buffer);
    }
    shared_->handleIsClosing();
}

bool DataStream::nextTransfer(DataStreamTransferInfo &info) {
    if (writeOffset_ == 0 && !claim(writeIndex_))
        return false;
    info = {};
    info.bufferIndex = writeIndex_;
    info.destination = buffers_[writeIndex_]->data + writeOffset_;
    info.transferLength = transferSize_;
    while (writeOffset_ + info.transferLength > allocationSize_)
        info.transferLength -= packetSize_;
    writeOffset_ += info.transferLength;
    ++buffers_[writeIndex_]->pendingTransfers;
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
    --buffers_[index]->pendingTransfers;
    while (overshoot != 0) {
        const uint64_t next = following(index);
        std::memcpy(buffers_[next]->data, buffers_[index]->data + bufferSize_, overshoot);
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
    data = buffer.data;
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
