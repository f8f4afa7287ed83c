/* Downloads a file to a device in DFU mode, and waits for the instrument that it becomes.
 * Usage: boot FILE */
#define _POSIX_C_SOURCE 200809L
#include <semaphore.h>
#include <time.h>

#include "first_device.h"

/* What is added before the device has left is the device itself. */
static void onChange(uint32_t type, const _vexa_usb_device_list_item *item, void *data) {
    static int hasLeft;
    if (type == VEXA_USB_DEVICE_LIST_EVENT_REMOVED) {
        hasLeft = 1;
    } else if (hasLeft) {
        printf("now %04x:%04x\n", item->vendor_id, item->product_id);
        sem_post(data);
    }
}

static void onProgress(void *data, double progress) {
    (void)data;
    fprintf(stderr, "\r%3.0f %%%s", progress * 100, progress < 1 ? "" : "\n");
}

int main(int argc, char **argv) {
    static sem_t came; /* outlives the last callback */
    static uint8_t image[1 << 20];
    FILE *file = argc == 2 ? fopen(argv[1], "rb") : NULL;
    size_t size = file != NULL ? fread(image, 1, sizeof(image), file) : 0;
    struct timespec patience;
    _vexa_usb_device *device;
    uint32_t registration;
    int back;
    if (file == NULL || !feof(file)) {
        fprintf(stderr, "usage: boot FILE (readable, and less than %zu bytes)\n", sizeof(image));
        return 2;
    }
    sem_init(&came, 0, 0);
    vexa_usb_init();
    device = openFirst(ignoreEvents, NULL);
    require(vexa_usb_register_device_list_event_callback(onChange, &came, &registration),
            "register");
    require(vexa_usb_dfu_download(device, image, size, onProgress, NULL), "download");
    vexa_usb_close(device); /* it leaves the bus now, and comes back as another device */
    clock_gettime(CLOCK_REALTIME, &patience);
    patience.tv_sec += 20;
    back = sem_timedwait(&came, &patience) == 0;
    vexa_usb_deregister_device_list_event_callback(registration);
    vexa_usb_fini();
    return !back;
}
