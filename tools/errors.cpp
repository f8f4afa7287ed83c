#include "errors.h"

#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "vexa_usb.h"

namespace tool {

const char *const kExitHelp = "Exit status: 0 done, 1 failed, 2 wrong usage, 3 no such device, "
                              "4 device cannot be opened,\n"
                              "5 the device did not answer in time, 6 data lost or wrong.";

namespace {

const char *hintFor(int32_t status) {
    switch (status) {
    case VEXA_USB_STATUS_UNKNOWN:
        return "The device refused the request (a stall), or it has gone. 'vexa-usb info' shows "
               "the endpoints that it has, 'vexa-usb list' whether it is still there, '-vv' what "
               "the "
               "system says.";
    case VEXA_USB_STATUS_NOT_SUPPORTED:
        return "Devices below USB 1.1 have no data stream.";
    case VEXA_USB_STATUS_NO_MEMORY:
        return "Ask for fewer or smaller buffers.";
    case VEXA_USB_STATUS_INVALID_ENDPOINT_DIRECTION:
        return "Addresses of IN endpoints, which are read, have bit 0x80 set; those of OUT "
               "endpoints have not.";
    case VEXA_USB_STATUS_ENDPOINT_NOT_SUPPORTED:
        return "'vexa-usb info' shows the endpoints that the device has.";
    case VEXA_USB_STATUS_DEVICE_REMOVED:
        return "Plug it in again.";
    case VEXA_USB_STATUS_TIMEOUT:
        return "The device had nothing to say, or did not take the data, for a second.";
    case VEXA_USB_STATUS_NOT_ALL_DATA_TRANSFERRED:
        return "The device sent, or took, less than asked for: ask for the length that it has.";
    default:
        return "";
    }
}

} // namespace

Exit exitFor(int32_t status) {
    switch (status) {
    case VEXA_USB_STATUS_TIMEOUT:
        return Exit::Timeout;
    case VEXA_USB_STATUS_NOT_ALL_DATA_TRANSFERRED:
        return Exit::DataWrong;
    case VEXA_USB_STATUS_INVALID_ENDPOINT_DIRECTION:
    case VEXA_USB_STATUS_INVALID_PARAMETERS:
        return Exit::Usage;
    default:
        return Exit::Failed;
    }
}

void check(int32_t status, const std::string &action) {
    if (status != VEXA_USB_STATUS_SUCCESS)
        throw Error(exitFor(status),
                    fmt::format("{}: {} ({})", action, vexa_usb_get_status_str(status), status),
                    hintFor(status));
}

void throwSystemError(const std::string &action) {
    throw Error(Exit::Failed, fmt::format("{}: {}", action, std::strerror(errno)));
}

} // namespace tool
