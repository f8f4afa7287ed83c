#include <string>

#include <fmt/format.h>

#include "device_checks.h"

namespace tool {

Finding checkPower(const UsbDevice &device) {
    if (device.attribute("power/control") != "auto")
        return {"power", "stays powered"};
    const std::string delay = device.attribute("power/autosuspend_delay_ms");
    return {"power",
            fmt::format("power management suspends it when it has not been used for {} ms", delay),
            fmt::format("echo on | sudo tee {}/power/control", device.directory.string()),
            Exit::Failed};
}

} // namespace tool
