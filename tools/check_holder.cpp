#include <string>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "device_checks.h"
#include "node_users.h"

namespace tool {

namespace {

constexpr const char *kPrograms = "usbfs"; // the driver through which programs use a device

Finding heldByProgram(const UsbDevice &device) {
    const std::vector<std::string> users = otherUsersOf(device.node);
    if (users.empty())
        return {
            "use",
            fmt::format("busy, another program has {} in use, one of another user", device.node),
            fmt::format("sudo fuser -v {}   # names it", device.node), Exit::CannotOpen};
    const std::string first = users.front().substr(0, users.front().find(' '));
    return {"use",
            fmt::format("busy, another program has {} in use: process {}", device.node,
                        fmt::join(users, ", ")),
            "kill " + first, Exit::CannotOpen};
}

} // namespace

Finding checkHolder(const UsbDevice &device) {
    const std::string driver = device.driver();
    if (driver.empty())
        return {"use", "nobody else uses it"};
    if (driver == kPrograms)
        return heldByProgram(device);
    return {"use",
            fmt::format("the kernel's driver {} has {}, and loses it when it is opened", driver,
                        device.node),
            fmt::format("echo {} | sudo tee /sys/bus/usb/drivers/{}/unbind", device.interfaceName(),
                        driver),
            Exit::Failed};
}

} // namespace tool
