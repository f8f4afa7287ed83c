#include "exported_device.h"

#include <utility>

namespace sim {

ExportedDevice::ExportedDevice(EventLoop &loop, usbip::ExportedName name,
                               std::unique_ptr<DeviceModel> model)
    : loop_(loop), name_(std::move(name)) {
    models_.push_back(std::move(model));
}

void ExportedDevice::imported(Importer *by) {
    importer_ = by;
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
    if (returnAfter)
        stayAway(*returnAfter);
    else
        present_ = false;
    if (importer_ != nullptr)
        importer_->deviceLeft();
}

void ExportedDevice::become(std::unique_ptr<DeviceModel> other,
                            std::chrono::milliseconds returnAfter) {
    models_.push_back(std::move(other));
    unplug(returnAfter);
}

} // namespace sim
