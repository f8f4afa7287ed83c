#pragma once

#include <cstdint>
#include <memory>

#include "core/global_state.h"
#include "vexa_usb.h"

namespace vexausb {

inline constexpr uint8_t kEndpointIn = 0x80;

/*
 * The checks with which an exported function begins, in the order in which they are written; the
 * first that fails decides the status and the later ones are skipped.  `Self` is the class that
 * derives from this and may add checks of its own.
 */
template <typename Self>
class ChecksOf {
public:
    Self &initialized() { return require(initCount.load() != 0, VEXA_USB_STATUS_NOT_INITIALIZED); }
    Self &parameters(bool good) { return require(good, VEXA_USB_STATUS_INVALID_PARAMETERS); }
    // While another thread's first init or last fini is at work there is no list, although the
    // counter says "initialised".
    Self &deviceList(std::shared_ptr<DeviceList> &list) {
        if (passed())
            list = currentDeviceList();
        return require(list != nullptr, VEXA_USB_STATUS_NOT_INITIALIZED);
    }
    // The list is there already while the first init goes on to libusb.
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
    Self &require(bool good, int32_t statusIfNot) {
        if (passed() && !good)
            failure_ = statusIfNot;
        return static_cast<Self &>(*this);
    }

private:
    int32_t failure_ = VEXA_USB_STATUS_SUCCESS;
};

class CallChecks final : public ChecksOf<CallChecks> {};

} // namespace vexausb
