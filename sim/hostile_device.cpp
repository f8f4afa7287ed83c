#include "hostile_device.h"

#include <chrono>
#include <limits>
#include <utility>

namespace sim {

namespace {

constexpr std::chrono::milliseconds kAway{100};

} // namespace

HostileDevice::HostileDevice(std::unique_ptr<DeviceModel> other, const Lie *lie,
                             std::optional<Leaving> leaving)
    : DeviceModel(other->shape()), other_(std::move(other)), lie_(lie), leaving_(leaving) {}

void HostileDevice::plugged(Port &port) {
    DeviceModel::plugged(port);
    other_->plugged(port);
    answered_ = 0;
}

void HostileDevice::withdrawn(uint8_t endpoint) {
    other_->withdrawn(endpoint);
}

Answer HostileDevice::standardRequest(const Setup &setup, std::span<uint8_t> data) {
    if (lie_ == nullptr || lie_->descriptor == nullptr || setup.request != kGetDescriptor)
        return other_->control(setup, data);
    Bytes bytes(std::numeric_limits<uint16_t>::max());
    const Answer truth = other_->control(setup, bytes);
    if (truth.kind != Answer::Kind::Done)
        return truth;
    bytes.resize(truth.length);
    lie_->descriptor(setup.value, bytes);
    return bytes.empty() ? Answer::stall() : sendBytes(bytes, data);
}

Answer HostileDevice::request(const Setup &setup, std::span<uint8_t> data) {
    const auto falsely = answerFalsely({&setup, setup.isIn(), data.size()}, data);
    return counted(falsely ? *falsely : other_->control(setup, data));
}

Answer HostileDevice::sendData(uint8_t endpoint, std::span<uint8_t> room) {
    const auto falsely = answerFalsely({nullptr, true, room.size()}, room);
    return counted(falsely ? *falsely : other_->in(endpoint, room));
}

Answer HostileDevice::takeData(uint8_t endpoint, std::span<const uint8_t> data) {
    const auto falsely = answerFalsely({nullptr, false, data.size()}, {});
    return counted(falsely ? *falsely : other_->out(endpoint, data));
}

std::optional<Answer> HostileDevice::answerFalsely(const Question &question,
                                                   std::span<uint8_t> room) const {
    if (lie_ == nullptr || lie_->answer == nullptr)
        return std::nullopt;
    return lie_->answer(question, room);
}

// The other device may have left by itself, with this answer.
Answer HostileDevice::counted(Answer answer) {
    if (!leaving_ || answer.kind == Answer::Kind::Wait || ++answered_ < leaving_->after ||
        !port().isPlugged())
        return answer;
    leaving_->after += leaving_->more;
    port().unplug(kAway);
    return answer;
}

} // namespace sim
