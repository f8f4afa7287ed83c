/* What the examples share: how to fail, and how to open the first device. */
#pragma once

#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <vexa_usb.h>

/* A program that leaves without the last fini is aborted. */
static inline void fail(const char *what, const char *why) {
    fprintf(stderr, "%s: %s\n", what, why);
    vexa_usb_fini();
    exit(1);
}

static inline void require(int32_t status, const char *what) {
    if (status != VEXA_USB_STATUS_SUCCESS)
        fail(what, vexa_usb_get_status_str(status));
}

static inline _vexa_usb_device *openFirst(vexa_usb_device_event_callback callback, void *data) {
    _vexa_usb_device_list_item **list;
    _vexa_usb_device *device = NULL;
    int32_t status = VEXA_USB_STATUS_SUCCESS;
    vexa_usb_init();
    require(vexa_usb_update_device_list(), "update");
    require(vexa_usb_get_device_list(&list, NULL), "list");
    if (list[0] != NULL)
        status = vexa_usb_open(list[0], callback, data, &device);
    vexa_usb_free_device_list(list);
    require(status, "open (VEXA_USB_LOG=error tells why)");
    if (device == NULL)
        fail("open", "no device is attached");
    return device;
}

static inline void ignoreEvent(_vexa_usb_device_event event, void *data) {
    (void)event;
    (void)data;
}
