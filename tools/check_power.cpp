#include <string>

#include <fmt/format.h>

#include "device_checks.h"

namespace tool {

Finding checkPower(const UsbDevice &device) {
    const std::string delay = device.attribute("power/autosuspend_delay_ms");
    if (device.attribute("power/control") != "auto" || delay.starts_with('-')) // negative: never
        return {"power", "stays powered"};
    return {"power",
            fmt::format("power management suspends it when it has not been used for {} ms", delay),
            fmt::format("echo on | sudo tee {}/power/control", device.directory.string()),
            Exit::Failed};
}

} // namespace tool
