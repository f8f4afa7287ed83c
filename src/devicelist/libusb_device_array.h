#pragma once

#include <span>

#include <sys/types.h>

struct libusb_context;
struct libusb_device;

namespace vexausb {

// The devices that libusb sees at the moment of construction, with a reference to each.  On the
// stack of one thread, inside a LibUSB::ContextUse.
class LibusbDeviceArray {
public:
    explicit LibusbDeviceArray(libusb_context *context);
    ~LibusbDeviceArray();
    LibusbDeviceArray(const LibusbDeviceArray &) = delete;
    LibusbDeviceArray &operator=(const LibusbDeviceArray &) = delete;

    // 0, or a libusb error code when the devices could not be listed.
    int error() const;
    // Empty after an error.
    std::span<libusb_device *const> devices() const;

private:
    libusb_device **list_ = nullptr;
    const ssize_t count_;
};

} // namespace vexausb
