#include "instrument.h"

#include <algorithm>
#include <utility>

#include "byte_order.h"
#include "stream_pattern.h"
#include "vexa_usb_config.h"

namespace sim {

namespace {

constexpr size_t kLoopRoom = 4U << 20; // a loop-back that holds so many bytes makes writers wait

Bytes currentTime() {
    const int64_t now =
        std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
    Bytes bytes;
    appendLittleEndian64(bytes, static_cast<uint64_t>(now));
    return bytes;
}

DeviceShape withEndpoints(DeviceShape shape) {
    shape.endpoints = {
        {kEventEndpoint, EndpointType::Interrupt},    {kStreamEndpoint, EndpointType::Bulk},
        {kBulkLoopOut, EndpointType::Bulk},           {kBulkLoopIn, EndpointType::Bulk},
        {kInterruptLoopOut, EndpointType::Interrupt}, {kInterruptLoopIn, EndpointType::Interrupt},
    };
    return shape;
}

} // namespace

DeviceShape instrumentShape() {
    DeviceShape shape;
    shape.vendor = VEXA_USB_VENDOR_ID;
    shape.product = 0x0001;
    shape.manufacturer = "vexa-usb";
    shape.productName = "Simulated instrument";
    shape.serial = "SIM0001";
    return shape;
}

Instrument::Instrument(DeviceShape shape, Bytes loadedFirmware)
    : DeviceModel(withEndpoints(std::move(shape))), firmware_(std::move(loadedFirmware)) {}

Instrument::Instrument(DeviceShape shape, const std::string &recording)
    : DeviceModel(withEndpoints(std::move(shape))), recording_(recording) {}

void Instrument::plugged(Port &port) {
    DeviceModel::plugged(port);
    streamPosition_ = 0;
    vanishing_.reset();
    events_.clear();
    bulkLoop_.clear();
    interruptLoop_.clear();
    scratch_.clear();
}

Answer Instrument::request(const Setup &setup, std::span<uint8_t> data) {
    if ((setup.requestType & kTypeMask) != kTypeVendor)
        return Answer::stall();
    if (setup.request == kRequestScratch)
        return scratchRequest(setup, data);
    if (setup.isIn())
        return setup.request == kRequestFirmware ? firmwareRequest(setup, data) : Answer::stall();

    const auto endpoint = static_cast<uint8_t>(setup.index);
    switch (setup.request) {
    case kRequestSeek:
        if (data.size() != sizeof(streamPosition_))
            return Answer::stall();
        streamPosition_ = littleEndian64(data);
        break;
    case kRequestSendTimes:
        events_.insert(events_.end(), setup.value, std::nullopt);
        port().wake({});
        break;
    case kRequestSendEvents:
        events_.emplace_back(Bytes(data.begin(), data.end()));
        port().wake({});
        break;
    case kRequestStall:
        setHalted(endpoint, setup.value != 0);
        break;
    case kRequestShort:
        setShortAnswer(endpoint, setup.value);
        break;
    case kRequestSilence:
        setSilent(endpoint, setup.value != 0);
        break;
    case kRequestDelay:
        setDelay(endpoint, std::chrono::milliseconds(setup.value));
        break;
    case kRequestVanish:
        return vanishRequest(data);
    default:
        return Answer::stall();
    }
    return Answer::done(data.size());
}

Answer Instrument::scratchRequest(const Setup &setup, std::span<uint8_t> data) {
    if (!setup.isIn()) {
        scratch_.assign(data.begin(), data.end());
        return Answer::done(data.size());
    }
    return sendBytes(scratch_, data);
}

Answer Instrument::firmwareRequest(const Setup &setup, std::span<uint8_t> room) const {
    const size_t offset = size_t{setup.index} << 16 | setup.value;
    return sendBytes(std::span(firmware_).subspan(std::min(offset, firmware_.size())), room);
}

Answer Instrument::vanishRequest(std::span<const uint8_t> data) {
    if (data.size() != sizeof(VanishRequest))
        return Answer::stall();
    const VanishRequest wanted{littleEndian64(data), littleEndian32(data.subspan(8)),
                               littleEndian16(data.subspan(12)), littleEndian16(data.subspan(14))};
    vanishing_ = Vanishing{wanted.afterBytes, std::nullopt, wanted.product};
    if (wanted.returnAfterMs != kNeverReturn)
        vanishing_->returnAfter = std::chrono::milliseconds(wanted.returnAfterMs);
    if (wanted.afterBytes == 0 && wanted.afterMs == 0)
        vanish();
    else if (wanted.afterBytes == 0)
        port().after(std::chrono::milliseconds(wanted.afterMs), [this]() {
            if (vanishing_)
                vanish();
        });
    return Answer::done(data.size());
}

void Instrument::vanish() {
    if (vanishing_->product != 0)
        setProduct(vanishing_->product);
    port().unplug(vanishing_->returnAfter);
}

Answer Instrument::sendData(uint8_t endpoint, std::span<uint8_t> room) {
    switch (endpoint) {
    case kStreamEndpoint:
        return sendStream(room);
    case kEventEndpoint:
        return sendEvents(room);
    case kBulkLoopIn:
        return sendFrom(bulkLoop_, room);
    case kInterruptLoopIn:
        return sendFrom(interruptLoop_, room);
    default:
        return Answer::stall();
    }
}

Answer Instrument::takeData(uint8_t endpoint, std::span<const uint8_t> data) {
    if (endpoint != kBulkLoopOut && endpoint != kInterruptLoopOut)
        return Answer::stall();
    std::deque<uint8_t> &queue = endpoint == kBulkLoopOut ? bulkLoop_ : interruptLoop_;
    if (queue.size() >= kLoopRoom)
        return Answer::wait();
    queue.insert(queue.end(), data.begin(), data.end());
    port().wake({});
    return Answer::done(data.size());
}

Answer Instrument::sendStream(std::span<uint8_t> room) {
    if (vanishing_ && vanishing_->bytesLeft != 0)
        room = room.first(std::min<uint64_t>(room.size(), vanishing_->bytesLeft));
    if (!recording_)
        fillPattern(streamPosition_, room);
    else if (!recording_->fill(streamPosition_, room))
        return Answer::stall();
    streamPosition_ += room.size();
    if (vanishing_ && vanishing_->bytesLeft != 0 && (vanishing_->bytesLeft -= room.size()) == 0)
        vanish();
    return Answer::done(room.size());
}

Answer Instrument::sendEvents(std::span<uint8_t> room) {
    if (events_.empty())
        return Answer::wait();
    const Bytes packet = events_.front() ? std::move(*events_.front()) : currentTime();
    events_.pop_front();
    return sendBytes(packet, room);
}

Answer Instrument::sendFrom(std::deque<uint8_t> &queue, std::span<uint8_t> room) {
    if (queue.empty())
        return Answer::wait();
    const auto length = static_cast<std::ptrdiff_t>(std::min(queue.size(), room.size()));
    std::copy_n(queue.begin(), length, room.begin());
    queue.erase(queue.begin(), queue.begin() + length);
    port().wake({}); // a writer may be waiting for room
    return Answer::done(static_cast<size_t>(length));
}

} // namespace sim
