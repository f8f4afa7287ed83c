/* What the samples share: they open the first device of the list, or end and say why not. */
#pragma once

#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <vexa_usb.h>

/* A process that ends without the last fini is aborted. */
static inline void require(int32_t status, const char *what) {
    if (status == VEXA_USB_STATUS_SUCCESS)
        return;
    fprintf(stderr, "%s: %s\n", what, vexa_usb_get_status_str(status));
    vexa_usb_fini();
    exit(1);
}

/* Null when no device is there, or it cannot be opened; VEXA_USB_LOG=error tells why. */
static inline _vexa_usb_device *tryOpenFirst(vexa_usb_device_event_callback onEvent, void *data) {
    _vexa_usb_device_list_item **list;
    _vexa_usb_device *device = NULL;
    require(vexa_usb_update_device_list(), "update");
    require(vexa_usb_get_device_list(&list, NULL), "list");
    if (list[0] != NULL)
        vexa_usb_open(list[0], onEvent, data, &device);
    vexa_usb_free_device_list(list);
    return device;
}

static inline _vexa_usb_device *openFirst(vexa_usb_device_event_callback onEvent, void *data) {
    _vexa_usb_device *device = tryOpenFirst(onEvent, data);
    if (device == NULL)
        require(VEXA_USB_STATUS_UNKNOWN, "open");
    return device;
}

static inline void ignoreEvents(_vexa_usb_device_event event, void *data) {
    (void)event;
    (void)data;
}
