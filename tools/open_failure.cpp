#include "open_failure.h"

#include <string>

#include <fmt/format.h>

#include "device_checks.h"
#include "vexa_usb.h"

namespace tool {

Error openFailure(const ListedDevice &device, int32_t status) {
    Finding reason{"", fmt::format("{} ({})", vexa_usb_get_status_str(status), status),
                   "Nothing stands in the way now: try again; --verbose tells the system's reason.",
                   Exit::CannotOpen};
    for (const auto &look : {checkPermission, checkInterface, checkHolder}) {
        const Finding found = device.attached ? look(*device.attached) : Finding{};
        if (found.isFine())
            continue;
        reason = found;
        break;
    }
    return {Exit::CannotOpen,
            fmt::format("cannot open device {}: {}",
                        identifierText(device.item->vendor_id, device.item->product_id),
                        reason.text),
            reason.remedy};
}

} // namespace tool
