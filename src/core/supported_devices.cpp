#include "core/supported_devices.h"

#include <algorithm>

namespace vexausb {

bool isSupportedDevice(uint16_t vendor, uint16_t product) {
    return std::any_of(supportedDevices.begin(), supportedDevices.end(),
                       [&](const SupportedDevice &device) {
                           return device.vendor == vendor &&
                                  (device.product == kAnyProduct || device.product == product);
                       });
}

} // namespace vexausb
