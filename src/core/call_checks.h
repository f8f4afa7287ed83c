#pragma once

#include <cstdint>

#include "core/global_state.h"
#include "vexa_usb.h"

namespace vexausb {

inline constexpr uint8_t kEndpointIn = 0x80;

/*
 * The checks with which an exported function begins, in the order in which they are written; the
 * first that fails decides the status and the later ones are skipped.
 */
class CallChecks {
public:
    CallChecks &initialized() {
        return require(initCount.load() != 0, VEXA_USB_STATUS_NOT_INITIALIZED);
    }
    CallChecks &parameters(bool good) { return require(good, VEXA_USB_STATUS_INVALID_PARAMETERS); }
    CallChecks &inEndpoint(uint8_t endpoint) {
        return require((endpoint & kEndpointIn) != 0, VEXA_USB_STATUS_INVALID_ENDPOINT_DIRECTION);
    }
    CallChecks &outEndpoint(uint8_t endpoint) {
        return require((endpoint & kEndpointIn) == 0, VEXA_USB_STATUS_INVALID_ENDPOINT_DIRECTION);
    }

    bool passed() const { return failure == VEXA_USB_STATUS_SUCCESS; }
    int32_t status() const { return failure; }

protected:
    CallChecks &require(bool good, int32_t statusIfNot) {
        if (passed() && !good)
            failure = statusIfNot;
        return *this;
    }

private:
    int32_t failure = VEXA_USB_STATUS_SUCCESS;
};

} // namespace vexausb
