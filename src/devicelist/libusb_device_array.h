#pragma once

#include <span>

#include <sys/types.h>

struct libusb_context;
struct libusb_device;

namespace vexausb {

// The devices that libusb sees at the moment; references to them are held as long as this lives.
class LibusbDeviceArray {
public:
    explicit LibusbDeviceArray(libusb_context *context);
    ~LibusbDeviceArray();
    LibusbDeviceArray(const LibusbDeviceArray &) = delete;
    LibusbDeviceArray &operator=(const LibusbDeviceArray &) = delete;

    // A libusb error code when the devices could not be listed, else 0.
    int error() const;
    std::span<libusb_device *const> devices() const;

private:
    libusb_device **list_ = nullptr;
    const ssize_t count_;
};

} // namespace vexausb
