#include "core/device_name.h"

#include <cstdio>

namespace vexausb {

DeviceName::DeviceName(uint16_t vendor, uint16_t product, uint8_t bus, uint8_t address) {
    std::snprintf(name_.data(), name_.size(), "%04x:%04x at %03u/%03u", vendor, product,
                  static_cast<unsigned>(bus), static_cast<unsigned>(address));
}

} // namespace vexausb
