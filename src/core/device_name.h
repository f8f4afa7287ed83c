#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vexausb {

// A device's name in the log: "5658:0001 at 001/004", where 001/004 is its node in /dev/bus/usb.
class DeviceName {
public:
    DeviceName(uint16_t vendor, uint16_t product, uint8_t bus, uint8_t address);

    const char *text() const { return name_.data(); }
    // The last part of the text: bus and address, as the device node is named.
    const char *node() const { return name_.data() + kNodeOffset; }

private:
    static constexpr size_t kNodeOffset = 13;

    std::array<char, 21> name_{};
};

} // namespace vexausb
