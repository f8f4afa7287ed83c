#pragma once

#include <cstdint>

#include "core/call_checks.h"
#include "device/abstract_device.h"

namespace vexausb {

/*
 * The checks of an exported function that works on an opened device: those of CallChecks, then
 * the device's own, in the order in which they are written, then the call itself.
 */
class DeviceCall : public CallChecks {
public:
    explicit DeviceCall(const _vexa_usb_device *caller) : handle(caller) {}

    DeviceCall &initialized() {
        CallChecks::initialized();
        return *this;
    }
    // The handle, and whatever else the function requires.
    DeviceCall &parameters(bool good = true) {
        CallChecks::parameters(handle != nullptr && good);
        return *this;
    }
    DeviceCall &inEndpoint(uint8_t endpoint) {
        CallChecks::inEndpoint(endpoint);
        return *this;
    }
    DeviceCall &outEndpoint(uint8_t endpoint) {
        CallChecks::outEndpoint(endpoint);
        return *this;
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

    // The device's answer, or the status of the first check that failed.
    template <typename Call>
    int32_t then(Call call) {
        return passed() ? call(*handle->device) : status();
    }

private:
    DeviceCall &state(bool (AbstractDevice::*query)() const, bool wanted, int32_t statusIfNot) {
        if (passed())
            require((handle->device.get()->*query)() == wanted, statusIfNot);
        return *this;
    }

    const _vexa_usb_device *const handle;
};

} // namespace vexausb
