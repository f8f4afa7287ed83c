#include "boot_device.h"

#include <cstdio>
#include <memory>
#include <utility>

#include <fmt/format.h>

#include "instrument.h"

namespace sim {

namespace {

constexpr std::chrono::milliseconds kAway{300}; // off the bus before it comes back

} // namespace

BootDevice::BootDevice(DeviceShape shape, const LoadBehaviour &behaviour)
    : DeviceModel(std::move(shape)), behaviour_(behaviour) {}

void BootDevice::plugged(Port &port) {
    DeviceModel::plugged(port);
    setDelay(0, behaviour_.delay);
    requests_ = 0;
    ++timesPlugged_;
}

Answer BootDevice::request(const Setup &setup, std::span<uint8_t> data) {
    if (++requests_ == 1)
        firstRequest_ = Clock::now();
    if (takeFault(behaviour_.fail))
        return Answer::stall();
    if (takeFault(behaviour_.unplug)) {
        port().unplug(kAway);
        return Answer::wait();
    }
    Answer answer = loadRequest(setup, data);
    if (takeFault(behaviour_.shorten) && answer.kind == Answer::Kind::Done && answer.length != 0)
        --answer.length;
    return answer;
}

void BootDevice::later(std::chrono::milliseconds delay, std::function<void()> action) {
    port().after(delay, [this, times = timesPlugged_, action = std::move(action)]() {
        if (times == timesPlugged_ && port().isPlugged())
            action();
    });
}

bool BootDevice::takeFault(std::optional<uint32_t> &fault) {
    if (fault != requests_)
        return false;
    fault.reset();
    return true;
}

bool BootDevice::statusIsBad() {
    if (++statuses_ != behaviour_.badStatus)
        return false;
    behaviour_.badStatus.reset();
    return true;
}

Answer BootDevice::sendData(uint8_t /*endpoint*/, std::span<uint8_t> /*room*/) {
    return Answer::stall();
}

Answer BootDevice::takeData(uint8_t /*endpoint*/, std::span<const uint8_t> /*data*/) {
    return Answer::stall();
}

void BootDevice::start(Bytes firmware) {
    DeviceShape instrument = instrumentShape();
    instrument.serial = shape().serial;
    startAs(std::make_unique<Instrument>(std::move(instrument), std::move(firmware)));
}

void BootDevice::startAs(std::unique_ptr<DeviceModel> stage) {
    const std::chrono::duration<double> time = Clock::now() - firstRequest_;
    fmt::print("{} starts its firmware, {:.3f} s after the first of {} requests\n",
               shape().productName, time.count(), requests_);
    std::fflush(stdout);
    port().become(std::move(stage), kAway);
}

} // namespace sim
