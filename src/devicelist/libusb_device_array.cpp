#include "devicelist/libusb_device_array.h"

#include <cstddef>

#include <libusb.h>

namespace vexausb {

LibusbDeviceArray::LibusbDeviceArray(libusb_context *context)
    : count_(libusb_get_device_list(context, &list_)) {}

LibusbDeviceArray::~LibusbDeviceArray() {
    if (count_ >= 0)
        libusb_free_device_list(list_, 1);
}

int LibusbDeviceArray::error() const {
    return count_ < 0 ? static_cast<int>(count_) : LIBUSB_SUCCESS;
}

std::span<libusb_device *const> LibusbDeviceArray::devices() const {
    return {list_, count_ < 0 ? 0 : static_cast<size_t>(count_)};
}

} // namespace vexausb
