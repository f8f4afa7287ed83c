#include "firmware/requests.h"

namespace vexausb {

namespace {

constexpr uint8_t kMemoryRequest = 0xA0;

// Drops `const`: in this direction the data are only read.
int32_t write(AbstractDevice &device, int32_t type, int32_t recipient, uint8_t request,
              uint16_t value, uint16_t index, const uint8_t *data, uint64_t length) {
    return device.controlTransfer(VEXA_USB_DIRECTION_OUT, type, recipient, request, value, index,
                                  const_cast<uint8_t *>(data), length, nullptr);
}

} // namespace

int32_t vendorWrite(AbstractDevice &device, uint8_t request, uint16_t value, uint16_t index,
                    const uint8_t *data, uint64_t length) {
    return write(device, VEXA_USB_TYPE_VENDOR, VEXA_USB_RECIPIENT_DEVICE, request, value, index,
                 data, length);
}

int32_t classWrite(AbstractDevice &device, uint8_t request, uint16_t value, const uint8_t *data,
                   uint64_t length) {
    return write(device, VEXA_USB_TYPE_CLASS, VEXA_USB_RECIPIENT_INTERFACE, request, value, 0, data,
                 length);
}

int32_t classRead(AbstractDevice &device, uint8_t request, uint8_t *data, uint64_t length) {
    return device.controlTransfer(VEXA_USB_DIRECTION_IN, VEXA_USB_TYPE_CLASS,
                                  VEXA_USB_RECIPIENT_INTERFACE, request, 0, 0, data, length,
                                  nullptr);
}

int32_t memoryWrite(AbstractDevice &device, uint32_t address, const uint8_t *data,
                    uint64_t length) {
    return vendorWrite(device, kMemoryRequest, static_cast<uint16_t>(address),
                       static_cast<uint16_t>(address >> 16), data, length);
}

} // namespace vexausb
