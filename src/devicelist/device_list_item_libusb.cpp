#include "devicelist/device_list_item_libusb.h"

#include <exception>
#include <stdexcept>
#include <utility>

#include "core/lib_usb.h"
#include "core/log.h"
#include "core/status.h"
#include "device/device_libusb.h"
#include "devicelist/libusb_device_array.h"

namespace vexausb {

namespace {

const char *openAdvice(int result) {
    switch (result) {
    case LIBUSB_ERROR_ACCESS:
        return "no permission; install the udev rule 70-vexa-usb.rules, be in the group plugdev or "
               "at the machine's own seat, and plug the device in again";
    case LIBUSB_ERROR_NO_DEVICE:
        return "the device has left (open the one that comes back from a new list), or its file is "
               "missing (in a container: give it /dev/bus/usb)";
    default:
        return "'lsusb' shows whether the system still sees it; plug it in again";
    }
}

} // namespace

DeviceListItemLibUSB::DeviceListItemLibUSB(libusb_device *attached)
    : busNumber_(libusb_get_bus_number(attached)),
      deviceAddress_(libusb_get_device_address(attached)) {
    libusb_device_descriptor descriptor{};
    if (libusb_get_device_descriptor(attached, &descriptor) != LIBUSB_SUCCESS)
        throw std::runtime_error("libusb_get_device_descriptor() failed");
    setIdentifiers(descriptor.idVendor, descriptor.idProduct);
}

int32_t DeviceListItemLibUSB::open(std::shared_ptr<AbstractDevice> &opened,
                                   DeviceEventHandler handler) {
    const LibUSB::ContextUse use;
    if (!use || hasLeft()) {
        logFailedOpen(LIBUSB_ERROR_NO_DEVICE);
        return VEXA_USB_STATUS_UNKNOWN;
    }
    const LibusbDeviceArray attached(use.context());
    if (attached.error() != LIBUSB_SUCCESS) {
        logFailedOpen(attached.error());
        return statusFromLibusbError(attached.error());
    }
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

void DeviceListItemLibUSB::logChange(const char *whatHappened) const {
    if (logs(LogLevel::Info))
        logLine(LogLevel::Info, "%s: %s", name().text(), whatHappened);
}

void DeviceListItemLibUSB::logFailedOpen(int result) const {
    const DeviceName named = name();
    logLine(LogLevel::Error, "%s: /dev/bus/usb/%s cannot be opened: %s: %s", named.text(),
            named.node(), libusb_error_name(result), openAdvice(result));
}

} // namespace vexausb
