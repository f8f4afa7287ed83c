/* Writes to bulk endpoint 0x03 and reads the same from 0x83, where the simulated instrument loops
 * it back; then clears the halt of an endpoint that has stalled. */
#include <string.h>

#include "common.h"

enum { kOut = 0x03, kIn = 0x83, kClearFeature = 1, kEndpointHalt = 0 };

static uint8_t sent[100000], received[sizeof(sent)];

int main(void) {
    _vexa_usb_device *device = openFirst(ignoreEvent, NULL);
    int32_t status;
    for (size_t i = 0; i < sizeof(sent); ++i)
        sent[i] = (uint8_t)(i % 251);
    require(vexa_usb_bulk_write(device, kOut, sent, sizeof(sent)), "write");
    require(vexa_usb_bulk_read(device, kIn, received, sizeof(received)), "read");
    printf("%zu bytes went and came\n", sizeof(sent));
    status = vexa_usb_bulk_read(device, kIn, received, 1); /* nothing is left to be read */
    printf("one more: %s\n", vexa_usb_get_status_str(status));
    require(vexa_usb_control_transfer(device, VEXA_USB_DIRECTION_OUT, VEXA_USB_TYPE_STANDARD,
                                      VEXA_USB_RECIPIENT_ENDPOINT, kClearFeature, kEndpointHalt,
                                      kIn, NULL, 0),
            "clear halt");
    vexa_usb_close(device);
    vexa_usb_fini();
    return status != VEXA_USB_STATUS_TIMEOUT || memcmp(sent, received, sizeof(sent)) != 0;
}
