#include <filesystem>
#include <system_error>

#include <fmt/format.h>

#include "device_checks.h"

namespace tool {

namespace {

constexpr const char *kPlugIn = "Plug it in again; 'sudo dmesg' tells what the kernel found wrong. "
                                "If it stays so, the device's firmware is at fault.";

bool isThere(const std::filesystem::path &place) {
    std::error_code error;
    return std::filesystem::exists(place, error);
}

} // namespace

// The library uses interface 0 of the configuration that the kernel has chosen.
Finding checkInterface(const UsbDevice &device) {
    const bool hasLeft = !isThere(device.directory);
    if (hasLeft || isThere(device.directory / device.interfaceName()))
        return {"interface", "has the one that is used"};
    if (device.attribute("authorized") == "0")
        return {"interface", "has none: the system was told not to use the device",
                fmt::format("echo 1 | sudo tee /sys/bus/usb/devices/{}/authorized", device.busPath),
                Exit::CannotOpen};
    if (device.attribute("bConfigurationValue").empty())
        return {
            "interface", "has none: the device is not configured",
            fmt::format("echo 1 | sudo tee /sys/bus/usb/devices/{}/bConfigurationValue; if that "
                        "fails, 'sudo dmesg' tells why (too little power at the port, or the "
                        "device refuses).",
                        device.busPath),
            Exit::CannotOpen};
    return {"interface", "has no interface 0, the one that is used", kPlugIn, Exit::CannotOpen};
}

} // namespace tool
