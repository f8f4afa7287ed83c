#include "core/status.h"

#include <array>
#include <cstddef>

#include <libusb.h>

#include "vexa_usb.h"

namespace vexausb {

namespace {

constexpr int32_t kLowestStatus = VEXA_USB_STATUS_NOT_ALL_DATA_TRANSFERRED;
constexpr int32_t kHighestStatus = VEXA_USB_STATUS_DATA_STREAM_BUFFER_EMPTY;

constexpr std::array<const char *, kHighestStatus - kLowestStatus + 1> kStatusTexts{
    "Not all data has been transferred",
    "Operation timed out",
    "Device removed error",
    "Invalid endpoint direction error",
    "Endpoint not supported error",
    "Stream buffer not active error",
    "Stream buffer active error",
    "Event pipe active error",
    "Event pipe not active error",
    "Invalid parameters error",
    "No memory error",
    "Library not initialized error",
    "Not supported error",
    "Unknown error",
    "Success",
    "Data stream buffer empty",
};

} // namespace

const char *statusText(int32_t status) {
    if (status < kLowestStatus || status > kHighestStatus)
        return "";
    return kStatusTexts[static_cast<size_t>(status - kLowestStatus)];
}

// A device that leaves the bus during a transfer is an unknown error, too.  The status "removed"
// means that the device list has seen the departure.
int32_t statusFromLibusbError(int libusbResult) {
    switch (libusbResult) {
    case LIBUSB_SUCCESS:
        return VEXA_USB_STATUS_SUCCESS;
    case LIBUSB_ERROR_TIMEOUT:
        return VEXA_USB_STATUS_TIMEOUT;
    default:
        return VEXA_USB_STATUS_UNKNOWN;
    }
}

} // namespace vexausb
