#include "fx2.h"

#include <algorithm>
#include <utility>

namespace sim {

/*
 * The chip as a host sees it: memory, a processor that is held in reset until it is released
 * through CPUCS, and a default device that answers standard requests until the program takes over.
 * Request 0xA0 is the chip's own: it reads and writes the memory on the chip, which it writes only
 * while the processor is held.  Everything else is up to the program, which finds the set-up packet
 * and endpoint 0 in the registers.
 *
 * A program that disconnects and connects again comes back as the instrument.  Each release from
 * reset starts the clock of a program anew: time goes on until it has taken over itself, whatever
 * the one before it did, while it is disconnected or deals with a request, and for a second after
 * its start and each request.
 */
namespace {

constexpr size_t kMemorySize = 0x10000;
constexpr size_t kMainMemory = 0x4000; // on the chip, from 0 on
constexpr size_t kScratchMemory = 0xE000;
constexpr size_t kScratchMemoryEnd = 0xE200;
constexpr int kInstructions = 50000; // for a request, at once
constexpr int kInMoment = 5000;
constexpr std::chrono::milliseconds kMoment{1};
constexpr std::chrono::seconds kAwake{1};
constexpr size_t kPacketSize = 64;

constexpr uint8_t kMemoryRequest = 0xA0;

enum Register : uint16_t {
    kCpuControl = 0xE600,    // bit 0 holds the processor
    kInterrupts = 0xE65D,    // bit 0: a set-up packet has come
    kUsbControl = 0xE680,    // bit 1: the program has taken over; bit 3: disconnected
    kCountHigh = 0xE68A,     // of endpoint 0
    kCountLow = 0xE68B,      // writing arms endpoint 0
    kEndpointState = 0xE6A0, // bit 0 stalls, bit 1 busy, bit 7 acknowledges
    kSetupPacket = 0xE6B8,
    kEndpointBuffer = 0xE740,
};

constexpr uint8_t kSetupCame = 0x01;
constexpr uint8_t kTakenOver = 0x02;
constexpr uint8_t kDisconnected = 0x08;
constexpr uint8_t kStall = 0x01;
constexpr uint8_t kAcknowledge = 0x80;

bool isOnChip(size_t first, size_t end) {
    return end <= kMainMemory || (first >= kScratchMemory && end <= kScratchMemoryEnd);
}

} // namespace

Fx2::Fx2(DeviceShape shape, const LoadBehaviour &behaviour)
    : BootDevice(std::move(shape), behaviour), memory_(kMemorySize), processor_(*this) {}

void Fx2::plugged(Port &port) {
    BootDevice::plugged(port);
    std::fill(memory_.begin(), memory_.end(), uint8_t{0});
    running_ = takenOver_ = settled_ = disconnected_ = continues_ = false;
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
    settled_ = false;
    processor_.reset();
    run(kInMoment);
    stayAwake();
}

// Until the request in hand, if there is one, was answered.
void Fx2::run(int instructions) {
    for (; instructions > 0 && running_ && !(pendingRequest_ && pendingRequest_->answer);
         --instructions)
        processor_.step();
}

void Fx2::stayAwake() {
    awakeUntil_ = Clock::now() + kAwake;
    goOnLater();
}

bool Fx2::isAwake() const {
    return running_ &&
           (disconnected_ || !settled_ || pendingRequest_ || Clock::now() < awakeUntil_);
}

void Fx2::goOnLater() {
    if (!std::exchange(continues_, true))
        port().after(kMoment, [this]() {
            continues_ = false;
            run(kInMoment);
            if (pendingRequest_ && pendingRequest_->answer)
                port().wake({});
            if (isAwake())
                goOnLater();
        });
}

Answer Fx2::programRequest(const Setup &packet, std::span<uint8_t> data) {
    if (!pendingRequest_) {
        pendingRequest_ =
            PendingRequest{packet.isIn(), Bytes(data.begin(), data.end()), 0, std::nullopt};
        setup(packet);
        run(kInstructions);
    }
    stayAwake();
    if (!pendingRequest_->answer)
        return Answer::wait();
    const Answer answer = *pendingRequest_->answer;
    if (packet.isIn())
        std::copy_n(pendingRequest_->data.begin(), answer.length, data.begin());
    pendingRequest_.reset();
    return answer;
}

void Fx2::setup(const Setup &packet) {
    const std::array<uint8_t, 8> bytes{
        packet.requestType,
        packet.request,
        static_cast<uint8_t>(packet.value),
        static_cast<uint8_t>(packet.value >> 8),
        static_cast<uint8_t>(packet.index),
        static_cast<uint8_t>(packet.index >> 8),
        static_cast<uint8_t>(packet.length),
        static_cast<uint8_t>(packet.length >> 8),
    };
    std::copy(bytes.begin(), bytes.end(), memory_.begin() + kSetupPacket);
    memory_[kEndpointState] = kAcknowledge; // which the program has to write again
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
    settled_ = takenOver_ = (value & kTakenOver) != 0;
    const bool before = std::exchange(disconnected_, (value & kDisconnected) != 0);
    if (disconnected_ && !before)
        port().unplug(std::nullopt);
    if (before && !disconnected_) {
        running_ = false;
        start(memory_);
    }
}

// Lets the next packet in, or sends one.
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
