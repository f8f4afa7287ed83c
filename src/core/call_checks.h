#pragma once

#include <cstdint>
#include <memory>

#include "core/global_state.h"
#include "vexa_usb.h"

namespace vexausb {

inline constexpr uint8_t kEndpointIn = 0x80;

/*
 * The checks at the beginning of an exported function, made in the order in which they are called.
 * The first that fails decides the status; those after it are skipped.  `Self` is the derived
 * class, which may add checks of its own.
 */
template <typename Self>
class ChecksOf {
public:
    Self &initialized() { return require(initCount.load() != 0, VEXA_USB_STATUS_NOT_INITIALIZED); }
    Self &parameters(bool valid) { return require(valid, VEXA_USB_STATUS_INVALID_PARAMETERS); }
    // Passes the list on.  While another thread is in the first init or the last fini there may be
    // none, although initCount is not 0.
    Self &deviceList(std::shared_ptr<DeviceList> &list) {
        if (passed())
            list = currentDeviceList();
        return require(list != nullptr, VEXA_USB_STATUS_NOT_INITIALIZED);
    }
    // Fails until the first init has finished: it makes the list before it initialises libusb.
    Self &started() { return require(libraryStarted.load(), VEXA_USB_STATUS_NOT_INITIALIZED); }
    Self &inEndpoint(uint8_t endpoint) {
        return require((endpoint & kEndpointIn) != 0, VEXA_USB_STATUS_INVALID_ENDPOINT_DIRECTION);
    }
    Self &outEndpoint(uint8_t endpoint) {
        return require((endpoint & kEndpointIn) == 0, VEXA_USB_STATUS_INVALID_ENDPOINT_DIRECTION);
    }

    bool passed() const { return failure_ == VEXA_USB_STATUS_SUCCESS; }
    int32_t status() const { return failure_; }

protected:
    Self &require(bool condition, int32_t statusIfNot) {
        if (passed() && !condition)
            failure_ = statusIfNot;
        return static_cast<Self &>(*this);
    }

private:
    int32_t failure_ = VEXA_USB_STATUS_SUCCESS;
};

class CallChecks final : public ChecksOf<CallChecks> {};

} // namespace vexausb
