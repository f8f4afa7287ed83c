#include "device/abstract_device.h"

#include <string>
#include <utility>

namespace vexausb {

namespace {

// Counts the devices that this process has constructed, and numbers their threads.
std::atomic<uint64_t> deviceSequence{0};

} // namespace

AbstractDevice::AbstractDevice(DeviceEventHandler handler)
    : eventQueue_(std::make_shared<DeviceEventQueue>(std::move(handler))),
      removal_(DeviceEventQueue::prepare(VEXA_USB_DEVICE_EVENT_REMOVED)) {
    eventQueue_->start("usb-device" + std::to_string(deviceSequence.fetch_add(1)));
}

AbstractDevice::~AbstractDevice() {
    eventQueue_->stop();
}

// The first event was prepared, and so needs no memory.
void AbstractDevice::setRemoved() {
    removed_.store(true, std::memory_order_release);
    if (removal_.empty())
        eventQueue_->post(VEXA_USB_DEVICE_EVENT_REMOVED);
    else
        eventQueue_->post(removal_);
}

void AbstractDevice::close() {
    eventQueue_->stop();
}

int32_t AbstractDevice::getKernelDriverVersion(_vexa_usb_version & /*version*/) {
    return VEXA_USB_STATUS_NOT_SUPPORTED;
}

} // namespace vexausb
