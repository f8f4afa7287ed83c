#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vexausb {

inline constexpr int32_t kAnyProduct = -1;
inline constexpr size_t kSupportedDeviceCount = 4;

struct SupportedDevice {
    int32_t vendor;
    int32_t product; // kAnyProduct matches every product of the vendor
};

extern const std::array<SupportedDevice, kSupportedDeviceCount> supportedDevices;

bool isSupportedDevice(uint16_t vendor, uint16_t product);

} // namespace vexausb
