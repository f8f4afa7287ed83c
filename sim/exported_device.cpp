#include "exported_device.h"

#include <utility>

namespace sim {

namespace {

constexpr std::chrono::milliseconds kUnplugInterval{5};

} // namespace

ExportedDevice::ExportedDevice(EventLoop &loop, usbip::ExportedName name,
                               std::unique_ptr<DeviceModel> model)
    : loop_(loop), name_(std::move(name)) {
    models_.push_back(std::move(model));
}

void ExportedDevice::imported(Importer *by) {
    importer_ = by;
    wasImported_ = true;
    model().plugged(*this);
}

void ExportedDevice::released() {
    importer_ = nullptr;
}

void ExportedDevice::stayAway(std::chrono::milliseconds time) {
    present_ = false;
    loop_.after(time, [this]() {
        present_ = true;
        if (onReturn)
            onReturn();
    });
}

// Not at once: the device may be in the middle of an answer.
void ExportedDevice::wake(std::chrono::milliseconds delay) {
    if (delay.count() == 0 && std::exchange(wakeScheduled_, true))
        return;
    loop_.after(delay, [this, delay]() {
        if (delay.count() == 0)
            wakeScheduled_ = false;
        if (importer_ != nullptr)
            importer_->offerPending();
    });
}

void ExportedDevice::after(std::chrono::milliseconds delay, std::function<void()> action) {
    loop_.after(delay, std::move(action));
}

void ExportedDevice::unplug(std::optional<std::chrono::milliseconds> returnAfter) {
    present_ = false;
    if (importer_ != nullptr)
        importer_->deviceLeft();
    disconnect(returnAfter);
}

void ExportedDevice::disconnect(std::optional<std::chrono::milliseconds> returnAfter) {
    if (importer_ != nullptr && mayUnplug && !mayUnplug()) {
        loop_.after(kUnplugInterval, [this, returnAfter]() { disconnect(returnAfter); });
        return;
    }
    if (returnAfter)
        stayAway(*returnAfter);
    if (importer_ != nullptr)
        importer_->disconnect();
}

void ExportedDevice::become(std::unique_ptr<DeviceModel> other,
                            std::chrono::milliseconds returnAfter) {
    models_.push_back(std::move(other));
    unplug(returnAfter);
}

} // namespace sim
