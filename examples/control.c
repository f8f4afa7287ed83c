/* Writes and reads by control transfers: the simulated instrument keeps what request 1 gives it. */
#include <string.h>

#include "common.h"

enum { kRequest = 1 };

int main(void) {
    _vexa_usb_device *device = openFirst(ignoreEvent, NULL);
    uint8_t sent[] = "Hello, instrument";
    uint8_t received[sizeof(sent)];
    _vexa_usb_device_descriptor descriptor;
    require(vexa_usb_get_device_descriptor(device, &descriptor, sizeof(descriptor)), "descriptor");
    printf("%04x:%04x, release %x\n", descriptor.idVendor, descriptor.idProduct,
           descriptor.bcdDevice);
    require(vexa_usb_control_transfer(device, VEXA_USB_DIRECTION_OUT, VEXA_USB_TYPE_VENDOR,
                                      VEXA_USB_RECIPIENT_DEVICE, kRequest, 0, 0, sent,
                                      sizeof(sent)),
            "write");
    require(vexa_usb_control_transfer(device, VEXA_USB_DIRECTION_IN, VEXA_USB_TYPE_VENDOR,
                                      VEXA_USB_RECIPIENT_DEVICE, kRequest, 0, 0, received,
                                      sizeof(received)),
            "read");
    printf("%s\n", (const char *)received);
    vexa_usb_close(device);
    vexa_usb_fini();
    return memcmp(sent, received, sizeof(sent)) != 0;
}
