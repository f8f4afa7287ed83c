#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "vexa_usb.h"

namespace tool {

// The library, for as long as this lives.
class Library {
public:
    Library() { vexa_usb_init(); }
    ~Library() { vexa_usb_fini(); }
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;
};

// A snapshot of the device list, brought up to date.
class DeviceList {
public:
    DeviceList();
    ~DeviceList() { vexa_usb_free_device_list(list_); }
    DeviceList(const DeviceList &) = delete;
    DeviceList &operator=(const DeviceList &) = delete;

    const std::vector<const _vexa_usb_device_list_item *> &items() const { return items_; }

    // The device that `choice` names: its id, VENDOR:PRODUCT in hexadecimal, or nothing when
    // there is only one.  Throws when that is not a name, or when no device or several match.
    const _vexa_usb_device_list_item &choose(const std::string &choice) const;

private:
    _vexa_usb_device_list_item **list_ = nullptr;
    std::vector<const _vexa_usb_device_list_item *> items_;
};

// An opened device.  `onEvent` runs on a thread of the library, perhaps a last time while or after
// this is destroyed: what it needs, it must own.
class Device {
public:
    using EventHandler = std::function<void(_vexa_usb_device_event)>;

    explicit Device(const std::string &choice, EventHandler onEvent = nullptr);
    ~Device() { vexa_usb_close(handle_); }
    Device(const Device &) = delete;
    Device &operator=(const Device &) = delete;

    _vexa_usb_device *get() const { return handle_; }
    uint64_t id() const { return id_; }

private:
    _vexa_usb_device *handle_ = nullptr;
    uint64_t id_ = 0;
};

// "5658:0001", and what kind of device that is.
std::string identifierText(uint16_t vendor, uint16_t product);
const char *kindText(uint16_t vendor, uint16_t product);

} // namespace tool
