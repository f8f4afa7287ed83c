#include "bos_descriptor.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "usb_device.h"

namespace tool {

namespace {

constexpr uint8_t kIn = 0x80; // standard, of the device
constexpr uint8_t kGetDescriptor = 6;
constexpr uint16_t kBosDescriptor = 15 << 8;
constexpr uint8_t kCapabilityDescriptor = 16;
constexpr uint8_t kSuperSpeedCapability = 3;
constexpr unsigned kTimeoutMs = 500;

// Each descriptor begins with its length and type, and a capability's goes on with its kind.
bool hasSuperSpeed(std::span<const uint8_t> rest) {
    constexpr size_t kLeast = 3;
    while (rest.size() >= kLeast && rest[0] >= kLeast && rest[0] <= rest.size()) {
        if (rest[1] == kCapabilityDescriptor && rest[2] == kSuperSpeedCapability)
            return true;
        rest = rest.subspan(rest[0]);
    }
    return false;
}

} // namespace

// By the kernel and not by the library: it claims nothing, so it disturbs nobody.
bool tellsOfSuperSpeed(const UsbDevice &device) {
    const int descriptor = open(device.node.c_str(), O_RDWR | O_CLOEXEC);
    if (descriptor < 0)
        return false;
    std::array<uint8_t, 4096> bytes{}; // as much as the kernel allows
    usbdevfs_ctrltransfer request{kIn,          kGetDescriptor, kBosDescriptor, 0,
                                  bytes.size(), kTimeoutMs,     bytes.data()};
    const int length = ioctl(descriptor, USBDEVFS_CONTROL, &request);
    close(descriptor);
    return length > 0 && hasSuperSpeed(std::span(bytes).first(static_cast<size_t>(length)));
}

} // namespace tool
