#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "device_list.h"
#include "usb_device.h"
#include "vexa_usb.h"

namespace tool {

// The direction in the address of an endpoint.
inline constexpr uint8_t kEndpointIn = 0x80;

// Keeps the library initialised while it lives.
class Library {
public:
    Library() { vexa_usb_init(); }
    ~Library() { vexa_usb_fini(); }
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;
};

// An opened device. `onEvent` runs on a thread of the library and may be called once more during or
// after the destruction of this object, so it must own everything that it uses.
class Device {
public:
    using EventHandler = std::function<void(_vexa_usb_device_event)>;

    explicit Device(const DeviceChoice &choice, EventHandler onEvent = nullptr);
    ~Device() { vexa_usb_close(handle_); }
    Device(const Device &) = delete;
    Device &operator=(const Device &) = delete;

    _vexa_usb_device *get() const { return handle_; }
    uint64_t id() const { return id_; }
    // Empty when the device is not found in /sys.
    const std::optional<UsbDevice> &attached() const { return attached_; }

private:
    int32_t open(const _vexa_usb_device_list_item &item, EventHandler *onEvent);
    void openEqual(const DeviceList &list, const ListedDevice &wanted, EventHandler *onEvent);

    _vexa_usb_device *handle_ = nullptr;
    uint64_t id_ = 0;
    std::optional<UsbDevice> attached_;
};

} // namespace tool
