/* Streams 64 MiB from the first instrument. */
#define _POSIX_C_SOURCE 200809L
#include <semaphore.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <vexa_usb.h>

static sem_t events;
static atomic_int failed;

static void onEvent(_vexa_usb_device_event event, void *unused) {
    (void)unused;
    if (event == VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR || event == VEXA_USB_DEVICE_EVENT_REMOVED)
        failed = 1;
    if (failed || event == VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL)
        sem_post(&events);
}

int main(void) {
    _vexa_usb_device_list_item **list;
    _vexa_usb_device *device = NULL;
    uint8_t *data;
    uint64_t size, done = 0;
    sem_init(&events, 0, 0);
    setenv("VEXA_USB_STREAM", "strict", 1); /* a gap in the data ends the stream */
    vexa_usb_init();
    vexa_usb_update_device_list();
    vexa_usb_get_device_list(&list, NULL);
    if (list[0] != NULL && vexa_usb_open(list[0], onEvent, NULL, &device) == 0) {
        /* 16 buffers of 1 MiB, from endpoint 0x82 */
        const int started = vexa_usb_data_stream_start(device, 0x82, 1048576, 16) == 0;
        while (started && !failed && done < 64 * 1048576 && sem_wait(&events) == 0 && !failed &&
               vexa_usb_data_stream_buffer_lock(device, &data, &size) == 0) {
            done += size; /* data[0] to data[size - 1] are the next bytes */
            vexa_usb_data_stream_buffer_unlock(device);
        }
        vexa_usb_close(device);
    }
    vexa_usb_free_device_list(list);
    vexa_usb_fini();
    printf("%llu bytes\n", (unsigned long long)done);
    return done < 64 * 1048576;
}
