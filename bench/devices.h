#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>

#include <libusb.h>

#include "vexa_usb.h"

namespace bench {

inline void require(bool condition, const char *what) {
    if (!condition)
        throw std::runtime_error(what);
}

// The first instrument, opened with libusb alone.
class BareDevice {
public:
    BareDevice() {
        require(libusb_init(&context) == 0, "libusb_init");
        libusb_device **list = nullptr;
        const ssize_t count = libusb_get_device_list(context, &list);
        for (ssize_t i = 0; i < count && handle == nullptr; ++i) {
            libusb_device_descriptor descriptor{};
            libusb_get_device_descriptor(list[i], &descriptor);
            if (descriptor.idVendor == VEXA_USB_VENDOR_ID)
                libusb_open(list[i], &handle);
        }
        libusb_free_device_list(list, 1);
        require(handle != nullptr && libusb_claim_interface(handle, 0) == 0, "no instrument");
    }
    ~BareDevice() {
        libusb_close(handle);
        libusb_exit(context);
    }
    BareDevice(const BareDevice &) = delete;
    BareDevice &operator=(const BareDevice &) = delete;

    libusb_context *context = nullptr;
    libusb_device_handle *handle = nullptr;
};

// Initialises the library and opens the first instrument with it.
inline _vexa_usb_device *openFirst(vexa_usb_device_event_callback callback, void *data) {
    vexa_usb_init();
    vexa_usb_update_device_list();
    _vexa_usb_device_list_item **list = nullptr;
    vexa_usb_get_device_list(&list, nullptr);
    _vexa_usb_device *device = nullptr;
    require(list != nullptr && list[0] != nullptr &&
                vexa_usb_open(list[0], callback, data, &device) == 0,
            "no instrument");
    vexa_usb_free_device_list(list);
    return device;
}

// Initialises the library and opens a device of that product with it; null when none can be opened.
inline _vexa_usb_device *openProduct(uint16_t product, vexa_usb_device_event_callback callback,
                                     void *data) {
    vexa_usb_init();
    vexa_usb_update_device_list();
    _vexa_usb_device_list_item **list = nullptr;
    vexa_usb_get_device_list(&list, nullptr);
    _vexa_usb_device *device = nullptr;
    for (size_t i = 0; list != nullptr && list[i] != nullptr && device == nullptr; ++i) {
        if (list[i]->product_id == product)
            vexa_usb_open(list[i], callback, data, &device);
    }
    vexa_usb_free_device_list(list);
    return device;
}

} // namespace bench
