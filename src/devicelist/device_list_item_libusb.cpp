#include "devicelist/device_list_item_libusb.h"

#include <exception>
#include <stdexcept>
#include <utility>

#include "core/global_state.h"
#include "core/lib_usb.h"
#include "core/log.h"
#include "core/status.h"
#include "device/device_libusb.h"
#include "devicelist/libusb_device_array.h"

namespace vexausb {

DeviceListItemLibUSB::DeviceListItemLibUSB(libusb_device *attached)
    : busNumber_(libusb_get_bus_number(attached)),
      deviceAddress_(libusb_get_device_address(attached)) {
    libusb_device_descriptor descriptor{};
    if (libusb_get_device_descriptor(attached, &descriptor) != LIBUSB_SUCCESS)
        throw std::runtime_error("libusb_get_device_descriptor() failed");
    vendorId = descriptor.idVendor;
    productId = descriptor.idProduct;
}

int32_t DeviceListItemLibUSB::open(std::shared_ptr<AbstractDevice> &opened,
                                   DeviceEventHandler handler) {
    const UseGate::Use use = LibUSB::useContext();
    if (!use || hasLeft())
        return VEXA_USB_STATUS_UNKNOWN;
    const LibusbDeviceArray attached(libusbContext);
    if (attached.error() != LIBUSB_SUCCESS)
        return statusFromLibusbError(attached.error());
    for (libusb_device *candidate : attached.devices()) {
        if (isAt(libusb_get_bus_number(candidate), libusb_get_device_address(candidate)))
            return openDevice(candidate, opened, std::move(handler));
    }
    logFailedOpen(LIBUSB_ERROR_NO_DEVICE);
    return VEXA_USB_STATUS_UNKNOWN;
}

int32_t DeviceListItemLibUSB::openDevice(libusb_device *found,
                                         std::shared_ptr<AbstractDevice> &opened,
                                         DeviceEventHandler handler) {
    libusb_device_handle *handle = nullptr;
    const int result = libusb_open(found, &handle);
    if (result != LIBUSB_SUCCESS) {
        logFailedOpen(result);
        return statusFromLibusbError(result);
    }
    try {
        opened = std::make_shared<DeviceLibUSB>(handle, std::move(handler), name());
    } catch (const std::exception &error) {
        libusb_close(handle);
        logLine(LogLevel::Error, "%s: cannot be opened: %s", name().text(), error.what());
        return VEXA_USB_STATUS_UNKNOWN;
    }
    setDevice(opened);
    return VEXA_USB_STATUS_SUCCESS;
}

void DeviceListItemLibUSB::logChange(const char *what) const {
    logLine(LogLevel::Info, "%s: %s", name().text(), what);
}

void DeviceListItemLibUSB::logFailedOpen(int result) const {
    const DeviceName named = name();
    if (result == LIBUSB_ERROR_ACCESS)
        logLine(LogLevel::Error,
                "%s: cannot be opened: %s: no permission for /dev/bus/usb/%s; install the udev "
                "rule 70-vexa-usb.rules and plug the device in again",
                named.text(), libusb_error_name(result), named.node());
    else
        logLine(LogLevel::Error, "%s: cannot be opened: %s", named.text(),
                libusb_error_name(result));
}

} // namespace vexausb
