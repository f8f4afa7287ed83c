#include "fx2.h"

#include <algorithm>
#include <utility>

#include "byte_order.h"

namespace sim {

namespace {

constexpr size_t kMemorySize = 0x10000;
constexpr size_t kMainMemoryEnd = 0x4000; // memory on the chip, from 0 on
constexpr size_t kScratchMemory = 0xE000;
constexpr size_t kScratchMemoryEnd = 0xE200;
constexpr int kInstructionsAtOnce = 50000; // before a request is left pending
constexpr int kInstructionsInSlice = 5000;
constexpr std::chrono::milliseconds kSliceInterval{1};
constexpr std::chrono::seconds kTimeForRequest{1};
constexpr size_t kPacketSize = 64;

constexpr uint8_t kMemoryRequest = 0xA0;

enum Register : uint16_t {
    kCpuControl = 0xE600,    // bit 0: the processor is held in reset
    kInterrupts = 0xE65D,    // bit 0: a set-up packet has come
    kUsbControl = 0xE680,    // bit 1: the program has taken over; bit 3: disconnected
    kCountLow = 0xE68B,      // number of bytes in endpoint 0; writing it arms the endpoint
    kEndpointState = 0xE6A0, // writing bit 0 stalls, bit 7 acknowledges; bit 1: busy
    kSetupPacket = 0xE6B8,
    kEndpointBuffer = 0xE740,
};

constexpr uint8_t kSetupCame = 0x01;
constexpr uint8_t kTakenOver = 0x02;
constexpr uint8_t kDisconnected = 0x08;
constexpr uint8_t kStall = 0x01;
constexpr uint8_t kAcknowledge = 0x80;

bool isOnChip(size_t first, size_t end) {
    return end <= kMainMemoryEnd || (first >= kScratchMemory && end <= kScratchMemoryEnd);
}

} // namespace

Fx2::Fx2(DeviceShape shape, const LoadBehaviour &behaviour)
    : BootDevice(std::move(shape), behaviour), memory_(kMemorySize), processor_(*this) {}

void Fx2::plugged(Port &port) {
    BootDevice::plugged(port);
    std::fill(memory_.begin(), memory_.end(), uint8_t{0});
    running_ = takenOver_ = takenOverSinceReset_ = disconnected_ = sliceScheduled_ = false;
    pendingRequest_.reset();
}

void Fx2::withdrawn(uint8_t endpoint) {
    BootDevice::withdrawn(endpoint);
    if (endpoint == 0)
        pendingRequest_.reset();
}

Answer Fx2::loadRequest(const Setup &setup, std::span<uint8_t> data) {
    if ((setup.requestType & ~kRequestIn) == kTypeVendor && setup.request == kMemoryRequest)
        return memoryRequest(setup, data);
    return takenOver_ ? programRequest(setup, data) : Answer::stall();
}

Answer Fx2::standardRequest(const Setup &setup, std::span<uint8_t> data) {
    return takenOver_ ? programRequest(setup, data) : BootDevice::standardRequest(setup, data);
}

Answer Fx2::memoryRequest(const Setup &setup, std::span<uint8_t> data) {
    if (setup.index != 0)
        return Answer::stall();
    const bool isCpuControl = setup.value == kCpuControl && data.size() == 1;
    if (!isCpuControl && !isOnChip(setup.value, setup.value + data.size()))
        return Answer::stall();
    const auto here = memory_.begin() + setup.value;
    if (setup.isIn()) {
        std::copy_n(here, data.size(), data.begin());
        return Answer::done(data.size());
    }
    if (running_ && !isCpuControl)
        return Answer::stall();
    std::copy(data.begin(), data.end(), here);
    if (isCpuControl)
        setCpu((data[0] & 1) == 0);
    return Answer::done(data.size());
}

void Fx2::setCpu(bool released) {
    if (released == running_)
        return;
    running_ = released;
    if (!released)
        return;
    takenOverSinceReset_ = false;
    processor_.reset();
    run(kInstructionsInSlice);
    extendRunTime();
}

// Ends early when the program has answered the pending request.
void Fx2::run(int instructions) {
    for (; instructions > 0 && running_ && !(pendingRequest_ && pendingRequest_->answer);
         --instructions)
        processor_.step();
}

void Fx2::extendRunTime() {
    runUntil_ = Clock::now() + kTimeForRequest;
    scheduleSlice();
}

bool Fx2::hasRunTime() const {
    return running_ &&
           (disconnected_ || !takenOverSinceReset_ || pendingRequest_ || Clock::now() < runUntil_);
}

void Fx2::scheduleSlice() {
    if (!std::exchange(sliceScheduled_, true))
        port().after(kSliceInterval, [this]() {
            sliceScheduled_ = false;
            run(kInstructionsInSlice);
            if (pendingRequest_ && pendingRequest_->answer)
                port().wake({});
            if (hasRunTime())
                scheduleSlice();
        });
}

Answer Fx2::programRequest(const Setup &packet, std::span<uint8_t> data) {
    if (!pendingRequest_) {
        pendingRequest_ =
            PendingRequest{packet.isIn(), Bytes(data.begin(), data.end()), 0, std::nullopt};
        writeSetup(packet);
        run(kInstructionsAtOnce);
    }
    extendRunTime();
    if (!pendingRequest_->answer)
        return Answer::wait();
    const Answer answer = *pendingRequest_->answer;
    if (packet.isIn())
        std::copy_n(pendingRequest_->data.begin(), answer.length, data.begin());
    pendingRequest_.reset();
    return answer;
}

void Fx2::writeSetup(const Setup &packet) {
    const std::span<uint8_t> to = std::span(memory_).subspan(kSetupPacket);
    to[0] = packet.requestType;
    to[1] = packet.request;
    putLittleEndian16(to.subspan(2), packet.value);
    putLittleEndian16(to.subspan(4), packet.index);
    putLittleEndian16(to.subspan(6), packet.length);
    memory_[kEndpointState] = kAcknowledge; // the program has to write it to acknowledge
    memory_[kInterrupts] |= kSetupCame;
}

uint8_t Fx2::read(uint16_t address) {
    return memory_[address];
}

void Fx2::write(uint16_t address, uint8_t value) {
    switch (address) {
    case kInterrupts:
        memory_[kInterrupts] &= static_cast<uint8_t>(~value);
        break;
    case kUsbControl:
        writeUsbControl(value);
        break;
    case kCountLow:
        armEndpoint(value);
        break;
    case kEndpointState:
        if (pendingRequest_ && (value & (kStall | kAcknowledge)) != 0)
            pendingRequest_->answer =
                (value & kStall) != 0 ? Answer::stall() : Answer::done(pendingRequest_->moved);
        break;
    default:
        memory_[address] = value;
        break;
    }
}

void Fx2::writeUsbControl(uint8_t value) {
    memory_[kUsbControl] = value;
    takenOverSinceReset_ = takenOver_ = (value & kTakenOver) != 0;
    const bool before = std::exchange(disconnected_, (value & kDisconnected) != 0);
    if (disconnected_ && !before)
        port().unplug(std::nullopt);
    if (before && !disconnected_) {
        running_ = false;
        start(memory_);
    }
}

// Moves one packet between the request and endpoint 0: to the host `count` bytes, from the host as
// many as there are.
void Fx2::armEndpoint(uint8_t count) {
    if (!pendingRequest_)
        return;
    const auto left = std::span(pendingRequest_->data).subspan(pendingRequest_->moved);
    const size_t length =
        std::min({left.size(), kPacketSize, pendingRequest_->in ? size_t{count} : kPacketSize});
    const auto buffer = memory_.begin() + kEndpointBuffer;
    if (pendingRequest_->in)
        std::copy_n(buffer, length, left.begin());
    else
        std::copy_n(left.begin(), length, buffer);
    pendingRequest_->moved += length;
    memory_[kCountLow] = static_cast<uint8_t>(length);
}

} // namespace sim
