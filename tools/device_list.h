#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "usb_device.h"
#include "vexa_usb.h"

namespace tool {

// Which device the user wants. An empty field matches every device.
struct DeviceChoice {
    std::string device; // its id, or VENDOR:PRODUCT in hexadecimal
    std::string serial;
    std::string busPath;
};

struct ListedDevice {
    const _vexa_usb_device_list_item *item;
    std::optional<UsbDevice> attached; // empty: not found in /sys
};

// A snapshot of the library's updated device list, with what /sys says about each device.
class DeviceList {
public:
    DeviceList();
    ~DeviceList() { vexa_usb_free_device_list(list_); }
    DeviceList(const DeviceList &) = delete;
    DeviceList &operator=(const DeviceList &) = delete;

    const std::vector<ListedDevice> &devices() const { return devices_; }

    // Throws when the choice is not a name, or when no device or several match.
    const ListedDevice &choose(const DeviceChoice &choice) const;

private:
    _vexa_usb_device_list_item **list_ = nullptr;
    std::vector<ListedDevice> devices_;
};

// "5658:0001", and what kind of device that is.
std::string identifierText(uint16_t vendor, uint16_t product);
const char *kindText(uint16_t vendor, uint16_t product);

} // namespace tool
