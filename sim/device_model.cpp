#include "device_model.h"

#include <algorithm>
#include <array>

namespace sim {

namespace {

bool isEndpointHalt(const Setup &setup) {
    return (setup.requestType & kRecipientMask) == kRecipientEndpoint && setup.value == 0;
}

} // namespace

Answer sendBytes(std::span<const uint8_t> bytes, std::span<uint8_t> room) {
    const size_t length = std::min(bytes.size(), room.size());
    std::copy_n(bytes.begin(), length, room.begin());
    return Answer::done(length);
}

void DeviceModel::plugged(Port &port) {
    port_ = &port;
    configuration_ = 0;
    faults_.clear();
}

Answer DeviceModel::control(const Setup &setup, std::span<uint8_t> data) {
    if ((setup.requestType & kTypeMask) == kTypeStandard)
        return standardRequest(setup, data);
    if (const auto fault = faultBeforeAnswer(0))
        return *fault;
    return request(setup, data);
}

Answer DeviceModel::in(uint8_t endpoint, std::span<uint8_t> room) {
    if (const auto fault = faultBeforeAnswer(endpoint))
        return *fault;
    const auto found = faults_.find(endpoint);
    if (found != faults_.end() && found->second.shortAnswer)
        room = room.first(std::min(room.size(), *found->second.shortAnswer));
    const Answer answer = sendData(endpoint, room);
    if (found != faults_.end() && answer.kind == Answer::Kind::Done)
        found->second.shortAnswer.reset();
    return answer;
}

Answer DeviceModel::out(uint8_t endpoint, std::span<const uint8_t> data) {
    if (const auto fault = faultBeforeAnswer(endpoint))
        return *fault;
    return takeData(endpoint, data);
}

void DeviceModel::withdrawn(uint8_t endpoint) {
    const auto found = faults_.find(endpoint);
    if (found != faults_.end())
        found->second.dueAt.reset();
}

void DeviceModel::setHalted(uint8_t endpoint, bool halted) {
    faults_[endpoint].halted = halted;
    port().wake({});
}

void DeviceModel::setSilent(uint8_t endpoint, bool silent) {
    faults_[endpoint].silent = silent;
    port().wake({});
}

void DeviceModel::setDelay(uint8_t endpoint, std::chrono::milliseconds delay) {
    faults_[endpoint].delay = delay;
}

void DeviceModel::setShortAnswer(uint8_t endpoint, size_t length) {
    faults_[endpoint].shortAnswer = length;
}

std::optional<Answer> DeviceModel::faultBeforeAnswer(uint8_t endpoint) {
    const auto found = faults_.find(endpoint);
    if (found == faults_.end())
        return std::nullopt;
    Fault &fault = found->second;
    if (fault.halted)
        return Answer::stall();
    if (fault.silent)
        return Answer::wait();
    if (fault.delay.count() == 0)
        return std::nullopt;
    if (!fault.dueAt) {
        fault.dueAt = Clock::now() + fault.delay;
        port().wake(fault.delay);
        return Answer::wait();
    }
    if (Clock::now() < *fault.dueAt)
        return Answer::wait();
    fault.dueAt.reset();
    return std::nullopt;
}

Answer DeviceModel::standardRequest(const Setup &setup, std::span<uint8_t> data) {
    switch (setup.request) {
    case kGetDescriptor:
        return descriptor(setup, data);
    case kGetStatus:
        return sendBytes(std::array<uint8_t, 2>{isHalted(setup) ? uint8_t{1} : uint8_t{0}, 0},
                         data);
    case kGetConfiguration:
        return sendBytes(std::array{configuration_}, data);
    case kGetInterface:
        return sendBytes(std::array<uint8_t, 1>{}, data);
    case kSetConfiguration:
        if (setup.value > 1)
            return Answer::stall();
        configuration_ = static_cast<uint8_t>(setup.value);
        return Answer::done(0);
    case kSetInterface:
        return setup.value == 0 && setup.index == 0 ? Answer::done(0) : Answer::stall();
    case kSetSel:
    case kSetIsochDelay:
        return Answer::done(setup.length);
    case kClearFeature:
    case kSetFeature:
        return endpointFeature(setup);
    default:
        return Answer::stall();
    }
}

bool DeviceModel::isHalted(const Setup &setup) const {
    if ((setup.requestType & kRecipientMask) != kRecipientEndpoint)
        return false;
    const auto found = faults_.find(static_cast<uint8_t>(setup.index));
    return found != faults_.end() && found->second.halted;
}

Answer DeviceModel::endpointFeature(const Setup &setup) {
    if (isEndpointHalt(setup))
        setHalted(static_cast<uint8_t>(setup.index), setup.request == kSetFeature);
    return Answer::done(0);
}

Answer DeviceModel::descriptor(const Setup &setup, std::span<uint8_t> room) const {
    const auto index = static_cast<uint8_t>(setup.value & 0xFF);
    Bytes bytes;
    switch (setup.value >> 8) {
    case kDeviceDescriptor:
        bytes = deviceDescriptor(shape_);
        break;
    case kConfigurationDescriptor:
        bytes = index == 0 ? configurationDescriptor(shape_) : Bytes{};
        break;
    case kStringDescriptor:
        bytes = stringDescriptor(shape_, index);
        break;
    case kQualifierDescriptor:
        bytes = qualifierDescriptor(shape_);
        break;
    case kBosDescriptor:
        bytes = bosDescriptor(shape_);
        break;
    case kReportDescriptor:
        bytes = shape_.reportDescriptor;
        break;
    default:
        break;
    }
    return bytes.empty() ? Answer::stall() : sendBytes(bytes, room);
}

} // namespace sim
