/* Prints the event bytes of endpoint 0x81, until the device leaves or a number has come. */
#include <semaphore.h>

#include "common.h"

static sem_t ended;
static uint64_t left;

/* On a thread of the library, one at a time. */
static void onEvent(_vexa_usb_device_event event, void *data) {
    (void)data;
    if (event <= 0xFF && left > 0) {
        printf("0x%02x\n", event);
        fflush(stdout);
        --left;
    }
    if (left == 0 || event == VEXA_USB_DEVICE_EVENT_REMOVED)
        sem_post(&ended);
}

int main(int argc, char **argv) {
    _vexa_usb_device *device;
    left = argc > 1 ? strtoull(argv[1], NULL, 10) : UINT64_MAX;
    sem_init(&ended, 0, 0);
    device = openFirst(onEvent, NULL);
    require(vexa_usb_event_pipe_enable(device, 0x81), "event pipe");
    while (sem_wait(&ended) != 0) /* interrupted */
        ;
    vexa_usb_close(device);
    vexa_usb_fini();
    return 0;
}
