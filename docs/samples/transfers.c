/* Control and bulk transfers with the simulated instrument, and how to clear a halt. */
#include <string.h>

#include "first_device.h"

enum { kKeep = 1, kHalt = 4 }; /* the simulated instrument's requests */

static int32_t vendorRequest(_vexa_usb_device *device, int32_t direction, uint8_t request,
                             uint16_t value, uint16_t index, void *data, uint64_t length) {
    return vexa_usb_control_transfer(device, direction, VEXA_USB_TYPE_VENDOR,
                                     VEXA_USB_RECIPIENT_DEVICE, request, value, index, data,
                                     length);
}

/* CLEAR_FEATURE(ENDPOINT_HALT), which every device understands. */
static int32_t clearHalt(_vexa_usb_device *device, uint8_t endpoint) {
    return vexa_usb_control_transfer(device, VEXA_USB_DIRECTION_OUT, VEXA_USB_TYPE_STANDARD,
                                     VEXA_USB_RECIPIENT_ENDPOINT, 1, 0, endpoint, NULL, 0);
}

int main(void) {
    uint8_t sent[] = "hello", received[sizeof(sent)] = {0};
    _vexa_usb_device *device;
    int32_t status;
    vexa_usb_init();
    device = openFirst(ignoreEvents, NULL);
    require(vendorRequest(device, VEXA_USB_DIRECTION_OUT, kKeep, 0, 0, sent, sizeof(sent)),
            "control write");
    require(vendorRequest(device, VEXA_USB_DIRECTION_IN, kKeep, 0, 0, received, sizeof(received)),
            "control read");
    require(vexa_usb_bulk_write(device, 0x03, received, sizeof(received)), "bulk write");

    /* A halted endpoint answers -1 until the halt is cleared. */
    require(vendorRequest(device, VEXA_USB_DIRECTION_OUT, kHalt, 1, 0x83, NULL, 0), "halt");
    status = vexa_usb_bulk_read(device, 0x83, received, sizeof(received));
    printf("halted: %s\n", vexa_usb_get_status_str(status));
    require(clearHalt(device, 0x83), "clear");
    require(vexa_usb_bulk_read(device, 0x83, received, sizeof(received)), "bulk read");
    printf("cleared: %s\n", (const char *)received);
    vexa_usb_close(device);
    vexa_usb_fini();
    return memcmp(sent, received, sizeof(sent)) != 0;
}
