#include "exported_device.h"

#include <utility>

namespace sim {

// Lives as long as the simulator, so what it schedules always finds it.
ExportedDevice::ExportedDevice(EventLoop &eventLoop, usbip::ExportedAs exportedAs,
                               std::unique_ptr<DeviceModel> deviceModel)
    : loop(eventLoop), exported(std::move(exportedAs)) {
    lives.push_back(std::move(deviceModel));
}

void ExportedDevice::imported(Importer *by) {
    importer = by;
    model().plugged(*this);
}

void ExportedDevice::released() {
    importer = nullptr;
}

void ExportedDevice::stayAway(std::chrono::milliseconds time) {
    present = false;
    loop.after(time, [this]() {
        present = true;
        if (onReturn)
            onReturn();
    });
}

// Not from within the call that asks for it: the device is then in the middle of an answer.
void ExportedDevice::wake(std::chrono::milliseconds delay) {
    if (delay.count() == 0 && std::exchange(wakeScheduled, true))
        return;
    loop.after(delay, [this, delay]() {
        if (delay.count() == 0)
            wakeScheduled = false;
        if (importer != nullptr)
            importer->offerPending();
    });
}

void ExportedDevice::after(std::chrono::milliseconds delay, std::function<void()> action) {
    loop.after(delay, std::move(action));
}

void ExportedDevice::unplug(std::optional<std::chrono::milliseconds> returnAfter) {
    if (returnAfter)
        stayAway(*returnAfter);
    else
        present = false;
    if (importer != nullptr)
        importer->deviceLeft();
}

void ExportedDevice::become(std::unique_ptr<DeviceModel> other,
                            std::chrono::milliseconds returnAfter) {
    lives.push_back(std::move(other));
    unplug(returnAfter);
}

} // namespace sim
