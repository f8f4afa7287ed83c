#include <fmt/format.h>

#include "device_checks.h"

namespace tool {

namespace {

constexpr uint16_t kUsb3 = 0x0300;
constexpr double kSuperSpeed = 5000;

} // namespace

Finding checkSpeed(const UsbDevice &device) {
    const std::string runs = fmt::format("USB {:x}.{:02x} at {:g} Mbit/s", device.usbVersion >> 8,
                                         device.usbVersion & 0xFF, device.speed);
    if (device.usbVersion < kUsb3 || device.speed >= kSuperSpeed || device.speed == 0)
        return {"speed", runs};
    return {"speed", fmt::format("{}, where it could run at {:g}", runs, kSuperSpeed),
            "Plug it into a SuperSpeed port (blue, or marked SS), with a SuperSpeed cable and no "
            "slower hub between; 'lsusb -t' shows the ports.",
            Exit::Failed};
}

} // namespace tool
