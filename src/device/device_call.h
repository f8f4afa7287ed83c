#pragma once

#include <cstdint>
#include <memory>

#include "core/call_checks.h"
#include "core/thread.h"
#include "device/abstract_device.h"

namespace vexausb {

/*
 * The checks of an exported function that works on an opened device, and then the call itself. Like
 * those of ChecksOf they are made in the order in which they are called.
 */
class DeviceCall final : public ChecksOf<DeviceCall> {
public:
    explicit DeviceCall(const _vexa_usb_device *handle) : handle_(handle) {}

    // Checks the handle, too.
    DeviceCall &parameters(bool valid = true) {
        return ChecksOf::parameters(handle_ != nullptr && valid);
    }
    DeviceCall &eventPipeSupported() {
        return state(&AbstractDevice::hasEventPipe, true, VEXA_USB_STATUS_NOT_SUPPORTED);
    }
    DeviceCall &eventPipeActive() {
        return state(&AbstractDevice::isEventPipeActive, true,
                     VEXA_USB_STATUS_EVENT_PIPE_NOT_ACTIVE);
    }
    DeviceCall &eventPipeIdle() {
        return state(&AbstractDevice::isEventPipeActive, false, VEXA_USB_STATUS_EVENT_PIPE_ACTIVE);
    }
    DeviceCall &dataStreamSupported() {
        return state(&AbstractDevice::hasDataStream, true, VEXA_USB_STATUS_NOT_SUPPORTED);
    }
    DeviceCall &dataStreamActive() {
        return state(&AbstractDevice::isDataStreamActive, true,
                     VEXA_USB_STATUS_STREAM_BUFFER_NOT_ACTIVE);
    }
    DeviceCall &dataStreamIdle() {
        return state(&AbstractDevice::isDataStreamActive, false,
                     VEXA_USB_STATUS_STREAM_BUFFER_ACTIVE);
    }
    DeviceCall &notRemoved() {
        return state(&AbstractDevice::isRemoved, false, VEXA_USB_STATUS_DEVICE_REMOVED);
    }

    // The device's answer, or the status of the first check that failed.  The device is held during
    // the call, because a callback that the call makes may close the handle.
    template <typename Call>
    int32_t then(Call call) {
        if (!passed())
            return status();
        const CancellationLater uncancelled;
        const std::shared_ptr<AbstractDevice> device = handle_->device;
        return call(*device);
    }

private:
    DeviceCall &state(bool (AbstractDevice::*query)() const, bool expected, int32_t statusIfNot) {
        if (passed())
            require((handle_->device.get()->*query)() == expected, statusIfNot);
        return *this;
    }

    const _vexa_usb_device *const handle_;
};

} // namespace vexausb
