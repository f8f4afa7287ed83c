/* Prints each byte that the device sends on its event endpoint, until it has sent a zero. */
#include <semaphore.h>

#include "first_device.h"

/* Runs on the device's own thread, one event at a time, in the order of the bytes. */
static void onEvent(_vexa_usb_device_event event, void *data) {
    if (event <= 0xFF)
        printf("event %" PRIu32 "\n", event);
    if (event == 0 || event == VEXA_USB_DEVICE_EVENT_REMOVED)
        sem_post(data);
}

int main(void) {
    static sem_t ended; /* outlives the last callback */
    uint8_t bytes[] = {16, 255, 0};
    _vexa_usb_device *device;
    sem_init(&ended, 0, 0);
    vexa_usb_init();
    device = openFirst(onEvent, &ended);
    require(vexa_usb_event_pipe_enable(device, 0x81), "enable");
    /* Asks the simulated instrument to send these three. */
    require(vexa_usb_control_transfer(device, VEXA_USB_DIRECTION_OUT, VEXA_USB_TYPE_VENDOR,
                                      VEXA_USB_RECIPIENT_DEVICE, 3, 0, 0, bytes, sizeof(bytes)),
            "request");
    sem_wait(&ended);
    vexa_usb_close(device);
    vexa_usb_fini();
    return 0;
}
