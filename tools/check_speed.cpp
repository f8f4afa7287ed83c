#include <fmt/format.h>

#include "bos_descriptor.h"
#include "device_checks.h"

namespace tool {

namespace {

constexpr uint16_t kUsb2 = 0x0200;
constexpr uint16_t kUsb3 = 0x0300;
constexpr double kSuperSpeed = 5000;

// A SuperSpeed device says USB 2.1 while it runs slower; other devices say so, too.
bool canRunFaster(const UsbDevice &device) {
    if (device.speed >= kSuperSpeed || device.speed == 0 || device.usbVersion <= kUsb2)
        return false;
    return device.usbVersion >= kUsb3 || tellsOfSuperSpeed(device);
}

} // namespace

Finding checkSpeed(const UsbDevice &device) {
    const std::string runs = fmt::format("USB {:x}.{:02x} at {:g} Mbit/s", device.usbVersion >> 8,
                                         device.usbVersion & 0xFF, device.speed);
    if (!canRunFaster(device))
        return {"speed", runs};
    return {"speed", fmt::format("{}, where it could run at {:g}", runs, kSuperSpeed),
            "Plug it into a SuperSpeed port (blue, or marked SS), with a SuperSpeed cable and no "
            "slower hub between; 'lsusb -t' shows the ports.",
            Exit::Failed};
}

} // namespace tool
