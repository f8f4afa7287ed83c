/* A driver that lives through unplugs: it opens the device each time that it is there.
 * Usage: reconnect COUNT: ends once the device has left so many times. */
#include <semaphore.h>

#include "first_device.h"

static sem_t came, left; /* outlive the last callback */

/* On the thread "usb-devicelist": the record is valid during the call only. */
static void onChange(uint32_t type, const _vexa_usb_device_list_item *item, void *data) {
    (void)item;
    (void)data;
    if (type == VEXA_USB_DEVICE_LIST_EVENT_ADDED)
        sem_post(&came);
}

/* On the device's own thread. */
static void onEvent(_vexa_usb_device_event event, void *data) {
    (void)data;
    if (event == VEXA_USB_DEVICE_EVENT_REMOVED)
        sem_post(&left);
}

int main(int argc, char **argv) {
    long sessions = argc > 1 ? strtol(argv[1], NULL, 10) : 1;
    uint32_t registration;
    sem_init(&came, 0, 0);
    sem_init(&left, 0, 0);
    vexa_usb_init();
    require(vexa_usb_register_device_list_event_callback(onChange, NULL, &registration),
            "register");
    require(vexa_usb_update_device_list(), "update"); /* reports what is attached already */
    for (long session = 1; session <= sessions;) {
        _vexa_usb_device *device;
        sem_wait(&came);
        device = tryOpenFirst(onEvent, NULL);
        if (device == NULL)
            continue; /* it has left again */
        printf("session %ld\n", session);
        fflush(stdout);
        sem_wait(&left);        /* here a driver would work, until a call answers -12 */
        vexa_usb_close(device); /* the handle of a device that has left is closed, too */
        ++session;
    }
    vexa_usb_deregister_device_list_event_callback(registration);
    vexa_usb_fini();
    return 0;
}
