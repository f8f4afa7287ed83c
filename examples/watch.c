/* Prints a line as each device comes or goes, until Ctrl-C. */
#define _POSIX_C_SOURCE 200809L
#include <signal.h>

#include "common.h"

/* On a thread of the library; the record is valid during the call only. */
static void onChange(uint32_t type, const _vexa_usb_device_list_item *item, void *data) {
    (void)data;
    printf("%s %04x:%04x, device %" PRIu64 "\n",
           type == VEXA_USB_DEVICE_LIST_EVENT_ADDED ? "added" : "removed", item->vendor_id,
           item->product_id, item->id);
    fflush(stdout);
}

int main(void) {
    sigset_t signals;
    uint32_t registration;
    int received;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, NULL);
    vexa_usb_init();
    require(vexa_usb_register_device_list_event_callback(onChange, NULL, &registration),
            "register");
    require(vexa_usb_update_device_list(), "update"); /* adds those that are attached already */
    sigwait(&signals, &received);
    vexa_usb_deregister_device_list_event_callback(registration);
    vexa_usb_fini();
    return 0;
}
