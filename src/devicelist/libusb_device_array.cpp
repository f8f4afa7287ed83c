#include "devicelist/libusb_device_array.h"

#include <cstddef>

#include <libusb.h>

namespace vexausb {

LibusbDeviceArray::LibusbDeviceArray(libusb_context *context)
    : count(libusb_get_device_list(context, &list)) {}

LibusbDeviceArray::~LibusbDeviceArray() {
    if (count >= 0)
        libusb_free_device_list(list, 1);
}

int LibusbDeviceArray::error() const {
    return count < 0 ? static_cast<int>(count) : LIBUSB_SUCCESS;
}

std::span<libusb_device *const> LibusbDeviceArray::devices() const {
    return {list, count < 0 ? 0 : static_cast<size_t>(count)};
}

} // namespace vexausb
